// What the profile says of the watch is read once in a process: every case runs in one of its own.
#include <gtest/gtest.h>

#include <string>

#include "CmConfigReader.h"
#include "CmEvent.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "support/ChildProcess.h"
#include "support/Home.h"
#include "support/Watch.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::FiguresAtRest;
using kelto_test::ScopedHome;
using kelto_test::ScopedWatch;
using kelto_test::StatusOfChild;
using kelto_test::TaskThread;

TEST(CCmWatch, IsStartedByTheProfile_WhenTheFirstThreadIsCreated) {
    constexpr int ON = 7;
    const auto statusWith = [](const std::string& aProfile) {
        const int nStatus = StatusOfChild([&] {
            const ScopedHome home;
            home.WriteConfig(aProfile);
            EXPECT_FALSE(CCmWatch::IsOn());
            TaskThread first;
            const bool bWasOn = CCmWatch::IsOn();
            CCmWatch::Stop();
            TaskThread second;  // it is not read again
            EXPECT_FALSE(CCmWatch::IsOn());
            if (bWasOn && !::testing::Test::HasFailure()) {
                second.End();
                first.End();
                EndProcess(ON);
            }
        });
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    };
    EXPECT_EQ(ON, statusWith("[Watch]\nEnable = 1\nRecord = 0\n"));
    EXPECT_EQ(ON, statusWith("[Watch]\nEnable = TRUE\nRecord = 0\nThreads = 100000\n"));
    EXPECT_EQ(0, statusWith("[Watch]\nEnable = 0\nRecord = 0\n"));
    EXPECT_EQ(0, statusWith("[Trace]\nEnable = TRUE\n"));
}

TEST(CCmWatch, IsStartedByTheSnapshotAlone_WhenTheHostHasOne) {
    const auto isOnWith = [](const std::string& aSnapshot, const std::string& aLater) {
        constexpr int ON = 7;
        const int nStatus = StatusOfChild([&] {
            const ScopedHome home;
            home.WriteConfig(aSnapshot);
            CCmConfigReader config;
            EXPECT_EQ(CM_OK, config.ReadMain());
            home.WriteConfig(aLater);
            EXPECT_EQ(CM_OK, config.UseForTrace());
            const bool bIsOn = CCmWatch::IsOn();
            TaskThread first;
            EXPECT_EQ(bIsOn, CCmWatch::IsOn());
            if (bIsOn && !::testing::Test::HasFailure()) {
                CCmWatch::Stop();
                first.End();
                EndProcess(ON);
            }
        });
        EXPECT_TRUE(WIFEXITED(nStatus) && (WEXITSTATUS(nStatus) == ON || nStatus == 0)) << nStatus;
        return nStatus != 0;
    };
    EXPECT_TRUE(isOnWith("[Watch]\nEnable = 1\nRecord = 0\n", ""));
    EXPECT_FALSE(isOnWith("", "[Watch]\nEnable = 1\nRecord = 0\n"));
}

// Starts are numbered, and the first counts as any other.
TEST(CCmWatch, CountsWhatOthersAndTheWorkerItselfPost_WhenItIsStartedForTheFirstTime) {
    EXPECT_EQ(0, StatusOfChild([] {
                  CCmWorker worker;
                  const ScopedWatch watch;
                  for (int i = 0; i < 3; ++i) {
                      CmCall(worker, [&worker] {
                          CmPost(worker, [] {});
                          CmPost(worker, [] {});
                      });
                  }
                  const CCmWorkerFigures figures = FiguresAtRest(worker);
                  EXPECT_EQ(9U, figures.m_ullPosted);
                  EXPECT_EQ(9U, figures.m_ullRun);
                  EXPECT_EQ(9U, figures.m_Run.m_ullCount);
              }));
}

}  // namespace
}  // namespace UTIL_NS
