// What the watch counts of a queue, in every schedule: what became of events is told exactly,
// whenever it is switched on or off.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <list>

#include "CmEventQueueSteps.h"
#include "CmWatched.h"
#include "schedule/Watched.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;
typedef CCmEventQueueUsingConditionVariable CQueue;

// The sum of all rows.
CCmWorkerFigures ReadFigures() {
    constexpr size_t ROOM = 2;
    CCmWorkerFigures rows[ROOM];
    const size_t nCount = CmReadWorkers(rows, ROOM);
    SCHEDULE_EXPECT(nCount <= ROOM);
    CCmWorkerFigures sum;
    for (const CCmWorkerFigures& row : rows) {
        sum.m_ullPosted += row.m_ullPosted;
        sum.m_ullRun += row.m_ullRun;
        sum.m_ullRefused += row.m_ullRefused;
        sum.m_ullUnfired += row.m_ullUnfired;
        sum.m_ullPending += row.m_ullPending;
        sum.m_ullMostPending += row.m_ullMostPending;
    }
    return sum;
}

// The same while nobody posts and nothing runs: what was posted is somewhere.
CCmWorkerFigures FiguresAtRest() {
    const CCmWorkerFigures sum = ReadFigures();
    SCHEDULE_EXPECT(sum.m_ullPosted == sum.m_ullRun + sum.m_ullUnfired + sum.m_ullPending);
    return sum;
}

bool Post(ICmEventQueue& aQueue, int aId) {
    return CM_SUCCEEDED(aQueue.PostEvent(new CWatchedEvent(aId), NORMAL));
}

// Takes aCount events out, one at a time, and runs them.
void RunEvents(CQueue& aQueue, int aCount) {
    while (aCount > 0) {
        std::list<ICmEvent*> events;
        if (CM_SUCCEEDED(aQueue.PopOrWaitPendingEvents(events, nullptr, 1))) {
            aCount -= static_cast<int>(events.size());
            aQueue.ProcessAndRecycleEvents(events);
        }
    }
}

// Each schedule with a watch of its own; aScenario runs on thread 1.
void ExploreWatch(const std::function<void(CWatch&)>& aScenario, const CSettings& aSettings = {}) {
    Explore(
        [&aScenario] {
            CWatch watch;
            CThreadOf([&] { aScenario(watch); }).Join();
        },
        aSettings);
}

}  // namespace

TEST(ScheduledWatch, CountsWhatBecameOfEachEvent_WhenTwoThreadsPostAndTheConsumerStops) {
    CSettings settings;
    settings.m_ulSchedules = 2500;
    ExploreWatch(
        [](CWatch& aWatch) {
            aWatch.Start();
            CQueue queue;
            unsigned nAccepted = 0;
            {
                CThreadOf consumer([&queue] {
                    RunEvents(queue, 1);
                    queue.StopAndDestoryPendingEvents();
                });
                CThreadOf poster([&] { nAccepted += Post(queue, 0) ? 1 : 0; });
                nAccepted += Post(queue, 1) ? 1 : 0;
            }
            const CCmWorkerFigures figures = FiguresAtRest();
            SCHEDULE_EXPECT(figures.m_ullPosted == nAccepted);
            SCHEDULE_EXPECT(figures.m_ullRefused == 2 - nAccepted);
            SCHEDULE_EXPECT(figures.m_ullRun == 1 && figures.m_ullPending == 0);
        },
        settings);
}

TEST(ScheduledWatch, CountsWhatIsPending_WhenItIsStartedDuringAPost) {
    ExploreWatch([](CWatch& aWatch) {
        CQueue queue;
        Post(queue, 0);
        {
            CThreadOf consumer([&queue] { RunEvents(queue, 1); });
            CThreadOf poster([&queue] { Post(queue, 1); });
            aWatch.Start();
        }
        Post(queue, 2);
        SCHEDULE_EXPECT(FiguresAtRest().m_ullPending == 2);
        queue.DestoryPendingEvents();
        const CCmWorkerFigures figures = FiguresAtRest();
        SCHEDULE_EXPECT(figures.m_ullUnfired == 2 && figures.m_ullPending == 0);
    });
}

TEST(ScheduledWatch, CountsFromWhatIsPending_WhenItIsStartedAgainBeforeAnEvent) {
    ExploreWatch([](CWatch& aWatch) {
        aWatch.Start();
        CQueue queue;
        Post(queue, 0);
        Post(queue, 1);
        {
            CThreadOf consumer([&queue] { RunEvents(queue, 1); });
            aWatch.Stop();
            aWatch.Start();
        }
        SCHEDULE_EXPECT(FiguresAtRest().m_ullPending == 1);
        {
            CThreadOf consumer([&queue] { queue.DestoryPendingEvents(); });
            aWatch.Stop();
            aWatch.Start();
        }
        Post(queue, 2);
        SCHEDULE_EXPECT(FiguresAtRest().m_ullPending == 1);
    });
}

