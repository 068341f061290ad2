// A host's own static objects use the library, before main and after it. Built three times: against
// the library's objects, which are then constructed after those of this file, against the shared
// library, and linked statically throughout.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "CmClock.h"
#include "CmConditionVariable.h"
#include "CmConfig.h"
#include "CmLogStream.h"
#include "CmT120Trace.h"
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
    char szConfigFile[CM_CONFIG_PATH_SIZE];
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
    get_config_file_name(g_Found.szConfigFile);
    set_util_external_trace_sink(nullptr);
}

// No test runs any more when the process exits: what is found wrong then aborts it.
void AbortUnless(bool aCondition) {
    if (!aCondition) {
        abort();
    }
}

// Configures the library and traces, which loads the facility.
struct HostConfiguration {
    HostConfiguration() {
        sDefaultName = g_kelto_config_file_name;
        sOtherName = g_rabbitmq_config_file_name;
        bCLocale = ccuLoc == std::locale::classic() && ccuCvter.max_length() == 1;
        memcpy(g_def_kelto_home_dir, mkdtemp(szHome), sizeof(szHome));
        const std::string sDir = szHome;
        mkdir((sDir + "/conf").c_str(), 0700);
        FILE* pFile = fopen((sDir + "/conf/host.cfg").c_str(), "w");
        fputs("[Trace]\nEnable=0\n", pFile);
        fclose(pFile);
        set_kelto_config_file_name("host.cfg");
        const char szText[] = "before main";
        util_adapter_trace(CM_TRACE_LEVEL_ERROR, szText, sizeof(szText) - 1);
        bEnabled = CCmT120Trace::instance()->enable_trace_print(0, nullptr) != 0;
    }
    ~HostConfiguration() {
        AbortUnless(ConfigFile() == std::string(szHome) + "/conf/host.cfg");
        AbortUnless(g_rabbitmq_config_file_name == "rabbitmq-config.xml");
        AbortUnless(ccuLoc == std::locale::classic());
        set_kelto_config_file_name("another_name_that_is_not_short.cfg");
        AbortUnless(ConfigFile() ==
                    std::string(szHome) + "/conf/another_name_that_is_not_short.cfg");
        const std::string sDir = szHome;
        for (const char* pszName : {"/conf/host.cfg", "/conf", "/logs", ""}) {
            remove((sDir + pszName).c_str());
        }
    }
    static std::string ConfigFile() {
        char szPath[CM_CONFIG_PATH_SIZE];
        get_config_file_name(szPath);
        return szPath;
    }

    char szHome[13] = "/tmp/kXXXXXX";
    std::string sDefaultName;
    std::string sOtherName;
    bool bCLocale;
    bool bEnabled;
};
// Traces first and is destroyed last.
__attribute__((init_priority(150))) HostConfiguration g_HostConfiguration;

// Destroyed after the library's own static objects, wherever these are.
struct HostStatic {
    ~HostStatic() CM_NO_THREAD_SAFETY_ANALYSIS {
        CCmCleanUpBase::CleanupAll();
        AbortUnless(CCmSingletonT<HostSingleton>::Instance()->m_nValue == 42);
        CCmCleanUpBase::CleanupAll();
        AbortUnless(g_SingletonMutex.Lock() == CM_OK && g_SingletonMutex.UnLock() == CM_OK);
        AbortUnless(s_ReferenceControlMutexThread.Lock() == CM_OK &&
                    s_ReferenceControlMutexThread.UnLock() == CM_OK);
        AbortUnless(g_thread_Mutex.Lock() == CM_OK && g_thread_Mutex.UnLock() == CM_OK);
    }
};
__attribute__((init_priority(200))) HostStatic g_HostStatic;

// A thread object of the host's that lives from before main until after it.
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
        AbortUnless(getCurrentThread() == pThread);
        pThread->Destory(0);
        pForgotten->Create(TT_MAIN, TF_JOINABLE, 1);
        AbortUnless(getCurrentThread() == pForgotten);
    }

    AdoptedThread* const pThread;
    AdoptedThread* const pForgotten = new AdoptedThread;  // still registered at the end
    bool bCreated;
    bool bFound;
};
// Constructed before the static objects of default priority, wherever these are.
__attribute__((init_priority(200))) HostThread g_HostThread;

// Runs when all static objects of the program are gone, as threads may that nobody stopped.
void UseAtTheEnd() CM_NO_THREAD_SAFETY_ANALYSIS {
    AbortUnless(getCurrentThread() == g_HostThread.pForgotten);
    AbortUnless(g_SingletonMutex.Lock() == CM_OK && g_SingletonMutex.UnLock() == CM_OK);
    CCmCleanUpBase::CleanupAll();
}

TEST(CmStaticInit, ThreadsAreFound_BeforeMainAndAfter) {
    EXPECT_TRUE(g_HostThread.bCreated);
    EXPECT_TRUE(g_HostThread.bFound);
    EXPECT_EQ(g_HostThread.pThread, getCurrentThread());
}

TEST(CmStaticInit, MutexesAreUsable_BeforeMain) {
    EXPECT_TRUE(g_Found.bRecursive);
    EXPECT_TRUE(g_Found.bSharedMutex);
}

TEST(CmStaticInit, SingletonsAreUsable_BeforeMain) {
    EXPECT_EQ(42, g_Found.nValue);
    EXPECT_GT(g_Found.llTicks, 0);
}

TEST(CmStaticInit, ValuesAreReady_BeforeMain) {
    EXPECT_EQ(9223372036854775807, g_Found.llSeconds);
    EXPECT_EQ(999999, g_Found.llMicroseconds);
    EXPECT_EQ(1u, g_Found.dwCount);
}

TEST(CmStaticInit, ConfigurationIsFound_BeforeMainAndAfter) {
    EXPECT_STREQ("/tmp/conf/kelto.cfg", g_Found.szConfigFile);
    EXPECT_EQ("kelto.cfg", g_HostConfiguration.sDefaultName);
    EXPECT_EQ("rabbitmq-config.xml", g_HostConfiguration.sOtherName);
    EXPECT_TRUE(g_HostConfiguration.bCLocale);
}

TEST(CmStaticInit, ConfigFileNameIsKept_WhenItWasSetBeforeMain) {
    EXPECT_EQ(std::string(g_HostConfiguration.szHome) + "/conf/host.cfg",
              HostConfiguration::ConfigFile());
}

TEST(CmStaticInit, FacilityIsLoadedWithItsFile_WhenALineIsTracedBeforeMain) {
    EXPECT_FALSE(g_HostConfiguration.bEnabled);
    EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(0, nullptr));
}

TEST(CmStaticInit, TracesNothing_WhenItStarts) {
    EXPECT_EQ(0u, g_dwLines);
}

}  // namespace
}  // namespace UTIL_NS
