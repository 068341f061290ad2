// When the library waits without sleeping, and for how long.
#include "CmBriefWait.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "CmEvent.h"
#include "CmEventQueueBase.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Clock.h"
#include "support/EventQueues.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

// How often MayTry says no before it says yes.
int LeftOut(CCmLearnedTry& aTry) {
    int nTimes = 0;
    while (!aTry.MayTry()) {
        ++nTimes;
    }
    return nTimes;
}

TEST(CmLearnedTry, LeavesOutMoreEachTime_WhileItFails) {
    CCmLearnedTry learned;
    EXPECT_EQ(0, LeftOut(learned));
    for (int nExpected : {1, 3, 7, 15, 31, 63, 127, 255, 511, 1023, 1023}) {
        learned.Note(false);
        EXPECT_EQ(nExpected, LeftOut(learned));
        EXPECT_EQ(0, LeftOut(learned));
    }
}

TEST(CmLearnedTry, GoesOn_WhileItWorks) {
    CCmLearnedTry learned;
    for (int i = 0; i < 3; ++i) {
        learned.Note(true);
        EXPECT_EQ(0, LeftOut(learned));
    }
}

TEST(CmLearnedTry, ForgetsByHalves_WhenItWorksAgain) {
    CCmLearnedTry learned;
    for (int i = 0; i < 4; ++i) {
        learned.Note(false);
    }
    EXPECT_EQ(15, LeftOut(learned));
    learned.Note(true);
    EXPECT_EQ(0, LeftOut(learned));
    learned.Note(false);
    EXPECT_EQ(15, LeftOut(learned));
}

TEST(CmLearnedTry, LeavesOutTheMost_WhenItHasDoneHarm) {
    CCmLearnedTry learned;
    learned.NoteHarm();
    EXPECT_EQ(1023, LeftOut(learned));
}

TEST(CmSpinUntil, Returns_WhenItIsThereOrTheTimeIsOver) {
    EXPECT_TRUE(CmSpinUntil([] { return true; }, 0));
    const long long llStart = CmMonotonicNsec();
    EXPECT_FALSE(CmSpinUntil([] { return false; }, 50000));
    EXPECT_LE(llStart + 50000, CmMonotonicNsec());
    int nLooks = 0;
    EXPECT_TRUE(CmSpinUntil([&nLooks] { return ++nLooks == 3; }, 1000000000LL));
    EXPECT_EQ(3, nLooks);
}

// A loop that looks out reads the clock; there is no other reading between two of its passes.
TEST(CmBriefWait, IsOverForTheLoop_WhenNoSendHasFiredSince) {
    kelto_test::ScopedClock clock;
    kelto_test::WaitCounter counter;
    kelto_test::TaskThread worker(false);
    ICmEventQueue& queue = *worker->GetEventQueue();
    kelto_test::EventLog log;
    // How often the clock is read for events each of which finds the loop asleep.
    const auto readsOfPosts = [&] {
        unsigned long ulReads = 0;
        for (int i = 0; i < 10; ++i) {
            std::atomic<int> nWaits{-1};
            ulReads = i == 1 ? clock.reads() : ulReads;
            queue.PostEvent(new kelto_test::LoggedEvent(log, i,
                                                        [&nWaits] {
                                                            nWaits = kelto_test::g_nWaits.load();
                                                            return CM_OK;
                                                        }),
                            ICmEventQueue::EPRIORITY_NORMAL);
            EXPECT_TRUE(kelto_test::Eventually(
                [&nWaits] { return nWaits != -1 && kelto_test::g_nWaits > nWaits; }));
        }
        return clock.reads() - ulReads;
    };
    const unsigned long ulBefore = readsOfPosts();
    EXPECT_EQ(CM_OK, queue.SendEvent(new kelto_test::LoggedEvent(log)));
    EXPECT_EQ(ulBefore, readsOfPosts());
}

thread_local bool t_bIsLoop = false;
std::atomic<int> s_nReadsLeft{0};
int (*s_pfnTimeWithoutJumps)(timeval*, void*) = nullptr;
kelto_test::ScopedClock* s_pClockThatJumps = nullptr;
ICmEventQueue* s_pQueueOfJumps = nullptr;

