#include "CmWorker.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmTimer.h"
#include "CmTimerWrapper.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndCounter;
using kelto_test::Eventually;
using kelto_test::FailingCall;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedClock;
using kelto_test::ScopedEntry;
using kelto_test::ScopedHandlersOnly;
using kelto_test::ScopedTraceSink;
using kelto_test::TaskThread;
using kelto_test::TestCancel;

std::string NameOfThisThread() {
    char szName[64] = {};
    pthread_getname_np(pthread_self(), szName, sizeof(szName));
    return szName;
}

TEST(CCmWorker, Runs_UntilTheEndOfTheScope) {
    std::vector<int> ran;
    {
        CCmWorker worker;
        ASSERT_EQ(CM_OK, worker.Result());
        EXPECT_EQ(CM_OK, worker.PriorityResult());
        ASSERT_NE(nullptr, worker.GetThread());
        EXPECT_EQ(worker.GetThread()->GetEventQueue(), worker.GetEventQueue());
        EXPECT_NE(nullptr, worker.GetThread()->GetTimerQueue());
        EXPECT_EQ(1, worker.GetThread()->GetThreadType());
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(CM_OK, CmPost(worker, [&ran, i] { ran.push_back(i); }));
        }
    }
    EXPECT_EQ(20U, ran.size());
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(CCmWorker, IsFoundAsTheCurrentThread) {
    CCmWorker worker(CCmWorkerOptions().Type(7));
    EXPECT_EQ(worker.GetThread(), *CmCall(worker, [] { return getCurrentThread(); }));
    EXPECT_EQ(7, worker.GetThread()->GetThreadType());
}

TEST(CCmWorker, NamesItsThread) {
    CCmWorker worker(CCmWorkerOptions().Name("audio"));
    EXPECT_EQ("audio", *CmCall(worker, NameOfThisThread));
    const std::string sLong =
        "a name of more than fifteen bytes";  // which is what Linux has room for
    CCmWorker longName(CCmWorkerOptions().Name(sLong.c_str()));
    const std::string sCut = *CmCall(longName, NameOfThisThread);
    EXPECT_LE(15U, sCut.size());
    EXPECT_EQ(sLong.substr(0, sCut.size()), sCut);
    CCmWorker unnamed(CCmWorkerOptions().Name(nullptr));
    EXPECT_EQ(NameOfThisThread(), *CmCall(unnamed, NameOfThisThread));
}

TEST(CCmWorker, NamesItsThread_WhenTheNameIsOneCharacter) {
    CCmWorker worker(CCmWorkerOptions().Name("a"));
    EXPECT_EQ("a", *CmCall(worker, NameOfThisThread));
}

TEST(CCmWorker, RunsItsFunctionsOnItsThread) {
    std::vector<std::string> ran;
    ACmThread* pSeen = nullptr;
    {
        CCmWorker worker(CCmWorkerOptions()
                             .Name("hooks")
                             .OnStart([&](ACmThread& aThread) {
                                 pSeen = &aThread;
                                 ran.push_back("start " + NameOfThisThread());
                                 CmPost(aThread, [&ran] { ran.push_back("event"); });
                             })
                             .OnEnd([&] { ran.push_back("end " + NameOfThisThread()); }));
        EXPECT_EQ(worker.GetThread(), pSeen);  // before the constructor returns
    }
    EXPECT_EQ((std::vector<std::string>{"start hooks", "event", "end hooks"}), ran);
}

