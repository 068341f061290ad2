#include "CmEventQueueBase.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "CmBlockPool.h"
#include "CmBlockedSends.h"
#include "CmCancel.h"
#include "CmConditionSteps.h"
#include "CmEventQueueSteps.h"
#include "CmFlight.h"
#include "CmListNode.h"
#include "CmNsec.h"
#include "CmPrivateState.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmThreadAnnotations.h"
#include "CmTraceLine.h"
#include "CmWatched.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

// A queue's length is looked at by the first post after each such interval: often enough to show a
// consumer that falls behind, seldom enough not to flood the trace.
constexpr CCmTimeValue WATCH_INTERVAL(3);
// Every post reads the coarse clock, which is cheap and late by up to CM_PORT_COARSE_USEC. While it
// says that no more than this has passed, the interval is not over by the exact clock either.
constexpr CCmTimeValue WATCH_PAUSE = WATCH_INTERVAL - CCmTimeValue(0, CM_PORT_COARSE_USEC);
// A queue that is found this long or longer is reported: more than 100 events.
constexpr DWORD LONG_QUEUE_SIZE = 101;

// How many list nodes a queue keeps for coming posts: as many as the last pass of its consumer had,
// since the next one may have as many. At least 256 (8 KiB), so that a small pass after a larger
// one does not free nodes that the next one has to allocate again; at most 16384 (512 KiB), so that
// the memory of one burst is not kept for good.
constexpr size_t SPARES_AT_LEAST = 256;
constexpr size_t SPARES_AT_MOST = 16384;

// How many nodes a loop allocates and keeps at most for what its own events post.
constexpr size_t SPARES_OF_LOOP = 16;

// Waits of a consumer are numbered from 1.
constexpr uint64_t NO_WAIT = 0;

// How long a sender looks out for its result, and a loop for that sender's next post, before they
// sleep: as long as it takes to wake a thread on an idle core.
constexpr long long SPIN_NSEC = 50 * 1000;
// A yield that took longer gave the core to a thread that has nothing to do with the send.
constexpr CCmTimeValue LONG_YIELD(0, 100);

// Of CCmEventSynchronous. Relaxed: it is learned before the watch is turned on, and a thread that
// does not see it yet takes a send for any other event.
CmStd::atomic<const void*> s_pTableOfSends{nullptr};

// Whether the senders' spins have been worth it on this thread.
thread_local CCmLearnedTry t_sendSpin;

// The sleep between two looks for busy senders. A sender is busy for as long as a post takes, so a
// queue's destructor hardly ever looks twice; a condition variable would cost every send instead.
constexpr long SENDERS_NAP_NSEC = 50 * 1000;

void DestroyEach(std::list<ICmEvent*>& aEvents) {
    while (!aEvents.empty()) {
        ICmEvent* pEvent = aEvents.front();
        aEvents.pop_front();
        pEvent->OnDestorySelf();
    }
}

// Destroys all of them even if the thread is cancelled in the OnDestorySelf of one.
void DestroyAll(std::list<ICmEvent*>& aEvents) {
    CCmCleanUpT destroyRest([&aEvents] { DestroyEach(aEvents); });
    DestroyEach(aEvents);
    destroyRest.Release();
}

CmResult FireAndDestroy(ICmEvent* aEvent) {
    CCmCleanUpT destroy([aEvent] { aEvent->OnDestorySelf(); });
    const CmResult rv = aEvent->OnEventFire();
    destroy.Execute();
    return rv;
}

}  // namespace

ICmEvent::ICmEvent() : m_ullReserved(0), m_CreatorTid(pthread_self()) {}

ICmEvent::~ICmEvent() = default;

void ICmEvent::OnDestorySelf() {
    delete this;
}

void* ICmEvent::operator new(size_t aSize) {
    return CCmBlockPool::Allocate(aSize);
}

void* ICmEvent::operator new(size_t aSize, const std::nothrow_t&) noexcept {
    return CCmBlockPool::AllocateOrNull(aSize);
}

void ICmEvent::operator delete(void* aMemory) noexcept {
    CCmBlockPool::Free(aMemory);
}

ICmEventQueue::~ICmEventQueue() = default;

const CCmTimeValue CCmEventQueueBase::s_tvReportInterval(0, CM_SLOW_USEC);

class CCmEventQueueBase::CQueueState {
  public:
    CQueueState() = default;
    CQueueState(const CQueueState&) = delete;
    CQueueState& operator=(const CQueueState&) = delete;
    ~CQueueState() { CCmWatchedQueue::End(m_pWatched.load(std::memory_order_relaxed)); }

    // Counts the senders that touch the queue: those that are posting, and those whose event has
    // run and who have yet to post its wrapper back. Those that wait do not touch it.
    //
    // Relaxed: a sender comes in while somebody else still keeps the queue alive, its host or the
    // consumer that fires the event.
    void CountSenderIn() { m_lBusySenders.fetch_add(1, std::memory_order_relaxed); }
    // Release, paired with the acquire below: once the destructor finds no busy sender left, all
    // that the senders did with the queue lies before it.
    void CountSenderOut() { m_lBusySenders.fetch_sub(1, std::memory_order_release); }
    bool HasBusySenders() const { return m_lBusySenders.load(std::memory_order_acquire) != 0; }

    // The loop that runs this queue, for its own thread; null for all others. Relaxed: a thread
    // finds itself in m_LoopTid only if it stored that itself, after m_pLoop.
    CCmEventQueueSteps::CLoop* LoopOfThisThread() const {
        return IsEqualCurrentThread(m_LoopTid.load(std::memory_order_relaxed)) ? m_pLoop : nullptr;
    }
    void SetLoop(CCmEventQueueSteps::CLoop* aLoop) {
        m_pLoop = aLoop;
        m_LoopTid.store(aLoop != nullptr ? pthread_self() : pthread_t(), std::memory_order_relaxed);
    }

    // The length of the loop's private list, which the loop's thread alone changes. A count like
    // m_dwSize: nothing is handed over with it.
    CmStd::atomic<DWORD> m_dwOwn{0};
    // How often another thread has destroyed what is pending while the private list was not empty.
    // The loop's thread ends those events without firing them. Relaxed: if that destruction
    // happened before the loop looks here, it sees it; if not, the two may go either way.
    CmStd::atomic<DWORD> m_dwDiscards{0};
    // The core on which a loop last fired a send; -1: unknown. A hint (relaxed).
    CmStd::atomic<int> m_nLoopCore{-1};
    // Null until the watch is on and something happens in the queue. Release and acquire: who finds
    // it finds it made.
    CmStd::atomic<CCmWatchedQueue*> m_pWatched{nullptr};
    // The thread in m_Tid, for those that wait for it.
    CCmAwaitedThread m_Consumer;

  private:
    CmStd::atomic<long> m_lBusySenders{0};
    CmStd::atomic<pthread_t> m_LoopTid{pthread_t()};
    CCmEventQueueSteps::CLoop* m_pLoop = nullptr;  // read by its own thread only
};

CCmEventQueueSteps::CLoop* CCmEventQueueSteps::LoopOfThisThread(CCmEventQueueBase& aQueue) {
    return CCmPrivateRoom::Of(aQueue.m_Private).LoopOfThisThread();
}

// Those in the queue and those in the private list of its loop.
DWORD CCmEventQueueSteps::PendingCount(const CCmEventQueueBase& aQueue) {
    return aQueue.m_dwSize.load(std::memory_order_relaxed) + OwnCount(aQueue);
}

DWORD CCmEventQueueSteps::OwnCount(const CCmEventQueueBase& aQueue) {
    return CCmPrivateRoom::Of(aQueue.m_Private).m_dwOwn.load(std::memory_order_relaxed);
}

// For the functions without a lock, whose callers serialise: on the loop's thread the private list
// counts as the first part of the queue.
void CCmEventQueueSteps::GatherOwn(CCmEventQueueBase& aQueue) {
    if (CM_UNLIKELY(OwnCount(aQueue) != 0)) {
        if (CLoop* const pLoop = LoopOfThisThread(aQueue)) {
            pLoop->GiveOwn();
        }
    }
}

// One post, in three steps: what takes time is done before the queue's lock is taken and after it
// was released. m_bIsStopped and m_Tid are read relaxed: outside the lock the answer is only a hint
// (a post that meets a stop may go either way), inside it the lock orders.
class CCmEventQueueSteps::CPosting {
  public:
    CPosting(CCmEventQueueBase& aQueue, ICmEvent* aEvent) : m_Queue(aQueue), m_pEvent(aEvent) {}
    CPosting(const CPosting&) = delete;
    CPosting& operator=(const CPosting&) = delete;

