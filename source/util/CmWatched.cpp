#include "CmWatched.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "CmBlockedSends.h"
#include "CmFlight.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmThreadAnnotations.h"
#include "port/CmPort.h"

namespace UTIL_NS {

CmStd::atomic<DWORD> g_cmWatchOn{0};

namespace {

// How many threads that have ended are kept; then new ones take the place of the oldest.
constexpr size_t MOST_ENDED = 64;

thread_local CCmWatchedThread* t_pThread = nullptr;
thread_local bool t_bIsPastEnd = false;

long long NowUsec() {
    return CmUsecOf(CCmTimeValue::GetTimeOfDay());
}

uint64_t ToFigure(long long aUsec) {
    return aUsec > 0 ? static_cast<uint64_t>(aUsec) : 0;
}

}  // namespace

void CmClassText(const void* aTable, char* aText, size_t aSize) {
    char szName[CM_FLIGHT_CLASS_NAME_SIZE] = "";
    if (aTable == nullptr) {
        aText[0] = '\0';
    } else if (!CCmFlight::CopyClassName(aTable, szName) || szName[0] == '\0') {
        std::snprintf(aText, aSize, "%p", const_cast<void*>(aTable));
    } else {
        CmPortReadableClassName(szName, aText, aSize);
    }
}

void CCmWatchedSharedCount::Add(DWORD aStart, uint64_t aCount) {
    const uint64_t ullStart = uint64_t{aStart} << COUNT_BITS;
    uint64_t ullOld = m_ullStartAndCount.load(std::memory_order_relaxed);
    uint64_t ullNew = 0;
    do {
        if (ullOld >> COUNT_BITS > aStart) {
            return;  // that start is over
        }
        const uint64_t ullCount = (ullOld & ~COUNT_MASK) == ullStart ? ullOld & COUNT_MASK : 0;
        ullNew = ullStart | ((ullCount + aCount) & COUNT_MASK);
    } while (!m_ullStartAndCount.compare_exchange_weak(ullOld, ullNew, std::memory_order_relaxed));
}

uint64_t CCmWatchedSharedCount::Of(DWORD aStart) const {
    const uint64_t ullBoth = m_ullStartAndCount.load(std::memory_order_relaxed);
    return (ullBoth & ~COUNT_MASK) == uint64_t{aStart} << COUNT_BITS ? ullBoth & COUNT_MASK : 0;
}

CCmWatchDistribution CCmWatchedDistribution::Copy() const {
    CCmWatchDistribution copy;
    uint64_t ullCounts[BUCKETS];
    for (unsigned i = 0; i < BUCKETS; ++i) {
        ullCounts[i] = m_dwCounts[i].Get();
        copy.m_ullCount += ullCounts[i];
    }
    copy.m_ullLongest = m_ullLongest.Get();
    const auto reach = [&](uint64_t aPerThousand) {
        const uint64_t ullWanted = (copy.m_ullCount * aPerThousand + 999) / 1000;
        uint64_t ullSeen = 0;
        for (unsigned i = 0; i < BUCKETS - 1; ++i) {
            ullSeen += ullCounts[i];
            if (ullSeen >= ullWanted) {
                return EndOf(i) < copy.m_ullLongest ? EndOf(i) : copy.m_ullLongest;
            }
        }
        return copy.m_ullLongest;
    };
    copy.m_ullMedian = reach(500);
    copy.m_ull99 = reach(990);
    copy.m_ull999 = reach(999);
    return copy;
}

void CCmWatchedDistribution::Clear() {
    for (CCmWatchedT<uint32_t>& count : m_dwCounts) {
        count.Set(0);
    }
    m_ullLongest.Set(0);
}

// All threads and queues that are watched, and the numbers of the last start. Never destroyed:
// threads end while the process does.
class CCmWatchRegistry {
  public:
    constexpr CCmWatchRegistry() : m_Mutex(CCmStaticInit()) {}
    static CCmWatchRegistry& Instance();

