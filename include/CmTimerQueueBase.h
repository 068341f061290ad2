/// Timers of one thread: the interfaces, and the scheduling rules that queues of nodes share.
/// \file
#ifndef CM_TIMER_QUEUE_BASE_H
#define CM_TIMER_QUEUE_BASE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "CmBase.h"
#include "CmTimeValue.h"
#include "CmUtilClasses.h"

namespace UTIL_NS {

/// What a timer calls; implemented by its user. A timer is identified by its handler alone: one
/// handler has at most one pending timer in a queue. A queue never owns a handler; a handler
/// cancels its timer before it is destroyed. An implementation should be final or have a virtual
/// destructor of its own: the one here is not.
class ICmTimerHandler {
  public:
    /// The timer fired. aCurTime: when the queue began this pass over its timers, not when this one
    /// was due. aArg: the token that the timer was scheduled with. Runs on the queue's thread with
    /// nothing held; may schedule and cancel any timer of the queue, its own included, but must not
    /// destroy the queue.
    virtual void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) = 0;

  protected:
    ~ICmTimerHandler() = default;
};

/// A timer queue belongs to one thread, which alone schedules, cancels and fires; there is no lock.
/// Other threads reach it by posting an event to that thread.
class ICmTimerQueue {
  public:
    /// Fires aEh after aInterval, and then every aInterval until it has fired aCount times; aCount
    /// 0 repeats without limit. aToken is handed back and not looked at. A pending timer of aEh is
    /// replaced.
    virtual CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aToken,
                                   const CCmTimeValue& aInterval, unsigned int aCount) = 0;
    /// Drops the timer of aEh; no handler is called.
    virtual CmResult CancelTimer(ICmTimerHandler* aEh) = 0;
    virtual ~ICmTimerQueue() = default;
};

/// Whoever must be woken when a queue gets its first timer.
class ICmObserver {
  public:
    /// aTopic: "TimerQueue". aData: null. The result is not looked at.
    virtual int OnObserve(const char* aTopic, void* aData) = 0;

  protected:
    ~ICmObserver() = default;
};

/// The scheduling rules: validation, expiry, repeat counts, re-arming, the wake-up of the observer.
/// Where the pending timers are kept is left to the primitives of a derived queue. Times are
/// wall-clock times: when the clock is set back, timers are late by as much and none is lost.
class CM_UTIL_EXPORT CCmTimerQueueBase : public ICmTimerQueue {
  public:
    /// Bound to the calling thread. aObserver: may be null, not owned.
    explicit CCmTimerQueueBase(ICmObserver* aObserver);
    ~CCmTimerQueueBase() override;
    CCmTimerQueueBase(const CCmTimerQueueBase&) = delete;
    CCmTimerQueueBase& operator=(const CCmTimerQueueBase&) = delete;

    /// CM_OK: scheduled.
    /// CM_ERROR_FOUND: scheduled, in place of the timer that aEh had.
    /// CM_ERROR_INVALID_ARG: aEh is null; or aInterval is zero or negative and aCount is not 1.
    /// CM_ERROR_OUT_OF_MEMORY: nothing changed. Cannot happen when aEh has a pending timer.
    /// The observer is told when the queue was empty before.
    CmResult ScheduleTimer(ICmTimerHandler* aEh, void* aToken, const CCmTimeValue& aInterval,
                           unsigned int aCount) override;
    /// CM_OK; CM_ERROR_NOT_FOUND: aEh has no timer; CM_ERROR_INVALID_ARG: aEh is null.
    CmResult CancelTimer(ICmTimerHandler* aEh) override;

    /// Fires every timer that is due, each at most once, and returns how many it fired. A periodic
    /// timer that missed periods fires once and keeps its phase. It is re-armed before its handler
    /// runs; a timer that fires for the last time is gone before. aRemainTime: null, or receives
    /// the time until the next timer is due, s_tvMax when there is none.
    unsigned int CheckExpire(CCmTimeValue* aRemainTime = nullptr);

    /// When the next timer is due (absolute), s_tvMax when there is none.
    CCmTimeValue GetEarliestTime() const;

  protected:
    /// A timer that repeats without limit.
    static constexpr DWORD UNLIMITED_COUNT = 0xFFFFFFFF;

    /// One pending timer.
    struct CNode {
        ICmTimerHandler* m_pEh = nullptr;
        void* m_pToken = nullptr;
        CCmTimeValue m_tvExpired;   ///< absolute
        CCmTimeValue m_tvInterval;  ///< zero or negative only when one firing is left
        DWORD m_dwCount = 0;        ///< firings left, or UNLIMITED_COUNT
    };

