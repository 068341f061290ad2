#include <gtest/gtest.h>

#include <string>

#include "CmT120Trace.h"

namespace UTIL_NS {
namespace {

TEST(CmTextFormator, Append_KeepsTheLast96BytesFree) {
    char achBuffer[2048];
    CCmT120Trace::Text_Formator formator(achBuffer, sizeof(achBuffer));
    formator << std::string(3000, 'x');
    EXPECT_EQ(1952u, formator.tell());
}

}  // namespace
}  // namespace UTIL_NS
