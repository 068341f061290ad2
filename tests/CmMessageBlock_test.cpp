#include "CmMessageBlock.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "support/Chains.h"

namespace UTIL_NS {
namespace {

using kelto_test::ChainTest;
using kelto_test::HeapBlock;
using kelto_test::ScopedAllocationFault;

class CmMessageBlock : public ChainTest {};

const char* const READ_TEXT = "CM_BIT_DISABLED(m_Flag, READ_LOCKED)";
const char* const WRITE_TEXT = "CM_BIT_DISABLED(m_Flag, WRITE_LOCKED)";

std::string HeaderLine(int aLine, const std::string& aText) {
    return "UTIL ERROR: include/CmMessageBlock.h:" + std::to_string(aLine) +
           " Assert failed: " + aText;
}

std::string SourceLine(int aLine, const std::string& aText) {
    return "UTIL ERROR: source/util/CmMessageBlock.cpp:" + std::to_string(aLine) +
           " Assert failed: " + aText;
}

// --- construction and SetData

TEST_F(CmMessageBlock, DefaultConstructorIsEmpty) {
    CCmMessageBlock block;
    EXPECT_EQ(nullptr, block.GetNext());
    EXPECT_EQ(nullptr, block.GetTopLevelReadPtr());
    EXPECT_EQ(nullptr, block.GetTopLevelWritePtr());
    EXPECT_EQ(0u, block.GetTopLevelLength());
    EXPECT_EQ(0u, block.GetTopLevelSpace());
    EXPECT_EQ(0u, block.GetFlag());
    EXPECT_FALSE(block.m_bRtpChainedFlag);
}

// Literal zeros may be a size or a data block.
TEST_F(CmMessageBlock, ConstructorTakesLiteralZeros) {
    const CCmMessageBlock fromZeros(0, 0, 0);
    const CCmMessageBlock fromNull(NULL, 0, 0);
    const CCmMessageBlock fromNullptr(nullptr, 0, 0);
    const CCmMessageBlock fromZero(0);
    for (const CCmMessageBlock* pMb : {&fromZeros, &fromNull, &fromNullptr, &fromZero}) {
        EXPECT_EQ(0u, pMb->GetTopLevelSpace());
        EXPECT_EQ(nullptr, pMb->GetTopLevelReadPtr());
    }
}

TEST_F(CmMessageBlock, ConstructorTakesASizeOfAnyIntegerType) {
    const CCmMessageBlock fromInt(10);
    const CCmMessageBlock fromSize(size_t{10}, nullptr);
    const CCmMessageBlock fromShort(static_cast<short>(10), 0, 0);
    const CCmMessageBlock fromLongLong(10LL, nullptr, 0, 0);
    for (const CCmMessageBlock* pMb : {&fromInt, &fromSize, &fromShort, &fromLongLong}) {
        EXPECT_EQ(10u, pMb->GetTopLevelSpace());
    }
}

TEST_F(CmMessageBlock, SetDataAllocates_WithoutASource) {
    CCmMessageBlock block;
    EXPECT_EQ(CM_OK, block.SetData(10, nullptr, CCmMessageBlock::EXTERNAL_DATA | 0x10000, 4));
    EXPECT_EQ(4u, block.GetTopLevelLength());
    EXPECT_EQ(6u, block.GetTopLevelSpace());
    EXPECT_EQ(0x10000u, block.GetFlag());
}

TEST_F(CmMessageBlock, SetDataWrapsTheCallersMemory) {
    char achMemory[10] = "abcdefghi";
    CCmMessageBlock block;
    EXPECT_EQ(CM_OK, block.SetData(10, achMemory, 0, 3));
    EXPECT_EQ(achMemory, block.GetTopLevelReadPtr());
    EXPECT_EQ(achMemory + 3, block.GetTopLevelWritePtr());
    EXPECT_EQ(7u, block.GetTopLevelSpace());
    EXPECT_EQ(CCmMessageBlock::EXTERNAL_DATA, block.GetFlag());
}

TEST_F(CmMessageBlock, SetDataCopiesNothing_WhenItAllocates) {
    const char achMemory[] = "bytes that are not taken over";
    CCmMessageBlock block;
    {
        const kelto_test::ScopedAllocationFill fill('x');
        EXPECT_EQ(CM_OK,
                  block.SetData(sizeof(achMemory), achMemory, CCmMessageBlock::ALLOCATE_DATA, 0));
    }
    ASSERT_NE(achMemory, block.GetTopLevelReadPtr());
    EXPECT_EQ(std::string(sizeof(achMemory), 'x'),
              std::string(block.GetTopLevelReadPtr(), sizeof(achMemory)));
    EXPECT_EQ(0u, block.GetTopLevelLength());
    EXPECT_EQ(sizeof(achMemory), block.GetTopLevelSpace());
    EXPECT_EQ(0u, block.GetFlag());
}

TEST_F(CmMessageBlock, SetDataClearsLocksAndInternalBits) {
    CCmMessageBlock block;
    EXPECT_EQ(CM_OK, block.SetData(4, nullptr, 0xFF00 | 0x10000, 0));
    EXPECT_EQ(0x10000u, block.GetFlag());
}

TEST_F(CmMessageBlock, SetDataIsRefused_WhenTheBlockHasData) {
    CCmMessageBlock block(4);
    EXPECT_EQ(CM_ERROR_FAILURE, block.SetData(8, nullptr, 0, 0));
    EXPECT_EQ(CM_ERROR_FAILURE, block.SetData(nullptr, 0, 0));
    EXPECT_EQ(4u, block.GetTopLevelSpace());
    ASSERT_EQ(2u, Lines());
    EXPECT_EQ(10u, m_sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: CCmMessageBlock::SetData failed, m_pBeginPtr is not NULL this=0x#",
              Line(0));
    EXPECT_EQ(Line(0), Line(1));
}

TEST_F(CmMessageBlock, SetDataLeavesTheBlockEmpty_WhenTheSizeIsZero) {
    CCmMessageBlock block(0u);
    EXPECT_EQ(CM_OK, block.SetData(0, nullptr, 0, 0));
    EXPECT_EQ(nullptr, block.GetTopLevelReadPtr());
    EXPECT_EQ(CM_OK, block.SetData(4, nullptr, 0, 0));
}

TEST_F(CmMessageBlock, SetDataDropsTheAdvance_WhenItIsBeyondTheArea) {
    CCmMessageBlock block;
    EXPECT_EQ(CM_OK, block.SetData(4, nullptr, 0, 5));
    EXPECT_EQ(0u, block.GetTopLevelLength());
    EXPECT_EQ(HeaderLine(319, "(DWORD)(m_pEndPtr - m_pWritePtr) >= aStep"), Line(0));
}

TEST_F(CmMessageBlock, SetDataLeavesTheBlockEmpty_WithoutMemory) {
    CCmMessageBlock block;
    {
        ScopedAllocationFault fault(1);
        EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, block.SetData(4, nullptr, 0x10000, 2));
    }
    EXPECT_EQ(nullptr, block.GetTopLevelReadPtr());
    EXPECT_EQ(0u, block.GetFlag());
    EXPECT_EQ(0u, Lines());
    EXPECT_EQ(CM_OK, block.SetData(4, nullptr, 0, 0));
}

TEST_F(CmMessageBlock, SetDataSharesADataBlock) {
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 6, "abcdef"));
    {
        CCmMessageBlock block(pDb, 0x3 | 0xFF00 | 0x20000, 2);
        EXPECT_EQ(2u, pDb->GetReference());
        EXPECT_EQ(pDb->m_pPayload, block.GetTopLevelReadPtr());
        EXPECT_EQ(2u, block.GetTopLevelLength());
        EXPECT_EQ(4u, block.GetTopLevelSpace());
        EXPECT_EQ(CCmMessageBlock::DUPLICATED, block.GetFlag());
    }
    EXPECT_EQ(1u, pDb->GetReference());
    pDb->ReleaseReference();
}

