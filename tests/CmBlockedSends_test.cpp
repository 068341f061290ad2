// Threads that wait for each other: what is said about them. In which orders it is said at all is
// for schedule/BlockedSends_test.cpp.
#include "CmBlockedSends.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmCancel.h"
#include "CmLifeGuard.h"
#include "CmNsec.h"
#include "CmWatched.h"
#include "CmWorker.h"
#include "support/Cancellation.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Platform.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::ScopedTraceSink;

constexpr char CIRCLE[] = ", watch, threads wait for each other: ";

class Switched {
  public:
    Switched() { CCmBlockedSend::SwitchOn(true); }
    ~Switched() { CCmBlockedSend::SwitchOn(false); }
    Switched(const Switched&) = delete;
    Switched& operator=(const Switched&) = delete;
};

void EndPending(CCmWorker& aWorker) {
    static_cast<CCmEventQueueUsingConditionVariable*>(aWorker.GetEventQueue())
        ->DestoryPendingEvents();
}

// The first line about a circle, once there is one.
std::string FirstCircle(const ScopedTraceSink& aSink) {
    std::string strLine;
    EXPECT_TRUE(Eventually([&] {
        for (const kelto_test::TraceLine& line : aSink.lines()) {
            if (line.text.find(CIRCLE) != std::string::npos) {
                strLine = line.text;
            }
        }
        return !strLine.empty();
    }));
    return strLine;
}

// Which of two threads closes the circle, and so comes first in the line, is a matter of time.
void ExpectCircle(const ScopedTraceSink& aSink, const std::string& aPlace, const std::string& aLeft,
                  const std::string& aRight) {
    const std::string strLine = FirstCircle(aSink);
    const std::string strStart = "UTIL WARNING: " + aPlace + CIRCLE;
    EXPECT_TRUE(strLine == strStart + aLeft + " -> " + aRight + " -> " + aLeft ||
                strLine == strStart + aRight + " -> " + aLeft + " -> " + aRight)
        << strLine;
    EXPECT_EQ(1U, aSink.count(CIRCLE));
}

// Two workers, of whose events each begins only when both of them run.
struct Pair {
    template <class LeftType, class RightType>
    void Run(LeftType aLeft, RightType aRight) {
        CmPost(m_left, [this, aLeft]() mutable {
            m_leftRuns.Open();
            EXPECT_TRUE(m_rightRuns.Wait());
            aLeft();
        });
        CmPost(m_right, [this, aRight]() mutable {
            m_rightRuns.Open();
            EXPECT_TRUE(m_leftRuns.Wait());
            aRight();
        });
    }

    Gate m_leftRuns;
    Gate m_rightRuns;
    CCmWorker m_left{CCmWorkerOptions().Name("left")};
    CCmWorker m_right{CCmWorkerOptions().Name("right")};
};

// First: no thread of the program has a number yet.
TEST(CmBlockedSends, NumbersDiffer_WhenAThreadComesAfterAnother) {
    uint64_t ullFirst = 0;
    uint64_t ullSecond = 0;
    std::thread([&] { ullFirst = CmNumberOfThisThread(); }).join();
    std::thread([&] {
        ullSecond = CmNumberOfThisThread();
        EXPECT_EQ(ullSecond, CmNumberOfThisThread());
    }).join();
    EXPECT_NE(0U, ullFirst);
    EXPECT_LT(ullFirst, ullSecond);
}

TEST(CmBlockedSends, SaysTheNames_WhenTwoWorkersSendToEachOther) {
    const Switched on;
    ScopedTraceSink sink;
    Pair pair;
    const auto sendTo = [](CCmWorker& aWorker) {
        aWorker.GetEventQueue()->SendEvent(CmMakeEvent([] {}));
    };
    pair.Run([&] { sendTo(pair.m_right); }, [&] { sendTo(pair.m_left); });
    ExpectCircle(sink, "CCmEventQueueBase::SendEvent", "left", "right");
    EndPending(pair.m_left);
}

