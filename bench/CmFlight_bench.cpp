// The flight recorder: what a record costs the thread that makes it, the clock not included. The
// floor is four plain stores into a ring of the same size.

#include <cstdint>
#include <vector>

#include "CmFlight.h"
#include "Row.h"

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char EVENT[] = "record an event";
constexpr char POST[] = "record a post";
constexpr char LINE[] = "record a trace line of 100 characters";

struct CEvent {
    virtual ~CEvent() = default;
};

const void* TableOf(const CEvent& aEvent) {
    return *reinterpret_cast<const void* const*>(&aEvent);
}

// The recorder with a file in the user's directory, as it is by default.
CCmFlightRing& Ring() {
    static CCmFlightRing* const s_pRing = [] {
        CCmFlightOptions options;
        options.m_bLines = false;
        Check(CCmFlight::Open(options) == CM_OK, "there is a file");
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread("bench");
        Check(pRing != nullptr, "there is a ring");
        return pRing;
    }();
    return *s_pRing;
}

const Row s_event("recorder", EVENT, OURS, [](benchmark::State& aState) {
    CCmFlightRing& ring = Ring();
    const CEvent event;
    const void* const pTable = TableOf(event);
    long long llStart = 1700000000000000;
    for (auto _ : aState) {
        ring.Event(++llStart, 12, pTable, &event, 3);
        Touch(&ring);
    }
    CountItems(aState);
});

const Row s_eventAndCurrent("recorder", "record an event and what runs", OURS,
                            [](benchmark::State& aState) {
                                CCmFlightRing& ring = Ring();
                                const CEvent event;
                                const void* const pTable = TableOf(event);
                                long long llStart = 1700000000000000;
                                for (auto _ : aState) {
                                    ring.Current(pTable, ++llStart);
                                    Touch(&ring);
                                    ring.Event(llStart, 12, pTable, &event, 3);
                                    ring.Current(nullptr, 0);
                                    Touch(&ring);
                                }
                                CountItems(aState);
                            });

const Row s_post("recorder", POST, OURS, [](benchmark::State& aState) {
    CCmFlightRing& ring = Ring();
    const CEvent event;
    const void* const pTable = TableOf(event);
    long long llNow = 1700000000000000;
    for (auto _ : aState) {
        ring.Post(++llNow, pTable, &event, &ring);
        Touch(&ring);
    }
    long long llUsec = 0;
    Check(ring.FindPost(&event, llNow, llUsec) && llUsec == llNow, "the last one is there");
    CountItems(aState);
});

const Row s_line("recorder", LINE, OURS, [](benchmark::State& aState) {
    CCmFlightRing& ring = Ring();
    const std::string sText(100, 'x');
    for (auto _ : aState) {
        ring.Line(1700000000000000, 20, false, sText.c_str(), sText.size());
        Touch(&ring);
    }
    CountItems(aState);
});

const Row s_stores("recorder", POST, "floor: four stores", [](benchmark::State& aState) {
    std::vector<uint64_t> words(2048 * 4);
    uint64_t ullNumber = 0;
    for (auto _ : aState) {
        uint64_t* const pUnit = &words[(ullNumber & 2047) * 4];
        for (uint64_t i = 0; i < 4; ++i) {
            pUnit[i] = ullNumber + i;
        }
        ++ullNumber;
        Touch(pUnit);
    }
    Check(words[((ullNumber - 1) & 2047) * 4] == ullNumber - 1, "the last one is there");
    CountItems(aState);
});

}  // namespace
