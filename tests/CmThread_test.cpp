#include "CmThread.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CmClock.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTimerWrapper.h"
#include "support/Cancellation.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::Eventually;
using kelto_test::LoggedEvent;
using kelto_test::MaskAddresses;

typedef std::vector<int> Ids;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr int TYPE = 7;
constexpr CmResult RESULT = 4711;

size_t RegisteredThreads() {
    EXPECT_EQ(CM_OK, g_thread_Mutex.Lock());
    const size_t nThreads = g_threadList.size();
    g_thread_Mutex.UnLock();
    return nThreads;
}

// What a BodyThread did; outlives it.
struct Life {
    std::atomic<bool> initialized{false};
    std::atomic<bool> ran{false};
    std::atomic<bool> released{false};  // set by the test: the body may end
    std::atomic<bool> deleted{false};
};

// Its body waits until it is released.
class BodyThread : public ACmThread {
  public:
    explicit BodyThread(Life& aLife) : m_life(aLife) {}
    ~BodyThread() override { m_life.deleted = true; }
    void OnThreadInit() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_life.initialized = true;
    }
    void OnThreadRun() override {
        m_life.ran = true;
        Eventually([this] { return m_life.released.load(); });
    }
    CCmEventThread* startEvent() const { return m_pEvent; }
    // Of a detached one that was not destroyed.
    bool HasEnded() const { return m_nDestroyRef.value() == 1; }

  private:
    Life& m_life;
};

void EndJoinable(ACmThread* aThread) {
    aThread->Stop(nullptr);
    EXPECT_EQ(CM_OK, aThread->Join());
    EXPECT_EQ(CM_OK, aThread->Destory(0));
}

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
    life.released = true;
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_TRUE(life.ran);
    EXPECT_TRUE(pThread->GetStopFlag());
    EXPECT_EQ(pthread_t(0), pThread->GetThreadId());
    EXPECT_FALSE(life.deleted);
    EXPECT_EQ(CM_OK, pThread->Destory(0));
    EXPECT_TRUE(life.deleted);
}

class PlainThread : public ACmThread {
  public:
    explicit PlainThread(Life& aLife) : m_life(aLife) {}
    void OnThreadRun() override { m_life.ran = true; }

  private:
    Life& m_life;
};

TEST(CmThread, RunsItsBody_WithoutAnInitOfItsOwn) {
    Life life;
    ACmThread* pThread = new PlainThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EndJoinable(pThread);
    EXPECT_TRUE(life.ran);
}

TEST(CmThread, TracesItsLife_ToTheCharacter) {
    kelto_test::ScopedTraceSink sink;
    Life life;
    life.released = true;
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

TEST(CmThread, RefusesASecondCreate) {
    kelto_test::ScopedTraceSink sink;
    Life life;
    life.released = true;
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
    life.released = true;
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
    EXPECT_TRUE(life.deleted);
    EXPECT_EQ(nullptr, getCurrentThread());
}

TEST(CmThread, IsDeletedAtOnce_WhenItAdoptedADetachedThread) {
    Life life;
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_DETACHED, 1));
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted);
}

TEST(CmThread, IsDeletedAtOnce_WhenItWasNeverCreated) {
    Life life;
    (new BodyThread(life))->Destory(0);
    EXPECT_TRUE(life.deleted);
}

TEST(CmThread, IsRegisteredOnce_WhenAnUnknownTypeIsCreatedAgain) {
    Life life;
    life.released = true;
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

TEST(CmThread, FindsItself_OnItsOwnThread) {
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
    life.released = true;
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
    life.released = true;
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
        life.released = false;
        pThread->m_pFound = nullptr;
        ASSERT_EQ(CM_OK, pThread->Create(nType, TF_JOINABLE, 1));
        std::thread releasing([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            life.released = true;
        });
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(pThread, pThread->m_pFound);
        releasing.join();
    }
    pThread->Destory(0);
}

TEST(CmThread, IsFound_WhenItAdoptsAThreadAfterItsOwnHasEnded) {
    Life life;
    life.released = true;
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

TEST(CmThread, CannotJoinItself) {
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
    EXPECT_FALSE(life.released);
    EXPECT_NE(pthread_t(0), pThread->GetThreadId());
    life.released = true;
    pThread->Destory(0);
    EXPECT_TRUE(Eventually([&] { return life.deleted.load(); }));
}

TEST(CmThread, TracesAndFails_WhenTheJoinFails) {
    Life life;
    life.released = true;
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
    EXPECT_FALSE(life.deleted);
    life.released = true;
    EXPECT_TRUE(Eventually([&] { return life.deleted.load(); }));
}

TEST(CmThread, IsDeletedAtOnce_WhenADetachedOneIsDestroyedBehindItsBody) {
    Life life;
    life.released = true;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 1));
    ASSERT_TRUE(Eventually([&] { return pThread->GetStopFlag(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // behind its last step
    EXPECT_FALSE(life.deleted);
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted);
}

std::atomic<int> g_nThreadsGone{0};

// Counts the threads that ran it when they are gone, behind all that the library does on them.
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
    life.released = true;
    g_nThreadsGone = 0;
    BodyThread* pThread = new CountedThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return g_nThreadsGone == 1; }));
    EXPECT_TRUE(pThread->HasEnded());
    life.released = false;
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    EXPECT_FALSE(pThread->HasEnded());
    life.released = true;
    EXPECT_TRUE(Eventually([&] { return life.deleted || pThread->HasEnded(); }));
    EXPECT_FALSE(life.deleted);
    pThread->Destory(0);
    EXPECT_TRUE(Eventually([&] { return life.deleted.load(); }));
}

