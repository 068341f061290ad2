/// Worker threads as objects: CCmWorker owns one, from its construction to its end.
///
///     CCmWorker worker(CCmWorkerOptions().Name("audio").OnStart([] { return OpenDevice(); }));
///     if (CM_FAILED(worker.Result())) { ... }       // a start-up function's result, too
///     CmPost(worker, [] { ... });                    // CmEvent.h
///     // the end of the scope stops, joins and frees
///
/// CCmLoopThread is the base of a thread whose loop is the host's own.
/// \file
#ifndef CM_WORKER_H
#define CM_WORKER_H

#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "CmBase.h"
#include "CmChrono.h"
#include "CmEvent.h"
#include "CmThread.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

class CCmWorkerThread;  // internal

/// What runs on a worker's thread when it starts or ends.
class ACmWorkerHook : public CCmReferenceControlT<CCmMutexThread> {
  public:
    /// On that thread. The result of a start decides whether the worker starts.
    virtual CmResult Run(ACmThread& aThread) = 0;
};

/// The hook that CCmWorkerOptions makes of a callable.
template <class Function>
class CCmWorkerHookT final : public ACmWorkerHook {
  public:
    /// Moves or copies aFunction.
    template <class Callable>
    explicit CCmWorkerHookT(Callable&& aFunction) : m_Function(std::forward<Callable>(aFunction)) {}

    /// The callable's CmResult, or CM_OK when it returns something else or nothing.
    CmResult Run(ACmThread& aThread) override {
        if constexpr (std::is_invocable_v<Function&, ACmThread&>) {
            return ResultOf([&] { return m_Function(aThread); });
        } else {
            return ResultOf([&] { return m_Function(); });
        }
    }

  private:
    template <class Call>
    static CmResult ResultOf(Call&& aCall) {
        if constexpr (std::is_same_v<std::invoke_result_t<Call>, CmResult>) {
            return aCall();
        } else {
            aCall();
            return CM_OK;
        }
    }

    Function m_Function;
};

/// How a worker is to be. Copies share the functions; the same options may serve many workers,
/// whose threads then run the same functions, perhaps at once.
class CCmWorkerOptions {
  public:
    /// The thread's name, as debuggers and process viewers show it: the first 15 bytes on Linux, 63
    /// on macOS. Null or empty leaves the system's.
    CCmWorkerOptions& Name(const char* aName) {
        std::memset(m_szName, 0, sizeof(m_szName));
        std::strncpy(m_szName, aName != nullptr ? aName : "", sizeof(m_szName) - 1);
        return *this;
    }
    /// Runs aFunction on the worker's thread before the constructor of CCmWorker returns, with the
    /// ACmThread as its argument if it takes one. When it returns a CmResult that is a failure, the
    /// worker does not start. Events may be posted to the thread, but getCurrentThread does not
    /// find it yet.
    template <class Callable>
    CCmWorkerOptions& OnStart(Callable&& aFunction) {
        return SetHook(HOOK_START, NewHook(std::forward<Callable>(aFunction)));
    }
    /// Runs aFunction as the last thing on the worker's thread, after what was pending was run or
    /// ended; only if the worker started. Its result is not looked at.
    template <class Callable>
    CCmWorkerOptions& OnEnd(Callable&& aFunction) {
        return SetHook(HOOK_END, NewHook(std::forward<Callable>(aFunction)));
    }
    /// As CCmWorker::SetPriority, when the thread starts. A refusal does not keep the worker from
    /// starting: its PriorityResult tells.
    CCmWorkerOptions& Priority(int aLevel) {
        m_nPriority = aLevel;
        return *this;
    }
    /// Timed waits of the thread end as early as the system can: Linux rounds them by 50 us
    /// otherwise, macOS does not.
    CCmWorkerOptions& PreciseTimers(bool aPrecise = true) {
        m_bPrecise = aPrecise;
        return *this;
    }
    /// What GetThreadType of the thread reports; 1 by default. TT_UNKNOWN and TT_MAIN are not
    /// taken.
    CCmWorkerOptions& Type(int aType) {
        if (aType == TT_MAIN || aType == TT_UNKNOWN) {
            m_Result = CM_ERROR_INVALID_ARG;
        }
        m_nType = aType;
        return *this;
    }

    /// CM_OK; CM_ERROR_OUT_OF_MEMORY or CM_ERROR_INVALID_ARG when one of the above could not be
    /// kept: a worker with these options does not start and has this result.
    CmResult Result() const { return m_Result; }

  private:
    friend class CCmWorkerThread;
    friend class CCmWorker;
    enum EHook { HOOK_START, HOOK_END };
    static constexpr size_t NAME_SIZE = 64;

    template <class Callable>
    static ACmWorkerHook* NewHook(Callable&& aFunction) {
        return CmNewT<CCmWorkerHookT<std::decay_t<Callable>>>(std::forward<Callable>(aFunction));
    }
    CCmWorkerOptions& SetHook(EHook aHook, ACmWorkerHook* aFunction) {
        if (aFunction == nullptr) {
            m_Result = CM_ERROR_OUT_OF_MEMORY;
        }
        m_Hooks[aHook] = aFunction;
        return *this;
    }

    char m_szName[NAME_SIZE] = {};
    CCmComAutoPtr<ACmWorkerHook> m_Hooks[2];
    int m_nPriority = 0;
    int m_nType = 1;
    bool m_bPrecise = false;
    CmResult m_Result = CM_OK;
};

