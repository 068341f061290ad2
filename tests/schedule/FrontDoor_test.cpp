// What stands before queues and threads: guards, delayed posts, bounded posters and calls, in every
// schedule.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "CmBoundedPoster.h"
#include "CmEvent.h"
#include "CmLifeGuard.h"
#include "CmSystem.h"
#include "CmWorker.h"
#include "schedule/Workers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;
using std::chrono::milliseconds;

constexpr int WORKER = 1;  // the number of the first worker's thread

// Counts in an object how many of its callables run.
struct CRuns {
    void Run() {
        ++m_nRunning;
        m_nSteps.fetch_add(1);
        m_nSteps.fetch_add(1);
        ++m_nRuns;
        --m_nRunning;
    }

    // Also a step that another thread shares with Run, so that it is looked at in its middle.
    bool IsRunning() const { return m_nSteps.load() % 2 != 0 || m_nRunning > 0; }

    CmStd::atomic<int> m_nSteps{0};
    int m_nRunning = 0;
    int m_nRuns = 0;
};

}  // namespace

TEST(ScheduledGuard, WaitsForTheCallableThatRuns_WhenItEnds) {
    Explore([] {
        CCmWorker worker;
        auto pRuns = std::make_unique<CRuns>();
        {
            CCmLifeGuard guard;
            const auto run = guard.Wrap([pObject = pRuns.get()] { pObject->Run(); });
            SCHEDULE_EXPECT(CmPost(worker, run) == CM_OK);
            SCHEDULE_EXPECT(CmPost(worker, run) == CM_OK);
        }
        SCHEDULE_EXPECT(!pRuns->IsRunning());
        pRuns.reset();  // who runs after that uses what was freed
        SCHEDULE_EXPECT(worker.End() == CM_OK);
    });
}

TEST(ScheduledGuard, WaitsForTheOther_WhenACallableEndsIt) {
    Explore([] {
        CCmWorker first;
        CCmWorker second;
        CRuns runs;
        CCmLifeGuard guard;
        bool bEnded = false;
        SCHEDULE_EXPECT(CmPost(first, guard.Wrap([&] {
                            guard.End();
                            SCHEDULE_EXPECT(!runs.IsRunning());
                            bEnded = true;
                        })) == CM_OK);
        SCHEDULE_EXPECT(CmPost(second, guard.Wrap([&] {
                            SCHEDULE_EXPECT(!bEnded);
                            runs.Run();
                            SCHEDULE_EXPECT(!bEnded);
                        })) == CM_OK);
        SCHEDULE_EXPECT(first.End() == CM_OK);
        SCHEDULE_EXPECT(second.End() == CM_OK);
        SCHEDULE_EXPECT(bEnded && runs.m_nRuns <= 1);
        SCHEDULE_EXPECT(guard.Result() == CM_ERROR_NOT_INITIALIZED);
    });
}

TEST(ScheduledDelayedPost, RunsOrIsCancelledAsTheResultSays) {
    Explore([] {
        CCmWorker worker;
        CRuns runs;
        CCmTimerHandle handle = CmPostDelayed(worker, milliseconds(1), [&runs] { runs.Run(); });
        SCHEDULE_EXPECT(handle.Result() == CM_OK);
        const bool bRun = runs.m_nRuns == 1;
        const CmResult rv = handle.Cancel();
        SCHEDULE_EXPECT(!bRun || rv != CM_OK);
        SCHEDULE_EXPECT(rv != CM_OK || (runs.m_nRuns == 0 && !runs.IsRunning()));
        const timespec tsNap = {0, 3000000};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        // If it still ran, this has waited for it.
        const CmResult rvAgain = handle.CancelAndWait();
        SCHEDULE_EXPECT(rvAgain == CM_ERROR_NOT_FOUND ||
                        (rvAgain == CM_OK && rv == CM_ERROR_NOT_AVAILABLE));
        SCHEDULE_EXPECT(!runs.IsRunning());
        SCHEDULE_EXPECT(!handle.IsPending());
        SCHEDULE_EXPECT(worker.End() == CM_OK);
        SCHEDULE_EXPECT(runs.m_nRuns == (rv == CM_OK ? 0 : 1));
    });
}

TEST(ScheduledDelayedPost, RunsNoMore_AfterItWasCancelledAndAwaited) {
    Explore([] {
        CCmWorker worker;
        auto pRuns = std::make_unique<CRuns>();
        CCmTimerHandle handle =
            CmPostEvery(worker, milliseconds(1), [pObject = pRuns.get()] { pObject->Run(); });
        if (Choose(2) == 1) {
            WaitUntil([&] { return pRuns->m_nRunning + pRuns->m_nRuns > 0; });
        }
        SCHEDULE_EXPECT(handle.CancelAndWait() == CM_OK);
        SCHEDULE_EXPECT(!pRuns->IsRunning());
        pRuns.reset();
        const timespec tsNap = {0, 3000000};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        SCHEDULE_EXPECT(worker.End() == CM_OK);
    });
}

TEST(ScheduledDelayedPost, EndsOnce_WhenTheWorkerEndsMeanwhileAndTwoCancel) {
    Explore([] {
        auto pWorker = std::make_unique<CCmWorker>();
        auto pHeld = std::make_shared<CRuns>();
        CCmTimerHandle handle = CmPostDelayed(*pWorker, milliseconds(1), [pHeld] { pHeld->Run(); });
        CmResult rv = CM_OK;
        CmResult rvOther = CM_OK;
        {
            CThreadOf other([&] { rvOther = handle.Cancel(); });
            CThreadOf ender([&] { pWorker.reset(); });
            rv = CCmTimerHandle(handle).CancelAndWait();
            SCHEDULE_EXPECT(!pHeld->IsRunning());
        }
        SCHEDULE_EXPECT(rv != CM_OK || rvOther != CM_OK);
        SCHEDULE_EXPECT(rvOther != CM_OK || pHeld->m_nRuns == 0);
        SCHEDULE_EXPECT(pHeld.use_count() == 1);
    });
}

