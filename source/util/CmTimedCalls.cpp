#include "CmTimedCalls.h"

#include <algorithm>
#include <memory>
#include <new>

#include "CmCancel.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmThread.h"
#include "CmTraceLine.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

constexpr long long NSEC_PER_SEC = 1000000000;
constexpr long long NSEC_PER_USEC = 1000;
constexpr long NAP_NSEC = 1000 * 1000;  // between two tries of what the system refused

CCmTimeValue ValueOf(long long aNsec) {
    return CCmTimeValue(static_cast<long>(aNsec / NSEC_PER_SEC),
                        static_cast<long>(aNsec % NSEC_PER_SEC / NSEC_PER_USEC));
}

void ReportSlow(const CCmWatchedTimers& aWatched, const CCmTimedCalls* aCalls) {
    char szClass[CM_CLASS_TEXT_SIZE];
    CmClassText(aWatched.Table(), szClass, sizeof(szClass));
    CM_WARNING_TRACE("CCmTimedCalls::FireDue, watch, class="
                     << static_cast<const char*>(szClass) << " lateUsec=" << aWatched.LateUsec()
                     << " ranUsec=" << aWatched.RanUsec() << " this=" << CmTraceAddress(aCalls));
}

void Nap() {
    const CCmDisableCancel disableCancel;
    const timespec tsNap = {0, NAP_NSEC};
    g_cmSystem.nanosleep(&tsNap, nullptr);
}

}  // namespace

CCmTimedCall::CCmTimedCall(CCmTimedEvent* aEvent, long long aDueNsec, long long aPeriodNsec,
                           DWORD aCount)
    : m_pEvent(aEvent),
      m_nState(STATE_ON_ITS_WAY),
      m_llDue(aDueNsec),
      m_llPeriod(aPeriodNsec),
      m_dwLeft(aCount),
      m_ullOrder(0),
      m_nPlace(0),
      m_bCancelled(false) {}

CCmTimedCall::~CCmTimedCall() = default;

bool CCmTimedCall::IsDone() const {
    return m_nState.load(std::memory_order_acquire) == STATE_DONE;
}

// Whoever moves the state away from STATE_ON_ITS_WAY has the event to itself.
bool CCmTimedCall::StopOnItsWay_i() {
    int nState = STATE_ON_ITS_WAY;
    if (!m_nState.compare_exchange_strong(nState, STATE_DONE, std::memory_order_acq_rel)) {
        return false;
    }
    DestroyEvent_i();
    return true;
}

void CCmTimedCall::DestroyEvent_i() {
    CCmTimedEvent* pEvent = m_pEvent;
    m_pEvent = nullptr;
    pEvent->OnDestorySelf();
}

CmResult CCmTimedCall::Cancel(bool aWaits) {
    if (StopOnItsWay_i()) {
        return CM_OK;
    }
    // Acquire: m_pList was set before a state that is neither of the two, each of which is stored
    // with release.
    if (m_nState.load(std::memory_order_acquire) == STATE_DONE) {
        return CM_ERROR_NOT_FOUND;
    }
    return m_pList->Cancel(*this, aWaits);
}

void CCmTimedCall::Refuse() {
    StopOnItsWay_i();
}

CCmTimedCalls::CCmTimedCalls(EClock aClock)
    : m_eClock(aClock),
      m_Tid(pthread_t()),
      m_Finished(m_Mutex),
      m_bIsEmpty(true),
      m_pRunning(nullptr),
      m_ullOrders(0),
      m_dwWaiters(0),
      m_bRefuses(false) {}

CCmTimedCalls::~CCmTimedCalls() = default;  // entries hold references to it: none is left

void CCmTimedCalls::BindToCurrentThread() {
    m_Tid.store(pthread_self(), std::memory_order_relaxed);
    m_Thread.BindToCurrentThread();
}

long long CCmTimedCalls::Now() const {
    return m_eClock == CLOCK_OF_LIBRARY ? CmMonotonicNsec()
                                        : CmNsecOf(CCmTimeValue::GetTimeOfDay());
}

