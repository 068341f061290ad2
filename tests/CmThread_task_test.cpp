// The workers: CCmThreadTask, CCmThreadTaskWithEventQueueOnly and the stop event.
#include "CmThread.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CmClock.h"
#include "support/BodyThread.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndJoinable;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;
using kelto_test::NotingHandler;
using kelto_test::RegisteredThreads;
using kelto_test::TYPE;

typedef std::vector<int> Ids;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr CmResult RESULT = 4711;

// A worker whose waits are not made but noted: the test's clock moves on by each, and the last one
// stops the worker.
class NotedWaits {
  public:
    static constexpr long UNLIMITED = -1;

    NotedWaits(CCmThreadTask& aTask, kelto_test::ScopedClock& aClock, size_t aWaits)
        : m_task(aTask), m_clock(aClock), m_nWaits(aWaits) {
        s_pCurrent = this;
    }
    std::vector<long> waits;           // microseconds
    std::vector<unsigned long> reads;  // of the clock, until each wait
    bool endEarly = false;             // waits take no time

  private:
    static int GetTimeOfWaits(timeval* aTv, void* /*aZone*/) {
        *aTv = timeval{START_OF_WAITS, 0};
        return 0;
    }
    static int TimedWait(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/,
                         const timespec* aDeadline) {
        const long lUsec =
            (aDeadline->tv_sec - START_OF_WAITS) * 1000000 + aDeadline->tv_nsec / 1000;
        s_pCurrent->Note(lUsec);
        if (!s_pCurrent->endEarly) {
            s_pCurrent->m_clock.AdvanceUsec(lUsec);
        }
        return ETIMEDOUT;
    }
    static int Wait(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/) {
        s_pCurrent->Note(UNLIMITED);
        return 0;
    }
    void Note(long aUsec) {
        waits.push_back(aUsec);
        reads.push_back(m_clock.reads());
        if (waits.size() == m_nWaits) {
            m_task.SetStopFlag();
        }
    }

    static constexpr long START_OF_WAITS = 1000;  // seconds
    static NotedWaits* s_pCurrent;

    CCmThreadTask& m_task;
    kelto_test::ScopedClock& m_clock;
    const size_t m_nWaits;
    kelto_test::ScopedEntry<decltype(g_cmSystem.gettimeofday)> m_time{g_cmSystem.gettimeofday,
                                                                      &GetTimeOfWaits};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> m_timedWait{
        g_cmSystem.pthread_cond_timedwait, &TimedWait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> m_wait{
        g_cmSystem.pthread_cond_wait, &Wait};
};
NotedWaits* NotedWaits::s_pCurrent = nullptr;

// Runs a worker on the test's thread.
class CmThreadTaskTimes : public testing::Test {
  protected:
    CmThreadTaskTimes() {
        m_pTask->Create(TT_MAIN, TF_JOINABLE, 0);
        m_pTask->OnThreadInit();
    }
    ~CmThreadTaskTimes() override { m_pTask->Destory(0); }
    // Schedules a timer whose handler takes aTakesMs.
    void Schedule(int aId, long aMs, long aTakesMs, unsigned int aCount = 1) {
        m_handlers.push_back(std::make_unique<kelto_test::RecordingHandler>(aId, m_log));
        m_handlers.back()->SetAction([this, aTakesMs] {
            m_firedAtMs.push_back((timer_policy::now() - START_USEC) / 1000);
            m_clock.AdvanceMs(aTakesMs);
        });
        m_pTask->GetTimerQueue()->ScheduleTimer(m_handlers.back().get(), nullptr,
                                                kelto_test::Ms(aMs), aCount);
    }

    static constexpr long long START_USEC = 1000000000LL * 1000000;

