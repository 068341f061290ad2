// The system calls that the library makes, as tables of pointers; internal.
//
// A unit calls g_cmSystem.pthread_mutex_lock(...) rather than the function itself; the cost is
// that of a call into a shared library. Tests replace entries to make a chosen call fail, or to
// steer the clock. Calls that cannot fail are made directly; tests/calls lists them. The tables are
// constant-initialised, so they are valid before any static object is constructed, and nothing in
// the library writes to them.
#ifndef CM_SYSTEM_H
#define CM_SYSTEM_H

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "CmPlatform.h"

namespace UTIL_NS {

// What the library reads as the current time. Waits never use it: they take the time from
// g_cmSystem, so that a steered clock does not distort them.
struct CCmClockTable {
    int (*gettimeofday)(timeval*, void*);
    int (*coarse_gettimeofday)(timeval*, void*);  // see CmPortCoarseTimeOfDay
    clock_t (*times)(tms*);
};
extern CCmClockTable g_cmClock;

struct CmPortCleanUp;

struct CCmSystemTable {
    int (*pthread_mutexattr_init)(pthread_mutexattr_t*);
    int (*pthread_mutexattr_settype)(pthread_mutexattr_t*, int);
    int (*pthread_mutexattr_destroy)(pthread_mutexattr_t*);
    int (*pthread_mutex_init)(pthread_mutex_t*, const pthread_mutexattr_t*);
    int (*pthread_mutex_destroy)(pthread_mutex_t*);
    int (*pthread_mutex_lock)(pthread_mutex_t*);
    int (*pthread_mutex_trylock)(pthread_mutex_t*);
    int (*pthread_mutex_unlock)(pthread_mutex_t*);
    int (*pthread_cond_init)(pthread_cond_t*, const pthread_condattr_t*);
    int (*pthread_cond_destroy)(pthread_cond_t*);
    int (*pthread_cond_signal)(pthread_cond_t*);
    int (*pthread_cond_broadcast)(pthread_cond_t*);
    int (*pthread_cond_wait)(pthread_cond_t*, pthread_mutex_t*);
    int (*pthread_cond_timedwait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    int (*pthread_cond_clockwait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    int (*pthread_attr_init)(pthread_attr_t*);
    int (*pthread_attr_setdetachstate)(pthread_attr_t*, int);
    int (*pthread_attr_destroy)(pthread_attr_t*);
    int (*pthread_create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    int (*pthread_join)(pthread_t, void**);
    int (*pthread_cancel)(pthread_t);
    int (*pthread_setschedparam)(pthread_t, int, const sched_param*);
    void (*push_cleanup)(CmPortCleanUp*);  // see CmPortPushCleanUp
    void (*pop_cleanup)(CmPortCleanUp*);
    int (*gettimeofday)(timeval*, void*);
    int (*nanosleep)(const timespec*, timespec*);
    long (*sysconf)(int);
    tm* (*localtime_r)(const time_t*, tm*);
    int (*sem_init)(CmPlatformSemaphore*, int, unsigned);
    int (*sem_destroy)(CmPlatformSemaphore*);
    int (*sem_wait)(CmPlatformSemaphore*);
    int (*sem_post)(CmPlatformSemaphore*);
    int (*open)(const char*, int, mode_t);
    ssize_t (*read)(int, void*, size_t);
    int (*close)(int);
    int (*poll)(struct pollfd*, nfds_t, int);
    int (*fstat)(int, struct stat*);
    int (*dladdr)(const void*, Dl_info*);
    void* (*dlopen)(const char*, int);
    void* (*dlsym)(void*, const char*);
    ssize_t (*readlink)(const char*, char*, size_t);
    int (*fcntl)(int, int, void*);
    int (*ftruncate)(int, off_t);
    ssize_t (*pread)(int, void*, size_t, off_t);
    ssize_t (*pwrite)(int, const void*, size_t, off_t);
    int (*gethostname)(char*, size_t);
    int (*socket)(int, int, int);
    int (*ioctl)(int, unsigned long, void*);
    hostent* (*gethostbyname)(const char*);
    int (*access)(const char*, int);
    int (*mkdir)(const char*, mode_t);
    FILE* (*fdopen)(int, const char*);
    char* (*fgets)(char*, int, FILE*);
    int (*regcomp)(regex_t*, const char*, int);
    int (*regexec)(const regex_t*, const char*, size_t, regmatch_t*, int);
    // The memory that does not come from operator new.
    void* (*malloc)(size_t);
    char* (*strdup)(const char*);
    unsigned (*if_nametoindex)(const char*);
    int (*stat)(const char*, struct stat*);
    int (*getaddrinfo)(const char*, const char*, const addrinfo*, addrinfo**);
    void (*freeaddrinfo)(addrinfo*);
    void* (*mmap)(void*, size_t, int, int, int, off_t);
    int (*mprotect)(void*, size_t, int);
    int (*pthread_key_create)(pthread_key_t*, void (*)(void*));
    int (*pthread_setspecific)(pthread_key_t, const void*);
    int (*pthread_atfork)(void (*)(), void (*)(), void (*)());
    int (*openat)(int, const char*, int, mode_t);
    int (*unlinkat)(int, const char*, int);
    int (*flock)(int, int);
    int (*posix_fallocate)(int, off_t, off_t);  // see CmPortAllocateFile
    DIR* (*fdopendir)(int);
};
extern CCmSystemTable g_cmSystem;

}  // namespace UTIL_NS

#endif  // CM_SYSTEM_H
