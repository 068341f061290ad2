// The types of public classes that differ by platform.
#ifndef CM_PLATFORM_H
#define CM_PLATFORM_H

#include <pthread.h>

// A counting semaphore made of a mutex and a condition, for platforms without unnamed ones.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Condition;
    unsigned int m_dwCount;
};

#if defined(__APPLE__)

// What a semaphore of this platform is made of, and how a static recursive mutex begins.
typedef CmConditionSemaphore CmPlatformSemaphore;
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER

#else

#include <semaphore.h>
// What a semaphore of this platform is made of, and how a static recursive mutex begins.
typedef sem_t CmPlatformSemaphore;
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP

#endif

#endif  // CM_PLATFORM_H
