#include "CmTraceLevels.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

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

TEST_F(CmTraceToFileTest, ChangesNothing_WhenTheFileCannotBeOpened) {
    ScopedTraceSink sink;
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    EXPECT_EQ(CM_ERROR_FAILURE, CmTraceToFile("/no such directory/file"));
    EXPECT_EQ(pfnBefore, g_util_trace_sink.load());
}

TEST_F(CmTraceToFileTest, ChangesNothing_WhenMemoryRunsOut) {
    ScopedTraceSink sink;
    const UtilTraceSink pfnBefore = g_util_trace_sink;
    const ScopedAllocationFault fault(1);
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, CmTraceToFile(m_sPath.c_str()));
    EXPECT_EQ(pfnBefore, g_util_trace_sink.load());
}

}  // namespace
}  // namespace UTIL_NS
