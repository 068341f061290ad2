#include "CmTimeValue.h"

#include <gtest/gtest.h>

namespace UTIL_NS {
namespace {

TEST(CmTimeValue, Normalize_CarriesWholeSeconds) {
    EXPECT_EQ(CCmTimeValue(2, 500000), CCmTimeValue(0, 2500000));
}

}  // namespace
}  // namespace UTIL_NS
