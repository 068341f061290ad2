// Memory of small objects that one thread makes and another ends; internal.
//
// Events, the wrappers of synchronous sends and small data blocks come from here.
// Blocks travel back from the thread that frees to the thread that allocates in magazines of up to
// MAGAZINE_BLOCKS, so that most allocations and releases touch nothing that another thread uses.
//
//   thread cache     two magazines a size; no other thread looks into it
//   depot            full magazines of each size, and empty ones: stacks without a lock
//   chunks           CHUNK_SIZE bytes of blocks of one size, committed when they are first used
//   range            RANGE_SIZE bytes of addresses, reserved once, that all chunks are in: so the
//                    address of a block tells whether it came from here, and of which size it is
//
// No call waits for another thread. What does not fit (a larger object, a full range, a system that
// refuses memory, a thread that is past its end) comes from operator new, and Free tells the two
// apart by the address, so that memory of operator new may be given to it as well.
//
// Bound: RANGE_SIZE. A thread keeps two magazines of each size that it uses, until it ends. The
// depot gives wholly idle chunks back to the system when a thread ends, and when a worker finds, at
// most once a second, that they were not needed for a second (Tend).
//
// In the child of a fork the pool works on: its state is never half changed but for a trim, which
// such a child may lack for good. What other threads' caches held is lost to it.
#ifndef CM_BLOCK_POOL_H
#define CM_BLOCK_POOL_H

#include <cstddef>

namespace UTIL_NS {

class CCmBlockPool {
  public:
    static constexpr size_t LARGEST_BLOCK = 512;  // bytes
    static constexpr size_t RANGE_SIZE = size_t{32} << 20;
    static constexpr size_t CHUNK_SIZE = size_t{16} << 10;
    static constexpr unsigned MAGAZINE_BLOCKS = 63;

    // aSize bytes, aligned for every type that operator new without an alignment serves. Throws
    // std::bad_alloc. Any thread.
    static void* Allocate(size_t aSize);
    // The same; null when there is no memory.
    static void* AllocateOrNull(size_t aSize) noexcept;
    // Takes memory of the two above, or of operator new; null does nothing. A block that is free
    // already is left alone, with a line about it, where that shows. Any thread.
    static void Free(void* aMemory) noexcept;

    // For a worker that is about to wait: gives memory back that has been idle for TEND_SEC. True
    // when there is more that may become so, and nobody else has been told to look again after that
    // time. aHasTrimmed (may be null) is set when it has looked through what is idle, which takes
    // milliseconds where that is much. Any thread.
    static constexpr long TEND_SEC = 1;
    static bool Tend(bool* aHasTrimmed = nullptr);

    // The rest is for tests.
    //
    // Off: every allocation comes from operator new. It is on from the start unless the build says
    // otherwise (KELTO_BLOCK_POOL) or a sanitizer is in the program. The thread that turns it off
    // gives its cache up; no other may have one.
    static void SetOn(bool aIsOn);
    static bool IsOn();
    // Whether the memory came from the range.
    static bool IsFromHere(const void* aMemory);
    // Chunks that are committed now.
    static size_t Chunks();
    // Gives back every chunk that is wholly idle, with what the calling thread's cache holds.
    static void Trim();
};

}  // namespace UTIL_NS

#endif  // CM_BLOCK_POOL_H
