#include "support/ChainModel.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "CmMessageBlock.h"
#include "CmUtilMisc.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr size_t CHAINS = 3;
constexpr size_t MOST_BLOCKS = 24;  // of a chain

// The bytes of one area, as the model knows them.
struct Area {
    std::string bytes;
    std::string memory;           // the real bytes, when the blocks wrap this driver's memory
    CCmDataBlock* pDb = nullptr;  // the real storage, held with a reference of our own
    ~Area() {
        if (pDb != nullptr) {
            pDb->ReleaseReference();
        }
    }
};

struct Block {
    CCmMessageBlock* pReal = nullptr;
    std::shared_ptr<Area> area;  // null: an empty block
    size_t nRead = 0;
    size_t nWrite = 0;
    bool bForeign = false;  // the write pointer is another area's
    bool bExternal = false;
    bool bReadLocked = false;
    bool bWriteLocked = false;
    bool bDuplicated = false;

    size_t Size() const { return area ? area->bytes.size() : 0; }
    size_t Length() const { return bForeign || nWrite < nRead ? 0 : nWrite - nRead; }
    size_t Space() const { return bForeign ? 0 : Size() - nWrite; }
    std::string Data() const { return Length() == 0 ? "" : area->bytes.substr(nRead, Length()); }
};

typedef std::vector<Block> Chain;

class Driver {
  public:
    Driver(const uint8_t* aData, size_t aSize) : m_pData(aData), m_nLeft(aSize) {}
    ~Driver() {
        for (Chain& chain : m_chains) {
            Destroy(chain);
        }
    }

    std::string Run() {
        while (m_nLeft != 0 && m_sError.empty()) {
            Step();
            CheckAll();
        }
        return m_sError;
    }

  private:
    unsigned int Next(unsigned int aLimit) {
        if (m_nLeft == 0) {
            return 0;
        }
        --m_nLeft;
        return *m_pData++ % aLimit;
    }

    void Expect(bool aHolds, const char* aWhat) {
        if (!aHolds && m_sError.empty()) {
            m_sError = aWhat;
        }
    }

    void Step() {
        const unsigned int dwOperation = Next(17);
        Chain& chain = m_chains[Next(CHAINS)];
        Chain& other = m_chains[Next(CHAINS)];
        if (dwOperation < 2 || chain.empty()) {
            return Add(chain);
        }
        switch (dwOperation) {
            case 2:
            case 3:
                return Write(chain);
            case 4:
            case 5:
                return Read(chain);
            case 6:
                return Peek(chain);
            case 7:
                return Update(chain);
            case 8:
                return Disjoint(chain, other);
            case 9:
                return Duplicate(chain, other);
            case 10:
                return Lock(chain);
            case 11:
                return Advance(chain);
            case 12:
                return Next(8) == 0 ? Rewind(chain) : Gather(chain);
            case 13:
                return Reclaim(chain);
            case 14:
                return Combine(chain, other);
            case 15:
                return Checksum(chain);
            default:
                return Append(chain, other);
        }
    }

    // A block over a shared data block, over memory of the driver's, or empty.
    void Add(Chain& aChain) {
        if (aChain.size() >= MOST_BLOCKS) {
            return Destroy(aChain);
        }
        const unsigned int dwKind = Next(4);
        const unsigned int dwSize = Next(40);
        const unsigned int dwAdvance = std::min(Next(40), dwSize);
        Block block;
        std::unique_ptr<CCmMessageBlock> pReal;
        if (dwKind == 0 || dwSize == 0) {
            pReal = std::make_unique<CCmMessageBlock>();
        } else {
            block.area = std::make_shared<Area>();
            block.area->bytes = Text(dwSize);
            block.nWrite = dwAdvance;
            if (dwKind == 1) {
                block.bExternal = true;
                block.area->memory = block.area->bytes;
                pReal = std::make_unique<CCmMessageBlock>(dwSize, block.area->memory.data(), 0,
                                                          dwAdvance);
            } else {
                CCmDataBlock::CreateInstance(block.area->pDb, dwSize, block.area->bytes.data());
                pReal = std::make_unique<CCmMessageBlock>(block.area->pDb, 0, dwAdvance);
            }
        }
        block.pReal = pReal.get();
        if (!aChain.empty()) {
            aChain[0].pReal->Append(block.pReal);
        }
        m_own.emplace_back(std::move(pReal), block.area);
        aChain.push_back(block);
    }