CmResult CCmTimedCalls::Insert(CCmTimedCall& aCall, bool& aMustWake) {
    aCall.m_pList = this;
    aMustWake = false;
    CmResult rv = CM_OK;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (m_bRefuses) {
            rv = CM_ERROR_NOT_INITIALIZED;
        } else {
            try {
                // One place more for the running call, which must find room when it comes back.
                if (m_Heap.capacity() < m_Heap.size() + 2) {
                    m_Heap.reserve(2 * m_Heap.size() + 16);
                }
            } catch (const std::bad_alloc&) {
                rv = CM_ERROR_OUT_OF_MEMORY;
            }
        }
        if (CM_SUCCEEDED(rv)) {
            int nState = CCmTimedCall::STATE_ON_ITS_WAY;
            if (!aCall.m_nState.compare_exchange_strong(nState, CCmTimedCall::STATE_PENDING,
                                                        std::memory_order_acq_rel)) {
                return CM_ERROR_NOT_FOUND;
            }
            aCall.AddReference();
            Push_l(aCall);
            aMustWake = m_Heap.front() == &aCall &&
                        !IsEqualCurrentThread(m_Tid.load(std::memory_order_relaxed));
        }
    }
    if (CM_FAILED(rv)) {
        aCall.Refuse();
    }
    return rv;
}

long long CCmTimedCalls::NextDue() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_Heap.empty() ? CM_NEVER_NSEC : m_Heap.front()->m_llDue;
}

void CCmTimedCalls::Refuse() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_bRefuses = true;
}

CmResult CCmTimedCalls::Cancel(CCmTimedCall& aCall, bool aWaits) {
    const CmResult rv = TryCancel_i(aCall);
    if (rv != CM_ERROR_NOT_AVAILABLE) {
        return rv;
    }
    if (IsEqualCurrentThread(m_Tid.load(std::memory_order_relaxed))) {
        return CM_OK;  // the callable cancels itself
    }
    if (aWaits) {
        WaitWhileItRuns_i(aCall);
        return CM_OK;
    }
    return CM_ERROR_NOT_AVAILABLE;
}

// CM_ERROR_NOT_AVAILABLE: it is running.
CmResult CCmTimedCalls::TryCancel_i(CCmTimedCall& aCall) {
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        switch (aCall.m_nState.load(std::memory_order_relaxed)) {
            case CCmTimedCall::STATE_PENDING:
                Remove_l(aCall);
                aCall.m_nState.store(CCmTimedCall::STATE_DONE, std::memory_order_release);
                break;
            case CCmTimedCall::STATE_RUNNING:
                aCall.m_bCancelled = true;
                return CM_ERROR_NOT_AVAILABLE;
            default:
                return CM_ERROR_NOT_FOUND;
        }
    }
    aCall.DestroyEvent_i();
    aCall.ReleaseReference();  // that of the heap
    return CM_OK;
}

void CCmTimedCalls::WaitWhileItRuns_i(CCmTimedCall& aCall) {
    const CCmDisableCancel disableCancel;
    CCmBlockedSend blocked;
    if (CM_UNLIKELY(CCmBlockedSend::IsOn())) {
        EnterWait_i(aCall, blocked);
    }
    for (;; Nap()) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        CmResult rv = lock.result();
        ++m_dwWaiters;
        while (CM_SUCCEEDED(rv) &&
               aCall.m_nState.load(std::memory_order_relaxed) == CCmTimedCall::STATE_RUNNING) {
            rv = m_Finished.Wait(nullptr);
        }
        --m_dwWaiters;
        // Acquire: the callable has returned, and what it did is seen by the caller.
        if (aCall.m_nState.load(std::memory_order_acquire) != CCmTimedCall::STATE_RUNNING) {
            return;
        }
    }
}

