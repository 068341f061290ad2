#include "CmConfigReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "CmClock.h"
#include "CmConfig.h"
#include "CmT120Trace.h"
#include "CmUtilMisc.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/ProfileModel.h"
#include "support/TraceSink.h"

using namespace UTIL_NS;

namespace {

// How often files whose name ends so were opened.
std::atomic<int> g_nOpens{0};
std::string g_sCounted;

class CountedOpens {
  public:
    explicit CountedOpens(const std::string& aEnd) : m_open(g_cmSystem.open, &Open) {
        g_sCounted = aEnd;
        g_nOpens = 0;
        s_pfnOpen = m_open.original();
    }
    int count() const { return g_nOpens; }

  private:
    static int Open(const char* aPath, int aFlags, mode_t aMode) {
        const std::string sPath = aPath;
        g_nOpens += sPath.size() >= g_sCounted.size() &&
                            sPath.substr(sPath.size() - g_sCounted.size()) == g_sCounted
                        ? 1
                        : 0;
        return s_pfnOpen(aPath, aFlags, aMode);
    }
    static inline int (*s_pfnOpen)(const char*, int, mode_t) = nullptr;

    kelto_test::ScopedEntry<decltype(g_cmSystem.open)> m_open;
};

class CmConfigReaderTest : public testing::Test {
  protected:
    // Replaced by renaming, as careful editors do, and old enough to be settled.
    void Write(const std::string& aContent) const {
        kelto_test::WriteFile(m_sPath + ".new", aContent);
        const timespec times[] = {{1000000000, 0}, {1000000000, s_lNext += 1000}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (m_sPath + ".new").c_str(), times, 0));
        ASSERT_EQ(0, rename((m_sPath + ".new").c_str(), m_sPath.c_str()));
    }
    void Read(const std::string& aContent) {
        Write(aContent);
        ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
    }
    std::string Problems() const {
        std::string sAll;
        for (const CCmString& strProblem : m_config.problems()) {
            sAll += strProblem.substr(strProblem.find("kelto.cfg")) + "\n";
        }
        return sAll;
    }
    std::string Unasked(std::string_view aSection = "") const {
        std::vector<CCmString> sentences;
        EXPECT_EQ(CM_OK, m_config.ListUnasked(aSection, sentences));
        std::string sAll;
        for (const CCmString& strSentence : sentences) {
            sAll += strSentence.substr(strSentence.find("kelto.cfg")) + "\n";
        }
        return sAll;
    }

    static inline long s_lNext = 0;
    const kelto_test::ScopedHome m_home;
    const std::string m_sPath = m_home.path() + "conf/kelto.cfg";
    CCmConfigReader m_config;
};

}  // namespace

TEST_F(CmConfigReaderTest, TellsAbsentFromBad) {
    Read("[Host]\nWorkers = two\nEmpty =\nGood = 7\n");
    int nNumber = 3;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetNumber("Host", "Missing", nNumber));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetNumber("Nowhere", "Good", nNumber));
    EXPECT_EQ("", Problems());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetNumber("Host", "Workers", nNumber, 1, 64));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetNumber("Host", "Empty", nNumber, 0, 1));
    EXPECT_EQ(3, nNumber);
    EXPECT_EQ(CM_OK, m_config.GetNumber("host", "GOOD", nNumber));
    EXPECT_EQ(7, nNumber);
    EXPECT_EQ(
        "kelto.cfg:2: Workers = \"two\" in section [Host] should be a whole number from 1 to 64\n"
        "kelto.cfg:3: Empty = \"\" in section [Host] should be a whole number from 0 to 1\n",
        Problems());
}

TEST_F(CmConfigReaderTest, LeavesTheDefault_WhenTheKeyIsAbsentWhateverTheKind) {
    Read("[s]\nother = 1\n");
    bool bValue = true;
    CCmTimeValue tvDuration(7);
    uint64_t ullBytes = 7;
    CCmIpAddress address;
    address.m_family = CCmIpAddress::IPV4;
    const CCmIpAddress before = address;
    std::string_view text = "old";
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetBool("s", "k", bValue));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetDuration("s", "k", tvDuration));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetSize("s", "k", ullBytes));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetAddress("s", "k", address));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetText("s", "k", text));
    EXPECT_TRUE(bValue);
    EXPECT_EQ(CCmTimeValue(7), tvDuration);
    EXPECT_EQ(7U, ullBytes);
    EXPECT_EQ(before, address);
    EXPECT_EQ("old", text);
    EXPECT_EQ("", Problems());
}

