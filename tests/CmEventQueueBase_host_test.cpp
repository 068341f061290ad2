// Queues that a host writes: derived from the queue without a lock, with a lock of their own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "CmEvent.h"
#include "CmEventQueueBase.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::LiveAllocationsBefore;
using kelto_test::LoggedEvent;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
// What an event returns in these tests, when its result matters.
constexpr CmResult RESULT = 4711;

class CHostQueue : public CCmEventQueueBase {
  public:
    ~CHostQueue() override {
        WaitForSenders();
        m_bEnds = true;
    }
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        const CmResult rv = Append(aEvent, aPri);
        if (m_pLinger != nullptr) {
            m_Posted.Open();
            m_pLinger->Wait();
            EXPECT_FALSE(m_bEnds);
        }
        return rv;
    }
    // Runs what is pending; returns how much that was.
    size_t RunAll() {
        std::list<ICmEvent*> events;
        {
            std::lock_guard<std::recursive_mutex> lock(m_Mutex);
            PopPendingEvents(events);
        }
        ProcessEvents(events);
        return events.size();
    }

    Gate* m_pLinger = nullptr;  // posters wait for it inside PostEvent
    Gate m_Posted;              // opened when one does

  private:
    CmResult Append(ICmEvent* aEvent, EPriority aPri) {
        std::lock_guard<std::recursive_mutex> lock(m_Mutex);
        return CCmEventQueueBase::PostEvent(aEvent, aPri);
    }

    std::recursive_mutex m_Mutex;
    std::atomic<bool> m_bEnds{false};
};

TEST(CmHostQueue, RunsEveryEventInOrder_WhenSeveralThreadsPost) {
    constexpr int THREADS = 4;
    constexpr int EACH = 2000;
    CHostQueue queue;
    int nLast[THREADS] = {};
    int nRun = 0;
    std::vector<std::thread> posters;
    for (int t = 0; t < THREADS; ++t) {
        posters.emplace_back([&queue, &nLast, &nRun, t] {
            for (int i = 1; i <= EACH; ++i) {
                EXPECT_EQ(CM_OK, CmPost(queue, [&nLast, &nRun, t, i] {
                              EXPECT_EQ(nLast[t] + 1, i);
                              nLast[t] = i;
                              ++nRun;
                          }));
            }
        });
    }
    EXPECT_TRUE(Eventually([&] {
        queue.RunAll();
        return nRun == THREADS * EACH;
    }));
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(0u, queue.RunAll());
}

TEST(CmHostQueue, SendsByItsOwnPostThereAndBack) {
    const long lLive = LiveAllocationsBefore();
    {
        EventLog log;
        CHostQueue queue;
        CmResult rv = CM_OK;
        std::thread sender(
            [&] { rv = queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })); });
        EXPECT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        EXPECT_EQ(1u, queue.RunAll());
        sender.join();
        EXPECT_EQ(RESULT, rv);
        EXPECT_EQ(1u, queue.RunAll());  // the wrapper, back
        EXPECT_EQ(0u, queue.RunAll());
        EXPECT_EQ(1u, log.ended().size());
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

TEST(CmHostQueue, EndsAfterThePostOfItsSender_WhenItIsDestroyed) {
    EventLog log;
    Gate linger;
    CHostQueue* pQueue = new CHostQueue;
    pQueue->m_pLinger = &linger;
    CmResult rv = CM_OK;
    std::atomic<bool> bDeleted{false};
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 1)); });
    ASSERT_TRUE(pQueue->m_Posted.Wait());
    std::thread owner([&] {
        delete pQueue;
        bDeleted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(bDeleted);
    linger.Open();
    sender.join();
    owner.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(1u, log.ended().size());
    EXPECT_EQ(0u, log.fired().size());
}

TEST(CmHostQueue, EndsAfterItsSendersHaveReturned_WhenItIsDestroyedAfterTheirEvents) {
    constexpr int ROUNDS = 200;
    constexpr size_t SENDERS = 2;
    const long lLive = LiveAllocationsBefore();
    for (int i = 0; i < ROUNDS; ++i) {
        EventLog log;
        std::vector<std::thread> senders;
        {
            CHostQueue queue;
            for (size_t n = 0; n < SENDERS; ++n) {
                senders.emplace_back([&] {
                    EXPECT_EQ(RESULT,
                              queue.SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })));
                });
            }
            while (queue.GetPendingEventsCount() < SENDERS) {
                std::this_thread::yield();
            }
            EXPECT_EQ(SENDERS, queue.RunAll());
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        ASSERT_EQ(SENDERS, log.ended().size());
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

TEST(CmHostQueue, RefusesWhatAnEndingEventPosts_WhenItIsStopped) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CHostQueue queue;
    queue.SetStopped();
    EXPECT_EQ(
        CM_ERROR_NOT_INITIALIZED,
        queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                        NORMAL));
    EXPECT_EQ(1u, log.ended().size());
    EXPECT_EQ(0u, queue.GetPendingEventsCount());
}

}  // namespace
}  // namespace UTIL_NS
