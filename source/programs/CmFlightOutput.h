// A recording as text, as JSON for timeline viewers, and as a picture.
#ifndef CM_FLIGHT_OUTPUT_H
#define CM_FLIGHT_OUTPUT_H

#include <functional>
#include <string>
#include <string_view>

#include "CmFlightRecords.h"

namespace UTIL_NS {

// Takes text, piece by piece.
typedef std::function<void(std::string_view)> CmTextSink;

// As the configuration spells it; "NA" where there is no such level.
const char* CmFlightLevelName(unsigned aLevel);

// Lines that begin with "# ": what was recorded, and what of it is missing.
void CmPrintHead(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                 const CmTextSink& aSink);
// A line for each record that is shown.
void CmPrintRecords(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    const CmTextSink& aSink);
// A line for each thread.
void CmPrintThreads(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    const CmTextSink& aSink);

// The trace-event format, which browsers' and other timeline viewers open: what ran as slices of
// the threads, posts as arrows to the events that they led to, pending events as counters, the rest
// as marks.
void CmPrintTimeline(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                     const CmTextSink& aSink);

// SVG: a row for each thread, with what ran, posts, lines and steps of the clock.
void CmPrintPicture(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                    const CmTextSink& aSink);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_OUTPUT_H
