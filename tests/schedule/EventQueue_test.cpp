// Posters and the consumer of an event queue, in every schedule.
#include <gtest/gtest.h>

#include <atomic>

#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr int WORKER = 1;  // the number of the first worker's thread

// Runs events of aQueue until that many have ended.
void RunEventsOf(CCmEventQueueUsingConditionVariable& aQueue, int aCount, CCmTimeValue* aTimeout) {
    while (aCount > 0) {
        std::list<ICmEvent*> events;
        if (CM_SUCCEEDED(aQueue.PopOrWaitPendingEvents(events, aTimeout, 1))) {
            aCount -= static_cast<int>(events.size());
            aQueue.ProcessEvents(events);
        }
    }
}

}  // namespace

TEST(ScheduledQueue, RunsWhatWasPosted_BeforeAWorkerIsStopped) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        PostTo(*worker.GetEventQueue(), WORKER, 0);
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredOn == WORKER);
    });
}

TEST(ScheduledQueue, RunsAllInTheirOrder_WhenTwoThreadsPost) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf poster([&queue] {
                PostTo(queue, WORKER, 0);
                PostTo(queue, WORKER, 1);
            });
            PostTo(queue, WORKER, 2);
            PostTo(queue, WORKER, 3);
        }
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(1).m_nFiredAs);
        SCHEDULE_EXPECT(FateOf(2).m_nFiredAs < FateOf(3).m_nFiredAs);
        SCHEDULE_EXPECT(FateOf(1).m_nFiredOn == WORKER && FateOf(3).m_nFiredOn == WORKER);
    });
}

TEST(ScheduledQueue, RunsAll_WhenThreeThreadsPost) {
    CSettings settings;
    settings.m_nPreemptions = 1;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            ICmEventQueue& queue = *worker.GetEventQueue();
            {
                CThreadOf first([&queue] { PostTo(queue, WORKER, 0); });
                CThreadOf second([&queue] { PostTo(queue, WORKER, 1); });
                PostTo(queue, WORKER, 2);
            }
            EndWorker(worker);
            SCHEDULE_EXPECT(FateOf(0).m_nFired + FateOf(1).m_nFired + FateOf(2).m_nFired == 3);
        },
        settings);
}

TEST(ScheduledQueue, RunsAnEventOfAnEvent_WhenAnotherThreadPostsAsWell) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        PostTo(queue, WORKER, 0, [&queue] {
            PostTo(queue, WORKER, 1);
            return CM_OK;
        });
        PostTo(queue, WORKER, 2);
        WaitUntil([] { return FateOf(1).m_nEnded > 0 && FateOf(2).m_nEnded > 0; });
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(1).m_nFiredAs);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(2).m_nFiredAs);
    });
}

TEST(ScheduledQueue, RefusesOrRuns_WhenItIsStoppedMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf poster([&queue] {
                const CmResult rv = queue.PostEvent(new CWatchedEvent(0), NORMAL);
                SCHEDULE_EXPECT(rv == CM_OK || rv == CM_ERROR_NOT_INITIALIZED);
                SCHEDULE_EXPECT(rv == CM_OK || (FateOf(0).m_nFired == 0 &&
                                                FateOf(0).m_nEndedOn == ThreadNumber()));
            });
            SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nEnded == 1);
        SCHEDULE_EXPECT(worker.GetEventQueue()->PostEvent(new CWatchedEvent(1), NORMAL) ==
                        CM_ERROR_NOT_INITIALIZED);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledQueue, StopsOnce_WhenTwoThreadsStopIt) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        PostTo(*worker.GetEventQueue(), WORKER, 0);
        CmResult rvOther = CM_OK;
        CmResult rv = CM_OK;
        {
            CThreadOf other([&] { rvOther = worker.Stop(nullptr); });
            rv = worker.Stop(nullptr);
        }
        SCHEDULE_EXPECT(rv == CM_OK || rvOther == CM_OK);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledQueue, LosesNothing_WhenTheWaitOfItsConsumerTimesOut) {
    Explore([] {
        CCmEventQueueUsingConditionVariable queue;
        CThreadOf consumer([&queue] {
            queue.BindToCurrentThread();
            CCmTimeValue tvTimeout(0, 1000);
            RunEventsOf(queue, 2, &tvTimeout);
        });
        WhenAllSleep([] { SCHEDULE_EXPECT(FateOf(0).m_nMade == FateOf(0).m_nFired); });
        PostTo(queue, WORKER, 0);
        PostTo(queue, WORKER, 1);
        consumer.Join();
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(1).m_nFiredAs);
        SCHEDULE_EXPECT(queue.GetPendingEventsCount() == 0);
        WhenAllSleep(nullptr);
    });
}

