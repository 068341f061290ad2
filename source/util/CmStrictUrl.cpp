#include "CmStrict.h"

#include <algorithm>
#include <new>

#include "CmAscii.h"
#include "CmStrictResult.h"
#include "CmWithMemory.h"

namespace UTIL_NS {

namespace {

// The sets of RFC 3986 that a character is in.
enum ESet : uint8_t {
    SCHEME = 1,     // after the first character of a scheme
    USER_INFO = 2,  // but for percent-encoding, as below
    REG_NAME = 4,
    PATH = 8,
    QUERY = 16,  // and of a fragment
    UNRESERVED = 32,
};

constexpr std::array<uint8_t, 256> MakeSets() {
    constexpr std::string_view SUB_DELIMS = "!$&'()*+,;=";
    std::array<uint8_t, 256> sets{};
    for (unsigned i = 0; i < 128; ++i) {
        const char ch = static_cast<char>(i);
        const bool bName = CmIsUnreserved(ch) || SUB_DELIMS.find(ch) != SUB_DELIMS.npos;
        const bool bPath = bName || ch == ':' || ch == '@' || ch == '/';
        sets[i] = static_cast<uint8_t>(
            (CmIsLetter(ch) || CmIsDigit(ch) || ch == '+' || ch == '-' || ch == '.' ? SCHEME : 0) |
            (bName || ch == ':' ? USER_INFO : 0) | (bName ? REG_NAME : 0) | (bPath ? PATH : 0) |
            (bPath || ch == '?' ? QUERY : 0) | (CmIsUnreserved(ch) ? UNRESERVED : 0));
    }
    return sets;
}
constexpr std::array<uint8_t, 256> SETS = MakeSets();

bool IsIn(char aChar, uint8_t aSet) {
    return (SETS[static_cast<unsigned char>(aChar)] & aSet) != 0;
}

// Whether "%" and two hexadecimal digits stand there.
bool IsEncoded(std::string_view aText, size_t aAt) {
    return aAt + 2 < aText.size() && aText[aAt] == '%' && CmHexValue(aText[aAt + 1]) >= 0 &&
           CmHexValue(aText[aAt + 2]) >= 0;
}

char Encoded(std::string_view aText, size_t aAt) {
    return static_cast<char>(CmHexValue(aText[aAt + 1]) << 4 | CmHexValue(aText[aAt + 2]));
}

// Where a run of characters of a set and of percent-encoding ends.
size_t Skip(std::string_view aText, size_t aAt, uint8_t aSet) {
    while (aAt < aText.size()) {
        if (IsIn(aText[aAt], aSet)) {
            ++aAt;
        } else if (IsEncoded(aText, aAt)) {
            aAt += 3;
        } else {
            break;
        }
    }
    return aAt;
}

struct CDefaultPort {
    std::string_view m_scheme;
    uint16_t m_wPort;
};
// Schemes that always need a host.
constexpr CDefaultPort DEFAULT_PORTS[] = {{"http", 80}, {"https", 443}, {"ws", 80}, {"wss", 443}};

const CDefaultPort* FindDefaultPort(std::string_view aScheme) {
    const auto* pPort =
        std::find_if(std::begin(DEFAULT_PORTS), std::end(DEFAULT_PORTS),
                     [aScheme](const auto& port) { return CmEqualsWord(aScheme, port.m_scheme); });
    return pPort == std::end(DEFAULT_PORTS) ? nullptr : pPort;
}

// Takes one text apart, from the front.
class CUrlParser {
  public:
    explicit CUrlParser(std::string_view aText) : m_text(aText) {}

