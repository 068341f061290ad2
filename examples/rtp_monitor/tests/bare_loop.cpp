// Reads a capture with libpcap and does nothing with it: what reading costs at least.
//
//   bare_loop call.pcap

#include <pcap/pcap.h>

#include <cstdio>
#include <cstdlib>

int main(int aArgCount, char** aArgs) {
    char szError[PCAP_ERRBUF_SIZE] = "";
    pcap_t* pPcap = aArgCount == 2 ? pcap_open_offline(aArgs[1], szError) : nullptr;
    if (pPcap == nullptr) {
        std::fprintf(stderr, "bare_loop: %s\n", szError);
        return EXIT_FAILURE;
    }
    pcap_pkthdr* pHeader = nullptr;
    const unsigned char* pData = nullptr;
    unsigned long long ullPackets = 0;
    unsigned long long ullBytes = 0;
    int rv = pcap_next_ex(pPcap, &pHeader, &pData);
    for (; rv == 1; rv = pcap_next_ex(pPcap, &pHeader, &pData)) {
        ++ullPackets;
        ullBytes += pHeader->caplen;
    }
    pcap_close(pPcap);
    std::printf("%llu packets, %llu bytes\n", ullPackets, ullBytes);
    return rv == PCAP_ERROR_BREAK ? EXIT_SUCCESS : EXIT_FAILURE;
}
