// Functions of the C and C++ libraries that the library calls without a table; these take their
// place by their names.
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "schedule/Atomic.h"
#include "schedule/Scheduler.h"

using kelto_test::g_bScheduled;

extern "C" {

int __cxa_thread_atexit_impl(void (*aFunction)(void*), void* aObject, void* aLibrary);
int __cxa_thread_atexit(void (*aFunction)(void*), void* aObject, void* aLibrary) noexcept;
int __cxa_guard_acquire(unsigned char* aGuard);
void __cxa_guard_release(unsigned char* aGuard) noexcept;
void __cxa_guard_abort(unsigned char* aGuard) noexcept;

// Destructors of thread-local objects.
int __cxa_thread_atexit(void (*aFunction)(void*), void* aObject, void* aLibrary) noexcept {
    if (!g_bScheduled) {
        return __cxa_thread_atexit_impl(aFunction, aObject, aLibrary);
    }
    kelto_test::RunAtThreadEnd(aFunction, aObject);
    return 0;
}

// Local static variables: the first byte of a guard says that the variable is made.
int __cxa_guard_acquire(unsigned char* aGuard) {
    if (*aGuard != 0) {
        return 0;
    }
    return !g_bScheduled || kelto_test::TakeStatic(aGuard) ? 1 : 0;
}

void __cxa_guard_release(unsigned char* aGuard) noexcept {
    *aGuard = 1;
    if (g_bScheduled) {
        kelto_test::GiveBackStatic(aGuard, true);
    }
}

void __cxa_guard_abort(unsigned char* aGuard) noexcept {
    if (g_bScheduled) {
        kelto_test::GiveBackStatic(aGuard, false);
    }
}

int pthread_detach(pthread_t aThread) noexcept {
    if (g_bScheduled) {
        kelto_test::DetachThread(aThread);
    }
    return 0;
}

void pthread_testcancel() {
    if (g_bScheduled) {
        kelto_test::TestCancel();
    }
}

int sched_getcpu() noexcept {
    return g_bScheduled ? kelto_test::CoreOfThread() : 0;
}

int sched_yield() noexcept {
    if (g_bScheduled) {
        kelto_test::YieldThread();
    }
    return 0;
}

int clock_gettime(clockid_t aClock, timespec* aNow) noexcept {
    if (!g_bScheduled) {
        return static_cast<int>(syscall(SYS_clock_gettime, aClock, aNow));
    }
    return kelto_test::ReadClock(aClock, aNow);
}

}  // extern "C"
