// That the scheduler finds what it judges: each of these scenarios has a fault that some schedule
// shows.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <set>

#include "CmConditionVariable.h"
#include "CmSystem.h"
#include "schedule/Atomic.h"
#include "schedule/Memory.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

CSettings WithPreemptions(int aCount) {
    CSettings settings;
    settings.m_nPreemptions = aCount;
    return settings;
}

::testing::AssertionResult Says(const std::string& aFailure, const char* aWords) {
    return aFailure.find(aWords) != std::string::npos
               ? ::testing::AssertionSuccess()
               : ::testing::AssertionFailure() << "\"" << aFailure << "\"";
}

// Adds one to a number in two steps, on two threads.
void AddTwice() {
    CmStd::atomic<int> nNumber{0};
    const auto add = [&nNumber] { nNumber.store(nNumber.load() + 1); };
    {
        CThreadOf other(add);
        add();
    }
    SCHEDULE_EXPECT(nNumber.load() == 2);
}

}  // namespace

TEST(Scheduler, FindsALostUpdate_WhenAPreemptionIsAllowed) {
    EXPECT_EQ("", FirstFailure(&AddTwice, WithPreemptions(0)));
    EXPECT_TRUE(Says(FirstFailure(&AddTwice, WithPreemptions(1)), "nNumber.load() == 2"));
}

TEST(Scheduler, FindsADeadlockOfTwoLocks) {
    const auto scenario = [] {
        CCmMutexThread first;
        CCmMutexThread second;
        CThreadOf other([&] {
            first.Lock();
            second.Lock();
            second.UnLock();
            first.UnLock();
        });
        second.Lock();
        first.Lock();
        first.UnLock();
        second.UnLock();
        other.Join();
    };
    EXPECT_EQ("", FirstFailure(scenario, WithPreemptions(0)));
    EXPECT_TRUE(Says(FirstFailure(scenario, WithPreemptions(1)), "wait for each other"));
}

TEST(Scheduler, FindsALostWakeUp) {
    const auto scenario = [] {
        CCmMutexThread mutex;
        CCmConditionVariableThread condition(mutex);
        CmStd::atomic<bool> bReady{false};
        CThreadOf sleeper([&] {
            if (!bReady.load()) {  // without the lock: it may change before the wait
                mutex.Lock();
                condition.Wait(nullptr);
                mutex.UnLock();
            }
        });
        bReady.store(true);
        condition.Signal();
    };
    EXPECT_EQ("", FirstFailure(scenario, WithPreemptions(1)));
    EXPECT_TRUE(Says(FirstFailure(scenario, WithPreemptions(2)), "wait for each other"));
}

TEST(Scheduler, FindsALostWakeUp_WhenATimeHidesIt) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         CCmMutexThread mutex;
                         CCmConditionVariableThread condition(mutex);
                         CmStd::atomic<bool> bReady{false};
                         WhenAllSleep([] { Fail("it sleeps"); });
                         CThreadOf sleeper([&] {
                             if (!bReady.load()) {
                                 CCmTimeValue tvTimeout(1);
                                 mutex.Lock();
                                 condition.Wait(&tvTimeout);
                                 mutex.UnLock();
                             }
                         });
                         bReady.store(true);
                         condition.Signal();
                     }),
                     "it sleeps"));
}

#if KELTO_SANITIZED == 0  // a sanitizer ends the process
TEST(Scheduler, FindsWhatIsFreedTooEarly) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         auto* const pNumber = new CmStd::atomic<int>(0);
                         CThreadOf other([pNumber] { pNumber->store(1); });
                         other.Cancel();
                         delete pNumber;
                     }),
                     "has been freed"));
}

TEST(Scheduler, FindsAWriteToFreedMemory) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         auto* volatile pNumber = new int(0);
                         volatile int* const pStays = pNumber;
                         delete pNumber;
                         *pStays = 1;
                     }),
                     "freed memory is written to"));
}
#endif

