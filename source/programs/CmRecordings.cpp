#include "CmRecordings.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "CmFlightFormat.h"
#include "CmProgramText.h"

namespace UTIL_NS {

namespace {

// A directory that a variable of the environment names; empty where it does not.
std::string DirectoryOf(const char* aVariable) {
    const char* pszDirectory = std::getenv(aVariable);
    return pszDirectory != nullptr && *pszDirectory == '/' ? pszDirectory : "";
}

// Of systems that give each user one, with the "/" that it ends in; else empty.
std::string UsersOwnDirectory() {
#ifdef _CS_DARWIN_USER_TEMP_DIR
    char szPath[1024];
    const size_t nLength = confstr(_CS_DARWIN_USER_TEMP_DIR, szPath, sizeof(szPath));
    return nLength > 0 && nLength <= sizeof(szPath) ? szPath : "";
#else
    return "";
#endif
}

// Takes what follows the last point off aName.
std::string_view TakeLast(std::string_view& aName) {
    const size_t nPoint = aName.rfind('.');
    if (nPoint == std::string_view::npos) {
        return std::string_view();
    }
    const std::string_view last = aName.substr(nPoint + 1);
    aName = aName.substr(0, nPoint);
    return last;
}

// NAME.PID.START.flight
bool ReadName(std::string_view aName, CCmRecording* aFile) {
    const size_t nEnding = std::strlen(CM_FLIGHT_SUFFIX);
    if (aName.size() < nEnding || aName.substr(aName.size() - nEnding) != CM_FLIGHT_SUFFIX) {
        return false;
    }
    aName.remove_suffix(nEnding);
    uint64_t ullStart = 0;
    if (!CmReadNumber(TakeLast(aName), INT64_MAX, &ullStart) ||
        !CmReadNumber(TakeLast(aName), INT32_MAX, &aFile->pid)) {
        return false;
    }
    aFile->startUsec = static_cast<int64_t>(ullStart);
    aFile->process = aName;
    return true;
}

// Whether it is a file of this user's, and in aIsLive whether somebody has it locked.
bool LookAt(const std::string& aPath, bool* aIsLive) {
    const int nFile = open(aPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (nFile < 0) {
        return false;
    }
    struct stat status = {};
    const bool bOwn =
        fstat(nFile, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid();
    *aIsLive = bOwn && flock(nFile, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(nFile);
    return bOwn;
}

}  // namespace

std::string CmRecordingDirectory() {
    const std::string strRuntime = DirectoryOf("XDG_RUNTIME_DIR");
    if (!strRuntime.empty()) {
        return strRuntime + "/kelto";
    }
    const std::string strOwn = UsersOwnDirectory();
    if (!strOwn.empty()) {
        return strOwn + "kelto";
    }
    const std::string strTemporary = DirectoryOf("TMPDIR");
    return (strTemporary.empty() ? "/tmp" : strTemporary) + "/kelto-" + std::to_string(geteuid());
}

bool CmListRecordings(const std::string& aDirectory, std::vector<CCmRecording>* aFiles,
                      std::string* aError) {
    aFiles->clear();
    const int nDirectory =
        open(aDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (nDirectory < 0) {
        const int nError = errno;
        *aError = CmPrintable(aDirectory) + ": " + std::strerror(nError);
        return nError == ENOENT;
    }
    struct stat status = {};
    if (fstat(nDirectory, &status) != 0 || status.st_uid != geteuid()) {
        *aError = CmPrintable(aDirectory) + ": it is not this user's directory";
        close(nDirectory);
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(fdopendir(nDirectory), closedir);
    if (pDirectory == nullptr) {
        const int nError = errno;
        *aError = CmPrintable(aDirectory) + ": " + std::strerror(nError);
        close(nDirectory);
        return false;
    }
    while (const dirent* pEntry = readdir(pDirectory.get())) {
        CCmRecording file;
        file.path = aDirectory + "/" + pEntry->d_name;
        if (ReadName(pEntry->d_name, &file) && LookAt(file.path, &file.isLive)) {
            aFiles->push_back(std::move(file));
        }
    }
    std::sort(aFiles->begin(), aFiles->end(),
              [](const CCmRecording& aOne, const CCmRecording& aOther) {
                  return aOne.startUsec != aOther.startUsec ? aOne.startUsec > aOther.startUsec
                                                            : aOne.path < aOther.path;
              });
    return true;
}

}  // namespace UTIL_NS
