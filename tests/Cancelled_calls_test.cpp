// Calls that a thread makes when it has been cancelled and has yet to act on it: they complete, as
// do the host's own functions that they call.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "CmConfigReader.h"
#include "CmEventQueueBase.h"
#include "CmResolver.h"
#include "CmT120Trace.h"
#include "CmThread.h"
#include "support/Cancellation.h"
#include "support/Events.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/Threads.h"
#include "support/TraceSink.h"

using namespace UTIL_NS;

namespace {

using kelto_test::Eventually;

// Makes one entry of the table of system calls a cancellation point while it lives, which on some
// systems it is anyway.
template <auto Member>
class CancellableCall;

template <typename Result, typename... Args, Result (*CCmSystemTable::*Member)(Args...)>
class CancellableCall<Member> {
  public:
    CancellableCall() : m_entry(g_cmSystem.*Member, &Call) { s_pfnOriginal = m_entry.original(); }
    static int calls() { return s_nCalls; }

  private:
    static Result Call(Args... aArgs) {
        ++s_nCalls;
        kelto_test::TestCancel();
        return s_pfnOriginal(aArgs...);
    }

    inline static Result (*s_pfnOriginal)(Args...) = nullptr;
    inline static std::atomic<int> s_nCalls{0};

    kelto_test::ScopedEntry<Result (*)(Args...)> m_entry;
};

class WorkThread : public ACmThread {
  public:
    explicit WorkThread(std::function<void()> aWork) : m_work(std::move(aWork)) {}
    void OnThreadRun() override { m_work(); }

  private:
    const std::function<void()> m_work;
};

// Runs aCall on a thread that is cancelled just before.
class CancelledThread {
  public:
    explicit CancelledThread(std::function<void()> aCall) : m_call(std::move(aCall)) {
        EXPECT_EQ(CM_OK, m_pThread->Create(7, TF_JOINABLE, 0));
    }
    ~CancelledThread() { EXPECT_TRUE(HasReturned()); }
    CancelledThread(const CancelledThread&) = delete;
    CancelledThread& operator=(const CancelledThread&) = delete;

    // Whether aCall returned, and left the cancellation to what came after it.
    bool HasReturned() {
        if (m_pThread != nullptr) {
            EXPECT_EQ(CM_OK, m_pThread->Join());
            m_pThread->Destory(CM_OK);
            m_pThread = nullptr;
        }
        return m_bReturned && !m_bWentOn;
    }
    static bool IsThisThread() { return t_bThisThread; }

  private:
    void Run() {
        t_bThisThread = true;
        g_cmSystem.pthread_cancel(pthread_self());
        m_call();
        m_bReturned = true;
        kelto_test::TestCancel();
        m_bWentOn = true;
    }

    inline static thread_local bool t_bThisThread = false;

    const std::function<void()> m_call;
    std::atomic<bool> m_bReturned{false};
    std::atomic<bool> m_bWentOn{false};
    WorkThread* m_pThread = new WorkThread([this] { Run(); });
};

bool ReturnsWhenCancelled(std::function<void()> aCall) {
    return CancelledThread(std::move(aCall)).HasReturned();
}

class CmCancelledCall : public testing::TestWithParam<bool> {
  protected:
    CmCancelledCall() {
        if (GetParam()) {
            m_handlersOnly.emplace();
        }
    }

  private:
    std::optional<kelto_test::ScopedHandlersOnly> m_handlersOnly;
};

INSTANTIATE_TEST_SUITE_P(, CmCancelledCall, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

// ---- Snapshots of configuration

int LowestFreeFile() {
    const int nFile = open("/dev/null", O_RDONLY);
    EXPECT_EQ(0, close(nFile));
    return nFile;
}

TEST_P(CmCancelledCall, ReadsTheFile_WhenItIsASnapshots) {
    const kelto_test::ScopedHome home;
    const std::string sPath = home.path() + "other.cfg";
    kelto_test::WriteFile(sPath, "[Host]\nk = 7\n");
    const long lLive = kelto_test::LiveAllocationsBefore();
    const int nFree = LowestFreeFile();
    {
        const CancellableCall<&CCmSystemTable::pread> pread;
        CCmConfigReader reader;
        std::atomic<CmResult> rv{CM_ERROR_FAILURE};
        EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = reader.Read(sPath.c_str()); }));
        EXPECT_LT(0, pread.calls());
        EXPECT_EQ(CM_OK, rv);
        int nNumber = 0;
        EXPECT_EQ(CM_OK, reader.GetNumber("Host", "k", nNumber));
        EXPECT_EQ(7, nNumber);
    }
    EXPECT_EQ(nFree, LowestFreeFile());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

