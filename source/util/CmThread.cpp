#include "CmThread.h"

#include <algorithm>

#include "CmCancel.h"
#include "CmScopedLock.h"
#include "CmStatics.h"
#include "CmSystem.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

namespace {

constexpr DWORD ALL_EVENTS = 0xFFFFFFFF;
constexpr DWORD EVENTS_PER_PASS = 5;  // of a worker, between two looks at its timers

// How long Create trusts its wait before it looks for itself, and how long it naps when it cannot
// wait.
constexpr long START_LOOK_USEC = 100 * 1000;
constexpr long START_NAP_NSEC = 1000 * 1000;

// Steps of the start-up handshake; STEP_BODY_ENDED comes after them. INIT_ENDED is published by the
// new thread before it signals; of the other two the second one frees the event.
constexpr int STEP_INIT_ENDED = 1;
constexpr int STEP_THREAD_DONE = 2;
constexpr int STEP_CREATOR_DONE = 4;

// Creates aQueue unless an earlier thread of the object did. False when memory ran out.
bool MakeTimerQueue(ICmTimerQueue*& aQueue) {
    if (aQueue == nullptr) {
        aQueue = new (std::nothrow) CCmTimerQueueOrderedList(nullptr);
    }
    return aQueue != nullptr;
}

// Fires what is due and returns how long to wait for the next timer. What the queue stores counts
// from the start of its pass; the handlers have taken time since.
CCmTimeValue FireDueTimers(CCmTimerQueueBase& aQueue) {
    CCmTimeValue tvWait;
    const bool bFired = aQueue.CheckExpire(&tvWait) > 0;
    if (CM_LIKELY(!bFired) || tvWait == CCmTimeValue::s_tvMax) {
        return tvWait;
    }
    const CCmTimeValue tvLeft = aQueue.GetEarliestTime() - CCmTimeValue::GetTimeOfDay();
    // More would be left only by a clock that was set back.
    return std::min(std::max(tvLeft, CCmTimeValue::s_tvZero), tvWait);
}

// Ends what a stopped worker has not run; also when it is cancelled in an event after its stop
// event.
void EndRest(const CCmStopFlag& aFlag, CCmEventQueueUsingConditionVariable& aQueue) {
    if (aFlag.IsFlagStopped()) {
        aQueue.StopAndDestoryPendingEvents();
    }
}

// What one more entry of the registry takes. CM_OK or CM_ERROR_OUT_OF_MEMORY.
CmResult NewEntry(std::list<ACmThread*>& aEntry, ACmThread* aThread) {
    try {
        aEntry.push_back(aThread);
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_OK;
}

void RegisterEntry(std::list<ACmThread*>& aEntry) {
    CmMakeStatics();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    g_threadList.splice(g_threadList.end(), aEntry);
}

}  // namespace

CmResult RegisterThread(ACmThread* aThread) {
    std::list<ACmThread*> entry;
    const CmResult rv = NewEntry(entry, aThread);
    if (CM_SUCCEEDED(rv)) {
        RegisterEntry(entry);
    }
    return rv;
}

CmResult UnRegisterThread(ACmThread* aThread) {
    CmMakeStatics();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    for (auto it = g_threadList.begin(); it != g_threadList.end(); ++it) {
        if (*it == aThread) {
            g_threadList.erase(it);
            return CM_OK;
        }
    }
    return CM_ERROR_NOT_FOUND;
}

ACmThread* getCurrentThread() {
    CmMakeStatics();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    for (ACmThread* pThread : g_threadList) {
        if (IsEqualCurrentThread(pThread->GetThreadId()) && !pThread->HasLeftItsId()) {
            return pThread;
        }
    }
    return nullptr;
}

ACmThread::ACmThread()
    : m_Tid(pthread_t()),
      m_Handle((pthread_t)-1),
      m_Type(TT_UNKNOWN),
      m_Flag(0),
      m_pEvent(nullptr),
      m_bRegistered(false),
      m_bRegister(true),
      m_bStopFlag(false),
      m_nStartSteps(0),
      m_InitResult(CM_OK),
      m_bHasThread(false),
      m_bOneEndCame(false) {}

ACmThread::~ACmThread() {
    CCmDisableCancel disableCancel;
    if (m_bRegister && m_bRegistered) {
        UnRegisterThread(this);
        m_bRegistered = false;
    }
    delete m_pEvent;
}

// Not to be cancelled: whoever creates a thread gets to own it.
CmResult ACmThread::Create(int aType, TFlag aFlag, signed char bRegister) {
    CCmDisableCancel disableCancel;
    CM_INFO_TRACE_THIS("ACmThread::Create, aType=" << aType << " aFlag=" << aFlag
                                                   << " Register=" << static_cast<int>(bRegister));
    CM_ASSERTE_RETURN(m_Type == TT_UNKNOWN, CM_ERROR_ALREADY_INITIALIZED);
    if (aType == TT_UNKNOWN) {
        CM_WARNING_TRACE("thread type is TT_UNKNOWN");
    }
    // A thread that the object had before (its type was unknown) has ended, which is not one of the
    // two ends of the new one. Acquire: after all that a detached one did.
    m_bHasThread = false;
    if (m_bOneEndCame.exchange(false, std::memory_order_acq_rel)) {
        --m_nDestroyRef;
        m_Tid.store(pthread_t(), std::memory_order_relaxed);  // may be another thread's by now
    }
    m_Type = aType;
    m_Flag = aFlag != 0 ? aFlag : TF_JOINABLE;

    // Taken first: once the thread runs, registering it must not fail.
    std::list<ACmThread*> entry;
    if (bRegister != 0 && CM_FAILED(NewEntry(entry, this))) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (m_Type == TT_MAIN) {
        m_nStartSteps.store(0, std::memory_order_relaxed);  // of a thread that it had before
        m_Tid.store(pthread_self(), std::memory_order_relaxed);
    } else {
        const CmResult rv = StartThread_i();
        if (CM_FAILED(rv)) {
            return rv;
        }
    }
    m_bRegister = bRegister != 0;
    if (m_bRegister && !m_bRegistered) {  // registered: created before with an unknown type
        RegisterEntry(entry);
        m_bRegistered = true;
    }
    return CM_OK;
}

CmResult ACmThread::StartThread_i() {
    delete m_pEvent;  // of an attempt that failed
    m_pEvent = new (std::nothrow) CCmEventThread(0, 0);
    if (m_pEvent == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    m_nStartSteps.store(0, std::memory_order_relaxed);
    m_InitResult = CM_OK;
    const CmResult rv = CreateThread_i();
    if (CM_FAILED(rv)) {
        return rv;
    }
    WaitUntilStarted_i();
    if (CM_FAILED(m_InitResult)) {
        Join();
    }
    return m_InitResult;
}

CmResult ACmThread::CreateThread_i() {
    pthread_attr_t attributes;
    int rv = g_cmSystem.pthread_attr_init(&attributes);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS("ACmThread::Create, pthread_attr_init() failed! err=" << rv);
        return CM_ERROR_UNEXPECTED;
    }
    const bool bDetached = (m_Flag & (TF_JOINABLE | TF_DETACHED)) == TF_DETACHED;
    rv = g_cmSystem.pthread_attr_setdetachstate(
        &attributes, bDetached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS("ACmThread::Create, pthread_attr_setdetachstate() failed! err=" << rv);
        g_cmSystem.pthread_attr_destroy(&attributes);
        return CM_ERROR_UNEXPECTED;
    }
    pthread_t tid = pthread_t();
    rv = g_cmSystem.pthread_create(&tid, &attributes, &ACmThread::ThreadProc, this);
    g_cmSystem.pthread_attr_destroy(&attributes);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS("ACmThread::Create, pthread_create() failed! err=" << rv);
        return CM_ERROR_UNEXPECTED;
    }
    m_bHasThread = true;
    m_Tid.store(tid, std::memory_order_relaxed);
    m_Handle.store(tid, std::memory_order_relaxed);
    return CM_OK;
}

