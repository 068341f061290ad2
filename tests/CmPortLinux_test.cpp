// What only the Linux platform file does: the executable's name, the module and the bundle.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "CmConfig.h"
#include "CmWorker.h"
#include "port/CmPort.h"
#include "support/ChildProcess.h"
#include "support/FaultRows.h"
#include "support/Gate.h"
#include "support/Home.h"

// What posix_fallocate returns, and how often it has been called.
static int s_nAllocateError = 0;
static int s_nAllocations = 0;

extern "C" int posix_fallocate(int /*aFile*/, off_t /*aStart*/, off_t /*aSize*/) {
    ++s_nAllocations;
    return s_nAllocateError;
}

// Above zero while a test has given the usual priorities a range, from 15 to this.
static int s_nUsualHighest = 0;

extern "C" int sched_get_priority_min(int aPolicy) noexcept {
    return aPolicy == SCHED_OTHER && s_nUsualHighest > 0
               ? 15
               : static_cast<int>(syscall(SYS_sched_get_priority_min, aPolicy));
}

extern "C" int sched_get_priority_max(int aPolicy) noexcept {
    return aPolicy == SCHED_OTHER && s_nUsualHighest > 0
               ? s_nUsualHighest
               : static_cast<int>(syscall(SYS_sched_get_priority_max, aPolicy));
}

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::Fault;
using kelto_test::Gate;
using kelto_test::NO_LINE;
using kelto_test::ScopedEntry;

// What readlink("/proc/self/exe") gives.
std::string s_sExecutable;
ssize_t FakeReadlink(const char* /*aPath*/, char* aBuffer, size_t aSize) {
    const size_t nLength = std::min(aSize, s_sExecutable.size());
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): neither does readlink terminate it
    memcpy(aBuffer, s_sExecutable.data(), nLength);
    return static_cast<ssize_t>(nLength);
}

// Runs aCheck in a new process in which the name has not been read yet.
#define EXPECT_WITH_EXECUTABLE(aPath, aCheck)           \
    do {                                                \
        GTEST_FLAG_SET(death_test_style, "threadsafe"); \
        EXPECT_EXIT(                                    \
            {                                           \
                s_sExecutable = (aPath);                \
                g_cmSystem.readlink = FakeReadlink;     \
                EndProcess((aCheck) ? 0 : 1);           \
            },                                          \
            testing::ExitedWithCode(0), "");            \
    } while (0)

bool IsText(const char* aExpected, const char* aActual) {
    if (strcmp(aExpected, aActual) != 0) {
        fprintf(stderr, "got \"%s\"\n", aActual);
    }
    return strcmp(aExpected, aActual) == 0;
}

TEST(CmPortLinuxName, ReadsAsItsFirstCharacter_WhenItIsAscii) {
    EXPECT_WITH_EXECUTABLE("/opt/bin/agent", IsText("a", get_exec_name()));
    EXPECT_WITH_EXECUTABLE("/opt/bin/agent",
                           memcmp(get_exec_name(), "a\0g\0e\0n\0t\0\0\0", 12) == 0);
    EXPECT_WITH_EXECUTABLE("/opt/bin/agent", IsText("a", get_process_name()));
    EXPECT_WITH_EXECUTABLE("agent", IsText("a", get_exec_name()));
}

TEST(CmPortLinuxName, IsConvertedFirst_WhenItIsNotAscii) {
    // U+4E2D, U+6587 and U+E9: the bytes 2D 4E 87 65 E9 00.
    EXPECT_WITH_EXECUTABLE("/opt/\xE4\xB8\xAD\xE6\x96\x87\xC3\xA9",
                           IsText("\x2D\x4E\x87\x65\xE9", get_exec_name()));
    // U+1F600 is the pair D83D DE00.
    EXPECT_WITH_EXECUTABLE("/opt/\xF0\x9F\x98\x80",
                           memcmp(get_exec_name(), "\x3D\xD8\x00\xDE\x00", 6) == 0);
}

