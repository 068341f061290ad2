#include "StreamKey.h"

#include <cstring>
#include <tuple>
#include <type_traits>

#include "CmStrict.h"

namespace rtp_monitor {

namespace {

static_assert(std::has_unique_object_representations_v<CStreamKey>, "compared as bytes");

auto AsTuple(const CStreamKey& aKey) {
    return std::tie(aKey.ipVersion, aKey.source, aKey.sourcePort, aKey.destination,
                    aKey.destinationPort, aKey.ssrc);
}

std::string FormatEndpoint(const CStreamKey& aKey, const std::array<uint8_t, 16>& aAddress,
                           uint16_t aPort) {
    UTIL_NS::CCmEndpoint endpoint;
    endpoint.m_address.m_family =
        aKey.ipVersion == 6 ? UTIL_NS::CCmIpAddress::IPV6 : UTIL_NS::CCmIpAddress::IPV4;
    endpoint.m_address.m_abyBytes = aAddress;
    endpoint.m_wPort = aPort;
    char szText[UTIL_NS::CM_IP_PRINTED_SIZE];
    return std::string(UTIL_NS::CmPrint(endpoint, szText));
}

}  // namespace

bool CStreamKey::operator==(const CStreamKey& aRight) const {
    return std::memcmp(this, &aRight, sizeof(*this)) == 0;
}

bool CStreamKey::operator<(const CStreamKey& aRight) const {
    return AsTuple(*this) < AsTuple(aRight);
}

size_t CStreamKeyHash::operator()(const CStreamKey& aKey) const {
    uint32_t words[sizeof(aKey) / sizeof(uint32_t)];
    std::memcpy(words, &aKey, sizeof(aKey));
    uint64_t ullHash = 0;
    for (const uint32_t dwWord : words) {
        ullHash = (ullHash ^ dwWord) * 0x9E3779B97F4A7C15ULL;  // spreads neighbours over all bits
        ullHash ^= ullHash >> 32;
    }
    return static_cast<size_t>(ullHash);
}

std::string FormatSource(const CStreamKey& aKey) {
    return FormatEndpoint(aKey, aKey.source, aKey.sourcePort);
}

std::string FormatDestination(const CStreamKey& aKey) {
    return FormatEndpoint(aKey, aKey.destination, aKey.destinationPort);
}

}  // namespace rtp_monitor
