#include "CmEvent.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmWorker.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::AllocationsOfThisThread;
using kelto_test::EndCounter;
using kelto_test::Eventually;
using kelto_test::Failing;
using kelto_test::FailingCall;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedClock;
using kelto_test::ScopedHandlersOnly;
using kelto_test::ScopedTraceSink;
using kelto_test::TaskThread;
using kelto_test::TestCancel;

// ---- Post

TEST(CmPost, RunsOnTheTargetsThreadInOrder) {
    TaskThread worker;
    std::vector<int> ran;
    pthread_t thread = pthread_t();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(CM_OK, CmPost(*worker, [&, i] {
                      thread = pthread_self();
                      ran.push_back(i);
                  }));
    }
    const pthread_t tid = worker->GetThreadId();
    worker.End();
    ASSERT_EQ(20U, ran.size());
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(i, ran[i]);
    }
    EXPECT_TRUE(IsThreadEqual(tid, thread));
}

TEST(CmPost, TakesQueuesAndWorkers) {
    CCmEventQueueUsingMutex queue;
    int nRan = 0;
    EXPECT_EQ(CM_OK, CmPost(queue, [&nRan] { ++nRan; }));
    ICmEventQueue& interface = queue;
    EXPECT_EQ(CM_OK, CmPost(interface, [&nRan] { ++nRan; }));
    std::list<ICmEvent*> events;
    ASSERT_EQ(CM_OK, queue.PopPendingEvents(events));
    queue.ProcessEvents(events);
    EXPECT_EQ(2, nRan);

    CCmWorker worker;
    EXPECT_EQ(CM_OK, CmPost(worker, [&nRan] { ++nRan; }));
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(3, nRan);
}

TEST(CmPost, MovesCapturesThatCannotBeCopied) {
    CCmEventQueueUsingMutex queue;
    auto pNumber = std::make_unique<int>(7);
    int nSeen = 0;
    EXPECT_EQ(CM_OK, CmPost(queue, [pNumber = std::move(pNumber), &nSeen] { nSeen = *pNumber; }));
    std::list<ICmEvent*> events;
    ASSERT_EQ(CM_OK, queue.PopPendingEvents(events));
    queue.ProcessEvents(events);
    EXPECT_EQ(7, nSeen);
}

// The event itself, and the list node of the queue, which an event written by hand takes as well.
TEST(CmPost, AllocatesOnce) {
    char achLarge[256] = {};
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    ICmEvent* pEvent = CmMakeEvent([achLarge] { static_cast<void>(achLarge); });
    EXPECT_EQ(ulBefore + 1, kelto_test::AllocationsOfThisThread());
    pEvent->OnDestorySelf();
}

TEST(CmPost, DestroysTheCallableOnThePostingThread_WhenTheQueueIsStopped) {
    CCmEventQueueUsingMutex queue;
    queue.SetStopped();
    std::atomic<int> ends{0};
    bool bRan = false;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED,
              CmPost(queue, [&bRan, counter = EndCounter(ends)] { bRan = true; }));
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(bRan);
}

TEST(CmPost, DestroysThePendingCallable_WhenTheQueueEnds) {
    std::atomic<int> ends{0};
    {
        CCmEventQueueUsingMutex queue;
        EXPECT_EQ(CM_OK, CmPost(queue, [counter = EndCounter(ends)] {}));
        EXPECT_EQ(0, ends);
    }
    EXPECT_EQ(1, ends);
}

TEST(CmPost, SaysSo_WhenMemoryRunsOut) {
    CCmEventQueueUsingMutex queue;
    const std::string sLong(100, 'x');  // copied: an allocation that throws
    for (unsigned long ulNth = 1; ulNth <= 3; ++ulNth) {
        const long lLive = LiveAllocations();
        {
            const auto function = [sLong] { EXPECT_EQ(100U, sLong.size()); };
            const ScopedAllocationFault fault(ulNth);
            EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, CmPost(queue, function)) << ulNth;
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(lLive, LiveAllocations()) << ulNth;
    }
    EXPECT_EQ(0U, queue.GetPendingEventsCount());
}

class NoQueueThread : public ACmThread {
    void OnThreadRun() override {}
};

TEST(CmPost, Refuses_WhenTheThreadHasNoQueue) {
    NoQueueThread thread;
    std::atomic<int> ends{0};
    EXPECT_EQ(CM_ERROR_NULL_POINTER, CmPost(thread, [counter = EndCounter(ends)] {}));
    EXPECT_EQ(1, ends);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, CmCall(thread, [] {}).Result());
    EXPECT_EQ(CM_ERROR_NULL_POINTER,
              CmPostDelayed(thread, 0ms, [counter = EndCounter(ends)] {}).Result());
    EXPECT_EQ(2, ends);
}

