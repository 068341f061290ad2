#include "CmStrict.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>
#include <string>
#include <vector>

#include "support/Faults.h"
#include "support/TraceSink.h"

using namespace UTIL_NS;

namespace {

constexpr size_t GOOD = static_cast<size_t>(-1);  // where a right text fails

// A refusal has everything that its caller wants to say.
void ExpectAnswer(const CCmParsed& aParsed, CmResult aResult, size_t aAt,
                  const std::string& aText) {
    EXPECT_EQ(aResult, aParsed.m_Result) << aText;
    EXPECT_EQ(aResult == CM_OK, static_cast<bool>(aParsed)) << aText;
    EXPECT_EQ(aResult == CM_OK, aParsed.m_pszExpected == nullptr) << aText;
    EXPECT_EQ(aResult == CM_OK ? 0 : aAt, aParsed.m_nAt) << aText;
}

std::string Printed(const CCmIpAddress& aAddress) {
    char achBuffer[CM_IP_PRINTED_SIZE];
    return std::string(CmPrint(aAddress, achBuffer));
}

std::string Printed(const CCmEndpoint& aEndpoint) {
    char achBuffer[CM_IP_PRINTED_SIZE];
    return std::string(CmPrint(aEndpoint, achBuffer));
}

}  // namespace

// ---- Numbers

TEST(CmStrictNumber, TakesWholeTextsOnly) {
    const struct {
        std::string text;
        CmResult result;
        size_t at;
        int number;
    } ROWS[] = {
        {"0", CM_OK, 0, 0},
        {"-0", CM_OK, 0, 0},
        {"007", CM_OK, 0, 7},
        {"2147483647", CM_OK, 0, 2147483647},
        {"-2147483648", CM_OK, 0, -2147483647 - 1},
        {"2147483648", CM_ERROR_FAILURE, 0, 0},                  // one more than an int
        {"-2147483649", CM_ERROR_FAILURE, 0, 0},                 // one less
        {"99999999999", CM_ERROR_FAILURE, 0, 0},                 // more than 32 bits
        {"18446744073709551616", CM_ERROR_FAILURE, 0, 0},        // more than 64 bits
        {"18446744073709551616x", CM_ERROR_INVALID_ARG, 20, 0},  // the form comes first
        {"", CM_ERROR_INVALID_ARG, 0, 0},
        {"-", CM_ERROR_INVALID_ARG, 1, 0},
        {"+1", CM_ERROR_INVALID_ARG, 0, 0},
        {" 1", CM_ERROR_INVALID_ARG, 0, 0},
        {"1 ", CM_ERROR_INVALID_ARG, 1, 0},
        {"1\n", CM_ERROR_INVALID_ARG, 1, 0},
        {"two", CM_ERROR_INVALID_ARG, 0, 0},
        {"0x10", CM_ERROR_INVALID_ARG, 1, 0},
        {"1\xB2", CM_ERROR_INVALID_ARG, 1, 0},  // '2' and 0x80
        {"\xE1", CM_ERROR_INVALID_ARG, 0, 0},   // 'a' and 0x80
        {"20ms", CM_ERROR_INVALID_ARG, 2, 0},
        {"--1", CM_ERROR_INVALID_ARG, 1, 0},
        {std::string("1\0", 2), CM_ERROR_INVALID_ARG, 1, 0},
    };
    for (const auto& row : ROWS) {
        int nNumber = 77;
        ExpectAnswer(CmParseNumber(row.text, nNumber), row.result, row.at, row.text);
        EXPECT_EQ(row.result == CM_OK ? row.number : 77, nNumber) << row.text;
    }
}

TEST(CmStrictNumber, TakesTheEndsOfEveryType) {
    int64_t llNumber = 0;
    EXPECT_TRUE(CmParseNumber("9223372036854775807", llNumber));
    EXPECT_EQ(INT64_MAX, llNumber);
    EXPECT_TRUE(CmParseNumber("-9223372036854775808", llNumber));
    EXPECT_EQ(INT64_MIN, llNumber);
    EXPECT_FALSE(CmParseNumber("9223372036854775808", llNumber));
    EXPECT_FALSE(CmParseNumber("-9223372036854775809", llNumber));
    uint64_t ullNumber = 0;
    EXPECT_TRUE(CmParseNumber("18446744073709551615", ullNumber));
    EXPECT_EQ(UINT64_MAX, ullNumber);
    uint8_t byNumber = 1;
    EXPECT_TRUE(CmParseNumber("255", byNumber));
    EXPECT_EQ(255, byNumber);
    ExpectAnswer(CmParseNumber("256", byNumber), CM_ERROR_FAILURE, 0, "256");
    ExpectAnswer(CmParseNumber("-1", byNumber), CM_ERROR_INVALID_ARG, 0, "-1");
}

TEST(CmStrictNumber, KeepsItsRange) {
    int nNumber = 5;
    EXPECT_TRUE(CmParseNumber("64", nNumber, 1, 64));
    EXPECT_EQ(64, nNumber);
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseNumber("65", nNumber, 1, 64).m_Result);
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseNumber("0", nNumber, 1, 64).m_Result);
    EXPECT_TRUE(CmParseNumber("-5", nNumber, -5, -1));
    EXPECT_EQ(-5, nNumber);
}

