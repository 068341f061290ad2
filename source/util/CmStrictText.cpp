#include <string.h>

#include <algorithm>
#include <new>

#include "CmBase64.h"
#include "CmStrict.h"
#include "CmStrictResult.h"

namespace UTIL_NS {

namespace {

constexpr char OF_THE_ALPHABET[] = "a character of the base64 alphabet";
constexpr size_t GROUP = 4;         // characters that give three bytes
constexpr size_t TRANSLATED = 512;  // characters at a time
static_assert(TRANSLATED % GROUP == 0, "whole groups");

// The last two characters of the other alphabet; a byte of neither for those of the standard one,
// which do not count there.
constexpr char ToStandard(char aChar) {
    switch (aChar) {
        case '-':
            return '+';
        case '_':
            return '/';
        case '+':
        case '/':
            return '\0';
        default:
            return aChar;
    }
}

// Decodes whole groups from the front; returns how many characters it consumed.
size_t DecodeGroups(const char* aText, size_t aLength, unsigned char* aOut, bool aIsUrl) {
    if (!aIsUrl) {
        return CmBase64Decode(reinterpret_cast<const unsigned char*>(aText), aLength, aOut);
    }
    char achStandard[TRANSLATED];
    size_t nDone = 0;
    while (nDone < aLength) {
        const size_t nPart = std::min(aLength - nDone, TRANSLATED);
        std::transform(aText + nDone, aText + nDone + nPart, achStandard, ToStandard);
        const size_t nConsumed = CmBase64Decode(reinterpret_cast<const unsigned char*>(achStandard),
                                                nPart, aOut + nDone / GROUP * 3);
        nDone += nConsumed;
        if (nConsumed < nPart) {
            break;
        }
    }
    return nDone;
}

uint32_t ValueOf(char aChar, bool aIsUrl) {
    return pr2six[static_cast<unsigned char>(aIsUrl ? ToStandard(aChar) : aChar)];
}

// The first character from aAt on that is not in the alphabet, or the end.
size_t FirstBad(std::string_view aText, size_t aAt, bool aIsUrl) {
    while (aAt < aText.size() && ValueOf(aText[aAt], aIsUrl) < CM_BASE64_INVALID) {
        ++aAt;
    }
    return aAt;
}

// A text without its padding, which is at most two "=" at the end of whole groups.
std::string_view Digits(std::string_view aText) {
    std::string_view digits = aText;
    for (int i = 0; i < 2 && !digits.empty() && digits.back() == '='; ++i) {
        digits.remove_suffix(1);
    }
    return aText.size() % GROUP == 0 ? digits : aText;
}

// The two or three characters after the last whole group.
CCmParsed DecodeRest(std::string_view aDigits, size_t aAt, unsigned char* aOut, bool aIsUrl) {
    const size_t nRest = aDigits.size() - aAt;
    if (nRest == 1) {
        return CmRefused(aDigits.size(), "another character of the base64 alphabet");
    }
    uint32_t ulBits = 0;
    for (size_t i = 0; i < nRest; ++i) {
        ulBits = ulBits << 6 | ValueOf(aDigits[aAt + i], aIsUrl);
    }
    const unsigned nSpare = nRest == 2 ? 4 : 2;
    if ((ulBits & ((1U << nSpare) - 1)) != 0) {
        return CmRefused(aDigits.size() - 1, "a last character without bits left over");
    }
    ulBits >>= nSpare;
    if (nRest == 3) {
        aOut[0] = static_cast<unsigned char>(ulBits >> 8);
        aOut[1] = static_cast<unsigned char>(ulBits);
    } else {
        aOut[0] = static_cast<unsigned char>(ulBits);
    }
    return CCmParsed();
}

CCmParsed CheckPadding(std::string_view aText, std::string_view aDigits, CmBase64Padding aPadding) {
    const size_t nPadding = aText.size() - aDigits.size();
    if (nPadding > 0 && aPadding == CmBase64Padding::NONE) {
        return CmRefused(aDigits.size(), "the end of the text");
    }
    if (nPadding == 0 && aPadding == CmBase64Padding::REQUIRED && aText.size() % GROUP != 0) {
        return CmRefused(aText.size(), "\"=\" up to a multiple of four characters");
    }
    return CCmParsed();
}

// The last two letters of the other alphabet in place of the standard ones.
void TranslateToUrl(CCmString& aText) {
    std::replace(aText.begin(), aText.end(), '+', '-');
    std::replace(aText.begin(), aText.end(), '/', '_');
}

// ---- UTF-8

bool IsContinuation(unsigned char aByte) {
    return (aByte & 0xC0) == 0x80;
}

// The length of the sequence at the start of aBytes, of which aLeft are there; 0 when it is none.
// RFC 3629: which first byte allows which second byte.
size_t SequenceLength(const unsigned char* aBytes, size_t aLeft) {
    const unsigned char byFirst = aBytes[0];
    if (byFirst < 0x80) {
        return 1;
    }
    if (byFirst < 0xC2 || byFirst > 0xF4 || aLeft < 2) {
        return 0;
    }
    unsigned char byLeast = 0x80;
    unsigned char byMost = 0xBF;
    switch (byFirst) {
        case 0xE0:
            byLeast = 0xA0;  // less is overlong
            break;
        case 0xED:
            byMost = 0x9F;  // more is a surrogate
            break;
        case 0xF0:
            byLeast = 0x90;  // less is overlong
            break;
        case 0xF4:
            byMost = 0x8F;  // more is above U+10FFFF
            break;
        default:
            break;
    }
    if (aBytes[1] < byLeast || aBytes[1] > byMost) {
        return 0;
    }
    if (byFirst < 0xE0) {
        return 2;
    }
    if (aLeft < 3 || !IsContinuation(aBytes[2])) {
        return 0;
    }
    if (byFirst < 0xF0) {
        return 3;
    }
    return aLeft >= 4 && IsContinuation(aBytes[3]) ? 4 : 0;
}

// How many bytes at the front are ASCII, counted in steps of 32.
size_t SkipAscii(const unsigned char* aBytes, size_t aLength) {
    constexpr uint64_t HIGH_BITS = 0x8080808080808080;
    size_t nDone = 0;
    for (; aLength - nDone >= 4 * sizeof(uint64_t); nDone += 4 * sizeof(uint64_t)) {
        uint64_t aullWords[4];
        memcpy(aullWords, aBytes + nDone, sizeof(aullWords));
        if (((aullWords[0] | aullWords[1] | aullWords[2] | aullWords[3]) & HIGH_BITS) != 0) {
            break;
        }
    }
    return nDone;
}

}  // namespace

CCmParsed CmDecodeBase64(std::string_view aText, void* aOut, size_t aOutSize, size_t& aLength,
                         CmBase64Alphabet aAlphabet, CmBase64Padding aPadding) {
    const bool bUrl = aAlphabet == CmBase64Alphabet::URL;
    const std::string_view digits = Digits(aText);
    const size_t nLength = CmBase64DecodedMax(digits.size());
    if (nLength > aOutSize) {
        return CCmParsed{CM_ERROR_NOT_AVAILABLE, 0, "a larger buffer"};
    }
    auto* pOut = static_cast<unsigned char*>(aOut);
    const size_t nWhole = DecodeGroups(digits.data(), digits.size() / GROUP * GROUP, pOut, bUrl);
    const size_t nBad = FirstBad(digits, nWhole, bUrl);
    if (nBad != digits.size()) {
        return CmRefused(nBad, OF_THE_ALPHABET);
    }
    if (nWhole != digits.size()) {
        const CCmParsed rest = DecodeRest(digits, nWhole, pOut + nWhole / GROUP * 3, bUrl);
        if (!rest) {
            return rest;
        }
    }
    const CCmParsed padding = CheckPadding(aText, digits, aPadding);
    if (padding) {
        aLength = nLength;
    }
    return padding;
}

CCmParsed CmDecodeBase64(std::string_view aText, CCmString& aOut, CmBase64Alphabet aAlphabet,
                         CmBase64Padding aPadding) {
    size_t nLength = 0;
    try {
        aOut.resize(CmBase64DecodedMax(aText.size()));
    } catch (const std::exception&) {
        aOut.clear();
        return CmNoMemory();
    }
    const CCmParsed parsed =
        CmDecodeBase64(aText, aOut.data(), aOut.size(), nLength, aAlphabet, aPadding);
    aOut.resize(nLength);
    return parsed;
}

CmResult CmEncodeBase64(std::string_view aBytes, CCmString& aText, CmBase64Alphabet aAlphabet,
                        CmBase64Padding aPadding) {
    try {
        aText.resize(CmBase64EncodedLength(aBytes.size()));
    } catch (const std::exception&) {
        aText.clear();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    CmBase64Encode(reinterpret_cast<const unsigned char*>(aBytes.data()), aBytes.size(),
                   aText.data());
    if (aAlphabet == CmBase64Alphabet::URL) {
        TranslateToUrl(aText);
    }
    if (aPadding == CmBase64Padding::NONE) {
        aText.resize(aText.size() - (3 - aBytes.size() % 3) % 3);
    }
    return CM_OK;
}

CCmParsed CmCheckUtf8(std::string_view aText) {
    const auto* pBytes = reinterpret_cast<const unsigned char*>(aText.data());
    size_t nAt = 0;
    while (nAt < aText.size()) {
        if (pBytes[nAt] < 0x80) {
            nAt += SkipAscii(pBytes + nAt, aText.size() - nAt);
        }
        // The rest of a step, up to the next byte that is not ASCII.
        while (nAt < aText.size() && pBytes[nAt] < 0x80) {
            ++nAt;
        }
        while (nAt < aText.size() && pBytes[nAt] >= 0x80) {
            const size_t nSequence = SequenceLength(pBytes + nAt, aText.size() - nAt);
            if (nSequence == 0) {
                return CmRefused(nAt, "a sequence of UTF-8");
            }
            nAt += nSequence;
        }
    }
    return CCmParsed();
}

}  // namespace UTIL_NS