    kelto_test::ScopedClock m_clock;
    CCmThreadTask* m_pTask = new CCmThreadTask;
    kelto_test::Firings m_log;
    std::vector<long long> m_firedAtMs;
    std::vector<std::unique_ptr<kelto_test::RecordingHandler>> m_handlers;
};

TEST_F(CmThreadTaskTimes, FiresATimerAtOnce_WhenItBecameDueDuringAHandler) {
    Schedule(1, 10, 510);
    Schedule(2, 300, 0);
    Schedule(3, 490, 0);
    NotedWaits noted(*m_pTask, m_clock, 3);
    m_pTask->OnThreadRun();
    EXPECT_EQ((std::vector<long>{10000, 0, NotedWaits::UNLIMITED}), noted.waits);
    EXPECT_EQ((Ids{1, 2, 3}), kelto_test::Ids(m_log));
    EXPECT_EQ((std::vector<long long>{10, 520, 520}), m_firedAtMs);
}

TEST_F(CmThreadTaskTimes, KeepsItsPace_WhenAHandlerTakesLongerThanItsInterval) {
    Schedule(1, 60, 100, 0);
    Schedule(2, 300, 0);
    NotedWaits noted(*m_pTask, m_clock, 5);
    m_pTask->OnThreadRun();
    EXPECT_EQ((std::vector<long>{60000, 0, 0, 0, 0}), noted.waits);
    EXPECT_EQ((std::vector<long long>{60, 160, 260, 360, 460}), m_firedAtMs);
}

TEST_F(CmThreadTaskTimes, WaitsForTheRest_AfterAHandlerThatTookTime) {
    Schedule(1, 10, 100);
    Schedule(2, 300, 25);
    NotedWaits noted(*m_pTask, m_clock, 3);
    m_pTask->OnThreadRun();
    EXPECT_EQ((std::vector<long>{10000, 190000, NotedWaits::UNLIMITED}), noted.waits);
    EXPECT_EQ((std::vector<long long>{10, 300}), m_firedAtMs);
}

TEST_F(CmThreadTaskTimes, NeverWaitsLongerThanTheQueueSays_WhenTheClockIsSetBack) {
    Schedule(1, 10, -3600000);
    Schedule(2, 300, 0);
    NotedWaits noted(*m_pTask, m_clock, 2);
    m_pTask->OnThreadRun();
    EXPECT_EQ((std::vector<long>{10000, 290000}), noted.waits);
}

TEST_F(CmThreadTaskTimes, ReadsTheClockOnceMore_AfterAFiringOnly) {
    Schedule(1, 10, 0, 2);
    m_handlers[0]->SetAction({});
    m_clock.AdvanceMs(10);
    NotedWaits noted(*m_pTask, m_clock, 3);
    noted.endEarly = true;
    const unsigned long ulBefore = m_clock.reads();
    m_pTask->OnThreadRun();
    EXPECT_EQ((std::vector<long>{10000, 10000, 10000}), noted.waits);
    EXPECT_EQ((std::vector<unsigned long>{ulBefore + 2, ulBefore + 3, ulBefore + 4}), noted.reads);
}

TEST(CmThreadTask, IsRefused_WhenTheTypeIsMain) {
    ACmThread* pThread = nullptr;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TT_MAIN));
    EXPECT_EQ(nullptr, pThread);
}

TEST(CmThreadTask, IsRefused_WhenThereIsNowhereToStoreIt) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CreateUserTaskThread(nullptr, TF_JOINABLE, true, TYPE));
}

TEST(CmThreadTask, HasATimerQueue_WhenAskedFor) {
    for (bool bWithTimerQueue : {false, true}) {
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE));
        EXPECT_EQ(bWithTimerQueue, pThread->GetTimerQueue() != nullptr);
        EXPECT_NE(nullptr, pThread->GetEventQueue());
        EXPECT_EQ(TYPE, pThread->GetThreadType());
        EndJoinable(pThread);
    }
}

class OwnedTask : public CCmThreadTask {
  public:
    pthread_t Owner() const { return m_ThreadId; }
};

