// Timer queues: schedule and cancel among pending timers, fire due ones.

#include "CmTimerQueueBase.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "CmWorker.h"
#include "Row.h"
#if KELTO_WITH_ACE
#include <ace/Event_Handler.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap.h>
#include <ace/Timer_Wheel.h>
#endif
#if KELTO_WITH_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif
#if KELTO_WITH_LIBEVENT
#include <event2/event.h>
#endif
#if KELTO_WITH_LIBUV
#include <uv.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "timers";
constexpr char FIRE[] = "fire a due timer";
constexpr char GROWTH[] = "growth: schedule and cancel, over pending timers";

constexpr unsigned int SPREAD_MS = 50000;  // timers are due within this time
constexpr size_t PLACES = 1024;            // different intervals of the measured timer
constexpr int64_t BATCH = 1000;            // timers fired in one pass

// The measured timer comes to lie anywhere among the pending ones.
std::vector<unsigned int> Intervals(size_t aCount) {
    Numbers numbers;
    std::vector<unsigned int> intervals(aCount);
    for (unsigned int& dwMs : intervals) {
        dwMs = 10000 + numbers.Next() % SPREAD_MS;
    }
    return intervals;
}

// Every timer that fires is counted, and handed to s_fired if that is set.
long s_lFired = 0;
std::function<void(size_t)> s_fired;

void Fire(size_t aTimer) {
    ++s_lFired;
    if (s_fired) {
        s_fired(aTimer);
    }
}

class CHandler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void* aTimer) override {
        Fire(reinterpret_cast<size_t>(aTimer));
    }
};

void* Token(size_t aTimer) {
    return reinterpret_cast<void*>(aTimer);
}

CCmTimeValue Milliseconds(unsigned int aMs) {
    return CCmTimeValue(aMs / 1000, aMs % 1000 * 1000L);
}

// ---- Schedule and cancel. A queue offers Add(i, ms) and Cancel(i) for timers 0 to n; some also
// Pass(), which fires what is due. The measured timer lies amid the others in memory, too: the
// first and the last are special in a sorted map.

template <typename Queue>
void ScheduleAndCancel(benchmark::State& aState, size_t aPending) {
    Queue queue(aPending + 1);
    const size_t nMeasured = aPending / 2;
    const auto pfnOther = [=](size_t aPlace) { return aPlace < nMeasured ? aPlace : aPlace + 1; };
    // The longest first: then a list is entered at its front.
    std::vector<unsigned int> pending = Intervals(aPending);
    std::sort(pending.rbegin(), pending.rend());
    for (size_t i = 0; i < aPending; ++i) {
        Check(queue.Add(pfnOther(i), pending[i]), "schedule");
    }
    const std::vector<unsigned int> places = Intervals(PLACES);
    size_t nPlace = 0;
    for (auto _ : aState) {
        Check(queue.Add(nMeasured, places[nPlace]), "schedule");
        Check(queue.Cancel(nMeasured), "cancel");
        nPlace = (nPlace + 1) % PLACES;
    }
    for (size_t i = 0; i < aPending; ++i) {
        Check(queue.Cancel(pfnOther(i)), "cancel what was pending");
    }
    CountItems(aState);
}

// Handlers, and their timers in any queue of ours.
class COurTimers {
  public:
    COurTimers(size_t aTimers, ICmTimerQueue* aQueue) : m_Handlers(aTimers), m_pQueue(aQueue) {}
    bool Add(size_t aTimer, unsigned int aMs) {
        const CmResult result =
            m_pQueue->ScheduleTimer(&m_Handlers[aTimer], Token(aTimer), Milliseconds(aMs), 1);
        return result == CM_OK || result == CM_ERROR_FOUND;
    }
    bool Cancel(size_t aTimer) { return m_pQueue->CancelTimer(&m_Handlers[aTimer]) == CM_OK; }

  private:
    std::vector<CHandler> m_Handlers;
    ICmTimerQueue* m_pQueue;
};

class COrderedList : public COurTimers {
  public:
    explicit COrderedList(size_t aTimers) : COurTimers(aTimers, &m_Queue), m_Queue(nullptr) {}
    void Pass() { m_Queue.CheckExpire(); }

  private:
    CCmTimerQueueOrderedList m_Queue;
};

// The host ticks it, once per slot.
class CCalendar : public COurTimers {
  public:
    explicit CCalendar(size_t aTimers)
        : COurTimers(aTimers, &m_Queue), m_Queue(SLOT.count(), 10000 + SPREAD_MS + 1000, nullptr) {}
    void Pass() {
        for (const auto now = std::chrono::steady_clock::now(); m_Tick <= now; m_Tick += SLOT) {
            m_Queue.TimerTick();
        }
    }

  private:
    static constexpr std::chrono::duration<unsigned int, std::milli> SLOT{10};

