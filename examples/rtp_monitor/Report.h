// Prints what the workers know: a table for people, JSON for programs.
#ifndef RTP_MONITOR_REPORT_H
#define RTP_MONITOR_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Worker.h"

namespace rtp_monitor {

// Everything that a report shows.
struct Totals {
    Snapshot snapshot;
    uint64_t rtp = 0;
    uint64_t rtcp = 0;
    uint64_t notRtp = 0;
    uint64_t skipped = 0;
    double packetsPerSecond = 0;  // handled, of all kinds
    bool complete = true;         // the whole input was read
    bool hasIntervals = true;     // intervals passed at the stream's own pace
};

// Both end in a line end. Streams come in the order of the snapshot. A table shows at most
// aMaxStreams of them and says how many more there are.
std::string FormatTable(const Totals& aTotals, size_t aMaxStreams = SIZE_MAX);
std::string FormatJson(const Totals& aTotals);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_REPORT_H