TEST(CmThreadTask, BelongsToItsThread_AfterCreate) {
    auto* pTask = new OwnedTask;
    EXPECT_TRUE(pthread_equal(pthread_self(), pTask->Owner()));
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
    EXPECT_TRUE(pthread_equal(pTask->GetThreadId(), pTask->Owner()));
    EndJoinable(pTask);
}

TEST(CmThreadTask, TracesItsLifeToTheCharacter) {
    const char* apRunLines[] = {
        "UTIL INFO: CCmThreadTaskWithEventQueueOnly::OnThreadRun this=0x#",
        "UTIL INFO: CCmThreadTask::OnThreadRun, Begin. this=0x#",
    };
    for (bool bWithTimerQueue : {false, true}) {
        kelto_test::ScopedTraceSink sink;
        ACmThread* pThread = nullptr;
        CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE);
        EventLog log;
        pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1));
        EndJoinable(pThread);
        ASSERT_EQ(4u, sink.lines().size());
        EXPECT_EQ("UTIL INFO: ACmThread::Create, aType=7 aFlag=1 Register=1 this=0x#",
                  MaskAddresses(sink.lines()[0].text));
        EXPECT_EQ(apRunLines[bWithTimerQueue ? 1 : 0], MaskAddresses(sink.lines()[1].text));
        EXPECT_EQ("UTIL INFO: CCmThreadTaskWithEventQueueOnly::Stop this=0x#",
                  MaskAddresses(sink.lines()[2].text));
        EXPECT_EQ("UTIL INFO: ACmThread::Destory, aReason=0 this=0x#",
                  MaskAddresses(sink.lines()[3].text));
    }
}

TEST(CmThreadTask, RunsWhatIsPendingAndRefusesTheRest_AfterStop) {
    for (bool bWithTimerQueue : {false, true}) {
        EventLog log;
        Ids expected;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE));
        for (int i = 0; i < 100; ++i) {
            pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
            expected.push_back(i);
        }
        EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED,
                  pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 100), NORMAL));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED,
                  pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 101)));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pThread->Stop(nullptr));
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(expected, log.fired());
        EXPECT_EQ(102u, log.ended().size());
        pThread->Destory(0);
    }
}

TEST(CmThreadTask, SendsAtOnce_WhenOnItsOwnThread) {
    for (bool bWithTimerQueue : {false, true}) {
        EventLog log;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE));
        ICmEventQueue* pQueue = pThread->GetEventQueue();
        pQueue->PostEvent(new LoggedEvent(log, 1,
                                          [&] {
                                              pQueue->PostEvent(new LoggedEvent(log, 3), NORMAL);
                                              return pQueue->SendEvent(new LoggedEvent(log, 2));
                                          }),
                          NORMAL);
        // One that waits for itself could not be joined.
        ASSERT_TRUE(Eventually([&] { return log.ended().size() == 3; }));
        EndJoinable(pThread);
        EXPECT_EQ((Ids{1, 2, 3}), log.fired());
        EXPECT_EQ((Ids{2, 1, 3}), log.ended());
    }
}

TEST(CmThreadTask, EndsEventsUnfired_WhenItsLoopEndsBeforeTheirTurn) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    CCmThreadTaskWithEventQueueOnly* pTask = static_cast<CCmThreadTaskWithEventQueueOnly*>(pThread);
    Gate busy;
    Gate go;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            busy.Open();
                                                            go.Wait();
                                                            return CM_OK;
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(busy.Wait());
    EXPECT_EQ(CM_OK, CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask));
    for (int i = 1; i <= 20; ++i) {
        EXPECT_EQ(CM_OK, pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL));
    }
    go.Open();
    EXPECT_EQ(CM_OK, pThread->Join());
    // The stop event is the first of a batch of five, which still runs as a whole.
    EXPECT_EQ((Ids{0, 1, 2, 3, 4}), log.fired());
    EXPECT_EQ(21u, log.ended().size());
    pThread->Destory(0);
}

