#include "CmTimerQueueBase.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "CmTimerQueueOrderedList.h"
#include "support/Clock.h"
#include "support/Faults.h"
#include "support/Timers.h"
#include "support/TraceSink.h"
#include "support/Watch.h"

namespace UTIL_NS {
namespace {

using kelto_test::CountingHandler;
using kelto_test::Firings;
using kelto_test::Ids;
using kelto_test::Ms;
using kelto_test::RecordingHandler;
using kelto_test::ScopedClock;
using kelto_test::ScopedEntry;
using kelto_test::ScopedTraceSink;

constexpr long START = 1000000000;  // seconds

class CmTimerQueueBase : public testing::Test {
  protected:
    ScopedClock m_clock{START};
    ScopedTraceSink m_sink;
    Firings m_log;
    RecordingHandler m_handler{1, m_log};
    RecordingHandler m_other{2, m_log};
    CCmTimerQueueOrderedList m_queue{nullptr};

    unsigned int CheckAfterMs(long aMs) {
        m_clock.AdvanceMs(aMs);
        return m_queue.CheckExpire();
    }
    void ExpectOneLine(const std::string& aText) {
        ASSERT_EQ(1U, m_sink.lines().size());
        EXPECT_EQ(0U, m_sink.lines()[0].level);
        EXPECT_EQ(aText, m_sink.lines()[0].text);
    }
};

TEST_F(CmTimerQueueBase, RefusesASchedule_WhenTheHandlerIsNull) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_queue.ScheduleTimer(nullptr, nullptr, Ms(10), 1));
    ExpectOneLine("UTIL ERROR: source/util/CmTimerQueueBase.cpp:78 Assert failed: aEh");
    EXPECT_EQ(CCmTimeValue::s_tvMax, m_queue.GetEarliestTime());
}

struct BadInterval {
    long sec;
    long usec;
    unsigned int count;
    const char* reason;
};

TEST_F(CmTimerQueueBase, RefusesASchedule_WhenTheIntervalCannotRepeat) {
    const BadInterval rows[] = {
        {0, 0, 0, "zero, without limit"},       {0, 0, 2, "zero, twice"},
        {-1, 0, 0, "negative, without limit"},  {0, -1, 2, "negative, twice"},
        {0, 0, 0xFFFFFFFF, "zero, many times"},
    };
    for (const BadInterval& row : rows) {
        SCOPED_TRACE(row.reason);
        m_sink.clear();
        EXPECT_EQ(
            CM_ERROR_INVALID_ARG,
            m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(row.sec, row.usec), row.count));
        ExpectOneLine(
            "UTIL ERROR: source/util/CmTimerQueueBase.cpp:79 Assert failed: "
            "aInterval > CCmTimeValue::s_tvZero || aCount == 1");
        EXPECT_EQ(CM_ERROR_NOT_FOUND, m_queue.CancelTimer(&m_handler));
    }
}

TEST_F(CmTimerQueueBase, KeepsThePendingTimer_WhenANewScheduleIsRefused) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0);
    EXPECT_EQ(CM_ERROR_INVALID_ARG,
              m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue::s_tvZero, 0));
    EXPECT_EQ(CCmTimeValue(START, 10000), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, FiresOnTheNextCheck_WhenTheIntervalIsZero) {
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue::s_tvZero, 1));
    EXPECT_EQ(1U, m_queue.CheckExpire());
    EXPECT_EQ(0U, m_queue.CheckExpire());
    EXPECT_EQ(std::vector<int>{1}, Ids(m_log));
    EXPECT_TRUE(m_sink.lines().empty());
}

TEST_F(CmTimerQueueBase, FiresOnceOnTheNextCheck_WhenTheIntervalIsNegative) {
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(-5), 1));
    EXPECT_EQ(CCmTimeValue(START - 5), m_queue.GetEarliestTime());
    EXPECT_EQ(1U, m_queue.CheckExpire());
    EXPECT_EQ(0U, m_queue.CheckExpire());
}

