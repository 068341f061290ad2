// Base64 and URL escaping.

#include "CmEncoding.h"

#include <cstring>

#include "Row.h"
#if KELTO_WITH_ABSEIL
#include <absl/strings/escaping.h>
#endif
#if KELTO_WITH_BOOST
#include <boost/beast/core/detail/base64.hpp>
#endif
#if KELTO_WITH_CURL
#include <curl/curl.h>
#endif
#if KELTO_WITH_GLIB
#include <glib.h>
#endif
#if KELTO_WITH_LIBEVENT
#include <event2/http.h>
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

// ---- Base64. aOut keeps its memory from call to call, where the peer allows it.

typedef void (*Codec)(const std::string& aIn, std::string& aOut);

void OursEncode(const std::string& aIn, std::string& aOut) {
    CM_Base64Encode(aIn.data(), aIn.size(), aOut);
}

void OursDecode(const std::string& aIn, std::string& aOut) {
    CM_Base64Decode(aIn.c_str(), aOut);
}

unsigned char* Bytes(const std::string& aText) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(aText.data()));
}

void OursBufferEncode(const std::string& aIn, std::string& aOut) {
    aOut.resize(xbase64_calc_encode_buf_size(Bytes(aIn), aIn.size()));
    aOut.resize(
        static_cast<size_t>(xbase64_encode(Bytes(aIn), aIn.size(), Bytes(aOut), aOut.size())));
}

void OursBufferDecode(const std::string& aIn, std::string& aOut) {
    aOut.resize(aIn.size() / 4 * 3);
    aOut.resize(xbase64_decode(Bytes(aIn), aIn.size(), Bytes(aOut), aOut.size()));
}

void Copy(const std::string& aIn, std::string& aOut) {
    aOut.assign(aIn);
}

#if KELTO_WITH_OPENSSL
void OpensslEncode(const std::string& aIn, std::string& aOut) {
    aOut.resize((aIn.size() + 2) / 3 * 4 + 1);
    aOut.resize(static_cast<size_t>(
        EVP_EncodeBlock(Bytes(aOut), Bytes(aIn), static_cast<int>(aIn.size()))));
}

void OpensslDecode(const std::string& aIn, std::string& aOut) {
    aOut.resize(aIn.size() / 4 * 3);
    const int nLength = EVP_DecodeBlock(Bytes(aOut), Bytes(aIn), static_cast<int>(aIn.size()));
    size_t nPadding = 0;
    while (aIn[aIn.size() - 1 - nPadding] == '=') {
        ++nPadding;
    }
    aOut.resize(static_cast<size_t>(nLength) - nPadding);
}
#endif

#if KELTO_WITH_ABSEIL
void AbseilEncode(const std::string& aIn, std::string& aOut) {
    absl::Base64Escape(aIn, &aOut);
}

void AbseilDecode(const std::string& aIn, std::string& aOut) {
    absl::Base64Unescape(aIn, &aOut);
}
#endif

#if KELTO_WITH_BOOST
namespace beast64 = boost::beast::detail::base64;

void BeastEncode(const std::string& aIn, std::string& aOut) {
    aOut.resize(beast64::encoded_size(aIn.size()));
    aOut.resize(beast64::encode(&aOut[0], aIn.data(), aIn.size()));
}

void BeastDecode(const std::string& aIn, std::string& aOut) {
    aOut.resize(beast64::decoded_size(aIn.size()));
    aOut.resize(beast64::decode(&aOut[0], aIn.data(), aIn.size()).first);
}
#endif

#if KELTO_WITH_GLIB
void GlibEncode(const std::string& aIn, std::string& aOut) {
    char* pszText = g_base64_encode(Bytes(aIn), aIn.size());
    aOut.assign(pszText);
    g_free(pszText);
}

void GlibDecode(const std::string& aIn, std::string& aOut) {
    gsize nLength = 0;
    unsigned char* pBytes = g_base64_decode(aIn.c_str(), &nLength);
    aOut.assign(reinterpret_cast<char*>(pBytes), nLength);
    g_free(pBytes);
}
#endif

// Rates count the bytes, not the text, in both directions.
void AddCodec(const std::string& aWork, size_t aSize, const char* aWho, Codec aCodec, bool aDecodes,
              bool aFresh, bool aCopies = false) {
    Row("base64", aWork, aWho, [=](benchmark::State& aState) {
        const std::string bytes = RandomBytes(aSize);
        std::string text;
        OursEncode(bytes, text);
        Check(text.size() == (aSize + 2) / 3 * 4, "base64 length");
        const std::string& in = aDecodes ? text : bytes;
        const std::string& expected = aCopies ? in : aDecodes ? bytes : text;
        std::string kept;
        for (auto _ : aState) {
            if (aFresh) {
                std::string out;
                aCodec(in, out);
                Touch(out.data());
                kept.swap(out);
            } else {
                aCodec(in, kept);
                Touch(kept.data());
            }
        }
        Check(kept == expected, "base64");
        CountBytes(aState, aSize);
    });
}

