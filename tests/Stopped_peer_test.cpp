// What a process that stops while it holds a trace file's lock may hold up: writers of that file.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "CmLogStream.h"
#include "CmT120Trace.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/EveryCall.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Home.h"
#include "support/TraceLines.h"

namespace UTIL_NS {
namespace {

using kelto_test::EMoment;
using kelto_test::EndProcess;
using kelto_test::Eventually;
using kelto_test::Gate;
using kelto_test::NumberedText;
using kelto_test::ReadFile;
using kelto_test::ScopedCallHook;
using kelto_test::ScopedEntry;
using kelto_test::ScopedHome;
using kelto_test::StatusOfChild;
using kelto_test::WriteFile;

std::string Header(long aPosition) {
    std::string sHeader = std::to_string(aPosition);
    sHeader.resize(31, ' ');
    return sHeader + "\n";
}

struct flock WholeFile(short aType) {
    struct flock request = {};
    request.l_type = aType;
    request.l_whence = SEEK_SET;
    return request;
}

// Another process that holds the lock of a file, stopped until it is let go.
class Peer {
  public:
    explicit Peer(const std::string& aPath) : m_Process(fork()) {
        if (m_Process == 0) {
            const int nFile = open(aPath.c_str(), O_RDWR);
            struct flock request = WholeFile(F_WRLCK);
            if (fcntl(nFile, F_SETLK, &request) == 0) {
                raise(SIGSTOP);
            }
            _exit(0);
        }
        int nStatus = 0;
        waitpid(m_Process, &nStatus, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(nStatus));
    }
    ~Peer() { LetGo(); }

    void LetGo() {
        if (m_Process > 0) {
            kill(m_Process, SIGKILL);
            waitpid(m_Process, nullptr, 0);
            m_Process = -1;
        }
    }

  private:
    pid_t m_Process;
};

// The requests for a lock that have been made, and those that were refused as deadlocks.
std::atomic<int> s_nRequests{0};
std::atomic<int> s_nRefusals{0};

int CountingFcntl(int aFile, int aCommand, void* aRequest) {
    if (static_cast<const struct flock*>(aRequest)->l_type == F_WRLCK) {
        ++s_nRequests;
    }
    const int rv = fcntl(aFile, aCommand, aRequest);
    if (rv < 0 && errno == EDEADLK) {
        ++s_nRefusals;
    }
    return rv;
}

// A thread that writes to a file, which a peer keeps locked until the end.
class StoppedPeer {
  public:
    StoppedPeer() {
        s_nRequests = 0;
        s_nRefusals = 0;
        for (const char* pszName : {"a", "b", "c"}) {
            WriteFile(Path(pszName), Header(32));
        }
        m_pA = OpenRecord("a");
        m_pB = OpenRecord("b");
        m_pPeer = std::make_unique<Peer>(Path("a"));
        m_Writer =
            std::thread([this] { T120_Write_Trace_Dev(m_pA, nullptr, nullptr, "to the top"); });
        EXPECT_TRUE(Eventually([] { return s_nRequests == 1; }));
        // For it to be in the call.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~StoppedPeer() {
        LetGo();
        T120_Close_Trace_Dev(m_pA);
        T120_Close_Trace_Dev(m_pB);
    }

    std::string Path(const char* aName) const { return m_Home.path() + aName; }
    CCmT120TraceFile* OpenRecord(const char* aName) const {
        void* pRecord = T120_Open_Trace_Dev(Path(aName).c_str(), 0, 1, 0);
        EXPECT_EQ(CM_OK, static_cast<CCmT120TraceFile*>(pRecord)->attach());
        return static_cast<CCmT120TraceFile*>(pRecord);
    }
    CCmT120TraceFile& A() { return *m_pA; }
    CCmT120TraceFile& B() { return *m_pB; }
    void LetGo() {
        m_pPeer->LetGo();
        if (m_Writer.joinable()) {
            m_Writer.join();
        }
    }

    // Whether the operation returns while the peer is stopped.
    template <class Operation>
    bool Returns(Operation aOperation) {
        Gate returned;
        std::thread thread([&] {
            aOperation();
            returned.Open();
        });
        const bool bInTime = returned.Wait();
        if (!bInTime) {
            LetGo();
        }
        thread.join();
        return bInTime;
    }

