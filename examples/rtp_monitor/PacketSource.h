// Where packets come from: a capture or UDP sockets.
#ifndef RTP_MONITOR_PACKET_SOURCE_H
#define RTP_MONITOR_PACKET_SOURCE_H

#include <poll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BlockPool.h"
#include "FrameParser.h"
#include "ReportData.h"

namespace rtp_monitor {

// One UDP packet. Its bytes lie in a data block, where they stay as long as somebody holds that.
struct CPacket {
    CStreamKey key;  // but for the ssrc
    DataBlockPtr block;
    uint32_t offset = 0;      // of the payload within the block
    uint32_t size = 0;        // bytes of it that are there
    uint32_t wireSize = 0;    // bytes of it that were sent
    int64_t arrivalUsec = 0;  // of a capture: since 1970; live: of the monotonic clock
    uint32_t dropped = 0;     // packets that the socket had dropped before this one, modulo 2^32
};

enum class ERead {
    PACKET,   // aPacket is filled
    SKIPPED,  // a frame without a UDP packet; aReason tells
    IDLE,     // nothing is there now
    END,      // the capture is over
    FAILED,   // error() says why; what was read before is good
};

class IPacketSource {
  public:
    virtual ~IPacketSource() = default;
    // Does not wait.
    virtual ERead Read(CPacket* aPacket, EFrame* aReason) = 0;
    // Appends what to wait for after IDLE.
    virtual void AddDescriptors(std::vector<pollfd>* aDescriptors) const = 0;
    // One clause without a final stop, after FAILED.
    virtual std::string error() const = 0;
    // True when the packets' times lie in the past, so that a replay may keep their pace.
    virtual bool IsRecorded() const = 0;

    // The two below may be called by any thread at any time.

    // How much of the input has been read, in percent; negative when there is no end to know.
    virtual int percent() const = 0;
    virtual std::vector<CInputReport> Inputs() const = 0;
};

// Both return null and a sentence without its final stop in aError when the source cannot be
// opened.

// aPath: "-" is standard input. What the file holds is looked at by Read.
std::unique_ptr<IPacketSource> OpenCapture(const std::string& aPath, std::string* aError);
// aAddresses: udp://ADDRESS:PORT, of either family; of a group, which is joined, also
// udp://ADDRESS:PORT?interface=NAME. aBuffer: bytes that the system is asked to keep for each.
std::unique_ptr<IPacketSource> OpenSockets(const std::vector<std::string>& aAddresses, int aBuffer,
                                           std::string* aError);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_PACKET_SOURCE_H
