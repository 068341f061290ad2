// What an x86-64 processor can do beyond the oldest one; internal. Asked of the processor itself,
// so that it works with every compiler and before main.
#ifndef CM_CPU_X86_H
#define CM_CPU_X86_H

#include <cstdint>

#include "port/CmCpu.h"

namespace UTIL_NS {

// Features, to be added up.
constexpr unsigned int CM_CPU_SSSE3 = 0x1;
constexpr unsigned int CM_CPU_PCLMUL = 0x2;
constexpr unsigned int CM_CPU_AVX2 = 0x4;  // and the system keeps the wide registers
constexpr unsigned int CM_CPU_VPCLMULQDQ = 0x8;
// What the processor says, by the instruction's leaf, and which registers the system keeps.
struct CmCpuAnswers {
    uint32_t dwLeaf1Ecx;
    uint32_t dwLeaf7Ebx;
    uint32_t dwLeaf7Ecx;
    uint32_t dwKeptRegisters;  // XCR0; read only where leaf 1 says that it can be
};

// The features, and CM_CPU_ASKED, that follow from the answers.
unsigned int CmCpuFeaturesOf(const CmCpuAnswers& aAnswers);

}  // namespace UTIL_NS

#endif  // CM_CPU_X86_H
