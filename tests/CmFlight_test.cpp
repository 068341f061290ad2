#include "CmFlight.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "CmT120Trace.h"
#include "CmTrace.h"
#include "port/CmPort.h"
#include "support/ChildProcess.h"
#include "support/Flight.h"
#include "support/Gate.h"
#include "support/Home.h"
#include "support/TraceLibrary.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FlightFile;
using kelto_test::FlightKind;
using kelto_test::FlightRecord;
using kelto_test::FlightThread;
using kelto_test::Gate;
using kelto_test::ScopedFlight;
using kelto_test::ScopedHome;
using kelto_test::ScopedTraceLibrary;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;

struct CSomeEvent {
    virtual ~CSomeEvent() = default;
};

const void* TableOf(const void* aObject) {
    return *static_cast<const void* const*>(aObject);
}

const void* Address(uintptr_t aNumber) {
    return reinterpret_cast<const void*>(aNumber);
}

// Tables of classes without type information: the word in front is null.
struct CTables {
    static constexpr size_t COUNT = 600;
    const void* At(size_t aIndex) const { return &m_pWords[2 * aIndex + 1]; }
    const void* m_pWords[2 * COUNT] = {};
};
const CTables s_tables;

std::string Described(const FlightRecord& aRecord) {
    std::string sText = std::to_string(aRecord.kind) + " " + std::to_string(aRecord.time);
    for (const uint64_t ullWord : aRecord.words) {
        sText += " " + std::to_string(ullWord);
    }
    return sText;
}

// ---- Records

TEST(CmFlight, KeepsEachKindOfRecord) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("kinds");
    ASSERT_NE(nullptr, pRing);
    const CSomeEvent event;
    const void* const pTable = TableOf(&event);
    pRing->Event(1000001, 2002, pTable, &event, 3003);
    pRing->Post(1000002, pTable, &event, Address(0x4004));
    pRing->Timer(1000003, 5005, 6006, pTable);
    pRing->Send(1000004, 7007, pTable, Address(0x8008));
    pRing->HighWater(1000005, 9009, Address(0xa00a));
    pRing->Step(1000006, -11011);

    const FlightThread thread = flight.ReadThread("kinds");
    const uint64_t ullTable = reinterpret_cast<uintptr_t>(pTable);
    const uint64_t ullEvent = reinterpret_cast<uintptr_t>(&event);
    const std::string sTable = std::to_string(ullTable);
    const std::string sEvent = std::to_string(ullEvent);
    ASSERT_EQ(7u, thread.records.size());
    EXPECT_EQ(unsigned{kelto_test::THREAD}, thread.records[0].kind);
    EXPECT_EQ(
        "1 1000001 " + std::to_string(2002LL * 0x1000000 + 3003) + " " + sTable + " " + sEvent,
        Described(thread.records[1]));
    EXPECT_EQ("2 1000002 " + sTable + " " + sEvent + " " + std::to_string(0x4004),
              Described(thread.records[2]));
    EXPECT_EQ("3 1000003 5005 6006 " + sTable, Described(thread.records[3]));
    EXPECT_EQ("4 1000004 7007 " + sTable + " " + std::to_string(0x8008),
              Described(thread.records[4]));
    EXPECT_EQ("5 1000005 9009 " + std::to_string(0xa00a) + " 0", Described(thread.records[5]));
    EXPECT_EQ("6 1000006 " + std::to_string(uint64_t(-11011)) + " 0 0",
              Described(thread.records[6]));
    EXPECT_EQ(typeid(CSomeEvent).name(), flight.Read().ClassOf(ullTable));
}

TEST(CmFlight, RecordsTheGreatest_WhenANumberDoesNotFit) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("saturates");
    const void* const pTable = s_tables.At(0);
    pRing->Event(1, (1LL << 40) - 1, pTable, nullptr, (1 << 24) - 1);
    pRing->Event(2, 1LL << 40, pTable, nullptr, 1 << 24);
    pRing->Event(3, -1, pTable, nullptr, UINT32_MAX);
    const FlightThread thread = flight.ReadThread("saturates");
    ASSERT_EQ(4u, thread.records.size());
    EXPECT_EQ(UINT64_MAX, thread.records[1].words[0]);
    EXPECT_EQ(UINT64_MAX, thread.records[2].words[0]);
    EXPECT_EQ((uint64_t{1} << 24) - 1, thread.records[3].words[0]) << "a clock was set back";
}