TEST_F(CmMessageBlock, SetDataLeavesTheBlockEmpty_WhenTheDataBlockIsNull) {
    CCmMessageBlock block(static_cast<CCmDataBlock*>(nullptr));
    EXPECT_EQ(nullptr, block.GetTopLevelReadPtr());
    EXPECT_EQ(0u, block.GetTopLevelSpace());
}

TEST_F(CmMessageBlock, SetDataDropsARewoundWritePointer_WithoutAnArea) {
    CCmMessageBlock first(4);
    CCmMessageBlock second;
    first.Append(&second);
    first.RewindChained();
    EXPECT_NE(nullptr, second.GetTopLevelWritePtr());
    EXPECT_EQ(CM_OK, second.SetData(0, nullptr, 0, 0));
    EXPECT_EQ(nullptr, second.GetTopLevelWritePtr());
    first.RewindChained();
    EXPECT_EQ(CM_OK, second.SetData(nullptr, 0, 0));
    EXPECT_EQ(nullptr, second.GetTopLevelWritePtr());
}

// --- locks and accessors

TEST_F(CmMessageBlock, LocksAreSetAndClearedOneByOne) {
    CCmMessageBlock block(4);
    block.SetLock(CCmMessageBlock::READ_LOCKED | CCmMessageBlock::DUPLICATED);
    EXPECT_EQ(CCmMessageBlock::READ_LOCKED, block.GetFlag());
    block.SetLock(CCmMessageBlock::WRITE_LOCKED);
    block.ClearLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CCmMessageBlock::WRITE_LOCKED, block.GetFlag());
    block.ClearLock(CCmMessageBlock::WRITE_LOCKED);
    EXPECT_EQ(0u, block.GetFlag());
}

TEST_F(CmMessageBlock, AccessorsReturnNull_WhenTheBlockIsLocked) {
    CCmMessageBlock block(4);
    block.SetLock(CCmMessageBlock::READ_LOCKED | CCmMessageBlock::WRITE_LOCKED);
    EXPECT_EQ(nullptr, block.GetTopLevelReadPtr());
    EXPECT_EQ(nullptr, block.GetTopLevelWritePtr());
    ASSERT_EQ(2u, Lines());
    EXPECT_EQ(HeaderLine(306, READ_TEXT), Line(0));
    EXPECT_EQ(HeaderLine(312, WRITE_TEXT), Line(1));
}

// --- Read

class TwoBlocks : public ChainTest {
  protected:
    TwoBlocks() : m_first(4, "abcd", 0, 4), m_second(3, "efg", 0, 3) { m_first.Append(&m_second); }

    CCmMessageBlock m_first;
    CCmMessageBlock m_second;
    char m_achOut[16] = {};
    unsigned int m_dwCount = 99;
};

class CmMessageBlockRead : public TwoBlocks {};

TEST_F(CmMessageBlockRead, Reads_WhenOneBlockHoldsAll) {
    EXPECT_EQ(CM_OK, m_first.Read(m_achOut, 3, &m_dwCount));
    EXPECT_EQ(3u, m_dwCount);
    EXPECT_STREQ("abc", m_achOut);
    EXPECT_EQ(4u, m_first.GetChainedLength());
}

TEST_F(CmMessageBlockRead, Reads_WhenSeveralBlocksHoldIt) {
    EXPECT_EQ(CM_OK, m_first.Read(m_achOut, 6, &m_dwCount));
    EXPECT_EQ(6u, m_dwCount);
    EXPECT_STREQ("abcdef", m_achOut);
    EXPECT_EQ("g", m_first.FlattenChained());
}

TEST_F(CmMessageBlockRead, ConsumesWhatIsThere_WhenAskedForMore) {
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_first.Read(m_achOut, 10, &m_dwCount));
    EXPECT_EQ(7u, m_dwCount);
    EXPECT_STREQ("abcdefg", m_achOut);
    EXPECT_EQ(0u, m_first.GetTopLevelLength());
    EXPECT_EQ(0u, m_second.GetTopLevelLength());
}

TEST_F(CmMessageBlockRead, PeekKeepsTheData) {
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_first.Read(m_achOut, 10, &m_dwCount, 0));
    EXPECT_EQ(7u, m_dwCount);
    EXPECT_EQ(7u, m_first.GetChainedLength());
}

TEST_F(CmMessageBlockRead, SkipsOrOnlyCounts_WhenTheDestinationIsNull) {
    EXPECT_EQ(CM_OK, m_first.Read(nullptr, 5, &m_dwCount, 0));
    EXPECT_EQ(5u, m_dwCount);
    EXPECT_EQ(7u, m_first.GetChainedLength());
    EXPECT_EQ(CM_OK, m_first.Read(nullptr, 5, &m_dwCount, 1));
    EXPECT_EQ("fg", m_first.FlattenChained());
}

TEST_F(CmMessageBlockRead, Succeeds_WhenAskedForNothing) {
    CCmMessageBlock empty;
    EXPECT_EQ(CM_OK, empty.Read(m_achOut, 0, &m_dwCount));
    EXPECT_EQ(0u, m_dwCount);
}

TEST_F(CmMessageBlockRead, Refuses_WhenTheFirstBlockIsLocked) {
    m_first.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CM_ERROR_FAILURE, m_first.Read(m_achOut, 1, &m_dwCount));
    EXPECT_EQ(99u, m_dwCount);
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(SourceLine(154, READ_TEXT), Line(0));
    EXPECT_EQ(7u, m_first.GetChainedLength());
}

