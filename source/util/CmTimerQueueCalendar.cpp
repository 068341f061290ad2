#include "CmTimerQueueCalendar.h"

#include <iterator>
#include <map>
#include <new>
#include <type_traits>

#include "CmPrivateState.h"
#include "CmThread.h"
#include "CmTimerCancel.h"
#include "CmTimerIndex.h"
#include "CmTimerSpares.h"
#include "CmTraceLine.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

typedef CCmTimerQueueCalendarSlotT<ICmTimerHandler*> NodeType;
typedef std::map<ICmTimerHandler*, DWORD> HandlersType;

// Every node of a chain is one of these.
struct CTimer : NodeType {
    HandlersType::iterator m_itEntry;  // its handler's, while the timer is in the wheel
};

constexpr DWORD MIN_SLOT_INTERVAL = 10;        // milliseconds
constexpr DWORD MIN_MAX_SLOT_NUMBER = 10;      // the number of the last slot, at least
constexpr DWORD UNLIMITED_COUNT = 0xFFFFFFFF;  // 2^32 - 1 firings: in practice without end

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

// When a timer was due by the clock is not known: it fires with its tick.
void Fire(CCmWatchedTimers& aWatched, ICmTimerHandler* aEh, const CCmTimeValue& aNow, void* aToken,
          const CCmTimerQueueCalendar* aQueue) {
    aWatched.BeginOne(aEh, &aNow);
    aEh->OnTimeout(aNow, aToken);
    if (aWatched.EndOne(CCmWatchedTimers::UNKNOWN_USEC)) {
        char szClass[CM_CLASS_TEXT_SIZE];
        CmClassText(aWatched.Table(), szClass, sizeof(szClass));
        CM_WARNING_TRACE("CCmTimerQueueCalendar::TimerTick, watch, class="
                         << static_cast<const char*>(szClass) << " ranUsec=" << aWatched.RanUsec()
                         << " this=" << CmTraceAddress(aQueue));
        aWatched.ForgetLine();
    }
}

// How many slots an interval takes, rounded up. Milliseconds are counted modulo 2^32: a negative
// interval is a very long one.
DWORD Distance(const CCmTimeValue& aInterval, DWORD aSlotInterval) {
    const DWORD dwMs = static_cast<DWORD>(aInterval.GetSec()) * 1000 +
                       static_cast<DWORD>(aInterval.GetUsec() / 1000);
    return dwMs / aSlotInterval + (dwMs % aSlotInterval != 0 ? 1 : 0);
}

void PushHead(NodeType*& aHead, NodeType* aNode) {
    aNode->m_pNext = aHead;
    aHead = aNode;
}

// The chain must not be empty.
NodeType* PopHead(NodeType*& aHead) {
    NodeType* pNode = aHead;
    aHead = pNode->m_pNext;
    return pNode;
}

void DeleteChain(NodeType*& aHead) {
    while (aHead != nullptr) {
        delete static_cast<CTimer*>(PopHead(aHead));
    }
}

// Takes the first node of aEh out of a chain; null when there is none.
NodeType* Unlink(NodeType*& aHead, const ICmTimerHandler* aEh) {
    for (NodeType** ppNode = &aHead; *ppNode != nullptr; ppNode = &(*ppNode)->m_pNext) {
        if ((*ppNode)->m_pEh == aEh) {
            return PopHead(*ppNode);
        }
    }
    return nullptr;
}

// The memory of a calendar's timers, and the way from a handler to its timer. The map m_Handlers,
// from each handler to its slot, is a required field. A search in it takes as many steps as the
// number of timers has binary digits, and most of them miss the cache. Therefore a hash index leads
// from each handler to its entry in the map; the map itself is searched only for the place of a new
// entry, and not even then if the hint is right.
class CTimerStore {
  public:
    explicit CTimerStore(HandlersType& aHandlers) noexcept : m_itHint(aHandlers.end()) {}
    ~CTimerStore() { DeleteChain(m_pSpares); }