TEST(CmPortLinuxName, ReplacesBytes_WhenTheyAreNoText) {
    // Each such byte is U+FFFD.
    for (const char* pBad : {"\xFF", "\x80", "\xC3", "\xC0\xAF", "\xE4\xB8", "\xED\xA0\x80",
                             "\xF4\x90\x80\x80", "\xE0\x80\x80", "\xF8\x80"}) {
        SCOPED_TRACE(testing::PrintToString(pBad));
        EXPECT_WITH_EXECUTABLE(std::string("/opt/") + pBad,
                               strncmp(get_exec_name(), "\xFD\xFF", 2) == 0 &&
                                   strlen(get_exec_name()) == 2 * strlen(pBad));
    }
}

std::u16string NameOf(const std::string& aBytes) {
    s_sExecutable = "/opt/" + aBytes;
    ScopedEntry<decltype(g_cmSystem.readlink)> entry(g_cmSystem.readlink, FakeReadlink);
    uint16_t awUnits[CM_PORT_NAME_UNITS];
    const size_t nUnits = CmPortExecutableName(awUnits);
    return std::u16string(awUnits, awUnits + nUnits);
}

TEST(CmPortLinuxName, IsConverted_WhenItIsOfTheFirstAndTheLastCharacters) {
    EXPECT_EQ(u"\x0001\x007F", NameOf("\x01\x7F"));                  // of one byte
    EXPECT_EQ(u"\x0080\x07FF", NameOf("\xC2\x80\xDF\xBF"));          // of two
    EXPECT_EQ(u"\x0800\xFFFF", NameOf("\xE0\xA0\x80\xEF\xBF\xBF"));  // of three
    EXPECT_EQ(u"\xD7FF\xE000", NameOf("\xED\x9F\xBF\xEE\x80\x80"));  // beside surrogates
    EXPECT_EQ(u"\xD800\xDC00", NameOf("\xF0\x90\x80\x80"));          // of four
    EXPECT_EQ(u"\xDBFF\xDFFF", NameOf("\xF4\x8F\xBF\xBF"));
    for (const char* pBad : {
             "\x80", "\xBF", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",  // too long
             "\xED\xA0\x80", "\xED\xBF\xBF",                                  // surrogates
             "\xF4\x90\x80\x80", "\xF7\xBF\xBF\xBF", "\xF8\x88\x80\x80\x80",  // too large
             "\xE4\xB8\xC0", "\xE4\xFF\x80",                                  // no more bytes
         }) {
        EXPECT_EQ(std::u16string(strlen(pBad), 0xFFFD), NameOf(pBad))
            << testing::PrintToString(pBad);
    }
    EXPECT_EQ(u"\xFFFD\xFFFDx", NameOf("\xE4\xB8x"));
}

TEST(CmPortLinuxName, IsCutBeforeAPair_WhenThatHasNoRoom) {
    EXPECT_EQ(std::u16string(253, 'x') + u"\xD83D\xDE00",
              NameOf(std::string(253, 'x') + "\xF0\x9F\x98\x80" + "y"));
    EXPECT_EQ(std::u16string(254, 'x'), NameOf(std::string(254, 'x') + "\xF0\x9F\x98\x80"));
}

TEST(CmPortLinuxName, IsTerminated_WhenItIsTheLongest) {
    std::string sName = "/opt/";
    std::string sBytes;
    for (int i = 0; i < 300; ++i) {
        sName += "\xE4\xB8\xAD";
        sBytes += i < 255 ? "\x2D\x4E" : "";
    }
    EXPECT_WITH_EXECUTABLE(sName, IsText(sBytes.c_str(), get_exec_name()));
}

TEST(CmPortLinuxName, IsEmpty_WhenItIsUnknown) {
    EXPECT_WITH_EXECUTABLE("", IsText("", get_exec_name()));
    EXPECT_WITH_EXECUTABLE("", IsText("", get_process_name()));
    EXPECT_WITH_EXECUTABLE("/" + std::string(5000, 'x'), IsText("", get_exec_name()));
}