TEST(CmMakeEvent, FiresWithTheResultOfTheCallable) {
    ICmEvent* pEvent = CmMakeEvent([]() -> CmResult { return CM_ERROR_FOUND; });
    EXPECT_EQ(CM_ERROR_FOUND, pEvent->OnEventFire());
    pEvent->OnDestorySelf();
    pEvent = CmMakeEvent([] { return 5L; });
    EXPECT_EQ(CM_OK, pEvent->OnEventFire());
    pEvent->OnDestorySelf();
}

// ---- Call

TEST(CmCall, ReturnsTheValue) {
    TaskThread worker;
    auto number = CmCall(*worker, [] { return 42; });
    ASSERT_TRUE(number);
    EXPECT_EQ(CM_OK, number.Result());
    EXPECT_TRUE(number.HasBegun());
    EXPECT_EQ(42, *number);

    auto pText = CmCall(*worker, [] { return std::make_unique<std::string>("moved"); });
    ASSERT_TRUE(pText);
    EXPECT_EQ("moved", **pText);
    EXPECT_EQ(5U, (*pText)->size());

    bool bRan = false;
    EXPECT_TRUE(CmCall(*worker, [&bRan] { bRan = true; }));
    EXPECT_TRUE(bRan);

    std::string sHere = "here";
    auto copy = CmCall(*worker, [&sHere]() -> std::string& { return sHere; });
    EXPECT_EQ("here", std::move(copy).ValueOr("none"));
}

TEST(CmCall, RunsInTurn_AfterWhatWasPosted) {
    TaskThread worker;
    int nPosted = 0;
    for (int i = 0; i < 10; ++i) {
        CmPost(*worker, [&nPosted] { ++nPosted; });
    }
    EXPECT_EQ(10, *CmCall(*worker, [&nPosted] { return nPosted; }));
}

TEST(CmCall, RunsAtOnce_WhenOnTheTargetsOwnThread) {
    CCmWorker worker;
    std::vector<int> order;
    EXPECT_TRUE(CmCall(worker, [&] {
        CmPost(worker, [&order] { order.push_back(2); });
        EXPECT_TRUE(CmCall(worker, [&order] { order.push_back(1); }));
        EXPECT_TRUE(CmCall(worker, 0ms, [&order] { order.push_back(1); }));
    }));
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ((std::vector<int>{1, 1, 2}), order);
}

// A queue that a host wrote itself: what is posted waits for its end, what is sent runs at once.
class CHostQueue : public ICmEventQueue {
  public:
    ~CHostQueue() override {
        for (ICmEvent* pEvent : m_events) {
            pEvent->OnDestorySelf();
        }
    }
    CmResult PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) override {
        m_events.push_back(aEvent);
        return CM_OK;
    }
    CmResult SendEvent(ICmEvent* aEvent) override {
        const CmResult rv = aEvent->OnEventFire();
        aEvent->OnDestorySelf();
        return rv;
    }
    DWORD GetPendingEventsCount() override { return static_cast<DWORD>(m_events.size()); }

  private:
    std::vector<ICmEvent*> m_events;
};

// The result of a call with a limit to a queue on a thread that has aOwn.
CmResult ResultOfACall(ICmEventQueue& aOwn, ICmEventQueue& aCalled) {
    class CHostThread : public ACmThread {
      public:
        CHostThread(ICmEventQueue& aOwn, ICmEventQueue& aCalled) : m_Own(aOwn), m_Called(aCalled) {}
        void OnThreadRun() override {
            EXPECT_TRUE(m_Created.Wait());  // the library knows the thread from then on
            m_Result = CmCall(m_Called, 0ms, [] {}).Result();
        }
        ICmEventQueue* GetEventQueue() override { return &m_Own; }

        ICmEventQueue& m_Own;
        ICmEventQueue& m_Called;
        Gate m_Created;
        CmResult m_Result = CM_OK;
    };
    auto* pThread = new CHostThread(aOwn, aCalled);
    EXPECT_EQ(CM_OK, pThread->Create(1, TF_JOINABLE));
    pThread->m_Created.Open();
    EXPECT_EQ(CM_OK, pThread->Join());
    const CmResult rv = pThread->m_Result;
    EXPECT_EQ(CM_OK, pThread->Destory(CM_OK));
    return rv;
}

TEST(CmCall, HasALimit_WhenTheHostsQueueIsOfAnotherThread) {
    CHostQueue own;
    CHostQueue other;
    EXPECT_EQ(CM_OK, ResultOfACall(own, own));
    EXPECT_EQ(CM_ERROR_TIMEOUT, ResultOfACall(own, other));
    CmResult rv = CM_OK;
    std::thread([&] { rv = CmCall(own, 0ms, [] {}).Result(); }).join();
    EXPECT_EQ(CM_ERROR_TIMEOUT, rv) << "a thread that the library does not know";
    EXPECT_EQ(1u, own.GetPendingEventsCount());
    EXPECT_EQ(1u, other.GetPendingEventsCount());
}

// Tells what becomes of its callable.
class CHeldCall final : public ACmCallEvent {
  public:
    explicit CHeldCall(std::string& aDone) : m_strDone(aDone) {}
    ~CHeldCall() override { m_strDone += "end"; }

