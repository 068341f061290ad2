// Events that log what happens to them.
#ifndef TESTS_SUPPORT_EVENTS_H
#define TESTS_SUPPORT_EVENTS_H

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "CmEventQueueBase.h"
#include "CmTrace.h"
#include "support/Faults.h"

namespace kelto_test {

// LiveAllocations after the first trace line, which creates the trace facility for good.
inline long LiveAllocationsBefore() {
    util_adapter_trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "", 0);
    return LiveAllocations();
}

// What became of the events that belong to it; outlives them. Any thread.
class EventLog {
  public:
    void Fired(int aId) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fired.push_back(aId);
    }
    void Ended(int aId) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ended.push_back(aId);
    }
    // The events that were fired or destroyed, in this order.
    std::vector<int> fired() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fired;
    }
    std::vector<int> ended() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ended;
    }

  private:
    mutable std::mutex m_mutex;
    std::vector<int> m_fired;
    std::vector<int> m_ended;
};

// Logs its firing and its destruction; what else it does when fired is up to the test.
class LoggedEvent : public UTIL_NS::ICmEvent {
  public:
    typedef std::function<UTIL_NS::CmResult()> Work;

    explicit LoggedEvent(EventLog& aLog, int aId = 0, Work aWork = nullptr)
        : m_log(aLog), m_id(aId), m_work(std::move(aWork)) {}

    UTIL_NS::CmResult OnEventFire() override {
        m_log.Fired(m_id);
        return m_work ? m_work() : UTIL_NS::CM_OK;
    }
    void OnDestorySelf() override {
        m_log.Ended(m_id);
        delete this;
    }

  private:
    EventLog& m_log;
    const int m_id;
    const Work m_work;
};

// The same with something to do when it is destroyed.
class EndingEvent : public UTIL_NS::ICmEvent {
  public:
    explicit EndingEvent(std::function<void()> aAtEnd) : m_atEnd(std::move(aAtEnd)) {}

    UTIL_NS::CmResult OnEventFire() override { return UTIL_NS::CM_OK; }
    void OnDestorySelf() override {
        m_atEnd();
        delete this;
    }

  private:
    const std::function<void()> m_atEnd;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_EVENTS_H