TEST(CmThread, HasNoThread_WhenADetachedUnknownTypeCannotBeCreatedAgain) {
    for (TFlag flag : {TF_JOINABLE, TF_DETACHED}) {
        Life life;
        life.released = true;
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
        EXPECT_TRUE(life.deleted);
    }
}

TEST(CmThread, IsDeletedAtOnce_WhenItAdoptsAThreadAfterADetachedOneOfItsOwn) {
    Life life;
    life.released = true;
    g_nThreadsGone = 0;
    BodyThread* pThread = new CountedThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return g_nThreadsGone == 1; }));
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_DETACHED, 0));
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted);
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
        life.released = true;
        pThread->Join();
        EXPECT_EQ(row.joined ? pthread_t(0) : tid, pThread->GetThreadId()) << row.flag;
        if (row.flag == 4) {
            pthread_join(tid, nullptr);  // joinable for the system, not for Join
        }
        pThread->Destory(0);
        EXPECT_TRUE(Eventually([&] { return life.deleted.load(); })) << row.flag;
    }
}

TEST(CmThread, EndsWithNull_WhenTheStartRoutineGetsNoObject) {
    kelto_test::ScopedTraceSink sink;
    EXPECT_EQ(nullptr, ACmThread::ThreadProc(nullptr));
    EXPECT_EQ(1u, sink.count(" Assert failed: pThread"));
}

TEST(CmThread, KeepsNoHandle_WhenTheStartRoutineRunsAnAdoptedThread) {
    Life life;
    life.released = true;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 0));
    EXPECT_EQ(nullptr, ACmThread::ThreadProc(pThread));
    EXPECT_TRUE(life.initialized);
    EXPECT_TRUE(life.ran);
    EXPECT_TRUE(pThread->GetStopFlag());
    EXPECT_EQ((pthread_t)-1, pThread->GetThreadHandle());
    pThread->Destory(0);
    EXPECT_TRUE(life.deleted);
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
        EXPECT_TRUE(life.deleted);
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

TEST(CmThread, DestroysTheAttributes_WhetherItFailsOrNot) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_attr_init)> init(
        g_cmSystem.pthread_attr_init, &CountedAttrInit);
    kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_attr_destroy)> destroy(
        g_cmSystem.pthread_attr_destroy, &CountedAttrDestroy);
    g_nAttributes = 0;
    Life life;
    life.released = true;
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
    life.released = true;
    BodyThread* pThread = new BodyThread(life);
    EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_TRUE(life.initialized);
    pThread->Join();
    pThread->Destory(0);
}

TEST(CmThread, CreateWaitsForTheInit_WhenTheHandshakeFails) {
    Life life;
    life.released = true;
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
        EXPECT_TRUE(Eventually([&] { return life.deleted.load(); }));
        EXPECT_FALSE(life.ran);
    }
}

TEST(CmThread, TerminateFails_WhenThereIsNoThread) {
    Life life;
    BodyThread thread(life);
    EXPECT_EQ(CM_ERROR_FAILURE, thread.Terminate());
    EXPECT_FALSE(thread.GetStopFlag());
}

