/// Threads that own an event queue and, optionally, a timer queue; and the registry of them.
///
///     ACmThread* pThread = nullptr;
///     CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1);
///     pThread->GetEventQueue()->PostEvent(new CMyEvent, ICmEventQueue::EPRIORITY_NORMAL);
///     ...
///     pThread->Stop(nullptr);   // what was posted before still runs
///     pThread->Join();
///     pThread->Destory(CM_OK);  // frees the object
///
/// Where timer wrappers are scheduled on the worker, they are destroyed between Join and Destory: a
/// wrapper that is destroyed cancels its timer in the queue, which is freed with the object.
/// \file
#ifndef CM_THREAD_H
#define CM_THREAD_H

#include <pthread.h>

#include <list>
#include <new>

#include "CmAtomic.h"
#include "CmBase.h"
#include "CmConditionVariable.h"
#include "CmEventQueueBase.h"
#include "CmPrivateRoom.h"
#include "CmThreadAnnotations.h"
#include "CmTimerQueueBase.h"
#include "CmUtilClasses.h"

namespace UTIL_NS {

/// The type of a thread that has not been created. All types but this one and TT_MAIN are the
/// host's own numbers, which are stored and reported back.
constexpr int TT_UNKNOWN = -1;
/// The type of an object that adopts the calling thread and starts none.
constexpr int TT_MAIN = 0;

/// Who waits for a thread; 0 is taken as TF_JOINABLE. Detached is a flag whose low two bits are 2.
typedef int TFlag;
/// Join waits for the thread; then Destory frees the object.
constexpr TFlag TF_JOINABLE = 1;
/// Nobody waits. The object is freed once its body has returned and Destory was called.
constexpr TFlag TF_DETACHED = 2;

/// Base of every thread object. Objects are made by new and freed by Destory, never by delete from
/// outside; a thread object is created once.
///
/// Create, Terminate, Join and Destory are for the owner, one at a time; the other operations
/// may be called from any thread, once Create has returned and until Destory.
class CM_UTIL_EXPORT ACmThread {
  public:
    /// No thread yet: Create starts or adopts one.
    ACmThread();
    ACmThread(const ACmThread&) = delete;
    ACmThread& operator=(const ACmThread&) = delete;

    /// Starts a thread that runs OnThreadInit and then OnThreadRun, and waits until OnThreadInit
    /// has returned; with TT_MAIN adopts the calling thread and runs neither. aType TT_UNKNOWN
    /// starts one, too, with a warning. bRegister: whether getCurrentThread finds it. CM_OK,
    /// CM_ERROR_ALREADY_INITIALIZED (a second call), CM_ERROR_UNEXPECTED (a system call failed),
    /// CM_ERROR_OUT_OF_MEMORY; of a worker also CM_ERROR_NOT_INITIALIZED (an earlier thread of it,
    /// of unknown type, was stopped). An object whose creation failed is freed by Destory.
    virtual CmResult Create(int aType, TFlag aFlag = TF_JOINABLE, signed char bRegister = 1);
    /// Asks the body to return; does not wait for it. Here: CM_ERROR_NOT_IMPLEMENTED, and the body
    /// goes on. So a class with a body of its own overrides this: it makes OnThreadRun return, and
    /// wakes the thread if it sleeps. Join would wait for ever otherwise.
    virtual CmResult Stop(CCmTimeValue* aTimeout = nullptr);
    /// On the new thread, before Create returns.
    virtual void OnThreadInit();
    /// The thread's body.
    virtual void OnThreadRun() = 0;
    /// Null: threads of this library have no reactor.
    virtual void* GetReactor();
    /// Null when the thread has none. Owned by the object.
    virtual ICmEventQueue* GetEventQueue();
    /// Null when the thread has none. Owned by the object; to be used on the thread itself only.
    virtual ICmTimerQueue* GetTimerQueue();
    /// Sets what GetStopFlag tells, and nothing else.
    virtual void SetStop();
    /// True once the body has returned, or SetStop or Terminate was called. Stop of a worker does
    /// not make it true: it posts an event, and posts are refused from then on.
    virtual bool GetStopFlag();
    /// For Destory, which calls it.
    virtual ~ACmThread();

    /// 0 until created and again after a successful Join.
    pthread_t GetThreadId() const { return m_Tid.load(std::memory_order_relaxed); }
    /// -1 (all bits set) until a thread was started.
    pthread_t GetThreadHandle() const { return m_Handle.load(std::memory_order_relaxed); }
    /// What Create was given; TT_UNKNOWN before.
    int GetThreadType() const { return m_Type; }