TEST_F(CmMessageBlockRead, Stops_WhenABlockInTheMiddleIsLocked) {
    m_second.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CM_ERROR_FAILURE, m_first.Read(m_achOut, 5, &m_dwCount));
    EXPECT_EQ(4u, m_dwCount);
    EXPECT_EQ(0u, m_first.GetTopLevelLength());
    EXPECT_EQ(SourceLine(154, READ_TEXT), Line(0));
}

TEST_F(CmMessageBlockRead, ReadsAll_WhenABlockAfterTheCountIsLocked) {
    m_second.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CM_OK, m_first.Read(m_achOut, 4, nullptr));
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlockRead, AdvanceChainedReadPtrSkips) {
    EXPECT_EQ(CM_OK, m_first.AdvanceChainedReadPtr(5, &m_dwCount));
    EXPECT_EQ(5u, m_dwCount);
    EXPECT_EQ("fg", m_first.FlattenChained());
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_first.AdvanceChainedReadPtr(3, nullptr));
}

// --- Write, lengths

TEST_F(CmMessageBlock, WriteFillsBlockAfterBlock) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    unsigned int dwWritten = 0;
    EXPECT_EQ(8u, first.GetChainedSpace());
    EXPECT_EQ(CM_OK, first.Write("abcdef", 6, &dwWritten));
    EXPECT_EQ(6u, dwWritten);
    EXPECT_EQ("abcdef", first.FlattenChained());
    EXPECT_EQ(6u, first.GetChainedLength());
    EXPECT_EQ(2u, first.GetChainedSpace());
}

TEST_F(CmMessageBlock, WriteKeepsWhatFits_WhenThereIsMore) {
    CCmMessageBlock first(2);
    CCmMessageBlock second(2);
    first.Append(&second);
    unsigned int dwWritten = 0;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.Write("abcdef", 6, &dwWritten));
    EXPECT_EQ(4u, dwWritten);
    EXPECT_EQ("abcd", first.FlattenChained());
}

TEST_F(CmMessageBlock, WriteAdvancesWithinOneBlockOnly_WhenTheSourceIsNull) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    unsigned int dwWritten = 0;
    EXPECT_EQ(CM_OK, first.Write(nullptr, 3, &dwWritten));
    EXPECT_EQ(3u, dwWritten);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.Write(nullptr, 3, &dwWritten));
    EXPECT_EQ(1u, dwWritten);
    EXPECT_EQ(0u, second.GetTopLevelLength());
}

TEST_F(CmMessageBlock, WriteRefuses_WhenTheFirstBlockIsLocked) {
    CCmMessageBlock block(4);
    block.SetLock(CCmMessageBlock::WRITE_LOCKED);
    unsigned int dwWritten = 99;
    EXPECT_EQ(CM_ERROR_FAILURE, block.Write("a", 1, &dwWritten));
    EXPECT_EQ(99u, dwWritten);
    EXPECT_EQ(0u, block.GetTopLevelLength());
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(SourceLine(227, WRITE_TEXT), Line(0));
}

TEST_F(CmMessageBlock, WriteStops_WhenABlockInTheMiddleIsLocked) {
    CCmMessageBlock first(2);
    CCmMessageBlock second(2);
    first.Append(&second);
    second.SetLock(CCmMessageBlock::WRITE_LOCKED);
    unsigned int dwWritten = 0;
    EXPECT_EQ(CM_ERROR_FAILURE, first.Write("abc", 3, &dwWritten));
    EXPECT_EQ(2u, dwWritten);
    EXPECT_EQ(SourceLine(227, WRITE_TEXT), Line(0));
}

// --- Append

TEST_F(CmMessageBlock, AppendBringsTheChainThatFollows) {
    CCmMessageBlock a(1, "a", 0, 1);
    CCmMessageBlock b(1, "b", 0, 1);
    CCmMessageBlock c(1, "c", 0, 1);
    b.Append(&c);
    a.Append(&b);
    EXPECT_EQ("abc", a.FlattenChained());
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, AppendChangesNothing_WhenTheBlockIsInTheChain) {
    CCmMessageBlock a;
    CCmMessageBlock b;
    CCmMessageBlock c;
    a.Append(&b);
    a.Append(&c);
    CCmMessageBlock* const members[] = {&a, &b, &c};
    for (CCmMessageBlock* pMember : members) {
        m_sink.clear();
        a.Append(pMember);
        ASSERT_EQ(1u, Lines());
        EXPECT_EQ(SourceLine(311, "aMb != pMbMove"), Line(0));
        EXPECT_EQ(&b, a.GetNext());
        EXPECT_EQ(&c, b.GetNext());
        EXPECT_EQ(nullptr, c.GetNext());
    }
}

TEST_F(CmMessageBlock, AppendRefuses_WhenACircleWouldClose) {
    CCmMessageBlock a;
    CCmMessageBlock b;
    a.Append(&b);
    b.Append(&a);
    EXPECT_EQ(nullptr, b.GetNext());
    EXPECT_EQ(SourceLine(311, "aMb != pMbMove"), Line(0));
}

TEST_F(CmMessageBlock, AppendChangesNothing_WhenTheBlockIsNull) {
    CCmMessageBlock a;
    CCmMessageBlock b;
    a.Append(&b);
    a.Append(nullptr);
    EXPECT_EQ(&b, a.GetNext());
    EXPECT_EQ(nullptr, b.GetNext());
    EXPECT_EQ(0u, Lines());
}

// --- advancing the write pointers

TEST_F(CmMessageBlock, AdvanceChainedWritePtrCrossesBlocks) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    unsigned int dwAdvanced = 0;
    EXPECT_EQ(CM_OK, first.AdvanceChainedWritePtr(6, &dwAdvanced));
    EXPECT_EQ(6u, dwAdvanced);
    EXPECT_EQ(4u, first.GetTopLevelLength());
    EXPECT_EQ(2u, second.GetTopLevelLength());
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.AdvanceChainedWritePtr(3, &dwAdvanced));
    EXPECT_EQ(2u, dwAdvanced);
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, AdvanceChainedWritePtrIsPartial_WhenTheCountIsZero) {
    CCmMessageBlock block(4);
    unsigned int dwAdvanced = 99;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, block.AdvanceChainedWritePtr(0, &dwAdvanced));
    EXPECT_EQ(0u, dwAdvanced);
}

TEST_F(CmMessageBlock, AdvanceChainedWritePtrStops_WhenABlockWasRead) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4, "abcd", 0, 1);
    first.Append(&second);
    second.Read(nullptr, 1);
    unsigned int dwAdvanced = 0;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.AdvanceChainedWritePtr(6, &dwAdvanced));
    EXPECT_EQ(4u, dwAdvanced);
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(0u, m_sink.lines()[0].level);
    EXPECT_EQ(
        "UTIL ERROR: CCmMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr=0x# "
        "m_pReadPtr=0x# this=0x#",
        Line(0));
}

