// The strict parsers, each beside the well-kept parsers of the same texts.

#include "CmStrict.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "Row.h"
#if KELTO_WITH_ABSEIL
#include <absl/strings/numbers.h>
#endif
#if KELTO_WITH_CURL
#include <curl/curl.h>
#endif
#if KELTO_WITH_GLIB
#include <glib.h>
#endif
#if KELTO_WITH_OPENSSL
#include <openssl/evp.h>
#endif
#if KELTO_WITH_URIPARSER
#include <uriparser/Uri.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

// A row that parses one text, over and over; the compiler does not know what is in it.
void AddParser(const char* aWork, const char* aWho, const std::string& aText,
               bool (*aParse)(const std::string&)) {
    Row("strict", aWork, aWho, [=](benchmark::State& aState) {
        const std::string text = aText;
        for (auto _ : aState) {
            Touch(&text);
            Check(aParse(text), aWork);
        }
        CountBytes(aState, text.size());
    });
}

// ---- Numbers

bool ParseNumber(const std::string& aText) {
    int64_t llNumber = 0;
    return CmParseNumber(aText, llNumber) && llNumber == 1234567890123456789;
}

bool FromChars(const std::string& aText) {
    int64_t llNumber = 0;
    const char* pEnd = aText.data() + aText.size();
    const auto result = std::from_chars(aText.data(), pEnd, llNumber);
    return result.ec == std::errc() && result.ptr == pEnd && llNumber == 1234567890123456789;
}

bool Strtoll(const std::string& aText) {
    char* pEnd = nullptr;
    return std::strtoll(aText.c_str(), &pEnd, 10) == 1234567890123456789 && *pEnd == '\0';
}

bool ParseDuration(const std::string& aText) {
    CCmTimeValue tvDuration;
    return CmParseDuration(aText, tvDuration) && tvDuration.GetUsec() == 500000;
}

// ---- Addresses

bool ParseIpv4(const std::string& aText) {
    CCmIpAddress address;
    return CmParseIpv4(aText, address) && address.m_abyBytes[3] == 123;
}

bool ParseIpv6(const std::string& aText) {
    CCmIpAddress address;
    return CmParseIpv6(aText, address) && address.m_abyBytes[15] == 0x7A;
}

template <int Family, size_t Last, int Value>
bool InetPton(const std::string& aText) {
    unsigned char abyAddress[16];
    return inet_pton(Family, aText.c_str(), abyAddress) == 1 && abyAddress[Last] == Value;
}

bool PrintIpv6(const std::string& aText) {
    static CCmIpAddress s_address;
    if (s_address.m_family == CCmIpAddress::NONE) {
        CmParseIpv6(aText, s_address);
    }
    char achPrinted[CM_IP_PRINTED_SIZE];
    return CmPrint(s_address, achPrinted) == aText;
}

bool InetNtop(const std::string& aText) {
    static unsigned char s_abyAddress[16];
    static const bool s_bRead = inet_pton(AF_INET6, aText.c_str(), s_abyAddress) == 1;
    char achPrinted[INET6_ADDRSTRLEN];
    return s_bRead &&
           inet_ntop(AF_INET6, s_abyAddress, achPrinted, sizeof(achPrinted)) != nullptr &&
           aText == achPrinted;
}

// ---- URLs

bool ParseUrl(const std::string& aText) {
    CCmUrlParts url;
    return CmParseUrl(aText, url) && url.m_wPort == 8080;
}

bool NormalizeUrl(const std::string& aText) {
    static CCmString s_strNormal;
    CCmUrlParts url;
    return CmParseUrl(aText, url) && CmNormalizeUrl(url, s_strNormal) == CM_OK &&
           s_strNormal.compare(0, 10, "http://a/b") == 0;
}

#if KELTO_WITH_CURL
bool CurlUrl(const std::string& aText) {
    CURLU* pUrl = curl_url();
    char* pszPort = nullptr;
    const bool bGood = curl_url_set(pUrl, CURLUPART_URL, aText.c_str(), 0) == CURLUE_OK &&
                       curl_url_get(pUrl, CURLUPART_PORT, &pszPort, 0) == CURLUE_OK &&
                       std::strcmp(pszPort, "8080") == 0;
    curl_free(pszPort);
    curl_url_cleanup(pUrl);
    return bGood;
}
#endif

#if KELTO_WITH_GLIB
bool GlibUrl(const std::string& aText) {
    GUri* pUri = g_uri_parse(aText.c_str(), G_URI_FLAGS_NONE, nullptr);
    const bool bGood = pUri != nullptr && g_uri_get_port(pUri) == 8080;
    g_uri_unref(pUri);
    return bGood;
}

bool GlibUtf8(const std::string& aText) {
    return g_utf8_validate_len(aText.data(), aText.size(), nullptr) != FALSE;
}

bool GlibBase64(const std::string& aText) {
    gsize nLength = 0;
    guchar* pBytes = g_base64_decode(aText.c_str(), &nLength);
    g_free(pBytes);
    return nLength == 1200;
}
#endif

