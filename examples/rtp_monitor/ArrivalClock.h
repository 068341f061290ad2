// When a packet arrived, by the monotonic clock.
#ifndef RTP_MONITOR_ARRIVAL_CLOCK_H
#define RTP_MONITOR_ARRIVAL_CLOCK_H

#include <cstdint>

namespace rtp_monitor {

// The kernel stamps a packet with the time of day. How old the stamp is says when that was on the
// monotonic clock: two readings of the time of day, a moment apart, between which it has been set
// only if the age makes no sense. Such a packet is taken to have arrived now. All in microseconds.
constexpr int64_t ArrivalUsec(int64_t aStamp, int64_t aTimeOfDay, int64_t aMonotonic) {
    constexpr int64_t MOST = 5000000;  // longer than packets ever wait in a socket
    const bool bSane = aStamp <= aTimeOfDay && aStamp >= aTimeOfDay - MOST;
    return bSane ? aMonotonic - (aTimeOfDay - aStamp) : aMonotonic;
}

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_ARRIVAL_CLOCK_H
