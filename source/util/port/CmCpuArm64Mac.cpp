#include "CmCpuArm64.h"

namespace UTIL_NS {

// Every arm64 processor that macOS runs on has it, so nobody is asked.
std::atomic<unsigned int> g_dwCmCpuFeatures{CM_CPU_ASKED | CM_CPU_PMULL};

unsigned int CmCpuAsk() {
    return CM_CPU_ASKED | CM_CPU_PMULL;
}

}  // namespace UTIL_NS
