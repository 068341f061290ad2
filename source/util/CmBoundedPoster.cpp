#include "CmBoundedPoster.h"

#include <algorithm>
#include <new>

#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmConditionVariable.h"
#include "CmEventQueueSteps.h"
#include "CmLifeGuard.h"
#include "CmScopedLock.h"
#include "CmTimedCalls.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

struct CCmBoundedPoster::CState final : CCmReferenceControlT<CCmMutexThread> {
    CState(DWORD aMaxCount, DWORD aLowWater, ICmEvent* aOnLowWater)
        : m_dwMaxCount(aMaxCount), m_dwLowWater(aLowWater), m_pOnLowWater(aOnLowWater) {}
    ~CState() override {
        if (m_pOnLowWater != nullptr) {
            m_pOnLowWater->OnDestorySelf();
        }
    }

    CmResult TakeRoom(bool aWaits, long long aDeadline) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (m_dwCount < m_dwMaxCount && m_pFirst == nullptr) {
            ++m_dwCount;
            return CM_OK;
        }
        m_bWasFull = true;
        if (!aWaits) {
            return CM_ERROR_NOT_AVAILABLE;
        }
        if (CM_FAILED(lock.result())) {
            return lock.result();
        }
        const CCmDisableCancel disableCancel;
        CWaiter waiter(*this);
        CmResult rv = CM_OK;
        while (!waiter.m_bHasRoom && CM_SUCCEEDED(rv)) {
            rv = aDeadline == CM_NEVER_NSEC ? m_Room.Wait(nullptr)
                                            : CCmConditionSteps::WaitUntil(m_Room, aDeadline);
        }
        return waiter.m_bHasRoom ? CM_OK : rv;
    }

    void GiveRoom() {
        bool bLowWater = false;
        {
            CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
            GiveRoom_l();
            bLowWater = m_bWasFull && m_dwCount <= m_dwLowWater && m_pOnLowWater != nullptr;
            if (m_dwCount <= m_dwLowWater) {
                m_bWasFull = false;
            }
        }
        if (bLowWater) {
            m_Guard.Wrap([this] { m_pOnLowWater->OnEventFire(); })();
        }
    }

    DWORD GetCount() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        return m_dwCount;
    }
    CmResult Result() const { return m_Guard.Result(); }
    void End() { m_Guard.End(); }

  private:
    // One that waits, on its own stack, in a list with the longest first.
    struct CWaiter {
        explicit CWaiter(CState& aState) CM_REQUIRES(aState.m_Mutex) : m_State(aState) {
            *m_State.m_ppTail = this;
            m_State.m_ppTail = &m_pNext;
        }
        ~CWaiter() CM_NO_THREAD_SAFETY_ANALYSIS { m_State.Unlink_l(*this); }
        CWaiter(const CWaiter&) = delete;
        CWaiter& operator=(const CWaiter&) = delete;

        CState& m_State;
        CWaiter* m_pNext = nullptr;
        bool m_bHasRoom = false;
        bool m_bLinked = true;
    };

    // To the one that has waited longest, if any: the count then stays. All are woken, as a
    // condition does not wake a particular one; the others go on waiting.
    void GiveRoom_l() CM_REQUIRES(m_Mutex) {
        CWaiter* pWaiter = m_pFirst;
        if (pWaiter == nullptr) {
            --m_dwCount;
            return;
        }
        Unlink_l(*pWaiter);
        pWaiter->m_bHasRoom = true;
        m_Room.Broadcast();
    }
    void Unlink_l(CWaiter& aWaiter) CM_REQUIRES(m_Mutex) {
        if (!aWaiter.m_bLinked) {
            return;
        }
        CWaiter** ppWaiter = &m_pFirst;
        while (*ppWaiter != &aWaiter) {
            ppWaiter = &(*ppWaiter)->m_pNext;
        }
        *ppWaiter = aWaiter.m_pNext;
        if (m_ppTail == &aWaiter.m_pNext) {
            m_ppTail = ppWaiter;
        }
        aWaiter.m_bLinked = false;
    }

    const DWORD m_dwMaxCount;
    const DWORD m_dwLowWater;
    ICmEvent* const m_pOnLowWater;  // owned
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Room{m_Mutex};
    DWORD m_dwCount CM_GUARDED_BY(m_Mutex) = 0;
    bool m_bWasFull CM_GUARDED_BY(m_Mutex) = false;
    CWaiter* m_pFirst CM_GUARDED_BY(m_Mutex) = nullptr;
    CWaiter** m_ppTail CM_GUARDED_BY(m_Mutex) = &m_pFirst;
    CCmLifeGuard m_Guard;
};

CCmBoundedPoster::CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount)
    : m_Queue(aQueue),
      m_pState(new (std::nothrow) CState(std::max<DWORD>(aMaxCount, 1), 0, nullptr)) {
    if (m_pState != nullptr) {
        m_pState->AddReference();
    }
}

CCmBoundedPoster::CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount, DWORD aLowWater,
                                   ICmEvent* aOnLowWater)
    : m_Queue(aQueue), m_pState(nullptr) {
    if (aOnLowWater == nullptr) {
        return;
    }
    const DWORD dwMaxCount = std::max<DWORD>(aMaxCount, 1);
    m_pState =
        new (std::nothrow) CState(dwMaxCount, std::min(aLowWater, dwMaxCount - 1), aOnLowWater);
    if (m_pState == nullptr) {
        aOnLowWater->OnDestorySelf();
        return;
    }
    m_pState->AddReference();
}

CCmBoundedPoster::~CCmBoundedPoster() {
    if (m_pState != nullptr) {
        m_pState->End();
        m_pState->ReleaseReference();
    }
}

CmResult CCmBoundedPoster::Result() const {
    return m_pState != nullptr ? m_pState->Result() : CM_ERROR_OUT_OF_MEMORY;
}

DWORD CCmBoundedPoster::GetCount() const {
    return m_pState != nullptr ? m_pState->GetCount() : 0;
}

CmResult CCmBoundedPoster::TakeRoom(const CCmTimeValue* aLimit) {
    const CmResult rv = Result();
    if (CM_FAILED(rv)) {
        return rv;
    }
    const bool bWaits = aLimit != nullptr && !CCmEventQueueSteps::IsOwnThread(m_Queue);
    const long long llDeadline = bWaits ? CmLaterNsec(CmMonotonicNsec(), *aLimit) : CM_NEVER_NSEC;
    return m_pState->TakeRoom(bWaits, llDeadline);
}

CmResult CCmBoundedPoster::PostEvent(CBoundedEvent* aEvent) {
    if (aEvent == nullptr) {
        m_pState->GiveRoom();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    m_pState->AddReference();
    aEvent->m_pState = m_pState;
    return m_Queue.PostEvent(aEvent, ICmEventQueue::EPRIORITY_NORMAL);
}

void CCmBoundedPoster::CBoundedEvent::OnDestorySelf() {
    const CCmComAutoPtr<CState> pState(m_pState);
    m_pState->ReleaseReference();
    delete this;
    pState->GiveRoom();
}

}  // namespace UTIL_NS
