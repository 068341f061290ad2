// rtp_monitor: a monitor for RTP streams, built on the library's threads, events, timers, message
// blocks, tracing, configuration and address helpers.

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "CmConfigReader.h"
#include "CmT120Trace.h"
#include "CmTimeValue.h"
#include "CmTrace.h"
#include "CmUtilMisc.h"
#include "Options.h"
#include "PacketSource.h"
#include "Receiver.h"
#include "Report.h"
#include "Worker.h"

namespace rtp_monitor {
namespace {

using UTIL_NS::CCmTimeValue;

constexpr int RECEIVER_THREAD_TYPE = 1;
constexpr unsigned int POLL_MS = 20;
constexpr int EXIT_TROUBLE = 2;
constexpr unsigned short OTHER_ROWS = 7;  // of a screen: titles, totals, closing lines
constexpr char CLEAR_SCREEN[] = "\033[H\033[2J";

volatile sig_atomic_t g_bInterrupted = 0;

void OnInterrupt(int /*aSignal*/) {
    g_bInterrupted = 1;
}

void CatchInterrupts() {
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

double SecondsSince(const CCmTimeValue& aStart) {
    const CCmTimeValue tvPassed = CCmTimeValue::GetTimeOfDay() - aStart;
    return static_cast<double>(tvPassed.GetSec()) + static_cast<double>(tvPassed.GetUsec()) / 1e6;
}

int Complain(const std::string& aSentence) {
    std::fprintf(stderr, "rtp_monitor: %s.\n", aSentence.c_str());
    return EXIT_TROUBLE;
}

// One run from the first packet to the last table.
class Monitor {
  public:
    explicit Monitor(const Options& aOptions) : m_options(aOptions) {}

    int Run();

  private:
    bool StartWorkers();
    void Watch(Receiver* aReceiver);
    void ShowTable(const Receiver& aReceiver);
    size_t MaxStreamsShown() const;
    std::string ProgressLine(const Receiver& aReceiver) const;
    int Finish(const Receiver& aReceiver);
    Totals Collect(const Receiver& aReceiver);
    void Trace(unsigned long aLevel, const std::string& aText) const;

    const Options& m_options;
    const bool m_bTerminal = isatty(STDOUT_FILENO) != 0;
    std::vector<std::unique_ptr<Worker>> m_workers;
    CCmTimeValue m_tvStart;
};

// A line of the host's own, through the library to the trace library.
void Monitor::Trace(unsigned long aLevel, const std::string& aText) const {
    if (aLevel > m_options.traceLevel) {
        return;
    }
    char achLine[2048];
    UTIL_NS::CCmT120Trace::Text_Formator formator(achLine, sizeof(achLine));
    formator << "rtp_monitor: " << aText;
    util_adapter_trace(aLevel, achLine, static_cast<unsigned int>(formator.tell()));
}

bool Monitor::StartWorkers() {
    for (unsigned int i = 0; i < m_options.workers; ++i) {
        m_workers.push_back(std::make_unique<Worker>(m_options.clockRates));
        if (!m_workers.back()->Start(m_options.intervalMs)) {
            return false;
        }
    }
    return true;
}

int Monitor::Run() {
    std::string sError;
    std::unique_ptr<PacketSource> pSource = m_options.IsLive()
                                                ? OpenSocket(m_options.input, &sError)
                                                : OpenCapture(m_options.input, &sError);
    if (pSource == nullptr) {
        return Complain("cannot read from " + m_options.input + ": " + sError);
    }
    if (!StartWorkers()) {
        return Complain("cannot start the worker threads");
    }
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "reading from " + m_options.input);

    m_tvStart = CCmTimeValue::GetTimeOfDay();
    Receiver* pReceiver = new Receiver(std::move(pSource), m_workers, !m_options.fast);
    const UTIL_NS::CmResult rv =
        pReceiver->Create(RECEIVER_THREAD_TYPE, UTIL_NS::TF_JOINABLE, true);
    if (CM_FAILED(rv)) {
        pReceiver->Destory(rv);
        return Complain("cannot start the receiving thread");
    }
    Watch(pReceiver);
    pReceiver->Stop(nullptr);
    pReceiver->Join();
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "the receiver has ended");
    const int nExitCode = Finish(*pReceiver);
    pReceiver->Destory(UTIL_NS::CM_OK);
    return nExitCode;
}

// Until the input is over or the user has had enough.
void Monitor::Watch(Receiver* aReceiver) {
    CCmTimeValue tvTable = m_tvStart;
    while (g_bInterrupted == 0 && !aReceiver->GetStopFlag()) {
        SleepMs(POLL_MS);
        if (SecondsSince(tvTable) * 1000 >= m_options.intervalMs) {
            tvTable = CCmTimeValue::GetTimeOfDay();
            // The one JSON document is for a program: whoever watches it sees standard error.
            if (m_options.json) {
                std::fputs(ProgressLine(*aReceiver).c_str(), stderr);
            } else {
                ShowTable(*aReceiver);
            }
        }
    }
}

// On a terminal one screen with the progress at its end; elsewhere table after table.
void Monitor::ShowTable(const Receiver& aReceiver) {
    const std::string sTable = FormatTable(Collect(aReceiver), MaxStreamsShown());
    std::printf("%s%s%s", m_bTerminal ? CLEAR_SCREEN : "", sTable.c_str(),
                ProgressLine(aReceiver).c_str());
    std::fflush(stdout);
}

// As many rows as the terminal has, but for the lines around them.
size_t Monitor::MaxStreamsShown() const {
    winsize size = {};
    if (!m_bTerminal || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) {
        return SIZE_MAX;
    }
    return size.ws_row > OTHER_ROWS ? size.ws_row - OTHER_ROWS : 1;
}

std::string Monitor::ProgressLine(const Receiver& aReceiver) const {
    return aReceiver.progress() < 0
               ? std::string()
               : std::to_string(aReceiver.progress()) + "% of " + m_options.input + " read\n";
}

// The receiver has ended: every packet it posted is handled before the snapshots are taken.
int Monitor::Finish(const Receiver& aReceiver) {
    Totals totals = Collect(aReceiver);
    for (const std::unique_ptr<Worker>& worker : m_workers) {
        worker->Stop();
    }
    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "the workers have ended");
    totals.complete = aReceiver.error().empty() && (m_options.IsLive() || g_bInterrupted == 0);
    const double dSeconds = SecondsSince(m_tvStart);
    const uint64_t ullHandled = totals.rtp + totals.rtcp + totals.notRtp + totals.skipped;
    totals.packetsPerSecond = dSeconds > 0 ? static_cast<double>(ullHandled) / dSeconds : 0;

