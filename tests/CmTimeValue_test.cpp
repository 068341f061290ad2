#include "CmTimeValue.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <climits>
#include <type_traits>

#include "support/Clock.h"

namespace UTIL_NS {
namespace {

constexpr long MAX_SEC = 9223372036854775807;

void ExpectFields(long aSec, long aUsec, const CCmTimeValue& aValue) {
    EXPECT_EQ(aSec, aValue.GetSec());
    EXPECT_EQ(aUsec, aValue.GetUsec());
}

TEST(CmTimeValue, NormalizeCarriesWholeSeconds) {
    ExpectFields(2, 500000, CCmTimeValue(0, 2500000));
}

TEST(CmTimeValue, NormalizeCarriesWholeSeconds_WhenNegative) {
    ExpectFields(-2, -500000, CCmTimeValue(0, -2500000));
}

TEST(CmTimeValue, NormalizeBorrowsFromTheSeconds_WhenTheyArePositive) {
    ExpectFields(0, 999999, CCmTimeValue(1, -1));
}

TEST(CmTimeValue, NormalizeBorrowsFromTheSeconds_WhenTheyAreNegative) {
    ExpectFields(0, -999999, CCmTimeValue(-1, 1));
}

TEST(CmTimeValue, NormalizeChangesNothing_WhenNormalised) {
    ExpectFields(5, 999999, CCmTimeValue(5, 999999));
    ExpectFields(-1, -500000, CCmTimeValue(-1, -500000));
    ExpectFields(0, -999999, CCmTimeValue(0, -999999));
}

TEST(CmTimeValue, NormalizeCarries_WhenItIsExactlyOneSecond) {
    ExpectFields(1, 0, CCmTimeValue(0, 1000000));
    ExpectFields(-1, 0, CCmTimeValue(0, -1000000));
}

TEST(CmTimeValue, NormalizeCarriesAndThenFixesTheSign) {
    ExpectFields(2, 500000, CCmTimeValue(5, -2500000));
    ExpectFields(-2, -500000, CCmTimeValue(-5, 2500000));
    ExpectFields(-1, -500000, CCmTimeValue(1, -2500000));
}

TEST(CmTimeValue, NormalizeIsRight_WhenTheMicrosecondsAreTheLargest) {
    ExpectFields(9223372036854, 775807, CCmTimeValue(0, LONG_MAX));
    ExpectFields(-9223372036854, -775808, CCmTimeValue(0, LONG_MIN));
}

TEST(CmTimeValue, NormalizeSaturatesAtBothEnds) {
    ExpectFields(MAX_SEC, 999999, CCmTimeValue(MAX_SEC, 1000000));
    ExpectFields(-MAX_SEC, -999999, CCmTimeValue(LONG_MIN, -1000000));
}

TEST(CmTimeValue, ConstantsAreZeroAndTheLargestValue) {
    ExpectFields(0, 0, CCmTimeValue::s_tvZero);
    ExpectFields(9223372036854775807, 999999, CCmTimeValue::s_tvMax);
    EXPECT_EQ(CCmTimeValue(), CCmTimeValue::s_tvZero);
    EXPECT_EQ(CCmTimeValue::s_tvZero, get_tvZero());
    EXPECT_EQ(CCmTimeValue::s_tvMax, get_tvMax());
}

TEST(CmTimeValue, MaxIsGreaterThanEveryOther) {
    EXPECT_GT(CCmTimeValue::s_tvMax, CCmTimeValue(MAX_SEC, 999998));
    EXPECT_GT(CCmTimeValue::s_tvMax, CCmTimeValue(MAX_SEC - 1, 999999));
    EXPECT_GT(CCmTimeValue::s_tvMax, CCmTimeValue::s_tvZero);
    EXPECT_GT(CCmTimeValue::s_tvMax, CCmTimeValue(LONG_MIN, 0));
}

TEST(CmTimeValue, FieldsAreTwoLongs) {
    static_assert(std::is_same_v<long, decltype(CCmTimeValue().GetSec())>);
    static_assert(std::is_same_v<long, decltype(CCmTimeValue().GetUsec())>);
    EXPECT_EQ(16u, sizeof(CCmTimeValue));
}

TEST(CmTimeValue, AddNormalisesTheSum) {
    ExpectFields(4, 200000, CCmTimeValue(1, 600000) + CCmTimeValue(2, 600000));
    ExpectFields(0, 900000, CCmTimeValue(1, 500000) + CCmTimeValue(0, -600000));
    CCmTimeValue tvSum(1, 999999);
    tvSum += CCmTimeValue(0, 1);
    ExpectFields(2, 0, tvSum);
}

TEST(CmTimeValue, SubtractNormalisesTheDifference) {
    ExpectFields(0, 900000, CCmTimeValue(3, 500000) - CCmTimeValue(2, 600000));
    ExpectFields(0, -900000, CCmTimeValue(2, 600000) - CCmTimeValue(3, 500000));
    CCmTimeValue tvDifference(2, 0);
    tvDifference -= CCmTimeValue(0, 1);
    ExpectFields(1, 999999, tvDifference);
}

TEST(CmTimeValue, AddSaturatesAtBothEnds) {
    EXPECT_EQ(CCmTimeValue::s_tvMax, CCmTimeValue(1700000000, 5) + CCmTimeValue::s_tvMax);
    EXPECT_EQ(CCmTimeValue::s_tvMax, CCmTimeValue(MAX_SEC, 600000) + CCmTimeValue(0, 600000));
    ExpectFields(-MAX_SEC, -999999, CCmTimeValue(-MAX_SEC, 0) + CCmTimeValue(-MAX_SEC, 0));
}

TEST(CmTimeValue, AddSaturatesInItsOwnDirection_WhenAddedToItself) {
    CCmTimeValue tvLarge = CCmTimeValue::s_tvMax;
    tvLarge += tvLarge;
    EXPECT_EQ(CCmTimeValue::s_tvMax, tvLarge);
    CCmTimeValue tvSmall(-MAX_SEC, -1);
    tvSmall += tvSmall;
    ExpectFields(-MAX_SEC, -999999, tvSmall);
}

TEST(CmTimeValue, SubtractSaturatesAtBothEnds) {
    EXPECT_EQ(CCmTimeValue::s_tvMax, CCmTimeValue(1, 0) - CCmTimeValue(-MAX_SEC, 0));
    ExpectFields(-MAX_SEC, -999999, CCmTimeValue(-5, 0) - CCmTimeValue::s_tvMax);
}

// The seconds alone are one too many; the microseconds take it away again.
TEST(CmTimeValue, SubtractIsExact_WhenTheDifferenceFits) {
    constexpr long MIN_SEC = -MAX_SEC - 1;
    ExpectFields(MAX_SEC, 999995, CCmTimeValue(0, -5) - CCmTimeValue(MIN_SEC, 0));
    ExpectFields(MAX_SEC, 1, CCmTimeValue(0, -999999) - CCmTimeValue(MIN_SEC, 0));
    ExpectFields(MAX_SEC, 999999, CCmTimeValue(0, -3) - CCmTimeValue(MIN_SEC, -2));
    EXPECT_EQ(CCmTimeValue::s_tvMax, CCmTimeValue(0, -2) - CCmTimeValue(MIN_SEC, -2));
    EXPECT_EQ(CCmTimeValue::s_tvMax, CCmTimeValue(0, 0) - CCmTimeValue(MIN_SEC, 0));
    ExpectFields(MIN_SEC, 0, CCmTimeValue(-MAX_SEC, -999999) - CCmTimeValue(0, 1));
}

TEST(CmTimeValue, SubtractIsZero_WhenSubtractedFromItself) {
    CCmTimeValue tvValue(-3, -700000);
    const CCmTimeValue& tvSame = tvValue;
    tvValue -= tvSame;
    EXPECT_EQ(CCmTimeValue::s_tvZero, tvValue);
}

TEST(CmTimeValue, CompareIsLexicographic) {
    const CCmTimeValue tvSmall(1, 999999);
    const CCmTimeValue tvLarge(2, 0);
    EXPECT_TRUE(tvSmall < tvLarge);
    EXPECT_TRUE(tvSmall <= tvLarge);
    EXPECT_TRUE(tvSmall != tvLarge);
    EXPECT_FALSE(tvSmall > tvLarge);
    EXPECT_FALSE(tvSmall >= tvLarge);
    EXPECT_FALSE(tvSmall == tvLarge);
    EXPECT_TRUE(CCmTimeValue(1, 1) > CCmTimeValue(1, 0));
    EXPECT_TRUE(CCmTimeValue(1, 1) >= CCmTimeValue(1, 1));
    EXPECT_TRUE(CCmTimeValue(1, 1) <= CCmTimeValue(1, 1));
    EXPECT_TRUE(CCmTimeValue(-1, -1) < CCmTimeValue(-1, 0));
}

TEST(CmTimeValue, ToTimeSpecMultipliesTheMicroseconds) {
    const timespec ts = CCmTimeValue(3, 250001).ToTimeSpec();
    EXPECT_EQ(3, ts.tv_sec);
    EXPECT_EQ(250001000, ts.tv_nsec);
}

TEST(CmTimeValue, GetTimeOfDayReadsTheClock) {
    kelto_test::ScopedClock clock(1234567890, 987654);
    ExpectFields(1234567890, 987654, CCmTimeValue::GetTimeOfDay());
}

TEST(CmTimeValue, GetTimeOfDayIsTheSystemsTime) {
    timeval tvBefore = {};
    gettimeofday(&tvBefore, nullptr);
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    timeval tvAfter = {};
    gettimeofday(&tvAfter, nullptr);
    EXPECT_LE(CCmTimeValue(tvBefore), tvNow);
    EXPECT_LE(tvNow, CCmTimeValue(tvAfter));
}

}  // namespace
}  // namespace UTIL_NS
