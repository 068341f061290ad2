// Timer handlers that record what fires.
#ifndef TESTS_SUPPORT_TIMERS_H
#define TESTS_SUPPORT_TIMERS_H

#include <functional>
#include <utility>
#include <vector>

#include "CmTimerQueueBase.h"
#include "support/Events.h"

namespace kelto_test {

// One call of OnTimeout.
struct Firing {
    int id;
    UTIL_NS::CCmTimeValue now;
    void* token;
};

typedef std::vector<Firing> Firings;

// Appends its firings to a log and then runs its action, if it has one.
class RecordingHandler : public UTIL_NS::ICmTimerHandler {
  public:
    RecordingHandler(int aId, Firings& aLog) : m_nId(aId), m_log(aLog) {}
    virtual ~RecordingHandler() = default;

    void OnTimeout(const UTIL_NS::CCmTimeValue& aCurTime, void* aArg) override {
        m_log.push_back(Firing{m_nId, aCurTime, aArg});
        if (m_action) {
            m_action();
        }
    }
    void SetAction(std::function<void()> aAction) { m_action = std::move(aAction); }

  private:
    const int m_nId;
    Firings& m_log;
    std::function<void()> m_action;
};

// Counts and does nothing else.
class CountingHandler : public UTIL_NS::ICmTimerHandler {
  public:
    virtual ~CountingHandler() = default;
    void OnTimeout(const UTIL_NS::CCmTimeValue& /*aCurTime*/, void* /*aArg*/) override {
        ++m_ulCount;
    }
    unsigned long count() const { return m_ulCount; }

  private:
    unsigned long m_ulCount = 0;
};

// Logs -1 when it fires.
class NotingHandler final : public UTIL_NS::ICmTimerHandler {
  public:
    explicit NotingHandler(EventLog& aLog) : m_log(aLog) {}
    void OnTimeout(const UTIL_NS::CCmTimeValue&, void*) override { m_log.Fired(-1); }

  private:
    EventLog& m_log;
};

inline std::vector<int> Ids(const Firings& aLog) {
    std::vector<int> ids;
    for (const Firing& firing : aLog) {
        ids.push_back(firing.id);
    }
    return ids;
}

inline UTIL_NS::CCmTimeValue Ms(long aMs) {
    return UTIL_NS::CCmTimeValue(aMs / 1000, aMs % 1000 * 1000);
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_TIMERS_H
