#include "CmBlockPool.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "CmAtomic.h"
#include "CmNumberStack.h"
#include "CmSystem.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr size_t GRAIN = 16;  // what operator new aligns by; block sizes are multiples of it
static_assert(GRAIN % __STDCPP_DEFAULT_NEW_ALIGNMENT__ == 0);

// The sizes of blocks. Steps of one grain where most events are, wider ones above.
constexpr uint16_t BLOCK_SIZES[] = {32,  48,  64,  80,  96,  112, 128, 160,
                                    192, 224, 256, 320, 384, 448, 512};
constexpr unsigned CLASSES = sizeof(BLOCK_SIZES) / sizeof(BLOCK_SIZES[0]);
// One more, for the magazines themselves and for the thread caches.
constexpr unsigned MAGAZINE_CLASS = CLASSES;

struct CClassTable {
    constexpr CClassTable() {
        unsigned nClass = 0;
        for (size_t i = 0; i < sizeof(m_byOfGrains); ++i) {
            nClass += i * GRAIN > BLOCK_SIZES[nClass] ? 1 : 0;
            m_byOfGrains[i] = static_cast<uint8_t>(nClass);
        }
    }
    uint8_t m_byOfGrains[CCmBlockPool::LARGEST_BLOCK / GRAIN + 1] = {};
};
constexpr CClassTable CLASS_TABLE;

// Blocks by their offset in the range.
struct CMagazine {
    uint32_t m_dwCount;
    uint32_t m_dwOffsets[CCmBlockPool::MAGAZINE_BLOCKS];
};
constexpr size_t MAGAZINE_SIZE = sizeof(CMagazine);

// What a thread keeps of a size. Allocations take from m_pLoaded and releases put into it; when it
// does not serve, it changes places with the other one before the depot is asked. Both may be null.
struct CSlot {
    CMagazine* m_pLoaded;
    CMagazine* m_pSpare;
};
struct CThreadCache {
    CSlot m_Slots[CLASSES];
    bool m_bTends;  // the thread is the one that looks after idle memory
};
static_assert(sizeof(CThreadCache) <= MAGAZINE_SIZE);

constexpr uint32_t CHUNKS = CCmBlockPool::RANGE_SIZE / CCmBlockPool::CHUNK_SIZE;
constexpr uint32_t MAGAZINES = CCmBlockPool::RANGE_SIZE / MAGAZINE_SIZE;
// Blocks leave room for the magazines that they need when all are free: in the smallest size, an
// eighth of what they take themselves.
constexpr uint32_t BLOCK_CHUNKS = CHUNKS - CHUNKS / 8;
static_assert(BLOCK_SIZES[0] * CCmBlockPool::MAGAZINE_BLOCKS >= 7 * MAGAZINE_SIZE);

// How much idle memory in the depot is not worth a look.
constexpr long IDLE_SLACK = 64 * 1024;
constexpr long long TEND_USEC = CCmBlockPool::TEND_SEC * 1000 * 1000;

// A free block that found no place in a magazine. Blocks are pushed one by one and taken all at
// once, so nobody reads one that is not its own.
struct CStray {
    CStray* m_pNext;
};

// Beside the link of a stray. Allocating clears it and freeing sets it: a block that is freed twice
// still has it, unless its memory was written in between.
constexpr size_t MARK_AT = 8;
constexpr uint64_t FREE_MARK = 0x9e3779b97f4a7c15;

struct alignas(64) CDepot {
    CCmNumberStack m_Full;
    CmStd::atomic<CStray*> m_pStrays{nullptr};
};

enum EState : int { STATE_NEW, STATE_STARTING, STATE_READY };
enum ESwitch : int { SWITCH_AUTO, SWITCH_ON, SWITCH_OFF };

// Before the range is there no address may seem to lie in it: so close to the end of all addresses
// that only the system's own lie after it.
constexpr uintptr_t NO_RANGE = uintptr_t{0} - CCmBlockPool::RANGE_SIZE;

