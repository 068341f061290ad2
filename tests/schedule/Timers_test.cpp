// Timers that posts schedule and cancel, in every schedule.
#include <gtest/gtest.h>

#include "CmSystem.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr int WORKER = 1;  // the number of the first worker's thread
constexpr long INTERVAL_USEC = 1000;

// A timer of the worker WORKER. Judged: it fires on that thread, at its time or later, as often as
// it may, and not after it was cancelled.
class CTimer final : public ICmTimerHandler {
  public:
    explicit CTimer(std::function<void()> aWork = nullptr) : m_Work(std::move(aWork)) {}

    // On the worker.
    void Schedule(unsigned int aCount) {
        m_pQueue = getCurrentThread()->GetTimerQueue();
        m_llDue = NowNsec() + INTERVAL_USEC * 1000;
        m_uLeft = aCount == 0 ? 1000 : aCount;
        SCHEDULE_EXPECT(m_pQueue->ScheduleTimer(this, nullptr, CCmTimeValue(0, INTERVAL_USEC),
                                                aCount) == CM_OK);
    }
    // The queue has it exactly if it may still fire; nobody else cancels it.
    void Cancel() {
        const bool bScheduled = m_pQueue != nullptr && m_uLeft > 0;
        const CmResult rv = m_pQueue != nullptr ? m_pQueue->CancelTimer(this) : CM_ERROR_NOT_FOUND;
        SCHEDULE_EXPECT((rv == CM_OK) == bScheduled || m_bRuns);
        m_uLeft = 0;
    }
    void OnTimeout(const CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override {
        SCHEDULE_EXPECT(ThreadNumber() == WORKER);
        SCHEDULE_EXPECT(m_uLeft > 0);
        SCHEDULE_EXPECT(NowNsec() >= m_llDue);
        m_llDue += INTERVAL_USEC * 1000;
        --m_uLeft;
        ++m_nFired;
        m_bRuns = true;
        if (m_Work) {
            m_Work();
        }
        m_bRuns = false;
    }
    int Fired() const { return m_nFired; }

  private:
    const std::function<void()> m_Work;
    ICmTimerQueue* m_pQueue = nullptr;
    long long m_llDue = 0;
    unsigned m_uLeft = 0;
    int m_nFired = 0;
    bool m_bRuns = false;
};

CWatchedEvent::Work Scheduling(CTimer& aTimer, unsigned int aCount) {
    return [&aTimer, aCount] {
        aTimer.Schedule(aCount);
        return CM_OK;
    };
}

CWatchedEvent::Work Cancelling(CTimer& aTimer) {
    return [&aTimer] {
        aTimer.Cancel();
        return CM_OK;
    };
}

}  // namespace

TEST(ScheduledTimer, FiresOnce_WhenAnEventScheduledIt) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        CTimer timer;
        PostTo(*worker.GetEventQueue(), WORKER, 0, Scheduling(timer, 1));
        // It must not keep the worker from events, nor these it from timers.
        PostTo(*worker.GetEventQueue(), WORKER, 1);
        WaitUntil([&timer] { return timer.Fired() == 1; });
        PostTo(*worker.GetEventQueue(), WORKER, 2);
        WaitUntil([] { return FateOf(2).m_nEnded > 0; });
        EndWorker(worker);
        SCHEDULE_EXPECT(timer.Fired() == 1);
    });
}

TEST(ScheduledTimer, DoesNotFireAfterwards_WhenALaterEventCancelsIt) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        CTimer timer;
        PostTo(*worker.GetEventQueue(), WORKER, 0, Scheduling(timer, 0));
        PostTo(*worker.GetEventQueue(), WORKER, 1, Cancelling(timer));
        WaitUntil([] { return FateOf(1).m_nEnded > 0; });
        const int nFired = timer.Fired();
        const timespec tsNap = {0, 3 * INTERVAL_USEC * 1000};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        EndWorker(worker);
        SCHEDULE_EXPECT(timer.Fired() == nFired);
    });
}

TEST(ScheduledTimer, DoesNotFireAfterwards_WhenAnEventOfAnotherWorkerHasItCancelled) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        ACmThread& other = MakeWorker();
        CTimer timer;
        PostTo(*worker.GetEventQueue(), WORKER, 0, Scheduling(timer, 2));
        PostTo(*other.GetEventQueue(), 2, 1, [&] {
            PostTo(*worker.GetEventQueue(), WORKER, 2, Cancelling(timer));
            return CM_OK;
        });
        WaitUntil([] { return FateOf(2).m_nEnded > 0; });
        const int nFired = timer.Fired();
        EndWorker(other);
        EndWorker(worker);
        SCHEDULE_EXPECT(timer.Fired() == nFired);
    });
}

TEST(ScheduledTimer, CancelsItselfAndAnother_WhenItFires) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        CTimer* pFirst = nullptr;
        CTimer second;
        CTimer first([&] {
            pFirst->Cancel();
            second.Cancel();
        });
        pFirst = &first;
        PostTo(*worker.GetEventQueue(), WORKER, 0, [&] {
            first.Schedule(0);
            second.Schedule(0);
            return CM_OK;
        });
        WaitUntil([&first] { return first.Fired() > 0; });
        PostTo(*worker.GetEventQueue(), WORKER, 1);
        WaitUntil([] { return FateOf(1).m_nEnded > 0; });
        const timespec tsNap = {0, 3 * INTERVAL_USEC * 1000};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        EndWorker(worker);
        SCHEDULE_EXPECT(first.Fired() == 1 && second.Fired() <= 1);
    });
}

TEST(ScheduledTimer, FiresNoMore_WhenTheWorkerHasBeenStopped) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        CTimer timer;
        PostTo(*worker.GetEventQueue(), WORKER, 0, Scheduling(timer, 0));
        SCHEDULE_EXPECT(worker.Stop(nullptr) == CM_OK);
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        const int nFired = timer.Fired();
        worker.Destory(CM_OK);
        SCHEDULE_EXPECT(FateOf(0).m_nFired == 1);
        SCHEDULE_EXPECT(timer.Fired() == nFired);
    });
}

TEST(ScheduledTimer, HasItsEventsRun_WhenItPostsToItsWorkerThatIsBusy) {
    Explore([] {
        ACmThread& worker = MakeWorker(TF_JOINABLE, true);
        ICmEventQueue& queue = *worker.GetEventQueue();
        CTimer timer([&queue] {
            PostTo(queue, WORKER, 1);
            PostTo(queue, WORKER, 2);
        });
        PostTo(queue, WORKER, 0, Scheduling(timer, 1));
        PostTo(queue, WORKER, 3);
        WaitUntil([] { return FateOf(2).m_nEnded > 0; });
        SCHEDULE_EXPECT(FateOf(1).m_nFiredAs < FateOf(2).m_nFiredAs);
        EndWorker(worker);
        SCHEDULE_EXPECT(timer.Fired() == 1 && FateOf(3).m_nFired == 1);
    });
}

}  // namespace kelto_test