/// A joinable worker with an event queue and timers, started by the constructor. Operations are for
/// the owner, one at a time, except that any thread may post, call and drain while the object is
/// there. Its timers and delayed posts (CmPostDelayed, CmPostEvery, CCmTimer) keep monotonic time:
/// its loop has a list of its own for them and waits by the monotonic clock. The thread also has
/// the timer queue of a CCmThreadTask, which keeps wall time: where both have something pending, a
/// forward step of the wall clock may be noticed only at the next wake-up.
class CM_UTIL_EXPORT CCmWorker {
  public:
    /// Starts a worker with the usual options; Result tells whether it runs.
    CCmWorker() : CCmWorker(CCmWorkerOptions()) {}
    /// Starts a worker; Result tells whether it runs.
    explicit CCmWorker(const CCmWorkerOptions& aOptions);
    CCmWorker(const CCmWorker&) = delete;
    CCmWorker& operator=(const CCmWorker&) = delete;
    /// What aRight owned; aRight is then as one that could not be started.
    CCmWorker(CCmWorker&& aRight) noexcept;
    /// Ends what this owned and takes over what aRight owned.
    CCmWorker& operator=(CCmWorker&& aRight) noexcept;
    /// As End, from any thread. What fails is traced.
    ~CCmWorker();

    /// CM_OK; otherwise there is no thread and everything is refused: the result of the options, of
    /// ACmThread::Create or of the start-up function. CM_ERROR_NOT_INITIALIZED: moved from, ended.
    CmResult Result() const { return m_Result; }
    /// That of the option Priority; CM_OK without it.
    CmResult PriorityResult() const;
    /// Real-time priority by turns (SCHED_RR) on aLevel, or 0 for the system's usual one. CM_OK;
    /// CM_ERROR_INVALID_ARG: no such level; CM_ERROR_FAILURE: the system refuses, which on Linux it
    /// does to users without the right, with a warning line; CM_ERROR_NOT_INITIALIZED: joined.
    CmResult SetPriority(int aLevel);

    /// Null without a thread. Valid until End.
    ACmThread* GetThread() const;
    /// Null without a thread. Valid until End.
    ICmEventQueue* GetEventQueue() const;

    /// Waits until all that was posted before has run. CM_ERROR_FAILURE: called on the worker
    /// itself. Otherwise the results of CmCall.
    CmResult Drain();
    /// With a limit on the monotonic clock: CM_ERROR_TIMEOUT.
    CmResult Drain(const CCmInterval& aLimit);
    /// What was posted before still runs; later posts and timers are refused. Does not wait. CM_OK,
    /// also when it was stopped before; CM_ERROR_OUT_OF_MEMORY: nothing has changed.
    CmResult Stop();
    /// The same, but of what is pending nothing runs: it ends unfired, on the worker's thread. What
    /// runs at that moment runs to its end.
    CmResult StopNow();
    /// Waits until the thread, stopped before, has ended. CM_ERROR_FAILURE: called on the worker
    /// itself.
    CmResult Join();
    /// Stop, Join and the end of the thread object. Without memory for the stop it tries again
    /// every millisecond. On the worker's own thread it does not wait: what was posted before still
    /// runs there, after which the thread ends and frees its object by itself; an OnEnd function
    /// runs, too. CM_OK, or the result of Join.
    CmResult End();

  private:
    CCmWorkerThread* m_pThread;
    CmResult m_Result;
};

/// Stops (see ACmThread::Stop), joins and frees any thread object. Where the stop fails the thread
/// is not joined, which might wait for ever, and nothing is freed: CM_ERROR_NOT_IMPLEMENTED is what
/// a class that does not override Stop gives, CM_ERROR_FAILURE the thread's own call. Out of memory
/// it tries again every millisecond. A detached thread frees its object when it has ended.
CM_UTIL_EXPORT CmResult CmEndThread(ACmThread* aThread);

/// How a CCmThreadPtr ends its thread object: by CmEndThread, which traces a failure.
struct CCmThreadEnd {
    /// CmEndThread.
    void operator()(ACmThread* aThread) const { CmEndThread(aThread); }
};
/// Owns a thread object, as other unique_ptrs own theirs.
typedef std::unique_ptr<ACmThread, CCmThreadEnd> CCmThreadPtr;

/// Base of a thread whose loop is the host's own, such as one that waits for sockets:
///
///     class CReceiver : public CCmLoopThread {
///       public:
///         void OnThreadRun() override { while (!GetStopFlag()) { poll(...); ... } }
///         void OnWakeUp() override { write(m_nPipe, "", 1); }   // poll returns
///     };
///     CCmThreadPtr receiver(new CReceiver);
///     receiver->Create(1);
///
/// Created by new, owned by CCmThreadPtr.
class CCmLoopThread : public ACmThread {
  public:
    /// Sets the stop flag and wakes the loop; does not wait. Any thread, also before the loop has
    /// begun. CM_OK.
    CmResult Stop(CCmTimeValue* /*aTimeout*/ = nullptr) final {
        SetStop();
        OnWakeUp();
        return CM_OK;
    }

  protected:
    /// Makes OnThreadRun look at GetStopFlag soon, also when it comes to wait only after this call.
    /// Called by Stop on any thread, perhaps more than once.
    virtual void OnWakeUp() = 0;
};

}  // namespace UTIL_NS

#endif  // CM_WORKER_H
