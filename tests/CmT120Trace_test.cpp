#include "CmT120Trace.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "CmConfig.h"
#include "CmLogStream.h"
#include "CmT120TraceFile.h"
#include "CmTrace.h"
#include "CmTraceLine.h"
#include "CmTraceTap.h"
#include "CmUtilClasses.h"
#include "support/ChildProcess.h"
#include "support/Clock.h"
#include "support/Faults.h"
#include "support/Fields.h"
#include "support/Gate.h"
#include "support/Home.h"
#include "support/LockCalls.h"
#include "support/Platform.h"
#include "support/TraceLibrary.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::Gate;
using kelto_test::LockCalls;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedHome;
using kelto_test::ScopedTraceLibrary;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;
using kelto_test::TraceCall;
using Texts = std::vector<std::string>;

struct Level {
    const char* name;
    unsigned char byDefault;
};

constexpr Level LEVELS[28] = {
    {"Error", 1},   {"Server", 1}, {"NA", 0},        {"NA", 0},    {"NA", 0},      {"NA", 0},
    {"NA", 0},      {"NA", 0},     {"NA", 0},        {"NA", 0},    {"Warning", 1}, {"Meeting", 1},
    {"Session", 1}, {"User", 1},   {"Statistic", 0}, {"NA", 0},    {"NA", 0},      {"NA", 0},
    {"NA", 0},      {"NA", 0},     {"Info", 1},      {"State", 0}, {"PDU", 0},     {"Func", 0},
    {"Tick", 0},    {"Detail", 0}, {"WDMS", 0},      {"Debug", 0},
};

// The facility takes text that is not const, and leaves it alone.
void Trace(CCmT120Trace& aTrace, unsigned long aLevel, const char* aText) {
    aTrace.trace_string(aLevel, const_cast<char*>(aText));
}
void Trace(CCmT120Trace& aTrace, unsigned long aLevel, const char* aModule, const char* aText) {
    aTrace.trace_string(aLevel, aModule, const_cast<char*>(aText));
}

// Facilities of its own, in a home of its own. The process of this executable is named "C", the
// first character of its file.
class CmT120Trace : public testing::Test {
  protected:
    CmT120Trace() {
        for (unsigned long i = 0; i < CM_TRACE_LEVEL_COUNT; ++i) {
            m_aTable[i].m_ulLevel = i;
            m_aTable[i].m_pszName = LEVELS[i].name;
            m_aTable[i].m_bEnabled.store(LEVELS[i].byDefault);
            m_aTable[i].m_bDefault = LEVELS[i].byDefault;
        }
    }

    std::unique_ptr<CCmT120Trace> Create(const char* aFileName = nullptr,
                                         unsigned char aSingleFile = 0) {
        return std::make_unique<CCmT120Trace>("test", m_aTable, aFileName, aSingleFile);
    }
    std::unique_ptr<CCmT120Trace> Load(const std::string& aTraceSection) {
        m_Home.WriteConfig("[Trace]\n" + aTraceSection);
        std::unique_ptr<CCmT120Trace> pTrace = Create();
        EXPECT_EQ(1, pTrace->load(nullptr));
        return pTrace;
    }
    // The levels whose switch is on.
    std::vector<int> LevelsOn(CCmT120Trace& aTrace, const char* aModule = nullptr) {
        std::vector<int> levels;
        for (unsigned long i = 0; i < CM_TRACE_LEVEL_COUNT; ++i) {
            if (aTrace.enable_trace_print(i, aModule) != 0) {
                levels.push_back(static_cast<int>(i));
            }
        }
        return levels;
    }

    ScopedHome m_Home;
    ScopedTraceLibrary m_Library;
    CCmT120TraceMapEntry m_aTable[CM_TRACE_LEVEL_COUNT];
};

TEST_F(CmT120Trace, TraceReachesTheLibraryForFourLevelsOnly) {
    std::unique_ptr<CCmT120Trace> pTrace = Load(
        "C.Statistic=TRUE\nC.State=TRUE\nC.PDU=TRUE\nC.Func=TRUE\nC.Tick=TRUE\n"
        "C.Detail=TRUE\nC.WDMS=TRUE\nC.Debug=TRUE\nC.NA=TRUE\n");
    EXPECT_EQ(28u, LevelsOn(*pTrace).size());
    for (unsigned long i : {0, 1, 10, 11, 12, 13, 14, 20, 21, 22, 23, 24, 25, 26, 27}) {
        Trace(*pTrace, i, ("level " + std::to_string(i)).c_str());
    }
    EXPECT_EQ((Texts{"level 0", "level 10", "level 20", "level 25"}), m_Library.texts());
}

TEST_F(CmT120Trace, TraceDeliversAtLevel2WithModuleMac) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    Trace(*pTrace, 0, "text");
    Trace(*pTrace, 10, "net", "text");
    ASSERT_EQ(2u, m_Library.calls().size());
    for (const TraceCall& call : m_Library.calls()) {
        EXPECT_EQ(2u, call.level);
        EXPECT_EQ("MAC", call.module);
        EXPECT_EQ("text", call.text);
        EXPECT_FALSE(call.prefixed);
    }
}

TEST_F(CmT120Trace, TraceTakesNoTextAsAFormat) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    Trace(*pTrace, 0, "%s%n%d %%");
    EXPECT_EQ(Texts{"%s%n%d %%"}, m_Library.texts());
}

TEST_F(CmT120Trace, TraceDropsLevel1ThatIsOnByDefault) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    EXPECT_EQ(1, pTrace->enable_trace_print(1, nullptr));
    Trace(*pTrace, 1, "text");
    EXPECT_TRUE(m_Library.calls().empty());
}

TEST_F(CmT120Trace, TraceDropsTheLine_WhenItsLevelDoesNotExist) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    for (unsigned long ulLevel : {28ul, 29ul, 1000000ul, ~0ul}) {
        Trace(*pTrace, ulLevel, "text");
        EXPECT_EQ(0, pTrace->enable_trace_print(ulLevel, nullptr));
        EXPECT_EQ(0, pTrace->enable_trace_print(ulLevel, "net"));
    }
    EXPECT_TRUE(m_Library.calls().empty());
}

TEST_F(CmT120Trace, TraceDropsEverything_BeforeLoad) {
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    Trace(*pTrace, 0, "text");
    EXPECT_TRUE(m_Library.calls().empty());
}

TEST_F(CmT120Trace, TraceDropsEverything_WhenTheRecordCannotBeOpened) {
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(1, pTrace->load(nullptr));
        EXPECT_TRUE(fault.hit());
    }
    Trace(*pTrace, 0, "lost");
    pTrace->load(nullptr);
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

