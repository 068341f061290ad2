// The queue with a mutex: CCmEventQueueUsingMutex.
#include "CmEventQueueBase.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "support/Events.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndingEvent;
using kelto_test::EventLog;
using kelto_test::LoggedEvent;

typedef std::vector<int> Ids;
typedef std::list<ICmEvent*> Events;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

TEST(CmEventQueueUsingMutex, ReportsTheSizeBefore_WhenAskedFor) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    DWORD dwOldSize = 77;
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 1), NORMAL, &dwOldSize));
    EXPECT_EQ(0u, dwOldSize);
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 2), NORMAL, nullptr));
    EXPECT_EQ(CM_OK, queue.PostEventWithOldSize(new LoggedEvent(log, 3), NORMAL, &dwOldSize));
    EXPECT_EQ(2u, dwOldSize);
    EXPECT_EQ(3u, queue.GetPendingEventsCount());
}

TEST(CmEventQueueUsingMutex, PostsNothing_WhenTheEventIsNull) {
    kelto_test::ScopedTraceSink sink;
    CCmEventQueueUsingMutex queue;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.PostEvent(nullptr, NORMAL));
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmEventQueueUsingMutex, HoldsNoLock_WhenARefusedEventEnds) {
    CCmEventQueueUsingMutex queue;
    queue.SetStopped();
    CmResult rvInner = CM_OK;
    EventLog log;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new EndingEvent([&] {
                                                            rvInner = queue.PostEvent(
                                                                new LoggedEvent(log, 1), NORMAL);
                                                        }),
                                                        NORMAL));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, rvInner);
    EXPECT_EQ(Ids{1}, log.ended());
}

TEST(CmEventQueueUsingMutex, HoldsNoLock_WhenPendingEventsEnd) {
    EventLog log;
    CCmEventQueueUsingMutex queue;
    queue.PostEvent(new EndingEvent([&] { queue.PostEvent(new LoggedEvent(log, 1), NORMAL); }),
                    NORMAL);
    queue.DestoryPendingEvents();
    EXPECT_EQ(Ids(), log.ended());
    Events events;
    EXPECT_EQ(CM_OK, queue.PopPendingEventsLocked(events));
    EXPECT_EQ(1u, events.size());
    queue.ProcessEvents(events);
}

TEST(CmEventQueueUsingMutex, PostsWithoutTheLock_WhenItCannotBeTaken) {
    kelto_test::ScopedTraceSink sink;
    EventLog log;
    CCmEventQueueUsingMutex queue;
    kelto_test::FailingCall<&CCmSystemTable::pthread_mutex_lock> fault(EINVAL, EINVAL);
    EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
    EXPECT_EQ(1u, queue.GetPendingEventsCount());
    EXPECT_EQ(0u, sink.lines().size());  // nothing was unlocked that is not locked
}

}  // namespace
}  // namespace UTIL_NS
