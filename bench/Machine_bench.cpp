// What the machine charges for the two steps that decide most rows; no library has a part in it.

#include <time.h>

#include <atomic>

#include "Row.h"

using namespace kelto_bench;

namespace {

constexpr char AREA[] = "machine";
constexpr char WHO[] = "floor: the machine";

const Row s_clock(AREA, "an exact clock reading", WHO, [](benchmark::State& aState) {
    long lSum = 0;
    for (auto _ : aState) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        lSum += now.tv_sec;
    }
    Check(lSum > 0, AREA);
    CountItems(aState);
});

const Row s_locked(AREA, "a locked instruction", WHO, [](benchmark::State& aState) {
    std::atomic<long> lCount{0};
    for (auto _ : aState) {
        lCount.fetch_add(1, std::memory_order_relaxed);
        Touch(&lCount);
    }
    Check(lCount.load() == static_cast<long>(aState.iterations()), AREA);
    CountItems(aState);
});

}  // namespace
