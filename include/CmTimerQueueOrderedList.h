/// A timer queue kept as a list in the order of expiry; the queue of the library's task threads.
/// \file
#ifndef CM_TIMER_QUEUE_ORDERED_LIST_H
#define CM_TIMER_QUEUE_ORDERED_LIST_H

#include <list>

#include "CmPrivateRoom.h"
#include "CmTimerQueueBase.h"

namespace UTIL_NS {

/// Cancelling and firing take the same time however many timers are pending. So does scheduling at
/// either end of the list; a place in between is reached by a walk from the nearer end and, when
/// 128 or more are pending, by a search whose time grows, on average, with the logarithm of how
/// many different times there are. Of timers due at the same time, the one scheduled or re-armed
/// last fires first. The queue keeps the memory of as many timers as were ever pending at a time,
/// so that it allocates nothing in its steady state; for want of memory the search falls back to a
/// walk.
///
/// What finds handlers and places is kept beside the list. A derived class therefore changes the
/// pending timers through the primitives below alone, or overrides all five of them and keeps its
/// timers itself.
class CM_UTIL_EXPORT CCmTimerQueueOrderedList : public CCmTimerQueueBase {
  public:
    /// Bound to the calling thread. aObserver: may be null, not owned.
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver);
    /// Drops what is pending and calls no handler.
    ~CCmTimerQueueOrderedList() override;

  protected:
    /// Inserts aNode where its time belongs, in place of its handler's node: 0, or 1 when there was
    /// one. Throws std::bad_alloc only when there was none.
    int PushNode_l(const CNode& aNode) override;
    /// Removes the node of a handler: 0, or 1 when there is none. Its memory is kept for others.
    int EraseNode_l(ICmTimerHandler* aEh) override;
    /// Inserts a node whose handler has none: 0. Throws std::bad_alloc when no node was popped or
    /// erased before.
    int RePushNode_l(const CNode& aNode) override;
    /// Moves the first node to aNode: 0, or -1, with an assertion line, when the queue is empty.
    int PopFirstNode_l(CNode& aNode) override;
    /// When the first node is due: 0, or -1 when the queue is empty.
    int GetEarliestTime_l(CCmTimeValue& aTime) const override;

  private:
    class COrderedListState;  // internal

    std::list<CNode> m_Nodes;  // ascending m_tvExpired, handlers unique
    CCmPrivateRoomT<COrderedListState, 240> m_Private;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_ORDERED_LIST_H
