/// The types of public classes that differ by platform.
/// \file
#ifndef CM_PLATFORM_H
#define CM_PLATFORM_H

#include <pthread.h>
#if !defined(__APPLE__)
#include <semaphore.h>
#endif

namespace UTIL_NS {

/// A counting semaphore made of a mutex and a condition, for platforms without unnamed ones.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Condition;
    unsigned int m_dwCount;
};

// What a semaphore of this platform is made of.
#if defined(__APPLE__)
typedef CmConditionSemaphore CmPlatformSemaphore;
#else
typedef sem_t CmPlatformSemaphore;
#endif

}  // namespace UTIL_NS

// How a static recursive mutex begins.
#if defined(__APPLE__)
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER
#else
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
#endif

#endif  // CM_PLATFORM_H
