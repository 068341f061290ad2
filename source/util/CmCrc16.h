// The fast ways of CRC-16; internal. Each gives what the byte-wise loop gives.
//
// The value is the register of the reflected polynomial 0x8005, from any start value on.
#ifndef CM_CRC16_H
#define CM_CRC16_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace UTIL_NS {

constexpr size_t CRC16_STEP = 16;  // bytes that CmCrc16ByTable takes at a time

// [n][b]: what byte b adds to the register when n more bytes follow it.
typedef std::array<std::array<uint16_t, 256>, CRC16_STEP> CmCrc16StepTable;
extern const CmCrc16StepTable g_crc16StepTable;

// Sixteen bytes in one step; aLow and aHigh: eight bytes each, little-endian.
inline uint16_t CmCrc16Step(uint64_t aLow, uint64_t aHigh) {
    uint16_t wCrc = 0;
    for (size_t i = 0; i < 8; ++i) {
        wCrc ^= g_crc16StepTable[15 - i][(aLow >> (8 * i)) & 0xFF];
        wCrc ^= g_crc16StepTable[7 - i][(aHigh >> (8 * i)) & 0xFF];
    }
    return wCrc;
}

inline uint16_t CmCrc16Byte(uint16_t aCrc, unsigned char aByte) {
    return static_cast<uint16_t>((aCrc >> 8) ^ g_crc16StepTable[0][(aCrc ^ aByte) & 0xFF]);
}

// Several bytes a step through tables; any length.
uint16_t CmCrc16ByTable(uint16_t aCrc, const unsigned char* aData, size_t aLength);

// By carry-less multiplication, where the processor at hand has it; at least CRC16_STEP bytes. This
// is the kernel: port/CmCrc16X86.cpp or one of its like, of which CMake takes the one for the
// processor that it builds for.
bool CmHasCarrylessMultiply();
uint16_t CmCrc16ByMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength);

// What the kernel chooses from, for tests; the last has no name.
struct CCmCrc16Kernel {
    const char* m_pszName;
    bool (*m_pfnIsThere)();  // on the processor at hand
    uint16_t (*m_pfnCalculate)(uint16_t aCrc, const unsigned char* aData, size_t aLength);
};
extern const CCmCrc16Kernel g_crc16Kernels[];

}  // namespace UTIL_NS

#endif  // CM_CRC16_H
