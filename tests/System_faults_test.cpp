// Every row of the table is one system call that fails with one error. The operation makes that
// call once and is run three times, with the first, second or third call failing, alone or with
// all that follow; each run's result and line are compared.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CmAddress.h"
#include "CmConditionVariable.h"
#include "CmConfig.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "CmUtilClasses.h"
#include "CmUtilMisc.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::FailingCall;
using kelto_test::MaskAddresses;
using kelto_test::ScopedTraceSink;

struct Row {
    const char* name;
    // Makes a call of its entry fail while what it returns lives.
    std::function<std::shared_ptr<void>(unsigned long aNth, Failing aFailing)> inject;
    std::function<long()> operation;
    long good;
    long bad;
    const char* line;  // written when the call fails; empty: none
};

template <auto Member, typename Result = int>
auto Fault(int aError, Result aResult) {
    return [=](unsigned long aNth, Failing aFailing) -> std::shared_ptr<void> {
        return std::make_shared<FailingCall<Member>>(aError, aResult, aNth, aFailing);
    };
}

// Of the calls that return the error.
template <auto Member>
auto Returned(int aError) {
    return Fault<Member>(0, aError);
}

// The line of a failed call, if there is one; the others are not about failures.
std::string FailureLine(const ScopedTraceSink& aSink) {
    std::string sFailure;
    for (const kelto_test::TraceLine& line : aSink.lines()) {
        const std::string sText = MaskAddresses(line.text);
        if (sText.find("failed") != std::string::npos || sText.find("can't") != std::string::npos) {
            sFailure += sFailure.empty() ? sText : "\n" + sText;
        }
    }
    return sFailure;
}

void Check(const Row& aRow) {
    for (unsigned long ulNth = 1; ulNth <= 3; ++ulNth) {
        for (Failing failing : {Failing::ONCE, Failing::FROM_THERE_ON}) {
            const std::shared_ptr<void> pFault = aRow.inject(ulNth, failing);
            for (unsigned long ulCall = 1; ulCall <= 3; ++ulCall) {
                const bool bFails = failing == Failing::ONCE ? ulCall == ulNth : ulCall >= ulNth;
                ScopedTraceSink sink;
                EXPECT_EQ(bFails ? aRow.bad : aRow.good, aRow.operation())
                    << aRow.name << ", call " << ulCall << ", failing " << ulNth;
                EXPECT_EQ(bFails ? aRow.line : "", FailureLine(sink))
                    << aRow.name << ", call " << ulCall << ", failing " << ulNth;
            }
        }
    }
}

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