TEST(CCmWorker, DoesNotStart_WhenItsStartFunctionFails) {
    std::atomic<int> ends{0};
    bool bEnded = false;
    CCmWorker worker(CCmWorkerOptions()
                         .OnStart([&](ACmThread& aThread) -> CmResult {
                             CmPost(aThread, [counter = EndCounter(ends)] {});
                             CmPostDelayed(aThread, 0ms, [counter = EndCounter(ends)] {});
                             return CM_ERROR_NOT_FOUND;
                         })
                         .OnEnd([&bEnded] { bEnded = true; }));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.Result());
    EXPECT_EQ(nullptr, worker.GetThread());
    EXPECT_EQ(nullptr, worker.GetEventQueue());
    EXPECT_EQ(2, ends);
    EXPECT_FALSE(bEnded);
    // Everything is refused.
    EXPECT_EQ(CM_ERROR_NULL_POINTER, CmPost(worker, [] {}));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, CmCall(worker, [] {}).Result());
    EXPECT_EQ(CM_ERROR_NULL_POINTER, CmPostDelayed(worker, 0ms, [] {}).Result());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.Drain());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.Stop());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.StopNow());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.Join());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.SetPriority(0));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.PriorityResult());
    EXPECT_EQ(CM_OK, worker.End());
}

// Notes on which thread it ends; to be captured by a callable.
class EndThread {
  public:
    explicit EndThread(std::thread::id& aThread) : m_pThread(&aThread) {}
    EndThread(EndThread&& aRight) noexcept : m_pThread(std::exchange(aRight.m_pThread, nullptr)) {}
    ~EndThread() {
        if (m_pThread != nullptr) {
            *m_pThread = std::this_thread::get_id();
        }
    }

  private:
    std::thread::id* m_pThread;
};

TEST(CCmWorker, EndsWhatIsPendingOnItsThread_WhenItsStartFunctionFails) {
    std::thread::id own;
    std::thread::id posted;
    std::thread::id delayed;
    const CCmWorker worker(CCmWorkerOptions().OnStart([&](ACmThread& aThread) -> CmResult {
        own = std::this_thread::get_id();
        CmPost(aThread, [end = EndThread(posted)] {});
        CmPostDelayed(aThread, 100s, [end = EndThread(delayed)] {});
        return CM_ERROR_NOT_FOUND;
    }));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, worker.Result());
    EXPECT_NE(std::this_thread::get_id(), own);
    EXPECT_EQ(own, posted);
    EXPECT_EQ(own, delayed);
}

TEST(CCmWorker, OptionsServe_WhenThereAreSeveralWorkers) {
    std::atomic<int> starts{0};
    const CCmWorkerOptions options = CCmWorkerOptions().OnStart([&starts] { ++starts; });
    {
        CCmWorker first(options);
        CCmWorker second(options);
        EXPECT_EQ(CM_OK, first.Result());
        EXPECT_EQ(CM_OK, second.Result());
    }
    EXPECT_EQ(2, starts);
}

TEST(CCmWorker, Refuses_WhenTheTypeIsNone) {
    for (const int nType : {TT_MAIN, TT_UNKNOWN}) {
        CCmWorker worker(CCmWorkerOptions().Type(nType));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, worker.Result());
        EXPECT_EQ(nullptr, worker.GetThread());
    }
}

TEST(CCmWorker, SaysWhichResult_WhenTheThreadCannotBeCreated) {
    const FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
    CCmWorker worker;
    EXPECT_EQ(CM_ERROR_UNEXPECTED, worker.Result());
    EXPECT_EQ(nullptr, worker.GetThread());
}

TEST(CCmWorker, SaysSo_WhenMemoryRunsOut) {
    bool bSucceeded = false;
    for (unsigned long ulNth = 1; !bSucceeded && ulNth < 30; ++ulNth) {
        const long lLive = LiveAllocationsBefore();
        bool bHit = false;
        {
            std::optional<ScopedAllocationFault> fault;
            fault.emplace(ulNth);
            CCmWorker worker(CCmWorkerOptions().Name("memory").OnStart([] {}).OnEnd([] {}));
            bHit = fault->hit();
            fault.reset();
            EXPECT_EQ(bHit ? CM_ERROR_OUT_OF_MEMORY : CM_OK, worker.Result()) << ulNth;
        }
        EXPECT_EQ(lLive, LiveAllocations()) << ulNth;
        bSucceeded = !bHit;
    }
    EXPECT_TRUE(bSucceeded);
}

