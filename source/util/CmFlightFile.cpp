#include "CmFlightFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CmFlightFormat.h"
#include "CmSystem.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr size_t FILE_NAME_SIZE = CM_FLIGHT_NAME_SIZE + 64;  // PID, START and the suffix
constexpr mode_t DIRECTORY_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;

class CDescriptor {
  public:
    explicit CDescriptor(int aFile) : m_nFile(aFile) {}
    ~CDescriptor() {
        if (m_nFile >= 0) {
            g_cmSystem.close(m_nFile);
        }
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return m_nFile; }
    int Release() {
        const int nFile = m_nFile;
        m_nFile = -1;
        return nFile;
    }

  private:
    int m_nFile;
};

// False, with the error kept, for the caller to return.
bool HasFailed(CCmFlightFile& aFile, const char* aCall, int aError) {
    aFile.m_pszCall = aCall;
    aFile.m_nError = aError;
    return false;
}

// A variable of the environment that names a directory, null when it does not.
const char* DirectoryOf(const char* aVariable) {
    const char* const pszDirectory = std::getenv(aVariable);
    return pszDirectory != nullptr && *pszDirectory == '/' ? pszDirectory : nullptr;
}

// False when the path is too long.
bool FindDirectory(const char* aDirectory, char (&aPath)[CCmFlightFile::PATH_SIZE]) {
    // A file's path fits if its directory does.
    constexpr size_t LONGEST = CCmFlightFile::PATH_SIZE - FILE_NAME_SIZE - 1;
    char szOfUser[CCmFlightFile::PATH_SIZE];
    int nLength = 0;
    if (aDirectory != nullptr && *aDirectory != '\0') {
        nLength = std::snprintf(aPath, sizeof(aPath), "%s", aDirectory);
    } else if (const char* pszRuntime = DirectoryOf("XDG_RUNTIME_DIR")) {
        nLength = std::snprintf(aPath, sizeof(aPath), "%s/kelto", pszRuntime);
    } else if (CmPortUserDirectory(szOfUser, sizeof(szOfUser))) {
        nLength = std::snprintf(aPath, sizeof(aPath), "%skelto", szOfUser);
    } else {
        const char* const pszTemporary = DirectoryOf("TMPDIR");
        nLength = std::snprintf(aPath, sizeof(aPath), "%s/kelto-%lu",
                                pszTemporary != nullptr ? pszTemporary : "/tmp",
                                static_cast<unsigned long>(geteuid()));
    }
    return nLength > 0 && static_cast<size_t>(nLength) <= LONGEST;
}

// Opens the directory, made if it is missing. Whether it is the user's is asked of what was opened,
// in which all that follows happens.
int OpenDirectory(CCmFlightFile& aFile) {
    g_cmSystem.mkdir(aFile.m_szPath, DIRECTORY_MODE);  // what is there already is looked at below
    CDescriptor directory(g_cmSystem.open(
        aFile.m_szPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0));
    if (directory.Get() < 0) {
        // A link is one or the other, depending on the system.
        const bool bIsOther = errno == ENOTDIR || errno == ELOOP;
        HasFailed(aFile, bIsOther ? nullptr : "open", errno);
        return -1;
    }
    struct stat status = {};
    if (g_cmSystem.fstat(directory.Get(), &status) != 0) {
        HasFailed(aFile, "fstat", errno);
        return -1;
    }
    if (status.st_uid != geteuid() || (status.st_mode & 0777) != DIRECTORY_MODE) {
        HasFailed(aFile, nullptr, EPERM);
        return -1;
    }
    return directory.Release();
}

// ---- Old files

struct CName {
    char m_szName[256];  // NAME_MAX is 255 on both systems
    unsigned long m_ulStart;
};

// NAME.PID.STARTUSEC.flight; false for another name.
bool ReadName(const char* aText, CName& aName) {
    const size_t nLength = std::strlen(aText);
    constexpr size_t SUFFIX_LENGTH = sizeof(CM_FLIGHT_SUFFIX) - 1;
    if (nLength >= sizeof(aName.m_szName) || nLength <= SUFFIX_LENGTH ||
        std::strcmp(aText + nLength - SUFFIX_LENGTH, CM_FLIGHT_SUFFIX) != 0) {
        return false;
    }
    std::memcpy(aName.m_szName, aText, nLength + 1);
    const char* pEnd = aText + nLength - SUFFIX_LENGTH;
    for (int i = 0; i < 2; ++i) {  // the start, then the process
        const char* pDigits = pEnd;
        while (pDigits > aText && pDigits[-1] >= '0' && pDigits[-1] <= '9') {
            --pDigits;
        }
        if (pDigits == pEnd || pDigits == aText || pDigits[-1] != '.') {
            return false;
        }
        if (i == 0) {
            aName.m_ulStart = std::strtoul(pDigits, nullptr, 10);
        }
        pEnd = pDigits - 1;
    }
    return pEnd > aText;
}

// Whether a regular file of that name is no process's any more. Between being made and being locked
// a file is; then it is the newest, and kept.
bool IsLeft(int aDirectory, const char* aName) {
    const CDescriptor file(
        g_cmSystem.openat(aDirectory, aName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0));
    struct stat status = {};
    return file.Get() >= 0 && g_cmSystem.fstat(file.Get(), &status) == 0 &&
           S_ISREG(status.st_mode) && g_cmSystem.flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
}

