#include "CmBlockPool.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "CmBoundedPoster.h"
#include "CmDataBlock.h"
#include "CmEvent.h"
#include "CmEventQueueBase.h"
#include "CmSystem.h"
#include "port/CmPort.h"
#include "support/BlockPool.h"
#include "support/ChildProcess.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Platform.h"
#include "support/TraceSink.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using kelto_test::Eventually;
using kelto_test::Failing;
using kelto_test::FailingCall;
using kelto_test::Gate;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedBlockPool;
using kelto_test::ScopedClock;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;
using kelto_test::TaskThread;
typedef FailingCall<&CCmSystemTable::mprotect> FailingCommit;

// An event of a chosen size, which it fills.
template <size_t SIZE>
class EventOf : public ICmEvent {
  public:
    EventOf() { std::memset(m_aby, static_cast<int>(SIZE % 251), sizeof(m_aby)); }
    CmResult OnEventFire() override { return CM_OK; }
    bool IsIntact() const {
        return std::all_of(m_aby, m_aby + sizeof(m_aby),
                           [](unsigned char aByte) { return aByte == SIZE % 251; });
    }

  private:
    unsigned char m_aby[SIZE - sizeof(ICmEvent)];
};
typedef EventOf<64> Event;
typedef EventOf<512> LargestEvent;
typedef EventOf<528> LargeEvent;

class alignas(128) AlignedEvent : public EventOf<64> {};

void End(ICmEvent* aEvent) {
    aEvent->OnDestorySelf();
}

template <class Container>
void EndAll(Container& aEvents) {
    for (auto& pEvent : aEvents) {
        End(pEvent);
    }
    aEvents.clear();
}

std::vector<Event*> MakeEvents(size_t aCount) {
    std::vector<Event*> events(aCount);
    for (Event*& pEvent : events) {
        pEvent = new Event;
    }
    return events;
}

// Chunks that are in use when the calling thread keeps nothing.
size_t ChunksAfterTrim() {
    CCmBlockPool::Trim();
    return CCmBlockPool::Chunks();
}

TEST(CmBlockPool, ServesEvents_WhateverTheFormOfNew) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    Event* pPlain = new Event;
    Event* pNoThrow = new (std::nothrow) Event;
    auto pOwned = std::make_unique<LargestEvent>();
    EXPECT_EQ(lBefore, LiveAllocations());
    for (const ICmEvent* pEvent : {static_cast<ICmEvent*>(pPlain), static_cast<ICmEvent*>(pNoThrow),
                                   static_cast<ICmEvent*>(pOwned.get())}) {
        EXPECT_TRUE(CCmBlockPool::IsFromHere(pEvent));
    }
    End(pPlain);
    delete pNoThrow;
    delete static_cast<ICmEvent*>(nullptr);
}

TEST(CmBlockPool, FreesWhatCameFromTheGlobalNew_WhateverItsForm) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    Event* pGlobal = ::new Event;
    Event* pGlobalNoThrow = ::new (std::nothrow) Event;
    // As an older program has it, which knows no other operator new.
    Event* pOlder = ::new (::operator new(sizeof(Event))) Event;
    EXPECT_EQ(lBefore + 3, LiveAllocations());
    for (Event* pEvent : {pGlobal, pGlobalNoThrow, pOlder}) {
        EXPECT_FALSE(CCmBlockPool::IsFromHere(pEvent));
        End(pEvent);
    }
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmBlockPool, LeavesLargeEventsToTheSystem) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    LargeEvent* pEvent = new LargeEvent;
    LargeEvent* pNoThrow = new (std::nothrow) LargeEvent;
    EXPECT_EQ(lBefore + 2, LiveAllocations());
    End(pEvent);
    End(pNoThrow);
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmBlockPool, LeavesOverAlignedEventsToTheSystem) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    AlignedEvent* pEvent = new AlignedEvent;
    AlignedEvent* pNoThrow = new (std::nothrow) AlignedEvent;
    EXPECT_EQ(lBefore + 2, LiveAllocations());
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(pEvent) % 128);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(pNoThrow) % 128);
    EXPECT_TRUE(pEvent->IsIntact());
    End(pEvent);
    End(pNoThrow);
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmBlockPool, LeavesArraysToTheSystem) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    Event* pEvents = new Event[3];
    Event* pNoThrow = new (std::nothrow) Event[2];
    EXPECT_EQ(lBefore + 2, LiveAllocations());
    EXPECT_TRUE(pEvents[2].IsIntact());
    delete[] pEvents;
    delete[] pNoThrow;
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmBlockPool, ConstructsInTheCallersMemory_WhenItIsGiven) {
    const ScopedBlockPool pool;
    alignas(Event) unsigned char aby[sizeof(Event)];
    Event* pEvent = new (aby) Event;
    EXPECT_EQ(static_cast<void*>(aby), pEvent);
    pEvent->~Event();
    const std::shared_ptr<Event> pShared = std::make_shared<Event>();  // constructs in place, too
    EXPECT_TRUE(pShared->IsIntact());
}