TEST(CCmWorker, ReportsThePriority_WhenItIsRefused) {
    ScopedTraceSink sink;
    const FailingCall<&CCmSystemTable::pthread_setschedparam> fault(
        EPERM, EPERM, 1, kelto_test::Failing::FROM_THERE_ON);
    const int nLowest = sched_get_priority_min(SCHED_RR);
    CCmWorker worker(CCmWorkerOptions().Priority(nLowest));
    EXPECT_EQ(CM_OK, worker.Result());
    EXPECT_EQ(CM_ERROR_FAILURE, worker.PriorityResult());
    EXPECT_EQ(CM_ERROR_FAILURE, worker.SetPriority(nLowest + 1));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, worker.SetPriority(1000));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, worker.SetPriority(-1));
    EXPECT_EQ(2U, sink.count("CCmWorker, pthread_setschedparam() failed! err=1"));
    EXPECT_TRUE(CmCall(worker, [] {}));
}

std::pair<int, int> SchedulingOfThisThread() {
    int nPolicy = -1;
    sched_param parameter = {};
    pthread_getschedparam(pthread_self(), &nPolicy, &parameter);
    return {nPolicy, parameter.sched_priority};
}

TEST(CCmWorker, SetsItsPriority) {
    CCmWorker worker;
    EXPECT_EQ(CM_OK, worker.SetPriority(0));
    EXPECT_EQ(SCHED_OTHER, CmCall(worker, SchedulingOfThisThread)->first);
    // That of a thread that never had another one, which is not zero on macOS.
    EXPECT_EQ(SchedulingOfThisThread(), *CmCall(worker, SchedulingOfThisThread));
    EXPECT_EQ(CM_OK, worker.Stop());
    EXPECT_EQ(CM_OK, worker.Join());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, worker.SetPriority(0));
}

std::pair<int, int> s_asked;  // the policy and the priority of the last request

int NoteScheduling(pthread_t /*aThread*/, int aPolicy, const sched_param* aParameter) {
    s_asked = {aPolicy, aParameter->sched_priority};
    return 0;
}

TEST(CCmWorker, AsksForThePriority_WhenItIsOfTheRange) {
    const ScopedEntry<decltype(g_cmSystem.pthread_setschedparam)> entry(
        g_cmSystem.pthread_setschedparam, &NoteScheduling);
    const int nLowest = sched_get_priority_min(SCHED_RR);
    const int nHighest = sched_get_priority_max(SCHED_RR);
    CCmWorker worker(CCmWorkerOptions().Priority(nLowest));
    EXPECT_EQ(CM_OK, worker.PriorityResult());
    EXPECT_EQ(std::make_pair(SCHED_RR, nLowest), s_asked);
    EXPECT_EQ(CM_OK, worker.SetPriority(nHighest));
    EXPECT_EQ(std::make_pair(SCHED_RR, nHighest), s_asked);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, worker.SetPriority(nHighest + 1));
    EXPECT_EQ(std::make_pair(SCHED_RR, nHighest), s_asked) << "no such level";
}

TEST(CCmWorker, DrainWaitsForWhatWasPosted) {
    CCmWorker worker;
    int nRan = 0;
    for (int i = 0; i < 100; ++i) {
        CmPost(worker, [&nRan] { ++nRan; });
    }
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(100, nRan);
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    EXPECT_EQ(CM_ERROR_TIMEOUT, worker.Drain(5ms));
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Drain(20s));
    EXPECT_EQ(CM_ERROR_FAILURE, *CmCall(worker, [&worker] { return worker.Drain(); }));
    EXPECT_EQ(CM_OK, worker.Stop());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, worker.Drain());
}

TEST(CCmWorker, StopRunsWhatWasPostedBefore) {
    CCmWorker worker;
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    int nRan = 0;
    for (int i = 0; i < 50; ++i) {
        CmPost(worker, [&nRan] { ++nRan; });
    }
    EXPECT_EQ(CM_OK, worker.Stop());
    EXPECT_EQ(CM_OK, worker.Stop());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmPost(worker, [] {}));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmPostDelayed(worker, 0ms, [] {}).Result());
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Join());
    EXPECT_EQ(50, nRan);
}