TEST(CmFlight, KeepsTheLastRecords_WhenTheRingWraps) {
    const ScopedFlight flight(256);
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("wraps");
    const uint64_t ullFirst = flight.ReadThread("wraps").first;
    for (int i = 0; i < 10000; ++i) {
        pRing->HighWater(i, static_cast<DWORD>(i), nullptr);
    }
    const FlightThread thread = flight.ReadThread("wraps");
    EXPECT_EQ(ullFirst + 10002, thread.written) << "the thread's name takes two";
    ASSERT_EQ(255u, thread.records.size());
    for (size_t i = 0; i < thread.records.size(); ++i) {
        EXPECT_EQ(10000 - 255 + i, thread.records[i].time);
        EXPECT_EQ(10000 - 255 + i, thread.records[i].words[0]);
    }
}

TEST(CmFlight, KeepsLinesOfAnyLengthUpToTheLimit) {
    const ScopedFlight flight(1024);
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("lines");
    std::string sText;
    for (int i = 0; i < 600; ++i) {
        sText += static_cast<char>('!' + i % 90);
    }
    const size_t lengths[] = {0, 1, 15, 16, 17, 40, 41, 64, 479, 480, 481, 600};
    for (const size_t nLength : lengths) {
        pRing->Line(static_cast<long long>(nLength), 20, nLength % 2 == 1, sText.c_str(), nLength);
    }
    const FlightThread thread = flight.ReadThread("lines");
    ASSERT_EQ(1 + std::size(lengths), thread.records.size());
    for (size_t i = 0; i < std::size(lengths); ++i) {
        const FlightRecord& record = thread.records[i + 1];
        SCOPED_TRACE(lengths[i]);
        EXPECT_EQ(unsigned{kelto_test::LINE}, record.kind);
        EXPECT_EQ(lengths[i], record.time);
        EXPECT_TRUE(record.isWhole);
        EXPECT_EQ(sText.substr(0, std::min<size_t>(lengths[i], 480)), record.text);
        EXPECT_EQ(20u, record.words[0] & 0xFF);
        EXPECT_EQ((lengths[i] % 2 == 1 ? 1u : 0u) + (lengths[i] > 480 ? 2u : 0u),
                  record.words[0] >> 8 & 0xFF);
    }
}

TEST(CmFlight, ShowsWhatRunsNow_UntilItIsOver) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("current");
    const CSomeEvent event;
    pRing->Current(TableOf(&event), 4711);
    FlightThread thread = flight.ReadThread("current");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(TableOf(&event)), thread.currentTable);
    EXPECT_EQ(4711u, thread.currentStart);
    EXPECT_EQ(typeid(CSomeEvent).name(), flight.Read().ClassOf(thread.currentTable));
    pRing->Current(nullptr, 4712);
    thread = flight.ReadThread("current");
    EXPECT_EQ(0u, thread.currentTable);
}

TEST(CmFlight, KeepsFiguresUnderAnEvenCount) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("figures");
    EXPECT_EQ(std::vector<uint64_t>(32), flight.ReadThread("figures").figures);
    CCmFlightFigures figures = {};
    std::vector<uint64_t> numbers(sizeof(figures) / sizeof(uint64_t));
    for (size_t i = 0; i < numbers.size(); ++i) {
        numbers[i] = 100 + i;
    }
    std::memcpy(&figures, numbers.data(), sizeof(figures));
    const uint64_t ullBefore = flight.ReadThread("figures").figuresCount;
    pRing->Figures(figures, 12345);
    const FlightThread thread = flight.ReadThread("figures");
    EXPECT_EQ(numbers, thread.figures);
    EXPECT_EQ(12345u, thread.figuresWall);
    EXPECT_EQ(0u, thread.figuresCount % 2);
    EXPECT_LT(ullBefore, thread.figuresCount);
}