TEST(CmBlockedSends, SaysTheNames_WhenThreeWorkersCallEachOther) {
    const Switched on;
    ScopedTraceSink sink;
    Gate runs[3];
    CCmWorker workers[3] = {CCmWorker(CCmWorkerOptions().Name("first")),
                            CCmWorker(CCmWorkerOptions().Name("second")),
                            CCmWorker(CCmWorkerOptions().Name("third"))};
    for (int i = 0; i < 3; ++i) {
        CmPost(workers[i], [&, i] {
            runs[i].Open();
            EXPECT_TRUE(runs[0].Wait() && runs[1].Wait() && runs[2].Wait());
            CmCall(workers[(i + 1) % 3], [] {});
        });
    }
    const std::string strLine = FirstCircle(sink);
    const std::string strNames = strLine.substr(strLine.find(CIRCLE) + sizeof(CIRCLE) - 1);
    EXPECT_TRUE(strNames == "first -> second -> third -> first" ||
                strNames == "second -> third -> first -> second" ||
                strNames == "third -> first -> second -> third")
        << strLine;
    EXPECT_EQ(1U, sink.count(CIRCLE));
    EndPending(workers[0]);
}

TEST(CmBlockedSends, SaysTheNames_WhenACallIsCancelledThatSends) {
    const Switched on;
    ScopedTraceSink sink;
    CCmTimerHandle call;
    Gate isPosted;
    Pair pair;
    call = CmPostDelayed(pair.m_left, CCmTimeValue(), [&] {
        pair.m_leftRuns.Open();
        EXPECT_TRUE(isPosted.Wait());
        CmCall(pair.m_right, [] {});
    });
    CmPost(pair.m_right, [&] {
        EXPECT_TRUE(pair.m_leftRuns.Wait());
        isPosted.Open();
        call.CancelAndWait();
    });
    const std::string strLine = FirstCircle(sink);
    EXPECT_TRUE(strLine == std::string("UTIL WARNING: CCmTimerHandle::CancelAndWait") + CIRCLE +
                               "right -> left -> right" ||
                strLine == std::string("UTIL WARNING: CCmEventQueueBase::SendEvent") + CIRCLE +
                               "left -> right -> left")
        << strLine;
    EXPECT_EQ(1U, sink.count(CIRCLE));
    EndPending(pair.m_right);
}

TEST(CmBlockedSends, SaysTheNames_WhenAWorkerIsJoinedThatSends) {
    const Switched on;
    ScopedTraceSink sink;
    Pair pair;
    pair.Run([&] { CmCall(pair.m_right, [] {}); },
             [&] {
                 EXPECT_TRUE(Eventually(
                     [&] { return pair.m_right.GetEventQueue()->GetPendingEventsCount() > 0; }));
                 pair.m_left.Stop();
                 pair.m_left.Join();
             });
    // The post is seen before the wait is entered, so either may be the last.
    const std::string strLine = FirstCircle(sink);
    EXPECT_TRUE(strLine == std::string("UTIL WARNING: ACmThread::Join") + CIRCLE +
                               "right -> left -> right" ||
                strLine == std::string("UTIL WARNING: CCmEventQueueBase::SendEvent") + CIRCLE +
                               "left -> right -> left")
        << strLine;
    EXPECT_EQ(1U, sink.count(CIRCLE));
    EndPending(pair.m_right);
}

// Which of the two waits is entered last is a matter of time.
void ExpectCircleOfAJoin(const ScopedTraceSink& aSink, const std::string& aJoined) {
    const std::string strLine = FirstCircle(aSink);
    EXPECT_TRUE(strLine == std::string("UTIL WARNING: ACmThread::Join") + CIRCLE + "worker -> " +
                               aJoined + " -> worker" ||
                strLine == std::string("UTIL WARNING: CCmEventQueueBase::SendEvent") + CIRCLE +
                               aJoined + " -> worker -> " + aJoined)
        << strLine;
    EXPECT_EQ(1U, aSink.count(CIRCLE));
}

class FunctionThread : public ACmThread {
  public:
    explicit FunctionThread(std::function<void()> aBody) : m_Body(std::move(aBody)) {}
    void OnThreadRun() override { m_Body(); }

  private:
    const std::function<void()> m_Body;
};

Gate* s_pMayJoin = nullptr;

int JoinNobody(pthread_t /*aThread*/, void** /*aResult*/) {
    EXPECT_TRUE(s_pMayJoin->Wait());
    return 0;
}

