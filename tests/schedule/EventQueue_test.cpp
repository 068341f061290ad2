// Posters, senders and the consumer of an event queue, in every schedule.
#include <gtest/gtest.h>

#include "CmThread.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr auto NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

ACmThread& MakeWorker(bool aWithTimers = false) {
    ACmThread* pThread = nullptr;
    SCHEDULE_EXPECT(CreateUserTaskThread(&pThread, TF_JOINABLE, aWithTimers, 1) == CM_OK);
    return *pThread;
}

void EndWorker(ACmThread& aWorker) {
    aWorker.Stop(nullptr);
    SCHEDULE_EXPECT(aWorker.Join() == CM_OK);
    aWorker.Destory(CM_OK);
}

}  // namespace

TEST(ScheduledQueue, RunsWhatWasPosted_BeforeAWorkerIsStopped) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        SCHEDULE_EXPECT(worker.GetEventQueue()->PostEvent(new CWatchedEvent(0), NORMAL) == CM_OK);
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredOn == 1);
    });
}

TEST(ScheduledQueue, RunsAllInTheirOrder_WhenTwoThreadsPost) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        ICmEventQueue& queue = *worker.GetEventQueue();
        {
            CThreadOf poster([&queue] {
                SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(0), NORMAL) == CM_OK);
                SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(1), NORMAL) == CM_OK);
            });
            SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(2), NORMAL) == CM_OK);
            SCHEDULE_EXPECT(queue.PostEvent(new CWatchedEvent(3), NORMAL) == CM_OK);
        }
        EndWorker(worker);
        SCHEDULE_EXPECT(FateOf(0).m_nFiredAs < FateOf(1).m_nFiredAs);
        SCHEDULE_EXPECT(FateOf(2).m_nFiredAs < FateOf(3).m_nFiredAs);
    });
}

}  // namespace kelto_test
