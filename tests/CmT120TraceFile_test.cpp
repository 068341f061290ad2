#include "CmT120TraceFile.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <thread>

#include "CmConfig.h"
#include "support/ChildProcess.h"
#include "support/Clock.h"
#include "support/Faults.h"
#include "support/Fields.h"
#include "support/Gate.h"
#include "support/Home.h"
#include "support/LockCalls.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndProcess;
using kelto_test::Failing;
using kelto_test::FailingCall;
using kelto_test::ScopedClock;
using kelto_test::ScopedHome;
using kelto_test::WriteFile;

constexpr char MARKER[] =
    "************************* Current Trace Point *************************\n\n";

std::string ReadFile(const std::string& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::string Header(long aPosition) {
    std::string sHeader = std::to_string(aPosition);
    sHeader.resize(31, ' ');
    return sHeader + "\n";
}

int ThreadIdentity() {
    return static_cast<int>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
}

// What stands in front of a line written at the clock's start, 2004-11-09 11:33:20 in UTC, in a
// zone five hours west of it.
std::string Stamp() {
    return "[11/09/2004 06:33:20.123 pid=" + std::to_string(getpid()) +
           " tid=" + std::to_string(ThreadIdentity()) + "]";
}

class CmT120TraceFile : public testing::Test {
  protected:
    CmT120TraceFile() : m_Clock(1100000000, 123999), m_sPath(m_Home.path() + "t.txt") {
        setenv("TZ", "TST5", 1);
        tzset();
    }
    ~CmT120TraceFile() override { ClearFilters(); }

    // A file whose header says that lines start right after it.
    void WriteEmptyTraceFile() { WriteFile(m_sPath, Header(32)); }
    std::string Content() const { return ReadFile(m_sPath); }
    void WriteFilters(const std::string& aContent) {
        WriteFile(m_Home.path() + "conf/keltoexp.filter", aContent);
    }
    void SetFilters(const std::string& aContent) {
        WriteFilters(aContent);
        CCmT120TraceFileMgr::init_reg_filter();
    }
    void ClearFilters() { SetFilters("("); }

    ScopedHome m_Home;
    ScopedClock m_Clock;
    std::string m_sPath;
};

TEST_F(CmT120TraceFile, AttachCreatesTheRecordsOwnFile) {
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    EXPECT_FALSE(std::filesystem::exists(m_sPath));
    EXPECT_EQ(CM_OK, file.attach());
    EXPECT_EQ("", Content());
    EXPECT_TRUE(std::filesystem::exists(m_sPath));
}

TEST_F(CmT120TraceFile, AttachKeepsWhatTheFileHolds) {
    WriteFile(m_sPath, "kept");
    CCmT120TraceFile file(nullptr, 0, 0, 0);
    EXPECT_EQ(CM_OK, file.attach(m_sPath.c_str()));
    EXPECT_EQ("kept", Content());
}

TEST_F(CmT120TraceFile, AttachTakesAnyFileForATraceFile) {
    for (const char* pszStart : {"no number", "40 is one"}) {
        const std::string sBefore = pszStart + std::string(1000, 'x');
        const size_t nPosition = *pszStart == '4' ? 40 : 0;
        WriteFile(m_sPath, sBefore);
        CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
        EXPECT_EQ(CM_OK, file.attach());
        file.write(nullptr, nullptr, "over it");
        const size_t nLength = Stamp().size() + 9;
        const std::string sContent = Content();
        EXPECT_EQ(Header(static_cast<long>(nPosition + nLength)), sContent.substr(0, 32));
        EXPECT_EQ(sBefore.size(), sContent.size());
        EXPECT_EQ("over it\n" + std::string(MARKER) + "x",
                  sContent.substr(nPosition + nLength - 8, 8 + 73 + 1));
    }
}

TEST_F(CmT120TraceFile, AttachFails_WithoutAName) {
    CCmT120TraceFile file(nullptr, 0, 0, 0);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, file.attach());
}

TEST_F(CmT120TraceFile, AttachFails_WhenTheFileIsADirectory) {
    CCmT120TraceFile file(m_Home.path().c_str(), 0, 0, 0);
    EXPECT_EQ(CM_ERROR_FAILURE, file.attach());
}

TEST_F(CmT120TraceFile, AttachDoesNothing_WhenAttachedAlready) {
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    EXPECT_EQ(CM_OK, file.attach());
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, file.attach());
}

TEST_F(CmT120TraceFile, RecordWritesNowhere_WithoutAttach) {
    for (unsigned char bShared : {0, 1}) {
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.write("tag", "net", "text");
        file.write_shared("tag", "net", "text");
        file.flush_buffer();
    }
    EXPECT_FALSE(std::filesystem::exists(m_sPath));
}

TEST_F(CmT120TraceFile, RecordForgetsItsLines_BeforeAttach) {
    for (unsigned char bShared : {0, 1}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.write(nullptr, nullptr, "lost");
        file.attach();
        file.write(nullptr, nullptr, "kept");
        const std::string sLine = Stamp() + " kept\n";
        EXPECT_EQ(Header(32 + static_cast<long>(sLine.size())) + sLine + MARKER, Content());
    }
}

TEST_F(CmT120TraceFile, WriteStampsWholeMilliseconds_WhateverTheMicroseconds) {
    for (const long lUsec : {0, 999, 1000, 999000, 999999}) {
        WriteEmptyTraceFile();
        m_Clock.Set(1100000000, lUsec);
        CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
        file.attach();
        file.write(nullptr, nullptr, "text");
        char szTime[64];
        std::snprintf(szTime, sizeof(szTime), " 06:33:20.%03ld pid=", lUsec / 1000);
        EXPECT_NE(std::string::npos, Content().find(szTime)) << lUsec;
    }
}

TEST_F(CmT120TraceFile, WriteFormatsTagAndModule) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write("TAG", "net", "text");
    const std::string sLine = Stamp() + " [TAG] net:text\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLine.size())) + sLine + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteFormatsTheModule_WithoutATag) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write(nullptr, "net", "text");
    const std::string sLine = Stamp() + " net:text\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLine.size())) + sLine + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteFormatsTextOnly_WithoutModule) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write("TAG", nullptr, "text");
    const std::string sLine = Stamp() + " text\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLine.size())) + sLine + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteSharedFormatsTheSameThreeWays) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    file.write("TAG", "net", "one");
    file.write(nullptr, "net", "two");
    file.write("TAG", nullptr, "three");
    const std::string sLines =
        Stamp() + " [TAG] net:one\n" + Stamp() + " net:two\n" + Stamp() + " three\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLines.size())) + sLines + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteTakesNoTextAsAFormat) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write("%s", "%n", "%d%%");
    EXPECT_NE(std::string::npos, Content().find(" [%s] %n:%d%%\n"));
}

TEST_F(CmT120TraceFile, WritePrintsWhatPrintfDoes_WhenTheTextIsNull) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write(nullptr, "net", nullptr);
    EXPECT_NE(std::string::npos, Content().find(" net:(null)\n"));
}

TEST_F(CmT120TraceFile, WriteLosesTheFirst32BytesToTheHeader_WhenTheFileIsNew) {
    for (unsigned char bShared : {0, 1}) {
        std::filesystem::remove(m_sPath);
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        file.write(nullptr, "net", "text");
        const std::string sLine = Stamp() + " net:text\n";
        EXPECT_EQ(Header(static_cast<long>(sLine.size())) + sLine.substr(32) + MARKER, Content());
    }
}

TEST_F(CmT120TraceFile, WriteWritesOncePerFlushCount) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    EXPECT_EQ(1, file.refresh_settings(0, 3));
    file.write(nullptr, nullptr, "1");
    file.write(nullptr, nullptr, "2");
    EXPECT_EQ(Header(32), Content());
    file.write(nullptr, nullptr, "3");
    const std::string sLines = Stamp() + " 1\n" + Stamp() + " 2\n" + Stamp() + " 3\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLines.size())) + sLines + MARKER, Content());
}

