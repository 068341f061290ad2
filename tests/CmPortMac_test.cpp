// The library with its macOS platform file, over fakes of the services that this file calls.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "CmAddress.h"
#include "CmCancel.h"
#include "CmConfig.h"
#include "CmT120Trace.h"
#include "CmUtilMisc.h"
#include "port/CmConditionSemaphore.h"
#include "port/CmPort.h"
#include "port/CmTimeLeft.h"
#include "support/ChildProcess.h"
#include "support/Faults.h"
#include "support/MacServices.h"
#include "support/TraceSink.h"

// What only macOS has: the interval of the last relative wait, which ends at once, and the last
// name.
static timespec s_tsInterval;
static std::string s_sThreadName;

extern "C" int pthread_cond_timedwait_relative_np(pthread_cond_t* /*aCondition*/,
                                                  pthread_mutex_t* /*aMutex*/,
                                                  const timespec* aInterval) {
    s_tsInterval = *aInterval;
    return ETIMEDOUT;
}

int pthread_setname_np(const char* aName) {
    s_sThreadName = aName;
    return 0;
}

// The directory that macOS keeps for the temporary files of the user, null if there is none.
static const char* s_pUserDirectory = nullptr;

#if defined(__APPLE__)
extern "C" size_t confstr(int aName, char* aBuffer, size_t aSize) {
#else
size_t CmMacConfStr(int aName, char* aBuffer, size_t aSize) {
#endif
    if (aName != _CS_DARWIN_USER_TEMP_DIR || s_pUserDirectory == nullptr) {
        return 0;
    }
    const size_t nSize = strlen(s_pUserDirectory) + 1;
    if (aSize >= nSize) {
        memcpy(aBuffer, s_pUserDirectory, nSize);
    }
    return nSize;
}

namespace UTIL_NS {

namespace {

using kelto_test::EndProcess;
using kelto_test::MacService;
using kelto_test::ScopedEntry;
using kelto_test::ScopedMacServices;

constexpr char APPLICATION[] = "/Applications/Host.app/Contents/MacOS/Host";
constexpr char FRAMEWORK[] = "/Apps/util.framework/Versions/A/util";
constexpr char PLAIN[] = "/Apps/lib/util.dylib";
constexpr char BUNDLE[] = "/Apps/lib/yrktrace.bundle";

// ---- Files

TEST(CmPortMacFiles, HaveTheirSize_WhenTheSystemKeepsNoBlocksReady) {
    char szPath[] = "/tmp/kelto_portXXXXXX";
    const int nFile = mkstemp(szPath);
    ASSERT_LE(0, nFile);
    unlink(szPath);
    EXPECT_EQ(0, CmPortAllocateFile(nFile, 0, 100000));
    struct stat status = {};
    EXPECT_EQ(0, fstat(nFile, &status));
    EXPECT_EQ(100000, status.st_size);
    close(nFile);
    EXPECT_EQ(EBADF, CmPortAllocateFile(nFile, 0, 100000));
}

// What the system was asked to keep ready, and the error number of its answer.
fstore_t s_store;
int s_nStoreError = 0;

int RecordingFcntl(int /*aFile*/, int aCommand, void* aArgument) {
    EXPECT_EQ(F_PREALLOCATE, aCommand);
    s_store = *static_cast<const fstore_t*>(aArgument);
    errno = s_nStoreError;
    return s_nStoreError == 0 ? 0 : -1;
}

TEST(CmPortMacFiles, HaveAllTheirBlocksFromTheirEndOn) {
    ScopedEntry<decltype(g_cmSystem.fcntl)> entry(g_cmSystem.fcntl, &RecordingFcntl);
    kelto_test::FailingCall<&CCmSystemTable::ftruncate> sizing(EIO, 0, 1,
                                                               kelto_test::Failing::FROM_THERE_ON);
    s_nStoreError = 0;
    EXPECT_EQ(0, CmPortAllocateFile(7, 0, 100000));
    EXPECT_EQ(static_cast<unsigned>(F_ALLOCATEALL), s_store.fst_flags);
    EXPECT_EQ(F_PEOFPOSMODE, s_store.fst_posmode);
    EXPECT_EQ(0, s_store.fst_offset) << "from the end on, the system takes no other";
    EXPECT_EQ(100000, s_store.fst_length);
    EXPECT_EQ(1u, sizing.calls()) << "the blocks alone are no size";
}

TEST(CmPortMacFiles, Fail_WhenThereIsNoRoom) {
    ScopedEntry<decltype(g_cmSystem.fcntl)> entry(g_cmSystem.fcntl, &RecordingFcntl);
    kelto_test::FailingCall<&CCmSystemTable::ftruncate> sizing(EIO, 0, 1,
                                                               kelto_test::Failing::FROM_THERE_ON);
    s_nStoreError = ENOSPC;
    EXPECT_EQ(ENOSPC, CmPortAllocateFile(7, 0, 100000));
    EXPECT_EQ(0u, sizing.calls()) << "nothing was made larger";
    for (const int nError : {ENOTSUP, EINVAL}) {  // a file system that keeps none ready
        s_nStoreError = nError;
        EXPECT_EQ(0, CmPortAllocateFile(7, 0, 100000));
    }
}

TEST(CmPortMacFiles, HaveNoDirectoryOfTheUsers_WhenTheSystemKnowsNone) {
    char szPath[100];
    EXPECT_FALSE(CmPortUserDirectory(szPath, sizeof(szPath)));
    s_pUserDirectory = "";
    EXPECT_FALSE(CmPortUserDirectory(szPath, sizeof(szPath)));
    s_pUserDirectory = nullptr;
}

TEST(CmPortMacFiles, HaveTheDirectoryOfTheUsers_WhenItFits) {
    s_pUserDirectory = "/T";
    char szPath[3];
    EXPECT_TRUE(CmPortUserDirectory(szPath, 3));
    EXPECT_STREQ("/T", szPath);
    EXPECT_FALSE(CmPortUserDirectory(szPath, 2));
    s_pUserDirectory = nullptr;
}

// ---- Sanitizers

const char* s_pLoadedName = nullptr;

void* FindLoadedName(void* aLibrary, const char* aName) {
    EXPECT_EQ(RTLD_DEFAULT, aLibrary);
    return s_pLoadedName != nullptr && strcmp(s_pLoadedName, aName) == 0 ? &s_pLoadedName : nullptr;
}

TEST(CmPortMacSanitizer, IsKnownByItsStart) {
    ScopedEntry<decltype(g_cmSystem.dlsym)> entry(g_cmSystem.dlsym, &FindLoadedName);
    s_pLoadedName = nullptr;
    EXPECT_FALSE(CmPortHasSanitizer());
    for (const char* pszName : {"__asan_init", "__lsan_init", "__tsan_init"}) {
        s_pLoadedName = pszName;
        EXPECT_TRUE(CmPortHasSanitizer()) << pszName;
    }
}

// ---- Semaphores

TEST(CmPortMacSemaphore, CallsCountAMutexAndAConditionUpAndDown) {
    CmConditionSemaphore semaphore;
    EXPECT_EQ(0, CmPortSemaphoreInit(&semaphore, 0, 1));
    EXPECT_EQ(1u, semaphore.m_dwCount);
    EXPECT_EQ(0, CmPortSemaphoreWait(&semaphore));
    EXPECT_EQ(0u, semaphore.m_dwCount);
    EXPECT_EQ(0, CmPortSemaphorePost(&semaphore));
    EXPECT_EQ(1u, semaphore.m_dwCount);
    EXPECT_EQ(0, CmPortSemaphoreDestroy(&semaphore));
}

TEST(CmPortMacSemaphore, CallsTellWhyTheyFail) {
    CmConditionSemaphore semaphore;
    errno = 0;
    EXPECT_EQ(-1, CmPortSemaphoreInit(&semaphore, 0, 1u + INT_MAX));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_EQ(0, CmPortSemaphoreInit(&semaphore, 0, INT_MAX));
    EXPECT_EQ(-1, CmPortSemaphorePost(&semaphore));
    EXPECT_EQ(EOVERFLOW, errno);
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EDEADLK, EDEADLK);
        EXPECT_EQ(-1, CmPortSemaphoreWait(&semaphore));
        EXPECT_EQ(EDEADLK, errno);
    }
    {
        kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_destroy> fault(EBUSY, EBUSY);
        EXPECT_EQ(-1, CmPortSemaphoreDestroy(&semaphore));
        EXPECT_EQ(EBUSY, errno);
    }
}

// ---- Interfaces

// Two interfaces as macOS reports them: one with a longer address ahead of its IPv4 one.
int MadeUpIoctl(int /*aFile*/, unsigned long aRequest, void* aArgument) {
    if (aRequest == SIOCGIFFLAGS) {
        static_cast<ifreq*>(aArgument)->ifr_flags = IFF_UP;
        return 0;
    }
    const struct {
        const char* name;
        unsigned char length;
        unsigned char family;
        unsigned char last;
    } rows[] = {{"lo0", 28, 30, 9}, {"lo0", 16, AF_INET, 1}, {"en0", 16, AF_INET, 2}};
    ifconf* const pQuery = static_cast<ifconf*>(aArgument);
    char* p = pQuery->ifc_buf;
    for (const auto& row : rows) {
        memset(p, 0, 16u + row.length);
        strcpy(p, row.name);
        p[16] = static_cast<char>(row.length);
        p[17] = static_cast<char>(row.family);
        p[20] = 10;
        p[23] = static_cast<char>(row.last);
        p += 16 + row.length;
    }
    pQuery->ifc_len = static_cast<int>(p - pQuery->ifc_buf);
    return 0;
}

TEST(CmPortMacInterfaces, ListIsReadFromRecordsOfTheirOwnLengths) {
    ScopedEntry<decltype(g_cmSystem.ioctl)> entry(g_cmSystem.ioctl, MadeUpIoctl);
    kelto_test::ScopedTraceSink sink;
    local_addr* pList = nullptr;
    EXPECT_EQ(0, get_local_addr(&pList));
    free_local_addr(pList);
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ("UTIL INFO: addr is: 10.0.0.1", sink.lines()[0].text);
    EXPECT_EQ("UTIL INFO: addr is: 10.0.0.2", sink.lines()[1].text);
}

// ---- The executable's name

std::u16string ExecutableName() {
    uint16_t awUnits[CM_PORT_NAME_UNITS];
    const size_t nUnits = CmPortExecutableName(awUnits);
    return std::u16string(awUnits, awUnits + nUnits);
}

TEST(CmPortMacName, NameComesFromTheCatalog) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, u"Host");
    EXPECT_EQ(u"Host", ExecutableName());
}

