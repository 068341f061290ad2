#include "qtrace.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
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
#include <sstream>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Platform.h"

namespace {

using kelto_test::EndProcess;
using kelto_test::NameThisThread;
using kelto_test::NumberOfThisThread;
using kelto_test::StatusOfChild;
using kelto_test::THREAD_NAME_LENGTH_MAX;

// The library reads its environment once, so every case runs in a child process.
class Qtrace : public testing::Test {
  protected:
    Qtrace() {
        char szDir[] = "/tmp/qXXXXXX";
        m_sDir = mkdtemp(szDir);
        m_sFile = m_sDir + "/trace.txt";
        setenv("QTRACE_FILE", m_sFile.c_str(), 1);
        unsetenv("QTRACE_LEVEL");
    }
    ~Qtrace() override {
        unsetenv("QTRACE_FILE");
        std::filesystem::remove_all(m_sDir);
    }

    std::string Content() const {
        std::ifstream file(m_sFile, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    std::vector<std::string> Lines() const {
        std::istringstream content(Content());
        std::vector<std::string> lines;
        for (std::string sLine; std::getline(content, sLine);) {
            lines.push_back(sLine);
        }
        return lines;
    }
    // The texts of the lines, without what stands in front.
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const std::string& sLine : Lines()) {
            const size_t nEnd = sLine.find("] ");
            texts.push_back(nEnd == std::string::npos ? "no line: " + sLine
                                                      : sLine.substr(nEnd + 2));
        }
        return texts;
    }

    std::string m_sDir;
    std::string m_sFile;
};

using Strings = std::vector<std::string>;

// What stands in front of a line: "<date> <time>.<milliseconds> pid=<process> tid=<thread>".
struct Head {
    std::string time;
    int process = -1;
    unsigned long long thread = 0;
    std::string rest;
};

// time() may lag the clock that the lines are stamped with.
time_t Now() {
    timeval tvNow = {};
    gettimeofday(&tvNow, nullptr);
    return tvNow.tv_sec;
}

Head Parse(const std::string& aLine) {
    Head head;
    int nTimeEnd = 0;
    int nEnd = 0;
    sscanf(aLine.c_str(), "%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d%n pid=%d tid=%llu%n", &nTimeEnd,
           &head.process, &head.thread, &nEnd);
    head.time = aLine.substr(0, static_cast<size_t>(nTimeEnd));
    head.rest = aLine.substr(static_cast<size_t>(nEnd));
    return head;
}

void Write(const std::string& aText) {
    YRKTRACERAWA(2, "MAC", nullptr, aText.c_str());
}

// Delivers a text in pieces of 2047 characters, the last of fewer.
void WriteInPieces(const std::string& aText, const char* aModule = "MAC") {
    for (size_t nStart = 0; nStart <= aText.size(); nStart += 2047) {
        char achPrefix[256] = {};
        YRKTRACERAWA(2, aModule, achPrefix, aText.substr(nStart, 2047).c_str());
    }
}

struct LevelCase {
    const char* value;
    unsigned long level;
};

TEST_F(Qtrace, LevelComesFromTheEnvironment) {
    const LevelCase CASES[] = {
        {nullptr, 0},                                // missing: everything
        {"", 0},                                     // empty
        {"3", 3},                                    //
        {"0", 0},                                    //
        {"25", 25},                                  //
        {"x", 0},                                    // no number
        {"3x", 0},                                   // trailing characters
        {"-1", 0},                                   // negative
        {" 3", 0},                                   // leading blank
        {"99999999999999999999999", ULONG_MAX - 1},  // beyond the range
    };
    for (const LevelCase& level : CASES) {
        level.value != nullptr ? setenv("QTRACE_LEVEL", level.value, 1) : unsetenv("QTRACE_LEVEL");
        EXPECT_EQ(0, StatusOfChild([&] { EXPECT_EQ(level.level, _getTraceLevel()); }));
    }
    unsetenv("QTRACE_LEVEL");
}

TEST_F(Qtrace, LevelChangesAtRunTime) {
    setenv("QTRACE_LEVEL", "3", 1);
    EXPECT_EQ(0, StatusOfChild([] {
                  EXPECT_EQ(3u, _getTraceLevel());
                  qtrace_set_level(7);
                  EXPECT_EQ(7u, _getTraceLevel());
                  qtrace_set_level(0);
                  EXPECT_EQ(0u, _getTraceLevel());
              }));
    unsetenv("QTRACE_LEVEL");
}

TEST_F(Qtrace, LevelWinsOverTheEnvironment_WhenSetFirst) {
    setenv("QTRACE_LEVEL", "3", 1);
    EXPECT_EQ(0, StatusOfChild([] {
                  qtrace_set_level(7);
                  EXPECT_EQ(7u, _getTraceLevel());
              }));
    unsetenv("QTRACE_LEVEL");
}

TEST_F(Qtrace, LineHasTimeProcessThreadAndModuleInFront) {
    const time_t before = Now();
    EXPECT_EQ(0, StatusOfChild([] { Write("UTIL INFO: text"); }));
    const time_t after = Now();
    ASSERT_EQ(1u, Lines().size());
    const Head head = Parse(Lines()[0]);
    EXPECT_EQ(" [MAC] UTIL INFO: text", head.rest);  // and no name: nobody gave the thread one
    EXPECT_EQ(23u, head.time.size());
    EXPECT_NE(getpid(), head.process);
    tm date = {};
    ASSERT_NE(nullptr, strptime(head.time.c_str(), "%Y-%m-%d %H:%M:%S", &date));
    date.tm_isdst = -1;
    const time_t written = mktime(&date);
    EXPECT_LE(before, written);
    EXPECT_GE(after, written);
}

TEST_F(Qtrace, LineIsAppended) {
    { std::ofstream(m_sFile) << "old\n"; }
    EXPECT_EQ(0, StatusOfChild([] {
                  Write("one");
                  Write("two");
              }));
    EXPECT_EQ("old", Lines()[0]);
    EXPECT_EQ("one", Texts()[1]);
    EXPECT_EQ("two", Texts()[2]);
}

TEST_F(Qtrace, LineIsOneWrite) {
    int anPipe[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, anPipe));  // a read returns one write
    const int nRoom = 65536;
    ASSERT_EQ(0, setsockopt(anPipe[1], SOL_SOCKET, SO_SNDBUF, &nRoom, sizeof(nRoom)));
    unsetenv("QTRACE_FILE");
    EXPECT_EQ(0, StatusOfChild([&] {
                  dup2(anPipe[1], STDERR_FILENO);
                  Write("one");
                  Write(std::string(3000, 'x'));
              }));
    char achRead[8192];
    ssize_t nRead = read(anPipe[0], achRead, sizeof(achRead));
    ASSERT_GT(nRead, 4);
    EXPECT_EQ("one\n", std::string(achRead + nRead - 4, 4));
    nRead = read(anPipe[0], achRead, sizeof(achRead));
    ASSERT_GT(nRead, 3001);
    EXPECT_EQ("xx\n", std::string(achRead + nRead - 3, 3));
    close(anPipe[0]);
    close(anPipe[1]);
}

