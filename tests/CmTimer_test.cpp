#include "CmTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "CmWorker.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndCounter;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::TaskThread;

TEST(CCmTimer, FiresEveryPeriod_UntilItEnds) {
    CCmWorker worker;
    std::atomic<int> fired{0};
    std::atomic<int> ends{0};
    {
        CCmTimer timer(worker, 1ms, [&fired, counter = EndCounter(ends)] { ++fired; });
        EXPECT_EQ(CM_OK, timer.Result());
        EXPECT_TRUE(timer.IsPending());
        EXPECT_TRUE(Eventually([&] { return fired >= 3; }));
    }
    const int nFired = fired;
    EXPECT_EQ(1, ends);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(nFired, fired);
}

TEST(CCmTimer, FiresAsOftenAsAsked_WhenTheCountIsLimited) {
    CCmWorker worker;
    TaskThread other;
    std::atomic<int> fired{0};
    std::atomic<int> ends{0};
    CCmTimer timer(
        worker, 1ms, [&fired, counter = EndCounter(ends)] { ++fired; }, 3);
    CCmTimer otherTimer(
        *other, 1ms, [&fired, counter = EndCounter(ends)] { ++fired; }, 3);
    EXPECT_TRUE(Eventually([&] { return ends == 2; }));
    EXPECT_TRUE(Eventually([&] { return !timer.IsPending() && !otherTimer.IsPending(); }));
    EXPECT_EQ(6, fired);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
}

TEST(CCmTimer, WaitsForTheCallableAlone_WhenCancelledWhileItRuns) {
    Gate gate;
    Gate begun;
    Gate second;
    Gate running;
    CCmWorker worker;
    std::atomic<bool> bReturned{false};
    std::optional<CCmTimer> timer(std::in_place, worker, 1ms, [&] {
        begun.Open();
        gate.Wait();
        std::this_thread::sleep_for(5ms);
        bReturned = true;
    });
    ASSERT_TRUE(begun.Wait());
    std::thread opener([&gate] {
        std::this_thread::sleep_for(5ms);
        gate.Open();
    });
    timer.reset();
    EXPECT_TRUE(bReturned);
    opener.join();

    // Another event that runs keeps nobody waiting.
    CmPost(worker, [&] {
        running.Open();
        second.Wait();
    });
    ASSERT_TRUE(running.Wait());
    {
        CCmTimer other(
            worker, 0ms, [] {}, 1);
    }
    second.Open();
}

TEST(CCmTimer, DestroysTheCallableAfterItsReturn_WhenEndedInsideIt) {
    CCmWorker worker;
    Gate done;
    std::atomic<int> fired{0};
    std::atomic<int> ends{0};
    std::unique_ptr<CCmTimer> pTimer;
    CmCall(worker, [&] {
        pTimer = std::make_unique<CCmTimer>(worker, 1ms, [&, counter = EndCounter(ends)] {
            ++fired;
            pTimer.reset();
            EXPECT_EQ(0, ends);  // it is still running
            done.Open();
        });
    });
    ASSERT_TRUE(done.Wait());
    EXPECT_TRUE(Eventually([&] { return ends == 1; }));
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(1, fired);
}

TEST(CCmTimer, CancelsAtOnce_WhenOnTheWorkersThread) {
    CCmWorker worker;
    std::atomic<int> fired{0};
    CmCall(worker, [&] {
        CCmTimer timer(
            worker, 0ms, [&fired] { ++fired; }, 1);
        std::this_thread::sleep_for(2ms);
    });
    worker.Drain();
    EXPECT_EQ(0, fired);
}

TEST(CCmTimer, EndsNormally_WhenItOutlivesItsWorker) {
    std::optional<CCmWorker> worker;
    worker.emplace();
    std::atomic<int> ends{0};
    CCmTimer timer(*worker, 100s, [counter = EndCounter(ends)] {});
    worker.reset();
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(timer.IsPending());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
}

TEST(CCmTimer, EndsWhatItHad_WhenAnotherIsMovedToIt) {
    CCmWorker worker;
    std::atomic<int> firstEnds{0};
    std::atomic<int> secondEnds{0};
    CCmTimer timer(worker, 100s, [counter = EndCounter(firstEnds)] {});
    CCmTimer other = CCmTimer(worker, 100s, [counter = EndCounter(secondEnds)] {});
    timer = std::move(other);
    EXPECT_EQ(1, firstEnds);
    EXPECT_EQ(0, secondEnds);
    EXPECT_TRUE(timer.IsPending());
    timer = CCmTimer();
    EXPECT_EQ(1, secondEnds);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Result());
}

TEST(CCmTimer, SaysWhy_WhenItWasRefused) {
    CCmWorker worker;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmTimer(worker, 0ms, [] {}).Result());
    worker.Stop();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CCmTimer(worker, 1ms, [] {}).Result());
}

TEST(CCmTimer, FiresAndEnds_WhenManyDoOnSeveralThreads) {
    const long lLive = LiveAllocationsBefore();
    {
        CCmWorker worker;
        TaskThread other;
        std::atomic<bool> bAlive[4][2] = {};
        std::atomic<int> late{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                for (int n = 0; n < 100; ++n) {
                    bAlive[i][0] = bAlive[i][1] = true;
                    const auto check = [&, i](int aWhich) {
                        return [&, i, aWhich] { late += bAlive[i][aWhich] ? 0 : 1; };
                    };
                    {
                        CCmTimer timer(worker, 20us, check(0));
                        CCmTimer otherTimer(*other, 20us, check(1));
                        std::this_thread::sleep_for(std::chrono::microseconds(n * 3));
                    }
                    bAlive[i][0] = bAlive[i][1] = false;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(0, late);
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

class DueSink : public CCmTimerWrapperIDSink {
  public:
    explicit DueSink(CCmDueTimerWrapperID& aTimer) : m_timer(aTimer) {}
    void OnTimer(CCmTimerWrapperID* aId) override {
        EXPECT_EQ(&m_timer, aId);
        m_due.push_back(m_timer.GetDueTime());
        m_missed.push_back(m_timer.GetMissed());
        EXPECT_EQ(CCmTimeValue::GetTimeOfDay(), m_timer.GetCurrentTime());
    }
    CCmDueTimerWrapperID& m_timer;
    std::vector<CCmTimeValue> m_due;
    std::vector<unsigned long> m_missed;
};

TEST(CCmDueTimerWrapperID, TellsItsSinkWhatWasDueWhen) {
    kelto_test::ScopedClock clock(1000);
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN));
    pThread->OnThreadInit();
    {
        CCmDueTimerWrapperID timer;
        DueSink sink(timer);
        EXPECT_EQ(CM_OK, timer.Schedule(&sink, CCmTimeValue(0, 100000)));
        clock.Set(1000, 100000);
        pThread->DoHeartBeat();
        clock.Set(1000, 450000);
        pThread->DoHeartBeat();
        clock.Set(1000, 510000);
        pThread->DoHeartBeat();
        EXPECT_EQ((std::vector<CCmTimeValue>{CCmTimeValue(1000, 100000), CCmTimeValue(1000, 400000),
                                             CCmTimeValue(1000, 500000)}),
                  sink.m_due);
        EXPECT_EQ((std::vector<unsigned long>{0, 2, 0}), sink.m_missed);
        EXPECT_EQ(CM_ERROR_FOUND, timer.Schedule(&sink, CCmTimeValue(0, 0), 1));
        pThread->DoHeartBeat();
        EXPECT_EQ(CCmTimeValue(1000, 510000), sink.m_due.back());
    }
    pThread->Destory(CM_OK);
}

}  // namespace
}  // namespace UTIL_NS
