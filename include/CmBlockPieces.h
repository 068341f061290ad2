/// Message block chains as ranges of std::string_view, and chains made from pieces.
///
///     CCmChainPtr chain = CmMakeChain({header, payload});
///     for (std::string_view piece : CCmPieces(chain.get())) { crc.Add(piece); }
/// \file
#ifndef CM_BLOCK_PIECES_H
#define CM_BLOCK_PIECES_H

#include <climits>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string_view>

#include "CmBase.h"
#include "CmDataBlock.h"
#include "CmMessageBlock.h"

namespace UTIL_NS {

/// How a CCmChainPtr ends its chain. The blocks must be DUPLICATED, as those that operations of
/// CCmMessageBlock and the functions below return are.
struct CCmChainEnd {
    /// Frees the chain; null is accepted.
    void operator()(CCmMessageBlock* aChain) const { CCmMessageBlock::DestroyChained(aChain); }
};
/// Owns a chain, as other unique_ptrs own their objects.
typedef std::unique_ptr<CCmMessageBlock, CCmChainEnd> CCmChainPtr;

/// The readable bytes of one block; none when it is locked for reading. Valid until the block
/// reads, writes or ends.
inline std::string_view CmPieceOf(const CCmMessageBlock& aBlock) {
    if (!CM_BIT_DISABLED(aBlock.GetFlag(), CCmMessageBlock::READ_LOCKED) ||
        aBlock.GetTopLevelLength() == 0) {
        return std::string_view();
    }
    return std::string_view(aBlock.GetTopLevelReadPtr(), aBlock.GetTopLevelLength());
}

/// The readable pieces of a chain in their order; blocks that have none, or are locked for reading,
/// are left out. Not owned; the chain must not change meanwhile. No allocation.
class CCmPieces {
  public:
    /// What a range-based for needs; a forward iterator.
    class const_iterator {
      public:
        /// What algorithms ask for.
        typedef std::forward_iterator_tag iterator_category;
        /// A piece.
        typedef std::string_view value_type;
        /// Between two iterators of one chain.
        typedef std::ptrdiff_t difference_type;
        /// For algorithms; nothing here returns one.
        typedef const std::string_view* pointer;
        /// A piece by value: none is kept anywhere.
        typedef std::string_view reference;

        /// The end.
        const_iterator() = default;
        /// The first piece of aBlock and what comes after it; null is the end.
        explicit const_iterator(const CCmMessageBlock* aBlock) : m_pBlock(aBlock) { Skip(); }

        /// The piece.
        std::string_view operator*() const { return CmPieceOf(*m_pBlock); }
        /// On to the next piece.
        const_iterator& operator++() {
            m_pBlock = m_pBlock->GetNext();
            Skip();
            return *this;
        }
        /// The same, returning where it was.
        const_iterator operator++(int) {
            const const_iterator it = *this;
            ++*this;
            return it;
        }
        /// The block that the piece belongs to.
        const CCmMessageBlock* Block() const { return m_pBlock; }

        /// Whether both stand at one block, or both at the end.
        friend bool operator==(const const_iterator& aLeft, const const_iterator& aRight) {
            return aLeft.m_pBlock == aRight.m_pBlock;
        }
        /// Whether they stand at different places.
        friend bool operator!=(const const_iterator& aLeft, const const_iterator& aRight) {
            return !(aLeft == aRight);
        }

      private:
        void Skip() {
            while (m_pBlock != nullptr && CmPieceOf(*m_pBlock).empty()) {
                m_pBlock = m_pBlock->GetNext();
            }
        }

        const CCmMessageBlock* m_pBlock = nullptr;
    };
    /// The same: pieces are read only.
    typedef const_iterator iterator;

    /// aChain: may be null, which has no pieces.
    explicit CCmPieces(const CCmMessageBlock* aChain) : m_pChain(aChain) {}

    /// The first piece.
    const_iterator begin() const { return const_iterator(m_pChain); }
    /// After the last piece.
    const_iterator end() const { return const_iterator(); }
    /// Whether there is none.
    bool empty() const { return begin() == end(); }

  private:
    const CCmMessageBlock* m_pChain;
};

/// A block of its own with a copy of aPiece; null when memory ran out, or for a piece that is empty
/// or longer than one block can be.
inline CCmChainPtr CmMakeBlock(std::string_view aPiece) {
    if (aPiece.empty() || aPiece.size() > UINT_MAX) {
        return nullptr;
    }
    const unsigned int dwSize = static_cast<unsigned int>(aPiece.size());
    CCmMessageBlock block(dwSize);
    if (CM_FAILED(block.Write(aPiece.data(), dwSize))) {
        return nullptr;
    }
    return CCmChainPtr(block.DuplicateTopLevel());
}

/// A chain with a copy of each piece in a block of its own; empty pieces take no block. Null when
/// there is no byte at all, or when memory ran out: then nothing is left.
template <class Pieces>
CCmChainPtr CmMakeChain(const Pieces& aPieces) {
    CCmChainPtr pChain;
    CCmMessageBlock* pLast = nullptr;
    for (const auto& piece : aPieces) {
        const std::string_view text(piece);
        if (text.empty()) {
            continue;
        }
        CCmChainPtr pBlock = CmMakeBlock(text);
        if (pBlock == nullptr) {
            return nullptr;
        }
        CCmMessageBlock* pNew = pBlock.release();
        if (pLast == nullptr) {
            pChain.reset(pNew);
        } else {
            pLast->Append(pNew);
        }
        pLast = pNew;
    }
    return pChain;
}
/// The same from a list in braces.
inline CCmChainPtr CmMakeChain(std::initializer_list<std::string_view> aPieces) {
    return CmMakeChain<std::initializer_list<std::string_view>>(aPieces);
}

/// A block over aLength bytes of aData from aOffset on, which it shares: no byte is copied, and
/// aData gets one more reference. It is locked for writing, since what follows the area may belong
/// to others (ClearLock lifts that). Null when the area does not lie within aData, is empty, or
/// when memory ran out.
inline CCmChainPtr CmMakeBlockOfArea(CCmDataBlock& aData, uint32_t aOffset, uint32_t aLength) {
    if (aLength == 0 || aOffset > aData.m_dwSize || aLength > aData.m_dwSize - aOffset) {
        return nullptr;
    }
    CCmMessageBlock block(&aData, 0, aOffset + aLength);
    if (aOffset > 0 && CM_FAILED(block.AdvanceChainedReadPtr(aOffset))) {
        return nullptr;
    }
    CCmChainPtr pBlock(block.DuplicateTopLevel());
    if (pBlock != nullptr) {
        pBlock->SetLock(CCmMessageBlock::WRITE_LOCKED);
    }
    return pBlock;
}

/// Whether anybody else holds a reference on aData, whose holder asks: false means that its bytes
/// may be changed without anybody seeing it. May be outdated when it is read, if others hold one.
inline bool CmIsShared(CCmDataBlock& aData) {
    return aData.GetReference() > 1;
}

}  // namespace UTIL_NS

#endif  // CM_BLOCK_PIECES_H
