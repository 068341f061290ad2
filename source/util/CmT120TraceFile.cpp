#include "CmT120TraceFile.h"

#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "CmConfig.h"
#include "CmFileTurn.h"
#include "CmPrivateState.h"
#include "CmProfileReader.h"
#include "CmScopedLock.h"
#include "CmSleep.h"
#include "CmSystem.h"
#include "CmTimeValue.h"
#include "CmTraceGuard.h"

namespace UTIL_NS {

namespace {

constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t MARKER_LENGTH = sizeof(MARKER) - 1;
static_assert(MARKER_LENGTH == 73, "71 characters and two line ends");

constexpr size_t HEADER_LENGTH = 32;  // bytes, the line end included
// A header with a larger number was not written here. Up to this one, the sum of a position and the
// length of lines does not overflow.
constexpr long POSITION_MAX = LONG_MAX / 2;
constexpr size_t LINE_SIZE = 2048;  // bytes of the line buffer for each line of a flush
// The size of the line buffer fits an int, in which snprintf returns its length.
constexpr int FLUSH_COUNT_MAX = (INT_MAX - 1) / static_cast<int>(LINE_SIZE);
constexpr int VALID = 20050704;  // the mark of a record that lives
// How long a manager's destructor lets threads finish the lines that they are writing.
constexpr unsigned long EXIT_WAIT = 200;  // ms
// Between two requests for a file's lock while the system takes the wait for a deadlock.
constexpr timespec DEADLOCK_NAP = {0, 1000 * 1000};  // 1 ms

constexpr char FILTER_FILE[] = "conf/keltoexp.filter";
constexpr size_t FILTER_PATH_SIZE = 64;    // bytes; the home directory has at most 16
constexpr size_t FILTER_LINE_SIZE = 1024;  // bytes

// Keeps records alive while refresh_settings goes from one to the next without the mutex of their
// manager: closing one takes this first. The first line of any thread may bring that about, by
// loading the trace facility, so that a host could not avoid it.
CCmEternalLockT<CCmMutexThread> s_walkMutex;
CCmEternalLockT<CCmMutexThread> s_filterMutex;
int s_nCompiled = 0;  // entries of re in use, guarded by s_filterMutex

struct flock WholeFile(short aType) {
    struct flock request = {};
    request.l_type = aType;
    request.l_whence = SEEK_SET;
    return request;
}

int BoundedFlushCount(int aFlushCount) {
    if (aFlushCount < 1) {
        return 1;
    }
    return aFlushCount < FLUSH_COUNT_MAX ? aFlushCount : FLUSH_COUNT_MAX;
}

int ThreadIdentity() {
    return static_cast<int>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
}

// Writes the line into aBuffer as snprintf does and returns its whole length. A shared record
// prints the process as an unsigned number, any other as a signed one.
int FormatLine(char* aBuffer, size_t aSize, bool aShared, const char* aTag, const char* aModule,
               const char* aText) {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    const time_t now = tvNow.GetSec();
    tm date = {};
    g_cmSystem.localtime_r(&now, &date);
    char szStamp[128];
    std::snprintf(szStamp, sizeof(szStamp),
                  aShared ? "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%u tid=%d]"
                          : "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d]",
                  date.tm_mon + 1, date.tm_mday, date.tm_year + 1900, date.tm_hour, date.tm_min,
                  date.tm_sec, static_cast<int>(tvNow.GetUsec() / 1000), getpid(),
                  ThreadIdentity());
    if (aModule == nullptr) {
        return std::snprintf(aBuffer, aSize, "%s %s\n", szStamp, aText);
    }
    if (aTag == nullptr) {
        return std::snprintf(aBuffer, aSize, "%s %s:%s\n", szStamp, aModule, aText);
    }
    return std::snprintf(aBuffer, aSize, "%s [%s] %s:%s\n", szStamp, aTag, aModule, aText);
}

// Writes all of it, in as many calls as it takes; false when one fails.
bool WriteFully(int aDescriptor, const char* aText, size_t aLength, off_t aOffset) {
    while (aLength > 0) {
        const ssize_t nWritten = g_cmSystem.pwrite(aDescriptor, aText, aLength, aOffset);
        if (nWritten < 0 && errno == EINTR) {
            continue;
        }
        if (nWritten <= 0) {
            return false;
        }
        aText += nWritten;
        aLength -= static_cast<size_t>(nWritten);
        aOffset += nWritten;
    }
    return true;
}

// Beyond the process's limit a write, or making a file longer, raises a signal (SIGXFSZ) that kills
// the process.
bool IsWithinFileSizeLimit(long aEnd) {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_FSIZE, &limit);
    return static_cast<rlim_t>(aEnd) <= limit.rlim_cur;
}

// Reads the start of a file; in a shorter one the rest of aBuffer stays as it is.
bool ReadFully(int aDescriptor, char* aBuffer, size_t aLength) {
    for (size_t nDone = 0; nDone < aLength;) {
        const ssize_t nRead = g_cmSystem.pread(aDescriptor, aBuffer + nDone, aLength - nDone,
                                               static_cast<off_t>(nDone));
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead <= 0) {
            return nRead == 0;
        }
        nDone += static_cast<size_t>(nRead);
    }
    return true;
}

}  // namespace

