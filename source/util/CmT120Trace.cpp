#include "CmT120Trace.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "CmConfig.h"
#include "CmLogStream.h"
#include "CmProcessName.h"
#include "CmScopedLock.h"
#include "CmSystem.h"
#include "CmT120TraceFile.h"
#include "CmTimeValue.h"
#include "CmTraceFacility.h"
#include "CmTraceGuard.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr char SECTION[] = "Trace";
constexpr char DEFAULT_MODULE[] = "util.dll";
constexpr char DELIVERED_MODULE[] = "MAC";
constexpr char BUNDLE_NAME[] = "/yrktrace.bundle";

constexpr size_t MODULE_PATH_SIZE = 1024;  // bytes
constexpr size_t FILE_PATH_SIZE = 512;
constexpr size_t TRACE_DIR_SIZE = 512;
constexpr size_t KEY_SIZE = 128;
constexpr size_t MODULE_LIST_SIZE = 1025;
constexpr size_t MODULE_NAME_LENGTH = 32;  // characters

constexpr int LEAST_SIZE_LIMIT = 1025;                   // bytes
constexpr unsigned long DEFAULT_SIZE_LIMIT = 0x1400000;  // 20 MiB

// The levels that have a switch per module, as masks over the level numbers.
constexpr unsigned long MODULE_DEFAULT_OFF = 0xAA04000;  // 14, 21, 23, 25, 27
constexpr unsigned long MODULE_DEFAULT_ON = 0x100401;    // 0, 10, 20

CCmT120TraceMapEntry s_levelTable[CM_TRACE_LEVEL_COUNT] = {
    {0, "Error", {1}, 1},    {1, "Server", {1}, 1},   {2, "NA", {0}, 0},
    {3, "NA", {0}, 0},       {4, "NA", {0}, 0},       {5, "NA", {0}, 0},
    {6, "NA", {0}, 0},       {7, "NA", {0}, 0},       {8, "NA", {0}, 0},
    {9, "NA", {0}, 0},       {10, "Warning", {1}, 1}, {11, "Meeting", {1}, 1},
    {12, "Session", {1}, 1}, {13, "User", {1}, 1},    {14, "Statistic", {0}, 0},
    {15, "NA", {0}, 0},      {16, "NA", {0}, 0},      {17, "NA", {0}, 0},
    {18, "NA", {0}, 0},      {19, "NA", {0}, 0},      {20, "Info", {1}, 1},
    {21, "State", {0}, 0},   {22, "PDU", {0}, 0},     {23, "Func", {0}, 0},
    {24, "Tick", {0}, 0},    {25, "Detail", {0}, 0},  {26, "WDMS", {0}, 0},
    {27, "Debug", {0}, 0},
};

CCmFacilityHolderT<CCmT120Trace> s_facility;
CCmEternalLockT<CCmMutexThread> s_traceDirMutex;
CCmEternalLockT<CCmMutexThread> s_fileSettingsMutex;

unsigned long ConfiguredSizeLimit(const char* aKey) {
    const int nSize = get_int_param(SECTION, aKey);
    return nSize < LEAST_SIZE_LIMIT ? DEFAULT_SIZE_LIMIT : static_cast<unsigned long>(nSize);
}

// Cuts aCount components off the end; false when the path has fewer.
bool StripComponents(char* aPath, int aCount) {
    for (int i = 0; i < aCount; ++i) {
        char* pchSlash = std::strrchr(aPath, '/');
        if (pchSlash == nullptr) {
            return false;
        }
        *pchSlash = '\0';
    }
    return true;
}

