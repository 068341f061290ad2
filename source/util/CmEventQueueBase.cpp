#include "CmEventQueueBase.h"

#include <algorithm>
#include <new>

#include "CmScopedLock.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"
#include "port/CmSystem.h"

namespace UTIL_NS {

namespace {

constexpr CCmTimeValue WATCH_INTERVAL(3);  // between two looks at the size
constexpr CCmTimeValue WATCH_PAUSE = WATCH_INTERVAL - CCmTimeValue(0, CM_PORT_COARSE_USEC);
constexpr DWORD LONG_QUEUE_SIZE = 101;        // reported from here on
constexpr size_t SPARES_AT_LEAST = 256;       // list nodes that a queue may keep
constexpr size_t SPARES_AT_MOST = 16384;      // even if its last pass took more
constexpr int WAKE_TRIES = 3;                 // a sender must not miss its wake-up
constexpr long SENDERS_NAP_NSEC = 50 * 1000;  // between two looks for busy senders

// Ends an event whose thread is cancelled while it fires.
class CUnwindEnd {
  public:
    explicit CUnwindEnd(ICmEvent* aEvent) : m_pEvent(aEvent) {}
    ~CUnwindEnd() {
        if (m_pEvent != nullptr) {
            m_pEvent->OnDestorySelf();
        }
    }
    CUnwindEnd(const CUnwindEnd&) = delete;
    CUnwindEnd& operator=(const CUnwindEnd&) = delete;

    void Release() { m_pEvent = nullptr; }

  private:
    ICmEvent* m_pEvent;
};

// Counts a busy sender out; release: whoever finds none left is behind all that it did.
class CBusyEnd {
  public:
    explicit CBusyEnd(std::atomic<long>* aCount) : m_pCount(aCount) {}
    ~CBusyEnd() {
        if (m_pCount != nullptr) {
            m_pCount->fetch_sub(1, std::memory_order_release);
        }
    }
    CBusyEnd(const CBusyEnd&) = delete;
    CBusyEnd& operator=(const CBusyEnd&) = delete;

  private:
    std::atomic<long>* m_pCount;
};

void EndEach(std::list<ICmEvent*>& aEvents) {
    while (!aEvents.empty()) {
        ICmEvent* pEvent = aEvents.front();
        aEvents.pop_front();
        pEvent->OnDestorySelf();
    }
}

// Ends the rest of a list whose thread is cancelled at one of its events.
class CUnwindRest {
  public:
    explicit CUnwindRest(std::list<ICmEvent*>& aEvents) : m_Events(aEvents) {}
    ~CUnwindRest() { EndEach(m_Events); }
    CUnwindRest(const CUnwindRest&) = delete;
    CUnwindRest& operator=(const CUnwindRest&) = delete;

  private:
    std::list<ICmEvent*>& m_Events;
};

CmResult FireAndEnd(ICmEvent* aEvent) {
    CUnwindEnd unwindEnd(aEvent);
    const CmResult rv = aEvent->OnEventFire();
    unwindEnd.Release();
    aEvent->OnDestorySelf();
    return rv;
}

// Gives aList one node. CM_OK or CM_ERROR_OUT_OF_MEMORY.
CmResult AddNode(std::list<ICmEvent*>& aList, ICmEvent* aEvent) {
    try {
        aList.push_back(aEvent);
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_OK;
}

}  // namespace

ICmEvent::ICmEvent() : m_ullReserved(0), m_CreatorTid(pthread_self()) {}

ICmEvent::~ICmEvent() = default;

void ICmEvent::OnDestorySelf() {
    delete this;
}

ICmEventQueue::~ICmEventQueue() = default;

const CCmTimeValue CCmEventQueueBase::s_tvReportInterval(0, 50000);

struct CCmEventQueueBase::CPosting {
    explicit CPosting(ICmEvent* aEvent) : m_pEvent(aEvent) {}