TEST_F(CmTimerQueueBase, ReplacesTheTimerAndSaysFound_WhenOneIsPending) {
    int nFirst = 0;
    int nSecond = 0;
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(&m_handler, &nFirst, Ms(10), 0));
    EXPECT_EQ(CM_ERROR_FOUND, m_queue.ScheduleTimer(&m_handler, &nSecond, Ms(30), 1));
    EXPECT_EQ(0U, CheckAfterMs(20));
    EXPECT_EQ(1U, CheckAfterMs(10));
    EXPECT_EQ(0U, CheckAfterMs(100));
    ASSERT_EQ(1U, m_log.size());
    EXPECT_EQ(&nSecond, m_log[0].token);
}

TEST_F(CmTimerQueueBase, SaturatesExpiry_WhenTheIntervalReachesBeyondTheLastSecond) {
    EXPECT_EQ(CM_OK, m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue::s_tvMax, 1));
    EXPECT_EQ(CCmTimeValue::s_tvMax, m_queue.GetEarliestTime());
    CCmTimeValue tvRemain;
    EXPECT_EQ(0U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue(INT64_MAX - START, 999999), tvRemain);
}

TEST_F(CmTimerQueueBase, ReadsTheClockOnce_WhenATimerIsScheduled) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(1U, m_clock.reads());
}

TEST_F(CmTimerQueueBase, NormalisesExpiry_WhenMicrosecondsMakeASecond) {
    m_clock.Set(START, 999999);
    m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(0, 1), 1);
    EXPECT_EQ(CCmTimeValue(START + 1, 0), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, RefusesACancel_WhenTheHandlerIsNull) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_queue.CancelTimer(nullptr));
    ExpectOneLine("UTIL ERROR: source/util/CmTimerQueueBase.cpp:121 Assert failed: aEh");
}

TEST_F(CmTimerQueueBase, CallsNoHandler_WhenItsTimerIsCancelled) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0);
    EXPECT_EQ(CM_OK, m_queue.CancelTimer(&m_handler));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_queue.CancelTimer(&m_handler));
    EXPECT_EQ(0U, CheckAfterMs(1000));
    EXPECT_TRUE(m_log.empty());
}

TEST_F(CmTimerQueueBase, HasNoNextExpiry_WhenEmpty) {
    CCmTimeValue tvRemain;
    EXPECT_EQ(0U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue::s_tvMax, tvRemain);
    EXPECT_EQ(CCmTimeValue::s_tvMax, m_queue.GetEarliestTime());
    EXPECT_EQ(0U, m_queue.CheckExpire(nullptr));
}

TEST_F(CmTimerQueueBase, HasNoNextExpiry_WhenTheLastTimerEnded) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    m_clock.AdvanceMs(10);
    CCmTimeValue tvRemain;
    EXPECT_EQ(1U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue::s_tvMax, tvRemain);
}

TEST_F(CmTimerQueueBase, StoresTheTimeToTheNextExpiry_WhenNothingIsDue) {
    m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(2, 100), 1);
    m_clock.AdvanceUsec(1000200);
    CCmTimeValue tvRemain;
    EXPECT_EQ(0U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue(0, 999900), tvRemain);
}

TEST_F(CmTimerQueueBase, FiresATimer_WhenItIsDueNow) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    m_clock.AdvanceUsec(9999);
    EXPECT_EQ(0U, m_queue.CheckExpire());
    m_clock.AdvanceUsec(1);
    EXPECT_EQ(1U, m_queue.CheckExpire());
}

TEST_F(CmTimerQueueBase, HandsOverStartOfPassAndToken_WhenATimerFires) {
    int nToken = 0;
    m_queue.ScheduleTimer(&m_handler, &nToken, Ms(10), 1);
    m_handler.SetAction([this] { m_clock.AdvanceMs(5); });
    m_queue.ScheduleTimer(&m_other, nullptr, Ms(11), 1);
    CheckAfterMs(25);
    ASSERT_EQ(2U, m_log.size());
    EXPECT_EQ(CCmTimeValue(START, 25000), m_log[0].now);
    EXPECT_EQ(&nToken, m_log[0].token);
    EXPECT_EQ(CCmTimeValue(START, 25000), m_log[1].now);
}

