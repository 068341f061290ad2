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
#include "CmTraceTap.h"
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

CM_CONSTANT_INIT CCmTraceLevelTable s_levelTable =
    CmMakeTraceLevelTable(&CCmTraceLevel::m_bDefault);

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

// Numbers the readings of the configuration in the order in which they begin.
CmStd::atomic<uint32_t> s_dwReadings{0};

// Holds also when the numbers have wrapped.
bool IsEarlier(uint32_t aReading, uint32_t aOther) {
    return static_cast<int32_t>(aReading - aOther) < 0;
}

// What the configuration says.
struct CSettings {
    unsigned long m_ulSizeLimit;
    int m_nFlushCount;
    unsigned char m_bEnabled;
    unsigned char m_abyLevels[CM_TRACE_LEVEL_COUNT];
    std::set<CCmString, std::less<>> m_DisabledKeys;
};

void ReadLevels(CSettings& aSettings, const char* aProcess, const CCmT120TraceMapEntry* aLevelTable,
                unsigned long aLevelCount) {
    for (unsigned long i = 0; i < aLevelCount; ++i) {
        const CCmT120TraceMapEntry& entry = aLevelTable[i];
        aSettings.m_abyLevels[i] = entry.m_bEnabled.load(std::memory_order_relaxed);
        if (entry.m_pszName != nullptr) {
            char szKey[KEY_SIZE];
            std::snprintf(szKey, sizeof(szKey), "%s.%s", aProcess, entry.m_pszName);
            aSettings.m_abyLevels[i] = get_bool_param(SECTION, szKey, entry.m_bDefault);
        }
    }
}

void RecordDisabledKey(CSettings& aSettings, const char* aKey) {
    try {
        aSettings.m_DisabledKeys.insert(aKey);
    } catch (const std::bad_alloc&) {
        // Without memory the level stays on for the module.
    }
}

void ReadModule(CSettings& aSettings, const char* aProcess, const char* aModule,
                const CCmT120TraceMapEntry* aLevelTable, unsigned long aLevelCount) {
    for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
        if (level.m_eModules == CCmTraceLevel::MODULES_NONE || level.m_ulLevel >= aLevelCount ||
            aLevelTable[level.m_ulLevel].m_pszName == nullptr) {
            continue;
        }
        char szKey[KEY_SIZE];
        FormatModuleKey(szKey, aProcess, aModule, aLevelTable[level.m_ulLevel].m_pszName);
        const unsigned char byDefault = level.m_eModules == CCmTraceLevel::MODULES_ON ? 1 : 0;
        if (get_bool_param(SECTION, szKey, byDefault) == 0) {
            RecordDisabledKey(aSettings, szKey);
        }
    }
}

void ReadModules(CSettings& aSettings, const char* aProcess,
                 const CCmT120TraceMapEntry* aLevelTable, unsigned long aLevelCount) {
    char szKey[KEY_SIZE];
    std::snprintf(szKey, sizeof(szKey), "%s.Module", aProcess);
    char szList[MODULE_LIST_SIZE];
    if (get_string_param(SECTION, szKey, szList, sizeof(szList)) == 0) {
        return;
    }
    const char* pchName = szList;
    while (true) {
        const size_t nLength = std::strcspn(pchName, ",");
        if (nLength > MODULE_NAME_LENGTH) {
            return;
        }
        char szModule[MODULE_NAME_LENGTH + 1] = {};
        std::memcpy(szModule, pchName, nLength);
        ReadModule(aSettings, aProcess, szModule, aLevelTable, aLevelCount);
        if (pchName[nLength] == '\0') {
            return;
        }
        pchName += nLength + 1;
    }
}

void ReadSettings(CSettings& aSettings, const char* aProcess,
                  const CCmT120TraceMapEntry* aLevelTable, unsigned long aLevelCount) {
    aSettings.m_nFlushCount = get_int_param(SECTION, "FlushPerLines");  // below 1: 1 to the files
    aSettings.m_ulSizeLimit = ConfiguredSizeLimit(aProcess);
    aSettings.m_bEnabled = get_bool_param(SECTION, "Enable", 1);
    ReadLevels(aSettings, aProcess, aLevelTable, aLevelCount);
    ReadModules(aSettings, aProcess, aLevelTable, aLevelCount);
}

