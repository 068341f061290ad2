// A process that has no memory when the library makes its static objects.
#include <gtest/gtest.h>

#include "CmBase.h"
#include "CmConfig.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

// Before any static object is constructed, those of a library that is linked into the program
// included.
__attribute__((constructor(101))) void StartWithoutMemory() {
    const kelto_test::ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
    const CCmLibraryInit init;
}

// Short texts need no memory; which are, differs by C++ library.
TEST(CmStaticsStart, NamesAreTextsAllTheSame_WhenThereIsNoMemory) {
    EXPECT_EQ("kelto.cfg", g_kelto_config_file_name);
    EXPECT_STREQ(g_rabbitmq_config_file_name.empty() ? "" : "rabbitmq-config.xml",
                 g_rabbitmq_config_file_name.c_str());
}

}  // namespace
}  // namespace UTIL_NS
