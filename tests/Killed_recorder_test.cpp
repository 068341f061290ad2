// A process whose threads record all the time is killed at random moments. Afterwards the flight
// recorder's file holds what each thread recorded last: in order, each record whole, none that was
// acknowledged missing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CmFlight.h"
#include "support/ChildProcess.h"
#include "support/Flight.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::FlightFile;
using kelto_test::FlightKind;
using kelto_test::FlightRecord;
using kelto_test::FlightThread;
using kelto_test::ScopedDirectory;

constexpr uint32_t UNITS = 512;
constexpr uint32_t SLOTS = 6;
constexpr uint32_t STEADY = 3;       // threads that record until they are killed
constexpr uint32_t SHORT_LIFE = 40;  // records of a thread that comes and goes
constexpr uint32_t KINDS = 7;
constexpr uint32_t CLASSES = 9;

// ---- What stream s, of one thread, records as number n

// Tables of classes without type information.
const void* s_pTables[2 * CLASSES] = {};

const void* Table(uint64_t aNumber) {
    return &s_pTables[2 * (aNumber % CLASSES) + 1];
}

uint64_t Address(uint64_t aStream, uint64_t aNumber) {
    return aStream << 32 | aNumber;
}

unsigned Kind(uint64_t aStream, uint64_t aNumber) {
    constexpr unsigned ALL[KINDS] = {kelto_test::EVENT, kelto_test::POST,       kelto_test::TIMER,
                                     kelto_test::SEND,  kelto_test::HIGH_WATER, kelto_test::STEP,
                                     kelto_test::LINE};
    return ALL[(aStream * 5 + aNumber * aNumber + aNumber / 3) % KINDS];
}

std::string Text(uint64_t aStream, uint64_t aNumber) {
    std::string sText = std::to_string(aStream) + " says " + std::to_string(aNumber) + " ";
    while (sText.size() < aNumber * 37 % 480) {
        sText += static_cast<char>('a' + sText.size() % 26);
    }
    return sText;
}

void Record(CCmFlightRing& aRing, uint64_t aStream, uint64_t aNumber) {
    const long long llTime = static_cast<long long>(aNumber);
    const auto* const pAddress = reinterpret_cast<const void*>(Address(aStream, aNumber));
    const DWORD dwNumber = static_cast<DWORD>(aNumber);
    switch (Kind(aStream, aNumber)) {
        case kelto_test::EVENT:
            return aRing.Event(llTime, llTime + 1, Table(aNumber), pAddress, dwNumber % 1000);
        case kelto_test::POST:
            return aRing.Post(llTime, Table(aNumber), pAddress, &aRing);
        case kelto_test::TIMER:
            return aRing.Timer(llTime, static_cast<long long>(Address(aStream, aNumber)),
                               llTime + 2, Table(aNumber));
        case kelto_test::SEND:
            return aRing.Send(llTime, llTime + 3, Table(aNumber), pAddress);
        case kelto_test::HIGH_WATER:
            return aRing.HighWater(llTime, dwNumber, pAddress);
        case kelto_test::STEP:
            return aRing.Step(llTime, -static_cast<long long>(Address(aStream, aNumber)));
        default: {
            const std::string sText = Text(aStream, aNumber);
            return aRing.Line(llTime, 20, aNumber % 2 == 0, sText.c_str(), sText.size());
        }
    }
}

// The stream that a record is of, as far as it tells.
uint64_t StreamOf(const FlightRecord& aRecord) {
    switch (aRecord.kind) {
        case kelto_test::EVENT:
        case kelto_test::SEND:
            return aRecord.words[2] >> 32;
        case kelto_test::POST:
        case kelto_test::HIGH_WATER:
            return aRecord.words[1] >> 32;
        case kelto_test::TIMER:
            return aRecord.words[0] >> 32;
        case kelto_test::STEP:
            return (0 - aRecord.words[0]) >> 32;
        default:
            return std::stoull(aRecord.text);
    }
}

