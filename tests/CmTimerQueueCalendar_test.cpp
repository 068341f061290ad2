#include "CmTimerQueueCalendar.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "CmThread.h"
#include "CmTimerCancel.h"
#include "support/Clock.h"
#include "support/Faults.h"
#include "support/RandomBytes.h"
#include "support/TimerModels.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::CountingHandler;
using kelto_test::Failing;
using kelto_test::Firings;
using kelto_test::Ids;
using kelto_test::Ms;
using kelto_test::RecordingHandler;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedClock;
using kelto_test::ScopedTraceSink;

constexpr long START = 1000000000;  // seconds

// Keeps what is posted until the test runs it.
class FakeEventQueue : public ICmEventQueue {
  public:
    FakeEventQueue() { m_events.reserve(16); }  // before a test counts what is allocated
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        m_priorities.push_back(aPri);
        if (CM_FAILED(m_rvNext)) {
            aEvent->OnDestorySelf();
            return m_rvNext;
        }
        m_events.push_back(aEvent);
        return CM_OK;
    }
    CmResult SendEvent(ICmEvent* /*aEvent*/) override { return CM_ERROR_NOT_IMPLEMENTED; }
    DWORD GetPendingEventsCount() override { return static_cast<DWORD>(m_events.size()); }

    void RunAll() {
        while (!m_events.empty()) {
            ICmEvent* pEvent = m_events.front();
            m_events.erase(m_events.begin());
            EXPECT_EQ(CM_OK, pEvent->OnEventFire());
            pEvent->OnDestorySelf();
        }
    }

    CmResult m_rvNext = CM_OK;
    std::vector<ICmEvent*> m_events;
    std::vector<EPriority> m_priorities;
};

// A wheel of 11 slots of 10 ms.
class CmTimerQueueCalendar : public testing::Test {
  protected:
    CmTimerQueueCalendar() {
        for (int nId = 0; nId < 5; ++nId) {
            m_handlers.push_back(std::make_unique<RecordingHandler>(nId, m_log));
        }
    }
    RecordingHandler* Handler(int aId) { return m_handlers[static_cast<size_t>(aId)].get(); }
    CmResult Schedule(int aId, long aMs, unsigned int aCount = 1) {
        return m_queue.ScheduleTimer(Handler(aId), nullptr, Ms(aMs), aCount);
    }
    CmResult Cancel(int aId) { return m_queue.CancelTimer(Handler(aId)); }
    void Tick(int aTimes = 1) {
        for (int i = 0; i < aTimes; ++i) {
            m_queue.TimerTick();
        }
    }
    // The tick, counted from 1, that fires something; 0 when none of aMost does.
    int TicksToFiring(int aMost = 30) {
        const size_t nBefore = m_log.size();
        for (int nTick = 1; nTick <= aMost; ++nTick) {
            m_queue.TimerTick();
            if (m_log.size() > nBefore) {
                return nTick;
            }
        }
        return 0;
    }

    ScopedClock m_clock{START};
    ScopedTraceSink m_sink;
    Firings m_log;
    std::vector<std::unique_ptr<RecordingHandler>> m_handlers;
    FakeEventQueue m_events;
    CCmTimerQueueCalendar m_queue{10, 110, &m_events};
};

struct Wheel {
    unsigned int slotInterval;
    unsigned int maxTime;
    const char* distanceOfAMillionSeconds;  // tells the slot interval
    const char* maxSlotNumber;
    const char* reason;
};

TEST_F(CmTimerQueueCalendar, SizesTheWheelByIntervalAndSpan) {
    const Wheel rows[] = {
        {5, 30, "100000000", "10", "both raised"},
        {9, 60000, "100000000", "5999", "interval raised to 10"},
        {10, 60000, "100000000", "5999", "as asked"},
        {11, 60000, "90909091", "5453", "not a multiple"},
        {10, 110, "100000000", "10", "the smallest wheel, exactly"},
        {10, 120, "100000000", "11", "one slot more"},
        {10, 9, "100000000", "10", "span below one slot"},
        {100, 100, "10000000", "10", "span of one slot"},
        {0, 0, "100000000", "10", "nothing asked"},
    };
    for (const Wheel& row : rows) {
        SCOPED_TRACE(row.reason);
        m_sink.clear();
        CCmTimerQueueCalendar queue(row.slotInterval, row.maxTime, &m_events);
        EXPECT_EQ(CM_OK, queue.ScheduleTimer(Handler(0), nullptr, CCmTimeValue(1000000), 1));
        ASSERT_EQ(1U, m_sink.lines().size());
        EXPECT_EQ(0U, m_sink.lines()[0].level);
        EXPECT_EQ(
            std::string("UTIL ERROR: CCmTimerQueueCalendar::InsertUnique_i, exceed max interval. "
                        "interval_s=1000000 interval_us=0 dwDistance=") +
                row.distanceOfAMillionSeconds + " m_dwMaxSlotNumber=" + row.maxSlotNumber +
                " this=0x#",
            kelto_test::MaskAddresses(m_sink.lines()[0].text));
    }
}

