/// CCmMessageBlock: blocks of network data, chained into one byte stream.
/// \file
#ifndef CM_MESSAGE_BLOCK_H
#define CM_MESSAGE_BLOCK_H

#include <sys/uio.h>

#include <type_traits>

#include "CmBase.h"
#include "CmDataBlock.h"
#include "CmTrace.h"
#include "CmUtilTemplates.h"

/// True when none of aBit is set in aFlags.
#define CM_BIT_DISABLED(aFlags, aBit) (((aFlags) & (aBit)) == 0)

namespace UTIL_NS {

/// A view of a byte area, linked to the next block of its chain:
///
///     block A                               block B
///     +---------------------------------+   +---------------------------------+
///     | m_pNext ------------------------|-->| m_pNext = null                  |
///     | begin   read    write     end   |   | begin=read        write = end   |
///     +---|-------|-------|---------|---+   +---|-------------------|---------+
///         v       v       v         v           v                   v
///        [ consumed | readable | free ]         [     readable      ]
///
/// The area is either a CCmDataBlock, which several blocks may share, or memory of the caller's
/// (EXTERNAL_DATA), which must outlive the block. Begin <= read <= write <= end; an empty block
/// has no area. The ...Chained operations and Read, Write, Peek and Update treat this block and
/// all after it as one stream.
///
/// Ownership: a block belongs to whoever created it. Blocks that an operation of this class
/// returns are on the heap and carry DUPLICATED; DestroyChained and ReclaimGarbage free those and
/// leave all others alone. A block does not own its successor unless m_bRtpChainedFlag is set.
///
/// Results: CM_OK; CM_ERROR_FAILURE when a lock forbids the operation, the area is set already or
/// a bounds check failed; CM_ERROR_NOT_AVAILABLE when one block has too little room;
/// CM_ERROR_PARTIAL_DATA when the chain ended first. What an assertion refuses changes nothing.
/// Out-counts may be null. Chains of any length are walked without recursion.
///
/// A chain is used by one thread at a time; blocks that share a data block may live on different
/// threads. Operations that a null chain has a result for exist as static forms as well, which
/// take the chain and accept null.
class CM_UTIL_EXPORT CCmMessageBlock {
  public:
    /// The area is the caller's memory. Set by SetData.
    static constexpr unsigned long EXTERNAL_DATA = 0x1;
    /// Asks SetData for an area of its own although a data pointer is given; never kept.
    static constexpr unsigned long ALLOCATE_DATA = 0x2;
    /// Nothing may be read from the block.
    static constexpr unsigned long READ_LOCKED = 0x100;
    /// Nothing may be written to the block.
    static constexpr unsigned long WRITE_LOCKED = 0x200;
    /// Cleared by every SetData: the two locks among them.
    static constexpr unsigned long INTERNAL_FLAGS = 0xFF00;
    /// The block was allocated by an operation of this class.
    static constexpr unsigned long DUPLICATED = 0x20000;

    /// An empty block.
    CCmMessageBlock() = default;
    /// As SetData with the same arguments; where that fails, the block stays empty.
    explicit CCmMessageBlock(unsigned int aSize, const char* aData = nullptr,
                             unsigned long aFlag = 0, unsigned int aAdvanceWritePtr = 0);
    /// The same for the other form of SetData.
    explicit CCmMessageBlock(CCmDataBlock* aDb, unsigned long aFlag = 0,
                             unsigned int aAdvanceWritePtr = 0);
    /// The first form for a size of any integer type; literal zeros, which might be either form's,
    /// come here. The size is taken modulo 2^32.
    template <class Size, std::enable_if_t<std::is_integral<Size>::value, int> = 0>
    explicit CCmMessageBlock(Size aSize, const char* aData = nullptr, unsigned long aFlag = 0,
                             unsigned int aAdvanceWritePtr = 0)
        : CCmMessageBlock(static_cast<unsigned int>(aSize), aData, aFlag, aAdvanceWritePtr) {}
    CCmMessageBlock(const CCmMessageBlock&) = delete;
    CCmMessageBlock& operator=(const CCmMessageBlock&) = delete;
    /// Touches the rest of the chain only when m_bRtpChainedFlag is set.
    ~CCmMessageBlock() {
        if (CM_UNLIKELY(m_bRtpChainedFlag)) {
            DestroyOwned_i();
        }
    }

