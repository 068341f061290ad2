#include "CmTimeValue.h"

#include "CmSystem.h"

namespace UTIL_NS {

CM_CONSTANT_INIT const CCmTimeValue CCmTimeValue::s_tvZero;
CM_CONSTANT_INIT const CCmTimeValue CCmTimeValue::s_tvMax(INT64_MAX, ONE_SECOND_IN_USECS - 1);

CCmTimeValue CCmTimeValue::GetTimeOfDay() {
    timeval tvNow = {};
    g_cmClock.gettimeofday(&tvNow, nullptr);
    return CCmTimeValue(tvNow);
}

CCmTimeValue get_tvZero() {
    return CCmTimeValue::s_tvZero;
}

CCmTimeValue get_tvMax() {
    return CCmTimeValue::s_tvMax;
}

}  // namespace UTIL_NS
