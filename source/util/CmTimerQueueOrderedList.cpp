#include "CmTimerQueueOrderedList.h"

#include "CmTrace.h"

namespace UTIL_NS {

CCmTimerQueueOrderedList::CCmTimerQueueOrderedList(ICmObserver* aObserver)
    : CCmTimerQueueBase(aObserver) {}

CCmTimerQueueOrderedList::~CCmTimerQueueOrderedList() = default;

int CCmTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    NodesType::iterator itPlace = m_Nodes.end();
    NodesType::iterator itOld = m_Nodes.end();
    for (auto it = m_Nodes.begin(); it != m_Nodes.end(); ++it) {
        if (it->m_pEh == aNode.m_pEh) {
            itOld = it;
        } else if (itPlace == m_Nodes.end() && it->m_tvExpired >= aNode.m_tvExpired) {
            itPlace = it;
        }
        if (itOld != m_Nodes.end() && itPlace != m_Nodes.end()) {
            break;
        }
    }
    if (itOld == m_Nodes.end()) {
        m_Nodes.insert(itPlace, aNode);
        return 0;
    }
    *itOld = aNode;
    m_Nodes.splice(itPlace, m_Nodes, itOld);
    return 1;
}

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    for (auto it = m_Nodes.begin(); it != m_Nodes.end(); ++it) {
        if (it->m_pEh == aEh) {
            m_Nodes.erase(it);
            return 0;
        }
    }
    return 1;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    auto it = m_Nodes.begin();
    while (it != m_Nodes.end() && it->m_tvExpired < aNode.m_tvExpired) {
        ++it;
    }
    m_Nodes.insert(it, aNode);
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    CM_ASSERTE_RETURN_LINE(!m_Nodes.empty(), -1, 35);
    aNode = m_Nodes.front();
    m_Nodes.pop_front();
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
