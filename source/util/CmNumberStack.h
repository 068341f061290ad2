// A stack that needs no lock; internal.
#ifndef CM_NUMBER_STACK_H
#define CM_NUMBER_STACK_H

#include <cstdint>

#include "CmAtomic.h"

namespace UTIL_NS {

// A stack of numbers below 2^32 - 1 without a lock. The links lie outside what the numbers stand
// for, in memory that is always there: Pop may read the link of a number that another thread has
// just popped and whose memory it gave back. It notices by the tag, which every change counts up.
//
// Push is a release and Pop an acquire: who pops a number comes after all that was done with its
// memory before it was pushed. Every change is a read-modify-write, so this holds across those in
// between.
class CCmNumberStack {
  public:
    static constexpr uint32_t NONE = UINT32_MAX;

    // aLinks: atomic numbers, one for each, the same for every stack that the numbers are in.
    template <class LinksType>
    void Push(uint32_t aNumber, LinksType aLinks) {
        uint64_t ullHead = m_ullHead.load(std::memory_order_relaxed);
        do {
            aLinks[aNumber].store(FirstOf(ullHead), std::memory_order_relaxed);
        } while (!m_ullHead.compare_exchange_weak(ullHead, After(ullHead, aNumber),
                                                  std::memory_order_release,
                                                  std::memory_order_relaxed));
    }
    // NONE: it is empty.
    template <class LinksType>
    uint32_t Pop(LinksType aLinks) {
        uint64_t ullHead = m_ullHead.load(std::memory_order_acquire);
        uint32_t dwNext = NONE;
        do {
            if (FirstOf(ullHead) == NONE) {
                return NONE;
            }
            dwNext = aLinks[FirstOf(ullHead)].load(std::memory_order_relaxed);
        } while (!m_ullHead.compare_exchange_weak(
            ullHead, After(ullHead, dwNext), std::memory_order_acquire, std::memory_order_acquire));
        return FirstOf(ullHead);
    }
    // The first of all, or NONE. They are linked, up to NONE, and the caller's from then on.
    uint32_t PopAll() {
        uint64_t ullHead = m_ullHead.load(std::memory_order_relaxed);
        while (!m_ullHead.compare_exchange_weak(
            ullHead, After(ullHead, NONE), std::memory_order_acquire, std::memory_order_relaxed)) {
        }
        return FirstOf(ullHead);
    }

  private:
    // The number is stored plus one, so that zeros are an empty stack.
    static uint32_t FirstOf(uint64_t aHead) { return static_cast<uint32_t>(aHead) - 1; }
    static uint64_t After(uint64_t aHead, uint32_t aFirst) {
        return (((aHead >> 32) + 1) << 32) | static_cast<uint32_t>(aFirst + 1);
    }

    CmStd::atomic<uint64_t> m_ullHead{0};
};

}  // namespace UTIL_NS

#endif  // CM_NUMBER_STACK_H