void CheckWords(const FlightRecord& aRecord, uint64_t aStream, bool aIsLast) {
    const uint64_t ullNumber = aRecord.time;
    const uint64_t ullTable = reinterpret_cast<uintptr_t>(Table(ullNumber));
    const uint64_t ullAddress = Address(aStream, ullNumber);
    ASSERT_EQ(Kind(aStream, ullNumber), aRecord.kind);
    const auto expectWords = [&](uint64_t aFirst, uint64_t aSecond, uint64_t aThird) {
        EXPECT_EQ(aFirst, aRecord.words[0]);
        EXPECT_EQ(aSecond, aRecord.words[1]);
        EXPECT_EQ(aThird, aRecord.words[2]);
    };
    switch (aRecord.kind) {
        case kelto_test::EVENT:
            return expectWords((ullNumber + 1) << 24 | ullNumber % 1000, ullTable, ullAddress);
        case kelto_test::POST:
            return expectWords(ullTable, ullAddress, aRecord.words[2]);
        case kelto_test::TIMER:
            return expectWords(ullAddress, ullNumber + 2, ullTable);
        case kelto_test::SEND:
            return expectWords(ullNumber + 3, ullTable, ullAddress);
        case kelto_test::HIGH_WATER:
            return expectWords(ullNumber, ullAddress, 0);
        case kelto_test::STEP:
            return expectWords(0 - ullAddress, 0, 0);
        default: {
            const std::string sText = Text(aStream, ullNumber);
            EXPECT_TRUE(aRecord.isWhole || aIsLast);
            EXPECT_EQ(sText.substr(0, aRecord.isWhole ? sText.size() : aRecord.text.size()),
                      aRecord.text);
            EXPECT_EQ(20u | (ullNumber % 2 == 0 ? 0x100u : 0u) | sText.size() << 16,
                      aRecord.words[0]);
        }
    }
}

// ---- The process

// In memory that it shares with the test.
struct CProgress {
    std::atomic<uint64_t> acknowledged[STEADY];  // the number after the last one
    std::atomic<uint64_t> shortLives;
};

std::string SteadyName(uint64_t aStream) {
    return "steady " + std::to_string(aStream);
}

void LiveSteadily(uint64_t aStream, CProgress& aProgress) {
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread(SteadyName(aStream).c_str());
    for (uint64_t n = 0; pRing != nullptr; ++n) {
        Record(*pRing, aStream, n);
        aProgress.acknowledged[aStream].store(n + 1, std::memory_order_release);
    }
}

void LiveShortly(uint64_t aStream) {
    const std::string sName = "a short life, number " + std::to_string(aStream);
    CCmFlightRing* const pRing = CCmFlight::AttachThisThread(sName.c_str());
    for (uint64_t n = 0; pRing != nullptr && n < SHORT_LIFE; ++n) {
        Record(*pRing, aStream, n);
    }
}

[[noreturn]] void LiveUntilKilled(const std::string& aDirectory, CProgress& aProgress) {
    CCmFlightOptions options;
    options.m_dwUnits = UNITS;
    options.m_dwThreads = SLOTS;
    options.m_bLines = false;
    options.m_pszDirectory = aDirectory.c_str();
    if (CCmFlight::Open(options) != CM_OK) {
        EndProcess(1);
    }
    std::vector<std::thread> threads;
    for (uint64_t nStream = 0; nStream < STEADY; ++nStream) {
        threads.emplace_back([&, nStream] { LiveSteadily(nStream, aProgress); });
    }
    for (uint64_t nStream = STEADY;; ++nStream) {
        std::thread([nStream] { LiveShortly(nStream); }).join();
        ++aProgress.shortLives;
    }
}

// ---- What must be true of the file

void CheckRing(const FlightThread& aThread, const FlightFile& aFile, bool aKnowsClasses) {
    constexpr uint64_t UNKNOWN = UINT64_MAX;
    uint64_t ullStream = UNKNOWN;
    uint64_t ullNext = UNKNOWN;
    uint64_t ullUnit = 0;
    for (size_t i = 0; i < aThread.records.size(); ++i) {
        const FlightRecord& record = aThread.records[i];
        SCOPED_TRACE("unit " + std::to_string(record.number) + " kind " +
                     std::to_string(record.kind) + " time " + std::to_string(record.time));
        const bool bIsLast = i + 1 == aThread.records.size();
        EXPECT_TRUE(i == 0 || record.number > ullUnit);
        ullUnit = record.number;
        if (record.kind == kelto_test::TEXT) {
            // What is left of a text whose begin has been overwritten.
            EXPECT_TRUE(ullStream == UNKNOWN && ullNext == UNKNOWN);
            continue;
        }
        if (record.kind == kelto_test::THREAD) {
            EXPECT_TRUE(record.isWhole || bIsLast);
            ullStream = UNKNOWN;
            ullNext = 0;
            if (record.isWhole) {
                ullStream = std::stoull(record.text.substr(record.text.rfind(' ') + 1));
            }
            continue;
        }
        if (record.kind == kelto_test::END) {
            EXPECT_EQ(SHORT_LIFE, ullNext == UNKNOWN ? SHORT_LIFE : ullNext);
            ullStream = UNKNOWN;
            ullNext = UNKNOWN;
            continue;
        }
        if (record.kind == kelto_test::LINE && record.text.size() < 16 && !record.isWhole) {
            EXPECT_TRUE(bIsLast);
            continue;
        }
        ASSERT_LE(unsigned{kelto_test::EVENT}, record.kind);
        ASSERT_GE(unsigned{kelto_test::LINE}, record.kind);
        if (ullStream == UNKNOWN) {
            ullStream = StreamOf(record);
        }
        if (ullNext == UNKNOWN) {
            ullNext = record.time;
        }
        ASSERT_EQ(ullNext, record.time);
        CheckWords(record, ullStream, bIsLast);
        ++ullNext;
        if (aKnowsClasses) {
            EXPECT_EQ("", aFile.ClassOf(reinterpret_cast<uintptr_t>(Table(record.time))));
        }
    }
}

