// Whether the calling thread is the consumer of a queue; internal.
#ifndef CM_QUEUE_OWNER_H
#define CM_QUEUE_OWNER_H

#include "CmEventQueueBase.h"

namespace UTIL_NS {

class CCmQueueOwner {
  public:
    // A queue that is not the library's own counts as that of the registered thread that has it.
    static bool IsOwnThread(ICmEventQueue& aQueue);
};

}  // namespace UTIL_NS

#endif  // CM_QUEUE_OWNER_H
