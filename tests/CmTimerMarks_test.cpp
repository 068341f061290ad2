#include "CmTimerMarks.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <vector>

#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::AllocationsOfThisThread;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;

struct Node {
    int64_t key;
    bool isInList;
};

struct Holds {
    bool operator()(const Node* aNode, int64_t aKey) const {
        return aNode->isInList && aNode->key == aKey;
    }
};

typedef CCmTimerMarksT<Node*, Holds> MarksType;

// A node of its own for each key, marked.
class CmTimerMarksT : public testing::Test {
  protected:
    Node* Add(int64_t aKey) {
        m_nodes.push_back(Node{aKey, true});
        m_marks.Add(aKey, &m_nodes.back());
        return &m_nodes.back();
    }
    Node* Find(int64_t aKey) { return m_marks.Find(aKey, nullptr); }

    std::deque<Node> m_nodes;
    MarksType m_marks;
};

TEST_F(CmTimerMarksT, FindsTheEnd_WhenThereIsNoMark) {
    Node end{};
    EXPECT_EQ(&end, m_marks.Find(0, &end));
}

TEST_F(CmTimerMarksT, FindsTheEnd_WhenEveryMarkIsBefore) {
    Add(1);
    Add(3);
    EXPECT_EQ(nullptr, Find(4));
}

TEST_F(CmTimerMarksT, FindsTheNextMark_WhateverTheKey) {
    Node* const p10 = Add(10);
    Node* const p30 = Add(30);
    Node* const p20 = Add(20);
    EXPECT_EQ(p10, Find(INT64_MIN));
    EXPECT_EQ(p10, Find(10));
    EXPECT_EQ(p20, Find(11));
    EXPECT_EQ(p20, Find(20));
    EXPECT_EQ(p30, Find(21));
}

TEST_F(CmTimerMarksT, FindsTheMarkOfTheGreatestKey_WhenThereIsOne) {
    EXPECT_EQ(nullptr, Find(INT64_MAX));
    Node* const pGreatest = Add(INT64_MAX);
    Node* const pLeast = Add(INT64_MIN);
    EXPECT_EQ(pGreatest, Find(INT64_MAX));
    EXPECT_EQ(pGreatest, Find(0));
    EXPECT_EQ(pLeast, Find(INT64_MIN));
}

TEST_F(CmTimerMarksT, FindsTheNewNode_WhenAKeyIsMarkedAgain) {
    Add(10);
    Node* const pNew = Add(10);
    EXPECT_EQ(pNew, Find(5));
}

TEST_F(CmTimerMarksT, PassesAMark_WhenItsNodeLeftTheList) {
    Add(10)->isInList = false;
    Node* const p20 = Add(20);
    EXPECT_EQ(p20, Find(5));
}

TEST_F(CmTimerMarksT, PassesAMark_WhenItsNodeHasAnotherKey) {
    Add(10)->key = 40;
    Node* const p20 = Add(20);
    EXPECT_EQ(p20, Find(5));
}

TEST_F(CmTimerMarksT, FindsTheEnd_WhenNoMarkHoldsAnyMore) {
    for (int64_t llKey = 0; llKey < 1000; ++llKey) {
        Add(llKey);
    }
    for (Node& node : m_nodes) {
        node.isInList = false;
    }
    EXPECT_EQ(nullptr, Find(0));
    Node* const pNew = Add(500);
    EXPECT_EQ(pNew, Find(0));
}

// Few and many marks, dense and sparse keys, most of which stop holding.
TEST_F(CmTimerMarksT, BehavesLikeAMap_WhateverTheOperations) {
    std::minstd_rand random(1);
    for (int nRun = 0; nRun < 200; ++nRun) {
        MarksType marks;
        std::deque<Node> nodes;
        std::map<int64_t, Node*> model;
        const unsigned int dwKeys = 1 + random() % 5000;
        const unsigned int dwLeaving = random() % 3;
        for (int nStep = 0; nStep < 2000; ++nStep) {
            const int64_t llKey = static_cast<int64_t>(random() % dwKeys) - 100;
            const auto it = model.lower_bound(llKey);
            if (random() % 3 < dwLeaving && it != model.end()) {
                it->second->isInList = false;
                model.erase(it);
            } else if (model.count(llKey) == 0) {
                nodes.push_back(Node{llKey, true});
                marks.Add(llKey, &nodes.back());
                model[llKey] = &nodes.back();
            }
            const int64_t llWanted = static_cast<int64_t>(random() % dwKeys) - 100;
            const auto itWanted = model.lower_bound(llWanted);
            ASSERT_EQ(itWanted == model.end() ? nullptr : itWanted->second,
                      marks.Find(llWanted, nullptr))
                << nRun << ' ' << nStep;
        }
    }
}

