#include "CmConfig.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "CmAscii.h"
#include "CmCancel.h"
#include "CmMainSnapshot.h"
#include "CmProcessName.h"
#include "CmProfileReader.h"
#include "CmScopedLock.h"
#include "CmStatics.h"
#include "CmT120Trace.h"
#include "CmTraceGuard.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr int VALUE_SIZE = 256;           // of a value of the main configuration file
constexpr size_t CUR_ENV_TEXT_MAX = 510;  // what init_config takes

// The executable's name as hosts get it: the bytes of its 16-bit units and of a terminating unit.
char s_achExecName[(CM_PORT_NAME_UNITS + 1) * sizeof(uint16_t)];

std::string_view ViewOf(const char* aText) {
    return aText == nullptr ? std::string_view() : std::string_view(aText);
}

// Copies as much of aText to aOut as fits into aRoom characters; returns how many it copied.
size_t CopyBounded(char* aOut, size_t aRoom, std::string_view aText) {
    const size_t nLength = aText.size() < aRoom ? aText.size() : aRoom;
    if (nLength > 0) {
        std::memcpy(aOut, aText.data(), nLength);
    }
    return nLength;
}

// The same with a terminator, which is part of aSize.
size_t CopyTerminated(char* aOut, size_t aSize, std::string_view aText) {
    const size_t nLength = CopyBounded(aOut, aSize - 1, aText);
    aOut[nLength] = '\0';
    return nLength;
}

// As read_init_file, but terminated; the file is closed again. aOutSize: at least 1. Returns the
// value's length, or -1 when it is not found.
int ReadProfile(const char* aSection, const char* aKey, char* aOut, int aOutSize,
                const char* aPath) {
    if (aSection == nullptr || aKey == nullptr || aPath == nullptr) {
        return -1;
    }
    CCmFileLines lines(aPath);
    CCmProfileSearch search(aSection, aKey);
    if (!CmFindInProfile(lines, search)) {
        return -1;
    }
    return static_cast<int>(CopyTerminated(aOut, static_cast<size_t>(aOutSize), search.value()));
}

// As sscanf with "%d" on these systems: what does not fit in a long counts as the nearest long, of
// which the low bits remain. A text without a number gives 0.
int ParseInt(const char* aText) {
    return static_cast<int>(std::strtol(aText, nullptr, 10));
}

// The same for "%u", "%hu" and "%lu" with an unsigned long.
unsigned long ParseUnsigned(const char* aText) {
    return std::strtoul(aText, nullptr, 10);
}

bool IsTrue(const char* aText) {
    return CmEqualsNoCase(aText, "TRUE");
}

bool FillExecName() {
    uint16_t units[CM_PORT_NAME_UNITS];
    const size_t nUnits = CmPortExecutableName(units);
    std::memcpy(s_achExecName, units, nUnits * sizeof(uint16_t));
    return nUnits > 0;
}

}  // namespace

char g_def_kelto_home_dir[CM_HOME_DIR_SIZE] = "/tmp/";
char g_cur_env[CM_CUR_ENV_SIZE] = "KELTO_MMP_HOME";

char* trim_string(char* aStr) {
    if (aStr == nullptr) {
        return nullptr;
    }
    size_t nLength = std::strlen(aStr);
    while (nLength > 0 && CmIsBlank(aStr[nLength - 1])) {
        aStr[--nLength] = '\0';
    }
    while (CmIsBlank(*aStr)) {
        ++aStr;
    }
    return aStr;
}

bool is_comment_line(const char* aLine) {
    return CmIsProfileComment(ViewOf(aLine));
}

int read_init_file(FILE* aFile, const char* aSection, const char* aKey, char* aOut, int aOutSize) {
    if (aFile == nullptr || aSection == nullptr || aKey == nullptr) {
        return 0;
    }
    CCmStreamLines lines(aFile);
    CCmProfileSearch search(aSection, aKey);
    if (!CmFindInProfile(lines, search)) {
        return 0;
    }
    if (aOut != nullptr && aOutSize > 0) {
        const size_t nSize = static_cast<size_t>(aOutSize);
        const size_t nLength = CopyBounded(aOut, nSize, search.value());
        if (nLength < nSize) {
            aOut[nLength] = '\0';
        }
    }
    return 1;
}

int get_int_from_profile(const char* aSection, const char* aKey, int aDefault, const char* aPath) {
    char szValue[VALUE_SIZE];
    const int nLength = ReadProfile(aSection, aKey, szValue, sizeof(szValue), aPath);
    return nLength < 0 ? aDefault : ParseInt(szValue);
}