    // Throws std::bad_alloc.
    CTimer* NewTimer() {
        return m_pSpares != nullptr ? static_cast<CTimer*>(PopHead(m_pSpares)) : new CTimer;
    }
    // For coming timers; null is accepted.
    void Keep(NodeType* aTimer) {
        if (aTimer != nullptr) {
            PushHead(m_pSpares, aTimer);
        }
    }

    // Null when aEh has no entry. Valid until the next change.
    const HandlersType::iterator* FindEntry(ICmTimerHandler* aEh) { return m_Index.Find(aEh); }
    // For a handler that has none; its slot is yet to be set. Throws std::bad_alloc, having changed
    // nothing.
    HandlersType::iterator NewEntry(HandlersType& aHandlers, ICmTimerHandler* aEh) {
        m_Index.Reserve();  // first: once the map has the entry, nothing may fail
        const HandlersType::iterator itEntry = m_SpareEntries.Insert(aHandlers, m_itHint, aEh);
        m_Index.Insert(aEh, itEntry);
        return itEntry;
    }
    // Takes the entry of a timer that has left its slot out of the map, and keeps the memory of
    // both for coming timers.
    void Recycle(HandlersType& aHandlers, NodeType* aNode) {
        const HandlersType::iterator itEntry = static_cast<CTimer*>(aNode)->m_itEntry;
        m_Index.Erase(aNode->m_pEh);
        // A test first: std::next of the last entry would climb the whole tree.
        const bool bIsLast = itEntry == std::prev(aHandlers.end());
        m_itHint = bIsLast ? aHandlers.end() : std::next(itEntry);
        m_SpareEntries.Keep(aHandlers, itEntry);
        Keep(aNode);
    }

  private:
    NodeType* m_pSpares = nullptr;
    CCmTimerHandlerIndexT<HandlersType::iterator> m_Index;
    CCmSpareMapNodesT<ICmTimerHandler*, DWORD> m_SpareEntries;
    // The entry after the one that was recycled last. A handler that is cancelled and scheduled
    // again, as timeouts are, belongs right before it, and is put there without a search. Always
    // valid: no entry leaves the map without setting it anew.
    HandlersType::iterator m_itHint;
};

// The handler whose timers the calling thread cancels for good, if any. It cannot be an argument:
// CancelTimer is a stated virtual function, and the queue may be of any class.
thread_local const ICmTimerHandler* t_pCancelledForGood = nullptr;

}  // namespace

CmResult CancelForGood(ICmTimerQueue& aQueue, ICmTimerHandler* aEh) {
    const ICmTimerHandler* const pOuter = t_pCancelledForGood;
    t_pCancelledForGood = aEh;
    const CmResult rv = aQueue.CancelTimer(aEh);
    t_pCancelledForGood = pOuter;
    return rv;
}

class CM_UTIL_HIDDEN CCmTimerQueueCalendar::CCalendarState : public CTimerStore {
  public:
    using CTimerStore::CTimerStore;
    CmResult PushEvent(CCmTimerQueueCalendar& aQueue, NodeType* aNode, CmResult aResult);
};

// Adds a timer with interval zero and, for the first one, posts the event that will fire them.
// aResult: what to return when the event is posted already.
CmResult CCmTimerQueueCalendar::CCalendarState::PushEvent(CCmTimerQueueCalendar& aQueue,
                                                          NodeType* aNode, CmResult aResult) {
    const bool bIsPosted = aQueue.m_pEvents != nullptr;
    PushHead(aQueue.m_pEvents, aNode);
    if (bIsPosted) {
        return aResult;
    }
    // It is in the chain before the post: the queue may run the event at once.
    const CmResult rv =
        aQueue.m_pEventQueue != nullptr
            ? aQueue.m_pEventQueue->PostEvent(&aQueue, ICmEventQueue::EPRIORITY_NORMAL)
            : CM_ERROR_NULL_POINTER;
    // If the queue ran the event and failed all the same, the timer has fired and is not here.
    if (CM_FAILED(rv) && aQueue.m_pEvents == aNode) {
        Keep(PopHead(aQueue.m_pEvents));
    }
    return rv;
}

