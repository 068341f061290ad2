// What one RTP stream did: the receiver's statistics of RFC 3550, appendix A, with timestamps as
// further witnesses where sequence numbers jump.
#ifndef RTP_MONITOR_STREAM_STATS_H
#define RTP_MONITOR_STREAM_STATS_H

#include <bitset>
#include <cstdint>
#include <vector>

#include "ReportData.h"
#include "RtpPacket.h"

namespace rtp_monitor {

class CStreamStats {
  public:
    // aClockRate: Hz of the packet's payload type, 0 when unknown. aArrivalUsec: in microseconds of
    // any fixed origin. aDropped: how many packets the monitor's socket had dropped before this
    // one, modulo 2^32; all packets of a stream come from one socket.
    void OnPacket(const CRtpHeader& aHeader, uint32_t aClockRate, int64_t aArrivalUsec,
                  uint32_t aDropped);

    // Ends the interval over which intervalBitRate is taken; aLengthUsec is how long it was.
    void CloseInterval(int64_t aLengthUsec);

    uint64_t packets() const { return m_ullReceived + m_ullStrays; }

    // The figures; key is left to the caller.
    CStreamReport Report() const;

  private:
    // Where a packet belongs by its sequence number.
    enum class EPlace { FIRST, IN_STREAM, NOWHERE };

    // RFC 3550, appendix A.1: a step forward of MAX_DROPOUT or more, and one back of MAX_MISORDER
    // or more, is a jump.
    static constexpr int32_t MAX_DROPOUT = 3000;
    static constexpr int32_t MAX_MISORDER = 100;

    // How the stream has been going: what it takes to tell whether a jump goes on from it. Old
    // steps count less and less.
    struct CPace {
        double packets = 0;
        double ticks = 0;
        double usec = 0;

        void Add(double aPackets, double aTicks, double aUsec);
    };

    void CountPayloadType(uint8_t aType, uint32_t aClockRate);
    EPlace CountSequence(const CRtpHeader& aHeader, uint32_t aClockRate, int64_t aArrivalUsec,
                         uint32_t aDropped);
    void Start(uint16_t aSequence);
    void Advance(int64_t aStep, uint32_t aDropped);
    void CountBack(int32_t aDistance);
    EPlace CountJump(const CRtpHeader& aHeader, uint32_t aDropped);
    bool HasBeenSilent(int64_t aArrivalUsec) const;
    int64_t OutageLength(const CRtpHeader& aHeader, uint32_t aClockRate, int64_t aArrivalUsec,
                         uint32_t aDropped) const;
    bool IsLate(const CRtpHeader& aHeader) const;
    void CountJitter(EPlace aPlace, uint32_t aTimestamp, uint32_t aClockRate, int64_t aArrivalUsec);

    bool m_bConfirmed = false;
    uint8_t m_byPayloadType = 0;  // the last one
    uint8_t m_byTimedType = 0;    // the last one whose clock is known
    uint32_t m_dwClockRate = 0;   // of that; 0: none yet
    std::vector<CPayloadTypeReport> m_payloadTypes;
    uint64_t m_ullTypeChanges = 0;

    uint64_t m_ullReceived = 0;
    uint64_t m_ullStrays = 0;
    uint64_t m_ullBytes = 0;
    uint64_t m_ullExpected = 0;  // of the spans before the last restart
    uint64_t m_ullUnique = 0;
    uint64_t m_ullDuplicates = 0;
    uint64_t m_ullOutOfOrder = 0;
    uint64_t m_ullLate = 0;
    uint64_t m_ullOutages = 0;
    uint64_t m_ullRestarts = 0;
    uint64_t m_ullDroppedHere = 0;

    int64_t m_llBaseSequence = 0;         // extended: the first of the span
    int64_t m_llHighestSequence = 0;      // extended
    uint32_t m_dwHighestTimestamp = 0;    // of the packet with that number
    int64_t m_llHighestArrivalUsec = 0;   // likewise
    uint32_t m_dwHighestDropped = 0;      // likewise
    uint8_t m_byHighestType = 0;          // likewise
    int32_t m_nNextAfterJump = -1;        // the number that would prove a restart
    std::bitset<MAX_MISORDER> m_arrived;  // which of the last sequence numbers have arrived
    CPace m_pace;

    bool m_bTimed = false;  // the three below are those of a packet
    uint32_t m_dwTimedTimestamp = 0;
    uint32_t m_dwTimedRate = 0;
    int64_t m_llTimedArrivalUsec = 0;
    double m_dJitterUsec = 0;

    int64_t m_llFirstArrivalUsec = 0;
    int64_t m_llLastArrivalUsec = 0;
    int64_t m_llLongestGapUsec = 0;
    uint64_t m_ullIntervalBytes = 0;
    double m_dIntervalBitRate = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_STATS_H
