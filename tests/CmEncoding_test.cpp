#include "CmEncoding.h"

#include <gtest/gtest.h>
#include <strings.h>
#include <time.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "CmBase64.h"
#include "support/Faults.h"
#include "support/RandomBytes.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::ScopedAllocationFault;

constexpr char GUARD = '\xA5';

struct Vector {
    const char* bytes;
    const char* text;
};

// RFC 4648, section 10.
constexpr Vector VECTORS[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

CCmString Encoded(const CCmString& aBytes) {
    CCmString strText = "what was there before";
    CM_Base64Encode(aBytes.data(), aBytes.size(), strText);
    return strText;
}

CCmString Decoded(const char* aText) {
    CCmString strBytes = "what was there before";
    CM_Base64Decode(aText, strBytes);
    return strBytes;
}

// In and out of buffers of exactly the needed size on the heap.
CCmString XEncoded(const CCmString& aBytes) {
    std::vector<unsigned char> in(aBytes.begin(), aBytes.end());
    std::vector<unsigned char> out((aBytes.size() + 2) / 3 * 4);
    const long lLength = xbase64_encode(in.data(), in.size(), out.data(), 0);
    EXPECT_EQ(lLength, static_cast<long>(out.size()));
    return CCmString(out.begin(), out.end());
}

CCmString XDecoded(const CCmString& aText) {
    xbase64_init_decode_table();
    std::vector<unsigned char> in(aText.begin(), aText.end());
    std::vector<unsigned char> out(aText.size() / 4 * 3);
    const unsigned long ulLength = xbase64_decode(in.data(), in.size(), out.data(), 0);
    EXPECT_LE(ulLength, out.size());
    return CCmString(out.begin(), out.begin() + static_cast<long>(ulLength));
}

TEST(CmBase64String, MeetsStandardVectors) {
    for (const Vector& vector : VECTORS) {
        EXPECT_EQ(Encoded(vector.bytes), vector.text);
        EXPECT_EQ(Decoded(vector.text), vector.bytes);
    }
}

TEST(CmBase64Buffer, MeetsStandardVectors) {
    for (const Vector& vector : VECTORS) {
        EXPECT_EQ(XEncoded(vector.bytes), vector.text);
        EXPECT_EQ(XDecoded(vector.text), vector.bytes);
    }
}

TEST(CmBase64String, EncodesTwoBytes) {
    EXPECT_EQ(Encoded("hi"), "aGk=");
}

TEST(CmBase64Buffer, EncodesTwoBytesToFourCharacters) {
    unsigned char abyIn[] = {'h', 'i'};
    unsigned char abyOut[6] = {0, 0, 0, 0, 0xA5, 0xA5};
    EXPECT_EQ(xbase64_encode(abyIn, 2, abyOut, 4), 4);
    EXPECT_EQ(std::memcmp(abyOut, "aGk=\xA5\xA5", 6), 0);
}

TEST(CmBase64Both, ComesBackUnchanged_WhateverTheLength) {
    for (size_t nLength = 0; nLength <= 300; ++nLength) {
        const CCmString strBytes =
            kelto_test::RandomBytes<CCmString>(nLength, static_cast<unsigned>(nLength));
        const CCmString strText = Encoded(strBytes);
        ASSERT_EQ(strText, XEncoded(strBytes));
        ASSERT_EQ(strText.size(), (nLength + 2) / 3 * 4);
        ASSERT_EQ(Decoded(strText.c_str()), strBytes) << nLength;
        // Room for the result alone: nothing is written past it.
        ASSERT_EQ(XDecoded(strText), strBytes) << nLength;
    }
}

TEST(CmBase64Both, ComesBackUnchanged_WhenTheTextIsLong) {
    for (size_t nLength : {3071, 3072, 3073, 3074, 6144, 100000, 1048576}) {
        const CCmString strBytes = kelto_test::RandomBytes<CCmString>(nLength, 7);
        const CCmString strText = Encoded(strBytes);
        ASSERT_EQ(strText, XEncoded(strBytes));
        ASSERT_EQ(Decoded(strText.c_str()), strBytes) << nLength;
        ASSERT_EQ(XDecoded(strText), strBytes) << nLength;
    }
}

TEST(CmBase64Both, ComesBackUnchanged_WhateverByteIsInAnyPlaceOfAGroup) {
    for (size_t nPlace = 0; nPlace < 3; ++nPlace) {
        for (int nByte = 0; nByte < 256; ++nByte) {
            CCmString strBytes = "xyz";
            strBytes[nPlace] = static_cast<char>(nByte);
            ASSERT_EQ(Encoded(strBytes), XEncoded(strBytes));
            ASSERT_EQ(Decoded(Encoded(strBytes).c_str()), strBytes);
            ASSERT_EQ(XDecoded(Encoded(strBytes)), strBytes);
        }
    }
}

TEST(CmBase64String, ReplacesWhatTheOutputHeld) {
    CCmString strText(5000, 'x');
    CM_Base64Encode("hi", 2, strText);
    EXPECT_EQ(strText, "aGk=");
    CCmString strBytes(5000, 'x');
    CM_Base64Decode("aGk=", strBytes);
    EXPECT_EQ(strBytes, "hi");
}

TEST(CmBase64String, GivesEmptyText_WithoutInput) {
    CCmString strText = "x";
    CM_Base64Encode(nullptr, 3, strText);
    EXPECT_EQ(strText, "");
    strText = "x";
    CM_Base64Encode("abc", 0, strText);
    EXPECT_EQ(strText, "");
    CCmString strBytes = "x";
    CM_Base64Decode(nullptr, strBytes);
    EXPECT_EQ(strBytes, "");
}

TEST(CmBase64String, Works_WhenInputAndOutputAreOne) {
    CCmString strText = kelto_test::RandomBytes<CCmString>(200, 1);
    const CCmString strBytes = strText;
    CM_Base64Encode(strText.data(), strText.size(), strText);
    EXPECT_EQ(strText, Encoded(strBytes));
    CM_Base64Decode(strText.c_str(), strText);
    EXPECT_EQ(strText, strBytes);
}

TEST(CmBase64String, Works_WhenTheInputIsPartOfTheOutput) {
    CCmString strText = kelto_test::RandomBytes<CCmString>(200, 1);
    const CCmString strBytes = strText;
    CM_Base64Encode(strText.data() + 8, 192, strText);
    EXPECT_EQ(strText, Encoded(strBytes.substr(8)));
    CM_Base64Decode(strText.c_str() + 40, strText);
    EXPECT_EQ(strText, strBytes.substr(38));
}

TEST(CmBase64String, GivesEmptyText_WhenMemoryRunsOut) {
    const CCmString strBytes = kelto_test::RandomBytes<CCmString>(1000, 1);
    const CCmString strText = Encoded(strBytes);
    CCmString strOut = "x";
    {
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        CM_Base64Encode(strBytes.data(), strBytes.size(), strOut);
        ASSERT_TRUE(fault.hit());
    }
    EXPECT_EQ(strOut, "");
    strOut = "x";
    {
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        CM_Base64Decode(strText.c_str(), strOut);
        ASSERT_TRUE(fault.hit());
    }
    EXPECT_EQ(strOut, "");
}

TEST(CmBase64String, GivesEmptyText_WhenLengthIsImpossible) {
    CCmString strOut = "x";
    CM_Base64Encode("x", ~0UL, strOut);
    EXPECT_EQ(strOut, "");
}

TEST(CmBase64String, GivesEmptyText_WhenTheTextWouldBeTooLongForAString) {
    CCmString strOut;
    const size_t nMost = strOut.max_size() / 4 * 3;
    for (size_t nLength = nMost + 1; nLength <= nMost + 6; ++nLength) {
        strOut = "x";
        CM_Base64Encode("x", nLength, strOut);
        EXPECT_EQ(strOut, "") << nLength;
    }
}

TEST(CmBase64String, AllocatesOnce_WhateverTheLength) {
    const CCmString strBytes = kelto_test::RandomBytes<CCmString>(100000, 6);
    CCmString strText;
    unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    CM_Base64Encode(strBytes.data(), strBytes.size(), strText);
    EXPECT_EQ(ulBefore + 1, kelto_test::AllocationsOfThisThread());
    CCmString strBack;
    ulBefore = kelto_test::AllocationsOfThisThread();
    CM_Base64Decode(strText.c_str(), strBack);
    EXPECT_EQ(ulBefore + 1, kelto_test::AllocationsOfThisThread());
    EXPECT_EQ(strBytes, strBack);
}

TEST(CmBase64String, DecodesWithoutAnAllocation_WhenTheBytesFitIntoTheOutput) {
    for (size_t nSize = 40; nSize < 100; ++nSize) {
        CCmString strOut(nSize, 'x');
        const CCmString strBytes = kelto_test::RandomBytes<CCmString>(strOut.capacity(), 2);
        const CCmString strText = Encoded(strBytes);
        const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
        CM_Base64Decode(strText.c_str(), strOut);
        EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread()) << nSize;
        EXPECT_EQ(strBytes, strOut);
    }
}

