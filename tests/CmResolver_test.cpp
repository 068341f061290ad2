#include "CmResolver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "CmThread.h"
#include "CmUtilMisc.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Threads.h"

using namespace UTIL_NS;

namespace {

std::atomic<int> g_nAsked{0};   // names put to the system
std::atomic<int> g_nLists{0};   // answers of the system that are not freed
std::atomic<int> g_nInside{0};  // lookups under way
std::atomic<int> g_nMost{0};    // the most at one time
kelto_test::Gate s_hanging;     // names that begin with "hang" wait until it is open

addrinfo* NewInfo(const sockaddr* aAddress, socklen_t aLength, addrinfo* aNext) {
    auto* pInfo = static_cast<addrinfo*>(calloc(1, sizeof(addrinfo)));
    pInfo->ai_addr = static_cast<sockaddr*>(malloc(aLength));
    memcpy(pInfo->ai_addr, aAddress, aLength);
    pInfo->ai_addrlen = aLength;
    pInfo->ai_next = aNext;
    return pInfo;
}

addrinfo* NewIpv4(const char* aText, addrinfo* aNext) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, aText, &address.sin_addr);
    return NewInfo(reinterpret_cast<sockaddr*>(&address), sizeof(address), aNext);
}

addrinfo* NewIpv6(const char* aText, unsigned aScope, addrinfo* aNext) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_scope_id = aScope;
    inet_pton(AF_INET6, aText, &address.sin6_addr);
    return NewInfo(reinterpret_cast<sockaddr*>(&address), sizeof(address), aNext);
}

int FailureOf(const char* aName) {
    const struct {
        const char* name;
        int failure;
    } ROWS[] = {{"none.test", EAI_NONAME},
                {"later.test", EAI_AGAIN},
                {"broken.test", EAI_FAIL},
                {"memory.test", EAI_MEMORY}};
    for (const auto& row : ROWS) {
        if (strcmp(aName, row.name) == 0) {
            return row.failure;
        }
    }
    return 0;
}

// The system's resolver of these tests; what a name means is in the name.
int Resolve(const char* aName, const char*, const addrinfo* aHints, addrinfo** aList) {
    ++g_nAsked;
    const int nInside = ++g_nInside;
    int nMost = g_nMost;
    while (nInside > nMost && !g_nMost.compare_exchange_weak(nMost, nInside)) {
    }
    if (strncmp(aName, "hang", 4) == 0) {
        s_hanging.Wait();
    }
    const int nFailure = FailureOf(aName);
    g_nLists += nFailure == 0 ? 1 : 0;
    --g_nInside;
    if (nFailure != 0) {
        return nFailure;
    }
    if (strcmp(aName, "unix.test") == 0) {
        sockaddr address = {};
        address.sa_family = AF_UNIX;
        *aList = NewInfo(&address, sizeof(address), nullptr);
        return 0;
    }
    *aList = nullptr;
    if (aHints->ai_family != AF_INET6) {
        *aList = NewIpv4("192.0.2.7", NewIpv4("192.0.2.7", nullptr));
    }
    if (aHints->ai_family != AF_INET) {
        *aList = NewIpv6("fe80::7", 3, *aList);
    }
    return 0;
}

void Free(addrinfo* aList) {
    --g_nLists;
    while (aList != nullptr) {
        addrinfo* pNext = aList->ai_next;
        free(aList->ai_addr);
        free(aList);
        aList = pNext;
    }
}

// What came of the questions of a test.
struct Record {
    std::atomic<int> resolved{0};
    std::atomic<int> ended{0};
    CmResult result = CM_ERROR_UNEXPECTED;
    std::string addresses;
};

class CAnswer : public ACmResolution {
  public:
    explicit CAnswer(Record& aRecord) : m_record(aRecord) {}
    ~CAnswer() override { ++m_record.ended; }
    void OnResolved() override {
        m_record.result = result();
        m_record.addresses.clear();
        for (const CCmIpAddress& address : addresses()) {
            char achPrinted[CM_IP_PRINTED_SIZE];
            m_record.addresses += std::string(CmPrint(address, achPrinted)) + " ";
        }
        ++m_record.resolved;
    }

  private:
    Record& m_record;
};

