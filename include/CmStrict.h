/// Parsers for input that nobody vouches for: numbers, durations, sizes, addresses, URLs, base64.
///
///     uint16_t wPort = 0;
///     const CCmParsed parsed = CmParsePort(text, wPort);
///     if (!parsed) {
///         printf("column %zu: expected %s\n", parsed.m_nAt + 1, parsed.m_pszExpected);
///     }
///
/// A text is right as a whole or it is refused: no blanks around it, nothing after it, nothing cut
/// or wrapped to fit. What is refused leaves the output as it was, unless a function says
/// otherwise. Views point into the text that was parsed. Time is linear in the length of the text.
/// Nothing here throws, traces, blocks, looks at the locale or allocates, but for what fills a
/// CCmString. Any thread; two threads must not share an output. An output must not overlap its
/// input.
///
/// CmHttpUrl.h, CmAddress.h and CmEncoding.h have lenient forms of some of this, for hosts that
/// rely on them.
/// \file
#ifndef CM_STRICT_H
#define CM_STRICT_H

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <limits>
#include <string_view>
#include <type_traits>

#include "CmBase.h"
#include "CmTimeValue.h"

namespace UTIL_NS {

/// What a parser answers: true in a condition when the text is right.
struct CCmParsed {
    /// CM_OK. CM_ERROR_INVALID_ARG: the text is not of the form. CM_ERROR_FAILURE: it is, but the
    /// value is out of its range. CM_ERROR_NOT_AVAILABLE: the buffer has too little room.
    /// CM_ERROR_NOT_FOUND: there is no such parameter. CM_ERROR_OUT_OF_MEMORY.
    CmResult m_Result = CM_OK;
    /// The first byte that is wrong, counted from 0; the length of the text when it ends too early.
    size_t m_nAt = 0;
    /// What would have been right there: "a digit". Static text; null on success.
    const char* m_pszExpected = nullptr;

    /// Whether the text is right.
    constexpr explicit operator bool() const { return CM_SUCCEEDED(m_Result); }
};

// ---- Numbers

/// Digits of aBase (2 to 36, letters of either case), a "-" before them where the type has negative
/// numbers; no "+", no prefix. Leading zeros are allowed and mean nothing.
CM_UTIL_EXPORT CCmParsed CmParseSigned(std::string_view aText, int64_t& aNumber, int64_t aMin,
                                       int64_t aMax, int aBase = 10);
/// The same for numbers without a sign.
CM_UTIL_EXPORT CCmParsed CmParseUnsigned(std::string_view aText, uint64_t& aNumber, uint64_t aMin,
                                         uint64_t aMax, int aBase = 10);

/// The same for any integer type, which is the range unless a narrower one is given.
template <class Integer>
CCmParsed CmParseNumber(std::string_view aText, Integer& aNumber,
                        Integer aMin = std::numeric_limits<Integer>::min(),
                        Integer aMax = std::numeric_limits<Integer>::max(), int aBase = 10) {
    static_assert(std::is_integral<Integer>::value && sizeof(Integer) <= sizeof(int64_t),
                  "an integer of at most 64 bits");
    CCmParsed parsed;
    if constexpr (std::is_signed<Integer>::value) {
        int64_t llNumber = 0;
        parsed = CmParseSigned(aText, llNumber, aMin, aMax, aBase);
        aNumber = parsed ? static_cast<Integer>(llNumber) : aNumber;
    } else {
        uint64_t ullNumber = 0;
        parsed = CmParseUnsigned(aText, ullNumber, aMin, aMax, aBase);
        aNumber = parsed ? static_cast<Integer>(ullNumber) : aNumber;
    }
    return parsed;
}

/// true, yes, on, 1; false, no, off, 0; without regard to ASCII case.
CM_UTIL_EXPORT CCmParsed CmParseBool(std::string_view aText, bool& aValue);

/// A decimal number, which may have a fraction, and its unit right after it: us, ms, s, min, h or d
/// ("20ms", "1.5s"), and a "-" before them where the range has negative ones. Whole microseconds
/// only.
CM_UTIL_EXPORT CCmParsed CmParseDuration(std::string_view aText, CCmTimeValue& aDuration,
                                         const CCmTimeValue& aMin = CCmTimeValue(),
                                         const CCmTimeValue& aMax = CCmTimeValue(INT64_MAX));

/// A whole number of bytes, alone or with its unit right after it: B; kB, MB, GB, TB (powers of
/// 1000); KiB, MiB, GiB, TiB (powers of 1024). "64KiB" is 65536.
CM_UTIL_EXPORT CCmParsed CmParseSize(std::string_view aText, uint64_t& aBytes, uint64_t aMin = 0,
                                     uint64_t aMax = UINT64_MAX);

// ---- Addresses

/// An IP address. A value; two are equal when they are printed alike.
struct CCmIpAddress {
    /// The kinds of addresses.
    enum Family : uint8_t {
        NONE = 0,  ///< no address
        IPV4 = 4,  ///< four bytes
        IPV6 = 6,  ///< sixteen bytes, and perhaps a zone
    };
    /// Characters of the longest zone identifier; that of an interface name.
    static constexpr size_t MAX_ZONE = 15;