TEST(CmPortMacName, IsKeptUnitByUnit_WhenItIsNotAscii) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, u"\u4E2D\u00E9\U0001F600");
    EXPECT_EQ(u"\u4E2D\u00E9\U0001F600", ExecutableName());
}

TEST(CmPortMacName, Fits_WhenItIsTheLongest) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, std::u16string(255, u'n'));
    EXPECT_EQ(std::u16string(255, u'n'), ExecutableName());
}

TEST(CmPortMacName, IsNone_WhateverServiceFails) {
    for (const MacService service :
         {MacService::LOAD_PROCESS_SERVICES, MacService::FIND_GET_PROCESS_INFORMATION,
          MacService::GET_PROCESS_INFORMATION, MacService::FS_GET_CATALOG_INFO}) {
        ScopedMacServices services;
        services.SetApplication(APPLICATION, u"Host");
        services.Fail(service);
        EXPECT_EQ(u"", ExecutableName());
    }
}

// Runs aCheck in a new process, in which the name has not been read yet.
#define EXPECT_NAMED(aName, aService, aCheck)           \
    do {                                                \
        GTEST_FLAG_SET(death_test_style, "threadsafe"); \
        EXPECT_EXIT(                                    \
            {                                           \
                ScopedMacServices services;             \
                services.SetApplication("/a", aName);   \
                services.Fail(aService);                \
                EndProcess((aCheck) ? 0 : 1);           \
            },                                          \
            testing::ExitedWithCode(0), "");            \
    } while (0)

