// URLs, addresses and encodings, from texts that nobody vouches for.

#include <kelto_util.h>

#include <cstdio>
#include <cstdlib>

using namespace UTIL_NS;

namespace {

int Complain(const char* aText, const CCmParsed& aParsed) {
    std::fprintf(stderr, "%s: column %zu should be %s\n", aText, aParsed.m_nAt + 1,
                 aParsed.m_pszExpected);
    return EXIT_FAILURE;
}

}  // namespace

int main() {
    // The parts are views into the text; nothing is allocated.
    const char* pszUrl = "HTTP://me:secret@[2001:DB8::1]:80/a/./b?room+id=a%20b";
    CCmUrlParts url;
    CCmParsed parsed = CmParseUrl(pszUrl, url);
    if (!parsed) {
        return Complain(pszUrl, parsed);
    }
    CCmString strRoom;
    parsed = CmFindQueryParameter(url.m_query, "room id", strRoom);
    if (!parsed) {
        return Complain(pszUrl, parsed);
    }
    url.m_bHasUserInfo = false;  // passwords are not printed
    CCmString strNormal;
    if (CM_FAILED(CmNormalizeUrl(url, strNormal))) {
        return EXIT_FAILURE;
    }
    std::printf("port %u, room \"%s\", printed again: %s\n", CmUrlPort(url), strRoom.c_str(),
                strNormal.c_str());

    const char* pszEndpoint = "[::ffff:10.1.2.3]:5004";
    CCmEndpoint endpoint;
    parsed = CmParseEndpoint(pszEndpoint, endpoint);
    if (!parsed) {
        return Complain(pszEndpoint, parsed);
    }
    char achPrinted[CM_IP_PRINTED_SIZE];
    std::printf("endpoint %s\n", CmPrint(endpoint, achPrinted).data());

    CCmString strEncoded;
    CCmString strDecoded;
    if (CM_FAILED(CmEncodeBase64("hi", strEncoded)) || !CmDecodeBase64(strEncoded, strDecoded)) {
        return EXIT_FAILURE;
    }
    std::printf("%s is %s\n", strEncoded.c_str(), strDecoded.c_str());
    parsed = CmDecodeBase64("aG k=", strDecoded);
    std::printf("aG k= fails at column %zu, which should be %s\n", parsed.m_nAt + 1,
                parsed.m_pszExpected);
    return strNormal == "http://[2001:db8::1]/a/b?room+id=a%20b" && !parsed ? EXIT_SUCCESS
                                                                            : EXIT_FAILURE;
}