    // Before the lock. aNeedsNode: whether to allocate the list node here.
    CmResult Prepare(bool aNeedsNode) {
        if (CM_UNLIKELY(m_Queue.m_bIsStopped.load(std::memory_order_relaxed))) {
            return CM_ERROR_NOT_INITIALIZED;
        }
        g_cmClock.coarse_gettimeofday(&m_tvCoarseNow, nullptr);
        if (CmWatchIsOn()) {
            Record();
        }
        return aNeedsNode ? CmAddNode(m_Node, m_pEvent) : CM_OK;
    }
    bool HasNode() const { return !m_Node.empty(); }
    // Under the lock, with the node of Prepare.
    CmResult Append() { return Append(m_Node); }
    // The same with the first node of aNodes, which has one.
    CmResult Append(std::list<ICmEvent*>& aNodes) {
        // Looked at again: a consumer that leaves for good closes the queue under the lock.
        if (CM_UNLIKELY(m_Queue.m_bIsStopped.load(std::memory_order_relaxed))) {
            return CM_ERROR_NOT_INITIALIZED;
        }
        // Before the event is there: the watch may begin with what is. Not left to CountWatched:
        // the way without the watch would be slower for it.
        m_pWatched = CmWatchIsOn() ? Watched_l(m_Queue) : nullptr;
        if (CM_UNLIKELY(m_pWatched != nullptr && !m_bIsRecorded)) {
            m_bIsWayBack = See(m_pEvent).m_bIsWayBack;
        }
        m_Queue.m_Events.splice(m_Queue.m_Events.end(), aNodes, aNodes.begin());
        m_Queue.m_Events.back() = m_pEvent;
        const DWORD dwSize = m_Queue.m_dwSize.load(std::memory_order_relaxed) + 1;
        m_Queue.m_dwSize.store(dwSize, std::memory_order_relaxed);
        WatchSize();
        return CM_OK;
    }
    // After Append, still under the lock. aIsAwaited: the consumer sleeps until the event comes.
    // aOwn: the length of its private list, for a post of its own; others do not look there.
    void Count(bool aIsAwaited, DWORD aOwn) {
        if (CM_UNLIKELY(m_pWatched != nullptr)) {
            CountWatched(aIsAwaited, aOwn);
        }
    }
    // After the lock was released: writes the lines and destroys an event that was refused.
    void Conclude(CmResult aResult) {
        if (CM_UNLIKELY(m_dwReportSize != 0)) {
            CM_WARNING_TRACE("CCmEventQueueBase::PostEvent, m_dwSize="
                             << m_dwReportSize << " m_Tid="
                             << (unsigned long)m_Queue.m_Tid.load(std::memory_order_relaxed)
                             << " this=" << CmTraceAddress(&m_Queue));
        }
        if (CM_UNLIKELY(m_dwMark != 0)) {
            if (CCmFlightRing* const pRing = RingOfThisThread()) {
                pRing->HighWater(CmUsecOf(CCmTimeValue(m_tvCoarseNow)), m_dwMark, &m_Queue);
            }
        }
        if (CM_SUCCEEDED(aResult)) {
            return;
        }
        if (CmWatchIsOn() && !See(m_pEvent).m_bIsWayBack) {
            NoteRefused(m_Queue);
        }
        if (aResult == CM_ERROR_NOT_INITIALIZED) {
            CM_WARNING_TRACE("CCmEventQueueBase::PostEvent, has been stopped. this="
                             << CmTraceAddress(&m_Queue));
        }
        m_Node.clear();  // first: a thread that is cancelled in OnDestorySelf may not unwind
        m_pEvent->OnDestorySelf();
    }

  private:
    void WatchSize() {
        if (CM_LIKELY(CCmTimeValue(m_tvCoarseNow) - m_Queue.m_tvLastReport <= WATCH_PAUSE)) {
            return;
        }
        const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
        if (tvNow - m_Queue.m_tvLastReport > WATCH_INTERVAL) {
            m_Queue.m_tvLastReport = tvNow;
            const DWORD dwSize = PendingCount(m_Queue);
            m_dwReportSize = dwSize >= LONG_QUEUE_SIZE ? dwSize : 0;
        }
    }

    static CCmFlightRing* RingOfThisThread() {
        const CCmWatchedThread* const pThread = CmEnsureWatchedThread();
        return pThread != nullptr ? pThread->Ring() : nullptr;
    }
    // In the ring of the thread that posts: who it was, and when, is asked for only if the event
    // takes long.
    void Record() {
        EnsureWatched(m_Queue);
        m_bIsRecorded = true;
        CCmFlightRing* const pRing = RingOfThisThread();
        const CSeenEvent seen = See(m_pEvent);
        m_bIsWayBack = seen.m_bIsWayBack;
        if (pRing != nullptr && !m_bIsWayBack) {
            pRing->Post(CmUsecOf(CCmTimeValue(m_tvCoarseNow)), seen.m_pTable, m_pEvent, &m_Queue);
        }
    }
    void CountWatched(bool aIsAwaited, DWORD aOwn) {
        CCmWatchedQueue& watched = *m_pWatched;
        if (m_bIsWayBack) {
            watched.m_dwWaysBack.Add(1);
            return;
        }
        watched.m_ullPosted.Add(1);
        // Without what the consumer has taken out, which it alone writes.
        const DWORD dwPending = m_Queue.m_dwSize.load(std::memory_order_relaxed) -
                                watched.m_dwGhosts.Get() - watched.m_dwWaysBack.Get() + aOwn;
        if (CM_UNLIKELY(watched.m_Most.Raise(dwPending))) {
            m_dwMark = dwPending;
        }
        if (watched.m_Probe.Wants(m_pEvent, aIsAwaited, m_tvCoarseNow, watched.m_dwPosts)) {
            watched.m_Probe.Set(m_pEvent, CmUsecOf(CCmTimeValue::GetTimeOfDay()),
                                watched.m_dwPosts);
        }
    }

    CCmEventQueueBase& m_Queue;
    ICmEvent* const m_pEvent;
    std::list<ICmEvent*> m_Node;  // empty when a spare one is to be used
    timeval m_tvCoarseNow = {};
    DWORD m_dwReportSize = 0;               // the size to report; 0: nothing
    DWORD m_dwMark = 0;                     // a high-water mark to record; 0: none
    CCmWatchedQueue* m_pWatched = nullptr;  // since Append
    bool m_bIsRecorded = false;             // the watch was on before the lock was taken
    bool m_bIsWayBack = false;              // of a synchronous send
};

void CCmEventQueueSteps::LearnTableOfSends() {
    const CCmEventSynchronous send(nullptr, nullptr);
    s_pTableOfSends.store(CmTableOf(&send), std::memory_order_relaxed);
}

CCmWatchedQueue* CCmEventQueueSteps::EnsureWatched(CCmEventQueueBase& aQueue) {
    CCmEventQueueBase::CQueueState& state = CCmPrivateRoom::Of(aQueue.m_Private);
    CmStd::atomic<CCmWatchedQueue*>& pWatched = state.m_pWatched;
    CCmWatchedQueue* pFound = pWatched.load(std::memory_order_acquire);
    if (CM_LIKELY(pFound != nullptr)) {
        return pFound;
    }
    CCmWatchedQueue* const pMade = CCmWatchedQueue::Make({aQueue.m_dwSize, state.m_dwOwn});
    if (pWatched.compare_exchange_strong(pFound, pMade, std::memory_order_acq_rel)) {
        return pMade;
    }
    CCmWatchedQueue::End(pMade);  // another thread was faster
    return pFound;
}

CCmWatchedQueue* CCmEventQueueSteps::Watched_l(CCmEventQueueBase& aQueue) {
    const DWORD dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
    CCmWatchedQueue* const pWatched =
        CCmPrivateRoom::Of(aQueue.m_Private).m_pWatched.load(std::memory_order_acquire);
    if (dwStart == 0 || pWatched == nullptr) {
        return nullptr;
    }
    if (CM_UNLIKELY(!pWatched->IsOf(dwStart))) {
        const auto dwEvents = static_cast<DWORD>(aQueue.m_Events.size());
        const DWORD dwWaysBack = CountWaysBack(aQueue.m_Events.begin(), aQueue.m_Events.end());
        pWatched->Begin(dwStart, dwEvents - dwWaysBack,
                        aQueue.m_dwSize.load(std::memory_order_relaxed) - dwEvents, dwWaysBack);
    }
    return pWatched;
}

CCmWatchedQueue* CCmEventQueueSteps::WatchedOwn(CCmEventQueueBase& aQueue) {
    const DWORD dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
    CCmWatchedQueue* const pWatched =
        CCmPrivateRoom::Of(aQueue.m_Private).m_pWatched.load(std::memory_order_acquire);
    if (dwStart == 0 || pWatched == nullptr) {
        return nullptr;
    }
    EnsureOwn(aQueue, *pWatched, dwStart);
    return pWatched;
}

void CCmEventQueueSteps::EnsureOwn(const CCmEventQueueBase& aQueue, CCmWatchedQueue& aWatched,
                                   DWORD aStart) {
    if (CM_UNLIKELY(!aWatched.IsOwnOf(aStart))) {
        aWatched.BeginOwn(aStart, OwnCount(aQueue));
    }
}

template <class IteratorType>
DWORD CCmEventQueueSteps::CountWaysBack(IteratorType aBegin, IteratorType aEnd) {
    return static_cast<DWORD>(std::count_if(
        aBegin, aEnd, [](const ICmEvent* aEvent) { return See(aEvent).m_bIsWayBack; }));
}

uint64_t CCmEventQueueSteps::CountWithoutWaysBack(const std::list<ICmEvent*>& aEvents) {
    return aEvents.size() - CountWaysBack(aEvents.begin(), aEvents.end());
}

// After they have been taken out, the last aCount before aEnd.
template <class IteratorType>
void CCmEventQueueSteps::NoteTaken_l(CCmEventQueueBase& aQueue, CCmWatchedQueue& aWatched,
                                     IteratorType aEnd, size_t aCount) {
    EnsureOwn(aQueue, aWatched, aWatched.Start());
    DWORD dwWaysBack = 0;
    if (CM_UNLIKELY(aWatched.m_dwWaysBack.Get() != 0)) {
        dwWaysBack = CountWaysBack(std::prev(aEnd, static_cast<long>(aCount)), aEnd);
        aWatched.m_dwWaysBack.Set(aWatched.m_dwWaysBack.Get() - dwWaysBack);
    }
    aWatched.NoteTaken(aWatched.Start(), aCount - dwWaysBack,
                       aQueue.m_Events.size() - aWatched.m_dwWaysBack.Get());
    if (CM_UNLIKELY(aWatched.m_dwGhosts.Get() != 0)) {
        aWatched.m_dwGhosts.Set(aQueue.m_dwSize.load(std::memory_order_relaxed) -
                                static_cast<DWORD>(aQueue.m_Events.size()));
    }
}