TEST_F(CmT120TraceFile, FlushWritesWhatWasCollected) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.refresh_settings(0, 3);
    file.write(nullptr, nullptr, "1");
    file.flush_buffer();
    EXPECT_NE(std::string::npos, Content().find(" 1\n"));
    const std::string sContent = Content();
    file.flush_buffer();
    EXPECT_EQ(sContent, Content());
}

TEST_F(CmT120TraceFile, DestructorFlushes) {
    WriteEmptyTraceFile();
    {
        CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
        file.attach();
        file.refresh_settings(0, 100);
        file.write(nullptr, nullptr, "last");
    }
    EXPECT_NE(std::string::npos, Content().find(" last\n"));
}

TEST_F(CmT120TraceFile, RefreshSettingsFlushesFirst_WhenTheCountIsNew) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.refresh_settings(0, 3);
    file.write(nullptr, nullptr, "kept");
    EXPECT_EQ(1, file.refresh_settings(0, 5));
    EXPECT_NE(std::string::npos, Content().find(" kept\n"));
    for (int i = 0; i < 4; ++i) {
        file.write(nullptr, nullptr, "later");
    }
    EXPECT_EQ(std::string::npos, Content().find("later"));
    file.write(nullptr, nullptr, "later");
    EXPECT_NE(std::string::npos, Content().find("later"));
}

TEST_F(CmT120TraceFile, RefreshSettingsFlushesToo_WhenTheCountIsTheSame) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.refresh_settings(0, 3);
    file.write(nullptr, nullptr, "kept");
    EXPECT_EQ(1, file.refresh_settings(0, 3));
    EXPECT_NE(std::string::npos, Content().find(" kept\n"));
}

TEST_F(CmT120TraceFile, RefreshSettingsSetsTheSizeLimit_WhateverTheFlushCount) {
    for (const int nFlushCount : {1, 2}) {
        WriteFile(m_sPath, Header(100) + std::string(68, 'o'));
        CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
        file.attach();
        file.refresh_settings(100, nFlushCount);
        file.write(nullptr, nullptr, "top");
        EXPECT_EQ(Stamp() + " top\n", Content().substr(32, Stamp().size() + 5));
    }
}

TEST_F(CmT120TraceFile, RefreshSettingsBoundsTheFlushCount) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    for (int nCount : {0, -1, INT32_MIN}) {
        EXPECT_EQ(1, file.refresh_settings(0, nCount));
        file.write(nullptr, nullptr, "at once");
        EXPECT_NE(std::string::npos, Content().find(" at once\n")) << nCount;
        WriteEmptyTraceFile();
    }
}

TEST_F(CmT120TraceFile, RefreshSettingsLosesLines_WithoutMemoryForThem) {
    for (unsigned char bShared : {0, 1}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        {
            FailingCall<&CCmSystemTable::malloc> fault(ENOMEM, nullptr);
            EXPECT_EQ(1, file.refresh_settings(0, INT32_MAX));
        }
        file.write(nullptr, nullptr, "lost");
        file.flush_buffer();
        EXPECT_EQ(Header(32), Content());
        EXPECT_EQ(1, file.refresh_settings(0, 1));
        file.write(nullptr, nullptr, "next");
        EXPECT_EQ(Stamp() + " next\n", Content().substr(32, Stamp().size() + 6));
    }
}

TEST_F(CmT120TraceFile, RefreshSettingsTakesManyLinesPerFlush) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.refresh_settings(0, 3000);
    for (int i = 1; i < 3000; ++i) {
        file.write(nullptr, nullptr, "line");
    }
    EXPECT_EQ(Header(32), Content());
    file.write(nullptr, nullptr, "line");
    EXPECT_NE(Header(32), Content());
}

TEST_F(CmT120TraceFile, WriteCutsTheLineAndCountsWhatWasStored_WhenItIsLongerThanTheBuffer) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write(nullptr, nullptr, std::string(5000, 'x').c_str());
    const std::string sContent = Content();
    EXPECT_EQ(Header(32 + 2047), sContent.substr(0, 32));
    EXPECT_EQ(32u + 2047 + 73, sContent.size());
    EXPECT_EQ("xxx\n", sContent.substr(32 + 2043, 4));
    EXPECT_EQ(MARKER, sContent.substr(32 + 2047));
}

TEST_F(CmT120TraceFile, WriteEndsTheLastLine_WhateverRoomIsLeftForIt) {
    constexpr size_t ROOM = size_t{2} * 2048;
    const size_t nAround = Stamp().size() + 2;  // a blank and a line end
    for (const size_t nLeft : {3, 2, 1, 0}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
        file.attach();
        file.refresh_settings(0, 2);
        const std::string sFirst(ROOM - nLeft - nAround, 'x');
        file.write(nullptr, nullptr, sFirst.c_str());
        file.write(nullptr, nullptr, "next");
        std::string sLines = Stamp() + " " + sFirst + "\n";
        if (nLeft == 0) {
            sLines.replace(sLines.size() - 2, 2, "\n");  // cut, too
        } else if (nLeft > 1) {
            sLines += std::string(nLeft - 2, '[') + "\n";
        }
        EXPECT_EQ(Header(32 + static_cast<long>(sLines.size())) + sLines + MARKER, Content());
    }
}

TEST_F(CmT120TraceFile, WriteStillFlushes_WhenACutLineFilledTheBuffer) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.refresh_settings(0, 2);
    file.write(nullptr, nullptr, std::string(9000, 'x').c_str());
    file.write(nullptr, nullptr, "no room");
    EXPECT_EQ(Header(32 + 4095), Content().substr(0, 32));
    EXPECT_EQ(std::string::npos, Content().find("no room"));
    file.write(nullptr, nullptr, "room");
    file.flush_buffer();
    EXPECT_NE(std::string::npos, Content().find(" room\n"));
}

TEST_F(CmT120TraceFile, WriteSharedCutsNothing) {
    const size_t nAround = Stamp().size() + 2;  // a blank and a line end
    for (size_t nLength : {2047 - nAround, 2048 - nAround, 2049 - nAround, size_t{100000}}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
        file.attach();
        file.write(nullptr, nullptr, std::string(nLength, 'x').c_str());
        EXPECT_NE(std::string::npos,
                  Content().find(" " + std::string(nLength, 'x') + "\n" + MARKER));
    }
}

TEST_F(CmT120TraceFile, WriteSharedCutsALongLine_WithoutMemoryForIt) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    {
        FailingCall<&CCmSystemTable::malloc> fault(ENOMEM, nullptr);
        file.write(nullptr, nullptr, std::string(5000, 'x').c_str());
    }
    const std::string sStart = Stamp() + " ";
    EXPECT_EQ(Header(32 + 2047) + sStart + std::string(2046 - sStart.size(), 'x') + "\n" + MARKER,
              Content());
}

int g_nYear = 0;

// A year later each time.
tm* LocaltimeOfALateYear(const time_t* aTime, tm* aDate) {
    tm* pDate = ::localtime_r(aTime, aDate);
    aDate->tm_year = g_nYear++ - 1900;
    return pDate;
}

// The line is composed once for its length, and once more where there is room.
TEST_F(CmT120TraceFile, WriteSharedEndsALongLine_WhenItsStampGrowsMeanwhile) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    kelto_test::ScopedEntry<decltype(g_cmSystem.localtime_r)> entry(g_cmSystem.localtime_r,
                                                                    LocaltimeOfALateYear);
    g_nYear = 9999;
    file.write(nullptr, nullptr, std::string(3000, 'x').c_str());
    const std::string sContent = Content();
    EXPECT_NE(std::string::npos, sContent.find("/10000 "));
    EXPECT_NE(std::string::npos, sContent.find(" " + std::string(2999, 'x') + "\n" + MARKER));
}

size_t g_nAllocated = 0;

void* RecordingMalloc(size_t aSize) {
    g_nAllocated = aSize;
    return std::malloc(aSize);
}

