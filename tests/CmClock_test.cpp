#include "CmClock.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "support/Clock.h"
#include "support/Faults.h"
#include "support/SignalStorm.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;

// Makes local time the given zone's while it lives.
class ScopedZone {
  public:
    explicit ScopedZone(const char* aZone) : m_sSaved(getenv("TZ") != nullptr ? getenv("TZ") : "") {
        setenv("TZ", aZone, 1);
        tzset();
    }
    ~ScopedZone() {
        if (m_sSaved.empty()) {
            unsetenv("TZ");
        } else {
            setenv("TZ", m_sSaved.c_str(), 1);
        }
        tzset();
    }

  private:
    const std::string m_sSaved;
};

// The singleton with a tick rate of the test's; created afresh before and after.
class ScopedTickRate {
  public:
    explicit ScopedTickRate(long aTicksPerSec) {
        CCmCleanUpBase::CleanupAll();
        FailingCall<&CCmSystemTable::sysconf> fault(EINVAL, aTicksPerSec);
        CCmSingletonT<PretInitialationTimer>::Instance();
    }
    ~ScopedTickRate() { CCmCleanUpBase::CleanupAll(); }
};

void ExpectTick(uint32_t aHours, uint32_t aMinutes, uint32_t aSeconds, uint32_t aMs, uint32_t aUs,
                const tick_type& aTick) {
    EXPECT_EQ(aHours, aTick.hours);
    EXPECT_EQ(aMinutes, aTick.minutes);
    EXPECT_EQ(aSeconds, aTick.seconds);
    EXPECT_EQ(aMs, aTick.milliseconds);
    EXPECT_EQ(aUs, aTick.microseconds);
}

TEST(CmClock, MsPerTickIsAThousandByTheTickRate) {
    CCmCleanUpBase::CleanupAll();
    ASSERT_EQ(100, sysconf(_SC_CLK_TCK));
    EXPECT_EQ(10u, CCmSingletonT<PretInitialationTimer>::Instance()->GetMsPerTick());
}

TEST(CmClock, MsPerTickIsRoundedDown) {
    const struct {
        long lTicksPerSec;
        uint32_t dwMsPerTick;
    } rows[] = {{1, 1000}, {60, 16}, {1000, 1}, {1001, 0}, {1000000, 0}, {0, 0}, {-1, 0}};
    for (const auto& row : rows) {
        ScopedTickRate rate(row.lTicksPerSec);
        EXPECT_EQ(row.dwMsPerTick, CCmSingletonT<PretInitialationTimer>::Instance()->GetMsPerTick())
            << row.lTicksPerSec;
    }
}

TEST(CmClock, TickCountIsWallClockMillisecondsTruncated) {
    kelto_test::ScopedClock clock(1234567890, 987999);
    EXPECT_EQ(1234567890987u, get_tick_count());
}

// The system counts the microseconds of a second up, also before 1970.
TEST(CmClock, TickCountIsThatOfTheSystemsParts_Before1970) {
    kelto_test::ScopedClock clock(-2, 500999);
    timeval tvParts = {};
    g_cmClock.gettimeofday(&tvParts, nullptr);
    EXPECT_EQ(-2, tvParts.tv_sec);
    EXPECT_EQ(500999, tvParts.tv_usec);
    EXPECT_EQ(-1500, static_cast<long>(get_tick_count()));
    EXPECT_EQ(-1499001, timer_policy::now());
    clock.Set(-3, 0);
    EXPECT_EQ(-3000, static_cast<long>(get_tick_count()));
    clock.AdvanceUsec(-1);
    EXPECT_EQ(-3001, static_cast<long>(get_tick_count()));
    EXPECT_EQ(-3000001, timer_policy::now());
}

TEST(CmClock, TickIntervalIsRight_WhenTheCountWraps) {
    EXPECT_EQ(0x20u, calculate_tick_interval(0xFFFFFFFFFFFFFFF0, 0x10));
    EXPECT_EQ(50u, calculate_tick_interval(100, 150));
    EXPECT_EQ(0u, calculate_tick_interval(7, 7));
}