long Sleep() {
    SleepMs(1);
    return 0;
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

hostent* Localhost(const char* /*aName*/) {
    static char s_achAddress[] = {10, 0, 0, 7};
    static char* s_apAddresses[] = {s_achAddress, nullptr};
    static char* s_apAliases[] = {nullptr};
    static hostent s_host = {nullptr, s_apAliases, AF_INET, 4, s_apAddresses};
    return &s_host;
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

constexpr const char NO_LINE[] = "";

TEST(SystemFaults, MutexCalls_FailWithTheirResultAndLine) {
    typedef CCmSystemTable T;
    constexpr long FAILURE = CM_ERROR_FAILURE;
    const Row ROWS[] = {
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
         "UTIL ERROR: CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed! err=11 "
         "this=0x#"},
        {"init EPERM", Returned<&T::pthread_mutex_init>(EPERM), MakeThing<CCmMutexThreadRecursive>,
         0, 0,
         "UTIL ERROR: CCmMutexThreadRecursive::CCmMutexThreadRecursive, pthread_mutex_init() "
         "failed! err=1 this=0x#"},
    };
    for (const Row& row : ROWS) {
        Check(row);
    }
}

TEST(SystemFaults, ConditionAndSemaphoreCalls_FailWithTheirResultAndLine) {
    typedef CCmSystemTable T;
    constexpr long FAILURE = CM_ERROR_FAILURE;
    const Row ROWS[] = {
        {"init EAGAIN", Returned<&T::pthread_cond_init>(EAGAIN), MakeCondition, 0, 0,
         "UTIL WARNING: CCmConditionVariableThread::CCmConditionVariableThread, "
         "pthread_cond_init() failed! err=11 this=0x#"},
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
        {"sem_init ENOSPC", Fault<&T::sem_init>(ENOSPC, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=28 this=0x#"},
        {"sem_init ENOSYS", Fault<&T::sem_init>(ENOSYS, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::CCmSemaphore, sem_init() failed! err=38 this=0x#"},
        {"sem_destroy EINVAL", Fault<&T::sem_destroy>(EINVAL, -1), MakeSemaphore, 0, 0,
         "UTIL WARNING: CCmSemaphore::~CCmSemaphore, sem_destroy() failed! err=22 this=0x#"},
        {"sem_wait EINTR", Fault<&T::sem_wait>(EINTR, -1), WaitForSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=4 this=0x#"},
        {"sem_wait EINVAL", Fault<&T::sem_wait>(EINVAL, -1), WaitForSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::Lock, sem_wait() failed! err=22 this=0x#"},
        {"sem_post EOVERFLOW", Fault<&T::sem_post>(EOVERFLOW, -1), PostSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! err=75 this=0x#"},
        {"sem_post EINVAL", Fault<&T::sem_post>(EINVAL, -1), PostSemaphore, 0, FAILURE,
         "UTIL WARNING: CCmSemaphore::UnLock, sem_post() failed! err=22 this=0x#"},
    };
    for (const Row& row : ROWS) {
        Check(row);
    }
}

TEST(SystemFaults, ThreadCalls_FailWithTheirResultAndLine) {
    typedef CCmSystemTable T;
    constexpr long UNEXPECTED = CM_ERROR_UNEXPECTED;
    const Row ROWS[] = {
        {"attributes ENOMEM", Returned<&T::pthread_attr_init>(ENOMEM), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_attr_init() failed! err=12 this=0x#"},
        {"detach state EINVAL", Returned<&T::pthread_attr_setdetachstate>(EINVAL), LiveAWorker, 0,
         UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_attr_setdetachstate() failed! err=22 this=0x#"},
        {"create EAGAIN", Returned<&T::pthread_create>(EAGAIN), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_create() failed! err=11 this=0x#"},
        {"create EPERM", Returned<&T::pthread_create>(EPERM), LiveAWorker, 0, UNEXPECTED,
         "UTIL ERROR: ACmThread::Create, pthread_create() failed! err=1 this=0x#"},
        {"sleep EINVAL", Fault<&T::nanosleep>(EINVAL, -1), Sleep, 0, 0,
         "UTIL WARNING: ::SleepMs,nanosleep() failed! err=22"},
        {"sleep EFAULT", Fault<&T::nanosleep>(EFAULT, -1), Sleep, 0, 0,
         "UTIL WARNING: ::SleepMs,nanosleep() failed! err=14"},
    };
    for (const Row& row : ROWS) {
        Check(row);
    }
}

TEST(SystemFaults, NetworkCalls_FailWithTheirResultAndLine) {
    typedef CCmSystemTable T;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.gethostbyname)> resolver(
        g_cmSystem.gethostbyname, &Localhost);
    const Row ROWS[] = {
        {"probe EAFNOSUPPORT", Fault<&T::socket>(EAFNOSUPPORT, -1), Probe, 1, 0, NO_LINE},
        {"probe EMFILE", Fault<&T::socket>(EMFILE, -1), Probe, 1, 0, NO_LINE},
        {"probe EACCES", Fault<&T::socket>(EACCES, -1), Probe, 1, 0, NO_LINE},
        {"list EMFILE", Fault<&T::socket>(EMFILE, -1), ListAddresses, 0, -1, NO_LINE},
        {"list ENFILE", Fault<&T::socket>(ENFILE, -1), ListAddresses, 0, -1, NO_LINE},
        {"resolve", Fault<&T::gethostbyname, hostent*>(0, nullptr), Resolve, 1, 0,
         "UTIL ERROR: resolve_2_ip: can't resolve host_name: host"},
        {"own name, resolver", Fault<&T::gethostbyname, hostent*>(0, nullptr), OwnAddress, 1, 0,
         NO_LINE},
        {"own name ENAMETOOLONG", Fault<&T::gethostname>(ENAMETOOLONG, -1), OwnAddress, 1, 0,
         NO_LINE},
        {"own name EFAULT", Fault<&T::gethostname>(EFAULT, -1), OwnAddress, 1, 0, NO_LINE},
    };
    for (const Row& row : ROWS) {
        Check(row);
    }
}

TEST(SystemFaults, FileCalls_FailWithTheirResultAndLine) {
    typedef CCmSystemTable T;
    const kelto_test::ScopedHome home;
    const std::string sProfile = home.path() + "profile";
    kelto_test::WriteFile(sProfile, "[s]\nk=42\n");
    const auto lookUp = [&] {
        return static_cast<long>(get_int_from_profile("s", "k", 7, sProfile.c_str()));
    };
    // Whether the trace file has grown by a line.
    const std::string sTrace = home.path() + "trace";
    CCmT120TraceFile trace(sTrace.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, trace.attach());
    trace.write(nullptr, nullptr, "first");
    const auto writeLine = [&] {
        struct stat before = {};
        struct stat after = {};
        stat(sTrace.c_str(), &before);
        errno = ENOTTY;
        trace.write(nullptr, nullptr, "line");
        EXPECT_EQ(ENOTTY, errno);
        stat(sTrace.c_str(), &after);
        return after.st_size > before.st_size ? 1L : 0L;
    };
    const Row ROWS[] = {
        {"open ENOENT", Fault<&T::open>(ENOENT, -1), lookUp, 42, 7, NO_LINE},
        {"open EACCES", Fault<&T::open>(EACCES, -1), lookUp, 42, 7, NO_LINE},
        {"open EMFILE", Fault<&T::open>(EMFILE, -1), lookUp, 42, 7, NO_LINE},
        {"position EIO", Fault<&T::pread, ssize_t>(EIO, -1), writeLine, 1, 0, NO_LINE},
        {"position EISDIR", Fault<&T::pread, ssize_t>(EISDIR, -1), writeLine, 1, 0, NO_LINE},
    };
    for (const Row& row : ROWS) {
        Check(row);
    }
}

}  // namespace
}  // namespace UTIL_NS
