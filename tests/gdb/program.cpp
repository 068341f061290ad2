// What the gdb test looks at: stops with one object of each kind in sight.
#include <kelto_util.h>
#include <pthread.h>

#include <cstdio>

using namespace UTIL_NS;

namespace {

class CWork : public ICmEvent {
    CmResult OnEventFire() override { return CM_OK; }
};

class CHandler final : public ICmTimerHandler {
    void OnTimeout(const CCmTimeValue&, void*) override {}
};

// Keeps its worker busy until it is released.
class CStaller : public ICmEvent {
  public:
    CCmEventThread m_Begun;
    CCmEventThread m_Release;

  private:
    CmResult OnEventFire() override {
        m_Begun.Signal();
        return m_Release.Wait(nullptr);
    }
};

// Schedules a timer, which only the worker itself may.
class CSchedule : public ICmEvent {
  public:
    CSchedule(ACmThread* aWorker, ICmTimerHandler* aHandler)
        : m_pWorker(aWorker), m_pHandler(aHandler) {}

  private:
    CmResult OnEventFire() override {
        return m_pWorker->GetTimerQueue()->ScheduleTimer(m_pHandler, nullptr, CCmTimeValue(3600, 0),
                                                         1);
    }

    ACmThread* m_pWorker;
    ICmTimerHandler* m_pHandler;
};

}  // namespace

extern "C" __attribute__((noinline)) void LookAtThem(const void* aObject) {
    std::printf("%d\n", aObject != nullptr ? 1 : 0);
}

int main() {
    pthread_setname_np(pthread_self(), "pro\x1bgram");  // which its worker takes over
    if (CM_FAILED(CCmWatch::Start())) {
        return 1;
    }
    CCmTimeValue tvInterval(-1, -500000);
    CCmTimeValue tvLimit = CCmTimeValue::s_tvMax;
    CCmEventQueueUsingMutex queue;
    queue.PostEvent(new CWork, ICmEventQueue::EPRIORITY_NORMAL);
    queue.PostEvent(new CWork, ICmEventQueue::EPRIORITY_NORMAL);
    // Nobody comes by the queue after the second start.
    CCmWatch::Stop();
    if (CM_FAILED(CCmWatch::Start())) {
        return 1;
    }

    CHandler first;
    CHandler second;
    CCmTimerQueueOrderedList timers(nullptr);
    timers.ScheduleTimer(&first, nullptr, CCmTimeValue(3600, 0), 0);
    timers.ScheduleTimer(&second, nullptr, CCmTimeValue(60, 0), 3);
    CCmTimerQueueCalendar calendar(10, 1000, &queue);
    calendar.ScheduleTimer(&first, nullptr, CCmTimeValue(0, 50000), 2);

    CCmMessageBlock head(100, nullptr, 0, 30);
    CCmMessageBlock tail(10, nullptr, 0, 4);
    tail.SetLock(CCmMessageBlock::READ_LOCKED);
    head.Append(&tail);

    ICmEventQueue* pQueue = &queue;
    ICmTimerQueue* pTimers = &timers;
    CStaller* pStaller = new CStaller;
    ACmThread* pWorker = nullptr;
    if (CM_FAILED(CreateUserTaskThread(&pWorker, TF_JOINABLE, true, 1))) {
        return 1;
    }
    pWorker->GetEventQueue()->PostEvent(new CSchedule(pWorker, &first),
                                        ICmEventQueue::EPRIORITY_NORMAL);
    pWorker->GetEventQueue()->SendEvent(new CWork);
    pWorker->GetEventQueue()->PostEvent(pStaller, ICmEventQueue::EPRIORITY_NORMAL);
    pStaller->m_Begun.Wait(nullptr);
    pWorker->GetEventQueue()->PostEvent(new CWork, ICmEventQueue::EPRIORITY_NORMAL);

    LookAtThem(&tvInterval);
    LookAtThem(&tvLimit);
    LookAtThem(&pQueue);
    LookAtThem(&pTimers);
    pStaller->m_Release.Signal();
    pWorker->Stop();
    pWorker->Join();
    pWorker->Destory(CM_OK);
    return 0;
}