// Relaxed: who frees a block of the range came by it from a thread that had read the address.
CmStd::atomic<uintptr_t> s_nRange{NO_RANGE};
CmStd::atomic<int> s_nState{STATE_NEW};
#ifdef KELTO_BLOCK_POOL
CmStd::atomic<int> s_nSwitch{SWITCH_AUTO};
#else
CmStd::atomic<int> s_nSwitch{SWITCH_OFF};
#endif
pthread_key_t s_key;  // written before STATE_READY

CDepot s_depots[CLASSES];
CCmNumberStack s_emptyMagazines;
CmStd::atomic<uint32_t> s_dwMagazineLinks[MAGAZINES];
// Chunks that are not committed: those that have been, and the rest from s_dwFreshChunk on.
CCmNumberStack s_freeChunks;
CmStd::atomic<uint32_t> s_dwChunkLinks[CHUNKS];
CmStd::atomic<uint32_t> s_dwFreshChunk{0};
// Those that are: of magazines, and of blocks.
CmStd::atomic<uint32_t> s_dwMagazineChunks{0};
CmStd::atomic<uint32_t> s_dwBlockChunks{0};
// The class of a chunk's blocks. Relaxed: it is written before the blocks come into use.
CmStd::atomic<uint8_t> s_byChunkClasses[CHUNKS];

// What Tend goes by; relaxed, nothing is handed over with it.
CmStd::atomic<long> s_lIdle{0};           // bytes in full magazines of the depot
CmStd::atomic<long> s_lLeastIdle{0};      // the least that it was since s_llTended
CmStd::atomic<long> s_lIdleFloor{0};      // what the last trim could not give back
CmStd::atomic<bool> s_bIsTended{false};   // a thread has m_bTends
CmStd::atomic<long long> s_llTended{0};   // microseconds, when that thread last looked
CmStd::atomic<long long> s_llTrimmed{0};  // when the last trim was
// Held by the one that trims; nobody waits for it.
CmStd::atomic<bool> s_bTrims{false};
uint16_t s_wIdleBlocks[CHUNKS];  // of the one that trims; zeros between trims

thread_local CThreadCache* t_pCache = nullptr;
thread_local bool t_bIsPastEnd = false;

char* Range() {
    return reinterpret_cast<char*>(s_nRange.load(std::memory_order_relaxed));
}

uintptr_t OffsetOf(const void* aMemory) {
    return reinterpret_cast<uintptr_t>(aMemory) - s_nRange.load(std::memory_order_relaxed);
}

uint32_t NumberOf(const void* aMagazine) {
    return static_cast<uint32_t>(OffsetOf(aMagazine) / MAGAZINE_SIZE);
}

CMagazine* MagazineOf(uint32_t aNumber) {
    return reinterpret_cast<CMagazine*>(Range() + aNumber * MAGAZINE_SIZE);
}

// Of a magazine that the caller took with PopAll.
uint32_t NextOf(uint32_t aNumber) {
    return s_dwMagazineLinks[aNumber].load(std::memory_order_relaxed);
}

unsigned ClassOfChunk(uint32_t aChunk) {
    return s_byChunkClasses[aChunk].load(std::memory_order_relaxed);
}

uint32_t ChunkOf(uint32_t aOffset) {
    return static_cast<uint32_t>(aOffset / CCmBlockPool::CHUNK_SIZE);
}

uint32_t BlocksOfChunk(unsigned aClass) {
    const size_t nSize = aClass == MAGAZINE_CLASS ? MAGAZINE_SIZE : BLOCK_SIZES[aClass];
    return static_cast<uint32_t>(CCmBlockPool::CHUNK_SIZE / nSize);
}

void* NoAccess(void* aPlace, size_t aSize, int aFlags) {
    return g_cmSystem.mmap(aPlace, aSize, PROT_NONE,
                           MAP_PRIVATE | MAP_ANON | MAP_NORESERVE | aFlags, -1, 0);
}

// Chunks.

constexpr uint32_t NO_CHUNK = CCmNumberStack::NONE;

uint32_t TakeFreshChunk() {
    uint32_t dwChunk = s_dwFreshChunk.load(std::memory_order_relaxed);
    while (dwChunk < CHUNKS &&
           !s_dwFreshChunk.compare_exchange_weak(dwChunk, dwChunk + 1, std::memory_order_relaxed)) {
    }
    return dwChunk < CHUNKS ? dwChunk : NO_CHUNK;
}

