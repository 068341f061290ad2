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

struct CCmBoundedPoster::CPosterState final : CCmReferenceControlT<CCmMutexThread> {
    CPosterState(ICmEventQueue& aQueue, DWORD aMaxCount, DWORD aLowWater, ICmEvent* aOnLowWater)
        : m_Queue(aQueue),
          m_dwMaxCount(aMaxCount),
          m_dwLowWater(aLowWater),
          m_pOnLowWater(aOnLowWater) {}
    ~CPosterState() override {
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
        const CCmDisableCancel disableCancel;  // the list refers to this stack until Unlink_l
        CWaiter waiter;
        *m_ppTail = &waiter;
        m_ppTail = &waiter.m_pNext;
        CmResult rv = CM_OK;
        while (!waiter.m_bHasRoom && CM_SUCCEEDED(rv)) {
            rv = aDeadline == CM_NEVER_NSEC ? m_Room.Wait(nullptr)
                                            : CCmConditionSteps::WaitUntil(m_Room, aDeadline);
        }
        if (waiter.m_bHasRoom) {
            return CM_OK;
        }
        Unlink_l(waiter);
        return rv;
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
    // For the poster alone: the events may outlive it and the queue.
    ICmEventQueue& Queue() const { return m_Queue; }
    void Close() { m_Guard.End(); }

  private:
    // A thread that waits for room, on its own stack, in a list with the longest first. Whoever
    // gives it room takes it off the list.
    struct CWaiter {
        CWaiter* m_pNext = nullptr;
        bool m_bHasRoom = false;
    };

    // Gives the room to the thread that has waited longest, if any: the count then stays. All are
    // woken, as a condition does not wake a particular one; the others go on waiting.
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
        CWaiter** ppWaiter = &m_pFirst;
        while (*ppWaiter != &aWaiter) {
            ppWaiter = &(*ppWaiter)->m_pNext;
        }
        *ppWaiter = aWaiter.m_pNext;
        if (m_ppTail == &aWaiter.m_pNext) {
            m_ppTail = ppWaiter;
        }
    }

    ICmEventQueue& m_Queue;
    const DWORD m_dwMaxCount;
    const DWORD m_dwLowWater;
    ICmEvent* const m_pOnLowWater;  // owned
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Room{m_Mutex};
    DWORD m_dwCount CM_GUARDED_BY(m_Mutex) = 0;
    bool m_bWasFull CM_GUARDED_BY(m_Mutex) = false;
    CWaiter* m_pFirst CM_GUARDED_BY(m_Mutex) = nullptr;
    CWaiter** m_ppTail CM_GUARDED_BY(m_Mutex) = &m_pFirst;  // the last link, which is null
    CCmLifeGuard m_Guard;
};

CCmBoundedPoster::CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount)
    : m_pState(new (std::nothrow) CPosterState(aQueue, std::max<DWORD>(aMaxCount, 1), 0, nullptr)) {
    if (m_pState != nullptr) {
        m_pState->AddReference();
    }
}

CCmBoundedPoster::CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount, DWORD aLowWater,
                                   ICmEvent* aOnLowWater)
    : m_pState(nullptr) {
    if (aOnLowWater == nullptr) {
        return;
    }
    const DWORD dwMaxCount = std::max<DWORD>(aMaxCount, 1);
    m_pState = new (std::nothrow)
        CPosterState(aQueue, dwMaxCount, std::min(aLowWater, dwMaxCount - 1), aOnLowWater);
    if (m_pState == nullptr) {
        aOnLowWater->OnDestorySelf();
        return;
    }
    m_pState->AddReference();
}

CCmBoundedPoster::~CCmBoundedPoster() {
    if (m_pState != nullptr) {
        m_pState->Close();
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
    const bool bWaits = aLimit != nullptr && !CCmEventQueueSteps::IsOwnThread(m_pState->Queue());
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
    return m_pState->Queue().PostEvent(aEvent, ICmEventQueue::EPRIORITY_NORMAL);
}

void CCmBoundedPoster::CBoundedEvent::OnDestorySelf() {
    const CCmComAutoPtr<CPosterState> pState(m_pState);
    m_pState->ReleaseReference();
    delete this;
    pState->GiveRoom();
}

}  // namespace UTIL_NS
