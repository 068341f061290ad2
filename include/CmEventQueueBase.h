/// Events and the queues that carry them to the thread that is to run them.
///
/// Any thread posts an event; from then on the queue owns it. The queue's consumer thread takes it
/// out, runs OnEventFire and ends it with OnDestorySelf, both with no lock held. Events run
/// strictly in the order of posting, whatever their priority. An event that is refused, or that is
/// still pending when its queue ends, is ended by OnDestorySelf without having been fired: every
/// event handed to a queue ends exactly once, also when PostEvent or SendEvent fails (a null event
/// apart). Nothing here throws.
/// \file
#ifndef CM_EVENT_QUEUE_BASE_H
#define CM_EVENT_QUEUE_BASE_H

#include <pthread.h>

#include <list>
#include <new>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmConditionVariable.h"
#include "CmPrivateRoom.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// One piece of work for another thread; to be created by new, unless OnDestorySelf says otherwise.
class CM_UTIL_EXPORT ICmEvent {
  public:
    /// Stores the calling thread as the creator.
    ICmEvent();
    ICmEvent(const ICmEvent&) = delete;
    ICmEvent& operator=(const ICmEvent&) = delete;

    /// The work, run on the queue's thread. A synchronous sender gets the result; for a posted
    /// event it is ignored.
    virtual CmResult OnEventFire() = 0;
    /// Ends the event: called once, after OnEventFire or instead of it; the queue does not touch
    /// the event afterwards. Deletes the object. Runs on the queue's thread, or on the thread that
    /// destroys the queue or calls DestoryPendingEvents; on the posting one only when the queue
    /// refuses the event. May post to the same queue.
    virtual void OnDestorySelf();
    /// For OnDestorySelf: a queue never deletes an event.
    virtual ~ICmEvent();

    /// The memory of events: what the thread that runs them frees serves those that post (see
    /// docs/events.md), for events of at most 512 bytes that need no more than the usual alignment;
    /// the rest comes from the system. Throws std::bad_alloc. Any thread.
    static void* operator new(size_t aSize);
    /// The same; null when there is no memory.
    static void* operator new(size_t aSize, const std::nothrow_t&) noexcept;
    /// In memory of the caller's.
    static void* operator new(size_t, void* aMemory) noexcept { return aMemory; }
    /// Frees what any operator new gave without an alignment, that of the class or the global one;
    /// null does nothing.
    static void operator delete(void* aMemory) noexcept;
    /// For a constructor that throws.
    static void operator delete(void* aMemory, const std::nothrow_t&) noexcept {
        operator delete(aMemory);
    }
    /// For a constructor that throws; the memory stays the caller's.
    static void operator delete(void*, void*) noexcept {}
#ifdef __cpp_aligned_new
    /// Of an event that needs more than the usual alignment: the global one.
    static void* operator new(size_t aSize, std::align_val_t aAlignment) {
        return ::operator new(aSize, aAlignment);
    }
    /// The same; null when there is no memory.
    static void* operator new(size_t aSize, std::align_val_t aAlignment,
                              const std::nothrow_t& aNoThrow) noexcept {
        return ::operator new(aSize, aAlignment, aNoThrow);
    }
    /// Frees memory of the two above.
    static void operator delete(void* aMemory, std::align_val_t aAlignment) noexcept {
        ::operator delete(aMemory, aAlignment);
    }
    /// For a constructor that throws.
    static void operator delete(void* aMemory, std::align_val_t aAlignment,
                                const std::nothrow_t&) noexcept {
        ::operator delete(aMemory, aAlignment);
    }
#else
    /// The system's C++ library has no memory of a larger alignment.
    static void* operator new(size_t, std::align_val_t) = delete;
    /// The same.
    static void* operator new(size_t, std::align_val_t, const std::nothrow_t&) noexcept = delete;
#endif

  protected:
    uint64_t m_ullReserved;  ///< 0; part of the binary interface, which nothing here reads
    pthread_t m_CreatorTid;  ///< the thread that constructed the event
};

