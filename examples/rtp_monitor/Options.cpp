#include "Options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CmConfig.h"
#include "CmT120Trace.h"

namespace rtp_monitor {

const char HELP_TEXT[] =
    R"(rtp_monitor: shows what the RTP streams of a capture or of a UDP port do

Usage:
  rtp_monitor [OPTION...] CAPTURE               a pcap or pcapng file; -: standard input
  rtp_monitor [OPTION...] udp://ADDRESS:PORT    a local address to receive on

Options:
  --fast              replay a capture as fast as it can be read, not at its own pace
  --json              print one JSON document at the end instead of tables
  --workers N         threads that look after streams, 1 to 64 (default 2)
  --interval MS       time between two tables in milliseconds, 100 or more (default 1000)
  --clock TYPE=HZ     clock rate of a dynamic payload type; jitter is shown only for streams
                      whose clock rate is known. May be given several times.
  --level LEVEL       write trace lines of the monitor up to error, warning or info (default info)
  --trace FILE        where trace lines go (default: $QTRACE_FILE, else rtp_monitor.log in the
                      directory "logs" of the home directory)
  --home DIR          home directory of the configuration file conf/kelto.cfg, at most 15
                      characters with the last / (default /tmp/)
  --help              this text

Settings are read from section RtpMonitor of conf/kelto.cfg (keys Workers, Interval, Level, and
Clock.TYPE for each payload type); options override them. Section Trace of the same file says what
the library itself traces.

Columns: packets and bytes (of payload) that arrived; lost, of those expected by sequence number;
dup, arrived again; late, arrived out of order; jitter as in RFC 3550, in milliseconds; kbit/s over
the whole stream and over the last interval (not with --fast); the longest gap between two packets.
A source counts as a stream once two packets have come in sequence. RTCP, UDP packets that are not
RTP, and packets that are not whole UDP packets over IPv4 are counted and otherwise left alone.

Ctrl-C ends a run in order: what was received is shown in a last table.
Exit code: 0; or 2 with one sentence on standard error when something was wrong with the arguments
or the input. What was read before is shown all the same.
)";

namespace {

constexpr char CONFIG_SECTION[] = "RtpMonitor";
constexpr unsigned int MAX_WORKERS = 64;
constexpr unsigned int MIN_INTERVAL_MS = 100;
constexpr unsigned int MAX_INTERVAL_MS = 3600000;
constexpr unsigned int MAX_PAYLOAD_TYPE = 127;
constexpr unsigned int MAX_CLOCK_RATE = 10000000;  // Hz

bool ParseNumber(const std::string& aText, unsigned int aMin, unsigned int aMax,
                 unsigned int* aNumber) {
    if (aText.empty() || aText.find_first_not_of("0123456789") != std::string::npos ||
        aText.size() > 9) {
        return false;
    }
    const unsigned int dwNumber =
        static_cast<unsigned int>(std::strtoul(aText.c_str(), nullptr, 10));
    if (dwNumber < aMin || dwNumber > aMax) {
        return false;
    }
    *aNumber = dwNumber;
    return true;
}

bool ParseLevel(const std::string& aText, unsigned long* aLevel) {
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
        !ParseNumber(aText.substr(0, nEqual), 0, MAX_PAYLOAD_TYPE, &dwType) ||
        !ParseNumber(aText.substr(nEqual + 1), 1, MAX_CLOCK_RATE, &dwRate)) {
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

// Values that make no sense leave the default.
void ReadConfiguration(Options* aOptions) {
    UTIL_NS::CCmConfigInitFile config;
    const auto number = [&config](const std::string& aKey, unsigned int aMin, unsigned int aMax,
                                  unsigned int* aNumber) {
        return ParseNumber(config.GetStringParam(CONFIG_SECTION, aKey, ""), aMin, aMax, aNumber);
    };
    number("Workers", 1, MAX_WORKERS, &aOptions->workers);
    number("Interval", MIN_INTERVAL_MS, MAX_INTERVAL_MS, &aOptions->intervalMs);
    ParseLevel(config.GetStringParam(CONFIG_SECTION, "Level", ""), &aOptions->traceLevel);
    for (unsigned int dwType = 0; dwType <= MAX_PAYLOAD_TYPE; ++dwType) {
        unsigned int dwRate = 0;
        if (number("Clock." + std::to_string(dwType), 1, MAX_CLOCK_RATE, &dwRate)) {
            aOptions->clockRates[static_cast<uint8_t>(dwType)] = dwRate;
        }
    }
}

// Applies one option that takes a value; false when the value makes no sense.
bool ApplyValue(const std::string& aName, const std::string& aValue, Options* aOptions) {
    if (aName == "--workers") {
        return ParseNumber(aValue, 1, MAX_WORKERS, &aOptions->workers);
    }
    if (aName == "--interval") {
        return ParseNumber(aValue, MIN_INTERVAL_MS, MAX_INTERVAL_MS, &aOptions->intervalMs);
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
           aName == "--level" || aName == "--trace" || aName == "--home";
}

// False when there is no usable value behind a --home.
bool ApplyHome(int aArgCount, char** aArgs) {
    for (int i = 1; i + 1 < aArgCount; ++i) {
        if (std::strcmp(aArgs[i], "--home") == 0 && !SetHome(aArgs[i + 1])) {
            return false;
        }
    }
    return true;
}

void ChooseTraceFile(Options* aOptions) {
    const char* pszFromEnvironment = std::getenv("QTRACE_FILE");
    if (aOptions->traceFile.empty() && pszFromEnvironment != nullptr) {
        aOptions->traceFile = pszFromEnvironment;
    }
    if (aOptions->traceFile.empty()) {
        aOptions->traceFile = std::string(UTIL_NS::g_def_kelto_home_dir) + "logs/rtp_monitor.log";
    }
}

}  // namespace

bool Options::IsLive() const {
    return input.find("://") != std::string::npos;
}

bool ReadOptions(int aArgCount, char** aArgs, Options* aOptions, std::string* aError) {
    if (!ApplyHome(aArgCount, aArgs)) {
        *aError =
            "the home directory given with --home must have 1 to 15 characters, the last '/' among "
            "them";
        return false;
    }
    ReadConfiguration(aOptions);
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
        } else if (!aOptions->input.empty()) {
            *aError = "only one capture or address can be given, see --help";
            return false;
        } else {
            aOptions->input = sArg;
        }
    }
    if (aOptions->input.empty()) {
        *aError = "a capture file or an address udp://ADDRESS:PORT is missing, see --help";
        return false;
    }
    ChooseTraceFile(aOptions);
    return true;
}

}  // namespace rtp_monitor
