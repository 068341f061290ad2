// Every row of the tables is one system call that fails with one error, is interrupted, or
// transfers less than it was asked for; support/FaultRows.h says how it is run. tests/calls sees
// that no call is left out.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "CmAddress.h"
#include "CmClock.h"
#include "CmConditionVariable.h"
#include "CmConfig.h"
#include "CmConfigReader.h"
#include "CmEvent.h"
#include "CmLogStream.h"
#include "CmResolver.h"
#include "CmStrict.h"
#include "CmT120Trace.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "CmTimeValue.h"
#include "CmUtilClasses.h"
#include "CmUtilMisc.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/Eventually.h"
#include "support/FaultRows.h"
#include "support/Home.h"
#include "support/Threads.h"
#include "support/TraceLibrary.h"

namespace UTIL_NS {
namespace {

using kelto_test::CheckFaultRows;
using kelto_test::Effect;
using kelto_test::Failing;
using kelto_test::Fault;
using kelto_test::FaultPlan;
using kelto_test::NO_LINE;
using kelto_test::Returned;
using kelto_test::ScopedEntry;
using kelto_test::Short;

// ---- Operations

long LockAndUnlock() CM_NO_THREAD_SAFETY_ANALYSIS {
    static CCmMutexThread s_mutex;
    const CmResult rv = s_mutex.Lock();
    if (CM_SUCCEEDED(rv)) {
        s_mutex.UnLock();
    }
    return rv;
}

long TryLockAndUnlock() CM_NO_THREAD_SAFETY_ANALYSIS {
    static CCmMutexThread s_mutex;
    const CmResult rv = s_mutex.TryLock();
    if (CM_SUCCEEDED(rv)) {
        s_mutex.UnLock();
    }
    return rv;
}

// A recursive one, which its thread may lock again where unlocking failed.
long Unlock() CM_NO_THREAD_SAFETY_ANALYSIS {
    static CCmMutexThreadRecursive& s_mutex = *new CCmMutexThreadRecursive;
    s_mutex.Lock();
    return s_mutex.UnLock();
}

template <class Thing>
long MakeThing() {
    Thing thing;
    return 0;
}

CCmMutexThread g_conditionMutex;

long MakeCondition() {
    CCmConditionVariableThread condition(g_conditionMutex);
    return 0;
}

long Signal() {
    return CCmConditionVariableThread(g_conditionMutex).Signal();
}

long Broadcast() {
    return CCmConditionVariableThread(g_conditionMutex).Broadcast();
}

long WaitForAMoment() {
    CCmConditionVariableThread condition(g_conditionMutex);
    g_conditionMutex.Lock();
    CCmTimeValue tvTimeout(0, 100);
    const CmResult rv = condition.Wait(&tvTimeout);
    g_conditionMutex.UnLock();
    return rv;
}

// With a limit, on a queue that nobody runs.
long CallForAMoment() {
    CCmEventQueueUsingMutex queue;
    return CmCall(queue, CCmTimeValue(0, 100), [] {}).Result();
}

long SetPriorityOfAWorker() {
    CCmWorker worker;
    return worker.SetPriority(0);
}

int WokenAtOnce(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/) {
    return 0;
}

long WaitForGood() {
    CCmConditionVariableThread condition(g_conditionMutex);
    g_conditionMutex.Lock();
    const CmResult rv = condition.Wait(nullptr);
    g_conditionMutex.UnLock();
    return rv;
}

timespec g_tsDeadline;

int TimedOutAtOnce(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/,
                   const timespec* aDeadline) {
    g_tsDeadline = *aDeadline;
    return ETIMEDOUT;
}

// Whether a wait of an hour ends later than now.
long IsDeadlineAhead() {
    CCmConditionVariableThread condition(g_conditionMutex);
    CCmTimeValue tvTimeout(3600);
    g_conditionMutex.Lock();
    condition.Wait(&tvTimeout);
    g_conditionMutex.UnLock();
    return g_tsDeadline.tv_sec > time(nullptr) ? 1 : 0;
}

long MakeSemaphore() {
    CCmSemaphore semaphore(0);
    return 0;
}

long WaitForSemaphore() {
    return CCmSemaphore(1).Lock();
}

long PostSemaphore() {
    return CCmSemaphore(0).UnLock();
}

// Creates, stops and joins a worker.
long LiveAWorker() {
    ACmThread* pThread = nullptr;
    const CmResult rv = CreateUserTaskThread(&pThread, TF_JOINABLE, false, 1);
    if (CM_SUCCEEDED(rv)) {
        pThread->Stop(nullptr);
        pThread->Join();
        pThread->Destory(0);
    }
    return rv;
}

// Runs until its thread is cancelled, or cannot be.
class PausingThread : public ACmThread {
  public:
    void OnThreadRun() override {
        while (!m_bReleased) {
            usleep(100);
        }
    }
    void Release() { m_bReleased = true; }