TEST(CmStrictNumber, TakesEveryBase) {
    unsigned dwNumber = 0;
    EXPECT_TRUE(CmParseNumber("fF", dwNumber, 0U, UINT32_MAX, 16));
    EXPECT_EQ(255U, dwNumber);
    EXPECT_TRUE(CmParseNumber("777", dwNumber, 0U, UINT32_MAX, 8));
    EXPECT_EQ(511U, dwNumber);
    EXPECT_TRUE(CmParseNumber("zz", dwNumber, 0U, UINT32_MAX, 36));
    EXPECT_EQ(35U * 36 + 35, dwNumber);
    EXPECT_TRUE(CmParseNumber("101", dwNumber, 0U, UINT32_MAX, 2));
    EXPECT_EQ(5U, dwNumber);
    ExpectAnswer(CmParseNumber("102", dwNumber, 0U, UINT32_MAX, 2), CM_ERROR_INVALID_ARG, 2, "102");
    ExpectAnswer(CmParseNumber("1", dwNumber, 0U, UINT32_MAX, 1), CM_ERROR_INVALID_ARG, 0, "base");
    ExpectAnswer(CmParseNumber("1", dwNumber, 0U, UINT32_MAX, 37), CM_ERROR_INVALID_ARG, 0, "base");
    uint64_t ullNumber = 0;
    EXPECT_TRUE(CmParseNumber("ffffffffffffffff", ullNumber, uint64_t{0}, UINT64_MAX, 16));
    EXPECT_EQ(UINT64_MAX, ullNumber);
    EXPECT_EQ(CM_ERROR_FAILURE,
              CmParseNumber("10000000000000000", ullNumber, uint64_t{0}, UINT64_MAX, 16).m_Result);
}

// Every text of up to five characters of an alphabet that has what matters.
TEST(CmStrictNumber, AgreesWithFromChars) {
    const std::string ALPHABET = "-+019 xf";
    size_t nGood = 0;
    for (const int nBase : {2, 10, 16}) {
        for (unsigned long i = 0; i < 8UL * 8 * 8 * 8 * 8; ++i) {
            std::string sText;
            for (unsigned long ulRest = i; ulRest > 0; ulRest /= 8) {
                sText += ALPHABET[ulRest % 8];
            }
            int16_t nOurs = 1;
            int16_t nTheirs = 1;
            const auto [pEnd, error] =
                std::from_chars(sText.data(), sText.data() + sText.size(), nTheirs, nBase);
            const bool bWhole = pEnd == sText.data() + sText.size() && !sText.empty();
            const CCmParsed parsed =
                CmParseNumber(sText, nOurs, int16_t{INT16_MIN}, int16_t{INT16_MAX}, nBase);
            ASSERT_EQ(bWhole && error == std::errc(), static_cast<bool>(parsed)) << sText;
            ASSERT_EQ(bWhole && error == std::errc::result_out_of_range,
                      parsed.m_Result == CM_ERROR_FAILURE)
                << sText;
            nGood += parsed ? 1 : 0;
            if (parsed) {
                ASSERT_EQ(nTheirs, nOurs) << sText;
            }
        }
    }
    EXPECT_LT(300U, nGood);
}

TEST(CmStrictBool, TakesItsListOnly) {
    for (const char* pszText : {"true", "TRUE", "Yes", "on", "1"}) {
        bool bValue = false;
        EXPECT_TRUE(CmParseBool(pszText, bValue)) << pszText;
        EXPECT_TRUE(bValue) << pszText;
    }
    for (const char* pszText : {"false", "False", "NO", "off", "0"}) {
        bool bValue = true;
        EXPECT_TRUE(CmParseBool(pszText, bValue)) << pszText;
        EXPECT_FALSE(bValue) << pszText;
    }
    for (const char* pszText : {"", "t", "y", "2", "true ", "-1", "truE1", "enabled", "00"}) {
        bool bValue = true;
        ExpectAnswer(CmParseBool(pszText, bValue), CM_ERROR_INVALID_ARG, 0, pszText);
        EXPECT_TRUE(bValue) << pszText;
    }
}

