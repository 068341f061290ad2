// Sets the time of day of one program, which loads this before the C library: by STEP_SECONDS, when
// STEP_AFTER_MS have passed since it first looked at it.

#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

long long NowMs() {
    timespec now = {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

long Step() {
    static const long long s_llStartMs = NowMs();
    const char* pszSeconds = getenv("STEP_SECONDS");
    const char* pszAfter = getenv("STEP_AFTER_MS");
    if (pszSeconds == nullptr || pszAfter == nullptr || NowMs() - s_llStartMs < atoll(pszAfter)) {
        return 0;
    }
    return atol(pszSeconds);
}

}  // namespace

extern "C" int clock_gettime(clockid_t aClock, timespec* aNow) noexcept {
    const int rv = static_cast<int>(syscall(SYS_clock_gettime, aClock, aNow));
    if (aClock == CLOCK_REALTIME || aClock == CLOCK_REALTIME_COARSE) {
        aNow->tv_sec += Step();
    }
    return rv;
}

extern "C" int gettimeofday(timeval* aNow, void* /*aZone*/) noexcept {
    timespec now = {};
    const int rv = clock_gettime(CLOCK_REALTIME, &now);
    aNow->tv_sec = now.tv_sec;
    aNow->tv_usec = now.tv_nsec / 1000;
    return rv;
}
