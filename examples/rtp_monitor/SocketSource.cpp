#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/sock_diag.h>
#endif

#include <atomic>
#include <cstring>
#include <utility>

#include "ArrivalClock.h"
#include "CmStrict.h"
#include "CmTimeValue.h"
#include "Monotonic.h"
#include "PacketSource.h"

namespace rtp_monitor {

namespace {

using UTIL_NS::CCmIpAddress;

constexpr char SCHEME[] = "udp";
constexpr char INTERFACE_PARAMETER[] = "interface";
constexpr uint32_t MAX_UDP_SIZE = 65536;
constexpr int PACKETS_PER_TURN = 64;  // of one socket before the next is looked at
constexpr int64_t USEC_PER_SEC = 1000000;

// What a user may write, taken apart.
struct CSocketAddress {
    UTIL_NS::CCmEndpoint endpoint;
    unsigned interface = 0;  // of a group; 0: the system chooses

    bool IsGroup() const {
        return endpoint.m_address.m_family == CCmIpAddress::IPV6
                   ? endpoint.m_address.m_abyBytes[0] == 0xFF
                   : endpoint.m_address.m_abyBytes[0] >> 4 == 0xE;
    }
};

// One socket. Counters are read by any thread.
class CSocket {
  public:
    // aBuffer: bytes that the system is asked to keep.
    CSocket(std::string aName, const CSocketAddress& aAddress, int aBuffer)
        : m_sName(std::move(aName)), m_address(aAddress), m_nBufferAsked(aBuffer) {}
    ~CSocket() {
        if (m_nSocket >= 0) {
            close(m_nSocket);
        }
    }
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // False with the reason in errno.
    bool Open();
    // Bytes received at aBuffer, or negative with the reason in errno.
    ssize_t Receive(char* aBuffer, uint32_t aSize, CPacket* aPacket);
    int descriptor() const { return m_nSocket; }
    CInputReport Report() const;

  private:
    bool SetInt(int aLevel, int aOption, int aValue) const {
        return setsockopt(m_nSocket, aLevel, aOption, &aValue, sizeof(aValue)) == 0;
    }
    bool SetBuffer();
    bool Join();
    void ReadControl(msghdr* aMessage, CPacket* aPacket);

