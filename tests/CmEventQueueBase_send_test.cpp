// Synchronous sends: CCmEventQueueBase::SendEvent and CCmEventSynchronous.
#include "CmEventQueueBase.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <thread>
#include <vector>

#include "support/EventQueues.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::g_nLines;
using kelto_test::g_nLinesUnderLock;
using kelto_test::g_nWaits;
using kelto_test::Gate;
using kelto_test::IdsUpTo;
using kelto_test::LockedLines;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;
using kelto_test::Post;
using kelto_test::SpuriousWait;
using kelto_test::WaitCounter;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

// What an event returns in these tests, when its result matters.
constexpr CmResult RESULT = 4711;
// A call that is counted and does not fail.
constexpr unsigned long NEVER = 0;

// Runs everything that arrives at a queue until it is destroyed.
class Consumer {
  public:
    explicit Consumer(CCmEventQueueUsingConditionVariable& aQueue)
        : m_queue(aQueue), m_thread([this] { Run(); }) {
        EXPECT_TRUE(m_bound.Wait());
    }
    ~Consumer() {
        m_bStop = true;
        m_thread.join();
    }

  private:
    void Run() {
        m_queue.BindToCurrentThread();
        m_bound.Open();
        while (!m_bStop) {
            Events events;
            CCmTimeValue tvWait(0, 5000);
            if (CM_SUCCEEDED(m_queue.PopOrWaitPendingEvents(events, &tvWait))) {
                m_queue.ProcessEvents(events);
            }
        }
    }

    CCmEventQueueUsingConditionVariable& m_queue;
    Gate m_bound;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

TEST(CmEventSend, SendsNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueBase queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.SendEvent(nullptr));
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmEventSend, EndsTheEvent_WhenTheQueueIsStopped) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    queue.SetStopped();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.SendEvent(new LoggedEvent(log, 1)));
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ(Ids{1}, log.ended());
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: CCmEventQueueBase::SendEvent, has been stopped. this=0x#",
              MaskAddresses(sink.lines()[0].text));
}

TEST(CmEventSend, RunsAtOnceAndOvertakes_WhenTheQueueIsOfTheCallingThread) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    queue.BindToCurrentThread();
    Post(queue, log, 1, 2);
    EXPECT_EQ(RESULT, queue.SendEvent(new LoggedEvent(log, 3, [] { return RESULT; })));
    EXPECT_EQ(Ids{3}, log.fired());
    EXPECT_EQ(Ids{3}, log.ended());
    EXPECT_EQ(2u, queue.GetPendingEventsCount());
}

TEST(CmEventSend, ReturnsTheResultOfTheEvent_WhenItRanOnTheQueuesThread) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    Consumer consumer(queue);
    std::thread::id ranOn;
    EXPECT_EQ(RESULT, queue.SendEvent(new LoggedEvent(log, 1, [&] {
        ranOn = std::this_thread::get_id();
        return RESULT;
    })));
    EXPECT_NE(std::this_thread::get_id(), ranOn);
    EXPECT_EQ(Ids{1}, log.fired());
    EXPECT_TRUE(Eventually([&] { return log.ended() == Ids{1}; }));
}

TEST(CmEventSend, KeepsItsPlaceAmongThePosted_WhenSentFromAnotherThread) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    Post(queue, log, 1, 3);
    Consumer consumer(queue);
    EXPECT_EQ(CM_OK, queue.SendEvent(new LoggedEvent(log, 4)));
    EXPECT_EQ(IdsUpTo(4), log.fired());
}

