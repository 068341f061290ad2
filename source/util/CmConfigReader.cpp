#include "CmConfigReader.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <system_error>
#include <tuple>

#include "CmAscii.h"
#include "CmCancel.h"
#include "CmConfig.h"
#include "CmMainSnapshot.h"
#include "CmPrivateState.h"
#include "CmProfileReader.h"
#include "CmSystem.h"
#include "CmT120Trace.h"
#include "CmWatched.h"
#include "CmWithMemory.h"
#include "port/CmFileTime.h"

namespace UTIL_NS {

namespace {

// A file that has not been written to for so long is taken to be complete. This is also the
// coarsest step of file times on the file systems in use: a change after it gives the file another
// time.
constexpr long SETTLED_USEC = 20 * 1000;
constexpr int MAX_TRIES = 50;         // one second in all
constexpr size_t LONGEST_QUOTE = 64;  // of a value in a sentence
constexpr size_t NONE = static_cast<size_t>(-1);

// ---- The file

// What tells one state of a file from another.
struct CFileMark {
    dev_t m_Device = 0;
    ino_t m_Number = 0;
    off_t m_llSize = -1;
    timespec m_Time = {};

    CFileMark() = default;
    explicit CFileMark(const struct stat& aStat)
        : m_Device(aStat.st_dev),
          m_Number(aStat.st_ino),
          m_llSize(aStat.st_size),
          m_Time(CmFileTime(aStat)) {}
    friend bool operator==(const CFileMark& aLeft, const CFileMark& aRight) {
        return std::tie(aLeft.m_Device, aLeft.m_Number, aLeft.m_llSize, aLeft.m_Time.tv_sec,
                        aLeft.m_Time.tv_nsec) == std::tie(aRight.m_Device, aRight.m_Number,
                                                          aRight.m_llSize, aRight.m_Time.tv_sec,
                                                          aRight.m_Time.tv_nsec);
    }
};

class CFile {
  public:
    explicit CFile(const char* aPath) : m_nFile(CmOpenForReading(aPath)) {}
    ~CFile() {
        if (m_nFile >= 0) {
            g_cmSystem.close(m_nFile);
        }
    }
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    bool IsOpen() const { return m_nFile >= 0; }
    bool Mark(CFileMark& aMark) const {
        struct stat state = {};
        if (g_cmSystem.fstat(m_nFile, &state) != 0) {
            return false;
        }
        aMark = CFileMark(state);
        return true;
    }
    // All of it, from the start.
    bool ReadAll(CCmString& aText) const {
        constexpr size_t PIECE = 8 * 1024;
        aText.clear();
        for (;;) {
            const size_t nDone = aText.size();
            aText.resize(nDone + PIECE);
            const ssize_t nRead =
                g_cmSystem.pread(m_nFile, &aText[nDone], PIECE, static_cast<off_t>(nDone));
            aText.resize(nDone + static_cast<size_t>(std::max<ssize_t>(nRead, 0)));
            if (nRead == 0 || (nRead < 0 && errno != EINTR)) {
                return nRead == 0;
            }
        }
    }

  private:
    const int m_nFile;
};

// Whether the last change is so old that any later one gives the file another time.
bool IsSettled(const CFileMark& aMark) {
    timeval now = {};
    if (g_cmSystem.gettimeofday(&now, nullptr) != 0) {
        return false;
    }
    const CCmTimeValue tvAge =
        CCmTimeValue(now) - CCmTimeValue(aMark.m_Time.tv_sec, aMark.m_Time.tv_nsec / 1000);
    return tvAge >= CCmTimeValue(0, SETTLED_USEC);
}

// Reads a file as it was at one moment: its time is the same before and after the reading. When
// that time is too recent to tell, or comes from another machine's clock, a second reading must
// find the same text.
CmResult TakeSnapshot(const CFile& aFile, CCmString& aText, CFileMark& aMark) {
    CCmString strPrevious;
    CFileMark previous;
    for (int i = 0; i < MAX_TRIES; ++i) {
        CFileMark before;
        if (!aFile.Mark(before)) {
            return CM_ERROR_FAILURE;
        }
        const bool bSettled = IsSettled(before);
        if (!aFile.ReadAll(aText) || !aFile.Mark(aMark)) {
            return CM_ERROR_FAILURE;
        }
        if (aMark == before && (bSettled || (aMark == previous && aText == strPrevious))) {
            return CM_OK;
        }
        previous = aMark;
        strPrevious.swap(aText);
        const timespec settling = {0, SETTLED_USEC * 1000};
        g_cmSystem.nanosleep(&settling, nullptr);
    }
    return CM_ERROR_NOT_AVAILABLE;
}

// ---- What it says

struct CHeader {
    std::string_view m_name;
    unsigned m_dwLine;
};

struct CEntry {
    size_t m_nHeader;  // NONE before the first
    std::string_view m_key;
    std::string_view m_value;
    unsigned m_dwLine;
    bool m_bAsked;
};

// A text taken apart once. The views point into its text.
class CProfile {
  public:
    void Parse(CCmString aText) {
        m_pText = std::make_unique<CCmString>(std::move(aText));
        unsigned dwLine = 1;
        const std::string_view text = *m_pText;
        for (size_t nAt = 0; nAt < text.size();) {
            const std::string_view most = text.substr(nAt, CM_PROFILE_LINE_MAX);
            const size_t nEnd = most.find('\n');
            const std::string_view line = nEnd == most.npos ? most : most.substr(0, nEnd + 1);
            AddLine(line, dwLine);
            dwLine += line.back() == '\n' ? 1 : 0;
            nAt += line.size();
        }
        Sort();
    }

