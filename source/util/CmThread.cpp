#include "CmThread.h"

#include <algorithm>
#include <utility>

#include "CmBlockedSends.h"
#include "CmCancel.h"
#include "CmEventQueueSteps.h"
#include "CmListNode.h"
#include "CmPrivateState.h"
#include "CmScopedLock.h"
#include "CmStatics.h"
#include "CmSystem.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTraceLine.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

constexpr DWORD ALL_EVENTS = 0xFFFFFFFF;
// How many events a worker runs at most before it looks at its timers again: a timer is late by no
// more than these take.
constexpr DWORD EVENTS_PER_PASS = 5;

// Makes aQueue, unless an earlier thread of the object did. False when memory ran out.
bool MakeTimerQueue(ICmTimerQueue*& aQueue) {
    if (aQueue == nullptr) {
        aQueue = new (std::nothrow) CCmTimerQueueOrderedList(nullptr);
    }
    return aQueue != nullptr;
}

// Returns how long to wait for the next timer. CheckExpire tells that from the start of its pass,
// and the handlers have taken time since.
CCmTimeValue FireDueTimers(CCmTimerQueueBase& aQueue, CCmEventQueueSteps::CLoop& aLoop) {
    CCmTimeValue tvWait;
    if (CM_LIKELY(aQueue.CheckExpire(&tvWait) == 0)) {
        return tvWait;
    }
    aLoop.ForgetEnd();
    if (tvWait == CCmTimeValue::s_tvMax) {
        return tvWait;
    }
    const CCmTimeValue tvLeft = aQueue.GetEarliestTime() - CCmTimeValue::GetTimeOfDay();
    // The clock may have been set meanwhile: set back, it would make the wait longer than
    // CheckExpire told; set ahead, negative.
    return std::min(std::max(tvLeft, CCmTimeValue::s_tvZero), tvWait);
}

// Destroys what a stopped worker has not run; also when it is cancelled in one of the events that
// it took together with its stop event.
void EndLoop(const CCmStopFlag& aFlag, CCmEventQueueUsingConditionVariable& aQueue,
             CCmEventQueueSteps::CLoop& aLoop) {
    CCmCleanUpT endLoop([&aLoop] { aLoop.End(); });
    if (aFlag.IsFlagStopped()) {
        aQueue.StopAndDestoryPendingEvents();
    }
    endLoop.Execute();
}

void RegisterEntry(std::list<ACmThread*>& aEntry) {
    CmMakeStatics();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    g_threadList.splice(g_threadList.end(), aEntry);
}

}  // namespace

