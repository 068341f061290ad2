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

/// A counting semaphore made of a mutex and a condition, since this platform has no unnamed ones.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;     ///< guards the count
    pthread_cond_t m_Condition;  ///< signalled when the count rises
    unsigned int m_dwCount;      ///< how many waits return at once
};

/// What CCmSemaphore holds on this platform.
typedef CmConditionSemaphore CmPlatformSemaphore;

/// The initial value of a recursive mutex with static storage.
inline constexpr pthread_mutex_t CM_RECURSIVE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER;

#else

/// What CCmSemaphore holds on this platform.
typedef sem_t CmPlatformSemaphore;

/// The initial value of a recursive mutex with static storage.
inline constexpr pthread_mutex_t CM_RECURSIVE_MUTEX = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

#endif

}  // namespace UTIL_NS

#endif  // CM_PLATFORM_H