TEST_F(Qtrace, LineIndentsWhatFollows_AfterALineEnd) {
    EXPECT_EQ(0, StatusOfChild([] { Write("one\n2026-01-01 two\nthree\r\n\n"); }));
    EXPECT_NE(std::string::npos, Content().find("[MAC] one\n\t2026-01-01 two\n\tthree\n"));
    EXPECT_EQ(3u, Lines().size());
}

TEST_F(Qtrace, LineIsWritten_WhenEmpty) {
    EXPECT_EQ(0, StatusOfChild([] {
                  Write("");
                  Write("\n");
              }));
    EXPECT_EQ((Strings{"", ""}), Texts());
}

TEST_F(Qtrace, LineBoundsItsModule) {
    EXPECT_EQ(0, StatusOfChild([] {
                  YRKTRACERAWA(2, std::string(5000, 'm').c_str(), nullptr, "text");
                  YRKTRACERAWA(2, nullptr, nullptr, "text");
                  YRKTRACERAWA(2, "a\nb", nullptr, "text");
                  YRKTRACERAWA(2, "MAC", nullptr, nullptr);
              }));
    ASSERT_EQ(3u, Lines().size());
    EXPECT_NE(std::string::npos, Lines()[0].find(" [" + std::string(128, 'm') + "] text"));
    EXPECT_NE(std::string::npos, Lines()[1].find(" [] text"));
    EXPECT_NE(std::string::npos, Lines()[2].find(" [a b] text"));
}