// The last of the loop's readings, if it is one before an event and not the one after it.
int TimeWithJumps(timeval* aTime, void* aZone) {
    if (t_bIsLoop && s_nReadsLeft == 1 && s_pQueueOfJumps->GetPendingEventsCount() > 0) {
        s_pClockThatJumps->AdvanceUsec(70000);
    }
    const int nResult = s_pfnTimeWithoutJumps(aTime, aZone);
    if (t_bIsLoop && s_nReadsLeft > 0) {
        --s_nReadsLeft;
    }
    return nResult;
}

// After the end of what was sent and before the clock is read again, time passes.
TEST(CmBriefWait, IsNoPartOfTheNextEvent_WhenTheSenderHasComeBack) {
    kelto_test::ScopedClock clock;
    s_pClockThatJumps = &clock;
    s_pfnTimeWithoutJumps = g_cmClock.gettimeofday;
    const kelto_test::ScopedEntry<decltype(g_cmClock.gettimeofday)> entry(g_cmClock.gettimeofday,
                                                                          &TimeWithJumps);
    kelto_test::ScopedTraceSink sink;
    kelto_test::TaskThread worker(false);
    s_pQueueOfJumps = worker->GetEventQueue();
    kelto_test::EventLog log;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(CM_OK, s_pQueueOfJumps->SendEvent(new kelto_test::LoggedEvent(log, i, [] {
            t_bIsLoop = true;
            s_nReadsLeft = 2;
            return CM_OK;
        })));
        EXPECT_TRUE(kelto_test::Eventually([] { return s_nReadsLeft == 0; }));
    }
    worker.End();
    EXPECT_EQ(100u, log.fired().size());
    EXPECT_EQ(0u, sink.count("ProcessOneEvent, report"));
}

// What a loop does between an event and its next wait. It counts its readings of the clock: looking
// out takes one. A sender whose event has run does not come back before the loop waits.
class CLoopWatched {
  public:
    CLoopWatched() {
        s_pThis = this;
        m_pfnTime = m_time.original();
        m_pfnCoarseTime = m_coarseTime.original();
    }

    // As the reading that it takes to look out is due, the loop's thread is cancelled.
    void CancelAtRead(int aRead) { m_nReadToCancelAt = aRead; }
    // How often the clock is read until the loop waits; -1: it did not wait.
    int ReadsOfPost(ICmEventQueue& aQueue) {
        m_nReadsAtWait = NOT_RUN;
        EXPECT_EQ(CM_OK, aQueue.PostEvent(Event(), ICmEventQueue::EPRIORITY_NORMAL));
        EXPECT_TRUE(kelto_test::Eventually([this] { return m_nReadsAtWait >= 0; }));
        return m_nReadsAtWait;
    }
    int ReadsOfSend(ICmEventQueue& aQueue) {
        m_nReadsAtWait = NOT_RUN;
        t_bIsSender = true;
        EXPECT_EQ(CM_OK, aQueue.SendEvent(Event()));
        t_bIsSender = false;
        return m_nReadsAtWait;
    }
    int ReadsAtWait() const { return m_nReadsAtWait; }

  private:
    ICmEvent* Event() {
        return new kelto_test::LoggedEvent(m_log, 0, [this] {
            t_nLoop = ++m_nLoop;
            m_nReads = 0;
            m_nReadsAtWait = -1;
            return CM_OK;
        });
    }
    // Loops of earlier events may wake up meanwhile.
    bool IsLoop() const { return t_nLoop != 0 && t_nLoop == m_nLoop; }
    void NoteWait() {
        if (IsLoop() && m_nReadsAtWait == -1) {
            m_nReadsAtWait = m_nReads.load();
        }
    }
    static int Time(timeval* aTime, void* aZone) {
        if (s_pThis->IsLoop() && ++s_pThis->m_nReads == s_pThis->m_nReadToCancelAt) {
            pthread_cancel(pthread_self());
        }
        return s_pThis->m_pfnTime(aTime, aZone);
    }
    static int CoarseTime(timeval* aTime, void* aUnused) {
        if (t_bIsSender && s_pThis->m_nReadsAtWait == -1) {  // on its way back
            EXPECT_TRUE(kelto_test::Eventually([] {
                return s_pThis->m_nReadsAtWait >= 0 ||
                       s_pThis->m_nReads == s_pThis->m_nReadToCancelAt;
            }));
        }
        return s_pThis->m_pfnCoarseTime(aTime, aUnused);
    }
    static int Wait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
        s_pThis->NoteWait();
        return s_pThis->m_wait.original()(aCondition, aMutex);
    }
    static int TimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                         const timespec* aTime) {
        s_pThis->NoteWait();
        return s_pThis->m_timedWait.original()(aCondition, aMutex, aTime);
    }
    static int ClockWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                         const timespec* aTime) {
        s_pThis->NoteWait();
        return s_pThis->m_clockWait.original()(aCondition, aMutex, aTime);
    }

    static constexpr int NOT_RUN = -2;

    inline static CLoopWatched* s_pThis = nullptr;
    inline static thread_local int t_nLoop = 0;
    inline static thread_local bool t_bIsSender = false;

    kelto_test::EventLog m_log;
    std::atomic<int> m_nReads{0};
    std::atomic<int> m_nReadsAtWait{NOT_RUN};
    std::atomic<int> m_nLoop{0};
    std::atomic<int> m_nReadToCancelAt{-1};
    int (*m_pfnTime)(timeval*, void*) = nullptr;
    int (*m_pfnCoarseTime)(timeval*, void*) = nullptr;
    kelto_test::ScopedEntry<decltype(g_cmClock.gettimeofday)> m_time{g_cmClock.gettimeofday, &Time};
    kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> m_coarseTime{
        g_cmClock.coarse_gettimeofday, &CoarseTime};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> m_wait{
        g_cmSystem.pthread_cond_wait, &Wait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> m_timedWait{
        g_cmSystem.pthread_cond_timedwait, &TimedWait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_clockwait)> m_clockWait{
        g_cmSystem.pthread_cond_clockwait, &ClockWait};
};

