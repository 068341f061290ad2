// Events with automatic and manual reset, semaphores and mutexes, in every schedule.
#include <gtest/gtest.h>

#include "CmConditionVariable.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

bool IsOpen(CCmEventThread& aEvent) {
    CCmTimeValue tvNotAtAll;
    return aEvent.Wait(&tvNotAtAll) == CM_OK;
}

// A place in which one thread at a time may be.
class CPlace {
  public:
    void Enter() {
        SCHEDULE_EXPECT(m_nThreads.fetch_add(1) == 0);
        SCHEDULE_EXPECT(m_nThreads.fetch_sub(1) == 1);
        ++m_nVisits;
    }
    int Visits() const { return m_nVisits; }

  private:
    CmStd::atomic<int> m_nThreads{0};
    int m_nVisits = 0;
};

}  // namespace

TEST(ScheduledEvent, LetsOneThroughForASignal_WhenItWaitsOrWhenNot) {
    Explore([] {
        CCmEventThread event;
        {
            CThreadOf waiter([&event] { SCHEDULE_EXPECT(event.Wait() == CM_OK); });
            SCHEDULE_EXPECT(event.Signal() == CM_OK);
        }
        SCHEDULE_EXPECT(!IsOpen(event));
    });
}

TEST(ScheduledEvent, LetsOneOfTwoThroughForEachSignal) {
    Explore([] {
        CCmEventThread event;
        int nPassed = 0;
        const auto pass = [&] {
            SCHEDULE_EXPECT(event.Wait() == CM_OK);
            ++nPassed;
        };
        CThreadOf first(pass);
        CThreadOf second(pass);
        SCHEDULE_EXPECT(event.Signal() == CM_OK);
        WaitUntil([&] { return nPassed >= 1; });
        SCHEDULE_EXPECT(nPassed == 1);
        SCHEDULE_EXPECT(event.Signal() == CM_OK);
        first.Join();
        second.Join();
        SCHEDULE_EXPECT(nPassed == 2);
        SCHEDULE_EXPECT(!IsOpen(event));
    });
}

TEST(ScheduledEvent, LetsOneAtMostThroughForASignal_WhenTheWaitHasALimit) {
    Explore([] {
        CCmEventThread event;
        bool bPassed = false;
        {
            CThreadOf waiter([&] {
                CCmTimeValue tvLimit(0, 1000);
                const CmResult rv = event.Wait(&tvLimit);
                SCHEDULE_EXPECT(rv == CM_OK || rv == CM_ERROR_TIMEOUT);
                // It times out early only where the schedule says so, not before its time.
                bPassed = rv == CM_OK;
            });
            SCHEDULE_EXPECT(event.Signal() == CM_OK);
        }
        SCHEDULE_EXPECT(!bPassed || !IsOpen(event));
        SCHEDULE_EXPECT(event.Signal() == CM_OK);
        SCHEDULE_EXPECT(IsOpen(event) && !IsOpen(event));
    });
}

TEST(ScheduledEvent, LetsAllThroughUntilThePulse_WhenItsResetIsManual) {
    Explore([] {
        CCmEventThread event(1);
        {
            const auto pass = [&event] { SCHEDULE_EXPECT(event.Wait() == CM_OK); };
            CThreadOf first(pass);
            CThreadOf second(pass);
            SCHEDULE_EXPECT(event.Signal() == CM_OK);
        }
        SCHEDULE_EXPECT(IsOpen(event) && IsOpen(event));
        SCHEDULE_EXPECT(event.Pulse() == CM_OK);
        SCHEDULE_EXPECT(!IsOpen(event));
    });
}

TEST(ScheduledEvent, PassesOrIsOpen_WhenItsResetIsManualAndTheWaitHasALimit) {
    Explore([] {
        CCmEventThread event(1);
        CThreadOf waiter([&event] {
            CCmTimeValue tvLimit(0, 1000);
            const CmResult rv = event.Wait(&tvLimit);
            SCHEDULE_EXPECT(rv == CM_OK || rv == CM_ERROR_TIMEOUT);
            SCHEDULE_EXPECT(event.Wait() == CM_OK);
        });
        SCHEDULE_EXPECT(event.Signal() == CM_OK);
        waiter.Join();
        SCHEDULE_EXPECT(IsOpen(event));
    });
}

TEST(ScheduledEvent, IsPassedByThoseThatWait_WhenItIsPulsed) {
    Explore([] {
        const bool bManual = Choose(2) == 1;
        CCmEventThread event(bManual ? 1 : 0);
        int nPassed = 0;
        const auto pass = [&] {
            SCHEDULE_EXPECT(event.Wait() == CM_OK);
            ++nPassed;
        };
        CThreadOf first(pass);
        CThreadOf second(pass);
        WaitUntil([] { return Sleeps(1) && Sleeps(2); });
        SCHEDULE_EXPECT(event.Pulse() == CM_OK);
        if (!bManual) {
            WaitUntil([&] { return nPassed > 0; });
            SCHEDULE_EXPECT(nPassed == 1);
            SCHEDULE_EXPECT(event.Pulse() == CM_OK);
        }
        first.Join();
        second.Join();
        SCHEDULE_EXPECT(nPassed == 2);
        SCHEDULE_EXPECT(!IsOpen(event));
    });
}

