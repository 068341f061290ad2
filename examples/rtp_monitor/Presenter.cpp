#include "Presenter.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CmResultText.h"
#include "CmT120Trace.h"
#include "CmTimer.h"
#include "CmTrace.h"
#include "CmWatch.h"
#include "CmWorker.h"
#include "Json.h"
#include "Plot.h"
#include "StreamOrder.h"
#include "Table.h"
#include "Text.h"

namespace rtp_monitor {

namespace {

constexpr unsigned int PROGRESS_MS = 500;  // at most, between two signs of progress
constexpr char ERASE_LINE[] = "\r\033[K";
constexpr mode_t FILE_MODE = 0666;

}  // namespace

int Complain(const std::string& aClause) {
    COutput(STDERR_FILENO).Write("rtp_monitor: " + Printable(aClause) + ".\n");
    return EXIT_TROUBLE;
}

std::string RecordingPath() {
    char szPath[PATH_MAX];
    return CM_SUCCEEDED(UTIL_NS::CCmWatch::GetRecording(szPath, sizeof(szPath))) ? szPath : "";
}

CPresenter::CPresenter(const COptions& aOptions, CMonitor& aMonitor, CStopSignal& aStop,
                       COutput& aOutput, const CTraceFile& aTraceFile)
    : m_options(aOptions),
      m_monitor(aMonitor),
      m_stop(aStop),
      m_output(aOutput),
      m_traceFile(aTraceFile),
      m_messages(STDERR_FILENO),
      m_terminal(m_output),
      m_messageTerminal(m_messages),
      m_dwTicks((aOptions.intervalMs + PROGRESS_MS - 1) / PROGRESS_MS) {}

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
    const bool bPlot = CheckPlotFile();
    if (!bPlot) {
        m_stop.Raise();  // weeks from now it would be too late
    }
    UTIL_NS::CCmWorker tables(UTIL_NS::CCmWorkerOptions().Name("tables"));
    UTIL_NS::CCmTimer timer(tables,
                            std::chrono::microseconds(m_options.intervalMs * 1000ULL / m_dwTicks),
                            [this] { OnTick(); });
    if (CM_FAILED(timer.Result())) {
        Complain(std::string("cannot show tables: ") + UTIL_NS::CmResultText(timer.Result()));
    }
    m_monitor.Wait(&sError);
    timer.Cancel();  // waits for a table that is being shown; that there was no timer is no matter
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "the receiver has ended");
    return bPlot ? ShowEnd(sError) : EXIT_TROUBLE;
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
                         input.name.c_str(), Number(input.bufferGranted),
                         Number(input.bufferAsked));
        }
    }
}

// An interval has one tick or several, the last of which ends it. A terminal shows each; a file and
// a program get one table or object for each interval.
void CPresenter::OnTick() {
    m_dwTick = (m_dwTick + 1) % m_dwTicks;
    const bool bClose = m_dwTick == 0;
    CReport report;
    if (!m_monitor.Collect(&report, bClose)) {
        return;
    }
    if (m_options.json) {
        if (bClose && m_options.intervalGiven && report.percent < 0) {
            SortStreams(ESort::ADDRESS, &report.streams);
            m_output.Write(FormatJson(report));
        }
    } else if (m_terminal.IsScreen() || bClose) {
        ShowTable(report);
    }
    if (m_options.json || !m_terminal.IsScreen()) {
        ShowProgress(ProgressLine(report));
    }
    m_output.CheckReader();
    if (m_output.HasFailed()) {
        m_stop.Raise();
    }
}

void CPresenter::ShowTable(const CReport& aReport) {
    CReport report = aReport;
    SortStreams(m_options.sort, &report.streams);
    const std::string sProgress = ProgressLine(report);
    CTableStyle style;
    if (m_terminal.IsTerminal()) {
        style.columns = m_terminal.Columns();
    }
    if (!m_terminal.IsScreen()) {
        m_output.Write(FormatTable(report, style) + sProgress.substr(0, style.columns) +
                       (sProgress.empty() ? "" : "\n"));
        return;
    }
    const size_t nRows = m_terminal.Rows();
    style.colour = m_terminal.HasColour();
    style.rows = nRows - (sProgress.empty() || nRows < 2 ? 0 : 1);
    m_terminal.Show(FormatTable(report, style) + sProgress.substr(0, style.columns));
}