TEST_F(CmTimerQueueCalendar, RefusesASchedule_WhenTheHandlerIsNull) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_queue.ScheduleTimer(nullptr, nullptr, Ms(10), 1));
    ASSERT_EQ(1U, m_sink.lines().size());
    EXPECT_EQ(0U, m_sink.lines()[0].level);
    EXPECT_EQ("UTIL ERROR: source/util/CmTimerQueueCalendar.cpp:78 Assert failed: aEh",
              m_sink.lines()[0].text);
}

TEST_F(CmTimerQueueCalendar, RefusesACancel_WhenTheHandlerIsNull) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_queue.CancelTimer(nullptr));
    ASSERT_EQ(1U, m_sink.lines().size());
    EXPECT_EQ("UTIL ERROR: source/util/CmTimerQueueCalendar.cpp:157 Assert failed: aEh",
              m_sink.lines()[0].text);
}

struct DistanceRow {
    CCmTimeValue interval;
    int tick;  // the slot that the next tick fires is 0 slots away
    const char* reason;
};

TEST_F(CmTimerQueueCalendar, RoundsUpToSlots_WhateverTheInterval) {
    const DistanceRow rows[] = {
        {CCmTimeValue(0, 1000), 2, "1 ms: distance 1"},
        {CCmTimeValue(0, 10000), 2, "10 ms: distance 1"},
        {CCmTimeValue(0, 10999), 2, "microseconds are cut"},
        {CCmTimeValue(0, 11000), 3, "11 ms: distance 2"},
        {CCmTimeValue(0, 90000), 10, "the longest that fits"},
        {CCmTimeValue(0, 999), 1, "below 1 ms: the current slot"},
        {CCmTimeValue(4294967, 296000), 1, "2^32 ms count as none"},
        {CCmTimeValue(4294967, 316000), 3, "2^32 + 20 ms count as 20"},
    };
    for (const DistanceRow& row : rows) {
        SCOPED_TRACE(row.reason);
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        CountingHandler handler;
        EXPECT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, row.interval, 1));
        int nTick = 0;
        while (handler.count() == 0 && nTick < 30) {
            queue.TimerTick();
            ++nTick;
        }
        EXPECT_EQ(row.tick, nTick);
    }
    EXPECT_TRUE(m_sink.lines().empty());
}

struct ClampRow {
    CCmTimeValue interval;
    const char* fields;
    const char* reason;
};

TEST_F(CmTimerQueueCalendar, TracesAndShortens_WhenTheIntervalIsBeyondTheWheel) {
    const ClampRow rows[] = {
        {CCmTimeValue(0, 90001), nullptr, "90 ms and a microsecond fit"},
        {CCmTimeValue(0, 91000), "interval_s=0 interval_us=91000 dwDistance=10", "91 ms"},
        {CCmTimeValue(3, 500000), "interval_s=3 interval_us=500000 dwDistance=350", "seconds"},
        {CCmTimeValue(0, -1000), "interval_s=0 interval_us=-1000 dwDistance=429496730",
         "-1 ms: 2^32 - 1"},
        {CCmTimeValue(-1, -500000), "interval_s=-1 interval_us=-500000 dwDistance=429496580",
         "-1500 ms: 2^32 - 1500"},
        {CCmTimeValue::s_tvMax,
         "interval_s=9223372036854775807 interval_us=999999 "
         "dwDistance=429496730",
         "2^32 - 1000 + 999 ms"},
    };
    for (const ClampRow& row : rows) {
        SCOPED_TRACE(row.reason);
        m_sink.clear();
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        EXPECT_EQ(CM_OK, queue.ScheduleTimer(Handler(0), nullptr, row.interval, 1));
        if (row.fields == nullptr) {
            EXPECT_TRUE(m_sink.lines().empty());
            continue;
        }
        ASSERT_EQ(1U, m_sink.lines().size());
        EXPECT_EQ("UTIL ERROR: CCmTimerQueueCalendar::InsertUnique_i, exceed max interval. " +
                      std::string(row.fields) + " m_dwMaxSlotNumber=10 this=0x#",
                  kelto_test::MaskAddresses(m_sink.lines()[0].text));
    }
}