    bool EnsureKey();
    CCmWatchedThread* MakeThread();
    void EndThread(CCmWatchedThread& aThread);
    void Visit(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        for (CCmWatchedThread* p = m_pThreads; p != nullptr; p = p->m_pNext) {
            aVisit(*p, aArgument);
        }
    }
    void Add(CCmWatchedQueue& aQueue);
    void Remove(CCmWatchedQueue& aQueue);
    void SetStart(DWORD aStart) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_dwStart = aStart;
        m_llEnd = 0;
    }
    void SetEnd() {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        m_llEnd = NowUsec();
    }
    size_t Read(CCmWorkerFigures* aFigures, size_t aRoom);
    CCmMutexThread& Mutex() { return m_Mutex; }
    void ForgetOthers_l();

    template <class FiguresType>
    void AddQueue_l(FiguresType& aFigures, const CCmWatchedQueue& aQueue) const;
    template <class FiguresType>
    void AddQueues_l(FiguresType& aFigures, const CCmWatchedThread& aThread) const {
        for (const CCmWatchedQueue* p = m_pQueues; p != nullptr; p = p->m_pNext) {
            if (p->Consumer() == &aThread) {
                AddQueue_l(aFigures, *p);
            }
        }
    }
    static void Clear(CCmWatchedThread& aThread, DWORD aStart) { aThread.Clear(aStart); }
    static void EnsureRing(CCmWatchedThread& aThread) {
        aThread.m_pRing.Set(CCmFlight::AttachThisThread(nullptr));
    }
    DWORD Start_l() const { return m_dwStart; }
    // The time of what the figures tell.
    long long Now_l() const { return m_llEnd != 0 ? m_llEnd : NowUsec(); }

  private:
    bool HasQueue_l(const CCmWatchedThread& aThread) const {
        for (const CCmWatchedQueue* p = m_pQueues; p != nullptr; p = p->m_pNext) {
            if (p->Consumer() == &aThread) {
                return true;
            }
        }
        return false;
    }
    CCmWatchedThread* TakeEnded_l();
    void End_l(CCmWatchedThread& aThread);

    CCmMutexThread m_Mutex;
    CCmWatchedThread* m_pThreads = nullptr;  // the newest last
    CCmWatchedQueue* m_pQueues = nullptr;    // the newest first
    size_t m_nEnded = 0;
    DWORD m_dwStart = 0;
    long long m_llEnd = 0;  // of the watch; 0: it is on
    bool m_bHasKey = false;
    pthread_key_t m_Key = 0;
};

namespace {

union CRegistryStorage {
    constexpr CRegistryStorage() : m_Registry() {}
    ~CRegistryStorage() {}

    CCmWatchRegistry m_Registry;
};
CM_CONSTANT_INIT CRegistryStorage s_registry;

}  // namespace

CCmWatchRegistry& CCmWatchRegistry::Instance() {
    return s_registry.m_Registry;
}

bool CCmWatchRegistry::EnsureKey() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (!m_bHasKey) {
        m_bHasKey = g_cmSystem.pthread_key_create(&m_Key, [](void* aThread) {
            t_bIsPastEnd = true;
            t_pThread = nullptr;
            Instance().EndThread(*static_cast<CCmWatchedThread*>(aThread));
        }) == 0;
    }
    return m_bHasKey;
}

// The one that ended first, if there are enough of them.
CCmWatchedThread* CCmWatchRegistry::TakeEnded_l() {
    if (m_nEnded < MOST_ENDED) {
        return nullptr;
    }
    for (CCmWatchedThread** pp = &m_pThreads; *pp != nullptr; pp = &(*pp)->m_pNext) {
        CCmWatchedThread* const pThread = *pp;
        if (pThread->m_bHasEnded) {
            *pp = pThread->m_pNext;
            --m_nEnded;
            return pThread;
        }
    }
    return nullptr;
}

CCmWatchedThread* CCmWatchRegistry::MakeThread() {
    if (!EnsureKey()) {
        return nullptr;
    }
    CCmWatchedThread* pThread = nullptr;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        pThread = TakeEnded_l();
    }
    if (pThread == nullptr) {
        pThread = new (std::nothrow) CCmWatchedThread;
    }
    if (pThread == nullptr) {
        return nullptr;
    }
    if (g_cmSystem.pthread_setspecific(m_Key, pThread) != 0) {
        delete pThread;
        return nullptr;
    }
    CmPortNameOfThisThread(pThread->m_szName, sizeof(pThread->m_szName));
    pThread->m_Tid = pthread_self();
    pThread->m_bHasEnded = false;
    pThread->m_dwStart.store(0, std::memory_order_relaxed);  // the figures are another thread's
    pThread->m_pNext = nullptr;
    // By name: a line that it wrote earlier may have attached it under the name of its creator.
    pThread->m_pRing.Set(CCmFlight::AttachThisThread(pThread->m_szName));
    // On macOS a thread that is cancelled leaves what it has entered.
    pThread->m_dwDepth = 0;
    pThread->m_bFiresOthers = false;
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    pThread->m_ullNumber = CmNumberOfThisThread();
    CCmWatchedThread** pp = &m_pThreads;
    while (*pp != nullptr) {
        pp = &(*pp)->m_pNext;
    }
    *pp = pThread;
    return pThread;
}

