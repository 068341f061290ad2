#include "CmEventQueueBase.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
// What an event returns in these tests, when its result matters.
constexpr CmResult RESULT = 4711;
// A call that is counted and does not fail.
constexpr unsigned long NEVER = 0;

Ids IdsUpTo(int aLast) {
    Ids ids;
    for (int i = 1; i <= aLast; ++i) {
        ids.push_back(i);
    }
    return ids;
}

void Post(ICmEventQueue& aQueue, EventLog& aLog, int aFirst, int aLast) {
    for (int i = aFirst; i <= aLast; ++i) {
        ASSERT_EQ(CM_OK, aQueue.PostEvent(new LoggedEvent(aLog, i), NORMAL));
    }
}

double MsSince(std::chrono::steady_clock::time_point aStart) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - aStart)
        .count();
}

// Runs everything that arrives at a queue until it is destroyed.
class Consumer {
  public:
    explicit Consumer(CCmEventQueueUsingConditionVariable& aQueue)
        : m_queue(aQueue), m_thread([this] { Run(); }) {
        EXPECT_TRUE(Eventually([this] { return m_bBound.load(); }));
    }
    ~Consumer() {
        m_bStop = true;
        m_thread.join();
    }

  private:
    void Run() {
        m_queue.BindToCurrentThread();
        m_bBound = true;
        while (!m_bStop) {
            Events events;
            CCmTimeValue tvWait(0, 5000);
            if (CM_SUCCEEDED(m_queue.PopOrWaitPendingEvents(events, &tvWait))) {
                m_queue.ProcessEvents(events);
            }
        }
    }

    CCmEventQueueUsingConditionVariable& m_queue;
    std::atomic<bool> m_bBound{false};
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

TEST(CmEvent, DeletesItself_WhenTheEndIsNotOverridden) {
    struct CPlain : ICmEvent {
        explicit CPlain(bool& aDeleted) : m_bDeleted(aDeleted) {}
        ~CPlain() override { m_bDeleted = true; }
        CmResult OnEventFire() override { return CM_OK; }
        bool& m_bDeleted;
    };
    bool bDeleted = false;
    ICmEvent* pEvent = new CPlain(bDeleted);
    pEvent->OnDestorySelf();
    EXPECT_TRUE(bDeleted);
}

TEST(CmEvent, KnowsItsThread_WhenConstructed) {
    struct CPlain : ICmEvent {
        CmResult OnEventFire() override { return CM_OK; }
        pthread_t creator() const { return m_CreatorTid; }
    };
    CPlain event;
    EXPECT_TRUE(pthread_equal(pthread_self(), event.creator()));
}

TEST(CmEventQueueBase, PostsNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueBase queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.PostEvent(nullptr, NORMAL));
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ(0u, sink.lines()[0].text.find("UTIL ERROR: source/util/CmEventQueueBase.cpp:"));
    EXPECT_NE(std::string::npos, sink.lines()[0].text.find(" Assert failed: aEvent"));
}

TEST(CmEventQueueBase, CountsWhatIsPosted_WhenNothingIsTaken) {
    EventLog log;
    CCmEventQueueBase queue;
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
    Post(queue, log, 1, 3);
    EXPECT_EQ(3u, queue.GetPendingEventsCount());
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ(Ids(), log.ended());
}

TEST(CmEventQueueBase, EndsTheEvent_WhenAStoppedQueueRefusesThePost) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    queue.SetStopped();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ(Ids{1}, log.ended());
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: CCmEventQueueBase::PostEvent, has been stopped. this=0x#",
              MaskAddresses(sink.lines()[0].text));
}

TEST(CmEventQueueBase, KeepsTheOrderOfPosting_WhateverThePriorities) {
    EventLog log;
    CCmEventQueueBase queue;
    queue.PostEvent(new LoggedEvent(log, 1), ICmEventQueue::EPRIORITY_LOW);
    queue.PostEvent(new LoggedEvent(log, 2), ICmEventQueue::EPRIORITY_NORMAL);
    queue.PostEvent(new LoggedEvent(log, 3), ICmEventQueue::EPRIORITY_HIGH);
    Events events;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events));
    EXPECT_EQ(CM_OK, queue.ProcessEvents(events));
    EXPECT_EQ((Ids{1, 2, 3}), log.fired());
    EXPECT_EQ((Ids{1, 2, 3}), log.ended());
}

