#include "CmTimeValue.h"

#include "port/CmSystem.h"

namespace UTIL_NS {

CM_CONSTANT_INIT const CCmTimeValue CCmTimeValue::s_tvZero;
CM_CONSTANT_INIT const CCmTimeValue CCmTimeValue::s_tvMax(INT64_MAX, ONE_SECOND_IN_USECS - 1);

CCmTimeValue CCmTimeValue::GetTimeOfDay() {
    timeval tvNow = {};
    g_cmClock.gettimeofday(&tvNow, nullptr);
    return CCmTimeValue(tvNow);
}

CCmTimeValue& CCmTimeValue::operator+=(const CCmTimeValue& aRight) {
    // Both microsecond fields are below a million in magnitude, so their sum cannot overflow.
    const long lSec = aRight.m_lSec;  // aRight may be this object
    m_lUsec += aRight.m_lUsec;
    if (CM_UNLIKELY(__builtin_add_overflow(m_lSec, lSec, &m_lSec))) {
        Saturate(lSec < 0);
        return *this;
    }
    Normalize();
    return *this;
}

CCmTimeValue& CCmTimeValue::operator-=(const CCmTimeValue& aRight) {
    m_lUsec -= aRight.m_lUsec;
    if (CM_UNLIKELY(__builtin_sub_overflow(m_lSec, aRight.m_lSec, &m_lSec))) {
        Saturate(aRight.m_lSec > 0);
        return *this;
    }
    Normalize();
    return *this;
}

CCmTimeValue get_tvZero() {
    return CCmTimeValue::s_tvZero;
}

CCmTimeValue get_tvMax() {
    return CCmTimeValue::s_tvMax;
}

}  // namespace UTIL_NS