// On the thread itself, when it ends.
void CCmWatchRegistry::EndThread(CCmWatchedThread& aThread) {
    CCmFlightRing* const pRing = aThread.Ring();
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        if (pRing != nullptr) {
            CCmFlightFigures figures = {};
            aThread.CopyFigures(figures);
            pRing->Figures(figures, NowUsec());
            pRing->Current(nullptr, 0);
        }
        End_l(aThread);
    }
    CCmFlight::Detach(pRing);
}

void CCmWatchRegistry::End_l(CCmWatchedThread& aThread) {
    for (CCmWatchedQueue* p = m_pQueues; p != nullptr; p = p->m_pNext) {
        if (p->Consumer() == &aThread) {
            std::memcpy(p->m_szName, aThread.m_szName, sizeof(p->m_szName));
            p->SetConsumer(nullptr);
        }
    }
    aThread.m_bHasEnded = true;
    aThread.m_pRing.Set(nullptr);
    aThread.m_pCurrent.Set(nullptr);
    aThread.m_llAsleepSince.Set(0);
    ++m_nEnded;
}

void CCmWatchRegistry::ForgetOthers_l() {
    m_llEnd = NowUsec();
    for (CCmWatchedThread* p = m_pThreads; p != nullptr; p = p->m_pNext) {
        if (p != t_pThread && !p->m_bHasEnded) {
            End_l(*p);
        }
    }
}

void CCmWatchRegistry::Add(CCmWatchedQueue& aQueue) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    aQueue.m_pNext = m_pQueues;
    if (m_pQueues != nullptr) {
        m_pQueues->m_pPrevious = &aQueue;
    }
    m_pQueues = &aQueue;
}

void CCmWatchRegistry::Remove(CCmWatchedQueue& aQueue) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    (aQueue.m_pPrevious != nullptr ? aQueue.m_pPrevious->m_pNext : m_pQueues) = aQueue.m_pNext;
    if (aQueue.m_pNext != nullptr) {
        aQueue.m_pNext->m_pPrevious = aQueue.m_pPrevious;
    }
}

template <class FiguresType>
void CCmWatchRegistry::AddQueue_l(FiguresType& aFigures, const CCmWatchedQueue& aQueue) const {
    const uint64_t ullUnfired = aQueue.m_Unfired.Of(m_dwStart);
    uint64_t ullPosted = 0;
    uint64_t ullRun = 0;
    uint64_t ullMost = 0;
    // While it is on, a part that nobody has come by since the start has what was pending then.
    if (aQueue.IsOf(m_dwStart)) {
        ullPosted = aQueue.m_ullPosted.Get();
        ullMost = aQueue.m_Most.Get();
    } else if (m_llEnd == 0) {
        ullPosted = aQueue.m_Counts.m_dwSize.load(std::memory_order_relaxed);
    }
    if (aQueue.IsOwnOf(m_dwStart)) {
        ullPosted += aQueue.m_ullOwnPosted.Get();
        ullRun = aQueue.m_ullRun.Get();
        ullMost = std::max<uint64_t>(ullMost, aQueue.m_OwnMost.Get());
    } else if (m_llEnd == 0) {
        ullPosted += aQueue.m_Counts.m_dwOwn.load(std::memory_order_relaxed);
    }
    // After its end what was pending then: the queue goes on.
    const uint64_t ullGone = ullRun + ullUnfired;
    const uint64_t ullPending =
        m_llEnd == 0 ? aQueue.Pending(m_dwStart) : ullPosted - std::min(ullPosted, ullGone);
    aFigures.m_ullPosted += ullPosted;
    aFigures.m_ullRun += ullRun;
    aFigures.m_ullRefused += aQueue.m_Refused.Of(m_dwStart);
    aFigures.m_ullUnfired += ullUnfired;
    aFigures.m_ullPending += ullPending;
    aFigures.m_ullMostPending += std::max(ullMost, ullPending);
}

