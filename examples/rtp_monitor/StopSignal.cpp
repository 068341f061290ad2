#include "StopSignal.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace rtp_monitor {

namespace {

std::atomic<CStopSignal*> s_pInterrupted{nullptr};

void OnInterrupt(int /*aSignal*/) {
    const int nError = errno;
    if (CStopSignal* pSignal = s_pInterrupted.load(std::memory_order_acquire)) {
        pSignal->Raise();
    }
    errno = nError;
}

}  // namespace

CStopSignal::CStopSignal() {
    if (pipe(m_pipe) != 0) {
        m_pipe[0] = m_pipe[1] = -1;
        return;
    }
    for (const int nEnd : m_pipe) {
        if (fcntl(nEnd, F_SETFL, O_NONBLOCK) != 0 || fcntl(nEnd, F_SETFD, FD_CLOEXEC) != 0) {
            close(m_pipe[0]);
            close(m_pipe[1]);
            m_pipe[0] = m_pipe[1] = -1;
            return;
        }
    }
}

CStopSignal::~CStopSignal() {
    if (IsOpen()) {
        close(m_pipe[0]);
        close(m_pipe[1]);
    }
}

// The byte stays in the pipe, which therefore is readable for good; that a second one does not fit
// would be no loss.
void CStopSignal::Raise() {
    if (!m_bRaised.exchange(true, std::memory_order_relaxed) && write(m_pipe[1], "", 1) != 1) {
        m_bRaised.store(false, std::memory_order_relaxed);
    }
}

bool RaiseOnInterrupts(CStopSignal* aSignal) {
    s_pInterrupted.store(aSignal, std::memory_order_release);
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    action.sa_flags = SA_RESTART;  // what has to end waits with poll, which returns all the same
    // A run that was started to outlive its terminal (nohup) does.
    struct sigaction inherited = {};
    const bool bOutlives =
        sigaction(SIGHUP, nullptr, &inherited) == 0 && inherited.sa_handler == SIG_IGN;
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0 &&
           (bOutlives || sigaction(SIGHUP, &action, nullptr) == 0);
}

}  // namespace rtp_monitor