    ICmEvent* m_pEvent;
    std::list<ICmEvent*> m_Node;  // the node to append, unless a spare one is to be used
    timeval m_tvCoarseNow = {};
    DWORD m_dwReportSize = 0;  // the size that is to be reported, if any
};

CCmEventQueueBase::CCmEventQueueBase()
    : m_dwSize(0),
      m_tvLastReport(CCmTimeValue::GetTimeOfDay()),
      m_Tid(pthread_t()),
      m_bIsStopped(false),
      m_lBusySenders(0) {}

CCmEventQueueBase::~CCmEventQueueBase() {
    WaitForSenders_i();
    SetStopped();  // what an event posts while it is ended is refused
    DestoryPendingEvents();
}

CmResult CCmEventQueueBase::PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    CPosting posting(aEvent);
    CmResult rv = Prepare_i(posting, true);
    if (CM_SUCCEEDED(rv)) {
        rv = Append_l(posting, posting.m_Node);
    }
    Conclude_i(posting, rv);
    return rv;
}

CmResult CCmEventQueueBase::Prepare_i(CPosting& aPosting, bool aNeedsNode) {
    if (CM_UNLIKELY(m_bIsStopped.load(std::memory_order_relaxed))) {
        return CM_ERROR_NOT_INITIALIZED;
    }
    g_cmClock.coarse_gettimeofday(&aPosting.m_tvCoarseNow, nullptr);
    return aNeedsNode ? AddNode(aPosting.m_Node, aPosting.m_pEvent) : CM_OK;
}

CmResult CCmEventQueueBase::Append_l(CPosting& aPosting, std::list<ICmEvent*>& aNodes) {
    // Looked at again: a consumer that ends closes the queue under the lock.
    if (CM_UNLIKELY(m_bIsStopped.load(std::memory_order_relaxed))) {
        return CM_ERROR_NOT_INITIALIZED;
    }
    m_Events.splice(m_Events.end(), aNodes, aNodes.begin());
    m_Events.back() = aPosting.m_pEvent;
    m_dwSize.store(m_dwSize.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    WatchSize_l(aPosting);
    return CM_OK;
}

// Asks the exact clock only when the coarse one cannot rule out that the interval has passed.
void CCmEventQueueBase::WatchSize_l(CPosting& aPosting) {
    if (CM_LIKELY(CCmTimeValue(aPosting.m_tvCoarseNow) - m_tvLastReport <= WATCH_PAUSE)) {
        return;
    }
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    if (tvNow - m_tvLastReport > WATCH_INTERVAL) {
        m_tvLastReport = tvNow;
        const DWORD dwSize = m_dwSize.load(std::memory_order_relaxed);
        aPosting.m_dwReportSize = dwSize >= LONG_QUEUE_SIZE ? dwSize : 0;
    }
}

void CCmEventQueueBase::Conclude_i(CPosting& aPosting, CmResult aResult) {
    if (CM_UNLIKELY(aPosting.m_dwReportSize != 0)) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::PostEvent, m_dwSize="
                              << aPosting.m_dwReportSize
                              << " m_Tid=" << (unsigned long)m_Tid.load(std::memory_order_relaxed));
    }
    if (CM_SUCCEEDED(aResult)) {
        return;
    }
    if (aResult == CM_ERROR_NOT_INITIALIZED) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::PostEvent, has been stopped.");
    }
    aPosting.m_pEvent->OnDestorySelf();
}

