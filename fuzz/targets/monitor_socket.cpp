// The example host listens to a socket: packets of an operation string come over the loopback
// interface from two senders, go through the receiver to the workers, and the report counts each
// once. Its table and its JSON are well formed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "../Fuzz.h"
#include "Json.h"
#include "Receiver.h"
#include "RtpPacket.h"
#include "StreamOrder.h"
#include "Table.h"

using kelto_fuzz::Require;
using namespace rtp_monitor;

namespace {

typedef std::vector<uint8_t> Bytes;

constexpr int BUFFER = 1 << 20;
constexpr size_t MOST_PACKETS = 96;
constexpr size_t MOST_SENT = 40000;  // bytes; what the socket's buffer holds for certain
constexpr uint32_t MOST_STREAMS = 3;
constexpr uint32_t MOST_BATCHES = 2;
constexpr int LONGEST_WAIT_MS = 20000;
constexpr int TRIES = 20;
constexpr size_t LEAST_COLUMNS = 80;

struct CSent {
    Bytes bytes;
    uint16_t port;
};

sockaddr_in Loopback(uint16_t aPort) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(aPort);
    return address;
}

// A socket of its own port.
class CSender {
  public:
    CSender() : m_nSocket(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = Loopback(0);
        socklen_t nLength = sizeof(address);
        Require(m_nSocket >= 0 &&
                    bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), nLength) == 0 &&
                    getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &nLength) == 0,
                "there is a port to be had");
        m_wPort = ntohs(address.sin_port);
    }
    ~CSender() { close(m_nSocket); }
    CSender(const CSender&) = delete;
    CSender& operator=(const CSender&) = delete;

    uint16_t port() const { return m_wPort; }
    void Send(const Bytes& aBytes, uint16_t aPort) const {
        const sockaddr_in address = Loopback(aPort);
        Require(sendto(m_nSocket, aBytes.data(), aBytes.size(), 0,
                       reinterpret_cast<const sockaddr*>(&address),
                       sizeof(address)) == static_cast<ssize_t>(aBytes.size()),
                "a packet is sent");
    }

  private:
    int m_nSocket;
    uint16_t m_wPort;
};

// The socket that all runs listen to.
struct CListener {
    CListener() {
        for (int i = 0; i < TRIES && source == nullptr; ++i) {
            // One that was free a moment ago.
            port = CSender().port();
            std::string sError;
            source = OpenSockets({"udp://127.0.0.1:" + std::to_string(port)}, BUFFER, &sError);
        }
        Require(source != nullptr, "a socket can be opened");
    }
    uint16_t port = 0;
    std::unique_ptr<IPacketSource> source;
};

// Ends where everything that was sent has come.
class CUntilSent : public IPacketSource {
  public:
    CUntilSent(IPacketSource& aSource, const std::vector<CSent>& aSent)
        : m_source(aSource), m_sent(aSent) {}

    ERead Read(CPacket* aPacket, EFrame* aReason) override {
        ERead result = m_source.Read(aPacket, aReason);
        while (result == ERead::IDLE && m_nRead < m_sent.size()) {
            std::vector<pollfd> descriptors;
            m_source.AddDescriptors(&descriptors);
            Require(poll(descriptors.data(), descriptors.size(), LONGEST_WAIT_MS) > 0,
                    "what was sent comes");
            result = m_source.Read(aPacket, aReason);
        }
        if (result == ERead::IDLE) {
            return ERead::END;
        }
        Require(result == ERead::PACKET, "the socket is read");
        Require(m_nRead < m_sent.size(), "nothing else comes");
        const CSent& sent = m_sent[m_nRead++];
        const auto* pData =
            reinterpret_cast<const uint8_t*>(aPacket->block->m_pPayload) + aPacket->offset;
        Require(aPacket->size == sent.bytes.size() && aPacket->wireSize == aPacket->size &&
                    std::equal(sent.bytes.begin(), sent.bytes.end(), pData),
                "what comes is what was sent");
        Require(aPacket->key.ipVersion == 4 && aPacket->key.sourcePort == sent.port,
                "it comes from its sender");
        return result;
    }
    void AddDescriptors(std::vector<pollfd>* aDescriptors) const override {
        m_source.AddDescriptors(aDescriptors);
    }
    std::string error() const override { return m_source.error(); }
    bool IsRecorded() const override { return false; }
    int percent() const override { return m_source.percent(); }
    std::vector<CInputReport> Inputs() const override { return m_source.Inputs(); }

  private:
    IPacketSource& m_source;
    const std::vector<CSent>& m_sent;
    size_t m_nRead = 0;
};

// The next packet: any bytes, or one of a stream that goes on from the packet before.
Bytes NextPacket(kelto_fuzz::Input& aInput, unsigned aHow, CRtpHeader& aLast) {
    Bytes packet;
    if (aHow / 2 % 4 == 0) {
        for (unsigned nSize = aInput.Byte(); nSize > 0; --nSize) {
            packet.push_back(static_cast<uint8_t>(aInput.Byte()));
        }
        return packet;
    }
    if (aHow / 2 % 4 == 1) {
        aLast.sequence = aInput.Bits<uint16_t>();
        aLast.timestamp = aInput.Bits<uint32_t>();
        aLast.payloadType = static_cast<uint8_t>(aInput.Byte());
        aLast.ssrc = aInput.Byte() % 8;
    } else {
        aLast.sequence =
            static_cast<uint16_t>(aLast.sequence + (aHow / 8 % 8 == 0 ? 1 : aInput.Byte() - 128));
        aLast.timestamp += 160;
    }
    const uint32_t dwTime = aLast.timestamp;
    packet = {0x80,
              aLast.payloadType,
              static_cast<uint8_t>(aLast.sequence >> 8),
              static_cast<uint8_t>(aLast.sequence),
              static_cast<uint8_t>(dwTime >> 24),
              static_cast<uint8_t>(dwTime >> 16),
              static_cast<uint8_t>(dwTime >> 8),
              static_cast<uint8_t>(dwTime),
              0,
              0,
              0,
              static_cast<uint8_t>(aLast.ssrc)};
    packet.resize(packet.size() + aHow / 64 * 20);
    return packet;
}

