// The kernels of base64 on x86-64: vectors, on processors that have the instructions.
//
// They work on lanes of 16 bytes, which hold 12 bytes of data or their 16 characters. A shuffle is
// a look-up of 16 bytes at once in a table of 16, which serves to move bytes as well as to
// translate them.
#include <immintrin.h>

#include <cstring>

#include "CmBase64.h"
#include "port/CmCpuX86.h"

namespace UTIL_NS {

namespace {

constexpr size_t LANE_BYTES = 12;
constexpr size_t LANE_TEXT = 16;

struct alignas(16) CLaneTable {
    signed char entries[16];
};

// Encoding: the bytes of every group as 1 0 2 1, so that each six bits lie within 16.
constexpr CLaneTable SPREAD = {{1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10}};
// What to add to a value to get its character. By class: 0: a-z, 1 to 10: 0-9, 11: +, 12: /,
// 13: A-Z.
constexpr CLaneTable TO_CHARACTER = {{'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                      '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62,
                                      '/' - 63, 'A' - 0, 0, 0}};
// Decoding: a character is in the alphabet when its entries by lower and by upper half byte
// have no bit in common.
constexpr CLaneTable LOWER_BITS = {{0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                    0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A}};
constexpr CLaneTable UPPER_BITS = {{0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                                    0x10, 0x10, 0x10, 0x10, 0x10, 0x10}};
// What to add to a character to get its value, by upper half byte; entry 1 stands for '/'.
constexpr CLaneTable TO_VALUE = {{0, 63 - '/', 62 - '+', 52 - '0', 0 - 'A', 0 - 'A', 26 - 'a',
                                  26 - 'a', 0, 0, 0, 0, 0, 0, 0, 0}};
// The three bytes of every group in order, and the groups together.
constexpr CLaneTable GATHER = {{2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1}};

__m128i Load(const void* aLane) {
    return _mm_loadu_si128(static_cast<const __m128i*>(aLane));
}

void Store(void* aLane, __m128i aValue) {
    _mm_storeu_si128(static_cast<__m128i*>(aLane), aValue);
}

#define CM_SSSE3 __attribute__((target("ssse3")))
#define CM_AVX2 __attribute__((target("avx2")))

CM_AVX2 inline __m256i LoadTwice(const CLaneTable& aTable) {
    return _mm256_broadcastsi128_si256(Load(&aTable));
}

CM_SSSE3 inline __m128i EncodeLane(__m128i aBytes) {
    const __m128i spread = _mm_shuffle_epi8(aBytes, Load(&SPREAD));
    // The multiplications shift each 16 bits by an amount of their own.
    const __m128i odd = _mm_mulhi_epu16(_mm_and_si128(spread, _mm_set1_epi32(0x0FC0FC00)),
                                        _mm_set1_epi32(0x04000040));
    const __m128i even = _mm_mullo_epi16(_mm_and_si128(spread, _mm_set1_epi32(0x003F03F0)),
                                         _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(odd, even);
    const __m128i capital =
        _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), values), _mm_set1_epi8(13));
    const __m128i classes = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)), capital);
    return _mm_add_epi8(values, _mm_shuffle_epi8(Load(&TO_CHARACTER), classes));
}

CM_AVX2 inline __m256i EncodeTwoLanes(__m256i aBytes) {
    const __m256i spread = _mm256_shuffle_epi8(aBytes, LoadTwice(SPREAD));
    const __m256i odd = _mm256_mulhi_epu16(_mm256_and_si256(spread, _mm256_set1_epi32(0x0FC0FC00)),
                                           _mm256_set1_epi32(0x04000040));
    const __m256i even = _mm256_mullo_epi16(_mm256_and_si256(spread, _mm256_set1_epi32(0x003F03F0)),
                                            _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(odd, even);
    const __m256i capital =
        _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), values), _mm256_set1_epi8(13));
    const __m256i classes =
        _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)), capital);
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(LoadTwice(TO_CHARACTER), classes));
}

// False when a character is outside the alphabet; else aBytes starts with the 12 bytes.
CM_SSSE3 inline bool DecodeLane(__m128i aText, __m128i& aBytes) {
    const __m128i mask = _mm_set1_epi8(0x2F);
    const __m128i upper = _mm_and_si128(_mm_srli_epi32(aText, 4), mask);
    const __m128i lower = _mm_and_si128(aText, mask);
    const __m128i clash = _mm_and_si128(_mm_shuffle_epi8(Load(&LOWER_BITS), lower),
                                        _mm_shuffle_epi8(Load(&UPPER_BITS), upper));
    if (_mm_movemask_epi8(_mm_cmpgt_epi8(clash, _mm_setzero_si128())) != 0) {
        return false;
    }
    const __m128i slash = _mm_cmpeq_epi8(aText, _mm_set1_epi8('/'));
    const __m128i offsets = _mm_shuffle_epi8(Load(&TO_VALUE), _mm_add_epi8(slash, upper));
    const __m128i values = _mm_add_epi8(aText, offsets);
    // Two values to 12 bits, two of those to 24.
    const __m128i halves = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(halves, _mm_set1_epi32(0x00011000));
    aBytes = _mm_shuffle_epi8(groups, Load(&GATHER));
    return true;
}