CmStd::atomic<uint32_t>& CommittedOf(unsigned aClass) {
    return aClass == MAGAZINE_CLASS ? s_dwMagazineChunks : s_dwBlockChunks;
}

uint32_t TakeChunk(unsigned aClass) {
    if (aClass != MAGAZINE_CLASS &&
        s_dwBlockChunks.load(std::memory_order_relaxed) >= BLOCK_CHUNKS) {
        return NO_CHUNK;
    }
    uint32_t dwChunk = s_freeChunks.Pop(s_dwChunkLinks);
    if (dwChunk == NO_CHUNK) {
        dwChunk = TakeFreshChunk();
    }
    if (dwChunk == NO_CHUNK) {
        return NO_CHUNK;
    }
    char* const pChunk = Range() + dwChunk * CCmBlockPool::CHUNK_SIZE;
    if (g_cmSystem.mprotect(pChunk, CCmBlockPool::CHUNK_SIZE, PROT_READ | PROT_WRITE) != 0) {
        s_freeChunks.Push(dwChunk, s_dwChunkLinks);
        return NO_CHUNK;
    }
    s_byChunkClasses[dwChunk].store(static_cast<uint8_t>(aClass), std::memory_order_relaxed);
    CommittedOf(aClass).fetch_add(1, std::memory_order_relaxed);
    return dwChunk;
}

// Maps the chunks anew, which is what gives pages back on every system. Those that the system does
// not take back stay usable all the same.
void GiveChunksBack(uint32_t aFirst, uint32_t aEnd) {
    NoAccess(Range() + aFirst * CCmBlockPool::CHUNK_SIZE,
             (aEnd - aFirst) * CCmBlockPool::CHUNK_SIZE, MAP_FIXED);
    CommittedOf(ClassOfChunk(aFirst)).fetch_sub(aEnd - aFirst, std::memory_order_relaxed);
    for (uint32_t i = aEnd; i > aFirst; --i) {
        s_freeChunks.Push(i - 1, s_dwChunkLinks);
    }
}

// Magazines.

void PutEmpty(void* aMagazine) {
    s_emptyMagazines.Push(NumberOf(aMagazine), s_dwMagazineLinks);
}

// Null when there is no memory for one.
CMagazine* TakeEmpty() {
    uint32_t dwNumber = s_emptyMagazines.Pop(s_dwMagazineLinks);
    if (dwNumber == CCmNumberStack::NONE) {
        const uint32_t dwChunk = TakeChunk(MAGAZINE_CLASS);
        if (dwChunk == NO_CHUNK) {
            return nullptr;
        }
        dwNumber = dwChunk * BlocksOfChunk(MAGAZINE_CLASS);
        for (uint32_t i = 1; i < BlocksOfChunk(MAGAZINE_CLASS); ++i) {
            s_emptyMagazines.Push(dwNumber + i, s_dwMagazineLinks);
        }
    }
    CMagazine* const pMagazine = MagazineOf(dwNumber);
    pMagazine->m_dwCount = 0;
    return pMagazine;
}

void PutFull(unsigned aClass, CMagazine* aMagazine) {
    const long lBytes = static_cast<long>(aMagazine->m_dwCount) * BLOCK_SIZES[aClass];
    s_depots[aClass].m_Full.Push(NumberOf(aMagazine), s_dwMagazineLinks);
    s_lIdle.fetch_add(lBytes, std::memory_order_relaxed);
}

void CountTaken(unsigned aClass, uint32_t aBlocks) {
    const long lBytes = static_cast<long>(aBlocks) * BLOCK_SIZES[aClass];
    const long lIdle = s_lIdle.fetch_sub(lBytes, std::memory_order_relaxed) - lBytes;
    if (lIdle < s_lLeastIdle.load(std::memory_order_relaxed)) {
        s_lLeastIdle.store(lIdle, std::memory_order_relaxed);
    }
    // What was in use again may come back as wholly idle chunks.
    if (lIdle < s_lIdleFloor.load(std::memory_order_relaxed)) {
        s_lIdleFloor.store(lIdle, std::memory_order_relaxed);
    }
}

