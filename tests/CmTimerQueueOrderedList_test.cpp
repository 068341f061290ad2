#include "CmTimerQueueOrderedList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "support/Clock.h"
#include "support/Faults.h"
#include "support/RandomBytes.h"
#include "support/TimerModels.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::CountingHandler;
using kelto_test::Firings;
using kelto_test::Ids;
using kelto_test::Ms;
using kelto_test::RecordingHandler;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedClock;
using kelto_test::ScopedTraceSink;

constexpr long START = 1000000000;  // seconds

class CmTimerQueueOrderedList : public testing::Test {
  protected:
    CmTimerQueueOrderedList() {
        for (int nId = 0; nId < 5; ++nId) {
            m_handlers.push_back(std::make_unique<RecordingHandler>(nId, m_log));
        }
    }
    CmResult Schedule(int aId, long aMs, unsigned int aCount = 1) {
        return m_queue.ScheduleTimer(m_handlers[aId].get(), nullptr, Ms(aMs), aCount);
    }
    std::vector<int> FiredAfterMs(long aMs) {
        m_log.clear();
        m_clock.AdvanceMs(aMs);
        m_queue.CheckExpire();
        return Ids(m_log);
    }

    ScopedClock m_clock{START};
    Firings m_log;
    std::vector<std::unique_ptr<RecordingHandler>> m_handlers;
    CCmTimerQueueOrderedList m_queue{nullptr};
};

TEST_F(CmTimerQueueOrderedList, FiresInOrderOfExpiry_WhateverTheOrderOfScheduling) {
    Schedule(0, 30);
    Schedule(1, 10);
    Schedule(2, 40);
    Schedule(3, 20);
    EXPECT_EQ((std::vector<int>{1, 3, 0, 2}), FiredAfterMs(100));
}

TEST_F(CmTimerQueueOrderedList, FiresNewestFirst_WhenExpiryIsEqual) {
    Schedule(0, 10);
    Schedule(1, 10);
    Schedule(2, 10);
    EXPECT_EQ((std::vector<int>{2, 1, 0}), FiredAfterMs(10));
}

TEST_F(CmTimerQueueOrderedList, FiresARearmedTimerFirst_WhenExpiryIsEqual) {
    Schedule(0, 10, 0);
    Schedule(1, 20);
    // Re-armed for 20 ms as well, after timer 1 was scheduled.
    EXPECT_EQ(std::vector<int>{0}, FiredAfterMs(10));
    EXPECT_EQ((std::vector<int>{0, 1}), FiredAfterMs(10));
}

TEST_F(CmTimerQueueOrderedList, SwapsTheOrderOnEveryFiringOfEqualPeriods) {
    Schedule(0, 10, 0);
    Schedule(1, 10, 0);
    EXPECT_EQ((std::vector<int>{1, 0}), FiredAfterMs(10));
    EXPECT_EQ((std::vector<int>{0, 1}), FiredAfterMs(10));
}

TEST_F(CmTimerQueueOrderedList, MovesATimerForward_WhenItIsRescheduledEarlier) {
    Schedule(0, 10);
    Schedule(1, 20);
    Schedule(2, 30);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(2, 5));
    EXPECT_EQ((std::vector<int>{2, 0, 1}), FiredAfterMs(100));
}

TEST_F(CmTimerQueueOrderedList, MovesATimerBack_WhenItIsRescheduledLater) {
    Schedule(0, 10);
    Schedule(1, 20);
    Schedule(2, 30);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 25));
    EXPECT_EQ((std::vector<int>{1, 0, 2}), FiredAfterMs(100));
}

TEST_F(CmTimerQueueOrderedList, MovesATimerToTheEnd_WhenItIsRescheduledLatest) {
    Schedule(0, 10);
    Schedule(1, 20);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 50));
    EXPECT_EQ((std::vector<int>{1, 0}), FiredAfterMs(100));
}

TEST_F(CmTimerQueueOrderedList, FiresARescheduledTimerFirst_WhenExpiryIsEqual) {
    Schedule(0, 10);
    Schedule(1, 10);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 10));
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 10));
    EXPECT_EQ((std::vector<int>{0, 1}), FiredAfterMs(10));
}

