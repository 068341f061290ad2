#include "support/TimerModels.h"

#include <deque>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "support/Clock.h"
#include "support/Timers.h"

namespace kelto_test {

namespace {

using namespace UTIL_NS;

constexpr long START = 1000000000;  // seconds

// Takes its choices from a string of bytes; only zeros follow after its end.
class ByteDriver {
  public:
    bool AtEnd() const { return m_nLeft == 0; }
    const std::string& error() const { return m_sError; }

  protected:
    ByteDriver(const uint8_t* aData, size_t aSize) : m_pData(aData), m_nLeft(aSize) {}

    int Pick(int aBelow) {
        int nValue = 0;
        for (int nRange = 1; nRange < aBelow && m_nLeft > 0; nRange *= 256) {
            nValue = nValue * 256 + *m_pData++;
            --m_nLeft;
        }
        return nValue % aBelow;
    }
    void Expect(bool aHolds, const char* aWhat) {
        if (!aHolds && m_sError.empty()) {
            m_sError = aWhat;
        }
    }

  private:
    const uint8_t* m_pData;
    size_t m_nLeft;
    std::string m_sError;
};

// ---- The ordered list

// A plain model of the queue: timers in firing order, re-arming by repeated addition.
struct ListTimer {
    int id;
    long token;
    long long expired;
    long long interval;
    unsigned int left;  // 0xFFFFFFFF: without limit
};

class ListModel {
  public:
    long long m_llNow = 0;

    CmResult Schedule(int aId, long aToken, long long aInterval, unsigned int aCount) {
        if (aInterval <= 0 && aCount != 1) {
            return CM_ERROR_INVALID_ARG;
        }
        const bool bFound = Remove(aId);
        Insert(ListTimer{aId, aToken, m_llNow + aInterval, aInterval,
                         aCount == 0 ? 0xFFFFFFFF : aCount});
        return bFound ? CM_ERROR_FOUND : CM_OK;
    }
    CmResult Cancel(int aId) { return Remove(aId) ? CM_OK : CM_ERROR_NOT_FOUND; }
    // Takes the next due timer out, re-armed already; false when there is none.
    bool NextDue(long long aNow, ListTimer& aTimer) {
        if (m_timers.empty() || m_timers.front().expired > aNow) {
            return false;
        }
        aTimer = m_timers.front();
        m_timers.erase(m_timers.begin());
        ListTimer next = aTimer;
        if (next.left != 0xFFFFFFFF) {
            --next.left;
        }
        if (next.left > 0) {
            while (next.expired <= aNow) {
                next.expired += next.interval;
            }
            Insert(next);
        }
        return true;
    }
    // -1: empty.
    long long Earliest() const { return m_timers.empty() ? -1 : m_timers.front().expired; }

  private:
    bool Remove(int aId) {
        for (size_t i = 0; i < m_timers.size(); ++i) {
            if (m_timers[i].id == aId) {
                m_timers.erase(m_timers.begin() + static_cast<long>(i));
                return true;
            }
        }
        return false;
    }
    void Insert(const ListTimer& aTimer) {
        size_t i = 0;
        while (i < m_timers.size() && m_timers[i].expired < aTimer.expired) {
            ++i;
        }
        m_timers.insert(m_timers.begin() + static_cast<long>(i), aTimer);
    }

    std::vector<ListTimer> m_timers;
};

// One random run of queue and model side by side; handlers operate on the queue as they fire.
class ListRun : public ByteDriver {
  public:
    static constexpr int HANDLERS = 12;  // of the timers that change most
    static constexpr int CROWD = 300;    // further ones: a queue looks places up in a long list

    ListRun(const uint8_t* aData, size_t aSize) : ByteDriver(aData, aSize) {
        m_model.m_llNow = START * 1000000LL;
        for (int nId = 0; nId < HANDLERS + CROWD; ++nId) {
            m_handlers.push_back(std::make_unique<Handler>(*this, nId));
        }
    }

    void Step() {
        switch (Pick(20)) {
            case 18:
                GatherCrowd();
                break;
            case 19:
                DisperseCrowd();
                break;
            default:
                StepOfFew();
        }
        const long long llEarliest = m_model.Earliest();
        Expect((llEarliest < 0 ? CCmTimeValue::s_tvMax : CCmTimeValue(0, llEarliest)) ==
                   (m_queue.GetEarliestTime()),
               "GetEarliestTime");
    }

