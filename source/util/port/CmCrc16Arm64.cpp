// The kernels of CRC-16 on arm64: carry-less multiplication, on processors that have the
// instruction. CmCrc16Factors.h tells how.
#include <arm_neon.h>

#include <cstring>

#include "CmCrc16.h"
#include "port/CmCpuArm64.h"
#include "port/CmCrc16Factors.h"

namespace UTIL_NS {

namespace {

using namespace crc16;

// The two compilers' names of the same extension.
#if defined(__clang__)
#define CM_TARGET __attribute__((target("aes")))
#else
#define CM_TARGET __attribute__((target("+crypto")))
#endif
#define CM_INLINE __attribute__((always_inline)) inline

CM_TARGET CM_INLINE uint64x2_t Load(const unsigned char* aData) {
    return vreinterpretq_u64_u8(vld1q_u8(aData));
}

CM_TARGET CM_INLINE uint64x2_t LoadFactors(const CFactors& aFactors) {
    return vcombine_u64(vcreate_u64(aFactors.first), vcreate_u64(aFactors.second));
}

CM_TARGET CM_INLINE uint64x2_t MultiplyHalves(uint64x1_t aFirst, uint64x1_t aSecond) {
    return vreinterpretq_u64_p128(vmull_p64(static_cast<poly64_t>(vget_lane_u64(aFirst, 0)),
                                            static_cast<poly64_t>(vget_lane_u64(aSecond, 0))));
}

CM_TARGET CM_INLINE uint64x2_t Multiply(uint64x2_t aBlock, uint64x2_t aFactors) {
    const uint64x2_t first = MultiplyHalves(vget_low_u64(aBlock), vget_low_u64(aFactors));
    const uint64x2_t second = vreinterpretq_u64_p128(
        vmull_high_p64(vreinterpretq_p64_u64(aBlock), vreinterpretq_p64_u64(aFactors)));
    return veorq_u64(first, second);
}

// The sum of aCount blocks, carried to the end of the data; aFollowing blocks come after them.
CM_TARGET CM_INLINE uint64x2_t Carry(const unsigned char* aData, size_t aCount, size_t aFollowing) {
    uint64x2_t sum = vdupq_n_u64(0);
    for (size_t i = 0; i < aCount; ++i) {
        const CFactors& factors = CARRY.factors[aFollowing + aCount - 1 - i];
        sum = veorq_u64(sum, Multiply(Load(aData + BLOCK_SIZE * i), LoadFactors(factors)));
    }
    return sum;
}

// Folds eight blocks onto the next eight; aBlocks: where they are, and come to be.
CM_TARGET void FoldGroups(unsigned char* aBlocks, const unsigned char* aData, size_t aGroups) {
    const uint64x2_t factors = LoadFactors(FOLD);
    uint64x2_t r[FOLDED];
    std::memcpy(r, aBlocks, sizeof(r));
    for (; aGroups != 0; --aGroups, aData += BLOCK_SIZE * FOLDED) {
        r[0] = veorq_u64(Multiply(r[0], factors), Load(aData));
        r[1] = veorq_u64(Multiply(r[1], factors), Load(aData + 16));
        r[2] = veorq_u64(Multiply(r[2], factors), Load(aData + 32));
        r[3] = veorq_u64(Multiply(r[3], factors), Load(aData + 48));
        r[4] = veorq_u64(Multiply(r[4], factors), Load(aData + 64));
        r[5] = veorq_u64(Multiply(r[5], factors), Load(aData + 80));
        r[6] = veorq_u64(Multiply(r[6], factors), Load(aData + 96));
        r[7] = veorq_u64(Multiply(r[7], factors), Load(aData + 112));
    }
    std::memcpy(aBlocks, r, sizeof(r));
}

// The remainder of a sum that Carry gave. Its upper 64 bits (of 80) times the reciprocal give the
// quotient; the sum and the quotient times the polynomial agree but for the remainder.
CM_TARGET CM_INLINE uint16_t Remainder(uint64x2_t aSum) {
    const uint8x16_t zero = vdupq_n_u8(0);
    const uint64x1_t upper =
        vget_low_u64(vreinterpretq_u64_u8(vextq_u8(vreinterpretq_u8_u64(aSum), zero, 6)));
    const uint64x2_t product = MultiplyHalves(upper, vcreate_u64(Reciprocal()));
    const uint64x1_t quotient = veor_u64(upper, vshl_n_u64(vget_low_u64(product), 1));
    const uint64x2_t multiple = MultiplyHalves(quotient, vcreate_u64(Reflect(POLYNOMIAL & 0xFFFF)));
    const uint64x2_t remainder = veorq_u64(vshlq_n_u64(multiple, 1), aSum);
    return vgetq_lane_u16(vreinterpretq_u16_u64(remainder), 7);
}

// aFront and then aBlocks blocks, at least 2 * FOLDED - 1, at aData. Not inline, so that a short
// buffer need not make room for eight blocks on the stack.
CM_TARGET __attribute__((noinline)) uint16_t LongByMultiply(uint64x2_t aFront,
                                                            const unsigned char* aData,
                                                            size_t aBlocks) {
    alignas(16) unsigned char abyBlocks[BLOCK_SIZE * FOLDED];
    std::memcpy(abyBlocks, &aFront, BLOCK_SIZE);
    std::memcpy(abyBlocks + BLOCK_SIZE, aData, sizeof(abyBlocks) - BLOCK_SIZE);
    aData += sizeof(abyBlocks) - BLOCK_SIZE;
    aBlocks -= FOLDED - 1;
    FoldGroups(abyBlocks, aData, aBlocks / FOLDED);
    aData += aBlocks / FOLDED * sizeof(abyBlocks);
    aBlocks %= FOLDED;
    return Remainder(veorq_u64(Carry(abyBlocks, FOLDED, aBlocks), Carry(aData, aBlocks, 0)));
}

}  // namespace

const CCmCrc16Kernel g_crc16Kernels[] = {
    {"by multiplication", CmHasCarrylessMultiply, CmCrc16ByMultiply},
    {nullptr, nullptr, nullptr},
};

bool CmHasCarrylessMultiply() {
    return CmCpuHas(CM_CPU_PMULL);
}

CM_TARGET uint16_t CmCrc16ByMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    if (aLength % BLOCK_SIZE == 1) {
        aCrc = CmCrc16Byte(aCrc, *aData++);
        --aLength;
    }
    // The register is added to the first two bytes; zeros in front of those change nothing, so
    // an odd length is made up there.
    const size_t nFirst = aLength % BLOCK_SIZE != 0 ? aLength % BLOCK_SIZE : BLOCK_SIZE;
    const uint64x2_t start = vcombine_u64(vcreate_u64(aCrc), vcreate_u64(0));
    const uint8x16_t first = vreinterpretq_u8_u64(veorq_u64(Load(aData), start));
    const uint64x2_t front = vreinterpretq_u64_u8(vqtbl1q_u8(first, vld1q_u8(SHUFFLES + nFirst)));
    aData += nFirst;
    const size_t nBlocks = (aLength - nFirst) / BLOCK_SIZE;
    if (nBlocks >= 2 * FOLDED - 1) {
        return LongByMultiply(front, aData, nBlocks);
    }
    const uint64x2_t carried = Multiply(front, LoadFactors(CARRY.factors[nBlocks]));
    return Remainder(veorq_u64(carried, Carry(aData, nBlocks, 0)));
}

}  // namespace UTIL_NS