    void Write(Chain& aChain) {
        const std::string sData = Text(Next(80));
        unsigned int dwReal = 0;
        const CmResult rvReal =
            aChain[0].pReal->Write(sData.data(), static_cast<unsigned int>(sData.size()), &dwReal);
        size_t nDone = 0;
        CmResult rv = CM_ERROR_PARTIAL_DATA;
        for (Block& block : aChain) {
            if (block.bWriteLocked) {
                rv = CM_ERROR_FAILURE;
                break;
            }
            const size_t nPart = std::min(block.Space(), sData.size() - nDone);
            if (nPart != 0) {
                block.area->bytes.replace(block.nWrite, nPart, sData, nDone, nPart);
            }
            block.nWrite += nPart;
            nDone += nPart;
            if (nDone == sData.size()) {
                rv = CM_OK;
                break;
            }
        }
        Expect(rv == rvReal && nDone == dwReal, "Write");
    }

    void Read(Chain& aChain) {
        const unsigned int dwCount = Next(80);
        const bool bAdvance = Next(3) != 0;
        const bool bCopy = Next(3) != 0;
        std::string sReal(dwCount, '#');
        unsigned int dwReal = 0;
        const CmResult rvReal =
            aChain[0].pReal->Read(bCopy ? &sReal[0] : nullptr, dwCount, &dwReal, bAdvance ? 1 : 0);
        std::string sData;
        CmResult rv = CM_ERROR_PARTIAL_DATA;
        for (Block& block : aChain) {
            if (block.bReadLocked) {
                rv = CM_ERROR_FAILURE;
                break;
            }
            const std::string sPart = block.Data().substr(0, dwCount - sData.size());
            sData += sPart;
            block.nRead += bAdvance ? sPart.size() : 0;
            if (sData.size() == dwCount) {
                rv = CM_OK;
                break;
            }
        }
        Expect(rv == rvReal && sData.size() == dwReal, "Read: result");
        Expect(!bCopy || sReal.compare(0, dwReal, sData) == 0, "Read: bytes");
    }

    static std::string AllData(const Chain& aChain) {
        std::string sData;
        for (const Block& block : aChain) {
            sData += block.Data();
        }
        return sData;
    }

    void Peek(const Chain& aChain) {
        const unsigned int dwCount = Next(60);
        const unsigned int dwOffset = Next(60);
        std::string sReal(dwCount, '#');
        const CmResult rvReal =
            aChain[0].pReal->Peek(reinterpret_cast<unsigned char*>(&sReal[0]), dwCount, dwOffset);
        const std::string sData = AllData(aChain);
        if (dwCount == 0 || dwCount + dwOffset <= sData.size()) {
            Expect(rvReal == CM_OK, "Peek: result");
            Expect(dwCount == 0 || sReal == sData.substr(dwOffset, dwCount), "Peek: bytes");
        } else {
            Expect(rvReal == CM_ERROR_FAILURE && sReal == std::string(dwCount, '#'),
                   "Peek: refusal");
        }
    }

    void Update(Chain& aChain) {
        const std::string sData = Text(Next(60));
        size_t nOffset = Next(60);
        const CmResult rvReal = aChain[0].pReal->Update(
            reinterpret_cast<const unsigned char*>(sData.data()),
            static_cast<unsigned int>(sData.size()), static_cast<unsigned int>(nOffset));
        if (!sData.empty() && sData.size() + nOffset > AllData(aChain).size()) {
            return Expect(rvReal == CM_ERROR_FAILURE, "Update: refusal");
        }
        std::vector<std::pair<Block*, size_t>> places;  // of each byte
        bool bLocked = false;
        for (Block& block : aChain) {
            for (size_t i = 0; i < block.Length(); ++i) {
                if (nOffset != 0) {
                    --nOffset;
                } else if (places.size() < sData.size()) {
                    places.emplace_back(&block, block.nRead + i);
                    bLocked |= block.bReadLocked;
                }
            }
        }
        Expect(rvReal == (bLocked ? CM_ERROR_FAILURE : CM_OK), "Update: result");
        for (size_t i = 0; i < places.size() && !bLocked; ++i) {
            places[i].first->area->bytes[places[i].second] = sData[i];
        }
    }