TEST_F(CmTimerQueueCalendar, ShortensToTheLastSlot_WhenTheWheelStandsAtZero) {
    Schedule(0, 5000);
    EXPECT_EQ(11, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, ShortensToTheNextTick_WhenTheWheelStandsElsewhere) {
    Tick(3);
    Schedule(0, 5000);
    EXPECT_EQ(1, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, LandsOneSlotFurther_WhenItWraps) {
    Tick(5);
    Schedule(0, 60);  // slot 1: ticks of slots 5 to 10, 0 and 1
    EXPECT_EQ(8, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, DoesNotWrap_WhenItEndsAtTheLastSlot) {
    Tick(5);
    Schedule(0, 50);  // slot 10
    EXPECT_EQ(6, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, GoesRound_WhenTheLastSlotWasFired) {
    Tick(10);
    Schedule(0, 10);  // from slot 10 to slot 1, by way of slot 0
    EXPECT_EQ(3, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, HandsOverTimeAndToken_WhenATimerFires) {
    int nToken = 0;
    m_queue.ScheduleTimer(Handler(0), &nToken, Ms(10), 1);
    m_clock.AdvanceUsec(1234567);
    Tick(2);
    ASSERT_EQ(1U, m_log.size());
    EXPECT_EQ(CCmTimeValue(START + 1, 234567), m_log[0].now);
    EXPECT_EQ(&nToken, m_log[0].token);
}

TEST_F(CmTimerQueueCalendar, ReadsTheClockOnce_WhenASlotFires) {
    Schedule(0, 10);
    Schedule(1, 10);
    Handler(1)->SetAction([this] { m_clock.AdvanceMs(7); });
    Tick(2);
    ASSERT_EQ(2U, m_log.size());
    EXPECT_EQ(m_log[0].now, m_log[1].now);
    EXPECT_EQ(1U, m_clock.reads());
}

TEST_F(CmTimerQueueCalendar, FiresNewestFirst_WhenTimersShareASlot) {
    Schedule(0, 10);
    Schedule(1, 10);
    Schedule(2, 10);
    Tick(2);
    EXPECT_EQ((std::vector<int>{2, 1, 0}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, CountsTicksAlone_WhenTheClockIsSet) {
    Schedule(0, 50);
    m_clock.Set(START + 1000000);
    Tick(5);
    EXPECT_TRUE(m_log.empty());
    m_clock.Set(START - 1000000);
    Tick();
    EXPECT_EQ(1U, m_log.size());
}

TEST_F(CmTimerQueueCalendar, FiresAsOftenAsAsked_WhenTheCountIsLimited) {
    Schedule(0, 10, 2);
    Tick(20);
    EXPECT_EQ(2U, m_log.size());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    EXPECT_EQ(CM_OK, Schedule(0, 10));
}

TEST_F(CmTimerQueueCalendar, RearmsFromTheTickThatFired_WhenThePeriodRepeats) {
    Schedule(0, 30, 0);
    EXPECT_EQ(4, TicksToFiring());
    EXPECT_EQ(3, TicksToFiring());
    EXPECT_EQ(3, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, FiresAgainInTheSameTick_WhenTheDistanceIsZero) {
    m_queue.ScheduleTimer(Handler(0), nullptr, CCmTimeValue(0, 500), 4);
    Tick();
    EXPECT_EQ(4U, m_log.size());
}

TEST_F(CmTimerQueueCalendar, FiresAgainInTheSameTick_WhenShortenedOffSlotZero) {
    Tick(1);
    Schedule(0, 5000, 3);
    Tick();
    EXPECT_EQ(3U, m_log.size());
    EXPECT_EQ(3U, m_sink.lines().size());  // one per insertion: scheduled, re-armed twice
}

TEST_F(CmTimerQueueCalendar, ScheduleSucceeds_WhateverIntervalAndCount) {
    EXPECT_EQ(CM_OK, Schedule(0, 0, 0));
    EXPECT_EQ(CM_OK, Schedule(1, -10, 0));
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(1, -10, 1));
}

TEST_F(CmTimerQueueCalendar, ReplacesTheTimerAndSaysFound_WhenOneIsPending) {
    int nToken = 0;
    EXPECT_EQ(CM_OK, Schedule(0, 10, 0));
    EXPECT_EQ(CM_ERROR_FOUND, m_queue.ScheduleTimer(Handler(0), &nToken, Ms(40), 1));
    EXPECT_EQ(5, TicksToFiring());
    EXPECT_EQ(0, TicksToFiring());
    EXPECT_EQ(&nToken, m_log[0].token);
}

TEST_F(CmTimerQueueCalendar, KeepsTheOthersOfTheSlot_WhenOneIsRescheduled) {
    Schedule(0, 10);
    Schedule(1, 10);
    Schedule(2, 10);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(1, 20));
    Tick(3);
    EXPECT_EQ((std::vector<int>{2, 0, 1}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, CallsNoHandler_WhenItsTimerIsCancelled) {
    Schedule(0, 10, 0);
    EXPECT_EQ(CM_OK, Cancel(0));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    EXPECT_EQ(0, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, FiresOnceThroughTheEventQueue_WhenTheIntervalIsZero) {
    int nToken = 0;
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(Handler(0), &nToken, Ms(0), 5));
    EXPECT_EQ(1U, m_events.m_events.size());
    EXPECT_EQ(std::vector<ICmEventQueue::EPriority>{static_cast<ICmEventQueue::EPriority>(1)},
              m_events.m_priorities);
    Tick(20);
    EXPECT_TRUE(m_log.empty());
    m_clock.AdvanceMs(3);
    m_events.RunAll();
    ASSERT_EQ(1U, m_log.size());
    EXPECT_EQ(CCmTimeValue(START, 3000), m_log[0].now);
    EXPECT_EQ(&nToken, m_log[0].token);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
}

TEST_F(CmTimerQueueCalendar, PostsOneEventAndFiresNewestFirst_WhenSeveralIntervalsAreZero) {
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(CM_OK, Schedule(1, 0));
    EXPECT_EQ(1U, m_events.m_events.size());
    m_events.RunAll();
    EXPECT_EQ((std::vector<int>{1, 0}), Ids(m_log));
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(1U, m_events.m_events.size());
}

TEST_F(CmTimerQueueCalendar, ReadsTheClockOnce_WhenItsEventFires) {
    Schedule(0, 0);
    Schedule(1, 0);
    m_events.RunAll();
    EXPECT_EQ(1U, m_clock.reads());
}

TEST_F(CmTimerQueueCalendar, ReplacesTheZeroTimerAndSaysOk_WhenItIsScheduledAgain) {
    int nToken = 0;
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(Handler(0), &nToken, Ms(0), 1));
    m_events.RunAll();
    ASSERT_EQ(1U, m_log.size());
    EXPECT_EQ(&nToken, m_log[0].token);
}

TEST_F(CmTimerQueueCalendar, ReplacesTheZeroTimerAndSaysOk_WhenItGetsAnInterval) {
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(CM_OK, Schedule(0, 10));
    m_events.RunAll();
    EXPECT_TRUE(m_log.empty());
    EXPECT_EQ(2, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, DropsTheZeroTimerAndSaysNotFound_WhenItIsCancelled) {
    Schedule(0, 0);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    m_events.RunAll();
    EXPECT_TRUE(m_log.empty());
}

TEST_F(CmTimerQueueCalendar, EndsTheZeroTimer_WhenTheEventIsRefused) {
    m_events.m_rvNext = CM_ERROR_NOT_INITIALIZED;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, Schedule(0, 0));
    m_events.m_rvNext = CM_OK;
    EXPECT_EQ(CM_OK, Schedule(1, 0));
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{1}, Ids(m_log));
}

// Runs what it is given at once and then refuses it.
class HastyEventQueue : public FakeEventQueue {
  public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) override {
        aEvent->OnEventFire();
        return CM_ERROR_FAILURE;
    }
};

TEST_F(CmTimerQueueCalendar, EndsNoOtherTimer_WhenTheRefusedEventRanAllTheSame) {
    HastyEventQueue events;
    CCmTimerQueueCalendar queue(10, 110, &events);
    EXPECT_EQ(CM_ERROR_FAILURE, queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1));
    EXPECT_EQ(std::vector<int>{0}, Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, EndsTheWheelTimerBefore_WhenTheEventIsRefused) {
    Schedule(0, 10, 0);
    m_events.m_rvNext = CM_ERROR_NOT_INITIALIZED;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, Schedule(0, 0));
    EXPECT_EQ(0, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, RefusesAZeroInterval_WhenThereIsNoEventQueue) {
    CCmTimerQueueCalendar queue(10, 110, nullptr);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1));
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(Handler(0), nullptr, Ms(10), 1));
}

TEST_F(CmTimerQueueCalendar, SaysOkForAWheelTimerSetToZero_WhenItPostsTheEvent) {
    Schedule(0, 10);
    EXPECT_EQ(CM_OK, Schedule(0, 0));
}

TEST_F(CmTimerQueueCalendar, SaysFoundForAWheelTimerSetToZero_WhenTheEventIsPending) {
    Schedule(0, 10);
    Schedule(1, 0);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 0));
    EXPECT_EQ(1U, m_events.m_events.size());
}

