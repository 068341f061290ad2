// What is to run later on one thread; internal.
//
// CCmTimedCalls is the list of one thread and CCmTimedCall one entry. A CCmWorker has a list that
// its loop drives by the monotonic clock; any thread inserts. On another worker a driver, made by
// the first call that arrives there, stands for the list in the worker's timer queue. Any thread
// cancels. Lists and entries are counted, so that worker and handles may end in any order.
#ifndef CM_TIMED_CALLS_H
#define CM_TIMED_CALLS_H

#include <pthread.h>

#include <atomic>
#include <vector>

#include "CmConditionVariable.h"
#include "CmEvent.h"
#include "CmNsec.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

class CCmTimedCalls;

// On its way to a list, in it, running, or ended, for good. The callable is gone once it has ended.
class CCmTimedCall : public CCmReferenceControlT<CCmMutexThread> {
  public:
    // aEvent: owned.
    CCmTimedCall(CCmTimedEvent* aEvent, long long aDueNsec, long long aPeriodNsec, DWORD aCount);
    ~CCmTimedCall() override;

    bool HasEnded() const;
    // As those of CCmTimerHandle.
    CmResult Cancel(bool aWaits);
    // For whoever brings it to its list: ends it, unless it has been cancelled before.
    void Refuse();

  private:
    friend class CCmTimedCalls;
    enum EState : int { STATE_ON_ITS_WAY, STATE_PENDING, STATE_RUNNING, STATE_ENDED };

    bool EndOnItsWay_i();
    void EndEvent_i();

    CCmTimedEvent* m_pEvent;
    CCmComAutoPtr<CCmTimedCalls> m_pList;  // set before the state leaves STATE_ON_ITS_WAY
    std::atomic<int> m_nState;
    long long m_llDue;
    const long long m_llPeriod;
    DWORD m_dwLeft;  // firings, the coming one included; 0: without limit
    uint64_t m_ullOrder;
    size_t m_nPlace;    // in the heap
    bool m_bCancelled;  // while it ran
};

class CCmTimedCalls : public CCmReferenceControlT<CCmMutexThread> {
  public:
    enum EClock { CLOCK_OF_WALL, CLOCK_OF_LIBRARY };

    explicit CCmTimedCalls(EClock aClock);
    ~CCmTimedCalls() override;

    // The thread that fires.
    void BindToCurrentThread();
    long long Now() const;
    // Any thread. CM_OK, CM_ERROR_OUT_OF_MEMORY, CM_ERROR_NOT_INITIALIZED (refuses),
    // CM_ERROR_NOT_FOUND (it had been cancelled). aMustWake: whether its thread may be waiting for
    // something later, or for nothing.
    CmResult Insert(CCmTimedCall& aCall, bool& aMustWake);
    // Any thread: when the next one is due.
    long long NextDue();
    // From now on nothing is taken in. Any thread.
    void Refuse();
    // Own thread: runs what is due, each at most once, and returns when the next one is.
    long long FireDue();
    // Own thread, or nobody's any more: ends everything unfired, for good.
    void Close();

  private:
    friend class CCmTimedCall;

    CmResult Cancel(CCmTimedCall& aCall, bool aWaits);
    CmResult TryCancel_i(CCmTimedCall& aCall);
    void WaitWhileItRuns_i(CCmTimedCall& aCall);
    CCmTimedCall* TakeDue_i(long long aNow, long long& aNext);
    void Fire_i(CCmTimedCall& aCall, long long aNow);
    bool Rearm_i(CCmTimedCall& aCall);
    void EndRun_i(CCmTimedCall& aCall);
    CCmTimedCall* TakeFirst_i();
    void Place_l(size_t aPlace, CCmTimedCall* aCall) CM_REQUIRES(m_Mutex);
    void Rise_l(size_t aPlace) CM_REQUIRES(m_Mutex);
    void Sink_l(size_t aPlace) CM_REQUIRES(m_Mutex);
    void Push_l(CCmTimedCall& aCall) CM_REQUIRES(m_Mutex);
    void Remove_l(CCmTimedCall& aCall) CM_REQUIRES(m_Mutex);
    static bool IsEarlier(const CCmTimedCall& aLeft, const CCmTimedCall& aRight);

    const EClock m_eClock;
    std::atomic<pthread_t> m_Tid;
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Ended;  // one that ran does not run any more
    // A heap of references; has room for the running one as well.
    std::vector<CCmTimedCall*> m_Heap CM_GUARDED_BY(m_Mutex);
    std::atomic<bool> m_bIsEmpty;  // the heap, as a hint: whoever fills it wakes the thread
    CCmTimedCall* m_pRunning CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullOrders CM_GUARDED_BY(m_Mutex);
    DWORD m_dwWaiters CM_GUARDED_BY(m_Mutex);
    bool m_bRefuses CM_GUARDED_BY(m_Mutex);
};

// The list of a CCmWorker's thread, null for any other; no reference is taken. CmWorker.cpp.
CCmTimedCalls* CmTimedCallsOf(ACmThread& aThread);

}  // namespace UTIL_NS

#endif  // CM_TIMED_CALLS_H
