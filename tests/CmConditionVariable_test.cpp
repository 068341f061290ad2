#include "CmConditionVariable.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "CmConditionSteps.h"
#include "CmScopedLock.h"
#include "port/CmPort.h"
#include "support/Faults.h"
#include "support/Threads.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::MaskAddresses;
using kelto_test::OnAnotherThread;
using kelto_test::ScopedEntry;
using kelto_test::ScopedTraceSink;

typedef std::chrono::steady_clock Clock;

constexpr long SHORT_WAIT_USEC = 30000;

long MsSince(Clock::time_point aStart) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - aStart).count();
}

void SleepAMoment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

// The one line that was traced, without addresses.
std::string OnlyLine(const ScopedTraceSink& aSink, unsigned long aLevel) {
    const auto lines = aSink.lines();
    if (lines.size() != 1) {
        return std::to_string(lines.size()) + " lines";
    }
    EXPECT_EQ(aLevel, lines[0].level);
    EXPECT_EQ(lines[0].text.size(), lines[0].length);
    return MaskAddresses(lines[0].text);
}

CmResult WaitShortly(CCmEventThread& aEvent) {
    CCmTimeValue tvTimeout(0, SHORT_WAIT_USEC);
    return aEvent.Wait(&tvTimeout);
}

// Threads that wait on one event; counts those that came through.
class Waiters {
  public:
    Waiters(CCmEventThread& aEvent, int aCount) {
        for (int i = 0; i < aCount; ++i) {
            m_threads.emplace_back([this, &aEvent] {
                ++m_nEntered;
                if (aEvent.Wait(nullptr) == CM_OK) {
                    ++m_nPassed;
                }
            });
        }
        while (m_nEntered != aCount) {
            std::this_thread::yield();
        }
        SleepAMoment();  // until they are inside the wait
    }
    ~Waiters() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    void ExpectPassed(int aCount) {
        for (int i = 0; i < 1000 && m_nPassed < aCount; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        SleepAMoment();
        EXPECT_EQ(aCount, m_nPassed);
    }

  private:
    std::atomic<int> m_nEntered{0};
    std::atomic<int> m_nPassed{0};
    std::vector<std::thread> m_threads;
};

// ---- Mutexes ----

// Unbalanced calls, which the compiler's analysis would refuse.
CmResult Take(CCmMutexThreadBase& aMutex) CM_NO_THREAD_SAFETY_ANALYSIS {
    return aMutex.Lock();
}
CmResult TryTake(CCmMutexThreadBase& aMutex) CM_NO_THREAD_SAFETY_ANALYSIS {
    return aMutex.TryLock();
}
CmResult Free(CCmMutexThreadBase& aMutex) CM_NO_THREAD_SAFETY_ANALYSIS {
    return aMutex.UnLock();
}

TEST(CmMutex, TryLockFailsSilently_WhenBusy) {
    ScopedTraceSink sink;
    CCmMutexThread mutex;
    ASSERT_EQ(CM_OK, Take(mutex));
    OnAnotherThread([&mutex] { EXPECT_EQ(CM_ERROR_FAILURE, TryTake(mutex)); });
    EXPECT_EQ(CM_OK, Free(mutex));
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmMutex, TryLockSucceeds_WhenTheMutexIsFree) {
    CCmMutexThread mutex;
    ASSERT_EQ(CM_OK, TryTake(mutex));
    EXPECT_EQ(CM_OK, Free(mutex));
}

TEST(CmMutex, TryLockIsNotRecursive) {
    CCmMutexThread mutex;
    CCmScopedLockT<CCmMutexThread> lock(mutex);
    EXPECT_EQ(CM_ERROR_FAILURE, TryTake(mutex));
}

void TakeTwice(CCmMutexThreadRecursive& aMutex) {
    ASSERT_EQ(CM_OK, Take(aMutex));
    ASSERT_EQ(CM_OK, Take(aMutex));
    ASSERT_EQ(CM_OK, TryTake(aMutex));
    EXPECT_EQ(CM_OK, Free(aMutex));
    EXPECT_EQ(CM_OK, Free(aMutex));
    OnAnotherThread([&aMutex] { EXPECT_EQ(CM_ERROR_FAILURE, TryTake(aMutex)); });
    EXPECT_EQ(CM_OK, Free(aMutex));
    OnAnotherThread([&aMutex] {
        EXPECT_EQ(CM_OK, TryTake(aMutex));
        EXPECT_EQ(CM_OK, Free(aMutex));
    });
}

TEST(CmMutex, RecursiveOneIsFree_AfterAsManyUnlocks) {
    CCmMutexThreadRecursive mutex;
    TakeTwice(mutex);
}

TEST(CmMutex, RecursiveOneIsRecursive_WhenItsStorageIsStatic) {
    static CCmMutexThreadRecursive s_Mutex{CCmStaticInit()};
    TakeTwice(s_Mutex);
}

TEST(CmMutex, LockIsSilent_WhenItFails) {
    ScopedTraceSink sink;
    CCmMutexThread mutex;
    FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
    CCmScopedLockT<CCmMutexThread> lock(mutex);
    EXPECT_EQ(CM_ERROR_FAILURE, lock.result());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmMutex, TryLockIsSilent_WhenItFails) {
    ScopedTraceSink sink;
    CCmMutexThread mutex;
    FailingCall<&CCmSystemTable::pthread_mutex_trylock> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, TryTake(mutex));
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmMutex, UnLockIsTraced_WhenItFails) {
    ScopedTraceSink sink;
    CCmMutexThread mutex;
    {
        CCmScopedLockT<CCmMutexThread> lock(mutex);
        FailingCall<&CCmSystemTable::pthread_mutex_unlock> fault(EPERM, EPERM);
        EXPECT_EQ(CM_ERROR_FAILURE, Free(mutex));
    }
    EXPECT_EQ(
        "UTIL ERROR: CCmMutexThreadBase::UnLock, pthread_mutex_unlock() failed! err=1 this=0x#",
        OnlyLine(sink, 0));
}