struct DecodeRow {
    const char* text;
    CCmString bytes;
    const char* reason;
};

TEST(CmBase64String, Decodes_UntilACharacterIsInvalid) {
    const DecodeRow ROWS[] = {
        {"aGk", "hi", "no padding"},
        {"  aGk=", "hi", "leading blanks"},
        {"\t \taGk=", "hi", "leading tabs"},
        {"\naGk=", "", "a line end is not skipped"},
        {"aG!k", "h", "stops at the mark"},
        {"aGk=aGk=", "hi", "stops at the padding"},
        {"aGk aGk", "hi", "stops at the blank"},
        {"aGlq\naGlq", "hij", "stops at the line end"},
        {"", "", "empty"},
        {"   ", "", "blanks only"},
        {"====", "", "padding only"},
        {"!aGk=", "", "invalid from the start"},
        {"aG\xC3k", "h", "a byte above 0x7F ends the run"},
        {"\xFF", "", "a byte above 0x7F at the start"},
        {"aGlqa\x80", CCmString("hij\x6C", 4), "a byte above 0x7F after a single character"},
        {"aG-_", "h", "not the alphabet of URLs"},
        {"/w==", "\xFF", "the last character of the alphabet"},
        {"+/+/", "\xFB\xFF\xBF", "the characters that are no letters or digits"},
        {"AA==", CCmString("\0", 1), "zero"},
        {"aB==", "h", "superfluous bits are dropped"},
    };
    for (const DecodeRow& row : ROWS) {
        EXPECT_EQ(Decoded(row.text), row.bytes) << row.text << ": " << row.reason;
    }
}

