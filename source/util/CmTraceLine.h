// How the library composes one trace line on the stack; internal.
#ifndef CM_TRACE_LINE_H
#define CM_TRACE_LINE_H

#include "CmT120Trace.h"
#include "CmTrace.h"

namespace UTIL_NS {

constexpr unsigned long CM_TRACE_LINE_SIZE = 2048;  // bytes

// False when a line of this level would reach nobody, so that it need not be composed.
bool CmTraceIsWanted(unsigned long aLevel);

// For " this=" fields: the formatter prints a void*.
inline void* CmTraceAddress(const void* aObject) {
    return const_cast<void*>(aObject);
}

}  // namespace UTIL_NS

// aFields: what to stream after the level word, e.g. "Class::Method, text=" << n.
#define CM_TRACE_LINE_(aLevel, aWord, aFields)                                              \
    do {                                                                                    \
        if (::UTIL_NS::CmTraceIsWanted(aLevel)) {                                           \
            char szLine[::UTIL_NS::CM_TRACE_LINE_SIZE];                                     \
            ::UTIL_NS::CCmT120Trace::Text_Formator formator(szLine, sizeof(szLine));        \
            formator << "UTIL " aWord << aFields;                                           \
            util_adapter_trace(aLevel, szLine, static_cast<unsigned int>(formator.tell())); \
        }                                                                                   \
    } while (0)

#define CM_ERROR_TRACE(aFields) CM_TRACE_LINE_(::UTIL_NS::CM_TRACE_LEVEL_ERROR, "ERROR: ", aFields)
#define CM_WARNING_TRACE(aFields) \
    CM_TRACE_LINE_(::UTIL_NS::CM_TRACE_LEVEL_WARNING, "WARNING: ", aFields)
#define CM_INFO_TRACE(aFields) CM_TRACE_LINE_(::UTIL_NS::CM_TRACE_LEVEL_INFO, "INFO: ", aFields)

// The same with " this=" and the address of this after the fields.
#define CM_ERROR_TRACE_THIS(aFields) \
    CM_ERROR_TRACE(aFields << " this=" << ::UTIL_NS::CmTraceAddress(this))
#define CM_WARNING_TRACE_THIS(aFields) \
    CM_WARNING_TRACE(aFields << " this=" << ::UTIL_NS::CmTraceAddress(this))
#define CM_INFO_TRACE_THIS(aFields) \
    CM_INFO_TRACE(aFields << " this=" << ::UTIL_NS::CmTraceAddress(this))

#endif  // CM_TRACE_LINE_H
