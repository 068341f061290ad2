#include "CmTimerSpares.h"

#include <gtest/gtest.h>

#include <iterator>
#include <list>
#include <map>
#include <new>

#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::Failing;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;

typedef CCmSpareListNodesT<int> ListNodes;
typedef CCmSpareMapNodesT<int, int> MapNodes;

TEST(CCmSpareListNodesT, InsertsBeforeThePlace_WhateverItIs) {
    ListNodes spares;
    std::list<int> list = {1, 3};
    spares.Reserve();
    const auto itNode = spares.Insert(list, std::next(list.begin()), 2);
    EXPECT_EQ(2, *itNode);
    EXPECT_EQ((std::list<int>{1, 2, 3}), list);
}

TEST(CCmSpareListNodesT, KeepsTheNode_WhenItIsTakenOutAndPutInAgain) {
    ListNodes spares;
    std::list<int> list = {1, 2, 3};
    const int* const pSecond = &*std::next(list.begin());
    spares.Reserve();  // another, which is not to be taken
    spares.Keep(list, std::next(list.begin()));
    EXPECT_EQ((std::list<int>{1, 3}), list);
    EXPECT_EQ(pSecond, &*spares.Insert(list, list.end(), 4));
    EXPECT_EQ((std::list<int>{1, 3, 4}), list);
}

TEST(CCmSpareListNodesT, NeedsMemoryOnce_WhateverTheNumberOfRequests) {
    ListNodes spares;
    const long lLive = LiveAllocations();
    spares.Reserve();
    spares.Reserve();
    EXPECT_EQ(lLive + 1, LiveAllocations());
}

TEST(CCmSpareListNodesT, NeedsNoMemory_AfterANodeWasKept) {
    ListNodes spares;
    std::list<int> list = {1};
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (int i = 0; i < 1000; ++i) {
        spares.Keep(list, list.begin());
        spares.Reserve();
        spares.Insert(list, list.end(), i);
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
}

TEST(CCmSpareListNodesT, HasANode_WhenAskedAgainAfterMemoryRanOut) {
    ListNodes spares;
    {
        ScopedAllocationFault fault(1);
        EXPECT_THROW(spares.Reserve(), std::bad_alloc);
    }
    std::list<int> list;
    spares.Reserve();
    spares.Insert(list, list.end(), 1);
    EXPECT_EQ(std::list<int>{1}, list);
}

TEST(CCmSpareMapNodesT, InsertsInOrder_WhateverTheHint) {
    MapNodes spares;
    std::map<int, int> map;
    for (const int nKey : {5, 1, 9, 3, 7}) {
        spares.Insert(map, map.begin(), nKey)->second = 10 * nKey;
    }
    spares.Keep(map, map.find(3));
    spares.Keep(map, map.find(5));
    const auto itNode = spares.Insert(map, map.end(), 4);
    EXPECT_EQ(4, itNode->first);
    itNode->second = 40;
    EXPECT_EQ((std::map<int, int>{{1, 10}, {4, 40}, {7, 70}, {9, 90}}), map);
}

TEST(CCmSpareMapNodesT, NeedsNoMemory_WhenThereWereAsManyKeysBefore) {
    constexpr int COUNT = 1000;
    MapNodes spares;
    std::map<int, int> map;
    for (int i = 0; i < COUNT; ++i) {
        spares.Insert(map, map.end(), i);
    }
    const unsigned long ulBefore = AllocationsOfThisThread();
    while (!map.empty()) {
        spares.Keep(map, map.begin());
    }
    for (int i = 0; i < COUNT; ++i) {
        spares.Insert(map, map.end(), -i);
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
    EXPECT_EQ(static_cast<size_t>(COUNT), map.size());
}

TEST(CCmSpareMapNodesT, KeepsNodes_WithoutMemory) {
    MapNodes spares;
    std::map<int, int> map;
    for (int nMost = 1; nMost < 200; ++nMost) {
        while (static_cast<int>(map.size()) < nMost) {
            spares.Insert(map, map.end(), static_cast<int>(map.size()));
        }
        ScopedAllocationFault fault(1, Failing::FROM_THERE_ON);
        while (!map.empty()) {
            spares.Keep(map, nMost % 2 == 0 ? map.begin() : std::prev(map.end()));
        }
        EXPECT_FALSE(fault.hit()) << nMost;
    }
}

TEST(CCmSpareMapNodesT, ChangesNothing_WhenMemoryRunsOut) {
    MapNodes spares;
    std::map<int, int> map;
    spares.Insert(map, map.end(), 1)->second = 10;
    unsigned long ulNth = 0;
    bool bHit = true;
    while (bHit) {
        ScopedAllocationFault fault(++ulNth);
        try {
            spares.Insert(map, map.end(), 2)->second = 20;
        } catch (const std::bad_alloc&) {
            EXPECT_EQ((std::map<int, int>{{1, 10}}), map) << ulNth;
        }
        bHit = fault.hit();
    }
    EXPECT_LT(1U, ulNth);
    EXPECT_EQ((std::map<int, int>{{1, 10}, {2, 20}}), map);
}

TEST(CCmSpareMapNodesT, FreesWhatItKept_WhenItEnds) {
    const long lLive = LiveAllocations();
    {
        MapNodes spares;
        std::map<int, int> map;
        spares.Insert(map, map.end(), 1);
        spares.Insert(map, map.end(), 2);
        spares.Keep(map, map.begin());
    }
    EXPECT_EQ(lLive, LiveAllocations());
}

}  // namespace
}  // namespace UTIL_NS