size_t CCmWatchRegistry::Read(CCmWorkerFigures* aFigures, size_t aRoom) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    size_t nCount = 0;
    for (const CCmWatchedThread* p = m_pThreads; p != nullptr; p = p->m_pNext) {
        if (HasQueue_l(*p)) {
            if (nCount < aRoom) {
                p->CopyFigures(aFigures[nCount] = CCmWorkerFigures());
            }
            ++nCount;
        }
    }
    for (const CCmWatchedQueue* p = m_pQueues; p != nullptr; p = p->m_pNext) {
        if (p->Consumer() == nullptr) {
            if (nCount < aRoom) {
                AddQueue_l(aFigures[nCount] = CCmWorkerFigures(), *p);
                std::memcpy(aFigures[nCount].m_szName, p->m_szName, sizeof(p->m_szName));
            }
            ++nCount;
        }
    }
    return nCount;
}

void CCmWatchedThread::Clear(DWORD aStart) {
    m_Run.Clear();
    m_Waited.Clear();
    m_Late.Clear();
    m_Sends.Clear();
    m_pLongest.Set(nullptr);
    m_ullAsleep.Set(0);
    m_llAsleepSince.Set(0);
    m_ullInEvents.Set(0);
    m_ullInTimers.Set(0);
    m_ullTimersFired.Set(0);
    m_pCurrent.Set(nullptr);
    m_dwStart.store(aStart, std::memory_order_release);
}

void CCmWatchedThread::CopyFigures(CCmWorkerFigures& aFigures) const {
    const CCmWatchRegistry& registry = CCmWatchRegistry::Instance();
    std::memcpy(aFigures.m_szName, m_szName, sizeof(m_szName));
    aFigures.m_ullThread = m_bHasEnded ? 0 : (uint64_t)m_Tid;
    registry.AddQueues_l(aFigures, *this);
    if (!IsOf(registry.Start_l())) {
        return;
    }
    // Between those of the queue and those of the thread: if nothing runs, what has been counted as
    // run is in all that follows.
    if (const void* const pCurrent = m_pCurrent.Get()) {
        CmClassText(pCurrent, aFigures.m_szCurrentClass, sizeof(aFigures.m_szCurrentClass));
        aFigures.m_ullCurrent = ToFigure(registry.Now_l() - m_llCurrentStart.Get());
    }
    aFigures.m_ullAsleep = m_ullAsleep.Get();
    const long long llSince = m_llAsleepSince.Get();
    if (llSince != 0) {
        aFigures.m_ullAsleep += ToFigure(registry.Now_l() - llSince);
    }
    aFigures.m_ullInEvents = m_ullInEvents.Get();
    aFigures.m_ullInTimers = m_ullInTimers.Get();
    aFigures.m_ullTimersFired = m_ullTimersFired.Get();
    aFigures.m_Run = m_Run.Copy();
    aFigures.m_Waited = m_Waited.Copy();
    aFigures.m_Late = m_Late.Copy();
    aFigures.m_Sends = m_Sends.Copy();
    CmClassText(m_pLongest.Get(), aFigures.m_szLongestClass, sizeof(aFigures.m_szLongestClass));
}

void CCmWatchedThread::CopyFigures(CCmFlightFigures& aFigures) const {
    const CCmWatchRegistry& registry = CCmWatchRegistry::Instance();
    aFigures = CCmFlightFigures();
    registry.AddQueues_l(aFigures, *this);
    if (!IsOf(registry.Start_l())) {
        return;
    }
    aFigures.m_ullAsleepUsec = m_ullAsleep.Get();
    const long long llSince = m_llAsleepSince.Get();
    if (llSince != 0) {
        aFigures.m_ullAsleepUsec += ToFigure(registry.Now_l() - llSince);
    }
    aFigures.m_ullEventsUsec = m_ullInEvents.Get();
    aFigures.m_ullTimersUsec = m_ullInTimers.Get();
    aFigures.m_ullTimers = m_ullTimersFired.Get();
    aFigures.m_ullLongestTable = reinterpret_cast<uintptr_t>(m_pLongest.Get());
    const auto copy = [](CCmFlightSpread& aSpread, const CCmWatchedDistribution& aDistribution) {
        const CCmWatchDistribution copied = aDistribution.Copy();
        aSpread = {copied.m_ullCount, copied.m_ullMedian, copied.m_ull99, copied.m_ull999,
                   copied.m_ullLongest};
    };
    copy(aFigures.m_RunTime, m_Run);
    copy(aFigures.m_WaitingTime, m_Waited);
    copy(aFigures.m_TimerLateness, m_Late);
    copy(aFigures.m_BlockedSends, m_Sends);
    aFigures.m_ullSends = aFigures.m_BlockedSends.m_ullCount;
}

