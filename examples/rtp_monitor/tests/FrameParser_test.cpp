#include "FrameParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace rtp_monitor {
namespace {

typedef std::vector<unsigned char> Bytes;

constexpr uint32_t ETHERNET = 1;
constexpr uint32_t RAW = 101;

// An IPv4 packet with 8 bytes after its UDP header.
const Bytes UDP_PACKET = {0x45, 0, 0,    36,   0,    0,    0, 0,  64, 17, 0, 0, 10, 0, 0, 1, 10, 0,
                          0,    2, 0x0F, 0xA0, 0x13, 0x8C, 0, 16, 0,  0,  1, 2, 3,  4, 5, 6, 7,  8};

EFrame Find(uint32_t aLinkType, const Bytes& aThere, size_t aWireSize, CUdpPacket* aPacket) {
    // A copy of exactly this size, so that an address sanitizer sees a byte read too many.
    const Bytes there(aThere.begin(), aThere.end());
    return FindUdp(aLinkType, there.data(), static_cast<uint32_t>(there.size()),
                   static_cast<uint32_t>(aWireSize), aPacket);
}

TEST(FrameParser, FindsPayloadAndAddresses) {
    CUdpPacket packet;
    ASSERT_EQ(Find(RAW, UDP_PACKET, UDP_PACKET.size(), &packet), EFrame::UDP);
    EXPECT_EQ(FormatSource(packet.key), "10.0.0.1:4000");
    EXPECT_EQ(FormatDestination(packet.key), "10.0.0.2:5004");
    EXPECT_EQ(packet.offset, 28U);
    EXPECT_EQ(packet.size, 8U);
    EXPECT_EQ(packet.wireSize, 8U);
}

TEST(FrameParser, TellsHowMuchIsThere_WhenItIsCutOff) {
    for (size_t nThere = 0; nThere <= UDP_PACKET.size(); ++nThere) {
        CUdpPacket packet;
        const Bytes there(UDP_PACKET.begin(), UDP_PACKET.begin() + static_cast<long>(nThere));
        const EFrame frame = Find(RAW, there, UDP_PACKET.size(), &packet);
        if (nThere < 28) {
            EXPECT_EQ(frame, EFrame::CUT_OFF) << nThere;
        } else {
            EXPECT_EQ(frame, EFrame::UDP) << nThere;
            EXPECT_EQ(packet.size, nThere - 28);
            EXPECT_EQ(packet.wireSize, 8U);
        }
    }
}

// Whatever the bytes are, what is found lies within them. The memory is the sanitizer's to watch.
TEST(FrameParser, StaysWithinTheFrame_WhateverItHolds) {
    std::mt19937 chance(1);
    constexpr uint32_t LINK_TYPES[] = {0, 1, 12, 101, 108, 113, 228, 229, 276};
    int nFound = 0;
    for (int i = 0; i < 200000; ++i) {
        Bytes frame(chance() % 120);
        for (unsigned char& by : frame) {
            by = static_cast<unsigned char>(chance() % 4 == 0 ? chance() : 0);
        }
        const uint32_t dwLink = LINK_TYPES[chance() % 9];
        if (chance() % 2 == 0 && frame.size() > 60) {
            const Bytes start = {0x60, 0, 0, 0, 0, 60, static_cast<unsigned char>(chance() % 64)};
            std::copy(start.begin(), start.end(), frame.begin());
        }
        CUdpPacket packet;
        if (Find(dwLink, frame, frame.size() + chance() % 3, &packet) == EFrame::UDP) {
            ++nFound;
            ASSERT_LE(packet.size, packet.wireSize);
            ASSERT_LE(packet.offset + packet.size, frame.size());
        }
    }
    EXPECT_GT(nFound, 0);
}

TEST(FrameParser, SkipsLinkTypesThatItDoesNotKnow) {
    CUdpPacket packet;
    EXPECT_EQ(Find(105, UDP_PACKET, UDP_PACKET.size(), &packet), EFrame::OTHER_LINK_TYPE);
    EXPECT_EQ(Find(ETHERNET, UDP_PACKET, UDP_PACKET.size(), &packet), EFrame::NOT_IP);
}

}  // namespace
}  // namespace rtp_monitor
