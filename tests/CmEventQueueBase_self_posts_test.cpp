// What the events of a worker post to its own queue, alone and mixed with what others post and
// take.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmEvent.h"
#include "CmEventQueueSteps.h"
#include "CmSystem.h"
#include "CmThread.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/RandomBytes.h"
#include "support/Threads.h"
#include "support/TraceSink.h"
#include "support/Watch.h"

namespace UTIL_NS {
namespace {

using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LoggedEvent;
using kelto_test::OnAnotherThread;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr int TYPE = 7;

// A worker whose queue the test sees; runs on the test's thread until its stop flag is set.
template <class TaskType>
class CShownTaskT : public TaskType {
  public:
    CCmEventQueueUsingConditionVariable& Queue() { return this->m_EventQueue; }
    void RunHere() {
        this->Create(TT_MAIN, TF_JOINABLE, 0);
        this->OnThreadInit();
        this->OnThreadRun();
    }
};
typedef CShownTaskT<CCmThreadTaskWithEventQueueOnly> CShownTask;

// Counts the locks that the calling thread takes.
class CLockCount {
  public:
    CLockCount() { t_nLocks = 0; }
    int Get() const { return t_nLocks; }

  private:
    static int Lock(pthread_mutex_t* aMutex) {
        ++t_nLocks;
        return pthread_mutex_lock(aMutex);
    }
    inline static thread_local int t_nLocks = 0;
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> m_Entry{g_cmSystem.pthread_mutex_lock,
                                                               &Lock};
};

// Does something once, when the calling thread is about to take its next lock.
class CAtNextLock {
  public:
    void Arm(std::function<void()> aWork) { t_work = std::move(aWork); }

  private:
    static int Lock(pthread_mutex_t* aMutex) {
        if (const auto work = std::exchange(t_work, nullptr)) {
            work();
        }
        return pthread_mutex_lock(aMutex);
    }
    inline static thread_local std::function<void()> t_work;
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> m_Entry{g_cmSystem.pthread_mutex_lock,
                                                               &Lock};
};

// Every event posts the next.
class CRelay : public ICmEvent {
  public:
    CRelay(CShownTask& aTask, int aLeft, std::function<void(int)> aAtEach)
        : m_Task(aTask), m_nLeft(aLeft), m_AtEach(std::move(aAtEach)) {}
    CmResult OnEventFire() override {
        m_AtEach(m_nLeft);
        if (m_nLeft == 0) {
            m_Task.SetStopFlag();
        } else {
            EXPECT_EQ(CM_OK,
                      m_Task.Queue().PostEvent(new CRelay(m_Task, m_nLeft - 1, m_AtEach), NORMAL));
            EXPECT_EQ(1u, m_Task.Queue().GetPendingEventsCount());
        }
        return CM_OK;
    }

  private:
    CShownTask& m_Task;
    const int m_nLeft;
    const std::function<void(int)> m_AtEach;
};

TEST(CmEventSelfPost, TakesNoLock_WhenNothingElseIsPending) {
    CShownTask task;
    CLockCount locks;
    int nBefore = 0;
    int nAfter = 0;
    task.Queue().PostEvent(new CRelay(task, 100,
                                      [&](int aLeft) {
                                          nBefore = aLeft == 95 ? locks.Get() : nBefore;
                                          nAfter = aLeft == 5 ? locks.Get() : nAfter;
                                      }),
                           NORMAL);
    task.RunHere();
    EXPECT_LT(0, nBefore);
    EXPECT_EQ(nBefore, nAfter);
}

TEST(CmEventSelfPost, AllocatesNoNode_WhenPassesAreAlike) {
    CShownTask task;
    EventLog log;
    int nLeft = 20;
    std::function<CmResult()> postNext = [&] {
        if (--nLeft == 0) {
            task.SetStopFlag();
            return CM_OK;
        }
        LoggedEvent* const pNext = new LoggedEvent(log, nLeft, [&] { return postNext(); });
        if (nLeft > 15) {  // the nodes that go round are made
            return task.Queue().PostEvent(pNext, NORMAL);
        }
        const kelto_test::ScopedAllocationFault noMemory(1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_OK, task.Queue().PostEvent(pNext, NORMAL));
        return CM_OK;
    };
    task.Queue().PostEvent(new LoggedEvent(log, 20, [&] { return postNext(); }), NORMAL);
    task.RunHere();
    EXPECT_EQ(20u, log.ended().size());
}

TEST(CmEventSelfPost, EndsTheEvent_WhenThereIsNoNodeAndNoMemory) {
    CShownTask task;
    EventLog log;
    int nEnded = 0;
    CmResult rv = CM_OK;
    task.Queue().PostEvent(new LoggedEvent(log, 1,
                                           [&] {
                                               ICmEvent* const pNext =
                                                   new kelto_test::EndingEvent([&] { ++nEnded; });
                                               const kelto_test::ScopedAllocationFault noMemory(
                                                   1, kelto_test::Failing::FROM_THERE_ON);
                                               rv = task.Queue().PostEvent(pNext, NORMAL);
                                               task.SetStopFlag();
                                               return CM_OK;
                                           }),
                           NORMAL);
    task.RunHere();
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, rv);
    EXPECT_EQ(1, nEnded);
}

TEST(CmEventSelfPost, WatchesTheLength_WhenMoreThanThreeSecondsHavePassed) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    CShownTask task;
    EventLog log;
    const auto post = [&] { task.Queue().PostEvent(new LoggedEvent(log), NORMAL); };
    task.Queue().PostEvent(new CRelay(task, 2,
                                      [&](int aLeft) {
                                          if (aLeft != 0) {
                                              return;
                                          }
                                          clock.AdvanceUsec(3000001);
                                          post();  // looks, and finds the queue short
                                          clock.AdvanceUsec(2000000);
                                          for (int i = 0; i < 120; ++i) {
                                              post();
                                          }
                                          EXPECT_EQ(0u, sink.count("m_dwSize="));
                                          clock.AdvanceUsec(1000001);
                                          post();
                                          EXPECT_EQ(1u, sink.count("m_dwSize=122 "));
                                      }),
                           NORMAL);
    task.RunHere();
    EXPECT_EQ(122u, log.ended().size());
}