TEST_F(CmT120Trace, TraceDropsTheLine_WhenTheTableGivesItANumberBeyondTheLevels) {
    for (unsigned long ulLevel : {28ul, 29ul, ~0ul}) {
        m_aTable[0].m_ulLevel = ulLevel;
        std::unique_ptr<CCmT120Trace> pTrace = Load("");
        Trace(*pTrace, 0, "text");
    }
    EXPECT_TRUE(m_Library.calls().empty());
}

TEST_F(CmT120Trace, TraceDropsTheLine_WhenItsLevelIsOff) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Info=FALSE\n");
    Trace(*pTrace, 20, "off");
    Trace(*pTrace, 10, "on");
    EXPECT_EQ(Texts{"on"}, m_Library.texts());
}

TEST_F(CmT120Trace, TraceAllocatesNothing_WhenTheLineIsFilteredOut) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    Trace(*pTrace, 25, "net", "off");
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    EXPECT_EQ(0u, m_Library.thresholdReads());
}

TEST_F(CmT120Trace, TraceKeepsErrno) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    m_Library.SetErrno(EIO);
    errno = ENOENT;
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1u, m_Library.calls().size());
}

struct TakenLine {
    unsigned long level;
    bool isFiltered;
    std::string text;
};

std::vector<TakenLine> s_takenLines;

void TakeLine(unsigned long aLevel, bool aIsFiltered, const char* aText, size_t aLength) {
    s_takenLines.push_back({aLevel, aIsFiltered, std::string(aText, aLength)});
}

TEST_F(CmT120Trace, TraceHandsEveryLineToTheTapToo_WhileThereIsOne) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    s_takenLines.clear();
    g_cmTraceTap.store(TakeLine);
    Trace(*pTrace, 20, "on");
    Trace(*pTrace, 25, "off");
    pTrace->trace_string(0, nullptr);
    g_cmTraceTap.store(nullptr);
    Trace(*pTrace, 10, "later");
    EXPECT_EQ((Texts{"on", "(null)", "later"}), m_Library.texts());
    ASSERT_EQ(2U, s_takenLines.size());
    EXPECT_EQ(20U, s_takenLines[0].level);
    EXPECT_FALSE(s_takenLines[0].isFiltered);
    EXPECT_EQ("on", s_takenLines[0].text);
    EXPECT_EQ(25U, s_takenLines[1].level);
    EXPECT_TRUE(s_takenLines[1].isFiltered);
    EXPECT_EQ("off", s_takenLines[1].text);
}

TEST_F(CmT120Trace, HooksReturnAtOnce) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    char achText[] = "text";
    char achFile[] = "file";
    pTrace->log_string(achText);
    pTrace->Assert_Log(achFile, achText, 1);
    EXPECT_STREQ("text", achText);
    EXPECT_STREQ("file", achFile);
    EXPECT_TRUE(m_Library.calls().empty());
}

// ---- Configuration

TEST_F(CmT120Trace, LevelsAreOnAsInTheTable_BeforeLoad) {
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20}), LevelsOn(*Create()));
}

TEST_F(CmT120Trace, ConfigHasTheDefaultsOfTheTable_WithoutAFile) {
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    pTrace->load(nullptr);
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20}), LevelsOn(*pTrace));
}

TEST_F(CmT120Trace, ConfigSwitchesEveryLevelByName) {
    for (const Level& level : LEVELS) {
        const bool bOn = level.byDefault == 0;
        std::unique_ptr<CCmT120Trace> pTrace =
            Load(std::string("C.") + level.name + (bOn ? "=TRUE\n" : "=FALSE\n"));
        for (unsigned long i = 0; i < CM_TRACE_LEVEL_COUNT; ++i) {
            const bool bThis = std::strcmp(level.name, LEVELS[i].name) == 0;
            EXPECT_EQ(bThis ? bOn : LEVELS[i].byDefault != 0,
                      pTrace->enable_trace_print(i, nullptr) != 0)
                << level.name << " " << i;
        }
    }
}

TEST_F(CmT120Trace, ConfigSilencesEveryLevel_WhenEnableIsFalse) {
    for (const char* pszValue : {"FALSE", "false", "0", "1", "yes", "on", "TRUE!"}) {
        std::unique_ptr<CCmT120Trace> pTrace = Load(std::string("Enable=") + pszValue + "\n");
        EXPECT_TRUE(LevelsOn(*pTrace).empty()) << pszValue;
        Trace(*pTrace, 0, "text");
        EXPECT_TRUE(m_Library.calls().empty()) << pszValue;
    }
}

TEST_F(CmT120Trace, ConfigTakesTrueForEnable_WhateverItsCase) {
    for (const char* pszValue : {"TRUE", "true", "True"}) {
        std::unique_ptr<CCmT120Trace> pTrace = Load(std::string("Enable=") + pszValue + "\n");
        EXPECT_EQ(1, pTrace->enable_trace_print(0, nullptr)) << pszValue;
    }
}

TEST_F(CmT120Trace, ConfigIsReadAgain_WhenRefreshed) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Info=FALSE\n");
    m_Home.WriteConfig("[Trace]\nC.Debug=TRUE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, nullptr));
    pTrace->refersh_trace_config();
    EXPECT_EQ(1, pTrace->enable_trace_print(20, nullptr));
    EXPECT_EQ(1, pTrace->enable_trace_print(27, nullptr));
}

TEST_F(CmT120Trace, ConfigTurnsLevelsOffPerModule) {
    std::unique_ptr<CCmT120Trace> pTrace = Load(
        "Enable=TRUE\nC.Debug=TRUE\nC.Detail=TRUE\nC.Statistic=TRUE\nC.State=TRUE\n"
        "C.Func=TRUE\nC.PDU=TRUE\nC.Module=net,ui\nC.net.Info=FALSE\nC.ui.Debug=TRUE\n");
    // 14, 21, 23, 25 and 27 are off for a listed module unless it says TRUE; 22 has no switch.
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 22}), LevelsOn(*pTrace, "net"));
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20, 22, 27}), LevelsOn(*pTrace, "ui"));
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 14, 20, 21, 22, 23, 25, 27}),
              LevelsOn(*pTrace, "other"));
}