TEST(CmMutex, LinesEndInTheAddressOfTheObject) {
    ScopedTraceSink sink;
    CCmMutexThread mutex;
    FailingCall<&CCmSystemTable::pthread_mutex_unlock> fault(EPERM, EPERM);
    Free(mutex);
    char szAddress[32];
    std::snprintf(szAddress, sizeof(szAddress), " this=0x%lx",
                  reinterpret_cast<unsigned long>(&mutex));
    EXPECT_EQ(1u, sink.count(szAddress));
}

TEST(CmMutex, DestructorTraces_WhenItFails) {
    ScopedTraceSink sink;
    auto pMutex = std::make_unique<CCmMutexThread>();
    FailingCall<&CCmSystemTable::pthread_mutex_destroy> fault(EBUSY, EBUSY);
    pMutex.reset();
    EXPECT_EQ(
        "UTIL ERROR: CCmMutexThreadBase::~CCmMutexThreadBase, pthread_mutex_destroy() failed! "
        "err=16 this=0x#",
        OnlyLine(sink, 0));
}

constexpr char RECURSIVE_FAILED[] =
    "UTIL ERROR: CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() failed! ";

TEST(CmMutex, RecursiveOneTraces_WhenItsInitFails) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::pthread_mutex_init> fault(ENOMEM, ENOMEM);
    CCmMutexThreadRecursive mutex;
    EXPECT_EQ(std::string(RECURSIVE_FAILED) + "err=12 this=0x#", OnlyLine(sink, 0));
}

TEST(CmMutex, RecursiveOneTraces_WhenItsAttributeFails) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::pthread_mutexattr_init> fault(ENOMEM, ENOMEM);
    CCmMutexThreadRecursive mutex;
    EXPECT_EQ(std::string(RECURSIVE_FAILED) + "err=12 this=0x#", OnlyLine(sink, 0));
}

TEST(CmMutex, RecursiveOneTraces_WhenItsTypeIsRefused) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::pthread_mutexattr_settype> fault(EINVAL, EINVAL);
    CCmMutexThreadRecursive mutex;
    EXPECT_EQ(std::string(RECURSIVE_FAILED) + "err=22 this=0x#", OnlyLine(sink, 0));
}

TEST(CmMutex, PlainOneTraces_WhenItsInitFails) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::pthread_mutex_init> fault(ENOMEM, ENOMEM);
    CCmMutexThread mutex;
    EXPECT_EQ(
        "UTIL ERROR: CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! err=12 this=0x#",
        OnlyLine(sink, 0));
}

TEST(CmMutex, PlainOneHasTheDefaultKind_WhenItsTypeIsRefused) {
    ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::pthread_mutexattr_settype> fault(EINVAL, EINVAL);
    CCmMutexThread mutex;
    EXPECT_EQ(CM_OK, TryTake(mutex));
    EXPECT_EQ(CM_OK, Free(mutex));
    EXPECT_EQ(1u, fault.calls());
    EXPECT_EQ(0u, sink.lines().size());
}

int g_nType = 0;

int RememberType(pthread_mutexattr_t* /*aAttribute*/, int aType) {
    g_nType = aType;
    return 0;
}

TEST(CmMutex, AttributeIsEnded_WhateverFails) {
    typedef CCmSystemTable T;
    const ScopedTraceSink sink;
    const FailingCall<&T::pthread_mutexattr_destroy> ends(0, 0, 100);
    { const CCmMutexThreadRecursive mutex; }
    EXPECT_EQ(1u, ends.calls());
    {
        const FailingCall<&T::pthread_mutexattr_settype> fault(EINVAL, EINVAL);
        const CCmMutexThreadRecursive mutex;
    }
    EXPECT_EQ(2u, ends.calls());
    {
        const FailingCall<&T::pthread_mutex_init> fault(ENOMEM, ENOMEM);
        const CCmMutexThreadRecursive mutex;
    }
    EXPECT_EQ(3u, ends.calls());
}

