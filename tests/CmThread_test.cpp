#include "CmThread.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "support/BodyThread.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::BodyThread;
using kelto_test::EndJoinable;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::Life;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;
using kelto_test::RegisteredThreads;
using kelto_test::TYPE;

TEST(CmThread, HasNoIdentity_BeforeCreate) {
    Life life;
    BodyThread thread(life);
    EXPECT_EQ(pthread_t(0), thread.GetThreadId());
    EXPECT_EQ((pthread_t)-1, thread.GetThreadHandle());
    EXPECT_EQ(-1, thread.GetThreadType());
    EXPECT_FALSE(thread.GetStopFlag());
    EXPECT_EQ(nullptr, thread.GetReactor());
    EXPECT_EQ(nullptr, thread.GetEventQueue());
    EXPECT_EQ(nullptr, thread.GetTimerQueue());
    EXPECT_EQ(nullptr, thread.startEvent());
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, thread.Stop(nullptr));
}

TEST(CmThread, HasRunItsInit_WhenCreateReturns) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_TRUE(life.initialized);
    EXPECT_NE(pthread_t(0), pThread->GetThreadId());
    EXPECT_EQ(pThread->GetThreadId(), pThread->GetThreadHandle());
    EXPECT_EQ(TYPE, pThread->GetThreadType());
    EXPECT_EQ(nullptr, pThread->startEvent());
    EXPECT_FALSE(pThread->GetStopFlag());
    life.released.Open();
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_TRUE(life.ran);
    EXPECT_TRUE(pThread->GetStopFlag());
    EXPECT_EQ(pthread_t(0), pThread->GetThreadId());
    EXPECT_FALSE(life.deleted.IsOpen());
    EXPECT_EQ(CM_OK, pThread->Destory(0));
    EXPECT_TRUE(life.deleted.IsOpen());
}

class PlainThread : public ACmThread {
  public:
    explicit PlainThread(Life& aLife) : m_life(aLife) {}
    void OnThreadRun() override { m_life.ran = true; }

  private:
    Life& m_life;
};

// What classes of the host see of the base.
class CInsideThread : public PlainThread {
  public:
    explicit CInsideThread(Life& aLife) : PlainThread(aLife) {
        EXPECT_EQ(0, m_Flag);
        EXPECT_FALSE(m_bRegistered);
        EXPECT_TRUE(m_bRegister);
        EXPECT_EQ(0, m_nDestroyRef.value());
        EXPECT_EQ(nullptr, m_pEvent);
    }
    void CheckCreated() {
        EXPECT_EQ(TF_JOINABLE, m_Flag);
        EXPECT_FALSE(m_bRegistered);
        EXPECT_FALSE(m_bRegister);
        EXPECT_EQ(nullptr, m_pEvent);
    }
};

TEST(CmThread, ShowsItsStateToDerivedClasses) {
    Life life;
    auto* pThread = new CInsideThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, 0, 0));
    pThread->CheckCreated();
    EndJoinable(pThread);
}

// Waits and naps while it lives. The first wait is over at once.
class NotedWaits {
  public:
    NotedWaits() {
        s_nWaits = 0;
        s_nNaps = 0;
    }

    static int Waits() { return s_nWaits; }
    static int Naps() { return s_nNaps; }

  private:
    static int Wait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                    const timespec* aDeadline) {
        return ++s_nWaits == 1 ? ETIMEDOUT : pthread_cond_timedwait(aCondition, aMutex, aDeadline);
    }
    static int Nap(const timespec* aTime, timespec* aLeft) {
        ++s_nNaps;
        return nanosleep(aTime, aLeft);
    }

    inline static std::atomic<int> s_nWaits{0};
    inline static std::atomic<int> s_nNaps{0};

    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> m_Wait{
        g_cmSystem.pthread_cond_timedwait, &Wait};
    kelto_test::ScopedEntry<decltype(g_cmSystem.nanosleep)> m_Nap{g_cmSystem.nanosleep, &Nap};
};

