// The example host reads any bytes as a capture: the reader takes the same frames out of pieces of
// any size, the parsers stay within each frame, the figures of every stream agree with each other,
// and a source that reads the file finds the same.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <tuple>
#include <vector>

#include "../Fuzz.h"
#include "CaptureReader.h"
#include "FrameParser.h"
#include "PacketSource.h"
#include "RtpPacket.h"
#include "Series.h"
#include "StreamStats.h"

using kelto_fuzz::Require;
using namespace rtp_monitor;

namespace {

typedef std::vector<uint8_t> Bytes;
typedef CCaptureReader::EResult EResult;
typedef std::array<unsigned, static_cast<size_t>(EFrame::COUNT)> Reasons;

// A frame, with its place in the file.
typedef std::tuple<size_t, uint32_t, uint32_t, uint32_t, int64_t> Frame;

struct CResult {
    std::vector<Frame> frames;
    std::string error;
};

// Never more than is needed, but for aMore bytes. A copy of exactly what is there, so that reading
// past its end is found.
CResult ReadInPieces(const Bytes& aFile, size_t aMore) {
    CResult result;
    CCaptureReader reader;
    size_t nTaken = 0;
    size_t nThere = 0;
    while (true) {
        const Bytes there(aFile.begin() + static_cast<long>(nTaken),
                          aFile.begin() + static_cast<long>(nThere));
        uint32_t dwTaken = 0;
        CCaptureRecord record;
        switch (reader.Next(there.data(), static_cast<uint32_t>(there.size()), &dwTaken, &record)) {
            case EResult::BAD:
                result.error = reader.error();
                Require(!result.error.empty(), "a refusal has a reason");
                return result;
            case EResult::MORE:
                Require(dwTaken == 0, "nothing is taken where more is needed");
                Require(reader.needed() > there.size(), "more is needed than is there");
                Require(reader.needed() <= CCaptureReader::MAX_RECORD, "there is a limit to it");
                if (nThere == aFile.size()) {
                    return result;
                }
                nThere = std::min(aFile.size(), nTaken + reader.needed() + aMore);
                continue;
            case EResult::FRAME:
                Require(record.offset + record.size <= dwTaken, "a frame lies in what was taken");
                Require(record.size <= record.wireSize, "a frame was at least as long");
                Require(record.timeUsec >= 0, "a frame has a time");
                result.frames.emplace_back(nTaken + record.offset, record.size, record.wireSize,
                                           record.linkType, record.timeUsec);
                break;
            default:
                break;
        }
        Require(dwTaken <= there.size(), "what is taken was there");
        nTaken += dwTaken;
    }
}

struct CStream {
    CStreamStats stats;
    CSeries series;
    uint64_t bytes = 0;
};

void CheckStream(const CStream& aStream) {
    const CStreamReport report = aStream.stats.Report();
    Require(report.received + report.lost + report.droppedHere ==
                report.expected + report.duplicates + report.late,
            "received = expected - lost - droppedHere + duplicates + late");
    Require(report.received + report.strays == aStream.stats.packets(), "every packet counts");
    Require(report.bytes == aStream.bytes, "every byte counts");
    Require(std::isfinite(report.jitterMs) && report.jitterMs >= 0, "the jitter is a number");
    Require(std::isfinite(report.bitRate) && report.bitRate >= 0, "the rate is a number");
    Require(aStream.series.Points(aStream.stats).size() <= CSeries::MAX_POINTS + 1,
            "a series is bounded");
}

// What each frame is, by the parsers alone.
Reasons ParseFrames(const Bytes& aFile, const std::vector<Frame>& aFrames) {
    Reasons reasons{};
    std::map<CStreamKey, CStream> streams;
    for (const auto& [nOffset, dwSize, dwWireSize, dwLinkType, llTimeUsec] : aFrames) {
        const auto start = aFile.begin() + static_cast<long>(nOffset);
        const Bytes frame(start, start + dwSize);
        CUdpPacket udp;
        const EFrame reason = FindUdp(dwLinkType, frame.data(), dwSize, dwWireSize, &udp);
        ++reasons[static_cast<size_t>(reason)];
        if (reason != EFrame::UDP) {
            continue;
        }
        Require(udp.offset <= dwSize && udp.size <= dwSize - udp.offset,
                "a packet is in its frame");
        Require(udp.size <= udp.wireSize, "a packet was at least as long");
        Require(udp.key.ipVersion == 4 || udp.key.ipVersion == 6, "a packet has addresses");
        const auto payload = frame.begin() + static_cast<long>(udp.offset);
        const Bytes packet(payload, payload + udp.size);
        CRtpHeader header = {};
        if (ParsePacket(packet.data(), packet.size(), udp.wireSize, &header) != EPacketKind::RTP) {
            continue;
        }
        Require(header.payloadSize <= udp.wireSize, "a payload is in its packet");
        udp.key.ssrc = header.ssrc;
        CStream& stream = streams[udp.key];
        stream.series.OnTime(llTimeUsec, stream.stats);
        stream.stats.OnPacket(header, StaticClockRate(header.payloadType), llTimeUsec, 0);
        stream.bytes += header.payloadSize;
    }
    for (const auto& [key, stream] : streams) {
        Require(!FormatSource(key).empty() && !FormatDestination(key).empty(), "keys have names");
        CheckStream(stream);
    }
    return reasons;
}

// The same of the file, by the source that the monitor reads from.
void CompareFile(const std::string& aPath, const CResult& aResult, const Reasons& aReasons) {
    std::string sError;
    const std::unique_ptr<IPacketSource> pSource = OpenCapture(aPath, &sError);
    Require(pSource != nullptr, "the capture can be opened");
    Reasons reasons{};
    CPacket packet;
    while (true) {
        EFrame reason = EFrame::UDP;
        switch (pSource->Read(&packet, &reason)) {
            case ERead::PACKET:
            case ERead::SKIPPED:
                ++reasons[static_cast<size_t>(reason)];
                continue;
            case ERead::FAILED:
                Require(!pSource->error().empty(), "a failure has a reason");
                Require(aResult.error.empty() || pSource->error() == aResult.error, "the reason");
                break;
            case ERead::END:
                Require(aResult.error.empty(), "what the reader refuses fails");
                Require(pSource->percent() == 100, "all was read");
                break;
            default:
                Require(false, "a file has no need to wait");
        }
        Require(reasons == aReasons, "the file holds what its parts do");
        return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const kelto_fuzz::ScratchFile file("capture");
    kelto_fuzz::Input input(aData, aSize);
    const size_t nMore = input.Byte();
    const std::string sFile = input.Rest();
    const Bytes bytes(sFile.begin(), sFile.end());

    const CResult whole = ReadInPieces(bytes, bytes.size());
    const CResult pieces = ReadInPieces(bytes, nMore);
    Require(whole.frames == pieces.frames && whole.error == pieces.error,
            "the size of the pieces is no matter");
    const Reasons reasons = ParseFrames(bytes, whole.frames);
    // Not each time: the large blocks that a source reads into take longer than all the rest.
    if (nMore % 8 == 0) {
        file.SetContent(sFile);
        CompareFile(file.path(), whole, reasons);
    }
    return 0;
}
