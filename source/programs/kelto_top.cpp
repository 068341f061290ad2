// kelto-top: what the workers of a running process do, from its flight recorder's file.
#include <getopt.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmFlightReader.h"
#include "CmProgramText.h"
#include "CmRecordings.h"
#include "CmTopReading.h"
#include "CmTopScreen.h"
#include "CmTopTable.h"

namespace {

using namespace UTIL_NS;

constexpr char HELP[] = R"(kelto-top: what the workers of a running process do

Usage: kelto-top [OPTION...] [PID|NAME|FILE]
Without an argument the process of this user that was recorded last. A FILE has a "/" in it and may
be of a process that has ended.

  --once             print a table once; so it is without a terminal
  --json             print JSON, an object in a line for each reading
  --sort COLUMN      begin with the highest of this column (default busy)
  --interval SECONDS time between two readings, 0.5 to 3600 (default 1); with --once also 0: at once,
                     but without what is counted by time
  --directory DIR    where recordings lie, if not in this user's runtime directory
  --help, --version

Keys: q quit, h help, i reverse the order, space read at once, and those of the columns:
)";

constexpr char MORE_HELP[] = R"(
Figures are as the process wrote them last, four times a second. Columns that do not fit are left out.
Exit status: 0; 1 with a line on standard error when there is no such process or its file is damaged;
2 for wrong arguments.
)";

constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t LEAST_INTERVAL = USEC_PER_SEC / 2;  // a process writes its figures in less
constexpr int64_t MOST_INTERVAL = 3600 * USEC_PER_SEC;
constexpr size_t COLUMNS_WITHOUT_TERMINAL = 132;
constexpr size_t ALL_ROWS = SIZE_MAX;

enum EOption { ONCE = 256, JSON, SORT, INTERVAL, DIRECTORY, HELP_TEXT, VERSION };

const option OPTIONS[] = {{"once", no_argument, nullptr, ONCE},
                          {"json", no_argument, nullptr, JSON},
                          {"sort", required_argument, nullptr, SORT},
                          {"interval", required_argument, nullptr, INTERVAL},
                          {"directory", required_argument, nullptr, DIRECTORY},
                          {"help", no_argument, nullptr, HELP_TEXT},
                          {"version", no_argument, nullptr, VERSION},
                          {nullptr, 0, nullptr, 0}};

struct CArguments {
    std::string process;
    std::string directory;
    bool isOnce = false;
    bool isJson = false;
    int64_t intervalUsec = USEC_PER_SEC;
    CCmTopOrder order;
};

int Complain(const std::string& aWhat, int aStatus) {
    std::fprintf(stderr, "kelto-top: %s\n", aWhat.c_str());
    return aStatus;
}

int Misused(const std::string& aWhat) {
    return Complain(aWhat + "; --help tells more", 2);
}

int Say(const std::string& aText) {
    return CmPutOut(aText) ? 0 : Complain("standard output: cannot be written", 1);
}

std::string Described(const CCmRecording& aFile) {
    return CmPrintable(aFile.process) + " " + std::to_string(aFile.pid);
}

// The file of the process that was asked for; several: of the one that began last, and says so.
bool FindFile(const CArguments& aArguments, std::string* aPath, std::string* aError) {
    if (aArguments.process.find('/') != std::string::npos) {
        *aPath = aArguments.process;
        return true;
    }
    std::vector<CCmRecording> files;
    if (!CmListRecordings(aArguments.directory, &files, aError)) {
        return false;
    }
    std::vector<const CCmRecording*> found;
    for (const CCmRecording& file : files) {
        if (file.isLive && (aArguments.process.empty() || aArguments.process == file.process ||
                            aArguments.process == std::to_string(file.pid))) {
            found.push_back(&file);
        }
    }
    if (found.empty()) {
        *aError =
            aArguments.process.empty()
                ? "no process of this user is recorded now in " + CmPrintable(aArguments.directory)
                : "no process '" + CmPrintable(aArguments.process) + "' is recorded now in " +
                      CmPrintable(aArguments.directory);
        return false;
    }
    *aPath = found.front()->path;
    if (found.size() > 1) {
        std::string strOthers;
        for (size_t i = 1; i < found.size(); ++i) {
            strOthers += (i > 1 ? ", " : "") + Described(*found[i]);
        }
        Complain("this is " + Described(*found.front()) + "; there are also " + strOthers, 0);
    }
    return true;
}

// Reads a file again and again.
class CTop {
  public:
    CTop(CCmFlightReader& aReader, const CArguments& aArguments)
        : m_Reader(aReader), m_Arguments(aArguments) {}

    // With the rates since the reading before.
    bool Read() {
        CCmTopReading before;
        std::swap(before, m_Reading);
        const bool bGood =
            (m_bRead ? m_Reader.Read() : true) && CmReadFigures(m_Reader, &m_Reading);
        CmRateWorkers(before, &m_Reading);
        m_bRead = true;
        return bGood;
    }

    bool IsLive() const { return m_Reading.state == ECmTopState::LIVE; }

    int Once() {
        if (!Read()) {
            return Complain(m_Reader.Error(), 1);
        }
        if (m_Arguments.intervalUsec > 0 && IsLive()) {
            Sleep();
            if (!Read()) {
                return Complain(m_Reader.Error(), 1);
            }
        }
        return Print();
    }

    int Stream() {
        do {
            if (!Read()) {
                return Complain(m_Reader.Error(), 1);
            }
            if (Print() != 0) {
                return 1;
            }
            if (IsLive()) {
                Sleep();
            }
        } while (IsLive());
        return 0;
    }