// Before they are taken out. m_dwSize stays as it is.
void CCmEventQueueSteps::NoteUnfired_l(CCmEventQueueBase& aQueue) {
    if (CCmWatchedQueue* const pWatched = Watched_l(aQueue)) {
        pWatched->m_Unfired.Add(pWatched->Start(), CountWithoutWaysBack(aQueue.m_Events));
        pWatched->m_dwGhosts.Set(aQueue.m_dwSize.load(std::memory_order_relaxed));
        pWatched->m_dwWaysBack.Set(0);
        pWatched->m_Probe.Forget();
        pWatched->m_OwnProbe.Forget();
    }
}

// The calling thread is about to take events out, not under the queue's lock.
void CCmEventQueueSteps::NoteConsumer(CCmEventQueueBase& aQueue) {
    CCmWatchedQueue* const pWatched = EnsureWatched(aQueue);
    CCmWatchedThread* const pThread = CmEnsureWatchedThread();
    if (pWatched != nullptr && pThread != nullptr) {
        pWatched->SetConsumer(pThread);
    }
}

void CCmEventQueueSteps::NoteRefused(CCmEventQueueBase& aQueue) {
    if (CCmWatchedQueue* const pWatched = EnsureWatched(aQueue)) {
        pWatched->m_Refused.Add(g_cmWatchOn.load(std::memory_order_relaxed), 1);
    }
}

// Null when the sleep is not to be counted.
CCmWatchedThread* CCmEventQueueSteps::FallAsleep(const CLoop* aLoop) {
    CCmWatchedThread* const pThread = CmWatchedThread();
    if (pThread == nullptr || pThread->m_dwDepth != 0 ||
        !pThread->IsOf(g_cmWatchOn.load(std::memory_order_relaxed))) {
        return nullptr;
    }
    const bool bGoesOn = aLoop != nullptr && aLoop->m_bGoesOn;
    pThread->m_llAsleepSince.Set(CmUsecOf(bGoesOn ? aLoop->m_tvEnd : CCmTimeValue::GetTimeOfDay()));
    return pThread;
}

// With events there, the pass that runs them reads the clock anyway (CPass::BeginWatch).
void CCmEventQueueSteps::WakeUp(CCmWatchedThread& aThread, bool aHasEvents) {
    if (!aHasEvents && aThread.IsOf(g_cmWatchOn.load(std::memory_order_relaxed))) {
        aThread.EndSleep(CmUsecOf(CCmTimeValue::GetTimeOfDay()));
    }
}

// Runs events one after the other. Each is timed from the moment that the one before was destroyed,
// so that one reading of the clock an event is enough.
class CCmEventQueueSteps::CPass {
  public:
    explicit CPass(CCmEventQueueBase& aQueue) : CPass(aQueue, CCmTimeValue::GetTimeOfDay()) {}
    CPass(CCmEventQueueBase& aQueue, const CCmTimeValue& aStart)
        : m_Queue(aQueue), m_pFiring(nullptr), m_tvStart(aStart) {
        if (CmWatchIsOn()) {
            BeginWatch();
        }
    }
    CPass(const CPass&) = delete;
    CPass& operator=(const CPass&) = delete;

    void RunAndDestroy(ICmEvent* aEvent) {
        CM_ASSERTE_RETURN(aEvent, void());
        // An event within this pass may have turned the watch off, and on again.
        if (CM_UNLIKELY(m_pWatched != nullptr && CmWatchIsOnSince(m_dwStart))) {
            RunWatched(aEvent);
            return;
        }
        const CCmTimeValue tvElapsed = FireAndEnd(aEvent);
        if (CM_UNLIKELY(tvElapsed > CCmEventQueueBase::s_tvReportInterval)) {
            Report(aEvent, tvElapsed);
            m_tvStart = CCmTimeValue::GetTimeOfDay();  // the line is not part of the next event
        }
    }
    // When the last event ended, or the pass began.
    const CCmTimeValue& End() const { return m_tvStart; }
    // For a thread that is cancelled: an event that has begun is destroyed where it began.
    void DestroyFiring() {
        if (m_pFiring != nullptr) {
            m_pFiring->OnDestorySelf();
        }
    }
    // Events that were taken out and will not run are about to be destroyed.
    void NoteUnfired(const std::list<ICmEvent*>& aEvents) {
        if (CM_UNLIKELY(m_pWatched != nullptr)) {
            m_pWatched->m_Unfired.Add(m_dwStart, CountWithoutWaysBack(aEvents));
            m_pWatched->m_dwTaken.Set(0);
        }
    }

    // The same of events that are about to be pending again. Those that were taken out before the
    // watch was on count as posted from now on.
    void NotePutBack_l(const std::list<ICmEvent*>& aEvents) const {
        if (CCmWatchedQueue* const pWatched = Watched_l(m_Queue)) {
            const DWORD dwWaysBack = CountWaysBack(aEvents.begin(), aEvents.end());
            if (m_pWatched == nullptr || m_dwStart != pWatched->Start()) {
                pWatched->m_ullPosted.Add(aEvents.size() - dwWaysBack);
            }
            pWatched->m_dwWaysBack.Add(dwWaysBack);
            pWatched->m_dwTaken.Set(0);
        }
    }

  private:
    // How long it took, from m_tvStart to its end, which is m_tvStart then.
    CCmTimeValue FireAndEnd(ICmEvent* aEvent) {
        m_pFiring = aEvent;
        aEvent->OnEventFire();
        m_pFiring = nullptr;
        aEvent->OnDestorySelf();
        const CCmTimeValue tvEnd = CCmTimeValue::GetTimeOfDay();
        const CCmTimeValue tvElapsed = tvEnd - m_tvStart;
        m_tvStart = tvEnd;
        return tvElapsed;
    }
    void BeginWatch();
    void RunWatched(ICmEvent* aEvent);
    void ReportWatched(const ICmEvent* aEvent, const void* aTable, long long aStart,
                       long long aWaited, long long aRan) const;

    // aEvent has been destroyed: its address is all that is used.
    void Report(ICmEvent* aEvent, const CCmTimeValue& aElapsed) const {
        CM_WARNING_TRACE("CCmEventQueueBase::ProcessOneEvent, report, sec="
                         << aElapsed.GetSec() << " usec=" << aElapsed.GetUsec() << " aEvent="
                         << CmTraceAddress(aEvent) << " m_dwSize=" << PendingCount(m_Queue)
                         << " this=" << CmTraceAddress(&m_Queue));
    }

    CCmEventQueueBase& m_Queue;
    ICmEvent* m_pFiring;
    CCmTimeValue m_tvStart;
    CCmWatchedQueue* m_pWatched = nullptr;  // the events of this pass are counted there
    DWORD m_dwStart = 0;                    // of the watch
    CCmWatchedRun m_Run;
};

// Events that were taken out before the watch was on are not counted: nobody has counted their
// posts.
void CCmEventQueueSteps::CPass::BeginWatch() {
    CCmWatchedThread* const pThread = CmEnsureWatchedThread();
    if (pThread == nullptr) {
        return;
    }
    pThread->EndSleep(CmUsecOf(m_tvStart));
    CCmWatchedQueue* const pWatched = WatchedOwn(m_Queue);
    if (pWatched == nullptr) {
        return;
    }
    pWatched->SetConsumer(pThread);
    m_dwStart = pWatched->OwnStart();
    if (pWatched->m_dwTakenStart == m_dwStart) {
        m_pWatched = pWatched;
        m_Run.Enter(pThread);
    }
}

void CCmEventQueueSteps::CPass::RunWatched(ICmEvent* aEvent) {
    const CSeenEvent seen = See(aEvent);
    const bool bCounts = !seen.m_bIsWayBack;
    CCmWatchedThread& thread = *m_Run.Thread();
    const long long llStart = CmUsecOf(m_tvStart);
    m_Run.SetCurrent(seen.m_pTable, llStart);
    long long llWaited = -1;
    if (bCounts) {
        if (m_pWatched->m_dwTaken.Get() != 0) {
            m_pWatched->m_dwTaken.Set(m_pWatched->m_dwTaken.Get() - 1);
        }
        m_pWatched->m_ullRun.Add(1);
        long long llPosted = 0;
        if (CM_UNLIKELY(m_pWatched->m_Probe.Take(aEvent, llPosted) ||
                        m_pWatched->m_OwnProbe.Take(aEvent, llPosted))) {
            llWaited = std::max(llStart - llPosted, 0LL);
            thread.m_Waited.Add(llWaited);
        }
    }
    const CCmTimeValue tvElapsed = FireAndEnd(aEvent);
    const long long llRan = CmUsecOf(tvElapsed);
    const bool bIsOnSince = CmWatchIsOnSince(m_dwStart);
    if (bCounts) {
        if (bIsOnSince && CM_UNLIKELY(thread.m_Run.Add(llRan))) {
            thread.m_pLongest.Set(seen.m_pTable);
        }
        if (CCmFlightRing* const pRing = thread.Ring()) {
            pRing->Event(llStart, llRan, seen.m_pTable, aEvent,
                         m_pWatched->PendingAfter(m_dwStart, llRan));
        }
    }
    if (bIsOnSince && m_Run.IsOutermost()) {
        thread.m_ullInEvents.Add(static_cast<uint64_t>(std::max(llRan, 0LL)));
    }
    if (CM_UNLIKELY(tvElapsed > CCmEventQueueBase::s_tvReportInterval)) {
        Report(aEvent, tvElapsed);
        ReportWatched(aEvent, seen.m_pTable, llStart, llWaited, llRan);
        m_tvStart = CCmTimeValue::GetTimeOfDay();  // the lines are not part of the next event
    }
}