class CmResolverTest : public testing::Test {
  protected:
    CmResolverTest()
        : m_getaddrinfo(g_cmSystem.getaddrinfo, &Resolve),
          m_freeaddrinfo(g_cmSystem.freeaddrinfo, &Free) {
        g_nAsked = 0;
        g_nMost = 0;
        s_hanging.Close();
    }
    // Lookups outlive the resolver; the next test must not meet them.
    ~CmResolverTest() override {
        s_hanging.Open();
        // The counters last: what they show happened before this.
        EXPECT_TRUE(Becomes([this] {
            return kelto_test::LiveThreads() <= m_nThreads && g_nInside == 0 && g_nLists == 0;
        }));
    }
    // Runs what is posted until aHolds, or for some seconds.
    template <class Holds>
    bool Becomes(Holds aHolds) {
        for (int i = 0; i < 10000; ++i) {
            Run();
            if (aHolds()) {
                return true;
            }
            SleepMs(1);
        }
        return false;
    }
    void Run() {
        std::list<ICmEvent*> events;
        if (m_queue.PopPendingEventsLocked(events) == CM_OK) {
            m_queue.ProcessTakenEvents(events);
        }
    }
    CmResult Ask(CCmResolver& aResolver, const char* aName, Record& aRecord,
                 const CCmTimeValue& aLimit = CCmTimeValue(60),
                 CCmIpAddress::Family aFamily = CCmIpAddress::NONE, uint64_t* aId = nullptr) {
        return aResolver.Resolve(aName, &m_queue, new CAnswer(aRecord), aLimit, aFamily, aId);
    }

    const int m_nThreads = kelto_test::LiveThreadsAtRest();
    kelto_test::ScopedEntry<decltype(g_cmSystem.getaddrinfo)> m_getaddrinfo;
    kelto_test::ScopedEntry<decltype(g_cmSystem.freeaddrinfo)> m_freeaddrinfo;
    CCmEventQueueUsingMutex m_queue;
};

}  // namespace

TEST_F(CmResolverTest, AnswersWithBothFamiliesOnTheQueue) {
    CCmResolver resolver;
    Record record;
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", record));
    EXPECT_TRUE(Becomes([&] { return record.ended == 1; }));
    EXPECT_EQ(1, record.resolved);
    EXPECT_EQ(CM_OK, record.result);
    EXPECT_EQ("fe80::7%3 192.0.2.7 ", record.addresses);  // once each
}

TEST_F(CmResolverTest, AnswersWithOneFamily_WhenAskedFor) {
    CCmResolver resolver;
    Record ipv4;
    Record ipv6;
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", ipv4, CCmTimeValue(60), CCmIpAddress::IPV4));
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test.", ipv6, CCmTimeValue(60), CCmIpAddress::IPV6));
    EXPECT_TRUE(Becomes([&] { return ipv4.ended + ipv6.ended == 2; }));
    EXPECT_EQ("192.0.2.7 ", ipv4.addresses);
    EXPECT_EQ("fe80::7%3 ", ipv6.addresses);
}

TEST_F(CmResolverTest, TellsItsFailuresApart) {
    CCmResolver resolver;
    const struct {
        const char* name;
        CmResult result;
    } ROWS[] = {
        {"none.test", CM_ERROR_NOT_FOUND}, {"later.test", CM_ERROR_NOT_AVAILABLE},
        {"broken.test", CM_ERROR_FAILURE}, {"memory.test", CM_ERROR_OUT_OF_MEMORY},
        {"unix.test", CM_ERROR_NOT_FOUND},
    };
    for (const auto& row : ROWS) {
        Record record;
        ASSERT_EQ(CM_OK, Ask(resolver, row.name, record));
        EXPECT_TRUE(Becomes([&] { return record.ended == 1; })) << row.name;
        EXPECT_EQ(row.result, record.result) << row.name;
        EXPECT_EQ("", record.addresses) << row.name;
    }
}

TEST_F(CmResolverTest, AnswersAnAddressByItself) {
    CCmResolver resolver;
    const struct {
        const char* name;
        CCmIpAddress::Family family;
        CmResult result;
        const char* addresses;
    } ROWS[] = {
        {"192.0.2.1", CCmIpAddress::NONE, CM_OK, "192.0.2.1 "},
        {"2001:DB8::1", CCmIpAddress::NONE, CM_OK, "2001:db8::1 "},
        {"192.0.2.1", CCmIpAddress::IPV6, CM_ERROR_NOT_FOUND, ""},
    };
    for (const auto& row : ROWS) {
        Record record;
        ASSERT_EQ(CM_OK, Ask(resolver, row.name, record, CCmTimeValue(60), row.family));
        EXPECT_EQ(0, record.resolved);
        Run();
        EXPECT_EQ(1, record.resolved);
        EXPECT_EQ(row.result, record.result);
        EXPECT_EQ(row.addresses, record.addresses);
    }
    EXPECT_EQ(0, g_nAsked);
}