    CCmTimerQueueCalendar m_Queue;
    std::chrono::steady_clock::time_point m_Tick = std::chrono::steady_clock::now() + SLOT;
};

// That of the worker that makes this.
class CWorkersQueue : public COurTimers {
  public:
    explicit CWorkersQueue(size_t aTimers)
        : COurTimers(aTimers, getCurrentThread()->GetTimerQueue()) {}
};

#if KELTO_WITH_LIBUV
class CLibuv {
  public:
    explicit CLibuv(size_t aTimers) : m_Timers(aTimers) {
        uv_loop_init(&m_Loop);
        for (size_t i = 0; i < aTimers; ++i) {
            uv_timer_init(&m_Loop, &m_Timers[i]);
            m_Timers[i].data = Token(i);
        }
    }
    ~CLibuv() {
        for (uv_timer_t& timer : m_Timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        }
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }
    bool Add(size_t aTimer, unsigned int aMs) {
        return uv_timer_start(
                   &m_Timers[aTimer],
                   [](uv_timer_t* aFired) { Fire(reinterpret_cast<size_t>(aFired->data)); }, aMs,
                   0) == 0;
    }
    void Pass() { uv_run(&m_Loop, UV_RUN_NOWAIT); }
    bool Cancel(size_t aTimer) {
        const bool bWasActive =
            uv_is_active(reinterpret_cast<uv_handle_t*>(&m_Timers[aTimer])) != 0;
        return uv_timer_stop(&m_Timers[aTimer]) == 0 && bWasActive;
    }

  protected:
    uv_loop_t m_Loop;

  private:
    std::vector<uv_timer_t> m_Timers;
};

// Reads the clock for each timer, as the others do, not once per turn of the loop.
class CLibuvAtNow : public CLibuv {
  public:
    using CLibuv::CLibuv;
    bool Add(size_t aTimer, unsigned int aMs) {
        uv_update_time(&m_Loop);
        return CLibuv::Add(aTimer, aMs);
    }
};
#endif

#if KELTO_WITH_LIBEVENT
class CLibevent {
  public:
    explicit CLibevent(size_t aTimers) : m_pBase(event_base_new()), m_Timers(aTimers) {
        for (size_t i = 0; i < aTimers; ++i) {
            m_Timers[i] = evtimer_new(
                m_pBase,
                [](evutil_socket_t, short, void* aTimer) {
                    Fire(reinterpret_cast<size_t>(aTimer));
                },
                Token(i));
        }
    }
    ~CLibevent() {
        for (event* pTimer : m_Timers) {
            event_free(pTimer);
        }
        event_base_free(m_pBase);
    }
    bool Add(size_t aTimer, unsigned int aMs) {
        const timeval interval = {aMs / 1000, static_cast<long>(aMs % 1000) * 1000};
        return evtimer_add(m_Timers[aTimer], &interval) == 0;
    }
    bool Cancel(size_t aTimer) {
        const bool bWasPending = evtimer_pending(m_Timers[aTimer], nullptr) != 0;
        return evtimer_del(m_Timers[aTimer]) == 0 && bWasPending;
    }
    void Pass() { event_base_loop(m_pBase, EVLOOP_NONBLOCK); }

  private:
    event_base* m_pBase;
    std::vector<event*> m_Timers;
};
#endif

#if KELTO_WITH_ACE
class CAceHandler : public ACE_Event_Handler {
  public:
    int handle_timeout(const ACE_Time_Value&, const void*) override {
        ++s_lFired;
        return 0;
    }
};

template <typename Queue>
class CAce {
  public:
    explicit CAce(size_t aTimers) : m_Ids(aTimers, -1) {}
    bool Add(size_t aTimer, unsigned int aMs) {
        const ACE_Time_Value due = ACE_OS::gettimeofday() + ACE_Time_Value(0, aMs * 1000L);
        m_Ids[aTimer] = m_Queue.schedule(&m_Handler, nullptr, due);
        return m_Ids[aTimer] != -1;
    }
    bool Cancel(size_t aTimer) { return m_Queue.cancel(m_Ids[aTimer]) == 1; }

  private:
    CAceHandler m_Handler;
    std::vector<long> m_Ids;
    Queue m_Queue;
};
#endif

#if KELTO_WITH_BOOST
class CAsio {
  public:
    explicit CAsio(size_t aTimers) {
        for (size_t i = 0; i < aTimers; ++i) {
            m_Timers.emplace_back(m_Context);
        }
    }
    bool Add(size_t aTimer, unsigned int aMs) {
        m_Timers[aTimer].expires_after(std::chrono::milliseconds(aMs));
        m_Timers[aTimer].async_wait([](const boost::system::error_code&) {});
        return true;
    }
    // The handler of a cancelled timer still has to be run.
    bool Cancel(size_t aTimer) {
        const bool bCancelled = m_Timers[aTimer].cancel() == 1;
        m_Context.poll();
        return bCancelled;
    }

