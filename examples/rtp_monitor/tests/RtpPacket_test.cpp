#include "RtpPacket.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtp_monitor {
namespace {

typedef std::vector<unsigned char> Bytes;

// Version 2, payload type 96, sequence 0x1234, timestamp 0x01020304, ssrc 0xA1B2C3D4.
Bytes FixedHeader(unsigned char aFirst = 0x80, unsigned char aSecond = 0x60) {
    return {aFirst, aSecond, 0x12, 0x34, 1, 2, 3, 4, 0xA1, 0xB2, 0xC3, 0xD4};
}

Bytes operator+(Bytes aLeft, const Bytes& aRight) {
    aLeft.insert(aLeft.end(), aRight.begin(), aRight.end());
    return aLeft;
}

struct Case {
    const char* name;
    Bytes packet;
    PacketKind kind;
    uint32_t headerSize;
    uint32_t paddingSize;
};

std::ostream& operator<<(std::ostream& aStream, const Case& aCase) {
    return aStream << aCase.name;
}

class RtpPacketTable : public testing::TestWithParam<Case> {};

TEST_P(RtpPacketTable, TellsKindHeaderAndPadding) {
    const Case& expected = GetParam();
    RtpHeader header = {};
    // A copy of exactly this size, so that an address sanitizer sees a byte read too many.
    const Bytes packet(expected.packet);
    EXPECT_EQ(ParsePacket(packet.data(), packet.size(), &header), expected.kind);
    EXPECT_EQ(header.headerSize, expected.headerSize);
    EXPECT_EQ(header.paddingSize, expected.paddingSize);
}

const Bytes FOUR = {0, 0, 0, 0};

INSTANTIATE_TEST_SUITE_P(
    Packets, RtpPacketTable,
    testing::Values(
        Case{"Empty", {}, PacketKind::OTHER, 0, 0},
        Case{"ThreeBytes", {0x80, 0x60, 0}, PacketKind::OTHER, 0, 0},
        Case{"ElevenBytes", {0x80, 0x60, 0, 1, 0, 0, 0, 0, 0, 0, 0}, PacketKind::OTHER, 0, 0},
        Case{"HeaderOnly", FixedHeader(), PacketKind::RTP, 12, 0},
        Case{"Payload", FixedHeader() + Bytes{1, 2, 3}, PacketKind::RTP, 12, 0},
        Case{"Version0", FixedHeader(0x00), PacketKind::OTHER, 0, 0},
        Case{"Version1", FixedHeader(0x40), PacketKind::OTHER, 0, 0},
        Case{"Version3", FixedHeader(0xC0), PacketKind::OTHER, 0, 0},
        Case{"TwoSources", FixedHeader(0x82) + FOUR + FOUR, PacketKind::RTP, 20, 0},
        Case{"FifteenSources", FixedHeader(0x8F) + Bytes(60), PacketKind::RTP, 72, 0},
        Case{"SourcesCutOff", FixedHeader(0x82) + FOUR + Bytes{0, 0, 0}, PacketKind::OTHER, 0, 0},
        Case{"EmptyExtension", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0, 0}, PacketKind::RTP, 16, 0},
        Case{"Extension", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0, 1} + FOUR + Bytes{9},
             PacketKind::RTP, 20, 0},
        Case{"ExtensionBehindSources", FixedHeader(0x91) + FOUR + Bytes{0, 0, 0, 2} + FOUR + FOUR,
             PacketKind::RTP, 28, 0},
        Case{"ExtensionHeaderCutOff", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0}, PacketKind::OTHER,
             0, 0},
        Case{"ExtensionCutOff", FixedHeader(0x90) + Bytes{0, 0, 0, 2} + FOUR + Bytes{0, 0, 0},
             PacketKind::OTHER, 0, 0},
        Case{"LongestExtensionCutOff", FixedHeader(0x90) + Bytes{0, 0, 0xFF, 0xFF} + FOUR,
             PacketKind::OTHER, 0, 0},
        Case{"Padding", FixedHeader(0xA0) + Bytes{7, 0, 2}, PacketKind::RTP, 12, 2},
        Case{"PaddingOnly", FixedHeader(0xA0) + Bytes{0, 0, 0, 4}, PacketKind::RTP, 12, 4},
        Case{"PaddingOfNothing", FixedHeader(0xA0) + Bytes{7, 7, 0}, PacketKind::OTHER, 0, 0},
        Case{"PaddingLongerThanPayload", FixedHeader(0xA0) + Bytes{0, 0, 4}, PacketKind::OTHER, 0,
             0},
        Case{"PaddingWithoutPayload", FixedHeader(0xA0), PacketKind::OTHER, 0, 0},
        Case{"PaddingIntoTheExtension", FixedHeader(0xB0) + Bytes{0, 0, 0, 1, 0, 0, 0, 3},
             PacketKind::OTHER, 0, 0},
        Case{"SenderReport", FixedHeader(0x80, 200), PacketKind::RTCP, 0, 0},
        Case{"ReceiverReportWithoutBlocks", {0x80, 201, 0, 1}, PacketKind::RTCP, 0, 0},
        Case{"TransportFeedback", FixedHeader(0x81, 205), PacketKind::RTCP, 0, 0},
        Case{"PictureLossIndication", FixedHeader(0x81, 206), PacketKind::RTCP, 0, 0},
        Case{"LowestRtcpType", FixedHeader(0x80, 192), PacketKind::RTCP, 0, 0},
        Case{"HighestRtcpType", FixedHeader(0x80, 223), PacketKind::RTCP, 0, 0},
        Case{"TypeBelowRtcp", FixedHeader(0x80, 191), PacketKind::RTP, 12, 0},
        Case{"TypeAboveRtcp", FixedHeader(0x80, 224), PacketKind::RTP, 12, 0}),
    [](const testing::TestParamInfo<Case>& aInfo) { return std::string(aInfo.param.name); });

TEST(RtpPacket, ReadsFieldsInNetworkOrder) {
    const Bytes packet = FixedHeader(0x80, 0xE0);
    RtpHeader header = {};
    ASSERT_EQ(ParsePacket(packet.data(), packet.size(), &header), PacketKind::RTP);
    EXPECT_EQ(header.payloadType, 96);
    EXPECT_TRUE(header.marker);
    EXPECT_EQ(header.sequence, 0x1234);
    EXPECT_EQ(header.timestamp, 0x01020304U);
    EXPECT_EQ(header.ssrc, 0xA1B2C3D4U);
}

TEST(RtpPacket, MarkerIsNoPartOfTheType) {
    const Bytes packet = FixedHeader(0x80, 0x60);
    RtpHeader header = {};
    ASSERT_EQ(ParsePacket(packet.data(), packet.size(), &header), PacketKind::RTP);
    EXPECT_EQ(header.payloadType, 96);
    EXPECT_FALSE(header.marker);
}

TEST(RtpPacket, KnowsClocksOfFixedTypes) {
    EXPECT_EQ(StaticClockRate(0), 8000U);
    EXPECT_EQ(StaticClockRate(9), 8000U);
    EXPECT_EQ(StaticClockRate(10), 44100U);
    EXPECT_EQ(StaticClockRate(16), 11025U);
    EXPECT_EQ(StaticClockRate(34), 90000U);
}

TEST(RtpPacket, KnowsNoClockOfOtherTypes) {
    EXPECT_EQ(StaticClockRate(1), 0U);
    EXPECT_EQ(StaticClockRate(35), 0U);
    EXPECT_EQ(StaticClockRate(96), 0U);
    EXPECT_EQ(StaticClockRate(127), 0U);
}

}  // namespace
}  // namespace rtp_monitor
