#include "CmT120TraceFile.h"

#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "CmClock.h"
#include "CmConfig.h"
#include "CmFileTurn.h"
#include "CmProfileReader.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTimeValue.h"
#include "CmTraceGuard.h"

namespace UTIL_NS {

namespace {

constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t MARKER_LENGTH = sizeof(MARKER) - 1;
static_assert(MARKER_LENGTH == 73, "71 characters and two line ends");

constexpr size_t HEADER_LENGTH = 32;         // bytes, the line end included
constexpr long POSITION_MAX = LONG_MAX / 2;  // beyond it a header is no position
constexpr size_t LINE_SIZE = 2048;           // bytes of the line buffer for each line of a flush
constexpr int FLUSH_COUNT_MAX = (INT_MAX - 1) / static_cast<int>(LINE_SIZE);
constexpr int VALID = 20050704;
constexpr unsigned long EXIT_WAIT = 200;             // ms
constexpr timespec DEADLOCK_NAP = {0, 1000 * 1000};  // 1 ms

constexpr char FILTER_FILE[] = "conf/keltoexp.filter";
constexpr size_t FILTER_PATH_SIZE = 64;    // bytes; the home directory has at most 16
constexpr size_t FILTER_LINE_SIZE = 1024;  // bytes

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

// Writes the line into aBuffer as snprintf does and returns its whole length. The paths differ in
// how they print the process: signed (buffered) or unsigned (shared).
int FormatLine(char* aBuffer, size_t aSize, bool aShared, const char* aTag, const char* aModule,
               const char* aText) {
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    const time_t now = tvNow.GetSec();
    tm date = {};
    g_cmSystem.localtime_r(&now, &date);
    char achStamp[128];
    std::snprintf(achStamp, sizeof(achStamp),
                  aShared ? "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%u tid=%d]"
                          : "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d]",
                  date.tm_mon + 1, date.tm_mday, date.tm_year + 1900, date.tm_hour, date.tm_min,
                  date.tm_sec, static_cast<int>(tvNow.GetUsec() / 1000), getpid(),
                  ThreadIdentity());
    if (aModule == nullptr) {
        return std::snprintf(aBuffer, aSize, "%s %s\n", achStamp, aText);
    }
    if (aTag == nullptr) {
        return std::snprintf(aBuffer, aSize, "%s %s:%s\n", achStamp, aModule, aText);
    }
    return std::snprintf(aBuffer, aSize, "%s [%s] %s:%s\n", achStamp, aTag, aModule, aText);
}

// Whole transfers, however many calls they take; false when one fails.
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

// Beyond the process's limit a write, or a file that is made longer, raises a signal that ends it.
bool IsWithinFileSizeLimit(long aEnd) {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    return static_cast<rlim_t>(aEnd) <= limit.rlim_cur;
}

// The start of a file; behind the end of a shorter one aBuffer stays as it is.
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
      m_nDescriptor(0) {}

CCmT120TraceFile::~CCmT120TraceFile() {
    CCmTraceGuard guard;
    end();
    std::free(m_pchLines);
    std::free(m_pszName);
}

// Flushes, and closes the attached file. From then on the record drops every line and attaches no
// file.
void CCmT120TraceFile::end() {
    FILE* pStream;
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        flush_buffer_l();
        pStream = std::exchange(m_pStream, nullptr);
        // Volatile, so that the mark of a record that is gone reaches its memory.
        *const_cast<volatile int*>(&m_nValidity) = 0;
    }
    if (pStream != nullptr) {
        CmCloseTurnFile(pStream);
    }
}

CmResult CCmT120TraceFile::attach(const char* aPath) {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
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
    if (m_bShared) {
        if (has_line_buffer()) {
            write_shared(aTag, aModule, aText);
        }
        return;
    }
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    if (m_pchLines == nullptr) {
        return;
    }
    if (regex_match(aModule) != 0) {
        collect_line_l(aTag, aModule, aText);
    }
    if (m_nBufferedLines >= m_nFlushCount) {
        flush_buffer_l();
    }
}

void CCmT120TraceFile::collect_line_l(const char* aTag, const char* aModule, const char* aText) {
    const size_t nRoom = static_cast<size_t>(m_nFlushCount) * LINE_SIZE - m_ulBufferedBytes;
    char* pchLine = m_pchLines + m_ulBufferedBytes;
    const int nLength =
        FormatLine(pchLine, nRoom, false, aTag, aModule, aText != nullptr ? aText : "(null)");
    if (nLength <= 0 || m_pStream == nullptr) {
        return;
    }
    size_t nStored = static_cast<size_t>(nLength);
    if (nStored >= nRoom) {
        nStored = nRoom - 1;
        if (nStored > 0) {
            pchLine[nStored - 1] = '\n';
        }
    }
    m_ulBufferedBytes += nStored;
    ++m_nBufferedLines;
}

void CCmT120TraceFile::flush_buffer() {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    flush_buffer_l();
}

// Lines that cannot be written are lost, rather than filling the buffer for good.
void CCmT120TraceFile::flush_buffer_l() {
    if (m_pStream == nullptr || m_ulBufferedBytes == 0) {
        return;
    }
    long lPosition = 0;
    if (read_position_l(lPosition)) {
        // The position stays where it is; only the shared path starts at the top again.
        if (is_at_limit_l(lPosition)) {
            truncate_l(lPosition);
            m_bWrapped = 1;
        }
        write_at_l(lPosition, m_pchLines, m_ulBufferedBytes);
    }
    m_ulBufferedBytes = 0;
    m_nBufferedLines = 0;
}

void CCmT120TraceFile::write_shared(const char* aTag, const char* aModule, const char* aText) {
    CCmTraceGuard guard;
    FILE* const pStream = stream();
    if (aText == nullptr || pStream == nullptr) {
        return;
    }
    // Another process may keep the file's lock for any time: meanwhile no lock is held here but the
    // file's turn.
    CCmFileTurn turn(pStream);
    if (!turn.held()) {
        return;
    }
    request_file_lock_l(m_LockRequest);
    {
        CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
        write_shared_l(aTag, aModule, aText);
    }
    request_file_lock_l(m_UnlockRequest);
}

FILE* CCmT120TraceFile::stream() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_pStream;
}

