// The semaphore, and both implementations that a platform may choose for it.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CmConditionVariable.h"
#include "CmThread.h"
#include "port/CmConditionSemaphore.h"
#include "support/Cancellation.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::Eventually;
using kelto_test::FailingCall;
using kelto_test::Gate;
using kelto_test::MaskAddresses;
using kelto_test::ScopedTraceSink;

void SleepAMoment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

// The one that this platform chose.
struct Chosen {
    typedef CmPlatformSemaphore Type;
    static int Init(Type* aSemaphore, unsigned aCount) {
        return g_cmSystem.sem_init(aSemaphore, 0, aCount);
    }
    static int Destroy(Type* aSemaphore) { return g_cmSystem.sem_destroy(aSemaphore); }
    static int Wait(Type* aSemaphore) { return g_cmSystem.sem_wait(aSemaphore); }
    static int Post(Type* aSemaphore) { return g_cmSystem.sem_post(aSemaphore); }
};

struct Condition {
    typedef CmConditionSemaphore Type;
    static int Init(Type* aSemaphore, unsigned aCount) {
        return CmConditionSemaphoreInit(aSemaphore, aCount);
    }
    static int Destroy(Type* aSemaphore) { return CmConditionSemaphoreDestroy(aSemaphore); }
    static int Wait(Type* aSemaphore) { return CmConditionSemaphoreWait(aSemaphore); }
    static int Post(Type* aSemaphore) { return CmConditionSemaphorePost(aSemaphore); }
};

template <class Implementation>
class CmSemaphoreImplementation : public testing::Test {
  protected:
    void Init(unsigned aCount) { ASSERT_EQ(0, Implementation::Init(&m_Semaphore, aCount)); }
    int Wait() { return Implementation::Wait(&m_Semaphore); }
    int Post() { return Implementation::Post(&m_Semaphore); }
    void Destroy() { EXPECT_EQ(0, Implementation::Destroy(&m_Semaphore)); }

    typename Implementation::Type m_Semaphore;
};

typedef testing::Types<Chosen, Condition> Implementations;
TYPED_TEST_SUITE(CmSemaphoreImplementation, Implementations, );

TYPED_TEST(CmSemaphoreImplementation, WaitTakesTheInitialCount) {
    this->Init(2);
    EXPECT_EQ(0, this->Wait());
    EXPECT_EQ(0, this->Wait());
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, WaitBlocksAtZero_UntilAPost) {
    this->Init(0);
    std::atomic<bool> bPassed{false};
    std::thread waiter([&] {
        EXPECT_EQ(0, this->Wait());
        bPassed = true;
    });
    SleepAMoment();
    EXPECT_FALSE(bPassed);
    EXPECT_EQ(0, this->Post());
    waiter.join();
    EXPECT_TRUE(bPassed);
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, PostWakesOneWaiterEach) {
    this->Init(0);
    std::atomic<int> nPassed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(0, this->Wait());
            ++nPassed;
        });
    }
    EXPECT_EQ(0, this->Post());
    EXPECT_EQ(0, this->Post());
    EXPECT_TRUE(Eventually([&] { return nPassed >= 2; }));
    SleepAMoment();
    EXPECT_EQ(2, nPassed);
    EXPECT_EQ(0, this->Post());
    EXPECT_EQ(0, this->Post());
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, InitRefuses_WhenTheCountIsOutOfRange) {
    errno = 0;
    EXPECT_EQ(-1, TypeParam::Init(&this->m_Semaphore, UINT_MAX));
    EXPECT_EQ(EINVAL, errno);
}