CCmWatchedThread* CmWatchedThread() {
    return t_pThread;
}

CCmWatchedThread* CmEnsureWatchedThread() {
    const DWORD dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
    if (dwStart == 0 || t_bIsPastEnd) {
        return nullptr;
    }
    if (CM_UNLIKELY(t_pThread == nullptr)) {
        t_pThread = CCmWatchRegistry::Instance().MakeThread();
        if (t_pThread == nullptr) {
            return nullptr;
        }
    }
    if (CM_UNLIKELY(!t_pThread->IsOf(dwStart))) {
        CCmWatchRegistry::Clear(*t_pThread, dwStart);
    }
    // One that found no place among the rings gets that of a thread that has ended since.
    if (CM_UNLIKELY(t_pThread->Ring() == nullptr)) {
        CCmWatchRegistry::EnsureRing(*t_pThread);
    }
    return t_pThread;
}

void CmVisitWatchedThreads(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument) {
    CCmWatchRegistry::Instance().Visit(aVisit, aArgument);
}

void CmSetWatchStart(DWORD aStart) {
    CCmWatchRegistry::Instance().SetStart(aStart);
}

void CmSetWatchEnd() {
    CCmWatchRegistry::Instance().SetEnd();
}

void CmHoldWatched() CM_NO_THREAD_SAFETY_ANALYSIS {
    CCmWatchRegistry::Instance().Mutex().Lock();
}

void CmReleaseWatched() CM_NO_THREAD_SAFETY_ANALYSIS {
    CCmWatchRegistry::Instance().Mutex().UnLock();
}

void CmForgetOtherThreads() {
    CCmWatchRegistry::Instance().ForgetOthers_l();
}

size_t CmReadWorkers(CCmWorkerFigures* aFigures, size_t aRoom) {
    return CCmWatchRegistry::Instance().Read(aFigures, aRoom);
}

CCmWatchedQueue* CCmWatchedQueue::Make(const CCounts& aCounts) {
    auto* const pQueue = new (std::nothrow) CCmWatchedQueue(aCounts);
    if (pQueue != nullptr) {
        CCmWatchRegistry::Instance().Add(*pQueue);
    }
    return pQueue;
}

void CCmWatchedQueue::End(CCmWatchedQueue* aQueue) {
    if (aQueue != nullptr) {
        CCmWatchRegistry::Instance().Remove(*aQueue);
        delete aQueue;
    }
}

// Read while others write: a difference may be negative for a moment.
DWORD CCmWatchedQueue::Pending(DWORD aStart) const {
    long lPending = long{m_Counts.m_dwSize.load(std::memory_order_relaxed)} +
                    long{m_Counts.m_dwOwn.load(std::memory_order_relaxed)};
    if (IsOf(aStart)) {
        lPending -= long{m_dwGhosts.Get()} + long{m_dwWaysBack.Get()};
    }
    if (IsOwnOf(aStart)) {
        lPending += long{m_dwTaken.Get()};
    }
    return static_cast<DWORD>(std::max(lPending, 0L));
}

void CCmWatchedQueue::Begin(DWORD aStart, uint64_t aPending, DWORD aGhosts, DWORD aWaysBack) {
    m_ullPosted.Set(aPending);
    m_Most.Begin(static_cast<DWORD>(aPending));
    m_dwGhosts.Set(aGhosts);
    m_dwWaysBack.Set(aWaysBack);
    m_dwPosts = 0;
    m_Probe.Forget();
    m_dwStart.Set(aStart);
}