  private:
    void Run() override { m_strDone += "run "; }
    void Drop() override { m_strDone += "drop "; }

    std::string& m_strDone;
};

TEST(CmCall, DestroysTheCallable_WhenEitherSideLetsGo) {
    std::string strDone;
    auto* pCall = new CHeldCall(strDone);
    pCall->OnDestorySelf();
    EXPECT_EQ("drop ", strDone) << "while its caller still holds the event";
    pCall->LetGo();
    EXPECT_EQ("drop end", strDone);
    strDone.clear();
    pCall = new CHeldCall(strDone);
    pCall->LetGo();
    EXPECT_EQ("drop ", strDone) << "while its queue still holds the event";
    EXPECT_EQ(CM_OK, pCall->OnEventFire());
    pCall->OnDestorySelf();
    EXPECT_EQ("drop end", strDone);
    strDone.clear();
    pCall = new CHeldCall(strDone);
    EXPECT_EQ(CM_OK, pCall->OnEventFire());
    EXPECT_EQ("run drop ", strDone) << "before the caller goes on";
    pCall->LetGo();
    pCall->OnDestorySelf();
    EXPECT_EQ("run drop end", strDone);
}

TEST(CmCall, IsGivenUp_BeforeItsCallerHearsOfTheLimit) {
    std::string strDone;
    CHostQueue queue;
    auto* pCall = new CHeldCall(strDone);
    const CCmTimeValue tvLimit;
    EXPECT_EQ(CM_ERROR_TIMEOUT, pCall->Call(queue, &tvLimit));
    EXPECT_EQ("drop ", strDone);
    EXPECT_EQ(CM_OK, pCall->OnEventFire());
    EXPECT_FALSE(pCall->HasBegun());
    EXPECT_EQ("drop ", strDone);
    pCall->LetGo();
}

TEST(CmCall, Fails_WhenItCannotLock) {
    CHostQueue queue;
    const FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(0, EINVAL, 1,
                                                                 Failing::FROM_THERE_ON);
    EXPECT_EQ(CM_ERROR_FAILURE, CmCall(queue, 0ms, [] {}).Result());
}

TEST(CmCall, DestroysTheCallable_BeforeTheCallerGoesOn) {
    TaskThread worker;
    for (int i = 0; i < 200; ++i) {
        std::atomic<int> ends{0};
        EXPECT_TRUE(CmCall(*worker, [counter = EndCounter(ends)] {}));
        EXPECT_EQ(1, ends);
        EXPECT_TRUE(CmCall(*worker, 20s, [counter = EndCounter(ends)] {}));
        EXPECT_EQ(2, ends);
    }
}

TEST(CmCall, HasNoValue_WhenTheTargetIsStopped) {
    TaskThread worker;
    worker->Stop(nullptr);
    std::atomic<int> ends{0};
    auto value = CmCall(*worker, [counter = EndCounter(ends)] { return 1; });
    EXPECT_FALSE(value);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, value.Result());
    EXPECT_FALSE(value.HasBegun());
    EXPECT_EQ(1, ends);
    EXPECT_EQ(3, std::move(value).ValueOr(3));  // NOLINT(performance-move-const-arg)
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmCall(*worker, 1s, [] { return 1; }).Result());
}

TEST(CmCall, IsNotAvailable_WhenTheTargetEndsFirst) {
    for (const bool bLimited : {false, true}) {
        auto pQueue = std::make_unique<CCmEventQueueUsingMutex>();
        std::atomic<int> ends{0};
        std::atomic<bool> bBegun{true};
        std::atomic<CmResult> rv{CM_OK};
        std::thread caller([&] {
            const auto call = [&] { return CmCall(*pQueue, [counter = EndCounter(ends)] {}); };
            const auto callWithin = [&] {
                return CmCall(*pQueue, 20s, [counter = EndCounter(ends)] {});
            };
            const auto result = bLimited ? callWithin() : call();
            bBegun = result.HasBegun();
            rv = result.Result();
        });
        EXPECT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 1; }));
        pQueue->SetStopped();
        pQueue->DestoryPendingEvents();
        caller.join();
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
        EXPECT_FALSE(bBegun);
        EXPECT_EQ(1, ends);
    }
}

TEST(CmCall, NeverRuns_WhenTheLimitPassesBefore) {
    TaskThread worker;
    Gate gate;
    CmPost(*worker, [&gate] { gate.Wait(); });
    std::atomic<int> ends{0};
    std::atomic<bool> bRan{false};
    const auto start = std::chrono::steady_clock::now();
    const auto result = CmCall(*worker, 20ms, [&bRan, counter = EndCounter(ends)] { bRan = true; });
    EXPECT_LE(20ms, std::chrono::steady_clock::now() - start);
    EXPECT_EQ(CM_ERROR_TIMEOUT, result.Result());
    EXPECT_FALSE(result.HasBegun());
    EXPECT_EQ(1, ends);  // destroyed here, at once
    gate.Open();
    worker.End();
    EXPECT_FALSE(bRan);
}

