// Runs a scenario in schedule after schedule, in child processes that a failure may end, and tells
// what was found. The options are in README.md.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <utility>

#include "CmTrace.h"
#include "schedule/Exploration.h"
#include "schedule/Scheduler.h"

namespace kelto_test {

namespace {

struct COptions {
    bool m_bFull = false;             // --full: all that is affordable
    unsigned long m_ulPart = 1;       // --part=N: the N-th part of the bounded run
    unsigned long m_ulSchedules = 0;  // --schedules=N: as many, at most
    int m_nPreemptions = -1;          // --preemptions=N
    unsigned long m_ulRandom = 0;     // --random=N: as many random ones
    unsigned long m_ulSeconds = 0;    // --seconds=N: random ones for so long
    unsigned long m_ulSeed = 1;       // --seed=N: of the first of them
    std::string m_strReplay;          // --replay=NUMBER
    bool m_bCount = false;            // --count: goes on after a failure
};
COptions s_Options;

enum EEnd : int { DONE = 0, FAILED = 1, HANGS = 2 };

constexpr unsigned SECONDS_OF_A_SCHEDULE = 30;
constexpr size_t MAX_COMMAND = 100000;

CExploration& Exploration() {
    static void* const s_pMemory = mmap(nullptr, sizeof(CExploration), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return *static_cast<CExploration*>(s_pMemory);
}

void DropLine(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {}

unsigned long s_ulSchedulesAtAlarm = ~0ul;

void CheckProgress(int /*aSignal*/) {
    if (Exploration().m_ulSchedules == s_ulSchedulesAtAlarm) {
        _exit(HANGS);
    }
    s_ulSchedulesAtAlarm = Exploration().m_ulSchedules;
    alarm(SECONDS_OF_A_SCHEDULE);
}

// Runs schedules up to a failure, until there are no more, or aUntil are done.
EEnd RunSome(const std::function<void()>& aScenario, const CSettings& aSettings,
             unsigned long aUntil, bool aTells, EMemory aMemory) {
    CExploration& exploration = Exploration();
    for (;;) {
        const bool bGood = RunSchedule(exploration, aScenario, aSettings, aTells, aMemory);
        if (!bGood) {
            return FAILED;
        }
        if (!exploration.Next(StepsOfSchedule()) || exploration.m_ulSchedules >= aUntil) {
            return DONE;
        }
    }
}

// The same in a process of its own.
EEnd RunSomeElsewhere(const std::function<void()>& aScenario, const CSettings& aSettings,
                      unsigned long aUntil, bool aTells, EMemory aMemory) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        CatchFailures();
        signal(SIGALRM, &CheckProgress);
        alarm(SECONDS_OF_A_SCHEDULE);
        const CScheduledCalls calls;
        _exit(RunSome(aScenario, aSettings, aUntil, aTells, aMemory));
    }
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    if (WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == DONE) {
        return DONE;
    }
    CExploration& exploration = Exploration();
    if (exploration.m_szFailure[0] == '\0') {
        std::snprintf(exploration.m_szFailure, sizeof(exploration.m_szFailure), "%s\n",
                      WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == HANGS
                          ? "a thread runs for ever between two steps"
                          : "the process has ended");
    }
    return FAILED;
}

EMemory MemoryOf(const CSettings& aSettings) {
    return aSettings.m_bFreshProcess ? EMemory::LEFT : EMemory::JUDGED;
}

std::string NumberOfSchedule() {
    static char s_szNumber[1 << 16];
    Exploration().Number(s_szNumber, sizeof(s_szNumber));
    return s_szNumber;
}

// Says of each frame (@ and where it is in the program) which line it is of, and leaves out those
// that say nothing.
std::string WithLines(const std::string& aSteps) {
    std::map<std::string, std::string> lines;
    std::string strCommand = "addr2line -e /proc/" + std::to_string(getpid()) + "/exe";
    for (size_t i = aSteps.find('@'); i != std::string::npos; i = aSteps.find('@', i + 1)) {
        const std::string strFrame = aSteps.substr(i, aSteps.find_first_of(" \n", i) - i);
        if (lines.emplace(strFrame, "").second && strCommand.size() < MAX_COMMAND) {
            strCommand += " 0x" + strFrame.substr(1);
        }
    }
    if (FILE* const pFile = popen(strCommand.c_str(), "r")) {
        // In the order of the command, which is not that of the map.
        char szLine[512];
        for (size_t i = strCommand.find(" 0x"); i != std::string::npos;
             i = strCommand.find(" 0x", i + 1)) {
            const size_t nStart = i + 3;
            const std::string strFrame =
                "@" + strCommand.substr(nStart, strCommand.find(' ', nStart) - nStart);
            if (std::fgets(szLine, sizeof(szLine), pFile) != nullptr) {
                const char* const pszSlash = std::strrchr(szLine, '/');
                const bool bSays = std::strstr(szLine, "source/") != nullptr ||
                                   std::strstr(szLine, "_test.cpp") != nullptr;
                lines[strFrame] = bSays && pszSlash != nullptr ? pszSlash + 1 : "";
                lines[strFrame].erase(
                    std::min(lines[strFrame].find_first_of(" \n"), lines[strFrame].size()));
            }
        }
        pclose(pFile);
    }
    std::string strResult;
    size_t nDone = 0;
    for (size_t i = aSteps.find('@'); i != std::string::npos; i = aSteps.find('@', i + 1)) {
        const std::string& strLine = lines[aSteps.substr(i, aSteps.find_first_of(" \n", i) - i)];
        strResult += aSteps.substr(nDone, i - nDone - (strLine.empty() ? 1 : 0)) + strLine;
        nDone = aSteps.find_first_of(" \n", i);
    }
    return strResult + aSteps.substr(nDone);
}

// Runs the schedule of that number once more and tells its steps.
void Tell(const std::function<void()>& aScenario, const CSettings& aSettings,
          const std::string& aNumber) {
    CExploration& exploration = Exploration();
    if (!exploration.StartReplay(aNumber.c_str())) {
        ADD_FAILURE() << aNumber << " is not the number of a schedule";
        return;
    }
    exploration.m_szFailure[0] = '\0';
    exploration.m_szSteps[0] = '\0';
    RunSomeElsewhere(aScenario, aSettings, ~0ul, true, MemoryOf(aSettings));
    std::printf("%s", WithLines(exploration.m_szSteps).c_str());
    std::printf(
        "schedule %s: %s", aNumber.c_str(),
        exploration.m_szFailure[0] == '\0' ? "nothing is wrong\n" : exploration.m_szFailure);
    std::fflush(stdout);
}

struct CCount {
    unsigned long m_ulFailed = 0;
    unsigned long m_ulRandom = 0;  // of all schedules
    std::string m_strFirst;        // its number
    unsigned long m_ulFirst = 0;   // its place
    std::string m_strWhat;
    int m_nComplete = -1;  // every schedule with so many preemptions was run
};

// Up to aUntil schedules. False: one has failed, and that is enough.
bool RunAll(const std::function<void()>& aScenario, const CSettings& aSettings,
            unsigned long aUntil, CCount& aCount) {
    CExploration& exploration = Exploration();
    while (exploration.m_ulSchedules < aUntil) {
        exploration.m_szFailure[0] = '\0';
        const unsigned long ulUntil =
            aSettings.m_bFreshProcess ? exploration.m_ulSchedules + 1 : aUntil;
        if (RunSomeElsewhere(aScenario, aSettings, ulUntil, false, MemoryOf(aSettings)) == DONE) {
            if (exploration.HasMore()) {
                continue;
            }
            return true;
        }
        if (aCount.m_ulFailed++ == 0) {
            aCount.m_strFirst = NumberOfSchedule();
            aCount.m_ulFirst = exploration.m_ulSchedules + 1;
            aCount.m_strWhat = exploration.m_szFailure;
        }
        if (!s_Options.m_bCount) {
            return false;
        }
        if (!exploration.Next(0)) {
            return true;
        }
    }
    return true;
}

unsigned long AllSchedulesOf(const CSettings& aSettings) {
    if (s_Options.m_ulSchedules != 0) {
        return s_Options.m_ulSchedules;
    }
    return s_Options.m_bFull ? aSettings.m_ulAllSchedules
                             : aSettings.m_ulSchedules / s_Options.m_ulPart;
}

void ExploreAll(const std::function<void()>& aScenario, const CSettings& aSettings,
                CCount& aCount) {
    CExploration& exploration = Exploration();
    const int nPreemptions = s_Options.m_nPreemptions >= 0
                                 ? s_Options.m_nPreemptions
                                 : aSettings.m_nPreemptions + (s_Options.m_bFull ? 1 : 0);
    const unsigned long ulUntil = AllSchedulesOf(aSettings);
    int nComplete = -1;
    for (int i = 0; i <= nPreemptions; ++i) {
        do {
            exploration.StartAll(i, aSettings.m_bReduces);
            if (!RunAll(aScenario, aSettings, ulUntil, aCount)) {
                return;
            }
        } while (exploration.HasLearnt() && exploration.m_ulSchedules < ulUntil);
        if (exploration.m_ulSchedules >= ulUntil) {
            break;
        }
        nComplete = i;
    }
    aCount.m_nComplete = nComplete;
}

void ExploreRandom(const std::function<void()>& aScenario, const CSettings& aSettings,
                   CCount& aCount) {
    CExploration& exploration = Exploration();
    exploration.StartRandom(s_Options.m_ulSeed);
    const auto start = std::chrono::steady_clock::now();
    const unsigned long ulBefore = exploration.m_ulSchedules;
    constexpr unsigned long AT_A_TIME = 10000;
    for (;;) {
        const unsigned long ulDone = exploration.m_ulSchedules - ulBefore;
        const auto passed = std::chrono::steady_clock::now() - start;
        const bool bTimeIsOver = passed >= std::chrono::seconds(s_Options.m_ulSeconds);
        if (ulDone >= s_Options.m_ulRandom && bTimeIsOver) {
            break;
        }
        if (!RunAll(aScenario, aSettings, exploration.m_ulSchedules + AT_A_TIME, aCount)) {
            return;
        }
    }
    aCount.m_ulRandom = exploration.m_ulSchedules - ulBefore;
}

bool TakeNumber(const char* aArgument, const char* aName, unsigned long& aNumber) {
    const size_t nLength = std::strlen(aName);
    if (std::strncmp(aArgument, aName, nLength) != 0) {
        return false;
    }
    aNumber = std::strtoul(aArgument + nLength, nullptr, 10);
    return true;
}

bool TakeOption(const char* aArgument) {
    unsigned long ulNumber = 0;
    if (std::strcmp(aArgument, "--full") == 0) {
        s_Options.m_bFull = true;
    } else if (std::strcmp(aArgument, "--count") == 0) {
        s_Options.m_bCount = true;
    } else if (std::strncmp(aArgument, "--replay=", 9) == 0) {
        s_Options.m_strReplay = aArgument + 9;
    } else if (TakeNumber(aArgument, "--preemptions=", ulNumber)) {
        s_Options.m_nPreemptions = static_cast<int>(ulNumber);
    } else {
        return TakeNumber(aArgument, "--part=", s_Options.m_ulPart) ||
               TakeNumber(aArgument, "--schedules=", s_Options.m_ulSchedules) ||
               TakeNumber(aArgument, "--random=", s_Options.m_ulRandom) ||
               TakeNumber(aArgument, "--seconds=", s_Options.m_ulSeconds) ||
               TakeNumber(aArgument, "--seed=", s_Options.m_ulSeed);
    }
    return true;
}

}  // namespace

namespace {

// For a new scenario. False: already its first schedule fails.
bool Prepare(const std::function<void()>& aScenario, const CSettings& aSettings) {
    set_util_external_trace_sink(&DropLine);
    static const bool s_bMade = (MakeThreads(), true);
    CExploration& exploration = Exploration();
    madvise(&exploration, sizeof(CExploration), MADV_REMOVE);  // zeros again
    if (!s_bMade || aSettings.m_bFreshProcess) {
        return s_bMade;
    }
    // Once before all, for what the library makes with its first use. Elsewhere before: nothing can
    // be run here after a failure.
    exploration.StartReplay("0");
    if (RunSomeElsewhere(aScenario, aSettings, 1, false, EMemory::LEFT) == FAILED) {
        return false;
    }
    const CScheduledCalls calls;
    exploration.StartReplay("0");
    const bool bGood = RunSchedule(exploration, aScenario, aSettings, false, EMemory::STAYS);
    exploration.m_ulSchedules = 0;
    return bGood;
}

CCount Run(const std::function<void()>& aScenario, const CSettings& aSettings) {
    CExploration& exploration = Exploration();
    CCount count;
    if (!Prepare(aScenario, aSettings)) {
        count.m_ulFailed = 1;
        count.m_strFirst = "0";
        count.m_strWhat = exploration.m_szFailure;
        return count;
    }
    ExploreAll(aScenario, aSettings, count);
    if ((s_Options.m_ulRandom != 0 || s_Options.m_ulSeconds != 0) &&
        (count.m_ulFailed == 0 || s_Options.m_bCount)) {
        ExploreRandom(aScenario, aSettings, count);
    }
    return count;
}

}  // namespace

void Explore(const std::function<void()>& aScenario, const CSettings& aSettings) {
    CExploration& exploration = Exploration();
    if (!s_Options.m_strReplay.empty()) {
        Prepare(aScenario, aSettings);
        Tell(aScenario, aSettings, s_Options.m_strReplay);
        EXPECT_STREQ("", exploration.m_szFailure);
        return;
    }
    const CCount count = Run(aScenario, aSettings);
    std::printf("%lu schedules, %lu of them to a known state and %lu random, %u steps at most, ",
                exploration.m_ulSchedules, exploration.m_ulKnown, count.m_ulRandom,
                exploration.m_nLongest);
    if (count.m_nComplete < 0) {
        std::printf("not all\n");
    } else {
        std::printf("all with %d preemptions\n", count.m_nComplete);
    }
    if (s_Options.m_bCount) {
        std::printf("%lu of %lu schedules fail, the first as number %lu\n", count.m_ulFailed,
                    exploration.m_ulSchedules, count.m_ulFirst);
    }
    if (count.m_ulFailed > 0) {
        ADD_FAILURE() << count.m_strWhat << "in schedule number " << count.m_ulFirst
                      << "; --replay=" << count.m_strFirst;
        Tell(aScenario, aSettings, count.m_strFirst);
    }
}

std::string FirstFailure(const std::function<void()>& aScenario, const CSettings& aSettings) {
    const COptions options = std::exchange(s_Options, COptions());
    std::string strWhat = Run(aScenario, aSettings).m_strWhat;
    s_Options = options;
    return strWhat;
}

}  // namespace kelto_test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (!kelto_test::TakeOption(argv[i])) {
            std::fprintf(stderr, "schedule: unknown option %s\n", argv[i]);
            return 2;
        }
    }
    return RUN_ALL_TESTS();
}