TEST_F(Qtrace, LineTakesNoTextAsAFormat) {
    EXPECT_EQ(0, StatusOfChild([] { Write("%s%n%d"); }));
    EXPECT_EQ(Strings{"%s%n%d"}, Texts());
}

TEST_F(Qtrace, LineIsWritten_WhateverItsLength) {
    for (size_t nLength : {4000u, 4030u, 4040u, 4090u, 4096u, 4100u, 131071u}) {
        std::filesystem::remove(m_sFile);
        EXPECT_EQ(0, StatusOfChild([&] { Write(std::string(nLength, 'x')); }));
        EXPECT_EQ(Strings{std::string(nLength, 'x')}, Texts()) << nLength;
    }
}

TEST_F(Qtrace, PiecesBecomeOneLine) {
    for (size_t nLength : {2048u, 4093u, 4094u, 4095u, 100000u}) {
        std::filesystem::remove(m_sFile);
        const std::string sText = std::string(nLength - 1, 'x') + "!";
        EXPECT_EQ(0, StatusOfChild([&] { WriteInPieces(sText); }));
        EXPECT_EQ(Strings{sText}, Texts()) << nLength;
    }
}

TEST_F(Qtrace, PiecesStayTogether_WhenSeveralThreadsWrite) {
    EXPECT_EQ(0, StatusOfChild([] {
                  std::vector<std::thread> threads;
                  for (int i = 0; i < 4; ++i) {
                      threads.emplace_back([i] {
                          for (int n = 0; n < 50; ++n) {
                              WriteInPieces(std::string(5000, static_cast<char>('a' + i)));
                          }
                      });
                  }
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
              }));
    ASSERT_EQ(200u, Texts().size());
    for (const std::string& sText : Texts()) {
        ASSERT_EQ(std::string(5000, sText[0]), sText);
    }
}

TEST_F(Qtrace, PiecesThatNeverEndAreWritten_BeforeTheNextText) {
    EXPECT_EQ(0, StatusOfChild([] {
                  char achPrefix[256] = {};
                  YRKTRACERAWA(2, "MAC", achPrefix, std::string(2047, 'x').c_str());
                  Write("next");
              }));
    EXPECT_EQ((Strings{std::string(2047, 'x'), "next"}), Texts());
}

TEST_F(Qtrace, PiecesThatNeverEndAreWritten_WhenTheThreadEnds) {
    EXPECT_EQ(0, StatusOfChild([] {
                  std::thread([] {
                      char achPrefix[256] = {};
                      YRKTRACERAWA(2, "MAC", achPrefix, std::string(2047, 'x').c_str());
                  }).join();
              }));
    EXPECT_EQ(Strings{std::string(2047, 'x')}, Texts());
}

