// The wall clock is set back and forth, from a year back to fifty years ahead and at random: no
// timer is lost, nothing stalls, waits keep their length.
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CmConditionVariable.h"
#include "CmEventQueueBase.h"
#include "CmTimerQueueOrderedList.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Timers.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::CountingHandler;
using kelto_test::FailingCall;
using kelto_test::ScopedClock;
using kelto_test::ScopedEntry;

constexpr long START = 1700000000;       // seconds
constexpr long YEAR = 365L * 24 * 3600;  // seconds
constexpr long STEPS[] = {-YEAR, -3600, -1, 1, 3600, YEAR, 50 * YEAR};

typedef std::chrono::steady_clock Steady;

class ClockSteps : public testing::TestWithParam<long> {};

// A stall is time spent working or waiting: what lies within its life takes less than 10 ms of its
// thread's processor time, or what it is given, however busy the machine is, and asks for no wait.
class NoStall {
  public:
    explicit NoStall(std::chrono::nanoseconds aLimit = std::chrono::milliseconds(10))
        : m_limit(aLimit), m_start(ProcessorTime()) {}
    ~NoStall() {
        EXPECT_GT(m_limit, ProcessorTime() - m_start);
        EXPECT_EQ(0U, m_sleeps.calls() + m_waits.calls() + m_timedWaits.calls());
    }
    NoStall(const NoStall&) = delete;
    NoStall& operator=(const NoStall&) = delete;

  private:
    static constexpr unsigned long NEVER = 1000000;

    static std::chrono::nanoseconds ProcessorTime() {
        timespec tsTime = {};
        EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &tsTime));
        return std::chrono::seconds(tsTime.tv_sec) + std::chrono::nanoseconds(tsTime.tv_nsec);
    }

    // Only counted.
    const FailingCall<&CCmSystemTable::nanosleep> m_sleeps{EINVAL, -1, NEVER};
    const FailingCall<&CCmSystemTable::pthread_cond_wait> m_waits{0, EINVAL, NEVER};
    const FailingCall<&CCmSystemTable::pthread_cond_timedwait> m_timedWaits{0, EINVAL, NEVER};
    const std::chrono::nanoseconds m_limit;
    const std::chrono::nanoseconds m_start;
};

TEST_P(ClockSteps, FiresEachDueTimerOnceAndLosesNone_WhenTheClockIsStepped) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    std::vector<CountingHandler> handlers(100);
    for (CountingHandler& handler : handlers) {
        ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1000), 0));
    }
    clock.Set(START + GetParam());
    const unsigned int dwDue = GetParam() > 0 ? 100 : 0;
    {
        const NoStall watch;
        EXPECT_EQ(dwDue, queue.CheckExpire());
    }
    // The step has passed; every timer goes on with its period.
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 1);
    EXPECT_EQ(100U, queue.CheckExpire());
    for (CountingHandler& handler : handlers) {
        EXPECT_EQ(dwDue / 100 + 1, handler.count());
        EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
    }
}

TEST_P(ClockSteps, CheckExpireGoesOn_AfterTheStepWasTakenBack) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    CountingHandler handler;
    ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(1), 0));
    clock.Set(START + GetParam());
    queue.CheckExpire();
    const unsigned long ulBefore = handler.count();
    clock.Set(START);
    CCmTimeValue tvRemain;
    queue.CheckExpire(&tvRemain);
    clock.Set(START + tvRemain.GetSec(), tvRemain.GetUsec());
    EXPECT_EQ(1U, queue.CheckExpire()) << "it fires when it said it would";
    EXPECT_EQ(ulBefore + 1, handler.count());
}

// The shortest period there is: fifty years of it, 1.6e15 of them, are one firing all the same.
TEST_P(ClockSteps, DoesNotCountMissedPeriods_WhenTheClockIsStepped) {
    ScopedClock clock(START);
    CCmTimerQueueOrderedList queue(nullptr);
    CountingHandler handler;
    ASSERT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(0, 1), 0));
    clock.Set(START + GetParam());
    const unsigned long ulReads = clock.reads();
    {
        const NoStall watch;
        queue.CheckExpire();
    }
    EXPECT_GE(4U, clock.reads() - ulReads);
    EXPECT_EQ(GetParam() > 0 ? 1U : 0U, handler.count());
    EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
}

TEST_P(ClockSteps, WaitKeepsItsLength_WhenTheClockIsStepped) {
    ScopedClock clock(START);
    CCmEventThread event(0, 0);
    std::thread stepper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        clock.Set(START + GetParam());
    });
    CCmTimeValue tvTimeout(0, 40000);
    const auto start = Steady::now();
    EXPECT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvTimeout));
    EXPECT_LE(std::chrono::milliseconds(39), Steady::now() - start);
    stepper.join();
}

// The system's own clock; how far the waits asked for lie ahead of it, in microseconds.
long g_lSystemSec = 0;
std::vector<long long> g_waitsUsec;

int SystemTimeOfDay(timeval* aTv, void* /*aZone*/) {
    *aTv = {g_lSystemSec, 0};
    return 0;
}

