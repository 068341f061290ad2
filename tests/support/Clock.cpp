#include "support/Clock.h"

#include <atomic>

namespace kelto_test {

namespace {

constexpr long long USEC_PER_SEC = 1000000;

std::atomic<long long> g_llNowUsec{0};
std::atomic<long long> g_llCoarseLagUsec{0};
std::atomic<clock_t> g_ticks{0};
std::atomic<unsigned long> g_ulReads{0};

// As the system does it: the microseconds count up, also before 1970.
int Read(long long aNowUsec, timeval* aTv) {
    g_ulReads.fetch_add(1);
    aTv->tv_sec = aNowUsec / USEC_PER_SEC;
    aTv->tv_usec = aNowUsec % USEC_PER_SEC;
    if (aTv->tv_usec < 0) {
        aTv->tv_sec -= 1;
        aTv->tv_usec += USEC_PER_SEC;
    }
    return 0;
}

int FakeGetTimeOfDay(timeval* aTv, void* /*aZone*/) {
    return Read(g_llNowUsec.load(), aTv);
}

int FakeCoarseTimeOfDay(timeval* aTv, void* /*aUnused*/) {
    return Read(g_llNowUsec.load() - g_llCoarseLagUsec.load(), aTv);
}

clock_t FakeTimes(tms* /*aTimes*/) {
    return g_ticks.load();
}

}  // namespace

ScopedClock::ScopedClock(long aSec, long aUsec) : m_saved(UTIL_NS::g_cmClock) {
    Set(aSec, aUsec);
    g_llCoarseLagUsec.store(0);
    g_ulReads.store(0);
    UTIL_NS::g_cmClock.gettimeofday = FakeGetTimeOfDay;
    UTIL_NS::g_cmClock.coarse_gettimeofday = FakeCoarseTimeOfDay;
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

void ScopedClock::SetCoarseLagUsec(long aUsec) {
    g_llCoarseLagUsec.store(aUsec);
}

void ScopedClock::SetTicks(clock_t aTicks) {
    g_ticks.store(aTicks);
}

unsigned long ScopedClock::reads() const {
    return g_ulReads.load();
}

}  // namespace kelto_test
