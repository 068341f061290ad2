// What becomes of the events of a pass whose thread is cancelled: one rule for every function that
// runs events.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <list>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "CmEventQueueBase.h"
#include "CmThread.h"
#include "support/Cancellation.h"
#include "support/Events.h"
#include "support/Eventually.h"

namespace UTIL_NS {
namespace {

using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::LoggedEvent;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

// On a system that unwinds a cancelled thread (where this one does) and on one that does not.
class CmEventQueueCancelled : public testing::TestWithParam<bool> {
  protected:
    CmEventQueueCancelled() {
        if (GetParam()) {
            m_HandlersOnly.emplace();
        }
    }

  private:
    std::optional<kelto_test::ScopedHandlersOnly> m_HandlersOnly;
};

INSTANTIATE_TEST_SUITE_P(, CmEventQueueCancelled, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

class CWorkThread : public ACmThread {
  public:
    explicit CWorkThread(std::function<void()> aWork) : m_Work(std::move(aWork)) {}
    void OnThreadRun() override { m_Work(); }

  private:
    const std::function<void()> m_Work;
};

// Posts 1, 2 and 3, runs them by aRun on a thread that is cancelled while 2 fires, which has posted
// 4 before.
template <class QueueType>
void CancelInTheSecondEvent(QueueType& aQueue, EventLog& aLog,
                            const std::function<void(QueueType&)>& aRun) {
    std::atomic<bool> bInSecond{false};
    aQueue.PostEvent(new LoggedEvent(aLog, 1), NORMAL);
    aQueue.PostEvent(new LoggedEvent(aLog, 2,
                                     [&] {
                                         aQueue.PostEvent(new LoggedEvent(aLog, 4), NORMAL);
                                         bInSecond = true;
                                         for (;;) {
                                             kelto_test::TestCancel();
                                             std::this_thread::yield();
                                         }
                                         return CM_OK;
                                     }),
                     NORMAL);
    aQueue.PostEvent(new LoggedEvent(aLog, 3), NORMAL);
    CWorkThread* pThread = new CWorkThread([&] { aRun(aQueue); });
    ASSERT_EQ(CM_OK, pThread->Create(1, TF_JOINABLE, 0));
    EXPECT_TRUE(Eventually([&] { return bInSecond.load(); }));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
    EXPECT_EQ((Ids{1, 2}), aLog.fired());
}

TEST_P(CmEventQueueCancelled, EndsWhatHasNotBegun_WhenTheListIsTakenOver) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        CancelInTheSecondEvent<CCmEventQueueUsingMutex>(queue, log, [](auto& aQueue) {
            Events events;
            aQueue.PopPendingEventsLocked(events);
            aQueue.ProcessTakenEvents(events);
        });
        EXPECT_EQ((Ids{1, 2, 3}), log.ended());
        EXPECT_EQ(1u, queue.GetPendingEventsCount());  // 4
        Events events;
        EXPECT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
        queue.ProcessTakenEvents(events);
        EXPECT_TRUE(events.empty());
        EXPECT_EQ((Ids{1, 2, 4}), log.fired());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmEventQueueCancelled, PutsBackWhatHasNotBegun_WhenTheListIsTheQueues) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingConditionVariable queue;
        CancelInTheSecondEvent<CCmEventQueueUsingConditionVariable>(queue, log, [](auto& aQueue) {
            Events events;
            aQueue.PopOrWaitPendingEvents(events, nullptr);
            aQueue.ProcessAndRecycleEvents(events);
        });
        EXPECT_EQ((Ids{1, 2}), log.ended());
        EXPECT_EQ(2u, queue.GetPendingEventsCount());
        Events events;
        EXPECT_EQ(CM_OK, queue.PopOrWaitPendingEvents(events, nullptr));
        queue.ProcessAndRecycleEvents(events);
        EXPECT_TRUE(events.empty());
        EXPECT_EQ((Ids{1, 2, 3, 4}), log.ended());
        EXPECT_EQ((Ids{1, 2, 3, 4}), log.fired());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmEventQueueCancelled, LeavesWhatHasNotBegunInTheList_WhenThatIsTheCallers) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;
        Events events;
        CancelInTheSecondEvent<CCmEventQueueUsingMutex>(queue, log, [&](auto& aQueue) {
            aQueue.PopPendingEventsLocked(events);
            aQueue.ProcessEvents(events);
        });
        EXPECT_EQ((Ids{1, 2}), log.ended());
        ASSERT_EQ(3u, events.size());
        EXPECT_EQ(1u, queue.GetPendingEventsCount());  // 4
        EXPECT_EQ(CM_OK, queue.ProcessOneEvent(events.back()));
        EXPECT_EQ((Ids{1, 2, 3}), log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmEventQueueCancelled, WakesASenderThatHasNotBegun_WhenTheListIsTakenOver) {
    EventLog log;
    CmResult rv = CM_OK;
    std::thread sender;
    CCmEventQueueUsingMutex queue;
    CancelInTheSecondEvent<CCmEventQueueUsingMutex>(queue, log, [&](auto& aQueue) {
        sender = std::thread([&] { rv = aQueue.SendEvent(new LoggedEvent(log, 5)); });
        EXPECT_TRUE(Eventually([&] { return aQueue.GetPendingEventsCount() == 4; }));
        Events events;
        aQueue.PopPendingEventsLocked(events);
        aQueue.ProcessTakenEvents(events);
    });
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ((Ids{1, 2, 3, 5}), log.ended());
}

}  // namespace
}  // namespace UTIL_NS
