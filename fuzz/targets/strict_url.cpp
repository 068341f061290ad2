// Strict URLs, their normal form and references, against uriparser.
#if KELTO_WITH_URIPARSER
#include <uriparser/Uri.h>
#endif

#include "../Fuzz.h"
#include "CmStrict.h"

using kelto_fuzz::Require;
using namespace UTIL_NS;

namespace {

#if KELTO_WITH_URIPARSER

class Peer {
  public:
    explicit Peer(const std::string& aText)
        : m_bGood(uriParseSingleUriExA(&m_uri, aText.data(), aText.data() + aText.size(),
                                       nullptr) == URI_SUCCESS) {}
    Peer() : m_uri(), m_bGood(false) {}
    ~Peer() {
        if (m_bGood) {
            uriFreeUriMembersA(&m_uri);
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool IsGood() const { return m_bGood; }
    const UriUriA& uri() const { return m_uri; }
    bool Resolve(const Peer& aBase, const Peer& aReference) {
        m_bGood = uriAddBaseUriA(&m_uri, &aReference.m_uri, &aBase.m_uri) == URI_SUCCESS;
        return m_bGood;
    }
    bool Normalize() { return uriNormalizeSyntaxA(&m_uri) == URI_SUCCESS; }
    std::string Print() const {
        int nLength = 0;
        Require(uriToStringCharsRequiredA(&m_uri, &nLength) == URI_SUCCESS, "their length");
        std::string sText(static_cast<size_t>(nLength) + 1, '\0');
        Require(uriToStringA(&sText[0], &m_uri, nLength + 1, nullptr) == URI_SUCCESS, "prints");
        sText.resize(static_cast<size_t>(nLength));
        return sText;
    }

  private:
    UriUriA m_uri;
    bool m_bGood;
};

std::string_view ViewOf(const UriTextRangeA& aRange) {
    return aRange.first == nullptr
               ? std::string_view()
               : std::string_view(aRange.first,
                                  static_cast<size_t>(aRange.afterLast - aRange.first));
}

bool IsOneOf(std::string_view aScheme) {
    std::string sLower;
    for (const char ch : aScheme) {
        sLower += static_cast<char>(ch | 0x20);
    }
    return sLower == "http" || sLower == "https" || sLower == "ws" || sLower == "wss";
}

// What is more than RFC 3986 asks for: a port that fits, and a host for the schemes that need one.
bool IsRefusedByUsAlone(const UriUriA& aUri) {
    const std::string_view port = ViewOf(aUri.portText);
    uint16_t wPort = 0;
    return (!port.empty() && !CmParseNumber(port, wPort)) ||
           (IsOneOf(ViewOf(aUri.scheme)) && ViewOf(aUri.hostText).empty());
}

void Compare(const std::string& aText, bool aOurs, const CCmUrlParts& aUrl) {
    // uriparser knows no zones (RFC 6874).
    if (aUrl.m_hostKind == CCmUrlParts::IPV6_HOST && aUrl.m_host.find('%') != aUrl.m_host.npos) {
        return;
    }
    const Peer peer(aText);
    Require(peer.IsGood() || !aOurs, "what they refuse");
    if (!peer.IsGood()) {
        return;
    }
    const UriUriA& uri = peer.uri();
    Require(aOurs == !IsRefusedByUsAlone(uri), "what they take");
    if (!aOurs) {
        return;
    }
    Require(ViewOf(uri.scheme) == aUrl.m_scheme, "scheme");
    Require(ViewOf(uri.userInfo) == aUrl.m_userInfo, "user information");
    Require(ViewOf(uri.hostText) == aUrl.m_host, "host");
    Require(ViewOf(uri.portText) == aUrl.m_port, "port");
    Require(ViewOf(uri.query) == aUrl.m_query, "query");
    Require(ViewOf(uri.fragment) == aUrl.m_fragment, "fragment");
    Require((uri.query.first != nullptr) == aUrl.m_bHasQuery, "whether there is a query");
    Require((uri.fragment.first != nullptr) == aUrl.m_bHasFragment, "whether there is a fragment");
    Require((uri.hostData.ip4 != nullptr) == (aUrl.m_hostKind == CCmUrlParts::IPV4_HOST), "IPv4");
    Require((uri.hostData.ip6 != nullptr) == (aUrl.m_hostKind == CCmUrlParts::IPV6_HOST), "IPv6");
    std::string sPath;
    for (const UriPathSegmentA* p = uri.pathHead; p != nullptr; p = p->next) {
        sPath += (p != uri.pathHead || aUrl.m_bHasAuthority || uri.absolutePath != 0) ? "/" : "";
        sPath += ViewOf(p->text);
    }
    sPath += uri.pathHead == nullptr && uri.absolutePath != 0 ? "/" : "";
    Require(sPath == aUrl.m_path, "path");
}

#endif

// A reference against a base: both agree where RFC 3986 leaves nothing open, which is a base with
// an authority and a path.
void TryReference(const std::string& aText, const CCmUrlParts& aReference) {
    static const std::string BASE = "http://a/b/c/d;p?q";
    CCmUrlParts base;
    CCmString strResolved;
    Require(static_cast<bool>(CmParseUrl(BASE, base)), "the base is good");
    Require(CmResolveUrl(base, aReference, strResolved) == CM_OK, "resolves");
    CCmUrlParts resolved;
    // "//" takes the host away that a URL of this scheme needs.
    const bool bHostGone =
        !aReference.m_bHasScheme && aReference.m_bHasAuthority && aReference.m_host.empty();
    Require(bHostGone != static_cast<bool>(CmParseUrl(strResolved, resolved)),
            "and is a URL again");
#if KELTO_WITH_URIPARSER
    const Peer theirBase(BASE);
    const Peer theirReference(aText);
    Peer theirs;
    // It prints IPv6 addresses in full.
    const bool bIpv6 = aReference.m_hostKind == CCmUrlParts::IPV6_HOST;
    // uriparser puts "/." before a path that starts with "//", which only a URL without an
    // authority needs (RFC 3986, 5.2.4 and 5.3).
    const bool bEmptySegment = resolved.m_path.substr(0, 2) == "//";
    if (theirReference.IsGood() && !bIpv6 && !bEmptySegment && !aReference.m_bHasScheme &&
        theirs.Resolve(theirBase, theirReference)) {
        if (theirs.Print() != strResolved) {
            std::fprintf(stderr, "[%s]: ours %s, theirs %s\n", aText.c_str(), strResolved.c_str(),
                         theirs.Print().c_str());
        }
        Require(theirs.Print() == strResolved, "as uriparser");
    }
#else
    (void)aText;
#endif
}

void TryUrl(const CCmUrlParts& aUrl) {
    CCmString strNormal;
    CCmString strAgain;
    CCmUrlParts normal;
    Require(CmNormalizeUrl(aUrl, strNormal) == CM_OK, "has a normal form");
    Require(static_cast<bool>(CmParseUrl(strNormal, normal)), "which is a URL");
    Require(CmUrlPort(normal) == CmUrlPort(aUrl), "of the same port");
    Require(CmNormalizeUrl(normal, strAgain) == CM_OK && strAgain == strNormal, "and normal");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string sText = kelto_fuzz::Input(aData, aSize).Rest();
    CCmUrlParts url;
    CCmUrlParts reference;
    const CCmParsed parsed = CmParseUrl(sText, url);
    const CCmParsed asReference = CmParseUrlReference(sText, reference);
    Require(parsed.m_nAt <= sText.size() && asReference.m_nAt <= sText.size(), "the place");
    Require(!parsed || asReference, "a URL is a reference");
#if KELTO_WITH_URIPARSER
    if (sText.find('\0') == std::string::npos) {
        Compare(sText, static_cast<bool>(asReference), reference);
    }
#endif
    if (parsed) {
        TryUrl(url);
    }
    if (asReference) {
        CCmString strAgain;
        Require(CmComposeUrl(reference, strAgain) == CM_OK && strAgain == sText, "put together");
        TryReference(sText, reference);
    }
    std::string_view rest = sText;
    std::string_view name;
    std::string_view value;
    size_t nParameters = 0;
    while (CmNextQueryParameter(rest, name, value)) {
        ++nParameters;
    }
    Require(nParameters <= sText.size(), "parameters");
    CCmString strValue;
    CmFindQueryParameter(sText, "a", strValue);
    return 0;
}
