// The trace facility with files under configurations and filters: what passes, where the lines
// stand in the files and what is cut off, against a model. The input is an operation string in one
// line, then a configuration, the filters, and the configurations that are read later, with a line
// "---" between them.
#include <pthread.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "../Fuzz.h"
#include "CmT120Trace.h"
#include "CmT120TraceFile.h"
#include "CmTraceFacility.h"
#include "support/Clock.h"
#include "support/ProfileModel.h"

using kelto_fuzz::Require;
using kelto_test::ModelFind;
using namespace UTIL_NS;

namespace {

constexpr long NOW_SEC = 1700000000;
constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t HEADER_LENGTH = 32;
constexpr size_t LINE_SIZE = 2048;
constexpr unsigned long DEFAULT_LIMIT = 0x1400000;
constexpr int LEAST_LIMIT = 1025;
constexpr int MOST_LINES_PER_FLUSH = 100;  // more take too much memory to try often
constexpr size_t MOST_OPERATIONS = 64;
constexpr size_t VALUE_LENGTH = 1024;
constexpr char SEPARATOR[] = "---\n";
constexpr char NO_FILTER[] = "(";  // does not compile
constexpr const char* MODULES[] = {nullptr, "net", "ui", "stats.rtp"};
constexpr const char* TAGS[] = {nullptr, "TAG"};
constexpr size_t TEXT_LENGTHS[] = {0, 5, 60, 300, 1980, 2100};

// The file names: the facility's own record, which is shared, and one that is not.
constexpr char SHARED_NAME[] = "fuzz";
constexpr char OWN_NAME[] = "own";

// Of the executable file, as every fuzz target's.
constexpr char PROCESS[] = "f";
constexpr char SECTION[] = "Trace";

bool IsTrue(const std::string& aValue) {
    return strcasecmp(aValue.c_str(), "TRUE") == 0;
}

std::string ValueOf(const std::vector<kelto_test::ModelRecord>& aRecords, const std::string& aKey,
                    const std::string& aNone) {
    std::string sValue = ModelFind(aRecords, SECTION, aKey, "").substr(0, VALUE_LENGTH);
    if (sValue.empty()) {
        return aNone;
    }
    if (sValue.back() == ';') {
        sValue.pop_back();
    }
    return sValue;
}

// What a configuration says.
struct CSettings {
    explicit CSettings(const std::string& aContent) {
        const auto records = kelto_test::ModelRecords(aContent);
        const auto isOn = [&](const std::string& aKey, bool aDefault) {
            return IsTrue(ValueOf(records, aKey, aDefault ? "TRUE" : "FALSE"));
        };
        const auto numberOf = [&](const std::string& aKey) {
            return static_cast<int>(strtol(ValueOf(records, aKey, "0").c_str(), nullptr, 10));
        };
        m_bEnabled = isOn("Enable", true);
        const int nLimit = numberOf(PROCESS);
        m_ulLimit = nLimit < LEAST_LIMIT ? DEFAULT_LIMIT : static_cast<unsigned long>(nLimit);
        m_nFlushCount = std::max(numberOf("FlushPerLines"), 1);
        for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
            m_bLevels[level.m_ulLevel] =
                isOn(std::string(PROCESS) + "." + level.m_pszName, level.m_bDefault != 0);
        }
        std::string sModules = ValueOf(records, std::string(PROCESS) + ".Module", "");
        if (sModules.empty()) {
            return;
        }
        for (bool bMore = true; bMore;) {
            const size_t nLength = std::min(sModules.find(','), sModules.size());
            bMore = nLength < sModules.size();
            if (nLength > 32) {
                return;
            }
            m_modules.push_back(sModules.substr(0, nLength));
            sModules.erase(0, nLength + 1);
            for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
                const std::string sKey = KeyOf(m_modules.back().c_str(), level);
                if (level.m_eModules != CCmTraceLevel::MODULES_NONE &&
                    !isOn(sKey, level.m_eModules == CCmTraceLevel::MODULES_ON)) {
                    m_disabled.insert(sKey);
                }
            }
        }
    }
    static std::string KeyOf(const char* aModule, const CCmTraceLevel& aLevel) {
        return std::string(PROCESS) + "." + aModule + "." + aLevel.m_pszName;
    }
    bool IsOn(const CCmTraceLevel& aLevel, const char* aModule) const {
        return m_bEnabled && m_bLevels[aLevel.m_ulLevel] &&
               (aModule == nullptr || m_disabled.count(KeyOf(aModule, aLevel)) == 0);
    }

    bool m_bEnabled = true;
    unsigned long m_ulLimit = 0;
    int m_nFlushCount = 1;
    bool m_bLevels[CM_TRACE_LEVEL_COUNT] = {};
    std::vector<std::string> m_modules;
    std::set<std::string> m_disabled;
};