TEST(CmBase64String, GivesFilledByte_WhenThereIsOneCharacter) {
    EXPECT_EQ(Decoded("A"), "\x04");
    EXPECT_EQ(Decoded("B"), "\x04");
    EXPECT_EQ(Decoded("Q"), "\x44");
    EXPECT_EQ(Decoded("aGlqQ"), "hij\x44");
    EXPECT_EQ(Decoded("Q="), "\x44");
    EXPECT_EQ(Decoded("Q=="), "\x44");
    EXPECT_EQ(Decoded("Q===="), "\x44");
}

TEST(CmBase64String, GivesSecondByte_WhenTheThirdCharacterIsValid) {
    EXPECT_EQ(Decoded("Q=Q"), "\x44\x04");
    EXPECT_EQ(Decoded("Q!/x"), "\x44\x0F");
}

TEST(CmBase64String, LooksAtNothing_AfterTheTerminator) {
    for (const char* pText : {"", "Q", "QU", "QUJ", "QUJD", " "}) {
        const size_t nSize = std::strlen(pText) + 1;
        std::unique_ptr<char[]> pCopy(new char[nSize]);
        std::memcpy(pCopy.get(), pText, nSize);
        EXPECT_EQ(Decoded(pCopy.get()), Decoded(pText));
    }
    // What follows would make a third valid character.
    const char achText[] = {'Q', '\0', 'Q', 'Q', '\0'};
    EXPECT_EQ(Decoded(achText), "\x44");
}

