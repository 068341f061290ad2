// The queue whose consumer waits: CCmEventQueueUsingConditionVariable.
#include "CmEventQueueBase.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <list>
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

using kelto_test::CountedLock;
using kelto_test::CountedSignal;
using kelto_test::CountedUnlock;
using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::g_nLines;
using kelto_test::g_nLinesUnderLock;
using kelto_test::g_nSignals;
using kelto_test::g_nWaits;
using kelto_test::Gate;
using kelto_test::IdsUpTo;
using kelto_test::LockedLines;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;
using kelto_test::Post;
using kelto_test::SpuriousWait;
using kelto_test::t_nLocksHeld;
using kelto_test::WaitCounter;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

double MsSince(std::chrono::steady_clock::time_point aStart) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - aStart)
        .count();
}

TEST(CmEventQueueUsingConditionVariable, PostsNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueUsingConditionVariable queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.PostEvent(nullptr, NORMAL));
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
}

TEST(CmEventQueueUsingConditionVariable, Returns_WhenAnEventIsPostedWhileItWaits) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        queue.PostEvent(new LoggedEvent(log, 1), NORMAL);
    });
    Events events;
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
    ASSERT_EQ(1u, events.size());
    queue.ProcessEvents(events);
    EXPECT_EQ(Ids{1}, log.fired());
    poster.join();
}

TEST(CmEventQueueUsingConditionVariable, FindsNothingSilently_WhenTheTimeIsOver) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueUsingConditionVariable queue;
    Events events;
    CCmTimeValue tvTimeout(0, 10000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvTimeout));
    EXPECT_GE(MsSince(start), 9.0);
    EXPECT_LE(MsSince(start), 5000.0);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEventQueueUsingConditionVariable, DoesNotWait_WhenEventsArePending) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    Post(queue, log, 1, 1);
    Events events;
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
    EXPECT_EQ(0, g_nWaits.load());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingConditionVariable, IsStoppedAndEmpty_WhenNothingPendsOrComes) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    EXPECT_FALSE(queue.IsStoppedAndEmpty());
    Post(queue, log, 1, 1);
    queue.SetStopped();
    EXPECT_FALSE(queue.IsStoppedAndEmpty());
    queue.DestoryPendingEvents();  // the count keeps its value
    EXPECT_TRUE(queue.IsStoppedAndEmpty());
}

TEST(CmEventQueueUsingConditionVariable, WaitsOnce_WhenTheWaitEndsForNoReason) {
    CCmEventQueueUsingConditionVariable queue;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(
        g_cmSystem.pthread_cond_wait, &SpuriousWait);
    Events events;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, nullptr));
}

TEST(CmEventQueueUsingConditionVariable, TakesAtMostWhatIsAskedFor) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    Post(queue, log, 1, 7);
    Events events;
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr, 5));
    EXPECT_EQ(5u, events.size());
    EXPECT_EQ(2u, queue.GetPendingEventsCount());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingConditionVariable, DoesNotSignal_WhenNobodyWaits) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    Post(queue, log, 1, 3);
    EXPECT_EQ(0, g_nSignals.load());
}

TEST(CmEventQueueUsingConditionVariable, DoesNotSignal_WhenTheWaitIsOver) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    Events events;
    CCmTimeValue tvShort(0, 1000);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvShort));
    EXPECT_EQ(1, g_nWaits.load());
    Post(queue, log, 1, 1);
    EXPECT_EQ(0, g_nSignals.load());
}

EventLog* g_pLogOfWait = nullptr;
CCmEventQueueUsingConditionVariable* g_pQueueOfWait = nullptr;

// Another thread's posts, while this one waits.
int PostTwiceInstead(pthread_cond_t*, pthread_mutex_t* aMutex) {
    pthread_mutex_unlock(aMutex);
    Post(*g_pQueueOfWait, *g_pLogOfWait, 1, 2);
    return pthread_mutex_lock(aMutex);
}

