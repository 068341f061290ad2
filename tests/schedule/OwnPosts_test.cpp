// What the events of a worker post to it themselves, which takes no lock, against the posts of
// others, in every schedule.
#include <gtest/gtest.h>

#include <array>

#include "CmSystem.h"
#include "CmWorker.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr int WORKER = 1;  // the number of the first worker's thread

typedef CCmEventQueueUsingConditionVariable Queue;

Queue& QueueOf(ACmThread& aWorker) {
    return static_cast<Queue&>(*aWorker.GetEventQueue());
}

// When the posts of up to eight events began and ended.
class CPostLog {
  public:
    void Post(ICmEventQueue& aQueue, int aId, CWatchedEvent::Work aWork = nullptr) {
        CPost& post = m_Posts.at(static_cast<size_t>(aId));
        auto* const pEvent = new CWatchedEvent(aId, std::move(aWork));
        post.m_nBegin = ++m_nClock;
        post.m_Result = aQueue.PostEvent(pEvent, NORMAL);
        post.m_nEnd = ++m_nClock;
    }
    bool IsAccepted(int aId) const {
        const CPost& post = m_Posts.at(static_cast<size_t>(aId));
        return post.m_nEnd != 0 && post.m_Result == CM_OK;
    }
    // Of two events, the one whose post had ended when that of the other began fires first.
    void ExpectOrder() const {
        for (int nFirst = 0; nFirst < EVENTS; ++nFirst) {
            for (int nSecond = 0; nSecond < EVENTS; ++nSecond) {
                const CPost& first = m_Posts.at(static_cast<size_t>(nFirst));
                const CPost& second = m_Posts.at(static_cast<size_t>(nSecond));
                if (first.m_nEnd != 0 && first.m_nEnd < second.m_nBegin &&
                    FateOf(nFirst).m_nFired == 1 && FateOf(nSecond).m_nFired == 1) {
                    SCHEDULE_EXPECT(FateOf(nFirst).m_nFiredAs < FateOf(nSecond).m_nFiredAs);
                }
            }
        }
    }

  private:
    static constexpr int EVENTS = 8;
    struct CPost {
        int m_nBegin = 0;
        int m_nEnd = 0;
        CmResult m_Result = CM_OK;
    };

    int m_nClock = 0;
    std::array<CPost, EVENTS> m_Posts;
};

void ExpectFired(int aCount) {
    for (int nId = 0; nId < aCount; ++nId) {
        SCHEDULE_EXPECT(FateOf(nId).m_nFired == 1);
        SCHEDULE_EXPECT(FateOf(nId).m_nFiredOn == WORKER);
    }
}

}  // namespace

TEST(ScheduledOwnPost, KeepsTheOrderOfPosting_WhenAnotherPostsAsWell) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        CPostLog log;
        log.Post(queue, 0, [&] {
            log.Post(queue, 1);
            log.Post(queue, 2);
            return CM_OK;
        });
        log.Post(queue, 3);
        log.Post(queue, 4);
        WaitUntil([] {
            return FateOf(2).m_nEnded > 0 && FateOf(3).m_nEnded > 0 && FateOf(4).m_nEnded > 0;
        });
        EndWorker(worker);
        ExpectFired(5);
        log.ExpectOrder();
    });
}

TEST(ScheduledOwnPost, KeepsTheOrderOfPosting_WhenTheEventsPostOnAndTwoOthersPost) {
    CSettings settings;
    settings.m_nPreemptions = 1;
    Explore(
        [] {
            ACmThread& worker = MakeWorker();
            ICmEventQueue& queue = *worker.GetEventQueue();
            CPostLog log;
            log.Post(queue, 0, [&] {
                log.Post(queue, 1, [&] {
                    log.Post(queue, 2);
                    return CM_OK;
                });
                log.Post(queue, 3);
                return CM_OK;
            });
            {
                CThreadOf other([&] { log.Post(queue, 4); });
                log.Post(queue, 5);
            }
            WaitUntil([] {
                return FateOf(2).m_nEnded > 0 && FateOf(3).m_nEnded > 0 && FateOf(4).m_nEnded > 0 &&
                       FateOf(5).m_nEnded > 0;
            });
            EndWorker(worker);
            ExpectFired(6);
            log.ExpectOrder();
        },
        settings);
}

