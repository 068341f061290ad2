// How long a wait until a deadline may take, for systems that wait for intervals; internal.
#ifndef CM_TIME_LEFT_H
#define CM_TIME_LEFT_H

#include <time.h>

namespace UTIL_NS {

// From aNow to aDeadline, both of one clock. A nanosecond if that has passed: an interval of zero
// would wait without limit.
inline timespec CmTimeLeft(const timespec& aNow, const timespec& aDeadline) {
    constexpr long NSEC_PER_SEC = 1000000000;
    timespec tsLeft = {aDeadline.tv_sec - aNow.tv_sec, aDeadline.tv_nsec - aNow.tv_nsec};
    if (tsLeft.tv_nsec < 0) {
        tsLeft.tv_sec -= 1;
        tsLeft.tv_nsec += NSEC_PER_SEC;
    }
    const bool bPassed = tsLeft.tv_sec < 0 || (tsLeft.tv_sec == 0 && tsLeft.tv_nsec == 0);
    return bPassed ? timespec{0, 1} : tsLeft;
}

}  // namespace UTIL_NS

#endif  // CM_TIME_LEFT_H
