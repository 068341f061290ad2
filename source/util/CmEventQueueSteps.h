// What the library does with event queues beyond their public operations; internal.
#ifndef CM_EVENT_QUEUE_STEPS_H
#define CM_EVENT_QUEUE_STEPS_H

#include <list>

#include "CmAtomic.h"
#include "CmBase.h"

namespace UTIL_NS {

class CCmEventQueueBase;
class CCmEventQueueUsingConditionVariable;
class CCmMutexThread;
class ICmEvent;
class ICmEventQueue;

class CCmEventQueueSteps {
  public:
    // Whether the calling thread is the consumer of aQueue. A queue that is not the library's own
    // counts as that of the registered thread that has it. CmEvent.cpp.
    static bool IsOwnThread(ICmEventQueue& aQueue);

    // For a loop that waits by the monotonic clock: PopOrWaitPendingEvents up to a moment of it, in
    // nanoseconds (null: no limit).
    static CmResult PopOrWaitUntil(CCmEventQueueUsingConditionVariable& aQueue,
                                   std::list<ICmEvent*>& aEvents, const long long* aDeadlineNsec,
                                   DWORD aMaxCount);
    // ProcessAndRecycleEvents until aStop becomes true; events that have not begun then go back to
    // the head of the queue.
    static void ProcessUntilStopped(CCmEventQueueUsingConditionVariable& aQueue,
                                    std::list<ICmEvent*>& aEvents,
                                    const CmStd::atomic<bool>& aStop);

    // Defined and used in CmEventQueueBase.cpp alone.
    class CPosting;
    class CPass;
    template <class IteratorType, class LeaveType>
    static void Run(CCmEventQueueBase& aQueue, IteratorType aNext, IteratorType aEnd,
                    const CmStd::atomic<bool>* aStop, LeaveType aLeave);
    static void DestroyPending(CCmEventQueueBase& aQueue, CCmMutexThread& aMutex);
};

}  // namespace UTIL_NS

#endif  // CM_EVENT_QUEUE_STEPS_H
