#include "CmCrc16.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "CmMessageBlock.h"
#include "CmUtilMisc.h"
#include "support/Faults.h"
#include "support/RandomBytes.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::ScopedTraceSink;

const char* const DIGITS = "123456789";

unsigned char* Bytes(const char* aText) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(aText));
}

// The definition, bit by bit.
uint16_t BitByBit(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    for (size_t i = 0; i < aLength; ++i) {
        aCrc = static_cast<uint16_t>(aCrc ^ aData[i]);
        for (int nBit = 0; nBit < 8; ++nBit) {
            aCrc = static_cast<uint16_t>((aCrc >> 1) ^ ((aCrc & 1) != 0 ? 0xA001 : 0));
        }
    }
    return aCrc;
}

TEST(CmCrc16, CheckValueIsThatOfArc_WhenItStartsFromZero) {
    unsigned short wCrc = 0;
    EXPECT_EQ(0xBB3D, CalcCRC16(wCrc, Bytes(DIGITS), 9));
    EXPECT_EQ(0xBB3D, wCrc);
}

TEST(CmCrc16, CheckValueIsThatOfModbus_WhenItStartsFromOnes) {
    unsigned short wCrc = 0xFFFF;
    EXPECT_EQ(0x4B37, CalcCRC16(wCrc, Bytes(DIGITS), 9));
    EXPECT_EQ(0x4B37, wCrc);
}

TEST(CmCrc16, CalcCRC16CarriesTheValueOverCalls) {
    unsigned short wCrc = 0;
    CalcCRC16(wCrc, Bytes("12345"), 5);
    EXPECT_EQ(0xBB3D, CalcCRC16(wCrc, Bytes("6789"), 4));
}

TEST(CmCrc16, CalcCRC16KeepsTheValue_WhenThereIsNoData) {
    unsigned short wCrc = 0x1234;
    EXPECT_EQ(0x1234, CalcCRC16(wCrc, Bytes(DIGITS), 0));
    EXPECT_EQ(0x1234, wCrc);
}

TEST(CmCrc16, CalcCRC16OfNullIsZero_WhateverTheLength) {
    for (const unsigned int dwLength : {0u, 1u, 100000u}) {
        ScopedTraceSink sink;
        unsigned short wCrc = 0x1234;
        EXPECT_EQ(0, CalcCRC16(wCrc, nullptr, dwLength));
        EXPECT_EQ(0x1234, wCrc);
        ASSERT_EQ(1u, sink.lines().size());
        EXPECT_EQ("UTIL ERROR: source/util/CmUtilMisc.cpp:101 Assert failed: pData",
                  sink.lines()[0].text);
    }
}

TEST(CmCrc16, TablesHoldTheReflectedPolynomial) {
    std::memset(CRC16_H_TABLE, 0x55, sizeof(CRC16_H_TABLE));
    std::memset(CRC16_L_TABLE, 0x55, sizeof(CRC16_L_TABLE));
    GenerateCRCTable();
    for (unsigned int i = 0; i < 256; ++i) {
        const unsigned char byData = static_cast<unsigned char>(i);
        const uint16_t wExpected = BitByBit(0, &byData, 1);
        EXPECT_EQ(wExpected & 0xFF, CRC16_H_TABLE[i]) << i;
        EXPECT_EQ(wExpected >> 8, CRC16_L_TABLE[i]) << i;
    }
    // The second entry of the well-known table is 0xC0C1.
    EXPECT_EQ(0xC1, CRC16_H_TABLE[1]);
    EXPECT_EQ(0xC0, CRC16_L_TABLE[1]);
}

TEST(CmCrc16, StepTableIsTheByteTableFollowedByZeros) {
    const std::vector<unsigned char> zeros(CRC16_STEP, 0);
    for (unsigned int i = 0; i < 256; ++i) {
        const unsigned char byData = static_cast<unsigned char>(i);
        for (size_t n = 0; n < CRC16_STEP; ++n) {
            ASSERT_EQ(BitByBit(BitByBit(0, &byData, 1), zeros.data(), n), g_crc16StepTable[n][i]);
        }
    }
}