TEST_F(CmT120TraceFile, LineBufferHasRoomForEachLineAndATerminator) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.malloc)> entry(g_cmSystem.malloc, RecordingMalloc);
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    EXPECT_EQ(2049u, g_nAllocated);
    file.refresh_settings(0, 3);
    EXPECT_EQ(3u * 2048 + 1, g_nAllocated);
}

TEST_F(CmT120TraceFile, WriteSharedWritesNothing_WhenTheTextIsNull) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    file.write(nullptr, "net", nullptr);
    EXPECT_EQ(Header(32), Content());
}

TEST_F(CmT120TraceFile, WriteOverwritesTheMarker) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write(nullptr, nullptr, "1");
    file.write(nullptr, nullptr, "2");
    const std::string sLines = Stamp() + " 1\n" + Stamp() + " 2\n";
    EXPECT_EQ(Header(32 + static_cast<long>(sLines.size())) + sLines + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteSharedStartsAgainAt32_WhenTheSizeLimitIsReached) {
    WriteFile(m_sPath, Header(100) + std::string(68, 'o') + MARKER);
    CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
    file.attach();
    file.write(nullptr, nullptr, "top");
    const std::string sLine = Stamp() + " top\n";
    const std::string sContent = Content();
    EXPECT_EQ(Header(32 + static_cast<long>(sLine.size())) + sLine + MARKER,
              sContent.substr(0, 32 + sLine.size() + 73));
}

// The line is short enough for the cut end to show.
TEST_F(CmT120TraceFile, WriteSharedCutsTheFileAtThePosition_WhenTheSizeLimitIsReached) {
    WriteFile(m_sPath, Header(1000) + std::string(968, 'o') + MARKER);
    CCmT120TraceFile file(m_sPath.c_str(), 1000, 1, 0);
    file.attach();
    file.write(nullptr, nullptr, "top");
    EXPECT_EQ(1000u, Content().size());
    EXPECT_EQ("ooo", Content().substr(997));
}

TEST_F(CmT120TraceFile, WriteSharedGoesOn_BeforeTheSizeLimit) {
    WriteFile(m_sPath, Header(99) + std::string(67, 'o'));
    CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
    file.attach();
    file.write(nullptr, nullptr, "x");
    const std::string sLine = Stamp() + " x\n";
    EXPECT_EQ(Header(99 + static_cast<long>(sLine.size())), Content().substr(0, 32));
}

TEST_F(CmT120TraceFile, FlushCutsTheFileButKeepsThePosition_WhenTheSizeLimitIsReached) {
    WriteFile(m_sPath, Header(100) + std::string(68, 'o') + std::string(1000, 'r'));
    CCmT120TraceFile file(m_sPath.c_str(), 100, 0, 0);
    file.attach();
    file.write(nullptr, nullptr, "on");
    const std::string sLine = Stamp() + " on\n";
    EXPECT_EQ(Header(100 + static_cast<long>(sLine.size())) + std::string(68, 'o') + sLine + MARKER,
              Content());
}

TEST_F(CmT120TraceFile, WriteDestroysNothing_WhenTheHeaderIsNoPosition) {
    for (const char* pszHeader : {"-5", "9223372036854775807", "99999999999999999999"}) {
        std::string sContent(pszHeader);
        sContent.resize(31, ' ');
        sContent += "\nold line\n";
        WriteFile(m_sPath, sContent);
        for (unsigned char bShared : {0, 1}) {
            for (const unsigned long ulSizeLimit : {0, 100}) {
                CCmT120TraceFile file(m_sPath.c_str(), ulSizeLimit, bShared, 0);
                file.attach();
                file.write(nullptr, nullptr, "lost");
            }
        }
        EXPECT_EQ(sContent, Content()) << pszHeader;
    }
}

unsigned long g_ulTries = 0;

ssize_t PwriteThatFails(int /*aFile*/, const void* /*aText*/, size_t /*aSize*/, off_t /*aOffset*/) {
    ++g_ulTries;
    errno = EFBIG;
    return -1;
}

// Up to half of what a long holds, a position is taken for one that was written here: the header is
// set back, since the size limit is reached.
TEST_F(CmT120TraceFile, WriteTriesNothing_WhenThePositionIsTooLarge) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.pwrite)> entry(g_cmSystem.pwrite, PwriteThatFails);
    for (const long lPosition : {LONG_MAX / 2, LONG_MAX / 2 + 1}) {
        WriteFile(m_sPath, Header(lPosition));
        CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
        file.attach();
        g_ulTries = 0;
        file.write(nullptr, nullptr, "lost");
        EXPECT_EQ(lPosition == LONG_MAX / 2 ? 1U : 0U, g_ulTries);
    }
}

TEST_F(CmT120TraceFile, WriteDestroysNothing_WhenTheHeaderCannotBeRead) {
    for (unsigned char bShared : {0, 1}) {
        WriteFile(m_sPath, Header(41) + "old line\n");
        CCmT120TraceFile file(m_sPath.c_str(), 100, bShared, 0);
        file.attach();
        {
            FailingCall<&CCmSystemTable::pread> fault(EIO);
            file.write(nullptr, nullptr, "lost");
        }
        EXPECT_EQ(Header(41) + "old line\n", Content());
        file.write(nullptr, nullptr, "next");
        EXPECT_NE(std::string::npos, Content().find("old line\n" + Stamp() + " next\n"));
    }
}

// Nobody would find it: the header leads past it.
TEST_F(CmT120TraceFile, WriteSharedLosesTheLine_WhenTheHeaderCannotBeSetBack) {
    const std::string sContent = Header(100) + std::string(68, 'o');
    WriteFile(m_sPath, sContent);
    CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
    file.attach();
    {
        FailingCall<&CCmSystemTable::pwrite> fault(EIO);
        file.write(nullptr, nullptr, "lost");
        EXPECT_EQ(1U, fault.calls());
    }
    EXPECT_EQ(sContent, Content());
}

TEST_F(CmT120TraceFile, WriteKeepsThePosition_WhenTheDiskIsFull) {
    for (unsigned char bShared : {0, 1}) {
        WriteFile(m_sPath, Header(41) + "old line\n");
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        {
            FailingCall<&CCmSystemTable::pwrite> fault(ENOSPC, -1, 1, Failing::FROM_THERE_ON);
            file.write(nullptr, nullptr, "lost");
        }
        EXPECT_EQ(Header(41) + "old line\n", Content());
        file.write(nullptr, nullptr, "next");
        EXPECT_NE(std::string::npos, Content().find("old line\n" + Stamp() + " next\n"));
        EXPECT_EQ(std::string::npos, Content().find("lost"));
    }
}

// The line is written first, then the marker and last the header.
TEST_F(CmT120TraceFile, WriteKeepsThePosition_WhenOneOfItsWritesFails) {
    for (unsigned char bShared : {0, 1}) {
        for (const unsigned long ulNth : {1, 2, 3}) {
            WriteFile(m_sPath, Header(41) + "old line\n");
            CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
            file.attach();
            {
                FailingCall<&CCmSystemTable::pwrite> fault(EIO, -1, ulNth);
                file.write(nullptr, nullptr, "lost");
                EXPECT_EQ(ulNth, fault.calls());
            }
            EXPECT_EQ(Header(41) + "old line\n", Content().substr(0, 41));
            file.write(nullptr, nullptr, "next");
            EXPECT_NE(std::string::npos, Content().find("old line\n" + Stamp() + " next\n"));
        }
    }
}

unsigned long g_ulIdleCalls = 0;

// Transfers nothing for ten times and leaves errno as it is.
ssize_t PwriteNothing(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    return ++g_ulIdleCalls <= 10 ? 0 : ::pwrite(aFile, aText, aSize, aOffset);
}

ssize_t PreadNothing(int aFile, void* aBuffer, size_t aSize, off_t aOffset) {
    return ++g_ulIdleCalls <= 10 ? 0 : ::pread(aFile, aBuffer, aSize, aOffset);
}

