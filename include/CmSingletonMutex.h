/// The mutex of singletons and of the clean-up registry.
/// \file
#ifndef CM_SINGLETON_MUTEX_H
#define CM_SINGLETON_MUTEX_H

#include "CmBase.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

/// Serialises the creation of singletons and the clean-up registry. It is ready before the first
/// constructor of a static object runs and does not end: static objects of a host may use it, and
/// CleanupAll, wherever they are constructed and destroyed.
extern CM_UTIL_EXPORT CCmMutexThreadRecursive g_SingletonMutex;

}  // namespace UTIL_NS

extern "C" {

/// Stores the address of g_SingletonMutex (a UTIL_NS::CCmMutexThreadRecursive) in *aMutex, so
/// that a host can serialise its own singletons with the library's. Null is ignored.
CM_UTIL_EXPORT void GetSingletonMutex(void** aMutex);

}  // extern "C"

#endif  // CM_SINGLETON_MUTEX_H
