#include "CmProgramText.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <memory>
#include <vector>

namespace UTIL_NS {

namespace {

constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t LAST_USEC = INT64_C(253402300800) * USEC_PER_SEC;  // the year 10000
constexpr uint64_t LAST_SECOND = INT64_C(253402300799);
constexpr char ELLIPSIS[] = "\xE2\x80\xA6";
constexpr char REPLACEMENT[] = "\xEF\xBF\xBD";
constexpr size_t LONGEST_CLASS_NAME = 4096;  // as shown; a few bytes of input may stand for many
// Each reference in a mangled name stands for an earlier part of it, which may hold references:
// with so many, a name cannot grow to more than some 100 KB.
constexpr size_t MOST_REFERENCES = 24;

unsigned char ByteAt(std::string_view aText, size_t aAt) {
    return static_cast<unsigned char>(aText[aAt]);
}

size_t LengthByFirst(unsigned char aFirst) {
    if (aFirst < 0x80) {
        return 1;
    }
    if (aFirst >= 0xC2 && aFirst < 0xE0) {
        return 2;
    }
    if (aFirst >= 0xE0 && aFirst < 0xF0) {
        return 3;
    }
    return aFirst >= 0xF0 && aFirst <= 0xF4 ? 4 : 0;
}

struct CCharacter {
    size_t length;  // 0: the first byte is no UTF-8
    uint32_t code;
};

CCharacter FirstCharacter(std::string_view aText) {
    constexpr std::array<uint32_t, 5> LEAST = {0, 0, 0x80, 0x800, 0x10000};
    const size_t nLength = LengthByFirst(ByteAt(aText, 0));
    if (nLength <= 1 || nLength > aText.size()) {
        return {nLength == 1 ? nLength : 0, ByteAt(aText, 0)};
    }
    uint32_t dwCode = ByteAt(aText, 0) & (0x7FU >> nLength);
    for (size_t i = 1; i < nLength; ++i) {
        if ((ByteAt(aText, i) & 0xC0) != 0x80) {
            return {0, 0};
        }
        dwCode = dwCode << 6 | (ByteAt(aText, i) & 0x3F);
    }
    const bool bSurrogate = dwCode >= 0xD800 && dwCode < 0xE000;
    const bool bGood = dwCode >= LEAST[nLength] && dwCode <= 0x10FFFF && !bSurrogate;
    return {bGood ? nLength : 0, dwCode};
}

// What a terminal acts on rather than shows.
bool IsControl(uint32_t aCode) {
    return aCode < 0x20 || (aCode >= 0x7F && aCode < 0xA0) || aCode == 0x061C ||
           (aCode >= 0x200B && aCode <= 0x200F) || (aCode >= 0x2028 && aCode <= 0x202E) ||
           (aCode >= 0x2060 && aCode <= 0x206F) || aCode == 0xFEFF;
}

// Calls aKeep(bytes, code) for a character and aReplace(byte) for a byte that is none.
template <class KeepType, class ReplaceType>
void ForEachCharacter(std::string_view aText, KeepType aKeep, ReplaceType aReplace) {
    while (!aText.empty()) {
        const CCharacter first = FirstCharacter(aText);
        if (first.length == 0) {
            aReplace(ByteAt(aText, 0));
        } else {
            aKeep(aText.substr(0, first.length), first.code);
        }
        aText.remove_prefix(std::max<size_t>(first.length, 1));
    }
}

struct CCodes {
    uint32_t first;
    uint32_t last;
};
// Marks that stand over the character before them.
constexpr CCodes COMBINING[] = {{0x0300, 0x036F}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
                                {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}};
// East Asian characters and pictures.
constexpr CCodes WIDE[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},  {0xA960, 0xA97C}, {0xAC00, 0xD7A3},
    {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF01, 0xFF60},  {0xFFE0, 0xFFE6}, {0x1F300, 0x1F64F},
    {0x1F680, 0x1F6FF}, {0x1F900, 0x1FAFF}, {0x20000, 0x3FFFD}};

// On a terminal.
size_t ColumnsOf(uint32_t aCode) {
    const auto isIn = [aCode](const CCodes& aCodes) {
        return aCode >= aCodes.first && aCode <= aCodes.last;
    };
    if (std::any_of(std::begin(WIDE), std::end(WIDE), isIn)) {
        return 2;
    }
    return std::any_of(std::begin(COMBINING), std::end(COMBINING), isIn) ? 0 : 1;
}

std::string Escaped(unsigned char aByte) {
    return CmFormat("\\x%02x", static_cast<unsigned>(aByte));
}

// The pieces "3foo3Bar" of a mangled name, as far as they go, as "foo::Bar".
std::string SourceNames(std::string_view aMangled) {
    std::string strNames;
    aMangled.remove_prefix(!aMangled.empty() && aMangled[0] == 'N' ? 1 : 0);
    while (!aMangled.empty()) {
        const size_t nFigures = std::min(aMangled.find_first_not_of("0123456789"), aMangled.size());
        uint64_t ullLength = 0;
        if (!CmReadNumber(aMangled.substr(0, nFigures), LONGEST_CLASS_NAME, &ullLength) ||
            ullLength == 0) {
            break;
        }
        aMangled.remove_prefix(nFigures);
        const std::string_view name = aMangled.substr(0, ullLength);
        strNames += strNames.empty() ? "" : "::";
        strNames += name.substr(0, 10) == "_GLOBAL__N" ? "(anonymous namespace)" : name;
        aMangled.remove_prefix(name.size());
    }
    return strNames;
}

// "S_", "S1A_", "T_" and the like; what looks like one within a name counts as well.
size_t CountReferences(std::string_view aMangled) {
    size_t nCount = 0;
    for (size_t n = aMangled.find_first_of("ST"); n < aMangled.size();
         n = aMangled.find_first_of("ST", n + 1)) {
        const size_t nEnd = aMangled.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ", n);
        nCount += nEnd < aMangled.size() && aMangled[nEnd] == '_' ? 1 : 0;
    }
    return nCount;
}

bool BreakDown(int64_t aUsec, tm* aTime) {
    const std::time_t tSeconds = static_cast<std::time_t>(aUsec / USEC_PER_SEC);
    return aUsec >= 0 && aUsec < LAST_USEC && localtime_r(&tSeconds, aTime) != nullptr;
}

// Takes so many figures.
bool TakeNumber(std::string_view& aText, size_t aFigures, int* aNumber) {
    uint64_t ullNumber = 0;
    if (aText.size() < aFigures || !CmReadNumber(aText.substr(0, aFigures), 9999, &ullNumber)) {
        return false;
    }
    *aNumber = static_cast<int>(ullNumber);
    aText.remove_prefix(aFigures);
    return true;
}

bool TakeCharacter(std::string_view& aText, std::string_view aOneOf) {
    if (aText.empty() || aOneOf.find(aText[0]) == std::string_view::npos) {
        return false;
    }
    aText.remove_prefix(1);
    return true;
}

bool TakeDate(std::string_view& aText, tm* aTime) {
    if (!TakeNumber(aText, 4, &aTime->tm_year) || !TakeCharacter(aText, "-") ||
        !TakeNumber(aText, 2, &aTime->tm_mon) || !TakeCharacter(aText, "-") ||
        !TakeNumber(aText, 2, &aTime->tm_mday) || !TakeCharacter(aText, " T")) {
        return false;
    }
    const bool bGood = aTime->tm_year >= 1970 && aTime->tm_mon >= 1 && aTime->tm_mon <= 12 &&
                       aTime->tm_mday >= 1 && aTime->tm_mday <= 31;
    aTime->tm_year -= 1900;
    aTime->tm_mon -= 1;
    return bGood;
}

// What stands after the last "::", with "<...>" for template arguments; with what is before it, if
// asked.
std::string LastPart(std::string_view aName, bool aIsWithOwner) {
    std::string strOwner;
    std::string strOut;
    size_t nDepth = 0;
    for (size_t i = 0; i < aName.size(); ++i) {
        const char ch = aName[i];
        if (ch == '<' || ch == '(' || ch == '{') {
            strOut += nDepth == 0 ? std::string(1, ch) : std::string();
            ++nDepth;
        } else if ((ch == '>' || ch == ')' || ch == '}') && nDepth > 0) {
            --nDepth;
            strOut += nDepth == 0 ? std::string(ELLIPSIS) + ch : std::string();
        } else if (nDepth == 0 && aName.substr(i, 2) == "::") {
            strOwner = strOut + "::";
            strOut.clear();
            ++i;
        } else if (nDepth == 0) {
            strOut += ch;
        }
    }
    return aIsWithOwner ? strOwner + strOut : strOut;
}

// The function in which a lambda stands, without its arguments: it says more than the template that
// the lambda was given to. Empty: there is none.
std::string_view FunctionWithLambda(std::string_view aClassName) {
    const size_t nLambda = std::min(aClassName.find("::{lambda("), aClassName.find("::$_"));
    if (nLambda == std::string_view::npos) {
        return std::string_view();
    }
    std::vector<size_t> begins = {0};  // of what stands in each of the brackets that are open
    size_t nEnd = nLambda;
    for (size_t i = 0; i < nLambda; ++i) {
        const char ch = aClassName[i];
        if (ch == '<' || ch == '(') {
            begins.push_back(i + 1);
        } else if ((ch == '>' || ch == ')') && begins.size() > 1) {
            nEnd = ch == ')' ? begins.back() - 1 : nEnd;
            begins.pop_back();
        } else if (ch == ' ' && aClassName.substr(i, 6) != " const") {
            begins.back() = i + 1;
        }
    }
    return nEnd > begins.back() ? aClassName.substr(begins.back(), nEnd - begins.back())
                                : std::string_view();
}

}  // namespace

