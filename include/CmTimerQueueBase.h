/// Timers of one thread: the interfaces, and the scheduling rules that queues of nodes share.
/// \file
#ifndef CM_TIMER_QUEUE_BASE_H
#define CM_TIMER_QUEUE_BASE_H

#include "CmBase.h"
#include "CmPrivateRoom.h"
#include "CmTimeValue.h"
#include "CmUtilClasses.h"

namespace UTIL_NS {

/// What a timer calls; implemented by its user. A timer is identified by its handler alone: one
/// handler has at most one pending timer in a queue. A queue never owns a handler; a handler
/// cancels its timer before it is destroyed. An implementation should be final or have a virtual
/// destructor of its own: the one here is not.
class ICmTimerHandler {
  public:
    /// The timer fired. aCurTime: when the queue began this pass over its timers, not when this one
    /// was due. aArg: the token that the timer was scheduled with. Runs on the queue's thread with
    /// nothing held; may schedule and cancel any timer of the queue, its own included, but must not
    /// destroy the queue.
    virtual void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) = 0;

  protected:
    /// A queue never deletes a handler.
    ~ICmTimerHandler() = default;
};

/// A timer queue belongs to one thread, which alone schedules, cancels and fires; there is no lock.
/// Other threads reach it by posting an event to that thread.
class ICmTimerQueue {
  public:
    /// Fires aEh after aInterval, and then every aInterval until it has fired aCount times; aCount
    /// 0 repeats without limit. aToken is handed back and not looked at. A pending timer of aEh is
    /// replaced. CM_OK; CM_ERROR_FOUND: scheduled, in place of a pending one; anything else: not
    /// scheduled, as the queue's class says.
    virtual CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aToken,
                                   const CCmTimeValue& aInterval, unsigned int aCount) = 0;
    /// Drops the timer of aEh; no handler is called. CM_OK; CM_ERROR_NOT_FOUND: it has none;
    /// CM_ERROR_INVALID_ARG: null.
    virtual CmResult CancelTimer(ICmTimerHandler* aEh) = 0;
    /// Drops what is pending and calls no handler.
    virtual ~ICmTimerQueue() = default;
};

/// Whoever must be woken when a queue gets its first timer.
class ICmObserver {
  public:
    /// aTopic: "TimerQueue". aData: null. The result is not looked at.
    virtual int OnObserve(const char* aTopic, void* aData) = 0;

  protected:
    /// A queue never deletes its observer.
    ~ICmObserver() = default;
};

/// The scheduling rules: validation, expiry, repeat counts, re-arming, the wake-up of the observer.
/// Where the pending timers are kept is left to the primitives of a derived queue. Times are
/// wall-clock times: when the clock is set back, timers are late by as much and none is lost.
class CM_UTIL_EXPORT CCmTimerQueueBase : public ICmTimerQueue {
  public:
    /// Bound to the calling thread. aObserver: may be null, not owned.
    explicit CCmTimerQueueBase(ICmObserver* aObserver);
    /// On the queue's thread, or after that has ended.
    ~CCmTimerQueueBase() override;
    CCmTimerQueueBase(const CCmTimerQueueBase&) = delete;
    CCmTimerQueueBase& operator=(const CCmTimerQueueBase&) = delete;

    /// CM_OK: scheduled.
    /// CM_ERROR_FOUND: scheduled, in place of the timer that aEh had.
    /// CM_ERROR_INVALID_ARG: aEh is null; or aInterval is zero or negative and aCount is not 1.
    /// CM_ERROR_OUT_OF_MEMORY: nothing changed. Cannot happen when aEh has a pending timer.
    /// The observer is told when the queue was empty before.
    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aToken, const CCmTimeValue& aInterval,
                           unsigned int aCount) override;
    /// CM_OK; CM_ERROR_NOT_FOUND: aEh has no timer; CM_ERROR_INVALID_ARG: aEh is null.
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    /// Fires every timer that is due, each at most once, and returns how many it fired. A periodic
    /// timer that missed periods fires once and keeps its phase. It is re-armed before its handler
    /// runs; a timer that fires for the last time is gone before. aRemainTime: null, or receives
    /// the time until the next timer is due, s_tvMax when there is none.
    unsigned int CheckExpire(CCmTimeValue* aRemainTime = nullptr);

    /// When the next timer is due (absolute), s_tvMax when there is none.
    CCmTimeValue GetEarliestTime() const;

  protected:
    /// A timer that repeats without limit.
    static constexpr DWORD UNLIMITED_COUNT = 0xFFFFFFFF;

    /// One pending timer.
    struct CNode {
        ICmTimerHandler* m_pEh = nullptr;  ///< whose timer it is; not owned
        void* m_pToken = nullptr;          ///< handed back in OnTimeout
        CCmTimeValue m_tvExpired;          ///< when it is due, absolute
        CCmTimeValue m_tvInterval;         ///< zero or negative only when one firing is left
        DWORD m_dwCount = 0;               ///< firings left, or UNLIMITED_COUNT
    };

    // Where the nodes are kept: what a derived queue supplies. Called with an aEh that is not null.

    /// Inserts a node in place of the one with the same handler: 0, or 1 when there was one. Any
    /// other value means failure. May throw std::bad_alloc, having changed nothing.
    virtual int PushNode_l(const CNode& aNode) = 0;
    /// Removes the node of a handler: 0, or 1 when there is none.
    virtual int EraseNode_l(ICmTimerHandler* aEh) = 0;
    /// Inserts a node whose handler has none: 0. Follows PopFirstNode_l and must not fail: it uses
    /// the memory of the node that was popped.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    /// Moves the node that is due first to aNode: 0, or -1 when the queue is empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    /// When the first node is due: 0, or -1 when the queue is empty.
    virtual int GetEarliestTime_l(CCmTimeValue& aTime) const = 0;

  private:
    CCmEnsureSingleThread m_Est;
    ICmObserver* m_pObserver;                               // not owned
    [[maybe_unused]] CCmPrivateRoomT<void, 128> m_Private;  // for later versions
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_BASE_H