// The whole ring but one unit is there, and what is at its end was recorded last.
void CheckSteady(const FlightFile& aFile, const CProgress& aProgress) {
    for (uint64_t nStream = 0; nStream < STEADY; ++nStream) {
        SCOPED_TRACE(SteadyName(nStream));
        const uint64_t ullAcknowledged = aProgress.acknowledged[nStream];
        if (ullAcknowledged == 0) {
            continue;
        }
        const auto found = aFile.Named(SteadyName(nStream));
        ASSERT_EQ(1u, found.size());
        EXPECT_EQ(1u, found[0]->state);
        ASSERT_FALSE(found[0]->records.empty());
        const FlightRecord& last = found[0]->records.back();
        EXPECT_LE(ullAcknowledged, last.time + 1);
        EXPECT_GE(ullAcknowledged + 1, last.time + 1);
    }
}

FlightFile FileOf(const ScopedDirectory& aDirectory, pid_t aProcess) {
    for (const std::string& sName : aDirectory.names()) {
        if (sName.find("." + std::to_string(aProcess) + ".") != std::string::npos) {
            return FlightFile(aDirectory.path() + "/" + sName);
        }
    }
    return FlightFile("");
}

class KilledRecorder : public testing::Test {
  protected:
    KilledRecorder()
        : m_progress(*static_cast<CProgress*>(mmap(
              nullptr, sizeof(CProgress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANON, -1, 0))) {}
    ~KilledRecorder() override { munmap(&m_progress, sizeof(m_progress)); }

    // aWhen: microseconds, after it works or, otherwise, after it was forked.
    FlightFile KillOne(bool aWorks, long aWhen) {
        new (&m_progress) CProgress();
        const pid_t process = fork();
        if (process == 0) {
            LiveUntilKilled(m_directory.path(), m_progress);
        }
        if (aWorks) {
            while (!Works()) {
                usleep(100);
            }
        }
        usleep(static_cast<useconds_t>(aWhen));
        kill(process, SIGKILL);
        int nStatus = 0;
        waitpid(process, &nStatus, 0);
        EXPECT_TRUE(WIFSIGNALED(nStatus)) << nStatus;
        return FileOf(m_directory, process);
    }

    void Check(const FlightFile& aFile, bool aKnowsClasses) {
        EXPECT_EQ(0u, aFile.endWall);
        EXPECT_EQ(0u, aFile.lostClasses);
        for (const FlightThread& thread : aFile.threads) {
            SCOPED_TRACE("ring of " + thread.name);
            CheckRing(thread, aFile, aKnowsClasses);
        }
        CheckSteady(aFile, m_progress);
    }

    const ScopedDirectory m_directory;
    CProgress& m_progress;

  private:
    // Whether every ring has wrapped, and the classes are known.
    bool Works() const {
        for (const auto& ullAcknowledged : m_progress.acknowledged) {
            if (ullAcknowledged < 2 * UNITS) {
                return false;
            }
        }
        return m_progress.shortLives > 5;
    }
};

constexpr int KILLS = 200 / KELTO_TEST_STRIDE;

TEST_F(KilledRecorder, LeavesWholeRecordsInOrder_WhenKilledAtWork) {
    std::mt19937 random(24);
    size_t nRecords = 0;
    for (int i = 0; i < KILLS && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const FlightFile file = KillOne(true, static_cast<long>(random() % 2000));
        ASSERT_TRUE(file.isValid);
        Check(file, true);
        for (const FlightThread& thread : file.threads) {
            nRecords += thread.records.size();
        }
        EXPECT_GE(6u, m_directory.names().size());
    }
    EXPECT_LT(static_cast<size_t>(KILLS) * 100, nRecords);
    RecordProperty("records", static_cast<int>(nRecords));
}

TEST_F(KilledRecorder, LeavesAFileOrNone_WhenKilledAtTheStart) {
    std::mt19937 random(42);
    for (int i = 0; i < KILLS && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const FlightFile file = KillOne(false, static_cast<long>(random() % 3000));
        if (file.isValid) {
            Check(file, false);
        }
        EXPECT_GE(6u, m_directory.names().size());
    }
}

}  // namespace
}  // namespace UTIL_NS
