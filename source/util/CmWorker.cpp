#include "CmWorker.h"

#include <sched.h>

#include <algorithm>

#include "CmCancel.h"
#include "CmEventQueueSteps.h"
#include "CmSystem.h"
#include "CmTimedCalls.h"
#include "CmTimerQueueOrderedList.h"
#include "CmTraceLine.h"
#include "port/CmPort.h"

namespace UTIL_NS {

namespace {

constexpr DWORD EVENTS_PER_PASS = 5;         // as in CmThread.cpp: bounds how late a timer is
constexpr long STOP_NAP_NSEC = 1000 * 1000;  // between two tries of a stop without memory

CmResult StopUntilMemory(ACmThread& aThread) {
    CmResult rv = aThread.Stop(nullptr);
    while (rv == CM_ERROR_OUT_OF_MEMORY) {
        const timespec tsNap = {0, STOP_NAP_NSEC};
        g_cmSystem.nanosleep(&tsNap, nullptr);
        rv = aThread.Stop(nullptr);
    }
    return rv == CM_ERROR_NOT_INITIALIZED ? CM_OK : rv;  // stopped before
}

}  // namespace

// The thread of a CCmWorker: a CCmThreadTask whose loop waits by the monotonic clock.
class CCmWorkerThread final : public CCmThreadTask {
  public:
    CCmWorkerThread(const CCmWorkerOptions& aOptions, CCmTimedCalls* aTimedCalls)
        : m_Options(aOptions),
          m_pTimedCalls(aTimedCalls),
          m_PriorityResult(CM_OK),
          m_bStopsNow(false) {}
    ~CCmWorkerThread() override { m_pTimedCalls->Close(); }

    CmResult Stop(CCmTimeValue* aTimeout) override {
        const CmResult rv = CCmThreadTask::Stop(aTimeout);
        if (rv != CM_ERROR_OUT_OF_MEMORY) {
            m_pTimedCalls->Refuse();
        }
        return rv;
    }
    // The stop event only wakes the loop, which finds m_bStopsNow before it runs the event.
    // Relaxed: nothing is handed over with the flag.
    CmResult StopNow() {
        const CmResult rv = Stop(nullptr);
        if (rv != CM_ERROR_OUT_OF_MEMORY) {
            m_bStopsNow.store(true, std::memory_order_relaxed);
        }
        return rv == CM_ERROR_NOT_INITIALIZED ? CM_OK : rv;
    }

    void OnThreadInit() override {
        if (m_Options.m_szName[0] != '\0') {
            CmPortNameThisThread(m_Options.m_szName);
        }
        if (m_Options.m_bPrecise) {
            CmPortPreciseWaits();
        }
        if (m_Options.m_nPriority != 0) {
            m_PriorityResult = SetPriorityOf(pthread_self(), m_Options.m_nPriority);
        }
        m_pTimedCalls->BindToCurrentThread();
        CCmThreadTask::OnThreadInit();
        if (m_pTimerQueue != nullptr) {  // without it, OnThreadInit has failed already
            const CmResult rv = RunHook(CCmWorkerOptions::HOOK_START);
            if (CM_FAILED(rv)) {
                SetInitResult(rv);
                m_EventQueue.StopAndDestoryPendingEvents();
                m_pTimedCalls->Close();
            }
        }
    }

    void OnThreadRun() override {
        CCmEventQueueSteps::CLoop loop(m_EventQueue);
        CCmCleanUpT endLoop([&loop] { loop.End(); });
        while (!HasToStop()) {
            RunOnePass(loop);
        }
        m_EventQueue.StopAndDestoryPendingEvents();
        endLoop.Execute();
        m_pTimedCalls->Close();
        RunHook(CCmWorkerOptions::HOOK_END);
    }

    CmResult SetPriorityOf(pthread_t aThread, int aLevel) {
        const int nPolicy = aLevel != 0 ? SCHED_RR : SCHED_OTHER;
        const int nLowest = sched_get_priority_min(nPolicy);
        const int nHighest = sched_get_priority_max(nPolicy);
        if (aLevel != 0 && (aLevel < nLowest || aLevel > nHighest)) {
            return CM_ERROR_INVALID_ARG;
        }
        sched_param parameter = {};
        // Level 0 is the priority that threads start with: the middle of the usual range. Linux has
        // one usual level only, zero.
        parameter.sched_priority = aLevel != 0 ? aLevel : (nLowest + nHighest) / 2;
        const int rv = g_cmSystem.pthread_setschedparam(aThread, nPolicy, &parameter);
        if (rv != 0) {
            CM_WARNING_TRACE_THIS("CCmWorker, pthread_setschedparam() failed! err=" << rv);
            return CM_ERROR_FAILURE;
        }
        return CM_OK;
    }

    // Own thread: after Destory, the thread frees its object when its body returns.
    void Detach() {
        pthread_detach(pthread_self());
        m_Flag = TF_DETACHED;
    }

    bool IsOwnThread() const { return IsEqualCurrentThread(GetThreadId()); }
    CmResult PriorityResult() const { return m_PriorityResult; }
    CCmTimedCalls* TimedCalls() const { return m_pTimedCalls; }

  private:
    bool HasToStop() const {
        return IsFlagStopped() || m_bStopsNow.load(std::memory_order_relaxed);
    }