// The example of docs/configuration.md.
TEST_F(CmT120Trace, ConfigSwitchesNoModuleOn_WhenTheLevelIsOff) {
    const std::string sModules = "C.Module=rtp,stats\nC.rtp.Detail=TRUE\nC.stats.Info=FALSE\n";
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Detail=TRUE\n" + sModules);
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20, 25}), LevelsOn(*pTrace, "rtp"));
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13}), LevelsOn(*pTrace, "stats"));
    pTrace = Load(sModules);
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20}), LevelsOn(*pTrace, "rtp"));
}

TEST_F(CmT120Trace, ConfigTurnsDefaultOnLevelsOffPerModule) {
    std::unique_ptr<CCmT120Trace> pTrace = Load(
        "C.Module=net\nC.net.Error=FALSE\nC.net.Warning=FALSE\nC.net.Info=FALSE\n"
        "C.net.Server=FALSE\n");
    EXPECT_EQ((std::vector<int>{1, 11, 12, 13}), LevelsOn(*pTrace, "net"));
}

TEST_F(CmT120Trace, ConfigHasNoSwitch_WhenALevelHasNoName) {
    m_aTable[20].m_pszName = nullptr;
    m_aTable[27].m_pszName = nullptr;
    m_aTable[27].m_bEnabled.store(1);
    std::unique_ptr<CCmT120Trace> pTrace =
        Load("C.(null)=FALSE\nC.Module=net\nC.net.(null)=FALSE\nC.net.Error=FALSE\n");
    EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20, 27}), LevelsOn(*pTrace));
    EXPECT_EQ((std::vector<int>{1, 10, 11, 12, 13, 20, 27}), LevelsOn(*pTrace, "net"));
}

// Nor is one looked up whose key has the name that printf gives to null.
TEST_F(CmT120Trace, ConfigHasNoSwitch_WithoutTheNameOfAModuleOrALevel) {
    m_aTable[14].m_pszName = "(null)";
    m_aTable[20].m_pszName = nullptr;
    m_Home.WriteConfig("[Trace]\nC.Module=net,(null)\nC.(null).Error=FALSE\n");
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    pTrace->load(nullptr);
    EXPECT_EQ(0, pTrace->enable_trace_print(0, "(null)"));
    EXPECT_EQ(1, pTrace->enable_trace_print(0, nullptr));
    EXPECT_EQ(1, pTrace->enable_trace_print(20, "net"));
}

TEST_F(CmT120Trace, ConfigModuleDoesNotAffectTracing) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Module=net\nC.net.Error=FALSE\n");
    Trace(*pTrace, 0, "net", "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

TEST_F(CmT120Trace, ConfigForgetsModules_WhenRefreshed) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Module=net\nC.net.Error=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(0, "net"));
    m_Home.WriteConfig("[Trace]\n");
    pTrace->read_config();
    EXPECT_EQ(1, pTrace->enable_trace_print(0, "net"));
}

TEST_F(CmT120Trace, ConfigReadsTheEmptyModuleName) {
    std::unique_ptr<CCmT120Trace> pTrace =
        Load("C.Module=a,,b\nC.a.Info=FALSE\nC..Info=FALSE\nC.b.Info=FALSE\n");
    for (const char* pszModule : {"a", "", "b"}) {
        EXPECT_EQ(0, pTrace->enable_trace_print(20, pszModule)) << pszModule;
    }
    EXPECT_EQ(1, pTrace->enable_trace_print(20, "c"));
}

TEST_F(CmT120Trace, ConfigReadsAnEmptyName_AfterALastComma) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Module=a,\nC..Info=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, ""));
}

TEST_F(CmT120Trace, ConfigTrimsNoModuleName) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Module=a, b\nC. b.Info=FALSE\nC.b.Info=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, " b"));
    EXPECT_EQ(1, pTrace->enable_trace_print(20, "b"));
}

TEST_F(CmT120Trace, ConfigHonoursAModuleName_WhenItHas32Characters) {
    const std::string sName(32, 'm');
    std::unique_ptr<CCmT120Trace> pTrace =
        Load("C.Module=" + sName + ",z\nC." + sName + ".Info=FALSE\nC.z.Info=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, sName.c_str()));
    EXPECT_EQ(0, pTrace->enable_trace_print(20, "z"));
}

TEST_F(CmT120Trace, ConfigEnds_WhenAModuleNameHas33Characters) {
    const std::string sName(33, 'm');
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Module=a," + sName + ",z\nC.a.Info=FALSE\nC." +
                                                sName + ".Info=FALSE\nC.z.Info=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, "a"));
    EXPECT_EQ(1, pTrace->enable_trace_print(20, sName.c_str()));
    EXPECT_EQ(1, pTrace->enable_trace_print(20, "z"));
}

TEST_F(CmT120Trace, ConfigReadsAModuleListOf1024Characters) {
    std::string sList;
    for (int i = 0; i < 512; ++i) {
        sList += i == 511 ? ",z" : ",y";
    }
    std::unique_ptr<CCmT120Trace> pTrace =
        Load("C.Module=x" + sList.substr(1) + "\nC.z.Info=FALSE\n");
    EXPECT_EQ(0, pTrace->enable_trace_print(20, "z"));
}

TEST_F(CmT120Trace, ConfigLeavesALevelOn_WhenMemoryRunsOut) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    m_Home.WriteConfig("[Trace]\nC.Module=net\nC.net.Info=FALSE\n");
    {
        ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        pTrace->read_config();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(1, pTrace->enable_trace_print(20, "net"));
    pTrace->read_config();
    EXPECT_EQ(0, pTrace->enable_trace_print(20, "net"));
}

// Stands in for an executable of that name; the buffer is the library's, and writable.
TEST_F(CmT120Trace, ConfigIsThatOfTheAgent_WhenTheProcessIsNamedSo) {
    EXPECT_EQ(0, StatusOfChild([this] {
                  std::strcpy(const_cast<char*>(get_exec_name()), "agent");
                  std::unique_ptr<CCmT120Trace> pTrace = Load(
                      "Enable=TRUE\nFlushPerLines=10\nagent=65536\nagent.Debug=TRUE\n"
                      "agent.Module=net,ui\nagent.net.Info=FALSE\n");
                  EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20, 27}), LevelsOn(*pTrace));
                  EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13}), LevelsOn(*pTrace, "net"));
                  EXPECT_EQ((std::vector<int>{0, 1, 10, 11, 12, 13, 20}), LevelsOn(*pTrace, "ui"));
              }));
}

// ---- Trace file

