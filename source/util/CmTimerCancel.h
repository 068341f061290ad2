// How a timer wrapper cancels its timer; internal.
#ifndef CM_TIMER_CANCEL_H
#define CM_TIMER_CANCEL_H

#include "CmTimerQueueBase.h"

namespace UTIL_NS {

// Calls CancelTimer of aQueue, which may be of any class, and returns its result. A calendar then
// also drops timers of aEh with interval zero, which its CancelTimer leaves otherwise: aEh is not
// called any more.
CmResult CancelForGood(ICmTimerQueue& aQueue, ICmTimerHandler* aEh);

}  // namespace UTIL_NS

#endif  // CM_TIMER_CANCEL_H