    // Null when the key is absent.
    CEntry* Find(std::string_view aSection, std::string_view aKey) {
        const size_t nHeader = FirstHeader(aSection);
        const size_t nEntry = nHeader == NONE ? NONE : FirstEntry(nHeader, aKey);
        return nEntry == NONE ? nullptr : &m_Entries[nEntry];
    }
    std::string_view SectionOf(const CEntry& aEntry) const {
        return aEntry.m_nHeader == NONE ? std::string_view() : m_Headers[aEntry.m_nHeader].m_name;
    }
    // The line of what keeps an entry from being found; 0 when nothing does.
    unsigned HiddenBy(const CEntry& aEntry) const {
        const size_t nHeader = FirstHeader(m_Headers[aEntry.m_nHeader].m_name);
        if (nHeader != aEntry.m_nHeader) {
            return m_Headers[nHeader].m_dwLine;
        }
        const CEntry& first = m_Entries[FirstEntry(nHeader, aEntry.m_key)];
        return &first == &aEntry ? 0 : first.m_dwLine;
    }
    const std::vector<CEntry>& entries() const { return m_Entries; }

  private:
    void AddLine(std::string_view aLine, unsigned aNumber) {
        const CCmProfileLine line = CmSplitProfileLine(aLine);
        if (line.m_kind == CCmProfileLine::HEADER) {
            m_Headers.push_back({CmTrimmed(line.m_name), aNumber});
        } else if (line.m_kind == CCmProfileLine::KEY) {
            const size_t nHeader = m_Headers.empty() ? NONE : m_Headers.size() - 1;
            m_Entries.push_back(
                {nHeader, CmTrimmed(line.m_name), CmProfileValue(line.m_value), aNumber, false});
        }
    }

    // Stable: of equal names that which comes first in the file stays first.
    void Sort() {
        for (size_t i = 0; i < m_Headers.size(); ++i) {
            m_HeaderOrder.push_back(i);
        }
        for (size_t i = 0; i < m_Entries.size(); ++i) {
            m_EntryOrder.push_back(i);
        }
        std::stable_sort(m_HeaderOrder.begin(), m_HeaderOrder.end(), [this](size_t a, size_t b) {
            return CmCompareNoCase(m_Headers[a].m_name, m_Headers[b].m_name) < 0;
        });
        std::stable_sort(m_EntryOrder.begin(), m_EntryOrder.end(), [this](size_t a, size_t b) {
            return IsBefore(m_Entries[a], m_Entries[b].m_nHeader, m_Entries[b].m_key);
        });
    }
    static bool IsBefore(const CEntry& aEntry, size_t aHeader, std::string_view aKey) {
        return aEntry.m_nHeader != aHeader ? aEntry.m_nHeader < aHeader
                                           : CmCompareNoCase(aEntry.m_key, aKey) < 0;
    }