TEST_F(CmConfigReaderTest, SaysWhatItExpected_WhateverTheKind) {
    Read(
        "[s]\n"
        "u = -1\n"
        "b = maybe\n"
        "d = 20\n"
        "e = 2h\n"
        "z = 64K\n"
        "p = 1.2.3\n"
        "own = blue\n");
    uint16_t wNumber = 1;
    bool bValue = true;
    CCmTimeValue tvDuration(1);
    uint64_t ullBytes = 1;
    CCmIpAddress address;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetNumber("s", "u", wNumber));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetBool("s", "b", bValue));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetDuration("s", "d", tvDuration));
    EXPECT_EQ(
        CM_ERROR_INVALID_ARG,
        m_config.GetDuration("s", "e", tvDuration, CCmTimeValue(0, 100000), CCmTimeValue(60)));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetSize("s", "z", ullBytes, 1, 100));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.GetAddress("s", "p", address));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.Refuse("s", "own", "red or green"));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.Refuse("s", "missing", "red or green"));
    EXPECT_EQ(
        "kelto.cfg:2: u = \"-1\" in section [s] should be a whole number from 0 to 65535\n"
        "kelto.cfg:3: b = \"maybe\" in section [s] should be true, yes, on, 1, false, no, off or "
        "0\n"
        "kelto.cfg:4: d = \"20\" in section [s] should be a duration with its unit (us, ms, s, "
        "min, h or d) from 0s on\n"
        "kelto.cfg:5: e = \"2h\" in section [s] should be a duration with its unit (us, ms, s, "
        "min, h or d) from 0.1s to 60s\n"
        "kelto.cfg:6: z = \"64K\" in section [s] should be a size (B, kB, KiB, MB, MiB, GB, GiB, "
        "TB, TiB or no unit) from 1 to 100 bytes\n"
        "kelto.cfg:7: p = \"1.2.3\" in section [s] should be an IPv4 or IPv6 address\n"
        "kelto.cfg:8: own = \"blue\" in section [s] should be red or green\n",
        Problems());
    EXPECT_TRUE(bValue);
    EXPECT_EQ(CCmTimeValue(1), tvDuration);
}

TEST_F(CmConfigReaderTest, TakesGoodValues_WhateverTheKind) {
    Read("[s]\nb = On\nd = 1.5s\nz = 64KiB\np = ::1\nt = ' a b '\n");
    bool bValue = false;
    CCmTimeValue tvDuration;
    uint64_t ullBytes = 0;
    CCmIpAddress address;
    std::string_view text;
    EXPECT_EQ(CM_OK, m_config.GetBool("s", "b", bValue));
    EXPECT_TRUE(bValue);
    EXPECT_EQ(CM_OK, m_config.GetDuration("s", "d", tvDuration));
    EXPECT_EQ(CCmTimeValue(1, 500000), tvDuration);
    EXPECT_EQ(CM_OK, m_config.GetSize("s", "z", ullBytes));
    EXPECT_EQ(65536U, ullBytes);
    EXPECT_EQ(CM_OK, m_config.GetAddress("s", "p", address));
    EXPECT_EQ(1, address.m_abyBytes[15]);
    EXPECT_EQ(CM_OK, m_config.GetText("s", "t", text));
    EXPECT_EQ("a b", text);
    EXPECT_EQ("", Problems());
    EXPECT_EQ("", Unasked());
}

TEST_F(CmConfigReaderTest, MakesOnePrintableLine_WhateverTheValue) {
    Read("[s]\nk = a\tb\x01" + std::string(100, 'x') + "\n");
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.Refuse("s", "k", "short"));
    EXPECT_EQ(
        "kelto.cfg:2: k = \"a?b?" + std::string(60, 'x') + "...\" in section [s] should be short\n",
        Problems());
}

TEST_F(CmConfigReaderTest, ListsWhatNobodyAskedForOrCanReach) {
    Read(
        "early = 1\n"
        "[Host]\n"
        "Workers = 2\n"
        "Wrokers = 3\n"
        "workers = 4\n"
        "# Comment = 5\n"
        "[Other]\n"
        "x = 1\n"
        "[HOST]\n"
        "Late = 6\n");
    int nNumber = 0;
    EXPECT_EQ(CM_OK, m_config.GetNumber("Host", "Workers", nNumber));
    EXPECT_EQ(2, nNumber);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetNumber("Host", "Late", nNumber));
    EXPECT_EQ(
        "kelto.cfg:1: early = \"1\" is in no section\n"
        "kelto.cfg:4: Wrokers = \"3\" in section [Host] means nothing here\n"
        "kelto.cfg:5: workers = \"4\" in section [Host] does not count, because line 3 has that "
        "name already\n"
        "kelto.cfg:8: x = \"1\" in section [Other] means nothing here\n"
        "kelto.cfg:10: Late = \"6\" in section [HOST] does not count, because line 2 has that "
        "name already\n",
        Unasked());
    EXPECT_EQ("kelto.cfg:8: x = \"1\" in section [Other] means nothing here\n", Unasked("other"));
}