TEST(CCmWorker, StopNowEndsWhatIsPendingUnfired) {
    for (const bool bStoppedBefore : {false, true}) {
        CCmWorker worker;
        Gate gate;
        Gate begun;
        CmPost(worker, [&] {
            begun.Open();
            gate.Wait();
        });
        ASSERT_TRUE(begun.Wait());
        std::atomic<int> ran{0};
        std::atomic<int> ends{0};
        for (int i = 0; i < 50; ++i) {
            CmPost(worker, [&ran, counter = EndCounter(ends)] { ++ran; });
        }
        CmPostDelayed(worker, 0ms, [&ran, counter = EndCounter(ends)] { ++ran; });
        if (bStoppedBefore) {
            EXPECT_EQ(CM_OK, worker.Stop());
        }
        EXPECT_EQ(CM_OK, worker.StopNow());
        EXPECT_EQ(CM_OK, worker.StopNow());
        gate.Open();
        EXPECT_EQ(CM_OK, worker.Join());
        EXPECT_EQ(0, ran);
        EXPECT_EQ(51, ends);
    }
}

TEST(CCmWorker, RefusesTimers_AfterItsStop) {
    CCmWorker worker;
    Gate gate;
    CmResult rvOwn = CM_OK;
    const CCmTimerHandle first = CmPostDelayed(worker, 100s, [] {});
    CmPost(worker, [&] {
        gate.Wait();
        rvOwn = CmPostDelayed(worker, 200s, [] {}).Result();
    });
    EXPECT_EQ(CM_OK, worker.Stop());
    // Later than what is pending, it need not wake the worker.
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmPostDelayed(worker, 200s, [] {}).Result());
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Join());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rvOwn);
    EXPECT_FALSE(first.IsPending());
}

// The stop comes while one of five events that were taken out together runs.
TEST(CCmWorker, StopNowTakesEffectBetweenTwoEvents) {
    CCmWorker worker;
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    int nRan = 0;
    for (int i = 0; i < 20; ++i) {
        CmPost(worker, [&, i] {
            ++nRan;
            if (i == 7) {
                EXPECT_EQ(CM_OK, worker.StopNow());
            }
        });
    }
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Join());
    EXPECT_EQ(8, nRan);
}

TEST(CCmWorker, StopNowWakesTheWorker_WhenItSleeps) {
    CCmWorker worker;
    worker.Drain();
    EXPECT_EQ(CM_OK, worker.StopNow());
    EXPECT_EQ(CM_OK, worker.Join());
}

TEST(CCmWorker, StopChangesNothing_WhenMemoryRunsOut) {
    CCmWorker worker;
    worker.Drain();
    {
        const ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, worker.Stop());
    }
    {
        const ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, worker.StopNow());
    }
    EXPECT_TRUE(CmCall(worker, [] {}));
    {
        const ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_OK, worker.End());  // tries again
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, worker.Result());
}

int s_nNaps = 0;
long long s_llNapsNsec = 0;

int NoteNap(const timespec* aTime, timespec* /*aLeft*/) {
    ++s_nNaps;
    s_llNapsNsec += aTime->tv_sec * 1000000000LL + aTime->tv_nsec;
    return 0;
}

TEST(CCmWorker, EndTriesAgainEveryMillisecond_WhileMemoryIsOut) {
    CCmWorker worker;
    worker.Drain();
    s_nNaps = 0;
    s_llNapsNsec = 0;
    const ScopedEntry<decltype(g_cmSystem.nanosleep)> entry(g_cmSystem.nanosleep, &NoteNap);
    const ScopedAllocationFault fault(1, 1);
    EXPECT_EQ(CM_OK, worker.End());
    EXPECT_EQ(2, s_nNaps);
    EXPECT_EQ(2 * 1000000, s_llNapsNsec);
}

