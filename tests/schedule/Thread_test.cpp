// Threads from their creation to their end, in every schedule.
#include <gtest/gtest.h>

#include <atomic>

#include "CmSystem.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr int WORKER = 1;  // the number of the first worker's thread

// Says what has happened to it.
class CBareThread : public ACmThread {
  public:
    static std::atomic<int> s_nBodies;
    static std::atomic<int> s_nFreed;

    explicit CBareThread(CmResult aInitResult = CM_OK) : m_InitResult(aInitResult) {
        s_nBodies = 0;
        s_nFreed = 0;
    }
    ~CBareThread() override { ++s_nFreed; }

    void OnThreadInit() override {
        if (CM_FAILED(m_InitResult)) {
            SetInitResult(m_InitResult);
        }
        m_bInitialized = true;
    }
    void OnThreadRun() override {
        SCHEDULE_EXPECT(m_bInitialized);
        ++s_nBodies;
    }

    bool m_bInitialized = false;

  private:
    const CmResult m_InitResult;
};

std::atomic<int> CBareThread::s_nBodies{0};
std::atomic<int> CBareThread::s_nFreed{0};

// A worker whose event, when it fires, waits at a cancellation point.
void PostNap(ACmThread& aWorker, int aId) {
    PostTo(*aWorker.GetEventQueue(), WORKER, aId, [] {
        const timespec tsNap = {0, 1000};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        return CM_OK;
    });
}

}  // namespace

TEST(ScheduledThread, IsInitialized_WhenCreateReturns) {
    Explore([] {
        auto* const pThread = new CBareThread;
        SCHEDULE_EXPECT(pThread->Create(1, TF_JOINABLE, 1) == CM_OK);
        SCHEDULE_EXPECT(pThread->m_bInitialized);
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        SCHEDULE_EXPECT(CBareThread::s_nBodies == 1 && pThread->GetStopFlag());
        pThread->Destory(CM_OK);
        SCHEDULE_EXPECT(CBareThread::s_nFreed == 1);
    });
}

TEST(ScheduledThread, RunsNoBody_WhenItsInitializationFails) {
    Explore([] {
        auto* const pThread = new CBareThread(CM_ERROR_NOT_AVAILABLE);
        const TFlag flag = Choose(2) == 0 ? TF_JOINABLE : TF_DETACHED;
        SCHEDULE_EXPECT(pThread->Create(1, flag, 1) == CM_ERROR_NOT_AVAILABLE);
        pThread->Destory(CM_OK);
        WaitUntil([] { return CBareThread::s_nFreed == 1; });
        SCHEDULE_EXPECT(CBareThread::s_nBodies == 0);
    });
}

TEST(ScheduledThread, IsFreedOnce_WhenADetachedBodyEndsMeanwhile) {
    Explore([] {
        auto* const pThread = new CBareThread;
        SCHEDULE_EXPECT(pThread->Create(1, TF_DETACHED, 1) == CM_OK);
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        pThread->Destory(CM_OK);
        WaitUntil([] { return CBareThread::s_nFreed == 1; });
        SCHEDULE_EXPECT(CBareThread::s_nBodies == 1);
    });
}

TEST(ScheduledThread, IsFreedOnce_WhenADetachedOneIsTerminated) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_DETACHED);
        worker.Terminate();
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledThread, IsFreedOnce_WhenADetachedWorkerIsStopped) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_DETACHED);
        PostTo(*worker.GetEventQueue(), WORKER, 0);
        worker.Stop(nullptr);
        worker.Destory(CM_OK);
        WaitUntil([] { return FateOf(0).m_nEnded > 0; });
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
    });
}

TEST(ScheduledThread, CanBeCreatedAgain_WhenTheSystemHadNoThreadAndItsTypeIsUnknown) {
    Explore([] {
        auto* const pThread = new CBareThread;
        const int nType = Choose(2) == 0 ? TT_UNKNOWN : 1;
        FailCall(EFault::CREATE, 1);
        SCHEDULE_EXPECT(pThread->Create(nType, TF_JOINABLE, 1) == CM_ERROR_UNEXPECTED);
        SCHEDULE_EXPECT(pThread->Create(nType, TF_JOINABLE, 1) ==
                        (nType == TT_UNKNOWN ? CM_OK : CM_ERROR_ALREADY_INITIALIZED));
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        SCHEDULE_EXPECT(CBareThread::s_nBodies == (nType == TT_UNKNOWN ? 1 : 0));
        pThread->Destory(CM_OK);
        SCHEDULE_EXPECT(CBareThread::s_nFreed == 1);
    });
}

TEST(ScheduledThread, IsCreated_WhenTheSignalOfItsStartFails) {
    Explore([] {
        // The creator looks for itself.
        class CThread : public CBareThread {
          public:
            void OnThreadInit() override {
                FailCall(EFault::SIGNAL, 1);
                CBareThread::OnThreadInit();
            }
        };
        auto* const pThread = new CThread;
        SCHEDULE_EXPECT(pThread->Create(1, TF_JOINABLE, 1) == CM_OK);
        SCHEDULE_EXPECT(pThread->m_bInitialized);
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        pThread->Destory(CM_OK);
    });
}

