// What the watch keeps of a thread and of a queue; internal.
//
// Both are objects of the heap that are made when something first happens on a thread, or in a
// queue, while the watch is on. The registry lists them. Its lock is taken where a thread or a
// queue begins or ends and by those who read; no event, timer or post waits for it.
//
// Figures are written by one thread each, or under the queue's lock, with relaxed loads and stores:
// readers see each number as it was a moment ago, and nothing is handed over with it.
#ifndef CM_WATCHED_H
#define CM_WATCHED_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmWatch.h"

namespace UTIL_NS {

class CCmEventQueueBase;
class CCmFlightRing;
class CCmTimeValue;
class ICmEvent;

// 0: the watch is off; else the number of its start, from 1. Relaxed: who sees a start late counts
// from then on.
extern CmStd::atomic<DWORD> g_cmWatchOn;

inline bool CmWatchIsOn() {
    return g_cmWatchOn.load(std::memory_order_relaxed) != 0;
}

// A number that one thread at a time writes.
template <class ValueType>
class CCmWatchedT {
  public:
    ValueType Get() const { return m_Value.load(std::memory_order_relaxed); }
    void Set(ValueType aValue) { m_Value.store(aValue, std::memory_order_relaxed); }
    void Add(ValueType aValue) { Set(static_cast<ValueType>(Get() + aValue)); }
    void Raise(ValueType aValue) {
        if (aValue > Get()) {
            Set(aValue);
        }
    }

  private:
    CmStd::atomic<ValueType> m_Value{0};
};

// Lengths in microseconds, counted by ranges: four for each power of two.
class CCmWatchedDistribution {
  public:
    static constexpr unsigned BUCKETS = 96;

    // The range of a length, and the last length of a range; the last range has no end.
    static unsigned BucketOf(uint64_t aUsec);
    static uint64_t EndOf(unsigned aBucket);

    void Add(long long aUsec);
    uint64_t Longest() const { return m_ullLongest.Get(); }
    // Adds what another thread has written to a copy of the reader's own.
    void CopyTo(CCmWatchDistribution& aCopy) const;
    void Clear();

  private:
    CCmWatchedT<uint32_t> m_dwCounts[BUCKETS];
    CCmWatchedT<uint64_t> m_ullLongest;
};

// A thread. What it writes, it alone writes.
class CCmWatchedThread {
  public:
    // Under the registry's lock, or on the thread itself.
    const char* Name() const { return m_szName; }
    pthread_t Tid() const { return m_Tid; }
    bool HasEnded() const { return m_bHasEnded; }
    uint64_t Number() const { return m_ullNumber; }  // from 1, in the order of their beginning
    // Null: no records of this thread.
    CCmFlightRing* Ring() const { return m_pRing.load(std::memory_order_relaxed); }

    // What runs now: the table of its class, null for nothing, and since when.
    CCmWatchedT<const void*> m_pCurrent;
    CCmWatchedT<long long> m_llCurrentUsec;

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

  private:
    friend class CCmWatchRegistry;

    char m_szName[CCmWorkerFigures::NAME_SIZE] = {};
    pthread_t m_Tid = pthread_t();
    bool m_bHasEnded = false;
    uint64_t m_ullNumber = 0;
    DWORD m_dwStart = 0;  // the start of the watch that the figures are of
    CmStd::atomic<CCmFlightRing*> m_pRing{nullptr};
    CCmWatchedThread* m_pNext = nullptr;
};

// That of the calling thread, null where it has none (yet).
CCmWatchedThread* CmWatchedThread();
// The same, made if it is not there; null when the watch is off, there is no memory or the thread
// is about to end.
CCmWatchedThread* CmEnsureWatchedThread();
// Calls aVisit for each thread, the oldest first, those that have ended included as long as nothing
// new has taken their place; under the registry's lock.
void CmVisitWatchedThreads(void (*aVisit)(CCmWatchedThread&, void*), void* aArgument);
template <class VisitType>
void CmForEachWatchedThread(VisitType aVisit) {
    CmVisitWatchedThreads([](CCmWatchedThread& aThread,
                             void* aArgument) { (*static_cast<VisitType*>(aArgument))(aThread); },
                          &aVisit);
}

// The table of an object's class: the first word of every object with virtual functions.
inline const void* CmTableOf(const void* aObject) {
    return *static_cast<const void* const*>(aObject);
}
// The class's name as people write it, or the address of the table where it is not known; cut at
// aSize bytes. Allocates.
void CmClassText(const void* aTable, char* aText, size_t aSize);

}  // namespace UTIL_NS

#endif  // CM_WATCHED_H
