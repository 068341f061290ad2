/// CCmTimeValue: an instant or a span of time in seconds and microseconds.
/// \file
#ifndef CM_TIME_VALUE_H
#define CM_TIME_VALUE_H

#include <sys/time.h>
#include <time.h>

#include "CmBase.h"

namespace UTIL_NS {

/// A value type. Kept normalised: the microseconds' magnitude is below 1000000 and the two
/// fields never have opposite signs (-1.5 s is {-1, -500000}). Arithmetic saturates at s_tvMax
/// and at its negative; it never wraps. Any thread; no allocation.
class CM_UTIL_EXPORT CCmTimeValue {
  public:
    /// Microseconds in a second.
    static constexpr long ONE_SECOND_IN_USECS = 1000000;

    /// Zero seconds: what a default-constructed value is.
    static const CCmTimeValue s_tvZero;
    /// The largest value; as a timeout it means no limit.
    static const CCmTimeValue s_tvMax;

    /// Zero seconds.
    constexpr CCmTimeValue() = default;
    /// Seconds and microseconds of either sign; normalises.
    explicit constexpr CCmTimeValue(long aSec, long aUsec = 0) : m_lSec(aSec), m_lUsec(aUsec) {
        Normalize();
    }
    /// The seconds and microseconds of a timeval of the system's; normalises.
    explicit constexpr CCmTimeValue(const timeval& aTv) : CCmTimeValue(aTv.tv_sec, aTv.tv_usec) {}

    /// The current wall-clock time (seconds since 1970, UTC).
    static CCmTimeValue GetTimeOfDay();

    /// Whole seconds, with the sign of the value.
    constexpr long GetSec() const { return m_lSec; }
    /// The microseconds beyond them, with the sign of the value.
    constexpr long GetUsec() const { return m_lUsec; }

    /// {seconds, microseconds * 1000}.
    timespec ToTimeSpec() const { return timespec{m_lSec, m_lUsec * 1000}; }

    /// Brings the fields into the form that the class promises, in which every operation leaves
    /// them. A value that carries beyond the range saturates.
    constexpr void Normalize();

    /// Adds aRight; saturates at s_tvMax and its negative.
    constexpr CCmTimeValue& operator+=(const CCmTimeValue& aRight);
    /// Subtracts aRight; saturates at s_tvMax and its negative.
    constexpr CCmTimeValue& operator-=(const CCmTimeValue& aRight);

    /// The sum, saturated.
    friend constexpr CCmTimeValue operator+(CCmTimeValue aLeft, const CCmTimeValue& aRight) {
        return aLeft += aRight;
    }
    /// The difference, saturated.
    friend constexpr CCmTimeValue operator-(CCmTimeValue aLeft, const CCmTimeValue& aRight) {
        return aLeft -= aRight;
    }
    /// Whether they are the same time.
    friend constexpr bool operator==(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return aLeft.m_lSec == aRight.m_lSec && aLeft.m_lUsec == aRight.m_lUsec;
    }
    /// Whether aLeft is the smaller one.
    friend constexpr bool operator<(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return aLeft.m_lSec != aRight.m_lSec ? aLeft.m_lSec < aRight.m_lSec
                                             : aLeft.m_lUsec < aRight.m_lUsec;
    }
    /// Whether they differ.
    friend constexpr bool operator!=(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return !(aLeft == aRight);
    }
    /// Whether aLeft is the greater one.
    friend constexpr bool operator>(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return aRight < aLeft;
    }
    /// Whether aLeft is not the greater one.
    friend constexpr bool operator<=(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return !(aRight < aLeft);
    }
    /// Whether aLeft is not the smaller one.
    friend constexpr bool operator>=(const CCmTimeValue& aLeft, const CCmTimeValue& aRight) {
        return !(aLeft < aRight);
    }

  private:
    constexpr void Saturate(bool aNegative);

    long m_lSec = 0;
    long m_lUsec = 0;
};

/// A copy of CCmTimeValue::s_tvZero.
CM_UTIL_EXPORT CCmTimeValue get_tvZero();
/// A copy of CCmTimeValue::s_tvMax.
CM_UTIL_EXPORT CCmTimeValue get_tvMax();

constexpr void CCmTimeValue::Normalize() {
    if (m_lUsec >= ONE_SECOND_IN_USECS || m_lUsec <= -ONE_SECOND_IN_USECS) {
        const long lCarry = m_lUsec / ONE_SECOND_IN_USECS;
        m_lUsec %= ONE_SECOND_IN_USECS;
        if (__builtin_add_overflow(m_lSec, lCarry, &m_lSec)) {
            Saturate(lCarry < 0);
            return;
        }
    }
    if (m_lSec > 0 && m_lUsec < 0) {
        m_lSec -= 1;
        m_lUsec += ONE_SECOND_IN_USECS;
    } else if (m_lSec < 0 && m_lUsec > 0) {
        m_lSec += 1;
        m_lUsec -= ONE_SECOND_IN_USECS;
    }
}

constexpr CCmTimeValue& CCmTimeValue::operator+=(const CCmTimeValue& aRight) {
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

constexpr CCmTimeValue& CCmTimeValue::operator-=(const CCmTimeValue& aRight) {
    const long lSec = aRight.m_lSec;
    m_lUsec -= aRight.m_lUsec;
    if (CM_UNLIKELY(__builtin_sub_overflow(m_lSec, lSec, &m_lSec))) {
        // Wrapped to the least number: one second too many, which the microseconds may take away.
        if (lSec < 0 && m_lSec == INT64_MIN && m_lUsec < 0) {
            m_lSec = INT64_MAX;
            m_lUsec += ONE_SECOND_IN_USECS;
        } else {
            Saturate(lSec > 0);
        }
        return *this;
    }
    Normalize();
    return *this;
}

constexpr void CCmTimeValue::Saturate(bool aNegative) {
    m_lSec = aNegative ? -INT64_MAX : INT64_MAX;
    m_lUsec = aNegative ? -(ONE_SECOND_IN_USECS - 1) : ONE_SECOND_IN_USECS - 1;
}

}  // namespace UTIL_NS

#endif  // CM_TIME_VALUE_H