TYPED_TEST(CmSemaphoreImplementation, PostRefuses_WhenTheCountWouldOverflow) {
    this->Init(INT_MAX);
    errno = 0;
    EXPECT_EQ(-1, this->Post());
    EXPECT_EQ(EOVERFLOW, errno);
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, LosesNoPost_WhenThreadsRace) {
    constexpr int ROUNDS = 5000;
    this->Init(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([this] {
            for (int n = 0; n < ROUNDS; ++n) {
                this->Post();
            }
        });
        threads.emplace_back([this] {
            for (int n = 0; n < ROUNDS; ++n) {
                this->Wait();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // As many waits as posts have returned, and nothing is left over.
    Gate passed;
    std::thread waiter([&] {
        this->Wait();
        passed.Open();
    });
    SleepAMoment();
    EXPECT_FALSE(passed.IsOpen());
    EXPECT_EQ(0, this->Post());
    waiter.join();
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, WaitLeavesTheSemaphoreUsable_WhenItsThreadIsCancelled) {
    this->Init(0);
    pthread_t thread;
    auto pfnWait = [](void* aSemaphore) -> void* {
        TypeParam::Wait(static_cast<typename TypeParam::Type*>(aSemaphore));
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, pfnWait, &this->m_Semaphore));
    SleepAMoment();
    ASSERT_EQ(0, pthread_cancel(thread));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    EXPECT_EQ(0, this->Post());
    EXPECT_EQ(0, this->Wait());
    this->Destroy();
}

// The thread of a semaphore's waiter.
class SemaphoreThread : public ACmThread {
  public:
    explicit SemaphoreThread(CmConditionSemaphore& aSemaphore) : m_semaphore(aSemaphore) {}
    void OnThreadRun() override { CmConditionSemaphoreWait(&m_semaphore); }

  private:
    CmConditionSemaphore& m_semaphore;
};

TEST(CmConditionSemaphoreCancelled, LeavesTheSemaphoreUsable_WhenHandlersAloneAreRun) {
    kelto_test::ScopedHandlersOnly handlersOnly;
    CmConditionSemaphore semaphore;
    ASSERT_EQ(0, CmConditionSemaphoreInit(&semaphore, 0));
    SemaphoreThread* pThread = new SemaphoreThread(semaphore);
    ASSERT_EQ(CM_OK, pThread->Create(1, TF_JOINABLE, 0));
    SleepAMoment();
    EXPECT_EQ(0, pThread->Terminate());
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
    ASSERT_EQ(0, pthread_mutex_trylock(&semaphore.m_Mutex));
    pthread_mutex_unlock(&semaphore.m_Mutex);
    EXPECT_EQ(0, CmConditionSemaphorePost(&semaphore));
    EXPECT_EQ(0, CmConditionSemaphoreWait(&semaphore));
    EXPECT_EQ(0, CmConditionSemaphoreDestroy(&semaphore));
}

class CmConditionSemaphoreFailure : public testing::Test {
  protected:
    void ExpectFailed(int aError, int aResult) {
        EXPECT_EQ(-1, aResult);
        EXPECT_EQ(aError, errno);
    }

    CmConditionSemaphore m_Semaphore;
};

TEST_F(CmConditionSemaphoreFailure, InitReportsIt_WhenTheMutexFails) {
    FailingCall<&CCmSystemTable::pthread_mutex_init> fault(0, ENOMEM);
    ExpectFailed(ENOMEM, CmConditionSemaphoreInit(&m_Semaphore, 0));
}

TEST_F(CmConditionSemaphoreFailure, InitReportsItAndEndsTheMutex_WhenTheConditionFails) {
    FailingCall<&CCmSystemTable::pthread_cond_init> fault(0, EAGAIN);
    FailingCall<&CCmSystemTable::pthread_mutex_destroy> counting(0, 0, 100);
    ExpectFailed(EAGAIN, CmConditionSemaphoreInit(&m_Semaphore, 0));
    EXPECT_EQ(1u, counting.calls());
}

TEST_F(CmConditionSemaphoreFailure, CallsReportTheirErrors_WhenTheyFail) {
    ASSERT_EQ(0, CmConditionSemaphoreInit(&m_Semaphore, 0));
    {
        FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(0, EINVAL, 1,
                                                               kelto_test::Failing::FROM_THERE_ON);
        ExpectFailed(EINVAL, CmConditionSemaphoreWait(&m_Semaphore));
        ExpectFailed(EINVAL, CmConditionSemaphorePost(&m_Semaphore));
    }
    {
        FailingCall<&CCmSystemTable::pthread_cond_wait> fault(0, EPERM);
        ExpectFailed(EPERM, CmConditionSemaphoreWait(&m_Semaphore));
    }
    {
        FailingCall<&CCmSystemTable::pthread_cond_signal> fault(0, EINVAL);
        ExpectFailed(EINVAL, CmConditionSemaphorePost(&m_Semaphore));
    }
    {
        FailingCall<&CCmSystemTable::pthread_mutex_destroy> fault(0, EBUSY);
        ExpectFailed(EBUSY, CmConditionSemaphoreDestroy(&m_Semaphore));
    }
    pthread_mutex_destroy(&m_Semaphore.m_Mutex);
}

// ---- The class ----

std::string OnlyLine(const ScopedTraceSink& aSink) {
    const auto lines = aSink.lines();
    if (lines.size() != 1) {
        return std::to_string(lines.size()) + " lines";
    }
    EXPECT_EQ(10u, lines[0].level);
    return MaskAddresses(lines[0].text);
}

TEST(CmSemaphore, LockTakesWhatUnLockGives) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(1, "name", 1);
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.UnLock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmSemaphore, TracesNothing_WhenAllIsWell) {
    ScopedTraceSink sink;
    {
        CCmSemaphore semaphore(1, nullptr, 1);
        EXPECT_EQ(CM_OK, semaphore.Lock());
        EXPECT_EQ(CM_OK, semaphore.UnLock());
    }
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmSemaphore, MaximumIsIgnored) {
    CCmSemaphore semaphore(0, nullptr, 1);
    EXPECT_EQ(CM_OK, semaphore.PostN(3));
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
}

TEST(CmSemaphore, PostNPostsNothing_WhenTheCountIsBelowOne) {
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> counting(0, 0, 100);
    EXPECT_EQ(CM_OK, semaphore.PostN(0));
    EXPECT_EQ(CM_OK, semaphore.PostN(-3));
    EXPECT_EQ(CM_OK, semaphore.PostN(LONG_MIN));
    EXPECT_EQ(0u, counting.calls());
}

TEST(CmSemaphore, PostNStops_WhenAPostFails) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> fault(EOVERFLOW, -1, 3);
    EXPECT_EQ(CM_ERROR_FAILURE, semaphore.PostN(5));
    EXPECT_EQ(3u, fault.calls());
    EXPECT_EQ(
        "UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! "
        "err=" ERRNO_TEXT(EOVERFLOW) " this=0x#",
        OnlyLine(sink));
}

TEST(CmSemaphore, UnLockPostsOnce) {
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> counting(0, 0, 100);
    EXPECT_EQ(CM_OK, semaphore.UnLock());
    EXPECT_EQ(1u, counting.calls());
}

TEST(CmSemaphore, LockTraces_WhenItFails) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(1);
    FailingCall<&CCmSystemTable::sem_wait> fault(EINTR);
    EXPECT_EQ(CM_ERROR_FAILURE, semaphore.Lock());
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=4 this=0x#",
              OnlyLine(sink));
}

