// The tests of base64 and CRC-16 once more, over the files for processors without kernels.
#include <gtest/gtest.h>

#include "CmBase64.h"
#include "CmCrc16.h"

namespace UTIL_NS {
namespace {

TEST(CmKernelsGeneric, NoKernelIsThere) {
    EXPECT_EQ(nullptr, g_base64Kernels[0].m_pszName);
    EXPECT_EQ(nullptr, g_crc16Kernels[0].m_pszName);
    EXPECT_FALSE(CmHasCarrylessMultiply());
}

TEST(CmKernelsGeneric, MultiplicationIsThatOfTheTable) {
    unsigned char abyData[64];
    for (unsigned int i = 0; i < sizeof(abyData); ++i) {
        abyData[i] = static_cast<unsigned char>(i * 37);
    }
    EXPECT_EQ(CmCrc16ByTable(0xFFFF, abyData, sizeof(abyData)),
              CmCrc16ByMultiply(0xFFFF, abyData, sizeof(abyData)));
}

}  // namespace
}  // namespace UTIL_NS