class ThrowingEvent : public Event {
  public:
    ThrowingEvent() { throw std::runtime_error("no event"); }
};

TEST(CmBlockPool, TakesTheMemoryBack_WhenAConstructorThrows) {
    const ScopedBlockPool pool;
    Event* pBefore = new Event;
    End(pBefore);  // the next one to be taken
    EXPECT_THROW(new ThrowingEvent, std::runtime_error);
    EXPECT_THROW(new (std::nothrow) ThrowingEvent, std::runtime_error);
    alignas(ThrowingEvent) unsigned char aby[sizeof(ThrowingEvent)];
    EXPECT_THROW(new (aby) ThrowingEvent, std::runtime_error);
    Event* pAfter = new Event;
    EXPECT_EQ(pBefore, pAfter);
    End(pAfter);
}

TEST(CmBlockPool, ServesDataBlocks_WhenTheyAreSmall) {
    const ScopedBlockPool pool;
    constexpr unsigned int LARGEST = 472;  // with the block's own 40 bytes: 512
    for (const unsigned int dwSize : {1u, 100u, LARGEST, LARGEST + 1, 10000u}) {
        CCmDataBlock* pBlock = nullptr;
        ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pBlock, dwSize, nullptr));
        EXPECT_EQ(dwSize <= LARGEST, CCmBlockPool::IsFromHere(pBlock)) << dwSize;
        std::memset(pBlock->m_pPayload, 0x5A, dwSize);
        EXPECT_EQ(0u, pBlock->ReleaseReference());
    }
}

TEST(CmBlockPool, GivesAlignedMemoryThatNobodyElseHas_WhateverTheSize) {
    const ScopedBlockPool pool;
    struct Block {
        unsigned char* pMemory;
        size_t nSize;
    };
    std::vector<Block> blocks;
    for (int i = 0; i < 20; ++i) {
        for (size_t nSize = 0; nSize <= CCmBlockPool::LARGEST_BLOCK + 1; ++nSize) {
            auto* pMemory = static_cast<unsigned char*>(CCmBlockPool::Allocate(nSize));
            ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(pMemory) % alignof(std::max_align_t));
            std::memset(pMemory, static_cast<int>(blocks.size() % 251), nSize);
            blocks.push_back({pMemory, nSize});
        }
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (size_t j = 0; j < blocks[i].nSize; ++j) {
            ASSERT_EQ(i % 251, blocks[i].pMemory[j]) << "block " << i;
        }
        CCmBlockPool::Free(blocks[i].pMemory);
    }
}

TEST(CmBlockPool, TakesNoMoreMemory_WhenOneThreadPostsAndAnotherRuns) {
    const ScopedBlockPool pool;
    TaskThread worker;
    for (int i = 0; i < 200; ++i) {
        for (int j = 0; j < 500; ++j) {
            worker->GetEventQueue()->PostEvent(new Event, ICmEventQueue::EPRIORITY_NORMAL);
        }
        EXPECT_EQ(CM_OK, worker->GetEventQueue()->SendEvent(new Event));
    }
    // 501 events of 64 bytes and what the two threads keep lie in 3 chunks, the wrappers of the
    // sends in 2, magazines in 1, and each thread may take one too many; all that were posted are
    // 391.
    EXPECT_LE(CCmBlockPool::Chunks(), 8u);
}

