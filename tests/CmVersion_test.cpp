#include "CmVersion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(CmVersion, Text_IsMadeOfTheNumbers) {
    EXPECT_EQ(std::to_string(CM_UTIL_VERSION_MAJOR) + "." + std::to_string(CM_UTIL_VERSION_MINOR) +
                  "." + std::to_string(CM_UTIL_VERSION_PATCH),
              CM_UTIL_VERSION_STRING);
}

TEST(CmVersion, Function_GivesTheVersionOfTheBuildDescription) {
    EXPECT_STREQ(KELTO_PROJECT_VERSION, CmUtilVersion());
}

}  // namespace