TEST_F(CmMessageBlock, AdvanceChainedWritePtrRefuses_WhenTheFirstBlockIsLocked) {
    CCmMessageBlock block(4);
    block.SetLock(CCmMessageBlock::WRITE_LOCKED);
    unsigned int dwAdvanced = 99;
    EXPECT_EQ(CM_ERROR_FAILURE, block.AdvanceChainedWritePtr(0, &dwAdvanced));
    EXPECT_EQ(99u, dwAdvanced);
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(SourceLine(340, WRITE_TEXT), Line(0));
}

TEST_F(CmMessageBlock, AdvanceChainedWritePtrStops_WhenABlockInTheMiddleIsLocked) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    second.SetLock(CCmMessageBlock::WRITE_LOCKED);
    unsigned int dwAdvanced = 0;
    EXPECT_EQ(CM_ERROR_FAILURE, first.AdvanceChainedWritePtr(6, &dwAdvanced));
    EXPECT_EQ(4u, dwAdvanced);
    EXPECT_EQ(HeaderLine(318, WRITE_TEXT), Line(0));
}

TEST_F(CmMessageBlock, AdvanceTopLevelWritePtrIsAllOrNothing) {
    CCmMessageBlock block(4);
    EXPECT_EQ(CM_OK, block.AdvanceTopLevelWritePtr(3));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, block.AdvanceTopLevelWritePtr(2));
    EXPECT_EQ(3u, block.GetTopLevelLength());
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(HeaderLine(319, "(DWORD)(m_pEndPtr - m_pWritePtr) >= aStep"), Line(0));
}

TEST_F(CmMessageBlock, AdvanceTopLevelWritePtrRefuses_WhenTheBlockIsLocked) {
    CCmMessageBlock block(4);
    block.SetLock(CCmMessageBlock::WRITE_LOCKED);
    EXPECT_EQ(CM_ERROR_FAILURE, block.AdvanceTopLevelWritePtr(1));
    EXPECT_EQ(HeaderLine(318, WRITE_TEXT), Line(0));
}

// --- rewinding and destroying

TEST_F(CmMessageBlock, RewindChainedGivesLaterBlocksTheFirstBegin) {
    CCmMessageBlock first(4, "abcd", 0, 4);
    CCmMessageBlock second(4, "efgh", 0, 4);
    first.Append(&second);
    char* const pFirstBegin = first.GetTopLevelReadPtr();
    char* const pSecondBegin = second.GetTopLevelReadPtr();
    first.Read(nullptr, 6);
    first.RewindChained();
    EXPECT_EQ(pFirstBegin, first.GetTopLevelReadPtr());
    EXPECT_EQ(pFirstBegin, first.GetTopLevelWritePtr());
    EXPECT_EQ(pSecondBegin, second.GetTopLevelReadPtr());
    EXPECT_EQ(pFirstBegin, second.GetTopLevelWritePtr());
}

TEST_F(CmMessageBlock, RewindChainedReachesNothing_WhenTheWritePointerIsForeign) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    CCmMessageBlock third;
    first.Append(&second);
    first.Append(&third);
    first.Write("abcdefgh", 8);
    first.RewindChained();
    EXPECT_EQ(0u, first.GetChainedLength());
    EXPECT_EQ(4u, first.GetChainedSpace());
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.Write("0123456789", 10));
    EXPECT_EQ("0123", first.FlattenChained());
    CCmMessageBlock* pCopy = first.DuplicateChained();
    EXPECT_EQ("0123", pCopy->FlattenChained());
    pCopy->DestroyChained();
}

TEST_F(CmMessageBlock, RewindChainedMakesTheAreaWritable_WhenItIsShared) {
    CCmMessageBlock first(4, nullptr, 0, 4);
    CCmMessageBlock* pSecond = first.DuplicateTopLevel();
    first.Append(pSecond);
    first.RewindChained();
    EXPECT_EQ(8u, first.GetChainedSpace());
    first.DestroyChained();
}

TEST_F(CmMessageBlock, StaticFormsDoNothing_WhenTheBlockIsNull) {
    CCmMessageBlock* const pNull = nullptr;
    CCmMessageBlock::RewindChained(pNull);
    CCmMessageBlock::DestroyChained(pNull);
    EXPECT_EQ(nullptr, CCmMessageBlock::DuplicateChained(pNull));
    EXPECT_EQ(nullptr, CCmMessageBlock::Disjoint(pNull, 0));
    EXPECT_EQ("", CCmMessageBlock::FlattenChained(pNull));
    iovec iov[1];
    EXPECT_EQ(0u, CCmMessageBlock::FillIov(pNull, iov, 1));
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, DestroyChainedLeavesABlockAlone_WhenItIsOthers) {
    CCmMessageBlock own(2, "xy", 0, 2);
    CCmMessageBlock* pHead = HeapBlock("a");
    pHead->Append(&own);
    pHead->Append(HeapBlock("b"));
    CCmMessageBlock::DestroyChained(pHead);
    EXPECT_EQ("xy", own.FlattenChained());
    EXPECT_EQ(nullptr, own.GetNext());
}

TEST_F(CmMessageBlock, DestroyChainedFreesASuccessorOnce_WhenItIsOwned) {
    CCmMessageBlock* pHead = HeapBlock("a");
    pHead->Append(HeapBlock("b"));
    pHead->m_bRtpChainedFlag = true;
    CCmMessageBlock::DestroyChained(pHead);
}

TEST_F(CmMessageBlock, DestructorDeletesOwnedSuccessors) {
    CCmMessageBlock head(1);
    CCmMessageBlock* pSecond = new CCmMessageBlock(1);
    CCmMessageBlock* pThird = new CCmMessageBlock(1);
    CCmMessageBlock rest(1, "z", 0, 1);
    head.Append(pSecond);
    head.Append(pThird);
    head.Append(&rest);
    head.m_bRtpChainedFlag = true;
    pSecond->m_bRtpChainedFlag = true;
}

TEST_F(CmMessageBlock, DestructorLeavesTheRest_WithoutTheFlag) {
    CCmMessageBlock rest(1, "z", 0, 1);
    {
        CCmMessageBlock head(1);
        head.Append(&rest);
    }
    EXPECT_EQ("z", rest.FlattenChained());
}

// --- duplicating

TEST_F(CmMessageBlock, DuplicateTopLevelCopiesTheCallersMemory) {
    char achMemory[7] = "abcdef";
    CCmMessageBlock block(6, achMemory, 0x10000, 5);
    block.Read(nullptr, 2);
    CCmMessageBlock* pCopy = block.DuplicateTopLevel();
    std::memset(achMemory, 'x', 6);
    EXPECT_EQ("cde", pCopy->FlattenChained());
    EXPECT_EQ(3u, pCopy->GetTopLevelLength());
    EXPECT_EQ(1u, pCopy->GetTopLevelSpace());
    EXPECT_EQ(0x10000u | CCmMessageBlock::DUPLICATED, pCopy->GetFlag());
    EXPECT_EQ(nullptr, pCopy->GetNext());
    pCopy->DestroyChained();
}