// aWaited: -1 when it has not been measured.
//
// An event starts where the one before has ended, which may be shortly before it was posted; so its
// post is looked for up to its end, less what the clock of posts may be late: what has been posted
// at the same address since is another event. So is one that was posted before, if by that clock an
// event has run there since: the record of this post has been overwritten.
void CCmEventQueueSteps::CPass::ReportWatched(const ICmEvent* aEvent, const void* aTable,
                                              long long aStart, long long aWaited,
                                              long long aRan) const {
    char szClass[CM_CLASS_TEXT_SIZE];
    CmClassText(aTable, szClass, sizeof(szClass));
    char szPoster[CM_FLIGHT_NAME_SIZE] = "unknown";
    char szWaited[24] = "unknown";
    long long llPosted = 0;
    const long long llLastPost = aStart + aRan - CM_PORT_COARSE_USEC;
    if (CCmFlight::FindPost(aEvent, aTable, &m_Queue, llLastPost, llPosted, szPoster)) {
        const CCmFlightRing* const pRing = m_Run.Thread()->Ring();
        if (pRing != nullptr && pRing->HasRun(aEvent, llPosted + CM_PORT_COARSE_USEC, aStart)) {
            std::snprintf(szPoster, sizeof(szPoster), "unknown");
        } else if (aWaited < 0) {
            aWaited = std::max(aStart - llPosted, 0LL);
        }
    }
    if (aWaited >= 0) {
        std::snprintf(szWaited, sizeof(szWaited), "%lld", aWaited);
    }
    CM_WARNING_TRACE(
        "CCmEventQueueBase::ProcessOneEvent, watch, class="
        << static_cast<const char*>(szClass) << " postedBy=" << static_cast<const char*>(szPoster)
        << " waitedUsec=" << static_cast<const char*>(szWaited) << " ranUsec=" << aRan
        << " pending=" << m_pWatched->Pending(m_dwStart) << " this=" << CmTraceAddress(&m_Queue));
}

// The loop of every Process function: runs the events from aNext on. Whether it comes to the end of
// the list, finds aStop set (may be null) or the thread is cancelled: the event that has begun is
// destroyed, and aLeave is called with the place of the first event that has not begun, which stays
// with its owner, as do those after it. aStop is read relaxed: nothing is handed over with it.
template <class IteratorType, class LeaveType>
void CCmEventQueueSteps::Run(CPass& aPass, IteratorType aNext, IteratorType aEnd,
                             const CmStd::atomic<bool>* aStop, LeaveType aLeave) {
    CCmCleanUpT leave([&aPass, &aNext, &aLeave] {
        aPass.DestroyFiring();
        aLeave(aNext);
    });
    while (aNext != aEnd && (aStop == nullptr || !aStop->load(std::memory_order_relaxed))) {
        ICmEvent* const pEvent = *aNext++;
        aPass.RunAndDestroy(pEvent);
    }
    leave.Execute();
}

// Events are destroyed without the lock: they may post.
void CCmEventQueueSteps::DestroyPending(CCmEventQueueBase& aQueue, CCmMutexThread& aMutex) {
    CCmEventQueueBase::CQueueState& state = CCmPrivateRoom::Of(aQueue.m_Private);
    std::list<ICmEvent*> events;
    {
        CCmScopedLockT<CCmMutexThread> lock(aMutex);
        if (CLoop* const pLoop = state.LoopOfThisThread()) {
            pLoop->GiveOwn();
        } else if (state.m_dwOwn.load(std::memory_order_relaxed) != 0) {
            state.m_dwDiscards.fetch_add(1, std::memory_order_relaxed);
        }
        if (CmWatchIsOn()) {
            NoteUnfired_l(aQueue);
        }
        events.swap(aQueue.m_Events);
    }
    DestroyAll(events);
}

CCmEventQueueBase::CCmEventQueueBase()
    : m_dwSize(0),
      m_tvLastReport(CCmTimeValue::GetTimeOfDay()),
      m_Tid(pthread_t()),
      m_bIsStopped(false) {
    CCmPrivateRoom::Make(m_Private);
}

CCmEventQueueBase::~CCmEventQueueBase() {
    CCmDisableCancel disableCancel;
    WaitForSenders();
    SetStopped();  // what an event posts while it is destroyed is refused
    DestoryPendingEvents();
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmEventQueueBase::PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    CCmEventQueueSteps::CPosting posting(*this, aEvent);
    CmResult rv = posting.Prepare(true);
    if (CM_SUCCEEDED(rv)) {
        rv = posting.Append();
        posting.Count(false, 0);
    }
    posting.Conclude(rv);
    return rv;
}

DWORD CCmEventQueueBase::GetPendingEventsCount() {
    return CCmEventQueueSteps::PendingCount(*this);
}

// m_dwSize may be above 0 while the list is empty: DestoryPendingEvents leaves it as it was. It is
// atomic for GetPendingEventsCount, which takes no lock; nothing is handed over with it.
CmResult CCmEventQueueBase::PopPendingEvents(std::list<ICmEvent*>& aEvents, DWORD aMaxCount,
                                             DWORD* aRemainSize) {
    CCmEventQueueSteps::GatherOwn(*this);
    DWORD dwSize = m_dwSize.load(std::memory_order_relaxed);
    if (dwSize == 0) {
        return CM_ERROR_NOT_FOUND;
    }
    CCmWatchedQueue* const pWatched =
        CmWatchIsOn() ? CCmEventQueueSteps::Watched_l(*this) : nullptr;
    const size_t nTaken = std::min<size_t>(m_Events.size(), aMaxCount);
    if (dwSize <= aMaxCount) {
        aEvents.splice(aEvents.end(), m_Events);
        dwSize = 0;
    } else {
        auto itEnd = m_Events.begin();
        for (DWORD i = 0; i < aMaxCount && itEnd != m_Events.end(); ++i) {
            ++itEnd;
            --dwSize;
        }
        aEvents.splice(aEvents.end(), m_Events, m_Events.begin(), itEnd);
    }
    m_dwSize.store(dwSize, std::memory_order_relaxed);
    if (CM_UNLIKELY(pWatched != nullptr)) {
        CCmEventQueueSteps::NoteTaken_l(*this, *pWatched, aEvents.end(), nTaken);
    }
    if (aRemainSize != nullptr) {
        *aRemainSize = dwSize;
    }
    return CM_OK;
}

