#include <sys/auxv.h>

#include "CmCpuArm64.h"

namespace UTIL_NS {

std::atomic<unsigned int> g_dwCmCpuFeatures{0};

unsigned int CmCpuFeaturesOf(unsigned long aCapabilities) {
    return CM_CPU_ASKED | ((aCapabilities & HWCAP_PMULL) != 0 ? CM_CPU_PMULL : 0);
}

unsigned int CmCpuAsk() {
    const unsigned int dwFeatures = CmCpuFeaturesOf(getauxval(AT_HWCAP));
    g_dwCmCpuFeatures.store(dwFeatures, std::memory_order_relaxed);
    return dwFeatures;
}

}  // namespace UTIL_NS