std::string CmPrintable(std::string_view aText) {
    std::string strOut;
    ForEachCharacter(
        aText,
        [&](std::string_view aCharacter, uint32_t aCode) {
            if (!IsControl(aCode)) {
                strOut += aCharacter;
                return;
            }
            for (const char ch : aCharacter) {
                strOut += Escaped(static_cast<unsigned char>(ch));
            }
        },
        [&](unsigned char aByte) { strOut += Escaped(aByte); });
    return strOut;
}

std::string CmJsonText(std::string_view aText) {
    std::string strOut = "\"";
    ForEachCharacter(
        aText,
        [&](std::string_view aCharacter, uint32_t aCode) {
            if (aCode < 0x10000 && IsControl(aCode)) {
                strOut += CmFormat("\\u%04x", aCode);
            } else {
                strOut += aCode == '"' || aCode == '\\' ? "\\" : "";
                strOut += aCharacter;
            }
        },
        [&](unsigned char) { strOut += "\\ufffd"; });
    return strOut + "\"";
}

std::string CmXmlText(std::string_view aText) {
    std::string strOut;
    ForEachCharacter(
        aText,
        [&](std::string_view aCharacter, uint32_t aCode) {
            if (IsControl(aCode) || aCode == 0xFFFE || aCode == 0xFFFF) {
                strOut += REPLACEMENT;
            } else if (std::string_view("&<>\"'").find(aCharacter) != std::string_view::npos) {
                strOut += CmFormat("&#%u;", aCode);
            } else {
                strOut += aCharacter;
            }
        },
        [&](unsigned char) { strOut += REPLACEMENT; });
    return strOut;
}

