// Sockets, addresses and the interface query.
#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

constexpr Pair FAMILIES[] = {{0, AF_UNSPEC}, {1, AF_UNIX}, {2, AF_INET}, {30, AF_INET6}};
constexpr int TARGET_AF_INET6 = 30;
constexpr int TARGET_AF_LINK = 18;

constexpr Pair INTERFACE_FLAGS[] = {
    {0x1, IFF_UP},           {0x2, IFF_BROADCAST},  {0x8, IFF_LOOPBACK},
    {0x10, IFF_POINTOPOINT}, {0x40, IFF_RUNNING},   {0x80, IFF_NOARP},
    {0x100, IFF_PROMISC},    {0x200, IFF_ALLMULTI}, {0x8000, IFF_MULTICAST},
};

// An address of the target: its length, its family, and the rest as here from the port on.
using AddressBytes = std::vector<uint8_t>;

// Of a link, only that it is one: length 20, as those of the target's interfaces.
AddressBytes ToTarget(const sockaddr* aAddress) {
    if (aAddress == nullptr) {
        return {};
    }
    size_t nLength = 20;
    int nFamily = TARGET_AF_LINK;
    if (aAddress->sa_family == AF_INET) {
        nLength = sizeof(sockaddr_in);
        nFamily = AF_INET;
    } else if (aAddress->sa_family == AF_INET6) {
        nLength = sizeof(sockaddr_in6);
        nFamily = TARGET_AF_INET6;
    }
    AddressBytes bytes(nLength);
    if (nFamily != TARGET_AF_LINK) {
        memcpy(bytes.data(), aAddress, nLength);
    }
    bytes[0] = static_cast<uint8_t>(nLength);
    bytes[1] = static_cast<uint8_t>(nFamily);
    return bytes;
}

int Socket(int aFamily, int aType, int aProtocol) {
    return socket(ToHost(FAMILIES, aFamily), aType, aProtocol);
}

int SocketPair(int aFamily, int aType, int aProtocol, int aSockets[2]) {
    return socketpair(ToHost(FAMILIES, aFamily), aType, aProtocol, aSockets);
}

constexpr int TARGET_SOL_SOCKET = 0xFFFF;
constexpr Pair SOCKET_OPTIONS[] = {
    {0x4, SO_REUSEADDR}, {0x8, SO_KEEPALIVE},   {0x20, SO_BROADCAST},  {0x1001, SO_SNDBUF},
    {0x1002, SO_RCVBUF}, {0x1005, SO_SNDTIMEO}, {0x1006, SO_RCVTIMEO},
};

int SetSockOpt(int aSocket, int aLevel, int aOption, const void* aValue, socklen_t aLength) {
    const int nOption = ToHost(SOCKET_OPTIONS, aOption);
    if (aLevel != TARGET_SOL_SOCKET || nOption == -1) {
        Refuse("setsockopt of %#x at level %#x", aOption, aLevel);
    }
    if (nOption == SO_SNDTIMEO || nOption == SO_RCVTIMEO) {
        // Of the target's microseconds, four bytes count.
        timeval time = *static_cast<const timeval*>(aValue);
        time.tv_usec = static_cast<int32_t>(time.tv_usec);
        return setsockopt(aSocket, SOL_SOCKET, nOption, &time, aLength);
    }
    return setsockopt(aSocket, SOL_SOCKET, nOption, aValue, aLength);
}

// ---- ioctl

constexpr unsigned long TARGET_SIOCGIFCONF = 0xC00C6924;
constexpr unsigned long TARGET_SIOCGIFFLAGS = 0xC0206911;
constexpr unsigned long TARGET_FIONREAD = 0x4004667F;

#pragma pack(push, 4)
struct TargetIfconf {
    int length;
    char* buffer;
};
#pragma pack(pop)

struct TargetIfreq {
    char name[IFNAMSIZ];
    union {
        int16_t flags;
        uint8_t address[16];
    };
};
static_assert(sizeof(TargetIfconf) == 12 && sizeof(TargetIfreq) == 32, "the target's sizes");