TEST(Scheduler, FindsWhatIsNeverFreed) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         CmStd::atomic<int*> pNumber{nullptr};
                         const auto make = [&pNumber] {
                             if (pNumber.load() == nullptr) {
                                 pNumber.store(new int(0));
                             }
                         };
                         {
                             CThreadOf other(make);
                             make();
                         }
                         delete pNumber.load();
                     }),
                     "never freed"));
}

TEST(Scheduler, FindsALockThatIsHeldAtTheEnd) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         static CCmMutexThread s_Mutex;
                         s_Mutex.TryLock();
                     }),
                     "held at the end"));
}

TEST(Scheduler, FindsALockThatAnotherThreadReleases) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         CCmMutexThread mutex;
                         mutex.Lock();
                         CThreadOf other([&mutex] { mutex.UnLock(); });
                     }),
                     "does not hold it"));
}

TEST(Scheduler, FindsAThreadThatNobodyJoins) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         pthread_t id = pthread_t();
                         g_cmSystem.pthread_create(
                             &id, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
                     }),
                     "never joined"));
}

TEST(Scheduler, FindsAThreadThatGoesOnForEver) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         CmStd::atomic<bool> bStop{false};
                         while (!bStop.load()) {
                         }
                     }),
                     "for ever"));
}

TEST(Scheduler, FindsACancellationPointInADestructor) {
    struct CNaps {
        ~CNaps() {
            const timespec tsNap = {0, 1000};
            g_cmSystem.nanosleep(&tsNap, nullptr);
        }
    };
    EXPECT_TRUE(Says(FirstFailure([] {
                         CThreadOf other([] { const CNaps naps; });
                         other.Cancel();
                     }),
                     "std::terminate"));
}

TEST(Scheduler, FindsACrash) {
    EXPECT_TRUE(Says(FirstFailure([] { raise(SIGSEGV); }), "signal 11"));
}

TEST(Scheduler, FindsAnEventThatEndsTwiceOrNever) {
    EXPECT_TRUE(Says(FirstFailure([] {
                         auto* const pEvent = new CWatchedEvent(0);
                         CThreadOf other([pEvent] { pEvent->OnEventFire(); });
                         other.Join();
                         pEvent->OnDestorySelf();
                     }),
                     "ended on another thread"));
    EXPECT_TRUE(Says(FirstFailure([] { delete new CWatchedEvent(0); }), "ended 0 times"));
}

// What threads see of each other is the same with fewer schedules.
TEST(Scheduler, LeavesOutNothing_WhenItReduces) {
    for (const int nPreemptions : {1, 2}) {
        std::set<int> outcomes[2];
        for (const bool bReduces : {false, true}) {
            CSettings settings = WithPreemptions(nPreemptions);
            settings.m_bReduces = bReduces;
            settings.m_ulSchedules = 200000;
            // Which of all possible outcomes there are: each is looked for.
            for (int i = 0; i < 64; ++i) {
                const std::string strFailure = FirstFailure(
                    [i] {
                        CmStd::atomic<int> nLeft{0};
                        CmStd::atomic<int> nRight{0};
                        CmStd::atomic<int> nOwn{0};
                        int nSeen = 0;
                        {
                            CThreadOf other([&] {
                                nOwn.store(1);
                                nLeft.store(1);
                                nOwn.store(2);
                                nRight.store(1);
                                nLeft.store(2);
                                nRight.store(2);
                            });
                            nSeen = nLeft.load();
                            nSeen = nSeen * 4 + nRight.load();
                            nSeen = nSeen * 4 + nLeft.load();
                        }
                        SCHEDULE_EXPECT(nSeen != i);
                    },
                    settings);
                if (!strFailure.empty()) {
                    outcomes[bReduces ? 1 : 0].insert(i);
                }
            }
        }
        EXPECT_EQ(outcomes[0], outcomes[1]) << nPreemptions;
        EXPECT_EQ(nPreemptions == 1 ? 4u : 10u, outcomes[0].size());
    }
}

}  // namespace kelto_test