TEST(CmEventQueueBase, StaysSilent_WhenThePostComesExactlyThreeSecondsLater) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 150);
    clock.Set(1003, 0);
    Post(queue, log, 151, 151);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEventQueueBase, GoesByTheExactTime_WhenTheCoarseClockLagsBehind) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 150);
    clock.SetCoarseLagUsec(10000);
    clock.Set(1003, 0);
    Post(queue, log, 151, 151);
    EXPECT_EQ(0u, sink.lines().size());
    clock.Set(1003, 1);
    Post(queue, log, 152, 152);
    EXPECT_EQ(1u, sink.count("m_dwSize=152 "));
}

TEST(CmEventQueueBase, ReportsALongQueueOnce_WhenMoreThanThreeSecondsHavePassed) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    clock.Set(1003, 1);
    Post(queue, log, 1, 1);  // looks, and finds the queue short
    EXPECT_EQ(0u, sink.lines().size());
    clock.Set(1006, 1);
    Post(queue, log, 2, 100);
    EXPECT_EQ(0u, sink.lines().size());
    clock.Set(1006, 2);
    Post(queue, log, 101, 150);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: CCmEventQueueBase::PostEvent, m_dwSize=101 m_Tid=0 this=0x#",
              MaskAddresses(sink.lines()[0].text));
}

TEST(CmEventQueueBase, CountsThreeSecondsFromTheLastLook_WhenThatFoundTheQueueShort) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    clock.Set(1003, 1);
    Post(queue, log, 1, 1);
    clock.Set(1006, 1);
    Post(queue, log, 2, 150);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEventQueueBase, ReportsAgain_WhenTheQueueIsStillLongThreeSecondsLater) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 149);
    clock.Set(1003, 1);
    Post(queue, log, 150, 151);
    clock.Set(1006, 1);
    Post(queue, log, 152, 152);
    EXPECT_EQ(1u, sink.count("m_dwSize="));
    clock.Set(1006, 2);
    Post(queue, log, 153, 153);
    EXPECT_EQ(2u, sink.count("m_dwSize="));
    EXPECT_EQ(1u, sink.count("m_dwSize=153 "));
}

TEST(CmEventQueueBase, NotReported_WhenAHundredEventsArePending) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 99);
    clock.Set(1010);
    Post(queue, log, 100, 100);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEventQueueBase, NamesTheConsumer_WhenItReportsALongQueue) {
    kelto_test::ScopedClock clock(1000);
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    queue.BindToCurrentThread();
    Post(queue, log, 1, 100);
    clock.Set(1010);
    Post(queue, log, 101, 101);
    EXPECT_EQ(
        1u, sink.count(" m_Tid=" + std::to_string(reinterpret_cast<unsigned long>(pthread_self())) +
                       " this="));
}

TEST(CmEventQueueBase, ReadsTheClockOnce_PerPost) {
    kelto_test::ScopedClock clock;
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    const unsigned long ulReads = clock.reads();
    Post(queue, log, 1, 1);
    EXPECT_EQ(ulReads + 1, clock.reads());
}

TEST(CmEventQueueBase, FindsNothing_WhenNothingIsPending) {
    CCmEventQueueBase queue;
    Events events;
    DWORD dwRemain = 77;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopPendingEvents(events, 5, &dwRemain));
    EXPECT_EQ(77u, dwRemain);
    ICmEvent* pEvent = nullptr;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOnePendingEvent(pEvent, &dwRemain));
    EXPECT_EQ(77u, dwRemain);
    EXPECT_EQ(nullptr, pEvent);
}

TEST(CmEventQueueBase, MovesTheOldest_WhenMoreArePendingThanAskedFor) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 7);
    Events events;
    DWORD dwRemain = 0;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 5, &dwRemain));
    EXPECT_EQ(2u, dwRemain);
    EXPECT_EQ(2u, queue.GetPendingEventsCount());
    queue.ProcessEvents(events);
    EXPECT_EQ(IdsUpTo(5), log.fired());
}

