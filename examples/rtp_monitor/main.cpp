// rtp_monitor: a monitor for RTP streams, built on the library's front door.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CmConfigReader.h"
#include "CmResultText.h"
#include "CmT120Trace.h"
#include "CmTimer.h"
#include "CmTrace.h"
#include "CmWorker.h"
#include "Monitor.h"
#include "Options.h"
#include "Report.h"
#include "StopSignal.h"

namespace rtp_monitor {
namespace {

constexpr int EXIT_TROUBLE = 2;
constexpr unsigned short OTHER_ROWS = 7;  // of a screen: titles, totals, closing lines
constexpr char CLEAR_SCREEN[] = "\033[H\033[2J";

int Complain(const std::string& aSentence) {
    std::fprintf(stderr, "rtp_monitor: %s.\n", aSentence.c_str());
    return EXIT_TROUBLE;
}

// Shows a run: tables or progress while it goes on, the figures at its end. Show runs on a thread
// of its own, so that nothing that is slow to be written holds up the packets.
class CPresenter {
  public:
    CPresenter(const COptions& aOptions, CMonitor& aMonitor)
        : m_options(aOptions), m_monitor(aMonitor) {}

    int Run();

  private:
    void ShowNow();
    int ShowEnd(const std::string& aError);
    void ShowBuffers(const CReport& aReport) const;
    size_t MaxStreamsShown() const;
    std::string ProgressLine(const CReport& aReport) const;
    void Trace(unsigned long aLevel, const std::string& aText) const;

    const COptions& m_options;
    CMonitor& m_monitor;
    const bool m_bTerminal = isatty(STDOUT_FILENO) != 0;
};

// A line of the host's own, through the library to the trace library.
void CPresenter::Trace(unsigned long aLevel, const std::string& aText) const {
    if (aLevel > m_options.traceLevel) {
        return;
    }
    char szLine[2048];
    UTIL_NS::CCmT120Trace::Text_Formator formator(szLine, sizeof(szLine));
    formator << "rtp_monitor: " << aText;
    util_adapter_trace(aLevel, szLine, static_cast<unsigned int>(formator.tell()));
}

int CPresenter::Run() {
    std::string sError;
    if (!m_monitor.Start(&sError)) {
        return Complain(sError);
    }
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "reading from " + m_options.InputNames());
    CReport report;
    if (m_monitor.Collect(&report, false)) {
        ShowBuffers(report);
    }
    UTIL_NS::CCmWorker screen(UTIL_NS::CCmWorkerOptions().Name("screen"));
    UTIL_NS::CCmTimer timer(screen, std::chrono::milliseconds(m_options.intervalMs),
                            [this] { ShowNow(); });
    if (CM_FAILED(timer.Result())) {
        Complain(std::string("cannot show tables: ") + UTIL_NS::CmResultText(timer.Result()));
    }
    m_monitor.Wait(&sError);
    timer.Cancel();  // waits for a table that is being shown; that there was no timer is no matter
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "the receiver has ended");
    return ShowEnd(sError);
}

void CPresenter::ShowBuffers(const CReport& aReport) const {
    for (const CInputReport& input : aReport.inputs) {
        if (input.isGroup) {
            std::fprintf(stderr, "rtp_monitor: joined the multicast group of %s.\n",
                         input.name.c_str());
        }
        if (input.isSocket && input.bufferGranted < input.bufferAsked) {
            std::fprintf(stderr,
                         "rtp_monitor: the system grants %s a buffer of %llu bytes, not %llu; "
                         "packets that do not fit are dropped here.\n",
                         input.name.c_str(), static_cast<unsigned long long>(input.bufferGranted),
                         static_cast<unsigned long long>(input.bufferAsked));
        }
    }
}

