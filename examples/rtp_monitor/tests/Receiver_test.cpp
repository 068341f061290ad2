#include "Receiver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "CmUtilMisc.h"

namespace rtp_monitor {
namespace {

using UTIL_NS::ACmThread;
using UTIL_NS::CM_OK;
using UTIL_NS::CmResult;

constexpr int RECEIVER_TYPE = 1;
constexpr int WORKER_TYPE = 2;

// A live source that always has a packet, aCount of them.
class EndlessSource : public PacketSource {
  public:
    EndlessSource(uint32_t aSize, uint64_t aCount, std::atomic<uint64_t>* aRead)
        : m_packet(aSize), m_ullCount(aCount), m_pRead(aRead) {
        m_packet[0] = 0x80;
    }

    ReadResult Read(Packet* aPacket) override {
        if (*m_pRead == m_ullCount) {
            return ReadResult::END;
        }
        m_packet[3] = static_cast<unsigned char>(++*m_pRead);
        aPacket->data = m_packet.data();
        aPacket->size = static_cast<uint32_t>(m_packet.size());
        return ReadResult::PACKET;
    }
    std::string error() const override { return ""; }
    int percent() const override { return -1; }
    bool isRecorded() const override { return false; }

  private:
    std::vector<unsigned char> m_packet;
    const uint64_t m_ullCount;
    std::atomic<uint64_t>* m_pRead;
};

class WaitEvent : public UTIL_NS::ICmEvent {
  public:
    WaitEvent(UTIL_NS::CCmEventThread* aStarted, UTIL_NS::CCmEventThread* aGo)
        : m_pStarted(aStarted), m_pGo(aGo) {}
    CmResult OnEventFire() override {
        m_pStarted->Signal();
        return m_pGo->Wait(nullptr);
    }

  private:
    UTIL_NS::CCmEventThread* m_pStarted;
    UTIL_NS::CCmEventThread* m_pGo;
};

ACmThread* FindWorkerThread() {
    UTIL_NS::g_thread_Mutex.Lock();
    ACmThread* pFound = nullptr;
    for (ACmThread* pThread : UTIL_NS::g_threadList) {
        pFound = pThread->GetThreadType() == WORKER_TYPE ? pThread : pFound;
    }
    UTIL_NS::g_thread_Mutex.UnLock();
    return pFound;
}

// A receiver in front of one worker that stands still until Go.
class ReceiverBackPressure : public testing::Test {
  protected:
    void SetUp() override {
        m_workers.push_back(std::make_unique<Worker>(ClockRates()));
        ASSERT_TRUE(m_workers[0]->Start(1000));
        ACmThread* pThread = FindWorkerThread();
        ASSERT_NE(pThread, nullptr);
        pThread->GetEventQueue()->PostEvent(new WaitEvent(&m_started, &m_go),
                                            UTIL_NS::ICmEventQueue::EPRIORITY_NORMAL);
        ASSERT_EQ(m_started.Wait(nullptr), CM_OK);
    }

    void TearDown() override {
        Go();
        m_workers.clear();
        if (m_pReceiver != nullptr) {
            m_pReceiver->Destory(CM_OK);
        }
    }

    void Receive(uint32_t aPacketSize, uint64_t aCount) {
        m_pReceiver = new Receiver(std::make_unique<EndlessSource>(aPacketSize, aCount, &m_read),
                                   m_workers, false);
        ASSERT_EQ(m_pReceiver->Create(RECEIVER_TYPE), CM_OK);
    }

    // How many packets were handed on a while after there were aExpected of them.
    uint64_t HandedOn(uint64_t aExpected) const {
        for (int i = 0; i < 6000 && m_pReceiver->counters().rtp < aExpected; ++i) {
            SleepMs(10);
        }
        SleepMs(100);
        return m_pReceiver->counters().rtp;
    }

    void Go() { m_go.Signal(); }

    UTIL_NS::CCmEventThread m_started{1};
    UTIL_NS::CCmEventThread m_go{1};  // stays signalled
    std::atomic<uint64_t> m_read{0};
    std::vector<std::unique_ptr<Worker>> m_workers;
    Receiver* m_pReceiver = nullptr;
};

TEST_F(ReceiverBackPressure, WaitsBehind8000Packets_AndThenGoesOn) {
    Receive(100, 20000);
    EXPECT_EQ(HandedOn(8001), 8001U);  // the last one found 8000 waiting
    Go();
    m_pReceiver->Join();
    EXPECT_EQ(m_pReceiver->counters().rtp, 20000U);
}

TEST_F(ReceiverBackPressure, WaitsWith64DataBlocks_AndThenGoesOn) {
    Receive(65000, 1000);  // four fit into a block
    EXPECT_EQ(HandedOn(256), 256U);
    Go();
    m_pReceiver->Join();
    EXPECT_EQ(m_pReceiver->counters().rtp, 1000U);
}

TEST_F(ReceiverBackPressure, HandsOnWhatWasRead_WhenStoppedMeanwhile) {
    Receive(65000, 1000);
    EXPECT_EQ(HandedOn(256), 256U);
    m_pReceiver->Stop(nullptr);
    SleepMs(100);  // time enough to give up
    Go();
    m_pReceiver->Join();
    EXPECT_EQ(m_read, 257U);
    EXPECT_EQ(m_pReceiver->counters().rtp, 257U);
    Snapshot snapshot;
    ASSERT_TRUE(m_workers[0]->Take(&snapshot));
    ASSERT_EQ(snapshot.streams.size(), 1U);
    EXPECT_EQ(snapshot.streams[0].packets, 257U);
}

}  // namespace
}  // namespace rtp_monitor
