#include "Receiver.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "CmTimeValue.h"
#include "CmUtilMisc.h"

namespace rtp_monitor {

using UTIL_NS::CCmDataBlock;
using UTIL_NS::CCmTimeValue;
using UTIL_NS::CM_OK;
using UTIL_NS::CmResult;

namespace {

constexpr uint32_t DATA_BLOCK_SIZE = 256 * 1024;  // bytes, several packets long
// What may wait for the workers; the two bound the memory.
constexpr size_t MAX_DATA_BLOCKS = 64;
constexpr uint32_t MAX_BACKLOG = 8000;  // packets of all workers together
constexpr unsigned int BACKLOG_SLEEP_MS = 1;
constexpr int64_t MAX_PACE_SLEEP_MS = 50;
constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t USEC_PER_MS = 1000;
constexpr uint64_t PROGRESS_STRIDE = 1024;  // packets between two looks at the progress

int64_t NowUsec() {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    return tvNow.GetSec() * USEC_PER_SEC + tvNow.GetUsec();
}

void Count(std::atomic<uint64_t>& aCounter) {
    aCounter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

Receiver::Receiver(std::unique_ptr<PacketSource> aSource,
                   std::vector<std::unique_ptr<Worker>>& aWorkers, bool aKeepPace)
    : m_pSource(std::move(aSource)),
      m_workers(aWorkers),
      m_bKeepPace(aKeepPace && m_pSource->isRecorded()) {}

CmResult Receiver::Stop(CCmTimeValue* /*aTimeout*/) {
    m_bStopAsked.store(true, std::memory_order_relaxed);
    return CM_OK;
}

void Receiver::OnThreadRun() {
    Packet packet;
    for (uint64_t ullRead = 0; !IsStopAsked(); ++ullRead) {
        if (ullRead % PROGRESS_STRIDE == 0) {
            m_nProgress.store(m_pSource->percent(), std::memory_order_relaxed);
        }
        const ReadResult result = m_pSource->Read(&packet);
        if (result == ReadResult::PACKET) {
            if (!HandOn(packet)) {
                m_sError = "there is too little memory";
                break;
            }
        } else if (result == ReadResult::SKIPPED) {
            Count(m_counters.skipped);
        } else if (result == ReadResult::END) {
            m_nProgress.store(100, std::memory_order_relaxed);
            break;
        } else if (result == ReadResult::FAILED) {
            m_sError = m_pSource->error();
            break;
        }
    }
}

bool Receiver::HandOn(const Packet& aPacket) {
    if (m_bKeepPace) {
        WaitForPace(aPacket.arrivalUsec);
    }
    RtpHeader header = {};
    const PacketKind kind = ParsePacket(aPacket.data, aPacket.size, &header);
    if (kind != PacketKind::RTP) {
        Count(kind == PacketKind::RTCP ? m_counters.rtcp : m_counters.notRtp);
        return true;
    }
    StreamKey key = aPacket.key;
    key.ssrc = header.ssrc;
    // A stream always goes to the same worker, which thereby sees its packets in order.
    Worker& worker = *m_workers[key.Hash() % m_workers.size()];
    while (worker.backlog() > MAX_BACKLOG / m_workers.size() && !IsStopAsked()) {
        SleepMs(BACKLOG_SLEEP_MS);
    }
    const uint32_t dwPayload = aPacket.size - header.headerSize - header.paddingSize;
    uint32_t dwOffset = 0;
    if (!StorePayload(aPacket.data + header.headerSize, dwPayload, &dwOffset) ||
        !worker.Post(key, header, aPacket.arrivalUsec, m_pData, dwOffset, dwPayload)) {
        return false;
    }
    Count(m_counters.rtp);
    return true;
}

void Receiver::WaitForPace(int64_t aArrivalUsec) {
    if (m_firstArrivalUsec < 0) {
        m_firstArrivalUsec = aArrivalUsec;
        m_firstHandOnUsec = NowUsec();
    }
    const int64_t llDue = m_firstHandOnUsec + (aArrivalUsec - m_firstArrivalUsec);
    for (int64_t llAhead = llDue - NowUsec(); llAhead >= USEC_PER_MS && !IsStopAsked();
         llAhead = llDue - NowUsec()) {
        SleepMs(static_cast<unsigned int>(std::min(llAhead / USEC_PER_MS, MAX_PACE_SLEEP_MS)));
    }
}

bool Receiver::StorePayload(const unsigned char* aData, uint32_t aSize, uint32_t* aOffset) {
    if ((m_pData == nullptr || aSize > DATA_BLOCK_SIZE - m_dwUsed) && !TakeFreeBlock()) {
        return false;
    }
    std::memcpy(m_pData->m_pPayload + m_dwUsed, aData, aSize);
    *aOffset = m_dwUsed;
    m_dwUsed += aSize;
    return true;
}

// Waits for the workers when packets still hold all blocks, also when a stop was asked for: what
// was read is handed on.
bool Receiver::TakeFreeBlock() {
    m_pData = nullptr;
    m_dwUsed = 0;
    m_pData = FindFreeBlock();
    while (m_pData == nullptr && !m_blocks.empty()) {
        SleepMs(BACKLOG_SLEEP_MS);
        m_pData = FindFreeBlock();
    }
    return m_pData != nullptr;
}

Receiver::DataBlockPtr Receiver::FindFreeBlock() {
    for (DataBlockPtr& block : m_blocks) {
        // Alone again after the release: it orders what the workers read before what is written.
        block->AddReference();
        if (block->ReleaseReference() == 1) {
            return block;
        }
    }
    CCmDataBlock* pNew = nullptr;
    if (m_blocks.size() < MAX_DATA_BLOCKS &&
        CM_SUCCEEDED(CCmDataBlock::CreateInstance(pNew, DATA_BLOCK_SIZE, nullptr))) {
        m_blocks.emplace_back().Attach(pNew);
        return m_blocks.back();
    }
    return nullptr;
}

}  // namespace rtp_monitor
