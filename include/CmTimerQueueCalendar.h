/// A timer queue for many coarse timers: a wheel of slots that the host advances.
/// \file
#ifndef CM_TIMER_QUEUE_CALENDAR_H
#define CM_TIMER_QUEUE_CALENDAR_H

#include <map>

#include "CmBase.h"
#include "CmEventQueueBase.h"
#include "CmPrivateRoom.h"
#include "CmTimeValue.h"
#include "CmTimerQueueBase.h"
#include "CmUtilClasses.h"

namespace UTIL_NS {

/// One timer of the calendar queue, in the chain of its slot. ValueType: pointer to the handler.
template <class ValueType>
struct CCmTimerQueueCalendarSlotT {
    CCmTimerQueueCalendarSlotT* m_pNext = nullptr;  ///< in the chain, null at its end
    ValueType m_pEh = nullptr;                      ///< whose timer it is; not owned
    void* m_pToken = nullptr;                       ///< handed back in OnTimeout
    CCmTimeValue m_tvInterval;                      ///< as it was scheduled
    DWORD m_dwCount = 0;                            ///< firings left
};

/// Scheduling and cancelling cost a look-up of the handler and a walk along the chain of one slot,
/// however many timers are pending; entering a handler that had no timer takes a walk down an
/// ordered map, too. Time passes only by TimerTick: the host calls it once per slot interval, with
/// a timer of its own. Everything runs on the thread of the event queue.
///
/// An interval is rounded up to whole slots, d of them; scheduled between ticks, the timer fires on
/// the d-th tick after the next one. A periodic timer is re-armed from the tick that fired it; its
/// interval must lie between one slot and the wheel's span, since one that comes back to the slot
/// being fired fires again and again within the same tick. An interval beyond the span is shortened
/// with an error line: to the last slot while the wheel stands at slot 0, to the next tick
/// otherwise. A distance that runs past the last slot starts again at slot 1.
///
/// A timer with interval zero bypasses the wheel: it fires once, whatever its count, when the event
/// queue next runs the event that this queue posts of itself, and so do those scheduled meanwhile,
/// the newest first: a handler that always schedules itself anew with interval zero is called
/// without end there.
class CM_UTIL_EXPORT CCmTimerQueueCalendar : public ICmTimerQueue, public ICmEvent {
  public:
    /// aSlotInterval: milliseconds, at least 10 are taken. aMaxTime: the wheel's span in
    /// milliseconds; the wheel has at least 11 slots. aEventQueue: not owned; null stands for that
    /// of the calling thread.
    CCmTimerQueueCalendar(unsigned int aSlotInterval, unsigned int aMaxTime,
                          ICmEventQueue* aEventQueue = nullptr);
    /// Drops what is pending and calls no handler. To be called on the event queue's thread, when
    /// no event of this queue is pending there.
    ~CCmTimerQueueCalendar() override;
    CCmTimerQueueCalendar(const CCmTimerQueueCalendar&) = delete;
    CCmTimerQueueCalendar& operator=(const CCmTimerQueueCalendar&) = delete;

    /// aCount 0 repeats for 2^32 - 1 firings. Any interval is taken with any count.
    /// CM_OK: scheduled.
    /// CM_ERROR_FOUND: scheduled, in place of a timer in the wheel. Where the new one has interval
    /// zero and is the first of those to be pending, so that the event is posted: CM_OK.
    /// CM_ERROR_INVALID_ARG: aEh is null.
    /// CM_ERROR_OUT_OF_MEMORY: nothing changed (or the wheel could not be allocated at all).
    /// The result of the event queue that refused the event, CM_ERROR_NULL_POINTER when there is
    /// none: an interval of zero only; a timer that aEh had has ended.
    ///
    /// A timer in the wheel that is rescheduled to zero remains known as one of the wheel: until
    /// its handler is scheduled with an interval again and that timer ends, CancelTimer does not
    /// find its zero timers and scheduling does not replace them. A timer wrapper ends them itself.
    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aToken, const CCmTimeValue& aInterval,
                           unsigned int aCount) override;
    /// CM_OK: the timer was in the wheel and is gone. CM_ERROR_NOT_FOUND: it was not; a pending
    /// timer with interval zero, though, has been dropped. CM_ERROR_INVALID_ARG: aEh is null.
    CmResult CancelTimer(ICmTimerHandler* aEh) override;
    /// Fires the current slot and advances by one. A timer is re-armed, or gone if this was its
    /// last firing, before its handler runs.
    void TimerTick();

    /// Fires the pending timers with interval zero, also those that their handlers add. CM_OK.
    CmResult OnEventFire() override;
    /// Does nothing: the event queue does not own this queue.
    void OnDestorySelf() override;

  private:
    typedef CCmTimerQueueCalendarSlotT<ICmTimerHandler*> CCalendarNode;
    class CCalendarState;  // internal

    void InsertUnique_i(const CCmTimeValue& aInterval, CCalendarNode* aNode);
    CCalendarNode* RemoveUniqueHandler_i(ICmTimerHandler* aEh);
    CCalendarNode* RemoveUniqueSlot_i(DWORD aSlot, ICmTimerHandler* aEh);

    CCmEnsureSingleThread m_Est;
    DWORD m_dwInterval;            // of a slot, milliseconds
    CCalendarNode** m_ppSlots;     // m_dwMaxSlotNumber + 1 chains, owned; null: out of memory
    DWORD m_dwMaxSlotNumber;       // the last slot
    DWORD m_dwCurrentSlot;         // what the next TimerTick fires
    ICmEventQueue* m_pEventQueue;  // not owned
    CCalendarNode* m_pEvents;      // the timers with interval zero
    // Of every handler that is known as one of the wheel, its slot.
    std::map<ICmTimerHandler*, DWORD> m_Handlers;
    CCmPrivateRoomT<CCalendarState, 240> m_Private;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_CALENDAR_H
