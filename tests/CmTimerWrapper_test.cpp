#include "CmTimerWrapper.h"

#include <gtest/gtest.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "CmSingletonMutex.h"
#include "CmThread.h"
#include "CmTimerQueueCalendar.h"
#include "support/ChildProcess.h"
#include "support/Clock.h"
#include "support/Faults.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::Ms;
using kelto_test::ScopedClock;
using kelto_test::ScopedTraceSink;

typedef low_tick_policy::low_tick_generator Generator;

class RecordingSink : public CCmTimerWrapperIDSink {
  public:
    void OnTimer(CCmTimerWrapperID* aId) override {
        m_ids.push_back(aId);
        if (m_action) {
            m_action();
        }
    }
    std::vector<CCmTimerWrapperID*> m_ids;
    std::function<void()> m_action;
};

// Adopts the test's thread and gives it queues.
class CmTimerWrapperID : public testing::Test {
  protected:
    CmTimerWrapperID() {
        m_pThread->Create(TT_MAIN, TF_JOINABLE, 1);
        m_pThread->OnThreadInit();
    }
    ~CmTimerWrapperID() override { m_pThread->Destory(CM_OK); }
    size_t FiredAfterMs(long aMs) {
        m_clock.AdvanceMs(aMs);
        m_pThread->DoHeartBeat();
        return m_recorder.m_ids.size();
    }

    ScopedClock m_clock;
    ScopedTraceSink m_sink;
    RecordingSink m_recorder;
    CCmThreadHeartBeat* m_pThread = new CCmThreadHeartBeat;
};

TEST(CmTimerWrapperIDAlone, RefusesASchedule_WhenTheThreadIsNotTheLibrarys) {
    ScopedTraceSink sink;
    CmResult rvSchedule = CM_OK;
    CmResult rvCancel = CM_ERROR_FAILURE;
    std::thread([&] {
        CCmTimerWrapperID timer;
        rvSchedule = timer.Schedule(nullptr, Ms(10), 1);
        rvCancel = timer.Cancel();
    }).join();
    EXPECT_EQ(CM_ERROR_NULL_POINTER, rvSchedule);
    EXPECT_EQ(CM_OK, rvCancel);
    ASSERT_EQ(1U, sink.lines().size());
    EXPECT_EQ(0U, sink.lines()[0].level);
    EXPECT_EQ(
        "UTIL ERROR: CCmTimerWrapperID::Schedule, this thread doesn't suppport TimerQueue! "
        "this=0x#",
        kelto_test::MaskAddresses(sink.lines()[0].text));
}

TEST(CmTimerWrapperIDAlone, RefusesASchedule_WhenTheThreadHasNoTimerQueue) {
    ScopedTraceSink sink;
    CCmThreadTaskWithEventQueueOnly* pThread = new CCmThreadTaskWithEventQueueOnly;
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_ERROR_NULL_POINTER, timer.Schedule(nullptr, Ms(10), 1));
    EXPECT_EQ(1U, sink.count("doesn't suppport TimerQueue!"));
    pThread->Destory(CM_OK);
}

TEST_F(CmTimerWrapperID, SaysOk_WhenCancelledBeforeAnySchedule) {
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, timer.Cancel());
}

TEST_F(CmTimerWrapperID, TellsItsSink_WhenItFires) {
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, timer.Schedule(&m_recorder, Ms(10), 2));
    EXPECT_EQ(0U, FiredAfterMs(9));
    EXPECT_EQ(1U, FiredAfterMs(1));
    EXPECT_EQ(2U, FiredAfterMs(10));
    EXPECT_EQ(2U, FiredAfterMs(100));
    EXPECT_EQ((std::vector<CCmTimerWrapperID*>{&timer, &timer}), m_recorder.m_ids);
}

TEST_F(CmTimerWrapperID, FiresSilently_WhenTheSinkIsNull) {
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, timer.Schedule(nullptr, Ms(10), 1));
    EXPECT_EQ(0U, FiredAfterMs(10));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
}