TEST_F(CmConfigReaderTest, TakesOneSemicolonOffInTheMainFileOnly) {
    Read("[s]\na = 5;\nb = 5;;\nc = ;\n");
    std::string_view text;
    EXPECT_EQ(CM_OK, m_config.GetText("s", "a", text));
    EXPECT_EQ("5;", text);
    ASSERT_EQ(CM_OK, m_config.ReadMain());
    int nNumber = 0;
    EXPECT_EQ(CM_OK, m_config.GetNumber("s", "a", nNumber));
    EXPECT_EQ(5, nNumber);
    EXPECT_EQ(CM_OK, m_config.GetText("s", "b", text));
    EXPECT_EQ("5;", text);
    EXPECT_EQ(CM_OK, m_config.GetText("s", "c", text));
    EXPECT_EQ("", text);
}

TEST_F(CmConfigReaderTest, IsEmpty_WithoutAFile) {
    EXPECT_TRUE(m_config.HasChanged());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.ReadMain());
    EXPECT_FALSE(m_config.HasChanged());
    std::string_view text;
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_config.GetText("s", "k", text));
    EXPECT_EQ("", Unasked());
    Write("[s]\nk = 1\n");
    EXPECT_TRUE(m_config.HasChanged());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_config.Read(nullptr));
}

TEST_F(CmConfigReaderTest, StaysAsItWas_WhenTheFileCannotBeRead) {
    Read("[s]\nk = 1\n");
    EXPECT_EQ(CM_ERROR_FAILURE, m_config.Read(m_home.path().c_str()));
    ASSERT_EQ(1U, m_config.problems().size());
    EXPECT_EQ(m_home.path() + ": cannot be read: Is a directory", m_config.problems()[0]);
    std::string_view text;
    EXPECT_EQ(CM_OK, m_config.GetText("s", "k", text));
    EXPECT_FALSE(m_config.HasChanged());
}

TEST_F(CmConfigReaderTest, SaysSo_WhenTheFileHasChanged) {
    Read("[s]\nk = 1\n");
    EXPECT_FALSE(m_config.HasChanged());
    Write("[s]\nk = 2\n");  // another file of the same size
    EXPECT_TRUE(m_config.HasChanged());
    int nNumber = 0;
    EXPECT_EQ(CM_OK, m_config.GetNumber("s", "k", nNumber));
    EXPECT_EQ(1, nNumber);  // the snapshot stays
    ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
    EXPECT_FALSE(m_config.HasChanged());
    EXPECT_EQ(CM_OK, m_config.GetNumber("s", "k", nNumber));
    EXPECT_EQ(2, nNumber);
    kelto_test::WriteFile(m_sPath, "[s]\nk = 3\n");  // in place
    EXPECT_TRUE(m_config.HasChanged());
    ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
    kelto_test::WriteFile(m_sPath, "[s]\nk = 4\n");  // at once: the same size, a moment later
    EXPECT_TRUE(m_config.HasChanged());
    ASSERT_EQ(0, unlink(m_sPath.c_str()));
    EXPECT_TRUE(m_config.HasChanged());
}

// A writer in place empties the file and fills it again, over and over; each content is one number
// in many lines.
TEST_F(CmConfigReaderTest, ReadsOldOrNew_WhileTheFileIsEdited) {
    constexpr int LINES = 2000;
    const auto content = [](int aNumber) {
        std::string sContent = "[s]\n";
        for (int i = 0; i < LINES; ++i) {
            sContent += "k" + std::to_string(i) + " = " + std::to_string(aNumber) + "\n";
        }
        return sContent;
    };
    Write(content(0));
    std::atomic<bool> bStop{false};
    std::thread writer([&] {
        for (int i = 1; !bStop; ++i) {
            kelto_test::WriteFile(m_sPath, content(i));
            SleepMs(45);
        }
    });
    int nGood = 0;
    for (int i = 0; i < 20; ++i) {
        const CmResult rv = m_config.Read(m_sPath.c_str());
        if (rv == CM_ERROR_NOT_AVAILABLE) {
            continue;
        }
        ASSERT_EQ(CM_OK, rv);
        int nFirst = -1;
        EXPECT_EQ(CM_OK, m_config.GetNumber("s", "k0", nFirst));
        for (int nLine = 1; nLine < LINES; ++nLine) {
            int nNumber = -1;
            EXPECT_EQ(CM_OK, m_config.GetNumber("s", "k" + std::to_string(nLine), nNumber));
            ASSERT_EQ(nFirst, nNumber) << nLine;
        }
        ++nGood;
    }
    bStop = true;
    writer.join();
    EXPECT_LT(0, nGood);
}