TEST_F(Qtrace, LinesStayWhole_WhenProcessesAndThreadsWrite) {
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            std::vector<std::thread> threads;
            for (int t = 0; t < 2; ++t) {
                threads.emplace_back([i, t] {
                    for (int n = 0; n < 500; ++n) {
                        Write(std::string(n % 200 + 1, static_cast<char>('a' + 2 * i + t)) + "!");
                    }
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            EndProcess(0);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int nStatus = -1;
        waitpid(child, &nStatus, 0);
        EXPECT_EQ(0, nStatus);
    }
    ASSERT_EQ(4000u, Texts().size());
    for (const std::string& sText : Texts()) {
        ASSERT_EQ(std::string(sText.size() - 1, sText[0]) + "!", sText);
    }
}

// Reads until the other end is closed.
std::string ReadAll(int aFile) {
    std::string sRead;
    char achBuffer[65536];
    ssize_t nRead = 0;
    while ((nRead = read(aFile, achBuffer, sizeof(achBuffer))) > 0) {
        sRead.append(achBuffer, static_cast<size_t>(nRead));
    }
    return sRead;
}

// Reads until so many line ends came.
std::string ReadLines(int aFile, long aCount) {
    std::string sRead;
    char ch = 0;
    while (aCount > 0 && read(aFile, &ch, 1) == 1) {
        sRead += ch;
        aCount -= ch == '\n' ? 1 : 0;
    }
    return sRead;
}

TEST_F(Qtrace, LinesStayWhole_WhenAPipeTakesThemInParts) {
    int anPipe[2];
    ASSERT_EQ(0, pipe(anPipe));
    unsetenv("QTRACE_FILE");
    const pid_t child = fork();
    if (child == 0) {
        dup2(anPipe[1], STDERR_FILENO);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int n = 0; n < 500; ++n) {
                    const size_t nLength = n % 2 == 0 ? 6000 : 50;
                    Write(std::string(nLength, static_cast<char>('a' + t)) + "!");
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EndProcess(0);
    }
    close(anPipe[1]);
    std::istringstream content(ReadAll(anPipe[0]));
    close(anPipe[0]);
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
    int nLines = 0;
    for (std::string sLine; std::getline(content, sLine); ++nLines) {
        const size_t nEnd = sLine.find("] ");
        ASSERT_NE(std::string::npos, nEnd) << sLine;
        const std::string sText = sLine.substr(nEnd + 2);
        ASSERT_TRUE(sText.size() == 6001 || sText.size() == 51) << sText.size();
        ASSERT_EQ(std::string(sText.size() - 1, sText[0]) + "!", sText);
    }
    EXPECT_EQ(2000, nLines);
}

TEST_F(Qtrace, LineIsClosed_WhenAPipeTookItInPart) {
    ASSERT_EQ(0, mkfifo(m_sFile.c_str(), 0600));
    const int nReader = open(m_sFile.c_str(), O_RDONLY | O_NONBLOCK);
    const size_t nCapacity = static_cast<size_t>(kelto_test::CapacityOfPipe(nReader));
    std::string sRead;
    EXPECT_EQ(0, StatusOfChild([&] {
                  Write(std::string(2 * nCapacity, 'x'));  // not blocking: the rest is lost
                  std::string sPart(2 * nCapacity, '-');
                  const ssize_t nRead = read(nReader, &sPart[0], sPart.size());
                  EXPECT_EQ(static_cast<ssize_t>(nCapacity), nRead);
                  EXPECT_EQ('x', sPart[nCapacity - 1]);
                  Write("whole");
              }));
    sRead = ReadAll(nReader);
    close(nReader);
    ASSERT_FALSE(sRead.empty());
    EXPECT_EQ('\n', sRead[0]);
    EXPECT_EQ(1u, sRead.find("20"));  // the date
    EXPECT_EQ(sRead.size() - 8, sRead.find("] whole\n"));
}

TEST_F(Qtrace, LineIsWrittenByAForkedChild_WhileAThreadOfTheParentWrites) {
    int anPipe[2];
    ASSERT_EQ(0, pipe(anPipe));
    EXPECT_EQ(0, StatusOfChild([&] {
                  unsetenv("QTRACE_FILE");
                  dup2(anPipe[1], STDERR_FILENO);
                  const int nCapacity = kelto_test::CapacityOfPipe(anPipe[1]);
                  std::thread writer(
                      [nCapacity] { Write(std::string(static_cast<size_t>(2 * nCapacity), 'x')); });
                  int nFilled = 0;
                  while (nFilled < nCapacity) {  // then the writer waits for room
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                      ASSERT_EQ(0, ioctl(anPipe[0], FIONREAD, &nFilled));
                  }
                  const pid_t grandchild = fork();
                  if (grandchild == 0) {
                      alarm(20);
                      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
                      Write("child");
                      EndProcess(0);
                  }
                  int nStatus = -1;
                  waitpid(grandchild, &nStatus, 0);
                  EXPECT_EQ(0, nStatus);
                  EXPECT_EQ(std::string::npos, ReadLines(anPipe[0], 1).find("child"));
                  writer.join();
              }));
    close(anPipe[0]);
    close(anPipe[1]);
}

void TraceInHandler(int) {
    Write("handler");
}

TEST_F(Qtrace, LineDoesNotWaitForItsOwnThread_WhenASignalHandlerWritesIt) {
    int anPipe[2];
    ASSERT_EQ(0, pipe(anPipe));
    EXPECT_EQ(0, StatusOfChild([&] {
                  unsetenv("QTRACE_FILE");
                  dup2(anPipe[1], STDERR_FILENO);
                  signal(SIGUSR1, TraceInHandler);
                  alarm(20);
                  const int nCapacity = kelto_test::CapacityOfPipe(anPipe[1]);
                  std::thread writer(
                      [nCapacity] { Write(std::string(static_cast<size_t>(2 * nCapacity), 'x')); });
                  int nFilled = 0;
                  while (nFilled < nCapacity) {
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                      ASSERT_EQ(0, ioctl(anPipe[0], FIONREAD, &nFilled));
                  }
                  pthread_kill(writer.native_handle(), SIGUSR1);
                  EXPECT_NE(std::string::npos, ReadLines(anPipe[0], 2).find("handler\n"));
                  writer.join();
              }));
    close(anPipe[0]);
    close(anPipe[1]);
}

// What a file that others chose holds after a line was traced to a name that leads there.
class QtraceLink : public Qtrace {
  protected:
    QtraceLink() : m_sTarget(m_sDir + "/target.txt"), m_sShared(m_sDir + "/shared") {
        std::ofstream(m_sTarget) << "before\n";
        mkdir(m_sShared.c_str(), 0700);
        setenv("QTRACE_FILE", (m_sShared + "/trace.txt").c_str(), 1);
    }
    std::string TargetAfterALine(mode_t aMode) {
        chmod(m_sShared.c_str(), aMode);
        EXPECT_EQ(0, StatusOfChild([] {
                      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
                      Write("text");
                  }));
        m_sFile = m_sTarget;
        return Content();
    }

    const std::string m_sTarget;
    const std::string m_sShared;
};

TEST_F(QtraceLink, FileIsNotOpenedThroughALink_WhenOthersMayWriteToTheDirectory) {
    ASSERT_EQ(0, symlink(m_sTarget.c_str(), (m_sShared + "/trace.txt").c_str()));
    EXPECT_EQ("before\n", TargetAfterALine(01777));
    EXPECT_EQ("before\n", TargetAfterALine(0770));
}

TEST_F(QtraceLink, FileIsNotOpenedByASecondName_WhenOthersMayWriteToTheDirectory) {
    ASSERT_EQ(0, link(m_sTarget.c_str(), (m_sShared + "/trace.txt").c_str()));
    EXPECT_EQ("before\n", TargetAfterALine(01777));
}

TEST_F(QtraceLink, FileIsOpenedThroughALink_WhenTheDirectoryIsOnesOwn) {
    ASSERT_EQ(0, symlink(m_sTarget.c_str(), (m_sShared + "/trace.txt").c_str()));
    EXPECT_LT(7u, TargetAfterALine(0755).size());
}

TEST_F(QtraceLink, FileIsCreated_WhenOthersMayWriteToTheDirectory) {
    EXPECT_EQ("before\n", TargetAfterALine(01777));
    m_sFile = m_sShared + "/trace.txt";
    EXPECT_EQ(Strings{"text"}, Texts());
}

TEST_F(Qtrace, LineNamesTheChild_AfterAFork) {
    EXPECT_EQ(0, StatusOfChild([] {
                  Write("parent");
                  EXPECT_EQ(0, StatusOfChild([] { Write("child"); }));
              }));
    ASSERT_EQ((Strings{"parent", "child"}), Texts());
    EXPECT_GT(Parse(Lines()[0]).process, 0);
    EXPECT_NE(Parse(Lines()[0]).process, Parse(Lines()[1]).process);
}

// ---- Threads

// What a child process writes to a pipe: the numbers of threads, as the system says them.
class Numbers {
  public:
    Numbers() { EXPECT_EQ(0, pipe(m_anPipe)); }
    ~Numbers() {
        close(m_anPipe[0]);
        close(m_anPipe[1]);
    }
    Numbers(const Numbers&) = delete;
    Numbers& operator=(const Numbers&) = delete;

    void Put() {
        const unsigned long long ullNumber = NumberOfThisThread();
        EXPECT_EQ(ssize_t{sizeof(ullNumber)}, write(m_anPipe[1], &ullNumber, sizeof(ullNumber)));
    }
    unsigned long long Next() {
        unsigned long long ullNumber = 0;
        EXPECT_EQ(ssize_t{sizeof(ullNumber)}, read(m_anPipe[0], &ullNumber, sizeof(ullNumber)));
        return ullNumber;
    }

  private:
    int m_anPipe[2];
};

TEST_F(Qtrace, ThreadHasTheNumberThatDebuggersShow) {
    Numbers numbers;
    EXPECT_EQ(0, StatusOfChild([&] {
                  numbers.Put();
                  Write("one");
                  std::thread([&] {
                      numbers.Put();
                      Write("two");
                      Write("three");
                  }).join();
              }));
    ASSERT_EQ((Strings{"one", "two", "three"}), Texts());
    const unsigned long long ullFirst = numbers.Next();
    const unsigned long long ullSecond = numbers.Next();
    EXPECT_NE(ullFirst, ullSecond);
    EXPECT_EQ(ullFirst, Parse(Lines()[0]).thread);
    EXPECT_EQ(ullSecond, Parse(Lines()[1]).thread);
    EXPECT_EQ(ullSecond, Parse(Lines()[2]).thread);
}

TEST_F(Qtrace, ThreadHasItsNewNumber_AfterAFork) {
    Numbers numbers;
    EXPECT_EQ(0, StatusOfChild([&] {
                  numbers.Put();
                  Write("parent");
                  EXPECT_EQ(0, StatusOfChild([&] {
                                numbers.Put();
                                Write("child");
                            }));
                  Write("parent");
              }));
    ASSERT_EQ((Strings{"parent", "child", "parent"}), Texts());
    const unsigned long long ullParent = numbers.Next();
    const unsigned long long ullChild = numbers.Next();
    EXPECT_NE(ullParent, ullChild);
    EXPECT_EQ(ullParent, Parse(Lines()[0]).thread);
    EXPECT_EQ(ullChild, Parse(Lines()[1]).thread);
    EXPECT_EQ(ullParent, Parse(Lines()[2]).thread);
}

TEST_F(Qtrace, ThreadIsNamedInEveryLine_AfterItsNaming) {
    EXPECT_EQ(0, StatusOfChild([] {
                  std::thread([] {
                      Write("one");
                      NameThisThread("net");
                      Write("two");
                      NameThisThread("timers");
                      Write("three");
                  }).join();
                  Write("four");
              }));
    ASSERT_EQ((Strings{"one", "two", "three", "four"}), Texts());
    EXPECT_EQ(" [MAC] one", Parse(Lines()[0]).rest);
    EXPECT_EQ(" thread=net [MAC] two", Parse(Lines()[1]).rest);
    EXPECT_EQ(" thread=timers [MAC] three", Parse(Lines()[2]).rest);
    EXPECT_EQ(" [MAC] four", Parse(Lines()[3]).rest);
}

TEST_F(Qtrace, ThreadNameStaysOneField_WhateverItHolds) {
    EXPECT_EQ(0, StatusOfChild([] {
                  NameThisThread("a b\n[c] d\t=e");
                  Write("text");
              }));
    ASSERT_EQ(1u, Lines().size());
    EXPECT_EQ(" thread=a_b__c__d_=e [MAC] text", Parse(Lines()[0]).rest);
}

TEST_F(Qtrace, ThreadNameAndModuleFit_WhenOfFullLength) {
    const std::string sName(THREAD_NAME_LENGTH_MAX, 'n');
    const std::string sModule(128, 'm');
    EXPECT_EQ(0, StatusOfChild([&] {
                  NameThisThread(sName.c_str());
                  YRKTRACERAWA(2, sModule.c_str(), nullptr, "text");
              }));
    ASSERT_EQ(1u, Lines().size());
    EXPECT_EQ(" thread=" + sName + " [" + sModule + "] text", Parse(Lines()[0]).rest);
}

// ---- Destinations that fail

TEST_F(Qtrace, FallsBackToStandardError_WhenTheFileCannotBeOpened) {
    setenv("QTRACE_FILE", "/nowhere/trace.txt", 1);
    EXPECT_EQ(0, StatusOfChild([this] {
                  const int nFile = open(m_sFile.c_str(), O_WRONLY | O_CREAT, 0666);
                  dup2(nFile, STDERR_FILENO);
                  Write("text");
              }));
    EXPECT_EQ(Strings{"text"}, Texts());
}

TEST_F(Qtrace, GoesOn_WhenTheDiskIsFull) {
    setenv("QTRACE_FILE", "/dev/full", 1);
    EXPECT_EQ(0, StatusOfChild([] {
                  errno = ENOENT;
                  Write("text");
                  WriteInPieces(std::string(5000, 'x'));
                  EXPECT_EQ(ENOENT, errno);
              }));
}

TEST_F(Qtrace, GoesOn_WhenTheFileHasVanished) {
    EXPECT_EQ(0, StatusOfChild([this] {
                  Write("one");
                  std::filesystem::remove_all(m_sDir);
                  Write("two");
              }));
}

TEST_F(Qtrace, RaisesNoSignal_WhenThePipeIsClosed) {
    unsetenv("QTRACE_FILE");
    EXPECT_EQ(0, StatusOfChild([] {
                  int anPipe[2];
                  ASSERT_EQ(0, pipe(anPipe));
                  dup2(anPipe[1], STDERR_FILENO);
                  close(anPipe[0]);
                  close(anPipe[1]);
                  signal(SIGPIPE, SIG_DFL);
                  Write("text");
                  sigset_t pending;
                  sigpending(&pending);
                  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
                  sigset_t mask;
                  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                  EXPECT_EQ(0, sigismember(&mask, SIGPIPE));
              }));
}

TEST_F(Qtrace, KeepsASignalPending_WhenThePipeIsClosed) {
    unsetenv("QTRACE_FILE");
    EXPECT_EQ(0, StatusOfChild([] {
                  int anPipe[2];
                  ASSERT_EQ(0, pipe(anPipe));
                  dup2(anPipe[1], STDERR_FILENO);
                  close(anPipe[0]);
                  close(anPipe[1]);
                  sigset_t set;
                  sigemptyset(&set);
                  sigaddset(&set, SIGPIPE);
                  pthread_sigmask(SIG_BLOCK, &set, nullptr);
                  raise(SIGPIPE);
                  Write("text");
                  sigset_t pending;
                  sigpending(&pending);
                  EXPECT_EQ(1, sigismember(&pending, SIGPIPE));
              }));
}

TEST_F(Qtrace, RaisesNoSignalAndStartsTheNextLineAfresh_WhenTheFileIsAtItsSizeLimit) {
    EXPECT_EQ(0, StatusOfChild([] {
                  rlimit limit = {};
                  getrlimit(RLIMIT_FSIZE, &limit);
                  const rlim_t before = limit.rlim_cur;
                  limit.rlim_cur = 100;
                  setrlimit(RLIMIT_FSIZE, &limit);
                  Write(std::string(500, 'x'));
                  Write("lost");
                  limit.rlim_cur = before;
                  setrlimit(RLIMIT_FSIZE, &limit);
                  Write("whole");
              }));
    ASSERT_EQ(2u, Lines().size());
    EXPECT_EQ(100u, Lines()[0].size());
    EXPECT_EQ("whole", Texts()[1]);
}

TEST_F(Qtrace, StartsItsFirstLineAfresh_WhenTheFileEndsWithinALine) {
    std::ofstream(m_sFile) << "2026-11-22 09:30:00.000 pid=1 tid=1 [MAC] to";
    const timespec longAgo[] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, m_sFile.c_str(), longAgo, 0));
    EXPECT_EQ(0, StatusOfChild([] {
                  Write("one");
                  Write("two");
              }));
    ASSERT_EQ(3u, Lines().size());
    EXPECT_EQ((Strings{"to", "one", "two"}), Texts());
}