    /// IPV4 or IPV6; NONE is no address.
    Family m_family = NONE;
    /// In network order; of an IPv4 address the first four count and the others are zero.
    std::array<uint8_t, 16> m_abyBytes{};
    /// Of an IPv6 address: the text after "%", terminated and filled with zeros; empty without one.
    std::array<char, MAX_ZONE + 1> m_achZone{};

    /// Whether they are printed alike.
    friend bool operator==(const CCmIpAddress& aLeft, const CCmIpAddress& aRight) {
        return aLeft.m_family == aRight.m_family && aLeft.m_abyBytes == aRight.m_abyBytes &&
               aLeft.m_achZone == aRight.m_achZone;
    }
    /// Whether they differ.
    friend bool operator!=(const CCmIpAddress& aLeft, const CCmIpAddress& aRight) {
        return !(aLeft == aRight);
    }
};

/// An address with a port.
struct CCmEndpoint {
    CCmIpAddress m_address;  ///< of either family
    uint16_t m_wPort = 0;    ///< in the order of the machine

    /// Whether address and port are equal.
    friend bool operator==(const CCmEndpoint& aLeft, const CCmEndpoint& aRight) {
        return aLeft.m_address == aRight.m_address && aLeft.m_wPort == aRight.m_wPort;
    }
    /// Whether they differ.
    friend bool operator!=(const CCmEndpoint& aLeft, const CCmEndpoint& aRight) {
        return !(aLeft == aRight);
    }
};

/// Four decimal numbers up to 255 without leading zeros, and dots between them.
CM_UTIL_EXPORT CCmParsed CmParseIpv4(std::string_view aText, CCmIpAddress& aAddress);
/// Every form of RFC 4291, and "%" with a zone identifier (RFC 4007) of 1 to 15 letters, digits,
/// "-", ".", "_" and "~".
CM_UTIL_EXPORT CCmParsed CmParseIpv6(std::string_view aText, CCmIpAddress& aAddress);
/// Either of them.
CM_UTIL_EXPORT CCmParsed CmParseIpAddress(std::string_view aText, CCmIpAddress& aAddress);

/// 0 to 65535, 1 to 5 digits.
CM_UTIL_EXPORT CCmParsed CmParsePort(std::string_view aText, uint16_t& aPort);

/// "192.0.2.1:5004" or "[2001:db8::1]:5004"; the port must be there.
CM_UTIL_EXPORT CCmParsed CmParseEndpoint(std::string_view aText, CCmEndpoint& aEndpoint);

/// Bytes that hold any printed address or endpoint with its terminator.
constexpr size_t CM_IP_PRINTED_SIZE = 80;
/// Prints into a buffer, as RFC 5952 says for IPv6; returns what was written, which is terminated.
/// An address without a family is the empty text.
CM_UTIL_EXPORT std::string_view CmPrint(const CCmIpAddress& aAddress,
                                        char (&aBuffer)[CM_IP_PRINTED_SIZE]);
/// The same with its port: "192.0.2.1:5004", "[2001:db8::1]:5004".
CM_UTIL_EXPORT std::string_view CmPrint(const CCmEndpoint& aEndpoint,
                                        char (&aBuffer)[CM_IP_PRINTED_SIZE]);

/// For bind, connect and sendto: fills aStorage and stores how much of it counts. A zone that is no
/// number is looked up among the interfaces. CM_ERROR_INVALID_ARG: the address has no family.
/// CM_ERROR_NOT_FOUND: no interface is called so.
CM_UTIL_EXPORT CmResult CmToSocketAddress(const CCmEndpoint& aEndpoint, sockaddr_storage& aStorage,
                                          socklen_t& aLength);
/// From recvfrom and accept; a scope becomes a zone of decimal digits. CM_ERROR_INVALID_ARG:
/// aLength is too short, or the family is neither of the two.
CM_UTIL_EXPORT CmResult CmFromSocketAddress(const sockaddr* aAddress, socklen_t aLength,
                                            CCmEndpoint& aEndpoint);

// ---- URLs (RFC 3986)

/// A URL, or a reference relative to one, taken apart. Texts are as they stand, still
/// percent-encoded; one that is not there is empty and its flag is off.
struct CCmUrlParts {
    /// What m_host is.
    enum HostKind : uint8_t {
        NO_HOST,      ///< no authority, or an empty host
        NAME_HOST,    ///< a registered name; "300.1.1.1" is one, too
        IPV4_HOST,    ///< m_hostAddress holds it
        IPV6_HOST,    ///< m_hostAddress holds it; m_host is what stands between the brackets
        FUTURE_HOST,  ///< "v1.x" between brackets
    };

