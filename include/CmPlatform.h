// The types of public classes that differ by platform.
#ifndef CM_PLATFORM_H
#define CM_PLATFORM_H

#include <pthread.h>

// A semaphore made of a mutex and a condition, where there are no unnamed POSIX semaphores.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Condition;
    long m_lCount;
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
