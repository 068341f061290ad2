// What payload types are called.
#ifndef RTP_MONITOR_PAYLOAD_NAMES_H
#define RTP_MONITOR_PAYLOAD_NAMES_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "StreamWorker.h"

namespace rtp_monitor {

// Names that the user gave, by payload type; they come before the fixed ones.
typedef std::map<uint8_t, std::string> PayloadNames;

// The name that was given, or that RFC 3551 gives; empty when there is none.
std::string PayloadName(uint8_t aPayloadType, const PayloadNames& aNames);

// Takes "HZ", "HZ/NAME" or, where the name tells the clock rate, "NAME" for aPayloadType. False,
// with nothing taken, when it is none of them.
bool ParseEncoding(std::string_view aText, uint8_t aPayloadType, ClockRates* aClockRates,
                   PayloadNames* aNames);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_PAYLOAD_NAMES_H