TEST(CmEventQueueUsingConditionVariable, SignalsOnce_WhenTwoPostsComeBeforeItsConsumerWakes) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(
        g_cmSystem.pthread_cond_wait, &PostTwiceInstead);
    g_pLogOfWait = &log;
    g_pQueueOfWait = &queue;
    Events events;
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
    queue.ProcessEvents(events);
    EXPECT_EQ((Ids{1, 2}), log.fired());
    EXPECT_EQ(1, g_nSignals.load());
}

Gate s_firstSignalHeld;
Gate s_signalMayGo;
int FirstSignalHeld(pthread_cond_t* aCondition) {
    if (s_firstSignalHeld.Open()) {
        s_signalMayGo.Wait();
    }
    return CountedSignal(aCondition);
}

TEST(CmEventQueueUsingConditionVariable, Signals_WhenAnEarlierPosterHasNotGotToItsSignal) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    s_firstSignalHeld.Close();
    s_signalMayGo.Close();
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> signal(
        g_cmSystem.pthread_cond_signal, &FirstSignalHeld);
    Gate took;
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        queue.ProcessEvents(events);
        took.Open();
    });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // let it wait
    std::thread preempted([&] { Post(queue, log, 1, 1); });
    EXPECT_TRUE(s_firstSignalHeld.Wait());
    Post(queue, log, 2, 2);
    EXPECT_TRUE(took.Wait());
    EXPECT_FALSE(s_signalMayGo.IsOpen());
    EXPECT_EQ((Ids{1, 2}), log.fired());
    // And the late signal is not taken for one of the next wait.
    std::thread next([&] {
        Events events;
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr))) {
        }
        queue.ProcessEvents(events);
    });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 2; }));
    s_signalMayGo.Open();
    preempted.join();
    EXPECT_TRUE(Eventually([] { return g_nSignals == 2; }));
    Post(queue, log, 3, 3);
    next.join();
    consumer.join();
    EXPECT_EQ((Ids{1, 2, 3}), log.ended());
}

TEST(CmEventQueueUsingConditionVariable, WakesEveryConsumer_WhenSeveralWait) {
    constexpr int CONSUMERS = 3;
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    std::vector<std::thread> consumers;
    for (int i = 0; i < CONSUMERS; ++i) {
        consumers.emplace_back([&] {
            Events events;
            while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr, 1))) {
            }
            queue.ProcessEvents(events);
        });
    }
    EXPECT_TRUE(Eventually([] { return g_nWaits == CONSUMERS; }));
    {
        // A signal that wakes none: no consumer gets on between the posts.
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> signals(
            0, 0, 1, kelto_test::Failing::FROM_THERE_ON);
        Post(queue, log, 1, CONSUMERS);
        EXPECT_EQ(static_cast<unsigned long>(CONSUMERS), signals.calls());
    }
    Post(queue, log, CONSUMERS + 1, 2 * CONSUMERS);
    for (std::thread& consumer : consumers) {
        consumer.join();
    }
    EXPECT_EQ(static_cast<size_t>(CONSUMERS), log.ended().size());
}

TEST(CmEventQueueUsingConditionVariable, SignalsTheLastConsumer_WhenAnotherTookTheFirstEvent) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    std::atomic<int> nTook{0};
    const auto consume = [&] {
        Events events;
        CCmTimeValue tvTimeout(20);
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, &tvTimeout, 1))) {
        }
        ++nTook;
        queue.ProcessEvents(events);
    };
    std::thread consumers[] = {std::thread(consume), std::thread(consume)};
    EXPECT_TRUE(Eventually([] { return g_nWaits == 2; }));
    Post(queue, log, 1, 1);
    EXPECT_TRUE(Eventually([&] { return nTook == 1; }));
    Post(queue, log, 2, 2);
    EXPECT_EQ(2, g_nSignals.load());
    for (std::thread& consumer : consumers) {
        consumer.join();
    }
    EXPECT_EQ((Ids{1, 2}), log.fired());
}

