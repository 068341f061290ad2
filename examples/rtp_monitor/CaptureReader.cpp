#include "CaptureReader.h"

#include <algorithm>
#include <utility>

namespace rtp_monitor {

namespace {

constexpr uint64_t USEC_PER_SEC = 1000000;
constexpr uint64_t NSEC_PER_SEC = 1000000000;
// The end of the year 9999. What lies beyond it is no time at which anything was captured.
constexpr int64_t MAX_SECONDS = 253402300800;

constexpr uint32_t PCAP_MAGIC_USEC = 0xA1B2C3D4;
constexpr uint32_t PCAP_MAGIC_NSEC = 0xA1B23C4D;
constexpr uint32_t PCAP_FILE_HEADER_SIZE = 24;
constexpr uint32_t PCAP_RECORD_HEADER_SIZE = 16;
constexpr uint32_t LINK_TYPE_MASK = 0xFFFF;  // above it: about check sums at the ends of frames

constexpr uint32_t SECTION_BLOCK = 0x0A0D0D0A;  // the same in either byte order
constexpr uint32_t INTERFACE_BLOCK = 1;
constexpr uint32_t OLD_PACKET_BLOCK = 2;
constexpr uint32_t SIMPLE_BLOCK = 3;
constexpr uint32_t PACKET_BLOCK = 6;
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1A2B3C4D;
constexpr uint32_t BLOCK_HEADER_SIZE = 8;  // the type and the length, which stands at the end again
constexpr uint32_t BLOCK_FRAME_SIZE = BLOCK_HEADER_SIZE + 4;
constexpr uint32_t SECTION_BLOCK_SIZE = 28;
constexpr uint32_t INTERFACE_BLOCK_SIZE = 20;
constexpr uint32_t PACKET_BLOCK_SIZE = 32;
constexpr uint32_t SIMPLE_BLOCK_SIZE = 16;
constexpr uint16_t OPTION_RESOLUTION = 9;
constexpr uint16_t OPTION_OFFSET = 14;
constexpr size_t MAX_INTERFACES = 4096;
constexpr unsigned MAX_DECIMAL_DIGITS = 19;  // of what fits into 64 bits
constexpr unsigned MAX_BINARY_DIGITS = 63;

const char NO_CAPTURE[] = "it is no capture file, neither pcap nor pcapng";
const char BAD_TIME[] = "it holds a time stamp that is out of range";

// By the option's byte: a power of ten, or of two when its highest bit is set; 0: too large.
uint64_t UnitsPerSecond(unsigned aResolution) {
    const unsigned nDigits = aResolution & 0x7F;
    if ((aResolution & 0x80) != 0) {
        return nDigits <= MAX_BINARY_DIGITS ? uint64_t{1} << nDigits : 0;
    }
    uint64_t ullUnits = nDigits <= MAX_DECIMAL_DIGITS ? 1 : 0;
    for (unsigned i = 0; i < nDigits && ullUnits != 0; ++i) {
        ullUnits *= 10;
    }
    return ullUnits;
}

}  // namespace

uint16_t CCaptureReader::Read16(const unsigned char* aData) const {
    return static_cast<uint16_t>(m_bBigEndian ? aData[0] << 8 | aData[1]
                                              : aData[1] << 8 | aData[0]);
}

uint32_t CCaptureReader::Read32(const unsigned char* aData) const {
    const uint32_t dwFirst = Read16(aData);
    const uint32_t dwSecond = Read16(aData + 2);
    return m_bBigEndian ? dwFirst << 16 | dwSecond : dwSecond << 16 | dwFirst;
}

CCaptureReader::EResult CCaptureReader::Need(uint32_t aSize) {
    m_dwNeeded = aSize;
    return EResult::MORE;
}

CCaptureReader::EResult CCaptureReader::Refuse(std::string aError) {
    m_sError = std::move(aError);
    return EResult::BAD;
}

CCaptureReader::EResult CCaptureReader::Next(const unsigned char* aData, uint32_t aSize,
                                             uint32_t* aTaken, CCaptureRecord* aRecord) {
    *aTaken = 0;
    if (m_ullToSkip > 0) {
        *aTaken = static_cast<uint32_t>(std::min<uint64_t>(m_ullToSkip, aSize));
        m_ullToSkip -= *aTaken;
        return *aTaken > 0 ? EResult::SPACE : Need(1);
    }
    switch (m_eFormat) {
        case EFormat::PCAP:
            return NextPcap(aData, aSize, aTaken, aRecord);
        case EFormat::PCAPNG:
            return NextBlock(aData, aSize, aTaken, aRecord);
        default:
            return Start(aData, aSize, aTaken);
    }
}

CCaptureReader::EResult CCaptureReader::Start(const unsigned char* aData, uint32_t aSize,
                                              uint32_t* aTaken) {
    if (aSize < sizeof(uint32_t)) {
        return Need(sizeof(uint32_t));
    }
    if (Read32(aData) == SECTION_BLOCK) {
        m_eFormat = EFormat::PCAPNG;
        return EResult::SPACE;
    }
    m_bBigEndian = aData[0] == PCAP_MAGIC_USEC >> 24;
    const uint32_t dwMagic = Read32(aData);
    if (dwMagic != PCAP_MAGIC_USEC && dwMagic != PCAP_MAGIC_NSEC) {
        return Refuse(NO_CAPTURE);
    }
    if (aSize < PCAP_FILE_HEADER_SIZE) {
        return Need(PCAP_FILE_HEADER_SIZE);
    }
    m_interfaces.push_back({Read32(aData + 20) & LINK_TYPE_MASK, 0,
                            dwMagic == PCAP_MAGIC_NSEC ? NSEC_PER_SEC : USEC_PER_SEC, 0});
    m_eFormat = EFormat::PCAP;
    *aTaken = PCAP_FILE_HEADER_SIZE;
    return EResult::SPACE;
}

CCaptureReader::EResult CCaptureReader::NextPcap(const unsigned char* aData, uint32_t aSize,
                                                 uint32_t* aTaken, CCaptureRecord* aRecord) {
    if (aSize < PCAP_RECORD_HEADER_SIZE) {
        return Need(PCAP_RECORD_HEADER_SIZE);
    }
    aRecord->size = Read32(aData + 8);
    if (aRecord->size > MAX_FRAME) {
        return Refuse("it holds a frame of " + std::to_string(aRecord->size) + " bytes");
    }
    if (aSize - PCAP_RECORD_HEADER_SIZE < aRecord->size) {
        return Need(PCAP_RECORD_HEADER_SIZE + aRecord->size);
    }
    const CInterface& onlyOne = m_interfaces.front();
    aRecord->linkType = onlyOne.linkType;
    aRecord->offset = PCAP_RECORD_HEADER_SIZE;
    aRecord->wireSize = std::max(aRecord->size, Read32(aData + 12));
    aRecord->timeUsec = static_cast<int64_t>(
        Read32(aData) * USEC_PER_SEC + Read32(aData + 4) / (onlyOne.unitsPerSec / USEC_PER_SEC));
    *aTaken = PCAP_RECORD_HEADER_SIZE + aRecord->size;
    return EResult::FRAME;
}

CCaptureReader::EResult CCaptureReader::NextBlock(const unsigned char* aData, uint32_t aSize,
                                                  uint32_t* aTaken, CCaptureRecord* aRecord) {
    if (aSize < BLOCK_FRAME_SIZE) {
        return Need(BLOCK_FRAME_SIZE);
    }
    if (Read32(aData) == SECTION_BLOCK) {
        m_bBigEndian = aData[BLOCK_HEADER_SIZE] == BYTE_ORDER_MAGIC >> 24;
        if (Read32(aData + BLOCK_HEADER_SIZE) != BYTE_ORDER_MAGIC) {
            return Refuse(NO_CAPTURE);
        }
    }
    const uint32_t dwType = Read32(aData);
    const uint32_t dwLength = Read32(aData + 4);
    if (dwLength < BLOCK_FRAME_SIZE || dwLength % 4 != 0) {
        return Refuse("it holds a block of " + std::to_string(dwLength) + " bytes");
    }
    const bool bNeeded = dwType == SECTION_BLOCK || dwType == INTERFACE_BLOCK ||
                         dwType == OLD_PACKET_BLOCK || dwType == SIMPLE_BLOCK ||
                         dwType == PACKET_BLOCK;
    if (!bNeeded) {
        m_ullToSkip = dwLength;
        return EResult::SPACE;
    }
    if (dwLength > MAX_RECORD) {
        return Refuse("it holds a block of " + std::to_string(dwLength) + " bytes");
    }
    if (aSize < dwLength) {
        return Need(dwLength);
    }
    *aTaken = dwLength;
    switch (dwType) {
        case SECTION_BLOCK:
            return ReadSection(aData, dwLength);
        case INTERFACE_BLOCK:
            return ReadInterface(aData, dwLength);
        case SIMPLE_BLOCK:
            return ReadSimpleBlock(aData, dwLength, aRecord);
        case OLD_PACKET_BLOCK:
            return dwLength < PACKET_BLOCK_SIZE
                       ? Refuse(NO_CAPTURE)
                       : ReadPacketBlock(aData, dwLength, Read16(aData + 8), aRecord);
        default:
            return dwLength < PACKET_BLOCK_SIZE
                       ? Refuse(NO_CAPTURE)
                       : ReadPacketBlock(aData, dwLength, Read32(aData + 8), aRecord);
    }
}

CCaptureReader::EResult CCaptureReader::ReadSection(const unsigned char* aBlock, uint32_t aSize) {
    if (aSize < SECTION_BLOCK_SIZE || Read16(aBlock + 12) != 1) {
        return Refuse("it is a pcapng file of a version that is not understood");
    }
    m_interfaces.clear();
    return EResult::SPACE;
}

CCaptureReader::EResult CCaptureReader::ReadInterface(const unsigned char* aBlock, uint32_t aSize) {
    if (aSize < INTERFACE_BLOCK_SIZE || m_interfaces.size() == MAX_INTERFACES) {
        return Refuse("it holds interfaces that are not understood");
    }
    CInterface interface = {Read16(aBlock + 8), Read32(aBlock + 12), USEC_PER_SEC, 0};
    uint32_t dwAt = INTERFACE_BLOCK_SIZE - 4;
    const uint32_t dwEnd = aSize - 4;
    while (dwEnd - dwAt >= 4) {
        const uint16_t wCode = Read16(aBlock + dwAt);
        const uint32_t dwLength = Read16(aBlock + dwAt + 2);
        const unsigned char* pValue = aBlock + dwAt + 4;
        if (wCode == 0 || dwEnd - dwAt - 4 < dwLength) {
            break;
        }
        if (wCode == OPTION_RESOLUTION && dwLength == 1) {
            interface.unitsPerSec = UnitsPerSecond(*pValue);
        } else if (wCode == OPTION_OFFSET && dwLength == 8) {
            const uint64_t ullFirst = Read32(pValue);
            const uint64_t ullSecond = Read32(pValue + 4);
            interface.offsetSeconds = static_cast<int64_t>(
                m_bBigEndian ? ullFirst << 32 | ullSecond : ullSecond << 32 | ullFirst);
        }
        dwAt += 4 + std::min((dwLength + 3) / 4 * 4, dwEnd - dwAt - 4);
    }
    if (interface.unitsPerSec == 0) {
        return Refuse(BAD_TIME);
    }
    m_interfaces.push_back(interface);
    return EResult::SPACE;
}

bool CCaptureReader::SetTime(const CInterface& aInterface, uint64_t aUnits,
                             CCaptureRecord* aRecord) const {
    const uint64_t ullSeconds = aUnits / aInterface.unitsPerSec;
    const uint64_t ullRest = aUnits % aInterface.unitsPerSec;
    if (ullSeconds >= static_cast<uint64_t>(MAX_SECONDS) ||
        aInterface.offsetSeconds <= -MAX_SECONDS || aInterface.offsetSeconds >= MAX_SECONDS) {
        return false;
    }
    const int64_t llSeconds = static_cast<int64_t>(ullSeconds) + aInterface.offsetSeconds;
    if (llSeconds < 0 || llSeconds >= MAX_SECONDS) {
        return false;
    }
    // As a floating number the rest does not overflow, and 53 bits are more than microseconds need.
    const double dRest = static_cast<double>(ullRest) / static_cast<double>(aInterface.unitsPerSec);
    const uint64_t ullUsec =
        aInterface.unitsPerSec <= NSEC_PER_SEC
            ? ullRest * USEC_PER_SEC / aInterface.unitsPerSec
            : std::min(static_cast<uint64_t>(dRest * static_cast<double>(USEC_PER_SEC)),
                       USEC_PER_SEC - 1);
    aRecord->timeUsec =
        llSeconds * static_cast<int64_t>(USEC_PER_SEC) + static_cast<int64_t>(ullUsec);
    return true;
}

CCaptureReader::EResult CCaptureReader::ReadPacketBlock(const unsigned char* aBlock, uint32_t aSize,
                                                        uint32_t aInterface,
                                                        CCaptureRecord* aRecord) {
    aRecord->offset = PACKET_BLOCK_SIZE - 4;
    aRecord->size = Read32(aBlock + 20);
    if (aInterface >= m_interfaces.size() || aRecord->size > aSize - PACKET_BLOCK_SIZE ||
        aRecord->size > MAX_FRAME) {
        return Refuse("it holds a packet whose lengths contradict each other");
    }
    const CInterface& interface = m_interfaces[aInterface];
    aRecord->linkType = interface.linkType;
    aRecord->wireSize = std::max(aRecord->size, Read32(aBlock + 24));
    const uint64_t ullHigh = Read32(aBlock + 12);
    if (!SetTime(interface, ullHigh << 32 | Read32(aBlock + 16), aRecord)) {
        return Refuse(BAD_TIME);
    }
    m_llLastUsec = aRecord->timeUsec;
    return EResult::FRAME;
}

// A simple block has no time of its own; that of the packet before it is the nearest.
CCaptureReader::EResult CCaptureReader::ReadSimpleBlock(const unsigned char* aBlock, uint32_t aSize,
                                                        CCaptureRecord* aRecord) {
    if (aSize < SIMPLE_BLOCK_SIZE || m_interfaces.empty()) {
        return Refuse("it holds a packet whose lengths contradict each other");
    }
    const CInterface& first = m_interfaces.front();
    const uint32_t dwWire = Read32(aBlock + 8);
    aRecord->linkType = first.linkType;
    aRecord->offset = SIMPLE_BLOCK_SIZE - 4;
    aRecord->size = std::min(
        {dwWire, aSize - SIMPLE_BLOCK_SIZE, first.snapLength != 0 ? first.snapLength : MAX_FRAME});
    aRecord->wireSize = dwWire;
    aRecord->timeUsec = m_llLastUsec;
    return EResult::FRAME;
}

}  // namespace rtp_monitor
