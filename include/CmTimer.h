/// CCmTimer: a timer as an object with a callable; and what is due when, for a timer with a sink.
///
///     CCmTimer m_Timer(worker, 20ms, [this](const CCmTimerFiring& aFiring) {
///         Tick(aFiring.m_tvDue);
///     });
/// \file
#ifndef CM_TIMER_H
#define CM_TIMER_H

#include <utility>

#include "CmBase.h"
#include "CmChrono.h"
#include "CmEvent.h"
#include "CmTimeValue.h"
#include "CmTimerWrapper.h"

namespace UTIL_NS {

/// Runs a callable on a worker's thread every aInterval until it ends. Made and ended by any
/// thread; one thread at a time uses it. The worker must be there when the timer is made, not when
/// it ends.
///
/// Once the destructor (or Cancel) has returned, the callable does not run any more and is
/// destroyed. They wait only while the callable itself runs on another thread, not for the worker's
/// other events; so they must not be called with a lock that the callable takes. On the worker's
/// own thread they cancel at once, inside the callable, too: it is then destroyed when it returns.
///
/// The callable takes nothing or a CCmTimerFiring, which says when the firing was due and how many
/// periods were missed: those are skipped, and the phase is kept. Which clock counts, what it costs
/// and what happens when the worker ends first: see CmPostDelayed.
class CCmTimer {
  public:
    /// No timer.
    CCmTimer() = default;
    /// aCount: how often it fires in all, 0 for without limit. Result tells whether it was refused.
    template <class Target, class Callable>
    CCmTimer(Target& aWorker, const CCmInterval& aInterval, Callable&& aFunction,
             unsigned int aCount = 0)
        : m_Handle(CmPostTimedT(aWorker, aInterval.Value(), aInterval.Value(), aCount,
                                std::forward<Callable>(aFunction))) {}
    /// The timer goes on in the new object; aRight has none.
    CCmTimer(CCmTimer&& aRight) noexcept = default;
    /// Ends what it had as the destructor does; then as the constructor.
    CCmTimer& operator=(CCmTimer&& aRight) noexcept {
        if (this != &aRight) {
            m_Handle.CancelAndWait();
            m_Handle = std::move(aRight.m_Handle);
        }
        return *this;
    }
    /// Ends the timer: see above.
    ~CCmTimer() { m_Handle.CancelAndWait(); }

    /// CM_OK; CM_ERROR_INVALID_ARG: aInterval is zero or less and aCount not 1; CM_ERROR_NOT_FOUND:
    /// no timer; otherwise why CmPostDelayed refused.
    CmResult Result() const { return m_Handle.Result(); }
    /// Whether it will fire again or fires; may be outdated when it is read.
    bool IsPending() const { return m_Handle.IsPending(); }
    /// As the destructor. CM_OK, or CM_ERROR_NOT_FOUND: it had ended before.
    CmResult Cancel() { return m_Handle.CancelAndWait(); }

  private:
    CCmTimerHandle m_Handle;
};

/// A CCmTimerWrapperID that tells its sink, in OnTimer, what is due when: GetDueTime and the others
/// are about the firing that OnTimer is called for. All else is as in its base; Schedule must be
/// called through this class. Times are those of the wall clock.
class CCmDueTimerWrapperID : public CCmTimerWrapperID {
  public:
    /// Schedules as the base does, and notes when the timer is due.
    CmResult Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval,
                      unsigned int aCount = 0) {
        m_tvInterval = aInterval;
        m_tvNext = CCmTimeValue::GetTimeOfDay() + aInterval;
        return CCmTimerWrapperID::Schedule(aSink, aInterval, aCount);
    }

    /// When the timer was due, up to the microseconds that Schedule took; the last of the periods
    /// that have passed.
    const CCmTimeValue& GetDueTime() const { return m_tvDue; }
    /// When the queue began its pass over the timers.
    const CCmTimeValue& GetCurrentTime() const { return m_tvCurrent; }
    /// How many periods were skipped since the last firing.
    unsigned long GetMissed() const { return m_ulMissed; }

    /// Called by the queue.
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override {
        m_tvCurrent = aCurTime;
        m_tvDue = m_tvNext;
        m_ulMissed = 0;
        if (m_tvInterval > CCmTimeValue()) {
            if (aCurTime > m_tvDue) {
                const auto interval = CmToChrono(m_tvInterval).count();
                m_ulMissed =
                    static_cast<unsigned long>(CmToChrono(aCurTime - m_tvDue).count() / interval);
                m_tvDue += CmFromChrono(
                    std::chrono::microseconds(static_cast<int64_t>(m_ulMissed) * interval));
            }
            m_tvNext = m_tvDue + m_tvInterval;
        }
        CCmTimerWrapperID::OnTimeout(aCurTime, aArg);  // last: the sink may destroy this
    }

  private:
    CCmTimeValue m_tvInterval;
    CCmTimeValue m_tvNext;
    CCmTimeValue m_tvDue;
    CCmTimeValue m_tvCurrent;
    unsigned long m_ulMissed = 0;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_H
