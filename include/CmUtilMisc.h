// The library's entry points, the singleton mutex and sleeping.
#ifndef CM_UTIL_MISC_H
#define CM_UTIL_MISC_H

#include "CmBase.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

// Serialises the creation of singletons and the clean-up registry.
extern CM_UTIL_EXPORT CCmMutexThreadRecursive g_SingletonMutex;

}  // namespace UTIL_NS

extern "C" {

// Both do nothing: what the library needs is set up when it is loaded or on first use. A host
// may call them in pairs around its use of the library.
CM_UTIL_EXPORT void CmUtilInit();
CM_UTIL_EXPORT void CmUtilCleanup();

// Stores the address of g_SingletonMutex (a UTIL_NS::CCmMutexThreadRecursive) in *aMutex, so
// that a host can serialise its own singletons with the library's. Null is ignored.
CM_UTIL_EXPORT void GetSingletonMutex(void** aMutex);

// Sleeps for aMs milliseconds, however many signals interrupt it. A failure other than an
// interruption is traced as a warning and ends the sleep.
CM_UTIL_EXPORT void SleepMs(unsigned int aMs);

}  // extern "C"

#endif  // CM_UTIL_MISC_H
