#include "Worker.h"

#include <new>
#include <utility>

namespace rtp_monitor {

using UTIL_NS::CCmMessageBlock;
using UTIL_NS::CCmTimeValue;
using UTIL_NS::CM_OK;
using UTIL_NS::CmResult;
using UTIL_NS::ICmEventQueue;

namespace {

constexpr int WORKER_THREAD_TYPE = 2;
constexpr int64_t USEC_PER_SEC = 1000000;

}  // namespace

// Carries one packet to the worker: a view of the shared data block that the receiver filled.
class Worker::PacketEvent : public UTIL_NS::ICmEvent {
  public:
    PacketEvent(Worker* aWorker, const StreamKey& aKey, const RtpHeader& aHeader,
                int64_t aArrivalUsec, UTIL_NS::CCmDataBlock* aData, uint32_t aOffset,
                uint32_t aSize)
        : m_pWorker(aWorker),
          m_key(aKey),
          m_header(aHeader),
          m_arrivalUsec(aArrivalUsec),
          m_payload(aData, 0, aOffset + aSize) {
        m_payload.AdvanceChainedReadPtr(aOffset, nullptr);
    }

    CmResult OnEventFire() override {
        m_pWorker->OnPacket(m_key, m_header, m_arrivalUsec, m_payload);
        return CM_OK;
    }

  private:
    Worker* m_pWorker;
    StreamKey m_key;
    RtpHeader m_header;
    int64_t m_arrivalUsec;
    CCmMessageBlock m_payload;
};

template <typename Function>
class Worker::CallEvent : public UTIL_NS::ICmEvent {
  public:
    explicit CallEvent(Function aFunction) : m_function(std::move(aFunction)) {}

    CmResult OnEventFire() override { return m_function(); }

  private:
    Function m_function;
};

template <typename Function>
bool Worker::RunOnThread(Function aFunction) {
    return CM_SUCCEEDED(m_pThread->GetEventQueue()->SendEvent(
        new (std::nothrow) CallEvent<Function>(std::move(aFunction))));
}

Worker::Worker(const ClockRates& aClockRates) : m_clockRates(aClockRates) {}

Worker::~Worker() {
    Stop();
}

bool Worker::Start(unsigned int aIntervalMs) {
    if (CM_FAILED(
            CreateUserTaskThread(&m_pThread, UTIL_NS::TF_JOINABLE, true, WORKER_THREAD_TYPE))) {
        m_pThread = nullptr;
        return false;
    }
    const CCmTimeValue tvInterval(aIntervalMs / 1000, static_cast<long>(aIntervalMs % 1000) * 1000);
    return RunOnThread([this, tvInterval] {
        m_pTimer = std::make_unique<UTIL_NS::CCmTimerWrapperID>();
        m_tvIntervalStart = CCmTimeValue::GetTimeOfDay();
        return m_pTimer->Schedule(this, tvInterval, 0);
    });
}

bool Worker::Post(const StreamKey& aKey, const RtpHeader& aHeader, int64_t aArrivalUsec,
                  UTIL_NS::CCmDataBlock* aData, uint32_t aOffset, uint32_t aSize) {
    return CM_SUCCEEDED(m_pThread->GetEventQueue()->PostEvent(
        new (std::nothrow) PacketEvent(this, aKey, aHeader, aArrivalUsec, aData, aOffset, aSize),
        ICmEventQueue::EPRIORITY_NORMAL));
}

bool Worker::Take(Snapshot* aSnapshot) {
    return RunOnThread([this, aSnapshot] {
        AddTo(aSnapshot);
        return CM_OK;
    });
}

void Worker::Stop() {
    if (m_pThread == nullptr) {
        return;
    }
    // The timer belongs to the thread's queue, so it ends there.
    RunOnThread([this] {
        m_pTimer.reset();
        return CM_OK;
    });
    m_pThread->Stop(nullptr);
    m_pThread->Join();
    m_pThread->Destory(CM_OK);
    m_pThread = nullptr;
}

void Worker::OnTimer(UTIL_NS::CCmTimerWrapperID* /*aId*/) {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    const CCmTimeValue tvLength = tvNow - m_tvIntervalStart;
    m_tvIntervalStart = tvNow;
    const int64_t llLengthUsec = tvLength.GetSec() * USEC_PER_SEC + tvLength.GetUsec();
    for (auto& entry : m_streams) {
        entry.second.CloseInterval(llLengthUsec);
    }
}

void Worker::OnPacket(const StreamKey& aKey, const RtpHeader& aHeader, int64_t aArrivalUsec,
                      const CCmMessageBlock& aPayload) {
    if (m_streams.size() >= m_nMostSources) {
        ForgetUnconfirmed();
    }
    auto entry = m_streams.try_emplace(aKey, ClockRateOf(aHeader.payloadType)).first;
    entry->second.OnPacket(aHeader, aPayload.GetChainedLength(), aArrivalUsec);
}

// A packet of something else passes for RTP now and then; such sources must not add up. They stay
// counted.
void Worker::ForgetUnconfirmed() {
    for (auto entry = m_streams.begin(); entry != m_streams.end();) {
        if (entry->second.IsConfirmed()) {
            ++entry;
            continue;
        }
        ++m_forgottenSources;
        m_forgottenPackets += entry->second.packets();
        entry = m_streams.erase(entry);
    }
    m_nMostSources = m_streams.size() + MAX_UNCONFIRMED;
}

uint32_t Worker::ClockRateOf(uint8_t aPayloadType) const {
    const auto entry = m_clockRates.find(aPayloadType);
    return entry != m_clockRates.end() ? entry->second : StaticClockRate(aPayloadType);
}

void Worker::AddTo(Snapshot* aSnapshot) const {
    aSnapshot->unconfirmedStreams += m_forgottenSources;
    aSnapshot->unconfirmedPackets += m_forgottenPackets;
    for (const auto& entry : m_streams) {
        if (!entry.second.IsConfirmed()) {
            ++aSnapshot->unconfirmedStreams;
            aSnapshot->unconfirmedPackets += entry.second.packets();
            continue;
        }
        StreamReport report = entry.second.Report();
        report.key = entry.first;
        aSnapshot->streams.push_back(report);
    }
}

}  // namespace rtp_monitor