TEST(CmThread, TerminateFails_WhenADetachedBodyHasEnded) {
    Life life;
    life.released = true;
    BodyThread* pThread = new BodyThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    ASSERT_TRUE(Eventually([&] { return pThread->GetStopFlag(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // behind its last step
    kelto_test::FailingCall<&CCmSystemTable::pthread_cancel> fault(ESRCH, ESRCH);
    EXPECT_EQ(CM_ERROR_FAILURE, pThread->Terminate());
    EXPECT_EQ(0u, fault.calls());  // the thread's number may be another one's by now
    pThread->Destory(0);
}

TEST(CmThread, TerminateCancelsNothing_WhenTheThreadIsAdopted) {
    Life life;
    life.released = true;
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
    life.released = true;
    pThread->Join();
    pThread->Destory(0);
}

// The workers.

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

TEST_F(CmThreadTaskTimes, FiresAtOnce_WhatBecameDueDuringAHandler) {
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

TEST_F(CmThreadTaskTimes, WaitsForTheRest_BehindAHandlerThatTookTime) {
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

TEST_F(CmThreadTaskTimes, ReadsTheClockOnceMore_OnlyBehindAFiring) {
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

TEST(CmThreadTask, TracesItsLife_ToTheCharacter) {
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

TEST(CmThreadTask, RunsWhatWasPostedBeforeStop_AndRefusesTheRest) {
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

TEST(CmThreadTask, EndsUnfired_WhatIsPendingWhenItsLoopEnds) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    CCmThreadTaskWithEventQueueOnly* pTask = static_cast<CCmThreadTaskWithEventQueueOnly*>(pThread);
    std::atomic<bool> bBusy{false};
    std::atomic<bool> bGo{false};
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            bBusy = true;
                                                            Eventually([&] { return bGo.load(); });
                                                            return CM_OK;
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    EXPECT_EQ(CM_OK, CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask));
    for (int i = 1; i <= 20; ++i) {
        EXPECT_EQ(CM_OK, pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL));
    }
    bGo = true;
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
    std::atomic<bool> bGo{false};
    std::atomic<bool> bBusy{false};
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          bBusy = true;
                                          Eventually([&] { return bGo.load(); });
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask);
    for (int i = 1; i <= 10; ++i) {
        pQueue->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 99)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() >= 12; }));
    bGo = true;
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

// Logs -1 when it fires.
class NotingHandler final : public ICmTimerHandler {
  public:
    explicit NotingHandler(EventLog& aLog) : m_log(aLog) {}
    void OnTimeout(const CCmTimeValue&, void*) override { m_log.Fired(-1); }

  private:
    EventLog& m_log;
};

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
    std::atomic<bool> bGo{false};
    std::atomic<bool> bBusy{false};
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            bBusy = true;
                                                            Eventually([&] { return bGo.load(); });
                                                            return schedule();
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    for (int i = 1; i <= 12; ++i) {
        const bool bEndsABatch = i == 5 || i == 10;
        pThread->GetEventQueue()->PostEvent(
            new LoggedEvent(log, i, [=] { return bEndsABatch ? schedule() : CM_OK; }), NORMAL);
    }
    bGo = true;
    ASSERT_TRUE(Eventually([&] { return log.ended().size() == 13; }));
    EXPECT_EQ((Ids{0, -1, 1, 2, 3, 4, 5, -1, 6, 7, 8, 9, 10, -1, 11, 12}), log.fired());
    EndJoinable(pThread);
}

TEST(CmThreadTask, TakesEverythingAtOnce_WhenItHasNoTimerQueue) {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    EventLog log;
    std::atomic<bool> bGo{false};
    std::atomic<bool> bBusy{false};
    DWORD dwPending = 77;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 0,
                                                        [&] {
                                                            bBusy = true;
                                                            Eventually([&] { return bGo.load(); });
                                                            return CM_OK;
                                                        }),
                                        NORMAL);
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
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
    bGo = true;
    // The stop event must not be pending among them.
    EXPECT_TRUE(Eventually([&] { return log.fired().size() == 31; }));
    EndJoinable(pThread);
    EXPECT_EQ(0u, dwPending);
    EXPECT_EQ(31u, log.fired().size());
}

TEST(CmThreadTask, StopFlagStartsStopped_AndStartsWithTheThread) {
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

// Cancellation, on a system that unwinds the thread (where this one does) and on one that does not.

class CmCancelledThread : public testing::TestWithParam<bool> {
  protected:
    CmCancelledThread() {
        if (GetParam()) {
            m_handlersOnly.emplace();
        }
    }

  private:
    std::optional<kelto_test::ScopedHandlersOnly> m_handlersOnly;
};

INSTANTIATE_TEST_SUITE_P(, CmCancelledThread, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

// Not within a sleep, out of which the thread sanitizer cannot follow a cancelled thread.
CmResult SpinUntilCancelled() {
    for (;;) {
        kelto_test::TestCancel();
        std::this_thread::yield();
    }
}

bool CanBeLocked(ICmEventQueue* aQueue) {
    EventLog log;
    std::atomic<bool> bPosted{false};
    std::thread poster([&] {
        aQueue->PostEvent(new EndingEvent([] {}), NORMAL);
        bPosted = true;
    });
    const bool bResult = Eventually([&] { return bPosted.load(); });
    poster.join();
    return bResult;
}

TEST_P(CmCancelledThread, LeavesItsQueueUnlocked_WhenTerminatedInItsWait) {
    for (bool bWithTimerQueue : {false, true}) {
        const long lLive = kelto_test::LiveAllocationsBefore();
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, bWithTimerQueue, TYPE));
        EXPECT_EQ(0, pThread->Terminate());
        EXPECT_TRUE(pThread->GetStopFlag());
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_TRUE(CanBeLocked(pThread->GetEventQueue()));
        EXPECT_EQ(1u, pThread->GetEventQueue()->GetPendingEventsCount());
        pThread->Destory(0);
        EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    }
}