TEST(CmEventQueueBase, TakesTheWholeList_WhenNoMoreArePendingThanAskedFor) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 7);
    Events events;
    DWORD dwRemain = 77;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 7, &dwRemain));
    EXPECT_EQ(0u, dwRemain);
    EXPECT_EQ(7u, events.size());
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
    queue.ProcessEvents(events);
    EXPECT_EQ(IdsUpTo(7), log.fired());
}

TEST(CmEventQueueBase, MovesNothingAndSucceeds_WhenNoneIsAskedFor) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 2);
    Events events;
    DWORD dwRemain = 77;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 0, &dwRemain));
    EXPECT_EQ(2u, dwRemain);
    EXPECT_TRUE(events.empty());
}

TEST(CmEventQueueBase, AllocatesNothing_WhenEventsAreTaken) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 7);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    Events events;
    queue.PopPendingEvents(events, 5, nullptr);
    queue.PopPendingEvents(events, 5, nullptr);
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueBase, TakesTheHead_WhenOneIsAskedFor) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 2);
    ICmEvent* pEvent = nullptr;
    DWORD dwRemain = 77;
    EXPECT_EQ(CM_OK, queue.PopOnePendingEvent(pEvent, &dwRemain));
    EXPECT_EQ(1u, dwRemain);
    EXPECT_EQ(1u, queue.GetPendingEventsCount());
    EXPECT_EQ(CM_OK, queue.ProcessOneEvent(pEvent));
    EXPECT_EQ(CM_OK, queue.PopOnePendingEvent(pEvent, nullptr));
    EXPECT_EQ(CM_OK, queue.ProcessOneEvent(pEvent));
    EXPECT_EQ((Ids{1, 2}), log.fired());
}

TEST(CmEventQueueBase, ProcessesNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueBase queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.ProcessOneEvent(nullptr));
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmEventQueueBase, ProcessesTheOthers_WhenAnEventOfAListIsNull) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    const Events events{new LoggedEvent(log, 1), nullptr, new LoggedEvent(log, 2)};
    EXPECT_EQ(CM_OK, queue.ProcessEvents(events));
    EXPECT_EQ((Ids{1, 2}), log.fired());
    EXPECT_EQ((Ids{1, 2}), log.ended());
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmEventQueueBase, FiresThenEnds_WhenItProcessesAnEvent) {
    EventLog log;
    CCmEventQueueBase queue;
    bool bEndedEarly = true;
    EXPECT_EQ(CM_OK, queue.ProcessOneEvent(new LoggedEvent(log, 1, [&] {
        bEndedEarly = !log.ended().empty();
        return RESULT;  // ignored
    })));
    EXPECT_FALSE(bEndedEarly);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueBase, NotReported_WhenAnEventTakesExactlyFiftyMs) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    queue.ProcessOneEvent(new LoggedEvent(log, 1, [&] {
        clock.AdvanceUsec(50000);
        return CM_OK;
    }));
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEventQueueBase, ReportsASlowEvent_WhenItTakesOneMicrosecondMore) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 2, 4);
    ICmEvent* pEvent = new LoggedEvent(log, 1, [&] {
        clock.AdvanceUsec(50001);
        return CM_OK;
    });
    queue.ProcessOneEvent(pEvent);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ(
        "UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, report, sec=0 usec=50001 aEvent=0x# "
        "m_dwSize=3 this=0x#",
        MaskAddresses(sink.lines()[0].text));
}

TEST(CmEventQueueBase, CountsTheEnd_WhenItTimesAnEvent) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueBase queue;
    queue.ProcessOneEvent(new EndingEvent([&] { clock.AdvanceUsec(2000001); }));
    EXPECT_EQ(1u, sink.count("report, sec=2 usec=1 aEvent="));
}

