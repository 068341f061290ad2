#include "Receiver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "CmEvent.h"
#include "CmUtilMisc.h"

namespace rtp_monitor {
namespace {

using UTIL_NS::CM_OK;

constexpr uint32_t MOST_BATCHES = 4;
constexpr uint64_t PACKETS = 1000;

// A live source that always has a packet, PACKETS of them, each in a data block of its own.
class CEndlessSource : public IPacketSource {
  public:
    explicit CEndlessSource(std::atomic<uint64_t>* aRead) : m_pRead(aRead) {}

    ERead Read(CPacket* aPacket, EFrame* /*aReason*/) override {
        if (*m_pRead == PACKETS) {
            return ERead::END;
        }
        aPacket->block = m_pool.Take();
        char* pData = aPacket->block->m_pPayload;
        std::fill(pData, pData + SIZE, 0);
        pData[0] = static_cast<char>(0x80);
        const uint64_t ullNumber = ++*m_pRead;
        pData[2] = static_cast<char>(ullNumber >> 8);
        pData[3] = static_cast<char>(ullNumber);
        aPacket->size = aPacket->wireSize = SIZE;
        return ERead::PACKET;
    }
    void AddDescriptors(std::vector<pollfd>* /*aDescriptors*/) const override {}
    std::string error() const override { return ""; }
    int percent() const override { return -1; }
    bool IsRecorded() const override { return false; }
    std::vector<CInputReport> Inputs() const override { return {}; }

  private:
    static constexpr uint32_t SIZE = 100;

    CBlockPool m_pool;
    std::atomic<uint64_t>* m_pRead;
};

// A receiver before one worker that stands still until Go.
class CReceiverBackPressure : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_stop.IsOpen());
        m_workers.push_back(std::make_unique<CStreamWorker>(ClockRates(), MOST_BATCHES));
        ASSERT_EQ(m_workers[0]->Result(), CM_OK);
        ASSERT_EQ(CmPost(m_workers[0]->worker(),
                         [this] {
                             m_started.Signal();
                             m_go.Wait(nullptr);
                         }),
                  CM_OK);
        ASSERT_EQ(m_started.Wait(nullptr), CM_OK);
    }
    void TearDown() override {
        m_go.Signal();
        m_thread.reset();
        m_workers.clear();
    }

    void Receive() {
        m_pReceiver =
            new CReceiver(std::make_unique<CEndlessSource>(&m_read), m_workers, m_stop, false, 10);
        m_thread.reset(m_pReceiver);
        ASSERT_EQ(m_thread->Create(1), CM_OK);
    }
    // How many packets were read a while after there were aExpected of them.
    uint64_t ReadUpTo(uint64_t aExpected) const {
        for (int i = 0; i < 6000 && m_read < aExpected; ++i) {
            SleepMs(10);
        }
        SleepMs(100);
        return m_read;
    }
    CReport Collect() {
        CReport report;
        m_pReceiver->AddTo(&report);
        EXPECT_EQ(m_workers[0]->AddTo(&report, false), CM_OK);
        return report;
    }

    UTIL_NS::CCmEventThread m_started{1};
    UTIL_NS::CCmEventThread m_go{1};  // stays signalled
    std::atomic<uint64_t> m_read{0};
    CStopSignal m_stop;
    StreamWorkers m_workers;
    UTIL_NS::CCmThreadPtr m_thread;
    CReceiver* m_pReceiver = nullptr;
};

// One batch is being handled, MOST_BATCHES wait with it, one is being handed over, and what it was
// handed over for has been read.
TEST_F(CReceiverBackPressure, GoesOn_AfterTheWorkerCaughtUp) {
    Receive();
    EXPECT_EQ(ReadUpTo(MOST_BATCHES + 2), MOST_BATCHES + 2);
    m_go.Signal();
    EXPECT_EQ(m_thread->Join(), CM_OK);
    const CReport report = Collect();
    EXPECT_EQ(report.rtp, PACKETS);
    ASSERT_EQ(report.streams.size(), 1U);
    EXPECT_EQ(report.streams[0].received, PACKETS);
    EXPECT_EQ(report.streams[0].lost, 0U);
}

TEST_F(CReceiverBackPressure, HandsOnWhatWasRead_WhenStoppedMeanwhile) {
    Receive();
    EXPECT_EQ(ReadUpTo(MOST_BATCHES + 2), MOST_BATCHES + 2);
    m_thread->Stop();
    SleepMs(100);  // time enough to give up
    m_go.Signal();
    EXPECT_EQ(m_thread->Join(), CM_OK);
    const CReport report = Collect();
    EXPECT_EQ(m_read, MOST_BATCHES + 2);
    EXPECT_EQ(report.rtp, MOST_BATCHES + 2);
    ASSERT_EQ(report.streams.size(), 1U);
    EXPECT_EQ(report.streams[0].received, MOST_BATCHES + 2);
}

}  // namespace
}  // namespace rtp_monitor
