// Races between posters, senders, workers and owners.
//
// KELTO_STRESS multiplies the size of every case (default 1, which takes a second or so):
//   KELTO_STRESS=100 CmThread_stress_test
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CmThread.h"
#include "support/Cancellation.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"

namespace UTIL_NS {
namespace {

using kelto_test::Eventually;
using kelto_test::Gate;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr int TYPE = 7;
constexpr CmResult RESULT = 4711;

int Scaled(int aCount) {
    const char* pScale = std::getenv("KELTO_STRESS");
    const int nScale = pScale != nullptr ? std::atoi(pScale) : 1;
    return aCount * (nScale > 0 ? nScale : 1);
}

// What became of all events of one case.
struct Balance {
    std::atomic<long> posted{0};
    std::atomic<long> refused{0};
    std::atomic<long> fired{0};
    std::atomic<long> ended{0};
};

class CountedEvent : public ICmEvent {
  public:
    explicit CountedEvent(Balance& aBalance) : m_balance(aBalance) { ++m_balance.posted; }
    CmResult OnEventFire() override {
        EXPECT_EQ(0, m_nFired++);
        ++m_balance.fired;
        return RESULT;
    }
    void OnDestorySelf() override {
        ++m_balance.ended;
        delete this;
    }

  private:
    Balance& m_balance;
    int m_nFired = 0;
};

// Checks, on its worker's thread, that the events of one poster arrive in order.
class OrderedEvent : public ICmEvent {
  public:
    OrderedEvent(int& aNext, int aNumber) : m_next(aNext), m_nNumber(aNumber) {}
    CmResult OnEventFire() override {
        EXPECT_EQ(m_next, m_nNumber);
        m_next = m_nNumber + 1;
        return CM_OK;
    }

