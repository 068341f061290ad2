// Nodes for lists that are changed under a lock; internal.
#ifndef CM_LIST_NODE_H
#define CM_LIST_NODE_H

#include <new>

#include "CmBase.h"

namespace UTIL_NS {

// Appends aValue, to a list of the caller's own that is spliced under the lock: what allocates, and
// may fail, is done before. CM_OK or CM_ERROR_OUT_OF_MEMORY.
template <class ListType>
CmResult CmAddNode(ListType& aList, typename ListType::value_type aValue) {
    try {
        aList.push_back(aValue);
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_OK;
}

}  // namespace UTIL_NS

#endif  // CM_LIST_NODE_H
