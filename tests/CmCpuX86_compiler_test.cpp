#include <gtest/gtest.h>

#include "port/CmCpuX86.h"

namespace UTIL_NS {
namespace {

// The compilers of Linux bring code of their own that asks.
TEST(CmCpuX86, FeaturesAreThoseThatTheCompilerFinds) {
    EXPECT_EQ(__builtin_cpu_supports("ssse3") != 0, CmCpuHas(CM_CPU_SSSE3));
    EXPECT_EQ(__builtin_cpu_supports("pclmul") != 0, CmCpuHas(CM_CPU_PCLMUL));
    EXPECT_EQ(__builtin_cpu_supports("avx2") != 0, CmCpuHas(CM_CPU_AVX2));
    EXPECT_EQ(__builtin_cpu_supports("vpclmulqdq") != 0, CmCpuHas(CM_CPU_VPCLMULQDQ));
}

}  // namespace
}  // namespace UTIL_NS
