// The table for people.
#ifndef RTP_MONITOR_TABLE_H
#define RTP_MONITOR_TABLE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "ReportData.h"

namespace rtp_monitor {

struct CTableStyle {
    size_t columns = SIZE_MAX;  // no line is longer
    size_t rows = SIZE_MAX;     // not more lines; streams that find no place are counted
    bool colour = false;
};

// Lines with line ends: titles, streams in the order of the report, totals. Columns fall away until
// the lines fit. Before the end of a run, streams that aged out are only counted.
std::string FormatTable(const CReport& aReport, const CTableStyle& aStyle);

// Breaks lines that are longer than aColumns between words. A longer word stays whole, such as the
// name of a file, which can then still be copied.
std::string FoldLines(const std::string& aLines, size_t aColumns);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_TABLE_H
