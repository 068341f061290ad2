/// Result codes as text.
/// \file
#ifndef CM_RESULT_TEXT_H
#define CM_RESULT_TEXT_H

#include "CmBase.h"

namespace UTIL_NS {

/// The name of a result code, "CM_ERROR_TIMEOUT" for one, to be streamed into trace lines and
/// tests; "not a CmResult" for a number that is none. Static text. Any thread; no lock, no
/// allocation.
constexpr const char* CmResultText(CmResult aResult) {
    switch (aResult) {
        case CM_OK:
            return "CM_OK";
        case CM_ERROR_FAILURE:
            return "CM_ERROR_FAILURE";
        case CM_ERROR_NOT_INITIALIZED:
            return "CM_ERROR_NOT_INITIALIZED";
        case CM_ERROR_ALREADY_INITIALIZED:
            return "CM_ERROR_ALREADY_INITIALIZED";
        case CM_ERROR_NOT_IMPLEMENTED:
            return "CM_ERROR_NOT_IMPLEMENTED";
        case CM_ERROR_NULL_POINTER:
            return "CM_ERROR_NULL_POINTER";
        case CM_ERROR_UNEXPECTED:
            return "CM_ERROR_UNEXPECTED";
        case CM_ERROR_OUT_OF_MEMORY:
            return "CM_ERROR_OUT_OF_MEMORY";
        case CM_ERROR_INVALID_ARG:
            return "CM_ERROR_INVALID_ARG";
        case CM_ERROR_NOT_AVAILABLE:
            return "CM_ERROR_NOT_AVAILABLE";
        case CM_ERROR_NOT_FOUND:
            return "CM_ERROR_NOT_FOUND";
        case CM_ERROR_FOUND:
            return "CM_ERROR_FOUND";
        case CM_ERROR_PARTIAL_DATA:
            return "CM_ERROR_PARTIAL_DATA";
        case CM_ERROR_TIMEOUT:
            return "CM_ERROR_TIMEOUT";
        default:
            return "not a CmResult";
    }
}

}  // namespace UTIL_NS

#endif  // CM_RESULT_TEXT_H
