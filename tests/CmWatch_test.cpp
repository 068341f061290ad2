#include "CmWatch.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CmEvent.h"
#include "CmFlight.h"
#include "CmSystem.h"
#include "CmThread.h"
#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTraceLine.h"
#include "CmWatched.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Flight.h"
#include "support/FlightFile.h"
#include "support/Gate.h"
#include "support/TraceSink.h"
#include "support/Watch.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using namespace std::chrono_literals;
using kelto_test::EndingEvent;
using kelto_test::Eventually;
using kelto_test::FiguresAtRest;
using kelto_test::FiguresOf;
using kelto_test::FlightFile;
using kelto_test::FlightRecord;
using kelto_test::FlightThread;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::NamelessEvent;
using kelto_test::Rows;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedTraceSink;
using kelto_test::ScopedWatch;
using kelto_test::TaskThread;

// Takes 60 ms: reported as slow.
void TakeLong() {
    std::this_thread::sleep_for(60ms);
}

class CNothing final : public ICmEvent {
  public:
    CmResult OnEventFire() override { return CM_OK; }
};

class CSwitchEvent final : public ICmEvent {
  public:
    explicit CSwitchEvent(std::function<void()> aSwitch) : m_Switch(std::move(aSwitch)) {}
    CmResult OnEventFire() override {
        m_Switch();
        return CM_OK;
    }

  private:
    const std::function<void()> m_Switch;
};

class CSlowEvent final : public ICmEvent {
  public:
    CmResult OnEventFire() override {
        TakeLong();
        return CM_OK;
    }
};

class CSlowHandler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override {
        TakeLong();
        m_Fired.Open();
    }
    Gate m_Fired;
};

CCmWorkerOptions Named(const char* aName) {
    return CCmWorkerOptions().Name(aName);
}

TEST(CCmWatchOptions, AreRefused_WhenOneIsOutOfItsRange) {
    EXPECT_EQ(CM_OK, CCmWatchOptions().Result());
    EXPECT_EQ(CM_OK, CCmWatchOptions().Records(256).Threads(4).LongSend(0).Result());
    EXPECT_EQ(CM_OK, CCmWatchOptions().Records(65536).Threads(1024).Directory("/tmp").Result());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Records(128).Result());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Records(131072).Result());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Records(2000).Result());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Threads(3).Result());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Threads(1025).Result());
    const std::string sLong(CCmWatchOptions::DIRECTORY_SIZE, 'd');
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatchOptions().Directory(sLong.c_str()).Result());
    EXPECT_EQ(CM_OK, CCmWatchOptions().Directory(sLong.c_str() + 1).Result());
    EXPECT_EQ(sLong.substr(1),
              std::string(CCmWatchOptions().Directory(sLong.c_str() + 1).GetDirectory()));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatch::Start(CCmWatchOptions().Threads(3)));
    EXPECT_FALSE(CCmWatch::IsOn());
}

TEST(CCmWatch, IsOff_UntilItIsStarted) {
    EXPECT_FALSE(CCmWatch::IsOn());
    {
        const ScopedWatch watch;
        EXPECT_TRUE(CCmWatch::IsOn());
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, CCmWatch::Start());
    }
    EXPECT_FALSE(CCmWatch::IsOn());
    EXPECT_EQ(CM_OK, CCmWatch::Stop());
}

// Says that there is no file, while it starts.
CmResult StartWithoutFile() {
    return CCmWatch::Start(CCmWatchOptions().Directory("/dev/null/none"));
}

TEST(CCmWatch, StartsAndStops_WhenItsOwnLinesAskForIt) {
    static CmResult s_rvStart = CM_OK;
    static bool s_bSaid = false;
    const ScopedTraceSink restores;
    set_util_external_trace_sink([](unsigned long, const char* aText, unsigned int) {
        if (std::strstr(aText, "CCmFlight::Open, no file") != nullptr) {
            s_bSaid = true;
            s_rvStart = CCmWatch::Start();
            CCmWatch::Stop();
        }
    });
    EXPECT_EQ(CM_OK, StartWithoutFile());
    EXPECT_TRUE(s_bSaid);
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, s_rvStart);
    EXPECT_TRUE(CCmWatch::IsOn());
    CCmWatch::Stop();
    EXPECT_FALSE(CCmWatch::IsOn());
}

TEST(CCmWatch, TellsWhereTheRecordingIs_WhileThereIsOne) {
    const auto recording = [](size_t aSize, CmResult aExpected) {
        char szPath[1024] = "before";
        EXPECT_EQ(aExpected, CCmWatch::GetRecording(szPath, aSize));
        return std::string(szPath);
    };
    EXPECT_EQ("", recording(1024, CM_OK));
    {
        const ScopedWatch watch;
        EXPECT_EQ("", recording(1024, CM_OK));
    }
    const ScopedDirectory directory;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    ASSERT_EQ(1u, directory.names().size());
    const std::string sPath = directory.path() + "/" + directory.names().front();
    EXPECT_EQ(sPath, recording(1024, CM_OK));
    EXPECT_EQ(sPath, recording(sPath.size() + 1, CM_OK));
    EXPECT_EQ("", recording(sPath.size(), CM_ERROR_INVALID_ARG));
    EXPECT_EQ("before", recording(0, CM_ERROR_INVALID_ARG));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatch::GetRecording(nullptr, 1024));
    EXPECT_EQ(CM_OK, CCmWatch::Stop());
    EXPECT_EQ("", recording(1024, CM_OK));
}

TEST(CCmWatch, ReadTellsHowManyWorkersThereAre_WhateverTheRoom) {
    const ScopedWatch watch;
    CCmWorker first(Named("first"));
    CCmWorker second(Named("second"));
    FiguresAtRest(first);
    FiguresAtRest(second);
    size_t nAll = 0;
    ASSERT_EQ(CM_OK, CCmWatch::Read(nullptr, 0, nAll));
    EXPECT_LE(2U, nAll);
    CCmWorkerFigures one;
    size_t nCount = 0;
    ASSERT_EQ(CM_OK, CCmWatch::Read(&one, 1, nCount));
    EXPECT_EQ(nAll, nCount);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmWatch::Read(nullptr, 1, nCount));
    const std::vector<CCmWorkerFigures> rows = Rows();
    const auto at = [&](const char* aName) {
        return std::find_if(rows.begin(), rows.end(), [&](const CCmWorkerFigures& aRow) {
            return std::string(aName) == aRow.m_szName;
        });
    };
    ASSERT_NE(rows.end(), at("first"));
    EXPECT_LT(at("first"), at("second"));
    EXPECT_EQ((uint64_t)first.GetThread()->GetThreadId(), at("first")->m_ullThread);
}

TEST(CCmWatchedDistribution, EndOfABucketIsAtMostAQuarterAboveItsLengths) {
    unsigned nLast = 0;
    for (uint64_t ullUsec = 0; ullUsec < 33000000; ullUsec += 1 + ullUsec / 1000) {
        const unsigned nBucket = CCmWatchedDistribution::BucketOf(ullUsec);
        ASSERT_LE(ullUsec, CCmWatchedDistribution::EndOf(nBucket)) << ullUsec;
        ASSERT_LE(CCmWatchedDistribution::EndOf(nBucket), ullUsec + ullUsec / 4) << ullUsec;
        ASSERT_LE(nLast, nBucket);
        ASSERT_GT(CCmWatchedDistribution::BUCKETS, nBucket);
        nLast = nBucket;
    }
    EXPECT_EQ(CCmWatchedDistribution::BUCKETS - 1,
              CCmWatchedDistribution::BucketOf(uint64_t{1} << 40));
}

