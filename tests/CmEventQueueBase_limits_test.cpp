// What a host sees of what a queue keeps and of what it gives up.
#include <errno.h>
#include <gtest/gtest.h>

#include <list>
#include <vector>

#include "CmEventQueueBase.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::LoggedEvent;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

// One pass of a consumer: posts aCount events, takes and runs them. Returns how many allocations
// the queue made.
unsigned long RunPass(CCmEventQueueUsingConditionVariable& aQueue, int aCount) {
    std::vector<ICmEvent*> posted;
    for (int i = 0; i < aCount; ++i) {
        posted.push_back(new EndingEvent([] {}));
    }
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (ICmEvent* pEvent : posted) {
        aQueue.PostEvent(pEvent, NORMAL);
    }
    std::list<ICmEvent*> events;
    aQueue.PopOrWaitPendingEvents(events, nullptr);
    aQueue.ProcessAndRecycleEvents(events);
    return AllocationsOfThisThread() - ulBefore;
}

TEST(CmEventQueueUsingConditionVariable, AllocatesNothing_WhenPassesAreAlike) {
    for (int nCount : {1, 100, 5000}) {
        CCmEventQueueUsingConditionVariable queue;
        RunPass(queue, nCount);
        RunPass(queue, nCount);  // takes what the first has left
        EXPECT_EQ(0u, RunPass(queue, nCount)) << nCount;
    }
}

// Each pass leaves its nodes to the posts that come before the next one.
TEST(CmEventQueueUsingConditionVariable, AllocatesNothing_WhenItsConsumerLooksAgainAfterEachPass) {
    constexpr int COUNT = 300;
    CCmEventQueueUsingConditionVariable queue;
    EXPECT_EQ(static_cast<unsigned long>(COUNT), RunPass(queue, COUNT));
    for (int i = 0; i < 3; ++i) {
        CCmTimeValue tvNone(0, 0);
        std::list<ICmEvent*> events;
        queue.PopOrWaitPendingEvents(events, &tvNone);
        EXPECT_EQ(0u, RunPass(queue, COUNT));
    }
}

TEST(CmEventQueueUsingConditionVariable, GivesItsMemoryBack_WhenABurstIsOver) {
    constexpr int BURST = 100000;
    const long lLive = LiveAllocationsBefore();
    CCmEventQueueUsingConditionVariable queue;
    RunPass(queue, BURST);
    EXPECT_LE(LiveAllocations(), lLive + BURST / 4);
    for (int i = 0; i < BURST / 10; ++i) {
        RunPass(queue, 10);
    }
    EXPECT_LE(LiveAllocations(), lLive + BURST / 100);
}

TEST(CmEventSynchronous, WritesOneLineAndReturns_WhenItCannotWake) {
    EventLog log;
    CCmEventQueueBase queue;
    CCmEventSynchronous* pWrapper = new CCmEventSynchronous(new LoggedEvent(log, 1), &queue);
    {
        kelto_test::ScopedTraceSink sink;
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_OK, pWrapper->OnEventFire());
        EXPECT_GE(fault.calls(), 1u);
        EXPECT_EQ(1u, sink.lines().size());
    }
    EXPECT_EQ(1u, log.fired().size());
    pWrapper->OnDestorySelf();
    pWrapper->OnDestorySelf();  // frees it
    EXPECT_EQ(1u, log.ended().size());
}

}  // namespace
}  // namespace UTIL_NS