TEST_F(CmTimerQueueOrderedList, HasOneTimerOfAHandler_WhateverTheNumberOfSchedules) {
    Schedule(0, 10);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 10));
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 40));
    EXPECT_EQ(CM_OK, m_queue.CancelTimer(m_handlers[0].get()));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_queue.CancelTimer(m_handlers[0].get()));
}

TEST_F(CmTimerQueueOrderedList, KeepsTheOthers_WhenOneIsCancelled) {
    Schedule(0, 10);
    Schedule(1, 20);
    Schedule(2, 30);
    EXPECT_EQ(CM_OK, m_queue.CancelTimer(m_handlers[1].get()));
    EXPECT_EQ((std::vector<int>{0, 2}), FiredAfterMs(100));
}

TEST_F(CmTimerQueueOrderedList, DropsTimersSilently_WhenItEnds) {
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueOrderedList queue(nullptr);
        queue.ScheduleTimer(m_handlers[0].get(), nullptr, Ms(-1), 1);
        queue.ScheduleTimer(m_handlers[1].get(), nullptr, Ms(10), 0);
        queue.CancelTimer(m_handlers[1].get());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    EXPECT_TRUE(m_log.empty());
}

// Reaches the primitives.
class OpenList : public CCmTimerQueueOrderedList {
  public:
    OpenList() : CCmTimerQueueOrderedList(nullptr) {}
    using CCmTimerQueueBase::CNode;
    using CCmTimerQueueOrderedList::EraseNode_l;
    using CCmTimerQueueOrderedList::GetEarliestTime_l;
    using CCmTimerQueueOrderedList::PopFirstNode_l;
    using CCmTimerQueueOrderedList::PushNode_l;
    using CCmTimerQueueOrderedList::RePushNode_l;

    static CNode Node(ICmTimerHandler* aEh, long aExpired) {
        CNode node;
        node.m_pEh = aEh;
        node.m_tvExpired = CCmTimeValue(aExpired);
        return node;
    }
};

TEST_F(CmTimerQueueOrderedList, WritesAnAssertionLine_WhenAnEmptyListIsPopped) {
    ScopedTraceSink sink;
    OpenList list;
    OpenList::CNode node;
    EXPECT_EQ(-1, list.PopFirstNode_l(node));
    ASSERT_EQ(1U, sink.lines().size());
    EXPECT_EQ(0U, sink.lines()[0].level);
    EXPECT_EQ(
        "UTIL ERROR: source/util/CmTimerQueueOrderedList.cpp:35 Assert failed: !m_Nodes.empty()",
        sink.lines()[0].text);
    EXPECT_EQ(nullptr, node.m_pEh);
}

TEST_F(CmTimerQueueOrderedList, PrimitivesSayWhatTheyDid_WhenCalledInTurn) {
    OpenList list;
    CCmTimeValue tvEarliest(7);
    EXPECT_EQ(-1, list.GetEarliestTime_l(tvEarliest));
    EXPECT_EQ(CCmTimeValue(7), tvEarliest);
    EXPECT_EQ(0, list.PushNode_l(OpenList::Node(m_handlers[0].get(), 20)));
    EXPECT_EQ(1, list.PushNode_l(OpenList::Node(m_handlers[0].get(), 30)));
    EXPECT_EQ(0, list.RePushNode_l(OpenList::Node(m_handlers[1].get(), 10)));
    EXPECT_EQ(0, list.GetEarliestTime_l(tvEarliest));
    EXPECT_EQ(CCmTimeValue(10), tvEarliest);
    OpenList::CNode node;
    EXPECT_EQ(0, list.PopFirstNode_l(node));
    EXPECT_EQ(m_handlers[1].get(), node.m_pEh);
    EXPECT_EQ(0, list.EraseNode_l(m_handlers[0].get()));
    EXPECT_EQ(1, list.EraseNode_l(m_handlers[0].get()));
}

TEST_F(CmTimerQueueOrderedList, TakesANodeByRePush_WhenTheListIsNew) {
    OpenList list;
    EXPECT_EQ(0, list.RePushNode_l(OpenList::Node(m_handlers[0].get(), 10)));
    EXPECT_EQ(0, list.EraseNode_l(m_handlers[0].get()));
}