TEST(CmCrc16, EveryImplementationMatchesTheDefinition_WhateverTheLength) {
    const std::vector<unsigned char> data = kelto_test::RandomBytes(4096 + 16, 7);
    for (size_t nLength = 0; nLength <= 4096; ++nLength) {
        const unsigned char* pData = data.data() + nLength % 16;  // every alignment
        const uint16_t wStart = static_cast<uint16_t>(nLength * 40503);
        const uint16_t wExpected = BitByBit(wStart, pData, nLength);
        ASSERT_EQ(wExpected, CmCrc16ByTable(wStart, pData, nLength)) << nLength;
        for (const CCmCrc16Kernel* pKernel = g_crc16Kernels;
             nLength >= CRC16_STEP && pKernel->m_pszName != nullptr; ++pKernel) {
            if (pKernel->m_pfnIsThere()) {
                ASSERT_EQ(wExpected, pKernel->m_pfnCalculate(wStart, pData, nLength))
                    << pKernel->m_pszName << ' ' << nLength;
            }
        }
        unsigned short wCrc = wStart;
        ASSERT_EQ(wExpected, CalcCRC16(wCrc, const_cast<unsigned char*>(pData),
                                       static_cast<unsigned int>(nLength)))
            << nLength;
    }
}

TEST(CmCrc16, CalcCRC16StaysInsideItsBuffer) {
    // Exact allocations: a sanitizer sees every access beyond them.
    for (size_t nLength = 1; nLength <= 300; ++nLength) {
        std::vector<unsigned char> data =
            kelto_test::RandomBytes(nLength, static_cast<unsigned int>(nLength));
        data.shrink_to_fit();
        unsigned short wCrc = 0;
        ASSERT_EQ(BitByBit(0, data.data(), nLength),
                  CalcCRC16(wCrc, data.data(), static_cast<unsigned int>(nLength)));
    }
}

TEST(CmCrc16, CalcCRC16IsTheSame_WhateverTheSplit) {
    std::vector<unsigned char> data = kelto_test::RandomBytes(200000, 11);
    const uint16_t wExpected = BitByBit(0xFFFF, data.data(), data.size());
    std::mt19937 random(12);
    for (int nRound = 0; nRound < 200; ++nRound) {
        const unsigned int dwMost = 1u << (random() % 17 + 1);
        unsigned short wCrc = 0xFFFF;
        unsigned int dwDone = 0;
        while (dwDone < data.size()) {
            const unsigned int dwPart = std::min(static_cast<unsigned int>(random() % dwMost),
                                                 static_cast<unsigned int>(data.size()) - dwDone);
            CalcCRC16(wCrc, data.data() + dwDone, dwPart);
            dwDone += dwPart;
        }
        ASSERT_EQ(wExpected, wCrc) << nRound;
    }
}

TEST(CmCrc16, CalcCRC16IsRight_WithoutMemoryForTheSingleton) {
    CCmCleanUpBase::CleanupAll();
    std::memset(CRC16_H_TABLE, 0x55, sizeof(CRC16_H_TABLE));
    std::memset(CRC16_L_TABLE, 0x55, sizeof(CRC16_L_TABLE));
    ScopedTraceSink sink;
    kelto_test::ScopedAllocationFault fault(1);
    unsigned short wCrc = 0;
    EXPECT_EQ(BitByBit(0, Bytes("1234"), 4), CalcCRC16(wCrc, Bytes("1234"), 4));
    EXPECT_TRUE(fault.hit());
}

TEST(CmCrc16, CalcCRC16MCoversTheChain) {
    CCmMessageBlock first(4, "1234", 0, 4);
    CCmMessageBlock second(5, "56789", 0, 5);
    first.Append(&second);
    unsigned short wCrc = 0;
    EXPECT_EQ(0xBB3D, CalcCRC16_m(wCrc, first, 9));
    EXPECT_EQ(0xBB3D, wCrc);
    EXPECT_EQ(9u, first.GetChainedLength());
}

