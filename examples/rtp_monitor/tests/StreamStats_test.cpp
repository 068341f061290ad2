#include "StreamStats.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace rtp_monitor {
namespace {

constexpr uint32_t CLOCK_RATE = 8000;  // Hz: one unit is 125 microseconds
constexpr int64_t PACKET_USEC = 20000;
constexpr uint32_t PACKET_UNITS = 160;

CRtpHeader Header(uint16_t aSequence, uint32_t aTimestamp, uint32_t aPayloadSize = 100) {
    CRtpHeader header = {};
    header.payloadType = 8;
    header.sequence = aSequence;
    header.timestamp = aTimestamp;
    header.payloadSize = aPayloadSize;
    return header;
}

// Packets of 100 bytes, 20 ms apart, with these sequence numbers.
CStreamReport ReportOf(std::initializer_list<int> aSequences) {
    CStreamStats stats;
    int64_t llArrivalUsec = 1000000;
    for (const int nSequence : aSequences) {
        stats.OnPacket(Header(static_cast<uint16_t>(nSequence), 0), 0, llArrivalUsec, 0);
        llArrivalUsec += PACKET_USEC;
    }
    return stats.Report();
}

struct CTimed {
    uint32_t timestamp;
    int64_t arrivalUsec;
};

// Packets in sequence with these times.
double JitterMsOf(std::initializer_list<CTimed> aPackets) {
    CStreamStats stats;
    uint16_t wSequence = 1;
    for (const CTimed& packet : aPackets) {
        stats.OnPacket(Header(wSequence++, packet.timestamp), CLOCK_RATE, packet.arrivalUsec, 0);
    }
    return stats.Report().jitterMs;
}

TEST(CStreamStats, CountsPacketsAndPayload) {
    const CStreamReport report = ReportOf({10, 11, 12, 13});
    EXPECT_EQ(report.received, 4U);
    EXPECT_EQ(report.bytes, 400U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.duplicates, 0U);
    EXPECT_EQ(report.outOfOrder, 0U);
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.payloadType, 8);
}

TEST(CStreamStats, CountsLost) {
    const CStreamReport report = ReportOf({10, 11, 13, 17});
    EXPECT_EQ(report.expected, 8U);
    EXPECT_EQ(report.lost, 4U);
}

TEST(CStreamStats, CountsDuplicates_WithoutHidingLost) {
    const CStreamReport report = ReportOf({10, 11, 11, 11, 13, 10});
    EXPECT_EQ(report.received, 6U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.duplicates, 3U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.outOfOrder, 0U);
}

TEST(CStreamStats, CountsASwappedPairAsOneOutOfOrder) {
    const CStreamReport report = ReportOf({10, 11, 13, 12, 14});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.duplicates, 0U);
}

TEST(CStreamStats, CountsASecondLateCopyAsADuplicate) {
    const CStreamReport report = ReportOf({10, 12, 11, 11});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.duplicates, 1U);
}

TEST(CStreamStats, ExpectsPacketsBeforeTheFirst_WhenTheyComeLate) {
    const CStreamReport report = ReportOf({10, 11, 8});
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.outOfOrder, 1U);
}

TEST(CStreamStats, GoesOnAcrossWrapAround) {
    const CStreamReport report = ReportOf({65534, 65535, 0, 2});
    EXPECT_EQ(report.expected, 5U);
    EXPECT_EQ(report.lost, 1U);
    EXPECT_EQ(report.restarts, 0U);
}

TEST(CStreamStats, ReordersAcrossWrapAround) {
    const CStreamReport report = ReportOf({65534, 0, 65535, 1, 65535});
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.duplicates, 1U);
    EXPECT_EQ(report.lost, 0U);
}

TEST(CStreamStats, CountsThreeRoundsOfTheCircle) {
    CStreamStats stats;
    for (int i = 0; i < 3 * 65536; ++i) {
        stats.OnPacket(Header(static_cast<uint16_t>(i + 100), 0, 1), 0, i, 0);
    }
    EXPECT_EQ(stats.Report().expected, 196608U);
    EXPECT_EQ(stats.Report().lost, 0U);
}

