#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "port/CmPort.h"
#include "support/Platform.h"

namespace UTIL_NS {
namespace {

TEST(CmPortPosix, NameOfAThreadIsEmpty_WhenItHasNoRoom) {
    std::thread([] {
        kelto_test::NameThisThread("audio");
        char szName[64] = "";
        CmPortNameOfThread(pthread_self(), szName, sizeof(szName));
        EXPECT_STREQ("audio", szName);
        char szShort[3] = "xy";
        CmPortNameOfThisThread(szShort, 1);
        EXPECT_EQ('\0', szShort[0]);
        EXPECT_EQ('y', szShort[1]) << "is not part of the room";
    }).join();
}

}  // namespace
}  // namespace UTIL_NS