CmResult CCmEventQueueBase::PopOnePendingEvent(ICmEvent*& aEvent, DWORD* aRemainSize) {
    CCmEventQueueSteps::GatherOwn(*this);
    if (m_Events.empty()) {
        return CM_ERROR_NOT_FOUND;
    }
    CCmWatchedQueue* const pWatched =
        CmWatchIsOn() ? CCmEventQueueSteps::Watched_l(*this) : nullptr;
    aEvent = m_Events.front();
    m_Events.pop_front();
    const DWORD dwSize = m_dwSize.load(std::memory_order_relaxed) - 1;
    m_dwSize.store(dwSize, std::memory_order_relaxed);
    if (CM_UNLIKELY(pWatched != nullptr)) {
        CCmEventQueueSteps::NoteTaken_l(*this, *pWatched, &aEvent + 1, 1);
    }
    if (aRemainSize != nullptr) {
        *aRemainSize = dwSize;
    }
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessEvents(const std::list<ICmEvent*>& aEvents) {
    CCmEventQueueSteps::CPass pass(*this);
    CCmEventQueueSteps::Run(pass, aEvents.begin(), aEvents.end(), nullptr, [](auto) {});
    return CM_OK;
}

CmResult CCmEventQueueBase::ProcessOneEvent(ICmEvent* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    CCmEventQueueSteps::CPass pass(*this);
    CCmEventQueueSteps::Run(pass, &aEvent, &aEvent + 1, nullptr, [](auto) {});
    return CM_OK;
}

void CCmEventQueueBase::DestoryPendingEvents() {
    CCmEventQueueSteps::GatherOwn(*this);
    if (CmWatchIsOn()) {
        CCmEventQueueSteps::NoteUnfired_l(*this);
    }
    std::list<ICmEvent*> events;
    events.swap(m_Events);
    DestroyAll(events);
}

// Relaxed: a thread finds itself in m_Tid only if it stored that itself.
void CCmEventQueueBase::BindToCurrentThread() {
    m_Tid.store(pthread_self(), std::memory_order_relaxed);
    CCmPrivateRoom::Of(m_Private).m_Consumer.BindToCurrentThread();
}

void CCmEventQueueBase::SetStopped() {
    m_bIsStopped.store(true, std::memory_order_relaxed);
}

void CCmEventQueueBase::WaitForSenders() {
    CCmDisableCancel disableCancel;
    while (CCmPrivateRoom::Of(m_Private).HasBusySenders()) {
        const timespec tsNap = {0, SENDERS_NAP_NSEC};
        g_cmSystem.nanosleep(&tsNap, nullptr);
    }
}

// How far a send has come. Two take part: the queue, on whichever thread runs or destroys the
// wrapper, and the sender.
//
//   outcome     moved by, in               from        and then
//   NONE        (constructor)
//   FIRED       queue, OnEventFire         NONE        wakes the sender, which posts the wrapper
//                                                      back: a second pass, which fires nothing
//                                          ABANDONED   (nobody waits; the event has run)
//   DISCARDED   queue, OnDestorySelf       NONE        wakes the sender, which keeps off the queue
//   ABANDONED   sender, cancelled or its   NONE        the event still runs or is destroyed
//               wait failed                FIRED       gives the hold on the queue back
//                                          DISCARDED   -
//
// Every move is an exchange with acquire and release: the sender that reads FIRED or DISCARDED
// comes after the write of m_Result. The hold on the queue (HoldQueue) is taken right before FIRED.
// If the sender gives up, whichever of FIRED and ABANDONED comes second sees the other and gives
// the hold back, once; otherwise the sender does, after it has posted the wrapper back.
//
// m_bHasDestoryed: false until the first of the two has let go, which leaves the wrapper to the
// other; the second deletes it. The queue lets go in OnDestorySelf of the first pass; the sender by
// that of the second pass, or by itself where there is none (discarded, abandoned, refused, or
// without a queue).
// Acquire and release again: the second comes after all that the first did with it.
//
// m_pEvent: whoever exchanges it with null destroys the event.
class CCmEventSynchronous::CSendState {
  public:
    explicit CSendState(CCmEventSynchronous& aWrapper) : m_Wrapper(aWrapper) {}
    CSendState(const CSendState&) = delete;
    CSendState& operator=(const CSendState&) = delete;

    // For the sender of a wrapper that has a queue; the caller must not touch it afterwards.
    CmResult Send();
    // aBlocked: what has been entered for this wait.
    CmResult Wait(CCmBlockedSend& aBlocked);

    // Of a wrapper that is pending.
    bool HasFired() const { return m_nOutcome.load(std::memory_order_relaxed) == OUTCOME_FIRED; }
    bool IsOnItsWayBack() const {
        // A sender that gave up has let go, too; its event still runs. The acquire also covers the
        // relaxed load: ABANDONED is stored before the sender lets go.
        return m_Wrapper.m_bHasDestoryed.load(std::memory_order_acquire) &&
               m_nOutcome.load(std::memory_order_relaxed) != OUTCOME_ABANDONED;
    }
    void SetFired() {
        m_bFiredElsewhere = !IsEqualCurrentThread(m_Wrapper.m_CreatorTid);
        HoldQueue();
        if (m_bHoldsQueue) {
            if (CCmEventQueueSteps::CLoop* const pLoop = QueueState().LoopOfThisThread()) {
                pLoop->NoteSend(m_nSenderCore);
            }
        }
        if (m_nOutcome.exchange(OUTCOME_FIRED, std::memory_order_acq_rel) == OUTCOME_ABANDONED) {
            ReleaseQueue();
        }
        Wake();
    }
    void DiscardUnlessFired() {
        int nOutcome = OUTCOME_NONE;
        if (m_nOutcome.compare_exchange_strong(nOutcome, OUTCOME_DISCARDED,
                                               std::memory_order_acq_rel)) {
            Wake();
        }
    }
    // An event that has fired is destroyed on the thread that fired it. A sender whose post back is
    // refused comes to OnDestorySelf as well, perhaps before that thread does.
    bool MayDestroyEventHere() const {
        return !m_bFiredElsewhere || !IsEqualCurrentThread(m_Wrapper.m_CreatorTid);
    }
    void DestroyEvent() {
        ICmEvent* pEvent = m_Wrapper.m_pEvent.exchange(nullptr, std::memory_order_acq_rel);
        if (pEvent != nullptr) {
            pEvent->OnDestorySelf();
        }
    }
    void LetGo() {
        if (m_Wrapper.m_bHasDestoryed.exchange(true, std::memory_order_acq_rel)) {
            delete &m_Wrapper;
        }
    }
    void Wake() { CCmConditionSteps::SignalAfterUnlock(m_Wrapper.m_SendEvent); }

  private:
    enum EOutcome : int { OUTCOME_NONE, OUTCOME_FIRED, OUTCOME_DISCARDED, OUTCOME_ABANDONED };

    // Once the event has been posted, and while the queue is held.
    void EnterWait(CCmBlockedSend& aBlocked);
    // aBlocked refers to this object, which may be gone afterwards.
    void Abandon(CCmBlockedSend& aBlocked) {
        aBlocked.Leave();
        Abandon();
    }
    void Abandon() {
        if (m_nOutcome.exchange(OUTCOME_ABANDONED, std::memory_order_acq_rel) == OUTCOME_FIRED) {
            ReleaseQueue();
        }
        LetGo();
    }
    // From the firing until the sender has posted the wrapper back, the queue must stay alive.
    void HoldQueue() {
        if (m_bHoldsQueue) {
            QueueState().CountSenderIn();
        }
    }
    void ReleaseQueue() {
        if (m_bHoldsQueue) {
            QueueState().CountSenderOut();
        }
    }
    CCmEventQueueBase::CQueueState& QueueState() {
        return CCmPrivateRoom::Of(m_Wrapper.m_pEventQueue->m_Private);
    }

    CCmEventSynchronous& m_Wrapper;
    CmStd::atomic<int> m_nOutcome{OUTCOME_NONE};
    bool m_bHoldsQueue = false;  // set by Send, before it posts: the post orders it
    // On another thread than the one that made the wrapper; written before FIRED, read after it.
    bool m_bFiredElsewhere = false;
    int m_nSenderCore = -1;  // where Send was called, or -1
};

CmResult CCmEventQueueBase::SendEvent(ICmEvent* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    if (CM_UNLIKELY(m_bIsStopped.load(std::memory_order_relaxed))) {
        CM_WARNING_TRACE_THIS("CCmEventQueueBase::SendEvent, has been stopped.");
        if (CmWatchIsOn()) {
            CCmEventQueueSteps::NoteRefused(*this);
        }
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
    if (IsEqualCurrentThread(m_Tid.load(std::memory_order_relaxed))) {
        return FireAndDestroy(aEvent);
    }
    CCmEventSynchronous* pSynchronous = new (std::nothrow) CCmEventSynchronous(aEvent, this);
    if (pSynchronous == nullptr) {
        if (CmWatchIsOn()) {
            CCmEventQueueSteps::NoteRefused(*this);
        }
        aEvent->OnDestorySelf();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CCmPrivateRoom::Of(pSynchronous->m_Private).Send();
}

// Relaxed: nobody takes the event out before the wrapper has fired.
CCmEventQueueSteps::CSeenEvent CCmEventQueueSteps::See(const ICmEvent* aEvent) {
    CSeenEvent seen = {CmTableOf(aEvent), false};
    if (seen.m_pTable == s_pTableOfSends.load(std::memory_order_relaxed)) {
        const auto& wrapper = *static_cast<const CCmEventSynchronous*>(aEvent);
        seen.m_bIsWayBack = CCmPrivateRoom::Of(wrapper.m_Private).HasFired();
        const ICmEvent* const pCarried =
            seen.m_bIsWayBack ? nullptr : wrapper.m_pEvent.load(std::memory_order_relaxed);
        seen.m_pTable = pCarried != nullptr ? CmTableOf(pCarried) : seen.m_pTable;
    }
    return seen;
}

CmResult CCmEventSynchronous::CSendState::Send() {
    CCmEventQueueBase& queue = *m_Wrapper.m_pEventQueue;
    CCmWatchedSend watched(m_Wrapper.m_pEvent.load(std::memory_order_relaxed));
    CCmEventQueueBase::CQueueState& queueState = QueueState();
    m_bHoldsQueue = true;
    m_nSenderCore = CmPortCurrentCore();
    const int nLoopCore = queueState.m_nLoopCore.load(std::memory_order_relaxed);
    const bool bMaySpin = nLoopCore != -1 && nLoopCore != m_nSenderCore;
    queueState.CountSenderIn();
    CCmBlockedSend blocked;
    CCmCleanUpT giveUp([this, &queueState, &blocked] {
        Abandon(blocked);
        queueState.CountSenderOut();
    });
    const bool bIsWatched = CCmBlockedSend::IsOn();
    if (CM_UNLIKELY(bIsWatched)) {
        // Relaxed, and before the post: nobody else has the event yet.
        blocked.SetSent(CmTableOf(m_Wrapper.m_pEvent.load(std::memory_order_relaxed)));
    }
    const CmResult rv = queue.PostEvent(&m_Wrapper, ICmEventQueue::EPRIORITY_NORMAL);
    if (CM_UNLIKELY(bIsWatched) && CM_SUCCEEDED(rv)) {
        EnterWait(blocked);
    }
    giveUp.Release();
    queueState.CountSenderOut();
    if (CM_FAILED(rv)) {
        LetGo();  // PostEvent destroyed the event and let go for the queue
        return rv;
    }
    if (bMaySpin && t_sendSpin.MayTry()) {
        t_sendSpin.Note(CmSpinUntil(
            [this] { return m_nOutcome.load(std::memory_order_relaxed) != OUTCOME_NONE; },
            SPIN_NSEC));
    }
    const CmResult rvWait = Wait(blocked);
    watched.End(&queue);
    return rvWait;
}

void CCmEventSynchronous::CSendState::EnterWait(CCmBlockedSend& aBlocked) {
    char szNames[CCmBlockedSend::NAMES_SIZE];
    const auto goesOn = [](const void* aState) {
        return static_cast<const CSendState*>(aState)->m_nOutcome.load(std::memory_order_acquire) ==
               OUTCOME_NONE;
    };
    if (aBlocked.Enter(QueueState().m_Consumer, goesOn, this, szNames)) {
        CM_WARNING_TRACE(
            "CCmEventQueueBase::SendEvent, watch, threads wait for each other: " << szNames);
    }
}

CmResult CCmEventSynchronous::CSendState::Wait(CCmBlockedSend& aBlocked) {
    CCmCleanUpT abandon([this, &aBlocked] { Abandon(aBlocked); });
    pthread_testcancel();  // the result may be there by now, so that nothing waits
    while (m_nOutcome.load(std::memory_order_acquire) == OUTCOME_NONE) {
        const CmResult rvWait = m_Wrapper.m_SendEvent.Wait(nullptr);
        if (CM_FAILED(rvWait)) {
            CM_WARNING_TRACE(
                "CCmEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed! this="
                << CmTraceAddress(&m_Wrapper));
            abandon.Execute();
            return rvWait;
        }
    }
    abandon.Release();
    aBlocked.Leave();
    const CmResult rv = m_Wrapper.m_Result;
    CCmEventQueueBase* const pQueue = m_Wrapper.m_pEventQueue;
    if (pQueue == nullptr || m_nOutcome.load(std::memory_order_relaxed) == OUTCOME_DISCARDED) {
        LetGo();  // discarded: the queue may be gone
        return rv;
    }
    // The wrapper may be gone as soon as it is posted; the hold that the firing took outlives it.
    CCmEventQueueBase::CQueueState* const pHeld = m_bHoldsQueue ? &QueueState() : nullptr;
    CCmCleanUpT releaseQueue([pHeld] {
        if (pHeld != nullptr) {
            pHeld->CountSenderOut();
        }
    });
    pQueue->PostEvent(&m_Wrapper, ICmEventQueue::EPRIORITY_NORMAL);
    releaseQueue.Execute();
    return rv;
}

CCmEventSynchronous::CCmEventSynchronous(ICmEvent* aEvent, CCmEventQueueBase* aQueue)
    : m_pEvent(aEvent),
      m_Result(CM_ERROR_NOT_AVAILABLE),
      m_pEventQueue(aQueue),
      m_bHasDestoryed(false) {
    CCmPrivateRoom::Make(m_Private, *this);
}

// Relaxed loads: whoever deletes the wrapper comes after the other one (LetGo).
CCmEventSynchronous::~CCmEventSynchronous() {
    CSendState& state = CCmPrivateRoom::Of(m_Private);
    if (m_pEvent.load(std::memory_order_relaxed) != nullptr) {
        CCmDisableCancel disableCancel;
        state.DestroyEvent();
    }
    if (!m_bHasDestoryed.load(std::memory_order_relaxed)) {
        state.Wake();
    }
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmEventSynchronous::OnEventFire() {
    CSendState& state = CCmPrivateRoom::Of(m_Private);
    if (state.IsOnItsWayBack()) {
        return CM_OK;
    }
    // Relaxed: nobody takes the event out before SetFired.
    ICmEvent* pEvent = m_pEvent.load(std::memory_order_relaxed);
    const CmResult rv = pEvent != nullptr ? pEvent->OnEventFire() : CM_ERROR_NULL_POINTER;
    m_Result = rv;
    state.SetFired();
    return rv;
}

void CCmEventSynchronous::OnDestorySelf() {
    CSendState& state = CCmPrivateRoom::Of(m_Private);
    CCmCleanUpT letGo([&state] {
        state.DiscardUnlessFired();
        state.LetGo();
    });
    if (state.MayDestroyEventHere()) {
        state.DestroyEvent();
    }
    letGo.Execute();
}

CmResult CCmEventSynchronous::WaitResultAndDeleteThis() {
    // Not entered: the queue may be gone, and its thread unknown.
    CCmBlockedSend blocked;
    return CCmPrivateRoom::Of(m_Private).Wait(blocked);
}

CCmEventQueueUsingMutex::CCmEventQueueUsingMutex() = default;

CCmEventQueueUsingMutex::~CCmEventQueueUsingMutex() {
    WaitForSenders();
}

CmResult CCmEventQueueUsingMutex::PostEvent(ICmEvent* aEvent, EPriority aPri) {
    return PostEventWithOldSize(aEvent, aPri, nullptr);
}

CmResult CCmEventQueueUsingMutex::PostEventWithOldSize(ICmEvent* aEvent, EPriority /*aPri*/,
                                                       DWORD* aOldSize) {
    CCmEventQueueSteps::CPosting posting(*this, aEvent);
    CmResult rv = aEvent != nullptr ? posting.Prepare(true) : CM_ERROR_INVALID_ARG;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (aOldSize != nullptr) {
            *aOldSize = m_dwSize.load(std::memory_order_relaxed);
        }
        if (CM_SUCCEEDED(rv)) {
            rv = posting.Append();
            posting.Count(false, 0);
        }
    }
    CM_ASSERTE_RETURN(aEvent, rv);
    posting.Conclude(rv);
    return rv;
}

CmResult CCmEventQueueUsingMutex::PopPendingEventsLocked(std::list<ICmEvent*>& aEvents,
                                                         DWORD aMaxCount, DWORD* aRemainSize) {
    if (CmWatchIsOn()) {
        CCmEventQueueSteps::NoteConsumer(*this);
    }
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return PopPendingEvents(aEvents, aMaxCount, aRemainSize);
}

void CCmEventQueueUsingMutex::DestoryPendingEvents() {
    CCmEventQueueSteps::DestroyPending(*this, m_Mutex);
}

void CCmEventQueueUsingMutex::ProcessTakenEvents(std::list<ICmEvent*>& aEvents) {
    CCmEventQueueSteps::CPass pass(*this);
    CCmEventQueueSteps::Run(pass, aEvents.begin(), aEvents.end(), nullptr,
                            [&aEvents, &pass](std::list<ICmEvent*>::iterator aRest) {
                                aEvents.erase(aEvents.begin(), aRest);
                                pass.NoteUnfired(aEvents);
                                DestroyEach(aEvents);
                            });
}

// How the consumer waits and posts wake it, and the list nodes that its passes leave for posts.
class CCmEventQueueUsingConditionVariable::CConditionQueueState {
  public:
    explicit CConditionQueueState(CCmEventQueueUsingConditionVariable& aQueue) : m_Queue(aQueue) {}
    CConditionQueueState(const CConditionQueueState&) = delete;
    CConditionQueueState& operator=(const CConditionQueueState&) = delete;

    CmResult Post(ICmEvent* aEvent) {
        CCmEventQueueSteps::CLoop* const pLoop = CCmEventQueueSteps::LoopOfThisThread(m_Queue);
        if (pLoop != nullptr && pLoop->MayPost() && pLoop->PostOwn(aEvent, m_Spent)) {
            if (CmWatchIsOn()) {
                pLoop->NoteOwnPost(aEvent);
            }
            return CM_OK;
        }
        CCmEventQueueSteps::CPosting posting(m_Queue, aEvent);
        uint64_t ullWait = NO_WAIT;
        CmResult rv = posting.Prepare(m_dwSpares.load(std::memory_order_relaxed) == 0);
        if (CM_SUCCEEDED(rv)) {
            CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
            rv = Append_l(posting);
            if (CM_SUCCEEDED(rv)) {
                ullWait = WaitToSignal_l();
                posting.Count(ullWait != NO_WAIT,
                              pLoop != nullptr ? CCmEventQueueSteps::OwnCount(m_Queue) : 0);
            }
            if (pLoop != nullptr) {
                pLoop->NoteWatch();
            }
        }
        if (ullWait != NO_WAIT) {
            Signal(ullWait);
        }
        posting.Conclude(rv);
        return rv;
    }

    // Takes at most aMaxCount events; while nothing is pending, aWait waits once before that, under
    // the lock. A thread that is cancelled in it leaves the queue as it was.
    template <class WaitType>
    CmResult PopOrWait(std::list<ICmEvent*>& aEvents, DWORD aMaxCount, WaitType aWait) {
        CCmEventQueueSteps::CLoop* const pLoop = CCmEventQueueSteps::LoopOfThisThread(m_Queue);
        const bool bIsWatched = CmWatchIsOn();
        if (CM_UNLIKELY(bIsWatched)) {
            CCmEventQueueSteps::NoteConsumer(m_Queue);
        }
        if (pLoop != nullptr && pLoop->TakeOwn(aEvents, aMaxCount, bIsWatched)) {
            return CM_OK;
        }
        CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
        if (pLoop != nullptr) {
            pLoop->GiveOwn();
            pLoop->NoteWatch();
            // Found only now: they do not have to wait until the next post comes.
            if (CM_UNLIKELY(pLoop->HasToEndSome()) && m_Queue.m_Events.empty()) {
                lock.Unlock();
                pLoop->EndDiscarded();
                return CM_ERROR_NOT_FOUND;
            }
        }
        const size_t nNodesOfLoop = pLoop != nullptr ? pLoop->CountOfNodes() : 0;
        if (m_Spent.size() > nNodesOfLoop) {
            m_Spares.splice(m_Spares.begin(), m_Spent);
            m_Spent.splice(m_Spent.begin(), m_Spares, m_Spares.begin(),
                           std::next(m_Spares.begin(), static_cast<long>(nNodesOfLoop)));
            m_dwSpares.store(static_cast<DWORD>(m_Spares.size()), std::memory_order_relaxed);
        }
        // Not when the lock could not be taken: the wait would return with it taken, and nobody
        // would release it.
        if (m_Queue.m_Events.empty() && CM_SUCCEEDED(lock.result())) {
            CCmWatchedThread* const pSleeper =
                CmWatchIsOn() ? CCmEventQueueSteps::FallAsleep(pLoop) : nullptr;
            if (pLoop != nullptr) {
                pLoop->ForgetEnd();
            }
            EnterWait_l();
            CCmCleanUpT leave([this, &lock]() CM_NO_THREAD_SAFETY_ANALYSIS {
                LeaveWait_l();
                lock.Unlock();
            });
            aWait();
            leave.Release();
            LeaveWait_l();
            if (CM_UNLIKELY(pSleeper != nullptr)) {
                CCmEventQueueSteps::WakeUp(*pSleeper, !m_Queue.m_Events.empty());
            }
        }
        return m_Queue.PopPendingEvents(aEvents, aMaxCount, nullptr);
    }

    // Consumer thread only.
    void Run(CCmEventQueueSteps::CPass& aPass, std::list<ICmEvent*>& aEvents,
             const CmStd::atomic<bool>* aStop) {
        CCmEventQueueSteps::Run(aPass, aEvents.begin(), aEvents.end(), aStop,
                                [this, &aPass, &aEvents](std::list<ICmEvent*>::iterator aRest) {
                                    PutBack(aPass, aEvents, aRest);
                                    KeepNodes(aEvents);
                                });
    }

  private:
    // The events from aRest on are pending again, in their old place: the head.
    void PutBack(CCmEventQueueSteps::CPass& aPass, std::list<ICmEvent*>& aEvents,
                 std::list<ICmEvent*>::iterator aRest) {
        if (aRest == aEvents.end()) {
            return;
        }
        std::list<ICmEvent*> rest;
        rest.splice(rest.end(), aEvents, aRest, aEvents.end());
        CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
        if (CCmEventQueueSteps::CLoop* const pLoop =
                CCmEventQueueSteps::LoopOfThisThread(m_Queue)) {
            pLoop->GiveOwn();
        }
        if (CmWatchIsOn()) {
            aPass.NotePutBack_l(rest);
        }
        m_Queue.m_dwSize.fetch_add(static_cast<DWORD>(rest.size()), std::memory_order_relaxed);
        m_Queue.m_Events.splice(m_Queue.m_Events.begin(), rest);
    }
    // With the node that was prepared, or with a spare one.
    CmResult Append_l(CCmEventQueueSteps::CPosting& aPosting) CM_REQUIRES(m_Queue.m_Mutex) {
        if (aPosting.HasNode()) {
            return aPosting.Append();
        }
        // Prepare looked at m_dwSpares without the lock: other posters may have taken the last one.
        if (m_Spares.empty() && CM_FAILED(CmAddNode(m_Spares, nullptr))) {
            return CM_ERROR_OUT_OF_MEMORY;
        }
        const CmResult rv = aPosting.Append(m_Spares);
        m_dwSpares.store(static_cast<DWORD>(m_Spares.size()), std::memory_order_relaxed);
        return rv;
    }
    // The nodes wait in m_Spent for the next pop, which moves them to m_Spares: it holds the lock
    // anyway.
    void KeepNodes(std::list<ICmEvent*>& aNodes) {
        const size_t nKept = std::clamp(aNodes.size(), SPARES_AT_LEAST, SPARES_AT_MOST);
        m_Spent.splice(m_Spent.end(), aNodes);
        while (!m_Spent.empty() &&
               m_Spent.size() + m_dwSpares.load(std::memory_order_relaxed) > nKept) {
            m_Spent.pop_front();
        }
    }

    // Waits are numbered, so that a signal that a poster gives late, after the wait that it was
    // for, is not taken for one of the next wait.
    void EnterWait_l() CM_REQUIRES(m_Queue.m_Mutex) {
        ++m_dwWaiters;
        ++m_ullWait;
    }
    void LeaveWait_l() CM_REQUIRES(m_Queue.m_Mutex) {
        if (--m_dwWaiters > 0) {
            ++m_ullWait;  // the last signal may have been for this one: the others need another
        }
    }
    // The wait that a post has to signal, or NO_WAIT. One that has been signalled needs no second
    // signal. Only a signal that has been given counts: a poster that is about to give one may be
    // held up for any time. Acquire, paired with the release in Signal, which stores the number
    // after the signal was given.
    uint64_t WaitToSignal_l() const CM_REQUIRES(m_Queue.m_Mutex) {
        const bool bIsSignalled =
            m_dwWaiters == 1 && m_ullSignalled.load(std::memory_order_acquire) == m_ullWait;
        return m_dwWaiters == 0 || bIsSignalled ? NO_WAIT : m_ullWait;
    }
    // After the lock was released: the consumer does not wake up only to find it taken. A signal
    // that fails for good is left to the next post.
    void Signal(uint64_t aWait) {
        int nError = 0;
        if (CCmConditionSteps::SignalSurely(m_Queue.m_Condition, nError)) {
            m_ullSignalled.store(aWait, std::memory_order_release);
        }
        CCmConditionSteps::SignalResult(m_Queue.m_Condition, nError);
    }

    CCmEventQueueUsingConditionVariable& m_Queue;
    DWORD m_dwWaiters CM_GUARDED_BY(m_Queue.m_Mutex) = 0;  // consumers inside the wait
    CmStd::atomic<DWORD> m_dwSpares{0};  // the size of m_Spares, as a hint for posts (relaxed)
    uint64_t m_ullWait CM_GUARDED_BY(m_Queue.m_Mutex) = NO_WAIT;   // the number of the latest wait
    CmStd::atomic<uint64_t> m_ullSignalled{NO_WAIT};               // the last that was signalled
    std::list<ICmEvent*> m_Spares CM_GUARDED_BY(m_Queue.m_Mutex);  // nodes for coming posts
    std::list<ICmEvent*> m_Spent;  // consumer thread only: nodes that are to become spare
};

CCmEventQueueUsingConditionVariable::CCmEventQueueUsingConditionVariable() : m_Condition(m_Mutex) {
    CCmPrivateRoom::Make(m_Private, *this);
}

CCmEventQueueUsingConditionVariable::~CCmEventQueueUsingConditionVariable() {
    WaitForSenders();
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmEventQueueUsingConditionVariable::PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    return CCmPrivateRoom::Of(m_Private).Post(aEvent);
}

CmResult CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<ICmEvent*>& aEvents,
                                                                     CCmTimeValue* aTimeout,
                                                                     DWORD aMaxCount) {
    int nError = 0;
    DWORD dwSize = 0;
    const CmResult rv = CCmPrivateRoom::Of(m_Private).PopOrWait(aEvents, aMaxCount, [&] {
        nError = CCmConditionSteps::WaitCall(m_Condition, aTimeout);
        dwSize = m_dwSize.load(std::memory_order_relaxed);
    });
    const CmResult rvWait = CCmConditionSteps::WaitResult(m_Condition, aTimeout, nError);
    if (CM_FAILED(rvWait) && rvWait != CM_ERROR_TIMEOUT) {
        // Hosts know the line by this text, though what failed is the wait.
        CM_ERROR_TRACE_THIS(
            "CCmEventQueueUsingConditionVariable::PopOrWaitPendingEvents,m_Events is not empty. "
            "nSize="
            << dwSize << " rv=" << rvWait);
    }
    return rv;
}

void CCmEventQueueUsingConditionVariable::ProcessAndRecycleEvents(std::list<ICmEvent*>& aEvents) {
    CCmEventQueueSteps::CPass pass(*this);
    CCmPrivateRoom::Of(m_Private).Run(pass, aEvents, nullptr);
}

void CCmEventQueueUsingConditionVariable::DestoryPendingEvents() {
    CCmEventQueueSteps::DestroyPending(*this, m_Mutex);
}

void CCmEventQueueUsingConditionVariable::StopAndDestoryPendingEvents() {
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        SetStopped();
    }
    DestoryPendingEvents();
}

bool CCmEventQueueUsingConditionVariable::IsStoppedAndEmpty() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_bIsStopped.load(std::memory_order_relaxed) && m_Events.empty() &&
           CCmEventQueueSteps::OwnCount(*this) == 0;
}

