#include "CmStrict.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "CmAscii.h"
#include "CmStrictResult.h"
#include "CmSystem.h"

namespace UTIL_NS {

namespace {

constexpr char A_PORT[] = "a port from 0 to 65535";
constexpr char A_ZONE[] = "a zone of 1 to 15 letters, digits, \"-\", \".\", \"_\" and \"~\"";
constexpr size_t MAX_PORT_DIGITS = 5;
constexpr size_t GROUPS = 8;  // of an IPv6 address, 16 bits each
constexpr size_t IPV4_BYTES = 4;

// Four octets from aAt to the end of the text.
CCmParsed TakeOctets(std::string_view aText, size_t aAt, uint8_t* aBytes) {
    size_t nAt = aAt;
    for (size_t i = 0; i < IPV4_BYTES; ++i) {
        if (i > 0) {
            if (nAt == aText.size() || aText[nAt] != '.') {
                return CmRefused(nAt, "a dot");
            }
            ++nAt;
        }
        const size_t nStart = nAt;
        unsigned dwOctet = 0;
        while (nAt < aText.size() && CmIsDigit(aText[nAt])) {
            dwOctet = dwOctet * 10 + static_cast<unsigned>(aText[nAt] - '0');
            if (dwOctet > 255 || (nAt > nStart && aText[nStart] == '0')) {
                return CmRefused(nStart, "a number up to 255 without leading zeros");
            }
            ++nAt;
        }
        if (nAt == nStart) {
            return CmRefused(nAt, "a digit");
        }
        aBytes[i] = static_cast<uint8_t>(dwOctet);
    }
    return nAt == aText.size() ? CCmParsed() : CmRefused(nAt, "the end of the address");
}

// The groups of an IPv6 address, without a zone.
class CGroups {
  public:
    explicit CGroups(std::string_view aText) : m_text(aText) {}

    CCmParsed Take(std::array<uint8_t, 16>& aBytes) {
        if (m_text.substr(0, 2) == "::") {
            m_nGap = 0;
            m_nAt = 2;
        }
        bool bMore = m_nAt < m_text.size() || m_nGap == NO_GAP;
        while (bMore) {
            const CCmParsed parsed = TakeOne();
            if (!parsed) {
                return parsed;
            }
            bMore = m_nAt < m_text.size();
        }
        if (m_nGap == NO_GAP ? m_nBytes != m_bytes.size() : m_nBytes >= m_bytes.size()) {
            return CmRefused(m_nAt, "eight groups");
        }
        Spread(aBytes);
        return CCmParsed();
    }

  private:
    static constexpr size_t NO_GAP = 99;

    bool Has(size_t aAt, char aChar) const { return aAt < m_text.size() && m_text[aAt] == aChar; }

    // A group and the colon or the gap after it, or the dotted end.
    CCmParsed TakeOne() {
        const size_t nStart = m_nAt;
        unsigned dwGroup = 0;
        while (m_nAt < m_text.size() && m_nAt - nStart < 4 && CmHexValue(m_text[m_nAt]) >= 0) {
            dwGroup = dwGroup << 4 | static_cast<unsigned>(CmHexValue(m_text[m_nAt++]));
        }
        if (m_nAt == nStart) {
            return CmRefused(m_nAt, "a hexadecimal digit");
        }
        if (Has(m_nAt, '.')) {
            return TakeDotted(nStart);
        }
        if (m_nBytes == m_bytes.size()) {
            return CmRefused(nStart, "eight groups");
        }
        m_bytes[m_nBytes++] = static_cast<uint8_t>(dwGroup >> 8);
        m_bytes[m_nBytes++] = static_cast<uint8_t>(dwGroup);
        return m_nAt == m_text.size() ? CCmParsed() : TakeColon();
    }

    CCmParsed TakeColon() {
        if (m_text[m_nAt] != ':') {
            return CmRefused(m_nAt, "a colon");
        }
        ++m_nAt;
        if (Has(m_nAt, ':')) {
            if (m_nGap != NO_GAP) {
                return CmRefused(m_nAt, "a hexadecimal digit");
            }
            m_nGap = m_nBytes;
            ++m_nAt;
        } else if (m_nAt == m_text.size()) {
            return CmRefused(m_nAt, "a hexadecimal digit");
        }
        return CCmParsed();
    }

