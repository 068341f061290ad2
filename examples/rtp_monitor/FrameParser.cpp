#include "FrameParser.h"

#include <cstring>

namespace rtp_monitor {

namespace {

// Link types as capture files number them.
constexpr uint32_t LINK_NULL = 0;  // BSD loopback, in the byte order of the host that captured
constexpr uint32_t LINK_ETHERNET = 1;
constexpr uint32_t LINK_RAW_BSD = 12;
constexpr uint32_t LINK_RAW_OPENBSD = 14;
constexpr uint32_t LINK_RAW = 101;
constexpr uint32_t LINK_LOOP = 108;  // OpenBSD loopback
constexpr uint32_t LINK_SLL = 113;   // Linux cooked capture
constexpr uint32_t LINK_IPV4 = 228;
constexpr uint32_t LINK_IPV6 = 229;
constexpr uint32_t LINK_SLL2 = 276;  // its second version

constexpr uint32_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint32_t ETHERTYPE_IPV6 = 0x86DD;
constexpr uint32_t ETHERTYPE_VLAN = 0x8100;
constexpr uint32_t ETHERTYPE_QINQ = 0x88A8;
constexpr uint32_t ETHERTYPE_SIZE = 2;
constexpr uint32_t ETHERNET_TYPE_OFFSET = 12;
constexpr uint32_t VLAN_TAG_SIZE = 4;
constexpr uint32_t LOOPBACK_HEADER_SIZE = 4;
constexpr uint32_t SLL_TYPE_OFFSET = 14;
constexpr uint32_t SLL2_HEADER_SIZE = 20;

constexpr uint32_t IPV4_HEADER_SIZE = 20;
constexpr uint32_t IPV6_HEADER_SIZE = 40;
constexpr uint32_t IPV6_EXTENSION_UNIT = 8;  // bytes
constexpr uint32_t UDP_HEADER_SIZE = 8;
constexpr uint32_t IPV4_OFFSET_MASK = 0x1FFF;
constexpr uint32_t IPV4_MORE_FRAGMENTS = 0x2000;
constexpr uint32_t IPV6_OFFSET_MASK = 0xFFF8;
constexpr uint32_t IPV6_MORE_FRAGMENTS = 0x0001;

enum EProtocol : unsigned {
    HOP_BY_HOP = 0,
    TCP = 6,
    UDP = 17,
    ROUTING = 43,
    FRAGMENT_HEADER = 44,
    ICMPV6 = 58,
    DESTINATION_OPTIONS = 60,
    SCTP = 132,
};

uint32_t Read16(const unsigned char* aData) {
    return static_cast<uint32_t>(aData[0]) << 8 | aData[1];
}

// A frame and how far it has been read. Every size that a header states is compared with wireSize
// before it is used, and every byte with size before it is read.
struct CCursor {
    const unsigned char* data;
    uint32_t size;
    uint32_t wireSize;
    uint32_t at = 0;

