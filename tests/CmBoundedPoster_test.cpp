#include "CmBoundedPoster.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "CmWorker.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndCounter;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedEntry;

void RunAll(CCmEventQueueUsingMutex& aQueue, DWORD aMaxCount = 0xFFFFFFFF) {
    std::list<ICmEvent*> events;
    if (CM_SUCCEEDED(aQueue.PopPendingEventsLocked(events, aMaxCount))) {
        aQueue.ProcessEvents(events);
    }
}

TEST(CCmBoundedPoster, TryPostRefuses_WhenThereIsNoRoom) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 3);
    EXPECT_EQ(CM_OK, poster.Result());
    std::vector<int> ran;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(CM_OK, poster.TryPost([&ran, i] { ran.push_back(i); }));
    }
    EXPECT_EQ(3U, poster.GetCount());
    auto pKept = std::make_unique<int>(3);
    auto refused = [&ran, pKept = std::move(pKept)] { ran.push_back(*pKept); };
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, poster.TryPost(std::move(refused)));
    RunAll(queue, 1);
    EXPECT_EQ(2U, poster.GetCount());
    // It was not moved from. NOLINTNEXTLINE(bugprone-use-after-move)
    EXPECT_EQ(CM_OK, poster.TryPost(std::move(refused)));
    RunAll(queue);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), ran);
    EXPECT_EQ(0U, poster.GetCount());
}

TEST(CCmBoundedPoster, TakesOneAtLeast) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 0);
    EXPECT_EQ(CM_OK, poster.TryPost([] {}));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, poster.TryPost([] {}));
}

TEST(CCmBoundedPoster, GivesRoomBack_WhenEventsEndUnfired) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 2);
    std::atomic<int> ends{0};
    EXPECT_EQ(CM_OK, poster.TryPost([counter = EndCounter(ends)] {}));
    queue.DestoryPendingEvents();
    EXPECT_EQ(1, ends);
    EXPECT_EQ(0U, poster.GetCount());
    queue.SetStopped();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, poster.TryPost([counter = EndCounter(ends)] {}));
    EXPECT_EQ(2, ends);
    EXPECT_EQ(0U, poster.GetCount());
}

TEST(CCmBoundedPoster, GivesRoomBack_WhenMemoryRunsOut) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 2);
    for (unsigned long ulNth = 1; ulNth <= 2; ++ulNth) {
        const ScopedAllocationFault fault(ulNth);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, poster.TryPost([] {}));
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(0U, poster.GetCount());
    }
}

TEST(CCmBoundedPoster, RefusesAll_WhenItCouldNotBeMade) {
    CCmEventQueueUsingMutex queue;
    for (unsigned long ulNth = 1; ulNth <= 3; ++ulNth) {
        std::optional<CCmBoundedPoster> poster;
        std::atomic<int> ends{0};
        {
            const ScopedAllocationFault fault(ulNth);
            poster.emplace(queue, 2, 0, [counter = EndCounter(ends)] {});
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, poster->Result()) << ulNth;
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, poster->TryPost([] {}));
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, poster->Post([] {}));
        poster.reset();
        EXPECT_EQ(1, ends);
    }
}

TEST(CCmBoundedPoster, PostWaits_UntilThereIsRoom) {
    CCmWorker worker;
    CCmBoundedPoster poster(*worker.GetEventQueue(), 2);
    std::vector<int> ran;
    std::atomic<DWORD> most{0};
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(CM_OK, poster.Post([&ran, i] { ran.push_back(i); }));
        most = std::max(most.load(), poster.GetCount());
    }
    worker.Drain();
    EXPECT_GE(2U, most);
    ASSERT_EQ(500U, ran.size());
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(CCmBoundedPoster, PostGivesUpAtItsLimit) {
    CCmWorker worker;
    CCmBoundedPoster poster(*worker.GetEventQueue(), 1);
    Gate gate;
    EXPECT_EQ(CM_OK, poster.Post([&gate] { gate.Wait(); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, poster.Post(10ms, [] {}));
    EXPECT_LE(10ms, std::chrono::steady_clock::now() - start);
    EXPECT_EQ(1U, poster.GetCount());
    gate.Open();
    EXPECT_EQ(CM_OK, poster.Post(20s, [] {}));
}

TEST(CCmBoundedPoster, PostFails_WhenItCannotLock) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 1);
    EXPECT_EQ(CM_OK, poster.Post([] {}));
    {
        const kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
            0, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_ERROR_FAILURE, poster.Post(20s, [] {}));
    }
    EXPECT_EQ(1U, poster.GetCount());
}

TEST(CCmBoundedPoster, PostDoesNotWait_WhenOnTheQueuesOwnThread) {
    CCmWorker worker;
    CCmBoundedPoster poster(*worker.GetEventQueue(), 1);
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, *CmCall(worker, [&] {
                  EXPECT_EQ(CM_OK, poster.Post([] {}));
                  return poster.Post(20s, [] {});
              }));
}

TEST(CCmBoundedPoster, PostIsRefused_WhenTheQueueEndsMeanwhile) {
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 1);
    EXPECT_EQ(CM_OK, poster.TryPost([] {}));
    std::atomic<CmResult> rv{CM_OK};
    std::thread waiter([&] { rv = poster.Post([] {}); });
    std::this_thread::sleep_for(5ms);
    queue.SetStopped();
    queue.DestoryPendingEvents();
    waiter.join();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rv);
    EXPECT_EQ(0U, poster.GetCount());
}

