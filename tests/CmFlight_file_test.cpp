// The flight recorder's files: where they are made and which are kept, and what becomes of a
// process whose file cannot be made, is cut, or is shared with a forked child.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CmFlight.h"
#include "CmSystem.h"
#include "CmT120Trace.h"
#include "port/CmPort.h"
#include "support/ChildProcess.h"
#include "support/FaultRows.h"
#include "support/Faults.h"
#include "support/Flight.h"
#include "support/Home.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::CheckFaultRows;
using kelto_test::EndProcess;
using kelto_test::Failing;
using kelto_test::Fault;
using kelto_test::FlightFile;
using kelto_test::FlightThread;
using kelto_test::NO_LINE;
using kelto_test::Returned;
using kelto_test::ScopedDirectory;
using kelto_test::ScopedFlight;
using kelto_test::ScopedHome;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;
using kelto_test::WriteFile;

// A variable of the environment, restored at its end. aValue: null for none.
class ScopedVariable {
  public:
    ScopedVariable(const char* aName, const char* aValue) : m_pszName(aName) {
        const char* const pszBefore = getenv(aName);
        m_bWasSet = pszBefore != nullptr;
        m_sBefore = m_bWasSet ? pszBefore : "";
        Set(aValue);
    }
    ~ScopedVariable() { Set(m_bWasSet ? m_sBefore.c_str() : nullptr); }

  private:
    void Set(const char* aValue) const {
        EXPECT_EQ(0, aValue != nullptr ? setenv(m_pszName, aValue, 1) : unsetenv(m_pszName));
    }

    const char* const m_pszName;
    bool m_bWasSet;
    std::string m_sBefore;
};

// Small, as all files of these tests.
CCmFlightOptions Options(const char* aDirectory) {
    CCmFlightOptions options;
    options.m_dwUnits = 256;
    options.m_dwThreads = 4;
    options.m_bLines = false;
    options.m_pszDirectory = aDirectory;
    return options;
}

// Opens it, closes it and returns the path of the file, empty when there was none.
std::string PathOf(const CCmFlightOptions& aOptions, CmResult aExpected = CM_OK) {
    EXPECT_EQ(aExpected, CCmFlight::Open(aOptions));
    char szPath[1024];
    CCmFlight::CopyPath(szPath, sizeof(szPath));
    CCmFlight::Close();
    return szPath;
}

mode_t ModeOf(const std::string& aPath) {
    struct stat status = {};
    EXPECT_EQ(0, stat(aPath.c_str(), &status)) << aPath;
    return status.st_mode & 07777;
}

// ---- Where it lies

TEST(CmFlightFile, LiesUnreadableForOthers_WhenTheUserHasARuntimeDirectory) {
    const ScopedDirectory runtime;
    const ScopedVariable variable("XDG_RUNTIME_DIR", runtime.path().c_str());
    const mode_t mask = umask(0);
    const std::string sPath = PathOf(Options(nullptr));
    umask(mask);
    const std::string sDirectory = runtime.path() + "/kelto";
    ASSERT_EQ(sDirectory + "/", sPath.substr(0, sDirectory.size() + 1));
    EXPECT_EQ(0700u, ModeOf(sDirectory));
    EXPECT_EQ(0600u, ModeOf(sPath));
    const FlightFile file(sPath);
    ASSERT_TRUE(file.isValid);
    EXPECT_EQ(file.processName + "." + std::to_string(getpid()) + "." +
                  std::to_string(file.startWall) + ".flight",
              sPath.substr(sDirectory.size() + 1));
}

TEST(CmFlightFile, LiesBelowTheTemporaryDirectory_WithoutARuntimeDirectory) {
    char szOfUser[1024];
    if (CmPortUserDirectory(szOfUser, sizeof(szOfUser))) {
        GTEST_SKIP() << "this system has a directory of its own for the user";
    }
    const ScopedDirectory temporary;
    const ScopedVariable none("XDG_RUNTIME_DIR", nullptr);
    const ScopedVariable variable("TMPDIR", temporary.path().c_str());
    const std::string sDirectory = temporary.path() + "/kelto-" + std::to_string(geteuid());
    EXPECT_EQ(0u, PathOf(Options(nullptr)).find(sDirectory + "/"));
    EXPECT_EQ(0700u, ModeOf(sDirectory));
    // A relative directory is none.
    const ScopedVariable relative("XDG_RUNTIME_DIR", "run");
    EXPECT_EQ(0u, PathOf(Options("")).find(sDirectory + "/"));
}

