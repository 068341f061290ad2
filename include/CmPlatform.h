/// The types of public classes that differ by platform.
/// \file
#ifndef CM_PLATFORM_H
#define CM_PLATFORM_H

#include <pthread.h>
#if !defined(__APPLE__)
#include <semaphore.h>
#endif

namespace UTIL_NS {

#if defined(__APPLE__)

/// A counting semaphore made of a mutex and a condition: there are no unnamed ones here.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;     ///< guards the count
    pthread_cond_t m_Condition;  ///< signalled when the count rises
    unsigned int m_dwCount;      ///< of the waits that may end at once
};

/// What a semaphore of this platform is made of.
typedef CmConditionSemaphore CmPlatformSemaphore;

/// What a static recursive mutex begins as.
inline constexpr pthread_mutex_t CM_RECURSIVE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER;

#else

/// What a semaphore of this platform is made of.
typedef sem_t CmPlatformSemaphore;

/// What a static recursive mutex begins as.
inline constexpr pthread_mutex_t CM_RECURSIVE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

#endif

}  // namespace UTIL_NS

#endif  // CM_PLATFORM_H
