// What the strict parsers share; internal.
#ifndef CM_STRICT_RESULT_H
#define CM_STRICT_RESULT_H

#include "CmAscii.h"
#include "CmStrict.h"

namespace UTIL_NS {

inline CCmParsed CmRefused(size_t aAt, const char* aExpected) {
    return CCmParsed{CM_ERROR_INVALID_ARG, aAt, aExpected};
}

inline CCmParsed CmOutOfRange(size_t aAt, const char* aExpected) {
    return CCmParsed{CM_ERROR_FAILURE, aAt, aExpected};
}

// The answer about a part of a text, counted from the start of the text.
inline CCmParsed CmFrom(size_t aStart, CCmParsed aParsed) {
    aParsed.m_nAt += aParsed ? 0 : aStart;
    return aParsed;
}

inline CCmParsed CmNoMemory() {
    return CCmParsed{CM_ERROR_OUT_OF_MEMORY, 0, "enough memory"};
}

// The value of a hexadecimal digit, -1 for any other character.
constexpr int CmHexValue(char aChar) {
    if (CmIsDigit(aChar)) {
        return aChar - '0';
    }
    const char ch = CmToLower(aChar);
    return ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
}

// What RFC 3986 calls unreserved; zone identifiers are made of it, too.
constexpr bool CmIsUnreserved(char aChar) {
    return CmIsDigit(aChar) || CmIsLetter(aChar) || aChar == '-' || aChar == '.' || aChar == '_' ||
           aChar == '~';
}

// An IPv6 address whose zone, if any, comes after aZoneMark.
CCmParsed CmParseIpv6With(std::string_view aText, std::string_view aZoneMark,
                          CCmIpAddress& aAddress);

}  // namespace UTIL_NS

#endif  // CM_STRICT_RESULT_H