class AwaitedThread : public ACmThread {
  public:
    void OnThreadInit() override {
        EXPECT_TRUE(Eventually([] { return NotedWaits::Waits() >= 2; }));
    }
    void OnThreadRun() override {}
};

TEST(CmThread, CreateWaitsForASignal_UntilTheInitIsOver) {
    const NotedWaits noted;
    auto* pThread = new AwaitedThread;
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(0, NotedWaits::Naps());
    EndJoinable(pThread);
}

TEST(CmThread, RunsItsBody_WithoutAnInitOfItsOwn) {
    Life life;
    ACmThread* pThread = new PlainThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EndJoinable(pThread);
    EXPECT_TRUE(life.ran);
}

TEST(CmThread, TracesItsLifeToTheCharacter) {
    kelto_test::ScopedTraceSink sink;
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    pThread->Create(TYPE, 0, 1);
    pThread->Join();
    pThread->Destory(42);
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(20u, sink.lines()[0].level);
    EXPECT_EQ("UTIL INFO: ACmThread::Create, aType=7 aFlag=0 Register=1 this=0x#",
              MaskAddresses(sink.lines()[0].text));
    EXPECT_EQ(20u, sink.lines()[1].level);
    EXPECT_EQ("UTIL INFO: ACmThread::Destory, aReason=42 this=0x#",
              MaskAddresses(sink.lines()[1].text));
}

TEST(CmThread, RefusesCreate_WhenCreatedAlready) {
    kelto_test::ScopedTraceSink sink;
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pThread->Create(TYPE, TF_JOINABLE, 1));
    ASSERT_EQ(3u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[2].level);
    EXPECT_EQ(0u, sink.lines()[2].text.find("UTIL ERROR: source/util/CmThread.cpp:"));
    EXPECT_NE(std::string::npos, sink.lines()[2].text.find(" Assert failed: m_Type == TT_UNKNOWN"));
    pThread->Join();
    pThread->Destory(0);
}

TEST(CmThread, WarnsAndCarriesOn_WhenTheTypeIsUnknown) {
    kelto_test::ScopedTraceSink sink;
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    EXPECT_EQ(TT_UNKNOWN, pThread->GetThreadType());
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[1].level);
    EXPECT_EQ("UTIL WARNING: thread type is TT_UNKNOWN", sink.lines()[1].text);
    pThread->Join();
    pThread->Destory(0);
    EXPECT_TRUE(life.ran);
}

TEST(CmThread, StartsNoThread_WhenTheTypeIsMain) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(nullptr, getCurrentThread());
    EXPECT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    EXPECT_TRUE(pthread_equal(pthread_self(), pThread->GetThreadId()));
    EXPECT_EQ((pthread_t)-1, pThread->GetThreadHandle());
    EXPECT_EQ(TT_MAIN, pThread->GetThreadType());
    EXPECT_EQ(pThread, getCurrentThread());
    EXPECT_FALSE(life.initialized);
    EXPECT_FALSE(life.ran);
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
    EXPECT_EQ(nullptr, getCurrentThread());
}

TEST(CmThread, IsDeletedAtOnce_WhenItAdoptedADetachedThread) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_DETACHED, 1));
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
}

TEST(CmThread, IsDeletedAtOnce_WhenItWasNeverCreated) {
    Life life;
    (new BodyThread(life))->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
}

TEST(CmThread, IsRegisteredOnce_WhenAnUnknownTypeIsCreatedAgain) {
    Life life;
    life.released.Open();
    const size_t nBefore = RegisteredThreads();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    EXPECT_EQ(pThread, getCurrentThread());
    pThread->Destory(0);
    EXPECT_EQ(nBefore, RegisteredThreads());
}

TEST(CmThread, IsNotFound_WhenItIsNotRegistered) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    const size_t nBefore = RegisteredThreads();
    EXPECT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 0));
    EXPECT_EQ(nBefore, RegisteredThreads());
    EXPECT_EQ(nullptr, getCurrentThread());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, UnRegisterThread(pThread));
    pThread->Destory(0);
}

