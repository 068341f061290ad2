// What the watch keeps of a thread and of a queue; internal.
//
// Both are objects of the heap that are made when something first happens on a thread, or in a
// queue, while the watch is on. The registry lists them. Its lock is taken where a thread or a
// queue begins or ends and by those who read; no event, timer or post waits for it, but the first
// one of a thread or a queue.
//
// A figure is written by one thread at a time, with plain loads and stores; readers see each as it
// was a moment ago. They are stored with release and read with acquire, which costs nothing on
// x86-64: who sees that an event has begun sees what it is, and who sees then that nothing runs
// sees all that was counted of it. Every start of the watch has a number. What was counted for an
// earlier one counts as 0, until its writer comes by and clears it.
#ifndef CM_WATCHED_H
#define CM_WATCHED_H

#include <pthread.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmTimeValue.h"
#include "CmWatchFigures.h"

namespace UTIL_NS {

class CCmFlightRing;
class CCmWatchRegistry;
class ICmEvent;
struct CCmFlightFigures;

// 0: the watch is off; else the number of its start. Relaxed: who sees a start late counts from
// then on.
extern CmStd::atomic<DWORD> g_cmWatchOn;

inline bool CmWatchIsOn() {
    return CM_UNLIKELY(g_cmWatchOn.load(std::memory_order_relaxed) != 0);
}
// Whether it has been on since then: what began before a start does not count for it.
inline bool CmWatchIsOnSince(DWORD aStart) {
    return CM_LIKELY(g_cmWatchOn.load(std::memory_order_relaxed) == aStart);
}

inline long long CmUsecOf(const CCmTimeValue& aTime) {
    return aTime.GetSec() * 1000000LL + aTime.GetUsec();
}

// What takes longer is slow, and reported.
constexpr long CM_SLOW_USEC = 50 * 1000;

// The table of an object's class: the first word of every object with virtual functions.
inline const void* CmTableOf(const void* aObject) {
    return *static_cast<const void* const*>(aObject);
}
constexpr size_t CM_CLASS_TEXT_SIZE = 512;
// The class's name as people write it, or the address of the table where it has none, or no ring of
// records has met it; cut at aSize bytes. Empty for null. Looks at no more than the address: the
// module that has the table may have been unloaded. Allocates.
void CmClassText(const void* aTable, char* aText, size_t aSize);

// A value that one thread at a time writes.
template <class ValueType>
class CCmWatchedT {
  public:
    ValueType Get() const { return m_Value.load(std::memory_order_acquire); }
    void Set(ValueType aValue) { m_Value.store(aValue, std::memory_order_release); }
    void Add(ValueType aValue) { Set(static_cast<ValueType>(Get() + aValue)); }
    bool Raise(ValueType aValue) {
        if (CM_LIKELY(aValue <= Get())) {
            return false;
        }
        Set(aValue);
        return true;
    }

  private:
    CmStd::atomic<ValueType> m_Value{};
};

// The most events that were pending.
class CCmWatchedMost {
  public:
    DWORD Get() const { return m_dwMost.Get(); }
    void Begin(DWORD aPending) {
        m_dwMost.Set(aPending);
        m_dwMarked = 0;
    }
    // True when it is to be recorded: it is twice the last that was, or so much above it.
    bool Raise(DWORD aPending) {
        if (CM_LIKELY(!m_dwMost.Raise(aPending)) ||
            aPending < (m_dwMarked < MARK_STEP ? 2 * m_dwMarked : m_dwMarked + MARK_STEP)) {
            return false;
        }
        m_dwMarked = aPending;
        return true;
    }

  private:
    static constexpr DWORD MARK_STEP = 16;

    CCmWatchedT<DWORD> m_dwMost;
    DWORD m_dwMarked = 0;
};

// A count that several threads add to, now and then; of the latest start.
class CCmWatchedSharedCount {
  public:
    void Add(DWORD aStart, uint64_t aCount);
    uint64_t Of(DWORD aStart) const;

  private:
    static constexpr unsigned COUNT_BITS = 40;
    static constexpr uint64_t COUNT_MASK = (uint64_t{1} << COUNT_BITS) - 1;