TEST(CCmWatchedDistribution, TellsWhatMostLengthsDoNotExceed) {
    CCmWatchedDistribution distribution;
    std::vector<uint64_t> lengths;
    for (uint64_t i = 0; i < 3000; ++i) {
        lengths.push_back((i * 7919) % 3000 * ((i % 100) + 1));
        distribution.Add(static_cast<long long>(lengths.back()));
    }
    std::sort(lengths.begin(), lengths.end());
    const CCmWatchDistribution told = distribution.Copy();
    const auto check = [&](uint64_t aTold, size_t aPlace) {
        EXPECT_LE(lengths[aPlace], aTold);
        EXPECT_LE(aTold, lengths[aPlace] + lengths[aPlace] / 4);
    };
    EXPECT_EQ(3000U, told.m_ullCount);
    check(told.m_ullMedian, 1499);
    check(told.m_ull99, 2969);
    check(told.m_ull999, 2996);
    EXPECT_EQ(lengths.back(), told.m_ullLongest);
    distribution.Add(-5);  // the clock was set back
    EXPECT_EQ(3001U, distribution.Copy().m_ullCount);
    distribution.Clear();
    EXPECT_EQ(0U, distribution.Copy().m_ullCount);
    EXPECT_EQ(0U, distribution.Copy().m_ullLongest);
}

// What is exact, against what the test has counted itself.
struct CModel {
    std::atomic<uint64_t> m_ullPosted{0};
    std::atomic<uint64_t> m_ullRun{0};
};

TEST(CCmWatch, CountsWhatHappened_WhileManyPost) {
    constexpr int WORKERS = 3;
    constexpr int POSTERS = 4;
    constexpr int ROUNDS = 400;
    const ScopedWatch watch;
    CModel models[WORKERS];
    std::unique_ptr<CCmWorker> workers[WORKERS];
    for (int i = 0; i < WORKERS; ++i) {
        workers[i] = std::make_unique<CCmWorker>(Named(("load" + std::to_string(i)).c_str()));
    }
    std::vector<std::thread> posters;
    for (int nPoster = 0; nPoster < POSTERS; ++nPoster) {
        posters.emplace_back([&, nPoster] {
            for (int nRound = 0; nRound < ROUNDS; ++nRound) {
                const int nWorker = (nPoster + nRound) % WORKERS;
                CModel& model = models[nWorker];
                CCmWorker& worker = *workers[nWorker];
                const auto run = [&model] { ++model.m_ullRun; };
                switch (nRound % 4) {
                    case 0:
                        ++model.m_ullPosted;
                        CmCall(worker, run);
                        break;
                    case 1:  // what runs posts two more
                        model.m_ullPosted += 3;
                        CmPost(worker, [&model, &worker, run] {
                            ++model.m_ullRun;
                            CmPost(worker, run);
                            CmPost(worker, run);
                        });
                        break;
                    default:
                        ++model.m_ullPosted;
                        CmPost(worker, run);
                }
            }
        });
    }
    // Reading meanwhile stops nobody, and what it tells does not go back.
    std::vector<uint64_t> last(WORKERS, 0);
    for (int i = 0; i < 50; ++i) {
        for (int nWorker = 0; nWorker < WORKERS; ++nWorker) {
            const CCmWorkerFigures figures = FiguresOf(*workers[nWorker]);
            EXPECT_LE(last[nWorker], figures.m_ullRun);
            last[nWorker] = figures.m_ullRun;
        }
        std::this_thread::sleep_for(1ms);
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    for (int i = 0; i < WORKERS; ++i) {
        const CCmWorkerFigures figures = FiguresAtRest(*workers[i]);
        EXPECT_EQ(models[i].m_ullPosted, figures.m_ullPosted);
        EXPECT_EQ(models[i].m_ullRun, figures.m_ullRun);
        EXPECT_EQ(figures.m_ullRun, figures.m_Run.m_ullCount);
        EXPECT_EQ(0U, figures.m_ullUnfired);
        EXPECT_EQ(0U, figures.m_ullRefused);
        EXPECT_LE(1U, figures.m_ullMostPending);
        EXPECT_LE(1U, figures.m_Waited.m_ullCount);
        EXPECT_LE(figures.m_Waited.m_ullCount, figures.m_ullRun);
        EXPECT_LE(figures.m_Run.m_ullMedian, figures.m_Run.m_ull99);
        EXPECT_LE(figures.m_Run.m_ull99, figures.m_Run.m_ull999);
        EXPECT_LE(figures.m_Run.m_ull999, figures.m_Run.m_ullLongest);
        EXPECT_LE(figures.m_Run.m_ullLongest, figures.m_ullInEvents);
        EXPECT_NE(std::string(), figures.m_szLongestClass);
    }
}

TEST(CCmWatch, CountsTimersThatFire_WhileManyArePosted) {
    const ScopedWatch watch;
    CCmWorker worker(Named("timers"));
    TaskThread task;
    constexpr uint64_t TIMERS = 300;
    std::thread poster([&] {
        for (uint64_t i = 0; i < TIMERS; ++i) {
            CmPostDelayed(worker, i % 2 == 0 ? 1ms : 2ms, [] {});
            CmPostDelayed(*task, i % 2 == 0 ? 1ms : 2ms, [] {});
        }
    });
    poster.join();
    for (ACmThread* pThread : {worker.GetThread(), &*task}) {
        EXPECT_TRUE(Eventually([&] { return FiguresOf(*pThread).m_ullTimersFired >= TIMERS; }));
        const CCmWorkerFigures figures = FiguresAtRest(*pThread);
        EXPECT_EQ(TIMERS, figures.m_ullTimersFired);
        EXPECT_EQ(TIMERS, figures.m_Late.m_ullCount);
    }
}

TEST(CCmWatch, CountsWhatIsRefusedAndWhatEndsUnfired) {
    const ScopedWatch watch;
    TaskThread worker;
    Gate begun;
    Gate go;
    CmPost(*worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    for (int i = 0; i < 7; ++i) {
        CmPost(*worker, [] {});
    }
    auto* const pQueue = static_cast<CCmEventQueueUsingConditionVariable*>(worker->GetEventQueue());
    pQueue->DestoryPendingEvents();
    const CCmWorkerFigures ended = FiguresOf(*worker);
    EXPECT_EQ(8U, ended.m_ullPosted);
    EXPECT_EQ(7U, ended.m_ullUnfired);
    EXPECT_EQ(0U, ended.m_ullPending);
    EXPECT_LE(7U, ended.m_ullMostPending);
    EXPECT_EQ(1U, ended.m_ullRun);
    for (int i = 0; i < 3; ++i) {
        CmPost(*worker, [] {});
    }
    EXPECT_EQ(3U, FiguresOf(*worker).m_ullPending);
    worker->Stop(nullptr);  // posts an event of its own
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmPost(*worker, [] {}));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, CmCall(*worker, [] {}).Result());
    const CCmWorkerFigures refused = FiguresOf(*worker);
    EXPECT_EQ(2U, refused.m_ullRefused);
    EXPECT_EQ(12U, refused.m_ullPosted);
    go.Open();
    EXPECT_EQ(CM_OK, worker->Join());
    // Its thread has gone, its queue is still there.
    const std::vector<CCmWorkerFigures> rows = Rows();
    const auto row = std::find_if(rows.begin(), rows.end(), [](const CCmWorkerFigures& aRow) {
        return aRow.m_ullPosted == 12;
    });
    ASSERT_NE(rows.end(), row);
    EXPECT_EQ(0U, row->m_ullThread);
    EXPECT_EQ(5U, row->m_ullRun);
    EXPECT_EQ(0U, row->m_ullPending);
}

// Also of a thread that has ended.
CCmWorkerFigures RowOf(const std::string& aName) {
    for (const CCmWorkerFigures& row : Rows()) {
        if (aName == row.m_szName) {
            return row;
        }
    }
    ADD_FAILURE() << "no row " << aName;
    return CCmWorkerFigures();
}

TEST(CCmWatch, CountsWhatAWorkerLeavesUnfired_WhenItStopsNow) {
    const ScopedWatch watch;
    CCmWorker worker(Named("stopped"));
    Gate begun;
    Gate go;
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    for (int i = 0; i < 12; ++i) {
        CmPost(worker, [] {});
    }
    EXPECT_EQ(CM_OK, worker.StopNow());
    go.Open();
    EXPECT_EQ(CM_OK, worker.Join());
    const CCmWorkerFigures row = RowOf("stopped");
    EXPECT_EQ(14U, row.m_ullPosted);  // its stop event, too
    EXPECT_EQ(1U, row.m_ullRun);
    EXPECT_EQ(13U, row.m_ullUnfired);
    EXPECT_EQ(0U, row.m_ullPending);
}

