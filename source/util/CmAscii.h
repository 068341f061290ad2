// ASCII letters without regard to the locale; internal.
#ifndef CM_ASCII_H
#define CM_ASCII_H

namespace UTIL_NS {

constexpr char CmToLower(char aChar) {
    return aChar >= 'A' && aChar <= 'Z' ? static_cast<char>(aChar - 'A' + 'a') : aChar;
}

}  // namespace UTIL_NS

#endif  // CM_ASCII_H
