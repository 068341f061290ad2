#include "CmSystem.h"

#include <unistd.h>

namespace UTIL_NS {

CCmClockTable g_cmClock = {
    ::gettimeofday,
    ::times,
};

CCmSystemTable g_cmSystem = {
    ::pthread_mutexattr_init,
    ::pthread_mutexattr_settype,
    ::pthread_mutexattr_destroy,
    ::pthread_mutex_init,
    ::pthread_mutex_destroy,
    ::pthread_mutex_lock,
    ::pthread_mutex_trylock,
    ::pthread_mutex_unlock,
    ::pthread_cond_init,
    ::pthread_cond_destroy,
    ::pthread_cond_signal,
    ::pthread_cond_broadcast,
    ::pthread_cond_wait,
    ::pthread_cond_timedwait,
    ::gettimeofday,
    ::nanosleep,
    ::sysconf,
    ::localtime_r,
};

}  // namespace UTIL_NS