std::atomic<int> g_nLocksHeldAtSignal{-1};
int LockCheckingSignal(pthread_cond_t* aCondition) {
    g_nLocksHeldAtSignal = t_nLocksHeld;
    return CountedSignal(aCondition);
}

TEST(CmEventQueueUsingConditionVariable, SignalsOnceAfterTheUnlock_WhenItsConsumerWaits) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_lock)> lock(
        g_cmSystem.pthread_mutex_lock, &CountedLock);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_unlock)> unlock(
        g_cmSystem.pthread_mutex_unlock, &CountedUnlock);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> signal(
        g_cmSystem.pthread_cond_signal, &LockCheckingSignal);
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        queue.ProcessEvents(events);
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // let it wait
    Post(queue, log, 1, 1);
    consumer.join();
    EXPECT_EQ(1, g_nSignals.load());
    EXPECT_EQ(0, g_nLocksHeldAtSignal.load());
}

TEST(CmEventQueueUsingConditionVariable, HoldsNoLock_WhenItReportsAFailedWait) {
    CCmEventQueueUsingConditionVariable queue;
    LockedLines lines;
    Events events;
    CCmTimeValue tvShort(0, 1000);
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_timedwait> timedFault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, nullptr));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvShort));
    EXPECT_EQ(4, g_nLines);
    EXPECT_EQ(0, g_nLinesUnderLock);
}

TEST(CmEventQueueUsingConditionVariable, WritesOneLineAPost_WhenItsSignalsFailForGood) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    std::thread consumer([&] {
        Events events;
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr))) {
        }
        queue.ProcessEvents(events);
    });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // let it wait
    {
        LockedLines lines;
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        Post(queue, log, 1, 2);
        EXPECT_LE(2u, fault.calls());
        EXPECT_EQ(2, g_nLines);
        EXPECT_EQ(0, g_nLinesUnderLock);
    }
    Post(queue, log, 3, 3);
    consumer.join();
    EXPECT_EQ(3u, log.ended().size());
}

TEST(CmEventQueueUsingConditionVariable, DoesNotSignal_WhenItRefuses) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    std::thread consumer([&] {
        Events events;
        CCmTimeValue tvTimeout(0, 100000);
        EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvTimeout));
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    queue.SetStopped();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
    EXPECT_EQ(0, g_nSignals.load());
    consumer.join();
}

TEST(CmEventQueueUsingConditionVariable, TriesAgainAtOnce_WhenOneSignalFails) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    Gate took;
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        EXPECT_EQ(1u, events.size());
        queue.ProcessEvents(events);
        took.Open();
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
        EXPECT_LE(2u, fault.calls());
    }
    consumer.join();
    EXPECT_TRUE(took.IsOpen());
}

TEST(CmEventQueueUsingConditionVariable, SignalsWithTheNextPost_WhenEverySignalFailed) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    Gate took;
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        EXPECT_EQ(2u, events.size());
        queue.ProcessEvents(events);
        took.Open();
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
        EXPECT_LE(1u, fault.calls());
    }
    EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 2), NORMAL));
    consumer.join();
    EXPECT_TRUE(took.IsOpen());
}

TEST(CmEventQueueUsingConditionVariable, DoesNotWait_WhenTheLockCannotBeTaken) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    Events events;
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, nullptr));
    }
    Post(queue, log, 1, 1);  // and it is not left taken
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingConditionVariable, TracesAndTakes_WhenTheWaitFails) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueUsingConditionVariable queue;
    kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    Events events;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, nullptr));
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[1].level);
    EXPECT_EQ(
        "UTIL ERROR: "
        "CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not empty. "
        "nSize=0 rv=1107312641 this=0x#",
        MaskAddresses(sink.lines()[1].text));
}

