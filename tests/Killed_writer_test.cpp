// A process that writes trace files is killed at each of its system calls in turn. Afterwards the
// file holds every line that was acknowledged, once and whole, and the next process goes on.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>

#include "CmT120TraceFile.h"
#include "support/ChildProcess.h"
#include "support/EveryCall.h"
#include "support/Home.h"
#include "support/TraceLines.h"

namespace UTIL_NS {
namespace {

using kelto_test::ELosses;
using kelto_test::EMoment;
using kelto_test::EndProcess;
using kelto_test::FaultOf;
using kelto_test::NumberedFile;
using kelto_test::NumberedText;
using kelto_test::ReadFile;
using kelto_test::ScopedCallHook;
using kelto_test::ScopedHome;
using kelto_test::TraceLineId;

using Ids = std::set<TraceLineId>;

constexpr int LINES = 9;              // of each writer
constexpr unsigned long LIMIT = 400;  // bytes: a shared file starts again after about four lines
constexpr int KILLED = 1;             // the number of the writer whose calls are counted
constexpr int OTHER = 2;
constexpr int NEXT = 3;  // writes when the others have ended

enum class EWriters { ONE, TWO_THREADS, TWO_PROCESSES };

struct Scenario {
    const char* name;
    bool isShared;
    int linesPerFlush;
    unsigned long limit;
    EWriters writers;

    // Whether lines are overwritten in the end.
    bool RollsOver() const { return isShared && limit != 0; }
};

constexpr Scenario SCENARIOS[] = {
    {"Shared", true, 1, 0, EWriters::ONE},
    {"SharedAtALimit", true, 1, LIMIT, EWriters::ONE},
    {"SharedByProcesses", true, 1, 0, EWriters::TWO_PROCESSES},
    {"SharedByProcessesAtALimit", true, 1, LIMIT, EWriters::TWO_PROCESSES},
    {"SharedByThreads", true, 1, 0, EWriters::TWO_THREADS},
    {"SharedByThreadsAtALimit", true, 1, LIMIT, EWriters::TWO_THREADS},
    {"Buffered", false, 1, 0, EWriters::ONE},
    {"BufferedAtALimit", false, 1, LIMIT, EWriters::ONE},
    {"BufferedByThreads", false, 1, 0, EWriters::TWO_THREADS},
    {"ThreeLinesBuffered", false, 3, 0, EWriters::ONE},
    {"ThreeLinesBufferedAtALimit", false, 3, LIMIT, EWriters::ONE},
    {"ThreeLinesBufferedByThreadsAtALimit", false, 3, LIMIT, EWriters::TWO_THREADS},
};

// ---- The processes

std::atomic<unsigned long> s_ulCalls{0};
unsigned long s_ulKillAt = 0;
EMoment s_killMoment = EMoment::BEFORE;

void KillAtCall(EMoment aMoment) {
    if (aMoment == s_killMoment && ++s_ulCalls == s_ulKillAt) {
        kill(getpid(), SIGKILL);
    }
}

// Acknowledges, through the pipe, what the library has taken to the file: a line whose write has
// returned, or those before a flush that has.
void WriteLines(CCmT120TraceFile& aFile, const Scenario& aScenario, int aWriter, int aPipe) {
    int nAcknowledged = 0;
    for (int n = 1; n <= LINES; ++n) {
        if (aWriter == OTHER) {
            usleep(50);  // for the lines of both to mix
        }
        aFile.write(nullptr, "m", NumberedText({aWriter, n}).c_str());
        if (aScenario.linesPerFlush > 1) {
            if (n % 2 != 0) {
                continue;
            }
            aFile.flush_buffer();
        }
        while (nAcknowledged < n) {
            const char achId[] = {static_cast<char>(aWriter), static_cast<char>(++nAcknowledged)};
            EXPECT_EQ(2, ::write(aPipe, achId, sizeof(achId)));
        }
    }
}

void LiveAsWriter(const std::string& aPath, const Scenario& aScenario, int aWriter, int aPipe) {
    CCmT120TraceFile file(aPath.c_str(), aScenario.limit, aScenario.isShared ? 1 : 0, 0);
    file.refresh_settings(aScenario.limit, aScenario.linesPerFlush);
    EXPECT_EQ(CM_OK, file.attach());
    std::thread other;
    if (aWriter == KILLED && aScenario.writers == EWriters::TWO_THREADS) {
        other = std::thread([&] { WriteLines(file, aScenario, OTHER, aPipe); });
    }
    WriteLines(file, aScenario, aWriter, aPipe);
    if (other.joinable()) {
        other.join();
    }
}

pid_t StartWriter(const std::string& aPath, const Scenario& aScenario, int aWriter, int aPipe) {
    const pid_t process = fork();
    if (process == 0) {
        if (aWriter == KILLED) {
            const ScopedCallHook hook(&KillAtCall);
            LiveAsWriter(aPath, aScenario, aWriter, aPipe);
            EndProcess(testing::Test::HasFailure() ? 1 : 0);
        }
        LiveAsWriter(aPath, aScenario, aWriter, aPipe);
        EndProcess(testing::Test::HasFailure() ? 1 : 0);
    }
    return process;
}

// 0: it ended well; SIGKILL: it was killed.
int EndOf(pid_t aProcess) {
    int nStatus = -1;
    waitpid(aProcess, &nStatus, 0);
    return nStatus;
}

Ids ReadIds(int aPipe) {
    Ids ids;
    char achId[2];
    while (::read(aPipe, achId, sizeof(achId)) == static_cast<ssize_t>(sizeof(achId))) {
        ids.insert({achId[0], achId[1]});
    }
    return ids;
}

// ---- The test

class KilledWriter : public testing::TestWithParam<Scenario> {
  protected:
    // Kills the writer at that call. Returns what is wrong with the file then, or in the end.
    std::string FaultAfterKill(EMoment aMoment, unsigned long aCall) {
        s_ulCalls = 0;
        s_ulKillAt = aCall;
        s_killMoment = aMoment;
        unlink(m_sPath.c_str());
        int anPipe[2];
        EXPECT_EQ(0, pipe(anPipe));
        const bool bOther = GetParam().writers == EWriters::TWO_PROCESSES;
        const pid_t other = bOther ? StartWriter(m_sPath, GetParam(), OTHER, anPipe[1]) : -1;
        const pid_t killed = StartWriter(m_sPath, GetParam(), KILLED, anPipe[1]);
        const int nEnd = EndOf(killed);
        m_bKilled = WIFSIGNALED(nEnd) && WTERMSIG(nEnd) == SIGKILL;
        EXPECT_TRUE(m_bKilled || nEnd == 0);
        if (bOther) {
            EXPECT_EQ(0, EndOf(other));
        }
        std::string sFault =
            FaultOf(ReadFile(m_sPath), CloseAndRead(anPipe), GetParam().RollsOver());
        if (sFault.empty()) {
            sFault = FaultOfNext();
        }
        return sFault;
    }