TEST_P(CmCancelledCall, ReadsTheMainFile_WhenItIsASnapshots) {
    const kelto_test::ScopedHome home;
    home.WriteConfig("[Host]\nk = 7\n");
    const long lLive = kelto_test::LiveAllocationsBefore();
    const int nFree = LowestFreeFile();
    {
        const CancellableCall<&CCmSystemTable::pread> pread;
        CCmConfigReader reader;
        std::atomic<CmResult> rv{CM_ERROR_FAILURE};
        EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = reader.ReadMain(); }));
        EXPECT_EQ(CM_OK, rv);
        int nNumber = 0;
        EXPECT_EQ(CM_OK, reader.GetNumber("Host", "k", nNumber));
        EXPECT_EQ(7, nNumber);
    }
    EXPECT_EQ(nFree, LowestFreeFile());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

// Where this case runs alone, its calls also create the trace facility, with its directory and its
// file: no line of the test has done so, since a sink takes them.
TEST_P(CmCancelledCall, SetsTheTraceFacilityUp_WhenItUsesASnapshot) {
    const kelto_test::ScopedTraceSink sink;
    const kelto_test::ScopedHome home;
    const std::string sLevel = std::string(CCmT120Trace::get_process_name()) + ".Debug";
    home.WriteConfig("[Trace]\n" + sLevel + " = TRUE;\n");
    CCmConfigReader reader;
    ASSERT_EQ(CM_OK, reader.ReadMain());
    const CancellableCall<&CCmSystemTable::open> open;
    const CancellableCall<&CCmSystemTable::mkdir> mkdir;
    const CancellableCall<&CCmSystemTable::localtime_r> localtime;
    std::atomic<CmResult> rv{CM_ERROR_FAILURE};
    EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = reader.UseForTrace(); }));
    EXPECT_EQ(CM_OK, rv);
    EXPECT_EQ(1, CCmT120Trace::instance()->enable_trace_print(27, nullptr));
    EXPECT_EQ(CM_OK, reader.UseForTrace());  // its locks are free
}

// ---- Resolvers

std::atomic<bool> g_bAnswers{false};  // the system's resolver, which waits for it
std::atomic<int> g_nBegun{0};         // threads that asked it
std::atomic<int> g_nGone{0};          // those that have gone, after all that the library did there

struct CGoing {
    CGoing() { ++g_nBegun; }
    ~CGoing() { ++g_nGone; }
};

int FindNothing(const char*, const char*, const addrinfo*, addrinfo**) {
    thread_local const CGoing t_going;
    Eventually([] { return g_bAnswers.load(); });
    return EAI_NONAME;
}

// An answer with a cancellation point in its destruction.
class CAnswer : public ACmResolution {
  public:
    CAnswer(std::atomic<int>& aResolved, std::atomic<int>& aEnded)
        : m_nResolved(aResolved), m_nEnded(aEnded) {}
    ~CAnswer() override { ++m_nEnded; }
    void OnResolved() override { ++m_nResolved; }
    void OnDestorySelf() override {
        kelto_test::TestCancel();
        delete this;
    }

  private:
    std::atomic<int>& m_nResolved;
    std::atomic<int>& m_nEnded;
};

// A queue of the host's with a cancellation point in its post, before which a test may do more.
class CHostQueue : public CCmEventQueueUsingMutex {
  public:
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPriority) override {
        if (m_beforePost) {
            m_beforePost();
        }
        kelto_test::TestCancel();
        return CCmEventQueueUsingMutex::PostEvent(aEvent, aPriority);
    }
    void Run() {
        std::list<ICmEvent*> events;
        if (PopPendingEventsLocked(events) == CM_OK) {
            ProcessTakenEvents(events);
        }
    }

    std::function<void()> m_beforePost;
};

class CmCancelledResolving : public CmCancelledCall {
  protected:
    CmCancelledResolving() { g_bAnswers = false; }
    // Lookups outlive the resolver. The counters last: they order what the threads did.
    ~CmCancelledResolving() override {
        g_bAnswers = true;
        m_pResolver.reset();
        EXPECT_TRUE(Eventually(
            [this] { return kelto_test::LiveThreads() <= m_nThreads && g_nGone == g_nBegun; }));
        m_Queue.Run();
        EXPECT_EQ(m_nAsked, m_nEnded);
    }
    CmResult Ask(const char* aName, uint64_t* aId = nullptr) {
        ++m_nAsked;
        return m_pResolver->Resolve(aName, &m_Queue, new CAnswer(m_nResolved, m_nEnded),
                                    CCmTimeValue(60), CCmIpAddress::NONE, aId);
    }
    // Whether nobody has left the resolver's locks taken.
    bool CanBeUsed() {
        uint64_t ullId = 0;
        return Ask("later.test", &ullId) == CM_OK && m_pResolver->Cancel(ullId) == CM_OK;
    }