TEST(CmBlockPool, TakesAThreadsBlocksBack_WhenItEnds) {
    const ScopedBlockPool pool;
    size_t nChunks = 0;
    for (int i = 0; i < 50; ++i) {
        std::thread([] {
            std::vector<Event*> events = MakeEvents(200);
            EndAll(events);
        }).join();
        if (i == 0) {
            nChunks = CCmBlockPool::Chunks();
        }
    }
    EXPECT_EQ(nChunks, CCmBlockPool::Chunks());
}

void* SleepWithBlocks(void* aGate) {
    std::vector<Event*> events = MakeEvents(200);
    EndAll(events);
    events.shrink_to_fit();
    static_cast<Gate*>(aGate)->Open();
    for (;;) {
        const timespec tsLong = {1000, 0};
        nanosleep(&tsLong, nullptr);
    }
}

TEST(CmBlockPool, TakesAThreadsBlocksBack_WhenItIsCancelled) {
    const ScopedBlockPool pool;
    size_t nChunks = 0;
    for (int i = 0; i < 20; ++i) {
        Gate ready;
        pthread_t thread;
        ASSERT_EQ(0, pthread_create(&thread, nullptr, SleepWithBlocks, &ready));
        ready.Wait();
        EXPECT_EQ(0, pthread_cancel(thread));
        EXPECT_EQ(0, pthread_join(thread, nullptr));
        if (i == 0) {
            nChunks = CCmBlockPool::Chunks();
        }
    }
    EXPECT_EQ(nChunks, CCmBlockPool::Chunks());
}

TEST(CmBlockPool, TakesAThreadsBlocksBack_WhenItIsDetached) {
    const ScopedBlockPool pool;
    std::vector<Event*> events;
    std::atomic<bool> bMade{false};
    const auto nThreads = kelto_test::ThreadsOfThisProcess();
    std::thread([&] {
        events = MakeEvents(100);
        bMade = true;
    }).detach();
    ASSERT_TRUE(Eventually([&] { return bMade.load(); }));
    ASSERT_TRUE(Eventually([&] { return kelto_test::ThreadsOfThisProcess() <= nThreads; }));
    // 256 of them lie in a chunk; those that were not used have come back.
    ASSERT_TRUE(Eventually([&events] {
        std::vector<Event*> more = MakeEvents(100);
        const size_t nChunks = CCmBlockPool::Chunks();
        EndAll(more);
        return nChunks <= 2 + 1 && events.size() == 100;
    }));
    EndAll(events);
}

// A key whose destructor runs after the pool's, made after it.
class LateKey {
  public:
    LateKey() { EXPECT_EQ(0, pthread_key_create(&m_Key, &Late)); }
    ~LateKey() { pthread_key_delete(m_Key); }
    // To be called in a thread; aFreed is freed late there, and an event is made.
    void Set(Event* aFreed, Event** aMade) {
        m_pFreed = aFreed;
        m_ppMade = aMade;
        EXPECT_EQ(0, pthread_setspecific(m_Key, this));
    }

  private:
    static void Late(void* aKey) {
        LateKey* pKey = static_cast<LateKey*>(aKey);
        End(pKey->m_pFreed);
        *pKey->m_ppMade = new Event;
    }

    pthread_key_t m_Key;
    Event* m_pFreed = nullptr;
    Event** m_ppMade = nullptr;
};

TEST(CmBlockPool, ServesAThreadThatIsPastItsEnd) {
    const ScopedBlockPool pool;
    End(new Event);  // its key is made before the one below
    LateKey key;
    Event* pMade = nullptr;
    uintptr_t nFreed = 0;
    std::thread([&] {
        Event* const pEvent = new Event;
        nFreed = reinterpret_cast<uintptr_t>(pEvent);
        key.Set(pEvent, &pMade);
    }).join();
    ASSERT_NE(nullptr, pMade);
    EXPECT_TRUE(pMade->IsIntact());
    End(pMade);
    // What was freed late is not lost.
    std::set<uintptr_t> taken;
    std::vector<Event*> events = MakeEvents(600);
    for (Event* pEvent : events) {
        taken.insert(reinterpret_cast<uintptr_t>(pEvent));
    }
    EXPECT_EQ(1u, taken.count(nFreed));
    EndAll(events);
}

