// Events posted and sent to a worker thread.

#include "CmEventQueueBase.h"

#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CmEvent.h"
#include "CmThread.h"
#include "CmWorker.h"
#include "Row.h"
#if KELTO_WITH_BOOST
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#endif
#if KELTO_WITH_GLIB
#include <glib.h>
#endif
#if KELTO_WITH_LIBUV
#include <uv.h>
#endif
#if KELTO_WITH_POCO
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#endif
#if KELTO_WITH_TBB
#include <tbb/concurrent_queue.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "events";
constexpr int64_t BATCH = 20000;  // events per iteration

// What every posted event does: adds its number on the worker's thread.
class Tally {
  public:
    void Add(long aNumber) {
        m_lSum.store(m_lSum.load(std::memory_order_relaxed) + aNumber, std::memory_order_relaxed);
        m_lCount.store(m_lCount.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    long count() const { return m_lCount.load(std::memory_order_acquire); }
    long sum() const { return m_lSum.load(std::memory_order_relaxed); }

  private:
    std::atomic<long> m_lCount{0};
    std::atomic<long> m_lSum{0};
};

long NowNsec() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What it does in the rows about latency: notes how long ago it was posted.
class Latencies {
  public:
    explicit Latencies(size_t aCount) : m_Nsec(aCount) {}
    void Add(long aPostedNsec) {
        const size_t nCount = m_nCount.load(std::memory_order_relaxed);
        m_Nsec[nCount] = static_cast<double>(NowNsec() - aPostedNsec);
        m_nCount.store(nCount + 1, std::memory_order_release);
    }
    bool AreAllThere() const { return m_nCount.load(std::memory_order_acquire) == m_Nsec.size(); }
    const std::vector<double>& nsec() const { return m_Nsec; }

  private:
    std::vector<double> m_Nsec;
    std::atomic<size_t> m_nCount{0};
};

// The piece of work that peers without one of their own carry: created, run, deleted.
class Task {
  public:
    virtual ~Task() = default;
    virtual void Run() = 0;
};

template <typename TallyType>
class AddTask : public Task {
  public:
    AddTask(TallyType& aTally, long aNumber) : m_Tally(aTally), m_lNumber(aNumber) {}
    void Run() override { m_Tally.Add(m_lNumber); }

  private:
    TallyType& m_Tally;
    const long m_lNumber;
};

// Each worker below has one thread that runs what Post hands it.

template <bool WITH_TIMERS>
class KeltoWorker {
  public:
    KeltoWorker() {
        Check(CreateUserTaskThread(&m_pThread, TF_JOINABLE, WITH_TIMERS, 1) == CM_OK, "worker");
        m_pQueue = m_pThread->GetEventQueue();
    }
    ~KeltoWorker() {
        m_pThread->Stop();
        m_pThread->Join();
        m_pThread->Destory(CM_OK);
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_pQueue->PostEvent(new AddEvent(aTally, aNumber), ICmEventQueue::EPRIORITY_NORMAL);
    }
    template <typename Function>
    void PostFunction(Function aFunction) {
        m_pQueue->PostEvent(new FunctionEvent<Function>(aFunction),
                            ICmEventQueue::EPRIORITY_NORMAL);
    }
    void Send(Tally& aTally, long aNumber) {
        Check(m_pQueue->SendEvent(new AddEvent(aTally, aNumber)) == CM_OK, "send");
    }

  private:
    template <typename TallyType>
    class AddEvent : public ICmEvent {
      public:
        AddEvent(TallyType& aTally, long aNumber) : m_Tally(aTally), m_lNumber(aNumber) {}
        CmResult OnEventFire() override { return m_Tally.Add(m_lNumber), CM_OK; }

      private:
        TallyType& m_Tally;
        const long m_lNumber;
    };

    template <typename Function>
    class FunctionEvent : public ICmEvent {
      public:
        explicit FunctionEvent(Function aFunction) : m_Function(aFunction) {}
        CmResult OnEventFire() override { return m_Function(), CM_OK; }

      private:
        Function m_Function;
    };

  protected:
    ACmThread* m_pThread = nullptr;
    ICmEventQueue* m_pQueue = nullptr;
};

typedef KeltoWorker<false> Kelto;
typedef KeltoWorker<true> KeltoWithTimers;

// The same worker through the front door.
class KeltoCallable : public Kelto {
  public:
    void Post(Tally& aTally, long aNumber) {
        CmPost(*m_pQueue, [&aTally, aNumber] { aTally.Add(aNumber); });
    }
    void Send(Tally& aTally, long aNumber) {
        auto value = CmCall(*m_pQueue, [&aTally, aNumber] {
            aTally.Add(aNumber);
            return aNumber;
        });
        Check(value && *value == aNumber, "call");
    }
};

// What a host writes that wants a value back.
class KeltoValueByHand : public Kelto {
  public:
    void Send(Tally& aTally, long aNumber) {
        long lValue = 0;
        Check(m_pQueue->SendEvent(new ValueEvent(aTally, aNumber, &lValue)) == CM_OK, "send");
        Check(lValue == aNumber, "value");
    }

  private:
    class ValueEvent : public ICmEvent {
      public:
        ValueEvent(Tally& aTally, long aNumber, long* aValue)
            : m_Tally(aTally), m_lNumber(aNumber), m_pValue(aValue) {}
        CmResult OnEventFire() override {
            m_Tally.Add(m_lNumber);
            *m_pValue = m_lNumber;
            return CM_OK;
        }

      private:
        Tally& m_Tally;
        const long m_lNumber;
        long* m_pValue;
    };
};

// A worker of the front door, with its list of timers.
class KeltoFrontDoor {
  public:
    void Post(Tally& aTally, long aNumber) {
        CmPost(m_Worker, [&aTally, aNumber] { aTally.Add(aNumber); });
    }
    void Send(Tally& aTally, long aNumber) {
        auto value = CmCall(m_Worker, [&aTally, aNumber] {
            aTally.Add(aNumber);
            return aNumber;
        });
        Check(value && *value == aNumber, "call");
    }

  private:
    CCmWorker m_Worker;
};

#if KELTO_WITH_LIBUV
// A list under a mutex, and a wake-up of the loop.
class Libuv {
  public:
    Libuv() {
        uv_loop_init(&m_Loop);
        uv_async_init(&m_Loop, &m_Wake,
                      [](uv_async_t* aWake) { static_cast<Libuv*>(aWake->data)->RunAll(); });
        m_Wake.data = this;
        m_Thread = std::thread([this] { uv_run(&m_Loop, UV_RUN_DEFAULT); });
    }
    ~Libuv() {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_bEnds = true;
        }
        uv_async_send(&m_Wake);
        m_Thread.join();
        uv_loop_close(&m_Loop);
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        std::list<std::unique_ptr<Task>> node;
        node.push_back(std::make_unique<AddTask<TallyType>>(aTally, aNumber));
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Tasks.splice(m_Tasks.end(), node);
        }
        uv_async_send(&m_Wake);
    }

