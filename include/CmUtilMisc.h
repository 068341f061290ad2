/// The library's entry points, sleeping, CRC-16 and the local address list.
/// \file
#ifndef CM_UTIL_MISC_H
#define CM_UTIL_MISC_H

#include <sys/socket.h>

#include "CmBase.h"
#include "CmSingletonMutex.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

class CCmMessageBlock;

/// The low bytes of the table of CRC-16, reflected, polynomial 0x8005. Filled before the first
/// calculation.
extern CM_UTIL_EXPORT unsigned char CRC16_H_TABLE[256];
/// The high bytes of the same table.
extern CM_UTIL_EXPORT unsigned char CRC16_L_TABLE[256];
/// Fills both tables; they hold the same after every call.
CM_UTIL_EXPORT void GenerateCRCTable();

/// Fills the tables when CCmSingletonT<CRCTAbleInit> creates it.
class CM_UTIL_EXPORT CRCTAbleInit {
  public:
    /// Calls GenerateCRCTable.
    CRCTAbleInit();
};

/// Instantiated in the library.
extern template class CCmSingletonT<CRCTAbleInit>;

/// CRC-16, reflected, polynomial 0x8005: from 0 on it is CRC-16/ARC, from 0xFFFF on CRC-16/MODBUS.
/// Carries aCrc over aLen bytes, so that a checksum may span several calls, and returns it. A
/// null pData returns 0 after an assertion and leaves aCrc. Any thread.
CM_UTIL_EXPORT unsigned short CalcCRC16(unsigned short& aCrc, unsigned char* pData,
                                        unsigned int aLen);
/// The same over the readable bytes of a chain, at most aLen; nothing is consumed. Of each block
/// it takes the length modulo 65536. A read-locked block adds nothing to aCrc, though its bytes
/// count.
CM_UTIL_EXPORT unsigned short CalcCRC16_m(unsigned short& aCrc, CCmMessageBlock& aMb,
                                          unsigned int aLen);

/// The IPv4 address of one local interface.
struct local_addr {
    sockaddr_storage addr;  ///< its first 16 bytes are the interface's sockaddr_in
    int32_t len;            ///< 16
    local_addr* next;       ///< null at the end
};

/// Sets *aList to the first IPv4 address of every interface that is up, in the reverse of the
/// order in which the system lists them, and traces each; free_local_addr frees the list. 0 on
/// success, also with an empty (null) list; -1 with a null list when the socket, the query or an
/// allocation fails or aList is null. The socket that it asks through is closed again. Any thread.
CM_UTIL_EXPORT int get_local_addr(local_addr** aList);
/// Frees what get_local_addr gave; null is accepted.
CM_UTIL_EXPORT void free_local_addr(local_addr* aList);

}  // namespace UTIL_NS

extern "C" {

/// Does nothing: what the library needs is set up when it is loaded or on first use. A host may
/// call it, with CmUtilCleanup, around its use of the library.
CM_UTIL_EXPORT void CmUtilInit();
/// Does nothing: nothing has to be given back.
CM_UTIL_EXPORT void CmUtilCleanup();

/// Sleeps for aMs milliseconds, however many signals interrupt it. A failure other than an
/// interruption is traced as a warning and ends the sleep.
CM_UTIL_EXPORT void SleepMs(unsigned int aMs);

}  // extern "C"

#endif  // CM_UTIL_MISC_H