// Taken out before the watch was on, pending again after that.
TEST(CCmWatch, CountsWhatIsPutBackAsPosted_WhenItWasTakenOutBefore) {
    CCmWorker worker(Named("put back"));
    Gate firstBegun;
    Gate first;
    Gate secondBegun;
    Gate second;
    CmPost(worker, [&] {
        firstBegun.Open();
        first.Wait();
    });
    ASSERT_TRUE(firstBegun.Wait());
    CmPost(worker, [&] {
        secondBegun.Open();
        second.Wait();
    });
    for (int i = 0; i < 4; ++i) {
        CmPost(worker, [] {});
    }
    first.Open();
    ASSERT_TRUE(secondBegun.Wait());  // the four after it have been taken out with it
    const ScopedWatch watch;
    CmPost(worker, [] {});
    EXPECT_EQ(CM_OK, worker.StopNow());
    second.Open();
    EXPECT_EQ(CM_OK, worker.Join());
    const CCmWorkerFigures row = RowOf("");  // it has not come to its queue since
    EXPECT_EQ(6U, row.m_ullPosted);          // its stop event, too
    EXPECT_EQ(0U, row.m_ullRun);
    EXPECT_EQ(6U, row.m_ullUnfired);
    EXPECT_EQ(0U, row.m_ullPending);
}

// 0 when the child of a fork finds the watch off and can use it on its own.
int UseInChild() {
    alarm(20);
    if (CCmWatch::IsOn()) {
        return 1;
    }
    if (CM_FAILED(CCmWatch::Start(CCmWatchOptions().Record(false).Records(256)))) {
        return 2;
    }
    CCmWorker worker(Named("child"));
    CmCall(worker, [] {});
    const bool bCounts = FiguresOf(worker).m_ullPosted == 1 && FiguresOf(worker).m_ullRun == 1;
    CCmWatch::Stop();
    return bCounts ? 0 : 3;
}

// Not where a fork leaves a lock of the allocator's held for good (address sanitizer), nor where no
// thread begins after such a fork (thread sanitizer, emulator).
TEST(CCmWatch, IsOffInTheChild_WhenTheProcessIsForked) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(KELTO_TEST_EMULATED)
    GTEST_SKIP() << "a child of a process with threads starts none here";
#endif
    const ScopedTraceSink quiet;
    set_util_external_trace_sink([](unsigned long, const char*, unsigned int) {});
    const ScopedWatch watch;
    CCmWorker worker(Named("parent"));
    std::atomic<bool> bEnd{false};
    std::thread sender([&] {
        while (!bEnd) {
            worker.GetEventQueue()->SendEvent(new CNothing);
        }
    });
    std::thread reader([&] {
        size_t nCount = 0;
        std::vector<CCmWorkerFigures> figures(8);
        while (!bEnd) {
            CCmWatch::Read(figures.data(), figures.size(), nCount);
        }
    });
    for (int i = 0; i < 20; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(UseInChild());
        }
        int nStatus = 0;
        ASSERT_EQ(child, waitpid(child, &nStatus, 0));
        EXPECT_EQ(0, nStatus) << i;
    }
    bEnd = true;
    sender.join();
    reader.join();
    EXPECT_TRUE(CCmWatch::IsOn());
}

TEST(CCmWatch, RecordsHighWaterMarks_WhenOthersPostAndWhenTheWorkerDoes) {
    const ScopedDirectory directory;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    CCmWorker worker(Named("marks"));
    Gate begun;
    Gate go;
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    std::thread poster([&] {
        CmPortNameThisThread("poster");
        for (int i = 0; i < 20; ++i) {
            CmPost(worker, [] {});
        }
    });
    poster.join();
    go.Open();
    CmCall(worker, [] {});
    CmPost(worker, [&] {  // what a worker posts to itself has a list of its own
        for (int i = 0; i < 14; ++i) {
            CmPost(worker, [] {});
        }
    });
    FiguresAtRest(worker);
    char szPath[1024];
    ASSERT_EQ(CM_OK, CCmWatch::GetRecording(szPath, sizeof(szPath)));
    const FlightFile file(szPath);
    CCmWatch::Stop();
    const auto marks = [&](const char* aName) {
        std::vector<uint64_t> found;
        for (const auto* pThread : file.Named(aName)) {
            for (const FlightRecord& record : pThread->records) {
                if (record.kind == kelto_test::HIGH_WATER) {
                    found.push_back(record.words[0]);
                }
            }
        }
        return found;
    };
    EXPECT_EQ((std::vector<uint64_t>{2, 4, 8, 16}), marks("poster"));
    EXPECT_EQ((std::vector<uint64_t>{1, 2, 4, 8}), marks("marks"));
}

TEST(CCmWatch, TellsTheMostThatWerePending_WhenAWorkerPostsMoreThanItsOwnListTakes) {
    const ScopedWatch watch;
    CCmWorker worker(Named("most"));
    CmPost(worker, [&] {
        for (int i = 0; i < 100; ++i) {
            CmPost(worker, [] {});
        }
    });
    EXPECT_EQ(100U, FiguresAtRest(worker).m_ullMostPending);
}

// What a send leaves in the sender's own queue has run already.
TEST(CCmWatch, TellsTheMostThatWerePending_WhenAWorkerSends) {
    const ScopedWatch watch;
    CCmWorker target(Named("target"));
    CCmWorker sender(Named("sends"));
    for (int i = 0; i < 3; ++i) {
        CmCall(sender, [&target] {
            for (int j = 0; j < 10; ++j) {
                target.GetEventQueue()->SendEvent(new CNothing);
            }
        });
        EXPECT_EQ(CM_OK, sender.Drain());
    }
    for (CCmWorker* pWorker : {&target, &sender}) {
        const CCmWorkerFigures figures = FiguresAtRest(*pWorker);
        EXPECT_GE(1U, figures.m_ullMostPending);
        EXPECT_EQ(0U, figures.m_ullPending);
        EXPECT_EQ(figures.m_ullPosted, figures.m_ullRun);
    }
}

TEST(CCmWatch, KeepsItsFigures_WhenItIsStopped) {
    CCmWorker sleeper(Named("sleeper"));
    CCmWorker worker(Named("stays"));
    Gate begun;
    Gate go;
    {
        const ScopedWatch watch;
        CmPost(sleeper, [] {});
        FiguresAtRest(sleeper);
        CmPost(worker, [&] {
            begun.Open();
            go.Wait();
        });
        ASSERT_TRUE(begun.Wait());
        CmPost(worker, [] {});
    }
    const CCmWorkerFigures asleep = FiguresOf(sleeper);
    const CCmWorkerFigures before = FiguresOf(worker);
    EXPECT_EQ(2U, before.m_ullPosted);
    EXPECT_EQ(1U, before.m_ullPending);
    go.Open();
    CmCall(worker, [] {});
    TakeLong();
    EXPECT_EQ(asleep.m_ullAsleep, FiguresOf(sleeper).m_ullAsleep);
    CmCall(sleeper, [] {});
    EXPECT_EQ(asleep.m_ullAsleep, FiguresOf(sleeper).m_ullAsleep);
    const CCmWorkerFigures after = FiguresOf(worker);
    EXPECT_EQ(0U, after.m_Run.m_ullCount);  // it ended later
    EXPECT_EQ(before.m_ullInEvents, after.m_ullInEvents);
    EXPECT_EQ(2U, after.m_ullPosted);
    EXPECT_EQ(1U, after.m_ullRun);
    EXPECT_EQ(1U, after.m_ullPending);
}

TEST(CCmWatchedSharedCount, KeepsTheCountOfTheLatestStart) {
    CCmWatchedSharedCount count;
    count.Add(1, 2);
    count.Add(2, 3);
    count.Add(1, 4);  // of a thread that has not seen the second start
    count.Add(0, 5);  // of one that has seen the end
    EXPECT_EQ(3U, count.Of(2));
    EXPECT_EQ(0U, count.Of(1));
}