  private:
    void RunAll() {
        std::list<std::unique_ptr<Task>> tasks;
        bool bEnds = false;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            tasks.swap(m_Tasks);
            bEnds = m_bEnds;
        }
        while (!tasks.empty()) {
            tasks.front()->Run();
            tasks.pop_front();
        }
        if (bEnds) {
            uv_close(reinterpret_cast<uv_handle_t*>(&m_Wake), nullptr);
        }
    }

    uv_loop_t m_Loop;
    uv_async_t m_Wake;
    std::mutex m_Mutex;
    std::list<std::unique_ptr<Task>> m_Tasks;
    bool m_bEnds = false;
    std::thread m_Thread;
};
#endif

#if KELTO_WITH_BOOST
class Asio {
  public:
    Asio() : m_Work(boost::asio::make_work_guard(m_Context)) {
        m_Thread = std::thread([this] { m_Context.run(); });
    }
    ~Asio() {
        m_Work.reset();
        m_Thread.join();
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        boost::asio::post(m_Context, [&aTally, aNumber] { aTally.Add(aNumber); });
    }
    template <typename Function>
    void PostFunction(Function aFunction) {
        boost::asio::post(m_Context, aFunction);
    }
    void Send(Tally& aTally, long aNumber) {
        std::promise<void> done;
        boost::asio::post(m_Context, [&] {
            aTally.Add(aNumber);
            done.set_value();
        });
        done.get_future().wait();
    }

  protected:
    boost::asio::io_context m_Context;

  private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_Work;
    std::thread m_Thread;
};

class AsioValue : public Asio {
  public:
    void Send(Tally& aTally, long aNumber) {
        std::promise<long> value;
        boost::asio::post(m_Context, [&aTally, aNumber, &value] {
            aTally.Add(aNumber);
            value.set_value(aNumber);
        });
        Check(value.get_future().get() == aNumber, "value");
    }
};
#endif

// Workers over a blocking queue of task pointers; null ends them.
template <typename Queue>
class QueueWorker {
  public:
    QueueWorker() : m_Thread([this] { RunAll(); }) {}
    ~QueueWorker() {
        m_Queue.Push(nullptr);
        m_Thread.join();
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_Queue.Push(new AddTask(aTally, aNumber));
    }

