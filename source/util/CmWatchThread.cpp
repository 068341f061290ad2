#include "CmWatchThread.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "CmBlockedSends.h"
#include "CmConditionSteps.h"
#include "CmFlight.h"
#include "CmNsec.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTimeValue.h"
#include "CmTraceLine.h"
#include "CmWatched.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr long long NSEC_PER_MSEC = 1000 * 1000;
constexpr long long NSEC_PER_USEC = 1000;

constexpr long long ROUND_NSEC = 250 * NSEC_PER_MSEC;

// What moves the wall clock by more between two rounds has set it; one that is slewed to the right
// time gains or loses a hundredth of that.
constexpr long long STEP_NSEC = 50 * NSEC_PER_MSEC;
// The clocks are read one after the other: within this time, or once more, at most so often.
constexpr long long APART_NSEC = NSEC_PER_MSEC;
constexpr int READ_TRIES = 5;

// Enough for the lines that are written and for those who receive them.
constexpr size_t STACK_SIZE = 256 * 1024;

// False when the thread was interrupted each time.
bool ReadClocks(long long& aWallNsec, long long& aMonotonicNsec) {
    for (int i = 0; i < READ_TRIES; ++i) {
        const long long llBefore = CmMonotonicNsec();
        aWallNsec = CmNsecOf(CCmTimeValue::GetTimeOfDay());
        aMonotonicNsec = CmMonotonicNsec();
        if (aMonotonicNsec - llBefore <= APART_NSEC) {
            return true;
        }
    }
    return false;
}

// The name of the thread with this number; "unknown" when the watch does not know it.
void CopyNameOf(uint64_t aNumber, char (&aName)[CCmBlockedSend::CLong::NAME_SIZE]) {
    std::snprintf(aName, sizeof(aName), "unknown");
    CmForEachWatchedThread([&](CCmWatchedThread& aThread) {
        if (aThread.Number() == aNumber && !aThread.HasEnded()) {
            std::snprintf(aName, sizeof(aName), "%s", aThread.Name());
        }
    });
}

}  // namespace

void CCmWatchRounds::Run() {
    long long llWall = 0;
    long long llMonotonic = 0;
    if (ReadClocks(llWall, llMonotonic)) {
        Run(llWall, llMonotonic);
    }
}

void CCmWatchRounds::Run(long long aWallNsec, long long aMonotonicNsec) {
    LookAtWallClock(aWallNsec, aMonotonicNsec);
    StoreFigures(aWallNsec);
    CCmFlight::Tick(aWallNsec / NSEC_PER_USEC, aMonotonicNsec / NSEC_PER_USEC);
    if (m_dwLongSendMsec != 0) {
        TellLongSends(aMonotonicNsec);
    }
}

void CCmWatchRounds::LookAtWallClock(long long aWallNsec, long long aMonotonicNsec) {
    const long long llOffset = aWallNsec - aMonotonicNsec;
    const long long llBy = m_bHasOffset ? llOffset - m_llOffset : 0;
    m_llOffset = llOffset;
    m_bHasOffset = true;
    if (CM_LIKELY(std::llabs(llBy) <= STEP_NSEC)) {
        return;
    }
    if (CCmFlightRing* const pRing = CCmFlight::AttachThisThread(nullptr)) {
        pRing->Step(aWallNsec / NSEC_PER_USEC, llBy / NSEC_PER_USEC);
    }
    if (llBy > 0) {
        CM_WARNING_TRACE("CCmWatch, the wall clock was set ahead usec=" << llBy / NSEC_PER_USEC);
    } else {
        CM_WARNING_TRACE("CCmWatch, the wall clock was set back usec=" << -llBy / NSEC_PER_USEC);
    }
}

// On any thread: bus errors reach it meanwhile, as the file may have been cut.
void CCmWatchRounds::StoreFigures(long long aWallNsec) {
    const bool bBlocksBusErrors = CmPortUnblockBusErrors();
    CmForEachWatchedThread([aWallNsec](CCmWatchedThread& aThread) {
        if (CCmFlightRing* const pRing = aThread.Ring()) {
            CCmFlightFigures figures = {};
            aThread.CopyFigures(figures);
            pRing->Figures(figures, aWallNsec / NSEC_PER_USEC);
        }
    });
    if (bBlocksBusErrors) {
        CmPortBlockBusErrors();
    }
}

