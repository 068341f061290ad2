// CM_TRACE_LEVELS, and that whatever knows the levels agrees with it. A level that is added needs
// no change here.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "CmLogStream.h"
#include "CmTraceLevels.h"
#include "support/ChildProcess.h"
#include "support/Home.h"
#include "support/TraceLibrary.h"

namespace UTIL_NS {
namespace {

using kelto_test::ScopedHome;
using kelto_test::ScopedTraceLibrary;
using kelto_test::StatusOfChild;
using Level = CCmTraceLevel;

const Level* RowOf(unsigned long aLevel) {
    static const std::map<unsigned long, const Level*> s_rows = [] {
        std::map<unsigned long, const Level*> rows;
        for (const Level& level : CM_TRACE_LEVELS) {
            rows.emplace(level.m_ulLevel, &level);
        }
        return rows;
    }();
    const auto itRow = s_rows.find(aLevel);
    return itRow != s_rows.end() ? itRow->second : nullptr;
}

// "[Trace]" with every level on and a module "m".
std::string EverythingOn() {
    const std::string sProcess = CCmT120Trace::get_process_name();
    std::string sSection = "[Trace]\n" + sProcess + ".Module=m\n";
    for (const Level& level : CM_TRACE_LEVELS) {
        sSection += sProcess + "." + level.m_pszName + "=TRUE\n";
    }
    return sSection + sProcess + "." + CM_TRACE_LEVEL_UNUSED + "=TRUE\n";
}

TEST(CmTraceLevelsTable, RowsAreTheStatedOnes) {
    const Level STATED[] = {
        {0, "Error", 1, 0, Level::MODULES_ON, Level::FUNCTION_ERROR},
        {1, "Server", 1, 1, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {10, "Warning", 1, 0, Level::MODULES_ON, Level::FUNCTION_WARN},
        {11, "Meeting", 1, 1, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {12, "Session", 1, 1, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {13, "User", 1, 1, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {14, "Statistic", 0, 1, Level::MODULES_OFF, Level::FUNCTION_NONE},
        {20, "Info", 1, 1, Level::MODULES_ON, Level::FUNCTION_INFO},
        {21, "State", 0, 1, Level::MODULES_OFF, Level::FUNCTION_NONE},
        {22, "PDU", 0, 0, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {23, "Func", 0, 0, Level::MODULES_OFF, Level::FUNCTION_NONE},
        {24, "Tick", 0, 0, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {25, "Detail", 0, 0, Level::MODULES_OFF, Level::FUNCTION_DEBUG},
        {26, "WDMS", 0, 0, Level::MODULES_NONE, Level::FUNCTION_NONE},
        {27, "Debug", 0, 0, Level::MODULES_OFF, Level::FUNCTION_NONE},
    };
    for (const Level& stated : STATED) {
        const Level* pRow = RowOf(stated.m_ulLevel);
        ASSERT_NE(nullptr, pRow) << stated.m_ulLevel;
        EXPECT_STREQ(stated.m_pszName, pRow->m_pszName);
        EXPECT_EQ(stated.m_bDefault, pRow->m_bDefault) << stated.m_pszName;
        EXPECT_EQ(stated.m_bDefault2, pRow->m_bDefault2) << stated.m_pszName;
        EXPECT_EQ(stated.m_eModules, pRow->m_eModules) << stated.m_pszName;
        EXPECT_EQ(stated.m_eFunction, pRow->m_eFunction) << stated.m_pszName;
    }
}

// A name is part of a key "process.module.name" of the configuration.
TEST(CmTraceLevelsTable, RowsHaveANumberAndANameOfTheirOwn) {
    std::set<unsigned long> numbers;
    std::set<std::string> names{CM_TRACE_LEVEL_UNUSED};
    for (const Level& level : CM_TRACE_LEVELS) {
        EXPECT_LT(level.m_ulLevel, CM_TRACE_LEVEL_COUNT);
        EXPECT_TRUE(numbers.insert(level.m_ulLevel).second) << level.m_ulLevel;
        EXPECT_TRUE(names.insert(level.m_pszName).second) << level.m_pszName;
        EXPECT_NE(0u, std::strlen(level.m_pszName));
        EXPECT_EQ(nullptr, std::strpbrk(level.m_pszName, "=.,[];# \t")) << level.m_pszName;
    }
}

TEST(CmTraceLevelsTable, ConstantsAreTheNumbersOfTheirNames) {
    const std::map<std::string, unsigned long> CONSTANTS = {
        {"Error", CM_TRACE_LEVEL_ERROR},     {"Server", CM_TRACE_LEVEL_SERVER},
        {"Warning", CM_TRACE_LEVEL_WARNING}, {"Meeting", CM_TRACE_LEVEL_MEETING},
        {"Session", CM_TRACE_LEVEL_SESSION}, {"User", CM_TRACE_LEVEL_USER},
        {"Info", CM_TRACE_LEVEL_INFO},       {"Statistic", CM_TRACE_LEVEL_STATISTIC},
        {"State", CM_TRACE_LEVEL_STATE},     {"PDU", CM_TRACE_LEVEL_PDU},
        {"Func", CM_TRACE_LEVEL_FUNC},       {"Tick", CM_TRACE_LEVEL_TICK},
        {"Detail", CM_TRACE_LEVEL_DETAIL},   {"WDMS", CM_TRACE_LEVEL_WDMS},
        {"Debug", CM_TRACE_LEVEL_DEBUG}};
    for (const auto& [sName, ulLevel] : CONSTANTS) {
        const Level* pRow = RowOf(ulLevel);
        ASSERT_NE(nullptr, pRow) << sName;
        EXPECT_EQ(sName, pRow->m_pszName);
    }
}

TEST(CmTraceLevelsTable, LevelNameIsThatOfTheRow) {
    for (unsigned long ulLevel = 0; ulLevel <= CM_TRACE_LEVEL_COUNT; ++ulLevel) {
        const Level* pRow = RowOf(ulLevel);
        EXPECT_STREQ(pRow != nullptr ? pRow->m_pszName : "NA", CmTraceLevelName(ulLevel));
    }
}

TEST(CmTraceLevelsTable, FacilitiesHaveTheDefaultsOfTheRows_WithoutAConfiguration) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  for (unsigned long i = 0; i < CM_TRACE_LEVEL_COUNT; ++i) {
                      const Level* pRow = RowOf(i);
                      EXPECT_EQ(pRow != nullptr ? pRow->m_bDefault : 0,
                                CCmT120Trace::instance()->enable_trace_print(i, nullptr))
                          << i;
                      EXPECT_EQ(pRow != nullptr ? pRow->m_bDefault2 : 0,
                                CCmT120Trace2::instance()->enable_trace_print(i, nullptr))
                          << i;
                  }
              }));
}

TEST(CmTraceLevelsTable, ModulesHaveTheSwitchesOfTheRows_WhenEveryLevelIsOn) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig(EverythingOn());
                  for (unsigned long i = 0; i < CM_TRACE_LEVEL_COUNT; ++i) {
                      const Level* pRow = RowOf(i);
                      const bool bOff = pRow != nullptr && pRow->m_eModules == Level::MODULES_OFF;
                      EXPECT_EQ(1, CCmT120Trace::instance()->enable_trace_print(i, nullptr)) << i;
                      EXPECT_EQ(bOff ? 0 : 1, CCmT120Trace::instance()->enable_trace_print(i, "m"))
                          << i;
                  }
              }));
}

