// The receiving thread: reads packets and hands each to the worker of its stream.
#ifndef RTP_MONITOR_RECEIVER_H
#define RTP_MONITOR_RECEIVER_H

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CmWorker.h"
#include "PacketSource.h"
#include "StopSignal.h"
#include "StreamIndex.h"
#include "StreamWorker.h"

namespace rtp_monitor {

typedef std::vector<std::unique_ptr<CStreamWorker>> StreamWorkers;

class CReceiver : public UTIL_NS::CCmLoopThread {
  public:
    // aKeepPace: a recorded packet is handed on when its time has come. aMostStreams: at least 1.
    // aStop ends the loop soon, what was read is posted. The source is owned; aStop and the workers
    // must outlive the thread.
    CReceiver(std::unique_ptr<IPacketSource> aSource, StreamWorkers& aWorkers, CStopSignal& aStop,
              bool aKeepPace, uint32_t aMostStreams);

    void OnThreadInit() override;
    void OnThreadRun() override;

    // Adds what the receiver knows. Any thread, at any time.
    void AddTo(CReport* aReport) const;
    // Whether reading was ended by aStop. Any thread, at any time.
    bool WasStopped() const { return m_bWasStopped.load(std::memory_order_relaxed); }
    // Empty unless reading failed. Valid after Join.
    const std::string& error() const { return m_sError; }

  protected:
    void OnWakeUp() override { m_stop.Raise(); }

  private:
    // Written by the receiver alone, read by anyone.
    class CCounter {
      public:
        void Add() {
            m_ullCount.store(m_ullCount.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
        }
        uint64_t Get() const { return m_ullCount.load(std::memory_order_relaxed); }

      private:
        std::atomic<uint64_t> m_ullCount{0};
    };

    // False: it cannot go on.
    bool ReadOne();
    bool HandOn(const CPacket& aPacket);
    bool Flush();
    bool Fail(const std::string& aError);
    bool WaitForSource();
    bool WaitForPace(int64_t aArrivalUsec);

    std::unique_ptr<IPacketSource> m_pSource;
    StreamWorkers& m_workers;
    CStopSignal& m_stop;
    const bool m_bKeepPace;
    std::atomic<bool> m_bWasStopped{false};
    std::string m_sError;
    CCounter m_rtp;
    CCounter m_rtcp;
    CCounter m_notRtp;
    std::array<CCounter, static_cast<size_t>(EFrame::COUNT)> m_skipped;

    CStreamIndex m_index;
    CPacket m_packet;
    DataBlockPtr m_block;           // that all pending batches are about
    std::vector<CBatch> m_pending;  // by worker
    std::vector<pollfd> m_descriptors;
    int64_t m_llFirstArrivalUsec = -1;
    int64_t m_llFirstHandOnUsec = 0;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_RECEIVER_H