TEST(CmMutex, TracesNothing_WhenAllIsWell) {
    const ScopedTraceSink sink;
    { const CCmMutexThreadRecursive mutex; }
    { const CCmMutexThread mutex; }
    { const CCmSemaphore semaphore(1); }
    EXPECT_TRUE(sink.lines().empty());
}

// The object that a call could not make, of which the call left something else than zeros.
template <class ObjectType>
int LeaveRemains(ObjectType* aObject, int aResult) {
    std::memset(static_cast<void*>(aObject), 0xA5, sizeof(*aObject));
    errno = ENOSYS;
    return aResult;
}

bool s_bIsAllZeros = false;

template <class ObjectType>
int NoteWhetherAllZeros(ObjectType* aObject) {
    const auto* const pBytes = reinterpret_cast<const unsigned char*>(aObject);
    s_bIsAllZeros = std::all_of(pBytes, pBytes + sizeof(*aObject), [](int n) { return n == 0; });
    return 0;
}

TEST(CmNeverMade, ObjectsAreAllZeros_WhateverTheCallLeft) {
    typedef CCmSystemTable T;
    const ScopedTraceSink sink;
    CCmMutexThread usable;
    {
        const ScopedEntry<decltype(T::pthread_mutex_init)> init(
            g_cmSystem.pthread_mutex_init, [](pthread_mutex_t* aMutex, const pthread_mutexattr_t*) {
                return LeaveRemains(aMutex, ENOMEM);
            });
        const ScopedEntry<decltype(T::pthread_mutex_destroy)> destroy(
            g_cmSystem.pthread_mutex_destroy, &NoteWhetherAllZeros<pthread_mutex_t>);
        { const CCmMutexThread mutex; }
        EXPECT_TRUE(std::exchange(s_bIsAllZeros, false));
    }
    {
        const ScopedEntry<decltype(T::pthread_cond_init)> init(
            g_cmSystem.pthread_cond_init,
            [](pthread_cond_t* aCondition, const pthread_condattr_t*) {
                return LeaveRemains(aCondition, ENOMEM);
            });
        const ScopedEntry<decltype(T::pthread_cond_destroy)> destroy(
            g_cmSystem.pthread_cond_destroy, &NoteWhetherAllZeros<pthread_cond_t>);
        { const CCmConditionVariableThread condition(usable); }
        EXPECT_TRUE(std::exchange(s_bIsAllZeros, false));
    }
    {
        const ScopedEntry<decltype(T::sem_init)> init(
            g_cmSystem.sem_init, [](CmPlatformSemaphore* aSemaphore, int, unsigned) {
                return LeaveRemains(aSemaphore, -1);
            });
        const ScopedEntry<decltype(T::sem_destroy)> destroy(
            g_cmSystem.sem_destroy, &NoteWhetherAllZeros<CmPlatformSemaphore>);
        { const CCmSemaphore semaphore(1); }
        EXPECT_TRUE(std::exchange(s_bIsAllZeros, false));
    }
    EXPECT_EQ(3u, sink.lines().size());
}

TEST(CmMutex, ThreeTypesAreRecursive) {
    kelto_test::ScopedEntry<int (*)(pthread_mutexattr_t*, int)> entry(
        g_cmSystem.pthread_mutexattr_settype, RememberType);
    CCmMutexThread plain;
    EXPECT_EQ(3, g_nType);
    CCmMutexThreadRecursive recursive;
    EXPECT_EQ(PTHREAD_MUTEX_RECURSIVE, g_nType);
}

// ---- Condition ----

class CmCondition : public testing::Test {
  protected:
    CmResult WaitFor(CCmTimeValue aTimeout) {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        return m_Condition.Wait(&aTimeout);
    }

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition{m_Mutex};
    ScopedTraceSink m_sink;
};

TEST_F(CmCondition, ConstructorTraces_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_init> fault(EAGAIN, EAGAIN);
    CCmConditionVariableThread condition(m_Mutex);
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::CCmConditionVariableThread, "
        "pthread_cond_init() failed! "
        "err=" ERRNO_TEXT(EAGAIN) " this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, DestructorTraces_WhenItFails) {
    auto pCondition = std::make_unique<CCmConditionVariableThread>(m_Mutex);
    FailingCall<&CCmSystemTable::pthread_cond_destroy> fault(EBUSY, EBUSY);
    pCondition.reset();
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::~CCmConditionVariableThread, "
        "pthread_cond_destroy() failed! err=16 this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, TracesNothing_WhenAllIsWell) {
    {
        CCmConditionVariableThread condition(m_Mutex);
        EXPECT_EQ(CM_OK, condition.Signal());
        EXPECT_EQ(CM_OK, condition.Broadcast());
    }
    EXPECT_EQ(0u, m_sink.lines().size());
}

