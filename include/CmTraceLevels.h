/// The trace levels by name, and the library's own lines in a trace file by one call.
/// \file
#ifndef CM_TRACE_LEVELS_H
#define CM_TRACE_LEVELS_H

#include "CmBase.h"
#include "CmT120Trace.h"
#include "CmTrace.h"

namespace UTIL_NS {

/// The levels beside CM_TRACE_LEVEL_ERROR, _WARNING and _INFO; all others have no use.
constexpr unsigned long CM_TRACE_LEVEL_SERVER = 1;
constexpr unsigned long CM_TRACE_LEVEL_MEETING = 11;
constexpr unsigned long CM_TRACE_LEVEL_SESSION = 12;
constexpr unsigned long CM_TRACE_LEVEL_USER = 13;
constexpr unsigned long CM_TRACE_LEVEL_STATISTIC = 14;
constexpr unsigned long CM_TRACE_LEVEL_STATE = 21;
constexpr unsigned long CM_TRACE_LEVEL_PDU = 22;
constexpr unsigned long CM_TRACE_LEVEL_FUNC = 23;
constexpr unsigned long CM_TRACE_LEVEL_TICK = 24;
constexpr unsigned long CM_TRACE_LEVEL_DETAIL = 25;
constexpr unsigned long CM_TRACE_LEVEL_WDMS = 26;
constexpr unsigned long CM_TRACE_LEVEL_DEBUG = 27;

/// A level's name as the configuration spells it; "NA" for a level without a use. Any thread.
constexpr const char* CmTraceLevelName(unsigned long aLevel) {
    switch (aLevel) {
        case CM_TRACE_LEVEL_ERROR:
            return "Error";
        case CM_TRACE_LEVEL_SERVER:
            return "Server";
        case CM_TRACE_LEVEL_WARNING:
            return "Warning";
        case CM_TRACE_LEVEL_MEETING:
            return "Meeting";
        case CM_TRACE_LEVEL_SESSION:
            return "Session";
        case CM_TRACE_LEVEL_USER:
            return "User";
        case CM_TRACE_LEVEL_STATISTIC:
            return "Statistic";
        case CM_TRACE_LEVEL_INFO:
            return "Info";
        case CM_TRACE_LEVEL_STATE:
            return "State";
        case CM_TRACE_LEVEL_PDU:
            return "PDU";
        case CM_TRACE_LEVEL_FUNC:
            return "Func";
        case CM_TRACE_LEVEL_TICK:
            return "Tick";
        case CM_TRACE_LEVEL_DETAIL:
            return "Detail";
        case CM_TRACE_LEVEL_WDMS:
            return "WDMS";
        case CM_TRACE_LEVEL_DEBUG:
            return "Debug";
        default:
            return "NA";
    }
}

/// Writes every line of util_adapter_trace, the library's own above all, to the trace file at aPath
/// from now on, in the layout of CmT120TraceFile.h, with the level's name as its tag and "util" as
/// its module. The file is created if it is missing; each line is written at once, and several
/// processes may share it: one that stops with the file's lock holds up all that trace, with what
/// they hold. aSizeLimit: bytes after which the lines start at its top again, 0 for none; like that
/// of every trace file, it gives way to the configuration's when the trace facility reads that.
///
/// To be called before threads that trace are started: it installs a sink (CmTrace.h), which
/// filters nothing. A second call changes the file, and null gives the lines back to the trace
/// facility; a file once opened stays open. CM_OK; CM_ERROR_FAILURE: the file cannot be opened;
/// CM_ERROR_OUT_OF_MEMORY; the lines go where they went before then.
CM_UTIL_EXPORT CmResult CmTraceToFile(const char* aPath, unsigned long aSizeLimit = 0);

}  // namespace UTIL_NS

#endif  // CM_TRACE_LEVELS_H
