#include "qtrace.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "QtracePort.h"

namespace {

constexpr size_t PIECE_LENGTH = 2047;        // characters of every piece but the last
constexpr size_t STACK_LINE_SIZE = 4096;     // bytes; a longer line is built on the heap
constexpr size_t HEAD_SIZE = 320;            // bytes, thread name and module included
constexpr int MODULE_LENGTH = 128;           // characters of a module's name that are printed
constexpr size_t HELD_LENGTH_MAX = 1 << 20;  // characters; no text in pieces has so many

// ---- Threshold

constexpr unsigned long LEVEL_UNKNOWN = ULONG_MAX;  // the environment has not been read
// Relaxed: nothing is handed over with it, and threads that read the environment find the same.
std::atomic<unsigned long> s_ulLevel{LEVEL_UNKNOWN};

unsigned long LevelFromEnvironment() {
    const char* pszLevel = std::getenv("QTRACE_LEVEL");
    if (pszLevel == nullptr || *pszLevel < '0' || *pszLevel > '9') {
        return 0;
    }
    char* pchEnd = nullptr;
    const unsigned long ulLevel = std::strtoul(pszLevel, &pchEnd, 10);
    if (*pchEnd != '\0') {
        return 0;
    }
    return ulLevel < LEVEL_UNKNOWN ? ulLevel : LEVEL_UNKNOWN - 1;
}

// ---- Destination

constexpr int NOT_OPENED = -1;
std::atomic<int> s_nDestination{NOT_OPENED};

// Moves a descriptor out of the range of the standard streams, which the host may use for
// something else once it closed them.
int AboveStandardStreams(int aFile) {
    if (aFile > STDERR_FILENO) {
        return aFile;
    }
    const int nMoved = fcntl(aFile, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(aFile);
    return nMoved;
}

// Whether only the user of this process and the system's administrator may put names into the
// directory that aPath lies in.
bool IsInOwnDirectory(const char* aPath) {
    char szDirectory[PATH_MAX] = ".";
    if (const char* pchSlash = std::strrchr(aPath, '/')) {
        const size_t nLength = static_cast<size_t>(pchSlash - aPath) + 1;
        if (nLength >= sizeof(szDirectory)) {
            return false;
        }
        std::memcpy(szDirectory, aPath, nLength);
        szDirectory[nLength] = '\0';
    }
    struct stat directory = {};
    return stat(szDirectory, &directory) == 0 &&
           (directory.st_uid == 0 || directory.st_uid == geteuid()) &&
           (directory.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A file of several names may be somebody else's choice just as a symbolic link.
bool HasOtherNames(int aFile) {
    struct stat file = {};
    return fstat(aFile, &file) != 0 || (S_ISREG(file.st_mode) && file.st_nlink > 1);
}

int OpenFile(const char* aPath) {
    const bool bFollow = IsInOwnDirectory(aPath);
    // Not blocking: a named pipe without a reader must not hold the host up.
    const int nFile = open(aPath,
                           O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK |
                               (bFollow ? 0 : O_NOFOLLOW),
                           0666);
    if (nFile >= 0 && !bFollow && HasOtherNames(nFile)) {
        close(nFile);
        return -1;
    }
    return nFile;
}

int OpenDestination() {
    const char* pszPath = std::getenv("QTRACE_FILE");
    if (pszPath == nullptr || *pszPath == '\0') {
        return STDERR_FILENO;
    }
    const int nFile = OpenFile(pszPath);
    const int nMoved = nFile < 0 ? nFile : AboveStandardStreams(nFile);
    return nMoved < 0 ? STDERR_FILENO : nMoved;
}

// Threads that come here first at the same time all open the file; one opening is kept.
int Destination() {
    // Acquire, paired with the exchange below: the file was opened before this thread uses it.
    int nDestination = s_nDestination.load(std::memory_order_acquire);
    if (nDestination != NOT_OPENED) {
        return nDestination;
    }
    const int nOpened = OpenDestination();
    if (s_nDestination.compare_exchange_strong(nDestination, nOpened)) {
        return nOpened;
    }
    if (nOpened != STDERR_FILENO) {
        close(nOpened);
    }
    return nDestination;
}

// ---- Writing

// Blocks, in the calling thread, the signals that a write may raise, and takes back one that it
// did raise: a closed pipe or a file at its size limit must not kill the host.
class CWriteSignals {
  public:
    CWriteSignals() {
        sigemptyset(&m_Raised);
        sigaddset(&m_Raised, SIGPIPE);
        sigaddset(&m_Raised, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &m_Raised, &m_Before);
        KeepPending(SIGPIPE);
        KeepPending(SIGXFSZ);
    }
    ~CWriteSignals() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CWriteSignals(const CWriteSignals&) = delete;
    CWriteSignals& operator=(const CWriteSignals&) = delete;

    void TakeBack(int aSignal) {
        sigset_t pending;
        if (sigismember(&m_Raised, aSignal) == 1 && sigpending(&pending) == 0 &&
            sigismember(&pending, aSignal) == 1) {
            sigset_t one;
            sigemptyset(&one);
            sigaddset(&one, aSignal);
            int nTaken = 0;
            sigwait(&one, &nTaken);
        }
    }

  private:
    // A signal that the host had blocked may be pending on its own account.
    void KeepPending(int aSignal) {
        sigset_t pending;
        if (sigismember(&m_Before, aSignal) == 1 && sigpending(&pending) == 0 &&
            sigismember(&pending, aSignal) == 1) {
            sigdelset(&m_Raised, aSignal);
        }
    }

    sigset_t m_Raised;
    sigset_t m_Before;
};

pthread_mutex_t s_lineMutex = PTHREAD_MUTEX_INITIALIZER;
thread_local bool t_bWriting = false;

// Called in a forked child, which has no copy of the thread that may have held the mutex.
void FreeLineMutex() {
    const pthread_mutex_t FREE = PTHREAD_MUTEX_INITIALIZER;
    std::memcpy(&s_lineMutex, &FREE, sizeof(FREE));
}

// While it lives, no other thread of the process writes a line: a destination that takes a line in
// parts (a pipe, a terminal, a disk that fills up) still gets it in one piece. A signal handler
// that traces while its own thread writes does not wait, since that would be for ever.
class CLineTurn {
  public:
    CLineTurn() : m_bNested(t_bWriting) {
        static const int s_nRegistered = pthread_atfork(nullptr, nullptr, FreeLineMutex);
        static_cast<void>(s_nRegistered);
        if (!m_bNested) {
            t_bWriting = true;
            pthread_mutex_lock(&s_lineMutex);
        }
    }
    ~CLineTurn() {
        if (!m_bNested) {
            pthread_mutex_unlock(&s_lineMutex);
            t_bWriting = false;
        }
    }
    CLineTurn(const CLineTurn&) = delete;
    CLineTurn& operator=(const CLineTurn&) = delete;

  private:
    const bool m_bNested;
};

// Whether part of a line reached the destination, and the rest did not. Read and written in a
// line's turn; atomic for signal handlers that trace, which do not wait for theirs.
enum class ETorn { NOT_LOOKED, NO, YES };
std::atomic<ETorn> s_eTorn{ETorn::NOT_LOOKED};

constexpr time_t REST = 2;  // seconds

// Whether a file ends within a line: the disk was full, or a process was killed. Not while others
// write to it: it may then be seen between the parts of a line. It is read by its name, since the
// destination is open for writing only.
bool EndsWithinLine(int aDestination) {
    const char* const pszPath = std::getenv("QTRACE_FILE");
    struct stat file = {};
    if (pszPath == nullptr || fstat(aDestination, &file) != 0 || !S_ISREG(file.st_mode) ||
        file.st_size == 0 || std::time(nullptr) - file.st_mtime <= REST) {
        return false;
    }
    const int nFile = open(pszPath, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (nFile < 0) {
        return false;
    }
    struct stat opened = {};
    char ch = '\n';
    const bool bRead = fstat(nFile, &opened) == 0 && opened.st_dev == file.st_dev &&
                       opened.st_ino == file.st_ino && opened.st_size == file.st_size &&
                       pread(nFile, &ch, 1, file.st_size - 1) == 1;
    close(nFile);
    return bRead && ch != '\n';
}

// Looks at the file once in a process, before its first line.
bool IsTorn(int aDestination) {
    if (s_eTorn.load(std::memory_order_relaxed) == ETorn::NOT_LOOKED) {
        s_eTorn.store(EndsWithinLine(aDestination) ? ETorn::YES : ETorn::NO,
                      std::memory_order_relaxed);
    }
    return s_eTorn.load(std::memory_order_relaxed) == ETorn::YES;
}

// A write that takes only a part is repeated with the rest: a disk may be filling up.
bool WriteFully(CWriteSignals& aSignals, int aFile, const char* aText, size_t aLength) {
    size_t nDone = 0;
    while (nDone < aLength) {
        const ssize_t nWritten = write(aFile, aText + nDone, aLength - nDone);
        if (nWritten < 0 && errno == EINTR) {
            continue;
        }
        if (nWritten <= 0) {
            aSignals.TakeBack(errno == EPIPE ? SIGPIPE : SIGXFSZ);
            if (nDone > 0) {
                s_eTorn.store(ETorn::YES, std::memory_order_relaxed);
            }
            return false;
        }
        nDone += static_cast<size_t>(nWritten);
    }
    return true;
}

// After a torn line, the next one starts with a line end.
void WriteLine(const char* aLine, size_t aLength) {
    const int nFile = Destination();
    CWriteSignals signals;
    CLineTurn turn;
    if (IsTorn(nFile)) {
        if (!WriteFully(signals, nFile, "\n", 1)) {
            return;
        }
        s_eTorn.store(ETorn::NO, std::memory_order_relaxed);
    }
    WriteFully(signals, nFile, aLine, aLength);
}

// ---- Lines

// The local time of one second, kept by each thread for the lines of that second.
struct CSecondText {
    time_t m_Second;
    char m_szText[32];  // "2026-11-21 09:30:00"; empty before the first line
};
thread_local CSecondText t_second;

const char* TextOfSecond(time_t aSecond) {
    if (t_second.m_Second != aSecond || t_second.m_szText[0] == '\0') {
        tm date = {};
        localtime_r(&aSecond, &date);
        std::strftime(t_second.m_szText, sizeof(t_second.m_szText), "%Y-%m-%d %H:%M:%S", &date);
        t_second.m_Second = aSecond;
    }
    return t_second.m_szText;
}

// The calling thread's number, and the process that it was read in.
struct CThreadNumber {
    unsigned long long m_ullNumber;
    std::atomic<pid_t> m_Process;  // 0 before the first line
};
thread_local CThreadNumber t_number;

// A forked child has the variables of its parent's thread, and a number of its own.
unsigned long long NumberOfThread(pid_t aProcess) {
    if (t_number.m_Process.load(std::memory_order_relaxed) != aProcess) {
        t_number.m_ullNumber = QtraceThreadNumber();
        // A signal handler that traces meanwhile must not find the process without its number.
        std::atomic_signal_fence(std::memory_order_release);
        t_number.m_Process.store(aProcess, std::memory_order_relaxed);
    }
    return t_number.m_ullNumber;
}

// " thread=<name>", or nothing for a thread without a name. What could end the field becomes '_'.
constexpr char THREAD_FIELD[] = " thread=";
constexpr size_t THREAD_FIELD_SIZE = sizeof(THREAD_FIELD) + QTRACE_THREAD_NAME_SIZE;

void FormatThreadField(char (&aField)[THREAD_FIELD_SIZE]) {
    char szName[QTRACE_THREAD_NAME_SIZE];
    QtraceThreadName(szName);
    if (szName[0] == '\0') {
        aField[0] = '\0';
        return;
    }
    for (char* pch = szName; *pch != '\0'; ++pch) {
        const unsigned char byChar = static_cast<unsigned char>(*pch);
        *pch = byChar <= ' ' || byChar == 0x7F || byChar == '[' || byChar == ']' ? '_' : *pch;
    }
    std::snprintf(aField, sizeof(aField), "%s%s", THREAD_FIELD, szName);
}

size_t FormatHead(char (&aHead)[HEAD_SIZE], const char* aModule) {
    timeval tvNow = {};
    gettimeofday(&tvNow, nullptr);
    const pid_t process = getpid();
    char szThread[THREAD_FIELD_SIZE];
    FormatThreadField(szThread);
    std::snprintf(aHead, sizeof(aHead), "%s.%03d pid=%d tid=%llu%s [%.*s] ",
                  TextOfSecond(tvNow.tv_sec), static_cast<int>(tvNow.tv_usec / 1000),
                  static_cast<int>(process), NumberOfThread(process), szThread, MODULE_LENGTH,
                  aModule != nullptr ? aModule : "");
    // The module is the host's: it must not break the line either.
    for (char* pchEnd = std::strchr(aHead, '\n'); pchEnd != nullptr;
         pchEnd = std::strchr(pchEnd, '\n')) {
        *pchEnd = ' ';
    }
    return std::strlen(aHead);
}

size_t LengthWithoutLineEnds(const char* aText, size_t aLength) {
    while (aLength > 0 && (aText[aLength - 1] == '\n' || aText[aLength - 1] == '\r')) {
        --aLength;
    }
    return aLength;
}

// Copies what fits into aRoom, with a tab after each line end; returns the bytes written.
size_t CopyIndented(char* aOut, size_t aRoom, const char* aText, size_t aLength) {
    size_t nOut = 0;
    for (size_t i = 0; i < aLength && nOut < aRoom; ++i) {
        aOut[nOut++] = aText[i];
        if (aText[i] == '\n' && nOut < aRoom) {
            aOut[nOut++] = '\t';
        }
    }
    return nOut;
}

size_t CountLineEnds(const char* aText, size_t aLength) {
    size_t nCount = 0;
    for (size_t i = 0; i < aLength; ++i) {
        nCount += aText[i] == '\n' ? 1 : 0;
    }
    return nCount;
}

// A long line for which there is no memory is cut.
void WriteText(const char* aModule, const char* aText, size_t aLength) {
    char szHead[HEAD_SIZE];
    const size_t nHead = FormatHead(szHead, aModule);
    const size_t nLength = LengthWithoutLineEnds(aText, aLength);
    const size_t nWanted = nHead + nLength + CountLineEnds(aText, nLength) + 1;

    char achLine[STACK_LINE_SIZE];
    char* pchHeap = nWanted > sizeof(achLine) ? static_cast<char*>(std::malloc(nWanted)) : nullptr;
    char* pchLine = pchHeap != nullptr ? pchHeap : achLine;
    const size_t nSize = pchHeap != nullptr ? nWanted : sizeof(achLine);
    std::memcpy(pchLine, szHead, nHead);
    size_t nLine = nHead + CopyIndented(pchLine + nHead, nSize - nHead - 1, aText, nLength);
    pchLine[nLine++] = '\n';
    WriteLine(pchLine, nLine);
    std::free(pchHeap);
}

// ---- Pieces

// The pieces of one text that a thread has handed over so far.
struct CHeldText {
    char* m_pchText;
    size_t m_nLength;
    size_t m_nSize;
    char m_szModule[MODULE_LENGTH + 1];
};

void WriteHeld(CHeldText& aHeld) {
    if (aHeld.m_nLength > 0) {
        WriteText(aHeld.m_szModule, aHeld.m_pchText, aHeld.m_nLength);
    }
    std::free(aHeld.m_pchText);
    aHeld = CHeldText();
}

// Called by the system when the thread exits.
void WriteAndFreeHeld(void* aHeld) {
    CHeldText* pHeld = static_cast<CHeldText*>(aHeld);
    WriteHeld(*pHeld);
    std::free(pHeld);
}

struct CHeldKey {
    CHeldKey() : m_Key(), m_bValid(pthread_key_create(&m_Key, WriteAndFreeHeld) == 0) {}

    pthread_key_t m_Key;
    bool m_bValid;
};

// What the calling thread holds; null when it holds nothing and aCreate is false or memory ran out.
CHeldText* HeldOfThread(bool aCreate) {
    static const CHeldKey s_key;
    if (!s_key.m_bValid) {
        return nullptr;
    }
    CHeldText* pHeld = static_cast<CHeldText*>(pthread_getspecific(s_key.m_Key));
    if (pHeld != nullptr || !aCreate) {
        return pHeld;
    }
    pHeld = static_cast<CHeldText*>(std::calloc(1, sizeof(CHeldText)));
    if (pHeld != nullptr && pthread_setspecific(s_key.m_Key, pHeld) != 0) {
        std::free(pHeld);
        pHeld = nullptr;
    }
    return pHeld;
}

bool Append(CHeldText& aHeld, const char* aText, size_t aLength) {
    const size_t nNeeded = aHeld.m_nLength + aLength;
    if (nNeeded > HELD_LENGTH_MAX) {
        return false;
    }
    if (nNeeded > aHeld.m_nSize) {
        char* pchGrown = static_cast<char*>(std::realloc(aHeld.m_pchText, 2 * nNeeded));
        if (pchGrown == nullptr) {
            return false;
        }
        aHeld.m_pchText = pchGrown;
        aHeld.m_nSize = 2 * nNeeded;
    }
    std::memcpy(aHeld.m_pchText + aHeld.m_nLength, aText, aLength);
    aHeld.m_nLength = nNeeded;
    return true;
}

void TakePiece(const char* aModule, const char* aText, size_t aLength) {
    CHeldText* pHeld = HeldOfThread(true);
    if (pHeld == nullptr) {
        WriteText(aModule, aText, aLength);
        return;
    }
    if (pHeld->m_nLength == 0) {
        std::snprintf(pHeld->m_szModule, sizeof(pHeld->m_szModule), "%s",
                      aModule != nullptr ? aModule : "");
    }
    if (!Append(*pHeld, aText, aLength)) {
        WriteHeld(*pHeld);
        WriteText(aModule, aText, aLength);
        return;
    }
    if (aLength < PIECE_LENGTH) {
        WriteHeld(*pHeld);
    }
}

void TakeWhole(const char* aModule, const char* aText, size_t aLength) {
    if (CHeldText* pHeld = HeldOfThread(false)) {
        WriteHeld(*pHeld);
    }
    WriteText(aModule, aText, aLength);
}

}  // namespace

unsigned long _getTraceLevel() {
    const unsigned long ulLevel = s_ulLevel.load(std::memory_order_relaxed);
    if (__builtin_expect(ulLevel != LEVEL_UNKNOWN, 1)) {
        return ulLevel;
    }
    unsigned long ulKnown = LEVEL_UNKNOWN;
    const unsigned long ulFirst = LevelFromEnvironment();
    return s_ulLevel.compare_exchange_strong(ulKnown, ulFirst) ? ulFirst : ulKnown;
}

void qtrace_set_level(unsigned long aLevel) {
    s_ulLevel.store(aLevel < LEVEL_UNKNOWN ? aLevel : LEVEL_UNKNOWN - 1, std::memory_order_relaxed);
}

void YRKTRACERAWA(unsigned long /*aLevel*/, const char* aModule, char* aPrefix, const char* aText) {
    if (aText == nullptr) {
        return;
    }
    const int nError = errno;
    int nCancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nCancelState);
    if (aPrefix != nullptr) {
        TakePiece(aModule, aText, std::strlen(aText));
    } else {
        TakeWhole(aModule, aText, std::strlen(aText));
    }
    pthread_setcancelstate(nCancelState, nullptr);
    errno = nError;
}