// Notes that the calling thread waits, once it holds a place in the turn.
thread_local std::atomic<bool>* t_pWaits = nullptr;
int (*g_pfnWait)(pthread_cond_t*, pthread_mutex_t*) = nullptr;

int NotedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    if (t_pWaits != nullptr) {
        *t_pWaits = true;
    }
    return g_pfnWait(aCondition, aMutex);
}

TEST(CCmBoundedPoster, ServesInTurn_WhenSeveralWait) {
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(g_cmSystem.pthread_cond_wait,
                                                                    NotedWait);
    g_pfnWait = entry.original();
    CCmEventQueueUsingMutex queue;
    CCmBoundedPoster poster(queue, 1);
    std::vector<int> ran;
    EXPECT_EQ(CM_OK, poster.TryPost([] {}));
    std::atomic<bool> waits[3] = {};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&, i] {
            t_pWaits = &waits[i];
            EXPECT_EQ(CM_OK, poster.Post([&ran, i] { ran.push_back(i); }));
        });
        EXPECT_TRUE(Eventually([&] { return waits[i].load(); }));
    }
    while (ran.size() < 3) {
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, poster.TryPost([&ran] { ran.push_back(9); }));
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() > 0; }));
        RunAll(queue, 1);
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ((std::vector<int>{0, 1, 2}), ran);
}

TEST(CCmBoundedPoster, CallsBackAtLowWater) {
    CCmEventQueueUsingMutex queue;
    int nCalls = 0;
    CCmBoundedPoster poster(queue, 4, 1, [&nCalls] { ++nCalls; });
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(CM_OK, poster.TryPost([] {}));
    }
    RunAll(queue);
    EXPECT_EQ(0, nCalls);  // nobody found no room
    for (int i = 0; i < 5; ++i) {
        poster.TryPost([] {});
    }
    RunAll(queue, 2);
    EXPECT_EQ(0, nCalls);
    RunAll(queue, 1);
    EXPECT_EQ(1, nCalls);
    RunAll(queue);
    EXPECT_EQ(1, nCalls);
}

TEST(CCmBoundedPoster, CallsBackAfterOneHasEnded_WhenTheLowWaterIsTooHigh) {
    for (const DWORD dwMaxCount : {0, 1, 3}) {
        CCmEventQueueUsingMutex queue;
        int nCalls = 0;
        CCmBoundedPoster poster(queue, dwMaxCount, 7, [&nCalls] { ++nCalls; });
        for (DWORD i = 0; i < std::max<DWORD>(dwMaxCount, 1); ++i) {
            EXPECT_EQ(CM_OK, poster.TryPost([] {}));
        }
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, poster.TryPost([] {}));
        EXPECT_EQ(0, nCalls);
        RunAll(queue, 1);
        EXPECT_EQ(1, nCalls);
    }
}

TEST(CCmBoundedPoster, DoesNotCallBack_WhenAnotherPosterTakesTheRoom) {
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(g_cmSystem.pthread_cond_wait,
                                                                    NotedWait);
    g_pfnWait = entry.original();
    CCmEventQueueUsingMutex queue;
    int nCalls = 0;
    CCmBoundedPoster poster(queue, 1, 7, [&nCalls] { ++nCalls; });
    EXPECT_EQ(CM_OK, poster.TryPost([] {}));
    std::atomic<bool> bWaits{false};
    std::thread waiter([&] {
        t_pWaits = &bWaits;
        EXPECT_EQ(CM_OK, poster.Post([] {}));
    });
    EXPECT_TRUE(Eventually([&] { return bWaits.load(); }));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, poster.TryPost([] {}));  // and has to wait for the lock
    RunAll(queue, 1);
    EXPECT_EQ(0, nCalls);
    waiter.join();
    RunAll(queue, 1);
    EXPECT_EQ(1, nCalls);
}

TEST(CCmBoundedPoster, LetsItsEventsEnd_AfterItself) {
    const long lLive = LiveAllocationsBefore();
    {
        CCmEventQueueUsingMutex queue;
        int nRan = 0;
        int nCalls = 0;
        {
            CCmBoundedPoster poster(queue, 1, 0, [&nCalls] { ++nCalls; });
            poster.TryPost([&nRan] { ++nRan; });
            poster.TryPost([&nRan] { ++nRan; });
        }
        RunAll(queue);
        EXPECT_EQ(1, nRan);
        EXPECT_EQ(0, nCalls);
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

TEST(CCmBoundedPoster, CountsExactly_WhenSeveralThreadsPost) {
    CCmWorker worker;
    std::atomic<int> ran{0};
    std::atomic<int> refused{0};
    {
        CCmBoundedPoster poster(*worker.GetEventQueue(), 3, 1, [] {});
        std::vector<std::thread> posters;
        for (int i = 0; i < 4; ++i) {
            posters.emplace_back([&, i] {
                for (int n = 0; n < 300; ++n) {
                    const CmResult rv = (n + i) % 3 == 0   ? poster.TryPost([&ran] { ++ran; })
                                        : (n + i) % 3 == 1 ? poster.Post(20us, [&ran] { ++ran; })
                                                           : poster.Post([&ran] { ++ran; });
                    refused += CM_FAILED(rv) ? 1 : 0;
                    EXPECT_GE(3U, poster.GetCount());
                }
            });
        }
        for (std::thread& thread : posters) {
            thread.join();
        }
        EXPECT_TRUE(Eventually([&] { return poster.GetCount() == 0; }));
    }
    EXPECT_EQ(4 * 300, ran + refused);
}

}  // namespace
}  // namespace UTIL_NS