int TimeOutAtOnce(pthread_cond_t* /*aCondition*/, pthread_mutex_t* /*aMutex*/,
                  const timespec* aDeadline) {
    g_waitsUsec.push_back((aDeadline->tv_sec - g_lSystemSec) * 1000000LL +
                          aDeadline->tv_nsec / 1000);
    return ETIMEDOUT;
}

TEST_P(ClockSteps, AsksOnceAndForTheWholeWait_WhenTheClockIsStepped) {
    const ScopedEntry<decltype(g_cmSystem.gettimeofday)> now(g_cmSystem.gettimeofday,
                                                             &SystemTimeOfDay);
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> wait(
        g_cmSystem.pthread_cond_timedwait, &TimeOutAtOnce);
    g_waitsUsec.clear();
    CCmEventThread event(0, 0);
    for (const long lSec : {START, START + GetParam(), START}) {
        g_lSystemSec = lSec;
        CCmTimeValue tvTimeout(0, 40000);
        EXPECT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvTimeout));
    }
    EXPECT_EQ(std::vector<long long>(3, 40000), g_waitsUsec);
}

// More than 100 pending events are reported once more than 3 s passed since the last look.
TEST_P(ClockSteps, SizeWatchReportsAgain_AfterTheStep) {
    ScopedClock clock(START);
    kelto_test::ScopedTraceSink sink;
    kelto_test::EventLog log;
    CCmEventQueueUsingMutex queue;
    const auto post = [&](int aCount) {
        for (int i = 0; i < aCount; ++i) {
            ASSERT_EQ(CM_OK, queue.PostEvent(new kelto_test::LoggedEvent(log),
                                             ICmEventQueue::EPRIORITY_NORMAL));
        }
    };
    post(102);
    EXPECT_EQ(0U, sink.lines().size()) << "no time has passed";
    clock.Set(START + GetParam());
    {
        const NoStall watch;
        post(10);
    }
    EXPECT_EQ(GetParam() > 3 ? 1U : 0U, sink.lines().size());
    clock.Set(START + (GetParam() > 0 ? GetParam() : 0) + 4);
    post(1);
    EXPECT_EQ(GetParam() > 3 ? 2U : 1U, sink.lines().size());
}

// ---- At random, against models

constexpr int RANDOM_STEPS = 10000;

// A wall clock between 1970 and 2200 that is set by a microsecond, by years and by all between.
class CErraticClock {
  public:
    explicit CErraticClock(unsigned aSeed) : m_random(aSeed) {}
    // Most steps are short: what compares with a time in the past has something to do.
    void StepMostlyShort() { Step(Pick(1000) == 0 ? REACHES : REACHES - 4); }
    void Step() { Step(REACHES); }

    long long Now() const { return m_llNow; }
    size_t Pick(size_t aBelow) { return m_random() % aBelow; }

  private:
    static constexpr long long MOST = 7258118400LL * 1000000;
    static constexpr long long REACH[] = {1,          1000,        1000000,    4000000,
                                          3600000000, 86400000000, MOST / 100, MOST / 2};
    static constexpr size_t REACHES = std::size(REACH);

    void Step(size_t aReaches) {
        const long long llStep = static_cast<long long>(m_random()) % REACH[Pick(aReaches)];
        m_llNow = std::clamp(m_llNow + llStep, 0LL, MOST);
        m_clock.Set(m_llNow / 1000000, m_llNow % 1000000);
    }

    std::mt19937_64 m_random;
    long long m_llNow = START * 1000000LL;
    ScopedClock m_clock{START};
};

struct ModelTimer {
    size_t id;
    long long expired;
    long long interval;
    unsigned left;  // 0: without limit
};

// The timers in the order in which they fire; of equal ones the last one inserted first.
class TimerModel {
  public:
    // Whether there was one.
    bool Remove(size_t aId) {
        const auto it = std::find_if(m_timers.begin(), m_timers.end(),
                                     [aId](const ModelTimer& aTimer) { return aTimer.id == aId; });
        if (it == m_timers.end()) {
            return false;
        }
        m_timers.erase(it);
        return true;
    }
    void Insert(const ModelTimer& aTimer) {
        m_timers.insert(std::find_if(m_timers.begin(), m_timers.end(),
                                     [&aTimer](const ModelTimer& aOther) {
                                         return aOther.expired >= aTimer.expired;
                                     }),
                        aTimer);
    }
    // Which fire at that time, one after the other.
    std::vector<size_t> Expire(long long aNow) {
        std::vector<size_t> fired;
        while (!m_timers.empty() && m_timers.front().expired <= aNow) {
            ModelTimer timer = m_timers.front();
            m_timers.erase(m_timers.begin());
            fired.push_back(timer.id);
            if (timer.left != 1 && timer.interval > 0) {
                timer.left -= timer.left == 0 ? 0 : 1;
                timer.expired += ((aNow - timer.expired) / timer.interval + 1) * timer.interval;
                Insert(timer);
            }
        }
        return fired;
    }
    // -1: none.
    long long Earliest() const { return m_timers.empty() ? -1 : m_timers.front().expired; }