TEST(CmBriefWait, ComesOnceAfterASend_UntilTheLoopHasATimer) {
    CLoopWatched watched;
    const auto looks = [&watched](ICmEventQueue* aQueue) {
        const int nReads = watched.ReadsOfPost(*aQueue);
        return watched.ReadsOfSend(*aQueue) - nReads;
    };
    const int nExpected = CmPortCurrentCore() != -1 ? 1 : 0;
    const kelto_test::TaskThread taskWithoutTimers(false);
    const kelto_test::TaskThread task;
    const CCmWorker worker;
    EXPECT_EQ(nExpected, looks(taskWithoutTimers->GetEventQueue()));
    EXPECT_EQ(nExpected, looks(task->GetEventQueue()));
    EXPECT_EQ(nExpected, looks(worker.GetEventQueue()));
    // The wait for a timer is precise.
    const kelto_test::TaskThread taskWithTimer;
    const CCmTimerHandle ofTask = CmPostDelayed(*taskWithTimer, std::chrono::seconds(100), [] {});
    EXPECT_EQ(0, looks(taskWithTimer->GetEventQueue()));
    CCmWorker workerWithTimer;
    const CCmTimerHandle ofWorker =
        CmPostDelayed(workerWithTimer, std::chrono::seconds(100), [] {});
    EXPECT_EQ(0, looks(workerWithTimer.GetEventQueue()));
}

TEST(CmBriefWait, IsCancelled_WhenTheThreadIs) {
    if (CmPortCurrentCore() == -1) {
        GTEST_SKIP() << "no loop looks out here";
    }
    CLoopWatched watched;
    kelto_test::TaskThread task(false);
    const int nReads = watched.ReadsOfPost(*task->GetEventQueue());
    watched.CancelAtRead(nReads + 1);
    EXPECT_EQ(-1, watched.ReadsOfSend(*task->GetEventQueue()));
    EXPECT_EQ(CM_OK, task->Join());
    EXPECT_EQ(-1, watched.ReadsAtWait());
}

// On cores of their own, on one core, beside other senders: whatever the machine does.
TEST(CmBriefWait, GivesEverySenderItsResult) {
    constexpr int SENDERS = 3;
    constexpr int SENDS = 400;
    kelto_test::TaskThread worker(false);
    std::atomic<int> nFired{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < SENDERS; ++i) {
        senders.emplace_back([&, i] {
            kelto_test::EventLog log;
            for (int j = 0; j < SENDS; ++j) {
                const CmResult rvExpected = i * SENDS + j;
                EXPECT_EQ(rvExpected,
                          worker->GetEventQueue()->SendEvent(
                              new kelto_test::LoggedEvent(log, j, [&nFired, rvExpected] {
                                  ++nFired;
                                  return rvExpected;
                              })));
                if (j % 7 == 0) {
                    std::this_thread::sleep_for(std::chrono::microseconds(70));
                }
            }
            EXPECT_EQ(static_cast<size_t>(SENDS), log.fired().size());
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(SENDERS * SENDS, nFired);
}

}  // namespace
}  // namespace UTIL_NS