TEST(CmCall, DropsTheValue_WhenTheLimitPassesWhileItRuns) {
    TaskThread worker;
    auto pBegun = std::make_shared<Gate>();
    auto pGate = std::make_shared<Gate>();
    std::atomic<int> valueEnds{0};
    std::thread caller([&] {
        auto result = CmCall(*worker, 50ms, [pBegun, pGate, &valueEnds] {
            pBegun->Open();
            pGate->Wait();
            return EndCounter(valueEnds);
        });
        EXPECT_EQ(CM_ERROR_TIMEOUT, result.Result());
        EXPECT_FALSE(result);
        // On a machine so busy that it began too late, it has not begun.
        EXPECT_EQ(pBegun->Wait(), result.HasBegun());
        pGate->Open();
    });
    caller.join();
    worker.End();
    EXPECT_EQ(1, valueEnds);
}

// Of a queue that nobody runs.
TEST(CmCall, KeepsItsLimit_WhenTheWallClockIsSet) {
    const FailingCall<&CCmSystemTable::gettimeofday> wallClock(0, 0, 1, Failing::FROM_THERE_ON);
    CCmEventQueueUsingMutex queue;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, CmCall(queue, 20ms, [] {}).Result());
    EXPECT_LE(20ms, std::chrono::steady_clock::now() - start);
    EXPECT_GT(10s, std::chrono::steady_clock::now() - start);
}

TEST(CmCall, DoesNotRunLater_WhenTheWaitFails) {
    const FailingCall<&CCmSystemTable::pthread_cond_wait> wait(0, EINVAL);
    const FailingCall<&CCmSystemTable::pthread_cond_clockwait> limitedWait(0, EINVAL);
    CCmEventQueueUsingMutex queue;
    bool bRan = false;
    std::atomic<int> ends{0};
    const auto unlimited = CmCall(queue, [&bRan, counter = EndCounter(ends)] { bRan = true; });
    const auto limited = CmCall(queue, 10s, [&bRan, counter = EndCounter(ends)] { bRan = true; });
    EXPECT_EQ(CM_ERROR_FAILURE, unlimited.Result());
    EXPECT_EQ(CM_ERROR_FAILURE, limited.Result());
    EXPECT_FALSE(unlimited.HasBegun());
    EXPECT_FALSE(limited.HasBegun());
    EXPECT_EQ(2, ends);
    std::list<ICmEvent*> events;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events));
    queue.ProcessEvents(events);
    EXPECT_FALSE(bRan);
}

// Once the callable has run, memory is asked for at most for the event's way back, on which the
// caller does not depend.
TEST(CmCall, SaysSo_WhenMemoryRunsOut) {
    TaskThread worker;
    CmCall(*worker, [] {});
    for (const bool bLimited : {false, true}) {
        unsigned long ulRefused = 0;
        bool bHit = true;
        for (unsigned long ulNth = 1; bHit && ulNth < 10; ++ulNth) {
            std::atomic<int> ends{0};
            std::atomic<bool> bRan{false};
            CmResult rv = CM_OK;
            {
                auto function = [&bRan, counter = EndCounter(ends)] { bRan = true; };
                const ScopedAllocationFault fault(ulNth);
                rv = bLimited ? CmCall(*worker, 20s, std::move(function)).Result()
                              : CmCall(*worker, std::move(function)).Result();
                bHit = fault.hit();
            }
            EXPECT_EQ(bRan ? CM_OK : CM_ERROR_OUT_OF_MEMORY, rv) << ulNth;
            EXPECT_TRUE(bHit || bRan) << ulNth;
            EXPECT_EQ(1, ends) << ulNth;
            ulRefused += bRan ? 0 : 1;
        }
        EXPECT_FALSE(bHit);
        EXPECT_LE(1U, ulRefused);
    }
}

// What the callable captured by reference would be gone otherwise.
TEST(CmCall, IsNotCancelled_WhileItWaits) {
    TaskThread worker;
    for (const bool bLimited : {false, true}) {
        Gate gate;
        Gate begun;
        std::atomic<bool> bReturned{false};
        std::atomic<bool> bWentOn{false};
        std::thread caller([&] {
            int nLocal = 0;
            const auto function = [&] {
                begun.Open();
                gate.Wait();
                nLocal = 1;
            };
            bReturned =
                bLimited ? bool(CmCall(*worker, 20s, function)) : bool(CmCall(*worker, function));
            bReturned = bReturned && nLocal == 1;
            pthread_testcancel();
            bWentOn = true;
        });
        EXPECT_TRUE(begun.Wait());
        EXPECT_EQ(0, pthread_cancel(caller.native_handle()));
        gate.Open();
        caller.join();
        EXPECT_TRUE(bReturned);
        EXPECT_FALSE(bWentOn);
    }
}