TEST(ScheduledOwnPost, IsCounted_WhileItIsPending) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        bool bPosted = false;
        bool bSeen = false;
        bool bCounted = false;
        PostTo(queue, WORKER, 0, [&] {
            PostTo(queue, WORKER, 1);
            PostTo(queue, WORKER, 2);
            SCHEDULE_EXPECT(queue.GetPendingEventsCount() == 2);
            bPosted = true;
            WaitUntil([&bSeen] { return bSeen; });
            SCHEDULE_EXPECT(queue.GetPendingEventsCount() == 3);
            bCounted = true;
            return CM_OK;
        });
        WaitUntil([&bPosted] { return bPosted; });
        SCHEDULE_EXPECT(queue.GetPendingEventsCount() == 2);
        SCHEDULE_EXPECT(!QueueOf(worker).IsStoppedAndEmpty());
        SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(3), NORMAL) == CM_OK);
        SCHEDULE_EXPECT(queue.GetPendingEventsCount() == 3);
        bSeen = true;
        WaitUntil([&bCounted] { return bCounted; });
        EndWorker(worker);
        ExpectFired(4);
        SCHEDULE_EXPECT(FateOf(2).m_nFiredAs < FateOf(3).m_nFiredAs);
    });
}

TEST(ScheduledOwnPost, IsNeverMissedByTheCount_WhileThePostsOfAnotherMoveIt) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        bool bPosted = false;
        PostTo(queue, WORKER, 0, [&] {
            PostTo(queue, WORKER, 1);
            bPosted = true;
            PostTo(queue, WORKER, 2);
            return CM_OK;
        });
        {
            // The second post of the event finds the queue not empty and moves the first there.
            CThreadOf other([&queue] { PostTo(queue, WORKER, 3); });
            WaitUntil([&bPosted] { return bPosted; });
            const DWORD dwCount = queue.GetPendingEventsCount();
            SCHEDULE_EXPECT(FateOf(0).m_nEnded > 0 || dwCount >= 1);
        }
        WaitUntil([] { return FateOf(2).m_nEnded > 0; });
        EndWorker(worker);
        ExpectFired(4);
        SCHEDULE_EXPECT(FateOf(1).m_nFiredAs < FateOf(2).m_nFiredAs);
    });
}

TEST(ScheduledOwnPost, EndsWithoutHavingFired_WhenAnotherThreadDestroysWhatIsPending) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        Queue& queue = QueueOf(worker);
        bool bPosted = false;
        bool bDestroyed = false;
        PostTo(queue, WORKER, 0, [&] {
            PostTo(queue, WORKER, 1);
            PostTo(queue, WORKER, 2);
            bPosted = true;
            WaitUntil([&bDestroyed] { return bDestroyed; });
            PostTo(queue, WORKER, 3);
            return CM_OK;
        });
        WaitUntil([&bPosted] { return bPosted; });
        queue.DestoryPendingEvents();
        bDestroyed = true;
        PostTo(queue, WORKER, 4);
        WaitUntil([] { return FateOf(3).m_nEnded > 0 && FateOf(4).m_nEnded > 0; });
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(1).m_nFired == 0 && FateOf(1).m_nEnded == 1);
        SCHEDULE_EXPECT(FateOf(2).m_nFired == 0 && FateOf(2).m_nEnded == 1);
        SCHEDULE_EXPECT(FateOf(3).m_nFired == 1 && FateOf(4).m_nFired == 1);
    });
}

TEST(ScheduledOwnPost, EndsOnce_WhenAnotherThreadDestroysWhatIsPendingMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        Queue& queue = QueueOf(worker);
        CPostLog log;
        bool bPosted = false;
        log.Post(queue, 0, [&] {
            log.Post(queue, 1);
            log.Post(queue, 2);
            bPosted = true;
            return CM_OK;
        });
        const bool bAfterPosts = Choose(2) == 1;
        WaitUntil([&] { return bPosted || !bAfterPosts; });
        queue.DestoryPendingEvents();
        // What is posted after that runs.
        log.Post(queue, 3);
        WaitUntil([] { return FateOf(3).m_nEnded > 0; });
        EndWorker(worker);
        for (int nId = 0; nId < 3; ++nId) {
            SCHEDULE_EXPECT(FateOf(nId).m_nMade == FateOf(nId).m_nEnded);
        }
        SCHEDULE_EXPECT(FateOf(3).m_nFired == 1);
        log.ExpectOrder();
    });
}