/// What posters and senders see of a queue. All operations may be called from any thread. A queue
/// must outlive the calls on it, except that it may end while senders wait: they are woken.
class CM_UTIL_EXPORT ICmEventQueue {
  public:
    /// Accepted and ignored: every event is appended at the tail.
    enum EPriority {
        EPRIORITY_HIGH = 0,    ///< like normal priority
        EPRIORITY_NORMAL = 1,  ///< what the library itself passes
        EPRIORITY_LOW = 2,     ///< like normal priority
    };

    /// Hands aEvent over; does not wait. A queue has no bound: where posters may be faster than
    /// the consumer, CCmBoundedPoster sets one (CmBoundedPoster.h). CM_OK, or with the event ended:
    /// CM_ERROR_NOT_INITIALIZED (the queue has been stopped), CM_ERROR_OUT_OF_MEMORY;
    /// CM_ERROR_INVALID_ARG: null event.
    virtual CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) = 0;
    /// Hands aEvent over, waits until it has fired and returns the result of its OnEventFire; its
    /// OnDestorySelf may come later. On the queue's own thread both run at once, overtaking what is
    /// pending. Waits without limit on a queue that nobody runs; so two threads that send to each
    /// other wait for ever: send in one direction and post in the other. The watch (CmWatch.h) says
    /// which threads do. CM_ERROR_NOT_AVAILABLE: the event was ended without having run (its thread
    /// stopped first, or its queue ended), or its thread was cancelled while it ran.
    /// CM_ERROR_FAILURE: the wait failed; the event runs or ends later. Otherwise fails like
    /// PostEvent. A cancellation point; what a cancelled sender has sent runs all the same.
    virtual CmResult SendEvent(ICmEvent* aEvent) = 0;
    /// How many events are pending; may be outdated when it is read.
    virtual DWORD GetPendingEventsCount() = 0;
    /// Ends what is pending.
    virtual ~ICmEventQueue();
};

class CCmEventSynchronous;

/// The queue without a lock; the two variants below add one. Callers of PostEvent and of the pop
/// functions of this class itself serialise them; the Process functions are for the consumer
/// thread, without a lock.
///
/// A queue runs from its construction until SetStopped, for good; then every post and send is
/// refused. What is pending then is still to be taken out or destroyed by the owner.
///
/// Cancellation: an event that has begun when the thread that runs it is cancelled is ended there,
/// once, and no other begins. The rest goes to the owner of the list: with ProcessEvents, to the
/// caller, in whose list it stays (those that have ended stay there, too, so that a caller who may
/// be cancelled counts what has run); with ProcessAndRecycleEvents, to the queue, in which it is
/// pending again, ahead of what was posted meanwhile. ProcessTakenEvents owns its list itself and
/// ends the rest unfired.
///
/// A host's own queue derives from this class or from a variant. Its PostEvent calls that of its
/// base, under a lock of its own where the base has none (recursive, if its events post to it when
/// they are refused); SendEvent reaches that PostEvent. Its destructor begins with WaitForSenders.
class CM_UTIL_EXPORT CCmEventQueueBase : public ICmEventQueue {
  public:
    /// An event that runs longer than this (50 ms) is reported with a warning line.
    static const CCmTimeValue s_tvReportInterval;

    /// An empty queue that runs and has no consumer yet.
    CCmEventQueueBase();
    CCmEventQueueBase(const CCmEventQueueBase&) = delete;
    CCmEventQueueBase& operator=(const CCmEventQueueBase&) = delete;
    /// Waits for senders, refuses what comes from then on and ends what is pending.
    ~CCmEventQueueBase() override;

    /// Also watches the size: the first post after more than 3 s since the construction, or since
    /// such a post, writes a warning line if more than 100 events are pending with it.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override;
    /// Posts through the PostEvent of the object's own class.
    CmResult SendEvent(ICmEvent* aEvent) override;
    /// Takes no lock.
    DWORD GetPendingEventsCount() override;

