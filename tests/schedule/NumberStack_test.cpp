// The stack of numbers without a lock, in every schedule.
#include <gtest/gtest.h>

#include <array>

#include "CmNumberStack.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr uint32_t NUMBERS = 3;
constexpr uint32_t NONE = CCmNumberStack::NONE;

// A stack and who has its numbers. Its own check: each is the caller's alone from Pop to Push.
class CHandedOut {
  public:
    explicit CHandedOut(uint32_t aFilled = 0) {
        for (uint32_t dwNumber = aFilled; dwNumber > 0; --dwNumber) {
            Push(dwNumber - 1);
        }
    }
    // A number that nobody else has.
    void Own(uint32_t aNumber) {
        SCHEDULE_EXPECT(aNumber < NUMBERS && !m_abOwned.at(aNumber));
        m_abOwned.at(aNumber) = true;
    }
    uint32_t Pop() {
        const uint32_t dwNumber = m_Stack.Pop(m_Links.data());
        if (dwNumber != NONE) {
            Own(dwNumber);
        }
        return dwNumber;
    }
    void Push(uint32_t aNumber) {
        m_abOwned.at(aNumber) = false;
        m_Stack.Push(aNumber, m_Links.data());
    }
    // How many there were.
    uint32_t PopAll() {
        uint32_t dwCount = 0;
        for (uint32_t dwNumber = m_Stack.PopAll(); dwNumber != NONE;
             dwNumber = m_Links.at(dwNumber).load(std::memory_order_relaxed)) {
            Own(dwNumber);
            ++dwCount;
        }
        return dwCount;
    }

  private:
    CCmNumberStack m_Stack;
    std::array<CmStd::atomic<uint32_t>, NUMBERS> m_Links;
    std::array<bool, NUMBERS> m_abOwned{};
};

}  // namespace

TEST(ScheduledNumberStack, GivesEachNumberToOne_WhenTwoThreadsPopAndPush) {
    CSettings settings;
    settings.m_nPreemptions = 3;
    Explore(
        [] {
            CHandedOut stack(NUMBERS);
            {
                // The first number comes back while the other thread may hold its old link.
                CThreadOf other([&stack] {
                    const uint32_t dwFirst = stack.Pop();
                    const uint32_t dwSecond = stack.Pop();
                    SCHEDULE_EXPECT(dwFirst != NONE && dwSecond != NONE);
                    stack.Push(dwFirst);
                    SCHEDULE_EXPECT(stack.Pop() != NONE);
                });
                SCHEDULE_EXPECT(stack.Pop() != NONE);
            }
            SCHEDULE_EXPECT(stack.Pop() == NONE);
        },
        settings);
}

TEST(ScheduledNumberStack, LosesNoNumber_WhenThreeThreadsPopAndPush) {
    Explore([] {
        CHandedOut stack(2);
        {
            const auto popAndPush = [&stack] {
                const uint32_t dwNumber = stack.Pop();
                if (dwNumber != NONE) {
                    stack.Push(dwNumber);
                }
            };
            CThreadOf first(popAndPush);
            CThreadOf second(popAndPush);
            popAndPush();
        }
        SCHEDULE_EXPECT(stack.PopAll() == 2);
        SCHEDULE_EXPECT(stack.Pop() == NONE);
    });
}

TEST(ScheduledNumberStack, LosesNoNumber_WhenOneThreadTakesAllThatTwoPush) {
    Explore([] {
        CHandedOut stack;
        uint32_t dwTaken = 0;
        stack.Own(0);
        stack.Own(1);
        stack.Own(2);
        {
            CThreadOf first([&stack] {
                stack.Push(0);
                stack.Push(1);
            });
            CThreadOf second([&stack] { stack.Push(2); });
            dwTaken = stack.PopAll();
        }
        SCHEDULE_EXPECT(dwTaken + stack.PopAll() == NUMBERS);
    });
}

TEST(ScheduledNumberStack, GivesEachNumberToOne_WhenOneThreadTakesAllAndAnotherPops) {
    Explore([] {
        CHandedOut stack(NUMBERS);
        uint32_t dwTaken = 0;
        uint32_t dwPopped = 0;
        {
            CThreadOf popper([&] {
                for (int nPop = 0; nPop < 2; ++nPop) {
                    const uint32_t dwNumber = stack.Pop();
                    if (dwNumber != NONE) {
                        stack.Push(dwNumber);
                    }
                }
                dwPopped = stack.Pop() != NONE ? 1 : 0;
            });
            dwTaken = stack.PopAll();
        }
        SCHEDULE_EXPECT(dwTaken + dwPopped + stack.PopAll() == NUMBERS);
    });
}

}  // namespace kelto_test
