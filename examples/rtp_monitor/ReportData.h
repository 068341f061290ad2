// What is known at one moment. Tables, JSON and pictures are made of it and of nothing else.
#ifndef RTP_MONITOR_REPORT_DATA_H
#define RTP_MONITOR_REPORT_DATA_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "FrameParser.h"
#include "StreamKey.h"

namespace rtp_monitor {

// A payload type within a stream.
struct CPayloadTypeReport {
    uint8_t type = 0;
    uint32_t clockRate = 0;  // Hz; 0: unknown
    uint64_t packets = 0;
};

// One stream. received = expected - lost - droppedHere + duplicates + late.
struct CStreamReport {
    CStreamKey key;
    bool isDoubtful = false;  // no two packets with consecutive numbers have been seen
    uint8_t payloadType = 0;  // that of the last packet whose clock is known, if there is one
    uint32_t clockRate = 0;   // Hz, of that type; 0: unknown, and then there is no jitter
    std::vector<CPayloadTypeReport> payloadTypes;  // in the order in which they came
    uint64_t payloadTypeChanges = 0;
    uint64_t received = 0;       // with a place in the stream
    uint64_t strays = 0;         // that belonged nowhere by their numbers
    uint64_t bytes = 0;          // of payload of all of them, without headers and padding
    uint64_t expected = 0;       // by sequence numbers
    uint64_t lost = 0;           // expected, not arrived in time, and not dropped here
    uint64_t droppedHere = 0;    // expected, and by all signs dropped by the monitor's own socket
    uint64_t duplicates = 0;     // arrived again
    uint64_t outOfOrder = 0;     // arrived after a later one, and in time
    uint64_t late = 0;           // arrived so late that they stay counted as lost
    uint64_t outages = 0;        // gaps of 3000 packets and more over which the stream went on
    uint64_t restarts = 0;       // jumps in sequence numbers that the stream began anew with
    double jitterMs = 0;         // interarrival jitter
    double bitRate = 0;          // bits of payload per second over the stream's life
    double intervalBitRate = 0;  // the same over the last closed interval
    double longestGapMs = 0;     // between two arrivals
    int64_t firstArrivalUsec = 0;
    int64_t lastArrivalUsec = 0;
};

// What was read from: a capture or one socket.
struct CInputReport {
    std::string name;  // as it was given
    bool isSocket = false;
    bool isGroup = false;        // a multicast group, which was joined
    bool isDropKnown = false;    // the system tells how much the socket dropped
    uint64_t dropped = 0;        // packets that came and found the socket's buffer full
    uint64_t bufferAsked = 0;    // bytes of the socket's buffer
    uint64_t bufferGranted = 0;  // the same in the system's way of counting
};

struct CReport {
    std::vector<CStreamReport> streams;  // without an order
    std::vector<CInputReport> inputs;
    uint64_t rtp = 0;
    uint64_t rtcp = 0;
    uint64_t notRtp = 0;                                                 // other UDP
    std::array<uint64_t, static_cast<size_t>(EFrame::COUNT)> skipped{};  // by reason
    uint64_t forgottenStreams = 0;  // that gave their places to others
    uint64_t forgottenPackets = 0;  // of those
    int64_t nowUsec = 0;            // live: the time that the arrivals are measured in
    double seconds = 0;             // since the start
    int percent = -1;               // of the input; negative: unknown
    bool isLive = false;
    bool isFinal = false;
    bool isComplete = true;    // the whole input was read
    bool hasIntervals = true;  // intervals passed at the stream's own pace

    uint64_t Skipped() const {
        uint64_t ullSum = 0;
        for (const uint64_t ullCount : skipped) {
            ullSum += ullCount;
        }
        return ullSum;
    }
    // Of all kinds.
    uint64_t Handled() const { return rtp + rtcp + notRtp + Skipped(); }
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_REPORT_DATA_H