TEST(CmBlockedSends, SaysTheNames_WhenAnAdoptedThreadIsJoinedThatSends) {
    const Switched on;
    ScopedTraceSink sink;
    CCmWorker worker(CCmWorkerOptions().Name("worker"));
    Gate mayJoin;
    s_pMayJoin = &mayJoin;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_join)> entry(g_cmSystem.pthread_join,
                                                                           &JoinNobody);
    auto* pAdopted = new FunctionThread([] {});
    Gate joining;
    std::thread other([&] {
        kelto_test::NameThisThread("adopted");
        EXPECT_EQ(CM_OK, pAdopted->Create(TT_MAIN, TF_JOINABLE, 0));
        CmPost(worker, [&] {
            joining.Open();
            EXPECT_EQ(CM_OK, pAdopted->Join());
        });
        EXPECT_TRUE(joining.Wait());
        worker.GetEventQueue()->SendEvent(CmMakeEvent([] {}));
    });
    ExpectCircleOfAJoin(sink, "adopted");
    EndPending(worker);
    other.join();
    mayJoin.Open();
    EXPECT_EQ(CM_OK, worker.Drain());
    pAdopted->Destory(CM_OK);
}

TEST(CmBlockedSends, SaysTheNames_WhenAThreadIsJoinedAfterACancelledOneOfItsObject) {
    const Switched on;
    ScopedTraceSink sink;
    CCmWorker worker(CCmWorkerOptions().Name("worker"));
    Gate joining;
    bool bIsFirst = true;
    auto* pThread = new FunctionThread([&] {
        while (bIsFirst) {
            sched_yield();  // no cancellation point of which a sanitizer loses track
            kelto_test::TestCancel();
        }
        kelto_test::NameThisThread("second");
        EXPECT_TRUE(joining.Wait());
        worker.GetEventQueue()->SendEvent(CmMakeEvent([] {}));
    });
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    bIsFirst = false;
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    CmPost(worker, [&] {
        joining.Open();
        EXPECT_EQ(CM_OK, pThread->Join());
    });
    ExpectCircleOfAJoin(sink, "second");
    EndPending(worker);
    EXPECT_EQ(CM_OK, worker.Drain());
    pThread->Destory(CM_OK);
}

TEST(CmBlockedSends, SaysTheNames_WhenAGuardEndsWhoseCallableSends) {
    const Switched on;
    ScopedTraceSink sink;
    CCmLifeGuard guard;
    Pair pair;
    pair.Run(guard.Wrap([&] { CmCall(pair.m_right, [] {}); }), [&] {
        EXPECT_TRUE(
            Eventually([&] { return pair.m_right.GetEventQueue()->GetPendingEventsCount() > 0; }));
        guard.End();
    });
    const std::string strLine = FirstCircle(sink);
    EXPECT_TRUE(strLine == std::string("UTIL WARNING: CCmLifeGuard::End") + CIRCLE +
                               "right -> left -> right" ||
                strLine == std::string("UTIL WARNING: CCmEventQueueBase::SendEvent") + CIRCLE +
                               "left -> right -> left")
        << strLine;
    EndPending(pair.m_right);
}

TEST(CmBlockedSends, GuardEndsAfterAllItsCallables_WhenItIsWatched) {
    const Switched on;
    ScopedTraceSink sink;
    CCmLifeGuard guard;
    Gate release;
    Gate runs[2];
    std::atomic<int> nDone{0};
    std::thread others[2];
    for (int i = 0; i < 2; ++i) {
        others[i] = std::thread(guard.Wrap([&, i] {
            runs[i].Open();
            EXPECT_TRUE(release.Wait());
            ++nDone;
        }));
    }
    EXPECT_TRUE(runs[0].Wait() && runs[1].Wait());
    std::thread opener([&] {
        EXPECT_TRUE(Eventually([&] { return guard.Result() == CM_ERROR_NOT_INITIALIZED; }));
        release.Open();
    });
    guard.End();
    EXPECT_EQ(2, nDone);
    EXPECT_EQ(0U, sink.count(CIRCLE));
    opener.join();
    others[0].join();
    others[1].join();
}

