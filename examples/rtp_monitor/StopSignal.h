// The wish that a run may end: given by a signal handler or a thread, and waited for with poll.
#ifndef RTP_MONITOR_STOP_SIGNAL_H
#define RTP_MONITOR_STOP_SIGNAL_H

#include <atomic>

namespace rtp_monitor {

class CStopSignal {
  public:
    CStopSignal();
    ~CStopSignal();
    CStopSignal(const CStopSignal&) = delete;
    CStopSignal& operator=(const CStopSignal&) = delete;

    // False: there was no pipe to be had, and nothing can be waited for.
    bool IsOpen() const { return m_pipe[0] >= 0; }
    // Any thread, and signal handlers. There is no way back.
    void Raise();
    bool IsRaised() const { return m_bRaised.load(std::memory_order_relaxed); }
    // Readable from Raise on.
    int descriptor() const { return m_pipe[0]; }

  private:
    static_assert(std::atomic<bool>::is_always_lock_free, "used by signal handlers");

    int m_pipe[2] = {-1, -1};
    std::atomic<bool> m_bRaised{false};
};

// Makes SIGINT, SIGTERM and, unless it was ignored at the start, SIGHUP raise aSignal, which must
// outlive the process's signals. False when the system refuses.
bool RaiseOnInterrupts(CStopSignal* aSignal);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_STOP_SIGNAL_H
