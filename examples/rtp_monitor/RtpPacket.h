// The RTP header (RFC 3550, section 5.1).
#ifndef RTP_MONITOR_RTP_PACKET_H
#define RTP_MONITOR_RTP_PACKET_H

#include <cstddef>
#include <cstdint>

namespace rtp_monitor {

struct RtpHeader {
    uint8_t payloadType;
    bool marker;
    uint16_t sequence;
    uint32_t timestamp;
    uint32_t ssrc;
    uint32_t headerSize;   // bytes, contributing sources and extension included
    uint32_t paddingSize;  // bytes at the end that are no payload
};

enum class PacketKind { RTP, RTCP, OTHER };

// Tells what a UDP payload is and, for RTP, fills aHeader. A packet whose lengths contradict each
// other is OTHER.
PacketKind ParsePacket(const unsigned char* aData, size_t aSize, RtpHeader* aHeader);

// Clock rate in Hz of a payload type with a fixed assignment (RFC 3551), 0 for any other.
uint32_t StaticClockRate(uint8_t aPayloadType);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_RTP_PACKET_H