    /// Sets the area, once. Without aData, or with ALLOCATE_DATA, it is a new data block of aSize
    /// uninitialised bytes (aData is not copied; size 0 leaves the block empty); otherwise it is
    /// the caller's aSize bytes at aData. aAdvanceWritePtr: how many bytes count as written.
    /// CM_ERROR_FAILURE when the area is set already, CM_ERROR_OUT_OF_MEMORY with the block
    /// unchanged.
    CmResult SetData(unsigned int aSize, const char* aData, unsigned long aFlag,
                     unsigned int aAdvanceWritePtr);
    /// Shares aDb by a reference of its own (null leaves the block empty).
    CmResult SetData(CCmDataBlock* aDb, unsigned long aFlag, unsigned int aAdvanceWritePtr);

    /// Copies aCount bytes out of the chain. aDst: null skips without copying. aAdvance: 0 peeks,
    /// anything else consumes what was read, a partial read included. A locked block stops the
    /// reading with CM_ERROR_FAILURE; when that is this block, *aBytesRead is untouched.
    CmResult Read(void* aDst, unsigned int aCount, unsigned int* aBytesRead = nullptr,
                  signed char aAdvance = 1);
    /// Copies aCount bytes after the written ones, block by block; what was placed before the
    /// chain ended or a locked block stopped it stays. A null aSrc advances without copying,
    /// within this block only: where that does not reach, the result is CM_ERROR_PARTIAL_DATA.
    CmResult Write(const void* aSrc, unsigned int aCount, unsigned int* aBytesWritten = nullptr);

    /// Readable bytes of the chain; the low 32 bits of the sum.
    uint32_t GetChainedLength() const;
    /// Free bytes of the chain; the low 32 bits of the sum.
    uint32_t GetChainedSpace() const;

    /// Links aMb, and what follows it, after the last block. Refused with an assertion when
    /// that would close a circle: aMb is in this chain, or this chain in aMb's.
    void Append(CCmMessageBlock* aMb);

    /// Consumes aCount bytes: Read without a destination.
    CmResult AdvanceChainedReadPtr(unsigned int aCount, unsigned int* aAdvanced = nullptr);
    /// Counts aCount bytes after the written ones as written, over as many blocks as it takes.
    /// Stops with CM_ERROR_PARTIAL_DATA at a block that has been read from, and with
    /// CM_ERROR_FAILURE at a locked one, be it this or a later one; what was counted before stays.
    /// A count of 0 is CM_ERROR_PARTIAL_DATA.
    CmResult AdvanceChainedWritePtr(unsigned int aCount, unsigned int* aAdvanced = nullptr);
    /// The same for this block alone: all of aStep or, with CM_ERROR_NOT_AVAILABLE, nothing.
    CmResult AdvanceTopLevelWritePtr(unsigned int aStep);

    /// Empties the chain for writing: sets every read pointer to its own block's begin and every
    /// write pointer to the first block's begin. A later block with an area of its own thereby
    /// loses its write pointer and counts as without readable and free bytes.
    void RewindChained();
    /// The same; aMb may be null.
    static void RewindChained(CCmMessageBlock* aMb);
    /// Frees the DUPLICATED blocks of the chain; this may be one of them. A block that is left
    /// alone in front of a freed one loses its link to it.
    void DestroyChained();
    /// The same; aMb may be null.
    static void DestroyChained(CCmMessageBlock* aMb);