CmResult CCmEventQueueBase::SendEvent(ICmEvent* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    if (CM_UNLIKELY(m_bIsStopped.load(std::memory_order_relaxed))) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::SendEvent, has been stopped.");
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
    if (IsEqualCurrentThread(m_Tid.load(std::memory_order_relaxed))) {
        return FireAndEnd(aEvent);
    }
    CCmEventSynchronous* pSynchronous = new (std::nothrow) CCmEventSynchronous(aEvent, this);
    if (pSynchronous == nullptr) {
        aEvent->OnDestorySelf();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    pSynchronous->m_bHoldsQueue = true;
    CmResult rv = CM_OK;
    {
        m_lBusySenders.fetch_add(1, std::memory_order_relaxed);
        CBusyEnd busyEnd(&m_lBusySenders);
        rv = PostEvent(pSynchronous, EPRIORITY_NORMAL);
    }
    if (CM_FAILED(rv)) {
        pSynchronous->LetGo_i();  // behind the queue, which has ended the event
        return rv;
    }
    return pSynchronous->WaitResultAndDeleteThis();
}

DWORD CCmEventQueueBase::GetPendingEventsCount() {
    return m_dwSize.load(std::memory_order_relaxed);
}

// The list may be empty under a count above 0: DestoryPendingEvents leaves the count as it was.
CmResult CCmEventQueueBase::PopPendingEvents(std::list<ICmEvent*>& aEvents, DWORD aMaxCount,
                                             DWORD* aRemainSize) {
    DWORD dwSize = m_dwSize.load(std::memory_order_relaxed);
    if (dwSize == 0) {
        return CM_ERROR_NOT_FOUND;
    }
    if (dwSize <= aMaxCount) {
        aEvents.splice(aEvents.end(), m_Events);
        dwSize = 0;
    } else {
        auto itEnd = m_Events.begin();
        for (DWORD i = 0; i < aMaxCount && itEnd != m_Events.end(); ++i) {
            ++itEnd;
            --dwSize;
        }
        aEvents.splice(aEvents.end(), m_Events, m_Events.begin(), itEnd);
    }
    m_dwSize.store(dwSize, std::memory_order_relaxed);
    if (aRemainSize != nullptr) {
        *aRemainSize = dwSize;
    }
    return CM_OK;
}

CmResult CCmEventQueueBase::PopOnePendingEvent(ICmEvent*& aEvent, DWORD* aRemainSize) {
    if (m_Events.empty()) {
        return CM_ERROR_NOT_FOUND;
    }
    aEvent = m_Events.front();
    m_Events.pop_front();
    const DWORD dwSize = m_dwSize.load(std::memory_order_relaxed) - 1;
    m_dwSize.store(dwSize, std::memory_order_relaxed);
    if (aRemainSize != nullptr) {
        *aRemainSize = dwSize;
    }
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessEvents(const std::list<ICmEvent*>& aEvents) {
    CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
    for (ICmEvent* pEvent : aEvents) {
        tvStart = RunAndEnd_i(pEvent, tvStart);
    }
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessOneEvent(ICmEvent* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    RunAndEnd_i(aEvent, CCmTimeValue::GetTimeOfDay());
    return CM_OK;
}

// Returns when the next event of a list starts: when this one ended.
CCmTimeValue CCmEventQueueBase::RunAndEnd_i(ICmEvent* aEvent, const CCmTimeValue& aStart) {
    CM_ASSERTE_RETURN(aEvent, aStart);
    FireAndEnd(aEvent);
    const CCmTimeValue tvEnd = CCmTimeValue::GetTimeOfDay();
    const CCmTimeValue tvElapsed = tvEnd - aStart;
    if (CM_UNLIKELY(tvElapsed > s_tvReportInterval)) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::ProcessOneEvent, report, sec="
                              << tvElapsed.GetSec() << " usec=" << tvElapsed.GetUsec()
                              << " aEvent=" << CmTraceAddress(aEvent)
                              << " m_dwSize=" << m_dwSize.load(std::memory_order_relaxed));
        return CCmTimeValue::GetTimeOfDay();  // the next event does not pay for the line
    }
    return tvEnd;
}

void CCmEventQueueBase::DestoryPendingEvents() {
    std::list<ICmEvent*> events;
    events.swap(m_Events);
    DestoryEvents_i(events);
}

void CCmEventQueueBase::DestoryEvents_i(std::list<ICmEvent*>& aEvents) {
    CUnwindRest unwindRest(aEvents);
    EndEach(aEvents);
}

void CCmEventQueueBase::BindToCurrentThread() {
    m_Tid.store(pthread_self(), std::memory_order_relaxed);
}

void CCmEventQueueBase::SetStopped() {
    m_bIsStopped.store(true, std::memory_order_relaxed);
}

void CCmEventQueueBase::WaitForSenders_i() {
    // Acquire: behind all that the senders did with this queue.
    while (m_lBusySenders.load(std::memory_order_acquire) != 0) {
        const timespec tsNap = {0, SENDERS_NAP_NSEC};
        g_cmSystem.nanosleep(&tsNap, nullptr);
    }
}

// Lets go of the wrapper for a sender whose thread is cancelled while it waits.
class CCmEventSynchronous::CSenderEnd {
  public:
    explicit CSenderEnd(CCmEventSynchronous& aWrapper) : m_pWrapper(&aWrapper) {}
    ~CSenderEnd() {
        if (m_pWrapper != nullptr) {
            m_pWrapper->Abandon_i();
        }
    }
    CSenderEnd(const CSenderEnd&) = delete;
    CSenderEnd& operator=(const CSenderEnd&) = delete;

    void Release() { m_pWrapper = nullptr; }

  private:
    CCmEventSynchronous* m_pWrapper;
};

CCmEventSynchronous::CCmEventSynchronous(ICmEvent* aEvent, CCmEventQueueBase* aQueue)
    : m_pEvent(aEvent),
      m_Result(CM_ERROR_NOT_AVAILABLE),
      m_pEventQueue(aQueue),
      m_bHasDestoryed(false),
      m_nOutcome(OUTCOME_NONE),
      m_bHoldsQueue(false) {}

CCmEventSynchronous::~CCmEventSynchronous() {
    EndEvent_i();
    if (!m_bHasDestoryed.load(std::memory_order_relaxed)) {
        Wake_i();
    }
}

CmResult CCmEventSynchronous::OnEventFire() {
    // A sender that gave up has let go, too; its event still runs.
    if (m_bHasDestoryed.load(std::memory_order_acquire) &&
        m_nOutcome.load(std::memory_order_relaxed) != OUTCOME_ABANDONED) {
        return CM_OK;
    }
    ICmEvent* pEvent = m_pEvent.load(std::memory_order_relaxed);
    const CmResult rv = pEvent != nullptr ? pEvent->OnEventFire() : CM_ERROR_NULL_POINTER;
    m_Result = rv;
    HoldQueue_i();
    // Release: the sender that reads the outcome reads the result behind it.
    if (m_nOutcome.exchange(OUTCOME_FIRED, std::memory_order_acq_rel) == OUTCOME_ABANDONED) {
        ReleaseQueue_i();
    }
    Wake_i();
    return rv;
}

void CCmEventSynchronous::OnDestorySelf() {
    EndEvent_i();
    int nOutcome = OUTCOME_NONE;
    if (m_nOutcome.compare_exchange_strong(nOutcome, OUTCOME_DISCARDED,
                                           std::memory_order_acq_rel)) {
        Wake_i();
    }
    LetGo_i();
}

CmResult CCmEventSynchronous::WaitResultAndDeleteThis() {
    CSenderEnd senderEnd(*this);
    while (m_nOutcome.load(std::memory_order_acquire) == OUTCOME_NONE) {
        const CmResult rvWait = m_SendEvent.Wait(nullptr);
        if (CM_FAILED(rvWait)) {
            CM_WARNING_TRACE_THIS(
                "CCmEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!");
            return rvWait;
        }
    }
    senderEnd.Release();
    const CmResult rv = m_Result;
    // Discarded: the queue may be gone.
    if (m_nOutcome.load(std::memory_order_relaxed) == OUTCOME_DISCARDED ||
        m_pEventQueue == nullptr) {
        LetGo_i();
        return rv;
    }
    CBusyEnd busyEnd(m_bHoldsQueue ? &m_pEventQueue->m_lBusySenders : nullptr);
    m_pEventQueue->PostEvent(this, ICmEventQueue::EPRIORITY_NORMAL);  // may free this at once
    return rv;
}

// The first end to come leaves the wrapper to the other one.
void CCmEventSynchronous::LetGo_i() {
    if (m_bHasDestoryed.exchange(true, std::memory_order_acq_rel)) {
        delete this;
    }
}

void CCmEventSynchronous::Abandon_i() {
    if (m_nOutcome.exchange(OUTCOME_ABANDONED, std::memory_order_acq_rel) == OUTCOME_FIRED) {
        ReleaseQueue_i();
    }
    LetGo_i();
}

void CCmEventSynchronous::EndEvent_i() {
    ICmEvent* pEvent = m_pEvent.exchange(nullptr, std::memory_order_acq_rel);
    if (pEvent != nullptr) {
        pEvent->OnDestorySelf();
    }
}

void CCmEventSynchronous::Wake_i() {
    for (int i = 0; i < WAKE_TRIES && CM_FAILED(m_SendEvent.SignalBehindLock_i()); ++i) {
    }
}

// From the firing until its sender has posted the wrapper back, the queue must not go.
void CCmEventSynchronous::HoldQueue_i() {
    if (m_bHoldsQueue) {
        m_pEventQueue->m_lBusySenders.fetch_add(1, std::memory_order_relaxed);
    }
}

void CCmEventSynchronous::ReleaseQueue_i() {
    if (m_bHoldsQueue) {
        m_pEventQueue->m_lBusySenders.fetch_sub(1, std::memory_order_release);
    }
}

CCmEventQueueUsingMutex::CCmEventQueueUsingMutex() = default;

CCmEventQueueUsingMutex::~CCmEventQueueUsingMutex() {
    WaitForSenders_i();
}

CmResult CCmEventQueueUsingMutex::PostEvent(ICmEvent* aEvent, EPriority aPri) {
    return PostEventWithOldSize(aEvent, aPri, nullptr);
}

CmResult CCmEventQueueUsingMutex::PostEventWithOldSize(ICmEvent* aEvent, EPriority /*aPri*/,
                                                       DWORD* aOldSize) {
    CPosting posting(aEvent);
    CmResult rv = aEvent != nullptr ? Prepare_i(posting, true) : CM_ERROR_INVALID_ARG;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (aOldSize != nullptr) {
            *aOldSize = m_dwSize.load(std::memory_order_relaxed);
        }
        if (CM_SUCCEEDED(rv)) {
            rv = Append_l(posting, posting.m_Node);
        }
    }
    CM_ASSERTE_RETURN(aEvent, rv);
    Conclude_i(posting, rv);
    return rv;
}

