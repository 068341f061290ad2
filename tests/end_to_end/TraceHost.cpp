// A host that links the shared libraries and traces: TraceHost <home directory>.
#include <cstring>

#include "CmConfig.h"
#include "CmLogStream.h"
#include "CmTrace.h"

namespace {

void Trace(unsigned long aLevel, const char* aText) {
    util_adapter_trace(aLevel, aText, static_cast<unsigned int>(std::strlen(aText)));
}

}  // namespace

int main(int aCount, char** aArguments) {
    if (aCount != 2 || std::strlen(aArguments[1]) >= sizeof(UTIL_NS::g_def_kelto_home_dir)) {
        return 2;
    }
    std::strcpy(UTIL_NS::g_def_kelto_home_dir, aArguments[1]);
    Trace(0, "UTIL ERROR: error line");
    Trace(10, "UTIL WARNING: warning line");
    Trace(20, "UTIL INFO: info line, 100%s");
    Trace(25, "UTIL detail line");
    UTIL_NS::CmAssertFailed("TraceHost.cpp", 7, "bFine");
    UTIL_NS::ccu_trace_info("net", "%s", std::string(5000, 'x').c_str());
    UTIL_NS::ccu::logstream<char>(9, "media") << "rate=" << 48000;
    return 0;
}