TEST_P(CmCancelledThread, LosesNoEvent_WhenTerminatedInAHandler) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    std::atomic<bool> bBusy{false};
    std::atomic<bool> bGo{false};
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          Eventually([&] { return bGo.load(); });
                                          return CM_OK;
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 1,
                                      [&] {
                                          bBusy = true;
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    for (int i = 2; i <= 8; ++i) {
        pQueue->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    bGo = true;
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_EQ((Ids{0, 1}), log.fired());
    EXPECT_EQ((Ids{0, 1}), log.ended());
    EXPECT_EQ(7u, pQueue->GetPendingEventsCount());
    pThread->Destory(0);
    EXPECT_EQ((Ids{0, 1, 2, 3, 4, 5, 6, 7, 8}), log.ended());
    EXPECT_EQ((Ids{0, 1}), log.fired());
}

TEST_P(CmCancelledThread, WakesTheSender_WhenTerminatedInItsEvent) {
    EventLog log;
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, false, TYPE));
    std::atomic<bool> bBusy{false};
    CmResult rv = CM_OK;
    std::thread sender([&] {
        rv = pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [&] {
            bBusy = true;
            return SpinUntilCancelled();
        }));
    });
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    EXPECT_EQ(0, pThread->Terminate());
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(Ids{1}, log.ended());
    pThread->Join();
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, FreesTheWrapper_WhenTheSenderIsTerminated) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        CCmEventQueueUsingMutex queue;  // that nobody runs, at first
        ACmThread* pSender = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pSender, TF_JOINABLE, false, TYPE));
        pSender->GetEventQueue()->PostEvent(
            new LoggedEvent(log, 1, [&] { return queue.SendEvent(new LoggedEvent(log, 2)); }),
            NORMAL);
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        EXPECT_EQ(0, pSender->Terminate());
        EXPECT_EQ(CM_OK, pSender->Join());
        pSender->Destory(0);
        EXPECT_EQ(Ids{1}, log.ended());
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        EXPECT_EQ((Ids{1, 2}), log.fired());
        EXPECT_EQ((Ids{1, 2}), log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, IsFreed_WhenADetachedOneIsTerminatedAndDestroyed) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_DETACHED, true, TYPE));
    EXPECT_EQ(0, pThread->Terminate());
    pThread->Destory(0);
    EXPECT_TRUE(Eventually([&] { return kelto_test::LiveAllocations() == lLive; }));
}

// Its body ignores its cancellation; its destructor would act on it.
class DeafThread : public ACmThread {
  public:
    explicit DeafThread(Life& aLife) : m_life(aLife) {}
    ~DeafThread() override {
        kelto_test::TestCancel();
        m_life.deleted = true;
    }
    void OnThreadRun() override {
        while (!m_life.released) {
        }
    }

  private:
    Life& m_life;
};

TEST_P(CmCancelledThread, IsFreed_WhenItIsTerminatedAsItsBodyEnds) {
    Life life;
    DeafThread* pThread = new DeafThread(life);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_DETACHED, 0));
    EXPECT_EQ(0, pThread->Terminate());
    pThread->Destory(0);
    life.released = true;
    EXPECT_TRUE(Eventually([&] { return life.deleted.load(); }));
}

// Acts on its thread's cancellation when it ends.
class CancelPointEvent : public ICmEvent {
  public:
    CmResult OnEventFire() override { return CM_OK; }
    void OnDestorySelf() override {
        delete this;
        kelto_test::TestCancel();
    }
};

TEST_P(CmCancelledThread, EndsEveryEvent_WhenTerminatedWhileItEndsThem) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmThreadTaskWithEventQueueOnly* pTask = new CCmThreadTaskWithEventQueueOnly;
    ASSERT_EQ(CM_OK, pTask->Create(TYPE, TF_JOINABLE, 0));
    std::atomic<bool> bBusy{false};
    std::atomic<bool> bGo{false};
    ICmEventQueue* pQueue = pTask->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          bBusy = true;
                                          while (!bGo) {
                                          }
                                          pTask->SetStopFlag();
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    pQueue->PostEvent(new CancelPointEvent, NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 1), NORMAL);
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 2)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 3; }));
    EXPECT_EQ(0, pTask->Terminate());
    bGo = true;
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ(CM_OK, pTask->Join());
    EXPECT_EQ(Ids{0}, log.fired());
    EXPECT_EQ((Ids{0, 1, 2}), log.ended());
    pTask->Destory(0);
}

template <class Task>
class ClosableTask : public Task {
  public:
    void Close() { this->m_EventQueue.SetStopped(); }
};

// As a Stop that is overtaken, between its two steps, by other posters.
template <class Task>
void ExpectEndOfTheRestAfterTheStopEvent() {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    auto* const pTask = new ClosableTask<Task>;
    ASSERT_EQ(CM_OK, pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0));
    std::atomic<bool> bFirst{false};
    std::atomic<bool> bGo{false};
    std::atomic<bool> bBusy{false};
    ICmEventQueue* const pQueue = pTask->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 0,
                                      [&] {
                                          bFirst = true;
                                          Eventually([&] { return bGo.load(); });
                                          return CM_OK;
                                      }),
                      NORMAL);
    ASSERT_TRUE(Eventually([&] { return bFirst.load(); }));
    CCmEventStopT<CCmThreadTaskWithEventQueueOnly>::PostStopEvent(pTask);
    pQueue->PostEvent(new LoggedEvent(log, 1,
                                      [&] {
                                          bBusy = true;
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 2), NORMAL);
    pTask->Close();
    bGo = true;
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    EXPECT_EQ(0, pTask->Terminate());
    EXPECT_EQ(CM_OK, pTask->Join());
    EXPECT_EQ((Ids{0, 1, 2}), log.ended());
    const CmResult rv = pTask->Create(TT_UNKNOWN, TF_JOINABLE, 0);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rv);
    if (CM_SUCCEEDED(rv)) {  // nothing else ends it
        pTask->Terminate();
        pTask->Join();
    }
    pTask->Destory(0);
    EXPECT_EQ((Ids{0, 1}), log.fired());
}

