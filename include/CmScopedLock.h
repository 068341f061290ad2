// The guard for the mutexes of CmConditionVariable.h.
#ifndef CM_SCOPED_LOCK_H
#define CM_SCOPED_LOCK_H

#include "CmConditionVariable.h"

namespace UTIL_NS {

// Holds aLock from construction to destruction; unlocks only what it could lock. A lock that
// fails does not stop the caller, who may ask for the result.
//   CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
template <class LockType>
class CM_SCOPED_CAPABILITY CCmScopedLockT {
  public:
    // aLock: not owned; must outlive the guard.
    explicit CCmScopedLockT(LockType& aLock) CM_ACQUIRE(aLock)
        : m_Lock(aLock), m_Result(aLock.Lock()) {}
    ~CCmScopedLockT() CM_RELEASE() {
        if (CM_SUCCEEDED(m_Result)) {
            m_Lock.UnLock();
        }
    }
    CCmScopedLockT(const CCmScopedLockT&) = delete;
    CCmScopedLockT& operator=(const CCmScopedLockT&) = delete;

    // That of Lock.
    CmResult result() const { return m_Result; }

  private:
    LockType& m_Lock;
    CmResult m_Result;
};

}  // namespace UTIL_NS

#endif  // CM_SCOPED_LOCK_H
