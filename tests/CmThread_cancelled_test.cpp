// Threads that are cancelled: what they hold is destroyed or given back.
#include "CmThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include "CmEventQueueSteps.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTimerWrapper.h"
#include "support/BodyThread.h"
#include "support/Cancellation.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::BodyThread;
using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::Life;
using kelto_test::LoggedEvent;
using kelto_test::TYPE;

typedef std::vector<int> Ids;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr CmResult RESULT = 4711;

// Cancellation, on a system that unwinds the thread (where this one does) and on one that does not.

class CmCancelledThread : public testing::TestWithParam<bool> {
  protected:
    CmCancelledThread() {
        if (GetParam()) {
            m_handlersOnly.emplace();
        }
    }

  private:
    std::optional<kelto_test::ScopedHandlersOnly> m_handlersOnly;
};

INSTANTIATE_TEST_SUITE_P(, CmCancelledThread, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

// Not within a sleep, out of which the thread sanitizer cannot follow a cancelled thread.
CmResult SpinUntilCancelled() {
    for (;;) {
        kelto_test::TestCancel();
        std::this_thread::yield();
    }
}

bool CanBeLocked(ICmEventQueue* aQueue) {
    EventLog log;
    Gate posted;
    std::thread poster([&] {
        aQueue->PostEvent(new EndingEvent([] {}), NORMAL);
        posted.Open();
    });
    const bool bResult = posted.Wait();
    poster.join();
    return bResult;
}

TEST_P(CmCancelledThread, LeavesItsQueueUnlocked_WhenTerminatedInItsWait) {
    for (bool bWithTimerQueue : {false, true}) {
        const long lLive = kelto_test::LiveAllocationsBefore();
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE));
        EXPECT_EQ(0, pThread->Terminate());
        EXPECT_TRUE(pThread->GetStopFlag());
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_TRUE(CanBeLocked(pThread->GetEventQueue()));
        EXPECT_EQ(1u, pThread->GetEventQueue()->GetPendingEventsCount());
        pThread->Destory(0);
        EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    }
}

TEST_P(CmCancelledThread, LosesNoEvent_WhenTerminatedInAHandler) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    Gate busy;
    Gate go;
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          go.Wait();
                                          return CM_OK;
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 1,
                                      [&] {
                                          busy.Open();
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    for (int i = 2; i <= 8; ++i) {
        pQueue->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    go.Open();
    ASSERT_TRUE(busy.Wait());
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_EQ((Ids{0, 1}), log.fired());
    EXPECT_EQ((Ids{0, 1}), log.ended());
    EXPECT_EQ(7u, pQueue->GetPendingEventsCount());
    pThread->Destory(0);
    EXPECT_EQ((Ids{0, 1, 2, 3, 4, 5, 6, 7, 8}), log.ended());
    EXPECT_EQ((Ids{0, 1}), log.fired());
}

TEST_P(CmCancelledThread, WakesTheSender_WhenTerminatedInItsEvent) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    Gate busy;
    CmResult rv = CM_OK;
    std::thread sender([&] {
        rv = pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [&] {
            busy.Open();
            return SpinUntilCancelled();
        }));
    });
    ASSERT_TRUE(busy.Wait());
    EXPECT_EQ(0, pThread->Terminate());
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
    pThread->Join();
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, FreesTheWrapper_WhenTheSenderIsTerminated) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;  // that nobody runs, at first
        ACmThread* pSender = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pSender, TF_JOINABLE, false, TYPE));
        pSender->GetEventQueue()->PostEvent(
            new LoggedEvent(log, 1, [&] { return queue.SendEvent(new LoggedEvent(log, 2)); }),
            NORMAL);
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        EXPECT_EQ(0, pSender->Terminate());
        EXPECT_EQ(CM_OK, pSender->Join());
        pSender->Destory(0);
        EXPECT_EQ(Ids{1}, log.ended());
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        EXPECT_EQ((Ids{1, 2}), log.fired());
        EXPECT_EQ((Ids{1, 2}), log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, IsFreed_WhenADetachedOneIsTerminatedAndDestroyed) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_DETACHED, true, TYPE));
    EXPECT_EQ(0, pThread->Terminate());
    pThread->Destory(0);
    EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
}

