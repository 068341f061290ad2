#include "CmMessageBlock.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "CmTraceLine.h"

namespace UTIL_NS {

namespace {

constexpr unsigned long DATA_FLAGS =
    CCmMessageBlock::EXTERNAL_DATA | CCmMessageBlock::ALLOCATE_DATA;

// Source and destination may overlap, and be null when there is nothing to copy.
void CopyBytes(void* aDst, const void* aSrc, size_t aCount) {
    if (aCount != 0) {
        std::memmove(aDst, aSrc, aCount);
    }
}

void StoreCount(unsigned int* aOut, unsigned int aCount) {
    if (aOut != nullptr) {
        *aOut = aCount;
    }
}

// The whole sum, which may exceed 32 bits: blocks may share one area.
uint64_t ReadableBytes(const CCmMessageBlock* aMb) {
    uint64_t ullSum = 0;
    for (; aMb != nullptr; aMb = aMb->GetNext()) {
        ullSum += aMb->GetTopLevelLength();
    }
    return ullSum;
}

// Walks no further than it takes to know. aCount: not 0.
bool HasReadableBytes(const CCmMessageBlock* aMb, uint64_t aCount) {
    for (uint64_t ullSum = 0; aMb != nullptr; aMb = aMb->GetNext()) {
        ullSum += aMb->GetTopLevelLength();
        if (ullSum >= aCount) {
            return true;
        }
    }
    return false;
}

// Blocks hold less than 4 GB, so their pointers differ in these bits if at all.
DWORD LowBits(const char* aPtr) {
    return static_cast<DWORD>(reinterpret_cast<uintptr_t>(aPtr));
}

// The pointer as far from aNewBegin as aPtr is from aBegin. By numbers, not as a difference of
// pointers: a rewind may have set a write pointer outside the area, and then it stays outside.
char* AtSameDistance(char* aNewBegin, const char* aBegin, const char* aPtr) {
    return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(aNewBegin) +
                                   reinterpret_cast<uintptr_t>(aPtr) -
                                   reinterpret_cast<uintptr_t>(aBegin));
}

// Calls aPiece(block, offset, length) for each piece of the aCount readable bytes that start
// aOffset bytes into the chain, until one fails. aLine: of the assertion that the chain goes on.
template <class Block, class Piece>
CmResult ForEachPiece(Block* pMB, unsigned int aOffset, unsigned int aCount, int aLine,
                      Piece aPiece) {
    CmResult rv = CM_OK;
    for (; aCount != 0 && CM_SUCCEEDED(rv); pMB = pMB->GetNext()) {
        CM_ASSERTE_RETURN_LINE(pMB, CM_ERROR_FAILURE, aLine);
        const unsigned int dwLength = pMB->GetTopLevelLength();
        if (aOffset >= dwLength) {
            aOffset -= dwLength;
            continue;
        }
        const unsigned int dwPiece = std::min(dwLength - aOffset, aCount);
        rv = aPiece(*pMB, aOffset, dwPiece);
        aCount -= dwPiece;
        aOffset = 0;
    }
    return rv;
}

}  // namespace

// Steps that reach into blocks.
class CCmMessageBlock::CBlockSteps {
  public:
    // For a block whose area is set already.
    static CmResult RefuseArea(const CCmMessageBlock& aBlock) {
        CM_WARNING_TRACE("CCmMessageBlock::SetData failed, m_pBeginPtr is not NULL"
                         << " this=" << CmTraceAddress(&aBlock));
        return CM_ERROR_FAILURE;
    }

    static void SetArea(CCmMessageBlock& aBlock, char* aBegin, uint32_t aSize) {
        aBlock.m_pBeginPtr = aBlock.m_pReadPtr = aBlock.m_pWritePtr = aBegin;
        aBlock.m_pEndPtr = aBegin + aSize;
    }

    // One block's part of Read: aCount bytes, or as many as there are.
    static CmResult Read(CCmMessageBlock& aBlock, char* aDst, unsigned int aCount, bool aAdvance,
                         unsigned int& aBytesRead) {
        CM_ASSERTE_RETURN_(CM_BIT_DISABLED(aBlock.m_Flag, READ_LOCKED),
                           "CM_BIT_DISABLED(m_Flag, READ_LOCKED)", CM_ERROR_FAILURE, __FILE__, 154);
        aBytesRead = std::min(aCount, aBlock.GetTopLevelLength());
        if (aDst != nullptr) {
            CopyBytes(aDst, aBlock.m_pReadPtr, aBytesRead);
        }
        if (aAdvance) {
            aBlock.m_pReadPtr += aBytesRead;
        }
        return CM_OK;
    }