TEST_F(CmMessageBlock, DuplicateTopLevelIsUnlockedAndShares_WhenTheBlockIsLocked) {
    CCmMessageBlock block(6);
    block.Write("abcd", 4);
    block.Read(nullptr, 1);
    char* const pRead = block.GetTopLevelReadPtr();
    block.SetLock(CCmMessageBlock::READ_LOCKED | CCmMessageBlock::WRITE_LOCKED);
    CCmMessageBlock* pCopy = block.DuplicateTopLevel();
    EXPECT_EQ(CCmMessageBlock::DUPLICATED, pCopy->GetFlag());
    EXPECT_EQ(pRead, pCopy->GetTopLevelReadPtr());
    EXPECT_EQ(3u, pCopy->GetTopLevelLength());
    EXPECT_EQ(2u, pCopy->GetTopLevelSpace());
    pCopy->DestroyChained();
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, DuplicateTopLevelIsEmpty_WhenTheBlockIs) {
    CCmMessageBlock empty;
    CCmMessageBlock external(0, "x", 0, 0);
    CCmMessageBlock* pCopy = empty.DuplicateTopLevel();
    CCmMessageBlock* pOther = external.DuplicateTopLevel();
    EXPECT_EQ(0u, pCopy->GetChainedSpace());
    EXPECT_EQ(0u, pOther->GetChainedSpace());
    EXPECT_EQ(CCmMessageBlock::DUPLICATED, pOther->GetFlag());
    pCopy->DestroyChained();
    pOther->DestroyChained();
}

TEST_F(CmMessageBlock, DuplicateTopLevelDoesNotOwnASuccessor) {
    CCmMessageBlock block(1);
    CCmMessageBlock* pOwned = new CCmMessageBlock(1);
    block.Append(pOwned);
    block.m_bRtpChainedFlag = true;
    CCmMessageBlock* pCopy = block.DuplicateTopLevel();
    EXPECT_EQ(nullptr, pCopy->GetNext());
    EXPECT_FALSE(pCopy->m_bRtpChainedFlag);
    pCopy->DestroyChained();
}

TEST_F(CmMessageBlock, DuplicateChainedSurvivesTheOriginal) {
    CCmMessageBlock* pCopy = nullptr;
    {
        CCmMessageBlock first(4);
        CCmMessageBlock second(4);
        first.Append(&second);
        first.Write("abcdef", 6);
        pCopy = first.DuplicateChained();
    }
    EXPECT_EQ("abcdef", pCopy->FlattenChained());
    pCopy->DestroyChained();
}

// --- cutting

class CmMessageBlockDisjoint : public TwoBlocks {
  protected:
    const std::string m_sWarning =
        "UTIL WARNING: CCmMessageBlock::Disjoint, there are not DUPLICATED blocks behind the "
        "disjointed block. this=0x#";
};