    CCmParsed Parse(bool aNeedsScheme) {
        CCmParsed parsed = TakeScheme(aNeedsScheme);
        if (parsed && m_text.substr(m_nAt, 2) == "//") {
            parsed = TakeAuthority();
        }
        if (!parsed) {
            return parsed;
        }
        parsed = NeedHost();
        if (!parsed) {
            return parsed;
        }
        m_url.m_path = Take(PATH);
        if (Has('?')) {
            ++m_nAt;
            m_url.m_bHasQuery = true;
            m_url.m_query = Take(QUERY);
        }
        if (Has('#')) {
            ++m_nAt;
            m_url.m_bHasFragment = true;
            m_url.m_fragment = Take(QUERY);
        }
        return m_nAt == m_text.size() ? CCmParsed() : Unexpected();
    }
    const CCmUrlParts& url() const { return m_url; }

  private:
    bool Has(char aChar) const { return m_nAt < m_text.size() && m_text[m_nAt] == aChar; }

    std::string_view Take(uint8_t aSet) {
        const size_t nStart = m_nAt;
        m_nAt = Skip(m_text, m_nAt, aSet);
        return m_text.substr(nStart, m_nAt - nStart);
    }

    CCmParsed Unexpected() const {
        return Has('%') ? CmRefused(m_nAt, "\"%\" and two hexadecimal digits")
                        : CmRefused(m_nAt, "a character of a URL, or its percent-encoding");
    }

    CCmParsed TakeScheme(bool aNeedsScheme) {
        size_t nEnd = 0;
        while (nEnd < m_text.size() && IsIn(m_text[nEnd], SCHEME)) {
            ++nEnd;
        }
        const bool bColon = nEnd < m_text.size() && m_text[nEnd] == ':';
        const bool bAlpha = !m_text.empty() && CmIsLetter(m_text.front());
        if (bColon && bAlpha) {
            m_url.m_bHasScheme = true;
            m_url.m_scheme = m_text.substr(0, nEnd);
            m_nAt = nEnd + 1;
            return CCmParsed();
        }
        if (aNeedsScheme) {
            return bAlpha ? CmRefused(nEnd, "a colon after the scheme")
                          : CmRefused(0, "a scheme, which starts with a letter");
        }
        // Before a "/" a colon would make a scheme of what precedes it.
        const size_t nColon = m_text.substr(0, m_text.find_first_of("/?#")).find(':');
        return nColon == m_text.npos ? CCmParsed()
                                     : CmRefused(nColon, "no colon before the first \"/\"");
    }

    CCmParsed TakeAuthority() {
        m_nAt += 2;
        m_url.m_bHasAuthority = true;
        const size_t nEnd = std::min(m_text.find_first_of("/?#", m_nAt), m_text.size());
        const size_t nAtSign = m_text.substr(0, nEnd).find('@', m_nAt);
        if (nAtSign != m_text.npos) {
            m_url.m_bHasUserInfo = true;
            m_url.m_userInfo = Take(USER_INFO);
            if (m_nAt != nAtSign) {
                return Unexpected();
            }
            ++m_nAt;
        }
        const CCmParsed parsed = Has('[') ? TakeLiteral(nEnd) : TakeName();
        if (!parsed) {
            return parsed;
        }
        if (Has(':')) {
            ++m_nAt;
            m_url.m_bHasPort = true;
            m_url.m_port = m_text.substr(m_nAt, nEnd - m_nAt);
            const CCmParsed port = TakePort();
            if (!port) {
                return port;
            }
        }
        return m_nAt == nEnd ? CCmParsed() : Unexpected();
    }

    // A port may be empty, and have any number of leading zeros.
    CCmParsed TakePort() {
        const size_t nStart = m_nAt;
        m_nAt += m_url.m_port.size();
        if (m_url.m_port.empty()) {
            return CCmParsed();
        }
        CCmParsed parsed = CmFrom(nStart, CmParseNumber(m_url.m_port, m_url.m_wPort));
        if (!parsed) {
            parsed.m_pszExpected = "a port from 0 to 65535";
            parsed.m_nAt = std::max(parsed.m_nAt, nStart);
        }
        return parsed;
    }