CMagazine* TakeFull(unsigned aClass) {
    const uint32_t dwNumber = s_depots[aClass].m_Full.Pop(s_dwMagazineLinks);
    if (dwNumber == CCmNumberStack::NONE) {
        return nullptr;
    }
    CMagazine* const pMagazine = MagazineOf(dwNumber);
    CountTaken(aClass, pMagazine->m_dwCount);
    return pMagazine;
}

void PutStray(unsigned aClass, void* aBlock) {
    CStray* const pStray = new (aBlock) CStray{nullptr};
    CmStd::atomic<CStray*>& pHead = s_depots[aClass].m_pStrays;
    pStray->m_pNext = pHead.load(std::memory_order_relaxed);
    // Release, paired with the acquire in TakeStrays.
    while (!pHead.compare_exchange_weak(pStray->m_pNext, pStray, std::memory_order_release,
                                        std::memory_order_relaxed)) {
    }
}

// Fills magazines with blocks that come one by one. What finds no magazine becomes a stray.
class CFiller {
  public:
    // aFirst: may be null.
    CFiller(unsigned aClass, CMagazine* aFirst) : m_nClass(aClass), m_pMagazine(aFirst) {}
    CFiller(const CFiller&) = delete;
    CFiller& operator=(const CFiller&) = delete;

    void Add(uint32_t aOffset) {
        if (m_pMagazine != nullptr && m_pMagazine->m_dwCount == CCmBlockPool::MAGAZINE_BLOCKS) {
            PutFull(m_nClass, m_pMagazine);
            m_pMagazine = nullptr;
        }
        if (m_pMagazine == nullptr) {
            m_pMagazine = TakeEmpty();
        }
        if (m_pMagazine == nullptr) {
            PutStray(m_nClass, Range() + aOffset);
            return;
        }
        m_pMagazine->m_dwOffsets[m_pMagazine->m_dwCount++] = aOffset;
    }
    // The magazine that is not full yet; null when there is none, or nothing in it.
    CMagazine* Rest() {
        if (m_pMagazine != nullptr && m_pMagazine->m_dwCount == 0) {
            PutEmpty(m_pMagazine);
            m_pMagazine = nullptr;
        }
        return std::exchange(m_pMagazine, nullptr);
    }

  private:
    const unsigned m_nClass;
    CMagazine* m_pMagazine;
};

CMagazine* TakeStrays(unsigned aClass) {
    CmStd::atomic<CStray*>& pHead = s_depots[aClass].m_pStrays;
    if (pHead.load(std::memory_order_relaxed) == nullptr) {
        return nullptr;
    }
    CFiller filler(aClass, TakeEmpty());
    CStray* pStray = pHead.exchange(nullptr, std::memory_order_acquire);
    while (pStray != nullptr) {
        CStray* const pNext = pStray->m_pNext;
        filler.Add(static_cast<uint32_t>(OffsetOf(pStray)));
        pStray = pNext;
    }
    return filler.Rest();
}

CMagazine* Carve(unsigned aClass) {
    CMagazine* const pFirst = TakeEmpty();
    if (pFirst == nullptr) {
        return nullptr;
    }
    const uint32_t dwChunk = TakeChunk(aClass);
    if (dwChunk == NO_CHUNK) {
        PutEmpty(pFirst);
        return nullptr;
    }
    CFiller filler(aClass, pFirst);
    uint32_t dwOffset = static_cast<uint32_t>(dwChunk * CCmBlockPool::CHUNK_SIZE);
    for (uint32_t i = BlocksOfChunk(aClass); i > 0; --i) {
        filler.Add(dwOffset);
        dwOffset += BLOCK_SIZES[aClass];
    }
    return filler.Rest();
}

long long CoarseUsec() {
    timeval tvNow = {};
    g_cmClock.coarse_gettimeofday(&tvNow, nullptr);
    return tvNow.tv_sec * 1000000LL + tvNow.tv_usec;
}