// The same; 12 bytes at the start of each lane.
CM_AVX2 inline bool DecodeTwoLanes(__m256i aText, __m256i& aBytes) {
    const __m256i mask = _mm256_set1_epi8(0x2F);
    const __m256i upper = _mm256_and_si256(_mm256_srli_epi32(aText, 4), mask);
    const __m256i lower = _mm256_and_si256(aText, mask);
    if (!_mm256_testz_si256(_mm256_shuffle_epi8(LoadTwice(LOWER_BITS), lower),
                            _mm256_shuffle_epi8(LoadTwice(UPPER_BITS), upper))) {
        return false;
    }
    const __m256i slash = _mm256_cmpeq_epi8(aText, _mm256_set1_epi8('/'));
    const __m256i offsets = _mm256_shuffle_epi8(LoadTwice(TO_VALUE), _mm256_add_epi8(slash, upper));
    const __m256i values = _mm256_add_epi8(aText, offsets);
    const __m256i halves = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(halves, _mm256_set1_epi32(0x00011000));
    aBytes = _mm256_shuffle_epi8(groups, LoadTwice(GATHER));
    return true;
}

// A lane is loaded whole, so that 16 bytes must be there for 12.
CM_SSSE3 size_t EncodeSsse3(const unsigned char* aIn, size_t aLen, char* aOut) {
    size_t nDone = 0;
    for (; aLen - nDone >= LANE_TEXT; nDone += LANE_BYTES, aOut += LANE_TEXT) {
        Store(aOut, EncodeLane(Load(aIn + nDone)));
    }
    return nDone;
}

CM_AVX2 size_t EncodeAvx2(const unsigned char* aIn, size_t aLen, char* aOut) {
    size_t nDone = 0;
    for (; aLen - nDone >= LANE_BYTES + LANE_TEXT; nDone += 2 * LANE_BYTES, aOut += 2 * LANE_TEXT) {
        const __m256i first = _mm256_castsi128_si256(Load(aIn + nDone));
        const __m256i bytes = _mm256_inserti128_si256(first, Load(aIn + nDone + LANE_BYTES), 1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(aOut), EncodeTwoLanes(bytes));
    }
    if (aLen - nDone >= LANE_TEXT) {
        Store(aOut, EncodeLane(Load(aIn + nDone)));
        nDone += LANE_BYTES;
    }
    return nDone;
}

CM_SSSE3 size_t DecodeSsse3(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    size_t nDone = 0;
    __m128i bytes;
    while (aLen - nDone >= LANE_TEXT && DecodeLane(Load(aIn + nDone), bytes)) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(aOut), bytes);
        const int nLast = _mm_cvtsi128_si32(_mm_srli_si128(bytes, 8));
        std::memcpy(aOut + 8, &nLast, 4);
        nDone += LANE_TEXT;
        aOut += LANE_BYTES;
    }
    return nDone;
}

CM_AVX2 size_t DecodeAvx2(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    const __m256i together = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    size_t nDone = 0;
    __m256i bytes;
    while (
        aLen - nDone >= 2 * LANE_TEXT &&
        DecodeTwoLanes(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(aIn + nDone)), bytes)) {
        bytes = _mm256_permutevar8x32_epi32(bytes, together);
        Store(aOut, _mm256_castsi256_si128(bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(aOut + 16), _mm256_extracti128_si256(bytes, 1));
        nDone += 2 * LANE_TEXT;
        aOut += 2 * LANE_BYTES;
    }
    return nDone;
}

bool HasSsse3() {
    return CmCpuHas(CM_CPU_SSSE3);
}

bool HasAvx2() {
    return CmCpuHas(CM_CPU_AVX2);
}

}  // namespace

const CCmBase64Kernel g_base64Kernels[] = {
    {"ssse3", HasSsse3, EncodeSsse3, 16, DecodeSsse3, 16},
    {"avx2", HasAvx2, EncodeAvx2, 16, DecodeAvx2, 32},
    {nullptr, nullptr, nullptr, 0, nullptr, 0},
};

size_t CmBase64EncodeByVector(const unsigned char* aIn, size_t aLen, char* aOut) {
    const unsigned int dwFeatures = CmCpuFeatures();
    if ((dwFeatures & CM_CPU_AVX2) != 0) {
        return EncodeAvx2(aIn, aLen, aOut);
    }
    return (dwFeatures & CM_CPU_SSSE3) != 0 ? EncodeSsse3(aIn, aLen, aOut) : 0;
}

size_t CmBase64DecodeByVector(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    const unsigned int dwFeatures = CmCpuFeatures();
    if (aLen >= 2 * LANE_TEXT && (dwFeatures & CM_CPU_AVX2) != 0) {
        return DecodeAvx2(aIn, aLen, aOut);
    }
    return (dwFeatures & CM_CPU_SSSE3) != 0 ? DecodeSsse3(aIn, aLen, aOut) : 0;
}

}  // namespace UTIL_NS
