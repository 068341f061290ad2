// The workers: each keeps the statistics of its own streams, on its own thread.
#ifndef RTP_MONITOR_STREAM_WORKER_H
#define RTP_MONITOR_STREAM_WORKER_H

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "CmBlockPieces.h"
#include "CmBoundedPoster.h"
#include "CmWorker.h"
#include "ReportData.h"
#include "Series.h"
#include "StreamStats.h"

namespace rtp_monitor {

// Clock rates that the user gave, by payload type; they come before the fixed ones.
typedef std::map<uint8_t, uint32_t> ClockRates;

// Packets on their way to a worker.
struct CBatch {
    struct CEntry {
        uint32_t place;   // of its stream at the worker
        uint32_t offset;  // of the RTP packet within the bytes
        uint32_t size;    // bytes of it that are there
        uint32_t wireSize;
        int64_t arrivalUsec;
        uint32_t dropped;  // as in CPacket
        bool isNew;        // the stream is the next of newStreams and takes the place
    };

    UTIL_NS::CCmChainPtr bytes;  // shared with whoever else has packets among them
    std::vector<CEntry> entries;
    std::vector<CStreamKey> newStreams;
};

// One thread of the library and the streams that it looks after.
class CStreamWorker {
  public:
    // aMostBatches: how many may wait. aKeepSeries: for AddCurves. aNumber: in the thread's name.
    CStreamWorker(const ClockRates& aClockRates, uint32_t aMostBatches, bool aKeepSeries = false,
                  unsigned int aNumber = 1);

    // Whether the thread runs; without it nothing below may be called.
    UTIL_NS::CmResult Result() const;
    // Waits for room. One thread.
    UTIL_NS::CmResult Post(CBatch&& aBatch);
    // Adds what the worker knows, all batches posted before included, to aReport. With aClose, the
    // interval ends over which its bit rates are taken.
    UTIL_NS::CmResult AddTo(CReport* aReport, bool aClose);
    // Appends how those of aStreams went that this worker looks after.
    UTIL_NS::CmResult AddCurves(const std::vector<CStreamKey>& aStreams,
                                std::vector<CCurve>* aCurves);
    // The thread, for what else is to run there.
    UTIL_NS::CCmWorker& worker() { return m_worker; }

  private:
    struct CStream {
        CStreamKey key;
        CStreamStats stats;
        CSeries series;
    };

    void OnBatch(const CBatch& aBatch);
    void AddStreams(CReport* aReport, bool aClose);

    const bool m_bKeepSeries;
    std::array<uint32_t, 128> m_clockRates{};  // by payload type
    std::deque<CStream> m_streams;             // by place
    uint64_t m_ullForgottenStreams = 0;
    uint64_t m_ullForgottenPackets = 0;
    int64_t m_llIntervalStartUsec;
    UTIL_NS::CCmWorker m_worker;  // ends before what its thread uses
    std::optional<UTIL_NS::CCmBoundedPoster> m_poster;
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STREAM_WORKER_H