TEST(CCmWatch, CountsNoEventOfAPass_WhenTheOneBeforeTurnedItOff) {
    CCmEventQueueUsingMutex queue;
    ScopedTraceSink sink;
    {
        const ScopedWatch watch;
        queue.PostEvent(new CSwitchEvent([] { CCmWatch::Stop(); }),
                        ICmEventQueue::EPRIORITY_NORMAL);
        queue.PostEvent(new CSlowEvent, ICmEventQueue::EPRIORITY_NORMAL);
        std::list<ICmEvent*> events;
        ASSERT_EQ(CM_OK, queue.PopPendingEventsLocked(events, 5, nullptr));
        queue.ProcessTakenEvents(events);
        const CCmWorkerFigures row = FiguresOf(pthread_self());
        EXPECT_EQ(2U, row.m_ullPosted);
        EXPECT_EQ(1U, row.m_ullRun);
        EXPECT_EQ(1U, row.m_ullPending);
    }
    EXPECT_EQ(1U, sink.count("CCmEventQueueBase::ProcessOneEvent, report,"));
    EXPECT_EQ(0U, sink.count(", watch, "));
}

TEST(CCmWatch, CountsASendAsRefused_WhenThereIsNoMemoryForIt) {
    const ScopedWatch watch;
    CCmWorker worker(Named("refuses"));
    CmCall(worker, [] {});
    const CCmWorkerFigures before = FiguresAtRest(worker);
    ICmEvent* const pEvent = new CNothing;
    {
        const ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, worker.GetEventQueue()->SendEvent(pEvent));
    }
    EXPECT_EQ(before.m_ullRefused + 1, FiguresAtRest(worker).m_ullRefused);
}

// Events of every kind are under way while the watch is turned on and off.
TEST(CCmWatch, PostedIsRunUnfiredAndPending_WhileItIsTurnedOnAndOff) {
    CCmWorker worker(Named("middle"));
    TaskThread task;
    std::atomic<bool> bEnd{false};
    std::vector<std::thread> posters;
    for (int nPoster = 0; nPoster < 2; ++nPoster) {
        posters.emplace_back([&, nPoster] {
            while (!bEnd) {
                CmCall(worker, [] {});
                CmPost(worker, [&] { CmPost(worker, [] {}); });
                CmPost(*task, [&] { CmPost(*task, [] {}); });
                CmCall(*task, [] {});
                if (nPoster == 0) {
                    static_cast<CCmEventQueueUsingConditionVariable*>(task->GetEventQueue())
                        ->DestoryPendingEvents();
                }
            }
        });
    }
    for (int i = 0; i < 40; ++i) {
        std::this_thread::sleep_for(2ms);
        ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false).LongSend(0)));
        std::this_thread::sleep_for(2ms);
        if (i < 39) {
            CCmWatch::Stop();
        }
    }
    std::this_thread::sleep_for(5ms);
    bEnd = true;
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_LT(0U, FiguresAtRest(worker).m_ullRun);
    EXPECT_LT(0U, FiguresAtRest(*task).m_ullRun);
    CCmWatch::Stop();
}

TEST(CCmWatch, CountsWhatIsPendingAsPosted_WhenItIsStarted) {
    CCmWorker worker(Named("pending"));
    Gate begun;
    Gate go;
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    for (int i = 0; i < 20; ++i) {
        CmPost(worker, [] {});
    }
    const ScopedWatch watch;
    CmPost(worker, [] {});
    go.Open();
    const CCmWorkerFigures figures = FiguresAtRest(worker);
    EXPECT_EQ(21U, figures.m_ullPosted);
    EXPECT_EQ(21U, figures.m_ullRun);  // not the one that had begun
    EXPECT_EQ(21U, figures.m_ullMostPending);
}

TEST(CCmWatch, CountsFromZero_WhenItIsStartedAgain) {
    CCmWorker worker(Named("again"));
    {
        const ScopedWatch watch;
        for (int i = 0; i < 5; ++i) {
            CmPost(worker, [] {});
        }
        EXPECT_EQ(5U, FiguresAtRest(worker).m_ullRun);
    }
    EXPECT_EQ(5U, FiguresOf(worker).m_ullRun);  // the last values
    CmPost(worker, [] {});
    EXPECT_EQ(CM_OK, worker.Drain());
    EXPECT_EQ(5U, FiguresOf(worker).m_ullRun);
    const ScopedWatch watch;
    EXPECT_EQ(0U, FiguresOf(worker).m_ullRun);
    EXPECT_EQ(0U, FiguresOf(worker).m_Run.m_ullCount);
    CmPost(worker, [] {});
    EXPECT_EQ(1U, FiguresAtRest(worker).m_ullRun);
    EXPECT_EQ(1U, FiguresOf(worker).m_Run.m_ullCount);
}

TEST(CCmWatch, CountsWhatIsPendingAsPosted_WhenItIsStartedAgainDuringAnEvent) {
    CCmWorker worker(Named("during"));
    Gate begun;
    Gate go;
    {
        const ScopedWatch watch;
        CmPost(worker, [&] {
            begun.Open();
            go.Wait();
        });
        ASSERT_TRUE(begun.Wait());
        CmPost(worker, [] {});
        CmPost(worker, [] {});
    }
    const ScopedWatch watch;
    const CCmWorkerFigures figures = FiguresOf(worker);
    EXPECT_EQ(2U, figures.m_ullPosted);
    EXPECT_EQ(2U, figures.m_ullPending);
    go.Open();
    EXPECT_EQ(2U, FiguresAtRest(worker).m_ullRun);
}

// What runs when the watch is started does not count, however it goes on.
TEST(CCmWatch, CountsNothingOfTheEventThatRuns_WhenItIsStartedAgainDuringThat) {
    Gate next;
    CCmTimeValue tvAgain;
    CCmWorker worker(Named("restarted"));
    const ScopedWatch watch;
    CmPost(worker, [&] {
        TakeLong();
        CCmWatch::Stop();
        tvAgain = CCmTimeValue::GetTimeOfDay();
        EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false)));
        CmPost(worker, [&next] { next.Open(); });
    });
    ASSERT_TRUE(next.Wait());
    const CCmWorkerFigures figures = FiguresAtRest(worker);
    EXPECT_EQ(1U, figures.m_ullPosted);
    EXPECT_EQ(1U, figures.m_ullRun);
    EXPECT_EQ(1U, figures.m_Run.m_ullCount);
    EXPECT_GE(static_cast<uint64_t>(CmUsecOf(CCmTimeValue::GetTimeOfDay() - tvAgain)),
              figures.m_ullInEvents);
}

TEST(CCmWatch, CountsNoSend_WhenItIsStartedAgainDuringThat) {
    CCmWorker worker(Named("answers"));
    const ScopedWatch watch;
    CmCall(worker, [] {
        CCmWatch::Stop();
        EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false)));
    });
    EXPECT_EQ(0U, CmEnsureWatchedThread()->m_Sends.Copy().m_ullCount);
    CmCall(worker, [] {});
    EXPECT_EQ(1U, CmEnsureWatchedThread()->m_Sends.Copy().m_ullCount);
}

TEST(CCmWatch, TellsHowLongEventsRunAndWhatTheLongestWas) {
    const ScopedWatch watch;
    CCmWorker worker(Named("length"));
    for (int i = 0; i < 100; ++i) {
        CmPost(worker, [] {});
    }
    worker.GetEventQueue()->PostEvent(new CSlowEvent, ICmEventQueue::EPRIORITY_NORMAL);
    const CCmWorkerFigures figures = FiguresAtRest(worker);
    EXPECT_LE(60000U, figures.m_Run.m_ullLongest);
    EXPECT_LE(60000U, figures.m_ullInEvents);
    EXPECT_GT(60000U, figures.m_Run.m_ullMedian);
    EXPECT_NE(std::string::npos, std::string(figures.m_szLongestClass).find("CSlowEvent"));
}