// What a record keeps beside its stated fields, and its steps.
//
// m_Mutex guards the fields that change, but for m_pNext, which the manager guards. It is held
// while lines are composed and written, but never while a thread waits for another process: to
// write to a shared file, a thread takes first the file's turn (CmFileTurn.h), then the lock of the
// file, and m_Mutex last.
struct CM_UTIL_HIDDEN CCmT120TraceFile::CRecordState {
    explicit CRecordState(CCmT120TraceFile& aFile) : m_File(aFile) {}

    // Flushes, and closes the attached file. From then on the record drops every line and attaches
    // no file.
    void Close();

    FILE* Stream();
    bool HasLineBuffer();
    void RequestFileLock(struct flock& aRequest) const;

    void CollectLine_l(const char* aTag, const char* aModule, const char* aText)
        CM_REQUIRES(m_Mutex);
    void Flush_l() CM_REQUIRES(m_Mutex);
    void WriteShared_l(const char* aTag, const char* aModule, const char* aText)
        CM_REQUIRES(m_Mutex);
    void WriteLine_l(long aPosition, const char* aTag, const char* aModule, const char* aText)
        CM_REQUIRES(m_Mutex);
    void WriteAt_l(long aPosition, const char* aText, size_t aLength) CM_REQUIRES(m_Mutex);
    bool WriteHeader_l(long aPosition) CM_REQUIRES(m_Mutex);
    long ReadPosition_l() const CM_REQUIRES(m_Mutex);
    bool IsAtLimit_l(long aPosition) const CM_REQUIRES(m_Mutex);
    void Truncate_l(long aPosition) CM_REQUIRES(m_Mutex);
    void ForgetLines_l() CM_REQUIRES(m_Mutex);

    CCmT120TraceFile& m_File;
    CCmMutexThread m_Mutex;
};

CCmT120TraceFile::CCmT120TraceFile(const char* aName, unsigned long aSizeLimit,
                                   unsigned char aShared, unsigned char /*aIgnored*/)
    : m_pNext(nullptr),
      m_bWrapped(0),
      m_pStream(nullptr),
      m_pszName(aName != nullptr ? g_cmSystem.strdup(aName) : nullptr),
      m_ulSizeLimit(aSizeLimit),
      m_nFlushCount(1),
      m_bShared(aShared),
      m_LockRequest(WholeFile(F_WRLCK)),
      m_UnlockRequest(WholeFile(F_UNLCK)),
      m_pchLines(static_cast<char*>(g_cmSystem.malloc(LINE_SIZE + 1))),
      m_ulBufferedBytes(0),
      m_nBufferedLines(0),
      m_nValidity(VALID),
      m_nDescriptor(0) {
    CCmPrivateRoom::Make(m_Private, *this);
}