TEST(ScheduledQueue, LosesNothing_WhenItsConsumerIsWokenByNobody) {
    CSettings settings;
    settings.m_nSpuriousWakeUps = 2;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            PostTo(*worker.GetEventQueue(), WORKER, 0);
            PostTo(*worker.GetEventQueue(), WORKER, 1);
            EndWorker(worker);
            SCHEDULE_EXPECT(FateOf(0).m_nFired == 1 && FateOf(1).m_nFired == 1);
        },
        settings);
}

TEST(ScheduledQueue, ServesTwoConsumers_WhenTwoEventsArePosted) {
    Explore([] {
        CCmEventQueueUsingConditionVariable queue;
        CThreadOf first([&queue] { RunEventsOf(queue, 1, nullptr); });
        CThreadOf second([&queue] { RunEventsOf(queue, 1, nullptr); });
        SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(0), NORMAL) == CM_OK);
        SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(1), NORMAL) == CM_OK);
        first.Join();
        second.Join();
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1 && FateOf(1).m_nFired == 1);
    });
}

TEST(ScheduledQueue, WakesItsConsumer_WhenTheFirstSignalOfAPostFails) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf poster([&queue] { PostTo(queue, WORKER, 0); });
            FailCall(EFault::SIGNAL, 1 + Choose(2));
            PostTo(queue, WORKER, 1);
            FailCall(EFault::SIGNAL, 0);
        }
        WaitUntil([] { return FateOf(0).m_nEnded > 0 && FateOf(1).m_nEnded > 0; });
        EndWorker(worker);
    });
}

TEST(ScheduledQueue, GoesOn_WhenAWaitOfItsConsumerFails) {
    Explore([] {
        CCmEventQueueUsingConditionVariable queue;
        CThreadOf consumer([&queue] {
            FailCall(EFault::WAIT, 1 + Choose(2));
            RunEventsOf(queue, 2, nullptr);
        });
        PostTo(queue, WORKER, 0);
        PostTo(queue, WORKER, 1);
        consumer.Join();
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(1).m_nFiredAs);
    });
}

TEST(ScheduledQueue, EndsARefusedEventOnItsPoster_WhenMemoryRunsOut) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf poster([&queue] { PostTo(queue, WORKER, 0); });
            auto* const pEvent = new CWatchedEvent(1);
            FailCall(EFault::ALLOCATION, 1);
            const CmResult rv = queue.PostEvent(pEvent, NORMAL);
            FailCall(EFault::ALLOCATION, 0);
            SCHEDULE_EXPECT(rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY);
            SCHEDULE_EXPECT(rv == CM_OK || FateOf(1).m_nEndedOn == 0);
        }
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
    });
}

TEST(ScheduledQueue, RunsWhatIsPosted_WhileAHeartbeatTakesIt) {
    Explore([] {
        auto* const pThread = new CCmThreadHeartBeat;
        SCHEDULE_EXPECT(pThread->Create(TT_MAIN, TF_JOINABLE, 0) == CM_OK);
        pThread->OnThreadInit();
        ICmEventQueue& queue = *pThread->GetEventQueue();
        // One that is there already: the heartbeat is taking it out when others come.
        SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(0), NORMAL) == CM_OK);
        CThreadOf poster([&queue] {
            SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(1), NORMAL) == CM_OK);
            SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(2), NORMAL) == CM_OK);
        });
        pThread->DoHeartBeat();
        pThread->DoHeartBeat();
        poster.Join();
        pThread->DoHeartBeat();
        for (int i = 0; i < 3; ++i) {
            SCHEDULE_EXPECT(FateOf(i).m_nFiredAs == i && FateOf(i).m_nFiredOn == 0);
        }
        pThread->Destory(CM_OK);
    });
}

TEST(ScheduledQueue, EndsWhatIsPending_WhenItsWorkerEndsInTheMiddle) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        PostTo(queue, WORKER, 0, [&worker] {
            worker.Stop(nullptr);
            return CM_OK;
        });
        {
            CThreadOf poster([&queue] { queue.PostEvent(new CWatchedEvent(1), NORMAL); });
            queue.PostEvent(new CWatchedEvent(2), NORMAL);
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nEnded == 1 && FateOf(2).m_nEnded == 1);
        worker.Destory(CM_OK);
    });
}

}  // namespace kelto_test