size_t CmColumns(std::string_view aText) {
    size_t nColumns = 0;
    ForEachCharacter(
        aText, [&](std::string_view, uint32_t aCode) { nColumns += ColumnsOf(aCode); },
        [&](unsigned char) { ++nColumns; });
    return nColumns;
}

std::string CmCut(std::string_view aText, size_t aColumns) {
    if (CmColumns(aText) <= aColumns) {
        return std::string(aText);
    }
    if (aColumns == 0) {
        return "";
    }
    size_t nKept = 0;
    size_t nColumns = 1;  // of the mark
    bool bFits = true;
    ForEachCharacter(
        aText,
        [&](std::string_view aCharacter, uint32_t aCode) {
            nColumns += ColumnsOf(aCode);
            bFits = bFits && nColumns <= aColumns;
            nKept += bFits ? aCharacter.size() : 0;
        },
        [&](unsigned char) {
            bFits = bFits && ++nColumns <= aColumns;
            nKept += bFits ? 1 : 0;
        });
    return std::string(aText.substr(0, nKept)) + ELLIPSIS;
}

std::string CmPadRight(std::string_view aText, size_t aColumns) {
    const std::string strText = CmCut(aText, aColumns);
    return strText + std::string(aColumns - CmColumns(strText), ' ');
}

std::string CmPadLeft(std::string_view aText, size_t aColumns) {
    const std::string strText = CmCut(aText, aColumns);
    return std::string(aColumns - CmColumns(strText), ' ') + strText;
}

std::string CmClassName(std::string_view aName) {
    const std::string strName(aName);
    int nStatus = 0;
    const std::unique_ptr<char, void (*)(void*)> pDemangled(
        CountReferences(aName) <= MOST_REFERENCES
            ? abi::__cxa_demangle(strName.c_str(), nullptr, nullptr, &nStatus)
            : nullptr,
        std::free);
    // Single letters are the names of simple types, which no class has.
    if (pDemangled != nullptr && strName.size() > 1) {
        const std::string strDemangled = pDemangled.get();
        return strDemangled.size() <= LONGEST_CLASS_NAME
                   ? strDemangled
                   : strDemangled.substr(0, LONGEST_CLASS_NAME) + ELLIPSIS;
    }
    const std::string strParts = SourceNames(aName);
    return strParts.empty() ? strName : strParts + ELLIPSIS;
}

std::string CmShortClassName(std::string_view aClassName) {
    const std::string_view function = FunctionWithLambda(aClassName);
    const std::string strOut =
        function.empty() ? LastPart(aClassName, false) : LastPart(function, true);
    return strOut.empty() ? std::string(aClassName) : strOut;
}

bool CmPutOut(std::string_view aText) {
    return std::fwrite(aText.data(), 1, aText.size(), stdout) == aText.size() &&
           std::fflush(stdout) == 0;
}

