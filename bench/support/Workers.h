// Worker threads, ours and those of other libraries, each behind the same few functions.
#ifndef BENCH_SUPPORT_WORKERS_H
#define BENCH_SUPPORT_WORKERS_H

#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "CmEvent.h"
#include "CmEventQueueBase.h"
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

namespace kelto_bench {

// What every posted event does: adds its number on the worker's thread.
class CTally {
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

inline long NowNsec() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What it does in the rows about latency: notes how long ago it was posted.
class CLatencies {
  public:
    explicit CLatencies(size_t aCount) : m_Nsec(aCount) {}
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
class CTask {
  public:
    virtual ~CTask() = default;
    virtual void Run() = 0;
};

template <typename TallyType>
class CAddTask final : public CTask {
  public:
    CAddTask(TallyType& aTally, long aNumber) : m_Tally(aTally), m_lNumber(aNumber) {}
    void Run() override { m_Tally.Add(m_lNumber); }

  private:
    TallyType& m_Tally;
    const long m_lNumber;
};

template <typename Function>
class CFunctionTask final : public CTask {
  public:
    explicit CFunctionTask(Function aFunction) : m_Function(std::move(aFunction)) {}
    void Run() override { m_Function(); }

  private:
    Function m_Function;
};

// Each worker below has one thread that runs what Post hands it.

template <bool WITH_TIMERS>
class CKeltoWorker {
  public:
    CKeltoWorker() {
        Check(CreateUserTaskThread(&m_pThread, UTIL_NS::TF_JOINABLE, WITH_TIMERS, 1) ==
                  UTIL_NS::CM_OK,
              "worker");
        m_pQueue = m_pThread->GetEventQueue();
    }
    ~CKeltoWorker() {
        m_pThread->Stop();
        m_pThread->Join();
        m_pThread->Destory(UTIL_NS::CM_OK);
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_pQueue->PostEvent(new CAddEvent<TallyType>(aTally, aNumber),
                            UTIL_NS::ICmEventQueue::EPRIORITY_NORMAL);
    }
    template <typename Function>
    void PostFunction(Function aFunction) {
        m_pQueue->PostEvent(new CFunctionEvent<Function>(aFunction),
                            UTIL_NS::ICmEventQueue::EPRIORITY_NORMAL);
    }
    void Send(CTally& aTally, long aNumber) {
        Check(m_pQueue->SendEvent(new CAddEvent<CTally>(aTally, aNumber)) == UTIL_NS::CM_OK,
              "send");
    }

  private:
    template <typename TallyType>
    class CAddEvent : public UTIL_NS::ICmEvent {
      public:
        CAddEvent(TallyType& aTally, long aNumber) : m_Tally(aTally), m_lNumber(aNumber) {}
        UTIL_NS::CmResult OnEventFire() override { return m_Tally.Add(m_lNumber), UTIL_NS::CM_OK; }

      private:
        TallyType& m_Tally;
        const long m_lNumber;
    };

    template <typename Function>
    class CFunctionEvent : public UTIL_NS::ICmEvent {
      public:
        explicit CFunctionEvent(Function aFunction) : m_Function(aFunction) {}
        UTIL_NS::CmResult OnEventFire() override { return m_Function(), UTIL_NS::CM_OK; }

      private:
        Function m_Function;
    };

  protected:
    UTIL_NS::ACmThread* m_pThread = nullptr;
    UTIL_NS::ICmEventQueue* m_pQueue = nullptr;
};

using CKelto = CKeltoWorker<false>;
using CKeltoWithTimers = CKeltoWorker<true>;

// The same worker through the front door.
class CKeltoCallable : public CKelto {
  public:
    void Post(CTally& aTally, long aNumber) {
        UTIL_NS::CmPost(*m_pQueue, [&aTally, aNumber] { aTally.Add(aNumber); });
    }
    void Send(CTally& aTally, long aNumber) {
        auto value = UTIL_NS::CmCall(*m_pQueue, [&aTally, aNumber] {
            aTally.Add(aNumber);
            return aNumber;
        });
        Check(value && *value == aNumber, "call");
    }
};

// What a host writes that wants a value back.
class CKeltoValueByHand : public CKelto {
  public:
    void Send(CTally& aTally, long aNumber) {
        long lValue = 0;
        Check(m_pQueue->SendEvent(new CValueEvent(aTally, aNumber, &lValue)) == UTIL_NS::CM_OK,
              "send");
        Check(lValue == aNumber, "value");
    }

  private:
    class CValueEvent : public UTIL_NS::ICmEvent {
      public:
        CValueEvent(CTally& aTally, long aNumber, long* aValue)
            : m_Tally(aTally), m_lNumber(aNumber), m_pValue(aValue) {}
        UTIL_NS::CmResult OnEventFire() override {
            m_Tally.Add(m_lNumber);
            *m_pValue = m_lNumber;
            return UTIL_NS::CM_OK;
        }

