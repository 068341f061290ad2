#include "CmAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CmAscii.h"
#include "CmCancel.h"
#include "CmSystem.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

char g_local_ip[CM_IP_TEXT_SIZE] = "";

namespace {

constexpr size_t LONGEST_TRANSPORT_ADDRESS = 64;  // characters
constexpr size_t HOST_NAME_SIZE = 256;            // bytes, longer than any host name
constexpr char SCHEME_END[] = "://";

bool IsAddressCharacter(char aChar) {
    return CmIsDigit(aChar) || aChar == '.' || aChar == ' ' || aChar == '\t';
}

bool IsAddress(const char* aText) {
    while (IsAddressCharacter(*aText)) {
        ++aText;
    }
    return *aText == '\0';
}

// Copies the answer out of the resolver's static storage at once. Not to be cancelled: the resolver
// holds locks of its own.
bool Resolve(const char* aName, char* aIp) {
    CCmDisableCancel disableCancel;
    const hostent* pHost = g_cmSystem.gethostbyname(aName);
    if (pHost == nullptr || pHost->h_addrtype != AF_INET || pHost->h_length != sizeof(in_addr) ||
        pHost->h_addr_list == nullptr || pHost->h_addr_list[0] == nullptr) {
        return false;
    }
    in_addr address;
    std::memcpy(&address, pHost->h_addr_list[0], sizeof(address));
    return inet_ntop(AF_INET, &address, aIp, CM_IP_TEXT_SIZE) != nullptr;
}

bool ResolveHostName(char* aIp) {
    char szName[HOST_NAME_SIZE] = "";
    if (g_cmSystem.gethostname(szName, sizeof(szName) - 1) != 0) {
        return false;
    }
    return Resolve(szName, aIp);
}

void CopyCut(const char* aText, size_t aLength, char* aOut, int aOutSize) {
    if (aOutSize <= 0) {
        return;
    }
    const size_t nLength = std::min(aLength, static_cast<size_t>(aOutSize) - 1);
    std::memcpy(aOut, aText, nLength);
    aOut[nLength] = '\0';
}

// As "%d" takes one number off the text.
bool TakeNumber(const char*& aText, unsigned long& aNumber) {
    char* pEnd = nullptr;
    const long lNumber = std::strtol(aText, &pEnd, 10);
    if (pEnd == aText) {
        return false;
    }
    aText = pEnd;
    aNumber = static_cast<unsigned long>(std::min(lNumber, static_cast<long>(INT_MAX)));
    return true;
}

}  // namespace

int transport_address_parse(char* aAddr, char* aScheme, int aSchemeSize, char* aIp, int aIpSize,
                            unsigned short* aPort) {
    if (aAddr == nullptr || aScheme == nullptr || aIp == nullptr || aPort == nullptr ||
        strnlen(aAddr, LONGEST_TRANSPORT_ADDRESS + 1) > LONGEST_TRANSPORT_ADDRESS) {
        return 0;
    }
    const char* pSchemeEnd = std::strstr(aAddr, SCHEME_END);
    if (pSchemeEnd == nullptr) {
        return 0;
    }
    CopyCut(aAddr, static_cast<size_t>(pSchemeEnd - aAddr), aScheme, aSchemeSize);
    const char* pHost = pSchemeEnd + std::strlen(SCHEME_END);
    const char* pColon = std::strchr(pHost, ':');
    if (pColon == nullptr) {
        return 0;
    }
    char szHost[LONGEST_TRANSPORT_ADDRESS + 1];
    CopyCut(pHost, static_cast<size_t>(pColon - pHost), szHost, sizeof(szHost));
    if (!IsAddress(szHost)) {
        char szAddress[CM_IP_TEXT_SIZE] = "";
        resolve_2_ip(szHost, szAddress);
        if (szAddress[0] == '\0') {
            return 0;
        }
        std::memcpy(szHost, szAddress, sizeof(szAddress));
    }
    CopyCut(szHost, std::strlen(szHost), aIp, aIpSize);
    if (pColon[1] == '\0') {
        return 0;
    }
    *aPort = static_cast<unsigned short>(std::strtol(pColon + 1, nullptr, 10));
    return 1;
}

int is_ip_address(char* aStr) {
    if (aStr == nullptr) {
        CM_ERROR_TRACE("is_ip_address: ip string is null");
        return 0;
    }
    return IsAddress(aStr) ? 1 : 0;
}

void resolve_2_ip(char* aName, char* aIp) {
    if (aName == nullptr || aIp == nullptr) {
        // An output buffer may hold anything, so no more of it is read than it must have.
        char szOutput[CM_IP_TEXT_SIZE] = "";
        if (aIp != nullptr) {
            CopyCut(aIp, strnlen(aIp, CM_IP_TEXT_SIZE), szOutput, sizeof(szOutput));
        }
        CM_ERROR_TRACE("resolve_2_ip: No host_name: " << aName << "; or ip_address: " << szOutput
                                                      << "; given");
        return;
    }
    if (!Resolve(aName, aIp)) {
        CM_ERROR_TRACE("resolve_2_ip: can't resolve host_name: " << aName);
    }
}

char* resolve_to_ip(char* aName, char* aIp) {
    return aName != nullptr && aIp != nullptr && Resolve(aName, aIp) ? aIp : nullptr;
}

unsigned long ip_2_id(char* aAddr) {
    if (aAddr == nullptr) {
        return 0;
    }
    char szResolved[CM_IP_TEXT_SIZE] = "";
    const char* pText = aAddr;
    if (!IsAddress(aAddr)) {
        resolve_2_ip(aAddr, szResolved);
        pText = szResolved;
    }
    unsigned long ulId = 0;
    for (int i = 0; i < 4; ++i) {
        unsigned long ulOctet = 0;
        if ((i > 0 && *pText++ != '.') || !TakeNumber(pText, ulOctet)) {
            return 0;
        }
        ulId = (ulId << 8) + ulOctet;
    }
    return ulId;
}

char* id_2_ip(unsigned long aId) {
    static char ip_str[CM_IP_TEXT_SIZE];
    const in_addr address = {htonl(static_cast<uint32_t>(aId))};
    inet_ntop(AF_INET, &address, ip_str, sizeof(ip_str));
    return ip_str;
}

char* get_local_ip() {
    if (g_local_ip[0] == '\0') {
        std::strcpy(g_local_ip, "0.0.0.0");
        ResolveHostName(g_local_ip);
    }
    return g_local_ip;
}

char* get_local_ip_address() {
    static char s_szAddress[CM_IP_TEXT_SIZE];
    if (!ResolveHostName(s_szAddress)) {
        std::strcpy(s_szAddress, "127.0.0.1");
    }
    return s_szAddress;
}

void output_debug_string(char* /*aText*/) {}

}  // namespace UTIL_NS
