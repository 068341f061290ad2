#include "CmConfig.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CmProcessName.h"
#include "CmT120Trace.h"
#include "support/ChildProcess.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/ProfileModel.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::ModelFind;
using kelto_test::ModelRecord;
using kelto_test::ModelRecords;
using kelto_test::ScopedHome;
using kelto_test::WriteFile;

// Restores what the locations tests change.
class ScopedLocations {
  public:
    ScopedLocations() : m_sFileName(g_kelto_config_file_name) {
        memcpy(m_achEnv, g_cur_env, sizeof(m_achEnv));
    }
    ~ScopedLocations() {
        g_kelto_config_file_name = m_sFileName;
        memcpy(g_cur_env, m_achEnv, sizeof(m_achEnv));
    }
    ScopedLocations(const ScopedLocations&) = delete;
    ScopedLocations& operator=(const ScopedLocations&) = delete;

  private:
    CCmString m_sFileName;
    char m_achEnv[CM_CUR_ENV_SIZE];
};

// read_init_file over the file; "(none)" when it returns 0.
std::string ReadStream(const std::string& aPath, const char* aSection, const char* aKey) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fopen(aPath.c_str(), "rt"), fclose);
    char szValue[4096];
    return read_init_file(pFile.get(), aSection, aKey, szValue, sizeof(szValue)) == 1 ? szValue
                                                                                      : "(none)";
}

// get_string_from_profile over the file; "(none)" is its default.
std::string ReadFile(const std::string& aPath, const char* aSection, const char* aKey) {
    char szValue[4096];
    const int nLength =
        get_string_from_profile(aSection, aKey, "(none)", szValue, sizeof(szValue), aPath.c_str());
    EXPECT_EQ(strlen(szValue), static_cast<size_t>(nLength));
    return szValue;
}

// By both functions, which must agree.
std::string Read(const std::string& aContent, const char* aSection, const char* aKey) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    WriteFile(sPath, aContent);
    std::string sValue = ReadFile(sPath, aSection, aKey);
    EXPECT_EQ(sValue, ReadStream(sPath, aSection, aKey));
    return sValue;
}

std::string Trimmed(const char* aText) {
    std::string sText = aText;
    return trim_string(&sText[0]);
}

// ---- Primitives

TEST(CmConfigTrim, RemovesBlanksAtBothEnds) {
    EXPECT_EQ("a \tb", Trimmed(" \t\r\na \tb \t\r\n"));
    EXPECT_EQ("\va\f", Trimmed("\va\f"));
}

TEST(CmConfigTrim, MakesTrailingBlanksNuls) {
    char achText[] = " a \n";
    EXPECT_EQ(achText + 1, trim_string(achText));
    EXPECT_EQ(0, memcmp(" a\0\0\0", achText, sizeof(achText)));
}

TEST(CmConfigTrim, ReturnsTheTextItself_WhenItIsEmpty) {
    char achEmpty[] = "";
    char achBlank[] = " \t";
    EXPECT_EQ(achEmpty, trim_string(achEmpty));
    EXPECT_EQ(achBlank, trim_string(achBlank));
    EXPECT_STREQ("", achBlank);
    EXPECT_EQ(nullptr, trim_string(nullptr));
}

TEST(CmConfigComment, IsDecidedByTheFirstNonBlank) {
    EXPECT_TRUE(is_comment_line("#"));
    EXPECT_TRUE(is_comment_line(" \t\r\n# x"));
    EXPECT_FALSE(is_comment_line("x # y"));
    EXPECT_FALSE(is_comment_line("; x"));
    EXPECT_FALSE(is_comment_line(""));
    EXPECT_FALSE(is_comment_line("  \n"));
    EXPECT_FALSE(is_comment_line(nullptr));
}

// ---- The format

struct FormatRow {
    const char* content;
    const char* section;
    const char* key;
    const char* expected;
    const char* reason;
};

const FormatRow FORMAT_ROWS[] = {
    {"[s]\nk=v\n", "s", "k", "v", "plain"},
    {"[s]\nk=v", "s", "k", "v", "no final line end"},
    {"[s]\r\nk=v\r\n", "s", "k", "v", "CRLF"},
    {"[s]\rk=v\r", "s", "k", "(none)", "a lone CR ends no line"},
    {"[Trace]\nenable = true\n", "trace", "Enable", "true", "names ignore case"},
    {" \t[ \t s s\t ]\n \tk k\t = \tv v\t \n", "s s", "k k", "v v", "blanks are trimmed"},
    {"[s]\n = v\n", "s", "", "v", "an empty key is a key"},
    {"[]\nk=v\n", "", "k", "v", "an empty section name is a name"},
    {"[s]\nk=\n", "s", "k", "", "an empty value is found"},
    {"[s]\nk\n", "s", "k", "(none)", "no \"=\", no key"},
    {"[s]\nk=a=b\n", "s", "k", "a=b", "the first \"=\" separates"},
    {"[s]\nk=1\nk=2\n", "s", "k", "1", "the first key counts"},
    {"k=v\n[s]\nj=w\n", "s", "k", "(none)", "ahead of the first header"},
    {"k=v\n", "", "k", "(none)", "ahead of the first header, even for no name"},
    {"[t]\nk=v\n[s]\nk=w\n", "s", "k", "w", "only the wanted section"},
    {"[s]\nj=1\n[t]\nj=2\n[s]\nk=v\n", "s", "k", "(none)", "a repeated section is not searched"},
    {"[s]\nj=1\n[s]\nk=v\n", "s", "k", "(none)", "nor is one that follows at once"},
    {"[ss]\nk=v\n", "s", "k", "(none)", "a longer section name"},
    {"[s]\nkk=v\n", "s", "k", "(none)", "a longer key"},
    {"#[s]\nk=v\n", "s", "k", "(none)", "a header in a comment"},
    {"[s]\n   # x = 1\nk=v\n", "s", "# x", "(none)", "a comment after blanks"},
    {"[s]\n   # x = 1\nk=v\n", "s", "k", "v", "a comment is skipped"},
    {"[s]\n; x = 1\n", "s", "; x", "1", "\";\" starts no comment"},
    {"[s]\nk=v # w\n", "s", "k", "v # w", "no comment after a value"},
    {"[s]\nj=[x]\nk=v\n", "s", "k", "(none)", "brackets in a value make a header"},
    {"[t]\nj=[s]\nk=v\n", "s", "k", "v", "which is the section between them"},
    {"[s]\nk=[v\n", "s", "k", "[v", "an opening bracket alone"},
    {"[s]\nk=v]\n", "s", "k", "v]", "a closing bracket alone"},
    {"[s\nk=v\n", "s", "k", "(none)", "an unclosed header"},
    {"x[s]y\nk=v\n", "s", "k", "v", "text around a header"},
    {"[s][t]\nk=v\n", "s", "k", "v", "the first \"]\" cuts"},
    {"[a[s]\nk=v\n", "a[s", "k", "v", "the first \"[\" begins"},
    {"]a[b]c\nk=v\n", "b]c", "k", "v", "a \"]\" ahead cuts nothing after the \"[\""},
    {"]a[ s \nk=v\n", "s", "k", "v", "which need not be closed again"},
    {"[s]k=w\nk=v\n", "s", "k", "v", "a header line holds no key"},
    {"[s]\nk=\"abc\"\n", "s", "k", "abc", "double quotes"},
    {"[s]\nk='abc'\n", "s", "k", "abc", "single quotes"},
    {"[s]\nk=\" abc\t\"\n", "s", "k", "abc", "trimmed again"},
    {"[s]\nk='abc\n", "s", "k", "'abc", "no closing quote"},
    {"[s]\nk=abc'\n", "s", "k", "abc'", "no opening quote"},
    {"[s]\nk='abc\"\n", "s", "k", "'abc\"", "quotes of two kinds"},
    {"[s]\nk=\"'abc'\"\n", "s", "k", "'abc'", "one pair only"},
    {"[s]\nk=\"\n", "s", "k", "\"", "a lone quote character"},
    {"[s]\nk='\n", "s", "k", "'", "a lone quote character"},
    {"[s]\nk=\"\"\n", "s", "k", "", "nothing between quotes"},
    {"[s]\nk=v;\n", "s", "k", "v;", "a \";\" is kept"},
    {"", "s", "k", "(none)", "an empty file"},
    {"\n\n\n", "s", "k", "(none)", "blank lines"},
    {"[s]", "s", "k", "(none)", "a header at the end"},
    {"[t]\nk=v\n[s]", "s", "k", "(none)", "a header at the end"},
};

