#include "CmBase64.h"

#include <cstring>

#include "CmBase.h"

namespace UTIL_NS {

std::array<unsigned char, 256> s_base64_decode_table = CmBase64Values<unsigned char>(0);

namespace {

// The two characters of every 12 bits, so that three bytes take two look-ups.
struct CPair {
    char m_achText[2];
};

constexpr std::array<CPair, 4096> MakePairs() {
    std::array<CPair, 4096> pairs{};
    for (unsigned i = 0; i < 4096; ++i) {
        pairs[i] = CPair{{six2pr[i >> 6], six2pr[i & 63]}};
    }
    return pairs;
}

constexpr uint32_t NOT_A_VALUE = 1U << 31;

// The value of every character, shifted to its place in the 24 bits of a group.
constexpr std::array<uint32_t, 256> MakePlaced(unsigned aShift) {
    std::array<uint32_t, 256> placed = CmBase64Values<uint32_t>(NOT_A_VALUE);
    for (uint32_t& value : placed) {
        value = value == NOT_A_VALUE ? NOT_A_VALUE : value << aShift;
    }
    return placed;
}

constexpr std::array<CPair, 4096> PAIRS = MakePairs();
constexpr std::array<uint32_t, 256> FIRST = MakePlaced(18);
constexpr std::array<uint32_t, 256> SECOND = MakePlaced(12);
constexpr std::array<uint32_t, 256> THIRD = MakePlaced(6);
constexpr std::array<uint32_t, 256> FOURTH = MakePlaced(0);

void EncodeGroup(const unsigned char* aIn, char* aOut) {
    const unsigned nUpper = static_cast<unsigned>(aIn[0]) << 4 | aIn[1] >> 4;
    const unsigned nLower = (aIn[1] & 0xFU) << 8 | aIn[2];
    std::memcpy(aOut, PAIRS[nUpper].m_achText, 2);
    std::memcpy(aOut + 2, PAIRS[nLower].m_achText, 2);
}

// One or two bytes left over: missing bits are 0, missing characters '='.
char* EncodeRest(const unsigned char* aIn, size_t aLen, char* aOut) {
    unsigned char abyGroup[3] = {aIn[0], 0, 0};
    if (aLen == 2) {
        abyGroup[1] = aIn[1];
    }
    EncodeGroup(abyGroup, aOut);
    aOut[3] = '=';
    if (aLen == 1) {
        aOut[2] = '=';
    }
    return aOut + 4;
}

bool DecodeGroup(const unsigned char* aIn, unsigned char* aOut) {
    const uint32_t dwBits = FIRST[aIn[0]] | SECOND[aIn[1]] | THIRD[aIn[2]] | FOURTH[aIn[3]];
    if (CM_UNLIKELY((dwBits & NOT_A_VALUE) != 0)) {
        return false;
    }
    aOut[0] = static_cast<unsigned char>(dwBits >> 16);
    aOut[1] = static_cast<unsigned char>(dwBits >> 8);
    aOut[2] = static_cast<unsigned char>(dwBits);
    return true;
}

}  // namespace

size_t CmBase64EncodeScalar(const unsigned char* aIn, size_t aLen, char* aOut) {
    size_t nDone = 0;
    for (; aLen - nDone >= 3; nDone += 3, aOut += 4) {
        EncodeGroup(aIn + nDone, aOut);
    }
    return nDone;
}

size_t CmBase64DecodeScalar(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    size_t nDone = 0;
    while (aLen - nDone >= 4 && DecodeGroup(aIn + nDone, aOut)) {
        nDone += 4;
        aOut += 3;
    }
    return nDone;
}

char* CmBase64Encode(const unsigned char* aIn, size_t aLen, char* aOut) {
    size_t nDone = CmBase64EncodeByVector(aIn, aLen, aOut);
    aOut += nDone / 3 * 4;
    const size_t nWhole = CmBase64EncodeScalar(aIn + nDone, aLen - nDone, aOut);
    nDone += nWhole;
    aOut += nWhole / 3 * 4;
    return nDone < aLen ? EncodeRest(aIn + nDone, aLen - nDone, aOut) : aOut;
}

size_t CmBase64Decode(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    const size_t nDone = CmBase64DecodeByVector(aIn, aLen, aOut);
    return nDone + CmBase64DecodeScalar(aIn + nDone, aLen - nDone, aOut + nDone / 4 * 3);
}

}  // namespace UTIL_NS