TEST(CmEventSelfPost, CountsToo_WhenALongQueueIsReported) {
    kelto_test::ScopedClock clock;
    kelto_test::ScopedTraceSink sink;
    CShownTask task;
    EventLog log;
    task.Queue().PostEvent(new CRelay(task, 0,
                                      [&](int) {
                                          for (int i = 0; i < 120; ++i) {
                                              task.Queue().PostEvent(new LoggedEvent(log), NORMAL);
                                          }
                                          clock.AdvanceUsec(3000001);
                                          task.Queue().PostEvent(new LoggedEvent(log), NORMAL);
                                      }),
                           NORMAL);
    task.RunHere();
    EXPECT_EQ(1u, sink.count("PostEvent, m_dwSize=121 "));
}

TEST(CmEventSelfPost, IsTaken_WhenAnEventTakesWhatIsPending) {
    CShownTask task;
    EventLog log;
    Events events;
    DWORD dwRemain = 77;
    task.Queue().PostEvent(
        new CRelay(task, 0,
                   [&](int) {
                       for (int i = 1; i <= 3; ++i) {
                           task.Queue().PostEvent(new LoggedEvent(log, i), NORMAL);
                       }
                       EXPECT_EQ(CM_OK, task.Queue().PopPendingEvents(events, 2, &dwRemain));
                   }),
        NORMAL);
    task.RunHere();
    EXPECT_EQ(1u, dwRemain);
    EXPECT_EQ(Ids{3}, log.ended());  // the loop ended it, unfired
    task.Queue().ProcessEvents(events);
    EXPECT_EQ((Ids{1, 2}), log.fired());
}

TEST(CmEventSelfPost, EndsUnfiredAndStaysCounted_WhenAnEventDestroysWhatIsPending) {
    for (bool bTakesTheLock : {false, true}) {
        SCOPED_TRACE(bTakesTheLock);
        CShownTask task;
        EventLog log;
        task.Queue().PostEvent(
            new CRelay(task, 0,
                       [&](int) {
                           for (int i = 1; i <= 2; ++i) {
                               task.Queue().PostEvent(new LoggedEvent(log, i), NORMAL);
                           }
                           if (bTakesTheLock) {
                               task.Queue().DestoryPendingEvents();
                           } else {
                               task.Queue().CCmEventQueueBase::DestoryPendingEvents();
                           }
                           EXPECT_EQ((Ids{1, 2}), log.ended());
                           EXPECT_EQ(2u, task.Queue().GetPendingEventsCount());
                       }),
            NORMAL);
        task.RunHere();
        EXPECT_EQ(Ids(), log.fired());
        EXPECT_EQ((Ids{1, 2}), log.ended());
    }
}

TEST(CmEventSelfPost, RunsBeforeAStopThatComesLaterAndIsRefusedAfterIt) {
    CShownTask task;
    EventLog log;
    CmResult rv = CM_OK;
    task.Queue().PostEvent(
        new LoggedEvent(log, 0,
                        [&] {
                            task.Queue().PostEvent(new LoggedEvent(log, 1), NORMAL);
                            task.Stop(nullptr);
                            rv = task.Queue().PostEvent(new LoggedEvent(log, 2), NORMAL);
                            return CM_OK;
                        }),
        NORMAL);
    task.RunHere();
    EXPECT_EQ((Ids{0, 1}), log.fired());
    EXPECT_EQ((Ids{2, 0, 1}), log.ended());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rv);
}

