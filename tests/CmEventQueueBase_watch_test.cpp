// What the watch tells of a queue that the test itself posts to and takes from.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmEventQueueBase.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Flight.h"
#include "support/FlightFile.h"
#include "support/Watch.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndingEvent;
using kelto_test::Eventually;
using kelto_test::FiguresAtRest;
using kelto_test::FiguresOf;
using kelto_test::FlightFile;
using kelto_test::FlightRecord;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedWatch;

typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

void PostSome(ICmEventQueue& aQueue, int aCount) {
    for (int i = 0; i < aCount; ++i) {
        ASSERT_EQ(CM_OK, aQueue.PostEvent(new EndingEvent([] {}), NORMAL));
    }
}

// Those of the queues that the calling thread runs.
CCmWorkerFigures Figures() {
    return FiguresOf(pthread_self());
}

void RunSome(CCmEventQueueUsingMutex& aQueue, DWORD aCount) {
    Events events;
    ASSERT_EQ(CM_OK, aQueue.PopPendingEventsLocked(events, aCount, nullptr));
    aQueue.ProcessTakenEvents(events);
}

TEST(CmEventQueueWatch, CountsWhatEndsUnfired_WhenItsQueueHasNoLock) {
    const ScopedWatch watch;
    CCmEventQueueBase queue;
    PostSome(queue, 1);
    Events events;
    ASSERT_EQ(CM_OK, queue.PopPendingEvents(events));
    queue.ProcessEvents(events);  // this thread is its consumer
    PostSome(queue, 3);
    queue.DestoryPendingEvents();
    const CCmWorkerFigures figures = Figures();
    EXPECT_EQ(4U, figures.m_ullPosted);
    EXPECT_EQ(1U, figures.m_ullRun);
    EXPECT_EQ(3U, figures.m_ullUnfired);
    EXPECT_EQ(0U, figures.m_ullPending);
}

// The queue's own count keeps what was destroyed until a taker comes by.
TEST(CmEventQueueWatch, TellsWhatIsPending_AfterSomeWasDestroyed) {
    const ScopedWatch watch;
    CCmEventQueueUsingMutex queue;
    PostSome(queue, 4);
    RunSome(queue, 1);
    EXPECT_EQ(3U, Figures().m_ullPending);
    queue.DestoryPendingEvents();
    EXPECT_EQ(0U, Figures().m_ullPending);
    PostSome(queue, 3);
    EXPECT_EQ(3U, Figures().m_ullPending);
    Events events;
    ASSERT_EQ(CM_OK, queue.PopPendingEventsLocked(events, 2, nullptr));
    EXPECT_EQ(3U, Figures().m_ullPending);  // with those that it holds
    queue.ProcessTakenEvents(events);
    EXPECT_EQ(1U, Figures().m_ullPending);
    RunSome(queue, 100);
    EXPECT_EQ(0U, Figures().m_ullPending);
    PostSome(queue, 2);
    const CCmWorkerFigures figures = Figures();
    EXPECT_EQ(2U, figures.m_ullPending);
    EXPECT_EQ(4U, figures.m_ullMostPending);
    EXPECT_EQ(9U, figures.m_ullPosted);
    EXPECT_EQ(4U, figures.m_ullRun);
    EXPECT_EQ(3U, figures.m_ullUnfired);
}

TEST(CmEventQueueWatch, CountsNoEvent_WhenItWasTakenOutBefore) {
    CCmEventQueueUsingMutex queue;
    PostSome(queue, 3);
    Events events;
    ASSERT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
    const ScopedWatch watch;
    PostSome(queue, 1);
    queue.ProcessTakenEvents(events);
    EXPECT_EQ(0U, Figures().m_ullRun);
    EXPECT_EQ(0U, Figures().m_Run.m_ullCount);
    EXPECT_EQ(1U, Figures().m_ullPending);
    RunSome(queue, 100);
    const CCmWorkerFigures figures = Figures();
    EXPECT_EQ(1U, figures.m_ullPosted);
    EXPECT_EQ(1U, figures.m_ullRun);
    EXPECT_EQ(0U, figures.m_ullPending);
}