TEST_F(CmT120Trace, KeepsTheDayAndMonthOfItsConstruction_WhateverTheDayLater) {
    const time_t START = 1100000000;
    kelto_test::ScopedClock clock(START);
    tm date = {};
    ASSERT_NE(nullptr, localtime_r(&START, &date));
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    clock.Set(START + 40 * 24 * 3600);
    pTrace->load(nullptr);
    EXPECT_EQ(date.tm_mday, kelto_test::FieldAt<int>(pTrace.get(), 72));
    EXPECT_EQ(date.tm_mon + 1, kelto_test::FieldAt<int>(pTrace.get(), 76));
}

TEST_F(CmT120Trace, HasNoDayOfItsConstruction_WhenTheLocalTimeFails) {
    kelto_test::FailingCall<&CCmSystemTable::localtime_r> fault(EOVERFLOW, nullptr);
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    EXPECT_EQ(0, kelto_test::FieldAt<int>(pTrace.get(), 72));
    EXPECT_EQ(0, kelto_test::FieldAt<int>(pTrace.get(), 76));
}

// The record that the facility opened, by its path.
CCmT120TraceFile* RecordOf(const std::string& aPath) {
    return static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(aPath.c_str(), 0, 0, 0));
}

std::string ReadFile(const std::string& aPath) {
    FILE* pFile = std::fopen(aPath.c_str(), "rb");
    if (pFile == nullptr) {
        return "no file";
    }
    char achContent[70000];
    const size_t nLength = std::fread(achContent, 1, sizeof(achContent), pFile);
    std::fclose(pFile);
    return std::string(achContent, nLength);
}

std::string Header(long aPosition) {
    std::string sHeader = std::to_string(aPosition);
    sHeader.resize(31, ' ');
    return sHeader + "\n";
}

// Whether a shared-path write at aPosition starts at the top again, which it does at the limit.
bool IsAtLimit(CCmT120TraceFile& aRecord, const std::string& aPath, long aPosition) {
    kelto_test::WriteFile(aPath, Header(aPosition));
    aRecord.write_shared(nullptr, nullptr, "text");
    return std::stol(ReadFile(aPath).substr(0, 31)) < aPosition;
}

struct SizeCase {
    const char* value;
    long limit;
};

TEST_F(CmT120Trace, FileTakesItsSizeLimitFromTheConfiguration) {
    const SizeCase CASES[] = {
        {"C=1024\n", 20971520},  // too small
        {"C=1025\n", 1025},      // the smallest
        {"C=65536\n", 65536},    // the usual
        {"C=-1\n", 20971520},    // negative
        {"C=abc\n", 20971520},   // no number
        {"", 20971520},          // missing
    };
    const std::string sPath = m_Home.path() + "/logs/C_Trace.txt";
    for (const SizeCase& size : CASES) {
        std::unique_ptr<CCmT120Trace> pTrace = Load(size.value);
        CCmT120TraceFile* pRecord = RecordOf(sPath);
        ASSERT_EQ(CM_OK, pRecord->attach());
        EXPECT_FALSE(IsAtLimit(*pRecord, sPath, size.limit - 1)) << size.value;
        EXPECT_TRUE(IsAtLimit(*pRecord, sPath, size.limit)) << size.value;
        T120_Close_Trace_Dev(pRecord);
    }
}

TEST_F(CmT120Trace, FileIsLimitedByTheProcessName_WhenItHasAFileNameOfItsOwn) {
    m_Home.WriteConfig("[Trace]\nown.txt=2000\nC=3000\n");
    std::unique_ptr<CCmT120Trace> pTrace = Create("own.txt", 1);
    pTrace->load(nullptr);
    const std::string sPath = m_Home.path() + "/logs/own.txt";
    CCmT120TraceFile* pRecord = RecordOf(sPath);
    ASSERT_EQ(CM_OK, pRecord->attach());
    EXPECT_FALSE(IsAtLimit(*pRecord, sPath, 2999));
    EXPECT_TRUE(IsAtLimit(*pRecord, sPath, 3000));
    T120_Close_Trace_Dev(pRecord);
}

std::string s_sLookedAt;
unsigned long s_ulLimitMeanwhile = 0;
int s_nFilesRead = 0;

// Takes the limit of the facility's record when the configuration is read for the second time.
int OpenThatLooksAtTheRecord(const char* aPath, int aFlags, mode_t aMode) {
    if (++s_nFilesRead == 2) {
        s_ulLimitMeanwhile = kelto_test::FieldAt<unsigned long>(RecordOf(s_sLookedAt), 32);
    }
    return open(aPath, aFlags, aMode);
}

// The first reading, before the record is opened, is of its limit alone.
TEST_F(CmT120Trace, FileIsLimitedByItsOwnName_UntilTheConfigurationIsRead) {
    m_Home.WriteConfig("[Trace]\nown.txt=2000\nC=3000\n");
    s_sLookedAt = m_Home.path() + "/logs/own.txt";
    std::unique_ptr<CCmT120Trace> pTrace = Create("own.txt", 1);
    kelto_test::ScopedEntry<decltype(g_cmSystem.open)> entry(g_cmSystem.open,
                                                             OpenThatLooksAtTheRecord);
    s_nFilesRead = 0;
    pTrace->load(nullptr);
    EXPECT_EQ(2000U, s_ulLimitMeanwhile);
    EXPECT_EQ(3000U, kelto_test::FieldAt<unsigned long>(RecordOf(s_sLookedAt), 32));
    T120_Close_Trace_Dev(RecordOf(s_sLookedAt));
}

struct FlushCase {
    const char* value;
    int lines;
};

TEST_F(CmT120Trace, FileTakesItsFlushCountFromTheConfiguration) {
    const FlushCase CASES[] = {
        {"FlushPerLines=3\n", 3},
        {"FlushPerLines=0\n", 1},
        {"FlushPerLines=-5\n", 1},
        {"FlushPerLines=x\n", 1},
        {"", 1},
    };
    const std::string sPath = m_Home.path() + "/logs/C_Trace.txt";
    for (const FlushCase& flush : CASES) {
        std::unique_ptr<CCmT120Trace> pTrace = Load(flush.value);
        CCmT120TraceFile* pRecord = RecordOf(sPath);
        kelto_test::WriteFile(sPath, Header(32));
        ASSERT_EQ(CM_OK, pRecord->attach());
        for (int i = 1; i < flush.lines; ++i) {
            pRecord->write(nullptr, nullptr, "held");
            EXPECT_EQ(Header(32), ReadFile(sPath)) << flush.value;
        }
        pRecord->write(nullptr, nullptr, "last");
        EXPECT_NE(Header(32), ReadFile(sPath)) << flush.value;
        T120_Close_Trace_Dev(pRecord);
    }
}