TEST(CmEventSend, BringsTheWrapperBackToTheQueue_WhenTheEventHasRun) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        ICmEvent* pEvent = new LoggedEvent(log, 1, [] { return RESULT; });
        CmResult rv = CM_OK;
        std::thread sender([&] { rv = queue.SendEvent(pEvent); });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        Events events;
        queue.PopPendingEventsLocked(events);
        ICmEvent* pWrapper = events.front();
        queue.ProcessEvents(events);
        sender.join();
        EXPECT_EQ(RESULT, rv);
        EXPECT_EQ(1u, queue.GetPendingEventsCount());
        Events returned;
        queue.PopPendingEventsLocked(returned);
        ASSERT_EQ(1u, returned.size());
        EXPECT_EQ(pWrapper, returned.front());
        queue.ProcessEvents(returned);
        EXPECT_EQ(Ids{1}, log.fired());
        EXPECT_EQ(Ids{1}, log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Keeps the priorities that it is given.
class PriorityQueue : public CCmEventQueueUsingMutex {
  public:
    ~PriorityQueue() override { WaitForSenders(); }
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        m_priorities.push_back(aPri);
        return CCmEventQueueUsingMutex::PostEvent(aEvent, aPri);
    }

    std::vector<int> m_priorities;  // by one thread
};

TEST(CmEventSend, PostsThereAndBackWithPriorityOne) {
    EventLog log;
    PriorityQueue queue;
    std::thread sender([&] { queue.SendEvent(new LoggedEvent(log, 1)); });
    ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
    Events events;
    queue.PopPendingEventsLocked(events);
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_EQ((std::vector<int>{1, 1}), queue.m_priorities);
}

// Refuses every post after the first aAccepted ones.
class RefusingQueue : public CCmEventQueueUsingMutex {
  public:
    explicit RefusingQueue(int aAccepted) : m_nAccepted(aAccepted) {}
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        if (m_nAccepted-- > 0) {
            return CCmEventQueueUsingMutex::PostEvent(aEvent, aPri);
        }
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }

  private:
    std::atomic<int> m_nAccepted;
};

TEST(CmEventSend, EndsTheEventAndFreesTheWrapper_WhenThePostIsRefused) {
    EventLog log;
    RefusingQueue queue(0);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    const long lLive = kelto_test::LiveAllocationsBefore();
    struct CSilent : ICmEvent {
        explicit CSilent(int& aEnded) : m_nEnded(aEnded) {}
        CmResult OnEventFire() override { return CM_OK; }
        void OnDestorySelf() override {
            ++m_nEnded;
            delete this;
        }
        int& m_nEnded;
    };
    int nEnded = 0;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.SendEvent(new CSilent(nEnded)));
    EXPECT_EQ(1, nEnded);
    EXPECT_LT(ulBefore, kelto_test::AllocationsOfThisThread());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmEventSend, FreesTheWrapperOnce_WhenTheSecondPostIsRefused) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        RefusingQueue queue(1);
        CmResult rv = CM_OK;
        std::thread sender(
            [&] { rv = queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })); });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        Events events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        sender.join();
        EXPECT_EQ(RESULT, rv);
        EXPECT_EQ(Ids{1}, log.ended());
        EXPECT_EQ(0u, queue.GetPendingEventsCount());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmEventSend, WakesTheSender_WhenPendingEventsAreDestroyed) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingConditionVariable queue;
        CmResult rv = CM_OK;
        Gate returned;
        std::thread sender([&] {
            rv = queue.SendEvent(new LoggedEvent(log, 1));
            returned.Open();
        });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        queue.DestoryPendingEvents();
        EXPECT_TRUE(returned.Wait());
        sender.join();
        EXPECT_EQ(1u, queue.GetPendingEventsCount());  // nothing was posted back
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
        EXPECT_EQ(Ids(), log.fired());
        EXPECT_EQ(Ids{1}, log.ended());
        Events events;
        EXPECT_EQ(CM_OK, queue.PopPendingEvents(events));  // by the count that was kept
        EXPECT_TRUE(events.empty());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmEventSend, WakesTheSender_WhenTheQueueIsDestroyed) {
    EventLog log;
    CmResult rv = CM_OK;
    std::thread sender;
    {
        CCmEventQueueUsingConditionVariable queue;
        sender = std::thread([&] { rv = queue.SendEvent(new LoggedEvent(log, 1)); });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
    }
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSend, OutlivesTheReturningSender_WhenTheQueueIsDestroyedAfterTheEvent) {
    for (int i = 0; i < 200; ++i) {
        EventLog log;
        CmResult rv = CM_OK;
        std::thread sender;
        {
            CCmEventQueueUsingMutex queue;
            sender = std::thread(
                [&] { rv = queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })); });
            while (queue.GetPendingEventsCount() == 0) {
                std::this_thread::yield();
            }
            Events events;
            queue.PopPendingEventsLocked(events);
            queue.ProcessEvents(events);
        }
        sender.join();
        ASSERT_EQ(RESULT, rv);
        ASSERT_EQ(Ids{1}, log.ended());
    }
}

