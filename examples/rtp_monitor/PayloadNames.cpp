#include "PayloadNames.h"

#include <strings.h>

#include <algorithm>

#include "CmStrict.h"

namespace rtp_monitor {

namespace {

constexpr unsigned int MAX_CLOCK_RATE = 10000000;  // Hz
constexpr size_t MAX_NAME_LENGTH = 32;

// By payload type, RFC 3551, tables 4 and 5; null: reserved, unassigned or dynamic.
constexpr const char* STATIC_NAMES[] = {
    "PCMU",  nullptr, nullptr, "GSM",   "G723",  "DVI4",  "DVI4",  "LPC",    // 0 to 7
    "PCMA",  "G722",  "L16",   "L16",   "QCELP", "CN",    "MPA",   "G728",   // 8 to 15
    "DVI4",  "DVI4",  "G729",  nullptr, nullptr, nullptr, nullptr, nullptr,  // 16 to 23
    nullptr, "CelB",  "JPEG",  nullptr, "nv",    nullptr, nullptr, "H261",   // 24 to 31
    "MPV",   "MP2T",  "H263",                                                // 32 to 34
};

// Encodings whose clock rate is always the same.
struct CEncoding {
    const char* name;
    unsigned int clockRate;  // Hz
};
constexpr CEncoding ENCODINGS[] = {
    {"opus", 48000}, {"AV1", 90000}, {"H264", 90000},
    {"H265", 90000}, {"VP8", 90000}, {"VP9", 90000},
};

// Names go into tables and pictures as they are.
bool IsName(std::string_view aText) {
    return !aText.empty() && aText.size() <= MAX_NAME_LENGTH &&
           std::all_of(aText.begin(), aText.end(), [](char ch) {
               return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') ||
                      (ch >= 'A' && ch <= 'Z') || ch == '-' || ch == '_' || ch == '.' || ch == '+';
           });
}

}  // namespace

std::string PayloadName(uint8_t aPayloadType, const PayloadNames& aNames) {
    const auto given = aNames.find(aPayloadType);
    if (given != aNames.end()) {
        return given->second;
    }
    constexpr size_t COUNT = sizeof(STATIC_NAMES) / sizeof(STATIC_NAMES[0]);
    return aPayloadType < COUNT && STATIC_NAMES[aPayloadType] != nullptr
               ? STATIC_NAMES[aPayloadType]
               : std::string();
}

bool ParseEncoding(std::string_view aText, uint8_t aPayloadType, ClockRates* aClockRates,
                   PayloadNames* aNames) {
    for (const CEncoding& encoding : ENCODINGS) {
        if (strcasecmp(std::string(aText).c_str(), encoding.name) == 0) {
            (*aClockRates)[aPayloadType] = encoding.clockRate;
            (*aNames)[aPayloadType] = encoding.name;
            return true;
        }
    }
    const size_t nSlash = std::min(aText.find('/'), aText.size());
    unsigned int dwRate = 0;
    if (!UTIL_NS::CmParseNumber(aText.substr(0, nSlash), dwRate, 1U, MAX_CLOCK_RATE) ||
        (nSlash < aText.size() && !IsName(aText.substr(nSlash + 1)))) {
        return false;
    }
    (*aClockRates)[aPayloadType] = dwRate;
    if (nSlash < aText.size()) {
        (*aNames)[aPayloadType] = std::string(aText.substr(nSlash + 1));
    }
    return true;
}

}  // namespace rtp_monitor