  private:
    void StepOfFew() {
        switch (Pick(4)) {
            case 0:
                m_model.m_llNow += Pick(10) == 0 ? Pick(2000000) - 1000000 : Pick(30) * 500;
                m_clock.Set(m_model.m_llNow / 1000000, m_model.m_llNow % 1000000);
                break;
            case 1:
                Check();
                break;
            default:
                Operate();
        }
    }

    class Handler : public ICmTimerHandler {
      public:
        Handler(ListRun& aRun, int aId) : m_run(aRun), m_nId(aId) {}
        virtual ~Handler() = default;
        void OnTimeout(const CCmTimeValue& aNow, void* aArg) override {
            m_run.Fired(m_nId, aNow, reinterpret_cast<long>(aArg));
        }

      private:
        ListRun& m_run;
        const int m_nId;
    };

    void Operate() {
        const int nId = Pick(4) == 0 ? HANDLERS + Pick(CROWD) : Pick(HANDLERS);
        if (Pick(3) == 0) {
            Cancel(nId);
            return;
        }
        // Few distinct intervals, so that equal expiries are frequent.
        const long lInterval = Pick(12) * 500 - 500;
        const unsigned int dwCount = static_cast<unsigned int>(Pick(4));
        Schedule(nId, Pick(1000000), lInterval, dwCount);
    }
    // Timers with intervals that rise, fall, hardly differ or lie anywhere.
    void GatherCrowd() {
        const int nOrder = Pick(4);
        const int nFirst = Pick(CROWD);
        const long lShift = Pick(100) * 500;
        std::minstd_rand random(static_cast<unsigned int>(Pick(256)) + 1);
        for (int i = nFirst; i < CROWD; ++i) {
            const long lAny = static_cast<long>(random() % 20000);
            const long lIntervals[] = {i * 60L, (CROWD - i) * 60L, lAny % 3 * 500, lAny};
            Schedule(HANDLERS + i, i, lShift + 500 + lIntervals[nOrder], random() % 3 == 0 ? 0 : 1);
        }
    }
    void DisperseCrowd() {
        const int nFirst = Pick(CROWD);
        const int nStride = 1 + Pick(3);
        for (int i = nFirst; i < CROWD; i += nStride) {
            Cancel(HANDLERS + i);
        }
    }
    void Schedule(int aId, long aToken, long aInterval, unsigned int aCount) {
        Expect((m_model.Schedule(aId, aToken, aInterval, aCount)) ==
                   (m_queue.ScheduleTimer(m_handlers[aId].get(), reinterpret_cast<void*>(aToken),
                                          CCmTimeValue(0, aInterval), aCount)),
               "ScheduleTimer");
    }
    void Cancel(int aId) {
        Expect((m_model.Cancel(aId)) == (m_queue.CancelTimer(m_handlers[aId].get())),
               "CancelTimer");
    }
    void Check() {
        m_llPass = m_model.m_llNow;
        m_nOperations = 20;  // bounds what handlers add to the same pass
        m_dwFired = 0;
        CCmTimeValue tvRemain;
        const unsigned int dwFired = m_queue.CheckExpire(&tvRemain);
        Expect((m_dwFired) == (dwFired), "CheckExpire: count");
        ListTimer timer;
        Expect(!m_model.NextDue(m_llPass, timer), "CheckExpire: a due timer was left");
        const long long llEarliest = m_model.Earliest();
        Expect((llEarliest < 0 ? CCmTimeValue::s_tvMax : CCmTimeValue(0, llEarliest - m_llPass)) ==
                   (tvRemain),
               "CheckExpire: remaining time");
    }
    void Fired(int aId, const CCmTimeValue& aNow, long aToken) {
        ++m_dwFired;
        ListTimer timer{};
        Expect(m_model.NextDue(m_llPass, timer), "fired what is not due");
        Expect((timer.id) == (aId), "fired the wrong timer");
        Expect((timer.token) == (aToken), "token");
        Expect((CCmTimeValue(0, m_llPass)) == (aNow), "time handed to the handler");
        while (m_nOperations > 0 && Pick(2) == 0) {
            --m_nOperations;
            Operate();
        }
    }