    CmStd::atomic<uint64_t> m_ullStartAndCount{0};
};

// Lengths in microseconds, counted by ranges: four for each power of two.
class CCmWatchedDistribution {
  public:
    static constexpr unsigned BUCKETS = 96;

    // The range of a length, and the last length of a range; the last range has no end.
    static unsigned BucketOf(uint64_t aUsec) {
        if (aUsec < 4) {
            return static_cast<unsigned>(aUsec);
        }
        const unsigned nPower = 63U - static_cast<unsigned>(__builtin_clzll(aUsec));
        const unsigned nBucket =
            (nPower - 1) * 4 + static_cast<unsigned>((aUsec >> (nPower - 2)) & 3);
        return nBucket < BUCKETS ? nBucket : BUCKETS - 1;
    }
    static uint64_t EndOf(unsigned aBucket) {
        return aBucket < 4 ? aBucket : ((uint64_t{aBucket % 4} + 5) << (aBucket / 4 - 1)) - 1;
    }

    // True when it is the longest so far. A length is negative when the wall clock was set back
    // meanwhile.
    bool Add(long long aUsec) {
        const uint64_t ullUsec = aUsec > 0 ? static_cast<uint64_t>(aUsec) : 0;
        m_dwCounts[BucketOf(ullUsec)].Add(1);
        return m_ullLongest.Raise(ullUsec);
    }
    CCmWatchDistribution Copy() const;
    void Clear();

  private:
    CCmWatchedT<uint32_t> m_dwCounts[BUCKETS];
    CCmWatchedT<uint64_t> m_ullLongest;
};

// A thread; found by CmWatchedThread on it and by CmForEachWatchedThread. What it writes, it alone
// writes.
class CCmWatchedThread {
  public:
    // On the thread itself, or under the registry's lock.
    const char* Name() const { return m_szName; }
    pthread_t Tid() const { return m_Tid; }
    bool HasEnded() const { return m_bHasEnded; }
    uint64_t Number() const { return m_ullNumber; }        // that of CmNumberOfThisThread
    CCmFlightRing* Ring() const { return m_pRing.Get(); }  // null: no records of this thread
    // Its figures with those of the queues that it runs. Under the registry's lock.
    void CopyFigures(CCmWorkerFigures& aFigures) const;
    void CopyFigures(CCmFlightFigures& aFigures) const;

    bool IsOf(DWORD aStart) const {
        // Acquire, paired with the release in Clear: the figures are of that start.
        return m_dwStart.load(std::memory_order_acquire) == aStart;
    }

    // Its own: a sleep, if there was one, has ended at aUsec.
    void EndSleep(long long aUsec) {
        const long long llSince = m_llAsleepSince.Get();
        if (llSince != 0) {
            m_llAsleepSince.Set(0);
            m_ullAsleep.Add(aUsec > llSince ? static_cast<uint64_t>(aUsec - llSince) : 0);
        }
    }

    // What runs now: the table of its class, null for nothing, and since when.
    CCmWatchedT<const void*> m_pCurrent;
    CCmWatchedT<long long> m_llCurrentStart;

    CCmWatchedDistribution m_Run;
    CCmWatchedDistribution m_Waited;
    CCmWatchedDistribution m_Late;
    CCmWatchedDistribution m_Sends;
    CCmWatchedT<const void*> m_pLongest;  // the table of the longest event's class
    CCmWatchedT<uint64_t> m_ullAsleep;
    CCmWatchedT<long long> m_llAsleepSince;  // 0: it does not sleep
    CCmWatchedT<uint64_t> m_ullInEvents;
    CCmWatchedT<uint64_t> m_ullInTimers;
    CCmWatchedT<uint64_t> m_ullTimersFired;

    // Used by the thread alone: how many events and timer handlers are on its stack, and whether
    // the innermost handler is one of the library's own, which fires others.
    DWORD m_dwDepth = 0;
    bool m_bFiresOthers = false;

  private:
    friend class CCmWatchRegistry;

    void Clear(DWORD aStart);

