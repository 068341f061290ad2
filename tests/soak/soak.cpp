// Posters, senders, timers, stops and destructions at random moments, for as many events as the
// command line says:
//
//   soak 1000000           a million events
//   soak 500000000 7       with seed 7
//   soak 500000000 1 3600  for at most an hour
//
// Rounds follow each other, each with a worker and four to eight other threads. At the end of a
// round the books must balance: every event was refused, fired, ended without firing; each ended
// once; those of one poster fired in their order. Prints what was done; the exit status is 1 at the
// first thing that does not hold.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "CmThread.h"
#include "CmTrace.h"

namespace {

using namespace UTIL_NS;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr CmResult RESULT = 4711;
constexpr int MOST_POSTERS = 8;

void Require(bool aHolds, const char* aWhat) {
    if (!aHolds) {
        std::fprintf(stderr, "does not hold: %s\n", aWhat);
        std::exit(1);
    }
}

// The books of one round.
struct Books {
    std::atomic<long> posted{0};
    std::atomic<long> refused{0};
    std::atomic<long> fired{0};
    std::atomic<long> endedUnfired{0};
    std::atomic<long> ended{0};
    std::atomic<long> timeouts{0};
    long next[MOST_POSTERS] = {};  // worker thread only
};

class BookedEvent : public ICmEvent {
  public:
    BookedEvent(Books& aBooks, int aPoster, long aNumber)
        : m_books(aBooks), m_nPoster(aPoster), m_lNumber(aNumber) {
        m_books.posted.fetch_add(1, std::memory_order_relaxed);
    }
    CmResult OnEventFire() override {
        Require(!m_bFired, "an event fires once");
        m_bFired = true;
        if (m_nPoster >= 0) {
            Require(m_books.next[m_nPoster] <= m_lNumber, "the order of a poster is kept");
            m_books.next[m_nPoster] = m_lNumber + 1;
        }
        m_books.fired.fetch_add(1, std::memory_order_relaxed);
        return RESULT;
    }
    void OnDestorySelf() override {
        if (!m_bFired) {
            m_books.endedUnfired.fetch_add(1, std::memory_order_relaxed);
        }
        // Orders the books before their end, which follows a look at this count.
        m_books.ended.fetch_add(1, std::memory_order_acq_rel);
        delete this;
    }

  private:
    Books& m_books;
    const int m_nPoster;  // -1: a sender
    const long m_lNumber;
    bool m_bFired = false;
};

// Timers of the worker itself; they reschedule and cancel each other.
class Timers : public ICmTimerHandler {
  public:
    explicit Timers(Books& aBooks) : m_books(aBooks) {}
    virtual ~Timers() = default;
    void OnTimeout(const CCmTimeValue& /*aNow*/, void* aToken) override {
        m_books.timeouts.fetch_add(1, std::memory_order_relaxed);
        auto* pQueue = static_cast<ICmTimerQueue*>(aToken);
        pQueue->ScheduleTimer(this, pQueue, CCmTimeValue(0, 200 + m_books.timeouts % 7 * 100), 0);
    }

  private:
    Books& m_books;
};

class StartTimers : public ICmEvent {
  public:
    StartTimers(ACmThread* aWorker, Timers* aTimers) : m_pWorker(aWorker), m_pTimers(aTimers) {}
    CmResult OnEventFire() override {
        ICmTimerQueue* pQueue = m_pWorker->GetTimerQueue();
        return pQueue->ScheduleTimer(m_pTimers, pQueue, CCmTimeValue(0, 300), 0);
    }

  private:
    ACmThread* m_pWorker;
    Timers* m_pTimers;
};

void Ignore(int /*aSignal*/) {}

class Soak {
  public:
    Soak(long aEvents, unsigned aSeed, long aSeconds)
        : m_lWanted(aEvents),
          m_random(aSeed),
          m_deadline(std::chrono::steady_clock::now() + std::chrono::seconds(aSeconds)) {}

    void Run() {
        while (m_lEvents < m_lWanted && std::chrono::steady_clock::now() < m_deadline) {
            Round();
            ++m_lRounds;
        }
        std::printf(
            "%ld events in %ld rounds: %ld refused, %ld fired, %ld ended unfired, "
            "%ld timeouts, %ld sends\n",
            m_lEvents, m_lRounds, m_lRefused, m_lFired, m_lUnfired, m_lTimeouts, m_lSends.load());
    }

  private:
    long Pick(long aBelow) { return static_cast<long>(m_random() % static_cast<unsigned>(aBelow)); }