TEST_F(CmCondition, SignalTraces_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_signal> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, m_Condition.Signal());
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Signal, pthread_cond_signal() failed! err=22 "
        "this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, BroadcastTracesAsSignal_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_broadcast> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, m_Condition.Broadcast());
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Signal, pthread_cond_broadcast() failed! "
        "err=22 this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, WaitTraces_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    EXPECT_EQ(CM_ERROR_FAILURE, m_Condition.Wait(nullptr));
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_wait() failed! err=22 "
        "this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, TimedWaitTraces_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_timedwait> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, WaitFor(CCmTimeValue(1)));
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_timedwait() failed! err=22 "
        "this=0x#",
        OnlyLine(m_sink, 10));
}

TEST_F(CmCondition, WaitCountsAsWoken_WhenItIsInterrupted) {
    FailingCall<&CCmSystemTable::pthread_cond_timedwait> fault(EINTR, EINTR);
    EXPECT_EQ(CM_OK, WaitFor(CCmTimeValue(1)));
    EXPECT_EQ(0u, m_sink.lines().size());
}

TEST_F(CmCondition, WaitTimesOutNotBeforeItsTime) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitFor(CCmTimeValue(0, 50000)));
    EXPECT_GE(MsSince(start), 49);
    EXPECT_EQ(0u, m_sink.lines().size());
}

TEST_F(CmCondition, WaitEndsAtOnce_WhenTheTimeoutIsZeroOrLess) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitFor(CCmTimeValue::s_tvZero));
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitFor(CCmTimeValue(-1, -500000)));
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitFor(CCmTimeValue(-5000000000, -1)));  // before 1970
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitFor(CCmTimeValue(LONG_MIN, 0)));
    EXPECT_LT(MsSince(start), 5000);
    EXPECT_EQ(0u, m_sink.lines().size());
}

TEST_F(CmCondition, WaitHasNoLimit_WhenTheTimeoutIsHuge) {
    const CCmTimeValue atvHuge[] = {
        CCmTimeValue::s_tvMax,
        CCmTimeValue::s_tvMax - CCmTimeValue(1700000000),
        CCmTimeValue(10000000000),
        CCmTimeValue(1000000000000000),
    };
    for (const CCmTimeValue& tvTimeout : atvHuge) {
        std::atomic<bool> bWoken{false};
        CmResult rv = CM_ERROR_UNEXPECTED;
        std::thread waiter([&] {
            CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
            CCmTimeValue tvCopy = tvTimeout;
            rv = m_Condition.Wait(&tvCopy);
            bWoken = true;
        });
        SleepAMoment();
        EXPECT_FALSE(bWoken);
        while (!bWoken) {
            CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
            m_Condition.Broadcast();
        }
        waiter.join();
        EXPECT_EQ(CM_OK, rv);
    }
    EXPECT_EQ(0u, m_sink.lines().size());
}

timespec g_tsDeadline;

int RememberDeadline(pthread_cond_t*, pthread_mutex_t*, const timespec* aDeadline) {
    g_tsDeadline = *aDeadline;
    return 0;
}

int TimeOfDay(timeval* aTv, void* /*aZone*/) {
    *aTv = timeval{1000000000, 700000};
    return 0;
}

TEST_F(CmCondition, WaitDeadlineIsWallClockPlusTimeout) {
    kelto_test::ScopedEntry<int (*)(timeval*, void*)> clock(g_cmSystem.gettimeofday, TimeOfDay);
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)> wait(
        g_cmSystem.pthread_cond_timedwait, RememberDeadline);
    EXPECT_EQ(CM_OK, WaitFor(CCmTimeValue(2, 600000)));
    EXPECT_EQ(1000000003, g_tsDeadline.tv_sec);
    EXPECT_EQ(300000000, g_tsDeadline.tv_nsec);
}

TEST_F(CmCondition, WaitDeadlineIsAlwaysAValidRecord) {
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)> wait(
        g_cmSystem.pthread_cond_timedwait, RememberDeadline);
    for (const CCmTimeValue& tvTimeout :
         {CCmTimeValue(-9000000000, -1), CCmTimeValue(LONG_MIN, -999999), CCmTimeValue::s_tvMax}) {
        EXPECT_EQ(CM_OK, WaitFor(tvTimeout));
        EXPECT_GE(g_tsDeadline.tv_sec, 0);
        EXPECT_LE(g_tsDeadline.tv_sec, 9223372036);  // as nanoseconds they fit in 64 bits
        EXPECT_GE(g_tsDeadline.tv_nsec, 0);
        EXPECT_LT(g_tsDeadline.tv_nsec, 1000000000);
    }
}

int g_nSignalFailures = 0;
int g_nSignalCalls = 0;

int FailToSignal(pthread_cond_t* /*aCondition*/) {
    ++g_nSignalCalls;
    return g_nSignalFailures-- > 0 ? EAGAIN : 0;
}

TEST_F(CmCondition, SureSignalIsTriedThreeTimes) {
    const struct {
        int failures;
        bool given;
        int calls;
        int error;
    } rows[] = {{0, true, 1, 0}, {1, true, 2, EAGAIN}, {2, true, 3, EAGAIN}, {3, false, 3, EAGAIN}};
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*)> signal(g_cmSystem.pthread_cond_signal,
                                                             FailToSignal);
    for (const auto& row : rows) {
        g_nSignalFailures = row.failures;
        g_nSignalCalls = 0;
        int nError = -1;
        EXPECT_EQ(row.given, CCmConditionSteps::SignalSurely(m_Condition, nError)) << row.failures;
        EXPECT_EQ(row.calls, g_nSignalCalls) << row.failures;
        EXPECT_EQ(row.error, nError) << row.failures;
    }
}

