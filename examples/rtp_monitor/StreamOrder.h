// Which streams come first, and from where on a figure is a bad one.
#ifndef RTP_MONITOR_STREAM_ORDER_H
#define RTP_MONITOR_STREAM_ORDER_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "ReportData.h"

namespace rtp_monitor {

// Beyond them speech suffers audibly: concealment of more than one packet in a hundred, and more
// jitter than a receiver's usual buffer takes.
constexpr double LOSS_LIMIT_PERCENT = 1;
constexpr double JITTER_LIMIT_MS = 30;
// A stream that was not heard for so long has ended, and leaves the running table later on.
constexpr int64_t ENDED_AFTER_USEC = 5000000;
constexpr int64_t AGED_OUT_AFTER_USEC = 30000000;

enum class ESort { WORST, LOSS, JITTER, RATE, GAP, PACKETS, ADDRESS };
// For messages: the names that ParseSort takes.
extern const char SORT_NAMES[];

// False, with nothing stored, when there is no such order.
bool ParseSort(std::string_view aName, ESort* aSort);

// The largest figures first, or addresses upwards; what is equal comes by address. WORST: by how
// far the stream is beyond one of the limits; doubtful streams come last.
void SortStreams(ESort aSort, std::vector<CStreamReport>* aStreams);

double LossPercent(const CStreamReport& aStream);
inline bool IsLossBad(const CStreamReport& aStream) {
    return LossPercent(aStream) > LOSS_LIMIT_PERCENT;
}
inline bool IsJitterBad(const CStreamReport& aStream) {
    return aStream.clockRate != 0 && aStream.jitterMs > JITTER_LIMIT_MS;
}
inline bool IsEnded(const CStreamReport& aStream) {
    return aStream.silentUsec >= ENDED_AFTER_USEC;
}

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_ORDER_H
