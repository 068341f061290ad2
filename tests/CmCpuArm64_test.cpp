#include "port/CmCpuArm64.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CmBase64.h"
#include "CmCrc16.h"

namespace UTIL_NS {
namespace {

TEST(CmCpuArm64, DerivesFeaturesFromTheAnswer) {
    // The bit is that of Linux's interface to programs, HWCAP_PMULL.
    EXPECT_EQ(CM_CPU_ASKED, CmCpuFeaturesOf(0));
    EXPECT_EQ(CM_CPU_ASKED, CmCpuFeaturesOf(~0x10ul));
    EXPECT_EQ(CM_CPU_ASKED | CM_CPU_PMULL, CmCpuFeaturesOf(0x10));
    EXPECT_EQ(CM_CPU_ASKED | CM_CPU_PMULL, CmCpuFeaturesOf(~0ul));
}

TEST(CmCpuArm64, HasAsksOnceAndWantsAll) {
    const unsigned int dwFound = CmCpuAsk();
    for (const unsigned int dwFeatures : {0u, CM_CPU_PMULL, CM_CPU_PMULL | 0x2}) {
        g_dwCmCpuFeatures = 0;
        EXPECT_EQ((dwFound & dwFeatures) == dwFeatures, CmCpuHas(dwFeatures)) << dwFeatures;
        EXPECT_EQ(dwFound, g_dwCmCpuFeatures);
        g_dwCmCpuFeatures = CM_CPU_ASKED;
        EXPECT_EQ(dwFeatures == 0, CmCpuHas(dwFeatures)) << dwFeatures;
    }
    g_dwCmCpuFeatures = dwFound;
}

// The processor ends a program that uses what it lacks.
TEST(CmCpuArm64, HasTheFeature_WhenItsInstructionRuns) {
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        const unsigned char abyZeros[16] = {};
        _exit(CmCrc16ByMultiply(0, abyZeros, sizeof(abyZeros)));
    }
    int nStatus = -1;
    ASSERT_EQ(child, waitpid(child, &nStatus, 0));
    EXPECT_EQ(CmCpuHas(CM_CPU_PMULL), WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0);
}

TEST(CmCpuArm64, ChoosesAcceleratedCode_WhenTheProcessorHasIt) {
    const unsigned int dwFound = CmCpuAsk();
    EXPECT_EQ((dwFound & CM_CPU_PMULL) != 0, CmHasCarrylessMultiply());
    g_dwCmCpuFeatures = CM_CPU_ASKED;
    EXPECT_FALSE(CmHasCarrylessMultiply());
    g_dwCmCpuFeatures = dwFound;
    const unsigned char abyIn[96] = {};
    char achText[160];
    EXPECT_NE(0u, CmBase64EncodeByVector(abyIn, sizeof(abyIn), achText));
}

}  // namespace
}  // namespace UTIL_NS