TEST(CmStrictDuration, NeedsAUnitAndWholeMicroseconds) {
    const struct {
        const char* text;
        CmResult result;
        size_t at;
        CCmTimeValue duration;
    } ROWS[] = {
        {"20ms", CM_OK, 0, CCmTimeValue(0, 20000)},
        {"1.5s", CM_OK, 0, CCmTimeValue(1, 500000)},
        {"0s", CM_OK, 0, CCmTimeValue()},
        {"7us", CM_OK, 0, CCmTimeValue(0, 7)},
        {"1234567us", CM_OK, 0, CCmTimeValue(1, 234567)},
        {"2500ms", CM_OK, 0, CCmTimeValue(2, 500000)},
        {"0.001ms", CM_OK, 0, CCmTimeValue(0, 1)},
        {"1.000000s", CM_OK, 0, CCmTimeValue(1)},
        {"1.0000000000000000000000s", CM_OK, 0, CCmTimeValue(1)},
        {"0.000001s", CM_OK, 0, CCmTimeValue(0, 1)},
        {"1.25min", CM_OK, 0, CCmTimeValue(75)},
        {"0.5h", CM_OK, 0, CCmTimeValue(1800)},
        {"1.5d", CM_OK, 0, CCmTimeValue(129600)},
        {"0.0000000001220703125d", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},  // a fraction of a us
        {"0.00000625d", CM_OK, 0, CCmTimeValue(0, 540000)},
        {"9223372036854775807s", CM_OK, 0, CCmTimeValue(INT64_MAX)},
        {"9223372036854775808s", CM_ERROR_FAILURE, 0, CCmTimeValue()},
        {"99999999999999999999us", CM_ERROR_FAILURE, 0, CCmTimeValue()},
        {"153722867280912931min", CM_ERROR_FAILURE, 0, CCmTimeValue()},
        {"18446744073709551615d", CM_ERROR_FAILURE, 0, CCmTimeValue()},
        {"18446744073709551615us", CM_OK, 0, CCmTimeValue(18446744073709, 551615)},
        {"", CM_ERROR_INVALID_ARG, 0, CCmTimeValue()},
        {"20", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"0", CM_ERROR_INVALID_ARG, 1, CCmTimeValue()},
        {"ms", CM_ERROR_INVALID_ARG, 0, CCmTimeValue()},
        {"20 ms", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"20MS", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"20m", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"20msx", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"1.s", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {".5s", CM_ERROR_INVALID_ARG, 0, CCmTimeValue()},
        {"1.5.5s", CM_ERROR_INVALID_ARG, 3, CCmTimeValue()},
        {"0.5us", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"0.0000001s", CM_ERROR_INVALID_ARG, 2, CCmTimeValue()},
        {"1h30min", CM_ERROR_INVALID_ARG, 1, CCmTimeValue()},
        {"-1s", CM_ERROR_FAILURE, 0, CCmTimeValue()},  // below the range
        {"+1s", CM_ERROR_INVALID_ARG, 0, CCmTimeValue()},
        {"1e3s", CM_ERROR_INVALID_ARG, 1, CCmTimeValue()},
    };
    for (const auto& row : ROWS) {
        CCmTimeValue tvDuration(99);
        ExpectAnswer(CmParseDuration(row.text, tvDuration), row.result, row.at, row.text);
        EXPECT_EQ(row.result == CM_OK ? row.duration : CCmTimeValue(99), tvDuration) << row.text;
    }
}

TEST(CmStrictDuration, KeepsItsRange) {
    CCmTimeValue tvDuration;
    const CCmTimeValue tvMin(0, 100000);
    const CCmTimeValue tvMax(3600);
    EXPECT_TRUE(CmParseDuration("100ms", tvDuration, tvMin, tvMax));
    EXPECT_TRUE(CmParseDuration("1h", tvDuration, tvMin, tvMax));
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseDuration("99999us", tvDuration, tvMin, tvMax).m_Result);
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseDuration("3600.000001s", tvDuration, tvMin, tvMax).m_Result);
    EXPECT_TRUE(CmParseDuration("-1.5s", tvDuration, CCmTimeValue(-2)));
    EXPECT_EQ(CCmTimeValue(-1, -500000), tvDuration);
}

TEST(CmStrictSize, KnowsBothKindsOfUnits) {
    const struct {
        const char* text;
        CmResult result;
        size_t at;
        uint64_t bytes;
    } ROWS[] = {
        {"64KiB", CM_OK, 0, 65536},
        {"64", CM_OK, 0, 64},
        {"64B", CM_OK, 0, 64},
        {"0KiB", CM_OK, 0, 0},
        {"1kB", CM_OK, 0, 1000},
        {"1MB", CM_OK, 0, 1000000},
        {"1MiB", CM_OK, 0, 1048576},
        {"1GB", CM_OK, 0, 1000000000},
        {"1GiB", CM_OK, 0, 1073741824},
        {"1TB", CM_OK, 0, 1000000000000},
        {"1TiB", CM_OK, 0, 1099511627776},
        {"18446744073709551615", CM_OK, 0, UINT64_MAX},
        {"18446744073709551616", CM_ERROR_FAILURE, 0, 0},
        {"16777216TiB", CM_ERROR_FAILURE, 0, 0},
        {"16777215TiB", CM_OK, 0, UINT64_MAX - (uint64_t{1} << 40) + 1},
        {"", CM_ERROR_INVALID_ARG, 0, 0},
        {"KiB", CM_ERROR_INVALID_ARG, 0, 0},
        {"64 KiB", CM_ERROR_INVALID_ARG, 2, 0},
        {"64K", CM_ERROR_INVALID_ARG, 2, 0},
        {"64KB", CM_ERROR_INVALID_ARG, 2, 0},
        {"64kib", CM_ERROR_INVALID_ARG, 2, 0},
        {"-1", CM_ERROR_INVALID_ARG, 0, 0},
        {"1.5MiB", CM_ERROR_INVALID_ARG, 1, 0},
    };
    for (const auto& row : ROWS) {
        uint64_t ullBytes = 99;
        ExpectAnswer(CmParseSize(row.text, ullBytes), row.result, row.at, row.text);
        EXPECT_EQ(row.result == CM_OK ? row.bytes : 99, ullBytes) << row.text;
    }
    uint64_t ullBytes = 0;
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseSize("65KiB", ullBytes, 1, 65536).m_Result);
    EXPECT_EQ(CM_ERROR_FAILURE, CmParseSize("0", ullBytes, 1, 65536).m_Result);
}

// ---- Addresses

TEST(CmStrictIpv4, TakesFourNumbersAndNothingElse) {
    const struct {
        const char* text;
        size_t at;
    } ROWS[] = {
        {"0.0.0.0", GOOD},
        {"255.255.255.255", GOOD},
        {"192.0.2.1", GOOD},
        {"", 0},
        {" ", 0},
        {"1.2.3", 5},
        {"1.2.3.", 6},
        {"1.2.3.4.", 7},
        {"1.2.3.4.5", 7},
        {"300.1.1.1", 0},
        {"1.2.3.256", 6},
        {"01.2.3.4", 0},
        {"1.2.3.00", 6},
        {"1..2.3", 2},
        {".1.2.3", 0},
        {"1.2.3.a", 6},
        {"1.2.3.4 ", 7},
        {" 1.2.3.4", 0},
        {"0x1.2.3.4", 1},
        {"1.2.3.-4", 6},
        {"1.2.3.4444444444", 6},
        {"16909060", 0},
        {"1,2.3.4", 1},
    };
    for (const auto& row : ROWS) {
        CCmIpAddress address;
        const CCmParsed parsed = CmParseIpv4(row.text, address);
        ExpectAnswer(parsed, row.at == GOOD ? CM_OK : CM_ERROR_INVALID_ARG, row.at, row.text);
        EXPECT_EQ(row.at == GOOD ? row.text : "", Printed(address)) << row.text;
        in_addr theirs;
        EXPECT_EQ(inet_pton(AF_INET, row.text, &theirs) == 1, static_cast<bool>(parsed))
            << row.text;
    }
}

