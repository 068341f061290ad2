// Trace files while the disk is full, slow or back again, while their directory goes away, and
// while the clock is set at every call.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "CmConfig.h"
#include "CmT120Trace.h"
#include "CmT120TraceFile.h"
#include "support/Clock.h"
#include "support/EveryCall.h"
#include "support/Faults.h"
#include "support/Gate.h"
#include "support/Home.h"
#include "support/TraceLines.h"

namespace UTIL_NS {
namespace {

using kelto_test::ELosses;
using kelto_test::EMoment;
using kelto_test::FaultOf;
using kelto_test::Gate;
using kelto_test::NumberedText;
using kelto_test::ReadFile;
using kelto_test::ScopedCallHook;
using kelto_test::ScopedClock;
using kelto_test::ScopedEntry;
using kelto_test::ScopedHome;
using kelto_test::TraceLineId;

constexpr int LINES = 14;
constexpr unsigned long LIMIT = 400;  // bytes: a shared file starts again after about four lines

using PwriteEntry = ScopedEntry<decltype(g_cmSystem.pwrite)>;
using PreadEntry = ScopedEntry<decltype(g_cmSystem.pread)>;

struct Way {
    const char* name;
    unsigned char shared;
    unsigned long limit;
};

class DiskTroubles : public testing::TestWithParam<Way> {
  protected:
    std::unique_ptr<CCmT120TraceFile> NewRecord() const {
        return std::make_unique<CCmT120TraceFile>(m_sPath.c_str(), GetParam().limit,
                                                  GetParam().shared, 0);
    }
    bool RollsOver() const { return GetParam().shared != 0 && GetParam().limit != 0; }

