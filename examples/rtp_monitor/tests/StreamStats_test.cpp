#include "StreamStats.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace rtp_monitor {
namespace {

constexpr uint32_t CLOCK_RATE = 8000;  // Hz: one unit is 125 microseconds
constexpr int64_t PACKET_USEC = 20000;
constexpr uint32_t PACKET_UNITS = 160;

RtpHeader Header(uint16_t aSequence, uint32_t aTimestamp) {
    RtpHeader header = {};
    header.payloadType = 8;
    header.sequence = aSequence;
    header.timestamp = aTimestamp;
    return header;
}

// Packets of 100 bytes, 20 ms apart, with these sequence numbers.
StreamReport ReportOf(std::initializer_list<int> aSequences) {
    StreamStats stats(0);
    int64_t llArrivalUsec = 1000000;
    for (const int nSequence : aSequences) {
        stats.OnPacket(Header(static_cast<uint16_t>(nSequence), 0), 100, llArrivalUsec);
        llArrivalUsec += PACKET_USEC;
    }
    return stats.Report();
}

struct Timed {
    uint32_t timestamp;
    int64_t arrivalUsec;
};

// Packets in sequence with these times.
double JitterMsOf(std::initializer_list<Timed> aPackets) {
    StreamStats stats(CLOCK_RATE);
    uint16_t wSequence = 1;
    for (const Timed& packet : aPackets) {
        stats.OnPacket(Header(wSequence++, packet.timestamp), 100, packet.arrivalUsec);
    }
    return stats.Report().jitterMs;
}

TEST(StreamStats, CountsPacketsAndPayload) {
    const StreamReport report = ReportOf({10, 11, 12, 13});
    EXPECT_EQ(report.packets, 4U);
    EXPECT_EQ(report.bytes, 400U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.duplicates, 0U);
    EXPECT_EQ(report.outOfOrder, 0U);
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.payloadType, 8);
}

TEST(StreamStats, CountsLost) {
    const StreamReport report = ReportOf({10, 11, 13, 17});
    EXPECT_EQ(report.expected, 8U);
    EXPECT_EQ(report.lost, 4U);
}

TEST(StreamStats, CountsDuplicates_WithoutHidingLost) {
    const StreamReport report = ReportOf({10, 11, 11, 11, 13, 10});
    EXPECT_EQ(report.packets, 6U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.duplicates, 3U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.outOfOrder, 0U);
}

TEST(StreamStats, CountsSwappedPair_AsOneLate) {
    const StreamReport report = ReportOf({10, 11, 13, 12, 14});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.duplicates, 0U);
}

TEST(StreamStats, TellsSecondLateCopy_AsDuplicate) {
    const StreamReport report = ReportOf({10, 12, 11, 11});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.duplicates, 1U);
}

TEST(StreamStats, ExpectsPacketsBeforeTheFirst_WhenTheyComeLate) {
    const StreamReport report = ReportOf({10, 11, 8});
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.outOfOrder, 1U);
}

TEST(StreamStats, GoesOnAcrossWrapAround) {
    const StreamReport report = ReportOf({65534, 65535, 0, 2});
    EXPECT_EQ(report.expected, 5U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.restarts, 0U);
}

TEST(StreamStats, ReordersAcrossWrapAround) {
    const StreamReport report = ReportOf({65534, 0, 65535, 1, 65535});
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.duplicates, 1U);
    EXPECT_EQ(report.lost, 0U);
}

TEST(StreamStats, CountsThreeRoundsOfTheCircle) {
    StreamStats stats(0);
    for (int i = 0; i < 3 * 65536; ++i) {
        stats.OnPacket(Header(static_cast<uint16_t>(i + 100), 0), 1, i);
    }
    EXPECT_EQ(stats.Report().expected, 196608U);
    EXPECT_EQ(stats.Report().lost, 0U);
}

TEST(StreamStats, LongestStepForward_IsLoss) {
    const StreamReport report = ReportOf({10, 11, 11 + 2999});
    EXPECT_EQ(report.expected, 3001U);
    EXPECT_EQ(report.lost, 2998U);
}

TEST(StreamStats, LongerStepForward_IsAJumpThatCountsNothing) {
    const StreamReport report = ReportOf({10, 11, 11 + 3000, 12});
    EXPECT_EQ(report.expected, 3U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.packets, 4U);
}

TEST(StreamStats, LongestStepBack_IsLate) {
    const StreamReport report = ReportOf({200, 201, 202, 202 - 99});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.expected, 100U);
}

TEST(StreamStats, LongerStepBack_IsAJump) {
    const StreamReport report = ReportOf({200, 201, 202, 202 - 100});
    EXPECT_EQ(report.outOfOrder, 0U);
    EXPECT_EQ(report.expected, 3U);
}

TEST(StreamStats, StartsAnew_WhenTheNextFollowsAJump) {
    const StreamReport report = ReportOf({10, 11, 13, 30000, 30001, 30003});
    EXPECT_EQ(report.restarts, 1U);
    EXPECT_EQ(report.expected, 8U);  // 10 to 13 and 30000 to 30003
    EXPECT_EQ(report.lost, 2U);
}

TEST(StreamStats, DoesNotStartAnew_AfterTwoLoneJumps) {
    const StreamReport report = ReportOf({10, 11, 30000, 12, 30001, 13});
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 0U);
}

TEST(StreamStats, IsConfirmed_ByTwoInSequence) {
    StreamStats stats(0);
    EXPECT_FALSE(stats.IsConfirmed());
    stats.OnPacket(Header(10, 0), 1, 0);
    EXPECT_FALSE(stats.IsConfirmed());
    stats.OnPacket(Header(12, 0), 1, 0);
    EXPECT_FALSE(stats.IsConfirmed());
    stats.OnPacket(Header(13, 0), 1, 0);
    EXPECT_TRUE(stats.IsConfirmed());
}