TEST(CmEventSelfPost, EndsUnfired_WhenTheLoopHasToStop) {
    CShownTask task;
    EventLog log;
    task.Queue().PostEvent(new LoggedEvent(log, 0), NORMAL);  // its node serves the next post
    task.Queue().PostEvent(
        new LoggedEvent(log, 1,
                        [&] {
                            task.Queue().PostEvent(new LoggedEvent(log, 2), NORMAL);
                            task.Queue().PostEvent(new LoggedEvent(log, 3), NORMAL);
                            task.SetStopFlag();
                            return CM_OK;
                        }),
        NORMAL);
    task.RunHere();
    EXPECT_EQ((Ids{0, 1}), log.fired());
    EXPECT_EQ((Ids{0, 1, 2, 3}), log.ended());
    EXPECT_TRUE(task.Queue().IsStoppedAndEmpty());
}

TEST(CmEventSelfPost, StopsNowBeforeIt_WhenTheWorkerDoes) {
    EventLog log;
    {
        CCmWorker worker;
        Gate posted;
        worker.GetEventQueue()->PostEvent(new LoggedEvent(log, 1,
                                                          [&] {
                                                              worker.GetEventQueue()->PostEvent(
                                                                  new LoggedEvent(log, 2), NORMAL);
                                                              EXPECT_EQ(CM_OK, worker.StopNow());
                                                              posted.Open();
                                                              return CM_OK;
                                                          }),
                                          NORMAL);
        EXPECT_TRUE(posted.Wait());
        EXPECT_EQ(CM_OK, worker.Join());
    }
    EXPECT_EQ((Ids{1}), log.fired());
    EXPECT_EQ((Ids{1, 2}), log.ended());
}

TEST(CmEventSelfPost, StaysOutOfALoopInside_WhenThatHasEnded) {
    CShownTask task;
    EventLog log;
    const auto postTo = [&](int aId) { task.Queue().PostEvent(new LoggedEvent(log, aId), NORMAL); };
    task.Queue().PostEvent(new LoggedEvent(log, 0), NORMAL);
    task.Queue().PostEvent(new LoggedEvent(log, 1,
                                           [&] {
                                               postTo(3);
                                               task.Queue().PostEvent(
                                                   new LoggedEvent(log, 4,
                                                                   [&] {
                                                                       postTo(5);
                                                                       task.SetStopFlag();
                                                                       return CM_OK;
                                                                   }),
                                                   NORMAL);
                                               task.OnThreadRun();  // ends with the queue closed
                                               return CM_OK;
                                           }),
                           NORMAL);
    task.Queue().PostEvent(new LoggedEvent(log, 2), NORMAL);
    task.RunHere();
    EXPECT_EQ((Ids{0, 1, 3, 4, 2}), log.fired());
    EXPECT_EQ((Ids{0, 3, 4, 5, 1, 2}), log.ended());
}

// On a system that unwinds a cancelled thread (where this one does) and on one that does not.
class CmEventSelfPostCancelled : public testing::TestWithParam<bool> {
  protected:
    CmEventSelfPostCancelled() {
        if (GetParam()) {
            m_HandlersOnly.emplace();
        }
    }

    template <class ThreadType>
    void StaysPending(bool aOthersInItsPass);

  private:
    std::optional<kelto_test::ScopedHandlersOnly> m_HandlersOnly;
};