TEST_F(CmT120TraceFile, WriteTriesOnce_WhenNothingIsTransferred) {
    WriteFile(m_sPath, Header(41) + "old line\n");
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    {
        kelto_test::ScopedEntry<decltype(g_cmSystem.pwrite)> entry(g_cmSystem.pwrite,
                                                                   PwriteNothing);
        g_ulIdleCalls = 0;
        errno = EINTR;  // of an earlier call
        file.write(nullptr, nullptr, "lost");
        EXPECT_EQ(1U, g_ulIdleCalls);
    }
    EXPECT_EQ(Header(41) + "old line\n", Content());
    kelto_test::ScopedEntry<decltype(g_cmSystem.pread)> entry(g_cmSystem.pread, PreadNothing);
    g_ulIdleCalls = 0;
    errno = EINTR;
    file.write(nullptr, nullptr, "to the empty file that was read");
    EXPECT_EQ(1U, g_ulIdleCalls);
}

// Whether the child that wrote under a limit of aLimit bytes to a file lives to its end.
bool SurvivesFileSizeLimit(UTIL_NS::CCmT120TraceFile& aFile, rlim_t aLimit = 200) {
    return kelto_test::StatusOfChild([&aFile, aLimit] {
               rlimit before;
               ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
               const rlimit limit = {aLimit, before.rlim_max};
               ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
               aFile.write(nullptr, nullptr, "text");
               ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
           }) == 0;
}

TEST_F(CmT120TraceFile, WriteLosesTheLine_WhenBeyondTheFileSizeLimitOfTheProcess) {
    for (unsigned char bShared : {0, 1}) {
        for (long lPosition : {100, 200, 4000}) {
            WriteFile(m_sPath, Header(lPosition) + std::string(68, 'o'));
            CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
            file.attach();
            EXPECT_TRUE(SurvivesFileSizeLimit(file));
            EXPECT_EQ(Header(lPosition) + std::string(68, 'o'), Content());
        }
    }
}

TEST_F(CmT120TraceFile, WriteDoesNotGrowTheFile_WhenBeyondTheFileSizeLimitOfTheProcess) {
    for (unsigned char bShared : {0, 1}) {
        WriteFile(m_sPath, Header(4000) + std::string(68, 'o'));
        CCmT120TraceFile file(m_sPath.c_str(), 1000, bShared, 0);
        file.attach();
        EXPECT_TRUE(SurvivesFileSizeLimit(file));
        EXPECT_GE(200u, Content().size());
        EXPECT_EQ(bShared != 0, Content().find(" text\n") != std::string::npos);
    }
}

TEST_F(CmT120TraceFile, WriteFillsTheFile_UntilItsEndIsTheLimitOfTheProcess) {
    const rlim_t END = 32 + Stamp().size() + 6 + sizeof(MARKER) - 1;  // " text\n"
    for (const rlim_t limit : {END - 1, END}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
        file.attach();
        EXPECT_TRUE(SurvivesFileSizeLimit(file, limit));
        EXPECT_EQ(limit == END ? END : 32, Content().size());
    }
}

TEST_F(CmT120TraceFile, WriteTriesAgain_WhenACallIsInterrupted) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::pread> readFault(EINTR);
    FailingCall<&CCmSystemTable::pwrite> writeFault(EINTR);
    file.write(nullptr, nullptr, "text");
    EXPECT_NE(std::string::npos, Content().find(" text\n"));
}

using PreadEntry = kelto_test::ScopedEntry<decltype(g_cmSystem.pread)>;
using PwriteEntry = kelto_test::ScopedEntry<decltype(g_cmSystem.pwrite)>;

size_t g_nBytesPerRead = 0;
size_t g_nBytesPerWrite = 0;

// Reads are of the header, which ends the buffer too.
ssize_t PreadFewBytes(int aFile, void* aBuffer, size_t aSize, off_t aOffset) {
    EXPECT_EQ(32U, static_cast<size_t>(aOffset) + aSize);
    return ::pread(aFile, aBuffer, std::min(aSize, g_nBytesPerRead), aOffset);
}

ssize_t PwriteFewBytes(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    return ::pwrite(aFile, aText, std::min(aSize, g_nBytesPerWrite), aOffset);
}

TEST_F(CmT120TraceFile, WriteJoinsTransfers_WhenTheyAreShort) {
    for (unsigned char bShared : {0, 1}) {
        WriteFile(m_sPath, Header(1000) + std::string(968, 'o') + MARKER);
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        g_nBytesPerRead = bShared ? 3 : 1;
        PreadEntry readEntry(g_cmSystem.pread, PreadFewBytes);
        g_nBytesPerWrite = bShared ? 7 : 1;
        PwriteEntry writeEntry(g_cmSystem.pwrite, PwriteFewBytes);
        file.write(nullptr, nullptr, "text");
        const std::string sLine = Stamp() + " text\n";
        EXPECT_EQ(
            Header(1000 + static_cast<long>(sLine.size())) + std::string(968, 'o') + sLine + MARKER,
            Content());
    }
}

unsigned long g_ulReads = 0;
unsigned long g_ulWrites = 0;

ssize_t CountingPread(int aFile, void* aBuffer, size_t aSize, off_t aOffset) {
    ++g_ulReads;
    return ::pread(aFile, aBuffer, aSize, aOffset);
}

ssize_t CountingPwrite(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    ++g_ulWrites;
    return ::pwrite(aFile, aText, aSize, aOffset);
}

// It reads the header, and writes the lines, the marker and the header.
TEST_F(CmT120TraceFile, WriteCallsTheSystemFourTimes_WhateverTheRecord) {
    for (unsigned char bShared : {0, 1}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        PreadEntry readEntry(g_cmSystem.pread, CountingPread);
        PwriteEntry writeEntry(g_cmSystem.pwrite, CountingPwrite);
        g_ulReads = g_ulWrites = 0;
        file.write(nullptr, nullptr, "text");
        EXPECT_EQ(1U, g_ulReads);
        EXPECT_EQ(3U, g_ulWrites);
    }
}

TEST_F(CmT120TraceFile, WriteGoesOn_WhenTruncationFails) {
    WriteFile(m_sPath, Header(100) + std::string(68, 'o'));
    CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::ftruncate> fault(EIO);
    file.write(nullptr, nullptr, "top");
    EXPECT_EQ(Stamp() + " top\n", Content().substr(32, Stamp().size() + 5));
}

TEST_F(CmT120TraceFile, WriteTruncatesAgain_WhenInterruptedAlone) {
    // 0: the call succeeds, and errno is that of an earlier one.
    for (const int nError : {0, EINTR, EIO}) {
        WriteFile(m_sPath, Header(100) + std::string(68, 'o'));
        CCmT120TraceFile file(m_sPath.c_str(), 100, 1, 0);
        file.attach();
        FailingCall<&CCmSystemTable::ftruncate> fault(nError, -1, nError != 0 ? 1 : 0);
        errno = EINTR;
        file.write(nullptr, nullptr, "top");
        EXPECT_EQ(nError == EINTR ? 2U : 1U, fault.calls()) << nError;
    }
}

TEST_F(CmT120TraceFile, WriteSharedAsksForTheLockAgain_WhenInterruptedUnavailableOrRefused) {
    for (int nError : {EINTR, EAGAIN, EDEADLK}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
        file.attach();
        FailingCall<&CCmSystemTable::fcntl> fault(nError);
        file.write(nullptr, nullptr, "text");
        // Twice for the lock, once to release it.
        EXPECT_EQ(3u, fault.calls());
        EXPECT_NE(std::string::npos, Content().find(" text\n"));
    }
}

timespec g_Nap = {};

int RecordingNap(const timespec* aTime, timespec* /*aRemain*/) {
    g_Nap = *aTime;
    return 0;
}