    static Block DuplicateOf(const Block& aBlock, CCmMessageBlock* aReal) {
        Block copy = aBlock;
        if (copy.bExternal && copy.area) {
            copy.area = std::make_shared<Area>();
            copy.area->bytes = aBlock.area->bytes;
        }
        copy.bExternal = copy.bReadLocked = copy.bWriteLocked = false;
        copy.bDuplicated = true;
        copy.pReal = aReal;
        return copy;
    }

    void Disjoint(Chain& aChain, Chain& aOther) {
        const unsigned int dwStart = Next(80);
        CCmMessageBlock* pTail = aChain[0].pReal->Disjoint(dwStart);
        size_t nKeep = dwStart;
        size_t nCut = 0;
        while (nCut < aChain.size() &&
               (nKeep > aChain[nCut].Length() || aChain[nCut].Length() == 0)) {
            nKeep -= aChain[nCut++].Length();
        }
        Chain tail;
        if (nCut < aChain.size()) {
            Block& cut = aChain[nCut];
            CCmMessageBlock* pReal = pTail;
            const bool bInside = nKeep < cut.Length();
            for (size_t i = bInside ? nCut : nCut + 1; i < aChain.size() && pReal != nullptr; ++i) {
                const bool bSame = i != nCut && aChain[i].bDuplicated;
                Expect(bSame == (pReal == aChain[i].pReal), "Disjoint: identity");
                tail.push_back(bSame ? aChain[i] : DuplicateOf(aChain[i], pReal));
                pReal = pReal->GetNext();
            }
            if (bInside) {
                tail[0].nRead += nKeep;
                cut.nWrite = cut.nRead + nKeep;
            }
            Expect(pReal == nullptr, "Disjoint: end of the tail");
            const size_t nExpected = aChain.size() - nCut - (bInside ? 0 : 1);
            Expect(tail.size() == nExpected, "Disjoint: number of blocks");
            aChain.resize(nCut + 1);
        }
        Expect((pTail == nullptr) == tail.empty(), "Disjoint: result");
        Replace(aChain, aOther, tail);
    }

    void Duplicate(const Chain& aChain, Chain& aOther) {
        Replace(aChain, aOther, DuplicateAll(aChain, aChain[0].pReal->DuplicateChained()));
    }

    Chain DuplicateAll(const Chain& aChain, CCmMessageBlock* aReal) {
        Chain copies;
        for (const Block& block : aChain) {
            Expect(aReal != nullptr, "Duplicate: number of blocks");
            if (aReal != nullptr) {
                copies.push_back(DuplicateOf(block, aReal));
                aReal = aReal->GetNext();
            }
        }
        return copies;
    }

    // Puts a new chain in aOther's place; when that is where it came from, the new one is
    // destroyed.
    void Replace(const Chain& aChain, Chain& aOther, Chain aNew) {
        if (&aChain == &aOther) {
            return Destroy(aNew);
        }
        Destroy(aOther);
        aOther = std::move(aNew);
    }

    void Destroy(Chain& aChain) {
        if (!aChain.empty()) {
            CCmMessageBlock::DestroyChained(aChain[0].pReal);
        }
        aChain.clear();
    }

    void Lock(Chain& aChain) {
        Block& block = aChain[Next(static_cast<unsigned int>(aChain.size()))];
        const unsigned int dwAction = Next(8);
        const unsigned long ulLock =
            dwAction % 2 == 0 ? CCmMessageBlock::READ_LOCKED : CCmMessageBlock::WRITE_LOCKED;
        const bool bSet = dwAction < 2;
        bSet ? block.pReal->SetLock(ulLock) : block.pReal->ClearLock(ulLock);
        (dwAction % 2 == 0 ? block.bReadLocked : block.bWriteLocked) = bSet;
    }

