// Takes capture files apart: pcap, in either byte order and with either resolution, and pcapng.
#ifndef RTP_MONITOR_CAPTURE_READER_H
#define RTP_MONITOR_CAPTURE_READER_H

#include <cstdint>
#include <string>
#include <vector>

namespace rtp_monitor {

// A captured frame.
struct CCaptureRecord {
    uint32_t linkType = 0;
    uint32_t offset = 0;    // of the frame, from where Next was told to read
    uint32_t size = 0;      // bytes of it that are there
    uint32_t wireSize = 0;  // bytes that it had, at least size
    int64_t timeUsec = 0;   // since 1970
};

// Reads a file as it comes, in pieces of any size. It keeps none of the bytes.
class CCaptureReader {
  public:
    // Bytes of the longest frame that is taken, and of that with all that stands around it.
    static constexpr uint32_t MAX_FRAME = 262144;
    static constexpr uint32_t MAX_RECORD = MAX_FRAME + 4096;

    enum class EResult {
        FRAME,  // aRecord is filled
        SPACE,  // something without a frame was taken
        MORE,   // needed() bytes are needed to go on; nothing was taken
        BAD,    // error() says why; there is nothing more to be had
    };

    // aData: what follows that which was taken before; never all of it is needed at once, but no
    // more than MAX_RECORD bytes ever are. Stores in aTaken how many were taken.
    EResult Next(const unsigned char* aData, uint32_t aSize, uint32_t* aTaken,
                 CCaptureRecord* aRecord);
    uint32_t needed() const { return m_dwNeeded; }
    // A clause without a final stop.
    const std::string& error() const { return m_sError; }

  private:
    enum class EFormat { UNKNOWN, PCAP, PCAPNG };
    struct CInterface {
        uint32_t linkType;
        uint32_t snapLength;    // 0: no limit
        uint64_t unitsPerSec;   // of its time stamps
        int64_t offsetSeconds;  // added to them
    };

    uint16_t Read16(const unsigned char* aData) const;
    uint32_t Read32(const unsigned char* aData) const;
    EResult Need(uint32_t aSize);
    EResult Refuse(std::string aError);
    EResult Start(const unsigned char* aData, uint32_t aSize, uint32_t* aTaken);
    EResult NextPcap(const unsigned char* aData, uint32_t aSize, uint32_t* aTaken,
                     CCaptureRecord* aRecord);
    EResult NextBlock(const unsigned char* aData, uint32_t aSize, uint32_t* aTaken,
                      CCaptureRecord* aRecord);
    EResult ReadSection(const unsigned char* aBlock, uint32_t aSize);
    EResult ReadInterface(const unsigned char* aBlock, uint32_t aSize);
    EResult ReadPacketBlock(const unsigned char* aBlock, uint32_t aSize, uint32_t aInterface,
                            CCaptureRecord* aRecord);
    EResult ReadSimpleBlock(const unsigned char* aBlock, uint32_t aSize, CCaptureRecord* aRecord);
    bool SetTime(const CInterface& aInterface, uint64_t aUnits, CCaptureRecord* aRecord) const;

    EFormat m_eFormat = EFormat::UNKNOWN;
    bool m_bBigEndian = false;
    uint32_t m_dwNeeded = 0;
    uint64_t m_ullToSkip = 0;  // bytes of a block without a frame that are yet to come
    int64_t m_llLastUsec = 0;
    std::string m_sError;
    std::vector<CInterface> m_interfaces;  // of a pcap file: the only one
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_CAPTURE_READER_H
