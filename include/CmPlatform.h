// The types of public classes that differ by platform.
#ifndef CM_PLATFORM_H
#define CM_PLATFORM_H

#include <pthread.h>

#if defined(__APPLE__)

// No unnamed POSIX semaphores here: a mutex and a condition stand in for them.
struct CmPlatformSemaphore {
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Condition;
    long m_lCount;
};
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER

#else

#include <semaphore.h>
typedef sem_t CmPlatformSemaphore;
#define CM_RECURSIVE_MUTEX_INITIALIZER PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP

#endif

#endif  // CM_PLATFORM_H