TEST(ScheduledOwnPost, RunsOrIsRefused_WhenTheWorkerIsStoppedMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        CPostLog log;
        log.Post(queue, 0, [&] {
            log.Post(queue, 1);
            log.Post(queue, 2);
            return CM_OK;
        });
        SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
        for (int nId = 1; nId < 3; ++nId) {
            SCHEDULE_EXPECT(log.IsAccepted(nId) || FateOf(nId).m_nFired == 0);
        }
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nEnded == 1 && FateOf(2).m_nEnded == 1);
        log.ExpectOrder();
    });
}

TEST(ScheduledOwnPost, IsRefused_WhenTheWorkerWasStoppedAtOnce) {
    Explore([] {
        CCmWorker worker;
        SCHEDULE_EXPECT(worker.Result() == CM_OK);
        ICmEventQueue& queue = *worker.GetEventQueue();
        CPostLog log;
        const bool bHasPosted = Choose(2) == 1;
        bool bFires = false;
        bool bStopped = false;
        log.Post(queue, 0, [&] {
            if (bHasPosted) {
                log.Post(queue, 1);
            }
            bFires = true;
            WaitUntil([&bStopped] { return bStopped; });
            log.Post(queue, 2);
            return CM_OK;
        });
        WaitUntil([&bFires] { return bFires; });
        SCHEDULE_EXPECT(worker.StopNow() == CM_OK);
        bStopped = true;
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nFired == 0 && FateOf(1).m_nEnded == (bHasPosted ? 1 : 0));
        SCHEDULE_EXPECT(!log.IsAccepted(2) && FateOf(2).m_nEndedOn == WORKER);
    });
}

TEST(ScheduledOwnPost, IsRefused_WhenAnEventHasClosedTheQueue) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        Queue& queue = QueueOf(worker);
        CPostLog log;
        const bool bHasPosted = Choose(2) == 1;
        log.Post(queue, 0, [&] {
            if (bHasPosted) {
                log.Post(queue, 1);
            }
            queue.SetStopped();
            log.Post(queue, 2);
            return CM_OK;
        });
        log.Post(queue, 3);
        WaitUntil([&] {
            return FateOf(bHasPosted ? 1 : 0).m_nEnded > 0 &&
                   (!log.IsAccepted(3) || FateOf(3).m_nEnded > 0);
        });
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nFired == (bHasPosted ? 1 : 0));
        SCHEDULE_EXPECT(!log.IsAccepted(2) && FateOf(2).m_nEndedOn == WORKER);
        log.ExpectOrder();
    });
}

TEST(ScheduledOwnPost, EndsOnce_WhenTheWorkerIsTerminatedMeanwhile) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        CPostLog log;
        log.Post(queue, 0, [&] {
            log.Post(queue, 1);
            log.Post(queue, 2);
            const timespec tsNap = {0, 1000};
            g_cmSystem.nanosleep(&tsNap, nullptr);
            return CM_OK;
        });
        log.Post(queue, 3);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        for (int nId = 0; nId < 4; ++nId) {
            SCHEDULE_EXPECT(FateOf(nId).m_nMade == FateOf(nId).m_nEnded);
        }
        log.ExpectOrder();
    });
}

TEST(ScheduledOwnPost, RunsBeforeTheSendThatFollowsIt) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        bool bPosted = false;
        PostTo(queue, WORKER, 0, [&] {
            PostTo(queue, WORKER, 1);
            bPosted = true;
            return CM_OK;
        });
        WaitUntil([&bPosted] { return bPosted; });
        SCHEDULE_EXPECT(queue.SendEvent(new CWatchedEvent(2)) == CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nEnded == 1);
        SCHEDULE_EXPECT(FateOf(1).m_nFiredAs < FateOf(2).m_nFiredAs);
        EndWorker(worker);
    });
}

}  // namespace kelto_test
