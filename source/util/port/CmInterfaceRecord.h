// How a record of the interface query lies in memory; internal.
//
// A record is the interface's name, in 16 bytes, followed by its socket address. Two layouts are
// in use. Both readers compile everywhere; a platform's CmPortReadInterface calls one of them.
#ifndef CM_INTERFACE_RECORD_H
#define CM_INTERFACE_RECORD_H

#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include "port/CmPort.h"

namespace UTIL_NS {

// Every record has the size of an ifreq; the address starts with its family, in 16 bits.
struct CCmFixedInterfaceRecord {
    static size_t Length(const char* /*aRecord*/) { return sizeof(ifreq); }
    static int Family(const char* aAddress) {
        uint16_t wFamily;
        std::memcpy(&wFamily, aAddress, sizeof(wFamily));
        return wFamily;
    }
};

// A record is as long as its address; the address starts with its length and its family, in
// 8 bits each. No record is shorter than 32 bytes.
struct CCmVariableInterfaceRecord {
    static size_t Length(const char* aRecord) {
        const size_t nLength = CM_PORT_INTERFACE_NAME_SIZE +
                               static_cast<unsigned char>(aRecord[CM_PORT_INTERFACE_NAME_SIZE]);
        return nLength < SHORTEST ? size_t{SHORTEST} : nLength;
    }
    static int Family(const char* aAddress) { return static_cast<unsigned char>(aAddress[1]); }

  private:
    static constexpr size_t SHORTEST = CM_PORT_INTERFACE_NAME_SIZE + CM_PORT_INTERFACE_ADDRESS_SIZE;
};

// CmPortReadInterface for records of one layout.
template <class Record>
size_t CmReadInterface(const char* aRecords, size_t aLength, CmPortInterface& aInterface) {
    const char* const pAddress = aRecords + CM_PORT_INTERFACE_NAME_SIZE;
    if (aLength < CM_PORT_INTERFACE_NAME_SIZE + CM_PORT_INTERFACE_ADDRESS_SIZE) {
        return 0;
    }
    const size_t nLength = Record::Length(aRecords);
    if (nLength > aLength) {
        return 0;
    }
    std::memcpy(aInterface.m_szName, aRecords, CM_PORT_INTERFACE_NAME_SIZE);
    aInterface.m_szName[CM_PORT_INTERFACE_NAME_SIZE] = '\0';
    aInterface.m_nFamily = Record::Family(pAddress);
    std::memcpy(aInterface.m_abyAddress, pAddress, CM_PORT_INTERFACE_ADDRESS_SIZE);
    return nLength;
}

}  // namespace UTIL_NS

#endif  // CM_INTERFACE_RECORD_H