TEST(CmThread, FindsTheFirstRegistered_WhenOneThreadHasTwoObjects) {
    Life life;
    BodyThread* pFirst = new BodyThread(life);
    BodyThread* pSecond = new BodyThread(life);
    pFirst->Create(TT_MAIN, TF_JOINABLE, 1);
    pSecond->Create(TT_MAIN, TF_JOINABLE, 1);
    EXPECT_EQ(pFirst, getCurrentThread());
    pFirst->Destory(0);
    EXPECT_EQ(pSecond, getCurrentThread());
    pSecond->Destory(0);
    EXPECT_EQ(nullptr, getCurrentThread());
}

TEST(CmThread, RegistersTwice_WhenAskedTwice) {
    Life life;
    BodyThread thread(life);
    const size_t nBefore = RegisteredThreads();
    EXPECT_EQ(CM_OK, RegisterThread(&thread));
    EXPECT_EQ(CM_OK, RegisterThread(&thread));
    EXPECT_EQ(nBefore + 2, RegisteredThreads());
    EXPECT_EQ(CM_OK, UnRegisterThread(&thread));
    EXPECT_EQ(CM_OK, UnRegisterThread(&thread));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, UnRegisterThread(&thread));
    EXPECT_EQ(nBefore, RegisteredThreads());
}

TEST(CmThread, IsRegisteredAndFound_WhenTheLockCannotBeTaken) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 0));
    const size_t nBefore = RegisteredThreads();
    kelto_test::ScopedTraceSink sink;
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_unlock> unlock(0, 0, 100);
        EXPECT_EQ(CM_OK, RegisterThread(pThread));
        EXPECT_EQ(pThread, getCurrentThread());
        EXPECT_EQ(CM_OK, UnRegisterThread(pThread));
        EXPECT_EQ(nullptr, getCurrentThread());
        EXPECT_EQ(4u, fault.calls());
        EXPECT_EQ(0u, unlock.calls());  // what was not taken is not released
    }
    EXPECT_EQ(0u, sink.lines().size());
    EXPECT_EQ(nBefore, RegisteredThreads());
    pThread->Destory(0);
}

TEST(CmThread, RegisterFails_WithoutMemory) {
    Life life;
    BodyThread thread(life);
    const size_t nBefore = RegisteredThreads();
    {
        kelto_test::ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, RegisterThread(&thread));
    }
    EXPECT_EQ(nBefore, RegisteredThreads());
}

TEST(CmThread, LeavesTheOthersRegistered_WhenOneIsUnregistered) {
    Life life;
    BodyThread first(life);
    BodyThread second(life);
    EXPECT_EQ(CM_OK, RegisterThread(&first));
    EXPECT_EQ(CM_OK, RegisterThread(&second));
    EXPECT_EQ(CM_OK, UnRegisterThread(&second));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, UnRegisterThread(&second));
    EXPECT_EQ(CM_OK, UnRegisterThread(&first));
}

TEST(CmThread, FindsItself_WhenOnItsOwnThread) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    ACmThread* pFound = nullptr;
    EventLog log;
    pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [&] {
        pFound = getCurrentThread();
        return CM_OK;
    }));
    EXPECT_EQ(pThread, pFound);
    EXPECT_EQ(nullptr, getCurrentThread());
    EndJoinable(pThread);
}

// A thread object whose thread has ended and whose id the system gave to another thread.
class ReusedIdThread : public BodyThread {
  public:
    using BodyThread::BodyThread;
    void TakeIdOfCallingThread() { m_Tid = pthread_self(); }
};

