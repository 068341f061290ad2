// Where the search of a long list of timers begins; internal.
#ifndef CM_TIMER_MARKS_H
#define CM_TIMER_MARKS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "CmBase.h"

namespace UTIL_NS {

// Marks on some nodes of a sorted list, ordered by the nodes' keys; no two have the same key. The
// list's owner adds them on nodes chosen at random, and begins a search at the first mark that is
// not before what it looks for: a few steps from there, whatever the length of the list.
//
// A mark is a hint, so nobody takes it back: when its node leaves the list, it stays, until a
// search or a full chunk comes upon it and asks HoldsType, as holds(node, key), whether the node is
// in the list and has that key. A node that has a mark may therefore be looked at as long as the
// marks live, in the list or not. For want of memory a mark is left out.
template <class IteratorType, class HoldsType>
class CCmTimerMarksT {
  public:
    // The node of the first mark that holds and whose key is not less than aKey; aEnd when there is
    // none. Drops the marks on its way that do not hold.
    IteratorType Find(int64_t aKey, IteratorType aEnd) noexcept {
        for (size_t i = ChunkOf(aKey); i < m_nUsed;) {
            CChunk& chunk = *m_Chunks[i].m_pChunk;
            const size_t nMark = chunk.CountBelow(aKey);
            if (nMark == chunk.m_nCount) {
                ++i;
            } else if (CM_LIKELY(chunk.Holds(nMark))) {
                return chunk.m_Nodes[nMark];
            } else {
                chunk.DropFrom(nMark);
                if (chunk.m_nCount == 0) {
                    Release(i);
                }
            }
        }
        return aEnd;
    }

    // Marks a node. A mark that has the same key goes over to it.
    void Add(int64_t aKey, IteratorType aNode) noexcept {
        if (CM_UNLIKELY(m_nUsed == 0)) {
            if (!HaveSpare()) {
                return;
            }
            m_nUsed = 1;
        }
        CChunk* pChunk = m_Chunks[ChunkOf(aKey)].m_pChunk.get();
        if (CM_UNLIKELY(pChunk->m_nCount == CHUNK_SIZE)) {
            if (!MakeRoom(aKey)) {
                return;
            }
            pChunk = m_Chunks[ChunkOf(aKey)].m_pChunk.get();
        }
        pChunk->Put(aKey, aNode);
    }

  private:
    static constexpr size_t CHUNK_SIZE = 64;
    static constexpr size_t STRIDE = 8;                      // its square root
    static constexpr size_t MOST_KEPT = CHUNK_SIZE / 4 * 3;  // in a chunk that need not be split
    static constexpr int64_t NO_KEY = INT64_MAX;             // where there is no mark
    static_assert(STRIDE * STRIDE == CHUNK_SIZE);

    struct CChunk {
        CChunk() { std::fill_n(m_Keys, CHUNK_SIZE, int64_t{NO_KEY}); }

        // How many keys are less. No step depends on a comparison, which could only be guessed.
        size_t CountBelow(int64_t aKey) const {
            const size_t nRow = CountBelow(&m_Keys[STRIDE - 1], STRIDE, aKey);
            if (CM_UNLIKELY(nRow == STRIDE)) {
                return CHUNK_SIZE;
            }
            return nRow * STRIDE + CountBelow(&m_Keys[nRow * STRIDE], 1, aKey);
        }
        bool Holds(size_t aMark) const { return HoldsType()(m_Nodes[aMark], m_Keys[aMark]); }
        // There is room.
        void Put(int64_t aKey, IteratorType aNode) {
            const size_t nMark = CountBelow(aKey);
            if (nMark == m_nCount || m_Keys[nMark] != aKey) {
                std::copy_backward(m_Keys + nMark, m_Keys + m_nCount, m_Keys + m_nCount + 1);
                std::copy_backward(m_Nodes + nMark, m_Nodes + m_nCount, m_Nodes + m_nCount + 1);
                m_Keys[nMark] = aKey;
                ++m_nCount;
            }
            m_Nodes[nMark] = aNode;
        }
        // Drops the marks from aMark on up to the next one that holds.
        void DropFrom(size_t aMark) {
            size_t nNext = aMark + 1;
            while (nNext < m_nCount && !Holds(nNext)) {
                ++nNext;
            }
            std::copy(m_Nodes + nNext, m_Nodes + m_nCount, m_Nodes + aMark);
            Cut(std::copy(m_Keys + nNext, m_Keys + m_nCount, m_Keys + aMark));
        }
        // Drops all marks that do not hold.
        void Compact() {
            size_t nKept = 0;
            for (size_t i = 0; i < m_nCount; ++i) {
                if (Holds(i)) {
                    m_Keys[nKept] = m_Keys[i];
                    m_Nodes[nKept] = m_Nodes[i];
                    ++nKept;
                }
            }
            Cut(m_Keys + nKept);
        }
        // Moves the upper half to aUpper, which is empty.
        void SplitTo(CChunk& aUpper) {
            const size_t nHalf = m_nCount / 2;
            std::copy(m_Nodes + nHalf, m_Nodes + m_nCount, aUpper.m_Nodes);
            std::copy(m_Keys + nHalf, m_Keys + m_nCount, aUpper.m_Keys);
            aUpper.m_nCount = m_nCount - nHalf;
            Cut(m_Keys + nHalf);
        }