TEST(CmThreadTask, WakesASenderUnserved_WhenItStopsFirst) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    CCmThreadTaskWithEventQueueOnly* pTask = static_cast<CCmThreadTaskWithEventQueueOnly*>(pThread);
    Gate go;
    Gate busy;
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          busy.Open();
                                          go.Wait();
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(busy.Wait());
    CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask);
    for (int i = 1; i <= 10; ++i) {
        pQueue->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 99)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() >= 12; }));
    go.Open();
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    pThread->Join();
    pThread->Destory(0);
}

TEST(CmThreadTask, RefusesASender_WhenTheWorkerHasEnded) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(
        static_cast<CCmThreadTaskWithEventQueueOnly*>(pThread));
    pThread->Join();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED,
              pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1)));
    pThread->Destory(0);
}

TEST(CmThreadTask, StaysOpen_WhenTheStopEventCannotBeAllocated) {
    for (unsigned long ulNth : {1ul, 2ul}) {
        EventLog log;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
        {
            kelto_test::ScopedAllocationFault fault(ulNth);
            EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, pThread->Stop(nullptr));
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(RESULT, pThread->GetEventQueue()->SendEvent(
                              new LoggedEvent(log, 1, [] { return RESULT; })));
        EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
        pThread->Join();
        pThread->Destory(0);
    }
}

// Records when it fired.
class RecordingHandler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void*) override {
        m_firedAt = std::chrono::steady_clock::now();
        ++m_nFired;
    }
    std::chrono::steady_clock::time_point firedAt() const { return m_firedAt; }
    int fired() const { return m_nFired; }

  private:
    std::chrono::steady_clock::time_point m_firedAt;
    std::atomic<int> m_nFired{0};
};

TEST(CmThreadTask, FiresATimer_WhenItIsDue) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    RecordingHandler handler;
    EventLog log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CM_OK, pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [&] {
        return pThread->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 20000),
                                                       1);
    })));
    EXPECT_TRUE(Eventually([&] { return handler.fired() == 1; }));
    const double dMs = std::chrono::duration<double, std::milli>(handler.firedAt() - start).count();
    EXPECT_GE(dMs, 19.0);
    EXPECT_LE(dMs, 5000.0);
    EndJoinable(pThread);
    EXPECT_EQ(1, handler.fired());
}

std::atomic<int> g_nUnlimitedWaits{0};
std::atomic<int> g_nTimedWaits{0};
int CountedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    ++g_nUnlimitedWaits;
    return pthread_cond_wait(aCondition, aMutex);
}
int CountedTimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex, const timespec* aTime) {
    ++g_nTimedWaits;
    return pthread_cond_timedwait(aCondition, aMutex, aTime);
}

TEST(CmThreadTask, SleepsWithoutLimit_WhenThereAreNoTimers) {
    ACmThread* pThread = nullptr;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> wait(
        g_cmSystem.pthread_cond_wait, &CountedWait);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> timedWait(
        g_cmSystem.pthread_cond_timedwait, &CountedTimedWait);
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    g_nUnlimitedWaits = g_nTimedWaits = 0;
    EventLog log;
    for (int i = 0; i < 3; ++i) {
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
        ASSERT_TRUE(Eventually([&] { return log.ended().size() == static_cast<size_t>(i) + 1; }));
    }
    EXPECT_TRUE(Eventually([] { return g_nUnlimitedWaits >= 1; }));
    EXPECT_EQ(0, g_nTimedWaits.load());
    EndJoinable(pThread);
}

TEST(CmThreadTask, SleepsAgain_WhenItsTimerHasFired) {
    ACmThread* pThread = nullptr;
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> wait(
        g_cmSystem.pthread_cond_wait, &CountedWait);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> timedWait(
        g_cmSystem.pthread_cond_timedwait, &CountedTimedWait);
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    RecordingHandler handler;
    EventLog log;
    pThread->GetEventQueue()->PostEvent(
        new LoggedEvent(log, 1,
                        [&] {
                            g_nUnlimitedWaits = g_nTimedWaits = 0;
                            return pThread->GetTimerQueue()->ScheduleTimer(
                                &handler, nullptr, CCmTimeValue(0, 20000), 1);
                        }),
        NORMAL);
    EXPECT_TRUE(Eventually([&] { return handler.fired() == 1 && g_nUnlimitedWaits == 1; }));
    EXPECT_GE(g_nTimedWaits.load(), 1);
    EXPECT_LE(g_nTimedWaits.load(), 3);  // one, unless it ends early
    EndJoinable(pThread);
}

