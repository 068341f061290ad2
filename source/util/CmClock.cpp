#include "CmClock.h"

#include <sys/times.h>
#include <unistd.h>

#include "CmCancel.h"
#include "CmChrono.h"
#include "CmSleep.h"
#include "CmSystem.h"
#include "CmTimeValue.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr long long MS_PER_SEC = 1000;
constexpr long long USEC_PER_MS = 1000;
constexpr long long USEC_PER_SEC = USEC_PER_MS * MS_PER_SEC;
constexpr long long USEC_PER_MINUTE = USEC_PER_SEC * 60;
constexpr long long USEC_PER_HOUR = USEC_PER_MINUTE * 60;
constexpr long long MAX_TIME_VALUE = 0x7FFFFFFFFFFFFFFF;

}  // namespace

template class CCmSingletonT<PretInitialationTimer>;

PretInitialationTimer::PretInitialationTimer() : m_dwMsPerTick(0) {
    const long lTicksPerSec = g_cmSystem.sysconf(_SC_CLK_TCK);
    if (lTicksPerSec > 0) {
        m_dwMsPerTick = static_cast<uint32_t>(MS_PER_SEC / lTicksPerSec);
    }
}

unsigned long get_tick_count() {
    // Not by CCmTimeValue, whose microseconds are negative before 1970; the system's are not.
    timeval tvNow = {};
    g_cmClock.gettimeofday(&tvNow, nullptr);
    return static_cast<unsigned long>(tvNow.tv_sec * MS_PER_SEC + tvNow.tv_usec / USEC_PER_MS);
}

unsigned long calculate_tick_interval(unsigned long aStart, unsigned long aEnd) {
    return aEnd - aStart;
}

long long timer_policy::now() {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    return tvNow.GetSec() * USEC_PER_SEC + tvNow.GetUsec();
}

long long timer_policy::max_time_value() {
    return MAX_TIME_VALUE;
}

long long tick_policy::now() {
    const PretInitialationTimer* pTimer = CCmSingletonT<PretInitialationTimer>::Instance();
    const unsigned long long ullMsPerTick = pTimer != nullptr ? pTimer->GetMsPerTick() : 0;
    tms unused;
    const unsigned long long ullTicks = static_cast<unsigned long long>(g_cmClock.times(&unused));
    return static_cast<long long>(ullTicks * ullMsPerTick * USEC_PER_MS);
}

long long tick_policy::max_time_value() {
    return MAX_TIME_VALUE;
}

long long low_tick_policy::max_time_value() {
    return MAX_TIME_VALUE;
}

tick_type::tick_type() {
    reset(tick_policy::now());
}

tick_type::tick_type(long long aMicroseconds) {
    reset(aMicroseconds);
}

void tick_type::reset(long long aMicroseconds) {
    hours = static_cast<uint32_t>(aMicroseconds / USEC_PER_HOUR);
    minutes = static_cast<uint32_t>(aMicroseconds / USEC_PER_MINUTE % 60);
    seconds = static_cast<uint32_t>(aMicroseconds / USEC_PER_SEC % 60);
    milliseconds = static_cast<uint32_t>(aMicroseconds / USEC_PER_MS % 1000);
    microseconds = static_cast<uint32_t>(aMicroseconds % 1000);
}

time_type::time_type() : tm() {
    reset(timer_policy::now());
}

time_type::time_type(long long aMicroseconds) : tm() {
    reset(aMicroseconds);
}

void time_type::reset(long long aMicroseconds) {
    long long llSec = aMicroseconds / USEC_PER_SEC;
    long long llUsec = aMicroseconds % USEC_PER_SEC;
    if (llUsec < 0) {  // before 1970, too, milliseconds and microseconds count forward
        llSec -= 1;
        llUsec += USEC_PER_SEC;
    }
    milliseconds = static_cast<uint32_t>(llUsec / USEC_PER_MS);
    microseconds = static_cast<uint32_t>(llUsec % USEC_PER_MS);

    static_cast<tm&>(*this) = tm();
    const time_t tSec = static_cast<time_t>(llSec);
    tm local = {};
    CCmDisableCancel
        disableCancel;  // the C library may hold a lock of its own while it reads the zone's file
    if (g_cmSystem.localtime_r(&tSec, &local) == nullptr) {
        return;
    }
    tm_sec = local.tm_sec;
    tm_min = local.tm_min;
    tm_hour = local.tm_hour;
    tm_mday = local.tm_mday;
    tm_mon = local.tm_mon + 1;
    tm_year = local.tm_year + 1900;
    tm_wday = local.tm_wday;
    tm_yday = local.tm_yday;
    tm_isdst = local.tm_isdst;
}

tick_type formatted_ticker::now() {
    return tick_type();
}

time_type formatted_timer::now() {
    return time_type();
}

CCmTimeValue CmMonotonicNow() {
    timespec tsNow = {};
    CmPortMonotonicNow(&tsNow);
    return CCmTimeValue(tsNow.tv_sec, tsNow.tv_nsec / 1000);
}

int ms_sleep(unsigned long aMs) {
    CmSleepFully(aMs);
    return 0;
}

}  // namespace UTIL_NS
