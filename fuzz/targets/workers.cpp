// A whole life of workers by an operation string: of up to two at a time, each of any kind, events
// are posted and sent by this thread and by others, timers run, and it is stopped, joined,
// terminated and destroyed in any order that the interface allows. At the end every event has
// ended once, and has fired where it had to.
#include <sched.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "../Fuzz.h"
#include "CmScopedLock.h"
#include "CmThread.h"
#include "CmWorker.h"
#include "support/Clock.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;
constexpr CmResult RESULT = 4711;
constexpr int THREAD_TYPE = 7;
constexpr size_t MOST_ENTRIES = 2048;
constexpr int MOST_OPERATIONS = 48;
constexpr int MOST_THREADS = 6;  // that are started beside the workers
constexpr int POSTS_OF_A_THREAD = 6;
constexpr size_t WORKERS = 2;
constexpr size_t TIMERS = 3;
constexpr long START_SEC = 1000000000;
constexpr long long USEC_PER_SEC = 1000000;
constexpr auto LONGEST_END = std::chrono::seconds(20);

// What became of an event.
struct CEntry {
    std::atomic<int> m_nFired{0};
    std::atomic<int> m_nEnded{0};
};

// All events of a run. They are taken by any thread.
class CBook {
  public:
    // Null when the book is full.
    CEntry* Take() {
        const size_t nEntry = m_nTaken.fetch_add(1);
        return nEntry < MOST_ENTRIES ? &m_entries[nEntry] : nullptr;
    }
    void Check() const {
        for (size_t i = 0; i < MOST_ENTRIES && i < m_nTaken.load(); ++i) {
            Require(m_entries[i].m_nEnded.load() == 1, "an event ends once");
            Require(m_entries[i].m_nFired.load() <= 1, "an event fires at most once");
        }
    }

  private:
    std::array<CEntry, MOST_ENTRIES> m_entries;
    std::atomic<size_t> m_nTaken{0};
};

enum EAction { ACTION_NONE, ACTION_POST_FIRING, ACTION_POST_ENDING, ACTION_YIELD, ACTION_COUNT };

// What an event has to do with beside its entry; outlives the queue.
struct CConsumer {
    CBook* m_pBook = nullptr;
    std::atomic<int> m_nNext{0};  // number of the next event in order
    std::atomic<ACmThread*> m_pRegistered{
        nullptr};  // whose thread the events run on, until its end
};

class CLifeEvent : public ICmEvent {
  public:
    // aNumber: negative for one whose place in the order is not known.
    CLifeEvent(CConsumer& aConsumer, ICmEventQueue* aQueue, CEntry* aEntry, int aNumber,
               EAction aAction)
        : m_consumer(aConsumer),
          m_pQueue(aQueue),
          m_pEntry(aEntry),
          m_nNumber(aNumber),
          m_eAction(aAction) {}

    CmResult OnEventFire() override {
        Require(m_pEntry->m_nEnded.load() == 0, "an event fires before it ends");
        m_pEntry->m_nFired.fetch_add(1);
        if (m_nNumber >= 0) {
            Require(m_consumer.m_nNext.load() <= m_nNumber, "events fire in the order of posting");
            m_consumer.m_nNext.store(m_nNumber + 1);
        }
        ACmThread* pRegistered = m_consumer.m_pRegistered.load();
        Require(pRegistered == nullptr || getCurrentThread() == pRegistered ||
                    m_consumer.m_pRegistered.load() == nullptr,
                "an event fires on the thread of its queue");
        if (m_eAction == ACTION_POST_FIRING) {
            PostChild();
        } else if (m_eAction == ACTION_YIELD) {
            sched_yield();
        }
        return RESULT;
    }
    void OnDestorySelf() override {
        if (m_eAction == ACTION_POST_ENDING) {
            PostChild();
        }
        m_pEntry->m_nEnded.fetch_add(1);
        delete this;
    }

  private:
    void PostChild() {
        if (CEntry* pEntry = m_consumer.m_pBook->Take()) {
            const CmResult rv = m_pQueue->PostEvent(
                new CLifeEvent(m_consumer, m_pQueue, pEntry, -1, ACTION_NONE), NORMAL);
            Require(rv == CM_OK || rv == CM_ERROR_NOT_INITIALIZED, "the result of a post");
            Require(rv == CM_OK || pEntry->m_nFired.load() == 0, "what is refused does not fire");
        }
    }

