// The picture: loss, jitter and bit rate of each stream over time, as SVG.
#ifndef RTP_MONITOR_PLOT_H
#define RTP_MONITOR_PLOT_H

#include <cstddef>
#include <string>
#include <vector>

#include "ReportData.h"
#include "Series.h"

namespace rtp_monitor {

constexpr size_t MAX_PLOTTED = 100;  // streams; a longer page cannot be looked at

// aReport: in the order in which the streams are to be shown, MAX_PLOTTED of them. aCurves: theirs,
// in any order. aTitle: what was read from.
std::string FormatPlot(const CReport& aReport, const std::vector<CCurve>& aCurves,
                       const std::string& aTitle);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_PLOT_H
