#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace rtp_monitor {

namespace {

constexpr double BITS_PER_KBIT = 1000;
constexpr char ROUTE_TITLE[] = "source > destination";

struct CSkipReason {
    EFrame reason;
    const char* words;
    const char* jsonName;
};
constexpr CSkipReason SKIP_REASONS[] = {
    {EFrame::IPV6_NOT_READ, "IPv6 not read", "ipv6NotRead"},
    {EFrame::CUT_OFF, "cut off", "cutOff"},
    {EFrame::FRAGMENT, "fragment", "fragment"},
    {EFrame::NOT_UDP, "not UDP", "notUdp"},
    {EFrame::NOT_IP, "not IP", "notIp"},
    {EFrame::MALFORMED, "malformed", "malformed"},
    {EFrame::OTHER_LINK_TYPE, "other link type", "otherLinkType"},
};

template <typename... Args>
std::string Format(const char* aFormat, Args... aArgs) {
    char szText[512];
    std::snprintf(szText, sizeof(szText), aFormat, aArgs...);
    return szText;
}

unsigned long long Number(uint64_t aNumber) {
    return aNumber;
}

std::string FormatRoute(const CStreamKey& aKey) {
    return FormatSource(aKey) + " > " + FormatDestination(aKey);
}

uint64_t SkippedFor(const CReport& aReport, EFrame aReason) {
    return aReport.skipped[static_cast<size_t>(aReason)];
}

double LostPercent(const CStreamReport& aStream) {
    return aStream.expected > 0
               ? 100.0 * static_cast<double>(aStream.lost) / static_cast<double>(aStream.expected)
               : 0;
}

std::string FigureOrDash(const char* aFormat, double aFigure, bool aIsKnown) {
    return aIsKnown ? Format(aFormat, aFigure) : std::string("-");
}

std::string TableRow(const CStreamReport& aStream, int aRouteWidth, bool aHasIntervals) {
    return Format(
        "%-*s %08x %3u%c %8llu %10llu %6llu %5.1f%% %6llu %5llu %5llu %5llu %5llu %3llu %7s %8.1f "
        "%8s %8.1f\n",
        aRouteWidth, FormatRoute(aStream.key).c_str(), aStream.key.ssrc, aStream.payloadType,
        aStream.isDoubtful ? '?' : ' ', Number(aStream.received), Number(aStream.bytes),
        Number(aStream.lost), LostPercent(aStream), Number(aStream.droppedHere),
        Number(aStream.duplicates), Number(aStream.outOfOrder), Number(aStream.late),
        Number(aStream.strays), Number(aStream.restarts),
        FigureOrDash("%.2f", aStream.jitterMs, aStream.clockRate != 0).c_str(),
        aStream.bitRate / BITS_PER_KBIT,
        FigureOrDash("%.1f", aStream.intervalBitRate / BITS_PER_KBIT, aHasIntervals).c_str(),
        aStream.longestGapMs);
}

int RouteWidth(const std::vector<CStreamReport>& aStreams) {
    size_t nWidth = std::strlen(ROUTE_TITLE);
    for (const CStreamReport& stream : aStreams) {
        nWidth = std::max(nWidth, FormatRoute(stream.key).size());
    }
    return static_cast<int>(nWidth);
}

std::string TotalsLine(const CReport& aReport) {
    std::string sLine =
        Format("RTP %llu, RTCP %llu, other UDP %llu, skipped %llu", Number(aReport.rtp),
               Number(aReport.rtcp), Number(aReport.notRtp), Number(aReport.Skipped()));
    const char* pszSeparator = " (";
    for (const CSkipReason& reason : SKIP_REASONS) {
        if (SkippedFor(aReport, reason.reason) > 0) {
            sLine += Format("%s%s %llu", pszSeparator, reason.words,
                            Number(SkippedFor(aReport, reason.reason)));
            pszSeparator = ", ";
        }
    }
    sLine += aReport.Skipped() > 0 ? ")\n" : "\n";
    if (aReport.forgottenStreams > 0) {
        sLine += Format("%llu streams with %llu packets gave their places to others\n",
                        Number(aReport.forgottenStreams), Number(aReport.forgottenPackets));
    }
    return sLine;
}

std::string InputLines(const CReport& aReport) {
    std::string sLines;
    for (const CInputReport& input : aReport.inputs) {
        if (input.isSocket) {
            sLines +=
                input.name + (input.isGroup ? " (group joined)" : "") + ": " +
                (input.isDropKnown
                     ? Format("%llu packets dropped here, by the socket\n", Number(input.dropped))
                     : std::string("the system does not tell what the socket dropped\n"));
        }
    }
    return sLines;
}

std::string JsonTypes(const CStreamReport& aStream) {
    std::string sJson = "[";
    for (const CPayloadTypeReport& type : aStream.payloadTypes) {
        sJson += Format("%s{\"type\": %u, \"clockRate\": %s, \"packets\": %llu}",
                        sJson.size() > 1 ? ", " : "", type.type,
                        type.clockRate != 0 ? std::to_string(type.clockRate).c_str() : "null",
                        Number(type.packets));
    }
    return sJson + "]";
}

std::string JsonStream(const CStreamReport& aStream) {
    const std::string sJitter =
        aStream.clockRate != 0 ? Format("%.3f", aStream.jitterMs) : std::string("null");
    const std::string sClock =
        aStream.clockRate != 0 ? std::to_string(aStream.clockRate) : std::string("null");
    return Format("    {\"source\": \"%s\", \"destination\": \"%s\", \"ssrc\": \"0x%08x\", ",
                  FormatSource(aStream.key).c_str(), FormatDestination(aStream.key).c_str(),
                  aStream.key.ssrc) +
           Format("\"doubtful\": %s,\n     ", aStream.isDoubtful ? "true" : "false") +
           Format("\"payloadType\": %u, \"clockRate\": %s, \"payloadTypeChanges\": %llu, ",
                  aStream.payloadType, sClock.c_str(), Number(aStream.payloadTypeChanges)) +
           "\"payloadTypes\": " + JsonTypes(aStream) + ",\n     " +
           Format("\"packets\": %llu, \"bytes\": %llu, \"expected\": %llu, \"lost\": %llu, ",
                  Number(aStream.received), Number(aStream.bytes), Number(aStream.expected),
                  Number(aStream.lost)) +
           Format("\"droppedHere\": %llu, \"duplicates\": %llu, \"outOfOrder\": %llu, ",
                  Number(aStream.droppedHere), Number(aStream.duplicates),
                  Number(aStream.outOfOrder)) +
           Format("\"late\": %llu, \"strays\": %llu, \"outages\": %llu, \"restarts\": %llu,\n     ",
                  Number(aStream.late), Number(aStream.strays), Number(aStream.outages),
                  Number(aStream.restarts)) +
           Format("\"jitterMs\": %s, \"bitRate\": %.0f, \"longestGapMs\": %.3f}", sJitter.c_str(),
                  aStream.bitRate, aStream.longestGapMs);
}

std::string JsonText(const std::string& aText) {
    std::string sJson = "\"";
    for (const char ch : aText) {
        const auto by = static_cast<unsigned char>(ch);
        if (ch == '"' || ch == '\\') {
            sJson += '\\';
            sJson += ch;
        } else {
            sJson += by < 0x20 ? Format("\\u%04x", by) : std::string(1, ch);
        }
    }
    return sJson + "\"";
}

std::string JsonInput(const CInputReport& aInput) {
    if (!aInput.isSocket) {
        return "    {\"name\": " + JsonText(aInput.name) + "}";
    }
    return "    {\"name\": " + JsonText(aInput.name) +
           Format(", \"group\": %s, \"dropped\": %s, ", aInput.isGroup ? "true" : "false",
                  aInput.isDropKnown ? std::to_string(aInput.dropped).c_str() : "null") +
           Format("\"bufferAsked\": %llu, \"bufferGranted\": %llu}", Number(aInput.bufferAsked),
                  Number(aInput.bufferGranted));
}

}  // namespace