TEST(CmEventQueueBase, TimesEachEventByItself_WhenItProcessesAList) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase queue;
    const long alUsec[] = {50000, 60000, 50000, 70000};
    Events events;
    for (long lUsec : alUsec) {
        events.push_back(new LoggedEvent(log, 0, [&clock, lUsec] {
            clock.AdvanceUsec(lUsec);
            return CM_OK;
        }));
    }
    EXPECT_EQ(CM_OK, queue.ProcessEvents(events));
    EXPECT_EQ(2u, sink.lines().size());
    EXPECT_EQ(1u, sink.count("usec=60000 "));
    EXPECT_EQ(1u, sink.count("usec=70000 "));
}

kelto_test::ScopedClock* g_pSlowSinkClock = nullptr;
int g_nSlowSinkLines = 0;
void SlowSink(unsigned long, const char*, unsigned int) {
    g_pSlowSinkClock->AdvanceUsec(100000);
    ++g_nSlowSinkLines;
}

TEST(CmEventQueueBase, NotReported_WhenOnlyTheLineBeforeWasSlow) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink saved;
    g_pSlowSinkClock = &clock;
    g_nSlowSinkLines = 0;
    set_util_external_trace_sink(SlowSink);
    EventLog log;
    CCmEventQueueBase queue;
    Events events;
    events.push_back(new LoggedEvent(log, 1, [&] {
        clock.AdvanceUsec(60000);
        return CM_OK;
    }));
    events.push_back(new LoggedEvent(log, 2));
    EXPECT_EQ(CM_OK, queue.ProcessEvents(events));
    EXPECT_EQ((Ids{1, 2}), log.ended());
    EXPECT_EQ(1, g_nSlowSinkLines);
}

TEST(CmEventQueueBase, ReadsTheClockAtMostTwice_PerEvent) {
    kelto_test::ScopedClock clock;
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 10);
    Events events;
    queue.PopPendingEvents(events);
    const unsigned long ulReads = clock.reads();
    queue.ProcessEvents(events);
    EXPECT_EQ(ulReads + 11, clock.reads());
}

TEST(CmEventQueueBase, ReportIntervalIsFiftyMs) {
    EXPECT_EQ(CCmTimeValue(0, 50000), CCmEventQueueBase::s_tvReportInterval);
}

TEST(CmEventQueueBase, EndsHeadFirstAndKeepsTheCount_WhenItDestroysWhatIsPending) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 3);
    queue.DestoryPendingEvents();
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ((Ids{1, 2, 3}), log.ended());
    EXPECT_EQ(3u, queue.GetPendingEventsCount());
}

TEST(CmEventQueueBase, PopsNothing_WhenTheListIsEmptyUnderACount) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 7);
    queue.DestoryPendingEvents();
    ICmEvent* pEvent = nullptr;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOnePendingEvent(pEvent, nullptr));
    Events events;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 5, nullptr));
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 7, nullptr));
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
}

TEST(CmEventQueueBase, TakesWhatIsThere_WhenTheCountIsTooHigh) {
    EventLog log;
    CCmEventQueueBase queue;
    Post(queue, log, 1, 7);
    queue.DestoryPendingEvents();
    Post(queue, log, 8, 9);
    EXPECT_EQ(9u, queue.GetPendingEventsCount());
    Events events;
    EXPECT_EQ(CM_OK, queue.PopPendingEvents(events, 5, nullptr));
    EXPECT_EQ(2u, events.size());
    queue.ProcessEvents(events);
    EXPECT_EQ((Ids{8, 9}), log.fired());
}

TEST(CmEventQueueBase, EndsWhatIsPending_WhenItIsDestroyed) {
    EventLog log;
    {
        CCmEventQueueBase queue;
        Post(queue, log, 1, 3);
    }
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ((Ids{1, 2, 3}), log.ended());
}