// Its body ignores its cancellation; its destructor would act on it.
class DeafThread : public ACmThread {
  public:
    explicit DeafThread(Life& aLife) : m_life(aLife) {}
    ~DeafThread() override {
        kelto_test::TestCancel();
        m_life.deleted.Open();
    }
    void OnThreadRun() override { m_life.released.Wait(); }

  private:
    Life& m_life;
};

TEST_P(CmCancelledThread, IsFreed_WhenItIsTerminatedAsItsBodyEnds) {
    Life life;
    DeafThread* pThread = new DeafThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    EXPECT_EQ(0, pThread->Terminate());
    pThread->Destory(0);
    life.released.Open();
    EXPECT_TRUE(life.deleted.Wait());
}

// Acts on its thread's cancellation when it is destroyed.
class CancelPointEvent : public ICmEvent {
  public:
    CmResult OnEventFire() override { return CM_OK; }
    void OnDestorySelf() override {
        delete this;
        kelto_test::TestCancel();
    }
};

TEST_P(CmCancelledThread, EndsEveryEvent_WhenTerminatedWhileItEndsThem) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmThreadTaskWithEventQueueOnly* pTask = new CCmThreadTaskWithEventQueueOnly;
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
    Gate busy;
    Gate go;
    ICmEventQueue* pQueue = pTask->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          busy.Open();
                                          go.Wait();
                                          pTask->SetStopFlag();
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(busy.Wait());
    pQueue->PostEvent(new CancelPointEvent, NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 1), NORMAL);
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 2)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 3; }));
    EXPECT_EQ(0, pTask->Terminate());
    go.Open();
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(CM_OK, pTask->Join());
    EXPECT_EQ(Ids{0}, log.fired());
    EXPECT_EQ((Ids{0, 1, 2}), log.ended());
    pTask->Destory(0);
}

template <class Task>
class ClosableTask : public Task {
  public:
    void Close() { this->m_EventQueue.SetStopped(); }
};

// As a Stop that is overtaken, between its two steps, by other posters.
template <class Task>
void ExpectEndOfTheRestAfterTheStopEvent() {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    auto* const pTask = new ClosableTask<Task>;
    ASSERT_EQ(CM_OK, pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    Gate first;
    Gate go;
    Gate busy;
    ICmEventQueue* const pQueue = pTask->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          first.Open();
                                          go.Wait();
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(first.Wait());
    CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask);
    pQueue->PostEvent(new LoggedEvent(log, 1,
                                      [&] {
                                          busy.Open();
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 2), NORMAL);
    pTask->Close();
    go.Open();
    ASSERT_TRUE(busy.Wait());
    EXPECT_EQ(0, pTask->Terminate());
    EXPECT_EQ(CM_OK, pTask->Join());
    EXPECT_EQ((Ids{0, 1, 2}), log.ended());
    const CmResult rv = pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rv);
    if (CM_SUCCEEDED(rv)) {  // nothing else ends it
        pTask->Terminate();
        pTask->Join();
    }
    pTask->Destory(0);
    EXPECT_EQ((Ids{0, 1}), log.fired());
}

TEST_P(CmCancelledThread, EndsTheRest_WhenTerminatedAfterItsStopEvent) {
    ExpectEndOfTheRestAfterTheStopEvent<CCmThreadTaskWithEventQueueOnly>();
    ExpectEndOfTheRestAfterTheStopEvent<CCmThreadTask>();
}

// Runs what it is given.
class WorkThread : public ACmThread {
  public:
    explicit WorkThread(std::function<void()> aWork) : m_work(std::move(aWork)) {}
    void OnThreadRun() override { m_work(); }

  private:
    const std::function<void()> m_work;
};

