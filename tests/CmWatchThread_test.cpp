#include "CmWatchThread.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "CmBlockedSends.h"
#include "CmNsec.h"
#include "CmSystem.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Flight.h"
#include "support/Gate.h"
#include "support/Platform.h"
#include "support/TraceSink.h"

namespace UTIL_NS {

namespace {

using kelto_test::Eventually;
using kelto_test::Failing;
using kelto_test::FailingCall;
using kelto_test::FlightFile;
using kelto_test::FlightRecord;
using kelto_test::FlightThread;
using kelto_test::Gate;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedFlight;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;

constexpr long long USEC = 1000;
constexpr long long MSEC = 1000 * USEC;
constexpr long long SEC = 1000 * MSEC;
constexpr DWORD NEVER = 0;

constexpr char LONG_SEND[] = "SendEvent, watch, thread=";

// Goes rounds, one after each change.
class Clocks {
  public:
    explicit Clocks(CCmWatchRounds& aRounds) : m_rounds(aRounds) { Round(0); }
    // 250 ms later, the wall clock having been set by so much.
    void Round(long long aStepNsec) {
        m_llMonotonic += 250 * MSEC;
        m_llWall += 250 * MSEC + aStepNsec;
        m_rounds.Run(m_llWall, m_llMonotonic);
    }
    long long Wall() const { return m_llWall; }

  private:
    CCmWatchRounds& m_rounds;
    long long m_llMonotonic = 77 * SEC;
    long long m_llWall = 1700000000 * SEC;
};

class WatchedSends {
  public:
    WatchedSends() { CCmBlockedSend::SwitchOn(true); }
    ~WatchedSends() { CCmBlockedSend::SwitchOn(false); }
    WatchedSends(const WatchedSends&) = delete;
    WatchedSends& operator=(const WatchedSends&) = delete;
};

}  // namespace

// With a name that lines show.
class SlowEvent : public ICmEvent {
  public:
    explicit SlowEvent(Gate& aRelease) : m_release(aRelease) {}
    CmResult OnEventFire() override { return m_release.Wait() ? CM_OK : CM_ERROR_FAILURE; }

  private:
    Gate& m_release;
};

namespace {

// A thread "sender" that waits for an event of a worker "consumer", soon.
class LongSend {
  public:
    LongSend()
        : m_llBefore(CmMonotonicNsec()), m_sender([this] {
              kelto_test::NameThisThread("sender");
              EXPECT_EQ(CM_OK, m_consumer.GetEventQueue()->SendEvent(new SlowEvent(m_release)));
          }) {}
    ~LongSend() {
        m_release.Open();
        m_sender.join();
    }
    LongSend(const LongSend&) = delete;
    LongSend& operator=(const LongSend&) = delete;

    // When it has not blocked for longer than that.
    long long After(long long aMsec) const { return m_llBefore + aMsec * MSEC; }