// What a file should hold.
class CFileModel {
  public:
    void SetLimits(unsigned long aLimit, int aFlushCount) {
        Flush();
        m_ulLimit = aLimit;
        m_nFlushCount = aFlushCount;
    }
    // A line that is written at once.
    void Write(const std::string& aLine, bool aFiltered) {
        size_t nPosition = m_nPosition;
        if (m_ulLimit != 0 && nPosition >= m_ulLimit) {
            m_sContent.resize(nPosition, '\0');
            nPosition = HEADER_LENGTH;
        }
        WriteAt(nPosition, aFiltered ? "" : aLine);
    }
    void Collect(std::string aLine, bool aFiltered) {
        const size_t nRoom = static_cast<size_t>(m_nFlushCount) * LINE_SIZE - m_sLines.size();
        if (!aFiltered) {
            if (aLine.size() >= nRoom) {
                aLine.resize(nRoom - 1);
                if (!aLine.empty()) {
                    aLine.back() = '\n';
                }
            }
            m_sLines += aLine;
            ++m_nLines;
        }
        if (m_nLines >= m_nFlushCount) {
            Flush();
        }
    }
    void Flush() {
        if (!m_sLines.empty()) {
            if (m_ulLimit != 0 && m_nPosition >= m_ulLimit) {
                m_sContent.resize(m_nPosition, '\0');
            }
            WriteAt(m_nPosition, m_sLines);
            m_sLines.clear();
            m_nLines = 0;
        }
    }
    const std::string& content() const { return m_sContent; }

  private:
    void Put(size_t aPosition, const std::string& aText) {
        m_sContent.resize(std::max(m_sContent.size(), aPosition + aText.size()), '\0');
        m_sContent.replace(aPosition, aText.size(), aText);
    }
    void WriteAt(size_t aPosition, const std::string& aText) {
        m_nPosition = aPosition + aText.size();
        Put(aPosition, aText);
        Put(m_nPosition, MARKER);
        std::string sHeader = std::to_string(m_nPosition);
        sHeader.resize(HEADER_LENGTH - 1, ' ');
        Put(0, sHeader + "\n");
    }

    std::string m_sContent;
    size_t m_nPosition = 0;
    unsigned long m_ulLimit = 0;
    int m_nFlushCount = 1;
    std::string m_sLines;
    int m_nLines = 0;
};

std::string LineOf(const char* aTag, const char* aModule, const std::string& aText) {
    static const std::string s_sStamp = [] {
        const time_t now = NOW_SEC;
        tm date = {};
        localtime_r(&now, &date);
        char szStamp[128];
        const size_t nLength = strftime(szStamp, sizeof(szStamp), "[%m/%d/%Y %H:%M:%S.000", &date);
        const auto nThread =
            static_cast<int>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
        return std::string(szStamp, nLength) + " pid=" + std::to_string(getpid()) +
               " tid=" + std::to_string(nThread) + "] ";
    }();
    std::string sLine = s_sStamp;
    if (aModule != nullptr && aTag != nullptr) {
        sLine += std::string("[") + aTag + "] ";
    }
    if (aModule != nullptr) {
        sLine += std::string(aModule) + ":";
    }
    return sLine + aText + "\n";
}

// Letters match themselves alone; of other filters nothing is known here.
bool IsPlain(const std::string& aFilters) {
    return std::all_of(aFilters.begin(), aFilters.end(),
                       [](char ch) { return ('a' <= ch && ch <= 'z') || ch == '\n'; });
}

