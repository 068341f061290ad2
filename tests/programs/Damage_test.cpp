// Files that are cut or changed anywhere: whatever reads and prints them ends, and says what is
// wrong where it says so in one line.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CmFlightOutput.h"
#include "CmFlightReader.h"
#include "CmFlightRecords.h"
#include "CmTopReading.h"

namespace {

using namespace UTIL_NS;

constexpr uint32_t CLASSES = 2;
constexpr uint32_t SLOTS = 2;
constexpr uint32_t UNITS = 32;
constexpr uint64_t START = UINT64_C(1795339800000000);

struct CRing {
    CCmFlightSlot slot;
    CCmFlightUnit units[UNITS];

    void Add(CCmFlightUnit::EKind aKind, uint64_t aUsec, uint64_t aFirst, uint64_t aSecond,
             uint64_t aThird) {
        units[slot.m_ullWritten++ % UNITS] = {CmFlightHead(aKind, aUsec),
                                              {aFirst, aSecond, aThird}};
    }
};

// A small file with everything in it.
struct CFile {
    char achHeader[512];
    CCmFlightClass classes[CLASSES];
    CRing rings[SLOTS];

    CCmFlightHeader& Header() { return *reinterpret_cast<CCmFlightHeader*>(achHeader); }
    std::string Bytes() const {
        return std::string(reinterpret_cast<const char*>(this), sizeof(*this));
    }
};
static_assert(sizeof(CFile) == 512 + CLASSES * sizeof(CCmFlightClass) + SLOTS * sizeof(CRing));

CFile MakeFile() {
    alignas(8) CFile file = {};
    CCmFlightHeader& header = file.Header();
    std::memcpy(header.m_achMagic, CM_FLIGHT_MAGIC, sizeof(CM_FLIGHT_MAGIC));
    header.m_dwVersion = CM_FLIGHT_VERSION;
    header.m_dwHeaderSize = sizeof(file.achHeader);
    header.m_ullFileSize = sizeof(file);
    header.m_dwClassSize = sizeof(CCmFlightClass);
    header.m_dwClassCount = CLASSES;
    header.m_ullSlotsOffset = offsetof(CFile, rings);
    header.m_dwSlotSize = sizeof(CRing);
    header.m_dwSlotCount = SLOTS;
    header.m_dwRingOffset = sizeof(CCmFlightSlot);
    header.m_dwUnitSize = sizeof(CCmFlightUnit);
    header.m_dwUnitCount = UNITS;
    header.m_dwProcessId = 4711;
    std::strcpy(header.m_szProcess, "media-host");
    header.m_ullStartWall = START;
    header.m_ullTickWall = START + 1000000;
    for (uint32_t i = 0; i < CLASSES; ++i) {
        file.classes[i].m_ullTable = 0x1000 + i;
        file.classes[i].m_dwState = CCmFlightClass::COMPLETE;
        std::strcpy(file.classes[i].m_szName, i == 0 ? "N5media7CPacketE" : "");
    }
    for (uint32_t i = 0; i < SLOTS; ++i) {
        CRing& ring = file.rings[i];
        ring.slot.m_dwState = CCmFlightSlot::LIVE;
        ring.slot.m_dwNumber = i + 1;
        ring.slot.m_ullStart = START;
        std::strcpy(ring.slot.m_szName, "worker");
        ring.slot.m_ullFiguresCount = 2;
        ring.slot.m_ullFiguresWall = START + 1000000;
        ring.slot.m_Figures.m_ullRun = 5;
        ring.slot.m_ullCurrentTable = 0x1000;
        ring.slot.m_ullCurrentStart = START + 900000;
        ring.Add(CCmFlightUnit::THREAD, START, i + 1, 7, 6);
        ring.Add(CCmFlightUnit::TEXT, 1, 0x72656b726f77, 0, 0);
        for (uint64_t n = 0; n < 3; ++n) {
            const uint64_t ullUsec = START + 100 * n;
            ring.Add(CCmFlightUnit::POST, ullUsec, 0x1000, 0xA0 + n, 0xC0);
            ring.Add(CCmFlightUnit::EVENT, ullUsec + 50, CmFlightRun(10, 3), 0x1000, 0xA0 + n);
            ring.Add(CCmFlightUnit::TIMER, ullUsec, 5, 6, 0x1001);
            ring.Add(CCmFlightUnit::SEND, ullUsec, 5, 0x1000, 0xC0);
            ring.Add(CCmFlightUnit::HIGH_WATER, ullUsec, 64, 0xC0, 0);
            ring.Add(CCmFlightUnit::STEP, ullUsec, ~UINT64_C(5), 0, 0);
            ring.Add(CCmFlightUnit::LINE, ullUsec, CmFlightLine(10, 1, 40), 0x6161, 0x6262);
            ring.Add(CCmFlightUnit::TEXT, 1, 1, 2, 3);
        }
    }
    return file;
}

class CCount final : public ICmTextSink {
  public:
    void Put(std::string_view aText) override { count += aText.size(); }
    size_t count = 0;
};

class DamagedRecording : public testing::Test {
  protected:
    void SetUp() override {
        m_nFile = mkstemp(m_szPath);
        ASSERT_GE(m_nFile, 0);
    }
    void TearDown() override {
        close(m_nFile);
        unlink(m_szPath);
    }

