#include "CmNsec.h"

#include <algorithm>

#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr long long NSEC_PER_SEC = 1000000000;
constexpr long long NSEC_PER_USEC = 1000;

}  // namespace

long long CmSumNsec(long long aLeft, long long aRight) {
    long long llSum = 0;
    return __builtin_add_overflow(aLeft, aRight, &llSum) ? CM_NEVER_NSEC : llSum;
}

long long CmNsecOf(const CCmTimeValue& aValue) {
    long long llSec = 0;
    if (__builtin_mul_overflow(static_cast<long long>(aValue.GetSec()), NSEC_PER_SEC, &llSec)) {
        return aValue > CCmTimeValue() ? CM_NEVER_NSEC : -CM_NEVER_NSEC;
    }
    return CmSumNsec(llSec, aValue.GetUsec() * NSEC_PER_USEC);
}

long long CmMonotonicNsec() {
    timespec tsNow = {};
    CmPortMonotonicNow(&tsNow);
    return tsNow.tv_sec * NSEC_PER_SEC + tsNow.tv_nsec;
}

long long CmLaterNsec(long long aNow, const CCmTimeValue& aInterval) {
    return CmSumNsec(aNow, std::max(CmNsecOf(aInterval), 0LL));
}

}  // namespace UTIL_NS