#if defined(__SANITIZE_THREAD__)
constexpr char ENORMOUS[] = "100000";  // there, reserving 2 GiB takes seconds
#else
constexpr char ENORMOUS[] = "2147483647";
#endif

TEST_F(CmT120Trace, FileIsWritten_WhenTheFlushCountIsEnormous) {
    std::unique_ptr<CCmT120Trace> pTrace = Load(std::string("FlushPerLines=") + ENORMOUS + "\n");
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
    T120_Refresh_Settings(0, 1);
}

TEST_F(CmT120Trace, FileIsNamedAfterTheProcessOrAsGiven) {
    const std::string sLogs = m_Home.path() + "/logs/";
    const std::string sPid = std::to_string(getpid());
    struct {
        const char* fileName;
        unsigned char single;
        std::string path;
    } const CASES[] = {
        {nullptr, 0, sLogs + "C_Trace.txt"},
        {nullptr, 1, sLogs + "C_Trace.txt"},
        {"own.txt", 1, sLogs + "own.txt"},
        {"own.txt", 0, sLogs + "own.txt." + sPid},
    };
    for (const auto& file : CASES) {
        std::unique_ptr<CCmT120Trace> pTrace = Create(file.fileName, file.single);
        pTrace->load(nullptr);
        const auto dwRecords = kelto_test::FieldAt<uint32_t>(&g_trace_mgr, 8);  // ever opened
        CCmT120TraceFile* pRecord = RecordOf(file.path);
        EXPECT_EQ(dwRecords, kelto_test::FieldAt<uint32_t>(&g_trace_mgr, 8)) << file.path;
        EXPECT_EQ(1, pRecord->is_same_file(file.path.c_str()));
        ASSERT_EQ(CM_OK, pRecord->attach());
        kelto_test::WriteFile(file.path, Header(32));
        pRecord->refresh_settings(0, 2);
        pRecord->write(nullptr, nullptr, "text");
        EXPECT_EQ(file.single == 1, ReadFile(file.path) != Header(32)) << file.path;
        T120_Close_Trace_Dev(pRecord);
    }
}

// The record by the path that is cut is the facility's, and shared.
TEST_F(CmT120Trace, FileHasAPathOfAtMost511Characters) {
    const std::string sName(600, 'n');
    std::unique_ptr<CCmT120Trace> pTrace = Create(sName.c_str(), 1);
    pTrace->load(nullptr);
    const std::string sPath = (m_Home.path() + "/logs/" + sName).substr(0, 511);
    CCmT120TraceFile* pRecord = RecordOf(sPath);
    const std::string sFile = m_Home.path() + "short";
    kelto_test::WriteFile(sFile, Header(32));
    ASSERT_EQ(CM_OK, pRecord->attach(sFile.c_str()));
    pRecord->refresh_settings(0, 2);
    pRecord->write(nullptr, nullptr, "text");
    EXPECT_NE(Header(32), ReadFile(sFile));
    T120_Close_Trace_Dev(pRecord);
}

TEST_F(CmT120Trace, LoadCreatesTheTraceDirectory) {
    umask(022);
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    EXPECT_FALSE(std::filesystem::exists(m_Home.path() + "logs"));
    EXPECT_EQ(1, pTrace->load(nullptr));
    struct stat status = {};
    ASSERT_EQ(0, stat((m_Home.path() + "logs").c_str(), &status));
    EXPECT_EQ(0755u, status.st_mode & 0777u);
    EXPECT_EQ(1, Create()->load(nullptr));
}

TEST_F(CmT120Trace, LoadDoesNothing_WhenLoadedAlready) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    m_Home.WriteConfig("[Trace]\nEnable=FALSE\n");
    EXPECT_EQ(1, pTrace->load(nullptr));
    EXPECT_EQ(1, pTrace->enable_trace_print(0, nullptr));
}

TEST_F(CmT120Trace, LoadOpensTheRecordAgainAndReadsTheConfiguration_WhenItIsItsOwn) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    CCmT120TraceFile* pRecord = RecordOf(m_Home.path() + "/logs/C_Trace.txt");
    ASSERT_EQ(CM_OK, pRecord->attach());
    m_Home.WriteConfig("[Trace]\nC.Info=FALSE\n");
    EXPECT_EQ(1, pTrace->load(pRecord));
    EXPECT_EQ(0, pTrace->enable_trace_print(20, nullptr));
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
    // The new record has no file attached.
    pRecord = RecordOf(m_Home.path() + "/logs/C_Trace.txt");
    EXPECT_EQ(CM_OK, pRecord->attach());
    T120_Close_Trace_Dev(pRecord);
}

TEST_F(CmT120Trace, TraceDropsEverything_WhenTheRecordCannotBeOpenedAgain) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    CCmT120TraceFile* pRecord = RecordOf(m_Home.path() + "/logs/C_Trace.txt");
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(1, pTrace->load(pRecord));
        EXPECT_TRUE(fault.hit());
    }
    Trace(*pTrace, 0, "lost");
    pTrace->load(nullptr);
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

TEST_F(CmT120Trace, LoadClosesTheRecordOnly_WhenItIsAnother) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    const std::string sOther = m_Home.path() + "other";
    CCmT120TraceFile* pOther = RecordOf(sOther);
    ASSERT_EQ(CM_OK, pOther->attach());
    EXPECT_EQ(1, pTrace->load(pOther));
    CCmT120TraceFile* pAgain = RecordOf(sOther);
    EXPECT_EQ(CM_OK, pAgain->attach());
    T120_Close_Trace_Dev(pAgain);
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

TEST_F(CmT120Trace, LoadOpensNothing_WhenTheRecordIsAnotherAndNothingWasOpen) {
    std::unique_ptr<CCmT120Trace> pTrace = Create();
    EXPECT_EQ(1, pTrace->load(RecordOf(m_Home.path() + "other")));
    Trace(*pTrace, 0, "lost");
    EXPECT_TRUE(m_Library.calls().empty());
}

TEST_F(CmT120Trace, TraceDirEndsWithTheArrayOfTheHome) {
    const std::string sHome(g_def_kelto_home_dir);
    std::memcpy(g_def_kelto_home_dir, "/0123456789abcde", CM_HOME_DIR_SIZE);
    EXPECT_STREQ("/0123456789abcde/logs", CCmT120Trace::get_trace_dir());
    std::strcpy(g_def_kelto_home_dir, sHome.c_str());
    EXPECT_EQ(sHome + "/logs", CCmT120Trace::get_trace_dir());
}