TEST(ScheduledPoster, HasNoMoreThanItsBoundOnTheirWay_WhenTwoThreadsPost) {
    Explore([] {
        CCmWorker worker;
        CCmBoundedPoster poster(*worker.GetEventQueue(), 1);
        CRuns runs;
        const auto post = [&] {
            SCHEDULE_EXPECT(poster.Post([&] {
                SCHEDULE_EXPECT(poster.GetCount() == 1);
                runs.Run();
            }) == CM_OK);
        };
        {
            CThreadOf other(post);
            post();
            post();
        }
        SCHEDULE_EXPECT(worker.End() == CM_OK);
        SCHEDULE_EXPECT(runs.m_nRuns == 3);
        SCHEDULE_EXPECT(poster.GetCount() == 0);
    });
}

TEST(ScheduledPoster, RunsOrRefuses_WhenTwoThreadsPostAndTheWorkerStops) {
    Explore([] {
        CCmWorker worker;
        CCmBoundedPoster poster(*worker.GetEventQueue(), 1);
        CRuns runs;
        int nAccepted = 0;
        const auto post = [&] {
            const CmResult rv = poster.Post([&runs] { runs.Run(); });
            nAccepted += rv == CM_OK ? 1 : 0;
        };
        {
            CThreadOf first(post);
            CThreadOf second(post);
            SCHEDULE_EXPECT(worker.Stop() == CM_OK);
        }
        SCHEDULE_EXPECT(worker.Join() == CM_OK);
        SCHEDULE_EXPECT(runs.m_nRuns <= nAccepted);
        SCHEDULE_EXPECT(worker.End() == CM_OK);
        SCHEDULE_EXPECT(poster.GetCount() == 0);
    });
}

TEST(ScheduledPoster, PostsOrGivesUp_WhenTheWaitForRoomHasALimit) {
    Explore([] {
        CCmWorker worker;
        CCmBoundedPoster poster(*worker.GetEventQueue(), 1);
        CRuns runs;
        int nAccepted = 0;
        const auto post = [&] {
            const CmResult rv = poster.Post(milliseconds(1), [&runs] { runs.Run(); });
            SCHEDULE_EXPECT(rv == CM_OK || rv == CM_ERROR_TIMEOUT);
            nAccepted += rv == CM_OK ? 1 : 0;
        };
        {
            CThreadOf other(post);
            post();
            post();
        }
        SCHEDULE_EXPECT(worker.Drain() == CM_OK);
        SCHEDULE_EXPECT(nAccepted >= 1);
        SCHEDULE_EXPECT(poster.GetCount() == 0);
        SCHEDULE_EXPECT(poster.TryPost([&runs] { runs.Run(); }) == CM_OK);
        SCHEDULE_EXPECT(worker.End() == CM_OK);
        SCHEDULE_EXPECT(runs.m_nRuns == nAccepted + 1);
    });
}

TEST(ScheduledCall, ReturnsItsValueOrWhyNot_WhenTheWorkerIsStoppedMeanwhile) {
    Explore([] {
        CCmWorker worker;
        auto pHeld = std::make_shared<int>(4711);
        int nRuns = 0;
        {
            CThreadOf caller([&] {
                auto result = CmCall(worker, [&nRuns, pHeld] {
                    SCHEDULE_EXPECT(ThreadNumber() == WORKER);
                    ++nRuns;
                    return *pHeld;
                });
                SCHEDULE_EXPECT(result.HasBegun() == (nRuns == 1));
                SCHEDULE_EXPECT(static_cast<bool>(result) == (nRuns == 1));
                // NOLINTNEXTLINE(performance-move-const-arg): ValueOr takes from its object.
                SCHEDULE_EXPECT(std::move(result).ValueOr(-1) == (nRuns == 1 ? 4711 : -1));
                SCHEDULE_EXPECT(pHeld.use_count() == 1);
            });
            SCHEDULE_EXPECT((Choose(2) == 0 ? worker.Stop() : worker.StopNow()) == CM_OK);
            // An event that nobody runs is ended with the queue, and its caller waits until then.
            WaitUntil([&pHeld] { return pHeld.use_count() == 1 || Sleeps(2); });
            SCHEDULE_EXPECT(worker.End() == CM_OK);
        }
        SCHEDULE_EXPECT(nRuns <= 1);
    });
}

TEST(ScheduledCall, RunsOrNeverDoes_WhenItsLimitPasses) {
    Explore([] {
        CCmWorker worker;
        auto pHeld = std::make_shared<CRuns>();
        const auto result = CmCall(worker, milliseconds(1), [pHeld] {
            pHeld->Run();
            return 4711;
        });
        SCHEDULE_EXPECT(result.Result() == CM_OK || result.Result() == CM_ERROR_TIMEOUT);
        SCHEDULE_EXPECT(static_cast<bool>(result) == (result.Result() == CM_OK));
        const bool bBegun = result.HasBegun();
        SCHEDULE_EXPECT(bBegun || pHeld.use_count() == 1);
        SCHEDULE_EXPECT(worker.End() == CM_OK);
        SCHEDULE_EXPECT(pHeld->m_nRuns == (bBegun ? 1 : 0));
        SCHEDULE_EXPECT(pHeld.use_count() == 1);
    });
}

}  // namespace kelto_test