    char m_szName[CCmWorkerFigures::NAME_SIZE] = {};
    pthread_t m_Tid = pthread_t();
    bool m_bHasEnded = false;
    uint64_t m_ullNumber = 0;
    CmStd::atomic<DWORD> m_dwStart{0};
    CCmWatchedT<CCmFlightRing*> m_pRing;
    CCmWatchedThread* m_pNext = nullptr;
};

// That of the calling thread; null when it has none.
CCmWatchedThread* CmWatchedThread();
// The same, made if it is not there; null when the watch is off, there is no memory or the thread
// is about to end.
CCmWatchedThread* CmEnsureWatchedThread();
// Calls aVisit for each thread, those that have ended included as long as no new one has taken
// their place; under the registry's lock.
void CmVisitWatchedThreads(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument);
template <class VisitType>
void CmForEachWatchedThread(VisitType aVisit) {
    CmVisitWatchedThreads([](CCmWatchedThread& aThread,
                             void* aArgument) { (*static_cast<VisitType*>(aArgument))(aThread); },
                          &aVisit);
}

// One event of a queue whose waiting time is measured. Posters set it, one at a time; the consumer,
// who finds it by the event's address, takes it away. The consumer reads it without the queue's
// lock: it has the event, so what was set with it lies before.
class CCmWatchedProbe {
  public:
    // For each event that is posted. aIsAwaited: the consumer sleeps until it comes. aCoarseNow: as
    // the post has read it. aPosts: how many there were since the last probe; the poster's.
    bool Wants(const ICmEvent* aEvent, bool aIsAwaited, const timeval& aCoarseNow,
               DWORD& aPosts) const {
        ++aPosts;
        const ICmEvent* const pEvent = m_pEvent.Get();
        if (CM_LIKELY(pEvent != nullptr && pEvent != aEvent)) {
            return aPosts > LOST_AFTER;
        }
        return aIsAwaited || aPosts >= POSTS_BETWEEN || pEvent != nullptr || IsOld(aCoarseNow);
    }
    void Set(const ICmEvent* aEvent, long long aUsec, DWORD& aPosts) {
        aPosts = 0;
        m_llUsec.Set(aUsec);
        m_pEvent.Set(aEvent);
    }
    // True for the event that it is on, with the time when that was posted.
    bool Take(const ICmEvent* aEvent, long long& aUsec) {
        if (CM_LIKELY(m_pEvent.Get() != aEvent)) {
            return false;
        }
        aUsec = m_llUsec.Get();
        m_pEvent.Set(nullptr);
        return true;
    }
    void Forget() { m_pEvent.Set(nullptr); }

  private:
    static constexpr DWORD POSTS_BETWEEN = 64;
    static constexpr long long USEC_BETWEEN = 10000;
    // Of a probe that was taken out of the queue and never run. One whose address is posted again
    // is known to be gone.
    static constexpr DWORD LOST_AFTER = 1000000;

    // So that few posts show what a long event has them wait.
    bool IsOld(const timeval& aCoarseNow) const {
        const long long llUsec = CmUsecOf(CCmTimeValue(aCoarseNow)) - m_llUsec.Get();
        return llUsec >= USEC_BETWEEN || llUsec <= -USEC_BETWEEN * 10;  // the clock was set back
    }

    CCmWatchedT<const ICmEvent*> m_pEvent;
    CCmWatchedT<long long> m_llUsec;  // of the last one; 0: there was none
};

// A queue, for as long as it lives.
class CCmWatchedQueue {
  public:
    // What the queue counts itself: the events that it has, and those in the private list of its
    // consumer.
    struct CCounts {
        const CmStd::atomic<DWORD>& m_dwSize;
        const CmStd::atomic<DWORD>& m_dwOwn;
    };

    explicit CCmWatchedQueue(const CCounts& aCounts) : m_Counts(aCounts) {}
    CCmWatchedQueue(const CCmWatchedQueue&) = delete;
    CCmWatchedQueue& operator=(const CCmWatchedQueue&) = delete;