// It runs, for the last time.
void CCmTimedCalls::EnterWait_i(CCmTimedCall& aCall, CCmBlockedSend& aBlocked) {
    char szNames[CCmBlockedSend::NAMES_SIZE];
    const auto goesOn = [](const void* aObject) {
        return static_cast<const CCmTimedCall*>(aObject)->m_nState.load(
                   std::memory_order_acquire) == CCmTimedCall::STATE_RUNNING;
    };
    if (aBlocked.Enter(m_Thread, goesOn, &aCall, szNames)) {
        CM_WARNING_TRACE(
            "CCmTimerHandle::CancelAndWait, watch, threads wait for each other: " << szNames);
    }
}

long long CCmTimedCalls::FireDue(bool* aFired) {
    if (m_bIsEmpty.load(std::memory_order_relaxed)) {
        return CM_NEVER_NSEC;
    }
    const long long llNow = Now();
    long long llNext = CM_NEVER_NSEC;
    CCmWatchedTimers watched;
    while (CCmTimedCall* pCall = TakeDue_i(llNow, llNext)) {
        const long long llLate = llNow - pCall->m_llDue;
        watched.BeginOne(pCall->m_pEvent, nullptr);
        Fire_i(*pCall, llNow);
        if (watched.EndOne(llLate / NSEC_PER_USEC)) {
            ReportSlow(watched, this);
            watched.ForgetLine();
        }
        if (aFired != nullptr) {
            *aFired = true;
        }
    }
    return llNext;
}

// Null when nothing is due by aNow; aNext is then the time at which something is.
CCmTimedCall* CCmTimedCalls::TakeDue_i(long long aNow, long long& aNext) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (m_Heap.empty() || m_Heap.front()->m_llDue > aNow) {
        aNext = m_Heap.empty() ? CM_NEVER_NSEC : m_Heap.front()->m_llDue;
        return nullptr;
    }
    CCmTimedCall* pCall = m_Heap.front();
    Remove_l(*pCall);
    pCall->m_nState.store(CCmTimedCall::STATE_RUNNING, std::memory_order_release);
    m_pRunning = pCall;
    return pCall;
}

void CCmTimedCalls::Fire_i(CCmTimedCall& aCall, long long aNow) {
    CCmTimerFiring firing;
    firing.m_tvNow = ValueOf(aNow);
    if (aCall.m_llPeriod > 0) {
        const long long llMissed = (aNow - aCall.m_llDue) / aCall.m_llPeriod;
        firing.m_ullMissed = static_cast<uint64_t>(llMissed);
        aCall.m_llDue += llMissed * aCall.m_llPeriod;
    }
    firing.m_tvDue = ValueOf(aCall.m_llDue);
    aCall.m_pEvent->SetFiring(firing);
    CCmCleanUpT finishRun([this, &aCall] { FinishRun_i(aCall); });
    aCall.m_pEvent->OnEventFire();
    finishRun.Release();
    if (!Rearm_i(aCall)) {
        FinishRun_i(aCall);
    }
}

// False when it has run for the last time.
bool CCmTimedCalls::Rearm_i(CCmTimedCall& aCall) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (aCall.m_dwLeft == 1 || aCall.m_bCancelled) {
        return false;
    }
    if (aCall.m_dwLeft > 0) {
        --aCall.m_dwLeft;
    }
    aCall.m_llDue = CmSumNsec(aCall.m_llDue, aCall.m_llPeriod);
    m_pRunning = nullptr;
    // Release: whoever cancels it from now on sees what it did.
    aCall.m_nState.store(CCmTimedCall::STATE_PENDING, std::memory_order_release);
    Push_l(aCall);
    return true;
}

// The callable is destroyed before anybody can see that the call is done.
void CCmTimedCalls::FinishRun_i(CCmTimedCall& aCall) {
    aCall.DestroyEvent_i();
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_pRunning = nullptr;
        aCall.m_nState.store(CCmTimedCall::STATE_DONE, std::memory_order_release);
        if (m_dwWaiters > 0) {
            m_Finished.Broadcast();
        }
    }
    aCall.ReleaseReference();
}

