// Tracing and configuration: read a setting of the host's own, write lines through the library,
// then watch them with a sink.
//
// Settings come from conf/kelto.cfg below the home directory (/tmp/ by default).

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace UTIL_NS;

namespace {

int g_nLines = 0;

// Gets every line of the process from the moment it is installed; may be called on any thread.
void PrintLine(unsigned long aLevel, const char* aText, unsigned int /*aLength*/) {
    ++g_nLines;
    std::printf("level %lu: %s\n", aLevel, aText);
}

void Write(unsigned long aLevel, const char* aText, int aNumber) {
    char achLine[2048];  // on the stack: composing a line never allocates
    CCmT120Trace::Text_Formator formator(achLine, sizeof(achLine));
    formator << "example: " << aText << aNumber;
    util_adapter_trace(aLevel, formator, static_cast<unsigned int>(formator.tell()));
}

}  // namespace

int main() {
    CCmConfigReader config;
    config.ReadMain();  // a file that is missing is an empty one
    int nRetries = 3;
    config.GetNumber("Example", "Retries", nRetries, 0, 10);
    for (const CCmString& strProblem : config.problems()) {
        std::fprintf(stderr, "%s\n", strProblem.c_str());
    }
    config.UseForTrace();  // so that the facility need not read the file again

    // Without a sink the facility filters a line by level and hands it to the trace library.
    Write(CM_TRACE_LEVEL_INFO, "retries=", nRetries);

    // With a sink, every line goes there.
    set_util_external_trace_sink(PrintLine);
    Write(CM_TRACE_LEVEL_WARNING, "retries=", nRetries);
    set_util_external_trace_sink(nullptr);
    return g_nLines == 1 ? EXIT_SUCCESS : EXIT_FAILURE;
}