TEST(CmThreadTask, LooksAtItsTimersEveryFiveEvents_WhenManyArePending) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    EventLog log;
    // Each look at the timers fires the due one, whose place in the log is between two batches.
    NotingHandler handler(log);
    auto schedule = [&] {
        return pThread->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(), 1);
    };
    Gate go;
    Gate busy;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            busy.Open();
                                                            go.Wait();
                                                            return schedule();
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(busy.Wait());
    for (int i = 1; i <= 12; ++i) {
        const bool bEndsABatch = i == 5 || i == 10;
        pThread->GetEventQueue()->PostEvent(
            new LoggedEvent(log, i, [=] { return bEndsABatch ? schedule() : CM_OK; }), NORMAL);
    }
    go.Open();
    ASSERT_TRUE(Eventually([&] { return log.ended().size() == 13; }));
    EXPECT_EQ((Ids{0, -1, 1, 2, 3, 4, 5, -1, 6, 7, 8, 9, 10, -1, 11, 12}), log.fired());
    EndJoinable(pThread);
}

TEST(CmThreadTask, TakesEverythingAtOnce_WhenItHasNoTimerQueue) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    EventLog log;
    Gate go;
    Gate busy;
    DWORD dwPending = 77;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            busy.Open();
                                                            go.Wait();
                                                            return CM_OK;
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(busy.Wait());
    pThread->GetEventQueue()->PostEvent(
        new LoggedEvent(log, 1,
                        [&] {
                            dwPending = pThread->GetEventQueue()->GetPendingEventsCount();
                            return CM_OK;
                        }),
        NORMAL);
    for (int i = 2; i <= 30; ++i) {
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    go.Open();
    // The stop event must not be pending among them.
    EXPECT_TRUE(Eventually([&] { return log.fired().size() == 31; }));
    EndJoinable(pThread);
    EXPECT_EQ(0u, dwPending);
    EXPECT_EQ(31u, log.fired().size());
}

TEST(CmThreadTask, StopFlagIsSet_BeforeTheThreadStarts) {
    CCmStopFlag plain;
    EXPECT_FALSE(plain.IsFlagStopped());
    CCmThreadTaskWithEventQueueOnly* pTask = new CCmThreadTaskWithEventQueueOnly;
    EXPECT_TRUE(pTask->IsFlagStopped());
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_FALSE(pTask->IsFlagStopped());
    pTask->Stop(nullptr);
    pTask->Join();
    EXPECT_TRUE(pTask->IsFlagStopped());
    pTask->Destory(0);
}

