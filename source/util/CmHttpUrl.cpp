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

struct CScheme {
    constexpr std::string_view word() const {
        return m_prefix.substr(0, m_prefix.size() - SCHEME_END.size());
    }

    std::string_view m_prefix;  // the word and SCHEME_END
    unsigned short m_wDefaultPort;
};

constexpr CScheme SCHEMES[] = {
    {"http://", PORT_HTTP}, {"https://", PORT_HTTPS}, {"file://", PORT_NONE},
    {"ws://", PORT_HTTP},   {"wss://", PORT_HTTPS},
};

const CScheme* FindScheme(std::string_view aText) {
    for (const CScheme& scheme : SCHEMES) {
        if (CmStartsWithWord(aText, scheme.m_prefix)) {
            return &scheme;
        }
    }
    return nullptr;
}

// As atoi, with a quick way for the usual text of nothing but a few digits. aText is part of a
// terminated string, in which only a '/', or blanks and the terminator, can follow it: the number
// ends with it.
unsigned short ParsePort(std::string_view aText) {
    unsigned int dwPort = 0;
    for (const char ch : aText) {
        if (!CmIsDigit(ch) || aText.size() > PORT_DIGITS) {
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

struct CForward {
    unsigned char operator()(size_t aPlace) const {
        return static_cast<unsigned char>(m_pText[aPlace]);
    }
    const char* m_pText;
};

CCmString Replaced(std::string_view aText, std::string_view aFrom, std::string_view aTo) {
    if (aFrom.empty()) {
        return CCmString(aText);
    }
    const CCmTextSearchT<CForward> search({aFrom.data()}, aFrom.size());
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

// Steps that throw for want of memory.
class CCmHttpUrl::CUrlSteps {
  public:
    static bool Init(CCmHttpUrl& aUrl, std::string_view aRemainder) {
        const bool bIsFile = std::string_view(aUrl.m_strScheme) == FILE_WORD;
        if (bIsFile && !aRemainder.empty() && aRemainder.front() == '/') {
            aRemainder.remove_prefix(1);
        }
        aRemainder = CmTrimmedRight(CmTrimmedLeft(aRemainder, CCmIsSpace()), CCmIsSpace());
        const size_t nSlash = aRemainder.find('/');
        const bool bHasSlash = nSlash != std::string_view::npos;
        if (bIsFile) {
            // The cached printed form is left alone here.
            aUrl.m_strPath = bHasSlash ? aRemainder.substr(nSlash) : aRemainder;
            return true;
        }
        if (!SetNameAndPort(aUrl, aRemainder.substr(0, nSlash))) {
            return false;
        }
        SetPath(aUrl, bHasSlash ? aRemainder.substr(nSlash) : std::string_view());
        return true;
    }

    static bool SetNameAndPort(CCmHttpUrl& aUrl, std::string_view aNameAndPort) {
        if (aNameAndPort.empty()) {
            return false;
        }
        const size_t nColon = aNameAndPort.find(':');
        aUrl.m_strHost = aNameAndPort.substr(0, nColon);
        aUrl.SetPort(nColon == std::string_view::npos ? PORT_NONE
                                                      : ParsePort(aNameAndPort.substr(nColon + 1)));
        return !aUrl.m_strHost.empty();
    }

    static void SetPath(CCmHttpUrl& aUrl, std::string_view aPath) {
        aUrl.m_strPath = aPath.empty() ? std::string_view("/") : aPath;
        aUrl.m_strAsciiSpec.clear();
    }

    static void AppendNameAndPort(const CCmHttpUrl& aUrl, CCmString& aText, bool aAlwaysPort) {
        aText.append(aUrl.m_strHost);
        if (aAlwaysPort || aUrl.m_wPort != aUrl.GetDefaultPort()) {
            aText += ':';
            AppendPort(aText, aUrl.m_wPort);
        }
    }

    static CCmString AsciiSpec(const CCmHttpUrl& aUrl) {
        CCmString strSpec;
        strSpec.reserve(ASCII_SPEC_RESERVE);
        strSpec.append(aUrl.m_strScheme).append(SCHEME_END);
        AppendNameAndPort(aUrl, strSpec, false);
        if (aUrl.m_strPath.empty() || aUrl.m_strPath.front() != '/') {
            strSpec += '/';
        }
        strSpec.append(aUrl.m_strPath);
        return strSpec;
    }
};

CCmHttpUrl::CCmHttpUrl() : m_wPort(PORT_NONE) {}

CCmHttpUrl::~CCmHttpUrl() = default;

bool CCmHttpUrl::Init(const CCmString& aSpec) {
    CM_INFO_TRACE_THIS("CCmHttpUrl::Init aSepc = " << aSpec);
    const std::string_view strSpec = CmTrimmedLeft(aSpec, CCmIsSpace());
    if (strSpec.empty()) {
        return false;
    }
    const CScheme* pScheme = FindScheme(strSpec);
    if (pScheme == nullptr) {
        CM_ERROR_TRACE_THIS("CCmHttpUrl::Init error format, scheme = " << aSpec);
        return false;
    }
    try {
        m_strScheme = pScheme->word();
        return CUrlSteps::Init(*this, strSpec.substr(pScheme->m_prefix.size()));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CCmHttpUrl::SetNameAndPort(const CCmString& aNameAndPort) {
    try {
        return CUrlSteps::SetNameAndPort(*this, aNameAndPort);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CCmHttpUrl::SetPort(unsigned short aPort) {
    m_wPort = aPort != 0 ? aPort : GetDefaultPort();
    m_strAsciiSpec.clear();
}

void CCmHttpUrl::SetPath(const CCmString& aPath) {
    try {
        CUrlSteps::SetPath(*this, aPath);
    } catch (const std::bad_alloc&) {
        return;
    }
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
    for (const CScheme& scheme : SCHEMES) {
        if (m_strScheme == scheme.word()) {
            return scheme.m_wDefaultPort;
        }
    }
    return PORT_NONE;
}

CCmString CCmHttpUrl::GetAsciiSpec() {
    try {
        if (m_strAsciiSpec.empty()) {
            m_strAsciiSpec = CUrlSteps::AsciiSpec(*this);
        }
        return m_strAsciiSpec;
    } catch (const std::bad_alloc&) {
        return CCmString();
    }
}

CCmString CCmHttpUrl::GetNameAndPort(signed char aAlwaysPort) const {
    try {
        CCmString strNameAndPort;
        CUrlSteps::AppendNameAndPort(*this, strNameAndPort, aAlwaysPort != 0);
        return strNameAndPort;
    } catch (const std::bad_alloc&) {
        return CCmString();
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