TEST(CmFlightFile, IsNotMade_WhenTheDirectoryIsNotTheUsersAlone) {
    const ScopedDirectory directory;
    const std::string sPlace = directory.path() + "/d";
    const char* const pszPlace = sPlace.c_str();
    std::filesystem::create_directory(directory.path() + "/other");
    chmod((directory.path() + "/other").c_str(), 0700);
    const struct {
        const char* name;
        void (*make)(const char*);
    } cases[] = {
        {"others may read it",
         [](const char* aPath) {
             mkdir(aPath, 0);
             chmod(aPath, 0750);
         }},
        {"others may write to it",
         [](const char* aPath) {
             mkdir(aPath, 0);
             chmod(aPath, 0707);
         }},
        {"nobody may use it",
         [](const char* aPath) {
             mkdir(aPath, 0);
             chmod(aPath, 0500);
         }},
        {"a link to one that is", [](const char* aPath) { EXPECT_EQ(0, symlink("other", aPath)); }},
        {"a file", [](const char* aPath) { WriteFile(aPath, ""); }},
        {"a pipe", [](const char* aPath) { EXPECT_EQ(0, mkfifo(aPath, 0600)); }},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        row.make(pszPlace);
        const ScopedTraceSink sink;
        EXPECT_EQ("", PathOf(Options(pszPlace), CM_ERROR_FAILURE));
        const std::string sLine =
            "CCmFlight::Open, no file, not a directory of this user alone. path=" + sPlace;
        EXPECT_EQ(1u, sink.count(sLine)) << (sink.lines().empty() ? "" : sink.lines()[0].text);
        EXPECT_EQ(1u, sink.lines().size());
        EXPECT_EQ(0, remove(pszPlace));
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory.path() + "/other"));
}

TEST(CmFlightFile, IsNotMade_WhenTheDirectoryIsAnotherUsers) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    const ScopedDirectory directory;
    const std::string sPlace = directory.path() + "/d";
    ASSERT_EQ(0, mkdir(sPlace.c_str(), 0700));
    ASSERT_EQ(0, chown(sPlace.c_str(), 4711, 4711));
    const ScopedTraceSink sink;
    EXPECT_EQ("", PathOf(Options(sPlace.c_str()), CM_ERROR_FAILURE));
    EXPECT_EQ(1u, sink.count("not a directory of this user alone. path=" + sPlace));
    EXPECT_TRUE(std::filesystem::is_empty(sPlace));
}

TEST(CmFlightFile, IsNotMade_WhenTheDirectoryCannotBeMadeOrItsPathIsTooLong) {
    const ScopedDirectory directory;
    const ScopedTraceSink sink;
    EXPECT_EQ("", PathOf(Options((directory.path() + "/no/d").c_str()), CM_ERROR_FAILURE));
    EXPECT_EQ("UTIL WARNING: CCmFlight::Open, no file, open() failed! err=" +
                  std::to_string(ENOENT) + " path=" + directory.path() + "/no/d",
              sink.lines().at(0).text);
    const std::string sLong = directory.path() + "/" + std::string(900, 'x');
    EXPECT_EQ("", PathOf(Options(sLong.c_str()), CM_ERROR_FAILURE));
    EXPECT_EQ(1u, sink.count("open() failed! err=" + std::to_string(ENAMETOOLONG)));
}

TEST(CmFlightFile, IsNotMade_WhenAskedForMemoryOnly) {
    const ScopedDirectory directory;
    CCmFlightOptions options = Options(directory.path().c_str());
    options.m_bFile = false;
    const ScopedTraceSink sink;
    ASSERT_EQ(CM_OK, CCmFlight::Open(options));
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("memory");
    ASSERT_NE(nullptr, pRing);
    pRing->Post(1, nullptr, pRing, nullptr);
    long long llUsec = 0;
    EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
    CCmFlight::Tick(1, 1);
    CCmFlight::Detach(pRing);
    CCmFlight::Close();
    EXPECT_TRUE(directory.names().empty());
    EXPECT_TRUE(sink.lines().empty());
}

TEST(CmFlightFile, TellsTheExitOfAProgramFromOneThatIsKilled) {
    const ScopedDirectory directory;
    const auto endOf = [&](void (*aEnd)()) {
        const pid_t process = fork();
        if (process == 0) {
            if (CCmFlight::Open(Options(directory.path().c_str())) == CM_OK) {
                aEnd();
            }
            EndProcess(1);
        }
        int nStatus = 0;
        waitpid(process, &nStatus, 0);
        const std::vector<std::string> names = directory.names();
        EXPECT_EQ(1u, names.size());
        const std::string sPath = directory.path() + "/" + names.at(0);
        const FlightFile file(sPath);
        EXPECT_TRUE(file.isValid);
        std::filesystem::remove(sPath);
        return file.endWall;
    };
    EXPECT_NE(0u, endOf([] { std::exit(0); }));
    EXPECT_EQ(0u, endOf([] { raise(SIGKILL); }));
    EXPECT_EQ(0u, endOf([] { std::abort(); }));
}

TEST(CmFlightFile, TakesNoLines_WhenThereIsNone) {
    const ScopedHome home;
    CCmT120Trace::instance();
    CCmFlightOptions options;
    options.m_bFile = false;
    EXPECT_EQ(CM_OK, CCmFlight::Open(options));
    EXPECT_FALSE(CCmT120Trace::is_wanted(27));
    CCmFlight::Close();
    options.m_bFile = true;
    options.m_pszDirectory = "/nowhere/there";
    EXPECT_EQ(CM_ERROR_FAILURE, CCmFlight::Open(options));
    EXPECT_FALSE(CCmT120Trace::is_wanted(27));
    CCmFlight::Close();
}

