// Synchronous sends against everything that may happen to the queue meanwhile, in every schedule.
#include <gtest/gtest.h>

#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr int WORKER = 1;  // the number of the first worker's thread
constexpr CmResult ANSWER = 4711;

CWatchedEvent* Answering(int aId) {
    return new CWatchedEvent(aId, [] { return ANSWER; });
}

// Sends an event, whatever becomes of it: its result is that of the event only if it has fired.
void SendSomehow(ICmEventQueue& aQueue, int aId) {
    const CmResult rv = aQueue.SendEvent(Answering(aId));
    SCHEDULE_EXPECT(rv != ANSWER || FateOf(aId).m_nFired == 1);
    SCHEDULE_EXPECT(CM_FAILED(rv) || rv == ANSWER);
    SCHEDULE_EXPECT(FateOf(aId).m_nFired == 0 || FateOf(aId).m_nFiredOn == WORKER);
}

}  // namespace

TEST(ScheduledSend, ReturnsWhatTheEventDoes) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        SCHEDULE_EXPECT(worker.GetEventQueue()->SendEvent(Answering(0)) == ANSWER);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredOn == WORKER);
        EndWorker(worker);
    });
}

TEST(ScheduledSend, KeepsTheOrderOfItsThread_WhenItPostsAsWell) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        PostTo(queue, WORKER, 0);
        SCHEDULE_EXPECT(queue.SendEvent(Answering(1)) == ANSWER);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs == 0 && FateOf(0).m_nEnded == 1);
        EndWorker(worker);
    });
}

TEST(ScheduledSend, ReturnsToEach_WhenTwoThreadsSend) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf other([&queue] { SCHEDULE_EXPECT(queue.SendEvent(Answering(0)) == ANSWER); });
            SCHEDULE_EXPECT(queue.SendEvent(Answering(1)) == ANSWER);
        }
        EndWorker(worker);
    });
}

TEST(ScheduledSend, RunsAtOnce_WhenItIsNestedOnTheWorker) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        const CmResult rv = queue.SendEvent(new CWatchedEvent(0, [&queue] {
            SCHEDULE_EXPECT(queue.SendEvent(Answering(1)) == ANSWER);
            return CM_OK;
        }));
        SCHEDULE_EXPECT(rv == CM_OK);
        EndWorker(worker);
    });
}

TEST(ScheduledSend, ReturnsThroughTwoWorkers_WhenTheyAreNested) {
    Explore([] {
        ACmThread& first = MakeWorker();
        ACmThread& second = MakeWorker();
        const CmResult rv = first.GetEventQueue()->SendEvent(new CWatchedEvent(0, [&second] {
            SCHEDULE_EXPECT(second.GetEventQueue()->SendEvent(Answering(1)) == ANSWER);
            return ANSWER;
        }));
        SCHEDULE_EXPECT(rv == ANSWER);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredOn == 1 && FateOf(1).m_nFiredOn == 2);
        EndWorker(first);
        EndWorker(second);
    });
}

TEST(ScheduledSend, ReturnsThroughTwoWorkers_WhenTheSecondIsStoppedMeanwhile) {
    Explore([] {
        ACmThread& first = MakeWorker();
        ACmThread& second = MakeWorker();
        PostTo(*first.GetEventQueue(), 1, 0, [&second] {
            const CmResult rv = second.GetEventQueue()->SendEvent(Answering(1));
            SCHEDULE_EXPECT(rv == ANSWER || CM_FAILED(rv));
            return CM_OK;
        });
        SCHEDULE_EXPECT(second.Stop(nullptr) == CM_OK);
        SCHEDULE_EXPECT(second.Join() == CM_OK);
        EndWorker(first);
        second.Destory(CM_OK);
    });
}

TEST(ScheduledSend, EndsTheEventWhereItFired_WhenTheWorkerIsStoppedMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledSend, Returns_WhenTheWorkerIsTerminatedAndFreedMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            worker.Terminate();
            worker.Stop(nullptr);
            SCHEDULE_EXPECT(worker.Join() == CM_OK);
            // What it left is destroyed with its queue, and the sender sleeps until then.
            WaitUntil([] { return FateOf(0).m_nEnded > 0 || Sleeps(2); });
            worker.Destory(CM_OK);
        }
    });
}

TEST(ScheduledSend, IsOutlivedByTheQueue_WhenThatIsFreedOnItsWayBack) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            WaitUntil([] { return FateOf(0).m_nFired > 0; });
            EndWorker(worker);
        }
    });
}

TEST(ScheduledSend, IsOutlivedByTheQueue_WhenTwoAreOnTheirWayBack) {
    CSettings settings;
    settings.m_nPreemptions = 1;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            {
                CThreadOf first([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
                CThreadOf second([&worker] { SendSomehow(*worker.GetEventQueue(), 1); });
                WaitUntil([] { return FateOf(0).m_nFired > 0 && FateOf(1).m_nFired > 0; });
                EndWorker(worker);
            }
        },
        settings);
}

TEST(ScheduledSend, LeavesTheEventToTheQueue_WhenItsWaitFails) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        FailCall(EFault::WAIT, 1);
        const CmResult rv = worker.GetEventQueue()->SendEvent(Answering(0));
        FailCall(EFault::WAIT, 0);
        SCHEDULE_EXPECT(rv == ANSWER || rv == CM_ERROR_FAILURE);
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
    });
}

TEST(ScheduledSend, LeavesTheEventToTheQueue_WhenItsWaitFailsAndTheQueueIsFreed) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] {
                FailCall(EFault::WAIT, 1);
                SendSomehow(*worker.GetEventQueue(), 0);
            });
            WaitUntil([] { return FateOf(0).m_nFired > 0; });
            EndWorker(worker);
        }
    });
}