constexpr long long NSEC_PER_SEC = 1000000000;

TEST_F(CmCondition, WaitUntilHandsTheMomentOver) {
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)> wait(
        g_cmSystem.pthread_cond_clockwait, RememberDeadline);
    EXPECT_EQ(CM_OK, CCmConditionSteps::WaitUntil(m_Condition, 3 * NSEC_PER_SEC + 400000001));
    EXPECT_EQ(3, g_tsDeadline.tv_sec);
    EXPECT_EQ(400000001, g_tsDeadline.tv_nsec);
}

TEST_F(CmCondition, WaitUntilTimesOut_WhenTheTimeIsOver) {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    EXPECT_EQ(CM_ERROR_TIMEOUT, CCmConditionSteps::WaitUntil(m_Condition, 1));
    EXPECT_EQ(0u, m_sink.lines().size());
}

// Interruptions may come again and again; a wait that counted each as a wake-up would never end.
TEST_F(CmCondition, WaitUntilLooksAtTheClock_WhenItIsInterrupted) {
    timespec tsNow = {};
    CmPortMonotonicNow(&tsNow);
    const long long llNow = tsNow.tv_sec * NSEC_PER_SEC + tsNow.tv_nsec;
    FailingCall<&CCmSystemTable::pthread_cond_clockwait> fault(EINTR, EINTR, 1,
                                                               kelto_test::Failing::FROM_THERE_ON);
    EXPECT_EQ(CM_ERROR_TIMEOUT, CCmConditionSteps::WaitUntil(m_Condition, llNow));
    EXPECT_EQ(CM_OK, CCmConditionSteps::WaitUntil(m_Condition, llNow + 3600 * NSEC_PER_SEC));
    EXPECT_EQ(0u, m_sink.lines().size());
}

TEST_F(CmCondition, WaitUntilTraces_WhenItFails) {
    FailingCall<&CCmSystemTable::pthread_cond_clockwait> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, CCmConditionSteps::WaitUntil(m_Condition, 1));
    EXPECT_EQ(
        "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_clockwait() failed! err=22 "
        "this=0x#",
        OnlyLine(m_sink, 10));
}

// ---- Event ----

constexpr signed char MANUAL = 1;
constexpr signed char AUTO = 0;

TEST(CmEvent, ManualOneLetsEveryWaitThrough_UntilPulse) {
    CCmEventThread event(MANUAL, 0, "name");
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    EXPECT_EQ(CM_OK, WaitShortly(event));
    EXPECT_EQ(CM_OK, event.Pulse());
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, ManualOneWakesEveryWaiter_WhenSignalled) {
    CCmEventThread event(MANUAL, 0, nullptr);
    Waiters waiters(event, 3);
    EXPECT_EQ(CM_OK, event.Signal());
    waiters.ExpectPassed(3);
}

TEST(CmEvent, ManualOneWakesEveryWaiterAndStaysUnsignalled_WhenPulsed) {
    CCmEventThread event(MANUAL, 0, nullptr);
    Waiters waiters(event, 3);
    EXPECT_EQ(CM_OK, event.Pulse());
    waiters.ExpectPassed(3);
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, AutoOneLetsOneLaterWaitThrough_WhenSignalled) {
    CCmEventThread event(AUTO, 0, nullptr);
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, AutoOneCountsNoSignals) {
    CCmEventThread event(AUTO, 0, nullptr);
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, WaitShortly(event));
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, AutoOneWakesOneOfTwoWaiters_WhenSignalled) {
    CCmEventThread event(AUTO, 0, nullptr);
    Waiters waiters(event, 2);
    EXPECT_EQ(CM_OK, event.Signal());
    waiters.ExpectPassed(1);
    EXPECT_EQ(CM_OK, event.Signal());
    waiters.ExpectPassed(2);
    // The signals went to waiters and left nothing behind.
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, AutoOneIsClearAndWakesNobodyLater_WhenPulsed) {
    CCmEventThread event(AUTO, 1, nullptr);
    EXPECT_EQ(CM_OK, event.Pulse());
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, AutoOneWakesOneWaiter_WhenPulsed) {
    CCmEventThread event(AUTO, 0, nullptr);
    Waiters waiters(event, 2);
    EXPECT_EQ(CM_OK, event.Pulse());
    waiters.ExpectPassed(1);
    EXPECT_EQ(CM_OK, event.Pulse());
    waiters.ExpectPassed(2);
}

TEST(CmEvent, ConstructorTakesTheInitialState) {
    CCmEventThread automatic(AUTO, 1, nullptr);
    EXPECT_EQ(CM_OK, WaitShortly(automatic));
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(automatic));
    CCmEventThread manual(MANUAL, 1, nullptr);
    EXPECT_EQ(CM_OK, WaitShortly(manual));
    EXPECT_EQ(CM_OK, WaitShortly(manual));
}