TEST_F(CmMessageBlockDisjoint, MovesAllIntoDuplicates_WhenTheCutIsAtZero) {
    CCmMessageBlock* pTail = m_first.Disjoint(0);
    EXPECT_EQ("abcdefg", pTail->FlattenChained());
    EXPECT_EQ(0u, m_first.GetTopLevelLength());
    EXPECT_EQ(nullptr, m_first.GetNext());
    EXPECT_EQ("efg", m_second.FlattenChained());
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(10u, m_sink.lines()[0].level);
    EXPECT_EQ(m_sWarning, Line(0));
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, StaticFormCutsTheChain) {
    CCmMessageBlock* pTail = CCmMessageBlock::Disjoint(&m_first, 5);
    EXPECT_EQ("abcde", m_first.FlattenChained());
    EXPECT_EQ("fg", pTail->FlattenChained());
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, CutsTheBlock_WhenTheCutIsInsideIt) {
    CCmMessageBlock* pTail = m_first.Disjoint(5);
    EXPECT_EQ("abcde", m_first.FlattenChained());
    EXPECT_EQ("fg", pTail->FlattenChained());
    EXPECT_EQ(0u, Lines());
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, ReturnsDuplicatesOfWhatFollows_WhenTheCutIsAtABoundary) {
    CCmMessageBlock third(2, "hi", 0, 2);
    m_second.Append(&third);
    CCmMessageBlock* pTail = m_first.Disjoint(4);
    EXPECT_EQ("abcd", m_first.FlattenChained());
    EXPECT_EQ(nullptr, m_first.GetNext());
    EXPECT_EQ("efghi", pTail->FlattenChained());
    EXPECT_NE(&m_second, pTail);
    EXPECT_EQ(nullptr, m_second.GetNext());
    EXPECT_EQ(2u, Lines());
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, PassesBlocksOnAsTheyAre_WhenTheyAreDuplicates) {
    CCmMessageBlock* pHead = m_first.DuplicateChained();
    CCmMessageBlock* pSecond = pHead->GetNext();
    CCmMessageBlock* pTail = pHead->Disjoint(4);
    EXPECT_EQ(pSecond, pTail);
    EXPECT_EQ(0u, Lines());
    pHead->DestroyChained();
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, KeepsTheOrder_WhenTheTailIsMixed) {
    CCmMessageBlock third(1, "j", 0, 1);
    m_second.Append(HeapBlock("hi"));
    m_second.Append(&third);
    m_second.Append(HeapBlock("k"));
    CCmMessageBlock* pTail = m_first.Disjoint(2);
    EXPECT_EQ("ab", m_first.FlattenChained());
    EXPECT_EQ("cdefghijk", pTail->FlattenChained());
    EXPECT_EQ(2u, Lines());
    for (CCmMessageBlock* pMb = pTail; pMb != nullptr; pMb = pMb->GetNext()) {
        EXPECT_EQ(CCmMessageBlock::DUPLICATED, pMb->GetFlag());
    }
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, ReturnsNull_WhenTheCutIsAtOrBeyondTheEnd) {
    for (const unsigned int dwStart : {7u, 8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(nullptr, m_first.Disjoint(dwStart));
        EXPECT_EQ("abcdefg", m_first.FlattenChained());
    }
    CCmMessageBlock empty;
    EXPECT_EQ(nullptr, empty.Disjoint(0));
}

TEST_F(CmMessageBlockDisjoint, GivesEmptyBlocksToTheTail_AfterTheCut) {
    CCmMessageBlock* pEmpty = HeapBlock("");
    CCmMessageBlock* pHead = HeapBlock("ab");
    pHead->Append(pEmpty);
    pHead->Append(HeapBlock("cd"));
    CCmMessageBlock* pTail = pHead->Disjoint(2);
    EXPECT_EQ(pEmpty, pTail);
    EXPECT_EQ("cd", pTail->FlattenChained());
    pHead->DestroyChained();
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, MakesEmptyBlocksTheTail_AfterTheLastByte) {
    CCmMessageBlock* pEmpty = HeapBlock("");
    CCmMessageBlock* pHead = HeapBlock("ab");
    pHead->Append(pEmpty);
    EXPECT_EQ(nullptr, pHead->Disjoint(3));
    EXPECT_EQ(pEmpty, pHead->GetNext());
    EXPECT_EQ(pEmpty, pHead->Disjoint(2));
    EXPECT_EQ(nullptr, pHead->GetNext());
    pHead->DestroyChained();
    pEmpty->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, SkipsEmptyBlocks_BeforeTheCut) {
    CCmMessageBlock* pHead = HeapBlock("");
    pHead->Append(HeapBlock("ab"));
    CCmMessageBlock* pTail = pHead->Disjoint(0);
    EXPECT_EQ("ab", pTail->FlattenChained());
    EXPECT_EQ(0u, pHead->GetChainedLength());
    EXPECT_NE(nullptr, pHead->GetNext());
    pHead->DestroyChained();
    pTail->DestroyChained();
}

TEST_F(CmMessageBlockDisjoint, Cuts_WhateverIsLocked) {
    m_second.SetLock(CCmMessageBlock::READ_LOCKED | CCmMessageBlock::WRITE_LOCKED);
    CCmMessageBlock* pTail = m_first.Disjoint(5);
    EXPECT_EQ("fg", pTail->FlattenChained());
    EXPECT_EQ(0u, Lines());
    pTail->DestroyChained();
}

// --- ReclaimGarbage

TEST_F(CmMessageBlock, ReclaimGarbageFreesADuplicate_WhenItIsEmpty) {
    CCmMessageBlock* pHead = HeapBlock("");
    CCmMessageBlock* pData = HeapBlock("abc");
    pHead->Append(HeapBlock(""));
    pHead->Append(pData);
    EXPECT_EQ(pData, pHead->ReclaimGarbage());
    EXPECT_EQ("abc", pData->FlattenChained());
    pData->DestroyChained();
}

TEST_F(CmMessageBlock, ReclaimGarbagePassesABlockOver_WhenItIsOthers) {
    CCmMessageBlock own(2);
    own.Append(HeapBlock(""));
    own.Append(HeapBlock(""));
    EXPECT_EQ(nullptr, own.ReclaimGarbage());
    EXPECT_EQ(nullptr, own.GetNext());
}

TEST_F(CmMessageBlock, ReclaimGarbageComparesTheLowBitsOfThePointers) {
    // Never accessed: only the numbers of the pointers matter.
    const char* const pFirst = reinterpret_cast<const char*>(uintptr_t{0x100001000});
    const char* const pSameLowBits = reinterpret_cast<const char*>(uintptr_t{0x200001000});
    const char* const pOther = reinterpret_cast<const char*>(uintptr_t{0x200002000});
    CCmMessageBlock first(4, pFirst, 0, 0);
    CCmMessageBlock second(4, pSameLowBits, 0, 0);
    CCmMessageBlock third(4, pOther, 0, 0);
    first.Append(&second);
    first.Append(&third);
    first.RewindChained();
    EXPECT_EQ(&third, first.ReclaimGarbage());
    EXPECT_EQ(0u, third.GetTopLevelLength());
}

TEST_F(CmMessageBlock, ReclaimGarbageIsRefused_WhenTheChainIsOwned) {
    CCmMessageBlock head(1);
    head.Append(new CCmMessageBlock(1));
    head.m_bRtpChainedFlag = true;
    EXPECT_EQ(nullptr, head.ReclaimGarbage());
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(0u, m_sink.lines()[0].level);
    EXPECT_EQ(
        "UTIL ERROR: CCmMessageBlock::ReclaimGarbage, this function should not be called when "
        "m_bRtpChainedFlag = 1 this=0x#",
        Line(0));
}

TEST_F(CmMessageBlock, ReclaimGarbageLeavesTheSuccessorsAlone_WhenTheOwnerComesLater) {
    CCmMessageBlock* pHead = HeapBlock("");
    CCmMessageBlock* pOwner = HeapBlock("");
    CCmMessageBlock* pData = HeapBlock("abc");
    pHead->Append(pOwner);
    pHead->Append(pData);
    pOwner->m_bRtpChainedFlag = true;
    EXPECT_EQ(pData, pHead->ReclaimGarbage());
    EXPECT_EQ("abc", pData->FlattenChained());
    pData->DestroyChained();
}

TEST_F(CmMessageBlock, ReclaimGarbageForgetsASuccessor_WhenItIsFreed) {
    CCmMessageBlock* pHead = HeapBlock("");
    CCmMessageBlock owner(1);
    pHead->Append(&owner);
    pHead->Append(HeapBlock(""));
    owner.m_bRtpChainedFlag = true;
    EXPECT_EQ(nullptr, pHead->ReclaimGarbage());
    EXPECT_EQ(nullptr, owner.GetNext());
}

// --- flattening, combining, gathering

TEST_F(CmMessageBlock, FlattenChainedTakesNothingOfABlock_WhenItIsLocked) {
    CCmMessageBlock first(2, "ab", 0, 2);
    CCmMessageBlock second(2, "cd", 0, 2);
    CCmMessageBlock third(2, "ef", 0, 2);
    first.Append(&second);
    first.Append(&third);
    second.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ("abef", first.FlattenChained());
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(HeaderLine(306, READ_TEXT), Line(0));
}

TEST_F(CmMessageBlock, FlattenChainedKeepsZeroBytes) {
    CCmMessageBlock block(3, "a\0b", 0, 3);
    EXPECT_EQ(std::string("a\0b", 3), block.FlattenChained());
}

TEST_F(CmMessageBlock, CombineSingleBufferGathersIntoOneBlock) {
    CCmMessageBlock first(4, "abcd", 0, 4);
    CCmMessageBlock second(3, "efg", 0, 3);
    first.Append(&second);
    CCmMessageBlock* pOne = first.CombineSingleBuffer();
    EXPECT_EQ(nullptr, pOne->GetNext());
    EXPECT_EQ("abcdefg", pOne->FlattenChained());
    EXPECT_EQ(0u, pOne->GetTopLevelSpace());
    EXPECT_EQ(CCmMessageBlock::DUPLICATED, pOne->GetFlag());
    EXPECT_EQ("abcdefg", first.FlattenChained());
    pOne->DestroyChained();
}

TEST_F(CmMessageBlock, CombineSingleBufferDuplicates_WhenTheFirstBlockHoldsAll) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(3);
    first.Append(&second);
    first.Write("ab", 2);
    CCmMessageBlock* pCopy = first.CombineSingleBuffer();
    EXPECT_NE(nullptr, pCopy->GetNext());
    EXPECT_EQ(first.GetTopLevelReadPtr(), pCopy->GetTopLevelReadPtr());
    pCopy->DestroyChained();
}

