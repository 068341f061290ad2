// The semaphore of a program that has the macOS platform file elsewhere: the rest of the library is
// compiled for the semaphores of this system.
#include "port/CmPort.h"

namespace UTIL_NS {

int CmPortSemaphoreInit(CmPlatformSemaphore* aSemaphore, int aShared, unsigned aCount) {
    return ::sem_init(aSemaphore, aShared, aCount);
}
int CmPortSemaphoreDestroy(CmPlatformSemaphore* aSemaphore) {
    return ::sem_destroy(aSemaphore);
}
int CmPortSemaphoreWait(CmPlatformSemaphore* aSemaphore) {
    return ::sem_wait(aSemaphore);
}
int CmPortSemaphorePost(CmPlatformSemaphore* aSemaphore) {
    return ::sem_post(aSemaphore);
}

}  // namespace UTIL_NS