TEST(CCmWatch, TellsTheAddressOfTheTable_WhenAClassHasNoTypeInformation) {
    if (CmPortHasSanitizer()) {
        GTEST_SKIP() << "it looks at the type information of what is called";
    }
    const ScopedWatch watch;
    CCmWorker worker(Named("nameless"));
    ICmEvent* const pEvent = NamelessEvent(20);
    char szTable[32];
    std::snprintf(szTable, sizeof(szTable), "%p", const_cast<void*>(CmTableOf(pEvent)));
    worker.GetEventQueue()->PostEvent(pEvent, ICmEventQueue::EPRIORITY_NORMAL);
    EXPECT_EQ(std::string(szTable), FiguresAtRest(worker).m_szLongestClass);
}

// The table lies in memory that goes away, as that of a module that is unloaded.
TEST(CCmWatch, KeepsTheNameOfAClass_WhenItsModuleIsGone) {
    if (CmPortHasSanitizer()) {
        GTEST_SKIP() << "it looks at the type information of what is called";
    }
    const ScopedWatch watch;
    constexpr size_t WORDS = 6;  // two in front of the table, and four functions
    void* const pMemory =
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pMemory);
    CCmWorker worker(Named("module"));
    auto* const pEvent = new CSlowEvent;
    const void* const* const pTable = static_cast<const void* const*>(CmTableOf(pEvent));
    std::memcpy(pMemory, pTable - 2, WORDS * sizeof(void*));
    const void* const pCopy = static_cast<const void* const*>(pMemory) + 2;
    std::memcpy(static_cast<void*>(pEvent), &pCopy, sizeof(pCopy));
    worker.GetEventQueue()->PostEvent(pEvent, ICmEventQueue::EPRIORITY_NORMAL);
    FiguresAtRest(worker);
    ASSERT_EQ(0, munmap(pMemory, 4096));
    EXPECT_NE(std::string::npos,
              std::string(FiguresOf(worker).m_szLongestClass).find("CSlowEvent"));
}

TEST(CCmWatch, TellsWhatRunsNow) {
    const ScopedWatch watch;
    CCmWorker worker(Named("current"));
    FiguresAtRest(worker);
    Gate begun;
    Gate go;
    class CWaiting final : public ICmEvent {
      public:
        CWaiting(Gate& aBegun, Gate& aGo) : m_begun(aBegun), m_go(aGo) {}
        CmResult OnEventFire() override {
            m_begun.Open();
            m_go.Wait();
            return CM_OK;
        }

      private:
        Gate& m_begun;
        Gate& m_go;
    };
    worker.GetEventQueue()->PostEvent(new CWaiting(begun, go), ICmEventQueue::EPRIORITY_NORMAL);
    ASSERT_TRUE(begun.Wait());
    std::this_thread::sleep_for(20ms);
    const CCmWorkerFigures busy = FiguresOf(worker);
    EXPECT_NE(std::string::npos, std::string(busy.m_szCurrentClass).find("CWaiting"));
    EXPECT_LE(20000U, busy.m_ullCurrent);
    EXPECT_EQ(1U, busy.m_ullRun);
    go.Open();
    FiguresAtRest(worker);
    EXPECT_TRUE(Eventually([&] { return FiguresOf(worker).m_szCurrentClass[0] == '\0'; }));
}

TEST(CCmWatch, MeasuresTheWaitOfOneEventInSixtyFour_WhileTheWorkerIsBusy) {
    const ScopedWatch watch;
    CCmWorker worker(Named("waits"));
    FiguresAtRest(worker);
    Gate begun;
    Gate go;
    std::this_thread::sleep_for(5ms);  // it sleeps by then, most likely
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    const uint64_t ullBefore = FiguresOf(worker).m_Waited.m_ullCount;
    for (int i = 0; i < 128; ++i) {  // one or two of them
        CmPost(worker, [] {});
    }
    std::this_thread::sleep_for(30ms);
    go.Open();
    const CCmWorkerFigures figures = FiguresAtRest(worker);
    EXPECT_EQ(ullBefore + 1, figures.m_Waited.m_ullCount);
    EXPECT_LE(30000U, figures.m_Waited.m_ullLongest);
}

TEST(CCmWatch, MeasuresTheWait_WhenFewEventsComeDuringALongOne) {
    const ScopedWatch watch;
    CCmWorker worker(Named("long"));
    FiguresAtRest(worker);
    Gate begun;
    Gate go;
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    std::this_thread::sleep_for(50ms);  // longer than a coarse clock is late, and ten more
    CmPost(worker, [] {});
    std::this_thread::sleep_for(30ms);
    go.Open();
    EXPECT_LE(30000U, FiguresAtRest(worker).m_Waited.m_ullLongest);
}

TEST(CCmWatch, MeasuresTheWait_WhenAnEventWakesTheWorker) {
    const ScopedWatch watch;
    CCmWorker worker(Named("woken"));
    FiguresAtRest(worker);
    uint64_t ullCount = FiguresOf(worker).m_Waited.m_ullCount;
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(30ms);  // it sleeps
        CmPost(worker, [] {});
        FiguresAtRest(worker);
    }
    EXPECT_LE(ullCount + 4, FiguresOf(worker).m_Waited.m_ullCount);
}

TEST(CCmWatch, ForgetsTheProbe_WhenItsEventIsDestroyed) {
    const ScopedWatch watch;
    CCmEventQueueUsingMutex queue;
    const auto post = [&] {
        return queue.PostEvent(new CNothing, ICmEventQueue::EPRIORITY_NORMAL);
    };
    for (int nRound = 0; nRound < 3; ++nRound) {
        for (int i = 0; i < 64; ++i) {
            ASSERT_EQ(CM_OK, post());
        }
        queue.DestoryPendingEvents();
    }
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(CM_OK, post());
    }
    std::list<ICmEvent*> events;
    ASSERT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
    queue.ProcessTakenEvents(events);
    const std::vector<CCmWorkerFigures> rows = Rows();
    const auto row = std::find_if(rows.begin(), rows.end(), [](const CCmWorkerFigures& aRow) {
        return aRow.m_ullUnfired == 192;
    });
    ASSERT_NE(rows.end(), row);
    EXPECT_EQ(256U, row->m_ullPosted);
    EXPECT_EQ(64U, row->m_ullRun);
    EXPECT_EQ(0U, row->m_ullPending);
    EXPECT_EQ(1U, row->m_Waited.m_ullCount);
}

TEST(CCmWatch, TellsHowLongAWorkerSleeps) {
    const ScopedWatch watch;
    CCmWorker worker(Named("sleeps"));
    FiguresAtRest(worker);
    const uint64_t ullBefore = FiguresOf(worker).m_ullAsleep;
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(ullBefore + 40000, FiguresOf(worker).m_ullAsleep);  // while it does
    FiguresAtRest(worker);
    const uint64_t ullAsleep = FiguresOf(worker).m_ullAsleep;
    EXPECT_LE(ullBefore + 40000, ullAsleep);
    CmCall(worker, TakeLong);
    const CCmWorkerFigures figures = FiguresAtRest(worker);
    EXPECT_LE(60000U, figures.m_ullInEvents);
}

TEST(CCmWatch, CountsSendsAndHowLongTheyBlock) {
    const ScopedWatch watch;
    CCmWorker sender(Named("sender"));
    CCmWorker target(Named("target"));
    CmCall(sender, [&] {
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(CM_OK, CmCall(target, [] {}).Result());
        }
        CmCall(target, [] { std::this_thread::sleep_for(20ms); });
        CmCall(sender, [] {});  // at once, within this event
    });
    const CCmWorkerFigures figures = FiguresAtRest(sender);
    EXPECT_EQ(10U, figures.m_Sends.m_ullCount);
    EXPECT_LE(20000U, figures.m_Sends.m_ullLongest);
    EXPECT_EQ(1U, figures.m_ullRun);
    const CCmWorkerFigures figuresOfTarget = FiguresAtRest(target);
    EXPECT_EQ(10U, figuresOfTarget.m_ullRun);  // their way back is none
    EXPECT_EQ(10U, figuresOfTarget.m_ullPosted);
}