    /// Waits until a joinable thread has ended; does nothing for any other. CM_ERROR_FAILURE: it is
    /// the calling thread, or pthread_join failed. A cancellation point; the thread can be joined
    /// again then.
    CmResult Join();
    /// Frees the object, at once or (detached, and its body still runs) when the body has returned.
    /// To be called last; a joinable thread has been stopped and joined before. aReason is traced
    /// only. CM_OK.
    CmResult Destory(int aReason);
    /// Cancels the thread at its next cancellation point and sets the stop flag. The result is that
    /// of pthread_cancel, or CM_ERROR_FAILURE when there is no thread to cancel: none was started,
    /// it is gone, or the object adopted one. The flag is set all the same. An event that was
    /// firing is destroyed (OnDestorySelf); what its event queue holds stays pending, or, once a
    /// worker has run its stop event, is destroyed, too. The queue accepts posts until a Stop
    /// closes it, and Join and Destory work as usual. The host's own handlers run no destructors on
    /// every system (see "Cancelled threads" in docs/platforms.md). No destructor of theirs may
    /// contain a cancellation point: it cannot be unwound, and the process would end. Create,
    /// Destory and the library's own destructors are none.
    CmResult Terminate();

    /// The start routine of the POSIX thread; pParam is the object. Returns null.
    static void* ThreadProc(void* pParam);

  protected:
    /// For OnThreadInit: makes Create fail with aResult; the body does not run then.
    void SetInitResult(CmResult aResult);

    CmStd::atomic<pthread_t> m_Tid;     ///< what GetThreadId returns
    CmStd::atomic<pthread_t> m_Handle;  ///< what GetThreadHandle returns
    int m_Type;                         ///< what GetThreadType returns
    TFlag m_Flag;                       ///< that of Create; 0 before
    CCmEventThread* m_pEvent;  ///< Create waits for OnThreadInit on it; owned, null otherwise
    bool m_bRegistered;        ///< it is in g_threadList
    bool m_bRegister;          ///< Create was asked to register it; true before
    /// How many of the two, the owner (in Destory) and the body (when it has returned), are done
    /// with the object of a detached thread. The second one frees it.
    CCmAtomicOperationT<CCmMutexThread> m_nDestroyRef;
    CmStd::atomic<bool> m_bStopFlag;  ///< what GetStopFlag returns

  private:
    class CM_UTIL_HIDDEN CThreadState;
    friend CM_UTIL_EXPORT ACmThread* getCurrentThread();

    CCmPrivateRoomT<CThreadState, 192> m_Private;
};

/// Guards g_threadList. Never destroyed, so that static objects of the host may use it.
extern CM_UTIL_EXPORT CCmMutexThread g_thread_Mutex;
/// The registered thread objects in the order of registration; not owned. Never destroyed.
extern CM_UTIL_EXPORT std::list<ACmThread*> g_threadList CM_GUARDED_BY(g_thread_Mutex);

/// Appends aThread (not owned). CM_OK, or CM_ERROR_OUT_OF_MEMORY. Create does this. Any thread.
CM_UTIL_EXPORT CmResult RegisterThread(ACmThread* aThread);
/// CM_OK, or CM_ERROR_NOT_FOUND. Any thread.
CM_UTIL_EXPORT CmResult UnRegisterThread(ACmThread* aThread);
/// The object of the calling thread, or null when none is registered; null also when the object's
/// own thread asks after its body has returned. Any thread.
CM_UTIL_EXPORT ACmThread* getCurrentThread();

/// A worker that sleeps on its event queue and runs what is posted to it. A worker that was stopped
/// runs no more; one that is stopped before it is created runs what is pending and returns.
class CM_UTIL_EXPORT CCmThreadTaskWithEventQueueOnly : public ACmThread, public CCmStopFlag {
  public:
    /// No thread yet; posts are accepted all the same.
    CCmThreadTaskWithEventQueueOnly();
    /// Ends what is pending, unfired.
    ~CCmThreadTaskWithEventQueueOnly() override;

    /// Any thread. Everything posted before still runs; later posts are refused. aTimeout is not
    /// used. CM_OK; CM_ERROR_OUT_OF_MEMORY: nothing has changed, try again;
    /// CM_ERROR_NOT_INITIALIZED: it has been stopped before. After Terminate, too, it closes the
    /// queue.
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    /// Makes the queue that of the new thread. CM_ERROR_NOT_INITIALIZED for Create: an earlier
    /// thread of the object has run the stop event, which cannot be posted again.
    void OnThreadInit() override;
    /// Runs events until the stop event has run, and those that were taken off the queue with it;
    /// then ends what is pending, unfired.
    void OnThreadRun() override;
    /// Never null.
    ICmEventQueue* GetEventQueue() override;

  protected:
    CCmEventQueueUsingConditionVariable m_EventQueue;  ///< what GetEventQueue returns

