/// Work for another thread as a callable: post it, call it and take its value, post it for later.
///
///     CCmWorker worker;                                        // CmWorker.h
///     CmPost(worker, [buffer = std::move(buffer)] { Send(buffer); });
///     auto length = CmCall(worker, [&] { return queue.size(); });
///     if (length) { Show(*length); }
///     CCmTimerHandle later = CmPostDelayed(worker, 20ms, [] { ... });
///
/// A target is a CCmWorker, an ACmThread or, except for what is to run later, any ICmEventQueue; it
/// must outlive the call, not what was posted. The callable is moved (or copied) into one object on
/// the heap and run in place; captures that can only be moved are welcome. It must not throw.
///
/// Who destroys the callable, and where: the target's thread once it has run, or once it is known
/// that it never will (the target ends first). The posting thread, before the call returns, when it
/// is refused. A capture whose destructor needs the target is therefore not a good idea.
///
/// Refused means that the callable does not run: CM_ERROR_NOT_INITIALIZED (the target was stopped),
/// CM_ERROR_OUT_OF_MEMORY, CM_ERROR_NULL_POINTER (the target lacks the queue that the call needs,
/// or is a worker that could not be created). Nothing throws.
/// \file
#ifndef CM_EVENT_H
#define CM_EVENT_H

#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "CmBase.h"
#include "CmChrono.h"
#include "CmEventQueueBase.h"
#include "CmPrivateRoom.h"
#include "CmThread.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

class CCmTimedCall;  // internal