  private:
    const long long m_llBefore;
    Gate m_release;
    CCmWorker m_consumer{CCmWorkerOptions().Name("consumer")};
    std::thread m_sender;
};

TEST(CmWatchRounds, SayNothing_WhenTheWallClockGoesAsTheMonotonicOne) {
    ScopedTraceSink sink;
    CCmWatchRounds rounds(NEVER);
    Clocks clocks(rounds);
    for (int i = 0; i < 20; ++i) {
        clocks.Round(0);
    }
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmWatchRounds, SayByHowMuch_WhenTheWallClockWasSet) {
    ScopedTraceSink sink;
    CCmWatchRounds rounds(NEVER);
    Clocks clocks(rounds);
    clocks.Round(50 * MSEC + USEC);
    clocks.Round(0);
    clocks.Round(-3600 * SEC);
    clocks.Round(0);
    const auto lines = sink.lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("UTIL WARNING: CCmWatch, the wall clock was set ahead usec=50001", lines[0].text);
    EXPECT_EQ("UTIL WARNING: CCmWatch, the wall clock was set back usec=3600000000", lines[1].text);
}

TEST(CmWatchRounds, SayNothing_WhenTheWallClockIsSlewedOrSetByLittle) {
    ScopedTraceSink sink;
    CCmWatchRounds rounds(NEVER);
    Clocks clocks(rounds);
    for (int i = 0; i < 100; ++i) {
        clocks.Round(125 * USEC);  // 500 ppm, the most that a clock is slewed by
    }
    for (int i = 0; i < 100; ++i) {
        clocks.Round(50 * MSEC);
        clocks.Round(-50 * MSEC);
    }
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmWatchRounds, SayNothing_WhenTheWallClockWasSetBeforeTheFirst) {
    ScopedTraceSink sink;
    CCmWatchRounds rounds(NEVER);
    rounds.Run(1700000000 * SEC, 77 * SEC);
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmWatchRounds, RecordTheStep_WhenTheWallClockWasSet) {
    ScopedTraceSink sink;
    const ScopedFlight flight;
    CCmWatchRounds rounds(NEVER);
    Clocks clocks(rounds);
    clocks.Round(-7 * SEC);
    const FlightFile file = flight.Read();
    std::vector<FlightRecord> steps;
    for (const FlightThread& thread : file.threads) {
        for (const FlightRecord& record : thread.records) {
            if (record.kind == kelto_test::STEP) {
                steps.push_back(record);
            }
        }
    }
    ASSERT_EQ(1U, steps.size());
    EXPECT_EQ(static_cast<uint64_t>(clocks.Wall() / USEC), steps[0].time);
    EXPECT_EQ(static_cast<uint64_t>(-7 * SEC / USEC), steps[0].words[0]);
    EXPECT_EQ(static_cast<uint64_t>(clocks.Wall() / USEC), file.tickWall);
}

// Of a clock whose readings take long nobody knows when they were true.
int SlowTimeOfDay(timeval* aNow, void*) {
    static std::atomic<long> s_lSec{1000};
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    *aNow = {s_lSec += 100, 0};
    return 0;
}

TEST(CmWatchRounds, SayNothing_WhenTheClocksCannotBeReadTogether) {
    const kelto_test::ScopedEntry<decltype(g_cmClock.gettimeofday)> clock(g_cmClock.gettimeofday,
                                                                          &SlowTimeOfDay);
    ScopedTraceSink sink;
    CCmWatchRounds rounds(NEVER);
    rounds.Run();
    rounds.Run();
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmWatchRounds, SayOnceThatASendIsLong_WhenItHasBlockedForTheLimit) {
    const WatchedSends on;
    ScopedTraceSink sink;
    LongSend send;
    CCmWatchRounds rounds(1000);
    rounds.Run(0, send.After(999));
    EXPECT_EQ(0U, sink.count(LONG_SEND));
    ASSERT_TRUE(Eventually([&] {
        rounds.Run(0, send.After(20000));
        return sink.count(LONG_SEND) == 1;
    }));
    rounds.Run(0, send.After(30000));
    EXPECT_EQ(1U, sink.count(LONG_SEND));
    EXPECT_EQ(1U, sink.count("SendEvent, watch, thread=sender waits for thread="));
    EXPECT_EQ(1U, sink.count(" class=UTIL_NS::SlowEvent"));
}

TEST(CmWatchRounds, SayItOfEachSend_WhenSeveralAreLong) {
    const WatchedSends on;
    ScopedTraceSink sink;
    CCmWatchRounds rounds(1000);
    {
        LongSend first;
        LongSend second;
        ASSERT_TRUE(Eventually([&] {
            rounds.Run(0, second.After(20000));
            return sink.count(LONG_SEND) == 2;
        }));
    }
    LongSend third;
    ASSERT_TRUE(Eventually([&] {
        rounds.Run(0, third.After(20000));
        return sink.count(LONG_SEND) == 3;
    }));
}

TEST(CmWatchRounds, SayNothingOfSends_WhenThereIsNoLimit) {
    const WatchedSends on;
    ScopedTraceSink sink;
    LongSend send;
    CCmWatchRounds rounds(NEVER);
    rounds.Run(0, send.After(1000000));
    EXPECT_EQ(0U, sink.count(LONG_SEND));
}

TEST(CmWatchRounds, NameTheThreadThatIsWaitedFor_WhenTheWatchKnowsIt) {
    ScopedTraceSink sink;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false).LongSend(NEVER)));
    {
        LongSend send;
        CCmWatchRounds rounds(1000);
        EXPECT_TRUE(Eventually([&] {
            rounds.Run(0, send.After(20000));
            return sink.count(LONG_SEND) == 1;
        }));
    }
    CCmWatch::Stop();
    EXPECT_EQ(1U,
              sink.count("SendEvent, watch, thread=sender waits for thread=consumer since ms="));
}