// What of this process is in memory, in bytes; 0 where the system has no such file.
long ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    long lTotal = 0;
    long lResident = 0;
    return file >> lTotal >> lResident ? lResident * sysconf(_SC_PAGESIZE) : 0;
}

TEST(CmBlockPool, GivesPagesBack_WhenItIsTrimmed) {
    const ScopedBlockPool pool;
    std::vector<Event*> events = MakeEvents(100000);  // 6.4 million bytes
    EXPECT_GE(CCmBlockPool::Chunks(), 100000u / 256);
    const long lFull = ResidentBytes();
    EndAll(events);
    EXPECT_EQ(1u, ChunksAfterTrim()) << "that of this thread's cache";
    if (lFull != 0 && !CmPortHasSanitizer()) {
        EXPECT_LE(ResidentBytes(), lFull - 5000000);
    }
    // What came back is used again.
    events = MakeEvents(1000);
    EXPECT_TRUE(events.back()->IsIntact());
    EndAll(events);
}

TEST(CmBlockPool, KeepsTheChunksOfEventsThatLive_WhenItIsTrimmed) {
    const ScopedBlockPool pool;
    std::vector<Event*> events = MakeEvents(10000);
    std::vector<Event*> kept;
    for (size_t i = 0; i < events.size(); ++i) {
        if (i % 1000 == 0) {
            kept.push_back(events[i]);
        } else {
            End(events[i]);
        }
    }
    const size_t nChunks = ChunksAfterTrim();
    EXPECT_LE(nChunks, kept.size() + 3);
    for (const Event* pEvent : kept) {
        EXPECT_TRUE(pEvent->IsIntact());
    }
    // The rest of their chunks serves.
    events = MakeEvents(1000);
    EXPECT_LE(CCmBlockPool::Chunks(), nChunks + 1);
    EndAll(events);
    EndAll(kept);
}

TEST(CmBlockPool, GivesIdleMemoryBack_WhenItWasNotNeededForASecond) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    std::vector<Event*> events = MakeEvents(20000);
    EXPECT_FALSE(CCmBlockPool::Tend()) << "nothing is idle";
    EndAll(events);
    const size_t nChunks = CCmBlockPool::Chunks();
    clock.AdvanceMs(5000);
    EXPECT_TRUE(CCmBlockPool::Tend()) << "to be looked at again";
    clock.AdvanceMs(999);
    EXPECT_TRUE(CCmBlockPool::Tend());
    EXPECT_EQ(nChunks, CCmBlockPool::Chunks());
    clock.AdvanceMs(1);
    EXPECT_FALSE(CCmBlockPool::Tend());
    EXPECT_EQ(1u, CCmBlockPool::Chunks());
}

TEST(CmBlockPool, KeepsIdleMemory_WhenItWasNeededWithinTheSecond) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    std::vector<Event*> events = MakeEvents(20000);
    EndAll(events);
    clock.AdvanceMs(5000);
    EXPECT_TRUE(CCmBlockPool::Tend());
    for (int i = 0; i < 5; ++i) {
        clock.AdvanceMs(500);
        events = MakeEvents(20000);
        const size_t nChunks = CCmBlockPool::Chunks();
        EndAll(events);
        clock.AdvanceMs(500);
        EXPECT_TRUE(CCmBlockPool::Tend());
        EXPECT_EQ(nChunks, CCmBlockPool::Chunks());
    }
}

TEST(CmBlockPool, GivesIdleMemoryBack_WhenAThreadEndsASecondAfterTheLastTime) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    const size_t nBefore = ChunksAfterTrim();
    const auto burst = [] {
        std::vector<Event*> events = MakeEvents(20000);
        EndAll(events);
    };
    std::thread(burst).join();
    EXPECT_LT(nBefore + 10, CCmBlockPool::Chunks()) << "it was trimmed just now";
    clock.AdvanceMs(CCmBlockPool::TEND_SEC * 1000);
    std::thread(burst).join();
    EXPECT_GE(nBefore + 1, CCmBlockPool::Chunks());
    std::thread(burst).join();
    EXPECT_LT(nBefore + 10, CCmBlockPool::Chunks()) << "the next thread may need it";
    EXPECT_EQ(nBefore, ChunksAfterTrim());
}