TEST(CmFlightFile, IsMadeOnce_WhenOpenedTwice) {
    const ScopedFlight flight;
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED,
              CCmFlight::Open(Options(flight.directory().path().c_str())));
    EXPECT_EQ(1u, flight.directory().names().size());
}

// ---- Which are kept

using Names = std::set<std::string>;

TEST(CmFlightFile, KeepsTheFiveNewestAndThoseInUse_WhenMoreWereLeft) {
    const ScopedDirectory directory;
    const auto path = [&](const std::string& aName) { return directory.path() + "/" + aName; };
    Names kept;
    const auto add = [&](const std::string& aName, bool aIsKept) {
        WriteFile(path(aName), "x");
        if (aIsKept) {
            kept.insert(aName);
        }
    };
    // The order in which they began decides, not that of their names or process ids.
    add("a.900.100.flight", false);
    add("b.1.1000.flight", true);
    add("c.2.999.flight", true);
    add("z.30000.101.flight", false);
    add("a.b.c.3.998.flight", true);
    add("a.4.18446744073709551.flight", true);
    add("a.5.500.flight", true);
    add("a.6.499.flight", false);
    // In use.
    add("a.7.1.flight", true);
    const int nInUse = open(path("a.7.1.flight").c_str(), O_RDWR);
    ASSERT_EQ(0, flock(nInUse, LOCK_EX | LOCK_NB));
    // Not the recorder's.
    for (const char* pszName :
         {"a.8.1.flights", "a.8.flight", ".8.1.flight", "a.8.1", "a.x.1.flight", "a.8.x.flight",
          "a..1.flight", "a.8..flight", ".flight", "8.1.flight", "notes"}) {
        add(pszName, true);
    }
    ASSERT_EQ(0, symlink("notes", path("a.9.1.flight").c_str()));
    ASSERT_EQ(0, mkfifo(path("a.9.2.flight").c_str(), 0600));
    ASSERT_EQ(0, mkdir(path("a.9.3.flight").c_str(), 0700));
    kept.insert({"a.9.1.flight", "a.9.2.flight", "a.9.3.flight"});

    const std::string sNew = PathOf(Options(directory.path().c_str()));
    kept.insert(sNew.substr(directory.path().size() + 1));
    const std::vector<std::string> names = directory.names();
    EXPECT_EQ(kept, Names(names.begin(), names.end()));
    close(nInUse);
}

TEST(CmFlightFile, KeepsFiveAndItsOwn_WhenItIsOpenedOverAndOver) {
    const ScopedDirectory directory;
    std::vector<std::string> paths;
    for (int i = 0; i < 9; ++i) {
        paths.push_back(PathOf(Options(directory.path().c_str())));
        usleep(2);  // a file is named after its microsecond
        EXPECT_EQ(std::min<size_t>(paths.size(), 6), directory.names().size());
    }
    for (size_t i = 0; i < paths.size(); ++i) {
        EXPECT_EQ(i >= 3, std::filesystem::exists(paths[i])) << i;
    }
}

// Locks a file that is made, as programs do that ask whether it is in use, and lets it go later.
std::thread* s_pLooking = nullptr;
decltype(g_cmSystem.openat) s_pfnOpenAt = nullptr;
int OpenWhileSomebodyLooks(int aDirectory, const char* aPath, int aFlags, mode_t aMode) {
    const int nFile = s_pfnOpenAt(aDirectory, aPath, aFlags, aMode);
    if ((aFlags & O_CREAT) != 0) {
        const int nOther = s_pfnOpenAt(aDirectory, aPath, O_RDONLY, 0);
        EXPECT_EQ(0, flock(nOther, LOCK_SH | LOCK_NB));
        *s_pLooking = std::thread([nOther] {
            usleep(3000);
            close(nOther);
        });
    }
    return nFile;
}

TEST(CmFlightFile, IsInUse_WhenSomebodyLooksWhetherItIsWhileItIsMade) {
    const ScopedDirectory directory;
    std::thread looking;
    s_pLooking = &looking;
    {
        const kelto_test::ScopedEntry<decltype(g_cmSystem.openat)> entry(g_cmSystem.openat,
                                                                         &OpenWhileSomebodyLooks);
        s_pfnOpenAt = entry.original();
        EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
    }
    looking.join();
    const int nFile = open((directory.path() + "/" + directory.names().at(0)).c_str(), O_RDONLY);
    EXPECT_EQ(-1, flock(nFile, LOCK_SH | LOCK_NB));
    EXPECT_EQ(EWOULDBLOCK, errno);
    close(nFile);
    CCmFlight::Close();
}

// ---- Calls that fail

// aInject makes the aNth of its calls fail.
template <typename Injection>
void ExpectNoFile(const char* aCall, int aError, Injection aInject, unsigned long aNth) {
    SCOPED_TRACE(aCall);
    const ScopedDirectory directory;
    const ScopedTraceSink sink;
    {
        const auto pFault = aInject(aNth, Failing::ONCE);
        EXPECT_EQ(CM_ERROR_FAILURE, CCmFlight::Open(Options(directory.path().c_str())));
    }
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].text.find(
                      "UTIL WARNING: CCmFlight::Open, no file, " + std::string(aCall) +
                      "() failed! err=" + std::to_string(aError) + " path=" + directory.path()))
        << sink.lines()[0].text;
    EXPECT_TRUE(directory.names().empty()) << "nothing is left behind";
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("no file");
    ASSERT_NE(nullptr, pRing) << "there are rings all the same";
    pRing->Post(1, nullptr, pRing, nullptr);
    long long llUsec = 0;
    EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
    CCmFlight::Tick(1, 1);
    CCmFlight::Detach(pRing);
    CCmFlight::Close();
}

