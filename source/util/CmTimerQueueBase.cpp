#include "CmTimerQueueBase.h"

#include "CmTraceLine.h"
#include "CmWatched.h"

namespace UTIL_NS {

namespace {

__extension__ typedef __int128 WideUsec;

WideUsec ToUsec(const CCmTimeValue& aTime) {
    return WideUsec(aTime.GetSec()) * CCmTimeValue::ONE_SECOND_IN_USECS + aTime.GetUsec();
}

CCmTimeValue FromUsec(WideUsec aUsec) {
    if (aUsec > ToUsec(CCmTimeValue::s_tvMax)) {
        return CCmTimeValue::s_tvMax;
    }
    return CCmTimeValue(static_cast<long>(aUsec / CCmTimeValue::ONE_SECOND_IN_USECS),
                        static_cast<long>(aUsec % CCmTimeValue::ONE_SECOND_IN_USECS));
}

// The first of aExpired + aInterval, aExpired + 2 * aInterval ... that is later than aNow, which
// aExpired is not. A division, not a loop: the clock may have jumped ahead by any number of
// periods.
CCmTimeValue NextExpiry(const CCmTimeValue& aExpired, const CCmTimeValue& aInterval,
                        const CCmTimeValue& aNow) {
    const CCmTimeValue tvNext = aExpired + aInterval;
    if (CM_LIKELY(tvNext > aNow)) {
        return tvNext;
    }
    const WideUsec expired = ToUsec(aExpired);
    const WideUsec interval = ToUsec(aInterval);
    const WideUsec periods = (ToUsec(aNow) - expired) / interval + 1;
    return FromUsec(expired + periods * interval);
}

void ReportSlow(const CCmWatchedTimers& aWatched, const CCmTimerQueueBase* aQueue) {
    char szClass[CM_CLASS_TEXT_SIZE];
    CmClassText(aWatched.Table(), szClass, sizeof(szClass));
    CM_WARNING_TRACE("CCmTimerQueueBase::CheckExpire, watch, class="
                     << static_cast<const char*>(szClass) << " lateUsec=" << aWatched.LateUsec()
                     << " ranUsec=" << aWatched.RanUsec() << " this=" << CmTraceAddress(aQueue));
}

}  // namespace

CCmTimerQueueBase::CCmTimerQueueBase(ICmObserver* aObserver) : m_pObserver(aObserver) {}

CCmTimerQueueBase::~CCmTimerQueueBase() = default;

CmResult CCmTimerQueueBase::ScheduleTimer(ICmTimerHandler* aEh, void* aToken,
                                          const CCmTimeValue& aInterval, unsigned int aCount) {
    m_Est.EnsureSingleThread();
    CM_ASSERTE_RETURN_LINE(aEh, CM_ERROR_INVALID_ARG, 78);
    CM_ASSERTE_RETURN_LINE(aInterval > CCmTimeValue::s_tvZero || aCount == 1, CM_ERROR_INVALID_ARG,
                           79);

    CCmTimeValue tvEarliest;
    const bool bWasEmpty = m_pObserver != nullptr && GetEarliestTime_l(tvEarliest) == -1;

    CNode node;
    node.m_pEh = aEh;
    node.m_pToken = aToken;
    node.m_tvExpired = CCmTimeValue::GetTimeOfDay() + aInterval;
    node.m_tvInterval = aInterval;
    node.m_dwCount = aCount == 0 ? UNLIMITED_COUNT : aCount;

    int nPushed = -1;
    try {
        nPushed = PushNode_l(node);
    } catch (const std::bad_alloc&) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (bWasEmpty) {
        m_pObserver->OnObserve("TimerQueue", nullptr);
    }
    switch (nPushed) {
        case 0:
            return CM_OK;
        case 1:
            return CM_ERROR_FOUND;
        default:
            return CM_ERROR_FAILURE;
    }
}

CmResult CCmTimerQueueBase::CancelTimer(ICmTimerHandler* aEh) {
    m_Est.EnsureSingleThread();
    CM_ASSERTE_RETURN_LINE(aEh, CM_ERROR_INVALID_ARG, 121);
    switch (EraseNode_l(aEh)) {
        case 0:
            return CM_OK;
        case 1:
            return CM_ERROR_NOT_FOUND;
        default:
            return CM_ERROR_FAILURE;
    }
}

unsigned int CCmTimerQueueBase::CheckExpire(CCmTimeValue* aRemainTime) {
    m_Est.EnsureSingleThread();
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    unsigned int dwFired = 0;
    CCmTimeValue tvRemain = CCmTimeValue::s_tvMax;
    CCmWatchedTimers watched;
    // A handler may have changed the queue, so each round looks at it afresh. What it schedules for
    // tvNow or earlier fires in this pass, too. A timer that is armed again is due after tvNow, so
    // the pass comes to its end.
    CCmTimeValue tvEarliest;
    while (GetEarliestTime_l(tvEarliest) == 0) {
        if (tvEarliest > tvNow) {
            tvRemain = tvEarliest - tvNow;
            break;
        }
        CNode node;
        PopFirstNode_l(node);
        const CCmTimeValue tvDue = node.m_tvExpired;
        if (node.m_dwCount != UNLIMITED_COUNT) {
            --node.m_dwCount;
        }
        if (node.m_dwCount > 0 && node.m_tvInterval > CCmTimeValue::s_tvZero) {
            // Back in the queue before the call: its handler may cancel or replace it.
            node.m_tvExpired = NextExpiry(node.m_tvExpired, node.m_tvInterval, tvNow);
            RePushNode_l(node);
        }
        m_Est.EnsureSingleThread();
        watched.BeginOne(node.m_pEh, &tvNow);
        node.m_pEh->OnTimeout(tvNow, node.m_pToken);
        if (watched.EndOne(CmUsecOf(tvNow) - CmUsecOf(tvDue))) {
            ReportSlow(watched, this);
            watched.ForgetLine();
        }
        ++dwFired;
    }
    if (aRemainTime != nullptr) {
        *aRemainTime = tvRemain;
    }
    return dwFired;
}

CCmTimeValue CCmTimerQueueBase::GetEarliestTime() const {
    m_Est.EnsureSingleThread();
    CCmTimeValue tvEarliest;
    return GetEarliestTime_l(tvEarliest) == 0 ? tvEarliest : CCmTimeValue::s_tvMax;
}

}  // namespace UTIL_NS
