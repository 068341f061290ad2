#include "Options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CmConfig.h"
#include "CmStrict.h"
#include "CmT120Trace.h"
#include "Text.h"

namespace rtp_monitor {

const char CONFIG_SECTION[] = "RtpMonitor";

const char HELP_TEXT[] =
    R"(rtp_monitor: shows what the RTP streams of a capture or of a UDP port do

Usage:
  rtp_monitor [OPTION...] CAPTURE               a pcap or pcapng file; -: standard input
  rtp_monitor [OPTION...] udp://ADDRESS:PORT... local addresses to receive on, or multicast groups
                                                (udp://GROUP:PORT?interface=NAME), which are joined

Options:
  --fast              replay a capture as fast as it can be read, not at its own pace
  --json              print JSON instead of tables: an object at the end; with --interval also one
                      for each interval, where the input has no known end; one a line
  --plot FILE         draw loss, jitter and bit rate of each stream over time into an SVG file
  --sort ORDER        which streams a table begins with: worst (default), loss, jitter, rate, gap,
                      packets, or address
  --workers N         threads that look after streams, 1 to 64 (default 2)
  --interval MS       time between two tables in milliseconds, 100 or more (default 1000)
  --streams N         streams looked after at a time, 1 to 1000000 (default 10000); the one not
                      heard for longest gives its place to a new one, and is counted
  --buffer SIZE       what the system is asked to keep for each socket (default 4MiB, at most 1GiB)
  --clock TYPE=HZ[/NAME], --clock TYPE=NAME
                      clock rate, and name, of a dynamic payload type; jitter is shown only for
                      streams whose clock rate is known. The rate of opus, AV1, H264, H265, VP8 and
                      VP9 need not be given. May be given several times.
  --level LEVEL       write trace lines of the monitor up to error, warning or info (default info)
  --trace FILE        where trace lines go (default: $QTRACE_FILE, else rtp_monitor/rtp_monitor.log
                      in $XDG_STATE_HOME, in ~/.local/state without it; on a Mac ~/Library/Logs)
  --watch             let kelto-top show what the threads do, and record what they did last for
                      kelto-flight, which also reads it when the run was killed; trace lines tell
                      of slow batches and timers in full
  --home DIR          home directory of the configuration file conf/kelto.cfg, at most 15
                      characters with the last / (default /tmp/)
  -h, --help          this text
  --version           the versions of the monitor and of the library
A value may also follow after "=": --sort=loss. After "--" come inputs alone.

Settings are read from section RtpMonitor of conf/kelto.cfg (keys Workers, Interval, Streams,
Buffer, Sort, Level, and Clock.TYPE for each payload type); options override them. Section Trace of
the same file says what the library itself traces. A value there that makes no sense ends the run; a
key of section RtpMonitor that means nothing is named on standard error.

Columns: packets and bytes (of payload) that arrived; lost, of those expected by sequence number,
and their share; here, dropped by the monitor's own socket; dup, arrived again; order, arrived out
of order; late, arrived more than 100 packets late; stray, belonged nowhere; new, how often it began
anew; jitter as in RFC 3550, in milliseconds; kbit/s over the whole stream and over the last
interval (not with --fast); the longest gap between two packets.
Where the terminal is too narrow, these fall away, in this order, until a line fits: bytes, order,
dup, late, stray, new, gap, lost, now, here, ssrc, kbit/s, ended, type, packets, jitter; addresses
are shortened before "ended" falls away.
A stream of which no two packets with consecutive numbers have come is doubtful and has a "?" after
its type. One not heard for 5 seconds is marked as ended, and after 30 only counted, until the last
table. RTCP, other UDP packets and frames without UDP are counted and otherwise left alone.
On a terminal, unless TERM is dumb, tables replace each other and the last one stays; loss of more
than 1 % and jitter of more than 30 ms are red, unless NO_COLOR is set.

Ctrl-C ends a run in order: what was received is shown in a last table, which says so when it is
partial.
Exit code: 0; or 2 with one sentence on standard error when something was wrong with the arguments
or the input, or when results could not be written. What was read before is shown all the same.
)";

namespace {

using UTIL_NS::CmParseNumber;

constexpr unsigned int MAX_WORKERS = 64;
constexpr unsigned int MIN_INTERVAL_MS = 100;
constexpr unsigned int MAX_INTERVAL_MS = 3600000;
constexpr unsigned int MAX_STREAMS = 1000000;
constexpr uint64_t MAX_BUFFER = 1ULL << 30;
constexpr unsigned int MAX_PAYLOAD_TYPE = 127;

bool ParseLevel(std::string_view aText, unsigned long* aLevel) {
    if (aText == "error") {
        *aLevel = UTIL_NS::CM_TRACE_LEVEL_ERROR;
    } else if (aText == "warning") {
        *aLevel = UTIL_NS::CM_TRACE_LEVEL_WARNING;
    } else if (aText == "info") {
        *aLevel = UTIL_NS::CM_TRACE_LEVEL_INFO;
    } else {
        return false;
    }
    return true;
}

bool ParseClock(const std::string& aText, COptions* aOptions) {
    const size_t nEqual = aText.find('=');
    unsigned int dwType = 0;
    return nEqual != std::string::npos &&
           CmParseNumber(aText.substr(0, nEqual), dwType, 0U, MAX_PAYLOAD_TYPE) &&
           ParseEncoding(aText.substr(nEqual + 1), static_cast<uint8_t>(dwType),
                         &aOptions->clockRates, &aOptions->payloadNames);
}

bool SetHome(std::string aHome) {
    if (!aHome.empty() && aHome.back() != '/') {
        aHome += '/';
    }
    if (aHome.empty() || aHome.size() >= sizeof(UTIL_NS::g_def_kelto_home_dir)) {
        return false;
    }
    std::strcpy(UTIL_NS::g_def_kelto_home_dir, aHome.c_str());
    return true;
}

// Values that are absent leave the default.
void ReadConfiguration(UTIL_NS::CCmConfigReader* aConfig, COptions* aOptions) {
    aConfig->ReadMain();
    aConfig->GetNumber(CONFIG_SECTION, "Workers", aOptions->workers, 1U, MAX_WORKERS);
    aConfig->GetNumber(CONFIG_SECTION, "Interval", aOptions->intervalMs, MIN_INTERVAL_MS,
                       MAX_INTERVAL_MS);
    aConfig->GetNumber(CONFIG_SECTION, "Streams", aOptions->streams, 1U, MAX_STREAMS);
    aConfig->GetSize(CONFIG_SECTION, "Buffer", aOptions->receiveBuffer, 1, MAX_BUFFER);
    std::string_view value;
    if (aConfig->GetText(CONFIG_SECTION, "Sort", value) == UTIL_NS::CM_OK &&
        !ParseSort(value, &aOptions->sort)) {
        aConfig->Refuse(CONFIG_SECTION, "Sort", SORT_NAMES);
    }
    if (aConfig->GetText(CONFIG_SECTION, "Level", value) == UTIL_NS::CM_OK &&
        !ParseLevel(value, &aOptions->traceLevel)) {
        aConfig->Refuse(CONFIG_SECTION, "Level", "error, warning or info");
    }
    for (unsigned int dwType = 0; dwType <= MAX_PAYLOAD_TYPE; ++dwType) {
        const std::string sKey = "Clock." + std::to_string(dwType);
        if (aConfig->GetText(CONFIG_SECTION, sKey, value) == UTIL_NS::CM_OK &&
            !ParseEncoding(value, static_cast<uint8_t>(dwType), &aOptions->clockRates,
                           &aOptions->payloadNames)) {
            aConfig->Refuse(CONFIG_SECTION, sKey,
                            "a clock rate in Hz, with or without a name, such as 48000/opus");
        }
    }
}

// Applies one option that takes a value; false when the value makes no sense.
bool ApplyValue(const std::string& aName, const std::string& aValue, COptions* aOptions) {
    if (aName == "--workers") {
        return static_cast<bool>(CmParseNumber(aValue, aOptions->workers, 1U, MAX_WORKERS));
    }
    if (aName == "--interval") {
        aOptions->intervalGiven = true;
        return static_cast<bool>(
            CmParseNumber(aValue, aOptions->intervalMs, MIN_INTERVAL_MS, MAX_INTERVAL_MS));
    }
    if (aName == "--streams") {
        return static_cast<bool>(CmParseNumber(aValue, aOptions->streams, 1U, MAX_STREAMS));
    }
    if (aName == "--buffer") {
        return static_cast<bool>(
            UTIL_NS::CmParseSize(aValue, aOptions->receiveBuffer, 1, MAX_BUFFER));
    }
    if (aName == "--clock") {
        return ParseClock(aValue, aOptions);
    }
    if (aName == "--level") {
        return ParseLevel(aValue, &aOptions->traceLevel);
    }
    if (aName == "--sort") {
        return ParseSort(aValue, &aOptions->sort);
    }
    if (aName == "--plot") {
        aOptions->plotFile = aValue;
        return !aValue.empty();
    }
    if (aName == "--trace") {
        aOptions->traceFile = aValue;
        return !aValue.empty();
    }
    return true;  // --home, applied before
}

bool TakesValue(const std::string& aName) {
    return aName == "--workers" || aName == "--interval" || aName == "--clock" ||
           aName == "--streams" || aName == "--buffer" || aName == "--level" || aName == "--sort" ||
           aName == "--plot" || aName == "--trace" || aName == "--home";
}

// An option that takes a value, with it.
struct CValue {
    std::string name;
    std::string value;
};

// One option without a value; false when there is none of that name.
bool ApplyFlag(const std::string& aName, COptions* aOptions) {
    bool* const pFlag = aName == "--fast"                    ? &aOptions->fast
                        : aName == "--json"                  ? &aOptions->json
                        : aName == "--watch"                 ? &aOptions->watch
                        : aName == "--version"               ? &aOptions->version
                        : aName == "--help" || aName == "-h" ? &aOptions->help
                                                             : nullptr;
    if (pFlag != nullptr) {
        *pFlag = true;
    }
    return pFlag != nullptr;
}

// Takes the command line apart, up to a request for help or the version.
bool SplitArguments(int aArgCount, char** aArgs, COptions* aOptions, std::vector<CValue>* aValues,
                    std::string* aError) {
    for (int i = 1; i < aArgCount && !aOptions->help && !aOptions->version; ++i) {
        const std::string sArg(aArgs[i]);
        if (sArg == "--") {
            aOptions->inputs.insert(aOptions->inputs.end(), aArgs + i + 1, aArgs + aArgCount);
            return true;
        }
        if (sArg.size() < 2 || sArg[0] != '-') {
            aOptions->inputs.push_back(sArg);
            continue;
        }
        const size_t nEqual = sArg.find('=');
        const std::string sName = sArg.substr(0, nEqual);
        if (TakesValue(sName)) {
            if (nEqual == std::string::npos && i + 1 == aArgCount) {
                *aError = "the option " + sName + " needs a value that makes sense, see --help";
                return false;
            }
            aValues->push_back(
                {sName, nEqual == std::string::npos ? aArgs[++i] : sArg.substr(nEqual + 1)});
        } else if (!ApplyFlag(sName, aOptions)) {
            *aError = "there is no option " + sName + ", see --help";
            return false;
        } else if (nEqual != std::string::npos) {
            *aError = "the option " + sName + " takes no value, see --help";
            return false;
        }
    }
    return true;
}

// The configuration is read from there, before all other options, which override it.
bool ApplyHome(const std::vector<CValue>& aValues) {
    for (const CValue& option : aValues) {
        if (option.name == "--home" && !SetHome(option.value)) {
            return false;
        }
    }
    return true;
}

bool CheckInputs(const std::vector<std::string>& aInputs, std::string* aError) {
    if (aInputs.empty()) {
        *aError = "a capture file or an address udp://ADDRESS:PORT is missing, see --help";
        return false;
    }
    for (const std::string& sInput : aInputs) {
        if (aInputs.size() > 1 && sInput.find("://") == std::string::npos) {
            *aError = "only one capture, or several addresses, can be given, see --help";
            return false;
        }
    }
    return true;
}

}  // namespace

bool COptions::IsLive() const {
    return !inputs.empty() && inputs.front().find("://") != std::string::npos;
}

std::string COptions::InputNames() const {
    std::string sNames;
    for (const std::string& sInput : inputs) {
        sNames += (sNames.empty() ? "" : ", ") + Printable(sInput);
    }
    return sNames;
}

bool ReadOptions(int aArgCount, char** aArgs, UTIL_NS::CCmConfigReader* aConfig, COptions* aOptions,
                 std::string* aError) {
    std::vector<CValue> values;
    if (!SplitArguments(aArgCount, aArgs, aOptions, &values, aError)) {
        return false;
    }
    if (aOptions->help || aOptions->version) {
        return true;
    }
    if (!ApplyHome(values)) {
        *aError =
            "the home directory given with --home must have 1 to 15 characters, the last '/' among "
            "them";
        return false;
    }
    ReadConfiguration(aConfig, aOptions);
    for (const CValue& option : values) {
        if (!ApplyValue(option.name, option.value, aOptions)) {
            *aError = "the option " + option.name + " needs a value that makes sense, see --help";
            return false;
        }
    }
    if (const char* pszFile = std::getenv("QTRACE_FILE");
        aOptions->traceFile.empty() && pszFile != nullptr) {
        aOptions->traceFile = pszFile;
    }
    return CheckInputs(aOptions->inputs, aError);
}

}  // namespace rtp_monitor