TEST_P(CmCancelledThread, EndsTheRest_WhenTerminatedAfterItsStopEvent) {
    ExpectEndOfTheRestAfterTheStopEvent<CCmThreadTaskWithEventQueueOnly>();
    ExpectEndOfTheRestAfterTheStopEvent<CCmThreadTask>();
}

// Runs what it is given.
class WorkThread : public ACmThread {
  public:
    explicit WorkThread(std::function<void()> aWork) : m_work(std::move(aWork)) {}
    void OnThreadRun() override { m_work(); }

  private:
    const std::function<void()> m_work;
};

// An event with a cancellation point in its firing, in its end, or in both.
class CancellableEvent : public ICmEvent {
  public:
    CancellableEvent(std::atomic<int>& aEnded, bool aInFire)
        : m_nEnded(aEnded), m_bInFire(aInFire) {}
    CmResult OnEventFire() override { return m_bInFire ? SpinUntilCancelled() : RESULT; }
    void OnDestorySelf() override {
        ++m_nEnded;
        const bool bInEnd = !m_bInFire;
        delete this;
        if (bInEnd) {
            SpinUntilCancelled();
        }
    }

  private:
    std::atomic<int>& m_nEnded;
    const bool m_bInFire;
};

// Terminates a thread that does aWork as soon as aIsThere says that it is at its cancellation
// point.
template <class Condition>
void TerminateIn(std::function<void()> aWork, Condition aIsThere) {
    WorkThread* pThread = new WorkThread(std::move(aWork));
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    EXPECT_TRUE(Eventually(aIsThere));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, EndsTheEventOnce_WhoeverRunsIt) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    CCmEventQueueBase queue;
    std::list<ICmEvent*> events;
    for (int i = 0; i < 2; ++i) {
        const bool bInFire = i == 0;
        nEnded = 0;
        const auto hasStarted = [&] { return bInFire || nEnded > 0; };
        TerminateIn([&] { queue.ProcessOneEvent(new CancellableEvent(nEnded, bInFire)); },
                    hasStarted);
        EXPECT_EQ(1, nEnded);
        events.push_back(new CancellableEvent(nEnded, bInFire));
        nEnded = 0;
        TerminateIn([&] { queue.ProcessEvents(events); }, hasStarted);
        EXPECT_EQ(1, nEnded);
        events.clear();
        nEnded = 0;
        TerminateIn(
            [&] {
                queue.BindToCurrentThread();
                queue.SendEvent(new CancellableEvent(nEnded, bInFire));
            },
            hasStarted);
        EXPECT_EQ(1, nEnded);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, FreesTheWrapper_WhenTheWorkerIsTerminatedInTheEndOfItsEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    for (bool bFired : {true, false}) {
        std::atomic<int> nEnded{0};
        CCmEventQueueUsingMutex queue;
        CmResult rv = CM_OK;
        std::thread sender([&] { rv = queue.SendEvent(new CancellableEvent(nEnded, false)); });
        ASSERT_TRUE(Eventually([&] { return queue.GetPendingEventsCount() == 1; }));
        std::list<ICmEvent*> events;
        TerminateIn(
            [&] {
                if (bFired) {
                    queue.PopPendingEventsLocked(events);
                    queue.ProcessTakenEvents(events);
                } else {
                    queue.DestoryPendingEvents();
                }
            },
            [&] { return nEnded > 0; });
        sender.join();
        EXPECT_EQ(bFired ? RESULT : CM_ERROR_NOT_AVAILABLE, rv);
        EXPECT_EQ(1, nEnded);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Refuses what is posted.
class ClosedQueue : public CCmEventQueueUsingMutex {
  public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority) override {
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_INITIALIZED;
    }
};

TEST_P(CmCancelledThread, LeavesNothing_WhenTheSenderIsTerminatedInTheEndOfARefusedEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    {
        ClosedQueue queue;  // whose end waits for busy senders
        TerminateIn([&] { queue.SendEvent(new CancellableEvent(nEnded, false)); },
                    [&] { return nEnded > 0; });
    }
    EXPECT_EQ(1, nEnded);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

CCmEventQueueBase* g_pQueueToClose = nullptr;
int CloseQueueAndTellTime(timeval* aNow, void*) {
    g_pQueueToClose->SetStopped();
    return gettimeofday(aNow, nullptr);
}

TEST_P(CmCancelledThread, LeavesNothing_WhenThePosterIsTerminatedInTheEndOfARefusedEvent) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    std::atomic<int> nEnded{0};
    {
        CCmEventQueueUsingMutex queue;
        g_pQueueToClose = &queue;
        kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> entry(
            g_cmClock.coarse_gettimeofday, &CloseQueueAndTellTime);
        TerminateIn([&] { queue.PostEvent(new CancellableEvent(nEnded, false), NORMAL); },
                    [&] { return nEnded > 0; });
    }
    EXPECT_EQ(1, nEnded);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Starts slowly.
class SlowStarter : public BodyThread {
  public:
    SlowStarter(Life& aLife, std::atomic<bool>& aGo) : BodyThread(aLife), m_bGo(aGo) {}
    void OnThreadInit() override {
        s_bStarted = true;
        Eventually([this] { return m_bGo.load(); });
    }

    inline static std::atomic<bool> s_bStarted{false};

  private:
    std::atomic<bool>& m_bGo;
};

TEST_P(CmCancelledThread, CreatesItsThread_WhenTheCreatorIsTerminatedMeanwhile) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        Life life;
        std::atomic<bool> bGo{false};
        SlowStarter::s_bStarted = false;
        SlowStarter* const pStarted = new SlowStarter(life, bGo);
        std::atomic<CmResult> rv{CM_ERROR_FAILURE};
        WorkThread* pCreator = new WorkThread([&] {
            rv = pStarted->Create(TYPE, TF_JOINABLE, 1);
            SpinUntilCancelled();
        });
        ASSERT_EQ(CM_OK, pCreator->Create(TYPE, TF_JOINABLE, 0));
        ASSERT_TRUE(Eventually([] { return SlowStarter::s_bStarted.load(); }));
        EXPECT_EQ(0, pCreator->Terminate());
        bGo = true;
        EXPECT_EQ(CM_OK, pCreator->Join());
        pCreator->Destory(0);
        EXPECT_EQ(CM_OK, rv);
        EXPECT_EQ(nullptr, pStarted->startEvent());
        life.released = true;
        EXPECT_EQ(CM_OK, pStarted->Join());
        pStarted->Destory(0);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Terminated while it starts.
class EndlessStarter : public BodyThread {
  public:
    explicit EndlessStarter(Life& aLife) : BodyThread(aLife) {}
    void OnThreadInit() override {
        EXPECT_EQ(0, g_cmSystem.pthread_cancel(pthread_self()));
        SpinUntilCancelled();
    }
};

TEST_P(CmCancelledThread, LetsItsCreatorGo_WhenItIsTerminatedWhileItStarts) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        Life life;
        EndlessStarter* pThread = new EndlessStarter(life);
        EXPECT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_FALSE(life.ran);
        pThread->Destory(0);
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledThread, LeavesTheEventUsable_WhenTerminatedInItsWait) {
    CCmEventThread event(0, 0);
    for (bool bTimed : {false, true}) {
        TerminateIn(
            [&] {
                CCmTimeValue tvLong(100);
                event.Wait(bTimed ? &tvLong : nullptr);
            },
            [] { return true; });
        std::atomic<bool> bDone{false};
        std::thread other([&] {
            EXPECT_EQ(CM_OK, event.Signal());  // kept: nobody waits
            CCmTimeValue tvNone;
            EXPECT_EQ(CM_OK, event.Wait(&tvNone));
            bDone = true;
        });
        EXPECT_TRUE(Eventually([&] { return bDone.load(); }));
        other.join();
    }
}

TEST_P(CmCancelledThread, SendsNextSignalToTheNextConsumer_WhenTerminatedInItsWait) {
    EventLog log;
    CCmEventQueueUsingConditionVariable queue;
    TerminateIn(
        [&] {
            std::list<ICmEvent*> none;
            queue.PopOrWaitPendingEvents(none, nullptr);
        },
        [] { return true; });
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_cond_signal> signals(0, 0);
        queue.PostEvent(new LoggedEvent(log, 0), NORMAL);
        EXPECT_EQ(0u, signals.calls());  // nobody waits any more
        queue.DestoryPendingEvents();
        std::list<ICmEvent*> none;
        queue.PopPendingEvents(none);
    }
    std::atomic<bool> bTook{false};
    std::thread consumer([&] {
        std::list<ICmEvent*> events;
        while (CM_FAILED(queue.PopOrWaitPendingEvents(events, nullptr))) {
        }
        queue.ProcessEvents(events);
        bTook = true;
    });
    queue.PostEvent(new LoggedEvent(log, 1), NORMAL);
    EXPECT_TRUE(Eventually([&] { return bTook.load(); }));
    consumer.join();
    EXPECT_EQ((Ids{0, 1}), log.ended());
}