    void Advance(Chain& aChain) {
        const unsigned int dwCount = Next(80);
        unsigned int dwReal = 0;
        const CmResult rvReal = aChain[0].pReal->AdvanceChainedWritePtr(dwCount, &dwReal);
        CmResult rv = aChain[0].bWriteLocked ? CM_ERROR_FAILURE : CM_ERROR_PARTIAL_DATA;
        size_t nLeft = dwCount;
        for (Block& block : aChain) {
            if (nLeft == 0 || block.nRead != 0) {
                break;
            }
            if (block.bWriteLocked) {
                rv = CM_ERROR_FAILURE;
                break;
            }
            const size_t nPart = std::min(block.Space(), nLeft);
            block.nWrite += nPart;
            nLeft -= nPart;
            rv = nLeft == 0 ? CM_OK : rv;
        }
        Expect(rv == rvReal && dwReal == dwCount - nLeft, "AdvanceChainedWritePtr");
    }

    void Rewind(Chain& aChain) {
        aChain[0].pReal->RewindChained();
        for (Block& block : aChain) {
            block.nRead = block.nWrite = 0;
            block.bForeign = block.area != aChain[0].area;
        }
    }

    void Reclaim(Chain& aChain) {
        CCmMessageBlock* pHead = aChain[0].pReal->ReclaimGarbage();
        size_t nDropped = 0;
        while (nDropped < aChain.size() && !aChain[nDropped].bForeign &&
               aChain[nDropped].nRead == aChain[nDropped].nWrite) {
            ++nDropped;
        }
        const bool bAll = nDropped == aChain.size();
        Expect(pHead == (bAll ? nullptr : aChain[nDropped].pReal), "ReclaimGarbage");
        aChain.erase(aChain.begin(), aChain.begin() + static_cast<std::ptrdiff_t>(nDropped));
    }

    void Combine(const Chain& aChain, Chain& aOther) {
        CCmMessageBlock* pReal = aChain[0].pReal->CombineSingleBuffer();
        const std::string sAll = AllData(aChain);
        if (aChain[0].Length() == sAll.size()) {
            return Replace(aChain, aOther, DuplicateAll(aChain, pReal));
        }
        Block block;
        block.area = std::make_shared<Area>();
        for (const Block& part : aChain) {
            block.area->bytes += part.bReadLocked ? std::string(part.Length(), '\0') : part.Data();
        }
        block.nWrite = sAll.size();
        block.bDuplicated = true;
        block.pReal = pReal;
        Expect(pReal != nullptr && pReal->GetNext() == nullptr, "CombineSingleBuffer");
        Replace(aChain, aOther, Chain(1, block));
    }

    void Gather(const Chain& aChain) {
        iovec iov[MOST_BLOCKS * 2];
        const unsigned int dwMax = Next(MOST_BLOCKS * 2);
        const uint32_t dwReal = aChain[0].pReal->FillIov(iov, dwMax);
        uint32_t dwFilled = 0;
        std::string sFlat;
        for (const Block& block : aChain) {
            sFlat += block.bReadLocked ? "" : block.Data();
            if (block.Length() != 0 && dwFilled < dwMax && dwFilled < dwReal) {
                const iovec& entry = iov[dwFilled++];
                Expect(entry.iov_len == block.Length(), "FillIov: length");
                Expect((entry.iov_base == nullptr) == block.bReadLocked, "FillIov: base");
                Expect(block.bReadLocked ||
                           block.Data() ==
                               std::string(static_cast<char*>(entry.iov_base), entry.iov_len),
                       "FillIov: bytes");
            }
        }
        Expect(dwFilled == dwReal, "FillIov: count");
        Expect(aChain[0].pReal->FlattenChained() == sFlat, "FlattenChained");
    }

