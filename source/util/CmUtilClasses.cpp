#include "CmUtilClasses.h"

#include "CmScopedLock.h"
#include "CmUtilMisc.h"

namespace UTIL_NS {

CCmEnsureSingleThread::CCmEnsureSingleThread() : m_ThreadId(pthread_self()) {}

void CCmEnsureSingleThread::Reset2CurrentThreadId() {
    m_ThreadId = pthread_self();
}

void CCmEnsureSingleThread::Reset2ThreadId(pthread_t aThreadId) {
    m_ThreadId = aThreadId;
}

CCmStopFlag::CCmStopFlag() : m_bStopFlag(false) {}

void CCmStopFlag::SetStartFlag() {
    EnsureSingleThread();
    m_bStopFlag.store(false, std::memory_order_relaxed);
}

void CCmStopFlag::SetStopFlag() {
    EnsureSingleThread();
    m_bStopFlag.store(true, std::memory_order_relaxed);
}

CM_CONSTANT_INIT CCmCleanUpBase* CCmCleanUpBase::s_pHeader = nullptr;

CCmCleanUpBase::CCmCleanUpBase() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    m_pNext = s_pHeader;
    s_pHeader = this;
}

CCmCleanUpBase::~CCmCleanUpBase() {
    // CleanupAll has taken the object off the registry; one whose construction failed half-way,
    // or that was deleted by others, is still in it.
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    CCmCleanUpBase** ppLink = &s_pHeader;
    while (*ppLink != nullptr && *ppLink != this) {
        ppLink = &(*ppLink)->m_pNext;
    }
    if (*ppLink == this) {
        *ppLink = m_pNext;
    }
}

void CCmCleanUpBase::CleanUp() {
    delete this;
}

void CCmCleanUpBase::CleanupAll() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    while (s_pHeader != nullptr) {
        // Off the registry first, so that whatever a destructor registers is not lost and a
        // nested call does not meet this object again.
        CCmCleanUpBase* pCurrent = s_pHeader;
        s_pHeader = pCurrent->m_pNext;
        pCurrent->CleanUp();
    }
}

}  // namespace UTIL_NS