// Otherwise a thread that does nothing but send could not be terminated.
TEST(CmCancelledSender, IsCancelled_WhenItsResultIsThereAlready) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        auto* const pSynchronous = new CCmEventSynchronous(new LoggedEvent(log, 1), &queue);
        ASSERT_EQ(CM_OK, queue.PostEvent(pSynchronous, NORMAL));
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessTakenEvents(events);
        EXPECT_EQ(Ids{1}, log.ended());
        bool bReturned = false;
        auto* const pSender = new WorkThread([&] {
            pthread_cancel(pthread_self());
            pSynchronous->WaitResultAndDeleteThis();
            bReturned = true;
        });
        ASSERT_EQ(CM_OK, pSender->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_EQ(CM_OK, pSender->Join());
        pSender->Destory(0);
        EXPECT_FALSE(bReturned);
        EXPECT_EQ(0u, queue.GetPendingEventsCount());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// An event with a cancellation point in its firing, in its destruction, or in both.
class CancellableEvent : public ICmEvent {
  public:
    CancellableEvent(std::atomic<int>& aEnded, bool aInFire)
        : m_nEnded(aEnded), m_bInFire(aInFire) {}
    CmResult OnEventFire() override { return m_bInFire ? SpinUntilCancelled() : RESULT; }
    void OnDestorySelf() override {
        ++m_nEnded;
        const bool bInEnd = !m_bInFire;
        delete this;
        if (bInEnd) {
            SpinUntilCancelled();
        }
    }

  private:
    std::atomic<int>& m_nEnded;
    const bool m_bInFire;
};

// So that a later thread of the same id does not take itself for the worker.
TEST_P(CmCancelledThread, LeavesItsLoop_WhenTerminatedWhileItEndsEvents) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    auto* const pTask = new CCmThreadTaskWithEventQueueOnly;
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
    Gate busy;
    Gate go;
    std::atomic<int> nEnded{0};
    ICmEventQueue* const pQueue = pTask->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          busy.Open();
                                          go.Wait();
                                          pTask->SetStopFlag();
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(busy.Wait());
    pQueue->PostEvent(new CancellableEvent(nEnded, false), NORMAL);
    go.Open();
    EXPECT_TRUE(Eventually([&] { return nEnded == 1; }));
    const pthread_t tid = pTask->GetThreadId();
    EXPECT_EQ(0, pTask->Terminate());
    EXPECT_EQ(CM_OK, pTask->Join());
    bool bIsReused = false;
    for (int i = 0; i < 100 && !bIsReused; ++i) {
        std::thread([&] {
            bIsReused = pthread_equal(pthread_self(), tid) != 0;
            EXPECT_EQ(nullptr, CCmEventQueueSteps::LoopOfThisThread(
                                   dynamic_cast<CCmEventQueueBase&>(*pQueue)));
        }).join();
    }
    EXPECT_TRUE(bIsReused);
    pTask->Destory(0);
}

