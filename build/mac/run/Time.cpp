// Clocks and sleeping.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

constexpr Pair CLOCKS[] = {
    {0, CLOCK_REALTIME},
    {4, CLOCK_MONOTONIC_RAW},
    {6, CLOCK_MONOTONIC},
    {8, CLOCK_MONOTONIC},
    {5, CLOCK_MONOTONIC_COARSE},
    {9, CLOCK_MONOTONIC_COARSE},
    {12, CLOCK_PROCESS_CPUTIME_ID},
    {16, CLOCK_THREAD_CPUTIME_ID},
};

int ClockGetTime(int aClock, timespec* aTime) {
    const int nClock = ToHost(CLOCKS, aClock);
    if (nClock == -1) {
        errno = EINVAL;
        return -1;
    }
    return clock_gettime(nClock, aTime);
}

}  // namespace

void SupplyTime() {
    Supply({
        {"_clock_gettime", Address(&ClockGetTime)},
        {"_nanosleep", Address(&Passing<&nanosleep>::Call)},
        {"_usleep", Address(&Passing<&usleep>::Call)},
    });
}

}  // namespace kelto_mac
