// A host's own static objects use the library's mutexes and singletons, before main and after it.
// Built twice: against the library's objects and against the shared library.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "CmClock.h"
#include "CmConditionVariable.h"
#include "CmThread.h"
#include "CmTimeValue.h"
#include "CmTrace.h"
#include "CmUtilMisc.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {
namespace {

unsigned int g_dwLines = 0;  // constant-initialised, so set before any constructor runs

void CountLine(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {
    ++g_dwLines;
}

struct HostObject : CCmReferenceControlT<CCmMutexThread> {};

struct HostSingleton {
    int m_nValue = 42;
};

// What UseBeforeMain found.
struct Found {
    bool bRecursive;
    bool bSharedMutex;
    int nValue;
    long long llTicks;
    long long llSeconds;
    long long llMicroseconds;
    uint32_t dwCount;
};
Found g_Found;

void UseAtTheEnd();

// Runs before any static object is constructed, those of a library that is linked into the
// program included.
__attribute__((constructor(101))) void UseBeforeMain() CM_NO_THREAD_SAFETY_ANALYSIS {
    atexit(UseAtTheEnd);  // what was registered first is called last
    set_util_external_trace_sink(CountLine);
    g_Found.bRecursive = g_SingletonMutex.Lock() == CM_OK && g_SingletonMutex.Lock() == CM_OK &&
                         g_SingletonMutex.UnLock() == CM_OK && g_SingletonMutex.UnLock() == CM_OK;
    g_Found.bSharedMutex = s_ReferenceControlMutexThread.Lock() == CM_OK &&
                           s_ReferenceControlMutexThread.UnLock() == CM_OK;
    HostSingleton* pSingleton = CCmSingletonT<HostSingleton>::Instance();
    g_Found.nValue = pSingleton != nullptr ? pSingleton->m_nValue : 0;
    g_Found.llTicks = tick_policy::now();
    g_Found.llSeconds = CCmTimeValue::s_tvMax.GetSec();
    g_Found.llMicroseconds = CCmTimeValue::s_tvMax.GetUsec();
    CCmComAutoPtr<HostObject> ptr(new HostObject);
    g_Found.dwCount = ptr->GetReference();
    set_util_external_trace_sink(nullptr);
}

// A host's own object, which goes before those of the library.
struct HostStatic {
    ~HostStatic() {
        CCmCleanUpBase::CleanupAll();
        if (CCmSingletonT<HostSingleton>::Instance()->m_nValue != 42) {
            abort();
        }
        CCmCleanUpBase::CleanupAll();
    }
};
HostStatic g_HostStatic;

// A thread object of the host's that lives from before main until behind it.
class AdoptedThread : public ACmThread {
  public:
    void OnThreadRun() override {}
};

struct HostThread {
    HostThread() : pThread(new AdoptedThread) {
        bCreated = pThread->Create(TT_MAIN, TF_JOINABLE, 1) == CM_OK;
        bFound = getCurrentThread() == pThread;
    }
    ~HostThread() {
        if (getCurrentThread() != pThread) {
            abort();
        }
        pThread->Destory(0);
        pForgotten->Create(TT_MAIN, TF_JOINABLE, 1);
        if (getCurrentThread() != pForgotten) {
            abort();
        }
    }

    AdoptedThread* const pThread;
    AdoptedThread* const pForgotten = new AdoptedThread;  // still registered at the end
    bool bCreated;
    bool bFound;
};
// Constructed before the static objects of default priority, wherever these are.
__attribute__((init_priority(200))) HostThread g_HostThread;

// Runs when all static objects of the program are gone, as threads may that nobody stopped. Those
// of a library that is linked into it are gone, too, and the registry is empty.
void UseAtTheEnd() {
    ACmThread* pCurrent = getCurrentThread();
    if (pCurrent != nullptr && pCurrent != g_HostThread.pForgotten) {
        abort();
    }
}

TEST(CmStaticInit, Threads_AreFoundFromBeforeMainOn) {
    EXPECT_TRUE(g_HostThread.bCreated);
    EXPECT_TRUE(g_HostThread.bFound);
    EXPECT_EQ(g_HostThread.pThread, getCurrentThread());
}

TEST(CmStaticInit, Mutexes_AreUsableBeforeMain) {
    EXPECT_TRUE(g_Found.bRecursive);
    EXPECT_TRUE(g_Found.bSharedMutex);
}

TEST(CmStaticInit, Singletons_AreUsableBeforeMain) {
    EXPECT_EQ(42, g_Found.nValue);
    EXPECT_GT(g_Found.llTicks, 0);
}

TEST(CmStaticInit, Values_AreReadyBeforeMain) {
    EXPECT_EQ(9223372036854775807, g_Found.llSeconds);
    EXPECT_EQ(999999, g_Found.llMicroseconds);
    EXPECT_EQ(1u, g_Found.dwCount);
}

TEST(CmStaticInit, Start_TracesNothing) {
    EXPECT_EQ(0u, g_dwLines);
}

}  // namespace
}  // namespace UTIL_NS
