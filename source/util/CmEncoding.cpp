#include "CmEncoding.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <new>

#include "CmAscii.h"
#include "CmBase64.h"
#include "CmTextSearch.h"

namespace UTIL_NS {

namespace {

// Strings grow by this much at a time: the zeros that resize() writes are still in the nearest
// cache when the text replaces them.
constexpr size_t CHUNK_BYTES = 3 * 1024;
constexpr size_t CHUNK_TEXT = CHUNK_BYTES / 3 * 4;

bool LiesIn(const void* aBytes, const CCmString& aText) {
    const std::less_equal<const void*> notAfter;
    return notAfter(aText.data(), aBytes) && notAfter(aBytes, aText.data() + aText.capacity());
}

// Makes room for aLength characters; what the string holds is kept only if it need not move.
void Prepare(CCmString& aText, size_t aLength) {
    if (aText.capacity() < aLength) {
        aText.clear();
        aText.reserve(aLength);
    }
}

void GrowTo(CCmString& aText, size_t aLength) {
    if (aText.size() < aLength) {
        aText.resize(aLength);
    }
}

void Encode(const unsigned char* aIn, size_t aLen, CCmString& aOut) {
    if (aLen > aOut.max_size() / 4 * 3) {
        throw std::bad_alloc();
    }
    const size_t nLength = CmBase64EncodedLength(aLen);
    Prepare(aOut, nLength);
    size_t nText = 0;
    for (size_t nDone = 0; nDone < aLen; nDone += CHUNK_BYTES) {
        const size_t nChunk = std::min(CHUNK_BYTES, aLen - nDone);
        GrowTo(aOut, nText + CmBase64EncodedLength(nChunk));
        CmBase64Encode(aIn + nDone, nChunk, &aOut[nText]);
        nText += CmBase64EncodedLength(nChunk);
    }
    aOut.resize(nLength);
}

// What aLen characters decode to at most: one or two bytes for a last group that is not whole.
constexpr size_t DecodedLength(size_t aLen) {
    return aLen / 4 * 3 + (aLen % 4 + 1) / 2;
}

// The characters in front of the padding, of which there may be too much or none.
size_t LengthWithoutPadding(const unsigned char* aIn, size_t aLen) {
    while (aLen != 0 && aIn[aLen - 1] == '=') {
        --aLen;
    }
    return aLen;
}

// The last group of a run, of one to three characters, at aGroup; aIn ends at aEnd, where the
// padding or the terminator is, which counts as outside the alphabet. Returns the bytes written.
size_t DecodeRest(const unsigned char* aGroup, const unsigned char* aEnd, unsigned char* aOut) {
    uint32_t values[3] = {CM_BASE64_INVALID, CM_BASE64_INVALID, CM_BASE64_INVALID};
    for (size_t i = 0; i < 3 && aGroup + i < aEnd; ++i) {
        values[i] = pr2six[aGroup[i]];
    }
    if (values[0] == CM_BASE64_INVALID) {
        return 0;
    }
    aOut[0] = static_cast<unsigned char>(values[0] << 2 | values[1] >> 4);
    if (values[2] == CM_BASE64_INVALID) {
        return 1;
    }
    aOut[1] = static_cast<unsigned char>(values[1] << 4 | values[2] >> 2);
    return 2;
}

// aOut is grown to what is written, so that a string that already has the length, as one that is
// used again and again does, is neither filled nor cut.
void Decode(const unsigned char* aIn, size_t aLen, CCmString& aOut) {
    aLen = LengthWithoutPadding(aIn, aLen);
    Prepare(aOut, DecodedLength(aLen));
    size_t nText = 0;
    size_t nBytes = 0;
    size_t nDone = 0;
    do {
        const size_t nChunk = std::min(CHUNK_TEXT, aLen - nText);
        GrowTo(aOut, nBytes + DecodedLength(nChunk));
        nDone =
            CmBase64Decode(aIn + nText, nChunk, reinterpret_cast<unsigned char*>(&aOut[nBytes]));
        nText += nDone;
        nBytes += nDone / 4 * 3;
    } while (nDone == CHUNK_TEXT);
    nBytes += DecodeRest(aIn + nText, aIn + aLen, reinterpret_cast<unsigned char*>(&aOut[nBytes]));
    aOut.resize(nBytes);
}

// Writes three bytes: what the table gives, and zeros from the second on when the third character
// is padding. Returns how many of them the padding leaves.
size_t DecodePaddedGroup(const unsigned char* aIn, unsigned char* aOut) {
    const unsigned nFirst = s_base64_decode_table[aIn[0]];
    const unsigned nSecond = s_base64_decode_table[aIn[1]];
    const unsigned nThird = s_base64_decode_table[aIn[2]];
    const unsigned nFourth = s_base64_decode_table[aIn[3]];
    aOut[0] = static_cast<unsigned char>(nFirst << 2 | nSecond >> 4);
    if (aIn[2] == '=') {
        aOut[1] = 0;
        aOut[2] = 0;
        return 1;
    }
    aOut[1] = static_cast<unsigned char>(nSecond << 4 | nThird >> 2);
    aOut[2] = static_cast<unsigned char>(nThird << 6 | nFourth);
    return aIn[3] == '=' ? 2 : 3;
}

// What url_string_encode writes for a byte.
struct CEscape {
    char m_achText[3];
    unsigned char m_byLength;
};

constexpr CEscape MakeEscape(unsigned aByte) {
    const char ch = static_cast<char>(aByte);
    if (CmIsLetter(ch) || CmIsDigit(ch)) {
        return {{ch}, 1};
    }
    if (aByte == ' ') {
        return {{'+'}, 1};
    }
    constexpr char HEX[] = "0123456789abcdef";
    if (aByte < 0x10) {
        return {{'%', HEX[aByte], '\0'}, 3};
    }
    return {{'%', HEX[aByte >> 4], HEX[aByte & 0xF]}, 3};
}

constexpr std::array<CEscape, 256> MakeEscapes() {
    std::array<CEscape, 256> escapes{};
    for (unsigned i = 0; i < 256; ++i) {
        escapes[i] = MakeEscape(i);
    }
    return escapes;
}

constexpr std::array<CEscape, 256> ESCAPES = MakeEscapes();
constexpr ptrdiff_t STORED = sizeof(CEscape);

// A text from its end on, its letters in lower case.
struct CBackwardNoCase {
    unsigned char operator()(size_t aPlace) const {
        return static_cast<unsigned char>(CmToLower(*(m_pEnd - 1 - aPlace)));
    }
    const char* m_pEnd;
};

}  // namespace

unsigned char* xbase64_init_decode_table() {
    return s_base64_decode_table.data();
}

unsigned long xbase64_calc_encode_buf_size(unsigned char* /*aIn*/, unsigned long aLen) {
    return aLen / 3 * 4 + 4;
}

long xbase64_encode(unsigned char* aIn, unsigned long aLen, unsigned char* aOut,
                    unsigned long /*aOutSize*/) {
    char* pText = reinterpret_cast<char*>(aOut);
    return CmBase64Encode(aIn, aLen, pText) - pText;
}

unsigned long xbase64_decode(unsigned char* aIn, unsigned long aLen, unsigned char* aOut,
                             unsigned long /*aOutSize*/) {
    const unsigned char* const pEnd = aIn + aLen / 4 * 4;
    unsigned char* pOut = aOut;
    while (aIn != pEnd) {
        const size_t nDone = CmBase64Decode(aIn, static_cast<size_t>(pEnd - aIn), pOut);
        aIn += nDone;
        pOut += nDone / 4 * 3;
        if (aIn != pEnd) {
            pOut += DecodePaddedGroup(aIn, pOut);
            aIn += 4;
        }
    }
    return static_cast<unsigned long>(pOut - aOut);
}

char* url_string_encode(char* aIn, char* aOut, int aOutSize) {
    if (aOut == nullptr) {
        return nullptr;
    }
    char* pOut = aOut;
    const char* const pLimit = aOut + std::max(aOutSize, 0);
    // All four bytes of an entry are stored where they fit; the next ones overwrite the excess.
    for (; aIn != nullptr && *aIn != '\0' && pLimit - pOut >= STORED; ++aIn) {
        const CEscape& escape = ESCAPES[static_cast<unsigned char>(*aIn)];
        std::memcpy(pOut, &escape, sizeof(escape));
        pOut += escape.m_byLength;
    }
    for (; aIn != nullptr && *aIn != '\0' && pOut < pLimit; ++aIn) {
        const CEscape& escape = ESCAPES[static_cast<unsigned char>(*aIn)];
        std::memcpy(pOut, escape.m_achText, escape.m_byLength);
        pOut += escape.m_byLength;
    }
    *pOut = '\0';
    return aOut;
}

template <>
CmResult xtoa_yrk<long long>(long long aValue, char* aBuf, int aSize) {
    if (aBuf == nullptr || aSize < 3) {
        return CM_ERROR_FAILURE;
    }
    char* pLast = aBuf + aSize - 1;
    char* pText = pLast;
    *pLast = '\0';
    // Unsigned negation is right for the most negative number too.
    unsigned long long ullRest = aValue < 0 ? 0ULL - static_cast<unsigned long long>(aValue)
                                            : static_cast<unsigned long long>(aValue);
    do {
        if (pText == aBuf) {
            return CM_ERROR_FAILURE;
        }
        *--pText = static_cast<char>('0' + ullRest % 10);
        ullRest /= 10;
    } while (ullRest != 0);
    if (aValue <= 0) {
        if (pText == aBuf) {
            return CM_ERROR_FAILURE;
        }
        *--pText = '-';
    }
    std::memmove(aBuf, pText, static_cast<size_t>(pLast - pText) + 1);
    return CM_OK;
}

}  // namespace UTIL_NS

