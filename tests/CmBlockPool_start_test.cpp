// How the pool starts, once in a process: so each case is tried in a child, and the parent never
// uses it.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CmBlockPool.h"
#include "CmSystem.h"
#include "support/BlockPool.h"
#include "support/ChildProcess.h"
#include "support/FaultRows.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::Fault;
using kelto_test::LiveAllocations;
using kelto_test::Returned;
using kelto_test::ScopedBlockPool;
using kelto_test::ScopedEntry;
using kelto_test::StatusOfChild;
typedef CCmSystemTable T;

// Whether a new block comes from the pool; it is freed again.
bool IsServed() {
    void* const pBlock = CCmBlockPool::Allocate(64);
    const bool bIsFromHere = CCmBlockPool::IsFromHere(pBlock);
    CCmBlockPool::Free(pBlock);
    return bIsFromHere;
}

// Fails once, and works from the next allocation on.
template <class InjectType>
void CheckStart(InjectType aInject) {
    EXPECT_EQ(0, StatusOfChild([&aInject] {
                  const ScopedBlockPool pool;
                  const long lBefore = LiveAllocations();
                  {
                      const auto pPlan = aInject(1, Failing::ONCE);
                      EXPECT_FALSE(IsServed());
                      EXPECT_TRUE(IsServed());
                      EXPECT_LE(1u, pPlan->calls());
                  }
                  EXPECT_TRUE(IsServed());
                  EXPECT_EQ(lBefore, LiveAllocations());
              }));
}

TEST(CmBlockPoolStart, DoesWithoutThePool_WhileThereAreNoAddresses) {
    CheckStart(Fault<&T::mmap>(ENOMEM, MAP_FAILED));
}

TEST(CmBlockPoolStart, DoesWithoutThePool_WhileThereIsNoMemory) {
    CheckStart(Fault<&T::mprotect>(ENOMEM, -1));
}

TEST(CmBlockPoolStart, DoesWithoutThePool_WhileThereIsNoKey) {
    CheckStart(Returned<&T::pthread_key_create>(EAGAIN));
}

TEST(CmBlockPoolStart, DoesWithoutThePool_WhileAThreadCannotKeepItsCache) {
    CheckStart(Returned<&T::pthread_setspecific>(ENOMEM));
}

long LargePages(int aName) {
    return aName == _SC_PAGESIZE ? 64 * 1024 : -1;
}

TEST(CmBlockPoolStart, DoesWithoutThePool_WhenAPageIsLargerThanAChunk) {
    EXPECT_EQ(0, StatusOfChild([] {
                  const ScopedBlockPool pool;
                  const ScopedEntry<decltype(g_cmSystem.sysconf)> entry(g_cmSystem.sysconf,
                                                                        LargePages);
                  EXPECT_FALSE(IsServed());
                  EXPECT_FALSE(IsServed());
              }));
}

TEST(CmBlockPoolStart, StartsOnce_WhenThreadsComeTogether) {
    EXPECT_EQ(0, StatusOfChild([] {
                  const ScopedBlockPool pool;
                  const auto pPlan = Returned<&T::pthread_key_create>(EAGAIN)(1000, Failing::ONCE);
                  std::atomic<bool> bGo{false};
                  std::vector<std::thread> threads;
                  for (int i = 0; i < 8; ++i) {
                      threads.emplace_back([&bGo] {
                          while (!bGo.load()) {
                          }
                          for (int j = 0; j < 100; ++j) {
                              IsServed();
                          }
                      });
                  }
                  bGo = true;
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  EXPECT_TRUE(IsServed());
                  EXPECT_EQ(1u, pPlan->calls());
              }));
}

}  // namespace
}  // namespace UTIL_NS
