// Taking one URL apart.

#include "CmHttpUrl.h"

#include <cstring>

#include "CmTrace.h"
#include "Row.h"
#if KELTO_WITH_CURL
#include <curl/curl.h>
#endif
#if KELTO_WITH_GLIB
#include <glib.h>
#endif
#if KELTO_WITH_LIBEVENT
#include <event2/http.h>
#endif
#if KELTO_WITH_POCO
#include <Poco/URI.h>
#endif
#if KELTO_WITH_URIPARSER
#include <uriparser/Uri.h>
#endif

using namespace UTIL_NS;
using namespace kelto_bench;

namespace {

constexpr char AREA[] = "URL";
constexpr char WORK[] = "parse one URL";
constexpr char URL_TEXT[] = "http://conference.example.com:8080/rooms/1234?token=abcdef";

long s_lLines = 0;

void CountLine(unsigned long, const char*, unsigned int) {
    ++s_lLines;
}

// Its trace line, taken by a sink that drops it, is part of the work.
const Row s_ours(AREA, WORK, OURS, [](benchmark::State& aState) {
    set_util_external_trace_sink(CountLine);
    s_lLines = 0;
    const CCmString strUrl(URL_TEXT);
    for (auto _ : aState) {
        CCmHttpUrl url;
        Check(url.Init(strUrl) && url.GetPort() == 8080, AREA);
    }
    set_util_external_trace_sink(nullptr);
    Check(s_lLines == aState.iterations(), "one trace line each");
    CountItems(aState);
});

#if KELTO_WITH_LIBEVENT
const Row s_libevent(AREA, WORK, "libevent", [](benchmark::State& aState) {
    for (auto _ : aState) {
        evhttp_uri* pUri = evhttp_uri_parse(URL_TEXT);
        Check(pUri != nullptr && evhttp_uri_get_port(pUri) == 8080, AREA);
        evhttp_uri_free(pUri);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_CURL
const Row s_curl(AREA, WORK, "libcurl", [](benchmark::State& aState) {
    for (auto _ : aState) {
        CURLU* pUrl = curl_url();
        char* pszPort = nullptr;
        Check(curl_url_set(pUrl, CURLUPART_URL, URL_TEXT, 0) == CURLUE_OK &&
                  curl_url_get(pUrl, CURLUPART_PORT, &pszPort, 0) == CURLUE_OK &&
                  std::strcmp(pszPort, "8080") == 0,
              AREA);
        curl_free(pszPort);
        curl_url_cleanup(pUrl);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_GLIB
const Row s_glib(AREA, WORK, "GLib", [](benchmark::State& aState) {
    for (auto _ : aState) {
        GUri* pUri = g_uri_parse(URL_TEXT, G_URI_FLAGS_NONE, nullptr);
        Check(pUri != nullptr && g_uri_get_port(pUri) == 8080, AREA);
        g_uri_unref(pUri);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_POCO
const Row s_poco(AREA, WORK, "POCO", [](benchmark::State& aState) {
    const std::string url(URL_TEXT);
    for (auto _ : aState) {
        const Poco::URI uri(url);
        Check(uri.getPort() == 8080, AREA);
    }
    CountItems(aState);
});
#endif

#if KELTO_WITH_URIPARSER
const Row s_uriparser(AREA, WORK, "uriparser (pointers only)", [](benchmark::State& aState) {
    for (auto _ : aState) {
        UriUriA uri;
        Check(uriParseSingleUriA(&uri, URL_TEXT, nullptr) == URI_SUCCESS &&
                  *uri.portText.first == '8',
              AREA);
        uriFreeUriMembersA(&uri);
    }
    CountItems(aState);
});
#endif

}  // namespace