TEST(CmThread, IsNotFound_WhenItsDetachedThreadHasEndedAndItsIdIsReused) {
    Life life;
    life.released.Open();
    ReusedIdThread* pThread = new ReusedIdThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 1));
    ASSERT_TRUE(Eventually([&] { return pThread->HasEnded(); }));
    pThread->TakeIdOfCallingThread();
    EXPECT_EQ(nullptr, getCurrentThread());
    pThread->Destory(0);
}

ReusedIdThread* g_pJoined = nullptr;
ACmThread* g_pFoundInJoin = nullptr;
decltype(g_cmSystem.pthread_join) g_realJoin = nullptr;

// The number of the joined thread goes to another one before the joining thread gets on.
int JoinAndReuse(pthread_t aTid, void** aResult) {
    const int rv = g_realJoin(aTid, aResult);
    g_pJoined->TakeIdOfCallingThread();
    g_pFoundInJoin = getCurrentThread();
    return rv;
}

TEST(CmThread, IsNotFound_WhenItIsBeingJoinedAndItsIdIsReused) {
    Life life;
    life.released.Open();
    g_pJoined = new ReusedIdThread(life);
    ASSERT_EQ(CM_OK, g_pJoined->Create(TYPE, TF_JOINABLE, 1));
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_join)> join(g_cmSystem.pthread_join,
                                                                    &JoinAndReuse);
    g_realJoin = join.original();
    g_pFoundInJoin = g_pJoined;
    EXPECT_EQ(CM_OK, g_pJoined->Join());
    EXPECT_EQ(nullptr, g_pFoundInJoin);
    g_pJoined->Destory(0);
}

TEST(CmThread, FindsItself_WhileItIsJoined) {
    class CFinding : public BodyThread {
      public:
        using BodyThread::BodyThread;
        void OnThreadRun() override {
            BodyThread::OnThreadRun();
            m_pFound = getCurrentThread();
        }
        ACmThread* m_pFound = nullptr;
    };
    Life life;
    CFinding* pThread = new CFinding(life);
    for (int nType : {TT_UNKNOWN, TYPE}) {  // the second thread of the object, too
        life.released.Close();
        pThread->m_pFound = nullptr;
        ASSERT_EQ(CM_OK, pThread->Create(nType, TF_JOINABLE, 1));
        std::thread releasing([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            life.released.Open();
        });
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(pThread, pThread->m_pFound);
        releasing.join();
    }
    pThread->Destory(0);
}

TEST(CmThread, IsFound_WhenItAdoptsAThreadAfterItsOwnHasEnded) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    EXPECT_EQ(pThread, getCurrentThread());
    EXPECT_EQ(nullptr, ACmThread::ThreadProc(pThread));  // a body that ends leaves its thread
    EXPECT_EQ(pThread, getCurrentThread());
    pThread->Destory(0);
}

TEST(CmThread, UnregistersItself_WhenItIsDestroyed) {
    Life life;
    const size_t nBefore = RegisteredThreads();
    {
        BodyThread thread(life);
        thread.Create(TT_MAIN, TF_JOINABLE, 1);
        EXPECT_EQ(nBefore + 1, RegisteredThreads());
    }
    EXPECT_EQ(nBefore, RegisteredThreads());
}

TEST(CmThread, JoinFails_WhenOnItsOwnThread) {
    kelto_test::ScopedTraceSink sink;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    EventLog log;
    EXPECT_EQ(CM_ERROR_FAILURE, pThread->GetEventQueue()->SendEvent(
                                    new LoggedEvent(log, 1, [&] { return pThread->Join(); })));
    EXPECT_EQ(0u, sink.count("Join"));
    EndJoinable(pThread);
}

TEST(CmThread, JoinsNothing_WhenThereIsNoThread) {
    Life life;
    BodyThread thread(life);
    EXPECT_EQ(CM_OK, thread.Join());
}

TEST(CmThread, JoinReturnsAtOnce_WhenTheThreadIsDetached) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_FALSE(life.released.IsOpen());
    EXPECT_NE(pthread_t(0), pThread->GetThreadId());
    life.released.Open();
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.Wait());
}

