// A recording as text, as JSON for timeline viewers, and as a picture.
#ifndef CM_FLIGHT_OUTPUT_H
#define CM_FLIGHT_OUTPUT_H

#include <string_view>

#include "CmFlightRecords.h"

namespace UTIL_NS {

// Takes text, piece by piece.
class ICmTextSink {
  public:
    virtual void Put(std::string_view aText) = 0;

  protected:
    ~ICmTextSink() = default;
};

// As the configuration spells it; "NA" where there is no such level.
const char* CmFlightLevelName(unsigned aLevel);

// Lines that begin with "# ", of what was recorded and what of it is missing; then a line for each
// record that is shown, or for each thread.
void CmPrintRecords(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink);
void CmPrintThreads(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink);

// The trace-event format, which browsers' and other timeline viewers open: what ran as slices of
// the threads, posts as arrows to the events that they led to, pending events as counters, the rest
// as marks.
void CmPrintTimeline(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                     ICmTextSink& aSink);

// SVG: a row for each thread, with what ran, posts, lines and steps of the clock.
void CmPrintPicture(CCmFlightReader& aReader, const CCmFlightRecords& aRecords, ICmTextSink& aSink);

}  // namespace UTIL_NS

#endif  // CM_FLIGHT_OUTPUT_H