// Its posters linger until they are released.
class LingeringQueue : public CCmEventQueueUsingMutex {
  public:
    explicit LingeringQueue(const Gate& aReleased) : m_released(aReleased) {}
    ~LingeringQueue() override { WaitForSenders(); }
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        const Gate& released = m_released;
        const CmResult rv = CCmEventQueueUsingMutex::PostEvent(aEvent, aPri);
        released.Wait();
        return rv;
    }

  private:
    const Gate& m_released;
};

TEST(CmEventSend, KeepsTheQueue_WhileTheSenderIsStillPosting) {
    EventLog log;
    Gate released;
    std::atomic<bool> bDeleted{false};
    LingeringQueue* pQueue = new LingeringQueue(released);
    kelto_test::FailingCall<&CCmSystemTable::nanosleep> naps(EINTR, -1, NEVER);
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 1)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 1; }));
    pQueue->CCmEventQueueUsingMutex::DestoryPendingEvents();
    std::thread owner([&] {
        delete pQueue;
        bDeleted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(bDeleted);
    released.Open();
    sender.join();
    owner.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
    EXPECT_GE(naps.calls(), 1u);
}

// While it lives, whoever posts gets no further than the clock until it is released.
class HeldClock {
  public:
    HeldClock() {
        s_reached.Close();
        s_released.Close();
    }
    bool WaitUntilReached() const { return s_reached.Wait(); }
    void Release() { s_released.Open(); }

  private:
    static int Read(timeval* aTv, void*) {
        s_reached.Open();
        s_released.Wait();
        return gettimeofday(aTv, nullptr);
    }

    static inline Gate s_reached;
    static inline Gate s_released;
    kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> m_entry{
        g_cmClock.coarse_gettimeofday, &Read};
};

template <class Queue>
class CmEventQueues : public testing::Test {};
typedef testing::Types<CCmEventQueueBase, CCmEventQueueUsingMutex,
                       CCmEventQueueUsingConditionVariable>
    AllQueues;
TYPED_TEST_SUITE(CmEventQueues, AllQueues, );

TYPED_TEST(CmEventQueues, EndsAfterItsSenders_WhenItIsDestroyed) {
    EventLog log;
    HeldClock clock;
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_destroy> locksEnded(EINVAL, EINVAL,
                                                                               NEVER);
    std::atomic<bool> bDeleted{false};
    CmResult rv = CM_OK;
    TypeParam* pQueue = new TypeParam;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 1)); });
    ASSERT_TRUE(clock.WaitUntilReached());
    std::thread owner([&] {
        delete pQueue;
        bDeleted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(bDeleted);
    EXPECT_EQ(0u, locksEnded.calls());
    clock.Release();
    sender.join();
    owner.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSend, EndsTheEvent_WhenAnAllocationFails) {
    for (unsigned long ulNth : {1ul, 2ul}) {
        EventLog log;
        CCmEventQueueUsingConditionVariable queue;
        ICmEvent* pEvent = new LoggedEvent(log, 1);
        const long lLive = kelto_test::LiveAllocationsBefore();
        CmResult rv = CM_OK;
        {
            kelto_test::ScopedAllocationFault fault(ulNth);
            rv = queue.SendEvent(pEvent);
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, rv);
        EXPECT_EQ(Ids{1}, log.ended());
        EXPECT_EQ(Ids(), log.fired());
        EXPECT_LE(kelto_test::LiveAllocations(), lLive);  // the event went, the log grew by one
    }
}

TEST(CmEventSend, SaysSoAndReturns_WhenTheWaitFails) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueUsingMutex queue;
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, queue.SendEvent(new LoggedEvent(log, 1)));
    EXPECT_EQ(Ids(), log.ended());
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[1].level);
    EXPECT_EQ(
        "UTIL WARNING: CCmEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed! "
        "this=0x#",
        MaskAddresses(sink.lines()[1].text));
}