    // One block's part of Write: aCount bytes, or as many as fit.
    static CmResult Write(CCmMessageBlock& aBlock, const char* aSrc, unsigned int aCount,
                          unsigned int& aBytesWritten) {
        CM_ASSERTE_RETURN_(CM_BIT_DISABLED(aBlock.m_Flag, WRITE_LOCKED),
                           "CM_BIT_DISABLED(m_Flag, WRITE_LOCKED)", CM_ERROR_FAILURE, __FILE__,
                           227);
        aBytesWritten = std::min(aCount, aBlock.GetTopLevelSpace());
        if (aSrc != nullptr) {
            CopyBytes(aBlock.m_pWritePtr, aSrc, aBytesWritten);
        }
        aBlock.m_pWritePtr += aBytesWritten;
        return CM_OK;
    }

    // Frees aBlock if it carries DUPLICATED, else notes it in aLeftAlone, and returns its
    // successor. The block left alone in front of a freed one must not keep a link to it.
    static CCmMessageBlock* DestroyIfDuplicated(CCmMessageBlock* aBlock,
                                                CCmMessageBlock*& aLeftAlone) {
        CCmMessageBlock* pNext = aBlock->m_pNext;
        if (CM_BIT_DISABLED(aBlock->m_Flag, DUPLICATED)) {
            aLeftAlone = aBlock;
            return pNext;
        }
        if (aLeftAlone != nullptr) {
            aLeftAlone->m_pNext = nullptr;
            aLeftAlone = nullptr;
        }
        aBlock->m_pNext = nullptr;
        delete aBlock;
        return pNext;
    }

    // A copy of the caller's memory, the whole area, in storage of its own.
    static CCmMessageBlock* DuplicateExternal(const CCmMessageBlock& aBlock) {
        const size_t nSize = static_cast<size_t>(aBlock.m_pEndPtr - aBlock.m_pBeginPtr);
        CCmMessageBlock* pCopy =
            new (std::nothrow) CCmMessageBlock(static_cast<unsigned int>(nSize), aBlock.m_pBeginPtr,
                                               (aBlock.m_Flag & ~DATA_FLAGS) | ALLOCATE_DATA, 0);
        if (pCopy == nullptr) {
            return nullptr;
        }
        pCopy->m_Flag |= DUPLICATED;
        if (nSize == 0) {
            return pCopy;
        }
        char* pArea = pCopy->GetTopLevelWritePtr();
        if (pArea == nullptr) {
            delete pCopy;
            return nullptr;
        }
        std::memcpy(pArea, aBlock.m_pBeginPtr, nSize);
        pCopy->m_pReadPtr = AtSameDistance(pArea, aBlock.m_pBeginPtr, aBlock.m_pReadPtr);
        pCopy->m_pWritePtr = AtSameDistance(pArea, aBlock.m_pBeginPtr, aBlock.m_pWritePtr);
        return pCopy;
    }

    // Duplicates, in order, the blocks after aCut that do not carry DUPLICATED, and links the
    // copies after aCopies. aChain: for the trace. False when memory ran out.
    static bool DuplicateForeign(const CCmMessageBlock& aChain, const CCmMessageBlock& aCut,
                                 CCmMessageBlock& aCopies) {
        CCmMessageBlock* pLast = &aCopies;
        for (const CCmMessageBlock* pMb = aCut.m_pNext; pMb != nullptr; pMb = pMb->m_pNext) {
            if (!CM_BIT_DISABLED(pMb->m_Flag, DUPLICATED)) {
                continue;
            }
            CM_WARNING_TRACE(
                "CCmMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed "
                "block."
                << " this=" << CmTraceAddress(&aChain));
            pLast->m_pNext = pMb->DuplicateTopLevel();
            if (pLast->m_pNext == nullptr) {
                return false;
            }
            pLast = pLast->m_pNext;
        }
        return true;
    }