    Trace(UTIL_NS::CM_TRACE_LEVEL_INFO, "handled " + std::to_string(ullHandled) + " packets");
    if (m_options.json) {
        std::printf("%s", FormatJson(totals).c_str());
    } else {
        std::printf("%s%s%llu packets in %.2f s, %.0f packets per second\nTrace lines are in %s\n",
                    m_bTerminal ? CLEAR_SCREEN : "", FormatTable(totals).c_str(),
                    static_cast<unsigned long long>(ullHandled), dSeconds, totals.packetsPerSecond,
                    m_options.traceFile.c_str());
    }
    std::fflush(stdout);
    if (!aReceiver.error().empty()) {
        Trace(UTIL_NS::CM_TRACE_LEVEL_ERROR, "reading failed: " + aReceiver.error());
        return Complain("stopped reading " + m_options.input + ": " + aReceiver.error());
    }
    return EXIT_SUCCESS;
}

Totals Monitor::Collect(const Receiver& aReceiver) {
    Totals totals;
    for (const std::unique_ptr<Worker>& worker : m_workers) {
        worker->Take(&totals.snapshot);
    }
    std::sort(totals.snapshot.streams.begin(), totals.snapshot.streams.end(),
              [](const StreamReport& aLeft, const StreamReport& aRight) {
                  return aLeft.key < aRight.key;
              });
    totals.rtp = aReceiver.counters().rtp;
    totals.rtcp = aReceiver.counters().rtcp;
    totals.notRtp = aReceiver.counters().notRtp;
    totals.skipped = aReceiver.counters().skipped;
    totals.hasIntervals = m_options.IsLive() || !m_options.fast;
    return totals;
}

// What is wrong with the configuration; false when that ends the run.
bool CheckConfiguration(const UTIL_NS::CCmConfigReader& aConfig) {
    std::vector<std::string> unasked;
    aConfig.ListUnasked(CONFIG_SECTION, unasked);
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
    Options options;
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
    CatchInterrupts();
    return Monitor(options).Run();
}

}  // namespace
}  // namespace rtp_monitor

int main(int aArgCount, char** aArgs) {
    return rtp_monitor::Main(aArgCount, aArgs);
}