TEST(CmEventSend, RunsTheEventOnceAndFreesTheWrapper_WhenTheWaitFailed) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        {
            kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
            EXPECT_EQ(CM_ERROR_FAILURE, queue.SendEvent(new LoggedEvent(log, 1)));
        }
        Events events;
        EXPECT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
        queue.ProcessEvents(events);
        EXPECT_EQ(Ids{1}, log.fired());
        EXPECT_EQ(Ids{1}, log.ended());
        EXPECT_EQ(0u, queue.GetPendingEventsCount());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// A wait that fails after the event has run.
CCmEventQueueUsingMutex* g_pQueueOfTheFailingWait = nullptr;
int FailAfterTheEventRan(pthread_cond_t*, pthread_mutex_t* aMutex) {
    pthread_mutex_unlock(aMutex);
    std::thread([] {
        Events events;
        EXPECT_EQ(CM_OK, g_pQueueOfTheFailingWait->PopPendingEventsLocked(events));
        g_pQueueOfTheFailingWait->ProcessTakenEvents(events);
    }).join();
    pthread_mutex_lock(aMutex);
    return EINVAL;
}

TEST(CmEventSend, LetsGoOfTheQueue_WhenTheWaitFailsAfterTheEventRan) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        g_pQueueOfTheFailingWait = &queue;
        kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(
            g_cmSystem.pthread_cond_wait, &FailAfterTheEventRan);
        EXPECT_EQ(CM_ERROR_FAILURE, queue.SendEvent(new LoggedEvent(log, 1)));
        EXPECT_EQ(Ids{1}, log.fired());
        EXPECT_EQ(Ids{1}, log.ended());
        EXPECT_EQ(0u, queue.GetPendingEventsCount());
    }  // the queue's end waits for senders that hold it
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmEventSend, GoesOnWaiting_WhenTheWaitEndsForNoReason) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(
        g_cmSystem.pthread_cond_wait, &SpuriousWait);
    Gate returned;
    CmResult rv = CM_OK;
    std::thread sender([&] {
        rv = queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; }));
        returned.Open();
    });
    ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned.IsOpen());
    Events events;
    queue.PopPendingEventsLocked(events);
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_EQ(RESULT, rv);
}

// Holds the thread that fires back once it has woken its sender.
class HeldAfterWake {
  public:
    HeldAfterWake() { s_go.Close(); }
    void Release() { s_go.Open(); }

  private:
    static int Signal(pthread_cond_t* aCondition) {
        const int rv = pthread_cond_signal(aCondition);
        s_go.Wait();
        return rv;
    }

    inline static Gate s_go;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> m_signal{
        g_cmSystem.pthread_cond_signal, &Signal};
};

// Says which thread destroys it.
class PlacedEvent : public ICmEvent {
  public:
    PlacedEvent(std::atomic<pthread_t>& aEndedOn, std::function<void()> aWork)
        : m_endedOn(aEndedOn), m_work(std::move(aWork)) {}
    CmResult OnEventFire() override {
        m_work();
        return RESULT;
    }
    void OnDestorySelf() override {
        m_endedOn = pthread_self();
        delete this;
    }

  private:
    std::atomic<pthread_t>& m_endedOn;
    const std::function<void()> m_work;
};