TEST(CmStrictIpv6, TakesTheExamplesOfRfc4291) {
    // RFC 4291, 2.2 and 2.3, printed as RFC 5952 says.
    const struct {
        const char* text;
        const char* printed;
    } ROWS[] = {
        {"ABCD:EF01:2345:6789:ABCD:EF01:2345:6789", "abcd:ef01:2345:6789:abcd:ef01:2345:6789"},
        {"2001:DB8:0:0:8:800:200C:417A", "2001:db8::8:800:200c:417a"},
        {"FF01:0:0:0:0:0:0:101", "ff01::101"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"0:0:0:0:0:0:0:0", "::"},
        {"2001:DB8::8:800:200C:417A", "2001:db8::8:800:200c:417a"},
        {"FF01::101", "ff01::101"},
        {"::1", "::1"},
        {"::", "::"},
        {"0:0:0:0:0:0:13.1.68.3", "::d01:4403"},
        {"0:0:0:0:0:FFFF:129.144.52.38", "::ffff:129.144.52.38"},
        {"::13.1.68.3", "::d01:4403"},
        {"::FFFF:129.144.52.38", "::ffff:129.144.52.38"},
        {"2001:0DB8:0000:CD30:0000:0000:0000:0000", "2001:db8:0:cd30::"},
        {"2001:0DB8::CD30:0:0:0:0", "2001:db8:0:cd30::"},
        {"2001:0DB8:0:CD30::", "2001:db8:0:cd30::"},
    };
    for (const auto& row : ROWS) {
        CCmIpAddress address;
        ExpectAnswer(CmParseIpv6(row.text, address), CM_OK, 0, row.text);
        EXPECT_EQ(row.printed, Printed(address)) << row.text;
    }
}

TEST(CmStrictIpv6, PrintsTheExamplesOfRfc5952) {
    // RFC 5952, 1 to 5: each left side is printed as the right one.
    const struct {
        const char* text;
        const char* printed;
    } ROWS[] = {
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:0db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:db8::1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:db8::0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:0db8::1:0:0:1", "2001:db8::1:0:0:1"},
        {"2001:db8:0:0:1::1", "2001:db8::1:0:0:1"},
        {"2001:DB8:0:0:1::1", "2001:db8::1:0:0:1"},
        {"2001:db8:aaaa:bbbb:cccc:dddd:eeee:0001", "2001:db8:aaaa:bbbb:cccc:dddd:eeee:1"},
        {"2001:db8:aaaa:bbbb:cccc:dddd::1", "2001:db8:aaaa:bbbb:cccc:dddd:0:1"},
        {"2001:db8:0:0:0:0:2:1", "2001:db8::2:1"},
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
        {"2001:db8::aaaa:0:0:1", "2001:db8::aaaa:0:0:1"},
        {"2001:DB8::AAAA:0:0:1", "2001:db8::aaaa:0:0:1"},
        {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},
        {"0:0:0:0:0:ffff:192.0.2.1", "::ffff:192.0.2.1"},
    };
    for (const auto& row : ROWS) {
        CCmIpAddress address;
        ExpectAnswer(CmParseIpv6(row.text, address), CM_OK, 0, row.text);
        EXPECT_EQ(row.printed, Printed(address)) << row.text;
    }
}

TEST(CmStrictIpv6, Refuses_WhenTheTextIsNoAddress) {
    const struct {
        const char* text;
        size_t at;
    } ROWS[] = {
        {"", 0},
        {":", 0},
        {":::", 2},
        {":1", 0},
        {"1:", 2},
        {"1", 1},
        {"1:2:3:4:5:6:7", 13},
        {"1:2:3:4:5:6:7:8:9", 16},
        {"1:2:3:4:5:6:7:", 14},
        {"1::2::3", 5},
        {"1:2:3:4:5:6:7:8::", 17},
        {"1:2:3:4::5:6:7:8", 16},
        {"12345::", 4},
        {"g::", 0},
        {"::g", 2},
        {"1.2.3.4", 7},
        {"::1.2.3", 7},
        {"::1.2.3.4.5", 9},
        {"::1.2.3.4:5", 9},
        {"::256.1.1.1", 2},
        {"1:2:3:4:5:6:7:1.2.3.4", 15},
        {"::1 ", 3},
        {"[::1]", 0},
        {"::1/64", 3},
    };
    for (const auto& row : ROWS) {
        CCmIpAddress address;
        ExpectAnswer(CmParseIpv6(row.text, address), CM_ERROR_INVALID_ARG, row.at, row.text);
        EXPECT_EQ(CCmIpAddress::NONE, address.m_family) << row.text;
        in6_addr theirs;
        EXPECT_NE(1, inet_pton(AF_INET6, row.text, &theirs)) << row.text;
    }
}

