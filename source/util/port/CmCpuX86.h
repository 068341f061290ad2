// What an x86-64 processor can do beyond the oldest one; internal. Asked of the processor itself,
// so that it works with every compiler and before main.
#ifndef CM_CPU_X86_H
#define CM_CPU_X86_H

#include <atomic>
#include <cstdint>

namespace UTIL_NS {

// Features, to be added up.
constexpr unsigned int CM_CPU_SSSE3 = 0x1;
constexpr unsigned int CM_CPU_PCLMUL = 0x2;
constexpr unsigned int CM_CPU_AVX2 = 0x4;  // and the system keeps the wide registers
constexpr unsigned int CM_CPU_VPCLMULQDQ = 0x8;
// The processor has been asked.
constexpr unsigned int CM_CPU_ASKED = 0x80000000;

// What the processor says, by the instruction's leaf, and which registers the system keeps.
struct CmCpuAnswers {
    uint32_t dwLeaf1Ecx;
    uint32_t dwLeaf7Ebx;
    uint32_t dwLeaf7Ecx;
    uint32_t dwKeptRegisters;  // XCR0; read only where leaf 1 says that it can be
};

// The features, and CM_CPU_ASKED, that follow from the answers.
unsigned int CmCpuFeaturesOf(const CmCpuAnswers& aAnswers);

// Asks the processor and keeps the answer; of two threads both may.
unsigned int CmCpuAsk();

// 0 before the processor has been asked. It hands nothing else over, so relaxed will do.
extern std::atomic<unsigned int> g_dwCmCpuFeatures;

// Whether the processor has all of aFeatures.
inline bool CmCpuHas(unsigned int aFeatures) {
    unsigned int dwFeatures = g_dwCmCpuFeatures.load(std::memory_order_relaxed);
    if (dwFeatures == 0) {
        dwFeatures = CmCpuAsk();
    }
    return (dwFeatures & aFeatures) == aFeatures;
}

}  // namespace UTIL_NS

#endif  // CM_CPU_X86_H