    const std::string m_sName;
    const CSocketAddress m_address;
    const int m_nBufferAsked;
    int m_nSocket = -1;
    int m_nBuffer = 0;
    uint32_t m_dwDropped = 0;  // before the last packet; as the system counts, modulo 2^32
    mutable std::atomic<uint64_t> m_ullDropped{0};  // at the last report
};

bool CSocket::Open() {
    sockaddr_storage local = {};
    socklen_t nLength = 0;
    if (CM_FAILED(UTIL_NS::CmToSocketAddress(m_address.endpoint, local, nLength))) {
        errno = ENXIO;
        return false;
    }
    if (local.ss_family == AF_INET6 && m_address.interface != 0) {
        reinterpret_cast<sockaddr_in6*>(&local)->sin6_scope_id = m_address.interface;
    }
    m_nSocket = socket(local.ss_family, SOCK_DGRAM, 0);
    if (m_nSocket < 0 || fcntl(m_nSocket, F_SETFL, O_NONBLOCK) != 0 ||
        fcntl(m_nSocket, F_SETFD, FD_CLOEXEC) != 0 || !SetBuffer()) {
        return false;
    }
    if (local.ss_family == AF_INET6 && !SetInt(IPPROTO_IPV6, IPV6_V6ONLY, 1)) {
        return false;
    }
    // Several programs may listen to a group.
    if (m_address.IsGroup() && !SetInt(SOL_SOCKET, SO_REUSEADDR, 1)) {
        return false;
    }
#if defined(SO_TIMESTAMPNS)
    const int nStamps = SO_TIMESTAMPNS;
#else
    const int nStamps = SO_TIMESTAMP;
#endif
    if (!SetInt(SOL_SOCKET, nStamps, 1)) {
        return false;
    }
#if defined(SO_RXQ_OVFL)
    if (!SetInt(SOL_SOCKET, SO_RXQ_OVFL, 1)) {
        return false;
    }
#endif
    return bind(m_nSocket, reinterpret_cast<const sockaddr*>(&local), nLength) == 0 &&
           (!m_address.IsGroup() || Join());
}

// The system may grant less than was asked for, without a word.
bool CSocket::SetBuffer() {
    socklen_t nLength = sizeof(m_nBuffer);
    return SetInt(SOL_SOCKET, SO_RCVBUF, m_nBufferAsked) &&
           getsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &m_nBuffer, &nLength) == 0;
}

bool CSocket::Join() {
    const auto& abyGroup = m_address.endpoint.m_address.m_abyBytes;
    if (m_address.endpoint.m_address.m_family == CCmIpAddress::IPV6) {
        ipv6_mreq request = {};
        std::memcpy(&request.ipv6mr_multiaddr, abyGroup.data(), sizeof(request.ipv6mr_multiaddr));
        request.ipv6mr_interface = m_address.interface;
        return setsockopt(m_nSocket, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof(request)) == 0;
    }
    ip_mreqn request = {};
    std::memcpy(&request.imr_multiaddr, abyGroup.data(), sizeof(request.imr_multiaddr));
    request.imr_ifindex = static_cast<int>(m_address.interface);
    return setsockopt(m_nSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0;
}

ssize_t CSocket::Receive(char* aBuffer, uint32_t aSize, CPacket* aPacket) {
    sockaddr_storage from = {};
    iovec piece = {aBuffer, aSize};
    alignas(cmsghdr) char achControl[128];
    msghdr message = {};
    message.msg_name = &from;
    message.msg_namelen = sizeof(from);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = achControl;
    message.msg_controllen = sizeof(achControl);
    const ssize_t nSize = recvmsg(m_nSocket, &message, 0);
    if (nSize < 0) {
        return nSize;
    }
    aPacket->arrivalUsec = MonotonicUsec();
    ReadControl(&message, aPacket);
    UTIL_NS::CCmEndpoint source;
    if (CM_FAILED(UTIL_NS::CmFromSocketAddress(reinterpret_cast<const sockaddr*>(&from),
                                               message.msg_namelen, source))) {
        source = UTIL_NS::CCmEndpoint();
    }
    const UTIL_NS::CCmEndpoint& local = m_address.endpoint;
    aPacket->key = CStreamKey();
    aPacket->key.ipVersion = local.m_address.m_family == CCmIpAddress::IPV6 ? 6 : 4;
    aPacket->key.source = source.m_address.m_abyBytes;
    aPacket->key.sourcePort = source.m_wPort;
    aPacket->key.destination = local.m_address.m_abyBytes;
    aPacket->key.destinationPort = local.m_wPort;
    aPacket->dropped = m_dwDropped;
    return nSize;
}

// The time of arrival, and what had been dropped by then.
void CSocket::ReadControl(msghdr* aMessage, CPacket* aPacket) {
    for (cmsghdr* pControl = CMSG_FIRSTHDR(aMessage); pControl != nullptr;
         pControl = CMSG_NXTHDR(aMessage, pControl)) {
        if (pControl->cmsg_level != SOL_SOCKET) {
            continue;
        }
        int64_t llStampUsec = -1;
#if defined(SO_TIMESTAMPNS)
        if (pControl->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp = {};
            std::memcpy(&stamp, CMSG_DATA(pControl), sizeof(stamp));
            llStampUsec = stamp.tv_sec * USEC_PER_SEC + stamp.tv_nsec / 1000;
        }
#else
        if (pControl->cmsg_type == SCM_TIMESTAMP) {
            timeval stamp = {};
            std::memcpy(&stamp, CMSG_DATA(pControl), sizeof(stamp));
            llStampUsec = stamp.tv_sec * USEC_PER_SEC + stamp.tv_usec;
        }
#endif
        if (llStampUsec >= 0) {
            aPacket->arrivalUsec = ArrivalUsec(
                llStampUsec, ToUsec(UTIL_NS::CCmTimeValue::GetTimeOfDay()), aPacket->arrivalUsec);
        }
#if defined(SO_RXQ_OVFL)
        if (pControl->cmsg_type == SO_RXQ_OVFL) {
            std::memcpy(&m_dwDropped, CMSG_DATA(pControl), sizeof(m_dwDropped));
        }
#endif
    }
}

CInputReport CSocket::Report() const {
    CInputReport report;
    report.name = m_sName;
    report.isSocket = true;
    report.isGroup = m_address.IsGroup();
    report.bufferAsked = static_cast<uint64_t>(m_nBufferAsked);
    report.bufferGranted = static_cast<uint64_t>(m_nBuffer);
#if defined(__linux__)
    // Linux doubles what was asked for, for what it keeps beside the packets.
    report.bufferGranted /= 2;
#endif
#if defined(SO_MEMINFO)
    // Also those that no packet has followed yet.
    uint32_t figures[SK_MEMINFO_VARS] = {};
    socklen_t nLength = sizeof(figures);
    if (getsockopt(m_nSocket, SOL_SOCKET, SO_MEMINFO, figures, &nLength) == 0) {
        report.isDropKnown = true;
        // The system counts modulo 2^32.
        const uint64_t ullBefore = m_ullDropped.load(std::memory_order_relaxed);
        report.dropped = ullBefore + static_cast<uint32_t>(figures[SK_MEMINFO_DROPS] - ullBefore);
        m_ullDropped.store(report.dropped, std::memory_order_relaxed);
    }
#endif
    return report;
}

class CSocketSource : public IPacketSource {
  public:
    explicit CSocketSource(std::vector<std::unique_ptr<CSocket>> aSockets)
        : m_sockets(std::move(aSockets)) {}

    ERead Read(CPacket* aPacket, EFrame* aReason) override;
    void AddDescriptors(std::vector<pollfd>* aDescriptors) const override {
        for (const std::unique_ptr<CSocket>& socket : m_sockets) {
            aDescriptors->push_back({socket->descriptor(), POLLIN, 0});
        }
    }
    std::string error() const override { return m_sError; }
    bool IsRecorded() const override { return false; }
    int percent() const override { return -1; }
    std::vector<CInputReport> Inputs() const override {
        std::vector<CInputReport> inputs;
        for (const std::unique_ptr<CSocket>& socket : m_sockets) {
            inputs.push_back(socket->Report());
        }
        return inputs;
    }

  private:
    void NextSocket() {
        m_nSocket = (m_nSocket + 1) % m_sockets.size();
        m_nTurn = 0;
    }

    const std::vector<std::unique_ptr<CSocket>> m_sockets;
    size_t m_nSocket = 0;  // whose turn it is
    int m_nTurn = 0;       // packets of it
    std::string m_sError;
    CBlockPool m_pool;
    DataBlockPtr m_block;  // that packets are received into, one after the other
    uint32_t m_dwUsed = 0;
};

ERead CSocketSource::Read(CPacket* aPacket, EFrame* /*aReason*/) {
    if (m_block.ParaIn() == nullptr || m_block->m_dwSize - m_dwUsed < MAX_UDP_SIZE) {
        m_block = nullptr;
        m_block = m_pool.Take();
        m_dwUsed = 0;
    }
    if (m_block.ParaIn() == nullptr) {
        m_sError = "there is too little memory";
        return ERead::FAILED;
    }
    for (size_t nIdle = 0; nIdle < m_sockets.size();) {
        if (++m_nTurn > PACKETS_PER_TURN) {
            NextSocket();
        }
        const ssize_t nSize =
            m_sockets[m_nSocket]->Receive(m_block->m_pPayload + m_dwUsed, MAX_UDP_SIZE, aPacket);
        if (nSize >= 0) {
            if (aPacket->block.ParaIn() != m_block.ParaIn()) {
                aPacket->block = m_block;
            }
            aPacket->offset = m_dwUsed;
            aPacket->size = aPacket->wireSize = static_cast<uint32_t>(nSize);
            m_dwUsed += static_cast<uint32_t>(nSize);
            return ERead::PACKET;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            NextSocket();
            ++nIdle;
        } else if (errno != EINTR && errno != ECONNREFUSED) {
            m_sError = std::strerror(errno);
            return ERead::FAILED;
        }
    }
    return ERead::IDLE;
}

// False when aText is not of the form that OpenSockets takes.
bool ParseAddress(const std::string& aText, CSocketAddress* aAddress, std::string* aError) {
    UTIL_NS::CCmUrlParts url;
    *aError = "it is not of the form udp://ADDRESS:PORT";
    if (!UTIL_NS::CmParseUrl(aText, url) || url.m_scheme != SCHEME ||
        (url.m_hostKind != UTIL_NS::CCmUrlParts::IPV4_HOST &&
         url.m_hostKind != UTIL_NS::CCmUrlParts::IPV6_HOST) ||
        url.m_wPort == 0 || url.m_bHasUserInfo || !url.m_path.empty() || url.m_bHasFragment) {
        return false;
    }
    aAddress->endpoint = {url.m_hostAddress, url.m_wPort};
    std::string sInterface(url.m_hostAddress.m_achZone.data());
    if (url.m_bHasQuery) {
        UTIL_NS::CCmString strName;
        if (!aAddress->IsGroup() ||
            !UTIL_NS::CmFindQueryParameter(url.m_query, INTERFACE_PARAMETER, strName)) {
            return false;
        }
        sInterface = strName;
    }
    if (aAddress->IsGroup() && !sInterface.empty()) {
        aAddress->interface = if_nametoindex(sInterface.c_str());
        *aError = "there is no interface " + sInterface;
        return aAddress->interface != 0;
    }
    return true;
}

}  // namespace

std::unique_ptr<IPacketSource> OpenSockets(const std::vector<std::string>& aAddresses, int aBuffer,
                                           std::string* aError) {
    std::vector<std::unique_ptr<CSocket>> sockets;
    for (const std::string& sText : aAddresses) {
        CSocketAddress address;
        if (!ParseAddress(sText, &address, aError)) {
            *aError = "cannot read from " + sText + ": " + *aError;
            return nullptr;
        }
        sockets.push_back(std::make_unique<CSocket>(sText, address, aBuffer));
        if (!sockets.back()->Open()) {
            *aError = "cannot read from " + sText + ": " + std::strerror(errno);
            return nullptr;
        }
    }
    return std::make_unique<CSocketSource>(std::move(sockets));
}

}  // namespace rtp_monitor
