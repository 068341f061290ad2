#include "CmVersion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(CmVersion, TextIsMadeOfTheNumbers) {
    EXPECT_EQ(std::to_string(CM_UTIL_VERSION_MAJOR) + "." + std::to_string(CM_UTIL_VERSION_MINOR) +
                  "." + std::to_string(CM_UTIL_VERSION_PATCH),
              CM_UTIL_VERSION_STRING);
}

TEST(CmVersion, FunctionGivesTheVersionOfTheBuildDescription) {
    EXPECT_STREQ(KELTO_PROJECT_VERSION, CmUtilVersion());
}

}  // namespace