void CCmWatchRounds::TellLongSends(long long aMonotonicNsec) const {
    CCmBlockedSend::CLong send;
    while (CCmBlockedSend::TakeLong(aMonotonicNsec, m_dwLongSendMsec, send)) {
        char szAwaited[CCmBlockedSend::CLong::NAME_SIZE];
        CopyNameOf(send.m_ullAwaited, szAwaited);
        char szClass[CCmWorkerFigures::CLASS_SIZE];
        if (send.m_szClass[0] != '\0') {
            CmPortReadableClassName(send.m_szClass, szClass, sizeof(szClass));
        } else {
            std::snprintf(szClass, sizeof(szClass), "%p", const_cast<void*>(send.m_pTable));
        }
        CM_WARNING_TRACE("CCmEventQueueBase::SendEvent, watch, thread="
                         << send.m_szThread << " waits for thread=" << szAwaited
                         << " since ms=" << send.m_llMsec << " class=" << szClass);
    }
}

CCmWatchThread::CCmWatchThread(DWORD aLongSendMsec)
    : m_Rounds(aLongSendMsec), m_Process(getpid()) {}

CCmWatchThread* CCmWatchThread::Start(DWORD aLongSendMsec) {
    auto* const pThread = new (std::nothrow) CCmWatchThread(aLongSendMsec);
    if (pThread == nullptr) {
        return nullptr;
    }
    const int nError = pThread->CreateThread();
    if (nError != 0) {
        CM_WARNING_TRACE("CCmWatch, pthread_create() failed! err=" << nError);
        delete pThread;
        return nullptr;
    }
    return pThread;
}

// The thread inherits the mask. The signals of a fault stay: a blocked one ends the process, and
// the recorder survives that its file was cut by one of them.
int CCmWatchThread::CreateThread() {
    sigset_t signals;
    sigset_t before;
    sigfillset(&signals);
    for (const int nSignal : {SIGBUS, SIGSEGV, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) {
        sigdelset(&signals, nSignal);
    }
    pthread_attr_t attributes;
    int nError = g_cmSystem.pthread_attr_init(&attributes);
    if (nError != 0) {
        return nError;
    }
    pthread_attr_setstacksize(&attributes, STACK_SIZE);
    pthread_sigmask(SIG_SETMASK, &signals, &before);
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);  // for m_Tid, which the thread may look at
        nError = g_cmSystem.pthread_create(&m_Tid, &attributes, &CCmWatchThread::Body, this);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    g_cmSystem.pthread_attr_destroy(&attributes);
    return nError;
}

void CCmWatchThread::End() {
    if (getpid() != m_Process) {
        return;  // the object stays: its lock may have been held when the process was forked
    }
    pthread_t tid = pthread_t();
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        tid = m_Tid;
        m_bStops = true;
        m_bFreesItself = IsEqualCurrentThread(tid);
        m_Changed.Signal();
    }
    if (IsEqualCurrentThread(tid)) {
        pthread_detach(tid);
        return;
    }
    g_cmSystem.pthread_join(tid, nullptr);
    delete this;
}

void* CCmWatchThread::Body(void* aThis) {
    auto* const pThis = static_cast<CCmWatchThread*>(aThis);
    CmPortNameThisThread("kelto-watch");
    do {
        pThis->m_Rounds.Run();
    } while (pThis->WaitForNext());
    if (pThis->FreesItself()) {
        delete pThis;
    }
    return nullptr;
}

// False when it has to stop.
bool CCmWatchThread::WaitForNext() {
    const long long llNext = CmMonotonicNsec() + ROUND_NSEC;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        int nError = CM_SUCCEEDED(lock.result()) ? 0 : EINVAL;
        while (!m_bStops && (nError == 0 || nError == EINTR)) {
            nError = CCmConditionSteps::WaitUntilCall(m_Changed, llNext);
        }
        if (m_bStops || nError == ETIMEDOUT) {
            return !m_bStops;
        }
    }
    // The wait failed.
    const timespec tsNap = {0, ROUND_NSEC};
    g_cmSystem.nanosleep(&tsNap, nullptr);
    return true;
}

bool CCmWatchThread::FreesItself() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_bFreesItself;
}

}  // namespace UTIL_NS