TEST(CCmWorker, JoinFails_WhenOnTheWorkerItself) {
    CCmWorker worker;
    EXPECT_EQ(CM_ERROR_FAILURE, *CmCall(worker, [&worker] { return worker.Join(); }));
}

TEST(CCmWorker, RunsOn_WhenMovedToAnotherOwner) {
    std::optional<CCmWorker> worker;
    worker.emplace();
    ACmThread* pThread = worker->GetThread();
    CCmWorker other = std::move(*worker);
    EXPECT_EQ(pThread, other.GetThread());
    EXPECT_EQ(CM_OK, other.Result());
    EXPECT_EQ(nullptr, worker->GetThread());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, worker->Result());
    worker.reset();
    int nRan = 0;
    CmPost(other, [&nRan] { ++nRan; });
    other = CCmWorker();  // ends the first one
    EXPECT_EQ(1, nRan);
    EXPECT_NE(nullptr, other.GetThread());
    EXPECT_TRUE(CmCall(other, [] {}));
}

TEST(CCmWorker, EndsOnItsOwnThread_AfterWhatWasPosted) {
    const long lLive = LiveAllocationsBefore();
    Gate ended;
    {
        std::vector<int> ran;
        auto pWorker =
            std::make_unique<CCmWorker>(CCmWorkerOptions().OnEnd([&ended] { ended.Open(); }));
        Gate gate;
        Gate gone;
        CmPost(*pWorker, [&] {
            gate.Wait();
            pWorker.reset();
            ran.push_back(1);
            gone.Open();
        });
        CmPost(*pWorker, [&] { ran.push_back(2); });
        gate.Open();
        EXPECT_TRUE(gone.Wait());
        EXPECT_TRUE(ended.Wait());
        EXPECT_EQ(nullptr, pWorker);
        EXPECT_EQ((std::vector<int>{1, 2}), ran);
    }
    // The thread object is the last thing to go.
    EXPECT_TRUE(Eventually([&] { return LiveAllocations() == lLive; }));
}

TEST(CCmWorker, CountsOnItsOwnClock_WhenTheWallClockIsSet) {
    for (const long lStep : {-3600L * 24 * 365, 3600L * 24 * 365}) {
        ScopedClock clock(1700000000);
        CCmWorker worker;
        Gate fired;
        std::atomic<int> early{0};
        const CCmTimerHandle late = CmPostDelayed(worker, 100s, [&early] { ++early; });
        clock.Set(1700000000 + lStep);
        const auto start = std::chrono::steady_clock::now();
        CmPostDelayed(worker, 10ms, [&fired] { fired.Open(); });
        clock.Set(1700000000 - lStep);
        // The gate waits on the real wall clock.
        EXPECT_TRUE(fired.Wait());
        EXPECT_LE(10ms, std::chrono::steady_clock::now() - start);
        worker.Drain();
        EXPECT_EQ(0, early);
        EXPECT_TRUE(late.IsPending());
    }
}

class WorkingSink : public CCmTimerWrapperIDSink {
  public:
    explicit WorkingSink(std::function<void()> aWork) : m_Work(std::move(aWork)) {}
    void OnTimer(CCmTimerWrapperID* /*aId*/) override { m_Work(); }

  private:
    const std::function<void()> m_Work;
};

TEST(CCmWorker, LeavesOutOfTheTimeOfAnEvent_WhateverATimerTakes) {
    ScopedTraceSink sink;
    ScopedClock clock;
    CCmWorker worker;
    Gate fired;
    const auto takeTime = [&] {
        clock.AdvanceMs(70);
        CmPost(worker, [&fired] { fired.Open(); });
    };
    CmPost(worker, [&] { CmPostDelayed(worker, 0ms, takeTime); });
    EXPECT_TRUE(fired.Wait());
    fired.Close();

    WorkingSink timer(takeTime);
    CCmTimerWrapperID wrapper;
    CmPost(worker, [&] {
        wrapper.Schedule(&timer, CCmTimeValue(0, 1000), 1);
        clock.AdvanceMs(1);
    });
    EXPECT_TRUE(fired.Wait());
    CmCall(worker, [&wrapper] { wrapper.Cancel(); });
    EXPECT_EQ(0U, sink.count("ProcessOneEvent, report"));
}

