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

struct CCase {
    const char* name;
    Bytes packet;
    EPacketKind kind;
    uint32_t headerSize;
    uint32_t paddingSize;
};

std::ostream& operator<<(std::ostream& aStream, const CCase& aCase) {
    return aStream << aCase.name;
}

class RtpPacketTable : public testing::TestWithParam<CCase> {};

TEST_P(RtpPacketTable, TellsKindHeaderAndPadding) {
    const CCase& expected = GetParam();
    CRtpHeader header = {};
    // A copy of exactly this size, so that an address sanitizer sees a byte read too many.
    const Bytes packet(expected.packet);
    EXPECT_EQ(ParsePacket(packet.data(), packet.size(), packet.size(), &header), expected.kind);
    EXPECT_EQ(header.payloadSize, expected.kind == EPacketKind::RTP
                                      ? packet.size() - expected.headerSize - expected.paddingSize
                                      : 0);
}

const Bytes FOUR = {0, 0, 0, 0};

INSTANTIATE_TEST_SUITE_P(
    Packets, RtpPacketTable,
    testing::Values(
        CCase{"Empty", {}, EPacketKind::OTHER, 0, 0},
        CCase{"ThreeBytes", {0x80, 0x60, 0}, EPacketKind::OTHER, 0, 0},
        CCase{"ElevenBytes", {0x80, 0x60, 0, 1, 0, 0, 0, 0, 0, 0, 0}, EPacketKind::OTHER, 0, 0},
        CCase{"HeaderOnly", FixedHeader(), EPacketKind::RTP, 12, 0},
        CCase{"Payload", FixedHeader() + Bytes{1, 2, 3}, EPacketKind::RTP, 12, 0},
        CCase{"Version0", FixedHeader(0x00), EPacketKind::OTHER, 0, 0},
        CCase{"Version1", FixedHeader(0x40), EPacketKind::OTHER, 0, 0},
        CCase{"Version3", FixedHeader(0xC0), EPacketKind::OTHER, 0, 0},
        CCase{"TwoSources", FixedHeader(0x82) + FOUR + FOUR, EPacketKind::RTP, 20, 0},
        CCase{"FifteenSources", FixedHeader(0x8F) + Bytes(60), EPacketKind::RTP, 72, 0},
        CCase{"SourcesCutOff", FixedHeader(0x82) + FOUR + Bytes{0, 0, 0}, EPacketKind::OTHER, 0, 0},
        CCase{"EmptyExtension", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0, 0}, EPacketKind::RTP, 16,
              0},
        CCase{"Extension", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0, 1} + FOUR + Bytes{9},
              EPacketKind::RTP, 20, 0},
        CCase{"ExtensionAfterSources", FixedHeader(0x91) + FOUR + Bytes{0, 0, 0, 2} + FOUR + FOUR,
              EPacketKind::RTP, 28, 0},
        CCase{"ExtensionHeaderCutOff", FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0}, EPacketKind::OTHER,
              0, 0},
        CCase{"ExtensionCutOff", FixedHeader(0x90) + Bytes{0, 0, 0, 2} + FOUR + Bytes{0, 0, 0},
              EPacketKind::OTHER, 0, 0},
        CCase{"LongestExtensionCutOff", FixedHeader(0x90) + Bytes{0, 0, 0xFF, 0xFF} + FOUR,
              EPacketKind::OTHER, 0, 0},
        CCase{"Padding", FixedHeader(0xA0) + Bytes{7, 0, 2}, EPacketKind::RTP, 12, 2},
        CCase{"PaddingOnly", FixedHeader(0xA0) + Bytes{0, 0, 0, 4}, EPacketKind::RTP, 12, 4},
        CCase{"PaddingOfNothing", FixedHeader(0xA0) + Bytes{7, 7, 0}, EPacketKind::OTHER, 0, 0},
        CCase{"PaddingLongerThanPayload", FixedHeader(0xA0) + Bytes{0, 0, 4}, EPacketKind::OTHER, 0,
              0},
        CCase{"PaddingWithoutPayload", FixedHeader(0xA0), EPacketKind::OTHER, 0, 0},
        CCase{"PaddingIntoTheExtension", FixedHeader(0xB0) + Bytes{0, 0, 0, 1, 0, 0, 0, 3},
              EPacketKind::OTHER, 0, 0},
        CCase{"SenderReport", FixedHeader(0x80, 200), EPacketKind::RTCP, 0, 0},
        CCase{"ReceiverReportWithoutBlocks", {0x80, 201, 0, 1}, EPacketKind::RTCP, 0, 0},
        CCase{"TransportFeedback", FixedHeader(0x81, 205), EPacketKind::RTCP, 0, 0},
        CCase{"PictureLossIndication", FixedHeader(0x81, 206), EPacketKind::RTCP, 0, 0},
        CCase{"LowestRtcpType", FixedHeader(0x80, 192), EPacketKind::RTCP, 0, 0},
        CCase{"HighestRtcpType", FixedHeader(0x80, 223), EPacketKind::RTCP, 0, 0},
        CCase{"TypeBelowRtcp", FixedHeader(0x80, 191), EPacketKind::RTP, 12, 0},
        CCase{"TypeAboveRtcp", FixedHeader(0x80, 224), EPacketKind::RTP, 12, 0}),
    [](const testing::TestParamInfo<CCase>& aInfo) { return std::string(aInfo.param.name); });