void ACmThread::WaitUntilStarted_i() {
    CmResult rvWait = CM_OK;
    // Acquire: behind all that OnThreadInit did.
    while ((m_nStartSteps.load(std::memory_order_acquire) & STEP_INIT_ENDED) == 0) {
        if (CM_SUCCEEDED(rvWait) || rvWait == CM_ERROR_TIMEOUT) {
            CCmTimeValue tvLook(0, START_LOOK_USEC);
            rvWait = m_pEvent->Wait(&tvLook);
        } else {
            const timespec tsNap = {0, START_NAP_NSEC};
            g_cmSystem.nanosleep(&tsNap, nullptr);
        }
    }
    CCmEventThread* pEvent = m_pEvent;
    m_pEvent = nullptr;
    const int nSteps = m_nStartSteps.fetch_or(STEP_CREATOR_DONE, std::memory_order_acq_rel);
    if ((nSteps & STEP_THREAD_DONE) != 0) {
        delete pEvent;
    }
}

void ACmThread::SignalStarted_i(CCmEventThread* aEvent) {
    m_nStartSteps.fetch_or(STEP_INIT_ENDED, std::memory_order_release);
    aEvent->Signal();
    const int nSteps = m_nStartSteps.fetch_or(STEP_THREAD_DONE, std::memory_order_acq_rel);
    if ((nSteps & STEP_CREATOR_DONE) != 0) {
        delete aEvent;
    }
}