TEST_F(CmTimerQueueCalendar, CancelMissesTheTimer_WhenAWheelTimerWasSetToZero) {
    Schedule(0, 10);
    Schedule(0, 0);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{0}, Ids(m_log));
    EXPECT_EQ(0, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, ZeroTimersAddUp_WhenAWheelTimerWasSetToZero) {
    Schedule(0, 10);
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    m_events.RunAll();
    EXPECT_EQ((std::vector<int>{0, 0}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, FiresBoth_WhenAWheelTimerWasSetToZeroAndBack) {
    Schedule(0, 10);
    EXPECT_EQ(CM_OK, Schedule(0, 0));
    EXPECT_EQ(CM_OK, Schedule(0, 10));
    m_events.RunAll();
    Tick(2);
    EXPECT_EQ((std::vector<int>{0, 0}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, DropsTheNewestZeroTimer_WhenThereAreSeveral) {
    int nTokens[2];
    Schedule(0, 10);
    m_queue.ScheduleTimer(Handler(0), &nTokens[0], Ms(0), 1);
    m_queue.ScheduleTimer(Handler(0), &nTokens[1], Ms(0), 1);
    // A wheel timer again, whose cancelling removes the entry.
    Schedule(0, 10);
    EXPECT_EQ(CM_OK, Cancel(0));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    m_events.RunAll();
    ASSERT_EQ(1U, m_log.size());
    EXPECT_EQ(&nTokens[0], m_log[0].token);
}

// What is cancelled for good also loses the zero timer that CancelTimer does not find.
TEST_F(CmTimerQueueCalendar, CancelLeavesTheZeroTimer_AfterOneWasCancelledForGood) {
    CancelForGood(m_queue, Handler(0));
    Schedule(0, 10);
    Schedule(0, 0);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{0}, Ids(m_log));
}

// A queue of the host's, in whose CancelTimer another timer ends for good.
TEST_F(CmTimerQueueCalendar, CancelsForGood_WhenAnotherTimerIsCancelledMeanwhile) {
    class HostQueue : public ICmTimerQueue {
      public:
        HostQueue(CCmTimerQueueCalendar& aQueue, ICmTimerHandler* aOther)
            : m_queue(aQueue), m_pOther(aOther) {}
        virtual ~HostQueue() = default;
        CmResult ScheduleTimer(ICmTimerHandler*, void*, const CCmTimeValue&,
                               unsigned int) override {
            return CM_ERROR_NOT_IMPLEMENTED;
        }
        CmResult CancelTimer(ICmTimerHandler* aEh) override {
            CancelForGood(m_queue, m_pOther);
            return m_queue.CancelTimer(aEh);
        }

      private:
        CCmTimerQueueCalendar& m_queue;
        ICmTimerHandler* const m_pOther;
    } queue(m_queue, Handler(1));
    for (int nId : {0, 1, 2}) {
        Schedule(nId, 10);
        Schedule(nId, 0);
    }
    EXPECT_EQ(CM_ERROR_NOT_FOUND, CancelForGood(queue, Handler(0)));
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{2}, Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, TouchesNoOneElsesTimer_WhenAnEntryIsLeftOver) {
    Schedule(0, 10);
    Schedule(0, 0);
    m_events.RunAll();
    Schedule(1, 10);  // in the slot that the stale entry names, in the recycled node
    EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
    EXPECT_EQ(2, TicksToFiring());
    EXPECT_EQ((std::vector<int>{0, 1}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, EndsAPeriodicTimer_WhenItsHandlerCancelsIt) {
    CmResult rv = CM_ERROR_FAILURE;
    Handler(0)->SetAction([&] { rv = Cancel(0); });
    Schedule(0, 10, 0);
    EXPECT_EQ(2, TicksToFiring());
    EXPECT_EQ(CM_OK, rv);
    EXPECT_EQ(0, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, FindsNoTimer_WhenItsHandlerCancelsItInItsLastFiring) {
    CmResult rv = CM_OK;
    Handler(0)->SetAction([&] { rv = Cancel(0); });
    Schedule(0, 10, 1);
    Tick(2);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, rv);
}

TEST_F(CmTimerQueueCalendar, ReplacesATimer_WhenItsHandlerSchedulesIt) {
    std::vector<CmResult> results;
    Handler(0)->SetAction([&] { results.push_back(Schedule(0, 20, 1)); });
    Schedule(0, 10, 0);
    EXPECT_EQ(2, TicksToFiring());
    EXPECT_EQ(2, TicksToFiring());
    EXPECT_EQ((std::vector<CmResult>{CM_ERROR_FOUND, CM_OK}), results);
}

TEST_F(CmTimerQueueCalendar, FiresNoneOfTheSlot_WhenAHandlerCancelsThem) {
    Schedule(0, 10, 0);
    Schedule(1, 10, 0);
    Schedule(2, 10, 0);
    Handler(2)->SetAction([this] {
        EXPECT_EQ(CM_OK, Cancel(0));
        EXPECT_EQ(CM_OK, Cancel(1));
        EXPECT_EQ(CM_OK, Cancel(2));
    });
    EXPECT_EQ(2, TicksToFiring());
    EXPECT_EQ(0, TicksToFiring());
    EXPECT_EQ(std::vector<int>{2}, Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, FiresInTheSamePass_WhenAHandlerAddsAZeroTimer) {
    Handler(0)->SetAction([this] {
        if (m_log.size() < 3) {
            EXPECT_EQ(CM_OK, Schedule(1, 0));
            EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0));
        }
    });
    Schedule(0, 0);
    ICmEvent* pEvent = m_events.m_events.front();
    m_events.m_events.erase(m_events.m_events.begin());
    EXPECT_EQ(CM_OK, pEvent->OnEventFire());
    EXPECT_EQ((std::vector<int>{0, 1}), Ids(m_log));
    // The event posted meanwhile finds nothing left.
    EXPECT_EQ(1U, m_events.m_events.size());
    m_events.RunAll();
    EXPECT_EQ(2U, m_log.size());
}

TEST_F(CmTimerQueueCalendar, DoesNotFire_WhenAHandlerOfThePassCancelsIt) {
    Schedule(0, 0);
    Schedule(1, 0);
    Handler(1)->SetAction([this] { EXPECT_EQ(CM_ERROR_NOT_FOUND, Cancel(0)); });
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{1}, Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, LivesOn_WhenItsEventEnds) {
    static_cast<ICmEvent&>(m_queue).OnDestorySelf();
    EXPECT_EQ(CM_OK, Schedule(0, 10));
    EXPECT_EQ(2, TicksToFiring());
}

TEST_F(CmTimerQueueCalendar, FreesATimer_WhateverItsSlot) {
    for (int nTicks = 0; nTicks < 11; ++nTicks) {
        for (long lUsec = 500; lUsec < 100000; lUsec += 10000) {
            const long lLive = kelto_test::LiveAllocations();
            {
                CCmTimerQueueCalendar queue(10, 110, &m_events);
                for (int i = 0; i < nTicks; ++i) {
                    queue.TimerTick();
                }
                queue.ScheduleTimer(Handler(0), nullptr, CCmTimeValue(0, lUsec), 1);
            }
            EXPECT_EQ(lLive, kelto_test::LiveAllocations()) << nTicks << " " << lUsec;
        }
    }
}

TEST_F(CmTimerQueueCalendar, FreesATimer_WhenItWaitsForItsEvent) {
    m_events.m_priorities.reserve(1);
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1);
        m_events.m_events.clear();
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_F(CmTimerQueueCalendar, FreesATimer_WhenItIsCancelledForGood) {
    m_events.m_priorities.reserve(1);
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1);
        EXPECT_EQ(CM_ERROR_NOT_FOUND, CancelForGood(queue, Handler(0)));
        m_events.RunAll();
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    EXPECT_TRUE(m_log.empty());
}

TEST_F(CmTimerQueueCalendar, FreesATimer_WhenItHasFired) {
    m_events.m_priorities.reserve(1);
    m_log.reserve(2);
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1);
        m_events.RunAll();
        queue.ScheduleTimer(Handler(1), nullptr, Ms(10), 1);
        queue.TimerTick();
        queue.TimerTick();
        EXPECT_EQ(2u, m_log.size());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_F(CmTimerQueueCalendar, FreesWhatItHas_WhenAScheduleRanOutOfMemory) {
    const long lLive = kelto_test::LiveAllocations();
    bool bHit = true;
    for (unsigned long ulNth = 1; bHit; ++ulNth) {
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        ScopedAllocationFault fault(ulNth);
        const CmResult rv = queue.ScheduleTimer(Handler(0), nullptr, Ms(10), 1);
        bHit = fault.hit();
        EXPECT_EQ(bHit ? CM_ERROR_OUT_OF_MEMORY : CM_OK, rv) << ulNth;
        EXPECT_TRUE(bHit || ulNth > 1);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_F(CmTimerQueueCalendar, DropsTimersSilently_WhenItEnds) {
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueCalendar queue(10, 110, &m_events);
        queue.ScheduleTimer(Handler(0), nullptr, Ms(10), 1);
        queue.ScheduleTimer(Handler(1), nullptr, Ms(90), 0);
        queue.ScheduleTimer(Handler(2), nullptr, Ms(0), 1);
        queue.ScheduleTimer(Handler(3), nullptr, Ms(5000), 0);
        queue.CancelTimer(Handler(0));
        m_events.m_events.clear();
    }
    m_events.m_priorities.clear();
    m_events.m_priorities.shrink_to_fit();
    m_sink.clear();
    EXPECT_TRUE(m_log.empty());
    EXPECT_GE(lLive + 1, kelto_test::LiveAllocations());  // the sink's vector may keep its memory
}

TEST_F(CmTimerQueueCalendar, TakesTheThreadsEventQueue_WhenItIsGivenNone) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    pThread->OnThreadInit();
    {
        CCmTimerQueueCalendar queue(10, 110, nullptr);
        EXPECT_EQ(CM_OK, queue.ScheduleTimer(Handler(0), nullptr, Ms(0), 1));
        EXPECT_EQ(1U, pThread->GetEventQueue()->GetPendingEventsCount());
        EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
        EXPECT_EQ(std::vector<int>{0}, Ids(m_log));
    }
    pThread->Destory(CM_OK);
}

TEST_F(CmTimerQueueCalendar, RefusesTimers_WhenTheWheelGotNoMemory) {
    std::unique_ptr<CCmTimerQueueCalendar> pQueue;
    void* pMemory = ::operator new(sizeof(CCmTimerQueueCalendar));
    {
        ScopedAllocationFault fault(1);
        pQueue.reset(new (pMemory) CCmTimerQueueCalendar(10, 110, &m_events));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, pQueue->ScheduleTimer(Handler(0), nullptr, Ms(10), 1));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, pQueue->ScheduleTimer(Handler(0), nullptr, Ms(0), 1));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, pQueue->CancelTimer(Handler(0)));
    pQueue->TimerTick();
    EXPECT_EQ(CM_OK, pQueue->OnEventFire());
}

TEST_F(CmTimerQueueCalendar, ChangesNothing_WhenAScheduleRunsOutOfMemory) {
    // Wherever it runs out, and however many timers there are: some numbers make a table grow.
    for (size_t nOthers = 0; nOthers <= 20; ++nOthers) {
        bool bHit = true;
        for (unsigned long ulNth = 1; bHit; ++ulNth) {
            SCOPED_TRACE(std::to_string(nOthers) + " others, allocation " + std::to_string(ulNth));
            std::vector<CountingHandler> others(nOthers);
            CountingHandler handler;
            CCmTimerQueueCalendar queue(10, 110, &m_events);
            for (CountingHandler& other : others) {
                queue.ScheduleTimer(&other, nullptr, Ms(10), 1);
            }
            CmResult rv;
            {
                ScopedAllocationFault fault(ulNth, Failing::FROM_THERE_ON);
                rv = queue.ScheduleTimer(&handler, nullptr, Ms(10), 1);
                bHit = fault.hit();
            }
            ASSERT_EQ(bHit ? CM_ERROR_OUT_OF_MEMORY : CM_OK, rv);
            ASSERT_EQ(bHit ? CM_ERROR_NOT_FOUND : CM_OK, queue.CancelTimer(&handler));
            ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, Ms(10), 1));
            queue.TimerTick();
            queue.TimerTick();
            EXPECT_EQ(1U, handler.count());
            for (const CountingHandler& other : others) {
                ASSERT_EQ(1U, other.count());
            }
        }
    }
}