TEST(CStreamStats, LongestStepForwardIsLoss) {
    const CStreamReport report = ReportOf({10, 11, 11 + 2999});
    EXPECT_EQ(report.expected, 3001U);
    EXPECT_EQ(report.lost, 2998U);
}

TEST(CStreamStats, LongerStepForwardIsAJumpThatCountsNothing) {
    const CStreamReport report = ReportOf({10, 11, 11 + 3000, 12});
    EXPECT_EQ(report.expected, 3U);
    EXPECT_EQ(report.lost, 0U);
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.received, 3U);
    EXPECT_EQ(report.strays, 1U);
}

TEST(CStreamStats, LongestStepBackIsOutOfOrder) {
    const CStreamReport report = ReportOf({200, 201, 202, 202 - 99});
    EXPECT_EQ(report.outOfOrder, 1U);
    EXPECT_EQ(report.expected, 100U);
}

TEST(CStreamStats, LongerStepBackIsAJump) {
    const CStreamReport report = ReportOf({200, 201, 202, 202 - 100});
    EXPECT_EQ(report.outOfOrder, 0U);
    EXPECT_EQ(report.expected, 3U);
}

TEST(CStreamStats, StartsAnew_WhenTheNextFollowsAJump) {
    const CStreamReport report = ReportOf({10, 11, 13, 30000, 30001, 30003});
    EXPECT_EQ(report.restarts, 1U);
    EXPECT_EQ(report.expected, 8U);  // 10 to 13 and 30000 to 30003
    EXPECT_EQ(report.lost, 2U);
}

TEST(CStreamStats, DoesNotStartAnew_AfterTwoLoneJumps) {
    const CStreamReport report = ReportOf({10, 11, 30000, 12, 30001, 13});
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.expected, 4U);
    EXPECT_EQ(report.lost, 0U);
}

// Packets of one audio stream, number aFirst to aLast, as they are sent.
void Send(CStreamStats* aStats, int aFirst, int aLast, uint32_t aDropped = 0) {
    for (int i = aFirst; i <= aLast; ++i) {
        aStats->OnPacket(Header(static_cast<uint16_t>(i), static_cast<uint32_t>(i) * PACKET_UNITS),
                         CLOCK_RATE, i * PACKET_USEC, aDropped);
    }
}

TEST(CStreamStats, LongerStepForwardIsAnOutage_WhenTimestampsGoOn) {
    CStreamStats stats;
    Send(&stats, 10, 20);
    Send(&stats, 20 + 3000, 20 + 3010);
    const CStreamReport report = stats.Report();
    EXPECT_EQ(report.expected, 3021U);
    EXPECT_EQ(report.lost, 2999U);
    EXPECT_EQ(report.outages, 1U);
    EXPECT_EQ(report.restarts, 0U);
    EXPECT_EQ(report.strays, 0U);
    EXPECT_DOUBLE_EQ(report.longestGapMs, 60000);
    EXPECT_EQ(report.jitterMs, 0);
}

TEST(CStreamStats, OutageOfAWholeCircleIsLoss) {
    for (const int nMissing : {65534, 65535, 65636, 131071}) {
        CStreamStats stats;
        Send(&stats, 10, 200);
        Send(&stats, 201 + nMissing, 300 + nMissing);
        EXPECT_EQ(stats.Report().lost, static_cast<uint64_t>(nMissing));
        EXPECT_EQ(stats.Report().duplicates, 0U);
        EXPECT_EQ(stats.Report().outages, 1U);
    }
}

// Twenty minutes of silence, as when a call is held, after which the numbers go on as if nothing
// had been.
TEST(CStreamStats, PauseOfTheSenderIsNoLoss) {
    CStreamStats stats;
    Send(&stats, 10, 200);
    for (int i = 201; i < 300; ++i) {
        stats.OnPacket(
            Header(static_cast<uint16_t>(i), static_cast<uint32_t>(i + 60000) * PACKET_UNITS),
            CLOCK_RATE, (i + 60000) * PACKET_USEC, 0);
    }
    EXPECT_EQ(stats.Report().lost, 0U);
    EXPECT_EQ(stats.Report().outages, 0U);
    EXPECT_EQ(stats.Report().expected, 290U);
}