TEST(ScheduledSend, EndsTheEventWhereItFired_WhenAnAllocationFailsOnItsWay) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        auto* const pEvent = Answering(0);
        FailCall(EFault::ALLOCATION, 1 + Choose(4));
        const CmResult rv = worker.GetEventQueue()->SendEvent(pEvent);
        FailCall(EFault::ALLOCATION, 0);
        SCHEDULE_EXPECT(rv == ANSWER || rv == CM_ERROR_OUT_OF_MEMORY);
        SCHEDULE_EXPECT((rv == ANSWER) == (FateOf(0).m_nFired == 1));
        EndWorker(worker);
    });
}

TEST(ScheduledSend, WakesItsSender_WhenTheFirstSignalFails) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        PostTo(*worker.GetEventQueue(), WORKER, 0, [] {
            FailCall(EFault::SIGNAL, 1 + Choose(2));
            return CM_OK;
        });
        SCHEDULE_EXPECT(worker.GetEventQueue()->SendEvent(Answering(1)) == ANSWER);
        EndWorker(worker);
    });
}

TEST(ScheduledSend, LeavesTheEventToTheQueue_WhenItsSenderIsCancelled) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            sender.Cancel();
        }
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nMade == FateOf(0).m_nFired);
    });
}

TEST(ScheduledSend, LeavesTheEventToTheQueue_WhenItsSenderIsCancelledAndTheWorkerStops) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
            sender.Cancel();
            SCHEDULE_EXPECT(worker.Join() == CM_OK);
        }
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledSend, IsOutlivedByTheQueue_WhenTheThreadThatFreesItIsCancelled) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
        WaitUntil([] { return FateOf(0).m_nFired > 0; });
        worker.Stop(nullptr);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        CThreadOf owner([&worker] { worker.Destory(CM_OK); });
        owner.Cancel();
    });
}

TEST(ScheduledSend, IsOutlivedByAQueueOfTheHost_WhenTheThreadThatFreesItIsCancelled) {
    Explore([] {
        auto* const pQueue = new CCmEventQueueUsingConditionVariable;
        CThreadOf consumer([pQueue] {
            pQueue->BindToCurrentThread();
            std::list<ICmEvent*> events;
            SCHEDULE_EXPECT(pQueue->PopOrWaitPendingEvents(events, nullptr, 1) == CM_OK);
            pQueue->ProcessEvents(events);
        });
        CThreadOf sender([pQueue] { SendSomehow(*pQueue, 0); });
        consumer.Join();
        CThreadOf owner([pQueue] { delete pQueue; });
        owner.Cancel();
    });
}

TEST(ScheduledSend, ReturnsTwice_WhenSenderAndWorkerHaveCoresOfTheirOwn) {
    CSettings settings;
    settings.m_bOneCore = false;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            SCHEDULE_EXPECT(worker.GetEventQueue()->SendEvent(Answering(0)) == ANSWER);
            SCHEDULE_EXPECT(worker.GetEventQueue()->SendEvent(Answering(1)) == ANSWER);
            EndWorker(worker);
        },
        settings);
}

TEST(ScheduledSend, IsOutlivedByTheQueue_WhenEachThreadHasACoreOfItsOwn) {
    CSettings settings;
    settings.m_bOneCore = false;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
            WaitUntil([] { return FateOf(0).m_nFired > 0; });
            EndWorker(worker);
        },
        settings);
}

TEST(ScheduledSend, WakesTheWorker_WhenAPostFollowsOnAnotherCore) {
    CSettings settings;
    settings.m_bOneCore = false;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            ICmEventQueue& queue = *worker.GetEventQueue();
            SCHEDULE_EXPECT(queue.SendEvent(Answering(0)) == ANSWER);
            PostTo(queue, WORKER, 1);
            WaitUntil([] { return FateOf(1).m_nEnded > 0; });
            SCHEDULE_EXPECT(queue.SendEvent(Answering(2)) == ANSWER);
            EndWorker(worker);
        },
        settings);
}

TEST(ScheduledSend, ReturnsToEach_WhenTwoSendersHaveCoresOfTheirOwn) {
    CSettings settings;
    settings.m_bOneCore = false;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            ICmEventQueue& queue = *worker.GetEventQueue();
            {
                CThreadOf other(
                    [&queue] { SCHEDULE_EXPECT(queue.SendEvent(Answering(0)) == ANSWER); });
                SCHEDULE_EXPECT(queue.SendEvent(Answering(1)) == ANSWER);
            }
            EndWorker(worker);
        },
        settings);
}

TEST(ScheduledSend, EndsTheEventWhereItFired_WhenAWorkerOnAnotherCoreIsStopped) {
    CSettings settings;
    settings.m_bOneCore = false;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            {
                CThreadOf sender([&worker] { SendSomehow(*worker.GetEventQueue(), 0); });
                SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
            }
            SCHEDULE_EXPECT(worker.Join() == CM_OK);
            worker.Destory(CM_OK);
        },
        settings);
}

TEST(ScheduledSend, Returns_WhenItsQueueHasNoLock) {
    Explore([] {
        auto* const pThread = new CCmThreadHeartBeat;
        SCHEDULE_EXPECT(pThread->Create(TT_MAIN, TF_JOINABLE, 0) == CM_OK);
        pThread->OnThreadInit();
        {
            CThreadOf sender([pThread] {
                SCHEDULE_EXPECT(pThread->GetEventQueue()->SendEvent(Answering(0)) == ANSWER);
            });
            WaitUntil([] { return Sleeps(1); });
            pThread->DoHeartBeat();
            sender.Join();
            pThread->DoHeartBeat();
        }
        SCHEDULE_EXPECT(FateOf(0).m_nFiredOn == 0);
        pThread->Destory(CM_OK);
    });
}

}  // namespace kelto_test