TEST_F(CmTimerQueueCalendar, KeepsTheZeroTimer_WhenItsRescheduleRunsOutOfMemory) {
    Schedule(0, 0);
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, Schedule(0, 10));
    }
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, Schedule(0, 0));
    }
    m_events.RunAll();
    EXPECT_EQ(std::vector<int>{0}, Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, NeedsNoMemory_WhenATimerIsRescheduled) {
    Schedule(0, 10);
    ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 30));
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 70));
    EXPECT_FALSE(fault.hit());
}

TEST_F(CmTimerQueueCalendar, NeedsNoMemory_WhenTheHandlerOfAZeroTimerSchedulesIt) {
    m_events.m_priorities.reserve(2);
    Handler(0)->SetAction([this] {
        if (m_log.size() == 1) {
            ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
            EXPECT_EQ(CM_OK, Schedule(0, 0));
            EXPECT_FALSE(fault.hit());
        }
    });
    Schedule(0, 0);
    m_events.RunAll();
    EXPECT_EQ((std::vector<int>{0, 0}), Ids(m_log));
}

TEST_F(CmTimerQueueCalendar, NeedsNoMemory_WhenInSteadyState) {
    std::vector<CountingHandler> handlers(50);
    for (CountingHandler& handler : handlers) {
        m_queue.ScheduleTimer(&handler, nullptr, Ms(20), 0);
    }
    Schedule(0, 50);
    Cancel(0);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    for (int i = 0; i < 100; ++i) {
        Tick();
        ASSERT_EQ(CM_OK, Schedule(0, 50));
        ASSERT_EQ(CM_OK, Cancel(0));
    }
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    EXPECT_LE(40U, handlers[0].count());
}