// Hands the settings to every trace file, unless those of a later reading are there already. One
// mutex for both facilities, whose readings go to the same files.
void RefreshFiles(const CSettings& aSettings, uint32_t aReading) {
    static uint32_t s_dwReading = 0;
    CCmScopedLockT<CCmMutexThread> lock(s_fileSettingsMutex.m_Lock);
    if (IsEarlier(aReading, s_dwReading)) {
        return;
    }
    s_dwReading = aReading;
    T120_Refresh_Settings(aSettings.m_ulSizeLimit, aSettings.m_nFlushCount);
}

}  // namespace

CmStd::atomic<CCmT120Trace*> CCmT120Trace::t120_trace{nullptr};

CCmT120Trace* CCmT120Trace::instance() {
    CCmT120Trace* pFacility = t120_trace.load(std::memory_order_acquire);
    return CM_LIKELY(pFacility != nullptr) ? pFacility
                                           : s_facility.Create(t120_trace, s_levelTable.m_Entries);
}

bool CCmT120Trace::is_wanted(unsigned long aLevel) {
    const CCmT120Trace* pFacility = t120_trace.load(std::memory_order_acquire);
    return pFacility == nullptr || CmInstalledTraceTap() != nullptr ||
           CTraceState::PassingFunction(*pFacility, aLevel) != nullptr;
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
      m_Mutex(CCmStaticInit()),
      m_hBundle(nullptr),
      m_pfnDebug(nullptr),
      m_pfnInfo(nullptr),
      m_pfnWarn(nullptr),
      m_pfnError(nullptr) {
    CCmTraceGuard guard;
    CCmPrivateRoom::Make(m_Private);
    const time_t now = CCmTimeValue::GetTimeOfDay().GetSec();
    tm date = {};
    if (g_cmSystem.localtime_r(&now, &date) != nullptr) {
        m_nDayOfMonth = date.tm_mday;
        m_nMonth = date.tm_mon + 1;
    }
    CTraceState::OpenBundle(*this);
}

CCmT120Trace::~CCmT120Trace() {
    m_hTraceFiles[0].store(nullptr, std::memory_order_relaxed);
    Close();
    CCmPrivateRoom::End(m_Private);
}

void CCmT120Trace::CTraceState::OpenBundle(CCmT120Trace& aFacility) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(aFacility.m_Mutex);
    char szPath[MODULE_PATH_SIZE];
    if (FindBundle(szPath)) {
        aFacility.m_hBundle = CmPortBundleCreate(szPath);
    }
    if (aFacility.m_hBundle != nullptr) {
        // Looked up, never used: the level functions are the library's own.
        for (const char* pszName : {"YRKDEBUG2", "YRKINFO2", "YRKWARN2", "YRKERROR2"}) {
            CmPortBundleFunction(aFacility.m_hBundle, pszName);
        }
    }
    aFacility.m_pfnDebug.store(ccu_trace_debug, std::memory_order_relaxed);
    aFacility.m_pfnInfo.store(ccu_trace_info, std::memory_order_relaxed);
    aFacility.m_pfnWarn.store(ccu_trace_warn, std::memory_order_relaxed);
    aFacility.m_pfnError.store(ccu_trace_error, std::memory_order_relaxed);
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
    CTraceState::Load(*this, aFile, nullptr);
    return 1;
}

void CCmT120Trace::CTraceState::Load(CCmT120Trace& aFacility, void* aFile, CCmString* aLogPath) {
    CCmTraceGuard guard;
    CmStd::atomic<void*>& hFile = aFacility.m_hTraceFiles[0];
    // Another thread may have loaded the facility. Acquire: whoever gets the facility from this
    // thread finds all that was set there.
    if (aFile == nullptr && hFile.load(std::memory_order_acquire) != nullptr) {
        return;
    }
    g_cmSystem.mkdir(get_trace_dir(), 0777);
    const char* pszFileName = aFacility.m_pszFileName;
    const unsigned long ulSizeLimit =
        ConfiguredSizeLimit(pszFileName != nullptr ? pszFileName : get_process_name());
    void* hNew = OpenFile(aFacility, aFile, ulSizeLimit, aLogPath);
    aFacility.read_config();
    // Stored last: without a record every text is dropped, so none passes before the switches are
    // read. The release pairs with the acquire above. If another thread has stored one meanwhile,
    // it is the same record, as the name of the file is the same.
    void* hNone = nullptr;
    hFile.compare_exchange_strong(hNone, hNew, std::memory_order_release,
                                  std::memory_order_relaxed);
}