TEST(CmEventQueueWatch, TellsHowLongItsConsumerSlept_WhenNoEventEndedTheSleep) {
    const ScopedWatch watch;
    CCmEventQueueUsingConditionVariable queue;
    Events events;
    uint64_t ullAsleep = 0;
    for (int i = 0; i < 3; ++i) {
        CCmTimeValue tvTimeout(0, 20000);
        EXPECT_EQ(CM_ERROR_NOT_FOUND, queue.PopOrWaitPendingEvents(events, &tvTimeout));
        const uint64_t ullNow = Figures().m_ullAsleep;
        EXPECT_LE(ullAsleep + 15000, ullNow);
        ullAsleep = ullNow;
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(ullAsleep, Figures().m_ullAsleep);  // it is awake
    }
}

// While its own events are in a list of their own, which another thread cannot empty.
TEST(CmEventQueueWatch, CountsWhatEndsUnfired_WhenItsWorkerHasPostedIt) {
    const ScopedWatch watch;
    CCmWorker worker(CCmWorkerOptions().Name("own"));
    auto& queue = static_cast<CCmEventQueueUsingConditionVariable&>(*worker.GetEventQueue());
    CCmWorkerFigures meanwhile;
    CmPost(worker, [&] {
        queue.PostEvent(new EndingEvent([&] { meanwhile = FiguresOf(worker); }), NORMAL);
        PostSome(queue, 2);
        std::thread([&queue] { queue.DestoryPendingEvents(); }).join();
    });
    const CCmWorkerFigures ended = FiguresAtRest(worker);
    EXPECT_EQ(4U, ended.m_ullPosted);
    EXPECT_EQ(1U, ended.m_ullRun);
    EXPECT_EQ(3U, ended.m_ullUnfired);
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(3U, meanwhile.m_ullUnfired);
    EXPECT_EQ(0U, meanwhile.m_ullPending);
    for (int i = 0; i < 2; ++i) {
        CmCall(worker, [] {});
    }
    EXPECT_EQ(3U, FiguresAtRest(worker).m_ullMostPending);
}

// Its address is not that of an event that is posted later.
class CKeptEvent final : public ICmEvent {
  public:
    CmResult OnEventFire() override { return CM_OK; }
    void OnDestorySelf() override {}
};

// Posts the next one, aLeft times.
void PostChain(CCmWorker& aWorker, int aLeft) {
    CmPost(aWorker, [&aWorker, aLeft] {
        if (aLeft > 0) {
            PostChain(aWorker, aLeft - 1);
        }
    });
}

// The first of its own events is measured, and one of every 64 after that.
TEST(CmEventQueueWatch, MeasuresWaitsOfWhatItsWorkerPosts_AfterTheMeasuredOneWasDestroyed) {
    const ScopedWatch watch;
    CCmWorker worker(CCmWorkerOptions().Name("own"));
    auto& queue = static_cast<CCmEventQueueUsingConditionVariable&>(*worker.GetEventQueue());
    CKeptEvent destroyedHere;
    CKeptEvent destroyedElsewhere;
    CmCall(worker, [&] {
        queue.PostEvent(&destroyedHere, NORMAL);
        queue.DestoryPendingEvents();
    });
    FiguresAtRest(worker);
    uint64_t ullMeasured = FiguresOf(worker).m_Waited.m_ullCount;
    const auto measuredOfChain = [&] {
        PostChain(worker, 200);
        const uint64_t ullBefore =
            std::exchange(ullMeasured, FiguresAtRest(worker).m_Waited.m_ullCount);
        return ullMeasured - ullBefore;
    };
    EXPECT_LE(3U, measuredOfChain());
    CmCall(worker, [&] {
        std::this_thread::sleep_for(50ms);  // the first after some time is measured, too
        queue.PostEvent(&destroyedElsewhere, NORMAL);
        std::thread([&queue] { queue.DestoryPendingEvents(); }).join();
    });
    FiguresAtRest(worker);
    EXPECT_LE(3U, measuredOfChain());
}