TEST(ScheduledThread, IsCreated_WhenTheWaitForItsStartFails) {
    Explore([] {
        auto* const pThread = new CBareThread;
        FailCall(EFault::WAIT, 1);
        SCHEDULE_EXPECT(pThread->Create(1, TF_JOINABLE, 1) == CM_OK);
        FailCall(EFault::WAIT, 0);
        SCHEDULE_EXPECT(pThread->m_bInitialized);
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        pThread->Destory(CM_OK);
    });
}

TEST(ScheduledThread, IsCreated_WhenAnotherThreadCreatesOneToo) {
    Explore([] {
        {
            CThreadOf other([] {
                auto* const pThread = new CBareThread;
                SCHEDULE_EXPECT(pThread->Create(1, TF_JOINABLE, 1) == CM_OK);
                SCHEDULE_EXPECT(pThread->Join() == CM_OK);
                pThread->Destory(CM_OK);
            });
            EndWorker(MakeWorker());
        }
        SCHEDULE_EXPECT(CBareThread::s_nFreed == 1);
    });
}

TEST(ScheduledThread, IsNotCreated_WhenMemoryRunsOut) {
    Explore([] {
        ACmThread* pThread = nullptr;
        FailCall(EFault::ALLOCATION, 1 + Choose(6));
        const CmResult rv = CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1);
        FailCall(EFault::ALLOCATION, 0);
        SCHEDULE_EXPECT((rv == CM_OK) == (pThread != nullptr));
        if (pThread != nullptr) {
            EndWorker(*pThread);
        }
    });
}

TEST(ScheduledThread, EndsEachEventOnce_WhenItIsTerminatedAtAnyPoint) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        PostNap(worker, 0);
        PostNap(worker, 1);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1 || FateOf(1).m_nFired == 0);
    });
}

TEST(ScheduledThread, EndsEachEventOnce_WhenItIsStoppedAndTerminated) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        PostNap(worker, 0);
        worker.Stop(nullptr);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nEnded == 1);
    });
}

TEST(ScheduledThread, EndsEachEventOnce_WhenTwoTerminateAndPost) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        {
            CThreadOf poster(
                [&worker] { worker.GetEventQueue()->PostEvent(new CWatchedEvent(0), NORMAL); });
            worker.Terminate();
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nEnded == 1);
    });
}

TEST(ScheduledThread, EndsEachEventOnce_WhenAWorkerWithTimersIsTerminated) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        PostNap(worker, 0);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledThread, EndsEachEventOnce_WhenItIsTerminatedWhileOneEnds) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        const auto nap = [] {
            const timespec tsNap = {0, 1000};
            g_cmSystem.nanosleep(&tsNap, nullptr);
        };
        ICmEventQueue& queue = *worker.GetEventQueue();
        PostTo(queue, WORKER, 0, [&worker] {
            worker.Stop(nullptr);
            return CM_OK;
        });
        queue.PostEvent(new CWatchedEvent(1, nullptr, nap), NORMAL);
        worker.Terminate();
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(1).m_nEnded == 1);
    });
}

TEST(ScheduledThread, IsJoinedAgain_WhenTheOneThatJoinsIsCancelled) {
    Explore([] {
        ACmThread& worker = MakeWorker();
        std::atomic<bool> bJoined{false};
        {
            CThreadOf owner([&] { bJoined = worker.Join() == CM_OK; });
            owner.Cancel();
            worker.Stop(nullptr);
        }
        if (!bJoined) {
            SCHEDULE_EXPECT(worker.Join() == CM_OK);
        }
        worker.Destory(CM_OK);
    });
}

TEST(ScheduledThread, IsNotCancelledHalfWay_WhenItsCreatorIs) {
    Explore([] {
        std::atomic<ACmThread*> pWorker{nullptr};
        {
            CThreadOf creator([&pWorker] {
                ACmThread* pThread = nullptr;
                SCHEDULE_EXPECT(CreateUserTaskThread(&pThread, TF_JOINABLE, false, 1) == CM_OK);
                pWorker = pThread;
            });
            creator.Cancel();
        }
        SCHEDULE_EXPECT(pWorker != nullptr);
        EndWorker(*pWorker);
    });
}

TEST(ScheduledThread, RunsWhatIsPending_WhenItIsStoppedBeforeItIsCreated) {
    Explore([] {
        auto* const pThread = new CCmThreadTaskWithEventQueueOnly;
        SCHEDULE_EXPECT(pThread->GetEventQueue()->PostEvent(new CWatchedEvent(0), NORMAL) == CM_OK);
        SCHEDULE_EXPECT(pThread->Stop(nullptr) == CM_OK);
        SCHEDULE_EXPECT(pThread->Create(1, TF_JOINABLE, 1) == CM_OK);
        SCHEDULE_EXPECT(pThread->Join() == CM_OK);
        pThread->Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
    });
}

}  // namespace kelto_test