TEST_F(CmT120TraceFile, WriteSharedNapsBriefly_WhenTheLockIsRefusedAsADeadlock) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::fcntl> fault(EDEADLK);
    kelto_test::ScopedEntry<decltype(g_cmSystem.nanosleep)> entry(g_cmSystem.nanosleep,
                                                                  RecordingNap);
    file.write(nullptr, nullptr, "text");
    EXPECT_EQ(0, g_Nap.tv_sec);
    EXPECT_LE(100 * 1000, g_Nap.tv_nsec);
    EXPECT_GE(10 * 1000 * 1000, g_Nap.tv_nsec);
}

TEST_F(CmT120TraceFile, WriteSharedWritesUnlocked_WhenTheLockFails) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::fcntl> fault(ENOLCK);
    file.write(nullptr, nullptr, "text");
    EXPECT_EQ(2u, fault.calls());
    EXPECT_NE(std::string::npos, Content().find(" text\n"));
}

TEST_F(CmT120TraceFile, WriteSharedAsksForTheReleaseAgain_WhenInterrupted) {
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::fcntl> fault(EINTR, -1, 2);
    file.write(nullptr, nullptr, "text");
    EXPECT_EQ(3u, fault.calls());
}

TEST_F(CmT120TraceFile, WriteKeepsErrno) {
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    FailingCall<&CCmSystemTable::fcntl> fault(ENOLCK);
    errno = ENOENT;
    file.write(nullptr, nullptr, "text");
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(CmT120TraceFile, IsSameFileComparesNamesWithCase) {
    CCmT120TraceFile file("name", 0, 0, 0);
    EXPECT_EQ(1, file.is_same_file("name"));
    EXPECT_EQ(0, file.is_same_file("Name"));
    EXPECT_EQ(0, file.is_same_file(nullptr));
    CCmT120TraceFile unnamed(nullptr, 0, 0, 0);
    EXPECT_EQ(0, unnamed.is_same_file("name"));
    EXPECT_EQ(0, unnamed.is_same_file(nullptr));
}

// ---- Filters

TEST_F(CmT120TraceFile, FilterMatches_WhenTheLastLineHasNoLineEnd) {
    SetFilters("^med.*[0-9]$");
    EXPECT_EQ(0, regex_match("media7"));
    EXPECT_EQ(-1, regex_match("media"));
}

TEST_F(CmT120TraceFile, FilterIsFound_WhenTheHomeHasNoSlashAtItsEnd) {
    WriteFilters("net");
    g_def_kelto_home_dir[m_Home.path().size() - 1] = '\0';
    CCmT120TraceFileMgr::init_reg_filter();
    EXPECT_EQ(2, regex_cnt.load());
    EXPECT_EQ(0, regex_match("net"));
}

TEST_F(CmT120TraceFile, FilterKeepsTheLineEndInThePattern) {
    SetFilters("net\n");
    EXPECT_EQ(-1, regex_match("net"));
    EXPECT_EQ(0, regex_match("a net\n"));
}

TEST_F(CmT120TraceFile, FilterCountsEachLineTwice) {
    SetFilters("a\nb\nc");
    EXPECT_EQ(6, regex_cnt.load());
    EXPECT_EQ(0, regex_match("c"));
    EXPECT_EQ(-1, regex_match("d"));
}

TEST_F(CmT120TraceFile, FilterReadsUpTo100Lines) {
    std::string sLines;
    for (int i = 0; i < 120; ++i) {
        sLines += "x" + std::to_string(i) + "x|y" + std::to_string(i) + "y\n";
    }
    SetFilters(sLines);
    EXPECT_EQ(200, regex_cnt.load());
    EXPECT_EQ(0, regex_match("x99x"));
    EXPECT_EQ(-1, regex_match("x100x"));
    EXPECT_EQ(-1, regex_match("none"));
}

TEST_F(CmT120TraceFile, FilterIsNone_WhenALineDoesNotCompile) {
    SetFilters("a\n(\nb");
    EXPECT_EQ(0, regex_cnt.load());
    EXPECT_EQ(-1, regex_match("a|"));
    EXPECT_EQ(-1, regex_match("b"));
}

TEST_F(CmT120TraceFile, FilterStays_WhenTheFileIsMissingOrEmpty) {
    SetFilters("net");
    std::filesystem::remove(m_Home.path() + "conf/keltoexp.filter");
    CCmT120TraceFileMgr::init_reg_filter();
    EXPECT_EQ(0, regex_match("net"));
    SetFilters("");
    EXPECT_EQ(0, regex_match("net"));
}

// No host finds an expression there that was freed.
TEST_F(CmT120TraceFile, FilterTableIsZero_WhenThereAreNoFilters) {
    SetFilters("net\nmedia");
    const char* const pchTable = reinterpret_cast<const char*>(re);
    EXPECT_NE(std::string(sizeof(re), '\0'), std::string(pchTable, sizeof(re)));
    SetFilters("(");
    EXPECT_EQ(std::string(sizeof(re), '\0'), std::string(pchTable, sizeof(re)));
}

// The lowest descriptor that is free.
int NextDescriptor() {
    const int nFile = open("/dev/null", O_RDONLY);
    close(nFile);
    return nFile;
}

TEST_F(CmT120TraceFile, FilterLeavesNoFileOpen_WhateverTheFileHolds) {
    const int nBefore = NextDescriptor();
    for (const char* pszFilters : {"", "net", "("}) {
        SetFilters(pszFilters);
        EXPECT_EQ(nBefore, NextDescriptor()) << pszFilters;
    }
    FailingCall<&CCmSystemTable::fdopen> fault(ENOMEM, nullptr);
    SetFilters("net");
    EXPECT_EQ(1U, fault.calls());
    EXPECT_EQ(nBefore, NextDescriptor());
}

TEST_F(CmT120TraceFile, FilterStays_WhenMemoryRunsOut) {
    SetFilters("net");
    {
        FailingCall<&CCmSystemTable::malloc> fault(ENOMEM, nullptr);
        SetFilters("media");
        EXPECT_EQ(1U, fault.calls());
    }
    EXPECT_EQ(0, regex_match("net"));
    EXPECT_EQ(-1, regex_match("media"));
}

TEST_F(CmT120TraceFile, FilterIsReplaced) {
    SetFilters("net");
    SetFilters("media");
    EXPECT_EQ(-1, regex_match("net"));
    EXPECT_EQ(0, regex_match("media"));
    EXPECT_EQ(2, regex_cnt.load());
}

TEST_F(CmT120TraceFile, FilterReadsSeveralLines_WhenALineIsLong) {
    SetFilters(std::string(1023, 'a') + "b");
    EXPECT_EQ(4, regex_cnt.load());
    EXPECT_EQ(0, regex_match("b"));
}

TEST_F(CmT120TraceFile, FilterWaitsForNoWriter_WhenTheFileIsANamedPipe) {
    SetFilters("net");
    const std::string sFilter = m_Home.path() + "conf/keltoexp.filter";
    std::filesystem::remove(sFilter);
    ASSERT_EQ(0, mkfifo(sFilter.c_str(), 0600));
    EXPECT_EQ(0, kelto_test::StatusOfChild([&sFilter] {
                  alarm(20);  // one that waits would wait for good
                  CCmT120TraceFileMgr::init_reg_filter();
                  EXPECT_EQ(0, regex_match("net"));
                  // Nor for one that has not written all of it.
                  const int nPipe = open(sFilter.c_str(), O_RDWR);
                  EXPECT_EQ(6, write(nPipe, "media\n", 6));
                  CCmT120TraceFileMgr::init_reg_filter();
                  close(nPipe);
                  EXPECT_EQ(0, regex_match("net"));
              }));
    std::filesystem::remove(sFilter);
}

TEST_F(CmT120TraceFile, FilterTakesNoLock_WhenThereIsNone) {
    ClearFilters();
    kelto_test::LockCalls none;
    EXPECT_EQ(-1, regex_match("net"));
    EXPECT_FALSE(none.seen());
}

TEST_F(CmT120TraceFile, FilterMatchesNothing_WhenTheModuleIsNull) {
    SetFilters(".*");
    EXPECT_EQ(0, regex_match(""));
    EXPECT_EQ(-1, regex_match(nullptr));
}

std::string g_sOpened;

int OpenOfNothing(const char* aPath, int /*aFlags*/, mode_t /*aMode*/) {
    g_sOpened = aPath;
    errno = ENOENT;
    return -1;
}

TEST_F(CmT120TraceFile, FilterPathHasASlashAfterTheHome_WhateverTheHome) {
    const std::string sHome(g_def_kelto_home_dir);
    const char* const CASES[][2] = {
        {"", "/conf/keltoexp.filter"},        {"/", "/conf/keltoexp.filter"},
        {"/a", "/a/conf/keltoexp.filter"},    {"/a/", "/a/conf/keltoexp.filter"},
        {"/a//", "/a//conf/keltoexp.filter"},
    };
    for (const auto& path : CASES) {
        std::strcpy(g_def_kelto_home_dir, path[0]);
        kelto_test::ScopedEntry<decltype(g_cmSystem.open)> entry(g_cmSystem.open, OpenOfNothing);
        CCmT120TraceFileMgr::init_reg_filter();
        EXPECT_EQ(path[1], g_sOpened);
    }
    std::strcpy(g_def_kelto_home_dir, sHome.c_str());
}

TEST_F(CmT120TraceFile, FilterFindsItsFile_WhenTheHomeFillsItsArray) {
    const std::string sHome(g_def_kelto_home_dir);
    const std::string sLink = sHome.substr(0, sHome.size() - 1) + "_lk";
    std::filesystem::create_directory_symlink(sHome, sLink);
    WriteFilters("net");
    ASSERT_EQ(15u, sLink.size());
    std::memcpy(g_def_kelto_home_dir, (sLink + "/").c_str(), CM_HOME_DIR_SIZE);
    CCmT120TraceFileMgr::init_reg_filter();
    std::strcpy(g_def_kelto_home_dir, sHome.c_str());
    std::filesystem::remove(sLink);
    EXPECT_EQ(0, regex_match("net"));
}

TEST_F(CmT120TraceFile, WriteLeavesTheLineOut_WhenTheModuleIsFiltered) {
    SetFilters("net");
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write(nullptr, "net", "hidden");
    EXPECT_EQ(Header(32), Content());
    file.write(nullptr, "media", "shown");
    EXPECT_NE(std::string::npos, Content().find(" media:shown\n"));
    EXPECT_EQ(std::string::npos, Content().find("hidden"));
}

TEST_F(CmT120TraceFile, WriteSharedWritesOnlyTheMarker_WhenTheModuleIsFiltered) {
    SetFilters("net");
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
    file.attach();
    file.write(nullptr, "net", "hidden");
    EXPECT_EQ(Header(32) + MARKER, Content());
}

TEST_F(CmT120TraceFile, WriteIsNotFiltered_WithoutAModule) {
    SetFilters(".*");
    WriteEmptyTraceFile();
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    file.attach();
    file.write("TAG", nullptr, "shown");
    EXPECT_NE(std::string::npos, Content().find(" shown\n"));
}

// ---- Manager

TEST_F(CmT120TraceFile, ManagerReturnsTheSameRecord_WhenTheNameIsTheSame) {
    void* pFirst = T120_Open_Trace_Dev("a", 0, 0, 0);
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(pFirst, T120_Open_Trace_Dev("a", 99, 1, 0));
    void* pOther = T120_Open_Trace_Dev("A", 0, 0, 0);
    EXPECT_NE(pFirst, pOther);
    T120_Close_Trace_Dev(pOther);
    T120_Close_Trace_Dev(pFirst);
}

TEST_F(CmT120TraceFile, ManagerAlwaysCreatesARecord_WithoutAName) {
    void* pFirst = T120_Open_Trace_Dev(nullptr, 0, 0, 0);
    void* pSecond = T120_Open_Trace_Dev(nullptr, 0, 0, 0);
    EXPECT_NE(pFirst, pSecond);
    T120_Close_Trace_Dev(pFirst);
    T120_Close_Trace_Dev(pSecond);
}

TEST_F(CmT120TraceFile, ManagerClosesARecordAnywhereInTheList) {
    void* apRecords[3];
    for (void*& pRecord : apRecords) {
        pRecord = T120_Open_Trace_Dev(nullptr, 0, 0, 0);
    }
    T120_Close_Trace_Dev(apRecords[1]);
    T120_Close_Trace_Dev(apRecords[2]);
    T120_Close_Trace_Dev(apRecords[0]);
    void* pAgain = T120_Open_Trace_Dev("a", 0, 0, 0);
    EXPECT_EQ(pAgain, T120_Open_Trace_Dev("a", 0, 0, 0));
    T120_Close_Trace_Dev(pAgain);
}

TEST_F(CmT120TraceFile, ManagerClosesNothingElse) {
    void* pRecord = T120_Open_Trace_Dev("a", 0, 0, 0);
    CCmT120TraceFile foreign("a", 0, 0, 0);
    T120_Close_Trace_Dev(&foreign);
    T120_Close_Trace_Dev(nullptr);
    EXPECT_EQ(1, foreign.is_same_file("a"));
    EXPECT_EQ(pRecord, T120_Open_Trace_Dev("a", 0, 0, 0));
    T120_Close_Trace_Dev(pRecord);
}

TEST_F(CmT120TraceFile, ManagerWritesToARecordAndIgnoresNull) {
    WriteEmptyTraceFile();
    void* pRecord = T120_Open_Trace_Dev(m_sPath.c_str(), 0, 0, 0);
    static_cast<CCmT120TraceFile*>(pRecord)->attach();
    T120_Write_Trace_Dev(pRecord, nullptr, "net", "one");
    g_trace_mgr.write(pRecord, nullptr, "net", "two");
    T120_Write_Trace_Dev(nullptr, nullptr, "net", "three");
    g_trace_mgr.write(nullptr, nullptr, "net", "three");
    EXPECT_NE(std::string::npos, Content().find(" net:one\n" + Stamp() + " net:two\n" + MARKER));
    EXPECT_EQ(std::string::npos, Content().find("three"));
    T120_Close_Trace_Dev(pRecord);
}

TEST_F(CmT120TraceFile, ManagerRefreshesEveryRecord) {
    void* apRecords[2];
    for (int i = 0; i < 2; ++i) {
        const std::string sPath = m_sPath + std::to_string(i);
        WriteFile(sPath, Header(32));
        apRecords[i] = T120_Open_Trace_Dev(sPath.c_str(), 0, 0, 0);
        static_cast<CCmT120TraceFile*>(apRecords[i])->attach();
    }
    T120_Refresh_Settings(0, 2);
    for (int i = 0; i < 2; ++i) {
        T120_Write_Trace_Dev(apRecords[i], nullptr, nullptr, "held");
        EXPECT_EQ(Header(32), ReadFile(m_sPath + std::to_string(i)));
        T120_Close_Trace_Dev(apRecords[i]);
        EXPECT_NE(std::string::npos, ReadFile(m_sPath + std::to_string(i)).find(" held\n"));
    }
}

kelto_test::Gate s_isWriting;
kelto_test::Gate s_mayWriteOn;

ssize_t PwriteThatWaits(int aFile, const void* aText, size_t aSize, off_t aOffset) {
    s_isWriting.Open();
    EXPECT_TRUE(s_mayWriteOn.Wait());
    return ::pwrite(aFile, aText, aSize, aOffset);
}

// They go there without the mutex of the manager, and the trace facility may send them at any time.
TEST_F(CmT120TraceFile, ManagerClosesNoRecord_WhileSettingsGoFromRecordToRecord) {
    s_isWriting.Close();
    s_mayWriteOn.Close();
    const auto older = [this] {
        return static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(m_sPath.c_str(), 0, 0, 0));
    };
    ASSERT_EQ(CM_OK, older()->attach());
    // The newer record is the first.
    auto* pNewer = static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(nullptr, 0, 0, 0));
    ASSERT_EQ(CM_OK, pNewer->attach((m_sPath + ".newer").c_str()));
    pNewer->refresh_settings(0, 2);
    pNewer->write(nullptr, nullptr, "collected");
    {
        const PwriteEntry entry(g_cmSystem.pwrite, PwriteThatWaits);
        std::thread refresher([] { T120_Refresh_Settings(0, 2); });
        EXPECT_TRUE(s_isWriting.Wait());
        std::thread closer([&] { T120_Close_Trace_Dev(older()); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, older()->attach());
        s_mayWriteOn.Open();
        refresher.join();
        closer.join();
    }
    EXPECT_EQ(CM_OK, older()->attach()) << "a new record";
    T120_Close_Trace_Dev(older());
    T120_Close_Trace_Dev(pNewer);
}