// What the two ends of a thread's life wait for.
class ACmThread::CBody {
  public:
    explicit CBody(ACmThread* aThread) : m_pThread(aThread), m_pEvent(aThread->m_pEvent) {}
    CBody(const CBody&) = delete;
    CBody& operator=(const CBody&) = delete;

    void HasStarted() {
        if (m_pEvent != nullptr) {
            m_pThread->SignalStarted_i(m_pEvent);
            m_pEvent = nullptr;
        }
    }
    // The object may be deleted here.
    void HasEnded() {
        CCmDisableCancel disableCancel;
        HasStarted();
        m_pThread->BodyHasEnded_i();
    }

  private:
    ACmThread* m_pThread;
    CCmEventThread* m_pEvent;  // null once it was signalled
};

void* ACmThread::ThreadProc(void* pParam) {
    ACmThread* pThread = static_cast<ACmThread*>(pParam);
    CM_ASSERTE_RETURN(pThread, nullptr);
    // The creator stores the same; either may come first.
    pThread->m_Tid.store(pthread_self(), std::memory_order_relaxed);
    if (pThread->m_Type != TT_MAIN) {
        pThread->m_Handle.store(pthread_self(), std::memory_order_relaxed);
    }

    CBody body(pThread);
    CCmCleanUpT hasEnded([&body] { body.HasEnded(); });
    pThread->OnThreadInit();
    const bool bInitialized = CM_SUCCEEDED(pThread->m_InitResult);
    body.HasStarted();
    if (bInitialized) {
        pThread->OnThreadRun();
    }
    pThread->SetStop();
    hasEnded.Execute();
    return nullptr;
}

void ACmThread::BodyHasEnded_i() {
    if (m_Type != TT_MAIN) {
        m_nStartSteps.fetch_or(STEP_BODY_ENDED, std::memory_order_relaxed);
    }
    if (!IsJoinable() && IsSecondEnd_i()) {
        delete this;
    }
}

// The exchange orders what the first end did before the deletion by the second. No mutex of the
// process: a detached thread may end while the process exits.
bool ACmThread::IsSecondEnd_i() {
    ++m_nDestroyRef;
    return m_bOneEndCame.exchange(true, std::memory_order_acq_rel);
}

