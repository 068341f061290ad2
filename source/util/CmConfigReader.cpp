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
#include "CmProfileReader.h"
#include "CmSystem.h"
#include "CmT120Trace.h"
#include "port/CmFileTime.h"

namespace UTIL_NS {

namespace {

// A file that was not written to for so long holds what its writer meant; the time of a change is
// no finer than this on the file systems in use.
constexpr long SETTLED_USEC = 20 * 1000;
constexpr int MAX_TRIES = 50;
constexpr size_t LONGEST_QUOTE = 64;  // of a value in a sentence
constexpr size_t NONE = static_cast<size_t>(-1);

// -1, 0 or 1, without regard to ASCII case.
int Compare(std::string_view aLeft, std::string_view aRight) {
    const size_t nCommon = std::min(aLeft.size(), aRight.size());
    for (size_t i = 0; i < nCommon; ++i) {
        const auto byLeft = static_cast<unsigned char>(CmToLower(aLeft[i]));
        const auto byRight = static_cast<unsigned char>(CmToLower(aRight[i]));
        if (byLeft != byRight) {
            return byLeft < byRight ? -1 : 1;
        }
    }
    return aLeft.size() < aRight.size() ? -1 : aLeft.size() > aRight.size() ? 1 : 0;
}

// ---- The file

// What tells one state of a file from another.
struct FileMark {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = -1;
    timespec time = {};

