// What the watch tells of a queue that the test itself posts to and takes from.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmEventQueueBase.h"
#include "CmSystem.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Flight.h"
#include "support/FlightFile.h"
#include "support/Threads.h"
#include "support/TraceSink.h"
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
using kelto_test::OnAnotherThread;
using kelto_test::Rows;
using kelto_test::ScopedClock;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedEntry;
using kelto_test::ScopedTraceSink;
using kelto_test::ScopedWatch;

typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

// What the calling thread does, once, before its next call of a kind.
thread_local std::function<void()> t_atNextCall;

void DoOnce() {
    if (const auto work = std::exchange(t_atNextCall, nullptr)) {
        work();
    }
}
int LockAfterWork(pthread_mutex_t* aMutex) {
    DoOnce();
    return pthread_mutex_lock(aMutex);
}
int CoarseTimeAfterWork(timeval* aTime, void* aUnused) {
    DoOnce();
    return gettimeofday(aTime, aUnused);
}

void PostSome(ICmEventQueue& aQueue, unsigned aCount) {
    for (unsigned i = 0; i < aCount; ++i) {
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
    for (const unsigned nDestroyed : {1U, 3U}) {
        SCOPED_TRACE(nDestroyed);
        const ScopedWatch watch;
        CCmEventQueueUsingMutex queue;
        PostSome(queue, 1 + nDestroyed);
        RunSome(queue, 1);
        EXPECT_EQ(nDestroyed, Figures().m_ullPending);
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
        EXPECT_EQ(std::max(3U, 1 + nDestroyed), figures.m_ullMostPending);
        EXPECT_EQ(6U + nDestroyed, figures.m_ullPosted);
        EXPECT_EQ(4U, figures.m_ullRun);
        EXPECT_EQ(nDestroyed, figures.m_ullUnfired);
    }
}

TEST(CmEventQueueWatch, CountsWhatWasPostedBefore_WhenNobodyPostsAfterIt) {
    CCmEventQueueUsingMutex withMutex;
    CCmEventQueueUsingConditionVariable withCondition;
    PostSome(withMutex, 2);
    PostSome(withCondition, 3);
    const ScopedWatch watch;
    RunSome(withMutex, 100);
    EXPECT_EQ(2U, Figures().m_ullPosted);
    EXPECT_EQ(2U, Figures().m_ullRun);
    Events events;
    ASSERT_EQ(CM_OK, withCondition.PopOrWaitPendingEvents(events, nullptr));
    EXPECT_EQ(5U, Figures().m_ullPosted);
    EXPECT_EQ(3U, Figures().m_ullPending);
    withCondition.ProcessAndRecycleEvents(events);
    EXPECT_EQ(5U, Figures().m_ullRun);
    EXPECT_EQ(0U, Figures().m_ullPending);
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
        OnAnotherThread([&queue] { queue.DestoryPendingEvents(); });
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

// Without a lock, as a queue whose users take turns.
template <class QueueType>
void RunAll(QueueType& aQueue) {
    Events events;
    ASSERT_EQ(CM_OK, aQueue.PopPendingEvents(events));
    aQueue.ProcessEvents(events);
}

TEST(CmEventQueueWatch, MeasuresOneWaitInSixtyFour_WhenNobodyWaitsForTheEvents) {
    ScopedClock clock;
    const ScopedWatch watch;
    CCmEventQueueBase plain;
    CCmEventQueueUsingMutex withMutex;
    CCmEventQueueUsingConditionVariable withCondition;
    uint64_t ullMeasured = 0;
    for (CCmEventQueueBase* pQueue :
         std::initializer_list<CCmEventQueueBase*>{&plain, &withMutex, &withCondition}) {
        for (int i = 0; i < 64; ++i) {
            PostSome(*pQueue, 1);
            clock.AdvanceUsec(7);
            RunAll(*pQueue);
        }
        EXPECT_EQ(ullMeasured + 1, Figures().m_Waited.m_ullCount);  // the first
        PostSome(*pQueue, 1);
        RunAll(*pQueue);
        ullMeasured += 2;
        EXPECT_EQ(ullMeasured, Figures().m_Waited.m_ullCount);
    }
    EXPECT_EQ(7U, Figures().m_Waited.m_ullLongest);
    EXPECT_EQ(0U, Figures().m_Waited.m_ullMedian);
}

// Takes what the test says, by the test's clock, and is posted again and again.
class CTimedEvent final : public ICmEvent {
  public:
    explicit CTimedEvent(std::function<void()> aRun) : m_Run(std::move(aRun)) {}
    CmResult OnEventFire() override {
        m_Run();
        return CM_OK;
    }
    void OnDestorySelf() override {}

  private:
    const std::function<void()> m_Run;
};

// Measured or not: the record of a post tells what has not been measured.
TEST(CmEventQueueWatch, TellsExactlyHowLongASlowEventWaitedAndRan_WhateverWasMeasured) {
    ScopedClock clock;
    const ScopedWatch watch;
    ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    CTimedEvent event([&clock] { clock.AdvanceUsec(60000); });
    CTimedEvent next([&clock] { clock.AdvanceUsec(51000); });
    for (const long lWaits : {0L, 1L, 30000L}) {
        const std::string sFirst = " waitedUsec=" + std::to_string(lWaits) + " ranUsec=60000 ";
        const std::string sSecond =
            " waitedUsec=" + std::to_string(lWaits + 60000) + " ranUsec=51000 ";
        queue.PostEvent(&event, NORMAL);
        queue.PostEvent(&next, NORMAL);
        clock.AdvanceUsec(lWaits);
        RunSome(queue, 2);
        EXPECT_EQ(1U, sink.count(sFirst + "pending=1 ")) << sFirst;
        EXPECT_EQ(1U, sink.count(sSecond + "pending=0 ")) << sSecond;
        PostSome(queue, 1);  // is measured in its place
        queue.PostEvent(&event, NORMAL);
        RunSome(queue, 1);
        clock.AdvanceUsec(lWaits);
        RunSome(queue, 1);
        EXPECT_EQ(1U, sink.count(sFirst + "pending=0 ")) << sFirst;
        clock.AdvanceMs(1000);
    }
    const CCmWorkerFigures figures = Figures();
    EXPECT_EQ(12U, figures.m_ullRun);
    EXPECT_EQ(3 * (60000U + 51000U + 60000U), figures.m_ullInEvents);
    EXPECT_EQ(60000U, figures.m_Run.m_ullLongest);
    EXPECT_EQ(60000U, figures.m_Run.m_ull99);
    EXPECT_LE(51000U, figures.m_Run.m_ullMedian);
}

void PostFrom(const char* aName, ICmEventQueue& aQueue, ICmEvent* aEvent) {
    std::thread([&] {
        CmPortNameThisThread(aName);
        EXPECT_EQ(CM_OK, aQueue.PostEvent(aEvent, NORMAL));
    }).join();
}

TEST(CmEventQueueWatch, NamesThePosterOfASlowEvent_WhenAnotherPostsItAgainMeanwhile) {
    ScopedClock clock;
    const ScopedWatch watch;
    ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    int nRuns = 0;
    CTimedEvent event([&] {
        clock.AdvanceUsec(60000);
        if (++nRuns == 1) {
            PostFrom("second", queue, &event);
        }
    });
    PostFrom("first", queue, &event);
    clock.AdvanceUsec(30000);
    RunSome(queue, 1);
    EXPECT_EQ(1U, sink.count(" postedBy=first waitedUsec=30000 ranUsec=60000 pending=1 "));
    RunSome(queue, 1);
    EXPECT_EQ(1U, sink.count(" postedBy=second waitedUsec=0 ranUsec=60000 pending=0 "));
}

TEST(CmEventQueueWatch, CountsEveryRefusal_WhenTwoThreadsMeetAQueueForTheFirstTime) {
    const ScopedEntry<decltype(g_cmSystem.pthread_mutex_lock)> lock(g_cmSystem.pthread_mutex_lock,
                                                                    &LockAfterWork);
    const ScopedWatch watch;
    CCmEventQueueBase queue;
    queue.SetStopped();
    const auto post = [&queue] {
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new EndingEvent([] {}), NORMAL));
    };
    t_atNextCall = [&post] { OnAnotherThread(post); };
    post();
    EXPECT_EQ(nullptr, t_atNextCall);
    const std::vector<CCmWorkerFigures> rows = Rows();
    EXPECT_EQ(1, std::count_if(rows.begin(), rows.end(), [](const CCmWorkerFigures& aRow) {
                  return aRow.m_ullRefused == 2;
              }));
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

// The first of its own events is measured, and one of every 64 or after some time.
TEST(CmEventQueueWatch, MeasuresWaitsOfWhatItsWorkerPosts_AfterTheMeasuredOneWasDestroyed) {
    const ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> coarse(g_cmClock.coarse_gettimeofday,
                                                                      &CoarseTimeAfterWork);
    const ScopedWatch watch;
    CCmWorker worker(CCmWorkerOptions().Name("own"));
    auto& queue = static_cast<CCmEventQueueUsingConditionVariable&>(*worker.GetEventQueue());
    const auto destroyElsewhere = [&queue] {
        OnAnotherThread([&queue] { queue.DestoryPendingEvents(); });
    };
    CKeptEvent first;
    CKeptEvent second;
    const std::function<void()> ways[] = {
        [&] {
            queue.PostEvent(&first, NORMAL);
            queue.DestoryPendingEvents();
        },
        [&] {
            queue.PostEvent(&first, NORMAL);
            destroyElsewhere();
        },
        [&] {  // the second is measured as the first is destroyed
            queue.PostEvent(&first, NORMAL);
            std::this_thread::sleep_for(50ms);
            t_atNextCall = destroyElsewhere;
            queue.PostEvent(&second, NORMAL);
            EXPECT_EQ(nullptr, t_atNextCall);
        },
    };
    for (const std::function<void()>& way : ways) {
        SCOPED_TRACE(&way - ways);
        CmCall(worker, [&way] {
            std::this_thread::sleep_for(50ms);
            way();
        });
        const uint64_t ullBefore = FiguresAtRest(worker).m_Waited.m_ullCount;
        PostChain(worker, 200);
        EXPECT_LE(ullBefore + 3, FiguresAtRest(worker).m_Waited.m_ullCount);
    }
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

TEST(CmEventQueueWatch, TellsWhatIsPending_WhenOneAtATimeIsTaken) {
    const ScopedWatch watch;
    CCmEventQueueUsingMutex queue;
    CKeptEvent other;
    std::thread sender([&queue] { EXPECT_EQ(CM_OK, queue.SendEvent(new EndingEvent([] {}))); });
    ASSERT_TRUE(Eventually([&queue] { return queue.GetPendingEventsCount() == 1; }));
    PostSome(queue, 1);
    RunSome(queue, 1);
    sender.join();
    PostSome(queue, 1);
    for (const unsigned nPending : {1U, 1U, 0U}) {  // the second is the send on its way back
        ICmEvent* events[] = {&other, &other, nullptr, &other};
        ASSERT_EQ(CM_OK, queue.PopOnePendingEvent(events[2]));
        queue.ProcessOneEvent(events[2]);
        EXPECT_EQ(nPending, Figures().m_ullPending);
        EXPECT_EQ(3U - nPending, Figures().m_ullRun);
    }
    PostSome(queue, 2);
    EXPECT_EQ(2U, Figures().m_ullPending);
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