// Its text may be read by other threads, so it is not written again either.
TEST_F(CmT120Trace, TraceDirIsLeftAlone_UntilTheHomeChanges) {
    char* const pchLast = const_cast<char*>(CCmT120Trace::get_trace_dir()) + 511;
    *pchLast = 'x';
    EXPECT_EQ(m_Home.path() + "/logs", CCmT120Trace::get_trace_dir());
    EXPECT_EQ('x', *pchLast);
    *pchLast = '\0';
}

TEST_F(CmT120Trace, TraceDirKeepsTheDoubledSlash) {
    EXPECT_EQ(m_Home.path() + "/logs", CCmT120Trace::get_trace_dir());
    EXPECT_EQ("//logs", std::string(CCmT120Trace::get_trace_dir()).substr(12));
}

TEST_F(CmT120Trace, ProcessNameIsTheFirstCharacterOfTheExecutable) {
    EXPECT_STREQ("C", CCmT120Trace::get_process_name());
}

// ---- Bundle

// Runs the calling test in this executable under another path, without extension and four
// directories below one with the bundle. True there; elsewhere the result of that run is checked.
bool RunsBesideABundle(const ScopedHome& aHome) {
    constexpr char BESIDE[] = "KELTO_TEST_BESIDE_A_BUNDLE";
    if (getenv(BESIDE) != nullptr) {
        return true;
    }
    const std::string sPath = aHome.path() + "a/b/c/d/CmT120Trace_test";
    std::filesystem::create_directories(aHome.path() + "a/b/c/d");
    std::filesystem::create_directory(aHome.path() + "a/yrktrace.bundle");
    std::filesystem::create_symlink(kelto_test::PathOfThisProgram(), sPath);
    std::string sFilter = std::string("--gtest_filter=CmT120Trace.") +
                          testing::UnitTest::GetInstance()->current_test_info()->name();
    std::string sName = sPath;
    char* const arguments[] = {&sName[0], &sFilter[0], nullptr};
    EXPECT_EQ(0, StatusOfChild([&] {
                  setenv(BESIDE, "1", 1);
                  execv(sPath.c_str(), arguments);
                  ADD_FAILURE() << "cannot run " << sPath;
              }));
    return false;
}

TEST_F(CmT120Trace, CloseTakesTheLevelFunctionsAway_WhenThereIsABundle) {
    if (!RunsBesideABundle(m_Home)) {
        return;
    }
    std::unique_ptr<CCmT120Trace> pTrace = Load("C.Detail=TRUE\n");
    Trace(*pTrace, 0, "before");
    pTrace->Close();
    for (unsigned long ulLevel : {0ul, 10ul, 20ul, 25ul}) {
        Trace(*pTrace, ulLevel, "after");
    }
    pTrace->Close();
    EXPECT_EQ(Texts{"before"}, m_Library.texts());
}

const char* s_pszModule = nullptr;

int DladdrOfModule(const void* /*aAddress*/, Dl_info* aInfo) {
    aInfo->dli_fname = s_pszModule;
    return 1;
}

// Whether a facility whose library is the file aModule finds a bundle, which Close shows.
bool FindsABundle(CCmT120TraceMapEntry* aTable, const std::string& aModule) {
    s_pszModule = aModule.c_str();
    kelto_test::ScopedEntry<decltype(g_cmSystem.dladdr)> entry(g_cmSystem.dladdr, DladdrOfModule);
    ScopedTraceLibrary library;
    UTIL_NS::CCmT120Trace facility("test", aTable, nullptr, 0);
    facility.load(nullptr);
    facility.Close();
    Trace(facility, 0, "text");
    return library.calls().empty();
}

TEST_F(CmT120Trace, BundleLiesBesideTheLibrary_WhenThatHasAnExtension) {
    std::filesystem::create_directory(m_Home.path() + "yrktrace.bundle");
    std::filesystem::create_directories(m_Home.path() + "a/b/c");
    kelto_test::WriteFile(m_Home.path() + "libutil.so", "");
    kelto_test::WriteFile(m_Home.path() + "a/b/c/libutil.so", "");
    EXPECT_TRUE(FindsABundle(m_aTable, m_Home.path() + "libutil.so"));
    EXPECT_FALSE(FindsABundle(m_aTable, m_Home.path() + "a/b/c/libutil.so"));
}

int DladdrThatFails(const void* /*aAddress*/, Dl_info* /*aInfo*/) {
    return 0;
}

int AccessOfAnything(const char* /*aPath*/, int /*aMode*/) {
    return 0;
}

TEST_F(CmT120Trace, BundleIsMissing_WhenTheLibraryHasNoPath) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.dladdr)> dladdrEntry(g_cmSystem.dladdr,
                                                                     DladdrThatFails);
    kelto_test::ScopedEntry<decltype(g_cmSystem.access)> accessEntry(g_cmSystem.access,
                                                                     AccessOfAnything);
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    pTrace->Close();
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

TEST_F(CmT120Trace, BundleLiesFourLevelsAboveTheLibrary_WhenThatHasNoExtension) {
    std::filesystem::create_directory(m_Home.path() + "yrktrace.bundle");
    std::filesystem::create_directories(m_Home.path() + "a/b/c");
    kelto_test::WriteFile(m_Home.path() + "util", "");
    kelto_test::WriteFile(m_Home.path() + "a/b/c/util", "");
    EXPECT_TRUE(FindsABundle(m_aTable, m_Home.path() + "a/b/c/util"));
    EXPECT_FALSE(FindsABundle(m_aTable, m_Home.path() + "util"));
}

TEST_F(CmT120Trace, BundleLiesBesideTheLibrary_WhenThatIsNoFile) {
    std::filesystem::create_directory(m_Home.path() + "yrktrace.bundle");
    EXPECT_TRUE(FindsABundle(m_aTable, m_Home.path() + "gone"));
}

TEST_F(CmT120Trace, BundleIsMissing_WhenThePathHasTooFewComponents) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_Home.path());
    std::filesystem::create_directory("yrktrace.bundle");
    std::filesystem::create_directories("a/b");
    std::filesystem::create_directory("a/yrktrace.bundle");
    kelto_test::WriteFile("a/b/util", "");
    EXPECT_FALSE(FindsABundle(m_aTable, "libutil.so"));
    EXPECT_FALSE(FindsABundle(m_aTable, "a/b/util"));
    std::filesystem::current_path(before);
}