// Closes aFile (see load) and opens a record, which is returned. If aFile was the facility's own
// record, the new one takes its place at once; a first one is stored by the caller.
void* CCmT120Trace::CTraceState::OpenFile(CCmT120Trace& aFacility, void* aFile,
                                          unsigned long aSizeLimit, CCmString* aLogPath) {
    CCmScopedLockT<CCmMutexThreadRecursive> lock(aFacility.m_Mutex);
    CmStd::atomic<void*>& hFile = aFacility.m_hTraceFiles[0];
    char szPath[FILE_PATH_SIZE];
    const bool bHasPath = BuildFilePath(aFacility, szPath, sizeof(szPath), aLogPath);
    const bool bOwn = aFile == hFile.load(std::memory_order_relaxed);
    if (aFile != nullptr) {
        T120_Close_Trace_Dev(aFile);
    }
    if (!bHasPath || !(aFile == nullptr || bOwn)) {
        return nullptr;
    }
    void* hNew = T120_Open_Trace_Dev(szPath, aSizeLimit, aFacility.m_bSingleFile, 0);
    if (aFile != nullptr) {
        hFile.store(hNew, std::memory_order_release);  // for Load, as the first one
    }
    return hNew;
}

bool CCmT120Trace::CTraceState::BuildFilePath(const CCmT120Trace& aFacility, char* aPath,
                                              size_t aSize, CCmString* aLogPath) {
    const char* pszDir = get_trace_dir();
    const char* pszFileName = aFacility.m_pszFileName;
    if (pszFileName == nullptr) {
        std::snprintf(aPath, aSize, "%s/%s_Trace.txt", pszDir, get_process_name());
        if (aLogPath != nullptr) {
            try {
                *aLogPath = aPath;
            } catch (const std::bad_alloc&) {
                aLogPath->clear();
            }
        }
    } else if (aFacility.m_bSingleFile) {
        std::snprintf(aPath, aSize, "%s/%s", pszDir, pszFileName);
    } else {
        std::snprintf(aPath, aSize, "%s/%s.%d", pszDir, pszFileName,
                      static_cast<int>(aFacility.m_ProcessId));
    }
    return *aPath != '\0';
}