    void Checksum(const Chain& aChain) {
        const unsigned int dwCount = Next(100);
        unsigned short wReal = 0x1234;
        CalcCRC16_m(wReal, *aChain[0].pReal, dwCount);
        unsigned int dwCrc = 0x1234;
        size_t nLeft = dwCount;
        for (const Block& block : aChain) {
            const std::string sPart = block.Data().substr(0, nLeft);
            nLeft -= sPart.size();
            for (size_t i = 0; i < sPart.size() * 8 && !block.bReadLocked; ++i) {
                dwCrc ^= i % 8 == 0 ? static_cast<unsigned char>(sPart[i / 8]) : 0;
                dwCrc = (dwCrc >> 1) ^ ((dwCrc & 1) != 0 ? 0xA001 : 0);
            }
        }
        Expect(dwCrc == wReal, "CalcCRC16_m");
    }

    void Append(Chain& aChain, Chain& aOther) {
        if (aOther.empty() || aChain.size() + aOther.size() > MOST_BLOCKS) {
            return;
        }
        aChain[0].pReal->Append(aOther[0].pReal);
        if (&aChain != &aOther) {
            aChain.insert(aChain.end(), aOther.begin(), aOther.end());
            aOther.clear();
        }
    }

    std::string Text(size_t aSize) {
        std::string sText(aSize, ' ');
        for (char& ch : sText) {
            ch = static_cast<char>(++m_byText);
        }
        return sText;
    }

    void CheckAll() {
        for (const Chain& chain : m_chains) {
            CheckChain(chain);
        }
    }

    void CheckChain(const Chain& aChain) {
        if (aChain.empty()) {
            return;
        }
        size_t nLength = 0;
        size_t nSpace = 0;
        CCmMessageBlock* pReal = aChain[0].pReal;
        for (const Block& block : aChain) {
            Expect(pReal == block.pReal, "links");
            if (!m_sError.empty()) {
                return;
            }
            Expect(pReal->GetTopLevelLength() == block.Length(), "length of a block");
            Expect(pReal->GetTopLevelSpace() == block.Space(), "space of a block");
            Expect(pReal->GetFlag() == FlagOf(block), "flags of a block");
            Expect(!block.area || block.area->pDb == nullptr ||
                       block.area->pDb->GetReference() == ReferencesTo(block.area),
                   "references");
            nLength += block.Length();
            nSpace += block.Space();
            pReal = pReal->GetNext();
        }
        Expect(pReal == nullptr, "end of the chain");
        Expect(aChain[0].pReal->GetChainedLength() == nLength, "GetChainedLength");
        Expect(aChain[0].pReal->GetChainedSpace() == nSpace, "GetChainedSpace");
    }

    static unsigned long FlagOf(const Block& aBlock) {
        return (aBlock.bExternal ? CCmMessageBlock::EXTERNAL_DATA : 0) |
               (aBlock.bReadLocked ? CCmMessageBlock::READ_LOCKED : 0) |
               (aBlock.bWriteLocked ? CCmMessageBlock::WRITE_LOCKED : 0) |
               (aBlock.bDuplicated ? CCmMessageBlock::DUPLICATED : 0);
    }

    // One of our own, one per block that we made and one per duplicate in a chain.
    uint32_t ReferencesTo(const std::shared_ptr<Area>& aArea) const {
        uint32_t dwCount = 1;
        for (const auto& own : m_own) {
            dwCount += own.second == aArea ? 1 : 0;
        }
        for (const Chain& chain : m_chains) {
            for (const Block& block : chain) {
                dwCount += block.bDuplicated && block.area == aArea ? 1 : 0;
            }
        }
        return dwCount;
    }

    const uint8_t* m_pData;
    size_t m_nLeft;
    uint8_t m_byText = 0;
    std::string m_sError;
    // The blocks that no operation of the library allocated; they live to the end.
    std::vector<std::pair<std::unique_ptr<CCmMessageBlock>, std::shared_ptr<Area>>> m_own;
    Chain m_chains[CHAINS];
};

}  // namespace

std::string RunChainModel(const uint8_t* aData, size_t aSize) {
    return Driver(aData, aSize).Run();
}

}  // namespace kelto_test