    const ScopedHome m_home;
    const std::string m_sPath = m_home.path() + "trace";
};

INSTANTIATE_TEST_SUITE_P(Ways, DiskTroubles,
                         testing::Values(Way{"Shared", 1, 0}, Way{"SharedAtALimit", 1, LIMIT},
                                         Way{"Buffered", 0, 0}, Way{"BufferedAtALimit", 0, LIMIT}),
                         [](const auto& aInfo) { return std::string(aInfo.param.name); });

// ---- Full

unsigned long s_ulWrites = 0;
unsigned long s_ulFirstFailing = 0;
unsigned long s_ulFailing = 0;
unsigned long s_ulFailures = 0;
bool s_bTakesAPart = false;

// A disk without room for some writes; it takes a part of the first of them, if it is no header,
// which lies where the file has room already.
ssize_t WriteToFullDisk(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    const unsigned long ulWrite = ++s_ulWrites;
    if (ulWrite < s_ulFirstFailing || ulWrite >= s_ulFirstFailing + s_ulFailing) {
        return pwrite(aFile, aText, aSize, aOffset);
    }
    ++s_ulFailures;
    if (s_bTakesAPart && ulWrite == s_ulFirstFailing && aOffset != 0 && aSize > 1) {
        return pwrite(aFile, aText, aSize / 2, aOffset);
    }
    errno = ENOSPC;
    return -1;
}

TEST_P(DiskTroubles, LosesOnlyTheLinesThatFoundNoRoom_WhenTheDiskIsFull) {
    const PwriteEntry entry(g_cmSystem.pwrite, &WriteToFullDisk);
    unsigned long ulCases = 0;
    s_ulFirstFailing = 0;
    do {
        ++s_ulFirstFailing;
        for (const bool bPart : {false, true}) {
            for (const unsigned long ulFailing : {1, 2, 3, 7}) {
                unlink(m_sPath.c_str());
                s_ulWrites = s_ulFailures = 0;
                s_ulFailing = ulFailing + (bPart ? 1 : 0);
                s_bTakesAPart = bPart;
                const auto pFile = NewRecord();
                ASSERT_EQ(CM_OK, pFile->attach());
                std::set<TraceLineId> written;
                for (int n = 1; n <= LINES; ++n) {
                    const unsigned long ulFailures = s_ulFailures;
                    pFile->write(nullptr, "m", NumberedText({1, n}).c_str());
                    if (ulFailures == s_ulFailures) {
                        written.insert({1, n});
                    }
                }
                const std::string sContent = ReadFile(m_sPath);
                ASSERT_EQ("", FaultOf(sContent, written, RollsOver(), ELosses::SOME))
                    << ulFailing << " writes fail from number " << s_ulFirstFailing << "\n"
                    << sContent;
                ASSERT_LE(static_cast<unsigned long>(LINES), written.size() + ulFailing + 1);
                ++ulCases;
            }
        }
    } while (s_ulFirstFailing < s_ulWrites);
    RecordProperty("cases", static_cast<int>(ulCases));
    printf("%lu cases\n", ulCases);
    EXPECT_LE(300UL, ulCases);
}

// ---- Slow

ssize_t WriteSlowly(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    if (++s_ulWrites % 2 == 0) {
        errno = EINTR;
        return -1;
    }
    return pwrite(aFile, aText, std::min<size_t>(aSize, 7), aOffset);
}

ssize_t ReadSlowly(int aFile, void* aText, size_t aSize, off_t aOffset) {
    if (++s_ulWrites % 2 == 0) {
        errno = EINTR;
        return -1;
    }
    return pread(aFile, aText, std::min<size_t>(aSize, 7), aOffset);
}

TEST_P(DiskTroubles, LosesNoLine_WhenTheDiskTakesAFewBytesAtATime) {
    const PwriteEntry writes(g_cmSystem.pwrite, &WriteSlowly);
    const PreadEntry reads(g_cmSystem.pread, &ReadSlowly);
    const auto pFile = NewRecord();
    ASSERT_EQ(CM_OK, pFile->attach());
    std::set<TraceLineId> written;
    for (int n = 1; n <= LINES; ++n) {
        pFile->write(nullptr, "m", NumberedText({1, n}).c_str());
        written.insert({1, n});
        ASSERT_EQ("", FaultOf(ReadFile(m_sPath), written, RollsOver())) << n;
    }
}

Gate s_inWrite;
Gate s_mayGoOn;

ssize_t WriteThatWaits(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    if (s_inWrite.Open()) {
        EXPECT_TRUE(s_mayGoOn.Wait());
    }
    return pwrite(aFile, aText, aSize, aOffset);
}

TEST_P(DiskTroubles, HoldsUpNoOtherFile_WhenAWriteTakesLong) {
    s_inWrite.Close();
    s_mayGoOn.Close();
    const PwriteEntry entry(g_cmSystem.pwrite, &WriteThatWaits);
    const auto pFile = NewRecord();
    ASSERT_EQ(CM_OK, pFile->attach());
    std::thread writer([&] { pFile->write(nullptr, "m", NumberedText({1, 1}).c_str()); });
    ASSERT_TRUE(s_inWrite.Wait());
    Gate returned;
    std::thread other([&] {
        void* pRecord = T120_Open_Trace_Dev((m_home.path() + "other").c_str(), 0, 1, 0);
        EXPECT_EQ(CM_OK, static_cast<CCmT120TraceFile*>(pRecord)->attach());
        T120_Write_Trace_Dev(pRecord, nullptr, "m", NumberedText({2, 1}).c_str());
        T120_Close_Trace_Dev(pRecord);
        auto pSame = NewRecord();
        EXPECT_EQ(CM_OK, pSame->attach());
        pSame.reset();
        returned.Open();
    });
    EXPECT_TRUE(returned.Wait());
    EXPECT_EQ("", FaultOf(ReadFile(m_home.path() + "other"), {{2, 1}}, false));
    s_mayGoOn.Open();
    writer.join();
    other.join();
    EXPECT_EQ("", FaultOf(ReadFile(m_sPath), {{1, 1}}, false));
}

// ---- At every call

unsigned long s_ulCalls = 0;
unsigned long s_ulAtCall = 0;
std::string s_sDirectory;

void RemoveDirectoryAtCall(EMoment aMoment) {
    if (aMoment == EMoment::BEFORE && ++s_ulCalls == s_ulAtCall) {
        std::filesystem::remove_all(s_sDirectory);
    }
}

long LoadFacility() {
    static CCmT120TraceMapEntry s_table[CM_TRACE_LEVEL_COUNT];
    return CCmT120Trace("test", s_table, "name", 1).load(nullptr);
}

TEST_P(DiskTroubles, GoesOnAndFindsTheDirectoryAgain_WhenItGoesAway) {
    s_sDirectory = m_home.path();
    s_ulAtCall = 0;
    do {
        std::filesystem::create_directories(m_home.path() + "conf");
        ++s_ulAtCall;
        s_ulCalls = 0;
        {
            const ScopedCallHook hook(&RemoveDirectoryAtCall);
            EXPECT_EQ(1, LoadFacility());
            const auto pFile = NewRecord();
            const CmResult rv = pFile->attach();
            EXPECT_TRUE(rv == CM_OK || (rv == CM_ERROR_FAILURE && s_ulCalls >= s_ulAtCall)) << rv;
            errno = ENOTTY;
            for (int n = 1; n <= 3; ++n) {
                pFile->write(nullptr, "m", NumberedText({1, n}).c_str());
            }
            EXPECT_EQ(ENOTTY, errno);
        }
        const bool bRemoved = s_ulCalls >= s_ulAtCall;
        std::filesystem::create_directories(m_home.path());
        const auto pNext = NewRecord();
        ASSERT_EQ(CM_OK, pNext->attach()) << "call " << s_ulAtCall;
        pNext->write(nullptr, "m", NumberedText({2, 1}).c_str());
        ASSERT_EQ("", FaultOf(ReadFile(m_sPath), {{2, 1}}, RollsOver())) << "call " << s_ulAtCall;
        if (!bRemoved) {
            break;
        }
        unlink(m_sPath.c_str());
    } while (true);
    EXPECT_LE(40UL, s_ulAtCall);
}

ScopedClock* s_pClock = nullptr;
std::minstd_rand s_random;
unsigned long s_ulSteps = 0;

// To any day of a year with four digits.
void StepClock(EMoment aMoment) {
    if (aMoment == EMoment::BEFORE) {
        constexpr long LAST = 250000000000;  // seconds: the year 9892
        s_pClock->Set(static_cast<long>(s_random() % 1000000) * (LAST / 1000000),
                      static_cast<long>(s_random() % 1000000));
        ++s_ulSteps;
    }
}

TEST_P(DiskTroubles, WritesWholeLines_WhileTheClockIsSetAtEveryCall) {
    ScopedClock clock;
    s_pClock = &clock;
    s_random.seed(22);
    s_ulSteps = 0;
    std::set<TraceLineId> written;
    const ScopedCallHook hook(&StepClock);
    const auto pFile = NewRecord();
    ASSERT_EQ(CM_OK, pFile->attach());
    for (int n = 1; n <= 100; ++n) {
        pFile->write(nullptr, "m", NumberedText({1, n}).c_str());
        written.insert({1, n});
        ASSERT_EQ("", FaultOf(ReadFile(m_sPath), written, RollsOver())) << n;
    }
    EXPECT_LE(500UL, s_ulSteps);
}

}  // namespace
}  // namespace UTIL_NS
