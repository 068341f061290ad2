// The kernels of CRC-16 on x86-64: carry-less multiplication, on processors that have the
// instruction. CmCrc16Factors.h tells how.
#include <immintrin.h>

#include <cstring>

#include "CmCrc16.h"
#include "port/CmCpuX86.h"
#include "port/CmCrc16Factors.h"

namespace UTIL_NS {

namespace {

using namespace crc16;

#define CM_TARGET __attribute__((target("pclmul,ssse3")))
#define CM_TARGET_WIDE __attribute__((target("pclmul,ssse3,avx2,vpclmulqdq")))
#define CM_INLINE __attribute__((always_inline)) inline

CM_TARGET CM_INLINE __m128i Load(const void* aData) {
    return _mm_loadu_si128(static_cast<const __m128i*>(aData));
}

CM_TARGET CM_INLINE __m128i Multiply(__m128i aBlock, __m128i aFactors) {
    return _mm_xor_si128(_mm_clmulepi64_si128(aBlock, aFactors, 0x00),
                         _mm_clmulepi64_si128(aBlock, aFactors, 0x11));
}

// The sum of aCount blocks, carried to the end of the data; aFollowing blocks come after them.
CM_TARGET CM_INLINE __m128i Carry(const unsigned char* aData, size_t aCount, size_t aFollowing) {
    __m128i sum = _mm_setzero_si128();
    for (size_t i = 0; i < aCount; ++i) {
        const CFactors& factors = CARRY.factors[aFollowing + aCount - 1 - i];
        sum = _mm_xor_si128(sum, Multiply(Load(aData + BLOCK_SIZE * i), Load(&factors)));
    }
    return sum;
}

// Folds eight blocks onto the next eight; aBlocks: where they are, and come to be.
CM_TARGET void FoldGroups(unsigned char* aBlocks, const unsigned char* aData, size_t aGroups) {
    const __m128i factors = Load(&FOLD);
    __m128i r[FOLDED];
    std::memcpy(r, aBlocks, sizeof(r));
    for (; aGroups != 0; --aGroups, aData += BLOCK_SIZE * FOLDED) {
        r[0] = _mm_xor_si128(Multiply(r[0], factors), Load(aData));
        r[1] = _mm_xor_si128(Multiply(r[1], factors), Load(aData + 16));
        r[2] = _mm_xor_si128(Multiply(r[2], factors), Load(aData + 32));
        r[3] = _mm_xor_si128(Multiply(r[3], factors), Load(aData + 48));
        r[4] = _mm_xor_si128(Multiply(r[4], factors), Load(aData + 64));
        r[5] = _mm_xor_si128(Multiply(r[5], factors), Load(aData + 80));
        r[6] = _mm_xor_si128(Multiply(r[6], factors), Load(aData + 96));
        r[7] = _mm_xor_si128(Multiply(r[7], factors), Load(aData + 112));
    }
    std::memcpy(aBlocks, r, sizeof(r));
}

CM_TARGET_WIDE CM_INLINE __m256i FoldPair(__m256i aPair, __m256i aFactors, const void* aOnto) {
    const __m256i onto = _mm256_loadu_si256(static_cast<const __m256i*>(aOnto));
    return _mm256_xor_si256(onto,
                            _mm256_xor_si256(_mm256_clmulepi64_epi128(aPair, aFactors, 0x00),
                                             _mm256_clmulepi64_epi128(aPair, aFactors, 0x11)));
}

// The same with two blocks in a register.
CM_TARGET_WIDE void FoldGroupsWide(unsigned char* aBlocks, const unsigned char* aData,
                                   size_t aGroups) {
    const __m256i factors = _mm256_broadcastsi128_si256(Load(&FOLD));
    __m256i r[FOLDED / 2];
    std::memcpy(r, aBlocks, sizeof(r));
    for (; aGroups != 0; --aGroups, aData += BLOCK_SIZE * FOLDED) {
        r[0] = FoldPair(r[0], factors, aData);
        r[1] = FoldPair(r[1], factors, aData + 32);
        r[2] = FoldPair(r[2], factors, aData + 64);
        r[3] = FoldPair(r[3], factors, aData + 96);
    }
    std::memcpy(aBlocks, r, sizeof(r));
}

// The remainder of a sum that Carry gave. Its upper 64 bits (of 80) times the reciprocal give the
// quotient; the sum and the quotient times the polynomial agree but for the remainder.
CM_TARGET CM_INLINE uint16_t Remainder(__m128i aSum) {
    const __m128i factors = _mm_set_epi64x(static_cast<long long>(Reflect(POLYNOMIAL & 0xFFFF)),
                                           static_cast<long long>(Reciprocal()));
    const __m128i upper = _mm_srli_si128(aSum, 6);
    const __m128i product = _mm_clmulepi64_si128(upper, factors, 0x00);
    const __m128i quotient = _mm_xor_si128(upper, _mm_slli_epi64(product, 1));
    const __m128i multiple = _mm_clmulepi64_si128(quotient, factors, 0x10);
    const __m128i remainder = _mm_xor_si128(_mm_slli_epi64(multiple, 1), aSum);
    return static_cast<uint16_t>(_mm_extract_epi16(remainder, 7));
}

bool HasWideMultiply() {
    return CmCpuHas(CM_CPU_VPCLMULQDQ | CM_CPU_AVX2);
}

// aFront and then aBlocks blocks, at least 2 * FOLDED - 1, at aData. Not inline, so that a short
// buffer need not make room for eight blocks on the stack. aMayBeWide: whether the wide form of the
// instruction may be used where it is there.
CM_TARGET __attribute__((noinline)) uint16_t LongByMultiply(__m128i aFront,
                                                            const unsigned char* aData,
                                                            size_t aBlocks, bool aMayBeWide) {
    alignas(32) unsigned char abyBlocks[BLOCK_SIZE * FOLDED];
    std::memcpy(abyBlocks, &aFront, BLOCK_SIZE);
    std::memcpy(abyBlocks + BLOCK_SIZE, aData, sizeof(abyBlocks) - BLOCK_SIZE);
    aData += sizeof(abyBlocks) - BLOCK_SIZE;
    aBlocks -= FOLDED - 1;
    const auto pfnFold = aMayBeWide && HasWideMultiply() ? FoldGroupsWide : FoldGroups;
    pfnFold(abyBlocks, aData, aBlocks / FOLDED);
    aData += aBlocks / FOLDED * sizeof(abyBlocks);
    aBlocks %= FOLDED;
    return Remainder(_mm_xor_si128(Carry(abyBlocks, FOLDED, aBlocks), Carry(aData, aBlocks, 0)));
}

CM_TARGET CM_INLINE uint16_t ByMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength,
                                        bool aMayBeWide) {
    if (aLength % BLOCK_SIZE == 1) {
        aCrc = CmCrc16Byte(aCrc, *aData++);
        --aLength;
    }
    // The register is added to the first two bytes; zeros in front of those change nothing, so
    // an odd length is made up there.
    const size_t nFirst = aLength % BLOCK_SIZE != 0 ? aLength % BLOCK_SIZE : BLOCK_SIZE;
    const __m128i front = _mm_shuffle_epi8(_mm_xor_si128(Load(aData), _mm_cvtsi32_si128(aCrc)),
                                           Load(SHUFFLES + nFirst));
    aData += nFirst;
    const size_t nBlocks = (aLength - nFirst) / BLOCK_SIZE;
    if (nBlocks >= 2 * FOLDED - 1) {
        return LongByMultiply(front, aData, nBlocks, aMayBeWide);
    }
    const __m128i first = Multiply(front, Load(&CARRY.factors[nBlocks]));
    return Remainder(_mm_xor_si128(first, Carry(aData, nBlocks, 0)));
}

CM_TARGET uint16_t ByNarrowMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    return ByMultiply(aCrc, aData, aLength, false);
}

}  // namespace

const CCmCrc16Kernel g_crc16Kernels[] = {
    {"by multiplication", CmHasCarrylessMultiply, CmCrc16ByMultiply},
    // As on a processor without the wide form of the instruction.
    {"by narrow multiplication", CmHasCarrylessMultiply, ByNarrowMultiply},
    {nullptr, nullptr, nullptr},
};

bool CmHasCarrylessMultiply() {
    return CmCpuHas(CM_CPU_PCLMUL | CM_CPU_SSSE3);
}

CM_TARGET uint16_t CmCrc16ByMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    return ByMultiply(aCrc, aData, aLength, true);
}

}  // namespace UTIL_NS
