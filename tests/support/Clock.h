// A clock that a test can set. It steers what the library reads as the current time; waits stay
// real.
#ifndef TESTS_SUPPORT_CLOCK_H
#define TESTS_SUPPORT_CLOCK_H

#include "CmSystem.h"

namespace kelto_test {

// While it lives, the library reads this clock. Time stands still until it is set or advanced;
// any thread may do so. One at a time; to be constructed before and destroyed after the threads
// that read it.
class ScopedClock {
  public:
    explicit ScopedClock(long aSec = 1000000000, long aUsec = 0);
    ~ScopedClock();
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;

    void Set(long aSec, long aUsec = 0);
    // Of either sign.
    void AdvanceUsec(long long aUsec);
    void AdvanceMs(long long aMs) { AdvanceUsec(aMs * 1000); }
    // How far the coarse clock is behind; 0 at first.
    void SetCoarseLagUsec(long aUsec);
    // What times() returns.
    void SetTicks(clock_t aTicks);
    // How often the wall clock has been read since construction.
    unsigned long reads() const;

  private:
    UTIL_NS::CCmClockTable m_saved;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CLOCK_H
