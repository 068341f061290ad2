#include "CmConditionVariable.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

// The type number that CCmMutexThread asks for. Where the system does not know it, the mutex is of
// the system's default type.
constexpr int MUTEX_TYPE_DEFAULT = 3;

// The latest deadline that every system can wait for: some count it in nanoseconds, in a signed
// 64-bit number (year 2262).
constexpr CCmTimeValue DEADLINE_MAX(INT64_MAX / 1000000000);

// Now plus aTimeout, kept within what the system calls take.
timespec DeadlineAfter(const CCmTimeValue& aTimeout) {
    timeval tvNow = {};
    g_cmSystem.gettimeofday(&tvNow, nullptr);
    const CCmTimeValue tvDeadline = CCmTimeValue(tvNow) + aTimeout;
    return std::clamp(tvDeadline, CCmTimeValue::s_tvZero, DEADLINE_MAX).ToTimeSpec();
}

constexpr long long NSEC_PER_SEC = 1000000000;

// How often a signal that must not be missed is tried; what fails so often is taken to fail always.
constexpr int SIGNAL_TRIES = 3;

// Returns the error of the first call that failed, or 0. A mutex that could not be made is all
// zeros.
int InitMutex(pthread_mutex_t& aMutex, int aType) {
    pthread_mutexattr_t attribute;
    int rv = g_cmSystem.pthread_mutexattr_init(&attribute);
    if (rv != 0) {
        return rv;
    }
    rv = g_cmSystem.pthread_mutexattr_settype(&attribute, aType);
    if (rv == 0 || aType == MUTEX_TYPE_DEFAULT) {
        rv = g_cmSystem.pthread_mutex_init(&aMutex, &attribute);
    }
    g_cmSystem.pthread_mutexattr_destroy(&attribute);
    if (rv != 0) {
        aMutex = pthread_mutex_t();
    }
    return rv;
}

// Whether the destruction of aObject failed with aError only because the object was never made: its
// initialisation failed, wrote its own line and left all zeros.
template <class Object>
bool WasNeverMade(const Object& aObject, int aError) {
    const auto* const pBytes = reinterpret_cast<const unsigned char*>(&aObject);
    return aError == EINVAL && !CmPortTakesZeros() &&
           std::all_of(pBytes, pBytes + sizeof(aObject), [](unsigned char by) { return by == 0; });
}

}  // namespace

CCmMutexThreadBase::~CCmMutexThreadBase() {
    const int rv = g_cmSystem.pthread_mutex_destroy(&m_Mutex);
    if (rv != 0 && !WasNeverMade(m_Mutex, rv)) {
        CM_ERROR_TRACE_THIS(
            "CCmMutexThreadBase::~CCmMutexThreadBase, pthread_mutex_destroy() failed! err=" << rv);
    }
}

CmResult CCmMutexThreadBase::Lock() CM_NO_THREAD_SAFETY_ANALYSIS {
    return g_cmSystem.pthread_mutex_lock(&m_Mutex) == 0 ? CM_OK : CM_ERROR_FAILURE;
}

CmResult CCmMutexThreadBase::UnLock() CM_NO_THREAD_SAFETY_ANALYSIS {
    const int rv = g_cmSystem.pthread_mutex_unlock(&m_Mutex);
    if (CM_LIKELY(rv == 0)) {
        return CM_OK;
    }
    CM_ERROR_TRACE_THIS("CCmMutexThreadBase::UnLock, pthread_mutex_unlock() failed! err=" << rv);
    return CM_ERROR_FAILURE;
}

CmResult CCmMutexThreadBase::TryLock() CM_NO_THREAD_SAFETY_ANALYSIS {
    return g_cmSystem.pthread_mutex_trylock(&m_Mutex) == 0 ? CM_OK : CM_ERROR_FAILURE;
}

CCmMutexThreadRecursive::CCmMutexThreadRecursive() {
    const int rv = InitMutex(m_Mutex, PTHREAD_MUTEX_RECURSIVE);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS(
            "CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() failed! err="
            << rv);
    }
}

