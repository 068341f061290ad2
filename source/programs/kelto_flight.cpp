// kelto-flight: what the threads of a process did last, from its flight recorder's file.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "CmFlightOutput.h"
#include "CmFlightReader.h"
#include "CmFlightRecords.h"
#include "CmProgramText.h"
#include "CmRecordings.h"

namespace {

using namespace UTIL_NS;

constexpr char HELP[] =
    R"(kelto-flight: what the threads of a process did last, from its flight recorder's file

Usage: kelto-flight [OPTION...] [FILE]
Without FILE the newest recording of this user. Its records are printed, a line each, by time.

  --thread NAME|NUMBER  of this thread alone; may be given several times
  --kind KIND           of this kind alone: begin, post, event, timer, send, running, high-water,
                        step, line or end; may be given several times
  --from TIME, --to TIME
                        not what ended before or began after: [YYYY-MM-DD ]HH:MM[:SS[.FRACTION]] in
                        local time, or @SECONDS since 1970
  --last SECONDS        the last ones of the recording
  --threads             print the threads instead
  --json OUT            write trace-event JSON for timeline viewers instead; -: standard output
  --svg OUT             write a picture instead
  --list                print the recordings of this user instead: process, number, begin, state, file
  --directory DIR       where recordings lie, if not in this user's runtime directory
  --help, --version

Exit status: 0; 1 with a line on standard error when there is no recording, or it is damaged (what
could be read of it is printed all the same), or the output cannot be written; 2 for wrong arguments.
)";

enum EOption {
    THREAD = 256,
    KIND,
    FROM,
    TO,
    LAST,
    THREADS,
    JSON,
    SVG,
    LIST,
    DIRECTORY,
    HELP_TEXT,
    VERSION
};

const option OPTIONS[] = {{"thread", required_argument, nullptr, THREAD},
                          {"kind", required_argument, nullptr, KIND},
                          {"from", required_argument, nullptr, FROM},
                          {"to", required_argument, nullptr, TO},
                          {"last", required_argument, nullptr, LAST},
                          {"threads", no_argument, nullptr, THREADS},
                          {"json", required_argument, nullptr, JSON},
                          {"svg", required_argument, nullptr, SVG},
                          {"list", no_argument, nullptr, LIST},
                          {"directory", required_argument, nullptr, DIRECTORY},
                          {"help", no_argument, nullptr, HELP_TEXT},
                          {"version", no_argument, nullptr, VERSION},
                          {nullptr, 0, nullptr, 0}};

struct CArguments {
    std::string file;
    std::string directory;
    std::string from;
    std::string to;
    std::string last;
    std::string json;
    std::string svg;
    bool isThreads = false;
    bool isList = false;
    CCmFlightFilter filter;
};

int Complain(const std::string& aWhat, int aStatus) {
    std::fprintf(stderr, "kelto-flight: %s\n", aWhat.c_str());
    return aStatus;
}

int Misused(const std::string& aWhat) {
    return Complain(aWhat + "; --help tells more", 2);
}

int Say(const std::string& aText) {
    return CmPutOut(aText) ? 0 : Complain("standard output: cannot be written", 1);
}

// What text goes to; standard output, or a file that is made.
class COutput final : public ICmTextSink {
  public:
    explicit COutput(const std::string& aPath)
        : m_strPath(aPath),
          m_pFile(aPath == "-" ? stdout : std::fopen(aPath.c_str(), "we")),
          m_nError(errno) {}
    COutput(const COutput&) = delete;
    COutput& operator=(const COutput&) = delete;

    void Put(std::string_view aText) override {
        if (m_pFile != nullptr) {
            std::fwrite(aText.data(), 1, aText.size(), m_pFile);
        }
    }

    // Empty, or why something is missing.
    std::string End() {
        if (m_pFile == nullptr) {
            return CmPrintable(m_strPath) + ": " + std::strerror(m_nError);
        }
        const bool bBad = std::ferror(m_pFile) != 0;
        const bool bEnd = m_pFile == stdout ? std::fflush(stdout) == 0 : std::fclose(m_pFile) == 0;
        return bBad || !bEnd ? CmPrintable(m_strPath) + ": cannot be written" : "";
    }

  private:
    const std::string m_strPath;
    std::FILE* const m_pFile;
    const int m_nError;  // where there is no file
};

int List(const std::string& aDirectory) {
    std::vector<CCmRecording> files;
    std::string strError;
    if (!CmListRecordings(aDirectory, &files, &strError)) {
        return Complain(strError, 1);
    }
    std::string strList;
    for (const CCmRecording& file : files) {
        strList += CmPrintable(file.process) + " " + std::to_string(file.pid) + " " +
                   CmTimeText(file.startUsec) + (file.isLive ? " runs " : " over ") +
                   CmPrintable(file.path) + "\n";
    }
    return Say(strList);
}