    void RunOnePass(CCmEventQueueSteps::CLoop& aLoop) {
        CCmTimeValue tvWait = CCmTimeValue::s_tvMax;
        auto* pTimers = static_cast<CCmTimerQueueBase*>(m_pTimerQueue);
        if (pTimers->GetEarliestTime() != CCmTimeValue::s_tvMax &&
            pTimers->CheckExpire(&tvWait) > 0) {
            aLoop.ForgetEnd();
        }
        bool bFired = false;
        long long llDeadline = m_pTimedCalls->FireDue(&bFired);
        if (bFired) {
            aLoop.ForgetEnd();
        }
        if (HasToStop()) {
            return;
        }
        if (tvWait != CCmTimeValue::s_tvMax) {
            llDeadline = std::min(llDeadline, CmLaterNsec(CmMonotonicNsec(), tvWait));
        }
        aLoop.RunEventsUntil(llDeadline, EVENTS_PER_PASS, m_bStopsNow);
    }

    CmResult RunHook(CCmWorkerOptions::EHook aHook) {
        ACmWorkerHook* pHook = m_Options.m_Hooks[aHook];
        return pHook != nullptr ? pHook->Run(*this) : CM_OK;
    }

    const CCmWorkerOptions m_Options;
    const CCmComAutoPtr<CCmTimedCalls> m_pTimedCalls;
    CmResult m_PriorityResult;
    CmStd::atomic<bool> m_bStopsNow;
};

CCmTimedCalls* CmTimedCallsOf(ACmThread& aThread) {
    const auto* pThread = dynamic_cast<CCmWorkerThread*>(&aThread);
    return pThread != nullptr ? pThread->TimedCalls() : nullptr;
}

CCmWorker::CCmWorker(const CCmWorkerOptions& aOptions)
    : m_pThread(nullptr), m_Result(aOptions.m_Result) {
    if (CM_FAILED(m_Result)) {
        return;
    }
    const CCmComAutoPtr<CCmTimedCalls> pTimedCalls(
        new (std::nothrow) CCmTimedCalls(CCmTimedCalls::CLOCK_OF_LIBRARY));
    if (pTimedCalls != nullptr) {
        m_pThread = new (std::nothrow) CCmWorkerThread(aOptions, pTimedCalls);
    }
    if (m_pThread == nullptr) {
        m_Result = CM_ERROR_OUT_OF_MEMORY;
        return;
    }
    m_Result = m_pThread->Create(aOptions.m_nType, TF_JOINABLE, 1);
    if (CM_FAILED(m_Result)) {
        std::exchange(m_pThread, nullptr)->Destory(m_Result);
    }
}

CCmWorker::CCmWorker(CCmWorker&& aRight) noexcept
    : m_pThread(std::exchange(aRight.m_pThread, nullptr)),
      m_Result(std::exchange(aRight.m_Result, CM_ERROR_NOT_INITIALIZED)) {}

CCmWorker& CCmWorker::operator=(CCmWorker&& aRight) noexcept {
    if (this != &aRight) {
        End();
        m_pThread = std::exchange(aRight.m_pThread, nullptr);
        m_Result = std::exchange(aRight.m_Result, CM_ERROR_NOT_INITIALIZED);
    }
    return *this;
}

CCmWorker::~CCmWorker() {
    End();
}

CmResult CCmWorker::PriorityResult() const {
    return m_pThread != nullptr ? m_pThread->PriorityResult() : m_Result;
}

CmResult CCmWorker::SetPriority(int aLevel) {
    if (m_pThread == nullptr) {
        return m_Result;
    }
    const pthread_t tid = m_pThread->GetThreadId();
    return tid != pthread_t() ? m_pThread->SetPriorityOf(tid, aLevel) : CM_ERROR_NOT_INITIALIZED;
}

ACmThread* CCmWorker::GetThread() const {
    return m_pThread;
}

ICmEventQueue* CCmWorker::GetEventQueue() const {
    return m_pThread != nullptr ? m_pThread->GetEventQueue() : nullptr;
}

CmResult CCmWorker::Drain() {
    return Drain(CCmTimeValue::s_tvMax);
}

CmResult CCmWorker::Drain(const CCmInterval& aLimit) {
    if (m_pThread == nullptr) {
        return m_Result;
    }
    return m_pThread->IsOwnThread() ? CM_ERROR_FAILURE : CmCall(*m_pThread, aLimit, [] {}).Result();
}

CmResult CCmWorker::Stop() {
    if (m_pThread == nullptr) {
        return m_Result;
    }
    const CmResult rv = m_pThread->Stop(nullptr);
    return rv == CM_ERROR_NOT_INITIALIZED ? CM_OK : rv;
}

CmResult CCmWorker::StopNow() {
    return m_pThread != nullptr ? m_pThread->StopNow() : m_Result;
}

CmResult CCmWorker::Join() {
    return m_pThread != nullptr ? m_pThread->Join() : m_Result;
}

CmResult CCmWorker::End() {
    CCmWorkerThread* pThread = std::exchange(m_pThread, nullptr);
    if (pThread == nullptr) {
        return CM_OK;
    }
    m_Result = CM_ERROR_NOT_INITIALIZED;
    if (!pThread->IsOwnThread()) {
        return CmEndThread(pThread);
    }
    const CCmDisableCancel disableCancel;
    StopUntilMemory(*pThread);
    pThread->Detach();
    return pThread->Destory(CM_OK);
}

CmResult CmEndThread(ACmThread* aThread) {
    if (aThread == nullptr) {
        return CM_OK;
    }
    const CCmDisableCancel disableCancel;  // cancelled half-way, the object would leak
    CmResult rv = aThread->GetThreadId() != pthread_t() ? StopUntilMemory(*aThread) : CM_OK;
    if (CM_SUCCEEDED(rv)) {
        rv = aThread->Join();
    }
    if (CM_FAILED(rv)) {
        CM_ERROR_TRACE(
            "CmEndThread, the thread goes on. rv=" << rv << " aThread=" << CmTraceAddress(aThread));
        return rv;
    }
    return aThread->Destory(CM_OK);
}

}  // namespace UTIL_NS