TEST(CmStrictIpv6, SaysWhatItExpected_WhenTheTextIsNoAddress) {
    const struct {
        const char* text;
        const char* expected;
    } ROWS[] = {
        {"::g", "a hexadecimal digit"},
        {"12345::", "a colon"},
        {"1:2:3", "eight groups"},
        {"1:2:3:4:5:6:7:1.2.3.4", "a colon"},
        {"::1.2.3", "a dot"},
        {"::1.2.3.", "a digit"},
        {"::1.2.3.256", "a number up to 255 without leading zeros"},
        {"::1.2.3.4.5", "the end of the address"},
        {"::1%", "a zone of 1 to 15 letters, digits, \"-\", \".\", \"_\" and \"~\""},
    };
    for (const auto& row : ROWS) {
        CCmIpAddress address;
        EXPECT_STREQ(row.expected, CmParseIpv6(row.text, address).m_pszExpected) << row.text;
    }
}

TEST(CmStrictIpv6, KeepsTheZone_WhenThereIsOne) {
    CCmIpAddress address;
    // RFC 4007, 11.3.
    for (const char* pszText : {"fe80::1234%1", "ff02::5678%5", "ff08::9abc%10", "fe80::1234%ne0",
                                "fe80::1%abcdefghijklmno"}) {
        EXPECT_TRUE(CmParseIpv6(pszText, address)) << pszText;
        EXPECT_EQ(pszText, Printed(address));
    }
    CCmIpAddress other;
    EXPECT_TRUE(CmParseIpv6("fe80::1", other));
    EXPECT_NE(other, address);
    ExpectAnswer(CmParseIpv6("fe80::1%", address), CM_ERROR_INVALID_ARG, 8, "empty");
    ExpectAnswer(CmParseIpv6("fe80::1%a b", address), CM_ERROR_INVALID_ARG, 9, "blank");
    ExpectAnswer(CmParseIpv6("fe80::1%abcdefghijklmnop", address), CM_ERROR_INVALID_ARG, 23,
                 "long");
    ExpectAnswer(CmParseIpv4("1.2.3.4%1", address), CM_ERROR_INVALID_ARG, 7, "IPv4");
}

TEST(CmStrictIpAddress, TakesBothFamilies) {
    CCmIpAddress address;
    EXPECT_TRUE(CmParseIpAddress("192.0.2.1", address));
    EXPECT_EQ(CCmIpAddress::IPV4, address.m_family);
    EXPECT_TRUE(CmParseIpAddress("2001:db8::1", address));
    EXPECT_EQ(CCmIpAddress::IPV6, address.m_family);
    EXPECT_FALSE(CmParseIpAddress("", address));
    EXPECT_FALSE(CmParseIpAddress("example.org", address));
}

TEST(CmStrictPort, IsOneToFiveDigits) {
    uint16_t wPort = 1;
    EXPECT_TRUE(CmParsePort("0", wPort));
    EXPECT_EQ(0, wPort);
    EXPECT_TRUE(CmParsePort("65535", wPort));
    EXPECT_EQ(65535, wPort);
    ExpectAnswer(CmParsePort("65536", wPort), CM_ERROR_FAILURE, 0, "65536");
    ExpectAnswer(CmParsePort("70000", wPort), CM_ERROR_FAILURE, 0, "70000");
    ExpectAnswer(CmParsePort("", wPort), CM_ERROR_INVALID_ARG, 0, "");
    ExpectAnswer(CmParsePort("-1", wPort), CM_ERROR_INVALID_ARG, 0, "-1");
    ExpectAnswer(CmParsePort("000080", wPort), CM_ERROR_INVALID_ARG, 5, "000080");
    EXPECT_EQ(65535, wPort);
}

TEST(CmStrictEndpoint, NeedsAddressAndPort) {
    const struct {
        const char* text;
        CmResult result;
        size_t at;
        const char* printed;
    } ROWS[] = {
        {"127.0.0.1:5004", CM_OK, 0, "127.0.0.1:5004"},
        {"[::1]:5004", CM_OK, 0, "[::1]:5004"},
        {"[2001:DB8:0:0:0:0:0:1]:80", CM_OK, 0, "[2001:db8::1]:80"},
        {"[fe80::1%eth0]:0", CM_OK, 0, "[fe80::1%eth0]:0"},
        {"127.0.0.1:70000", CM_ERROR_FAILURE, 10, ""},
        {"1.2.3:5904", CM_ERROR_INVALID_ARG, 5, ""},
        {"", CM_ERROR_INVALID_ARG, 0, ""},
        {"127.0.0.1", CM_ERROR_INVALID_ARG, 9, ""},
        {"127.0.0.1:", CM_ERROR_INVALID_ARG, 10, ""},
        {"127.0.0.1:5004/", CM_ERROR_INVALID_ARG, 14, ""},
        {":5004", CM_ERROR_INVALID_ARG, 0, ""},
        {"::1:5004", CM_ERROR_INVALID_ARG, 0, ""},
        {"[::1]", CM_ERROR_INVALID_ARG, 5, ""},
        {"[::1]5004", CM_ERROR_INVALID_ARG, 5, ""},
        {"[::1:5004", CM_ERROR_INVALID_ARG, 9, ""},
        {"[::1", CM_ERROR_INVALID_ARG, 4, ""},
        {"[127.0.0.1]:5004", CM_ERROR_INVALID_ARG, 10, ""},
        {"localhost:5004", CM_ERROR_INVALID_ARG, 0, ""},
    };
    for (const auto& row : ROWS) {
        CCmEndpoint endpoint;
        ExpectAnswer(CmParseEndpoint(row.text, endpoint), row.result, row.at, row.text);
        EXPECT_EQ(row.printed, Printed(endpoint)) << row.text;
    }
}

