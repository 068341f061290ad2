#include "CmTraceLevels.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "CmT120TraceFile.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedTraceSink;

TEST(CmTraceLevelName, NamesAllLevels) {
    static_assert(CmTraceLevelName(CM_TRACE_LEVEL_ERROR)[0] == 'E', "known to the compiler");
    EXPECT_STREQ("Error", CmTraceLevelName(0));
    EXPECT_STREQ("Debug", CmTraceLevelName(27));
    EXPECT_STREQ("NA", CmTraceLevelName(CM_TRACE_LEVEL_COUNT));
    EXPECT_STREQ("Detail", CmTraceLevelName(CM_TRACE_LEVEL_DETAIL));
}

class CmTraceToFileTest : public testing::Test {
  protected:
    CmTraceToFileTest() {
        char szPath[] = "/tmp/trace_levels_XXXXXX";
        close(mkstemp(szPath));
        m_sPath = szPath;
    }
    ~CmTraceToFileTest() override {
        CmTraceToFile(nullptr);
        unlink(m_sPath.c_str());
    }
    std::string Content() const {
        std::ifstream file(m_sPath);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }
    std::string m_sPath;
};

TEST_F(CmTraceToFileTest, WritesTheLinesOfTheLibrary) {
    ASSERT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str()));
    CmAssertFailed("first.cpp", 1, "too early");
    CmAssertFailed("file.cpp", 12, "bGood");
    util_adapter_trace(CM_TRACE_LEVEL_STATE, "UTIL a state", 12);
    const std::string sContent = Content();
    EXPECT_NE(std::string::npos,
              sContent.find("] [Error] util:UTIL ERROR: file.cpp:12 Assert failed: bGood\n"))
        << sContent;
    EXPECT_NE(std::string::npos, sContent.find("] [State] util:UTIL a state\n"));

    // The same file again, and the way back.
    EXPECT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str()));
    EXPECT_EQ(CM_OK, CmTraceToFile(nullptr));
    EXPECT_EQ(nullptr, g_util_trace_sink.load());
    util_adapter_trace(CM_TRACE_LEVEL_INFO, "UTIL elsewhere", 14);
    EXPECT_EQ(std::string::npos, Content().find("elsewhere"));
}

TEST_F(CmTraceToFileTest, TakesTheNewSizeLimit_WhenTheFileIsTheSame) {
    ASSERT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str()));
    ASSERT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str(), 2048));
    for (int i = 0; i < 100; ++i) {
        CmAssertFailed("file.cpp", i, "bGood");
    }
    EXPECT_GT(2048u + 512, Content().size());
}

TEST_F(CmTraceToFileTest, ChangesNothing_WhenTheFileCannotBeOpened) {
    ScopedTraceSink sink;
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    EXPECT_EQ(CM_ERROR_FAILURE, CmTraceToFile("/no such directory/file"));
    EXPECT_EQ(pfnBefore, g_util_trace_sink.load());
}

TEST_F(CmTraceToFileTest, ChangesNothing_WhenMemoryRunsOut) {
    ScopedTraceSink sink;
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    unsigned long ulNth = 1;
    for (bool bHit = true; bHit; ++ulNth) {
        const ScopedAllocationFault fault(ulNth);
        const CmResult rv = CmTraceToFile(m_sPath.c_str());
        bHit = fault.hit();
        EXPECT_EQ(bHit, CM_FAILED(rv)) << ulNth;
        EXPECT_EQ(bHit, pfnBefore == g_util_trace_sink) << ulNth;
    }
    EXPECT_LT(3u, ulNth);
}

// What a host may do with records of its own, which the manager finds by the same path.
TEST_F(CmTraceToFileTest, LeavesAHostsRecordAlone_WhenTheFileCannotBeOpened) {
    const char* const pszPath = "/no such directory/file";
    void* const hRecord = T120_Open_Trace_Dev(pszPath, 0, 1, 0);
    ASSERT_NE(nullptr, hRecord);
    EXPECT_EQ(CM_ERROR_FAILURE, CmTraceToFile(pszPath));
    // Takes the memory of a record that was freed.
    void* const hOther = T120_Open_Trace_Dev(nullptr, 0, 1, 0);
    EXPECT_EQ(hRecord, T120_Open_Trace_Dev(pszPath, 0, 1, 0));
    T120_Close_Trace_Dev(hOther);
    T120_Close_Trace_Dev(T120_Open_Trace_Dev(pszPath, 0, 1, 0));
}

TEST_F(CmTraceToFileTest, GoesOn_WhenAHostClosesItsRecordOfTheFile) {
    ASSERT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str()));
    CmAssertFailed("first.cpp", 1, "too early");
    T120_Close_Trace_Dev(T120_Open_Trace_Dev(m_sPath.c_str(), 0, 1, 0));
    CmAssertFailed("file.cpp", 12, "bGood");
    EXPECT_NE(std::string::npos, Content().find("file.cpp:12 Assert failed: bGood\n"));
}

TEST_F(CmTraceToFileTest, WritesToTheFile_WhenAHostsRecordOfThatNameWritesElsewhere) {
    auto* pRecord = static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(m_sPath.c_str(), 0, 1, 0));
    ASSERT_NE(nullptr, pRecord);
    const std::string sElsewhere = m_sPath + ".elsewhere";
    ASSERT_EQ(CM_OK, pRecord->attach(sElsewhere.c_str()));
    EXPECT_EQ(CM_OK, CmTraceToFile(m_sPath.c_str()));
    CmAssertFailed("first.cpp", 1, "too early");
    CmAssertFailed("file.cpp", 12, "bGood");
    EXPECT_NE(std::string::npos, Content().find("file.cpp:12 Assert failed: bGood\n"));
    T120_Close_Trace_Dev(pRecord);
    unlink(sElsewhere.c_str());
}

}  // namespace
}  // namespace UTIL_NS