TEST_F(CmTimerMarksT, LeavesMarksOut_WhenMemoryRunsOut) {
    {
        ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        Node node{10, true};
        m_marks.Add(10, &node);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(nullptr, Find(0));
    std::vector<Node> nodes(1000);
    for (int64_t llKey = 0; llKey < 50; ++llKey) {
        nodes[static_cast<size_t>(llKey)] = Node{llKey, true};
        m_marks.Add(llKey, &nodes[static_cast<size_t>(llKey)]);
    }
    bool bHit = false;
    {
        ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        for (int64_t llKey = 50; llKey < 1000; ++llKey) {
            nodes[static_cast<size_t>(llKey)] = Node{llKey, true};
            m_marks.Add(llKey, &nodes[static_cast<size_t>(llKey)]);
        }
        bHit = fault.hit();
    }
    EXPECT_TRUE(bHit);
    for (size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(&nodes[i], Find(static_cast<int64_t>(i)));
    }
    Node* const pAfter = Add(1000);
    EXPECT_EQ(pAfter, Find(1000));
}

TEST_F(CmTimerMarksT, NeedsNoMemory_WhenItHeldAsManyBefore) {
    constexpr int64_t COUNT = 5000;
    std::vector<Node> nodes(COUNT);
    const auto addAll = [&](int64_t aFirst) {
        for (int64_t i = 0; i < COUNT; ++i) {
            nodes[static_cast<size_t>(i)] = Node{aFirst + i, true};
            m_marks.Add(aFirst + i, &nodes[static_cast<size_t>(i)]);
        }
    };
    addAll(0);
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (Node& node : nodes) {
        node.isInList = false;
    }
    EXPECT_EQ(nullptr, Find(0));
    addAll(2 * COUNT);
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
}

// As many marks as there may be in one piece of memory.
TEST_F(CmTimerMarksT, NeedsNoMemory_WhenEverySecondMarkHoldsNoLonger) {
    constexpr size_t COUNT = 64;
    std::vector<Node> nodes(COUNT + COUNT / 2);
    const auto add = [&](size_t aNode, int64_t aKey) {
        nodes[aNode] = Node{aKey, true};
        m_marks.Add(aKey, &nodes[aNode]);
    };
    for (size_t i = 0; i < COUNT; ++i) {
        add(i, static_cast<int64_t>(2 * i));
    }
    for (size_t i = 0; i < COUNT; i += 2) {
        nodes[i].isInList = false;
    }
    const unsigned long ulBefore = AllocationsOfThisThread();
    for (size_t i = 0; i < COUNT / 2; ++i) {
        add(COUNT + i, static_cast<int64_t>(4 * i + 1));
    }
    EXPECT_EQ(ulBefore, AllocationsOfThisThread());
    for (size_t i = 0; i < COUNT / 2; ++i) {
        EXPECT_EQ(&nodes[COUNT + i], Find(static_cast<int64_t>(4 * i)));
        EXPECT_EQ(&nodes[2 * i + 1], Find(static_cast<int64_t>(4 * i + 2)));
    }
}

// Each thousand of nodes is marked where no search comes by, and leaves the list before the next;
// some stay before all of them.
TEST_F(CmTimerMarksT, HoldsBoundedMemory_WhenNoSearchComesUponWhatLeft) {
    constexpr int64_t COUNT = 1000;
    for (const int64_t llStaying : {0, 200}) {
        MarksType marks;
        std::vector<Node> staying(static_cast<size_t>(llStaying));
        std::vector<Node> nodes(COUNT);
        const long lBefore = LiveAllocations();
        long lAfterFive = 0;
        for (int64_t i = 0; i < llStaying; ++i) {
            staying[static_cast<size_t>(i)] = Node{i - llStaying, true};
            marks.Add(i - llStaying, &staying[static_cast<size_t>(i)]);
        }
        for (int64_t llRound = 0; llRound < 500; ++llRound) {
            for (Node& node : nodes) {
                node.isInList = false;
            }
            for (int64_t i = 0; i < COUNT; ++i) {
                nodes[static_cast<size_t>(i)] = Node{llRound * COUNT + i, true};
                marks.Add(llRound * COUNT + i, &nodes[static_cast<size_t>(i)]);
            }
            if (llRound == 4) {
                lAfterFive = LiveAllocations() - lBefore;
            }
        }
        EXPECT_LE(LiveAllocations() - lBefore, 2 * lAfterFive) << llStaying;
    }
}

}  // namespace
}  // namespace UTIL_NS
