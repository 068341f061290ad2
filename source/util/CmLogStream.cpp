#include "CmLogStream.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "CmConfig.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmTraceFacility.h"
#include "CmTraceGuard.h"
#include "CmTraceLine.h"
#include "qtrace.h"

namespace UTIL_NS {

namespace {

constexpr unsigned long DELIVERY_LEVEL = 2;  // of all four level functions
constexpr size_t TEXT_LIMIT = 0x20000;       // bytes that a level function delivers at most
constexpr size_t STACK_TEXT_SIZE = 1024;     // bytes; what is longer goes to the heap
constexpr unsigned long CHUNK_SIZE = 2048;   // bytes of one piece, the terminator included
constexpr unsigned long PREFIX_SIZE = 256;   // bytes
constexpr size_t MACHINE_SIZE = 256;         // bytes
constexpr size_t HOST_NAME_SIZE = 512;       // bytes
constexpr size_t LEADING_ID_SIZE = 1024;     // bytes
constexpr char FILE_NAME_TAG[] = "##**FILE_NAME_TAG**##";

CM_CONSTANT_INIT CCmTraceLevelTable s_levelTable2 =
    CmMakeTraceLevelTable(&CCmTraceLevel::m_bDefault2);

CCmFacilityHolderT<CCmT120Trace2> s_facility2;

bool IsDelivered(unsigned long aLevel) {
    return aLevel >= _getTraceLevel();
}

// Delivers aText in pieces. The terminator counts: where that alone is left over, the last piece is
// empty.
void DeliverPieces(unsigned long aLevel, const char* aModule, std::string_view aText) {
    constexpr size_t PIECE_LENGTH = CHUNK_SIZE - 1;
    for (size_t nStart = 0; nStart <= aText.size(); nStart += PIECE_LENGTH) {
        char szPiece[CHUNK_SIZE] = {};
        aText.copy(szPiece, PIECE_LENGTH, nStart);
        char szPrefix[PREFIX_SIZE] = {};
        YRKTRACERAWA(aLevel, aModule, szPrefix, szPiece);
    }
}

// aText is terminated; what fills aChunkSize without the terminator goes out in pieces. False when
// the trace library threw. Callers have disabled cancellation, so no unwinding of the thread is
// caught here.
bool Deliver(unsigned long aLevel, const char* aModule, std::string_view aText,
             unsigned long aChunkSize = CHUNK_SIZE) {
    try {
        if (aText.size() >= aChunkSize) {
            DeliverPieces(aLevel, aModule, aText);
        } else {
            YRKTRACERAWA(aLevel, aModule, nullptr, aText.data());
        }
    } catch (...) {
        return false;
    }
    return true;
}

// What a log stream of this level would ask and deliver for the text of a level function, without
// the stream: the threshold is asked for on insertion and again at the end. aText is terminated.
void DeliverAsStream(const char* aModule, std::string_view aText) {
    const bool bInserted = IsDelivered(DELIVERY_LEVEL);
    if (IsDelivered(DELIVERY_LEVEL)) {
        Deliver(DELIVERY_LEVEL, aModule, bInserted ? aText : "");
    }
}

// vsnprintf with the caller's errno, which "%m" prints where the system knows it.
int Format(char* aText, size_t aSize, const char* aFormat, va_list aArguments, int aErrno) {
    errno = aErrno;
    return std::vsnprintf(aText, aSize, aFormat, aArguments);
}

// A text that does not fit the stack buffer.
void DeliverLong(const char* aModule, const char* aFormat, va_list aArguments, size_t aLength,
                 int aErrno) {
    const size_t nSize = aLength < TEXT_LIMIT ? aLength + 1 : TEXT_LIMIT;
    char* pszText = static_cast<char*>(g_cmSystem.malloc(nSize));
    if (pszText == nullptr) {
        return;
    }
    Format(pszText, nSize, aFormat, aArguments, aErrno);
    DeliverAsStream(aModule, pszText);
    std::free(pszText);
}

// A NUL that a "%c" put in ends the text.
void DeliverFormatted(const char* aModule, const char* aFormat, va_list aArguments, int aErrno) {
    va_list arguments;
    va_copy(arguments, aArguments);
    char szText[STACK_TEXT_SIZE];
    const int nLength = Format(szText, sizeof(szText), aFormat, arguments, aErrno);
    va_end(arguments);
    if (nLength < 0) {
        DeliverAsStream(aModule, "");
    } else if (static_cast<size_t>(nLength) < sizeof(szText)) {
        DeliverAsStream(aModule, szText);
    } else {
        DeliverLong(aModule, aFormat, aArguments, static_cast<size_t>(nLength), aErrno);
    }
}

// For the format "%s": delivers the text without formatting and, unless it has to be cut, without a
// copy. False when it must be formatted.
bool DeliverPlain(const char* aModule, const char* aFormat, va_list aArguments) {
    if (std::strcmp(aFormat, "%s") != 0) {
        return false;
    }
    va_list arguments;
    va_copy(arguments, aArguments);
    const char* pszText = va_arg(arguments, const char*);
    va_end(arguments);
    if (pszText == nullptr) {
        return false;
    }
    const std::string_view text(pszText);
    if (text.size() >= TEXT_LIMIT) {
        return false;
    }
    DeliverAsStream(aModule, text);
    return true;
}

int TraceToLibrary(const char* aModule, const char* aFormat, va_list aArguments) {
    if (aModule == nullptr || aFormat == nullptr) {
        return 0;
    }
    const int nError = errno;
    CCmTraceGuard guard;
    if (IsDelivered(DELIVERY_LEVEL)) {
        if (!DeliverPlain(aModule, aFormat, aArguments)) {
            DeliverFormatted(aModule, aFormat, aArguments, nError);
        }
    } else if (IsDelivered(DELIVERY_LEVEL)) {
        // The threshold fell between the two questions: an empty stream is delivered.
        Deliver(DELIVERY_LEVEL, aModule, "");
    }
    return 1;
}

}  // namespace

int ccu_trace_debug(const char* aModule, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = TraceToLibrary(aModule, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

int ccu_trace_info(const char* aModule, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = TraceToLibrary(aModule, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

int ccu_trace_warn(const char* aModule, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = TraceToLibrary(aModule, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

int ccu_trace_error(const char* aModule, const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    const int nResult = TraceToLibrary(aModule, aFormat, arguments);
    va_end(arguments);
    return nResult;
}

namespace ccu {

YrktraStreamA::YrktraStreamA(unsigned long aLevel)
    : m_ulLevel(aLevel), m_ulLength(0), m_ulChunkSize(CHUNK_SIZE), m_pchBuffer(nullptr) {}

void YrktraStreamA::writestringa(const char* aText) {
    if (aText == nullptr) {
        return;
    }
    CCmTraceGuard guard;
    const unsigned long ulKept = m_pchBuffer != nullptr ? m_ulLength - 1 : 0;
    const unsigned long ulAdded = std::strlen(aText) + 1;
    // aText may lie in the old buffer, which therefore stays until both are copied.
    char* pchNew = static_cast<char*>(g_cmSystem.malloc(ulKept + ulAdded));
    if (pchNew != nullptr) {
        if (ulKept > 0) {
            std::memcpy(pchNew, m_pchBuffer, ulKept);
        }
        std::memcpy(pchNew + ulKept, aText, ulAdded);
    }
    std::free(m_pchBuffer);
    m_pchBuffer = pchNew;
    m_ulLength = pchNew != nullptr ? ulKept + ulAdded : 0;
}

void YrktraStreamA::flusha(const char* aModule) {
    if (m_pchBuffer == nullptr) {
        return;
    }
    CCmTraceGuard guard;
    if (Deliver(m_ulLevel, aModule, m_pchBuffer, m_ulChunkSize)) {
        std::free(m_pchBuffer);
    }
    m_pchBuffer = nullptr;
}

logstream<char>::logstream(unsigned long aLevel, const char* aModule)
    : m_ulLevel(aLevel), m_pszModule(aModule) {}

logstream<char>::~logstream() {
    CCmTraceGuard guard;
    if (!IsDelivered(m_ulLevel)) {
        return;
    }
    std::string strText;
    const char* pszText = "null";
    try {
        // Past the stream, which takes nothing in a bad state and may have been told to throw.
        rdbuf()->sputc('\0');
        strText = str();
        pszText = strText.c_str();
    } catch (const std::exception&) {
        // Out of memory: the text has no storage.
    }
    YrktraStreamA stream(m_ulLevel);
    stream.writestringa(pszText);
    stream.flusha(m_pszModule);
}

}  // namespace ccu

CmStd::atomic<CCmT120Trace2*> CCmT120Trace2::t120_trace{nullptr};

CCmT120Trace2* CCmT120Trace2::instance() {
    CCmT120Trace2* pFacility = t120_trace.load(std::memory_order_acquire);
    return CM_LIKELY(pFacility != nullptr)
               ? pFacility
               : s_facility2.Create(t120_trace, s_levelTable2.m_Entries);
}

CCmT120Trace2::CCmT120Trace2(const char* aName, CCmT120TraceMapEntry* aLevelTable,
                             const char* aFileName, unsigned char aSingleFile)
    : CCmT120Trace(aName, aLevelTable, aFileName, aSingleFile) {}

CCmT120Trace2::~CCmT120Trace2() = default;

unsigned char CCmT120Trace2::load(void* aFile) {
    CTraceState::Load(*this, aFile, &m_sLogPath);
    return 1;
}

std::string CCmT120Trace2::GetLogFilePathAndName(std::string& aName) {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    const size_t nTag = m_sLogPath.find(FILE_NAME_TAG);
    if (nTag == std::string::npos) {
        return std::string();
    }
    try {
        std::string strPath(m_sLogPath);
        return strPath.replace(nTag, sizeof(FILE_NAME_TAG) - 1, aName);
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

CmStd::atomic<const char*> g_LeadingId{nullptr};

namespace {

char s_szLeadingId[LEADING_ID_SIZE];

// The machine part of the identity: the setting, else the host name, else nothing.
void ReadMachine(char (&aMachine)[HOST_NAME_SIZE]) {
    get_string_param("Trace", "MachineID", aMachine, MACHINE_SIZE);
    char szHost[HOST_NAME_SIZE] = {};
    if (g_cmSystem.gethostname(szHost, sizeof(szHost)) != 0) {
        const int nError = errno;
        CM_WARNING_TRACE("CCmDnsManager::GetLocalIps, gethostname() failed! err=" << nError);
        return;
    }
    if (aMachine[0] == '\0') {
        // A name that was cut need not be terminated.
        szHost[sizeof(szHost) - 1] = '\0';
        std::memcpy(aMachine, szHost, sizeof(szHost));
    }
}

int LengthWithoutExtension(const char* aProcess) {
    constexpr char EXTENSION[] = ".exe";
    constexpr size_t EXTENSION_LENGTH = sizeof(EXTENSION) - 1;
    const size_t nLength = std::strlen(aProcess);
    const bool bHasIt = nLength >= EXTENSION_LENGTH &&
                        std::strcmp(aProcess + nLength - EXTENSION_LENGTH, EXTENSION) == 0;
    return static_cast<int>(bHasIt ? nLength - EXTENSION_LENGTH : nLength);
}

}  // namespace

}  // namespace UTIL_NS

const char* get_leading_id() {
    using namespace UTIL_NS;
    if (const char* pszId = g_LeadingId.load(std::memory_order_acquire)) {
        return pszId;
    }
    static CCmEternalLockT<CCmMutexThreadRecursive> s_mutex;
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(s_mutex.m_Lock);
    if (const char* pszId = g_LeadingId.load(std::memory_order_acquire)) {
        return pszId;
    }
    char szMachine[HOST_NAME_SIZE] = {};
    ReadMachine(szMachine);
    const char* pszProcess = CCmT120Trace::get_process_name();
    std::snprintf(s_szLeadingId, sizeof(s_szLeadingId), "%.*s.%s.",
                  LengthWithoutExtension(pszProcess), pszProcess, szMachine);
    // Release, paired with the acquire of the unlocked read above: who sees the pointer sees the
    // text.
    g_LeadingId.store(s_szLeadingId, std::memory_order_release);
    return s_szLeadingId;
}