TEST_F(CmTimerQueueOrderedList, ChangesNothing_WhenAScheduleRunsOutOfMemory) {
    // Wherever it runs out, and however many timers there are: some numbers make a table grow.
    for (size_t nOthers = 0; nOthers <= 20; ++nOthers) {
        bool bHit = true;
        for (unsigned long ulNth = 1; bHit; ++ulNth) {
            SCOPED_TRACE(std::to_string(nOthers) + " others, allocation " + std::to_string(ulNth));
            std::vector<CountingHandler> others(nOthers);
            CountingHandler handler;
            CCmTimerQueueOrderedList queue(nullptr);
            for (CountingHandler& other : others) {
                queue.ScheduleTimer(&other, nullptr, Ms(10), 1);
            }
            CmResult rv;
            {
                ScopedAllocationFault fault(ulNth, kelto_test::Failing::FROM_THERE_ON);
                rv = queue.ScheduleTimer(&handler, nullptr, Ms(10), 1);
                bHit = fault.hit();
            }
            ASSERT_EQ(bHit ? CM_ERROR_OUT_OF_MEMORY : CM_OK, rv);
            ASSERT_EQ(bHit ? CM_ERROR_NOT_FOUND : CM_OK, queue.CancelTimer(&handler));
            ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, Ms(10), 1));
            m_clock.AdvanceMs(10);
            EXPECT_EQ(nOthers + 1, queue.CheckExpire());
            EXPECT_EQ(1U, handler.count());
        }
    }
}

// The nodes of a long list, which places are looked up in, in the order in which they are popped.
// Times that no number of microseconds counts are among them.
TEST_F(CmTimerQueueOrderedList, PopsALongListInOrder_WhateverTheTimes) {
    const long lSeconds[] = {0, 1, -1, 1000000000, INT64_MAX, INT64_MAX - 1, INT64_MIN + 1};
    constexpr int COUNT = 2000;
    std::vector<CountingHandler> handlers(COUNT);
    std::minstd_rand random(1);
    OpenList list;
    std::vector<OpenList::CNode> expected;
    for (CountingHandler& handler : handlers) {
        OpenList::CNode node = OpenList::Node(&handler, 0);
        const long lSec = lSeconds[random() % 7] / static_cast<long>(1 + random() % 3);
        node.m_tvExpired = CCmTimeValue(lSec, static_cast<long>(random() % 300));
        ASSERT_EQ(0, list.PushNode_l(node));
        expected.insert(std::find_if(expected.begin(), expected.end(),
                                     [&](const OpenList::CNode& aOther) {
                                         return aOther.m_tvExpired >= node.m_tvExpired;
                                     }),
                        node);
    }
    for (const OpenList::CNode& node : expected) {
        OpenList::CNode popped;
        ASSERT_EQ(0, list.PopFirstNode_l(popped));
        ASSERT_EQ(node.m_pEh, popped.m_pEh);
        ASSERT_EQ(node.m_tvExpired, popped.m_tvExpired);
    }
    CCmTimeValue tvEarliest;
    EXPECT_EQ(-1, list.GetEarliestTime_l(tvEarliest));
}

// The nodes of a list. The language lets an explicit instantiation name a private member.
std::list<OpenList::CNode>& NodesOf(CCmTimerQueueOrderedList& aList);
template <auto NODES>
struct NodesAccess {
    friend std::list<OpenList::CNode>& NodesOf(CCmTimerQueueOrderedList& aList) {
        return aList.*NODES;
    }
};
template struct NodesAccess<&CCmTimerQueueOrderedList::m_Nodes>;

// While it lives, a search that comes by a node with one of these numbers ends there: a node before
// the place that is looked for is due never, one after it was due long ago. The first and the last
// node stay as they are.
class ScopedTraps {
  public:
    ScopedTraps(OpenList& aList, size_t aPlace, size_t aFrom, size_t aTo) {
        size_t nNode = 0;
        for (OpenList::CNode& node : NodesOf(aList)) {
            if (nNode >= std::max<size_t>(aFrom, 1) && nNode < aTo &&
                nNode + 1 < NodesOf(aList).size()) {
                m_saved.emplace_back(&node, node.m_tvExpired);
                node.m_tvExpired = CCmTimeValue(nNode < aPlace ? INT64_MAX - 1 : INT64_MIN + 1);
            }
            ++nNode;
        }
    }
    ~ScopedTraps() {
        for (const auto& saved : m_saved) {
            saved.first->m_tvExpired = saved.second;
        }
    }
    ScopedTraps(const ScopedTraps&) = delete;
    ScopedTraps& operator=(const ScopedTraps&) = delete;