TEST(CmEventQueueBase, RefusesWhatAnEndingEventPosts_WhenItIsDestroyed) {
    EventLog log;
    {
        CCmEventQueueUsingConditionVariable queue;
        queue.PostEvent(
            new EndingEvent([&] {
                EXPECT_EQ(CM_ERROR_NOT_INITIALIZED,
                          queue.CCmEventQueueBase::PostEvent(new LoggedEvent(log, 1), NORMAL));
            }),
            NORMAL);
    }
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueBase, EndsTheEvent_WhenTheNodeCannotBeAllocated) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueBase base;
    CCmEventQueueUsingMutex polled;
    CCmEventQueueUsingConditionVariable waited;
    for (ICmEventQueue* pQueue :
         {static_cast<ICmEventQueue*>(&base), static_cast<ICmEventQueue*>(&polled),
          static_cast<ICmEventQueue*>(&waited)}) {
        ICmEvent* pEvent = new LoggedEvent(log, 1);
        kelto_test::ScopedAllocationFault fault(1);
        const CmResult rv = pQueue->PostEvent(pEvent, NORMAL);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, rv);
        EXPECT_EQ(0u, pQueue->GetPendingEventsCount());
    }
    EXPECT_EQ((Ids{1, 1, 1}), log.ended());
    EXPECT_EQ(Ids(), log.fired());
    EXPECT_EQ(0u, sink.lines().size());
}

CCmEventQueueBase* g_pQueueToStop = nullptr;
int StopThenLock(pthread_mutex_t* aMutex) {
    if (g_pQueueToStop != nullptr) {
        g_pQueueToStop->SetStopped();
    }
    return pthread_mutex_lock(aMutex);
}

TEST(CmEventQueueBase, EndsTheEvent_WhenItsConsumerEndsJustBeforeThePost) {
    EventLog log;
    CCmEventQueueUsingMutex polled;
    CCmEventQueueUsingConditionVariable waited;
    for (CCmEventQueueBase* pQueue :
         {static_cast<CCmEventQueueBase*>(&polled), static_cast<CCmEventQueueBase*>(&waited)}) {
        ICmEvent* pEvent = new LoggedEvent(log, 1);
        g_pQueueToStop = pQueue;
        {
            kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_lock)> entry(
                g_cmSystem.pthread_mutex_lock, &StopThenLock);
            EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->PostEvent(pEvent, NORMAL));
        }
        EXPECT_EQ(0u, pQueue->GetPendingEventsCount());
    }
    EXPECT_EQ((Ids{1, 1}), log.ended());
    EXPECT_EQ(Ids(), log.fired());
}

// Synchronous sends.

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

TEST(CmEventSend, PostsWithPriorityOne_ThereAndBack) {
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
        std::atomic<bool> bReturned{false};
        std::thread sender([&] {
            rv = queue.SendEvent(new LoggedEvent(log, 1));
            bReturned = true;
        });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        queue.DestoryPendingEvents();
        EXPECT_TRUE(Eventually([&] { return bReturned.load(); }));
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
    explicit LingeringQueue(const std::atomic<bool>& aReleased) : m_bReleased(aReleased) {}
    ~LingeringQueue() override { WaitForSenders(); }
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        const std::atomic<bool>& bReleased = m_bReleased;
        const CmResult rv = CCmEventQueueUsingMutex::PostEvent(aEvent, aPri);
        Eventually([&] { return bReleased.load(); });
        return rv;
    }

  private:
    const std::atomic<bool>& m_bReleased;
};

TEST(CmEventSend, KeepsTheQueue_WhileTheSenderIsStillPosting) {
    EventLog log;
    std::atomic<bool> bReleased{false};
    std::atomic<bool> bDeleted{false};
    LingeringQueue* pQueue = new LingeringQueue(bReleased);
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
    bReleased = true;
    sender.join();
    owner.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
    EXPECT_GE(naps.calls(), 1u);
}

// While it lives, whoever posts gets no further than the clock until it is released.
class HeldClock {
  public:
    HeldClock() { s_bReached = s_bReleased = false; }
    bool reached() const { return s_bReached; }
    void Release() { s_bReleased = true; }

  private:
    static int Read(timeval* aTv, void*) {
        s_bReached = true;
        Eventually([] { return s_bReleased.load(); });
        return gettimeofday(aTv, nullptr);
    }