    std::string_view m_scheme;      ///< without its ":"
    std::string_view m_userInfo;    ///< "user:password"; keep it out of trace lines
    std::string_view m_host;        ///< without brackets
    std::string_view m_port;        ///< may be empty although m_bHasPort
    std::string_view m_path;        ///< with its leading "/", if it has one
    std::string_view m_query;       ///< without its "?"
    std::string_view m_fragment;    ///< without its "#"
    CCmIpAddress m_hostAddress;     ///< of an IPV4_HOST or IPV6_HOST
    uint16_t m_wPort = 0;           ///< 0 when m_port is empty
    HostKind m_hostKind = NO_HOST;  ///< of m_host
    bool m_bHasScheme = false;      ///< ":" was there after m_scheme
    bool m_bHasAuthority = false;   ///< "//" was there
    bool m_bHasUserInfo = false;    ///< "@" was there
    bool m_bHasPort = false;        ///< ":" was there after m_host
    bool m_bHasQuery = false;       ///< "?" was there
    bool m_bHasFragment = false;    ///< "#" was there
};

/// A URL with its scheme. Hosts between brackets may have a zone after "%25" (RFC 6874). A port is
/// at most 65535. http, https, ws and wss need a host.
CM_UTIL_EXPORT CCmParsed CmParseUrl(std::string_view aText, CCmUrlParts& aUrl);
/// The same, or a reference without a scheme: "../room?id=7", "//host/", "#top", "".
CM_UTIL_EXPORT CCmParsed CmParseUrlReference(std::string_view aText, CCmUrlParts& aUrl);

/// The port that a connection goes to: m_wPort, or the default of http and ws (80), https and wss
/// (443); 0 for any other scheme.
CM_UTIL_EXPORT uint16_t CmUrlPort(const CCmUrlParts& aUrl);

/// Puts parts together again. Turn m_bHasUserInfo off to print a URL where others read it.
/// A path that would be taken for an authority or a scheme gets "/." or "./" in front. CM_OK or
/// CM_ERROR_OUT_OF_MEMORY.
CM_UTIL_EXPORT CmResult CmComposeUrl(const CCmUrlParts& aUrl, CCmString& aText);

/// What aReference means where aBase, a URL with a scheme, is the document (RFC 3986, 5.2). CM_OK
/// or CM_ERROR_OUT_OF_MEMORY.
CM_UTIL_EXPORT CmResult CmResolveUrl(const CCmUrlParts& aBase, const CCmUrlParts& aReference,
                                     CCmString& aText);

/// The normal form of a URL with a scheme (RFC 3986, 6.2.2 and 6.2.3): scheme and host in lower
/// case, percent-encoding in upper case and only where needed, "." and ".." resolved, IPv6
/// addresses as RFC 5952 prints them, no empty or default port, "/" for an empty path after an
/// authority. Two URLs with one normal form mean the same. CM_OK or CM_ERROR_OUT_OF_MEMORY.
CM_UTIL_EXPORT CmResult CmNormalizeUrl(const CCmUrlParts& aUrl, CCmString& aText);

/// What "+" in a text stands for: itself or, as in the queries of forms, a blank.
enum class CmPlus {
    IS_PLUS,   ///< "+"
    IS_BLANK,  ///< " "
};
/// "%41" becomes "A". The bytes may be any, NUL among them. On an error aText is as it was.
CM_UTIL_EXPORT CCmParsed CmPercentDecode(std::string_view aEncoded, CCmString& aText,
                                         CmPlus aPlus = CmPlus::IS_PLUS);
/// Encodes every byte but letters, digits, "-", ".", "_" and "~". CM_OK or CM_ERROR_OUT_OF_MEMORY.
CM_UTIL_EXPORT CmResult CmPercentEncode(std::string_view aText, CCmString& aEncoded);

/// Takes the first of the parameters "name=value&name=value" off aQuery; false at the end. Still
/// encoded; empty parameters are skipped, one without "=" has an empty value.
CM_UTIL_EXPORT bool CmNextQueryParameter(std::string_view& aQuery, std::string_view& aName,
                                         std::string_view& aValue);
/// The decoded value of the first parameter whose decoded name is aName; "+" is a blank in both.
/// CM_ERROR_NOT_FOUND; the other errors are those of CmPercentDecode, counted in aQuery.
CM_UTIL_EXPORT CCmParsed CmFindQueryParameter(std::string_view aQuery, std::string_view aName,
                                              CCmString& aValue);

// ---- Base64 (RFC 4648) and UTF-8

/// The last two of the 64 characters: those of section 4, or those of section 5 for URLs and file
/// names.
enum class CmBase64Alphabet {
    STANDARD,  ///< "+/"
    URL,       ///< "-_"
};
/// Whether "=" fills the last four characters up.
enum class CmBase64Padding {
    REQUIRED,  ///< it must be there
    NONE,      ///< it must not be there
    OPTIONAL,  ///< decoding takes both; encoding writes it
};

/// Bytes that decoding a text of aLength characters needs at most.
constexpr size_t CmBase64DecodedMax(size_t aLength) {
    return aLength / 4 * 3 + (aLength % 4 > 1 ? aLength % 4 - 1 : 0);
}

/// Decodes into aOut, of aOutSize bytes, and stores how many it wrote. Line ends, blanks, bits that
/// are left over and not zero: refused. On an error aOut may have been written to.
CM_UTIL_EXPORT CCmParsed CmDecodeBase64(std::string_view aText, void* aOut, size_t aOutSize,
                                        size_t& aLength,
                                        CmBase64Alphabet aAlphabet = CmBase64Alphabet::STANDARD,
                                        CmBase64Padding aPadding = CmBase64Padding::REQUIRED);
/// The same into a string, which is empty after an error.
CM_UTIL_EXPORT CCmParsed CmDecodeBase64(std::string_view aText, CCmString& aOut,
                                        CmBase64Alphabet aAlphabet = CmBase64Alphabet::STANDARD,
                                        CmBase64Padding aPadding = CmBase64Padding::REQUIRED);
/// OPTIONAL pads. On an error, CM_ERROR_OUT_OF_MEMORY, aText is empty.
CM_UTIL_EXPORT CmResult CmEncodeBase64(std::string_view aBytes, CCmString& aText,
                                       CmBase64Alphabet aAlphabet = CmBase64Alphabet::STANDARD,
                                       CmBase64Padding aPadding = CmBase64Padding::REQUIRED);

/// Whether the bytes are UTF-8 (RFC 3629): nothing overlong, no surrogates, nothing above U+10FFFF.
/// m_nAt is the first byte of the sequence that is not.
CM_UTIL_EXPORT CCmParsed CmCheckUtf8(std::string_view aText);

}  // namespace UTIL_NS

#endif  // CM_STRICT_H
