#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "CmStrict.h"
#include "CmTimeValue.h"
#include "PacketSource.h"

namespace rtp_monitor {

namespace {

constexpr char SCHEME[] = "udp";
constexpr suseconds_t IDLE_USEC = 100000;
constexpr size_t MAX_UDP_SIZE = 65536;
constexpr int RECEIVE_BUFFER_SIZE = 4 << 20;  // bytes; absorbs bursts, a wish only
constexpr int64_t USEC_PER_SEC = 1000000;

class SocketSource : public PacketSource {
  public:
    SocketSource(int aSocket, const sockaddr_in& aLocal)
        : m_nSocket(aSocket), m_local(aLocal), m_buffer(MAX_UDP_SIZE) {}
    ~SocketSource() override { close(m_nSocket); }

    ReadResult Read(Packet* aPacket) override {
        sockaddr_in from = {};
        socklen_t nFromSize = sizeof(from);
        const ssize_t nSize = recvfrom(m_nSocket, m_buffer.data(), m_buffer.size(), 0,
                                       reinterpret_cast<sockaddr*>(&from), &nFromSize);
        if (nSize < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == ECONNREFUSED) {
                return ReadResult::IDLE;
            }
            m_sError = std::strerror(errno);
            return ReadResult::FAILED;
        }
        const UTIL_NS::CCmTimeValue tvNow = UTIL_NS::CCmTimeValue::GetTimeOfDay();
        aPacket->arrivalUsec = tvNow.GetSec() * USEC_PER_SEC + tvNow.GetUsec();
        aPacket->key.sourceAddress = ntohl(from.sin_addr.s_addr);
        aPacket->key.sourcePort = ntohs(from.sin_port);
        aPacket->key.destinationAddress = ntohl(m_local.sin_addr.s_addr);
        aPacket->key.destinationPort = ntohs(m_local.sin_port);
        aPacket->data = m_buffer.data();
        aPacket->size = static_cast<uint32_t>(nSize);
        return ReadResult::PACKET;
    }

    std::string error() const override { return m_sError; }
    int percent() const override { return -1; }
    bool isRecorded() const override { return false; }

  private:
    const int m_nSocket;
    const sockaddr_in m_local;
    std::vector<unsigned char> m_buffer;
    std::string m_sError;
};

// Fills aLocal from udp://ADDRESS:PORT.
bool ParseAddress(const std::string& aAddress, sockaddr_in* aLocal) {
    UTIL_NS::CCmUrlParts url;
    if (!UTIL_NS::CmParseUrl(aAddress, url) || url.m_scheme != SCHEME ||
        url.m_hostKind != UTIL_NS::CCmUrlParts::IPV4_HOST || url.m_wPort == 0 ||
        url.m_bHasUserInfo || !url.m_path.empty() || url.m_bHasQuery || url.m_bHasFragment) {
        return false;
    }
    sockaddr_storage storage;
    socklen_t nLength = 0;
    UTIL_NS::CmToSocketAddress({url.m_hostAddress, url.m_wPort}, storage, nLength);
    std::memcpy(aLocal, &storage, sizeof(*aLocal));
    return true;
}

}  // namespace

std::unique_ptr<PacketSource> OpenSocket(const std::string& aAddress, std::string* aError) {
    sockaddr_in local = {};
    if (!ParseAddress(aAddress, &local)) {
        *aError = "it is not of the form udp://ADDRESS:PORT";
        return nullptr;
    }
    const int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (nSocket < 0) {
        *aError = std::strerror(errno);
        return nullptr;
    }
    const timeval idle = {0, IDLE_USEC};
    setsockopt(nSocket, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof(idle));
    setsockopt(nSocket, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE, sizeof(RECEIVE_BUFFER_SIZE));
    if (bind(nSocket, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        *aError = std::strerror(errno);
        close(nSocket);
        return nullptr;
    }
    return std::make_unique<SocketSource>(nSocket, local);
}

}  // namespace rtp_monitor