// The path of the bundle beside the library. A library without file-name extension is the
// executable file of a framework package, four levels below the package's directory.
bool FindBundle(char (&aPath)[MODULE_PATH_SIZE]) {
    if (!CmPortModulePath(aPath, sizeof(aPath))) {
        return false;
    }
    const bool bFramework = CmPortItemInformation(aPath) == CmPortItem::WITHOUT_EXTENSION;
    if (!StripComponents(aPath, bFramework ? 4 : 1)) {
        return false;
    }
    const size_t nLength = std::strlen(aPath);
    if (nLength + sizeof(BUNDLE_NAME) > sizeof(aPath)) {
        return false;
    }
    std::memcpy(aPath + nLength, BUNDLE_NAME, sizeof(BUNDLE_NAME));
    return true;
}

// The key of a level for one module, cut to the size of the buffer.
void FormatModuleKey(char (&aKey)[KEY_SIZE], const char* aProcess, const char* aModule,
                     const char* aLevelName) {
    std::snprintf(aKey, sizeof(aKey), "%s.%s.%s", aProcess, aModule, aLevelName);
}

// Numbers the readings of the configuration.
std::atomic<uint32_t> s_dwReadings{0};

bool IsEarlier(uint32_t aReading, uint32_t aOther) {
    return static_cast<int32_t>(aReading - aOther) < 0;
}

// What the configuration says.
struct Settings {
    unsigned long m_ulSizeLimit;
    int m_nFlushCount;
    unsigned char m_bEnabled;
    unsigned char m_abLevels[CM_TRACE_LEVEL_COUNT];
    std::set<CCmString, std::less<>> m_DisabledKeys;
};

void ReadLevels(Settings& aSettings, const char* aProcess, const CCmT120TraceMapEntry* aLevelTable,
                unsigned long aLevelCount) {
    for (unsigned long i = 0; i < aLevelCount; ++i) {
        const CCmT120TraceMapEntry& entry = aLevelTable[i];
        aSettings.m_abLevels[i] = entry.m_bEnabled.load(std::memory_order_relaxed);
        if (entry.m_pszName != nullptr) {
            char achKey[KEY_SIZE];
            std::snprintf(achKey, sizeof(achKey), "%s.%s", aProcess, entry.m_pszName);
            aSettings.m_abLevels[i] = get_bool_param(SECTION, achKey, entry.m_bDefault);
        }
    }
}

void RecordDisabledKey(Settings& aSettings, const char* aKey) {
    try {
        aSettings.m_DisabledKeys.insert(aKey);
    } catch (const std::bad_alloc&) {
        // Without memory the level stays on for the module.
    }
}

void ReadModule(Settings& aSettings, const char* aProcess, const char* aModule,
                const CCmT120TraceMapEntry* aLevelTable, unsigned long aLevelCount) {
    for (unsigned long i = 0; i < aLevelCount; ++i) {
        const bool bDefaultOff = (MODULE_DEFAULT_OFF >> i & 1) != 0;
        const bool bDefaultOn = (MODULE_DEFAULT_ON >> i & 1) != 0;
        if (!bDefaultOff && !bDefaultOn) {
            continue;
        }
        char achKey[KEY_SIZE];
        FormatModuleKey(achKey, aProcess, aModule, aLevelTable[i].m_pszName);
        if (get_bool_param(SECTION, achKey, bDefaultOn ? 1 : 0) == 0) {
            RecordDisabledKey(aSettings, achKey);
        }
    }
}

void ReadModules(Settings& aSettings, const char* aProcess, const CCmT120TraceMapEntry* aLevelTable,
                 unsigned long aLevelCount) {
    char achKey[KEY_SIZE];
    std::snprintf(achKey, sizeof(achKey), "%s.Module", aProcess);
    char achList[MODULE_LIST_SIZE];
    if (get_string_param(SECTION, achKey, achList, sizeof(achList)) == 0) {
        return;
    }
    const char* pchName = achList;
    while (true) {
        const size_t nLength = std::strcspn(pchName, ",");
        if (nLength > MODULE_NAME_LENGTH) {
            return;
        }
        char achModule[MODULE_NAME_LENGTH + 1] = {};
        std::memcpy(achModule, pchName, nLength);
        ReadModule(aSettings, aProcess, achModule, aLevelTable, aLevelCount);
        if (pchName[nLength] == '\0') {
            return;
        }
        pchName += nLength + 1;
    }
}