int get_string_from_profile(const char* aSection, const char* aKey, const char* aDefault,
                            char* aOut, int aOutSize, const char* aPath) {
    if (aOut == nullptr || aOutSize <= 0) {
        return 0;
    }
    const int nLength = ReadProfile(aSection, aKey, aOut, aOutSize, aPath);
    if (nLength >= 0) {
        return nLength;
    }
    return static_cast<int>(CopyTerminated(aOut, static_cast<size_t>(aOutSize), ViewOf(aDefault)));
}

namespace {

// As get_string_from_profile of the main configuration file with an empty default.
int ReadMainProfile(const char* aSection, const char* aKey, char* aOut, int aOutSize) {
    CCmMainSnapshot* pSnapshot = CCmMainSnapshot::Current();
    if (pSnapshot == nullptr || aSection == nullptr || aKey == nullptr) {
        char szPath[CM_CONFIG_PATH_SIZE];
        get_config_file_name(szPath);
        return get_string_from_profile(aSection, aKey, "", aOut, aOutSize, szPath);
    }
    std::string_view value;
    pSnapshot->Find(aSection, aKey, value);
    return static_cast<int>(CopyTerminated(aOut, static_cast<size_t>(aOutSize), value));
}

}  // namespace

int get_string_param(const char* aSection, const char* aKey, char* aOut, int aOutSize) {
    if (aOut == nullptr || aOutSize <= 0) {
        return 0;
    }
    const int nLength = ReadMainProfile(aSection, aKey, aOut, aOutSize);
    if (nLength < 1) {
        return 0;
    }
    if (aOut[nLength - 1] == ';') {
        aOut[nLength - 1] = '\0';
    }
    return 1;
}

int get_int_param(const char* aSection, const char* aKey) {
    char szValue[VALUE_SIZE];
    return get_string_param(aSection, aKey, szValue, sizeof(szValue)) ? ParseInt(szValue) : 0;
}

uint16_t get_uint16_param(const char* aSection, const char* aKey) {
    return static_cast<uint16_t>(get_int_param(aSection, aKey));
}

uint32_t get_uint32_param(const char* aSection, const char* aKey) {
    char szValue[VALUE_SIZE];
    const bool bFound = get_string_param(aSection, aKey, szValue, sizeof(szValue));
    return bFound ? static_cast<uint32_t>(ParseUnsigned(szValue)) : 0;
}

unsigned char get_bool_param(const char* aSection, const char* aKey, unsigned char aDefault) {
    char szValue[VALUE_SIZE];
    return get_string_param(aSection, aKey, szValue, sizeof(szValue)) ? IsTrue(szValue) : aDefault;
}

char* get_kelto_home_dir() {
    return g_def_kelto_home_dir;
}

void set_kelto_home_env(const char* aDir) {
    if (aDir == nullptr) {
        return;
    }
    const std::string_view dir(aDir, strnlen(aDir, sizeof(g_cur_env)));
    const size_t nLength = CopyBounded(g_cur_env, sizeof(g_cur_env), dir);
    if (nLength < sizeof(g_cur_env)) {
        g_cur_env[nLength] = '\0';
    }
}

void init_config(const char* aDir) {
    if (aDir != nullptr && strnlen(aDir, CUR_ENV_TEXT_MAX + 1) <= CUR_ENV_TEXT_MAX) {
        CopyTerminated(g_cur_env, sizeof(g_cur_env), aDir);
    }
}

void set_kelto_config_file_name(CCmString const& aName) {
    CmMakeStatics();
    try {
        g_kelto_config_file_name = aName;
    } catch (const std::bad_alloc&) {
        // The name stays as it was.
    }
}

void get_config_file_name(char* aBuffer) {
    constexpr std::string_view DIRECTORY = "conf/";
    if (aBuffer == nullptr) {
        return;
    }
    const std::string_view home(g_def_kelto_home_dir,
                                strnlen(g_def_kelto_home_dir, sizeof(g_def_kelto_home_dir)));
    CmMakeStatics();
    const std::string_view name = g_kelto_config_file_name;
    const std::string_view slash = home.empty() || home.back() != '/' ? "/" : "";
    aBuffer[0] = '\0';
    if (home.size() + slash.size() + DIRECTORY.size() + name.size() >= CM_CONFIG_PATH_SIZE) {
        return;
    }
    char* pEnd = aBuffer + CopyBounded(aBuffer, home.size(), home);
    pEnd += CopyBounded(pEnd, slash.size(), slash);
    pEnd += CopyBounded(pEnd, DIRECTORY.size(), DIRECTORY);
    pEnd += CopyBounded(pEnd, name.size(), name);
    *pEnd = '\0';
}

CCmConfigInitFile::CCmConfigInitFile() = default;

