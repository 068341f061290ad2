// How a timer wrapper ends its timer; internal.
#ifndef CM_TIMER_CANCEL_H
#define CM_TIMER_CANCEL_H

#include "CmTimerQueueBase.h"

namespace UTIL_NS {

// CancelTimer of aQueue, of whatever class, with its result. A calendar that is called by it also
// drops those timers of aEh with interval zero that its CancelTimer does not find: aEh is not
// called any more.
CmResult CancelForGood(ICmTimerQueue& aQueue, ICmTimerHandler* aEh);

}  // namespace UTIL_NS

#endif  // CM_TIMER_CANCEL_H