  private:
    void RunAll() {
        while (Task* pTask = m_Queue.Pop()) {
            pTask->Run();
            delete pTask;
        }
    }

    Queue m_Queue;
    std::thread m_Thread;
};

#if KELTO_WITH_TBB
class TbbQueue {
  public:
    void Push(Task* aTask) { m_Queue.push(aTask); }
    Task* Pop() {
        Task* pTask = nullptr;
        m_Queue.pop(pTask);
        return pTask;
    }

  private:
    tbb::concurrent_bounded_queue<Task*> m_Queue;
};
#endif

#if KELTO_WITH_GLIB
class GlibQueue {
  public:
    ~GlibQueue() { g_async_queue_unref(m_pQueue); }
    void Push(Task* aTask) { g_async_queue_push(m_pQueue, aTask != nullptr ? aTask : End()); }
    Task* Pop() {
        Task* pTask = static_cast<Task*>(g_async_queue_pop(m_pQueue));
        return pTask != End() ? pTask : nullptr;
    }

  private:
    // The queue does not take null.
    Task* End() { return reinterpret_cast<Task*>(this); }

    GAsyncQueue* m_pQueue = g_async_queue_new();
};
#endif

#if KELTO_WITH_POCO
class PocoWorker {
  public:
    PocoWorker() : m_Thread([this] { RunAll(); }) {}
    ~PocoWorker() {
        m_Queue.enqueueNotification(new Item(nullptr));
        m_Thread.join();
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_Queue.enqueueNotification(
            new Item(std::make_unique<AddTask<TallyType>>(aTally, aNumber)));
    }

  private:
    struct Item : Poco::Notification {
        explicit Item(std::unique_ptr<Task> aTask) : m_pTask(std::move(aTask)) {}
        std::unique_ptr<Task> m_pTask;
    };

    void RunAll() {
        for (;;) {
            Poco::Notification::Ptr pItem = m_Queue.waitDequeueNotification();
            Task* pTask = static_cast<Item*>(pItem.get())->m_pTask.get();
            if (pTask == nullptr) {
                return;
            }
            pTask->Run();
        }
    }

    Poco::NotificationQueue m_Queue;
    std::thread m_Thread;
};
#endif

// ---- Placements.

constexpr int WORKER_CORE = 1;
constexpr int POSTER_CORE = 0;

// All threads on one core, or the worker on a core of its own.
template <typename Worker>
std::unique_ptr<Worker> PlacedWorker(bool aTwoCores) {
    Pinned::MoveTo(aTwoCores ? WORKER_CORE : POSTER_CORE);
    auto pWorker = std::make_unique<Worker>();
    Pinned::MoveTo(POSTER_CORE);
    return pWorker;
}

void WaitFor(const Tally& aTally, long aCount, bool aTwoCores) {
    const timespec nap = {0, 20000};
    while (aTally.count() < aCount) {
        if (!aTwoCores) {
            nanosleep(&nap, nullptr);  // leaves the core to the worker and costs no time of it
        }
    }
}

// ---- Post to run.

template <typename Worker>
void PostBatch(Worker& aWorker, Tally& aTally, int64_t aCount) {
    for (int64_t i = 1; i <= aCount; ++i) {
        aWorker.Post(aTally, i);
    }
}

template <typename Worker>
void PostToRun(benchmark::State& aState, int aPosters, bool aTwoCores) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(aTwoCores);
    Tally tally;
    const int64_t nEach = BATCH / aPosters;
    long lPosted = 0;
    for (auto _ : aState) {
        if (aPosters == 1) {
            PostBatch(*pWorker, tally, nEach);
        } else {
            std::vector<std::thread> posters;
            for (int i = 0; i < aPosters; ++i) {
                posters.emplace_back([&] { PostBatch(*pWorker, tally, nEach); });
            }
            for (std::thread& poster : posters) {
                poster.join();
            }
        }
        lPosted += nEach * aPosters;
        WaitFor(tally, lPosted, aTwoCores);
    }
    Check(tally.count() == lPosted, "number of events");
    Check(
        tally.sum() == static_cast<long>(aState.iterations()) * aPosters * nEach * (nEach + 1) / 2,
        "sum of events");
    CountItems(aState, nEach * aPosters);
}

template <typename Worker>
void AddPostRow(const char* aArea, const std::string& aWork, int aPosters, bool aTwoCores,
                const char* aWho) {
    Row(
        aArea, aWork, aWho,
        [=](benchmark::State& aState) { PostToRun<Worker>(aState, aPosters, aTwoCores); },
        aTwoCores ? Clock::WALL : Clock::PROCESS);
}

