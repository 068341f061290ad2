#include "CmConditionVariable.h"

#include <errno.h>
#include <limits.h>

#include "CmScopedLock.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"
#include "port/CmSystem.h"

namespace UTIL_NS {

namespace {

// The type number of CCmMutexThread; platforms that do not know it leave the default kind.
constexpr int MUTEX_TYPE_DEFAULT = 3;

// The latest deadline that every system can wait for: its nanoseconds fill 64 bits (year 2262).
constexpr CCmTimeValue DEADLINE_MAX(INT64_MAX / 1000000000);

// Now plus aTimeout, kept within what the system calls take.
timespec DeadlineAfter(const CCmTimeValue& aTimeout) {
    timeval tvNow = {};
    g_cmSystem.gettimeofday(&tvNow, nullptr);
    const CCmTimeValue tvDeadline = CCmTimeValue(tvNow) + aTimeout;
    if (tvDeadline < CCmTimeValue::s_tvZero) {
        return CCmTimeValue::s_tvZero.ToTimeSpec();
    }
    return (tvDeadline < DEADLINE_MAX ? tvDeadline : DEADLINE_MAX).ToTimeSpec();
}

// Counts one thread as waiting; also right when that thread is cancelled in its wait.
class CCmWaiterCount {
  public:
    explicit CCmWaiterCount(long& aWaiters) : m_nWaiters(aWaiters) { ++m_nWaiters; }
    ~CCmWaiterCount() { --m_nWaiters; }
    CCmWaiterCount(const CCmWaiterCount&) = delete;
    CCmWaiterCount& operator=(const CCmWaiterCount&) = delete;

  private:
    long& m_nWaiters;
};

}  // namespace

CM_CONSTANT_INIT CCmMutexThread s_ReferenceControlMutexThread{CCmStaticInit()};

int CCmMutexThreadBase::Init(int aType) {
    pthread_mutexattr_t attribute;
    int rv = g_cmSystem.pthread_mutexattr_init(&attribute);
    if (rv != 0) {
        return rv;
    }
    rv = g_cmSystem.pthread_mutexattr_settype(&attribute, aType);
    if (rv == 0 || aType == MUTEX_TYPE_DEFAULT) {
        rv = g_cmSystem.pthread_mutex_init(&m_Mutex, &attribute);
    }
    g_cmSystem.pthread_mutexattr_destroy(&attribute);
    return rv;
}

CCmMutexThreadBase::~CCmMutexThreadBase() {
    const int rv = g_cmSystem.pthread_mutex_destroy(&m_Mutex);
    if (rv != 0) {
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
    const int rv = Init(PTHREAD_MUTEX_RECURSIVE);
    if (rv != 0) {
        CM_ERROR_TRACE_THIS(
            "CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() failed! err="
            << rv);
    }
}

CCmMutexThreadRecursive::~CCmMutexThreadRecursive() = default;

CCmMutexThread::CCmMutexThread() {
    const int rv = Init(MUTEX_TYPE_DEFAULT);
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
        CM_WARNING_TRACE_THIS(
            "CCmConditionVariableThread::CCmConditionVariableThread, pthread_cond_init() failed! "
            "err="
            << rv);
    }
}

CCmConditionVariableThread::~CCmConditionVariableThread() {
    const int rv = g_cmSystem.pthread_cond_destroy(&m_Condition);
    if (rv != 0) {
        CM_WARNING_TRACE_THIS(
            "CCmConditionVariableThread::~CCmConditionVariableThread, pthread_cond_destroy() "
            "failed! err="
            << rv);
    }
}

CmResult CCmConditionVariableThread::Signal() {
    const int rv = g_cmSystem.pthread_cond_signal(&m_Condition);
    if (CM_LIKELY(rv == 0)) {
        return CM_OK;
    }
    CM_WARNING_TRACE_THIS(
        "CCmConditionVariableThread::Signal, pthread_cond_signal() failed! err=" << rv);
    return CM_ERROR_FAILURE;
}

CmResult CCmConditionVariableThread::Broadcast() {
    const int rv = g_cmSystem.pthread_cond_broadcast(&m_Condition);
    if (CM_LIKELY(rv == 0)) {
        return CM_OK;
    }
    // The text names Signal.
    CM_WARNING_TRACE_THIS(
        "CCmConditionVariableThread::Signal, pthread_cond_broadcast() failed! err=" << rv);
    return CM_ERROR_FAILURE;
}

CmResult CCmConditionVariableThread::Wait(CCmTimeValue* aTimeout) {
    if (aTimeout == nullptr) {
        const int rv = g_cmSystem.pthread_cond_wait(&m_Condition, &m_Mutex.m_Mutex);
        if (rv != 0) {
            CM_WARNING_TRACE_THIS(
                "CCmConditionVariableThread::Wait, pthread_cond_wait() failed! err=" << rv);
            return CM_ERROR_FAILURE;
        }
        return CM_OK;
    }
    const timespec tsDeadline = DeadlineAfter(*aTimeout);
    const int rv = g_cmSystem.pthread_cond_timedwait(&m_Condition, &m_Mutex.m_Mutex, &tsDeadline);
    if (rv == 0 || rv == EINTR) {
        return CM_OK;
    }
    if (rv == ETIMEDOUT) {
        return CM_ERROR_TIMEOUT;
    }
    CM_WARNING_TRACE_THIS(
        "CCmConditionVariableThread::Wait, pthread_cond_timedwait() failed! err=" << rv);
    return CM_ERROR_FAILURE;
}

CmResult CCmConditionVariableThread::WaitUntil_i(long long aDeadlineNsec) {
    constexpr long long NSEC_PER_SEC = 1000000000;
    const timespec tsDeadline = {static_cast<time_t>(aDeadlineNsec / NSEC_PER_SEC),
                                 static_cast<long>(aDeadlineNsec % NSEC_PER_SEC)};
    const int rv = g_cmSystem.pthread_cond_clockwait(&m_Condition, &m_Mutex.m_Mutex, &tsDeadline);
    if (rv == 0) {
        return CM_OK;
    }
    if (rv == EINTR) {  // perhaps again and again: the deadline holds all the same
        timespec tsNow = {};
        CmPortMonotonicNow(&tsNow);
        return tsNow.tv_sec * NSEC_PER_SEC + tsNow.tv_nsec < aDeadlineNsec ? CM_OK
                                                                           : CM_ERROR_TIMEOUT;
    }
    if (rv == ETIMEDOUT) {
        return CM_ERROR_TIMEOUT;
    }
    CM_WARNING_TRACE_THIS(
        "CCmConditionVariableThread::Wait, pthread_cond_clockwait() failed! err=" << rv);
    return CM_ERROR_FAILURE;
}

CCmEventThread::CCmEventThread(signed char aManualReset, signed char aInitialState,
                               const char* /*aName*/)
    : m_Condition(m_Mutex),
      m_bManualReset(aManualReset),
      m_bSignaled(aInitialState),
      m_nWaiters(0) {}

CCmEventThread::~CCmEventThread() = default;

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
    CCmWaiterCount count(m_nWaiters);
    return m_Condition.Wait(aTimeout);
}