TEST_F(CmTimerQueueBase, ReadsTheClockOnce_WhenManyTimersFire) {
    std::vector<CountingHandler> handlers(20);
    for (CountingHandler& handler : handlers) {
        m_queue.ScheduleTimer(&handler, nullptr, Ms(10), 0);
    }
    m_clock.AdvanceMs(10);
    const unsigned long ulBefore = m_clock.reads();
    EXPECT_EQ(20U, m_queue.CheckExpire());
    EXPECT_EQ(ulBefore + 1, m_clock.reads());
}

TEST_F(CmTimerQueueBase, FiresAsOftenAsAsked_WhenTheCountIsLimited) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 3);
    unsigned int dwFired = 0;
    for (int i = 0; i < 10; ++i) {
        dwFired += CheckAfterMs(10);
    }
    EXPECT_EQ(3U, dwFired);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_queue.CancelTimer(&m_handler));
}

TEST_F(CmTimerQueueBase, GoesOn_WhenTheCountIsZero) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(1U, CheckAfterMs(10));
    }
    EXPECT_EQ(CM_OK, m_queue.CancelTimer(&m_handler));
}

TEST_F(CmTimerQueueBase, GoesOn_WhenTheCountIsTheLargest) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0xFFFFFFFF);
    EXPECT_EQ(1U, CheckAfterMs(10));
    EXPECT_EQ(1U, CheckAfterMs(10));
}

TEST_F(CmTimerQueueBase, FiresOnceAndKeepsThePhase_WhenSeveralPeriodsWereMissed) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(100), 0);
    EXPECT_EQ(1U, CheckAfterMs(350));
    EXPECT_EQ(CCmTimeValue(START, 400000), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, SkipsAPeriod_WhenItEndsNow) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(100), 0);
    EXPECT_EQ(1U, CheckAfterMs(300));
    EXPECT_EQ(CCmTimeValue(START, 400000), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, CountsOneFiring_WhenSeveralPeriodsWereMissed) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(100), 2);
    EXPECT_EQ(1U, CheckAfterMs(950));
    EXPECT_EQ(1U, CheckAfterMs(50));
    EXPECT_EQ(0U, CheckAfterMs(1000));
}

TEST_F(CmTimerQueueBase, KeepsThePhase_WhenFiftyYearsWereMissed) {
    m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(0, 7), 0);
    m_clock.Set(START + 1577836800, 0);
    EXPECT_EQ(1U, m_queue.CheckExpire());
    // 1577836800000000 is 7 * 225405257142857 + 1: the next multiple of 7 is 6 further on.
    EXPECT_EQ(CCmTimeValue(START + 1577836800, 6), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, KeepsThePhase_WhenTheIntervalIsNoWholeSecond) {
    m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(1, 999999), 0);
    m_clock.AdvanceUsec(1999999LL * 1000 + 1);
    EXPECT_EQ(1U, m_queue.CheckExpire());
    EXPECT_EQ(CCmTimeValue(START + 2001, 998999), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, KeepsThePhase_WhenTheTimeIsBeforeTheEpoch) {
    m_clock.Set(-100);
    m_queue.ScheduleTimer(&m_handler, nullptr, CCmTimeValue(7), 0);
    m_clock.Set(-50);
    EXPECT_EQ(1U, m_queue.CheckExpire());
    EXPECT_EQ(CCmTimeValue(-44), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, DelaysAndLosesNothing_WhenTheClockIsSetBack) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(100), 0);
    m_clock.Set(START - 3600);
    CCmTimeValue tvRemain;
    EXPECT_EQ(0U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue(3600, 100000), tvRemain);
    m_clock.Set(START, 100000);
    EXPECT_EQ(1U, m_queue.CheckExpire());
}

