// What the programs print of bytes that may be anything.
#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

#include "CmProgramText.h"

namespace {

using namespace UTIL_NS;

constexpr int64_t USEC_PER_SEC = 1000000;

class ProgramText : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

struct CEscape {
    const char* reason;
    std::string text;
    std::string printable;
    std::string json;
    std::string xml;
};

const CEscape ESCAPES[] = {
    {"empty", "", "", "\"\"", ""},
    {"plain", "worker 1", "worker 1", "\"worker 1\"", "worker 1"},
    {"marks", "a\"b\\c<d>&'", "a\"b\\c<d>&'", "\"a\\\"b\\\\c<d>&'\"",
     "a&#34;b\\c&#60;d&#62;&#38;&#39;"},
    {"terminal command", "\x1b[2J", "\\x1b[2J", "\"\\u001b[2J\"", "\xEF\xBF\xBD[2J"},
    {"line end", "a\nb\r\t", "a\\x0ab\\x0d\\x09", "\"a\\u000ab\\u000d\\u0009\"",
     "a\xEF\xBF\xBD"
     "b\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"NUL", std::string("a\0b", 3), "a\\x00b", "\"a\\u0000b\"",
     "a\xEF\xBF\xBD"
     "b"},
    {"delete", "\x7F", "\\x7f", "\"\\u007f\"", "\xEF\xBF\xBD"},
    {"two bytes", "\xC3\xA4", "\xC3\xA4", "\"\xC3\xA4\"", "\xC3\xA4"},
    {"four bytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", "\"\xF0\x9F\x98\x80\"",
     "\xF0\x9F\x98\x80"},
    {"8-bit control", "\xC2\x9B", "\\xc2\\x9b", "\"\\u009b\"", "\xEF\xBF\xBD"},
    {"right to left", "\xE2\x80\xAE", "\\xe2\\x80\\xae", "\"\\u202e\"", "\xEF\xBF\xBD"},
    {"Arabic letter mark", "\xD8\x9C", "\\xd8\\x9c", "\"\\u061c\"", "\xEF\xBF\xBD"},
    {"byte alone", "\xFFx", "\\xffx", "\"\\ufffdx\"", "\xEF\xBF\xBDx"},
    {"cut character", "\xE2\x82", "\\xe2\\x82", "\"\\ufffd\\ufffd\"", "\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"longer than need be", "\xC0\xAF", "\\xc0\\xaf", "\"\\ufffd\\ufffd\"",
     "\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"surrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80", "\"\\ufffd\\ufffd\\ufffd\"",
     "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"beyond the last", "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80",
     "\"\\ufffd\\ufffd\\ufffd\\ufffd\"", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
};

TEST_F(ProgramText, HoldsNoCommands_WhateverTheBytes) {
    for (const CEscape& escape : ESCAPES) {
        EXPECT_EQ(CmPrintable(escape.text), escape.printable) << escape.reason;
        EXPECT_EQ(CmJsonText(escape.text), escape.json) << escape.reason;
        EXPECT_EQ(CmXmlText(escape.text), escape.xml) << escape.reason;
    }
}

TEST_F(ProgramText, IsCutByCharacters) {
    EXPECT_EQ(CmCut("worker", 6), "worker");
    EXPECT_EQ(CmCut("worker", 4), "wor\xE2\x80\xA6");
    EXPECT_EQ(CmCut("\xC3\xA4\xC3\xB6\xC3\xBC", 2), "\xC3\xA4\xE2\x80\xA6");
    EXPECT_EQ(CmCut("worker", 1), "\xE2\x80\xA6");
    EXPECT_EQ(CmCut("worker", 0), "");
    EXPECT_EQ(CmPadRight("\xC3\xA4", 3), "\xC3\xA4  ");
    EXPECT_EQ(CmPadLeft("12", 4), "  12");
    EXPECT_EQ(CmPadLeft("12345", 4), "123\xE2\x80\xA6");
}

TEST_F(ProgramText, TakesTheColumnsThatATerminalGivesIt) {
    const std::string strWide = "\xE4\xBC\x9A\xE8\xAE\xAE";  // two characters
    EXPECT_EQ(CmColumns(strWide), 4U);
    EXPECT_EQ(CmColumns("\xF0\x9F\x98\x80"), 2U);
    EXPECT_EQ(CmColumns("a\xCC\x88"), 1U) << "a and its dots";
    EXPECT_EQ(CmColumns("\xC3\xA4\xE2\x80\xA6"), 2U);
    EXPECT_EQ(CmCut(strWide, 4), strWide);
    EXPECT_EQ(CmCut(strWide, 3), "\xE4\xBC\x9A\xE2\x80\xA6");
    EXPECT_EQ(CmCut(strWide, 2), "\xE2\x80\xA6") << "half of one is none";
    EXPECT_EQ(CmPadRight(strWide, 2), "\xE2\x80\xA6 ");
    EXPECT_EQ(CmPadLeft(strWide, 5), " " + strWide);
}

TEST_F(ProgramText, NamesClassesAsTheirSourceDoes) {
    EXPECT_EQ(CmClassName("4CBad"), "CBad");
    EXPECT_EQ(CmClassName("N5media7CPacketE"), "media::CPacket");
    EXPECT_EQ(CmClassName("N5media5COneTIiEE"), "media::COneT<int>");
    EXPECT_EQ(CmClassName("0x7f0012345678"), "0x7f0012345678");
    EXPECT_EQ(CmClassName("x"), "x");
    EXPECT_EQ(CmClassName(""), "");
}

TEST_F(ProgramText, NamesWhatIsLeftOfAClass_WhenTheNameWasCut) {
    EXPECT_EQ(CmClassName("N5media5COneTINS_8CSession"), "media::COneT\xE2\x80\xA6");
    EXPECT_EQ(CmClassName("N12_GLOBAL__N_15CSend"), "(anonymous namespace)::CSend\xE2\x80\xA6");
    EXPECT_EQ(CmClassName("N5media9CPack"), "media::CPack\xE2\x80\xA6");
    EXPECT_EQ(CmClassName("99999999999999999999999x"), "99999999999999999999999x");
}

TEST_F(ProgramText, ClassNamesAreBounded_WhenFewBytesStandForMany) {
    // Each pair is of the one before, twice.
    std::string strName = "St4pairI4CBad4CBadE";
    for (const char* pszPair : {"S_", "S1_", "S2_", "S3_"}) {
        strName = "St4pairI" + strName + pszPair + "E";
    }
    EXPECT_LE(CmClassName(strName).size(), 4100U);
}

// Each level is of the one before, four times; the room that a recording has is for a gigabyte.
TEST_F(ProgramText, NamesWhatIsLeftOfAClass_WhenItsReferencesMultiply) {
    std::string strName = "1xI1aIcE1bIS1_S1_S1_S1_E";
    for (const char* pszBefore : {"S3_", "S4_", "S5_", "S6_", "S7_", "S8_"}) {
        strName += "S2_I";
        for (int i = 0; i < 4; ++i) {
            strName += pszBefore;
        }
        strName += "E";
    }
    EXPECT_EQ(CmClassName(strName + "E"), "x\xE2\x80\xA6");
}

TEST_F(ProgramText, NamesAClassThatRefersToItsPartsAsOftenAsRealOnesDo) {
    std::string strName = "N5media5COneTI";
    std::string strArguments;
    for (int i = 0; i < 20; ++i) {
        strName += "NS_1AE";
        strArguments += i == 0 ? "media::A" : ", media::A";
    }
    EXPECT_EQ(CmClassName(strName + "EE"), "media::COneT<" + strArguments + ">");
}

TEST_F(ProgramText, ShortensClassesToTheirOwnName) {
    EXPECT_EQ(CmShortClassName("CPacket"), "CPacket");
    EXPECT_EQ(CmShortClassName("media::CPacket"), "CPacket");
    EXPECT_EQ(CmShortClassName("media::COneT<a::b<c>, d>"), "COneT<\xE2\x80\xA6>");
    EXPECT_EQ(CmShortClassName("(anonymous namespace)::CSend"), "CSend");
    EXPECT_EQ(CmShortClassName("a::"), "a::");
    EXPECT_EQ(CmShortClassName("a>b"), "a>b");
}

TEST_F(ProgramText, ALambdaIsCalledByItsFunction) {
    EXPECT_EQ(CmShortClassName("main::{lambda()#1}"), "main");
    EXPECT_EQ(CmShortClassName("N::CEventT<media::CSource::Read(media::CBlock&&)::{lambda()#1}>"),
              "CSource::Read");
    EXPECT_EQ(CmShortClassName("N::CEventT<media::CSource::Read(int)::$_0>"), "CSource::Read");
    EXPECT_EQ(CmShortClassName("N::CEventT<int, void N::Put<a::B>(a::B) const::{lambda(int)#2}>"),
              "N::Put<\xE2\x80\xA6>");
    EXPECT_EQ(CmShortClassName("N::CCallT<N::(anonymous namespace)::Put(N::C&)::{lambda()#1}::"
                               "operator()() const::{lambda()#1}>"),
              "(\xE2\x80\xA6)::Put");
    EXPECT_EQ(CmShortClassName("N::CEventT<N::s_x::{lambda()#1}>"), "N::s_x");
    EXPECT_EQ(CmShortClassName("::{lambda()#1}"), "{\xE2\x80\xA6}");
    EXPECT_EQ(CmShortClassName(")>::{lambda("), ")>");
    EXPECT_EQ(CmShortClassName("<(::{lambda("), "<");
}

TEST_F(ProgramText, LengthsHaveTheirUnit) {
    EXPECT_EQ(CmLengthText(0), "0us");
    EXPECT_EQ(CmLengthText(999), "999us");
    EXPECT_EQ(CmLengthText(1000), "1.0ms");
    EXPECT_EQ(CmLengthText(9960), "10ms");
    EXPECT_EQ(CmLengthText(300000), "300ms");
    EXPECT_EQ(CmLengthText(2500000), "2.5s");
    EXPECT_EQ(CmLengthText(3600 * USEC_PER_SEC), "1.0h");
    EXPECT_EQ(CmLengthText(-5), "-5us");
}

TEST_F(ProgramText, CountsTakeFiveColumnsAtMost) {
    EXPECT_EQ(CmCountText(99999), "99999");
    EXPECT_EQ(CmCountText(100000), "100k");
    EXPECT_EQ(CmCountText(1234567), "1.2M");
    EXPECT_EQ(CmCountText(UINT64_MAX), "18E");
    for (uint64_t ullCount = 1; ullCount < UINT64_MAX / 3; ullCount = ullCount * 3 + 1) {
        EXPECT_LE(CmCountText(ullCount).size(), 5U) << ullCount;
    }
}

TEST_F(ProgramText, TimesAreReadAsTheyArePrinted) {
    const int64_t llUsec = INT64_C(1795339800) * USEC_PER_SEC + 250001;
    EXPECT_EQ(CmTimeText(llUsec), "2026-11-22 09:30:00.250001");
    EXPECT_EQ(CmClockText(llUsec), "09:30:00.250001");
    EXPECT_EQ(CmTimeText(-1), "-1");
    EXPECT_EQ(CmTimeText(INT64_MAX), "9223372036854775807");
    int64_t llRead = 0;
    for (const char* pszText : {"2026-11-22 09:30:00.250001", "2026-11-22T09:30:00.250001",
                                "09:30:00.250001", "@1795339800.250001"}) {
        EXPECT_TRUE(CmReadTime(pszText, llUsec, &llRead)) << pszText;
        EXPECT_EQ(llRead, llUsec) << pszText;
    }
    EXPECT_TRUE(CmReadTime("09:31", llUsec, &llRead));
    EXPECT_EQ(llRead, INT64_C(1795339860) * USEC_PER_SEC);
}

TEST_F(ProgramText, TimesAreRefused_WhenTheyAreNone) {
    int64_t llRead = 0;
    for (const char* pszText :
         {"", "now", "9:30", "09:30:", "09:30:0", "24:00", "09:60", "09:30:61", "09:30:00.", "@",
          "@-1", "@1.1234567", "2026-13-01 09:30", "2026-11-22", "2026-11-22x09:30", "09:30x",
          "2026-02-29 09:30", "2026-11-31 09:30", "2026-11-00 09:30"}) {
        EXPECT_FALSE(CmReadTime(pszText, 0, &llRead)) << pszText;
    }
}

TEST_F(ProgramText, NumbersAreRefused_WhenTheyAreNone) {
    uint64_t ullNumber = 0;
    EXPECT_TRUE(CmReadNumber("0", 9, &ullNumber));
    EXPECT_TRUE(CmReadNumber("18446744073709551599", UINT64_MAX, &ullNumber));
    for (const char* pszText : {"", "-1", "+1", " 1", "1x", "10", "99999999999999999999999"}) {
        EXPECT_FALSE(CmReadNumber(pszText, 9, &ullNumber)) << pszText;
    }
}

}  // namespace
