#include "CmTimerQueueOrderedList.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "CmPrivateState.h"
#include "CmTimerIndex.h"
#include "CmTimerMarks.h"
#include "CmTimerSpares.h"
#include "CmTrace.h"

namespace UTIL_NS {

// Keeps the list, and finds places in it.
class CM_UTIL_HIDDEN CCmTimerQueueOrderedList::COrderedListState {
  public:
    typedef std::list<CNode> ListType;
    typedef ListType::iterator Iterator;

    // A spare node with aNode, at its place in the list. Memory was reserved, or a node just taken
    // out.
    Iterator Insert(ListType& aNodes, const CNode& aNode) {
        const bool bLong = aNodes.size() >= LONG_LIST;
        const Iterator itPlace =
            bLong ? FindInLong(aNodes, aNode.m_tvExpired) : FindInShort(aNodes, aNode.m_tvExpired);
        const Iterator itNode = m_Spares.Insert(aNodes, itPlace, aNode);
        if (CM_UNLIKELY(bLong && IsToBeMarked())) {
            m_Marks.Add(KeyOf(aNode.m_tvExpired), itNode);
        }
        return itNode;
    }
    // Takes a node out of the list.
    void TakeOut(ListType& aNodes, Iterator aNode) {
        aNode->m_pEh = nullptr;  // its mark, if it has one, holds no longer
        m_Spares.Keep(aNodes, aNode);
    }

    CCmTimerHandlerIndexT<Iterator> m_Index;  // of the nodes of m_Nodes
    CCmSpareListNodesT<CNode> m_Spares;

  private:
    // Nodes in a list that is worth marks.
    static constexpr size_t LONG_LIST = 128;

    // Grows with the time. Times beyond what it can tell apart, 270,000 years from 1970, share that
    // last second.
    static int64_t KeyOf(const CCmTimeValue& aTime) {
        constexpr int64_t USEC_RANGE = int64_t{1} << 20;  // a second's, rounded up
        constexpr int64_t MOST_SEC = INT64_MAX / USEC_RANGE;
        return std::clamp<int64_t>(aTime.GetSec(), -MOST_SEC, MOST_SEC) * USEC_RANGE +
               aTime.GetUsec();
    }
    struct CHolds {
        bool operator()(Iterator aNode, int64_t aKey) const {
            return aNode->m_pEh != nullptr && KeyOf(aNode->m_tvExpired) == aKey;
        }
    };

    // The place of a new node: before the first one that is not due earlier, so that among equals
    // the newest fires first. Searched from both ends at once: a place near either takes few steps.
    // Not inlined: a loop of its own has the registers to itself.
    [[gnu::noinline]] static Iterator FindInShort(ListType& aNodes, const CCmTimeValue& aExpired) {
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
    // The same place. Wherever the mark is, the walk ends there.
    Iterator FindInLong(ListType& aNodes, const CCmTimeValue& aExpired) {
        if (aNodes.front().m_tvExpired >= aExpired) {
            return aNodes.begin();
        }
        if (aNodes.back().m_tvExpired < aExpired) {
            return aNodes.end();
        }
        Iterator itPlace = m_Marks.Find(KeyOf(aExpired), aNodes.end());
        while (itPlace != aNodes.end() && itPlace->m_tvExpired < aExpired) {
            ++itPlace;  // only among times that share a key
        }
        while (std::prev(itPlace)->m_tvExpired >= aExpired) {
            --itPlace;
        }
        return itPlace;
    }
    // One time in eight, at random: no order of scheduling and cancelling leaves long stretches
    // without a mark.
    bool IsToBeMarked() {
        m_dwRandom = m_dwRandom * 1664525 + 1013904223;
        return m_dwRandom >> 29 == 0;
    }

    CCmTimerMarksT<Iterator, CHolds> m_Marks;
    DWORD m_dwRandom = 1;
};

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
    auto* pEntry = state.m_Index.Look(aNode.m_pEh);
    const bool bFound = pEntry != nullptr && pEntry->m_pEh != nullptr;
    if (bFound) {
        // Insert uses the list node that was taken out last, so the entry stays right.
        state.TakeOut(m_Nodes, pEntry->m_Value);
    } else {
        // All memory is taken before anything changes.
        if (CM_UNLIKELY(!state.m_Index.HasRoom())) {
            state.m_Index.Reserve();
            pEntry = state.m_Index.Look(aNode.m_pEh);
        }
        state.m_Spares.Reserve();
    }
    const auto itNode = state.Insert(m_Nodes, aNode);
    if (!bFound) {
        state.m_Index.Fill(*pEntry, aNode.m_pEh, itNode);
    }
    return bFound ? 1 : 0;
}

int CCmTimerQueueOrderedList::EraseNode_l(ICmTimerHandler* aEh) {
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    auto* const pEntry = state.m_Index.Look(aEh);
    if (pEntry == nullptr || pEntry->m_pEh == nullptr) {
        return 1;
    }
    state.TakeOut(m_Nodes, pEntry->m_Value);
    state.m_Index.Erase(*pEntry);
    return 0;
}

int CCmTimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    // After a pop no memory is needed.
    state.m_Index.Reserve();
    state.m_Spares.Reserve();
    state.m_Index.Insert(aNode.m_pEh, state.Insert(m_Nodes, aNode));
    return 0;
}

int CCmTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    CM_ASSERTE_RETURN_LINE(!m_Nodes.empty(), -1, 35);
    COrderedListState& state = CCmPrivateRoom::Of(m_Private);
    aNode = m_Nodes.front();
    state.m_Index.Erase(aNode.m_pEh);
    state.TakeOut(m_Nodes, m_Nodes.begin());
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
