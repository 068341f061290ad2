// What is to run later on one thread; internal.
//
// CCmTimedCalls is the list of one thread and CCmTimedCall one entry. A CCmWorker has a list that
// its loop drives by the monotonic clock; any thread inserts. On another worker a driver, made by
// the first call that arrives there, drives the list as a timer of the worker's timer queue. Any
// thread cancels. Lists and entries are counted, so that the worker and the handles may be
// destroyed in any order.
#ifndef CM_TIMED_CALLS_H
#define CM_TIMED_CALLS_H

#include <pthread.h>

#include <vector>

#include "CmAtomic.h"
#include "CmBlockedSends.h"
#include "CmConditionVariable.h"
#include "CmEvent.h"
#include "CmNsec.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

class CCmTimedCalls;

// On its way to a list, pending there, running, or done, which is final: it will not run again and
// its callable has been destroyed.
class CCmTimedCall : public CCmReferenceControlT<CCmMutexThread> {
  public:
    // aEvent: owned.
    CCmTimedCall(CCmTimedEvent* aEvent, long long aDueNsec, long long aPeriodNsec, DWORD aCount);
    ~CCmTimedCall() override;

    bool IsDone() const;
    // As those of CCmTimerHandle.
    CmResult Cancel(bool aWaits);
    // For whoever cannot bring it to its list: it is done, unless it was cancelled before.
    void Refuse();

  private:
    friend class CCmTimedCalls;
    enum EState : int { STATE_ON_ITS_WAY, STATE_PENDING, STATE_RUNNING, STATE_DONE };

    bool StopOnItsWay_i();
    void DestroyEvent_i();

    CCmTimedEvent* m_pEvent;
    CCmComAutoPtr<CCmTimedCalls> m_pList;  // set before the state leaves STATE_ON_ITS_WAY
    CmStd::atomic<int> m_nState;
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
    // Any thread: no more calls are taken in.
    void Refuse();
    // Own thread: runs what is due, each at most once, and returns when the next one is due.
    // aFired (may be null) is set when one has run.
    long long FireDue(bool* aFired = nullptr);
    // On its own thread, or when that is gone: destroys every callable unfired; refuses what comes.
    void Close();

  private:
    friend class CCmTimedCall;

    CmResult Cancel(CCmTimedCall& aCall, bool aWaits);
    CmResult TryCancel_i(CCmTimedCall& aCall);
    void WaitWhileItRuns_i(CCmTimedCall& aCall);
    void EnterWait_i(CCmTimedCall& aCall, CCmBlockedSend& aBlocked);
    CCmTimedCall* TakeDue_i(long long aNow, long long& aNext);
    void Fire_i(CCmTimedCall& aCall, long long aNow);
    bool Rearm_i(CCmTimedCall& aCall);
    void FinishRun_i(CCmTimedCall& aCall);
    CCmTimedCall* TakeFirst_i();
    void Place_l(size_t aPlace, CCmTimedCall* aCall) CM_REQUIRES(m_Mutex);
    void Rise_l(size_t aPlace) CM_REQUIRES(m_Mutex);
    void Sink_l(size_t aPlace) CM_REQUIRES(m_Mutex);
    void Push_l(CCmTimedCall& aCall) CM_REQUIRES(m_Mutex);
    void Remove_l(CCmTimedCall& aCall) CM_REQUIRES(m_Mutex);
    static bool IsEarlier(const CCmTimedCall& aLeft, const CCmTimedCall& aRight);

    const EClock m_eClock;
    CmStd::atomic<pthread_t> m_Tid;
    CCmAwaitedThread m_Thread;  // the same one, for those that wait for it
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Finished;  // a call that ran is done
    // A heap of references, with capacity for the running one as well.
    std::vector<CCmTimedCall*> m_Heap CM_GUARDED_BY(m_Mutex);
    // Whether the heap is empty, read relaxed and without the lock as a hint: whoever puts the
    // first call in wakes the thread afterwards.
    CmStd::atomic<bool> m_bIsEmpty;
    CCmTimedCall* m_pRunning CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullOrders CM_GUARDED_BY(m_Mutex);
    DWORD m_dwWaiters CM_GUARDED_BY(m_Mutex);
    bool m_bRefuses CM_GUARDED_BY(m_Mutex);
};

// The list of a CCmWorker's thread, null for any other; takes no reference. Defined in
// CmWorker.cpp.
CCmTimedCalls* CmTimedCallsOf(ACmThread& aThread);

}  // namespace UTIL_NS

#endif  // CM_TIMED_CALLS_H