TEST_F(CmResolverTest, RefusesAndEndsTheAnswer_WhenTheTextIsNoName) {
    CCmResolver resolver;
    const std::string sLabel63(63, 'a');
    const std::string sName253 =
        sLabel63 + "." + sLabel63 + "." + sLabel63 + "." + std::string(61, 'a');
    for (const std::string& sName :
         {std::string(), std::string("."), std::string("a..b"), std::string(".a"),
          std::string("a b"), std::string("a/b"), std::string("[::1]"), std::string("1.2.3"),
          std::string("300.1.1.1"), std::string("16909060"), std::string("a.0x7f"),
          std::string("a.0X"), std::string("0x"), std::string("a.1."), std::string("a\0b", 3),
          std::string("\xC3\xA9"), sLabel63 + "a", sName253 + "a", std::string("fe80::g")}) {
        Record record;
        EXPECT_EQ(CM_ERROR_INVALID_ARG,
                  resolver.Resolve(sName, &m_queue, new CAnswer(record), CCmTimeValue(1)))
            << sName;
        EXPECT_EQ(1, record.ended);
        EXPECT_EQ(0, record.resolved);
    }
    Record record;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Ask(resolver, "host.test", record, CCmTimeValue()));
    EXPECT_EQ(CM_ERROR_INVALID_ARG,
              resolver.Resolve("host.test", nullptr, new CAnswer(record), CCmTimeValue(1)));
    EXPECT_EQ(2, record.ended);
    EXPECT_EQ(CM_ERROR_INVALID_ARG,
              resolver.Resolve("host.test", &m_queue, nullptr, CCmTimeValue(1)));
    EXPECT_EQ(0, g_nAsked);
    for (const std::string& sName : {sLabel63, sName253, std::string("_sip._udp.a-1.test"),
                                     std::string("1.2.3.x"), std::string("0xg")}) {
        Record good;
        EXPECT_EQ(CM_OK, resolver.Resolve(sName, &m_queue, new CAnswer(good), CCmTimeValue(60)))
            << sName;
        EXPECT_TRUE(Becomes([&] { return good.resolved == 1; }));
    }
}

TEST_F(CmResolverTest, Answers_WhenTheLimitHasPassedAndTheSystemHangs) {
    CCmResolver resolver;
    Record hanging;
    Record other;
    const CCmTimeValue tvStart = CCmTimeValue::GetTimeOfDay();
    ASSERT_EQ(CM_OK, Ask(resolver, "hang.test", hanging, CCmTimeValue(0, 50000)));
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", other));
    EXPECT_TRUE(Becomes([&] { return hanging.ended == 1; }));
    EXPECT_LE(CCmTimeValue(0, 49000), CCmTimeValue::GetTimeOfDay() - tvStart);
    EXPECT_EQ(CM_ERROR_TIMEOUT, hanging.result);
    EXPECT_EQ(1, g_nInside);  // still
    EXPECT_TRUE(Becomes([&] { return other.ended == 1; }));
    EXPECT_EQ(CM_OK, other.result);
}

TEST_F(CmResolverTest, HasNoLimit_WhenTheLimitIsTheLargestValue) {
    CCmResolver resolver;
    Record record;
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", record, CCmTimeValue::s_tvMax));
    EXPECT_TRUE(Becomes([&] { return record.ended == 1; }));
    EXPECT_EQ(CM_OK, record.result);
}

TEST_F(CmResolverTest, PutsFourQuestionsAtATime) {
    CCmResolver resolver;
    Record records[10];
    for (Record& record : records) {
        ASSERT_EQ(CM_OK, Ask(resolver, "hang.test", record));
    }
    EXPECT_TRUE(Becomes([] { return g_nInside == CCmResolver::MAX_LOOKUPS; }));
    SleepMs(30);
    EXPECT_EQ(CCmResolver::MAX_LOOKUPS, g_nAsked);
    s_hanging.Open();
    for (Record& record : records) {
        EXPECT_TRUE(Becomes([&record] { return record.resolved == 1; }));
        EXPECT_EQ(CM_OK, record.result);
    }
    EXPECT_EQ(CCmResolver::MAX_LOOKUPS, g_nMost);
}

TEST_F(CmResolverTest, EndsAnAnswerUnfired_WhenItIsCancelled) {
    CCmResolver resolver;
    Record record;
    uint64_t ullId = 0;
    ASSERT_EQ(CM_OK,
              Ask(resolver, "hang.test", record, CCmTimeValue(60), CCmIpAddress::NONE, &ullId));
    EXPECT_EQ(CM_OK, resolver.Cancel(ullId));
    EXPECT_EQ(1, record.ended);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, resolver.Cancel(ullId));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, resolver.Cancel(12345));
    s_hanging.Open();
    SleepMs(20);
    Run();
    EXPECT_EQ(0, record.resolved);
}

