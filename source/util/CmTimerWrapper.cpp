#include "CmTimerWrapper.h"

#include "CmCancel.h"
#include "CmScopedLock.h"
#include "CmThread.h"
#include "CmTimerCancel.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

namespace {

constexpr long GENERATOR_INTERVAL_IN_USECS = 10000;

ICmTimerQueue* TimerQueueOfThisThread() {
    ACmThread* pThread = getCurrentThread();
    return pThread != nullptr ? pThread->GetTimerQueue() : nullptr;
}

}  // namespace

CCmTimerWrapperIDSink::~CCmTimerWrapperIDSink() = default;

CCmTimerWrapperID::CCmTimerWrapperID() : m_bScheduled(false), m_pTimerQueue(nullptr) {}

CCmTimerWrapperID::~CCmTimerWrapperID() {
    CCmDisableCancel disableCancel;
    Cancel();
}

CmResult CCmTimerWrapperID::Schedule(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aInterval,
                                     unsigned int aCount) {
    if (m_pTimerQueue == nullptr) {
        m_pTimerQueue = TimerQueueOfThisThread();
    }
    if (m_pTimerQueue == nullptr) {
        CM_ERROR_TRACE_THIS(
            "CCmTimerWrapperID::Schedule, this thread doesn't suppport TimerQueue!");
        return CM_ERROR_NULL_POINTER;
    }
    m_bScheduled = true;
    return m_pTimerQueue->ScheduleTimer(this, aSink, aInterval, aCount);
}

CmResult CCmTimerWrapperID::Cancel() {
    if (!m_bScheduled) {
        return CM_OK;
    }
    m_bScheduled = false;
    return m_pTimerQueue != nullptr ? CancelForGood(*m_pTimerQueue, this) : CM_ERROR_NULL_POINTER;
}

void CCmTimerWrapperID::OnTimeout(const CCmTimeValue& /*aCurTime*/, void* aArg) {
    CCmTimerWrapperIDSink* pSink = static_cast<CCmTimerWrapperIDSink*>(aArg);
    if (pSink != nullptr) {
        pSink->OnTimer(this);
    }
}

CM_CONSTANT_INIT CmStd::atomic<int> low_tick_policy::low_tick_generator::m_InitTimerSucc{1};
CM_CONSTANT_INIT CmStd::atomic<low_tick_policy::low_tick_generator*>
    low_tick_policy::low_tick_generator::pInstance{nullptr};

low_tick_policy::low_tick_generator::low_tick_generator() : m_llLastTick(now()) {}

low_tick_policy::low_tick_generator::~low_tick_generator() = default;

low_tick_policy::low_tick_generator* low_tick_policy::low_tick_generator::instance() {
    low_tick_generator* pGenerator = pInstance.load(std::memory_order_acquire);
    if (CM_LIKELY(pGenerator != nullptr)) {
        return pGenerator;
    }
    CCmDisableCancel disableCancel;
    // The mutex is not held while the clock is read and the timer is scheduled: both may take the
    // singleton mutex, and a thread that holds that one may come here.
    low_tick_generator* pCreated = new (std::nothrow) low_tick_generator;
    if (pCreated == nullptr) {
        return pInstance.load(std::memory_order_acquire);
    }
    {
        CCmScopedLockT<CCmMutexThread> lock(mutex);
        pGenerator = pInstance.load(std::memory_order_acquire);
        if (pGenerator == nullptr) {
            pInstance.store(pCreated, std::memory_order_release);
        }
    }
    if (pGenerator != nullptr) {  // another thread was first
        delete pCreated;
        return pGenerator;
    }
    const CCmTimeValue tvInterval(0, GENERATOR_INTERVAL_IN_USECS);
    if (CM_FAILED(pCreated->m_Timer.Schedule(pCreated, tvInterval, 0))) {
        m_InitTimerSucc.store(0, std::memory_order_relaxed);
    }
    return pCreated;
}

void low_tick_policy::low_tick_generator::OnTimer(CCmTimerWrapperID* /*aId*/) {
    m_llLastTick = now();  // a required field; nobody reads it
}

long long low_tick_policy::low_tick_generator::now() {
    return tick_policy::now();
}

long long low_tick_policy::now() {
    low_tick_generator::instance();
    return low_tick_generator::now();
}

}  // namespace UTIL_NS