TEST(CmCrc16, TablesAreFilled_WhateverTheCall) {
    unsigned short wCrc = 0;
    CCmMessageBlock empty;
    CCmCleanUpBase::CleanupAll();
    std::memset(CRC16_H_TABLE, 0x55, sizeof(CRC16_H_TABLE));
    EXPECT_EQ(0, CalcCRC16_m(wCrc, empty, 0));
    EXPECT_EQ(0xC1, CRC16_H_TABLE[1]);
    CCmCleanUpBase::CleanupAll();
    std::memset(CRC16_H_TABLE, 0x55, sizeof(CRC16_H_TABLE));
    EXPECT_EQ(0, CalcCRC16(wCrc, nullptr, 0));
    EXPECT_EQ(0xC1, CRC16_H_TABLE[1]);
}

TEST(CmCrc16, CalcCRC16MStopsAtTheLength_WhateverBlockItEndsIn) {
    CCmMessageBlock first(4, "1234", 0, 4);
    CCmMessageBlock second(5, "56789", 0, 5);
    first.Append(&second);
    for (unsigned int nLength = 0; nLength <= 9; ++nLength) {
        unsigned short wCrc = 0;
        EXPECT_EQ(BitByBit(0, Bytes(DIGITS), nLength), CalcCRC16_m(wCrc, first, nLength))
            << nLength;
    }
}

TEST(CmCrc16, CalcCRC16MTakesAll_WhenTheLengthIsBeyondTheData) {
    CCmMessageBlock block(9, DIGITS, 0, 9);
    unsigned short wCrc = 0;
    EXPECT_EQ(0xBB3D, CalcCRC16_m(wCrc, block, 0xFFFFFFFF));
}

TEST(CmCrc16, CalcCRC16MSkipsSilently_WhenABlockIsEmpty) {
    ScopedTraceSink sink;
    CCmMessageBlock empty;
    CCmMessageBlock locked;
    locked.SetLock(CCmMessageBlock::READ_LOCKED);
    CCmMessageBlock block(9, DIGITS, 0, 9);
    empty.Append(&locked);
    empty.Append(&block);
    unsigned short wCrc = 0;
    EXPECT_EQ(0xBB3D, CalcCRC16_m(wCrc, empty, 9));
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmCrc16, CalcCRC16MAddsNothingButCounts_WhenABlockIsLocked) {
    ScopedTraceSink sink;
    CCmMessageBlock first(2, "12", 0, 2);
    CCmMessageBlock second(2, "XX", 0, 2);
    CCmMessageBlock third(3, "345", 0, 3);
    first.Append(&second);
    first.Append(&third);
    second.SetLock(CCmMessageBlock::READ_LOCKED);
    unsigned short wCrc = 0;
    EXPECT_EQ(BitByBit(0, Bytes("1234"), 4), CalcCRC16_m(wCrc, first, 6));
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(
        "UTIL ERROR: include/CmMessageBlock.h:306 Assert failed: CM_BIT_DISABLED(m_Flag, "
        "READ_LOCKED)",
        sink.lines()[0].text);
    EXPECT_EQ("UTIL ERROR: source/util/CmUtilMisc.cpp:101 Assert failed: pData",
              sink.lines()[1].text);
}

TEST(CmCrc16, CalcCRC16MTakesBlockLengthsModulo65536) {
    std::vector<unsigned char> data = kelto_test::RandomBytes(70000, 5);
    const char* pData = reinterpret_cast<const char*>(data.data());
    unsigned short wCrc = 0;
    CCmMessageBlock longer(70000, pData, 0, 70000);
    EXPECT_EQ(BitByBit(0, data.data(), 70000 - 65536), CalcCRC16_m(wCrc, longer, 70000));
    wCrc = 0x4321;
    CCmMessageBlock exact(65536, pData, 0, 65536);
    EXPECT_EQ(0x4321, CalcCRC16_m(wCrc, exact, 65536));
    wCrc = 0;
    CCmMessageBlock most(65535, pData, 0, 65535);
    EXPECT_EQ(BitByBit(0, data.data(), 65535), CalcCRC16_m(wCrc, most, 65535));
}

}  // namespace
}  // namespace UTIL_NS
