#include "CmUtilMisc.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "CmCancel.h"
#include "CmCrc16.h"
#include "CmMessageBlock.h"
#include "CmSystem.h"
#include "CmTraceLine.h"
#include "CmUtilTemplates.h"
#include "port/CmPort.h"

namespace UTIL_NS {

template class CCmSingletonT<CRCTAbleInit>;

unsigned char CRC16_H_TABLE[256];
unsigned char CRC16_L_TABLE[256];

namespace {

// From these lengths on the other ways are faster than the byte-wise loop.
constexpr unsigned int CRC16_TABLE_MIN = 8;      // bytes
constexpr unsigned int CRC16_MULTIPLY_MIN = 17;  // bytes

unsigned short CalcByByte(unsigned short aCrc, const unsigned char* aData, unsigned int aLen) {
    unsigned char byLow = static_cast<unsigned char>(aCrc & 0xFF);
    unsigned char byHigh = static_cast<unsigned char>(aCrc >> 8);
    for (unsigned int i = 0; i < aLen; ++i) {
        const unsigned char byIndex = byLow ^ aData[i];
        byLow = byHigh ^ CRC16_H_TABLE[byIndex];
        byHigh = CRC16_L_TABLE[byIndex];
    }
    return static_cast<unsigned short>(byHigh * 256 + byLow);
}

}  // namespace

void GenerateCRCTable() {
    for (unsigned int i = 0; i < 256; ++i) {
        unsigned int dwRegister = 0;
        unsigned int dwBits = i;
        for (int nBit = 0; nBit < 8; ++nBit) {
            const bool bOut = ((dwRegister ^ dwBits) & 1) != 0;
            dwRegister = (dwRegister >> 1) ^ (bOut ? 0xA001 : 0);
            dwBits >>= 1;
        }
        CRC16_H_TABLE[i] = static_cast<unsigned char>(dwRegister & 0xFF);
        CRC16_L_TABLE[i] = static_cast<unsigned char>(dwRegister >> 8);
    }
}

CRCTAbleInit::CRCTAbleInit() {
    GenerateCRCTable();
}

unsigned short CalcCRC16(unsigned short& aCrc, unsigned char* pData, unsigned int aLen) {
    const CRCTAbleInit* pTables = CCmSingletonT<CRCTAbleInit>::Instance();
    CM_ASSERTE_RETURN_LINE(pData, 0, 101);
    if (aLen >= CRC16_MULTIPLY_MIN && CmHasCarrylessMultiply()) {
        aCrc = CmCrc16ByMultiply(aCrc, pData, aLen);
    } else if (aLen >= CRC16_TABLE_MIN ||
               pTables == nullptr) {  // no memory for CalcByByte's tables
        aCrc = CmCrc16ByTable(aCrc, pData, aLen);
    } else {
        aCrc = CalcByByte(aCrc, pData, aLen);
    }
    return aCrc;
}

unsigned short CalcCRC16_m(unsigned short& aCrc, CCmMessageBlock& aMb, unsigned int aLen) {
    CCmSingletonT<CRCTAbleInit>::Instance();  // hosts find the tables filled after any call
    unsigned int dwRemain = aLen;
    for (const CCmMessageBlock* pMb = &aMb; pMb != nullptr && dwRemain != 0; pMb = pMb->GetNext()) {
        const unsigned int dwLength = std::min(dwRemain, pMb->GetTopLevelLength() % 65536);
        if (dwLength != 0) {
            CalcCRC16(aCrc, reinterpret_cast<unsigned char*>(pMb->GetTopLevelReadPtr()), dwLength);
            dwRemain -= dwLength;
        }
    }
    return aCrc;
}

namespace {

constexpr size_t INTERFACE_TABLE_SIZE = 4000;  // bytes
constexpr int32_t LOCAL_ADDR_LENGTH = sizeof(sockaddr_in);
static_assert(LOCAL_ADDR_LENGTH == CM_PORT_INTERFACE_ADDRESS_SIZE,
              "an IPv4 address fills a record");

bool IsInterfaceUp(int aSocket, const char* aName) {
    ifreq request = {};
    std::memcpy(request.ifr_name, aName, std::min(std::strlen(aName), sizeof(request.ifr_name)));
    return g_cmSystem.ioctl(aSocket, SIOCGIFFLAGS, &request) >= 0 &&
           (request.ifr_flags & IFF_UP) != 0;
}

bool PushLocalAddr(const CmPortInterface& aInterface, local_addr** aList) {
    local_addr* pNode = new (std::nothrow) local_addr();
    if (pNode == nullptr) {
        return false;
    }
    std::memcpy(&pNode->addr, aInterface.m_abyAddress, LOCAL_ADDR_LENGTH);
    pNode->len = LOCAL_ADDR_LENGTH;
    pNode->next = *aList;
    *aList = pNode;
    char szAddress[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, aInterface.m_abyAddress + offsetof(sockaddr_in, sin_addr), szAddress,
              sizeof(szAddress));
    CM_INFO_TRACE("addr is: " << szAddress);
    return true;
}

// False when memory ran out.
bool PushLocalAddrs(int aSocket, const char* aRecords, size_t aLength, local_addr** aList) {
    CmPortInterface interface;
    char szPrevious[sizeof(interface.m_szName)] = "";
    while (const size_t nRecord = CmPortReadInterface(aRecords, aLength, interface)) {
        aRecords += nRecord;
        aLength -= nRecord;
        if (interface.m_nFamily != AF_INET) {
            continue;
        }
        // An alias counts as its interface, of which only the first address is taken.
        interface.m_szName[std::strcspn(interface.m_szName, ":")] = '\0';
        if (std::strcmp(interface.m_szName, szPrevious) == 0) {
            continue;
        }
        std::memcpy(szPrevious, interface.m_szName, sizeof(szPrevious));
        if (IsInterfaceUp(aSocket, interface.m_szName) && !PushLocalAddr(interface, aList)) {
            return false;
        }
    }
    return true;
}

bool ListLocalAddrs(int aSocket, local_addr** aList) {
    alignas(ifreq) char achRecords[INTERFACE_TABLE_SIZE];
    ifconf query = {};
    query.ifc_len = sizeof(achRecords);
    query.ifc_buf = achRecords;
    if (g_cmSystem.ioctl(aSocket, SIOCGIFCONF, &query) < 0) {
        return false;
    }
    const size_t nLength =
        std::min(static_cast<size_t>(std::max(query.ifc_len, 0)), sizeof(achRecords));
    return PushLocalAddrs(aSocket, achRecords, nLength, aList);
}

}  // namespace

int get_local_addr(local_addr** aList) {
    if (aList == nullptr) {
        return -1;
    }
    *aList = nullptr;
    CCmDisableCancel disableCancel;
    const int nSocket = g_cmSystem.socket(AF_INET, SOCK_DGRAM, 0);
    if (nSocket < 0) {
        return -1;
    }
    const bool bListed = ListLocalAddrs(nSocket, aList);
    g_cmSystem.close(nSocket);
    if (!bListed) {
        free_local_addr(*aList);
        *aList = nullptr;
        return -1;
    }
    return 0;
}

void free_local_addr(local_addr* aList) {
    while (aList != nullptr) {
        local_addr* pNext = aList->next;
        delete aList;
        aList = pNext;
    }
}

}  // namespace UTIL_NS

void CmUtilInit() {}

void CmUtilCleanup() {}

void SleepMs(unsigned int aMs) {
    timespec tsRemain = {static_cast<time_t>(aMs / 1000), static_cast<long>(aMs % 1000) * 1000000};
    while (UTIL_NS::g_cmSystem.nanosleep(&tsRemain, &tsRemain) != 0) {
        const int nError = errno;
        if (nError != EINTR) {
            CM_WARNING_TRACE("::SleepMs,nanosleep() failed! err=" << nError);
            return;
        }
    }
}
