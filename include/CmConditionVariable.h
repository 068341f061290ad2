/// Locks, conditions, events, semaphores and the guarded counter.
///
/// Thin wrappers over POSIX threads. Every class may be used from any thread. A system call that
/// fails is traced, except in Lock and TryLock (tracing itself takes locks), and reported as
/// CM_ERROR_FAILURE; none throws. An object whose constructor failed exists all the same; that it
/// cannot be destroyed either is not traced a second time.
/// \file
#ifndef CM_CONDITION_VARIABLE_H
#define CM_CONDITION_VARIABLE_H

#include <pthread.h>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmPlatform.h"
#include "CmThreadAnnotations.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// Marks the constructors for objects with static storage, which are initialised by the compiler
/// and thereby usable before any other static object is constructed.
struct CCmStaticInit {};

/// What the two mutexes share. A mutex must not be destroyed while it is held.
class CM_UTIL_EXPORT CM_CAPABILITY("mutex") CCmMutexThreadBase {
  public:
    /// Destroys the mutex; a failure is traced.
    virtual ~CCmMutexThreadBase();
    CCmMutexThreadBase(const CCmMutexThreadBase&) = delete;
    CCmMutexThreadBase& operator=(const CCmMutexThreadBase&) = delete;

    /// CM_OK with the mutex held, or CM_ERROR_FAILURE, untraced.
    CmResult Lock() CM_ACQUIRE();
    /// CM_OK, or CM_ERROR_FAILURE with an error line.
    CmResult UnLock() CM_RELEASE();
    /// CM_OK with the mutex held; CM_ERROR_FAILURE, untraced, when it is busy or on error.
    CmResult TryLock() CM_TRY_ACQUIRE(false);

  protected:
    /// For the mutexes, which initialise m_Mutex. Until then it is filled with zeros, so that one
    /// whose initialisation failed does no harm.
    CCmMutexThreadBase() : m_Mutex() {}
    /// For mutexes with static storage: takes over what the compiler initialises.
    explicit constexpr CCmMutexThreadBase(const pthread_mutex_t& aMutex) : m_Mutex(aMutex) {}

    pthread_mutex_t m_Mutex;  ///< zeros until a subclass has initialised it

  private:
    friend struct CCmConditionSteps;  // internal
};

/// The owning thread may lock it again; it is free after as many calls of UnLock.
class CM_UTIL_EXPORT CCmMutexThreadRecursive : public CCmMutexThreadBase {
  public:
    /// Initialises the mutex; a failure is traced.
    CCmMutexThreadRecursive();
    /// Leaves the mutex to the base.
    ~CCmMutexThreadRecursive() override;
    /// For objects with static storage: CCmMutexThreadRecursive s_Mutex{CCmStaticInit()}.
    explicit constexpr CCmMutexThreadRecursive(CCmStaticInit)
        : CCmMutexThreadBase(CM_RECURSIVE_MUTEX) {}
};

/// The library's default mutex; not recursive: taking it twice on one thread is a caller error.
class CM_UTIL_EXPORT CCmMutexThread : public CCmMutexThreadBase {
  public:
    /// Initialises the mutex; a failure is traced.
    CCmMutexThread();
    /// Leaves the mutex to the base.
    ~CCmMutexThread() override;
    /// For objects with static storage: CCmMutexThread s_Mutex{CCmStaticInit()}.
    explicit constexpr CCmMutexThread(CCmStaticInit)
        : CCmMutexThreadBase(pthread_mutex_t PTHREAD_MUTEX_INITIALIZER) {}
};

/// A condition bound to one mutex.
class CM_UTIL_EXPORT CCmConditionVariableThread {
  public:
    /// aMutex: not owned; must outlive the condition.
    explicit CCmConditionVariableThread(CCmMutexThread& aMutex);
    /// Nobody may wait any more.
    ~CCmConditionVariableThread();
    CCmConditionVariableThread(const CCmConditionVariableThread&) = delete;
    CCmConditionVariableThread& operator=(const CCmConditionVariableThread&) = delete;

    /// Wakes at most one waiter. CM_OK or CM_ERROR_FAILURE.
    CmResult Signal();
    /// Wakes every waiter. CM_OK or CM_ERROR_FAILURE.
    CmResult Broadcast();
    /// Releases the bound mutex, which the caller holds, waits, and takes it again. aTimeout:
    /// relative to now, on the wall clock; null waits without limit, s_tvMax as good as that, zero
    /// or less not at all. CM_OK: woken, or interrupted, or for no reason at all, so the caller
    /// looks at its own state. CM_ERROR_TIMEOUT, CM_ERROR_FAILURE. A cancellation point; the mutex
    /// is held again when the thread's clean-up handlers run.
    CmResult Wait(CCmTimeValue* aTimeout);

  private:
    friend struct CCmConditionSteps;  // internal

    CCmMutexThread& m_Mutex;
    pthread_cond_t m_Condition;
};

