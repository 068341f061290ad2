// rtp_monitor: a monitor for RTP streams, built on the library's front door.

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "CmConfigReader.h"
#include "CmResultText.h"
#include "CmVersion.h"
#include "CmWatch.h"
#include "Monitor.h"
#include "Options.h"
#include "Output.h"
#include "Presenter.h"
#include "StopSignal.h"
#include "TraceFile.h"

namespace rtp_monitor {
namespace {

// What is wrong with the configuration; false when that ends the run.
bool CheckConfiguration(const UTIL_NS::CCmConfigReader& aConfig) {
    std::vector<UTIL_NS::CCmString> unasked;
    if (CM_FAILED(aConfig.ListUnasked(CONFIG_SECTION, unasked))) {
        Complain("the settings that mean nothing could not be listed");
    }
    for (const std::string& sSentence : unasked) {
        Complain(sSentence);
    }
    for (const std::string& sSentence : aConfig.problems()) {
        Complain(sSentence);
    }
    return aConfig.problems().empty();
}

int Print(COutput& aOutput, const std::string& aText) {
    return aOutput.Write(aText) ? EXIT_SUCCESS
                                : Complain("cannot write to standard output: " + aOutput.error());
}

// Before the first thread, so that all of them are watched from their beginning. A recording that
// cannot be kept ends nothing: trace lines still tell of what is slow.
bool Watch() {
    const UTIL_NS::CmResult rv = UTIL_NS::CCmWatch::Start();
    if (CM_FAILED(rv) && rv != UTIL_NS::CM_ERROR_ALREADY_INITIALIZED) {  // by the configuration
        Complain(std::string("cannot watch the threads: ") + UTIL_NS::CmResultText(rv));
        return false;
    }
    if (RecordingPath().empty()) {
        Complain("no recording can be kept, the trace lines tell why");
    }
    return true;
}

int Main(int aArgCount, char** aArgs) {
    PrepareOutput();
    COutput output(STDOUT_FILENO);
    UTIL_NS::CCmConfigReader config;
    COptions options;
    std::string sError;
    if (!ReadOptions(aArgCount, aArgs, &config, &options, &sError)) {
        return Complain(sError);
    }
    if (options.help) {
        return Print(output, HELP_TEXT);
    }
    if (options.version) {
        // An example has the version of the library that it comes with.
        return Print(output, std::string("rtp_monitor " CM_UTIL_VERSION_STRING ", kelto_util ") +
                                 CmUtilVersion() + "\n");
    }
    if (!CheckConfiguration(config)) {
        return EXIT_TROUBLE;
    }
    if (!options.traceFile.empty() && IsSameFile(options.traceFile, options.inputs.front())) {
        return Complain("cannot write trace lines to " + options.traceFile + ": it is the capture");
    }
    // Before the first trace line, which makes the trace library look at it.
    CTraceFile traceFile;
    if (!traceFile.Choose(options.traceFile, &sError)) {
        Complain(sError);
        // Who asked for the file must not miss it; for a run without wishes it is no matter.
        if (!options.traceFile.empty()) {
            return EXIT_TROUBLE;
        }
    }
    config.UseForTrace();
    static CStopSignal s_stop;  // for signals that come when all else has ended
    if (!s_stop.IsOpen() || !RaiseOnInterrupts(&s_stop)) {
        return Complain("cannot be interrupted");
    }
    EndWaitsForReaders(s_stop.descriptor());
    if (options.watch && !Watch()) {
        return EXIT_TROUBLE;
    }
    int nExit = EXIT_SUCCESS;
    {
        CMonitor monitor(options, s_stop);
        nExit = CPresenter(options, monitor, s_stop, output, traceFile).Run();
    }
    UTIL_NS::CCmWatch::Stop();  // by which its recording is known to be whole
    return nExit;
}

}  // namespace
}  // namespace rtp_monitor

int main(int aArgCount, char** aArgs) {
    const int nExitCode = rtp_monitor::Main(aArgCount, aArgs);
#if defined(RTP_MONITOR_ENDS_AT_ONCE)
    // The library waits 0.2 s for trace lines of other threads when a process ends. None of ours is
    // left, a capture may have taken less, and no text is buffered.
    std::_Exit(nExitCode);
#else
    return nExitCode;
#endif
}