    /// Moves the aMaxCount oldest events, or all if there are no more, to the tail of aEvents and
    /// stores how many remain through aRemainSize (may be null). The caller owns them from then on.
    /// CM_ERROR_NOT_FOUND, with nothing stored: the count is 0.
    CmResult PopPendingEvents(std::list<ICmEvent*>& aEvents, DWORD aMaxCount = 0xFFFFFFFF,
                              DWORD* aRemainSize = nullptr);
    /// The oldest event alone. CM_ERROR_NOT_FOUND: nothing is pending.
    CmResult PopOnePendingEvent(ICmEvent*& aEvent, DWORD* aRemainSize = nullptr);
    /// Runs and ends each event in order. Always CM_OK. The list stays as it is, the caller's.
    CmResult ProcessEvents(const std::list<ICmEvent*>& aEvents);
    /// Runs and ends one event. CM_OK, or CM_ERROR_INVALID_ARG for null.
    CmResult ProcessOneEvent(ICmEvent* aEvent);
    /// Ends every pending event without firing it, the oldest first. The count keeps its value.
    void DestoryPendingEvents();

    /// For the owner: makes the calling thread the queue's own.
    void BindToCurrentThread();
    /// For the owner: refuses posts and sends from now on.
    void SetStopped();

  protected:
    /// For destructors: waits until no sender touches this queue any more but those that wait for
    /// their event, whom its end wakes. The destructor of every class that overrides PostEvent or
    /// has a lock of its own calls it first, while its PostEvent still works.
    void WaitForSenders();

    /// In posting order. What a worker's events post to their own worker may be in a list of its
    /// own ahead of these, which the functions above take into account.
    std::list<ICmEvent*> m_Events;
    CmStd::atomic<DWORD> m_dwSize;     ///< the count of m_Events; read without a lock
    CCmTimeValue m_tvLastReport;       ///< when a post last watched the size
    CmStd::atomic<pthread_t> m_Tid;    ///< the consumer; 0 until it is bound
    CmStd::atomic<bool> m_bIsStopped;  ///< posts are refused; read without a lock

  private:
    friend class CCmEventSynchronous;
    friend class CCmEventQueueSteps;  // internal
    class CM_UTIL_HIDDEN CQueueState;

    CCmPrivateRoomT<CQueueState, 144> m_Private;
};

/// The wrapper that carries a synchronous send.
///
/// Two hold it: the queue, which fires its event and ends it once, and the sender, who waits and
/// then posts it back, so that it is freed on the queue's own thread; a sender that cannot (the
/// queue refuses, or may be gone) lets go of it by itself. Whoever lets go last frees it, also when
/// its first post is refused. Its event ends on the thread that fired it, whoever that is.
class CM_UTIL_EXPORT CCmEventSynchronous : public ICmEvent {
  public:
    /// aEvent: owned. aQueue: the queue that is to run it; may be null.
    CCmEventSynchronous(ICmEvent* aEvent, CCmEventQueueBase* aQueue);
    /// Ends an event that has not been ended and wakes a sender that still waits.
    ~CCmEventSynchronous() override;

    /// Fires the event and wakes the sender, who gets the result; CM_ERROR_NULL_POINTER: there is
    /// no event. When the sender has posted the wrapper back: CM_OK, with nothing done.
    CmResult OnEventFire() override;
    /// Ends the event and lets go of the wrapper; the second call frees it.
    void OnDestorySelf() override;
    /// For the sender, once, after a successful post: the result of the event's OnEventFire,
    /// CM_ERROR_NOT_AVAILABLE when it was ended without having run, or the result of a wait that
    /// failed. The caller must not touch the wrapper afterwards.
    CmResult WaitResultAndDeleteThis();

  private:
    friend class CCmEventQueueBase;
    friend class CCmEventQueueSteps;  // internal
    class CM_UTIL_HIDDEN CSendState;

