#include "CmBlockPieces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/Chains.h"
#include "support/Eventually.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::ChainTest;
using kelto_test::ScopedAllocationFault;

class CmBlockPieces : public ChainTest {};

std::vector<std::string> TextsOf(const CCmMessageBlock* aChain) {
    std::vector<std::string> texts;
    for (const std::string_view piece : CCmPieces(aChain)) {
        texts.emplace_back(piece);
    }
    return texts;
}

TEST_F(CmBlockPieces, AreTheReadableBytes) {
    CCmChainPtr pChain = CmMakeChain({"head", "", "er", "body"});
    ASSERT_NE(nullptr, pChain);
    EXPECT_EQ((std::vector<std::string>{"head", "er", "body"}), TextsOf(pChain.get()));
    EXPECT_EQ(CM_OK, pChain->AdvanceChainedReadPtr(5));
    EXPECT_EQ((std::vector<std::string>{"r", "body"}), TextsOf(pChain.get()));
    EXPECT_EQ("", CmPieceOf(*pChain));

    const CCmPieces pieces(pChain.get());
    EXPECT_EQ(2, std::distance(pieces.begin(), pieces.end()));
    auto it = pieces.begin();
    EXPECT_EQ("r", *it++);
    EXPECT_EQ("body", *it);
    EXPECT_EQ(pChain->GetNext()->GetNext(), it.Block());
    EXPECT_EQ(pieces.end(), ++it);
    EXPECT_EQ(0U, Lines());
}

TEST_F(CmBlockPieces, LeaveBlocksOut_WhenTheyAreLocked) {
    CCmChainPtr pChain = CmMakeChain({"one", "two", "three"});
    pChain->GetNext()->SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), TextsOf(pChain.get()));
    EXPECT_EQ(0U, Lines());  // nothing was asserted
}

TEST_F(CmBlockPieces, AreNone_WhenThereIsNoBlock) {
    EXPECT_TRUE(CCmPieces(nullptr).empty());
    CCmMessageBlock block;
    EXPECT_TRUE(CCmPieces(&block).empty());
    EXPECT_EQ(nullptr, CmMakeChain({}));
    EXPECT_EQ(nullptr, CmMakeChain({"", ""}));
    EXPECT_EQ(nullptr, CmMakeBlock(""));
}

TEST_F(CmBlockPieces, AreTakenFromAnyRange) {
    const std::vector<std::string> texts(100, "abc");
    CCmChainPtr pChain = CmMakeChain(texts);
    EXPECT_EQ(300U, pChain->GetChainedLength());
    EXPECT_EQ(texts, TextsOf(pChain.get()));
    CCmChainPtr pCopy = CmMakeChain(CCmPieces(pChain.get()));
    EXPECT_EQ(texts, TextsOf(pCopy.get()));
}

TEST_F(CmBlockPieces, MakeChainLeavesNothing_WhenMemoryRunsOut) {
    bool bSucceeded = false;
    for (unsigned long ulNth = 1; !bSucceeded && ulNth < 20; ++ulNth) {
        const ScopedAllocationFault fault(ulNth);
        CCmChainPtr pChain = CmMakeChain({"one", "two", "three"});
        EXPECT_EQ(fault.hit(), pChain == nullptr) << ulNth;
        bSucceeded = !fault.hit();
    }
    EXPECT_TRUE(bSucceeded);
}

TEST_F(CmBlockPieces, AreaOfADataBlockIsShared) {
    CCmDataBlock* pData = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pData, 10, "0123456789"));
    EXPECT_FALSE(CmIsShared(*pData));
    {
        CCmChainPtr pMiddle = CmMakeBlockOfArea(*pData, 3, 4);
        ASSERT_NE(nullptr, pMiddle);
        EXPECT_EQ("3456", CmPieceOf(*pMiddle));
        EXPECT_EQ(pData->m_pPayload + 3, CmPieceOf(*pMiddle).data());
        EXPECT_TRUE(CmIsShared(*pData));
        EXPECT_TRUE(pMiddle->IsShared());
        EXPECT_EQ(CM_ERROR_FAILURE, pMiddle->Write("x", 1));  // would change what follows
        EXPECT_EQ("0123456789", std::string(pData->m_pPayload, 10));
        CCmChainPtr pWhole = CmMakeBlockOfArea(*pData, 0, 10);
        EXPECT_EQ("0123456789", CmPieceOf(*pWhole));
    }
    EXPECT_FALSE(CmIsShared(*pData));
    EXPECT_EQ(nullptr, CmMakeBlockOfArea(*pData, 3, 8));
    EXPECT_EQ(nullptr, CmMakeBlockOfArea(*pData, 11, 1));
    EXPECT_EQ(nullptr, CmMakeBlockOfArea(*pData, 0xFFFFFFFF, 2));
    EXPECT_EQ(nullptr, CmMakeBlockOfArea(*pData, 0, 0));
    {
        const ScopedAllocationFault fault(1);
        EXPECT_EQ(nullptr, CmMakeBlockOfArea(*pData, 0, 10));
        EXPECT_TRUE(fault.hit());
    }
    pData->ReleaseReference();
}

TEST_F(CmBlockPieces, IsSharedAsksForOtherHolders) {
    CCmChainPtr pBlock = CmMakeBlock("text");
    EXPECT_FALSE(pBlock->IsShared());
    {
        CCmChainPtr pCopy(pBlock->DuplicateTopLevel());
        EXPECT_TRUE(pBlock->IsShared());
    }
    EXPECT_FALSE(pBlock->IsShared());
    char achMemory[4] = {};
    const CCmMessageBlock external(sizeof(achMemory), achMemory);
    EXPECT_FALSE(external.IsShared());
}

// What another thread has read of them it has read before.
TEST_F(CmBlockPieces, BytesMayBeWritten_WhenIsSharedTellsThatNobodyElseHasThem) {
    for (int i = 0; i < 20; ++i) {
        CCmChainPtr pBlock = CmMakeBlock("text");
        CCmChainPtr pCopy(pBlock->DuplicateTopLevel());
        std::string sRead;
        std::thread reader([&] {
            sRead = pCopy->FlattenChained();
            pCopy.reset();
        });
        EXPECT_TRUE(kelto_test::Eventually([&] { return !pBlock->IsShared(); }));
        EXPECT_EQ(CM_OK, pBlock->Update(reinterpret_cast<const unsigned char*>("TEXT"), 4, 0));
        reader.join();
        EXPECT_EQ("text", sRead);
        EXPECT_EQ("TEXT", pBlock->FlattenChained());
    }
}

}  // namespace
}  // namespace UTIL_NS