TEST_F(CmTimerWrapperID, SaysFound_WhenScheduledAgain) {
    RecordingSink other;
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, timer.Schedule(&other, Ms(10), 0));
    EXPECT_EQ(CM_ERROR_FOUND, timer.Schedule(&m_recorder, Ms(20), 1));
    EXPECT_EQ(1U, FiredAfterMs(20));
    EXPECT_TRUE(other.m_ids.empty());
}

TEST_F(CmTimerWrapperID, DoesNotFire_WhenCancelled) {
    CCmTimerWrapperID timer;
    timer.Schedule(&m_recorder, Ms(10), 0);
    EXPECT_EQ(CM_OK, timer.Cancel());
    EXPECT_EQ(CM_OK, timer.Cancel());
    EXPECT_EQ(0U, FiredAfterMs(100));
}

TEST_F(CmTimerWrapperID, SaysNotFoundOnce_WhenCancelledAfterItsLastFiring) {
    CCmTimerWrapperID timer;
    timer.Schedule(&m_recorder, Ms(10), 1);
    EXPECT_EQ(1U, FiredAfterMs(10));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
    EXPECT_EQ(CM_OK, timer.Cancel());
}

TEST_F(CmTimerWrapperID, CountsAsScheduled_WhenTheQueueRefused) {
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, timer.Schedule(&m_recorder, Ms(0), 0));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
}

TEST_F(CmTimerWrapperID, CountsAsScheduled_WhenMemoryRanOut) {
    CCmTimerWrapperID timer;
    {
        kelto_test::ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, timer.Schedule(&m_recorder, Ms(10), 0));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(CM_ERROR_NOT_FOUND, timer.Cancel());
    EXPECT_EQ(0U, FiredAfterMs(100));
}

TEST_F(CmTimerWrapperID, CancelsItsTimer_WhenItEnds) {
    {
        CCmTimerWrapperID timer;
        timer.Schedule(&m_recorder, Ms(10), 0);
    }
    EXPECT_EQ(0U, FiredAfterMs(100));
}

TEST_F(CmTimerWrapperID, Ends_WhenItsSinkDestroysIt) {
    std::unique_ptr<CCmTimerWrapperID> pTimer = std::make_unique<CCmTimerWrapperID>();
    m_recorder.m_action = [&] { pTimer.reset(); };
    pTimer->Schedule(&m_recorder, Ms(10), 0);
    EXPECT_EQ(1U, FiredAfterMs(10));
    EXPECT_EQ(1U, FiredAfterMs(100));
}

TEST_F(CmTimerWrapperID, StaysBoundToItsFirstQueue_WhenScheduledOnAnotherThread) {
    CCmTimerWrapperID timer;
    timer.Schedule(&m_recorder, Ms(10), 1);
    CmResult rv = CM_ERROR_FAILURE;
    // From a thread that has no queue of its own, while the owner waits.
    std::thread([&] { rv = timer.Schedule(&m_recorder, Ms(30), 1); }).join();
    EXPECT_EQ(CM_ERROR_FOUND, rv);
    EXPECT_EQ(0U, FiredAfterMs(20));
    EXPECT_EQ(1U, FiredAfterMs(10));
}

// Runs on a worker and tells the test what came of it.
class ScheduleEvent : public ICmEvent {
  public:
    explicit ScheduleEvent(std::function<CmResult()> aWork) : m_work(std::move(aWork)) {}
    CmResult OnEventFire() override { return m_work(); }

  private:
    std::function<CmResult()> m_work;
};

class CountingSink : public CCmTimerWrapperIDSink {
  public:
    void OnTimer(CCmTimerWrapperID* /*aId*/) override { m_nCount.fetch_add(1); }
    std::atomic<int> m_nCount{0};
};

// What a wrapper holds after its table of functions.
struct WrapperFields {
    void* functions;
    bool scheduled;
    ICmTimerQueue* queue;
};