int64_t CmNowUsec() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string CmTimeText(int64_t aUsec) {
    tm time = {};
    char szDate[32];
    if (!BreakDown(aUsec, &time) ||
        std::strftime(szDate, sizeof(szDate), "%Y-%m-%d ", &time) == 0) {
        return CmFormat("%lld", static_cast<long long>(aUsec));
    }
    return szDate + CmClockText(aUsec);
}

std::string CmClockText(int64_t aUsec) {
    tm time = {};
    if (!BreakDown(aUsec, &time)) {
        return CmFormat("%lld", static_cast<long long>(aUsec));
    }
    return CmFormat("%02d:%02d:%02d.%06d", time.tm_hour, time.tm_min, time.tm_sec,
                    static_cast<int>(aUsec % USEC_PER_SEC));
}

std::string CmLengthText(int64_t aUsec) {
    const double dUsec = static_cast<double>(aUsec);
    if (aUsec < 1000) {
        return CmFormat("%lldus", static_cast<long long>(aUsec));
    }
    if (aUsec < USEC_PER_SEC) {
        return CmFormat(aUsec < 9950 ? "%.1fms" : "%.0fms", dUsec / 1e3);
    }
    if (aUsec < 1000 * USEC_PER_SEC) {
        return CmFormat(aUsec < 9950000 ? "%.1fs" : "%.0fs", dUsec / 1e6);
    }
    return aUsec < 360000 * USEC_PER_SEC ? CmFormat("%.1fh", dUsec / 3.6e9)
                                         : CmFormat("%.0fd", dUsec / 8.64e10);
}

std::string CmCountText(uint64_t aCount) {
    if (aCount < 100000) {
        return std::to_string(aCount);
    }
    double dCount = static_cast<double>(aCount);
    for (const char chUnit : std::string_view("kMGTPE")) {
        dCount /= 1000;
        if (dCount < 999.5) {
            return CmFormat(dCount < 9.95 ? "%.1f%c" : "%.0f%c", dCount, chUnit);
        }
    }
    return "many";
}

bool CmReadNumber(std::string_view aText, uint64_t aMax, uint64_t* aNumber) {
    uint64_t ullNumber = 0;
    for (const char ch : aText) {
        if (ch < '0' || ch > '9' || ullNumber > (UINT64_MAX - 9) / 10) {
            return false;
        }
        ullNumber = ullNumber * 10 + static_cast<uint64_t>(ch - '0');
    }
    *aNumber = ullNumber;
    return !aText.empty() && ullNumber <= aMax;
}

bool CmReadSeconds(std::string_view aText, int64_t* aUsec) {
    const size_t nPoint = aText.find('.');
    uint64_t ullSeconds = 0;
    uint64_t ullFraction = 0;
    if (!CmReadNumber(aText.substr(0, nPoint), LAST_SECOND, &ullSeconds)) {
        return false;
    }
    if (nPoint != std::string_view::npos) {
        std::string strFraction(aText.substr(nPoint + 1));
        if (strFraction.empty() || strFraction.size() > 6) {
            return false;
        }
        strFraction.resize(6, '0');
        if (!CmReadNumber(strFraction, USEC_PER_SEC, &ullFraction)) {
            return false;
        }
    }
    *aUsec = static_cast<int64_t>(ullSeconds * USEC_PER_SEC + ullFraction);
    return true;
}

bool CmReadTime(std::string_view aText, int64_t aDayUsec, int64_t* aUsec) {
    if (TakeCharacter(aText, "@")) {
        return CmReadSeconds(aText, aUsec);
    }
    tm time = {};
    if (!BreakDown(std::max<int64_t>(aDayUsec, 0), &time)) {
        return false;
    }
    if (aText.find('-') != std::string_view::npos && !TakeDate(aText, &time)) {
        return false;
    }
    time.tm_sec = 0;
    time.tm_isdst = -1;
    if (!TakeNumber(aText, 2, &time.tm_hour) || !TakeCharacter(aText, ":") ||
        !TakeNumber(aText, 2, &time.tm_min)) {
        return false;
    }
    int64_t llSecondsUsec = 0;
    if (!aText.empty() &&
        (!TakeCharacter(aText, ":") || aText.size() < 2 || !CmReadSeconds(aText, &llSecondsUsec))) {
        return false;
    }
    if (time.tm_hour > 23 || time.tm_min > 59 || llSecondsUsec >= 61 * USEC_PER_SEC) {
        return false;
    }
    const int nDay = time.tm_mday;
    const std::time_t tSeconds = std::mktime(&time);
    *aUsec = static_cast<int64_t>(tSeconds) * USEC_PER_SEC + llSecondsUsec;
    // A month that has no such day is counted on into the next one.
    return tSeconds != static_cast<std::time_t>(-1) && time.tm_mday == nDay;
}

}  // namespace UTIL_NS
