// Gets the memory of a list entry before it is needed; internal.
#ifndef CM_LIST_NODE_H
#define CM_LIST_NODE_H

#include <list>
#include <new>

#include "CmBase.h"

namespace UTIL_NS {

// Appends a node to aList, to be spliced into another list, which cannot fail. CM_OK or
// CM_ERROR_OUT_OF_MEMORY.
template <class ValueType>
CmResult CmAddListNode(std::list<ValueType*>& aList, ValueType* aValue) {
    try {
        aList.push_back(aValue);
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_OK;
}

}  // namespace UTIL_NS

#endif  // CM_LIST_NODE_H
