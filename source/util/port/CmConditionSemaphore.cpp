#include "CmConditionSemaphore.h"

#include <errno.h>
#include <limits.h>

#include "CmSystem.h"

namespace UTIL_NS {

namespace {

constexpr long COUNT_MAX = INT_MAX;

// Of an error number: what the caller returns, with errno set.
int Result(int aError) {
    if (aError == 0) {
        return 0;
    }
    errno = aError;
    return -1;
}

void UnlockMutex(void* aMutex) {
    g_cmSystem.pthread_mutex_unlock(static_cast<pthread_mutex_t*>(aMutex));
}

}  // namespace

int CmPortSemaphoreInit(CmConditionSemaphore* aSemaphore, int aShared, unsigned aCount) {
    if (aShared != 0) {
        return Result(ENOSYS);
    }
    if (aCount > static_cast<unsigned>(COUNT_MAX)) {
        return Result(EINVAL);
    }
    const int nMutex = g_cmSystem.pthread_mutex_init(&aSemaphore->m_Mutex, nullptr);
    if (nMutex != 0) {
        return Result(nMutex);
    }
    const int nCondition = g_cmSystem.pthread_cond_init(&aSemaphore->m_Condition, nullptr);
    if (nCondition != 0) {
        g_cmSystem.pthread_mutex_destroy(&aSemaphore->m_Mutex);
        return Result(nCondition);
    }
    aSemaphore->m_lCount = static_cast<long>(aCount);
    return 0;
}

int CmPortSemaphoreDestroy(CmConditionSemaphore* aSemaphore) {
    const int nCondition = g_cmSystem.pthread_cond_destroy(&aSemaphore->m_Condition);
    const int nMutex = g_cmSystem.pthread_mutex_destroy(&aSemaphore->m_Mutex);
    return Result(nCondition != 0 ? nCondition : nMutex);
}

int CmPortSemaphoreWait(CmConditionSemaphore* aSemaphore) {
    int nError = g_cmSystem.pthread_mutex_lock(&aSemaphore->m_Mutex);
    if (nError != 0) {
        return Result(nError);
    }
    // A thread that is cancelled while it waits holds the mutex and must give it back; not every
    // platform runs destructors then.
    pthread_cleanup_push(UnlockMutex, &aSemaphore->m_Mutex);
    while (nError == 0 && aSemaphore->m_lCount == 0) {
        nError = g_cmSystem.pthread_cond_wait(&aSemaphore->m_Condition, &aSemaphore->m_Mutex);
    }
    if (nError == 0) {
        --aSemaphore->m_lCount;
    }
    pthread_cleanup_pop(1);
    return Result(nError);
}

// Signals with the mutex held, so that whoever is let through may destroy the semaphore at once.
int CmPortSemaphorePost(CmConditionSemaphore* aSemaphore) {
    int nError = g_cmSystem.pthread_mutex_lock(&aSemaphore->m_Mutex);
    if (nError != 0) {
        return Result(nError);
    }
    if (aSemaphore->m_lCount == COUNT_MAX) {
        nError = EOVERFLOW;
    } else {
        ++aSemaphore->m_lCount;
        nError = g_cmSystem.pthread_cond_signal(&aSemaphore->m_Condition);
    }
    UnlockMutex(&aSemaphore->m_Mutex);
    return Result(nError);
}

}  // namespace UTIL_NS