void AddCodecs(size_t aSize, const char* aSizeText) {
    const std::string encode = std::string("encode ") + aSizeText;
    const std::string decode = std::string("decode ") + aSizeText;
    AddCodec(encode, aSize, OURS, OursEncode, false, false);
    AddCodec(decode, aSize, OURS, OursDecode, true, false);
    AddCodec(encode, aSize, "limit: copy", Copy, false, false, true);
    AddCodec(decode, aSize, "limit: copy", Copy, true, false, true);
    const std::string encodeBuffer = encode + ", buffers";
    const std::string decodeBuffer = decode + ", buffers";
    AddCodec(encodeBuffer, aSize, OURS, OursBufferEncode, false, false);
    AddCodec(decodeBuffer, aSize, OURS, OursBufferDecode, true, false);
    const std::string encodeFresh = encode + ", new string";
    const std::string decodeFresh = decode + ", new string";
    AddCodec(encodeFresh, aSize, OURS, OursEncode, false, true);
    AddCodec(decodeFresh, aSize, OURS, OursDecode, true, true);
#if KELTO_WITH_OPENSSL
    AddCodec(encode, aSize, "OpenSSL", OpensslEncode, false, false);
    AddCodec(decode, aSize, "OpenSSL", OpensslDecode, true, false);
    AddCodec(encodeBuffer, aSize, "OpenSSL", OpensslEncode, false, false);
    AddCodec(decodeBuffer, aSize, "OpenSSL", OpensslDecode, true, false);
    AddCodec(encodeFresh, aSize, "OpenSSL", OpensslEncode, false, true);
    AddCodec(decodeFresh, aSize, "OpenSSL", OpensslDecode, true, true);
#endif
#if KELTO_WITH_ABSEIL
    AddCodec(encode, aSize, "Abseil", AbseilEncode, false, false);
    AddCodec(decode, aSize, "Abseil", AbseilDecode, true, false);
    AddCodec(encodeFresh, aSize, "Abseil", AbseilEncode, false, true);
    AddCodec(decodeFresh, aSize, "Abseil", AbseilDecode, true, true);
#endif
#if KELTO_WITH_BOOST
    AddCodec(encode, aSize, "Boost.Beast", BeastEncode, false, false);
    AddCodec(decode, aSize, "Boost.Beast", BeastDecode, true, false);
#endif
#if KELTO_WITH_GLIB
    AddCodec(encode, aSize, "GLib", GlibEncode, false, false);
    AddCodec(decode, aSize, "GLib", GlibDecode, true, false);
#endif
}

// ---- URL escaping: 64 characters, a quarter of which must be escaped.

constexpr char TO_ESCAPE[] = "name=J. Doe&room=A+B/1&text=hello, world; see you at 9:30 (UTC)?";
static_assert(sizeof(TO_ESCAPE) == 64 + 1);
constexpr char ESCAPE_AREA[] = "URL escape";
constexpr char ESCAPE_WORK[] = "64 B";
// The same with upper-case hexadecimal; the peers differ in what they leave alone.
constexpr size_t LEAST_ESCAPED = 64 + 2 * 10;

void CheckEscaped(const char* aText) {
    Check(std::strlen(aText) >= LEAST_ESCAPED && std::strncmp(aText, "name", 4) == 0, ESCAPE_AREA);
}

const Row s_oursEscape(ESCAPE_AREA, ESCAPE_WORK, OURS, [](benchmark::State& aState) {
    char achText[sizeof(TO_ESCAPE)];
    std::memcpy(achText, TO_ESCAPE, sizeof(TO_ESCAPE));
    char achOut[256];
    for (auto _ : aState) {
        Touch(achText);
        url_string_encode(achText, achOut, 240);
        Touch(achOut);
    }
    CheckEscaped(achOut);
    Check(std::strncmp(achOut, "name%3dJ%2e+Doe%26room", 22) == 0, ESCAPE_AREA);
    CountItems(aState);
});

#if KELTO_WITH_GLIB
const Row s_glibEscape(ESCAPE_AREA, ESCAPE_WORK, "GLib", [](benchmark::State& aState) {
    for (auto _ : aState) {
        char* pszText = g_uri_escape_string(TO_ESCAPE, nullptr, FALSE);
        CheckEscaped(pszText);
        g_free(pszText);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_CURL
const Row s_curlEscape(ESCAPE_AREA, ESCAPE_WORK, "libcurl", [](benchmark::State& aState) {
    CURL* pCurl = curl_easy_init();
    for (auto _ : aState) {
        char* pszText = curl_easy_escape(pCurl, TO_ESCAPE, 64);
        CheckEscaped(pszText);
        curl_free(pszText);
    }
    curl_easy_cleanup(pCurl);
    CountItems(aState);
});
#endif

#if KELTO_WITH_LIBEVENT
const Row s_libeventEscape(ESCAPE_AREA, ESCAPE_WORK, "libevent", [](benchmark::State& aState) {
    for (auto _ : aState) {
        char* pszText = evhttp_uriencode(TO_ESCAPE, 64, 1);
        CheckEscaped(pszText);
        free(pszText);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_URIPARSER
const Row s_uriparserEscape(ESCAPE_AREA, ESCAPE_WORK, "uriparser", [](benchmark::State& aState) {
    char achOut[256];
    for (auto _ : aState) {
        uriEscapeA(TO_ESCAPE, achOut, URI_TRUE, URI_FALSE);
        Touch(achOut);
    }
    CheckEscaped(achOut);
    CountItems(aState);
});
#endif

const bool s_bAdded = [] {
    AddCodecs(32, "32 B");
    AddCodecs(1024, "1 KiB");
    AddCodecs(1024 * 1024, "1 MiB");
    return true;
}();

}  // namespace
