// The RTP header (RFC 3550, section 5.1).
#ifndef RTP_MONITOR_RTP_PACKET_H
#define RTP_MONITOR_RTP_PACKET_H

#include <cstddef>
#include <cstdint>

namespace rtp_monitor {

struct CRtpHeader {
    uint8_t payloadType;
    bool marker;
    uint16_t sequence;
    uint32_t timestamp;
    uint32_t ssrc;
    uint32_t payloadSize;  // bytes, without header and padding
};

enum class EPacketKind {
    RTP,
    RTCP,
    CUT_OFF,  // it may be RTP, but too little of it was captured to know
    OTHER,    // neither of the two; also a packet whose lengths contradict each other
};

// Tells what a UDP payload is and, for RTP, fills aHeader. aSize: how much of it is there at aData;
// aWireSize: how long it was when it was sent, at least aSize. Of a packet that was cut off, what
// is not there counts as payload: a header extension whose length is missing, and padding.
EPacketKind ParsePacket(const unsigned char* aData, size_t aSize, size_t aWireSize,
                        CRtpHeader* aHeader);

// Clock rate in Hz of a payload type with a fixed assignment (RFC 3551), 0 for any other.
uint32_t StaticClockRate(uint8_t aPayloadType);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_RTP_PACKET_H