    ScopedClock m_clock{START};
    std::vector<std::unique_ptr<Handler>> m_handlers;
    ListModel m_model;
    CCmTimerQueueOrderedList m_queue{nullptr};
    long long m_llPass = 0;
    int m_nOperations = 0;
    unsigned int m_dwFired = 0;
};

// ---- The calendar

// Keeps what the calendar posts until it is run.
class CollectingQueue : public ICmEventQueue {
  public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority /*aPri*/) override {
        m_events.push_back(aEvent);
        return CM_OK;
    }
    CmResult SendEvent(ICmEvent* /*aEvent*/) override { return CM_ERROR_NOT_IMPLEMENTED; }
    DWORD GetPendingEventsCount() override { return static_cast<DWORD>(m_events.size()); }

    void RunAll() {
        while (!m_events.empty()) {
            ICmEvent* pEvent = m_events.front();
            m_events.pop_front();
            pEvent->OnEventFire();
            pEvent->OnDestorySelf();
        }
    }

  private:
    std::deque<ICmEvent*> m_events;
};

// A plain model of the calendar: every timer is a row; the wheel is a number.
class CalendarModel {
  public:
    static constexpr int MAX_SLOT = 12;

    struct Timer {
        int id;
        long token;
        int distance;
        long left;
        int slot;  // -1: interval zero
    };

    int m_nCurrent = 0;
    int m_nPosted = 0;
    int m_nClamped = 0;

    // aMs: from 0; the wheel has slots of 10 ms.
    CmResult Schedule(int aId, long aToken, int aMs, long aCount) {
        bool bReused = false;
        if (m_entries.count(aId) != 0) {
            bReused = Remove(aId, m_entries[aId]);
        } else {
            Remove(aId, -1);
        }
        const Timer timer{aId, aToken, (aMs + 9) / 10, aCount == 0 ? 0xFFFFFFFF : aCount, -1};
        if (aMs == 0) {
            bool bPending = false;
            for (const Timer& other : m_newestFirst) {
                bPending = bPending || other.slot == -1;
            }
            m_newestFirst.push_front(timer);
            m_nPosted += bPending ? 0 : 1;
            return bPending && bReused ? CM_ERROR_FOUND : CM_OK;
        }
        Insert(timer);
        return bReused ? CM_ERROR_FOUND : CM_OK;
    }
    CmResult Cancel(int aId) {
        if (m_entries.count(aId) == 0) {
            Remove(aId, -1);
            return CM_ERROR_NOT_FOUND;
        }
        if (!Remove(aId, m_entries[aId])) {
            return CM_ERROR_NOT_FOUND;
        }
        m_entries.erase(aId);
        return CM_OK;
    }
    // The next timer of a slot (-1: of interval zero), re-armed already; false: none left.
    bool Next(int aSlot, Timer& aTimer) {
        for (auto it = m_newestFirst.begin(); it != m_newestFirst.end(); ++it) {
            if (it->slot != aSlot) {
                continue;
            }
            aTimer = *it;
            m_newestFirst.erase(it);
            if (aSlot == -1) {
                return true;
            }
            Timer next = aTimer;
            if (--next.left == 0) {
                m_entries.erase(next.id);
            } else {
                Insert(next);
            }
            return true;
        }
        return false;
    }
    void Advance() { m_nCurrent = m_nCurrent == MAX_SLOT ? 0 : m_nCurrent + 1; }

  private:
    void Insert(Timer aTimer) {
        int nDistance = aTimer.distance;
        if (nDistance > MAX_SLOT - 1) {
            ++m_nClamped;
            nDistance = MAX_SLOT;
        }
        aTimer.slot = m_nCurrent + nDistance;
        if (aTimer.slot > MAX_SLOT) {
            aTimer.slot -= MAX_SLOT;
        }
        m_entries[aTimer.id] = aTimer.slot;
        m_newestFirst.push_front(aTimer);
    }
    bool Remove(int aId, int aSlot) {
        for (auto it = m_newestFirst.begin(); it != m_newestFirst.end(); ++it) {
            if (it->id == aId && it->slot == aSlot) {
                m_newestFirst.erase(it);
                return true;
            }
        }
        return false;
    }