    // Links the blocks from aBlock on after aHead. In place of a block that does not carry
    // DUPLICATED, which is cut loose and stays with its owner, it takes the next of aCopies.
    static void LinkTail(CCmMessageBlock* aHead, CCmMessageBlock* aBlock,
                         CCmMessageBlock* aCopies) {
        while (aBlock != nullptr) {
            CCmMessageBlock* pNext = aBlock->m_pNext;
            if (CM_BIT_DISABLED(aBlock->m_Flag, DUPLICATED)) {
                aBlock->m_pNext = nullptr;
                aBlock = aCopies;
                aCopies = aCopies->m_pNext;
            }
            aHead->m_pNext = aBlock;
            aHead = aBlock;
            aBlock = pNext;
        }
        aHead->m_pNext = nullptr;
    }
};

CCmMessageBlock::CCmMessageBlock(unsigned int aSize, const char* aData, unsigned long aFlag,
                                 unsigned int aAdvanceWritePtr) {
    SetData(aSize, aData, aFlag, aAdvanceWritePtr);
}

CCmMessageBlock::CCmMessageBlock(CCmDataBlock* aDb, unsigned long aFlag,
                                 unsigned int aAdvanceWritePtr) {
    SetData(aDb, aFlag, aAdvanceWritePtr);
}

// A duplicate that shares the data block: the views differ in their flags alone, so there is
// nothing of SetData left to do.
CCmMessageBlock::CCmMessageBlock(const CCmMessageBlock& aShared, unsigned long aFlag)
    : m_pDataBlock(aShared.m_pDataBlock),
      m_pReadPtr(aShared.m_pReadPtr),
      m_pWritePtr(aShared.m_pWritePtr),
      m_pBeginPtr(aShared.m_pBeginPtr),
      m_pEndPtr(aShared.m_pEndPtr),
      m_Flag(aFlag) {}

// Each owned block is cut from its successor before it is deleted, so the deletions do not nest.
void CCmMessageBlock::DestroyOwned_i() {
    CCmMessageBlock* pOwned = m_pNext;
    while (pOwned != nullptr) {
        CCmMessageBlock* pNext = pOwned->m_bRtpChainedFlag ? pOwned->m_pNext : nullptr;
        pOwned->m_pNext = nullptr;
        delete pOwned;
        pOwned = pNext;
    }
}

CmResult CCmMessageBlock::SetData(unsigned int aSize, const char* aData, unsigned long aFlag,
                                  unsigned int aAdvanceWritePtr) {
    if (CM_UNLIKELY(m_pBeginPtr != nullptr)) {
        return CBlockSteps::RefuseArea(*this);
    }
    if (aData == nullptr || (aFlag & ALLOCATE_DATA) != 0) {
        if (aSize != 0) {
            CCmDataBlock* pDb = nullptr;
            const CmResult rv = CCmDataBlock::CreateInstance(pDb, aSize, nullptr);
            if (CM_FAILED(rv)) {
                return rv;
            }
            m_pDataBlock.Attach(pDb);
            CBlockSteps::SetArea(*this, pDb->m_pPayload, pDb->m_dwSize);
        } else {
            CBlockSteps::SetArea(*this, nullptr, 0);  // a rewind may have set the write pointer
        }
        aFlag &= ~EXTERNAL_DATA;
    } else {
        CBlockSteps::SetArea(*this, const_cast<char*>(aData), aSize);
        aFlag |= EXTERNAL_DATA;
    }
    if (aAdvanceWritePtr != 0) {
        AdvanceTopLevelWritePtr(aAdvanceWritePtr);
    }
    m_Flag = aFlag & ~(ALLOCATE_DATA | INTERNAL_FLAGS);
    return CM_OK;
}

CmResult CCmMessageBlock::SetData(CCmDataBlock* aDb, unsigned long aFlag,
                                  unsigned int aAdvanceWritePtr) {
    if (CM_UNLIKELY(m_pBeginPtr != nullptr)) {
        return CBlockSteps::RefuseArea(*this);
    }
    m_pDataBlock = aDb;
    if (aDb != nullptr) {
        CBlockSteps::SetArea(*this, aDb->m_pPayload, aDb->m_dwSize);
    } else {
        CBlockSteps::SetArea(*this, nullptr, 0);
    }
    if (aAdvanceWritePtr != 0) {
        AdvanceTopLevelWritePtr(aAdvanceWritePtr);
    }
    m_Flag = aFlag & ~(DATA_FLAGS | INTERNAL_FLAGS);
    return CM_OK;
}

