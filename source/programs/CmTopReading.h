// The figures in a recorder's file as a reading of the table.
#ifndef CM_TOP_READING_H
#define CM_TOP_READING_H

#include "CmFlightReader.h"
#include "CmTopTable.h"

namespace UTIL_NS {

// What aReader has read last, with the figures as they are now: of a process that runs the threads
// that live, of another one all. False: aReader.Error() says why.
bool CmReadFigures(CCmFlightReader& aReader, CCmTopReading* aReading);

}  // namespace UTIL_NS

#endif  // CM_TOP_READING_H
