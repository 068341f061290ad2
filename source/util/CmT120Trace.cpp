#include "CmT120Trace.h"

namespace UTIL_NS {

void refresh_trace_config() {}

}  // namespace UTIL_NS
