#include "RtpPacket.h"

namespace rtp_monitor {

namespace {

constexpr size_t FIXED_HEADER_SIZE = 12;  // bytes
constexpr size_t EXTENSION_HEADER_SIZE = 4;
constexpr size_t WORD_SIZE = 4;
constexpr unsigned RTP_VERSION = 2;

// The second byte of RTCP packets (RFC 5761, section 4); as RTP it would be payload types 64 to 95
// with the marker set, which senders keep free for that reason.
constexpr unsigned FIRST_RTCP_TYPE = 192;
constexpr unsigned LAST_RTCP_TYPE = 223;

uint16_t Read16(const unsigned char* aData) {
    return static_cast<uint16_t>(aData[0] << 8 | aData[1]);
}

uint32_t Read32(const unsigned char* aData) {
    return static_cast<uint32_t>(Read16(aData)) << 16 | Read16(aData + 2);
}

}  // namespace

EPacketKind ParsePacket(const unsigned char* aData, size_t aSize, size_t aWireSize,
                        CRtpHeader* aHeader) {
    const EPacketKind tooShort = aSize < aWireSize ? EPacketKind::CUT_OFF : EPacketKind::OTHER;
    if (aSize < WORD_SIZE) {
        return tooShort;
    }
    if (aData[0] >> 6 != RTP_VERSION) {
        return EPacketKind::OTHER;
    }
    if (aData[1] >= FIRST_RTCP_TYPE && aData[1] <= LAST_RTCP_TYPE) {
        return EPacketKind::RTCP;
    }
    if (aSize < FIXED_HEADER_SIZE) {
        return tooShort;
    }
    const bool bPadding = (aData[0] & 0x20) != 0;
    const bool bExtension = (aData[0] & 0x10) != 0;
    const size_t nSources = aData[0] & 0x0F;
    size_t nHeader = FIXED_HEADER_SIZE + nSources * WORD_SIZE;
    if (bExtension) {
        nHeader += EXTENSION_HEADER_SIZE;
        if (aSize >= nHeader) {
            nHeader += Read16(aData + nHeader - 2) * WORD_SIZE;
        }
    }
    if (aWireSize < nHeader) {
        return EPacketKind::OTHER;
    }
    size_t nPadding = 0;
    if (bPadding && aSize == aWireSize) {
        nPadding = aData[aSize - 1];
        if (nPadding == 0 || nPadding > aSize - nHeader) {
            return EPacketKind::OTHER;
        }
    }
    aHeader->payloadType = aData[1] & 0x7F;
    aHeader->marker = (aData[1] & 0x80) != 0;
    aHeader->sequence = Read16(aData + 2);
    aHeader->timestamp = Read32(aData + 4);
    aHeader->ssrc = Read32(aData + 8);
    aHeader->payloadSize = static_cast<uint32_t>(aWireSize - nHeader - nPadding);
    return EPacketKind::RTP;
}

uint32_t StaticClockRate(uint8_t aPayloadType) {
    switch (aPayloadType) {
        case 0:   // PCMU
        case 3:   // GSM
        case 4:   // G723
        case 5:   // DVI4
        case 7:   // LPC
        case 8:   // PCMA
        case 9:   // G722, whose clock is 8000 by assignment
        case 12:  // QCELP
        case 13:  // CN
        case 15:  // G728
        case 18:  // G729
            return 8000;
        case 6:  // DVI4
            return 16000;
        case 16:  // DVI4
            return 11025;
        case 17:  // DVI4
            return 22050;
        case 10:  // L16, two channels
        case 11:  // L16
            return 44100;
        case 14:  // MPA
        case 25:  // CelB
        case 26:  // JPEG
        case 28:  // nv
        case 31:  // H261
        case 32:  // MPV
        case 33:  // MP2T
        case 34:  // H263
            return 90000;
        default:
            return 0;
    }
}

}  // namespace rtp_monitor
