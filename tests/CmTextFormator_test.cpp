#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>

#include "CmT120Trace.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

class CmTextFormator : public testing::Test {
  protected:
    std::string Text() const { return m_achBuffer; }

    char m_achBuffer[2048];
    CCmT120Trace::Text_Formator m_formator{m_achBuffer, sizeof(m_achBuffer)};
};

constexpr CCmT120Trace::Ordix HEX = CCmT120Trace::ORDIX_HEX;
constexpr CCmT120Trace::Ordix DEC = CCmT120Trace::ORDIX_DEC;

TEST_F(CmTextFormator, ConstructorZeroFillsTheWholeBuffer) {
    char achBuffer[300];
    std::fill(std::begin(achBuffer), std::end(achBuffer), 'z');
    CCmT120Trace::Text_Formator formator(achBuffer, sizeof(achBuffer));
    EXPECT_EQ(std::string(sizeof(achBuffer), '\0'), std::string(achBuffer, sizeof(achBuffer)));
    EXPECT_EQ(0u, formator.tell());
    EXPECT_EQ(0, formator.get_hex_flag());
}

TEST_F(CmTextFormator, ResetStartsAfresh) {
    m_formator << "some text" << HEX;
    m_achBuffer[2047] = 'z';
    m_formator.reset();
    EXPECT_EQ(0u, m_formator.tell());
    EXPECT_EQ(0, m_formator.get_hex_flag());
    EXPECT_EQ(std::string(2048, '\0'), std::string(m_achBuffer, sizeof(m_achBuffer)));
    m_formator << 5;
    EXPECT_EQ("5", Text());
}

TEST_F(CmTextFormator, ConversionGivesTheBuffer) {
    EXPECT_EQ(m_achBuffer, static_cast<char*>(m_formator));
}

TEST_F(CmTextFormator, TellCountsTheBytesWritten) {
    m_formator << "abc" << 12;
    EXPECT_EQ(5u, m_formator.tell());
}

TEST_F(CmTextFormator, AppendReturnsTheFormator) {
    EXPECT_EQ(&m_formator, &(m_formator << 'a'));
    EXPECT_EQ(&m_formator, &(m_formator << 1.5));
    EXPECT_EQ(&m_formator, &(m_formator << "text"));
    EXPECT_EQ(&m_formator, &(m_formator << HEX));
}

TEST_F(CmTextFormator, PrintsAsNumbers_WhenIntegersAreSmall) {
    m_formator << 'A' << " " << static_cast<unsigned char>(200) << " " << static_cast<short>(-7)
               << " " << static_cast<unsigned short>(65535) << " " << static_cast<char>(-1);
    EXPECT_EQ("65 200 -7 65535 -1", Text());
}

TEST_F(CmTextFormator, PrintsInHexadecimalAsInt_WhenIntegersAreSmall) {
    m_formator << HEX << 'A' << " " << HEX << static_cast<unsigned char>(200) << " " << HEX
               << static_cast<short>(-1) << " " << HEX << static_cast<unsigned short>(65535) << " "
               << HEX << '\x80';
    EXPECT_EQ("41 c8 ffffffff ffff ffffff80", Text());
}

TEST_F(CmTextFormator, IntPrintsItsWholeRange) {
    m_formator << INT_MIN << " " << -1 << " " << 0 << " " << INT_MAX;
    EXPECT_EQ("-2147483648 -1 0 2147483647", Text());
}

TEST_F(CmTextFormator, UnsignedIntPrintsItsWholeRange) {
    m_formator << 0u << " " << UINT_MAX;
    EXPECT_EQ("0 4294967295", Text());
}

TEST_F(CmTextFormator, LongPrintsItsWholeRange) {
    m_formator << LONG_MIN << " " << 0L << " " << LONG_MAX;
    EXPECT_EQ("-9223372036854775808 0 9223372036854775807", Text());
}

TEST_F(CmTextFormator, UnsignedLongPrintsItsWholeRange) {
    m_formator << 0UL << " " << ULONG_MAX;
    EXPECT_EQ("0 18446744073709551615", Text());
}

TEST_F(CmTextFormator, DecimalEqualsTheSystemsPrinting) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 20000; ++i) {
        const unsigned long ulValue = random() >> (random() % 64);
        char achExpected[32];
        std::snprintf(achExpected, sizeof(achExpected), "%lu", ulValue);
        m_formator.reset();
        m_formator << ulValue;
        ASSERT_EQ(achExpected, Text());
    }
}

TEST_F(CmTextFormator, HexEqualsTheSystemsPrinting) {
    std::mt19937_64 random(2);
    for (int i = 0; i < 20000; ++i) {
        const unsigned long ulValue = random() >> (random() % 64);
        char achExpected[32];
        std::snprintf(achExpected, sizeof(achExpected), "%lx", ulValue);
        m_formator.reset();
        m_formator << CCmT120Trace::ORDIX_HEX << ulValue;
        ASSERT_EQ(achExpected, Text());
    }
}

