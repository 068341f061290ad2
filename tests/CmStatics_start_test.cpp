// A process that has no memory when the library makes its static objects.
#include <gtest/gtest.h>

#include <cstring>

#include "CmBase.h"
#include "CmConfig.h"
#include "CmThread.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

bool s_bFoundNoThread = false;

// Before any static object is constructed, those of a library that is linked into the program
// included.
__attribute__((constructor(101))) void StartWithoutMemory() {
    // As a constructor that fails may leave it.
    std::memset(static_cast<void*>(&g_rabbitmq_config_file_name), 0xA5, sizeof(CCmString));
    const kelto_test::ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
    s_bFoundNoThread = getCurrentThread() == nullptr;
}

TEST(CmStaticsStart, ThreadIsNotFound_BeforeTheLibraryWasUsed) {
    EXPECT_TRUE(s_bFoundNoThread);
}

// Short texts need no memory; which are, differs by C++ library.
TEST(CmStaticsStart, NamesAreTextsAllTheSame_WhenThereIsNoMemory) {
    EXPECT_EQ("kelto.cfg", g_kelto_config_file_name);
    EXPECT_STREQ(g_rabbitmq_config_file_name.empty() ? "" : "rabbitmq-config.xml",
                 g_rabbitmq_config_file_name.c_str());
}

}  // namespace
}  // namespace UTIL_NS
