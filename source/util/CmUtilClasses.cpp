#include "CmUtilClasses.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "CmCancel.h"
#include "CmScopedLock.h"
#include "CmSingletonMutex.h"
#include "CmSystem.h"
#include "CmTrace.h"

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

// The objects that a call of CleanupAll has taken off the registry and not cleaned up yet. Calls
// nest.
struct CCmCleanUpWalk {
    CCmCleanUpWalk() : m_pHeader(CCmCleanUpBase::s_pHeader), m_pOuter(s_pInnermost) {
        CCmCleanUpBase::s_pHeader = nullptr;
        s_pInnermost = this;
    }
    // A CleanUp that threw leaves the rest registered, to be destroyed after what came meanwhile.
    ~CCmCleanUpWalk() {
        s_pInnermost = m_pOuter;
        if (m_pHeader != nullptr) {
            *LinkTo(CCmCleanUpBase::s_pHeader, nullptr) = m_pHeader;
        }
    }
    CCmCleanUpWalk(const CCmCleanUpWalk&) = delete;
    CCmCleanUpWalk& operator=(const CCmCleanUpWalk&) = delete;

    CCmCleanUpBase* TakeNext() {
        CCmCleanUpBase* pNext = m_pHeader;
        if (pNext != nullptr) {
            m_pHeader = pNext->m_pNext;
            pNext->m_pNext = pNext;
        }
        return pNext;
    }

    // From the registry or from what a walk has taken off it.
    static void Unlink(CCmCleanUpBase* aObject) {
        CCmCleanUpBase** ppLink = LinkTo(CCmCleanUpBase::s_pHeader, aObject);
        for (CCmCleanUpWalk* pWalk = s_pInnermost; pWalk != nullptr && *ppLink == nullptr;
             pWalk = pWalk->m_pOuter) {
            ppLink = LinkTo(pWalk->m_pHeader, aObject);
        }
        if (*ppLink != nullptr) {
            *ppLink = aObject->m_pNext;
        }
    }

  private:
    // The link that leads to aObject, or the last one.
    static CCmCleanUpBase** LinkTo(CCmCleanUpBase*& aHeader, const CCmCleanUpBase* aObject) {
        CCmCleanUpBase** ppLink = &aHeader;
        while (*ppLink != nullptr && *ppLink != aObject) {
            ppLink = &(*ppLink)->m_pNext;
        }
        return ppLink;
    }

    CCmCleanUpBase* m_pHeader;
    CCmCleanUpWalk* const m_pOuter;
    static CCmCleanUpWalk* s_pInnermost;
};

CM_CONSTANT_INIT CCmCleanUpWalk* CCmCleanUpWalk::s_pInnermost = nullptr;

CCmCleanUpBase::CCmCleanUpBase() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    m_pNext = s_pHeader;
    s_pHeader = this;
}

CCmCleanUpBase::~CCmCleanUpBase() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    // CleanupAll takes an object off before it destroys it. One whose construction failed half-way,
    // or that others delete, is still linked.
    if (m_pNext != this) {
        CCmCleanUpWalk::Unlink(this);
    }
}

void CCmCleanUpBase::CleanUp() {
    delete this;
}

void CCmCleanUpBase::CleanupAll() {
    CCmDisableCancel disableCancel;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(g_SingletonMutex);
    CCmCleanUpWalk walk;
    while (CCmCleanUpBase* pObject = walk.TakeNext()) {
        pObject->CleanUp();
    }
}

CCmDataBlockNoMalloc::CCmDataBlockNoMalloc(const char* aData, unsigned int aLen)
    : m_pBegin(aData),
      m_pEnd(aData != nullptr ? aData + aLen : nullptr),
      m_pCurrentRead(aData),
      m_pCurrentWrite(const_cast<char*>(aData)) {}

CmResult CCmDataBlockNoMalloc::Read(void* aDst, unsigned int aCount, unsigned int* aBytesRead) {
    CM_ASSERTE_RETURN_LINE(aDst, CM_ERROR_INVALID_ARG, 77);
    CM_ASSERTE_RETURN_LINE(m_pCurrentRead, CM_ERROR_NOT_INITIALIZED, 78);
    CM_ASSERTE_RETURN_LINE(m_pCurrentRead <= m_pEnd, CM_ERROR_NOT_INITIALIZED, 79);
    const unsigned int dwRead =
        std::min(static_cast<unsigned int>(m_pEnd - m_pCurrentRead), aCount);
    std::memmove(aDst, m_pCurrentRead, dwRead);
    m_pCurrentRead += dwRead;
    if (aBytesRead != nullptr) {
        *aBytesRead = dwRead;
    }
    return dwRead == aCount ? CM_OK : CM_ERROR_PARTIAL_DATA;
}

CmResult CCmDataBlockNoMalloc::Write(const void* aSrc, unsigned int aCount,
                                     unsigned int* aBytesWritten) {
    CM_ASSERTE_RETURN_LINE(aSrc, CM_ERROR_INVALID_ARG, 97);
    CM_ASSERTE_RETURN_LINE(m_pCurrentWrite, CM_ERROR_NOT_INITIALIZED, 98);
    CM_ASSERTE_RETURN_LINE(m_pCurrentWrite <= m_pEnd, CM_ERROR_NOT_INITIALIZED, 99);
    const unsigned int dwWritten =
        std::min(static_cast<unsigned int>(m_pEnd - m_pCurrentWrite), aCount);
    std::memmove(m_pCurrentWrite, aSrc, dwWritten);
    m_pCurrentWrite += dwWritten;
    if (aBytesWritten != nullptr) {
        *aBytesWritten = dwWritten;
    }
    return dwWritten == aCount ? CM_OK : CM_ERROR_PARTIAL_DATA;
}

int cm_ipv4_enabled = -1;
int cm_ipv6_enabled = -1;

namespace {

int ProbeFamily(int aFamily) {
    CCmDisableCancel disableCancel;
    const int nSocket = g_cmSystem.socket(aFamily, SOCK_DGRAM, 0);
    if (nSocket < 0) {
        return 0;
    }
    g_cmSystem.close(nSocket);
    return 1;
}

}  // namespace

// Relaxed: the flag stands for itself, and all that probe find the same.
int ip_check(int& aFlag, int aFamily) {
    int nFlag = __atomic_load_n(&aFlag, __ATOMIC_RELAXED);
    if (nFlag == -1) {
        nFlag = ProbeFamily(aFamily);
        __atomic_store_n(&aFlag, nFlag, __ATOMIC_RELAXED);
    }
    return nFlag;
}

int ipv4_enabled() {
    return ip_check(cm_ipv4_enabled, AF_INET);
}

int ipv6_enabled() {
    return ip_check(cm_ipv6_enabled, AF_INET6);
}

}  // namespace UTIL_NS
