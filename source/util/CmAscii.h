// Characters and texts as ASCII has them, whatever the locale; internal.
#ifndef CM_ASCII_H
#define CM_ASCII_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace UTIL_NS {

constexpr char CmToLower(char aChar) {
    return aChar >= 'A' && aChar <= 'Z' ? static_cast<char>(aChar - 'A' + 'a') : aChar;
}

constexpr bool CmIsDigit(char aChar) {
    return aChar >= '0' && aChar <= '9';
}

constexpr bool CmIsLetter(char aChar) {
    return CmToLower(aChar) >= 'a' && CmToLower(aChar) <= 'z';
}

// What surrounds values in profiles and in XML: blanks, tabs and line ends.
constexpr bool CmIsBlank(char aChar) {
    return aChar == ' ' || aChar == '\t' || aChar == '\r' || aChar == '\n';
}

// A text without the characters at its start for which aPredicate holds.
template <class Predicate>
std::string_view CmTrimmedLeft(std::string_view aText, Predicate aPredicate) {
    while (!aText.empty() && aPredicate(aText.front())) {
        aText.remove_prefix(1);
    }
    return aText;
}

// The same for those at its end.
template <class Predicate>
std::string_view CmTrimmedRight(std::string_view aText, Predicate aPredicate) {
    while (!aText.empty() && aPredicate(aText.back())) {
        aText.remove_suffix(1);
    }
    return aText;
}

inline std::string_view CmTrimmed(std::string_view aText) {
    return CmTrimmedRight(CmTrimmedLeft(aText, CmIsBlank), CmIsBlank);
}

// Less than 0, 0 or more than 0, without regard to case.
inline int CmCompareNoCase(std::string_view aLeft, std::string_view aRight) {
    const size_t nCommon = std::min(aLeft.size(), aRight.size());
    for (size_t i = 0; i < nCommon; ++i) {
        const auto byLeft = static_cast<unsigned char>(CmToLower(aLeft[i]));
        const auto byRight = static_cast<unsigned char>(CmToLower(aRight[i]));
        if (byLeft != byRight) {
            return byLeft - byRight;
        }
    }
    return aLeft.size() < aRight.size() ? -1 : aLeft.size() > aRight.size() ? 1 : 0;
}

inline bool CmEqualsNoCase(std::string_view aLeft, std::string_view aRight) {
    if (aLeft.size() != aRight.size()) {
        return false;
    }
    for (size_t i = 0; i < aLeft.size(); ++i) {
        if (CmToLower(aLeft[i]) != CmToLower(aRight[i])) {
            return false;
        }
    }
    return true;
}

// The same for a word that is known to be in lower case, at less cost.
inline bool CmEqualsWord(std::string_view aText, std::string_view aWord) {
    if (aText.size() != aWord.size()) {
        return false;
    }
    for (size_t i = 0; i < aText.size(); ++i) {
        if (CmToLower(aText[i]) != aWord[i]) {
            return false;
        }
    }
    return true;
}

inline bool CmStartsWithWord(std::string_view aText, std::string_view aWord) {
    return CmEqualsWord(aText.substr(0, aWord.size()), aWord);
}

}  // namespace UTIL_NS

#endif  // CM_ASCII_H