    CConsumer& m_consumer;
    ICmEventQueue* m_pQueue;
    CEntry* m_pEntry;
    const int m_nNumber;
    const EAction m_eAction;
};

// A base that ends after the thread object, whose end a detached thread tells by it.
class CEndSignal {
  public:
    explicit CEndSignal(std::atomic<bool>& aEnded) : m_bEnded(aEnded) {}
    ~CEndSignal() { m_bEnded.store(true); }

  private:
    std::atomic<bool>& m_bEnded;
};

template <class Thread>
class CLifeThreadT : private CEndSignal, public Thread {
  public:
    CLifeThreadT(std::atomic<bool>& aEnded, bool aFails) : CEndSignal(aEnded), m_bFails(aFails) {}
    void OnThreadInit() override {
        Thread::OnThreadInit();
        if (m_bFails) {
            this->SetInitResult(CM_ERROR_NOT_AVAILABLE);
        }
    }

  private:
    const bool m_bFails;
};

long long s_llNowUsec = 0;

// A timer and what it should do. Its model is touched by this program's own thread alone.
class CLifeTimer : public ICmTimerHandler {
  public:
    enum EReply { REPLY_NONE, REPLY_CANCEL, REPLY_AGAIN, REPLY_COUNT };
    static constexpr long long AGAIN_USEC = 30000;

    virtual ~CLifeTimer() = default;

    void OnTimeout(const CCmTimeValue& /*aNow*/, void* aToken) override {
        Require(aToken == this, "the token comes back");
        m_nFired.fetch_add(1);
        if (m_eReply == REPLY_CANCEL) {
            const CmResult rv = m_pQueue->CancelTimer(this);
            Require(rv == (m_bLast ? CM_ERROR_NOT_FOUND : CM_OK), "a timer cancels itself");
        } else if (m_eReply == REPLY_AGAIN) {
            const CmResult rv = m_pQueue->ScheduleTimer(this, this, Interval(AGAIN_USEC), 1);
            Require(rv == (m_bLast ? CM_OK : CM_ERROR_FOUND), "a timer schedules itself");
        }
    }

    // On the thread of the queue, as the next one.
    void Schedule(ICmTimerQueue* aQueue, long long aInterval, unsigned aCount, EReply aReply) {
        const bool bValid = aInterval > 0 || aCount == 1;
        if (bValid) {
            m_eReply = aReply;
            m_pQueue = aQueue;
            m_bLast = aCount == 1;
        }
        const CmResult rv = aQueue->ScheduleTimer(this, this, Interval(aInterval), aCount);
        if (!bValid) {
            Require(rv == CM_ERROR_INVALID_ARG, "no timer without an interval repeats");
            return;
        }
        Require(rv == (m_bPending ? CM_ERROR_FOUND : CM_OK), "the result of a schedule");
        m_bPending = true;
        m_llExpiry = s_llNowUsec + aInterval;
        m_llInterval = aInterval;
        m_dwCount = aCount;
    }
    void Cancel(ICmTimerQueue* aQueue) {
        const CmResult rv = aQueue->CancelTimer(this);
        Require(rv == (m_bPending ? CM_OK : CM_ERROR_NOT_FOUND), "the result of a cancellation");
        m_bPending = false;
    }
    // The queue's thread has looked at its timers since the clock went on.
    void Check() {
        if (m_bPending && m_llExpiry <= s_llNowUsec) {
            ++m_nExpected;
            const bool bLast = m_dwCount == 1;
            if (m_eReply == REPLY_AGAIN) {
                // What it has scheduled is the last one.
                m_llExpiry = s_llNowUsec + AGAIN_USEC;
                m_llInterval = AGAIN_USEC;
                m_dwCount = 1;
            } else if (bLast || m_eReply == REPLY_CANCEL) {
                m_bPending = false;
            } else {
                m_llExpiry += ((s_llNowUsec - m_llExpiry) / m_llInterval + 1) * m_llInterval;
                m_dwCount -= m_dwCount != 0 ? 1 : 0;
            }
        }
        Require(m_nFired.load() == m_nExpected, "a timer fires as often as it is due");
        m_bLast = m_dwCount == 1;
    }

