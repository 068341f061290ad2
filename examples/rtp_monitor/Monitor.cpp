#include "Monitor.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "CmResultText.h"
#include "Monotonic.h"
#include "PacketSource.h"
#include "PayloadNames.h"
#include "Plot.h"

namespace rtp_monitor {

namespace {

constexpr int RECEIVER_THREAD_TYPE = 1;
// Batches that may wait for all workers together, and for each at least. Every batch holds at most
// one data block, so this bounds the memory.
constexpr uint32_t MOST_BATCHES = 16;
constexpr uint32_t LEAST_BATCHES = 2;
constexpr double USEC_PER_SEC = 1e6;

}  // namespace

CMonitor::CMonitor(const COptions& aOptions, CStopSignal& aStop)
    : m_options(aOptions), m_stop(aStop) {}

bool CMonitor::Start(std::string* aError) {
    std::unique_ptr<IPacketSource> pSource =
        m_options.IsLive()
            ? OpenSockets(m_options.inputs, static_cast<int>(m_options.receiveBuffer), aError)
            : OpenCapture(m_options.inputs.front(), aError);
    if (pSource == nullptr) {
        return false;
    }
    const uint32_t dwBatches = std::max(MOST_BATCHES / m_options.workers, LEAST_BATCHES);
    for (unsigned int i = 1; i <= m_options.workers; ++i) {
        m_workers.push_back(std::make_unique<CStreamWorker>(m_options.clockRates, dwBatches,
                                                            !m_options.plotFile.empty(), i));
        if (CM_FAILED(m_workers.back()->Result())) {
            *aError = std::string("cannot start the worker threads: ") +
                      UTIL_NS::CmResultText(m_workers.back()->Result());
            return false;
        }
    }
    m_llStartUsec = MonotonicUsec();
    m_pReceiver =
        new CReceiver(std::move(pSource), m_workers, m_stop, !m_options.fast, m_options.streams);
    m_pThread.reset(m_pReceiver);
    const UTIL_NS::CmResult rv = m_pThread->Create(RECEIVER_THREAD_TYPE);
    if (CM_FAILED(rv)) {
        *aError = std::string("cannot start the receiving thread: ") + UTIL_NS::CmResultText(rv);
        return false;
    }
    return true;
}

bool CMonitor::Wait(std::string* aError) {
    const UTIL_NS::CmResult rv = m_pThread->Join();
    *aError = CM_FAILED(rv) ? UTIL_NS::CmResultText(rv) : m_pReceiver->error();
    return aError->empty();
}

bool CMonitor::Collect(CReport* aReport, bool aClose) {
    // The receiver first: what it counts later only the next report has.
    m_pReceiver->AddTo(aReport);
    for (const std::unique_ptr<CStreamWorker>& worker : m_workers) {
        if (CM_FAILED(worker->AddTo(aReport, aClose))) {
            return false;
        }
    }
    aReport->nowUsec = MonotonicUsec();
    aReport->seconds = static_cast<double>(aReport->nowUsec - m_llStartUsec) / USEC_PER_SEC;
    aReport->isComplete = aReport->isLive || !m_pReceiver->WasStopped();
    m_bIntervalClosed = m_bIntervalClosed || (aClose && (aReport->isLive || !m_options.fast));
    aReport->hasIntervals = m_bIntervalClosed;
    Complete(aReport);
    return true;
}

// What takes more than the stream's own packets to know.
void CMonitor::Complete(CReport* aReport) const {
    int64_t llNow = aReport->isLive ? aReport->nowUsec : INT64_MIN;
    for (const CStreamReport& stream : aReport->streams) {
        llNow = std::max(llNow, stream.lastArrivalUsec);
    }
    for (CStreamReport& stream : aReport->streams) {
        stream.silentUsec = llNow - stream.lastArrivalUsec;
        stream.payloadName = PayloadName(stream.payloadType, m_options.payloadNames);
        for (CPayloadTypeReport& type : stream.payloadTypes) {
            type.name = PayloadName(type.type, m_options.payloadNames);
        }
    }
}

bool CMonitor::CollectCurves(const CReport& aReport, std::vector<CCurve>* aCurves) {
    std::vector<CStreamKey> streams;
    for (size_t i = 0; i < std::min(aReport.streams.size(), MAX_PLOTTED); ++i) {
        streams.push_back(aReport.streams[i].key);
    }
    for (const std::unique_ptr<CStreamWorker>& worker : m_workers) {
        if (CM_FAILED(worker->AddCurves(streams, aCurves))) {
            return false;
        }
    }
    return true;
}

}  // namespace rtp_monitor