CmResult CCmMessageBlock::Read(void* aDst, unsigned int aCount, unsigned int* aBytesRead,
                               signed char aAdvance) {
    unsigned int dwRead = 0;
    CmResult rv = CBlockSteps::Read(*this, static_cast<char*>(aDst), aCount, aAdvance != 0, dwRead);
    if (CM_FAILED(rv)) {
        return rv;
    }
    for (CCmMessageBlock* pMb = m_pNext; dwRead < aCount && CM_SUCCEEDED(rv); pMb = pMb->m_pNext) {
        if (pMb == nullptr) {
            rv = CM_ERROR_PARTIAL_DATA;
            break;
        }
        char* pDst = aDst != nullptr ? static_cast<char*>(aDst) + dwRead : nullptr;
        unsigned int dwPart = 0;
        rv = CBlockSteps::Read(*pMb, pDst, aCount - dwRead, aAdvance != 0, dwPart);
        dwRead += dwPart;
    }
    StoreCount(aBytesRead, dwRead);
    return rv;
}

CmResult CCmMessageBlock::Write(const void* aSrc, unsigned int aCount,
                                unsigned int* aBytesWritten) {
    const char* pSrc = static_cast<const char*>(aSrc);
    unsigned int dwWritten = 0;
    CmResult rv = CBlockSteps::Write(*this, pSrc, aCount, dwWritten);
    if (CM_FAILED(rv)) {
        return rv;
    }
    for (CCmMessageBlock* pMb = m_pNext; dwWritten < aCount && CM_SUCCEEDED(rv);
         pMb = pMb->m_pNext) {
        if (pMb == nullptr || pSrc == nullptr) {
            rv = CM_ERROR_PARTIAL_DATA;
            break;
        }
        unsigned int dwPart = 0;
        rv = CBlockSteps::Write(*pMb, pSrc + dwWritten, aCount - dwWritten, dwPart);
        dwWritten += dwPart;
    }
    StoreCount(aBytesWritten, dwWritten);
    return rv;
}

uint32_t CCmMessageBlock::GetChainedLength() const {
    return static_cast<uint32_t>(ReadableBytes(this));
}

uint32_t CCmMessageBlock::GetChainedSpace() const {
    uint32_t dwSum = 0;
    for (const CCmMessageBlock* pMb = this; pMb != nullptr; pMb = pMb->m_pNext) {
        dwSum += pMb->GetTopLevelSpace();
    }
    return dwSum;
}

void CCmMessageBlock::Append(CCmMessageBlock* aMb) {
    CCmMessageBlock* pMbMove = this;
    while (pMbMove->m_pNext != nullptr) {
        pMbMove = pMbMove->m_pNext;
    }
    // If the chains had a block in common, their last blocks would be the same.
    for (const CCmMessageBlock* pMb = aMb; pMb != nullptr; pMb = pMb->m_pNext) {
        CM_ASSERTE_RETURN_(pMb != pMbMove, "aMb != pMbMove", , __FILE__, 311);
    }
    pMbMove->m_pNext = aMb;
}

CmResult CCmMessageBlock::AdvanceChainedReadPtr(unsigned int aCount, unsigned int* aAdvanced) {
    return Read(nullptr, aCount, aAdvanced, 1);
}

CmResult CCmMessageBlock::AdvanceChainedWritePtr(unsigned int aCount, unsigned int* aAdvanced) {
    CM_ASSERTE_RETURN_LINE(CM_BIT_DISABLED(m_Flag, WRITE_LOCKED), CM_ERROR_FAILURE, 340);
    unsigned int dwRemain = aCount;
    // An advance by 0 reports a partial result.
    CmResult rv = CM_ERROR_PARTIAL_DATA;
    for (CCmMessageBlock* pMb = this; pMb != nullptr && aCount != 0; pMb = pMb->m_pNext) {
        if (pMb->m_pBeginPtr != pMb->m_pReadPtr) {
            CM_ERROR_TRACE_THIS(
                "CCmMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr="
                << CmTraceAddress(pMb->m_pBeginPtr)
                << " m_pReadPtr=" << CmTraceAddress(pMb->m_pReadPtr));
            break;
        }
        const unsigned int dwStep = std::min(dwRemain, pMb->GetTopLevelSpace());
        const CmResult rvStep = pMb->AdvanceTopLevelWritePtr(dwStep);
        if (CM_FAILED(rvStep)) {
            rv = rvStep;
            break;
        }
        dwRemain -= dwStep;
        if (dwRemain == 0) {
            rv = CM_OK;
            break;
        }
    }
    StoreCount(aAdvanced, aCount - dwRemain);
    return rv;
}

