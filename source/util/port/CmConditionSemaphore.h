// A counting semaphore made of a mutex and a condition, for platforms without unnamed POSIX
// semaphores; internal. Those list CmConditionSemaphore.cpp beside their CmPort file.
#ifndef CM_CONDITION_SEMAPHORE_H
#define CM_CONDITION_SEMAPHORE_H

#include "CmPlatform.h"

namespace UTIL_NS {

// As sem_init and its kind: 0, or -1 with errno set. A wait is not interrupted by signals, and is
// a cancellation point. aShared: must be 0 (ENOSYS).
int CmPortSemaphoreInit(CmConditionSemaphore* aSemaphore, int aShared, unsigned aCount);
int CmPortSemaphoreDestroy(CmConditionSemaphore* aSemaphore);
int CmPortSemaphoreWait(CmConditionSemaphore* aSemaphore);
int CmPortSemaphorePost(CmConditionSemaphore* aSemaphore);

}  // namespace UTIL_NS

#endif  // CM_CONDITION_SEMAPHORE_H