TEST_F(CmTextFormator, NumbersEqualTheSystemsPrinting_WhereverTheNextDigitComes) {
    const auto expect = [this](unsigned long aValue) {
        char achExpected[48];
        std::snprintf(achExpected, sizeof(achExpected), "%lu %lx", aValue, aValue);
        m_formator.reset();
        m_formator << aValue << " " << HEX << aValue;
        EXPECT_EQ(achExpected, Text());
    };
    for (const unsigned long ulBase : {10UL, 16UL}) {
        for (unsigned long ulPower = 1; ulPower <= ULONG_MAX / ulBase; ulPower *= ulBase) {
            expect(ulPower * ulBase - 1);
            expect(ulPower * ulBase);
            expect(ulPower * ulBase + 1);
        }
    }
}

TEST_F(CmTextFormator, HexPrintsEveryIntegerType) {
    m_formator << HEX << 255 << " " << HEX << -1 << " " << HEX << 0xABCDEFu << " " << HEX << -1L
               << " " << HEX << 0x123456789ABCDEF0UL << " " << HEX << 0;
    EXPECT_EQ("ff ffffffff abcdef ffffffffffffffff 123456789abcdef0 0", Text());
}

TEST_F(CmTextFormator, HexLastsForOneInteger) {
    m_formator << HEX << 255 << " " << 255;
    EXPECT_EQ("ff 255", Text());
}

TEST_F(CmTextFormator, HexIsClearedByEveryIntegerUpToLong) {
    m_formator << HEX << 'a';
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << static_cast<unsigned char>(1);
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << static_cast<short>(1);
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << static_cast<unsigned short>(1);
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << 1;
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << 1u;
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << 1L;
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator << HEX << 1UL;
    EXPECT_EQ(0, m_formator.get_hex_flag());
}

TEST_F(CmTextFormator, HexIsLeftByTextAndFractions) {
    m_formator << HEX << "text" << std::string("more") << 1.0f << 1.0
               << static_cast<char const*>(nullptr);
    EXPECT_EQ(1, m_formator.get_hex_flag());
}

TEST_F(CmTextFormator, UnsignedLongLongPrintsAsUnsignedLong) {
    m_formator << 0ULL << " " << ULLONG_MAX << " " << HEX << ULLONG_MAX << " " << 255ULL << " "
               << HEX << 0ULL;
    EXPECT_EQ("0 18446744073709551615 ffffffffffffffff 255 0", Text());
    m_formator << HEX << 1ULL;
    EXPECT_EQ(0, m_formator.get_hex_flag());
}

// Whatever the platform takes them for.
TEST_F(CmTextFormator, PrintsFixedWidths) {
    m_formator << UINT64_C(18446744073709551615) << " " << INT64_C(-5) << " " << UINT32_C(7);
    EXPECT_EQ("18446744073709551615 -5 7", Text());
}

TEST_F(CmTextFormator, LongLongIgnoresAndKeepsTheHexFlag) {
    m_formator << HEX << 255LL << " " << 255;
    EXPECT_EQ("255 ff", Text());
}

TEST_F(CmTextFormator, LongLongPrintsZeroWithASign) {
    m_formator << 0LL;
    EXPECT_EQ("-0", Text());
}

TEST_F(CmTextFormator, LongLongPrintsItsWholeRange) {
    m_formator << LLONG_MIN << " " << -45LL << " " << LLONG_MAX;
    EXPECT_EQ("-9223372036854775808 -45 9223372036854775807", Text());
}

TEST_F(CmTextFormator, OrdixChangesNothing_WhenTheValueIsAnother) {
    m_formator << HEX << static_cast<CCmT120Trace::Ordix>(2);
    EXPECT_EQ(1, m_formator.get_hex_flag());
    m_formator << DEC << static_cast<CCmT120Trace::Ordix>(2);
    EXPECT_EQ(0, m_formator.get_hex_flag());
    EXPECT_EQ(0u, m_formator.tell());
}

TEST_F(CmTextFormator, SetHexFlagIsWhatGetReturns) {
    m_formator.set_hex_flag(7);
    EXPECT_EQ(7, m_formator.get_hex_flag());
    m_formator << 16;
    EXPECT_EQ("10", Text());
}

TEST_F(CmTextFormator, FractionsPrintSixDecimals) {
    m_formator << 1.5 << " " << -0.0000001 << " " << 2.5f << " "
               << std::numeric_limits<double>::infinity() << " " << std::nan("");
    EXPECT_EQ("1.500000 -0.000000 2.500000 inf nan", Text());
}

