#include "CmNumberStack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace UTIL_NS {
namespace {

constexpr uint32_t NONE = CCmNumberStack::NONE;

// A stack with links for a few numbers.
struct Numbers {
    CCmNumberStack stack;
    std::atomic<uint32_t> links[8] = {};

    void Push(uint32_t aNumber) { stack.Push(aNumber, links); }
    uint32_t Pop() { return stack.Pop(links); }
    // All that are left, sorted.
    std::vector<uint32_t> Rest() {
        std::vector<uint32_t> rest;
        for (uint32_t i = stack.PopAll(); i != NONE; i = links[i]) {
            rest.push_back(i);
            if (rest.size() > 8) {
                ADD_FAILURE() << "a ring";
                break;
            }
        }
        std::sort(rest.begin(), rest.end());
        return rest;
    }
};

TEST(CCmNumberStack, IsEmpty_WhenItIsNew) {
    Numbers numbers;
    EXPECT_EQ(NONE, numbers.Pop());
    EXPECT_EQ(NONE, numbers.stack.PopAll());
}

TEST(CCmNumberStack, GivesTheLastFirst) {
    Numbers numbers;
    for (const uint32_t dwNumber : {3u, 0u, 7u}) {
        numbers.Push(dwNumber);
    }
    EXPECT_EQ(7u, numbers.Pop());
    EXPECT_EQ(0u, numbers.Pop());
    numbers.Push(5);
    EXPECT_EQ(5u, numbers.Pop());
    EXPECT_EQ(3u, numbers.Pop());
    EXPECT_EQ(NONE, numbers.Pop());
}

TEST(CCmNumberStack, GivesAllThatAreLeft_WhenTheyArePoppedAtOnce) {
    Numbers numbers;
    for (const uint32_t dwNumber : {4u, 1u, 2u}) {
        numbers.Push(dwNumber);
    }
    EXPECT_EQ(2u, numbers.Pop());
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), numbers.Rest());
    EXPECT_EQ(NONE, numbers.Pop());
}

// Links by which the first user is held up, after it has read or written one, until aMeanwhile has
// run.
template <class MeanwhileType>
struct HeldUpLinks {
    struct Link {
        HeldUpLinks* pLinks;
        uint32_t dwNumber;

        uint32_t load(std::memory_order aOrder) const {
            const uint32_t dwNext = pLinks->numbers.links[dwNumber].load(aOrder);
            pLinks->HoldUp();
            return dwNext;
        }
        void store(uint32_t aNext, std::memory_order aOrder) const {
            pLinks->numbers.links[dwNumber].store(aNext, aOrder);
            pLinks->HoldUp();
        }
    };
    Link operator[](uint32_t aNumber) { return {this, aNumber}; }
    void HoldUp() {
        if (!bHeldUp) {
            bHeldUp = true;
            meanwhile();
        }
    }

    Numbers& numbers;
    MeanwhileType meanwhile;
    bool bHeldUp = false;
};

TEST(CCmNumberStack, NoticesThatItsFirstWasAway_WhenItIsTheFirstAgain) {
    for (const int nChangesBefore : {0, 100, 10000}) {
        SCOPED_TRACE(nChangesBefore);
        Numbers numbers;
        for (int i = 0; i < nChangesBefore; i += 2) {
            numbers.Push(5);
            EXPECT_EQ(5u, numbers.Pop());
        }
        for (const uint32_t dwNumber : {3u, 2u, 1u}) {
            numbers.Push(dwNumber);
        }
        const auto takeTwoAndPutOneBack = [&numbers] {
            EXPECT_EQ(1u, numbers.Pop());
            EXPECT_EQ(2u, numbers.Pop());
            numbers.Push(1);
        };
        HeldUpLinks<decltype(takeTwoAndPutOneBack)> links = {numbers, takeTwoAndPutOneBack};
        EXPECT_EQ(1u, (numbers.stack.Pop<HeldUpLinks<decltype(takeTwoAndPutOneBack)>&>(links)));
        EXPECT_EQ((std::vector<uint32_t>{3}), numbers.Rest()) << "2 was taken";
    }
}

TEST(CCmNumberStack, TakesANumber_WhenAnotherWasPushedMeanwhile) {
    Numbers numbers;
    numbers.Push(3);
    const auto pushAnother = [&numbers] { numbers.Push(2); };
    HeldUpLinks<decltype(pushAnother)> links = {numbers, pushAnother};
    numbers.stack.Push<HeldUpLinks<decltype(pushAnother)>&>(1, links);
    for (const uint32_t dwNumber : {1u, 2u, 3u, NONE}) {
        EXPECT_EQ(dwNumber, numbers.Pop());
    }
}

// What a thread wrote before it pushed is there for the one that pops, also by way of a third one
// that only took another number in between.
TEST(CCmNumberStack, HandsOverWhatWasWritten_WhenANumberIsPopped) {
    constexpr int ROUNDS = 50000;
    Numbers numbers;
    long lValues[4] = {};
    for (uint32_t i = 0; i < 4; ++i) {
        numbers.Push(i);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < ROUNDS; ++j) {
                const uint32_t dwNumber = numbers.Pop();
                if (dwNumber != NONE) {
                    ++lValues[dwNumber];
                    numbers.Push(dwNumber);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(3L * ROUNDS, lValues[0] + lValues[1] + lValues[2] + lValues[3]);
}

}  // namespace
}  // namespace UTIL_NS