TEST(CmSemaphore, ConstructorTraces_WhenItFails) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::sem_init> fault(ENOSYS);
    CCmSemaphore semaphore(1);
    EXPECT_EQ(
        "UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! "
        "err=" ERRNO_TEXT(ENOSYS) " this=0x#",
        OnlyLine(sink));
}

int s_nShared = -1;
unsigned s_nCount = 0;

int NoteInit(CmPlatformSemaphore* /*aSemaphore*/, int aShared, unsigned aCount) {
    s_nShared = aShared;
    s_nCount = aCount;
    errno = ENOSYS;
    return -1;
}

TEST(CmSemaphore, IsOfThisProcessAlone_WhateverItsCount) {
    const ScopedTraceSink sink;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.sem_init)> entry(g_cmSystem.sem_init,
                                                                       &NoteInit);
    for (const long lCount : {0L, 1L, static_cast<long>(INT_MAX)}) {
        s_nShared = -1;
        { const CCmSemaphore semaphore(lCount); }
        EXPECT_EQ(0, s_nShared);
        EXPECT_EQ(static_cast<unsigned>(lCount), s_nCount);
    }
}

TEST(CmSemaphore, ConstructorRefuses_WhenTheCountIsOutOfRange) {
    for (long lCount : {-1L, LONG_MIN, 0x80000000L, 0x100000001L, LONG_MAX}) {
        ScopedTraceSink sink;
        CCmSemaphore semaphore(lCount);
        EXPECT_EQ("UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=22 this=0x#",
                  OnlyLine(sink));
    }
}

TEST(CmSemaphore, DestructorTraces_WhenItFails) {
    ScopedTraceSink sink;
    auto pSemaphore = std::make_unique<CCmSemaphore>(1);
    FailingCall<&CCmSystemTable::sem_destroy> fault(EINVAL);
    pSemaphore.reset();
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=22 this=0x#",
              OnlyLine(sink));
}

}  // namespace
}  // namespace UTIL_NS