auto& CCmEventQueueSteps::CLoop::QueueState() const {
    return CCmPrivateRoom::Of(m_Queue.CCmEventQueueBase::m_Private);
}

CCmEventQueueSteps::CLoop::CLoop(CCmEventQueueUsingConditionVariable& aQueue)
    : m_Queue(aQueue),
      m_pOuter(QueueState().LoopOfThisThread()),
      m_tvCoarseNow(),
      m_dwDiscards(QueueState().m_dwDiscards.load(std::memory_order_relaxed)),
      m_bGoesOn(false),
      m_nNodes(0),
      m_nOwnCore(-1),
      m_nSenderCore(-1) {
    CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
    if (m_pOuter != nullptr) {
        m_pOuter->GiveOwn();
    }
    NoteWatch();
    QueueState().SetLoop(this);
}

void CCmEventQueueSteps::CLoop::End() {
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
        GiveOwn();
        QueueState().SetLoop(m_pOuter);
    }
    DestroyAll(m_Discarded);
}

void CCmEventQueueSteps::CLoop::RunEvents(CCmTimeValue* aTimeout, DWORD aMaxCount) {
    EndDiscarded();
    if (m_nOwnCore != -1 && aTimeout == nullptr) {
        AwaitSender();
    }
    CCmTimeValue tvTend(CCmBlockPool::TEND_SEC);
    if (CM_UNLIKELY(TendMemory()) && (aTimeout == nullptr || *aTimeout > tvTend)) {
        aTimeout = &tvTend;
    }
    std::list<ICmEvent*> events;
    if (CM_SUCCEEDED(m_Queue.PopOrWaitPendingEvents(events, aTimeout, aMaxCount))) {
        RunTaken(events, nullptr);
    }
}