    size_t FirstHeader(std::string_view aName) const {
        const auto it =
            std::lower_bound(m_HeaderOrder.begin(), m_HeaderOrder.end(), aName,
                             [this](size_t i, std::string_view aWanted) {
                                 return CmCompareNoCase(m_Headers[i].m_name, aWanted) < 0;
                             });
        return it == m_HeaderOrder.end() || CmCompareNoCase(m_Headers[*it].m_name, aName) != 0
                   ? NONE
                   : *it;
    }
    size_t FirstEntry(size_t aHeader, std::string_view aKey) const {
        const auto it = std::lower_bound(m_EntryOrder.begin(), m_EntryOrder.end(), aKey,
                                         [this, aHeader](size_t i, std::string_view aWanted) {
                                             return IsBefore(m_Entries[i], aHeader, aWanted);
                                         });
        const bool bFound = it != m_EntryOrder.end() && m_Entries[*it].m_nHeader == aHeader &&
                            CmCompareNoCase(m_Entries[*it].m_key, aKey) == 0;
        return bFound ? *it : NONE;
    }

    std::unique_ptr<const CCmString> m_pText;  // stays where it is when the profile is moved
    std::vector<CHeader> m_Headers;
    std::vector<CEntry> m_Entries;
    std::vector<size_t> m_HeaderOrder;
    std::vector<size_t> m_EntryOrder;
};

// ---- Sentences

// Whatever the file holds, a sentence is one printable line.
CCmString Quoted(std::string_view aText) {
    CCmString strQuoted = "\"";
    for (const char ch : aText.substr(0, LONGEST_QUOTE)) {
        strQuoted += static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F ? '?' : ch;
    }
    strQuoted += aText.size() > LONGEST_QUOTE ? "...\"" : "\"";
    return strQuoted;
}

CCmString NameOf(std::string_view aName) {
    const CCmString strQuoted = Quoted(aName);
    return strQuoted.substr(1, strQuoted.size() - 2);
}

CCmString SecondsOf(const CCmTimeValue& aTime) {
    const bool bNegative = aTime < CCmTimeValue();
    char szText[48];
    std::snprintf(szText, sizeof(szText), "%s%lld.%06lld", bNegative ? "-" : "",
                  static_cast<long long>(bNegative ? -aTime.GetSec() : aTime.GetSec()),
                  static_cast<long long>(bNegative ? -aTime.GetUsec() : aTime.GetUsec()));
    CCmString strText = szText;
    strText.resize(strText.find_last_not_of('0') + 1);
    if (strText.back() == '.') {
        strText.pop_back();
    }
    return strText + "s";
}

// What errno says.
CCmString SystemError() {
    return std::error_code(errno, std::generic_category()).message();
}

thread_local CCmMainSnapshot* t_pMainSnapshot = nullptr;

}  // namespace

CCmMainSnapshot::CCmMainSnapshot() : m_pPrevious(t_pMainSnapshot) {
    t_pMainSnapshot = this;
}

CCmMainSnapshot::~CCmMainSnapshot() {
    t_pMainSnapshot = m_pPrevious;
}

CCmMainSnapshot* CCmMainSnapshot::Current() {
    return t_pMainSnapshot;
}

struct CM_UTIL_HIDDEN CCmConfigReader::CReaderState {
    CCmString m_strPath;
    bool m_bIsMain = false;
    bool m_bWasRead = false;
    bool m_bExists = false;
    CFileMark m_Mark;
    CProfile m_Profile;
    std::vector<CCmString> m_Problems;