TEST(CmStrictEndpoint, BecomesASocketAddressAndBack) {
    for (const char* pszText : {"192.0.2.7:5004", "[2001:db8::7]:65535", "[fe80::1%42]:1"}) {
        CCmEndpoint endpoint;
        ASSERT_TRUE(CmParseEndpoint(pszText, endpoint));
        sockaddr_storage storage;
        socklen_t nLength = 0;
        ASSERT_EQ(CM_OK, CmToSocketAddress(endpoint, storage, nLength));
        CCmEndpoint back;
        const auto* pAddress = reinterpret_cast<const sockaddr*>(&storage);
        ASSERT_EQ(CM_OK, CmFromSocketAddress(pAddress, nLength, back));
        EXPECT_EQ(endpoint, back);
        EXPECT_EQ(CM_ERROR_INVALID_ARG, CmFromSocketAddress(pAddress, nLength - 1, back));
    }
    CCmEndpoint endpoint;
    sockaddr_storage storage = {};
    socklen_t nLength = 0;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CmToSocketAddress(endpoint, storage, nLength));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CmFromSocketAddress(nullptr, 100, endpoint));
    storage.ss_family = AF_UNIX;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CmFromSocketAddress(reinterpret_cast<sockaddr*>(&storage),
                                                        sizeof(storage), endpoint));
}

TEST(CmStrictEndpoint, LooksItsZoneUpAmongTheInterfaces) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.if_nametoindex)> names(
        g_cmSystem.if_nametoindex,
        [](const char* aName) { return strcmp(aName, "eth7") == 0 ? 7U : 0U; });
    CCmEndpoint endpoint;
    sockaddr_storage storage;
    socklen_t nLength = 0;
    ASSERT_TRUE(CmParseEndpoint("[fe80::1%eth7]:1", endpoint));
    ASSERT_EQ(CM_OK, CmToSocketAddress(endpoint, storage, nLength));
    EXPECT_EQ(7U, reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_scope_id);
    ASSERT_TRUE(CmParseEndpoint("[fe80::1%eth8]:1", endpoint));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, CmToSocketAddress(endpoint, storage, nLength));
}

// ---- Base64

TEST(CmStrictBase64, TakesTheVectorsOfRfc4648) {
    // RFC 4648, 10.
    const struct {
        const char* bytes;
        const char* text;
    } ROWS[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& row : ROWS) {
        CCmString strText;
        CCmString strBytes = "x";
        EXPECT_EQ(CM_OK, CmEncodeBase64(row.bytes, strText));
        EXPECT_EQ(row.text, strText);
        ExpectAnswer(CmDecodeBase64(row.text, strBytes), CM_OK, 0, row.text);
        EXPECT_EQ(row.bytes, strBytes);
    }
}

TEST(CmStrictBase64, NamesThePlaceOfAnError) {
    constexpr auto STANDARD = CmBase64Alphabet::STANDARD;
    constexpr auto URL = CmBase64Alphabet::URL;
    constexpr auto REQUIRED = CmBase64Padding::REQUIRED;
    constexpr auto NONE = CmBase64Padding::NONE;
    constexpr auto OPTIONAL = CmBase64Padding::OPTIONAL;
    const struct {
        std::string text;
        CmBase64Alphabet alphabet;
        CmBase64Padding padding;
        size_t at;
        std::string bytes;
    } ROWS[] = {
        {"aGk=", STANDARD, REQUIRED, GOOD, "hi"},
        {"aGk", STANDARD, REQUIRED, 3, ""},
        {"aGk", STANDARD, NONE, GOOD, "hi"},
        {"aGk", STANDARD, OPTIONAL, GOOD, "hi"},
        {"aGk=", STANDARD, NONE, 3, ""},
        {"aGk=", STANDARD, OPTIONAL, GOOD, "hi"},
        {"aG!k", STANDARD, REQUIRED, 2, ""},
        {"aGk\n", STANDARD, REQUIRED, 3, ""},
        {"Zm9v\nYmFy", STANDARD, REQUIRED, 4, ""},
        {" aGk=", STANDARD, REQUIRED, 0, ""},
        {"aGk= ", STANDARD, REQUIRED, 3, ""},
        {"aGk=aGk=", STANDARD, REQUIRED, 3, ""},
        {"a===", STANDARD, REQUIRED, 1, ""},
        {"====", STANDARD, REQUIRED, 0, ""},
        {"=", STANDARD, OPTIONAL, 0, ""},
        {"a", STANDARD, NONE, 1, ""},
        {"Zm9vY", STANDARD, OPTIONAL, 5, ""},
        {"aGl=", STANDARD, REQUIRED, 2, ""},  // the last character has bits left over
        {"Zh==", STANDARD, REQUIRED, 1, ""},
        {"Zg=", STANDARD, OPTIONAL, 2, ""},
        {"+/+/", STANDARD, REQUIRED, GOOD, "\xFB\xFF\xBF"},
        {"-_-_", STANDARD, REQUIRED, 0, ""},
        {"-_-_", URL, REQUIRED, GOOD, "\xFB\xFF\xBF"},
        {"AA+A", URL, REQUIRED, 2, ""},
        {"AA/A", URL, REQUIRED, 2, ""},
        {"-_8", URL, NONE, GOOD, "\xFB\xFF"},
        {std::string("AA\0A", 4), STANDARD, REQUIRED, 2, ""},
        {std::string("AA\0A", 4), URL, REQUIRED, 2, ""},
        {"AA\xFF"
         "A",
         STANDARD, REQUIRED, 2, ""},
        {std::string(600, 'A') + "*AAA", STANDARD, REQUIRED, 600, ""},
        {std::string(600, 'A') + "*AAA", URL, REQUIRED, 600, ""},
        {std::string(1027, 'A') + "*", URL, REQUIRED, 1027, ""},
        {std::string(1028, 'A'), URL, REQUIRED, GOOD, std::string(771, '\0')},
    };
    for (const auto& row : ROWS) {
        CCmString strBytes = "old";
        ExpectAnswer(CmDecodeBase64(row.text, strBytes, row.alphabet, row.padding),
                     row.at == GOOD ? CM_OK : CM_ERROR_INVALID_ARG, row.at, row.text);
        EXPECT_EQ(row.bytes, strBytes) << row.text;
    }
}