TEST_F(CmT120Trace, BundleIsMissing_WhenThePathDoesNotFit) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_Home.path());
    std::filesystem::create_directory("yrktrace.bundle");
    // The paths name the home: 1023 characters of the library's path fit, and 1007 of what is left
    // of it, since "/yrktrace.bundle" has 16.
    std::string sDots(1007, '/');
    sDots[0] = '.';
    EXPECT_TRUE(FindsABundle(m_aTable, sDots + "/gone"));
    EXPECT_TRUE(FindsABundle(m_aTable, "./" + std::string(1021, 'x')));
    EXPECT_FALSE(FindsABundle(m_aTable, "./" + std::string(1022, 'x')));
    EXPECT_FALSE(FindsABundle(m_aTable, sDots + "//gone"));
    std::filesystem::current_path(before);
}

TEST_F(CmT120Trace, CloseChangesNothing_WithoutABundle) {
    std::unique_ptr<CCmT120Trace> pTrace = Load("");
    pTrace->Close();
    Trace(*pTrace, 0, "text");
    EXPECT_EQ(Texts{"text"}, m_Library.texts());
}

// ---- The facility of the process, in a process of its own each

TEST(CmT120TraceInstance, InstanceIsOneAndDeliversALine_WithoutASink) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  util_adapter_trace(10, "UTIL WARNING: text", 18);
                  util_adapter_trace_ex(0, "net", "UTIL ERROR: text", 16);
                  EXPECT_EQ((Texts{"UTIL WARNING: text", "UTIL ERROR: text"}), library.texts());
                  EXPECT_EQ(CCmT120Trace::instance(), CCmT120Trace::instance());
              }));
}

TEST(CmT120TraceInstance, InstanceSeesNothing_WhileASinkIsInstalled) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  {
                      ScopedTraceSink sink;
                      util_adapter_trace(10, "to the sink", 11);
                      EXPECT_EQ(1u, sink.lines().size());
                  }
                  util_adapter_trace(10, "to the facility", 15);
                  EXPECT_EQ(Texts{"to the facility"}, library.texts());
              }));
}

TEST(CmT120TraceInstance, InstanceIsLoadedOnce_WhenManyThreadsComeFirst) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  std::vector<std::thread> threads;
                  std::vector<CCmT120Trace*> seen(8);
                  for (size_t i = 0; i < seen.size(); ++i) {
                      threads.emplace_back([&seen, i] {
                          util_adapter_trace(0, "line", 4);
                          seen[i] = CCmT120Trace::instance();
                      });
                  }
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  EXPECT_EQ(std::vector<CCmT120Trace*>(8, seen[0]), seen);
                  // None was dropped for coming while another thread was loading.
                  EXPECT_EQ(Texts(8, "line"), library.texts());
              }));
}

CCmT120Trace* s_pAskedMeanwhile = nullptr;
std::thread s_otherThread;
std::atomic<int> s_nOpened{0};

int OpenThatAsksForTheFacility(const char* aPath, int aFlags, mode_t aMode) {
    if (++s_nOpened == 1) {
        s_pAskedMeanwhile = CCmT120Trace::instance();
    }
    return open(aPath, aFlags, aMode);
}

// Lasts until another thread, which asks for the facility too, has it.
int OpenWhileAnotherThreadAsks(const char* aPath, int aFlags, mode_t aMode) {
    if (++s_nOpened == 1) {
        Gate hasIt;
        s_otherThread = std::thread([&hasIt] {
            s_pAskedMeanwhile = CCmT120Trace::instance();
            util_adapter_trace(0, "line", 4);
            hasIt.Open();
        });
        EXPECT_TRUE(hasIt.Wait());
    }
    return open(aPath, aFlags, aMode);
}

using OpenEntry = kelto_test::ScopedEntry<decltype(g_cmSystem.open)>;

TEST(CmT120TraceInstance, InstanceIsTheOneBeingLoaded_WhenLoadingAsksForIt) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  OpenEntry entry(g_cmSystem.open, OpenThatAsksForTheFacility);
                  CCmT120Trace* pFacility = CCmT120Trace::instance();
                  EXPECT_NE(nullptr, pFacility);
                  EXPECT_EQ(pFacility, s_pAskedMeanwhile);
              }));
}

TEST(CmT120TraceInstance, InstanceWaitsForNobody_WhenAnotherThreadLoadsIt) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  OpenEntry entry(g_cmSystem.open, OpenWhileAnotherThreadAsks);
                  CCmT120Trace* pFacility = CCmT120Trace::instance();
                  s_otherThread.join();
                  EXPECT_NE(nullptr, pFacility);
                  EXPECT_EQ(pFacility, s_pAskedMeanwhile);
                  EXPECT_EQ(Texts{"line"}, library.texts());
              }));
}

TEST(CmT120TraceInstance, InstanceIsMade_WithoutMemory) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  {
                      ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
                      util_adapter_trace(0, "lost", 4);
                      EXPECT_NE(nullptr, CCmT120Trace::instance());
                      EXPECT_TRUE(fault.hit());
                  }
                  EXPECT_TRUE(library.calls().empty());
              }));
}

TEST(CmT120TraceInstance, InstanceIsRefreshed) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  EXPECT_EQ(1, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
                  home.WriteConfig("[Trace]\nC.Info=FALSE\n");
                  refresh_trace_config();
                  EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
              }));
}

TEST(CmT120TraceInstance, SwitchesWaitForNobody_WhileTheConfigurationIsWritten) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  const std::string sConfig = home.path() + "conf/kelto.cfg";
                  CCmT120Trace::instance();
                  ASSERT_EQ(0, mkfifo(sConfig.c_str(), 0600));
                  const int nPipe = open(sConfig.c_str(), O_RDWR);
                  std::atomic<bool> bRefreshed{false};
                  std::thread refresh([&bRefreshed] {
                      refresh_trace_config();
                      bRefreshed = true;
                  });
                  Gate answered;
                  std::thread other([&answered] {
                      std::this_thread::sleep_for(std::chrono::milliseconds(20));
                      CCmT120Trace* pFacility = CCmT120Trace::instance();
                      EXPECT_EQ(1, pFacility->enable_trace_print(20, "net"));
                      util_adapter_trace(20, "line", 4);
                      T120_Close_Trace_Dev(T120_Open_Trace_Dev(nullptr, 0, 0, 0));
                      answered.Open();
                  });
                  EXPECT_TRUE(answered.Wait());
                  EXPECT_FALSE(bRefreshed);
                  close(nPipe);
                  refresh.join();
                  other.join();
              }));
}

Gate s_lateReads;
Gate s_mayReadOn;
thread_local bool t_bLate = false;
thread_local int t_nOpened = 0;