// Cancels a worker in the callable of a call with a limit.
void CancelInACall() {
    std::atomic<int> ends{0};
    CCmWorker worker;
    Gate begun;
    std::thread canceller([&] {
        EXPECT_TRUE(begun.Wait());
        EXPECT_EQ(CM_OK, worker.GetThread()->Terminate());
    });
    const auto result = CmCall(worker, 20s, [&begun, counter = EndCounter(ends)] {
        begun.Open();
        for (;;) {
            sched_yield();  // no cancellation point of which a sanitizer loses track
            TestCancel();
        }
    });
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, result.Result());
    EXPECT_TRUE(result.HasBegun());
    EXPECT_EQ(1, ends);
    canceller.join();
}

TEST(CmCall, IsNotAvailable_WhenItsThreadIsCancelledInIt) {
    CancelInACall();
}

TEST(CmCall, IsNotAvailable_WhenItsThreadIsCancelledInItAndNothingUnwinds) {
    ScopedHandlersOnly handlersOnly;
    CancelInACall();
}

TEST(CmCall, LeavesNothingBehind) {
    const long lLive = LiveAllocationsBefore();
    {
        CCmWorker worker;
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(CmCall(worker, [] { return std::string(100, 'x'); }));
            EXPECT_TRUE(CmCall(worker, 20s, [] { return std::string(100, 'x'); }));
            CmCall(worker, 0ms, [] { return std::string(100, 'x'); });
        }
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

TEST(CmCall, LosesNothing_WhenSeveralThreadsCallAndGiveUp) {
    CCmWorker worker;
    std::atomic<long> lRan{0};
    std::atomic<long> lCounted{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&, i] {
            for (int n = 0; n < 300; ++n) {
                const auto result = CmCall(worker, std::chrono::microseconds(i * 20),
                                           [&lRan] { lRan.fetch_add(1); });
                lCounted.fetch_add(result.HasBegun() ? 1 : 0);
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(lCounted, lRan);
}

// ---- Later. Each kind of worker has a list of its own kind, so everything is tried on both.

struct OnWorker {
    CCmWorker m_worker;
    ACmThread& thread() { return *m_worker.GetThread(); }
    void End() { m_worker.End(); }
};
struct OnTaskThread {
    TaskThread m_worker;
    ACmThread& thread() { return *m_worker; }
    void End() { m_worker.End(); }
};

template <class Worker>
class CmPostLater : public testing::Test {
  protected:
    void WaitForWorker() {
        CmCall(m_worker.thread(), [] {});
    }
    // Keeps the worker busy until the gate opens.
    void Block() {
        Gate begun;
        CmPost(m_worker.thread(), [this, &begun] {
            begun.Open();
            m_gate.Wait();
        });
        begun.Wait();
    }

    Gate m_gate;
    Worker m_worker;
};
typedef testing::Types<OnWorker, OnTaskThread> Workers;
TYPED_TEST_SUITE(CmPostLater, Workers, );

TYPED_TEST(CmPostLater, DelayedRunsOnceAndNotEarly) {
    Gate ran;
    pthread_t thread = pthread_t();
    std::atomic<int> runs{0};
    const auto start = std::chrono::steady_clock::now();
    auto end = start;
    const CCmTimerHandle handle = CmPostDelayed(this->m_worker.thread(), 20ms, [&] {
        end = std::chrono::steady_clock::now();
        thread = pthread_self();
        ++runs;
        ran.Open();
    });
    EXPECT_EQ(CM_OK, handle.Result());
    EXPECT_TRUE(handle.IsPending());
    ASSERT_TRUE(ran.Wait());
    EXPECT_LE(20ms, end - start);
    EXPECT_TRUE(IsThreadEqual(this->m_worker.thread().GetThreadId(), thread));
    this->WaitForWorker();
    EXPECT_TRUE(Eventually([&] { return !handle.IsPending(); }));
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(1, runs);
}

TYPED_TEST(CmPostLater, DelayedRunsInTheOrderOfTheirTimes) {
    std::vector<int> order;
    Gate done;
    CmCall(this->m_worker.thread(), [&] {
        CmPostDelayed(this->m_worker.thread(), 30ms, [&] { order.push_back(3), done.Open(); });
        CmPostDelayed(this->m_worker.thread(), 10ms, [&] { order.push_back(1); });
        CmPostDelayed(this->m_worker.thread(), 20ms, [&] { order.push_back(2); });
        CmPostDelayed(this->m_worker.thread(), 0ms, [&] { order.push_back(0); });
    });
    ASSERT_TRUE(done.Wait());
    this->WaitForWorker();
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), order);
}

TYPED_TEST(CmPostLater, DelayedWakesTheWorker_WhenItWaitsForSomethingLater) {
    Gate late;
    Gate soon;
    auto later = CmPostDelayed(this->m_worker.thread(), 100s, [&] { late.Open(); });
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(CM_OK, CmPostDelayed(this->m_worker.thread(), 1ms, [&] { soon.Open(); }).Result());
    EXPECT_TRUE(soon.Wait());
    EXPECT_EQ(CM_OK, later.Cancel());
}

TYPED_TEST(CmPostLater, EveryRunsAgainAndAgainAndTellsWhatWasDue) {
    std::vector<CCmTimerFiring> firings;
    Gate done;
    CCmTimerHandle handle;
    CmCall(this->m_worker.thread(), [&] {
        handle = CmPostEvery(this->m_worker.thread(), 5ms, [&](const CCmTimerFiring& aFiring) {
            firings.push_back(aFiring);
            if (firings.size() == 2) {
                std::this_thread::sleep_for(23ms);
            }
            if (firings.size() == 5) {
                EXPECT_EQ(CM_OK, handle.Cancel());
                done.Open();
            }
        });
    });
    ASSERT_TRUE(done.Wait());
    this->WaitForWorker();
    std::this_thread::sleep_for(15ms);
    this->WaitForWorker();
    ASSERT_EQ(5U, firings.size());
    uint64_t ullMissed = 0;
    for (size_t i = 0; i < firings.size(); ++i) {
        EXPECT_LE(firings[i].m_tvDue, firings[i].m_tvNow);
        ullMissed += firings[i].m_ullMissed;
        // The phase is kept.
        const CCmTimeValue tvSince = firings[i].m_tvDue - firings[0].m_tvDue;
        EXPECT_EQ(static_cast<long>(i + ullMissed - firings[0].m_ullMissed) * 5000,
                  tvSince.GetUsec() + tvSince.GetSec() * 1000000);
    }
    EXPECT_LE(3U, firings[2].m_ullMissed);
    EXPECT_FALSE(handle.IsPending());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.Cancel());
}

