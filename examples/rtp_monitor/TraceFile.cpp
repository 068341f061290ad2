#include "TraceFile.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace rtp_monitor {

namespace {

constexpr mode_t DIRECTORY_MODE = 0700;  // as the XDG base directories demand
constexpr mode_t FILE_MODE = 0600;
constexpr char NOWHERE[] = "/dev/null";

std::string UserHome() {
    const char* pszHome = std::getenv("HOME");
    if (pszHome != nullptr && pszHome[0] == '/') {
        return pszHome;
    }
    const passwd* pUser = getpwuid(geteuid());  // no other thread runs yet
    return pUser != nullptr && pUser->pw_dir != nullptr ? pUser->pw_dir : "";
}

// Empty when the user has none.
std::string OwnDirectory() {
    const std::string sHome = UserHome();
#ifdef __APPLE__
    return sHome.empty() ? sHome : sHome + "/Library/Logs/rtp_monitor";
#else
    const char* pszState = std::getenv("XDG_STATE_HOME");
    if (pszState != nullptr && pszState[0] == '/') {  // a relative one is to be ignored
        return std::string(pszState) + "/rtp_monitor";
    }
    return sHome.empty() ? sHome : sHome + "/.local/state/rtp_monitor";
#endif
}

// That one of them cannot be made shows when the file is opened.
void MakeDirectories(const std::string& aPath) {
    for (size_t nEnd = aPath.find('/', 1); nEnd != std::string::npos;
         nEnd = aPath.find('/', nEnd + 1)) {
        mkdir(aPath.substr(0, nEnd).c_str(), DIRECTORY_MODE);
    }
    mkdir(aPath.c_str(), DIRECTORY_MODE);
}

}  // namespace

bool CTraceFile::Choose(const std::string& aPath, std::string* aError) {
    m_sPath = aPath;
    if (m_sPath.empty()) {
        const std::string sDirectory = OwnDirectory();
        if (!sDirectory.empty()) {
            MakeDirectories(sDirectory);
            m_sPath = sDirectory + "/rtp_monitor.log";
        }
    }
    // Not blocking: a named pipe that nobody reads is one that cannot be written to.
    const int nFile =
        m_sPath.empty()
            ? -1
            : open(m_sPath.c_str(),
                   O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, FILE_MODE);
    if (nFile < 0) {
        *aError = m_sPath.empty()
                      ? "there is no home directory to write trace lines to"
                      : "cannot write trace lines to " + m_sPath + ": " + std::strerror(errno);
        m_sPath.clear();
        setenv("QTRACE_FILE", NOWHERE, 1);
        return false;
    }
    struct stat file = {};
    m_bRegular = fstat(nFile, &file) == 0 && S_ISREG(file.st_mode);
    m_llSizeBefore = file.st_size;
    close(nFile);
    setenv("QTRACE_FILE", m_sPath.c_str(), 1);
    return true;
}

std::string CTraceFile::ClosingLine() const {
    if (m_sPath.empty()) {
        return std::string();
    }
    if (!m_bRegular) {
        return "Trace lines went to " + m_sPath + "\n";
    }
    struct stat file = {};
    if (stat(m_sPath.c_str(), &file) != 0) {
        return "The trace lines are lost: " + m_sPath + ": " + std::strerror(errno) + "\n";
    }
    return (file.st_size > m_llSizeBefore ? "Trace lines are in " : "No trace lines came to ") +
           m_sPath + "\n";
}

}  // namespace rtp_monitor
