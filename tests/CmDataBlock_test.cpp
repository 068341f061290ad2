#include "CmDataBlock.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedTraceSink;

TEST(CmDataBlock, CreateInstanceCopiesTheSource) {
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 5, "hello"));
    EXPECT_EQ(1u, pDb->GetReference());
    EXPECT_EQ(5u, pDb->m_dwSize);
    EXPECT_EQ(0, std::memcmp(pDb->m_pPayload, "hello", 5));
    EXPECT_EQ(0u, pDb->ReleaseReference());
}

TEST(CmDataBlock, CreateInstanceRefuses_WhenTheSizeIsZero) {
    ScopedTraceSink sink;
    CCmDataBlock* const pBefore = reinterpret_cast<CCmDataBlock*>(0x10);
    CCmDataBlock* pDb = pBefore;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmDataBlock::CreateInstance(pDb, 0, "x"));
    EXPECT_EQ(pBefore, pDb);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ("UTIL ERROR: source/util/CmDataBlock.cpp:15 Assert failed: aSize > 0",
              sink.lines()[0].text);
}

TEST(CmDataBlock, CreateInstanceHasOneReference_WithoutASource) {
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 16, nullptr));
    EXPECT_EQ(1u, pDb->GetReference());
    std::memset(pDb->m_pPayload, 'x', 16);
    EXPECT_EQ(0u, pDb->ReleaseReference());
}

TEST(CmDataBlock, CreateInstanceLeavesThePayloadUnwritten_WithoutASource) {
    CCmDataBlock* pDb = nullptr;
    {
        const kelto_test::ScopedAllocationFill fill('x');
        ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 64, nullptr));
    }
    EXPECT_EQ(std::string(64, 'x'), std::string(pDb->m_pPayload, 64));
    pDb->ReleaseReference();
}

TEST(CmDataBlock, CreateInstanceAllocatesHeaderAndPayloadAtOnce) {
    const unsigned long ulBefore = AllocationsOfThisThread();
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 100, nullptr));
    EXPECT_EQ(ulBefore + 1, AllocationsOfThisThread());
    EXPECT_EQ(reinterpret_cast<char*>(pDb) + sizeof(CCmDataBlock), pDb->m_pPayload);
    pDb->ReleaseReference();
}

TEST(CmDataBlock, CreateInstanceLeavesTheOutPointer_WithoutMemory) {
    CCmDataBlock* pDb = nullptr;
    ScopedAllocationFault fault(1);
    EXPECT_EQ(CM_ERROR_OUT_OF_MEMORY, CCmDataBlock::CreateInstance(pDb, 8, nullptr));
    EXPECT_EQ(nullptr, pDb);
    EXPECT_TRUE(fault.hit());
}

TEST(CmDataBlock, ConstructorDescribes_WithoutAReference) {
    char achPayload[4];
    alignas(CCmDataBlock) char achBlock[sizeof(CCmDataBlock)];
    CCmDataBlock* pDb = ::new (achBlock) CCmDataBlock(4, achPayload);
    EXPECT_EQ(0u, pDb->GetReference());
    EXPECT_EQ(4u, pDb->m_dwSize);
    EXPECT_EQ(achPayload, pDb->m_pPayload);
}

TEST(CmDataBlock, ReferencesReturnTheNewCount) {
    const long lBefore = LiveAllocations();
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 1, nullptr));
    EXPECT_EQ(2u, pDb->AddReference());
    EXPECT_EQ(1u, pDb->ReleaseReference());
    EXPECT_EQ(lBefore + 1, LiveAllocations());
    EXPECT_EQ(0u, pDb->ReleaseReference());
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmDataBlock, AutoPtrTakesTheCreatorsReferenceOver_WhenAttached) {
    const long lBefore = LiveAllocations();
    {
        CCmDataBlock* pDb = nullptr;
        ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 1, nullptr));
        CCmComAutoPtr<CCmDataBlock> ptr;
        ptr.Attach(pDb);
        EXPECT_EQ(1u, ptr->GetReference());
        ptr = nullptr;
        EXPECT_EQ(lBefore, LiveAllocations());
    }
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmDataBlock, LosesNoReference_WhenEightThreadsCount) {
    constexpr int ROUNDS = 20000;
    const long lBefore = LiveAllocations();
    CCmDataBlock* pDb = nullptr;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pDb, 8, nullptr));
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            pDb->AddReference();
            threads.emplace_back([pDb, i] {
                for (int n = 0; n < ROUNDS; ++n) {
                    pDb->AddReference();
                    pDb->ReleaseReference();
                }
                pDb->m_pPayload[i] = 'x';
                pDb->ReleaseReference();
            });
        }
        pDb->ReleaseReference();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(lBefore, LiveAllocations());
}