void CCmWatchedQueue::BeginOwn(DWORD aStart, uint64_t aOwn) {
    m_ullRun.Set(0);
    m_ullOwnPosted.Set(aOwn);
    m_OwnMost.Begin(static_cast<DWORD>(aOwn));
    m_dwTaken.Set(0);
    m_dwOwnPosts = 0;
    m_OwnProbe.Forget();
    m_dwOwnStart.Set(aStart);
}

void CCmWatchedRun::Enter(CCmWatchedThread* aThread) {
    m_pThread = aThread;
    m_pOuter = aThread->m_pCurrent.Get();
    m_llOuterStart = aThread->m_llCurrentStart.Get();
    ++aThread->m_dwDepth;
}

void CCmWatchedRun::Leave() {
    --m_pThread->m_dwDepth;
    SetCurrent(m_pOuter, m_llOuterStart);
}

void CCmWatchedRun::SetCurrent(const void* aTable, long long aStartUsec) {
    m_pThread->m_llCurrentStart.Set(aStartUsec);
    m_pThread->m_pCurrent.Set(aTable);
    if (CCmFlightRing* const pRing = m_pThread->Ring()) {
        pRing->Current(aTable, aStartUsec);
    }
}

void CCmWatchedTimers::Begin(const void* aTable, const CCmTimeValue* aNow) {
    if (m_Run.Thread() == nullptr || CM_UNLIKELY(!CmWatchIsOnSince(m_dwStart))) {
        m_dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
        CCmWatchedThread* const pThread = CmEnsureWatchedThread();
        if (pThread == nullptr) {
            m_pTable = nullptr;
            m_bHasMissed = true;
            return;
        }
        if (m_Run.Thread() == nullptr) {
            m_Run.Enter(pThread);
            m_llBegin = aNow != nullptr ? CmUsecOf(*aNow) : NowUsec();
            m_llStart = m_llBegin;
        }
    }
    if (m_bHasMissed) {
        m_bHasMissed = false;
        m_llStart = NowUsec();
    }
    m_pTable = aTable;
    m_Run.Thread()->m_bFiresOthers = false;
    m_Run.SetCurrent(aTable, m_llStart);
}

bool CCmWatchedTimers::Count(long long aLateUsec) {
    CCmWatchedThread& thread = *m_Run.Thread();
    const long long llStart = m_llStart;
    m_llStart = NowUsec();
    m_llRan = m_llStart - llStart;
    const bool bIsLateKnown = aLateUsec != UNKNOWN_USEC;
    m_llLate = bIsLateKnown ? aLateUsec + (llStart - m_llBegin) : 0;
    const bool bCounts = CmWatchIsOnSince(m_dwStart);
    if (bCounts && m_Run.IsOutermost()) {
        thread.m_ullInTimers.Add(ToFigure(m_llRan));
    }
    if (thread.m_bFiresOthers) {
        thread.m_bFiresOthers = false;
        return false;
    }
    if (bCounts) {
        thread.m_ullTimersFired.Add(1);
    }
    if (bCounts && bIsLateKnown) {
        thread.m_Late.Add(m_llLate);
    }
    if (CCmFlightRing* const pRing = thread.Ring()) {
        pRing->Timer(llStart, m_llRan, m_llLate, m_pTable);
    }
    return m_llRan > CM_SLOW_USEC;
}

void CCmWatchedTimers::ForgetLine() {
    m_llStart = NowUsec();
}

void CCmWatchedTimers::CountOthersOnly() {
    if (t_pThread != nullptr) {
        t_pThread->m_bFiresOthers = true;
    }
}

void CCmWatchedSend::Begin(const ICmEvent* aEvent) {
    m_dwStart = g_cmWatchOn.load(std::memory_order_relaxed);
    m_pThread = CmEnsureWatchedThread();
    if (m_pThread != nullptr) {
        m_pTable = CmTableOf(aEvent);
        m_llStart = NowUsec();
    }
}

void CCmWatchedSend::Count(const void* aQueue) {
    const long long llBlocked = NowUsec() - m_llStart;
    if (CmWatchIsOnSince(m_dwStart)) {
        m_pThread->m_Sends.Add(llBlocked);
    }
    if (CCmFlightRing* const pRing = m_pThread->Ring()) {
        pRing->Send(m_llStart, llBlocked, m_pTable, aQueue);
    }
}

}  // namespace UTIL_NS