// Memory of its own that the queue has, in allocations, after each of the ways in which timers
// end and start.
TEST_F(CmTimerQueueCalendar, HoldsNoMoreMemory_AfterManyTimers) {
    CountingHandler periodic;
    CountingHandler once;
    CountingHandler cancelled;
    CountingHandler zero;
    m_queue.ScheduleTimer(&periodic, nullptr, Ms(10), 0);
    const auto turn = [&] {
        m_queue.ScheduleTimer(&once, nullptr, Ms(10), 1);
        m_queue.ScheduleTimer(&cancelled, nullptr, Ms(50), 1);
        m_queue.ScheduleTimer(&zero, nullptr, CCmTimeValue(), 1);
        m_events.RunAll();
        Tick(3);
        m_queue.CancelTimer(&cancelled);
    };
    turn();
    m_events.m_priorities.reserve(10001);
    const long lHeld = kelto_test::LiveAllocations();
    for (int i = 0; i < 10000; ++i) {
        turn();
    }
    EXPECT_EQ(lHeld, kelto_test::LiveAllocations());
    EXPECT_EQ(10001U, zero.count());
    EXPECT_LE(10001U, once.count());
    EXPECT_LE(20000U, periodic.count());
    EXPECT_EQ(0U, cancelled.count());
}

TEST(CmTimerQueueCalendarModel, BehavesLikeTheModel_WhateverTheOperations) {
    ScopedTraceSink sink;
    int nClamped = 0;
    for (unsigned int dwSeed = 1; dwSeed <= 3000; ++dwSeed) {
        const std::vector<uint8_t> bytes = kelto_test::RandomBytes(800, dwSeed);
        ASSERT_EQ("", kelto_test::RunCalendarModel(bytes.data(), bytes.size(), nClamped)) << dwSeed;
    }
    EXPECT_LT(1000, nClamped);
    EXPECT_EQ(static_cast<size_t>(nClamped), sink.lines().size());
}

}  // namespace
}  // namespace UTIL_NS