TEST(CmThread, TracesAndFails_WhenTheJoinFails) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    kelto_test::ScopedTraceSink sink;
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_join> fault(ESRCH, ESRCH);
        EXPECT_EQ(CM_ERROR_FAILURE, pThread->Join());
    }
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ("UTIL ERROR: ACmThread::Join, pthread_join() failed! err=3 this=0x#",
              MaskAddresses(sink.lines()[0].text));
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
}

TEST(CmThread, LivesUntilItsBodyEnds_WhenADetachedOneIsDestroyedBefore) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    const size_t nBefore = RegisteredThreads();
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 1));
    EXPECT_EQ(CM_OK, pThread->Destory(0));
    EXPECT_EQ(nBefore, RegisteredThreads());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(life.deleted.IsOpen());
    life.released.Open();
    EXPECT_TRUE(life.deleted.Wait());
}

TEST(CmThread, IsDeletedAtOnce_WhenADetachedOneIsDestroyedAfterItsBody) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 1));
    ASSERT_TRUE(Eventually([&] { return pThread->GetStopFlag(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // after its last step
    EXPECT_FALSE(life.deleted.IsOpen());
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
}

std::atomic<int> g_nThreadsGone{0};

// Counts the threads that ran it when they are gone, after all that the library does on them.
class CountedThread : public BodyThread {
  public:
    using BodyThread::BodyThread;
    void OnThreadRun() override {
        struct CEnd {
            ~CEnd() { ++g_nThreadsGone; }
        };
        static thread_local CEnd t_end;
        BodyThread::OnThreadRun();
    }
};

TEST(CmThread, LivesUntilItIsDestroyed_WhenADetachedUnknownTypeIsCreatedAgain) {
    Life life;
    life.released.Open();
    g_nThreadsGone = 0;
    BodyThread* pThread = new CountedThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return g_nThreadsGone == 1; }));
    EXPECT_TRUE(pThread->HasEnded());
    life.released.Close();
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    EXPECT_FALSE(pThread->HasEnded());
    life.released.Open();
    EXPECT_TRUE(Eventually([&] { return life.deleted.IsOpen() || pThread->HasEnded(); }));
    EXPECT_FALSE(life.deleted.IsOpen());
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.Wait());
}

TEST(CmThread, HasNoThread_WhenADetachedUnknownTypeCannotBeCreatedAgain) {
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        Life life;
        life.released.Open();
        g_nThreadsGone = 0;
        BodyThread* pThread = new CountedThread(life);
        ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, flag, 1));
        ASSERT_TRUE(Eventually([&] { return g_nThreadsGone == 1; }));
        EXPECT_EQ(CM_OK, pThread->Join());
        {
            kelto_test::FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
            EXPECT_EQ(CM_ERROR_UNEXPECTED, pThread->Create(TT_UNKNOWN, TF_DETACHED, 1));
        }
        EXPECT_EQ(pthread_t(), pThread->GetThreadId());
        kelto_test::FailingCall<&CCmSystemTable::pthread_cancel> cancelled(0, 0);
        EXPECT_EQ(CM_ERROR_FAILURE, pThread->Terminate());
        EXPECT_EQ(0u, cancelled.calls());
        pThread->Destory(0);
        EXPECT_TRUE(life.deleted.IsOpen());
    }
}

TEST(CmThread, IsDeletedAtOnce_WhenItAdoptsAThreadAfterADetachedOneOfItsOwn) {
    Life life;
    life.released.Open();
    g_nThreadsGone = 0;
    BodyThread* pThread = new CountedThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return g_nThreadsGone == 1; }));
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_DETACHED, 0));
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
}

int s_nDetachState = -1;

// Keeps what state a thread is created in, which a running thread cannot be asked for everywhere.
int CreateKeepingDetachState(pthread_t* aThread, const pthread_attr_t* aAttributes,
                             void* (*aRoutine)(void*), void* aArgument) {
    pthread_attr_getdetachstate(aAttributes, &s_nDetachState);
    return pthread_create(aThread, aAttributes, aRoutine, aArgument);
}