TEST(CmConfigProfile, UnderstandsLines) {
    for (const FormatRow& row : FORMAT_ROWS) {
        EXPECT_EQ(row.expected, Read(row.content, row.section, row.key)) << row.reason << ":\n"
                                                                         << row.content;
    }
}

TEST(CmConfigProfile, EndsALine_WhenItHasANul) {
    using namespace std::string_literals;
    EXPECT_EQ("a", Read("[s]\nk=a\0b\nj=c\n"s, "s", "k"));
    EXPECT_EQ("c", Read("[s]\nk=a\0b\nj=c\n"s, "s", "j"));
    EXPECT_EQ("(none)", Read("\0[s]\nk=a\n"s, "s", "k"));
    EXPECT_EQ("(none)", Read("[s]\n\0k=a\n"s, "s", "k"));
    EXPECT_EQ("a", Read("[s]\0]\nk=a\n"s, "s", "k"));
}

TEST(CmConfigProfile, TakesHighBytesForNoLetters) {
    EXPECT_EQ("v", Read("[\xC3\x84]\n\xC3\x96=v\n", "\xC3\x84", "\xC3\x96"));
    EXPECT_EQ("(none)", Read("[\xC3\x84]\nk=v\n", "\xC3\xA4", "k"));
    EXPECT_EQ("(none)", Read("[s{]\nk=v\n", "s[", "k"));
}

TEST(CmConfigProfile, SplitsALine_WhenItHasMoreThan2047Characters) {
    // The line is cut after 2047 characters, and the rest is a line of its own.
    const std::string sPad(2047 - 2, 'x');
    EXPECT_EQ(sPad, Read("[s]\nk=" + sPad + "\nj=w\n", "s", "k"));
    EXPECT_EQ("w", Read("[s]\nk=" + sPad + "\nj=w\n", "s", "j"));
    EXPECT_EQ(sPad, Read("[s]\nk=" + sPad + "j=w\n", "s", "k"));
    EXPECT_EQ("w", Read("[s]\nk=" + sPad + "j=w\n", "s", "j"));
    EXPECT_EQ("w", Read("[s]\n" + std::string(2 * 2047, 'x') + "j=w", "s", "j"));
    EXPECT_EQ("(none)", Read("[s]\n" + std::string(2 * 2047 + 1, 'x') + "j=w", "s", "j"));
}

TEST(CmConfigProfile, SeesAHeaderInItsPiece_WhenTheLineIsLong) {
    EXPECT_EQ("v", Read(std::string(2044, 'x') + "[s]\nk=v\n", "s", "k"));
    EXPECT_EQ("(none)", Read(std::string(2046, 'x') + "[s]\nk=v\n", "s", "k"))
        << "the opening bracket is the last character of the first piece";
    EXPECT_EQ("v", Read(std::string(2047, 'x') + "[s]\nk=v\n", "s", "k"));
    EXPECT_EQ("v", Read(std::string(3 * 2047, 'x') + "[s]\nk=v\n", "s", "k"));
}

TEST(CmConfigProfile, ReadsWhole_WhenTheFileTakesManyBuffers) {
    std::string sContent;
    for (int i = 0; i < 5000; ++i) {
        sContent += "[section" + std::to_string(i) + "]\nkey = " + std::to_string(i) + "\n# pad\n";
    }
    EXPECT_EQ("0", Read(sContent, "section0", "key"));
    EXPECT_EQ("2500", Read(sContent, "section2500", "key"));
    EXPECT_EQ("4999", Read(sContent, "section4999", "key"));
    EXPECT_EQ("(none)", Read(sContent, "section5000", "key"));
    EXPECT_EQ("(none)", Read(std::string(100000, 'x'), "s", "k"));
    EXPECT_EQ("(none)", Read(std::string(100000, '['), "s", "k"));
    EXPECT_EQ("(none)", Read(std::string(100000, '\n'), "s", "k"));
}

// ---- Generated files against the model