TEST(CmFlightFile, GivesWayToMemory_WhenACallFails) {
    typedef CCmSystemTable T;
    { const ScopedFlight flight; }  // so that there are rings
    ExpectNoFile("open", EMFILE, Fault<&T::open>(EMFILE, -1), 1);
    ExpectNoFile("fstat", EIO, Fault<&T::fstat>(EIO, -1), 1);
    ExpectNoFile("openat", EACCES, Fault<&T::openat>(EACCES, -1), 2);
    ExpectNoFile("posix_fallocate", ENOSPC, Returned<&T::posix_fallocate>(ENOSPC), 1);
    ExpectNoFile("mmap", ENODEV, Fault<&T::mmap, void*>(ENODEV, MAP_FAILED), 1);
}

// A call that fails may have unmapped what was at the fixed address.
decltype(g_cmSystem.mmap) s_pfnMapPrivate = nullptr;
int s_nFailingFlags = 0;

void* MapUnlessShared(void* aAddress, size_t aSize, int aProtection, int aFlags, int aFile,
                      off_t aOffset) {
    if ((aFlags & s_nFailingFlags) != s_nFailingFlags) {
        return s_pfnMapPrivate(aAddress, aSize, aProtection, aFlags, aFile, aOffset);
    }
    if ((aFlags & MAP_FIXED) != 0) {
        munmap(aAddress, aSize);
    }
    errno = ENODEV;
    return MAP_FAILED;
}

TEST(CmFlightFile, GivesWayToMemory_WhenTheCallThatMapsItUnmapsTheMemory) {
    for (const int nFlags : {MAP_SHARED, MAP_SHARED | MAP_FIXED}) {
        EXPECT_EQ(0, StatusOfChild([nFlags] {
                      const ScopedDirectory directory;
                      s_nFailingFlags = nFlags;
                      s_pfnMapPrivate = g_cmSystem.mmap;
                      const kelto_test::ScopedEntry<decltype(g_cmSystem.mmap)> entry(
                          g_cmSystem.mmap, &MapUnlessShared);
                      EXPECT_EQ(CM_ERROR_FAILURE,
                                CCmFlight::Open(Options(directory.path().c_str())));
                      EXPECT_TRUE(directory.names().empty());
                      CCmFlightRing* const pRing = CCmFlight::AttachThisThread("in memory");
                      ASSERT_NE(nullptr, pRing);
                      pRing->Post(1, nullptr, pRing, nullptr);
                      long long llUsec = 0;
                      EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
                      CCmFlight::Close();
                  }));
    }
}

// On some file systems a call that makes room ends when a signal comes, that of a profiler's timer.
TEST(CmFlightFile, IsMade_WhenSignalsInterruptTheCallThatMakesRoom) {
    const ScopedDirectory directory;
    const auto pFault = Returned<&CCmSystemTable::posix_fallocate>(EINTR)(1, Failing::ONCE);
    EXPECT_TRUE(FlightFile(PathOf(Options(directory.path().c_str()))).isValid);
}

// Beyond the limit the system sends a signal that ends the process.
TEST(CmFlightFile, GivesWayToMemory_WhenTheProcessMayNotHaveFilesOfItsSize) {
    const ScopedDirectory directory;
    EXPECT_EQ(0, StatusOfChild([&] {
                  rlimit before = {};
                  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
                  const rlimit limit = {4096, before.rlim_max};
                  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
                  const ScopedTraceSink sink;
                  EXPECT_EQ("", PathOf(Options(directory.path().c_str()), CM_ERROR_FAILURE));
                  EXPECT_EQ(1u,
                            sink.count("posix_fallocate() failed! err=" + std::to_string(EFBIG)));
                  // What measures coverage writes a file at the end.
                  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
              }));
    EXPECT_TRUE(directory.names().empty());
}

TEST(CmFlightFile, IsMade_WhateverFailsOfOldOnes) {
    typedef CCmSystemTable T;
    const ScopedDirectory directory;
    const auto open = [&] { return FlightFile(PathOf(Options(directory.path().c_str()))).isValid; };
    const auto expectMade = [&](const char* aName, auto aInject, size_t aFiles) {
        SCOPED_TRACE(aName);
        std::filesystem::remove_all(directory.path());
        ASSERT_EQ(0, mkdir(directory.path().c_str(), 0700));
        for (int i = 1; i <= 7; ++i) {
            WriteFile(directory.path() + "/a.1." + std::to_string(i) + ".flight", "");
        }
        const auto pFault = aInject(1, Failing::FROM_THERE_ON);
        EXPECT_TRUE(open());
        EXPECT_EQ(aFiles, directory.names().size());
    };
    // What cannot be locked may be in use.
    expectMade("flock", Fault<&T::flock>(ENOLCK, -1), 7 + 1);
    expectMade("unlinkat", Fault<&T::unlinkat>(EPERM, -1), 7 + 1);
    expectMade("fdopendir", Fault<&T::fdopendir, DIR*>(ENOMEM, nullptr), 7 + 1);
    expectMade("close", Fault<&T::close>(EINTR, -1, kelto_test::Effect::ALL_THE_SAME), 5 + 1);
}