    size_t count() const { return m_saved.size(); }

  private:
    std::vector<std::pair<OpenList::CNode*, CCmTimeValue>> m_saved;
};

// The number of the node that comes first, from 0 on, with this handler.
size_t NumberOf(OpenList& aList, const ICmTimerHandler* aEh) {
    const std::list<OpenList::CNode>& nodes = NodesOf(aList);
    const auto itNode = std::find_if(nodes.begin(), nodes.end(), [=](const OpenList::CNode& aNode) {
        return aNode.m_pEh == aEh;
    });
    return static_cast<size_t>(std::distance(nodes.begin(), itNode));
}

TEST_F(CmTimerQueueOrderedList, LooksAtNoNodeFarFromThePlace_WhenTheListIsShort) {
    constexpr size_t COUNT = 120;
    constexpr size_t NEAR = 6;
    std::vector<CountingHandler> handlers(COUNT);
    OpenList list;
    for (size_t i = 0; i < COUNT; ++i) {
        ASSERT_EQ(0, list.PushNode_l(OpenList::Node(&handlers[i], 10 * static_cast<long>(i))));
    }
    for (const size_t nPlace : {NEAR - 1, COUNT - NEAR + 1}) {
        ScopedTraps traps(list, nPlace, NEAR, COUNT - NEAR);
        ASSERT_EQ(COUNT - 2 * NEAR, traps.count());
        list.PushNode_l(OpenList::Node(m_handlers[0].get(), 10 * static_cast<long>(nPlace) - 5));
        EXPECT_EQ(nPlace, NumberOf(list, m_handlers[0].get()));
        list.EraseNode_l(m_handlers[0].get());
    }
}

// A node each millisecond for four seconds, and some that are due never. The first 128 came when
// the list was short, and have no mark.
TEST_F(CmTimerQueueOrderedList, LooksAtNoNodeFarFromThePlace_WhenTheListIsLong) {
    constexpr size_t COUNT = 4000;
    constexpr size_t NEVER = 20;
    constexpr size_t NEAR = 200;
    std::vector<CountingHandler> handlers(COUNT);
    std::vector<CountingHandler> handlersNever(NEVER);
    OpenList list;
    for (size_t i = 0; i < COUNT; ++i) {
        OpenList::CNode node = OpenList::Node(&handlers[i], START);
        node.m_tvExpired += CCmTimeValue(0, static_cast<long>(1000 * i));
        ASSERT_EQ(0, list.PushNode_l(node));
    }
    for (size_t i = 0; i < NEVER; ++i) {
        OpenList::CNode node = OpenList::Node(&handlersNever[i], 0);
        node.m_tvExpired = CCmTimeValue::s_tvMax;
        const ScopedTraps traps(list, COUNT, 0, COUNT - NEAR);
        list.PushNode_l(node);
        ASSERT_EQ(COUNT, NumberOf(list, &handlersNever[i]));
    }
    for (size_t nPlace = 1; nPlace < COUNT; nPlace += 37) {
        const ScopedTraps before(list, nPlace, 0, nPlace > NEAR ? nPlace - NEAR : 0);
        const ScopedTraps after(list, nPlace, nPlace + NEAR, COUNT + NEVER);
        OpenList::CNode node = OpenList::Node(m_handlers[0].get(), START);
        node.m_tvExpired += CCmTimeValue(0, static_cast<long>(1000 * nPlace - 500));
        list.PushNode_l(node);
        ASSERT_EQ(nPlace, NumberOf(list, m_handlers[0].get()));
        list.EraseNode_l(m_handlers[0].get());
    }
}

// The marks do not tell such times apart.
TEST_F(CmTimerQueueOrderedList, LooksAtNoNodeFarFromThePlace_WhenTimesAreOfADistantFuture) {
    constexpr size_t NEAR = 100;  // timers that are due soon
    constexpr size_t COUNT = 200;
    std::vector<CountingHandler> handlers(COUNT);
    for (size_t nPlace = NEAR + 1; nPlace < COUNT; ++nPlace) {
        OpenList list;
        const auto fnTime = [](size_t aNode) {
            return (aNode < NEAR ? 0 : INT64_MAX / 2) + 10 * static_cast<long>(aNode);
        };
        for (size_t i = 0; i < COUNT; ++i) {
            ASSERT_EQ(0, list.PushNode_l(OpenList::Node(&handlers[i], fnTime(i))));
        }
        const ScopedTraps traps(list, nPlace, 0, NEAR);
        list.PushNode_l(OpenList::Node(m_handlers[0].get(), fnTime(nPlace) - 5));
        ASSERT_EQ(nPlace, NumberOf(list, m_handlers[0].get()));
    }
}