  private:
    ScopedHome m_Home;
    ScopedEntry<decltype(g_cmSystem.fcntl)> m_Entry{g_cmSystem.fcntl, &CountingFcntl};
    CCmT120TraceFile* m_pA = nullptr;
    CCmT120TraceFile* m_pB = nullptr;
    std::unique_ptr<Peer> m_pPeer;
    std::thread m_Writer;
};

// Each in a process of its own: its facility is not there yet.
template <class Body>
int StatusWithStoppedPeer(Body aBody) {
    return StatusOfChild([&aBody] {
        StoppedPeer peer;
        aBody(peer);
        peer.LetGo();
        EXPECT_NE(std::string::npos, ReadFile(peer.Path("a")).find(" to the top\n"));
    });
}

TEST(StoppedPeer, HoldsUpNoWrite_WhenItIsToAnotherFile) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  EXPECT_TRUE(aPeer.Returns([&] { aPeer.B().write(nullptr, nullptr, "line"); }));
                  EXPECT_NE(std::string::npos, ReadFile(aPeer.Path("b")).find(" line\n"));
              }));
}

TEST(StoppedPeer, HoldsUpNoAttach) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  CCmT120TraceFile other(aPeer.Path("c").c_str(), 0, 1, 0);
                  CCmT120TraceFile same(aPeer.Path("a").c_str(), 0, 1, 0);
                  EXPECT_TRUE(aPeer.Returns([&] {
                      EXPECT_EQ(CM_OK, other.attach());
                      EXPECT_EQ(CM_OK, same.attach());
                      EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, aPeer.A().attach());
                  }));
              }));
}

TEST(StoppedPeer, HoldsUpNoRefreshAndNoSwitch) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  EXPECT_TRUE(aPeer.Returns([] {
                      refresh_trace_config();
                      EXPECT_EQ(1, CCmT120Trace::instance()->enable_trace_print(20, "net"));
                  }));
              }));
}

TEST(StoppedPeer, HoldsUpNoCloseAndNoOpen) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  EXPECT_TRUE(aPeer.Returns([&aPeer] {
                      T120_Close_Trace_Dev(T120_Open_Trace_Dev("new", 0, 0, 0));
                      T120_Close_Trace_Dev(aPeer.OpenRecord("c"));
                      CCmT120TraceFile same(aPeer.Path("a").c_str(), 0, 1, 0);
                      EXPECT_EQ(CM_OK, same.attach());
                  }));
              }));
}

TEST(StoppedPeer, HoldsUpNoFacility) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  EXPECT_TRUE(aPeer.Returns([] { CCmT120Trace2::instance(); }));
              }));
}

TEST(StoppedPeer, HoldsUpNoThread_BeforeTheFacilityExists) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  EXPECT_TRUE(aPeer.Returns([] {
                      ACmThread* pThread = nullptr;
                      EXPECT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1));
                      pThread->Stop();
                      pThread->Join();
                      pThread->Destory(CM_OK);
                  }));
              }));
}

TEST(StoppedPeer, LetsSettingsInForce_WhenTheWriterGetsOn) {
    EXPECT_EQ(0, StatusWithStoppedPeer([](StoppedPeer& aPeer) {
                  WriteFile(aPeer.Path("a"), Header(500) + std::string(468, 'o'));
                  EXPECT_TRUE(aPeer.Returns([&] { aPeer.A().refresh_settings(500, 7); }));
                  aPeer.LetGo();
                  const std::string sContent = ReadFile(aPeer.Path("a"));
                  EXPECT_EQ(32 + sContent.find('\n', 32) - 31,
                            static_cast<size_t>(std::stol(sContent.substr(0, 31))));
              }));
}

// ---- Stopped at every call

unsigned long s_ulCalls = 0;
unsigned long s_ulStopAt = 0;
EMoment s_stopMoment = EMoment::BEFORE;

void StopAtCall(EMoment aMoment) {
    if (aMoment == s_stopMoment && ++s_ulCalls == s_ulStopAt) {
        raise(SIGSTOP);
    }
}

void WriteNumbered(const std::string& aPath, unsigned long aLimit, int aWriter) {
    CCmT120TraceFile file(aPath.c_str(), aLimit, 1, 0);
    EXPECT_EQ(CM_OK, file.attach());
    for (int n = 1; n <= 5; ++n) {
        file.write(nullptr, "m", NumberedText({aWriter, n}).c_str());
    }
}