// What has one name in the program and one in the model.
class CRun {
  public:
    CRun(const kelto_fuzz::ScratchFile& aConfig, const kelto_fuzz::ScratchFile& aFilters,
         std::vector<std::string> aParts)
        : m_config(aConfig),
          m_filters(aFilters),
          m_parts(std::move(aParts)),
          m_settings(m_parts[0]),
          m_sDirectory(CCmT120Trace::get_trace_dir()),
          m_facility("fuzz", m_table.m_Entries, SHARED_NAME, 1) {
        m_config.SetContent(m_parts[0]);
        unlink(PathOf(SHARED_NAME).c_str());
        unlink(PathOf(OWN_NAME).c_str());
        m_facility.load(nullptr);
        m_hShared = T120_Open_Trace_Dev(PathOf(SHARED_NAME).c_str(), 0, 1, 0);
        Attach(m_hShared);
        m_shared.SetLimits(m_settings.m_ulLimit, m_settings.m_nFlushCount);
        OpenOwn();
        CheckSwitches();
    }
    ~CRun() {
        T120_Close_Trace_Dev(m_hShared);
        T120_Close_Trace_Dev(m_hOwn);
        m_own.Flush();
        CheckFile(SHARED_NAME, m_shared);
        CheckFile(OWN_NAME, m_own);
    }
    CRun(const CRun&) = delete;
    CRun& operator=(const CRun&) = delete;

    void Operate(char aOperation, unsigned aArgument) {
        const char* pszModule = MODULES[aArgument % 4];
        const char* pszTag = TAGS[aArgument / 4 % 2];
        std::string sText(TEXT_LENGTHS[aArgument / 8 % 6], static_cast<char>('a' + m_nTexts % 26));
        const std::string sLine = LineOf(pszTag, pszModule, sText);
        ++m_nTexts;
        const bool bFiltered = regex_match(pszModule) == 0;
        Require(!bFiltered || regex_cnt.load() > 0, "nothing matches without filters");
        switch (aOperation) {
            case 's':
                T120_Write_Trace_Dev(m_hShared, pszTag, pszModule, sText.c_str());
                m_shared.Write(sLine, bFiltered);
                break;
            case 'o':
                T120_Write_Trace_Dev(m_hOwn, pszTag, pszModule, sText.c_str());
                m_own.Collect(sLine, bFiltered);
                break;
            case 'w':
                static_cast<CCmT120TraceFile*>(m_hOwn)->write_shared(pszTag, pszModule,
                                                                     sText.c_str());
                m_own.Write(sLine, bFiltered);
                break;
            case 'f':
                static_cast<CCmT120TraceFile*>(m_hOwn)->flush_buffer();
                m_own.Flush();
                break;
            case 't':
                m_facility.trace_string(CM_TRACE_LEVELS[aArgument % LEVELS].m_ulLevel,
                                        sText.data());
                break;
            case 'r':
                Read(aArgument);
                break;
            case 'i':
                ReadFilters();
                break;
            case 'c':
                T120_Close_Trace_Dev(m_hOwn);
                m_own.Flush();
                CheckFile(OWN_NAME, m_own);
                OpenOwn();
                break;
            case 'l':
                m_facility.load(m_hShared);
                m_hShared = T120_Open_Trace_Dev(PathOf(SHARED_NAME).c_str(), 0, 1, 0);
                Attach(m_hShared);
                SetLimits();
                break;
            case 'x':
                m_facility.Close();
                break;
            default:
                break;
        }
    }

  private:
    static constexpr size_t LEVELS = sizeof(CM_TRACE_LEVELS) / sizeof(CM_TRACE_LEVELS[0]);

