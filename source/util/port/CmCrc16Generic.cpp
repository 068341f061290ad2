// CRC-16 on processors for which no kernel is written.
#include "CmCrc16.h"

namespace UTIL_NS {

const CCmCrc16Kernel g_crc16Kernels[] = {
    {nullptr, nullptr, nullptr},
};

bool CmHasCarrylessMultiply() {
    return false;
}

uint16_t CmCrc16ByMultiply(uint16_t aCrc, const unsigned char* aData, size_t aLength) {
    return CmCrc16ByTable(aCrc, aData, aLength);
}

}  // namespace UTIL_NS
