// The steps of a condition's operations, for units that write the line about a failed call only
// after they have released their mutex; internal.
#ifndef CM_CONDITION_STEPS_H
#define CM_CONDITION_STEPS_H

#include "CmConditionVariable.h"

namespace UTIL_NS {

// Wait is Call and WaitResult, Signal is SignalCall and SignalResult. The first steps write no line
// and return the error number of the system call; the second ones write it and make the result, and
// do not touch what the condition consists of.
struct CCmConditionSteps {
    static int WaitCall(CCmConditionVariableThread& aCondition, const CCmTimeValue* aTimeout);
    static CmResult WaitResult(const CCmConditionVariableThread& aCondition,
                               const CCmTimeValue* aTimeout, int aError);
    // The same up to a moment of the monotonic clock.
    static int WaitUntilCall(CCmConditionVariableThread& aCondition, long long aDeadlineNsec);
    static CmResult WaitUntilResult(const CCmConditionVariableThread& aCondition,
                                    long long aDeadlineNsec, int aError);
    static int SignalCall(CCmConditionVariableThread& aCondition);
    static CmResult SignalResult(const CCmConditionVariableThread& aCondition, int aError);
    // A signal that must not be missed: tried again when it fails. Whether it was given; aError is
    // that of the last try that failed, 0 when none did: one line is due for all of them.
    static bool SignalSurely(CCmConditionVariableThread& aCondition, int& aError);
    static int BroadcastCall(CCmConditionVariableThread& aCondition);
    static CmResult BroadcastResult(const CCmConditionVariableThread& aCondition, int aError);
};

}  // namespace UTIL_NS

#endif  // CM_CONDITION_STEPS_H