    const int m_nThreads = kelto_test::LiveThreadsAtRest();
    kelto_test::ScopedEntry<decltype(g_cmSystem.getaddrinfo)> m_getaddrinfo{g_cmSystem.getaddrinfo,
                                                                            &FindNothing};
    CHostQueue m_Queue;
    std::atomic<int> m_nAsked{0};
    std::atomic<int> m_nResolved{0};
    std::atomic<int> m_nEnded{0};
    std::unique_ptr<CCmResolver> m_pResolver = std::make_unique<CCmResolver>();
};

INSTANTIATE_TEST_SUITE_P(, CmCancelledResolving, testing::Bool(),
                         [](const auto& aInfo) { return aInfo.param ? "HandlersOnly" : "AsHere"; });

TEST_P(CmCancelledResolving, DestroysTheResolverWhichWaitsForItsThread) {
    const CancellableCall<&CCmSystemTable::pthread_join> join;
    ASSERT_EQ(CM_OK, Ask("waiting.test"));
    EXPECT_TRUE(ReturnsWhenCancelled([this] { m_pResolver.reset(); }));
    EXPECT_EQ(1, m_nEnded);
    EXPECT_EQ(0, m_nResolved);
}

TEST_P(CmCancelledResolving, AsksAndHasItsAnswer_WhenTheQueuesPostIsACancellationPoint) {
    std::atomic<CmResult> rv{CM_ERROR_FAILURE};
    EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = Ask("192.0.2.7"); }));
    EXPECT_EQ(CM_OK, rv);
    m_Queue.Run();
    EXPECT_EQ(1, m_nResolved);
    EXPECT_TRUE(CanBeUsed());
}

TEST_P(CmCancelledResolving, EndsTheAnswerItRefuses_WhenItsEndIsACancellationPoint) {
    std::atomic<CmResult> rv{CM_ERROR_FAILURE};
    EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = Ask("no name"); }));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, rv);
    EXPECT_EQ(1, m_nEnded);
    EXPECT_TRUE(CanBeUsed());
}

TEST_P(CmCancelledResolving, EndsTheAnswerItCancels_WhenItsEndIsACancellationPoint) {
    uint64_t ullId = 0;
    ASSERT_EQ(CM_OK, Ask("waiting.test", &ullId));
    std::atomic<CmResult> rv{CM_ERROR_FAILURE};
    EXPECT_TRUE(ReturnsWhenCancelled([&] { rv = m_pResolver->Cancel(ullId); }));
    EXPECT_EQ(CM_OK, rv);
    EXPECT_EQ(1, m_nEnded);
    EXPECT_TRUE(CanBeUsed());
}

// Notes that the cancelled thread waits.
std::atomic<bool> g_bWaits{false};
int (*g_pfnWait)(pthread_cond_t*, pthread_mutex_t*) = nullptr;

int NotedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
    if (CancelledThread::IsThisThread()) {
        g_bWaits = true;
    }
    return g_pfnWait(aCondition, aMutex);
}

TEST_P(CmCancelledResolving, WaitsUntilTheAnswerIsPosted_WhenItCancelsMeanwhile) {
    const kelto_test::ScopedEntry<decltype(g_cmSystem.pthread_cond_wait)> wait(
        g_cmSystem.pthread_cond_wait, &NotedWait);
    g_pfnWait = wait.original();
    g_bWaits = false;
    std::atomic<bool> bPosting{false};
    std::atomic<bool> bPost{false};
    m_Queue.m_beforePost = [&] {
        bPosting = true;
        Eventually([&] { return bPost.load(); });
    };
    uint64_t ullId = 0;
    ASSERT_EQ(CM_OK, Ask("unknown.test", &ullId));
    g_bAnswers = true;
    ASSERT_TRUE(Eventually([&] { return bPosting.load(); }));
    std::atomic<CmResult> rv{CM_ERROR_FAILURE};
    CancelledThread canceller([&] { rv = m_pResolver->Cancel(ullId); });
    EXPECT_TRUE(Eventually([] { return g_bWaits.load(); }));
    bPost = true;
    EXPECT_TRUE(canceller.HasReturned());
    m_Queue.m_beforePost = nullptr;
    EXPECT_EQ(CM_OK, rv);
    m_Queue.Run();
    EXPECT_EQ(0, m_nResolved);
    EXPECT_EQ(1, m_nEnded);
    EXPECT_TRUE(CanBeUsed());
}

}  // namespace
