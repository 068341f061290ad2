#include "CmStrict.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "CmBase64.h"
#include "CmStrictResult.h"

namespace UTIL_NS {

namespace {

constexpr char OF_THE_ALPHABET[] = "a character of the base64 alphabet";
constexpr size_t GROUP = 4;         // characters that give three bytes
constexpr size_t TRANSLATED = 256;  // characters at a time
static_assert(TRANSLATED % GROUP == 0, "whole groups");

// A character of the URL alphabet as one of the standard alphabet; "+" and "/", which only the
// latter has, become NUL, which neither has. Without branches, so that compilers translate many
// characters at a time.
constexpr char ToStandard(char aChar) {
    const int nDash = -static_cast<int>(aChar == '-') & ('-' ^ '+');
    const int nLine = -static_cast<int>(aChar == '_') & ('_' ^ '/');
    const int nKept = -static_cast<int>((aChar != '+') & (aChar != '/'));
    return static_cast<char>((aChar ^ nDash ^ nLine) & nKept);
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
        if (nPart == TRANSLATED) {
            for (size_t i = 0; i < TRANSLATED; ++i) {
                achStandard[i] = ToStandard(aText[nDone + i]);
            }
        } else {
            std::transform(aText + nDone, aText + nDone + nPart, achStandard, ToStandard);
        }
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

// The last two letters of the URL alphabet in place of the standard ones.
void TranslateToUrl(CCmString& aText) {
    std::replace(aText.begin(), aText.end(), '+', '-');
    std::replace(aText.begin(), aText.end(), '/', '_');
}

// ---- UTF-8

bool IsContinuation(unsigned char aByte) {
    return static_cast<signed char>(aByte) < -64;  // 0x80 to 0xBF
}

uint64_t HighBits(const unsigned char* aBytes) {
    uint64_t ullWord = 0;
    std::memcpy(&ullWord, aBytes, sizeof(ullWord));
    return ullWord & 0x8080808080808080;
}

// Skips ASCII in steps, as far as that goes.
const unsigned char* SkipAscii(const unsigned char* aNext, const unsigned char* aEnd) {
    constexpr std::ptrdiff_t WORD = sizeof(uint64_t);
    while (aEnd - aNext >= 4 * WORD &&
           (HighBits(aNext) | HighBits(aNext + WORD) | HighBits(aNext + 2 * WORD) |
            HighBits(aNext + 3 * WORD)) == 0) {
        aNext += 4 * WORD;
    }
    return aNext;
}

// The first sequence that is not UTF-8, or the end. The second byte keeps out what is overlong, a
// surrogate or above U+10FFFF (RFC 3629, 4). Each branch advances by a constant, so that a
// processor which guesses the branch reads on before it has checked the sequence.
const unsigned char* FirstBadSequence(const unsigned char* aNext, const unsigned char* aEnd) {
    while (aNext != aEnd) {
        const unsigned char byFirst = *aNext;
        const std::ptrdiff_t nLeft = aEnd - aNext;
        if (byFirst < 0x80) {
            ++aNext;
            // Looked for at every eighth address only: short runs would cost more than they gain.
            if (reinterpret_cast<uintptr_t>(aNext) % 8 == 0 && nLeft > 8 && HighBits(aNext) == 0) {
                aNext = SkipAscii(aNext + 8, aEnd);
            }
        } else if (byFirst < 0xE0) {
            if (byFirst < 0xC2 || nLeft < 2 || !IsContinuation(aNext[1])) {
                break;
            }
            aNext += 2;
        } else if (byFirst < 0xF0) {
            if (nLeft < 3 || !IsContinuation(aNext[1]) || !IsContinuation(aNext[2]) ||
                (byFirst == 0xE0 && aNext[1] < 0xA0) || (byFirst == 0xED && aNext[1] >= 0xA0)) {
                break;
            }
            aNext += 3;
        } else {
            if (byFirst > 0xF4 || nLeft < 4 || !IsContinuation(aNext[1]) ||
                !IsContinuation(aNext[2]) || !IsContinuation(aNext[3]) ||
                (byFirst == 0xF0 && aNext[1] < 0x90) || (byFirst == 0xF4 && aNext[1] >= 0x90)) {
                break;
            }
            aNext += 4;
        }
    }
    return aNext;
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
    const unsigned char* const pBad = FirstBadSequence(pBytes, pBytes + aText.size());
    const auto nBad = static_cast<size_t>(pBad - pBytes);
    return nBad == aText.size() ? CCmParsed() : CmRefused(nBad, "a sequence of UTF-8");
}

}  // namespace UTIL_NS
