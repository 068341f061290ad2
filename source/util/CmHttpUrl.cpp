#include "CmHttpUrl.h"

#include <cstdlib>

#include "CmAscii.h"
#include "CmTextSearch.h"
#include "CmTraceLine.h"

namespace UTIL_NS {

const char* const CCmHttpUrl::s_pszSchemeHttp = "http";
const char* const CCmHttpUrl::s_pszSchemeHttps = "https";
const char* const CCmHttpUrl::s_pszSchemeFile = "file";
const char* const CCmHttpUrl::s_pszSchemeWS = "ws";
const char* const CCmHttpUrl::s_pszSchemeWSS = "wss";

namespace {

constexpr unsigned short PORT_HTTP = 80;
constexpr unsigned short PORT_HTTPS = 443;
constexpr unsigned short PORT_NONE = 0;

constexpr size_t ASCII_SPEC_RESERVE = 64;  // characters
constexpr size_t PORT_DIGITS = 5;          // of 65535

constexpr std::string_view SCHEME_END = "://";
constexpr std::string_view FILE_WORD = "file";

struct Scheme {
    std::string_view prefix;  // the word and SCHEME_END
    unsigned short defaultPort;

    constexpr std::string_view word() const {
        return prefix.substr(0, prefix.size() - SCHEME_END.size());
    }
};

constexpr Scheme SCHEMES[] = {
    {"http://", PORT_HTTP}, {"https://", PORT_HTTPS}, {"file://", PORT_NONE},
    {"ws://", PORT_HTTP},   {"wss://", PORT_HTTPS},
};

// aPrefix is in lower case.
bool StartsWithNoCase(std::string_view aText, std::string_view aPrefix) {
    if (aText.size() < aPrefix.size()) {
        return false;
    }
    for (size_t i = 0; i < aPrefix.size(); ++i) {
        if (CmToLower(aText[i]) != aPrefix[i]) {
            return false;
        }
    }
    return true;
}

const Scheme* FindScheme(std::string_view aText) {
    for (const Scheme& scheme : SCHEMES) {
        if (StartsWithNoCase(aText, scheme.prefix)) {
            return &scheme;
        }
    }
    return nullptr;
}

std::string_view TrimLeft(std::string_view aText) {
    const CCmIsSpace isSpace;
    while (!aText.empty() && isSpace(aText.front())) {
        aText.remove_prefix(1);
    }
    return aText;
}

std::string_view TrimRight(std::string_view aText) {
    const CCmIsSpace isSpace;
    while (!aText.empty() && isSpace(aText.back())) {
        aText.remove_suffix(1);
    }
    return aText;
}

// As atoi, with a quick road for the usual text of nothing but a few digits. Behind aText, which is
// part of a terminated string, come only a '/', or blanks and the terminator: the number cannot run
// on past its end.
unsigned short ParsePort(std::string_view aText) {
    unsigned int dwPort = 0;
    for (const char ch : aText) {
        if (ch < '0' || ch > '9' || aText.size() > PORT_DIGITS) {
            return static_cast<unsigned short>(std::strtol(aText.data(), nullptr, 10));
        }
        dwPort = dwPort * 10 + static_cast<unsigned int>(ch - '0');
    }
    return static_cast<unsigned short>(dwPort);
}

void AppendPort(CCmString& aText, unsigned short aPort) {
    char achDigits[PORT_DIGITS];
    char* pDigit = achDigits + PORT_DIGITS;
    do {
        *--pDigit = static_cast<char>('0' + aPort % 10);
        aPort = static_cast<unsigned short>(aPort / 10);
    } while (aPort != 0);
    aText.append(pDigit, static_cast<size_t>(achDigits + PORT_DIGITS - pDigit));
}

CCmString Copy(const CCmString& aText) {
    try {
        return aText;
    } catch (const std::bad_alloc&) {
        return CCmString();
    }
}

struct Forward {
    unsigned char operator()(size_t aPlace) const {
        return static_cast<unsigned char>(m_pText[aPlace]);
    }
    const char* m_pText;
};

CCmString Replaced(std::string_view aText, std::string_view aFrom, std::string_view aTo) {
    if (aFrom.empty()) {
        return CCmString(aText);
    }
    const CCmTextSearchT<Forward> search({aFrom.data()}, aFrom.size());
    CCmString strResult;
    size_t nStart = 0;
    while (true) {
        const size_t nFound = search.Find({aText.data()}, aText.size(), nStart);
        if (nFound == CM_NOT_FOUND) {
            break;
        }
        strResult.append(aText, nStart, nFound - nStart).append(aTo);
        nStart = nFound + aFrom.size();
    }
    strResult.append(aText, nStart);
    return strResult;
}

}  // namespace

CCmHttpUrl::CCmHttpUrl() : m_wPort(PORT_NONE) {}

CCmHttpUrl::~CCmHttpUrl() = default;

bool CCmHttpUrl::Init(const CCmString& aSpec) {
    CM_INFO_TRACE_THIS("CCmHttpUrl::Init aSepc = " << aSpec);
    const std::string_view strSpec = TrimLeft(aSpec);
    if (strSpec.empty()) {
        return false;
    }
    const Scheme* pScheme = FindScheme(strSpec);
    if (pScheme == nullptr) {
        CM_ERROR_TRACE_THIS("CCmHttpUrl::Init error format, scheme = " << aSpec);
        return false;
    }
    try {
        m_strScheme = pScheme->word();
        return Init_i(strSpec.substr(pScheme->prefix.size()));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CCmHttpUrl::Init_i(std::string_view aRemainder) {
    const bool bIsFile = std::string_view(m_strScheme) == FILE_WORD;
    if (bIsFile && !aRemainder.empty() && aRemainder.front() == '/') {
        aRemainder.remove_prefix(1);
    }
    aRemainder = TrimRight(TrimLeft(aRemainder));
    const size_t nSlash = aRemainder.find('/');
    const bool bHasSlash = nSlash != std::string_view::npos;
    if (bIsFile) {
        // The cached printed form is left alone here.
        m_strPath = bHasSlash ? aRemainder.substr(nSlash) : aRemainder;
        return true;
    }
    if (!SetNameAndPort_i(aRemainder.substr(0, nSlash))) {
        return false;
    }
    SetPath_i(bHasSlash ? aRemainder.substr(nSlash) : std::string_view());
    return true;
}

bool CCmHttpUrl::SetNameAndPort(const CCmString& aNameAndPort) {
    try {
        return SetNameAndPort_i(aNameAndPort);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CCmHttpUrl::SetNameAndPort_i(std::string_view aNameAndPort) {
    if (aNameAndPort.empty()) {
        return false;
    }
    const size_t nColon = aNameAndPort.find(':');
    m_strHost = aNameAndPort.substr(0, nColon);
    SetPort(nColon == std::string_view::npos ? PORT_NONE
                                             : ParsePort(aNameAndPort.substr(nColon + 1)));
    return !m_strHost.empty();
}

void CCmHttpUrl::SetPort(unsigned short aPort) {
    m_wPort = aPort != 0 ? aPort : GetDefaultPort();
    m_strAsciiSpec.clear();
}

void CCmHttpUrl::SetPath(const CCmString& aPath) {
    try {
        SetPath_i(aPath);
    } catch (const std::bad_alloc&) {
        return;
    }
}

void CCmHttpUrl::SetPath_i(std::string_view aPath) {
    m_strPath = aPath.empty() ? std::string_view("/") : aPath;
    m_strAsciiSpec.clear();
}

CCmString CCmHttpUrl::GetScheme() const {
    return Copy(m_strScheme);
}

CCmString CCmHttpUrl::GetHostName() const {
    return Copy(m_strHost);
}

CCmString CCmHttpUrl::GetPath() const {
    return Copy(m_strPath);
}

unsigned short CCmHttpUrl::GetDefaultPort() const {
    for (const Scheme& scheme : SCHEMES) {
        if (m_strScheme == scheme.word()) {
            return scheme.defaultPort;
        }
    }
    return PORT_NONE;
}

CCmString CCmHttpUrl::GetAsciiSpec() {
    try {
        if (m_strAsciiSpec.empty()) {
            BuildAsciiSpec_i();
        }
        return m_strAsciiSpec;
    } catch (const std::bad_alloc&) {
        return CCmString();
    }
}

void CCmHttpUrl::BuildAsciiSpec_i() {
    CCmString strSpec;
    strSpec.reserve(ASCII_SPEC_RESERVE);
    strSpec.append(m_strScheme).append(SCHEME_END);
    AppendNameAndPort_i(strSpec, false);
    if (m_strPath.empty() || m_strPath.front() != '/') {
        strSpec += '/';
    }
    strSpec.append(m_strPath);
    m_strAsciiSpec.swap(strSpec);
}

CCmString CCmHttpUrl::GetNameAndPort(signed char aAlwaysPort) const {
    try {
        CCmString strNameAndPort;
        AppendNameAndPort_i(strNameAndPort, aAlwaysPort != 0);
        return strNameAndPort;
    } catch (const std::bad_alloc&) {
        return CCmString();
    }
}

void CCmHttpUrl::AppendNameAndPort_i(CCmString& aText, bool aAlwaysPort) const {
    aText.append(m_strHost);
    if (aAlwaysPort || m_wPort != GetDefaultPort()) {
        aText += ':';
        AppendPort(aText, m_wPort);
    }
}

void replaceCaseMatch(const char* pScriptString, const CCmString& aFrom, const CCmString& aTo,
                      CCmString& aResult) {
    CM_ASSERTE_RETURN_LINE(pScriptString, , 12);
    try {
        if (aFrom == aTo) {
            aResult = pScriptString;
            return;
        }
        CCmString strReplaced = Replaced(pScriptString, aFrom, aTo);
        if (aResult.empty()) {
            aResult.swap(strReplaced);
        } else {
            aResult.append(strReplaced);
        }
    } catch (const std::bad_alloc&) {
        return;
    }
}

}  // namespace UTIL_NS