TEST_F(CmTextFormator, FractionsPrintTheLargestDoubleInFull) {
    m_formator << std::numeric_limits<double>::max();
    EXPECT_EQ(316u, m_formator.tell());  // 309 digits, the point, 6 decimals
    EXPECT_EQ("17976931348623157081", Text().substr(0, 20));
    EXPECT_EQ(".000000", Text().substr(309));
}

TEST_F(CmTextFormator, AppendsNothing_WhenTheTextIsNull) {
    m_formator << "ab" << static_cast<char const*>(nullptr);
    EXPECT_EQ(2u, m_formator.tell());
    EXPECT_EQ("ab", Text());
}

TEST_F(CmTextFormator, AppendsTheTextOfAString) {
    m_formator << CCmString("first ") << CCmString() << CCmString("second");
    EXPECT_EQ("first second", Text());
}

TEST_F(CmTextFormator, PointerPrintsInHexadecimal) {
    m_formator << reinterpret_cast<void*>(0x7fff12345678) << " " << 16;
    EXPECT_EQ("0x7fff12345678 16", Text());
    m_formator.reset();
    m_formator << HEX << static_cast<void*>(nullptr);
    EXPECT_EQ("0x0", Text());
    EXPECT_EQ(0, m_formator.get_hex_flag());
}

TEST_F(CmTextFormator, PointerIsPrinted_WhenConstOrNull) {
    int nObject = 0;
    int* const pObject = &nObject;
    m_formator << HEX << static_cast<void*>(pObject);
    const std::string sAddress = Text();
    m_formator.reset();
    m_formator << HEX << static_cast<const void*>(pObject);
    EXPECT_EQ(sAddress, Text());
    EXPECT_EQ(0, m_formator.get_hex_flag());
    m_formator.reset();
    m_formator << pObject << static_cast<const int*>(pObject);
    EXPECT_EQ(sAddress + sAddress, Text());
    m_formator.reset();
    m_formator << HEX << nullptr << " " << 16;
    EXPECT_EQ("0x0 16", Text());
}

TEST_F(CmTextFormator, AppendKeepsTheLast96BytesFree) {
    m_formator << std::string(3000, 'x');
    EXPECT_EQ(1952u, m_formator.tell());
    EXPECT_EQ(std::string(1952, 'x'), Text());
    EXPECT_EQ(std::string(96, '\0'), std::string(m_achBuffer + 1952, 96));
}

TEST_F(CmTextFormator, AppendCutsANumber_WhenItMeetsTheEnd) {
    m_formator << std::string(1950, 'x') << 12345 << 678 << "y";
    EXPECT_EQ(1952u, m_formator.tell());
    EXPECT_EQ("xx12", Text().substr(1948));
}

TEST_F(CmTextFormator, AppendCutsANumber_WhateverDigitMeetsTheEnd) {
    for (size_t nRoom = 0; nRoom <= 100; ++nRoom) {
        m_formator.reset();
        m_formator << std::string(1952 - nRoom, 'x') << LONG_MIN;
        EXPECT_EQ(std::string("-9223372036854775808").substr(0, nRoom),
                  Text().substr(1952 - nRoom));
        EXPECT_EQ(std::string(96, '\0'), std::string(m_achBuffer + 1952, 96));
    }
}

TEST_F(CmTextFormator, AppendTakesNothing_WhenThereAre96BytesOrFewer) {
    for (unsigned long ulSize : {0UL, 1UL, 50UL, 95UL, 96UL}) {
        char achBuffer[97];
        std::fill(std::begin(achBuffer), std::end(achBuffer), 'z');
        CCmT120Trace::Text_Formator formator(achBuffer, ulSize);
        formator << "text" << 5 << 1.5 << 6LL;
        EXPECT_EQ(0u, formator.tell());
        EXPECT_EQ(std::string(ulSize, '\0') + std::string(97 - ulSize, 'z'),
                  std::string(achBuffer, sizeof(achBuffer)));
    }
}

TEST_F(CmTextFormator, AppendTakesOneByte_WhenThereAre97) {
    char achBuffer[97];
    CCmT120Trace::Text_Formator formator(achBuffer, sizeof(achBuffer));
    formator << "text";
    EXPECT_EQ(1u, formator.tell());
    EXPECT_STREQ("t", achBuffer);
}

TEST_F(CmTextFormator, AppendTakesNothing_WithoutABuffer) {
    CCmT120Trace::Text_Formator formator(nullptr, 2048);
    formator << "text" << 5 << 1.5 << 6LL;
    formator.reset();
    EXPECT_EQ(0u, formator.tell());
    EXPECT_EQ(nullptr, static_cast<char*>(formator));
}

TEST_F(CmTextFormator, AppendNeverAllocates) {
    const std::string sText(100, 't');
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    m_formator << sText << "text" << 1 << 2u << 3L << 4UL << 5LL << 1.5 << 2.5f << HEX << 255
               << static_cast<void*>(this);
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
}

}  // namespace
}  // namespace UTIL_NS