CmResult CCmEventQueueUsingMutex::PopPendingEventsLocked(std::list<ICmEvent*>& aEvents,
                                                         DWORD aMaxCount, DWORD* aRemainSize) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return PopPendingEvents(aEvents, aMaxCount, aRemainSize);
}

void CCmEventQueueUsingMutex::DestoryPendingEvents() {
    std::list<ICmEvent*> events;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        events.swap(m_Events);
    }
    DestoryEvents_i(events);
}

void CCmEventQueueUsingMutex::ProcessTakenEvents(std::list<ICmEvent*>& aEvents) {
    CUnwindRest unwindRest(aEvents);
    CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
    while (!aEvents.empty()) {
        ICmEvent* pEvent = aEvents.front();
        aEvents.pop_front();
        tvStart = RunAndEnd_i(pEvent, tvStart);
    }
}

// Counts the consumer as waiting, also when it is cancelled there; to be destroyed under the lock.
class CCmEventQueueUsingConditionVariable::CWaiting {
  public:
    explicit CWaiting(CCmEventQueueUsingConditionVariable& aQueue) CM_REQUIRES(aQueue.m_Mutex)
        : m_Queue(aQueue) {
        ++m_Queue.m_dwWaiters;
    }
    ~CWaiting() CM_NO_THREAD_SAFETY_ANALYSIS {
        --m_Queue.m_dwWaiters;
        if (m_Queue.m_dwSignalled > 0) {
            --m_Queue.m_dwSignalled;
        }
    }
    CWaiting(const CWaiting&) = delete;
    CWaiting& operator=(const CWaiting&) = delete;