TEST_F(CmTimerQueueBase, EndsAPeriodicTimer_WhenItsHandlerCancelsIt) {
    CmResult rv = CM_ERROR_FAILURE;
    m_handler.SetAction([&] { rv = m_queue.CancelTimer(&m_handler); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0);
    EXPECT_EQ(1U, CheckAfterMs(10));
    EXPECT_EQ(CM_OK, rv);
    EXPECT_EQ(0U, CheckAfterMs(100));
}

TEST_F(CmTimerQueueBase, ReplacesAPeriodicTimer_WhenItsHandlerSchedulesIt) {
    CmResult rv = CM_ERROR_FAILURE;
    m_handler.SetAction([&] { rv = m_queue.ScheduleTimer(&m_handler, nullptr, Ms(50), 1); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 0);
    EXPECT_EQ(1U, CheckAfterMs(10));
    EXPECT_EQ(CM_ERROR_FOUND, rv);
    EXPECT_EQ(CCmTimeValue(START, 60000), m_queue.GetEarliestTime());
}

TEST_F(CmTimerQueueBase, FindsNoTimer_WhenItsHandlerCancelsItInItsLastFiring) {
    std::vector<CmResult> results;
    m_handler.SetAction([&] { results.push_back(m_queue.CancelTimer(&m_handler)); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 2);
    CheckAfterMs(10);
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    CheckAfterMs(10);
    EXPECT_EQ((std::vector<CmResult>{CM_OK, CM_ERROR_NOT_FOUND}), results);
}

TEST_F(CmTimerQueueBase, TakesATimer_WhenItsHandlerSchedulesItInItsLastFiring) {
    CmResult rv = CM_ERROR_FAILURE;
    m_handler.SetAction([&] { rv = m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(1U, CheckAfterMs(10));
    EXPECT_EQ(CM_OK, rv);
    EXPECT_EQ(1U, CheckAfterMs(10));
}

TEST_F(CmTimerQueueBase, FiresNoneOfThePass_WhenAHandlerCancelsThem) {
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(20), 0);
    m_queue.ScheduleTimer(&m_other, nullptr, Ms(10), 0);
    m_other.SetAction([&] {
        EXPECT_EQ(CM_OK, m_queue.CancelTimer(&m_handler));
        EXPECT_EQ(CM_OK, m_queue.CancelTimer(&m_other));
    });
    CCmTimeValue tvRemain;
    m_clock.AdvanceMs(30);
    EXPECT_EQ(1U, m_queue.CheckExpire(&tvRemain));
    EXPECT_EQ(CCmTimeValue::s_tvMax, tvRemain);
    EXPECT_EQ(std::vector<int>{2}, Ids(m_log));
}

TEST_F(CmTimerQueueBase, FiresInTheSamePass_WhenAHandlerAddsADueTimer) {
    m_handler.SetAction(
        [&] { m_queue.ScheduleTimer(&m_other, nullptr, CCmTimeValue::s_tvZero, 1); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(2U, CheckAfterMs(10));
    EXPECT_EQ((std::vector<int>{1, 2}), Ids(m_log));
}

TEST_F(CmTimerQueueBase, FiresInTheSamePass_WhenAHandlerPullsATimerForward) {
    m_queue.ScheduleTimer(&m_other, nullptr, CCmTimeValue(100), 1);
    m_handler.SetAction([&] {
        EXPECT_EQ(CM_ERROR_FOUND, m_queue.ScheduleTimer(&m_other, nullptr, CCmTimeValue(-1), 1));
    });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(2U, CheckAfterMs(10));
}

class CountingObserver : public ICmObserver {
  public:
    virtual ~CountingObserver() = default;
    int OnObserve(const char* aTopic, void* aData) override {
        m_topics.push_back(aTopic);
        EXPECT_EQ(nullptr, aData);
        return 0;
    }
    std::vector<std::string> m_topics;
};

TEST_F(CmTimerQueueBase, TellsTheObserver_WhenTheFirstTimerComes) {
    CountingObserver observer;
    CCmTimerQueueOrderedList queue(&observer);
    queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(std::vector<std::string>{"TimerQueue"}, observer.m_topics);
    queue.ScheduleTimer(&m_other, nullptr, Ms(10), 1);
    queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(1U, observer.m_topics.size());
}

TEST_F(CmTimerQueueBase, TellsTheObserverAgain_WhenTheQueueRanEmpty) {
    CountingObserver observer;
    CCmTimerQueueOrderedList queue(&observer);
    queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    queue.CancelTimer(&m_handler);
    queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    EXPECT_EQ(2U, observer.m_topics.size());
}

TEST_F(CmTimerQueueBase, TellsNoObserver_WhenTheTimerIsRefused) {
    CountingObserver observer;
    CCmTimerQueueOrderedList queue(&observer);
    queue.ScheduleTimer(&m_handler, nullptr, Ms(0), 0);
    EXPECT_TRUE(observer.m_topics.empty());
}

// A queue whose primitives return what the test says.
class ScriptedQueue : public CCmTimerQueueBase {
  public:
    explicit ScriptedQueue(ICmObserver* aObserver = nullptr) : CCmTimerQueueBase(aObserver) {}

    int m_nPush = 0;
    int m_nErase = 0;
    std::vector<CNode> m_nodes;
    bool m_bRepushed = false;

    void AddNode(ICmTimerHandler* aEh, const CCmTimeValue& aExpired, const CCmTimeValue& aInterval,
                 DWORD aCount) {
        CNode node;
        node.m_pEh = aEh;
        node.m_tvExpired = aExpired;
        node.m_tvInterval = aInterval;
        node.m_dwCount = aCount;
        m_nodes.push_back(node);
    }

  protected:
    int PushNode_l(const CNode& aNode) override {
        m_nodes.push_back(aNode);
        return m_nPush;
    }
    int EraseNode_l(ICmTimerHandler* /*aEh*/) override { return m_nErase; }
    int RePushNode_l(const CNode& aNode) override {
        m_bRepushed = true;
        m_nodes.push_back(aNode);
        return 0;
    }
    int PopFirstNode_l(CNode& aNode) override {
        aNode = m_nodes.front();
        m_nodes.erase(m_nodes.begin());
        return 0;
    }
    int GetEarliestTime_l(CCmTimeValue& aTime) const override {
        if (m_nodes.empty()) {
            return -1;
        }
        aTime = m_nodes.front().m_tvExpired;
        return 0;
    }
};

TEST_F(CmTimerQueueBase, ScheduleReturnsAResultCode_WhateverThePrimitiveReturns) {
    ScriptedQueue queue;
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1));
    queue.m_nPush = 1;
    EXPECT_EQ(CM_ERROR_FOUND, queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1));
    queue.m_nPush = -1;
    EXPECT_EQ(CM_ERROR_FAILURE, queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1));
    queue.m_nPush = 2;
    EXPECT_EQ(CM_ERROR_FAILURE, queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1));
}

TEST_F(CmTimerQueueBase, TellsTheObserver_WhenThePrimitiveFailed) {
    CountingObserver observer;
    ScriptedQueue queue(&observer);
    queue.m_nPush = -1;
    EXPECT_EQ(CM_ERROR_FAILURE, queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1));
    EXPECT_EQ(std::vector<std::string>{"TimerQueue"}, observer.m_topics);
}

