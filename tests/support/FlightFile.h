// Reads a flight recorder's file by the page that describes it, docs/flight-format.md, and nothing
// of the library.
#ifndef TESTS_SUPPORT_FLIGHT_FILE_H
#define TESTS_SUPPORT_FLIGHT_FILE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace kelto_test {

enum FlightKind : unsigned {
    NOTHING,
    EVENT,
    POST,
    TIMER,
    SEND,
    HIGH_WATER,
    STEP,
    LINE,
    TEXT,
    THREAD,
    END,
};

struct FlightRecord {
    uint64_t number;  // of its first unit in the ring
    unsigned kind;
    uint64_t time;
    uint64_t words[3];
    std::string text;     // of a LINE or THREAD
    bool isWhole = true;  // all units of its text are there
};

struct FlightThread {
    uint32_t state;  // 0 free, 1 live, 2 ended
    uint32_t number;
    uint64_t thread;
    uint64_t start;
    uint64_t end;
    uint64_t first;
    std::string name;
    uint64_t figuresCount;
    uint64_t figuresWall;
    std::vector<uint64_t> figures;
    uint64_t currentTable;
    uint64_t currentStart;
    uint64_t written;
    std::vector<FlightRecord> records;  // of all threads that had the ring
};

class FlightFile {
  public:
    explicit FlightFile(const std::string& aPath) {
        std::ifstream file(aPath, std::ios::binary);
        m_sBytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        isValid = m_sBytes.size() >= 4096 && m_sBytes.compare(0, 8, "KELTOFLT") == 0 &&
                  U32(8) == 1 && U64(16) == m_sBytes.size();
        if (isValid) {
            ReadHeader();
            ReadClasses(U32(12), U32(24), U32(28));
            for (uint32_t i = 0; i < slots; ++i) {
                ReadThread(U64(32) + uint64_t{i} * U32(40), U32(48), U32(52));
            }
        }
    }

    // The class's name, "?" when the table has none.
    std::string ClassOf(uint64_t aTable) const {
        const auto found = classes.find(aTable);
        return found == classes.end() ? "?" : found->second;
    }
    // Those in use whose thread has this name.
    std::vector<const FlightThread*> Named(const std::string& aName) const {
        std::vector<const FlightThread*> found;
        for (const FlightThread& thread : threads) {
            if (thread.state != 0 && thread.name == aName) {
                found.push_back(&thread);
            }
        }
        return found;
    }

    bool isValid = false;
    uint32_t slots = 0;
    uint32_t units = 0;
    uint32_t process = 0;
    std::string processName;
    uint64_t startWall = 0;
    uint64_t startMonotonic = 0;
    uint64_t tickWall = 0;
    uint64_t tickMonotonic = 0;
    uint64_t endWall = 0;
    uint64_t lostClasses = 0;
    uint64_t unslotted = 0;
    std::map<uint64_t, std::string> classes;  // complete ones
    std::vector<FlightThread> threads;

  private:
    uint32_t U32(uint64_t aOffset) const {
        uint32_t dwValue = 0;
        std::memcpy(&dwValue, &m_sBytes.at(aOffset), sizeof(dwValue));
        return dwValue;
    }
    uint64_t U64(uint64_t aOffset) const {
        uint64_t ullValue = 0;
        std::memcpy(&ullValue, &m_sBytes.at(aOffset), sizeof(ullValue));
        return ullValue;
    }
    std::string Text(uint64_t aOffset) const { return std::string(&m_sBytes.at(aOffset)); }

    void ReadHeader() {
        slots = U32(44);
        units = U32(56);
        process = U32(60);
        processName = Text(64);
        startWall = U64(128);
        startMonotonic = U64(136);
        tickWall = U64(144);
        tickMonotonic = U64(152);
        endWall = U64(160);
        lostClasses = U64(168);
        unslotted = U64(176);
    }

    void ReadClasses(uint64_t aOffset, uint32_t aSize, uint32_t aCount) {
        for (uint32_t i = 0; i < aCount; ++i) {
            const uint64_t ullEntry = aOffset + uint64_t{i} * aSize;
            if (U32(ullEntry + 8) == 2) {
                EXPECT_TRUE(classes.emplace(U64(ullEntry), Text(ullEntry + 16)).second);
            }
        }
    }

    void ReadThread(uint64_t aOffset, uint32_t aRing, uint32_t aUnit) {
        FlightThread thread = {};
        thread.state = U32(aOffset);
        thread.number = U32(aOffset + 4);
        thread.thread = U64(aOffset + 8);
        thread.start = U64(aOffset + 16);
        thread.end = U64(aOffset + 24);
        thread.first = U64(aOffset + 32);
        thread.name = Text(aOffset + 40);
        thread.figuresCount = U64(aOffset + 128);
        thread.figuresWall = U64(aOffset + 136);
        for (int i = 0; i < 32; ++i) {
            thread.figures.push_back(U64(aOffset + 144 + i * 8));
        }
        thread.currentTable = U64(aOffset + 512);
        thread.currentStart = U64(aOffset + 520);
        thread.written = U64(aOffset + 528);
        ReadRing(thread, aOffset + aRing, aUnit);
        threads.push_back(thread);
    }

    // Without the oldest unit of a full ring, in whose place the next one may be half written.
    void ReadRing(FlightThread& aThread, uint64_t aRing, uint32_t aUnit) const {
        uint64_t ullNumber = aThread.written < units ? 0 : aThread.written - units + 1;
        const auto unit = [&](uint64_t aNumber, unsigned aWord) {
            return U64(aRing + aNumber % units * aUnit + aWord * 8);
        };
        while (ullNumber < aThread.written) {
            const uint64_t ullHead = unit(ullNumber, 0);
            FlightRecord record = {};
            record.number = ullNumber;
            record.kind = static_cast<unsigned>(ullHead >> 56);
            record.time = ullHead & 0xFFFFFFFFFFFFFF;
            for (unsigned i = 0; i < 3; ++i) {
                record.words[i] = unit(ullNumber, i + 1);
            }
            ++ullNumber;
            size_t nText = 0;
            if (record.kind == LINE) {
                nText = record.words[0] >> 16 & 0xFFFF;
                const size_t nHere = nText < 16 ? nText : 16;
                record.text.assign(reinterpret_cast<const char*>(&record.words[1]), nHere);
            } else if (record.kind == THREAD) {
                nText = record.words[2];
            }
            for (uint64_t ullPart = 1; record.text.size() < nText; ++ullPart, ++ullNumber) {
                if (ullNumber >= aThread.written ||
                    unit(ullNumber, 0) != (uint64_t{TEXT} << 56 | ullPart)) {
                    record.isWhole = false;
                    break;
                }
                const size_t nRest = nText - record.text.size();
                record.text.append(&m_sBytes.at(aRing + ullNumber % units * aUnit + 8),
                                   nRest < 24 ? nRest : 24);
            }
            if (record.kind != NOTHING) {
                aThread.records.push_back(record);
            }
        }
    }

    std::string m_sBytes;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_FLIGHT_FILE_H
