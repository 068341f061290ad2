/// Clocks that report milliseconds and microseconds, broken-down times for formatting, sleeping.
///
/// Everything here may be used from any thread.
/// \file
#ifndef CM_CLOCK_H
#define CM_CLOCK_H

#include <time.h>

#include "CmBase.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

/// How long one tick of the process clock lasts. Reached through
/// CCmSingletonT<PretInitialationTimer>::Instance() only.
class CM_UTIL_EXPORT PretInitialationTimer {
  public:
    /// Milliseconds, rounded down: 0 where the system counts more than 1000 ticks per second.
    uint32_t GetMsPerTick() const { return m_dwMsPerTick; }

  private:
    friend class CCmSingletonT<PretInitialationTimer>;
    PretInitialationTimer();

    uint32_t m_dwMsPerTick;
};

extern template class CCmSingletonT<PretInitialationTimer>;

/// Wall-clock milliseconds since 1970, rounded down; a time before is a negative number taken as an
/// unsigned one.
CM_UTIL_EXPORT unsigned long get_tick_count();

/// The distance from aStart to aEnd, right even when the counter wrapped in between.
CM_UTIL_EXPORT unsigned long calculate_tick_interval(unsigned long aStart, unsigned long aEnd);

/// The wall clock, which jumps when it is set.
struct CM_UTIL_EXPORT timer_policy {
    /// Microseconds since 1970.
    static long long now();
    /// No time is later: 0x7FFFFFFFFFFFFFFF.
    static long long max_time_value();
};

/// The process clock, which counts from a moment that the system chooses. It advances by whole
/// ticks, and always reads 0 when a tick lasts less than a millisecond.
struct CM_UTIL_EXPORT tick_policy {
    /// Microseconds.
    static long long now();
    /// No time is later: 0x7FFFFFFFFFFFFFFF.
    static long long max_time_value();
};

/// The process clock again, with a timer that refreshes a copy every 10 ms; the first call of
/// now() starts it on the calling thread. The generator is declared in CmTimerWrapper.h.
struct CM_UTIL_EXPORT low_tick_policy {
    class low_tick_generator;

    /// Microseconds.
    static long long now();
    /// No time is later: 0x7FFFFFFFFFFFFFFF.
    static long long max_time_value();
};

/// A count of microseconds split into hours and less. A negative count is divided toward zero,
/// and its fields are those negative numbers taken as unsigned ones.
struct CM_UTIL_EXPORT tick_type {
    /// The process clock of now.
    tick_type();
    /// aMicroseconds: of either sign.
    explicit tick_type(long long aMicroseconds);
    /// Sets all fields, as the constructor does.
    void reset(long long aMicroseconds);

    uint32_t hours;         ///< in total, not reduced to a day
    uint32_t minutes;       ///< 0 to 59
    uint32_t seconds;       ///< 0 to 59
    uint32_t milliseconds;  ///< 0 to 999
    uint32_t microseconds;  ///< 0 to 999
};

/// A local time. The fields of the base are those of the system's record, except that tm_mon
/// counts from 1 and tm_year is the full year; its zone fields are not set. Where the system
/// cannot break a time down, all fields of the base are 0.
struct CM_UTIL_EXPORT time_type : tm {
    /// The wall clock of now.
    time_type();
    /// Microseconds since 1970; a negative count is a time before.
    explicit time_type(long long aMicroseconds);
    /// Sets all fields, as the constructor does.
    void reset(long long aMicroseconds);

    uint32_t milliseconds;  ///< 0 to 999
    uint32_t microseconds;  ///< 0 to 999
};

/// The process clock, for templates that take this or formatted_timer.
struct CM_UTIL_EXPORT formatted_ticker {
    /// The process clock of now.
    static tick_type now();
};

/// The wall clock, for templates that take this or formatted_ticker.
struct CM_UTIL_EXPORT formatted_timer {
    /// The wall clock of now.
    static time_type now();
};

/// Sleeps for aMs milliseconds, however many signals interrupt it, and tries again after any
/// other failure: it ends with success only. Returns 0.
CM_UTIL_EXPORT int ms_sleep(unsigned long aMs);

}  // namespace UTIL_NS

#endif  // CM_CLOCK_H