TEST(CmBlockPool, GivesIdleMemoryBack_WhenTheEventsThatKeptItHaveEnded) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    std::vector<Event*> kept;
    std::vector<Event*> events = MakeEvents(20000);
    for (size_t i = 0; i < events.size(); i += 200) {
        kept.push_back(std::exchange(events[i], new Event));
    }
    EndAll(events);
    clock.AdvanceMs(5000);
    EXPECT_TRUE(CCmBlockPool::Tend());
    clock.AdvanceMs(1000);
    EXPECT_FALSE(CCmBlockPool::Tend());
    EXPECT_LT(70u, CCmBlockPool::Chunks()) << "each has an event that lives";
    events = MakeEvents(19000);
    EndAll(events);
    EndAll(kept);
    EXPECT_TRUE(CCmBlockPool::Tend());
    clock.AdvanceMs(1000);
    EXPECT_FALSE(CCmBlockPool::Tend());
    EXPECT_EQ(1u, CCmBlockPool::Chunks());
}

class CShownTask : public CCmThreadTaskWithEventQueueOnly {
  public:
    void RunHere() {
        Create(TT_MAIN, TF_JOINABLE, 0);
        OnThreadInit();
        OnThreadRun();
    }
};

// Mapping takes its time.
class CSlowMap {
  public:
    explicit CSlowMap(ScopedClock& aClock) { s_pClock = &aClock; }

  private:
    static void* Map(void* aPlace, size_t aSize, int aProtection, int aFlags, int aFile,
                     off_t aOffset) {
        s_pClock->AdvanceMs(70);
        return mmap(aPlace, aSize, aProtection, aFlags, aFile, aOffset);
    }
    inline static ScopedClock* s_pClock = nullptr;
    kelto_test::ScopedEntry<decltype(CCmSystemTable::mmap)> m_Entry{g_cmSystem.mmap, &Map};
};

TEST(CmBlockPool, IsTrimmedAtTheExpenseOfNoEvent) {
    const ScopedBlockPool pool;
    const ScopedTraceSink sink;
    ScopedClock clock;
    CShownTask task;
    kelto_test::EventLog log;
    const auto post = [&](const kelto_test::LoggedEvent::Work& aWork) {
        task.GetEventQueue()->PostEvent(new kelto_test::LoggedEvent(log, 1, aWork),
                                        ICmEventQueue::EPRIORITY_NORMAL);
    };
    std::vector<Event*> events = MakeEvents(20000);
    EndAll(events);
    const size_t nChunks = CCmBlockPool::Chunks();
    clock.AdvanceMs(5000);
    EXPECT_TRUE(CCmBlockPool::Tend());
    const CSlowMap slowMap(clock);
    post([&] {
        clock.AdvanceMs(1000);
        post([&] {
            task.SetStopFlag();
            return CM_OK;
        });
        return CM_OK;
    });
    task.RunHere();
    EXPECT_GT(nChunks, CCmBlockPool::Chunks());
    EXPECT_EQ(1u, sink.count("ProcessOneEvent, report, sec=1 usec=0 "));
    EXPECT_EQ(1u, sink.count("ProcessOneEvent, report"));
}

TEST(CmBlockPool, TellsOneThreadToLookAgain_WhenSeveralAsk) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    std::vector<Event*> events = MakeEvents(20000);
    EndAll(events);
    clock.AdvanceMs(5000);
    EXPECT_TRUE(CCmBlockPool::Tend());
    std::thread([] { EXPECT_FALSE(CCmBlockPool::Tend()); }).join();
    EXPECT_TRUE(CCmBlockPool::Tend());
}

