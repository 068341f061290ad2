#include "StreamStats.h"

#include <algorithm>
#include <cmath>

namespace rtp_monitor {

namespace {

constexpr double USEC_PER_SEC = 1e6;
constexpr double USEC_PER_MS = 1e3;
constexpr double BITS_PER_BYTE = 8;
constexpr double JITTER_GAIN = 1.0 / 16;   // RFC 3550, appendix A.8
constexpr double PACE_MEMORY = 2000;       // packets
constexpr double PAUSE = 100;              // times the usual distance
constexpr double SEQUENCE_CIRCLE = 65536;  // numbers until they begin again
// How well witnesses must agree: timestamps with numbers, timestamps with arrivals.
constexpr double TICKS_TOLERANCE = 1.0 / 8;
constexpr double LATE_TOLERANCE = 1.0 / 2;  // over a few frames, whose sizes differ
constexpr double TIME_TOLERANCE = 1.0 / 20;
constexpr double TIME_SLACK_USEC = 200000;
// Numbers with arrivals: the pace of packets changes more than that of timestamps.
constexpr double PACKETS_TOLERANCE = 1.0 / 2;
constexpr double PACKETS_SLACK = 100;

// The number of the form aNumber + k * 65536, k >= 0, that is nearest to aGuess.
double NearestNumber(double aNumber, double aGuess) {
    const double dTurns = std::round((aGuess - aNumber) / SEQUENCE_CIRCLE);
    return aNumber + std::max(0.0, dTurns) * SEQUENCE_CIRCLE;
}

bool IsNear(double aLeft, double aRight, double aPart, double aSlack) {
    return std::abs(aLeft - aRight) <= aRight * aPart + aSlack;
}

}  // namespace

void CStreamStats::CPace::Add(double aPackets, double aTicks, double aUsec) {
    // A pause says nothing about the pace.
    if (aUsec > USEC_PER_SEC && aUsec * packets > PAUSE * aPackets * usec) {
        return;
    }
    if (packets > PACE_MEMORY) {
        packets /= 2;
        ticks /= 2;
        usec /= 2;
    }
    packets += aPackets;
    ticks += aTicks;
    usec += aUsec;
}

void CStreamStats::OnPacket(const CRtpHeader& aHeader, uint32_t aClockRate, int64_t aArrivalUsec,
                            uint32_t aDropped) {
    if (packets() == 0) {
        m_llFirstArrivalUsec = aArrivalUsec;
    } else {
        m_llLongestGapUsec = std::max(m_llLongestGapUsec, aArrivalUsec - m_llLastArrivalUsec);
    }
    CountPayloadType(aHeader.payloadType, aClockRate);
    const EPlace place = CountSequence(aHeader, aClockRate, aArrivalUsec, aDropped);
    CountJitter(place, aHeader.timestamp, aClockRate, aArrivalUsec);
    m_llLastArrivalUsec = aArrivalUsec;
    m_ullBytes += aHeader.payloadSize;
    m_ullIntervalBytes += aHeader.payloadSize;
}

void CStreamStats::CountPayloadType(uint8_t aType, uint32_t aClockRate) {
    m_ullTypeChanges += packets() > 0 && aType != m_byPayloadType ? 1 : 0;
    m_byPayloadType = aType;
    if (aClockRate != 0) {
        m_byTimedType = aType;
        m_dwClockRate = aClockRate;
    }
    for (CPayloadTypeReport& seen : m_payloadTypes) {
        if (seen.type == aType) {
            ++seen.packets;
            return;
        }
    }
    m_payloadTypes.push_back({aType, aClockRate, 1});
}

CStreamStats::EPlace CStreamStats::CountSequence(const CRtpHeader& aHeader, uint32_t aClockRate,
                                                 int64_t aArrivalUsec, uint32_t aDropped) {
    EPlace place = EPlace::IN_STREAM;
    const int64_t llHighest = m_llHighestSequence;
    // The distance from the highest number, in the half of the circle that it lies in.
    const int32_t nDistance =
        static_cast<int16_t>(static_cast<uint16_t>(aHeader.sequence - m_llHighestSequence));
    const bool bFar = nDistance >= MAX_DROPOUT || nDistance <= -MAX_MISORDER;
    // After a long silence the numbers may have gone round the circle, however near this one is.
    // One that follows closely has been waited for: the sender paused.
    const bool bFollows = nDistance > 0 && nDistance <= MAX_MISORDER;
    const int64_t llOutage = packets() > 0 && (bFar || (!bFollows && HasBeenSilent(aArrivalUsec)))
                                 ? OutageLength(aHeader, aClockRate, aArrivalUsec, aDropped)
                                 : 0;
    if (packets() == 0) {
        place = EPlace::FIRST;
        Start(aHeader.sequence);
        ++m_ullReceived;
    } else if (llOutage >= MAX_DROPOUT) {
        m_nNextAfterJump = -1;
        ++m_ullOutages;
        ++m_ullReceived;
        Advance(llOutage, aDropped);
    } else if (bFar) {
        place = CountJump(aHeader, aDropped);
    } else {
        m_nNextAfterJump = -1;
        ++m_ullReceived;
        if (nDistance > 0) {
            m_bConfirmed = m_bConfirmed || nDistance == 1;
            if (aHeader.payloadType == m_byHighestType) {
                m_pace.Add(nDistance,
                           static_cast<int32_t>(aHeader.timestamp - m_dwHighestTimestamp),
                           static_cast<double>(aArrivalUsec - m_llHighestArrivalUsec));
            }
            Advance(nDistance, aDropped);
        } else {
            CountBack(-nDistance);
        }
    }
    if (place == EPlace::FIRST || m_llHighestSequence != llHighest) {
        m_dwHighestTimestamp = aHeader.timestamp;
        m_llHighestArrivalUsec = aArrivalUsec;
        m_dwHighestDropped = aDropped;
        m_byHighestType = aHeader.payloadType;
    }
    return place;
}

void CStreamStats::Start(uint16_t aSequence) {
    m_llBaseSequence = aSequence;
    m_llHighestSequence = aSequence;
    m_nNextAfterJump = -1;
    m_arrived.reset();
    m_arrived.set(0);
    ++m_ullUnique;
}

// What the socket dropped since the last packet is missing among the numbers that were passed over,
// as far as there are so many.
void CStreamStats::Advance(int64_t aStep, uint32_t aDropped) {
    m_arrived <<= static_cast<size_t>(std::min<int64_t>(aStep, MAX_MISORDER));
    m_arrived.set(0);
    m_llHighestSequence += aStep;
    ++m_ullUnique;
    m_ullDroppedHere += std::min(static_cast<uint64_t>(aStep - 1),
                                 static_cast<uint64_t>(aDropped - m_dwHighestDropped));
}

void CStreamStats::CountBack(int32_t aDistance) {
    if (m_arrived.test(static_cast<size_t>(aDistance))) {
        ++m_ullDuplicates;
        return;
    }
    m_arrived.set(static_cast<size_t>(aDistance));
    m_llBaseSequence = std::min(m_llBaseSequence, m_llHighestSequence - aDistance);
    ++m_ullOutOfOrder;
    ++m_ullUnique;
}

// A number far away that no outage explains. The packet may be late; otherwise the sender has
// started anew if the next number follows this one, and a lone one belongs nowhere.
CStreamStats::EPlace CStreamStats::CountJump(const CRtpHeader& aHeader, uint32_t aDropped) {
    if (IsLate(aHeader)) {
        ++m_ullLate;
        ++m_ullReceived;
        return EPlace::IN_STREAM;
    }
    if (aHeader.sequence != m_nNextAfterJump) {
        m_nNextAfterJump = static_cast<uint16_t>(aHeader.sequence + 1);
        ++m_ullStrays;
        return EPlace::NOWHERE;
    }
    // The packet before this one belongs to the new span, too.
    m_bConfirmed = true;
    ++m_ullRestarts;
    --m_ullStrays;
    m_ullReceived += 2;
    m_ullExpected += static_cast<uint64_t>(m_llHighestSequence - m_llBaseSequence + 1);
    m_pace = CPace();
    m_dwHighestDropped = aDropped;
    Start(static_cast<uint16_t>(aHeader.sequence - 1));
    Advance(1, aDropped);
    return EPlace::FIRST;
}

// Whether nothing came for so long that half a circle of numbers would have passed.
bool CStreamStats::HasBeenSilent(int64_t aArrivalUsec) const {
    return m_pace.usec > 0 &&
           static_cast<double>(aArrivalUsec - m_llHighestArrivalUsec) * m_pace.packets >
               m_pace.usec * SEQUENCE_CIRCLE / 2;
}

// By how many numbers the stream has gone on with a packet that seems to lie elsewhere, 0 when
// nothing speaks for that: timestamps, or the socket's own drops. Numbers may have gone round more
// than once when arrivals or drops say so.
int64_t CStreamStats::OutageLength(const CRtpHeader& aHeader, uint32_t aClockRate,
                                   int64_t aArrivalUsec, uint32_t aDropped) const {
    const double dAhead = static_cast<uint16_t>(aHeader.sequence - m_llHighestSequence);
    const double dTicks = static_cast<uint32_t>(aHeader.timestamp - m_dwHighestTimestamp);
    const double dUsec = static_cast<double>(aArrivalUsec - m_llHighestArrivalUsec);
    const double dDropped = static_cast<uint32_t>(aDropped - m_dwHighestDropped);
    const double dTicksPerPacket = m_pace.packets > 0 ? m_pace.ticks / m_pace.packets : 0;
    // The socket alone dropped as many.
    const double dByTicks =
        dTicksPerPacket > 0 ? NearestNumber(dAhead, dTicks / dTicksPerPacket) : dAhead;
    if (dDropped > 0 && std::min(dByTicks, dAhead) <= dDropped + MAX_DROPOUT) {
        return static_cast<int64_t>(dByTicks <= dDropped + MAX_DROPOUT ? dByTicks : dAhead);
    }
    if (dTicksPerPacket <= 0) {
        return 0;
    }
    // Timestamps went on as far as the numbers did.
    if (IsNear(dTicks, dAhead * dTicksPerPacket, TICKS_TOLERANCE, 0)) {
        return static_cast<int64_t>(dAhead);
    }
    // Timestamps went on as long as nothing came, and the numbers are as many as would have come.
    const double dRate = aClockRate != 0   ? aClockRate
                         : m_pace.usec > 0 ? m_pace.ticks * USEC_PER_SEC / m_pace.usec
                                           : 0;
    if (dRate <= 0 || m_pace.usec <= 0 ||
        !IsNear(dTicks * USEC_PER_SEC / dRate, dUsec, TIME_TOLERANCE, TIME_SLACK_USEC)) {
        return 0;
    }
    const double dByTime = dUsec * m_pace.packets / m_pace.usec;
    const double dStep = NearestNumber(dAhead, dByTime);
    return IsNear(dStep, dByTime, PACKETS_TOLERANCE, PACKETS_SLACK) ? static_cast<int64_t>(dStep)
                                                                    : 0;
}

// A packet that lies so far back that nobody remembers whether it has arrived before.
bool CStreamStats::IsLate(const CRtpHeader& aHeader) const {
    const double dBack = static_cast<uint16_t>(m_llHighestSequence - aHeader.sequence);
    const double dTicks = static_cast<uint32_t>(m_dwHighestTimestamp - aHeader.timestamp);
    return m_pace.ticks > 0 && dBack < SEQUENCE_CIRCLE / 2 &&
           IsNear(dTicks, dBack * m_pace.ticks / m_pace.packets, LATE_TOLERANCE, 0);
}

void CStreamStats::CountJitter(EPlace aPlace, uint32_t aTimestamp, uint32_t aClockRate,
                               int64_t aArrivalUsec) {
    if (aClockRate == 0 || aPlace == EPlace::NOWHERE) {
        return;
    }
    // Timestamps of different clocks cannot be compared: the first one after a change starts anew.
    if (m_bTimed && aPlace == EPlace::IN_STREAM && aClockRate == m_dwTimedRate) {
        // The timestamp wraps at 2^32; a difference is taken in the half of the circle it lies in.
        const double dTicks = static_cast<int32_t>(aTimestamp - m_dwTimedTimestamp);
        const double dApart = static_cast<double>(aArrivalUsec - m_llTimedArrivalUsec);
        const double dDifference = std::abs(dApart - dTicks * USEC_PER_SEC / aClockRate);
        m_dJitterUsec += (dDifference - m_dJitterUsec) * JITTER_GAIN;
    }
    m_bTimed = true;
    m_dwTimedTimestamp = aTimestamp;
    m_dwTimedRate = aClockRate;
    m_llTimedArrivalUsec = aArrivalUsec;
}

void CStreamStats::CloseInterval(int64_t aLengthUsec) {
    m_dIntervalBitRate = aLengthUsec > 0 ? static_cast<double>(m_ullIntervalBytes) * BITS_PER_BYTE *
                                               USEC_PER_SEC / static_cast<double>(aLengthUsec)
                                         : 0;
    m_ullIntervalBytes = 0;
}

CStreamReport CStreamStats::Report() const {
    CStreamReport report;
    report.isDoubtful = !m_bConfirmed;
    report.payloadType = m_dwClockRate != 0 ? m_byTimedType : m_byPayloadType;
    report.clockRate = m_dwClockRate;
    report.payloadTypes = m_payloadTypes;
    report.payloadTypeChanges = m_ullTypeChanges;
    report.received = m_ullReceived;
    report.strays = m_ullStrays;
    report.bytes = m_ullBytes;
    report.expected =
        m_ullExpected + static_cast<uint64_t>(m_llHighestSequence - m_llBaseSequence + 1);
    // What was taken for dropped and came after all, out of order, was not.
    const uint64_t ullMissing = report.expected - m_ullUnique;
    report.droppedHere = std::min(m_ullDroppedHere, ullMissing);
    report.lost = ullMissing - report.droppedHere;
    report.duplicates = m_ullDuplicates;
    report.outOfOrder = m_ullOutOfOrder;
    report.late = m_ullLate;
    report.outages = m_ullOutages;
    report.restarts = m_ullRestarts;
    report.jitterMs = m_dJitterUsec / USEC_PER_MS;
    const int64_t llLifeUsec = m_llLastArrivalUsec - m_llFirstArrivalUsec;
    report.bitRate = llLifeUsec > 0 ? static_cast<double>(m_ullBytes) * BITS_PER_BYTE *
                                          USEC_PER_SEC / static_cast<double>(llLifeUsec)
                                    : 0;
    report.intervalBitRate = m_dIntervalBitRate;
    report.longestGapMs = static_cast<double>(m_llLongestGapUsec) / USEC_PER_MS;
    report.firstArrivalUsec = m_llFirstArrivalUsec;
    report.lastArrivalUsec = m_llLastArrivalUsec;
    return report;
}

}  // namespace rtp_monitor
