#include "CmEvent.h"

#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmEventQueueSteps.h"
#include "CmNsec.h"
#include "CmScopedLock.h"

namespace UTIL_NS {

namespace {

// How far a call has come. Whoever takes the state away from CALL_WAITS has the callable to itself.
enum ECall : int {
    CALL_WAITS,
    CALL_RUNS,
    CALL_HAS_RUN,
    CALL_ABANDONED,  // by its caller
    CALL_DISCARDED,  // by its queue
    CALL_CUT_OFF,    // its thread was cancelled while it ran
};

}  // namespace

bool CCmEventQueueSteps::IsOwnThread(ICmEventQueue& aQueue) {
    if (const auto* pQueue = dynamic_cast<CCmEventQueueBase*>(&aQueue)) {
        return IsEqualCurrentThread(pQueue->m_Tid.load(std::memory_order_relaxed));
    }
    ACmThread* pThread = getCurrentThread();
    return pThread != nullptr && pThread->GetEventQueue() == &aQueue;
}

struct ACmCallEvent::CWait {
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Ended{m_Mutex};
};

ACmCallEvent::ACmCallEvent() : m_pWait(nullptr), m_nState(CALL_WAITS), m_nHolders(2) {}

ACmCallEvent::~ACmCallEvent() {
    delete m_pWait;
}

CmResult ACmCallEvent::OnEventFire() {
    int nState = CALL_WAITS;
    if (!m_nState.compare_exchange_strong(nState, CALL_RUNS, std::memory_order_acq_rel)) {
        return CM_OK;
    }
    Run();
    Drop();
    // Release: the caller that reads it reads the value after it.
    m_nState.store(CALL_HAS_RUN, std::memory_order_release);
    WakeCaller_i();
    return CM_OK;
}

void ACmCallEvent::OnDestorySelf() {
    int nState = CALL_WAITS;
    if (m_nState.compare_exchange_strong(nState, CALL_DISCARDED, std::memory_order_acq_rel)) {
        Drop();
        WakeCaller_i();
    } else if (nState == CALL_RUNS) {
        Drop();
        m_nState.store(CALL_CUT_OFF, std::memory_order_release);
        WakeCaller_i();
    }
    Release_i();
}

void ACmCallEvent::WakeCaller_i() {
    if (m_pWait != nullptr) {
        CCmScopedLockT<CCmMutexThread> lock(m_pWait->m_Mutex);
        m_pWait->m_Ended.Signal();
    }
}

CmResult ACmCallEvent::Call(ICmEventQueue& aQueue, const CCmTimeValue* aLimit) {
    const CCmDisableCancel disableCancel;
    const bool bLimited = aLimit != nullptr && *aLimit < CCmTimeValue::s_tvMax;
    const CmResult rv = bLimited && !CCmEventQueueSteps::IsOwnThread(aQueue)
                            ? CallWithin_i(aQueue, *aLimit)
                            : aQueue.SendEvent(this);
    if (CM_FAILED(rv)) {
        Abandon_i();  // from here on HasBegun does not change
    }
    return rv;
}

CmResult ACmCallEvent::CallWithin_i(ICmEventQueue& aQueue, const CCmTimeValue& aLimit) {
    const long long llDeadline = CmLaterNsec(CmMonotonicNsec(), aLimit);
    m_pWait = new (std::nothrow) CWait;
    if (m_pWait == nullptr) {
        OnDestorySelf();  // for the queue, which never had it
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rvPost = aQueue.PostEvent(this, ICmEventQueue::EPRIORITY_NORMAL);
    if (CM_FAILED(rvPost)) {
        return rvPost;
    }
    CmResult rv = CM_OK;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_pWait->m_Mutex);
        rv = lock.result();
        while (CM_SUCCEEDED(rv) && m_nState.load(std::memory_order_acquire) <= CALL_RUNS) {
            rv = CCmConditionSteps::WaitUntil(m_pWait->m_Ended, llDeadline);
        }
    }
    switch (m_nState.load(std::memory_order_acquire)) {
        case CALL_HAS_RUN:
            return CM_OK;
        case CALL_DISCARDED:
        case CALL_CUT_OFF:
            return CM_ERROR_NOT_AVAILABLE;
        default:
            return rv;
    }
}

void ACmCallEvent::Abandon_i() {
    int nState = CALL_WAITS;
    if (m_nState.compare_exchange_strong(nState, CALL_ABANDONED, std::memory_order_acq_rel)) {
        Drop();
    }
}

void ACmCallEvent::LetGo() {
    Abandon_i();
    Release_i();
}

bool ACmCallEvent::HasBegun() const {
    const int nState = m_nState.load(std::memory_order_acquire);
    return nState == CALL_RUNS || nState == CALL_HAS_RUN || nState == CALL_CUT_OFF;
}

void ACmCallEvent::Release_i() {
    if (m_nHolders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

}  // namespace UTIL_NS
