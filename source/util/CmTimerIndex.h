// From a timer's handler to what its queue keeps for it; internal.
#ifndef CM_TIMER_INDEX_H
#define CM_TIMER_INDEX_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

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
    struct CEntry {
        ICmTimerHandler* m_pEh = nullptr;  // null: a free place
        ValueType m_Value{};
    };

    // The entry of aEh or, when it has none, the free place where it would be put; null when there
    // is no array yet. Valid until the next change.
    CEntry* Look(ICmTimerHandler* aEh) {
        return CM_LIKELY(m_pEntries != nullptr) ? &m_pEntries[PlaceOf(aEh)] : nullptr;
    }
    // Null when there is none. Valid until the next change.
    ValueType* Find(ICmTimerHandler* aEh) {
        CEntry* const pEntry = Look(aEh);
        return pEntry != nullptr && pEntry->m_pEh != nullptr ? &pEntry->m_Value : nullptr;
    }

    // Whether the next Insert does without memory.
    bool HasRoom() const { return m_nCount < m_nMost; }
    // Lets it. Throws std::bad_alloc, having changed nothing.
    void Reserve() {
        if (CM_UNLIKELY(!HasRoom())) {
            Grow();
        }
    }

    // Reserve comes first, unless an Erase made room; aEh is not in the index.
    void Insert(ICmTimerHandler* aEh, const ValueType& aValue) {
        Fill(m_pEntries[PlaceOf(aEh)], aEh, aValue);
    }
    // The same at the place that Look returned for aEh.
    void Fill(CEntry& aPlace, ICmTimerHandler* aEh, const ValueType& aValue) {
        aPlace.m_pEh = aEh;
        aPlace.m_Value = aValue;
        ++m_nCount;
    }

    // aEh is in the index.
    void Erase(ICmTimerHandler* aEh) { Erase(m_pEntries[PlaceOf(aEh)]); }
    // The entry that Look returned.
    void Erase(CEntry& aEntry) {
        // A free place ends every search that comes by: each entry from here to the next free
        // place is moved into the gap, and leaves the next one. An entry whose home lies after the
        // gap stays: a search for it does not come by, and would not find it there.
        size_t nGap = static_cast<size_t>(&aEntry - m_pEntries.get());
        for (size_t i = Next(nGap); m_pEntries[i].m_pEh != nullptr; i = Next(i)) {
            if (Distance(Home(m_pEntries[i].m_pEh), i) >= Distance(nGap, i)) {
                m_pEntries[nGap] = m_pEntries[i];
                nGap = i;
            }
        }
        m_pEntries[nGap].m_pEh = nullptr;
        --m_nCount;
    }

  private:
    static constexpr int LEAST_BITS = 4;  // of the number of places

    size_t Next(size_t aPlace) const { return (aPlace + 1) & m_nMask; }
    // How far it is forward, round the ring.
    size_t Distance(size_t aFrom, size_t aTo) const { return (aTo - aFrom) & m_nMask; }
    // Addresses differ in a few bits in the middle. The multiplier, 2^64 over the golden ratio,
    // makes the upper bits of the product depend on all of them. The exclusive-or comes first for
    // handlers at a fixed distance, such as 112 bytes: the multiples of some distances share few
    // upper bits.
    size_t Home(ICmTimerHandler* aEh) const {
        const auto nAddress = reinterpret_cast<uintptr_t>(aEh);
        return (nAddress ^ nAddress >> 7) * 0x9E3779B97F4A7C15 >> m_nShift;
    }
    // Where aEh is or, when it is not in the index, where it would be put.
    size_t PlaceOf(ICmTimerHandler* aEh) const {
        size_t nPlace = Home(aEh);
        while (m_pEntries[nPlace].m_pEh != aEh && m_pEntries[nPlace].m_pEh != nullptr) {
            nPlace = Next(nPlace);
        }
        return nPlace;
    }

    void Grow() {
        const size_t nOldPlaces = m_pEntries == nullptr ? 0 : m_nMask + 1;
        const size_t nPlaces = std::max(2 * nOldPlaces, size_t{1} << LEAST_BITS);
        auto pEntries = std::make_unique<CEntry[]>(nPlaces);
        pEntries.swap(m_pEntries);
        m_nShift = nOldPlaces == 0 ? 64 - LEAST_BITS : m_nShift - 1;
        m_nMask = nPlaces - 1;
        m_nMost = nPlaces / 2;
        for (size_t i = 0; i < nOldPlaces; ++i) {
            if (pEntries[i].m_pEh != nullptr) {
                m_pEntries[PlaceOf(pEntries[i].m_pEh)] = pEntries[i];
            }
        }
    }

    std::unique_ptr<CEntry[]> m_pEntries;  // none before the first Reserve, then m_nMask + 1
    size_t m_nMask = 0;                    // one less than a power of two
    size_t m_nCount = 0;                   // of the places that are taken
    size_t m_nMost = 0;                    // that may be: half of them
    int m_nShift = 0;                      // leaves the upper bits of a product: a place
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_INDEX_H