TEST_F(CmMessageBlock, CombineSingleBufferLeavesZeros_WhenABlockIsLocked) {
    CCmMessageBlock first(2, "ab", 0, 2);
    CCmMessageBlock second(2, "cd", 0, 2);
    CCmMessageBlock third(1, "e", 0, 1);
    first.Append(&second);
    first.Append(&third);
    second.SetLock(CCmMessageBlock::READ_LOCKED);
    CCmMessageBlock* pOne = first.CombineSingleBuffer();
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(HeaderLine(306, READ_TEXT), Line(0));
    EXPECT_EQ(std::string("ab\0\0e", 5), pOne->FlattenChained());
    pOne->DestroyChained();
}

TEST_F(CmMessageBlock, FillIovStopsAtItsRoom) {
    CCmMessageBlock first(1, "a", 0, 1);
    CCmMessageBlock empty;
    CCmMessageBlock second(2, "bc", 0, 2);
    CCmMessageBlock third(1, "d", 0, 1);
    first.Append(&empty);
    first.Append(&second);
    first.Append(&third);
    iovec iov[3] = {};
    EXPECT_EQ(2u, first.FillIov(iov, 2));
    EXPECT_EQ(first.GetTopLevelReadPtr(), iov[0].iov_base);
    EXPECT_EQ(1u, iov[0].iov_len);
    EXPECT_EQ(second.GetTopLevelReadPtr(), iov[1].iov_base);
    EXPECT_EQ(2u, iov[1].iov_len);
    EXPECT_EQ(nullptr, iov[2].iov_base);
    EXPECT_EQ(3u, first.FillIov(iov, 3));
    EXPECT_EQ(0u, first.FillIov(iov, 0));
    EXPECT_EQ(0u, first.FillIov(nullptr, 3));
}

TEST_F(CmMessageBlock, FillIovGivesANullBase_WhenABlockIsLocked) {
    CCmMessageBlock block(2, "ab", 0, 2);
    block.SetLock(CCmMessageBlock::READ_LOCKED);
    iovec iov[1] = {{&block, 9}};
    EXPECT_EQ(1u, block.FillIov(iov, 1));
    EXPECT_EQ(nullptr, iov[0].iov_base);
    EXPECT_EQ(2u, iov[0].iov_len);
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(HeaderLine(306, READ_TEXT), Line(0));
}

// --- Peek and Update

class CmMessageBlockInPlace : public TwoBlocks {
  protected:
    unsigned char* Out() { return reinterpret_cast<unsigned char*>(m_achOut); }
};

TEST_F(CmMessageBlockInPlace, PeekReads_WhenSeveralBlocksHoldIt) {
    EXPECT_EQ(CM_OK, m_first.Peek(Out(), 4, 2));
    EXPECT_STREQ("cdef", m_achOut);
    EXPECT_EQ(7u, m_first.GetChainedLength());
    EXPECT_EQ(CM_OK, m_first.Peek(Out(), 7, 0));
    EXPECT_STREQ("abcdefg", m_achOut);
}

TEST_F(CmMessageBlockInPlace, PeekSucceedsEvenIntoNull_WhenAskedForNothing) {
    EXPECT_EQ(CM_OK, m_first.Peek(nullptr, 0, 100));
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlockInPlace, PeekIsRefused_WhenTheDestinationIsNull) {
    EXPECT_EQ(CM_ERROR_FAILURE, m_first.Peek(nullptr, 1, 0));
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(SourceLine(703, "pPeekBuffer"), Line(0));
}

TEST_F(CmMessageBlockInPlace, PeekIsRefused_WhenAskedForMoreThanThereIs) {
    const unsigned int ranges[][2] = {{8, 0}, {1, 7}, {2, 0xFFFFFFFF}, {0xFFFFFFFF, 8}};
    for (const unsigned int(&range)[2] : ranges) {
        m_sink.clear();
        EXPECT_EQ(CM_ERROR_FAILURE, m_first.Peek(Out(), range[0], range[1]));
        ASSERT_EQ(1u, Lines());
        EXPECT_EQ(SourceLine(704, "nPeekLen + nOffset <= this->GetChainedLength()"), Line(0));
        EXPECT_STREQ("", m_achOut);
    }
}

TEST_F(CmMessageBlockInPlace, PeekReads_WhateverIsLocked) {
    m_second.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CM_OK, m_first.Peek(Out(), 7, 0));
    EXPECT_STREQ("abcdefg", m_achOut);
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, UpdateOverwrites_WhenSeveralBlocksHoldIt) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    first.Write("abcdefg", 7);
    const unsigned char achNew[] = {'X', 'Y', 'Z'};
    EXPECT_EQ(CM_OK, first.Update(achNew, 3, 2));
    EXPECT_EQ("abXYZfg", first.FlattenChained());
    EXPECT_EQ(CM_OK, first.Update(nullptr, 0, 100));
    EXPECT_EQ(0u, Lines());
}

TEST_F(CmMessageBlock, UpdateTraces_WhenItRefuses) {
    CCmMessageBlock block(4);
    block.Write("abcd", 4);
    const unsigned char achNew[] = {'X', 'Y'};
    EXPECT_EQ(CM_ERROR_FAILURE, block.Update(nullptr, 1, 0));
    EXPECT_EQ(CM_ERROR_FAILURE, block.Update(achNew, 2, 3));
    EXPECT_EQ(CM_ERROR_FAILURE, block.Update(achNew, 2, 0xFFFFFFFF));
    ASSERT_EQ(3u, Lines());
    EXPECT_EQ(SourceLine(648, "pSrc"), Line(0));
    EXPECT_EQ(SourceLine(649, "nSrcLen + nOffset <= this->GetChainedLength()"), Line(1));
    EXPECT_EQ(Line(1), Line(2));
    EXPECT_EQ("abcd", block.FlattenChained());
}

TEST_F(CmMessageBlock, UpdateRefusesTheWhole_WhenABlockInTheRangeIsLocked) {
    CCmMessageBlock first(4);
    CCmMessageBlock second(4);
    first.Append(&second);
    first.Write("abcdefg", 7);
    second.SetLock(CCmMessageBlock::READ_LOCKED);
    const unsigned char achNew[] = {'X', 'Y', 'Z'};
    EXPECT_EQ(CM_ERROR_FAILURE, first.Update(achNew, 3, 2));
    ASSERT_EQ(1u, Lines());
    EXPECT_EQ(HeaderLine(306, READ_TEXT), Line(0));
    second.ClearLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ("abcdefg", first.FlattenChained());
    second.SetLock(CCmMessageBlock::READ_LOCKED);
    EXPECT_EQ(CM_OK, first.Update(achNew, 2, 0));
}

