// How long a posted event waits until it runs.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Row.h"
#include "Workers.h"

using namespace kelto_bench;

namespace {

constexpr char AREA[] = "latency";
constexpr size_t WARM_UP = 100;  // posts at the start that do not count
// Waking is all of these rows, and a worker by hand wakes as one of a library does: it is a peer.
constexpr char BY_HAND_PEER[] = "std::deque + condition variable by hand";

std::vector<double> Warm(const CLatencies& aLatencies) {
    const std::vector<double>& all = aLatencies.nsec();
    return std::vector<double>(all.begin() + WARM_UP, all.end());
}

// ---- Of a worker that sleeps.

// One event at a time, with time between for the worker to fall asleep.
struct CPace {
    size_t m_nPosts;
    timespec m_Pause;
};
constexpr CPace IDLE = {2000, {0, 150000}};
constexpr CPace BUSY = {600, {0, 2000000}};

// A thread that never sleeps, on the worker's core.
class CBusyThread {
  public:
    CBusyThread() {
        m_Thread = std::thread([this] {
            Pinned::MoveTo(WORKER_CORE);
            while (!m_bEnds.load(std::memory_order_relaxed)) {
            }
        });
    }
    ~CBusyThread() {
        m_bEnds.store(true, std::memory_order_relaxed);
        m_Thread.join();
    }
    CBusyThread(const CBusyThread&) = delete;
    CBusyThread& operator=(const CBusyThread&) = delete;

  private:
    std::atomic<bool> m_bEnds{false};
    std::thread m_Thread;
};

template <typename Worker>
void PostToSleeper(benchmark::State& aState, bool aTwoCores, const CPace& aPace) {
    const auto pWorker = PlacedWorker<Worker>(aTwoCores);
    const size_t nPosts = WARM_UP + aPace.m_nPosts;
    CLatencies latencies(nPosts);
    for (auto _ : aState) {
        for (size_t i = 0; i < nPosts; ++i) {
            nanosleep(&aPace.m_Pause, nullptr);
            pWorker->Post(latencies, NowNsec());
        }
        while (!latencies.AreAllThere()) {
            nanosleep(&aPace.m_Pause, nullptr);
        }
    }
    CountLatencies(aState, Warm(latencies));
}

template <typename Worker>
void PostBesideBusyThread(benchmark::State& aState) {
    const Pinned pinned(POSTER_CORE);
    const CBusyThread busy;
    PostToSleeper<Worker>(aState, true, BUSY);
}

template <typename Worker>
void PostToSleeperAlone(benchmark::State& aState, bool aTwoCores) {
    const Pinned pinned(POSTER_CORE);
    PostToSleeper<Worker>(aState, aTwoCores, IDLE);
}

// ---- Over the load of the worker. Events come at random, as calls of many clients do, and each
// keeps the worker for a while. An event's time begins when it was to be posted, even if the poster
// was late.

constexpr size_t LOADED_POSTS = 3000;
constexpr long WORK_NSEC = 10000;

void WorkUntil(long aNsec) {
    while (NowNsec() < aNsec) {
    }
}

class CWorkingLatencies : public CLatencies {
  public:
    using CLatencies::CLatencies;
    void Add(long aPostedNsec) {
        const long lEnd = NowNsec() + WORK_NSEC;
        CLatencies::Add(aPostedNsec);
        WorkUntil(lEnd);
    }
};

template <typename Worker>
void PostAtLoad(benchmark::State& aState, int aPercent) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(true);
    const double gap = 100.0 * WORK_NSEC / aPercent;
    constexpr size_t POSTS = WARM_UP + LOADED_POSTS;
    CWorkingLatencies latencies(POSTS);
    Numbers numbers;
    for (auto _ : aState) {
        double due = static_cast<double>(NowNsec());
        for (size_t i = 0; i < POSTS; ++i) {
            due -= gap * std::log((numbers.Next() + 1.0) / (UINT32_MAX / 2 + 2.0));
            WorkUntil(static_cast<long>(due));
            pWorker->Post(latencies, static_cast<long>(due));
        }
        while (!latencies.AreAllThere()) {
        }
    }
    CountFigure(aState, NANOSECONDS, Percentile(Warm(latencies), 0.99));
}

template <typename Worker>
void AddRows(const char* aWho) {
    Row(
        AREA, "post to a sleeping worker, one core", aWho,
        [](benchmark::State& aState) { PostToSleeperAlone<Worker>(aState, false); },
        Clock::FIGURES);
    if (std::thread::hardware_concurrency() == 1) {
        return;
    }
    Row(
        AREA, "post to a sleeping worker, two cores", aWho,
        [](benchmark::State& aState) { PostToSleeperAlone<Worker>(aState, true); }, Clock::FIGURES);
    Row(AREA, "post beside a busy thread", aWho, PostBesideBusyThread<Worker>, Clock::FIGURES);
}

template <typename Worker>
void AddLoadRows(const char* aWho) {
    for (int nPercent : {10, 30, 50, 70, 90}) {
        Row(
            "growth: 99th percentile of latency, over load in %", std::to_string(nPercent), aWho,
            [=](benchmark::State& aState) { PostAtLoad<Worker>(aState, nPercent); },
            Clock::FIGURES);
    }
}

const bool s_bAdded = [] {
    ForEachWorker(
        [](auto aType, const char* aWho) { AddRows<typename decltype(aType)::Type>(aWho); });
    AddRows<CConditionWorker>(BY_HAND_PEER);
    if (std::thread::hardware_concurrency() > 1) {
        AddLoadRows<CKelto>(OURS);
        ForEachPeer([](auto aType, const char* aWho) {
            AddLoadRows<typename decltype(aType)::Type>(aWho);
        });
        AddLoadRows<CConditionWorker>(BY_HAND_PEER);
    }
    return true;
}();

}  // namespace