CmResult CCmEventThread::Signal() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    const CmResult rv = lock.result();
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    if (m_bManualReset != 0) {
        m_bSignaled = 1;
        return m_Condition.Broadcast();
    }
    if (m_nWaiters == 0) {
        m_bSignaled = 1;
        return CM_OK;
    }
    return m_Condition.Signal();
}

CmResult CCmEventThread::SignalBehindLock_i() {
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        const CmResult rv = lock.result();
        CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

        if (m_nWaiters == 0) {
            m_bSignaled = 1;
            return CM_OK;
        }
    }
    return m_Condition.Signal();
}

CmResult CCmEventThread::Pulse() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    const CmResult rv = lock.result();
    CM_ASSERTE_RETURN(CM_SUCCEEDED(rv), rv);

    const CmResult rvWake = m_bManualReset != 0 ? m_Condition.Broadcast() : m_Condition.Signal();
    m_bSignaled = 0;
    return rvWake;
}

CmResult CCmEventThread::Reset() {
    return CM_ERROR_FAILURE;
}

CCmSemaphore::CCmSemaphore(long aInitialCount, const char* /*aName*/, long /*aMaximumCount*/)
    : m_Semaphore() {
    // A count out of range is handed on as one that the system refuses.
    const bool bInRange = aInitialCount >= 0 && aInitialCount <= INT_MAX;
    const unsigned int dwCount = bInRange ? static_cast<unsigned int>(aInitialCount) : UINT_MAX;
    if (g_cmSystem.sem_init(&m_Semaphore, 0, dwCount) != 0) {
        const int nError = errno;
        CM_WARNING_TRACE_THIS("CCmSemaphore::CCmSemaphore, sem_init() failed! err=" << nError);
    }
}

CCmSemaphore::~CCmSemaphore() {
    if (g_cmSystem.sem_destroy(&m_Semaphore) != 0) {
        const int nError = errno;
        CM_WARNING_TRACE_THIS("CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=" << nError);
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
            // The text names UnLock.
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