TEST(CmEvent, ResetFailsAndChangesNothing) {
    CCmEventThread signalled(MANUAL, 1, nullptr);
    EXPECT_EQ(CM_ERROR_FAILURE, signalled.Reset());
    EXPECT_EQ(CM_OK, WaitShortly(signalled));
    CCmEventThread unsignalled(AUTO, 0, nullptr);
    EXPECT_EQ(CM_ERROR_FAILURE, unsignalled.Reset());
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(unsignalled));
    CCmEventThread latched(AUTO, 1, nullptr);
    EXPECT_EQ(CM_ERROR_FAILURE, latched.Reset());
    EXPECT_EQ(CM_OK, WaitShortly(latched));
    CCmEventThread closed(MANUAL, 0, nullptr);
    EXPECT_EQ(CM_ERROR_FAILURE, closed.Reset());
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(closed));
}

TEST(CmEvent, WaitEndsAtOnce_WhenTheTimeoutIsZero) {
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 0, nullptr);
    CCmTimeValue tvZero;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvZero));
    EXPECT_LT(MsSince(start), 2000);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmEvent, WaiterIsNotCounted_AfterItsTimeout) {
    CCmEventThread event(AUTO, 0, nullptr);
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, WaitShortly(event));
}

TEST(CmEvent, WaitLeavesTheStateAlone_WhenWoken) {
    // A broadcast reaches the waiter of a manual event; the event stays open for others.
    CCmEventThread event(MANUAL, 0, nullptr);
    Waiters waiters(event, 1);
    EXPECT_EQ(CM_OK, event.Signal());
    waiters.ExpectPassed(1);
    EXPECT_EQ(CM_OK, WaitShortly(event));
}

TEST(CmEvent, WaitReturnsTheFailure_WhenTheConditionFails) {
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 0, nullptr);
    FailingCall<&CCmSystemTable::pthread_cond_wait> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, event.Wait(nullptr));
    EXPECT_EQ(1u, sink.count("CCmConditionVariableThread::Wait, pthread_cond_wait() failed!"));
}

TEST(CmEvent, SignalReturnsTheFailure_WhenTheConditionFails) {
    ScopedTraceSink sink;
    CCmEventThread event(MANUAL, 0, nullptr);
    FailingCall<&CCmSystemTable::pthread_cond_broadcast> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_ERROR_FAILURE, event.Signal());
    EXPECT_EQ(CM_OK, WaitShortly(event));  // the state was set before
}

void ExpectLockAssertion(const ScopedTraceSink& aSink) {
    ASSERT_EQ(1u, aSink.lines().size());
    const std::string sLine = aSink.lines()[0].text;
    EXPECT_EQ(0u, aSink.lines()[0].level);
    const std::string sStart = "UTIL ERROR: source/util/CmConditionVariable.cpp:";
    const std::string sEnd = " Assert failed: CM_SUCCEEDED(rv)";
    EXPECT_EQ(sStart, sLine.substr(0, sStart.size()));
    EXPECT_EQ(sEnd, sLine.substr(sLine.size() - sEnd.size()));
}

TEST(CmEvent, WaitFails_WithoutItsMutex) {
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 1, nullptr);
    {
        FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_ERROR_FAILURE, event.Wait(nullptr));
    }
    ExpectLockAssertion(sink);
    EXPECT_EQ(CM_OK, WaitShortly(event));  // the signal is still there
}

TEST(CmEvent, SignalFails_WithoutItsMutex) {
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 0, nullptr);
    {
        FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_ERROR_FAILURE, event.Signal());
    }
    ExpectLockAssertion(sink);
    EXPECT_EQ(CM_ERROR_TIMEOUT, WaitShortly(event));
}

TEST(CmEvent, PulseFails_WithoutItsMutex) {
    ScopedTraceSink sink;
    CCmEventThread event(MANUAL, 1, nullptr);
    {
        FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
        EXPECT_EQ(CM_ERROR_FAILURE, event.Pulse());
    }
    ExpectLockAssertion(sink);
    EXPECT_EQ(CM_OK, WaitShortly(event));
}

void* WaitOnEvent(void* aEvent) {
    static_cast<CCmEventThread*>(aEvent)->Wait(nullptr);
    return nullptr;
}

TEST(CmEvent, WaiterIsNotCounted_AfterItsThreadWasCancelled) {
    CCmEventThread event(AUTO, 0, nullptr);
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, WaitOnEvent, &event));
    SleepAMoment();
    ASSERT_EQ(0, pthread_cancel(thread));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    // The mutex is free, and the signal is kept for the next wait as nobody waits.
    EXPECT_EQ(CM_OK, event.Signal());
    EXPECT_EQ(CM_OK, WaitShortly(event));
}

