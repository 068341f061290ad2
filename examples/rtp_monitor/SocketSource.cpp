#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "CmAddress.h"
#include "CmTimeValue.h"
#include "PacketSource.h"

namespace rtp_monitor {

namespace {

constexpr char EMPTY_HOST[] = "udp://:";
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

// Fills aLocal from udp://ADDRESS:PORT. The library takes more than that for an address: no host,
// and ports of which it keeps the low 16 bits.
bool ParseAddress(std::string aAddress, sockaddr_in* aLocal) {
    const std::string sPort = aAddress.substr(aAddress.rfind(':') + 1);
    char achScheme[8] = "";
    char achIp[UTIL_NS::CM_IP_TEXT_SIZE] = "";
    unsigned short wPort = 0;
    if (aAddress.rfind(EMPTY_HOST, 0) == 0 ||
        UTIL_NS::transport_address_parse(&aAddress[0], achScheme, sizeof(achScheme), achIp,
                                         sizeof(achIp), &wPort) == 0 ||
        std::strcmp(achScheme, "udp") != 0 || wPort == 0 || sPort != std::to_string(wPort)) {
        return false;
    }
    aLocal->sin_family = AF_INET;
    aLocal->sin_port = htons(wPort);
    aLocal->sin_addr.s_addr = htonl(static_cast<uint32_t>(UTIL_NS::ip_2_id(achIp)));
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
