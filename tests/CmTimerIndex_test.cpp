#include "CmTimerIndex.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::ScopedAllocationFault;

typedef CCmTimerHandlerIndexT<int> IndexType;

// The index uses the address of a handler only, so no objects are needed.
ICmTimerHandler* Handler(uintptr_t aAddress) {
    return reinterpret_cast<ICmTimerHandler*>(aAddress);
}

void Add(IndexType& aIndex, uintptr_t aAddress, int aValue) {
    aIndex.Reserve();
    aIndex.Insert(Handler(aAddress), aValue);
}

TEST(CmTimerHandlerIndexT, FindsNothing_WhenItIsNew) {
    IndexType index;
    EXPECT_EQ(nullptr, index.Find(Handler(16)));
}

TEST(CmTimerHandlerIndexT, FindsNothing_WhenItsOnlyEntryWasErased) {
    IndexType index;
    Add(index, 16, 1);
    index.Erase(Handler(16));
    EXPECT_EQ(nullptr, index.Find(Handler(16)));
}

TEST(CmTimerHandlerIndexT, ChangesTheValue_WhenWhatFindReturnedIsWritten) {
    IndexType index;
    Add(index, 16, 1);
    *index.Find(Handler(16)) = 2;
    ASSERT_NE(nullptr, index.Find(Handler(16)));
    EXPECT_EQ(2, *index.Find(Handler(16)));
}

TEST(CmTimerHandlerIndexT, LooksUpItsPlace_WhenAHandlerHasNoEntry) {
    IndexType index;
    EXPECT_EQ(nullptr, index.Look(Handler(16)));
    EXPECT_FALSE(index.HasRoom());
    index.Reserve();
    EXPECT_TRUE(index.HasRoom());
    IndexType::CEntry* const pPlace = index.Look(Handler(16));
    ASSERT_NE(nullptr, pPlace);
    EXPECT_EQ(nullptr, pPlace->m_pEh);
    index.Fill(*pPlace, Handler(16), 7);
    EXPECT_EQ(pPlace, index.Look(Handler(16)));
    ASSERT_NE(nullptr, index.Find(Handler(16)));
    EXPECT_EQ(7, *index.Find(Handler(16)));
    index.Erase(*pPlace);
    EXPECT_EQ(nullptr, index.Find(Handler(16)));
    EXPECT_EQ(nullptr, index.Look(Handler(16))->m_pEh);
}

TEST(CmTimerHandlerIndexT, FindsWhatIsLeft_WhenEverySecondOneWasErased) {
    constexpr int COUNT = 1000;
    IndexType index;
    for (int i = 0; i < COUNT; ++i) {
        const uintptr_t nAddress = 4096 + 48 * static_cast<uintptr_t>(i);
        EXPECT_EQ(nullptr, index.Find(Handler(nAddress)));
        Add(index, nAddress, i);
    }
    for (int i = 0; i < COUNT; i += 2) {
        index.Erase(Handler(4096 + 48 * static_cast<uintptr_t>(i)));
    }
    for (int i = 0; i < COUNT; ++i) {
        const int* pValue = index.Find(Handler(4096 + 48 * static_cast<uintptr_t>(i)));
        if (i % 2 == 0) {
            EXPECT_EQ(nullptr, pValue);
        } else {
            ASSERT_NE(nullptr, pValue);
            EXPECT_EQ(i, *pValue);
        }
    }
}