TEST(CmEvent, HandsEverySignalOver_WhenThreadsRace) {
    constexpr int ROUNDS = 2000;
    CCmEventThread ping(AUTO, 0, nullptr);
    CCmEventThread pong(AUTO, 0, nullptr);
    std::atomic<int> nTurn{0};
    std::thread other([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            while (nTurn != 2 * i + 1) {
                WaitShortly(ping);
            }
            nTurn = 2 * i + 2;
            pong.Signal();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        nTurn = 2 * i + 1;
        ping.Signal();
        while (nTurn != 2 * i + 2) {
            WaitShortly(pong);
        }
    }
    other.join();
    EXPECT_EQ(2 * ROUNDS, nTurn);
}

// The lines that come while a mutex is held are counted; the test's own thread only.
int g_nHeld = 0;
int g_nLines = 0;
int g_nLinesUnderLock = 0;
int LockAndCount(pthread_mutex_t* aMutex) {
    ++g_nHeld;
    return pthread_mutex_lock(aMutex);
}
int UnlockAndCount(pthread_mutex_t* aMutex) {
    --g_nHeld;
    return pthread_mutex_unlock(aMutex);
}
void CountingSink(unsigned long, const char*, unsigned int) {
    ++g_nLines;
    g_nLinesUnderLock += g_nHeld != 0 ? 1 : 0;
}

CCmEventThread* g_pWaitedFor = nullptr;
CmResult g_resultOfSignal = CM_ERROR_UNEXPECTED;

// A wait in which the signal comes.
int SignalWhileWaiting(pthread_cond_t* /*aCondition*/, pthread_mutex_t* aMutex) {
    pthread_mutex_unlock(aMutex);
    g_resultOfSignal = CCmConditionSteps::SignalAfterUnlock(*g_pWaitedFor);
    pthread_mutex_lock(aMutex);
    return 0;
}

TEST(CmEvent, SignalAfterTheUnlockTellsWhetherItWasGiven) {
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*, pthread_mutex_t*)> wait(
        g_cmSystem.pthread_cond_wait, SignalWhileWaiting);
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 0);
    g_pWaitedFor = &event;
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    EXPECT_EQ(CM_OK, g_resultOfSignal);
    FailingCall<&CCmSystemTable::pthread_cond_signal> signal(EINVAL, EINVAL, 1,
                                                             kelto_test::Failing::FROM_THERE_ON);
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    EXPECT_EQ(CM_ERROR_FAILURE, g_resultOfSignal);
    EXPECT_EQ(3u, signal.calls());
}

TEST(CmEvent, SignalAfterTheUnlockLocksThreeTimesAtMost) {
    ScopedTraceSink sink;
    CCmEventThread event(AUTO, 0);
    {
        FailingCall<&CCmSystemTable::pthread_mutex_lock> lock(EINVAL, EINVAL, 1,
                                                              kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(CM_ERROR_FAILURE, CCmConditionSteps::SignalAfterUnlock(event));
        EXPECT_EQ(3u, lock.calls());
    }
    EXPECT_EQ(CM_OK, CCmConditionSteps::SignalAfterUnlock(event));
    EXPECT_EQ(CM_OK, WaitShortly(event));
}

TEST(CmEvent, FailuresAreTraced_AfterTheUnlock) {
    CCmEventThread manual(MANUAL, 0, nullptr);
    CCmEventThread automatic(AUTO, 0, nullptr);
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> lock(g_cmSystem.pthread_mutex_lock,
                                                            &LockAndCount);
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> unlock(g_cmSystem.pthread_mutex_unlock,
                                                              &UnlockAndCount);
    constexpr auto ALWAYS = kelto_test::Failing::FROM_THERE_ON;
    FailingCall<&CCmSystemTable::pthread_cond_wait> wait(EINVAL, EINVAL, 1, ALWAYS);
    FailingCall<&CCmSystemTable::pthread_cond_timedwait> timedWait(EINVAL, EINVAL, 1, ALWAYS);
    FailingCall<&CCmSystemTable::pthread_cond_signal> signal(EINVAL, EINVAL, 1, ALWAYS);
    FailingCall<&CCmSystemTable::pthread_cond_broadcast> broadcast(EINVAL, EINVAL, 1, ALWAYS);
    const UtilTraceSink pfnPrevious = g_util_trace_sink.load();
    set_util_external_trace_sink(&CountingSink);
    g_nHeld = g_nLines = g_nLinesUnderLock = 0;
    EXPECT_EQ(CM_ERROR_FAILURE, automatic.Wait(nullptr));
    EXPECT_EQ(CM_ERROR_FAILURE, WaitShortly(automatic));
    EXPECT_EQ(CM_ERROR_FAILURE, automatic.Pulse());
    EXPECT_EQ(CM_ERROR_FAILURE, manual.Signal());
    EXPECT_EQ(CM_ERROR_FAILURE, manual.Pulse());
    set_util_external_trace_sink(pfnPrevious);
    EXPECT_EQ(5, g_nLines);
    EXPECT_EQ(0, g_nLinesUnderLock);
    EXPECT_EQ(0, g_nHeld);
}

int SignalInstead(pthread_cond_t*) {
    return EINVAL;
}
CCmEventThread* g_pEventToSignal = nullptr;
// Another thread's signal, while this one waits.
int SignalledWait(pthread_cond_t*, pthread_mutex_t* aMutex) {
    UnlockAndCount(aMutex);
    EXPECT_EQ(CM_ERROR_FAILURE, g_pEventToSignal->Signal());
    return LockAndCount(aMutex);
}

TEST(CmEvent, PulseTracesTheCallThatItMade_WhenThatFails) {
    typedef CCmSystemTable T;
    const FailingCall<&T::pthread_cond_broadcast> broadcast(EINVAL, EINVAL);
    const FailingCall<&T::pthread_cond_signal> signal(EINVAL, EINVAL);
    for (const bool bManualReset : {true, false}) {
        const ScopedTraceSink sink;
        CCmEventThread event(bManualReset ? 1 : 0, 0);
        EXPECT_EQ(CM_ERROR_FAILURE, event.Pulse());
        EXPECT_EQ(1u, sink.lines().size());
        EXPECT_EQ(1u, sink.count(bManualReset ? "pthread_cond_broadcast() failed!"
                                              : "pthread_cond_signal() failed!"));
    }
}

TEST(CmEvent, SignalTracesAfterTheUnlock_WhenItFailsAndSomebodyWaits) {
    CCmEventThread event(AUTO, 0, nullptr);
    g_pEventToSignal = &event;
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> lock(g_cmSystem.pthread_mutex_lock,
                                                            &LockAndCount);
    kelto_test::ScopedEntry<int (*)(pthread_mutex_t*)> unlock(g_cmSystem.pthread_mutex_unlock,
                                                              &UnlockAndCount);
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*)> signal(g_cmSystem.pthread_cond_signal,
                                                             &SignalInstead);
    kelto_test::ScopedEntry<int (*)(pthread_cond_t*, pthread_mutex_t*)> wait(
        g_cmSystem.pthread_cond_wait, &SignalledWait);
    const UtilTraceSink pfnPrevious = g_util_trace_sink.load();
    set_util_external_trace_sink(&CountingSink);
    g_nHeld = g_nLines = g_nLinesUnderLock = 0;
    EXPECT_EQ(CM_OK, event.Wait(nullptr));
    set_util_external_trace_sink(pfnPrevious);
    EXPECT_EQ(1, g_nLines);
    EXPECT_EQ(0, g_nLinesUnderLock);
}