// Profiles made of fragments that matter to the format; the same for the same seed.
class ProfileMaker {
  public:
    explicit ProfileMaker(unsigned aSeed) : m_dwState(aSeed * 2654435761u + 1) {}

    std::string Make() {
        std::string sContent;
        for (unsigned i = Below(60); i > 0; --i) {
            sContent += Fragment();
        }
        return sContent;
    }
    unsigned Below(unsigned aLimit) {
        m_dwState = m_dwState * 1664525u + 1013904223u;
        return (m_dwState >> 8) % aLimit;
    }

  private:
    std::string Fragment() {
        static const char* const FRAGMENTS[] = {
            "[s]",  "[S]\n", "[t]\n", "[ s ]\n", "[",    "]",        "\n",   "\n",
            "\r\n", "=",     "k=v",   "K = w",   "j=\"", "k=' x '",  "j=1",  "k",
            "#",    "# ",    ";",     " ",       "\t",   "'",        "\"",   "k=2\n",
            "j=3",  "x=[y",  "[s]\n", "]s[ ",    "\r",   "\xC3\xA9", "k=\n", "j\n=5",
        };
        const unsigned uWhat = Below(40);
        if (uWhat == 0) {
            return std::string(1, '\0');
        }
        if (uWhat == 1) {
            return std::string(2000 + Below(100), 'p');
        }
        if (uWhat == 2) {
            return std::string(Below(9000), "pq\n "[Below(4)]);
        }
        return FRAGMENTS[Below(sizeof(FRAGMENTS) / sizeof(FRAGMENTS[0]))];
    }

    uint32_t m_dwState;
};

TEST(CmConfigProfile, ReadsAsTheModelSays_WhateverTheFile) {
    constexpr unsigned FILES = 4000;
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    unsigned uFound = 0;
    for (unsigned uSeed = 0; uSeed < FILES; ++uSeed) {
        const std::string sContent = ProfileMaker(uSeed).Make();
        const std::vector<ModelRecord> records = ModelRecords(sContent);
        WriteFile(sPath, sContent);
        for (const char* pSection : {"s", "T"}) {
            for (const char* pKey : {"k", "J"}) {
                const std::string sExpected = ModelFind(records, pSection, pKey);
                uFound += sExpected != "(none)" ? 1 : 0;
                ASSERT_EQ(sExpected, ReadStream(sPath, pSection, pKey)) << "seed " << uSeed;
                ASSERT_EQ(sExpected, ReadFile(sPath, pSection, pKey)) << "seed " << uSeed;
            }
        }
    }
    EXPECT_LT(FILES / 4, uFound) << "the files are to hold what is looked for";
}

// ---- Lengths

TEST(CmConfigReadInitFile, CopiesTheValueWithinItsBuffer) {
    char achOut[8];
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(tmpfile(), fclose);
    fputs("[s]\na=123\nb=1234\nc=12345\n", pFile.get());
    const auto read = [&](const char* aKey, int aSize) {
        memset(achOut, 'x', sizeof(achOut));
        rewind(pFile.get());
        return read_init_file(pFile.get(), "s", aKey, achOut, aSize);
    };
    EXPECT_EQ(1, read("a", 4));
    EXPECT_EQ(0, memcmp("123\0xxxx", achOut, 8));
    EXPECT_EQ(1, read("b", 4));
    EXPECT_EQ(0, memcmp("1234xxxx", achOut, 8)) << "no terminator";
    EXPECT_EQ(1, read("c", 4));
    EXPECT_EQ(0, memcmp("1234xxxx", achOut, 8));
    EXPECT_EQ(1, read("c", 0));
    EXPECT_EQ(1, read("c", -1));
    EXPECT_EQ(0, read("d", 8));
    EXPECT_EQ(0, memcmp("xxxxxxxx", achOut, 8));
}

TEST(CmConfigReadInitFile, ReadsTheStreamFromWhereItStands) {
    char szOut[8];
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(tmpfile(), fclose);
    fputs("[s]\nk=1\n[s]\nk=2\n", pFile.get());
    fseek(pFile.get(), 4, SEEK_SET);
    EXPECT_EQ(1, read_init_file(pFile.get(), "s", "k", szOut, sizeof(szOut)));
    EXPECT_STREQ("2", szOut);
}

TEST(CmConfigReadInitFile, LeavesTheStreamAfterTheKey) {
    char szOut[8];
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(tmpfile(), fclose);
    fputs("[s]\nk=1\nj=2\n", pFile.get());
    rewind(pFile.get());
    EXPECT_EQ(1, read_init_file(pFile.get(), "s", "k", szOut, sizeof(szOut)));
    EXPECT_EQ(8, ftell(pFile.get()));
}

TEST(CmConfigReadInitFile, FindsNothing_WhenTheStreamIsAtItsEnd) {
    char szOut[8];
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(tmpfile(), fclose);
    fputs("[s]\nk=1\n", pFile.get());
    while (fgetc(pFile.get()) != EOF) {
    }
    EXPECT_EQ(0, read_init_file(pFile.get(), "s", "k", szOut, sizeof(szOut)));
    EXPECT_EQ(0, read_init_file(nullptr, "s", "k", szOut, sizeof(szOut)));
}

TEST(CmConfigReadInitFile, NeedsSectionAndKeyButNoBuffer) {
    char szOut[8] = "before";
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(tmpfile(), fclose);
    fputs("[s]\nk=1\n", pFile.get());
    rewind(pFile.get());
    EXPECT_EQ(0, read_init_file(pFile.get(), nullptr, "k", szOut, sizeof(szOut)));
    EXPECT_EQ(0, read_init_file(pFile.get(), "s", nullptr, szOut, sizeof(szOut)));
    EXPECT_EQ(1, read_init_file(pFile.get(), "s", "k", nullptr, 0));
    EXPECT_STREQ("before", szOut);
}

TEST(CmConfigProfile, CutsAndTerminatesValues) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    for (const size_t nLength : {254u, 255u, 256u, 257u, 2000u}) {
        WriteFile(sPath, "[s]\nk=" + std::string(nLength, 'v') + "\n");
        char szOut[256];
        const int nExpected = static_cast<int>(std::min<size_t>(nLength, 255));
        EXPECT_EQ(nExpected,
                  get_string_from_profile("s", "k", "", szOut, sizeof(szOut), sPath.c_str()));
        EXPECT_EQ(static_cast<size_t>(nExpected), strlen(szOut));
    }
}

