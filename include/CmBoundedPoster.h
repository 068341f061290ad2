/// CCmBoundedPoster: a bound on what is on its way to a queue.
///
///     CCmBoundedPoster poster(*worker.GetEventQueue(), 64);
///     if (CM_FAILED(poster.TryPost([frame = std::move(frame)] { Encode(frame); }))) { ++dropped; }
/// \file
#ifndef CM_BOUNDED_POSTER_H
#define CM_BOUNDED_POSTER_H

#include <type_traits>
#include <utility>

#include "CmBase.h"
#include "CmChrono.h"
#include "CmEvent.h"
#include "CmEventQueueBase.h"

namespace UTIL_NS {

/// Posts to a queue and has at most a given number of its events on their way: from the post until
/// the callable has run and is destroyed, or is destroyed without having run. What others post to
/// the queue does not count. Any thread may post. Order is kept as by the queue: those who wait get
/// room first come, first served, and TryPost does not overtake them.
///
/// The queue must outlive the calls on the poster, which itself may end after the queue, and while
/// its events are on their way, but not while somebody waits in Post. What a callable may capture,
/// who destroys it and what refuses it is as for CmPost; the low-water callable is destroyed with
/// the last of the events or with the poster. A post costs one allocation, as there, and a lock at
/// either end.
class CM_UTIL_EXPORT CCmBoundedPoster {
  public:
    /// aQueue: not owned. aMaxCount: at least 1, less is taken as 1.
    CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount);
    /// With a callable that is run when so many of the events have ended that only aLowWater (at
    /// most aMaxCount - 1, which more is taken as) are left on their way, after there had been no
    /// room for one. It runs on the thread that ended the last of them, the queue's as a rule, with
    /// nothing held; it may post. It does not begin after the poster has ended, whose destructor
    /// waits while it runs on another thread.
    template <class Callable>
    CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount, DWORD aLowWater,
                     Callable&& aOnLowWater)
        : CCmBoundedPoster(aQueue, aMaxCount, aLowWater,
                           CmMakeEvent(std::forward<Callable>(aOnLowWater))) {}
    /// Ends no event; the low-water callable does not begin any more.
    ~CCmBoundedPoster();
    CCmBoundedPoster(const CCmBoundedPoster&) = delete;
    CCmBoundedPoster& operator=(const CCmBoundedPoster&) = delete;

    /// CM_OK, or CM_ERROR_OUT_OF_MEMORY: everything is refused with it.
    CmResult Result() const;
    /// How many are on their way; may be outdated when it is read.
    DWORD GetCount() const;

    /// CM_ERROR_NOT_AVAILABLE: there is no room. Otherwise as CmPost. What is refused for want of
    /// room stays in the argument: a callable that was moved into the call can be tried again.
    template <class Callable>
    CmResult TryPost(Callable&& aFunction) {
        const CmResult rv = TakeRoom(nullptr);
        return CM_SUCCEEDED(rv) ? PostIntoRoom(std::forward<Callable>(aFunction)) : rv;
    }
    /// Waits for room, without limit. On the queue's own thread, which alone makes room, it does
    /// not wait: CM_ERROR_NOT_AVAILABLE. When the queue ends, those who wait are refused like all
    /// others. A thread that waits is not cancelled, but afterwards.
    template <class Callable>
    CmResult Post(Callable&& aFunction) {
        return Post(CCmInterval(CCmTimeValue::s_tvMax), std::forward<Callable>(aFunction));
    }
    /// The same, waiting at most aLimit of the monotonic clock: CM_ERROR_TIMEOUT.
    template <class Callable>
    CmResult Post(const CCmInterval& aLimit, Callable&& aFunction) {
        const CmResult rv = TakeRoom(&aLimit.Value());
        return CM_SUCCEEDED(rv) ? PostIntoRoom(std::forward<Callable>(aFunction)) : rv;
    }

  private:
    // What the events share with the poster.
    struct CM_UTIL_HIDDEN CPosterState;
    // Gives its room back when it ends.
    class CM_UTIL_EXPORT CBoundedEvent : public ICmEvent {
      public:
        void OnDestorySelf() override;

      private:
        friend class CCmBoundedPoster;
        CPosterState* m_pState = nullptr;
    };
    template <class Function>
    class CEventT final : public CBoundedEvent {
      public:
        template <class Callable>
        explicit CEventT(Callable&& aFunction) : m_Function(std::forward<Callable>(aFunction)) {}
        CmResult OnEventFire() override {
            m_Function();
            return CM_OK;
        }

      private:
        Function m_Function;
    };

    CCmBoundedPoster(ICmEventQueue& aQueue, DWORD aMaxCount, DWORD aLowWater,
                     ICmEvent* aOnLowWater);
    template <class Callable>
    CmResult PostIntoRoom(Callable&& aFunction) {
        return PostEvent(
            CmNewT<CEventT<std::decay_t<Callable>>>(std::forward<Callable>(aFunction)));
    }
    // aLimit: null does not wait. Room that was taken goes to PostEvent.
    CmResult TakeRoom(const CCmTimeValue* aLimit);
    CmResult PostEvent(CBoundedEvent* aEvent);

    CPosterState* m_pState;
};

}  // namespace UTIL_NS

#endif  // CM_BOUNDED_POSTER_H