TEST(CmThread, IsDetached_WhenTheLowBitsOfTheFlagAreTwo) {
    const struct {
        TFlag flag;
        bool detached;
        bool joined;  // by Join
    } rows[] = {{0, false, true},  {1, false, true}, {2, true, false}, {3, false, true},
                {4, false, false}, {5, false, true}, {6, true, false}};
    for (const auto& row : rows) {
        Life life;
        BodyThread* pThread = new BodyThread(life);
        s_nDetachState = -1;
        {
            const kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_create)> entry(
                g_cmSystem.pthread_create, &CreateKeepingDetachState);
            ASSERT_EQ(CM_OK, pThread->Create(TYPE, row.flag, 1));
        }
        EXPECT_EQ(row.detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE, s_nDetachState)
            << row.flag;
        const pthread_t tid = pThread->GetThreadId();
        life.released.Open();
        pThread->Join();
        EXPECT_EQ(row.joined ? pthread_t(0) : tid, pThread->GetThreadId()) << row.flag;
        if (row.flag == 4) {
            pthread_join(tid, nullptr);  // joinable for the system, not for Join
        }
        pThread->Destory(0);
        EXPECT_TRUE(life.deleted.Wait()) << row.flag;
    }
}

TEST(CmThread, EndsWithNull_WhenTheStartRoutineGetsNoObject) {
    kelto_test::ScopedTraceSink sink;
    EXPECT_EQ(nullptr, ACmThread::ThreadProc(nullptr));
    EXPECT_EQ(1u, sink.count(" Assert failed: pThread"));
}

TEST(CmThread, KeepsNoHandle_WhenTheStartRoutineRunsAnAdoptedThread) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 0));
    EXPECT_EQ(nullptr, ACmThread::ThreadProc(pThread));
    EXPECT_TRUE(life.initialized);
    EXPECT_TRUE(life.ran);
    EXPECT_TRUE(pThread->GetStopFlag());
    EXPECT_EQ((pthread_t)-1, pThread->GetThreadHandle());
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted.IsOpen());
}

template <auto Call>
void ExpectCreateFails(int aError, const std::string& aLine) {
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        kelto_test::ScopedTraceSink sink;
        Life life;
        BodyThread* pThread = new BodyThread(life);
        kelto_test::FailingCall<Call> fault(aError, aError);
        EXPECT_EQ(CM_ERROR_UNEXPECTED, pThread->Create(TYPE, flag, 1));
        EXPECT_EQ(TYPE, pThread->GetThreadType());
        EXPECT_NE(nullptr, pThread->startEvent());
        ASSERT_EQ(2u, sink.lines().size());
        EXPECT_EQ(0u, sink.lines()[1].level);
        EXPECT_EQ(aLine, MaskAddresses(sink.lines()[1].text));
        EXPECT_EQ(CM_ERROR_FAILURE, pThread->Terminate());
        EXPECT_EQ(CM_OK, pThread->Join());
        pThread->Destory(CM_ERROR_UNEXPECTED);
        EXPECT_TRUE(life.deleted.IsOpen());
        EXPECT_FALSE(life.initialized);
    }
    const size_t nBefore = RegisteredThreads();
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        kelto_test::FailingCall<Call> fault(aError, aError);
        ACmThread* pThread = nullptr;
        EXPECT_EQ(CM_ERROR_UNEXPECTED, CreateUserTaskThread(&pThread, flag, true, TYPE));
        EXPECT_EQ(nullptr, pThread);
    }
    EXPECT_EQ(nBefore, RegisteredThreads());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThread, CreateFails_WhenTheAttributesCannotBeInitialised) {
    ExpectCreateFails<&CCmSystemTable::pthread_attr_init>(
        ENOMEM, "UTIL ERROR: ACmThread::Create, pthread_attr_init() failed! err=12 this=0x#");
}