TEST(CmTimerWrapperIDAlone, EndsWithoutAQueue_WhenItHoldsNone) {
    static_assert(sizeof(WrapperFields) == sizeof(CCmTimerWrapperID));
    alignas(CCmTimerWrapperID) unsigned char memory[sizeof(CCmTimerWrapperID)];
    CCmTimerWrapperID* pTimer = new (memory) CCmTimerWrapperID;
    bool* const pScheduled = reinterpret_cast<bool*>(memory + offsetof(WrapperFields, scheduled));
    *pScheduled = true;
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pTimer->Cancel());
    EXPECT_FALSE(*pScheduled);
    EXPECT_EQ(CM_OK, pTimer->Cancel());
    *pScheduled = true;
    pTimer->~CCmTimerWrapperID();
}

// Adopts the test's thread and gives it a calendar of 11 slots of 10 ms.
class CalendarThread : public CCmThreadHeartBeat {
  public:
    ICmTimerQueue* GetTimerQueue() override { return &m_Calendar; }
    CCmTimerQueueCalendar m_Calendar{10, 110, &m_EventQueue};
};

class CmTimerWrapperIDOnCalendar : public testing::Test {
  protected:
    CmTimerWrapperIDOnCalendar() {
        m_pThread->Create(TT_MAIN, TF_JOINABLE, 1);
        m_pThread->OnThreadInit();
    }
    ~CmTimerWrapperIDOnCalendar() override {
        m_pTimer.reset();  // before its queue
        m_pThread->Destory(CM_OK);
    }
    CmResult Schedule(long aMs) { return m_pTimer->Schedule(&m_recorder, Ms(aMs), 1); }
    // How often the sink is told while the zero timers and then the wheel run.
    size_t Fired() {
        m_pThread->DoHeartBeat();
        for (int nTick = 0; nTick < 30; ++nTick) {
            m_pThread->m_Calendar.TimerTick();
        }
        return m_recorder.m_ids.size();
    }

    RecordingSink m_recorder;
    CalendarThread* m_pThread = new CalendarThread;
    std::unique_ptr<CCmTimerWrapperID> m_pTimer = std::make_unique<CCmTimerWrapperID>();
};

TEST_F(CmTimerWrapperIDOnCalendar, TellsItsSink_WhenItFires) {
    EXPECT_EQ(CM_OK, Schedule(0));
    EXPECT_EQ(1U, Fired());
    EXPECT_EQ(CM_OK, Schedule(50));
    EXPECT_EQ(2U, Fired());
}

TEST_F(CmTimerWrapperIDOnCalendar, EndsWhatTheQueueDoesNotFind_WhenItEnds) {
    EXPECT_EQ(CM_OK, Schedule(50));
    EXPECT_EQ(CM_OK, Schedule(0));
    m_pTimer.reset();
    EXPECT_EQ(0U, Fired());
}

TEST_F(CmTimerWrapperIDOnCalendar, EndsWhatTheQueueDoesNotFind_WhenCancelled) {
    Schedule(50);
    Schedule(0);
    EXPECT_EQ(CM_OK, Schedule(50));  // the zero timer stays beside it
    EXPECT_EQ(CM_OK, m_pTimer->Cancel());
    EXPECT_EQ(0U, Fired());
    Schedule(50);
    Schedule(0);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_pTimer->Cancel());
    EXPECT_EQ(0U, Fired());
}

TEST_F(CmTimerWrapperIDOnCalendar, EndsEveryZeroTimerAndNobodyElses_WhenCancelled) {
    RecordingSink others;
    CCmTimerWrapperID before;
    CCmTimerWrapperID between;
    EXPECT_EQ(CM_OK, before.Schedule(&others, Ms(0), 1));
    Schedule(50);
    Schedule(0);
    EXPECT_EQ(CM_OK, between.Schedule(&others, Ms(0), 1));
    Schedule(0);  // adds up
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_pTimer->Cancel());
    EXPECT_EQ(0U, Fired());
    EXPECT_EQ((std::vector<CCmTimerWrapperID*>{&between, &before}), others.m_ids);
}

TEST_F(CmTimerWrapperIDOnCalendar, EndsTheRest_WhenItsSinkCancelsIt) {
    Schedule(50);
    Schedule(0);
    Schedule(0);
    m_recorder.m_action = [this] { m_pTimer->Cancel(); };
    EXPECT_EQ(1U, Fired());
}

