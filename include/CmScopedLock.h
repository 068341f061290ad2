/// The guard for the mutexes of CmConditionVariable.h.
/// \file
#ifndef CM_SCOPED_LOCK_H
#define CM_SCOPED_LOCK_H

#include "CmConditionVariable.h"

namespace UTIL_NS {

/// Holds aLock from construction to destruction, or to Unlock; unlocks only what it could lock. A
/// lock that fails does not stop the caller, who may ask for the result.
///
///     CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
template <class LockType>
class CM_SCOPED_CAPABILITY CCmScopedLockT {
  public:
    /// aLock: not owned; must outlive the guard.
    explicit CCmScopedLockT(LockType& aLock) CM_ACQUIRE(aLock)
        : m_Lock(aLock), m_Result(aLock.Lock()), m_bHeld(CM_SUCCEEDED(m_Result)) {}
    /// Unlocks what is still held.
    ~CCmScopedLockT() CM_RELEASE() { GiveBack(); }
    CCmScopedLockT(const CCmScopedLockT&) = delete;
    CCmScopedLockT& operator=(const CCmScopedLockT&) = delete;

    /// What Lock returned.
    CmResult result() const { return m_Result; }
    /// Unlocks before the end of the scope; the destructor does nothing then.
    void Unlock() CM_RELEASE() { GiveBack(); }

  private:
    void GiveBack() CM_NO_THREAD_SAFETY_ANALYSIS {
        if (m_bHeld) {
            m_bHeld = false;
            m_Lock.UnLock();
        }
    }

    LockType& m_Lock;
    CmResult m_Result;
    bool m_bHeld;
};

}  // namespace UTIL_NS

#endif  // CM_SCOPED_LOCK_H