  private:
    static CCmTimeValue Interval(long long aUsec) {
        return CCmTimeValue(static_cast<long>(aUsec / USEC_PER_SEC),
                            static_cast<long>(aUsec % USEC_PER_SEC));
    }

    std::atomic<int> m_nFired{0};
    EReply m_eReply = REPLY_NONE;
    ICmTimerQueue* m_pQueue = nullptr;
    // Whether the next firing is the last; written while the queue's thread is known to be done
    // with the timers.
    std::atomic<bool> m_bLast{false};

    bool m_bPending = false;
    long long m_llExpiry = 0;
    long long m_llInterval = 0;
    unsigned m_dwCount = 0;
    int m_nExpected = 0;
};

// One worker and what is known of it.
class CLife {
  public:
    enum EKind { TASK, QUEUE_ONLY, HEARTBEAT, OBJECT, KIND_COUNT };

    CLife(CBook& aBook, unsigned aKind, bool aDetached, bool aFails)
        : m_book(aBook),
          m_eKind(static_cast<EKind>(aKind % KIND_COUNT)),
          m_bDetached(aDetached && m_eKind <= QUEUE_ONLY),
          m_bFails(aFails && m_eKind <= QUEUE_ONLY) {
        m_consumer.m_pBook = &aBook;
        switch (m_eKind) {
            case TASK:
                m_pThread = new CLifeThreadT<CCmThreadTask>(m_bEnded, m_bFails);
                break;
            case QUEUE_ONLY:
                m_pThread = new CLifeThreadT<CCmThreadTaskWithEventQueueOnly>(m_bEnded, m_bFails);
                break;
            case HEARTBEAT:
                m_pThread = new CLifeThreadT<CCmThreadHeartBeat>(m_bEnded, false);
                break;
            default:
                m_pObject = std::make_unique<CCmWorker>(CCmWorkerOptions().Name("life"));
                Require(m_pObject->Result() == CM_OK, "a worker starts");
                m_pThread = m_pObject->GetThread();
                m_bRuns = true;
        }
        m_pQueue = m_pThread->GetEventQueue();
    }
    ~CLife() { End(); }
    CLife(const CLife&) = delete;
    CLife& operator=(const CLife&) = delete;

    bool HasEnded() const { return m_bClosed; }

    void Create(bool aRegister) {
        if (m_eKind == OBJECT) {
            return;
        }
        const bool bAgain = m_bCreated;
        const CmResult rv =
            m_pThread->Create(m_eKind == HEARTBEAT ? TT_MAIN : THREAD_TYPE,
                              m_bDetached ? TF_DETACHED : TF_JOINABLE, aRegister ? 1 : 0);
        if (bAgain) {
            Require(rv == CM_ERROR_ALREADY_INITIALIZED, "a thread object is created once");
            return;
        }
        m_bCreated = true;
        Require(rv == (m_bFails ? CM_ERROR_NOT_AVAILABLE : CM_OK), "the result of a creation");
        m_bRuns = !m_bFails;
        if (m_eKind == HEARTBEAT) {
            m_pThread->OnThreadInit();
        } else if (aRegister && m_bRuns) {
            // Only now: what is pending may run before the thread is registered.
            m_consumer.m_pRegistered.store(m_pThread);
        }
    }

    void Post(unsigned aCount, EAction aAction) {
        for (unsigned i = 0; i < aCount; ++i) {
            CEntry* pEntry = m_book.Take();
            if (pEntry == nullptr) {
                return;
            }
            const CmResult rv = m_pQueue->PostEvent(
                new CLifeEvent(m_consumer, m_pQueue, pEntry, m_nPosted++, aAction), NORMAL);
            Require(rv == (m_bStopped ? CM_ERROR_NOT_INITIALIZED : CM_OK), "a stop ends posts");
            Note(pEntry, rv);
        }
        Require(m_pQueue->PostEvent(nullptr, NORMAL) == CM_ERROR_INVALID_ARG, "no event");
    }