    /// This block alone on the heap, or null when memory ran out: shares the data block, copies
    /// memory of the caller's; keeps the read and write positions and no locks.
    CCmMessageBlock* DuplicateTopLevel() const;
    /// The same for the whole chain.
    CCmMessageBlock* DuplicateChained() const;
    /// The same; null gives null.
    static CCmMessageBlock* DuplicateChained(const CCmMessageBlock* aMb);
    /// Cuts the chain after its first aStart readable bytes and returns the rest: blocks that
    /// carry DUPLICATED as they are, duplicates of others, which stay with their owner, unlinked.
    /// Null, with nothing changed, when nothing follows the cut or memory ran out. A cut inside
    /// a block leaves its area to both chains: a write to the first chain, whose block has the rest
    /// of the area as free space, overwrites bytes of the second.
    CCmMessageBlock* Disjoint(unsigned int aStart);
    /// The same; null gives null.
    static CCmMessageBlock* Disjoint(CCmMessageBlock* aMb, unsigned int aStart);
    /// Drops the empty blocks in front, freeing those that carry DUPLICATED (this may be one), and
    /// returns the first that is not empty, or null: the caller's new chain head. Refused, with
    /// null, when m_bRtpChainedFlag is set on this block. A block in front of a freed one loses its
    /// link to it.
    CCmMessageBlock* ReclaimGarbage();

    /// All readable bytes; locked blocks contribute none. Empty when memory ran out.
    CCmString FlattenChained() const;
    /// The same; null gives an empty text.
    static CCmString FlattenChained(const CCmMessageBlock* aMb);
    /// A new chain with all readable bytes in one block (zeros for those of a locked block), or a
    /// duplicate of this chain when they lie in its first block already. Null when memory ran out
    /// or the bytes exceed what one block can hold.
    CCmMessageBlock* CombineSingleBuffer() const;
    /// Describes the readable pieces in aIov, at most aMax, and returns how many. Empty blocks take
    /// no entry, a locked block one with a null base; a null aIov is not filled.
    uint32_t FillIov(iovec* aIov, unsigned int aMax) const;
    /// The same; a null aMb fills none.
    static uint32_t FillIov(const CCmMessageBlock* aMb, iovec* aIov, unsigned int aMax);

    /// Copies out nPeekLen bytes that start nOffset readable bytes into the chain. No pointer
    /// moves, and locks are not looked at. All or nothing: CM_ERROR_FAILURE when the range exceeds
    /// the readable bytes.
    CmResult Peek(unsigned char* pPeekBuffer, unsigned int nPeekLen, unsigned int nOffset) const;
    /// Copies nSrcLen bytes over those that start nOffset readable bytes into the chain. No pointer
    /// moves. All or nothing: CM_ERROR_FAILURE when the range exceeds the readable bytes or when a
    /// block of it is read-locked.
    CmResult Update(const unsigned char* pSrc, unsigned int nSrcLen, unsigned int nOffset);

    /// Sets locks of this block; aLocks: READ_LOCKED, WRITE_LOCKED or both.
    void SetLock(unsigned long aLocks) { m_Flag |= aLocks & (READ_LOCKED | WRITE_LOCKED); }
    /// Lifts locks of this block; aLocks as for SetLock.
    void ClearLock(unsigned long aLocks) { m_Flag &= ~(aLocks & (READ_LOCKED | WRITE_LOCKED)); }

    /// The block after this one; null at the end of the chain.
    CCmMessageBlock* GetNext() const { return m_pNext; }
    /// The flags of this block.
    unsigned long GetFlag() const { return m_Flag; }
    /// Readable bytes of this block.
    uint32_t GetTopLevelLength() const;
    /// Free bytes of this block.
    uint32_t GetTopLevelSpace() const;
    /// Whether its data block has other holders; memory of the caller's has none that are known.
    /// After false, what others read of it has been read, and its bytes may be changed.
    bool IsShared() const {
        return m_pDataBlock.ParaIn() != nullptr && m_pDataBlock->GetReference() > 1;
    }
    /// The first unread byte; null, after an assertion, when the block is read-locked.
    char* GetTopLevelReadPtr() const;
    /// The first unwritten byte; null, after an assertion, when the block is write-locked.
    char* GetTopLevelWritePtr() const;