    // The storage primitives.

    /// Inserts a node in place of the one with the same handler: 0, or 1 when there was one. Any
    /// other value means failure. May throw std::bad_alloc, having changed nothing.
    virtual int PushNode_l(const CNode& aNode) = 0;
    /// Removes the node of a handler: 0, or 1 when there is none.
    virtual int EraseNode_l(ICmTimerHandler* aEh) = 0;
    /// Inserts a node whose handler has none: 0. Follows PopFirstNode_l and must not fail: it uses
    /// the memory of the node that was popped.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    /// Moves the node that is due first to aNode: 0, or -1 when the queue is empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    /// When the first node is due: 0, or -1 when the queue is empty.
    virtual int GetEarliestTime_l(CCmTimeValue& aTime) const = 0;

  private:
    void FireFirst_i(const CCmTimeValue& aNow);

    CCmEnsureSingleThread m_Est;
    ICmObserver* m_pObserver;  ///< not owned
};

/// Finds what belongs to a handler: a hash table with the entries in place, where an entry lies at
/// the place of its handler or, if that is taken, behind it without a gap. It never shrinks, so
/// that putting back what was erased allocates nothing.
template <class ValueType>
class CCmTimerHandlerIndexT {
  public:
    /// Null when there is none. Valid until the next change.
    ValueType* Find(ICmTimerHandler* aEh) {
        if (m_nCount == 0) {
            return nullptr;
        }
        const size_t nPlace = PlaceOf(aEh);
        return m_Entries[nPlace].m_pEh != nullptr ? &m_Entries[nPlace].m_Value : nullptr;
    }

    /// Makes room for one more. Throws std::bad_alloc, having changed nothing.
    void Reserve() {
        if (CM_UNLIKELY(2 * (m_nCount + 1) > m_Entries.size())) {
            Grow();
        }
    }

    /// There must be room, and no value of aEh.
    void Insert(ICmTimerHandler* aEh, const ValueType& aValue) {
        m_Entries[PlaceOf(aEh)] = Entry{aEh, aValue};
        ++m_nCount;
    }

    /// There must be a value of aEh.
    void Erase(ICmTimerHandler* aEh) {
        size_t nGap = PlaceOf(aEh);
        // Entries behind the gap move into it, unless that were ahead of their own place.
        for (size_t i = Next(nGap); m_Entries[i].m_pEh != nullptr; i = Next(i)) {
            const size_t nHome = Home(m_Entries[i].m_pEh);
            if (((i - nHome) & Mask()) >= ((i - nGap) & Mask())) {
                m_Entries[nGap] = m_Entries[i];
                nGap = i;
            }
        }
        m_Entries[nGap].m_pEh = nullptr;
        --m_nCount;
    }

  private:
    static constexpr int LEAST_BITS = 4;  ///< of the number of entries

    struct Entry {
        ICmTimerHandler* m_pEh = nullptr;
        ValueType m_Value{};
    };

    size_t Mask() const { return m_Entries.size() - 1; }
    size_t Next(size_t aPlace) const { return (aPlace + 1) & Mask(); }
    /// The upper bits of the product depend on all bits of the address.
    size_t Home(ICmTimerHandler* aEh) const {
        return reinterpret_cast<uintptr_t>(aEh) * 0x9E3779B97F4A7C15 >> (64 - m_nBits);
    }
    /// Where aEh is, or where it would be put.
    size_t PlaceOf(ICmTimerHandler* aEh) const {
        size_t nPlace = Home(aEh);
        while (m_Entries[nPlace].m_pEh != aEh && m_Entries[nPlace].m_pEh != nullptr) {
            nPlace = Next(nPlace);
        }
        return nPlace;
    }

    void Grow() {
        const int nBits = m_Entries.empty() ? LEAST_BITS : m_nBits + 1;
        std::vector<Entry> entries(size_t{1} << nBits);
        entries.swap(m_Entries);
        m_nBits = nBits;
        for (const Entry& entry : entries) {
            if (entry.m_pEh != nullptr) {
                m_Entries[PlaceOf(entry.m_pEh)] = entry;
            }
        }
    }

    std::vector<Entry> m_Entries;  ///< none or 2^m_nBits, at most half of them taken
    size_t m_nCount = 0;
    int m_nBits = 0;
};

}  // namespace UTIL_NS

#endif  // CM_TIMER_QUEUE_BASE_H