TEST(CmFlight, StoresNoFigures_UntilTheThreadHasSome) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("posts");
    CCmFlightFigures figures = {};
    pRing->Figures(figures, 1000);
    EXPECT_EQ(0u, flight.ReadThread("posts").figuresWall);
    figures.m_ullSends = 1;
    pRing->Figures(figures, 2000);
    EXPECT_EQ(2000u, flight.ReadThread("posts").figuresWall);
    figures.m_ullSends = 0;
    pRing->Figures(figures, 3000);
    EXPECT_EQ(3000u, flight.ReadThread("posts").figuresWall);
}

TEST(CmFlight, TellsTheProcessAndWhenItBeganTickedAndEnded) {
    const ScopedFlight flight(512, 7);
    FlightFile file = flight.Read();
    EXPECT_EQ(static_cast<uint32_t>(getpid()), file.process);
    EXPECT_EQ("CmFlight_test", file.processName);
    EXPECT_EQ(512u, file.units);
    EXPECT_EQ(7u, file.slots);
    EXPECT_NE(0u, file.startWall);
    EXPECT_NE(0u, file.startMonotonic);
    EXPECT_EQ(0u, file.tickWall);
    CCmFlight::Tick(111, 222);
    file = flight.Read();
    EXPECT_EQ(111u, file.tickWall);
    EXPECT_EQ(222u, file.tickMonotonic);
    EXPECT_EQ(0u, file.endWall);
    CCmFlight::Close();
    EXPECT_LE(file.startWall, flight.Read().endWall);
}

TEST(CmFlight, TakesSizesWithinItsLimits) {
    {
        const ScopedFlight flight(1, 1);
        EXPECT_EQ(256u, flight.Read().units);
        EXPECT_EQ(4u, flight.Read().slots);
    }
    const ScopedFlight flight(300, 5);
    EXPECT_EQ(512u, flight.Read().units) << "a power of two";
    EXPECT_EQ(5u, flight.Read().slots);
}

// A page that is touched first while a record is made costs more than a hundred records.
TEST(CmFlight, RecordsWithoutPageFaults_WhenTheThreadHasItsRing) {
    if (CmPortHasSanitizer()) {
        GTEST_SKIP() << "it has pages of its own for those that are touched";
    }
    const ScopedFlight flight(8192, 5);
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("touched");
    pRing->HighWater(0, 0, nullptr);
    rusage before = {};
    rusage after = {};
    getrusage(RUSAGE_SELF, &before);
    getrusage(RUSAGE_SELF, &before);  // the first one has touched its own
    for (int i = 0; i < 8192; ++i) {
        pRing->HighWater(i, 0, nullptr);
    }
    getrusage(RUSAGE_SELF, &after);
    EXPECT_GT(before.ru_minflt + 8, after.ru_minflt) << "of 64 pages";
}

// ---- Classes

TEST(CmFlight, KeepsNoName_WhenTheClassHasNoTypeInformation) {
    const ScopedFlight flight;
    CCmFlight::AttachThisThread("no names")->Event(1, 1, s_tables.At(5), nullptr, 0);
    const uint64_t ullTable = reinterpret_cast<uintptr_t>(s_tables.At(5));
    EXPECT_EQ("", flight.Read().ClassOf(ullTable));
    EXPECT_EQ(ullTable, flight.ReadThread("no names").records[1].words[1]);
}

TEST(CmFlight, KeepsClassesOfEarlierFiles_WhenItIsOpenedAgain) {
    const CSomeEvent event;
    const uint64_t ullTable = reinterpret_cast<uintptr_t>(TableOf(&event));
    CCmFlightRing* pRing = nullptr;
    {
        const ScopedFlight flight;
        pRing = CCmFlight::AttachThisThread("first");
        pRing->Event(1, 1, TableOf(&event), &event, 0);
    }
    const ScopedFlight flight;
    EXPECT_EQ(pRing, CCmFlight::AttachThisThread("second")) << "whose cache knows the table";
    pRing->Event(1, 1, TableOf(&event), &event, 0);
    EXPECT_EQ(typeid(CSomeEvent).name(), flight.Read().ClassOf(ullTable));
}

