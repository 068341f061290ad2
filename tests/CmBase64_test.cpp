#include "CmBase64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/RandomBytes.h"

namespace UTIL_NS {
namespace {

constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char GUARD = 0xA5;

// By scalars, and by each kernel that the processor at hand has.
std::vector<CCmBase64Kernel> Ways() {
    std::vector<CCmBase64Kernel> ways = {
        {"scalar", [] { return true; }, CmBase64EncodeScalar, 3, CmBase64DecodeScalar, 4}};
    for (const CCmBase64Kernel* pKernel = g_base64Kernels; pKernel->m_pszName != nullptr;
         ++pKernel) {
        if (pKernel->m_pfnIsThere()) {
            ways.push_back(*pKernel);
        }
    }
    return ways;
}

std::vector<unsigned char> RandomText(size_t aLength, unsigned aSeed) {
    std::vector<unsigned char> text = kelto_test::RandomBytes(aLength, aSeed);
    for (unsigned char& ch : text) {
        ch = static_cast<unsigned char>(ALPHABET[ch & 63]);
    }
    return text;
}

// One group at a time, bit by bit.
std::string ReferenceEncode(const unsigned char* aIn, size_t aGroups) {
    std::string text;
    for (size_t i = 0; i < aGroups * 24; i += 6) {
        unsigned nValue = 0;
        for (size_t nBit = i; nBit < i + 6; ++nBit) {
            nValue = nValue << 1 | ((aIn[nBit / 8] >> (7 - nBit % 8)) & 1U);
        }
        text += ALPHABET[nValue];
    }
    return text;
}

std::string ReferenceDecode(const unsigned char* aIn, size_t aGroups) {
    std::string bytes(aGroups * 3, '\0');
    for (size_t i = 0; i < aGroups * 24; ++i) {
        const unsigned nValue = static_cast<unsigned>(std::strchr(ALPHABET, aIn[i / 6]) - ALPHABET);
        const unsigned nBit = (nValue >> (5 - i % 6)) & 1U;
        bytes[i / 8] = static_cast<char>(static_cast<unsigned char>(bytes[i / 8]) << 1 | nBit);
    }
    return bytes;
}

TEST(CmBase64, AlphabetIsTheStandardOne) {
    EXPECT_EQ(std::string(six2pr), ALPHABET);
    EXPECT_EQ(std::string(s_base64), ALPHABET);
}

TEST(CmBase64, ValuesAreThoseOfTheAlphabet) {
    for (unsigned i = 0; i < 256; ++i) {
        const char* pFound = i == 0 ? nullptr : std::strchr(ALPHABET, static_cast<int>(i));
        const unsigned nValue = pFound == nullptr ? 64 : static_cast<unsigned>(pFound - ALPHABET);
        EXPECT_EQ(pr2six[i], nValue) << i;
        EXPECT_EQ(s_base64_decode_table[i], nValue == 64 ? 0 : nValue) << i;
    }
}

TEST(CmBase64, EncodersGiveTheBits_WhateverTheLength) {
    const std::vector<unsigned char> bytes = kelto_test::RandomBytes(300, 1);
    for (const CCmBase64Kernel& way : Ways()) {
        for (size_t nLength = 0; nLength <= bytes.size(); ++nLength) {
            // On the heap and of exactly this size, so that a read outside is noticed.
            const std::vector<unsigned char> in(bytes.end() - static_cast<long>(nLength),
                                                bytes.end());
            std::vector<char> out(nLength / 3 * 4 + 64, static_cast<char>(GUARD));
            const size_t nDone = way.m_pfnEncode(in.data(), nLength, out.data());
            ASSERT_EQ(nDone % 3, 0u);
            ASSERT_LE(nDone, nLength);
            ASSERT_LT(nLength - nDone, way.m_nEncodeLeft) << way.m_pszName;
            const size_t nText = nDone / 3 * 4;
            ASSERT_EQ(std::string(out.data(), nText), ReferenceEncode(in.data(), nDone / 3))
                << way.m_pszName << ' ' << nLength;
            ASSERT_EQ(std::count(out.begin() + static_cast<long>(nText), out.end(),
                                 static_cast<char>(GUARD)),
                      64 + static_cast<long>((nLength / 3 - nDone / 3) * 4))
                << way.m_pszName << ' ' << nLength;
        }
    }
}

TEST(CmBase64, EncodersGiveTheBits_WhateverByteIsInAnyPlace) {
    for (const CCmBase64Kernel& way : Ways()) {
        for (size_t nPlace = 0; nPlace < 48; ++nPlace) {
            for (unsigned nByte = 0; nByte < 256; ++nByte) {
                std::vector<unsigned char> in(48, 0x5A);
                in[nPlace] = static_cast<unsigned char>(nByte);
                char achOut[64];
                const size_t nDone = way.m_pfnEncode(in.data(), in.size(), achOut);
                ASSERT_EQ(std::string(achOut, nDone / 3 * 4), ReferenceEncode(in.data(), nDone / 3))
                    << way.m_pszName << ' ' << nPlace << ' ' << nByte;
            }
        }
    }
}

TEST(CmBase64, DecodersGiveTheBits_WhateverTheLength) {
    const std::vector<unsigned char> text = RandomText(400, 2);
    for (const CCmBase64Kernel& way : Ways()) {
        for (size_t nLength = 0; nLength <= text.size(); ++nLength) {
            const std::vector<unsigned char> in(text.end() - static_cast<long>(nLength),
                                                text.end());
            const size_t nWhole = nLength / way.m_nDecodeStep * way.m_nDecodeStep;
            std::vector<unsigned char> out(nWhole / 4 * 3 + 64, GUARD);
            ASSERT_EQ(way.m_pfnDecode(in.data(), nLength, out.data()), nWhole) << way.m_pszName;
            ASSERT_EQ(std::string(out.begin(), out.end() - 64),
                      ReferenceDecode(in.data(), nWhole / 4))
                << way.m_pszName << ' ' << nLength;
            ASSERT_EQ(std::count(out.end() - 64, out.end(), GUARD), 64) << way.m_pszName << nLength;
        }
    }
}

TEST(CmBase64, DecodersStop_WhateverInvalidByteIsInAnyPlace) {
    constexpr size_t LENGTH = 128;  // a multiple of every step
    const std::vector<unsigned char> text = RandomText(LENGTH, 3);
    for (const CCmBase64Kernel& way : Ways()) {
        for (size_t nPlace = 0; nPlace < LENGTH; ++nPlace) {
            std::string expected;
            for (unsigned nByte = 0; nByte < 256; ++nByte) {
                std::vector<unsigned char> in = text;
                in[nPlace] = static_cast<unsigned char>(nByte);
                const size_t nWhole =
                    pr2six[nByte] < 64 ? LENGTH : nPlace / way.m_nDecodeStep * way.m_nDecodeStep;
                std::vector<unsigned char> out(LENGTH / 4 * 3, GUARD);
                ASSERT_EQ(way.m_pfnDecode(in.data(), LENGTH, out.data()), nWhole)
                    << way.m_pszName << ' ' << nPlace << ' ' << nByte;
                ASSERT_EQ(std::string(out.begin(), out.begin() + static_cast<long>(nWhole / 4 * 3)),
                          ReferenceDecode(in.data(), nWhole / 4));
                ASSERT_EQ(
                    std::count(out.begin() + static_cast<long>(nWhole / 4 * 3), out.end(), GUARD),
                    static_cast<long>((LENGTH - nWhole) / 4 * 3));
            }
        }
    }
}

// A kernel is used where there is one; the text itself does not show which way made it.
TEST(CmBase64, TakesAKernel_WhenTheProcessorHasOne) {
    const unsigned char abyIn[96] = {};
    char achText[160];
    EXPECT_EQ(Ways().size() > 1, CmBase64EncodeByVector(abyIn, sizeof(abyIn), achText) != 0);
}

TEST(CmBase64, ImplementationsAgree_WhenInputsAreLong) {
    for (unsigned nSeed = 0; nSeed < 20; ++nSeed) {
        const std::vector<unsigned char> bytes =
            kelto_test::RandomBytes(3 * (5000 + 7 * nSeed), nSeed);
        std::string expected(bytes.size() / 3 * 4, '\0');
        CmBase64EncodeScalar(bytes.data(), bytes.size(), &expected[0]);
        std::string text(expected.size(), '\0');
        EXPECT_EQ(CmBase64Encode(bytes.data(), bytes.size(), &text[0]), text.data() + text.size());
        ASSERT_EQ(text, expected);
        std::vector<unsigned char> back(bytes.size());
        EXPECT_EQ(CmBase64Decode(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                                 back.data()),
                  text.size());
        ASSERT_EQ(back, bytes);
    }
}

TEST(CmBase64, StopsAtItsGroup_WhenAByteIsInvalid) {
    const std::vector<unsigned char> text = RandomText(200, 5);
    for (size_t nPlace = 0; nPlace < text.size(); ++nPlace) {
        std::vector<unsigned char> in = text;
        in[nPlace] = '=';
        std::vector<unsigned char> out(150);
        ASSERT_EQ(CmBase64Decode(in.data(), in.size(), out.data()), nPlace / 4 * 4);
    }
}

}  // namespace
}  // namespace UTIL_NS