TEST(CmPortLinuxName, NameIsAskedForAgain_WhenItCouldNotBeRead) {
    EXPECT_WITH_EXECUTABLE("", IsText("", get_exec_name()) && !(s_sExecutable = "agent").empty() &&
                                   IsText("a", get_exec_name()));
}

TEST(CmPortLinuxName, NameIsReadOnce) {
    EXPECT_WITH_EXECUTABLE("/opt/bin/agent", (get_exec_name(), s_sExecutable = "/opt/bin/other",
                                              IsText("a", get_exec_name())));
}

TEST(CmPortLinuxFiles, AreAskedForAgain_WhileTheCallIsInterrupted) {
    const struct {
        int error;
        int calls;
    } rows[] = {{0, 1}, {ENOSPC, 1}, {EINTR, 100}};  // it does not go on for ever
    for (const auto& row : rows) {
        s_nAllocateError = row.error;
        s_nAllocations = 0;
        EXPECT_EQ(row.error, CmPortAllocateFile(7, 0, 100));
        EXPECT_EQ(row.calls, s_nAllocations);
    }
}

class CmPortLinuxParentPath : public testing::Test {
  protected:
    static int Get(const char* aExecutable, int aSize) {
        s_sExecutable = aExecutable;
        ScopedEntry<decltype(g_cmSystem.readlink)> entry(g_cmSystem.readlink, FakeReadlink);
        return MMP_GetCurrentModuleParentPath(s_achPath, aSize);
    }
    static char s_achPath[64];
};
char CmPortLinuxParentPath::s_achPath[64];

TEST_F(CmPortLinuxParentPath, IsFourDirectoriesUp) {
    EXPECT_EQ(4, Get("/opt/App/Contents/bin/agent", 64));
    EXPECT_STREQ("/opt", s_achPath);
    EXPECT_EQ(1, Get("/a/b/c/agent", 64));
    EXPECT_STREQ("/", s_achPath);
    EXPECT_EQ(1, Get("/agent", 64));
    EXPECT_STREQ("/", s_achPath);
}

TEST_F(CmPortLinuxParentPath, Fails_WhenThePathDoesNotFit) {
    EXPECT_EQ(4, Get("/opt/a/b/c/d", 5));
    EXPECT_EQ(0, Get("/opt/a/b/c/d", 4));
}

TEST_F(CmPortLinuxParentPath, Fails_WhenTheExecutableIsUnknown) {
    EXPECT_EQ(0, Get("", 64));
    EXPECT_EQ(0, Get(("/" + std::string(5000, 'x')).c_str(), 64));
    // As the kernel names a file that no path leads to.
    EXPECT_EQ(0, Get("(unreachable)/agent", 64));
    EXPECT_EQ(0, Get("agent", 64));
}

const char* s_pModule = nullptr;
int FakeDladdr(const void* /*aAddress*/, Dl_info* aInfo) {
    aInfo->dli_fname = s_pModule;
    return s_pModule != nullptr ? 1 : 0;
}

int NamelessDladdr(const void* /*aAddress*/, Dl_info* aInfo) {
    aInfo->dli_fname = nullptr;
    return 1;
}

TEST(CmPortLinuxModule, PathIsMissing_WhenTheLoaderKnowsNoName) {
    ScopedEntry<decltype(g_cmSystem.dladdr)> entry(g_cmSystem.dladdr, NamelessDladdr);
    char szPath[8];
    EXPECT_FALSE(CmPortModulePath(szPath, sizeof(szPath)));
}

TEST(CmPortLinuxModule, PathComesFromTheLoader) {
    ScopedEntry<decltype(g_cmSystem.dladdr)> entry(g_cmSystem.dladdr, FakeDladdr);
    char szPath[8];
    s_pModule = "/a/b.so";
    EXPECT_TRUE(CmPortModulePath(szPath, 8));
    EXPECT_STREQ("/a/b.so", szPath);
    EXPECT_FALSE(CmPortModulePath(szPath, 7));
    s_pModule = nullptr;
    EXPECT_FALSE(CmPortModulePath(szPath, 8));
}