CCmT120TraceFile::~CCmT120TraceFile() {
    CCmTraceGuard guard;
    CCmPrivateRoom::Of(m_Private).Close();
    std::free(m_pchLines);
    std::free(m_pszName);
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmT120TraceFile::attach(const char* aPath) {
    CCmTraceGuard guard;
    CRecordState& state = CCmPrivateRoom::Of(m_Private);
    CCmScopedLockT<CCmMutexThread> lock(state.m_Mutex);
    if (m_pStream != nullptr) {
        return CM_ERROR_ALREADY_INITIALIZED;
    }
    const char* pszPath = aPath != nullptr ? aPath : m_pszName;
    if (pszPath == nullptr) {
        return CM_ERROR_INVALID_ARG;
    }
    if (m_nValidity != VALID) {
        return CM_ERROR_FAILURE;
    }
    m_pStream = CmOpenTurnFile(pszPath, m_nDescriptor);
    return m_pStream != nullptr ? CM_OK : CM_ERROR_FAILURE;
}

void CCmT120TraceFile::write(const char* aTag, const char* aModule, const char* aText) {
    CCmTraceGuard guard;
    CRecordState& state = CCmPrivateRoom::Of(m_Private);
    if (m_bShared) {
        if (state.HasLineBuffer()) {
            write_shared(aTag, aModule, aText);
        }
        return;
    }
    CCmScopedLockT<CCmMutexThread> lock(state.m_Mutex);
    if (m_pchLines == nullptr) {
        return;
    }
    if (regex_match(aModule) != 0) {
        state.CollectLine_l(aTag, aModule, aText);
    }
    if (m_nBufferedLines >= m_nFlushCount) {
        state.Flush_l();
    }
}

void CCmT120TraceFile::write_shared(const char* aTag, const char* aModule, const char* aText) {
    CCmTraceGuard guard;
    CRecordState& state = CCmPrivateRoom::Of(m_Private);
    FILE* const pStream = state.Stream();
    if (aText == nullptr || pStream == nullptr) {
        return;
    }
    // Another process may hold the file's lock for any time. While this thread waits for it, it has
    // the file's turn but not m_Mutex, so that only threads that write to the same file wait too.
    CCmFileTurn turn(pStream);
    if (!turn.IsHeld()) {
        return;
    }
    state.RequestFileLock(m_LockRequest);
    {
        CCmScopedLockT<CCmMutexThread> lock(state.m_Mutex);
        state.WriteShared_l(aTag, aModule, aText);
    }
    state.RequestFileLock(m_UnlockRequest);
}

void CCmT120TraceFile::flush_buffer() {
    CCmTraceGuard guard;
    CRecordState& state = CCmPrivateRoom::Of(m_Private);
    CCmScopedLockT<CCmMutexThread> lock(state.m_Mutex);
    state.Flush_l();
}

// A new flush count needs a line buffer of another size; the old one has been flushed by then.
unsigned char CCmT120TraceFile::refresh_settings(unsigned long aSizeLimit, int aFlushCount) {
    CCmTraceGuard guard;
    CRecordState& state = CCmPrivateRoom::Of(m_Private);
    CCmScopedLockT<CCmMutexThread> lock(state.m_Mutex);
    state.Flush_l();
    m_ulSizeLimit = aSizeLimit;
    const int nFlushCount = BoundedFlushCount(aFlushCount);
    if (nFlushCount == m_nFlushCount) {
        return 1;
    }
    m_nFlushCount = nFlushCount;
    std::free(m_pchLines);
    m_pchLines =
        static_cast<char*>(g_cmSystem.malloc(static_cast<size_t>(nFlushCount) * LINE_SIZE + 1));
    state.ForgetLines_l();
    return 1;
}

unsigned char CCmT120TraceFile::is_same_file(const char* aName) const {
    return aName != nullptr && m_pszName != nullptr && std::strcmp(aName, m_pszName) == 0 ? 1 : 0;
}

void CCmT120TraceFile::CRecordState::Close() {
    FILE* pStream;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        Flush_l();
        pStream = std::exchange(m_File.m_pStream, nullptr);
        // For those who look at freed memory with a debugger. Volatile: in a destructor the
        // compiler would drop an ordinary store, which no code reads.
        *const_cast<volatile int*>(&m_File.m_nValidity) = 0;
    }
    // After the mutex was released: it is the innermost lock, and closing takes the file's turn. No
    // thread finds the stream in the record any more.
    if (pStream != nullptr) {
        CmCloseTurnFile(pStream);
    }
}

