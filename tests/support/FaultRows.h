// Tables of system calls that are made to fail: a row is one call, one error, and what comes of it.
#ifndef TESTS_SUPPORT_FAULTROWS_H
#define TESTS_SUPPORT_FAULTROWS_H

#include <functional>
#include <initializer_list>
#include <memory>

#include "support/Faults.h"

namespace kelto_test {

struct FaultRow {
    const char* name;
    // Makes a call of its entry fail while what it returns lives.
    std::function<std::shared_ptr<FaultPlan>(unsigned long aNth, Failing aFailing)> inject;
    std::function<long()> operation;
    long good;
    long bad;
    const char* line;               // written when the call fails; empty: none
    unsigned long calls = 1;        // of the entry, in an operation that goes well
    bool isRetriedForever = false;  // a call that always fails has no end, so it is not tried
};

constexpr const char NO_LINE[] = "";

// The operation is run three times while each of its calls in turn fails, alone or with all that
// follow. Compares result and line of each run; none may leave memory or a descriptor behind.
void CheckFaultRows(std::initializer_list<FaultRow> aRows);

template <auto Member, typename Result = int>
auto Fault(int aError, Result aResult, Effect aEffect = Effect::NONE) {
    return [=](unsigned long aNth, Failing aFailing) {
        const auto pCall =
            std::make_shared<FailingCall<Member>>(aError, aResult, aNth, aFailing, aEffect);
        return std::shared_ptr<FaultPlan>(pCall, &pCall->plan());
    };
}

// Of the calls that return the error.
template <auto Member>
auto Returned(int aError, Effect aEffect = Effect::NONE) {
    return Fault<Member>(0, aError, aEffect);
}

// Of the calls that transfer bytes: less than what they are asked for, although there is more. Half
// of it, and nothing fails.
template <auto Member>
class ShortCall;

template <typename Buffer, typename... Rest,
          ssize_t (*UTIL_NS::CCmSystemTable::*Member)(int, Buffer*, size_t, Rest...)>
class ShortCall<Member> {
  public:
    ShortCall(unsigned long aNth, Failing aFailing)
        : m_plan(aNth, aFailing), m_entry(UTIL_NS::g_cmSystem.*Member, &Call) {
        s_pCurrent = this;
    }
    ~ShortCall() { s_pCurrent = nullptr; }
    ShortCall(const ShortCall&) = delete;
    ShortCall& operator=(const ShortCall&) = delete;

    FaultPlan& plan() { return m_plan; }

  private:
    static ssize_t Call(int aFile, Buffer* aBuffer, size_t aSize, Rest... aRest) {
        const bool bShort = s_pCurrent->m_plan.HitsNow();
        return s_pCurrent->m_entry.original()(aFile, aBuffer, bShort ? (aSize + 1) / 2 : aSize,
                                              aRest...);
    }

    inline static ShortCall* s_pCurrent = nullptr;

    FaultPlan m_plan;
    const ScopedEntry<ssize_t (*)(int, Buffer*, size_t, Rest...)> m_entry;
};

template <auto Member>
auto Short() {
    return [](unsigned long aNth, Failing aFailing) {
        const auto pCall = std::make_shared<ShortCall<Member>>(aNth, aFailing);
        return std::shared_ptr<FaultPlan>(pCall, &pCall->plan());
    };
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_FAULTROWS_H