// In a process of its own, as the table stays full.
TEST(CmFlight, CountsClassesAndRecordsTheirTables_WhenTheyFindNoPlace) {
    EXPECT_EQ(0, StatusOfChild([] {
                  const ScopedFlight flight(1024);
                  CCmFlightRing* const pRing = CCmFlight::AttachThisThread("classes");
                  for (size_t i = 0; i < CTables::COUNT; ++i) {
                      pRing->Event(static_cast<long long>(i), 1, s_tables.At(i), nullptr, 0);
                  }
                  const FlightFile file = flight.Read();
                  EXPECT_EQ(512u, file.classes.size());
                  size_t nThere = 0;
                  for (size_t i = 0; i < CTables::COUNT; ++i) {
                      nThere += file.classes.count(reinterpret_cast<uintptr_t>(s_tables.At(i)));
                  }
                  EXPECT_EQ(CTables::COUNT - nThere, file.lostClasses);
                  const FlightThread thread = flight.ReadThread("classes");
                  ASSERT_EQ(CTables::COUNT + 1, thread.records.size());
                  for (size_t i = 0; i < CTables::COUNT; ++i) {
                      EXPECT_EQ(reinterpret_cast<uintptr_t>(s_tables.At(i)),
                                thread.records[i + 1].words[1]);
                  }
              }));
}

