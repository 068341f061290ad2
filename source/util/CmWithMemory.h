// For public functions that allocate: nothing throws across the interface; internal.
#ifndef CM_WITH_MEMORY_H
#define CM_WITH_MEMORY_H

#include <exception>
#include <type_traits>

#include "CmBase.h"

namespace UTIL_NS {

// Runs aFunction and returns its result, CM_OK when it has none, or CM_ERROR_OUT_OF_MEMORY when it
// throws, as containers and strings do for want of memory.
template <class Function>
CmResult CmWithMemory(Function aFunction) {
    try {
        if constexpr (std::is_void_v<decltype(aFunction())>) {
            aFunction();
            return CM_OK;
        } else {
            return aFunction();
        }
    } catch (const std::exception&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
}

}  // namespace UTIL_NS

#endif  // CM_WITH_MEMORY_H
