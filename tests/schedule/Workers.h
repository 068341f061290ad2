// What scenarios with workers share.
#ifndef TESTS_SCHEDULE_WORKERS_H
#define TESTS_SCHEDULE_WORKERS_H

#include "CmThread.h"
#include "schedule/Schedule.h"

namespace kelto_test {

constexpr auto NORMAL = UTIL_NS::ICmEventQueue::EPRIORITY_NORMAL;

// A worker that was created; no other thread starts meanwhile, so that it has the next number.
inline UTIL_NS::ACmThread& MakeWorker(UTIL_NS::TFlag aFlag = UTIL_NS::TF_JOINABLE,
                                      bool aWithTimers = false) {
    UTIL_NS::ACmThread* pThread = nullptr;
    SCHEDULE_EXPECT(CreateUserTaskThread(&pThread, aFlag, aWithTimers, 1) == UTIL_NS::CM_OK);
    return *pThread;
}

// Stops, joins and frees it.
inline void EndWorker(UTIL_NS::ACmThread& aWorker) {
    aWorker.Stop(nullptr);
    SCHEDULE_EXPECT(aWorker.Join() == UTIL_NS::CM_OK);
    aWorker.Destory(UTIL_NS::CM_OK);
}

// Posts aEvent, whose number is aId, to a queue whose consumer is the thread aConsumer: after that,
// the consumer has it or is awake. The post is accepted.
inline void PostTo(UTIL_NS::ICmEventQueue& aQueue, int aConsumer, int aId,
                   CWatchedEvent::Work aWork = nullptr) {
    SCHEDULE_EXPECT(aQueue.PostEvent(new CWatchedEvent(aId, std::move(aWork)), NORMAL) ==
                    UTIL_NS::CM_OK);
    SCHEDULE_EXPECT(FateOf(aId).m_nFired > 0 || FateOf(aId).m_nEnded > 0 || !Sleeps(aConsumer));
}

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_WORKERS_H