TEST(CmBlockPool, TellsAnotherThreadToLookAgain_WhenOneCannotKeepACache) {
    const ScopedBlockPool pool;
    ScopedClock clock;
    std::vector<Event*> events = MakeEvents(20000);
    EndAll(events);
    {
        const FailingCall<&CCmSystemTable::pthread_setspecific> fault(0, ENOMEM, 1,
                                                                      Failing::FROM_THERE_ON);
        std::thread([] { EXPECT_FALSE(CCmBlockPool::Tend()); }).join();
        EXPECT_LT(0u, fault.calls());
    }
    EXPECT_TRUE(CCmBlockPool::Tend());
}

TEST(CmBlockPool, GivesABurstBack_WhenItsWorkerSleeps) {
    for (const bool bWithTimerQueue : {false, true}) {
        const ScopedBlockPool pool;
        TaskThread worker(bWithTimerQueue);
        for (int i = 0; i < 50000; ++i) {
            worker->GetEventQueue()->PostEvent(new Event, ICmEventQueue::EPRIORITY_NORMAL);
        }
        EXPECT_EQ(CM_OK, worker->GetEventQueue()->SendEvent(new Event));
        // What the posting thread and the chunks of magazines keep.
        EXPECT_TRUE(Eventually([] { return CCmBlockPool::Chunks() <= 16; }))
            << CCmBlockPool::Chunks();
    }
}

TEST(CmBlockPool, TurnsToTheSystem_WhenItsRangeIsFull) {
    const ScopedBlockPool pool;
    const long lBefore = LiveAllocations();
    std::vector<void*> blocks(CCmBlockPool::RANGE_SIZE / CCmBlockPool::LARGEST_BLOCK + 1000);
    bool bWasFull = false;
    for (void*& pBlock : blocks) {
        pBlock = CCmBlockPool::Allocate(CCmBlockPool::LARGEST_BLOCK);
        bWasFull = bWasFull || !CCmBlockPool::IsFromHere(pBlock);
    }
    EXPECT_TRUE(bWasFull);
    EXPECT_LE(CCmBlockPool::Chunks(), CCmBlockPool::RANGE_SIZE / CCmBlockPool::CHUNK_SIZE);
    // Another thread has no magazine to free them into.
    std::thread([&blocks] {
        for (void* pBlock : blocks) {
            CCmBlockPool::Free(pBlock);
        }
    }).join();
    EXPECT_EQ(lBefore + 1, LiveAllocations()) << "the list of the blocks";
    EXPECT_EQ(1u, ChunksAfterTrim());
}

TEST(CmBlockPool, TurnsToTheSystem_WhenThatCommitsNoMemory) {
    const ScopedBlockPool pool;
    std::vector<Event*> events;
    {
        const FailingCommit fault(ENOMEM, -1, 1, Failing::FROM_THERE_ON);
        std::thread([&events] { events = MakeEvents(1000); }).join();
        EXPECT_LT(0u, fault.calls());
    }
    EXPECT_FALSE(CCmBlockPool::IsFromHere(events.back()));
    EndAll(events);
    events = MakeEvents(1000);
    EXPECT_TRUE(CCmBlockPool::IsFromHere(events.back()));
    EndAll(events);
}

// More refusals than there are chunks, and than there are magazines.
TEST(CmBlockPool, LosesNothing_WhenTheSystemCommitsNoMemoryTimeAndAgain) {
    const ScopedBlockPool pool;
    std::vector<void*> kept;  // of a size of its own each time, which takes a magazine
    for (size_t nSize = 64; nSize < CCmBlockPool::LARGEST_BLOCK; nSize += 64) {
        {
            const FailingCommit fault(ENOMEM, -1, 1, Failing::FROM_THERE_ON);
            for (size_t i = 0; i < CCmBlockPool::RANGE_SIZE / CCmBlockPool::CHUNK_SIZE; ++i) {
                CCmBlockPool::Free(CCmBlockPool::Allocate(CCmBlockPool::LARGEST_BLOCK));
            }
            EXPECT_LE(CCmBlockPool::RANGE_SIZE / CCmBlockPool::CHUNK_SIZE, fault.calls());
        }
        LargestEvent* const pEvent = new LargestEvent;
        EXPECT_TRUE(CCmBlockPool::IsFromHere(pEvent));
        End(pEvent);
        kept.push_back(CCmBlockPool::Allocate(nSize));
        CCmBlockPool::Trim();
    }
    for (void* const pMemory : kept) {
        CCmBlockPool::Free(pMemory);
    }
    EXPECT_EQ(1u, ChunksAfterTrim());
}

