// Transport addresses and the conversions between addresses and numbers.
#include <cstring>
#include <memory>

#include "../Fuzz.h"
#include "CmAddress.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    kelto_fuzz::Input input(aData, aSize);
    const int nSchemeSize = static_cast<int>(input.Byte() % 12);
    const int nIpSize = static_cast<int>(input.Byte() % 20);
    const auto ulId = input.Bits<uint32_t>();
    std::string sAddress = std::string(input.Rest().c_str());

    const std::unique_ptr<char[]> pScheme(new char[static_cast<size_t>(nSchemeSize)]);
    const std::unique_ptr<char[]> pIp(new char[static_cast<size_t>(nIpSize)]);
    unsigned short wPort = 0;
    const int nParsed = transport_address_parse(&sAddress[0], pScheme.get(), nSchemeSize, pIp.get(),
                                                nIpSize, &wPort);
    if (nParsed == 1) {
        const size_t nEnd = sAddress.find("://");
        Require(nEnd != std::string::npos && sAddress.size() <= 64, "what is no address fails");
        Require(nSchemeSize == 0 || sAddress.substr(0, nEnd).substr(
                                        0, static_cast<size_t>(nSchemeSize) - 1) == pScheme.get(),
                "scheme");
        Require(nIpSize == 0 ||
                    strnlen(pIp.get(), static_cast<size_t>(nIpSize)) < static_cast<size_t>(nIpSize),
                "the address is terminated");
    }

    Require(is_ip_address(&sAddress[0]) ==
                (sAddress.find_first_not_of("0123456789. \t") == std::string::npos ? 1 : 0),
            "is_ip_address");
    ip_2_id(&sAddress[0]);
    Require(ip_2_id(id_2_ip(ulId)) == ulId, "number to text and back");
    char szIp[CM_IP_TEXT_SIZE] = "";
    resolve_2_ip(&sAddress[0], szIp);
    resolve_to_ip(&sAddress[0], szIp);
    return 0;
}