// The stated steps, one group at a time.
CCmString ReferenceDecoded(const CCmString& aText) {
    size_t nRun = 0;
    while (nRun < aText.size() && pr2six[static_cast<unsigned char>(aText[nRun])] < 64) {
        ++nRun;
    }
    const CCmString strPadded = aText + CCmString(4, '\0');
    CCmString strBytes;
    for (size_t i = 0; i < nRun; i += 4) {
        unsigned anValue[4];
        for (size_t j = 0; j < 4; ++j) {
            anValue[j] = pr2six[static_cast<unsigned char>(strPadded[i + j])];
        }
        strBytes += static_cast<char>(anValue[0] << 2 | anValue[1] >> 4);
        strBytes += static_cast<char>(anValue[1] << 4 | anValue[2] >> 2);
        strBytes += static_cast<char>(anValue[2] << 6 | anValue[3]);
        if (i + 4 > nRun) {
            strBytes.resize(strBytes.size() - (anValue[2] < 64 ? 1 : 2));
        }
    }
    return strBytes;
}

TEST(CmBase64String, DecodesAsStated_WhateverTheOffsetOfAnInvalidByte) {
    const CCmString strText = Encoded(kelto_test::RandomBytes<CCmString>(150, 3));
    for (size_t nPlace = 0; nPlace < strText.size(); ++nPlace) {
        for (char chInvalid : {'=', '!', '\n', '\x80', '\xFF', '-'}) {
            CCmString strBroken = strText;
            strBroken[nPlace] = chInvalid;
            ASSERT_EQ(Decoded(strBroken.c_str()), ReferenceDecoded(strBroken)) << nPlace;
        }
    }
}

TEST(CmBase64String, DecodesAsStated_WhenInvalidBytesAreFarIn) {
    const CCmString strText = Encoded(kelto_test::RandomBytes<CCmString>(9300, 4));
    for (size_t nPlace = 4000; nPlace < 4200; ++nPlace) {
        CCmString strBroken = strText;
        strBroken[nPlace] = '*';
        ASSERT_EQ(Decoded(strBroken.c_str()), ReferenceDecoded(strBroken)) << nPlace;
    }
}

TEST(CmBase64Buffer, ReturnsTheDecodeTable) {
    const unsigned char* pTable = xbase64_init_decode_table();
    EXPECT_EQ(pTable, xbase64_init_decode_table());
    const std::string strAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (unsigned i = 0; i < 256; ++i) {
        const size_t nValue = strAlphabet.find(static_cast<char>(i));
        EXPECT_EQ(pTable[i], nValue == std::string::npos ? 0 : nValue) << i;
    }
}

TEST(CmBase64Buffer, CalculatesTheSize) {
    EXPECT_EQ(xbase64_calc_encode_buf_size(nullptr, 0), 4u);
    EXPECT_EQ(xbase64_calc_encode_buf_size(nullptr, 2), 4u);
    EXPECT_EQ(xbase64_calc_encode_buf_size(nullptr, 3), 8u);
    EXPECT_EQ(xbase64_calc_encode_buf_size(nullptr, 4), 8u);
    EXPECT_EQ(xbase64_calc_encode_buf_size(nullptr, 300), 404u);
}

TEST(CmBase64Buffer, DecodesWholeGroups) {
    const DecodeRow ROWS[] = {
        {"", "", "nothing"},
        {"aGk", "", "less than a group"},
        {"aGk=", "hi", "one pad"},
        {"aA==", "h", "two pads"},
        {"aGk=aGk=", "hihi", "goes on after padding"},
        {"aA==aGlq", "hhij", "goes on after two pads"},
        {"aGlqaGk", "hij", "a group that is not whole is ignored"},
        {"aGlqaGk=x", "hijhi", "a character too many is ignored"},
        {"aG=q", "h", "the third character decides"},
        {"====", CCmString("\0", 1), "padding only"},
        {"=Glq", CCmString("\0\x69\x6A", 3), "a pad at the start counts as A"},
        {"a!lq", CCmString("\x68\x09\x6A", 3), "an invalid character counts as A"},
        {"\xFFGlq", CCmString("\0\x69\x6A", 3), "a byte above 0x7F counts as A"},
    };
    for (const DecodeRow& row : ROWS) {
        EXPECT_EQ(XDecoded(row.text), row.bytes) << row.text << ": " << row.reason;
    }
}