void CheckStream(const CStreamReport& aStream) {
    Require(aStream.received + aStream.lost + aStream.droppedHere ==
                aStream.expected + aStream.duplicates + aStream.late,
            "received = expected - lost - droppedHere + duplicates + late");
    for (const double dFigure :
         {aStream.jitterMs, aStream.bitRate, aStream.intervalBitRate, aStream.longestGapMs}) {
        Require(std::isfinite(dFigure) && dFigure >= 0, "the figures are numbers");
    }
}

// Brackets close in the order in which they open, outside of texts.
void CheckJson(const std::string& aJson) {
    std::string sOpen;
    bool bText = false;
    for (size_t i = 0; i < aJson.size(); ++i) {
        const char ch = aJson[i];
        if (bText) {
            i += ch == '\\' ? 1 : 0;
            bText = ch != '"';
        } else if (ch == '"') {
            bText = true;
        } else if (ch == '{' || ch == '[') {
            sOpen += ch == '{' ? '}' : ']';
        } else if (ch == '}' || ch == ']') {
            Require(!sOpen.empty() && sOpen.back() == ch, "brackets close what is open");
            sOpen.pop_back();
        }
    }
    Require(sOpen.empty() && !bText && aJson.find('\n') == aJson.size() - 1, "one line of JSON");
}

void CheckReport(CReport& aReport, const std::vector<CSent>& aSent, unsigned aStyle) {
    uint64_t ullRtp = 0;
    uint64_t ullRtcp = 0;
    std::map<std::pair<uint16_t, uint32_t>, uint64_t> packets;  // by port and source
    for (const CSent& sent : aSent) {
        CRtpHeader header = {};
        const EPacketKind kind =
            ParsePacket(sent.bytes.data(), sent.bytes.size(), sent.bytes.size(), &header);
        if (kind == EPacketKind::RTP) {
            ++ullRtp;
            ++packets[{sent.port, header.ssrc}];
        }
        ullRtcp += kind == EPacketKind::RTCP ? 1 : 0;
        Require(kind != EPacketKind::CUT_OFF, "a socket cuts nothing off");
    }
    Require(aReport.rtp == ullRtp && aReport.rtcp == ullRtcp && aReport.Handled() == aSent.size(),
            "each packet counts once");
    uint64_t ullInStreams = aReport.forgottenPackets;
    for (const CStreamReport& stream : aReport.streams) {
        const uint64_t ullCounted = stream.received + stream.strays;
        const uint64_t ullSent = packets[{stream.key.sourcePort, stream.key.ssrc}];
        Require(ullCounted == ullSent || (ullCounted < ullSent && aReport.forgottenStreams > 0),
                "a stream has its own packets");
        ullInStreams += ullCounted;
        CheckStream(stream);
    }
    Require(ullInStreams == ullRtp, "each packet of a stream is in one");
    Require(aReport.streams.size() <= MOST_STREAMS, "streams are bounded");

    SortStreams(static_cast<ESort>(aStyle % 7), &aReport.streams);
    aReport.isFinal = aStyle / 8 % 2 != 0;
    CheckJson(FormatJson(aReport));
    CTableStyle style;
    style.columns = LEAST_COLUMNS + aStyle / 16;
    const std::string sTable = FormatTable(aReport, style);
    for (size_t nAt = 0; nAt < sTable.size();) {
        const size_t nEnd = sTable.find('\n', nAt);
        Require(nEnd != std::string::npos, "lines have ends");
        Require(nEnd - nAt <= style.columns, "no line is too long");
        nAt = nEnd + 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const CListener listener;
    static const std::array<CSender, 2> senders;
    kelto_fuzz::Input input(aData, aSize);
    const unsigned nStyle = input.Byte();
    const unsigned nWorkers = 1 + input.Byte() % 2;
    std::vector<CSent> sent;
    std::array<CRtpHeader, 2> last{};
    size_t nBytes = 0;
    while (!input.AtEnd() && sent.size() < MOST_PACKETS && nBytes < MOST_SENT) {
        const unsigned nHow = input.Byte();
        const CSender& sender = senders[nHow % 2];
        sent.push_back({NextPacket(input, nHow, last[nHow % 2]), sender.port()});
        sender.Send(sent.back().bytes, listener.port);
        nBytes += sent.back().bytes.size();
    }

    CStopSignal stop;
    Require(stop.IsOpen(), "there is a stop signal");
    StreamWorkers workers;
    for (unsigned i = 0; i < nWorkers; ++i) {
        workers.push_back(std::make_unique<CStreamWorker>(ClockRates(), MOST_BATCHES, true));
        Require(workers.back()->Result() == UTIL_NS::CM_OK, "a worker starts");
    }
    auto* pReceiver = new CReceiver(std::make_unique<CUntilSent>(*listener.source, sent), workers,
                                    stop, false, MOST_STREAMS);
    const UTIL_NS::CCmThreadPtr thread(pReceiver);
    pReceiver->OnThreadRun();
    Require(pReceiver->error().empty(), "the receiver does not fail");

    CReport report;
    pReceiver->AddTo(&report);
    for (const std::unique_ptr<CStreamWorker>& worker : workers) {
        Require(worker->AddTo(&report, true) == UTIL_NS::CM_OK, "a worker reports");
    }
    CheckReport(report, sent, nStyle);
    return 0;
}