/// Creates an object without throwing; null when memory ran out, for the object or for what its
/// constructor copies.
template <class Type, class... Args>
Type* CmNewT(Args&&... aArgs) {
#if defined(__cpp_exceptions)
    if constexpr (!std::is_nothrow_constructible_v<Type, Args...>) {
        try {
            return new (std::nothrow) Type(std::forward<Args>(aArgs)...);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
#endif
    return new (std::nothrow) Type(std::forward<Args>(aArgs)...);
}

/// The event queue of a target; null when it has none.
template <class Target>
ICmEventQueue* CmQueueOfT(Target& aTarget) {
    if constexpr (std::is_base_of_v<ICmEventQueue, Target>) {
        return &aTarget;
    } else {
        return aTarget.GetEventQueue();
    }
}
/// The thread of a target; null for a worker that could not be created.
template <class Target>
ACmThread* CmThreadOfT(Target& aTarget) {
    if constexpr (std::is_base_of_v<ACmThread, Target>) {
        return &aTarget;
    } else {
        return aTarget.GetThread();
    }
}

// ---- Post

/// The event that CmPost makes. The result of firing it is that of the callable when this returns a
/// CmResult, otherwise CM_OK.
template <class Function>
class CCmCallableEventT final : public ICmEvent {
  public:
    /// Moves or copies aFunction.
    template <class Callable>
    explicit CCmCallableEventT(Callable&& aFunction) noexcept(
        std::is_nothrow_constructible_v<Function, Callable>)
        : m_Function(std::forward<Callable>(aFunction)) {}

    /// Calls the callable.
    CmResult OnEventFire() override {
        if constexpr (std::is_same_v<std::invoke_result_t<Function&>, CmResult>) {
            return m_Function();
        } else {
            m_Function();
            return CM_OK;
        }
    }

  private:
    Function m_Function;
};

/// An event from a callable, for whatever takes events; null when memory ran out. To be ended by
/// OnDestorySelf, which every queue does.
template <class Callable>
ICmEvent* CmMakeEvent(Callable&& aFunction) {
    return CmNewT<CCmCallableEventT<std::decay_t<Callable>>>(std::forward<Callable>(aFunction));
}

/// Runs aFunction on the target's thread, after all that was posted before; does not wait. CM_OK,
/// or refused: see above. Costs what an event written by hand costs: one allocation and a post.
template <class Target, class Callable>
CmResult CmPost(Target& aTarget, Callable&& aFunction) {
    ICmEventQueue* pQueue = CmQueueOfT(aTarget);
    if (pQueue == nullptr) {
        return CM_ERROR_NULL_POINTER;
    }
    ICmEvent* pEvent = CmMakeEvent(std::forward<Callable>(aFunction));
    return pEvent != nullptr ? pQueue->PostEvent(pEvent, ICmEventQueue::EPRIORITY_NORMAL)
                             : CM_ERROR_OUT_OF_MEMORY;
}

// ---- Call

/// What a call came to: a result and, when that is CM_OK, the value of the callable.
template <class Type>
class CCmCallResultT {
  public:
    /// A call without a value.
    CCmCallResultT(CmResult aResult, bool aHasBegun) : m_Result(aResult), m_bHasBegun(aHasBegun) {}
    /// A call with one.
    explicit CCmCallResultT(Type&& aValue)
        : m_Result(CM_OK), m_bHasBegun(true), m_Value(std::move(aValue)) {}

    /// CM_OK; CM_ERROR_TIMEOUT; CM_ERROR_NOT_AVAILABLE: the callable was destroyed without having
    /// run (its target ended), or its thread was cancelled while it ran; CM_ERROR_FAILURE: the wait
    /// itself failed; or why it was refused.
    CmResult Result() const { return m_Result; }
    /// Whether there is a value.
    explicit operator bool() const { return m_Value.has_value(); }
    /// Whether the callable began to run: after a failure it may still be running, or run no more.
    bool HasBegun() const { return m_bHasBegun; }

    /// The value; there must be one.
    Type& operator*() & { return *m_Value; }
    /// The value of a result that goes; there must be one.
    Type&& operator*() && { return std::move(*m_Value); }
    /// A member of the value; there must be one.
    Type* operator->() { return &*m_Value; }
    /// The value, or aDefault without one.
    Type ValueOr(Type aDefault) && {
        return m_Value.has_value() ? std::move(*m_Value) : std::move(aDefault);
    }

  private:
    CmResult m_Result;
    bool m_bHasBegun;
    std::optional<Type> m_Value;
};

/// What the call of a callable without a value came to.
template <>
class CCmCallResultT<void> {
  public:
    /// A call without a value.
    CCmCallResultT(CmResult aResult, bool aHasBegun) : m_Result(aResult), m_bHasBegun(aHasBegun) {}

    /// As for a call with a value.
    CmResult Result() const { return m_Result; }
    /// Whether the callable has run.
    explicit operator bool() const { return CM_SUCCEEDED(m_Result); }
    /// Whether the callable began to run.
    bool HasBegun() const { return m_bHasBegun; }

  private:
    CmResult m_Result;
    bool m_bHasBegun;
};

/// The event of a call. Two hold it, the queue and the caller; whoever lets go last deletes it. For
/// CmCall below.
class CM_UTIL_EXPORT ACmCallEvent : public ICmEvent {
  public:
    /// For the queue: runs the callable, unless its caller has given up.
    CmResult OnEventFire() override;
    /// For the queue, last: destroys a callable that has not run and tells the caller.
    void OnDestorySelf() override;

    /// Hands the event over and waits, at most aLimit of the monotonic clock (null: no limit).
    /// CM_OK when the callable has run.
    CmResult Call(ICmEventQueue& aQueue, const CCmTimeValue* aLimit);
    /// For the caller, last: a callable that has not begun never will.
    void LetGo();
    /// Whether the callable began to run; does not change any more after Call has failed.
    bool HasBegun() const;

  protected:
    /// Held by the queue and by the caller.
    ACmCallEvent();
    /// By whoever lets go last.
    ~ACmCallEvent() override;

    /// Runs the callable and keeps its value.
    virtual void Run() = 0;
    /// Destroys the callable.
    virtual void Drop() = 0;

  private:
    class CM_UTIL_HIDDEN CCallState;

    CCmPrivateRoomT<CCallState, 96> m_Private;
};

/// The event that CmCall makes.
template <class Function, class Type>
class CCmCallEventT final : public ACmCallEvent {
  public:
    /// Moves or copies aFunction.
    template <class Callable>
    explicit CCmCallEventT(Callable&& aFunction) : m_Function(std::forward<Callable>(aFunction)) {}

    /// The value that the callable returned, moved out. For the caller, after Call returned CM_OK.
    CCmCallResultT<Type> TakeResult() {
        if constexpr (std::is_void_v<Type>) {
            return CCmCallResultT<void>(CM_OK, true);
        } else {
            return CCmCallResultT<Type>(std::move(*m_Value));
        }
    }

  private:
    typedef std::conditional_t<std::is_void_v<Type>, char, Type> Value;

    void Run() override {
        if constexpr (std::is_void_v<Type>) {
            (*m_Function)();
        } else {
            m_Value.emplace((*m_Function)());
        }
    }
    void Drop() override { m_Function.reset(); }

    std::optional<Function> m_Function;
    std::optional<Value> m_Value;
};

/// The caller's hold on a call's event, from its construction to its destruction. For CmCall below.
class CCmCallHold {
  public:
    /// aEvent: not null.
    explicit CCmCallHold(ACmCallEvent* aEvent) : m_pEvent(aEvent) {}
    /// Lets go of the event.
    ~CCmCallHold() { m_pEvent->LetGo(); }
    CCmCallHold(const CCmCallHold&) = delete;
    CCmCallHold& operator=(const CCmCallHold&) = delete;

  private:
    ACmCallEvent* m_pEvent;
};

/// What the two forms of CmCall share. aLimit: null is without limit.
template <class Target, class Callable>
auto CmCallT(Target& aTarget, const CCmTimeValue* aLimit, Callable&& aFunction) {
    typedef std::decay_t<Callable> Function;
    typedef std::decay_t<std::invoke_result_t<Function&>> Type;
    ICmEventQueue* pQueue = CmQueueOfT(aTarget);
    if (pQueue == nullptr) {
        return CCmCallResultT<Type>(CM_ERROR_NULL_POINTER, false);
    }
    auto* pEvent = CmNewT<CCmCallEventT<Function, Type>>(std::forward<Callable>(aFunction));
    if (pEvent == nullptr) {
        return CCmCallResultT<Type>(CM_ERROR_OUT_OF_MEMORY, false);
    }
    CCmCallHold hold(pEvent);
    const CmResult rv = pEvent->Call(*pQueue, aLimit);
    return CM_SUCCEEDED(rv) ? pEvent->TakeResult() : CCmCallResultT<Type>(rv, pEvent->HasBegun());
}

/// Runs aFunction on the target's thread, after all that was posted before, waits for it and
/// returns its value (a reference is returned as a copy of what it refers to). On the target's own
/// thread it runs at once, overtaking what is pending. Waits without limit for a target that nobody
/// runs; two threads that call each other wait for each other. The callable is destroyed on the
/// target's thread before the caller goes on, so it may capture everything by reference; for the
/// same reason the caller is not cancelled meanwhile, but afterwards. Costs what a synchronous send
/// of an event written by hand costs.
template <class Target, class Callable>
auto CmCall(Target& aTarget, Callable&& aFunction) {
    return CmCallT(aTarget, nullptr, std::forward<Callable>(aFunction));
}

/// The same with a limit, on the monotonic clock. When it passes before aFunction has begun,
/// aFunction never runs and is destroyed here: CM_ERROR_TIMEOUT, HasBegun is false. When it passes
/// while aFunction runs, that goes on after this has returned, and its value is dropped:
/// CM_ERROR_TIMEOUT, HasBegun is true. So what it captured by reference must not end with the
/// caller: capture by value, or by std::shared_ptr. On the target's own thread there is no limit.
template <class Target, class Callable>
auto CmCall(Target& aTarget, const CCmInterval& aLimit, Callable&& aFunction) {
    return CmCallT(aTarget, &aLimit.Value(), std::forward<Callable>(aFunction));
}

// ---- Later

/// What is due when: what a callable that is run later may take as its argument. Times are those of
/// CmMonotonicNow on a CCmWorker and of the wall clock on any other worker.
struct CCmTimerFiring {
    CCmTimeValue m_tvDue;    ///< when it was due
    CCmTimeValue m_tvNow;    ///< when the worker began this pass over its timers: at least m_tvDue
    uint64_t m_ullMissed{};  ///< how many periods were skipped since the last firing
};

/// The event of a callable that is run later, perhaps again and again; ended once.
class CCmTimedEvent : public ICmEvent {
  public:
    /// For whoever fires it.
    void SetFiring(const CCmTimerFiring& aFiring) { m_Firing = aFiring; }

  protected:
    CCmTimerFiring m_Firing;  ///< the one that comes next or runs
};

/// The event that CmPostDelayed and the others make.
template <class Function>
class CCmTimedEventT final : public CCmTimedEvent {
  public:
    /// Moves or copies aFunction.
    template <class Callable>
    explicit CCmTimedEventT(Callable&& aFunction) noexcept(
        std::is_nothrow_constructible_v<Function, Callable>)
        : m_Function(std::forward<Callable>(aFunction)) {}

    /// Calls the callable, with the firing if it takes one.
    CmResult OnEventFire() override {
        if constexpr (std::is_invocable_v<Function&, const CCmTimerFiring&>) {
            m_Function(m_Firing);
        } else {
            m_Function();
        }
        return CM_OK;
    }

  private:
    Function m_Function;
};

/// Names what was posted for later, to cancel it; one handle or copies of it. Letting go of a
/// handle cancels nothing. Any thread, and it may outlive the worker. CCmTimer (CmTimer.h) is the
/// object that cancels when it ends.
class CM_UTIL_EXPORT CCmTimerHandle {
  public:
    /// Names nothing.
    CCmTimerHandle() : m_pCall(nullptr), m_Result(CM_ERROR_NOT_FOUND) {}
    /// Names what aRight names.
    CCmTimerHandle(const CCmTimerHandle& aRight);
    /// Names what aRight named, which names nothing then.
    CCmTimerHandle(CCmTimerHandle&& aRight) noexcept;
    /// Names what aRight names.
    CCmTimerHandle& operator=(CCmTimerHandle aRight) noexcept;
    /// Cancels nothing.
    ~CCmTimerHandle();

    /// Posts aEvent (owned) to aThread: fires it after aFirst, and then every aPeriod until it has
    /// fired aCount times in all (0: without limit). Null stands for memory that ran out.
    static CCmTimerHandle Post(ACmThread* aThread, CCmTimedEvent* aEvent,
                               const CCmTimeValue& aFirst, const CCmTimeValue& aPeriod,
                               unsigned int aCount);

    /// CM_OK, or why it was refused: then the callable is gone and never runs.
    CmResult Result() const { return m_Result; }
    /// Whether the callable will run or runs; may be outdated when it is read.
    bool IsPending() const;
    /// The callable does not begin to run afterwards; waits for nothing. CM_OK: it is destroyed, on
    /// the calling thread or, when called by itself, once it returns. CM_ERROR_NOT_AVAILABLE: it
    /// runs at this moment, for the last time. CM_ERROR_NOT_FOUND: it had ended before.
    CmResult Cancel();
    /// The same, and neither does it run any more: waits while it runs on another thread, and for
    /// nothing else. Not to be called with a lock held that the callable takes. CM_OK or
    /// CM_ERROR_NOT_FOUND.
    CmResult CancelAndWait();

  private:
    CCmTimedCall* m_pCall;  // one reference
    CmResult m_Result;
};

/// What CmPostDelayed, CmPostEvery and CCmTimer share; aCount 0 is without limit.
template <class Target, class Callable>
CCmTimerHandle CmPostTimedT(Target& aTarget, const CCmTimeValue& aFirst,
                            const CCmTimeValue& aPeriod, unsigned int aCount,
                            Callable&& aFunction) {
    ACmThread* pThread = CmThreadOfT(aTarget);
    return CCmTimerHandle::Post(
        pThread, CmNewT<CCmTimedEventT<std::decay_t<Callable>>>(std::forward<Callable>(aFunction)),
        aFirst, aPeriod, aCount);
}

/// Runs aFunction once on the worker's thread, aInterval from now; zero or less: as soon as it
/// looks at its timers, which is after at most five events. aFunction takes nothing or a
/// CCmTimerFiring. From any thread. The handle's Result says whether it was refused.
///
/// On a CCmWorker the interval is monotonic time. On any other worker the callable goes to its
/// timer queue and keeps wall time, as that queue does: a step of the wall clock moves it by as
/// much. It gets there by an event, after what was posted before; the time since this call counts.
/// When the worker ends first, the callable is destroyed there without having run. Other workers
/// keep it until their thread has ended. Costs two allocations (another worker: three) and, when
/// the worker has to wait less than before, a post.
template <class Target, class Callable>
CCmTimerHandle CmPostDelayed(Target& aWorker, const CCmInterval& aInterval, Callable&& aFunction) {
    return CmPostTimedT(aWorker, aInterval.Value(), CCmTimeValue(), 1,
                        std::forward<Callable>(aFunction));
}

/// The same again and again, aInterval from now and every aInterval after that, until it is
/// cancelled or the worker ends. Periods that were missed are skipped and the phase is kept.
/// CM_ERROR_INVALID_ARG: aInterval is zero or less.
template <class Target, class Callable>
CCmTimerHandle CmPostEvery(Target& aWorker, const CCmInterval& aInterval, Callable&& aFunction) {
    return CmPostTimedT(aWorker, aInterval.Value(), aInterval.Value(), 0,
                        std::forward<Callable>(aFunction));
}

}  // namespace UTIL_NS

#endif  // CM_EVENT_H