// ---- Counter ----

TEST(CmAtomicOperation, OperatorsReturnTheNewValue) {
    CCmAtomicOperationT<CCmMutexThread> counter;
    EXPECT_EQ(0, counter.value());
    EXPECT_EQ(1, ++counter);
    EXPECT_EQ(2, ++counter);
    EXPECT_EQ(1, --counter);
    EXPECT_EQ(0, --counter);
    EXPECT_EQ(-1, --counter);
    static_assert(std::is_same_v<long, decltype(++counter)>);
}

TEST(CmAtomicOperation, CountersNameOneMutexByDefault) {
    CCmAtomicOperationT<CCmMutexThread> first;
    CCmAtomicOperationT<CCmMutexThread> second(5);
    EXPECT_EQ(&s_ReferenceControlMutexThread, &first.mutex());
    EXPECT_EQ(&s_ReferenceControlMutexThread, &second.mutex());
    EXPECT_EQ(5, second.value());
    CCmMutexThread mutex;
    CCmAtomicOperationT<CCmMutexThread> third(0, mutex);
    EXPECT_EQ(&mutex, &third.mutex());
}

TEST(CmAtomicOperation, CountingComesAfterWhatOthersDidBeforeTheyCounted) {
    for (int i = 0; i < 20; ++i) {
        CCmAtomicOperationT<CCmMutexThread> counter;
        int nParts[2] = {};
        int nSum = 0;
        const auto count = [&](int aPart) {
            nParts[aPart] = aPart + 1;
            if (++counter == 2) {
                nSum = nParts[0] + nParts[1];
            }
        };
        std::thread other(count, 1);
        count(0);
        other.join();
        EXPECT_EQ(3, nSum);
    }
}

TEST(CmAtomicOperation, CountIsExact_WhenEightThreadsCount) {
    constexpr int ROUNDS = 20000;
    CCmAtomicOperationT<CCmMutexThread> counter;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&counter] {
            for (int n = 0; n < ROUNDS; ++n) {
                ++counter;
                ++counter;
                --counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8 * ROUNDS, counter.value());
}

// ---- Threads ----

TEST(CmThreadIdentity, TellsThreadsApart) {
    const pthread_t self = GetThreadSelfId();
    EXPECT_TRUE(IsThreadEqual(self, pthread_self()));
    EXPECT_TRUE(IsEqualCurrentThread(self));
    OnAnotherThread([self] {
        EXPECT_FALSE(IsEqualCurrentThread(self));
        EXPECT_FALSE(IsThreadEqual(self, GetThreadSelfId()));
    });
}

}  // namespace
}  // namespace UTIL_NS