// The stated steps through the table.
CCmString XReferenceDecoded(const CCmString& aText) {
    const unsigned char* pTable = xbase64_init_decode_table();
    CCmString strBytes;
    for (size_t i = 0; i + 4 <= aText.size(); i += 4) {
        unsigned anValue[4];
        for (size_t j = 0; j < 4; ++j) {
            anValue[j] = pTable[static_cast<unsigned char>(aText[i + j])];
        }
        strBytes += static_cast<char>(anValue[0] << 2 | anValue[1] >> 4);
        strBytes += static_cast<char>(anValue[1] << 4 | anValue[2] >> 2);
        strBytes += static_cast<char>(anValue[2] << 6 | anValue[3]);
        if (aText[i + 2] == '=') {
            strBytes.resize(strBytes.size() - 2);
        } else if (aText[i + 3] == '=') {
            strBytes.resize(strBytes.size() - 1);
        }
    }
    return strBytes;
}

TEST(CmBase64Buffer, DecodesAsStated_WhateverByteIsAtAnyOffset) {
    const CCmString strText = XEncoded(kelto_test::RandomBytes<CCmString>(90, 5));
    for (size_t nPlace = 0; nPlace < strText.size(); ++nPlace) {
        for (int nByte = 0; nByte < 256; ++nByte) {
            CCmString strBroken = strText;
            strBroken[nPlace] = static_cast<char>(nByte);
            ASSERT_EQ(XDecoded(strBroken), XReferenceDecoded(strBroken)) << nPlace << ' ' << nByte;
        }
    }
}

// Hosts read the result as C text.
TEST(CmBase64Buffer, WritesThreeBytesForEveryGroup) {
    struct Row {
        const char* text;
        unsigned long kept;
        unsigned char written[7];
        const char* reason;
    };
    const Row ROWS[] = {
        {"aA==", 1, {'h', 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}, "zeros after one byte"},
        {"aG=q", 1, {'h', 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}, "the third character decides"},
        {"aGk=", 2, {'h', 'i', 0, 0xEE, 0xEE, 0xEE, 0xEE}, "the last bits of k are 0"},
        {"aGl=", 2, {'h', 'i', 0x40, 0xEE, 0xEE, 0xEE, 0xEE}, "what the table gives"},
        {"aGlqaA==", 4, {'h', 'i', 'j', 'h', 0, 0, 0xEE}, "the last of two groups"},
        {"aA==aGk=", 3, {'h', 'h', 'i', 0, 0xEE, 0xEE, 0xEE}, "the next group overwrites"},
    };
    xbase64_init_decode_table();
    for (const Row& row : ROWS) {
        CCmString strIn = row.text;
        unsigned char abOut[7];
        memset(abOut, 0xEE, sizeof(abOut));
        EXPECT_EQ(row.kept, xbase64_decode(reinterpret_cast<unsigned char*>(&strIn[0]),
                                           strIn.size(), abOut, sizeof(abOut)));
        EXPECT_EQ(0, memcmp(abOut, row.written, sizeof(abOut))) << row.text << ": " << row.reason;
    }
}

TEST(CmBase64Buffer, DecodesAsStated_WhateverTheBytes) {
    for (unsigned nSeed = 0; nSeed < 50; ++nSeed) {
        const CCmString strBytes = kelto_test::RandomBytes<CCmString>(1000 + nSeed, nSeed);
        ASSERT_EQ(XDecoded(strBytes), XReferenceDecoded(strBytes)) << nSeed;
    }
}

// aOut has aOutSize + 3 bytes, with guards after them.
CCmString Escaped(const char* aText, int aOutSize) {
    const size_t nRoom = static_cast<size_t>(std::max(aOutSize, -2) + 3);
    std::vector<char> in(aText, aText + std::strlen(aText) + 1);
    std::vector<char> out(nRoom + 8, GUARD);
    EXPECT_EQ(url_string_encode(in.data(), out.data(), aOutSize), out.data());
    EXPECT_EQ(CCmString(out.end() - 8, out.end()), CCmString(8, GUARD)) << aText;
    return out.data();
}

struct EscapeRow {
    const char* text;
    const char* escaped;
};

