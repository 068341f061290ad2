#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "CaptureReader.h"
#include "PacketSource.h"

namespace rtp_monitor {

namespace {

class CCaptureSource : public IPacketSource {
  public:
    // aFile: owned. aSize: of a regular file; negative for what has to be waited for.
    CCaptureSource(int aFile, int64_t aSize, std::string aName)
        : m_nFile(aFile), m_llFileSize(aSize), m_sName(std::move(aName)) {}
    ~CCaptureSource() override { close(m_nFile); }

    ERead Read(CPacket* aPacket, EFrame* aReason) override;
    void AddDescriptors(std::vector<pollfd>* aDescriptors) const override {
        aDescriptors->push_back({m_nFile, POLLIN, 0});
    }
    std::string error() const override { return m_sError; }
    bool IsRecorded() const override { return true; }
    int percent() const override {
        const int64_t llRead = m_llRead.load(std::memory_order_relaxed);
        return m_llFileSize > 0
                   ? static_cast<int>(std::min<int64_t>(llRead, m_llFileSize) * 100 / m_llFileSize)
                   : -1;
    }
    std::vector<CInputReport> Inputs() const override {
        std::vector<CInputReport> inputs(1);
        inputs[0].name = m_sName;
        return inputs;
    }

  private:
    const unsigned char* here() const {
        return reinterpret_cast<const unsigned char*>(m_block->m_pPayload) + m_dwAt;
    }
    ERead Fail(const std::string& aError) {
        m_sError = aError;
        return ERead::FAILED;
    }
    ERead Fill();
    bool MakeRoom();

    const int m_nFile;
    const int64_t m_llFileSize;
    const std::string m_sName;
    std::string m_sError;
    CBlockPool m_pool;
    CCaptureReader m_reader;
    DataBlockPtr m_block;    // the bytes being read
    uint32_t m_dwAt = 0;     // of the first one that was not taken
    uint32_t m_dwThere = 0;  // of the first one that is not there yet
    std::atomic<int64_t> m_llRead{0};
};

ERead CCaptureSource::Read(CPacket* aPacket, EFrame* aReason) {
    while (true) {
        uint32_t dwTaken = 0;
        CCaptureRecord record;
        const auto result = m_block.ParaIn() != nullptr
                                ? m_reader.Next(here(), m_dwThere - m_dwAt, &dwTaken, &record)
                                : CCaptureReader::EResult::MORE;
        const uint32_t dwFrame = m_dwAt + record.offset;
        m_dwAt += dwTaken;
        if (result == CCaptureReader::EResult::FRAME) {
            const auto* pFrame =
                reinterpret_cast<const unsigned char*>(m_block->m_pPayload) + dwFrame;
            CUdpPacket udp;
            *aReason = FindUdp(record.linkType, pFrame, record.size, record.wireSize, &udp);
            if (*aReason != EFrame::UDP) {
                return ERead::SKIPPED;
            }
            aPacket->key = udp.key;
            if (aPacket->block.ParaIn() != m_block.ParaIn()) {
                aPacket->block = m_block;
            }
            aPacket->offset = dwFrame + udp.offset;
            aPacket->size = udp.size;
            aPacket->wireSize = udp.wireSize;
            aPacket->arrivalUsec = record.timeUsec;
            return ERead::PACKET;
        }
        if (result == CCaptureReader::EResult::BAD) {
            return Fail(m_reader.error());
        }
        if (result == CCaptureReader::EResult::MORE) {
            const ERead fill = Fill();
            if (fill != ERead::PACKET) {
                return fill;
            }
        }
    }
}

// Reads more of the file. PACKET: something came.
ERead CCaptureSource::Fill() {
    if (!MakeRoom()) {
        return Fail("there is too little memory");
    }
    if (m_llFileSize < 0) {
        // Only poll is woken when the run is to end; so nothing is read that has not come.
        pollfd input = {m_nFile, POLLIN, 0};
        if (poll(&input, 1, 0) == 0) {
            return ERead::IDLE;
        }
    }
    const ssize_t nRead =
        read(m_nFile, m_block->m_pPayload + m_dwThere, m_block->m_dwSize - m_dwThere);
    if (nRead < 0) {
        return errno == EINTR || errno == EAGAIN ? ERead::IDLE : Fail(std::strerror(errno));
    }
    if (nRead == 0) {
        const bool bNothing = m_llRead.load(std::memory_order_relaxed) == 0;
        return bNothing             ? Fail("it is empty")
               : m_dwAt < m_dwThere ? Fail("it ends in the middle of a packet")
                                    : ERead::END;
    }
    m_dwThere += static_cast<uint32_t>(nRead);
    m_llRead.store(m_llRead.load(std::memory_order_relaxed) + nRead, std::memory_order_relaxed);
    return ERead::PACKET;
}

// Goes on in another block when this one has no room for all of the next record; the part of it
// that is there is the only thing that is ever copied.
bool CCaptureSource::MakeRoom() {
    const uint32_t dwLeft = m_dwThere - m_dwAt;
    if (m_block.ParaIn() != nullptr && m_reader.needed() <= m_block->m_dwSize - m_dwAt &&
        m_dwThere < m_block->m_dwSize) {
        return true;
    }
    DataBlockPtr next = m_pool.Take();
    if (next.ParaIn() == nullptr) {
        return false;
    }
    if (dwLeft > 0) {
        std::memcpy(next->m_pPayload, m_block->m_pPayload + m_dwAt, dwLeft);
    }
    m_block = next;
    m_dwAt = 0;
    m_dwThere = dwLeft;
    return true;
}

}  // namespace

std::unique_ptr<IPacketSource> OpenCapture(const std::string& aPath, std::string* aError) {
    // Without waiting for somebody to write to a named pipe.
    const int nFile =
        aPath == "-" ? dup(STDIN_FILENO) : open(aPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info = {};
    if (nFile < 0 || fstat(nFile, &info) != 0) {
        *aError = "cannot read from " + aPath + ": " + std::strerror(errno);
        if (nFile >= 0) {
            close(nFile);
        }
        return nullptr;
    }
    if (S_ISDIR(info.st_mode)) {
        *aError = "cannot read from " + aPath + ": it is a directory";
        close(nFile);
        return nullptr;
    }
    const int64_t llSize = S_ISREG(info.st_mode) ? static_cast<int64_t>(info.st_size) : -1;
    return std::make_unique<CCaptureSource>(nFile, llSize, aPath);
}

}  // namespace rtp_monitor
