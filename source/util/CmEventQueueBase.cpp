#include "CmEventQueueBase.h"

#include <algorithm>
#include <new>

#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr CCmTimeValue WATCH_INTERVAL(3);  // between two looks at the size
constexpr CCmTimeValue WATCH_PAUSE = WATCH_INTERVAL - CCmTimeValue(0, CM_PORT_COARSE_USEC);
constexpr DWORD LONG_QUEUE_SIZE = 101;        // reported from here on
constexpr size_t SPARES_AT_LEAST = 256;       // list nodes that a queue may keep
constexpr size_t SPARES_AT_MOST = 16384;      // even if its last pass took more
constexpr DWORD NO_WAIT = 0;                  // no wait has this number
constexpr long SENDERS_NAP_NSEC = 50 * 1000;  // between two looks for busy senders

// Release: whoever finds no busy sender left comes after all that this one did.
void CountOut(std::atomic<long>& aBusySenders) {
    aBusySenders.fetch_sub(1, std::memory_order_release);
}

void EndEach(std::list<ICmEvent*>& aEvents) {
    while (!aEvents.empty()) {
        ICmEvent* pEvent = aEvents.front();
        aEvents.pop_front();
        pEvent->OnDestorySelf();
    }
}

CmResult FireAndEnd(ICmEvent* aEvent) {
    CCmCleanUpT end([aEvent] { aEvent->OnDestorySelf(); });
    const CmResult rv = aEvent->OnEventFire();
    end.Execute();
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

// Runs events one after the other. Each starts when the one before it has ended.
class CCmEventQueueBase::CPass {
  public:
    explicit CPass(CCmEventQueueBase& aQueue) : CPass(aQueue, CCmTimeValue::GetTimeOfDay()) {}
    CPass(CCmEventQueueBase& aQueue, const CCmTimeValue& aStart)
        : m_Queue(aQueue), m_pFiring(nullptr), m_tvStart(aStart) {}
    CPass(const CPass&) = delete;
    CPass& operator=(const CPass&) = delete;

    void RunAndEnd(ICmEvent* aEvent) {
        CM_ASSERTE_RETURN(aEvent, void());
        m_pFiring = aEvent;
        aEvent->OnEventFire();
        m_pFiring = nullptr;
        aEvent->OnDestorySelf();
        const CCmTimeValue tvEnd = CCmTimeValue::GetTimeOfDay();
        const CCmTimeValue tvElapsed = tvEnd - m_tvStart;
        m_tvStart = tvEnd;
        if (CM_UNLIKELY(tvElapsed > s_tvReportInterval)) {
            Report(aEvent, tvElapsed);
            m_tvStart = CCmTimeValue::GetTimeOfDay();  // the next event does not pay for the line
        }
    }
    // For the clean-up of a thread that is cancelled: the event that was firing ends.
    void EndFiring() {
        if (m_pFiring != nullptr) {
            m_pFiring->OnDestorySelf();
        }
    }
    const CCmTimeValue& start() const { return m_tvStart; }

  private:
    void Report(ICmEvent* aEvent, const CCmTimeValue& aElapsed) const {
        CM_WARNING_TRACE("CCmEventQueueBase::ProcessOneEvent, report, sec="
                         << aElapsed.GetSec() << " usec=" << aElapsed.GetUsec()
                         << " aEvent=" << CmTraceAddress(aEvent)
                         << " m_dwSize=" << m_Queue.m_dwSize.load(std::memory_order_relaxed)
                         << " this=" << CmTraceAddress(&m_Queue));
    }

    CCmEventQueueBase& m_Queue;
    ICmEvent* m_pFiring;
    CCmTimeValue m_tvStart;
};

CCmEventQueueBase::CCmEventQueueBase()
    : m_dwSize(0),
      m_tvLastReport(CCmTimeValue::GetTimeOfDay()),
      m_Tid(pthread_t()),
      m_bIsStopped(false),
      m_lBusySenders(0) {}

CCmEventQueueBase::~CCmEventQueueBase() {
    CCmDisableCancel disableCancel;
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
    aPosting.m_Node.clear();  // the thread may be cancelled in what follows
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
    m_lBusySenders.fetch_add(1, std::memory_order_relaxed);
    CCmCleanUpT giveUp([this, pSynchronous] {
        pSynchronous->Abandon_i();
        CountOut(m_lBusySenders);
    });
    const CmResult rv = PostEvent(pSynchronous, EPRIORITY_NORMAL);
    giveUp.Release();
    CountOut(m_lBusySenders);
    if (CM_FAILED(rv)) {
        pSynchronous->LetGo_i();  // after the queue, which has ended the event
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
    CPass pass(*this);
    CCmCleanUpT endFiring([&pass] { pass.EndFiring(); });
    for (ICmEvent* pEvent : aEvents) {
        pass.RunAndEnd(pEvent);
    }
    endFiring.Release();
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessOneEvent(ICmEvent* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    RunAndEnd_i(aEvent, CCmTimeValue::GetTimeOfDay());
    return CM_OK;
}

CCmTimeValue CCmEventQueueBase::RunAndEnd_i(ICmEvent* aEvent, const CCmTimeValue& aStart) {
    CPass pass(*this, aStart);
    CCmCleanUpT endFiring([&pass] { pass.EndFiring(); });
    pass.RunAndEnd(aEvent);
    endFiring.Release();
    return pass.start();
}

void CCmEventQueueBase::DestoryPendingEvents() {
    std::list<ICmEvent*> events;
    events.swap(m_Events);
    DestoryEvents_i(events);
}

void CCmEventQueueBase::DestoryEvents_i(std::list<ICmEvent*>& aEvents) {
    CCmCleanUpT endRest([&aEvents] { EndEach(aEvents); });
    EndEach(aEvents);
    endRest.Release();
}

void CCmEventQueueBase::BindToCurrentThread() {
    m_Tid.store(pthread_self(), std::memory_order_relaxed);
}

void CCmEventQueueBase::SetStopped() {
    m_bIsStopped.store(true, std::memory_order_relaxed);
}

void CCmEventQueueBase::WaitForSenders_i() {
    CCmDisableCancel disableCancel;  // for destructors
    // Acquire: after all that the senders did with this queue.
    while (m_lBusySenders.load(std::memory_order_acquire) != 0) {
        const timespec tsNap = {0, SENDERS_NAP_NSEC};
        g_cmSystem.nanosleep(&tsNap, nullptr);
    }
}

CCmEventSynchronous::CCmEventSynchronous(ICmEvent* aEvent, CCmEventQueueBase* aQueue)
    : m_pEvent(aEvent),
      m_Result(CM_ERROR_NOT_AVAILABLE),
      m_pEventQueue(aQueue),
      m_bHasDestoryed(false),
      m_nOutcome(OUTCOME_NONE),
      m_bHoldsQueue(false),
      m_bFiredElsewhere(false) {}

CCmEventSynchronous::~CCmEventSynchronous() {
    if (m_pEvent.load(std::memory_order_relaxed) != nullptr) {
        CCmDisableCancel disableCancel;
        EndEvent_i();
    }
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
    m_bFiredElsewhere = !IsEqualCurrentThread(m_CreatorTid);
    HoldQueue_i();
    // Release: the sender that reads the outcome reads the result after it.
    if (m_nOutcome.exchange(OUTCOME_FIRED, std::memory_order_acq_rel) == OUTCOME_ABANDONED) {
        ReleaseQueue_i();
    }
    Wake_i();
    return rv;
}

void CCmEventSynchronous::OnDestorySelf() {
    CCmCleanUpT conclude([this] {
        int nOutcome = OUTCOME_NONE;
        if (m_nOutcome.compare_exchange_strong(nOutcome, OUTCOME_DISCARDED,
                                               std::memory_order_acq_rel)) {
            Wake_i();
        }
        LetGo_i();
    });
    // An event that has fired ends where it fired. The sender, whose return post is refused, comes
    // here as well, perhaps before the thread that fired does.
    if (!m_bFiredElsewhere || !IsEqualCurrentThread(m_CreatorTid)) {
        EndEvent_i();
    }
    conclude.Execute();
}

CmResult CCmEventSynchronous::WaitResultAndDeleteThis() {
    CCmCleanUpT abandon([this] { Abandon_i(); });
    while (m_nOutcome.load(std::memory_order_acquire) == OUTCOME_NONE) {
        const CmResult rvWait = m_SendEvent.Wait(nullptr);
        if (CM_FAILED(rvWait)) {
            CM_WARNING_TRACE_THIS(
                "CCmEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!");
            abandon.Execute();
            return rvWait;
        }
    }
    abandon.Release();
    const CmResult rv = m_Result;
    // Discarded: the queue may be gone.
    if (m_nOutcome.load(std::memory_order_relaxed) == OUTCOME_DISCARDED ||
        m_pEventQueue == nullptr) {
        LetGo_i();
        return rv;
    }
    std::atomic<long>* const pBusySenders =
        m_bHoldsQueue ? &m_pEventQueue->m_lBusySenders : nullptr;
    CCmCleanUpT countOut([pBusySenders] {
        if (pBusySenders != nullptr) {
            CountOut(*pBusySenders);
        }
    });
    m_pEventQueue->PostEvent(this, ICmEventQueue::EPRIORITY_NORMAL);  // may free this at once
    countOut.Execute();
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
    CCmConditionSteps::SignalAfterUnlock(m_SendEvent);
}

// From the firing until its sender has posted the wrapper back, the queue must not go.
void CCmEventSynchronous::HoldQueue_i() {
    if (m_bHoldsQueue) {
        m_pEventQueue->m_lBusySenders.fetch_add(1, std::memory_order_relaxed);
    }
}

void CCmEventSynchronous::ReleaseQueue_i() {
    if (m_bHoldsQueue) {
        CountOut(m_pEventQueue->m_lBusySenders);
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
    CPass pass(*this);
    CCmCleanUpT endAll([&pass, &aEvents] {
        pass.EndFiring();
        EndEach(aEvents);
    });
    while (!aEvents.empty()) {
        ICmEvent* pEvent = aEvents.front();
        aEvents.pop_front();
        pass.RunAndEnd(pEvent);
    }
    endAll.Release();
}

// A consumer inside the wait. Waits are numbered, so that posters tell the signals of this one from
// late signals of another.
class CCmEventQueueUsingConditionVariable::CWaiting {
  public:
    explicit CWaiting(CCmEventQueueUsingConditionVariable& aQueue) CM_REQUIRES(aQueue.m_Mutex)
        : m_Queue(aQueue) {
        ++m_Queue.m_dwWaiters;
        Renumber_l();
    }
    CWaiting(const CWaiting&) = delete;
    CWaiting& operator=(const CWaiting&) = delete;

    // Once, under the lock.
    void Leave_l() CM_NO_THREAD_SAFETY_ANALYSIS {
        if (--m_Queue.m_dwWaiters > 0) {
            Renumber_l();  // which of the consumers the last signal woke is not known
        }
    }
    // The wait that a post has to signal, or NO_WAIT. Only a signal that has been given counts:
    // whoever is about to give one may not get on for long. Acquire: that signal came before.
    static DWORD ToSignal_l(const CCmEventQueueUsingConditionVariable& aQueue)
        CM_REQUIRES(aQueue.m_Mutex) {
        const bool bIsSignalled =
            aQueue.m_dwWaiters == 1 &&
            aQueue.m_dwSignalled.load(std::memory_order_acquire) == aQueue.m_dwWait;
        return aQueue.m_dwWaiters == 0 || bIsSignalled ? NO_WAIT : aQueue.m_dwWait;
    }
    // Takes at most aMaxCount events; while nothing is pending, aWait waits once before that, under
    // the lock. A thread that is cancelled in it leaves the queue as it was.
    template <class WaitType>
    static CmResult PopOrWait(CCmEventQueueUsingConditionVariable& aQueue,
                              std::list<ICmEvent*>& aEvents, DWORD aMaxCount, WaitType aWait) {
        CCmScopedLockT<CCmMutexThread> lock(aQueue.m_Mutex);
        if (!aQueue.m_Spent.empty()) {
            aQueue.m_Spares.splice(aQueue.m_Spares.end(), aQueue.m_Spent);
            aQueue.m_dwSpares.store(static_cast<DWORD>(aQueue.m_Spares.size()),
                                    std::memory_order_relaxed);
        }
        // A wait without the lock would leave it taken.
        if (aQueue.m_Events.empty() && CM_SUCCEEDED(lock.result())) {
            CWaiting waiting(aQueue);
            CCmCleanUpT cleanUp([&waiting, &lock]() CM_NO_THREAD_SAFETY_ANALYSIS {
                waiting.Leave_l();
                lock.Unlock();
            });
            aWait();
            cleanUp.Release();
            waiting.Leave_l();
        }
        return aQueue.PopPendingEvents(aEvents, aMaxCount, nullptr);
    }
    // A signal that fails for good is left to the next post.
    static void Signal(CCmEventQueueUsingConditionVariable& aQueue, DWORD aWait) {
        int nError = 0;
        if (CCmConditionSteps::SignalSurely(aQueue.m_Condition, nError)) {
            aQueue.m_dwSignalled.store(aWait, std::memory_order_release);
        }
        CCmConditionSteps::SignalResult(aQueue.m_Condition, nError);
    }

  private:
    void Renumber_l() CM_NO_THREAD_SAFETY_ANALYSIS {
        if (++m_Queue.m_dwWait == NO_WAIT) {
            ++m_Queue.m_dwWait;
        }
        m_Queue.m_dwSignalled.store(NO_WAIT, std::memory_order_relaxed);
    }

    CCmEventQueueUsingConditionVariable& m_Queue;
};

CCmEventQueueUsingConditionVariable::CCmEventQueueUsingConditionVariable()
    : m_Condition(m_Mutex), m_dwWaiters(0), m_dwSignalled(0), m_dwSpares(0), m_dwWait(0) {}

CCmEventQueueUsingConditionVariable::~CCmEventQueueUsingConditionVariable() {
    WaitForSenders_i();
}

CmResult CCmEventQueueUsingConditionVariable::PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    CPosting posting(aEvent);
    DWORD dwWait = NO_WAIT;
    CmResult rv = Prepare_i(posting, m_dwSpares.load(std::memory_order_relaxed) == 0);
    if (CM_SUCCEEDED(rv)) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        rv = AppendToList_l(posting);
        if (CM_SUCCEEDED(rv)) {
            dwWait = CWaiting::ToSignal_l(*this);
        }
    }
    if (dwWait != NO_WAIT) {
        CWaiting::Signal(*this, dwWait);
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

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<ICmEvent*>& aEvents,
                                                                     CCmTimeValue* aTimeout,
                                                                     DWORD aMaxCount) {
    int nError = 0;
    DWORD dwSize = 0;
    const CmResult rv = CWaiting::PopOrWait(*this, aEvents, aMaxCount, [&] {
        nError = CCmConditionSteps::WaitCall(m_Condition, aTimeout);
        dwSize = m_dwSize.load(std::memory_order_relaxed);
    });
    const CmResult rvWait = CCmConditionSteps::WaitResult(m_Condition, aTimeout, nError);
    if (CM_FAILED(rvWait) && rvWait != CM_ERROR_TIMEOUT) {
        // The text says something else than what happened.
        CM_ERROR_TRACE_THIS(
            "CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not empty. "
            "nSize="
            << dwSize << " rv=" << rvWait);
    }
    return rv;
}

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitUntil_i(std::list<ICmEvent*>& aEvents,
                                                               const long long* aDeadlineNsec,
                                                               DWORD aMaxCount) {
    if (aDeadlineNsec == nullptr) {
        return PopOrWaitPendingEvents(aEvents, nullptr, aMaxCount);
    }
    int nError = 0;
    const CmResult rv = CWaiting::PopOrWait(*this, aEvents, aMaxCount, [&] {
        nError = CCmConditionSteps::WaitUntilCall(m_Condition, *aDeadlineNsec);
    });
    CCmConditionSteps::WaitUntilResult(m_Condition, *aDeadlineNsec, nError);
    return rv;
}

void CCmEventQueueUsingConditionVariable::ProcessAndRecycleEvents(std::list<ICmEvent*>& aEvents) {
    ProcessUntilStopped_i(aEvents, nullptr);
}

void CCmEventQueueUsingConditionVariable::ProcessUntilStopped_i(std::list<ICmEvent*>& aEvents,
                                                                const std::atomic<bool>* aStop) {
    auto itNext = aEvents.begin();
    CPass pass(*this);
    const auto putBackRest = [this, &aEvents, &itNext] {
        std::list<ICmEvent*> rest;
        rest.splice(rest.end(), aEvents, itNext, aEvents.end());
        PutBack_i(rest);
    };
    CCmCleanUpT putBack([&aEvents, &pass, &putBackRest] {
        pass.EndFiring();
        putBackRest();
        aEvents.clear();
    });
    while (itNext != aEvents.end() &&
           (aStop == nullptr || !aStop->load(std::memory_order_relaxed))) {
        ICmEvent* pEvent = *itNext++;
        pass.RunAndEnd(pEvent);
    }
    putBack.Release();
    if (itNext != aEvents.end()) {
        putBackRest();
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

bool CCmEventQueueUsingConditionVariable::IsStoppedAndEmpty() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_bIsStopped.load(std::memory_order_relaxed) && m_Events.empty();
}

}  // namespace UTIL_NS
