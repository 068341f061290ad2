// Where the flight recorder takes trace lines; internal.
#ifndef CM_TRACE_TAP_H
#define CM_TRACE_TAP_H

#include <cstddef>

#include "CmAtomic.h"
#include "CmBase.h"

namespace UTIL_NS {

// Gets every line, those of levels that are off, too: aIsFiltered tells that the line goes nowhere
// else. On the thread that traces; it may trace, but not for ever.
typedef void (*CmTraceTap)(unsigned long aLevel, bool aIsFiltered, const char* aText,
                           size_t aLength);

// Null: nobody takes lines. Relaxed: what it uses is there for good before it is set.
CM_CONSTANT_INIT inline CmStd::atomic<CmTraceTap> g_cmTraceTap{nullptr};

inline CmTraceTap CmInstalledTraceTap() {
    return g_cmTraceTap.load(std::memory_order_relaxed);
}

}  // namespace UTIL_NS

#endif  // CM_TRACE_TAP_H
