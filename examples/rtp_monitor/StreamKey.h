// What tells one stream from another.
#ifndef RTP_MONITOR_STREAM_KEY_H
#define RTP_MONITOR_STREAM_KEY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace rtp_monitor {

// Its UDP addresses and its synchronisation source. Without gaps between the fields, so that keys
// are compared and hashed as bytes.
struct CStreamKey {
    std::array<uint8_t, 16> source{};  // in network order; of an IPv4 address the first four
    std::array<uint8_t, 16> destination{};
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    uint32_t ssrc = 0;
    uint32_t ipVersion = 0;  // 4 or 6

    bool operator==(const CStreamKey& aRight) const;
    // By the version, the source, the destination and then the synchronisation source.
    bool operator<(const CStreamKey& aRight) const;
};

struct CStreamKeyHash {
    size_t operator()(const CStreamKey& aKey) const;
};

// "10.0.0.1:5004" or "[2001:db8::1]:5004".
std::string FormatSource(const CStreamKey& aKey);
std::string FormatDestination(const CStreamKey& aKey);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_KEY_H