      private:
        CTally& m_Tally;
        const long m_lNumber;
        long* m_pValue;
    };
};

// A worker of the front door, with its list of timers.
class CKeltoFrontDoor {
  public:
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        UTIL_NS::CmPost(m_Worker, [&aTally, aNumber] { aTally.Add(aNumber); });
    }
    void Send(CTally& aTally, long aNumber) {
        auto value = UTIL_NS::CmCall(m_Worker, [&aTally, aNumber] {
            aTally.Add(aNumber);
            return aNumber;
        });
        Check(value && *value == aNumber, "call");
    }

  private:
    UTIL_NS::CCmWorker m_Worker;
};

#if KELTO_WITH_LIBUV
// A list under a mutex, and a wake-up of the loop.
class CLibuv {
  public:
    CLibuv() {
        uv_loop_init(&m_Loop);
        uv_async_init(&m_Loop, &m_Wake,
                      [](uv_async_t* aWake) { static_cast<CLibuv*>(aWake->data)->RunAll(); });
        m_Wake.data = this;
        m_Thread = std::thread([this] { uv_run(&m_Loop, UV_RUN_DEFAULT); });
    }
    ~CLibuv() {
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
        std::list<std::unique_ptr<CTask>> node;
        node.push_back(std::make_unique<CAddTask<TallyType>>(aTally, aNumber));
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Tasks.splice(m_Tasks.end(), node);
        }
        uv_async_send(&m_Wake);
    }

  private:
    void RunAll() {
        std::list<std::unique_ptr<CTask>> tasks;
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
    std::list<std::unique_ptr<CTask>> m_Tasks;
    bool m_bEnds = false;
    std::thread m_Thread;
};
#endif

#if KELTO_WITH_BOOST
class CAsio {
  public:
    CAsio() : m_Work(boost::asio::make_work_guard(m_Context)) {
        m_Thread = std::thread([this] { m_Context.run(); });
    }
    ~CAsio() {
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

  private:
    boost::asio::io_context m_Context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_Work;
    std::thread m_Thread;
};
#endif

// What many programs write by hand: no library, and no more than the work of the rows needs.
class CConditionWorker {
  public:
    CConditionWorker() : m_Thread([this] { RunAll(); }) {}
    ~CConditionWorker() {
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_bEnds = true;
        }
        m_Condition.notify_one();
        m_Thread.join();
    }
    CConditionWorker(const CConditionWorker&) = delete;
    CConditionWorker& operator=(const CConditionWorker&) = delete;

    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        PostFunction([&aTally, aNumber] { aTally.Add(aNumber); });
    }
    template <typename Function>
    void PostFunction(Function aFunction) {
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_Functions.emplace_back(std::move(aFunction));
        }
        m_Condition.notify_one();
    }

  private:
    void RunAll() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        for (;;) {
            m_Condition.wait(lock, [this] { return m_bEnds || !m_Functions.empty(); });
            if (m_Functions.empty()) {
                return;
            }
            const std::function<void()> function = std::move(m_Functions.front());
            m_Functions.pop_front();
            lock.unlock();
            function();
            lock.lock();
        }
    }

    std::mutex m_Mutex;
    std::condition_variable m_Condition;
    std::deque<std::function<void()>> m_Functions;
    bool m_bEnds = false;
    std::thread m_Thread;
};

// Workers over a blocking queue of task pointers; null ends them.
template <typename Queue>
class CQueueWorker {
  public:
    CQueueWorker() : m_Thread([this] { RunAll(); }) {}
    ~CQueueWorker() {
        m_Queue.Push(nullptr);
        m_Thread.join();
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_Queue.Push(new CAddTask<TallyType>(aTally, aNumber));
    }
    template <typename Function>
    void PostFunction(Function aFunction) {
        m_Queue.Push(new CFunctionTask<Function>(std::move(aFunction)));
    }

  private:
    void RunAll() {
        while (CTask* pTask = m_Queue.Pop()) {
            pTask->Run();
            delete pTask;
        }
    }

    Queue m_Queue;
    std::thread m_Thread;
};

#if KELTO_WITH_TBB
class CTbbQueue {
  public:
    void Push(CTask* aTask) { m_Queue.push(aTask); }
    CTask* Pop() {
        CTask* pTask = nullptr;
        m_Queue.pop(pTask);
        return pTask;
    }

  private:
    tbb::concurrent_bounded_queue<CTask*> m_Queue;
};
#endif

#if KELTO_WITH_GLIB
class CGlibQueue {
  public:
    ~CGlibQueue() { g_async_queue_unref(m_pQueue); }
    void Push(CTask* aTask) { g_async_queue_push(m_pQueue, aTask != nullptr ? aTask : End()); }
    CTask* Pop() {
        CTask* pTask = static_cast<CTask*>(g_async_queue_pop(m_pQueue));
        return pTask != End() ? pTask : nullptr;
    }