TEST(CmUrlStringEncode, EscapesAsFormsDo) {
    constexpr EscapeRow ROWS[] = {
        {"a b/c", "a+b%2fc"},
        {"", ""},
        {"azAZ09", "azAZ09"},
        {"-._~", "%2d%2e%5f%7e"},
        {"+%", "%2b%25"},
        {"@[`{:", "%40%5b%60%7b%3a"},
        {"\x10\x1F\x7F", "%10%1f%7f"},
        {"\xC3\xA4", "%c3%a4"},
        {"\x80\xFF", "%80%ff"},
        {"   ", "+++"},
        {"a=1&b=2", "a%3d1%26b%3d2"},
    };
    for (const EscapeRow& row : ROWS) {
        EXPECT_EQ(Escaped(row.text, 100), row.escaped);
    }
}

TEST(CmUrlStringEncode, EscapesEveryByte) {
    for (int nByte = 0x10; nByte < 256; ++nByte) {
        const char achText[] = {static_cast<char>(nByte), '\0'};
        char achExpected[8];
        std::snprintf(achExpected, sizeof(achExpected), "%%%x", nByte);
        const bool bPlain = nByte < 0x80 && std::isalnum(nByte) != 0;
        const CCmString strExpected = nByte == ' ' ? "+" : bPlain ? achText : achExpected;
        EXPECT_EQ(Escaped(achText, 100), strExpected) << nByte;
        EXPECT_EQ(Escaped(achText, 1), strExpected) << nByte;
    }
}

TEST(CmUrlStringEncode, StopsBeforeTheNextByte_WhenSizeIsReached) {
    EXPECT_EQ(Escaped("/x", 1), "%2f");
    EXPECT_EQ(Escaped("/x", 2), "%2f");
    EXPECT_EQ(Escaped("/x", 3), "%2f");
    EXPECT_EQ(Escaped("/x", 4), "%2fx");
    EXPECT_EQ(Escaped("abcdef", 3), "abc");
    EXPECT_EQ(Escaped("ab/d", 3), "ab%2f");
    EXPECT_EQ(Escaped("a/", 3), "a%2f");
}

TEST(CmUrlStringEncode, StopsBeforeTheNextByte_WhateverTheSize) {
    const CCmString strText = "ab/c de%fghi\xC3jk lmnop";
    for (int nSize = 1; nSize < 60; ++nSize) {
        CCmString strExpected;
        for (size_t i = 0; i < strText.size() && strExpected.size() < static_cast<size_t>(nSize);
             ++i) {
            strExpected += Escaped(strText.substr(i, 1).c_str(), 100);
        }
        EXPECT_EQ(Escaped(strText.c_str(), nSize), strExpected) << nSize;
    }
}

TEST(CmUrlStringEncode, WritesTheTerminatorOnly_WithoutRoom) {
    EXPECT_EQ(Escaped("abc", 0), "");
    EXPECT_EQ(Escaped("abc", -1), "");
    EXPECT_EQ(Escaped("abc", -2147483647 - 1), "");
}

TEST(CmUrlStringEncode, EndsTheText_WhenAByteIsBelow16) {
    EXPECT_EQ(Escaped("a\nb", 100), "a%a");
    EXPECT_EQ(Escaped("\x01", 100), "%1");
    char achIn[] =
        "\x0F"
        "bc";
    char achOut[20];
    url_string_encode(achIn, achOut, 10);
    EXPECT_EQ(std::memcmp(achOut, "%f\0bc", 6), 0);
}

TEST(CmUrlStringEncode, SucceedsWithNothing_WhenTheTextIsNull) {
    char achText[] = "abc";
    EXPECT_EQ(url_string_encode(achText, nullptr, 10), nullptr);
    char achOut[4] = "xyz";
    EXPECT_EQ(url_string_encode(nullptr, achOut, 1), achOut);
    EXPECT_STREQ(achOut, "");
}

TEST(CmStrCaseRStr, FindsTheLastPlace) {
    char achText[] = "abcABC";
    EXPECT_EQ(CM_strcaserstr(achText, "abc"), achText + 3);
    EXPECT_EQ(CM_strcaserstr(achText, "ABC"), achText + 3);
    EXPECT_EQ(CM_strcaserstr(achText, "bCa"), achText + 1);
    EXPECT_EQ(CM_strcaserstr(achText, "a"), achText + 3);
    EXPECT_EQ(CM_strcaserstr(achText, "abcabc"), achText);
    EXPECT_EQ(CM_strcaserstr(achText, "C"), achText + 5);
}