// The configuration is read before the lock is taken, since its file may keep the reader waiting.
void CCmT120Trace::read_config() {
    CCmTraceGuard guard;
    const uint32_t dwReading = s_dwReadings.fetch_add(1, std::memory_order_relaxed) + 1;
    CSettings settings;
    ReadSettings(settings, get_process_name(), m_pLevelTable, m_ulLevelCount);
    {
        CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
        // Threads that read at the same time come here in any order. The reading that began last
        // counts: only that one is sure to have seen the file as it is now.
        uint32_t& dwInForce = CCmPrivateRoom::Of(m_Private).m_dwReading;
        if (IsEarlier(dwReading, dwInForce)) {
            return;
        }
        dwInForce = dwReading;
        m_bEnabled.store(settings.m_bEnabled, std::memory_order_relaxed);
        for (unsigned long i = 0; i < m_ulLevelCount; ++i) {
            m_pLevelTable[i].m_bEnabled.store(settings.m_abyLevels[i], std::memory_order_relaxed);
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

constexpr CCmT120Trace::CTraceState::FunctionField CCmT120Trace::CTraceState::FieldOf(
    CCmTraceLevel::EFunction aFunction) {
    switch (aFunction) {
        case CCmTraceLevel::FUNCTION_DEBUG:
            return &CCmT120Trace::m_pfnDebug;
        case CCmTraceLevel::FUNCTION_INFO:
            return &CCmT120Trace::m_pfnInfo;
        case CCmTraceLevel::FUNCTION_WARN:
            return &CCmT120Trace::m_pfnWarn;
        case CCmTraceLevel::FUNCTION_ERROR:
            return &CCmT120Trace::m_pfnError;
        default:
            return nullptr;
    }
}

constexpr CCmT120Trace::CTraceState::CFunctionFields
CCmT120Trace::CTraceState::MakeFunctionFields() {
    CFunctionFields fields = {};
    for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
        fields.m_Fields[level.m_ulLevel] = FieldOf(level.m_eFunction);
    }
    return fields;
}

constexpr CCmT120Trace::CTraceState::CFunctionFields CCmT120Trace::CTraceState::s_functionFields =
    MakeFunctionFields();

CCmT120Trace::LevelFunction CCmT120Trace::CTraceState::PassingFunction(
    const CCmT120Trace& aFacility, unsigned long aLevel) {
    // Relaxed: the record is only compared with null, and each switch stands for itself.
    if (aFacility.m_hTraceFiles[0].load(std::memory_order_relaxed) == nullptr ||
        aFacility.m_bEnabled.load(std::memory_order_relaxed) != 1 ||
        !IsLevelOn(aFacility, aLevel)) {
        return nullptr;
    }
    // A host's own table may give the level any number.
    const unsigned long ulLevel = aFacility.m_pLevelTable[aLevel].m_ulLevel;
    const FunctionField pField =
        ulLevel < CM_TRACE_LEVEL_COUNT ? s_functionFields.m_Fields[ulLevel] : nullptr;
    return pField != nullptr ? (aFacility.*pField).load(std::memory_order_relaxed) : nullptr;
}

bool CCmT120Trace::CTraceState::IsLevelOn(const CCmT120Trace& aFacility, unsigned long aLevel) {
    return aLevel < aFacility.m_ulLevelCount &&
           aFacility.m_pLevelTable[aLevel].m_bEnabled.load(std::memory_order_relaxed) != 0;
}

void CCmT120Trace::trace_string(unsigned long aLevel, char* aText) {
    trace_string(aLevel, DEFAULT_MODULE, aText);
}

void CCmT120Trace::trace_string(unsigned long aLevel, const char* /*aModule*/, char* aText) {
    const LevelFunction pfnLevel = CTraceState::PassingFunction(*this, aLevel);
    const CmTraceTap pfnTap = CmInstalledTraceTap();
    if (CM_UNLIKELY(pfnTap != nullptr)) {
        CTraceState::PassToBoth(pfnLevel, pfnTap, aLevel, aText);
    } else if (pfnLevel != nullptr) {
        pfnLevel(DELIVERED_MODULE, "%s", aText);
    }
}

// Apart, as hardly anybody takes lines.
__attribute__((noinline)) void CCmT120Trace::CTraceState::PassToBoth(LevelFunction aFunction,
                                                                     CmTraceTap aTap,
                                                                     unsigned long aLevel,
                                                                     char* aText) {
    if (aFunction != nullptr) {
        aFunction(DELIVERED_MODULE, "%s", aText);
    }
    if (aText != nullptr) {
        aTap(aLevel, aFunction == nullptr, aText, std::strlen(aText));
    }
}

unsigned char CCmT120Trace::enable_trace_print(unsigned long aLevel, const char* aModule) {
    if (m_bEnabled.load(std::memory_order_relaxed) == 0 || !CTraceState::IsLevelOn(*this, aLevel)) {
        return 0;
    }
    if (aModule == nullptr || m_pLevelTable[aLevel].m_pszName == nullptr) {
        return 1;
    }
    CCmTraceGuard guard;
    CCmScopedLockT<CCmMutexThreadRecursive> lock(m_Mutex);
    if (m_DisabledKeys.empty()) {
        return 1;
    }
    char szKey[KEY_SIZE];
    FormatModuleKey(szKey, get_process_name(), aModule, m_pLevelTable[aLevel].m_pszName);
    return m_DisabledKeys.find(szKey) == m_DisabledKeys.end() ? 1 : 0;
}

void CCmT120Trace::log_string(char* /*aText*/) {}

void CCmT120Trace::Assert_Log(char* /*aFile*/, char* /*aExpression*/, int /*aLine*/) {}

const char* CCmT120Trace::get_process_name() {
    return CmProcessNameOf(get_exec_name(), "attrace");
}

const char* CCmT120Trace::get_trace_dir() {
    static char s_szTraceDir[TRACE_DIR_SIZE];
    char szDir[TRACE_DIR_SIZE];
    std::snprintf(szDir, sizeof(szDir), "%.*s/logs", CM_HOME_DIR_SIZE, g_def_kelto_home_dir);
    CCmScopedLockT<CCmMutexThread> lock(s_traceDirMutex.m_Lock);
    if (std::strcmp(s_szTraceDir, szDir) != 0) {
        std::memcpy(s_szTraceDir, szDir, sizeof(szDir));
    }
    return s_szTraceDir;
}

}  // namespace UTIL_NS
