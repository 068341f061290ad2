// What the gdb test looks at: stops with one object of each kind in sight.
#include <kelto_util.h>

#include <cstdio>

using namespace UTIL_NS;

namespace {

class CWork : public ICmEvent {
    CmResult OnEventFire() override { return CM_OK; }
};

class CHandler final : public ICmTimerHandler {
    void OnTimeout(const CCmTimeValue&, void*) override {}
};

}  // namespace

extern "C" __attribute__((noinline)) void Look(const void* aObject) {
    std::printf("%d\n", aObject != nullptr ? 1 : 0);
}

int main() {
    CCmTimeValue tvInterval(-1, -500000);
    CCmTimeValue tvLimit = CCmTimeValue::s_tvMax;
    CCmEventQueueUsingMutex queue;
    queue.PostEvent(new CWork, ICmEventQueue::EPRIORITY_NORMAL);
    queue.PostEvent(new CWork, ICmEventQueue::EPRIORITY_NORMAL);

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

    Look(&tvInterval);
    Look(&tvLimit);
    return 0;
}
