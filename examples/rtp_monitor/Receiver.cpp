#include "Receiver.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "CmResultText.h"
#include "Monotonic.h"

namespace rtp_monitor {

namespace {

constexpr int64_t USEC_PER_MS = 1000;

// For debuggers, and for who asks who posted a batch.
void NameThisThread(const char* aName) {
#ifdef __APPLE__
    pthread_setname_np(aName);
#else
    pthread_setname_np(pthread_self(), aName);
#endif
}

}  // namespace

CReceiver::CReceiver(std::unique_ptr<IPacketSource> aSource, StreamWorkers& aWorkers,
                     CStopSignal& aStop, bool aKeepPace, uint32_t aMostStreams)
    : m_pSource(std::move(aSource)),
      m_workers(aWorkers),
      m_stop(aStop),
      m_bKeepPace(aKeepPace && m_pSource->IsRecorded()),
      m_index(aMostStreams),
      m_pending(aWorkers.size()) {}

void CReceiver::OnThreadInit() {
    NameThisThread("receiver");
    CCmLoopThread::OnThreadInit();
}

void CReceiver::OnThreadRun() {
    bool bGoOn = true;
    while (bGoOn && !m_stop.IsRaised()) {
        bGoOn = ReadOne();
    }
    if (bGoOn) {
        m_bWasStopped.store(true, std::memory_order_relaxed);
    }
    Flush();  // a failure has been noted
}

bool CReceiver::Fail(const std::string& aError) {
    if (m_sError.empty()) {
        m_sError = aError;
    }
    return false;
}

bool CReceiver::ReadOne() {
    EFrame reason = EFrame::UDP;
    switch (m_pSource->Read(&m_packet, &reason)) {
        case ERead::PACKET:
            return HandOn(m_packet);
        case ERead::SKIPPED:
            m_skipped[static_cast<size_t>(reason)].Add();
            return true;
        case ERead::IDLE:
            return Flush() && WaitForSource();
        case ERead::END:
            return false;
        default:
            return Fail(m_pSource->error());
    }
}

bool CReceiver::HandOn(const CPacket& aPacket) {
    if (m_bKeepPace && !WaitForPace(aPacket.arrivalUsec)) {
        return false;
    }
    const auto* pData =
        reinterpret_cast<const unsigned char*>(aPacket.block->m_pPayload) + aPacket.offset;
    CRtpHeader header = {};
    switch (ParsePacket(pData, aPacket.size, aPacket.wireSize, &header)) {
        case EPacketKind::RTP:
            break;
        case EPacketKind::RTCP:
            m_rtcp.Add();
            return true;
        case EPacketKind::CUT_OFF:
            m_skipped[static_cast<size_t>(EFrame::CUT_OFF)].Add();
            return true;
        default:
            m_notRtp.Add();
            return true;
    }
    if (m_block.ParaIn() != aPacket.block.ParaIn()) {
        if (!Flush()) {
            return false;
        }
        m_block = aPacket.block;
    }
    CStreamKey key = aPacket.key;
    key.ssrc = header.ssrc;
    bool bNew = false;
    // A place always belongs to the same worker, which thereby sees a stream's packets in order.
    const uint32_t dwPlace = m_index.Find(key, &bNew);
    const auto dwWorkers = static_cast<uint32_t>(m_workers.size());
    CBatch& batch = m_pending[dwPlace % dwWorkers];
    if (bNew) {
        batch.newStreams.push_back(key);
    }
    batch.entries.push_back({dwPlace / dwWorkers, aPacket.offset, aPacket.size, aPacket.wireSize,
                             aPacket.arrivalUsec, aPacket.dropped, bNew});
    m_rtp.Add();
    return true;
}

// Hands over what was read, and waits where the workers have fallen far back.
bool CReceiver::Flush() {
    for (size_t i = 0; i < m_pending.size(); ++i) {
        CBatch& batch = m_pending[i];
        if (batch.entries.empty()) {
            continue;
        }
        const size_t nEntries = batch.entries.size();
        batch.bytes = UTIL_NS::CmMakeBlockOfArea(*m_block, 0, m_block->m_dwSize);
        const UTIL_NS::CmResult rv = batch.bytes != nullptr ? m_workers[i]->Post(std::move(batch))
                                                            : UTIL_NS::CM_ERROR_OUT_OF_MEMORY;
        if (CM_FAILED(rv)) {
            return Fail(std::string("packets could not be handed on: ") +
                        UTIL_NS::CmResultText(rv));
        }
        batch = CBatch();
        batch.entries.reserve(nEntries);  // as many again, if the pace stays what it is
    }
    return true;
}

bool CReceiver::WaitForSource() {
    m_descriptors.assign(1, {m_stop.descriptor(), POLLIN, 0});
    m_pSource->AddDescriptors(&m_descriptors);
    if (poll(m_descriptors.data(), static_cast<nfds_t>(m_descriptors.size()), -1) < 0 &&
        errno != EINTR) {
        return Fail(std::strerror(errno));
    }
    return true;
}

// False when the run ends meanwhile, or cannot go on.
bool CReceiver::WaitForPace(int64_t aArrivalUsec) {
    if (m_llFirstArrivalUsec < 0) {
        m_llFirstArrivalUsec = aArrivalUsec;
        m_llFirstHandOnUsec = MonotonicUsec();
    }
    const int64_t llDue = m_llFirstHandOnUsec + (aArrivalUsec - m_llFirstArrivalUsec);
    int64_t llAheadMs = (llDue - MonotonicUsec()) / USEC_PER_MS;
    if (llAheadMs > 0 && !Flush()) {
        return false;
    }
    while (llAheadMs > 0) {
        pollfd stop = {m_stop.descriptor(), POLLIN, 0};
        if (poll(&stop, 1, static_cast<int>(std::min<int64_t>(llAheadMs, INT_MAX))) < 0 &&
            errno != EINTR) {
            return Fail(std::strerror(errno));
        }
        if (m_stop.IsRaised()) {
            m_bWasStopped.store(true, std::memory_order_relaxed);
            return false;
        }
        llAheadMs = (llDue - MonotonicUsec()) / USEC_PER_MS;
    }
    return true;
}

void CReceiver::AddTo(CReport* aReport) const {
    aReport->rtp += m_rtp.Get();
    aReport->rtcp += m_rtcp.Get();
    aReport->notRtp += m_notRtp.Get();
    for (size_t i = 0; i < m_skipped.size(); ++i) {
        aReport->skipped[i] += m_skipped[i].Get();
    }
    aReport->inputs = m_pSource->Inputs();
    aReport->percent = m_pSource->percent();
    aReport->isLive = !m_pSource->IsRecorded();
}

}  // namespace rtp_monitor