std::atomic<bool> g_bInSink{false};
std::atomic<bool> g_bSinkMayGo{false};
std::atomic<bool> g_bSinkWentOn{false};
void CancellableSink(unsigned long, const char*, unsigned int) {
    g_bInSink = true;
    Eventually([] { return g_bSinkMayGo.load(); });
    kelto_test::TestCancel();
    g_bSinkWentOn = true;
}

// Has CancellableSink take the lines of one test.
class ScopedCancellableSink {
  public:
    ScopedCancellableSink() : m_pfnPrevious(g_util_trace_sink.load()) {
        g_bInSink = g_bSinkMayGo = g_bSinkWentOn = false;
        set_util_external_trace_sink(&CancellableSink);
    }
    ~ScopedCancellableSink() { set_util_external_trace_sink(m_pfnPrevious); }
    ScopedCancellableSink(const ScopedCancellableSink&) = delete;
    ScopedCancellableSink& operator=(const ScopedCancellableSink&) = delete;

  private:
    const UtilTraceSink m_pfnPrevious;
};

TEST_P(CmCancelledThread, DeliversItsLine_WhenTerminatedInTheSink) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    queue.SetStopped();
    std::atomic<bool> bGo{false};
    WorkThread* pThread = new WorkThread([&] {
        Eventually([&] { return bGo.load(); });
        queue.PostEvent(new LoggedEvent(log, 1), NORMAL);  // refused, with a line
        SpinUntilCancelled();
    });
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    {
        ScopedCancellableSink sink;
        bGo = true;
        EXPECT_TRUE(Eventually([] { return g_bInSink.load(); }));
        EXPECT_EQ(0, pThread->Terminate());
        g_bSinkMayGo = true;
        EXPECT_EQ(CM_OK, pThread->Join());
    }
    EXPECT_TRUE(g_bSinkWentOn);
    EXPECT_EQ(Ids{1}, log.ended());
    pThread->Destory(0);
}

