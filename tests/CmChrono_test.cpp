#include "CmChrono.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

namespace UTIL_NS {
namespace {

using namespace std::chrono;
using namespace std::chrono_literals;
using namespace CmLiterals;

constexpr long LONG_MAX_SEC = std::numeric_limits<long>::max();

TEST(CmFromChrono, ConvertsAnyUnit) {
    EXPECT_EQ(CCmTimeValue(5), CmFromChrono(5s));
    EXPECT_EQ(CCmTimeValue(0, 20000), CmFromChrono(20ms));
    EXPECT_EQ(CCmTimeValue(7200), CmFromChrono(2h));
    EXPECT_EQ(CCmTimeValue(-1, -500000), CmFromChrono(-1500ms));
    EXPECT_EQ(CCmTimeValue(0, 333334), CmFromChrono(duration<int, std::ratio<1, 3>>(1)));
    EXPECT_EQ(CCmTimeValue(0, 250000), CmFromChrono(duration<double>(0.25)));
    EXPECT_EQ(CCmTimeValue(-2, -250000), CmFromChrono(duration<double>(-2.25)));
}

TEST(CmFromChrono, RoundsUp) {
    EXPECT_EQ(CCmTimeValue(0, 2), CmFromChrono(1001ns));
    EXPECT_EQ(CCmTimeValue(0, 1), CmFromChrono(1ns));
    EXPECT_EQ(CCmTimeValue(0, -1), CmFromChrono(-1999ns));
    EXPECT_EQ(CCmTimeValue(1), CmFromChrono(999999999ns));
}

TEST(CmFromChrono, Saturates_WhenTheTimeIsTooLong) {
    EXPECT_EQ(CCmTimeValue::s_tvMax, CmFromChrono(hours::max()));
    EXPECT_EQ(CCmTimeValue() - CCmTimeValue::s_tvMax, CmFromChrono(hours::min()));
    EXPECT_EQ(CCmTimeValue::s_tvMax, CmFromChrono(duration<double>(1e30)));
    EXPECT_EQ(CCmTimeValue() - CCmTimeValue::s_tvMax, CmFromChrono(duration<double>(-1e30)));
    EXPECT_EQ(CCmTimeValue::s_tvMax,
              CmFromChrono(duration<double>(std::numeric_limits<double>::quiet_NaN())));
    EXPECT_EQ(CCmTimeValue(LONG_MAX_SEC), CmFromChrono(seconds::max()));
}

TEST(CmToChrono, ConvertsToAnyUnit) {
    EXPECT_EQ(1500000us, CmToChrono(CCmTimeValue(1, 500000)));
    EXPECT_EQ(1ms, CmToChrono<milliseconds>(CCmTimeValue(0, 1999)));
    EXPECT_EQ(-1ms, CmToChrono<milliseconds>(CCmTimeValue(0, -1999)));
    EXPECT_EQ(2h, CmToChrono<hours>(CCmTimeValue(2 * 3600 + 3599, 999999)));
    EXPECT_DOUBLE_EQ(1.25, CmToChrono<duration<double>>(CCmTimeValue(1, 250000)).count());
    EXPECT_EQ(3, (CmToChrono<duration<int, std::ratio<1, 3>>>(CCmTimeValue(1)).count()));
}

TEST(CmToChrono, Saturates_WhenTheTimeIsTooLong) {
    EXPECT_EQ(nanoseconds::max(), CmToChrono<nanoseconds>(CCmTimeValue::s_tvMax));
    EXPECT_EQ(nanoseconds::min(), CmToChrono<nanoseconds>(CCmTimeValue() - CCmTimeValue::s_tvMax));
    EXPECT_EQ((duration<signed char>::max()), CmToChrono<duration<signed char>>(CCmTimeValue(500)));
    EXPECT_EQ(seconds::max(), CmToChrono<seconds>(CCmTimeValue::s_tvMax));
}

TEST(CmToChrono, ComesBackUnchanged_WhateverTheUnit) {
    for (const long lSec : {0L, 1L, -1L, 1700000000L, -1700000000L}) {
        for (const long lUsec : {0L, 1L, 999999L}) {
            const CCmTimeValue tvValue(lSec, lSec < 0 ? -lUsec : lUsec);
            EXPECT_EQ(tvValue, CmFromChrono(CmToChrono(tvValue)));
            EXPECT_EQ(tvValue, CmFromChrono(CmToSystemTime(tvValue)));
        }
    }
}

TEST(CmLiterals, AreTimeValues) {
    static_assert(2_s == CCmTimeValue(2));
    static_assert(20_ms == CCmTimeValue(0, 20000));
    static_assert(7_us == CCmTimeValue(0, 7));
    EXPECT_EQ(CCmTimeValue(90), 90000_ms);
}

TEST(CCmInterval, TakesBoth) {
    constexpr CCmInterval fromValue(CCmTimeValue(1));
    constexpr CCmInterval fromChrono(1s);
    EXPECT_EQ(fromValue.Value(), fromChrono.Value());
}

TEST(CmMonotonicNow, NeverGoesBackAndPasses) {
    const auto start = steady_clock::now();  // before tvStart, by any time
    const CCmTimeValue tvStart = CmMonotonicNow();
    CCmTimeValue tvLast = tvStart;
    for (int i = 0; i < 1000; ++i) {
        const CCmTimeValue tvNow = CmMonotonicNow();
        EXPECT_LE(tvLast, tvNow);
        tvLast = tvNow;
    }
    std::this_thread::sleep_for(5ms);
    const CCmTimeValue tvPassed = CmMonotonicNow() - tvStart;
    EXPECT_LE(CCmTimeValue(0, 5000) - CCmTimeValue(0, 1), tvPassed);
    EXPECT_GE(steady_clock::now() - start + 1us, CmToChrono(tvPassed));
}

}  // namespace
}  // namespace UTIL_NS