    struct CResult {
        std::string error;  // empty, or what was wrong
        size_t printed = 0;
        size_t records = 0;
        bool hasFigures = false;
    };

    // Reads it, and prints it in every way. aSize: zeros follow up to there.
    CResult Read(const std::string& aBytes, uint64_t aSize = 0) {
        CResult result;
        Write(aBytes, aSize);
        CCmFlightReader reader;
        if (!reader.Open(m_szPath)) {
            result.error = reader.Error();
        } else {
            CCmFlightRecords records = CmReadRecords(reader);
            CmFilterRecords(CCmFlightFilter(), &records);
            CCount sink;
            CmPrintRecords(reader, records, sink);
            CmPrintThreads(reader, records, sink);
            CmPrintTimeline(reader, records, sink);
            CmPrintPicture(reader, records, sink);
            result.printed = sink.count;
            result.error = records.error;
            result.records = records.records.size();
            CCmTopReading reading;
            result.hasFigures = CmReadFigures(reader, &reading);
            result.printed += CmTopTable(reading, CCmTopOrder(), 80, 24, true).size();
            result.printed += CmTopJson(reading, CCmTopOrder()).size();
        }
        EXPECT_EQ(result.error.find('\n'), std::string::npos);
        EXPECT_EQ(result.error.empty() ? 0 : result.error.find(m_szPath), 0U) << result.error;
        return result;
    }

    // Only what is not there already: thousands of files would take the time of their disk.
    void Write(const std::string& aBytes, uint64_t aSize) {
        const size_t nSize = std::max(aBytes.size(), static_cast<size_t>(aSize));
        if (nSize != m_nSize) {
            ASSERT_EQ(ftruncate(m_nFile, static_cast<off_t>(nSize)), 0);
            m_nSize = nSize;
            m_strThere.resize(std::min(m_strThere.size(), nSize));
        }
        const size_t nBoth = std::min(m_strThere.size(), aBytes.size());
        const size_t nFrom = static_cast<size_t>(
            std::mismatch(aBytes.begin(), aBytes.begin() + static_cast<long>(nBoth),
                          m_strThere.begin())
                .first -
            aBytes.begin());
        const std::string strRest = aBytes.substr(nFrom);
        ASSERT_EQ(pwrite(m_nFile, strRest.data(), strRest.size(), static_cast<off_t>(nFrom)),
                  static_cast<ssize_t>(strRest.size()));
        m_strThere = aBytes;
    }

    std::string m_strThere;
    size_t m_nSize = 0;
    char m_szPath[32] = "/tmp/kelto-damage-XXXXXX";
    int m_nFile = -1;
};

TEST_F(DamagedRecording, IsReadWhole_WhenItIsNotDamaged) {
    const CResult result = Read(MakeFile().Bytes());
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.records, SLOTS * (1 + 3 * 7 + 1));
    EXPECT_TRUE(result.hasFigures);
}

