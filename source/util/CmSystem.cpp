#include "CmSystem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

// The system's functions take a variable number of arguments, so their types do not fit the table.
int Fcntl(int aFile, int aCommand, void* aArgument) {
    return ::fcntl(aFile, aCommand, aArgument);
}

int Ioctl(int aFile, unsigned long aRequest, void* aArgument) {
    return ::ioctl(aFile, aRequest, aArgument);
}

int Open(const char* aPath, int aFlags, mode_t aMode) {
    return ::open(aPath, aFlags, aMode);
}

int OpenAt(int aDirectory, const char* aPath, int aFlags, mode_t aMode) {
    return ::openat(aDirectory, aPath, aFlags, aMode);
}

// In some C libraries fstat is only an inline function.
int Fstat(int aFile, struct stat* aStatus) {
    return ::fstat(aFile, aStatus);
}

}  // namespace

CCmClockTable g_cmClock = {
    ::gettimeofday,
    CmPortCoarseTimeOfDay,
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
    CmPortConditionWaitUntil,
    ::pthread_attr_init,
    ::pthread_attr_setdetachstate,
    ::pthread_attr_destroy,
    ::pthread_create,
    ::pthread_join,
    ::pthread_cancel,
    ::pthread_setschedparam,
    CmPortPushCleanUp,
    CmPortPopCleanUp,
    ::gettimeofday,
    ::nanosleep,
    ::sysconf,
    ::localtime_r,
    CmPortSemaphoreInit,
    CmPortSemaphoreDestroy,
    CmPortSemaphoreWait,
    CmPortSemaphorePost,
    Open,
    ::read,
    ::close,
    ::poll,
    Fstat,
    ::dladdr,
    ::dlopen,
    ::dlsym,
    ::readlink,
    Fcntl,
    ::ftruncate,
    ::pread,
    ::pwrite,
    ::gethostname,
    ::socket,
    Ioctl,
    ::gethostbyname,
    ::access,
    ::mkdir,
    ::fdopen,
    ::fgets,
    ::regcomp,
    ::regexec,
    ::malloc,
    ::strdup,
    ::if_nametoindex,
    ::stat,
    ::getaddrinfo,
    ::freeaddrinfo,
    ::mmap,
    ::mprotect,
    ::pthread_key_create,
    ::pthread_setspecific,
    ::pthread_atfork,
    OpenAt,
    ::unlinkat,
    ::flock,
    CmPortAllocateFile,
    ::fdopendir,
};

}  // namespace UTIL_NS