TEST(CCmWorker, ReadsTheClockOnceAnEvent_WhenNothingIsBetween) {
    constexpr size_t EVENTS = 41;
    ScopedClock clock;
    CCmWorker worker;
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    std::vector<unsigned long> reads;
    for (size_t i = 0; i < EVENTS; ++i) {
        CmPost(worker, [&] { reads.push_back(clock.reads()); });
    }
    gate.Open();
    worker.End();
    ASSERT_EQ(EVENTS, reads.size());
    EXPECT_EQ(EVENTS - 1, reads.back() - reads.front());
}

class CountingSink : public CCmTimerWrapperIDSink {
  public:
    void OnTimer(CCmTimerWrapperID* /*aId*/) override { ++m_nFired; }
    std::atomic<int> m_nFired{0};
};

TEST(CCmWorker, HasATimerQueueOfTheWallClockBeside) {
    CCmWorker worker;
    CountingSink sink;
    CCmTimerWrapperID wrapper;
    std::atomic<int> fired{0};
    CCmTimer timer(worker, 3ms, [&fired] { ++fired; });
    EXPECT_EQ(CM_OK,
              *CmCall(worker, [&] { return wrapper.Schedule(&sink, CCmTimeValue(0, 2000), 0); }));
    EXPECT_TRUE(Eventually([&] { return sink.m_nFired >= 3 && fired >= 3; }));
    CmCall(worker, [&] { wrapper.Cancel(); });
}

TEST(CCmWorker, FiresTheTimersOfItsTimerQueue_WhenNothingElseIsPending) {
    CCmWorker worker;
    CountingSink sink;
    CCmTimerWrapperID wrapper;
    CmPost(worker, [&] { wrapper.Schedule(&sink, CCmTimeValue(0, 2000), 3); });
    EXPECT_TRUE(Eventually([&sink] { return sink.m_nFired == 3; }));
    CmCall(worker, [&wrapper] { wrapper.Cancel(); });
}

// Cancels a worker in a callable that repeats.
void CancelInATimer() {
    std::atomic<int> ends{0};
    {
        CCmWorker worker;
        Gate begun;
        CCmTimerHandle handle = CmPostEvery(worker, 1ms, [&begun, counter = EndCounter(ends)] {
            begun.Open();
            for (;;) {
                sched_yield();  // no cancellation point of which a sanitizer loses track
                TestCancel();
            }
        });
        const auto pending = CmPostDelayed(worker, 100s, [counter = EndCounter(ends)] {});
        ASSERT_TRUE(begun.Wait());
        EXPECT_EQ(0, worker.GetThread()->Terminate());
        EXPECT_NE(CM_ERROR_NOT_AVAILABLE, handle.CancelAndWait());
        EXPECT_EQ(1, ends);
        EXPECT_TRUE(pending.IsPending());
    }
    EXPECT_EQ(2, ends);
}

TEST(CCmWorker, Survives_WhenItsThreadIsCancelled) {
    CancelInATimer();
}

TEST(CCmWorker, SurvivesTheCancellationOfItsThread_WhenNothingUnwinds) {
    ScopedHandlersOnly handlersOnly;
    CancelInATimer();
}