// Trimming. The one that does it takes whole stacks, so what it works on is its own; other threads
// find the depot empty meanwhile and take new chunks.

void CountIdle(const CMagazine& aMagazine) {
    for (uint32_t i = 0; i < aMagazine.m_dwCount; ++i) {
        ++s_wIdleBlocks[ChunkOf(aMagazine.m_dwOffsets[i])];
    }
}

bool IsWhollyIdle(uint32_t aChunk, unsigned aClass) {
    return s_wIdleBlocks[aChunk] == BlocksOfChunk(aClass);
}

// Gives the wholly idle chunks of the class back, neighbours by one call, and forgets the counts.
void GiveIdleChunksBack(unsigned aClass) {
    uint32_t dwFirst = NO_CHUNK;
    for (uint32_t i = 0; i <= CHUNKS; ++i) {
        const bool bIsIdle = i < CHUNKS && IsWhollyIdle(i, aClass);
        if (bIsIdle && dwFirst == NO_CHUNK) {
            dwFirst = i;
        } else if (!bIsIdle && dwFirst != NO_CHUNK) {
            GiveChunksBack(dwFirst, i);
            dwFirst = NO_CHUNK;
        }
    }
    std::memset(s_wIdleBlocks, 0, sizeof(s_wIdleBlocks));
}

void TrimClass(unsigned aClass) {
    if (CMagazine* const pStrays = TakeStrays(aClass)) {
        PutFull(aClass, pStrays);
    }
    const uint32_t dwAll = s_depots[aClass].m_Full.PopAll();
    for (uint32_t i = dwAll; i != CCmNumberStack::NONE; i = NextOf(i)) {
        CountTaken(aClass, MagazineOf(i)->m_dwCount);
        CountIdle(*MagazineOf(i));
    }
    CFiller filler(aClass, nullptr);
    for (uint32_t i = dwAll; i != CCmNumberStack::NONE;) {
        const CMagazine magazine = *MagazineOf(i);
        const uint32_t dwNext = NextOf(i);
        PutEmpty(MagazineOf(i));  // which the filler takes again
        for (uint32_t j = 0; j < magazine.m_dwCount; ++j) {
            if (!IsWhollyIdle(ChunkOf(magazine.m_dwOffsets[j]), aClass)) {
                filler.Add(magazine.m_dwOffsets[j]);
            }
        }
        i = dwNext;
    }
    if (CMagazine* const pRest = filler.Rest()) {
        PutFull(aClass, pRest);
    }
    GiveIdleChunksBack(aClass);
}

void TrimMagazines() {
    const uint32_t dwAll = s_emptyMagazines.PopAll();
    const uint32_t dwPerChunk = BlocksOfChunk(MAGAZINE_CLASS);
    for (uint32_t i = dwAll; i != CCmNumberStack::NONE; i = NextOf(i)) {
        ++s_wIdleBlocks[i / dwPerChunk];
    }
    for (uint32_t i = dwAll; i != CCmNumberStack::NONE;) {
        const uint32_t dwNext = NextOf(i);
        if (!IsWhollyIdle(i / dwPerChunk, MAGAZINE_CLASS)) {
            s_emptyMagazines.Push(i, s_dwMagazineLinks);
        }
        i = dwNext;
    }
    GiveIdleChunksBack(MAGAZINE_CLASS);
}

void TrimAll_l() {
    for (unsigned nClass = 0; nClass < CLASSES; ++nClass) {
        TrimClass(nClass);
    }
    TrimMagazines();
    const long lIdle = s_lIdle.load(std::memory_order_relaxed);
    s_lIdleFloor.store(lIdle, std::memory_order_relaxed);
    s_lLeastIdle.store(lIdle, std::memory_order_relaxed);
    s_llTrimmed.store(CoarseUsec(), std::memory_order_relaxed);
}

// Runs aWork unless another thread trims.
template <class WorkType>
void UnlessTrimmed(WorkType aWork) {
    if (!s_bTrims.exchange(true, std::memory_order_acquire)) {
        aWork();
        s_bTrims.store(false, std::memory_order_release);
    }
}

// Also true when the clock was set back.
bool IsLongAgo(long long aNow, long long aThen) {
    return aNow - aThen >= TEND_USEC || aNow < aThen;
}

