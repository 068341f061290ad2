// Moments and intervals in nanoseconds, for deadlines; internal. Saturating.
#ifndef CM_NSEC_H
#define CM_NSEC_H

#include <climits>

#include "CmTimeValue.h"

namespace UTIL_NS {

constexpr long long CM_NEVER_NSEC = LLONG_MAX;

// aLeft + aRight; CM_NEVER_NSEC when the sum is greater.
long long CmSumNsec(long long aLeft, long long aRight);
long long CmNsecOf(const CCmTimeValue& aValue);
// By the monotonic clock.
long long CmMonotonicNsec();
// aNow + aInterval, saturating; a negative interval counts as zero.
long long CmLaterNsec(long long aNow, const CCmTimeValue& aInterval);

}  // namespace UTIL_NS

#endif  // CM_NSEC_H