// --- lengths beyond 32 bits: blocks that share one large area, of which nothing is touched

TEST_F(CmMessageBlock, Refuses_WhenASumWouldWrap) {
    constexpr unsigned int HALF = 0x80000000;
    char ch = 'x';
    // The area is never accessed, so that its size need not be there.
    CCmMessageBlock first(HALF, &ch, 0, HALF);
    CCmMessageBlock second(HALF, &ch, 0, HALF);
    CCmMessageBlock third(1, &ch, 0, 1);
    first.Append(&second);
    first.Append(&third);
    EXPECT_EQ(1u, first.GetChainedLength());
    unsigned char byOut = 0;
    EXPECT_EQ(CM_OK, first.Peek(&byOut, 1, 0));
    EXPECT_EQ('x', byOut);
    EXPECT_EQ(nullptr, first.CombineSingleBuffer());
    EXPECT_EQ(0u, Lines());
    EXPECT_EQ(CM_ERROR_FAILURE, third.Peek(&byOut, 2, 0xFFFFFFFF));
}

// --- memory running out

TEST_F(CmMessageBlock, CombineSingleBufferAsksForMemory_UntilTheSumExceedsABlock) {
    constexpr unsigned int MOST = UINT32_MAX;
    char ch = 'x';
    for (const unsigned int dwBeyond : {0U, 1U}) {
        // Neither area is ever accessed.
        CCmMessageBlock first(MOST - 1, &ch, 0, MOST - 1);
        CCmMessageBlock second(1 + dwBeyond, &ch, 0, 1 + dwBeyond);
        first.Append(&second);
        ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        EXPECT_EQ(nullptr, first.CombineSingleBuffer());
        EXPECT_EQ(dwBeyond == 0, fault.hit());
    }
}

// Runs aOperation with its n-th allocation failing, for every n until none fails.
template <class Operation>
void ForEveryAllocationFault(Operation aOperation) {
    for (unsigned long ulNth = 1;; ++ulNth) {
        const long lBefore = kelto_test::LiveAllocations();
        bool bHit = false;
        aOperation(ulNth, bHit);
        ASSERT_EQ(lBefore, kelto_test::LiveAllocations()) << ulNth;
        if (!bHit) {
            ASSERT_GT(ulNth, 1u);
            return;
        }
    }
}

// For where the capture's own allocations would be counted.
void DropLine(unsigned long, const char*, unsigned int) {}

template <class Operation>
void ExpectNullAndUnchanged(Operation aOperation) {
    ForEveryAllocationFault([&](unsigned long aNth, bool& aHit) {
        CCmMessageBlock first(4, "abcd", 0, 4);
        CCmMessageBlock second(4);
        second.Write("efg", 3);
        CCmMessageBlock third(2, "hi", 0, 2);
        first.Append(&second);
        first.Append(&third);
        CCmMessageBlock* pResult = nullptr;
        set_util_external_trace_sink(DropLine);
        {
            ScopedAllocationFault fault(aNth);
            pResult = aOperation(first);
            aHit = fault.hit();
        }
        EXPECT_EQ(aHit, pResult == nullptr);
        if (aHit) {
            EXPECT_EQ("abcdefghi", first.FlattenChained());
            EXPECT_EQ(&second, first.GetNext());
            EXPECT_EQ(&third, second.GetNext());
        }
        CCmMessageBlock::DestroyChained(pResult);
    });
}

TEST_F(CmMessageBlock, DuplicateTopLevelIsNull_WithoutMemory) {
    ExpectNullAndUnchanged([](CCmMessageBlock& aMb) { return aMb.DuplicateTopLevel(); });
}

TEST_F(CmMessageBlock, DuplicateChainedIsNullAndLeaksNothing_WithoutMemory) {
    ExpectNullAndUnchanged([](CCmMessageBlock& aMb) { return aMb.DuplicateChained(); });
}

TEST_F(CmMessageBlock, DisjointInsideABlockChangesNothing_WithoutMemory) {
    ExpectNullAndUnchanged([](CCmMessageBlock& aMb) { return aMb.Disjoint(2); });
}

TEST_F(CmMessageBlock, DisjointAtABoundaryChangesNothing_WithoutMemory) {
    ExpectNullAndUnchanged([](CCmMessageBlock& aMb) { return aMb.Disjoint(4); });
}

TEST_F(CmMessageBlock, CombineSingleBufferIsNull_WithoutMemory) {
    ExpectNullAndUnchanged([](CCmMessageBlock& aMb) { return aMb.CombineSingleBuffer(); });
}

TEST_F(CmMessageBlock, FlattenChainedIsEmpty_WithoutMemory) {
    const std::string sData(100, 'x');
    CCmMessageBlock block(100, sData.data(), 0, 100);
    {
        ScopedAllocationFault fault(1);
        EXPECT_TRUE(block.FlattenChained().empty());
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(sData, block.FlattenChained());
}

// --- long chains

TEST_F(CmMessageBlock, WalksWithoutRecursion_WhenThereAreAMillionBlocks) {
    constexpr unsigned int BLOCKS = 1000000;
    CCmMessageBlock head(1);
    CCmMessageBlock* pLast = &head;
    for (unsigned int i = 1; i < BLOCKS; ++i) {
        CCmMessageBlock* pMb = new CCmMessageBlock(1);
        pLast->m_bRtpChainedFlag = true;
        pLast->Append(pMb);
        pLast = pMb;
    }
    const std::string sData(BLOCKS, 'x');
    unsigned int dwCount = 0;
    EXPECT_EQ(CM_OK, head.Write(sData.data(), BLOCKS, &dwCount));
    EXPECT_EQ(sData, head.FlattenChained());
    CCmMessageBlock* pCopy = head.DuplicateChained();
    std::string sRead(BLOCKS, ' ');
    EXPECT_EQ(CM_OK, pCopy->Read(&sRead[0], BLOCKS, &dwCount));
    EXPECT_EQ(sData, sRead);
    pCopy->DestroyChained();
}

TEST_F(CmMessageBlock, HoldsOneReferencePerBlockThatShares) {
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 4, "abcd"));
    {
        CCmMessageBlock block(pDb, 0, 4);
        CCmMessageBlock* pCopy = block.DuplicateChained();
        EXPECT_EQ(3u, pDb->GetReference());
        CCmMessageBlock* pTail = pCopy->Disjoint(1);
        EXPECT_EQ(4u, pDb->GetReference());
        pTail->DestroyChained();
        pCopy->DestroyChained();
        EXPECT_EQ(2u, pDb->GetReference());
    }
    EXPECT_EQ(0u, pDb->ReleaseReference());
}

}  // namespace
}  // namespace UTIL_NS