TEST(CmTraceLevelsTable, ModulesFollowTheirKeys_WhenTheLevelHasASwitch) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  const std::string sProcess = CCmT120Trace::get_process_name();
                  std::string sSection = EverythingOn();
                  for (const Level& level : CM_TRACE_LEVELS) {
                      const bool bOn = level.m_eModules == Level::MODULES_OFF;
                      sSection +=
                          sProcess + ".m." + level.m_pszName + (bOn ? "=TRUE\n" : "=FALSE\n");
                  }
                  home.WriteConfig(sSection);
                  for (const Level& level : CM_TRACE_LEVELS) {
                      const bool bOff = level.m_eModules == Level::MODULES_ON;
                      EXPECT_EQ(bOff ? 0 : 1,
                                CCmT120Trace::instance()->enable_trace_print(level.m_ulLevel, "m"))
                          << level.m_pszName;
                  }
              }));
}

TEST(CmTraceLevelsTable, TextsAreDelivered_WhenTheLevelHasAFunction) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig(EverythingOn());
                  ScopedTraceLibrary library;
                  std::vector<std::string> delivered;
                  for (unsigned long i = 0; i <= CM_TRACE_LEVEL_COUNT; ++i) {
                      const std::string sText = "level " + std::to_string(i);
                      const Level* pRow = RowOf(i);
                      const bool bPasses =
                          pRow != nullptr && pRow->m_eFunction != Level::FUNCTION_NONE;
                      if (bPasses) {
                          delivered.push_back(sText);
                      }
                      util_adapter_trace(i, sText.c_str(), static_cast<unsigned>(sText.size()));
                      EXPECT_EQ(bPasses, CCmT120Trace::is_wanted(i)) << i;
                  }
                  EXPECT_EQ(delivered, library.texts());
              }));
}

// A host's own table may give an entry any number.
TEST(CmTraceLevelsTable, TextsAreDropped_WhenAHostsTableNamesANumberBeyondTheLevels) {
    ScopedHome home;
    ScopedTraceLibrary library;
    CCmT120TraceMapEntry table[CM_TRACE_LEVEL_COUNT] = {};
    table[0].m_ulLevel = CM_TRACE_LEVEL_COUNT;
    table[0].m_bEnabled = 1;
    table[1].m_ulLevel = ~0ul;
    table[1].m_bEnabled = 1;
    table[2].m_ulLevel = CM_TRACE_LEVEL_ERROR;
    table[2].m_bEnabled = 1;
    CCmT120Trace facility("test", table, nullptr, 0);
    facility.load(nullptr);
    char szText[] = "text";
    facility.trace_string(0, szText);
    facility.trace_string(1, szText);
    EXPECT_EQ(std::vector<std::string>(), library.texts());
    facility.trace_string(2, szText);
    EXPECT_EQ(std::vector<std::string>{"text"}, library.texts());
}

}  // namespace
}  // namespace UTIL_NS