CmResult RegisterThread(ACmThread* aThread) {
    std::list<ACmThread*> entry;
    const CmResult rv = CmAddNode(entry, aThread);
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

// What a thread object keeps to itself.
//
// m_Tid, m_Handle and m_bStopFlag of the object are read and written relaxed: nothing is handed
// over with them.
//
// A thread starts in these steps, each of which sets its bit once:
//   INIT_DONE     the new thread, after OnThreadInit and before it signals the creator
//   THREAD_DONE   the new thread, when it has signalled
//   CREATOR_DONE  the creator, when it has seen INIT_DONE
//   BODY_LEFT     the new thread, when its body has returned or was cancelled
// The event of the handshake belongs to whichever of THREAD_DONE and CREATOR_DONE comes second: the
// creator may see INIT_DONE, and return, while the thread is still inside Signal.
class ACmThread::CThreadState {
  public:
    explicit CThreadState(ACmThread& aThread) : m_Thread(aThread) {}
    CThreadState(const CThreadState&) = delete;
    CThreadState& operator=(const CThreadState&) = delete;

    // An object of unknown type may be created again once its thread is gone. If that was a
    // detached one, its body has let go of the object; the next thread's body must not be taken for
    // the second to do so.
    void ForgetEarlierThread() {
        m_bHasThread = false;
        // Acquire: after all that the earlier thread did with the object.
        if (m_bOneHasLetGo.exchange(false, std::memory_order_acq_rel)) {
            --m_Thread.m_nDestroyRef;
            m_Thread.m_Tid.store(pthread_t(), std::memory_order_relaxed);  // perhaps another's now
        }
    }
    void AdoptCallingThread() {
        m_nStartSteps.store(0, std::memory_order_relaxed);  // those of an earlier thread
        m_Thread.m_Tid.store(pthread_self(), std::memory_order_relaxed);
        m_Awaited.BindToCurrentThread();
    }
    CmResult StartThread();
    // For whoever is about to join the thread.
    void EnterJoin(CCmBlockedSend& aBlocked) const;

    // Called by the new thread, once. aEvent: what it found in m_pEvent, which the creator clears.
    // The release pairs with the acquire in WaitUntilStarted.
    void SignalStarted(CCmEventThread* aEvent) {
        m_nStartSteps.fetch_or(STEP_INIT_DONE, std::memory_order_release);
        aEvent->Signal();
        LeaveHandshake(aEvent, STEP_THREAD_DONE, STEP_CREATOR_DONE);
    }
    // May free the object.
    void LeaveBody() {
        if (m_Thread.m_Type != TT_MAIN) {  // an adopted thread goes on, and is still found
            m_nStartSteps.fetch_or(STEP_BODY_LEFT, std::memory_order_relaxed);
        }
        if (!IsJoinable() && LetGo()) {
            delete &m_Thread;
        }
    }
    // Called by the owner and by the body of a detached thread, when they are done with the object.
    // True for the second of them, which frees it. m_nDestroyRef is a required field and only shows
    // how many have let go; who is second is decided by the exchange, which orders all that the
    // first one did before the deletion. No mutex of the library is taken: a detached thread may
    // come here while the process exits.
    bool LetGo() {
        ++m_Thread.m_nDestroyRef;
        return m_bOneHasLetGo.exchange(true, std::memory_order_acq_rel);
    }

    bool IsJoinable() const { return (m_Thread.m_Flag & TF_JOINABLE) != 0; }
    bool HasThread() const { return m_bHasThread; }
    // True once the system may have given the thread's number to another one, which may be before
    // Join returns. Relaxed: the caller has that number, so either it is the thread itself, or it
    // was started after the thread that set the bit was gone.
    bool HasLeftItsId() const {
        return m_Thread.m_nDestroyRef.value() > 0 ||
               (m_nStartSteps.load(std::memory_order_relaxed) & STEP_BODY_LEFT) != 0;
    }

    CmResult m_InitResult = CM_OK;
    CCmAwaitedThread m_Awaited;
    // By Terminate, so that it waits for nobody for good. Relaxed: nothing is handed over with it.
    CmStd::atomic<bool> m_bIsCancelled{false};

  private:
    static constexpr int STEP_INIT_DONE = 1;
    static constexpr int STEP_THREAD_DONE = 2;
    static constexpr int STEP_CREATOR_DONE = 4;
    static constexpr int STEP_BODY_LEFT = 8;

    // If the new thread's signal failed, the creator would wait for ever: it looks at the steps
    // itself this often, and sleeps in between where its wait fails as well.
    static constexpr long START_LOOK_USEC = 100 * 1000;
    static constexpr long START_NAP_NSEC = 1000 * 1000;

    CmResult CreateThread();
    void WaitUntilStarted();
    // Acquire and release: whoever deletes the event does so after all that the other did with it.
    void LeaveHandshake(CCmEventThread* aEvent, int aOwnStep, int aStepOfTheOther) {
        const int nSteps = m_nStartSteps.fetch_or(aOwnStep, std::memory_order_acq_rel);
        if ((nSteps & aStepOfTheOther) != 0) {
            delete aEvent;
        }
    }

    ACmThread& m_Thread;
    CmStd::atomic<int> m_nStartSteps{0};
    bool m_bHasThread = false;  // a POSIX thread was started; used by the owner only
    CmStd::atomic<bool> m_bOneHasLetGo{false};  // of a detached thread's object
};

ACmThread* getCurrentThread() {
    CmMakeStatics();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    for (ACmThread* pThread : g_threadList) {
        if (IsEqualCurrentThread(pThread->GetThreadId()) &&
            !CCmPrivateRoom::Of(pThread->m_Private).HasLeftItsId()) {
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
      m_bStopFlag(false) {
    static_assert(sizeof(CThreadState) + 128 <= sizeof(m_Private), "too little for later versions");
    CCmPrivateRoom::Make(m_Private, *this);
}

ACmThread::~ACmThread() {
    CCmDisableCancel disableCancel;
    if (m_bRegister && m_bRegistered) {
        UnRegisterThread(this);
        m_bRegistered = false;
    }
    delete m_pEvent;
    CCmPrivateRoom::End(m_Private);
}

// Not to be cancelled half-way: the thread would run without an owner.
CmResult ACmThread::Create(int aType, TFlag aFlag, signed char bRegister) {
    CCmDisableCancel disableCancel;
    CmWatchAsProfileSays();
    CM_INFO_TRACE_THIS("ACmThread::Create, aType=" << aType << " aFlag=" << aFlag
                                                   << " Register=" << static_cast<int>(bRegister));
    CM_ASSERTE_RETURN(m_Type == TT_UNKNOWN, CM_ERROR_ALREADY_INITIALIZED);
    if (aType == TT_UNKNOWN) {
        CM_WARNING_TRACE("thread type is TT_UNKNOWN");
    }
    CThreadState& state = CCmPrivateRoom::Of(m_Private);
    state.ForgetEarlierThread();
    m_Type = aType;
    m_Flag = aFlag != 0 ? aFlag : TF_JOINABLE;

    // Allocated first: once the thread runs, registering it must not fail.
    std::list<ACmThread*> entry;
    if (bRegister != 0 && CM_FAILED(CmAddNode(entry, this))) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (m_Type == TT_MAIN) {
        state.AdoptCallingThread();
    } else {
        const CmResult rv = state.StartThread();
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

CmResult ACmThread::CThreadState::StartThread() {
    delete m_Thread.m_pEvent;  // of an attempt that failed
    m_Thread.m_pEvent = new (std::nothrow) CCmEventThread(0, 0);
    if (m_Thread.m_pEvent == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    m_nStartSteps.store(0, std::memory_order_relaxed);  // before pthread_create, which orders it
    m_InitResult = CM_OK;
    m_bIsCancelled.store(false, std::memory_order_relaxed);
    const CmResult rv = CreateThread();
    if (CM_FAILED(rv)) {
        return rv;
    }
    WaitUntilStarted();
    if (CM_FAILED(m_InitResult)) {
        m_Thread.Join();
    }
    return m_InitResult;
}

CmResult ACmThread::CThreadState::CreateThread() {
    void* const pThis = CmTraceAddress(&m_Thread);
    pthread_attr_t attributes;
    int rv = g_cmSystem.pthread_attr_init(&attributes);
    if (rv != 0) {
        CM_ERROR_TRACE("ACmThread::Create, pthread_attr_init() failed! err=" << rv
                                                                             << " this=" << pThis);
        return CM_ERROR_UNEXPECTED;
    }
    const bool bDetached = (m_Thread.m_Flag & (TF_JOINABLE | TF_DETACHED)) == TF_DETACHED;
    rv = g_cmSystem.pthread_attr_setdetachstate(
        &attributes, bDetached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    if (rv != 0) {
        CM_ERROR_TRACE("ACmThread::Create, pthread_attr_setdetachstate() failed! err="
                       << rv << " this=" << pThis);
        g_cmSystem.pthread_attr_destroy(&attributes);
        return CM_ERROR_UNEXPECTED;
    }
    pthread_t tid = pthread_t();
    rv = g_cmSystem.pthread_create(&tid, &attributes, &ACmThread::ThreadProc, &m_Thread);
    g_cmSystem.pthread_attr_destroy(&attributes);
    if (rv != 0) {
        CM_ERROR_TRACE("ACmThread::Create, pthread_create() failed! err=" << rv
                                                                          << " this=" << pThis);
        return CM_ERROR_UNEXPECTED;
    }
    m_bHasThread = true;
    m_Thread.m_Tid.store(tid, std::memory_order_relaxed);
    m_Thread.m_Handle.store(tid, std::memory_order_relaxed);
    return CM_OK;
}

void ACmThread::CThreadState::WaitUntilStarted() {
    CmResult rvWait = CM_OK;
    // Acquire: what OnThreadInit did, SetInitResult included, is seen from here on.
    while ((m_nStartSteps.load(std::memory_order_acquire) & STEP_INIT_DONE) == 0) {
        if (CM_SUCCEEDED(rvWait) || rvWait == CM_ERROR_TIMEOUT) {
            CCmTimeValue tvLook(0, START_LOOK_USEC);
            rvWait = m_Thread.m_pEvent->Wait(&tvLook);
        } else {
            const timespec tsNap = {0, START_NAP_NSEC};
            g_cmSystem.nanosleep(&tsNap, nullptr);
        }
    }
    CCmEventThread* pEvent = m_Thread.m_pEvent;
    m_Thread.m_pEvent = nullptr;
    LeaveHandshake(pEvent, STEP_CREATOR_DONE, STEP_THREAD_DONE);
}

// While a thread waits for something, it has not ended.
void ACmThread::CThreadState::EnterJoin(CCmBlockedSend& aBlocked) const {
    char szNames[CCmBlockedSend::NAMES_SIZE];
    const auto goesOn = [](const void*) { return true; };
    if (aBlocked.Enter(m_Awaited, goesOn, nullptr, szNames)) {
        CM_WARNING_TRACE("ACmThread::Join, watch, threads wait for each other: " << szNames);
    }
}

void* ACmThread::ThreadProc(void* pParam) {
    ACmThread* pThread = static_cast<ACmThread*>(pParam);
    CM_ASSERTE_RETURN(pThread, nullptr);
    // The creator stores the same number when pthread_create returns, perhaps not before
    // OnThreadInit asks for it.
    pThread->m_Tid.store(pthread_self(), std::memory_order_relaxed);
    if (pThread->m_Type != TT_MAIN) {
        pThread->m_Handle.store(pthread_self(), std::memory_order_relaxed);
    }

    CThreadState& state = CCmPrivateRoom::Of(pThread->m_Private);
    state.m_Awaited.BindToCurrentThread();
    CCmEventThread* pEvent = pThread->m_pEvent;  // null when nobody waits
    const auto signalStarted = [&state, &pEvent] {
        if (pEvent != nullptr) {
            state.SignalStarted(std::exchange(pEvent, nullptr));
        }
    };
    CCmCleanUpT finish([&state, &signalStarted] {
        CCmDisableCancel disableCancel;
        signalStarted();  // if it was cancelled in OnThreadInit, the creator still waits
        state.LeaveBody();
    });
    pThread->OnThreadInit();
    CmEnsureWatchedThread();  // by now it has its name
    // Read before the signal: after it, the creator may start another thread of the object.
    const bool bInitialized = CM_SUCCEEDED(state.m_InitResult);
    signalStarted();
    if (bInitialized) {
        pThread->OnThreadRun();
    }
    pThread->SetStop();
    finish.Execute();
    return nullptr;
}

CmResult ACmThread::Join() {
    const pthread_t tid = m_Tid.load(std::memory_order_relaxed);
    if (IsEqualCurrentThread(tid)) {
        return CM_ERROR_FAILURE;
    }
    if (tid == pthread_t() || !CCmPrivateRoom::Of(m_Private).IsJoinable()) {
        return CM_OK;
    }
    CCmBlockedSend blocked;
    CCmCleanUpT leave([&blocked] { blocked.Leave(); });
    const CThreadState& state = CCmPrivateRoom::Of(m_Private);
    if (CM_UNLIKELY(CCmBlockedSend::IsOn()) &&
        !state.m_bIsCancelled.load(std::memory_order_relaxed)) {
        state.EnterJoin(blocked);
    }
    const int rv = g_cmSystem.pthread_join(tid, nullptr);
    leave.Execute();
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
    CThreadState& state = CCmPrivateRoom::Of(m_Private);
    // If no thread was started, no body will let go.
    if (state.IsJoinable() || !state.HasThread() || state.LetGo()) {
        delete this;
    }
    return CM_OK;
}

CmResult ACmThread::Terminate() {
    const pthread_t tid = m_Tid.load(std::memory_order_relaxed);
    CThreadState& state = CCmPrivateRoom::Of(m_Private);
    const bool bIsGone = state.HasThread() && !state.IsJoinable() && m_nDestroyRef.value() > 0;
    CmResult rv = CM_ERROR_FAILURE;
    if (m_Type != TT_MAIN && tid != pthread_t() && !bIsGone) {
        state.m_bIsCancelled.store(true, std::memory_order_relaxed);
        rv = g_cmSystem.pthread_cancel(tid);
    }
    m_bStopFlag.store(true, std::memory_order_relaxed);
    return rv;
}

void ACmThread::SetInitResult(CmResult aResult) {
    CCmPrivateRoom::Of(m_Private).m_InitResult = aResult;
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
    // An earlier thread of this object has run the stop event, and no other can be posted: this one
    // would never return.
    if (m_EventQueue.IsStoppedAndEmpty()) {
        SetInitResult(CM_ERROR_NOT_INITIALIZED);
        return;
    }
    SetStartFlag();
}

void CCmThreadTaskWithEventQueueOnly::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::OnThreadRun");
    CCmEventQueueSteps::CLoop loop(m_EventQueue);
    CCmCleanUpT endLoop([this, &loop] { EndLoop(*this, m_EventQueue, loop); });
    while (!IsFlagStopped()) {
        loop.RunEvents(nullptr, ALL_EVENTS);
    }
    endLoop.Execute();
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
    CCmEventQueueSteps::CLoop loop(m_EventQueue);
    CCmCleanUpT endLoop([this, &loop] { EndLoop(*this, m_EventQueue, loop); });
    while (!IsFlagStopped()) {
        CCmTimeValue tvWait = CCmTimeValue::s_tvMax;
        if (m_pTimerQueue != nullptr) {
            tvWait = FireDueTimers(*static_cast<CCmTimerQueueBase*>(m_pTimerQueue), loop);
        }
        loop.RunEvents(tvWait == CCmTimeValue::s_tvMax ? nullptr : &tvWait, EVENTS_PER_PASS);
    }
    endLoop.Execute();
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
