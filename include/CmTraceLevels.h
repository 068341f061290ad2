/// The trace levels by name, and the library's own lines in a trace file by one call.
/// \file
#ifndef CM_TRACE_LEVELS_H
#define CM_TRACE_LEVELS_H

#include "CmBase.h"
#include "CmT120Trace.h"
#include "CmTrace.h"

namespace UTIL_NS {

/// Level "Server" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_SERVER = 1;
/// Level "Meeting" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_MEETING = 11;
/// Level "Session" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_SESSION = 12;
/// Level "User" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_USER = 13;
/// Level "Statistic" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_STATISTIC = 14;
/// Level "State" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_STATE = 21;
/// Level "PDU" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_PDU = 22;
/// Level "Func" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_FUNC = 23;
/// Level "Tick" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_TICK = 24;
/// Level "Detail" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_DETAIL = 25;
/// Level "WDMS" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_WDMS = 26;
/// Level "Debug" of CM_TRACE_LEVELS (CmT120Trace.h).
constexpr unsigned long CM_TRACE_LEVEL_DEBUG = 27;

/// A level's name as the configuration spells it; "NA" for a level without a use. Any thread.
constexpr const char* CmTraceLevelName(unsigned long aLevel) {
    for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
        if (level.m_ulLevel == aLevel) {
            return level.m_pszName;
        }
    }
    return CM_TRACE_LEVEL_UNUSED;
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
/// facility; a file once opened stays open, by a record that no name of a host's finds. CM_OK;
/// CM_ERROR_FAILURE: the file cannot be opened; CM_ERROR_OUT_OF_MEMORY; the lines go where they
/// went before then.
CM_UTIL_EXPORT CmResult CmTraceToFile(const char* aPath, unsigned long aSizeLimit = 0);

}  // namespace UTIL_NS

#endif  // CM_TRACE_LEVELS_H
