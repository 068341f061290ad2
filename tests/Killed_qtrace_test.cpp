// A process that writes to qtrace's file is killed at each of its system calls in turn, those of
// the C library included. Afterwards the file holds every line that was acknowledged, once and
// whole, and the next process goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "qtrace.h"
#include "support/ChildProcess.h"
#include "support/TraceLines.h"

namespace {

using kelto_test::EndProcess;
using kelto_test::NumberedText;
using kelto_test::TraceLineId;

using Ids = std::set<TraceLineId>;

constexpr int LINES = 6;     // of each writer
constexpr long LIMIT = 300;  // bytes: the file is full within the fourth line
constexpr int KILLED = 1;    // the number of the writer whose calls are counted
constexpr int OTHER = 2;
constexpr int NEXT = 3;  // writes when the others have ended
constexpr char MODULE[] = "m";

struct Scenario {
    const char* name;
    bool isLimited;  // a full disk, until the next process comes
    bool hasOther;
};

// ---- The processes

void WriteText(TraceLineId aId) {
    const std::string sText = NumberedText(aId);
    if (aId.second % 2 != 0) {
        YRKTRACERAWA(2, MODULE, nullptr, sText.c_str());
        return;
    }
    char achPrefix[256] = {};
    YRKTRACERAWA(2, MODULE, achPrefix, (std::string(2047, '-')).c_str());
    YRKTRACERAWA(2, MODULE, achPrefix, sText.c_str());
}

// Acknowledges, through the pipe, the lines that were written while the file had room.
void LiveAsWriter(const std::string& aPath, bool aLimited, int aWriter, int aPipe) {
    rlimit before = {};
    EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    const rlimit limit = {LIMIT, before.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, aLimited ? &limit : &before));
    for (int n = 1; n <= LINES; ++n) {
        WriteText({aWriter, aLimited ? 2 * n - 1 : n});
        struct stat status = {};
        EXPECT_EQ(0, stat(aPath.c_str(), &status));
        if (!aLimited || status.st_size < LIMIT) {
            const char achId[] = {static_cast<char>(aWriter),
                                  static_cast<char>(aLimited ? 2 * n - 1 : n)};
            EXPECT_EQ(2, ::write(aPipe, achId, sizeof(achId)));
        }
    }
    // What measures coverage writes a file when the process ends.
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
}

pid_t StartWriter(const std::string& aPath, bool aLimited, int aWriter, int aPipe) {
    const pid_t process = fork();
    if (process == 0) {
        if (aWriter == KILLED) {
            EXPECT_EQ(0, ptrace(PTRACE_TRACEME, 0, nullptr, nullptr));
            raise(SIGSTOP);
        }
        LiveAsWriter(aPath, aLimited, aWriter, aPipe);
        EndProcess(testing::Test::HasFailure() ? 1 : 0);
    }
    return process;
}

int EndOf(pid_t aProcess) {
    int nStatus = -1;
    waitpid(aProcess, &nStatus, 0);
    return nStatus;
}

// Lets the process run to its aStop-th stop, of which each system call has one before and one after
// it, and kills it there. Whether it came so far.
bool KillAtStop(pid_t aProcess, unsigned long aStop) {
    EXPECT_TRUE(WIFSTOPPED(EndOf(aProcess)));
    for (unsigned long ulStop = 1; ulStop <= aStop; ++ulStop) {
        EXPECT_EQ(0, ptrace(PTRACE_SYSCALL, aProcess, nullptr, nullptr));
        const int nStatus = EndOf(aProcess);
        if (!WIFSTOPPED(nStatus)) {
            EXPECT_EQ(0, nStatus);
            return false;
        }
    }
    kill(aProcess, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(EndOf(aProcess)));
    return true;
}

// ---- What must be true of the file

// The number in a whole line; {0, 0}: it is none.
TraceLineId IdOfLine(const std::string& aLine) {
    const size_t nText = aLine.rfind('w');
    TraceLineId id;
    if (nText == std::string::npos ||
        std::sscanf(aLine.c_str() + nText, "w%d n%d", &id.first, &id.second) != 2) {
        return {0, 0};
    }
    unsigned aFields[9];
    int nEnd = 0;
    const int nRead = std::sscanf(aLine.c_str(), "%4u-%2u-%2u %2u:%2u:%2u.%3u pid=%u tid=%u [m] %n",
                                  &aFields[0], &aFields[1], &aFields[2], &aFields[3], &aFields[4],
                                  &aFields[5], &aFields[6], &aFields[7], &aFields[8], &nEnd);
    const std::string sText = (id.second % 2 != 0 ? "" : std::string(2047, '-')) + NumberedText(id);
    return nRead == 9 && aLine.substr(static_cast<size_t>(nEnd)) == sText ? id : TraceLineId{0, 0};
}

