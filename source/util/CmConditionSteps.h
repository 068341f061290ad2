// What the library's own units do with conditions and events beyond what hosts are promised;
// internal.
#ifndef CM_CONDITION_STEPS_H
#define CM_CONDITION_STEPS_H

#include "CmConditionVariable.h"

namespace UTIL_NS {

// An operation in two steps, for callers that write the line about a failed call only after they
// have released their mutex: a ...Call makes the system call, writes no line and returns its error
// number; the ...Result that follows writes the line and returns the operation's result. The
// condition may be gone by then: of it, ...Result uses the address alone.
struct CCmConditionSteps {
    static int WaitCall(CCmConditionVariableThread& aCondition, const CCmTimeValue* aTimeout);
    static CmResult WaitResult(const CCmConditionVariableThread& aCondition,
                               const CCmTimeValue* aTimeout, int aError);
    // A wait up to a moment of the monotonic clock, in nanoseconds.
    static CmResult WaitUntil(CCmConditionVariableThread& aCondition, long long aDeadlineNsec);
    static int WaitUntilCall(CCmConditionVariableThread& aCondition, long long aDeadlineNsec);
    static CmResult WaitUntilResult(const CCmConditionVariableThread& aCondition,
                                    long long aDeadlineNsec, int aError);
    static int SignalCall(CCmConditionVariableThread& aCondition);
    static CmResult SignalResult(const CCmConditionVariableThread& aCondition, int aError);
    // A signal that must not be missed: tried again when it fails. Returns whether it was given;
    // aError is that of the last try that failed, for one line about all of them, or 0.
    static bool SignalSurely(CCmConditionVariableThread& aCondition, int& aError);
    static int BroadcastCall(CCmConditionVariableThread& aCondition);
    static CmResult BroadcastResult(const CCmConditionVariableThread& aCondition, int aError);

    // Signal of an automatic event, given after the event's mutex was released, so that the waiter
    // does not wake up only to find it taken. For a waiter that leaves the event alive. It must not
    // be missed: what fails is tried again.
    static CmResult SignalAfterUnlock(CCmEventThread& aEvent);
};

}  // namespace UTIL_NS

#endif  // CM_CONDITION_STEPS_H