TEST(CmConfigProfile, CutsTheDefaultToItsBuffer) {
    char szOut[4];
    EXPECT_EQ(3, get_string_from_profile("s", "k", "12345", szOut, sizeof(szOut), "/nowhere/x"));
    EXPECT_STREQ("123", szOut);
    EXPECT_EQ(0, get_string_from_profile("s", "k", nullptr, szOut, sizeof(szOut), "/nowhere/x"));
    EXPECT_STREQ("", szOut);
    EXPECT_EQ(0, get_string_from_profile("s", "k", "1", szOut, 0, "/nowhere/x"));
    EXPECT_EQ(0, get_string_from_profile("s", "k", "1", nullptr, 4, "/nowhere/x"));
}

TEST(CmConfigProfile, FindsNothing_WhenANameIsNull) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    WriteFile(sPath, "[]\n=5\n");
    EXPECT_EQ(5, get_int_from_profile("", "", 7, sPath.c_str()));
    EXPECT_EQ(7, get_int_from_profile(nullptr, "", 7, sPath.c_str()));
    EXPECT_EQ(7, get_int_from_profile("", nullptr, 7, sPath.c_str()));
    EXPECT_EQ(7, get_int_from_profile("", "", 7, nullptr));
}

TEST(CmConfigProfile, ParsesIntegersOrTakesTheDefault) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    WriteFile(sPath, "[s]\na=12\nb=-3x\nc=x\nd=\n");
    EXPECT_EQ(12, get_int_from_profile("s", "a", 7, sPath.c_str()));
    EXPECT_EQ(-3, get_int_from_profile("s", "b", 7, sPath.c_str()));
    EXPECT_EQ(0, get_int_from_profile("s", "c", 7, sPath.c_str())) << "no number gives 0";
    EXPECT_EQ(0, get_int_from_profile("s", "d", 7, sPath.c_str()));
    EXPECT_EQ(7, get_int_from_profile("s", "e", 7, sPath.c_str()));
    EXPECT_EQ(7, get_int_from_profile("s", "a", 7, "/nowhere/x"));
}

// ---- Files that cannot be read

TEST(CmConfigProfile, FindsNothing_WhenTheFileIsADirectory) {
    ScopedHome home;
    EXPECT_EQ("(none)", ReadFile(home.path(), "s", "k"));
}

TEST(CmConfigProfile, ReadsANamedPipe_WhileItsWriterWrites) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    ASSERT_EQ(0, mkfifo(sPath.c_str(), 0600));
    const int nPipe = open(sPath.c_str(), O_RDWR);
    std::thread writer([nPipe] {
        for (const char* pszPart : {"[s]\nj=", "w\nk", "=v\n"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_LT(0, write(nPipe, pszPart, strlen(pszPart)));
        }
    });
    EXPECT_EQ("v", ReadFile(sPath, "s", "k"));
    writer.join();
    close(nPipe);
}

int g_nWriteEnd = -1;

// A writer that writes as soon as it is waited for without limit.
int WriteWhenAwaited(pollfd* aFiles, nfds_t aCount, int aLimit) {
    if (aLimit >= 0) {
        errno = EINVAL;
        return -1;
    }
    EXPECT_EQ(8, write(g_nWriteEnd, "[s]\nk=v\n", 8));
    return poll(aFiles, aCount, aLimit);
}

TEST(CmConfigProfile, WaitsWithoutLimit_WhenTheWriterOfANamedPipeIsSlow) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    ASSERT_EQ(0, mkfifo(sPath.c_str(), 0600));
    g_nWriteEnd = open(sPath.c_str(), O_RDWR);
    {
        const kelto_test::ScopedEntry<decltype(g_cmSystem.poll)> entry(g_cmSystem.poll,
                                                                       &WriteWhenAwaited);
        EXPECT_EQ("v", ReadFile(sPath, "s", "k"));
    }
    close(g_nWriteEnd);
}

TEST(CmConfigProfile, ReadsANamedPipe_UntilItsWriterClosesIt) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    ASSERT_EQ(0, mkfifo(sPath.c_str(), 0600));
    const int nPipe = open(sPath.c_str(), O_RDWR);
    std::thread writer([nPipe] {
        EXPECT_EQ(8, write(nPipe, "[s]\nj=w\n", 8));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        close(nPipe);
    });
    EXPECT_EQ("(none)", ReadFile(sPath, "s", "k"));
    writer.join();
}

TEST(CmConfigProfile, FindsNothingInANamedPipe_WithoutAWriter) {
    ScopedHome home;
    const std::string sPath = home.path() + "profile";
    ASSERT_EQ(0, mkfifo(sPath.c_str(), 0600));
    EXPECT_EQ(0, kelto_test::StatusOfChild([&sPath] {
                  alarm(20);  // a look-up that waits for a writer would wait for good
                  EXPECT_EQ("(none)", ReadFile(sPath, "s", "k"));
              }));
}

TEST(CmConfigProfile, FindsNothing_WithoutPermissionToRead) {
    FailingCall<&CCmSystemTable::open> fault(EACCES);
    ScopedHome home;
    WriteFile(home.path() + "profile", "[s]\nk=v\n");
    EXPECT_EQ("(none)", ReadFile(home.path() + "profile", "s", "k"));
    EXPECT_EQ("v", ReadFile(home.path() + "profile", "s", "k"));
}

TEST(CmConfigProfile, RepeatsACall_WhenItIsInterrupted) {
    ScopedHome home;
    WriteFile(home.path() + "profile", "[s]\nk=v\n");
    FailingCall<&CCmSystemTable::open> open(EINTR);
    FailingCall<&CCmSystemTable::read> read(EINTR);
    EXPECT_EQ("v", ReadFile(home.path() + "profile", "s", "k"));
    EXPECT_EQ(2u, open.calls());
    EXPECT_EQ(2u, read.calls());
}

int g_nProfileFlags = 0;
int FlagsKeepingOpen(const char* aPath, int aFlags, mode_t aMode) {
    g_nProfileFlags = aFlags;
    return open(aPath, aFlags, aMode);
}

