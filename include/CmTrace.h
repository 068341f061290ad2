/// Trace routing and assertions: every line that the library writes leaves through here.
///
/// A line has the form "UTIL " + level word ("ERROR: ", "WARNING: ", "INFO: ") + text, and at
/// most 1952 characters. It goes to the sink that the host installed or, without one, to the
/// trace facility (CmT120Trace.h), which filters it and hands it to the trace library.
/// \file
#ifndef CM_TRACE_H
#define CM_TRACE_H

#include "CmAtomic.h"
#include "CmBase.h"

namespace UTIL_NS {

/// The level of lines that begin "UTIL ERROR: "; lower levels are more severe.
constexpr unsigned long CM_TRACE_LEVEL_ERROR = 0;
/// The level of lines that begin "UTIL WARNING: ".
constexpr unsigned long CM_TRACE_LEVEL_WARNING = 10;
/// The level of lines that begin "UTIL INFO: ".
constexpr unsigned long CM_TRACE_LEVEL_INFO = 20;

/// Receives one line: its level, its text (NUL-terminated, valid during the call only) and its
/// length. Called on whichever thread traces, so it must be thread-safe; it may be called with
/// locks of the library held, so it must not call back into it and should not wait. It must not
/// throw. The thread is not cancelled in it, and errno is afterwards as it was. docs/tracing.md has
/// one that takes the lines to a file.
typedef void (*UtilTraceSink)(unsigned long aLevel, const char* aText, unsigned int aLength);

/// The installed sink; null until the host installs one, and again once it has installed null.
extern CM_UTIL_EXPORT CmStd::atomic<UtilTraceSink> g_util_trace_sink;

/// Does nothing. Any thread.
CM_UTIL_EXPORT void Assert_Log(char* aFile, char* aExpression, int aLine);

/// Writes the error line of a failed assertion: file, line and the expression as it was written.
/// The macros below call it; it never stops the program. Any thread.
CM_UTIL_EXPORT void CmAssertFailed(const char* aFile, int aLine, const char* aExpression);

}  // namespace UTIL_NS

extern "C" {

/// Installs the sink that receives every line from now on; null routes lines to the trace
/// facility again. To be called before threads that trace are started.
CM_UTIL_EXPORT void set_util_external_trace_sink(UTIL_NS::UtilTraceSink aSink);

/// Writes one line of aLength characters, NUL-terminated. Never fails towards its caller: a line
/// that cannot be written is lost. Any thread.
CM_UTIL_EXPORT void util_adapter_trace(unsigned long aLevel, const char* aText,
                                       unsigned int aLength);

/// util_adapter_trace for a module of that name, which a sink is not told.
CM_UTIL_EXPORT void util_adapter_trace_ex(unsigned long aLevel, const char* aModule,
                                          const char* aText, unsigned int aLength);

}  // extern "C"

/// An assertion, always compiled in: a false expression writes one error line, and the program goes
/// on.
#define CM_ASSERTE(aExpression) CM_ASSERTE_(aExpression, #aExpression, __FILE__, __LINE__)
/// CM_ASSERTE that prints line number aLine, whatever line it stands in.
#define CM_ASSERTE_LINE(aExpression, aLine) CM_ASSERTE_(aExpression, #aExpression, __FILE__, aLine)
/// CM_ASSERTE that, after the line, returns aResult from the function.
#define CM_ASSERTE_RETURN(aExpression, aResult) \
    CM_ASSERTE_RETURN_(aExpression, #aExpression, aResult, __FILE__, __LINE__)
/// CM_ASSERTE_RETURN that prints line number aLine.
#define CM_ASSERTE_RETURN_LINE(aExpression, aResult, aLine) \
    CM_ASSERTE_RETURN_(aExpression, #aExpression, aResult, __FILE__, aLine)
/// CM_ASSERTE_RETURN that prints file aFile and line number aLine: for code in public headers.
#define CM_ASSERTE_RETURN_AT(aExpression, aResult, aFile, aLine) \
    CM_ASSERTE_RETURN_(aExpression, #aExpression, aResult, aFile, aLine)

/// The first two of the macros above: aText is printed for the expression.
#define CM_ASSERTE_(aExpression, aText, aFile, aLine)           \
    do {                                                        \
        if (CM_UNLIKELY(!(aExpression))) {                      \
            ::UTIL_NS::CmAssertFailed((aFile), (aLine), aText); \
        }                                                       \
    } while (0)

/// The others: aText is printed for the expression.
#define CM_ASSERTE_RETURN_(aExpression, aText, aResult, aFile, aLine) \
    do {                                                              \
        if (CM_UNLIKELY(!(aExpression))) {                            \
            ::UTIL_NS::CmAssertFailed((aFile), (aLine), aText);       \
            return aResult;                                           \
        }                                                             \
    } while (0)

#endif  // CM_TRACE_H