TEST(CmEventQueueUsingConditionVariable, HoldsNoLock_WhenPendingEventsEnd) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                    NORMAL);
    queue.DestoryPendingEvents();
    Events events;
    EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
    EXPECT_EQ(1u, events.size());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingConditionVariable, HoldsNoLock_WhenARefusedEventEnds) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    queue.SetStopped();
    queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                    NORMAL);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueUsingConditionVariable, RefusesWhatAnEndingEventPosts_WhenItsConsumerEnds) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                    NORMAL);
    queue.StopAndDestoryPendingEvents();
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueUsingConditionVariable, AllocatesNothing_WhenListNodesAreRecycled) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    Post(queue, log, 1, 4);
    Events events;
    queue.PopOrWaitPendingEvents(events, nullptr);
    queue.ProcessAndRecycleEvents(events);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(IdsUpTo(4), log.fired());
    CCmTimeValue tvNone(0, 0);
    queue.PopOrWaitPendingEvents(events, &tvNone);

    ICmEvent* apEvents[] = {new LoggedEvent(log, 5), new LoggedEvent(log, 6),
                            new LoggedEvent(log, 7), new LoggedEvent(log, 8)};
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    for (ICmEvent* pEvent : apEvents) {
        queue.PostEvent(pEvent, NORMAL);
    }
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    queue.PopOrWaitPendingEvents(events, nullptr);
    queue.ProcessAndRecycleEvents(events);
    EXPECT_EQ(IdsUpTo(8), log.fired());
}

// A queue with one spare node that another poster takes while the next event is being posted.
class LastSpare {
  public:
    LastSpare() {
        for (int i = 0; i < 2; ++i) {
            Events events;
            CCmTimeValue tvShort(0, 1000);
            if (i == 0) {
                m_queue.PostEvent(new LoggedEvent(m_log, 0), NORMAL);
            }
            m_queue.PopOrWaitPendingEvents(events, &tvShort);
            m_queue.ProcessAndRecycleEvents(events);
        }
        s_pQueue = &m_queue;
        s_pOther = new LoggedEvent(m_log, 2);
    }
    CCmEventQueueUsingConditionVariable& queue() { return m_queue; }
    EventLog& log() { return m_log; }

  private:
    static int PostOther(timeval* aTv, void*) {
        if (ICmEvent* pOther = s_pOther) {
            s_pOther = nullptr;
            s_pQueue->PostEvent(pOther, NORMAL);
        }
        return gettimeofday(aTv, nullptr);
    }

    static inline CCmEventQueueUsingConditionVariable* s_pQueue;
    static inline ICmEvent* s_pOther;
    EventLog m_log;
    CCmEventQueueUsingConditionVariable m_queue;
    kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> m_entry{
        g_cmClock.coarse_gettimeofday, &PostOther};
};

TEST(CmEventQueueUsingConditionVariable, AllocatesANode_WhenAnotherPosterTookTheLastSpare) {
    LastSpare last;
    ICmEvent* pEvent = new LoggedEvent(last.log(), 1);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    EXPECT_EQ(CM_OK, last.queue().PostEvent(pEvent, NORMAL));
    EXPECT_EQ(1u, kelto_test::AllocationsOfThisThread() - ulBefore);
    EXPECT_EQ(2u, last.queue().GetPendingEventsCount());
    last.queue().DestoryPendingEvents();
    EXPECT_EQ((Ids{0, 2, 1}), last.log().ended());
}

TEST(CmEventQueueUsingConditionVariable, EndsTheEvent_WhenTheLastSpareIsGoneAndMemoryToo) {
    LastSpare last;
    ICmEvent* pEvent = new LoggedEvent(last.log(), 1);
    {
        kelto_test::ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, last.queue().PostEvent(pEvent, NORMAL));
    }
    EXPECT_EQ(1u, last.queue().GetPendingEventsCount());
    EXPECT_EQ((Ids{0, 1}), last.log().ended());
}

}  // namespace
}  // namespace UTIL_NS