    void Send() {
        CEntry* pEntry = CanSend() ? m_book.Take() : nullptr;
        if (pEntry == nullptr) {
            return;
        }
        const CmResult rv =
            m_pQueue->SendEvent(new CLifeEvent(m_consumer, m_pQueue, pEntry, -1, ACTION_NONE));
        Require(rv == (m_bStopped ? CM_ERROR_NOT_INITIALIZED : RESULT), "the result of a send");
        Require(pEntry->m_nFired.load() == (m_bStopped ? 0 : 1), "a send fires before it returns");
    }

    // A thread that posts or sends while this one goes on.
    void StartThread(bool aSends) {
        if (m_threads.size() == MOST_THREADS || (aSends && (!CanSend() || m_eKind == HEARTBEAT))) {
            return;
        }
        std::vector<CEntry*> entries;
        for (int i = 0; i < POSTS_OF_A_THREAD; ++i) {
            if (CEntry* pEntry = m_book.Take()) {
                entries.push_back(pEntry);
                m_others.push_back({pEntry, std::make_unique<std::atomic<CmResult>>(CM_OK)});
            }
        }
        std::vector<std::atomic<CmResult>*> results;
        for (size_t i = m_others.size() - entries.size(); i < m_others.size(); ++i) {
            results.push_back(m_others[i].m_pResult.get());
        }
        m_threads.emplace_back([this, aSends, entries, results] {
            for (size_t i = 0; i < entries.size(); ++i) {
                ICmEvent* pEvent =
                    new CLifeEvent(m_consumer, m_pQueue, entries[i], -1, ACTION_YIELD);
                const CmResult rv =
                    aSends ? m_pQueue->SendEvent(pEvent) : m_pQueue->PostEvent(pEvent, NORMAL);
                Require(rv == (aSends ? RESULT : CM_OK) || rv == CM_ERROR_NOT_INITIALIZED ||
                            (aSends && rv == CM_ERROR_NOT_AVAILABLE),
                        "the result on another thread");
                results[i]->store(rv);
            }
        });
    }

    void Schedule(size_t aTimer, long long aInterval, unsigned aCount, CLifeTimer::EReply aReply) {
        OnItsThread([=](ICmTimerQueue* aQueue) {
            m_timers[aTimer].Schedule(aQueue, aInterval, aCount, aReply);
        });
    }
    void Cancel(size_t aTimer) {
        OnItsThread([=](ICmTimerQueue* aQueue) { m_timers[aTimer].Cancel(aQueue); });
    }
    // The clock has gone on, or timers have been scheduled.
    void CheckTimers() {
        if (!HasTimers()) {
            return;
        }
        if (m_eKind == HEARTBEAT) {
            HeartBeat();
            return;
        }
        // The second one is taken out of the queue after the timers have been looked at.
        Send();
        Send();
        for (CLifeTimer& timer : m_timers) {
            timer.Check();
        }
    }
    void HeartBeat() {
        if (m_eKind == HEARTBEAT && m_bRuns) {
            static_cast<CCmThreadHeartBeat*>(m_pThread)->DoHeartBeat();
            for (CLifeTimer& timer : m_timers) {
                timer.Check();
            }
            m_nBeaten = m_accepted.size();
        }
    }

    void Stop() {
        if (m_eKind == OBJECT) {
            Require(m_pObject->Stop() == CM_OK, "a worker stops");
            m_bStopped = true;
            return;
        }
        const CmResult rv = m_pThread->Stop(nullptr);
        if (m_eKind == HEARTBEAT) {
            Require(rv == CM_OK, "a heart beat is stopped by not calling it");
            return;
        }
        Require(rv == (m_bStopped ? CM_ERROR_NOT_INITIALIZED : CM_OK), "the result of a stop");
        m_bStopped = true;
    }
    void StopNow() {
        if (m_eKind == OBJECT) {
            Require(m_pObject->StopNow() == CM_OK, "a worker stops at once");
            m_bStopped = m_bCutOff = true;
        }
    }
    void Drain() {
        if (m_eKind == OBJECT) {
            const CmResult rv = m_pObject->Drain();
            Require(rv == (m_bJoined || m_bStopped ? CM_ERROR_NOT_INITIALIZED : CM_OK),
                    "the result of a drain");
        }
    }
    // Joins where that returns.
    void Join() {
        if (m_eKind == OBJECT) {
            if (m_bStopped) {
                Require(m_pObject->Join() == CM_OK, "a stopped worker is joined");
                m_bJoined = true;
            }
        } else if (m_eKind == HEARTBEAT && m_bCreated) {
            Require(m_pThread->Join() == CM_ERROR_FAILURE, "nobody joins himself");
        } else if (m_bDetached || !m_bRuns || m_bStopped || m_bTerminated) {
            Require(m_pThread->Join() == CM_OK, "the result of a join");
            m_bJoined = m_bRuns && !m_bDetached;
        }
    }
    void Terminate() {
        if (m_eKind == OBJECT) {
            return;
        }
        JoinThreads();
        const CmResult rv = m_pThread->Terminate();
        if (m_eKind == HEARTBEAT || !m_bCreated) {
            Require(rv == CM_ERROR_FAILURE, "there is nothing to cancel");
            return;
        }
        // One that was stopped or cancelled may be gone.
        Require(rv == 0 || m_bStopped || m_bTerminated || m_bFails, "a thread is cancelled");
        m_bTerminated = m_bTerminated || m_bRuns;
    }
    void SetStop() {
        m_pThread->SetStop();
        Require(m_pThread->GetStopFlag(), "the flag is set");
    }