void CCmT120TraceFile::CRecordState::CollectLine_l(const char* aTag, const char* aModule,
                                                   const char* aText) {
    const size_t nRoom =
        static_cast<size_t>(m_File.m_nFlushCount) * LINE_SIZE - m_File.m_ulBufferedBytes;
    char* pchLine = m_File.m_pchLines + m_File.m_ulBufferedBytes;
    const int nLength =
        FormatLine(pchLine, nRoom, false, aTag, aModule, aText != nullptr ? aText : "(null)");
    if (nLength <= 0 || m_File.m_pStream == nullptr) {
        return;
    }
    size_t nStored = static_cast<size_t>(nLength);
    if (nStored >= nRoom) {
        nStored = nRoom - 1;
        if (nStored > 0) {
            pchLine[nStored - 1] = '\n';
        }
    }
    m_File.m_ulBufferedBytes += nStored;
    ++m_File.m_nBufferedLines;
}

// Lines that cannot be written are dropped: kept, they would fill the buffer, and no later line
// would find room.
void CCmT120TraceFile::CRecordState::Flush_l() {
    if (m_File.m_pStream == nullptr || m_File.m_ulBufferedBytes == 0) {
        return;
    }
    const long lPosition = ReadPosition_l();
    if (lPosition >= 0) {
        // The file is cut off, but lines go on at the same position; only a shared record starts at
        // the top again.
        if (IsAtLimit_l(lPosition)) {
            Truncate_l(lPosition);
            m_File.m_bWrapped = 1;  // a required field; nobody reads it
        }
        WriteAt_l(lPosition, m_File.m_pchLines, m_File.m_ulBufferedBytes);
    }
    ForgetLines_l();
}

void CCmT120TraceFile::CRecordState::ForgetLines_l() {
    m_File.m_ulBufferedBytes = 0;
    m_File.m_nBufferedLines = 0;
}

FILE* CCmT120TraceFile::CRecordState::Stream() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_File.m_pStream;
}

bool CCmT120TraceFile::CRecordState::HasLineBuffer() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_File.m_pchLines != nullptr;
}

// With the file's lock. The record may have been closed while this thread waited for that.
void CCmT120TraceFile::CRecordState::WriteShared_l(const char* aTag, const char* aModule,
                                                   const char* aText) {
    if (m_File.m_pStream == nullptr) {
        return;
    }
    long lPosition = ReadPosition_l();
    if (lPosition < 0) {
        return;
    }
    if (IsAtLimit_l(lPosition)) {
        Truncate_l(lPosition);
        // Before the line, which tears the one that it overwrites: whoever finds the file after
        // this process was killed takes no torn line for a part of the trace.
        lPosition = HEADER_LENGTH;
        if (!WriteHeader_l(lPosition)) {
            return;
        }
    }
    WriteLine_l(lPosition, aTag, aModule, aText);
}

// A line of any length; one for which there is no memory is cut to LINE_SIZE.
void CCmT120TraceFile::CRecordState::WriteLine_l(long aPosition, const char* aTag,
                                                 const char* aModule, const char* aText) {
    if (regex_match(aModule) == 0) {
        WriteAt_l(aPosition, "", 0);
        return;
    }
    char szLine[LINE_SIZE];
    const int nLength = FormatLine(szLine, sizeof(szLine), true, aTag, aModule, aText);
    if (nLength <= 0) {
        return;
    }
    size_t nStored = static_cast<size_t>(nLength);
    if (nStored < sizeof(szLine)) {
        WriteAt_l(aPosition, szLine, nStored);
        return;
    }
    char* pszLong = static_cast<char*>(g_cmSystem.malloc(nStored + 1));
    if (pszLong == nullptr) {
        szLine[sizeof(szLine) - 2] = '\n';
        WriteAt_l(aPosition, szLine, sizeof(szLine) - 1);
        return;
    }
    FormatLine(pszLong, nStored + 1, true, aTag, aModule, aText);
    pszLong[nStored - 1] = '\n';
    WriteAt_l(aPosition, pszLong, nStored);
    std::free(pszLong);
}

// Called in the file's turn: the descriptor is open, and no other thread makes a request for the
// file. Repeats what was interrupted or refused for a time; after any other failure the line is
// written without the lock.
//
// The system sees a process as one owner. It reports a deadlock when the process that holds this
// file's lock waits for another file's lock that another thread of this process holds. No thread
// here waits for a lock while it holds one, so that lock is soon released, and asking again is
// enough.
void CCmT120TraceFile::CRecordState::RequestFileLock(struct flock& aRequest) const {
    while (g_cmSystem.fcntl(m_File.m_nDescriptor, F_SETLKW, &aRequest) < 0) {
        if (errno == EDEADLK) {
            g_cmSystem.nanosleep(&DEADLOCK_NAP, nullptr);
        } else if (errno != EINTR && errno != EAGAIN) {
            return;
        }
    }
}

