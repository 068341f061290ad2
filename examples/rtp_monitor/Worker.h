// The workers: each keeps the statistics of its own streams, on its own thread.
#ifndef RTP_MONITOR_WORKER_H
#define RTP_MONITOR_WORKER_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "CmMessageBlock.h"
#include "CmThread.h"
#include "CmTimerWrapper.h"
#include "RtpPacket.h"
#include "StreamStats.h"

namespace rtp_monitor {

// Clock rates that the user gave, by payload type; the fixed ones come after them.
typedef std::map<uint8_t, uint32_t> ClockRates;

// What a worker knows at one moment.
struct Snapshot {
    std::vector<StreamReport> streams;
    uint64_t unconfirmedStreams = 0;  // too few packets in sequence to be called a stream
    uint64_t unconfirmedPackets = 0;
};

// One thread of the library and the streams that it looks after. All but the constructor, Start,
// Post, Take and Stop runs on that thread.
class Worker : private UTIL_NS::CCmTimerWrapperIDSink {
  public:
    explicit Worker(const ClockRates& aClockRates);
    ~Worker() override;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // aIntervalMs: how often the bit rate of the last interval is taken.
    bool Start(unsigned int aIntervalMs);
    // Hands one packet over: aBlock holds the payload, without header and padding.
    bool Post(const StreamKey& aKey, const RtpHeader& aHeader, int64_t aArrivalUsec,
              UTIL_NS::CCmDataBlock* aData, uint32_t aOffset, uint32_t aSize);
    // How many packets wait.
    uint32_t backlog() { return m_pThread->GetEventQueue()->GetPendingEventsCount(); }
    // Adds what the worker knows, all packets posted before included, to aSnapshot.
    bool Take(Snapshot* aSnapshot);
    // Stops the thread after the packets that were posted before.
    void Stop();

  private:
    static constexpr size_t MAX_UNCONFIRMED = 4096;  // sources remembered that are no streams yet

    class PacketEvent;
    template <typename Function>
    class CallEvent;

    template <typename Function>
    bool RunOnThread(Function aFunction);
    void OnTimer(UTIL_NS::CCmTimerWrapperID* aId) override;
    void OnPacket(const StreamKey& aKey, const RtpHeader& aHeader, int64_t aArrivalUsec,
                  const UTIL_NS::CCmMessageBlock& aPayload);
    void ForgetUnconfirmed();
    uint32_t ClockRateOf(uint8_t aPayloadType) const;
    void AddTo(Snapshot* aSnapshot) const;

    const ClockRates m_clockRates;
    UTIL_NS::ACmThread* m_pThread = nullptr;
    std::unique_ptr<UTIL_NS::CCmTimerWrapperID> m_pTimer;
    UTIL_NS::CCmTimeValue m_tvIntervalStart;
    std::map<StreamKey, StreamStats> m_streams;
    size_t m_nMostSources = MAX_UNCONFIRMED;  // that m_streams may hold before it is tidied
    uint64_t m_forgottenSources = 0;
    uint64_t m_forgottenPackets = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_WORKER_H
