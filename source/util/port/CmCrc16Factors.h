// How CRC-16 is calculated by carry-less multiplication, and the numbers that this takes; internal,
// for the kernels of the processors.
//
// The data is a polynomial over one bit, so a block that lies n bits in front of another may be
// added to it after multiplication by x^n modulo the CRC's polynomial. A long buffer is folded
// eight blocks at a time, side by side, for the multiplier is pipelined. What is left is carried
// to the end block by block, again side by side, as a sum of 80 bits, whose remainder is found by
// multiplication with the reciprocal of the polynomial.
#ifndef CM_CRC16_FACTORS_H
#define CM_CRC16_FACTORS_H

#include <cstddef>
#include <cstdint>

namespace UTIL_NS {
namespace crc16 {

constexpr size_t BLOCK_SIZE = 16;  // bytes
constexpr size_t FOLDED = 8;       // blocks side by side
constexpr unsigned int BLOCK_BITS = 128;

// In a reflected number the highest bit is x^0.
constexpr uint64_t Reflect(uint64_t aValue) {
    uint64_t ullReflected = 0;
    for (unsigned int i = 0; i < 64; ++i) {
        ullReflected |= ((aValue >> i) & 1) << (63 - i);
    }
    return ullReflected;
}

constexpr uint32_t POLYNOMIAL = 0x18005;

// x^aPower modulo the polynomial, reflected.
constexpr uint64_t PowerOfX(unsigned int aPower) {
    uint32_t dwRemainder = 1;
    for (unsigned int i = 0; i < aPower; ++i) {
        dwRemainder <<= 1;
        dwRemainder ^= (dwRemainder & 0x10000) != 0 ? POLYNOMIAL : 0;
    }
    return Reflect(dwRemainder);
}

// x^80 divided by the polynomial, without its highest term x^64, reflected.
constexpr uint64_t Reciprocal() {
    uint64_t ullQuotient = 0;
    uint32_t dwRemainder = 0x10000;
    for (unsigned int i = 0; i <= 64; ++i) {
        const bool bFits = (dwRemainder & 0x10000) != 0;
        ullQuotient = (ullQuotient << 1) | (bFits ? 1 : 0);
        dwRemainder = (bFits ? dwRemainder ^ POLYNOMIAL : dwRemainder) << 1;
    }
    return Reflect(ullQuotient);
}

// What carries the two halves of a block over aBits bits. The first half lies 64 bits further in
// front; a product of reflected factors comes out multiplied by x, hence one power less.
struct CFactors {
    uint64_t first;
    uint64_t second;
};

constexpr CFactors FactorsFor(unsigned int aBits) {
    return {PowerOfX(aBits + 63), PowerOfX(aBits - 1)};
}

// [n]: over n blocks and the 16 bits of the register.
struct CCarryTable {
    CFactors factors[2 * FOLDED];
};

constexpr CCarryTable MakeCarryTable() {
    CCarryTable table = {};
    for (unsigned int n = 0; n < 2 * FOLDED; ++n) {
        table.factors[n] = FactorsFor(BLOCK_BITS * n + 16);
    }
    return table;
}

alignas(16) inline constexpr CCarryTable CARRY = MakeCarryTable();
alignas(16) inline constexpr CFactors FOLD = FactorsFor(BLOCK_BITS * FOLDED);

// The 16 bytes from n on, as a shuffle, move the first n bytes of a block to its end and put zeros
// in front of them.
alignas(16) inline constexpr unsigned char SHUFFLES[32] = {
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15};

}  // namespace crc16
}  // namespace UTIL_NS

#endif  // CM_CRC16_FACTORS_H