    std::deque<Timer> m_newestFirst;
    std::map<int, int> m_entries;
};

// One random run of queue and model side by side; handlers operate on the queue as they fire.
class CalendarRun : public ByteDriver {
  public:
    static constexpr int HANDLERS = 10;

    CalendarRun(const uint8_t* aData, size_t aSize) : ByteDriver(aData, aSize) {
        for (int nId = 0; nId < HANDLERS; ++nId) {
            m_handlers.push_back(std::make_unique<Handler>(*this, nId));
        }
    }

    void Step() {
        m_nOperations = 8;
        switch (Pick(5)) {
            case 0:
            case 1:
                m_nFiring = m_model.m_nCurrent;
                m_queue.TimerTick();
                ExpectNoneLeft();
                m_model.Advance();
                break;
            case 2:
                m_nFiring = -1;
                m_events.RunAll();
                ExpectNoneLeft();
                m_model.m_nPosted = 0;
                break;
            default:
                Operate(true);
        }
        m_nOperations = 0;
        Expect((m_model.m_nPosted) == (static_cast<int>(m_events.GetPendingEventsCount())),
               "posted events");
    }
    int clamped() const { return m_model.m_nClamped; }

  private:
    class Handler : public ICmTimerHandler {
      public:
        Handler(CalendarRun& aRun, int aId) : m_run(aRun), m_nId(aId) {}
        virtual ~Handler() = default;
        void OnTimeout(const CCmTimeValue& /*aNow*/, void* aArg) override {
            m_run.Fired(m_nId, reinterpret_cast<long>(aArg));
        }

      private:
        CalendarRun& m_run;
        const int m_nId;
    };

    void Operate(bool aMayClamp) {
        const int nId = Pick(HANDLERS);
        Handler* pHandler = m_handlers[static_cast<size_t>(nId)].get();
        if (Pick(3) == 0) {
            Expect((m_model.Cancel(nId)) == (m_queue.CancelTimer(pHandler)), "CancelTimer");
            return;
        }
        const long lToken = Pick(1000000);
        // What is clamped fires again and again within a tick, so it must end.
        const bool bClamped = aMayClamp && Pick(10) == 0;
        const int nMs = bClamped ? 111 + Pick(500) : Pick(5) == 0 ? 0 : 1 + Pick(110);
        const int nCount = bClamped ? 1 + Pick(3) : Pick(4);
        Expect((m_model.Schedule(nId, lToken, nMs, nCount)) ==
                   (m_queue.ScheduleTimer(pHandler, reinterpret_cast<void*>(lToken), Ms(nMs),
                                          static_cast<unsigned int>(nCount))),
               "ScheduleTimer");
    }
    void ExpectNoneLeft() {
        CalendarModel::Timer timer{};
        Expect(!m_model.Next(m_nFiring, timer), "a timer of the slot was left");
    }
    void Fired(int aId, long aToken) {
        CalendarModel::Timer timer{};
        Expect(m_model.Next(m_nFiring, timer), "fired what is not in the slot");
        Expect((timer.id) == (aId), "fired the wrong timer");
        Expect((timer.token) == (aToken), "token");
        while (m_nOperations > 0 && Pick(2) == 0) {
            --m_nOperations;
            Operate(false);
        }
    }

    std::vector<std::unique_ptr<Handler>> m_handlers;
    CalendarModel m_model;
    CollectingQueue m_events;
    CCmTimerQueueCalendar m_queue{10, 130, &m_events};
    int m_nFiring = -1;
    int m_nOperations = 0;
};

template <class Run>
std::string RunToTheEnd(Run& aRun) {
    while (!aRun.AtEnd() && aRun.error().empty()) {
        aRun.Step();
    }
    return aRun.error();
}

}  // namespace

std::string RunOrderedListModel(const uint8_t* aData, size_t aSize) {
    ListRun run(aData, aSize);
    return RunToTheEnd(run);
}

std::string RunCalendarModel(const uint8_t* aData, size_t aSize, int& aClamped) {
    CalendarRun run(aData, aSize);
    std::string sError = RunToTheEnd(run);
    aClamped += run.clamped();
    return sError;
}

}  // namespace kelto_test