/// An event with manual or automatic reset.
///
/// Manual: Signal opens it for every waiter, present and future, until Pulse. Automatic: Signal
/// wakes one waiter or, when there is none, lets one later Wait through. A woken thread does not
/// look at the state again, so Wait may, rarely, return without a signal: a caller who must be sure
/// checks what it waited for. When the inner mutex cannot be taken, every operation traces an
/// assertion, returns that result and changes nothing. Its lines are written after the inner mutex
/// was released.
class CM_UTIL_EXPORT CCmEventThread {
  public:
    /// aManualReset, aInitialState: 0 or 1. aName: accepted and not used.
    explicit CCmEventThread(signed char aManualReset = 0, signed char aInitialState = 0,
                            const char* aName = nullptr);
    /// Nobody may wait or signal any more.
    ~CCmEventThread();
    CCmEventThread(const CCmEventThread&) = delete;
    CCmEventThread& operator=(const CCmEventThread&) = delete;

    /// aTimeout: relative, null waits without limit. CM_OK, CM_ERROR_TIMEOUT or CM_ERROR_FAILURE. A
    /// cancellation point; a cancelled thread leaves the event usable.
    CmResult Wait(CCmTimeValue* aTimeout = nullptr);
    /// Manual: wakes all waiters and stays open. Automatic: wakes one waiter, or lets one later
    /// Wait through. CM_OK or CM_ERROR_FAILURE.
    CmResult Signal();
    /// Wakes all waiters (manual) or one (automatic), then leaves the event unsignalled. CM_OK or
    /// CM_ERROR_FAILURE.
    CmResult Pulse();
    /// Does nothing and returns CM_ERROR_FAILURE: only Pulse clears a latched event.
    CmResult Reset();

  private:
    friend struct CCmConditionSteps;  // internal

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
    int m_bManualReset CM_GUARDED_BY(m_Mutex);
    int m_bSignaled CM_GUARDED_BY(m_Mutex);
    long m_nWaiters CM_GUARDED_BY(m_Mutex);
};

/// A counting semaphore within the process.
class CM_UTIL_EXPORT CCmSemaphore {
  public:
    /// Only aInitialCount is used: 0 to INT_MAX.
    explicit CCmSemaphore(long aInitialCount = 1, const char* aName = nullptr,
                          long aMaximumCount = 0x7FFFFFFF);
    /// Nobody may wait any more.
    ~CCmSemaphore();
    CCmSemaphore(const CCmSemaphore&) = delete;
    CCmSemaphore& operator=(const CCmSemaphore&) = delete;

    /// Takes one, waiting for it. CM_OK, or CM_ERROR_FAILURE (a signal interrupted the wait). A
    /// cancellation point, which takes none.
    CmResult Lock();
    /// Gives one back. CM_OK or CM_ERROR_FAILURE.
    CmResult UnLock();
    /// Gives aCount; a count below 1 gives none and returns CM_OK. Stops at the first failure
    /// with CM_ERROR_FAILURE.
    CmResult PostN(long aCount);

  private:
    CmPlatformSemaphore m_Semaphore;
};

/// A counter that names a mutex, which counting does not take: it is atomic by itself. An increment
/// is relaxed, a decrement is acquire-release, so whoever brings the counter to zero sees
/// everything that the other threads did before they decremented.
template <class MutexType>
class CCmAtomicOperationT;

/// The mutex that counters name; one for the process.
extern CM_UTIL_EXPORT CCmMutexThread s_ReferenceControlMutexThread;

/// The counter of several threads. Any thread. As if a mutex were held: who counts comes after all
/// that others did before they counted.
template <>
class CCmAtomicOperationT<CCmMutexThread> {
  public:
    /// aMutex: not owned.
    explicit CCmAtomicOperationT(long aValue = 0,
                                 CCmMutexThread& aMutex = s_ReferenceControlMutexThread)
        : m_pMutex(&aMutex), m_lValue(aValue) {}
    CCmAtomicOperationT(const CCmAtomicOperationT&) = delete;
    CCmAtomicOperationT& operator=(const CCmAtomicOperationT&) = delete;

    /// Adds one; returns the new value.
    long operator++() { return m_lValue.fetch_add(1, std::memory_order_acq_rel) + 1; }
    /// Takes one; returns the new value.
    long operator--() { return m_lValue.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    /// For reference counts: true, and the value 0, when the caller's reference is the only one.
    /// Nobody else counts then, so no locked instruction is needed; the acquire orders what the
    /// other threads did before they released.
    bool ReleaseOnly() {
        if (m_lValue.load(std::memory_order_acquire) != 1) {
            return false;
        }
        m_lValue.store(0, std::memory_order_relaxed);
        return true;
    }
    /// The count; may be outdated when it is read. Acquire: a holder that finds 1 comes after what
    /// the other holders did before they released, and may change what they have read.
    long value() const { return m_lValue.load(std::memory_order_acquire); }
    /// The mutex that the counter names.
    CCmMutexThread& mutex() const { return *m_pMutex; }

  private:
    CCmMutexThread* m_pMutex;  // not owned; the library does not read it
    CmStd::atomic<long> m_lValue;
};

/// The identity of the calling thread.
CM_UTIL_EXPORT pthread_t GetThreadSelfId();
/// Whether the two are one thread.
CM_UTIL_EXPORT bool IsThreadEqual(pthread_t aLeft, pthread_t aRight);
/// Whether it is the calling thread.
CM_UTIL_EXPORT bool IsEqualCurrentThread(pthread_t aThread);

}  // namespace UTIL_NS

#endif  // CM_CONDITION_VARIABLE_H
