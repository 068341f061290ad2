#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "CmAddress.h"

namespace rtp_monitor {

namespace {

constexpr double BITS_PER_KBIT = 1000;
constexpr char ROUTE_TITLE[] = "source > destination";

template <typename... Args>
std::string Format(const char* aFormat, Args... aArgs) {
    char achText[512];
    std::snprintf(achText, sizeof(achText), aFormat, aArgs...);
    return achText;
}

std::string FormatAddress(uint32_t aAddress) {
    return UTIL_NS::id_2_ip(aAddress);
}

std::string FormatEndpoint(uint32_t aAddress, uint16_t aPort) {
    return FormatAddress(aAddress) + ":" + std::to_string(aPort);
}

unsigned long long Number(uint64_t aNumber) {
    return aNumber;
}

std::string FormatRoute(const StreamKey& aKey) {
    return FormatEndpoint(aKey.sourceAddress, aKey.sourcePort) + " > " +
           FormatEndpoint(aKey.destinationAddress, aKey.destinationPort);
}

double LostPercent(const StreamReport& aStream) {
    return aStream.expected > 0
               ? 100.0 * static_cast<double>(aStream.lost) / static_cast<double>(aStream.expected)
               : 0;
}

std::string FigureOrDash(const char* aFormat, double aFigure, bool aIsKnown) {
    return aIsKnown ? Format(aFormat, aFigure) : std::string("-");
}

std::string TableRow(const StreamReport& aStream, int aRouteWidth, bool aHasIntervals) {
    return Format(
        "%-*s %08x %3u %8llu %10llu %6llu %5.1f%% %5llu %5llu %7s %8.1f %8s %8.1f\n", aRouteWidth,
        FormatRoute(aStream.key).c_str(), aStream.key.ssrc, aStream.payloadType,
        Number(aStream.packets), Number(aStream.bytes), Number(aStream.lost), LostPercent(aStream),
        Number(aStream.duplicates), Number(aStream.outOfOrder),
        FigureOrDash("%.2f", aStream.jitterMs, aStream.clockRate != 0).c_str(),
        aStream.bitRate / BITS_PER_KBIT,
        FigureOrDash("%.1f", aStream.intervalBitRate / BITS_PER_KBIT, aHasIntervals).c_str(),
        aStream.longestGapMs);
}

int RouteWidth(const std::vector<StreamReport>& aStreams) {
    size_t nWidth = std::strlen(ROUTE_TITLE);
    for (const StreamReport& stream : aStreams) {
        nWidth = std::max(nWidth, FormatRoute(stream.key).size());
    }
    return static_cast<int>(nWidth);
}

std::string JsonStream(const StreamReport& aStream) {
    const std::string sJitter =
        aStream.clockRate != 0 ? Format("%.3f", aStream.jitterMs) : std::string("null");
    const std::string sClock =
        aStream.clockRate != 0 ? std::to_string(aStream.clockRate) : std::string("null");
    return Format(
               "    {\"source\": \"%s\", \"destination\": \"%s\", \"ssrc\": \"0x%08x\", ",
               FormatEndpoint(aStream.key.sourceAddress, aStream.key.sourcePort).c_str(),
               FormatEndpoint(aStream.key.destinationAddress, aStream.key.destinationPort).c_str(),
               aStream.key.ssrc) +
           Format("\"payloadType\": %u, \"clockRate\": %s,\n     ", aStream.payloadType,
                  sClock.c_str()) +
           Format("\"packets\": %llu, \"bytes\": %llu, \"expected\": %llu, \"lost\": %llu, ",
                  Number(aStream.packets), Number(aStream.bytes), Number(aStream.expected),
                  Number(aStream.lost)) +
           Format("\"duplicates\": %llu, \"outOfOrder\": %llu, \"restarts\": %llu,\n     ",
                  Number(aStream.duplicates), Number(aStream.outOfOrder),
                  Number(aStream.restarts)) +
           Format("\"jitterMs\": %s, \"bitRate\": %.0f, \"longestGapMs\": %.3f}", sJitter.c_str(),
                  aStream.bitRate, aStream.longestGapMs);
}

}  // namespace

std::string FormatTable(const Totals& aTotals, size_t aMaxStreams) {
    const std::vector<StreamReport>& streams = aTotals.snapshot.streams;
    const int nRouteWidth = RouteWidth(streams);
    std::string sTable = Format("%-*s %8s %3s %8s %10s %6s %6s %5s %5s %7s %8s %8s %8s\n",
                                nRouteWidth, ROUTE_TITLE, "ssrc", "pt", "packets", "bytes", "lost",
                                "", "dup", "late", "jitter", "kbit/s", "now", "gap ms");
    const size_t nShown = std::min(streams.size(), aMaxStreams);
    for (size_t i = 0; i < nShown; ++i) {
        sTable += TableRow(streams[i], nRouteWidth, aTotals.hasIntervals);
    }
    if (nShown < streams.size()) {
        sTable += Format("and %llu more streams\n", Number(streams.size() - nShown));
    }
    sTable += Format("RTP %llu, RTCP %llu, other UDP %llu, skipped %llu", Number(aTotals.rtp),
                     Number(aTotals.rtcp), Number(aTotals.notRtp), Number(aTotals.skipped));
    if (aTotals.snapshot.unconfirmedStreams > 0) {
        sTable += Format("; %llu packets of %llu sources that are no streams yet",
                         Number(aTotals.snapshot.unconfirmedPackets),
                         Number(aTotals.snapshot.unconfirmedStreams));
    }
    return sTable + "\n";
}

std::string FormatJson(const Totals& aTotals) {
    std::string sJson = "{\n  \"streams\": [";
    const char* pszSeparator = "\n";
    for (const StreamReport& stream : aTotals.snapshot.streams) {
        sJson += pszSeparator + JsonStream(stream);
        pszSeparator = ",\n";
    }
    sJson += "\n  ],\n";
    sJson += Format("  \"rtp\": %llu, \"rtcp\": %llu, \"notRtp\": %llu, \"skipped\": %llu,\n",
                    Number(aTotals.rtp), Number(aTotals.rtcp), Number(aTotals.notRtp),
                    Number(aTotals.skipped));
    sJson += Format("  \"unconfirmedSources\": %llu, \"unconfirmedPackets\": %llu,\n",
                    Number(aTotals.snapshot.unconfirmedStreams),
                    Number(aTotals.snapshot.unconfirmedPackets));
    sJson += Format("  \"packetsPerSecond\": %.0f, \"complete\": %s\n}\n", aTotals.packetsPerSecond,
                    aTotals.complete ? "true" : "false");
    return sJson;
}

}  // namespace rtp_monitor
