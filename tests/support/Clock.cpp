#include "support/Clock.h"

#include <atomic>

namespace kelto_test {

namespace {

constexpr long long USEC_PER_SEC = 1000000;

std::atomic<long long> g_llNowUsec{0};
std::atomic<clock_t> g_ticks{0};
std::atomic<unsigned long> g_ulReads{0};

int FakeGetTimeOfDay(timeval* aTv, void* /*aZone*/) {
    g_ulReads.fetch_add(1);
    const long long llNow = g_llNowUsec.load();
    aTv->tv_sec = llNow / USEC_PER_SEC;
    aTv->tv_usec = llNow % USEC_PER_SEC;
    return 0;
}

clock_t FakeTimes(tms* /*aTimes*/) {
    return g_ticks.load();
}

}  // namespace

ScopedClock::ScopedClock(long aSec, long aUsec) : m_saved(UTIL_NS::g_cmClock) {
    Set(aSec, aUsec);
    g_ulReads.store(0);
    UTIL_NS::g_cmClock.gettimeofday = FakeGetTimeOfDay;
    UTIL_NS::g_cmClock.times = FakeTimes;
}

ScopedClock::~ScopedClock() {
    UTIL_NS::g_cmClock = m_saved;
}

void ScopedClock::Set(long aSec, long aUsec) {
    g_llNowUsec.store(aSec * USEC_PER_SEC + aUsec);
}

void ScopedClock::AdvanceUsec(long long aUsec) {
    g_llNowUsec.fetch_add(aUsec);
}

void ScopedClock::SetTicks(clock_t aTicks) {
    g_ticks.store(aTicks);
}

unsigned long ScopedClock::reads() const {
    return g_ulReads.load();
}

}  // namespace kelto_test
