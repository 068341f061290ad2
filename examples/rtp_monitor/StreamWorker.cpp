#include "StreamWorker.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "CmEvent.h"
#include "Monotonic.h"
#include "RtpPacket.h"

namespace rtp_monitor {

using UTIL_NS::CCmWorkerOptions;
using UTIL_NS::CmResult;

CStreamWorker::CStreamWorker(const ClockRates& aClockRates, uint32_t aMostBatches, bool aKeepSeries,
                             unsigned int aNumber)
    : m_bKeepSeries(aKeepSeries),
      m_llIntervalStartUsec(MonotonicUsec()),
      m_worker(CCmWorkerOptions().Name(("streams " + std::to_string(aNumber)).c_str())) {
    if (CM_SUCCEEDED(m_worker.Result())) {
        m_poster.emplace(*m_worker.GetEventQueue(), aMostBatches);
    }
    for (size_t nType = 0; nType < m_clockRates.size(); ++nType) {
        const auto given = aClockRates.find(static_cast<uint8_t>(nType));
        m_clockRates[nType] = given != aClockRates.end()
                                  ? given->second
                                  : StaticClockRate(static_cast<uint8_t>(nType));
    }
}

CmResult CStreamWorker::Result() const {
    return m_poster.has_value() ? m_poster->Result() : m_worker.Result();
}

CmResult CStreamWorker::Post(CBatch&& aBatch) {
    return m_poster->Post([this, batch = std::move(aBatch)] { OnBatch(batch); });
}

CmResult CStreamWorker::AddTo(CReport* aReport, bool aClose) {
    return CmCall(m_worker, [this, aReport, aClose] { AddStreams(aReport, aClose); }).Result();
}

CmResult CStreamWorker::AddCurves(const std::vector<CStreamKey>& aStreams,
                                  std::vector<CCurve>* aCurves) {
    return CmCall(m_worker,
                  [this, &aStreams, aCurves] {
                      for (const CStream& stream : m_streams) {
                          if (stream.series.stepUsec() > 0 &&
                              std::find(aStreams.begin(), aStreams.end(), stream.key) !=
                                  aStreams.end()) {
                              aCurves->push_back({stream.key, stream.series.startUsec(),
                                                  stream.series.stepUsec(),
                                                  stream.series.Points(stream.stats)});
                          }
                      }
                  })
        .Result();
}

void CStreamWorker::OnBatch(const CBatch& aBatch) {
    const std::string_view bytes = UTIL_NS::CmPieceOf(*aBatch.bytes);
    auto pNewKey = aBatch.newStreams.begin();
    for (const CBatch::CEntry& entry : aBatch.entries) {
        if (entry.isNew) {
            if (entry.place >= m_streams.size()) {
                m_streams.resize(entry.place + 1);
            }
            CStream& stream = m_streams[entry.place];
            m_ullForgottenStreams += stream.stats.packets() > 0 ? 1 : 0;
            m_ullForgottenPackets += stream.stats.packets();
            stream = {*pNewKey++, CStreamStats(), CSeries()};
        }
        CRtpHeader header = {};
        const auto* pPacket = reinterpret_cast<const unsigned char*>(bytes.data()) + entry.offset;
        if (ParsePacket(pPacket, entry.size, entry.wireSize, &header) == EPacketKind::RTP) {
            CStream& stream = m_streams[entry.place];
            if (m_bKeepSeries) {
                stream.series.OnTime(entry.arrivalUsec, stream.stats);
            }
            stream.stats.OnPacket(header, m_clockRates[header.payloadType], entry.arrivalUsec,
                                  entry.dropped);
        }
    }
}

void CStreamWorker::AddStreams(CReport* aReport, bool aClose) {
    const int64_t llNow = MonotonicUsec();
    for (CStream& stream : m_streams) {
        if (stream.stats.packets() == 0) {
            continue;  // a place that another stream was given before this one
        }
        if (aClose) {
            stream.stats.CloseInterval(llNow - m_llIntervalStartUsec);
        }
        aReport->streams.push_back(stream.stats.Report());
        aReport->streams.back().key = stream.key;
    }
    if (aClose) {
        m_llIntervalStartUsec = llNow;
    }
    aReport->forgottenStreams += m_ullForgottenStreams;
    aReport->forgottenPackets += m_ullForgottenPackets;
}

}  // namespace rtp_monitor
