#include "support/Faults.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kelto_test {

namespace {

std::atomic<long> g_lLive{0};
std::atomic<bool> g_bArmed{false};
std::atomic<bool> g_bHit{false};
std::atomic<unsigned long> g_ulCalls{0};
unsigned long g_ulNth = 0;
unsigned long g_ulSecond = 0;  // 0: none
Failing g_failing = Failing::ONCE;
AllocationsOf g_threads = AllocationsOf::THIS_THREAD;
thread_local bool t_bArmedHere = false;
thread_local unsigned long t_ulAllocations = 0;
constexpr int NO_FILL = -1;
thread_local int t_nFill = NO_FILL;

bool FailsNow() {
    if (!g_bArmed.load(std::memory_order_acquire)) {
        return false;
    }
    if (g_threads == AllocationsOf::THIS_THREAD && !t_bArmedHere) {
        return false;
    }
    const unsigned long ulCall = g_ulCalls.fetch_add(1) + 1;
    const bool bFails = g_failing == Failing::FROM_THERE_ON
                            ? ulCall >= g_ulNth
                            : ulCall == g_ulNth || ulCall == g_ulSecond;
    if (bFails && (g_ulSecond == 0 || ulCall == g_ulSecond)) {
        g_bHit.store(true);
    }
    return bFails;
}

void* Allocate(size_t aSize, size_t aAlignment) {
    if (FailsNow()) {
        return nullptr;
    }
    ++t_ulAllocations;
    const size_t nSize = aSize == 0 ? 1 : aSize;
    void* pMemory = nullptr;
    if (aAlignment <= alignof(std::max_align_t)) {
        pMemory = std::malloc(nSize);
    } else if (posix_memalign(&pMemory, aAlignment, nSize) != 0) {
        pMemory = nullptr;
    }
    if (pMemory != nullptr && t_nFill != NO_FILL) {
        std::memset(pMemory, t_nFill, nSize);
    }
    if (pMemory != nullptr) {
        g_lLive.fetch_add(1, std::memory_order_relaxed);
    }
    return pMemory;
}

void* AllocateOrThrow(size_t aSize, size_t aAlignment) {
    void* pMemory = Allocate(aSize, aAlignment);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

void Release(void* aMemory) {
    if (aMemory != nullptr) {
        // Release: whoever finds all released comes after what the threads did before.
        g_lLive.fetch_sub(1, std::memory_order_release);
        std::free(aMemory);
    }
}

}  // namespace

ScopedAllocationFault::ScopedAllocationFault(unsigned long aNth, Failing aFailing,
                                             AllocationsOf aThreads) {
    g_ulCalls.store(0);
    g_bHit.store(false);
    g_ulNth = aNth;
    g_ulSecond = 0;
    g_failing = aFailing;
    g_threads = aThreads;
    t_bArmedHere = true;
    g_bArmed.store(true, std::memory_order_release);
}

ScopedAllocationFault::ScopedAllocationFault(unsigned long aNth, unsigned long aAfterwards)
    : ScopedAllocationFault(aNth, Failing::ONCE, AllocationsOf::THIS_THREAD) {
    g_ulSecond = aNth + aAfterwards;
}

ScopedAllocationFault::~ScopedAllocationFault() {
    g_bArmed.store(false);
    t_bArmedHere = false;
}

bool ScopedAllocationFault::hit() const {
    return g_bHit.load();
}

void LiftAllocationFault() {
    g_bArmed.store(false);
}

ScopedAllocationFill::ScopedAllocationFill(unsigned char aByte) {
    t_nFill = aByte;
}

ScopedAllocationFill::~ScopedAllocationFill() {
    t_nFill = NO_FILL;
}

long LiveAllocations() {
    return g_lLive.load();
}

unsigned long AllocationsOfThisThread() {
    return t_ulAllocations;
}

}  // namespace kelto_test

using kelto_test::Allocate;
using kelto_test::AllocateOrThrow;
using kelto_test::Release;

void* operator new(size_t aSize) {
    return AllocateOrThrow(aSize, 1);
}
void* operator new[](size_t aSize) {
    return AllocateOrThrow(aSize, 1);
}
void* operator new(size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize, 1);
}
void* operator new[](size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize, 1);
}
void* operator new(size_t aSize, std::align_val_t aAlignment) {
    return AllocateOrThrow(aSize, static_cast<size_t>(aAlignment));
}
void* operator new[](size_t aSize, std::align_val_t aAlignment) {
    return AllocateOrThrow(aSize, static_cast<size_t>(aAlignment));
}
void* operator new(size_t aSize, std::align_val_t aAlignment, const std::nothrow_t&) noexcept {
    return Allocate(aSize, static_cast<size_t>(aAlignment));
}
void* operator new[](size_t aSize, std::align_val_t aAlignment, const std::nothrow_t&) noexcept {
    return Allocate(aSize, static_cast<size_t>(aAlignment));
}
void operator delete(void* aMemory) noexcept {
    Release(aMemory);
}
void operator delete[](void* aMemory) noexcept {
    Release(aMemory);
}
void operator delete(void* aMemory, size_t) noexcept {
    Release(aMemory);
}
void operator delete[](void* aMemory, size_t) noexcept {
    Release(aMemory);
}
void operator delete(void* aMemory, std::align_val_t) noexcept {
    Release(aMemory);
}
void operator delete[](void* aMemory, std::align_val_t) noexcept {
    Release(aMemory);
}
void operator delete(void* aMemory, size_t, std::align_val_t) noexcept {
    Release(aMemory);
}
void operator delete[](void* aMemory, size_t, std::align_val_t) noexcept {
    Release(aMemory);
}
void operator delete(void* aMemory, const std::nothrow_t&) noexcept {
    Release(aMemory);
}
void operator delete[](void* aMemory, const std::nothrow_t&) noexcept {
    Release(aMemory);
}
