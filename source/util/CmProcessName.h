// How the library names its process, in trace file names and trace keys; internal.
#ifndef CM_PROCESS_NAME_H
#define CM_PROCESS_NAME_H

namespace UTIL_NS {

// The part of aExecName after its last "/", all of it when there is none; aFallback when
// aExecName is null.
const char* CmProcessNameOf(const char* aExecName, const char* aFallback);

}  // namespace UTIL_NS

#endif  // CM_PROCESS_NAME_H