// Cancels a worker that waits for the time of a callable, or for nothing in particular.
void CancelInAWait() {
    for (const bool bHasTimer : {true, false}) {
        std::atomic<int> ends{0};
        {
            CCmWorker worker;
            CCmTimerHandle handle;
            if (bHasTimer) {
                handle = CmPostDelayed(worker, 100s, [counter = EndCounter(ends)] {});
            }
            ASSERT_EQ(CM_OK, worker.Drain());
            std::this_thread::sleep_for(1ms);
            EXPECT_EQ(CM_OK, worker.GetThread()->Terminate());
            EXPECT_EQ(CM_OK, worker.Join());
            EXPECT_EQ(bHasTimer, handle.IsPending());
            EXPECT_EQ(CM_OK, CmPost(worker, [counter = EndCounter(ends)] {}));
        }
        EXPECT_EQ(bHasTimer ? 2 : 1, ends);
    }
}

TEST(CCmWorker, TakesPosts_WhenItsThreadWasCancelledInItsWait) {
    CancelInAWait();
}

TEST(CCmWorker, TakesPosts_WhenItsThreadWasCancelledInItsWaitAndNothingUnwinds) {
    ScopedHandlersOnly handlersOnly;
    CancelInAWait();
}

TEST(CCmWorker, IsEnded_WhenTheThreadThatEndsItIsCancelled) {
    const long lLive = LiveAllocationsBefore();
    {
        CCmWorker owner;
        Gate ending;
        Gate mayEnd;
        CmPost(owner, [&] {
            CCmWorker owned;
            CmPost(owned, [&] { mayEnd.Wait(); });
            ending.Open();
        });
        ASSERT_TRUE(ending.Wait());
        EXPECT_EQ(CM_OK, owner.GetThread()->Terminate());
        std::this_thread::sleep_for(5ms);  // owner waits for owned
        mayEnd.Open();
        EXPECT_EQ(CM_OK, owner.Join());
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

// ---- CmEndThread, CCmLoopThread

class Loop : public CCmLoopThread {
  public:
    void OnThreadRun() override {
        while (!GetStopFlag()) {
            m_wake.Wait();
        }
        m_bEnded = true;
    }
    void OnWakeUp() override { m_wake.Signal(); }

    static inline std::atomic<bool> m_bEnded{false};

  private:
    CCmEventThread m_wake;
};

TEST(CCmLoopThread, IsWokenToItsEnd) {
    for (const bool bAtOnce : {true, false}) {
        Loop::m_bEnded = false;
        CCmThreadPtr pThread(new Loop);
        ASSERT_EQ(CM_OK, pThread->Create(1));
        if (!bAtOnce) {
            std::this_thread::sleep_for(5ms);
        }
        pThread.reset();
        EXPECT_TRUE(Loop::m_bEnded);
    }
}

TEST(CCmThreadPtr, EndsAWorkerOfTheFullInterface) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1));
    int nRan = 0;
    {
        CCmThreadPtr worker(pThread);
        CmPost(*worker, [&nRan] { ++nRan; });
    }
    EXPECT_EQ(1, nRan);
}

TEST(CmEndThread, FreesTheObject_WhenItWasNeverCreated) {
    const long lLive = LiveAllocationsBefore();
    EXPECT_EQ(CM_OK, CmEndThread(new Loop));
    EXPECT_EQ(CM_OK, CmEndThread(nullptr));
    EXPECT_EQ(lLive, LiveAllocations());
}

class Stubborn : public ACmThread {
  public:
    void OnThreadRun() override { m_gate.Wait(); }
    Gate m_gate;
};

TEST(CmEndThread, DoesNotWait_WhenTheThreadCannotBeStopped) {
    ScopedTraceSink sink;
    auto* pThread = new Stubborn;
    ASSERT_EQ(CM_OK, pThread->Create(1));
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, CmEndThread(pThread));
    EXPECT_EQ(1U, sink.count("CmEndThread, the thread goes on. rv="));
    pThread->m_gate.Open();
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(CM_OK);
}

TEST(CmEndThread, Fails_WhenOnTheThreadItself) {
    TaskThread worker;
    EXPECT_EQ(CM_ERROR_FAILURE, *CmCall(*worker, [&] { return CmEndThread(&*worker); }));
}

}  // namespace
}  // namespace UTIL_NS