bool CCmT120TraceFile::has_line_buffer() {
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    return m_pchLines != nullptr;
}

// With the file's lock held. The record may have ended while that was waited for.
void CCmT120TraceFile::write_shared_l(const char* aTag, const char* aModule, const char* aText) {
    long lPosition = 0;
    if (m_pStream == nullptr || !read_position_l(lPosition)) {
        return;
    }
    if (is_at_limit_l(lPosition)) {
        truncate_l(lPosition);
        lPosition = HEADER_LENGTH;
    }
    write_line_l(lPosition, aTag, aModule, aText);
}

// A line of any length; one that needs more memory than there is goes out cut.
void CCmT120TraceFile::write_line_l(long aPosition, const char* aTag, const char* aModule,
                                    const char* aText) {
    if (regex_match(aModule) == 0) {
        write_at_l(aPosition, "", 0);
        return;
    }
    char achLine[LINE_SIZE];
    const int nLength = FormatLine(achLine, sizeof(achLine), true, aTag, aModule, aText);
    if (nLength <= 0) {
        return;
    }
    size_t nStored = static_cast<size_t>(nLength);
    if (nStored < sizeof(achLine)) {
        write_at_l(aPosition, achLine, nStored);
        return;
    }
    char* pchLong = static_cast<char*>(g_cmSystem.malloc(nStored + 1));
    if (pchLong == nullptr) {
        achLine[sizeof(achLine) - 2] = '\n';
        write_at_l(aPosition, achLine, sizeof(achLine) - 1);
        return;
    }
    FormatLine(pchLong, nStored + 1, true, aTag, aModule, aText);
    pchLong[nStored - 1] = '\n';
    write_at_l(aPosition, pchLong, nStored);
    std::free(pchLong);
}

// Until the lock is taken or released. Any other failure leaves the line to be written unlocked.
//
// The system takes a process for one owner: it refuses a lock when another process holds it that in
// turn waits for a lock of some other thread here. No thread of ours waits for a second lock, so
// that is no deadlock but a matter of time.
void CCmT120TraceFile::request_file_lock_l(struct flock& aRequest) {
    while (g_cmSystem.fcntl(m_nDescriptor, F_SETLKW, &aRequest) < 0) {
        if (errno == EDEADLK) {
            g_cmSystem.nanosleep(&DEADLOCK_NAP, nullptr);
        } else if (errno != EINTR && errno != EAGAIN) {
            return;
        }
    }
}

// The position in the header; 0 where there is none. False when it cannot be read: then nothing
// may be written, since it could go over lines that are there.
//
// Files are read and written past the stream's buffer, in which another process's changes would
// not show; the stream owns the descriptor.
bool CCmT120TraceFile::read_position_l(long& aPosition) {
    char achHeader[HEADER_LENGTH + 1] = {};
    if (!ReadFully(m_nDescriptor, achHeader, HEADER_LENGTH)) {
        return false;
    }
    aPosition = std::strtol(achHeader, nullptr, 10);
    return aPosition >= 0 && aPosition <= POSITION_MAX;
}

bool CCmT120TraceFile::is_at_limit_l(long aPosition) const {
    return m_ulSizeLimit != 0 && static_cast<unsigned long>(aPosition) >= m_ulSizeLimit;
}

void CCmT120TraceFile::truncate_l(long aPosition) {
    if (!IsWithinFileSizeLimit(aPosition)) {
        return;
    }
    while (g_cmSystem.ftruncate(m_nDescriptor, aPosition) < 0 && errno == EINTR) {
    }
}