// Terminates a thread that does aWork as soon as aIsThere says that it is at its cancellation
// point.
template <class Condition>
void TerminateIn(std::function<void()> aWork, Condition aIsThere) {
    WorkThread* pThread = new WorkThread(std::move(aWork));
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    EXPECT_TRUE(Eventually(aIsThere));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, EndsTheEventOnce_WhateverRunsIt) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    CCmEventQueueBase queue;
    std::list<ICmEvent*> events;
    for (int i = 0; i < 2; ++i) {
        const bool bInFire = i == 0;
        nEnded = 0;
        const auto hasStarted = [&] { return bInFire || nEnded > 0; };
        TerminateIn([&] { queue.ProcessOneEvent(new CancellableEvent(nEnded, bInFire)); },
                    hasStarted);
        EXPECT_EQ(1, nEnded);
        events.push_back(new CancellableEvent(nEnded, bInFire));
        nEnded = 0;
        TerminateIn([&] { queue.ProcessEvents(events); }, hasStarted);
        EXPECT_EQ(1, nEnded);
        events.clear();
        nEnded = 0;
        TerminateIn(
            [&] {
                queue.BindToCurrentThread();
                queue.SendEvent(new CancellableEvent(nEnded, bInFire));
            },
            hasStarted);
        EXPECT_EQ(1, nEnded);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, FreesTheWrapper_WhenTheWorkerIsTerminatedInTheEndOfItsEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (bool bFired : {true, false}) {
        std::atomic<int> nEnded{0};
        CCmEventQueueUsingMutex queue;
        CmResult rv = CM_OK;
        std::thread sender([&] { rv = queue.SendEvent(new CancellableEvent(nEnded, false)); });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        std::list<ICmEvent*> events;
        TerminateIn(
            [&] {
                if (bFired) {
                    queue.PopPendingEventsLocked(events);
                    queue.ProcessTakenEvents(events);
                } else {
                    queue.DestoryPendingEvents();
                }
            },
            [&] { return nEnded > 0; });
        sender.join();
        EXPECT_EQ(bFired ? RESULT : CM_ERROR_NOT_AVAILABLE, rv);
        EXPECT_EQ(1, nEnded);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Refuses what is posted.
class ClosedQueue : public CCmEventQueueUsingMutex {
  public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority) override {
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
};

TEST_P(CmCancelledThread, LeavesNothing_WhenTheSenderIsTerminatedInTheEndOfARefusedEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    {
        ClosedQueue queue;  // whose destructor waits for busy senders
        TerminateIn([&] { queue.SendEvent(new CancellableEvent(nEnded, false)); },
                    [&] { return nEnded > 0; });
    }
    EXPECT_EQ(1, nEnded);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

CCmEventQueueBase* g_pQueueToClose = nullptr;
int CloseQueueAndTellTime(timeval* aNow, void*) {
    g_pQueueToClose->SetStopped();
    return gettimeofday(aNow, nullptr);
}

TEST_P(CmCancelledThread, LeavesNothing_WhenThePosterIsTerminatedInTheEndOfARefusedEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    {
        CCmEventQueueUsingMutex queue;
        g_pQueueToClose = &queue;
        kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> entry(
            g_cmClock.coarse_gettimeofday, &CloseQueueAndTellTime);
        TerminateIn([&] { queue.PostEvent(new CancellableEvent(nEnded, false), NORMAL); },
                    [&] { return nEnded > 0; });
    }
    EXPECT_EQ(1, nEnded);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Starts slowly.
class SlowStarter : public BodyThread {
  public:
    SlowStarter(Life& aLife, Gate& aGo) : BodyThread(aLife), m_go(aGo) {}
    void OnThreadInit() override {
        s_bStarted = true;
        m_go.Wait();
    }

    inline static std::atomic<bool> s_bStarted{false};

  private:
    Gate& m_go;
};

TEST_P(CmCancelledThread, CreatesItsThread_WhenTheCreatorIsTerminatedMeanwhile) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        Life life;
        Gate go;
        SlowStarter::s_bStarted = false;
        SlowStarter* const pStarted = new SlowStarter(life, go);
        std::atomic<CmResult> rv{CM_ERROR_FAILURE};
        WorkThread* pCreator = new WorkThread([&] {
            rv = pStarted->Create(TYPE, TF_JOINABLE, 1);
            SpinUntilCancelled();
        });
        ASSERT_EQ(CM_OK, pCreator->Create(TYPE, TF_JOINABLE, 0));
        ASSERT_TRUE(Eventually([] { return SlowStarter::s_bStarted.load(); }));
        EXPECT_EQ(0, pCreator->Terminate());
        go.Open();
        EXPECT_EQ(CM_OK, pCreator->Join());
        pCreator->Destory(0);
        EXPECT_EQ(CM_OK, rv);
        EXPECT_EQ(nullptr, pStarted->startEvent());
        life.released.Open();
        EXPECT_EQ(CM_OK, pStarted->Join());
        pStarted->Destory(0);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Terminated while it starts.
class EndlessStarter : public BodyThread {
  public:
    explicit EndlessStarter(Life& aLife) : BodyThread(aLife) {}
    void OnThreadInit() override {
        EXPECT_EQ(0, g_cmSystem.pthread_cancel(pthread_self()));
        SpinUntilCancelled();
    }
};

TEST_P(CmCancelledThread, LetsItsCreatorGo_WhenItIsTerminatedWhileItStarts) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        Life life;
        EndlessStarter* pThread = new EndlessStarter(life);
        EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_FALSE(life.ran);
        pThread->Destory(0);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, LeavesTheEventUsable_WhenTerminatedInItsWait) {
    CCmEventThread event(0, 0);
    for (bool bTimed : {false, true}) {
        TerminateIn(
            [&] {
                CCmTimeValue tvLong(100);
                event.Wait(bTimed ? &tvLong : nullptr);
            },
            [] { return true; });
        Gate done;
        std::thread other([&] {
            EXPECT_EQ(CM_OK, event.Signal());  // kept: nobody waits
            CCmTimeValue tvNone;
            EXPECT_EQ(CM_OK, event.Wait(&tvNone));
            done.Open();
        });
        EXPECT_TRUE(done.Wait());
        other.join();
    }
}

TEST_P(CmCancelledThread, SendsNextSignalToTheNextConsumer_WhenTerminatedInItsWait) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    TerminateIn(
        [&] {
            std::list<ICmEvent*> none;
            queue.PopOrWaitPendingEvents(none, nullptr);
        },
        [] { return true; });
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> signals(0, 0);
        queue.PostEvent(new LoggedEvent(log, 0), NORMAL);
        EXPECT_EQ(0u, signals.calls());  // nobody waits any more
        queue.DestoryPendingEvents();
        std::list<ICmEvent*> none;
        queue.PopPendingEvents(none);
    }
    Gate took;
    std::thread consumer([&] {
        std::list<ICmEvent*> events;
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr))) {
        }
        queue.ProcessEvents(events);
        took.Open();
    });
    queue.PostEvent(new LoggedEvent(log, 1), NORMAL);
    EXPECT_TRUE(took.Wait());
    consumer.join();
    EXPECT_EQ((Ids{0, 1}), log.ended());
}

