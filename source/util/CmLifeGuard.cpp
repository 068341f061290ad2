#include "CmLifeGuard.h"

#include <new>
#include <optional>

#include "CmAtomic.h"
#include "CmBlockedSends.h"
#include "CmCancel.h"
#include "CmConditionVariable.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceLine.h"
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
        if (m_pAwaited.load(std::memory_order_relaxed) == &aRun) {
            m_pAwaited.store(nullptr, std::memory_order_release);
        }
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
        while (CM_SUCCEEDED(rv) && FirstElsewhere_l() != nullptr) {
            rv = m_Left.Wait(nullptr);
        }
        return FirstElsewhere_l() == nullptr;
    }
    // The same for a thread whose waits are watched: waits for one callable after the other. What
    // is left is for Close, also where a wait fails.
    void CloseWatched() {
        CmResult rv = CM_OK;
        while (CM_SUCCEEDED(rv)) {
            const std::optional<CAwaited> awaited = AwaitFirst();
            if (!awaited) {
                return;
            }
            CCmBlockedSend blocked;
            EnterWait(*awaited, blocked);
            CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
            rv = lock.result();
            while (CM_SUCCEEDED(rv) && awaited->GoesOn()) {
                rv = m_Left.Wait(nullptr);
            }
        }
    }
    bool IsClosed() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        return m_bClosed;
    }

  private:
    const CRun* FirstElsewhere_l() const CM_REQUIRES(m_Mutex) {
        const CRun* pRun = m_pRuns;
        while (pRun != nullptr && pRun->m_ulThread == CmNumberOfThisThread()) {
            pRun = pRun->m_pNext;
        }
        return pRun;
    }
    // A callable that a thread waits for. Its CRun may be gone: its address alone is used.
    struct CAwaited {
        bool GoesOn() const { return m_State.m_pAwaited.load(std::memory_order_acquire) == m_pRun; }

        const CGuardState& m_State;
        const CRun* m_pRun;
        uint64_t m_ullThread;
    };

    std::optional<CAwaited> AwaitFirst() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_bClosed = true;
        const CRun* const pRun = FirstElsewhere_l();
        if (pRun == nullptr) {
            return std::nullopt;
        }
        m_pAwaited.store(pRun, std::memory_order_relaxed);
        return CAwaited{*this, pRun, pRun->m_ulThread};
    }
    static void EnterWait(const CAwaited& aAwaited, CCmBlockedSend& aBlocked) {
        char szNames[CCmBlockedSend::NAMES_SIZE];
        const auto goesOn = [](const void* aObject) {
            return static_cast<const CAwaited*>(aObject)->GoesOn();
        };
        if (aBlocked.Enter(aAwaited.m_ullThread, goesOn, &aAwaited, szNames)) {
            CM_WARNING_TRACE("CCmLifeGuard::End, watch, threads wait for each other: " << szNames);
        }
    }

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Left{m_Mutex};
    CRun* m_pRuns CM_GUARDED_BY(m_Mutex) = nullptr;
    // What a watched thread waits for. Released by the callable's thread, before that may wait for
    // something itself.
    CmStd::atomic<const CRun*> m_pAwaited{nullptr};
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
      m_ulThread(CmNumberOfThisThread()),
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
    if (CM_UNLIKELY(CCmBlockedSend::IsOn()) && m_pState != nullptr) {
        m_pState->CloseWatched();
    }
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