TEST_F(CmResolverTest, IsCancelled_WhenTheAnswerIsPosted) {
    CCmResolver resolver;
    Record record;
    uint64_t ullId = 0;
    ASSERT_EQ(CM_OK,
              Ask(resolver, "host.test", record, CCmTimeValue(60), CCmIpAddress::NONE, &ullId));
    for (int i = 0; i < 10000 && m_queue.GetPendingEventsCount() == 0; ++i) {
        SleepMs(1);
    }
    EXPECT_EQ(CM_OK, resolver.Cancel(ullId));
    EXPECT_EQ(0, record.ended);  // with its queue
    Run();
    EXPECT_EQ(1, record.ended);
    EXPECT_EQ(0, record.resolved);
}

namespace {

// A queue that posts when its gate opens.
class CSlowQueue : public ICmEventQueue {
  public:
    explicit CSlowQueue(ICmEventQueue& aQueue) : m_queue(aQueue) {}
    CmResult PostEvent(ICmEvent* aEvent, EPriority aPri) override {
        m_entered.Open();
        EXPECT_TRUE(m_gate.Wait());
        const CmResult rv = m_queue.PostEvent(aEvent, aPri);
        m_bPosted = true;
        return rv;
    }
    CmResult SendEvent(ICmEvent* aEvent) override { return m_queue.SendEvent(aEvent); }
    DWORD GetPendingEventsCount() override { return m_queue.GetPendingEventsCount(); }

    kelto_test::Gate m_entered;
    kelto_test::Gate m_gate;
    std::atomic<bool> m_bPosted{false};

  private:
    ICmEventQueue& m_queue;
};

}  // namespace

// The queue may be destroyed after Cancel.
TEST_F(CmResolverTest, CancelWaits_WhileTheAnswerIsBeingPosted) {
    CCmResolver resolver;
    CSlowQueue queue(m_queue);
    Record record;
    uint64_t ullId = 0;
    ASSERT_EQ(CM_OK, resolver.Resolve("host.test", &queue, new CAnswer(record), CCmTimeValue(60),
                                      CCmIpAddress::NONE, &ullId));
    ASSERT_TRUE(queue.m_entered.Wait());
    std::thread canceller([&] {
        EXPECT_EQ(CM_OK, resolver.Cancel(ullId));
        EXPECT_TRUE(queue.m_bPosted);
    });
    SleepMs(20);
    queue.m_gate.Open();
    canceller.join();
    Run();
    EXPECT_EQ(1, record.ended);
    EXPECT_EQ(0, record.resolved);
}

TEST_F(CmResolverTest, AnswersNothing_WhenAnAnswerIsFiredThatWasNeverAsked) {
    Record record;
    CAnswer answer(record);
    EXPECT_EQ(CM_OK, answer.OnEventFire());
    EXPECT_EQ(0, record.resolved);
}

TEST_F(CmResolverTest, CancelsWhatIsPending_WhenItEnds) {
    Record pending;
    Record posted;
    Record waiting[5];
    {
        CCmResolver resolver;
        ASSERT_EQ(CM_OK, Ask(resolver, "host.test", posted));
        for (int i = 0; i < 10000 && m_queue.GetPendingEventsCount() == 0; ++i) {
            SleepMs(1);
        }
        ASSERT_EQ(CM_OK, Ask(resolver, "hang.test", pending));
        for (Record& record : waiting) {
            ASSERT_EQ(CM_OK, Ask(resolver, "hang.test", record));
        }
        EXPECT_TRUE([] {
            for (int i = 0; i < 10000 && g_nInside == 0; ++i) {
                SleepMs(1);
            }
            return g_nInside > 0;
        }());
    }
    EXPECT_EQ(1, pending.ended);
    for (const Record& record : waiting) {
        EXPECT_EQ(1, record.ended);
        EXPECT_EQ(0, record.resolved);
    }
    Run();
    EXPECT_EQ(1, posted.ended);
    EXPECT_EQ(0, posted.resolved + pending.resolved);
}

TEST_F(CmResolverTest, EndsTheAnswer_WhenTheQueueRefuses) {
    CCmResolver resolver;
    Record looked;
    Record address;
    m_queue.SetStopped();
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", looked));
    EXPECT_EQ(CM_OK, Ask(resolver, "192.0.2.1", address));
    EXPECT_EQ(1, address.ended);
    EXPECT_TRUE(Becomes([&] { return looked.ended == 1; }));
    EXPECT_EQ(0, looked.resolved + address.resolved);
}