TEST(CmBlockPool, LosesNoBlock_WhenThereIsNoMemoryForAMagazine) {
    const ScopedBlockPool pool;
    std::vector<Event*> events = MakeEvents(1000);
    const size_t nChunks = CCmBlockPool::Chunks();
    {
        // As many threads as there are magazines, so that some find none.
        const FailingCommit fault(ENOMEM, -1, 1, Failing::FROM_THERE_ON);
        std::vector<std::thread> threads;
        Gate release;
        std::atomic<size_t> nNext{0};
        for (int i = 0; i < 100; ++i) {
            threads.emplace_back([&] {
                End(events[nNext.fetch_add(1)]);
                release.Wait();
            });
        }
        ASSERT_TRUE(Eventually([&nNext] { return nNext.load() == 100; }));
        release.Open();
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_LT(0u, fault.calls());
    }
    events.erase(events.begin(), events.begin() + 100);
    std::vector<Event*> more = MakeEvents(100);
    EXPECT_LE(CCmBlockPool::Chunks(), nChunks + 1);
    EndAll(more);
    EndAll(events);
    EXPECT_EQ(1u, ChunksAfterTrim());
}

TEST(CmBlockPool, FailsAsTheSystemDoes_WhenBothAreOutOfMemory) {
    const ScopedBlockPool pool;
    std::thread([] {
        const FailingCommit noCommit(ENOMEM, -1, 1, Failing::FROM_THERE_ON);
        const ScopedAllocationFault noMemory(1, Failing::FROM_THERE_ON);
        EXPECT_EQ(nullptr, new (std::nothrow) LargestEvent);
        EXPECT_THROW(new LargestEvent, std::bad_alloc);
        CCmDataBlock* pBlock = nullptr;
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, CCmDataBlock::CreateInstance(pBlock, 400, nullptr));
        EXPECT_EQ(nullptr, pBlock);
    }).join();
}

TEST(CmBlockPool, StaysUsable_WhenTheSystemTakesNoPagesBack) {
    const ScopedBlockPool pool;
    std::vector<Event*> events = MakeEvents(10000);
    EndAll(events);
    {
        const FailingCall<&CCmSystemTable::mmap> fault(ENOMEM, MAP_FAILED, 1,
                                                       Failing::FROM_THERE_ON);
        CCmBlockPool::Trim();
        EXPECT_LT(0u, fault.calls());
    }
    events = MakeEvents(10000);
    EXPECT_TRUE(std::all_of(events.begin(), events.end(),
                            [](const Event* aEvent) { return aEvent->IsIntact(); }));
    EndAll(events);
    CCmBlockPool::Trim();
}

TEST(CmBlockPool, LeavesABlockAlone_WhenItIsFreedTwice) {
    const ScopedBlockPool pool;
    ScopedTraceSink sink;
    void* pBlock = CCmBlockPool::Allocate(64);
    CCmBlockPool::Free(pBlock);
    CCmBlockPool::Free(pBlock);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ("UTIL ERROR: CCmBlockPool::Free, is free already. aMemory=0x#",
              kelto_test::MaskAddresses(sink.lines()[0].text));
    void* pFirst = CCmBlockPool::Allocate(64);
    void* pSecond = CCmBlockPool::Allocate(64);
    EXPECT_NE(pFirst, pSecond);
    CCmBlockPool::Free(pFirst);
    CCmBlockPool::Free(pSecond);
    EXPECT_EQ(1u, sink.lines().size());
}

TEST(CmBlockPool, ServesTheChildOfAFork) {
    const ScopedBlockPool pool;
    std::vector<Event*> events = MakeEvents(1000);
    EXPECT_EQ(0, StatusOfChild([&events] {
                  EndAll(events);
                  events = MakeEvents(3000);
                  EXPECT_TRUE(CCmBlockPool::IsFromHere(events.back()));
                  EndAll(events);
              }));
    EXPECT_TRUE(events.back()->IsIntact()) << "those of the parent are its own";
    EndAll(events);
}