namespace {

// The file of a reader that is changed between two of its reads.
std::string g_sEdited;
int g_nEdits = 0;

ssize_t EditBeforeReading(int aFile, void* aBuffer, size_t aSize, off_t aPosition) {
    if (aPosition > 0 && g_nEdits > 0) {
        --g_nEdits;
        kelto_test::WriteFile(g_sEdited, "[s]\na = 2\n" + std::string(10000, '\n') + "b = 2\n");
    }
    return pread(aFile, aBuffer, aSize, aPosition);
}

CCmTimeValue g_tvSlept;

int CountTheSleep(const timespec* aTime, timespec* aRemain) {
    g_tvSlept += CCmTimeValue(aTime->tv_sec, aTime->tv_nsec / 1000);
    return nanosleep(aTime, aRemain);
}

}  // namespace

TEST_F(CmConfigReaderTest, ReadsAgain_WhenTheFileIsEditedBetweenTwoReads) {
    Write("[s]\na = 1\n" + std::string(10000, '\n') + "b = 1\n");
    g_sEdited = m_sPath;
    g_nEdits = 1;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.pread)> entry(g_cmSystem.pread,
                                                                    &EditBeforeReading);
    ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
    int nFirst = 0;
    int nSecond = 0;
    EXPECT_EQ(CM_OK, m_config.GetNumber("s", "a", nFirst));
    EXPECT_EQ(CM_OK, m_config.GetNumber("s", "b", nSecond));
    EXPECT_EQ(2, nFirst);
    EXPECT_EQ(2, nSecond);
}

TEST_F(CmConfigReaderTest, GivesUp_WhenTheFileNeverStopsChanging) {
    Write("[s]\na = 1\n" + std::string(10000, '\n') + "b = 1\n");
    g_sEdited = m_sPath;
    g_nEdits = 1000000;
    const kelto_test::ScopedEntry<decltype(g_cmSystem.pread)> entry(g_cmSystem.pread,
                                                                    &EditBeforeReading);
    const kelto_test::ScopedEntry<decltype(g_cmSystem.nanosleep)> sleep(g_cmSystem.nanosleep,
                                                                        &CountTheSleep);
    g_tvSlept = CCmTimeValue();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_config.Read(m_sPath.c_str()));
    EXPECT_EQ(CCmTimeValue(1), g_tvSlept);
    g_nEdits = 0;
    ASSERT_EQ(1U, m_config.problems().size());
    EXPECT_EQ(m_sPath + ": cannot be read: it does not stop changing", m_config.problems()[0]);
}

TEST_F(CmConfigReaderTest, OpensTheFileOnceForTheTraceFacilityAndItself) {
    Write("[Trace]\nEnable = TRUE\nFlushPerLines = 3\nTypo = 1\n[Host]\nk = 1\n");
    ASSERT_EQ(CM_OK, m_config.ReadMain());
    {
        const CountedOpens opens("conf/kelto.cfg");
        EXPECT_EQ(CM_OK, m_config.UseForTrace());
        EXPECT_EQ(0, opens.count());
        refresh_trace_config();
        EXPECT_LT(30, opens.count());
    }
    const CountedOpens opens("conf/kelto.cfg");
    CCmConfigReader config;
    ASSERT_EQ(CM_OK, config.ReadMain());
    ASSERT_EQ(CM_OK, config.UseForTrace());
    int nNumber = 0;
    EXPECT_EQ(CM_OK, config.GetNumber("Host", "k", nNumber));
    EXPECT_EQ(1, opens.count());
    EXPECT_EQ("kelto.cfg:4: Typo = \"1\" in section [Trace] means nothing here\n",
              Unasked("Trace"));
}

