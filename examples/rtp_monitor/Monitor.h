// One run, from the first packet to the last: the source, the receiving thread and the workers. It
// shows nothing.
#ifndef RTP_MONITOR_MONITOR_H
#define RTP_MONITOR_MONITOR_H

#include <cstdint>
#include <string>
#include <vector>

#include "CmWorker.h"
#include "Options.h"
#include "Receiver.h"
#include "ReportData.h"
#include "Series.h"
#include "StopSignal.h"

namespace rtp_monitor {

class CMonitor {
  public:
    // aStop ends the run; it must outlive the monitor, as aOptions.
    CMonitor(const COptions& aOptions, CStopSignal& aStop);

    // False, with a sentence without its final stop in aError.
    bool Start(std::string* aError);
    // Waits until the input is over, or the run was stopped, and every packet is counted. False
    // when reading failed: the reason is in aError, a clause.
    bool Wait(std::string* aError);
    // What is known now. With aClose, the interval ends over which bit rates are taken. One thread
    // at a time.
    bool Collect(CReport* aReport, bool aClose);
    // How the first streams of aReport went, MAX_PLOTTED at most. Only with COptions::plotFile.
    bool CollectCurves(const CReport& aReport, std::vector<CCurve>* aCurves);

  private:
    void Complete(CReport* aReport) const;

    const COptions& m_options;
    CStopSignal& m_stop;
    StreamWorkers m_workers;
    UTIL_NS::CCmThreadPtr m_pThread;   // the receiver; ends before the workers
    CReceiver* m_pReceiver = nullptr;  // the same
    int64_t m_llStartUsec = 0;
    bool m_bIntervalClosed = false;  // a first one
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_MONITOR_H