TEST(CmWatchRounds, SayUnknown_WhenTheThreadThatIsWaitedForHasEnded) {
    ScopedTraceSink sink;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false).LongSend(NEVER)));
    CCmEventQueueUsingMutex queue;
    Gate hasEnded;
    std::thread sender([&] {
        EXPECT_TRUE(hasEnded.Wait());
        queue.SendEvent(CmMakeEvent([] {}));
    });
    std::thread([&queue] {
        queue.BindToCurrentThread();
        queue.ProcessOneEvent(CmMakeEvent([] {}));
    }).join();
    hasEnded.Open();
    CCmWatchRounds rounds(1000);
    EXPECT_TRUE(Eventually([&] {
        rounds.Run(0, CmMonotonicNsec() + 20 * SEC);
        return sink.count(LONG_SEND) == 1;
    }));
    EXPECT_EQ(1U, sink.count(" waits for thread=unknown since ms="));
    queue.DestoryPendingEvents();
    sender.join();
    CCmWatch::Stop();
}

TEST(CmWatchRounds, StoreTheFiguresOfEachThread) {
    const ScopedDirectory directory;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    char szPath[1024];
    CCmFlight::CopyPath(szPath, sizeof(szPath));
    CCmWorker worker(CCmWorkerOptions().Name("figures"));
    for (int i = 0; i < 7; ++i) {
        CmPost(worker, [] {});
    }
    const auto stored = [&] {
        const FlightFile file(szPath);
        const auto threads = file.Named("figures");
        return threads.size() == 1 && threads[0]->figuresWall != 0 ? threads[0]->figures
                                                                   : std::vector<uint64_t>(32);
    };
    // Posted and run, by the thread of the watch.
    EXPECT_TRUE(Eventually([&] { return stored()[0] == 7 && stored()[1] == 7; }));
    CmPost(worker, [] {});
    EXPECT_EQ(CM_OK, CmCall(worker, [] {}).Result());
    CCmWatch::Stop();
    EXPECT_EQ(9U, stored()[0]);  // the last ones
}

// Ended by the receiver of a line about a send, on its own thread.
std::atomic<CCmWatchThread*> s_pEndedByItsLine{nullptr};
Gate s_lineEndedIt;

void EndOnLine(unsigned long, const char* aText, unsigned int) {
    if (std::strstr(aText, LONG_SEND) != nullptr) {
        EXPECT_TRUE(Eventually([] { return s_pEndedByItsLine != nullptr; }));
        s_pEndedByItsLine.exchange(nullptr)->End();
        s_lineEndedIt.Open();
    }
}

TEST(CmWatchThread, GoesRounds_UntilItIsEnded) {
    const WatchedSends on;
    ScopedTraceSink sink;
    LongSend send;
    CCmWatchThread* const pThread = CCmWatchThread::Start(300);
    ASSERT_NE(nullptr, pThread);
    EXPECT_TRUE(Eventually([&] { return sink.count(LONG_SEND) == 1; }));
    pThread->End();
}

TEST(CmWatchThread, EndsAtOnce_WhenItWaits) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i) {
        CCmWatchThread::Start(NEVER)->End();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(25));
}

TEST(CmWatchThread, EndsItself_WhenOneOfItsLinesSaysSo) {
    const WatchedSends on;
    s_lineEndedIt.Close();
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    LongSend send;
    set_util_external_trace_sink(&EndOnLine);
    s_pEndedByItsLine = CCmWatchThread::Start(1);
    EXPECT_TRUE(s_lineEndedIt.Wait());
    set_util_external_trace_sink(pfnBefore);
}