    CCmParsed TakeName() {
        m_url.m_host = Take(REG_NAME);
        if (m_url.m_host.empty()) {
            m_url.m_hostKind = CCmUrlParts::NO_HOST;
        } else if (CmParseIpv4(m_url.m_host, m_url.m_hostAddress)) {
            m_url.m_hostKind = CCmUrlParts::IPV4_HOST;
        } else {
            m_url.m_hostKind = CCmUrlParts::NAME_HOST;
        }
        return CCmParsed();
    }

    // "[" to "]".
    CCmParsed TakeLiteral(size_t aEnd) {
        const size_t nStart = m_nAt + 1;
        const size_t nClose = m_text.substr(0, aEnd).find(']', nStart);
        if (nClose == m_text.npos) {
            return CmRefused(aEnd, "a \"]\"");
        }
        m_url.m_host = m_text.substr(nStart, nClose - nStart);
        m_nAt = nClose + 1;
        if (!m_url.m_host.empty() && CmToLower(m_url.m_host.front()) == 'v') {
            m_url.m_hostKind = CCmUrlParts::FUTURE_HOST;
            return CmFrom(nStart, CheckFuture(m_url.m_host));
        }
        m_url.m_hostKind = CCmUrlParts::IPV6_HOST;
        return CmFrom(nStart, CmParseIpv6With(m_url.m_host, "%25", m_url.m_hostAddress));
    }

    // "v", a version, a dot and an address.
    static CCmParsed CheckFuture(std::string_view aHost) {
        size_t nAt = 1;
        while (nAt < aHost.size() && CmHexValue(aHost[nAt]) >= 0) {
            ++nAt;
        }
        if (nAt == 1 || nAt == aHost.size() || aHost[nAt] != '.') {
            return CmRefused(nAt, "a version and a dot");
        }
        const size_t nAddress = nAt + 1;
        nAt = nAddress;
        while (nAt < aHost.size() && IsIn(aHost[nAt], USER_INFO)) {
            ++nAt;
        }
        return nAt == nAddress || nAt != aHost.size() ? CmRefused(nAt, "an address") : CCmParsed();
    }

    CCmParsed NeedHost() const {
        if (m_url.m_hostKind == CCmUrlParts::NO_HOST &&
            FindDefaultPort(m_url.m_scheme) != nullptr) {
            const size_t nHost = m_url.m_bHasAuthority
                                     ? static_cast<size_t>(m_url.m_host.data() - m_text.data())
                                     : m_nAt;
            return CmRefused(nHost, m_url.m_bHasAuthority ? "a host" : "\"//\" and a host");
        }
        return CCmParsed();
    }