TEST(CCmWatch, CountsTimersAndHowLateTheyFire) {
    const ScopedWatch watch;
    TaskThread task;
    CCmWorker worker(Named("timers"));
    for (ACmThread* pThread : {&*task, worker.GetThread()}) {
        SCOPED_TRACE(pThread == &*task ? "task" : "worker");
        Gate fired;
        Gate blocked;
        Gate go;
        CmPost(*pThread, [&] {  // it is late by as much as this takes
            blocked.Open();
            go.Wait();
            std::this_thread::sleep_for(30ms);
        });
        ASSERT_TRUE(blocked.Wait());
        CCmTimerHandle timer = CmPostDelayed(*pThread, 5ms, [&] { fired.Open(); });
        go.Open();
        ASSERT_TRUE(fired.Wait());
        const CCmWorkerFigures figures = FiguresAtRest(*pThread);
        EXPECT_EQ(1U, figures.m_ullTimersFired);
        EXPECT_EQ(1U, figures.m_Late.m_ullCount);
        if (pThread != &*task) {  // the task arms its timer after the event only
            EXPECT_LE(25000U, figures.m_Late.m_ullLongest);
        }
    }
}

TEST(CCmWatch, ShowsAThreadThatIsDrivenByItsHeartBeat) {
    const ScopedWatch watch;
    CCmThreadHeartBeat heart;
    ASSERT_EQ(CM_OK, heart.Create(TT_MAIN, TF_JOINABLE, 0));
    heart.OnThreadInit();
    for (int i = 0; i < 3; ++i) {
        CmPost(*heart.GetEventQueue(), [] {});
    }
    EXPECT_EQ(CM_OK, heart.DoHeartBeat());
    const CCmWorkerFigures figures = FiguresOf(heart);
    EXPECT_EQ(3U, figures.m_ullPosted);
    EXPECT_EQ(3U, figures.m_ullRun);
    EXPECT_EQ(0U, figures.m_ullPending);
}

// The way back of a send waits for the next heart beat: its event is not pending any more.
TEST(CCmWatch, CountsASendAsOneEvent_WhileItsWayBackIsInTheQueue) {
    const ScopedWatch watch;
    CCmThreadHeartBeat heart;
    ASSERT_EQ(CM_OK, heart.Create(TT_MAIN, TF_JOINABLE, 0));
    heart.OnThreadInit();
    auto& queue = *heart.GetEventQueue();
    std::thread sender([&queue] { EXPECT_EQ(CM_OK, queue.SendEvent(new CNothing)); });
    ASSERT_TRUE(Eventually([&queue] { return queue.GetPendingEventsCount() == 1; }));
    EXPECT_EQ(CM_OK, heart.DoHeartBeat());
    sender.join();
    ASSERT_EQ(1U, queue.GetPendingEventsCount());
    for (int i = 0; i < 3; ++i) {  // the third finds it gone
        const CCmWorkerFigures figures = FiguresOf(heart);
        EXPECT_EQ(1U, figures.m_ullPosted) << i;
        EXPECT_EQ(1U, figures.m_ullRun) << i;
        EXPECT_EQ(0U, figures.m_ullPending) << i;
        EXPECT_EQ(1U, figures.m_ullMostPending) << i;
        EXPECT_EQ(CM_OK, heart.DoHeartBeat());
    }
}

TEST(CCmWatch, TheRecordingCallsAThreadByItsName_WhenItTracedBeforeItHadOne) {
    const ScopedDirectory directory;
    const ScopedTraceSink sink;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    char szPath[1024];
    EXPECT_EQ(CM_OK, CCmWatch::GetRecording(szPath, sizeof(szPath)));
    std::thread([&] {
        util_adapter_trace(0, "a line", 6);
        CmPortNameThisThread("named later");
        CmEnsureWatchedThread();
        EXPECT_EQ(1u, FlightFile(szPath).Named("named later").size());
    }).join();
    CCmWatch::Stop();
}

TEST(CCmWatch, RecordsAThreadThatFoundNoPlace_WhenAnotherHasEnded) {
    const ScopedDirectory directory;
    ASSERT_EQ(CM_OK,
              CCmWatch::Start(
                  CCmWatchOptions().Directory(directory.path().c_str()).Threads(4).Lines(false)));
    char szPath[1024];
    EXPECT_EQ(CM_OK, CCmWatch::GetRecording(szPath, sizeof(szPath)));
    {
        // There may be more than four places, if a test before has kept them.
        Gate end;
        std::atomic<int> nThere{0};
        std::atomic<bool> bFull{false};
        std::vector<std::thread> threads;
        while (!bFull) {
            threads.emplace_back([&] {
                bFull = CCmFlight::AttachThisThread("has a place") == nullptr;
                ++nThere;
                end.Wait();
            });
            ASSERT_TRUE(Eventually([&] { return nThere == static_cast<int>(threads.size()); }));
        }
        CCmWorker late(Named("came late"));
        CmPost(late, [] {});
        FiguresAtRest(late);
        EXPECT_EQ(0u, FlightFile(szPath).Named("came late").size());
        end.Open();
        for (std::thread& thread : threads) {
            thread.join();
        }
        late.GetEventQueue()->PostEvent(new CNothing, ICmEventQueue::EPRIORITY_NORMAL);
        FiguresAtRest(late);
        const FlightFile file(szPath);
        EXPECT_EQ(1u, file.Named("came late").size());
        for (const FlightThread* pThread : file.Named("came late")) {
            EXPECT_EQ(1, std::count_if(pThread->records.begin(), pThread->records.end(),
                                       [](const FlightRecord& aRecord) {
                                           return aRecord.kind == CCmFlightUnit::EVENT;
                                       }));
        }
    }
    CCmWatch::Stop();
}

// What is called when a thread ends comes in the order of its keys, round by round.
decltype(g_cmSystem.pthread_setspecific) s_pfnSetSpecific = nullptr;
thread_local const CCmWatchedThread* t_pEnding = nullptr;
std::atomic<int> s_nGivenBack{0};

int SetSpecific(pthread_key_t aKey, const void* aValue) {
    if (aValue == nullptr && t_pEnding != nullptr) {
        ++s_nGivenBack;
        EXPECT_EQ(nullptr, t_pEnding->Ring()) << "another thread may have it from now on";
    }
    return s_pfnSetSpecific(aKey, aValue);
}

TEST(CCmWatch, LetsGoOfItsRecordsBeforeAnotherThreadGetsThem_WhenItComesWhileItsThreadEnds) {
    const ScopedDirectory directory;
    const ScopedTraceSink sink;
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Directory(directory.path().c_str())));
    CmEnsureWatchedThread();  // so that the keys of the library come before that of the test
    pthread_key_t key = 0;
    ASSERT_EQ(0, pthread_key_create(&key, [](void*) { t_pEnding = CmEnsureWatchedThread(); }));
    s_pfnSetSpecific = g_cmSystem.pthread_setspecific;
    {
        const kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_setspecific)> entry(
            g_cmSystem.pthread_setspecific, &SetSpecific);
        std::thread([&] {
            pthread_setspecific(key, &key);
            util_adapter_trace(0, "a line", 6);
        }).join();
    }
    EXPECT_EQ(1, s_nGivenBack);
    pthread_key_delete(key);
    CCmWatch::Stop();
}

TEST(CCmWatch, ForgetsThreadsThatHaveEnded) {
    const ScopedWatch watch;
    const auto count = [] {
        size_t nThreads = 0;
        CmForEachWatchedThread([&](CCmWatchedThread&) { ++nThreads; });
        return nThreads;
    };
    for (int i = 0; i < 200; ++i) {
        CCmWorker worker(Named(("w" + std::to_string(i)).c_str()));
        CmPost(worker, [] {});
        const CCmWorkerFigures figures = FiguresAtRest(worker);
        ASSERT_EQ(1U, figures.m_ullRun);  // none of the thread whose place it has
        ASSERT_EQ(1U, figures.m_Run.m_ullCount);
        ASSERT_EQ("w" + std::to_string(i), std::string(figures.m_szName));
    }
    EXPECT_GE(75U, count());
    for (const CCmWorkerFigures& row : Rows()) {
        EXPECT_NE('w', row.m_szName[0]) << row.m_szName;
    }
}