TEST(CmPortMacName, ReadsAsItsFirstCharacter_WhenItIsAscii) {
    EXPECT_NAMED(u"agent", MacService::NONE, strcmp(get_exec_name(), "a") == 0);
}

TEST(CmPortMacName, ReadsAsItsBytes_WhenItIsNotAscii) {
    EXPECT_NAMED(u"\u4E2D\u6587", MacService::NONE,
                 strcmp(get_exec_name(), "\x2D\x4E\x87\x65") == 0);
}

TEST(CmPortMacName, ReadsAsEmpty_WhenItIsUnknown) {
    EXPECT_NAMED(u"agent", MacService::FS_GET_CATALOG_INFO, strcmp(get_exec_name(), "") == 0);
}

// ---- The application's parent path

TEST(CmPortMacParentPath, PathIsMadeInFourSteps) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, u"Host");
    char szPath[64];
    EXPECT_EQ(13, MMP_GetCurrentModuleParentPath(szPath, sizeof(szPath)));
    EXPECT_STREQ("/Applications", szPath);
    EXPECT_EQ((std::vector<unsigned long>{64, 64, 64, 64}), services.name_lengths());
}

TEST(CmPortMacParentPath, Fails_WhenThePathDoesNotFit) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, u"Host");
    char szPath[14];
    EXPECT_EQ(13, MMP_GetCurrentModuleParentPath(szPath, 14));
    EXPECT_EQ(0, MMP_GetCurrentModuleParentPath(szPath, 13));
}

