// What one RTP stream did: the receiver's statistics of RFC 3550, appendix A.
#ifndef RTP_MONITOR_STREAM_STATS_H
#define RTP_MONITOR_STREAM_STATS_H

#include <bitset>
#include <cstdint>
#include <string>

#include "RtpPacket.h"

namespace rtp_monitor {

// A stream is told from others by its UDP addresses and its synchronisation source.
struct StreamKey {
    uint32_t sourceAddress = 0;  // IPv4, most significant octet first
    uint32_t destinationAddress = 0;
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    uint32_t ssrc = 0;

    bool operator<(const StreamKey& aRight) const;
    size_t Hash() const;
};

// The figures of one stream at one moment.
struct StreamReport {
    StreamKey key;
    uint8_t payloadType = 0;
    uint32_t clockRate = 0;      // Hz; 0: unknown, and then there is no jitter
    uint64_t packets = 0;        // all that arrived, also twice
    uint64_t bytes = 0;          // of payload, without headers and padding
    uint64_t expected = 0;       // by sequence numbers
    uint64_t lost = 0;           // expected and not arrived
    uint64_t duplicates = 0;     // arrived more than once
    uint64_t outOfOrder = 0;     // arrived after a later one
    uint64_t restarts = 0;       // jumps in sequence numbers that the stream went on from
    double jitterMs = 0;         // interarrival jitter
    double bitRate = 0;          // bits of payload per second over the stream's life
    double intervalBitRate = 0;  // the same over the last closed interval
    double longestGapMs = 0;     // between two arrivals
};

class StreamStats {
  public:
    // aClockRate: Hz, 0 when unknown.
    explicit StreamStats(uint32_t aClockRate) : m_clockRate(aClockRate) {}

    // aArrivalUsec: in microseconds of any fixed origin.
    void OnPacket(const RtpHeader& aHeader, uint32_t aPayloadSize, int64_t aArrivalUsec);

    // Ends the interval over which intervalBitRate is taken; aLengthUsec is how long it was.
    void CloseInterval(int64_t aLengthUsec);

    // Two packets in sequence have been seen: this is a stream and no accident.
    bool IsConfirmed() const { return m_bConfirmed; }
    uint64_t packets() const { return m_packets; }

    // The figures; key is left to the caller.
    StreamReport Report() const;

  private:
    // Where a packet belongs by its sequence number.
    enum class Place { FIRST, IN_STREAM, NOWHERE };

    // RFC 3550, appendix A.1: a step forward of MAX_DROPOUT or more, and one back of MAX_MISORDER
    // or more, is a jump.
    static constexpr int32_t MAX_DROPOUT = 3000;
    static constexpr int32_t MAX_MISORDER = 100;

    Place CountSequence(uint16_t aSequence);
    void Start(uint16_t aSequence);
    void Advance(int32_t aStep);
    void CountLate(int32_t aDistance);
    Place CountJump(uint16_t aSequence);
    void CountJitter(Place aPlace, uint32_t aTimestamp, int64_t aArrivalUsec);

    bool m_bConfirmed = false;
    uint8_t m_payloadType = 0;
    uint32_t m_clockRate;
    uint64_t m_packets = 0;
    uint64_t m_bytes = 0;
    uint64_t m_expected = 0;  // of the spans before the last restart
    uint64_t m_unique = 0;
    uint64_t m_duplicates = 0;
    uint64_t m_outOfOrder = 0;
    uint64_t m_restarts = 0;
    int64_t m_baseSequence = 0;          // extended: the first of the span
    int64_t m_highestSequence = 0;       // extended
    int32_t m_nextAfterJump = -1;        // the number that would prove a restart
    std::bitset<MAX_MISORDER> m_window;  // which of the last sequence numbers have arrived
    double m_jitter = 0;                 // in clock units
    double m_lastTransit = 0;            // in clock units
    int64_t m_firstArrivalUsec = 0;
    int64_t m_lastArrivalUsec = 0;
    int64_t m_longestGapUsec = 0;
    uint64_t m_intervalBytes = 0;
    double m_intervalBitRate = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_STATS_H