// Where no screen has it: in one line of the terminal that messages go to, else line by line, but
// for files with tables, which have it below each. A run that keeps no pace is over too soon for
// anybody who reads lines.
void CPresenter::ShowProgress(const std::string& aLine) {
    if (aLine.empty()) {
        return;
    }
    if (m_messageTerminal.IsScreen()) {
        m_bProgressLine = true;
        m_messages.Write(ERASE_LINE + aLine.substr(0, m_messageTerminal.Columns() - 1));
    } else if (!m_options.fast && (m_options.json || m_messageTerminal.IsTerminal())) {
        m_messages.Write((m_messageTerminal.IsTerminal()
                              ? aLine.substr(0, m_messageTerminal.Columns())
                              : aLine) +
                         "\n");
    }
}

std::string CPresenter::ProgressLine(const CReport& aReport) const {
    return aReport.percent < 0 ? std::string()
                               : Format("%.1f s: %d%% of ", aReport.seconds, aReport.percent) +
                                     m_options.InputNames() + " read";
}

std::string CPresenter::PartialLine(const CReport& aReport) const {
    if (aReport.isComplete) {
        return std::string();
    }
    return "Partial: the run ended after " +
           (aReport.percent < 0 ? std::string("what came until then")
                                : std::to_string(aReport.percent) + "%") +
           " of " + m_options.InputNames() + "\n";
}

int CPresenter::ShowEnd(const std::string& aError) {
    m_terminal.Leave();
    if (m_bProgressLine) {
        m_messages.Write(ERASE_LINE);
    }
    CReport report;
    if (!m_monitor.Collect(&report, false)) {
        return Complain("the workers do not answer");
    }
    report.isFinal = true;
    report.isComplete = report.isComplete && aError.empty();
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "handled " + std::to_string(report.Handled()) + " packets");
    if (!aError.empty() && report.Handled() == 0) {
        return Complain("cannot read from " + m_options.InputNames() + ": " + aError);
    }
    SortStreams(m_options.sort, &report.streams);
    int nExit = EXIT_SUCCESS;
    if (!m_options.plotFile.empty() && !WritePlot(report)) {
        nExit = EXIT_TROUBLE;
    }
    if (m_options.json) {
        SortStreams(ESort::ADDRESS, &report.streams);
        m_output.Write(FormatJson(report));
    } else {
        CTableStyle style;
        style.columns = m_terminal.IsTerminal() ? m_terminal.Columns() : style.columns;
        style.colour = m_terminal.HasColour();
        const std::string sRecording = RecordingPath();
        const std::string sClosing =
            PartialLine(report) +
            Format(
                "%llu packets in %.2f s, %.0f packets per second\n", Number(report.Handled()),
                report.seconds,
                report.seconds > 0 ? static_cast<double>(report.Handled()) / report.seconds : 0) +
            (m_options.plotFile.empty() || nExit != EXIT_SUCCESS
                 ? std::string()
                 : "The picture is in " + Printable(m_options.plotFile) + "\n") +
            (sRecording.empty() ? "" : "The recording is in " + Printable(sRecording) + "\n") +
            m_traceFile.ClosingLine();
        m_output.Write(FormatTable(report, style) + FoldLines(sClosing, style.columns));
    }
    if (m_output.HasFailed()) {
        nExit = Complain("cannot write to standard output: " + m_output.error());
    }
    if (!aError.empty()) {
        Trace(UTIL_NS::CM_TRACE_LEVEL_ERROR, "reading failed: " + aError);
        nExit = Complain("stopped reading " + m_options.InputNames() + ": " + aError);
    }
    return nExit;
}

// Without touching what is in it.
bool CPresenter::CheckPlotFile() const {
    if (m_options.plotFile.empty()) {
        return true;
    }
    if (IsSameFile(m_options.plotFile, m_options.inputs.front())) {
        Complain("cannot write a picture to " + m_options.plotFile + ": it is the capture");
        return false;
    }
    const int nFile = open(m_options.plotFile.c_str(),
                           O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, FILE_MODE);
    if (nFile < 0) {
        Complain("cannot write a picture to " + m_options.plotFile + ": " + std::strerror(errno));
        return false;
    }
    close(nFile);
    return true;
}

bool CPresenter::WritePlot(const CReport& aReport) const {
    std::vector<CCurve> curves;
    const int nFile = open(m_options.plotFile.c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, FILE_MODE);
    std::string sError = nFile < 0 ? std::strerror(errno) : "";
    if (nFile >= 0) {
        COutput file(nFile);
        if (!m_monitor.CollectCurves(aReport, &curves)) {
            sError = "the workers do not answer";
        } else if (!file.Write(FormatPlot(aReport, curves, m_options.InputNames()))) {
            sError = file.error();
        }
        if (close(nFile) != 0 && sError.empty()) {
            sError = std::strerror(errno);
        }
    }
    if (!sError.empty()) {
        Complain("cannot write a picture to " + m_options.plotFile + ": " + sError);
    }
    return sError.empty();
}

}  // namespace rtp_monitor