TEST_F(CmTimerQueueBase, CancelReturnsAResultCode_WhateverThePrimitiveReturns) {
    ScriptedQueue queue;
    EXPECT_EQ(CM_OK, queue.CancelTimer(&m_handler));
    queue.m_nErase = 1;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.CancelTimer(&m_handler));
    queue.m_nErase = -1;
    EXPECT_EQ(CM_ERROR_FAILURE, queue.CancelTimer(&m_handler));
}

TEST_F(CmTimerQueueBase, FillsTheNode_WhenATimerIsScheduled) {
    ScriptedQueue queue;
    int nToken = 0;
    queue.ScheduleTimer(&m_handler, &nToken, Ms(1500), 0);
    queue.ScheduleTimer(&m_handler, &nToken, Ms(1500), 7);
    EXPECT_EQ(&m_handler, queue.m_nodes[0].m_pEh);
    EXPECT_EQ(&nToken, queue.m_nodes[0].m_pToken);
    EXPECT_EQ(CCmTimeValue(START + 1, 500000), queue.m_nodes[0].m_tvExpired);
    EXPECT_EQ(CCmTimeValue(1, 500000), queue.m_nodes[0].m_tvInterval);
    EXPECT_EQ(0xFFFFFFFFU, queue.m_nodes[0].m_dwCount);
    EXPECT_EQ(7U, queue.m_nodes[1].m_dwCount);
}

