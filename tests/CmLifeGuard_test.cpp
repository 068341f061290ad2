#include "CmLifeGuard.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "CmTimer.h"
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
using kelto_test::FailingCall;
using kelto_test::Gate;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedEntry;

TEST(CCmLifeGuard, Runs_WhileItLives) {
    CCmWorker worker;
    int nRan = 0;
    {
        CCmLifeGuard guard;
        EXPECT_EQ(CM_OK, guard.Result());
        EXPECT_EQ(CM_OK, CmPost(worker, guard.Wrap([&nRan] { ++nRan; })));
        EXPECT_TRUE(*CmCall(worker, guard.Wrap([&nRan] { ++nRan; })));
        auto add = guard.Wrap([&nRan](int aLeft, int aRight) { nRan += aLeft + aRight; });
        EXPECT_TRUE(add(2, 3));
    }
    EXPECT_EQ(7, nRan);
}

TEST(CCmLifeGuard, RunsNothing_AfterItsEnd) {
    CCmWorker worker;
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    std::atomic<int> ran{0};
    std::atomic<int> ends{0};
    {
        CCmLifeGuard guard;
        CmPost(worker, guard.Wrap([&ran, counter = EndCounter(ends)] { ++ran; }));
        CmPostDelayed(worker, 0ms, guard.Wrap([&ran, counter = EndCounter(ends)] { ++ran; }));
    }  // does not wait for the event at the gate
    EXPECT_EQ(0, ends);
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Drain());
    worker.End();
    EXPECT_EQ(0, ran);
    EXPECT_EQ(2, ends);
}

TEST(CCmLifeGuard, WaitsForTheCallable_WhenItRuns) {
    CCmWorker worker;
    std::optional<CCmLifeGuard> guard;
    guard.emplace();
    Gate begun;
    std::atomic<bool> bReturned{false};
    CmPost(worker, guard->Wrap([&] {
        begun.Open();
        std::this_thread::sleep_for(10ms);
        bReturned = true;
    }));
    ASSERT_TRUE(begun.Wait());
    guard.reset();
    EXPECT_TRUE(bReturned);
}

std::atomic<int> s_nNaps{0};
std::atomic<bool> s_bNapsAreShort{true};

int NoteNap(const timespec* aTime, timespec* aLeft) {
    ++s_nNaps;
    if (aTime->tv_sec != 0 || aTime->tv_nsec < 100000 || aTime->tv_nsec > 10000000) {
        s_bNapsAreShort = false;
    }
    return nanosleep(aTime, aLeft);
}

TEST(CCmLifeGuard, WaitsAllTheSame_WhenTheWaitFails) {
    s_nNaps = 0;
    s_bNapsAreShort = true;
    const ScopedEntry<decltype(g_cmSystem.nanosleep)> entry(g_cmSystem.nanosleep, &NoteNap);
    const FailingCall<&CCmSystemTable::pthread_cond_wait> fault(0, EINVAL);
    CCmLifeGuard guard;
    Gate begun;
    std::atomic<bool> bReturned{false};
    std::thread runner(guard.Wrap([&] {
        begun.Open();
        EXPECT_TRUE(Eventually([] { return s_nNaps > 0; }));
        bReturned = true;
    }));
    EXPECT_TRUE(begun.Wait());
    guard.End();
    EXPECT_TRUE(bReturned);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, guard.Result());
    EXPECT_EQ(1, s_nNaps) << "between the wait that failed and the next";
    EXPECT_TRUE(s_bNapsAreShort);
    runner.join();
}

// Of the calling thread; changes nothing.
int CancelState() {
    int nState = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
    pthread_setcancelstate(nState, nullptr);
    return nState;
}

TEST(CCmLifeGuard, ThreadCanBeCancelledAsBefore_AfterACallable) {
    CCmLifeGuard guard;
    std::thread([&guard] {
        for (const int nBefore : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
            pthread_setcancelstate(nBefore, nullptr);
            int nInside = -1;
            EXPECT_TRUE(guard.Wrap([&nInside] { nInside = CancelState(); })());
            EXPECT_EQ(PTHREAD_CANCEL_DISABLE, nInside);
            EXPECT_EQ(nBefore, CancelState());
        }
    }).join();
}

TEST(CCmLifeGuard, LeavesNothing_AfterTheLastOfItsCallables) {
    const long lLive = kelto_test::LiveAllocations();
    {
        auto pGuard = std::make_unique<CCmLifeGuard>();
        auto callable = pGuard->Wrap([] {});
        EXPECT_TRUE(callable());
        pGuard.reset();
        EXPECT_FALSE(callable());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CCmLifeGuard, Ends_WhenInsideItsOwnCallable) {
    CCmWorker worker;
    auto pGuard = std::make_unique<CCmLifeGuard>();
    std::atomic<int> ran{0};
    CmPost(worker, pGuard->Wrap([&] {
        pGuard.reset();
        ++ran;
    }));
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(1, ran);
}

TEST(CCmLifeGuard, WaitsForOtherThreads_WhenItEndsInsideACallable) {
    CCmWorker first;
    CCmWorker second;
    CCmLifeGuard guard;
    Gate begun;
    std::atomic<bool> bReturned{false};
    bool bSeen = false;
    CmPost(first, guard.Wrap([&] {
        begun.Open();
        std::this_thread::sleep_for(10ms);
        bReturned = true;
    }));
    ASSERT_TRUE(begun.Wait());
    CmCall(second, guard.Wrap([&] {
        guard.End();
        bSeen = bReturned;
    }));
    EXPECT_TRUE(bSeen || bReturned);
}

TEST(CCmLifeGuard, RunsNothing_WhenMemoryRanOut) {
    std::optional<CCmLifeGuard> guard;
    {
        const ScopedAllocationFault fault(1);
        guard.emplace();
    }
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, guard->Result());
    int nRan = 0;
    EXPECT_FALSE(guard->Wrap([&nRan] { ++nRan; })());
    EXPECT_EQ(0, nRan);
    guard->End();
}

// An object that is destroyed while callables for it arrive from and run on several threads.
TEST(CCmLifeGuard, KeepsCallablesOffAnObject_WhenItEnds) {
    struct Object {
        explicit Object(std::atomic<int>& aUses) : m_uses(aUses) {}
        ~Object() {
            m_guard.End();
            m_bAlive = false;
        }
        void Use() {
            EXPECT_TRUE(m_bAlive);
            ++m_uses;
        }
        bool m_bAlive = true;  // no atomic: the guard orders it
        std::atomic<int>& m_uses;
        CCmLifeGuard m_guard;
    };
    CCmWorker first;
    CCmWorker second;
    std::atomic<int> uses{0};
    for (int i = 0; i < 200; ++i) {
        auto pObject = std::make_unique<Object>(uses);
        Object* pRaw = pObject.get();
        for (int n = 0; n < 5; ++n) {
            CmPost(first, pRaw->m_guard.Wrap([pRaw] { pRaw->Use(); }));
            CmPost(second, pRaw->m_guard.Wrap([pRaw] { pRaw->Use(); }));
        }
        if (i % 3 == 0) {
            first.Drain();
        }
    }
    EXPECT_LE(67 * 5, uses);
}

}  // namespace
}  // namespace UTIL_NS