TEST(CmBlockedSends, SaysNothing_WhileItIsOff) {
    ScopedTraceSink sink;
    Pair pair;
    pair.Run([&] { CmCall(pair.m_right, [] {}); }, [&] { CmCall(pair.m_left, [] {}); });
    EXPECT_TRUE(pair.m_leftRuns.Wait() && pair.m_rightRuns.Wait());
    EXPECT_TRUE(Eventually([&] {
        return pair.m_left.GetEventQueue()->GetPendingEventsCount() > 0 &&
               pair.m_right.GetEventQueue()->GetPendingEventsCount() > 0;
    }));
    EndPending(pair.m_left);
    pair.m_left.End();
    pair.m_right.End();
    EXPECT_EQ(0U, sink.count(CIRCLE));
}

TEST(CmBlockedSends, SaysANumber_WhenAThreadHasNoName) {
    const Switched on;
    ScopedTraceSink sink;
    Pair pair;
    pair.Run([&] { CmCall(pair.m_right, [] {}); },
             [&] {
                 kelto_test::NameThisThread("");
                 CmCall(pair.m_left, [] {});
             });
    EXPECT_NE(std::string::npos, FirstCircle(sink).find("thread 0x"));
    EndPending(pair.m_left);
}

TEST(CmBlockedSends, CutsTheNames_WhenThereIsNoRoomForAll) {
    const Switched on;
    ScopedTraceSink sink;
    constexpr int COUNT = 80;
    std::vector<Gate> runs(COUNT);
    std::vector<std::unique_ptr<CCmWorker>> workers;
    for (int i = 0; i < COUNT; ++i) {
        const std::string strName = "thread-name-" + std::to_string(100 + i);
        workers.emplace_back(new CCmWorker(CCmWorkerOptions().Name(strName.c_str())));
    }
    for (int i = 0; i < COUNT; ++i) {
        CmPost(*workers[static_cast<size_t>(i)], [&, i] {
            runs[static_cast<size_t>(i)].Open();
            EXPECT_TRUE(runs[static_cast<size_t>((i + 1) % COUNT)].Wait());
            CmCall(*workers[static_cast<size_t>((i + 1) % COUNT)], [] {});
        });
    }
    const std::string strLine = FirstCircle(sink);
    const std::string strNames = strLine.substr(strLine.find(CIRCLE) + sizeof(CIRCLE) - 1);
    EXPECT_LT(strNames.size(), CCmBlockedSend::NAMES_SIZE);
    EXPECT_EQ(" -> ...", strNames.substr(strNames.size() - 7));
    EXPECT_EQ(0U, strNames.find("thread-name-1"));
    EndPending(*workers[0]);
}

TEST(CmBlockedSends, FillsTheRoom_WhenTheNamesFitJust) {
    const Switched on;
    // 15 and 52 times 4 + 15 and 4 + 9 are 1016 characters: 8 are left for " -> ..." and the end.
    constexpr size_t COUNT = 55;
    const std::string strNine(9, 'n');
    const std::string strFifteen(15, 'n');
    std::string strExpected = strFifteen;
    for (size_t i = 1; i <= 52; ++i) {
        strExpected += " -> " + strFifteen;
    }
    strExpected += " -> " + strNine + " -> ...";
    ASSERT_EQ(CCmBlockedSend::NAMES_SIZE - 1, strExpected.size());

    const auto goesOn = [](const void*) { return true; };
    std::vector<std::atomic<uint64_t>> numbers(COUNT);
    std::vector<Gate> starts(COUNT);
    std::vector<Gate> waits(COUNT);
    Gate end;
    struct {
        char szNames[CCmBlockedSend::NAMES_SIZE];
        char szAfter[4];
    } room = {"", "abc"};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < COUNT; ++i) {
        threads.emplace_back([&, i] {
            kelto_test::NameThisThread((i == COUNT - 2 ? strNine : strFifteen).c_str());
            numbers[i] = CmNumberOfThisThread();
            starts[i].Open();
            const size_t nNext = (i + 1) % COUNT;
            EXPECT_TRUE(starts[nNext].Wait());
            for (size_t j = 1; i == 0 && j < COUNT; ++j) {  // the first closes the circle
                EXPECT_TRUE(waits[j].Wait());
            }
            CCmBlockedSend blocked;
            EXPECT_EQ(i == 0, blocked.Enter(numbers[nNext], goesOn, nullptr, room.szNames));
            waits[i].Open();
            EXPECT_TRUE(end.Wait());
        });
    }
    EXPECT_TRUE(waits[0].Wait());
    end.Open();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(strExpected, room.szNames);
    EXPECT_STREQ("abc", room.szAfter);
}

