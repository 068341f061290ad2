#include "CmEventQueueBase.h"

#include <gtest/gtest.h>

#include <string>

#include "support/Clock.h"
#include "support/EventQueues.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::IdsUpTo;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;
using kelto_test::Post;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
// What an event returns in these tests, when its result matters.
constexpr CmResult RESULT = 4711;

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
        uint64_t reserved() const { return m_ullReserved; }
    };
    CPlain event;
    EXPECT_TRUE(pthread_equal(pthread_self(), event.creator()));
    EXPECT_EQ(0u, event.reserved());
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

TEST(CmEventQueueBase, ReadsTheClockOncePerPost) {
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

TEST(CmEventQueueBase, ReadsTheClockAtMostTwicePerEvent) {
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
    CCmEventQueueUsingConditionVariable withSpareNodes;
    for (int i = 0; i < 2; ++i) {  // the second pass makes those of the first spare
        withSpareNodes.PostEvent(new EndingEvent([] {}), NORMAL);
        Events events;
        EXPECT_EQ(CM_OK, withSpareNodes.PopOrWaitPendingEvents(events, nullptr));
        withSpareNodes.ProcessAndRecycleEvents(events);
    }
    for (CCmEventQueueBase* pQueue :
         std::initializer_list<CCmEventQueueBase*>{&polled, &waited, &withSpareNodes}) {
        ICmEvent* pEvent = new LoggedEvent(log, 1);
        g_pQueueToStop = pQueue;
        {
            kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_mutex_lock)> entry(
                g_cmSystem.pthread_mutex_lock, &StopThenLock);
            EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pQueue->PostEvent(pEvent, NORMAL));
        }
        EXPECT_EQ(0u, pQueue->GetPendingEventsCount());
    }
    EXPECT_EQ((Ids{1, 1, 1}), log.ended());
    EXPECT_EQ(Ids(), log.fired());
}

}  // namespace
}  // namespace UTIL_NS
