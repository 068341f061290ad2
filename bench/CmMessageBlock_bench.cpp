// Chains of message blocks: 3 blocks of 400 bytes, the size of a packet.

#include "CmMessageBlock.h"

#include <cstring>

#include "Row.h"
#if KELTO_WITH_ABSEIL
#include <absl/strings/cord.h>
#endif
#if KELTO_WITH_ACE
#include <ace/Message_Block.h>
#endif
#if KELTO_WITH_LIBEVENT
#include <event2/buffer.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "message blocks";
constexpr char CHAIN[] = "chain of 3 x 400 B: build, write, duplicate, read, free";
constexpr char FLATTEN[] = "flatten 3 x 400 B";
constexpr char SPLIT[] = "duplicate 3 x 400 B, split in half";
constexpr char GROWTH[] = "growth: duplicate, read and free a chain, over its length";

constexpr unsigned int BLOCKS = 3;
constexpr unsigned int BLOCK_SIZE = 400;
constexpr unsigned int SIZE = BLOCKS * BLOCK_SIZE;

const std::string s_strBytes = RandomBytes(SIZE);

// Flattens again and again; aFlatten() returns a std::string. Several of them live at a time, so
// that the heap hands out the same places in every row: with a single one, the cost depends on what
// earlier rows have left beside it.
template <typename Flatten>
void FlattenRow(benchmark::State& aState, Flatten aFlatten) {
    std::string flats[8];
    size_t nFlat = 0;
    for (auto _ : aState) {
        std::string& flat = flats[++nFlat % 8];
        flat = aFlatten();
        Touch(flat.data());
    }
    Check(flats[nFlat % 8] == s_strBytes, FLATTEN);
    CountItems(aState);
}

bool IsEqual(const char* aBytes) {
    return std::memcmp(aBytes, s_strBytes.data(), SIZE) == 0;
}

// ---- Ours. A chain on the heap, every block of which DestroyChained frees.

CCmMessageBlock* NewBlock() {
    CCmMessageBlock block(BLOCK_SIZE);
    return block.DuplicateTopLevel();
}

CCmMessageBlock* BuildChain(unsigned int aBlocks) {
    CCmMessageBlock* pChain = NewBlock();
    CCmMessageBlock* pLast = pChain;
    for (unsigned int i = 1; i < aBlocks; ++i) {
        CCmMessageBlock* pBlock = NewBlock();
        pLast->Append(pBlock);
        pLast = pBlock;
    }
    return pChain;
}

const Row s_oursChain(AREA, CHAIN, OURS, [](benchmark::State& aState) {
    char achRead[SIZE];
    for (auto _ : aState) {
        CCmMessageBlock first(BLOCK_SIZE);
        CCmMessageBlock second(BLOCK_SIZE);
        CCmMessageBlock third(BLOCK_SIZE);
        first.Append(&second);
        second.Append(&third);
        first.Write(s_strBytes.data(), SIZE);
        CCmMessageBlock* pCopy = first.DuplicateChained();
        unsigned int dwRead = 0;
        pCopy->Read(achRead, SIZE, &dwRead);
        Check(dwRead == SIZE && achRead[SIZE - 1] == s_strBytes[SIZE - 1], CHAIN);
        pCopy->DestroyChained();
    }
    Check(IsEqual(achRead), CHAIN);
    CountItems(aState);
});

const Row s_oursFlatten(AREA, FLATTEN, OURS, [](benchmark::State& aState) {
    CCmMessageBlock* pChain = BuildChain(BLOCKS);
    pChain->Write(s_strBytes.data(), SIZE);
    FlattenRow(aState, [&] { return pChain->FlattenChained(); });
    pChain->DestroyChained();
});

const Row s_oursSplit(AREA, SPLIT, OURS, [](benchmark::State& aState) {
    CCmMessageBlock* pChain = BuildChain(BLOCKS);
    pChain->Write(s_strBytes.data(), SIZE);
    for (auto _ : aState) {
        CCmMessageBlock* pHead = pChain->DuplicateChained();
        CCmMessageBlock* pTail = pHead->Disjoint(SIZE / 2);
        Check(pTail->GetTopLevelLength() == BLOCK_SIZE / 2 &&
                  *pTail->GetTopLevelReadPtr() == s_strBytes[SIZE / 2],
              SPLIT);
        pHead->DestroyChained();
        pTail->DestroyChained();
    }
    pChain->DestroyChained();
    CountItems(aState);
});

// ---- Peers.

#if KELTO_WITH_ABSEIL
absl::Cord BuildCord() {
    absl::Cord cord;
    for (unsigned int i = 0; i < BLOCKS; ++i) {
        cord.Append(absl::Cord(absl::string_view(s_strBytes.data() + i * BLOCK_SIZE, BLOCK_SIZE)));
    }
    return cord;
}

const Row s_abseilChain(AREA, CHAIN, "Abseil Cord", [](benchmark::State& aState) {
    char achRead[SIZE];
    for (auto _ : aState) {
        const absl::Cord cord = BuildCord();
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): what is measured
        const absl::Cord copy(cord);
        char* pRead = achRead;
        for (absl::string_view piece : copy.Chunks()) {
            std::memcpy(pRead, piece.data(), piece.size());
            pRead += piece.size();
        }
        Check(pRead == achRead + SIZE && achRead[SIZE - 1] == s_strBytes[SIZE - 1], CHAIN);
    }
    Check(IsEqual(achRead), CHAIN);
    CountItems(aState);
});