CCmMutexThreadRecursive::~CCmMutexThreadRecursive() = default;

CCmMutexThread::CCmMutexThread() {
    const int rv = InitMutex(m_Mutex, MUTEX_TYPE_DEFAULT);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS(
            "CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! err=" << rv);
    }
}

CCmMutexThread::~CCmMutexThread() = default;

CCmConditionVariableThread::CCmConditionVariableThread(CCmMutexThread& aMutex)
    : m_Mutex(aMutex), m_Condition() {
    const int rv = g_cmSystem.pthread_cond_init(&m_Condition, nullptr);
    if (rv != 0) {
        m_Condition = pthread_cond_t();
        CM_WARNING_TRACE_THIS(
            "CCmConditionVariableThread::CCmConditionVariableThread, pthread_cond_init() failed! "
            "err="
            << rv);
    }
}

CCmConditionVariableThread::~CCmConditionVariableThread() {
    const int rv = g_cmSystem.pthread_cond_destroy(&m_Condition);
    if (rv != 0 && !WasNeverMade(m_Condition, rv)) {
        CM_WARNING_TRACE_THIS(
            "CCmConditionVariableThread::~CCmConditionVariableThread, pthread_cond_destroy() "
            "failed! err="
            << rv);
    }
}

int CCmConditionSteps::SignalCall(CCmConditionVariableThread& aCondition) {
    return g_cmSystem.pthread_cond_signal(&aCondition.m_Condition);
}

CmResult CCmConditionSteps::SignalResult(const CCmConditionVariableThread& aCondition, int aError) {
    if (CM_LIKELY(aError == 0)) {
        return CM_OK;
    }
    CM_WARNING_TRACE("CCmConditionVariableThread::Signal, pthread_cond_signal() failed! err="
                     << aError << " this=" << CmTraceAddress(&aCondition));
    return CM_ERROR_FAILURE;
}

bool CCmConditionSteps::SignalSurely(CCmConditionVariableThread& aCondition, int& aError) {
    aError = 0;
    for (int i = 0; i < SIGNAL_TRIES; ++i) {
        const int nError = SignalCall(aCondition);
        if (CM_LIKELY(nError == 0)) {
            return true;
        }
        aError = nError;
    }
    return false;
}

int CCmConditionSteps::BroadcastCall(CCmConditionVariableThread& aCondition) {
    return g_cmSystem.pthread_cond_broadcast(&aCondition.m_Condition);
}

CmResult CCmConditionSteps::BroadcastResult(const CCmConditionVariableThread& aCondition,
                                            int aError) {
    if (CM_LIKELY(aError == 0)) {
        return CM_OK;
    }
    // The line names Signal; hosts know it by this text.
    CM_WARNING_TRACE("CCmConditionVariableThread::Signal, pthread_cond_broadcast() failed! err="
                     << aError << " this=" << CmTraceAddress(&aCondition));
    return CM_ERROR_FAILURE;
}

int CCmConditionSteps::WaitCall(CCmConditionVariableThread& aCondition,
                                const CCmTimeValue* aTimeout) {
    pthread_mutex_t* const pMutex = &aCondition.m_Mutex.m_Mutex;
    if (aTimeout == nullptr) {
        return g_cmSystem.pthread_cond_wait(&aCondition.m_Condition, pMutex);
    }
    const timespec tsDeadline = DeadlineAfter(*aTimeout);
    return g_cmSystem.pthread_cond_timedwait(&aCondition.m_Condition, pMutex, &tsDeadline);
}

CmResult CCmConditionSteps::WaitResult(const CCmConditionVariableThread& aCondition,
                                       const CCmTimeValue* aTimeout, int aError) {
    if (aError == 0) {
        return CM_OK;
    }
    if (aTimeout == nullptr) {
        CM_WARNING_TRACE("CCmConditionVariableThread::Wait, pthread_cond_wait() failed! err="
                         << aError << " this=" << CmTraceAddress(&aCondition));
        return CM_ERROR_FAILURE;
    }
    if (aError == EINTR) {
        return CM_OK;
    }
    if (aError == ETIMEDOUT) {
        return CM_ERROR_TIMEOUT;
    }
    CM_WARNING_TRACE("CCmConditionVariableThread::Wait, pthread_cond_timedwait() failed! err="
                     << aError << " this=" << CmTraceAddress(&aCondition));
    return CM_ERROR_FAILURE;
}