void CCmEventQueueSteps::CLoop::RunEventsUntil(long long aDeadlineNsec, DWORD aMaxCount,
                                               const CmStd::atomic<bool>& aStop) {
    EndDiscarded();
    if (m_nOwnCore != -1 && aDeadlineNsec == CM_NEVER_NSEC) {
        AwaitSender();
    }
    if (CM_UNLIKELY(TendMemory())) {
        aDeadlineNsec = std::min(
            aDeadlineNsec, CmLaterNsec(CmMonotonicNsec(), CCmTimeValue(CCmBlockPool::TEND_SEC)));
    }
    std::list<ICmEvent*> events;
    if (CM_SUCCEEDED(PopOrWaitUntil(events, aDeadlineNsec, aMaxCount))) {
        RunTaken(events, &aStop);
    }
}

bool CCmEventQueueSteps::CLoop::TendMemory() {
    bool bHasTrimmed = false;
    const bool bIsToLookAgain = CCmBlockPool::Tend(&bHasTrimmed);
    if (CM_UNLIKELY(bHasTrimmed)) {
        ForgetEnd();
    }
    return bIsToLookAgain;
}

// A sender whose event has fired posts its wrapper back as soon as it runs, and often the next send
// after it. If the loop slept by then, each would have to wake it. On a core of its own the loop
// looks out for them for a moment. On the sender's core it lets the sender go first; where a yield
// has given the core to somebody else for long, it does not do that again for a long time.
void CCmEventQueueSteps::CLoop::AwaitSender() {
    const bool bSameCore = m_nOwnCore == m_nSenderCore;
    m_nOwnCore = -1;
    const auto hasPost = [this] { return m_Queue.m_dwSize.load(std::memory_order_relaxed) != 0; };
    CCmLearnedTry& learned = bSameCore ? m_Yield : m_Spin;
    if (!m_bGoesOn || !m_Own.empty() || hasPost() || !learned.MayTry()) {
        return;
    }
    if (bSameCore) {
        sched_yield();
    }
    const bool bCame = bSameCore ? hasPost() : CmSpinUntil(hasPost, SPIN_NSEC);
    // This reading is the start of the next event, so that it costs nothing where that is there.
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    if (bSameCore && tvNow - m_tvEnd > LONG_YIELD) {
        learned.NoteHarm();
    } else {
        learned.Note(bCame);
    }
    m_tvEnd = tvNow;
    pthread_testcancel();  // like the wait that this may be in place of
}

