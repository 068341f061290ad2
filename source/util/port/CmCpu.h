// What the processor at hand can do beyond the oldest one of its kind; internal. The file of each
// processor that has such features (CmCpuX86.h, CmCpuArm64.h) names them and finds them out.
#ifndef CM_CPU_H
#define CM_CPU_H

#include <atomic>

namespace UTIL_NS {

// The processor has been asked; the other bits are its features.
constexpr unsigned int CM_CPU_ASKED = 0x80000000;

// Asks the processor and keeps the answer; of two threads both may. Cold, so that no caller saves
// registers for it in advance.
[[gnu::cold]] unsigned int CmCpuAsk();

// 0 before the processor has been asked. It hands nothing else over, so relaxed will do.
extern std::atomic<unsigned int> g_dwCmCpuFeatures;

// All that the processor has, and CM_CPU_ASKED.
inline unsigned int CmCpuFeatures() {
    const unsigned int dwFeatures = g_dwCmCpuFeatures.load(std::memory_order_relaxed);
    return dwFeatures != 0 ? dwFeatures : CmCpuAsk();
}

// Whether the processor has all of aFeatures.
inline bool CmCpuHas(unsigned int aFeatures) {
    return (CmCpuFeatures() & aFeatures) == aFeatures;
}

}  // namespace UTIL_NS

#endif  // CM_CPU_H
