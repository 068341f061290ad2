#include "CmEvent.h"

#include <memory>
#include <new>

#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmEventQueueSteps.h"
#include "CmNsec.h"
#include "CmPrivateState.h"
#include "CmScopedLock.h"

namespace UTIL_NS {

bool CCmEventQueueSteps::IsOwnThread(ICmEventQueue& aQueue) {
    if (const auto* pQueue = dynamic_cast<CCmEventQueueBase*>(&aQueue)) {
        return IsEqualCurrentThread(pQueue->m_Tid.load(std::memory_order_relaxed));
    }
    ACmThread* pThread = getCurrentThread();
    return pThread != nullptr && pThread->GetEventQueue() == &aQueue;
}

// How far a call has come and who holds it.
class ACmCallEvent::CCallState {
  public:
    explicit CCallState(ACmCallEvent& aCall) : m_Call(aCall) {}
    CCallState(const CCallState&) = delete;
    CCallState& operator=(const CCallState&) = delete;

    void RunUnlessAbandoned() {
        int nOutcome = CALL_WAITS;
        if (!m_nOutcome.compare_exchange_strong(nOutcome, CALL_RUNS, std::memory_order_acq_rel)) {
            return;
        }
        m_Call.Run();
        m_Call.Drop();
        // Release: the caller that reads the outcome can read the value.
        m_nOutcome.store(CALL_HAS_RUN, std::memory_order_release);
        WakeCaller();
    }
    // Neither when it has run nor when its caller has given up.
    void Discard() {
        int nOutcome = CALL_WAITS;
        if (m_nOutcome.compare_exchange_strong(nOutcome, CALL_DISCARDED,
                                               std::memory_order_acq_rel)) {
            m_Call.Drop();
            WakeCaller();
        } else if (nOutcome == CALL_RUNS) {
            m_Call.Drop();
            m_nOutcome.store(CALL_CUT_OFF, std::memory_order_release);
            WakeCaller();
        }
    }
    void Abandon() {
        int nOutcome = CALL_WAITS;
        if (m_nOutcome.compare_exchange_strong(nOutcome, CALL_ABANDONED,
                                               std::memory_order_acq_rel)) {
            m_Call.Drop();
        }
    }
    void Release() {
        if (m_nHolders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete &m_Call;
        }
    }
    bool HasBegun() const {
        const int nOutcome = m_nOutcome.load(std::memory_order_acquire);
        return nOutcome == CALL_RUNS || nOutcome == CALL_HAS_RUN || nOutcome == CALL_CUT_OFF;
    }
    CmResult CallWithin(ICmEventQueue& aQueue, const CCmTimeValue& aLimit);

  private:
    // Whoever moves the outcome away from CALL_WAITS has the callable to itself.
    enum EOutcome : int {
        CALL_WAITS,
        CALL_RUNS,
        CALL_HAS_RUN,
        CALL_ABANDONED,  // by its caller
        CALL_DISCARDED,  // by its queue
        CALL_CUT_OFF,    // its thread was cancelled while it ran
    };
    struct CCallWait {
        CCmMutexThread m_Mutex;
        CCmConditionVariableThread m_Decided{m_Mutex};  // it has run, or never will
    };

    void WakeCaller() {
        if (m_pWait != nullptr) {
            CCmScopedLockT<CCmMutexThread> lock(m_pWait->m_Mutex);
            m_pWait->m_Decided.Signal();
        }
    }

    ACmCallEvent& m_Call;
    std::unique_ptr<CCallWait> m_pWait;  // of a call with a limit
    CmStd::atomic<int> m_nOutcome{CALL_WAITS};
    CmStd::atomic<int> m_nHolders{2};
};

CmResult ACmCallEvent::CCallState::CallWithin(ICmEventQueue& aQueue, const CCmTimeValue& aLimit) {
    const long long llDeadline = CmLaterNsec(CmMonotonicNsec(), aLimit);
    m_pWait.reset(new (std::nothrow) CCallWait);
    if (m_pWait == nullptr) {
        m_Call.OnDestorySelf();  // in place of the queue, which never got it
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rvPost = aQueue.PostEvent(&m_Call, ICmEventQueue::EPRIORITY_NORMAL);
    if (CM_FAILED(rvPost)) {
        return rvPost;
    }
    CmResult rv = CM_OK;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_pWait->m_Mutex);
        rv = lock.result();
        while (CM_SUCCEEDED(rv) && m_nOutcome.load(std::memory_order_acquire) <= CALL_RUNS) {
            rv = CCmConditionSteps::WaitUntil(m_pWait->m_Decided, llDeadline);
        }
    }
    switch (m_nOutcome.load(std::memory_order_acquire)) {
        case CALL_HAS_RUN:
            return CM_OK;
        case CALL_DISCARDED:
        case CALL_CUT_OFF:
            return CM_ERROR_NOT_AVAILABLE;
        default:
            return rv;
    }
}

ACmCallEvent::ACmCallEvent() {
    CCmPrivateRoom::Make(m_Private, *this);
}

ACmCallEvent::~ACmCallEvent() {
    CCmPrivateRoom::End(m_Private);
}

CmResult ACmCallEvent::OnEventFire() {
    CCmPrivateRoom::Of(m_Private).RunUnlessAbandoned();
    return CM_OK;
}

void ACmCallEvent::OnDestorySelf() {
    CCallState& state = CCmPrivateRoom::Of(m_Private);
    state.Discard();
    state.Release();
}

CmResult ACmCallEvent::Call(ICmEventQueue& aQueue, const CCmTimeValue* aLimit) {
    const CCmDisableCancel disableCancel;
    CCallState& state = CCmPrivateRoom::Of(m_Private);
    const bool bLimited = aLimit != nullptr && *aLimit < CCmTimeValue::s_tvMax;
    const CmResult rv = bLimited && !CCmEventQueueSteps::IsOwnThread(aQueue)
                            ? state.CallWithin(aQueue, *aLimit)
                            : aQueue.SendEvent(this);
    if (CM_FAILED(rv)) {
        state.Abandon();  // from here on HasBegun does not change
    }
    return rv;
}

void ACmCallEvent::LetGo() {
    CCallState& state = CCmPrivateRoom::Of(m_Private);
    state.Abandon();
    state.Release();
}

bool ACmCallEvent::HasBegun() const {
    return CCmPrivateRoom::Of(m_Private).HasBegun();
}

}  // namespace UTIL_NS
