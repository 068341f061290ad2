// Sends one RTP stream to a port of this host, as fast as one socket takes it.
//
//   blast PORT SECONDS

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t HEADER_SIZE = 12;
constexpr size_t PAYLOAD_SIZE = 160;
constexpr uint32_t TICKS_PER_PACKET = 160;
constexpr int PACKETS_PER_LOOK = 64;  // at the clock

void Write32(unsigned char* aTo, uint32_t aNumber) {
    for (int i = 0; i < 4; ++i) {
        aTo[i] = static_cast<unsigned char>(aNumber >> (24 - 8 * i));
    }
}

}  // namespace

int main(int aArgCount, char** aArgs) {
    if (aArgCount != 3) {
        std::fprintf(stderr, "usage: blast PORT SECONDS\n");
        return EXIT_FAILURE;
    }
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::atoi(aArgs[1])));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (nSocket < 0 || connect(nSocket, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) {
        std::perror("blast");
        return EXIT_FAILURE;
    }
    unsigned char abyPacket[HEADER_SIZE + PAYLOAD_SIZE] = {0x80, 0};
    Write32(abyPacket + 8, 0x01020304);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(aArgs[2]));
    uint64_t ullSent = 0;
    while (ullSent % PACKETS_PER_LOOK != 0 || std::chrono::steady_clock::now() < end) {
        abyPacket[2] = static_cast<unsigned char>(ullSent >> 8);
        abyPacket[3] = static_cast<unsigned char>(ullSent);
        Write32(abyPacket + 4, static_cast<uint32_t>(ullSent * TICKS_PER_PACKET));
        if (send(nSocket, abyPacket, sizeof(abyPacket), 0) < 0) {
            if (errno == EINTR || errno == ENOBUFS) {
                continue;
            }
            std::perror("blast");
            return EXIT_FAILURE;
        }
        ++ullSent;
    }
    close(nSocket);
    std::printf("%llu\n", static_cast<unsigned long long>(ullSent));
    return EXIT_SUCCESS;
}