// The position in the header; 0 where there is none. Negative when it cannot be read or is no
// position: then nothing may be written, since that could overwrite lines.
//
// Files are read and written by their descriptor; the stream, a required field, only owns it. Its
// buffer would hide what another process has changed.
long CCmT120TraceFile::CRecordState::ReadPosition_l() const {
    char szHeader[HEADER_LENGTH + 1] = {};
    if (!ReadFully(m_File.m_nDescriptor, szHeader, HEADER_LENGTH)) {
        return -1;
    }
    const long lPosition = std::strtol(szHeader, nullptr, 10);
    return lPosition <= POSITION_MAX ? lPosition : -1;
}

bool CCmT120TraceFile::CRecordState::IsAtLimit_l(long aPosition) const {
    return m_File.m_ulSizeLimit != 0 &&
           static_cast<unsigned long>(aPosition) >= m_File.m_ulSizeLimit;
}

void CCmT120TraceFile::CRecordState::Truncate_l(long aPosition) {
    if (!IsWithinFileSizeLimit(aPosition)) {
        return;
    }
    while (g_cmSystem.ftruncate(m_File.m_nDescriptor, aPosition) < 0 && errno == EINTR) {
    }
}

// The header is written last. If a write before it fails, it still has the old position, and the
// next line overwrites what was written after that.
void CCmT120TraceFile::CRecordState::WriteAt_l(long aPosition, const char* aText, size_t aLength) {
    const long lEnd = aPosition + static_cast<long>(aLength);
    if (IsWithinFileSizeLimit(lEnd + static_cast<long>(MARKER_LENGTH)) &&
        WriteFully(m_File.m_nDescriptor, aText, aLength, aPosition) &&
        WriteFully(m_File.m_nDescriptor, MARKER, MARKER_LENGTH, lEnd)) {
        WriteHeader_l(lEnd);
    }
}

bool CCmT120TraceFile::CRecordState::WriteHeader_l(long aPosition) {
    char szHeader[HEADER_LENGTH + 1];
    std::snprintf(szHeader, sizeof(szHeader), "%-31ld\n", aPosition);
    return IsWithinFileSizeLimit(HEADER_LENGTH) &&
           WriteFully(m_File.m_nDescriptor, szHeader, HEADER_LENGTH, 0);
}

// What a manager keeps beside its stated fields, and its steps. No constructor makes it, since
// g_trace_mgr is used before any constructor runs: all zeros are a manager in use.
struct CM_UTIL_HIDDEN CCmT120TraceFileMgr::CManagerState {
    static bool IsClosed(const CCmT120TraceFileMgr& aManager);
    static void CloseRecords(CCmT120TraceFileMgr& aManager);
    static void DeleteRecords(CCmT120TraceFileMgr& aManager);
    static CCmT120TraceFile* Unlink(CCmT120TraceFileMgr& aManager, const void* aRecord);

    // Set by the destructor. Relaxed: nothing is handed over with it, and a thread that reads it
    // too late still finds the mutex and the records of g_trace_mgr, which are never freed.
    CmStd::atomic<bool> m_bClosed;
};

bool CCmT120TraceFileMgr::CManagerState::IsClosed(const CCmT120TraceFileMgr& aManager) {
    static_assert(std::is_trivially_destructible_v<CManagerState>);
    static_assert(2 * sizeof(CManagerState) <= sizeof(aManager.m_Private));
    return CCmPrivateRoom::Of(aManager.m_Private).m_bClosed.load(std::memory_order_relaxed);
}

CM_CONSTANT_INIT CCmT120TraceFileMgr g_trace_mgr;

CCmT120TraceFileMgr::~CCmT120TraceFileMgr() {
    CCmTraceGuard guard;
    CmSleepFully(EXIT_WAIT);
    // From here on open and close do nothing: a host's own manager is about to lose its mutex.
    CCmPrivateRoom::Of(m_Private).m_bClosed.store(true, std::memory_order_relaxed);
    if (this == &g_trace_mgr) {
        CManagerState::CloseRecords(*this);
    } else {
        CManagerState::DeleteRecords(*this);
        m_Mutex.~CCmMutexThreadRecursive();
    }
}

