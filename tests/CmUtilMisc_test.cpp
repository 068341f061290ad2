#include "CmUtilMisc.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <chrono>

#include "support/Faults.h"
#include "support/SignalStorm.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;

TEST(CmUtilMisc, InitAndCleanupChangeNothing) {
    kelto_test::ScopedTraceSink sink;
    const long lLive = kelto_test::LiveAllocations();
    CmUtilInit();
    CmUtilInit();
    CmUtilCleanup();
    CmUtilCleanup();
    CmUtilCleanup();
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmUtilMisc, GetSingletonMutexGivesTheRecursiveOne) {
    void* pMutex = nullptr;
    GetSingletonMutex(&pMutex);
    EXPECT_EQ(&g_SingletonMutex, pMutex);
}

TEST(CmUtilMisc, GetSingletonMutexStoresAndTracesNothing_WhenTheOutPointerIsNull) {
    kelto_test::ScopedTraceSink sink;
    GetSingletonMutex(nullptr);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmUtilMisc, SleepMsSleepsItsTime) {
    const auto start = std::chrono::steady_clock::now();
    SleepMs(50);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST(CmUtilMisc, SleepMsSleepsItsTime_WhenSignalsKeepComing) {
    kelto_test::ScopedTraceSink sink;
    kelto_test::SignalStorm storm;
    const auto start = std::chrono::steady_clock::now();
    std::chrono::milliseconds slept(0);
    do {  // on a busy machine the storm is slow to rise
        SleepMs(1500);
        slept += std::chrono::milliseconds(1500);
    } while (storm.delivered() <= 10);
    EXPECT_GE(std::chrono::steady_clock::now() - start, slept);
    EXPECT_EQ(0u, sink.lines().size());
}

timespec g_tsRequest;

int RememberRequest(const timespec* aRequest, timespec* /*aRemain*/) {
    g_tsRequest = *aRequest;
    return 0;
}

TEST(CmUtilMisc, SleepMsSplitsItsTimeIntoSecondsAndNanoseconds) {
    kelto_test::ScopedEntry<int (*)(const timespec*, timespec*)> entry(g_cmSystem.nanosleep,
                                                                       RememberRequest);
    SleepMs(4294967295u);
    EXPECT_EQ(4294967, g_tsRequest.tv_sec);
    EXPECT_EQ(295000000, g_tsRequest.tv_nsec);
}

TEST(CmUtilMisc, SleepMsTracesAndEnds_WhenItFailsOtherwise) {
    kelto_test::ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::nanosleep> fault(EINVAL);
    SleepMs(100000);
    EXPECT_EQ(1u, fault.calls());
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: ::SleepMs,nanosleep() failed! err=22", sink.lines()[0].text);
}

TEST(CmUtilMisc, SleepMsGoesOn_AfterAnInterruption) {
    kelto_test::ScopedTraceSink sink;
    FailingCall<&CCmSystemTable::nanosleep> interruption(EINTR);
    const auto start = std::chrono::steady_clock::now();
    SleepMs(30);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(2u, interruption.calls());
    EXPECT_EQ(0u, sink.lines().size());
}

}  // namespace
}  // namespace UTIL_NS