CCmTimerQueueCalendar::CCmTimerQueueCalendar(unsigned int aSlotInterval, unsigned int aMaxTime,
                                             ICmEventQueue* aEventQueue)
    : m_dwInterval(aSlotInterval < MIN_SLOT_INTERVAL ? MIN_SLOT_INTERVAL : aSlotInterval),
      m_ppSlots(nullptr),
      m_dwMaxSlotNumber(MaxSlotNumber(m_dwInterval, aMaxTime)),
      m_dwCurrentSlot(0),
      m_pEventQueue(aEventQueue != nullptr ? aEventQueue : EventQueueOfThisThread()),
      m_pEvents(nullptr) {
    static_assert(std::is_nothrow_constructible_v<CCalendarState, HandlersType&>,
                  "needs no memory yet");
    CCmPrivateRoom::Make(m_Private, m_Handlers);
    m_ppSlots = new (std::nothrow) CCalendarNode*[size_t{m_dwMaxSlotNumber} + 1]();
}

CCmTimerQueueCalendar::~CCmTimerQueueCalendar() {
    CCmPrivateRoom::End(m_Private);
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
    CCalendarState& state = CCmPrivateRoom::Of(m_Private);
    const bool bForWheel = aInterval != CCmTimeValue::s_tvZero;
    const HandlersType::iterator* const pKnown = state.FindEntry(aEh);
    const bool bIsKnown = pKnown != nullptr;
    HandlersType::iterator itEntry = bIsKnown ? *pKnown : m_Handlers.end();
    CCalendarNode* pNode = bIsKnown ? RemoveUniqueSlot_i((*pKnown)->second, aEh) : nullptr;
    const CmResult rv = pNode != nullptr ? CM_ERROR_FOUND : CM_OK;
    // All memory is taken before anything changes; a timer that was just taken out of its slot
    // needs none.
    try {
        if (pNode == nullptr) {
            pNode = state.NewTimer();
        }
        if (bForWheel && !bIsKnown) {
            itEntry = state.NewEntry(m_Handlers, aEh);
        }
    } catch (const std::bad_alloc&) {
        state.Keep(pNode);
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (!bIsKnown) {
        state.Keep(Unlink(m_pEvents, aEh));
    }
    pNode->m_pEh = aEh;
    pNode->m_pToken = aToken;
    pNode->m_tvInterval = aInterval;
    pNode->m_dwCount = aCount == 0 ? UNLIMITED_COUNT : aCount;
    if (!bForWheel) {
        return state.PushEvent(*this, pNode, rv);  // an entry that the handler has stays
    }
    static_cast<CTimer*>(pNode)->m_itEntry = itEntry;
    InsertUnique_i(aInterval, pNode);
    return rv;
}

// Puts a node into the wheel, aInterval ahead of the current slot; its handler has an entry.
void CCmTimerQueueCalendar::InsertUnique_i(const CCmTimeValue& aInterval, CCalendarNode* aNode) {
    DWORD dwDistance = Distance(aInterval, m_dwInterval);
    if (dwDistance > m_dwMaxSlotNumber - 1) {
        CM_ERROR_TRACE_THIS("CCmTimerQueueCalendar::InsertUnique_i, exceed max interval."
                            << " interval_s=" << aInterval.GetSec() << " interval_us="
                            << aInterval.GetUsec() << " dwDistance=" << dwDistance
                            << " m_dwMaxSlotNumber=" << m_dwMaxSlotNumber);
        dwDistance = m_dwMaxSlotNumber;
    }
    // A wrap goes back by m_dwMaxSlotNumber, one less than there are slots: never to slot 0.
    const DWORD dwToLast = m_dwMaxSlotNumber - m_dwCurrentSlot;
    const DWORD dwSlot =
        dwDistance <= dwToLast ? m_dwCurrentSlot + dwDistance : dwDistance - dwToLast;
    PushHead(m_ppSlots[dwSlot], aNode);
    static_cast<CTimer*>(aNode)->m_itEntry->second = dwSlot;
}

CmResult CCmTimerQueueCalendar::CancelTimer(ICmTimerHandler* aEh) {
    m_Est.EnsureSingleThread();
    CM_ASSERTE_RETURN_LINE(aEh, CM_ERROR_INVALID_ARG, 157);
    CCalendarState& state = CCmPrivateRoom::Of(m_Private);
    if (m_pEvents != nullptr && t_pCancelledForGood == aEh) {
        while (CCalendarNode* pEvent = Unlink(m_pEvents, aEh)) {
            state.Keep(pEvent);
        }
    }
    CCalendarNode* pNode = RemoveUniqueHandler_i(aEh);
    if (pNode == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    state.Recycle(m_Handlers, pNode);
    return CM_OK;
}

// Takes the handler's node out of the wheel. A handler without an entry loses its node in the event
// chain instead; then, too, the result is null.
CCmTimerQueueCalendar::CCalendarNode* CCmTimerQueueCalendar::RemoveUniqueHandler_i(
    ICmTimerHandler* aEh) {
    CCalendarState& state = CCmPrivateRoom::Of(m_Private);
    if (const HandlersType::iterator* pKnown = state.FindEntry(aEh)) {
        return RemoveUniqueSlot_i((*pKnown)->second, aEh);
    }
    state.Keep(Unlink(m_pEvents, aEh));
    return nullptr;
}

// Null when the node has moved from the wheel to the event chain: its entry stays, with the slot
// that it was in.
CCmTimerQueueCalendar::CCalendarNode* CCmTimerQueueCalendar::RemoveUniqueSlot_i(
    DWORD aSlot, ICmTimerHandler* aEh) {
    return Unlink(m_ppSlots[aSlot], aEh);
}

void CCmTimerQueueCalendar::TimerTick() {
    m_Est.EnsureSingleThread();
    if (CM_UNLIKELY(m_ppSlots == nullptr)) {
        return;
    }
    CCalendarNode*& pSlot = m_ppSlots[m_dwCurrentSlot];
    if (pSlot != nullptr) {
        const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
        CCalendarState& state = CCmPrivateRoom::Of(m_Private);
        CCmWatchedTimers watched;
        // A handler may have changed the chain, so each round looks at it afresh.
        do {
            CCalendarNode* pNode = PopHead(pSlot);
            ICmTimerHandler* pEh = pNode->m_pEh;
            void* pToken = pNode->m_pToken;
            // Before the call, so that the handler may cancel or replace its timer. The wheel still
            // stands at this slot: distances count from here.
            if (--pNode->m_dwCount == 0) {
                state.Recycle(m_Handlers, pNode);
            } else {
                InsertUnique_i(pNode->m_tvInterval, pNode);
            }
            Fire(watched, pEh, tvNow, pToken, this);
        } while (pSlot != nullptr);
    }
    m_dwCurrentSlot = m_dwCurrentSlot == m_dwMaxSlotNumber ? 0 : m_dwCurrentSlot + 1;
}

CmResult CCmTimerQueueCalendar::OnEventFire() {
    m_Est.EnsureSingleThread();
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    CCalendarState& state = CCmPrivateRoom::Of(m_Private);
    CCmWatchedTimers watched;
    while (m_pEvents != nullptr) {
        CCalendarNode* pNode = PopHead(m_pEvents);
        ICmTimerHandler* pEh = pNode->m_pEh;
        void* pToken = pNode->m_pToken;
        state.Keep(pNode);  // before the call: a timer that the handler schedules may use it
        Fire(watched, pEh, tvNow, pToken, this);
    }
    return CM_OK;
}

void CCmTimerQueueCalendar::OnDestorySelf() {}

}  // namespace UTIL_NS