TEST(CmConfigProfile, PassesItsFileOnToNoOtherProgram) {
    ScopedHome home;
    WriteFile(home.path() + "profile", "[s]\nk=v\n");
    kelto_test::ScopedEntry<decltype(g_cmSystem.open)> entry(g_cmSystem.open, &FlagsKeepingOpen);
    EXPECT_EQ("v", ReadFile(home.path() + "profile", "s", "k"));
    EXPECT_EQ(O_CLOEXEC, g_nProfileFlags & O_CLOEXEC);
    EXPECT_EQ(O_NOCTTY, g_nProfileFlags & O_NOCTTY);  // nor is a terminal made ours
}

// As in a host that has closed its standard input.
TEST(CmConfigProfile, ReadsAndClosesTheFile_WhenItsDescriptorIsZero) {
    ScopedHome home;
    WriteFile(home.path() + "profile", "[s]\nk=v\n");
    const int nInput = dup(0);
    close(0);
    errno = EINTR;
    const std::string strValue = ReadFile(home.path() + "profile", "s", "k");
    const bool bClosed = fcntl(0, F_GETFD) == -1;
    if (nInput >= 0) {
        dup2(nInput, 0);
        close(nInput);
    }
    EXPECT_EQ("v", strValue);
    EXPECT_TRUE(bClosed);
}

TEST(CmConfigProfile, LosesTheUnfinishedLine_WhenAReadFails) {
    ScopedHome home;
    // The first read ends within the value of j.
    WriteFile(home.path() + "profile",
              "[s]\n" + std::string(8 * 1024 - 4 - 3, '\n') + "j=12345\nk=v\n");
    EXPECT_EQ("12345", ReadFile(home.path() + "profile", "s", "j"));
    FailingCall<&CCmSystemTable::read> read(EIO, -1, 2);
    EXPECT_EQ("(none)", ReadFile(home.path() + "profile", "s", "j"));
}

ssize_t ReadOneByte(int aFile, void* aBuffer, size_t aSize) {
    return ::read(aFile, aBuffer, aSize < 1 ? aSize : 1);
}

TEST(CmConfigProfile, JoinsReads_WhenTheyAreShort) {
    const std::string sContent =
        "# x\n[t]\nk=w\n" + std::string(2100, 'x') + "\n[s]\n" + std::string(2047, 'y') + "k=v";
    ScopedHome home;
    WriteFile(home.path() + "profile", sContent);
    kelto_test::ScopedEntry<decltype(g_cmSystem.read)> entry(g_cmSystem.read, ReadOneByte);
    EXPECT_EQ("v", ReadFile(home.path() + "profile", "s", "k"));
}

TEST(CmConfigProfile, ClosesItsFile) {
    ScopedHome home;
    WriteFile(home.path() + "profile", "[s]\nk=v\n");
    const int nLowest = dup(0);
    close(nLowest);
    ReadFile(home.path() + "profile", "s", "k");
    ReadFile(home.path() + "profile", "s", "j");
    const int nAgain = dup(0);
    close(nAgain);
    EXPECT_EQ(nLowest, nAgain);
}

TEST(CmConfigProfile, ReadsOnceAndAllocatesNothing_WhenTheFileIsSmall) {
    ScopedHome home;
    home.WriteConfig("[Trace]\nEnable=TRUE\n[s]\nk=12\n");
    FailingCall<&CCmSystemTable::read> read(EIO, -1, 1000);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    EXPECT_EQ(12, get_int_param("s", "k"));
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
    EXPECT_EQ(1u, read.calls());
}

// ---- The main configuration file

TEST(CmConfigParam, GivesDefaults_WhenTheFileIsMissing) {
    ScopedHome home;
    char szOut[8] = "xxx";
    EXPECT_EQ(0, get_string_param("s", "k", szOut, sizeof(szOut)));
    EXPECT_STREQ("", szOut);
    EXPECT_EQ(0, get_int_param("s", "k"));
    EXPECT_EQ(1, get_bool_param("s", "k", 1));
    EXPECT_EQ(0, get_bool_param("s", "k", 0));
    EXPECT_EQ(0, get_uint16_param("s", "k"));
    EXPECT_EQ(0u, get_uint32_param("s", "k"));
    CCmConfigInitFile config;
    EXPECT_EQ(-7, config.GetIntParam("s", "k", -7));
    EXPECT_EQ(7u, config.GetDwordParam("s", "k", 7));
    EXPECT_EQ(7, config.GetWordParam("s", "k", 7));
    EXPECT_EQ("d", config.GetStringParam("s", "k", "d"));
    EXPECT_EQ(5, config.GetBoolParam("s", "k", 5));
}

TEST(CmConfigParam, RemovesOneTrailingSemicolon) {
    ScopedHome home;
    home.WriteConfig("[s]\na=abc;\nb=abc;;\nc=;\nd=\"abc;\"\ne=\"abc\";\n");
    char szOut[8];
    EXPECT_EQ(1, get_string_param("s", "a", szOut, sizeof(szOut)));
    EXPECT_STREQ("abc", szOut);
    EXPECT_EQ(1, get_string_param("s", "b", szOut, sizeof(szOut)));
    EXPECT_STREQ("abc;", szOut);
    EXPECT_EQ(1, get_string_param("s", "c", szOut, sizeof(szOut))) << "found, and empty";
    EXPECT_STREQ("", szOut);
    EXPECT_EQ(1, get_string_param("s", "d", szOut, sizeof(szOut)));
    EXPECT_STREQ("abc", szOut);
    EXPECT_EQ(1, get_string_param("s", "e", szOut, sizeof(szOut)));
    EXPECT_STREQ("\"abc\"", szOut) << "the quotes are looked at first";
}

TEST(CmConfigParam, IsNotFound_WhenTheValueIsEmpty) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=\n");
    char szOut[8] = "xxx";
    EXPECT_EQ(0, get_string_param("s", "k", szOut, sizeof(szOut)));
    EXPECT_STREQ("", szOut);
    EXPECT_EQ(1, get_bool_param("s", "k", 1));
}

TEST(CmConfigParam, IsNotFound_WithoutABuffer) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=v\n");
    char szOut[4] = "x";
    EXPECT_EQ(0, get_string_param("s", "k", nullptr, 4));
    EXPECT_EQ(0, get_string_param("s", "k", szOut, 0));
    EXPECT_EQ(0, get_string_param("s", "k", szOut, -1));
    EXPECT_STREQ("x", szOut);
}

