#include <pcap/pcap.h>
#include <sys/stat.h>

#include <cstdio>

#include "PacketSource.h"

namespace rtp_monitor {

namespace {

constexpr uint32_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint32_t ETHERTYPE_VLAN = 0x8100;
constexpr uint32_t ETHERTYPE_QINQ = 0x88A8;
constexpr uint32_t ETHERNET_HEADER_SIZE = 14;
constexpr uint32_t VLAN_TAG_SIZE = 4;
constexpr uint32_t NULL_HEADER_SIZE = 4;  // BSD loopback
constexpr unsigned char FAMILY_IPV4 = 2;
constexpr uint32_t SLL_HEADER_SIZE = 16;   // Linux cooked capture
constexpr uint32_t SLL2_HEADER_SIZE = 20;  // its second version
constexpr uint32_t IP_HEADER_SIZE = 20;
constexpr uint32_t UDP_HEADER_SIZE = 8;
constexpr unsigned char PROTOCOL_UDP = 17;
constexpr uint32_t FRAGMENT_MASK = 0x3FFF;  // more fragments, or an offset
constexpr int64_t USEC_PER_SEC = 1000000;

uint32_t Read16(const unsigned char* aData) {
    return static_cast<uint32_t>(aData[0]) << 8 | aData[1];
}

uint32_t Read32(const unsigned char* aData) {
    return Read16(aData) << 16 | Read16(aData + 2);
}

// Where the IPv4 header starts, or a place beyond aSize when the frame holds none.
uint32_t FindIpv4(int aLinkType, const unsigned char* aData, uint32_t aSize) {
    switch (aLinkType) {
        case DLT_EN10MB: {
            uint32_t dwType = ETHERNET_HEADER_SIZE - 2;
            while (dwType + 2 <= aSize && (Read16(aData + dwType) == ETHERTYPE_VLAN ||
                                           Read16(aData + dwType) == ETHERTYPE_QINQ)) {
                dwType += VLAN_TAG_SIZE;
            }
            const bool bIpv4 = dwType + 2 <= aSize && Read16(aData + dwType) == ETHERTYPE_IPV4;
            return bIpv4 ? dwType + 2 : UINT32_MAX;
        }
        case DLT_NULL:  // the address family in the byte order of the host that captured
            return aSize >= NULL_HEADER_SIZE && (aData[0] == FAMILY_IPV4 || aData[3] == FAMILY_IPV4)
                       ? NULL_HEADER_SIZE
                       : UINT32_MAX;
        case DLT_LINUX_SLL:
            return aSize >= SLL_HEADER_SIZE && Read16(aData + 14) == ETHERTYPE_IPV4
                       ? SLL_HEADER_SIZE
                       : UINT32_MAX;
        case DLT_LINUX_SLL2:
            return aSize >= SLL2_HEADER_SIZE && Read16(aData) == ETHERTYPE_IPV4 ? SLL2_HEADER_SIZE
                                                                                : UINT32_MAX;
        default:  // raw IP
            return 0;
    }
}

bool IsKnownLinkType(int aLinkType) {
    return aLinkType == DLT_EN10MB || aLinkType == DLT_NULL || aLinkType == DLT_LINUX_SLL ||
           aLinkType == DLT_LINUX_SLL2 || aLinkType == DLT_RAW || aLinkType == DLT_IPV4;
}

// False when the frame is not one whole UDP packet over IPv4.
bool FindUdp(int aLinkType, const unsigned char* aData, uint32_t aSize, Packet* aPacket) {
    const uint32_t dwIp = FindIpv4(aLinkType, aData, aSize);
    if (dwIp > aSize || aSize - dwIp < IP_HEADER_SIZE || aData[dwIp] >> 4 != 4) {
        return false;
    }
    const unsigned char* pIp = aData + dwIp;
    const uint32_t dwIpHeader = (pIp[0] & 0x0FU) * 4;
    const uint32_t dwTotal = Read16(pIp + 2);
    if (dwIpHeader < IP_HEADER_SIZE || dwTotal < dwIpHeader + UDP_HEADER_SIZE ||
        dwTotal > aSize - dwIp || pIp[9] != PROTOCOL_UDP ||
        (Read16(pIp + 6) & FRAGMENT_MASK) != 0) {
        return false;
    }
    const unsigned char* pUdp = pIp + dwIpHeader;
    const uint32_t dwUdpLength = Read16(pUdp + 4);
    if (dwUdpLength < UDP_HEADER_SIZE || dwUdpLength > dwTotal - dwIpHeader) {
        return false;
    }
    aPacket->key.sourceAddress = Read32(pIp + 12);
    aPacket->key.destinationAddress = Read32(pIp + 16);
    aPacket->key.sourcePort = static_cast<uint16_t>(Read16(pUdp));
    aPacket->key.destinationPort = static_cast<uint16_t>(Read16(pUdp + 2));
    aPacket->data = pUdp + UDP_HEADER_SIZE;
    aPacket->size = dwUdpLength - UDP_HEADER_SIZE;
    return true;
}

class CaptureSource : public PacketSource {
  public:
    CaptureSource(pcap_t* aPcap, long aFileSize)
        : m_pPcap(aPcap), m_nLinkType(pcap_datalink(aPcap)), m_lFileSize(aFileSize) {}
    ~CaptureSource() override { pcap_close(m_pPcap); }

    ReadResult Read(Packet* aPacket) override {
        pcap_pkthdr* pHeader = nullptr;
        const unsigned char* pData = nullptr;
        const int rv = pcap_next_ex(m_pPcap, &pHeader, &pData);
        if (rv == PCAP_ERROR_BREAK) {
            return ReadResult::END;
        }
        if (rv < 0) {
            return ReadResult::FAILED;
        }
        aPacket->arrivalUsec = pHeader->ts.tv_sec * USEC_PER_SEC + pHeader->ts.tv_usec;
        return FindUdp(m_nLinkType, pData, pHeader->caplen, aPacket) ? ReadResult::PACKET
                                                                     : ReadResult::SKIPPED;
    }

    std::string error() const override { return pcap_geterr(m_pPcap); }

    int percent() const override {
        const long lPosition = std::ftell(pcap_file(m_pPcap));
        return m_lFileSize > 0 && lPosition >= 0 ? static_cast<int>(lPosition * 100 / m_lFileSize)
                                                 : -1;
    }

    bool isRecorded() const override { return true; }

  private:
    pcap_t* m_pPcap;
    const int m_nLinkType;
    const long m_lFileSize;
};

}  // namespace

std::unique_ptr<PacketSource> OpenCapture(const std::string& aPath, std::string* aError) {
    struct stat info = {};
    if (stat(aPath.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        *aError = "it is a directory";
        return nullptr;
    }
    char achError[PCAP_ERRBUF_SIZE] = "";
    pcap_t* pPcap = pcap_open_offline(aPath.c_str(), achError);
    if (pPcap == nullptr) {
        *aError = achError;
        return nullptr;
    }
    std::unique_ptr<CaptureSource> source =
        std::make_unique<CaptureSource>(pPcap, static_cast<long>(info.st_size));
    if (!IsKnownLinkType(pcap_datalink(pPcap))) {
        const char* pszName = pcap_datalink_val_to_name(pcap_datalink(pPcap));
        *aError = std::string("it holds frames of a kind that is not understood (") +
                  (pszName != nullptr ? pszName : "no name") + ")";
        return nullptr;
    }
    return source;
}

}  // namespace rtp_monitor