bool HasIdle(long aIdle) {
    return aIdle > s_lIdleFloor.load(std::memory_order_relaxed) + IDLE_SLACK;
}

// Thread caches.

void PutMagazine(unsigned aClass, CMagazine* aMagazine) {
    if (aMagazine == nullptr) {
        return;
    }
    if (aMagazine->m_dwCount == 0) {
        PutEmpty(aMagazine);
    } else {
        PutFull(aClass, aMagazine);
    }
}

void EmptyCache(CThreadCache& aCache) {
    for (unsigned nClass = 0; nClass < CLASSES; ++nClass) {
        PutMagazine(nClass, std::exchange(aCache.m_Slots[nClass].m_pLoaded, nullptr));
        PutMagazine(nClass, std::exchange(aCache.m_Slots[nClass].m_pSpare, nullptr));
    }
}

void StopTending(CThreadCache& aCache) {
    if (aCache.m_bTends) {
        aCache.m_bTends = false;
        s_bIsTended.store(false, std::memory_order_relaxed);
    }
}

void GiveCacheUp(CThreadCache* aCache) {
    t_pCache = nullptr;
    StopTending(*aCache);
    EmptyCache(*aCache);
    PutEmpty(aCache);
}

// The thread ends: also one that is cancelled, which may run no destructors of C++. What is freed
// here after that, by other keys' destructors, becomes a stray, and what is allocated comes from
// operator new. Perhaps nobody is left to tend, so what is idle goes now; but not every time where
// threads come and go, since the next ones need it.
void EndThread(void* aCache) {
    t_bIsPastEnd = true;
    GiveCacheUp(static_cast<CThreadCache*>(aCache));
    if (HasIdle(s_lIdle.load(std::memory_order_relaxed)) &&
        IsLongAgo(CoarseUsec(), s_llTrimmed.load(std::memory_order_relaxed))) {
        UnlessTrimmed(TrimAll_l);
    }
}

bool Start() {
    const long lPage = g_cmSystem.sysconf(_SC_PAGESIZE);
    if (lPage <= 0 || CCmBlockPool::CHUNK_SIZE % static_cast<size_t>(lPage) != 0) {
        return false;  // a chunk could not be given back by itself
    }
    void* const pRange = NoAccess(nullptr, CCmBlockPool::RANGE_SIZE, 0);
    if (pRange == MAP_FAILED) {
        return false;
    }
    if (g_cmSystem.pthread_key_create(&s_key, EndThread) != 0) {
        munmap(pRange, CCmBlockPool::RANGE_SIZE);
        return false;
    }
    s_nRange.store(reinterpret_cast<uintptr_t>(pRange), std::memory_order_relaxed);
    return true;
}

// Whoever comes first starts the pool; who comes meanwhile does without it. What the system refused
// is tried again by the next one.
bool IsReady() {
    int nState = s_nState.load(std::memory_order_acquire);
    if (nState == STATE_NEW &&
        s_nState.compare_exchange_strong(nState, STATE_STARTING, std::memory_order_acquire)) {
        nState = Start() ? STATE_READY : STATE_NEW;
        s_nState.store(nState, std::memory_order_release);
    }
    return nState == STATE_READY;
}

CThreadCache* MakeCache() {
    if (t_bIsPastEnd || !CCmBlockPool::IsOn() || !IsReady()) {
        return nullptr;
    }
    CMagazine* const pMemory = TakeEmpty();
    if (pMemory == nullptr) {
        return nullptr;
    }
    CThreadCache* const pCache = new (static_cast<void*>(pMemory)) CThreadCache();
    if (g_cmSystem.pthread_setspecific(s_key, pCache) != 0) {
        PutEmpty(pCache);
        return nullptr;
    }
    return t_pCache = pCache;
}

// Its cache is what ends the tending together with the thread. Looks before it writes: where one
// thread tends, all others come here with every pass.
bool StartTending() {
    if (s_bIsTended.load(std::memory_order_relaxed) ||
        s_bIsTended.exchange(true, std::memory_order_relaxed)) {
        return false;
    }
    CThreadCache* const pCache = t_pCache != nullptr ? t_pCache : MakeCache();
    if (pCache == nullptr) {
        s_bIsTended.store(false, std::memory_order_relaxed);
        return false;
    }
    return pCache->m_bTends = true;
}

