// The clock, which many operations read once or twice.

#include <sys/time.h>

#include "CmTimeValue.h"
#include "Row.h"

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

const Row s_ours("clock", "read the time of day", OURS, [](benchmark::State& aState) {
    CCmTimeValue tvLast;
    for (auto _ : aState) {
        const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
        Check(tvNow >= tvLast, "time runs forward");
        tvLast = tvNow;
    }
    CountItems(aState);
});

const Row s_system("clock", "read the time of day", "floor: gettimeofday",
                   [](benchmark::State& aState) {
                       timeval last = {};
                       for (auto _ : aState) {
                           timeval now;
                           gettimeofday(&now, nullptr);
                           Check(!timercmp(&now, &last, <), "time runs forward");
                           last = now;
                       }
                       CountItems(aState);
                   });

}  // namespace