TEST(CmStrictBase64, KeepsWithinItsBuffer) {
    char achOut[4] = {'x', 'x', 'x', 'x'};
    size_t nLength = 9;
    ExpectAnswer(CmDecodeBase64("Zm9v", achOut, 2, nLength), CM_ERROR_NOT_AVAILABLE, 0, "small");
    EXPECT_EQ(9U, nLength);
    EXPECT_TRUE(CmDecodeBase64("Zm9v", achOut, 3, nLength));
    EXPECT_EQ(3U, nLength);
    EXPECT_EQ("foox", std::string(achOut, 4));
    EXPECT_TRUE(CmDecodeBase64("aGk=", achOut, 2, nLength));
    EXPECT_EQ("hiox", std::string(achOut, 4));
    EXPECT_TRUE(CmDecodeBase64("", nullptr, 0, nLength));
    EXPECT_EQ(0U, nLength);
}

TEST(CmStrictBase64, ComesBackUnchanged_WhateverTheLength) {
    for (size_t nLength = 0; nLength < 300; ++nLength) {
        CCmString strBytes;
        for (size_t i = 0; i < nLength; ++i) {
            strBytes += static_cast<char>(i * 151 + nLength);
        }
        for (const auto alphabet : {CmBase64Alphabet::STANDARD, CmBase64Alphabet::URL}) {
            for (const auto padding : {CmBase64Padding::REQUIRED, CmBase64Padding::NONE}) {
                CCmString strText;
                CCmString strBack;
                ASSERT_EQ(CM_OK, CmEncodeBase64(strBytes, strText, alphabet, padding));
                ASSERT_TRUE(CmDecodeBase64(strText, strBack, alphabet, padding)) << strText;
                ASSERT_EQ(strBytes, strBack);
            }
        }
    }
}

// ---- UTF-8