TEST(CmPortMacParentPath, Fails_WhateverServiceFails) {
    struct {
        MacService service;
        int nth;
    } const rows[] = {
        {MacService::LOAD_PROCESS_SERVICES, 1},   {MacService::FIND_GET_PROCESS_INFORMATION, 1},
        {MacService::GET_PROCESS_INFORMATION, 1}, {MacService::FS_MAKE_FSREF_UNICODE, 1},
        {MacService::FS_MAKE_FSREF_UNICODE, 4},   {MacService::FS_REF_MAKE_PATH, 1},
    };
    for (const auto& row : rows) {
        const long lBefore = kelto_test::LiveAllocations();
        {
            ScopedMacServices services;
            services.SetApplication(APPLICATION, u"Host");
            services.Fail(row.service, row.nth);
            char szPath[64];
            EXPECT_EQ(0, MMP_GetCurrentModuleParentPath(szPath, sizeof(szPath)));
        }
        EXPECT_EQ(lBefore, kelto_test::LiveAllocations());
    }
}

TEST(CmPortMacParentPath, Fails_WithoutMemory) {
    ScopedMacServices services;
    services.SetApplication(APPLICATION, u"Host");
    char szPath[8];
    kelto_test::ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
    EXPECT_FALSE(CmPortApplicationParentPath(szPath, sizeof(szPath)));
}

// ---- The module's path and its item information

const char* s_pModule = nullptr;
int FakeDladdr(const void* /*aAddress*/, Dl_info* aInfo) {
    aInfo->dli_fname = s_pModule;
    return s_pModule != nullptr ? 1 : 0;
}
int NamelessDladdr(const void* /*aAddress*/, Dl_info* aInfo) {
    aInfo->dli_fname = nullptr;
    return 1;
}

class CmPortMacModule : public testing::Test {
  protected:
    CmPortMacModule() : m_entry(g_cmSystem.dladdr, FakeDladdr) { s_pModule = PLAIN; }

    ScopedMacServices m_services;

  private:
    ScopedEntry<decltype(g_cmSystem.dladdr)> m_entry;
};

TEST_F(CmPortMacModule, PathComesFromTheLoader) {
    char szPath[sizeof(PLAIN)];
    EXPECT_TRUE(CmPortModulePath(szPath, sizeof(szPath)));
    EXPECT_STREQ(PLAIN, szPath);
    EXPECT_FALSE(CmPortModulePath(szPath, sizeof(szPath) - 1));
    s_pModule = nullptr;
    EXPECT_FALSE(CmPortModulePath(szPath, sizeof(szPath)));
}

TEST_F(CmPortMacModule, PathIsMissing_WhenTheLoaderKnowsNoName) {
    ScopedEntry<decltype(g_cmSystem.dladdr)> entry(g_cmSystem.dladdr, NamelessDladdr);
    char szPath[8];
    EXPECT_FALSE(CmPortModulePath(szPath, sizeof(szPath)));
}