void StopOnLine(unsigned long, const char* aText, unsigned int) {
    if (std::strstr(aText, LONG_SEND) != nullptr) {
        CCmWatch::Stop();
        s_lineEndedIt.Open();
    }
}

TEST(CmWatchThread, EndsWithTheWatch_WhenOneOfItsLinesStopsThat) {
    s_lineEndedIt.Close();
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    set_util_external_trace_sink(&StopOnLine);
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false).LongSend(1)));
    {
        LongSend send;
        EXPECT_TRUE(s_lineEndedIt.Wait());
    }
    EXPECT_FALSE(CCmWatch::IsOn());
    set_util_external_trace_sink(pfnBefore);
}

TEST(CmWatchThread, IsLeftOut_WhenItCannotBeStarted) {
    ScopedTraceSink sink;
    {
        const FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
        EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false)));
    }
    EXPECT_TRUE(CCmWatch::IsOn());
    EXPECT_EQ(CM_OK, CCmWatch::Stop());
}

TEST(CmWatchThread, IsNull_WhenThereIsNoThread) {
    ScopedTraceSink sink;
    {
        const FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
        EXPECT_EQ(nullptr, CCmWatchThread::Start(NEVER));
        EXPECT_EQ(1U, sink.count("CCmWatch, pthread_create() failed! err=" ERRNO_TEXT(EAGAIN)));
    }
    {
        const FailingCall<&CCmSystemTable::pthread_attr_init> fault(ENOMEM, ENOMEM);
        EXPECT_EQ(nullptr, CCmWatchThread::Start(NEVER));
        EXPECT_EQ(1U, sink.count("CCmWatch, pthread_create() failed! err=" ERRNO_TEXT(ENOMEM)));
    }
    sigset_t signals;
    pthread_sigmask(SIG_SETMASK, nullptr, &signals);
    EXPECT_EQ(0, sigismember(&signals, SIGTERM));
}

TEST(CmWatchThread, IsNull_WhenThereIsNoMemory) {
    const kelto_test::ScopedAllocationFault fault(1);
    EXPECT_EQ(nullptr, CCmWatchThread::Start(NEVER));
}

TEST(CmWatchThread, GoesRounds_WhenItsWaitsFail) {
    const WatchedSends on;
    ScopedTraceSink sink;
    LongSend send;
    const FailingCall<&CCmSystemTable::pthread_cond_clockwait> fault(EINVAL, EINVAL, 1,
                                                                     Failing::FROM_THERE_ON);
    CCmWatchThread* const pThread = CCmWatchThread::Start(300);
    EXPECT_TRUE(Eventually([&] { return sink.count(LONG_SEND) == 1; }));
    pThread->End();
}

volatile sig_atomic_t s_nSignalled = 0;

TEST(CmWatchThread, LeavesTheProcessAlone_WhenItIsNeverEnded) {
    EXPECT_EQ(0, StatusOfChild([] {
                  CCmWatchThread::Start(NEVER);
                  std::exit(0);  // with what runs at the end of a process
              }));
}

TEST(CmWatchThread, TakesNoSignalOfTheHost) {
    EXPECT_EQ(0, StatusOfChild([] {
                  signal(SIGUSR1, [](int) { s_nSignalled = 1; });
                  CCmWatchThread* const pThread = CCmWatchThread::Start(NEVER);
                  sigset_t signals;
                  sigfillset(&signals);
                  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
                  kill(getpid(), SIGUSR1);
                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
                  EXPECT_EQ(0, s_nSignalled);
                  pThread->End();
                  sigdelset(&signals, SIGUSR1);
                  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
                  EXPECT_EQ(1, s_nSignalled);
              }));
}

TEST(CmWatchThread, DoesNothingInTheChild_WhenTheProcessIsForked) {
    EXPECT_EQ(0, StatusOfChild([] {
                  CCmWatchThread* const pThread = CCmWatchThread::Start(NEVER);
                  const pid_t child = fork();
                  if (child == 0) {
                      pThread->End();
                      _exit(0);
                  }
                  int nStatus = 0;
                  waitpid(child, &nStatus, 0);
                  EXPECT_EQ(0, nStatus);
                  pThread->End();
              }));
}

}  // namespace
}  // namespace UTIL_NS