// Fills in the file where none is given. False: there is none, as aError says.
bool FindFile(CArguments* aArguments, std::string* aError) {
    if (!aArguments->file.empty()) {
        return true;
    }
    std::vector<CCmRecording> files;
    if (!CmListRecordings(aArguments->directory, &files, aError)) {
        return false;
    }
    if (files.empty()) {
        *aError = CmPrintable(aArguments->directory) + ": there is no recording";
        return false;
    }
    aArguments->file = files.front().path;
    return true;
}

// Times that were given, which may be of the day of the last record. Empty: they are right.
std::string ReadTimes(const CArguments& aArguments, int64_t aLastUsec, CCmFlightFilter* aFilter) {
    if (!aArguments.from.empty() && !CmReadTime(aArguments.from, aLastUsec, &aFilter->fromUsec)) {
        return "'" + CmPrintable(aArguments.from) + "' is no time";
    }
    if (!aArguments.to.empty() && !CmReadTime(aArguments.to, aLastUsec, &aFilter->toUsec)) {
        return "'" + CmPrintable(aArguments.to) + "' is no time";
    }
    int64_t llLast = 0;
    if (!aArguments.last.empty() && !CmReadSeconds(aArguments.last, &llLast)) {
        return "'" + CmPrintable(aArguments.last) + "' are no seconds";
    }
    if (!aArguments.last.empty()) {
        aFilter->fromUsec = aLastUsec - llLast;
    }
    return "";
}

typedef void (*Printer)(CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
                        ICmTextSink& aSink);

int Print(Printer aPrinter, CCmFlightReader& aReader, const CCmFlightRecords& aRecords,
          const std::string& aPath) {
    COutput output(aPath);
    aPrinter(aReader, aRecords, output);
    const std::string strError = output.End();
    return strError.empty() ? 0 : Complain(strError, 1);
}

int Show(CArguments& aArguments) {
    std::string strError;
    if (!FindFile(&aArguments, &strError)) {
        return Complain(strError, 1);
    }
    CCmFlightReader reader;
    if (!reader.Open(aArguments.file)) {
        return Complain(reader.Error(), 1);
    }
    CCmFlightRecords records = CmReadRecords(reader);
    strError = ReadTimes(aArguments, records.lastUsec, &aArguments.filter);
    if (!strError.empty()) {
        return Misused(strError);
    }
    CmFilterRecords(aArguments.filter, &records);
    int nStatus = 0;
    if (!aArguments.json.empty()) {
        nStatus |= Print(CmPrintTimeline, reader, records, aArguments.json);
    }
    if (!aArguments.svg.empty()) {
        nStatus |= Print(CmPrintPicture, reader, records, aArguments.svg);
    }
    if (aArguments.json.empty() && aArguments.svg.empty()) {
        nStatus |=
            Print(aArguments.isThreads ? CmPrintThreads : CmPrintRecords, reader, records, "-");
    }
    return records.error.empty() ? nStatus : Complain(records.error, 1);
}

// Where the file to read stands for the one to write, it would be lost.
bool IsCalledLikeRecording(const std::string& aPath) {
    const std::string strSuffix = CM_FLIGHT_SUFFIX;
    return aPath.size() >= strSuffix.size() &&
           aPath.compare(aPath.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0;
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
        ECmRecord eKind = ECmRecord::EVENT;
        switch (nOption) {
            case THREAD:
                arguments.filter.threads.emplace_back(optarg);
                break;
            case KIND:
                if (!CmRecordOf(optarg, &eKind)) {
                    return Misused("'" + CmPrintable(optarg) + "' is no kind");
                }
                arguments.filter.kinds.push_back(eKind);
                break;
            case FROM:
                arguments.from = optarg;
                break;
            case TO:
                arguments.to = optarg;
                break;
            case LAST:
                arguments.last = optarg;
                break;
            case THREADS:
                arguments.isThreads = true;
                break;
            case JSON:
                arguments.json = optarg;
                break;
            case SVG:
                arguments.svg = optarg;
                break;
            case LIST:
                arguments.isList = true;
                break;
            case DIRECTORY:
                arguments.directory = optarg;
                break;
            case HELP_TEXT:
                return Say(HELP);
            case VERSION:
                return Say("kelto-flight " KELTO_PROGRAM_VERSION "\n");
            default:
                return 2;
        }
    }
    if (aCount - optind > 1) {
        return Misused("there is more than one file");
    }
    if (optind < aCount) {
        arguments.file = aValues[optind];
        if (arguments.file.empty()) {
            return Misused("the name of the file is empty");
        }
    }
    for (const std::string& strOut : {arguments.json, arguments.svg}) {
        if (IsCalledLikeRecording(strOut)) {
            return Misused("'" + CmPrintable(strOut) + "' is called like a recording");
        }
    }
    if (!arguments.json.empty() && arguments.json == arguments.svg) {
        return Misused("'" + CmPrintable(arguments.json) + "' is to have both");
    }
    return arguments.isList ? List(arguments.directory) : Show(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        return Complain(e.what(), 1);
    }
}
