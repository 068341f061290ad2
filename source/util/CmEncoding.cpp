#include "CmEncoding.h"

#include <cstring>

namespace UTIL_NS {

template <>
CmResult xtoa_yrk<long long>(long long aValue, char* aBuf, int aSize) {
    if (aBuf == nullptr || aSize < 3) {
        return CM_ERROR_FAILURE;
    }
    char* pLast = aBuf + aSize - 1;
    char* pText = pLast;
    *pLast = '\0';
    // Unsigned negation is right for the most negative number too.
    unsigned long long ullRest = aValue < 0 ? 0ULL - static_cast<unsigned long long>(aValue)
                                            : static_cast<unsigned long long>(aValue);
    do {
        if (pText == aBuf) {
            return CM_ERROR_FAILURE;
        }
        *--pText = static_cast<char>('0' + ullRest % 10);
        ullRest /= 10;
    } while (ullRest != 0);
    if (aValue <= 0) {
        if (pText == aBuf) {
            return CM_ERROR_FAILURE;
        }
        *--pText = '-';
    }
    std::memmove(aBuf, pText, static_cast<size_t>(pLast - pText) + 1);
    return CM_OK;
}

}  // namespace UTIL_NS