    const std::string_view m_text;
    size_t m_nAt = 0;
    CCmUrlParts m_url;
};

CCmParsed ParseInto(std::string_view aText, bool aNeedsScheme, CCmUrlParts& aUrl) {
    CUrlParser parser(aText);
    const CCmParsed parsed = parser.Parse(aNeedsScheme);
    if (parsed) {
        aUrl = parser.url();
    }
    return parsed;
}

// RFC 3986, 5.2.4. In linear time: a step takes one segment off the input, and off the path no more
// than an earlier step put there.
CCmString WithoutDots(std::string_view aInput) {
    CCmString strPath;
    strPath.reserve(aInput.size());
    const auto startsWith = [&aInput](std::string_view aStart) {
        return aInput.substr(0, aStart.size()) == aStart;
    };
    while (!aInput.empty()) {
        if (startsWith("../")) {
            aInput.remove_prefix(3);
        } else if (startsWith("./") || startsWith("/./")) {
            aInput.remove_prefix(2);
        } else if (aInput == "/.") {
            aInput = "/";
        } else if (startsWith("/../") || aInput == "/..") {
            aInput = aInput == "/.." ? "/" : aInput.substr(3);
            const size_t nSlash = strPath.rfind('/');
            strPath.resize(nSlash == strPath.npos ? 0 : nSlash);
        } else if (aInput == "." || aInput == "..") {
            aInput = "";
        } else {
            const size_t nEnd = std::min(aInput.find('/', 1), aInput.size());
            strPath.append(aInput.substr(0, nEnd));
            aInput.remove_prefix(nEnd);
        }
    }
    return strPath;
}

// Escapes that stand for unreserved characters are undone, the others get upper case.
void AppendNormal(std::string_view aText, bool aLower, CCmString& aOut) {
    constexpr char HEX[] = "0123456789ABCDEF";
    for (size_t i = 0; i < aText.size(); ++i) {
        char ch = aText[i];
        if (IsEncoded(aText, i)) {
            ch = Encoded(aText, i);
            i += 2;
            if (!IsIn(ch, UNRESERVED)) {
                const auto byByte = static_cast<unsigned char>(ch);
                const char achEscape[] = {'%', HEX[byByte >> 4], HEX[byByte & 15]};
                aOut.append(achEscape, sizeof(achEscape));
                continue;
            }
        }
        aOut += aLower ? CmToLower(ch) : ch;
    }
}

CCmString Normal(std::string_view aText, bool aLower = false) {
    CCmString strNormal;
    strNormal.reserve(aText.size());
    AppendNormal(aText, aLower, strNormal);
    return strNormal;
}

CCmString NormalHost(const CCmUrlParts& aUrl) {
    if (aUrl.m_hostKind != CCmUrlParts::IPV6_HOST) {
        return Normal(aUrl.m_host, true);
    }
    char szPrinted[CM_IP_PRINTED_SIZE];
    CCmString strHost(CmPrint(aUrl.m_hostAddress, szPrinted));
    const size_t nZone = strHost.find('%');
    if (nZone != strHost.npos) {
        strHost.insert(nZone + 1, "25");
    }
    return strHost;
}

bool IsLiteral(const CCmUrlParts& aUrl) {
    return aUrl.m_hostKind == CCmUrlParts::IPV6_HOST || aUrl.m_hostKind == CCmUrlParts::FUTURE_HOST;
}

void AppendAuthority(const CCmUrlParts& aUrl, CCmString& aOut) {
    aOut += "//";
    if (aUrl.m_bHasUserInfo) {
        aOut += aUrl.m_userInfo;
        aOut += '@';
    }
    aOut += IsLiteral(aUrl) ? "[" : "";
    aOut += aUrl.m_host;
    aOut += IsLiteral(aUrl) ? "]" : "";
    if (aUrl.m_bHasPort) {
        aOut += ':';
        aOut += aUrl.m_port;
    }
}

// What keeps a path from being read as something else.
std::string_view PathGuard(const CCmUrlParts& aUrl) {
    if (!aUrl.m_bHasAuthority && aUrl.m_path.substr(0, 2) == "//") {
        return "/.";
    }
    const bool bColonFirst =
        !aUrl.m_bHasScheme && !aUrl.m_bHasAuthority &&
        aUrl.m_path.substr(0, aUrl.m_path.find('/')).find(':') != std::string_view::npos;
    return bColonFirst ? "./" : "";
}

CCmString Composed(const CCmUrlParts& aUrl) {
    CCmString strText;
    strText.reserve(aUrl.m_scheme.size() + aUrl.m_userInfo.size() + aUrl.m_host.size() +
                    aUrl.m_port.size() + aUrl.m_path.size() + aUrl.m_query.size() +
                    aUrl.m_fragment.size() + sizeof("://@[]:/.?#"));
    if (aUrl.m_bHasScheme) {
        strText += aUrl.m_scheme;
        strText += ':';
    }
    if (aUrl.m_bHasAuthority) {
        AppendAuthority(aUrl, strText);
    }
    strText += PathGuard(aUrl);
    strText += aUrl.m_path;
    if (aUrl.m_bHasQuery) {
        strText += '?';
        strText += aUrl.m_query;
    }
    if (aUrl.m_bHasFragment) {
        strText += '#';
        strText += aUrl.m_fragment;
    }
    return strText;
}

void CopyAuthority(const CCmUrlParts& aFrom, CCmUrlParts& aTo) {
    aTo.m_bHasAuthority = aFrom.m_bHasAuthority;
    aTo.m_bHasUserInfo = aFrom.m_bHasUserInfo;
    aTo.m_userInfo = aFrom.m_userInfo;
    aTo.m_host = aFrom.m_host;
    aTo.m_hostKind = aFrom.m_hostKind;
    aTo.m_bHasPort = aFrom.m_bHasPort;
    aTo.m_port = aFrom.m_port;
}

// RFC 3986, 5.2.3.
CCmString Merged(const CCmUrlParts& aBase, std::string_view aPath) {
    CCmString strPath(aBase.m_bHasAuthority && aBase.m_path.empty()
                          ? std::string_view("/")
                          : aBase.m_path.substr(0, aBase.m_path.rfind('/') + 1));
    strPath += aPath;
    return strPath;
}

// RFC 3986, 5.2.2. aPath holds the path of what is returned.
CCmUrlParts Resolved(const CCmUrlParts& aBase, const CCmUrlParts& aReference, CCmString& aPath) {
    CCmUrlParts url = aReference;
    if (aReference.m_bHasScheme || aReference.m_bHasAuthority) {
        aPath = WithoutDots(aReference.m_path);
    } else {
        CopyAuthority(aBase, url);
        if (aReference.m_path.empty()) {
            aPath = aBase.m_path;
            if (!aReference.m_bHasQuery) {
                url.m_bHasQuery = aBase.m_bHasQuery;
                url.m_query = aBase.m_query;
            }
        } else {
            aPath =
                WithoutDots(aReference.m_path.front() == '/' ? CCmString(aReference.m_path)
                                                             : Merged(aBase, aReference.m_path));
        }
    }
    if (!aReference.m_bHasScheme) {
        url.m_bHasScheme = aBase.m_bHasScheme;
        url.m_scheme = aBase.m_scheme;
    }
    url.m_path = aPath;
    return url;
}

CCmString NormalForm(const CCmUrlParts& aUrl) {
    const CDefaultPort* pDefault = FindDefaultPort(aUrl.m_scheme);
    const CCmString strScheme = Normal(aUrl.m_scheme, true);
    const CCmString strUserInfo = Normal(aUrl.m_userInfo);
    const CCmString strHost = NormalHost(aUrl);
    const CCmString strPort = aUrl.m_port.empty() ? CCmString() : std::to_string(aUrl.m_wPort);
    CCmString strPath = WithoutDots(Normal(aUrl.m_path));
    if (strPath.empty() && aUrl.m_bHasAuthority) {
        strPath = "/";
    }
    const CCmString strQuery = Normal(aUrl.m_query);
    const CCmString strFragment = Normal(aUrl.m_fragment);

    CCmUrlParts url = aUrl;
    url.m_scheme = strScheme;
    url.m_userInfo = strUserInfo;
    url.m_host = strHost;
    url.m_port = strPort;
    url.m_bHasPort = !strPort.empty() && (pDefault == nullptr || aUrl.m_wPort != pDefault->m_wPort);
    url.m_path = strPath;
    url.m_query = strQuery;
    url.m_fragment = strFragment;
    return Composed(url);
}

}  // namespace

CCmParsed CmParseUrl(std::string_view aText, CCmUrlParts& aUrl) {
    return ParseInto(aText, true, aUrl);
}

CCmParsed CmParseUrlReference(std::string_view aText, CCmUrlParts& aUrl) {
    return ParseInto(aText, false, aUrl);
}

uint16_t CmUrlPort(const CCmUrlParts& aUrl) {
    const CDefaultPort* pDefault = FindDefaultPort(aUrl.m_scheme);
    return aUrl.m_port.empty() && pDefault != nullptr ? pDefault->m_wPort : aUrl.m_wPort;
}

CmResult CmComposeUrl(const CCmUrlParts& aUrl, CCmString& aText) {
    return CmWithMemory([&] { aText = Composed(aUrl); });
}

CmResult CmResolveUrl(const CCmUrlParts& aBase, const CCmUrlParts& aReference, CCmString& aText) {
    return CmWithMemory([&] {
        CCmString strPath;
        aText = Composed(Resolved(aBase, aReference, strPath));
    });
}

CmResult CmNormalizeUrl(const CCmUrlParts& aUrl, CCmString& aText) {
    return CmWithMemory([&] { aText = NormalForm(aUrl); });
}

CCmParsed CmPercentDecode(std::string_view aEncoded, CCmString& aText, CmPlus aPlus) {
    CCmParsed parsed;
    const CmResult rv = CmWithMemory([&] {
        CCmString strText;
        strText.reserve(aEncoded.size());
        for (size_t i = 0; i < aEncoded.size(); ++i) {
            char ch = aEncoded[i];
            if (ch == '%') {
                if (!IsEncoded(aEncoded, i)) {
                    parsed = CmRefused(i, "\"%\" and two hexadecimal digits");
                    return;
                }
                ch = Encoded(aEncoded, i);
                i += 2;
            } else if (ch == '+' && aPlus == CmPlus::IS_BLANK) {
                ch = ' ';
            }
            strText += ch;
        }
        aText.swap(strText);
    });
    return CM_SUCCEEDED(rv) ? parsed : CmNoMemory();
}

CmResult CmPercentEncode(std::string_view aText, CCmString& aEncoded) {
    constexpr char HEX[] = "0123456789ABCDEF";
    return CmWithMemory([&] {
        CCmString strEncoded;
        for (const char ch : aText) {
            if (IsIn(ch, UNRESERVED)) {
                strEncoded += ch;
                continue;
            }
            const auto byByte = static_cast<unsigned char>(ch);
            strEncoded += '%';
            strEncoded += HEX[byByte >> 4];
            strEncoded += HEX[byByte & 15];
        }
        aEncoded.swap(strEncoded);
    });
}

bool CmNextQueryParameter(std::string_view& aQuery, std::string_view& aName,
                          std::string_view& aValue) {
    while (!aQuery.empty()) {
        const size_t nEnd = std::min(aQuery.find('&'), aQuery.size());
        const std::string_view parameter = aQuery.substr(0, nEnd);
        aQuery.remove_prefix(std::min(nEnd + 1, aQuery.size()));
        if (!parameter.empty()) {
            const size_t nEqual = std::min(parameter.find('='), parameter.size());
            aName = parameter.substr(0, nEqual);
            aValue = parameter.substr(std::min(nEqual + 1, parameter.size()));
            return true;
        }
    }
    return false;
}

CCmParsed CmFindQueryParameter(std::string_view aQuery, std::string_view aName, CCmString& aValue) {
    std::string_view rest = aQuery;
    std::string_view name;
    std::string_view value;
    CCmString strName;
    const auto decode = [aQuery](std::string_view aPart, CCmString& aText) {
        return CmFrom(static_cast<size_t>(aPart.data() - aQuery.data()),
                      CmPercentDecode(aPart, aText, CmPlus::IS_BLANK));
    };
    while (CmNextQueryParameter(rest, name, value)) {
        const CCmParsed parsed = decode(name, strName);
        if (!parsed) {
            return parsed;
        }
        if (strName == aName) {
            return decode(value, aValue);
        }
    }
    return CCmParsed{CM_ERROR_NOT_FOUND, aQuery.size(), "a parameter of the name"};
}

}  // namespace UTIL_NS