TEST(CmConfigParam, WritesTheTerminatorOnly_WhenTheBufferHasOneCharacter) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=v\n");
    char achOut[2] = {'x', 'y'};
    EXPECT_EQ(0, get_string_param("s", "k", achOut, 1));
    EXPECT_EQ(0, memcmp("\0y", achOut, 2));
    EXPECT_EQ(1, get_string_param("s", "k", achOut, 2));
    EXPECT_EQ(0, memcmp("v\0", achOut, 2));
}

TEST(CmConfigParam, ParsesNumbers) {
    ScopedHome home;
    home.WriteConfig(
        "[s]\nplain=42\nneg=-1\nbad=x42\ntail=42ul\nwide=65537\nhuge=4294967296\nmore=4294967298\n"
        "hex=0x10\nplus=+7;\n");
    EXPECT_EQ(42, get_int_param("s", "plain"));
    EXPECT_EQ(-1, get_int_param("s", "neg"));
    EXPECT_EQ(0, get_int_param("s", "bad"));
    EXPECT_EQ(42, get_int_param("s", "tail"));
    EXPECT_EQ(0, get_int_param("s", "hex"));
    EXPECT_EQ(7, get_int_param("s", "plus"));
    EXPECT_EQ(65535, get_uint16_param("s", "neg"));
    EXPECT_EQ(1, get_uint16_param("s", "wide"));
    EXPECT_EQ(0, get_uint16_param("s", "bad"));
    EXPECT_EQ(42u, get_uint32_param("s", "plain"));
    EXPECT_EQ(4294967295u, get_uint32_param("s", "neg"));
    EXPECT_EQ(2u, get_uint32_param("s", "more"));
    EXPECT_EQ(0u, get_uint32_param("s", "bad"));
}

TEST(CmConfigParam, TakesTheLimitOfALongFirst_WhenANumberIsBeyond) {
    ScopedHome home;
    home.WriteConfig(
        "[s]\nabove=9223372036854775808\nbelow=-9223372036854775809\n"
        "huge=18446744073709551616\n");
    EXPECT_EQ(-1, get_int_param("s", "above"));
    EXPECT_EQ(0, get_int_param("s", "below"));
    EXPECT_EQ(65535, get_uint16_param("s", "above"));
    EXPECT_EQ(0u, get_uint32_param("s", "above"));
    EXPECT_EQ(4294967295u, get_uint32_param("s", "huge"));
    EXPECT_EQ(-1, CCmConfigInitFile().GetIntParam("s", "huge", 7));
    EXPECT_EQ(4294967295u, CCmConfigInitFile().GetDwordParam("s", "huge", 7));
    EXPECT_EQ(65535, CCmConfigInitFile().GetWordParam("s", "huge", 7));
}

TEST(CmConfigParam, TakesOnlyTrueForTrue) {
    ScopedHome home;
    home.WriteConfig("[Trace]\na=TRUE\nb=true\nc=tRuE;\nd=1\ne=yes\nf=on\ng=TRUEX\nh=TRU\n");
    EXPECT_EQ(1, get_bool_param("trace", "A", 0));
    EXPECT_EQ(1, get_bool_param("Trace", "b", 0));
    EXPECT_EQ(1, get_bool_param("Trace", "c", 0));
    for (const char* pKey : {"d", "e", "f", "g", "h"}) {
        EXPECT_EQ(0, get_bool_param("Trace", pKey, 1)) << pKey;
    }
    EXPECT_EQ(3, get_bool_param("Trace", "z", 3)) << "the default as it is";
}

TEST(CmConfigParam, CutsAndTerminatesTheValue_WhenItIsLong) {
    CCmConfigInitFile config;
    ScopedHome home;
    for (const size_t nLength : {255u, 256u, 257u, 2040u, 2047u, 2048u, 3000u}) {
        SCOPED_TRACE(nLength);
        home.WriteConfig("[s]\nk=" + std::string(nLength, '1') + "\n");
        EXPECT_EQ(std::string(255, '1'), config.GetStringParam("s", "k", ""));
        EXPECT_EQ(-1, get_int_param("s", "k")) << "the largest long, cut to 32 bits";
        EXPECT_EQ(0xFFFFFFFFu, get_uint32_param("s", "k"));
        EXPECT_EQ(0xFFFF, get_uint16_param("s", "k"));
        EXPECT_EQ(0, get_bool_param("s", "k", 1));
        EXPECT_EQ(-1, config.GetIntParam("s", "k", 5));
        EXPECT_EQ(0xFFFFFFFFu, config.GetDwordParam("s", "k", 5));
        EXPECT_EQ(0xFFFF, config.GetWordParam("s", "k", 5));
        EXPECT_EQ(0, config.GetBoolParam("s", "k", 1));
    }
}

TEST(CmConfigParam, TakesEffectAtOnce_WhenTheFileHasChanged) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=1\n");
    EXPECT_EQ(1, get_int_param("s", "k"));
    home.WriteConfig("[s]\nk=2\n");
    EXPECT_EQ(2, get_int_param("s", "k"));
    std::filesystem::remove(home.path() + "conf/kelto.cfg");
    EXPECT_EQ(0, get_int_param("s", "k"));
}

TEST(CmConfigParam, FindsTheSame_WhenManyThreadsLookUp) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=12\n");
    std::vector<std::thread> threads;
    std::atomic<int> nSum{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 100; ++j) {
                nSum += get_int_param("s", "k") + static_cast<int>(strlen(get_exec_name()));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(4 * 100 * 13, nSum.load());
}

// ---- CCmConfigInitFile