TEST(CmBlockPool, LeavesEveryAllocationToTheSystem_WhenItIsOff) {
    Event* pFromPool = nullptr;
    {
        const ScopedBlockPool pool;
        pFromPool = new Event;
    }
    EXPECT_TRUE(CCmBlockPool::IsFromHere(pFromPool));
    const long lBefore = LiveAllocations();
    Event* pEvent = new Event;
    EXPECT_EQ(lBefore + 1, LiveAllocations());
    End(pEvent);
    EXPECT_EQ(lBefore, LiveAllocations());
    End(pFromPool);
    EXPECT_EQ(lBefore, LiveAllocations());
    const ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
    EXPECT_EQ(nullptr, new (std::nothrow) Event);
    EXPECT_THROW(new Event, std::bad_alloc);
}

TEST(CmBlockPool, IsOffUnderSanitizers) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    EXPECT_TRUE(CmPortHasSanitizer());
#elif !defined(__clang__)
    EXPECT_FALSE(CmPortHasSanitizer());
#endif
    EXPECT_FALSE(CCmBlockPool::IsOn()) << "in test programs";
}

// Threads hand events of many sizes round, while others come and go and one trims.
TEST(CmBlockPool, KeepsItsOrder_WhenManyThreadsUseIt) {
    constexpr int ROUNDS = 300;
    constexpr size_t PER_ROUND = 100;
    struct Block {
        unsigned char* pMemory;
        size_t nSize;
        unsigned char by;
    };
    const ScopedBlockPool pool;
    std::mutex mutex;
    std::vector<Block> shared;
    std::atomic<bool> bEnds{false};
    std::atomic<int> nSpoilt{0};
    const auto exchange = [&](unsigned aSeed) {
        unsigned dwRandom = aSeed * 2654435761u + 1;
        for (int i = 0; i < ROUNDS; ++i) {
            std::vector<Block> mine;
            for (size_t j = 0; j < PER_ROUND; ++j) {
                dwRandom = dwRandom * 1664525u + 1013904223u;
                const size_t nSize = 1 + (dwRandom >> 16) % 600;
                const auto by = static_cast<unsigned char>(dwRandom >> 24);
                auto* p = static_cast<unsigned char*>(CCmBlockPool::Allocate(nSize));
                std::memset(p, by, nSize);
                mine.push_back({p, nSize, by});
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                shared.swap(mine);
            }
            for (const Block& block : mine) {
                nSpoilt += std::all_of(block.pMemory, block.pMemory + block.nSize,
                                       [&block](unsigned char aBy) { return aBy == block.by; })
                               ? 0
                               : 1;
                CCmBlockPool::Free(block.pMemory);
            }
        }
    };
    std::thread trimmer([&bEnds] {
        while (!bEnds.load()) {
            CCmBlockPool::Trim();
            std::this_thread::yield();
        }
    });
    std::thread comers([&bEnds] {
        while (!bEnds.load()) {
            std::thread([] {
                std::vector<Event*> events = MakeEvents(150);
                EndAll(events);
            }).join();
        }
    });
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back(exchange, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    bEnds = true;
    trimmer.join();
    comers.join();
    EXPECT_EQ(0, nSpoilt.load());
    for (const Block& block : shared) {
        CCmBlockPool::Free(block.pMemory);
    }
    EXPECT_EQ(1u, ChunksAfterTrim()) << "no block is lost";
}

TEST(CmBlockPool, CarriesPostsAndSends_WhenManyThreadsPost) {
    const ScopedBlockPool pool;
    std::atomic<int> nFired{0};
    {
        TaskThread worker;
        ICmEventQueue& queue = *worker->GetEventQueue();
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int j = 0; j < 1000; ++j) {
                    CmPost(queue, [&nFired] { ++nFired; });
                    if (j % 50 == 0) {
                        EXPECT_TRUE(CmCall(queue, [&nFired] { return ++nFired; }));
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(4 * 1020, nFired.load());
    EXPECT_EQ(1u, ChunksAfterTrim());
}

}  // namespace
}  // namespace UTIL_NS