TEST_F(Qtrace, DoesNotBlock_WhenThePipeIsFull) {
    ASSERT_EQ(0, mkfifo(m_sFile.c_str(), 0600));
    const int nReader = open(m_sFile.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(0, StatusOfChild([] {
                  for (int i = 0; i < 100; ++i) {
                      Write(std::string(2000, 'x'));
                  }
              }));
    close(nReader);
}

TEST_F(Qtrace, DoesNotBlock_WhenThePipeHasNoReader) {
    ASSERT_EQ(0, mkfifo(m_sFile.c_str(), 0600));
    EXPECT_EQ(0, StatusOfChild([] {
                  dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
                  Write("text");
              }));
}

TEST_F(Qtrace, FileStaysOffTheStandardStreams) {
    EXPECT_EQ(0, StatusOfChild([] {
                  close(STDERR_FILENO);
                  Write("text");
                  EXPECT_EQ(-1, fcntl(STDERR_FILENO, F_GETFD));
              }));
    EXPECT_EQ(Strings{"text"}, Texts());
}

TEST_F(Qtrace, LineIsWritten_BeforeItsThreadIsCancelled) {
    EXPECT_EQ(0, StatusOfChild([] {
                  pthread_t thread;
                  ASSERT_EQ(0, pthread_create(
                                   &thread, nullptr,
                                   [](void*) -> void* {
                                       pthread_cancel(pthread_self());
                                       Write("text");
                                       pthread_testcancel();
                                       return nullptr;
                                   },
                                   nullptr));
                  void* pResult = nullptr;
                  pthread_join(thread, &pResult);
                  EXPECT_EQ(PTHREAD_CANCELED, pResult);
              }));
    EXPECT_EQ(Strings{"text"}, Texts());
}

}  // namespace
