// The wall clock is set back and forth, from a year back to fifty years ahead: no timer is lost,
// nothing stalls, waits keep their length.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "CmConditionVariable.h"
#include "CmEventQueueBase.h"
#include "CmTimerQueueOrderedList.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::CountingHandler;
using kelto_test::ScopedClock;

constexpr long START = 1700000000;       // seconds
constexpr long YEAR = 365L * 24 * 3600;  // seconds
constexpr long STEPS[] = {-YEAR, -3600, -1, 1, 3600, YEAR, 50 * YEAR};

typedef std::chrono::steady_clock Steady;

class ClockSteps : public testing::TestWithParam<long> {};

// Far above what any of this takes, far below what counting missed periods one by one would.
void ExpectNoStall(Steady::time_point aStart) {
    EXPECT_GT(std::chrono::seconds(2), Steady::now() - aStart);
}

TEST_P(ClockSteps, CheckExpire_FiresEachDueTimerOnceAndLosesNone) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    std::vector<CountingHandler> handlers(100);
    for (CountingHandler& handler : handlers) {
        ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1000), 0));
    }
    clock.Set(START + GetParam());
    const auto start = Steady::now();
    const unsigned int dwDue = GetParam() > 0 ? 100 : 0;
    EXPECT_EQ(dwDue, queue.CheckExpire());
    ExpectNoStall(start);
    // The step has passed; every timer goes on with its period.
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 1);
    EXPECT_EQ(100U, queue.CheckExpire());
    for (CountingHandler& handler : handlers) {
        EXPECT_EQ(dwDue / 100 + 1, handler.count());
        EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
    }
}

TEST_P(ClockSteps, CheckExpire_GoesOnAfterTheStepWasTakenBack) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    CountingHandler handler;
    ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(1), 0));
    clock.Set(START + GetParam());
    queue.CheckExpire();
    const unsigned long ulBefore = handler.count();
    clock.Set(START);
    CCmTimeValue tvRemain;
    queue.CheckExpire(&tvRemain);
    clock.Set(START + tvRemain.GetSec(), tvRemain.GetUsec());
    EXPECT_EQ(1U, queue.CheckExpire()) << "it fires when it said it would";
    EXPECT_EQ(ulBefore + 1, handler.count());
}

TEST_P(ClockSteps, Wait_KeepsItsLength) {
    ScopedClock clock(START);
    CCmEventThread event(0, 0);
    std::thread stepper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        clock.Set(START + GetParam());
    });
    CCmTimeValue tvTimeout(0, 40000);
    const auto start = Steady::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvTimeout));
    EXPECT_LE(std::chrono::milliseconds(39), Steady::now() - start);
    ExpectNoStall(start);
    stepper.join();
}

// More than 100 pending events are reported once more than 3 s passed since the last look.
TEST_P(ClockSteps, SizeWatch_ReportsAgainAfterTheStep) {
    ScopedClock clock(START);
    kelto_test::ScopedTraceSink sink;
    kelto_test::EventLog log;
    CCmEventQueueUsingMutex queue;
    const auto post = [&](int aCount) {
        for (int i = 0; i < aCount; ++i) {
            ASSERT_EQ(CM_OK, queue.PostEvent(new kelto_test::LoggedEvent(log),
                                             ICmEventQueue::EPRIORITY_NORMAL));
        }
    };
    post(102);
    EXPECT_EQ(0U, sink.lines().size()) << "no time has passed";
    clock.Set(START + GetParam());
    const auto start = Steady::now();
    post(10);
    ExpectNoStall(start);
    EXPECT_EQ(GetParam() > 3 ? 1U : 0U, sink.lines().size());
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 4);
    post(1);
    EXPECT_EQ(GetParam() > 3 ? 2U : 1U, sink.lines().size());
}

INSTANTIATE_TEST_SUITE_P(Steps, ClockSteps, testing::ValuesIn(STEPS));

}  // namespace
}  // namespace UTIL_NS