#if KELTO_WITH_URIPARSER
bool UriparserUrl(const std::string& aText) {
    UriUriA uri;
    const bool bGood = uriParseSingleUriA(&uri, aText.c_str(), nullptr) == URI_SUCCESS &&
                       *uri.portText.first == '8';
    uriFreeUriMembersA(&uri);
    return bGood;
}

bool UriparserNormalize(const std::string& aText) {
    UriUriA uri;
    char achText[128] = "";
    const bool bGood = uriParseSingleUriA(&uri, aText.c_str(), nullptr) == URI_SUCCESS &&
                       uriNormalizeSyntaxA(&uri) == URI_SUCCESS &&
                       uriToStringA(achText, &uri, sizeof(achText), nullptr) == URI_SUCCESS;
    uriFreeUriMembersA(&uri);
    return bGood && std::strncmp(achText, "http://a/b", 10) == 0;
}
#endif

// ---- Base64, UTF-8

template <CmBase64Alphabet Alphabet>
bool DecodeBase64(const std::string& aText) {
    static unsigned char s_abyOut[2000];
    size_t nLength = 0;
    return CmDecodeBase64(aText, s_abyOut, sizeof(s_abyOut), nLength, Alphabet) && nLength == 1200;
}

#if KELTO_WITH_OPENSSL
bool OpensslBase64(const std::string& aText) {
    static unsigned char s_abyOut[2000];
    return EVP_DecodeBlock(s_abyOut, reinterpret_cast<const unsigned char*>(aText.data()),
                           static_cast<int>(aText.size())) == 1200;
}
#endif

bool CheckUtf8(const std::string& aText) {
    return static_cast<bool>(CmCheckUtf8(aText));
}

std::string Repeated(const char* aText, size_t aSize) {
    std::string text;
    while (text.size() < aSize) {
        text += aText;
    }
    return text;
}

const bool s_bAdded = [] {
    constexpr char NUMBER[] = "1234567890123456789";
    constexpr char IPV4[] = "192.0.2.123";
    constexpr char IPV6[] = "2001:db8::8:800:200c:417a";
    constexpr char URL[] = "http://conference.example.com:8080/rooms/1234?token=abcdef";
    constexpr char UNTIDY_URL[] = "HTTP://A/./b/../b/%63/%7bfoo%7d";
    AddParser("number of 19 digits", OURS, NUMBER, ParseNumber);
    AddParser("number of 19 digits", "from_chars", NUMBER, FromChars);
    AddParser("number of 19 digits", "strtoll", NUMBER, Strtoll);
#if KELTO_WITH_ABSEIL
    AddParser("number of 19 digits", "Abseil", NUMBER, [](const std::string& aText) {
        int64_t llNumber = 0;
        return absl::SimpleAtoi(aText, &llNumber) && llNumber == 1234567890123456789;
    });
#endif
    AddParser("duration", OURS, "1.5s", ParseDuration);
    AddParser("IPv4 address", OURS, IPV4, ParseIpv4);
    AddParser("IPv4 address", "inet_pton", IPV4, InetPton<AF_INET, 3, 123>);
    AddParser("IPv6 address", OURS, IPV6, ParseIpv6);
    AddParser("IPv6 address", "inet_pton", IPV6, InetPton<AF_INET6, 15, 0x7A>);
    AddParser("IPv6 address printed", OURS, IPV6, PrintIpv6);
    AddParser("IPv6 address printed", "inet_ntop", IPV6, InetNtop);
    AddParser("URL", OURS, URL, ParseUrl);
    AddParser("URL parsed and in normal form", OURS, UNTIDY_URL, NormalizeUrl);
#if KELTO_WITH_CURL
    AddParser("URL", "libcurl", URL, CurlUrl);
#endif
#if KELTO_WITH_GLIB
    AddParser("URL", "GLib", URL, GlibUrl);
#endif
#if KELTO_WITH_URIPARSER
    AddParser("URL", "uriparser", URL, UriparserUrl);
    AddParser("URL parsed and in normal form", "uriparser", UNTIDY_URL, UriparserNormalize);
#endif
    const std::string base64 = Repeated("QUJD", 1600);
    AddParser("base64, 1600 characters", OURS, base64, DecodeBase64<CmBase64Alphabet::STANDARD>);
    AddParser("base64, 1600 characters, URL alphabet", OURS, base64,
              DecodeBase64<CmBase64Alphabet::URL>);
#if KELTO_WITH_OPENSSL
    AddParser("base64, 1600 characters", "OpenSSL", base64, OpensslBase64);
#endif
    const std::string ascii = Repeated("plain text, ", 1200);
    const std::string mixed = Repeated("Grüße, 世界 😀! ", 1200);
    AddParser("UTF-8, ASCII, 1200 bytes", OURS, ascii, CheckUtf8);
    AddParser("UTF-8, mixed, 1200 bytes", OURS, mixed, CheckUtf8);
#if KELTO_WITH_GLIB
    AddParser("base64, 1600 characters", "GLib", base64, GlibBase64);
    AddParser("UTF-8, ASCII, 1200 bytes", "GLib", ascii, GlibUtf8);
    AddParser("UTF-8, mixed, 1200 bytes", "GLib", mixed, GlibUtf8);
#endif
    return true;
}();

}  // namespace
