#include "support/BlockPool.h"

namespace {

// Before main; what static objects allocate before that may come from the pool.
const bool s_bIsOff = [] {
    UTIL_NS::CCmBlockPool::SetOn(false);
    return true;
}();

}  // namespace