// One record after the other, each as long as its address, at least 32 bytes; as many as fit.
int InterfaceQuery(int aSocket, TargetIfconf* aQuery) {
    ifconf probe = {};
    if (ioctl(aSocket, SIOCGIFCONF, &probe) < 0) {
        return -1;
    }
    ifaddrs* pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0) {
        return -1;
    }
    int nUsed = 0;
    for (const ifaddrs* p = pFirst; p != nullptr; p = p->ifa_next) {
        const AddressBytes bytes = ToTarget(p->ifa_addr);
        const int nLength = IFNAMSIZ + std::max(16, static_cast<int>(bytes.size()));
        if (bytes.empty() || nUsed + nLength > aQuery->length) {
            continue;
        }
        char* const pRecord = aQuery->buffer + nUsed;
        memset(pRecord, 0, static_cast<size_t>(nLength));
        memcpy(pRecord, p->ifa_name, std::min<size_t>(strlen(p->ifa_name), IFNAMSIZ - 1));
        memcpy(pRecord + IFNAMSIZ, bytes.data(), bytes.size());
        nUsed += nLength;
    }
    freeifaddrs(pFirst);
    aQuery->length = nUsed;
    return 0;
}

int InterfaceFlags(int aSocket, TargetIfreq* aRequest) {
    ifreq request = {};
    memcpy(request.ifr_name, aRequest->name, IFNAMSIZ);
    const int nResult = ioctl(aSocket, SIOCGIFFLAGS, &request);
    if (nResult == 0) {
        aRequest->flags = static_cast<int16_t>(FlagsToTarget(INTERFACE_FLAGS, request.ifr_flags));
    }
    return nResult;
}

int Ioctl(int aFile, unsigned long aRequest, ...) {
    va_list arguments;
    va_start(arguments, aRequest);
    void* const pArgument = va_arg(arguments, void*);
    va_end(arguments);
    switch (aRequest) {
        case TARGET_SIOCGIFCONF:
            return InterfaceQuery(aFile, static_cast<TargetIfconf*>(pArgument));
        case TARGET_SIOCGIFFLAGS:
            return InterfaceFlags(aFile, static_cast<TargetIfreq*>(pArgument));
        case TARGET_FIONREAD:
            return ioctl(aFile, FIONREAD, pArgument);
        default:
            Refuse("ioctl of %#lx", aRequest);
    }
}

// ---- Interfaces

// The records and their addresses, in one piece for one call of FreeIfAddrs.
struct Interfaces {
    std::vector<ifaddrs> records;
    std::vector<AddressBytes> addresses;
    std::vector<std::string> names;
};

sockaddr* Keep(Interfaces& aInterfaces, const sockaddr* aAddress) {
    if (aAddress == nullptr) {
        return nullptr;
    }
    aInterfaces.addresses.push_back(ToTarget(aAddress));
    return reinterpret_cast<sockaddr*>(aInterfaces.addresses.back().data());
}

// What each list handed out belongs to.
struct List {
    ifaddrs first;  // what the program sees
    Interfaces interfaces;
};

int GetIfAddrs(ifaddrs** aFirst) {
    ifaddrs* pHost = nullptr;
    if (getifaddrs(&pHost) != 0) {
        return -1;
    }
    auto* const pList = new List{};
    Interfaces& interfaces = pList->interfaces;
    for (const ifaddrs* p = pHost; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr) {
            continue;
        }
        ifaddrs record = {};
        interfaces.names.push_back(p->ifa_name);
        record.ifa_flags =
            static_cast<unsigned>(FlagsToTarget(INTERFACE_FLAGS, static_cast<int>(p->ifa_flags)));
        record.ifa_addr = Keep(interfaces, p->ifa_addr);
        record.ifa_netmask = Keep(interfaces, p->ifa_netmask);
        record.ifa_dstaddr = Keep(interfaces, p->ifa_dstaddr);
        interfaces.records.push_back(record);
    }
    freeifaddrs(pHost);
    for (size_t i = 0; i < interfaces.records.size(); ++i) {
        interfaces.records[i].ifa_name = &interfaces.names[i][0];
        interfaces.records[i].ifa_next =
            i + 1 < interfaces.records.size() ? &interfaces.records[i + 1] : nullptr;
    }
    if (interfaces.records.empty()) {
        delete pList;
        *aFirst = nullptr;
        return 0;
    }
    pList->first = interfaces.records[0];
    *aFirst = &pList->first;
    return 0;
}

void FreeIfAddrs(ifaddrs* aFirst) {
    delete reinterpret_cast<List*>(aFirst);
}

// ---- Names

hostent* GetHostByName(const char* aName) {
    hostent* const pHost = gethostbyname(aName);
    if (pHost != nullptr && pHost->h_addrtype == AF_INET6) {
        static __thread hostent s_host;
        s_host = *pHost;
        s_host.h_addrtype = TARGET_AF_INET6;
        return &s_host;
    }
    return pHost;
}

// ---- getaddrinfo