TEST(CmFlight, EntersAClassOnce_WhenThreadsMeetItAtTheSameTime) {
    const ScopedFlight flight(1024, 8);
    std::atomic<int> nReady{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            CCmFlightRing* const pRing = CCmFlight::AttachThisThread("meets");
            ++nReady;
            while (nReady < 4) {
                std::this_thread::yield();
            }
            for (int n = 0; n < 100; ++n) {
                pRing->Event(1, 1, s_tables.At(n), nullptr, 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The reader itself fails when a table is there twice.
    const FlightFile file = flight.Read();
    for (int n = 0; n < 100; ++n) {
        EXPECT_EQ("", file.ClassOf(reinterpret_cast<uintptr_t>(s_tables.At(n))));
    }
    EXPECT_EQ(0u, file.lostClasses);
}

// ---- Threads

// A thread with a ring, until it is told to end.
class CRingThread {
  public:
    explicit CRingThread(const std::string& aName, bool aDetaches = false)
        : m_Thread([this, aName, aDetaches] {
              m_pRing = CCmFlight::AttachThisThread(aName.c_str());
              if (m_pRing != nullptr) {
                  m_pRing->Post(1, nullptr, Address(0x100), nullptr);
              }
              m_Began.Open();
              EXPECT_TRUE(m_End.Wait());
              if (aDetaches) {
                  CCmFlight::Detach(m_pRing);
              }
          }) {
        EXPECT_TRUE(m_Began.Wait());
    }
    ~CRingThread() { End(); }

    void End() {
        if (m_Thread.joinable()) {
            m_End.Open();
            m_Thread.join();
        }
    }
    CCmFlightRing* Ring() const { return m_pRing; }

  private:
    CCmFlightRing* m_pRing = nullptr;
    Gate m_Began;
    Gate m_End;
    std::thread m_Thread;
};

TEST(CmFlight, GivesNoRing_WhenAllSlotsAreTaken) {
    const ScopedFlight flight(256, 4);
    CRingThread a("a"), b("b"), c("c"), d("d"), e("e"), f("f");
    EXPECT_NE(nullptr, d.Ring());
    EXPECT_EQ(nullptr, e.Ring());
    EXPECT_EQ(nullptr, f.Ring());
    EXPECT_EQ(2u, flight.Read().unslotted);
}

TEST(CmFlight, CountsAThreadOnce_WhenItAsksForASlotOverAndOver) {
    const ScopedFlight flight(256, 4);
    CRingThread a("a"), b("b"), c("c"), d("d");
    std::thread([&] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(nullptr, CCmFlight::AttachThisThread(nullptr));
        }
        EXPECT_EQ(1u, flight.Read().unslotted);
        a.End();
        EXPECT_NE(nullptr, CCmFlight::AttachThisThread(nullptr)) << "now there is one";
    }).join();
    EXPECT_EQ(1u, flight.Read().unslotted);
}

TEST(CmFlight, GivesTheSlotThatEndedFirst_WhenNoneIsFree) {
    const ScopedFlight flight(256, 4);
    CRingThread a("a"), b("b", true), c("c"), d("d");
    CCmFlightRing* const pFirst = b.Ring();
    b.End();
    c.End();
    const uint32_t dwOfA = flight.ReadThread("a").number;
    const FlightThread ended = flight.ReadThread("b");
    EXPECT_EQ(2u, ended.state);
    EXPECT_EQ(dwOfA + 1, ended.number);
    EXPECT_LE(ended.start, ended.end);
    EXPECT_EQ(unsigned{kelto_test::END}, ended.records.back().kind);
    EXPECT_EQ(ended.number, ended.records.back().words[0]);
    EXPECT_EQ(2u, flight.ReadThread("c").state) << "nobody detached it";

    CRingThread e("a long name for a thread, so that it takes more than one unit, and is cut");
    EXPECT_EQ(pFirst, e.Ring());
    EXPECT_TRUE(flight.Read().Named("b").empty());
    const std::string sCut = "a long name for a thread, so that it takes more than one unit, ";
    ASSERT_EQ(63u, sCut.size());
    const FlightThread next = flight.ReadThread(sCut);
    EXPECT_EQ(1u, next.state);
    EXPECT_EQ(dwOfA + 4, next.number);
    EXPECT_EQ(0u, next.end);
    // The records of the thread before are there, and its name.
    ASSERT_EQ(5u, next.records.size());
    EXPECT_EQ("b", next.records[0].text);
    EXPECT_EQ(ended.number, next.records[0].words[0]);
    EXPECT_EQ(unsigned{kelto_test::POST}, next.records[1].kind);
    EXPECT_EQ(unsigned{kelto_test::END}, next.records[2].kind);
    EXPECT_EQ(sCut, next.records[3].text);
    EXPECT_EQ(next.records[3].number, next.first);
}

TEST(CmFlight, TakesTheSystemsNameOver_WhenThereIsNoOther) {
    const ScopedFlight flight;
    std::thread([&] {
        CmPortNameThisThread("of the system");
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread(nullptr);
        const uint32_t dwNumber = flight.ReadThread("of the system").number;
        EXPECT_EQ(pRing, CCmFlight::AttachThisThread("of the host"));
        EXPECT_EQ(pRing, CCmFlight::AttachThisThread(nullptr));
        EXPECT_EQ(pRing, CCmFlight::AttachThisThread("of the host"));
        const FlightThread thread = flight.ReadThread("of the host");
        EXPECT_EQ(dwNumber, thread.number);
        ASSERT_EQ(2u, thread.records.size()) << "one for each name";
        EXPECT_EQ("of the host", thread.records[1].text);
    }).join();
}

TEST(CmFlight, GivesNoRing_WhenItIsNotOpen) {
    EXPECT_EQ(nullptr, CCmFlight::AttachThisThread("early"));
    { const ScopedFlight flight; }
    EXPECT_EQ(nullptr, CCmFlight::AttachThisThread("late"));
    EXPECT_FALSE(CCmFlight::IsOpen());
}

TEST(CmFlight, KeepsRingsOfThreads_WhenAnotherFileIsOpened) {
    CCmFlightRing* pRing = nullptr;
    auto* const pFirst = new ScopedFlight;
    CRingThread thread("goes on");
    pRing = thread.Ring();
    delete pFirst;
    pRing->Post(2, nullptr, Address(0x200), nullptr);  // reaches nobody
    const ScopedFlight second(1024, 16);
    EXPECT_EQ(256u, second.Read().units) << "a thread has a ring of that size";
    EXPECT_TRUE(second.ReadThread("goes on").records.empty());
    pRing->Post(3, nullptr, Address(0x300), nullptr);
    const FlightThread read = second.ReadThread("goes on");
    ASSERT_EQ(1u, read.records.size());
    EXPECT_EQ(3u, read.records[0].time);
    EXPECT_EQ(read.records[0].number, read.first);
}

// ---- Posts

TEST(CmFlight, FindsTheYoungestPostThatIsNotLaterThanAsked) {
    const ScopedFlight flight;
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread("posts");
    pRing->Post(10, s_tables.At(0), Address(0x10), nullptr);
    pRing->Post(20, s_tables.At(0), Address(0x10), nullptr);
    pRing->Post(30, s_tables.At(1), Address(0x10), nullptr);
    pRing->Post(40, s_tables.At(0), Address(0x20), nullptr);
    long long llUsec = 0;
    EXPECT_TRUE(pRing->FindPost(Address(0x10), 100, llUsec));
    EXPECT_EQ(30, llUsec);
    EXPECT_TRUE(pRing->FindPost(Address(0x10), 29, llUsec));
    EXPECT_EQ(20, llUsec);
    EXPECT_TRUE(pRing->FindPost(Address(0x10), 20, llUsec));
    EXPECT_EQ(20, llUsec);
    EXPECT_FALSE(pRing->FindPost(Address(0x10), 9, llUsec));
    EXPECT_FALSE(pRing->FindPost(Address(0x30), 100, llUsec));
    for (int i = 0; i < 254; ++i) {
        pRing->HighWater(50, 0, nullptr);
    }
    EXPECT_TRUE(pRing->FindPost(Address(0x20), 100, llUsec));
    pRing->HighWater(50, 0, nullptr);
    EXPECT_FALSE(pRing->FindPost(Address(0x20), 100, llUsec)) << "it has been overwritten";
}

TEST(CmFlight, NamesThePoster_WhenItHasEndedAndAnotherHasItsRing) {
    const ScopedFlight flight(256, 4);
    const void* const pTable = s_tables.At(2);
    const auto post = [&](const char* aName, uintptr_t aEvent, long long aUsec) {
        std::thread([=] {
            CCmFlight::AttachThisThread(aName)->Post(aUsec, pTable, Address(aEvent), nullptr);
        }).join();
    };
    CRingThread a("a"), b("b"), c("c");
    post("gone", 0x1000, 10);
    post("after it", 0x2000, 20);
    post("the last of all those, with a longer name", 0x1000, 5);
    char szPoster[CM_FLIGHT_NAME_SIZE] = {};
    long long llUsec = 0;
    const auto find = [&](uintptr_t aEvent, const void* aTable, long long aUsec) {
        std::memset(szPoster, 0, sizeof(szPoster));
        return CCmFlight::FindPost(Address(aEvent), aTable, nullptr, aUsec, llUsec, szPoster);
    };
    EXPECT_TRUE(find(0x2000, pTable, 100));
    EXPECT_STREQ("after it", szPoster);
    EXPECT_EQ(20, llUsec);
    EXPECT_FALSE(find(0x2000, s_tables.At(3), 100)) << "another class";
    EXPECT_TRUE(find(0x1000, pTable, 9));
    EXPECT_STREQ("the last of all those, with a longer name", szPoster);
    b.Ring()->Post(8, pTable, Address(0x1000), nullptr);  // b waits at its gate
    EXPECT_TRUE(find(0x1000, pTable, 9));
    EXPECT_STREQ("b", szPoster) << "the youngest of all threads";
    EXPECT_EQ(8, llUsec);
    EXPECT_FALSE(find(0x3000, pTable, 100));
    // The name of the thread before is known for as long as its post is there, those of earlier
    // ones may be overwritten sooner.
    post("earlier", 0x4000, 30);
    post("the one before", 0x5000, 35);
    std::thread([&] {
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread("overwrites");
        EXPECT_LT(3u, flight.ReadThread("overwrites").records.size());
        bool bIsForgotten = false;
        long long llThere = 0;
        while (pRing->FindPost(Address(0x5000), 100, llThere)) {
            ASSERT_TRUE(find(0x5000, pTable, 100));
            EXPECT_STREQ("the one before", szPoster);
            if (find(0x4000, pTable, 100)) {
                bIsForgotten = bIsForgotten || *szPoster == '\0';
                EXPECT_STREQ(bIsForgotten ? "" : "earlier", szPoster);
            }
            pRing->HighWater(40, 0, nullptr);
        }
        EXPECT_TRUE(bIsForgotten) << "the name was there for as long as the post";
    }).join();
}

TEST(CmFlight, NamesThePoster_WhileThreadsComeAndGo) {
    const ScopedFlight flight(256, 4);
    CCmFlight::AttachThisThread("finds");
    std::atomic<bool> bEnd{false};
    std::thread others([&] {
        for (int n = 1; !bEnd; ++n) {
            std::thread([n] {
                CCmFlightRing* const pRing =
                    CCmFlight::AttachThisThread(("poster " + std::to_string(n % 64)).c_str());
                pRing->Post(n, Address(0), Address(1 + n % 64), nullptr);
            }).join();
        }
    });
    int nFound = 0;
    for (int i = 0; i < 2000 || nFound == 0; ++i) {
        const uintptr_t nEvent = 1 + i % 64;
        long long llUsec = 0;
        char szPoster[CM_FLIGHT_NAME_SIZE] = {};
        if (CCmFlight::FindPost(Address(nEvent), nullptr, nullptr, INT64_MAX, llUsec, szPoster)) {
            ++nFound;
            EXPECT_EQ("poster " + std::to_string(llUsec % 64), szPoster);
        }
    }
    bEnd = true;
    others.join();
}

// What is found is one that was posted, whatever the poster overwrites meanwhile.
TEST(CmFlight, FindsWholePosts_WhileTheThreadRecords) {
    const ScopedFlight flight(256, 4);
    std::atomic<bool> bEnd{false};
    std::thread poster([&] {
        CCmFlightRing* const pRing = CCmFlight::AttachThisThread("poster");
        for (uintptr_t n = 1; !bEnd; ++n) {
            pRing->Post(static_cast<long long>(n), Address(0), Address(1 + n % 64), nullptr);
        }
    });
    int nFound = 0;
    for (int i = 0; i < 20000 || nFound == 0; ++i) {
        const uintptr_t nEvent = 1 + i % 64;
        long long llUsec = 0;
        char szPoster[CM_FLIGHT_NAME_SIZE] = {};
        if (CCmFlight::FindPost(Address(nEvent), nullptr, nullptr, INT64_MAX, llUsec, szPoster)) {
            ++nFound;
            EXPECT_EQ(nEvent, static_cast<uintptr_t>(1 + llUsec % 64));
            EXPECT_STREQ("poster", szPoster);
        }
    }
    bEnd = true;
    poster.join();
}

// ---- Trace lines

struct CLine {
    std::string text;
    unsigned level;
    bool isFiltered;
    bool operator==(const CLine& aOther) const {
        return text == aOther.text && level == aOther.level && isFiltered == aOther.isFiltered;
    }
};

std::ostream& operator<<(std::ostream& aStream, const CLine& aLine) {
    return aStream << aLine.level << (aLine.isFiltered ? " filtered " : " ") << aLine.text;
}

std::vector<CLine> LinesOf(const FlightThread& aThread) {
    std::vector<CLine> lines;
    for (const FlightRecord& record : aThread.records) {
        if (record.kind == kelto_test::LINE) {
            lines.push_back({record.text, static_cast<unsigned>(record.words[0] & 0xFF),
                             (record.words[0] >> 8 & 1) != 0});
        }
    }
    return lines;
}

void Trace(unsigned long aLevel, const std::string& aText) {
    util_adapter_trace(aLevel, aText.c_str(), static_cast<unsigned int>(aText.size()));
}

TEST(CmFlight, TakesTheLinesThatASinkGets_WhenOneIsInstalled) {
    const ScopedFlight flight(256, 4, true);
    CCmFlight::AttachThisThread("traces");
    const ScopedTraceSink sink;
    Trace(0, "an error");
    Trace(27, "a level that the facility drops");
    util_adapter_trace_ex(20, "module", "of a module", 11);
    const std::vector<CLine> expected = {{"an error", 0, false},
                                         {"a level that the facility drops", 27, false},
                                         {"of a module", 20, false}};
    EXPECT_EQ(expected, LinesOf(flight.ReadThread("traces")));
    ASSERT_EQ(3u, sink.lines().size());
    EXPECT_EQ("an error", sink.lines()[0].text);
    EXPECT_EQ(27u, sink.lines()[1].level);
    EXPECT_EQ(11u, sink.lines()[2].length);
}

// Traces at all levels and returns what the trace library got.
std::vector<std::string> TextsOfAllLevels() {
    ScopedTraceLibrary library;
    for (unsigned long ulLevel = 0; ulLevel < CM_TRACE_LEVEL_COUNT + 2; ++ulLevel) {
        Trace(ulLevel, "level " + std::to_string(ulLevel));
    }
    char szDirect[] = "the facility itself";
    CCmT120Trace::instance()->trace_string(20, szDirect);
    CCmT120Trace::instance()->trace_string(27, szDirect);
    return library.texts();
}

TEST(CmFlight, TakesLinesOfAllLevels_WithoutAnotherOneElsewhere) {
    const ScopedHome home;
    const std::vector<std::string> withoutIt = TextsOfAllLevels();
    EXPECT_EQ((std::vector<std::string>{"level 0", "level 10", "level 20", "the facility itself"}),
              withoutIt);
    EXPECT_FALSE(CCmT120Trace::is_wanted(27));
    {
        const ScopedFlight flight(256, 4, true);
        CCmFlight::AttachThisThread("traces");
        EXPECT_TRUE(CCmT120Trace::is_wanted(27)) << "so that hosts compose such lines";
        EXPECT_EQ(withoutIt, TextsOfAllLevels());
        std::vector<CLine> expected;
        for (unsigned nLevel = 0; nLevel < CM_TRACE_LEVEL_COUNT + 2; ++nLevel) {
            const bool bIsOn = nLevel == 0 || nLevel == 10 || nLevel == 20;
            expected.push_back({"level " + std::to_string(nLevel), nLevel, !bIsOn});
        }
        expected.push_back({"the facility itself", 20, false});
        expected.push_back({"the facility itself", 27, true});
        EXPECT_EQ(expected, LinesOf(flight.ReadThread("traces")));
    }
    EXPECT_FALSE(CCmT120Trace::is_wanted(27));
    EXPECT_EQ(withoutIt, TextsOfAllLevels());
}

void IgnoreLine(unsigned long /*aLevel*/, const char* /*aText*/, unsigned int /*aLength*/) {}

TEST(CmFlight, TakesNoLine_WhenItHasNoText) {
    const ScopedHome home;
    const ScopedFlight flight(256, 4, true);
    CCmFlight::AttachThisThread("traces");
    CCmT120Trace::instance()->trace_string(27, nullptr);
    set_util_external_trace_sink(&IgnoreLine);
    util_adapter_trace(0, nullptr, 3);
    set_util_external_trace_sink(nullptr);
    EXPECT_TRUE(LinesOf(flight.ReadThread("traces")).empty());
}

TEST(CmFlight, TakesNoLines_WhenNotAskedTo) {
    const ScopedFlight flight(256, 4, false);
    CCmFlight::AttachThisThread("traces");
    const ScopedTraceSink sink;
    Trace(0, "an error");
    EXPECT_TRUE(LinesOf(flight.ReadThread("traces")).empty());
}

TEST(CmFlight, GivesNoSecondRingToAThreadThatTraces_WhenItGaveTheFirstBack) {
    const ScopedFlight flight(256, 4, true);
    const ScopedTraceSink sink;
    std::thread([&] {
        CmPortNameThisThread("tracer");
        errno = 4711;
        Trace(20, "first");
        EXPECT_EQ(4711, errno);
        EXPECT_NE(nullptr, CCmFlight::RingOfThisThread());
        CCmFlight::Detach(CCmFlight::RingOfThisThread());
        Trace(20, "second");
        EXPECT_EQ(nullptr, CCmFlight::RingOfThisThread());
    }).join();
    const std::vector<CLine> expected = {{"first", 20, false}};
    EXPECT_EQ(expected, LinesOf(flight.ReadThread("tracer")));
}

// Thread-specific data is destroyed in any order, and what destroys it may trace.
TEST(CmFlight, TakesLinesOfDestructorsOfThreadData) {
    const ScopedFlight flight(256, 4, true);
    const ScopedTraceSink sink;
    static pthread_key_t s_keys[2];
    for (pthread_key_t& key : s_keys) {
        ASSERT_EQ(0, pthread_key_create(&key, [](void*) { Trace(20, "from a destructor"); }));
    }
    std::thread([&] {
        CCmFlight::AttachThisThread("has data");
        for (const pthread_key_t& key : s_keys) {
            pthread_setspecific(key, &s_keys);
        }
    }).join();
    const FlightThread thread = flight.ReadThread("has data");
    EXPECT_EQ(2u, LinesOf(thread).size());
    EXPECT_EQ(2u, thread.state);
    for (const pthread_key_t& key : s_keys) {
        pthread_key_delete(key);
    }
}

}  // namespace
}  // namespace UTIL_NS
