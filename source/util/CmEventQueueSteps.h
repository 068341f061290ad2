// What the library does with event queues beyond their public operations; internal.
#ifndef CM_EVENT_QUEUE_STEPS_H
#define CM_EVENT_QUEUE_STEPS_H

#include <list>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmBriefWait.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

class CCmEventQueueBase;
class CCmEventQueueUsingConditionVariable;
class CCmMutexThread;
class CCmWatchedQueue;
class CCmWatchedThread;
class ICmEvent;
class ICmEventQueue;

class CCmEventQueueSteps {
  public:
    // Whether the calling thread is the consumer of aQueue. A queue that is not the library's own
    // counts as that of the registered thread that has it. CmEvent.cpp.
    static bool IsOwnThread(ICmEventQueue& aQueue);

    class CLoop;

    // Defined and used in CmEventQueueBase.cpp alone.
    class CPosting;
    class CPass;
    template <class IteratorType, class LeaveType>
    static void Run(CPass& aPass, IteratorType aNext, IteratorType aEnd,
                    const CmStd::atomic<bool>* aStop, LeaveType aLeave);
    static void DestroyPending(CCmEventQueueBase& aQueue, CCmMutexThread& aMutex);
    static DWORD PendingCount(const CCmEventQueueBase& aQueue);
    static DWORD OwnCount(const CCmEventQueueBase& aQueue);
    static void GatherOwn(CCmEventQueueBase& aQueue);
    static CLoop* LoopOfThisThread(CCmEventQueueBase& aQueue);

    // What follows is for the watch, and called only while it is on.
    //
    // The table by which CCmEventSynchronous is known; before the watch is turned on.
    static void LearnTableOfSends();
    struct CSeenEvent {
        const void* m_pTable;  // of the class; of a synchronous send, that of what it carries
        bool m_bIsWayBack;     // of a synchronous send: it has been counted when it was posted
    };
    static CSeenEvent See(const ICmEvent* aEvent);
    template <class IteratorType>
    static DWORD CountWaysBack(IteratorType aBegin, IteratorType aEnd);
    static uint64_t CountWithoutWaysBack(const std::list<ICmEvent*>& aEvents);
    // Not under the queue's lock. Null when there is no memory.
    static CCmWatchedQueue* EnsureWatched(CCmEventQueueBase& aQueue);
    // What the watch keeps of a queue; null when it does not. Under the queue's lock, by which all
    // that look there agree from when on the watch is on. What is counted there is of its Start():
    // the watch may have been started again meanwhile.
    static CCmWatchedQueue* Watched_l(CCmEventQueueBase& aQueue);
    // The same for what the consumer counts.
    static CCmWatchedQueue* WatchedOwn(CCmEventQueueBase& aQueue);
    static void EnsureOwn(const CCmEventQueueBase& aQueue, CCmWatchedQueue& aWatched, DWORD aStart);
    template <class IteratorType>
    static void NoteTaken_l(CCmEventQueueBase& aQueue, CCmWatchedQueue& aWatched, IteratorType aEnd,
                            size_t aCount);
    static void NoteUnfired_l(CCmEventQueueBase& aQueue);
    static void NoteConsumer(CCmEventQueueBase& aQueue);
    static void NoteRefused(CCmEventQueueBase& aQueue);
    static CCmWatchedThread* FallAsleep(const CLoop* aLoop);
    static void WakeUp(CCmWatchedThread& aThread, bool aHasEvents);
};

// A consumer that does nothing but run its queue, and timers between the passes, from the
// construction of its loop to End. While the loop lives:
//
// - What its own events and timers post goes to a private list, without the lock, as long as the
//   queue itself is empty. The private list runs before the queue, and that is the order of
//   posting. Of an event P in it and an event X in the queue, X cannot have been posted before P:
//   the post of X raised m_dwSize, and had it happened before that of P, the latter would have read
//   that value or a later one; later ones are lower only once this thread has taken X out, since
//   nobody else does.
// - The end of one event is the start of the next also from pass to pass, which saves a reading of
//   the clock, unless the consumer has waited or done something long meanwhile (ForgetEnd).
//
// Loop thread only. A loop of a queue inside another of the same queue takes over until its End.
class CCmEventQueueSteps::CLoop {
  public:
    explicit CLoop(CCmEventQueueUsingConditionVariable& aQueue);
    CLoop(const CLoop&) = delete;
    CLoop& operator=(const CLoop&) = delete;
    // Must be called, also when the thread is cancelled: what is in the private list is pending in
    // the queue then, ahead of what others have posted.
    void End();

    // Something else than events has taken time: a timer has fired.
    void ForgetEnd() { m_bGoesOn = false; }
    // Waits while nothing is pending, at most aTimeout (null: no limit), and runs at most aMaxCount
    // events. May return without one before that, to look after the memory of those that have run.
    void RunEvents(CCmTimeValue* aTimeout, DWORD aMaxCount);
    // The same with a limit by the monotonic clock, in nanoseconds (CM_NEVER_NSEC: none). When
    // aStop becomes true, events that have not begun go back to the head of the queue.
    void RunEventsUntil(long long aDeadlineNsec, DWORD aMaxCount, const CmStd::atomic<bool>& aStop);

  private:
    friend class CCmEventQueueBase;
    friend class CCmEventQueueSteps;
    friend class CCmEventSynchronous;
    friend class CCmEventQueueUsingConditionVariable;

    auto& QueueState() const;
    // CCmBlockPool::Tend, which may take its time.
    bool TendMemory();
    void AwaitSender();
    CmResult PopOrWaitUntil(std::list<ICmEvent*>& aEvents, long long aDeadlineNsec,
                            DWORD aMaxCount);
    void RunTaken(std::list<ICmEvent*>& aEvents, const CmStd::atomic<bool>* aStop);
    void NoteSend(int aSenderCore);
    bool MayPost();
    void NoteWatch();
    bool PostOwn(ICmEvent* aEvent, std::list<ICmEvent*>& aNodes);
    size_t CountOfNodes() const { return m_nNodes; }
    bool TakeOwn(std::list<ICmEvent*>& aEvents, DWORD aMaxCount, bool aIsWatched);
    void GiveOwn();
    bool HasDiscards() const;
    bool HasToEndSome() const { return !m_Discarded.empty(); }
    void EndDiscarded();
    void CountOwn(size_t aCount);
    void NoteOwnPost(const ICmEvent* aEvent);

    CCmEventQueueUsingConditionVariable& m_Queue;
    CLoop* const m_pOuter;             // of the same queue on this thread; may be null
    std::list<ICmEvent*> m_Own;        // the private list
    std::list<ICmEvent*> m_Discarded;  // what was in it, to be destroyed without having been fired
    CCmTimeValue m_tvWatchFrom;        // until then no post looks at the queue's length
    CCmTimeValue m_tvEnd;              // when the last event ended
    timeval m_tvCoarseNow;             // as MayPost has read it
    DWORD m_dwDiscards;                // how many of the queue's have been seen to
    bool m_bGoesOn;                    // the next event starts at m_tvEnd
    size_t m_nNodes;                   // that it has allocated
    int m_nOwnCore;                    // where the last send of this pass was fired, or -1
    int m_nSenderCore;                 // where it was sent
    CCmLearnedTry m_Spin;              // for its sender's next post
    CCmLearnedTry m_Yield;
};

}  // namespace UTIL_NS

#endif  // CM_EVENT_QUEUE_STEPS_H