int CCmConditionSteps::WaitUntilCall(CCmConditionVariableThread& aCondition,
                                     long long aDeadlineNsec) {
    const timespec tsDeadline = {static_cast<time_t>(aDeadlineNsec / NSEC_PER_SEC),
                                 static_cast<long>(aDeadlineNsec % NSEC_PER_SEC)};
    return g_cmSystem.pthread_cond_clockwait(&aCondition.m_Condition, &aCondition.m_Mutex.m_Mutex,
                                             &tsDeadline);
}

CmResult CCmConditionSteps::WaitUntilResult(const CCmConditionVariableThread& aCondition,
                                            long long aDeadlineNsec, int aError) {
    if (aError == 0) {
        return CM_OK;
    }
    if (aError == EINTR) {  // may come again and again, so the deadline is looked at here
        timespec tsNow = {};
        CmPortMonotonicNow(&tsNow);
        return tsNow.tv_sec * NSEC_PER_SEC + tsNow.tv_nsec < aDeadlineNsec ? CM_OK
                                                                           : CM_ERROR_TIMEOUT;
    }
    if (aError == ETIMEDOUT) {
        return CM_ERROR_TIMEOUT;
    }
    CM_WARNING_TRACE("CCmConditionVariableThread::Wait, pthread_cond_clockwait() failed! err="
                     << aError << " this=" << CmTraceAddress(&aCondition));
    return CM_ERROR_FAILURE;
}

CmResult CCmConditionVariableThread::Signal() {
    return CCmConditionSteps::SignalResult(*this, CCmConditionSteps::SignalCall(*this));
}

CmResult CCmConditionVariableThread::Broadcast() {
    return CCmConditionSteps::BroadcastResult(*this, CCmConditionSteps::BroadcastCall(*this));
}

CmResult CCmConditionVariableThread::Wait(CCmTimeValue* aTimeout) {
    return CCmConditionSteps::WaitResult(*this, aTimeout,
                                         CCmConditionSteps::WaitCall(*this, aTimeout));
}

CmResult CCmConditionSteps::WaitUntil(CCmConditionVariableThread& aCondition,
                                      long long aDeadlineNsec) {
    return WaitUntilResult(aCondition, aDeadlineNsec, WaitUntilCall(aCondition, aDeadlineNsec));
}

CCmEventThread::CCmEventThread(signed char aManualReset, signed char aInitialState,
                               const char* /*aName*/)
    : m_Condition(m_Mutex),
      m_bManualReset(aManualReset),
      m_bSignaled(aInitialState),
      m_nWaiters(0) {}

CCmEventThread::~CCmEventThread() = default;

// Each operation of an event touches the event last when it unlocks the mutex: the thread that it
// woke may free the event while this one still writes the line about a failed call.
CmResult CCmEventThread::Wait(CCmTimeValue* aTimeout) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    const CmResult rv = lock.result();
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    if (m_bSignaled != 0) {
        if (m_bManualReset == 0) {
            m_bSignaled = 0;
        }
        return CM_OK;
    }
    ++m_nWaiters;
    CCmCleanUpT leave([&]() CM_NO_THREAD_SAFETY_ANALYSIS {
        --m_nWaiters;
        lock.Unlock();
    });
    const int nError = CCmConditionSteps::WaitCall(m_Condition, aTimeout);
    leave.Execute();
    return CCmConditionSteps::WaitResult(m_Condition, aTimeout, nError);
}

CmResult CCmEventThread::Signal() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    const CmResult rv = lock.result();
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    if (m_bManualReset != 0) {
        m_bSignaled = 1;
        const int nError = CCmConditionSteps::BroadcastCall(m_Condition);
        lock.Unlock();
        return CCmConditionSteps::BroadcastResult(m_Condition, nError);
    }
    if (m_nWaiters == 0) {
        m_bSignaled = 1;
        return CM_OK;
    }
    const int nError = CCmConditionSteps::SignalCall(m_Condition);
    lock.Unlock();
    return CCmConditionSteps::SignalResult(m_Condition, nError);
}

