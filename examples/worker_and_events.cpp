// A worker thread: post work to it, call it and take the value, give it something for later.
// Prints the sum that the worker added up.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;
using namespace std::chrono_literals;

int main() {
    long lSum = 0;  // touched by the worker only; ends after it
    CCmWorker worker(CCmWorkerOptions().Name("adder"));

    for (long lNumber = 1; lNumber <= 100; ++lNumber) {
        if (CM_FAILED(CmPost(worker, [&lSum, lNumber] { lSum += lNumber; }))) {
            return EXIT_FAILURE;
        }
    }
    const CCmTimerHandle later = CmPostDelayed(worker, 1h, [&lSum] { lSum = 0; });

    auto seen = CmCall(worker, [&lSum] { return lSum; });  // what was posted before has run
    if (!seen || CM_FAILED(later.Result())) {
        std::printf("the worker did not answer: %s\n", CmResultText(seen.Result()));
        return EXIT_FAILURE;
    }
    std::printf("the worker added up %ld\n", *seen);
    return *seen == 5050 ? EXIT_SUCCESS : EXIT_FAILURE;  // here the worker stops and is joined
}
