// What workers and what waits for them cost in memory, and how long a worker takes to come and go.

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Process.h"
#include "Row.h"
#include "Workers.h"

using namespace kelto_bench;

namespace {

constexpr char AREA[] = "footprint";
constexpr char WORKER[] = "memory of a worker that waits";
constexpr char EVENT[] = "memory of a pending event";
constexpr char LIFE[] = "start a worker, stop and join it";
constexpr size_t WORKERS = 100;
constexpr long EVENTS = 100000;

template <typename Worker>
void RunOne(Worker& aWorker) {
    CTally tally;
    aWorker.Post(tally, 1);
    WaitFor(tally, 1, false);
}

// Each has run an event before.
template <typename Worker>
double WorkerBytes() {
    std::vector<std::unique_ptr<Worker>> workers;
    RunOne(*workers.emplace_back(std::make_unique<Worker>()));
    const double before = ResidentBytes();
    while (workers.size() <= WORKERS) {
        RunOne(*workers.emplace_back(std::make_unique<Worker>()));
    }
    return (ResidentBytes() - before) / static_cast<double>(WORKERS);
}

// What keeps a worker until it is opened.
class CBarrier {
  public:
    void Add(long) {
        while (!m_bIsOpen.load(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    void Open() { m_bIsOpen.store(true, std::memory_order_release); }

  private:
    std::atomic<bool> m_bIsOpen{false};
};

template <typename Worker>
double EventBytes() {
    CBarrier barrier;
    CTally tally;
    Worker worker;
    RunOne(worker);
    worker.Post(barrier, 0);
    const double before = ResidentBytes();
    for (long i = 0; i < EVENTS; ++i) {
        worker.Post(tally, i);
    }
    const double after = ResidentBytes();
    Check(tally.count() == 0, "all are pending");
    barrier.Open();
    WaitFor(tally, EVENTS, false);
    return (after - before) / static_cast<double>(EVENTS);
}

template <typename Worker>
void StartStopAndJoin(benchmark::State& aState) {
    const Pinned pinned(POSTER_CORE);
    for (auto _ : aState) {
        const Worker worker;
        Touch(&worker);
    }
    CountItems(aState);
}

void AddFreshRow(const char* aWork, const std::string& aWho, double (*aMeasure)()) {
    const std::string strName = aWork + (", " + aWho);
    const FreshMeasurement measurement(strName, aMeasure);
    Row(
        AREA, aWork, aWho,
        [=](benchmark::State& aState) {
            double bytes = 0;
            for (auto _ : aState) {
                bytes = FreshMeasurement::Take(strName);
            }
            CountFigure(aState, BYTES, bytes);
        },
        Clock::FIGURES);
}

template <typename Worker>
void AddRows(const char* aWho) {
    AddFreshRow(WORKER, aWho, WorkerBytes<Worker>);
    AddFreshRow(EVENT, aWho, EventBytes<Worker>);
    Row(AREA, LIFE, aWho, StartStopAndJoin<Worker>, Clock::PROCESS);
}

class CBareThread {
  public:
    CBareThread() : m_Thread([] {}) {}
    ~CBareThread() { m_Thread.join(); }
    CBareThread(const CBareThread&) = delete;
    CBareThread& operator=(const CBareThread&) = delete;

  private:
    std::thread m_Thread;
};

const bool s_bAdded = [] {
    ForEachWorker(
        [](auto aType, const char* aWho) { AddRows<typename decltype(aType)::Type>(aWho); });
    AddRows<CKeltoFrontDoor>("variant: a CCmWorker");
    AddRows<CConditionWorker>(BY_HAND);
    Row(AREA, LIFE, "floor: std::thread", StartStopAndJoin<CBareThread>, Clock::PROCESS);
    return true;
}();

}  // namespace
