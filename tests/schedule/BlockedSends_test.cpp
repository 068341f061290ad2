// Threads whose sends wait for each other, in every schedule: a line says so exactly when they do.
#include "CmBlockedSends.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "CmLifeGuard.h"
#include "CmTrace.h"
#include "CmWorker.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

int s_nSaid = 0;
int s_nThreadsSaid = 0;
int s_nSaidBy = 0;  // the thread

void TakeLine(unsigned long /*aLevel*/, const char* aText, unsigned int /*aLength*/) {
    const char* pszNames = std::strstr(aText, "threads wait for each other: ");
    if (pszNames == nullptr) {
        return;
    }
    ++s_nSaid;
    s_nSaidBy = ThreadNumber();
    s_nThreadsSaid = 0;
    while ((pszNames = std::strstr(pszNames, " -> ")) != nullptr) {
        ++pszNames;
        ++s_nThreadsSaid;
    }
}

// While it lives, sends are watched.
class CWatching {
  public:
    CWatching() : m_pfnBefore(g_util_trace_sink.load()) {
        s_nSaid = 0;
        s_nThreadsSaid = 0;
        set_util_external_trace_sink(&TakeLine);
        CCmBlockedSend::SwitchOn(true);
    }
    ~CWatching() {
        CCmBlockedSend::SwitchOn(false);
        set_util_external_trace_sink(m_pfnBefore);
    }
    CWatching(const CWatching&) = delete;
    CWatching& operator=(const CWatching&) = delete;

  private:
    const UtilTraceSink m_pfnBefore;
};

bool HaveEnded(int aFrom, int aTo) {
    for (int i = aFrom; i <= aTo; ++i) {
        if (FateOf(i).m_nEnded == 0) {
            return false;
        }
    }
    return true;
}

bool AllSleep(int aThreads) {
    for (int i = 1; i <= aThreads; ++i) {
        if (!Sleeps(i)) {
            return false;
        }
    }
    return true;
}

auto& QueueOf(ACmThread& aWorker) {
    return static_cast<CCmEventQueueUsingConditionVariable&>(*aWorker.GetEventQueue());
}

// An event that sends another one to aTo.
CWatchedEvent* Sending(int aId, ICmEventQueue& aTo, int aSent) {
    return new CWatchedEvent(aId, [&aTo, aSent] {
        const CmResult rv = aTo.SendEvent(new CWatchedEvent(aSent));
        SCHEDULE_EXPECT(CM_FAILED(rv) || FateOf(aSent).m_nFired == 1);
        return CM_OK;
    });
}

// For the end of a scenario whose threads 1 to aThreads send the events from aFirst on, one each,
// in a circle; aHaveReturned tells when none waits any more. Waits until none does, and nothing has
// been said then; or all sleep for good, which has been said once. aBreak ends one of the waits.
template <class ReturnedType, class BreakType>
void JudgeCircle(int aThreads, int aFirst, ReturnedType aHaveReturned, BreakType aBreak) {
    WaitUntil([&] { return aHaveReturned() || (s_nSaid > 0 && AllSleep(aThreads)); });
    if (aHaveReturned()) {
        SCHEDULE_EXPECT(s_nSaid == 0);
        return;
    }
    for (int i = 0; i < aThreads; ++i) {
        SCHEDULE_EXPECT(FateOf(aFirst + i).m_nMade == 1 && FateOf(aFirst + i).m_nEnded == 0);
    }
    SCHEDULE_EXPECT(s_nSaid == 1 && s_nThreadsSaid == aThreads);
    aBreak();
    WaitUntil(aHaveReturned);
    SCHEDULE_EXPECT(s_nSaid == 1);
}

// Two workers, an event of each of which sends one to the other.
void SendAcross() {
    const CWatching watching;
    ACmThread& first = MakeWorker();
    ACmThread& second = MakeWorker();
    QueueOf(first).PostEvent(Sending(0, QueueOf(second), 2), NORMAL);
    QueueOf(second).PostEvent(Sending(1, QueueOf(first), 3), NORMAL);
    const auto haveReturned = [] { return HaveEnded(0, 1); };
    JudgeCircle(2, 2, haveReturned, [&] {
        QueueOf(first).DestoryPendingEvents();
        // What the first was sent may be no longer pending: taken together with its event 0.
        WaitUntil([&] { return FateOf(3).m_nEnded > 0 || AllSleep(2); });
        if (FateOf(3).m_nEnded == 0) {
            QueueOf(second).DestoryPendingEvents();
        }
    });
    EndWorker(first);
    EndWorker(second);
}