TYPED_TEST(CmPostLater, EveryRefuses_WhenTheIntervalIsNone) {
    std::atomic<int> ends{0};
    for (const CCmTimeValue& tvInterval : {CCmTimeValue(0), CCmTimeValue(-1)}) {
        const auto handle =
            CmPostEvery(this->m_worker.thread(), tvInterval, [counter = EndCounter(ends)] {});
        EXPECT_EQ(CM_ERROR_INVALID_ARG, handle.Result());
        EXPECT_FALSE(handle.IsPending());
    }
    EXPECT_EQ(2, ends);
}

TYPED_TEST(CmPostLater, CancelDestroysTheCallableAtOnce) {
    std::atomic<int> ends{0};
    std::atomic<int> runs{0};
    CCmTimerHandle handle = CmPostDelayed(this->m_worker.thread(), 10s,
                                          [&runs, counter = EndCounter(ends)] { ++runs; });
    CCmTimerHandle copy = handle;
    EXPECT_EQ(CM_OK, copy.Cancel());
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(handle.IsPending());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.Cancel());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.CancelAndWait());
    EXPECT_EQ(0, runs);
}

TYPED_TEST(CmPostLater, CancelDoesNotWait_WhenTheWorkerIsBusy) {
    this->Block();
    std::atomic<int> ends{0};
    CCmTimerHandle handle =
        CmPostDelayed(this->m_worker.thread(), 0ms, [counter = EndCounter(ends)] {});
    EXPECT_EQ(CM_OK, handle.CancelAndWait());
    EXPECT_EQ(1, ends);
    this->m_gate.Open();
}

TYPED_TEST(CmPostLater, CancelSaysSoAndCancelAndWaitWaits_WhenItRuns) {
    Gate begun;
    std::atomic<bool> bEnded{false};
    std::atomic<int> ends{0};
    CCmTimerHandle handle =
        CmPostEvery(this->m_worker.thread(), 1ms, [&, counter = EndCounter(ends)] {
            begun.Open();
            this->m_gate.Wait();
            std::this_thread::sleep_for(5ms);
            bEnded = true;
        });
    ASSERT_TRUE(begun.Wait());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, handle.Cancel());
    EXPECT_EQ(0, ends);
    this->m_gate.Open();
    EXPECT_EQ(CM_OK, handle.CancelAndWait());
    EXPECT_TRUE(bEnded);
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(handle.IsPending());
}

TYPED_TEST(CmPostLater, DestroysWhatIsPending_WhenTheWorkerEnds) {
    std::atomic<int> ends{0};
    std::atomic<int> runs{0};
    CCmTimerHandle handle;
    for (int i = 0; i < 10; ++i) {
        handle = CmPostDelayed(this->m_worker.thread(), 10s,
                               [&runs, counter = EndCounter(ends)] { ++runs; });
    }
    this->WaitForWorker();
    this->m_worker.End();
    EXPECT_EQ(10, ends);
    EXPECT_EQ(0, runs);
    EXPECT_FALSE(handle.IsPending());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.CancelAndWait());
}

