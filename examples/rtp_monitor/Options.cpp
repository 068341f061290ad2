#include "Options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CmConfig.h"
#include "CmStrict.h"
#include "CmT120Trace.h"

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
  --json              print one JSON document at the end instead of tables
  --workers N         threads that look after streams, 1 to 64 (default 2)
  --interval MS       time between two tables in milliseconds, 100 or more (default 1000)
  --streams N         streams looked after at a time, 1 to 1000000 (default 10000); the one not
                      heard for longest gives its place to a new one, and is counted
  --buffer SIZE       what the system is asked to keep for each socket (default 4MiB, at most 1GiB)
  --clock TYPE=HZ     clock rate of a dynamic payload type; jitter is shown only for streams
                      whose clock rate is known. May be given several times.
  --level LEVEL       write trace lines of the monitor up to error, warning or info (default info)
  --trace FILE        where trace lines go (default: $QTRACE_FILE, else rtp_monitor.log in the
                      directory "logs" of the home directory)
  --home DIR          home directory of the configuration file conf/kelto.cfg, at most 15
                      characters with the last / (default /tmp/)
  --help              this text

Settings are read from section RtpMonitor of conf/kelto.cfg (keys Workers, Interval, Streams,
Buffer, Level, and Clock.TYPE for each payload type); options override them. Section Trace of the
same file says what the library itself traces. A value there that makes no sense ends the run; a key
of section RtpMonitor that means nothing is named on standard error.

Columns: packets and bytes (of payload) that arrived; lost, of those expected by sequence number;
here, dropped by the monitor's own socket; dup, arrived again; order, arrived out of order; late,
arrived more than 100 packets late; stray, belonged nowhere; new, how often it began anew; jitter as
in RFC 3550, in milliseconds; kbit/s over the whole stream and over the last interval (not with
--fast); the longest gap between two packets.
A stream of which no two packets with consecutive numbers have come is doubtful and has a "?" after
its payload type. RTCP, other UDP packets and frames without UDP are counted and otherwise left
alone.

Ctrl-C ends a run in order: what was received is shown in a last table.
Exit code: 0; or 2 with one sentence on standard error when something was wrong with the arguments
or the input. What was read before is shown all the same.
)";

