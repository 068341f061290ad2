#include "CmCpuX86.h"

#include <cpuid.h>

namespace UTIL_NS {

std::atomic<unsigned int> g_dwCmCpuFeatures{0};

namespace {

constexpr uint32_t LEAF1_ECX_PCLMUL = 1u << 1;
constexpr uint32_t LEAF1_ECX_SSSE3 = 1u << 9;
constexpr uint32_t LEAF1_ECX_OSXSAVE = 1u << 27;
constexpr uint32_t LEAF7_EBX_AVX2 = 1u << 5;
constexpr uint32_t LEAF7_ECX_VPCLMULQDQ = 1u << 10;
constexpr uint32_t XCR0_SSE_AND_AVX = 0x6;

CmCpuAnswers Answers() {
    CmCpuAnswers answers = {};
    uint32_t dwEax = 0;
    uint32_t dwEbx = 0;
    uint32_t dwEcx = 0;
    uint32_t dwEdx = 0;
    if (__get_cpuid(1, &dwEax, &dwEbx, &dwEcx, &dwEdx) != 0) {
        answers.dwLeaf1Ecx = dwEcx;
    }
    if (__get_cpuid_count(7, 0, &dwEax, &dwEbx, &dwEcx, &dwEdx) != 0) {
        answers.dwLeaf7Ebx = dwEbx;
        answers.dwLeaf7Ecx = dwEcx;
    }
    if ((answers.dwLeaf1Ecx & LEAF1_ECX_OSXSAVE) != 0) {
        asm volatile("xgetbv" : "=a"(answers.dwKeptRegisters), "=d"(dwEdx) : "c"(0));
    }
    return answers;
}

}  // namespace

unsigned int CmCpuFeaturesOf(const CmCpuAnswers& aAnswers) {
    unsigned int dwFeatures = CM_CPU_ASKED;
    dwFeatures |= (aAnswers.dwLeaf1Ecx & LEAF1_ECX_SSSE3) != 0 ? CM_CPU_SSSE3 : 0;
    dwFeatures |= (aAnswers.dwLeaf1Ecx & LEAF1_ECX_PCLMUL) != 0 ? CM_CPU_PCLMUL : 0;
    if ((aAnswers.dwLeaf1Ecx & LEAF1_ECX_OSXSAVE) != 0 &&
        (aAnswers.dwKeptRegisters & XCR0_SSE_AND_AVX) == XCR0_SSE_AND_AVX) {
        dwFeatures |= (aAnswers.dwLeaf7Ebx & LEAF7_EBX_AVX2) != 0 ? CM_CPU_AVX2 : 0;
        dwFeatures |= (aAnswers.dwLeaf7Ecx & LEAF7_ECX_VPCLMULQDQ) != 0 ? CM_CPU_VPCLMULQDQ : 0;
    }
    return dwFeatures;
}

unsigned int CmCpuAsk() {
    const unsigned int dwFeatures = CmCpuFeaturesOf(Answers());
    g_dwCmCpuFeatures.store(dwFeatures, std::memory_order_relaxed);
    return dwFeatures;
}

}  // namespace UTIL_NS