// A process that writes the same lines and stops at one of its calls.
class StoppingWriter {
  public:
    StoppingWriter(const std::string& aPath, unsigned long aLimit) : m_process(fork()) {
        if (m_process == 0) {
            s_ulCalls = 0;
            const ScopedCallHook hook(&StopAtCall);
            WriteNumbered(aPath, aLimit, 1);
            EndProcess(testing::Test::HasFailure() ? 1 : 0);
        }
        waitpid(m_process, &m_nStatus, WUNTRACED);
    }
    ~StoppingWriter() { EXPECT_EQ(0, m_nStatus); }
    StoppingWriter(const StoppingWriter&) = delete;
    StoppingWriter& operator=(const StoppingWriter&) = delete;

    // Otherwise it came to its end.
    bool IsStopped() const { return WIFSTOPPED(m_nStatus); }
    void GoOn() {
        kill(m_process, SIGCONT);
        waitpid(m_process, &m_nStatus, 0);
    }

  private:
    const pid_t m_process;
    int m_nStatus = -1;
};

class StoppedWriter : public testing::TestWithParam<unsigned long> {};

TEST_P(StoppedWriter, HoldsUpNoOtherFileAndLosesNoLine_WhateverCallItStopsAt) {
    ScopedHome home;
    const std::string sPath = home.path() + "a";
    const std::string sOther = home.path() + "b";
    const std::set<kelto_test::TraceLineId> last = {{1, 5}, {2, 5}};
    unsigned long ulStops = 0;
    for (const EMoment moment : {EMoment::BEFORE, EMoment::AFTER}) {
        s_stopMoment = moment;
        s_ulStopAt = 0;
        bool bStopped = false;
        do {
            s_ulStopAt += KELTO_TEST_STRIDE;
            unlink(sPath.c_str());
            unlink(sOther.c_str());
            StoppingWriter writer(sPath, GetParam());
            bStopped = writer.IsStopped();
            std::thread same([&] { WriteNumbered(sPath, GetParam(), 2); });
            Gate returned;
            std::thread other([&] {
                WriteNumbered(sOther, 0, 3);
                returned.Open();
            });
            EXPECT_TRUE(returned.Wait());
            if (bStopped) {
                ++ulStops;
                writer.GoOn();
            }
            same.join();
            other.join();
            ASSERT_EQ("", kelto_test::FaultOf(ReadFile(sPath), last, GetParam() != 0))
                << "stopped " << (moment == EMoment::BEFORE ? "before" : "after") << " call "
                << s_ulStopAt << "\n"
                << ReadFile(sPath);
            ASSERT_EQ("", kelto_test::FaultOf(ReadFile(sOther), {{3, 1}, {3, 5}}, false));
        } while (bStopped);
    }
    printf("%lu stops\n", ulStops);
    EXPECT_LE(150UL, ulStops * KELTO_TEST_STRIDE);
}

INSTANTIATE_TEST_SUITE_P(Limits, StoppedWriter, testing::Values(0, 400));

// ---- The lock within the process

Gate s_inWrite;
Gate s_mayGoOn;

ssize_t PwriteThatWaits(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    if (s_inWrite.Open()) {
        EXPECT_TRUE(s_mayGoOn.Wait());
    }
    return pwrite(aFile, aText, aSize, aOffset);
}

using PwriteEntry = ScopedEntry<decltype(g_cmSystem.pwrite)>;

bool IsLockedByAnother(const std::string& aPath) {
    const pid_t child = fork();
    if (child == 0) {
        const int nFile = open(aPath.c_str(), O_RDWR);
        struct flock request = WholeFile(F_WRLCK);
        _exit(nFile >= 0 && fcntl(nFile, F_SETLK, &request) < 0 ? 1 : 0);
    }
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    return WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 1;
}

TEST(FileTurn, KeepsTheLock_WhenAnotherRecordOfTheFileIsClosed) {
    ScopedHome home;
    const std::string sPath = home.path() + "a";
    WriteFile(sPath, Header(32));
    s_inWrite.Close();
    s_mayGoOn.Close();
    PwriteEntry entry(g_cmSystem.pwrite, PwriteThatWaits);
    CCmT120TraceFile file(sPath.c_str(), 0, 1, 0);
    ASSERT_EQ(CM_OK, file.attach());
    auto pOther = std::make_unique<CCmT120TraceFile>(sPath.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, pOther->attach());
    std::thread writer([&file] { file.write(nullptr, nullptr, "line"); });
    ASSERT_TRUE(s_inWrite.Wait());
    EXPECT_TRUE(IsLockedByAnother(sPath));
    Gate closed;
    std::thread closer([&] {
        pOther.reset();
        closed.Open();
    });
    EXPECT_TRUE(closed.Wait());
    EXPECT_TRUE(IsLockedByAnother(sPath));
    s_mayGoOn.Open();
    writer.join();
    closer.join();
    EXPECT_FALSE(IsLockedByAnother(sPath));
}