// Empty when all is well. aTorn: how many lines may be there in part, each by itself.
std::string FaultOf(const std::string& aPath, int aTorn, const Ids& aAcknowledged) {
    std::ifstream content(aPath, std::ios::binary);
    Ids found;
    std::map<int, int> last;
    for (std::string sLine; std::getline(content, sLine);) {
        const TraceLineId id = IdOfLine(sLine);
        if (id.first != 0 && !found.insert(id).second) {
            return "twice: " + sLine;
        }
        if (id.first != 0 && last[id.first] >= id.second) {
            return "too late: " + sLine;
        }
        last[id.first] = id.second;
        if (id.first == 0 && (--aTorn < 0 || sLine.find("pid=") != sLine.rfind("pid="))) {
            return "torn: " + sLine;
        }
    }
    for (const TraceLineId& id : aAcknowledged) {
        if (found.count(id) == 0) {
            return "acknowledged, and lost: " + NumberedText(id);
        }
    }
    return "";
}

// ---- The test

class KilledQtrace : public testing::TestWithParam<Scenario> {
  protected:
    KilledQtrace() {
        char szDirectory[] = "/tmp/qXXXXXX";
        m_sDirectory = mkdtemp(szDirectory);
        m_sPath = m_sDirectory + "/trace.txt";
        setenv("QTRACE_FILE", m_sPath.c_str(), 1);
    }
    ~KilledQtrace() override {
        unsetenv("QTRACE_FILE");
        std::filesystem::remove_all(m_sDirectory);
    }

    std::string FaultAfterKill(unsigned long aStop) {
        unlink(m_sPath.c_str());
        m_acknowledged.clear();
        int anPipe[2];
        EXPECT_EQ(0, pipe(anPipe));
        const bool bLimited = GetParam().isLimited;
        const pid_t other =
            GetParam().hasOther ? StartWriter(m_sPath, bLimited, OTHER, anPipe[1]) : -1;
        m_bKilled = KillAtStop(StartWriter(m_sPath, bLimited, KILLED, anPipe[1]), aStop);
        if (other > 0) {
            EXPECT_EQ(0, EndOf(other));
        }
        CloseAndRead(anPipe);
        const int nTorn = bLimited ? 1 : 0;
        std::string sFault = FaultOf(m_sPath, nTorn, m_acknowledged);
        if (sFault.empty()) {
            EXPECT_EQ(0, pipe(anPipe));
            // It comes when nobody has written for a while.
            const timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
            utimensat(AT_FDCWD, m_sPath.c_str(), longAgo, 0);
            EXPECT_EQ(0, EndOf(StartWriter(m_sPath, false, NEXT, anPipe[1])));
            CloseAndRead(anPipe);
            EXPECT_EQ(1u, m_acknowledged.count({NEXT, LINES}));
            sFault = FaultOf(m_sPath, nTorn, m_acknowledged);
        }
        return sFault;
    }

    void CloseAndRead(const int (&aPipe)[2]) {
        close(aPipe[1]);
        char achId[2];
        while (::read(aPipe[0], achId, sizeof(achId)) == static_cast<ssize_t>(sizeof(achId))) {
            m_acknowledged.insert({achId[0], achId[1]});
        }
        close(aPipe[0]);
    }

    std::string m_sDirectory;
    std::string m_sPath;
    bool m_bKilled = false;
    Ids m_acknowledged;
};

TEST_P(KilledQtrace, LeavesEveryAcknowledgedLineAndAFileToGoOnFrom_WhateverCallItIsKilledAt) {
    unsigned long ulKills = 0;
    unsigned long ulStop = 0;
    do {
        ulStop += KELTO_TEST_STRIDE;
        const std::string sFault = FaultAfterKill(ulStop);
        ASSERT_EQ("", sFault) << "killed at stop " << ulStop;
        ulKills += m_bKilled ? 1 : 0;
    } while (m_bKilled);
    RecordProperty("kills", static_cast<int>(ulKills));
    printf("%lu kills\n", ulKills);
    EXPECT_LE(60UL, ulKills * KELTO_TEST_STRIDE);
}

constexpr Scenario SCENARIOS[] = {
    {"One", false, false},
    {"OneOnAFullDisk", true, false},
    {"Two", false, true},
    {"TwoOnAFullDisk", true, true},
};

INSTANTIATE_TEST_SUITE_P(Scenarios, KilledQtrace, testing::ValuesIn(SCENARIOS),
                         [](const auto& aInfo) { return std::string(aInfo.param.name); });

}  // namespace