void ReadSettings(Settings& aSettings, const char* aProcess,
                  const CCmT120TraceMapEntry* aLevelTable, unsigned long aLevelCount) {
    const int nFlushCount = get_int_param(SECTION, "FlushPerLines");
    aSettings.m_nFlushCount = nFlushCount <= 0 ? 1 : nFlushCount;
    aSettings.m_ulSizeLimit = ConfiguredSizeLimit(aProcess);
    aSettings.m_bEnabled = get_bool_param(SECTION, "Enable", 1);
    ReadLevels(aSettings, aProcess, aLevelTable, aLevelCount);
    ReadModules(aSettings, aProcess, aLevelTable, aLevelCount);
}

// To every trace file, which keeps those of a later reading. One mutex for both facilities, whose
// readings go to the same files.
void RefreshFiles(const Settings& aSettings, uint32_t aReading) {
    static uint32_t s_dwReading = 0;
    CCmScopedLockT<CCmMutexThread> lock(s_fileSettingsMutex.m_Lock);
    if (IsEarlier(aReading, s_dwReading)) {
        return;
    }
    s_dwReading = aReading;
    T120_Refresh_Settings(aSettings.m_ulSizeLimit, aSettings.m_nFlushCount);
}

}  // namespace

std::atomic<CCmT120Trace*> CCmT120Trace::t120_trace{nullptr};

CCmT120Trace* CCmT120Trace::instance() {
    CCmT120Trace* pFacility = t120_trace.load(std::memory_order_acquire);
    return CM_LIKELY(pFacility != nullptr) ? pFacility
                                           : s_facility.Create(t120_trace, s_levelTable);
}

bool CCmT120Trace::is_wanted(unsigned long aLevel) {
    const CCmT120Trace* pFacility = t120_trace.load(std::memory_order_acquire);
    return pFacility == nullptr || pFacility->passing_function(aLevel) != nullptr;
}

// Its mutex needs no system call, so the construction has nothing to trace.
CCmT120Trace::CCmT120Trace(const char* aName, CCmT120TraceMapEntry* aLevelTable,
                           const char* aFileName, unsigned char aSingleFile)
    : m_pszName(aName),
      m_ulLevelCount(CM_TRACE_LEVEL_COUNT),
      m_pLevelTable(aLevelTable),
      m_pszFileName(aFileName),
      m_bSingleFile(aSingleFile),
      m_bEnabled(1),
      m_hTraceFiles{{nullptr}, {nullptr}, {nullptr}},
      m_nDayOfMonth(0),
      m_nMonth(0),
      m_ProcessId(getpid()),
      m_dwReading(0),
      m_Mutex(CCmStaticInit()),
      m_hBundle(nullptr),
      m_pfnDebug(nullptr),
      m_pfnInfo(nullptr),
      m_pfnWarn(nullptr),
      m_pfnError(nullptr) {
    CCmTraceGuard guard;
    const time_t now = CCmTimeValue::GetTimeOfDay().GetSec();
    tm date = {};
    if (g_cmSystem.localtime_r(&now, &date) != nullptr) {
        m_nDayOfMonth = date.tm_mday;
        m_nMonth = date.tm_mon + 1;
    }
    open_bundle();
}

CCmT120Trace::~CCmT120Trace() {
    m_hTraceFiles[0].store(nullptr, std::memory_order_relaxed);
    Close();
}

void CCmT120Trace::open_bundle() {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    char achPath[MODULE_PATH_SIZE];
    if (FindBundle(achPath)) {
        m_hBundle = CmPortBundleCreate(achPath);
    }
    if (m_hBundle != nullptr) {
        // Looked up, never used: the level functions are the library's own.
        for (const char* pszName : {"YRKDEBUG2", "YRKINFO2", "YRKWARN2", "YRKERROR2"}) {
            CmPortBundleFunction(m_hBundle, pszName);
        }
    }
    m_pfnDebug.store(ccu_trace_debug, std::memory_order_relaxed);
    m_pfnInfo.store(ccu_trace_info, std::memory_order_relaxed);
    m_pfnWarn.store(ccu_trace_warn, std::memory_order_relaxed);
    m_pfnError.store(ccu_trace_error, std::memory_order_relaxed);
}

