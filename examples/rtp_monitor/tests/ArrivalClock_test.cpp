#include "ArrivalClock.h"

#include <gtest/gtest.h>

namespace rtp_monitor {
namespace {

constexpr int64_t TIME_OF_DAY = 1700000000000000;
constexpr int64_t MONOTONIC = 5000000000;

TEST(ArrivalClock, TakesTheAgeOfTheStampOff) {
    EXPECT_EQ(ArrivalUsec(TIME_OF_DAY, TIME_OF_DAY, MONOTONIC), MONOTONIC);
    EXPECT_EQ(ArrivalUsec(TIME_OF_DAY - 1500, TIME_OF_DAY, MONOTONIC), MONOTONIC - 1500);
    EXPECT_EQ(ArrivalUsec(TIME_OF_DAY - 4999999, TIME_OF_DAY, MONOTONIC), MONOTONIC - 4999999);
}

TEST(ArrivalClock, TakesNow_WhenTheTimeOfDayWasSetSinceTheStamp) {
    EXPECT_EQ(ArrivalUsec(TIME_OF_DAY - 20000000, TIME_OF_DAY, MONOTONIC), MONOTONIC);
    EXPECT_EQ(ArrivalUsec(TIME_OF_DAY + 10000000, TIME_OF_DAY, MONOTONIC), MONOTONIC);
}

}  // namespace
}  // namespace rtp_monitor