const Row s_abseilFlatten(AREA, FLATTEN, "Abseil Cord", [](benchmark::State& aState) {
    const absl::Cord cord = BuildCord();
    FlattenRow(aState, [&] { return std::string(cord); });
});

const Row s_abseilSplit(AREA, SPLIT, "Abseil Cord", [](benchmark::State& aState) {
    const absl::Cord cord = BuildCord();
    for (auto _ : aState) {
        const absl::Cord head = cord.Subcord(0, SIZE / 2);
        const absl::Cord tail = cord.Subcord(SIZE / 2, SIZE / 2);
        Check(tail.size() == SIZE / 2 && *tail.char_begin() == s_strBytes[SIZE / 2], SPLIT);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_ACE
ACE_Message_Block* BuildAceChain() {
    ACE_Message_Block* pChain = nullptr;
    ACE_Message_Block* pLast = nullptr;
    for (unsigned int i = 0; i < BLOCKS; ++i) {
        ACE_Message_Block* pBlock = new ACE_Message_Block(BLOCK_SIZE);
        pBlock->copy(s_strBytes.data() + i * BLOCK_SIZE, BLOCK_SIZE);
        if (pLast != nullptr) {
            pLast->cont(pBlock);
        } else {
            pChain = pBlock;
        }
        pLast = pBlock;
    }
    return pChain;
}

const Row s_aceChain(AREA, CHAIN, "ACE", [](benchmark::State& aState) {
    char achRead[SIZE];
    for (auto _ : aState) {
        ACE_Message_Block* pChain = BuildAceChain();
        ACE_Message_Block* pCopy = pChain->duplicate();
        char* pRead = achRead;
        for (ACE_Message_Block* pBlock = pCopy; pBlock != nullptr; pBlock = pBlock->cont()) {
            std::memcpy(pRead, pBlock->rd_ptr(), pBlock->length());
            pRead += pBlock->length();
            pBlock->rd_ptr(pBlock->wr_ptr());
        }
        Check(pRead == achRead + SIZE && achRead[SIZE - 1] == s_strBytes[SIZE - 1], CHAIN);
        pCopy->release();
        pChain->release();
    }
    Check(IsEqual(achRead), CHAIN);
    CountItems(aState);
});

const Row s_aceFlatten(AREA, FLATTEN, "ACE", [](benchmark::State& aState) {
    ACE_Message_Block* pChain = BuildAceChain();
    FlattenRow(aState, [&] {
        std::string text;
        text.reserve(pChain->total_length());
        for (ACE_Message_Block* pBlock = pChain; pBlock != nullptr; pBlock = pBlock->cont()) {
            text.append(pBlock->rd_ptr(), pBlock->length());
        }
        return text;
    });
    pChain->release();
});

const Row s_aceSplit(AREA, SPLIT, "ACE", [](benchmark::State& aState) {
    ACE_Message_Block* pChain = BuildAceChain();
    for (auto _ : aState) {
        ACE_Message_Block* pHead = pChain->duplicate();
        // The middle block is the one that is cut.
        ACE_Message_Block* pCut = pHead->cont();
        ACE_Message_Block* pTail = pCut->cont();
        pCut->cont(nullptr);
        ACE_Message_Block* pMiddle = pCut->duplicate();
        pMiddle->rd_ptr(BLOCK_SIZE / 2);
        pCut->wr_ptr(pCut->rd_ptr() + BLOCK_SIZE / 2);
        pMiddle->cont(pTail);
        Check(pMiddle->total_length() == SIZE / 2 && *pMiddle->rd_ptr() == s_strBytes[SIZE / 2],
              SPLIT);
        pHead->release();
        pMiddle->release();
    }
    pChain->release();
    CountItems(aState);
});
#endif

#if KELTO_WITH_LIBEVENT
const Row s_libeventChain(AREA, CHAIN, "libevent evbuffer", [](benchmark::State& aState) {
    char achRead[SIZE];
    for (auto _ : aState) {
        evbuffer* pBuffer = evbuffer_new();
        for (unsigned int i = 0; i < BLOCKS; ++i) {
            evbuffer_add(pBuffer, s_strBytes.data() + i * BLOCK_SIZE, BLOCK_SIZE);
        }
        evbuffer* pCopy = evbuffer_new();
        evbuffer_add_buffer_reference(pCopy, pBuffer);
        Check(evbuffer_remove(pCopy, achRead, SIZE) == static_cast<int>(SIZE), CHAIN);
        evbuffer_free(pCopy);
        evbuffer_free(pBuffer);
    }
    Check(IsEqual(achRead), CHAIN);
    CountItems(aState);
});
#endif

// ---- How the cost grows.

const bool s_bAdded = [] {
    for (unsigned int dwBlocks : {1U, 10U, 100U, 1000U, 10000U}) {
        Row(GROWTH, std::to_string(dwBlocks), OURS, [=](benchmark::State& aState) {
            const std::string bytes = RandomBytes(dwBlocks * BLOCK_SIZE);
            CCmMessageBlock* pChain = BuildChain(dwBlocks);
            pChain->Write(bytes.data(), dwBlocks * BLOCK_SIZE);
            std::string read(bytes.size(), '\0');
            for (auto _ : aState) {
                CCmMessageBlock* pCopy = pChain->DuplicateChained();
                Check(pCopy->Read(&read[0], dwBlocks * BLOCK_SIZE) == CM_OK, GROWTH);
                pCopy->DestroyChained();
            }
            Check(read == bytes, GROWTH);
            pChain->DestroyChained();
            CountItems(aState);
        });
    }
    return true;
}();

}  // namespace