    std::string PathOf(const char* aName) const { return m_sDirectory + "/" + aName; }
    static void Attach(void* aRecord) {
        Require(aRecord != nullptr, "there is a record");
        Require(static_cast<CCmT120TraceFile*>(aRecord)->attach() == CM_OK, "it is attached");
    }
    void OpenOwn() {
        m_hOwn = T120_Open_Trace_Dev(PathOf(OWN_NAME).c_str(), 0, 0, 0);
        Attach(m_hOwn);
        m_own.SetLimits(0, 1);
    }
    void SetLimits() {
        m_shared.SetLimits(m_settings.m_ulLimit, m_settings.m_nFlushCount);
        m_own.SetLimits(m_settings.m_ulLimit, m_settings.m_nFlushCount);
    }
    void Read(unsigned aArgument) {
        // The one after the filters, and so on; the first one again when there is none.
        const size_t nPart = aArgument % 4 + 1;
        const std::string& sConfig =
            nPart > 1 && nPart < m_parts.size() ? m_parts[nPart] : m_parts[0];
        m_config.SetContent(sConfig);
        m_settings = CSettings(sConfig);
        m_facility.read_config();
        SetLimits();
        CheckSwitches();
    }
    void ReadFilters() {
        const std::string& sFilters = m_parts[1];
        m_filters.SetContent(sFilters);
        const int nBefore = regex_cnt.load();
        CCmT120TraceFileMgr::init_reg_filter();
        if (sFilters.empty()) {
            Require(regex_cnt.load() == nBefore, "an empty file changes nothing");
        } else if (IsPlain(sFilters) && sFilters.size() < 100) {
            // Of all the filters only one without a line end matches names.
            const std::string sLast = sFilters.substr(sFilters.rfind('\n') + 1);
            for (const char* pszModule : {"net", "ui", "stats.rtp"}) {
                const bool bMatch =
                    !sLast.empty() && std::string(pszModule).find(sLast) != std::string::npos;
                Require(regex_match(pszModule) == (bMatch ? 0 : -1), "what a plain filter matches");
            }
        }
    }
    void CheckSwitches() {
        std::vector<const char*> modules(MODULES, MODULES + 4);
        for (const std::string& sModule : m_settings.m_modules) {
            modules.push_back(sModule.c_str());
        }
        for (const CCmTraceLevel& level : CM_TRACE_LEVELS) {
            for (const char* pszModule : modules) {
                Require(m_facility.enable_trace_print(level.m_ulLevel, pszModule) ==
                            (m_settings.IsOn(level, pszModule) ? 1 : 0),
                        "a switch is as configured");
            }
        }
    }
    void CheckFile(const char* aName, const CFileModel& aModel) const {
        Require(kelto_fuzz::ContentOf(PathOf(aName)) == aModel.content(), aName);
    }

    const kelto_fuzz::ScratchFile& m_config;
    const kelto_fuzz::ScratchFile& m_filters;
    const std::vector<std::string> m_parts;
    CSettings m_settings;
    const std::string m_sDirectory;
    CCmTraceLevelTable m_table = CmMakeTraceLevelTable(&CCmTraceLevel::m_bDefault);
    CCmT120Trace m_facility;
    void* m_hShared = nullptr;
    void* m_hOwn = nullptr;
    CFileModel m_shared;
    CFileModel m_own;
    unsigned m_nTexts = 0;
};

std::vector<std::string> Split(std::string aText) {
    std::vector<std::string> parts;
    for (size_t nAt = aText.find(SEPARATOR); nAt != std::string::npos;
         nAt = aText.find(SEPARATOR)) {
        parts.push_back(aText.substr(0, nAt));
        aText.erase(0, nAt + strlen(SEPARATOR));
    }
    parts.push_back(aText);
    parts.resize(std::max<size_t>(parts.size(), 2));
    return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile config("conf/kelto.cfg");
    static const kelto_fuzz::ScratchFile filters(config, "conf/keltoexp.filter");
    static const kelto_test::ScopedClock clock(NOW_SEC);
    // What passes goes to the trace library, and from there to nobody.
    static const int nSet = setenv("QTRACE_FILE", "/dev/null", 1);
    Require(nSet == 0, "the environment can be set");

    kelto_fuzz::Input input(aData, aSize);
    const std::string sOperations = input.Line();
    const std::vector<std::string> parts = Split(input.Rest());
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 1 && CSettings(parts[i]).m_nFlushCount > MOST_LINES_PER_FLUSH) {
            return 0;
        }
    }
    // Repetitions of repetitions take the system's matcher as long as they like.
    if (parts[1].find_first_of("{*+?") != std::string::npos) {
        return 0;
    }
    if (regex_cnt.load() != 0) {
        filters.SetContent(NO_FILTER);
        CCmT120TraceFileMgr::init_reg_filter();
        Require(regex_cnt.load() == 0, "a filter that does not compile leaves none");
    }
    CRun run(config, filters, parts);
    for (size_t i = 0; i + 1 < sOperations.size() && i < 2 * MOST_OPERATIONS; i += 2) {
        run.Operate(sOperations[i], static_cast<unsigned char>(sOperations[i + 1]));
    }
    return 0;
}