TEST_F(DamagedRecording, SaysWhereItEnds_WhenItIsCutAnywhere) {
    const std::string strWhole = MakeFile().Bytes();
    for (size_t n = strWhole.size() - 1; n > 0; n -= n < 1100 ? 1 : 7) {
        EXPECT_NE(Read(strWhole.substr(0, n)).error.find("it is cut after"), std::string::npos)
            << n;
    }
}

TEST_F(DamagedRecording, IsReadOrRefused_WhateverByteIsChanged) {
    const std::string strWhole = MakeFile().Bytes();
    for (size_t n = 0; n < strWhole.size(); ++n) {
        const bool bHeader = n < sizeof(CCmFlightHeader);
        for (const unsigned uFlip :
             bHeader ? std::vector<unsigned>{1, 0x80, 0xFF, 0x55} : std::vector<unsigned>{0xFF}) {
            std::string strChanged = strWhole;
            strChanged[n] = static_cast<char>(static_cast<unsigned char>(strChanged[n]) ^ uFlip);
            const CResult result = Read(strChanged);
            EXPECT_EQ(result.error.empty(), result.printed > 0 && result.hasFigures) << n;
            EXPECT_TRUE(bHeader || result.error.empty()) << n << result.error;
        }
    }
}

// Offset of a field in the header, and what is put there.
struct CChange {
    size_t offset;
    size_t size;
    uint64_t value;
};

#define FIELD(name) offsetof(CCmFlightHeader, name), sizeof(CCmFlightHeader::name)

TEST_F(DamagedRecording, IsRefused_WhenCountsAndOffsetsAreOutOfRange) {
    const CChange changes[] = {
        {FIELD(m_dwHeaderSize), 0},
        {FIELD(m_dwHeaderSize), 183},
        {FIELD(m_dwHeaderSize), 0xFFFFFFFF},
        {FIELD(m_ullFileSize), 0},
        {FIELD(m_ullFileSize), UINT64_MAX},
        {FIELD(m_ullFileSize), sizeof(CFile) + 1},
        {FIELD(m_dwClassSize), 0},
        {FIELD(m_dwClassSize), 255},
        {FIELD(m_dwClassCount), 3},
        {FIELD(m_dwClassCount), 0x1000000},
        {FIELD(m_dwClassCount), 0xFFFFFFFF},
        {FIELD(m_ullSlotsOffset), 0},
        {FIELD(m_ullSlotsOffset), UINT64_MAX},
        {FIELD(m_ullSlotsOffset), UINT64_MAX - SLOTS * sizeof(CRing) + 1},  // the sum wraps to 0
        {FIELD(m_dwSlotSize), 0},
        {FIELD(m_dwSlotSize), sizeof(CRing) - 1},
        {FIELD(m_dwSlotSize), 0xFFFFFFFF},
        {FIELD(m_dwSlotCount), 1},
        {FIELD(m_dwSlotCount), 1025},
        {FIELD(m_dwSlotCount), 0xFFFFFFFF},
        {FIELD(m_dwRingOffset), 0},
        {FIELD(m_dwRingOffset), sizeof(CCmFlightSlot) - 8},
        {FIELD(m_dwRingOffset), sizeof(CCmFlightSlot) + 8},
        {FIELD(m_dwRingOffset), 0xFFFFFFFF},
        {FIELD(m_dwUnitSize), 0},
        {FIELD(m_dwUnitSize), 64},
        {FIELD(m_dwUnitCount), 0},
        {FIELD(m_dwUnitCount), UNITS - 1},
        {FIELD(m_dwUnitCount), UNITS * 2},
        {FIELD(m_dwUnitCount), 0x80000000},
        {FIELD(m_dwUnitCount), 0xFFFFFFFF},
    };
    for (const CChange& change : changes) {
        CFile file = MakeFile();
        std::memcpy(file.achHeader + change.offset, &change.value, change.size);
        const CResult result = Read(file.Bytes());
        EXPECT_NE(result.error.find("it is damaged"), std::string::npos)
            << change.offset << " " << change.value << " " << result.error;
        EXPECT_EQ(result.printed, 0U);
    }
}