  private:
    std::vector<ModelTimer> m_timers;
};

class RecordingHandler : public ICmTimerHandler {
  public:
    RecordingHandler(size_t aId, std::vector<size_t>& aFired) : m_nId(aId), m_fired(aFired) {}
    virtual ~RecordingHandler() = default;
    void OnTimeout(const CCmTimeValue& /*aNow*/, void* /*aArg*/) override {
        m_fired.push_back(m_nId);
    }

  private:
    const size_t m_nId;
    std::vector<size_t>& m_fired;
};

TEST(RandomClockSteps, FireTheTimersOfAModel) {
    CErraticClock clock(22);
    std::vector<size_t> fired;
    std::vector<RecordingHandler> handlers;
    for (size_t i = 0; i < 24; ++i) {
        handlers.emplace_back(i, fired);
    }
    TimerModel model;
    CCmTimerQueueOrderedList queue(nullptr);
    unsigned long ulFired = 0;
    const NoStall watch(std::chrono::seconds(10));
    for (int i = 0; i < RANDOM_STEPS; ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        const size_t nId = clock.Pick(handlers.size());
        if (clock.Pick(4) == 0) {
            ASSERT_EQ(model.Remove(nId) ? CM_OK : CM_ERROR_NOT_FOUND,
                      queue.CancelTimer(&handlers[nId]));
        } else {
            constexpr long long INTERVALS[] = {1, 500, 20000, 1000000, 3600000000, 31536000000000};
            const long long llInterval = INTERVALS[clock.Pick(std::size(INTERVALS))];
            const unsigned dwCount = static_cast<unsigned>(clock.Pick(4));
            ASSERT_EQ(
                model.Remove(nId) ? CM_ERROR_FOUND : CM_OK,
                queue.ScheduleTimer(&handlers[nId], nullptr, CCmTimeValue(0, llInterval), dwCount));
            model.Insert({nId, clock.Now() + llInterval, llInterval, dwCount});
        }
        clock.Step();
        CCmTimeValue tvRemain;
        fired.clear();
        const unsigned int dwFired = queue.CheckExpire(&tvRemain);
        const std::vector<size_t> expected = model.Expire(clock.Now());
        ASSERT_EQ(expected, fired);
        ASSERT_EQ(expected.size(), dwFired);
        ASSERT_EQ(model.Earliest() < 0 ? CCmTimeValue::s_tvMax
                                       : CCmTimeValue(0, model.Earliest() - clock.Now()),
                  tvRemain);
        ulFired += dwFired;
    }
    EXPECT_LT(static_cast<unsigned long>(RANDOM_STEPS), ulFired);
}

// A queue of more than 100 events says so when more than 3 s have passed since it last did, or
// since it was made.
TEST(RandomClockSteps, ReportALongQueueLikeAModel) {
    CErraticClock clock(23);
    kelto_test::ScopedTraceSink sink;
    kelto_test::EventLog log;
    std::optional<CCmEventQueueUsingMutex> queue(std::in_place);
    long long llReported = clock.Now();
    size_t nReports = 0;
    size_t nSize = 0;
    for (int i = 0; i < RANDOM_STEPS; ++i) {
        if (clock.Pick(600) == 0) {
            EXPECT_EQ(nSize, queue->GetPendingEventsCount());
            queue.emplace();
            llReported = clock.Now();
            nSize = 0;
        }
        clock.StepMostlyShort();
        ASSERT_EQ(CM_OK, queue->PostEvent(new kelto_test::LoggedEvent(log),
                                          ICmEventQueue::EPRIORITY_NORMAL));
        ++nSize;
        if (clock.Now() - llReported > 3000000) {
            nReports += nSize > 100 ? 1 : 0;
            llReported = clock.Now();
        }
        ASSERT_EQ(nReports, sink.lines().size()) << "step " << i;
    }
    EXPECT_LT(static_cast<size_t>(RANDOM_STEPS / 500), nReports);
}

TEST(RandomClockSteps, AskForTheWholeWaitEachTime) {
    const ScopedEntry<decltype(g_cmSystem.gettimeofday)> now(g_cmSystem.gettimeofday,
                                                             &SystemTimeOfDay);
    const ScopedEntry<decltype(g_cmSystem.pthread_cond_timedwait)> wait(
        g_cmSystem.pthread_cond_timedwait, &TimeOutAtOnce);
    CErraticClock clock(24);
    CCmEventThread event(0, 0);
    for (int i = 0; i < RANDOM_STEPS; ++i) {
        clock.Step();
        g_lSystemSec = clock.Now() / 1000000;
        g_waitsUsec.clear();
        const long lUsec = static_cast<long>(clock.Pick(10000000) + 1);
        CCmTimeValue tvTimeout(0, lUsec);
        ASSERT_EQ(CM_ERROR_TIMEOUT, event.Wait(&tvTimeout));
        ASSERT_EQ(std::vector<long long>(1, lUsec), g_waitsUsec) << "step " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, ClockSteps, testing::ValuesIn(STEPS));

}  // namespace
}  // namespace UTIL_NS