    // What an owner does at the end, from any state on.
    void End() {
        if (m_bClosed) {
            return;
        }
        m_bClosed = true;
        if (m_bRuns && !m_bStopped && !m_bTerminated && m_eKind != HEARTBEAT) {
            Stop();
        }
        JoinThreads();
        if (m_eKind == OBJECT) {
            m_pObject.reset();
        } else {
            Join();
            m_consumer.m_pRegistered.store(nullptr);
            Require(m_pThread->Destory(CM_OK) == CM_OK, "the result of an end");
            const auto start = std::chrono::steady_clock::now();
            while (!m_bEnded.load()) {
                Require(std::chrono::steady_clock::now() - start < LONGEST_END,
                        "a detached thread ends");
                std::this_thread::yield();
            }
        }
        CheckAccepted();
    }

  private:
    struct COther {
        CEntry* m_pEntry;
        std::unique_ptr<std::atomic<CmResult>> m_pResult;
    };

    void Note(CEntry* aEntry, CmResult aResult) {
        if (aResult == CM_OK) {
            m_accepted.push_back(aEntry);
        } else {
            Require(aEntry->m_nFired.load() == 0 && aEntry->m_nEnded.load() == 1,
                    "what is refused has ended");
        }
    }
    // Whether a send returns.
    bool CanSend() const { return m_bStopped || (m_bRuns && !m_bTerminated); }
    bool HasTimers() const {
        return m_bRuns && !m_bStopped && !m_bTerminated && m_eKind != QUEUE_ONLY &&
               m_eKind != OBJECT;
    }
    template <class Function>
    void OnItsThread(Function aFunction) {
        if (!HasTimers()) {
            return;
        }
        if (m_eKind == HEARTBEAT) {
            aFunction(m_pThread->GetTimerQueue());
            return;
        }
        CmCall(*m_pThread, [&] { aFunction(m_pThread->GetTimerQueue()); });
        CheckTimers();
    }
    void JoinThreads() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
    }
    // After the end: what was accepted has fired where the thread ran to its end, and nothing has
    // where it never ran.
    void CheckAccepted() {
        for (const COther& other : m_others) {
            // What was posted while the worker was stopped may end either way.
            const CmResult rv = other.m_pResult->load();
            const int nFired = other.m_pEntry->m_nFired.load();
            Require(rv == CM_OK || nFired == (rv == RESULT ? 1 : 0), "the result tells what fired");
            Require(m_bRuns || nFired == 0, "nothing fires without a thread");
        }
        for (size_t i = 0; i < m_accepted.size(); ++i) {
            const int nFired = m_accepted[i]->m_nFired.load();
            Require(m_accepted[i]->m_nEnded.load() == 1, "what was accepted has ended");
            if (!m_bRuns) {
                Require(nFired == 0, "nothing fires without a thread");
            } else if (m_eKind == HEARTBEAT) {
                Require(nFired == 1 || i >= m_nBeaten, "a heart beat fires what is pending");
            } else if (!m_bTerminated && !m_bCutOff) {
                Require(nFired == 1, "what was posted before the stop has fired");
            }
        }
    }

    CBook& m_book;
    const EKind m_eKind;
    const bool m_bDetached;
    const bool m_bFails;
    CConsumer m_consumer;
    std::atomic<bool> m_bEnded{false};
    std::unique_ptr<CCmWorker> m_pObject;
    ACmThread* m_pThread = nullptr;
    ICmEventQueue* m_pQueue = nullptr;
    std::array<CLifeTimer, TIMERS> m_timers;
    std::vector<CEntry*> m_accepted;  // posts of this thread, in order
    std::vector<COther> m_others;     // posts and sends of others
    std::vector<std::thread> m_threads;
    size_t m_nBeaten = 0;  // of the accepted, how many a heart beat has met
    int m_nPosted = 0;
    bool m_bCreated = false;
    bool m_bRuns = false;  // its thread has started, or was adopted
    bool m_bStopped = false;
    bool m_bCutOff = false;
    bool m_bTerminated = false;
    bool m_bJoined = false;
    bool m_bClosed = false;
};