TEST(CmStrictUtf8, KnowsEveryFirstPair) {
    const struct {
        std::string text;
        size_t at;
    } ROWS[] = {
        {"", GOOD},
        {std::string("a\0b", 3), GOOD},
        // RFC 3629, 7.
        {"\x41\xE2\x89\xA2\xCE\x91\x2E", GOOD},
        {"\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4", GOOD},
        {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", GOOD},
        {"\xEF\xBB\xBF\xF0\xA3\x8E\xB4", GOOD},
        // The first and last of each length.
        {"\x7F", GOOD},
        {"\xC2\x80\xDF\xBF", GOOD},
        {"\xE0\xA0\x80\xEF\xBF\xBF", GOOD},
        {"\xED\x9F\xBF\xEE\x80\x80", GOOD},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", GOOD},
        // RFC 3629, 10: overlong, and what is just outside.
        {"\xC0\x80", 0},
        {"a\xC1\xBF", 1},
        {"\xE0\x9F\xBF", 0},
        {"\xF0\x8F\xBF\xBF", 0},
        {"\xED\xA0\x80", 0},
        {"\xED\xBF\xBF", 0},
        {"\xF4\x90\x80\x80", 0},
        {"\xF5\x80\x80\x80", 0},
        {"\xFF", 0},
        {"\x80", 0},
        {"ab\xBF", 2},
        {"\xC3", 0},
        {"\xC3(", 0},
        {"\xE2\x82", 0},
        {"\xE2\x82(", 0},
        {"\xF0\x9F\x98", 0},
        {"\xF0\x9F\x98(", 0},
        {"\xC3\xA9\xC3", 2},
        {std::string(100, 'a') + "\xC3", 100},
        {std::string(31, 'a') + "\xC3\xA9" + std::string(70, 'b') + "\xFF", 103},
    };
    for (const auto& row : ROWS) {
        ExpectAnswer(CmCheckUtf8(row.text), row.at == GOOD ? CM_OK : CM_ERROR_INVALID_ARG, row.at,
                     row.text);
    }
}

TEST(CmStrictUtf8, NamesThePlace_WhereverTheBadByteIsAndTheTextStarts) {
    for (size_t nStart = 0; nStart < 8; ++nStart) {
        for (size_t nPlace = nStart; nPlace < 100; ++nPlace) {
            std::string sText(140, 'a');
            sText[nPlace] = '\xFF';
            const std::string_view text = std::string_view(sText).substr(nStart);
            ExpectAnswer(CmCheckUtf8(text), CM_ERROR_INVALID_ARG, nPlace - nStart, sText);
            // Without the byte and what follows it.
            ExpectAnswer(CmCheckUtf8(text.substr(0, nPlace - nStart)), CM_OK, 0, sText);
        }
    }
}

// ---- All of them

// Each text is the front of a longer one, whose rest would make another answer.
TEST(CmStrict, EndsWithItsText_WhenMoreFollowsInMemory) {
    struct CRow {
        const char* text;
        size_t length;
        size_t at;
    };
    const auto check = [](const CRow& aRow, const CCmParsed& aParsed) {
        ExpectAnswer(aParsed, aRow.at == GOOD ? CM_OK : CM_ERROR_INVALID_ARG, aRow.at, aRow.text);
    };
    for (const CRow& row : {CRow{"123", 2, GOOD}, CRow{"-1", 1, 1}, CRow{"12", 0, 0}}) {
        int nNumber = 12;
        check(row, CmParseNumber({row.text, row.length}, nNumber));
        EXPECT_EQ(12, nNumber) << row.text;
    }
    for (const CRow& row : {CRow{"20.5s", 2, 2}, CRow{"20s", 2, 2}, CRow{"1.5s", 2, 2},
                            CRow{"1.5s", 3, 3}, CRow{"-1s", 1, 1}, CRow{"2min", 2, 1}}) {
        CCmTimeValue tvDuration;
        check(row, CmParseDuration({row.text, row.length}, tvDuration));
    }
    for (const CRow& row : {CRow{"64KiB", 2, GOOD}, CRow{"64KiB", 3, 2}, CRow{"6", 0, 0}}) {
        uint64_t ullBytes = 64;
        check(row, CmParseSize({row.text, row.length}, ullBytes));
        EXPECT_EQ(64U, ullBytes) << row.text;
    }
    for (const CRow& row : {CRow{"1.2.3.45", 7, GOOD}, CRow{"1.2.3.4", 5, 5}, CRow{"1.2.3.4", 6, 6},
                            CRow{"::12", 3, GOOD}, CRow{"1::", 1, 1}, CRow{"1::2", 2, 2},
                            CRow{"::1.2.3.4", 3, GOOD}, CRow{"fe80::1%1", 8, 8}}) {
        CCmIpAddress address;
        check(row, CmParseIpAddress({row.text, row.length}, address));
    }
    for (const CRow& row :
         {CRow{"127.0.0.1:80", 9, 9}, CRow{"127.0.0.1:80", 10, 10}, CRow{"[::1]:80", 0, 0},
          CRow{"[::1]:80", 4, 4}, CRow{"[::1]:80", 5, 5}, CRow{"[::1]:80", 7, GOOD}}) {
        CCmEndpoint endpoint;
        check(row, CmParseEndpoint({row.text, row.length}, endpoint));
    }
    for (const CRow& row :
         {CRow{"http://h/%41", 11, 9}, CRow{"http:", 4, 4}, CRow{"x://h@", 5, GOOD},
          CRow{"x://[::1]", 8, 8}, CRow{"x://[v1.a]", 7, 7}, CRow{"x:a?%41", 6, 4}}) {
        CCmUrlParts url;
        check(row, CmParseUrl({row.text, row.length}, url));
    }
    for (const CRow& row : {CRow{"Zm9v", 3, 2}, CRow{"Zg==", 3, 2}, CRow{"Zm9vYg==", 4, GOOD}}) {
        CCmString strBytes;
        check(row, CmDecodeBase64({row.text, row.length}, strBytes));
    }
    for (const CRow& row : {CRow{"\xC3\xA9", 1, 0}, CRow{"\xE2\x82\xAC", 2, 0},
                            CRow{"\xF0\x9F\x98\x80", 3, 0}, CRow{"a\xC3", 1, GOOD}}) {
        check(row, CmCheckUtf8({row.text, row.length}));
    }
    const std::string sLong(100, 'a');
    for (size_t nLength = 0; nLength < 60; ++nLength) {
        EXPECT_TRUE(CmCheckUtf8(std::string_view(sLong).substr(0, nLength))) << nLength;
    }
}

TEST(CmStrict, TracesNothingAndAllocatesNothing_WhenNoStringIsFilled) {
    const kelto_test::ScopedTraceSink sink;
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    for (const char* pszText : {"12", "1.5s", "x", "", "1.2.3.4", "::1", "[::1]:80", "aGk=",
                                "http://user:pw@host:81/a?b#c", "\xC3\xA9", "http://[", "%"}) {
        int nNumber = 0;
        bool bValue = false;
        CCmTimeValue tvDuration;
        uint64_t ullBytes = 0;
        CCmEndpoint endpoint;
        CCmUrlParts url;
        char achOut[16];
        size_t nLength = 0;
        CmParseNumber(pszText, nNumber);
        CmParseBool(pszText, bValue);
        CmParseDuration(pszText, tvDuration);
        CmParseSize(pszText, ullBytes);
        CmParseIpAddress(pszText, endpoint.m_address);
        CmParsePort(pszText, endpoint.m_wPort);
        CmParseEndpoint(pszText, endpoint);
        CmParseUrl(pszText, url);
        CmParseUrlReference(pszText, url);
        CmDecodeBase64(pszText, achOut, sizeof(achOut), nLength);
        CmCheckUtf8(pszText);
    }
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmStrict, AnswersOutOfMemoryAndLeavesItsOutput_WithoutMemory) {
    const std::string sLong(100, 'a');
    const std::string sUrl = "http://host/" + sLong;
    const std::string sQuery = sLong + "=" + sLong;
    CCmUrlParts url;
    ASSERT_TRUE(CmParseUrl(sUrl, url));
    const auto failing = [](auto aFunction) {
        const kelto_test::ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        const CmResult rv = aFunction();
        EXPECT_TRUE(fault.hit());
        return rv;
    };
    CCmString strOut = "old";
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, failing([&] { return CmComposeUrl(url, strOut); }));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, failing([&] { return CmNormalizeUrl(url, strOut); }));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, failing([&] { return CmResolveUrl(url, url, strOut); }));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, failing([&] { return CmPercentEncode(sLong, strOut); }));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY,
              failing([&] { return CmPercentDecode(sLong, strOut).m_Result; }));
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY,
              failing([&] { return CmFindQueryParameter(sQuery, sLong, strOut).m_Result; }));
    EXPECT_EQ("old", strOut);
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, failing([&] { return CmEncodeBase64(sLong, strOut); }));
    EXPECT_EQ("", strOut);
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY,
              failing([&] { return CmDecodeBase64(sLong, strOut).m_Result; }));
}