TEST_F(CmPortMacModule, ItemInformationTellsTheExtension) {
    m_services.AddFile(PLAIN);
    m_services.AddFile(FRAMEWORK);
    EXPECT_EQ(CmPortItem::WITH_EXTENSION, CmPortItemInformation(PLAIN));
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, CmPortItemInformation(FRAMEWORK));
    EXPECT_EQ(CmPortItem::UNKNOWN, CmPortItemInformation("/Apps/missing.dylib"));
    m_services.Fail(MacService::LS_COPY_ITEM_INFO);
    EXPECT_EQ(CmPortItem::UNKNOWN, CmPortItemInformation(PLAIN));
}

// The trace facility looks for its bundle as it is constructed.
class CmPortMacBundle : public CmPortMacModule {
  protected:
    // The last path of which a reference was wanted.
    std::string SearchedFrom(const char* aModule) {
        s_pModule = aModule;
        CCmT120TraceMapEntry table[28] = {};
        { CCmT120Trace facility("Test", table, nullptr, 0); }
        EXPECT_EQ(0u, m_services.objects());
        return m_services.wanted().empty() ? "" : m_services.wanted().back();
    }
};

TEST_F(CmPortMacBundle, LiesBesideIt_WhenTheLibraryIsPlain) {
    m_services.AddFile(PLAIN);
    EXPECT_EQ(BUNDLE, SearchedFrom(PLAIN));
}

TEST_F(CmPortMacBundle, LiesBesideThePackage_WhenTheLibraryIsAFramework) {
    m_services.AddFile(FRAMEWORK);
    EXPECT_EQ("/Apps/yrktrace.bundle", SearchedFrom(FRAMEWORK));
}

TEST_F(CmPortMacBundle, LiesBesideIt_WhenTheItemIsUnknown) {
    EXPECT_EQ("/Apps/util.framework/Versions/A/yrktrace.bundle", SearchedFrom(FRAMEWORK));
}

TEST_F(CmPortMacBundle, IsMissing_WhenThePathIsTooShort) {
    m_services.AddFile("/A/util");
    EXPECT_EQ("/A/util", SearchedFrom("/A/util")) << "only the item itself was looked at";
}

TEST_F(CmPortMacBundle, KeepsTheDirectory_WhenItIsNotAscii) {
    EXPECT_EQ("/\xE4\xB8\xAD/yrktrace.bundle", SearchedFrom("/\xE4\xB8\xAD/util.dylib"));
}

TEST_F(CmPortMacBundle, IsNull_WhenItIsMissing) {
    EXPECT_EQ(nullptr, CmPortBundleCreate(BUNDLE));
}

TEST_F(CmPortMacBundle, IsNull_WhenThePathIsNoBundle) {
    m_services.AddFile(BUNDLE);
    EXPECT_EQ(nullptr, CmPortBundleCreate(BUNDLE));
    EXPECT_EQ(0u, m_services.objects());
}

TEST_F(CmPortMacBundle, FunctionIsFoundByName) {
    m_services.AddBundle(BUNDLE, {"YRKINFO2"});
    void* const hBundle = CmPortBundleCreate(BUNDLE);
    ASSERT_NE(nullptr, hBundle);
    EXPECT_EQ(1u, m_services.objects()) << "the bundle alone";
    EXPECT_NE(nullptr, CmPortBundleFunction(hBundle, "YRKINFO2"));
    EXPECT_EQ(nullptr, CmPortBundleFunction(hBundle, "YRKWARN2"));
    EXPECT_EQ(1u, m_services.objects());
    m_services.Fail(MacService::CF_STRING_CREATE);
    EXPECT_EQ(nullptr, CmPortBundleFunction(hBundle, "YRKINFO2"));
    CmPortBundleRelease(hBundle);
    EXPECT_EQ(0u, m_services.objects());
}