// As a thread does on macOS that is cancelled within an event.
TEST(CCmWatch, BeginsANewThreadOutsideOfEvents_WhenTheOneBeforeItLeftNone) {
    const ScopedWatch watch;
    alignas(CCmWatchedRun) static unsigned char s_abyRun[sizeof(CCmWatchedRun)];
    const CCmWatchedThread* pLeft = nullptr;
    std::thread([&pLeft] {
        CCmWatchedThread* const pThread = CmEnsureWatchedThread();
        ::new (s_abyRun) CCmWatchedRun;
        reinterpret_cast<CCmWatchedRun*>(s_abyRun)->Enter(pThread);
        pLeft = pThread;
    }).join();
    bool bIsFound = false;
    for (int i = 0; i < 200 && !bIsFound; ++i) {
        std::thread([&] {
            const CCmWatchedThread* const pThread = CmEnsureWatchedThread();
            bIsFound = pThread == pLeft;
            EXPECT_EQ(0U, pThread->m_dwDepth);
        }).join();
    }
    EXPECT_TRUE(bIsFound);
}

// Traces a line before it has its name.
class CLateName final : public CCmThreadTask {
  public:
    void OnThreadInit() override {
        CCmThreadTask::OnThreadInit();
        CM_INFO_TRACE("no name yet");
        CmPortNameThisThread("late name");
    }
};

TEST(CCmWatch, KnowsAPosterByItsName_WhenItTracedALineBeforeItHadOne) {
    const ScopedWatch watch;
    ScopedTraceSink sink;
    CCmWorker worker(Named("slow"));
    CLateName poster;
    ASSERT_EQ(CM_OK, poster.Create(1));
    CmCall(poster, [&] {
        worker.GetEventQueue()->PostEvent(new CSlowEvent, ICmEventQueue::EPRIORITY_NORMAL);
    });
    FiguresAtRest(worker);
    poster.Stop(nullptr);
    poster.Join();
    EXPECT_EQ(1U, sink.count("CSlowEvent postedBy=late name waitedUsec="));
}

// Its memory is used again, as that of most events is.
class CReusedEvent final : public ICmEvent {
  public:
    explicit CReusedEvent(std::function<void()> aFunction) : m_Function(std::move(aFunction)) {}
    CmResult OnEventFire() override {
        m_Function();
        return CM_OK;
    }
    void OnDestorySelf() override {}

    std::function<void()> m_Function;
};

TEST(CCmWatch, TakesNoEarlierPosterForThatOfASlowEvent_WhenItsRecordIsOverwritten) {
    ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false).Records(256)));
    ScopedTraceSink sink;
    CCmWorker worker(Named("reused"));
    CCmWorker other(Named("other"));
    CCmWorker quiet(Named("quiet"));
    CCmWorker busy(Named("busy"));
    const auto post = [](CCmWorker& aWorker, ICmEvent* aEvent) {
        aWorker.GetEventQueue()->PostEvent(aEvent, ICmEventQueue::EPRIORITY_NORMAL);
    };
    Gate isOver;
    CReusedEvent event([] {});
    Gate isPosted;
    CmPost(worker, [&] { isPosted.Wait(); });
    CmCall(quiet, [&] { post(worker, &event); });
    std::this_thread::sleep_for(20ms);  // more than a step of the coarse clock
    isPosted.Open();
    CmCall(worker, [] {});
    event.m_Function = [&] {
        isOver.Wait();
        TakeLong();
    };
    CmCall(busy, [&] {
        post(worker, &event);
        for (int i = 0; i < 3000; ++i) {
            post(other, new CNothing);
        }
    });
    isOver.Open();
    CmCall(worker, [] {});
    EXPECT_EQ(1U, sink.count("CReusedEvent postedBy="));
    EXPECT_EQ(0U, sink.count("postedBy=quiet"));
    CCmWatch::Stop();
}

TEST(CCmWatch, SaysWhatASlowEventWas) {
    const ScopedWatch watch;
    ScopedTraceSink sink;
    CCmWorker worker(Named("slow"));
    Gate begun;
    Gate go;
    CmPost(worker, [&] {
        begun.Open();
        go.Wait();
    });
    ASSERT_TRUE(begun.Wait());
    std::thread([&] {
        CmPortNameThisThread("the poster");
        worker.GetEventQueue()->PostEvent(new CSlowEvent, ICmEventQueue::EPRIORITY_NORMAL);
    }).join();  // it is gone when the line is written
    CmPost(worker, [] {});
    CmPost(worker, [] {});
    std::this_thread::sleep_for(10ms);
    go.Open();
    FiguresAtRest(worker);
    const auto lines = sink.lines();
    const auto slow = std::find_if(lines.begin(), lines.end(), [](const auto& aLine) {
        return aLine.text.find(", watch, ") != std::string::npos &&
               aLine.text.find("CSlowEvent") != std::string::npos;
    });
    ASSERT_NE(lines.end(), slow);
    const std::string& sText = slow->text;
    EXPECT_EQ(CM_TRACE_LEVEL_WARNING, slow->level);
    EXPECT_EQ(0U, sText.find("UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, watch, class="
                             "UTIL_NS::(anonymous namespace)::CSlowEvent postedBy="))
        << sText;
    EXPECT_NE(std::string::npos, sText.find(" postedBy=the poster waitedUsec=")) << sText;
    EXPECT_NE(std::string::npos, sText.find(" pending=2 this=0x")) << sText;
    const auto number = [&](const char* aKey) {
        return std::strtoll(sText.c_str() + sText.find(aKey) + std::string(aKey).size(), nullptr,
                            10);
    };
    EXPECT_LE(10000, number("waitedUsec=")) << sText;
    EXPECT_LE(60000, number("ranUsec=")) << sText;
    // Right after the line that there has always been.
    ASSERT_NE(lines.begin(), slow);
    EXPECT_EQ(0U, std::prev(slow)->text.find(
                      "UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, report, sec=0 usec="));
}

TEST(CCmWatch, SaysWhatASlowSendWas) {
    const ScopedWatch watch;
    ScopedTraceSink sink;
    CCmWorker worker(Named("slow send"));
    CCmWorker sender(Named("its sender"));
    CmPost(sender, [&] { worker.GetEventQueue()->SendEvent(new CSlowEvent); });
    FiguresAtRest(sender);
    FiguresAtRest(worker);  // which has written the line by then
    EXPECT_EQ(1U, sink.count("CSlowEvent postedBy=its sender waitedUsec="));
}

TEST(CCmWatch, SaysWhichTimerHandlerWasSlow) {
    const ScopedWatch watch;
    ScopedTraceSink sink;
    TaskThread task;
    CCmWorker worker(Named("slow timer"));
    CSlowHandler handler;
    CmCall(*task, [&] {
        task->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1000), 1);
    });
    ASSERT_TRUE(handler.m_Fired.Wait());
    Gate fired;
    CCmTimerHandle delayed = CmPostDelayed(worker, 1ms, [&] {
        TakeLong();
        fired.Open();
    });
    ASSERT_TRUE(fired.Wait());
    Gate driven;
    CCmTimerHandle onTask = CmPostDelayed(*task, 1ms, [&] {
        TakeLong();
        driven.Open();
    });
    ASSERT_TRUE(driven.Wait());
    FiguresAtRest(*task);
    FiguresAtRest(worker);
    EXPECT_EQ(1U, sink.count("CCmTimerQueueBase::CheckExpire, watch, class="));
    EXPECT_EQ(1U, sink.count("CSlowHandler lateUsec="));
    EXPECT_EQ(2U, sink.count("CCmTimedCalls::FireDue, watch, class="));
    EXPECT_LE(180000U, FiguresOf(*task).m_ullInTimers + FiguresOf(worker).m_ullInTimers);
    EXPECT_EQ(2U, FiguresOf(*task).m_ullTimersFired);
}