TEST(ScheduledEvent, LetsNobodyThroughLater_WhenASignalMeetsAPulse) {
    Explore([] {
        CCmEventThread event(1);
        bool bPassed = false;
        {
            CThreadOf waiter([&] {
                SCHEDULE_EXPECT(event.Wait() == CM_OK);
                bPassed = true;
            });
            SCHEDULE_EXPECT(event.Signal() == CM_OK);
            SCHEDULE_EXPECT(event.Pulse() == CM_OK);
            SCHEDULE_EXPECT(bPassed || !IsOpen(event));
            SCHEDULE_EXPECT(event.Signal() == CM_OK);
        }
        SCHEDULE_EXPECT(IsOpen(event));
    });
}

TEST(ScheduledEvent, StaysUsable_WhenTheThreadThatWaitsIsCancelled) {
    Explore([] {
        CCmEventThread event;
        bool bPassed = false;
        {
            CThreadOf waiter([&] {
                event.Wait();
                bPassed = true;
            });
            waiter.Cancel();
            waiter.Join();
        }
        SCHEDULE_EXPECT(!bPassed);
        SCHEDULE_EXPECT(event.Signal() == CM_OK);
        SCHEDULE_EXPECT(IsOpen(event) && !IsOpen(event));
    });
}

TEST(ScheduledEvent, CanBeFreedByTheThreadThatItWoke) {
    Explore([] {
        auto* const pEvent = new CCmEventThread(Choose(2) == 1 ? 1 : 0);
        CThreadOf waiter([pEvent] {
            SCHEDULE_EXPECT(pEvent->Wait() == CM_OK);
            delete pEvent;
        });
        SCHEDULE_EXPECT(pEvent->Signal() == CM_OK);
    });
}

TEST(ScheduledSemaphore, LetsOneInAtATime_WhenItCountsOne) {
    Explore([] {
        CCmSemaphore semaphore(1);
        CPlace place;
        {
            const auto visit = [&] {
                SCHEDULE_EXPECT(semaphore.Lock() == CM_OK);
                place.Enter();
                SCHEDULE_EXPECT(semaphore.UnLock() == CM_OK);
            };
            CThreadOf first(visit);
            CThreadOf second(visit);
            visit();
        }
        SCHEDULE_EXPECT(place.Visits() == 3);
    });
}

TEST(ScheduledSemaphore, LetsInAsManyAsArePosted) {
    Explore([] {
        CCmSemaphore semaphore(0);
        int nPassed = 0;
        const auto pass = [&] {
            SCHEDULE_EXPECT(semaphore.Lock() == CM_OK);
            ++nPassed;
        };
        CThreadOf first(pass);
        CThreadOf second(pass);
        CThreadOf third(pass);
        SCHEDULE_EXPECT(semaphore.PostN(2) == CM_OK);
        WaitUntil([&nPassed] { return nPassed >= 2; });
        SCHEDULE_EXPECT(nPassed == 2);
        SCHEDULE_EXPECT(semaphore.UnLock() == CM_OK);
        third.Join();
        second.Join();
        first.Join();
        SCHEDULE_EXPECT(nPassed == 3);
    });
}

TEST(ScheduledMutex, LetsOneThreadIn_UntilItHasUnlockedAsOften) {
    Explore([] {
        CCmMutexThreadRecursive mutex;
        CPlace place;
        {
            const auto visit = [&] {
                SCHEDULE_EXPECT(mutex.Lock() == CM_OK);
                SCHEDULE_EXPECT(mutex.TryLock() == CM_OK);
                place.Enter();
                SCHEDULE_EXPECT(mutex.UnLock() == CM_OK);
                place.Enter();
                SCHEDULE_EXPECT(mutex.UnLock() == CM_OK);
            };
            CThreadOf other(visit);
            visit();
        }
        SCHEDULE_EXPECT(place.Visits() == 4);
    });
}

TEST(ScheduledMutex, IsTakenByTheOneThatTriesFirst) {
    Explore([] {
        CCmMutexThread mutex;
        CPlace place;
        const auto tryToVisit = [&] {
            const bool bLocked = mutex.TryLock() == CM_OK;
            if (bLocked) {
                place.Enter();
                SCHEDULE_EXPECT(mutex.UnLock() == CM_OK);
            }
            return bLocked;
        };
        bool bOther = false;
        bool bHere = false;
        {
            CThreadOf other([&] { bOther = tryToVisit(); });
            bHere = tryToVisit();
        }
        SCHEDULE_EXPECT(bHere || bOther);
        SCHEDULE_EXPECT(place.Visits() == (bHere ? 1 : 0) + (bOther ? 1 : 0));
    });
}

}  // namespace kelto_test
