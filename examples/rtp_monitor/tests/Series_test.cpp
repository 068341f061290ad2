#include "Series.h"

#include <gtest/gtest.h>

#include <random>

namespace rtp_monitor {
namespace {

constexpr int64_t STEP = CSeries::FIRST_STEP_USEC;

class Series : public testing::Test {
  protected:
    void Send(int64_t aArrivalUsec) {
        CRtpHeader header = {};
        header.sequence = m_wNext++;
        header.payloadSize = 10;
        m_series.OnTime(aArrivalUsec, m_stats);
        m_stats.OnPacket(header, 8000, aArrivalUsec, 0);
    }
    std::vector<CPoint> Points() const { return m_series.Points(m_stats); }

    CSeries m_series;
    CStreamStats m_stats;
    uint16_t m_wNext = 0;
};

TEST_F(Series, HasAPointForEachStep) {
    for (int i = 0; i < 35; ++i) {
        Send(1000 + i * STEP / 10);
    }
    const std::vector<CPoint> points = Points();
    ASSERT_EQ(points.size(), 4U);
    EXPECT_EQ(m_series.startUsec(), 1000);
    EXPECT_EQ(points[0].bytes, 100U);
    EXPECT_EQ(points[2].bytes, 300U);
    EXPECT_EQ(points[3].bytes, 350U);
    EXPECT_EQ(points[3].expected, 35U);
}

TEST_F(Series, HasEqualPoints_WhileNothingComes) {
    Send(0);
    Send(3 * STEP);
    const std::vector<CPoint> points = Points();
    ASSERT_EQ(points.size(), 4U);
    EXPECT_EQ(points[0].bytes, 10U);
    EXPECT_EQ(points[2].bytes, 10U);
    EXPECT_EQ(points[3].bytes, 20U);
}

TEST_F(Series, MakesTwoPointsOne_WhenThereIsNoRoom) {
    for (size_t i = 0; i <= CSeries::MAX_POINTS; ++i) {
        Send(static_cast<int64_t>(i) * STEP);
    }
    EXPECT_EQ(Points().size(), CSeries::MAX_POINTS + 1);
    Send(static_cast<int64_t>(CSeries::MAX_POINTS + 1) * STEP);
    EXPECT_EQ(m_series.stepUsec(), 2 * STEP);
    const std::vector<CPoint> points = Points();
    ASSERT_EQ(points.size(), CSeries::MAX_POINTS / 2 + 1);
    for (size_t i = 0; i + 1 < points.size(); ++i) {
        EXPECT_EQ(points[i].bytes, 20 * (i + 1));
    }
}

TEST_F(Series, StaysBounded_WhateverTheTimes) {
    std::mt19937 random(1);
    int64_t llTime = 0;
    for (int i = 0; i < 20000; ++i) {
        // Mostly short, at times for months, and now and then back.
        llTime += i % 1000 == 999 ? (1LL << (random() % 43)) : random() % 50000;
        Send(llTime - (random() % 10 == 0 ? 100000 : 0));
        ASSERT_LE(Points().size(), CSeries::MAX_POINTS + 1);
    }
    const std::vector<CPoint> points = Points();
    for (size_t i = 1; i < points.size(); ++i) {
        EXPECT_LE(points[i - 1].bytes, points[i].bytes);
    }
    EXPECT_EQ(points.back().bytes, 200000U);
}

}  // namespace
}  // namespace rtp_monitor