  private:
    CCmEventQueueUsingConditionVariable& m_Queue;
};

// Puts back what a cancelled consumer has taken out and not started.
class CCmEventQueueUsingConditionVariable::CUnstarted {
  public:
    CUnstarted(CCmEventQueueUsingConditionVariable& aQueue, std::list<ICmEvent*>& aEvents,
               const std::atomic<bool>* aStop)
        : m_Queue(aQueue), m_Events(aEvents), m_itNext(aEvents.begin()), m_pStop(aStop) {}
    ~CUnstarted() {
        if (m_itNext != m_Events.end()) {
            m_Events.erase(m_Events.begin(), m_itNext);
            m_Queue.PutBack_i(m_Events);
        }
    }
    CUnstarted(const CUnstarted&) = delete;
    CUnstarted& operator=(const CUnstarted&) = delete;

    // Null after the last one, or when the rest is not to run.
    ICmEvent* TakeNext() {
        const bool bStop = m_pStop != nullptr && m_pStop->load(std::memory_order_relaxed);
        return m_itNext != m_Events.end() && !bStop ? *m_itNext++ : nullptr;
    }

  private:
    CCmEventQueueUsingConditionVariable& m_Queue;
    std::list<ICmEvent*>& m_Events;
    std::list<ICmEvent*>::iterator m_itNext;
    const std::atomic<bool>* m_pStop;  // may be null
};

