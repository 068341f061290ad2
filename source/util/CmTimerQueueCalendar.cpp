#include "CmTimerQueueCalendar.h"

#include <iterator>
#include <utility>

#include "CmThread.h"
#include "CmTimerCancel.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

namespace {

constexpr DWORD MIN_SLOT_INTERVAL = 10;  // milliseconds
constexpr DWORD MIN_MAX_SLOT_NUMBER = 10;

DWORD MaxSlotNumber(DWORD aInterval, DWORD aMaxTime) {
    if (aInterval > aMaxTime) {
        return MIN_MAX_SLOT_NUMBER;
    }
    const DWORD dwNumber = aMaxTime / aInterval - 1;
    return dwNumber < MIN_MAX_SLOT_NUMBER ? MIN_MAX_SLOT_NUMBER : dwNumber;
}

ICmEventQueue* EventQueueOfThisThread() {
    ACmThread* pThread = getCurrentThread();
    return pThread != nullptr ? pThread->GetEventQueue() : nullptr;
}

// How many slots an interval takes, rounded up. Milliseconds are counted modulo 2^32, so that a
// negative interval is a very long one.
DWORD Distance(const CCmTimeValue& aInterval, DWORD aSlotInterval) {
    const DWORD dwMs = static_cast<DWORD>(aInterval.GetSec()) * 1000 +
                       static_cast<DWORD>(aInterval.GetUsec() / 1000);
    return dwMs / aSlotInterval + (dwMs % aSlotInterval != 0 ? 1 : 0);
}

template <class NodeType>
void PushHead(NodeType*& aHead, NodeType* aNode) {
    aNode->m_pNext = aHead;
    aHead = aNode;
}

// The chain must not be empty.
template <class NodeType>
NodeType* PopHead(NodeType*& aHead) {
    NodeType* pNode = aHead;
    aHead = pNode->m_pNext;
    return pNode;
}

template <class NodeType>
void DeleteChain(NodeType*& aHead) {
    while (aHead != nullptr) {
        delete PopHead(aHead);
    }
}

// Takes the first node of aEh out of a chain; null when there is none.
template <class NodeType>
NodeType* Unlink(NodeType*& aHead, const ICmTimerHandler* aEh) {
    for (NodeType** ppNode = &aHead; *ppNode != nullptr; ppNode = &(*ppNode)->m_pNext) {
        if ((*ppNode)->m_pEh == aEh) {
            return PopHead(*ppNode);
        }
    }
    return nullptr;
}

// Whose timers the calling thread cancels for good, if any.
thread_local const ICmTimerHandler* t_pCancelledForGood = nullptr;

}  // namespace

CmResult CancelForGood(ICmTimerQueue& aQueue, ICmTimerHandler* aEh) {
    const ICmTimerHandler* const pOuter = t_pCancelledForGood;
    t_pCancelledForGood = aEh;
    const CmResult rv = aQueue.CancelTimer(aEh);
    t_pCancelledForGood = pOuter;
    return rv;
}

CCmTimerQueueCalendar::CCmTimerQueueCalendar(unsigned int aSlotInterval, unsigned int aMaxTime,
                                             ICmEventQueue* aEventQueue)
    : m_dwInterval(aSlotInterval < MIN_SLOT_INTERVAL ? MIN_SLOT_INTERVAL : aSlotInterval),
      m_ppSlots(nullptr),
      m_dwMaxSlotNumber(MaxSlotNumber(m_dwInterval, aMaxTime)),
      m_dwCurrentSlot(0),
      m_pEventQueue(aEventQueue != nullptr ? aEventQueue : EventQueueOfThisThread()),
      m_pEvents(nullptr),
      m_pSpares(nullptr),
      m_itVacated(m_Handlers.end()) {
    m_ppSlots = new (std::nothrow) CNode*[size_t{m_dwMaxSlotNumber} + 1]();
}

CCmTimerQueueCalendar::~CCmTimerQueueCalendar() {
    DeleteChain(m_pSpares);
    DeleteChain(m_pEvents);
    if (m_ppSlots == nullptr) {
        return;
    }
    for (DWORD dwSlot = 0; dwSlot <= m_dwMaxSlotNumber; ++dwSlot) {
        DeleteChain(m_ppSlots[dwSlot]);
    }
    delete[] m_ppSlots;
}