// While the program exits, other threads may still use the records and the mutex: they are not
// freed.
void CCmT120TraceFileMgr::CManagerState::CloseRecords(CCmT120TraceFileMgr& aManager) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(aManager.m_Mutex);
    for (CCmT120TraceFile* pFile = aManager.m_pHeader.load(std::memory_order_relaxed);
         pFile != nullptr; pFile = pFile->m_pNext.load(std::memory_order_relaxed)) {
        CCmPrivateRoom::Of(pFile->m_Private).Close();
    }
}

void CCmT120TraceFileMgr::CManagerState::DeleteRecords(CCmT120TraceFileMgr& aManager) {
    CCmT120TraceFile* pFile = aManager.m_pHeader.exchange(nullptr, std::memory_order_relaxed);
    while (pFile != nullptr) {
        CCmT120TraceFile* pNext = pFile->m_pNext.load(std::memory_order_relaxed);
        delete pFile;
        pFile = pNext;
    }
}

void* CCmT120TraceFileMgr::open(const char* aName, unsigned long aSizeLimit, unsigned char aShared,
                                unsigned char aIgnored) {
    if (CManagerState::IsClosed(*this)) {
        return nullptr;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    CCmT120TraceFile* pHeader = m_pHeader.load(std::memory_order_relaxed);
    for (CCmT120TraceFile* pFile = pHeader; pFile != nullptr;
         pFile = pFile->m_pNext.load(std::memory_order_relaxed)) {
        if (pFile->is_same_file(aName)) {
            return pFile;
        }
    }
    CCmT120TraceFile* pNew =
        new (std::nothrow) CCmT120TraceFile(aName, aSizeLimit, aShared, aIgnored);
    if (pNew == nullptr || (aName != nullptr && pNew->m_pszName == nullptr)) {
        delete pNew;
        return nullptr;
    }
    pNew->m_pNext.store(pHeader, std::memory_order_relaxed);
    // Pairs with the acquire of refresh_settings, which walks the list without the mutex: whoever
    // finds the record there finds it constructed. All other accesses to the list are made with the
    // mutex and so are relaxed.
    m_pHeader.store(pNew, std::memory_order_release);
    ++m_dwCount;  // a required field; nobody reads it
    return pNew;
}

void CCmT120TraceFileMgr::close(void* aRecord) {
    if (CManagerState::IsClosed(*this)) {
        return;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> walk(s_walkMutex.m_Lock);
    delete CManagerState::Unlink(*this, aRecord);
}

// Takes the record out of the list and returns it, or null when it is not there.
CCmT120TraceFile* CCmT120TraceFileMgr::CManagerState::Unlink(CCmT120TraceFileMgr& aManager,
                                                             const void* aRecord) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(aManager.m_Mutex);
    CmStd::atomic<CCmT120TraceFile*>* pLink = &aManager.m_pHeader;
    while (CCmT120TraceFile* pFile = pLink->load(std::memory_order_relaxed)) {
        if (pFile == aRecord) {
            // As in open: whoever now finds the next record here finds it constructed.
            pLink->store(pFile->m_pNext.load(std::memory_order_relaxed), std::memory_order_release);
            return pFile;
        }
        pLink = &pFile->m_pNext;
    }
    return nullptr;
}

void CCmT120TraceFileMgr::write(void* aRecord, const char* aTag, const char* aModule,
                                const char* aText) {
    if (aRecord != nullptr) {
        static_cast<CCmT120TraceFile*>(aRecord)->write(aTag, aModule, aText);
    }
}

void CCmT120TraceFileMgr::refresh_settings(unsigned long aSizeLimit, int aFlushCount) {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> walk(s_walkMutex.m_Lock);
    for (CCmT120TraceFile* pFile = m_pHeader.load(std::memory_order_acquire); pFile != nullptr;
         pFile = pFile->m_pNext.load(std::memory_order_acquire)) {
        pFile->refresh_settings(aSizeLimit, aFlushCount);
    }
}

void* T120_Open_Trace_Dev(const char* aName, unsigned long aSizeLimit, unsigned char aShared,
                          unsigned char aIgnored) {
    return g_trace_mgr.open(aName, aSizeLimit, aShared, aIgnored);
}

void T120_Close_Trace_Dev(void* aRecord) {
    g_trace_mgr.close(aRecord);
}

void T120_Write_Trace_Dev(void* aRecord, const char* aTag, const char* aModule, const char* aText) {
    g_trace_mgr.write(aRecord, aTag, aModule, aText);
}

void T120_Refresh_Settings(unsigned long aSizeLimit, int aFlushCount) {
    g_trace_mgr.refresh_settings(aSizeLimit, aFlushCount);
}

regex_t re[CM_TRACE_FILTER_COUNT];
CmStd::atomic<int> regex_cnt{0};

int regex_match(const char* aText) {
    if (aText == nullptr || regex_cnt.load(std::memory_order_relaxed) == 0) {
        return -1;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> lock(s_filterMutex.m_Lock);
    for (int i = 0; i < s_nCompiled; ++i) {
        if (g_cmSystem.regexec(&re[i], aText, 0, nullptr, 0) == 0) {
            return 0;
        }
    }
    return -1;
}

namespace {

using FilterLines = char[CM_TRACE_FILTER_COUNT][FILTER_LINE_SIZE];

// Does not wait for the writer of a named pipe.
FILE* OpenFilterFile() {
    const size_t nHome = strnlen(g_def_kelto_home_dir, CM_HOME_DIR_SIZE);
    const bool bSlash = nHome > 0 && g_def_kelto_home_dir[nHome - 1] == '/';
    char szPath[FILTER_PATH_SIZE];
    std::snprintf(szPath, sizeof(szPath), "%.*s%s%s", static_cast<int>(nHome), g_def_kelto_home_dir,
                  bSlash ? "" : "/", FILTER_FILE);
    const int nFile = CmOpenForReading(szPath);
    FILE* pFile = nFile >= 0 ? g_cmSystem.fdopen(nFile, "rt") : nullptr;
    if (nFile >= 0 && pFile == nullptr) {
        g_cmSystem.close(nFile);
    }
    return pFile;
}

// Returns the number of lines; 0 also when the file cannot be read to its end, such as a named pipe
// that is still being written.
int ReadFilterLines(FilterLines& aLines) {
    FILE* pFile = OpenFilterFile();
    if (pFile == nullptr) {
        return 0;
    }
    int nLines = 0;
    while (nLines < CM_TRACE_FILTER_COUNT &&
           g_cmSystem.fgets(aLines[nLines], sizeof(aLines[nLines]), pFile) != nullptr) {
        ++nLines;
    }
    if (std::ferror(pFile)) {
        nLines = 0;
    }
    std::fclose(pFile);
    return nLines;
}

void FreeFilters() {
    for (int i = 0; i < s_nCompiled; ++i) {
        regfree(&re[i]);
    }
    s_nCompiled = 0;
    std::memset(re, 0, sizeof(re));
}

// regex_cnt counts each line read and each line compiled: twice the filters. It is stored relaxed:
// regex_match takes the mutex before it looks at the filters.
void CompileFilters(const FilterLines& aLines, int aCount) {
    int nFilters = aCount;
    for (int i = 0; i < aCount; ++i) {
        if (g_cmSystem.regcomp(&re[i], aLines[i], REG_EXTENDED | REG_NOSUB) != 0) {
            FreeFilters();
            nFilters = 0;
            break;
        }
        ++s_nCompiled;
        ++nFilters;
    }
    regex_cnt.store(nFilters, std::memory_order_relaxed);
}

}  // namespace

void CCmT120TraceFileMgr::init_reg_filter() {
    CCmTraceGuard guard;
    FilterLines* pLines = static_cast<FilterLines*>(g_cmSystem.malloc(sizeof(FilterLines)));
    if (pLines == nullptr) {
        return;
    }
    const int nLines = ReadFilterLines(*pLines);
    if (nLines > 0) {
        CCmScopedLockT<CCmMutexThread> lock(s_filterMutex.m_Lock);
        FreeFilters();
        CompileFilters(*pLines, nLines);
    }
    std::free(pLines);
}

}  // namespace UTIL_NS