bool HasBlocks(const CMagazine* aMagazine) {
    return aMagazine != nullptr && aMagazine->m_dwCount > 0;
}

bool HasPlace(const CMagazine* aMagazine) {
    return aMagazine != nullptr && aMagazine->m_dwCount < CCmBlockPool::MAGAZINE_BLOCKS;
}

uint64_t MarkOf(const char* aBlock) {
    uint64_t ullMark = 0;
    std::memcpy(&ullMark, aBlock + MARK_AT, sizeof(ullMark));
    return ullMark;
}

void SetMark(char* aBlock, uint64_t aMark) {
    std::memcpy(aBlock + MARK_AT, &aMark, sizeof(aMark));
}

void* TakeBlock(CMagazine& aMagazine) {
    char* const pBlock = Range() + aMagazine.m_dwOffsets[--aMagazine.m_dwCount];
    SetMark(pBlock, 0);
    return pBlock;
}

// The loaded magazine has no block.
__attribute__((noinline)) void* TakeFromDepot(unsigned aClass) {
    CThreadCache* const pCache = t_pCache != nullptr ? t_pCache : MakeCache();
    if (pCache == nullptr) {
        return nullptr;
    }
    CSlot& slot = pCache->m_Slots[aClass];
    if (HasBlocks(slot.m_pSpare)) {
        std::swap(slot.m_pLoaded, slot.m_pSpare);
        return TakeBlock(*slot.m_pLoaded);
    }
    CMagazine* pFull = TakeFull(aClass);
    if (pFull == nullptr) {
        pFull = TakeStrays(aClass);
    }
    if (pFull == nullptr) {
        pFull = Carve(aClass);
    }
    if (pFull == nullptr) {
        return nullptr;
    }
    PutMagazine(aClass, slot.m_pSpare);
    slot.m_pSpare = slot.m_pLoaded;
    slot.m_pLoaded = pFull;
    return TakeBlock(*pFull);
}

// The loaded magazine has no place.
__attribute__((noinline)) void PutIntoDepot(unsigned aClass, char* aBlock, uint32_t aOffset) {
    CThreadCache* const pCache = t_pCache != nullptr ? t_pCache : MakeCache();
    if (pCache == nullptr) {
        PutStray(aClass, aBlock);
        return;
    }
    CSlot& slot = pCache->m_Slots[aClass];
    if (HasPlace(slot.m_pSpare)) {
        std::swap(slot.m_pLoaded, slot.m_pSpare);
    } else {
        CMagazine* const pEmpty = TakeEmpty();
        if (pEmpty == nullptr) {
            PutStray(aClass, aBlock);
            return;
        }
        PutMagazine(aClass, slot.m_pSpare);
        slot.m_pSpare = slot.m_pLoaded;
        slot.m_pLoaded = pEmpty;
    }
    slot.m_pLoaded->m_dwOffsets[slot.m_pLoaded->m_dwCount++] = aOffset;
}

__attribute__((noinline)) void ReportFreedTwice(const void* aBlock) {
    CM_ERROR_TRACE("CCmBlockPool::Free, is free already. aMemory=" << CmTraceAddress(aBlock));
}

// Null: the pool does not serve.
__attribute__((always_inline)) inline void* Take(size_t aSize) {
    if (CM_UNLIKELY(aSize > CCmBlockPool::LARGEST_BLOCK)) {
        return nullptr;
    }
    const unsigned nClass = CLASS_TABLE.m_byOfGrains[(aSize + GRAIN - 1) / GRAIN];
    const CThreadCache* const pCache = t_pCache;
    if (CM_LIKELY(pCache != nullptr) && CM_LIKELY(HasBlocks(pCache->m_Slots[nClass].m_pLoaded))) {
        return TakeBlock(*pCache->m_Slots[nClass].m_pLoaded);
    }
    return TakeFromDepot(nClass);
}

}  // namespace