// One mark in eight nodes, and at least sixteen marks in what is allocated for them at a time.
TEST_F(CmTimerQueueOrderedList, HoldsLittleMemoryBesideItsNodes_WhenAListIsLong) {
    constexpr long COUNT = 16384;
    std::vector<CountingHandler> handlers(COUNT);
    const long lLive = kelto_test::LiveAllocations();
    for (long i = 0; i < COUNT; ++i) {
        m_queue.ScheduleTimer(&handlers[static_cast<size_t>(i)], nullptr, Ms(i + 1), 1);
    }
    EXPECT_GE(COUNT + COUNT / 8 / 16, kelto_test::LiveAllocations() - lLive);
}

TEST_F(CmTimerQueueOrderedList, KeepsTheOrder_WhenALongListRunsOutOfMemory) {
    constexpr int COUNT = 400;
    bool bHit = true;
    for (unsigned long ulNth = 1; bHit; ++ulNth) {
        SCOPED_TRACE("allocation " + std::to_string(ulNth));
        std::vector<std::unique_ptr<RecordingHandler>> handlers;
        for (int nId = 0; nId < COUNT; ++nId) {
            handlers.push_back(std::make_unique<RecordingHandler>(nId, m_log));
        }
        m_log.clear();
        m_log.reserve(COUNT);
        CCmTimerQueueOrderedList queue(nullptr);
        int nRefused = 0;
        {
            ScopedAllocationFault fault(ulNth);
            for (int i = 0; i < COUNT; ++i) {
                // 7 and 400 have no common divisor: each number below 400 once, in disorder.
                const int nId = i * 7 % COUNT;
                CmResult rv = queue.ScheduleTimer(handlers[nId].get(), nullptr, Ms(nId + 1), 1);
                if (rv == CM_ERROR_OUT_OF_MEMORY) {
                    ++nRefused;
                    rv = queue.ScheduleTimer(handlers[nId].get(), nullptr, Ms(nId + 1), 1);
                }
                ASSERT_EQ(CM_OK, rv);
            }
            bHit = fault.hit();
        }
        ASSERT_LE(nRefused, 1);
        m_clock.AdvanceMs(COUNT);
        ASSERT_EQ(unsigned{COUNT}, queue.CheckExpire());
        for (int nId = 0; nId < COUNT; ++nId) {
            ASSERT_EQ(nId, Ids(m_log)[nId]);
        }
    }
}

TEST_F(CmTimerQueueOrderedList, NeedsNoMemory_WhenALongListIsInSteadyState) {
    std::vector<CountingHandler> handlers(1000);
    long lMs = 0;
    for (CountingHandler& handler : handlers) {
        m_queue.ScheduleTimer(&handler, nullptr, Ms(1000 + lMs++), 0);
    }
    const auto runTwentySeconds = [&] {
        for (int i = 0; i < 2000; ++i) {
            m_clock.AdvanceMs(10);
            m_queue.CheckExpire();
            Schedule(0, 500 + i % 1000);
            m_queue.CancelTimer(m_handlers[0].get());
        }
    };
    for (int i = 0; i < 5; ++i) {
        runTwentySeconds();  // what is kept of former timers finds its bound
    }
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (int i = 0; i < 5; ++i) {
        runTwentySeconds();
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
}

TEST_F(CmTimerQueueOrderedList, TellsNoObserver_WhenAScheduleRunsOutOfMemory) {
    class Observer : public ICmObserver {
      public:
        virtual ~Observer() = default;
        int OnObserve(const char* /*aTopic*/, void* /*aData*/) override { return ++m_nCalls; }
        int m_nCalls = 0;
    } observer;
    CCmTimerQueueOrderedList queue(&observer);
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY,
                  queue.ScheduleTimer(m_handlers[0].get(), nullptr, Ms(10), 1));
    }
    EXPECT_EQ(0, observer.m_nCalls);
    EXPECT_EQ(CM_OK, queue.ScheduleTimer(m_handlers[0].get(), nullptr, Ms(10), 1));
    EXPECT_EQ(1, observer.m_nCalls);
}