CmResult CCmTimerQueueCalendar::ScheduleTimer(ICmTimerHandler* aEh, void* aToken,
                                              const CCmTimeValue& aInterval, unsigned int aCount) {
    m_Est.EnsureSingleThread();
    CM_ASSERTE_RETURN_LINE(aEh, CM_ERROR_INVALID_ARG, 78);
    if (CM_UNLIKELY(m_ppSlots == nullptr)) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    const bool bForWheel = aInterval != CCmTimeValue::s_tvZero;
    const auto* pKnown = m_Index.Find(aEh);
    const bool bIsKnown = pKnown != nullptr;
    auto itHandler = bIsKnown ? *pKnown : m_Handlers.end();
    CNode* pNode = bIsKnown ? RemoveUniqueSlot_i(itHandler->second, aEh) : nullptr;
    const CmResult rv = pNode != nullptr ? CM_ERROR_FOUND : CM_OK;
    // Until all memory is there, nothing changes.
    try {
        if (pNode == nullptr) {
            pNode = NewNode_i();
        }
        if (bForWheel && !bIsKnown) {
            m_Index.Reserve();
            itHandler = NewEntry_i(aEh);
            m_Index.Insert(aEh, itHandler);
        }
    } catch (const std::bad_alloc&) {
        if (pNode != nullptr) {
            FreeNode_i(pNode);
        }
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (!bIsKnown) {
        RemoveUniqueEvent_i(aEh);
    }
    pNode->m_pEh = aEh;
    pNode->m_pToken = aToken;
    pNode->m_tvInterval = aInterval;
    pNode->m_dwCount = aCount == 0 ? 0xFFFFFFFF : aCount;
    if (!bForWheel) {
        return PushEvent_i(pNode, rv);
    }
    pNode->m_itHandler = itHandler;
    InsertUnique_i(aInterval, pNode);
    return rv;
}

// Adds a timer with interval zero and, for the first one, posts the event that will fire them.
CmResult CCmTimerQueueCalendar::PushEvent_i(CNode* aNode, CmResult aResult) {
    const bool bIsPosted = m_pEvents != nullptr;
    PushHead(m_pEvents, aNode);
    if (bIsPosted) {
        return aResult;
    }
    const CmResult rv = m_pEventQueue != nullptr
                            ? m_pEventQueue->PostEvent(this, ICmEventQueue::EPRIORITY_NORMAL)
                            : CM_ERROR_NULL_POINTER;
    if (CM_FAILED(rv) && m_pEvents == aNode) {
        FreeNode_i(PopHead(m_pEvents));
    }
    return rv;
}

// Puts a node into the wheel, aInterval ahead of the current slot; its handler has an entry.
void CCmTimerQueueCalendar::InsertUnique_i(const CCmTimeValue& aInterval, CNode* aNode) {
    DWORD dwDistance = Distance(aInterval, m_dwInterval);
    if (dwDistance > m_dwMaxSlotNumber - 1) {
        CM_ERROR_TRACE_THIS("CCmTimerQueueCalendar::InsertUnique_i, exceed max interval."
                            << " interval_s=" << aInterval.GetSec() << " interval_us="
                            << aInterval.GetUsec() << " dwDistance=" << dwDistance
                            << " m_dwMaxSlotNumber=" << m_dwMaxSlotNumber);
        dwDistance = m_dwMaxSlotNumber;
    }
    // A wrap goes back by m_dwMaxSlotNumber, one less than there are slots.
    const DWORD dwToLast = m_dwMaxSlotNumber - m_dwCurrentSlot;
    const DWORD dwSlot =
        dwDistance <= dwToLast ? m_dwCurrentSlot + dwDistance : dwDistance - dwToLast;
    PushHead(m_ppSlots[dwSlot], aNode);
    aNode->m_itHandler->second = dwSlot;
}

CmResult CCmTimerQueueCalendar::CancelTimer(ICmTimerHandler* aEh) {
    m_Est.EnsureSingleThread();
    CM_ASSERTE_RETURN_LINE(aEh, CM_ERROR_INVALID_ARG, 157);
    if (m_pEvents != nullptr && t_pCancelledForGood == aEh) {
        while (CNode* pEvent = Unlink(m_pEvents, aEh)) {
            FreeNode_i(pEvent);
        }
    }
    CNode* pNode = RemoveUniqueHandler_i(aEh);
    if (pNode == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    Forget_i(pNode);
    return CM_OK;
}

// Takes the handler's node out of the wheel. A handler that the wheel does not know loses its
// node in the event chain instead; then, too, the result is null.
CCmTimerQueueCalendar::CNode* CCmTimerQueueCalendar::RemoveUniqueHandler_i(ICmTimerHandler* aEh) {
    if (const auto* pKnown = m_Index.Find(aEh)) {
        return RemoveUniqueSlot_i((*pKnown)->second, aEh);
    }
    RemoveUniqueEvent_i(aEh);
    return nullptr;
}

// Null when the node has left the wheel for the event chain, which leaves its entry behind.
CCmTimerQueueCalendar::CNode* CCmTimerQueueCalendar::RemoveUniqueSlot_i(DWORD aSlot,
                                                                        ICmTimerHandler* aEh) {
    return Unlink(m_ppSlots[aSlot], aEh);
}

void CCmTimerQueueCalendar::RemoveUniqueEvent_i(ICmTimerHandler* aEh) {
    CNode* pNode = Unlink(m_pEvents, aEh);
    if (pNode != nullptr) {
        FreeNode_i(pNode);
    }
}

void CCmTimerQueueCalendar::TimerTick() {
    m_Est.EnsureSingleThread();
    if (CM_UNLIKELY(m_ppSlots == nullptr)) {
        return;
    }
    if (m_ppSlots[m_dwCurrentSlot] != nullptr) {
        FireSlot_i(m_dwCurrentSlot);
    }
    m_dwCurrentSlot = m_dwCurrentSlot == m_dwMaxSlotNumber ? 0 : m_dwCurrentSlot + 1;
}

void CCmTimerQueueCalendar::FireSlot_i(DWORD aSlot) {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    // A handler may have changed the chain, so each round looks at it afresh.
    while (m_ppSlots[aSlot] != nullptr) {
        CNode* pNode = PopHead(m_ppSlots[aSlot]);
        ICmTimerHandler* pEh = pNode->m_pEh;
        void* pToken = pNode->m_pToken;
        if (--pNode->m_dwCount == 0) {
            Forget_i(pNode);
        } else {
            InsertUnique_i(pNode->m_tvInterval, pNode);
        }
        pEh->OnTimeout(tvNow, pToken);
    }
}

CmResult CCmTimerQueueCalendar::OnEventFire() {
    m_Est.EnsureSingleThread();
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    while (m_pEvents != nullptr) {
        CNode* pNode = PopHead(m_pEvents);
        ICmTimerHandler* pEh = pNode->m_pEh;
        void* pToken = pNode->m_pToken;
        FreeNode_i(pNode);
        pEh->OnTimeout(tvNow, pToken);
    }
    return CM_OK;
}

void CCmTimerQueueCalendar::OnDestorySelf() {}

// Ends a timer that has left the wheel.
void CCmTimerQueueCalendar::Forget_i(CNode* aNode) {
    m_Index.Erase(aNode->m_pEh);
    // What follows the last entry is known; stepping there would climb the whole map.
    const bool bIsLast = aNode->m_itHandler == std::prev(m_Handlers.end());
    m_itVacated = bIsLast ? m_Handlers.end() : std::next(aNode->m_itHandler);
    m_pSpareEntries->push_back(m_Handlers.extract(aNode->m_itHandler));
    FreeNode_i(aNode);
}

// Throws std::bad_alloc, having changed nothing.
CCmTimerQueueCalendar::CNode::HandlersType::iterator CCmTimerQueueCalendar::NewEntry_i(
    ICmTimerHandler* aEh) {
    if (CM_UNLIKELY(m_pSpareEntries == nullptr)) {
        m_pSpareEntries = std::make_unique<std::vector<CNode::HandlersType::node_type>>();
    }
    auto& spares = *m_pSpareEntries;
    if (spares.empty()) {
        // Room for the time when all entries are spare: giving one up must not allocate.
        if (m_Handlers.size() == spares.capacity()) {
            spares.reserve(2 * m_Handlers.size() + 1);
        }
        return m_Handlers.emplace_hint(m_itVacated, aEh, 0);
    }
    CNode::HandlersType::node_type entry = std::move(spares.back());
    spares.pop_back();
    entry.key() = aEh;
    return m_Handlers.insert(m_itVacated, std::move(entry));
}

CCmTimerQueueCalendar::CNode* CCmTimerQueueCalendar::NewNode_i() {
    return m_pSpares != nullptr ? PopHead(m_pSpares) : new CNode;
}

void CCmTimerQueueCalendar::FreeNode_i(CNode* aNode) {
    PushHead(m_pSpares, aNode);
}

}  // namespace UTIL_NS
