// Text of the programs: what comes out of a recording is anybody's bytes until it went through
// here.
#ifndef CM_PROGRAM_TEXT_H
#define CM_PROGRAM_TEXT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace UTIL_NS {

// For terminals and lines: control characters, characters that change the direction of what
// follows, and bytes that are no UTF-8 become \xNN; every other character stays.
std::string CmPrintable(std::string_view aText);

// For JSON, with its quotation marks; bytes that are no UTF-8 become U+FFFD.
std::string CmJsonText(std::string_view aText);

// For the text and the attributes of XML; what XML does not allow becomes U+FFFD.
std::string CmXmlText(std::string_view aText);

// The columns that a printable text takes on a terminal: none, one or two for each character.
size_t CmColumns(std::string_view aText);
// At most aColumns columns of a printable text, cut at the end, which is marked.
std::string CmCut(std::string_view aText, size_t aColumns);
// The same, filled up with spaces, on the right or on the left.
std::string CmPadRight(std::string_view aText, size_t aColumns);
std::string CmPadLeft(std::string_view aText, size_t aColumns);

// A class's name as its source has it, from the name that run-time type information has. A name
// that was cut is given as far as its classes can be told, with an ellipsis; anything else as it
// is.
std::string CmClassName(std::string_view aName);
// The last part of such a name, without namespaces, and with "<...>" for template arguments; of a
// lambda, and of what one was given to, the function in which it stands.
std::string CmShortClassName(std::string_view aClassName);

// As std::printf does it, of any length.
template <typename... Args>
std::string CmFormat(const char* aFormat, Args... aArgs) {
    const int nLength = std::snprintf(nullptr, 0, aFormat, aArgs...);
    std::string strText(nLength > 0 ? static_cast<size_t>(nLength) + 1 : 0, '\0');
    if (nLength > 0) {
        std::snprintf(strText.data(), strText.size(), aFormat, aArgs...);
        strText.pop_back();
    }
    return strText;
}

// Writes to standard output, and has it there. False: not all of it could be written.
bool CmPutOut(std::string_view aText);

// The wall clock.
int64_t CmNowUsec();
// Local time, "2026-11-22 09:30:00.000001"; the number itself where there is no such time.
std::string CmTimeText(int64_t aUsec);
// The same without the date.
std::string CmClockText(int64_t aUsec);

// Microseconds in three to four figures with their unit, such as "12us", "3.4ms", "15.0s".
std::string CmLengthText(int64_t aUsec);
// A number in at most five columns, such as "12345", "123k", "4.5M".
std::string CmCountText(uint64_t aCount);

// A non-negative number in decimal figures. False: it is none, or beyond aMax.
bool CmReadNumber(std::string_view aText, uint64_t aMax, uint64_t* aNumber);
// Seconds with up to six figures after the point, as microseconds. False: they are none.
bool CmReadSeconds(std::string_view aText, int64_t* aUsec);
// "[YYYY-MM-DD ]HH:MM[:SS[.FRACTION]]" in local time, without a date on the day of aDayUsec, or
// "@SECONDS[.FRACTION]" since 1970. False: it is none.
bool CmReadTime(std::string_view aText, int64_t aDayUsec, int64_t* aUsec);

}  // namespace UTIL_NS

#endif  // CM_PROGRAM_TEXT_H
