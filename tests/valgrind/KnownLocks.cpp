// Helgrind learns of a recursive mutex that is initialised statically when it is locked, and would
// report the destruction of one that never was. Part of every test program in a build for it.
#include "CmT120TraceFile.h"
#include "CmThreadAnnotations.h"
#include "CmUtilMisc.h"

namespace {

[[maybe_unused]] const bool s_bAreKnown = []() CM_NO_THREAD_SAFETY_ANALYSIS {
    UTIL_NS::g_trace_mgr.close(nullptr);  // no file: only takes its lock
    return CM_SUCCEEDED(UTIL_NS::g_SingletonMutex.Lock()) &&
           CM_SUCCEEDED(UTIL_NS::g_SingletonMutex.UnLock());
}();

}  // namespace