CmResult ACmThread::Join() {
    const pthread_t tid = m_Tid.load(std::memory_order_relaxed);
    if (IsEqualCurrentThread(tid)) {
        return CM_ERROR_FAILURE;
    }
    if (tid == pthread_t() || !IsJoinable()) {
        return CM_OK;
    }
    const int rv = g_cmSystem.pthread_join(tid, nullptr);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS("ACmThread::Join, pthread_join() failed! err=" << rv);
        return CM_ERROR_FAILURE;
    }
    m_Tid.store(pthread_t(), std::memory_order_relaxed);
    return CM_OK;
}

CmResult ACmThread::Destory(int aReason) {
    CM_INFO_TRACE_THIS("ACmThread::Destory, aReason=" << aReason);
    if (m_bRegistered) {
        UnRegisterThread(this);
        m_bRegistered = false;
    }
    CCmDisableCancel disableCancel;
    // Where no thread ever ran there is no second end.
    if (IsJoinable() || !m_bHasThread || IsSecondEnd_i()) {
        delete this;
    }
    return CM_OK;
}

CmResult ACmThread::Terminate() {
    if (m_Type == TT_MAIN) {
        m_bStopFlag.store(true, std::memory_order_relaxed);
        return CM_ERROR_FAILURE;
    }
    const pthread_t tid = m_Tid.load(std::memory_order_relaxed);
    const bool bIsGone = m_bHasThread && !IsJoinable() && m_nDestroyRef.value() > 0;
    if (tid == pthread_t() || bIsGone) {
        return CM_ERROR_FAILURE;
    }
    const int rv = g_cmSystem.pthread_cancel(tid);
    m_bStopFlag.store(true, std::memory_order_relaxed);
    return rv;
}

CmResult ACmThread::Stop(CCmTimeValue* /*aTimeout*/) {
    return CM_ERROR_NOT_IMPLEMENTED;
}

void ACmThread::OnThreadInit() {}

void* ACmThread::GetReactor() {
    return nullptr;
}

ICmEventQueue* ACmThread::GetEventQueue() {
    return nullptr;
}

ICmTimerQueue* ACmThread::GetTimerQueue() {
    return nullptr;
}

void ACmThread::SetStop() {
    m_bStopFlag.store(true, std::memory_order_relaxed);
}

bool ACmThread::GetStopFlag() {
    return m_bStopFlag.load(std::memory_order_relaxed);
}

template class CCmEventStopT<CCmThreadTaskWithEventQueueOnly>;

CCmThreadTaskWithEventQueueOnly::CCmThreadTaskWithEventQueueOnly() {
    SetStopFlag();
}

CCmThreadTaskWithEventQueueOnly::~CCmThreadTaskWithEventQueueOnly() = default;

CmResult CCmThreadTaskWithEventQueueOnly::Stop(CCmTimeValue* /*aTimeout*/) {
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::Stop");
    const CmResult rv = CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(this);
    if (rv != CM_ERROR_OUT_OF_MEMORY) {
        m_EventQueue.SetStopped();
    }
    return rv;
}

void CCmThreadTaskWithEventQueueOnly::OnThreadInit() {
    m_EventQueue.BindToCurrentThread();
    Reset2CurrentThreadId();
    // An earlier thread of this object has run the stop event; no other can be posted.
    if (m_EventQueue.IsStoppedAndEmpty()) {
        SetInitResult(CM_ERROR_NOT_INITIALIZED);
        return;
    }
    SetStartFlag();
}

void CCmThreadTaskWithEventQueueOnly::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::OnThreadRun");
    CCmCleanUpT endRest([this] { EndRest(*this, m_EventQueue); });
    while (!IsFlagStopped()) {
        RunEvents_i(nullptr, ALL_EVENTS);
    }
    endRest.Execute();
}

void CCmThreadTaskWithEventQueueOnly::RunEvents_i(CCmTimeValue* aTimeout, DWORD aMaxCount) {
    std::list<ICmEvent*> events;
    if (CM_SUCCEEDED(m_EventQueue.PopOrWaitPendingEvents(events, aTimeout, aMaxCount))) {
        m_EventQueue.ProcessAndRecycleEvents(events);
    }
}

