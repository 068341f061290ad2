// Timer queues: schedule and cancel among pending timers, fire due ones.

#include "CmTimerQueueBase.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
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

class Handler final : public ICmTimerHandler {
  public:
    void OnTimeout(const CCmTimeValue&, void*) override { ++s_lFired; }
    static long s_lFired;
};
long Handler::s_lFired = 0;

CCmTimeValue Milliseconds(unsigned int aMs) {
    return CCmTimeValue(aMs / 1000, aMs % 1000 * 1000L);
}

// ---- Schedule and cancel. A queue offers Add(i, ms) and Cancel(i) for timers 0 to n. The measured
// one lies amid the others in memory, too: the first and the last are special in a sorted map.

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

class OrderedList {
  public:
    explicit OrderedList(size_t aTimers) : m_Handlers(aTimers), m_Queue(nullptr) {}
    bool Add(size_t aTimer, unsigned int aMs) {
        return m_Queue.ScheduleTimer(&m_Handlers[aTimer], nullptr, Milliseconds(aMs), 1) == CM_OK;
    }
    bool Cancel(size_t aTimer) { return m_Queue.CancelTimer(&m_Handlers[aTimer]) == CM_OK; }

  private:
    std::vector<Handler> m_Handlers;
    CCmTimerQueueOrderedList m_Queue;
};

class Calendar {
  public:
    explicit Calendar(size_t aTimers)
        : m_Handlers(aTimers), m_Queue(10, 10000 + SPREAD_MS + 1000, nullptr) {}
    bool Add(size_t aTimer, unsigned int aMs) {
        return m_Queue.ScheduleTimer(&m_Handlers[aTimer], nullptr, Milliseconds(aMs), 1) == CM_OK;
    }
    bool Cancel(size_t aTimer) { return m_Queue.CancelTimer(&m_Handlers[aTimer]) == CM_OK; }

  private:
    std::vector<Handler> m_Handlers;
    CCmTimerQueueCalendar m_Queue;
};

#if KELTO_WITH_LIBUV
class Libuv {
  public:
    explicit Libuv(size_t aTimers) : m_Timers(aTimers) {
        uv_loop_init(&m_Loop);
        for (uv_timer_t& timer : m_Timers) {
            uv_timer_init(&m_Loop, &timer);
        }
    }
    ~Libuv() {
        for (uv_timer_t& timer : m_Timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        }
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }
    bool Add(size_t aTimer, unsigned int aMs) {
        return uv_timer_start(
                   &m_Timers[aTimer], [](uv_timer_t*) {}, aMs, 0) == 0;
    }
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
class LibuvAtNow : public Libuv {
  public:
    using Libuv::Libuv;
    bool Add(size_t aTimer, unsigned int aMs) {
        uv_update_time(&m_Loop);
        return Libuv::Add(aTimer, aMs);
    }
};
#endif

#if KELTO_WITH_LIBEVENT
class Libevent {
  public:
    explicit Libevent(size_t aTimers) : m_pBase(event_base_new()), m_Timers(aTimers) {
        for (event*& pTimer : m_Timers) {
            pTimer = evtimer_new(
                m_pBase, [](evutil_socket_t, short, void*) {}, nullptr);
        }
    }
    ~Libevent() {
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

  private:
    event_base* m_pBase;
    std::vector<event*> m_Timers;
};
#endif

#if KELTO_WITH_ACE
class AceHandler : public ACE_Event_Handler {
  public:
    int handle_timeout(const ACE_Time_Value&, const void*) override {
        ++Handler::s_lFired;
        return 0;
    }
};

template <typename Queue>
class Ace {
  public:
    explicit Ace(size_t aTimers) : m_Ids(aTimers, -1) {}
    bool Add(size_t aTimer, unsigned int aMs) {
        const ACE_Time_Value due = ACE_OS::gettimeofday() + ACE_Time_Value(0, aMs * 1000L);
        m_Ids[aTimer] = m_Queue.schedule(&m_Handler, nullptr, due);
        return m_Ids[aTimer] != -1;
    }
    bool Cancel(size_t aTimer) { return m_Queue.cancel(m_Ids[aTimer]) == 1; }

  private:
    AceHandler m_Handler;
    std::vector<long> m_Ids;
    Queue m_Queue;
};
#endif

#if KELTO_WITH_BOOST
class Asio {
  public:
    explicit Asio(size_t aTimers) {
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

template <typename OurQueue>
void AddRows(const std::string& aWork, size_t aPending) {
    AddRow<OurQueue>(AREA, aWork, aPending, OURS);
#if KELTO_WITH_LIBUV
    AddRow<Libuv>(AREA, aWork, aPending, "libuv");
    AddRow<LibuvAtNow>(AREA, aWork, aPending, "variant: libuv, clock read for each");
#endif
#if KELTO_WITH_LIBEVENT
    AddRow<Libevent>(AREA, aWork, aPending, "libevent");
#endif
#if KELTO_WITH_ACE
    AddRow<Ace<ACE_Timer_Heap>>(AREA, aWork, aPending, "ACE heap");
    AddRow<Ace<ACE_Timer_Wheel>>(AREA, aWork, aPending, "ACE wheel");
#endif
#if KELTO_WITH_BOOST
    AddRow<Asio>(AREA, aWork, aPending, "Asio");
#endif
}

const bool s_bAdded = [] {
    AddRows<OrderedList>("schedule + cancel, 10 pending (list)", 10);
    AddRows<OrderedList>("schedule + cancel, 100 pending (list)", 100);
    AddRows<Calendar>("schedule + cancel, 10k pending (calendar)", 10000);
    for (size_t nPending : {size_t{10}, size_t{100}, size_t{1000}, size_t{10000}, size_t{100000}}) {
        const std::string pending = std::to_string(nPending);
        AddRow<OrderedList>(GROWTH, pending, nPending, "kelto_util, list");
        AddRow<Calendar>(GROWTH, pending, nPending, "kelto_util, calendar");
#if KELTO_WITH_LIBUV
        AddRow<Libuv>(GROWTH, pending, nPending, "libuv");
#endif
#if KELTO_WITH_LIBEVENT
        AddRow<Libevent>(GROWTH, pending, nPending, "libevent");
#endif
    }
    return true;
}();

// ---- Fire: one pass over many due timers; scheduling them is not part of it.

template <typename Schedule, typename Pass>
void FireDue(benchmark::State& aState, Schedule aSchedule, Pass aPass) {
    Handler::s_lFired = 0;
    for (auto _ : aState) {
        aSchedule();
        const double start = ThreadSeconds();
        aPass();
        aState.SetIterationTime(ThreadSeconds() - start);
    }
    Check(Handler::s_lFired == aState.iterations() * BATCH, FIRE);
    CountItems(aState, BATCH);
}

const Row s_oursFire(
    AREA, FIRE, OURS,
    [](benchmark::State& aState) {
        std::vector<Handler> handlers(size_t{BATCH});
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
    AceHandler handler;
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
                        &timer, [](uv_timer_t*) { ++Handler::s_lFired; }, 0, 0);
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
                pBase, [](evutil_socket_t, short, void*) { ++Handler::s_lFired; }, nullptr);
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