// An event that was sent has been fired in this pass.
void CCmEventQueueSteps::CLoop::NoteSend(int aSenderCore) {
    m_nOwnCore = aSenderCore != -1 ? CmPortCurrentCore() : -1;
    m_nSenderCore = aSenderCore;
    QueueState().m_nLoopCore.store(m_nOwnCore, std::memory_order_relaxed);
}

CmResult CCmEventQueueSteps::CLoop::PopOrWaitUntil(std::list<ICmEvent*>& aEvents,
                                                   long long aDeadlineNsec, DWORD aMaxCount) {
    if (aDeadlineNsec == CM_NEVER_NSEC) {
        return m_Queue.PopOrWaitPendingEvents(aEvents, nullptr, aMaxCount);
    }
    int nError = 0;
    const CmResult rv = CCmPrivateRoom::Of(m_Queue.m_Private).PopOrWait(aEvents, aMaxCount, [&] {
        nError = CCmConditionSteps::WaitUntilCall(m_Queue.m_Condition, aDeadlineNsec);
    });
    CCmConditionSteps::WaitUntilResult(m_Queue.m_Condition, aDeadlineNsec, nError);
    return rv;
}

void CCmEventQueueSteps::CLoop::RunTaken(std::list<ICmEvent*>& aEvents,
                                         const CmStd::atomic<bool>* aStop) {
    // A longer pass may free nodes when it is over, which is no part of the next event.
    const bool bIsShort = aEvents.size() <= SPARES_AT_LEAST;
    CPass pass(m_Queue, m_bGoesOn ? m_tvEnd : CCmTimeValue::GetTimeOfDay());
    CCmPrivateRoom::Of(m_Queue.m_Private).Run(pass, aEvents, aStop);
    m_tvEnd = pass.End();
    m_bGoesOn = bIsShort;
}

// Whether a post may go to the private list. m_bIsStopped relaxed, as in CPosting::Prepare: what
// this thread has closed itself it finds closed.
bool CCmEventQueueSteps::CLoop::MayPost() {
    if (m_Queue.m_dwSize.load(std::memory_order_relaxed) != 0 || HasDiscards() ||
        m_Queue.m_bIsStopped.load(std::memory_order_relaxed)) {
        return false;
    }
    g_cmClock.coarse_gettimeofday(&m_tvCoarseNow, nullptr);
    return CCmTimeValue(m_tvCoarseNow) <= m_tvWatchFrom;
}

// Under the lock. A stale m_tvWatchFrom is early: a post then looks at the real one, under the
// lock.
void CCmEventQueueSteps::CLoop::NoteWatch() {
    m_tvWatchFrom = m_Queue.m_tvLastReport + WATCH_PAUSE;
}

// With a node of aNodes, the spent ones. Those that the loop has allocated stay there for it: other
// posters do without them. False when there is none.
bool CCmEventQueueSteps::CLoop::PostOwn(ICmEvent* aEvent, std::list<ICmEvent*>& aNodes) {
    if (CM_UNLIKELY(aNodes.empty())) {
        if (m_nNodes == SPARES_OF_LOOP || CM_FAILED(CmAddNode(aNodes, nullptr))) {
            return false;
        }
        ++m_nNodes;
    }
    m_Own.splice(m_Own.end(), aNodes, aNodes.begin());
    m_Own.back() = aEvent;
    CountOwn(m_Own.size());
    return true;
}

// After PostOwn.
void CCmEventQueueSteps::CLoop::NoteOwnPost(const ICmEvent* aEvent) {
    EnsureWatched(m_Queue);
    const CCmWatchedThread* const pThread = CmEnsureWatchedThread();
    CCmFlightRing* const pRing = pThread != nullptr ? pThread->Ring() : nullptr;
    const DWORD dwOwn = OwnCount(m_Queue);
    const DWORD dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
    CCmWatchedQueue* const pWatched = QueueState().m_pWatched.load(std::memory_order_acquire);
    if (pWatched != nullptr && dwStart != 0) {
        if (!pWatched->IsOwnOf(dwStart)) {
            pWatched->BeginOwn(dwStart, dwOwn - 1);
        }
        pWatched->m_ullOwnPosted.Add(1);
        const DWORD dwPending = pWatched->Pending(dwStart);
        if (CM_UNLIKELY(pWatched->m_OwnMost.Raise(dwPending) && pRing != nullptr)) {
            pRing->HighWater(CmUsecOf(CCmTimeValue(m_tvCoarseNow)), dwPending, &m_Queue);
        }
        if (pWatched->m_OwnProbe.Wants(aEvent, false, m_tvCoarseNow, pWatched->m_dwOwnPosts)) {
            pWatched->m_OwnProbe.Set(aEvent, CmUsecOf(CCmTimeValue::GetTimeOfDay()),
                                     pWatched->m_dwOwnPosts);
        }
    }
    if (pRing != nullptr) {
        pRing->Post(CmUsecOf(CCmTimeValue(m_tvCoarseNow)), See(aEvent).m_pTable, aEvent, &m_Queue);
    }
}

// Takes at most aMaxCount events, without the lock, if they can only be the loop's own.
// aIsWatched: what this thread has just seen.
bool CCmEventQueueSteps::CLoop::TakeOwn(std::list<ICmEvent*>& aEvents, DWORD aMaxCount,
                                        bool aIsWatched) {
    if (m_Own.empty() || m_Queue.m_dwSize.load(std::memory_order_relaxed) != 0 || HasDiscards()) {
        return false;
    }
    if (CM_UNLIKELY(aIsWatched)) {
        if (CCmWatchedQueue* const pWatched = WatchedOwn(m_Queue)) {
            const size_t nTaken = std::min<size_t>(m_Own.size(), aMaxCount);
            pWatched->NoteTaken(pWatched->OwnStart(), nTaken, m_Own.size() - nTaken);
        }
    }
    if (m_Own.size() <= aMaxCount) {
        aEvents.splice(aEvents.end(), m_Own);
    } else {
        aEvents.splice(aEvents.end(), m_Own, m_Own.begin(), std::next(m_Own.begin(), aMaxCount));
    }
    CountOwn(m_Own.size());
    return true;
}

// Under the lock. What is in the private list becomes the head of the queue, or is to be destroyed.
void CCmEventQueueSteps::CLoop::GiveOwn() {
    const bool bDiscards = HasDiscards();
    m_dwDiscards = QueueState().m_dwDiscards.load(std::memory_order_relaxed);
    if (m_Own.empty()) {
        return;
    }
    // Before they are there: they count as posted on this thread.
    CCmWatchedQueue* const pWatched = CmWatchIsOn() ? Watched_l(m_Queue) : nullptr;
    if (CM_UNLIKELY(pWatched != nullptr)) {
        EnsureOwn(m_Queue, *pWatched, pWatched->Start());
        if (bDiscards) {
            pWatched->m_Unfired.Add(pWatched->Start(), m_Own.size());
            pWatched->m_dwGhosts.Add(static_cast<DWORD>(m_Own.size()));
            pWatched->m_OwnProbe.Forget();
        }
    }
    m_Queue.m_dwSize.fetch_add(static_cast<DWORD>(m_Own.size()), std::memory_order_relaxed);
    if (bDiscards) {
        m_Discarded.splice(m_Discarded.end(), m_Own);
    } else {
        m_Queue.m_Events.splice(m_Queue.m_Events.begin(), m_Own);
    }
    CountOwn(0);
}

bool CCmEventQueueSteps::CLoop::HasDiscards() const {
    return QueueState().m_dwDiscards.load(std::memory_order_relaxed) != m_dwDiscards;
}

void CCmEventQueueSteps::CLoop::EndDiscarded() {
    if (CM_UNLIKELY(HasDiscards())) {
        CCmScopedLockT<CCmMutexThread> lock(m_Queue.m_Mutex);
        GiveOwn();
    }
    if (CM_UNLIKELY(HasToEndSome())) {
        DestroyAll(m_Discarded);
        ForgetEnd();
    }
}

void CCmEventQueueSteps::CLoop::CountOwn(size_t aCount) {
    QueueState().m_dwOwn.store(static_cast<DWORD>(aCount), std::memory_order_relaxed);
}

}  // namespace UTIL_NS
