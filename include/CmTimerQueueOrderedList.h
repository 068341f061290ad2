/// A timer queue kept as a list in the order of expiry; the queue of the library's task threads.
/// \file
#ifndef CM_TIMER_QUEUE_ORDERED_LIST_H
#define CM_TIMER_QUEUE_ORDERED_LIST_H

#include <list>
#include <memory>

#include "CmTimerQueueBase.h"

namespace UTIL_NS {

/// Scheduling walks the list from its nearer end to the timer's place; cancelling and firing take
/// the same time however many timers are pending. Of timers due at the same time, the one scheduled
/// or re-armed last fires first. The destructor drops what is pending and calls no handler. The
/// queue keeps the memory of as many timers as were ever pending at a time, so that it allocates
/// nothing in its steady state.
class CM_UTIL_EXPORT CCmTimerQueueOrderedList : public CCmTimerQueueBase {
  public:
    /// Bound to the calling thread. aObserver: may be null, not owned.
    explicit CCmTimerQueueOrderedList(ICmObserver* aObserver);
    ~CCmTimerQueueOrderedList() override;

  protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ICmTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    /// On an empty queue an assertion line is written.
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(CCmTimeValue& aTime) const override;

  private:
    typedef std::list<CNode> NodesType;

    NodesType::iterator FindPlace_l(const CCmTimeValue& aExpired);
    NodesType::iterator InsertSpare_l(const CNode& aNode);

    NodesType m_Nodes;  ///< ascending m_tvExpired, handlers unique
    CCmTimerHandlerIndexT<NodesType::iterator> m_Index;
    /// List nodes for coming timers; null before the first one. Only a pointer: the size of this
    /// object is part of the binary interface.
    std::unique_ptr<NodesType> m_pSpares;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_ORDERED_LIST_H