TEST(CmConfigInitFile, GettersParse) {
    ScopedHome home;
    home.WriteConfig(
        "[s]\nint=-12\ndword=4294967295\nul=17ul\nl=17l\nneg=-1\nword=65537\nbad=x\ntext=a b;\n"
        "yes=true\nno=1\n");
    CCmConfigInitFile config;
    EXPECT_EQ(-12, config.GetIntParam("s", "int", 5));
    EXPECT_EQ(4294967295u, config.GetDwordParam("s", "dword", 5));
    EXPECT_EQ(17u, config.GetDwordParam("s", "ul", 5));
    EXPECT_EQ(17u, config.GetDwordParam("s", "l", 5));
    EXPECT_EQ(4294967295u, config.GetDwordParam("s", "neg", 5));
    EXPECT_EQ(1, config.GetWordParam("s", "word", 5));
    EXPECT_EQ(65535, config.GetWordParam("s", "neg", 5));
    EXPECT_EQ("a b", config.GetStringParam("s", "text", "d"));
    EXPECT_EQ(1, config.GetBoolParam("s", "yes", 0));
    EXPECT_EQ(0, config.GetBoolParam("s", "no", 1));
    EXPECT_EQ(-5, config.GetBoolParam("s", "none", -5));
}

TEST(CmConfigInitFile, GivesZeroNotTheDefault_WhenANumberDoesNotParse) {
    ScopedHome home;
    home.WriteConfig("[s]\nbad=x\n");
    CCmConfigInitFile config;
    EXPECT_EQ(0, config.GetIntParam("s", "bad", 5));
    EXPECT_EQ(0u, config.GetDwordParam("s", "bad", 5));
    EXPECT_EQ(0, config.GetWordParam("s", "bad", 5));
}

TEST(CmConfigInitFile, InitChangesNothing_WhenAFileNameIsGiven) {
    ScopedHome home;
    home.WriteConfig("[s]\nk=1\n");
    WriteFile(home.path() + "conf/other.cfg", "[s]\nk=2\n");
    CCmConfigInitFile config;
    EXPECT_EQ(CM_OK, config.InitWithFileName("other.cfg"));
    EXPECT_EQ(1, config.GetIntParam("s", "k", 0));
    EXPECT_EQ("kelto.cfg", g_kelto_config_file_name);
}

TEST(CmConfigInitFile, SetKeltoConfigFileNameChangesTheFileAndIsTraced) {
    ScopedLocations locations;
    ScopedHome home;
    home.WriteConfig("[s]\nk=1\n");
    WriteFile(home.path() + "conf/other.cfg", "[s]\nk=2\n");
    CCmConfigInitFile config;
    kelto_test::ScopedTraceSink sink;
    config.SetKeltoConfigFileName("other.cfg");
    EXPECT_EQ(2, config.GetIntParam("s", "k", 0));
    ASSERT_FALSE(sink.lines().empty());
    EXPECT_EQ(CM_TRACE_LEVEL_INFO, sink.lines().back().level);
    EXPECT_EQ("UTIL INFO: CCmConfigInitFile::SetKeltoConfigFileName, file name other.cfg",
              sink.lines().back().text);
}