TEST(CmPortLinuxModule, IsAFile_WhenTheModuleIsLoaded) {
    char szPath[1024];
    ASSERT_TRUE(CmPortModulePath(szPath, sizeof(szPath)));
    EXPECT_TRUE(std::filesystem::exists(szPath)) << szPath;
}

TEST(CmPortLinuxItem, ExtensionIsWhatFollowsADotWithinTheName) {
    kelto_test::ScopedHome home;
    const auto item = [&](const char* aName) {
        kelto_test::WriteFile(home.path() + aName, "");
        return CmPortItemInformation((home.path() + aName).c_str());
    };
    EXPECT_EQ(CmPortItem::WITH_EXTENSION, item("libutil.so"));
    EXPECT_EQ(CmPortItem::WITH_EXTENSION, item("libutil.so.1.0.0"));
    EXPECT_EQ(CmPortItem::WITH_EXTENSION, item("\xE4\xB8\xAD.so"));
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, item("util"));
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, item(".util"));
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, item("util."));
    EXPECT_EQ(CmPortItem::UNKNOWN, CmPortItemInformation((home.path() + "none.so").c_str()));
}

TEST(CmPortLinuxItem, ExtensionIsNone_WhenTheDotIsInADirectory) {
    kelto_test::ScopedHome home;
    std::filesystem::create_directory(home.path() + "a.framework");
    const std::string sPath = home.path() + "a.framework/util";
    kelto_test::WriteFile(sPath, "");
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, CmPortItemInformation(sPath.c_str()));
}

TEST(CmPortLinuxBundle, BundleIsOnlyLookedFor) {
    kelto_test::ScopedHome home;
    const std::string sPath = home.path() + "yrktrace.bundle";
    EXPECT_EQ(nullptr, CmPortBundleCreate(sPath.c_str()));
    std::filesystem::create_directory(sPath);
    void* const hBundle = CmPortBundleCreate(sPath.c_str());
    ASSERT_NE(nullptr, hBundle);
    EXPECT_EQ(nullptr, CmPortBundleFunction(hBundle, "YRKINFO2"));
    CmPortBundleRelease(hBundle);
}

TEST(CmPortLinux, CutsTheNameOfAThreadToItsLimit) {
    CCmWorker worker(CCmWorkerOptions().Name("a name of more than fifteen bytes"));
    EXPECT_EQ("a name of more ", *CmCall(worker, [] {
                  char szName[64] = {};
                  pthread_getname_np(pthread_self(), szName, sizeof(szName));
                  return std::string(szName);
              }));
}

TEST(CmPortLinux, PreciseWaitsAreThoseOfAWorkerThatAskedForThem) {
    const auto slack = [] { return prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0); };
    CCmWorker usual;
    CCmWorker precise(CCmWorkerOptions().PreciseTimers());
    EXPECT_EQ(slack(), *CmCall(usual, slack));
    EXPECT_EQ(1, *CmCall(precise, slack));
}

int s_nAskedPolicy = -1;
int s_nAskedPriority = -1;

int NoteScheduling(pthread_t /*aThread*/, int aPolicy, const sched_param* aParameter) {
    s_nAskedPolicy = aPolicy;
    s_nAskedPriority = aParameter->sched_priority;
    return 0;
}

TEST(CmPortLinux, UsualPriorityIsTheMiddle_WhenThereAreSeveral) {
    const ScopedEntry<decltype(g_cmSystem.pthread_setschedparam)> entry(
        g_cmSystem.pthread_setschedparam, &NoteScheduling);
    CCmWorker worker;
    s_nUsualHighest = 47;
    EXPECT_EQ(CM_OK, worker.SetPriority(0));
    s_nUsualHighest = 0;
    EXPECT_EQ(SCHED_OTHER, s_nAskedPolicy);
    EXPECT_EQ(31, s_nAskedPriority);
}