std::string FormatTable(const CReport& aReport, size_t aMaxStreams) {
    const std::vector<CStreamReport>& streams = aReport.streams;
    const int nRouteWidth = RouteWidth(streams);
    std::string sTable =
        Format("%-*s %8s %4s %8s %10s %6s %6s %6s %5s %5s %5s %5s %3s %7s %8s %8s %8s\n",
               nRouteWidth, ROUTE_TITLE, "ssrc", "pt ", "packets", "bytes", "lost", "", "here",
               "dup", "order", "late", "stray", "new", "jitter", "kbit/s", "now", "gap ms");
    const size_t nShown = std::min(streams.size(), aMaxStreams);
    for (size_t i = 0; i < nShown; ++i) {
        sTable += TableRow(streams[i], nRouteWidth, aReport.hasIntervals);
    }
    if (nShown < streams.size()) {
        sTable += Format("and %llu more streams\n", Number(streams.size() - nShown));
    }
    return sTable + TotalsLine(aReport) + InputLines(aReport);
}

std::string FormatJson(const CReport& aReport) {
    std::string sJson = "{\n  \"streams\": [";
    const char* pszSeparator = "\n";
    for (const CStreamReport& stream : aReport.streams) {
        sJson += pszSeparator + JsonStream(stream);
        pszSeparator = ",\n";
    }
    sJson += "\n  ],\n  \"inputs\": [";
    pszSeparator = "\n";
    for (const CInputReport& input : aReport.inputs) {
        sJson += pszSeparator + JsonInput(input);
        pszSeparator = ",\n";
    }
    sJson += "\n  ],\n";
    sJson += Format("  \"rtp\": %llu, \"rtcp\": %llu, \"notRtp\": %llu, \"skipped\": %llu,\n",
                    Number(aReport.rtp), Number(aReport.rtcp), Number(aReport.notRtp),
                    Number(aReport.Skipped()));
    sJson += "  \"skippedFor\": {";
    pszSeparator = "";
    for (const CSkipReason& reason : SKIP_REASONS) {
        sJson += Format("%s\"%s\": %llu", pszSeparator, reason.jsonName,
                        Number(SkippedFor(aReport, reason.reason)));
        pszSeparator = ", ";
    }
    sJson += Format("},\n  \"forgottenStreams\": %llu, \"forgottenPackets\": %llu,\n",
                    Number(aReport.forgottenStreams), Number(aReport.forgottenPackets));
    const double dRate =
        aReport.seconds > 0 ? static_cast<double>(aReport.Handled()) / aReport.seconds : 0;
    sJson += Format("  \"packetsPerSecond\": %.0f, \"complete\": %s\n}\n", dRate,
                    aReport.isComplete ? "true" : "false");
    return sJson;
}

}  // namespace rtp_monitor