  private:
    boost::asio::io_context m_Context;
    std::vector<boost::asio::steady_timer> m_Timers;
};
#endif

template <typename Queue>
void AddRow(const char* aArea, const std::string& aWork, size_t aPending, const char* aWho) {
    Row(aArea, aWork, aWho,
        [=](benchmark::State& aState) { ScheduleAndCancel<Queue>(aState, aPending); });
}

void AddPeerRows(const std::string& aWork, size_t aPending) {
#if KELTO_WITH_LIBUV
    AddRow<CLibuv>(AREA, aWork, aPending, "libuv");
    AddRow<CLibuvAtNow>(AREA, aWork, aPending, "variant: libuv, clock read for each");
#endif
#if KELTO_WITH_LIBEVENT
    AddRow<CLibevent>(AREA, aWork, aPending, "libevent");
#endif
#if KELTO_WITH_ACE
    AddRow<CAce<ACE_Timer_Heap>>(AREA, aWork, aPending, "ACE heap");
    AddRow<CAce<ACE_Timer_Wheel>>(AREA, aWork, aPending, "ACE wheel");
#endif
#if KELTO_WITH_BOOST
    AddRow<CAsio>(AREA, aWork, aPending, "Asio");
#endif
}

template <typename OurQueue>
void AddRows(const std::string& aWork, size_t aPending) {
    AddRow<OurQueue>(AREA, aWork, aPending, OURS);
    AddPeerRows(aWork, aPending);
}

void AddWorkerRows(const std::string& aWork, size_t aPending) {
    Row(AREA, aWork, OURS, [=](benchmark::State& aState) {
        CCmWorker worker;
        Check(
            CmCall(worker, [&] { ScheduleAndCancel<CWorkersQueue>(aState, aPending); }).Result() ==
                CM_OK,
            "call");
    });
    AddPeerRows(aWork, aPending);
}

// ---- Churn: most timers are put off before they are due, as those of connections are; some are
// cancelled for another, and some are short and fire. What fired starts again.

constexpr size_t CHURN_TIMERS = 100000;
constexpr unsigned int SHORT_MS = 5;
constexpr unsigned int SHORT_SPREAD_MS = 15;
constexpr timespec PAST_SHORT = {0, 50000000};  // later than the last of them, in any queue

template <typename Queue>
void Churn(benchmark::State& aState) {
    Queue queue(CHURN_TIMERS);
    std::vector<unsigned int> longs = Intervals(CHURN_TIMERS);
    std::sort(longs.rbegin(), longs.rend());
    for (size_t i = 0; i < CHURN_TIMERS; ++i) {
        Check(queue.Add(i, longs[i]), "schedule");
    }
    Numbers numbers;
    const auto pfnLong = [&] { return 10000 + numbers.Next() % SPREAD_MS; };
    s_lFired = 0;
    s_fired = [&](size_t aTimer) { Check(queue.Add(aTimer, pfnLong()), "schedule again"); };
    long lShort = 0;
    for (auto _ : aState) {
        for (int64_t i = 0; i < BATCH; ++i) {
            const size_t nTimer = numbers.Next() % CHURN_TIMERS;
            const unsigned int dwKind = numbers.Next() % 100;
            if (dwKind < 80) {
                Check(queue.Add(nTimer, pfnLong()), "put off");
            } else if (dwKind < 95) {
                Check(queue.Cancel(nTimer), "cancel");
                Check(queue.Add(nTimer, pfnLong()), "schedule another");
            } else {
                Check(queue.Add(nTimer, SHORT_MS + numbers.Next() % SHORT_SPREAD_MS), "short");
                ++lShort;
            }
        }
        queue.Pass();
    }
    nanosleep(&PAST_SHORT, nullptr);
    queue.Pass();
    s_fired = nullptr;
    // A short one that is put off does not fire; on a slow machine long ones do, too.
    Check(s_lFired > lShort / 2, "number that fired");
    for (size_t i = 0; i < CHURN_TIMERS; ++i) {
        Check(queue.Cancel(i), "all are pending");
    }
    CountItems(aState, BATCH);
}

template <typename OurQueue>
void AddChurnRows(const char* aWork) {
    Row(AREA, aWork, OURS, Churn<OurQueue>);
#if KELTO_WITH_LIBUV
    Row(AREA, aWork, "libuv", Churn<CLibuv>);
#endif
#if KELTO_WITH_LIBEVENT
    Row(AREA, aWork, "libevent", Churn<CLibevent>);
#endif
}