    static inline std::atomic<bool> s_bReached;
    static inline std::atomic<bool> s_bReleased;
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
    ASSERT_TRUE(Eventually([&] { return clock.reached(); }));
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

int SpuriousWait(pthread_cond_t*, pthread_mutex_t* aMutex) {
    pthread_mutex_unlock(aMutex);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    pthread_mutex_lock(aMutex);
    return 0;
}

TEST(CmEventSend, GoesOnWaiting_WhenTheWaitEndsForNoReason) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> entry(
        g_cmSystem.pthread_cond_wait, &SpuriousWait);
    std::atomic<bool> bReturned{false};
    CmResult rv = CM_OK;
    std::thread sender([&] {
        rv = queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; }));
        bReturned = true;
    });
    ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(bReturned);
    Events events;
    queue.PopPendingEventsLocked(events);
    queue.ProcessEvents(events);
    sender.join();
    EXPECT_EQ(RESULT, rv);
}

std::atomic<int> g_nWaits{0};
int CountedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    ++g_nWaits;
    return pthread_cond_wait(aCondition, aMutex);
}
int CountedTimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex, const timespec* aTime) {
    ++g_nWaits;
    return pthread_cond_timedwait(aCondition, aMutex, aTime);
}
std::atomic<int> g_nSignals{0};
int CountedSignal(pthread_cond_t* aCondition) {
    ++g_nSignals;
    return pthread_cond_signal(aCondition);
}

// A wait that is counted is there: its mutex is held from before it was counted.
class WaitCounter {
  public:
    WaitCounter() { g_nWaits = g_nSignals = 0; }

  private:
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> m_wait{
        g_cmSystem.pthread_cond_wait, &CountedWait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> m_timedWait{
        g_cmSystem.pthread_cond_timedwait, &CountedTimedWait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> m_signal{
        g_cmSystem.pthread_cond_signal, &CountedSignal};
};

// Holds the thread that fires back once it has woken its sender.
class HeldAfterWake {
  public:
    HeldAfterWake() { s_bGo = false; }
    void Release() { s_bGo = true; }

  private:
    static int Signal(pthread_cond_t* aCondition) {
        const int rv = pthread_cond_signal(aCondition);
        Eventually([] { return s_bGo.load(); });
        return rv;
    }

    inline static std::atomic<bool> s_bGo{false};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> m_signal{
        g_cmSystem.pthread_cond_signal, &Signal};
};

// Says which thread ends it.
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
        EXPECT_GE(fault.calls(), 1u);
    }
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventSynchronous, YieldsNullPointer_WhenThereIsNoEvent) {
    CCmEventSynchronous* pWrapper = new CCmEventSynchronous(nullptr, nullptr);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pWrapper->OnEventFire());
    pWrapper->OnDestorySelf();
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pWrapper->WaitResultAndDeleteThis());
}

TEST(CmEventSynchronous, FiresNothing_OnItsSecondPass) {
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

// The queue with a mutex.

TEST(CmEventQueueUsingMutex, ReportsTheSizeBefore_WhenAskedFor) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    DWORD dwOldSize = 77;
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 1), NORMAL, &dwOldSize));
    EXPECT_EQ(0u, dwOldSize);
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 2), NORMAL, nullptr));
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 3), NORMAL, &dwOldSize));
    EXPECT_EQ(2u, dwOldSize);
    EXPECT_EQ(3u, queue.GetPendingEventsCount());
}

TEST(CmEventQueueUsingMutex, PostsNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.PostEvent(nullptr, NORMAL));
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmEventQueueUsingMutex, HoldsNoLock_WhenARefusedEventEnds) {
    CCmEventQueueUsingMutex queue;
    queue.SetStopped();
    CmResult rvInner = CM_OK;
    EventLog log;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new EndingEvent([&] {
                                                            rvInner = queue.PostEvent(
                                                                new LoggedEvent(log, 1), NORMAL);
                                                        }),
                                                        NORMAL));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rvInner);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueUsingMutex, HoldsNoLock_WhenPendingEventsEnd) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                    NORMAL);
    queue.DestoryPendingEvents();
    EXPECT_EQ(Ids(), log.ended());
    Events events;
    EXPECT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
    EXPECT_EQ(1u, events.size());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingMutex, PostsWithoutTheLock_WhenItCannotBeTaken) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueUsingMutex queue;
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
    EXPECT_EQ(1u, queue.GetPendingEventsCount());
    EXPECT_EQ(0u, sink.lines().size());  // nothing was unlocked that is not locked
}