TEST(CStreamStats, PacketFarBackIsLate_WhenItsTimestampIsOld) {
    CStreamStats stats;
    Send(&stats, 1000, 1300);
    Send(&stats, 1100, 1100);
    EXPECT_EQ(stats.Report().late, 1U);
    EXPECT_EQ(stats.Report().received, 302U);
    EXPECT_EQ(stats.Report().strays, 0U);
}

TEST(CStreamStats, TellsWhatTheSocketDroppedFromLoss) {
    CStreamStats stats;
    Send(&stats, 0, 10, 5);
    Send(&stats, 111, 120, 85);  // 100 are missing, 80 of which the socket dropped
    EXPECT_EQ(stats.Report().droppedHere, 80U);
    EXPECT_EQ(stats.Report().lost, 20U);
    EXPECT_EQ(stats.Report().expected, 121U);
}

TEST(CStreamStats, LosesNoMoreThanIsMissing_WhenTheSocketDroppedOfOtherStreams) {
    CStreamStats stats;
    Send(&stats, 0, 10);
    Send(&stats, 13, 20, 1000);
    EXPECT_EQ(stats.Report().droppedHere, 2U);
    EXPECT_EQ(stats.Report().lost, 0U);
    Send(&stats, 11, 12, 1000);  // they were late, no more
    EXPECT_EQ(stats.Report().droppedHere, 0U);
    EXPECT_EQ(stats.Report().lost, 0U);
}

TEST(CStreamStats, CountsDropsAcrossTheirWrapAround) {
    CStreamStats stats;
    Send(&stats, 0, 10, 0xFFFFFFFF);
    Send(&stats, 13, 20, 1);
    EXPECT_EQ(stats.Report().droppedHere, 2U);
}

TEST(CStreamStats, TakesAJumpForAnOutage_WhenTheSocketDroppedAsMany) {
    CStreamStats stats;
    // Timestamps that stand still, as those of a sender that only makes load.
    for (int i = 0; i < 10; ++i) {
        stats.OnPacket(Header(static_cast<uint16_t>(i), 0), CLOCK_RATE, i, 0);
    }
    stats.OnPacket(Header(10009, 0), CLOCK_RATE, 11, 9999);
    EXPECT_EQ(stats.Report().droppedHere, 9999U);
    EXPECT_EQ(stats.Report().lost, 0U);
    EXPECT_EQ(stats.Report().outages, 1U);
}

TEST(CStreamStats, TakesAJumpForAnOutage_WhenTheSocketDroppedAllAfterTheFirst) {
    CStreamStats stats;
    Send(&stats, 0, 0);
    Send(&stats, 5000, 5010, 4999);
    EXPECT_EQ(stats.Report().droppedHere, 4999U);
    EXPECT_EQ(stats.Report().restarts, 0U);
}

TEST(CStreamStats, IsDoubtful_UntilTwoCameInSequence) {
    CStreamStats stats;
    stats.OnPacket(Header(10, 0, 1), 0, 0, 0);
    EXPECT_TRUE(stats.Report().isDoubtful);
    stats.OnPacket(Header(12, 0, 1), 0, 0, 0);
    EXPECT_TRUE(stats.Report().isDoubtful);
    stats.OnPacket(Header(13, 0, 1), 0, 0, 0);
    EXPECT_FALSE(stats.Report().isDoubtful);
}

TEST(CStreamStats, IsNoLongerDoubtful_AfterTwoInSequenceBeyondAJump) {
    CStreamStats stats;
    stats.OnPacket(Header(10, 0, 1), 0, 0, 0);
    stats.OnPacket(Header(30000, 0, 1), 0, 0, 0);
    EXPECT_TRUE(stats.Report().isDoubtful);
    stats.OnPacket(Header(30001, 0, 1), 0, 0, 0);
    EXPECT_FALSE(stats.Report().isDoubtful);
}

TEST(CStreamStats, HasNoJitter_WhenPacketsKeepTheirDistance) {
    EXPECT_EQ(JitterMsOf({{0, 5000}, {PACKET_UNITS, 25000}, {2 * PACKET_UNITS, 45000}}), 0);
}

