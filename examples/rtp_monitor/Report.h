// Prints what is known: a table for people, JSON for programs.
#ifndef RTP_MONITOR_REPORT_H
#define RTP_MONITOR_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "ReportData.h"

namespace rtp_monitor {

// Both end in a line end. Streams come in the order of the report. A table shows at most
// aMaxStreams of them and says how many more there are.
std::string FormatTable(const CReport& aReport, size_t aMaxStreams = SIZE_MAX);
std::string FormatJson(const CReport& aReport);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_REPORT_H