TEST(CmFlightFile, LeavesNoMemoryAndNoDescriptor_WhateverCallFails) {
    typedef CCmSystemTable T;
    const ScopedDirectory directory;
    WriteFile(directory.path() + "/a.1.1.flight", "");
    // 0: there is a file. The names of files are not what this is about.
    const auto open = [&] {
        const CmResult rv = CCmFlight::Open(Options(directory.path().c_str()));
        CCmFlight::Close();
        for (const std::string& sName : directory.names()) {
            if (sName != "a.1.1.flight") {
                std::filesystem::remove(directory.path() + "/" + sName);
            }
        }
        return static_cast<long>(rv);
    };
    const std::string sOpen =
        "UTIL WARNING: CCmFlight::Open, no file, open() failed! err=" ERRNO_TEXT(EMFILE) " path=" +
        directory.path();
    CheckFaultRows({
        {"directory EEXIST", Fault<&T::mkdir>(EEXIST, -1), open, CM_OK, CM_OK, NO_LINE},
        {"directory EMFILE", Fault<&T::open>(EMFILE, -1), open, CM_OK, CM_ERROR_FAILURE,
         sOpen.c_str()},
        {"list ENOMEM", Fault<&T::fdopendir, DIR*>(ENOMEM, nullptr), open, CM_OK, CM_OK, NO_LINE},
        {"lock ENOLCK", Fault<&T::flock>(ENOLCK, -1), open, CM_OK, CM_OK, NO_LINE, 2},
    });
}

TEST(CmFlightFile, GivesAThreadNoRing_WhenItsEndWouldNotBeSeen) {
    const ScopedFlight flight;
    {
        const auto pFault =
            Returned<&CCmSystemTable::pthread_setspecific>(ENOMEM)(1, Failing::ONCE);
        EXPECT_EQ(nullptr, CCmFlight::AttachThisThread("no end"));
    }
    EXPECT_NE(nullptr, CCmFlight::AttachThisThread("has an end"));
}

// ---- Cut by others

TEST(CmFlightFile, GivesWayToMemoryAndSaysSoOnce_WhenItIsCut) {
    for (const off_t size : {off_t{0}, off_t{4096}, off_t{140 * 1024}}) {
        SCOPED_TRACE(size);
        const ScopedFlight flight;
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread("cut");
        std::thread([&] {
            CCmFlightRing* const pOther = CCmFlight::AttachThisThread("other");
            pOther->Post(1, nullptr, pOther, nullptr);
        }).join();
        const ScopedTraceSink sink;
        CCmFlight::Tick(1, 1);
        EXPECT_TRUE(sink.lines().empty());
        ASSERT_EQ(0, truncate(flight.path().c_str(), size));
        for (int i = 0; i < 1000; ++i) {
            errno = 4711;
            pRing->Post(i, nullptr, pRing, nullptr);
            EXPECT_EQ(4711, errno);
        }
        std::thread([&] {
            for (int n = 0; n < 4; ++n) {  // every slot is used
                std::thread([&] {
                    CCmFlightRing* const pOther = CCmFlight::AttachThisThread("another");
                    ASSERT_NE(nullptr, pOther);
                    pOther->Post(1, nullptr, pOther, nullptr);
                }).join();
            }
        }).join();
        long long llUsec = 0;
        EXPECT_TRUE(pRing->FindPost(pRing, 1000, llUsec));
        EXPECT_EQ(999, llUsec);
        CCmFlight::Tick(2, 2);
        CCmFlight::Tick(3, 3);
        ASSERT_EQ(1u, sink.lines().size());
        EXPECT_EQ(
            "UTIL WARNING: CCmFlight::Tick, the file was cut or its disk failed, records go "
            "nowhere. path=" +
                flight.path(),
            sink.lines()[0].text);
    }
}

// A bus error that is blocked ends the process whatever handles it.
TEST(CmFlightFile, GivesWayToMemory_WhenTheThreadHadBlockedAllSignals) {
    const ScopedFlight flight;
    std::thread([&] {
        sigset_t signals;
        sigfillset(&signals);
        EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, &signals, nullptr));
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread("blocks signals");
        ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
        pRing->Post(1, nullptr, pRing, nullptr);
        long long llUsec = 0;
        EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
        EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, nullptr, &signals));
        EXPECT_EQ(0, sigismember(&signals, SIGBUS));
        EXPECT_EQ(1, sigismember(&signals, SIGTERM)) << "no other";
    }).join();
}