ICmEventQueue* CCmThreadTaskWithEventQueueOnly::GetEventQueue() {
    return &m_EventQueue;
}

CCmThreadTask::CCmThreadTask() : m_pTimerQueue(nullptr) {}

CCmThreadTask::~CCmThreadTask() {
    CCmDisableCancel disableCancel;
    delete m_pTimerQueue;
}

void CCmThreadTask::OnThreadInit() {
    if (!MakeTimerQueue(m_pTimerQueue)) {
        SetInitResult(CM_ERROR_OUT_OF_MEMORY);
    }
    CCmThreadTaskWithEventQueueOnly::OnThreadInit();
}

void CCmThreadTask::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadTask::OnThreadRun, Begin.");
    CCmCleanUpT endRest([this] { EndRest(*this, m_EventQueue); });
    while (!IsFlagStopped()) {
        CCmTimeValue tvWait = CCmTimeValue::s_tvMax;
        if (m_pTimerQueue != nullptr) {
            tvWait = FireDueTimers(*static_cast<CCmTimerQueueBase*>(m_pTimerQueue));
        }
        RunEvents_i(tvWait == CCmTimeValue::s_tvMax ? nullptr : &tvWait, EVENTS_PER_PASS);
    }
    endRest.Execute();
}

ICmTimerQueue* CCmThreadTask::GetTimerQueue() {
    return m_pTimerQueue;
}

CCmThreadHeartBeat::CCmThreadHeartBeat() : m_pTimerQueue(nullptr) {}

CCmThreadHeartBeat::~CCmThreadHeartBeat() {
    CCmDisableCancel disableCancel;
    delete m_pTimerQueue;
}

CmResult CCmThreadHeartBeat::Stop(CCmTimeValue* /*aTimeout*/) {
    return CM_OK;
}

void CCmThreadHeartBeat::OnThreadInit() {
    if (!MakeTimerQueue(m_pTimerQueue)) {
        SetInitResult(CM_ERROR_OUT_OF_MEMORY);
    }
    m_EventQueue.BindToCurrentThread();
}

void CCmThreadHeartBeat::OnThreadRun() {
    DoHeartBeat();
}

ICmEventQueue* CCmThreadHeartBeat::GetEventQueue() {
    return &m_EventQueue;
}

ICmTimerQueue* CCmThreadHeartBeat::GetTimerQueue() {
    return m_pTimerQueue;
}

CmResult CCmThreadHeartBeat::DoHeartBeat() {
    if (m_pTimerQueue != nullptr) {
        static_cast<CCmTimerQueueBase*>(m_pTimerQueue)->CheckExpire(nullptr);
    }
    std::list<ICmEvent*> events;
    if (CM_SUCCEEDED(m_EventQueue.PopPendingEventsLocked(events, ALL_EVENTS))) {
        m_EventQueue.ProcessTakenEvents(events);
    }
    return CM_OK;
}

}  // namespace UTIL_NS

CM_UTIL_EXPORT UTIL_NS::CmResult CreateUserTaskThread(UTIL_NS::ACmThread** aThread,
                                                      UTIL_NS::TFlag aFlag, bool bWithTimerQueue,
                                                      int aType) {
    using namespace UTIL_NS;
    CM_ASSERTE_RETURN(aThread, CM_ERROR_INVALID_ARG);
    if (aType == TT_MAIN) {
        return CM_ERROR_INVALID_ARG;
    }
    ACmThread* pThread = nullptr;
    if (bWithTimerQueue) {
        pThread = new (std::nothrow) CCmThreadTask;
    } else {
        pThread = new (std::nothrow) CCmThreadTaskWithEventQueueOnly;
    }
    if (pThread == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const CmResult rv = pThread->Create(aType, aFlag, 1);
    if (CM_FAILED(rv)) {
        pThread->Destory(rv);
        return rv;
    }
    *aThread = pThread;
    return CM_OK;
}
