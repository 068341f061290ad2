// Objects that a process makes once, asked for by several threads, in every schedule.
#include <gtest/gtest.h>

#include <functional>

#include "CmTimerWrapper.h"
#include "CmUtilTemplates.h"
#include "schedule/Schedule.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

// Its constructor runs with the singleton mutex held.
struct CAsksForTheTime {
    CAsksForTheTime() : m_llTime(low_tick_policy::now()) {}
    long long m_llTime;
};

// How many objects of each kind were made, and how many live.
struct CCensus {
    int m_nMade = 0;
    int m_nAlive = 0;
};
CCensus s_Second;
CCensus s_First;

struct CSecond {
    CSecond() {
        SCHEDULE_EXPECT(++s_Second.m_nAlive == 1);
        ++s_Second.m_nMade;
    }
    ~CSecond() { --s_Second.m_nAlive; }
};

// Its constructor and its destructor need the other one.
struct CFirst {
    CFirst() {
        SCHEDULE_EXPECT(++s_First.m_nAlive == 1);
        ++s_First.m_nMade;
        SCHEDULE_EXPECT(CCmSingletonT<CSecond>::Instance() != nullptr);
    }
    ~CFirst() {
        SCHEDULE_EXPECT(CCmSingletonT<CSecond>::Instance() != nullptr);
        --s_First.m_nAlive;
    }
};

// What was made by others is cleaned up before the first schedule.
void ExploreSingletons(const std::function<void()>& aScenario) {
    CCmCleanUpBase::CleanupAll();
    Explore([&aScenario] {
        s_First = CCensus();
        s_Second = CCensus();
        aScenario();
        CCmCleanUpBase::CleanupAll();
        CCmCleanUpBase::CleanupAll();  // what the first one's destructors made
        SCHEDULE_EXPECT(s_First.m_nAlive == 0 && s_Second.m_nAlive == 0);
    });
}

}  // namespace

TEST(ScheduledGenerator, DoesNotLockOutASingleton_WhenItsConstructorAsksForTheTime) {
    CSettings settings;
    settings.m_bFreshProcess = true;
    settings.m_ulSchedules = 1000;
    settings.m_ulAllSchedules = 20000;
    Explore(
        [] {
            CThreadOf other([] { low_tick_policy::now(); });
            CAsksForTheTime* const pHost = CCmSingletonT<CAsksForTheTime>::Instance();
            SCHEDULE_EXPECT(pHost != nullptr);
            other.Join();
            SCHEDULE_EXPECT(low_tick_policy::low_tick_generator::instance() != nullptr);
        },
        settings);
}

TEST(ScheduledSingleton, IsMadeOnce_WhenThreeThreadsAskForIt) {
    ExploreSingletons([] {
        CSecond* apFound[3] = {};
        {
            CThreadOf first([&apFound] { apFound[0] = CCmSingletonT<CSecond>::Instance(); });
            CThreadOf second([&apFound] { apFound[1] = CCmSingletonT<CSecond>::Instance(); });
            apFound[2] = CCmSingletonT<CSecond>::Instance();
        }
        SCHEDULE_EXPECT(apFound[0] != nullptr && apFound[0] == apFound[1]);
        SCHEDULE_EXPECT(apFound[0] == apFound[2]);
        SCHEDULE_EXPECT(s_Second.m_nMade == 1);
    });
}

TEST(ScheduledSingleton, IsMadeOnce_WhenAnotherOneNeedsItMeanwhile) {
    ExploreSingletons([] {
        {
            CThreadOf other([] {
                SCHEDULE_EXPECT(CCmSingletonT<CSecond>::Instance() != nullptr);
                SCHEDULE_EXPECT(CCmSingletonT<CFirst>::Instance() != nullptr);
            });
            SCHEDULE_EXPECT(CCmSingletonT<CFirst>::Instance() != nullptr);
            SCHEDULE_EXPECT(s_Second.m_nAlive == 1);
        }
        SCHEDULE_EXPECT(s_First.m_nMade == 1 && s_Second.m_nMade == 1);
    });
}

TEST(ScheduledSingleton, LivesOnceAtATime_WhenAllAreCleanedUpMeanwhile) {
    ExploreSingletons([] {
        {
            // Null, if it was cleaned up before this thread had it.
            CThreadOf other([] {
                const CFirst* const pFound = CCmSingletonT<CFirst>::Instance();
                SCHEDULE_EXPECT(pFound != nullptr || s_First.m_nMade == 1);
            });
            CCmCleanUpBase::CleanupAll();
            SCHEDULE_EXPECT(CCmSingletonT<CSecond>::Instance() != nullptr);
        }
        SCHEDULE_EXPECT(s_First.m_nMade == 1 && s_Second.m_nMade <= 3);
    });
}

TEST(ScheduledSingleton, EndsOnce_WhenTwoThreadsCleanUp) {
    ExploreSingletons([] {
        SCHEDULE_EXPECT(CCmSingletonT<CFirst>::Instance() != nullptr);
        {
            CThreadOf other([] { CCmCleanUpBase::CleanupAll(); });
            CCmCleanUpBase::CleanupAll();
            SCHEDULE_EXPECT(s_First.m_nAlive == 0);
        }
        SCHEDULE_EXPECT(s_First.m_nMade == 1 && s_First.m_nAlive == 0);
    });
}

}  // namespace kelto_test
