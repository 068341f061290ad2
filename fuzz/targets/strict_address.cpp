// Strict addresses, ports and endpoints, against inet_pton and inet_ntop.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "../Fuzz.h"
#include "CmStrict.h"
#include "CmSystem.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

std::string Printed(const CCmIpAddress& aAddress) {
    char achPrinted[CM_IP_PRINTED_SIZE];
    return std::string(CmPrint(aAddress, achPrinted));
}

void CompareIpv4(const std::string& aText) {
    CCmIpAddress address;
    uint8_t abyTheirs[4];
    const bool bTheirs =
        aText.find('\0') == std::string::npos && inet_pton(AF_INET, aText.c_str(), abyTheirs) == 1;
    const CCmParsed parsed = CmParseIpv4(aText, address);
    Require(bTheirs == static_cast<bool>(parsed), "good IPv4 addresses");
    Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
    if (parsed) {
        Require(std::equal(abyTheirs, abyTheirs + 4, address.m_abyBytes.begin()), "the address");
        Require(Printed(address) == aText, "there is one form only");
    }
}

// inet_pton takes no zones.
void CompareIpv6(const std::string& aText) {
    CCmIpAddress address;
    uint8_t abyTheirs[16];
    const size_t nZone = aText.find('%');
    const std::string sGroups = aText.substr(0, nZone);
    const std::string sZone = nZone == std::string::npos ? "" : aText.substr(nZone + 1);
    const bool bZone = nZone == std::string::npos ||
                       (!sZone.empty() && sZone.size() <= 15 &&
                        sZone.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWX"
                                                "YZ0123456789-._~") == std::string::npos);
    const bool bTheirs = sGroups.find('\0') == std::string::npos &&
                         inet_pton(AF_INET6, sGroups.c_str(), abyTheirs) == 1;
    const CCmParsed parsed = CmParseIpv6(aText, address);
    Require((bTheirs && bZone) == static_cast<bool>(parsed), "good IPv6 addresses");
    Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
    if (!parsed) {
        return;
    }
    Require(std::equal(abyTheirs, abyTheirs + 16, address.m_abyBytes.begin()), "the address");
    Require(sZone == address.m_achZone.data(), "the zone");
    const std::string sPrinted = Printed(address);
    CCmIpAddress again;
    Require(CmParseIpv6(sPrinted, again) && again == address, "printed and read again");
    Require(sPrinted.size() < CM_IP_PRINTED_SIZE, "it fits");
    // ::a.b.c.d is deprecated (RFC 4291, 2.5.5.1), so that it is printed as any other address.
    const bool bCompatible =
        std::all_of(abyTheirs, abyTheirs + 12, [](uint8_t b) { return b == 0; });
    char achTheirs[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, abyTheirs, achTheirs, sizeof(achTheirs));
    Require(bCompatible || sPrinted.substr(0, sPrinted.find('%')) == achTheirs, "as inet_ntop");
}

void CompareEndpoints(const std::string& aText) {
    CCmEndpoint endpoint;
    const CCmParsed parsed = CmParseEndpoint(aText, endpoint);
    Require(parsed.m_nAt <= aText.size(), "the place lies in the text");
    // Its parts by themselves.
    const size_t nColon = aText.rfind(':');
    bool bParts = nColon != std::string::npos;
    if (bParts) {
        CCmEndpoint parts;
        const std::string sHost = aText.substr(0, nColon);
        const bool bBrackets = sHost.size() >= 2 && sHost.front() == '[' && sHost.back() == ']';
        bParts = CmParsePort(aText.substr(nColon + 1), parts.m_wPort) &&
                 (bBrackets ? CmParseIpv6(sHost.substr(1, sHost.size() - 2), parts.m_address)
                            : CmParseIpv4(sHost, parts.m_address));
        Require(!bParts || parts == endpoint, "the parts of an endpoint");
    }
    Require(bParts == static_cast<bool>(parsed), "good endpoints");
    if (!parsed) {
        return;
    }
    char achPrinted[CM_IP_PRINTED_SIZE];
    CCmEndpoint again;
    Require(CmParseEndpoint(CmPrint(endpoint, achPrinted), again) && again == endpoint,
            "printed and read again");
    sockaddr_storage storage;
    socklen_t nLength = 0;
    if (CmToSocketAddress(endpoint, storage, nLength) == CM_OK) {
        const auto* pAddress = reinterpret_cast<const sockaddr*>(&storage);
        Require(CmFromSocketAddress(pAddress, nLength, again) == CM_OK, "and back");
        endpoint.m_address.m_achZone = again.m_address.m_achZone;  // by its number now
        Require(again == endpoint, "the same address");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    // No input asks the system.
    g_cmSystem.if_nametoindex = [](const char* aName) {
        return static_cast<unsigned>(strlen(aName) % 2);
    };
    const std::string sText = kelto_fuzz::Input(aData, aSize).Rest();
    CompareIpv4(sText);
    CompareIpv6(sText);
    CompareEndpoints(sText);
    CCmIpAddress address;
    CCmIpAddress either;
    const bool bEither = static_cast<bool>(CmParseIpAddress(sText, either));
    Require(bEither == (CmParseIpv4(sText, address) || CmParseIpv6(sText, address)), "either");
    Require(address == either, "the same");
    CCmEndpoint endpoint;
    const auto nLength = static_cast<socklen_t>(std::min(aSize, sizeof(sockaddr_storage)));
    sockaddr_storage storage = {};
    std::copy_n(aData, nLength, reinterpret_cast<uint8_t*>(&storage));
    storage.ss_family = static_cast<sa_family_t>(storage.ss_family % 16);
    CmFromSocketAddress(reinterpret_cast<const sockaddr*>(&storage), nLength, endpoint);
    return 0;
}