// As a host's main thread does, which waits for signals and records nothing.
TEST(CmFlightFile, GivesWayToMemory_WhenAThreadThatBlocksAllSignalsEndsIt) {
    EXPECT_EQ(0, StatusOfChild([] {
                  const ScopedFlight flight;
                  sigset_t signals;
                  sigfillset(&signals);
                  EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, &signals, nullptr));
                  ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
                  CCmFlight::Close();
                  EXPECT_EQ(0, pthread_sigmask(SIG_SETMASK, nullptr, &signals));
                  EXPECT_EQ(1, sigismember(&signals, SIGBUS)) << "it has them blocked again";
              }));
}

TEST(CmFlightFile, IsCutOnce_WhenThreadsRecordAllTheTime) {
    const ScopedFlight flight;
    std::atomic<bool> bEnd{false};
    std::atomic<int> nBegan{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            CCmFlightRing* const pRing = CCmFlight::AttachThisThread("records");
            ++nBegan;
            long long llUsec = 0;
            while (!bEnd) {
                pRing->Post(0, nullptr, pRing, nullptr);
            }
            pRing->Post(0, nullptr, pRing, nullptr);
            EXPECT_TRUE(pRing->FindPost(pRing, INT64_MAX, llUsec));
        });
    }
    while (nBegan < 3) {
        std::this_thread::yield();
    }
    ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
    const ScopedTraceSink sink;
    while (sink.lines().empty()) {
        CCmFlight::Tick(1, 1);  // itself looks at the file
    }
    bEnd = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// In a process of its own, since the handler stays.
TEST(CmFlightFile, IsLookedAfter_WhenNoMemoryTakesItsPlaceAtTheEnd) {
    EXPECT_EQ(0, StatusOfChild([] {
                  const ScopedFlight flight;
                  CCmFlightRing* const pRing = CCmFlight::AttachThisThread("after the end");
                  {
                      const auto pFault =
                          Fault<&CCmSystemTable::mmap, void*>(ENOMEM, MAP_FAILED)(1, Failing::ONCE);
                      CCmFlight::Close();
                  }
                  ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
                  pRing->Post(1, nullptr, pRing, nullptr);
                  long long llUsec = 0;
                  EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
              }));
}

// A second replacement would take away what has been recorded since the first.
std::atomic<int> s_nReplacements{0};
std::atomic<bool> s_bOtherComes{false};
decltype(g_cmSystem.mmap) s_pfnMmap = nullptr;

void* MapWhileTheOtherComes(void* aAddress, size_t aSize, int aProtection, int aFlags, int aFile,
                            off_t aOffset) {
    if (++s_nReplacements == 1) {
        while (!s_bOtherComes) {
            sched_yield();
        }
        usleep(20000);  // in which it faults as well
    }
    return s_pfnMmap(aAddress, aSize, aProtection, aFlags, aFile, aOffset);
}

TEST(CmFlightFile, IsReplacedOnce_WhenTwoThreadsFindItCut) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("first");
    std::atomic<bool> bCut{false};
    std::atomic<bool> bReady{false};
    std::thread other([&] {
        CCmFlightRing* const pOther = CCmFlight::AttachThisThread("second");
        bReady = true;
        while (!bCut || s_nReplacements == 0) {
            sched_yield();
        }
        s_bOtherComes = true;
        pOther->Post(1, nullptr, pOther, nullptr);
    });
    while (!bReady) {
        sched_yield();
    }
    s_pfnMmap = g_cmSystem.mmap;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.mmap)> entry(g_cmSystem.mmap,
                                                                   &MapWhileTheOtherComes);
    ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
    bCut = true;
    pRing->Post(1, nullptr, pRing, nullptr);
    other.join();
    EXPECT_EQ(1, s_nReplacements);
    long long llUsec = 0;
    EXPECT_TRUE(pRing->FindPost(pRing, 1, llUsec));
}

// ---- Other bus errors

std::jmp_buf s_jump;
std::atomic<int> s_nHandled{0};

// Touches a file of this test's own that was cut, until somebody jumps out of it.
void FaultElsewhere(const std::string& aPath) {
    WriteFile(aPath, std::string(4096, 'x'));
    const int nFile = open(aPath.c_str(), O_RDWR);
    volatile char* const pMapped =
        static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, nFile, 0));
    EXPECT_EQ(0, ftruncate(nFile, 0));
    *pMapped = 'y';
}

void InstallHandler(void (*aHandler)(int, siginfo_t*, void*)) {
    struct sigaction action = {};
    action.sa_sigaction = aHandler;
    action.sa_flags = SA_SIGINFO;
    EXPECT_EQ(0, sigaction(SIGBUS, &action, nullptr));
}

TEST(CmFlightFile, LeavesOtherBusErrorsToTheHandlerBefore) {
    EXPECT_EQ(0, StatusOfChild([] {
                  InstallHandler([](int, siginfo_t* aInfo, void*) {
                      ++s_nHandled;
                      if (aInfo->si_code > 0 && aInfo->si_code != SI_USER) {
                          std::longjmp(s_jump, 1);
                      }
                  });
                  const ScopedFlight flight;
                  CCmFlightRing* const pRing = CCmFlight::AttachThisThread("faults");
                  if (setjmp(s_jump) == 0) {
                      FaultElsewhere(flight.directory().path() + "/other");
                      ADD_FAILURE() << "no fault";
                  }
                  EXPECT_EQ(1, s_nHandled);
                  sigset_t jumpedOut;
                  sigemptyset(&jumpedOut);
                  sigaddset(&jumpedOut, SIGBUS);
                  EXPECT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &jumpedOut, nullptr));
                  raise(SIGBUS);
                  EXPECT_EQ(2, s_nHandled);
                  ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
                  pRing->Post(1, nullptr, pRing, nullptr);
                  EXPECT_EQ(2, s_nHandled);
                  CCmFlight::Close();
                  struct sigaction action = {};
                  EXPECT_EQ(0, sigaction(SIGBUS, nullptr, &action));
                  raise(SIGBUS);
                  EXPECT_EQ(3, s_nHandled) << "the handler before is back";
              }));
}