// Whether a wait of this thread for the one with that number would close a circle.
bool WaitsForThisThread(uint64_t aThread) {
    CCmBlockedSend probe;
    char szNames[CCmBlockedSend::NAMES_SIZE];
    return probe.Enter(
        aThread, [](const void*) { return true; }, nullptr, szNames);
}

TEST(CmBlockedSends, ClosesACircle_WhenTheAwaitedThreadIsBoundMeanwhile) {
    const Switched on;
    const auto goesOn = [](const void*) { return true; };
    for (const bool bIsBound : {false, true}) {
        CCmAwaitedThread awaited;
        CCmAwaitedThread other;
        Gate waits;
        Gate end;
        std::atomic<uint64_t> ullWaiter{0};
        std::thread waiter([&] {
            ullWaiter = CmNumberOfThisThread();
            char szNames[CCmBlockedSend::NAMES_SIZE];
            CCmBlockedSend blocked;
            EXPECT_FALSE(blocked.Enter(awaited, goesOn, nullptr, szNames));
            waits.Open();
            EXPECT_TRUE(end.Wait());
        });
        EXPECT_TRUE(waits.Wait());
        (bIsBound ? awaited : other).BindToCurrentThread();
        EXPECT_EQ(bIsBound, WaitsForThisThread(ullWaiter));
        end.Open();
        waiter.join();
    }
}

TEST(CmBlockedSends, IsLong_WhenTheLimitHasPassed) {
    const Switched on;
    constexpr long long NSEC_PER_SEC = 1000 * 1000 * 1000;
    const std::unique_ptr<ICmEvent> pEvent(CmMakeEvent([] {}));
    char szNames[CCmBlockedSend::NAMES_SIZE];
    CCmBlockedSend blocked;
    blocked.SetSent(CmTableOf(pEvent.get()));
    const long long llBefore = CmMonotonicNsec();
    EXPECT_FALSE(blocked.Enter(
        CmNumberOfThisThread() + 1, [](const void*) { return true; }, nullptr, szNames));
    const long long llAfter = CmMonotonicNsec();
    CCmBlockedSend::CLong found;
    EXPECT_FALSE(CCmBlockedSend::TakeLong(llBefore + 10 * NSEC_PER_SEC, 10001, found));
    ASSERT_TRUE(CCmBlockedSend::TakeLong(llAfter + 10 * NSEC_PER_SEC, 10000, found));
    EXPECT_LE(10000, found.m_llMsec);
    EXPECT_GE(10000 + (llAfter - llBefore) / 1000000 + 1, found.m_llMsec);
    EXPECT_EQ(CmNumberOfThisThread() + 1, found.m_ullAwaited);
    EXPECT_FALSE(CCmBlockedSend::TakeLong(llAfter + 20 * NSEC_PER_SEC, 10000, found)) << "told of";
}

void CancelASender() {
    const Switched on;
    ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    queue.BindToCurrentThread();
    ACmThread* pSender = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pSender, TF_JOINABLE, false, 1));
    std::atomic<uint64_t> ullSender{0};
    CmPost(*pSender, [&] {
        ullSender = CmNumberOfThisThread();
        queue.SendEvent(CmMakeEvent([] {}));
    });
    EXPECT_TRUE(Eventually([&] { return ullSender != 0 && WaitsForThisThread(ullSender.load()); }));
    EXPECT_EQ(0, pSender->Terminate());
    EXPECT_EQ(CM_OK, pSender->Join());
    EXPECT_EQ(0U, sink.count(CIRCLE));
    EXPECT_FALSE(WaitsForThisThread(ullSender));
    pSender->Destory(CM_OK);
    queue.DestoryPendingEvents();
}

TEST(CmBlockedSends, LeavesTheList_WhenItsSenderIsCancelled) {
    CancelASender();
}

