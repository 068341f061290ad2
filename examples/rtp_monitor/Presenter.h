// Shows a run: tables or progress while it goes on, the figures at its end.
#ifndef RTP_MONITOR_PRESENTER_H
#define RTP_MONITOR_PRESENTER_H

#include <string>

#include "Monitor.h"
#include "Options.h"
#include "Output.h"
#include "StopSignal.h"
#include "Terminal.h"
#include "TraceFile.h"

namespace rtp_monitor {

constexpr int EXIT_TROUBLE = 2;

// Prints a clause as a sentence of the monitor's to standard error. EXIT_TROUBLE.
int Complain(const std::string& aClause);

// Where the recording of the watch lies; empty: there is none.
std::string RecordingPath();

class CPresenter {
  public:
    // All of it must outlive the presenter; aStop ends the run when nobody can be shown it.
    CPresenter(const COptions& aOptions, CMonitor& aMonitor, CStopSignal& aStop, COutput& aOutput,
               const CTraceFile& aTraceFile);

    // The whole run. The exit code.
    int Run();

  private:
    // On the thread of the timer, so that nothing that is slow to be written holds up the packets.
    void OnTick();
    void ShowTable(const CReport& aReport);
    void ShowProgress(const std::string& aLine);

    int ShowEnd(const std::string& aError);
    bool CheckPlotFile() const;
    bool WritePlot(const CReport& aReport) const;
    void ShowBuffers(const CReport& aReport) const;
    std::string PartialLine(const CReport& aReport) const;
    std::string ProgressLine(const CReport& aReport) const;
    void Trace(unsigned long aLevel, const std::string& aText) const;

    const COptions& m_options;
    CMonitor& m_monitor;
    CStopSignal& m_stop;
    COutput& m_output;
    const CTraceFile& m_traceFile;
    COutput m_messages;
    CTerminal m_terminal;
    const CTerminal m_messageTerminal;
    unsigned int m_dwTicks;        // in an interval
    unsigned int m_dwTick = 0;     // of the interval
    bool m_bProgressLine = false;  // stands on the terminal of the messages
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_PRESENTER_H
