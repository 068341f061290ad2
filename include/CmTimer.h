// CCmTimer: a timer as an object with a callable.
//
//   CCmTimer m_Timer(worker, 20ms, [this](const CCmTimerFiring& aFiring) { Tick(aFiring.m_tvDue);
//   });
#ifndef CM_TIMER_H
#define CM_TIMER_H

#include <utility>

#include "CmBase.h"
#include "CmChrono.h"
#include "CmEvent.h"

namespace UTIL_NS {

// Runs a callable on a worker's thread every aInterval until it ends. Made and ended by any thread;
// one thread at a time uses it. The worker must be there when the timer is made, not when it ends.
//
// Once the destructor (or Cancel) has returned, the callable does not run any more and is
// destroyed. They wait only while the callable itself runs on another thread, not for the worker's
// other events; so they must not be called with a lock that the callable takes. On the worker's own
// thread they cancel at once, inside the callable, too: it is then destroyed when it returns.
//
// The callable takes nothing or a CCmTimerFiring, which says when the firing was due and how many
// periods were missed: those are skipped, and the phase is kept. Which clock counts, what it costs
// and what happens when the worker ends first: see CmPostDelayed.
class CCmTimer {
  public:
    // No timer.
    CCmTimer() = default;
    // aCount: how often it fires in all, 0 for without limit. Result tells whether it was refused.
    template <class Target, class Callable>
    CCmTimer(Target& aWorker, const CCmInterval& aInterval, Callable&& aFunction,
             unsigned int aCount = 0)
        : m_Handle(CmPostTimedT(aWorker, aInterval.Value(), aInterval.Value(), aCount,
                                std::forward<Callable>(aFunction))) {}
    CCmTimer(CCmTimer&& aRight) noexcept = default;
    CCmTimer& operator=(CCmTimer&& aRight) noexcept {
        if (this != &aRight) {
            m_Handle.CancelAndWait();
            m_Handle = std::move(aRight.m_Handle);
        }
        return *this;
    }
    ~CCmTimer() { m_Handle.CancelAndWait(); }

    // CM_OK; CM_ERROR_INVALID_ARG: aInterval is zero or less and aCount not 1; CM_ERROR_NOT_FOUND:
    // no timer; otherwise why CmPostDelayed refused.
    CmResult Result() const { return m_Handle.Result(); }
    // Whether it will fire again or fires; may be outdated when it is read.
    bool IsPending() const { return m_Handle.IsPending(); }
    // As the destructor. CM_OK, or CM_ERROR_NOT_FOUND: it had ended before.
    CmResult Cancel() { return m_Handle.CancelAndWait(); }

  private:
    CCmTimerHandle m_Handle;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_H