TEST(CmThread, CreateFails_WhenTheDetachStateCannotBeSet) {
    ExpectCreateFails<&CCmSystemTable::pthread_attr_setdetachstate>(
        EINVAL,
        "UTIL ERROR: ACmThread::Create, pthread_attr_setdetachstate() failed! err=22 this=0x#");
}

TEST(CmThread, CreateFails_WhenTheThreadCannotBeCreated) {
    ExpectCreateFails<&CCmSystemTable::pthread_create>(
        EAGAIN,
        "UTIL ERROR: ACmThread::Create, pthread_create() failed! "
        "err=" ERRNO_TEXT(EAGAIN) " this=0x#");
}

std::atomic<int> g_nAttributes{0};
int CountedAttrInit(pthread_attr_t* aAttributes) {
    ++g_nAttributes;
    return pthread_attr_init(aAttributes);
}
int CountedAttrDestroy(pthread_attr_t* aAttributes) {
    --g_nAttributes;
    return pthread_attr_destroy(aAttributes);
}

TEST(CmThread, DestroysTheAttributes_WhateverFails) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_attr_init)> init(
        g_cmSystem.pthread_attr_init, &CountedAttrInit);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_attr_destroy)> destroy(
        g_cmSystem.pthread_attr_destroy, &CountedAttrDestroy);
    g_nAttributes = 0;
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(0, g_nAttributes.load());
    pThread->Join();
    pThread->Destory(0);
    {
        BodyThread failing(life);
        kelto_test::FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
        failing.Create(TYPE, TF_JOINABLE, 1);
    }
    EXPECT_EQ(0, g_nAttributes.load());
    {
        BodyThread failing(life);
        kelto_test::FailingCall<&CCmSystemTable::pthread_attr_setdetachstate> fault(EINVAL, EINVAL);
        failing.Create(TYPE, TF_JOINABLE, 1);
    }
    EXPECT_EQ(0, g_nAttributes.load());
}

int SpuriousTimedWait(pthread_cond_t*, pthread_mutex_t*, const timespec*) {
    return 0;
}

TEST(CmThread, CreateWaitsForTheInit_WhenItsWaitEndsForNoReason) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> entry(
        g_cmSystem.pthread_cond_timedwait, &SpuriousTimedWait);
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_TRUE(life.initialized);
    pThread->Join();
    pThread->Destory(0);
}