TEST_F(CmResolverTest, AnswersOrEndsEveryQuestion_WhileManyThreadsAskAndCancel) {
    constexpr int THREADS = 4;
    constexpr int QUESTIONS = 100;
    Record record;
    std::atomic<int> nCancelled{0};
    {
        CCmResolver resolver;
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, i] {
                for (int n = 0; n < QUESTIONS; ++n) {
                    uint64_t ullId = 0;
                    EXPECT_EQ(CM_OK, Ask(resolver, "host.test", record, CCmTimeValue(60),
                                         CCmIpAddress::IPV4, &ullId));
                    if ((n + i) % 2 == 0 && resolver.Cancel(ullId) == CM_OK) {
                        ++nCancelled;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(Becomes([&] { return record.ended == THREADS * QUESTIONS; }));
    }
    EXPECT_EQ(THREADS * QUESTIONS, record.resolved + nCancelled);
    EXPECT_LE(THREADS * QUESTIONS / 2, record.resolved);
}

TEST_F(CmResolverTest, SaysSo_WhenNoThreadCanBeStarted) {
    typedef kelto_test::FailingCall<&CCmSystemTable::pthread_create> NoThread;
    CCmResolver resolver;
    Record record;
    {
        const NoThread fault(0, EAGAIN);
        EXPECT_EQ(CM_ERROR_UNEXPECTED, Ask(resolver, "host.test", record));
        EXPECT_EQ(1, record.ended);
    }
    Record second;
    {
        const NoThread fault(0, EAGAIN, 2);  // the first is the watcher
        ASSERT_EQ(CM_OK, Ask(resolver, "host.test", second));
        EXPECT_TRUE(Becomes([&] { return second.ended == 1; }));
    }
    EXPECT_EQ(CM_ERROR_UNEXPECTED, second.result);
    Record third;
    ASSERT_EQ(CM_OK, Ask(resolver, "host.test", third));
    EXPECT_TRUE(Becomes([&] { return third.ended == 1; }));
    EXPECT_EQ(CM_OK, third.result);
}

TEST_F(CmResolverTest, AsksAndAnswersAsEver_WhileWaitsFail) {
    const kelto_test::FailingCall<&CCmSystemTable::pthread_cond_timedwait> fault(
        0, EINVAL, 1, kelto_test::Failing::FROM_THERE_ON);
    CCmResolver resolver;
    Record record;
    ASSERT_EQ(CM_OK, Ask(resolver, "hang.test", record));
    EXPECT_TRUE(Becomes([&] { return fault.calls() > 3 && g_nInside > 0; }));
    EXPECT_EQ(1, g_nAsked);
    s_hanging.Open();
    EXPECT_TRUE(Becomes([&] { return record.ended == 1; }));
    EXPECT_EQ(CM_OK, record.result);
    EXPECT_EQ(1, g_nAsked);
}

TEST_F(CmResolverTest, Survives_WithoutMemory) {
    for (unsigned long ulNth = 1;; ++ulNth) {
        Record record;
        bool bHit = false;
        {
            const kelto_test::ScopedAllocationFault fault(ulNth, kelto_test::Failing::ONCE,
                                                          kelto_test::AllocationsOf::ALL_THREADS);
            CCmResolver resolver;
            auto* pAnswer = new (std::nothrow) CAnswer(record);
            if (pAnswer == nullptr) {
                continue;
            }
            resolver.Resolve("host.test", &m_queue, pAnswer, CCmTimeValue(60), CCmIpAddress::IPV4);
            EXPECT_TRUE(Becomes([&] { return record.ended == 1; })) << ulNth;
            bHit = fault.hit();
        }
        if (!bHit) {
            EXPECT_EQ(CM_OK, record.result);
            EXPECT_LT(8U, ulNth);
            break;
        }
    }
}

// The system's own resolver: every machine knows this name without a network.
TEST(CmResolverSystem, KnowsTheLocalHost) {
    CCmEventQueueUsingMutex queue;
    CCmResolver resolver;
    Record record;
    ASSERT_EQ(CM_OK, resolver.Resolve("localhost", &queue, new CAnswer(record), CCmTimeValue(60)));
    for (int i = 0; i < 10000 && record.ended == 0; ++i) {
        std::list<ICmEvent*> events;
        if (queue.PopPendingEventsLocked(events) == CM_OK) {
            queue.ProcessTakenEvents(events);
        }
        SleepMs(1);
    }
    EXPECT_EQ(CM_OK, record.result);
    EXPECT_TRUE(record.addresses.find("127.0.0.1 ") != std::string::npos ||
                record.addresses.find("::1 ") != std::string::npos)
        << record.addresses;
}
