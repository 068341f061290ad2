// Lets a test do something around every call of the table of system calls, whichever it is.
#ifndef TESTS_SUPPORT_EVERYCALL_H
#define TESTS_SUPPORT_EVERYCALL_H

#include <cerrno>
#include <type_traits>

#include "CmSystem.h"

namespace kelto_test {

enum class EMoment { BEFORE, AFTER };

// Runs within the call that it belongs to, on whatever thread makes that; it makes no call of the
// table itself. errno stays as the call left it.
using CallHook = void (*)(EMoment aMoment);

inline UTIL_NS::CCmSystemTable s_everyCallOriginals;
inline CallHook s_pfnCallHook = nullptr;

template <auto Member>
struct HookedCall;

template <typename Result, typename... Args, Result (*UTIL_NS::CCmSystemTable::*Member)(Args...)>
struct HookedCall<Member> {
    static Result Call(Args... aArgs) {
        s_pfnCallHook(EMoment::BEFORE);
        if constexpr (std::is_void_v<Result>) {
            (s_everyCallOriginals.*Member)(aArgs...);
            HookAfter();
        } else {
            const Result result = (s_everyCallOriginals.*Member)(aArgs...);
            HookAfter();
            return result;
        }
    }

    static void HookAfter() {
        const int nError = errno;
        s_pfnCallHook(EMoment::AFTER);
        errno = nError;
    }
};

template <auto... Members>
void HookCalls() {
    static_assert(sizeof...(Members) * sizeof(void (*)()) == sizeof(UTIL_NS::CCmSystemTable),
                  "every entry of the table is in the list below");
    ((UTIL_NS::g_cmSystem.*Members = &HookedCall<Members>::Call), ...);
}

// While it lives, the hook runs before and after each call. To be constructed before and destroyed
// after the threads that make calls. One at a time.
class ScopedCallHook {
  public:
    explicit ScopedCallHook(CallHook aHook) {
        typedef UTIL_NS::CCmSystemTable T;
        s_pfnCallHook = aHook;
        s_everyCallOriginals = UTIL_NS::g_cmSystem;
        HookCalls<&T::pthread_mutexattr_init, &T::pthread_mutexattr_settype,
                  &T::pthread_mutexattr_destroy, &T::pthread_mutex_init, &T::pthread_mutex_destroy,
                  &T::pthread_mutex_lock, &T::pthread_mutex_trylock, &T::pthread_mutex_unlock,
                  &T::pthread_cond_init, &T::pthread_cond_destroy, &T::pthread_cond_signal,
                  &T::pthread_cond_broadcast, &T::pthread_cond_wait, &T::pthread_cond_timedwait,
                  &T::pthread_cond_clockwait, &T::pthread_attr_init,
                  &T::pthread_attr_setdetachstate, &T::pthread_attr_destroy, &T::pthread_create,
                  &T::pthread_join, &T::pthread_cancel, &T::pthread_setschedparam, &T::push_cleanup,
                  &T::pop_cleanup, &T::gettimeofday, &T::nanosleep, &T::sysconf, &T::localtime_r,
                  &T::sem_init, &T::sem_destroy, &T::sem_wait, &T::sem_post, &T::open, &T::read,
                  &T::close, &T::poll, &T::fstat, &T::dladdr, &T::dlopen, &T::dlsym, &T::readlink,
                  &T::fcntl, &T::ftruncate, &T::pread, &T::pwrite, &T::gethostname, &T::socket,
                  &T::ioctl, &T::gethostbyname, &T::access, &T::mkdir, &T::fdopen, &T::fgets,
                  &T::regcomp, &T::regexec, &T::malloc, &T::strdup, &T::if_nametoindex, &T::stat,
                  &T::getaddrinfo, &T::freeaddrinfo, &T::mmap, &T::mprotect, &T::pthread_key_create,
                  &T::pthread_setspecific, &T::pthread_atfork, &T::openat, &T::unlinkat, &T::flock,
                  &T::posix_fallocate, &T::fdopendir>();
    }
    ~ScopedCallHook() { UTIL_NS::g_cmSystem = s_everyCallOriginals; }
    ScopedCallHook(const ScopedCallHook&) = delete;
    ScopedCallHook& operator=(const ScopedCallHook&) = delete;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_EVERYCALL_H
