/// Time as programs write it: CCmTimeValue beside std::chrono, literals, and the monotonic clock.
///
/// Which clock to take: the wall clock (CCmTimeValue::GetTimeOfDay) for what a person or another
/// machine reads, such as a time stamp; the monotonic clock (CmMonotonicNow) for every distance:
/// limits, intervals, ages. The wall clock is set back and forth by its user and by the network;
/// the monotonic one never goes back and knows no time of day. It stands still while the machine
/// sleeps.
/// \file
#ifndef CM_CHRONO_H
#define CM_CHRONO_H

#include <chrono>
#include <limits>
#include <ratio>
#include <type_traits>

#include "CmBase.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// The monotonic clock: time since some moment before the process started, the same for all
/// processes of the machine. Any thread; no lock, no allocation.
CM_UTIL_EXPORT CCmTimeValue CmMonotonicNow();

/// A duration of any unit, rounded up to whole microseconds, so that no wait is shorter than asked
/// for. What exceeds the range of CCmTimeValue saturates: hours::max() becomes s_tvMax, which is
/// "no limit" wherever a limit is taken. A duration that is not a number becomes s_tvMax, too.
template <class Rep, class Period>
constexpr CCmTimeValue CmFromChrono(const std::chrono::duration<Rep, Period>& aDuration) {
    constexpr CCmTimeValue tvMax(std::numeric_limits<long>::max(),
                                 CCmTimeValue::ONE_SECOND_IN_USECS - 1);
    if constexpr (std::is_floating_point_v<Rep>) {
        typedef std::chrono::duration<long double> Seconds;
        const long double seconds = Seconds(aDuration).count();
        constexpr long double LIMIT = 9.2e18L;  // below the range, whatever the rounding
        if (!(seconds < LIMIT)) {
            return tvMax;
        }
        if (seconds < -LIMIT) {
            return CCmTimeValue() - tvMax;
        }
        const long lSec = static_cast<long>(seconds);
        const long double usec =
            (seconds - static_cast<long double>(lSec)) * CCmTimeValue::ONE_SECOND_IN_USECS;
        const long lUsec = static_cast<long>(usec);
        return CCmTimeValue(lSec, static_cast<long double>(lUsec) < usec ? lUsec + 1 : lUsec);
    } else {
        // count * num / den, in whole seconds and the rest, without leaving the range.
        constexpr __int128_t NUM = Period::num;
        constexpr __int128_t DEN = Period::den;
        const __int128_t count = static_cast<__int128_t>(aDuration.count());
        const __int128_t units = count * NUM;  // 1/DEN s each; both factors have 64 bits
        const __int128_t sec = units / DEN;
        if (sec > std::numeric_limits<long>::max()) {
            return tvMax;
        }
        if (sec < -static_cast<__int128_t>(std::numeric_limits<long>::max())) {
            return CCmTimeValue() - tvMax;
        }
        const __int128_t rest = units % DEN * CCmTimeValue::ONE_SECOND_IN_USECS;
        const __int128_t usec = rest / DEN + (rest % DEN > 0 ? 1 : 0);
        return CCmTimeValue(static_cast<long>(sec), static_cast<long>(usec));
    }
}

/// A duration of the unit that is asked for, truncated toward zero; s_tvMax and whatever else
/// exceeds the range of Duration becomes Duration::max(), or Duration::min() below it.
template <class Duration = std::chrono::microseconds>
constexpr Duration CmToChrono(const CCmTimeValue& aValue) {
    typedef typename Duration::rep Rep;
    typedef typename Duration::period Period;
    if constexpr (std::is_floating_point_v<Rep>) {
        return Duration(std::chrono::duration<long double>(
            static_cast<long double>(aValue.GetSec()) +
            static_cast<long double>(aValue.GetUsec()) / CCmTimeValue::ONE_SECOND_IN_USECS));
    } else {
        constexpr __int128_t USECS = CCmTimeValue::ONE_SECOND_IN_USECS;
        // Periods have at most 18 digits, seconds 19: whole seconds and the rest apart.
        const __int128_t sec = aValue.GetSec();
        const __int128_t usec = aValue.GetUsec();
        const __int128_t whole = sec * Period::den / Period::num;
        const __int128_t left = sec * Period::den % Period::num;
        const __int128_t count = whole + (left * USECS + usec * Period::den) / USECS / Period::num;
        if (count > std::numeric_limits<Rep>::max()) {
            return Duration::max();
        }
        if (count < std::numeric_limits<Rep>::min()) {
            return Duration::min();
        }
        return Duration(static_cast<Rep>(count));
    }
}

/// A moment of the wall clock, as the system's clock of std::chrono has it.
inline CCmTimeValue CmFromChrono(const std::chrono::system_clock::time_point& aTime) {
    return CmFromChrono(aTime.time_since_epoch());
}
/// A CCmTimeValue since 1970 as a moment of the system's clock of std::chrono. What exceeds the
/// clock's range becomes its first or last moment.
inline std::chrono::system_clock::time_point CmToSystemTime(const CCmTimeValue& aTime) {
    return std::chrono::system_clock::time_point(
        CmToChrono<std::chrono::system_clock::duration>(aTime));
}

/// What the front door takes as an interval or a limit: a CCmTimeValue or a duration of
/// std::chrono.
class CCmInterval {
  public:
    /// Implicit, for calls like CmPostDelayed(worker, 20_ms, f).
    constexpr CCmInterval(const CCmTimeValue& aValue) : m_tvValue(aValue) {}
    /// Implicit, for calls like CmPostDelayed(worker, 20ms, f).
    template <class Rep, class Period>
    constexpr CCmInterval(const std::chrono::duration<Rep, Period>& aDuration)
        : m_tvValue(CmFromChrono(aDuration)) {}

    /// Rounded up to whole microseconds, as by CmFromChrono.
    constexpr const CCmTimeValue& Value() const { return m_tvValue; }

  private:
    CCmTimeValue m_tvValue;
};

/// Literals: using namespace UTIL_NS::CmLiterals; then 20_ms is a CCmTimeValue. Only the units that
/// nobody reads as something else.
namespace CmLiterals {

/// Seconds.
constexpr CCmTimeValue operator""_s(unsigned long long aSeconds) {
    return CmFromChrono(std::chrono::duration<unsigned long long>(aSeconds));
}
/// Milliseconds.
constexpr CCmTimeValue operator""_ms(unsigned long long aMilliseconds) {
    return CmFromChrono(std::chrono::duration<unsigned long long, std::milli>(aMilliseconds));
}
/// Microseconds.
constexpr CCmTimeValue operator""_us(unsigned long long aMicroseconds) {
    return CmFromChrono(std::chrono::duration<unsigned long long, std::micro>(aMicroseconds));
}

}  // namespace CmLiterals

}  // namespace UTIL_NS

#endif  // CM_CHRONO_H
