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

CCmCleanUpBase* CCmCleanUpBase::s_pHeader = nullptr;

CCmCleanUpBase::CCmCleanUpBase() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    m_pNext = s_pHeader;
    s_pHeader = this;
}

CCmCleanUpBase::~CCmCleanUpBase() = default;

void CCmCleanUpBase::CleanUp() {
    delete this;
}

void CCmCleanUpBase::CleanupAll() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    while (s_pHeader != nullptr) {
        CCmCleanUpBase* pCurrent = s_pHeader;
        CCmCleanUpBase* pNext = pCurrent->m_pNext;
        pCurrent->CleanUp();
        s_pHeader = pNext;
    }
}

}  // namespace UTIL_NS