std::atomic<bool> g_bInClock{false};
std::atomic<bool> g_bClockMayGo{false};
int HeldTime(timeval* aNow, void*) {
    g_bInClock = true;
    Eventually([] { return g_bClockMayGo.load(); });
    return gettimeofday(aNow, nullptr);
}

TEST_P(CmCancelledThread, DestroysTheQueue_WhenTerminatedWhileItWaitsForASender) {
    for (int i = 0; i < 3; ++i) {
        EventLog log;
        CCmEventQueueBase* pQueue = nullptr;
        switch (i) {
            case 0:
                pQueue = new CCmEventQueueBase;
                break;
            case 1:
                pQueue = new CCmEventQueueUsingMutex;
                break;
            default:
                pQueue = new CCmEventQueueUsingConditionVariable;
        }
        g_bInClock = g_bClockMayGo = false;
        kelto_test::ScopedEntry<decltype(g_cmClock.coarse_gettimeofday)> entry(
            g_cmClock.coarse_gettimeofday, &HeldTime);
        std::thread sender([&] { pQueue->SendEvent(new LoggedEvent(log, 1)); });
        ASSERT_TRUE(Eventually([] { return g_bInClock.load(); }));
        std::atomic<bool> bDeleted{false};
        WorkThread* pThread = new WorkThread([&] {
            delete pQueue;
            bDeleted = true;
            SpinUntilCancelled();
        });
        ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
        EXPECT_EQ(0, pThread->Terminate());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // into its nap
        g_bClockMayGo = true;
        sender.join();
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_TRUE(bDeleted);
        EXPECT_EQ(Ids{1}, log.ended());
        pThread->Destory(0);
    }
}

// Its end is a cancellation point.
class PointedThread : public WorkThread {
  public:
    explicit PointedThread(std::atomic<bool>& aDeleted) : WorkThread([] {}), m_bDeleted(aDeleted) {}
    ~PointedThread() override {
        kelto_test::TestCancel();
        m_bDeleted = true;
    }

  private:
    std::atomic<bool>& m_bDeleted;
};

// Runs aWork on a thread that is terminated before: it gets to its end.
void ExpectUncancelled(std::function<void()> aWork, ICmTimerQueue* aTimerQueue = nullptr) {
    class CTimedThread : public WorkThread {
      public:
        CTimedThread(std::function<void()> aAllWork, ICmTimerQueue* aQueue)
            : WorkThread(std::move(aAllWork)), m_pQueue(aQueue) {}
        ICmTimerQueue* GetTimerQueue() override { return m_pQueue; }

      private:
        ICmTimerQueue* const m_pQueue;
    };
    std::atomic<bool> bGo{false};
    std::atomic<bool> bDone{false};
    WorkThread* pThread = new CTimedThread(
        [&] {
            while (!bGo) {
            }
            aWork();
            bDone = true;
            SpinUntilCancelled();
        },
        aTimerQueue);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(0, pThread->Terminate());
    bGo = true;
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_TRUE(bDone);
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, DestroysAThread_WhenTerminatedMeanwhile) {
    std::atomic<bool> bDeleted{false};
    PointedThread* pOther = new PointedThread(bDeleted);
    ASSERT_EQ(CM_OK, pOther->Create(TYPE, TF_JOINABLE, 0));
    ASSERT_EQ(CM_OK, pOther->Join());
    ExpectUncancelled([&] { pOther->Destory(0); });
    EXPECT_TRUE(bDeleted);
}

template <class Queue>
void DestroyWithEvents(EventLog& aLog) {
    Queue queue;
    queue.PostEvent(new CancelPointEvent, NORMAL);
    queue.PostEvent(new LoggedEvent(aLog, 1), NORMAL);
}

TEST_P(CmCancelledThread, EndsWhatAQueueHolds_WhenTerminatedWhileItDestroysIt) {
    EventLog log;
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueBase>(log); });
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueUsingMutex>(log); });
    ExpectUncancelled([&] { DestroyWithEvents<CCmEventQueueUsingConditionVariable>(log); });
    EXPECT_EQ((Ids{1, 1, 1}), log.ended());
    ExpectUncancelled([] { delete new CCmEventSynchronous(new CancelPointEvent, nullptr); });
}