TEST(CmStrCaseRStr, FindsThePlace_WhenPlacesOverlap) {
    char achText[] = "aaaa";
    EXPECT_EQ(CM_strcaserstr(achText, "aa"), achText + 2);
}

// The search as it is stated.
char* StatedSearch(char* aStr, const char* aSub) {
    const size_t nStr = strlen(aStr);
    const size_t nSub = strlen(aSub);
    for (size_t nAt = nStr + 1; nSub > 0 && nAt > nSub; --nAt) {
        if (strncasecmp(aStr + (nAt - 1 - nSub), aSub, nSub) == 0) {
            return aStr + (nAt - 1 - nSub);
        }
    }
    return nullptr;
}

TEST(CmStrCaseRStr, FindsWhatTheStatedSearchFinds) {
    std::mt19937 random(4711);
    unsigned dwFound = 0;
    for (int i = 0; i < 200000; ++i) {
        const char* pszLetters = i % 2 == 0 ? "abAB" : "aA";
        CCmString strText(random() % 40, ' ');
        for (char& ch : strText) {
            ch = pszLetters[random() % strlen(pszLetters)];
        }
        CCmString strSub(random() % 8 + (i % 3 == 0 ? 8 : 0), ' ');
        for (char& ch : strSub) {
            ch = pszLetters[random() % strlen(pszLetters)];
        }
        char* pExpected = StatedSearch(&strText[0], strSub.c_str());
        dwFound += pExpected != nullptr ? 1 : 0;
        ASSERT_EQ(pExpected, CM_strcaserstr(&strText[0], strSub.c_str()))
            << strText << " / " << strSub;
    }
    EXPECT_LT(50000u, dwFound);
}

double CpuSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

TEST(CmStrCaseRStr, TakesLinearTime_WhenTheTextIsHostile) {
    CCmString strText(300000, 'a');
    const size_t nSub = 100000;
    const CCmString strRepeated(nSub - 1, 'A');
    CCmString strPeriodic;
    while (strPeriodic.size() < nSub) {
        strPeriodic += "aaaaaaab";
    }
    const double dStart = CpuSeconds();
    EXPECT_EQ(nullptr, CM_strcaserstr(&strText[0], (strRepeated + "b").c_str()));
    EXPECT_EQ(nullptr, CM_strcaserstr(&strText[0], ("b" + strRepeated).c_str()));
    EXPECT_EQ(nullptr, CM_strcaserstr(&strText[0], (strRepeated + "b" + strRepeated).c_str()));
    EXPECT_EQ(nullptr, CM_strcaserstr(&strText[0], strPeriodic.c_str()));
    strText[150000] = 'b';
    EXPECT_EQ(&strText[150001] - nSub, CM_strcaserstr(&strText[0], (strRepeated + "B").c_str()));
    // A search that starts anew at every place takes 20 seconds and more.
    EXPECT_GT(5, CpuSeconds() - dStart);
}

TEST(CmStrCaseRStr, GivesNull_WhenThereIsNone) {
    char achText[] = "abc";
    char achEmpty[] = "";
    EXPECT_EQ(CM_strcaserstr(achText, "x"), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, "abcd"), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, ""), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, nullptr), nullptr);
    EXPECT_EQ(CM_strcaserstr(achEmpty, "a"), nullptr);
    EXPECT_EQ(CM_strcaserstr(nullptr, "a"), nullptr);
}

TEST(CmStrCaseRStr, FoldsLettersOnly) {
    char achText[] = "[{@`\xE4";
    EXPECT_EQ(CM_strcaserstr(achText, "{@"), achText + 1);
    EXPECT_EQ(CM_strcaserstr(achText, "[@"), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, "@@"), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, "\xC4"), nullptr);
    EXPECT_EQ(CM_strcaserstr(achText, "\xE4"), achText + 4);
}

TEST(CmObjectTracer, TracesAndChangesNothing) {
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    yrk::ObjectTracer();
    EXPECT_EQ(kelto_test::AllocationsOfThisThread(), ulBefore);
}

}  // namespace
}  // namespace UTIL_NS