void* CCmBlockPool::Allocate(size_t aSize) {
    void* const pMemory = Take(aSize);
    return CM_LIKELY(pMemory != nullptr) ? pMemory : ::operator new(aSize);
}

void* CCmBlockPool::AllocateOrNull(size_t aSize) noexcept {
    void* const pMemory = Take(aSize);
    return CM_LIKELY(pMemory != nullptr) ? pMemory : ::operator new(aSize, std::nothrow);
}

void CCmBlockPool::Free(void* aMemory) noexcept {
    const uintptr_t nOffset = OffsetOf(aMemory);
    if (CM_UNLIKELY(nOffset >= RANGE_SIZE)) {
        ::operator delete(aMemory);
        return;
    }
    char* const pBlock = static_cast<char*>(aMemory);
    if (CM_UNLIKELY(MarkOf(pBlock) == FREE_MARK)) {
        ReportFreedTwice(aMemory);
        return;
    }
    SetMark(pBlock, FREE_MARK);
    const uint32_t dwOffset = static_cast<uint32_t>(nOffset);
    const unsigned nClass = ClassOfChunk(ChunkOf(dwOffset));
    const CThreadCache* const pCache = t_pCache;
    if (CM_LIKELY(pCache != nullptr)) {
        CMagazine* const pLoaded = pCache->m_Slots[nClass].m_pLoaded;
        if (CM_LIKELY(HasPlace(pLoaded))) {
            pLoaded->m_dwOffsets[pLoaded->m_dwCount++] = dwOffset;
            return;
        }
    }
    PutIntoDepot(nClass, pBlock, dwOffset);
}

// One thread at a time tends: the first that finds something idle, until it has given it back,
// finds nothing any more, or ends.
bool CCmBlockPool::Tend(bool* aHasTrimmed) {
    const bool bTends = t_pCache != nullptr && t_pCache->m_bTends;
    const long lIdle = s_lIdle.load(std::memory_order_relaxed);
    if (CM_LIKELY(!HasIdle(lIdle))) {
        if (bTends) {
            StopTending(*t_pCache);
        }
        return false;
    }
    if (!bTends && !StartTending()) {
        return false;
    }
    const long long llNow = CoarseUsec();
    if (bTends) {
        if (!IsLongAgo(llNow, s_llTended.load(std::memory_order_relaxed))) {
            return true;
        }
        if (HasIdle(s_lLeastIdle.load(std::memory_order_relaxed))) {
            StopTending(*t_pCache);
            Trim();
            if (aHasTrimmed != nullptr) {
                *aHasTrimmed = true;
            }
            return false;
        }
    }
    s_llTended.store(llNow, std::memory_order_relaxed);
    s_lLeastIdle.store(lIdle, std::memory_order_relaxed);
    return true;
}

void CCmBlockPool::SetOn(bool aIsOn) {
    s_nSwitch.store(aIsOn ? SWITCH_ON : SWITCH_OFF, std::memory_order_relaxed);
    if (!aIsOn && t_pCache != nullptr) {
        g_cmSystem.pthread_setspecific(s_key, nullptr);
        GiveCacheUp(t_pCache);
    }
}

bool CCmBlockPool::IsOn() {
    int nSwitch = s_nSwitch.load(std::memory_order_relaxed);
    if (nSwitch == SWITCH_AUTO) {
        nSwitch = CmPortHasSanitizer() ? SWITCH_OFF : SWITCH_ON;
        s_nSwitch.store(nSwitch, std::memory_order_relaxed);
    }
    return nSwitch == SWITCH_ON;
}

bool CCmBlockPool::IsFromHere(const void* aMemory) {
    return OffsetOf(aMemory) < RANGE_SIZE;
}

size_t CCmBlockPool::Chunks() {
    return s_dwMagazineChunks.load(std::memory_order_relaxed) +
           s_dwBlockChunks.load(std::memory_order_relaxed);
}

void CCmBlockPool::Trim() {
    if (t_pCache != nullptr) {
        EmptyCache(*t_pCache);
    }
    UnlessTrimmed(TrimAll_l);
}

}  // namespace UTIL_NS
