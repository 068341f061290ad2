// From a timer's handler to what its queue keeps for it; internal.
#ifndef CM_TIMER_INDEX_H
#define CM_TIMER_INDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "CmTimerQueueBase.h"

namespace UTIL_NS {

// A hash table in one array of places. An entry lies at the home of its handler or, when that is
// taken, at the first free place after it, the array being a ring: so a search begins at home and
// ends at the first free place. At most half of the places are taken, which keeps searches short
// and lets them end at all. The array never shrinks: as many entries as there ever were at a time
// can be put in again without memory.
template <class ValueType>
class CCmTimerHandlerIndexT {
  public:
    // Null when there is none. Valid until the next change.
    ValueType* Find(ICmTimerHandler* aEh) {
        if (m_nCount == 0) {
            return nullptr;  // there may be no array yet
        }
        CEntry& entry = m_Entries[PlaceOf(aEh)];
        return entry.m_pEh != nullptr ? &entry.m_Value : nullptr;
    }

    // Lets the next Insert do without memory. Throws std::bad_alloc, having changed nothing.
    void Reserve() {
        if (CM_UNLIKELY(2 * (m_nCount + 1) > m_Entries.size())) {
            Grow();
        }
    }

    // Reserve comes first, unless an Erase made room; aEh is not in the index.
    void Insert(ICmTimerHandler* aEh, const ValueType& aValue) {
        m_Entries[PlaceOf(aEh)] = CEntry{aEh, aValue};
        ++m_nCount;
    }

    // aEh is in the index.
    void Erase(ICmTimerHandler* aEh) {
        // A free place ends every search that comes by: each entry from here to the next free
        // place is moved into the gap, and leaves the next one. An entry whose home lies after the
        // gap stays: a search for it does not come by, and would not find it there.
        size_t nGap = PlaceOf(aEh);
        for (size_t i = Next(nGap); m_Entries[i].m_pEh != nullptr; i = Next(i)) {
            if (Distance(Home(m_Entries[i].m_pEh), i) >= Distance(nGap, i)) {
                m_Entries[nGap] = m_Entries[i];
                nGap = i;
            }
        }
        m_Entries[nGap].m_pEh = nullptr;
        --m_nCount;
    }

  private:
    static constexpr int LEAST_BITS = 4;  // of the number of places

    struct CEntry {
        ICmTimerHandler* m_pEh = nullptr;  // null: a free place
        ValueType m_Value{};
    };

    size_t Mask() const { return m_Entries.size() - 1; }
    size_t Next(size_t aPlace) const { return (aPlace + 1) & Mask(); }
    // How far it is forward, round the ring.
    size_t Distance(size_t aFrom, size_t aTo) const { return (aTo - aFrom) & Mask(); }
    // Addresses differ in a few bits in the middle. The multiplier, 2^64 over the golden ratio,
    // makes the upper bits of the product depend on all of them.
    size_t Home(ICmTimerHandler* aEh) const {
        return reinterpret_cast<uintptr_t>(aEh) * 0x9E3779B97F4A7C15 >> (64 - m_nBits);
    }
    // Where aEh is or, when it is not in the index, where it would be put.
    size_t PlaceOf(ICmTimerHandler* aEh) const {
        size_t nPlace = Home(aEh);
        while (m_Entries[nPlace].m_pEh != aEh && m_Entries[nPlace].m_pEh != nullptr) {
            nPlace = Next(nPlace);
        }
        return nPlace;
    }

    void Grow() {
        const int nBits = m_Entries.empty() ? LEAST_BITS : m_nBits + 1;
        std::vector<CEntry> entries(size_t{1} << nBits);
        entries.swap(m_Entries);
        m_nBits = nBits;
        for (const CEntry& entry : entries) {
            if (entry.m_pEh != nullptr) {
                m_Entries[PlaceOf(entry.m_pEh)] = entry;
            }
        }
    }

    std::vector<CEntry> m_Entries;  // none before the first Reserve, then 2^m_nBits
    size_t m_nCount = 0;            // of the places that are taken
    int m_nBits = 0;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_INDEX_H
