#include "CmResultText.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "CmT120Trace.h"

namespace UTIL_NS {
namespace {

TEST(CmResultText, NamesEveryCode) {
    static_assert(CmResultText(CM_OK)[3] == 'O');
    EXPECT_STREQ("CM_OK", CmResultText(CM_OK));
    EXPECT_STREQ("CM_ERROR_TIMEOUT", CmResultText(CM_ERROR_TIMEOUT));
    std::set<std::string> names;
    for (CmResult rv = CM_ERROR_BASE + 1; rv <= CM_ERROR_TIMEOUT; ++rv) {
        if (rv == CM_ERROR_BASE + 10) {
            EXPECT_STREQ("not a CmResult", CmResultText(rv));
            continue;
        }
        EXPECT_EQ(0U, std::string(CmResultText(rv)).find("CM_ERROR_")) << rv;
        EXPECT_TRUE(names.insert(CmResultText(rv)).second) << rv;
    }
    EXPECT_STREQ("not a CmResult", CmResultText(-1));
    EXPECT_STREQ("not a CmResult", CmResultText(CM_ERROR_BASE));
}

TEST(CmResultText, IsStreamed) {
    std::ostringstream stream;
    stream << CmResultText(CM_ERROR_FOUND);
    EXPECT_EQ("CM_ERROR_FOUND", stream.str());
    char achLine[256];
    CCmT120Trace::Text_Formator formator(achLine, sizeof(achLine));
    formator << "rv=" << CmResultText(CM_ERROR_FOUND);
    EXPECT_STREQ("rv=CM_ERROR_FOUND", achLine);
}

}  // namespace
}  // namespace UTIL_NS
