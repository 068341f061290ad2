// A periodic timer on a worker thread, made and ended on another one.
// Prints one line for each of three firings.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;
using namespace std::chrono_literals;

int main() {
    constexpr int FIRINGS = 3;
    CCmEventThread done(1);  // manual reset: stays signalled
    int nTicks = 0;
    CCmWorker worker(CCmWorkerOptions().Name("ticker").PreciseTimers());

    CCmTimer timer(worker, 20ms, [&](const CCmTimerFiring& aFiring) {
        std::printf("tick %d, %ld us late\n", ++nTicks,
                    (aFiring.m_tvNow - aFiring.m_tvDue).GetUsec());
        if (nTicks == FIRINGS) {
            done.Signal();
        }
    });
    CCmTimeValue tvLimit(10);
    const bool bDone = CM_SUCCEEDED(timer.Result()) && CM_SUCCEEDED(done.Wait(&tvLimit));

    // From here on the callable does not run, and what it uses may end.
    const bool bCancelled = CM_SUCCEEDED(timer.Cancel());
    return bDone && bCancelled && nTicks >= FIRINGS ? EXIT_SUCCESS : EXIT_FAILURE;
}
