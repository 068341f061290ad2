#include "Output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace rtp_monitor {

namespace {

// For a reader that is slow when the run ends; little enough that the run ends in time with two.
constexpr int LAST_WAIT_MS = 150;

int s_nEnd = -1;

int Poll(pollfd* aFiles, nfds_t aCount, int aTimeoutMs) {
    int nReady = 0;
    do {
        nReady = poll(aFiles, aCount, aTimeoutMs);
    } while (nReady < 0 && errno == EINTR);
    return nReady;
}

bool FileOf(const std::string& aPath, struct stat* aFile) {
    return (aPath == "-" ? fstat(STDIN_FILENO, aFile) : stat(aPath.c_str(), aFile)) == 0;
}

}  // namespace

// What poll cannot tell about a descriptor is left to write.
bool COutput::WaitForRoom() {
    pollfd files[] = {{m_nFile, POLLOUT, 0}, {s_nEnd, POLLIN, 0}};
    if (Poll(files, 2, -1) > 0 && files[0].revents == 0 && Poll(files, 1, LAST_WAIT_MS) == 0) {
        m_nError = ETIMEDOUT;
    }
    return m_nError == 0;
}

// A pipe with room takes PIPE_BUF bytes without a wait.
bool COutput::Write(std::string_view aText) {
    while (!aText.empty() && m_nError == 0 && WaitForRoom()) {
        const ssize_t nWritten =
            write(m_nFile, aText.data(), std::min<size_t>(aText.size(), PIPE_BUF));
        if (nWritten >= 0) {
            aText.remove_prefix(static_cast<size_t>(nWritten));
        } else if (errno != EINTR && errno != EAGAIN) {
            m_nError = errno;
        }
    }
    return m_nError == 0;
}

std::string COutput::error() const {
    return m_nError == ETIMEDOUT ? "it is full and nobody reads it" : std::strerror(m_nError);
}

void COutput::CheckReader() {
    pollfd file = {m_nFile, 0, 0};
    if (m_nError == 0 && Poll(&file, 1, 0) > 0 && (file.revents & (POLLERR | POLLHUP)) != 0) {
        m_nError = EPIPE;
    }
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

void EndWaitsForReaders(int aDescriptor) {
    s_nEnd = aDescriptor;
}

bool IsSameFile(const std::string& aLeft, const std::string& aRight) {
    struct stat left = {};
    struct stat right = {};
    return FileOf(aLeft, &left) && FileOf(aRight, &right) && left.st_dev == right.st_dev &&
           left.st_ino == right.st_ino;
}

}  // namespace rtp_monitor
