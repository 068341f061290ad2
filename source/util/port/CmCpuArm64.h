// What an arm64 processor can do beyond the oldest one; internal. The system tells, since a program
// cannot ask the processor itself: CmCpuArm64Linux.cpp and CmCpuArm64Mac.cpp.
#ifndef CM_CPU_ARM64_H
#define CM_CPU_ARM64_H

#include "port/CmCpu.h"

namespace UTIL_NS {

// Features, to be added up.
constexpr unsigned int CM_CPU_PMULL = 0x1;  // carry-less multiplication of 64 bits

// The features, and CM_CPU_ASKED, that follow from what Linux says of them (AT_HWCAP). On Linux
// only.
unsigned int CmCpuFeaturesOf(unsigned long aCapabilities);

}  // namespace UTIL_NS

#endif  // CM_CPU_ARM64_H