// What is known of a packet of which only the first bytes were captured.
TEST(RtpPacket, TakesThePayloadFromTheWire_WhenThePacketIsCutOff) {
    const struct {
        Bytes there;
        size_t wireSize;
        EPacketKind kind;
        uint32_t payloadSize;
    } cases[] = {
        {FixedHeader(), 172, EPacketKind::RTP, 160},
        {FixedHeader() + Bytes{1, 2, 3}, 172, EPacketKind::RTP, 160},
        {FixedHeader(0xA0) + Bytes{9}, 172, EPacketKind::RTP, 160},  // the padding is not known
        {FixedHeader(0x82), 172, EPacketKind::RTP, 152},
        {FixedHeader(0x90) + Bytes{0xBE, 0xDE, 0, 1}, 172, EPacketKind::RTP, 152},
        {FixedHeader(0x90), 172, EPacketKind::RTP, 156},  // nor is the extension's length
        {FixedHeader(0x8F), 71, EPacketKind::OTHER, 0},
        {FixedHeader(0x90) + Bytes{0, 0, 1, 0}, 172, EPacketKind::OTHER, 0},
        {{0x80, 0x60, 0, 1, 0, 0, 0, 0, 0, 0, 0}, 172, EPacketKind::CUT_OFF, 0},
        {{0x80, 0x60, 0}, 172, EPacketKind::CUT_OFF, 0},
        {{0x80, 200, 0, 1}, 172, EPacketKind::RTCP, 0},
        {{}, 172, EPacketKind::CUT_OFF, 0},
    };
    for (const auto& expected : cases) {
        CRtpHeader header = {};
        EXPECT_EQ(
            ParsePacket(expected.there.data(), expected.there.size(), expected.wireSize, &header),
            expected.kind);
        EXPECT_EQ(header.payloadSize, expected.payloadSize);
    }
}

TEST(RtpPacket, ReadsFieldsInNetworkOrder) {
    const Bytes packet = FixedHeader(0x80, 0xE0);
    CRtpHeader header = {};
    ASSERT_EQ(ParsePacket(packet.data(), packet.size(), packet.size(), &header), EPacketKind::RTP);
    EXPECT_EQ(header.payloadType, 96);
    EXPECT_TRUE(header.marker);
    EXPECT_EQ(header.sequence, 0x1234);
    EXPECT_EQ(header.timestamp, 0x01020304U);
    EXPECT_EQ(header.ssrc, 0xA1B2C3D4U);
}

TEST(RtpPacket, MarkerIsNoPartOfTheType) {
    const Bytes packet = FixedHeader(0x80, 0x60);
    CRtpHeader header = {};
    ASSERT_EQ(ParsePacket(packet.data(), packet.size(), packet.size(), &header), EPacketKind::RTP);
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