        int64_t m_Keys[CHUNK_SIZE];
        IteratorType m_Nodes[CHUNK_SIZE];
        size_t m_nCount = 0;

      private:
        // Of a column of keys, the first STRIDE.
        static size_t CountBelow(const int64_t* aKeys, size_t aStride, int64_t aKey) {
            const auto fnIsBelow = [=](size_t i) { return size_t{aKeys[i * aStride] < aKey}; };
            static_assert(STRIDE == 8);
            return ((fnIsBelow(0) + fnIsBelow(1)) + (fnIsBelow(2) + fnIsBelow(3))) +
                   ((fnIsBelow(4) + fnIsBelow(5)) + (fnIsBelow(6) + fnIsBelow(7)));
        }
        void Cut(int64_t* aEnd) {
            std::fill(aEnd, m_Keys + m_nCount, int64_t{NO_KEY});
            m_nCount = static_cast<size_t>(aEnd - m_Keys);
        }
    };
    struct CChunkFrom {
        int64_t m_llFrom = 0;  // keys from here on up to that of the next chunk; the first has all
        std::unique_ptr<CChunk> m_pChunk;  // before it
    };

    // The chunk where a key is or belongs; m_nUsed is not 0, or nobody looks at the result.
    size_t ChunkOf(int64_t aKey) const {
        const CChunkFrom* pFirst = m_Chunks.data();
        for (size_t nLeft = m_nUsed; nLeft > 1;) {
            const size_t nHalf = nLeft / 2;
            pFirst += pFirst[nHalf].m_llFrom <= aKey ? nHalf : 0;
            nLeft -= nHalf;
        }
        return static_cast<size_t>(pFirst - m_Chunks.data());
    }
    // Makes room in the chunk of aKey, which is full; false when that takes memory and there is
    // none. Looks through two other chunks before one is added: so the marks that do not hold never
    // outnumber the others for long, also where no search comes by.
    bool MakeRoom(int64_t aKey) noexcept {
        CChunk& chunk = *m_Chunks[ChunkOf(aKey)].m_pChunk;
        chunk.Compact();
        if (chunk.m_nCount <= MOST_KEPT) {
            return true;
        }
        for (int i = 0; i < 2; ++i) {
            m_nCursor = m_nCursor + 1 < m_nUsed ? m_nCursor + 1 : 0;
            m_Chunks[m_nCursor].m_pChunk->Compact();
            if (m_Chunks[m_nCursor].m_pChunk->m_nCount == 0) {
                Release(m_nCursor);
            }
        }
        if (!HaveSpare()) {
            return false;
        }
        CChunkFrom& spare = m_Chunks[m_nUsed];
        chunk.SplitTo(*spare.m_pChunk);
        spare.m_llFrom = spare.m_pChunk->m_Keys[0];
        const auto itNew = m_Chunks.begin() + static_cast<ptrdiff_t>(m_nUsed);
        const auto itAfter = m_Chunks.begin() + static_cast<ptrdiff_t>(ChunkOf(aKey) + 1);
        std::rotate(itAfter, itNew, itNew + 1);
        ++m_nUsed;
        return true;
    }
    // An empty chunk after those in use.
    bool HaveSpare() noexcept {
        if (m_nUsed < m_Chunks.size()) {
            return true;
        }
        try {
            m_Chunks.push_back({0, std::make_unique<CChunk>()});
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }
    // An empty chunk becomes a spare one.
    void Release(size_t aChunk) {
        const auto itChunk = m_Chunks.begin() + static_cast<ptrdiff_t>(aChunk);
        std::rotate(itChunk, itChunk + 1, m_Chunks.begin() + static_cast<ptrdiff_t>(m_nUsed));
        --m_nUsed;
    }

    std::vector<CChunkFrom> m_Chunks;  // ascending; from m_nUsed on empty ones for later
    size_t m_nUsed = 0;
    size_t m_nCursor = 0;  // the chunk that was looked through last
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_MARKS_H