TEST_F(CmTimerWrapperIDOnCalendar, IsMissed_WhenTheQueueItselfCancelsAZeroTimer) {
    Schedule(50);
    Schedule(0);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_pThread->m_Calendar.CancelTimer(m_pTimer.get()));
    EXPECT_EQ(1U, Fired());
}

TEST(CmTimerWrapperIDOnWorker, FiresOnTheWorkersThread_WhenScheduledThere) {
    ScopedTraceSink sink;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1));
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    CountingSink counter;
    CCmTimerWrapperID timer;
    EXPECT_EQ(CM_OK, pQueue->SendEvent(new ScheduleEvent(
                         [&] { return timer.Schedule(&counter, CCmTimeValue(0, 1000), 3); })));
    for (int i = 0; i < 20000 && counter.m_nCount.load() < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(3, counter.m_nCount.load());
    EXPECT_EQ(CM_ERROR_NOT_FOUND,
              pQueue->SendEvent(new ScheduleEvent([&] { return timer.Cancel(); })));
    pThread->Stop(nullptr);
    pThread->Join();
    pThread->Destory(CM_OK);
}

// Runs a case in a child, since the generator is created once per process; the result is the
// child's exit status.
int InChild(const std::function<bool()>& aCase) {
    const pid_t pid = fork();
    if (pid == 0) {
        EndProcess(aCase() ? 0 : 1);
    }
    int nStatus = -1;
    waitpid(pid, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

TEST(CmLowTick, NotesThatItHasNoTimer_WhenThereIsNoTimerQueue) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  ScopedClock clock;
                  const bool bWasOne = Generator::m_InitTimerSucc == 1;
                  clock.SetTicks(4711);
                  const long long llTick = low_tick_policy::now();
                  return bWasOne && llTick == 47110000 && Generator::m_InitTimerSucc == 0 &&
                         sink.lines().size() == 1 &&
                         sink.count(
                             "CCmTimerWrapperID::Schedule, this thread doesn't suppport "
                             "TimerQueue!") == 1;
              }));
}

TEST(CmLowTick, ReadsTheClockAfreshOnEveryCall) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  ScopedClock clock;
                  clock.SetTicks(100);
                  const long long llFirst = low_tick_policy::now();
                  clock.SetTicks(101);
                  return llFirst == 1000000 && low_tick_policy::now() == 1010000 &&
                         Generator::now() == 1010000;
              }));
}

TEST(CmLowTick, HasOneInstanceWithATimer_WhenTheThreadHasATimerQueue) {
    EXPECT_EQ(
        0, InChild([] {
            ScopedTraceSink sink;
            ScopedClock clock;
            CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
            pThread->Create(TT_MAIN, TF_JOINABLE, 1);
            pThread->OnThreadInit();
            Generator* pGenerator = Generator::instance();
            CCmTimerQueueBase* pQueue = static_cast<CCmTimerQueueBase*>(pThread->GetTimerQueue());
            const CCmTimeValue tvDue = pQueue->GetEarliestTime();
            clock.AdvanceMs(35);
            const unsigned int dwFired = pQueue->CheckExpire();
            return pGenerator != nullptr && pGenerator == Generator::instance() &&
                   Generator::m_InitTimerSucc == 1 && tvDue == CCmTimeValue(1000000000, 10000) &&
                   dwFired == 1 && pQueue->GetEarliestTime() == CCmTimeValue(1000000000, 40000);
        }));
}

TEST(CmLowTick, CancelsItsTimer_WhenItIsDestroyed) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
                  pThread->Create(TT_MAIN, TF_JOINABLE, 1);
                  pThread->OnThreadInit();
                  CCmTimerWrapperIDSink* pGenerator = Generator::instance();
                  CCmTimerQueueBase* pQueue =
                      static_cast<CCmTimerQueueBase*>(pThread->GetTimerQueue());
                  const bool bHadTimer = pQueue->GetEarliestTime() != CCmTimeValue::s_tvMax;
                  delete pGenerator;
                  return bHadTimer && pQueue->GetEarliestTime() == CCmTimeValue::s_tvMax;
              }));
}

