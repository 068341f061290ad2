#include "CmUtilMisc.h"

#include <errno.h>

#include "CmTraceLine.h"
#include "port/CmSystem.h"

namespace UTIL_NS {

CM_CONSTANT_INIT CCmMutexThreadRecursive g_SingletonMutex{CCmStaticInit()};

}  // namespace UTIL_NS

void CmUtilInit() {}

void CmUtilCleanup() {}

void GetSingletonMutex(void** aMutex) {
    if (aMutex != nullptr) {
        *aMutex = &UTIL_NS::g_SingletonMutex;
    }
}

void SleepMs(unsigned int aMs) {
    timespec tsRemain = {static_cast<time_t>(aMs / 1000), static_cast<long>(aMs % 1000) * 1000000};
    while (UTIL_NS::g_cmSystem.nanosleep(&tsRemain, &tsRemain) != 0) {
        const int nError = errno;
        if (nError != EINTR) {
            CM_WARNING_TRACE("::SleepMs,nanosleep() failed! err=" << nError);
            return;
        }
    }
}