// aInFire: what the event does. aBack: what the sender does once its send has returned; the thread
// that fired the event is held until then.
void ExpectEndOnTheFiringThread(const std::function<void(CCmEventQueueBase&)>& aInFire,
                                const std::function<void(CCmEventQueueUsingMutex&)>& aBack) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        CCmEventQueueUsingMutex queue;
        std::atomic<pthread_t> endedOn{pthread_t()};
        WaitCounter counter;
        HeldAfterWake held;
        std::thread sender([&] {
            EXPECT_EQ(RESULT, queue.SendEvent(new PlacedEvent(endedOn, [&] { aInFire(queue); })));
            aBack(queue);
            EXPECT_EQ(pthread_t(), endedOn.load());
            held.Release();
        });
        ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
        Events events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        EXPECT_EQ(pthread_self(), endedOn.load());
        sender.join();
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmEventSend, EndsTheEventWhereItFired_WhenAStopRefusesTheWrapper) {
    ExpectEndOnTheFiringThread([](CCmEventQueueBase& aQueue) { aQueue.SetStopped(); },
                               [](CCmEventQueueUsingMutex&) {});
}

TEST(CmEventSend, EndsTheEventWhereItFired_WhenMemoryIsOutForTheWrapper) {
    std::optional<kelto_test::ScopedAllocationFault> fault;
    ExpectEndOnTheFiringThread(
        [&](CCmEventQueueBase&) {
            fault.emplace(1, kelto_test::Failing::FROM_THERE_ON,
                          kelto_test::AllocationsOf::ALL_THREADS);
        },
        [&](CCmEventQueueUsingMutex&) {
            EXPECT_TRUE(fault->hit());
            fault.reset();
        });
}

TEST(CmEventSend, EndsTheEventWhereItFired_WhenItsSenderDestroysWhatIsPending) {
    ExpectEndOnTheFiringThread(
        [](CCmEventQueueBase&) {},
        [](CCmEventQueueUsingMutex& aQueue) { aQueue.DestoryPendingEvents(); });
}

TEST(CmEventSend, WakesTheSender_WhenOneSignalFails) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    WaitCounter counter;
    std::thread sender([&] { EXPECT_EQ(CM_OK, queue.SendEvent(new LoggedEvent(log, 1))); });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(EINVAL, EINVAL);
        Events events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        sender.join();
        EXPECT_LE(2u, fault.calls());
    }
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSynchronous, YieldsNullPointer_WhenThereIsNoEvent) {
    CCmEventSynchronous* pWrapper = new CCmEventSynchronous(nullptr, nullptr);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pWrapper->OnEventFire());
    pWrapper->OnDestorySelf();
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pWrapper->WaitResultAndDeleteThis());
}

TEST(CmEventSynchronous, FiresNothing_WhenItPassesTheSecondTime) {
    EventLog log;
    CCmEventSynchronous* pWrapper =
        new CCmEventSynchronous(new LoggedEvent(log, 1, [] { return RESULT; }), nullptr);
    EXPECT_EQ(RESULT, pWrapper->OnEventFire());
    pWrapper->OnDestorySelf();
    EXPECT_EQ(Ids{1}, log.ended());
    EXPECT_EQ(CM_OK, pWrapper->OnEventFire());
    pWrapper->OnDestorySelf();  // frees it
    EXPECT_EQ(Ids{1}, log.fired());
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSynchronous, EndsItsEvent_WhenItIsDeletedWithoutHavingRun) {
    EventLog log;
    CCmEventQueueBase queue;
    delete new CCmEventSynchronous(new LoggedEvent(log, 1), &queue);
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSend, HoldsNoLock_WhenItReportsAFailedWait) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    LockedLines lines;
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, queue.SendEvent(new LoggedEvent(log, 1)));
    EXPECT_EQ(2, g_nLines);
    EXPECT_EQ(0, g_nLinesUnderLock);
}

TEST(CmEventSend, WritesOneLine_WhenItsWakingFailsForGood) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    WaitCounter counter;
    std::thread sender([&] { EXPECT_EQ(CM_OK, queue.SendEvent(new LoggedEvent(log, 1))); });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it wait
    Events events;
    queue.PopPendingEventsLocked(events);
    {
        LockedLines lines;
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON,
            kelto_test::Effect::ALL_THE_SAME);
        queue.ProcessEvents(events);
        sender.join();
        EXPECT_LE(2u, fault.calls());
        EXPECT_EQ(1, g_nLines);
        EXPECT_EQ(0, g_nLinesUnderLock);
    }
}

}  // namespace
}  // namespace UTIL_NS