// The newest files that were left, and room for one more.
class CKeptFiles {
  public:
    // The oldest one goes when there are too many.
    void Add(const CName& aName, int aDirectory) {
        unsigned nPlace = m_dwCount++;
        for (; nPlace > 0 && m_Names[nPlace - 1].m_ulStart < aName.m_ulStart; --nPlace) {
            m_Names[nPlace] = m_Names[nPlace - 1];
        }
        m_Names[nPlace] = aName;
        if (m_dwCount > CM_FLIGHT_KEPT_FILES) {
            g_cmSystem.unlinkat(aDirectory, m_Names[--m_dwCount].m_szName, 0);
        }
    }

  private:
    CName m_Names[CM_FLIGHT_KEPT_FILES + 1];  // the newest first
    unsigned m_dwCount = 0;
};

// Whatever fails, files stay.
void RemoveOldFiles(int aDirectory) {
    CDescriptor list(g_cmSystem.openat(aDirectory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    DIR* const pList = list.Get() < 0 ? nullptr : g_cmSystem.fdopendir(list.Get());
    if (pList == nullptr) {
        return;
    }
    list.Release();  // closed with pList
    CKeptFiles kept;
    while (const dirent* pEntry = readdir(pList)) {
        CName name;
        if (ReadName(pEntry->d_name, name) && IsLeft(aDirectory, name.m_szName)) {
            kept.Add(name, aDirectory);
        }
    }
    closedir(pList);
}

// ---- The new one

// Without what would hide the file or break a terminal.
void CopyName(const char* aName, char (&aCopy)[CM_FLIGHT_NAME_SIZE]) {
    std::snprintf(aCopy, sizeof(aCopy), "%s", aName);
    for (char* pch = aCopy; *pch != '\0'; ++pch) {
        const bool bIsPlain = *pch > ' ' && *pch <= '~' && *pch != '/';
        if (!bIsPlain || (pch == aCopy && *pch == '.')) {
            *pch = '_';
        }
    }
}

// For a file beyond the process's limit the system sends a signal that may end it. Any other signal
// may interrupt the call.
int Allocate(int aFile, uint64_t aSize) {
    constexpr int ATTEMPTS = 20;
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    int rv = limit.rlim_cur < aSize ? EFBIG : EINTR;
    for (int i = 0; i < ATTEMPTS && rv == EINTR; ++i) {
        rv = g_cmSystem.posix_fallocate(aFile, 0, static_cast<off_t>(aSize));
    }
    return rv;
}

// Whoever asks whether a file is in use locks it for a moment. Where files cannot be locked,
// another process takes it for one that was left, and may remove its name one day.
void Lock(int aFile) {
    constexpr int ATTEMPTS = 200;
    constexpr timespec NAP = {0, 1000 * 1000};
    for (int i = 0;
         i < ATTEMPTS && g_cmSystem.flock(aFile, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
         ++i) {
        g_cmSystem.nanosleep(&NAP, nullptr);
    }
}

bool MakeFile(int aDirectory, const char* aName, uint64_t aSize, CCmFlightFile& aFile) {
    CDescriptor file(g_cmSystem.openat(
        aDirectory, aName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, FILE_MODE));
    if (file.Get() < 0) {
        return HasFailed(aFile, "openat", errno);
    }
    Lock(file.Get());
    const int rv = Allocate(file.Get(), aSize);
    if (rv != 0) {
        g_cmSystem.unlinkat(aDirectory, aName, 0);
        return HasFailed(aFile, "posix_fallocate", rv);
    }
    aFile.m_nFile = file.Release();
    return true;
}

}  // namespace

bool CmFlightMakeFile(const char* aDirectory, const char* aName, long long aStartUsec,
                      uint64_t aSize, CCmFlightFile& aFile) {
    aFile.m_nFile = -1;
    if (!FindDirectory(aDirectory, aFile.m_szPath)) {
        return HasFailed(aFile, "open", ENAMETOOLONG);
    }
    const CDescriptor directory(OpenDirectory(aFile));
    if (directory.Get() < 0) {
        return false;
    }
    RemoveOldFiles(directory.Get());
    char szProcess[CM_FLIGHT_NAME_SIZE];
    CopyName(aName, szProcess);
    char szName[FILE_NAME_SIZE];
    std::snprintf(szName, sizeof(szName), "%s.%ld.%lld%s", szProcess, static_cast<long>(getpid()),
                  aStartUsec, CM_FLIGHT_SUFFIX);
    const size_t nLength = std::strlen(aFile.m_szPath);
    std::snprintf(aFile.m_szPath + nLength, sizeof(aFile.m_szPath) - nLength, "/%s", szName);
    return MakeFile(directory.Get(), szName, aSize, aFile);
}

void CmFlightRemoveFile(CCmFlightFile& aFile) {
    g_cmSystem.unlinkat(AT_FDCWD, aFile.m_szPath, 0);
    g_cmSystem.close(aFile.m_nFile);
    aFile.m_nFile = -1;
}

}  // namespace UTIL_NS