TEST_F(CmT120TraceFile, ManagerReturnsNull_WhenMemoryRunsOut) {
    kelto_test::ScopedAllocationFault fault(1);
    EXPECT_EQ(nullptr, T120_Open_Trace_Dev("a", 0, 0, 0));
    EXPECT_TRUE(fault.hit());
}

TEST_F(CmT120TraceFile, ManagerFreesARecord_WhenItsNameFindsNoMemory) {
    const long lLive = kelto_test::LiveAllocations();
    FailingCall<&CCmSystemTable::strdup> fault(ENOMEM, nullptr);
    EXPECT_EQ(nullptr, T120_Open_Trace_Dev("a", 0, 0, 0));
    EXPECT_EQ(1U, fault.calls());
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

long g_lSleptMs = 0;

int RecordingNanosleep(const timespec* aTime, timespec* /*aRemain*/) {
    g_lSleptMs += aTime->tv_sec * 1000 + aTime->tv_nsec / 1000000;
    return 0;
}

TEST_F(CmT120TraceFile, ManagerGivesThreads200Milliseconds_WhenItEnds) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.nanosleep)> entry(g_cmSystem.nanosleep,
                                                                  RecordingNanosleep);
    g_lSleptMs = 0;
    { CCmT120TraceFileMgr manager; }
    EXPECT_EQ(200, g_lSleptMs);
}