void CCmMessageBlock::RewindChained(CCmMessageBlock* aMb) {
    char* pFirstBegin = aMb != nullptr ? aMb->m_pBeginPtr : nullptr;
    for (; aMb != nullptr; aMb = aMb->m_pNext) {
        aMb->m_pReadPtr = aMb->m_pBeginPtr;
        aMb->m_pWritePtr = pFirstBegin;
    }
}

void CCmMessageBlock::DestroyChained(CCmMessageBlock* aMb) {
    CCmMessageBlock* pLeftAlone = nullptr;
    while (aMb != nullptr) {
        aMb = CBlockSteps::DestroyIfDuplicated(aMb, pLeftAlone);
    }
}

CCmMessageBlock* CCmMessageBlock::DuplicateTopLevel() const {
    if (CM_UNLIKELY(!CM_BIT_DISABLED(m_Flag, EXTERNAL_DATA))) {
        return CBlockSteps::DuplicateExternal(*this);
    }
    try {
        return new CCmMessageBlock(*this, (m_Flag & ~(DATA_FLAGS | INTERNAL_FLAGS)) | DUPLICATED);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

CCmMessageBlock* CCmMessageBlock::DuplicateChained(const CCmMessageBlock* aMb) {
    CCmMessageBlock* pFirst = nullptr;
    CCmMessageBlock** ppLink = &pFirst;
    for (; aMb != nullptr; aMb = aMb->m_pNext) {
        *ppLink = aMb->DuplicateTopLevel();
        if (*ppLink == nullptr) {
            DestroyChained(pFirst);
            return nullptr;
        }
        ppLink = &(*ppLink)->m_pNext;
    }
    return pFirst;
}

CCmMessageBlock* CCmMessageBlock::Disjoint(unsigned int aStart) {
    CCmMessageBlock* pCut = this;
    unsigned int dwKeep = aStart;
    while (pCut != nullptr &&
           (dwKeep > pCut->GetTopLevelLength() || pCut->GetTopLevelLength() == 0)) {
        dwKeep -= pCut->GetTopLevelLength();
        pCut = pCut->m_pNext;
    }
    if (pCut == nullptr) {
        return nullptr;
    }
    // What can fail is done before the chain is changed.
    const unsigned int dwMoved = pCut->GetTopLevelLength() - dwKeep;
    CCmMessageBlock* pInside = dwMoved != 0 ? pCut->DuplicateTopLevel() : nullptr;
    CCmMessageBlock copies;
    if ((dwMoved != 0 && pInside == nullptr) ||
        !CBlockSteps::DuplicateForeign(*this, *pCut, copies)) {
        DestroyChained(pInside);
        DestroyChained(copies.m_pNext);
        return nullptr;
    }
    CCmMessageBlock anchor;
    CBlockSteps::LinkTail(pInside != nullptr ? pInside : &anchor, pCut->m_pNext, copies.m_pNext);
    pCut->m_pNext = nullptr;
    if (pInside == nullptr) {
        return anchor.m_pNext;
    }
    pInside->m_pReadPtr += dwKeep;
    pCut->m_pWritePtr -= dwMoved;
    return pInside;
}

CCmMessageBlock* CCmMessageBlock::ReclaimGarbage() {
    if (m_bRtpChainedFlag) {
        CM_ERROR_TRACE_THIS(
            "CCmMessageBlock::ReclaimGarbage, this function should not be called when "
            "m_bRtpChainedFlag = "
            << m_bRtpChainedFlag);
        return nullptr;
    }
    CCmMessageBlock* pLeftAlone = nullptr;
    CCmMessageBlock* pMb = this;
    while (pMb != nullptr && LowBits(pMb->m_pWritePtr) == LowBits(pMb->m_pReadPtr)) {
        pMb = CBlockSteps::DestroyIfDuplicated(pMb, pLeftAlone);
    }
    return pMb;
}

CCmString CCmMessageBlock::FlattenChained(const CCmMessageBlock* aMb) {
    CCmString strData;
    try {
        strData.reserve(ReadableBytes(aMb) + 1);
    } catch (const std::exception&) {
        return strData;  // the same variable in every return: the compiler makes no copy
    }
    for (; aMb != nullptr; aMb = aMb->m_pNext) {
        const char* pRead = aMb->GetTopLevelReadPtr();
        if (pRead != nullptr) {
            strData.append(pRead, aMb->GetTopLevelLength());
        }
    }
    return strData;
}

CCmMessageBlock* CCmMessageBlock::CombineSingleBuffer() const {
    const uint64_t ullLength = ReadableBytes(this);
    if (GetTopLevelLength() == ullLength) {
        return DuplicateChained();
    }
    if (ullLength > UINT32_MAX) {
        return nullptr;
    }
    CCmMessageBlock combined(static_cast<unsigned int>(ullLength));
    if (combined.m_pBeginPtr == nullptr) {
        return nullptr;
    }
    for (const CCmMessageBlock* pMb = this; pMb != nullptr; pMb = pMb->m_pNext) {
        const char* pRead = pMb->GetTopLevelReadPtr();
        if (pRead == nullptr) {
            std::memset(combined.m_pWritePtr, 0, pMb->GetTopLevelLength());
        }
        combined.Write(pRead, pMb->GetTopLevelLength());
    }
    return combined.DuplicateChained();
}

uint32_t CCmMessageBlock::FillIov(const CCmMessageBlock* aMb, iovec* aIov, unsigned int aMax) {
    uint32_t dwFilled = 0;
    for (; aMb != nullptr && aIov != nullptr && dwFilled < aMax; aMb = aMb->m_pNext) {
        if (aMb->GetTopLevelLength() != 0) {
            aIov[dwFilled].iov_base = aMb->GetTopLevelReadPtr();
            aIov[dwFilled].iov_len = aMb->GetTopLevelLength();
            ++dwFilled;
        }
    }
    return dwFilled;
}

CmResult CCmMessageBlock::Peek(unsigned char* pPeekBuffer, unsigned int nPeekLen,
                               unsigned int nOffset) const {
    if (nPeekLen == 0) {
        return CM_OK;
    }
    CM_ASSERTE_RETURN_LINE(pPeekBuffer, CM_ERROR_FAILURE, 703);
    CM_ASSERTE_RETURN_(HasReadableBytes(this, uint64_t{nPeekLen} + nOffset),
                       "nPeekLen + nOffset <= this->GetChainedLength()", CM_ERROR_FAILURE, __FILE__,
                       704);
    const auto pfnCopyOut = [&](const CCmMessageBlock& aMb, unsigned int aFrom, unsigned int aLen) {
        std::memmove(pPeekBuffer, aMb.m_pReadPtr + aFrom, aLen);
        pPeekBuffer += aLen;
        return CM_OK;
    };
    return ForEachPiece(this, nOffset, nPeekLen, 748, pfnCopyOut);
}

CmResult CCmMessageBlock::Update(const unsigned char* pSrc, unsigned int nSrcLen,
                                 unsigned int nOffset) {
    if (nSrcLen == 0) {
        return CM_OK;
    }
    CM_ASSERTE_RETURN_LINE(pSrc, CM_ERROR_FAILURE, 648);
    CM_ASSERTE_RETURN_(HasReadableBytes(this, uint64_t{nSrcLen} + nOffset),
                       "nSrcLen + nOffset <= this->GetChainedLength()", CM_ERROR_FAILURE, __FILE__,
                       649);
    // All locks are looked at before the first byte is written.
    const auto pfnCheck = [](const CCmMessageBlock& aMb, unsigned int, unsigned int) {
        return aMb.GetTopLevelReadPtr() != nullptr ? CM_OK : CM_ERROR_FAILURE;
    };
    const CmResult rv = ForEachPiece(this, nOffset, nSrcLen, 693, pfnCheck);
    if (CM_FAILED(rv)) {
        return rv;
    }
    const auto pfnCopyIn = [&](CCmMessageBlock& aMb, unsigned int aFrom, unsigned int aLen) {
        std::memmove(aMb.m_pReadPtr + aFrom, pSrc, aLen);
        pSrc += aLen;
        return CM_OK;
    };
    return ForEachPiece(this, nOffset, nSrcLen, 693, pfnCopyIn);
}

}  // namespace UTIL_NS