TEST_F(CmPortMacBundle, IsMissing_WhateverServiceFails) {
    m_services.AddBundle(BUNDLE, {});
    for (const MacService service :
         {MacService::FS_PATH_MAKE_REF, MacService::CF_URL_CREATE, MacService::CF_BUNDLE_CREATE}) {
        m_services.Fail(service);
        EXPECT_EQ(nullptr, CmPortBundleCreate(BUNDLE));
        EXPECT_EQ(0u, m_services.objects());
    }
}

TEST_F(CmPortMacBundle, FacilityKeepsIt_UntilClose) {
    m_services.AddFile(PLAIN);
    m_services.AddBundle(BUNDLE, {"YRKDEBUG2", "YRKINFO2", "YRKWARN2", "YRKERROR2"});
    CCmT120TraceMapEntry table[28] = {};
    CCmT120Trace facility("Test", table, nullptr, 0);
    EXPECT_EQ(1u, m_services.objects());
    facility.Close();
    EXPECT_EQ(0u, m_services.objects());
}

TEST_F(CmPortMacBundle, FacilityReleasesIt_WhenItEnds) {
    m_services.AddFile(PLAIN);
    m_services.AddBundle(BUNDLE, {});
    EXPECT_EQ(BUNDLE, SearchedFrom(PLAIN));
}

// Clean-up handlers.

// Runs the handlers of this thread as the system does when it cancels one.
void RunHandlers() {
    while (__darwin_pthread_handler_rec* pNewest = CmMacCleanUps()) {
        CmMacCleanUps() = pNewest->__next;
        pNewest->__routine(pNewest->__arg);
    }
}

TEST(CmPortMacCleanUp, HandlersRunNewestFirst_WhenTheThreadIsCancelled) {
    std::string sOrder;
    const auto append = [&sOrder](char aWhich) { return [&sOrder, aWhich] { sOrder += aWhich; }; };
    CCmCleanUpT first(append('1'));
    {
        CCmCleanUpT gone(append('x'));
        gone.Release();
    }
    {
        CCmCleanUpT done(append('0'));
        done.Execute();
    }
    CCmCleanUpT second(append('2'));
    EXPECT_EQ("0", sOrder);
    __darwin_pthread_handler_rec* const pNewest = CmMacCleanUps();
    RunHandlers();
    EXPECT_EQ("021", sOrder);
    CmMacCleanUps() = pNewest;
    second.Release();
    first.Release();
    EXPECT_EQ(nullptr, CmMacCleanUps());
}

