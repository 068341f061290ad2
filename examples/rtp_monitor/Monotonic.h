// The clock for every distance: it does not step when the time of day is set.
#ifndef RTP_MONITOR_MONOTONIC_H
#define RTP_MONITOR_MONOTONIC_H

#include <cstdint>

#include "CmChrono.h"

namespace rtp_monitor {

inline int64_t ToUsec(const UTIL_NS::CCmTimeValue& aTime) {
    return UTIL_NS::CmToChrono<std::chrono::microseconds>(aTime).count();
}

inline int64_t MonotonicUsec() {
    return ToUsec(UTIL_NS::CmMonotonicNow());
}

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_MONOTONIC_H