CCmEventQueueUsingConditionVariable::CCmEventQueueUsingConditionVariable()
    : m_Condition(m_Mutex), m_dwWaiters(0), m_dwSignalled(0), m_dwSpares(0) {}

CCmEventQueueUsingConditionVariable::~CCmEventQueueUsingConditionVariable() {
    WaitForSenders_i();
}

CmResult CCmEventQueueUsingConditionVariable::PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    CPosting posting(aEvent);
    bool bWake = false;
    CmResult rv = Prepare_i(posting, m_dwSpares.load(std::memory_order_relaxed) == 0);
    if (CM_SUCCEEDED(rv)) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        rv = AppendToList_l(posting);
        if (CM_SUCCEEDED(rv) && m_dwWaiters > m_dwSignalled) {
            ++m_dwSignalled;
            bWake = true;
        }
    }
    if (bWake) {
        Wake_i();
    }
    Conclude_i(posting, rv);
    return rv;
}

CmResult CCmEventQueueUsingConditionVariable::AppendToList_l(CPosting& aPosting) {
    if (!aPosting.m_Node.empty()) {
        return Append_l(aPosting, aPosting.m_Node);
    }
    // Empty: other posters took the last spare node since this one had a look.
    if (m_Spares.empty() && CM_FAILED(AddNode(m_Spares, nullptr))) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rv = Append_l(aPosting, m_Spares);
    m_dwSpares.store(static_cast<DWORD>(m_Spares.size()), std::memory_order_relaxed);
    return rv;
}

