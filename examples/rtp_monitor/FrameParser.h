// Finds the UDP packet in a captured frame.
#ifndef RTP_MONITOR_FRAME_PARSER_H
#define RTP_MONITOR_FRAME_PARSER_H

#include <cstdint>

#include "StreamKey.h"

namespace rtp_monitor {

// A UDP packet within a frame.
struct CUdpPacket {
    CStreamKey key;         // but for the ssrc
    uint32_t offset = 0;    // of its payload, from the frame's first byte
    uint32_t size = 0;      // bytes of the payload that are there
    uint32_t wireSize = 0;  // bytes that it had when it was sent, all its fragments together
};

// What became of a frame. Each of those after UDP is a reason to skip it.
enum class EFrame {
    UDP,
    OTHER_LINK_TYPE,  // frames of a kind that is not understood
    NOT_IP,           // ARP and the like
    IPV6_NOT_READ,    // its chain of headers leads to none that is known, as with encryption
    NOT_UDP,          // TCP and the like
    FRAGMENT,         // a part of a packet, but not the one with its header
    CUT_OFF,          // the capture has too little of it
    MALFORMED,        // its lengths contradict each other
    COUNT
};

// aLinkType: of the capture file. aSize: bytes that are there at aData; aWireSize: bytes that the
// frame had, at least aSize.
EFrame FindUdp(uint32_t aLinkType, const unsigned char* aData, uint32_t aSize, uint32_t aWireSize,
               CUdpPacket* aPacket);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_FRAME_PARSER_H