TEST(CmThreadTask, KeepsItsTimerQueue_WhenAnUnknownTypeIsCreatedAgain) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    CCmThreadTask* pTask = new CCmThreadTask;
    ASSERT_EQ(CM_OK, pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    ICmTimerQueue* const pTimerQueue = pTask->GetTimerQueue();
    EXPECT_NE(nullptr, pTimerQueue);
    pTask->Terminate();
    EXPECT_EQ(CM_OK, pTask->Join());
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
    EXPECT_EQ(pTimerQueue, pTask->GetTimerQueue());
    EndJoinable(pTask);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

CCmThreadTaskWithEventQueueOnly* StoppedTask(bool aWithTimers) {
    CCmThreadTaskWithEventQueueOnly* pTask =
        aWithTimers ? new CCmThreadTask : new CCmThreadTaskWithEventQueueOnly;
    EXPECT_EQ(CM_OK, pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    EXPECT_EQ(CM_OK, pTask->Stop(nullptr));
    EXPECT_EQ(CM_OK, pTask->Join());
    return pTask;
}

TEST(CmThreadTask, IsRefused_WhenAnEarlierThreadOfItWasStopped) {
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        for (int nType : {TYPE, TT_UNKNOWN}) {
            const long lLive = kelto_test::LiveAllocationsBefore();
            CCmThreadTaskWithEventQueueOnly* pTask = StoppedTask(nType == TYPE);
            const size_t nBefore = RegisteredThreads();
            const CmResult rv = pTask->Create(nType, flag, 1);
            EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rv);
            EXPECT_EQ(nBefore, RegisteredThreads());
            if (CM_SUCCEEDED(rv)) {  // nothing else ends it
                pTask->Terminate();
            }
            EXPECT_TRUE(Eventually([&] { return pTask->GetStopFlag(); }));
            EXPECT_TRUE(pTask->IsFlagStopped());
            EXPECT_EQ(CM_OK, pTask->Join());
            pTask->Destory(rv);
            // A detached thread may still be on its way out.
            EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
        }
    }
}

TEST(CmThreadTask, ReturnsAtOnce_WhenAStoppedOneAdoptsAThread) {
    CCmThreadTaskWithEventQueueOnly* pTask = StoppedTask(true);
    ASSERT_EQ(CM_OK, pTask->Create(TT_MAIN, TF_JOINABLE, 0));
    pTask->OnThreadInit();
    ASSERT_TRUE(pTask->IsFlagStopped());
    pTask->OnThreadRun();
    pTask->Destory(0);
}

TEST(CmThreadTask, RunsWhatIsPendingAndEnds_WhenStoppedBeforeItIsCreated) {
    EventLog log;
    for (CCmThreadTaskWithEventQueueOnly* pTask :
         {new CCmThreadTaskWithEventQueueOnly,
          static_cast<CCmThreadTaskWithEventQueueOnly*>(new CCmThreadTask)}) {
        pTask->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
        EXPECT_EQ(CM_OK, pTask->Stop(nullptr));
        ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_EQ(CM_OK, pTask->Join());
        pTask->Destory(0);
    }
    EXPECT_EQ((Ids{1, 1}), log.fired());
}

TEST(CmThreadTask, EndsWhatIsPending_WhenItRunsStopped) {
    EventLog log;
    for (int i = 0; i < 2; ++i) {
        CCmThreadTaskWithEventQueueOnly* pTask =
            i == 0 ? new CCmThreadTaskWithEventQueueOnly : new CCmThreadTask;
        pTask->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
        pTask->OnThreadRun();
        EXPECT_EQ(static_cast<size_t>(i) + 1, log.ended().size());
        pTask->Destory(0);
    }
    EXPECT_EQ(Ids(), log.fired());
}

TEST(CmThreadTask, FailsAndFreesAll_WhenAnyAllocationFails) {
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        for (bool bWithTimerQueue : {false, true}) {
            for (auto failing : {kelto_test::Failing::ONCE, kelto_test::Failing::FROM_THERE_ON}) {
                for (unsigned long ulNth = 1;; ++ulNth) {
                    const size_t nBefore = RegisteredThreads();
                    const long lLive = kelto_test::LiveAllocationsBefore();
                    ACmThread* pThread = nullptr;
                    CmResult rv = CM_OK;
                    bool bHit = false;
                    {
                        kelto_test::ScopedAllocationFault fault(
                            ulNth, failing, kelto_test::AllocationsOf::ALL_THREADS);
                        rv = CreateUserTaskThread(&pThread, flag, bWithTimerQueue, TYPE);
                        bHit = fault.hit();
                    }
                    if (!bHit) {
                        ASSERT_EQ(CM_OK, rv);
                        EXPECT_GT(ulNth, 3u);
                        pThread->Stop(nullptr);
                        pThread->Join();
                        pThread->Destory(0);
                    } else {
                        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, rv);
                        EXPECT_EQ(nullptr, pThread);
                    }
                    EXPECT_EQ(nBefore, RegisteredThreads());
                    EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
                    if (!bHit) {
                        break;
                    }
                }
            }
        }
    }
}