void AddPostRows(const char* aArea, const std::string& aWork, int aPosters, bool aTwoCores) {
    AddPostRow<Kelto>(aArea, aWork, aPosters, aTwoCores, OURS);
    AddPostRow<KeltoWithTimers>(aArea, aWork, aPosters, aTwoCores, "variant: with a timer queue");
#if KELTO_WITH_LIBUV
    AddPostRow<Libuv>(aArea, aWork, aPosters, aTwoCores, "libuv, list + async");
#endif
#if KELTO_WITH_BOOST
    AddPostRow<Asio>(aArea, aWork, aPosters, aTwoCores, "Asio");
#endif
#if KELTO_WITH_TBB
    AddPostRow<QueueWorker<TbbQueue>>(aArea, aWork, aPosters, aTwoCores, "TBB bounded queue");
#endif
#if KELTO_WITH_GLIB
    AddPostRow<QueueWorker<GlibQueue>>(aArea, aWork, aPosters, aTwoCores, "GLib async queue");
#endif
#if KELTO_WITH_POCO
    AddPostRow<PocoWorker>(aArea, aWork, aPosters, aTwoCores, "POCO");
#endif
}

// ---- Post to itself: every event posts the next.

template <typename Worker>
struct Relay {
    void operator()() const {
        m_pTally->Add(m_lLeft);
        if (m_lLeft > 1) {
            m_pWorker->PostFunction(Relay{m_pWorker, m_pTally, m_lLeft - 1});
        }
    }
    Worker* m_pWorker;
    Tally* m_pTally;
    long m_lLeft;
};

template <typename Worker>
void PostToItself(benchmark::State& aState) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(false);
    Tally tally;
    long lPosted = 0;
    for (auto _ : aState) {
        pWorker->PostFunction(Relay<Worker>{pWorker.get(), &tally, BATCH});
        lPosted += BATCH;
        WaitFor(tally, lPosted, false);
    }
    Check(tally.sum() == static_cast<long>(aState.iterations()) * BATCH * (BATCH + 1) / 2,
          "sum of events");
    CountItems(aState, BATCH);
}

template <typename Worker>
void SendAndWait(benchmark::State& aState, bool aTwoCores) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(aTwoCores);
    Tally tally;
    for (auto _ : aState) {
        pWorker->Send(tally, 1);
    }
    Check(tally.sum() == static_cast<long>(aState.iterations()), "sum of events");
    CountItems(aState);
}

// ---- Post beside a busy thread.

constexpr size_t LATENCY_POSTS = 300;
constexpr timespec LATENCY_PAUSE = {0, 3000000};

// A thread that never sleeps, on the worker's core.
class BusyThread {
  public:
    BusyThread() {
        m_Thread = std::thread([this] {
            Pinned::MoveTo(WORKER_CORE);
            while (!m_bEnds.load(std::memory_order_relaxed)) {
            }
        });
    }
    ~BusyThread() {
        m_bEnds.store(true, std::memory_order_relaxed);
        m_Thread.join();
    }
    BusyThread(const BusyThread&) = delete;
    BusyThread& operator=(const BusyThread&) = delete;

  private:
    std::atomic<bool> m_bEnds{false};
    std::thread m_Thread;
};

template <typename Worker>
void PostBesideBusyThread(benchmark::State& aState) {
    const Pinned pinned(POSTER_CORE);
    const auto pWorker = PlacedWorker<Worker>(true);
    const BusyThread busy;
    Latencies latencies(LATENCY_POSTS);
    for (auto _ : aState) {
        for (size_t i = 0; i < LATENCY_POSTS; ++i) {
            nanosleep(&LATENCY_PAUSE, nullptr);
            pWorker->Post(latencies, NowNsec());
        }
        while (!latencies.AreAllThere()) {
            nanosleep(&LATENCY_PAUSE, nullptr);
        }
    }
    CountLatencies(aState, latencies.nsec());
}

template <typename Worker>
void AddBusyRow(const char* aWho) {
    Row(AREA, "post beside a busy thread", aWho, PostBesideBusyThread<Worker>, Clock::LATENCIES);
}