    void Round() {
        Books books;
        Timers timers(books);
        const bool bDetached = Pick(4) == 0;
        // The timers must outlive the worker, whose end only a join tells.
        const bool bWithTimers = !bDetached && Pick(3) != 0;
        ACmThread* pWorker = nullptr;
        Require(CreateUserTaskThread(&pWorker, bDetached ? TF_DETACHED : TF_JOINABLE, bWithTimers,
                                     1) == CM_OK,
                "a worker starts");
        if (bWithTimers) {
            pWorker->GetEventQueue()->SendEvent(new StartTimers(pWorker, &timers));
        }
        const int nPosters = 3 + static_cast<int>(Pick(5));
        const long lEach = 1 + Pick(4000);
        const bool bStopEarly = Pick(2) == 0;
        std::atomic<bool> bDone{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < nPosters; ++i) {
            threads.emplace_back([&, i] { Post(books, pWorker->GetEventQueue(), i, lEach); });
        }
        std::thread sender([&] { Send(books, pWorker->GetEventQueue(), 1 + lEach / 20); });
        std::thread storm([&] {
            while (!bDone) {
                pthread_kill(sender.native_handle(), SIGUSR1);
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
        if (bStopEarly) {
            std::this_thread::sleep_for(std::chrono::microseconds(Pick(3000)));
            Require(pWorker->Stop(nullptr) == CM_OK, "a worker stops");
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        bDone = true;
        storm.join();
        sender.join();
        if (!bStopEarly) {
            Require(pWorker->Stop(nullptr) == CM_OK, "a worker stops");
        }
        if (!bDetached) {
            Require(pWorker->Join() == CM_OK, "a worker can be joined");
        }
        Require(pWorker->Destory(0) == CM_OK, "a worker ends");
        Balance(books, bDetached);
    }

    static void Post(Books& aBooks, ICmEventQueue* aQueue, int aPoster, long aEvents) {
        for (long i = 0; i < aEvents; ++i) {
            const CmResult rv = aQueue->PostEvent(new BookedEvent(aBooks, aPoster, i), NORMAL);
            if (rv != CM_OK) {
                Require(rv == CM_ERROR_NOT_INITIALIZED, "a stopped queue refuses");
                aBooks.refused.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }

    void Send(Books& aBooks, ICmEventQueue* aQueue, long aEvents) {
        for (long i = 0; i < aEvents; ++i) {
            const CmResult rv = aQueue->SendEvent(new BookedEvent(aBooks, -1, i));
            ++m_lSends;
            if (rv == CM_ERROR_NOT_INITIALIZED) {
                aBooks.refused.fetch_add(1, std::memory_order_relaxed);
            } else {
                Require(rv == RESULT || rv == CM_ERROR_NOT_AVAILABLE, "a send has its result");
            }
        }
    }

    // Nothing is pending any more. A detached worker may take a moment to end.
    void Balance(const Books& aBooks, bool aDetached) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (aDetached && aBooks.ended < aBooks.posted &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        Require(aBooks.posted == aBooks.fired + aBooks.endedUnfired,
                "every event is accounted for");
        Require(aBooks.posted == aBooks.ended, "every event ended once");
        Require(aBooks.refused <= aBooks.endedUnfired, "what is refused does not fire");
        m_lEvents += aBooks.posted;
        m_lRefused += aBooks.refused;
        m_lFired += aBooks.fired;
        m_lUnfired += aBooks.endedUnfired - aBooks.refused;
        m_lTimeouts += aBooks.timeouts;
    }

    const long m_lWanted;
    std::mt19937 m_random;
    const std::chrono::steady_clock::time_point m_deadline;
    long m_lEvents = 0;
    long m_lRounds = 0;
    long m_lRefused = 0;
    long m_lFired = 0;
    long m_lUnfired = 0;
    long m_lTimeouts = 0;
    std::atomic<long> m_lSends{0};
};

void DropLine(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {}

}  // namespace

int main(int argc, char** argv) {
    const long lEvents = argc > 1 ? std::atol(argv[1]) : 1000000;
    const unsigned dwSeed = argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : 1;
    const long lSeconds = argc > 3 ? std::atol(argv[3]) : 1000000;
    set_util_external_trace_sink(DropLine);
    struct sigaction action = {};
    action.sa_handler = Ignore;  // without SA_RESTART: calls are interrupted
    sigaction(SIGUSR1, &action, nullptr);
    Soak(lEvents, dwSeed, lSeconds).Run();
    return 0;
}