const bool s_bAdded = [] {
    AddRows<COrderedList>("schedule + cancel, 10 pending (list)", 10);
    AddRows<COrderedList>("schedule + cancel, 100 pending (list)", 100);
    AddRows<CCalendar>("schedule + cancel, 10k pending (calendar)", 10000);
    AddWorkerRows("schedule + cancel, 10k pending (a worker's own)", 10000);
    AddWorkerRows("schedule + cancel, 100k pending (a worker's own)", 100000);
    AddChurnRows<COrderedList>("100k pending, put off, cancelled and fired (list)");
    AddChurnRows<CCalendar>("100k pending, put off, cancelled and fired (calendar)");
    for (size_t nPending : {size_t{10}, size_t{100}, size_t{1000}, size_t{10000}, size_t{100000}}) {
        const std::string pending = std::to_string(nPending);
        AddRow<COrderedList>(GROWTH, pending, nPending, "kelto_util, list");
        AddRow<CCalendar>(GROWTH, pending, nPending, "kelto_util, calendar");
#if KELTO_WITH_LIBUV
        AddRow<CLibuv>(GROWTH, pending, nPending, "libuv");
#endif
#if KELTO_WITH_LIBEVENT
        AddRow<CLibevent>(GROWTH, pending, nPending, "libevent");
#endif
    }
    return true;
}();

// ---- Fire: one pass over many due timers; scheduling them is not part of it.

template <typename Schedule, typename Pass>
void FireDue(benchmark::State& aState, Schedule aSchedule, Pass aPass) {
    s_lFired = 0;
    for (auto _ : aState) {
        aSchedule();
        const double start = ThreadSeconds();
        aPass();
        aState.SetIterationTime(ThreadSeconds() - start);
    }
    Check(s_lFired == aState.iterations() * BATCH, FIRE);
    CountItems(aState, BATCH);
}

const Row s_oursFire(
    AREA, FIRE, OURS,
    [](benchmark::State& aState) {
        std::vector<CHandler> handlers(size_t{BATCH});
        CCmTimerQueueOrderedList queue(nullptr);
        FireDue(
            aState,
            [&] {
                // Each in front of those before it, where the list is entered at once.
                for (long i = 0; i < BATCH; ++i) {
                    queue.ScheduleTimer(&handlers[static_cast<size_t>(i)], nullptr,
                                        CCmTimeValue(-i - 1), 1);
                }
            },
            [&] { queue.CheckExpire(); });
    },
    Clock::MANUAL);

#if KELTO_WITH_ACE
template <typename Queue>
void AceFire(benchmark::State& aState) {
    CAceHandler handler;
    Queue queue;
    FireDue(
        aState,
        [&] {
            const ACE_Time_Value now = ACE_OS::gettimeofday();
            for (long i = 0; i < BATCH; ++i) {
                queue.schedule(&handler, nullptr, now - ACE_Time_Value(0, i));
            }
        },
        [&] { queue.expire(); });
}

const Row s_aceWheelFire(AREA, FIRE, "ACE wheel", AceFire<ACE_Timer_Wheel>, Clock::MANUAL);
const Row s_aceHeapFire(AREA, FIRE, "ACE heap", AceFire<ACE_Timer_Heap>, Clock::MANUAL);
#endif

#if KELTO_WITH_LIBUV
const Row s_uvFire(
    AREA, FIRE, "libuv",
    [](benchmark::State& aState) {
        uv_loop_t loop;
        uv_loop_init(&loop);
        std::vector<uv_timer_t> timers(size_t{BATCH});
        for (uv_timer_t& timer : timers) {
            uv_timer_init(&loop, &timer);
        }
        FireDue(
            aState,
            [&] {
                for (uv_timer_t& timer : timers) {
                    uv_timer_start(
                        &timer, [](uv_timer_t*) { ++s_lFired; }, 0, 0);
                }
            },
            [&] { uv_run(&loop, UV_RUN_NOWAIT); });
        for (uv_timer_t& timer : timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    },
    Clock::MANUAL);
#endif

#if KELTO_WITH_LIBEVENT
const Row s_libeventFire(
    AREA, FIRE, "libevent",
    [](benchmark::State& aState) {
        event_base* pBase = event_base_new();
        std::vector<event*> timers(size_t{BATCH});
        for (event*& pTimer : timers) {
            pTimer = evtimer_new(
                pBase, [](evutil_socket_t, short, void*) { ++s_lFired; }, nullptr);
        }
        FireDue(
            aState,
            [&] {
                const timeval due = {0, 0};
                for (event* pTimer : timers) {
                    evtimer_add(pTimer, &due);
                }
            },
            [&] { event_base_loop(pBase, EVLOOP_NONBLOCK); });
        for (event* pTimer : timers) {
            event_free(pTimer);
        }
        event_base_free(pBase);
    },
    Clock::MANUAL);
#endif

}  // namespace