TEST(ScheduledWatch, CountsFromWhatIsPending_WhenItIsStartedAgainAtTheEndOfALoop) {
    ExploreWatch([](CWatch& aWatch) {
        aWatch.Start();
        CQueue queue;
        {
            CThreadOf consumer([&queue] {
                CCmEventQueueSteps::CLoop loop(queue);
                Post(queue, 0);
                Post(queue, 1);
                loop.End();
            });
            aWatch.Stop();
            aWatch.Start();
        }
        Post(queue, 2);
        SCHEDULE_EXPECT(FiguresAtRest().m_ullPending == 3);
    });
}

TEST(ScheduledWatch, KeepsItsFigures_WhenItIsStoppedDuringAPost) {
    ExploreWatch([](CWatch& aWatch) {
        aWatch.Start();
        CQueue queue;
        {
            CThreadOf consumer([&queue] { RunEvents(queue, 1); });
            CThreadOf poster([&queue] {
                Post(queue, 0);
                Post(queue, 1);
            });
            aWatch.Stop();
        }
        const CCmWorkerFigures atEnd = FiguresAtRest();
        SCHEDULE_EXPECT(atEnd.m_ullPosted <= 2 && atEnd.m_ullUnfired == 0);
        Post(queue, 2);
        queue.DestoryPendingEvents();
        const CCmWorkerFigures later = FiguresAtRest();
        SCHEDULE_EXPECT(later.m_ullPosted == atEnd.m_ullPosted && later.m_ullRun == atEnd.m_ullRun);
        SCHEDULE_EXPECT(later.m_ullUnfired == 0 && later.m_ullPending == atEnd.m_ullPending);
    });
}

TEST(ScheduledWatch, CountsASendAsOneEvent_WhenTheWorkerIsStoppedMeanwhile) {
    ExploreWatch([](CWatch& aWatch) {
        aWatch.Start();
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender(
                [&worker] { worker.GetEventQueue()->SendEvent(new CWatchedEvent(0)); });
            worker.Stop(nullptr);
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        // The stop is an event as well.
        const CCmWorkerFigures figures = FiguresAtRest();
        SCHEDULE_EXPECT(figures.m_ullPosted + figures.m_ullRefused == 2);
        SCHEDULE_EXPECT(figures.m_ullPending == 0);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledWatch, CountsEachSendOnce_WhenTwoThreadsSend) {
    ExploreWatch([](CWatch& aWatch) {
        aWatch.Start();
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf sender([&queue] { queue.SendEvent(new CWatchedEvent(0)); });
            queue.SendEvent(new CWatchedEvent(1));
        }
        worker.Stop(nullptr);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        const CCmWorkerFigures figures = FiguresAtRest();
        SCHEDULE_EXPECT(figures.m_ullPosted == 3 && figures.m_ullPending == 0);
        SCHEDULE_EXPECT(figures.m_ullMostPending == 1 || figures.m_ullMostPending == 2);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledWatch, LeavesNoSendPending_WhenItIsStartedDuringIt) {
    ExploreWatch([](CWatch& aWatch) {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender(
                [&worker] { worker.GetEventQueue()->SendEvent(new CWatchedEvent(0)); });
            aWatch.Start();
        }
        worker.Stop(nullptr);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        const CCmWorkerFigures figures = FiguresAtRest();
        SCHEDULE_EXPECT(figures.m_ullPosted <= 2 && figures.m_ullPending == 0);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledWatch, TellsNoMoreThanThereWas_WhenAThreadReadsMeanwhile) {
    CSettings settings;
    settings.m_nPreemptions = 1;
    ExploreWatch(
        [](CWatch& aWatch) {
            aWatch.Start();
            CQueue queue;
            Post(queue, 0);
            {
                // A thread that is new would wait for the reader.
                std::atomic<bool> bIsRead{false};
                CThreadOf consumer([&] {
                    RunEvents(queue, 1);
                    WaitUntil([&bIsRead] { return bIsRead.load(); });
                    Post(queue, 1);
                    Post(queue, 2);
                    queue.DestoryPendingEvents();
                });
                WaitUntil([] { return FateOf(0).m_nEnded > 0; });
                bIsRead = true;
                const CCmWorkerFigures figures = ReadFigures();
                SCHEDULE_EXPECT(figures.m_ullPosted <= 3 && figures.m_ullRun <= 1);
                SCHEDULE_EXPECT(figures.m_ullUnfired <= 2 && figures.m_ullPending <= 3);
            }
            const CCmWorkerFigures figures = FiguresAtRest();
            SCHEDULE_EXPECT(figures.m_ullPosted == 3 && figures.m_ullPending == 0);
        },
        settings);
}

}  // namespace kelto_test