  private:
    std::atomic<bool> m_bReleased{false};
};

long CancelAThread() {
    PausingThread* pThread = new PausingThread;
    EXPECT_EQ(CM_OK, pThread->Create(1, TF_JOINABLE, 0));
    const CmResult rv = pThread->Terminate();
    if (rv != 0) {
        pThread->Release();
    }
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(0);
    return rv;
}

// One whose join failed is joined past the table.
long JoinAThread() {
    PausingThread* pThread = new PausingThread;
    EXPECT_EQ(CM_OK, pThread->Create(1, TF_JOINABLE, 0));
    pThread->Release();
    const CmResult rv = pThread->Join();
    if (CM_FAILED(rv)) {
        EXPECT_EQ(0, ::pthread_join(pThread->GetThreadId(), nullptr));
    }
    pThread->Destory(0);
    return rv;
}

long Sleep() {
    SleepMs(1);
    return 0;
}

long SleepWhateverFails() {
    return ms_sleep(1);
}

long HasTime() {
    return CCmTimeValue::GetTimeOfDay().GetSec() > 0 ? 1 : 0;
}

long HasTicks() {
    return tick_policy::now() > 0 ? 1 : 0;
}

long MsPerTick() {
    CCmCleanUpBase::CleanupAll();
    return CCmSingletonT<PretInitialationTimer>::Instance()->GetMsPerTick();
}

long YearOfTheFirstDay() {
    return time_type(0).tm_year >= 1969 ? 1 : 0;
}

long Probe() {
    int nFlag = -1;
    return ip_check(nFlag, AF_INET);
}

long ListAddresses() {
    local_addr* pList = nullptr;
    const int rv = get_local_addr(&pList);
    free_local_addr(pList);
    return rv;
}

// A system with some interfaces, all of them up; see CountAddresses.
int g_nInterfaces = 0;
FaultPlan* g_pFlagsPlan = nullptr;

int GiveInterfaces(ifconf* aQuery) {
    ifreq* pRecord = aQuery->ifc_req;
    for (int i = 0; i < g_nInterfaces; ++i, ++pRecord) {
        *pRecord = ifreq();
        pRecord->ifr_name[0] = static_cast<char>('a' + i);
        pRecord->ifr_addr.sa_family = AF_INET;
    }
    aQuery->ifc_len = g_nInterfaces * static_cast<int>(sizeof(ifreq));
    return 0;
}

int MadeUpIoctl(int /*aFile*/, unsigned long aRequest, void* aArgument) {
    if (aRequest == SIOCGIFCONF) {
        return GiveInterfaces(static_cast<ifconf*>(aArgument));
    }
    if (g_pFlagsPlan != nullptr && g_pFlagsPlan->HitsNow()) {
        errno = ENODEV;
        return -1;
    }
    static_cast<ifreq*>(aArgument)->ifr_flags = IFF_UP;
    return 0;
}

std::shared_ptr<FaultPlan> FlagsFault(unsigned long aNth, Failing aFailing) {
    g_pFlagsPlan = new FaultPlan(aNth, aFailing);
    return std::shared_ptr<FaultPlan>(g_pFlagsPlan, [](FaultPlan* aPlan) {
        g_pFlagsPlan = nullptr;
        delete aPlan;
    });
}

// Of one interface.
long CountAddresses() {
    g_nInterfaces = 1;
    local_addr* pList = nullptr;
    EXPECT_EQ(0, get_local_addr(&pList));
    const long lCount = pList == nullptr ? 0 : 1;
    free_local_addr(pList);
    g_nInterfaces = 0;
    return lCount;
}

hostent* Localhost(const char* /*aName*/) {
    static char s_achAddress[] = {10, 0, 0, 7};
    static char* s_apAddresses[] = {s_achAddress, nullptr};
    static char* s_apAliases[] = {nullptr};
    static hostent s_host = {nullptr, s_apAliases, AF_INET, 4, s_apAddresses};
    return &s_host;
}

// Asks for a name and waits until its thread has gone, too, with what it held.
long ResolveByEvent() {
    class CAnswer : public ACmResolution {
      public:
        explicit CAnswer(long& aResult) : m_lResult(aResult) {}
        void OnResolved() override { m_lResult = result(); }

      private:
        long& m_lResult;
    };
    const int nThreads = kelto_test::LiveThreadsAtRest();
    long lResult = -1;
    {
        CCmEventQueueUsingConditionVariable queue;
        queue.BindToCurrentThread();
        CCmResolver resolver;
        EXPECT_EQ(CM_OK, resolver.Resolve("localhost", &queue, new CAnswer(lResult),
                                          CCmTimeValue(60), CCmIpAddress::IPV4));
        std::list<ICmEvent*> events;
        while (lResult < 0 && queue.PopOrWaitPendingEvents(events, nullptr) != CM_ERROR_FAILURE) {
            queue.ProcessEvents(events);
            events.clear();
        }
    }
    EXPECT_TRUE(kelto_test::Eventually([&] { return kelto_test::LiveThreads() <= nThreads; }));
    return lResult;
}

// Of the interface that every machine has.
long FindZone() {
    char szName[IF_NAMESIZE] = "";
    CCmEndpoint endpoint;
    sockaddr_storage storage;
    socklen_t nLength = 0;
    EXPECT_TRUE(
        CmParseEndpoint("[fe80::1%" + std::string(if_indextoname(1, szName)) + "]:1", endpoint));
    return CmToSocketAddress(endpoint, storage, nLength);
}

long Resolve() {
    char szName[] = "host";
    char szIp[CM_IP_TEXT_SIZE] = "";
    resolve_2_ip(szName, szIp);
    return std::string(szIp) == "10.0.0.7" ? 1 : 0;
}

long OwnAddress() {
    return std::string(get_local_ip_address()) == "10.0.0.7" ? 1 : 0;
}

// ---- The table

TEST(SystemFaults, MutexesGiveResultAndLine_WhateverCallFails) {
    typedef CCmSystemTable T;
    constexpr long FAILURE = CM_ERROR_FAILURE;
    CheckFaultRows({
        {"lock EINVAL", Returned<&T::pthread_mutex_lock>(EINVAL), LockAndUnlock, 0, FAILURE,
         NO_LINE},
        {"lock EDEADLK", Returned<&T::pthread_mutex_lock>(EDEADLK), LockAndUnlock, 0, FAILURE,
         NO_LINE},
        {"trylock EBUSY", Returned<&T::pthread_mutex_trylock>(EBUSY), TryLockAndUnlock, 0, FAILURE,
         NO_LINE},
        {"trylock EINVAL", Returned<&T::pthread_mutex_trylock>(EINVAL), TryLockAndUnlock, 0,
         FAILURE, NO_LINE},
        {"unlock EPERM", Returned<&T::pthread_mutex_unlock>(EPERM), Unlock, 0, FAILURE,
         "UTIL ERROR: CCmMutexThreadBase::UnLock, pthread_mutex_unlock() failed! err=1 this=0x#"},
        {"unlock EINVAL", Returned<&T::pthread_mutex_unlock>(EINVAL), Unlock, 0, FAILURE,
         "UTIL ERROR: CCmMutexThreadBase::UnLock, pthread_mutex_unlock() failed! err=22 this=0x#"},
        {"destroy EBUSY", Returned<&T::pthread_mutex_destroy>(EBUSY), MakeThing<CCmMutexThread>, 0,
         0,
         "UTIL ERROR: CCmMutexThreadBase::~CCmMutexThreadBase, pthread_mutex_destroy() failed! "
         "err=16 this=0x#"},
        {"attribute ENOMEM", Returned<&T::pthread_mutexattr_init>(ENOMEM),
         MakeThing<CCmMutexThread>, 0, 0,
         "UTIL ERROR: CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! err=12 "
         "this=0x#"},
        {"type EINVAL", Returned<&T::pthread_mutexattr_settype>(EINVAL),
         MakeThing<CCmMutexThreadRecursive>, 0, 0,
         "UTIL ERROR: CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() "
         "failed! err=22 this=0x#"},
        {"init EAGAIN", Returned<&T::pthread_mutex_init>(EAGAIN), MakeThing<CCmMutexThread>, 0, 0,
         "UTIL ERROR: CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! "
         "err=" ERRNO_TEXT(EAGAIN) " this=0x#"},
        {"init EPERM", Returned<&T::pthread_mutex_init>(EPERM), MakeThing<CCmMutexThreadRecursive>,
         0, 0,
         "UTIL ERROR: CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() "
         "failed! err=1 this=0x#"},
        {"init ENOMEM", Returned<&T::pthread_mutex_init>(ENOMEM), MakeThing<CCmMutexThread>, 0, 0,
         "UTIL ERROR: CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! err=12 "
         "this=0x#"},
        {"attribute destroy EINVAL",
         Returned<&T::pthread_mutexattr_destroy>(EINVAL, Effect::ALL_THE_SAME),
         MakeThing<CCmMutexThread>, 0, 0, NO_LINE},
    });
}

TEST(SystemFaults, ConditionsAndSemaphoresGiveResultAndLine_WhateverCallFails) {
    typedef CCmSystemTable T;
    constexpr long FAILURE = CM_ERROR_FAILURE;
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> wait(g_cmSystem.pthread_cond_wait,
                                                                   &WokenAtOnce);
    CheckFaultRows({
        {"wait EINVAL", Returned<&T::pthread_cond_wait>(EINVAL), WaitForGood, 0, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_wait() failed! err=22 "
         "this=0x#"},
        {"wait EPERM", Returned<&T::pthread_cond_wait>(EPERM), WaitForGood, 0, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_wait() failed! err=1 "
         "this=0x#"},
        {"init EAGAIN", Returned<&T::pthread_cond_init>(EAGAIN), MakeCondition, 0, 0,
         "UTIL WARNING: CCmConditionVariableThread::CCmConditionVariableThread, "
         "pthread_cond_init() failed! "
         "err=" ERRNO_TEXT(EAGAIN) " this=0x#"},
        {"init ENOMEM", Returned<&T::pthread_cond_init>(ENOMEM), MakeCondition, 0, 0,
         "UTIL WARNING: CCmConditionVariableThread::CCmConditionVariableThread, "
         "pthread_cond_init() failed! err=12 this=0x#"},
        {"destroy EBUSY", Returned<&T::pthread_cond_destroy>(EBUSY), MakeCondition, 0, 0,
         "UTIL WARNING: CCmConditionVariableThread::~CCmConditionVariableThread, "
         "pthread_cond_destroy() failed! err=16 this=0x#"},
        {"signal EINVAL", Returned<&T::pthread_cond_signal>(EINVAL), Signal, 0, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Signal, pthread_cond_signal() failed! err=22 "
         "this=0x#"},
        {"broadcast EINVAL", Returned<&T::pthread_cond_broadcast>(EINVAL), Broadcast, 0, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Signal, pthread_cond_broadcast() failed! "
         "err=22 this=0x#"},
        {"timed wait EINVAL", Returned<&T::pthread_cond_timedwait>(EINVAL), WaitForAMoment,
         CM_ERROR_TIMEOUT, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_timedwait() failed! err=22 "
         "this=0x#"},
        {"timed wait EPERM", Returned<&T::pthread_cond_timedwait>(EPERM), WaitForAMoment,
         CM_ERROR_TIMEOUT, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_timedwait() failed! err=1 "
         "this=0x#"},
        {"timed wait EINTR", Returned<&T::pthread_cond_timedwait>(EINTR), WaitForAMoment,
         CM_ERROR_TIMEOUT, CM_OK, NO_LINE},
        {"monotonic wait EINVAL", Returned<&T::pthread_cond_clockwait>(EINVAL), CallForAMoment,
         CM_ERROR_TIMEOUT, FAILURE,
         "UTIL WARNING: CCmConditionVariableThread::Wait, pthread_cond_clockwait() failed! err=22 "
         "this=0x#"},
        {"monotonic wait EINTR", Returned<&T::pthread_cond_clockwait>(EINTR), CallForAMoment,
         CM_ERROR_TIMEOUT, CM_ERROR_TIMEOUT, NO_LINE},
        {"sem_init ENOSPC", Fault<&T::sem_init>(ENOSPC, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=28 this=0x#"},
        {"sem_init ENOSYS", Fault<&T::sem_init>(ENOSYS, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! "
         "err=" ERRNO_TEXT(ENOSYS) " this=0x#"},
        {"sem_destroy EINVAL", Fault<&T::sem_destroy>(EINVAL, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=22 this=0x#"},
        {"sem_wait EINTR", Fault<&T::sem_wait>(EINTR, -1), WaitForSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=4 this=0x#"},
        {"sem_wait EINVAL", Fault<&T::sem_wait>(EINVAL, -1), WaitForSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=22 this=0x#"},
        {"sem_post EOVERFLOW", Fault<&T::sem_post>(EOVERFLOW, -1), PostSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! "
         "err=" ERRNO_TEXT(EOVERFLOW) " this=0x#"},
        {"sem_post EINVAL", Fault<&T::sem_post>(EINVAL, -1), PostSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! err=22 this=0x#"},
    });
}

TEST(SystemFaults, ThreadsGiveResultAndLine_WhateverCallFails) {
    typedef CCmSystemTable T;
    constexpr long UNEXPECTED = CM_ERROR_UNEXPECTED;
    CheckFaultRows({
        {"attributes ENOMEM", Returned<&T::pthread_attr_init>(ENOMEM), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_attr_init() failed! err=12 this=0x#"},
        {"detach state EINVAL", Returned<&T::pthread_attr_setdetachstate>(EINVAL), LiveAWorker, 0,
         UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_attr_setdetachstate() failed! err=22 this=0x#"},
        {"create EAGAIN", Returned<&T::pthread_create>(EAGAIN), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_create() failed! "
         "err=" ERRNO_TEXT(EAGAIN) " this=0x#"},
        {"create EPERM", Returned<&T::pthread_create>(EPERM), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_create() failed! err=1 this=0x#"},
        {"attributes destroy EINVAL",
         Returned<&T::pthread_attr_destroy>(EINVAL, Effect::ALL_THE_SAME), LiveAWorker, 0, 0,
         NO_LINE},
        {"join ESRCH", Returned<&T::pthread_join>(ESRCH), JoinAThread, 0, CM_ERROR_FAILURE,
         "UTIL ERROR: ACmThread::Join, pthread_join() failed! err=3 this=0x#"},
        {"join EINVAL", Returned<&T::pthread_join>(EINVAL), JoinAThread, 0, CM_ERROR_FAILURE,
         "UTIL ERROR: ACmThread::Join, pthread_join() failed! err=22 this=0x#"},
        {"join EDEADLK", Returned<&T::pthread_join>(EDEADLK), JoinAThread, 0, CM_ERROR_FAILURE,
         "UTIL ERROR: ACmThread::Join, pthread_join() failed! "
         "err=" ERRNO_TEXT(EDEADLK) " this=0x#"},
        {"cancel ESRCH", Returned<&T::pthread_cancel>(ESRCH), CancelAThread, 0, ESRCH, NO_LINE},
        {"priority EPERM", Returned<&T::pthread_setschedparam>(EPERM), SetPriorityOfAWorker, 0,
         CM_ERROR_FAILURE,
         "UTIL WARNING: CCmWorker, pthread_setschedparam() failed! err=1 this=0x#"},
        {"priority EINVAL", Returned<&T::pthread_setschedparam>(EINVAL), SetPriorityOfAWorker, 0,
         CM_ERROR_FAILURE,
         "UTIL WARNING: CCmWorker, pthread_setschedparam() failed! err=22 this=0x#"},
        {"sleep EINVAL", Fault<&T::nanosleep>(EINVAL, -1), Sleep, 0, 0,
         "UTIL WARNING: ::SleepMs,nanosleep() failed! err=22"},
        {"sleep EFAULT", Fault<&T::nanosleep>(EFAULT, -1), Sleep, 0, 0,
         "UTIL WARNING: ::SleepMs,nanosleep() failed! err=14"},
        {"sleep EINTR", Fault<&T::nanosleep>(EINTR, -1), Sleep, 0, 0, NO_LINE, 1, true},
        {"long sleep EINTR", Fault<&T::nanosleep>(EINTR, -1), SleepWhateverFails, 0, 0, NO_LINE, 1,
         true},
        {"long sleep EINVAL", Fault<&T::nanosleep>(EINVAL, -1), SleepWhateverFails, 0, 0, NO_LINE,
         1, true},
    });
}

TEST(SystemFaults, ClocksGiveTheirResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    typedef CCmClockTable Clock;
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> wait(
        g_cmSystem.pthread_cond_timedwait, &TimedOutAtOnce);
    CheckFaultRows({
        {"time of day EFAULT", Fault<&Clock::gettimeofday>(EFAULT, -1), HasTime, 1, 0, NO_LINE},
        {"deadline EFAULT", Fault<&T::gettimeofday>(EFAULT, -1), IsDeadlineAhead, 1, 0, NO_LINE},
        {"ticks EFAULT", Fault<&Clock::times, clock_t>(EFAULT, -1), HasTicks, 1, 0, NO_LINE},
        {"tick rate EINVAL", Fault<&T::sysconf, long>(EINVAL, -1), MsPerTick, 10, 0, NO_LINE},
        {"local time EOVERFLOW", Fault<&T::localtime_r, tm*>(EOVERFLOW, nullptr), YearOfTheFirstDay,
         1, 0, NO_LINE},
    });
}

TEST(SystemFaults, NetworkGivesResultAndLine_WhateverCallFails) {
    typedef CCmSystemTable T;
    const ScopedEntry<decltype(g_cmSystem.gethostbyname)> resolver(g_cmSystem.gethostbyname,
                                                                   &Localhost);
    const ScopedEntry<decltype(g_cmSystem.ioctl)> interfaces(g_cmSystem.ioctl, &MadeUpIoctl);
    CheckFaultRows({
        {"probe EAFNOSUPPORT", Fault<&T::socket>(EAFNOSUPPORT, -1), Probe, 1, 0, NO_LINE},
        {"probe EMFILE", Fault<&T::socket>(EMFILE, -1), Probe, 1, 0, NO_LINE},
        {"probe EACCES", Fault<&T::socket>(EACCES, -1), Probe, 1, 0, NO_LINE},
        {"list EMFILE", Fault<&T::socket>(EMFILE, -1), ListAddresses, 0, -1, NO_LINE},
        {"list ENFILE", Fault<&T::socket>(ENFILE, -1), ListAddresses, 0, -1, NO_LINE},
        {"list, table EFAULT", Fault<&T::ioctl>(EFAULT, -1), ListAddresses, 0, -1, NO_LINE},
        {"list, table EINVAL", Fault<&T::ioctl>(EINVAL, -1), ListAddresses, 0, -1, NO_LINE},
        {"list, flags ENODEV", FlagsFault, CountAddresses, 1, 0, NO_LINE},
        {"list, close EIO", Fault<&T::close>(EIO, -1, Effect::ALL_THE_SAME), ListAddresses, 0, 0,
         NO_LINE},
        {"list, close EINTR", Fault<&T::close>(EINTR, -1, Effect::ALL_THE_SAME), ListAddresses, 0,
         0, NO_LINE},
        {"probe, close EINTR", Fault<&T::close>(EINTR, -1, Effect::ALL_THE_SAME), Probe, 1, 1,
         NO_LINE},
        {"resolve", Fault<&T::gethostbyname, hostent*>(0, nullptr), Resolve, 1, 0,
         "UTIL ERROR: resolve_2_ip: can't resolve host_name: host"},
        {"own name, resolver", Fault<&T::gethostbyname, hostent*>(0, nullptr), OwnAddress, 1, 0,
         NO_LINE},
        {"own name ENAMETOOLONG", Fault<&T::gethostname>(ENAMETOOLONG, -1), OwnAddress, 1, 0,
         NO_LINE},
        {"own name EFAULT", Fault<&T::gethostname>(EFAULT, -1), OwnAddress, 1, 0, NO_LINE},
        {"answer EAI_AGAIN", Fault<&T::getaddrinfo>(0, EAI_AGAIN), ResolveByEvent, CM_OK,
         CM_ERROR_NOT_AVAILABLE, NO_LINE},
        {"answer EAI_NONAME", Fault<&T::getaddrinfo>(0, EAI_NONAME), ResolveByEvent, CM_OK,
         CM_ERROR_NOT_FOUND, NO_LINE},
        {"answer EAI_SYSTEM", Fault<&T::getaddrinfo>(EMFILE, EAI_SYSTEM), ResolveByEvent, CM_OK,
         CM_ERROR_FAILURE, NO_LINE},
        {"answer EINTR", Fault<&T::getaddrinfo>(EINTR, EAI_SYSTEM), ResolveByEvent, CM_OK,
         CM_ERROR_FAILURE, NO_LINE},
        {"zone ENXIO", Fault<&T::if_nametoindex, unsigned>(ENXIO, 0), FindZone, CM_OK,
         CM_ERROR_NOT_FOUND, NO_LINE},
    });
}

bool s_bPipeWaits = false;

ssize_t ReadThatWaits(int aFile, void* aBuffer, size_t aSize) {
    if (std::exchange(s_bPipeWaits, false)) {
        errno = EAGAIN;
        return -1;
    }
    return ::read(aFile, aBuffer, aSize);
}

TEST(SystemFaults, ProfilesGiveTheirResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    const kelto_test::ScopedHome home;
    const std::string sProfile = home.path() + "profile";
    kelto_test::WriteFile(sProfile, "[s]\nk=42\n");
    const auto lookUp = [&] {
        return static_cast<long>(get_int_from_profile("s", "k", 7, sProfile.c_str()));
    };
    // The first read finds that the writer of a pipe has not written yet.
    const auto lookUpPipe = [&] {
        const kelto_test::ScopedEntry<decltype(T::read)> entry(g_cmSystem.read, ReadThatWaits);
        s_bPipeWaits = true;
        return lookUp();
    };
    const timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, sProfile.c_str(), longAgo, 0));
    const auto snapshot = [&] {
        CCmConfigReader config;
        int nNumber = 0;
        const CmResult rv = config.Read(sProfile.c_str());
        config.GetNumber("s", "k", nNumber);
        return static_cast<long>(CM_SUCCEEDED(rv) ? nNumber : rv);
    };
    CCmConfigReader before;
    ASSERT_EQ(CM_OK, before.Read(sProfile.c_str()));
    const auto hasChanged = [&] { return before.HasChanged() ? 1L : 0L; };
    const std::unique_ptr<FILE, int (*)(FILE*)> pStream(fopen(sProfile.c_str(), "rt"), fclose);
    const auto readStream = [&] {
        char szValue[8];
        rewind(pStream.get());
        return static_cast<long>(read_init_file(pStream.get(), "s", "k", szValue, sizeof(szValue)));
    };
    CheckFaultRows({
        {"open ENOENT", Fault<&T::open>(ENOENT, -1), lookUp, 42, 7, NO_LINE},
        {"open EACCES", Fault<&T::open>(EACCES, -1), lookUp, 42, 7, NO_LINE},
        {"open EMFILE", Fault<&T::open>(EMFILE, -1), lookUp, 42, 7, NO_LINE},
        {"open EINTR", Fault<&T::open>(EINTR, -1), lookUp, 42, 42, NO_LINE, 1, true},
        {"read EIO", Fault<&T::read, ssize_t>(EIO, -1), lookUp, 42, 7, NO_LINE},
        {"read EISDIR", Fault<&T::read, ssize_t>(EISDIR, -1), lookUp, 42, 7, NO_LINE},
        {"read EINTR", Fault<&T::read, ssize_t>(EINTR, -1), lookUp, 42, 42, NO_LINE, 1, true},
        {"read short", Short<&T::read>(), lookUp, 42, 42, NO_LINE},
        {"wait ENOMEM", Fault<&T::poll>(ENOMEM, -1), lookUpPipe, 42, 7, NO_LINE},
        {"wait EINTR", Fault<&T::poll>(EINTR, -1), lookUpPipe, 42, 42, NO_LINE},
        {"close EIO", Fault<&T::close>(EIO, -1, Effect::ALL_THE_SAME), lookUp, 42, 42, NO_LINE},
        {"close EINTR", Fault<&T::close>(EINTR, -1, Effect::ALL_THE_SAME), lookUp, 42, 42, NO_LINE},
        {"snapshot, open EACCES", Fault<&T::open>(EACCES, -1), snapshot, 42, CM_ERROR_FAILURE,
         NO_LINE},
        {"snapshot, open ENOENT", Fault<&T::open>(ENOENT, -1), snapshot, 42, CM_ERROR_NOT_FOUND,
         NO_LINE},
        {"snapshot, open EMFILE", Fault<&T::open>(EMFILE, -1), snapshot, 42, CM_ERROR_FAILURE,
         NO_LINE},
        {"snapshot, open EINTR", Fault<&T::open>(EINTR, -1), snapshot, 42, 42, NO_LINE, 1, true},
        {"snapshot, fstat EIO", Fault<&T::fstat>(EIO, -1), snapshot, 42, CM_ERROR_FAILURE, NO_LINE,
         2},
        {"snapshot, read EIO", Fault<&T::pread, ssize_t>(EIO, -1), snapshot, 42, CM_ERROR_FAILURE,
         NO_LINE, 2},
        {"snapshot, read EINTR", Fault<&T::pread, ssize_t>(EINTR, -1), snapshot, 42, 42, NO_LINE, 2,
         true},
        {"snapshot, read short", Short<&T::pread>(), snapshot, 42, 42, NO_LINE, 2},
        {"snapshot, close EIO", Fault<&T::close>(EIO, -1, Effect::ALL_THE_SAME), snapshot, 42, 42,
         NO_LINE},
        {"snapshot, close EINTR", Fault<&T::close>(EINTR, -1, Effect::ALL_THE_SAME), snapshot, 42,
         42, NO_LINE},
        {"has changed", Fault<&T::stat>(EACCES, -1), hasChanged, 0, 1, NO_LINE},
        {"stream EIO", Fault<&T::fgets, char*>(EIO, nullptr), readStream, 1, 0, NO_LINE, 2},
        {"stream EINTR", Fault<&T::fgets, char*>(EINTR, nullptr), readStream, 1, 0, NO_LINE, 2},
    });
}

// A trace file in a home of its own.
class SystemFaultsTraceFile : public testing::Test {
  protected:
    static long Position(const std::string& aPath) {
        char achHeader[33] = {};
        const int nFile = ::open(aPath.c_str(), O_RDONLY);
        EXPECT_LE(0, ::read(nFile, achHeader, 32));
        ::close(nFile);
        return strtol(achHeader, nullptr, 10);
    }
    // Whether the write moves the position of the file by at least aLength.
    long Moves(CCmT120TraceFile& aFile, const std::string& aText = "line") const {
        const long lBefore = Position(m_sPath);
        errno = ENOTTY;
        aFile.write(nullptr, nullptr, aText.c_str());
        EXPECT_EQ(ENOTTY, errno);
        return Position(m_sPath) > lBefore + static_cast<long>(aText.size()) ? 1 : 0;
    }
    std::string Header(long aPosition) const {
        char achHeader[33];
        snprintf(achHeader, sizeof(achHeader), "%-31ld\n", aPosition);
        return achHeader;
    }
    long Attach() const {
        CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
        return file.attach();
    }
    static long Load() {
        static CCmT120TraceMapEntry s_table[CM_TRACE_LEVEL_COUNT];
        return CCmT120Trace("test", s_table, "name", 1).load(nullptr);
    }

    const kelto_test::ScopedHome m_home;
    const std::string m_sPath = m_home.path() + "trace";
};

TEST_F(SystemFaultsTraceFile, WriteGivesItsResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, file.attach());
    const auto write = [&] { return Moves(file); };
    CheckFaultRows({
        {"position EIO", Fault<&T::pread, ssize_t>(EIO, -1), write, 1, 0, NO_LINE},
        {"position EISDIR", Fault<&T::pread, ssize_t>(EISDIR, -1), write, 1, 0, NO_LINE},
        {"position EINTR", Fault<&T::pread, ssize_t>(EINTR, -1), write, 1, 1, NO_LINE, 1, true},
        {"position short", Short<&T::pread>(), write, 1, 1, NO_LINE},
        {"write ENOSPC", Fault<&T::pwrite, ssize_t>(ENOSPC, -1), write, 1, 0, NO_LINE, 3},
        {"write EFBIG", Fault<&T::pwrite, ssize_t>(EFBIG, -1), write, 1, 0, NO_LINE, 3},
        {"write EIO", Fault<&T::pwrite, ssize_t>(EIO, -1), write, 1, 0, NO_LINE, 3},
        {"nothing written", Fault<&T::pwrite, ssize_t>(0, 0), write, 1, 0, NO_LINE, 3},
        {"write EINTR", Fault<&T::pwrite, ssize_t>(EINTR, -1), write, 1, 1, NO_LINE, 3, true},
        {"write short", Short<&T::pwrite>(), write, 1, 1, NO_LINE, 3},
        {"write EDQUOT", Fault<&T::pwrite, ssize_t>(EDQUOT, -1), write, 1, 0, NO_LINE, 3},
        {"date EOVERFLOW", Fault<&T::localtime_r, tm*>(EOVERFLOW, nullptr), write, 1, 1, NO_LINE},
    });
}

TEST_F(SystemFaultsTraceFile, WriteSharedGivesItsResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    ASSERT_EQ(CM_OK, file.attach());
    const auto write = [&] { return Moves(file); };
    CheckFaultRows({
        {"lock ENOLCK", Fault<&T::fcntl>(ENOLCK, -1), write, 1, 1, NO_LINE, 2},
        {"lock EDEADLK", Fault<&T::fcntl>(EDEADLK, -1), write, 1, 1, NO_LINE, 2, true},
        {"lock EBADF", Fault<&T::fcntl>(EBADF, -1), write, 1, 1, NO_LINE, 2},
        {"lock EINTR", Fault<&T::fcntl>(EINTR, -1), write, 1, 1, NO_LINE, 2, true},
        {"lock EAGAIN", Fault<&T::fcntl>(EAGAIN, -1), write, 1, 1, NO_LINE, 2, true},
        {"position EINTR", Fault<&T::pread, ssize_t>(EINTR, -1), write, 1, 1, NO_LINE, 1, true},
        {"position short", Short<&T::pread>(), write, 1, 1, NO_LINE},
        {"write EINTR", Fault<&T::pwrite, ssize_t>(EINTR, -1), write, 1, 1, NO_LINE, 3, true},
        {"write short", Short<&T::pwrite>(), write, 1, 1, NO_LINE, 3},
        {"write EFBIG", Fault<&T::pwrite, ssize_t>(EFBIG, -1), write, 1, 0, NO_LINE, 3},
        {"position EIO", Fault<&T::pread, ssize_t>(EIO, -1), write, 1, 0, NO_LINE},
        {"write ENOSPC", Fault<&T::pwrite, ssize_t>(ENOSPC, -1), write, 1, 0, NO_LINE, 3},
    });
}

TEST_F(SystemFaultsTraceFile, StartingAgainGivesItsResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
    ASSERT_EQ(CM_OK, file.attach());
    // Whether a file at its limit has started again at the top, with a line there.
    const auto write = [&] {
        kelto_test::WriteFile(m_sPath, Header(200) + std::string(168, 'o'));
        file.write(nullptr, nullptr, "line");
        const long lPosition = Position(m_sPath);
        return lPosition > 32 && lPosition < 200 ? 1L : 0L;
    };
    CheckFaultRows({
        {"truncate EIO", Fault<&T::ftruncate>(EIO, -1), write, 1, 1, NO_LINE},
        {"truncate EINVAL", Fault<&T::ftruncate>(EINVAL, -1), write, 1, 1, NO_LINE},
        {"truncate EINTR", Fault<&T::ftruncate>(EINTR, -1), write, 1, 1, NO_LINE, 1, true},
        {"write ENOSPC", Fault<&T::pwrite, ssize_t>(ENOSPC, -1), write, 1, 0, NO_LINE, 4},
        {"write EINTR", Fault<&T::pwrite, ssize_t>(EINTR, -1), write, 1, 1, NO_LINE, 4, true},
        {"write short", Short<&T::pwrite>(), write, 1, 1, NO_LINE, 4},
    });
}

TEST_F(SystemFaultsTraceFile, AttachGivesItsResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    constexpr long FAILURE = CM_ERROR_FAILURE;
    const auto attach = [this] { return Attach(); };
    CheckFaultRows({
        {"open EACCES", Fault<&T::open>(EACCES, -1), attach, 0, FAILURE, NO_LINE},
        {"open EMFILE", Fault<&T::open>(EMFILE, -1), attach, 0, FAILURE, NO_LINE},
        {"open ENOSPC", Fault<&T::open>(ENOSPC, -1), attach, 0, FAILURE, NO_LINE},
        {"open EROFS", Fault<&T::open>(EROFS, -1), attach, 0, FAILURE, NO_LINE},
        {"open EINTR", Fault<&T::open>(EINTR, -1), attach, 0, 0, NO_LINE, 1, true},
        {"status EIO", Fault<&T::fstat>(EIO, -1), attach, 0, FAILURE, NO_LINE},
        {"stream ENOMEM", Fault<&T::fdopen, FILE*>(ENOMEM, nullptr), attach, 0, FAILURE, NO_LINE},
        {"directory EACCES", Fault<&T::mkdir>(EACCES, -1), Load, 1, 1, NO_LINE},
        {"directory EEXIST", Fault<&T::mkdir>(EEXIST, -1), Load, 1, 1, NO_LINE},
        {"directory ENOSPC", Fault<&T::mkdir>(ENOSPC, -1), Load, 1, 1, NO_LINE},
        {"directory EINTR", Fault<&T::mkdir>(EINTR, -1), Load, 1, 1, NO_LINE},
        {"date EOVERFLOW", Fault<&T::localtime_r, tm*>(EOVERFLOW, nullptr), Load, 1, 1, NO_LINE},
        {"module path", Fault<&T::dladdr>(0, 0), Load, 1, 1, NO_LINE},
    });
}

TEST_F(SystemFaultsTraceFile, FilterGivesItsResult_WhateverCallFails) {
    typedef CCmSystemTable T;
    const std::string sFilter = m_home.path() + "conf/keltoexp.filter";
    kelto_test::WriteFile(sFilter, "net");
    const auto load = [] {
        regex_cnt.store(0);
        CCmT120TraceFileMgr::init_reg_filter();
        return static_cast<long>(regex_cnt.load());
    };
    const auto match = [&] {
        load();  // what did not compile has left none
        return static_cast<long>(regex_match("network"));
    };
    CheckFaultRows({
        {"open ENOENT", Fault<&T::open>(ENOENT, -1), load, 2, 0, NO_LINE},
        {"open EACCES", Fault<&T::open>(EACCES, -1), load, 2, 0, NO_LINE},
        {"open EMFILE", Fault<&T::open>(EMFILE, -1), load, 2, 0, NO_LINE},
        {"open EINTR", Fault<&T::open>(EINTR, -1), load, 2, 2, NO_LINE, 1, true},
        {"stream ENOMEM", Fault<&T::fdopen, FILE*>(ENOMEM, nullptr), load, 2, 0, NO_LINE},
        {"memory", Fault<&T::malloc, void*>(ENOMEM, nullptr), load, 2, 0, NO_LINE},
        {"compile REG_ESPACE", Returned<&T::regcomp>(REG_ESPACE), load, 2, 0, NO_LINE},
        {"compile REG_EPAREN", Returned<&T::regcomp>(REG_EPAREN), load, 2, 0, NO_LINE},
        {"match REG_ESPACE", Returned<&T::regexec>(REG_ESPACE), match, 0, -1, NO_LINE},
    });
    kelto_test::WriteFile(sFilter, "(");
    CCmT120TraceFileMgr::init_reg_filter();
}

TEST_F(SystemFaultsTraceFile, GoesOn_WithoutMemory) {
    typedef CCmSystemTable T;
    const auto writeAnew = [this] {
        CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
        EXPECT_EQ(CM_OK, file.attach());
        return Moves(file);
    };
    const auto openRecord = [] {
        void* pRecord = T120_Open_Trace_Dev("faults", 0, 0, 0);
        T120_Close_Trace_Dev(pRecord);
        return pRecord != nullptr ? 1L : 0L;
    };
    CCmT120TraceFile buffered(m_sPath.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, buffered.attach());
    const auto changeBuffer = [&] {
        static int s_nFlushCount = 2;
        s_nFlushCount = 5 - s_nFlushCount;  // another one each time
        buffered.refresh_settings(0, s_nFlushCount);
        for (int i = 1; i < s_nFlushCount; ++i) {
            buffered.write(nullptr, nullptr, "buffered");
        }
        return Moves(buffered);
    };
    CCmT120TraceFile shared(m_sPath.c_str(), 0, 1, 0);
    ASSERT_EQ(CM_OK, shared.attach());
    const auto writeLong = [&] { return Moves(shared, std::string(3000, 'x')); };
    CheckFaultRows({
        {"line buffer", Fault<&T::malloc, void*>(ENOMEM, nullptr), writeAnew, 1, 0, NO_LINE},
        {"name", Fault<&T::strdup, char*>(ENOMEM, nullptr), openRecord, 1, 0, NO_LINE},
        {"larger buffer", Fault<&T::malloc, void*>(ENOMEM, nullptr), changeBuffer, 1, 0, NO_LINE},
        {"long line", Fault<&T::malloc, void*>(ENOMEM, nullptr), writeLong, 1, 0, NO_LINE},
    });
}

TEST(SystemFaults, LogStreamGoesOn_WithoutMemory) {
    typedef CCmSystemTable T;
    // Whether a text arrives; what could not be held is lost.
    const auto insert = [] {
        const kelto_test::ScopedTraceLibrary library;
        ccu::YrktraStreamA stream(2);
        stream.writestringa("text");
        stream.flusha("module");
        return static_cast<long>(library.calls().size());
    };
    const auto formatLong = [] {
        const kelto_test::ScopedTraceLibrary library;
        EXPECT_EQ(1, ccu_trace_info("module", "%*d", 2047, 7));
        return static_cast<long>(library.calls().size());
    };
    CheckFaultRows({
        {"insertion", Fault<&T::malloc, void*>(ENOMEM, nullptr), insert, 1, 0, NO_LINE},
        {"long text", Fault<&T::malloc, void*>(ENOMEM, nullptr), formatLong, 1, 0, NO_LINE},
    });
}

}  // namespace
}  // namespace UTIL_NS