// A call that is still marked as running was left so by a thread that is gone (see Close).
CCmTimedCall* CCmTimedCalls::TakeFirst_i() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_bRefuses = true;
    CCmTimedCall* pCall = m_pRunning;
    if (pCall == nullptr && !m_Heap.empty()) {
        pCall = m_Heap.front();
        Remove_l(*pCall);
        pCall->m_nState.store(CCmTimedCall::STATE_RUNNING, std::memory_order_release);
    }
    return pCall;
}

void CCmTimedCalls::Close() {
    const CCmComAutoPtr<CCmTimedCalls> self(this);  // the last call may have the last reference
    while (CCmTimedCall* pCall = TakeFirst_i()) {
        FinishRun_i(*pCall);
    }
}

bool CCmTimedCalls::IsEarlier(const CCmTimedCall& aLeft, const CCmTimedCall& aRight) {
    return aLeft.m_llDue != aRight.m_llDue ? aLeft.m_llDue < aRight.m_llDue
                                           : aLeft.m_ullOrder < aRight.m_ullOrder;
}

void CCmTimedCalls::Place_l(size_t aPlace, CCmTimedCall* aCall) {
    m_Heap[aPlace] = aCall;
    aCall->m_nPlace = aPlace;
}

void CCmTimedCalls::Rise_l(size_t aPlace) {
    CCmTimedCall* pCall = m_Heap[aPlace];
    while (aPlace > 0 && IsEarlier(*pCall, *m_Heap[(aPlace - 1) / 2])) {
        Place_l(aPlace, m_Heap[(aPlace - 1) / 2]);
        aPlace = (aPlace - 1) / 2;
    }
    Place_l(aPlace, pCall);
}

void CCmTimedCalls::Sink_l(size_t aPlace) {
    CCmTimedCall* pCall = m_Heap[aPlace];
    for (size_t nChild = 2 * aPlace + 1; nChild < m_Heap.size(); nChild = 2 * aPlace + 1) {
        if (nChild + 1 < m_Heap.size() && IsEarlier(*m_Heap[nChild + 1], *m_Heap[nChild])) {
            ++nChild;
        }
        if (!IsEarlier(*m_Heap[nChild], *pCall)) {
            break;
        }
        Place_l(aPlace, m_Heap[nChild]);
        aPlace = nChild;
    }
    Place_l(aPlace, pCall);
}

void CCmTimedCalls::Push_l(CCmTimedCall& aCall) {
    aCall.m_ullOrder = ++m_ullOrders;
    m_Heap.push_back(&aCall);  // within the capacity
    m_bIsEmpty.store(false, std::memory_order_relaxed);
    Rise_l(m_Heap.size() - 1);
}

void CCmTimedCalls::Remove_l(CCmTimedCall& aCall) {
    const size_t nPlace = aCall.m_nPlace;
    CCmTimedCall* pLast = m_Heap.back();
    m_Heap.pop_back();
    m_bIsEmpty.store(m_Heap.empty(), std::memory_order_relaxed);
    if (pLast != &aCall) {
        Place_l(nPlace, pLast);
        Rise_l(nPlace);
        Sink_l(pLast->m_nPlace);
    }
}

namespace {

// A call that could not be put in or scheduled again: destroyed unfired, or late.
void TraceRefusal(CmResult aResult) {
    CM_WARNING_TRACE("CmPostDelayed, refused on the worker. rv=" << aResult);
}

// Drives the list of a thread by one timer in one of its timer queues, due with the first call.
class CDriver final : public ICmTimerHandler {
  public:
    CDriver(ICmTimerQueue* aQueue, CCmTimedCalls* aList) : m_pQueue(aQueue), m_pList(aList) {}
    // Runs when the thread does its last steps; the queue may be gone.
    ~CDriver() { m_pList->Close(); }
    CDriver(const CDriver&) = delete;
    CDriver& operator=(const CDriver&) = delete;