void AddBusyRows() {
    AddBusyRow<Kelto>(OURS);
    AddBusyRow<KeltoWithTimers>("variant: with a timer queue");
#if KELTO_WITH_LIBUV
    AddBusyRow<Libuv>("libuv, list + async");
#endif
#if KELTO_WITH_BOOST
    AddBusyRow<Asio>("Asio");
#endif
#if KELTO_WITH_TBB
    AddBusyRow<QueueWorker<TbbQueue>>("TBB bounded queue");
#endif
#if KELTO_WITH_GLIB
    AddBusyRow<QueueWorker<GlibQueue>>("GLib async queue");
#endif
#if KELTO_WITH_POCO
    AddBusyRow<PocoWorker>("POCO");
#endif
}

template <typename Worker>
void AddCallRow(const char* aWho) {
    Row(
        AREA, "call with a value, one core", aWho,
        [](benchmark::State& aState) { SendAndWait<Worker>(aState, false); }, Clock::PROCESS);
}

void AddCallableRows() {
    const std::string sWork = "posted callable, 1 poster, one core";
    AddPostRow<KeltoCallable>(AREA, sWork, 1, false, OURS);
    AddPostRow<Kelto>(AREA, sWork, 1, false, "variant: an event written by hand");
    AddPostRow<KeltoFrontDoor>(AREA, sWork, 1, false, "variant: to a CCmWorker");
    AddPostRow<KeltoWithTimers>(AREA, sWork, 1, false, "variant: by hand, with a timer queue");
    AddCallRow<KeltoCallable>(OURS);
    AddCallRow<KeltoValueByHand>("variant: a send written by hand");
    AddCallRow<KeltoFrontDoor>("variant: to a CCmWorker");
#if KELTO_WITH_LIBUV
    AddPostRow<Libuv>(AREA, sWork, 1, false, "libuv, list + async");
#endif
#if KELTO_WITH_BOOST
    AddPostRow<Asio>(AREA, sWork, 1, false, "Asio");
    AddCallRow<AsioValue>("Asio + promise");
#endif
}

// ---- One poster, many workers.

void PostToWorkers(benchmark::State& aState, int aWorkers) {
    const Pinned pinned(POSTER_CORE);
    std::vector<std::unique_ptr<Kelto>> workers;
    std::vector<Tally> tallies(static_cast<size_t>(aWorkers));
    for (int i = 0; i < aWorkers; ++i) {
        workers.push_back(PlacedWorker<Kelto>(false));
    }
    const long lEach = BATCH / aWorkers;
    long lPosted = 0;
    for (auto _ : aState) {
        for (long i = 0; i < lEach; ++i) {
            for (size_t nWorker = 0; nWorker < workers.size(); ++nWorker) {
                workers[nWorker]->Post(tallies[nWorker], 1);
            }
        }
        lPosted += lEach;
        for (const Tally& tally : tallies) {
            WaitFor(tally, lPosted, false);
        }
    }
    CountItems(aState, lEach * aWorkers);
}

const bool s_bAdded = [] {
    AddPostRows(AREA, "post to run, 1 poster, one core", 1, false);
    AddPostRows(AREA, "post to run, 4 posters, one core", 4, false);
    AddCallableRows();
    if (std::thread::hardware_concurrency() > 1) {
        AddPostRows(AREA, "post to run, 1 poster, two cores", 1, true);
        AddBusyRows();
        Row(
            AREA, "synchronous send, two cores", OURS,
            [](benchmark::State& aState) { SendAndWait<Kelto>(aState, true); }, Clock::WALL);
#if KELTO_WITH_BOOST
        Row(
            AREA, "synchronous send, two cores", "Asio + promise",
            [](benchmark::State& aState) { SendAndWait<Asio>(aState, true); }, Clock::WALL);
#endif
    }
    Row(AREA, "post to itself", OURS, PostToItself<Kelto>, Clock::PROCESS);
    Row(
        AREA, "synchronous send, one core", OURS,
        [](benchmark::State& aState) { SendAndWait<Kelto>(aState, false); }, Clock::PROCESS);
#if KELTO_WITH_BOOST
    Row(AREA, "post to itself", "Asio", PostToItself<Asio>, Clock::PROCESS);
    Row(
        AREA, "synchronous send, one core", "Asio + promise",
        [](benchmark::State& aState) { SendAndWait<Asio>(aState, false); }, Clock::PROCESS);
#endif
    for (int nPosters : {1, 2, 4, 8, 16}) {
        AddPostRows("growth: post to run on one core, over posters", std::to_string(nPosters),
                    nPosters, false);
    }
    for (int nWorkers : {1, 4, 16, 64}) {
        Row(
            "growth: post to run on one core, over workers", std::to_string(nWorkers), OURS,
            [=](benchmark::State& aState) { PostToWorkers(aState, nWorkers); }, Clock::PROCESS);
    }
    return true;
}();

}  // namespace