INSTANTIATE_TEST_SUITE_P(, CmEventSelfPostCancelled, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

// 2 posts 3, which posts 6 and in which the thread is cancelled; aOthersInItsPass: and 4 and 5.
template <class ThreadType>
void CmEventSelfPostCancelled::StaysPending(bool aOthersInItsPass) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        const Ids rest = aOthersInItsPass ? Ids{4, 5, 6} : Ids{6};
        Ids all = {1, 2, 3};
        all.insert(all.end(), rest.begin(), rest.end());
        EventLog log;
        CShownTaskT<ThreadType>* pTask = new CShownTaskT<ThreadType>;
        CCmEventQueueUsingConditionVariable& queue = pTask->Queue();
        const auto post = [&](int aId, const LoggedEvent::Work& aWork = nullptr) {
            queue.PostEvent(new LoggedEvent(log, aId, aWork), NORMAL);
        };
        std::atomic<bool> bHangs{false};
        const auto hang = [&] {
            post(6);
            bHangs = true;
            for (;;) {
                kelto_test::TestCancel();
                std::this_thread::yield();
            }
            return CM_OK;
        };
        post(1, [&] {
            post(2, [&] {
                post(3, hang);
                if (aOthersInItsPass) {
                    post(4);
                    post(5);
                }
                return CM_OK;
            });
            return CM_OK;
        });
        ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_TRUE(Eventually([&] { return bHangs.load(); }));
        EXPECT_EQ(0, pTask->Terminate());
        EXPECT_EQ(CM_OK, pTask->Join());
        EXPECT_EQ((Ids{1, 2, 3}), log.fired());
        EXPECT_EQ((Ids{1, 2, 3}), log.ended());
        EXPECT_EQ(rest.size(), queue.GetPendingEventsCount());
        Events events;
        EXPECT_EQ(CM_OK, queue.PopPendingEvents(events));
        queue.ProcessAndRecycleEvents(events);
        EXPECT_EQ(all, log.fired());
        post(7);
        pTask->Destory(0);
        all.push_back(7);
        EXPECT_EQ(all, log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmEventSelfPostCancelled, StaysPending_WhenItsLoopIsOfEventsOnly) {
    StaysPending<CCmThreadTaskWithEventQueueOnly>(true);
    StaysPending<CCmThreadTaskWithEventQueueOnly>(false);
}

TEST_P(CmEventSelfPostCancelled, StaysPending_WhenItsLoopHasTimers) {
    StaysPending<CCmThreadTask>(true);
    StaysPending<CCmThreadTask>(false);
}

TEST(CmEventSelfPost, EndsUnfired_WhenAnotherThreadDestroysWhatIsPending) {
    CShownTask task;
    EventLog log;
    const auto post = [&](int aId) { task.Queue().PostEvent(new LoggedEvent(log, aId), NORMAL); };
    post(1);
    task.Queue().PostEvent(new LoggedEvent(log, 2,
                                           [&] {
                                               post(3);
                                               OnAnotherThread([&] {
                                                   post(4);
                                                   task.Queue().DestoryPendingEvents();
                                               });
                                               post(5);
                                               post(6);
                                               return CM_OK;
                                           }),
                           NORMAL);
    task.Queue().PostEvent(new LoggedEvent(log, 7, [&] { return task.Stop(nullptr); }), NORMAL);
    task.RunHere();
    EXPECT_EQ((Ids{1, 2, 7, 5, 6}), log.fired());
    EXPECT_EQ((Ids{1, 4, 2, 7, 3, 5, 6}), log.ended());
}

TEST(CmEventSelfPost, IsNotFound_WhenAnEventTakesWhatAnotherThreadHasDestroyed) {
    CShownTask task;
    EventLog log;
    const auto take = [&] {
        task.Queue().PostEvent(new LoggedEvent(log, 2), NORMAL);
        OnAnotherThread([&] { task.Queue().DestoryPendingEvents(); });
        CCmTimeValue tvNone(0, 0);
        Events events;
        EXPECT_EQ(CM_ERROR_NOT_FOUND, task.Queue().PopOrWaitPendingEvents(events, &tvNone));
        EXPECT_TRUE(events.empty());
        EXPECT_EQ(Ids{2}, log.ended());
        return task.Stop(nullptr);
    };
    task.Queue().PostEvent(new LoggedEvent(log, 1, take), NORMAL);
    task.RunHere();
    EXPECT_EQ(Ids{1}, log.fired());
}

// The nodes that a loop has allocated for its own posts stay with it.
TEST(CmEventSelfPost, AllocatesNoNode_WhenOthersPostInBetween) {
    constexpr int ROUNDS = 10;
    CShownTask task;
    EventLog log;
    int nRound = 0;
    unsigned long ulAllocations = 0;
    const std::function<CmResult()> go = [&] {
        if (++nRound > ROUNDS) {
            return task.Stop(nullptr);
        }
        ICmEvent* const pOwn = new LoggedEvent(log, 2);
        const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
        task.Queue().PostEvent(pOwn, NORMAL);
        ulAllocations += kelto_test::AllocationsOfThisThread() - ulBefore;
        OnAnotherThread([&] { task.Queue().PostEvent(new LoggedEvent(log, 1, go), NORMAL); });
        return CM_OK;
    };
    task.Queue().PostEvent(new LoggedEvent(log, 1, go), NORMAL);
    task.RunHere();
    EXPECT_EQ(2u * ROUNDS + 1, log.ended().size());
    EXPECT_EQ(1u, ulAllocations);
}

TEST(CmEventSelfPost, LeavesAllNodesToOthers_WhileThereWasNone) {
    constexpr int COUNT = 12;
    CCmEventQueueUsingConditionVariable queue;
    CCmEventQueueSteps::CLoop loop(queue);
    EventLog log;
    unsigned long ulAllocations = 0;
    for (int i = 0; i < 2; ++i) {
        OnAnotherThread([&] {
            Events posted;
            for (int j = 0; j < COUNT; ++j) {
                posted.push_back(new LoggedEvent(log, j));
            }
            const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
            for (ICmEvent* const pEvent : posted) {
                queue.PostEvent(pEvent, NORMAL);
            }
            ulAllocations = kelto_test::AllocationsOfThisThread() - ulBefore;
        });
        CCmTimeValue tvNone(0, 0);
        Events events;
        queue.PopOrWaitPendingEvents(events, &tvNone);
        queue.ProcessAndRecycleEvents(events);
        queue.PopOrWaitPendingEvents(events, &tvNone);
    }
    loop.End();
    EXPECT_EQ(2u * COUNT, log.ended().size());
    EXPECT_EQ(0u, ulAllocations);
}

TEST(CmEventSelfPost, EndsUnfiredAtOnce_WhenItIsDestroyedAsItsWorkerIsAboutToWait) {
    CAtNextLock atLock;
    CShownTask task;
    EventLog log;
    const auto post = [&](int aId) { task.Queue().PostEvent(new LoggedEvent(log, aId), NORMAL); };
    task.Queue().PostEvent(
        new LoggedEvent(log, 1,
                        [&] {
                            post(2);
                            OnAnotherThread([&] { post(3); });
                            atLock.Arm([&] {
                                OnAnotherThread([&] { task.Queue().DestoryPendingEvents(); });
                            });
                            return CM_OK;
                        }),
        NORMAL);
    std::thread worker([&] { task.RunHere(); });
    EXPECT_TRUE(Eventually([&] { return log.ended().size() == 3; }));
    task.Stop(nullptr);
    worker.join();
    EXPECT_EQ(Ids{1}, log.fired());
    EXPECT_EQ((Ids{1, 3, 2}), log.ended());
}

TEST(CmEventSelfPost, EndsUnfiredBeforeTheNextPass_WhenAnotherThreadDestroysIt) {
    EventLog log;
    CCmWorker worker;
    auto& queue = static_cast<CCmEventQueueUsingConditionVariable&>(*worker.GetEventQueue());
    const auto post = [&](int aId) { queue.PostEvent(new LoggedEvent(log, aId), NORMAL); };
    queue.PostEvent(new LoggedEvent(log, 1,
                                    [&] {
                                        post(2);
                                        OnAnotherThread([&] {
                                            queue.DestoryPendingEvents();
                                            post(3);
                                        });
                                        return CM_OK;
                                    }),
                    NORMAL);
    EXPECT_TRUE(Eventually([&] { return log.ended().size() == 3; }));
    EXPECT_EQ((Ids{1, 3}), log.fired());
    EXPECT_EQ((Ids{1, 2, 3}), log.ended());
}

// A worker that has a timer waits until that is due.
TEST(CmEventLoop, WritesALineAndGoesOn_WhenItsLimitedWaitFails) {
    const kelto_test::ScopedTraceSink sink;
    {
        const kelto_test::FailingCall<&CCmSystemTable::pthread_cond_clockwait> fault(EINVAL,
                                                                                     EINVAL);
        CCmWorker worker;
        Gate fired;
        CmPostDelayed(worker, std::chrono::milliseconds(5), [&fired] { fired.Open(); });
        EXPECT_TRUE(fired.Wait());
        EXPECT_EQ(CM_OK, worker.Drain());
    }
    EXPECT_EQ(1u, sink.count(", pthread_cond_clockwait() failed! err=22 "));
}

TEST(CmEventLoop, WritesNoLine_WhenItHasALimitAndNeedNotWait) {
    const kelto_test::ScopedTraceSink sink;
    {
        CCmWorker worker;
        CCmTimerHandle timer = CmPostDelayed(worker, std::chrono::seconds(100), [] {});
        for (int i = 0; i < 20; ++i) {
            CmPost(worker, [&worker] { CmPost(worker, [] {}); });
        }
        EXPECT_EQ(CM_OK, worker.Drain());
    }
    EXPECT_EQ(0u, sink.count("failed!"));
}

// The queue of a worker as its users know it: one list. Its events act at random; every act
// happens after the one before, whichever thread it is on.
class CSelfPostModel {
  public:
    explicit CSelfPostModel(DWORD aSeed) : m_Bytes(kelto_test::RandomBytes(BYTES, aSeed)) {}

    void Run() {
        Post();
        m_Task.RunHere();
        std::sort(m_Ended.begin(), m_Ended.end());
        Ids all;
        for (int i = 0; i < m_nPosted; ++i) {
            all.push_back(i);
        }
        EXPECT_EQ(all, m_Ended);
        EXPECT_EQ(m_nPosted, m_nFired + m_nDestroyed);
    }

  private:
    static constexpr size_t BYTES = 1500;

    class CActing : public ICmEvent {
      public:
        CActing(CSelfPostModel& aModel, int aId) : m_Model(aModel), m_nId(aId) {}
        CmResult OnEventFire() override {
            m_Model.Fire(m_nId);
            return CM_OK;
        }
        void OnDestorySelf() override {
            m_Model.m_Ended.push_back(m_nId);
            delete this;
        }

      private:
        CSelfPostModel& m_Model;
        const int m_nId;
    };

    size_t NextByte() { return m_nNext < m_Bytes.size() ? m_Bytes[m_nNext++] : 0; }

    void Post() {
        const int nId = m_nPosted++;
        m_Pending.push_back(nId);
        ++m_dwCount;
        EXPECT_EQ(CM_OK, m_Task.Queue().PostEvent(new CActing(*this, nId), NORMAL));
    }
    // The loop takes all that is pending when it has run what it took before.
    void Fire(int aId) {
        if (m_Batches.back().empty()) {
            ASSERT_EQ(1u, m_Batches.size());
            m_Batches.back() = Take(0xFFFFFFFF);
        }
        ASSERT_FALSE(m_Batches.back().empty());
        ASSERT_EQ(m_Batches.back().front(), aId);
        m_Batches.back().pop_front();
        ++m_nFired;
        for (size_t nActs = NextByte() % 5; nActs > 0 && m_nNext < m_Bytes.size(); --nActs) {
            Act(NextByte() % 32);
            ASSERT_EQ(m_dwCount, m_Task.Queue().GetPendingEventsCount());
        }
        if (m_Pending.empty() && m_Batches.size() == 1 && m_Batches.back().empty()) {
            if (m_nNext < m_Bytes.size()) {
                Post();
            } else {
                m_Task.SetStopFlag();
            }
        }
    }
    void Act(size_t aAct) {
        if (aAct < 14) {
            Post();
        } else if (aAct < 20) {
            OnAnotherThread([this] { Post(); });
        } else if (aAct < 24) {
            RunInside(static_cast<DWORD>(NextByte() % 4));
        } else if (aAct < 28) {
            RunOne();
        } else if (aAct == 28) {
            DestroyPending();
        } else if (aAct == 29) {
            OnAnotherThread([this] { DestroyPending(); });
        }
    }
    std::deque<int> Take(DWORD aMaxCount) {
        std::deque<int> taken;
        if (m_dwCount <= aMaxCount) {
            taken.swap(m_Pending);
            m_dwCount = 0;
        }
        while (taken.size() < aMaxCount && !m_Pending.empty()) {
            taken.push_back(m_Pending.front());
            m_Pending.pop_front();
            --m_dwCount;
        }
        return taken;
    }
    void RunInside(DWORD aMaxCount) {
        if (m_Pending.empty()) {
            return;  // it would wait
        }
        m_Batches.push_back(Take(aMaxCount));
        Events events;
        EXPECT_EQ(CM_OK, m_Task.Queue().PopOrWaitPendingEvents(events, nullptr, aMaxCount));
        ASSERT_EQ(m_Batches.back().size(), events.size());
        m_Task.Queue().ProcessAndRecycleEvents(events);
        EXPECT_TRUE(m_Batches.back().empty());
        m_Batches.pop_back();
    }
    void RunOne() {
        ICmEvent* pEvent = nullptr;
        if (m_Pending.empty()) {
            EXPECT_EQ(CM_ERROR_NOT_FOUND, m_Task.Queue().PopOnePendingEvent(pEvent));
            return;
        }
        m_Batches.push_back({m_Pending.front()});
        m_Pending.pop_front();
        --m_dwCount;
        DWORD dwRemain = 0;
        ASSERT_EQ(CM_OK, m_Task.Queue().PopOnePendingEvent(pEvent, &dwRemain));
        EXPECT_EQ(m_dwCount, dwRemain);
        m_Task.Queue().ProcessOneEvent(pEvent);
        m_Batches.pop_back();
    }
    void DestroyPending() {
        m_nDestroyed += static_cast<int>(m_Pending.size());
        m_Pending.clear();
        m_Task.Queue().DestoryPendingEvents();
    }

    CShownTask m_Task;
    const std::vector<uint8_t> m_Bytes;
    size_t m_nNext = 0;
    std::deque<int> m_Pending;
    DWORD m_dwCount = 0;  // that of the queue, which a destruction leaves as it is
    std::vector<std::deque<int>> m_Batches{1};  // what was taken and has not begun, outermost first
    int m_nPosted = 0;
    int m_nFired = 0;
    int m_nDestroyed = 0;
    Ids m_Ended;
};

TEST(CmEventSelfPost, KeepsTheOrderOfPosting_WhenOthersPostAndTakeAsWell) {
    for (DWORD dwSeed = 1; dwSeed <= 40; ++dwSeed) {
        SCOPED_TRACE("seed " + std::to_string(dwSeed));
        CSelfPostModel(dwSeed).Run();
        if (HasFailure()) {
            return;
        }
    }
}

// Passes that follow each other without a wait: 5 events each, of a worker with timers.
class CmEventPassTimes : public testing::Test {
  protected:
    void Post(int aId, long aTakesUsec, const std::function<void()>& aWork = nullptr) {
        m_Task.Queue().PostEvent(new LoggedEvent(m_Log, aId,
                                                 [this, aTakesUsec, aWork] {
                                                     m_Clock.AdvanceUsec(aTakesUsec);
                                                     if (aWork) {
                                                         aWork();
                                                     }
                                                     return CM_OK;
                                                 }),
                                 NORMAL);
    }
    void PostStop() {
        Post(0, 0, [this] { m_Task.SetStopFlag(); });
    }
    // Of twelve events, those that take more than 50 ms, to the microsecond.
    void ExpectSixReports() {
        for (int i = 0; i < 6; ++i) {
            Post(1, 50000);
            Post(2, 50001);
        }
        PostStop();
        m_Task.RunHere();
        EXPECT_EQ(6u, m_Sink.count("ProcessOneEvent, report, sec=0 usec=50001 "));
        EXPECT_EQ(6u, m_Sink.count("ProcessOneEvent, report"));
    }

    kelto_test::ScopedClock m_Clock;
    kelto_test::ScopedTraceSink m_Sink;
    EventLog m_Log;
    CShownTaskT<CCmThreadTask> m_Task;
};

TEST_F(CmEventPassTimes, ReportsExactlyWhatTakesLonger_WhereverInItsPass) {
    ExpectSixReports();
}

TEST_F(CmEventPassTimes, ReportsExactlyWhatTakesLonger_WhileTheWatchIsOn) {
    const kelto_test::ScopedWatch watch;
    ExpectSixReports();
    EXPECT_EQ(6u, m_Sink.count("ProcessOneEvent, watch"));
}

TEST_F(CmEventPassTimes, TellHowManyArePending_WhenTheirOwnEventsPostedThem) {
    Post(1, 60000, [this] {
        Post(2, 0);
        PostStop();
    });
    m_Task.RunHere();
    EXPECT_EQ(1u, m_Sink.count("ProcessOneEvent, report, sec=0 usec=60000 aEvent=0x"));
    EXPECT_EQ(1u, m_Sink.count(" m_dwSize=2 this=0x"));
}

kelto_test::ScopedClock* g_pClockOfLines = nullptr;
int g_nReports = 0;
void TakeLongAndCountReports(unsigned long, const char* aText, unsigned int) {
    g_pClockOfLines->AdvanceUsec(60000);
    g_nReports += std::strstr(aText, "ProcessOneEvent, report") != nullptr ? 1 : 0;
}

TEST_F(CmEventPassTimes, LeaveOutTheLinesAboutTheEventBefore_WhileTheWatchIsOn) {
    const kelto_test::ScopedWatch watch;
    g_pClockOfLines = &m_Clock;
    g_nReports = 0;
    Post(1, 60000, [] { set_util_external_trace_sink(TakeLongAndCountReports); });
    Post(2, 0);
    PostStop();
    m_Task.RunHere();
    EXPECT_EQ((Ids{1, 2, 0}), m_Log.fired());
    EXPECT_EQ(1, g_nReports);
}

TEST_F(CmEventPassTimes, GoOnWhereTheLastEnded_WhenNothingIsBetween) {
    constexpr unsigned long EVENTS = 29;
    constexpr unsigned long PASSES = 6;
    for (unsigned long i = 0; i < EVENTS; ++i) {
        Post(1, 10);
    }
    PostStop();
    unsigned long ulReads = m_Clock.reads();
    m_Task.RunHere();
    ulReads = m_Clock.reads() - ulReads;
    // One for each event and one at the first; the timer queue reads the clock once a pass.
    EXPECT_GE(EVENTS + 1 + 1 + PASSES, ulReads);
}

class CTakingHandler : public ICmTimerHandler {
  public:
    explicit CTakingHandler(std::function<void()> aWork) : m_Work(std::move(aWork)) {}
    virtual ~CTakingHandler() = default;
    void OnTimeout(const CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override { m_Work(); }

  private:
    const std::function<void()> m_Work;
};

TEST_F(CmEventPassTimes, LeaveOutWhatATimerTakes) {
    CTakingHandler handler([this] { m_Clock.AdvanceUsec(70000); });
    Post(1, 10000, [&] {
        m_Task.GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 20000), 1);
    });
    for (int i = 0; i < 9; ++i) {
        Post(2, 6000);
    }
    PostStop();
    m_Task.RunHere();
    EXPECT_EQ(0u, m_Sink.count("ProcessOneEvent, report"));
    EXPECT_EQ(11u, m_Log.fired().size());
}