void CM_Base64Encode(const void* aIn, unsigned long aLen, UTIL_NS::CCmString& aOut) {
    using namespace UTIL_NS;
    try {
        if (aIn == nullptr || !LiesIn(aIn, aOut)) {
            Encode(static_cast<const unsigned char*>(aIn), aIn == nullptr ? 0 : aLen, aOut);
            return;
        }
        CCmString strText;
        Encode(static_cast<const unsigned char*>(aIn), aLen, strText);
        aOut.swap(strText);
    } catch (const std::bad_alloc&) {
        aOut.clear();
    }
}

void CM_Base64Decode(const char* aIn, UTIL_NS::CCmString& aOut) {
    using namespace UTIL_NS;
    if (aIn == nullptr) {
        aOut.clear();
        return;
    }
    while (*aIn == ' ' || *aIn == '\t') {
        ++aIn;
    }
    const unsigned char* pText = reinterpret_cast<const unsigned char*>(aIn);
    const size_t nLength = std::strlen(aIn);
    try {
        if (!LiesIn(aIn, aOut)) {
            Decode(pText, nLength, aOut);
            return;
        }
        CCmString strBytes;
        Decode(pText, nLength, strBytes);
        aOut.swap(strBytes);
    } catch (const std::bad_alloc&) {
        aOut.clear();
    }
}

char* CM_strcaserstr(char* aStr, const char* aSub) {
    if (aStr == nullptr || aSub == nullptr || *aSub == '\0') {
        return nullptr;
    }
    const size_t nStr = std::strlen(aStr);
    const size_t nSub = std::strlen(aSub);
    const UTIL_NS::CCmTextSearchT<UTIL_NS::CBackwardNoCase> search({aSub + nSub}, nSub);
    const size_t nFromEnd = search.Find({aStr + nStr}, nStr, 0);
    return nFromEnd != UTIL_NS::CM_NOT_FOUND ? aStr + (nStr - nFromEnd - nSub) : nullptr;
}

void yrk::ObjectTracer() {}
