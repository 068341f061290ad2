// What tests of the event queues share.
#ifndef TESTS_SUPPORT_EVENT_QUEUES_H
#define TESTS_SUPPORT_EVENT_QUEUES_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "CmEventQueueBase.h"
#include "CmTrace.h"
#include "support/Events.h"
#include "support/Faults.h"

namespace kelto_test {

// 1, 2, ..., aLast.
inline std::vector<int> IdsUpTo(int aLast) {
    std::vector<int> ids;
    for (int i = 1; i <= aLast; ++i) {
        ids.push_back(i);
    }
    return ids;
}

// Posts the events aFirst to aLast, which log what happens to them.
inline void Post(UTIL_NS::ICmEventQueue& aQueue, EventLog& aLog, int aFirst, int aLast) {
    for (int i = aFirst; i <= aLast; ++i) {
        ASSERT_EQ(UTIL_NS::CM_OK, aQueue.PostEvent(new LoggedEvent(aLog, i),
                                                   UTIL_NS::ICmEventQueue::EPRIORITY_NORMAL));
    }
}

// A wait that ends after a while for no reason.
inline int SpuriousWait(pthread_cond_t*, pthread_mutex_t* aMutex) {
    pthread_mutex_unlock(aMutex);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    pthread_mutex_lock(aMutex);
    return 0;
}

inline std::atomic<int> g_nWaits{0};
inline int CountedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    ++g_nWaits;
    return pthread_cond_wait(aCondition, aMutex);
}
inline int CountedTimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                            const timespec* aTime) {
    ++g_nWaits;
    return pthread_cond_timedwait(aCondition, aMutex, aTime);
}
inline std::atomic<int> g_nSignals{0};
inline int CountedSignal(pthread_cond_t* aCondition) {
    ++g_nSignals;
    return pthread_cond_signal(aCondition);
}

// A wait that is counted is there: its mutex is held from before it was counted.
class WaitCounter {
  public:
    WaitCounter() { g_nWaits = g_nSignals = 0; }

  private:
    ScopedEntry<decltype(UTIL_NS::g_cmSystem.pthread_cond_wait)> m_wait{
        UTIL_NS::g_cmSystem.pthread_cond_wait, &CountedWait};
    ScopedEntry<decltype(UTIL_NS::g_cmSystem.pthread_cond_timedwait)> m_timedWait{
        UTIL_NS::g_cmSystem.pthread_cond_timedwait, &CountedTimedWait};
    ScopedEntry<decltype(UTIL_NS::g_cmSystem.pthread_cond_signal)> m_signal{
        UTIL_NS::g_cmSystem.pthread_cond_signal, &CountedSignal};
};

inline thread_local int t_nLocksHeld = 0;
inline int CountedLock(pthread_mutex_t* aMutex) {
    ++t_nLocksHeld;
    return pthread_mutex_lock(aMutex);
}
inline int CountedUnlock(pthread_mutex_t* aMutex) {
    --t_nLocksHeld;
    return pthread_mutex_unlock(aMutex);
}

// The lines that come while a mutex is held are counted.
inline std::atomic<int> g_nLines{0};
inline std::atomic<int> g_nLinesUnderLock{0};
inline void LockCheckingSink(unsigned long, const char*, unsigned int) {
    ++g_nLines;
    g_nLinesUnderLock += t_nLocksHeld != 0 ? 1 : 0;
}

class LockedLines {
  public:
    LockedLines() : m_pfnPrevious(UTIL_NS::g_util_trace_sink.load()) {
        g_nLines = g_nLinesUnderLock = 0;
        t_nLocksHeld = 0;
        set_util_external_trace_sink(&LockCheckingSink);
    }
    ~LockedLines() { set_util_external_trace_sink(m_pfnPrevious); }
    LockedLines(const LockedLines&) = delete;
    LockedLines& operator=(const LockedLines&) = delete;

  private:
    const UTIL_NS::UtilTraceSink m_pfnPrevious;
    ScopedEntry<decltype(UTIL_NS::g_cmSystem.pthread_mutex_lock)> m_lock{
        UTIL_NS::g_cmSystem.pthread_mutex_lock, &CountedLock};
    ScopedEntry<decltype(UTIL_NS::g_cmSystem.pthread_mutex_unlock)> m_unlock{
        UTIL_NS::g_cmSystem.pthread_mutex_unlock, &CountedUnlock};
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_EVENT_QUEUES_H
