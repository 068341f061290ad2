// Objects that a process makes once, asked for by several threads, in every schedule.
#include <gtest/gtest.h>

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

}  // namespace kelto_test
