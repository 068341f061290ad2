#include "CmLifeGuard.h"

#include <new>

#include "CmCancel.h"
#include "CmConditionVariable.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

namespace {

// Between two looks at the list while the wait for it fails: the guard must not be freed before the
// callables that run elsewhere have returned.
constexpr long NAP_NSEC = 1000 * 1000;

}  // namespace

struct CCmLifeGuard::CGuardState final : CCmReferenceControlT<CCmMutexThread> {
    bool Enter(CRun& aRun) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (m_bClosed) {
            return false;
        }
        // aRun is on the stack of this thread, which must not be cancelled before Leave.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &aRun.m_nCancelState);
        aRun.m_pNext = m_pRuns;
        m_pRuns = &aRun;
        return true;
    }
    void Leave(CRun& aRun) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        CRun** ppRun = &m_pRuns;
        while (*ppRun != &aRun) {
            ppRun = &(*ppRun)->m_pNext;
        }
        *ppRun = aRun.m_pNext;
        if (m_bClosed) {
            m_Left.Broadcast();
        }
    }
    // No callable begins after that; waits for those that run on other threads. False when it could
    // not wait.
    bool Close() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_bClosed = true;
        CmResult rv = lock.result();
        while (CM_SUCCEEDED(rv) && RunsElsewhere_l()) {
            rv = m_Left.Wait(nullptr);
        }
        return !RunsElsewhere_l();
    }
    bool IsClosed() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        return m_bClosed;
    }

  private:
    bool RunsElsewhere_l() const CM_REQUIRES(m_Mutex) {
        for (const CRun* pRun = m_pRuns; pRun != nullptr; pRun = pRun->m_pNext) {
            if (!IsEqualCurrentThread((pthread_t)pRun->m_ulThread)) {
                return true;
            }
        }
        return false;
    }

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Left{m_Mutex};
    CRun* m_pRuns CM_GUARDED_BY(m_Mutex) = nullptr;
    bool m_bClosed CM_GUARDED_BY(m_Mutex) = false;
};

CCmLifeGuard::CReference::CReference(CGuardState* aState) : m_pState(aState) {
    if (m_pState != nullptr) {
        m_pState->AddReference();
    }
}

CCmLifeGuard::CReference::~CReference() {
    if (m_pState != nullptr) {
        m_pState->ReleaseReference();
    }
}

CCmLifeGuard::CRun::CRun(const CReference& aReference)
    : m_Reference(aReference),
      m_ulThread((unsigned long)pthread_self()),
      m_pNext(nullptr),
      m_nCancelState(PTHREAD_CANCEL_ENABLE),
      m_bAllowed(m_Reference.m_pState != nullptr && m_Reference.m_pState->Enter(*this)) {}

CCmLifeGuard::CRun::~CRun() {
    if (m_bAllowed) {
        m_Reference.m_pState->Leave(*this);
        pthread_setcancelstate(m_nCancelState, nullptr);
    }
}

CCmLifeGuard::CCmLifeGuard() : m_pState(new (std::nothrow) CGuardState) {
    if (m_pState != nullptr) {
        m_pState->AddReference();
    }
}

CCmLifeGuard::~CCmLifeGuard() {
    End();
    if (m_pState != nullptr) {
        m_pState->ReleaseReference();
    }
}

void CCmLifeGuard::End() {
    const CCmDisableCancel disableCancel;
    while (m_pState != nullptr && !m_pState->Close()) {
        const timespec tsNap = {0, NAP_NSEC};
        g_cmSystem.nanosleep(&tsNap, nullptr);
    }
}

CmResult CCmLifeGuard::Result() const {
    if (m_pState == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return m_pState->IsClosed() ? CM_ERROR_NOT_INITIALIZED : CM_OK;
}

}  // namespace UTIL_NS