// The header moves only when the lines are on disk; until then it leaves them to be overwritten.
void CCmT120TraceFile::write_at_l(long aPosition, const char* aText, size_t aLength) {
    const long lEnd = aPosition + static_cast<long>(aLength);
    if (!IsWithinFileSizeLimit(lEnd + static_cast<long>(MARKER_LENGTH)) ||
        !WriteFully(m_nDescriptor, aText, aLength, aPosition) ||
        !WriteFully(m_nDescriptor, MARKER, MARKER_LENGTH, lEnd)) {
        return;
    }
    char achHeader[HEADER_LENGTH + 1];
    std::snprintf(achHeader, sizeof(achHeader), "%-31ld\n", lEnd);
    WriteFully(m_nDescriptor, achHeader, HEADER_LENGTH, 0);
}

unsigned char CCmT120TraceFile::refresh_settings(unsigned long aSizeLimit, int aFlushCount) {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThread> lock(m_Mutex);
    flush_buffer_l();
    m_ulSizeLimit = aSizeLimit;
    const int nFlushCount = BoundedFlushCount(aFlushCount);
    if (nFlushCount == m_nFlushCount) {
        return 1;
    }
    m_nFlushCount = nFlushCount;
    std::free(m_pchLines);
    m_pchLines =
        static_cast<char*>(g_cmSystem.malloc(static_cast<size_t>(nFlushCount) * LINE_SIZE + 1));
    m_ulBufferedBytes = 0;
    m_nBufferedLines = 0;
    return 1;
}

unsigned char CCmT120TraceFile::is_same_file(const char* aName) const {
    return aName != nullptr && m_pszName != nullptr && std::strcmp(aName, m_pszName) == 0 ? 1 : 0;
}

CCmT120TraceFileMgr g_trace_mgr;

CCmT120TraceFileMgr::~CCmT120TraceFileMgr() {
    CCmTraceGuard guard;
    ms_sleep(EXIT_WAIT);
    // Lines that come while the program ends must not take a mutex that is gone.
    m_bEnded.store(true, std::memory_order_relaxed);
    if (this == &g_trace_mgr) {
        end_records();
        return;
    }
    CCmT120TraceFile* pFile = m_pHeader.exchange(nullptr, std::memory_order_relaxed);
    while (pFile != nullptr) {
        CCmT120TraceFile* pNext = pFile->m_pNext.load(std::memory_order_relaxed);
        delete pFile;
        pFile = pNext;
    }
    m_Mutex.m_Lock.~CCmMutexThreadRecursive();
}

// While the program ends, other threads may still use the records and the mutex: those stay.
void CCmT120TraceFileMgr::end_records() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex.m_Lock);
    for (CCmT120TraceFile* pFile = m_pHeader.load(std::memory_order_relaxed); pFile != nullptr;
         pFile = pFile->m_pNext.load(std::memory_order_relaxed)) {
        pFile->end();
    }
}

void* CCmT120TraceFileMgr::open(const char* aName, unsigned long aSizeLimit, unsigned char aShared,
                                unsigned char aIgnored) {
    if (m_bEnded.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex.m_Lock);
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
    // Orders the record before its visibility to refresh_settings, which takes no lock.
    m_pHeader.store(pNew, std::memory_order_release);
    ++m_dwCount;
    return pNew;
}

void CCmT120TraceFileMgr::close(void* aRecord) {
    if (m_bEnded.load(std::memory_order_relaxed)) {
        return;
    }
    CCmTraceGuard guard;
    delete unlink_record(aRecord);
}

CCmT120TraceFile* CCmT120TraceFileMgr::unlink_record(const void* aRecord) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex.m_Lock);
    std::atomic<CCmT120TraceFile*>* pLink = &m_pHeader;
    while (CCmT120TraceFile* pFile = pLink->load(std::memory_order_relaxed)) {
        if (pFile == aRecord) {
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
std::atomic<int> regex_cnt{0};

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

// Without waiting for the writer of a named pipe.
FILE* OpenFilterFile() {
    const size_t nHome = ::strnlen(g_def_kelto_home_dir, CM_HOME_DIR_SIZE);
    const bool bSlash = nHome > 0 && g_def_kelto_home_dir[nHome - 1] == '/';
    char achPath[FILTER_PATH_SIZE];
    std::snprintf(achPath, sizeof(achPath), "%.*s%s%s", static_cast<int>(nHome),
                  g_def_kelto_home_dir, bSlash ? "" : "/", FILTER_FILE);
    const int nFile = CmOpenForReading(achPath);
    FILE* pFile = nFile >= 0 ? g_cmSystem.fdopen(nFile, "rt") : nullptr;
    if (nFile >= 0 && pFile == nullptr) {
        g_cmSystem.close(nFile);
    }
    return pFile;
}

// 0 also when the file cannot be read to its end, as a named pipe that is still being written.
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
        ::regfree(&re[i]);
    }
    s_nCompiled = 0;
    std::memset(re, 0, sizeof(re));
}

// Each line read and each line compiled counts, so that success ends at twice the lines.
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
