// A fault to be found: workers to which every hundredth packet of one payload type is too much
// work. The README has the search for it.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "RtpPacket.h"

namespace rtp_monitor {
namespace {

constexpr uint8_t SLOW_TYPE = 97;  // the audio of data/call.pcap
constexpr unsigned int ONE_OF = 100;
constexpr std::chrono::milliseconds TOO_LONG(120);

EPacketKind ParsePacketSlowly(const unsigned char* aData, size_t aSize, size_t aWireSize,
                              CRtpHeader* aHeader) {
    thread_local unsigned int t_dwPackets = 0;
    const EPacketKind eKind = ParsePacket(aData, aSize, aWireSize, aHeader);
    if (eKind == EPacketKind::RTP && aHeader->payloadType == SLOW_TYPE &&
        ++t_dwPackets % ONE_OF == 0) {
        std::this_thread::sleep_for(TOO_LONG);
    }
    return eKind;
}

}  // namespace
}  // namespace rtp_monitor

#define ParsePacket ParsePacketSlowly
#include "../StreamWorker.cpp"  // NOLINT(bugprone-suspicious-include)