// Two GiB, which are zeros but for the beginning.
TEST_F(DamagedRecording, IsReadInBounds_WhenItClaimsTheMost) {
    CFile file = MakeFile();
    CCmFlightHeader& header = file.Header();
    header.m_dwSlotCount = CM_FLIGHT_MOST_SLOTS;
    header.m_dwUnitCount = CM_FLIGHT_MOST_UNITS;
    header.m_dwSlotSize = sizeof(CCmFlightSlot) + CM_FLIGHT_MOST_UNITS * sizeof(CCmFlightUnit);
    header.m_ullFileSize =
        header.m_ullSlotsOffset + uint64_t{header.m_dwSlotCount} * header.m_dwSlotSize;
    file.rings[0].slot.m_ullWritten = UINT64_MAX;
    EXPECT_EQ(Read(file.Bytes(), header.m_ullFileSize).error, "");
}

TEST_F(DamagedRecording, IsRead_WhateverRingsSayOfThemselves) {
    for (const uint64_t ullWritten :
         {UINT64_C(0), UINT64_C(1), uint64_t{UNITS}, uint64_t{UNITS} + 1, UINT64_MAX / 2,
          UINT64_MAX - UNITS, UINT64_MAX - 1, UINT64_MAX}) {
        for (const uint64_t ullFirst : {UINT64_C(0), UINT64_C(3), UINT64_MAX}) {
            CFile file = MakeFile();
            file.rings[0].slot.m_ullWritten = ullWritten;
            file.rings[0].slot.m_ullFirst = ullFirst;
            EXPECT_EQ(Read(file.Bytes()).error, "") << ullWritten << " " << ullFirst;
        }
    }
}

// Texts whose numbers lead back, on, or nowhere, and of lengths that nothing has.
TEST_F(DamagedRecording, IsRead_WhateverUnitsOfTextSay) {
    for (const uint64_t ullNumber : {UINT64_C(0), UINT64_C(1), UINT64_C(2), CM_FLIGHT_TIME_MASK}) {
        for (const uint64_t ullLength :
             {UINT64_C(0), UINT64_C(17), UINT64_C(480), UINT64_C(65535)}) {
            CFile file = MakeFile();
            CRing& ring = file.rings[0];
            ring.slot.m_ullWritten = 0;
            for (uint32_t i = 0; i < UNITS; ++i) {
                ring.Add(i % 8 == 0   ? CCmFlightUnit::LINE
                         : i % 8 == 4 ? CCmFlightUnit::THREAD
                                      : CCmFlightUnit::TEXT,
                         ullNumber, ullLength << 16, 1, ullLength);
            }
            EXPECT_EQ(Read(file.Bytes()).error, "") << ullNumber << " " << ullLength;
        }
    }
}

TEST_F(DamagedRecording, IsRead_WhateverWordsAre) {
    for (unsigned uKind = 0; uKind < 256; ++uKind) {
        CFile file = MakeFile();
        for (CRing& ring : file.rings) {
            std::memset(ring.units, 0xFF, sizeof(ring.units));
            for (CCmFlightUnit& unit : ring.units) {
                unit.m_ullHead = uint64_t{uKind} << CM_FLIGHT_KIND_SHIFT | CM_FLIGHT_TIME_MASK;
            }
            std::memset(&ring.slot.m_Figures, 0xFF, sizeof(ring.slot.m_Figures));
            ring.slot.m_ullCurrentStart = UINT64_MAX;
            ring.slot.m_ullStart = UINT64_MAX;
            ring.slot.m_ullEnd = UINT64_MAX;
        }
        std::memset(&file.Header().m_ullStartWall, 0xFF, 7 * sizeof(uint64_t));
        EXPECT_EQ(Read(file.Bytes()).error, "") << uKind;
    }
}

}  // namespace