CCmConfigInitFile::~CCmConfigInitFile() = default;

CmResult CCmConfigInitFile::InitWithFileName(CCmString const& /*aName*/) {
    return CM_OK;
}

int CCmConfigInitFile::GetIntParam(CCmString const& aSection, CCmString const& aKey, int aDefault) {
    char szValue[VALUE_SIZE];
    const bool bFound = get_string_param(aSection.c_str(), aKey.c_str(), szValue, sizeof(szValue));
    return bFound ? ParseInt(szValue) : aDefault;
}

unsigned int CCmConfigInitFile::GetDwordParam(CCmString const& aSection, CCmString const& aKey,
                                              unsigned int aDefault) {
    char szValue[VALUE_SIZE];
    const bool bFound = get_string_param(aSection.c_str(), aKey.c_str(), szValue, sizeof(szValue));
    return bFound ? static_cast<unsigned int>(ParseUnsigned(szValue)) : aDefault;
}

unsigned short CCmConfigInitFile::GetWordParam(CCmString const& aSection, CCmString const& aKey,
                                               unsigned short aDefault) {
    char szValue[VALUE_SIZE];
    const bool bFound = get_string_param(aSection.c_str(), aKey.c_str(), szValue, sizeof(szValue));
    return bFound ? static_cast<unsigned short>(ParseUnsigned(szValue)) : aDefault;
}

CCmString CCmConfigInitFile::GetStringParam(CCmString const& aSection, CCmString const& aKey,
                                            CCmString aDefault) {
    char szValue[VALUE_SIZE];
    if (!get_string_param(aSection.c_str(), aKey.c_str(), szValue, sizeof(szValue))) {
        return aDefault;
    }
    try {
        return szValue;
    } catch (const std::bad_alloc&) {
        return aDefault;
    }
}

signed char CCmConfigInitFile::GetBoolParam(CCmString const& aSection, CCmString const& aKey,
                                            signed char aDefault) {
    char szValue[VALUE_SIZE];
    const bool bFound = get_string_param(aSection.c_str(), aKey.c_str(), szValue, sizeof(szValue));
    return bFound ? IsTrue(szValue) : aDefault;
}

CCmString CCmConfigInitFile::GetKeltoHomeDir() {
    try {
        const char* const pHome = get_kelto_home_dir();
        return CCmString(pHome, strnlen(pHome, sizeof(g_def_kelto_home_dir)));
    } catch (const std::bad_alloc&) {
        return CCmString();
    }
}

void CCmConfigInitFile::SetKeltoHomeEnv(CCmString const& aDir) {
    set_kelto_home_env(aDir.c_str());
}

void CCmConfigInitFile::SetKeltoConfigFileName(CCmString const& aName) {
    set_kelto_config_file_name(aName);
    refresh_trace_config();
    CM_INFO_TRACE("CCmConfigInitFile::SetKeltoConfigFileName, file name " << aName);
}

void CCmConfigInitFile::get_rabbitmq_config_file_name(CCmString& /*aOut*/) {}

const char* get_exec_name() {
    // Filled once: executables keep their names, and the buffer must not change under its readers.
    // The release when it is filled pairs with this acquire: who sees the flag sees the name.
    static CmStd::atomic<bool> s_bFilled{false};
    static CCmEternalLockT<CCmMutexThread> s_mutex;
    if (!s_bFilled.load(std::memory_order_acquire)) {
        CCmTraceGuard guard;
        CCmScopedLockT<CCmMutexThread> lock(s_mutex.m_Lock);
        if (!s_bFilled.load(std::memory_order_relaxed)) {
            s_bFilled.store(FillExecName(), std::memory_order_release);
        }
    }
    return s_bFilled.load(std::memory_order_acquire) ? s_achExecName : "";
}

const char* CmProcessNameOf(const char* aExecName, const char* aFallback) {
    if (aExecName == nullptr) {
        return aFallback;
    }
    const char* const pSlash = std::strrchr(aExecName, '/');
    return pSlash == nullptr ? aExecName : pSlash + 1;
}

const char* get_process_name() {
    return CmProcessNameOf(get_exec_name(), "defproc");
}

CCmString getCallerModuleName(const char* /*aIgnored*/) {
    return "util.dll";
}

int MMP_GetCurrentModuleParentPath(char* aBuffer, int aSize) {
    CCmDisableCancel disableCancel;
    if (aBuffer == nullptr || aSize <= 0 ||
        !CmPortApplicationParentPath(aBuffer, static_cast<size_t>(aSize))) {
        return 0;
    }
    return static_cast<int>(std::strlen(aBuffer));
}

}  // namespace UTIL_NS