TEST(CmConfigInitFile, SetKeltoConfigFileNameRefreshesTheTraceFacility) {
    EXPECT_EQ(0, kelto_test::StatusOfChild([] {
                  ScopedLocations locations;
                  ScopedHome home;
                  WriteFile(home.path() + "conf/other.cfg", "[Trace]\nC.Info=FALSE\n");
                  EXPECT_EQ(1, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
                  CCmConfigInitFile().SetKeltoConfigFileName("other.cfg");
                  EXPECT_EQ(0, CCmT120Trace::instance()->enable_trace_print(20, nullptr));
              }));
}

TEST(CmConfigInitFile, CopiesTheHomeDirectory) {
    ScopedHome home;
    EXPECT_EQ(home.path(), CCmConfigInitFile().GetKeltoHomeDir());
}

TEST(CmConfigInitFile, SetKeltoHomeEnvWritesTheEnvironmentOnly) {
    ScopedLocations locations;
    ScopedHome home;
    CCmConfigInitFile().SetKeltoHomeEnv("/other");
    EXPECT_STREQ("/other", g_cur_env);
    EXPECT_EQ(home.path(), get_kelto_home_dir());
}

TEST(CmConfigInitFile, KeepsTheRabbitmqFileNameToItself) {
    CCmString sOut = "before";
    CCmConfigInitFile().get_rabbitmq_config_file_name(sOut);
    EXPECT_EQ("before", sOut);
}

TEST(CmConfigInitFile, NeverThrows_WithoutMemory) {
    ScopedLocations locations;
    ScopedHome home;
    home.WriteConfig("[s]\nk=" + std::string(100, 'v') + "\n");
    const CCmString sSection = "s";
    const CCmString sKey = "k";
    const CCmString sLong(100000, 'n');  // beyond any capacity the name has had
    CCmString sValue;
    {
        kelto_test::ScopedAllocationFault fault(1, kelto_test::Failing::FROM_THERE_ON);
        sValue = CCmConfigInitFile().GetStringParam(sSection, sKey, "d");
        set_kelto_config_file_name(sLong);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ("d", sValue);
    EXPECT_EQ("kelto.cfg", g_kelto_config_file_name);
}

// ---- Locations

TEST(CmConfigLocation, SetsDefaults) {
    EXPECT_STREQ("/tmp/", g_def_kelto_home_dir);
    EXPECT_EQ(16u, sizeof(g_def_kelto_home_dir));
    EXPECT_STREQ("KELTO_MMP_HOME", g_cur_env);
    EXPECT_EQ(512u, sizeof(g_cur_env));
    EXPECT_EQ("kelto.cfg", g_kelto_config_file_name);
    EXPECT_EQ("rabbitmq-config.xml", g_rabbitmq_config_file_name);
    EXPECT_EQ(g_def_kelto_home_dir, get_kelto_home_dir());
    char szPath[CM_CONFIG_PATH_SIZE];
    get_config_file_name(szPath);
    EXPECT_STREQ("/tmp/conf/kelto.cfg", szPath);
}

class CmConfigHome : public testing::Test {
  protected:
    CmConfigHome() { memcpy(m_achHome, g_def_kelto_home_dir, sizeof(m_achHome)); }
    ~CmConfigHome() override { memcpy(g_def_kelto_home_dir, m_achHome, sizeof(m_achHome)); }

    std::string PathWithHome(const std::string& aHome) {
        memset(g_def_kelto_home_dir, 0, sizeof(g_def_kelto_home_dir));
        aHome.copy(g_def_kelto_home_dir, sizeof(g_def_kelto_home_dir));
        char szPath[CM_CONFIG_PATH_SIZE];
        memset(szPath, 'x', sizeof(szPath));
        get_config_file_name(szPath);
        return szPath;
    }

  private:
    ScopedLocations m_locations;
    char m_achHome[CM_HOME_DIR_SIZE];
};

TEST_F(CmConfigHome, AppendsASlash_WhenItIsMissing) {
    EXPECT_EQ("/opt/conf/kelto.cfg", PathWithHome("/opt"));
    EXPECT_EQ("/opt/conf/kelto.cfg", PathWithHome("/opt/"));
    EXPECT_EQ("/opt//conf/kelto.cfg", PathWithHome("/opt//"));
    EXPECT_EQ("/conf/kelto.cfg", PathWithHome("/"));
    EXPECT_EQ("/conf/kelto.cfg", PathWithHome(""));
}

TEST_F(CmConfigHome, EndsWithItsArray_WithoutATerminator) {
    EXPECT_EQ("/0123456789abcde/conf/kelto.cfg", PathWithHome("/0123456789abcdef"));
    EXPECT_EQ("/0123456789abcde", CCmConfigInitFile().GetKeltoHomeDir());
}

TEST_F(CmConfigHome, IsEmpty_WhenThePathDoesNotFit) {
    set_kelto_config_file_name(CCmString(512 - 1 - 10, 'n'));
    EXPECT_EQ("/tmp/conf/" + std::string(501, 'n'), PathWithHome("/tmp"));
    EXPECT_EQ("/tmp/conf/" + std::string(501, 'n'), PathWithHome("/tmp/"));
    set_kelto_config_file_name(CCmString(512 - 10, 'n'));
    EXPECT_EQ("", PathWithHome("/tmp"));
    EXPECT_EQ("", PathWithHome("/tmp/"));
    EXPECT_EQ(0, get_int_param("s", "k"));
    get_config_file_name(nullptr);
}

TEST(CmConfigLocation, SetKeltoHomeEnvCopiesAtMost512Characters) {
    ScopedLocations locations;
    set_kelto_home_env("/other");
    EXPECT_STREQ("/other", g_cur_env);
    set_kelto_home_env(std::string(511, 'e').c_str());
    EXPECT_EQ(std::string(511, 'e'), g_cur_env);
    set_kelto_home_env(std::string(600, 'f').c_str());
    EXPECT_EQ(std::string(512, 'f'), std::string(g_cur_env, sizeof(g_cur_env)));
    set_kelto_home_env(nullptr);
    EXPECT_EQ('f', g_cur_env[0]);
}

TEST(CmConfigLocation, InitConfigCopiesAtMost510Characters) {
    ScopedLocations locations;
    init_config(std::string(511, 'x').c_str());
    EXPECT_STREQ("KELTO_MMP_HOME", g_cur_env);
    init_config(nullptr);
    EXPECT_STREQ("KELTO_MMP_HOME", g_cur_env);
    init_config(std::string(510, 'y').c_str());
    EXPECT_EQ(std::string(510, 'y'), g_cur_env);
    char szPath[CM_CONFIG_PATH_SIZE];
    get_config_file_name(szPath);
    EXPECT_STREQ("/tmp/conf/kelto.cfg", szPath);
}

TEST(CmConfigLocation, ReplacesTheConfigFileName) {
    ScopedLocations locations;
    set_kelto_config_file_name("other.cfg");
    char szPath[CM_CONFIG_PATH_SIZE];
    get_config_file_name(szPath);
    EXPECT_STREQ("/tmp/conf/other.cfg", szPath);
}

// ---- Names

TEST(CmConfigExecName, IsThatOfTheRunningExecutable) {
    EXPECT_EQ(1u, strlen(get_exec_name()));
    EXPECT_STREQ(get_exec_name(), get_process_name());
}

TEST(CmConfigProcessName, IsTheLastComponent) {
    EXPECT_STREQ("c", CmProcessNameOf("/a/b/c", "f"));
    EXPECT_STREQ("abc", CmProcessNameOf("abc", "f"));
    EXPECT_STREQ("abc", CmProcessNameOf("/abc", "f"));
    EXPECT_STREQ("", CmProcessNameOf("abc/", "f"));
    EXPECT_STREQ("", CmProcessNameOf("", "f"));
    EXPECT_STREQ("f", CmProcessNameOf(nullptr, "f"));
}

TEST(CmConfigModule, NamesAFixedCaller) {
    EXPECT_EQ("util.dll", getCallerModuleName("anything"));
    EXPECT_EQ("util.dll", getCallerModuleName(nullptr));
}

TEST(CmConfigParentPath, Fails_WhenAnArgumentIsBad) {
    char szPath[64];
    EXPECT_EQ(0, MMP_GetCurrentModuleParentPath(szPath, 0));
    EXPECT_EQ(0, MMP_GetCurrentModuleParentPath(szPath, -1));
    EXPECT_EQ(0, MMP_GetCurrentModuleParentPath(nullptr, 64));
}

}  // namespace
}  // namespace UTIL_NS

namespace UTIL_NS {
namespace {

TEST(CmSetHomeDir, ChecksTheLength) {
    const std::string sBefore = g_def_kelto_home_dir;
    EXPECT_EQ(CM_OK, CmSetHomeDir("/var/tmp/"));
    EXPECT_STREQ("/var/tmp/", get_kelto_home_dir());
    EXPECT_EQ(CM_OK, CmSetHomeDir("/srv"));
    EXPECT_STREQ("/srv/", get_kelto_home_dir());
    EXPECT_EQ(CM_OK, CmSetHomeDir("/fourteen/char"));
    EXPECT_STREQ("/fourteen/char/", get_kelto_home_dir());
    EXPECT_EQ(CM_OK, CmSetHomeDir("/fourteen/char/"));
    for (const char* pszBad : {"/fifteen/letter", "/sixteen/letters/", "", (const char*)nullptr}) {
        EXPECT_EQ(CM_ERROR_INVALID_ARG, CmSetHomeDir(pszBad));
        EXPECT_STREQ("/fourteen/char/", get_kelto_home_dir());
    }
    EXPECT_EQ(CM_OK, CmSetHomeDir(get_kelto_home_dir()));  // its own buffer
    EXPECT_EQ(CM_OK, CmSetHomeDir(sBefore.c_str()));
    EXPECT_EQ(sBefore, g_def_kelto_home_dir);
}

}  // namespace
}  // namespace UTIL_NS
