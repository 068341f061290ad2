#include "StreamKey.h"

#include <gtest/gtest.h>

#include "StreamIndex.h"

namespace rtp_monitor {
namespace {

CStreamKey Key(uint32_t aSource) {
    CStreamKey key;
    key.source = {127, 0, 0, 1};
    key.destination = {127, 0, 0, 2};
    key.sourcePort = 5000;
    key.destinationPort = 5004;
    key.ipVersion = 4;
    key.ssrc = aSource;
    return key;
}

TEST(CStreamKey, OrdersByAddressesAndSource) {
    const CStreamKey key = Key(5);
    CStreamKey other = key;
    EXPECT_FALSE(key < other);
    other.ssrc = 6;
    EXPECT_TRUE(key < other);
    other.source[0] = 0;
    EXPECT_TRUE(other < key);
}

TEST(CStreamKey, SpreadsNeighbours) {
    int nFirst = 0;
    for (uint32_t dwSource = 0; dwSource < 1000; ++dwSource) {
        nFirst += CStreamKeyHash()(Key(dwSource)) % 2 == 0 ? 1 : 0;
    }
    EXPECT_GT(nFirst, 400);
    EXPECT_LT(nFirst, 600);
}

TEST(CStreamKey, PrintsBothFamilies) {
    CStreamKey key = Key(1);
    EXPECT_EQ(FormatSource(key), "127.0.0.1:5000");
    EXPECT_EQ(FormatDestination(key), "127.0.0.2:5004");
    key.ipVersion = 6;
    key.source = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(FormatSource(key), "[2001:db8::1]:5000");
}

uint32_t Find(CStreamIndex* aIndex, uint32_t aSource, bool aExpectNew) {
    bool bNew = !aExpectNew;
    const uint32_t dwPlace = aIndex->Find(Key(aSource), &bNew);
    EXPECT_EQ(bNew, aExpectNew) << aSource;
    return dwPlace;
}

TEST(CStreamIndex, GivesEveryStreamItsPlace) {
    CStreamIndex index(10);
    for (uint32_t dwSource = 0; dwSource < 10; ++dwSource) {
        EXPECT_EQ(Find(&index, dwSource, true), dwSource);
    }
    for (uint32_t dwSource = 0; dwSource < 10; ++dwSource) {
        EXPECT_EQ(Find(&index, dwSource, false), dwSource);
    }
}

TEST(CStreamIndex, GivesThePlaceOfTheLeastRecentlyHeard_WhenThereIsNoOther) {
    CStreamIndex index(3);
    Find(&index, 100, true);
    Find(&index, 101, true);
    Find(&index, 102, true);
    Find(&index, 100, false);  // 101 is the oldest now
    EXPECT_EQ(Find(&index, 103, true), 1U);
    EXPECT_EQ(Find(&index, 101, true), 2U);  // in the place of 102
    EXPECT_EQ(Find(&index, 100, false), 0U);
}

}  // namespace
}  // namespace rtp_monitor