TEST(CmBlockedSends, LeavesTheList_WhenItsSenderIsCancelledWithoutDestructors) {
    const kelto_test::ScopedHandlersOnly handlersOnly;
    CancelASender();
}

// On a thread that has asked for it, a join that only a cancellation ends.
int (*g_pfnJoin)(pthread_t, void**) = nullptr;
thread_local bool t_bJoinsUntilCancelled = false;
int JoinOrWaitToBeCancelled(pthread_t aThread, void** aResult) {
    while (t_bJoinsUntilCancelled) {
        kelto_test::ScopedHandlersOnly::TestCancel();
        pthread_testcancel();
        const CCmDisableCancel disableCancel;  // ThreadSanitizer loses a thread that sleeps
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return g_pfnJoin(aThread, aResult);
}

void CancelAJoiner() {
    const Switched on;
    ScopedTraceSink sink;
    const kelto_test::ScopedEntry<int (*)(pthread_t, void**)> entry(g_cmSystem.pthread_join,
                                                                    &JoinOrWaitToBeCancelled);
    g_pfnJoin = entry.original();
    ACmThread* pJoined = nullptr;
    ACmThread* pJoiner = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pJoined, TF_JOINABLE, false, 1));
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pJoiner, TF_JOINABLE, false, 1));
    std::atomic<uint64_t> ullJoiner{0};
    Gate waits;
    Gate isCancelled;
    CmPost(*pJoined, [&] {
        EXPECT_TRUE(
            Eventually([&] { return ullJoiner != 0 && WaitsForThisThread(ullJoiner.load()); }));
        waits.Open();
        EXPECT_TRUE(isCancelled.Wait());
        EXPECT_FALSE(WaitsForThisThread(ullJoiner));
    });
    CmPost(*pJoiner, [&] {
        t_bJoinsUntilCancelled = true;
        ullJoiner = CmNumberOfThisThread();
        pJoined->Join();
    });
    EXPECT_TRUE(waits.Wait());
    EXPECT_EQ(0, pJoiner->Terminate());
    EXPECT_EQ(CM_OK, pJoiner->Join());
    isCancelled.Open();
    EXPECT_EQ(CM_OK, pJoined->Stop());
    EXPECT_EQ(CM_OK, pJoined->Join());
    pJoiner->Destory(CM_OK);
    pJoined->Destory(CM_OK);
}

TEST(CmBlockedSends, LeavesTheList_WhenAJoinerIsCancelled) {
    CancelAJoiner();
}

TEST(CmBlockedSends, LeavesTheList_WhenAJoinerIsCancelledWithoutDestructors) {
    const kelto_test::ScopedHandlersOnly handlersOnly;
    CancelAJoiner();
}

TEST(CmBlockedSends, LeavesTheList_WhenItsWaitFails) {
    const Switched on;
    ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    queue.BindToCurrentThread();
    std::atomic<uint64_t> ullSender{0};
    const kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    std::thread([&] {
        ullSender = CmNumberOfThisThread();
        EXPECT_EQ(CM_ERROR_FAILURE, queue.SendEvent(CmMakeEvent([] {})));
    }).join();
    EXPECT_FALSE(WaitsForThisThread(ullSender));
    queue.DestoryPendingEvents();
}