Gate s_inSink;
Gate s_sinkMayGo;
std::atomic<bool> g_bSinkWentOn{false};
void CancellableSink(unsigned long, const char*, unsigned int) {
    s_inSink.Open();
    s_sinkMayGo.Wait();
    kelto_test::TestCancel();
    g_bSinkWentOn = true;
}

// Has CancellableSink take the lines of one test.
class ScopedCancellableSink {
  public:
    ScopedCancellableSink() : m_pfnPrevious(g_util_trace_sink.load()) {
        s_inSink.Close();
        s_sinkMayGo.Close();
        g_bSinkWentOn = false;
        set_util_external_trace_sink(&CancellableSink);
    }
    ~ScopedCancellableSink() { set_util_external_trace_sink(m_pfnPrevious); }
    ScopedCancellableSink(const ScopedCancellableSink&) = delete;
    ScopedCancellableSink& operator=(const ScopedCancellableSink&) = delete;

  private:
    const UtilTraceSink m_pfnPrevious;
};

TEST_P(CmCancelledThread, DeliversItsLine_WhenTerminatedInTheSink) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    queue.SetStopped();
    Gate go;
    WorkThread* pThread = new WorkThread([&] {
        go.Wait();
        queue.PostEvent(new LoggedEvent(log, 1), NORMAL);  // refused, with a line
        SpinUntilCancelled();
    });
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    {
        ScopedCancellableSink sink;
        go.Open();
        EXPECT_TRUE(s_inSink.Wait());
        EXPECT_EQ(0, pThread->Terminate());
        s_sinkMayGo.Open();
        EXPECT_EQ(CM_OK, pThread->Join());
    }
    EXPECT_TRUE(g_bSinkWentOn);
    EXPECT_EQ(Ids{1}, log.ended());
    pThread->Destory(0);
}

Gate s_inClock;
Gate s_clockMayGo;
int HeldTime(timeval* aNow, void*) {
    s_inClock.Open();
    s_clockMayGo.Wait();
    return gettimeofday(aNow, nullptr);
}

TEST_P(CmCancelledThread, DestroysTheQueue_WhenTerminatedWhileItWaitsForASender) {
    for (int i = 0; i < 3; ++i) {
        EventLog log;
        CCmEventQueueBase* pQueue = nullptr;
        switch (i) {
            case 0:
                pQueue = new CCmEventQueueBase;
                break;
            case 1:
                pQueue = new CCmEventQueueUsingMutex;
                break;
            default:
                pQueue = new CCmEventQueueUsingConditionVariable;
        }
        s_inClock.Close();
        s_clockMayGo.Close();
        kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> entry(
            g_cmClock.coarse_gettimeofday, &HeldTime);
        std::thread sender([&] { pQueue->SendEvent(new LoggedEvent(log, 1)); });
        ASSERT_TRUE(s_inClock.Wait());
        std::atomic<bool> bDeleted{false};
        WorkThread* pThread = new WorkThread([&] {
            delete pQueue;
            bDeleted = true;
            SpinUntilCancelled();
        });
        ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_EQ(0, pThread->Terminate());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // into its nap
        s_clockMayGo.Open();
        sender.join();
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_TRUE(bDeleted);
        EXPECT_EQ(Ids{1}, log.ended());
        pThread->Destory(0);
    }
}

// Its destruction is a cancellation point.
class PointedThread : public WorkThread {
  public:
    explicit PointedThread(std::atomic<bool>& aDeleted) : WorkThread([] {}), m_bDeleted(aDeleted) {}
    ~PointedThread() override {
        kelto_test::TestCancel();
        m_bDeleted = true;
    }

  private:
    std::atomic<bool>& m_bDeleted;
};

