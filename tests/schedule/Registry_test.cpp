// The registry of threads while threads end, in every schedule.
#include <gtest/gtest.h>

#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

// Counts the registered threads of type 1. Each is alive while the list is locked.
int CountRegistered() {
    int nCount = 0;
    SCHEDULE_EXPECT(g_thread_Mutex.Lock() == CM_OK);
    for (ACmThread* pThread : g_threadList) {
        nCount += pThread->GetThreadType() == 1 && pThread->GetThreadId() != pthread_t() ? 1 : 0;
        pThread->GetStopFlag();
    }
    SCHEDULE_EXPECT(g_thread_Mutex.UnLock() == CM_OK);
    return nCount;
}

}  // namespace

TEST(ScheduledRegistry, HasLivingThreadsAlone_WhenADetachedWorkerEnds) {
    Explore([] {
        const int nBefore = CountRegistered();
        ACmThread& worker = MakeWorker(TF_DETACHED);
        SCHEDULE_EXPECT(CountRegistered() == nBefore + 1);
        worker.Stop(nullptr);
        worker.Destory(CM_OK);
        const int nAfter = CountRegistered();
        SCHEDULE_EXPECT(nAfter == nBefore || nAfter == nBefore + 1);
        WaitUntil([] { return g_threadList.empty(); });
        SCHEDULE_EXPECT(CountRegistered() == 0);
    });
}

TEST(ScheduledRegistry, TellsEachThreadItsObject_WhenAnotherStartsAndEnds) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        CThreadOf other([] { EndWorker(MakeWorker()); });
        PostTo(*worker.GetEventQueue(), 1, 0, [&worker] {
            SCHEDULE_EXPECT(getCurrentThread() == &worker);
            return CM_OK;
        });
        SCHEDULE_EXPECT(getCurrentThread() == nullptr);
        EndWorker(worker);
        other.Join();
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
        SCHEDULE_EXPECT(g_threadList.empty());
    });
}

TEST(ScheduledRegistry, TellsAnEventItsThread_WhenADetachedOneIsStoppedAndFreed) {
    Explore([] {
        ACmThread* const pWorker = &MakeWorker(TF_DETACHED);
        bool bFreed = false;
        PostTo(*pWorker->GetEventQueue(), 1, 0, [pWorker, &bFreed] {
            // Destory takes it out of the registry, though its thread goes on.
            const ACmThread* const pFound = getCurrentThread();
            SCHEDULE_EXPECT(pFound == pWorker || (bFreed && pFound == nullptr));
            return CM_OK;
        });
        {
            CThreadOf other([] { SCHEDULE_EXPECT(getCurrentThread() == nullptr); });
            pWorker->Stop(nullptr);
            bFreed = true;
            pWorker->Destory(CM_OK);
        }
        WaitUntil([] { return FateOf(0).m_nEnded > 0 && g_threadList.empty(); });
    });
}

TEST(ScheduledRegistry, KeepsTheOthers_WhenOneIsTakenOutMeanwhile) {
    Explore([] {
        ACmThread& first = MakeWorker();
        ACmThread& second = MakeWorker();
        {
            CThreadOf other([&first] {
                SCHEDULE_EXPECT(UnRegisterThread(&first) == CM_OK);
                SCHEDULE_EXPECT(UnRegisterThread(&first) == CM_ERROR_NOT_FOUND);
                SCHEDULE_EXPECT(RegisterThread(&first) == CM_OK);
            });
            const int nCount = CountRegistered();
            SCHEDULE_EXPECT(nCount == 1 || nCount == 2);
            EndWorker(second);
        }
        SCHEDULE_EXPECT(CountRegistered() == 1);
        EndWorker(first);
        SCHEDULE_EXPECT(CountRegistered() == 0);
    });
}

}  // namespace kelto_test