  private:
    [[maybe_unused]] CCmPrivateRoomT<void, 64> m_Private;  // for later versions
};

/// The same with a timer queue, whose due timers it fires between the events, at least after every
/// five. A timer is late by what runs when it becomes due and before it, and by no more.
class CM_UTIL_EXPORT CCmThreadTask : public CCmThreadTaskWithEventQueueOnly {
  public:
    /// No thread and no timer queue yet.
    CCmThreadTask();
    /// Frees the timer queue, which calls no handler.
    ~CCmThreadTask() override;

    /// Also creates the timer queue, unless there is one; without memory for it Create fails.
    void OnThreadInit() override;
    /// The same, and fires due timers between the passes over at most five events.
    void OnThreadRun() override;
    /// Null until OnThreadInit.
    ICmTimerQueue* GetTimerQueue() override;

  protected:
    /// Owned; null until OnThreadInit. A subclass may put another one there only if that derives
    /// from CCmTimerQueueBase.
    ICmTimerQueue* m_pTimerQueue;

  private:
    [[maybe_unused]] CCmPrivateRoomT<void, 64> m_Private;  // for later versions
};

/// Queues for a thread that the library does not run: their owner calls DoHeartBeat regularly.
/// Typically created with TT_MAIN; the owner then calls OnThreadInit itself.
class CM_UTIL_EXPORT CCmThreadHeartBeat : public ACmThread {
  public:
    /// No timer queue yet.
    CCmThreadHeartBeat();
    /// Frees the timer queue, which calls no handler, and ends what is pending, unfired.
    ~CCmThreadHeartBeat() override;

    /// Does nothing; CM_OK.
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    /// Creates the timer queue, unless there is one, and makes the event queue that of the calling
    /// thread.
    void OnThreadInit() override;
    /// DoHeartBeat, once.
    void OnThreadRun() override;
    /// Never null.
    ICmEventQueue* GetEventQueue() override;
    /// Null until OnThreadInit.
    ICmTimerQueue* GetTimerQueue() override;
    /// Owning thread only: fires the due timers, then runs the pending events. CM_OK.
    CmResult DoHeartBeat();

  protected:
    CCmEventQueueUsingMutex m_EventQueue;  ///< what GetEventQueue returns
    /// Owned; null until OnThreadInit. A subclass may put another one there only if that derives
    /// from CCmTimerQueueBase.
    ICmTimerQueue* m_pTimerQueue;

  private:
    [[maybe_unused]] CCmPrivateRoomT<void, 64> m_Private;  // for later versions
};

/// The event that stops a worker when it is its turn.
template <class ThreadType>
class CCmEventStopT : public ICmEvent {
  public:
    /// aThread: not owned.
    explicit CCmEventStopT(ThreadType* aThread) : m_pThread(aThread) {}

    /// Posts a stop event to aThread. The result is that of the post, or CM_ERROR_OUT_OF_MEMORY.
    static CmResult PostStopEvent(ThreadType* aThread);
    /// Sets the thread's stop flag, which its loop reads when the event has fired. CM_OK.
    CmResult OnEventFire() override;

  private:
    ThreadType* m_pThread;
};

template <class ThreadType>
CmResult CCmEventStopT<ThreadType>::PostStopEvent(ThreadType* aThread) {
    CCmEventStopT* pEvent = new (std::nothrow) CCmEventStopT(aThread);
    if (pEvent == nullptr) {
        return CM_ERROR_OUT_OF_MEMORY;
    }
    return aThread->GetEventQueue()->PostEvent(pEvent, ICmEventQueue::EPRIORITY_NORMAL);
}

template <class ThreadType>
CmResult CCmEventStopT<ThreadType>::OnEventFire() {
    if (m_pThread != nullptr) {
        m_pThread->SetStopFlag();
    }
    return CM_OK;
}

extern template class CM_UTIL_EXPORT CCmEventStopT<CCmThreadTaskWithEventQueueOnly>;

}  // namespace UTIL_NS

extern "C" {

/// Creates a registered worker, with a timer queue or without, and waits until it is ready. Its
/// object is stored through aThread and freed by Destory. Nothing is stored on failure:
/// CM_ERROR_INVALID_ARG (aThread is null, or aType is TT_MAIN, which would start no worker),
/// CM_ERROR_OUT_OF_MEMORY, CM_ERROR_UNEXPECTED (the thread could not be started). Any thread.
CM_UTIL_EXPORT UTIL_NS::CmResult CreateUserTaskThread(UTIL_NS::ACmThread** aThread,
                                                      UTIL_NS::TFlag aFlag, bool bWithTimerQueue,
                                                      int aType);

}  // extern "C"

#endif  // CM_THREAD_H