TEST(CmClock, TimerPolicyIsWallClockMicroseconds) {
    kelto_test::ScopedClock clock(1234567890, 987654);
    EXPECT_EQ(1234567890987654, timer_policy::now());
}

TEST(CmClock, MaxTimeValueIsTheLargestNumber) {
    EXPECT_EQ(0x7FFFFFFFFFFFFFFF, timer_policy::max_time_value());
    EXPECT_EQ(0x7FFFFFFFFFFFFFFF, tick_policy::max_time_value());
    EXPECT_EQ(0x7FFFFFFFFFFFFFFF, low_tick_policy::max_time_value());
}

TEST(CmClock, TickPolicyIsTheProcessClockInMicroseconds) {
    CCmCleanUpBase::CleanupAll();
    kelto_test::ScopedClock clock;
    clock.SetTicks(1234567);
    EXPECT_EQ(12345670000, tick_policy::now());
}

TEST(CmClock, TickPolicyReadsZero_WhenTicksAreTooShort) {
    ScopedTickRate rate(1001);
    kelto_test::ScopedClock clock;
    clock.SetTicks(1234567);
    EXPECT_EQ(0, tick_policy::now());
}

TEST(CmClock, TickPolicyReadsZero_WithoutMemoryForTheSingleton) {
    CCmCleanUpBase::CleanupAll();
    kelto_test::ScopedTraceSink sink;
    kelto_test::ScopedAllocationFault fault(1);
    EXPECT_EQ(0, tick_policy::now());
    EXPECT_TRUE(fault.hit());
}

TEST(CmClock, TickTypeSplitsACount) {
    ExpectTick(1, 2, 3, 4, 5, tick_type(3723004005));
}

TEST(CmClock, TickTypeDoesNotReduceHours) {
    ExpectTick(25, 0, 0, 0, 0, tick_type(90000000000));
}

TEST(CmClock, TickTypeReachesTheEndOfEveryField) {
    ExpectTick(0, 59, 59, 999, 999, tick_type(3599999999));
    ExpectTick(0, 0, 0, 0, 0, tick_type(0LL));
}

TEST(CmClock, TickTypeDividesTowardZero_WhenTheCountIsNegative) {
    ExpectTick(0, 0, 0, 0, 0xFFFFFFFF, tick_type(-1));
    ExpectTick(0, 0, 0xFFFFFFFF, 0xFFFFFE0C, 0, tick_type(-1500000));
}

TEST(CmClock, TickTypeResetSplitsAnew) {
    tick_type tick(3723004005);
    tick.reset(1000);
    ExpectTick(0, 0, 0, 1, 0, tick);
}

TEST(CmClock, TickTypeDefaultIsNow) {
    CCmCleanUpBase::CleanupAll();
    kelto_test::ScopedClock clock;
    clock.SetTicks(6001);
    ExpectTick(0, 1, 0, 10, 0, tick_type());
    ExpectTick(0, 1, 0, 10, 0, formatted_ticker::now());
}

TEST(CmClock, TimeTypeHoldsALocalTime) {
    ScopedZone zone("XYZ-3");                // three hours ahead of UTC
    const time_type time(1705278896123456);  // 2024-01-15 00:34:56 UTC, a Monday
    EXPECT_EQ(56, time.tm_sec);
    EXPECT_EQ(34, time.tm_min);
    EXPECT_EQ(3, time.tm_hour);
    EXPECT_EQ(15, time.tm_mday);
    EXPECT_EQ(1, time.tm_mon);
    EXPECT_EQ(2024, time.tm_year);
    EXPECT_EQ(1, time.tm_wday);
    EXPECT_EQ(14, time.tm_yday);
    EXPECT_EQ(0, time.tm_isdst);
    EXPECT_EQ(0, time.tm_gmtoff);
    EXPECT_EQ(nullptr, time.tm_zone);
    EXPECT_EQ(123u, time.milliseconds);
    EXPECT_EQ(456u, time.microseconds);
}