TEST(CmThread, CreateWaitsForTheInit_WhenTheHandshakeFails) {
    Life life;
    life.released.Open();
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_timedwait> wait(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> signal(
            EINVAL, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
        BodyThread* pThread = new BodyThread(life);
        EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
        EXPECT_TRUE(life.initialized);
        pThread->Join();
        pThread->Destory(0);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Returns only when the new thread waits for its release.
Gate g_inBody;
int LateCreate(pthread_t* aId, const pthread_attr_t* aAttributes, void* (*aStart)(void*),
               void* aArgument) {
    pthread_t id = pthread_t();
    const int rv = pthread_create(&id, aAttributes, aStart, aArgument);
    EXPECT_TRUE(g_inBody.Wait());
    *aId = id;
    return rv;
}

TEST(CmThread, KnowsItsIdentity_WhenItRunsBeforeItsCreatorGoesOn) {
    class CAsking : public BodyThread {
      public:
        using BodyThread::BodyThread;
        void OnThreadInit() override {
            EXPECT_TRUE(IsEqualCurrentThread(GetThreadId()));
            EXPECT_TRUE(IsEqualCurrentThread(GetThreadHandle()));
        }
        void OnThreadRun() override {
            g_inBody.Open();
            BodyThread::OnThreadRun();
        }
    };
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_create)> entry(g_cmSystem.pthread_create,
                                                                       &LateCreate);
    g_inBody.Close();
    Life life;
    life.released.Open();
    BodyThread* pThread = new CAsking(life);
    EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
    EXPECT_TRUE(life.ran);
}

TEST(CmThread, FreesTheHandshake_WhenAnUnknownTypeIsCreatedAgainAfterAFailure) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        Life life;
        life.released.Open();
        BodyThread* pThread = new BodyThread(life);
        {
            kelto_test::FailingCall<&CCmSystemTable::pthread_create> fault(EAGAIN, EAGAIN);
            EXPECT_EQ(CM_ERROR_UNEXPECTED, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
        }
        EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_EQ(CM_OK, pThread->Join());
        pThread->Destory(0);
        EXPECT_TRUE(life.ran);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThread, Runs_WhenAnUnknownTypeIsCreatedAgainAfterItsInitFailed) {
    class CFailingOnce : public BodyThread {
      public:
        using BodyThread::BodyThread;
        void OnThreadInit() override {
            if (!std::exchange(m_bFailed, true)) {
                SetInitResult(CM_ERROR_NOT_AVAILABLE);
            }
        }

      private:
        bool m_bFailed = false;
    };
    Life life;
    life.released.Open();
    BodyThread* pThread = new CFailingOnce(life);
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
    EXPECT_TRUE(life.ran);
}

TEST(CmThread, IsJoinedAndNotRun_WhenItsInitFails) {
    class CFailing : public BodyThread {
      public:
        using BodyThread::BodyThread;
        void OnThreadInit() override { SetInitResult(CM_ERROR_NOT_AVAILABLE); }
    };
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        Life life;
        const size_t nBefore = RegisteredThreads();
        BodyThread* pThread = new CFailing(life);
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pThread->Create(TYPE, flag, 1));
        EXPECT_EQ(flag == TF_JOINABLE, pThread->GetThreadId() == pthread_t(0));
        EXPECT_EQ(nBefore, RegisteredThreads());
        pThread->Destory(0);
        EXPECT_TRUE(life.deleted.Wait());
        EXPECT_FALSE(life.ran);
    }
}

TEST(CmThread, TerminateFails_WhenThereIsNoThread) {
    Life life;
    BodyThread thread(life);
    EXPECT_FALSE(thread.GetStopFlag());
    EXPECT_EQ(CM_ERROR_FAILURE, thread.Terminate());
    EXPECT_TRUE(thread.GetStopFlag());
}

TEST(CmThread, TerminateFails_WhenADetachedBodyHasEnded) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return pThread->GetStopFlag(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // after its last step
    kelto_test::FailingCall<&CCmSystemTable::pthread_cancel> fault(ESRCH, ESRCH);
    EXPECT_EQ(CM_ERROR_FAILURE, pThread->Terminate());
    EXPECT_EQ(0u, fault.calls());  // the thread's number may be another one's by now
    pThread->Destory(0);
}

TEST(CmThread, TerminateCancelsNothing_WhenTheThreadIsAdopted) {
    Life life;
    life.released.Open();
    BodyThread* pThread = new BodyThread(life);
    for (bool bHadAThread : {false, true}) {
        if (bHadAThread) {
            pThread->Destory(0);
            pThread = new BodyThread(life);
            ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
            EXPECT_EQ(CM_OK, pThread->Join());
        }
        ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 0));
        kelto_test::FailingCall<&CCmSystemTable::pthread_cancel> fault(0, 0);
        EXPECT_EQ(CM_ERROR_FAILURE, pThread->Terminate());
        EXPECT_TRUE(pThread->GetStopFlag());
        EXPECT_EQ(0u, fault.calls());
    }
    pThread->Destory(0);
}

TEST(CmThread, TerminateReturnsTheResultOfTheCall_WhenItFails) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cancel> fault(ESRCH, ESRCH);
        EXPECT_EQ(ESRCH, pThread->Terminate());
    }
    EXPECT_TRUE(pThread->GetStopFlag());
    life.released.Open();
    pThread->Join();
    pThread->Destory(0);
}

}  // namespace
}  // namespace UTIL_NS
