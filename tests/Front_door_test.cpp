// The objects of the front door together: they are destroyed in every order while in use.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CmTimerQueueCalendar.h"
#include "kelto_util.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndCounter;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::ScopedTraceSink;
using kelto_test::TaskThread;

// What a callable of an object that was destroyed would find.
struct Alive {
    std::atomic<bool> m_bTimer{true};
    std::atomic<bool> m_bGuard{true};
    std::atomic<int> m_late{0};
};

enum EPart { WORKER, TIMER, GUARD, POSTER, DELAYED, PARTS };

template <class Worker>
class EveryOrder : public testing::Test {
  protected:
    // aStops: how the worker is stopped before it ends.
    void EndInOrder(const std::vector<int>& aOrder, bool aOnItsThread) {
        std::optional<Worker> worker(std::in_place);
        ACmThread& thread = Thread(*worker);
        Alive alive;
        std::atomic<int> ends{0};
        std::optional<CCmTimer> timer(
            std::in_place, thread, 50us,
            [&alive, counter = EndCounter(ends)] { alive.m_late += alive.m_bTimer ? 0 : 1; });
        std::optional<CCmLifeGuard> guard(std::in_place);
        std::optional<CCmBoundedPoster> poster(std::in_place, *thread.GetEventQueue(), 4, 1,
                                               guard->Wrap([] {}));
        std::optional<CCmTimerHandle> delayed(
            CmPostDelayed(thread, 100us, [counter = EndCounter(ends)] {}));
        for (int i = 0; i < 10; ++i) {
            poster->TryPost(guard->Wrap([&alive] { alive.m_late += alive.m_bGuard ? 0 : 1; }));
        }
        const auto end = [&](int aPart) {
            switch (aPart) {
                case WORKER:
                    End(worker);
                    break;
                case TIMER:
                    timer.reset();
                    alive.m_bTimer = false;
                    break;
                case GUARD:
                    guard.reset();
                    alive.m_bGuard = false;
                    break;
                case POSTER:
                    poster.reset();
                    break;
                default:
                    delayed->CancelAndWait();
                    delayed.reset();
            }
        };
        for (const int nPart : aOrder) {
            if (aOnItsThread && worker && nPart != WORKER) {
                EXPECT_TRUE(CmCall(thread, [&end, nPart] { end(nPart); }));
            } else {
                end(nPart);
            }
        }
        EXPECT_EQ(2, ends);
        EXPECT_EQ(0, alive.m_late);
    }

    static ACmThread& Thread(CCmWorker& aWorker) { return *aWorker.GetThread(); }
    static ACmThread& Thread(TaskThread& aWorker) { return *aWorker; }
    // Every other time at once.
    void End(std::optional<CCmWorker>& aWorker) {
        if (++m_nEnded % 2 == 0) {
            EXPECT_EQ(CM_OK, aWorker->StopNow());
        }
        aWorker.reset();
    }
    void End(std::optional<TaskThread>& aWorker) { aWorker.reset(); }

    int m_nEnded = 0;
};
typedef testing::Types<CCmWorker, TaskThread> Workers;
TYPED_TEST_SUITE(EveryOrder, Workers, );

TYPED_TEST(EveryOrder, LeavesNothingAndRunsNothingLate_WhateverTheOrder) {
    const long lLive = LiveAllocationsBefore();
    std::vector<int> order = {WORKER, TIMER, GUARD, POSTER, DELAYED};
    ASSERT_EQ(static_cast<size_t>(PARTS), order.size());
    int nOrders = 0;
    do {
        this->EndInOrder(order, nOrders % 3 == 0);
        ++nOrders;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(120, nOrders);
    order.clear();
    order.shrink_to_fit();
    EXPECT_EQ(lLive, LiveAllocations());
}

// ---- Threads of other kinds.

TEST(FrontDoor, HeartBeatRunsWhatWasPostedForLater) {
    auto* pThread = new CCmThreadHeartBeat;
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN));
    pThread->OnThreadInit();
    std::atomic<int> fired{0};
    std::atomic<int> ends{0};
    {
        CCmTimer timer(*pThread, 1ms, [&fired, counter = EndCounter(ends)] { ++fired; });
        CmPostDelayed(*pThread, 1ms, [&fired, counter = EndCounter(ends)] { fired += 100; });
        EXPECT_TRUE(Eventually([&] {
            pThread->DoHeartBeat();
            return fired >= 103;
        }));
    }
    EXPECT_EQ(2, ends);
    // What is left when the queue has ended is kept until the thread ends; here it is cancelled.
    CCmTimerHandle left = CmPostDelayed(*pThread, 1h, [counter = EndCounter(ends)] {});
    pThread->DoHeartBeat();
    pThread->Destory(CM_OK);
    EXPECT_TRUE(left.IsPending());
    EXPECT_EQ(CM_OK, left.Cancel());
    EXPECT_EQ(3, ends);
}

// A thread with a timer queue that takes coarse intervals only.
class CoarseThread : public CCmThreadTaskWithEventQueueOnly {
  public:
    ICmTimerQueue* GetTimerQueue() override { return &m_refusing; }

  private:
    class Refusing : public ICmTimerQueue {
      public:
        CmResult ScheduleTimer(ICmTimerHandler*, void*, const CCmTimeValue&,
                               unsigned int) override {
            return CM_ERROR_INVALID_ARG;
        }
        CmResult CancelTimer(ICmTimerHandler*) override { return CM_ERROR_NOT_FOUND; }
    };
    Refusing m_refusing;
};

TEST(FrontDoor, SaysSo_WhenTheTimerQueueRefuses) {
    ScopedTraceSink sink;
    std::atomic<int> ends{0};
    CCmThreadPtr pThread(new CoarseThread);
    ASSERT_EQ(CM_OK, pThread->Create(1));
    const CCmTimerHandle handle = CmPostDelayed(*pThread, 1ms, [counter = EndCounter(ends)] {});
    EXPECT_EQ(CM_OK, handle.Result());  // it was posted
    EXPECT_TRUE(CmCall(*pThread, [] {}));
    EXPECT_EQ(1, ends);
    EXPECT_FALSE(handle.IsPending());
    EXPECT_EQ(1U, sink.count("CmPostDelayed, refused on the worker. rv=1107312648"));
}

TEST(FrontDoor, SaysSo_WhenMemoryRunsOutOnAnotherWorker) {
    ScopedTraceSink sink;
    int nRefused = 0;
    for (unsigned long ulNth = 1; ulNth <= 4; ++ulNth) {
        TaskThread fresh;
        std::atomic<int> otherEnds{0};
        std::optional<kelto_test::ScopedAllocationFault> fault;
        // On the worker's thread: the fault counts the allocations of that thread.
        CmCall(*fresh, [&] {
            CmPostDelayed(*fresh, 1h, [counter = EndCounter(otherEnds)] {});
            fault.emplace(ulNth);
        });
        CmCall(*fresh, [&] {
            nRefused += otherEnds;
            fault.reset();
        });
    }
    EXPECT_LE(3, nRefused);
    EXPECT_EQ(static_cast<size_t>(nRefused),
              sink.count("CmPostDelayed, refused on the worker. rv="));
}

}  // namespace
}  // namespace UTIL_NS
