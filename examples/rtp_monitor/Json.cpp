#include "Json.h"

#include "CmTimeValue.h"
#include "Monotonic.h"
#include "SkipReasons.h"
#include "StreamOrder.h"
#include "Text.h"

namespace rtp_monitor {

namespace {

constexpr double USEC_PER_SEC = 1e6;

const char* Truth(bool aIsTrue) {
    return aIsTrue ? "true" : "false";
}

// A number, or null where it is not known.
std::string OrNull(const std::string& aNumber, bool aIsKnown) {
    return aIsKnown ? aNumber : "null";
}

// The length of the UTF-8 character at the start of aText, 0 when there is none.
size_t CharacterLength(std::string_view aText) {
    const auto byFirst = static_cast<unsigned char>(aText[0]);
    const size_t nLength = byFirst < 0x80                       ? 1
                           : byFirst >= 0xC2 && byFirst < 0xE0  ? 2
                           : byFirst >= 0xE0 && byFirst < 0xF0  ? 3
                           : byFirst >= 0xF0 && byFirst <= 0xF4 ? 4
                                                                : 0;
    if (nLength == 0 || nLength > aText.size()) {
        return 0;
    }
    for (size_t i = 1; i < nLength; ++i) {
        if ((static_cast<unsigned char>(aText[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const auto bySecond = static_cast<unsigned char>(nLength > 1 ? aText[1] : 0);
    const bool bBeyond = (byFirst == 0xE0 && bySecond < 0xA0) ||   // longer than need be
                         (byFirst == 0xED && bySecond >= 0xA0) ||  // surrogates
                         (byFirst == 0xF0 && bySecond < 0x90) ||   // longer than need be
                         (byFirst == 0xF4 && bySecond >= 0x90);    // beyond the last character
    return bBeyond ? 0 : nLength;
}

// A file's name may hold anything; a byte that is no UTF-8 becomes U+FFFD.
std::string JsonText(std::string_view aText) {
    std::string sJson = "\"";
    while (!aText.empty()) {
        const size_t nLength = CharacterLength(aText);
        const auto byFirst = static_cast<unsigned char>(aText[0]);
        if (nLength == 0) {
            sJson += "\\ufffd";
        } else if (byFirst < 0x20 || byFirst == 0x7F) {
            sJson += Format("\\u%04x", byFirst);
        } else {
            sJson += byFirst == '"' || byFirst == '\\' ? "\\" : "";
            sJson += aText.substr(0, nLength);
        }
        aText.remove_prefix(nLength == 0 ? 1 : nLength);
    }
    return sJson + "\"";
}

std::string JsonName(const std::string& aName) {
    return aName.empty() ? "null" : JsonText(aName);
}

std::string JsonTypes(const CStreamReport& aStream) {
    std::string sJson = "[";
    for (const CPayloadTypeReport& type : aStream.payloadTypes) {
        sJson += Format("%s{\"type\": %u, \"name\": ", sJson.size() > 1 ? ", " : "", type.type) +
                 JsonName(type.name) +
                 ", \"clockRate\": " + OrNull(std::to_string(type.clockRate), type.clockRate != 0) +
                 Format(", \"packets\": %llu}", Number(type.packets));
    }
    return sJson + "]";
}

std::string JsonStream(const CStreamReport& aStream, bool aHasIntervals) {
    const bool bClock = aStream.clockRate != 0;
    return "{\"source\": " + JsonText(FormatSource(aStream.key)) +
           ", \"destination\": " + JsonText(FormatDestination(aStream.key)) +
           Format(", \"ssrc\": \"0x%08x\", \"doubtful\": %s, \"ended\": %s, ", aStream.key.ssrc,
                  Truth(aStream.isDoubtful), Truth(IsEnded(aStream))) +
           Format("\"payloadType\": %u, \"payloadName\": ", aStream.payloadType) +
           JsonName(aStream.payloadName) +
           ", \"clockRate\": " + OrNull(std::to_string(aStream.clockRate), bClock) +
           Format(", \"payloadTypeChanges\": %llu, ", Number(aStream.payloadTypeChanges)) +
           "\"payloadTypes\": " + JsonTypes(aStream) + ", " +
           Format("\"packets\": %llu, \"bytes\": %llu, \"expected\": %llu, \"lost\": %llu, ",
                  Number(aStream.received), Number(aStream.bytes), Number(aStream.expected),
                  Number(aStream.lost)) +
           Format("\"droppedHere\": %llu, \"duplicates\": %llu, \"outOfOrder\": %llu, ",
                  Number(aStream.droppedHere), Number(aStream.duplicates),
                  Number(aStream.outOfOrder)) +
           Format("\"late\": %llu, \"strays\": %llu, \"outages\": %llu, \"restarts\": %llu, ",
                  Number(aStream.late), Number(aStream.strays), Number(aStream.outages),
                  Number(aStream.restarts)) +
           "\"jitterMs\": " + OrNull(Format("%.3f", aStream.jitterMs), bClock) +
           Format(", \"bitRate\": %.0f, \"intervalBitRate\": ", aStream.bitRate) +
           OrNull(Format("%.0f", aStream.intervalBitRate), aHasIntervals) +
           Format(", \"longestGapMs\": %.3f}", aStream.longestGapMs);
}

std::string JsonInput(const CInputReport& aInput) {
    if (!aInput.isSocket) {
        return "{\"name\": " + JsonText(aInput.name) + "}";
    }
    return "{\"name\": " + JsonText(aInput.name) +
           Format(", \"group\": %s, \"dropped\": ", Truth(aInput.isGroup)) +
           OrNull(std::to_string(aInput.dropped), aInput.isDropKnown) +
           Format(", \"bufferAsked\": %llu, \"bufferGranted\": %llu}", Number(aInput.bufferAsked),
                  Number(aInput.bufferGranted));
}

}  // namespace

std::string FormatJson(const CReport& aReport) {
    const double dTime =
        static_cast<double>(ToUsec(UTIL_NS::CCmTimeValue::GetTimeOfDay())) / USEC_PER_SEC;
    std::string sJson = Format("{\"final\": %s, \"complete\": %s, \"time\": %.3f, ",
                               Truth(aReport.isFinal), Truth(aReport.isComplete), dTime) +
                        Format("\"seconds\": %.3f, \"streams\": [", aReport.seconds);
    const char* pszSeparator = "";
    for (const CStreamReport& stream : aReport.streams) {
        sJson += pszSeparator + JsonStream(stream, aReport.hasIntervals);
        pszSeparator = ", ";
    }
    sJson += "], \"inputs\": [";
    pszSeparator = "";
    for (const CInputReport& input : aReport.inputs) {
        sJson += pszSeparator + JsonInput(input);
        pszSeparator = ", ";
    }
    sJson += Format("], \"rtp\": %llu, \"rtcp\": %llu, \"notRtp\": %llu, \"skipped\": %llu, ",
                    Number(aReport.rtp), Number(aReport.rtcp), Number(aReport.notRtp),
                    Number(aReport.Skipped()));
    sJson += "\"skippedFor\": {";
    pszSeparator = "";
    for (const CSkipReason& reason : SKIP_REASONS) {
        sJson += Format("%s\"%s\": %llu", pszSeparator, reason.jsonName,
                        Number(aReport.skipped[static_cast<size_t>(reason.reason)]));
        pszSeparator = ", ";
    }
    const double dRate =
        aReport.seconds > 0 ? static_cast<double>(aReport.Handled()) / aReport.seconds : 0;
    return sJson + Format(
                       "}, \"forgottenStreams\": %llu, \"forgottenPackets\": %llu, "
                       "\"packetsPerSecond\": %.0f}\n",
                       Number(aReport.forgottenStreams), Number(aReport.forgottenPackets), dRate);
}

}  // namespace rtp_monitor