TEST(StreamStats, IsConfirmed_ByTwoInSequenceBehindAJump) {
    StreamStats stats(0);
    stats.OnPacket(Header(10, 0), 1, 0);
    stats.OnPacket(Header(30000, 0), 1, 0);
    EXPECT_FALSE(stats.IsConfirmed());
    stats.OnPacket(Header(30001, 0), 1, 0);
    EXPECT_TRUE(stats.IsConfirmed());
}

TEST(StreamStats, HasNoJitter_WhenPacketsKeepTheirDistance) {
    EXPECT_EQ(JitterMsOf({{0, 5000}, {PACKET_UNITS, 25000}, {2 * PACKET_UNITS, 45000}}), 0);
}

// RFC 3550, A.8: J += (|D| - J) / 16. D is 16 units late (2 ms), then 16 units early.
TEST(StreamStats, SmoothsJitterOver16) {
    EXPECT_DOUBLE_EQ(JitterMsOf({{0, 0}, {PACKET_UNITS, 22000}}), 0.125);
    EXPECT_DOUBLE_EQ(JitterMsOf({{0, 0}, {PACKET_UNITS, 22000}, {2 * PACKET_UNITS, 40000}}),
                     0.2421875);  // 0.125 + (2 - 0.125) / 16
}

TEST(StreamStats, JitterGoesOn_WhenTheTimestampWraps) {
    EXPECT_DOUBLE_EQ(JitterMsOf({{0xFFFFFFFF - 99, 0}, {60, 22000}}), 0.125);
}

TEST(StreamStats, HasNoJitter_WithoutAClock) {
    StreamStats stats(0);
    stats.OnPacket(Header(1, 0), 1, 0);
    stats.OnPacket(Header(2, 12345), 1, 777);
    EXPECT_EQ(stats.Report().jitterMs, 0);
    EXPECT_EQ(stats.Report().clockRate, 0U);
}

TEST(StreamStats, RestartWithAnotherTimestamp_IsNoJitter) {
    StreamStats stats(CLOCK_RATE);
    stats.OnPacket(Header(1, 0), 1, 0);
    stats.OnPacket(Header(2, PACKET_UNITS), 1, 20000);
    stats.OnPacket(Header(30000, 0x70000000), 1, 40000);
    stats.OnPacket(Header(30001, 0x70000000 + PACKET_UNITS), 1, 60000);
    stats.OnPacket(Header(30002, 0x70000000 + 2 * PACKET_UNITS), 1, 80000);
    EXPECT_EQ(stats.Report().restarts, 1U);
    EXPECT_EQ(stats.Report().jitterMs, 0);
}

TEST(StreamStats, PacketThatBelongsNowhere_IsNoJitter) {
    StreamStats stats(CLOCK_RATE);
    stats.OnPacket(Header(1, 0), 1, 0);
    stats.OnPacket(Header(2, PACKET_UNITS), 1, 20000);
    stats.OnPacket(Header(30000, 0x70000000), 1, 30000);
    stats.OnPacket(Header(3, 2 * PACKET_UNITS), 1, 40000);
    EXPECT_EQ(stats.Report().jitterMs, 0);
}

TEST(StreamStats, TakesBitRateOverTheStreamsLife) {
    // 5 * 100 bytes in 80 ms
    EXPECT_DOUBLE_EQ(ReportOf({1, 2, 3, 4, 5}).bitRate, 50000);
}

TEST(StreamStats, HasNoBitRate_OfOnePacket) {
    EXPECT_EQ(ReportOf({1}).bitRate, 0);
}

TEST(StreamStats, TakesIntervalBitRate_OfTheClosedIntervalOnly) {
    StreamStats stats(0);
    stats.OnPacket(Header(1, 0), 1000, 0);
    EXPECT_EQ(stats.Report().intervalBitRate, 0);
    stats.CloseInterval(1000000);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 8000);
    stats.OnPacket(Header(2, 0), 250, 500000);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 8000);
    stats.CloseInterval(500000);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 4000);
    stats.CloseInterval(500000);
    EXPECT_EQ(stats.Report().intervalBitRate, 0);
}

TEST(StreamStats, FindsLongestGap) {
    StreamStats stats(0);
    stats.OnPacket(Header(1, 0), 1, 0);
    stats.OnPacket(Header(2, 0), 1, 20000);
    stats.OnPacket(Header(3, 0), 1, 150500);
    stats.OnPacket(Header(4, 0), 1, 160000);
    EXPECT_DOUBLE_EQ(stats.Report().longestGapMs, 130.5);
}

TEST(StreamKey, OrdersByAddressesAndSource) {
    const StreamKey key = {1, 2, 3, 4, 5};
    StreamKey other = key;
    EXPECT_FALSE(key < other);
    other.ssrc = 6;
    EXPECT_TRUE(key < other);
    other.sourceAddress = 0;
    EXPECT_TRUE(other < key);
}

TEST(StreamKey, SpreadsNeighboursOverTwoWorkers) {
    int nFirst = 0;
    for (uint32_t dwSource = 0; dwSource < 1000; ++dwSource) {
        nFirst += StreamKey{0x7F000001, 0x7F000001, 5000, 5004, dwSource}.Hash() % 2 == 0 ? 1 : 0;
    }
    EXPECT_GT(nFirst, 400);
    EXPECT_LT(nFirst, 600);
}

}  // namespace
}  // namespace rtp_monitor