TEST_F(CmT120TraceFile, ManagerWaitsAndFlushes_WhenItEnds) {
    WriteEmptyTraceFile();
    const auto start = std::chrono::steady_clock::now();
    {
        CCmT120TraceFileMgr manager;
        void* pRecord = manager.open(m_sPath.c_str(), 0, 0, 0);
        static_cast<CCmT120TraceFile*>(pRecord)->attach();
        manager.open("other", 0, 0, 0);
        manager.refresh_settings(0, 10);
        manager.write(pRecord, nullptr, nullptr, "last");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_NE(std::string::npos, Content().find(" last\n"));
}

TEST_F(CmT120TraceFile, ManagerPutsTheNewestFirstAndCountsAllThatWereEverCreated) {
    const uint32_t dwBefore = kelto_test::FieldAt<uint32_t>(&g_trace_mgr, 8);
    void* pHeader = kelto_test::FieldAt<void*>(&g_trace_mgr, 0);
    void* pFirst = T120_Open_Trace_Dev("a", 0, 0, 0);
    void* pSecond = T120_Open_Trace_Dev("b", 0, 0, 0);
    T120_Open_Trace_Dev("a", 0, 0, 0);
    EXPECT_EQ(dwBefore + 2, kelto_test::FieldAt<uint32_t>(&g_trace_mgr, 8));
    EXPECT_EQ(pSecond, kelto_test::FieldAt<void*>(&g_trace_mgr, 0));
    EXPECT_EQ(pFirst, kelto_test::FieldAt<void*>(pSecond, 0));
    EXPECT_EQ(pHeader, kelto_test::FieldAt<void*>(pFirst, 0));
    T120_Close_Trace_Dev(pSecond);
    T120_Close_Trace_Dev(pFirst);
    EXPECT_EQ(dwBefore + 2, kelto_test::FieldAt<uint32_t>(&g_trace_mgr, 8));
    EXPECT_EQ(pHeader, kelto_test::FieldAt<void*>(&g_trace_mgr, 0));
}

// What the last handler of a program that ends expects of a record; without one it does nothing.
CCmT120TraceFile* g_pLastRecord = nullptr;
ScopedHome* g_pLastHome = nullptr;

// Uses the manager and its record when the static objects of the library are gone already.
void UseLast() {
    if (g_pLastRecord == nullptr) {
        return;
    }
    const std::string sPath = g_pLastHome->path() + "last.txt";
    T120_Refresh_Settings(0, 5);
    T120_Write_Trace_Dev(g_pLastRecord, nullptr, nullptr, "dropped");
    g_pLastRecord->flush_buffer();
    const bool bAttaches = g_pLastRecord->attach() == CM_OK;
    const bool bOpens = T120_Open_Trace_Dev("new", 0, 0, 0) != nullptr;
    T120_Close_Trace_Dev(g_pLastRecord);
    const bool bStays = kelto_test::FieldAt<void*>(&g_trace_mgr, 0) == g_pLastRecord &&
                        g_pLastRecord->is_same_file(sPath.c_str()) == 1;
    const std::string sContent = ReadFile(sPath);
    const bool bFlushed = sContent.find(" kept\n") != std::string::npos &&
                          sContent.find("dropped") == std::string::npos;
    delete g_pLastHome;
    EndProcess(bStays && !bAttaches && !bOpens && bFlushed ? 7 : 1);
}

// Before any static object is constructed, so that the handler runs when they are destroyed.
__attribute__((constructor(101))) void RegisterUseLast() {
    std::atexit(UseLast);
}

TEST(CmT120TraceFileExit, ManagerFlushesItsRecordsAndLeavesThem) {
    EXPECT_EXIT(
        {
            g_pLastHome = new ScopedHome;
            const std::string sPath = g_pLastHome->path() + "last.txt";
            WriteFile(sPath, Header(32));
            g_pLastRecord =
                static_cast<CCmT120TraceFile*>(T120_Open_Trace_Dev(sPath.c_str(), 0, 0, 0));
            g_pLastRecord->attach();
            T120_Refresh_Settings(0, 10);
            T120_Write_Trace_Dev(g_pLastRecord, nullptr, nullptr, "kept");
            exit(0);
        },
        testing::ExitedWithCode(7), "");
}

// A sanitizer sees a record that was freed under them.
TEST(CmT120TraceFileExit, ManagerEnds_WhileThreadsUseItsRecords) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EXIT(
            {
                ScopedHome home;
                for (const char* pszName : {"a", "b", "c"}) {
                    const std::string sPath = home.path() + pszName;
                    void* pRecord = T120_Open_Trace_Dev(sPath.c_str(), 0, pszName[0] == 'a', 0);
                    static_cast<CCmT120TraceFile*>(pRecord)->attach();
                    std::thread([pRecord] {
                        while (true) {
                            T120_Write_Trace_Dev(pRecord, nullptr, nullptr, "line");
                        }
                    }).detach();
                    std::thread([] {
                        while (true) {
                            T120_Refresh_Settings(1 << 20, 3);
                            T120_Refresh_Settings(1 << 20, 4);
                        }
                    }).detach();
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                exit(0);
            },
            testing::ExitedWithCode(0), "");
    }
}

TEST_F(CmT120TraceFile, FlushMarksTheRecordAsWrapped_WhenTheSizeLimitIsReached) {
    WriteFile(m_sPath, Header(99) + std::string(68, 'o'));
    CCmT120TraceFile file(m_sPath.c_str(), 100, 0, 0);
    file.attach();
    file.write(nullptr, nullptr, "below");
    EXPECT_EQ(0, kelto_test::FieldAt<unsigned char>(&file, 8));
    file.write(nullptr, nullptr, "at the limit");
    EXPECT_EQ(1, kelto_test::FieldAt<unsigned char>(&file, 8));
}

