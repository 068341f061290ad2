// The wall clock is set back and forth, from a year back to fifty years ahead: no timer is lost,
// nothing stalls, waits keep their length.
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <thread>
#include <vector>

#include "CmConditionVariable.h"
#include "CmEventQueueBase.h"
#include "CmTimerQueueOrderedList.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::CountingHandler;
using kelto_test::FailingCall;
using kelto_test::ScopedClock;
using kelto_test::ScopedEntry;

constexpr long START = 1700000000;       // seconds
constexpr long YEAR = 365L * 24 * 3600;  // seconds
constexpr long STEPS[] = {-YEAR, -3600, -1, 1, 3600, YEAR, 50 * YEAR};

typedef std::chrono::steady_clock Steady;

class ClockSteps : public testing::TestWithParam<long> {};

// A stall is time spent working or waiting: what lies within its life takes less than 10 ms of its
// thread's processor time, however busy the machine is, and asks for no wait at all.
class NoStall {
  public:
    NoStall() : m_start(ProcessorTime()) {}
    ~NoStall() {
        EXPECT_GT(std::chrono::milliseconds(10), ProcessorTime() - m_start);
        EXPECT_EQ(0U, m_sleeps.calls() + m_waits.calls() + m_timedWaits.calls());
    }
    NoStall(const NoStall&) = delete;
    NoStall& operator=(const NoStall&) = delete;

  private:
    static constexpr unsigned long NEVER = 1000000;

    static std::chrono::nanoseconds ProcessorTime() {
        timespec tsTime = {};
        EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &tsTime));
        return std::chrono::seconds(tsTime.tv_sec) + std::chrono::nanoseconds(tsTime.tv_nsec);
    }

    // Only counted.
    const FailingCall<&CCmSystemTable::nanosleep> m_sleeps{EINVAL, -1, NEVER};
    const FailingCall<&CCmSystemTable::pthread_cond_wait> m_waits{0, EINVAL, NEVER};
    const FailingCall<&CCmSystemTable::pthread_cond_timedwait> m_timedWaits{0, EINVAL, NEVER};
    const std::chrono::nanoseconds m_start;
};

TEST_P(ClockSteps, FiresEachDueTimerOnceAndLosesNone_WhenTheClockIsStepped) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    std::vector<CountingHandler> handlers(100);
    for (CountingHandler& handler : handlers) {
        ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1000), 0));
    }
    clock.Set(START + GetParam());
    const unsigned int dwDue = GetParam() > 0 ? 100 : 0;
    {
        const NoStall watch;
        EXPECT_EQ(dwDue, queue.CheckExpire());
    }
    // The step has passed; every timer goes on with its period.
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 1);
    EXPECT_EQ(100U, queue.CheckExpire());
    for (CountingHandler& handler : handlers) {
        EXPECT_EQ(dwDue / 100 + 1, handler.count());
        EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
    }
}

TEST_P(ClockSteps, CheckExpireGoesOn_AfterTheStepWasTakenBack) {
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

// The shortest period there is: fifty years of it, 1.6e15 of them, are one firing all the same.
TEST_P(ClockSteps, DoesNotCountMissedPeriods_WhenTheClockIsStepped) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    CountingHandler handler;
    ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1), 0));
    clock.Set(START + GetParam());
    const unsigned long ulReads = clock.reads();
    {
        const NoStall watch;
        queue.CheckExpire();
    }
    EXPECT_GE(4U, clock.reads() - ulReads);
    EXPECT_EQ(GetParam() > 0 ? 1U : 0U, handler.count());
    EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
}

TEST_P(ClockSteps, WaitKeepsItsLength_WhenTheClockIsStepped) {
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
    stepper.join();
}

// The system's own clock; how far the waits asked for lie ahead of it, in microseconds.
long g_lSystemSec = 0;
std::vector<long long> g_waitsUsec;

int SystemTimeOfDay(timeval* aTv, void* /*aZone*/) {
    *aTv = {g_lSystemSec, 0};
    return 0;
}

int TimeOutAtOnce(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/,
                  const timespec* aDeadline) {
    g_waitsUsec.push_back((aDeadline->tv_sec - g_lSystemSec) * 1000000LL +
                          aDeadline->tv_nsec / 1000);
    return ETIMEDOUT;
}

TEST_P(ClockSteps, AsksOnceAndForTheWholeWait_WhenTheClockIsStepped) {
    const ScopedEntry<decltype(g_cmSystem.gettimeofday)> now(g_cmSystem.gettimeofday,
                                                             &SystemTimeOfDay);
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> wait(
        g_cmSystem.pthread_cond_timedwait, &TimeOutAtOnce);
    g_waitsUsec.clear();
    CCmEventThread event(0, 0);
    for (const long lSec : {START, START + GetParam(), START}) {
        g_lSystemSec = lSec;
        CCmTimeValue tvTimeout(0, 40000);
        EXPECT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvTimeout));
    }
    EXPECT_EQ(std::vector<long long>(3, 40000), g_waitsUsec);
}

// More than 100 pending events are reported once more than 3 s passed since the last look.
TEST_P(ClockSteps, SizeWatchReportsAgain_AfterTheStep) {
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
    {
        const NoStall watch;
        post(10);
    }
    EXPECT_EQ(GetParam() > 3 ? 1U : 0U, sink.lines().size());
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 4);
    post(1);
    EXPECT_EQ(GetParam() > 3 ? 2U : 1U, sink.lines().size());
}

INSTANTIATE_TEST_SUITE_P(Steps, ClockSteps, testing::ValuesIn(STEPS));

}  // namespace
}  // namespace UTIL_NS