TEST_F(CmEventPassTimes, LeaveOutTheEndOfWhatAnotherThreadDestroyed) {
    Post(1, 10, [&] {
        m_Task.Queue().PostEvent(new kelto_test::EndingEvent([&] { m_Clock.AdvanceUsec(70000); }),
                                 NORMAL);
        OnAnotherThread([&] {
            m_Task.Queue().DestoryPendingEvents();
            PostStop();
        });
    });
    m_Task.RunHere();
    EXPECT_EQ(0u, m_Sink.count("ProcessOneEvent, report"));
    EXPECT_EQ((Ids{1, 0}), m_Log.fired());
}

// How often the clock is read in a pass of aEvents events and one of a single event after it, but
// for once an event.
unsigned long ReadsOfTwoPasses(const kelto_test::ScopedClock& aClock, unsigned long aEvents) {
    CShownTask task;
    EventLog log;
    const auto post = [&](const LoggedEvent::Work& aWork) {
        task.Queue().PostEvent(new LoggedEvent(log, 1, aWork), NORMAL);
    };
    for (unsigned long i = 1; i < aEvents; ++i) {
        post(nullptr);
    }
    post([&] {
        post([&] {
            task.SetStopFlag();
            return CM_OK;
        });
        return CM_OK;
    });
    const unsigned long ulReads = aClock.reads();
    task.RunHere();
    return aClock.reads() - ulReads - aEvents;
}

