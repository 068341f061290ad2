// The thread whose owner beats: CCmThreadHeartBeat.
#include "CmThread.h"

#include <gtest/gtest.h>

#include "support/BodyThread.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Timers.h"

namespace UTIL_NS {
namespace {

using kelto_test::EventLog;
using kelto_test::LoggedEvent;
using kelto_test::NotingHandler;
using kelto_test::TYPE;

typedef std::vector<int> Ids;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr CmResult RESULT = 4711;

TEST(CmThreadHeartBeat, RunsNothing_WhenNothingIsPending) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    ASSERT_EQ(CM_OK, pThread->Create(TT_MAIN, TF_JOINABLE, 1));
    EXPECT_EQ(nullptr, pThread->GetTimerQueue());
    pThread->OnThreadInit();
    EXPECT_NE(nullptr, pThread->GetTimerQueue());
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, KeepsItsTimerQueue_WhenItIsInitialisedAgain) {
    const long lLive = kelto_test::LiveAllocationsBefore();
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->OnThreadInit();
    ICmTimerQueue* const pTimerQueue = pThread->GetTimerQueue();
    pThread->OnThreadInit();
    EXPECT_EQ(pTimerQueue, pThread->GetTimerQueue());
    pThread->Destory(0);
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST(CmThreadHeartBeat, BeatsWithoutTimers_WhenItsQueueHadNoMemory) {
    EventLog log;
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    {
        kelto_test::ScopedAllocationFault fault(1);
        pThread->OnThreadInit();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(nullptr, pThread->GetTimerQueue());
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), ICmEventQueue::EPRIORITY_NORMAL);
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->Destory(0);
}

// Finds no memory when it is initialised, whichever thread that is on.
class CHeartBeatWithoutMemory : public CCmThreadHeartBeat {
  public:
    void OnThreadInit() override {
        kelto_test::ScopedAllocationFault fault(1);
        CCmThreadHeartBeat::OnThreadInit();
    }
};

TEST(CmThreadHeartBeat, CreateFails_WhenItsQueueHadNoMemory) {
    CCmThreadHeartBeat* pThread = new CHeartBeatWithoutMemory;
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, pThread->Create(TYPE, TF_JOINABLE, 1));
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, FiresTimersThenEvents_WhenItBeats) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->Create(TT_MAIN, TF_JOINABLE, 1);
    pThread->OnThreadInit();
    EventLog log;
    NotingHandler handler(log);
    for (int i = 1; i <= 12; ++i) {
        pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, i), NORMAL);
    }
    pThread->GetTimerQueue()->ScheduleTimer(&handler, nullptr, CCmTimeValue(), 1);
    EXPECT_EQ(CM_OK, pThread->DoHeartBeat());
    EXPECT_EQ((Ids{-1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), log.fired());
    EXPECT_EQ(12u, log.ended().size());
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, RunsASendInline_WhenItIsFromItsOwnThread) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    pThread->Create(TT_MAIN, TF_JOINABLE, 1);
    pThread->OnThreadInit();
    EventLog log;
    EXPECT_EQ(RESULT,
              pThread->GetEventQueue()->SendEvent(new LoggedEvent(log, 1, [] { return RESULT; })));
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, BeatsOnce_WhenItRunsOnAThreadOfItsOwn) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 1), NORMAL);
    ASSERT_EQ(CM_OK, pThread->Create(TYPE, TF_JOINABLE, 1));
    EXPECT_EQ(CM_OK, pThread->Join());
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->Destory(0);
}

TEST(CmThreadHeartBeat, KeepsAnEventForTheNextBeat_WhenAnEventPostsIt) {
    CCmThreadHeartBeat* pThread = new CCmThreadHeartBeat;
    EventLog log;
    pThread->GetEventQueue()->PostEvent(
        new LoggedEvent(
            log, 1,
            [&] { return pThread->GetEventQueue()->PostEvent(new LoggedEvent(log, 2), NORMAL); }),
        NORMAL);
    pThread->DoHeartBeat();
    EXPECT_EQ(Ids{1}, log.fired());
    pThread->DoHeartBeat();
    EXPECT_EQ((Ids{1, 2}), log.fired());
    pThread->Destory(0);
}

}  // namespace
}  // namespace UTIL_NS
