// Tracing and configuration: read a setting of the host's own, write lines through the library,
// then watch them with a sink.
//
// Settings come from conf/kelto.cfg below the home directory (/tmp/ by default).

#include <kelto_util.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace UTIL_NS;

namespace {

std::atomic<int> s_nLines{0};

// Gets every line of the process from the moment it is installed; may be called on any thread.
void PrintLine(unsigned long aLevel, const char* aText, unsigned int /*aLength*/) {
    ++s_nLines;
    std::printf("level %lu: %s\n", aLevel, aText);
}

void Write(unsigned long aLevel, const char* aText, int aNumber) {
    char szLine[2048];  // on the stack: composing a line never allocates
    CCmT120Trace::Text_Formator formator(szLine, sizeof(szLine));
    formator << "example: " << aText << aNumber;
    util_adapter_trace(aLevel, formator, static_cast<unsigned int>(formator.tell()));
}

}  // namespace

int main() {
    CCmConfigReader config;
    const CmResult rvRead = config.ReadMain();
    if (CM_FAILED(rvRead) && rvRead != CM_ERROR_NOT_FOUND) {
        std::fprintf(stderr, "the settings are left as they are: %s\n", CmResultText(rvRead));
    }
    int nRetries = 3;
    if (CM_FAILED(config.GetNumber("Example", "Retries", nRetries, 0, 10))) {
        std::printf("taking the default of %d retries\n", nRetries);
    }
    for (const CCmString& strProblem : config.problems()) {
        std::fprintf(stderr, "%s\n", strProblem.c_str());
    }
    // So that the facility need not read the file again; where it was not read, it does.
    if (CM_FAILED(config.UseForTrace())) {
        std::fprintf(stderr, "the trace facility reads its settings itself\n");
    }

    // Without a sink the facility filters a line by level and hands it to the trace library.
    Write(CM_TRACE_LEVEL_INFO, "retries=", nRetries);

    // With a sink, every line goes there.
    set_util_external_trace_sink(PrintLine);
    Write(CM_TRACE_LEVEL_WARNING, "retries=", nRetries);
    set_util_external_trace_sink(nullptr);
    return s_nLines == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