TEST(CCmWatch, SaysWhichHandlerOfACalendarQueueWasSlow) {
    const ScopedWatch watch;
    ScopedTraceSink sink;
    TaskThread task;
    CSlowHandler inSlot;
    CSlowHandler atOnce;
    std::unique_ptr<CCmTimerQueueCalendar> calendar;
    CmCall(*task, [&] {
        calendar = std::make_unique<CCmTimerQueueCalendar>(10, 1000);
        calendar->ScheduleTimer(&inSlot, nullptr, CCmTimeValue(0, 10000), 1);
        calendar->ScheduleTimer(&atOnce, nullptr, CCmTimeValue::s_tvZero, 1);
        calendar->TimerTick();
        calendar->TimerTick();
    });
    ASSERT_TRUE(atOnce.m_Fired.Wait());
    CmCall(*task, [&] { calendar.reset(); });
    EXPECT_EQ(2U, sink.count("CCmTimerQueueCalendar::TimerTick, watch, class="));
    EXPECT_EQ(2U, sink.count("CSlowHandler ranUsec="));
    const CCmWorkerFigures figures = FiguresAtRest(*task);
    EXPECT_EQ(2U, figures.m_ullTimersFired);
    EXPECT_EQ(0U, figures.m_Late.m_ullCount);
}

// Two timers of one pass: the first turns the watch off, or off and on, the second is slow.
class CSwitchHandler final : public ICmTimerHandler {
  public:
    explicit CSwitchHandler(std::function<void()> aSwitch) : m_Switch(std::move(aSwitch)) {}
    void OnTimeout(const CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override { m_Switch(); }

  private:
    std::function<void()> m_Switch;
};

void FireInOnePass(const std::vector<ICmTimerHandler*>& aHandlers) {
    CCmTimerQueueOrderedList timers(nullptr);
    for (size_t i = 0; i < aHandlers.size(); ++i) {
        const CCmTimeValue tvInterval(0, 1 + 100 * static_cast<long>(i));
        timers.ScheduleTimer(aHandlers[i], nullptr, tvInterval, 1);
    }
    std::this_thread::sleep_for(1ms);
    EXPECT_EQ(aHandlers.size(), timers.CheckExpire(nullptr));
}

TEST(CCmWatch, SaysNothingOfATimer_WhenTheOneBeforeTurnedItOff) {
    ScopedTraceSink sink;
    CSwitchHandler turnOff([] { CCmWatch::Stop(); });
    CSlowHandler slow;
    {
        const ScopedWatch watch;
        FireInOnePass({&turnOff, &slow});
    }
    EXPECT_EQ(0U, sink.count(", watch, "));
}

TEST(CCmWatch, TakesNoTimeOfOthersForATimers_WhenItIsTurnedOnAgainInTheSamePass) {
    ScopedTraceSink sink;
    CSwitchHandler turnOff([] { CCmWatch::Stop(); });
    CSwitchHandler turnOn(
        [] { EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false))); });
    CSlowHandler slow;
    CSwitchHandler nothing([] {});
    {
        const ScopedWatch watch;
        FireInOnePass({&turnOff, &slow, &turnOn, &nothing});
        EXPECT_TRUE(CCmWatch::IsOn());
    }
    EXPECT_EQ(0U, sink.count(", watch, "));
}

TEST(CCmWatch, CountsNothingOfTheTimerThatRuns_WhenItIsStartedAgainDuringThat) {
    CSwitchHandler again([] {
        TakeLong();
        CCmWatch::Stop();
        EXPECT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false)));
        CmEnsureWatchedThread();
    });
    const ScopedWatch watch;
    FireInOnePass({&again});
    EXPECT_EQ(0U, CmWatchedThread()->m_ullTimersFired.Get());
    EXPECT_EQ(0U, CmWatchedThread()->m_Late.Copy().m_ullCount);
    EXPECT_EQ(0U, CmWatchedThread()->m_ullInTimers.Get());
}

TEST(CCmWatch, SaysNothing_WhileItIsOff) {
    ScopedTraceSink sink;
    TaskThread task;
    CSlowHandler handler;
    CmCall(*task, [&] {
        task->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1000), 1);
        TakeLong();
    });
    ASSERT_TRUE(handler.m_Fired.Wait());
    task.End();
    EXPECT_EQ(1U, sink.count("CCmEventQueueBase::ProcessOneEvent, report,"));
    EXPECT_EQ(0U, sink.count(", watch, "));
}

// Without memory nothing fails but the figures, and what fails anyway.
TEST(CCmWatch, ChangesNoResult_WhenMemoryRunsOut) {
    for (unsigned long ulNth = 1; ulNth < 10; ++ulNth) {
        SCOPED_TRACE(ulNth);
        CmResult rvStart = CM_OK;
        {
            const ScopedAllocationFault fault(ulNth, kelto_test::Failing::FROM_THERE_ON);
            rvStart = CCmWatch::Start(CCmWatchOptions().Record(false));
        }
        if (CM_FAILED(rvStart)) {
            EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, rvStart);
            EXPECT_FALSE(CCmWatch::IsOn());
            ASSERT_EQ(CM_OK, CCmWatch::Start(CCmWatchOptions().Record(false)));
        }
        std::atomic<int> nEnded{0};
        int nPosted = 0;
        std::thread([&] {  // of which nothing is kept yet
            CCmEventQueueUsingMutex queue;
            ICmEvent* events[4];
            for (ICmEvent*& pEvent : events) {
                pEvent = new EndingEvent([&] { ++nEnded; });
            }
            const ScopedAllocationFault fault(ulNth);
            for (ICmEvent* pEvent : events) {
                const CmResult rv = queue.PostEvent(pEvent, ICmEventQueue::EPRIORITY_NORMAL);
                EXPECT_TRUE(rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY) << rv;
                nPosted += CM_SUCCEEDED(rv) ? 1 : 0;
            }
            EXPECT_LE(3, nPosted);  // one node at most could not be had
            std::list<ICmEvent*> taken;
            EXPECT_EQ(CM_OK, queue.PopPendingEventsLocked(taken));
            queue.ProcessTakenEvents(taken);
        })
            .join();
        EXPECT_EQ(4, nEnded);
        size_t nCount = 0;
        EXPECT_EQ(CM_OK, CCmWatch::Read(nullptr, 0, nCount));
        CCmWatch::Stop();
    }
}

TEST(CCmWatch, KeepsNothingOfAQueueThatHasEnded) {
    const ScopedWatch watch;
    const auto once = [] {
        CCmEventQueueUsingMutex queue;
        queue.PostEvent(new CNothing, ICmEventQueue::EPRIORITY_NORMAL);
        queue.DestoryPendingEvents();
    };
    once();  // makes what is kept of this thread
    const size_t nRows = Rows().size();
    const long lBefore = LiveAllocations();
    for (int i = 0; i < 100; ++i) {
        once();
    }
    EXPECT_EQ(lBefore, LiveAllocations());
    EXPECT_EQ(nRows, Rows().size());
}

// A thread that is cancelled in an event ends like any other.
TEST(CCmWatch, CountsTheEventInWhichAThreadIsCancelled) {
    const ScopedWatch watch;
    TaskThread task;
    Gate begun;
    CmPost(*task, [&] {
        begun.Open();
        for (;;) {
            std::this_thread::sleep_for(1ms);
            pthread_testcancel();
        }
    });
    ASSERT_TRUE(begun.Wait());
    for (int i = 0; i < 4; ++i) {
        CmPost(*task, [] {});
    }
    EXPECT_EQ(CM_OK, task->Terminate());
    EXPECT_EQ(CM_OK, task->Join());
    const std::vector<CCmWorkerFigures> rows = Rows();
    const auto row = std::find_if(rows.begin(), rows.end(), [](const CCmWorkerFigures& aRow) {
        return aRow.m_ullThread == 0 && aRow.m_ullPosted == 5;
    });
    ASSERT_NE(rows.end(), row);
    EXPECT_EQ(1U, row->m_ullRun);
    EXPECT_EQ(4U, row->m_ullPending + row->m_ullUnfired);
}

}  // namespace
}  // namespace UTIL_NS
