// The semaphore for platforms that have no unnamed ones, made of a mutex and a condition; internal.
//
// The four functions behave as sem_init, sem_destroy, sem_wait and sem_post: 0, or -1 with errno
// set. A wait is a cancellation point; signals do not interrupt it.
#ifndef CM_CONDITION_SEMAPHORE_H
#define CM_CONDITION_SEMAPHORE_H

#include <cerrno>
#include <climits>

#include "CmCancel.h"
#include "CmPlatform.h"
#include "CmSystem.h"

namespace UTIL_NS {

#if !defined(__APPLE__)
// As CmPlatform.h has it for macOS. Elsewhere tests alone use it.
struct CmConditionSemaphore {
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Condition;
    unsigned int m_dwCount;
};
#endif

// What the calls of POSIX threads return, in the form of the semaphore calls.
inline int CmResultToErrno(int aError) {
    if (aError == 0) {
        return 0;
    }
    errno = aError;
    return -1;
}

inline int CmConditionSemaphoreInit(CmConditionSemaphore* aSemaphore, unsigned int aCount) {
    if (aCount > INT_MAX) {
        return CmResultToErrno(EINVAL);
    }
    int rv = g_cmSystem.pthread_mutex_init(&aSemaphore->m_Mutex, nullptr);
    if (rv != 0) {
        return CmResultToErrno(rv);
    }
    rv = g_cmSystem.pthread_cond_init(&aSemaphore->m_Condition, nullptr);
    if (rv != 0) {
        g_cmSystem.pthread_mutex_destroy(&aSemaphore->m_Mutex);
        return CmResultToErrno(rv);
    }
    aSemaphore->m_dwCount = aCount;
    return 0;
}

inline int CmConditionSemaphoreDestroy(CmConditionSemaphore* aSemaphore) {
    const int rvCondition = g_cmSystem.pthread_cond_destroy(&aSemaphore->m_Condition);
    const int rvMutex = g_cmSystem.pthread_mutex_destroy(&aSemaphore->m_Mutex);
    return CmResultToErrno(rvCondition != 0 ? rvCondition : rvMutex);
}

inline int CmConditionSemaphoreWait(CmConditionSemaphore* aSemaphore) {
    int rv = g_cmSystem.pthread_mutex_lock(&aSemaphore->m_Mutex);
    if (rv != 0) {
        return CmResultToErrno(rv);
    }
    CCmCleanUpT unlock([aSemaphore] { g_cmSystem.pthread_mutex_unlock(&aSemaphore->m_Mutex); });
    while (rv == 0 && aSemaphore->m_dwCount == 0) {
        rv = g_cmSystem.pthread_cond_wait(&aSemaphore->m_Condition, &aSemaphore->m_Mutex);
    }
    if (rv == 0) {
        --aSemaphore->m_dwCount;
    }
    unlock.Execute();
    return CmResultToErrno(rv);
}

inline int CmConditionSemaphorePost(CmConditionSemaphore* aSemaphore) {
    int rv = g_cmSystem.pthread_mutex_lock(&aSemaphore->m_Mutex);
    if (rv != 0) {
        return CmResultToErrno(rv);
    }
    if (aSemaphore->m_dwCount == INT_MAX) {
        rv = EOVERFLOW;
    } else {
        ++aSemaphore->m_dwCount;
        rv = g_cmSystem.pthread_cond_signal(&aSemaphore->m_Condition);
    }
    g_cmSystem.pthread_mutex_unlock(&aSemaphore->m_Mutex);
    return CmResultToErrno(rv);
}

// The semaphore calls of CmPort.h for this type. Each calls the function of its name above; a
// platform whose CmPlatformSemaphore is this type defines them in its own file.
int CmPortSemaphoreInit(CmConditionSemaphore* aSemaphore, int aShared, unsigned aCount);
int CmPortSemaphoreDestroy(CmConditionSemaphore* aSemaphore);
int CmPortSemaphoreWait(CmConditionSemaphore* aSemaphore);
int CmPortSemaphorePost(CmConditionSemaphore* aSemaphore);

}  // namespace UTIL_NS

#endif  // CM_CONDITION_SEMAPHORE_H