void CCmT120Trace::Close() {
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    if (m_hBundle == nullptr) {
        return;
    }
    CmPortBundleRelease(m_hBundle);
    m_hBundle = nullptr;
    m_pfnDebug.store(nullptr, std::memory_order_relaxed);
    m_pfnInfo.store(nullptr, std::memory_order_relaxed);
    m_pfnWarn.store(nullptr, std::memory_order_relaxed);
    m_pfnError.store(nullptr, std::memory_order_relaxed);
}

unsigned char CCmT120Trace::load(void* aFile) {
    return load_file(aFile, nullptr);
}

unsigned char CCmT120Trace::load_file(void* aFile, CCmString* aLogPath) {
    CCmTraceGuard guard;
    // Acquires what the thread that loaded has set, for those that this one gives the facility to.
    if (aFile == nullptr && m_hTraceFiles[0].load(std::memory_order_acquire) != nullptr) {
        return 1;
    }
    g_cmSystem.mkdir(get_trace_dir(), 0777);
    const unsigned long ulSizeLimit =
        ConfiguredSizeLimit(m_pszFileName != nullptr ? m_pszFileName : get_process_name());
    void* hNew = open_file(aFile, ulSizeLimit, aLogPath);
    read_config();
    // The first record lets texts pass only now that the switches are known. Another thread may
    // have loaded meanwhile.
    void* hNone = nullptr;
    m_hTraceFiles[0].compare_exchange_strong(hNone, hNew, std::memory_order_release,
                                             std::memory_order_relaxed);
    return 1;
}

// Closes aFile (see load) and opens a record. One that replaces the facility's own takes its place
// at once; the first one, which the caller is to store, is returned.
void* CCmT120Trace::open_file(void* aFile, unsigned long aSizeLimit, CCmString* aLogPath) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    char achPath[FILE_PATH_SIZE];
    const bool bHasPath = build_file_path(achPath, sizeof(achPath), aLogPath);
    const bool bOwn = aFile == m_hTraceFiles[0].load(std::memory_order_relaxed);
    if (aFile != nullptr) {
        T120_Close_Trace_Dev(aFile);
    }
    if (!bHasPath || !(aFile == nullptr || bOwn)) {
        return nullptr;
    }
    void* hNew = T120_Open_Trace_Dev(achPath, aSizeLimit, m_bSingleFile, 0);
    if (aFile != nullptr) {
        m_hTraceFiles[0].store(hNew, std::memory_order_relaxed);
    }
    return hNew;
}

bool CCmT120Trace::build_file_path(char* aPath, size_t aSize, CCmString* aLogPath) const {
    const char* pszDir = get_trace_dir();
    if (m_pszFileName == nullptr) {
        std::snprintf(aPath, aSize, "%s/%s_Trace.txt", pszDir, get_process_name());
        if (aLogPath != nullptr) {
            try {
                *aLogPath = aPath;
            } catch (const std::bad_alloc&) {
                aLogPath->clear();
            }
        }
    } else if (m_bSingleFile) {
        std::snprintf(aPath, aSize, "%s/%s", pszDir, m_pszFileName);
    } else {
        std::snprintf(aPath, aSize, "%s/%s.%d", pszDir, m_pszFileName,
                      static_cast<int>(m_ProcessId));
    }
    return *aPath != '\0';
}