TEST(CmFlightFile, LeavesOtherBusErrorsToAHandlerWithoutInformation) {
    EXPECT_EQ(0, StatusOfChild([] {
                  signal(SIGBUS, [](int) { ++s_nHandled; });
                  const ScopedFlight flight;
                  raise(SIGBUS);
                  EXPECT_EQ(1, s_nHandled);
                  CCmFlight::Close();
                  raise(SIGBUS);
                  EXPECT_EQ(2, s_nHandled);
                  signal(SIGBUS, SIG_IGN);
                  EXPECT_EQ(CM_OK, CCmFlight::Open(Options(flight.directory().path().c_str())));
                  raise(SIGBUS);
              }));
}

TEST(CmFlightFile, LetsOtherBusErrorsEndTheProcess_WhenNobodyHandlesThem) {
    const ScopedDirectory directory;
    for (const bool bIsSent : {false, true}) {
        for (const bool bIsIgnored : {false, true}) {
            if (bIsSent && bIsIgnored) {
                continue;  // that one goes on
            }
            const int nStatus = StatusOfChild([&] {
                signal(SIGBUS, bIsIgnored ? SIG_IGN : SIG_DFL);
                EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
                if (bIsSent) {
                    kill(getpid(), SIGBUS);
                } else {
                    FaultElsewhere(directory.path() + "/other");
                }
            });
            EXPECT_TRUE(WIFSIGNALED(nStatus)) << nStatus;
            EXPECT_EQ(SIGBUS, WTERMSIG(nStatus));
        }
    }
}

// As those do that report a crash: they return, and the fault comes again and ends the process.
TEST(CmFlightFile, LetsOtherBusErrorsEndTheProcess_WhenTheirHandlerIsForOne) {
    const ScopedDirectory directory;
    for (const bool bIsSent : {false, true}) {
        const int nStatus = StatusOfChild([&] {
            struct sigaction action = {};
            action.sa_handler = [](int) {
                if (++s_nHandled > 1) {
                    _exit(1);
                }
            };
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            EXPECT_EQ(0, sigaction(SIGBUS, &action, nullptr));
            EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
            if (bIsSent) {
                raise(SIGBUS);
                EXPECT_EQ(1, s_nHandled);
                CCmFlight::Close();
                raise(SIGBUS);
            } else {
                FaultElsewhere(directory.path() + "/other");
            }
        });
        EXPECT_TRUE(WIFSIGNALED(nStatus)) << nStatus;
        EXPECT_EQ(SIGBUS, WTERMSIG(nStatus));
    }
}

TEST(CmFlightFile, LetsOtherBusErrorsEndTheProcess_WhenTheDefaultHasAHandlersFlags) {
    const ScopedDirectory directory;
    const int nStatus = StatusOfChild([&] {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        action.sa_flags = SA_SIGINFO;
        EXPECT_EQ(0, sigaction(SIGBUS, &action, nullptr));
        EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
        FaultElsewhere(directory.path() + "/other");
    });
    EXPECT_TRUE(WIFSIGNALED(nStatus)) << nStatus;
    EXPECT_EQ(SIGBUS, WTERMSIG(nStatus));
}

TEST(CmFlightFile, StaysTheHandlerBefore_WhenSomebodyInstallsOneAfterIt) {
    EXPECT_EQ(0, StatusOfChild([] {
                  static struct sigaction s_before;
                  CCmFlightRing* pRing = nullptr;
                  for (int i = 0; i < 3; ++i) {
                      const ScopedFlight flight;
                      pRing = CCmFlight::AttachThisThread("chained");
                      if (i == 0) {
                          sigaction(SIGBUS, nullptr, &s_before);
                          InstallHandler([](int aSignal, siginfo_t* aInfo, void* aContext) {
                              ++s_nHandled;
                              s_before.sa_sigaction(aSignal, aInfo, aContext);
                          });
                      }
                      ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
                      pRing->Post(1, nullptr, pRing, nullptr);
                      EXPECT_EQ(i + 1, s_nHandled);
                  }
              }));
}

// ---- Forks and processes