// On a terminal one screen with the progress at its end; elsewhere table after table.
void CPresenter::ShowNow() {
    CReport report;
    if (!m_monitor.Collect(&report, true)) {
        return;
    }
    // The one JSON document is for a program: whoever watches it sees standard error.
    if (m_options.json) {
        std::fputs(ProgressLine(report).c_str(), stderr);
        return;
    }
    std::sort(report.streams.begin(), report.streams.end(),
              [](const CStreamReport& aLeft, const CStreamReport& aRight) {
                  return aLeft.key < aRight.key;
              });
    std::printf("%s%s%s", m_bTerminal ? CLEAR_SCREEN : "",
                FormatTable(report, MaxStreamsShown()).c_str(), ProgressLine(report).c_str());
    std::fflush(stdout);
}

// As many rows as the terminal has, but for the lines around them.
size_t CPresenter::MaxStreamsShown() const {
    winsize size = {};
    if (!m_bTerminal || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) {
        return SIZE_MAX;
    }
    return size.ws_row > OTHER_ROWS ? size.ws_row - OTHER_ROWS : 1;
}

std::string CPresenter::ProgressLine(const CReport& aReport) const {
    return aReport.percent < 0
               ? std::string()
               : std::to_string(aReport.percent) + "% of " + m_options.InputNames() + " read\n";
}

int CPresenter::ShowEnd(const std::string& aError) {
    CReport report;
    if (!m_monitor.Collect(&report, false)) {
        return Complain("the workers do not answer");
    }
    std::sort(report.streams.begin(), report.streams.end(),
              [](const CStreamReport& aLeft, const CStreamReport& aRight) {
                  return aLeft.key < aRight.key;
              });
    report.isFinal = true;
    report.isComplete = report.isComplete && aError.empty();
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "handled " + std::to_string(report.Handled()) + " packets");
    if (!aError.empty() && report.Handled() == 0) {
        return Complain("cannot read from " + m_options.InputNames() + ": " + aError);
    }
    if (m_options.json) {
        std::printf("%s", FormatJson(report).c_str());
    } else {
        std::printf("%s%s%llu packets in %.2f s, %.0f packets per second\nTrace lines are in %s\n",
                    m_bTerminal ? CLEAR_SCREEN : "", FormatTable(report).c_str(),
                    static_cast<unsigned long long>(report.Handled()), report.seconds,
                    report.seconds > 0 ? static_cast<double>(report.Handled()) / report.seconds : 0,
                    m_options.traceFile.c_str());
    }
    std::fflush(stdout);
    if (!aError.empty()) {
        Trace(UTIL_NS::CM_TRACE_LEVEL_ERROR, "reading failed: " + aError);
        return Complain("stopped reading " + m_options.InputNames() + ": " + aError);
    }
    return EXIT_SUCCESS;
}

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

int Main(int aArgCount, char** aArgs) {
    UTIL_NS::CCmConfigReader config;
    COptions options;
    std::string sError;
    if (!ReadOptions(aArgCount, aArgs, &config, &options, &sError)) {
        return Complain(sError);
    }
    if (options.help) {
        std::printf("%s", HELP_TEXT);
        return EXIT_SUCCESS;
    }
    if (!CheckConfiguration(config)) {
        return EXIT_TROUBLE;
    }
    // Before the first trace line, which makes the trace library look at it.
    setenv("QTRACE_FILE", options.traceFile.c_str(), 1);
    config.UseForTrace();
    static CStopSignal s_stop;  // for signals that come when all else has ended
    if (!s_stop.IsOpen() || !RaiseOnInterrupts(&s_stop)) {
        return Complain("cannot be interrupted");
    }
    CMonitor monitor(options, s_stop);
    return CPresenter(options, monitor).Run();
}

}  // namespace
}  // namespace rtp_monitor

int main(int aArgCount, char** aArgs) {
    const int nExitCode = rtp_monitor::Main(aArgCount, aArgs);
#if defined(RTP_MONITOR_ENDS_AT_ONCE)
    // The library waits 0.2 s for trace lines of other threads when a process ends. None of ours is
    // left, and a capture may have taken less.
    const bool bWritten = std::fflush(nullptr) == 0;
    std::_Exit(nExitCode == EXIT_SUCCESS && !bWritten ? rtp_monitor::EXIT_TROUBLE : nExitCode);
#else
    return nExitCode;
#endif
}
