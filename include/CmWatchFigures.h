/// What the watch tells of a worker (CmWatch.h).
/// \file
#ifndef CM_WATCH_FIGURES_H
#define CM_WATCH_FIGURES_H

#include <cstddef>
#include <cstdint>

namespace UTIL_NS {

/// How long something took, each time: microseconds. The three in the middle are at most a quarter
/// too high, since they are the upper end of a range of lengths, or the longest where they are
/// beyond 29 s; the longest is exact.
struct CCmWatchDistribution {
    uint64_t m_ullCount = 0;    ///< how many times
    uint64_t m_ullMedian = 0;   ///< half of them took no longer
    uint64_t m_ull99 = 0;       ///< 99 of 100 took no longer
    uint64_t m_ull999 = 0;      ///< 999 of 1000 took no longer
    uint64_t m_ullLongest = 0;  ///< the longest
};

/// What one worker has done since the watch was started: a thread with an event queue, and all
/// queues that it runs. Times are microseconds of the wall clock. While nobody posts and nothing
/// runs, m_ullPosted is the sum of m_ullRun, m_ullUnfired and m_ullPending; what was pending when
/// the watch was started counts as posted then. A synchronous send is one event; one that a thread
/// makes to itself runs within another event and is none.
struct CCmWorkerFigures {
    /// A class name's longest part that is kept, with its terminator.
    static constexpr size_t CLASS_SIZE = 160;
    /// A thread name's, too.
    static constexpr size_t NAME_SIZE = 64;

    char m_szName[NAME_SIZE] = {};  ///< the thread's, as the system knows it; may be empty
    uint64_t m_ullThread = 0;   ///< its pthread_t as a number; 0: not known yet, or it has ended
    uint64_t m_ullPosted = 0;   ///< events accepted by the queues
    uint64_t m_ullRun = 0;      ///< events begun
    uint64_t m_ullRefused = 0;  ///< events that a post has refused and ended
    uint64_t m_ullUnfired = 0;  ///< events ended without having run, after they were pending
    uint64_t m_ullPending = 0;  ///< events that are pending now
    uint64_t m_ullMostPending = 0;  ///< the most that were
    uint64_t m_ullAsleep = 0;       ///< time that the thread has waited for events
    uint64_t m_ullInEvents = 0;     ///< time in events
    uint64_t m_ullInTimers = 0;     ///< time in handlers of timers
    uint64_t m_ullTimersFired = 0;  ///< calls of timer handlers and of delayed posts
    CCmWatchDistribution m_Run;     ///< how long events ran
    CCmWatchDistribution m_Waited;  ///< how long events waited; a sample: see docs/watch.md
    CCmWatchDistribution m_Late;    ///< how late timers fired
    CCmWatchDistribution m_Sends;   ///< synchronous sends of this thread, and how long they blocked
    char m_szLongestClass[CLASS_SIZE] = {};  ///< the class of the longest event; empty: none yet
    char m_szCurrentClass[CLASS_SIZE] = {};  ///< what runs now: the class; empty: nothing
    uint64_t m_ullCurrent = 0;               ///< and for how long
    uint64_t m_ullReserved[16] = {};         ///< 0; for later versions
};

}  // namespace UTIL_NS

#endif  // CM_WATCH_FIGURES_H