namespace {

using UTIL_NS::CmParseNumber;

constexpr unsigned int MAX_WORKERS = 64;
constexpr unsigned int MIN_INTERVAL_MS = 100;
constexpr unsigned int MAX_INTERVAL_MS = 3600000;
constexpr unsigned int MAX_STREAMS = 1000000;
constexpr uint64_t MAX_BUFFER = 1ULL << 30;
constexpr unsigned int MAX_PAYLOAD_TYPE = 127;
constexpr unsigned int MAX_CLOCK_RATE = 10000000;  // Hz

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

bool ParseClock(const std::string& aText, ClockRates* aClockRates) {
    const size_t nEqual = aText.find('=');
    unsigned int dwType = 0;
    unsigned int dwRate = 0;
    if (nEqual == std::string::npos ||
        !CmParseNumber(aText.substr(0, nEqual), dwType, 0U, MAX_PAYLOAD_TYPE) ||
        !CmParseNumber(aText.substr(nEqual + 1), dwRate, 1U, MAX_CLOCK_RATE)) {
        return false;
    }
    (*aClockRates)[static_cast<uint8_t>(dwType)] = dwRate;
    return true;
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
    std::string_view level;
    if (aConfig->GetText(CONFIG_SECTION, "Level", level) == UTIL_NS::CM_OK &&
        !ParseLevel(level, &aOptions->traceLevel)) {
        aConfig->Refuse(CONFIG_SECTION, "Level", "error, warning or info");
    }
    for (unsigned int dwType = 0; dwType <= MAX_PAYLOAD_TYPE; ++dwType) {
        unsigned int dwRate = 0;
        if (aConfig->GetNumber(CONFIG_SECTION, "Clock." + std::to_string(dwType), dwRate, 1U,
                               MAX_CLOCK_RATE) == UTIL_NS::CM_OK) {
            aOptions->clockRates[static_cast<uint8_t>(dwType)] = dwRate;
        }
    }
}

// Applies one option that takes a value; false when the value makes no sense.
bool ApplyValue(const std::string& aName, const std::string& aValue, COptions* aOptions) {
    if (aName == "--workers") {
        return static_cast<bool>(CmParseNumber(aValue, aOptions->workers, 1U, MAX_WORKERS));
    }
    if (aName == "--interval") {
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
        return ParseClock(aValue, &aOptions->clockRates);
    }
    if (aName == "--level") {
        return ParseLevel(aValue, &aOptions->traceLevel);
    }
    if (aName == "--trace") {
        aOptions->traceFile = aValue;
        return !aValue.empty();
    }
    return true;  // --home, applied before
}

bool TakesValue(const std::string& aName) {
    return aName == "--workers" || aName == "--interval" || aName == "--clock" ||
           aName == "--streams" || aName == "--buffer" || aName == "--level" ||
           aName == "--trace" || aName == "--home";
}

// False when there is no usable value after a --home.
bool ApplyHome(int aArgCount, char** aArgs) {
    for (int i = 1; i + 1 < aArgCount; ++i) {
        if (std::strcmp(aArgs[i], "--home") == 0 && !SetHome(aArgs[i + 1])) {
            return false;
        }
    }
    return true;
}

void ChooseTraceFile(COptions* aOptions) {
    const char* pszFromEnvironment = std::getenv("QTRACE_FILE");
    if (aOptions->traceFile.empty() && pszFromEnvironment != nullptr) {
        aOptions->traceFile = pszFromEnvironment;
    }
    if (aOptions->traceFile.empty()) {
        aOptions->traceFile = std::string(UTIL_NS::g_def_kelto_home_dir) + "logs/rtp_monitor.log";
    }
}

}  // namespace

bool COptions::IsLive() const {
    return !inputs.empty() && inputs.front().find("://") != std::string::npos;
}

std::string COptions::InputNames() const {
    std::string sNames;
    for (const std::string& sInput : inputs) {
        sNames += (sNames.empty() ? "" : ", ") + sInput;
    }
    return sNames;
}

bool ReadOptions(int aArgCount, char** aArgs, UTIL_NS::CCmConfigReader* aConfig, COptions* aOptions,
                 std::string* aError) {
    if (!ApplyHome(aArgCount, aArgs)) {
        *aError =
            "the home directory given with --home must have 1 to 15 characters, the last '/' among "
            "them";
        return false;
    }
    ReadConfiguration(aConfig, aOptions);
    for (int i = 1; i < aArgCount; ++i) {
        const std::string sArg(aArgs[i]);
        if (sArg == "--help") {
            aOptions->help = true;
            return true;
        }
        if (sArg == "--fast") {
            aOptions->fast = true;
        } else if (sArg == "--json") {
            aOptions->json = true;
        } else if (TakesValue(sArg)) {
            if (i + 1 == aArgCount || !ApplyValue(sArg, aArgs[i + 1], aOptions)) {
                *aError = "the option " + sArg + " needs a value that makes sense, see --help";
                return false;
            }
            ++i;
        } else if (sArg.size() > 1 && sArg[0] == '-') {
            *aError = "there is no option " + sArg + ", see --help";
            return false;
        } else {
            aOptions->inputs.push_back(sArg);
        }
    }
    if (aOptions->inputs.empty()) {
        *aError = "a capture file or an address udp://ADDRESS:PORT is missing, see --help";
        return false;
    }
    for (const std::string& sInput : aOptions->inputs) {
        if (aOptions->inputs.size() > 1 && sInput.find("://") == std::string::npos) {
            *aError = "only one capture, or several addresses, can be given, see --help";
            return false;
        }
    }
    ChooseTraceFile(aOptions);
    return true;
}

}  // namespace rtp_monitor
