// The pool of blocks in tests. It is off in every test program, so that each allocation of the
// library is one of operator new, which tests count and make fail (Faults.h).
#ifndef TESTS_SUPPORT_BLOCK_POOL_H
#define TESTS_SUPPORT_BLOCK_POOL_H

#include "CmBlockPool.h"

namespace kelto_test {

// The pool is on while it lives, in every build, with nothing idle in it at first. Threads that
// allocate or free in between end before it does.
class ScopedBlockPool {
  public:
    ScopedBlockPool() {
        UTIL_NS::CCmBlockPool::SetOn(true);
        UTIL_NS::CCmBlockPool::Trim();
    }
    ~ScopedBlockPool() { UTIL_NS::CCmBlockPool::SetOn(false); }
    ScopedBlockPool(const ScopedBlockPool&) = delete;
    ScopedBlockPool& operator=(const ScopedBlockPool&) = delete;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_BLOCK_POOL_H
