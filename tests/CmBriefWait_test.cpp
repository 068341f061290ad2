// When the library waits without sleeping, and for how long.
#include "CmBriefWait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CmEventQueueBase.h"
#include "support/Clock.h"
#include "support/EventQueues.h"
#include "support/Events.h"
#include "support/Eventually.h"
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