    CCmParsed TakeDotted(size_t aStart) {
        if (m_nBytes + IPV4_BYTES > m_bytes.size()) {
            return CmRefused(m_nAt, "a colon");
        }
        const CCmParsed parsed = TakeOctets(m_text, aStart, &m_bytes[m_nBytes]);
        if (parsed) {
            m_nBytes += IPV4_BYTES;
            m_nAt = m_text.size();
        }
        return parsed;
    }

    // What follows the gap goes to the end.
    void Spread(std::array<uint8_t, 16>& aBytes) const {
        const size_t nHead = m_nGap == NO_GAP ? m_nBytes : m_nGap;
        aBytes.fill(0);
        std::copy_n(m_bytes.begin(), nHead, aBytes.begin());
        std::copy_backward(m_bytes.begin() + nHead, m_bytes.begin() + m_nBytes, aBytes.end());
    }

    const std::string_view m_text;
    size_t m_nAt = 0;
    std::array<uint8_t, 16> m_bytes{};
    size_t m_nBytes = 0;
    size_t m_nGap = NO_GAP;  // bytes before "::"
};

CCmParsed TakeZone(std::string_view aZone, CCmIpAddress& aAddress) {
    size_t nAt = 0;
    while (nAt < aZone.size() && CmIsUnreserved(aZone[nAt])) {
        ++nAt;
    }
    if (nAt != aZone.size() || aZone.empty() || aZone.size() > CCmIpAddress::MAX_ZONE) {
        return CmRefused(std::min(nAt, CCmIpAddress::MAX_ZONE), A_ZONE);
    }
    std::copy(aZone.begin(), aZone.end(), aAddress.m_achZone.begin());
    return CCmParsed();
}

// Writes texts into a buffer that is large enough for them.
class CPrinter {
  public:
    explicit CPrinter(char (&aBuffer)[CM_IP_PRINTED_SIZE]) : m_pBuffer(aBuffer), m_pNext(aBuffer) {}

    void Put(char aChar) { *m_pNext++ = aChar; }
    void Put(std::string_view aText) { m_pNext = std::copy(aText.begin(), aText.end(), m_pNext); }
    // Without leading zeros.
    void PutNumber(unsigned aNumber, unsigned aBase) {
        char achDigits[12];
        size_t nDigits = 0;
        do {
            achDigits[nDigits++] = "0123456789abcdef"[aNumber % aBase];
            aNumber /= aBase;
        } while (aNumber != 0);
        while (nDigits > 0) {
            Put(achDigits[--nDigits]);
        }
    }
    std::string_view Finish() {
        *m_pNext = '\0';
        return std::string_view(m_pBuffer, static_cast<size_t>(m_pNext - m_pBuffer));
    }