    Ids CloseAndRead(const int (&aPipe)[2]) {
        close(aPipe[1]);
        const Ids ids = ReadIds(aPipe[0]);
        close(aPipe[0]);
        m_acknowledged.insert(ids.begin(), ids.end());
        return m_acknowledged;
    }

    // A process that comes afterwards goes on, with all that has been acknowledged so far kept.
    std::string FaultOfNext() {
        int anPipe[2];
        EXPECT_EQ(0, pipe(anPipe));
        EXPECT_EQ(0, EndOf(StartWriter(m_sPath, GetParam(), NEXT, anPipe[1])));
        const Ids acknowledged = CloseAndRead(anPipe);
        EXPECT_LE(LINES - 1, static_cast<int>(std::distance(acknowledged.lower_bound({NEXT, 0}),
                                                            acknowledged.end())));
        const std::string sContent = ReadFile(m_sPath);
        const NumberedFile file = kelto_test::ReadNumberedFile(sContent, ELosses::NONE);
        const std::string sFault = FaultOf(sContent, acknowledged, GetParam().RollsOver());
        if (!sFault.empty()) {
            return "next process: " + sFault;
        }
        if (file.lines.count({NEXT, LINES}) == 0 || !file.isMarked) {
            return "the next process did not go on";
        }
        return "";
    }

    const ScopedHome m_home;
    const std::string m_sPath = m_home.path() + "trace";
    bool m_bKilled = false;
    Ids m_acknowledged;
};

TEST_P(KilledWriter, LeavesEveryAcknowledgedLineAndAFileToGoOnFrom_WhateverCallItIsKilledAt) {
    unsigned long ulKills = 0;
    for (const EMoment moment : {EMoment::BEFORE, EMoment::AFTER}) {
        unsigned long ulCall = 0;
        do {
            ulCall += KELTO_TEST_STRIDE;
            m_acknowledged.clear();
            const std::string sFault = FaultAfterKill(moment, ulCall);
            ASSERT_EQ("", sFault) << "killed " << (moment == EMoment::BEFORE ? "before" : "after")
                                  << " call " << ulCall << "\n"
                                  << ReadFile(m_sPath);
            ulKills += m_bKilled ? 1 : 0;
        } while (m_bKilled);
    }
    RecordProperty("kills", static_cast<int>(ulKills));
    printf("%lu kills\n", ulKills);
    EXPECT_LE(100UL, ulKills * KELTO_TEST_STRIDE);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, KilledWriter, testing::ValuesIn(SCENARIOS),
                         [](const auto& aInfo) { return std::string(aInfo.param.name); });

}  // namespace
}  // namespace UTIL_NS