  private:
    // The queue does not take null.
    CTask* End() { return reinterpret_cast<CTask*>(this); }

    GAsyncQueue* m_pQueue = g_async_queue_new();
};
#endif

#if KELTO_WITH_POCO
class CPocoWorker {
  public:
    CPocoWorker() : m_Thread([this] { RunAll(); }) {}
    ~CPocoWorker() {
        m_Queue.enqueueNotification(Poco::makeAuto<CItem>(nullptr));
        m_Thread.join();
    }
    template <typename TallyType>
    void Post(TallyType& aTally, long aNumber) {
        m_Queue.enqueueNotification(
            Poco::makeAuto<CItem>(std::make_unique<CAddTask<TallyType>>(aTally, aNumber)));
    }

  private:
    struct CItem : Poco::Notification {
        explicit CItem(std::unique_ptr<CTask> aTask) : m_pTask(std::move(aTask)) {}
        std::unique_ptr<CTask> m_pTask;
    };

    void RunAll() {
        for (;;) {
            Poco::Notification::Ptr pItem = m_Queue.waitDequeueNotification();
            CTask* pTask = static_cast<CItem*>(pItem.get())->m_pTask.get();
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

// A call that waits, for workers that have none of their own.
template <typename Worker>
class CWithPromise : public Worker {
  public:
    void Send(CTally& aTally, long aNumber) {
        std::promise<void> done;
        Worker::PostFunction([&aTally, aNumber, &done] {
            aTally.Add(aNumber);
            done.set_value();
        });
        done.get_future().wait();
    }
};

// One that brings a value back.
template <typename Worker>
class CWithPromisedValue : public Worker {
  public:
    void Send(CTally& aTally, long aNumber) {
        std::promise<long> value;
        Worker::PostFunction([&aTally, aNumber, &value] {
            aTally.Add(aNumber);
            value.set_value(aNumber);
        });
        Check(value.get_future().get() == aNumber, "value");
    }
};

// ---- All of them.

inline constexpr char BY_HAND[] = "floor: std::deque + condition variable by hand";

template <typename Worker>
struct CWorkerType {
    using Type = Worker;
};

// Calls aVisit(CWorkerType<Worker>(), "what rows call it") for the workers of other libraries.
template <typename Visit>
void ForEachPeer(const Visit& aVisit) {
#if KELTO_WITH_LIBUV
    aVisit(CWorkerType<CLibuv>(), "libuv, list + async");
#endif
#if KELTO_WITH_BOOST
    aVisit(CWorkerType<CAsio>(), "Asio");
#endif
#if KELTO_WITH_TBB
    aVisit(CWorkerType<CQueueWorker<CTbbQueue>>(), "TBB bounded queue");
#endif
#if KELTO_WITH_GLIB
    aVisit(CWorkerType<CQueueWorker<CGlibQueue>>(), "GLib async queue");
#endif
#if KELTO_WITH_POCO
    aVisit(CWorkerType<CPocoWorker>(), "POCO");
#endif
}

// As above, ours first.
template <typename Visit>
void ForEachWorker(const Visit& aVisit) {
    aVisit(CWorkerType<CKelto>(), OURS);
    aVisit(CWorkerType<CKeltoWithTimers>(), "variant: with a timer queue");
    ForEachPeer(aVisit);
}

// As above, those that take any callable.
template <typename Visit>
void ForEachCaller(const Visit& aVisit) {
#if KELTO_WITH_BOOST
    aVisit(CWorkerType<CAsio>(), "Asio");
#endif
#if KELTO_WITH_TBB
    aVisit(CWorkerType<CQueueWorker<CTbbQueue>>(), "TBB bounded queue");
#endif
    aVisit(CWorkerType<CConditionWorker>(), BY_HAND);
}

// ---- Placements.

inline constexpr int WORKER_CORE = 1;
inline constexpr int POSTER_CORE = 0;

// All threads on one core, or the worker on a core of its own.
template <typename Worker>
std::unique_ptr<Worker> PlacedWorker(bool aTwoCores) {
    Pinned::MoveTo(aTwoCores ? WORKER_CORE : POSTER_CORE);
    auto pWorker = std::make_unique<Worker>();
    Pinned::MoveTo(POSTER_CORE);
    return pWorker;
}

inline void WaitFor(const CTally& aTally, long aCount, bool aTwoCores) {
    const timespec nap = {0, 20000};
    while (aTally.count() < aCount) {
        if (!aTwoCores) {
            nanosleep(&nap, nullptr);  // leaves the core to the worker and costs no time of it
        }
    }
}

}  // namespace kelto_bench

#endif  // BENCH_SUPPORT_WORKERS_H