constexpr long long INTERVALS_USEC[] = {20000, 50000, 1000000, 3600000000, 0, -1000000};
constexpr long long STEPS_USEC[] = {1, 10000, 20000, 45000, 1000000, 7200000000};

template <class Type, size_t COUNT>
Type Pick(kelto_fuzz::Input& aInput, const Type (&aChoices)[COUNT]) {
    return aChoices[aInput.Byte() % COUNT];
}

void Operate(kelto_fuzz::Input& aInput, unsigned aOperation, CLife& aLife) {
    switch (aOperation) {
        case 0:
            aLife.Create(aInput.Byte() % 2 == 0);
            break;
        case 1: {
            const unsigned nArgument = aInput.Byte();
            aLife.Post(1 + nArgument % 12, static_cast<EAction>(nArgument / 16 % ACTION_COUNT));
            break;
        }
        case 2:
            aLife.Send();
            break;
        case 3:
            aLife.StartThread(aInput.Byte() % 2 != 0);
            break;
        case 4: {
            const unsigned nArgument = aInput.Byte();
            const auto reply =
                static_cast<CLifeTimer::EReply>(nArgument / 16 % CLifeTimer::REPLY_COUNT);
            aLife.Schedule(nArgument % TIMERS, Pick(aInput, INTERVALS_USEC), nArgument / 4 % 4,
                           reply);
            break;
        }
        case 5:
            aLife.Cancel(aInput.Byte() % TIMERS);
            break;
        case 6:
            aLife.HeartBeat();
            break;
        case 7:
            aLife.Stop();
            break;
        case 8:
            aLife.StopNow();
            break;
        case 9:
            aLife.Drain();
            break;
        case 10:
            aLife.Join();
            break;
        case 11:
            aLife.Terminate();
            break;
        case 12:
            aLife.SetStop();
            break;
        default:
            aLife.End();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static kelto_test::ScopedClock clock(START_SEC);
    kelto_fuzz::Input input(aData, aSize);
    const auto pBook = std::make_unique<CBook>();
    clock.Set(START_SEC);
    s_llNowUsec = START_SEC * USEC_PER_SEC;
    {
        std::array<std::unique_ptr<CLife>, WORKERS> lives;
        for (int i = 0; i < MOST_OPERATIONS && !input.AtEnd(); ++i) {
            const unsigned nOperation = input.Byte();
            std::unique_ptr<CLife>& life = lives[nOperation / 16 % WORKERS];
            if (nOperation % 16 == 15) {
                const long long llStep = Pick(input, STEPS_USEC);
                clock.AdvanceUsec(llStep);
                s_llNowUsec += llStep;
                for (const std::unique_ptr<CLife>& each : lives) {
                    if (each != nullptr && !each->HasEnded()) {
                        each->CheckTimers();
                    }
                }
            } else if (life == nullptr || life->HasEnded()) {
                const unsigned nHow = input.Byte();
                life = std::make_unique<CLife>(*pBook, nHow, nHow / 4 % 2 != 0, nHow / 8 % 8 == 7);
            } else {
                Operate(input, nOperation % 16, *life);
            }
        }
    }
    pBook->Check();
    CCmScopedLockT<CCmMutexThread> lock(g_thread_Mutex);
    Require(g_threadList.empty(), "no thread stays registered");
    return 0;
}
