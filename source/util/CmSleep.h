// Sleeping to the end; internal.
#ifndef CM_SLEEP_H
#define CM_SLEEP_H

#include <time.h>

#include "CmSystem.h"

namespace UTIL_NS {

// However many signals interrupt it, and again after any other failure.
inline void CmSleepFully(unsigned long aMs) {
    timespec tsRemain = {static_cast<time_t>(aMs / 1000), static_cast<long>(aMs % 1000) * 1000000};
    // An interruption leaves what is left in tsRemain, any other failure leaves it as it is.
    while (g_cmSystem.nanosleep(&tsRemain, &tsRemain) != 0) {
    }
}

}  // namespace UTIL_NS

#endif  // CM_SLEEP_H
