#include "schedule/Memory.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "schedule/Atomic.h"
#include "schedule/Scheduler.h"

namespace kelto_test {

namespace {

constexpr size_t ARENA_SIZE = 8 << 20;
constexpr size_t GRAIN = 16;
constexpr unsigned char FRESH = 0xCD;
constexpr unsigned char FREED = 0xDD;
constexpr size_t LOOKED_AT = 1024;  // the bytes of a freed block that are looked at again
constexpr uint32_t LIVE = 0x4C495645;
constexpr uint32_t DEAD = 0x44454144;

struct CBlock {
    uint32_t m_dwSize;  // without this
    uint32_t m_dwState;
    uint64_t m_ullUnused;
};
static_assert(sizeof(CBlock) == GRAIN, "blocks lie at whole grains");

// One a thread, so that addresses do not depend on the order in which threads allocate.
struct CArena {
    char* m_pStart = nullptr;
    size_t m_nUsed = 0;
};

CArena s_Arenas[THREADS_AT_MOST];
char* s_pArenas = nullptr;
bool s_bArenas = false;
long s_lLive = 0;  // of a sanitizer's build, which has no arenas
long s_lLiveBefore = 0;
EMemory s_Memory = EMemory::JUDGED;
char s_szWhat[120];

bool IsInArenas(const void* aPlace) {
    const auto* const pPlace = static_cast<const char*>(aPlace);
    return s_pArenas != nullptr && pPlace >= s_pArenas &&
           pPlace < s_pArenas + THREADS_AT_MOST * ARENA_SIZE;
}

CBlock* BlockAt(CArena& aArena, size_t aPlace) {
    return reinterpret_cast<CBlock*>(aArena.m_pStart + aPlace);
}

void* AllocateInArena(size_t aSize) {
    CArena& arena = s_Arenas[ThreadNumber()];
    const size_t nSize = (aSize + GRAIN - 1) / GRAIN * GRAIN;
    if (arena.m_nUsed + sizeof(CBlock) + nSize > ARENA_SIZE) {
        Fail("too much memory is used");
    }
    CBlock* const pBlock = BlockAt(arena, arena.m_nUsed);
    arena.m_nUsed += sizeof(CBlock) + nSize;
    *pBlock = {static_cast<uint32_t>(nSize), LIVE, 0};
    std::memset(pBlock + 1, FRESH, nSize);
    return pBlock + 1;
}

void FreeInArena(void* aMemory) {
    CBlock& block = static_cast<CBlock*>(aMemory)[-1];
    if (block.m_dwState != LIVE) {
        Fail("memory is freed twice");
    }
    block.m_dwState = DEAD;
    std::memset(aMemory, FREED, block.m_dwSize);
}

void* Allocate(size_t aSize) {
    if (g_bScheduled && s_bArenas) {
        return AllocateInArena(aSize);
    }
    s_lLive += g_bScheduled ? 1 : 0;
    return std::malloc(aSize == 0 ? 1 : aSize);
}

void Free(void* aMemory) {
    if (IsInArenas(aMemory)) {
        FreeInArena(aMemory);
        return;
    }
    s_lLive -= g_bScheduled && aMemory != nullptr ? 1 : 0;
    std::free(aMemory);
}

}  // namespace

void BeginMemory(EMemory aMemory) {
    if (s_pArenas == nullptr && KELTO_SANITIZED == 0) {
        s_pArenas =
            static_cast<char*>(mmap(nullptr, THREADS_AT_MOST * ARENA_SIZE, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        for (int i = 0; i < THREADS_AT_MOST; ++i) {
            s_Arenas[i].m_pStart = s_pArenas + static_cast<size_t>(i) * ARENA_SIZE;
        }
    }
    for (CArena& arena : s_Arenas) {
        arena.m_nUsed = 0;
    }
    s_Memory = aMemory;
    s_bArenas = aMemory != EMemory::STAYS && KELTO_SANITIZED == 0;
    s_lLiveBefore = s_lLive;
}

const char* JudgeMemory() {
    for (CArena& arena : s_Arenas) {
        for (size_t nAt = 0; nAt < arena.m_nUsed;) {
            const CBlock& block = *BlockAt(arena, nAt);
            nAt += sizeof(CBlock) + block.m_dwSize;
            if (block.m_dwState == LIVE) {
                if (s_Memory != EMemory::JUDGED) {
                    continue;
                }
                std::snprintf(s_szWhat, sizeof(s_szWhat), "%u bytes of thread %d are never freed",
                              block.m_dwSize, static_cast<int>(&arena - s_Arenas));
                return s_szWhat;
            }
            const auto* const pBytes = reinterpret_cast<const unsigned char*>(&block + 1);
            const size_t nLookedAt = block.m_dwSize < LOOKED_AT ? block.m_dwSize : LOOKED_AT;
            if (nLookedAt > 0 &&
                (pBytes[0] != FREED || std::memcmp(pBytes, pBytes + 1, nLookedAt - 1) != 0)) {
                return "freed memory is written to";
            }
        }
    }
    if (s_Memory == EMemory::JUDGED && s_lLive != s_lLiveBefore) {
        std::snprintf(s_szWhat, sizeof(s_szWhat), "%ld allocations are never freed",
                      s_lLive - s_lLiveBefore);
        return s_szWhat;
    }
    return nullptr;
}

// By its bytes: one of a freed block is as unlikely elsewhere as it is easy to see.
bool IsFreed(const void* aPlace) {
    if (!IsInArenas(aPlace)) {
        return false;
    }
    const auto* const pBytes = static_cast<const unsigned char*>(aPlace);
    return pBytes[0] == FREED && pBytes[1] == FREED && pBytes[2] == FREED && pBytes[3] == FREED;
}

}  // namespace kelto_test

// Replaced for the whole program.

void* operator new(size_t aSize) {
    void* const pMemory = kelto_test::AllocationFails() ? nullptr : kelto_test::Allocate(aSize);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}
void* operator new(size_t aSize, const std::nothrow_t&) noexcept {
    return kelto_test::AllocationFails() ? nullptr : kelto_test::Allocate(aSize);
}
void* operator new[](size_t aSize) {
    return operator new(aSize);
}
void* operator new[](size_t aSize, const std::nothrow_t& aTag) noexcept {
    return operator new(aSize, aTag);
}
void operator delete(void* aMemory) noexcept {
    kelto_test::Free(aMemory);
}
void operator delete(void* aMemory, size_t) noexcept {
    kelto_test::Free(aMemory);
}
void operator delete(void* aMemory, const std::nothrow_t&) noexcept {
    kelto_test::Free(aMemory);
}
void operator delete[](void* aMemory) noexcept {
    kelto_test::Free(aMemory);
}
void operator delete[](void* aMemory, size_t) noexcept {
    kelto_test::Free(aMemory);
}
