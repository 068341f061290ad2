#include "StreamStats.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace rtp_monitor {

namespace {

constexpr double USEC_PER_SEC = 1e6;
constexpr double USEC_PER_MS = 1e3;
constexpr double BITS_PER_BYTE = 8;
constexpr double JITTER_GAIN = 1.0 / 16;  // RFC 3550, appendix A.8
constexpr double TIMESTAMP_CIRCLE = 4294967296.0;

auto AsTuple(const StreamKey& aKey) {
    return std::tie(aKey.sourceAddress, aKey.sourcePort, aKey.destinationAddress,
                    aKey.destinationPort, aKey.ssrc);
}

}  // namespace

bool StreamKey::operator<(const StreamKey& aRight) const {
    return AsTuple(*this) < AsTuple(aRight);
}

size_t StreamKey::Hash() const {
    uint64_t ullHash = static_cast<uint64_t>(sourceAddress) << 32 | destinationAddress;
    ullHash ^= (static_cast<uint64_t>(sourcePort) << 48) ^
               (static_cast<uint64_t>(destinationPort) << 32) ^ ssrc;
    ullHash *= 0x9E3779B97F4A7C15ULL;  // spreads neighbours over all bits
    return static_cast<size_t>(ullHash >> 32);
}

void StreamStats::OnPacket(const RtpHeader& aHeader, uint32_t aPayloadSize, int64_t aArrivalUsec) {
    if (m_packets == 0) {
        m_firstArrivalUsec = aArrivalUsec;
        m_payloadType = aHeader.payloadType;
    } else {
        m_longestGapUsec = std::max(m_longestGapUsec, aArrivalUsec - m_lastArrivalUsec);
    }
    const Place place = CountSequence(aHeader.sequence);
    CountJitter(place, aHeader.timestamp, aArrivalUsec);
    m_lastArrivalUsec = aArrivalUsec;
    ++m_packets;
    m_bytes += aPayloadSize;
    m_intervalBytes += aPayloadSize;
}

StreamStats::Place StreamStats::CountSequence(uint16_t aSequence) {
    if (m_packets == 0) {
        Start(aSequence);
        return Place::FIRST;
    }
    // The distance from the highest number, in the half of the circle that it lies in.
    const int32_t nDistance =
        static_cast<int16_t>(static_cast<uint16_t>(aSequence - m_highestSequence));
    if (nDistance >= MAX_DROPOUT || nDistance <= -MAX_MISORDER) {
        return CountJump(aSequence);
    }
    m_nextAfterJump = -1;
    if (nDistance > 0) {
        m_bConfirmed = m_bConfirmed || nDistance == 1;
        Advance(nDistance);
    } else {
        CountLate(-nDistance);
    }
    return Place::IN_STREAM;
}

void StreamStats::Start(uint16_t aSequence) {
    m_baseSequence = aSequence;
    m_highestSequence = aSequence;
    m_nextAfterJump = -1;
    m_window.reset();
    m_window.set(0);
    ++m_unique;
}

void StreamStats::Advance(int32_t aStep) {
    m_window <<= static_cast<size_t>(aStep);
    m_window.set(0);
    m_highestSequence += aStep;
    ++m_unique;
}

void StreamStats::CountLate(int32_t aDistance) {
    if (m_window.test(static_cast<size_t>(aDistance))) {
        ++m_duplicates;
        return;
    }
    m_window.set(static_cast<size_t>(aDistance));
    m_baseSequence = std::min(m_baseSequence, m_highestSequence - aDistance);
    ++m_outOfOrder;
    ++m_unique;
}

// A number far away: the sender has started anew if the next one follows it; a lone one is counted
// as a packet that belongs nowhere.
StreamStats::Place StreamStats::CountJump(uint16_t aSequence) {
    if (aSequence != m_nextAfterJump) {
        m_nextAfterJump = static_cast<uint16_t>(aSequence + 1);
        return Place::NOWHERE;
    }
    m_bConfirmed = true;
    ++m_restarts;
    m_expected += static_cast<uint64_t>(m_highestSequence - m_baseSequence + 1);
    Start(static_cast<uint16_t>(aSequence - 1));
    Advance(1);
    return Place::FIRST;
}

void StreamStats::CountJitter(Place aPlace, uint32_t aTimestamp, int64_t aArrivalUsec) {
    if (m_clockRate == 0 || aPlace == Place::NOWHERE) {
        return;
    }
    const double dArrival =
        static_cast<double>(aArrivalUsec - m_firstArrivalUsec) * m_clockRate / USEC_PER_SEC;
    const double dTransit = dArrival - aTimestamp;
    if (aPlace == Place::IN_STREAM) {
        // The timestamp wraps at 2^32; a difference is taken in the half of the circle it lies in.
        const double dDifference = std::remainder(dTransit - m_lastTransit, TIMESTAMP_CIRCLE);
        m_jitter += (std::abs(dDifference) - m_jitter) * JITTER_GAIN;
    }
    m_lastTransit = dTransit;
}

void StreamStats::CloseInterval(int64_t aLengthUsec) {
    m_intervalBitRate = aLengthUsec > 0 ? static_cast<double>(m_intervalBytes) * BITS_PER_BYTE *
                                              USEC_PER_SEC / static_cast<double>(aLengthUsec)
                                        : 0;
    m_intervalBytes = 0;
}

StreamReport StreamStats::Report() const {
    StreamReport report;
    report.payloadType = m_payloadType;
    report.clockRate = m_clockRate;
    report.packets = m_packets;
    report.bytes = m_bytes;
    report.expected = m_expected + static_cast<uint64_t>(m_highestSequence - m_baseSequence + 1);
    report.lost = report.expected > m_unique ? report.expected - m_unique : 0;
    report.duplicates = m_duplicates;
    report.outOfOrder = m_outOfOrder;
    report.restarts = m_restarts;
    report.jitterMs = m_clockRate != 0 ? m_jitter * 1000 / m_clockRate : 0;
    const int64_t llLifeUsec = m_lastArrivalUsec - m_firstArrivalUsec;
    report.bitRate = llLifeUsec > 0 ? static_cast<double>(m_bytes) * BITS_PER_BYTE * USEC_PER_SEC /
                                          static_cast<double>(llLifeUsec)
                                    : 0;
    report.intervalBitRate = m_intervalBitRate;
    report.longestGapMs = static_cast<double>(m_longestGapUsec) / USEC_PER_MS;
    return report;
}

}  // namespace rtp_monitor