    // Puts it into the registry, and takes it out and deletes it.
    static CCmWatchedQueue* Make(const CCounts& aCounts);
    static void End(CCmWatchedQueue* aQueue);

    // Whether the part that is written under the queue's lock is of aStart; if not, it has to begin
    // with what is pending.
    bool IsOf(DWORD aStart) const { return m_dwStart.Get() == aStart; }
    DWORD Start() const { return m_dwStart.Get(); }
    void Begin(DWORD aStart, uint64_t aPending, DWORD aGhosts, DWORD aWaysBack);
    // The same for what the consumer writes. aOwn: the length of its private list.
    bool IsOwnOf(DWORD aStart) const { return m_dwOwnStart.Get() == aStart; }
    DWORD OwnStart() const { return m_dwOwnStart.Get(); }
    void BeginOwn(DWORD aStart, uint64_t aOwn);

    // The consumer is the calling thread. A thread that ends is forgotten.
    void SetConsumer(CCmWatchedThread* aThread) {
        if (CM_UNLIKELY(m_pConsumer.Get() != aThread)) {
            m_pConsumer.Set(aThread);
        }
    }
    CCmWatchedThread* Consumer() const { return m_pConsumer.Get(); }
    // All that has been posted and has not begun, that which the consumer has taken out included.
    // aStart: of the watch.
    DWORD Pending(DWORD aStart) const;

    // The consumer takes events out, which have been counted since aStart. aLeft: that it leaves
    // there.
    void NoteTaken(DWORD aStart, size_t aCount, size_t aLeft) {
        m_dwTakenStart = aStart;
        m_dwTaken.Set(static_cast<DWORD>(aCount));
        m_dwLeft = static_cast<DWORD>(aLeft);
    }
    // For the consumer, after an event that took aUsec: Pending, or, after a short one, what was
    // there when the consumer came by, since the queue's own count is on a line of the posters.
    DWORD PendingAfter(DWORD aStart, long long aUsec) const {
        constexpr long long SHORT_USEC = 1000;
        return aUsec < SHORT_USEC ? m_dwTaken.Get() + m_dwLeft : Pending(aStart);
    }

    // Posters and the consumer write to cache lines of their own. Both read these, which change
    // seldom.
    CCmWatchedT<DWORD> m_dwGhosts;    // the queue counts them as pending; they have been destroyed
    CCmWatchedT<DWORD> m_dwWaysBack;  // of synchronous sends, in the queue: those events have run
    CCmWatchedProbe m_Probe;

  private:
    friend class CCmWatchRegistry;
    static constexpr size_t LINE_SIZE = 64;

    const CCounts m_Counts;
    CCmWatchedT<DWORD> m_dwStart;
    CCmWatchedT<DWORD> m_dwOwnStart;
    CCmWatchedT<CCmWatchedThread*> m_pConsumer;
    char m_szName[CCmWorkerFigures::NAME_SIZE] = {};  // of the last consumer that has ended
    CCmWatchedQueue* m_pPrevious = nullptr;
    CCmWatchedQueue* m_pNext = nullptr;

  public:
    CCmWatchedSharedCount m_Refused;
    CCmWatchedSharedCount m_Unfired;

  private:
    [[maybe_unused]] char m_achBetween[LINE_SIZE];

  public:
    // Under the queue's lock, by posters.
    CCmWatchedT<uint64_t> m_ullPosted;
    CCmWatchedMost m_Most;
    DWORD m_dwPosts = 0;  // since the last probe

  private:
    [[maybe_unused]] char m_achBetweenToo[LINE_SIZE];

  public:
    // The consumer's.
    CCmWatchedT<uint64_t> m_ullRun;
    CCmWatchedT<uint64_t> m_ullOwnPosted;
    CCmWatchedMost m_OwnMost;
    CCmWatchedT<DWORD> m_dwTaken;  // events that it has taken out and not begun
    CCmWatchedProbe m_OwnProbe;
    DWORD m_dwLeft = 0;        // that it has left in the queue when it took those
    DWORD m_dwOwnPosts = 0;    // since the last probe
    DWORD m_dwTakenStart = 0;  // of the watch, that has counted what was last taken out
};

// An event or a timer handler that runs, on the stack of its thread. What runs within it counts,
// too, but its time is part of that of the outermost.
class CCmWatchedRun {
  public:
    CCmWatchedRun() = default;
    CCmWatchedRun(const CCmWatchedRun&) = delete;
    CCmWatchedRun& operator=(const CCmWatchedRun&) = delete;
    ~CCmWatchedRun() {
        if (CM_UNLIKELY(m_pThread != nullptr)) {
            Leave();
        }
    }