// Threads of which each binds its queue, runs what has been sent to it so far, sends to the next
// thread, and runs the rest. aMeanwhile: what else is done with the queues.
template <class MeanwhileType>
void SendAround(int aThreads, MeanwhileType aMeanwhile) {
    const CWatching watching;
    CCmEventQueueUsingMutex queues[3];
    const auto run = [](CCmEventQueueUsingMutex& aQueue) {
        std::list<ICmEvent*> events;
        if (CM_SUCCEEDED(aQueue.PopPendingEventsLocked(events))) {
            aQueue.ProcessTakenEvents(events);
        }
    };
    bool abReturned[3] = {};
    const auto body = [&](int aOwn) {
        const int nBefore = (aOwn + aThreads - 1) % aThreads;
        queues[aOwn].BindToCurrentThread();
        run(queues[aOwn]);
        queues[(aOwn + 1) % aThreads].SendEvent(new CWatchedEvent(aOwn));
        abReturned[aOwn] = true;
        while (!HaveEnded(nBefore, nBefore)) {
            WaitUntil([nBefore] { return HaveEnded(nBefore, nBefore) || Sleeps(nBefore + 1); });
            run(queues[aOwn]);
        }
    };
    std::vector<std::unique_ptr<CThreadOf>> threads;
    for (int i = 0; i < aThreads; ++i) {
        threads.emplace_back(new CThreadOf([&body, i] { body(i); }));
    }
    aMeanwhile(queues);
    const auto haveReturned = [&] {
        return std::count(abReturned, abReturned + aThreads, true) == aThreads;
    };
    JudgeCircle(aThreads, 0, haveReturned, [&queues] { queues[0].DestoryPendingEvents(); });
}

// A thread of a host that waits for a worker otherwise than by a send, while an event or a timer of
// the worker may send to it. aIsOver tells that neither waits. True when they waited for each
// other.
template <class OverType>
void JudgePair(CCmEventQueueUsingMutex& aQueue, OverType aIsOver) {
    WaitUntil([&] { return aIsOver() || (s_nSaid > 0 && AllSleep(2)); });
    if (aIsOver()) {
        SCHEDULE_EXPECT(s_nSaid == 0);
        return;
    }
    SCHEDULE_EXPECT(s_nSaid == 1 && s_nThreadsSaid == 2);
    SCHEDULE_EXPECT(FateOf(1).m_nMade == 1 && FateOf(1).m_nEnded == 0);
    aQueue.DestoryPendingEvents();
    WaitUntil(aIsOver);
    SCHEDULE_EXPECT(s_nSaid == 1);
}

}  // namespace

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenTwoWorkersSendToEachOther) {
    CSettings settings;
    settings.m_ulSchedules = 400000;
    Explore(&SendAcross, settings);
}

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenTwoThreadsOfAHostSend) {
    Explore([] { SendAround(2, [](auto&) {}); });
}

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenThreeThreadsOfAHostSend) {
    CSettings settings;
    settings.m_ulSchedules = 200000;
    Explore([] { SendAround(3, [](auto&) {}); }, settings);
}

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenAQueueIsStoppedMeanwhile) {
    Explore([] { SendAround(2, [](auto& aQueues) { aQueues[1].SetStopped(); }); });
}

TEST(ScheduledCircle, IsThereInSomeSchedulesAndNotInOthers_WhenTwoThreadsSend) {
    const auto failIfSaid = [](bool aIsSaid) {
        return FirstFailure([aIsSaid] {
            SendAround(2, [](auto&) {});
            SCHEDULE_EXPECT((s_nSaid != 0) != aIsSaid);
        });
    };
    EXPECT_NE("", failIfSaid(true));
    EXPECT_NE("", failIfSaid(false));
}

TEST(ScheduledCircle, IsNotSaid_WhenAThreadSendsBackAfterwards) {
    CSettings settings;
    settings.m_ulSchedules = 100000;
    const auto scenario = [] {
        const CWatching watching;
        ACmThread& first = MakeWorker();
        ACmThread& second = MakeWorker();
        // The second one sends when it has run what it was sent, the sender perhaps not yet awake.
        PostTo(QueueOf(first), 1, 0, [&] {
            return QueueOf(second).SendEvent(new CWatchedEvent(1, [&] {
                QueueOf(second).PostEvent(Sending(2, QueueOf(first), 3), NORMAL);
                return CM_OK;
            }));
        });
        WaitUntil([] { return HaveEnded(0, 0) && HaveEnded(2, 2); });
        SCHEDULE_EXPECT(s_nSaid == 0 && FateOf(3).m_nFired == 1);
        EndWorker(first);
        EndWorker(second);
    };
    Explore(scenario, settings);
}

TEST(ScheduledCircle, IsNotSaid_WhenSendsAreNested) {
    CSettings settings;
    settings.m_ulSchedules = 300000;
    settings.m_nPreemptions = 1;
    Explore(
        [] {
            const CWatching watching;
            ACmThread& first = MakeWorker();
            ACmThread& second = MakeWorker();
            // A third thread sends to the end of the chain meanwhile.
            CThreadOf other([&second] {
                SCHEDULE_EXPECT(QueueOf(second).SendEvent(new CWatchedEvent(2)) == CM_OK);
            });
            SCHEDULE_EXPECT(QueueOf(first).SendEvent(Sending(0, QueueOf(second), 1)) == CM_OK);
            other.Join();
            SCHEDULE_EXPECT(s_nSaid == 0);
            EndWorker(first);
            EndWorker(second);
        },
        settings);
}

