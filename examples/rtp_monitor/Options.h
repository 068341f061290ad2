// What the user asked for: the configuration file, overridden by the command line.
#ifndef RTP_MONITOR_OPTIONS_H
#define RTP_MONITOR_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "CmConfigReader.h"
#include "PayloadNames.h"
#include "StreamOrder.h"
#include "StreamWorker.h"

namespace rtp_monitor {

struct COptions {
    std::vector<std::string> inputs;  // one capture, or any number of addresses
    bool fast = false;
    bool json = false;
    bool watch = false;
    bool help = false;
    bool version = false;
    unsigned int workers = 2;
    unsigned int intervalMs = 1000;
    bool intervalGiven = false;           // on the command line
    unsigned int streams = 10000;         // looked after at a time
    uint64_t receiveBuffer = 4ULL << 20;  // bytes of a socket's; absorbs bursts
    unsigned long traceLevel = 20;        // the monitor's own lines above it are not written
    ESort sort = ESort::WORST;
    std::string plotFile;   // empty: none
    std::string traceFile;  // empty: the user's own place
    ClockRates clockRates;
    PayloadNames payloadNames;

    bool IsLive() const;
    std::string InputNames() const;
};

extern const char CONFIG_SECTION[];
extern const char HELP_TEXT[];

// False, with a clause in aError, when the arguments make no sense. Sets the home directory
// first (--home), then reads its conf/kelto.cfg into aConfig and takes section RtpMonitor of it,
// whose bad values are problems of aConfig, then applies the rest.
bool ReadOptions(int aArgCount, char** aArgs, UTIL_NS::CCmConfigReader* aConfig, COptions* aOptions,
                 std::string* aError);

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_OPTIONS_H