    FileMark() = default;
    explicit FileMark(const struct stat& aStat)
        : device(aStat.st_dev),
          number(aStat.st_ino),
          size(aStat.st_size),
          time(CmFileTime(aStat)) {}
    friend bool operator==(const FileMark& aLeft, const FileMark& aRight) {
        return std::tie(aLeft.device, aLeft.number, aLeft.size, aLeft.time.tv_sec,
                        aLeft.time.tv_nsec) == std::tie(aRight.device, aRight.number, aRight.size,
                                                        aRight.time.tv_sec, aRight.time.tv_nsec);
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
    bool Mark(FileMark& aMark) const {
        struct stat state = {};
        if (g_cmSystem.fstat(m_nFile, &state) != 0) {
            return false;
        }
        aMark = FileMark(state);
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

// Whether a change from now on would get another time than the last one.
bool IsSettled(const FileMark& aMark) {
    timeval now = {};
    if (g_cmSystem.gettimeofday(&now, nullptr) != 0) {
        return false;
    }
    const CCmTimeValue tvAge =
        CCmTimeValue(now) - CCmTimeValue(aMark.time.tv_sec, aMark.time.tv_nsec / 1000);
    return tvAge >= CCmTimeValue(0, SETTLED_USEC);
}

// Reads a file as it was at one moment: nobody wrote to it from the first look at its time to the
// last. A time too young to tell, or one of another machine's clock, is made up for by a second
// reading that finds the same.
CmResult TakeSnapshot(const CFile& aFile, CCmString& aText, FileMark& aMark) {
    CCmString strPrevious;
    FileMark previous;
    for (int i = 0; i < MAX_TRIES; ++i) {
        FileMark before;
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

struct Header {
    std::string_view name;
    unsigned line;
};

struct Entry {
    size_t header;  // NONE ahead of the first
    std::string_view key;
    std::string_view value;
    unsigned line;
    bool asked;
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
    Entry* Find(std::string_view aSection, std::string_view aKey) {
        const size_t nHeader = FirstHeader(aSection);
        const size_t nEntry = nHeader == NONE ? NONE : FirstEntry(nHeader, aKey);
        return nEntry == NONE ? nullptr : &m_entries[nEntry];
    }
    std::string_view SectionOf(const Entry& aEntry) const {
        return aEntry.header == NONE ? std::string_view() : m_headers[aEntry.header].name;
    }
    // The line of what keeps an entry from being found; 0 when nothing does.
    unsigned HiddenBy(const Entry& aEntry) const {
        const size_t nHeader = FirstHeader(m_headers[aEntry.header].name);
        if (nHeader != aEntry.header) {
            return m_headers[nHeader].line;
        }
        const Entry& first = m_entries[FirstEntry(nHeader, aEntry.key)];
        return &first == &aEntry ? 0 : first.line;
    }
    const std::vector<Entry>& entries() const { return m_entries; }

  private:
    void AddLine(std::string_view aLine, unsigned aNumber) {
        const CCmProfileLine line = CmSplitProfileLine(aLine);
        if (line.kind == CCmProfileLine::HEADER) {
            m_headers.push_back({CmTrimmed(line.name), aNumber});
        } else if (line.kind == CCmProfileLine::KEY) {
            const size_t nHeader = m_headers.empty() ? NONE : m_headers.size() - 1;
            m_entries.push_back(
                {nHeader, CmTrimmed(line.name), CmProfileValue(line.value), aNumber, false});
        }
    }

    // Of equal names the first comes first.
    void Sort() {
        for (size_t i = 0; i < m_headers.size(); ++i) {
            m_headerOrder.push_back(i);
        }
        for (size_t i = 0; i < m_entries.size(); ++i) {
            m_entryOrder.push_back(i);
        }
        std::stable_sort(m_headerOrder.begin(), m_headerOrder.end(), [this](size_t a, size_t b) {
            return Compare(m_headers[a].name, m_headers[b].name) < 0;
        });
        std::stable_sort(m_entryOrder.begin(), m_entryOrder.end(), [this](size_t a, size_t b) {
            return IsBefore(m_entries[a], m_entries[b].header, m_entries[b].key);
        });
    }
    static bool IsBefore(const Entry& aEntry, size_t aHeader, std::string_view aKey) {
        return aEntry.header != aHeader ? aEntry.header < aHeader : Compare(aEntry.key, aKey) < 0;
    }

    size_t FirstHeader(std::string_view aName) const {
        const auto it = std::lower_bound(m_headerOrder.begin(), m_headerOrder.end(), aName,
                                         [this](size_t i, std::string_view aWanted) {
                                             return Compare(m_headers[i].name, aWanted) < 0;
                                         });
        return it == m_headerOrder.end() || Compare(m_headers[*it].name, aName) != 0 ? NONE : *it;
    }
    size_t FirstEntry(size_t aHeader, std::string_view aKey) const {
        const auto it = std::lower_bound(m_entryOrder.begin(), m_entryOrder.end(), aKey,
                                         [this, aHeader](size_t i, std::string_view aWanted) {
                                             return IsBefore(m_entries[i], aHeader, aWanted);
                                         });
        const bool bFound = it != m_entryOrder.end() && m_entries[*it].header == aHeader &&
                            Compare(m_entries[*it].key, aKey) == 0;
        return bFound ? *it : NONE;
    }

    std::unique_ptr<const CCmString> m_pText;  // stays where it is when the profile is moved
    std::vector<Header> m_headers;
    std::vector<Entry> m_entries;
    std::vector<size_t> m_headerOrder;
    std::vector<size_t> m_entryOrder;
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
    char achText[48];
    std::snprintf(achText, sizeof(achText), "%s%lld.%06lld", bNegative ? "-" : "",
                  static_cast<long long>(bNegative ? -aTime.GetSec() : aTime.GetSec()),
                  static_cast<long long>(bNegative ? -aTime.GetUsec() : aTime.GetUsec()));
    CCmString strText = achText;
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

// Runs what may throw for want of memory.
template <class Function>
CmResult WithMemory(Function aFunction) {
    try {
        return aFunction();
    } catch (const std::exception&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
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

struct __attribute__((visibility("hidden"))) CCmConfigReader::Rep {
    CCmString strPath;
    bool bIsMain = false;
    bool bWasRead = false;
    bool bExists = false;
    FileMark mark;
    CProfile profile;
    std::vector<CCmString> problems;

    CmResult Read(const char* aPath, bool aIsMain);
    CmResult Complain(const char* aPath, CmResult aResult, const CCmString& aWhy);
    CCmString PlaceOf(const Entry& aEntry) const;
    CCmString Sentence(const Entry& aEntry, const CCmString& aExpected) const;
    CCmString UnaskedSentence(const Entry& aEntry) const;
    std::string_view ValueOf(const Entry& aEntry) const;
    CmResult Refuse(std::string_view aSection, std::string_view aKey, const CCmString& aExpected);
};

// Everything is made first and put in place last, so that running out of memory changes nothing.
CmResult CCmConfigReader::Rep::Read(const char* aPath, bool aIsMain) {
    Rep fresh;
    fresh.strPath = aPath;
    fresh.bIsMain = aIsMain;
    fresh.bWasRead = true;
    const CFile file(aPath);
    fresh.bExists = file.IsOpen();
    if (!file.IsOpen() && errno != ENOENT) {
        return Complain(aPath, CM_ERROR_FAILURE, SystemError());
    }
    if (fresh.bExists) {
        CCmString strText;
        const CmResult rv = TakeSnapshot(file, strText, fresh.mark);
        if (CM_FAILED(rv)) {
            return Complain(aPath, rv,
                            rv == CM_ERROR_FAILURE ? SystemError() : "it does not stop changing");
        }
        fresh.profile.Parse(std::move(strText));
    }
    std::swap(*this, fresh);
    return bExists ? CM_OK : CM_ERROR_NOT_FOUND;
}

CmResult CCmConfigReader::Rep::Complain(const char* aPath, CmResult aResult,
                                        const CCmString& aWhy) {
    problems.push_back(CCmString(aPath) + ": cannot be read: " + aWhy);
    return aResult;
}

CCmString CCmConfigReader::Rep::PlaceOf(const Entry& aEntry) const {
    return strPath + ":" + std::to_string(aEntry.line) + ": ";
}

CCmString CCmConfigReader::Rep::Sentence(const Entry& aEntry, const CCmString& aExpected) const {
    return PlaceOf(aEntry) + NameOf(aEntry.key) + " = " + Quoted(ValueOf(aEntry)) +
           " in section [" + NameOf(profile.SectionOf(aEntry)) + "] should be " + aExpected;
}

// Empty when there is nothing to say.
CCmString CCmConfigReader::Rep::UnaskedSentence(const Entry& aEntry) const {
    const CCmString strWhat = PlaceOf(aEntry) + "the key " + NameOf(aEntry.key);
    if (aEntry.header == NONE) {
        return strWhat + " is in no section";
    }
    const CCmString strWhere = strWhat + " in section [" + NameOf(profile.SectionOf(aEntry)) + "] ";
    const unsigned dwHidden = profile.HiddenBy(aEntry);
    if (dwHidden != 0) {
        return strWhere + "does not count, because line " + std::to_string(dwHidden) +
               " has that name already";
    }
    return aEntry.asked ? CCmString() : strWhere + "means nothing here";
}

std::string_view CCmConfigReader::Rep::ValueOf(const Entry& aEntry) const {
    const bool bSemicolon = bIsMain && !aEntry.value.empty() && aEntry.value.back() == ';';
    return aEntry.value.substr(0, aEntry.value.size() - (bSemicolon ? 1 : 0));
}

CmResult CCmConfigReader::Rep::Refuse(std::string_view aSection, std::string_view aKey,
                                      const CCmString& aExpected) {
    const Entry* pEntry = profile.Find(aSection, aKey);
    if (pEntry == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    problems.push_back(Sentence(*pEntry, aExpected));
    return CM_ERROR_INVALID_ARG;
}

CCmConfigReader::CCmConfigReader() : m_pRep(new (std::nothrow) Rep) {}

CCmConfigReader::~CCmConfigReader() {
    delete m_pRep;
}

CmResult CCmConfigReader::Read(const char* aPath) {
    CCmDisableCancel disableCancel;
    if (aPath == nullptr) {
        return CM_ERROR_INVALID_ARG;
    }
    return m_pRep == nullptr ? CM_ERROR_OUT_OF_MEMORY
                             : WithMemory([&] { return m_pRep->Read(aPath, false); });
}

CmResult CCmConfigReader::ReadMain() {
    CCmDisableCancel disableCancel;
    char szPath[CM_CONFIG_PATH_SIZE];
    get_config_file_name(szPath);
    return m_pRep == nullptr ? CM_ERROR_OUT_OF_MEMORY
                             : WithMemory([&] { return m_pRep->Read(szPath, true); });
}

bool CCmConfigReader::HasChanged() const {
    if (m_pRep == nullptr || !m_pRep->bWasRead) {
        return true;
    }
    struct stat state = {};
    const bool bExists = g_cmSystem.stat(m_pRep->strPath.c_str(), &state) == 0;
    return bExists != m_pRep->bExists || (bExists && !(FileMark(state) == m_pRep->mark));
}

CmResult CCmConfigReader::UseForTrace() {
    CCmDisableCancel disableCancel;
    if (m_pRep == nullptr || !m_pRep->bIsMain) {
        return CM_ERROR_NOT_INITIALIZED;
    }
    class CSnapshot final : public CCmMainSnapshot {
      public:
        explicit CSnapshot(Rep& aRep) : m_rep(aRep) {}
        bool Find(std::string_view aSection, std::string_view aKey,
                  std::string_view& aValue) override {
            Entry* pEntry = m_rep.profile.Find(aSection, aKey);
            if (pEntry == nullptr) {
                return false;
            }
            pEntry->asked = true;
            aValue = pEntry->value;
            return true;
        }

      private:
        Rep& m_rep;
    };
    const CSnapshot snapshot(*m_pRep);
    refresh_trace_config();
    return CM_OK;
}

CmResult CCmConfigReader::GetText(std::string_view aSection, std::string_view aKey,
                                  std::string_view& aValue) {
    Entry* pEntry = m_pRep == nullptr ? nullptr : m_pRep->profile.Find(aSection, aKey);
    if (pEntry == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    pEntry->asked = true;
    aValue = m_pRep->ValueOf(*pEntry);
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
    return WithMemory([&] {
        const CCmString strMost =
            aMax < CCmTimeValue(INT64_MAX) ? " to " + SecondsOf(aMax) : CCmString(" on");
        return m_pRep->Refuse(
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
    return WithMemory([&] {
        return m_pRep->Refuse(aSection, aKey,
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
    if (m_pRep == nullptr) {
        return CM_ERROR_NOT_FOUND;
    }
    return WithMemory([&] {
        return m_pRep->Refuse(aSection, aKey, aExpected == nullptr ? "something else" : aExpected);
    });
}

const std::vector<CCmString>& CCmConfigReader::problems() const {
    static const std::vector<CCmString> s_none;
    return m_pRep == nullptr ? s_none : m_pRep->problems;
}

CmResult CCmConfigReader::ListUnasked(std::string_view aSection,
                                      std::vector<CCmString>& aSentences) const {
    if (m_pRep == nullptr) {
        return CM_OK;
    }
    return WithMemory([&] {
        std::vector<CCmString> sentences = aSentences;
        for (const Entry& entry : m_pRep->profile.entries()) {
            const std::string_view section = m_pRep->profile.SectionOf(entry);
            if (aSection.empty() || CmEqualsIgnoringCase(section, aSection)) {
                CCmString strSentence = m_pRep->UnaskedSentence(entry);
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
