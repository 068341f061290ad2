// A host's own static objects use the library's mutexes and singletons, before main and after it.
// Built twice: against the library's objects and against the shared library.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "CmClock.h"
#include "CmConditionVariable.h"
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

class HostStatic {
  public:
    HostStatic() CM_NO_THREAD_SAFETY_ANALYSIS {
        set_util_external_trace_sink(CountLine);
        m_bRecursive = g_SingletonMutex.Lock() == CM_OK && g_SingletonMutex.Lock() == CM_OK &&
                       g_SingletonMutex.UnLock() == CM_OK && g_SingletonMutex.UnLock() == CM_OK;
        m_bSharedMutex = s_ReferenceControlMutexThread.Lock() == CM_OK &&
                         s_ReferenceControlMutexThread.UnLock() == CM_OK;
        HostSingleton* pSingleton = CCmSingletonT<HostSingleton>::Instance();
        m_nValue = pSingleton != nullptr ? pSingleton->m_nValue : 0;
        m_llTicks = tick_policy::now();
        m_tvMax = CCmTimeValue::s_tvMax;
        CCmComAutoPtr<HostObject> ptr(new HostObject);
        m_dwCount = ptr->GetReference();
        set_util_external_trace_sink(nullptr);
    }
    ~HostStatic() {
        CCmCleanUpBase::CleanupAll();
        if (CCmSingletonT<HostSingleton>::Instance()->m_nValue != 42) {
            abort();
        }
        CCmCleanUpBase::CleanupAll();
    }

    bool m_bRecursive = false;
    bool m_bSharedMutex = false;
    int m_nValue = 0;
    long long m_llTicks = 0;
    CCmTimeValue m_tvMax;
    uint32_t m_dwCount = 0;
};

// Constructed before the static objects of a library that is linked into the program, and
// destroyed behind them.
#if defined(__APPLE__)
HostStatic g_HostStatic;
#else
__attribute__((init_priority(101))) HostStatic g_HostStatic;
#endif

TEST(CmStaticInit, Mutexes_AreUsableBeforeMain) {
    EXPECT_TRUE(g_HostStatic.m_bRecursive);
    EXPECT_TRUE(g_HostStatic.m_bSharedMutex);
}

TEST(CmStaticInit, Singletons_AreUsableBeforeMain) {
    EXPECT_EQ(42, g_HostStatic.m_nValue);
    EXPECT_GT(g_HostStatic.m_llTicks, 0);
}

TEST(CmStaticInit, Values_AreReadyBeforeMain) {
    EXPECT_EQ(9223372036854775807, g_HostStatic.m_tvMax.GetSec());
    EXPECT_EQ(999999, g_HostStatic.m_tvMax.GetUsec());
    EXPECT_EQ(1u, g_HostStatic.m_dwCount);
}

TEST(CmStaticInit, Start_TracesNothing) {
    EXPECT_EQ(0u, g_dwLines);
}

}  // namespace
}  // namespace UTIL_NS
