// The receiving thread: reads packets and hands each to the worker of its stream.
#ifndef RTP_MONITOR_RECEIVER_H
#define RTP_MONITOR_RECEIVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CmDataBlock.h"
#include "CmThread.h"
#include "CmUtilTemplates.h"
#include "PacketSource.h"
#include "Worker.h"

namespace rtp_monitor {

// Packets by what became of them; written by the receiver, read by anyone at any time.
struct ReceiverCounters {
    std::atomic<uint64_t> rtp{0};
    std::atomic<uint64_t> rtcp{0};
    std::atomic<uint64_t> notRtp{0};   // UDP, but neither of the two
    std::atomic<uint64_t> skipped{0};  // not UDP over IPv4
};

class Receiver : public UTIL_NS::ACmThread {
  public:
    // aKeepPace: a recorded packet is handed on when its time has come. The source is owned, the
    // workers must outlive the receiver's thread.
    Receiver(std::unique_ptr<PacketSource> aSource, std::vector<std::unique_ptr<Worker>>& aWorkers,
             bool aKeepPace);

    // Ends the body soon; what was read is posted.
    UTIL_NS::CmResult Stop(UTIL_NS::CCmTimeValue* aTimeout = nullptr) override;
    void OnThreadRun() override;

    const ReceiverCounters& counters() const { return m_counters; }
    // In percent; negative when unknown.
    int progress() const { return m_nProgress.load(std::memory_order_relaxed); }
    // Empty unless reading failed. Valid after Join.
    const std::string& error() const { return m_sError; }

  private:
    typedef UTIL_NS::CCmComAutoPtr<UTIL_NS::CCmDataBlock> DataBlockPtr;

    bool IsStopAsked() const { return m_bStopAsked.load(std::memory_order_relaxed); }
    // False when memory ran out.
    bool HandOn(const Packet& aPacket);
    void WaitForPace(int64_t aArrivalUsec);
    // The offset of the copy within m_pData; false when memory ran out.
    bool StorePayload(const unsigned char* aData, uint32_t aSize, uint32_t* aOffset);
    bool TakeFreeBlock();
    DataBlockPtr FindFreeBlock();

    std::unique_ptr<PacketSource> m_pSource;
    std::vector<std::unique_ptr<Worker>>& m_workers;
    const bool m_bKeepPace;
    std::atomic<bool> m_bStopAsked{false};
    std::atomic<int> m_nProgress{-1};
    ReceiverCounters m_counters;
    std::string m_sError;
    std::vector<DataBlockPtr> m_blocks;  // all there are; one that no packet shares is free
    DataBlockPtr m_pData;                // the one that is being filled
    uint32_t m_dwUsed = 0;               // bytes of it
    int64_t m_firstArrivalUsec = -1;
    int64_t m_firstHandOnUsec = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_RECEIVER_H
