#include "Output.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace rtp_monitor {

bool COutput::Write(std::string_view aText) {
    while (!aText.empty() && m_nError == 0) {
        const ssize_t nWritten = write(m_nFile, aText.data(), aText.size());
        if (nWritten >= 0) {
            aText.remove_prefix(static_cast<size_t>(nWritten));
        } else if (errno == EAGAIN) {
            // Another process that shares the pipe made it so.
            pollfd file = {m_nFile, POLLOUT, 0};
            if (poll(&file, 1, -1) < 0 && errno != EINTR) {
                m_nError = errno;
            }
        } else if (errno != EINTR) {
            m_nError = errno;
        }
    }
    return m_nError == 0;
}

std::string COutput::error() const {
    return std::strerror(m_nError);
}

void PrepareOutput() {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);  // fails for numbers of no signal alone
    for (int nFile = STDIN_FILENO; nFile <= STDERR_FILENO; ++nFile) {
        if (fcntl(nFile, F_GETFD) < 0 && errno == EBADF) {
            // Cannot be written to, so that results that go there are known to be lost. The lowest
            // free number is this one.
            if (open("/dev/null", O_RDONLY) < 0) {
                return;
            }
        }
    }
}

}  // namespace rtp_monitor