void CCmEventQueueUsingConditionVariable::Wake_i() {
    for (int i = 0; i < WAKE_TRIES; ++i) {
        if (CM_SUCCEEDED(m_Condition.Signal())) {
            return;
        }
    }
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_dwSignalled = 0;  // the next post tries again
}

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<ICmEvent*>& aEvents,
                                                                     CCmTimeValue* aTimeout,
                                                                     DWORD aMaxCount) {
    // Before it sleeps, others get the core: what they post meanwhile wakes nobody.
    if (aTimeout == nullptr && m_dwSize.load(std::memory_order_relaxed) == 0) {
        g_cmSystem.sched_yield();
    }
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    TakeSpent_l();
    // A wait without the lock would leave it taken.
    if (m_Events.empty() && CM_SUCCEEDED(lock.result())) {
        Wait_l(aTimeout);
    }
    return PopPendingEvents(aEvents, aMaxCount, nullptr);
}

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitUntil_i(std::list<ICmEvent*>& aEvents,
                                                               const long long* aDeadlineNsec,
                                                               DWORD aMaxCount) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    TakeSpent_l();
    if (m_Events.empty() && CM_SUCCEEDED(lock.result())) {
        WaitUntil_l(aDeadlineNsec);
    }
    return PopPendingEvents(aEvents, aMaxCount, nullptr);
}

void CCmEventQueueUsingConditionVariable::TakeSpent_l() {
    if (!m_Spent.empty()) {
        m_Spares.splice(m_Spares.end(), m_Spent);
        m_dwSpares.store(static_cast<DWORD>(m_Spares.size()), std::memory_order_relaxed);
    }
}

void CCmEventQueueUsingConditionVariable::WaitUntil_l(const long long* aDeadlineNsec) {
    if (aDeadlineNsec == nullptr) {
        Wait_l(nullptr);
        return;
    }
    CWaiting waiting(*this);
    m_Condition.WaitUntil_i(*aDeadlineNsec);
}

void CCmEventQueueUsingConditionVariable::Wait_l(CCmTimeValue* aTimeout) {
    CWaiting waiting(*this);
    const CmResult rv = m_Condition.Wait(aTimeout);
    if (CM_FAILED(rv) && rv != CM_ERROR_TIMEOUT) {
        // The text says something else than what happened.
        CM_ERROR_TRACE_THIS(
            "CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not empty. "
            "nSize="
            << m_dwSize.load(std::memory_order_relaxed) << " rv=" << rv);
    }
}

void CCmEventQueueUsingConditionVariable::ProcessAndRecycleEvents(std::list<ICmEvent*>& aEvents) {
    ProcessUntilStopped_i(aEvents, nullptr);
}

void CCmEventQueueUsingConditionVariable::ProcessUntilStopped_i(std::list<ICmEvent*>& aEvents,
                                                                const std::atomic<bool>* aStop) {
    {
        CUnstarted unstarted(*this, aEvents, aStop);
        CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
        while (ICmEvent* pEvent = unstarted.TakeNext()) {
            tvStart = RunAndEnd_i(pEvent, tvStart);
        }
    }
    const size_t nKept = std::clamp(aEvents.size(), SPARES_AT_LEAST, SPARES_AT_MOST);
    m_Spent.splice(m_Spent.end(), aEvents);
    while (!m_Spent.empty() &&
           m_Spent.size() + m_dwSpares.load(std::memory_order_relaxed) > nKept) {
        m_Spent.pop_front();
    }
}

void CCmEventQueueUsingConditionVariable::PutBack_i(std::list<ICmEvent*>& aEvents) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    m_dwSize.fetch_add(static_cast<DWORD>(aEvents.size()), std::memory_order_relaxed);
    m_Events.splice(m_Events.begin(), aEvents);
}

void CCmEventQueueUsingConditionVariable::DestoryPendingEvents() {
    std::list<ICmEvent*> events;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        events.swap(m_Events);
    }
    DestoryEvents_i(events);
}

void CCmEventQueueUsingConditionVariable::StopAndDestoryPendingEvents() {
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        SetStopped();
    }
    DestoryPendingEvents();
}

}  // namespace UTIL_NS