  private:
    char* const m_pBuffer;
    char* m_pNext;
};

void PrintOctets(CPrinter& aPrinter, const uint8_t* aBytes) {
    for (size_t i = 0; i < IPV4_BYTES; ++i) {
        if (i > 0) {
            aPrinter.Put('.');
        }
        aPrinter.PutNumber(aBytes[i], 10);
    }
}

// The longest run of zero groups, the first of several; runs of one group are none.
void FindGap(const uint16_t (&aGroups)[GROUPS], size_t& aStart, size_t& aLength) {
    aStart = GROUPS;
    aLength = 1;
    for (size_t i = 0; i < GROUPS;) {
        size_t nEnd = i;
        while (nEnd < GROUPS && aGroups[nEnd] == 0) {
            ++nEnd;
        }
        if (nEnd - i > aLength) {
            aStart = i;
            aLength = nEnd - i;
        }
        i = nEnd + 1;
    }
}

void PrintIpv6(CPrinter& aPrinter, const CCmIpAddress& aAddress) {
    // Known to hold an IPv4 address: printed so (RFC 5952, 5).
    constexpr uint8_t MAPPED[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    const uint8_t* pBytes = aAddress.m_abyBytes.data();
    if (std::equal(std::begin(MAPPED), std::end(MAPPED), pBytes)) {
        aPrinter.Put("::ffff:");
        PrintOctets(aPrinter, pBytes + sizeof(MAPPED));
    } else {
        uint16_t groups[GROUPS];
        for (size_t i = 0; i < GROUPS; ++i) {
            groups[i] = static_cast<uint16_t>(pBytes[2 * i] << 8 | pBytes[2 * i + 1]);
        }
        size_t nGap = 0;
        size_t nLength = 0;
        FindGap(groups, nGap, nLength);
        for (size_t i = 0; i < GROUPS;) {
            if (i == nGap) {
                aPrinter.Put("::");
                i += nLength;
                continue;
            }
            if (i > 0 && i != nGap + nLength) {
                aPrinter.Put(':');
            }
            aPrinter.PutNumber(groups[i], 16);
            ++i;
        }
    }
    if (aAddress.m_achZone[0] != '\0') {
        aPrinter.Put('%');
        aPrinter.Put(std::string_view(aAddress.m_achZone.data(),
                                      strnlen(aAddress.m_achZone.data(), CCmIpAddress::MAX_ZONE)));
    }
}

void PrintAddress(CPrinter& aPrinter, const CCmIpAddress& aAddress) {
    if (aAddress.m_family == CCmIpAddress::IPV4) {
        PrintOctets(aPrinter, aAddress.m_abyBytes.data());
    } else if (aAddress.m_family == CCmIpAddress::IPV6) {
        PrintIpv6(aPrinter, aAddress);
    }
}

// A zone's number: the zone itself if it is one, else that of the interface of this name.
CmResult ScopeOf(const CCmIpAddress& aAddress, uint32_t& aScope) {
    const std::string_view zone(aAddress.m_achZone.data(),
                                strnlen(aAddress.m_achZone.data(), CCmIpAddress::MAX_ZONE));
    aScope = 0;
    if (zone.empty() || CmParseNumber(zone, aScope)) {
        return CM_OK;
    }
    char szName[CCmIpAddress::MAX_ZONE + 1] = "";
    std::copy(zone.begin(), zone.end(), szName);
    aScope = g_cmSystem.if_nametoindex(szName);
    return aScope != 0 ? CM_OK : CM_ERROR_NOT_FOUND;
}

}  // namespace

CCmParsed CmParseIpv6With(std::string_view aText, std::string_view aZoneMark,
                          CCmIpAddress& aAddress) {
    CCmIpAddress address;
    address.m_family = CCmIpAddress::IPV6;
    const size_t nMark = aText.find('%');
    const std::string_view groups = aText.substr(0, nMark);
    const CCmParsed parsed = CGroups(groups).Take(address.m_abyBytes);
    if (!parsed) {
        return parsed;
    }
    if (nMark != aText.npos) {
        if (aText.substr(nMark, aZoneMark.size()) != aZoneMark) {
            return CmRefused(nMark, "\"%25\" before the zone");
        }
        const size_t nZone = nMark + aZoneMark.size();
        const CCmParsed zone = CmFrom(nZone, TakeZone(aText.substr(nZone), address));
        if (!zone) {
            return zone;
        }
    }
    aAddress = address;
    return CCmParsed();
}

CCmParsed CmParseIpv4(std::string_view aText, CCmIpAddress& aAddress) {
    CCmIpAddress address;
    address.m_family = CCmIpAddress::IPV4;
    const CCmParsed parsed = TakeOctets(aText, 0, address.m_abyBytes.data());
    if (parsed) {
        aAddress = address;
    }
    return parsed;
}

CCmParsed CmParseIpv6(std::string_view aText, CCmIpAddress& aAddress) {
    return CmParseIpv6With(aText, "%", aAddress);
}

CCmParsed CmParseIpAddress(std::string_view aText, CCmIpAddress& aAddress) {
    return aText.find(':') != aText.npos ? CmParseIpv6(aText, aAddress)
                                         : CmParseIpv4(aText, aAddress);
}

CCmParsed CmParsePort(std::string_view aText, uint16_t& aPort) {
    uint64_t ullPort = 0;
    CCmParsed parsed = CmParseUnsigned(aText, ullPort, 0, UINT16_MAX);
    if (parsed && aText.size() > MAX_PORT_DIGITS) {
        parsed = CmRefused(MAX_PORT_DIGITS, A_PORT);
    }
    if (!parsed) {
        parsed.m_pszExpected = A_PORT;
        return parsed;
    }
    aPort = static_cast<uint16_t>(ullPort);
    return parsed;
}

CCmParsed CmParseEndpoint(std::string_view aText, CCmEndpoint& aEndpoint) {
    const bool bBracket = !aText.empty() && aText.front() == '[';
    const size_t nStart = bBracket ? 1 : 0;
    const size_t nEnd = std::min(aText.find(bBracket ? ']' : ':'), aText.size());
    CCmEndpoint endpoint;
    const std::string_view address = aText.substr(nStart, nEnd - nStart);
    CCmParsed parsed = CmFrom(nStart, bBracket ? CmParseIpv6(address, endpoint.m_address)
                                               : CmParseIpv4(address, endpoint.m_address));
    if (!parsed) {
        return parsed;
    }
    if (bBracket && nEnd == aText.size()) {
        return CmRefused(nEnd, "a \"]\"");
    }
    const size_t nColon = nEnd + nStart;  // the bracket lies between
    if (nColon >= aText.size() || aText[nColon] != ':') {
        return CmRefused(nColon, "a colon and a port");
    }
    parsed = CmFrom(nColon + 1, CmParsePort(aText.substr(nColon + 1), endpoint.m_wPort));
    if (parsed) {
        aEndpoint = endpoint;
    }
    return parsed;
}

std::string_view CmPrint(const CCmIpAddress& aAddress, char (&aBuffer)[CM_IP_PRINTED_SIZE]) {
    CPrinter printer(aBuffer);
    PrintAddress(printer, aAddress);
    return printer.Finish();
}

std::string_view CmPrint(const CCmEndpoint& aEndpoint, char (&aBuffer)[CM_IP_PRINTED_SIZE]) {
    CPrinter printer(aBuffer);
    const bool bBrackets = aEndpoint.m_address.m_family == CCmIpAddress::IPV6;
    if (aEndpoint.m_address.m_family != CCmIpAddress::NONE) {
        printer.Put(bBrackets ? "[" : "");
        PrintAddress(printer, aEndpoint.m_address);
        printer.Put(bBrackets ? "]:" : ":");
        printer.PutNumber(aEndpoint.m_wPort, 10);
    }
    return printer.Finish();
}

CmResult CmToSocketAddress(const CCmEndpoint& aEndpoint, sockaddr_storage& aStorage,
                           socklen_t& aLength) {
    const CCmIpAddress& address = aEndpoint.m_address;
    sockaddr_storage storage = {};
    if (address.m_family == CCmIpAddress::IPV4) {
        sockaddr_in ipv4 = {};
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(aEndpoint.m_wPort);
        std::memcpy(&ipv4.sin_addr, address.m_abyBytes.data(), sizeof(ipv4.sin_addr));
        std::memcpy(&storage, &ipv4, sizeof(ipv4));
        aLength = sizeof(ipv4);
    } else if (address.m_family == CCmIpAddress::IPV6) {
        sockaddr_in6 ipv6 = {};
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(aEndpoint.m_wPort);
        std::memcpy(&ipv6.sin6_addr, address.m_abyBytes.data(), sizeof(ipv6.sin6_addr));
        const CmResult rv = ScopeOf(address, ipv6.sin6_scope_id);
        if (CM_FAILED(rv)) {
            return rv;
        }
        std::memcpy(&storage, &ipv6, sizeof(ipv6));
        aLength = sizeof(ipv6);
    } else {
        return CM_ERROR_INVALID_ARG;
    }
    aStorage = storage;
    return CM_OK;
}

CmResult CmFromSocketAddress(const sockaddr* aAddress, socklen_t aLength, CCmEndpoint& aEndpoint) {
    CCmEndpoint endpoint;
    CCmIpAddress& address = endpoint.m_address;
    if (aAddress != nullptr && aLength >= sizeof(sockaddr_in) && aAddress->sa_family == AF_INET) {
        sockaddr_in ipv4;
        std::memcpy(&ipv4, aAddress, sizeof(ipv4));
        address.m_family = CCmIpAddress::IPV4;
        std::memcpy(address.m_abyBytes.data(), &ipv4.sin_addr, sizeof(ipv4.sin_addr));
        endpoint.m_wPort = ntohs(ipv4.sin_port);
    } else if (aAddress != nullptr && aLength >= sizeof(sockaddr_in6) &&
               aAddress->sa_family == AF_INET6) {
        sockaddr_in6 ipv6;
        std::memcpy(&ipv6, aAddress, sizeof(ipv6));
        address.m_family = CCmIpAddress::IPV6;
        std::memcpy(address.m_abyBytes.data(), &ipv6.sin6_addr, sizeof(ipv6.sin6_addr));
        endpoint.m_wPort = ntohs(ipv6.sin6_port);
        if (ipv6.sin6_scope_id != 0) {
            char achZone[CM_IP_PRINTED_SIZE];
            CPrinter printer(achZone);
            printer.PutNumber(ipv6.sin6_scope_id, 10);
            const std::string_view zone = printer.Finish();
            std::copy(zone.begin(), zone.end(), address.m_achZone.begin());
        }
    } else {
        return CM_ERROR_INVALID_ARG;
    }
    aEndpoint = endpoint;
    return CM_OK;
}

}  // namespace UTIL_NS