// The configuration is read without a lock: one may have to wait for it.
void CCmT120Trace::read_config() {
    CCmTraceGuard guard;
    const uint32_t dwReading = s_dwReadings.fetch_add(1, std::memory_order_relaxed) + 1;
    Settings settings;
    ReadSettings(settings, get_process_name(), m_pLevelTable, m_ulLevelCount);
    {
        CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
        // What was read later holds.
        if (IsEarlier(dwReading, m_dwReading)) {
            return;
        }
        m_dwReading = dwReading;
        m_bEnabled.store(settings.m_bEnabled, std::memory_order_relaxed);
        for (unsigned long i = 0; i < m_ulLevelCount; ++i) {
            m_pLevelTable[i].m_bEnabled.store(settings.m_abLevels[i], std::memory_order_relaxed);
        }
        m_DisabledKeys.swap(settings.m_DisabledKeys);
    }
    RefreshFiles(settings, dwReading);
}

void CCmT120Trace::refersh_trace_config() {
    read_config();
}

void refresh_trace_config() {
    CCmT120Trace::instance()->read_config();
}

// The level function that a text of this level goes to, null when it is dropped.
CCmT120Trace::LevelFunction CCmT120Trace::passing_function(unsigned long aLevel) const {
    if (m_hTraceFiles[0].load(std::memory_order_relaxed) == nullptr ||
        m_bEnabled.load(std::memory_order_relaxed) != 1 || !is_level_on(aLevel)) {
        return nullptr;
    }
    switch (m_pLevelTable[aLevel].m_ulLevel) {
        case 0:
            return m_pfnError.load(std::memory_order_relaxed);
        case 10:
            return m_pfnWarn.load(std::memory_order_relaxed);
        case 20:
            return m_pfnInfo.load(std::memory_order_relaxed);
        case 25:
            return m_pfnDebug.load(std::memory_order_relaxed);
        default:
            return nullptr;
    }
}

bool CCmT120Trace::is_level_on(unsigned long aLevel) const {
    return aLevel < m_ulLevelCount &&
           m_pLevelTable[aLevel].m_bEnabled.load(std::memory_order_relaxed) != 0;
}

void CCmT120Trace::trace_string(unsigned long aLevel, char* aText) {
    trace_string(aLevel, DEFAULT_MODULE, aText);
}

void CCmT120Trace::trace_string(unsigned long aLevel, const char* /*aModule*/, char* aText) {
    if (LevelFunction pfnLevel = passing_function(aLevel)) {
        pfnLevel(DELIVERED_MODULE, "%s", aText);
    }
}

unsigned char CCmT120Trace::enable_trace_print(unsigned long aLevel, const char* aModule) {
    if (m_bEnabled.load(std::memory_order_relaxed) == 0 || !is_level_on(aLevel)) {
        return 0;
    }
    if (aModule == nullptr) {
        return 1;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    if (m_DisabledKeys.empty()) {
        return 1;
    }
    char achKey[KEY_SIZE];
    FormatModuleKey(achKey, get_process_name(), aModule, m_pLevelTable[aLevel].m_pszName);
    return m_DisabledKeys.find(achKey) == m_DisabledKeys.end() ? 1 : 0;
}

void CCmT120Trace::log_string(char* /*aText*/) {}

void CCmT120Trace::Assert_Log(char* /*aFile*/, char* /*aExpression*/, int /*aLine*/) {}

const char* CCmT120Trace::get_process_name() {
    return CmProcessNameOf(get_exec_name(), "attrace");
}

const char* CCmT120Trace::get_trace_dir() {
    static char s_achTraceDir[TRACE_DIR_SIZE];
    char achDir[TRACE_DIR_SIZE];
    std::snprintf(achDir, sizeof(achDir), "%.*s/logs", CM_HOME_DIR_SIZE, g_def_kelto_home_dir);
    CCmScopedLockT<CCmMutexThread> lock(s_traceDirMutex.m_Lock);
    if (std::strcmp(s_achTraceDir, achDir) != 0) {
        std::memcpy(s_achTraceDir, achDir, sizeof(achDir));
    }
    return s_achTraceDir;
}

}  // namespace UTIL_NS
