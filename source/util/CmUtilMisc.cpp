#include "CmUtilMisc.h"

#include <errno.h>

#include <algorithm>

#include "CmCrc16.h"
#include "CmMessageBlock.h"
#include "CmTraceLine.h"
#include "CmUtilTemplates.h"
#include "port/CmSystem.h"

namespace UTIL_NS {

CM_CONSTANT_INIT CCmMutexThreadRecursive g_SingletonMutex{CCmStaticInit()};

template class CCmSingletonT<CRCTAbleInit>;

unsigned char CRC16_H_TABLE[256];
unsigned char CRC16_L_TABLE[256];

namespace {

// From these lengths on the faster roads pay.
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
    } else if (aLen >= CRC16_TABLE_MIN || pTables == nullptr) {
        aCrc = CmCrc16ByTable(aCrc, pData, aLen);
    } else {
        aCrc = CalcByByte(aCrc, pData, aLen);
    }
    return aCrc;
}

unsigned short CalcCRC16_m(unsigned short& aCrc, CCmMessageBlock& aMb, unsigned int aLen) {
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

}  // namespace UTIL_NS

void CmUtilInit() {}

void CmUtilCleanup() {}

void GetSingletonMutex(void** aMutex) {
    if (aMutex != nullptr) {
        *aMutex = &UTIL_NS::g_SingletonMutex;
    }
}

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