    bool IsOf(const ICmTimerQueue* aQueue) const { return m_pQueue == aQueue; }
    CmResult Insert(CCmTimedCall& aCall) {
        bool bMustWake = false;
        const CmResult rv = m_pList->Insert(aCall, bMustWake);
        if (CM_FAILED(rv)) {
            return rv;
        }
        const CmResult rvTimer = Schedule_i();
        if (CM_FAILED(rvTimer)) {
            aCall.Cancel(false);
        }
        return rvTimer;
    }
    void OnTimeout(const CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override {
        const long long llNext = m_pList->FireDue();
        CCmWatchedTimers::CountOthersOnly();
        if (llNext == CM_NEVER_NSEC) {
            m_pQueue->CancelTimer(this);
            return;
        }
        const CmResult rv = Schedule_i();
        if (CM_FAILED(rv)) {
            TraceRefusal(rv);
        }
    }

  private:
    // The timer is periodic: then it is pending while it fires, and scheduling it again takes no
    // memory. It is scheduled each time: m_pQueue may be a new queue at the address of one that was
    // destroyed.
    CmResult Schedule_i() {
        const long long llWait = m_pList->NextDue() - m_pList->Now();
        const long lUsec = static_cast<long>(std::max(llWait / NSEC_PER_USEC, 1LL));
        const CmResult rv = m_pQueue->ScheduleTimer(this, nullptr, CCmTimeValue(0, lUsec), 0);
        return rv == CM_ERROR_FOUND ? CM_OK : rv;
    }

    ICmTimerQueue* m_pQueue;  // not owned
    CCmComAutoPtr<CCmTimedCalls> m_pList;
};

thread_local std::vector<std::unique_ptr<CDriver>> t_drivers;

// Null when memory ran out.
CDriver* DriverOf(ICmTimerQueue* aQueue) {
    for (const std::unique_ptr<CDriver>& pDriver : t_drivers) {
        if (pDriver->IsOf(aQueue)) {
            return pDriver.get();
        }
    }
    CCmComAutoPtr<CCmTimedCalls> pList(new (std::nothrow)
                                           CCmTimedCalls(CCmTimedCalls::CLOCK_OF_WALL));
    if (pList == nullptr) {
        return nullptr;
    }
    pList->BindToCurrentThread();
    std::unique_ptr<CDriver> pDriver(new (std::nothrow) CDriver(aQueue, pList));
    if (pDriver == nullptr) {
        return nullptr;
    }
    try {
        t_drivers.push_back(std::move(pDriver));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return t_drivers.back().get();
}

// Brings a call to the thread whose timer queue it is for.
class CArrival : public ICmEvent {
  public:
    CArrival(ICmTimerQueue* aQueue, CCmTimedCall* aCall) : m_pQueue(aQueue), m_pCall(aCall) {}
    ~CArrival() override { m_pCall->Refuse(); }

    CmResult OnEventFire() override {
        CDriver* pDriver = DriverOf(m_pQueue);
        const CmResult rv = pDriver != nullptr ? pDriver->Insert(*m_pCall) : CM_ERROR_OUT_OF_MEMORY;
        if (CM_FAILED(rv) && rv != CM_ERROR_NOT_FOUND) {  // not when it was cancelled meanwhile
            TraceRefusal(rv);
        }
        return rv;
    }

  private:
    ICmTimerQueue* m_pQueue;
    CCmComAutoPtr<CCmTimedCall> m_pCall;
};

CmResult SendToTimerQueue(ACmThread& aThread, CCmTimedCall& aCall) {
    ICmEventQueue* pEvents = aThread.GetEventQueue();
    ICmTimerQueue* pTimers = aThread.GetTimerQueue();
    if (pEvents == nullptr || pTimers == nullptr) {
        return CM_ERROR_NULL_POINTER;
    }
    CArrival* pArrival = new (std::nothrow) CArrival(pTimers, &aCall);
    return pArrival != nullptr ? pEvents->PostEvent(pArrival, ICmEventQueue::EPRIORITY_NORMAL)
                               : CM_ERROR_OUT_OF_MEMORY;
}

// Puts a call into the list of a CCmWorker, and wakes the worker when the call is due first.
CmResult PutIntoList(ACmThread& aThread, CCmTimedCalls& aList, CCmTimedCall& aCall) {
    bool bMustWake = false;
    CmResult rv = aList.Insert(aCall, bMustWake);
    if (CM_FAILED(rv) || !bMustWake) {
        return rv;
    }
    const auto wake = [&aThread] { return CmPost(aThread, [] {}); };
    rv = wake();
    if (CM_FAILED(rv)) {
        aCall.Cancel(false);
    }
    // Other threads may have put in calls that are due later and rely on this wake-up.
    for (CmResult rvOthers = rv;
         rvOthers == CM_ERROR_OUT_OF_MEMORY && aList.NextDue() != CM_NEVER_NSEC;
         rvOthers = wake()) {
        Nap();
    }
    return rv;
}

}  // namespace

CCmTimerHandle CCmTimerHandle::Post(ACmThread* aThread, CCmTimedEvent* aEvent,
                                    const CCmTimeValue& aFirst, const CCmTimeValue& aPeriod,
                                    unsigned int aCount) {
    CCmTimerHandle handle;
    if (aEvent == nullptr) {
        handle.m_Result = CM_ERROR_OUT_OF_MEMORY;
        return handle;
    }
    CCmTimedCall* pCall = nullptr;
    CCmTimedCalls* pList = aThread != nullptr ? CmTimedCallsOf(*aThread) : nullptr;
    if (aThread == nullptr) {
        handle.m_Result = CM_ERROR_NULL_POINTER;
    } else if (aCount != 1 && aPeriod <= CCmTimeValue()) {
        handle.m_Result = CM_ERROR_INVALID_ARG;
    } else {
        const long long llNow =
            pList != nullptr ? pList->Now() : CmNsecOf(CCmTimeValue::GetTimeOfDay());
        pCall = new (std::nothrow)
            CCmTimedCall(aEvent, CmLaterNsec(llNow, aFirst), CmNsecOf(aPeriod), aCount);
        handle.m_Result = CM_ERROR_OUT_OF_MEMORY;
    }
    if (pCall == nullptr) {
        aEvent->OnDestorySelf();
        return handle;
    }
    pCall->AddReference();
    handle.m_pCall = pCall;
    handle.m_Result = pList != nullptr ? PutIntoList(*aThread, *pList, *pCall)
                                       : SendToTimerQueue(*aThread, *pCall);
    if (CM_FAILED(handle.m_Result)) {
        pCall->Refuse();
    }
    return handle;
}

CCmTimerHandle::CCmTimerHandle(const CCmTimerHandle& aRight)
    : m_pCall(aRight.m_pCall), m_Result(aRight.m_Result) {
    if (m_pCall != nullptr) {
        m_pCall->AddReference();
    }
}

CCmTimerHandle::CCmTimerHandle(CCmTimerHandle&& aRight) noexcept
    : m_pCall(std::exchange(aRight.m_pCall, nullptr)),
      m_Result(std::exchange(aRight.m_Result, CM_ERROR_NOT_FOUND)) {}

CCmTimerHandle& CCmTimerHandle::operator=(CCmTimerHandle aRight) noexcept {
    std::swap(m_pCall, aRight.m_pCall);
    std::swap(m_Result, aRight.m_Result);
    return *this;
}

CCmTimerHandle::~CCmTimerHandle() {
    if (m_pCall != nullptr) {
        m_pCall->ReleaseReference();
    }
}

bool CCmTimerHandle::IsPending() const {
    return m_pCall != nullptr && !m_pCall->IsDone();
}

CmResult CCmTimerHandle::Cancel() {
    return m_pCall != nullptr ? m_pCall->Cancel(false) : CM_ERROR_NOT_FOUND;
}

CmResult CCmTimerHandle::CancelAndWait() {
    return m_pCall != nullptr ? m_pCall->Cancel(true) : CM_ERROR_NOT_FOUND;
}

}  // namespace UTIL_NS