// A late thread stops after the last level, with all that it has read.
int OpenThatStops(const char* aPath, int aFlags, mode_t aMode) {
    constexpr int OPENED_BEFORE_MODULES = 3 + 28;
    if (t_bLate && ++t_nOpened == OPENED_BEFORE_MODULES + 1) {
        s_lateReads.Open();
        EXPECT_TRUE(s_mayReadOn.Wait());
    }
    return open(aPath, aFlags, aMode);
}

TEST(CmT120TraceInstance, SwitchesAreThoseOfTheReadingThatBeganLast) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  CCmT120Trace::instance();
                  OpenEntry entry(g_cmSystem.open, OpenThatStops);
                  std::thread late([] {
                      t_bLate = true;
                      refresh_trace_config();
                  });
                  EXPECT_TRUE(s_lateReads.Wait());
                  home.WriteConfig("[Trace]\nC.Info=FALSE\n");
                  refresh_trace_config();
                  EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
                  s_mayReadOn.Open();
                  late.join();
                  EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
              }));
}

// The other facility's readings go to the same files.
TEST(CmT120TraceInstance, FilesKeepTheSettingsOfTheReadingThatBeganLast) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  CCmT120Trace::instance();
                  const std::string sPath = home.path() + "file";
                  void* pRecord = T120_Open_Trace_Dev(sPath.c_str(), 0, 0, 0);
                  ASSERT_EQ(CM_OK, static_cast<CCmT120TraceFile*>(pRecord)->attach());
                  OpenEntry entry(g_cmSystem.open, OpenThatStops);
                  std::thread late([] {
                      t_bLate = true;
                      refresh_trace_config();
                  });
                  EXPECT_TRUE(s_lateReads.Wait());
                  home.WriteConfig("[Trace]\nFlushPerLines=2\n");
                  CCmT120Trace2::instance();
                  s_mayReadOn.Open();
                  late.join();
                  T120_Write_Trace_Dev(pRecord, nullptr, nullptr, "line");
                  EXPECT_EQ(0u, std::filesystem::file_size(sPath));
                  T120_Write_Trace_Dev(pRecord, nullptr, nullptr, "line");
                  EXPECT_NE(0u, std::filesystem::file_size(sPath));
                  T120_Close_Trace_Dev(pRecord);
              }));
}

TEST(CmT120TraceInstance, InstanceTraces_AfterCleanupAll) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  util_adapter_trace(0, "before", 6);
                  CCmCleanUpBase::CleanupAll();
                  util_adapter_trace(0, "after", 5);
                  EXPECT_EQ((Texts{"before", "after"}), library.texts());
              }));
}

// What TraceLast is to find delivered; without it, it does nothing.
const Texts* g_pExpectedLast = nullptr;
ScopedHome* g_pLastHome = nullptr;

// Traces when the static objects of the library are gone already.
void TraceLast() {
    if (g_pExpectedLast != nullptr) {
        ScopedTraceLibrary library;
        util_adapter_trace(0, "one", 3);
        refresh_trace_config();
        util_adapter_trace(0, "two", 3);
        delete g_pLastHome;
        EndProcess(library.texts() == *g_pExpectedLast ? 7 : 1);
    }
}

// Before any static object is constructed, so that the handler runs when they are destroyed.
__attribute__((constructor(101))) void RegisterTraceLast() {
    std::atexit(TraceLast);
}

TEST(CmT120TraceInstance, InstanceTraces_WhileTheProgramEnds) {
    EXPECT_EXIT(
        {
            Texts expected(1, "one");
            expected.push_back("two");
            g_pExpectedLast = &expected;
            g_pLastHome = new ScopedHome;
            CCmT120Trace::instance();
            exit(0);
        },
        testing::ExitedWithCode(7), "");
}

TEST(CmT120TraceInstance, InstanceReadsTheChosenFile_WhileTheProgramEnds) {
    EXPECT_EXIT(
        {
            const Texts expected(1, "one");
            g_pExpectedLast = &expected;
            g_pLastHome = new ScopedHome;
            set_kelto_config_file_name("a-file-name-that-is-long.cfg");
            CCmT120Trace::instance();
            kelto_test::WriteFile(g_pLastHome->path() + "conf/a-file-name-that-is-long.cfg",
                                  "[Trace]\nC.Error=FALSE\n");
            exit(0);
        },
        testing::ExitedWithCode(7), "");
}

// No record can be opened any more.
TEST(CmT120TraceInstance, InstanceIsSilent_WhenTheFirstLineComesAfterTheEnd) {
    EXPECT_EXIT(
        {
            const Texts expected;
            g_pExpectedLast = &expected;
            g_pLastHome = new ScopedHome;
            exit(0);
        },
        testing::ExitedWithCode(7), "");
}

TEST(CmT120TraceInstance, IsWantedIsTrue_UntilTheFacilityExists) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  EXPECT_TRUE(CmTraceIsWanted(25));
                  CCmT120Trace::instance();
                  EXPECT_FALSE(CmTraceIsWanted(25));
                  EXPECT_TRUE(CmTraceIsWanted(0));
                  EXPECT_TRUE(CmTraceIsWanted(10));
                  EXPECT_TRUE(CmTraceIsWanted(20));
                  EXPECT_FALSE(CmTraceIsWanted(1));
                  EXPECT_FALSE(CmTraceIsWanted(28));
                  ScopedTraceSink sink;
                  EXPECT_TRUE(CmTraceIsWanted(25));
              }));
}

TEST(CmT120TraceInstance, IsWantedFollowsTheConfiguration) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig("[Trace]\nC.Info=FALSE\n");
                  CCmT120Trace::instance();
                  EXPECT_FALSE(CmTraceIsWanted(20));
                  home.WriteConfig("[Trace]\nEnable=FALSE\n");
                  refresh_trace_config();
                  EXPECT_FALSE(CmTraceIsWanted(0));
              }));
}

TEST(CmT120TraceInstance, SwitchesChange_WhileThreadsTrace) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  home.WriteConfig("[Trace]\nC.Module=net\nC.net.Error=FALSE\n");
                  std::atomic<bool> bStop{false};
                  std::vector<std::thread> threads;
                  for (int i = 0; i < 2; ++i) {
                      threads.emplace_back([&bStop] {
                          while (!bStop) {
                              CM_ERROR_TRACE("line " << 1);
                              CCmT120Trace::instance()->enable_trace_print(0, "net");
                          }
                      });
                  }
                  for (int i = 0; i < 50; ++i) {
                      refresh_trace_config();
                  }
                  bStop = true;
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(0, "net"));
              }));
}

}  // namespace
}  // namespace UTIL_NS
