/// A timer that cancels itself, and the low-resolution clock that is kept with one.
/// \file
#ifndef CM_TIMER_WRAPPER_H
#define CM_TIMER_WRAPPER_H

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmClock.h"
#include "CmConditionVariable.h"
#include "CmTimeValue.h"
#include "CmTimerQueueBase.h"

namespace UTIL_NS {

class CCmTimerWrapperID;

/// What a timer wrapper calls; implemented by its user.
class CM_UTIL_EXPORT CCmTimerWrapperIDSink {
  public:
    /// The timer of aId fired, on the thread of its queue. May schedule and cancel aId, and destroy
    /// it.
    virtual void OnTimer(CCmTimerWrapperID* aId) = 0;
    /// The wrapper neither owns nor deletes its sink; cancel it before the sink ends.
    virtual ~CCmTimerWrapperIDSink();
};

/// One timer of the thread that first schedules it; it stays bound to that thread's timer queue for
/// its life. To be used on that thread only, and destroyed there or, after the thread has ended,
/// while its queue still exists: on a worker's timer queue after Join and before Destory.
///
/// On the timer queue of a worker time is that of the wall clock: set back, it makes the timer late
/// by as much, set forward, it makes it due at once. A calendar queue that the host ticks does not
/// mind.
class CM_UTIL_EXPORT CCmTimerWrapperID : public ICmTimerHandler {
  public:
    /// No timer, and bound to no queue.
    CCmTimerWrapperID();
    CCmTimerWrapperID(const CCmTimerWrapperID&) = delete;
    CCmTimerWrapperID& operator=(const CCmTimerWrapperID&) = delete;

    /// Calls aSink after aInterval and then every aInterval, aCount times in all; 0 is without
    /// limit. aSink: not owned; null is accepted and never called. CM_ERROR_NULL_POINTER: the
    /// calling thread has no timer queue (an error line says so). Otherwise the result of the
    /// queue's ScheduleTimer: CM_ERROR_FOUND when this replaced a pending timer.
    CmResult Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval,
                      unsigned int aCount = 0);
    /// CM_OK: the timer is gone, or Schedule has not been called since the last Cancel.
    /// CM_ERROR_NOT_FOUND: it had ended by itself, or was one with interval zero on a calendar;
    /// either way the sink is not told any more.
    CmResult Cancel();

    /// Called by the queue; aArg is the sink.
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    /// Cancels the timer: the sink is not told any more.
    virtual ~CCmTimerWrapperID();

  private:
    // From Schedule to Cancel, also when the queue refused or the timer ended by itself.
    bool m_bScheduled;
    ICmTimerQueue* m_pTimerQueue;  // not owned; null until the first Schedule
};

/// Keeps a timer of 10 ms on the thread that first asks for the low-resolution clock, which should
/// be one with a timer queue. Lives to the end of the process. Any thread.
class CM_UTIL_EXPORT low_tick_policy::low_tick_generator : public CCmTimerWrapperIDSink {
  public:
    /// The one generator, created by the first call; null when memory ran out (the next call tries
    /// again). No lock of the library's is held while it reads the clock and schedules, so the
    /// first call may also come from a singleton's constructor.
    static low_tick_generator* instance();
    /// Microseconds of the process clock, read afresh.
    static long long now();

    /// Reads the process clock into the copy. Called by the timer.
    void OnTimer(CCmTimerWrapperID* aId) override;

    /// 1; 0 once a generator was created on a thread that could not give it its timer.
    static CmStd::atomic<int> m_InitTimerSucc;

  private:
    CM_UTIL_HIDDEN low_tick_generator();
    CM_UTIL_HIDDEN ~low_tick_generator() override;

    // Published with release by the creator and read with acquire by instance, which orders the
    // construction of the generator before its use.
    static CmStd::atomic<low_tick_generator*> pInstance;
    static CCmMutexThread mutex;  // serialises the creation

    // Microseconds of the process clock when the timer last fired. Required; nobody reads it.
    long long m_llLastTick;
    CCmTimerWrapperID m_Timer;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_WRAPPER_H