size_t OpenDescriptors() {
    size_t nOpen = 0;
    for (int i = 0; i < 256; ++i) {
        nOpen += fcntl(i, F_GETFD) >= 0 ? 1 : 0;
    }
    return nOpen;
}

TEST(FileTurn, LeavesNoFileOpen) {
    ScopedHome home;
    const size_t nBefore = OpenDescriptors();
    const long nMemory = kelto_test::LiveAllocations();
    for (int i = 0; i < 3; ++i) {
        CCmT120TraceFile first((home.path() + "a").c_str(), 0, 1, 0);
        CCmT120TraceFile second((home.path() + "a").c_str(), 0, 1, 0);
        CCmT120TraceFile third((home.path() + "b").c_str(), 0, 1, 0);
        ASSERT_EQ(CM_OK, first.attach());
        ASSERT_EQ(CM_OK, second.attach());
        ASSERT_EQ(CM_OK, third.attach());
        first.write(nullptr, nullptr, "line");
    }
    EXPECT_EQ(nBefore, OpenDescriptors());
    EXPECT_EQ(nMemory, kelto_test::LiveAllocations());
}

// The peer has A and waits for B, which a thread of ours has: the system takes it for a deadlock
// when another thread asks for A.
TEST(FileTurn, NeverWritesUnlocked_WhenTheSystemSeesADeadlock) {
    ScopedHome home;
    const std::string sA = home.path() + "a";
    const std::string sB = home.path() + "b";
    WriteFile(sA, Header(32));
    WriteFile(sB, Header(32));
    s_nRefusals = 0;
    s_inWrite.Close();
    s_mayGoOn.Close();
    int anGo[2];
    int anReady[2];
    ASSERT_EQ(0, pipe(anGo));
    ASSERT_EQ(0, pipe(anReady));
    const pid_t peer = fork();
    if (peer == 0) {
        const int nA = open(sA.c_str(), O_RDWR);
        const int nB = open(sB.c_str(), O_RDWR);
        struct flock request = WholeFile(F_WRLCK);
        char ch = 0;
        fcntl(nA, F_SETLK, &request);
        const bool bReady = ::write(anReady[1], &ch, 1) == 1 && ::read(anGo[0], &ch, 1) == 1;
        _exit(bReady && fcntl(nB, F_SETLKW, &request) == 0 ? 0 : 1);
    }
    ScopedEntry<decltype(g_cmSystem.fcntl)> fcntlEntry(g_cmSystem.fcntl, &CountingFcntl);
    PwriteEntry writeEntry(g_cmSystem.pwrite, PwriteThatWaits);
    CCmT120TraceFile a(sA.c_str(), 0, 1, 0);
    CCmT120TraceFile b(sB.c_str(), 0, 1, 0);
    ASSERT_EQ(CM_OK, a.attach());
    ASSERT_EQ(CM_OK, b.attach());
    char ch = 0;
    ASSERT_EQ(1, ::read(anReady[0], &ch, 1));
    std::thread first([&b] { b.write(nullptr, nullptr, "to b"); });
    ASSERT_TRUE(s_inWrite.Wait());
    ASSERT_EQ(1, ::write(anGo[1], &ch, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // for the peer to wait for b
    std::thread second([&a] { a.write(nullptr, nullptr, "to a"); });
    EXPECT_TRUE(Eventually([] { return s_nRefusals > 2; }));
    EXPECT_EQ(Header(32), ReadFile(sA));
    s_mayGoOn.Open();
    first.join();
    second.join();
    int nStatus = -1;
    waitpid(peer, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
    EXPECT_NE(std::string::npos, ReadFile(sA).find(" to a\n"));
    EXPECT_NE(std::string::npos, ReadFile(sB).find(" to b\n"));
    for (int nFile : {anGo[0], anGo[1], anReady[0], anReady[1]}) {
        close(nFile);
    }
}

}  // namespace
}  // namespace UTIL_NS