  private:
    class CM_UTIL_HIDDEN CBlockSteps;  // internal

    // A duplicate that shares the data block.
    CM_UTIL_HIDDEN CCmMessageBlock(const CCmMessageBlock& aShared, unsigned long aFlag);
    // The destructor's part for a block that owns its successor.
    void DestroyOwned_i();

    CCmMessageBlock* m_pNext = nullptr;
    CCmComAutoPtr<CCmDataBlock> m_pDataBlock;
    char* m_pReadPtr = nullptr;   // first unread byte
    char* m_pWritePtr = nullptr;  // first unwritten byte
    char* m_pBeginPtr = nullptr;
    char* m_pEndPtr = nullptr;  // one past the area
    unsigned long m_Flag = 0;

  public:
    /// Set by users that build owned chains on the heap: this block deletes its successor.
    bool m_bRtpChainedFlag = false;
};

inline uint32_t CCmMessageBlock::GetTopLevelLength() const {
    // A write pointer that a rewind took from another area lies outside read to end.
    const uintptr_t nLength =
        reinterpret_cast<uintptr_t>(m_pWritePtr) - reinterpret_cast<uintptr_t>(m_pReadPtr);
    return CM_LIKELY(nLength <= static_cast<uintptr_t>(m_pEndPtr - m_pReadPtr))
               ? static_cast<uint32_t>(nLength)
               : 0;
}

inline uint32_t CCmMessageBlock::GetTopLevelSpace() const {
    const uintptr_t nSpace =
        reinterpret_cast<uintptr_t>(m_pEndPtr) - reinterpret_cast<uintptr_t>(m_pWritePtr);
    return CM_LIKELY(nSpace <= static_cast<uintptr_t>(m_pEndPtr - m_pBeginPtr))
               ? static_cast<uint32_t>(nSpace)
               : 0;
}

// The asserted texts are output; their line numbers are fixed.
inline char* CCmMessageBlock::GetTopLevelReadPtr() const {
    CM_ASSERTE_RETURN_AT(CM_BIT_DISABLED(m_Flag, READ_LOCKED), nullptr, "include/CmMessageBlock.h",
                         306);
    return m_pReadPtr;
}

inline char* CCmMessageBlock::GetTopLevelWritePtr() const {
    CM_ASSERTE_RETURN_AT(CM_BIT_DISABLED(m_Flag, WRITE_LOCKED), nullptr, "include/CmMessageBlock.h",
                         312);
    return m_pWritePtr;
}

inline CmResult CCmMessageBlock::AdvanceTopLevelWritePtr(unsigned int aStep) {
    CM_ASSERTE_RETURN_AT(CM_BIT_DISABLED(m_Flag, WRITE_LOCKED), CM_ERROR_FAILURE,
                         "include/CmMessageBlock.h", 318);
    CM_ASSERTE_RETURN_(GetTopLevelSpace() >= aStep, "(DWORD)(m_pEndPtr - m_pWritePtr) >= aStep",
                       CM_ERROR_NOT_AVAILABLE, "include/CmMessageBlock.h", 319);
    m_pWritePtr += aStep;
    return CM_OK;
}

inline void CCmMessageBlock::RewindChained() {
    RewindChained(this);
}

inline void CCmMessageBlock::DestroyChained() {
    DestroyChained(this);
}

inline CCmMessageBlock* CCmMessageBlock::DuplicateChained() const {
    return DuplicateChained(this);
}

inline CCmMessageBlock* CCmMessageBlock::Disjoint(CCmMessageBlock* aMb, unsigned int aStart) {
    return aMb != nullptr ? aMb->Disjoint(aStart) : nullptr;
}

inline CCmString CCmMessageBlock::FlattenChained() const {
    return FlattenChained(this);
}

inline uint32_t CCmMessageBlock::FillIov(iovec* aIov, unsigned int aMax) const {
    return FillIov(this, aIov, aMax);
}

}  // namespace UTIL_NS

#endif  // CM_MESSAGE_BLOCK_H
