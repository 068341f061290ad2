#include "StreamOrder.h"

#include <algorithm>

namespace rtp_monitor {

const char SORT_NAMES[] = "worst, loss, jitter, rate, gap, packets or address";

namespace {

struct CSortName {
    const char* name;
    ESort sort;
};
constexpr CSortName NAMES[] = {
    {"worst", ESort::WORST},     {"loss", ESort::LOSS}, {"jitter", ESort::JITTER},
    {"rate", ESort::RATE},       {"gap", ESort::GAP},   {"packets", ESort::PACKETS},
    {"address", ESort::ADDRESS},
};

double JitterOf(const CStreamReport& aStream) {
    return aStream.clockRate != 0 ? aStream.jitterMs : 0;
}

// What aSort orders by, the largest first.
double Figure(ESort aSort, const CStreamReport& aStream) {
    switch (aSort) {
        case ESort::WORST:
            return aStream.isDoubtful ? -1
                                      : std::max(LossPercent(aStream) / LOSS_LIMIT_PERCENT,
                                                 JitterOf(aStream) / JITTER_LIMIT_MS);
        case ESort::LOSS:
            return LossPercent(aStream);
        case ESort::JITTER:
            return JitterOf(aStream);
        case ESort::RATE:
            return aStream.bitRate;
        case ESort::GAP:
            return aStream.longestGapMs;
        case ESort::PACKETS:
            return static_cast<double>(aStream.received);
        default:
            return 0;
    }
}

}  // namespace

bool ParseSort(std::string_view aName, ESort* aSort) {
    for (const CSortName& entry : NAMES) {
        if (aName == entry.name) {
            *aSort = entry.sort;
            return true;
        }
    }
    return false;
}

void SortStreams(ESort aSort, std::vector<CStreamReport>* aStreams) {
    std::sort(aStreams->begin(), aStreams->end(),
              [aSort](const CStreamReport& aLeft, const CStreamReport& aRight) {
                  const double dLeft = Figure(aSort, aLeft);
                  const double dRight = Figure(aSort, aRight);
                  return dLeft > dRight || (!(dLeft < dRight) && aLeft.key < aRight.key);
              });
}

double LossPercent(const CStreamReport& aStream) {
    return aStream.expected > 0
               ? 100.0 * static_cast<double>(aStream.lost) / static_cast<double>(aStream.expected)
               : 0;
}

}  // namespace rtp_monitor
