// URLs, addresses and encodings.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

int main() {
    // URL objects are counted; one on the heap ends with its last reference.
    CCmComAutoPtr<CCmHttpUrl> pUrl(new CCmHttpUrl);
    if (!pUrl->Init("HTTP://example.test:8080/a/b")) {
        return EXIT_FAILURE;
    }
    std::printf("%s on %s, port %u, path %s\n", pUrl->GetScheme().c_str(),
                pUrl->GetHostName().c_str(), pUrl->GetPort(), pUrl->GetPath().c_str());
    pUrl->SetPort(0);  // the scheme's default
    std::printf("printed again: %s\n", pUrl->GetAsciiSpec().c_str());

    CCmString sEncoded;
    CM_Base64Encode(reinterpret_cast<const unsigned char*>("hi"), 2, sEncoded);
    CCmString sDecoded;
    CM_Base64Decode(sEncoded.c_str(), sDecoded);
    std::printf("%s is %s\n", sEncoded.c_str(), sDecoded.c_str());

    char achQuery[] = "a b/c";
    char achEscaped[3 * sizeof(achQuery) + 3];
    std::printf("escaped: %s\n",
                url_string_encode(achQuery, achEscaped, static_cast<int>(3 * sizeof(achQuery))));

    char achAddress[] = "udp://10.1.2.3:5004";
    char achScheme[8];
    char achIp[16];
    unsigned short wPort = 0;
    if (transport_address_parse(achAddress, achScheme, sizeof(achScheme), achIp, sizeof(achIp),
                                &wPort) == 0) {
        return EXIT_FAILURE;
    }
    std::printf("%s to %s, port %u, number %lu\n", achScheme, achIp, wPort, ip_2_id(achIp));
    return pUrl->GetAsciiSpec() == "http://example.test/a/b" && sDecoded == "hi" ? EXIT_SUCCESS
                                                                                 : EXIT_FAILURE;
}
