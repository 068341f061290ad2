// The way of a trace line through the shared libraries, in host programs of their own.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

Lines LinesOf(std::istream& aStream) {
    Lines lines;
    for (std::string sLine; std::getline(aStream, sLine);) {
        lines.push_back(sLine);
    }
    return lines;
}

class TraceEndToEnd : public testing::Test {
  protected:
    TraceEndToEnd() {
        char szHome[] = "/tmp/eXXXXXX";
        m_sHome = mkdtemp(szHome);
        std::filesystem::create_directory(m_sHome + "/conf");
    }
    ~TraceEndToEnd() override { std::filesystem::remove_all(m_sHome); }

    void WriteConfig(const std::string& aContent) {
        std::ofstream(m_sHome + "/conf/kelto.cfg") << aContent;
    }
    // Runs aHost with the variables in front, and returns what it printed.
    Lines Run(const std::string& aVariables, const std::string& aHost) {
        const std::string sOutput = m_sHome + "/output";
        const std::string sCommand =
            aVariables + " " KELTO_RUN_PREFIX " '" + aHost + "' " + m_sHome + "/ >" + sOutput;
        EXPECT_EQ(0, std::system(sCommand.c_str()));
        std::ifstream output(sOutput);
        return LinesOf(output);
    }
    // What the stand-in wrote, from the module on.
    Lines RunWithFile(const std::string& aVariables = "") {
        const std::string sFile = m_sHome + "/trace.txt";
        EXPECT_EQ(Lines{}, Run(aVariables + " QTRACE_FILE=" + sFile, TRACE_HOST));
        std::ifstream file(sFile);
        Lines lines = LinesOf(file);
        for (std::string& sLine : lines) {
            sLine.erase(0, sLine.find('['));
        }
        return lines;
    }

    std::string m_sHome;
};

const std::string LONG_LINE = "[net] " + std::string(5000, 'x');

TEST_F(TraceEndToEnd, LinesReachTheFile_WithoutAnySetting) {
    EXPECT_EQ((Lines{"[MAC] UTIL ERROR: error line", "[MAC] UTIL WARNING: warning line",
                     "[MAC] UTIL INFO: info line, 100%s",
                     "[MAC] UTIL ERROR: TraceHost.cpp:7 Assert failed: bFine", LONG_LINE,
                     "[media] rate=48000"}),
              RunWithFile());
}

// The process is named "T", the first character of its file.
TEST_F(TraceEndToEnd, LinesAreFilteredByTheConfiguration) {
    WriteConfig("[Trace]\nT.Info=FALSE\nT.Warning=FALSE\nT.Detail=TRUE\n");
    EXPECT_EQ((Lines{"[MAC] UTIL ERROR: error line", "[MAC] UTIL detail line",
                     "[MAC] UTIL ERROR: TraceHost.cpp:7 Assert failed: bFine", LONG_LINE,
                     "[media] rate=48000"}),
              RunWithFile());
}

TEST_F(TraceEndToEnd, LinesAreSilenced_WhenEnableIsFalse) {
    WriteConfig("[Trace]\nEnable=FALSE\n");
    EXPECT_EQ((Lines{LONG_LINE, "[media] rate=48000"}), RunWithFile());
}

TEST_F(TraceEndToEnd, LinesAreNotDelivered_WhenBelowTheThreshold) {
    EXPECT_EQ(Lines{"[media] rate=48000"}, RunWithFile("QTRACE_LEVEL=3"));
}

TEST_F(TraceEndToEnd, HostCreatesTheTraceDirectory) {
    RunWithFile();
    EXPECT_TRUE(std::filesystem::is_directory(m_sHome + "/logs"));
}

const Lines LINES_OF_THE_HOST = {"2 MAC UTIL ERROR: error line",
                                 "2 MAC UTIL WARNING: warning line",
                                 "2 MAC UTIL INFO: info line, 100%s",
                                 "2 MAC UTIL ERROR: TraceHost.cpp:7 Assert failed: bFine",
                                 "2 net piece 2047",
                                 "2 net piece 2047",
                                 "2 net piece 906",
                                 "9 media rate=48000"};

TEST_F(TraceEndToEnd, LinesReachTheTraceLibrary_WhenTheHostBringsItsOwn) {
    EXPECT_EQ(LINES_OF_THE_HOST, Run("", TRACE_HOST_WITH_OTHER_LIBRARY));
}

TEST_F(TraceEndToEnd, LinesReachFunctionsOfTheHost_WhenTheyAreExported) {
#if !defined(__APPLE__)  // there a library is bound to the one that it names, not to the program
    EXPECT_EQ(LINES_OF_THE_HOST, Run("", TRACE_HOST_WITH_OWN_FUNCTIONS));
#endif
    const std::string sFile = m_sHome + "/trace.txt";
    EXPECT_EQ(Lines{}, Run("QTRACE_FILE=" + sFile, TRACE_HOST_WITH_HIDDEN_FUNCTIONS));
    std::ifstream file(sFile);
    EXPECT_EQ(6u, LinesOf(file).size());
}

}  // namespace