TEST(CmLowTick, IsMadeByTheNextCall_WhenMemoryRanOut) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  tick_policy::now();  // its singleton is there
                  Generator* pFirst = nullptr;
                  long long llTick = -1;
                  {
                      kelto_test::ScopedAllocationFault fault(1,
                                                              kelto_test::Failing::FROM_THERE_ON);
                      pFirst = Generator::instance();
                      llTick = low_tick_policy::now();
                  }
                  return pFirst == nullptr && llTick >= 0 && Generator::instance() != nullptr;
              }));
}

TEST(CmLowTick, HasOneInstance_WhenThreadsAskAtOnce) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  std::vector<Generator*> generators(8);
                  std::vector<std::thread> threads;
                  for (Generator*& pGenerator : generators) {
                      threads.emplace_back([&pGenerator] { pGenerator = Generator::instance(); });
                  }
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  for (Generator* pGenerator : generators) {
                      if (pGenerator == nullptr || pGenerator != generators[0]) {
                          return false;
                      }
                  }
                  return sink.lines().size() == 1;
              }));
}

Generator* g_pMeanwhile = nullptr;
long g_lLiveMeanwhile = 0;
int g_nTimesRead = 0;

clock_t ReadTimes(tms* /*aTimes*/) {
    ++g_nTimesRead;
    return 0;
}

// The clock is read while a generator is made: as if another thread came in between.
clock_t AskMeanwhile(tms* aTimes) {
    g_cmClock.times = ReadTimes;
    g_pMeanwhile = Generator::instance();
    g_lLiveMeanwhile = kelto_test::LiveAllocations();
    return ReadTimes(aTimes);
}

TEST(CmLowTick, ReturnsTheOtherAndFreesItsOwn_WhenAnotherWasFirst) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  ScopedClock clock;
                  tick_policy::now();  // its singleton is there
                  g_cmClock.times = AskMeanwhile;
                  const Generator* const pGenerator = Generator::instance();
                  return g_pMeanwhile != nullptr && pGenerator == g_pMeanwhile &&
                         kelto_test::LiveAllocations() == g_lLiveMeanwhile - 1;
              }));
}

TEST(CmLowTick, ReadsTheProcessClock_WhenItsTimerFires) {
    EXPECT_EQ(0, InChild([] {
                  ScopedTraceSink sink;
                  ScopedClock clock;
                  CCmTimerWrapperIDSink* const pGenerator = Generator::instance();
                  g_cmClock.times = ReadTimes;
                  pGenerator->OnTimer(nullptr);
                  return g_nTimesRead == 1;
              }));
}

// Its constructor runs with the singleton mutex held.
struct AsksForTheTime {
    AsksForTheTime() : m_llTime(low_tick_policy::now()) {}
    long long m_llTime;
};

TEST(CmLowTick, DoesNotWaitForTheSingletonMutex_WhenItsOwnIsHeld) {
    EXPECT_EQ(0, InChild([]() CM_NO_THREAD_SAFETY_ANALYSIS {
                  ScopedTraceSink sink;
                  alarm(20);  // ends a child whose threads lock each other out
                  g_SingletonMutex.Lock();
                  std::thread first([] { Generator::instance(); });
                  // Time for the first to come to the singleton mutex.
                  std::this_thread::sleep_for(std::chrono::milliseconds(200));
                  AsksForTheTime* pHost = CCmSingletonT<AsksForTheTime>::Instance();
                  g_SingletonMutex.UnLock();
                  first.join();
                  return pHost != nullptr && sink.lines().size() == 1;
              }));
}

TEST(CmLowTick, HasTheLargestValueOfSixtyFourBitsAsItsMaximum) {
    EXPECT_EQ(0x7FFFFFFFFFFFFFFF, low_tick_policy::max_time_value());
}

}  // namespace
}  // namespace UTIL_NS