    // aThread: that of the caller.
    void Enter(CCmWatchedThread* aThread);
    CCmWatchedThread* Thread() const { return m_pThread; }
    bool IsOutermost() const { return m_pThread->m_dwDepth == 1; }
    void SetCurrent(const void* aTable, long long aStartUsec);

  private:
    void Leave();

    CCmWatchedThread* m_pThread = nullptr;
    const void* m_pOuter;  // since Enter: what ran before
    long long m_llOuterStart;
};

// The timers that fire in one pass over a list of them.
class CCmWatchedTimers {
  public:
    // One is about to be called. aHandler: an object with virtual functions. aNow: the wall clock
    // at the start of the pass; null: about now.
    void BeginOne(const void* aHandler, const CCmTimeValue* aNow) {
        if (CmWatchIsOn()) {
            Begin(CmTableOf(aHandler), aNow);
        } else {
            m_pTable = nullptr;
            m_bHasMissed = true;
        }
    }
    // It has returned. aLateUsec: how late it was when the pass began, or UNKNOWN_USEC. True when
    // it took so long that it is to be reported.
    static constexpr long long UNKNOWN_USEC = -1;
    bool EndOne(long long aLateUsec) {
        return CM_UNLIKELY(m_pTable != nullptr) && Count(aLateUsec);
    }
    // Of the last one.
    const void* Table() const { return m_pTable; }
    long long LateUsec() const { return m_llLate; }
    long long RanUsec() const { return m_llRan; }
    // The line about it has been written: it is not part of the next one.
    void ForgetLine();

    // For a handler that has done nothing but fire others: it does not count itself.
    static void CountOthersOnly();

  private:
    void Begin(const void* aTable, const CCmTimeValue* aNow);
    bool Count(long long aLateUsec);

    CCmWatchedRun m_Run;
    DWORD m_dwStart = 0;             // of the watch, when the one that runs began
    const void* m_pTable = nullptr;  // of the one that runs; null: it began without the watch
    bool m_bHasMissed = false;       // as did the one before
    long long m_llBegin = 0;         // of the pass
    long long m_llStart = 0;         // of the one that runs
    long long m_llLate = 0;
    long long m_llRan = 0;
};

// A synchronous send of the calling thread.
class CCmWatchedSend {
  public:
    explicit CCmWatchedSend(const ICmEvent* aEvent) {
        if (CmWatchIsOn()) {
            Begin(aEvent);
        }
    }
    // It is over.
    void End(const void* aQueue) {
        if (CM_UNLIKELY(m_pThread != nullptr)) {
            Count(aQueue);
        }
    }

  private:
    void Begin(const ICmEvent* aEvent);
    void Count(const void* aQueue);

    CCmWatchedThread* m_pThread = nullptr;
    DWORD m_dwStart = 0;  // of the watch, when it began
    const void* m_pTable = nullptr;
    long long m_llStart = 0;
};

// For CCmWatch: the number of the start whose figures are read, that they stay as they are from now
// on, and the rows.
void CmSetWatchStart(DWORD aStart);
void CmSetWatchEnd();
size_t CmReadWorkers(CCmWorkerFigures* aFigures, size_t aRoom);

// Around a fork: nobody is in the registry. In the child, meanwhile: all other threads are gone.
void CmHoldWatched();
void CmReleaseWatched();
void CmForgetOtherThreads();

// Reads the section [Watch] of the profile, once in the process, and starts the watch if it says
// so. CmWatch.cpp.
void CmWatchAsProfileSays();

}  // namespace UTIL_NS

#endif  // CM_WATCHED_H
