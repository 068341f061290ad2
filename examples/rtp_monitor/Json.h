// JSON for programs. README.md documents every member.
#ifndef RTP_MONITOR_JSON_H
#define RTP_MONITOR_JSON_H

#include <string>

#include "ReportData.h"

namespace rtp_monitor {

// One object in one line, with its line end. Streams come in the order of the report.
std::string FormatJson(const CReport& aReport);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_JSON_H