// Has cancellation points.
class PointedTimerQueue : public CCmTimerQueueOrderedList {
  public:
    PointedTimerQueue() : CCmTimerQueueOrderedList(nullptr) {}
    CmResult CancelTimer(ICmTimerHandler* aEh) override {
        kelto_test::TestCancel();
        return CCmTimerQueueOrderedList::CancelTimer(aEh);
    }
};

TEST_P(CmCancelledThread, CancelsTheTimer_WhenTerminatedWhileItsWrapperEnds) {
    PointedTimerQueue queue;
    ExpectUncancelled(
        [] {
            CCmTimerWrapperID timer;
            timer.Schedule(nullptr, kelto_test::Ms(1000), 1);
        },
        &queue);
    EXPECT_EQ(CCmTimeValue::s_tvMax, queue.GetEarliestTime());
}

// Spins in its worker.
class SpinningHandler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void*) override {
        m_bBusy = true;
        SpinUntilCancelled();
    }
    std::atomic<bool> m_bBusy{false};
};

TEST_P(CmCancelledThread, KeepsItsTimers_WhenTerminatedInATimersHandler) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    {
        EventLog log;
        SpinningHandler handler;
        ACmThread* pThread = nullptr;
        ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, TYPE));
        pThread->GetEventQueue()->PostEvent(new EndingEvent([&] {
                                                pThread->GetTimerQueue()->ScheduleTimer(
                                                    &handler, nullptr, kelto_test::Ms(1), 2);
                                            }),
                                            NORMAL);
        EXPECT_TRUE(Eventually([&] { return handler.m_bBusy.load(); }));
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
        EXPECT_EQ(0, pThread->Terminate());
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(CM_OK, pThread->GetTimerQueue()->CancelTimer(&handler));  // its second firing
        EXPECT_EQ(1u, pThread->GetEventQueue()->GetPendingEventsCount());
        pThread->Destory(0);
        EXPECT_EQ(Ids{1}, log.ended());
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
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

TEST(CmEventStopT, DoesNothing_WithoutAThread) {
    CCmEventStopT<FakeWorker> event(nullptr);
    EXPECT_EQ(CM_OK, event.OnEventFire());
}

// The heartbeat.

TEST(CmThreadHeartBeat, RunsNothing_WhenNothingIsPending) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    EXPECT_EQ(nullptr, pThread->GetTimerQueue());
    pThread->OnThreadInit();
    EXPECT_NE(nullptr, pThread->GetTimerQueue());
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, KeepsItsTimerQueue_WhenItIsInitialisedAgain) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->OnThreadInit();
    ICmTimerQueue* const pTimerQueue = pThread->GetTimerQueue();
    pThread->OnThreadInit();
    EXPECT_EQ(pTimerQueue, pThread->GetTimerQueue());
    pThread->Destory(0);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadHeartBeat, BeatsWithoutTimers_WhenItsQueueHadNoMemory) {
    EventLog log;
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    {
        kelto_test::ScopedAllocationFault fault(1);
        pThread->OnThreadInit();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(nullptr, pThread->GetTimerQueue());
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), ICmEventQueue::EPRIORITY_NORMAL);
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, FiresTimersThenEvents_WhenItBeats) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->Create(TT_MAIN, TF_JOINABLE, 1);
    pThread->OnThreadInit();
    EventLog log;
    NotingHandler handler(log);
    for (int i = 1; i <= 12; ++i) {
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    pThread->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(), 1);
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ((Ids{-1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), log.fired());
    EXPECT_EQ(12u, log.ended().size());
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, RunsASendInline_WhenItIsFromItsOwnThread) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->Create(TT_MAIN, TF_JOINABLE, 1);
    pThread->OnThreadInit();
    EventLog log;
    EXPECT_EQ(RESULT,
              pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })));
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, BeatsOnce_WhenItRunsOnAThreadOfItsOwn) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->Destory(0);
}

TEST_P(CmCancelledThread, EndsTheRestUnfired_WhenTerminatedInAHandler) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    std::atomic<bool> bBusy{false};
    ICmEventQueue* pQueue = pThread->GetEventQueue();
    pQueue->PostEvent(new LoggedEvent(log, 1), NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 2,
                                      [&] {
                                          bBusy = true;
                                          return SpinUntilCancelled();
                                      }),
                      NORMAL);
    pQueue->PostEvent(new LoggedEvent(log, 3), NORMAL);
    CmResult rv = CM_OK;
    std::thread sender([&] { rv = pQueue->SendEvent(new LoggedEvent(log, 4)); });
    ASSERT_TRUE(Eventually([&] { return pQueue->GetPendingEventsCount() == 4; }));
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 0));
    ASSERT_TRUE(Eventually([&] { return bBusy.load(); }));
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    sender.join();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    EXPECT_EQ((Ids{1, 2}), log.fired());
    EXPECT_EQ((Ids{1, 2, 3, 4}), log.ended());
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, KeepsForTheNextBeat_WhatAnEventPosts) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    pThread->GetEventQueue()->PostEvent(
        new LoggedEvent(
            log, 1,
            [&] { return pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 2), NORMAL); }),
        NORMAL);
    pThread->DoHeartBeat();
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->DoHeartBeat();
    EXPECT_EQ((Ids{1, 2}), log.fired());
    pThread->Destory(0);
}

}  // namespace
}  // namespace UTIL_NS