TEST(CmClock, TimeTypeHoldsTheDaylightSavingFlag) {
    ScopedZone zone("XYZ-3XYS,0,364");       // daylight saving all the year
    const time_type time(1705278896123456);  // 2024-01-15 00:34:56 UTC
    EXPECT_EQ(1, time.tm_isdst);
    EXPECT_EQ(4, time.tm_hour);
}

TEST(CmClock, TimeTypeHoldsMonthTwelve) {
    ScopedZone zone("UTC0");
    const time_type time(1735689599999999);  // 2024-12-31 23:59:59
    EXPECT_EQ(12, time.tm_mon);
    EXPECT_EQ(2024, time.tm_year);
    EXPECT_EQ(365, time.tm_yday);
    EXPECT_EQ(999u, time.milliseconds);
    EXPECT_EQ(999u, time.microseconds);
}

TEST(CmClock, TimeTypeIsRight_Before1970) {
    ScopedZone zone("UTC0");
    const time_type time(-1500001);  // 1969-12-31 23:59:58.499999
    EXPECT_EQ(1969, time.tm_year);
    EXPECT_EQ(12, time.tm_mon);
    EXPECT_EQ(31, time.tm_mday);
    EXPECT_EQ(58, time.tm_sec);
    EXPECT_EQ(499u, time.milliseconds);
    EXPECT_EQ(999u, time.microseconds);
}

TEST(CmClock, TimeTypeTakesEveryCount) {
    const time_type smallest(INT64_MIN);
    EXPECT_EQ(224u, smallest.milliseconds);
    EXPECT_EQ(192u, smallest.microseconds);
    const time_type largest(INT64_MAX);
    EXPECT_EQ(775u, largest.milliseconds);
    EXPECT_EQ(807u, largest.microseconds);
}

TEST(CmClock, TimeTypeHasNoDate_WhenTheSystemFails) {
    time_type time(1705278896123456);
    FailingCall<&CCmSystemTable::localtime_r> fault(EOVERFLOW, nullptr);
    time.reset(1705278896654321);
    EXPECT_EQ(0, time.tm_sec);
    EXPECT_EQ(0, time.tm_min);
    EXPECT_EQ(0, time.tm_hour);
    EXPECT_EQ(0, time.tm_mday);
    EXPECT_EQ(0, time.tm_mon);
    EXPECT_EQ(0, time.tm_year);
    EXPECT_EQ(0, time.tm_wday);
    EXPECT_EQ(0, time.tm_yday);
    EXPECT_EQ(654u, time.milliseconds);
    EXPECT_EQ(321u, time.microseconds);
}

TEST(CmClock, TimeTypeDefaultIsNow) {
    ScopedZone zone("UTC0");
    kelto_test::ScopedClock clock(1705278896, 123456);
    EXPECT_EQ(56, time_type().tm_sec);
    EXPECT_EQ(2024, time_type().tm_year);
    EXPECT_EQ(123u, formatted_timer::now().milliseconds);
    EXPECT_EQ(456u, formatted_timer::now().microseconds);
    EXPECT_EQ(1, formatted_timer::now().tm_mon);
}

TEST(CmClock, MsSleepSleepsItsTime_WhenSignalsKeepComing) {
    kelto_test::SignalStorm storm;
    const auto start = std::chrono::steady_clock::now();
    std::chrono::milliseconds slept(0);
    do {  // on a busy machine the storm is slow to rise
        EXPECT_EQ(0, ms_sleep(100));
        slept += std::chrono::milliseconds(100);
    } while (storm.delivered() <= 10);
    EXPECT_GE(std::chrono::steady_clock::now() - start, slept);
}

TEST(CmClock, MsSleepRetries_AfterAnyFailure) {
    kelto_test::ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::nanosleep> fault(EINVAL);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ms_sleep(50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(2u, fault.calls());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmClock, MsSleepReturns_WhenTheTimeIsZero) {
    EXPECT_EQ(0, ms_sleep(0));
}

}  // namespace
}  // namespace UTIL_NS
