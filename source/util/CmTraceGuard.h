// For code that traces: what keeps errno and cancellation out of it, and locks that are there from
// the start of the program to its end; internal.
#ifndef CM_TRACE_GUARD_H
#define CM_TRACE_GUARD_H

#include <cerrno>

#include "CmCancel.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

// While it lives the thread is not cancelled: a trace line may leave through a destructor, and
// may hold locks. Afterwards errno is as it was.
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

// A lock of tracing's own: usable before any static object is constructed and never destroyed, so
// that lines written while the program starts or ends find it.
template <class LockType>
union CCmEternalLockT {
    constexpr CCmEternalLockT() : m_Lock(CCmStaticInit()) {}
    ~CCmEternalLockT() {}

    LockType m_Lock;
};

}  // namespace UTIL_NS

#endif  // CM_TRACE_GUARD_H