TEST_F(CmT120TraceFile, RecordIsMarkedAsValid_WhileItLives) {
    alignas(CCmT120TraceFile) char achMemory[sizeof(CCmT120TraceFile)] = {};
    CCmT120TraceFile* pFile = new (achMemory) CCmT120TraceFile("a", 0, 0, 0);
    const int nMark = 20050704;
    const char* pchMark =
        std::search(achMemory, achMemory + sizeof(achMemory), reinterpret_cast<const char*>(&nMark),
                    reinterpret_cast<const char*>(&nMark + 1));
    ASSERT_NE(achMemory + sizeof(achMemory), pchMark);
    pFile->~CCmT120TraceFile();
    EXPECT_EQ(0, kelto_test::FieldAt<int>(pchMark, 0));
}

// Destroys a record in a thread that is being cancelled: acting on that in the destructor would
// end the process.
TEST_F(CmT120TraceFile, DestructorEnds_BeforeItsThreadIsCancelled) {
    auto pFile = std::make_unique<CCmT120TraceFile>(m_sPath.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, pFile->attach());
    std::pair<CCmT120TraceFile*, bool> state(pFile.release(), false);
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void* aState) -> void* {
                         auto* pState = static_cast<std::pair<CCmT120TraceFile*, bool>*>(aState);
                         pthread_cancel(pthread_self());
                         errno = ENOENT;
                         delete pState->first;
                         pState->second = errno == ENOENT;
                         pthread_testcancel();
                         return nullptr;
                     },
                     &state));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    EXPECT_TRUE(state.second);
}

// ---- Sharing

constexpr int WRITERS = 8;

// Writes lines "writer <aWriter> line <n>" of varying length, aLines of them.
void WriteLines(CCmT120TraceFile& aFile, int aWriter, int aLines) {
    for (int n = 0; n < aLines; ++n) {
        const std::string sText = "writer " + std::to_string(aWriter) + " line " +
                                  std::to_string(n) + " " + std::string(n % 50, '.') + "!";
        aFile.write(nullptr, nullptr, sText.c_str());
    }
}

// Every line whole, in the order of its writer, none twice; the marker after the last.
void ExpectAllLines(const std::string& aContent, int aLinesEach) {
    const long lPosition = std::stol(aContent.substr(0, 31));
    ASSERT_EQ(Header(lPosition), aContent.substr(0, 32));
    ASSERT_EQ(MARKER, aContent.substr(static_cast<size_t>(lPosition)));
    std::map<int, int> next;
    size_t nStart = 32;
    while (nStart < static_cast<size_t>(lPosition)) {
        const size_t nEnd = aContent.find('\n', nStart);
        const std::string sLine = aContent.substr(nStart, nEnd - nStart);
        int nWriter = -1;
        int nLine = -1;
        const size_t nText = sLine.find("] writer ");
        ASSERT_NE(std::string::npos, nText) << sLine;
        ASSERT_EQ(2, sscanf(sLine.c_str() + nText, "] writer %d line %d", &nWriter, &nLine));
        ASSERT_EQ(next[nWriter], nLine) << sLine;
        ASSERT_EQ("line " + std::to_string(nLine) + " " + std::string(nLine % 50, '.') + "!",
                  sLine.substr(sLine.find("line ")));
        ++next[nWriter];
        nStart = nEnd + 1;
    }
    ASSERT_EQ(static_cast<size_t>(WRITERS), next.size());
    for (const auto& [nWriter, nCount] : next) {
        EXPECT_EQ(aLinesEach, nCount) << nWriter;
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int LINES_EACH = 1000;
#else
constexpr int LINES_EACH = 10000;
#endif

TEST_F(CmT120TraceFile, SharingLosesAndTearsNoLine_WhenEightProcessesWrite) {
    WriteEmptyTraceFile();
    pid_t apChildren[WRITERS];
    for (int i = 0; i < WRITERS; ++i) {
        apChildren[i] = fork();
        if (apChildren[i] == 0) {
            CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
            file.attach();
            WriteLines(file, i, LINES_EACH);
            EndProcess(0);
        }
    }
    for (pid_t child : apChildren) {
        int nStatus = -1;
        waitpid(child, &nStatus, 0);
        EXPECT_EQ(0, nStatus);
    }
    ExpectAllLines(Content(), LINES_EACH);
}

TEST_F(CmT120TraceFile, SharingLosesAndTearsNoLine_WhenEightThreadsWriteToOneRecord) {
    WriteEmptyTraceFile();
    for (unsigned char bShared : {0, 1}) {
        WriteEmptyTraceFile();
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        file.attach();
        std::vector<std::thread> threads;
        for (int i = 0; i < WRITERS; ++i) {
            threads.emplace_back([&file, i] { WriteLines(file, i, 500); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ExpectAllLines(Content(), 500);
    }
}

// Each thread has a record of its own and closes it while the others still write.
TEST_F(CmT120TraceFile, SharingLosesNoLine_WhenRecordsClose) {
    WriteEmptyTraceFile();
    std::vector<std::thread> threads;
    for (int i = 0; i < WRITERS; ++i) {
        threads.emplace_back([this, i] {
            for (int n = 0; n < 20; ++n) {
                CCmT120TraceFile other(m_sPath.c_str(), 0, 1, 0);
                other.attach();
            }
            CCmT120TraceFile file(m_sPath.c_str(), 0, 1, 0);
            file.attach();
            WriteLines(file, i, 200);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ExpectAllLines(Content(), 200);
}

// ---- Objects without memory, and after their destruction

TEST_F(CmT120TraceFile, RecordHasNoName_WhenItsConstructorFindsNoMemoryForIt) {
    FailingCall<&CCmSystemTable::strdup> fault(ENOMEM, nullptr);
    CCmT120TraceFile file(m_sPath.c_str(), 0, 0, 0);
    EXPECT_EQ(0, file.is_same_file(m_sPath.c_str()));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, file.attach());
    file.write(nullptr, nullptr, "lost");
    file.write_shared(nullptr, nullptr, "lost");
    file.flush_buffer();
    EXPECT_EQ(1, file.refresh_settings(0, 2));
    EXPECT_EQ(CM_OK, file.attach(m_sPath.c_str()));
}

TEST_F(CmT120TraceFile, RecordLosesLines_WhenItsConstructorFindsNoMemoryForThem) {
    for (unsigned char bShared : {0, 1}) {
        WriteEmptyTraceFile();
        auto fault = std::make_unique<FailingCall<&CCmSystemTable::malloc>>(ENOMEM, nullptr);
        CCmT120TraceFile file(m_sPath.c_str(), 0, bShared, 0);
        fault.reset();
        EXPECT_EQ(CM_OK, file.attach());
        file.write(nullptr, nullptr, "lost");
        file.flush_buffer();
        EXPECT_EQ(Header(32), Content());
        EXPECT_EQ(1, file.refresh_settings(0, 2));
        file.write(nullptr, nullptr, "next");
        file.flush_buffer();
        EXPECT_EQ(Stamp() + " next\n", Content().substr(32, Stamp().size() + 6));
    }
}

// A manager with static storage, whose memory is still there after its destructor.
TEST_F(CmT120TraceFile, ManagerOpensNoMoreRecords_AfterItsEnd) {
    alignas(CCmT120TraceFileMgr) static unsigned char s_abyManager[sizeof(CCmT120TraceFileMgr)];
    auto* pManager = new (s_abyManager) CCmT120TraceFileMgr;
    void* pRecord = pManager->open("a", 0, 0, 0);
    EXPECT_NE(nullptr, pRecord);
    pManager->~CCmT120TraceFileMgr();
    EXPECT_EQ(nullptr, pManager->open("a", 0, 0, 0));
    EXPECT_EQ(nullptr, pManager->open(nullptr, 0, 0, 0));
    pManager->close(pRecord);
    pManager->refresh_settings(0, 2);
    pManager->write(nullptr, nullptr, nullptr, "to no record");
}

}  // namespace
}  // namespace UTIL_NS
