#include "CmTimerQueueOrderedList.h"

#include <iterator>
#include <type_traits>

#include "CmPrivateState.h"
#include "CmTimerIndex.h"
#include "CmTimerSpares.h"
#include "CmTrace.h"

namespace UTIL_NS {

class CM_UTIL_HIDDEN CCmTimerQueueOrderedList::COrderedListState {
  public:
    CCmTimerHandlerIndexT<std::list<CNode>::iterator> m_Index;  // of the nodes of m_Nodes
    CCmSpareListNodesT<CNode> m_Spares;
};

namespace {

// The place of a new node: before the first one that is not due earlier, so that among equals the
// newest fires first. Searched from both ends at once: a place near either takes few steps.
template <class ListType>
typename ListType::iterator FindPlace(ListType& aNodes, const CCmTimeValue& aExpired) {
    auto itFront = aNodes.begin();
    auto itBack = aNodes.end();
    // What lies before itFront is due before aExpired, what lies from itBack on is not.
    while (itFront != itBack) {
        if (itFront->m_tvExpired >= aExpired) {
            return itFront;
        }
        ++itFront;
        if (itFront == itBack || std::prev(itBack)->m_tvExpired < aExpired) {
            break;
        }
        --itBack;
    }
    return itBack;
}

}  // namespace

CCmTimerQueueOrderedList::CCmTimerQueueOrderedList(ICmObserver* aObserver)
    : CCmTimerQueueBase(aObserver) {
    static_assert(std::is_nothrow_default_constructible_v<COrderedListState>,
                  "needs no memory yet");
    CCmPrivateRoom::Make(m_Private);
}

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() {
    CCmPrivateRoom::End(m_Private);
}

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    if (const auto* pPlace = state.m_Index.Find(aNode.m_pEh)) {
        // Insert uses the list node that Keep took last, so the index still points to it.
        state.m_Spares.Keep(m_Nodes, *pPlace);
        state.m_Spares.Insert(m_Nodes, FindPlace(m_Nodes, aNode.m_tvExpired), aNode);
        return 1;
    }
    return CCmTimerQueueOrderedList::RePushNode_l(aNode);
}

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    const auto* pPlace = state.m_Index.Find(aEh);
    if (pPlace == nullptr) {
        return 1;
    }
    state.m_Spares.Keep(m_Nodes, *pPlace);
    state.m_Index.Erase(aEh);
    return 0;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    // All memory is taken before anything changes; after a pop none is needed.
    state.m_Index.Reserve();
    state.m_Spares.Reserve();
    const auto itPlace = FindPlace(m_Nodes, aNode.m_tvExpired);
    state.m_Index.Insert(aNode.m_pEh, state.m_Spares.Insert(m_Nodes, itPlace, aNode));
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    CM_ASSERTE_RETURN_LINE(!m_Nodes.empty(), -1, 35);
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    aNode = m_Nodes.front();
    state.m_Index.Erase(aNode.m_pEh);
    state.m_Spares.Keep(m_Nodes, m_Nodes.begin());
    return 0;
}

int CCmTimerQueueOrderedList::GetEarliestTime_l(CCmTimeValue& aTime) const {
    if (m_Nodes.empty()) {
        return -1;
    }
    aTime = m_Nodes.front().m_tvExpired;
    return 0;
}

}  // namespace UTIL_NS
