// The semaphore, and both implementations that a platform may choose for it.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CmConditionVariable.h"
#include "CmThread.h"
#include "port/CmConditionSemaphore.h"
#include "support/Cancellation.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::MaskAddresses;
using kelto_test::ScopedTraceSink;

void SleepAMoment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

struct Posix {
    typedef sem_t Type;
    static int Init(sem_t* aSemaphore, unsigned aCount) { return sem_init(aSemaphore, 0, aCount); }
    static int Destroy(sem_t* aSemaphore) { return sem_destroy(aSemaphore); }
    static int Wait(sem_t* aSemaphore) { return sem_wait(aSemaphore); }
    static int Post(sem_t* aSemaphore) { return sem_post(aSemaphore); }
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

typedef testing::Types<Posix, Condition> Implementations;
TYPED_TEST_SUITE(CmSemaphoreImplementation, Implementations, );

TYPED_TEST(CmSemaphoreImplementation, Wait_TakesTheInitialCount) {
    this->Init(2);
    EXPECT_EQ(0, this->Wait());
    EXPECT_EQ(0, this->Wait());
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, Wait_BlocksAtZeroUntilAPost) {
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

TYPED_TEST(CmSemaphoreImplementation, Post_WakesOneWaiterEach) {
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
    while (nPassed < 2) {
        std::this_thread::yield();
    }
    SleepAMoment();
    EXPECT_EQ(2, nPassed);
    EXPECT_EQ(0, this->Post());
    EXPECT_EQ(0, this->Post());
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, Init_RefusesACountOutOfRange) {
    errno = 0;
    EXPECT_EQ(-1, TypeParam::Init(&this->m_Semaphore, UINT_MAX));
    EXPECT_EQ(EINVAL, errno);
}

TYPED_TEST(CmSemaphoreImplementation, Post_RefusesToOverflow) {
    this->Init(INT_MAX);
    errno = 0;
    EXPECT_EQ(-1, this->Post());
    EXPECT_EQ(EOVERFLOW, errno);
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, Stress_LosesNoPost) {
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
    this->Destroy();
}

TYPED_TEST(CmSemaphoreImplementation, Wait_CancelledLeavesTheSemaphoreUsable) {
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

TEST_F(CmConditionSemaphoreFailure, Init_ReportsTheMutex) {
    FailingCall<&CCmSystemTable::pthread_mutex_init> fault(0, ENOMEM);
    ExpectFailed(ENOMEM, CmConditionSemaphoreInit(&m_Semaphore, 0));
}

TEST_F(CmConditionSemaphoreFailure, Init_ReportsTheConditionAndEndsTheMutex) {
    FailingCall<&CCmSystemTable::pthread_cond_init> fault(0, EAGAIN);
    FailingCall<&CCmSystemTable::pthread_mutex_destroy> counting(0, 0, 100);
    ExpectFailed(EAGAIN, CmConditionSemaphoreInit(&m_Semaphore, 0));
    EXPECT_EQ(1u, counting.calls());
}

TEST_F(CmConditionSemaphoreFailure, Calls_ReportTheirErrors) {
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

TEST(CmSemaphore, Lock_TakesWhatUnLockGives) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(1, "name", 1);
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.UnLock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmSemaphore, Maximum_IsIgnored) {
    CCmSemaphore semaphore(0, nullptr, 1);
    EXPECT_EQ(CM_OK, semaphore.PostN(3));
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
    EXPECT_EQ(CM_OK, semaphore.Lock());
}

TEST(CmSemaphore, PostN_BelowOnePostsNothing) {
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> counting(0, 0, 100);
    EXPECT_EQ(CM_OK, semaphore.PostN(0));
    EXPECT_EQ(CM_OK, semaphore.PostN(-3));
    EXPECT_EQ(CM_OK, semaphore.PostN(LONG_MIN));
    EXPECT_EQ(0u, counting.calls());
}

TEST(CmSemaphore, PostN_StopsAtTheFirstFailure) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> fault(EOVERFLOW, -1, 3);
    EXPECT_EQ(CM_ERROR_FAILURE, semaphore.PostN(5));
    EXPECT_EQ(3u, fault.calls());
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! err=75 this=0x#",
              OnlyLine(sink));
}

TEST(CmSemaphore, UnLock_PostsOnce) {
    CCmSemaphore semaphore(0);
    FailingCall<&CCmSystemTable::sem_post> counting(0, 0, 100);
    EXPECT_EQ(CM_OK, semaphore.UnLock());
    EXPECT_EQ(1u, counting.calls());
}

TEST(CmSemaphore, Lock_FailureIsTraced) {
    ScopedTraceSink sink;
    CCmSemaphore semaphore(1);
    FailingCall<&CCmSystemTable::sem_wait> fault(EINTR);
    EXPECT_EQ(CM_ERROR_FAILURE, semaphore.Lock());
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=4 this=0x#",
              OnlyLine(sink));
}

TEST(CmSemaphore, Constructor_FailureIsTraced) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::sem_init> fault(ENOSYS);
    CCmSemaphore semaphore(1);
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=38 this=0x#",
              OnlyLine(sink));
}

TEST(CmSemaphore, Constructor_RefusesACountOutOfRange) {
    for (long lCount : {-1L, LONG_MIN, 0x80000000L, 0x100000001L, LONG_MAX}) {
        ScopedTraceSink sink;
        CCmSemaphore semaphore(lCount);
        EXPECT_EQ("UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=22 this=0x#",
                  OnlyLine(sink));
    }
}

TEST(CmSemaphore, Destructor_FailureIsTraced) {
    ScopedTraceSink sink;
    auto pSemaphore = std::make_unique<CCmSemaphore>(1);
    FailingCall<&CCmSystemTable::sem_destroy> fault(EINVAL);
    pSemaphore.reset();
    EXPECT_EQ("UTIL WARNING: CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=22 this=0x#",
              OnlyLine(sink));
}

}  // namespace
}  // namespace UTIL_NS
