/// A timer queue kept as a list in the order of expiry; the queue of the library's task threads.
/// \file
#ifndef CM_TIMER_QUEUE_ORDERED_LIST_H
#define CM_TIMER_QUEUE_ORDERED_LIST_H

#include <list>

#include "CmPrivateRoom.h"
#include "CmTimerQueueBase.h"

namespace UTIL_NS {

/// Scheduling walks the list from its nearer end to the timer's place; cancelling and firing take
/// the same time however many timers are pending. Of timers due at the same time, the one scheduled
/// or re-armed last fires first. The queue keeps the memory of as many timers as were ever pending
/// at a time, so that it allocates nothing in its steady state.
class CM_UTIL_EXPORT CCmTimerQueueOrderedList : public CCmTimerQueueBase {
  public:
    /// Bound to the calling thread. aObserver: may be null, not owned.
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver);
    /// Drops what is pending and calls no handler.
    ~CCmTimerQueueOrderedList() override;

  protected:
    /// As the base says. Throws std::bad_alloc only for a handler that has no node.
    int PushNode_l(const CNode& aNode) override;
    /// As the base says.
    int EraseNode_l(ICmTimerHandler* aEh) override;
    /// As the base says. Throws std::bad_alloc when no node was popped or erased before.
    int RePushNode_l(const CNode& aNode) override;
    /// As the base says; on an empty queue an assertion line is written.
    int PopFirstNode_l(CNode& aNode) override;
    /// As the base says.
    int GetEarliestTime_l(CCmTimeValue& aTime) const override;

  private:
    class CState;  // internal

    std::list<CNode> m_Nodes;  // ascending m_tvExpired, handlers unique
    CCmPrivateRoomT<CState, 240> m_Private;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_ORDERED_LIST_H