TEST_F(CmTimerQueueBase, RearmsNoTimer_WhenItHasNoInterval) {
    ScriptedQueue queue;
    queue.AddNode(&m_handler, CCmTimeValue(START), CCmTimeValue::s_tvZero, 5);
    queue.AddNode(&m_handler, CCmTimeValue(START), CCmTimeValue(-1), 0xFFFFFFFF);
    EXPECT_EQ(2U, queue.CheckExpire());
    EXPECT_FALSE(queue.m_bRepushed);
}

TEST_F(CmTimerQueueBase, SaturatesExpiry_WhenTheIntervalIsTheLongest) {
    ScriptedQueue queue;
    queue.AddNode(&m_handler, CCmTimeValue(START), CCmTimeValue::s_tvMax, 2);
    EXPECT_EQ(1U, queue.CheckExpire());
    EXPECT_EQ(CCmTimeValue::s_tvMax, queue.m_nodes[0].m_tvExpired);
    EXPECT_EQ(1U, queue.m_nodes[0].m_dwCount);
}

int LastSecond(timeval* aTime, void* /*aZone*/) {
    aTime->tv_sec = std::numeric_limits<long>::max();
    aTime->tv_usec = 0;
    return 0;
}

TEST_F(CmTimerQueueBase, SaturatesExpiry_WhenTheNextPeriodEndsBeyondTheLastSecond) {
    ScriptedQueue queue;
    queue.AddNode(&m_handler, CCmTimeValue(START), CCmTimeValue(1000), 2);
    ScopedEntry<decltype(g_cmClock.gettimeofday)> entry(g_cmClock.gettimeofday, &LastSecond);
    EXPECT_EQ(1U, queue.CheckExpire());
    EXPECT_EQ(CCmTimeValue::s_tvMax, queue.m_nodes[0].m_tvExpired);
}

TEST_F(CmTimerQueueBase, RearmsATimer_WhenItWasDueAgesAgo) {
    ScriptedQueue queue;
    queue.AddNode(&m_handler, CCmTimeValue(-INT64_MAX), CCmTimeValue(0, 1), 0xFFFFFFFF);
    EXPECT_EQ(1U, queue.CheckExpire());
    EXPECT_EQ(CCmTimeValue(START, 1), queue.m_nodes[0].m_tvExpired);
}

TEST_F(CmTimerQueueBase, RearmsAsByRepeatedAddition_WhateverWasMissed) {
    const long intervals[] = {1, 3, 999, 999999, 1000000, 1000001, 2500000, 86400000000};
    for (const long lInterval : intervals) {
        for (const long lPast : {0L, 1L, lInterval - 1, lInterval, lInterval + 1, 17 * lInterval,
                                 1000 * lInterval - 1, 1000 * lInterval + 1}) {
            ScriptedQueue queue;
            const CCmTimeValue tvInterval(0, lInterval);
            const CCmTimeValue tvExpired = CCmTimeValue(START) - CCmTimeValue(0, lPast);
            queue.AddNode(&m_handler, tvExpired, tvInterval, 0xFFFFFFFF);
            CCmTimeValue tvExpected = tvExpired;
            do {
                tvExpected += tvInterval;
            } while (tvExpected <= CCmTimeValue(START));
            ASSERT_EQ(1U, queue.CheckExpire());
            ASSERT_EQ(tvExpected, queue.m_nodes[0].m_tvExpired) << lInterval << ' ' << lPast;
        }
    }
}

TEST_F(CmTimerQueueBase, SaysHowLateAndForHowLong_WhenAHandlerRanForLongWithTheWatchOn) {
    const kelto_test::ScopedWatch watch;
    m_handler.SetAction([this] { m_clock.AdvanceMs(60); });
    m_queue.ScheduleTimer(&m_handler, nullptr, Ms(10), 1);
    m_queue.ScheduleTimer(&m_other, nullptr, Ms(12), 1);
    EXPECT_EQ(2U, CheckAfterMs(14));
    EXPECT_EQ(1U, m_sink.count("CCmTimerQueueBase::CheckExpire, watch, class="));
    EXPECT_EQ(1U, m_sink.count("RecordingHandler lateUsec=4000 ranUsec=60000 this="));
}

}  // namespace
}  // namespace UTIL_NS