    bool Has(uint32_t aCount) const { return at <= size && size - at >= aCount; }
    // Why a header of aCount bytes is not there.
    EFrame WhyNot(uint32_t aCount) const {
        return at <= wireSize && wireSize - at >= aCount ? EFrame::CUT_OFF : EFrame::MALFORMED;
    }
    const unsigned char* here() const { return data + at; }
};

// An ethertype at the cursor, after any number of tags. UDP: go on.
EFrame SkipEthertype(CCursor* aCursor) {
    while (true) {
        if (!aCursor->Has(ETHERTYPE_SIZE)) {
            return aCursor->WhyNot(ETHERTYPE_SIZE);
        }
        const uint32_t dwType = Read16(aCursor->here());
        if (dwType != ETHERTYPE_VLAN && dwType != ETHERTYPE_QINQ) {
            aCursor->at += ETHERTYPE_SIZE;
            return dwType == ETHERTYPE_IPV4 || dwType == ETHERTYPE_IPV6 ? EFrame::UDP
                                                                        : EFrame::NOT_IP;
        }
        aCursor->at += VLAN_TAG_SIZE;
    }
}

// The address family of a loopback header: 2 is IPv4 everywhere, IPv6 is a different number on
// every system.
bool IsIpFamily(const unsigned char* aHeader) {
    for (const unsigned byFamily : {2U, 10U, 24U, 28U, 30U}) {
        if (aHeader[0] == byFamily || aHeader[3] == byFamily) {
            return true;
        }
    }
    return false;
}

// Moves the cursor to the IP header. UDP: go on.
EFrame SkipLinkHeader(uint32_t aLinkType, CCursor* aCursor) {
    switch (aLinkType) {
        case LINK_ETHERNET:
            aCursor->at = ETHERNET_TYPE_OFFSET;
            return SkipEthertype(aCursor);
        case LINK_SLL:
            aCursor->at = SLL_TYPE_OFFSET;
            return SkipEthertype(aCursor);
        case LINK_SLL2: {
            if (!aCursor->Has(SLL2_HEADER_SIZE)) {
                return aCursor->WhyNot(SLL2_HEADER_SIZE);
            }
            const EFrame frame = SkipEthertype(aCursor);
            aCursor->at = SLL2_HEADER_SIZE;
            return frame;
        }
        case LINK_NULL:
        case LINK_LOOP:
            if (!aCursor->Has(LOOPBACK_HEADER_SIZE)) {
                return aCursor->WhyNot(LOOPBACK_HEADER_SIZE);
            }
            aCursor->at = LOOPBACK_HEADER_SIZE;
            return IsIpFamily(aCursor->data) ? EFrame::UDP : EFrame::NOT_IP;
        case LINK_RAW:
        case LINK_RAW_BSD:
        case LINK_RAW_OPENBSD:
        case LINK_IPV4:
        case LINK_IPV6:
            return EFrame::UDP;
        default:
            return EFrame::OTHER_LINK_TYPE;
    }
}

// What follows the IP headers, up to the end that they state.
EFrame ReadUdp(CCursor aCursor, uint32_t aEnd, bool aIsFirstFragment, CUdpPacket* aPacket) {
    if (aEnd < aCursor.at + UDP_HEADER_SIZE) {
        return aIsFirstFragment ? EFrame::FRAGMENT : EFrame::MALFORMED;
    }
    if (!aCursor.Has(UDP_HEADER_SIZE)) {
        return EFrame::CUT_OFF;
    }
    const unsigned char* pUdp = aCursor.here();
    const uint32_t dwLength = Read16(pUdp + 4);
    // The length is that of the packet as a whole, of which a first fragment has the first part.
    if (dwLength < UDP_HEADER_SIZE || (!aIsFirstFragment && dwLength > aEnd - aCursor.at)) {
        return EFrame::MALFORMED;
    }
    aPacket->key.sourcePort = static_cast<uint16_t>(Read16(pUdp));
    aPacket->key.destinationPort = static_cast<uint16_t>(Read16(pUdp + 2));
    aPacket->offset = aCursor.at + UDP_HEADER_SIZE;
    aPacket->wireSize = dwLength - UDP_HEADER_SIZE;
    uint32_t dwThere = (aEnd < aCursor.size ? aEnd : aCursor.size) - aPacket->offset;
    aPacket->size = dwThere < aPacket->wireSize ? dwThere : aPacket->wireSize;
    return EFrame::UDP;
}

EFrame ReadIpv4(CCursor aCursor, CUdpPacket* aPacket) {
    if (!aCursor.Has(IPV4_HEADER_SIZE)) {
        return aCursor.WhyNot(IPV4_HEADER_SIZE);
    }
    const unsigned char* pIp = aCursor.here();
    const uint32_t dwHeader = (pIp[0] & 0x0FU) * 4;
    const uint32_t dwOnWire = aCursor.wireSize - aCursor.at;
    // A network card that cuts large packets itself is captured with a length of zero.
    const uint32_t dwTotal = Read16(pIp + 2) != 0 ? Read16(pIp + 2) : dwOnWire;
    if (dwHeader < IPV4_HEADER_SIZE || dwTotal < dwHeader || dwTotal > dwOnWire) {
        return EFrame::MALFORMED;
    }
    if (pIp[9] != UDP) {
        return EFrame::NOT_UDP;
    }
    const uint32_t dwFragment = Read16(pIp + 6);
    if ((dwFragment & IPV4_OFFSET_MASK) != 0) {
        return EFrame::FRAGMENT;
    }
    aPacket->key = CStreamKey();
    aPacket->key.ipVersion = 4;
    std::memcpy(aPacket->key.source.data(), pIp + 12, 4);
    std::memcpy(aPacket->key.destination.data(), pIp + 16, 4);
    const uint32_t dwEnd = aCursor.at + dwTotal;
    aCursor.at += dwHeader;
    return ReadUdp(aCursor, dwEnd, (dwFragment & IPV4_MORE_FRAGMENTS) != 0, aPacket);
}

EFrame ReadIpv6(CCursor aCursor, CUdpPacket* aPacket) {
    if (!aCursor.Has(IPV6_HEADER_SIZE)) {
        return aCursor.WhyNot(IPV6_HEADER_SIZE);
    }
    const unsigned char* pIp = aCursor.here();
    const uint32_t dwPayload = Read16(pIp + 4);
    if (dwPayload > aCursor.wireSize - aCursor.at - IPV6_HEADER_SIZE) {
        return EFrame::MALFORMED;
    }
    aPacket->key = CStreamKey();
    aPacket->key.ipVersion = 6;
    std::memcpy(aPacket->key.source.data(), pIp + 8, 16);
    std::memcpy(aPacket->key.destination.data(), pIp + 24, 16);
    unsigned byNext = pIp[6];
    bool bFirstFragment = false;
    aCursor.at += IPV6_HEADER_SIZE;
    const uint32_t dwEnd = aCursor.at + dwPayload;
    while (byNext == HOP_BY_HOP || byNext == ROUTING || byNext == DESTINATION_OPTIONS ||
           byNext == FRAGMENT_HEADER) {
        if (dwEnd < aCursor.at + IPV6_EXTENSION_UNIT) {
            return bFirstFragment ? EFrame::FRAGMENT : EFrame::MALFORMED;
        }
        if (!aCursor.Has(IPV6_EXTENSION_UNIT)) {
            return EFrame::CUT_OFF;
        }
        const unsigned char* pExtension = aCursor.here();
        uint32_t dwUnits = 1;
        if (byNext == FRAGMENT_HEADER) {
            const uint32_t dwFragment = Read16(pExtension + 2);
            if ((dwFragment & IPV6_OFFSET_MASK) != 0) {
                return EFrame::FRAGMENT;
            }
            bFirstFragment = (dwFragment & IPV6_MORE_FRAGMENTS) != 0;
        } else {
            dwUnits += pExtension[1];
        }
        byNext = pExtension[0];
        aCursor.at += dwUnits * IPV6_EXTENSION_UNIT;
    }
    if (byNext == UDP) {
        return ReadUdp(aCursor, dwEnd, bFirstFragment, aPacket);
    }
    return byNext == TCP || byNext == ICMPV6 || byNext == SCTP ? EFrame::NOT_UDP
                                                               : EFrame::IPV6_NOT_READ;
}

}  // namespace

EFrame FindUdp(uint32_t aLinkType, const unsigned char* aData, uint32_t aSize, uint32_t aWireSize,
               CUdpPacket* aPacket) {
    CCursor cursor = {aData, aSize, aWireSize};
    const EFrame frame = SkipLinkHeader(aLinkType, &cursor);
    if (frame != EFrame::UDP) {
        return frame;
    }
    if (!cursor.Has(1)) {
        return cursor.WhyNot(1);
    }
    switch (*cursor.here() >> 4) {
        case 4:
            return ReadIpv4(cursor, aPacket);
        case 6:
            return ReadIpv6(cursor, aPacket);
        default:
            return EFrame::MALFORMED;
    }
}

}  // namespace rtp_monitor