    int Watch() {
        CCmTopOrder order = m_Arguments.order;
        CCmTopScreen screen;
        bool bHelp = false;
        bool bRead = true;
        int64_t llNext = 0;
        while (true) {
            if (bRead) {
                if (!Read()) {
                    return 1;
                }
                llNext = Monotonic() + m_Arguments.intervalUsec;
            }
            if (!screen.Show(bHelp ? HelpText(screen) : Table(screen, order))) {
                return 1;
            }
            char ch = 0;
            const CCmTopScreen::EWhat eWhat = screen.Wait(llNext - Monotonic(), &ch);
            bRead = eWhat == CCmTopScreen::EWhat::TIME;
            if (eWhat == CCmTopScreen::EWhat::END ||
                (eWhat == CCmTopScreen::EWhat::KEY && ch == 'q')) {
                return 0;
            }
            if (eWhat == CCmTopScreen::EWhat::KEY) {
                bHelp = !bHelp && (ch == 'h' || ch == '?');
                bRead = ch == ' ';
                order.isReversed = order.isReversed != (ch == 'i');
                size_t nColumn = 0;
                if (CmTopColumnOfKey(ch, &nColumn)) {
                    order.column = nColumn;
                }
            }
        }
    }

    const std::string& Error() const { return m_Reader.Error(); }

  private:
    static int64_t Monotonic() {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void Sleep() const {
        std::this_thread::sleep_for(std::chrono::microseconds(m_Arguments.intervalUsec));
    }

    static size_t Columns() {
        winsize size = {};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
            return size.ws_col;
        }
        return COLUMNS_WITHOUT_TERMINAL;
    }

    int Print() const {
        return Say(m_Arguments.isJson
                       ? CmTopJson(m_Reading, m_Arguments.order) + "\n"
                       : CmTopTable(m_Reading, m_Arguments.order, Columns(), ALL_ROWS, false));
    }

    std::string Table(const CCmTopScreen& aScreen, const CCmTopOrder& aOrder) const {
        return CmTopTable(m_Reading, aOrder, aScreen.Columns(), aScreen.Rows(), true);
    }

    static std::string HelpText(const CCmTopScreen& aScreen) {
        const std::string strHelp =
            "q quit, h help, i reverse the order, space read at once\n" + CmTopColumnHelp();
        std::string strLines;
        size_t nRows = 0;
        for (size_t n = 0; n < strHelp.size() && nRows < aScreen.Rows(); ++nRows) {
            const size_t nEnd = strHelp.find('\n', n);
            strLines += CmCut(strHelp.substr(n, nEnd - n), aScreen.Columns()) + "\n";
            n = nEnd + 1;
        }
        return strLines;
    }

    CCmFlightReader& m_Reader;
    const CArguments& m_Arguments;
    CCmTopReading m_Reading;
    bool m_bRead = false;
};

int Show(const CArguments& aArguments) {
    std::string strPath;
    std::string strError;
    if (!FindFile(aArguments, &strPath, &strError)) {
        return Complain(strError, 1);
    }
    CCmFlightReader reader;
    if (!reader.Open(strPath)) {
        return Complain(reader.Error(), 1);
    }
    CTop top(reader, aArguments);
    if (aArguments.isOnce || (!aArguments.isJson && !CCmTopScreen::IsThere())) {
        return top.Once();
    }
    if (aArguments.isJson) {
        return top.Stream();
    }
    const int nStatus = top.Watch();
    // As a process ends that the signal ends.
    if (CCmTopScreen::Signal() != 0) {
        signal(CCmTopScreen::Signal(), SIG_DFL);
        kill(getpid(), CCmTopScreen::Signal());
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
    return nStatus == 0 ? 0 : Complain(top.Error(), 1);
}

int Run(int aCount, char** aValues) {
    CArguments arguments;
    arguments.directory = CmRecordingDirectory();
    int nIndex = 0;
    for (int nOption = 0; (nOption = getopt_long(aCount, aValues, "", OPTIONS, &nIndex)) != -1;) {
        // As of a variable that a script has not set.
        if (nOption != '?' && OPTIONS[nIndex].has_arg == required_argument && *optarg == '\0') {
            return Misused(std::string("--") + OPTIONS[nIndex].name + " is empty");
        }
        switch (nOption) {
            case ONCE:
                arguments.isOnce = true;
                break;
            case JSON:
                arguments.isJson = true;
                break;
            case SORT:
                if (!CmTopColumnOf(optarg, &arguments.order.column)) {
                    return Misused("'" + CmPrintable(optarg) + "' is no column; there are " +
                                   CmTopColumnNames());
                }
                break;
            case INTERVAL:
                if (!CmReadSeconds(optarg, &arguments.intervalUsec) ||
                    arguments.intervalUsec > MOST_INTERVAL) {
                    return Misused("'" + CmPrintable(optarg) + "' is no interval");
                }
                break;
            case DIRECTORY:
                arguments.directory = optarg;
                break;
            case HELP_TEXT:
                return Say(HELP + CmTopColumnHelp() + MORE_HELP);
            case VERSION:
                return Say("kelto-top " KELTO_PROGRAM_VERSION "\n");
            default:
                return 2;
        }
    }
    if (arguments.intervalUsec < LEAST_INTERVAL &&
        !(arguments.isOnce && arguments.intervalUsec == 0)) {
        return Misused("the interval is too short");
    }
    if (aCount - optind > 1) {
        return Misused("there is more than one process");
    }
    if (optind < aCount) {
        arguments.process = aValues[optind];
        if (arguments.process.empty()) {
            return Misused("the name of the process is empty");
        }
    }
    return Show(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Complain(e.what(), 1);
    }
}
