// For code that traces: a guard of errno and against cancellation, and locks that can be used
// before main and while the program exits; internal.
#ifndef CM_TRACE_GUARD_H
#define CM_TRACE_GUARD_H

#include <cerrno>

#include "CmCancel.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

// While it lives the thread is not cancelled: lines are written in destructors, from which nothing
// may be thrown, and with locks held. Its destructor restores errno.
class CCmTraceGuard {
  public:
    CCmTraceGuard() = default;
    CCmTraceGuard(const CCmTraceGuard&) = delete;
    CCmTraceGuard& operator=(const CCmTraceGuard&) = delete;

  private:
    struct CErrno {
        CErrno() : m_nErrno(errno) {}
        ~CErrno() { errno = m_nErrno; }
        CErrno(const CErrno&) = delete;
        CErrno& operator=(const CErrno&) = delete;

        const int m_nErrno;
    };

    CErrno m_Errno;  // restored last
    CCmDisableCancel m_DisableCancel;
};

// A lock of tracing's own: constant-initialised and never destroyed, so that lines may be written
// while static objects are constructed and destroyed.
template <class LockType>
union CCmEternalLockT {
    constexpr CCmEternalLockT() : m_Lock(CCmStaticInit()) {}
    ~CCmEternalLockT() {}

    LockType m_Lock;
};

}  // namespace UTIL_NS

#endif  // CM_TRACE_GUARD_H