TEST(CmFlightFile, BelongsToTheParent_WhenTheProcessForks) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("parent");
    pRing->Post(1, nullptr, pRing, nullptr);
    const uint64_t ullWritten = flight.ReadThread("parent").written;
    EXPECT_EQ(
        0, StatusOfChild([&] {
            EXPECT_FALSE(CCmFlight::IsOpen());
            EXPECT_EQ(pRing, CCmFlight::RingOfThisThread());
            for (int i = 0; i < 1000; ++i) {
                pRing->Post(2, nullptr, pRing, nullptr);
            }
            CCmFlight::Tick(5, 5);
            std::thread([] { EXPECT_EQ(nullptr, CCmFlight::AttachThisThread("child")); }).join();
            EXPECT_EQ(ullWritten, flight.ReadThread("parent").written);
            CCmFlight::Detach(pRing);
            EXPECT_EQ(1u, flight.ReadThread("parent").state);
            CCmFlight::Close();
        }));
    const FlightFile file = flight.Read();
    EXPECT_EQ(0u, file.endWall);
    EXPECT_EQ(0u, file.tickWall);
    EXPECT_EQ(ullWritten, flight.ReadThread("parent").written);
    pRing->Post(3, nullptr, pRing, nullptr);
    EXPECT_EQ(ullWritten + 1, flight.ReadThread("parent").written);
    ASSERT_EQ(0, truncate(flight.path().c_str(), 0));
    pRing->Post(4, nullptr, pRing, nullptr);  // still looked after
}

TEST(CmFlightFile, IsTheChildsOwn_WhenItIsOpenedAfterAFork) {
    const ScopedFlight flight;
    CCmFlight::AttachThisThread("both")->Post(1, nullptr, &flight, nullptr);
    const ScopedDirectory directory;
    EXPECT_EQ(0, StatusOfChild([&] {
                  EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
                  CCmFlight::AttachThisThread("child")->Post(7, nullptr, &flight, nullptr);
                  char szPath[1024];
                  CCmFlight::CopyPath(szPath, sizeof(szPath));
                  const FlightFile file(szPath);
                  ASSERT_TRUE(file.isValid);
                  EXPECT_EQ(static_cast<uint32_t>(getpid()), file.process);
                  ASSERT_EQ(1u, file.Named("child").size());
                  EXPECT_EQ(7u, file.Named("child")[0]->records.back().time);
              }));
    EXPECT_TRUE(flight.Read().Named("child").empty());
}

TEST(CmFlightFile, IsLeft_WhenItsProcessIsKilledThoughAChildLives) {
    const ScopedDirectory directory;
    int pipes[2][2];
    ASSERT_EQ(0, pipe(pipes[0]));
    ASSERT_EQ(0, pipe(pipes[1]));
    const pid_t parent = fork();
    if (parent == 0) {
        EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
        if (fork() == 0) {  // ends with the test's pipe
            char ch = 0;
            EXPECT_EQ(1, write(pipes[0][1], "c", 1));
            close(pipes[1][1]);
            EndProcess(read(pipes[1][0], &ch, 1) == 0 ? 0 : 1);
        }
        pause();
    }
    char ch = 0;
    ASSERT_EQ(1, read(pipes[0][0], &ch, 1));
    const std::vector<std::string> names = directory.names();
    ASSERT_EQ(1u, names.size());
    const int nFile = open((directory.path() + "/" + names[0]).c_str(), O_RDONLY);
    EXPECT_EQ(-1, flock(nFile, LOCK_EX | LOCK_NB)) << "in use";
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    EXPECT_EQ(0, flock(nFile, LOCK_EX | LOCK_NB)) << "left";
    close(nFile);
    for (auto& ends : pipes) {
        close(ends[0]);
        close(ends[1]);
    }
}

TEST(CmFlightFile, IsEachProcessesOwn_WhenTwoRecordAtOnce) {
    const ScopedDirectory directory;
    int pipes[2];
    ASSERT_EQ(0, pipe(pipes));
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            const std::string sName = "process " + std::to_string(i);
            EXPECT_EQ(CM_OK, CCmFlight::Open(Options(directory.path().c_str())));
            CCmFlightRing* const pRing = CCmFlight::AttachThisThread(sName.c_str());
            for (int n = 0; n < 100; ++n) {
                pRing->HighWater(n, static_cast<DWORD>(i), nullptr);
            }
            EXPECT_EQ(1, write(pipes[1], "r", 1));
            pause();
        }
    }
    char achBoth[2];
    for (char& ch : achBoth) {
        ASSERT_EQ(1, read(pipes[0], &ch, 1));
    }
    std::set<uint32_t> processes;
    for (const std::string& sName : directory.names()) {
        const FlightFile file(directory.path() + "/" + sName);
        ASSERT_TRUE(file.isValid);
        processes.insert(file.process);
        const int i = file.process == static_cast<uint32_t>(children[0]) ? 0 : 1;
        const auto found = file.Named("process " + std::to_string(i));
        ASSERT_EQ(1u, found.size());
        ASSERT_EQ(101u, found[0]->records.size());
        for (size_t n = 1; n < found[0]->records.size(); ++n) {
            EXPECT_EQ(static_cast<uint64_t>(i), found[0]->records[n].words[0]);
        }
    }
    EXPECT_EQ((std::set<uint32_t>{static_cast<uint32_t>(children[0]),
                                  static_cast<uint32_t>(children[1])}),
              processes);
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    close(pipes[0]);
    close(pipes[1]);
}

}  // namespace
}  // namespace UTIL_NS