struct TargetAddrinfo {
    int flags;
    int family;
    int socktype;
    int protocol;
    socklen_t addrlen;
    char* canonname;
    void* address;
    TargetAddrinfo* next;
};

constexpr Pair LOOKUP_FLAGS[] = {
    {0x1, AI_PASSIVE},      {0x2, AI_CANONNAME},  {0x4, AI_NUMERICHOST},    {0x100, AI_ALL},
    {0x400, AI_ADDRCONFIG}, {0x800, AI_V4MAPPED}, {0x1000, AI_NUMERICSERV},
};
constexpr Pair LOOKUP_ERRORS[] = {
    {0, 0},
    {1, EAI_ADDRFAMILY},
    {2, EAI_AGAIN},
    {3, EAI_BADFLAGS},
    {4, EAI_FAIL},
    {5, EAI_FAMILY},
    {6, EAI_MEMORY},
    {7, EAI_NODATA},
    {8, EAI_NONAME},
    {9, EAI_SERVICE},
    {10, EAI_SOCKTYPE},
    {11, EAI_SYSTEM},
    {14, EAI_OVERFLOW},
};

void FreeAddrInfo(TargetAddrinfo* aFirst) {
    while (aFirst != nullptr) {
        TargetAddrinfo* const pNext = aFirst->next;
        free(aFirst->canonname);
        free(aFirst->address);
        free(aFirst);
        aFirst = pNext;
    }
}

TargetAddrinfo* Copy(const addrinfo& aHost) {
    const AddressBytes bytes = ToTarget(aHost.ai_addr);
    auto* const pTarget = static_cast<TargetAddrinfo*>(calloc(1, sizeof(TargetAddrinfo)));
    void* const pAddress = malloc(bytes.size());
    if (pTarget == nullptr || pAddress == nullptr) {
        Refuse("no memory for an address");
    }
    memcpy(pAddress, bytes.data(), bytes.size());
    *pTarget = {FlagsToTarget(LOOKUP_FLAGS, aHost.ai_flags),
                ToTarget(FAMILIES, aHost.ai_family),
                aHost.ai_socktype,
                aHost.ai_protocol,
                static_cast<socklen_t>(bytes.size()),
                aHost.ai_canonname == nullptr ? nullptr : strdup(aHost.ai_canonname),
                pAddress,
                nullptr};
    return pTarget;
}

int GetAddrInfo(const char* aName, const char* aService, const TargetAddrinfo* aHints,
                TargetAddrinfo** aFirst) {
    addrinfo hints = {};
    if (aHints != nullptr) {
        hints.ai_flags = FlagsToHost(LOOKUP_FLAGS, aHints->flags);
        hints.ai_family = ToHost(FAMILIES, aHints->family);
        hints.ai_socktype = aHints->socktype;
        hints.ai_protocol = aHints->protocol;
    }
    addrinfo* pHost = nullptr;
    const int nError = Cancellable(
        [&] { return getaddrinfo(aName, aService, aHints == nullptr ? nullptr : &hints, &pHost); });
    if (nError != 0) {
        return ToTarget(LOOKUP_ERRORS, nError);
    }
    for (const addrinfo* p = pHost; p != nullptr; p = p->ai_next) {
        *aFirst = Copy(*p);
        aFirst = &(*aFirst)->next;
    }
    freeaddrinfo(pHost);
    return 0;
}

const char* InetNtop(int aFamily, const void* aAddress, char* aText, socklen_t aLength) {
    return inet_ntop(ToHost(FAMILIES, aFamily), aAddress, aText, aLength);
}

int InetPton(int aFamily, const char* aText, void* aAddress) {
    return inet_pton(ToHost(FAMILIES, aFamily), aText, aAddress);
}

}  // namespace

void SupplyNetwork() {
    Supply({
        {"_socket", Address(&Socket)},
        {"_socketpair", Address(&SocketPair)},
        {"_setsockopt", Address(&SetSockOpt)},
        {"_ioctl", Address(&Ioctl)},
        {"_getifaddrs", Address(&GetIfAddrs)},
        {"_freeifaddrs", Address(&FreeIfAddrs)},
        {"_getaddrinfo", Address(&GetAddrInfo)},
        {"_freeaddrinfo", Address(&FreeAddrInfo)},
        {"_if_indextoname", Address(&if_indextoname)},
        {"_if_nametoindex", Address(&if_nametoindex)},
        {"_gethostbyname", Address(&GetHostByName)},
        {"_inet_ntop", Address(&InetNtop)},
        {"_inet_pton", Address(&InetPton)},
    });
}

}  // namespace kelto_mac