TEST(CmDataBlockNoMalloc, ReadStopsAtTheEnd) {
    CCmDataBlockNoMalloc cursor("0123456789", 10);
    char achOut[16] = {};
    unsigned int dwRead = 99;
    EXPECT_EQ(CM_OK, cursor.Read(achOut, 4, &dwRead));
    EXPECT_EQ(4u, dwRead);
    EXPECT_STREQ("0123", achOut);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, cursor.Read(achOut, 10, &dwRead));
    EXPECT_EQ(6u, dwRead);
    EXPECT_STREQ("456789", achOut);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, cursor.Read(achOut, 1, &dwRead));
    EXPECT_EQ(0u, dwRead);
}

TEST(CmDataBlockNoMalloc, WriteStopsAtTheEnd) {
    char achMemory[6] = "-----";
    CCmDataBlockNoMalloc cursor(achMemory, 5);
    unsigned int dwWritten = 99;
    EXPECT_EQ(CM_OK, cursor.Write("abc", 3, &dwWritten));
    EXPECT_EQ(3u, dwWritten);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, cursor.Write("defg", 4, &dwWritten));
    EXPECT_EQ(2u, dwWritten);
    EXPECT_STREQ("abcde", achMemory);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, cursor.Write("x", 1, nullptr));
}

TEST(CmDataBlockNoMalloc, CursorsAreIndependent) {
    char achMemory[6] = "world";
    CCmDataBlockNoMalloc cursor(achMemory, 5);
    char achOut[6] = {};
    EXPECT_EQ(CM_OK, cursor.Read(achOut, 2, nullptr));
    EXPECT_STREQ("wo", achOut);
    EXPECT_EQ(CM_OK, cursor.Write("WORL", 4, nullptr));
    EXPECT_EQ(CM_OK, cursor.Read(achOut, 3, nullptr));
    EXPECT_STREQ("RLd", achOut);
}

TEST(CmDataBlockNoMalloc, ReadTraces_WhenItRefuses) {
    ScopedTraceSink sink;
    char achOut[1];
    CCmDataBlockNoMalloc cursor("x", 1);
    CCmDataBlockNoMalloc none(nullptr, 7);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cursor.Read(nullptr, 1, nullptr));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, none.Read(achOut, 1, nullptr));
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ("UTIL ERROR: source/util/CmUtilClasses.cpp:77 Assert failed: aDst",
              sink.lines()[0].text);
    EXPECT_EQ("UTIL ERROR: source/util/CmUtilClasses.cpp:78 Assert failed: m_pCurrentRead",
              sink.lines()[1].text);
}

TEST(CmDataBlockNoMalloc, WriteTraces_WhenItRefuses) {
    ScopedTraceSink sink;
    char achMemory[1];
    CCmDataBlockNoMalloc cursor(achMemory, 1);
    CCmDataBlockNoMalloc none(nullptr, 7);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cursor.Write(nullptr, 1, nullptr));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, none.Write("x", 1, nullptr));
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ("UTIL ERROR: source/util/CmUtilClasses.cpp:97 Assert failed: aSrc",
              sink.lines()[0].text);
    EXPECT_EQ("UTIL ERROR: source/util/CmUtilClasses.cpp:98 Assert failed: m_pCurrentWrite",
              sink.lines()[1].text);
}

// Only what overwrites the object brings it there: its fields are the first byte, the end, the
// position of reading and that of writing.
TEST(CmDataBlockNoMalloc, CopiesNothingAndTraces_WhenItsPositionIsPastTheEnd) {
    ScopedTraceSink sink;
    char achMemory[4] = "abc";
    char achOut[4] = "---";
    CCmDataBlockNoMalloc cursor(achMemory, 2);
    const char* const pchPast = achMemory + 3;
    static_assert(sizeof(cursor) == 4 * sizeof(pchPast));
    for (const size_t nField : {2, 3}) {
        std::memcpy(reinterpret_cast<char*>(&cursor) + nField * sizeof(pchPast), &pchPast,
                    sizeof(pchPast));
    }
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, cursor.Read(achOut, 1, nullptr));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, cursor.Write("x", 1, nullptr));
    EXPECT_STREQ("---", achOut);
    EXPECT_STREQ("abc", achMemory);
    ASSERT_EQ(2u, sink.lines().size());
    EXPECT_EQ(
        "UTIL ERROR: source/util/CmUtilClasses.cpp:79 Assert failed: m_pCurrentRead <= m_pEnd",
        sink.lines()[0].text);
    EXPECT_EQ(
        "UTIL ERROR: source/util/CmUtilClasses.cpp:99 Assert failed: m_pCurrentWrite <= m_pEnd",
        sink.lines()[1].text);
}

}  // namespace
}  // namespace UTIL_NS