TEST_F(CmEventPassTimes, LeaveOutTheNodesThatALongPassFrees) {
    EXPECT_EQ(ReadsOfTwoPasses(m_Clock, 200) + 1, ReadsOfTwoPasses(m_Clock, 300));
}

TEST_F(CmEventPassTimes, LeaveOutAWait) {
    std::thread poster([&] {
        EXPECT_TRUE(Eventually([&] { return m_Log.ended().size() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it waits by then
        m_Clock.AdvanceUsec(70000);
        PostStop();
    });
    Post(1, 10);
    m_Task.RunHere();
    poster.join();
    EXPECT_EQ(0u, m_Sink.count("ProcessOneEvent, report"));
}

// Does something when the calling thread reads a clock for the aNth time from then on.
template <auto Member>
class CAtReadingT {
  public:
    CAtReadingT() { s_pfnRead = m_Entry.original(); }
    void Arm(int aNth, std::function<void()> aWork) {
        t_nLeft = aNth;
        t_work = std::move(aWork);
    }

  private:
    typedef int (*ReadType)(timeval*, void*);

    static int Read(timeval* aTv, void* aZone) {
        if (t_nLeft > 0 && --t_nLeft == 0) {
            const auto work = std::exchange(t_work, nullptr);
            work();
        }
        return s_pfnRead(aTv, aZone);
    }
    inline static ReadType s_pfnRead = nullptr;
    inline static thread_local int t_nLeft = 0;
    inline static thread_local std::function<void()> t_work;
    kelto_test::ScopedEntry<ReadType> m_Entry{g_cmClock.*Member, &Read};
};

// The sender's wrapper comes back when the loop has given up looking out for it and is about to
// wait.
TEST_F(CmEventPassTimes, LeaveOutTheTimeInWhichASenderIsAwaited) {
    if (CmPortCurrentCore() == -1) {
        return;  // nobody is looked out for
    }
    CShownTask task;
    CAtReadingT<&CCmClockTable::gettimeofday> atReading;
    CAtReadingT<&CCmClockTable::coarse_gettimeofday> atPost;
    CAtNextLock atNextLock;
    Gate go;
    bool bAwaited = false;
    const auto event = [&] {
        atReading.Arm(1, [&] {  // it has ended
            atReading.Arm(1, [&] {
                bAwaited = true;
                m_Clock.AdvanceUsec(70000);
            });
            atNextLock.Arm([&] {
                EXPECT_TRUE(bAwaited);
                go.Open();
                EXPECT_TRUE(Eventually([&] { return task.Queue().GetPendingEventsCount() != 0; }));
            });
        });
        return CM_OK;
    };
    std::thread sender([&] {
        atPost.Arm(2, [&] { EXPECT_TRUE(go.Wait()); });  // there, and back
        EXPECT_EQ(CM_OK, task.Queue().SendEvent(new LoggedEvent(m_Log, 1, event)));
        task.Queue().PostEvent(new CRelay(task, 0, [](int) {}), NORMAL);
    });
    task.RunHere();
    sender.join();
    EXPECT_EQ(Ids{1}, m_Log.ended());
    EXPECT_EQ(0u, m_Sink.count("ProcessOneEvent, report"));
}

}  // namespace
}  // namespace UTIL_NS