TEST(CmBlockedSends, GuardEndsAfterItsCallable_WhenItIsWatchedAndItsWaitFails) {
    const Switched on;
    ScopedTraceSink sink;
    CCmLifeGuard guard;
    Gate runs;
    std::atomic<bool> bDone{false};
    std::thread other(guard.Wrap([&] {
        runs.Open();
        EXPECT_TRUE(Eventually([&] { return guard.Result() == CM_ERROR_NOT_INITIALIZED; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        bDone = true;
    }));
    EXPECT_TRUE(runs.Wait());
    {
        const kelto_test::FailingCall<&CCmSystemTable::pthread_cond_wait> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        guard.End();
        EXPECT_TRUE(bDone);
    }
    other.join();
}

// While it lives, the calling thread fails to take the mutex that it takes first, when it takes it
// for the second time; and its waits are noted, and whether it held that mutex.
class FailingRelock {
  public:
    FailingRelock() {
        s_Thread = std::this_thread::get_id();
        s_pMutex = nullptr;
        s_nLocks = 0;
        s_bHolds = false;
        s_bHeldAlways = true;
    }
    ~FailingRelock() { s_nWaits = 0; }
    FailingRelock(const FailingRelock&) = delete;
    FailingRelock& operator=(const FailingRelock&) = delete;

    static int Waits() { return s_nWaits; }
    static bool HeldItWheneverItWaited() { return s_bHeldAlways; }

  private:
    static int Lock(pthread_mutex_t* aMutex) {
        if (std::this_thread::get_id() == s_Thread && (s_pMutex == nullptr || s_pMutex == aMutex)) {
            s_pMutex = aMutex;
            if (++s_nLocks == 2) {
                return EINVAL;
            }
            s_bHolds = true;
        }
        return pthread_mutex_lock(aMutex);
    }
    static int UnLock(pthread_mutex_t* aMutex) {
        if (std::this_thread::get_id() == s_Thread && s_pMutex == aMutex) {
            s_bHolds = false;
        }
        return pthread_mutex_unlock(aMutex);
    }
    static int Wait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
        if (std::this_thread::get_id() != s_Thread) {
            return pthread_cond_wait(aCondition, aMutex);
        }
        s_bHeldAlways = s_bHeldAlways && s_bHolds;
        ++s_nWaits;
        return s_bHolds ? pthread_cond_wait(aCondition, aMutex) : EPERM;
    }

    inline static std::thread::id s_Thread;
    inline static pthread_mutex_t* s_pMutex = nullptr;
    inline static int s_nLocks = 0;
    inline static std::atomic<int> s_nWaits{0};
    inline static bool s_bHolds = false;
    inline static bool s_bHeldAlways = true;

    typedef CCmSystemTable T;
    kelto_test::ScopedEntry<decltype(T::pthread_mutex_lock)> m_Lock{g_cmSystem.pthread_mutex_lock,
                                                                    &Lock};
    kelto_test::ScopedEntry<decltype(T::pthread_mutex_unlock)> m_UnLock{
        g_cmSystem.pthread_mutex_unlock, &UnLock};
    kelto_test::ScopedEntry<decltype(T::pthread_cond_wait)> m_Wait{g_cmSystem.pthread_cond_wait,
                                                                   &Wait};
};

TEST(CmBlockedSends, GuardWaitsWithItsLockAlone_WhenItIsWatchedAndItsLockFails) {
    const Switched on;
    CCmLifeGuard guard;
    Gate runs;
    std::atomic<bool> bDone{false};
    std::thread other(guard.Wrap([&] {
        runs.Open();
        EXPECT_TRUE(Eventually([] { return FailingRelock::Waits() > 0; }));
        bDone = true;
    }));
    EXPECT_TRUE(runs.Wait());
    {
        const FailingRelock relock;
        guard.End();
        EXPECT_TRUE(bDone);
        EXPECT_TRUE(FailingRelock::HeldItWheneverItWaited());
        other.join();
    }
}

TEST(CmBlockedSends, Sends_WhenItsListCannotBeLocked) {
    const Switched on;
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL, 1,
                                                                       kelto_test::Failing::ONCE);
    CCmBlockedSend blocked;
    CCmAwaitedThread awaited;
    char szNames[CCmBlockedSend::NAMES_SIZE];
    EXPECT_FALSE(blocked.Enter(
        awaited, [](const void*) { return true; }, nullptr, szNames));
    blocked.Leave();
}

TEST(CmBlockedSends, ClosesACircle_WhenAThreadWaitsForItself) {
    const Switched on;
    CCmAwaitedThread awaited;
    awaited.BindToCurrentThread();
    CCmBlockedSend blocked;
    char szNames[CCmBlockedSend::NAMES_SIZE];
    EXPECT_TRUE(blocked.Enter(
        awaited, [](const void*) { return true; }, nullptr, szNames));
    blocked.Leave();
    CCmBlockedSend over;
    EXPECT_FALSE(over.Enter(
        awaited, [](const void*) { return false; }, nullptr, szNames));
}

}  // namespace
}  // namespace UTIL_NS