TYPED_TEST(CmPostLater, Refuses_WhenTheWorkerIsStopped) {
    this->m_worker.thread().Stop(nullptr);
    std::atomic<int> ends{0};
    const auto handle =
        CmPostDelayed(this->m_worker.thread(), 0ms, [counter = EndCounter(ends)] {});
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, handle.Result());
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(handle.IsPending());
}

TYPED_TEST(CmPostLater, SaysSo_WhenMemoryRunsOut) {
    bool bSucceeded = false;
    for (unsigned long ulNth = 1; !bSucceeded && ulNth < 12; ++ulNth) {
        std::atomic<int> ends{0};
        bool bHit = false;
        CCmTimerHandle handle;
        {
            const ScopedAllocationFault fault(ulNth);
            handle = CmPostDelayed(this->m_worker.thread(), 100s, [counter = EndCounter(ends)] {});
            bHit = fault.hit();
        }
        EXPECT_EQ(bHit ? CM_ERROR_OUT_OF_MEMORY : CM_OK, handle.Result()) << ulNth;
        handle.Cancel();
        EXPECT_EQ(1, ends) << ulNth;
        bSucceeded = !bHit;
    }
    EXPECT_TRUE(bSucceeded);
}

TYPED_TEST(CmPostLater, LosesNothing_WhenManyThreadsPostAndCancel) {
    std::atomic<int> ends{0};
    std::atomic<int> runs{0};
    std::atomic<int> cancelled{0};
    std::vector<std::thread> posters;
    constexpr int EACH = 200;
    for (int i = 0; i < 4; ++i) {
        posters.emplace_back([&, i] {
            std::vector<CCmTimerHandle> handles;
            for (int n = 0; n < EACH; ++n) {
                handles.push_back(CmPostDelayed(this->m_worker.thread(),
                                                std::chrono::microseconds((n * 37 + i) % 2000),
                                                [&runs, counter = EndCounter(ends)] { ++runs; }));
                if (n % 3 == 0) {
                    cancelled += handles[n / 2].CancelAndWait() == CM_OK ? 1 : 0;
                    EXPECT_FALSE(handles[n / 2].IsPending());
                }
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(Eventually([&] { return ends == 4 * EACH; }));
    this->m_worker.End();
    EXPECT_EQ(4 * EACH, ends);
    EXPECT_GE(4 * EACH, runs);
    EXPECT_LE(4 * EACH, runs + cancelled);  // one that ran meanwhile counts twice
}

// On the test's own thread, which runs what is due when it is told to, by a clock of its own.
class CmPostLaterByHand : public testing::Test {
  protected:
    CmPostLaterByHand() {
        m_pThread->Create(TT_MAIN, TF_JOINABLE, 1);
        m_pThread->OnThreadInit();
    }
    ~CmPostLaterByHand() override { m_pThread->Destory(CM_OK); }

    // What was posted is in the list afterwards.
    void Arrive() { m_pThread->DoHeartBeat(); }
    void PassMs(long aMs) {
        m_clock.AdvanceMs(aMs);
        m_pThread->DoHeartBeat();
    }

    ScopedClock m_clock;
    CCmThreadHeartBeat* const m_pThread = new CCmThreadHeartBeat;
};

TEST_F(CmPostLaterByHand, RunsWhenItIsDueAndNotBefore) {
    int nRuns = 0;
    CmPostDelayed(*m_pThread, 10ms, [&] { ++nRuns; });
    Arrive();
    PassMs(9);
    EXPECT_EQ(0, nRuns);
    PassMs(1);
    EXPECT_EQ(1, nRuns);
}

TEST_F(CmPostLaterByHand, RunsInTheOrderOfTheirTimesAndThenOfTheirPosts_WhateverIsCancelled) {
    std::minstd_rand random(1);
    std::vector<std::pair<int, int>> runs;  // when it is due, and which it is
    std::vector<std::pair<int, int>> expected;
    std::vector<CCmTimerHandle> handles;
    for (int nNow = 0; nNow < 100; nNow += 10) {
        const size_t nFirst = handles.size();
        for (int i = 0; i < 60; ++i) {
            const std::pair<int, int> which(nNow + 1 + static_cast<int>(random() % 90),
                                            static_cast<int>(handles.size()));
            handles.push_back(CmPostDelayed(*m_pThread,
                                            std::chrono::milliseconds(which.first - nNow),
                                            [&runs, which] { runs.push_back(which); }));
            expected.push_back(which);
        }
        Arrive();
        for (size_t i = nFirst; i < handles.size(); i += 1 + random() % 3) {
            EXPECT_EQ(CM_OK, handles[i].Cancel());
            expected[i].first = -1;
        }
        PassMs(10);
    }
    PassMs(100);
    expected.erase(std::remove_if(expected.begin(), expected.end(),
                                  [](const auto& aWhich) { return aWhich.first < 0; }),
                   expected.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, runs);
}

TEST_F(CmPostLaterByHand, EndsTheCallableAndSaysSo_WhenMemoryRunsOutOnItsThread) {
    bool bHit = true;
    int nRefused = 0;
    const auto runOut = [&](unsigned long aNth) {
        CCmThreadHeartBeat* const pThread = new CCmThreadHeartBeat;
        pThread->Create(TT_MAIN, TF_JOINABLE, 0);
        pThread->OnThreadInit();
        const ScopedTraceSink sink;
        int nRuns = 0;
        std::atomic<int> ends{0};
        const CCmTimerHandle handle =
            CmPostDelayed(*pThread, 10ms, [&nRuns, counter = EndCounter(ends)] { ++nRuns; });
        {
            const ScopedAllocationFault fault(aNth);
            pThread->DoHeartBeat();
            bHit = fault.hit();
        }
        const int nLines =
            static_cast<int>(sink.count("CmPostDelayed, refused on the worker. rv="));
        EXPECT_EQ(nLines, ends) << aNth;
        EXPECT_EQ(nLines == 0, handle.IsPending()) << aNth;
        m_clock.AdvanceMs(10);
        pThread->DoHeartBeat();
        EXPECT_EQ(1 - nLines, nRuns) << aNth;
        EXPECT_EQ(1, ends) << aNth;
        nRefused += nLines;
        pThread->Destory(CM_OK);
    };
    // Each on a thread of its own, to which it is the first.
    for (unsigned long ulNth = 1; bHit && ulNth < 100; ++ulNth) {
        std::thread(runOut, ulNth).join();
    }
    EXPECT_FALSE(bHit);
    EXPECT_LE(6, nRefused);  // the list and what drives it, the timer and where it is found
}

TEST_F(CmPostLaterByHand, SaysNothing_WhenItWasCancelledOnItsWay) {
    const ScopedTraceSink sink;
    CCmTimerHandle cancelled = CmPostDelayed(*m_pThread, 10ms, [] {});
    const CCmTimerHandle handle = CmPostDelayed(*m_pThread, 10ms, [] {});
    EXPECT_EQ(CM_OK, cancelled.Cancel());
    Arrive();
    EXPECT_TRUE(handle.IsPending());
    EXPECT_TRUE(sink.lines().empty());
}

// The event that wakes it takes memory.
TEST(CmPostDelayed, WakesTheWorker_WhenItAloneIsDueFirst) {
    CCmWorker worker;
    const auto allocations = [&worker](const CCmInterval& aInterval) {
        const unsigned long ulBefore = AllocationsOfThisThread();
        CmPostDelayed(worker, aInterval, [] {});
        return AllocationsOfThisThread() - ulBefore;
    };
    allocations(100s);
    const unsigned long ulLater = allocations(200s);
    EXPECT_LT(ulLater, allocations(50s));
    EXPECT_EQ(ulLater, allocations(60s));
    unsigned long ulThere = 0;
    CmCall(worker, [&] { ulThere = allocations(40s); });
    EXPECT_EQ(ulLater, ulThere);
}

TEST(CmPostDelayed, IsRefused_WithoutAThread) {
    CCmWorker worker;
    worker.End();
    std::atomic<int> ends{0};
    EXPECT_EQ(CM_ERROR_NULL_POINTER,
              CmPostDelayed(worker, 0ms, [counter = EndCounter(ends)] {}).Result());
    EXPECT_EQ(1, ends);
}

TEST(CmPostDelayed, GoesAheadOfTheBacklog_WhenOnACmWorker) {
    CCmWorker worker;
    Gate gate;
    CmPost(worker, [&gate] { gate.Wait(); });
    int nEvents = 0;
    for (int i = 0; i < 100; ++i) {
        CmPost(worker, [&nEvents] { ++nEvents; });
    }
    int nSeen = -1;
    CmPostDelayed(worker, 0ms, [&] { nSeen = nEvents; });
    gate.Open();
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_GE(5, nSeen);
    EXPECT_LE(0, nSeen);
}

TEST(CmPostDelayed, IsRefused_WithoutATimerQueue) {
    TaskThread worker(false);
    std::atomic<int> ends{0};
    EXPECT_EQ(CM_ERROR_NULL_POINTER,
              CmPostDelayed(*worker, 0ms, [counter = EndCounter(ends)] {}).Result());
    EXPECT_EQ(1, ends);
}

TEST(CmPostDelayed, LeavesNothingBehind) {
    const long lLive = LiveAllocationsBefore();
    for (int i = 0; i < 3; ++i) {
        CCmWorker worker;
        TaskThread other;
        CCmTimerHandle outlives = CmPostDelayed(worker, 100s, [] {});
        CmPostDelayed(*other, 100s, [] {});
        CmPostEvery(worker, 100us, [] {});
        CmPostEvery(*other, 100us, [] {});
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

TEST(CmTimerHandle, NamesNothing_BeforeItIsSet) {
    CCmTimerHandle handle;
    EXPECT_FALSE(handle.IsPending());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.Result());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, handle.Cancel());
    CCmTimerHandle moved = std::move(handle);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, moved.CancelAndWait());
}

}  // namespace
}  // namespace UTIL_NS