    CmStd::atomic<ICmEvent*> m_pEvent;    // null once it has been ended
    CmResult m_Result;                    // CM_ERROR_NOT_AVAILABLE until it has fired
    CCmEventQueueBase* m_pEventQueue;     // not owned
    CmStd::atomic<bool> m_bHasDestoryed;  // one of the two has let go
    CCmEventThread m_SendEvent;           // the sender waits for it
    CCmPrivateRoomT<CSendState, 80> m_Private;
};

/// The queue of a consumer that polls.
class CM_UTIL_EXPORT CCmEventQueueUsingMutex : public CCmEventQueueBase {
  public:
    /// An empty queue that runs.
    CCmEventQueueUsingMutex();
    /// Waits for senders, refuses what comes from then on and ends what is pending.
    ~CCmEventQueueUsingMutex() override;

    /// Under the queue's mutex; what is refused ends after it was released.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override;
    /// Stores how many events were pending before this one through aOldSize (may be null).
    CmResult PostEventWithOldSize(ICmEvent* aEvent, EPriority aPri, DWORD* aOldSize);
    /// PopPendingEvents under the queue's mutex.
    CmResult PopPendingEventsLocked(std::list<ICmEvent*>& aEvents, DWORD aMaxCount = 0xFFFFFFFF,
                                    DWORD* aRemainSize = nullptr);
    /// That of the base; the events are taken out under the queue's mutex and ended after it was
    /// released.
    void DestoryPendingEvents();
    /// Consumer thread only. ProcessEvents of a list that was taken out of this queue; it is empty
    /// afterwards.
    void ProcessTakenEvents(std::list<ICmEvent*>& aEvents);

  private:
    CCmMutexThread m_Mutex;
    [[maybe_unused]] CCmPrivateRoomT<void, 64> m_Private;  // for later versions
};

/// The queue of a consumer that sleeps until an event arrives.
class CM_UTIL_EXPORT CCmEventQueueUsingConditionVariable : public CCmEventQueueBase {
  public:
    /// An empty queue that runs.
    CCmEventQueueUsingConditionVariable();
    /// Waits for senders, refuses what comes from then on and ends what is pending.
    ~CCmEventQueueUsingConditionVariable() override;

    /// Under the queue's mutex; after it was released, wakes the consumer when it sleeps, and ends
    /// what is refused.
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override;
    /// Consumer thread only. Waits once while nothing is pending, at most aTimeout (relative; null
    /// waits without limit), then takes at most aMaxCount events. CM_ERROR_NOT_FOUND: still empty,
    /// also when the wait ended early without an event. A cancellation point while it waits; a
    /// cancelled thread leaves the queue usable, and what is pending in it.
    CmResult PopOrWaitPendingEvents(std::list<ICmEvent*>& aEvents, CCmTimeValue* aTimeout,
                                    DWORD aMaxCount = 0xFFFFFFFF);
    /// Consumer thread only. ProcessEvents of a list that was taken out of this queue; it is empty
    /// afterwards. Its nodes serve coming posts: where passes take about as many events as the one
    /// before, posts allocate no nodes. The queue keeps 512 KiB of them at most, and what a burst
    /// left goes back with the smaller passes that follow, each of which frees its own.
    void ProcessAndRecycleEvents(std::list<ICmEvent*>& aEvents);
    /// That of the base; the events are taken out under the queue's mutex and ended after it was
    /// released. Of a worker's queue, on another thread: what the worker's own events have posted
    /// is ended by the worker, unfired, before its next pass.
    void DestoryPendingEvents();
    /// The same for a consumer that ends: refuses posts from then on, with nothing slipping in
    /// between, so that no sender is left waiting.
    void StopAndDestoryPendingEvents();
    /// Whether no event is pending and none can be posted any more. Any thread.
    bool IsStoppedAndEmpty();

  private:
    friend class CCmEventQueueSteps;  // internal
    class CM_UTIL_HIDDEN CConditionQueueState;

    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Condition;
    CCmPrivateRoomT<CConditionQueueState, 160> m_Private;
};

}  // namespace UTIL_NS

#endif  // CM_EVENT_QUEUE_BASE_H