// Runs aBody on a thread of its own and returns what its events left pending, as it is recorded.
std::vector<uint64_t> RecordedPending(const std::function<void()>& aBody) {
    const ScopedDirectory directory;
    EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    std::thread([&aBody] {
        CmPortNameThisThread("taker");
        aBody();
    }).join();
    char szPath[1024];
    EXPECT_EQ(CM_OK, CCmWatch::GetRecording(szPath, sizeof(szPath)));
    CCmWatch::Stop();
    const FlightFile file(szPath);
    std::vector<uint64_t> found;
    for (const auto* pThread : file.Named("taker")) {
        for (const FlightRecord& record : pThread->records) {
            if (record.kind == kelto_test::EVENT) {
                found.push_back(record.words[0] & 0xFFFFFF);
            }
        }
    }
    return found;
}

TEST(CmEventQueueWatch, RecordsWhatIsPendingAfterAnEvent_WhileSomeIsTakenAndSomeIsLeft) {
    CCmEventQueueUsingMutex queue;
    EXPECT_EQ((std::vector<uint64_t>{4, 3, 2, 1, 0}), RecordedPending([&queue] {
                  PostSome(queue, 5);
                  RunSome(queue, 2);
                  RunSome(queue, 3);
              }));
}

// A send whose event has run comes back to the queue, where it is none of what is pending.
TEST(CmEventQueueWatch, RecordsWhatIsPendingAfterAnEvent_WhileASendIsOnItsWayBack) {
    CCmEventQueueUsingMutex queue;
    EXPECT_EQ((std::vector<uint64_t>{1, 1, 0}), RecordedPending([&queue] {
                  std::thread sender(
                      [&queue] { EXPECT_EQ(CM_OK, queue.SendEvent(new EndingEvent([] {}))); });
                  ASSERT_TRUE(Eventually([&queue] { return queue.GetPendingEventsCount() == 1; }));
                  PostSome(queue, 1);
                  RunSome(queue, 1);
                  sender.join();
                  PostSome(queue, 1);
                  ASSERT_EQ(3U, queue.GetPendingEventsCount());
                  EXPECT_EQ(2U, Figures().m_ullPending);
                  RunSome(queue, 1);
                  EXPECT_EQ(1U, Figures().m_ullPending);
                  RunSome(queue, 2);
                  EXPECT_EQ(0U, Figures().m_ullPending);
                  EXPECT_EQ(3U, Figures().m_ullPosted);
                  EXPECT_EQ(3U, Figures().m_ullRun);
                  EXPECT_EQ(2U, Figures().m_ullMostPending);
              }));
}

// What was destroyed and what is on its way back was there before.
TEST(CmEventQueueWatch, TellsWhatIsPending_WhenItIsStartedLate) {
    CCmEventQueueUsingMutex queue;
    PostSome(queue, 4);
    queue.DestoryPendingEvents();
    std::thread sender([&queue] { EXPECT_EQ(CM_OK, queue.SendEvent(new EndingEvent([] {}))); });
    ASSERT_TRUE(Eventually([&queue] { return queue.GetPendingEventsCount() == 5; }));
    {
        Events events;
        ASSERT_EQ(CM_OK, queue.PopPendingEventsLocked(events, 1, nullptr));
        PostSome(queue, 2);
        queue.ProcessTakenEvents(events);
    }
    sender.join();
    ASSERT_EQ(7U, queue.GetPendingEventsCount());
    const ScopedWatch watch;
    PostSome(queue, 1);
    RunSome(queue, 1);
    const CCmWorkerFigures figures = Figures();
    EXPECT_EQ(3U, figures.m_ullPosted);
    EXPECT_EQ(1U, figures.m_ullRun);
    EXPECT_EQ(2U, figures.m_ullPending);
    EXPECT_EQ(3U, figures.m_ullMostPending);
    RunSome(queue, 100);
    EXPECT_EQ(3U, Figures().m_ullRun);
    EXPECT_EQ(0U, Figures().m_ullPending);
}

}  // namespace
}  // namespace UTIL_NS
