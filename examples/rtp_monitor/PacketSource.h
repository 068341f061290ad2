// Where packets come from: a capture file or a UDP socket.
#ifndef RTP_MONITOR_PACKET_SOURCE_H
#define RTP_MONITOR_PACKET_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>

#include "StreamStats.h"

namespace rtp_monitor {

// One UDP packet. data points into the source and is valid until its next call.
struct Packet {
    StreamKey key;  // but for the ssrc
    const unsigned char* data = nullptr;
    uint32_t size = 0;
    int64_t arrivalUsec = 0;  // since 1970
};

enum class ReadResult {
    PACKET,   // aPacket is filled
    SKIPPED,  // something that is not UDP over IPv4, or not whole
    IDLE,     // nothing came for a while
    END,      // the capture is over
    FAILED,   // error() says why; what was read before is good
};

class PacketSource {
  public:
    virtual ~PacketSource() = default;
    // Waits for at most a tenth of a second.
    virtual ReadResult Read(Packet* aPacket) = 0;
    // One clause without a final stop, after FAILED.
    virtual std::string error() const = 0;
    // How much of the input has been read, in percent; negative when there is no end to know.
    virtual int percent() const = 0;
    // True when the packets' times lie in the past, so that a replay may keep their pace.
    virtual bool isRecorded() const = 0;
};

// Both return null and a clause in aError when the source cannot be opened.
std::unique_ptr<PacketSource> OpenCapture(const std::string& aPath, std::string* aError);
// aAddress: udp://a.b.c.d:port.
std::unique_ptr<PacketSource> OpenSocket(const std::string& aAddress, std::string* aError);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_PACKET_SOURCE_H