TEST_F(CmConfigReaderTest, GivesTheTraceFacilityWhatTheFileWouldHave) {
    const std::string sLevel = std::string(CCmT120Trace::get_process_name()) + ".Debug";
    const auto isOn = [] { return CCmT120Trace::instance()->enable_trace_print(27, nullptr); };
    Write("[Trace]\n" + sLevel + " = \"TRUE\";\n");
    refresh_trace_config();
    const int nFromFile = isOn();
    Write("[Trace]\n" + sLevel + " = TRUE;\n");
    ASSERT_EQ(CM_OK, m_config.ReadMain());
    Write("[Trace]\n");
    refresh_trace_config();
    EXPECT_EQ(0, isOn());
    ASSERT_EQ(CM_OK, m_config.UseForTrace());
    EXPECT_EQ(1, isOn());
    EXPECT_EQ(0, nFromFile);  // a quote that does not close is part of the value
    refresh_trace_config();
    EXPECT_EQ(0, isOn());
    CCmConfigReader other;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, other.UseForTrace());
    EXPECT_EQ(CM_OK, other.Read(m_sPath.c_str()));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, other.UseForTrace());
}

// Whatever is in the file: what the single look-ups find is found, and nothing else.
TEST_F(CmConfigReaderTest, AgreesWithTheSingleLookUps) {
    const std::string PIECES[] = {"[",
                                  "]",
                                  "[a]\n",
                                  "[A ]\n",
                                  "[b]",
                                  "]x[",
                                  "=",
                                  "k",
                                  "K",
                                  "l",
                                  " ",
                                  "\t",
                                  "\r",
                                  "\n",
                                  "\n",
                                  "\n",
                                  "#",
                                  ";",
                                  "\"",
                                  "'",
                                  "v",
                                  "k = v",
                                  "l=\"w\"\n",
                                  "[a]\nk=1;\n",
                                  std::string(1, '\0'),
                                  std::string(2040, 'x'),
                                  "k = v\n"};
    std::mt19937 random(20261121);
    size_t nFound = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string sContent;
        for (unsigned n = random() % 30; n > 0; --n) {
            sContent += PIECES[random() % std::size(PIECES)];
        }
        kelto_test::WriteFile(m_sPath, sContent);
        const timespec times[] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, m_sPath.c_str(), times, 0));
        ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
        for (const char* pszSection : {"a", "B", "x", ""}) {
            for (const char* pszKey : {"k", "L", "", "kv", "k = v"}) {
                char szValue[3000];
                get_string_from_profile(pszSection, pszKey, "(none)", szValue, sizeof(szValue),
                                        m_sPath.c_str());
                std::string_view text = "(none)";
                m_config.GetText(pszSection, pszKey, text);
                ASSERT_EQ(szValue, text) << sContent;
                nFound += text != "(none)" ? 1 : 0;
                ASSERT_EQ(CM_OK, m_config.ReadMain());
                const int nFoundMain =
                    get_string_param(pszSection, pszKey, szValue, sizeof(szValue));
                text = "";
                const CmResult rv = m_config.GetText(pszSection, pszKey, text);
                ASSERT_EQ(szValue, text) << sContent;
                ASSERT_TRUE(nFoundMain == 0 || rv == CM_OK) << sContent;
                ASSERT_EQ(CM_OK, m_config.Read(m_sPath.c_str()));
            }
        }
    }
    EXPECT_LT(1000U, nFound);
}

TEST_F(CmConfigReaderTest, TracesNothingAndSurvives_WithoutMemory) {
    const kelto_test::ScopedTraceSink sink;
    Write("[s]\nk = two and a long text beside it, for there to be an allocation\n");
    for (unsigned long ulNth = 1;; ++ulNth) {
        int nNumber = 5;
        std::vector<CCmString> sentences;
        const kelto_test::ScopedAllocationFault fault(ulNth);
        CCmConfigReader config;
        const CmResult rv = config.Read(m_sPath.c_str());
        const CmResult number = config.GetNumber("s", "k", nNumber, 1, 64);
        config.ListUnasked("", sentences);
        EXPECT_EQ(5, nNumber);
        EXPECT_NE(CM_OK, number);
        EXPECT_TRUE(config.HasChanged() == (rv != CM_OK));
        if (!fault.hit()) {
            EXPECT_EQ(CM_OK, rv);
            EXPECT_EQ(CM_ERROR_INVALID_ARG, number);
            EXPECT_LT(5U, ulNth);
            break;
        }
    }
    EXPECT_TRUE(sink.lines().empty());
}
