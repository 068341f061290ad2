#include "CmCrc16.h"

#include <cstring>

namespace UTIL_NS {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "LoadBytes expects little-endian memory");

constexpr uint16_t REFLECTED_POLYNOMIAL = 0xA001;  // 0x8005

constexpr uint16_t ShiftOutByte(unsigned int aRegister) {
    for (int i = 0; i < 8; ++i) {
        aRegister = (aRegister >> 1) ^ ((aRegister & 1) != 0 ? REFLECTED_POLYNOMIAL : 0);
    }
    return static_cast<uint16_t>(aRegister);
}

constexpr CmCrc16StepTable MakeStepTable() {
    CmCrc16StepTable table = {};
    for (unsigned int b = 0; b < 256; ++b) {
        uint16_t wCrc = ShiftOutByte(b);
        for (size_t n = 0; n < CRC16_STEP; ++n) {
            table[n][b] = wCrc;
            wCrc = static_cast<uint16_t>((wCrc >> 8) ^ ShiftOutByte(wCrc & 0xFF));
        }
    }
    return table;
}

uint64_t LoadBytes(const unsigned char* aData) {
    uint64_t ullBytes;
    std::memcpy(&ullBytes, aData, sizeof(ullBytes));
    return ullBytes;
}

}  // namespace

constexpr CmCrc16StepTable g_crc16StepTable = MakeStepTable();

uint16_t CmCrc16ByTable(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    for (; aLength >= CRC16_STEP; aLength -= CRC16_STEP, aData += CRC16_STEP) {
        aCrc = CmCrc16Step(LoadBytes(aData) ^ aCrc, LoadBytes(aData + 8));
    }
    if (aLength >= 8) {
        // Eight zero bytes in front add nothing.
        aCrc = CmCrc16Step(0, LoadBytes(aData) ^ aCrc);
        aLength -= 8;
        aData += 8;
    }
    for (; aLength != 0; --aLength) {
        aCrc = CmCrc16Byte(aCrc, *aData++);
    }
    return aCrc;
}

}  // namespace UTIL_NS
