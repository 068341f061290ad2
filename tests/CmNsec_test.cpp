#include "CmNsec.h"

#include <gtest/gtest.h>

#include <limits>

namespace UTIL_NS {
namespace {

TEST(CmNsec, NsecOfCountsSecondsAndMicroseconds) {
    EXPECT_EQ(0, CmNsecOf(CCmTimeValue()));
    EXPECT_EQ(1000001000, CmNsecOf(CCmTimeValue(1, 1)));
    EXPECT_EQ(-1500000000, CmNsecOf(CCmTimeValue(-1, -500000)));
}

TEST(CmNsec, NsecOfStaysAtTheEndOfTime_WhenThereAreTooManySeconds) {
    EXPECT_EQ(CM_NEVER_NSEC, CmNsecOf(CCmTimeValue(std::numeric_limits<long>::max(), 0)));
    EXPECT_EQ(-CM_NEVER_NSEC, CmNsecOf(CCmTimeValue(std::numeric_limits<long>::min(), 0)));
}

TEST(CmNsec, SumNsecIsNever_WhenItIsTooLate) {
    EXPECT_EQ(5, CmSumNsec(2, 3));
    EXPECT_EQ(CM_NEVER_NSEC, CmSumNsec(CM_NEVER_NSEC - 1, 1));
    EXPECT_EQ(CM_NEVER_NSEC, CmSumNsec(CM_NEVER_NSEC, 1));
}

TEST(CmNsec, LaterNsecIsNow_WhenTheIntervalIsNegative) {
    EXPECT_EQ(7, CmLaterNsec(7, CCmTimeValue(-1, 0)));
    EXPECT_EQ(2007, CmLaterNsec(7, CCmTimeValue(0, 2)));
    EXPECT_EQ(CM_NEVER_NSEC, CmLaterNsec(7, CCmTimeValue::s_tvMax));
}

TEST(CmNsec, MonotonicNsecDoesNotGoBack) {
    const long long llFirst = CmMonotonicNsec();
    EXPECT_GT(llFirst, 0);
    EXPECT_GE(CmMonotonicNsec(), llFirst);
}

}  // namespace
}  // namespace UTIL_NS