TEST(ScheduledCircle, IsNotSaidAgain_WhenAThreadSendsIntoIt) {
    CSettings settings;
    settings.m_nPreemptions = 1;
    Explore(
        [] {
            const CWatching watching;
            CCmEventQueueUsingMutex queues[2];
            CThreadOf first([&queues] {
                queues[0].BindToCurrentThread();
                queues[1].SendEvent(new CWatchedEvent(0));
            });
            CThreadOf second([&queues] {
                queues[1].BindToCurrentThread();
                queues[0].SendEvent(new CWatchedEvent(1));
            });
            CThreadOf third([&queues] { queues[0].SendEvent(new CWatchedEvent(2)); });
            WaitUntil([] { return AllSleep(3); });
            SCHEDULE_EXPECT(s_nSaid == 1 && s_nThreadsSaid == 2);
            queues[0].DestoryPendingEvents();
            queues[1].DestoryPendingEvents();
        },
        settings);
}

TEST(ScheduledCircle, IsNotSaid_WhenOneOfItsSendersHasBeenCancelled) {
    Explore([] {
        const CWatching watching;
        CCmEventQueueUsingMutex queue;
        ACmThread& worker = MakeWorker();
        CThreadOf sender([&] {
            queue.BindToCurrentThread();
            QueueOf(worker).SendEvent(Sending(0, queue, 1));
        });
        sender.Cancel();
        sender.Join();
        const int nSaid = s_nSaid;
        // The system gives the next thread the number of the one that is gone.
        CThreadOf next([&worker] { QueueOf(worker).SendEvent(new CWatchedEvent(2)); });
        WaitUntil([] { return FateOf(0).m_nMade == 0 || AllSleep(2); });
        queue.DestoryPendingEvents();
        next.Join();
        // The worker may have been about to say so.
        SCHEDULE_EXPECT(s_nSaid == nSaid || s_nSaidBy == 1);
        EndWorker(worker);
    });
}

TEST(ScheduledCircle, IsSaid_WhenAThreadJoinsAWorkerThatSendsToIt) {
    Explore([] {
        const CWatching watching;
        CCmEventQueueUsingMutex queue;
        queue.BindToCurrentThread();
        ACmThread& worker = MakeWorker();
        QueueOf(worker).PostEvent(Sending(0, queue, 1), NORMAL);
        worker.Stop(nullptr);
        // The end of this thread's wait, which it cannot bring about itself.
        CThreadOf other([&queue] {
            WaitUntil([] { return s_nSaid > 0 && Sleeps(1); });
            queue.DestoryPendingEvents();
        });
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(s_nSaid == 1 && s_nThreadsSaid == 2);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledCircle, IsNotSaid_WhenTheWorkerThatIsJoinedHasBeenTerminated) {
    Explore([] {
        const CWatching watching;
        CCmEventQueueUsingMutex queue;
        queue.BindToCurrentThread();
        ACmThread& worker = MakeWorker();
        QueueOf(worker).PostEvent(Sending(0, queue, 1), NORMAL);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(s_nSaid == 0);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenACallIsCancelledThatSends) {
    Explore([] {
        const CWatching watching;
        CCmEventQueueUsingMutex queue;
        CCmWorker worker;
        CCmTimerHandle call = CmPostDelayed(worker, CCmTimeValue(),
                                            [&queue] { queue.SendEvent(new CWatchedEvent(1)); });
        bool bIsCancelled = false;
        CThreadOf other([&] {
            queue.BindToCurrentThread();
            call.CancelAndWait();
            bIsCancelled = true;
        });
        JudgePair(queue, [&bIsCancelled] {
            return bIsCancelled && FateOf(1).m_nMade == FateOf(1).m_nEnded;
        });
    });
}

TEST(ScheduledCircle, IsSaidWhereThereIsOne_WhenAGuardEndsWhoseCallableSends) {
    Explore([] {
        const CWatching watching;
        CCmEventQueueUsingMutex queue;
        CCmLifeGuard guard;
        ACmThread& worker = MakeWorker();
        CmPost(worker, guard.Wrap([&queue] { queue.SendEvent(new CWatchedEvent(1)); }));
        bool bHasEnded = false;
        CThreadOf other([&] {
            queue.BindToCurrentThread();
            guard.End();
            bHasEnded = true;
        });
        JudgePair(queue,
                  [&bHasEnded] { return bHasEnded && FateOf(1).m_nMade == FateOf(1).m_nEnded; });
        EndWorker(worker);
    });
}

}  // namespace kelto_test