// A whole life of a worker during which the call fails, once or from there on, at every place in
// turn. Whatever the results: nothing hangs, no event is lost and nothing leaks.
template <auto Call>
void ExpectLifeGoesOn(kelto_test::Failing aFailing) {
    for (unsigned long ulNth = 1; ulNth <= 12; ++ulNth) {
        const long lLive = kelto_test::LiveAllocationsBefore();
        {
            EventLog log;
            ACmThread* pThread = nullptr;
            kelto_test::FailingCall<Call> fault(EAGAIN, EAGAIN, ulNth, aFailing);
            ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
            pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
            pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 2));
            EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
            EXPECT_EQ(CM_OK, pThread->Join());
            pThread->Destory(0);
            EXPECT_EQ((Ids{1, 2}), log.fired());
            EXPECT_EQ((Ids{1, 2}), log.ended());
        }
        EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    }
}

TEST(CmThreadTask, LifeGoesOn_WhenMutexesCannotBeInitialised) {
    ExpectLifeGoesOn<&CCmSystemTable::pthread_mutex_init>(kelto_test::Failing::ONCE);
    ExpectLifeGoesOn<&CCmSystemTable::pthread_mutex_init>(kelto_test::Failing::FROM_THERE_ON);
}

TEST(CmThreadTask, LifeGoesOn_WhenConditionsCannotBeInitialised) {
    ExpectLifeGoesOn<&CCmSystemTable::pthread_cond_init>(kelto_test::Failing::ONCE);
    ExpectLifeGoesOn<&CCmSystemTable::pthread_cond_init>(kelto_test::Failing::FROM_THERE_ON);
}

TEST(CmThreadTask, LifeGoesOn_WhenOneSignalFails) {
    ExpectLifeGoesOn<&CCmSystemTable::pthread_cond_signal>(kelto_test::Failing::ONCE);
}

TEST(CmThreadTask, LifeGoesOn_WhenOneWaitFails) {
    ExpectLifeGoesOn<&CCmSystemTable::pthread_cond_wait>(kelto_test::Failing::ONCE);
    ExpectLifeGoesOn<&CCmSystemTable::pthread_cond_timedwait>(kelto_test::Failing::ONCE);
}

// The stop event.

// What a stop event needs of a thread.
class FakeWorker {
  public:
    FakeWorker() { m_queue.BindToCurrentThread(); }
    ICmEventQueue* GetEventQueue() { return &m_queue; }
    void SetStopFlag() { m_stopped = true; }

    class Queue : public CCmEventQueueBase {
      public:
        CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
            m_priority = aPri;
            return CCmEventQueueBase::PostEvent(aEvent, aPri);
        }
        int m_priority = -1;
    } m_queue;
    bool m_stopped = false;
};

TEST(CmEventStopT, SetsTheStopFlag_WhenItIsItsTurn) {
    FakeWorker worker;
    EXPECT_EQ(CM_OK, CCmEventStopT<FakeWorker>::PostStopEvent(&worker));
    EXPECT_EQ(1, worker.m_queue.m_priority);
    EXPECT_FALSE(worker.m_stopped);
    ICmEvent* pEvent = nullptr;
    ASSERT_EQ(CM_OK, worker.m_queue.PopOnePendingEvent(pEvent));
    EXPECT_EQ(CM_OK, pEvent->OnEventFire());
    EXPECT_TRUE(worker.m_stopped);
    pEvent->OnDestorySelf();
}

TEST(CmEventStopT, SetsNoStopFlag_WithoutAThread) {
    CCmEventStopT<FakeWorker> event(nullptr);
    EXPECT_EQ(CM_OK, event.OnEventFire());
}

}  // namespace
}  // namespace UTIL_NS
