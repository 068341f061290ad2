#include "CmTimerQueueOrderedList.h"

#include <iterator>

#include "CmTrace.h"

namespace UTIL_NS {

CCmTimerQueueOrderedList::CCmTimerQueueOrderedList(ICmObserver* aObserver)
    : CCmTimerQueueBase(aObserver) {}

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() = default;

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    if (const NodesType::iterator* pPlace = m_Index.Find(aNode.m_pEh)) {
        m_pSpares->splice(m_pSpares->begin(), m_Nodes, *pPlace);
        InsertSpare_l(aNode);  // the same list node: its place in the index holds
        return 1;
    }
    return CCmTimerQueueOrderedList::RePushNode_l(aNode);
}

// Puts the first spare list node into its place as aNode; there must be one.
CCmTimerQueueOrderedList::NodesType::iterator CCmTimerQueueOrderedList::InsertSpare_l(
    const CNode& aNode) {
    const auto itNode = m_pSpares->begin();
    *itNode = aNode;
    m_Nodes.splice(FindPlace_l(aNode.m_tvExpired), *m_pSpares, itNode);
    return itNode;
}

// The first node that is not due before aExpired; looked for from both ends at once.
CCmTimerQueueOrderedList::NodesType::iterator CCmTimerQueueOrderedList::FindPlace_l(
    const CCmTimeValue& aExpired) {
    auto itFront = m_Nodes.begin();
    auto itBack = m_Nodes.end();
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

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    const NodesType::iterator* pPlace = m_Index.Find(aEh);
    if (pPlace == nullptr) {
        return 1;
    }
    m_pSpares->splice(m_pSpares->begin(), m_Nodes, *pPlace);
    m_Index.Erase(aEh);
    return 0;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    // Allocates nothing after a pop.
    m_Index.Reserve();
    if (CM_UNLIKELY(m_pSpares == nullptr)) {
        m_pSpares = std::make_unique<NodesType>();
    }
    if (m_pSpares->empty()) {
        m_pSpares->emplace_front();
    }
    m_Index.Insert(aNode.m_pEh, InsertSpare_l(aNode));
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    CM_ASSERTE_RETURN_LINE(!m_Nodes.empty(), -1, 35);
    aNode = m_Nodes.front();
    m_Index.Erase(aNode.m_pEh);
    m_pSpares->splice(m_pSpares->begin(), m_Nodes, m_Nodes.begin());
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