// Few handlers and many changes, so that entries lie far from home and round the end.
TEST(CmTimerHandlerIndexT, BehavesLikeAMap_WhateverTheOperations) {
    std::minstd_rand random(1);
    for (int nRun = 0; nRun < 300; ++nRun) {
        IndexType index;
        std::map<uintptr_t, int> model;
        std::vector<uintptr_t> addresses(40);
        for (uintptr_t& nAddress : addresses) {
            nAddress = static_cast<uintptr_t>(random()) * 8 + 8;
        }
        for (int nStep = 0; nStep < 400; ++nStep) {
            const uintptr_t nAddress = addresses[random() % addresses.size()];
            if (model.count(nAddress) == 0) {
                Add(index, nAddress, nStep);
                model[nAddress] = nStep;
            } else {
                index.Erase(Handler(nAddress));
                model.erase(nAddress);
            }
            for (const uintptr_t nOther : addresses) {
                const int* pValue = index.Find(Handler(nOther));
                ASSERT_EQ(model.count(nOther) != 0, pValue != nullptr) << nRun << ' ' << nStep;
                ASSERT_TRUE(pValue == nullptr || *pValue == model[nOther]) << nRun << ' ' << nStep;
            }
        }
    }
}

TEST(CmTimerHandlerIndexT, NeedsNoMemory_WhenItHeldAsManyBefore) {
    constexpr uintptr_t COUNT = 1000;
    IndexType index;
    for (uintptr_t i = 1; i <= COUNT; ++i) {
        Add(index, 16 * i, 1);
    }
    for (uintptr_t i = 1; i <= COUNT; ++i) {
        index.Erase(Handler(16 * i));
    }
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (uintptr_t i = 1; i <= COUNT; ++i) {
        Add(index, 1000000 + 16 * i, 2);
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
}

TEST(CmTimerHandlerIndexT, DoublesItsPlaces_WhenMoreThanHalfWouldBeTaken) {
    IndexType index;
    std::vector<uintptr_t> growths;
    for (uintptr_t i = 1; i <= 64; ++i) {
        const unsigned long ulBefore = AllocationsOfThisThread();
        Add(index, 16 * i, 1);
        if (AllocationsOfThisThread() != ulBefore) {
            growths.push_back(i);
        }
    }
    EXPECT_EQ((std::vector<uintptr_t>{1, 9, 17, 33}), growths);
}

// The places at which searches begin, seen in an index that had many entries and has none. A few
// handlers may share one.
TEST(CmTimerHandlerIndexT, SpreadsHandlers_WhateverLiesBetweenThem) {
    constexpr uintptr_t COUNT = 2000;
    IndexType index;
    for (uintptr_t i = 1; i <= COUNT; ++i) {
        Add(index, 16 * i, 1);
    }
    for (uintptr_t i = 1; i <= COUNT; ++i) {
        index.Erase(Handler(16 * i));
    }
    std::vector<uintptr_t> steps = {1000, 4096, 65536, 1 << 20};
    for (uintptr_t nStep = 16; nStep <= 2048; nStep += 16) {
        steps.push_back(nStep);
    }
    for (const uintptr_t nStep : steps) {
        std::set<IndexType::CEntry*> places;
        for (uintptr_t i = 1; i <= COUNT; ++i) {
            places.insert(index.Look(Handler(0x10000000 + nStep * i)));
        }
        EXPECT_LT(COUNT / 2, places.size()) << nStep;
    }
}

TEST(CmTimerHandlerIndexT, KeepsWhatItHas_WhenMemoryRunsOut) {
    IndexType index;
    Add(index, 16, 1);
    int nCount = 1;
    {
        ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        const auto addAThousand = [&] {
            for (int i = 0; i < 1000; ++i) {
                Add(index, 16 * static_cast<uintptr_t>(nCount + 1), nCount + 1);
                ++nCount;
            }
        };
        EXPECT_THROW(addAThousand(), std::bad_alloc);
    }
    for (int i = 1; i <= nCount; ++i) {
        const int* pValue = index.Find(Handler(16 * static_cast<uintptr_t>(i)));
        ASSERT_NE(nullptr, pValue);
        EXPECT_EQ(i, *pValue);
    }
    EXPECT_EQ(nullptr, index.Find(Handler(16 * static_cast<uintptr_t>(nCount + 1))));
}

}  // namespace
}  // namespace UTIL_NS
