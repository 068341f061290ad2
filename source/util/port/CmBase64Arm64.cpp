// The kernels of base64 on arm64: vectors, which every such processor has.
//
// A load takes the three or four bytes of sixteen groups apart, so that a vector holds the same
// place of all of them, and a store puts them together. A look-up takes a table of 64 bytes.
#include <arm_neon.h>

#include "CmBase64.h"

namespace UTIL_NS {

namespace {

constexpr size_t STEP_BYTES = 48;
constexpr size_t STEP_TEXT = 64;
constexpr unsigned char NOT_A_VALUE = 0xFF;

// Of the characters below 128; no other is in the alphabet.
constexpr std::array<unsigned char, 256> VALUES = CmBase64Values<unsigned char>(NOT_A_VALUE);

uint8x16x4_t LoadTable(const unsigned char* aEntries) {
    return {{vld1q_u8(aEntries), vld1q_u8(aEntries + 16), vld1q_u8(aEntries + 32),
             vld1q_u8(aEntries + 48)}};
}

size_t EncodeNeon(const unsigned char* aIn, size_t aLen, char* aOut) {
    const uint8x16x4_t alphabet = LoadTable(reinterpret_cast<const unsigned char*>(six2pr));
    const uint8x16_t six = vdupq_n_u8(63);
    size_t nDone = 0;
    for (; aLen - nDone >= STEP_BYTES; nDone += STEP_BYTES, aOut += STEP_TEXT) {
        const uint8x16x3_t in = vld3q_u8(aIn + nDone);
        const uint8x16_t second = vsliq_n_u8(vshrq_n_u8(in.val[1], 4), in.val[0], 4);
        const uint8x16_t third = vsliq_n_u8(vshrq_n_u8(in.val[2], 6), in.val[1], 2);
        const uint8x16x4_t text = {{vqtbl4q_u8(alphabet, vshrq_n_u8(in.val[0], 2)),
                                    vqtbl4q_u8(alphabet, vandq_u8(second, six)),
                                    vqtbl4q_u8(alphabet, vandq_u8(third, six)),
                                    vqtbl4q_u8(alphabet, vandq_u8(in.val[2], six))}};
        vst4q_u8(reinterpret_cast<unsigned char*>(aOut), text);
    }
    return nDone;
}

struct CValueTables {
    uint8x16x4_t m_Lower;  // of the characters below 64
    uint8x16x4_t m_Upper;
};

// NOT_A_VALUE for what is outside the alphabet. An index beyond a table leaves what was there.
uint8x16_t ValuesOf(const CValueTables& aTables, uint8x16_t aText) {
    const uint8x16_t lower = vqtbx4q_u8(vdupq_n_u8(NOT_A_VALUE), aTables.m_Lower, aText);
    return vqtbx4q_u8(lower, aTables.m_Upper, veorq_u8(aText, vdupq_n_u8(64)));
}

size_t DecodeNeon(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    const CValueTables tables = {LoadTable(VALUES.data()), LoadTable(VALUES.data() + 64)};
    size_t nDone = 0;
    for (; aLen - nDone >= STEP_TEXT; nDone += STEP_TEXT, aOut += STEP_BYTES) {
        const uint8x16x4_t text = vld4q_u8(aIn + nDone);
        const uint8x16_t first = ValuesOf(tables, text.val[0]);
        const uint8x16_t second = ValuesOf(tables, text.val[1]);
        const uint8x16_t third = ValuesOf(tables, text.val[2]);
        const uint8x16_t fourth = ValuesOf(tables, text.val[3]);
        if (vmaxvq_u8(vorrq_u8(vorrq_u8(first, second), vorrq_u8(third, fourth))) > 63) {
            break;
        }
        const uint8x16x3_t bytes = {{vsliq_n_u8(vshrq_n_u8(second, 4), first, 2),
                                     vsliq_n_u8(vshrq_n_u8(third, 2), second, 4),
                                     vsliq_n_u8(fourth, third, 6)}};
        vst3q_u8(aOut, bytes);
    }
    return nDone;
}

}  // namespace

const CCmBase64Kernel g_base64Kernels[] = {
    {"neon", [] { return true; }, EncodeNeon, STEP_BYTES, DecodeNeon, STEP_TEXT},
    {nullptr, nullptr, nullptr, 0, nullptr, 0},
};

size_t CmBase64EncodeByVector(const unsigned char* aIn, size_t aLen, char* aOut) {
    return aLen >= STEP_BYTES ? EncodeNeon(aIn, aLen, aOut) : 0;
}

size_t CmBase64DecodeByVector(const unsigned char* aIn, size_t aLen, unsigned char* aOut) {
    return aLen >= STEP_TEXT ? DecodeNeon(aIn, aLen, aOut) : 0;
}

}  // namespace UTIL_NS