    CmResult Read(const char* aPath, bool aIsMain);
    CmResult Complain(const char* aPath, CmResult aResult, const CCmString& aWhy);
    CCmString PlaceOf(const CEntry& aEntry) const;
    CCmString Sentence(const CEntry& aEntry, const CCmString& aExpected) const;
    CCmString Setting(const CEntry& aEntry) const;  // place, key and value
    CCmString UnaskedSentence(const CEntry& aEntry) const;
    std::string_view ValueOf(const CEntry& aEntry) const;
    CmResult Refuse(std::string_view aSection, std::string_view aKey, const CCmString& aExpected);
};

// Everything is made first and put in place last, so that running out of memory changes nothing.
CmResult CCmConfigReader::CReaderState::Read(const char* aPath, bool aIsMain) {
    CReaderState fresh;
    fresh.m_strPath = aPath;
    fresh.m_bIsMain = aIsMain;
    fresh.m_bWasRead = true;
    const CFile file(aPath);
    fresh.m_bExists = file.IsOpen();
    if (!file.IsOpen() && errno != ENOENT) {
        return Complain(aPath, CM_ERROR_FAILURE, SystemError());
    }
    if (fresh.m_bExists) {
        CCmString strText;
        const CmResult rv = TakeSnapshot(file, strText, fresh.m_Mark);
        if (CM_FAILED(rv)) {
            return Complain(aPath, rv,
                            rv == CM_ERROR_FAILURE ? SystemError() : "it does not stop changing");
        }
        fresh.m_Profile.Parse(std::move(strText));
    }
    std::swap(*this, fresh);
    return m_bExists ? CM_OK : CM_ERROR_NOT_FOUND;
}

CmResult CCmConfigReader::CReaderState::Complain(const char* aPath, CmResult aResult,
                                                 const CCmString& aWhy) {
    m_Problems.push_back(CCmString(aPath) + ": cannot be read: " + aWhy);
    return aResult;
}

CCmString CCmConfigReader::CReaderState::PlaceOf(const CEntry& aEntry) const {
    return m_strPath + ":" + std::to_string(aEntry.m_dwLine) + ": ";
}

CCmString CCmConfigReader::CReaderState::Sentence(const CEntry& aEntry,
                                                  const CCmString& aExpected) const {
    return Setting(aEntry) + " in section [" + NameOf(m_Profile.SectionOf(aEntry)) +
           "] should be " + aExpected;
}

CCmString CCmConfigReader::CReaderState::Setting(const CEntry& aEntry) const {
    return PlaceOf(aEntry) + NameOf(aEntry.m_key) + " = " + Quoted(ValueOf(aEntry));
}

// Empty when there is nothing to say.
CCmString CCmConfigReader::CReaderState::UnaskedSentence(const CEntry& aEntry) const {
    const CCmString strWhat = Setting(aEntry);
    if (aEntry.m_nHeader == NONE) {
        return strWhat + " is in no section";
    }
    const CCmString strWhere =
        strWhat + " in section [" + NameOf(m_Profile.SectionOf(aEntry)) + "] ";
    const unsigned dwHidden = m_Profile.HiddenBy(aEntry);
    if (dwHidden != 0) {
        return strWhere + "does not count, because line " + std::to_string(dwHidden) +
               " has that name already";
    }
    return aEntry.m_bAsked ? CCmString() : strWhere + "means nothing here";
}

std::string_view CCmConfigReader::CReaderState::ValueOf(const CEntry& aEntry) const {
    const bool bSemicolon = m_bIsMain && !aEntry.m_value.empty() && aEntry.m_value.back() == ';';
    return aEntry.m_value.substr(0, aEntry.m_value.size() - (bSemicolon ? 1 : 0));
}

CmResult CCmConfigReader::CReaderState::Refuse(std::string_view aSection, std::string_view aKey,
                                               const CCmString& aExpected) {
    const CEntry* pEntry = m_Profile.Find(aSection, aKey);
    if (pEntry == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    m_Problems.push_back(Sentence(*pEntry, aExpected));
    return CM_ERROR_INVALID_ARG;
}

CCmConfigReader::CCmConfigReader() {
    CCmPrivateRoom::Make(m_Private);
}

CCmConfigReader::~CCmConfigReader() {
    CCmPrivateRoom::End(m_Private);
}

CmResult CCmConfigReader::Read(const char* aPath) {
    CCmDisableCancel disableCancel;
    if (aPath == nullptr) {
        return CM_ERROR_INVALID_ARG;
    }
    return CmWithMemory([&] { return CCmPrivateRoom::Of(m_Private).Read(aPath, false); });
}

CmResult CCmConfigReader::ReadMain() {
    CCmDisableCancel disableCancel;
    char szPath[CM_CONFIG_PATH_SIZE];
    get_config_file_name(szPath);
    return CmWithMemory([&] { return CCmPrivateRoom::Of(m_Private).Read(szPath, true); });
}

bool CCmConfigReader::HasChanged() const {
    const CReaderState& read = CCmPrivateRoom::Of(m_Private);
    if (!read.m_bWasRead) {
        return true;
    }
    struct stat state = {};
    const bool bExists = g_cmSystem.stat(read.m_strPath.c_str(), &state) == 0;
    return bExists != read.m_bExists || (bExists && !(CFileMark(state) == read.m_Mark));
}

CmResult CCmConfigReader::UseForTrace() {
    CCmDisableCancel disableCancel;
    CReaderState& state = CCmPrivateRoom::Of(m_Private);
    if (!state.m_bIsMain) {
        return CM_ERROR_NOT_INITIALIZED;
    }
    class CSnapshot final : public CCmMainSnapshot {
      public:
        explicit CSnapshot(CReaderState& aState) : m_state(aState) {}
        bool Find(std::string_view aSection, std::string_view aKey,
                  std::string_view& aValue) override {
            CEntry* pEntry = m_state.m_Profile.Find(aSection, aKey);
            if (pEntry == nullptr) {
                return false;
            }
            pEntry->m_bAsked = true;
            aValue = pEntry->m_value;
            return true;
        }

      private:
        CReaderState& m_state;
    };
    const CSnapshot snapshot(state);
    refresh_trace_config();
    CmWatchAsProfileSays();
    return CM_OK;
}

CmResult CCmConfigReader::GetText(std::string_view aSection, std::string_view aKey,
                                  std::string_view& aValue) {
    CReaderState& state = CCmPrivateRoom::Of(m_Private);
    CEntry* pEntry = state.m_Profile.Find(aSection, aKey);
    if (pEntry == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    pEntry->m_bAsked = true;
    aValue = state.ValueOf(*pEntry);
    return CM_OK;
}

CmResult CCmConfigReader::GetBool(std::string_view aSection, std::string_view aKey, bool& aValue) {
    std::string_view value;
    const CmResult rv = GetText(aSection, aKey, value);
    const CCmParsed parsed = CM_SUCCEEDED(rv) ? CmParseBool(value, aValue) : CCmParsed();
    return parsed ? rv : Refuse(aSection, aKey, parsed.m_pszExpected);
}

CmResult CCmConfigReader::GetDuration(std::string_view aSection, std::string_view aKey,
                                      CCmTimeValue& aDuration, const CCmTimeValue& aMin,
                                      const CCmTimeValue& aMax) {
    std::string_view value;
    const CmResult rv = GetText(aSection, aKey, value);
    if (CM_FAILED(rv) || CmParseDuration(value, aDuration, aMin, aMax)) {
        return rv;
    }
    return CmWithMemory([&] {
        const CCmString strMost =
            aMax < CCmTimeValue(INT64_MAX) ? " to " + SecondsOf(aMax) : CCmString(" on");
        return CCmPrivateRoom::Of(m_Private).Refuse(
            aSection, aKey,
            "a duration with its unit (us, ms, s, min, h or d) from " + SecondsOf(aMin) + strMost);
    });
}

CmResult CCmConfigReader::GetSize(std::string_view aSection, std::string_view aKey,
                                  uint64_t& aBytes, uint64_t aMin, uint64_t aMax) {
    std::string_view value;
    const CmResult rv = GetText(aSection, aKey, value);
    if (CM_FAILED(rv) || CmParseSize(value, aBytes, aMin, aMax)) {
        return rv;
    }
    return CmWithMemory([&] {
        return CCmPrivateRoom::Of(m_Private).Refuse(
            aSection, aKey,
            "a size (B, kB, KiB, MB, MiB, GB, GiB, TB, TiB or no unit) from " +
                std::to_string(aMin) + " to " + std::to_string(aMax) + " bytes");
    });
}

CmResult CCmConfigReader::GetAddress(std::string_view aSection, std::string_view aKey,
                                     CCmIpAddress& aAddress) {
    std::string_view value;
    const CmResult rv = GetText(aSection, aKey, value);
    if (CM_FAILED(rv) || CmParseIpAddress(value, aAddress)) {
        return rv;
    }
    return Refuse(aSection, aKey, "an IPv4 or IPv6 address");
}

CmResult CCmConfigReader::Refuse(std::string_view aSection, std::string_view aKey,
                                 const char* aExpected) {
    return CmWithMemory([&] {
        return CCmPrivateRoom::Of(m_Private).Refuse(
            aSection, aKey, aExpected == nullptr ? "something else" : aExpected);
    });
}

const std::vector<CCmString>& CCmConfigReader::problems() const {
    return CCmPrivateRoom::Of(m_Private).m_Problems;
}

CmResult CCmConfigReader::ListUnasked(std::string_view aSection,
                                      std::vector<CCmString>& aSentences) const {
    const CReaderState& state = CCmPrivateRoom::Of(m_Private);
    return CmWithMemory([&] {
        std::vector<CCmString> sentences = aSentences;
        for (const CEntry& entry : state.m_Profile.entries()) {
            const std::string_view section = state.m_Profile.SectionOf(entry);
            if (aSection.empty() || CmEqualsNoCase(section, aSection)) {
                CCmString strSentence = state.UnaskedSentence(entry);
                if (!strSentence.empty()) {
                    sentences.push_back(std::move(strSentence));
                }
            }
        }
        aSentences.swap(sentences);
        return CM_OK;
    });
}

}  // namespace UTIL_NS