CmResult CCmConditionSteps::SignalAfterUnlock(CCmEventThread& aEvent) {
    CmResult rv = CM_ERROR_FAILURE;
    for (int i = 0; i < SIGNAL_TRIES && CM_FAILED(rv); ++i) {
        CCmScopedLockT<CCmMutexThread> lock(aEvent.m_Mutex);
        rv = lock.result();
        if (CM_SUCCEEDED(rv) && aEvent.m_nWaiters == 0) {
            aEvent.m_bSignaled = 1;
            return CM_OK;
        }
    }
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    int nError = 0;
    const bool bGiven = SignalSurely(aEvent.m_Condition, nError);
    SignalResult(aEvent.m_Condition, nError);
    return bGiven ? CM_OK : CM_ERROR_FAILURE;
}

CmResult CCmEventThread::Pulse() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    const CmResult rv = lock.result();
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    const bool bManualReset = m_bManualReset != 0;
    const int nError = bManualReset ? CCmConditionSteps::BroadcastCall(m_Condition)
                                    : CCmConditionSteps::SignalCall(m_Condition);
    m_bSignaled = 0;
    lock.Unlock();
    return bManualReset ? CCmConditionSteps::BroadcastResult(m_Condition, nError)
                        : CCmConditionSteps::SignalResult(m_Condition, nError);
}

CmResult CCmEventThread::Reset() {
    return CM_ERROR_FAILURE;
}

CCmSemaphore::CCmSemaphore(long aInitialCount, const char* /*aName*/, long /*aMaximumCount*/)
    : m_Semaphore() {
    // A count that the system's type cannot hold becomes one that the system refuses (EINVAL).
    const bool bInRange = aInitialCount >= 0 && aInitialCount <= INT_MAX;
    const unsigned int dwCount = bInRange ? static_cast<unsigned int>(aInitialCount) : UINT_MAX;
    if (g_cmSystem.sem_init(&m_Semaphore, 0, dwCount) != 0) {
        const int nError = errno;
        m_Semaphore = CmPlatformSemaphore();
        CM_WARNING_TRACE_THIS("CCmSemaphore::CCmSemaphore, sem_init() failed! err=" << nError);
    }
}

CCmSemaphore::~CCmSemaphore() {
    if (g_cmSystem.sem_destroy(&m_Semaphore) != 0) {
        const int nError = errno;
        if (!WasNeverMade(m_Semaphore, nError)) {
            CM_WARNING_TRACE_THIS(
                "CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=" << nError);
        }
    }
}

CmResult CCmSemaphore::Lock() {
    if (g_cmSystem.sem_wait(&m_Semaphore) == 0) {
        return CM_OK;
    }
    const int nError = errno;
    CM_WARNING_TRACE_THIS("CCmSemaphore::Lock, sem_wait() failed! err=" << nError);
    return CM_ERROR_FAILURE;
}

CmResult CCmSemaphore::UnLock() {
    return PostN(1);
}

CmResult CCmSemaphore::PostN(long aCount) {
    for (long i = 0; i < aCount; ++i) {
        if (g_cmSystem.sem_post(&m_Semaphore) != 0) {
            const int nError = errno;
            // The line names UnLock; hosts know it by this text.
            CM_WARNING_TRACE_THIS("CCmSemaphore::UnLock, sem_post() failed! err=" << nError);
            return CM_ERROR_FAILURE;
        }
    }
    return CM_OK;
}

pthread_t GetThreadSelfId() {
    return pthread_self();
}

bool IsThreadEqual(pthread_t aLeft, pthread_t aRight) {
    return pthread_equal(aLeft, aRight) != 0;
}

bool IsEqualCurrentThread(pthread_t aThread) {
    return pthread_equal(aThread, pthread_self()) != 0;
}

}  // namespace UTIL_NS