TEST(CmPortMacCleanUp, HandlerRunsOnceAndLeavesTheList_WhenAnExceptionPasses) {
    int nRuns = 0;
    try {
        CCmCleanUpT cleanUp([&nRuns] { ++nRuns; });
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(1, nRuns);
    EXPECT_EQ(nullptr, CmMacCleanUps());
}

// Mutexes, conditions and semaphores that could not be made, which cannot be destroyed either.

using kelto_test::FailingCall;
constexpr auto ALWAYS = kelto_test::Failing::FROM_THERE_ON;

struct CmPortMacNeverMade : testing::Test {
    FailingCall<&CCmSystemTable::pthread_mutex_destroy> m_mutexEnds{EINVAL, EINVAL, 1, ALWAYS};
    FailingCall<&CCmSystemTable::pthread_cond_destroy> m_conditionEnds{EINVAL, EINVAL, 1, ALWAYS};
    FailingCall<&CCmSystemTable::sem_destroy> m_semaphoreEnds{EINVAL, -1, 1, ALWAYS};
    kelto_test::ScopedTraceSink m_sink;
};

TEST_F(CmPortMacNeverMade, MutexWritesOneLine) {
    FailingCall<&CCmSystemTable::pthread_mutex_init> fault(ENOMEM, ENOMEM, 1, ALWAYS);
    { CCmMutexThread mutex; }
    EXPECT_EQ(1u, m_sink.lines().size());
    EXPECT_EQ(1u, m_sink.count("CCmMutexThread::CCmMutexThread, pthread_mutex_init() failed!"));
    { CCmMutexThreadRecursive mutex; }
    EXPECT_EQ(2u, m_sink.lines().size());
    EXPECT_EQ(2u, m_sink.count("pthread_mutex_init() failed! err=12"));
}

TEST_F(CmPortMacNeverMade, ConditionWritesOneLine) {
    CCmMutexThread mutex;
    FailingCall<&CCmSystemTable::pthread_cond_init> fault(EAGAIN, EAGAIN);
    { CCmConditionVariableThread condition(mutex); }
    EXPECT_EQ(1u, m_sink.lines().size());
    EXPECT_EQ(1u, m_sink.count("pthread_cond_init() failed!"));
}

TEST_F(CmPortMacNeverMade, SemaphoreWritesOneLine) {
    FailingCall<&CCmSystemTable::sem_init> fault(ENOSYS);
    { CCmSemaphore semaphore(1); }
    EXPECT_EQ(1u, m_sink.lines().size());
    EXPECT_EQ(1u, m_sink.count("sem_init() failed!"));
}

TEST_F(CmPortMacNeverMade, WhatWasMadeWritesALineAtItsEnd) {
    { CCmMutexThread mutex; }
    { CCmMutexThreadRecursive mutex; }
    { CCmSemaphore semaphore(1); }
    EXPECT_EQ(2u, m_sink.count("pthread_mutex_destroy() failed! err=22"));
    EXPECT_EQ(1u, m_sink.count("sem_destroy() failed! err=22"));
}

TEST(CmPortMac, ConditionWaitUntilWaitsForWhatIsLeft) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec tsDeadline = {};
    CmPortMonotonicNow(&tsDeadline);
    tsDeadline.tv_sec += 7;
    EXPECT_EQ(ETIMEDOUT, CmPortConditionWaitUntil(&condition, &mutex, &tsDeadline));
    EXPECT_EQ(6, s_tsInterval.tv_sec);  // and nearly a second
    EXPECT_LT(0, s_tsInterval.tv_nsec);
    EXPECT_GT(1000000000, s_tsInterval.tv_nsec);
    // A deadline that has passed must not become an interval of zero, which has no end.
    tsDeadline.tv_sec -= 8;
    EXPECT_EQ(ETIMEDOUT, CmPortConditionWaitUntil(&condition, &mutex, &tsDeadline));
    EXPECT_EQ(0, s_tsInterval.tv_sec);
    EXPECT_EQ(1, s_tsInterval.tv_nsec);
}

TEST(CmPortMac, TimeLeftIsANanosecond_WhenTheDeadlineHasPassed) {
    const struct {
        timespec now;
        timespec deadline;
        timespec left;
    } rows[] = {
        {{5, 0}, {7, 0}, {2, 0}},
        {{5, 400000000}, {7, 100000000}, {1, 700000000}},
        {{5, 100000000}, {7, 400000000}, {2, 300000000}},
        {{5, 900000000}, {6, 100000000}, {0, 200000000}},
        {{5, 1}, {5, 2}, {0, 1}},
        {{5, 7}, {5, 7}, {0, 1}},
        {{5, 7}, {5, 6}, {0, 1}},
        {{5, 7}, {4, 999999999}, {0, 1}},
        {{5, 7}, {4, 7}, {0, 1}},
    };
    for (const auto& row : rows) {
        const timespec tsLeft = CmTimeLeft(row.now, row.deadline);
        EXPECT_EQ(row.left.tv_sec, tsLeft.tv_sec) << row.deadline.tv_nsec;
        EXPECT_EQ(row.left.tv_nsec, tsLeft.tv_nsec) << row.deadline.tv_nsec;
    }
}

TEST(CmPortMac, CoarseTimeOfDayIsThatOfTheSystem) {
    timeval tvNow = {};
    EXPECT_EQ(0, CmPortCoarseTimeOfDay(&tvNow, nullptr));
    EXPECT_LT(0, tvNow.tv_sec);
}

TEST(CmPortMac, KnowsNoCore) {
    EXPECT_EQ(-1, CmPortCurrentCore());
}

TEST(CmPortMac, CutsTheNameOfAThreadToItsLimit) {
    CmPortNameThisThread("audio");
    EXPECT_EQ("audio", s_sThreadName);
    CmPortNameThisThread(std::string(100, 'x').c_str());
    EXPECT_EQ(std::string(63, 'x'), s_sThreadName);
    CmPortPreciseWaits();
}

}  // namespace
}  // namespace UTIL_NS
