/// URLs of five schemes, and text replacement. For URLs that nobody vouches for: CmStrict.h.
/// \file
#ifndef CM_HTTP_URL_H
#define CM_HTTP_URL_H

#include "CmBase.h"
#include "CmUtilTemplates.h"

namespace UTIL_NS {

/// A URL taken apart into scheme, host, port and path, and printed again. Schemes and default
/// ports: http and ws 80, https and wss 443, file 0. Nothing is decoded or escaped, there is no
/// user, query or fragment (they stay in host and path), and IPv6 literals are not recognised:
/// the first ':' of the authority always splits host and port.
///
/// Init writes the whole text to the trace at level info, user name and password included.
///
/// Reference counted (the count starts at 0); all calls on one thread. When memory runs out, a
/// boolean operation returns false, a setter changes nothing and a getter returns an empty text.
class CM_UTIL_EXPORT CCmHttpUrl : public CCmReferenceControlT<CCmMutexNullSingleThread> {
  public:
    static const char* const s_pszSchemeHttp;   ///< "http"
    static const char* const s_pszSchemeHttps;  ///< "https"
    static const char* const s_pszSchemeFile;   ///< "file"
    static const char* const s_pszSchemeWS;     ///< "ws"
    static const char* const s_pszSchemeWSS;    ///< "wss"

    /// All texts empty, port 0.
    CCmHttpUrl();
    /// Called by the last ReleaseReference.
    ~CCmHttpUrl() override;

    /// Takes aSpec apart: blanks around it are skipped, the scheme is matched without regard to
    /// case and kept in lower case. False when there is no known scheme or no host; the scheme
    /// (after an empty host also the host and the port) may have been set by then.
    /// A file URL sets scheme and path only: one '/' after "file://" is skipped, and the path
    /// starts at the first '/' that remains, so "file:///dir/name" has the path "/name". It
    /// leaves a printed form that is still cached in place, so use a fresh object for one. After an
    /// Init that failed, parts of the old URL and of the new one, and the old printed form, stand
    /// side by side: nothing but another Init makes the object whole again.
    bool Init(const CCmString& aSpec);

    /// "host" or "host:port". A port that is missing, not a number or 0 means the default of the
    /// scheme; only its low 16 bits count, and a number that does not fit in a long counts as
    /// LONG_MAX (LONG_MIN if negative), which gives 65535 (the default). False when aNameAndPort
    /// is empty, or when the host is; in the second case host and port have been set.
    bool SetNameAndPort(const CCmString& aNameAndPort);
    /// 0: the default of the scheme.
    void SetPort(unsigned short aPort);
    /// Empty: "/". Any other text is kept as it is, with or without a leading '/'.
    void SetPath(const CCmString& aPath);

    /// The scheme in lower case.
    CCmString GetScheme() const;
    /// The host as it was given.
    CCmString GetHostName() const;
    /// The path as it was given; "/" for an empty one.
    CCmString GetPath() const;
    /// The port, which is the default one unless another was given.
    unsigned short GetPort() const { return m_wPort; }
    /// The default port of the scheme; 0 without one.
    unsigned short GetDefaultPort() const;

    /// The whole URL, built when a setter has run since the last call. The port is left out when
    /// it is the default, and '/' is put before a path that does not start with it.
    CCmString GetAsciiSpec();
    /// "host" when aAlwaysPort is 0 and the port is the default, "host:port" otherwise.
    CCmString GetNameAndPort(signed char aAlwaysPort) const;

    /// "http".
    static const char* get_pszSchemeHttp() { return s_pszSchemeHttp; }
    /// "https".
    static const char* get_pszSchemeHttps() { return s_pszSchemeHttps; }
    /// "file".
    static const char* get_pszSchemeFile() { return s_pszSchemeFile; }

  private:
    class CM_UTIL_HIDDEN CUrlSteps;  // internal

    CCmString m_strAsciiSpec;  // cached, empty when it must be rebuilt
    CCmString m_strScheme;
    CCmString m_strPath;
    CCmString m_strHost;
    unsigned short m_wPort;
};

/// Appends pScriptString to aResult with every occurrence of aFrom (exact, case-sensitive, from
/// the left, not overlapping) replaced by aTo. An empty aFrom occurs nowhere. When aFrom equals
/// aTo, aResult is set to the text rather than appended to. A null pScriptString is an assertion
/// line; then, and when memory runs out, aResult stays as it is. The arguments may overlap.
CM_UTIL_EXPORT void replaceCaseMatch(const char* pScriptString, const CCmString& aFrom,
                                     const CCmString& aTo, CCmString& aResult);

}  // namespace UTIL_NS

#endif  // CM_HTTP_URL_H