  private:
    int& m_next;
    const int m_nNumber;
};

TEST(CmThreadStress, KeepsTheOrderOfEachPoster_WhenFourPostToThreeWorkers) {
    constexpr int POSTERS = 4;
    constexpr int WORKERS = 3;
    const int nEvents = Scaled(3000);
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        ACmThread* apWorker[WORKERS] = {};
        int anNext[WORKERS][POSTERS] = {};
        for (int w = 0; w < WORKERS; ++w) {
            ASSERT_EQ(CM_OK, CreateUserTaskThread(&apWorker[w], TF_JOINABLE, w != 0, TYPE));
        }
        std::vector<std::thread> posters;
        for (int p = 0; p < POSTERS; ++p) {
            posters.emplace_back([&, p] {
                for (int i = 0; i < nEvents; ++i) {
                    for (int w = 0; w < WORKERS; ++w) {
                        EXPECT_EQ(CM_OK, apWorker[w]->GetEventQueue()->PostEvent(
                                             new OrderedEvent(anNext[w][p], i), NORMAL));
                    }
                }
            });
        }
        for (std::thread& poster : posters) {
            poster.join();
        }
        for (int w = 0; w < WORKERS; ++w) {
            EXPECT_EQ(CM_OK, apWorker[w]->Stop(nullptr));
            EXPECT_EQ(CM_OK, apWorker[w]->Join());
            for (int p = 0; p < POSTERS; ++p) {
                EXPECT_EQ(nEvents, anNext[w][p]);
            }
            EXPECT_EQ(0u, apWorker[w]->GetEventQueue()->GetPendingEventsCount());
            apWorker[w]->Destory(0);
        }
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadStress, BalancesAndFreesAll_WhenPostersAndSendersRaceStop) {
    const int nRounds = Scaled(200);
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (int nRound = 0; nRound < nRounds; ++nRound) {
        Balance balance;
        ACmThread* pWorker = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pWorker, TF_JOINABLE, nRound % 2 == 0, TYPE));
        ICmEventQueue* pQueue = pWorker->GetEventQueue();
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&] {
                while (pQueue->PostEvent(new CountedEvent(balance), NORMAL) == CM_OK) {
                    std::this_thread::yield();
                }
                ++balance.refused;
            });
            threads.emplace_back([&] {
                CmResult rv = RESULT;
                while (rv == RESULT) {
                    rv = pQueue->SendEvent(new CountedEvent(balance));
                }
                EXPECT_TRUE(rv == CM_ERROR_NOT_INITIALIZED || rv == CM_ERROR_NOT_AVAILABLE) << rv;
            });
        }
        std::this_thread::sleep_for(std::chrono::microseconds(nRound % 10 * 100));
        EXPECT_EQ(CM_OK, pWorker->Stop(nullptr));
        EXPECT_EQ(CM_OK, pWorker->Join());
        for (std::thread& thread : threads) {
            thread.join();  // although the worker's object still is: no sender hangs
        }
        pWorker->Destory(0);
        EXPECT_EQ(2, balance.refused.load());
        EXPECT_EQ(balance.posted.load(), balance.ended.load());
        EXPECT_LE(balance.fired.load(), balance.ended.load());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadStress, WakesEverySender_WhenTheWorkerIsDestroyed) {
    const int nRounds = Scaled(200);
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (int nRound = 0; nRound < nRounds; ++nRound) {
        constexpr int SENDERS = 3;
        Balance balance;
        ACmThread* pWorker = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pWorker, TF_JOINABLE, nRound % 2 == 0, TYPE));
        ICmEventQueue* pQueue = pWorker->GetEventQueue();
        pQueue->PostEvent(new CountedEvent(balance), NORMAL);
        std::vector<std::thread> senders;
        for (int i = 0; i < SENDERS; ++i) {
            senders.emplace_back([&] {
                const CmResult rv = pQueue->SendEvent(new CountedEvent(balance));
                EXPECT_TRUE(rv == RESULT || rv == CM_ERROR_NOT_INITIALIZED ||
                            rv == CM_ERROR_NOT_AVAILABLE)
                    << rv;
            });
        }
        // Every sender has called; the worker may go while they are on their way back.
        while (balance.posted.load() < SENDERS + 1) {
            std::this_thread::yield();
        }
        while (pQueue->GetPendingEventsCount() > 0 && balance.fired.load() == 0) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(Eventually([&] { return balance.fired.load() == SENDERS + 1; }));
        pWorker->Stop(nullptr);
        pWorker->Join();
        pWorker->Destory(0);
        for (std::thread& sender : senders) {
            sender.join();
        }
        EXPECT_EQ(SENDERS + 1, balance.ended.load());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadStress, WakesServedAndUnservedSenders_WhenTheirQueueGoesAtOnce) {
    const int nRounds = Scaled(300);
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (int nRound = 0; nRound < nRounds; ++nRound) {
        constexpr int SENDERS = 4;
        constexpr DWORD SERVED = 2;
        Balance balance;
        std::atomic<int> nServed{0};
        std::atomic<int> nUnserved{0};
        std::vector<std::thread> senders;
        {
            CCmEventQueueUsingConditionVariable queue;
            for (int i = 0; i < SENDERS; ++i) {
                senders.emplace_back([&] {
                    const CmResult rv = queue.SendEvent(new CountedEvent(balance));
                    nServed += rv == RESULT ? 1 : 0;
                    nUnserved += rv == CM_ERROR_NOT_AVAILABLE ? 1 : 0;
                });
            }
            while (queue.GetPendingEventsCount() < SENDERS) {
                std::this_thread::yield();
            }
            std::list<ICmEvent*> events;
            EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr, SERVED));
            queue.ProcessAndRecycleEvents(events);
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        EXPECT_EQ(2, nServed.load());
        EXPECT_EQ(2, nUnserved.load());
        EXPECT_EQ(2, balance.fired.load());
        EXPECT_EQ(SENDERS, balance.ended.load());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadStress, LeavesNothing_WhenDetachedWorkersAreDestroyedRightAfterStop) {
    const int nLives = Scaled(1000);
    const long lLive = kelto_test::LiveAllocationsBefore();
    Balance balance;
    for (int i = 0; i < nLives; ++i) {
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_DETACHED, i % 2 == 0, TYPE));
        pThread->GetEventQueue()->PostEvent(new CountedEvent(balance), NORMAL);
        EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
        if (i % 3 == 0) {
            std::this_thread::yield();  // the body may end before
        }
        EXPECT_EQ(CM_OK, pThread->Destory(0));
    }
    EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
    EXPECT_EQ(nLives, balance.fired.load());
    EXPECT_EQ(nLives, balance.ended.load());
}

// Sends back and forth, from event to event.
TEST(CmThreadStress, ServesSenders_WhenTheyAreWorkersThemselves) {
    const int nSends = Scaled(2000);
    ACmThread* pSender = nullptr;
    ACmThread* pWorker = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pSender, TF_JOINABLE, true, TYPE));
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pWorker, TF_JOINABLE, true, TYPE));
    struct CSending : ICmEvent {
        CSending(ICmEventQueue* aQueue, Balance& aBalance, int aSends)
            : m_pQueue(aQueue), m_balance(aBalance), m_nSends(aSends) {}
        CmResult OnEventFire() override {
            for (int i = 0; i < m_nSends; ++i) {
                EXPECT_EQ(RESULT, m_pQueue->SendEvent(new CountedEvent(m_balance)));
            }
            return CM_OK;
        }
        ICmEventQueue* m_pQueue;
        Balance& m_balance;
        const int m_nSends;
    };
    Balance balance;
    EXPECT_EQ(CM_OK, pSender->GetEventQueue()->SendEvent(
                         new CSending(pWorker->GetEventQueue(), balance, nSends)));
    for (ACmThread* pThread : {pSender, pWorker}) {
        pThread->Stop(nullptr);
        pThread->Join();
        pThread->Destory(0);
    }
    EXPECT_EQ(nSends, balance.fired.load());
    EXPECT_EQ(nSends, balance.ended.load());
}

void IgnoreSignal(int) {}