// RFC 3550, A.8: J += (|D| - J) / 16. D is 16 units late (2 ms), then 16 units early.
TEST(CStreamStats, SmoothsJitterOver16) {
    EXPECT_DOUBLE_EQ(JitterMsOf({{0, 0}, {PACKET_UNITS, 22000}}), 0.125);
    EXPECT_DOUBLE_EQ(JitterMsOf({{0, 0}, {PACKET_UNITS, 22000}, {2 * PACKET_UNITS, 40000}}),
                     0.2421875);  // 0.125 + (2 - 0.125) / 16
}

TEST(CStreamStats, JitterGoesOn_WhenTheTimestampWraps) {
    EXPECT_DOUBLE_EQ(JitterMsOf({{0xFFFFFFFF - 99, 0}, {60, 22000}}), 0.125);
}

TEST(CStreamStats, HasNoJitter_WithoutAClock) {
    CStreamStats stats;
    stats.OnPacket(Header(1, 0, 1), 0, 0, 0);
    stats.OnPacket(Header(2, 12345, 1), 0, 777, 0);
    EXPECT_EQ(stats.Report().jitterMs, 0);
    EXPECT_EQ(stats.Report().clockRate, 0U);
}

TEST(CStreamStats, RestartIsNoJitter_WhenTheTimestampIsAnother) {
    CStreamStats stats;
    stats.OnPacket(Header(1, 0, 1), CLOCK_RATE, 0, 0);
    stats.OnPacket(Header(2, PACKET_UNITS, 1), CLOCK_RATE, 20000, 0);
    stats.OnPacket(Header(30000, 0x70000000, 1), CLOCK_RATE, 40000, 0);
    stats.OnPacket(Header(30001, 0x70000000 + PACKET_UNITS, 1), CLOCK_RATE, 60000, 0);
    stats.OnPacket(Header(30002, 0x70000000 + 2 * PACKET_UNITS, 1), CLOCK_RATE, 80000, 0);
    EXPECT_EQ(stats.Report().restarts, 1U);
    EXPECT_EQ(stats.Report().jitterMs, 0);
}

TEST(CStreamStats, PacketThatBelongsNowhereIsNoJitter) {
    CStreamStats stats;
    stats.OnPacket(Header(1, 0, 1), CLOCK_RATE, 0, 0);
    stats.OnPacket(Header(2, PACKET_UNITS, 1), CLOCK_RATE, 20000, 0);
    stats.OnPacket(Header(30000, 0x70000000, 1), CLOCK_RATE, 30000, 0);
    stats.OnPacket(Header(3, 2 * PACKET_UNITS, 1), CLOCK_RATE, 40000, 0);
    EXPECT_EQ(stats.Report().jitterMs, 0);
}

TEST(CStreamStats, TakesBitRateOverTheStreamsLife) {
    // 5 * 100 bytes in 80 ms
    EXPECT_DOUBLE_EQ(ReportOf({1, 2, 3, 4, 5}).bitRate, 50000);
}

TEST(CStreamStats, HasNoBitRate_UntilTheSecondPacket) {
    EXPECT_EQ(ReportOf({1}).bitRate, 0);
}

TEST(CStreamStats, TakesIntervalBitRateOfTheClosedIntervalOnly) {
    CStreamStats stats;
    stats.OnPacket(Header(1, 0, 1000), 0, 0, 0);
    EXPECT_EQ(stats.Report().intervalBitRate, 0);
    stats.CloseInterval(1000000);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 8000);
    stats.OnPacket(Header(2, 0, 250), 0, 500000, 0);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 8000);
    stats.CloseInterval(500000);
    EXPECT_DOUBLE_EQ(stats.Report().intervalBitRate, 4000);
    stats.CloseInterval(500000);
    EXPECT_EQ(stats.Report().intervalBitRate, 0);
}

TEST(CStreamStats, FindsLongestGap) {
    CStreamStats stats;
    stats.OnPacket(Header(1, 0, 1), 0, 0, 0);
    stats.OnPacket(Header(2, 0, 1), 0, 20000, 0);
    stats.OnPacket(Header(3, 0, 1), 0, 150500, 0);
    stats.OnPacket(Header(4, 0, 1), 0, 160000, 0);
    EXPECT_DOUBLE_EQ(stats.Report().longestGapMs, 130.5);
}

}  // namespace
}  // namespace rtp_monitor