// The queue with a condition.

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

std::atomic<bool> g_bFirstSignalHeld{false};
std::atomic<bool> g_bSignalMayGo{false};
int FirstSignalHeld(pthread_cond_t* aCondition) {
    if (!g_bFirstSignalHeld.exchange(true)) {
        Eventually([] { return g_bSignalMayGo.load(); });
    }
    return CountedSignal(aCondition);
}

TEST(CmEventQueueUsingConditionVariable, Signals_WhenAnEarlierPosterHasNotGotToItsSignal) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    g_bFirstSignalHeld = g_bSignalMayGo = false;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_signal)> signal(
        g_cmSystem.pthread_cond_signal, &FirstSignalHeld);
    std::atomic<bool> bTook{false};
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        queue.ProcessEvents(events);
        bTook = true;
    });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // let it wait
    std::thread preempted([&] { Post(queue, log, 1, 1); });
    EXPECT_TRUE(Eventually([] { return g_bFirstSignalHeld.load(); }));
    Post(queue, log, 2, 2);
    EXPECT_TRUE(Eventually([&] { return bTook.load(); }));
    EXPECT_FALSE(g_bSignalMayGo);
    EXPECT_EQ((Ids{1, 2}), log.fired());
    // And the late signal is not taken for one of the next wait.
    std::thread next([&] {
        Events events;
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr))) {
        }
        queue.ProcessEvents(events);
    });
    EXPECT_TRUE(Eventually([] { return g_nWaits == 2; }));
    g_bSignalMayGo = true;
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

thread_local int t_nLocksHeld = 0;
int CountedLock(pthread_mutex_t* aMutex) {
    ++t_nLocksHeld;
    return pthread_mutex_lock(aMutex);
}
int CountedUnlock(pthread_mutex_t* aMutex) {
    --t_nLocksHeld;
    return pthread_mutex_unlock(aMutex);
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

// The lines that come while a mutex is held are counted.
std::atomic<int> g_nLines{0};
std::atomic<int> g_nLinesUnderLock{0};
void LockCheckingSink(unsigned long, const char*, unsigned int) {
    ++g_nLines;
    g_nLinesUnderLock += t_nLocksHeld != 0 ? 1 : 0;
}

class LockedLines {
  public:
    LockedLines() : m_pfnPrevious(g_util_trace_sink.load()) {
        g_nLines = g_nLinesUnderLock = 0;
        t_nLocksHeld = 0;
        set_util_external_trace_sink(&LockCheckingSink);
    }
    ~LockedLines() { set_util_external_trace_sink(m_pfnPrevious); }
    LockedLines(const LockedLines&) = delete;
    LockedLines& operator=(const LockedLines&) = delete;

  private:
    const UtilTraceSink m_pfnPrevious;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_lock)> m_lock{
        g_cmSystem.pthread_mutex_lock, &CountedLock};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_unlock)> m_unlock{
        g_cmSystem.pthread_mutex_unlock, &CountedUnlock};
};

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
        EXPECT_GE(fault.calls(), 1u);
        EXPECT_EQ(1, g_nLines);
        EXPECT_EQ(0, g_nLinesUnderLock);
    }
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
        EXPECT_GE(fault.calls(), 1u);
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
    std::atomic<bool> bTook{false};
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        EXPECT_EQ(1u, events.size());
        queue.ProcessEvents(events);
        bTook = true;
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
        EXPECT_GE(fault.calls(), 1u);
    }
    consumer.join();
    EXPECT_TRUE(bTook);
}

TEST(CmEventQueueUsingConditionVariable, SignalsWithTheNextPost_WhenEverySignalFailed) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    WaitCounter counter;
    std::atomic<bool> bTook{false};
    std::thread consumer([&] {
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        EXPECT_EQ(2u, events.size());
        queue.ProcessEvents(events);
        bTook = true;
    });
    ASSERT_TRUE(Eventually([] { return g_nWaits == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
        EXPECT_GE(fault.calls(), 1u);
    }
    EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 2), NORMAL));
    consumer.join();
    EXPECT_TRUE(bTook);
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