TEST(CmPortLinux, WorkerIsDetached_WhenItEndsOnItsOwnThread) {
    int nState = -1;
    Gate ended;
    auto pWorker = std::make_unique<CCmWorker>(CCmWorkerOptions().OnEnd([&] {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getdetachstate(&attributes, &nState);
            pthread_attr_destroy(&attributes);
        }
        ended.Open();
    }));
    CmPost(*pWorker, [&pWorker] { std::exchange(pWorker, nullptr).reset(); });
    EXPECT_TRUE(ended.Wait());
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, nState) << "nobody else frees what the system keeps of it";
}

TEST(CmPortLinux, HasNoUserDirectoryOfItsOwn) {
    char szPath[64] = "unchanged";
    EXPECT_FALSE(CmPortUserDirectory(szPath, sizeof(szPath)));
    EXPECT_STREQ("unchanged", szPath);
}

long long CoarseUsec() {
    timespec tsNow = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &tsNow);
    return tsNow.tv_sec * 1000000LL + tsNow.tv_nsec / 1000;
}

TEST(CmPortLinux, CoarseTimeIsThatOfTheLastTick) {
    const long long llBefore = CoarseUsec();
    timeval tvNow = {};
    EXPECT_EQ(0, CmPortCoarseTimeOfDay(&tvNow, nullptr));
    const long long llNow = tvNow.tv_sec * 1000000LL + tvNow.tv_usec;
    EXPECT_LE(llBefore, llNow);
    EXPECT_LE(llNow, CoarseUsec());
}

TEST(CmPortLinux, ConditionWaitUntilEndsByTheMonotonicClock) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec tsStart = {};
    CmPortMonotonicNow(&tsStart);
    timespec tsDeadline = tsStart;
    tsDeadline.tv_nsec += 5000000;
    if (tsDeadline.tv_nsec >= 1000000000) {
        tsDeadline.tv_sec += 1;
        tsDeadline.tv_nsec -= 1000000000;
    }
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(ETIMEDOUT, CmPortConditionWaitUntil(&condition, &mutex, &tsDeadline));
    timespec tsEnd = {};
    CmPortMonotonicNow(&tsEnd);
    EXPECT_LE(5000000,
              (tsEnd.tv_sec - tsStart.tv_sec) * 1000000000 + tsEnd.tv_nsec - tsStart.tv_nsec);
    EXPECT_EQ(ETIMEDOUT, CmPortConditionWaitUntil(&condition, &mutex, &tsStart));
    pthread_mutex_unlock(&mutex);
}

TEST(CmPortLinuxFaults, CallsReturnTheirResult_WhenTheyFail) {
    typedef CCmSystemTable T;
    const auto findParent = [] {
        char szPath[4096];
        return MMP_GetCurrentModuleParentPath(szPath, sizeof(szPath)) > 0 ? 1L : 0L;
    };
    const auto lookAtItem = [] {
        return CmPortItemInformation("/") == CmPortItem::UNKNOWN ? 0L : 1L;
    };
    const auto findBundle = [] { return CmPortBundleCreate("/") == nullptr ? 0L : 1L; };
    kelto_test::CheckFaultRows({
        {"executable ENOENT", Fault<&T::readlink, ssize_t>(ENOENT, -1), findParent, 1, 0, NO_LINE},
        {"executable EACCES", Fault<&T::readlink, ssize_t>(EACCES, -1), findParent, 1, 0, NO_LINE},
        {"item ENOENT", Fault<&T::access>(ENOENT, -1), lookAtItem, 1, 0, NO_LINE},
        {"item EACCES", Fault<&T::access>(EACCES, -1), lookAtItem, 1, 0, NO_LINE},
        {"item ENOTDIR", Fault<&T::access>(ENOTDIR, -1), lookAtItem, 1, 0, NO_LINE},
        {"bundle ENOENT", Fault<&T::access>(ENOENT, -1), findBundle, 1, 0, NO_LINE},
    });
}

}  // namespace
}  // namespace UTIL_NS