TEST(CmThreadStress, SendsReturnTheirResults_WhenSignalsKeepComing) {
    struct sigaction action = {};
    struct sigaction saved = {};
    action.sa_handler = IgnoreSignal;  // without SA_RESTART: calls are interrupted
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &saved));
    {
        const int nSends = Scaled(1000);
        Balance balance;
        ACmThread* pWorker = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pWorker, TF_JOINABLE, true, TYPE));
        Gate done;
        Gate mayEnd;
        std::thread sender([&] {
            for (int i = 0; i < nSends; ++i) {
                EXPECT_EQ(RESULT, pWorker->GetEventQueue()->SendEvent(new CountedEvent(balance)));
            }
            done.Open();
            mayEnd.Wait();  // stays alive for the last signals
        });
        while (!done.IsOpen()) {
            pthread_kill(sender.native_handle(), SIGUSR1);
            pthread_kill(pWorker->GetThreadId(), SIGUSR1);
            std::this_thread::yield();
        }
        mayEnd.Open();
        sender.join();
        pWorker->Stop(nullptr);
        pWorker->Join();
        pWorker->Destory(0);
        EXPECT_EQ(nSends, balance.fired.load());
        EXPECT_EQ(nSends, balance.ended.load());
    }
    ASSERT_EQ(0, sigaction(SIGUSR1, &saved, nullptr));
}

TEST(CmThreadStress, LeavesNothing_WhenThousandsOfThreadsLiveInEveryFlagCombination) {
    const int nLives = Scaled(100);
    const long lLive = kelto_test::LiveAllocationsBefore();
    Balance balance;
    for (int i = 0; i < nLives; ++i) {
        for (TFlag flag : {0, 1, 2, 3}) {
            for (bool bWithTimerQueue : {false, true}) {
                ACmThread* pThread = nullptr;
                ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, flag, bWithTimerQueue, TYPE));
                pThread->GetEventQueue()->PostEvent(new CountedEvent(balance), NORMAL);
                pThread->GetEventQueue()->PostEvent(new CountedEvent(balance), NORMAL);
                if (i % 2 == 0) {
                    EXPECT_EQ(RESULT,
                              pThread->GetEventQueue()->SendEvent(new CountedEvent(balance)));
                }
                EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
                EXPECT_EQ(CM_OK, pThread->Join());
                EXPECT_EQ(CM_OK, pThread->Destory(0));
            }
        }
    }
    EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
    EXPECT_EQ(balance.posted.load(), balance.fired.load());
    EXPECT_EQ(balance.posted.load(), balance.ended.load());
    EXPECT_EQ(nullptr, getCurrentThread());
}

// With a cancellation point in its firing and in its destruction.
class PointedEvent : public CountedEvent {
  public:
    using CountedEvent::CountedEvent;
    CmResult OnEventFire() override {
        const CmResult rv = CountedEvent::OnEventFire();
        kelto_test::TestCancel();
        return rv;
    }
    void OnDestorySelf() override {
        CountedEvent::OnDestorySelf();
        kelto_test::TestCancel();
    }
};

// Sends an event to another thread's queue.
class SendingEvent : public ICmEvent {
  public:
    SendingEvent(ICmEventQueue& aQueue, Balance& aBalance) : m_queue(aQueue), m_balance(aBalance) {}
    CmResult OnEventFire() override { return m_queue.SendEvent(new PointedEvent(m_balance)); }

  private:
    ICmEventQueue& m_queue;
    Balance& m_balance;
};

// Whether a cancelled thread runs its clean-up handlers alone.
class CmCancelledThreadStress : public testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(, CmCancelledThreadStress, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

TEST_P(CmCancelledThreadStress, LeavesNothing_WhenWorkersAreTerminatedAtAnyTime) {
    constexpr int EVENTS = 20;
    constexpr int SENDS = 3;
    const int nLives = Scaled(100);
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (int i = 0; i < nLives; ++i) {
        std::optional<kelto_test::ScopedHandlersOnly> handlersOnly;
        if (GetParam()) {
            handlersOnly.emplace();
        }
        Balance balance;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, i % 2 == 0, TYPE));
        ICmEventQueue* const pQueue = pThread->GetEventQueue();
        ACmThread* pSender = nullptr;  // is terminated as well
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pSender, TF_JOINABLE, false, TYPE));
        for (int n = 0; n < SENDS; ++n) {
            pSender->GetEventQueue()->PostEvent(new SendingEvent(*pQueue, balance), NORMAL);
        }
        for (int n = 0; n < EVENTS; ++n) {
            pQueue->PostEvent(new PointedEvent(balance), NORMAL);
        }
        if (i % 4 < 2) {
            std::this_thread::sleep_for(std::chrono::microseconds(i % 100));
        }
        pThread->Terminate();
        pSender->Terminate();
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(CM_OK, pSender->Join());
        EXPECT_EQ(CM_OK, pQueue->PostEvent(new CountedEvent(balance), NORMAL));
        pSender->Destory(0);
        pThread->Destory(0);
        EXPECT_LE(EVENTS + 1, balance.posted.load());
        EXPECT_EQ(balance.posted.load(), balance.ended.load());
        EXPECT_LE(balance.fired.load(), balance.ended.load());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

}  // namespace
}  // namespace UTIL_NS