TEST_F(CmTimerQueueOrderedList, NeedsNoMemory_WhenATimerIsRescheduled) {
    Schedule(0, 10);
    Schedule(1, 20);
    ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(0, 30));
    EXPECT_EQ(CM_ERROR_FOUND, Schedule(1, 5));
    EXPECT_FALSE(fault.hit());
}

TEST_F(CmTimerQueueOrderedList, NeedsNoMemory_WhenInSteadyState) {
    std::vector<CountingHandler> handlers(50);
    for (CountingHandler& handler : handlers) {
        m_queue.ScheduleTimer(&handler, nullptr, Ms(10), 0);
    }
    Schedule(0, 1000000);
    m_queue.CancelTimer(m_handlers[0].get());
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (int i = 0; i < 100; ++i) {
        m_clock.AdvanceMs(10);
        ASSERT_EQ(50U, m_queue.CheckExpire());
        ASSERT_EQ(CM_OK, Schedule(0, 1000000));
        ASSERT_EQ(CM_OK, m_queue.CancelTimer(m_handlers[0].get()));
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
}

// Memory of its own that the queue has, in allocations, after each of the ways in which timers
// end and start.
TEST_F(CmTimerQueueOrderedList, HoldsNoMoreMemory_AfterManyTimers) {
    constexpr int TIMES = 10000;
    CountingHandler periodic;
    m_queue.ScheduleTimer(&periodic, nullptr, Ms(10), 0);
    Schedule(0, 5);
    Schedule(1, 1000000);
    m_clock.AdvanceMs(10);
    m_queue.CheckExpire();
    const long lHeld = kelto_test::LiveAllocations();
    for (int i = 0; i < TIMES; ++i) {
        ASSERT_EQ(CM_OK, Schedule(0, 5));
        ASSERT_EQ(CM_ERROR_FOUND, Schedule(0, 6));
        m_clock.AdvanceMs(10);
        ASSERT_EQ(2U, m_queue.CheckExpire());
        ASSERT_EQ(CM_OK, m_queue.CancelTimer(m_handlers[1].get()));
        ASSERT_EQ(CM_OK, Schedule(1, 1000000));
    }
    EXPECT_EQ(lHeld, kelto_test::LiveAllocations());
    EXPECT_EQ(TIMES + 1UL, periodic.count());
}

TEST_F(CmTimerQueueOrderedList, HoldsMemoryOfTheMostTimersAtATime_AfterManyTimers) {
    std::vector<CountingHandler> handlers(500);
    const auto scheduleAll = [&] {
        for (CountingHandler& handler : handlers) {
            m_queue.ScheduleTimer(&handler, nullptr, Ms(10), 1);
        }
    };
    scheduleAll();
    const long lHeld = kelto_test::LiveAllocations();
    for (int i = 0; i < 20; ++i) {
        m_clock.AdvanceMs(10);
        ASSERT_EQ(500U, m_queue.CheckExpire());
        scheduleAll();
    }
    EXPECT_EQ(lHeld, kelto_test::LiveAllocations());
}

TEST(CmTimerQueueOrderedListAlone, FreesAllThatItHeld_WhenItEnds) {
    CountingHandler handlers[3];
    const long lLive = kelto_test::LiveAllocations();
    {
        CCmTimerQueueOrderedList queue(nullptr);
        for (CountingHandler& handler : handlers) {
            queue.ScheduleTimer(&handler, nullptr, Ms(100000), 1);
        }
        queue.CancelTimer(&handlers[1]);
        EXPECT_LT(lLive, kelto_test::LiveAllocations());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmTimerQueueOrderedListModel, BehavesLikeTheModel_WhateverTheOperations) {
    kelto_test::ScopedTraceSink sink;  // refused schedules write lines
    for (unsigned int dwSeed = 1; dwSeed <= 3000; ++dwSeed) {
        const std::vector<uint8_t> bytes = kelto_test::RandomBytes(800, dwSeed);
        ASSERT_EQ("", kelto_test::RunOrderedListModel(bytes.data(), bytes.size())) << dwSeed;
    }
}

}  // namespace
}  // namespace UTIL_NS
