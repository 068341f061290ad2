#include "port/CmCpuX86.h"

#include <gtest/gtest.h>

#include "CmBase64.h"
#include "CmCrc16.h"

namespace UTIL_NS {
namespace {

constexpr uint32_t ALL = 0xFFFFFFFF;
constexpr uint32_t NONE = 0;

TEST(CmCpuX86, DerivesFeaturesFromTheAnswers) {
    // The bits are those of Intel's manual, volume 2A, CPUID, and volume 1, 13.2, XCR0.
    const struct {
        const char* reason;
        CmCpuAnswers answers;
        unsigned int features;
    } rows[] = {
        {"nothing", {NONE, NONE, NONE, NONE}, 0},
        {"SSSE3 alone", {0x00000200, NONE, NONE, NONE}, CM_CPU_SSSE3},
        {"PCLMUL alone", {0x00000002, NONE, NONE, NONE}, CM_CPU_PCLMUL},
        {"AVX2 alone", {0x08000000, 0x20, NONE, 0x7}, CM_CPU_AVX2},
        {"VPCLMULQDQ alone", {0x08000000, NONE, 0x400, 0x6}, CM_CPU_VPCLMULQDQ},
        {"the system keeps no wide registers", {0x08000000, ALL, ALL, 0x3}, 0},
        {"nor the narrow ones", {0x08000000, ALL, ALL, 0x4}, 0},
        {"it does not say what it keeps", {NONE, ALL, ALL, ALL}, 0},
        {"everything",
         {ALL, ALL, ALL, ALL},
         CM_CPU_SSSE3 | CM_CPU_PCLMUL | CM_CPU_AVX2 | CM_CPU_VPCLMULQDQ},
        {"everything else", {~0x08000202u, ~0x20u, ~0x400u, ALL}, 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.features | CM_CPU_ASKED, CmCpuFeaturesOf(row.answers)) << row.reason;
    }
}

TEST(CmCpuX86, HasAsksOnceAndWantsAll) {
    const unsigned int dwFound = CmCpuAsk();
    for (unsigned int dwFeatures = 0; dwFeatures < 16; ++dwFeatures) {
        g_dwCmCpuFeatures = 0;
        EXPECT_EQ((dwFound & dwFeatures) == dwFeatures, CmCpuHas(dwFeatures)) << dwFeatures;
        EXPECT_EQ(dwFound, g_dwCmCpuFeatures);
        g_dwCmCpuFeatures = CM_CPU_ASKED | CM_CPU_SSSE3;
        EXPECT_EQ((dwFeatures & ~CM_CPU_SSSE3) == 0, CmCpuHas(dwFeatures)) << dwFeatures;
    }
    g_dwCmCpuFeatures = dwFound;
}

TEST(CmCpuX86, ChoosesAcceleratedCode_WhenTheProcessorHasIt) {
    unsigned char abyIn[96] = {};
    char achText[160];
    EXPECT_EQ(CmCpuHas(CM_CPU_SSSE3), CmBase64EncodeByVector(abyIn, sizeof(abyIn), achText) != 0);
    EXPECT_EQ(CmCpuHas(CM_CPU_SSSE3 | CM_CPU_PCLMUL), CmHasCarrylessMultiply());
}

// The oldest Macs that the system runs on have these, and so has what tests are run on.
TEST(CmCpuX86, FindsWhatEveryMacHas) {
    EXPECT_TRUE(CmCpuHas(CM_CPU_SSSE3));
}

}  // namespace
}  // namespace UTIL_NS
