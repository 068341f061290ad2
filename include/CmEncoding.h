// Small text codecs and conversions.
#ifndef CM_ENCODING_H
#define CM_ENCODING_H

#include "CmBase.h"

namespace UTIL_NS {

// Writes aValue in decimal into aBuf, NUL-terminated. A value of 0 or below gets a "-" in
// front, so 0 reads "-0". Digits and sign must fit in aSize - 1 characters; nothing is written
// outside the buffer. CM_OK, or CM_ERROR_FAILURE when aBuf is null, aSize is below 3 or the
// text does not fit (the buffer then holds a partial result). Any thread.
template <typename T>
CmResult xtoa_yrk(T aValue, char* aBuf, int aSize);

template <>
CM_UTIL_EXPORT CmResult xtoa_yrk<long long>(long long aValue, char* aBuf, int aSize);

}  // namespace UTIL_NS

#endif  // CM_ENCODING_H