// Runs aWork on a thread that is terminated before: it gets to its end.
void ExpectUncancelled(std::function<void()> aWork, ICmTimerQueue* aTimerQueue = nullptr) {
    class CTimedThread : public WorkThread {
      public:
        CTimedThread(std::function<void()> aAllWork, ICmTimerQueue* aQueue)
            : WorkThread(std::move(aAllWork)), m_pQueue(aQueue) {}
        ICmTimerQueue* GetTimerQueue() override { return m_pQueue; }

      private:
        ICmTimerQueue* const m_pQueue;
    };
    Gate go;
    Gate done;
    WorkThread* pThread = new CTimedThread(
        [&] {
            go.Wait();
            aWork();
            done.Open();
            SpinUntilCancelled();
        },
        aTimerQueue);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(0, pThread->Terminate());
    go.Open();
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_TRUE(done.IsOpen());
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, DestroysAThread_WhenTerminatedMeanwhile) {
    std::atomic<bool> bDeleted{false};
    PointedThread* pOther = new PointedThread(bDeleted);
    ASSERT_EQ(CM_OK, pOther->Create(TYPE, TF_JOINABLE, 0));
    ASSERT_EQ(CM_OK, pOther->Join());
    ExpectUncancelled([&] { pOther->Destory(0); });
    EXPECT_TRUE(bDeleted);
}

template <class Queue>
void DestroyWithEvents(EventLog& aLog) {
    Queue queue;
    queue.PostEvent(new CancelPointEvent, NORMAL);
    queue.PostEvent(new LoggedEvent(aLog, 1), NORMAL);
}

TEST_P(CmCancelledThread, EndsWhatAQueueHolds_WhenTerminatedWhileItDestroysIt) {
    EventLog log;
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueBase>(log); });
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueUsingMutex>(log); });
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueUsingConditionVariable>(log); });
    EXPECT_EQ((Ids{1, 1, 1}), log.ended());
    ExpectUncancelled([] { delete new CCmEventSynchronous(new CancelPointEvent, nullptr); });
}

// Has cancellation points.
class PointedTimerQueue : public CCmTimerQueueOrderedList {
  public:
    PointedTimerQueue() : CCmTimerQueueOrderedList(nullptr) {}
    CmResult CancelTimer(ICmTimerHandler* aEh) override {
        kelto_test::TestCancel();
        return CCmTimerQueueOrderedList::CancelTimer(aEh);
    }
};

TEST_P(CmCancelledThread, CancelsTheTimer_WhenTerminatedWhileItsWrapperEnds) {
    PointedTimerQueue queue;
    ExpectUncancelled(
        [] {
            CCmTimerWrapperID timer;
            timer.Schedule(nullptr, kelto_test::Ms(1000), 1);
        },
        &queue);
    EXPECT_EQ(CCmTimeValue::s_tvMax, queue.GetEarliestTime());
}

// Spins in its worker.
class SpinningHandler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void*) override {
        m_busy.Open();
        SpinUntilCancelled();
    }
    Gate m_busy;
};

TEST_P(CmCancelledThread, KeepsItsTimers_WhenTerminatedInATimersHandler) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        SpinningHandler handler;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
        pThread->GetEventQueue()->PostEvent(new EndingEvent([&] {
                                                pThread->GetTimerQueue()->ScheduleTimer(
                                                    &handler, nullptr, kelto_test::Ms(1), 2);
                                            }),
                                            NORMAL);
        EXPECT_TRUE(handler.m_busy.Wait());
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
        EXPECT_EQ(0, pThread->Terminate());
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(CM_OK, pThread->GetTimerQueue()->CancelTimer(&handler));  // its second firing
        EXPECT_EQ(1u, pThread->GetEventQueue()->GetPendingEventsCount());
        pThread->Destory(0);
        EXPECT_EQ(Ids{1}, log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, EndsTheRestUnfired_WhenTerminatedInAHandler) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    Gate busy;
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 1), NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 2,
                                      [&] {
                                          busy.Open();
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 3), NORMAL);
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 4)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 4; }));
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    ASSERT_TRUE(busy.Wait());
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ((Ids{1, 2}), log.fired());
    EXPECT_EQ((Ids{1, 2, 3, 4}), log.ended());
    pThread->Destory(0);
}

}  // namespace
}  // namespace UTIL_NS
