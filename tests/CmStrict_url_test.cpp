// URLs, against the examples of RFC 3986 and tables of our own.
#include <gtest/gtest.h>

#include <string>

#include "CmStrict.h"

using namespace UTIL_NS;

namespace {

std::string Normalized(const std::string& aText) {
    CCmUrlParts url;
    CCmString strText;
    return CmParseUrl(aText, url) && CmNormalizeUrl(url, strText) == CM_OK ? strText : "(none)";
}

std::string ResolvedAgainst(const std::string& aBase, const std::string& aReference) {
    CCmUrlParts base;
    CCmUrlParts reference;
    CCmString strText;
    return CmParseUrl(aBase, base) && CmParseUrlReference(aReference, reference) &&
                   CmResolveUrl(base, reference, strText) == CM_OK
               ? strText
               : "(none)";
}

}  // namespace

TEST(CmStrictUrl, TakesTheExamplesOfRfc3986) {
    // RFC 3986, 1.1.2 and 3: scheme, user information, host, port, path, query, fragment; "-" is
    // what is not there.
    const struct {
        const char* text;
        const char* scheme;
        const char* userInfo;
        const char* host;
        const char* port;
        const char* path;
        const char* query;
        const char* fragment;
        CCmUrlParts::HostKind kind;
    } ROWS[] = {
        {"ftp://ftp.is.co.za/rfc/rfc1808.txt", "ftp", "-", "ftp.is.co.za", "-", "/rfc/rfc1808.txt",
         "-", "-", CCmUrlParts::NAME_HOST},
        {"http://www.ietf.org/rfc/rfc2396.txt", "http", "-", "www.ietf.org", "-",
         "/rfc/rfc2396.txt", "-", "-", CCmUrlParts::NAME_HOST},
        {"ldap://[2001:db8::7]/c=GB?objectClass?one", "ldap", "-", "2001:db8::7", "-", "/c=GB",
         "objectClass?one", "-", CCmUrlParts::IPV6_HOST},
        {"mailto:John.Doe@example.com", "mailto", "-", "-", "-", "John.Doe@example.com", "-", "-",
         CCmUrlParts::NO_HOST},
        {"news:comp.infosystems.www.servers.unix", "news", "-", "-", "-",
         "comp.infosystems.www.servers.unix", "-", "-", CCmUrlParts::NO_HOST},
        {"tel:+1-816-555-1212", "tel", "-", "-", "-", "+1-816-555-1212", "-", "-",
         CCmUrlParts::NO_HOST},
        {"telnet://192.0.2.16:80/", "telnet", "-", "192.0.2.16", "80", "/", "-", "-",
         CCmUrlParts::IPV4_HOST},
        {"urn:oasis:names:tc:docbook:dtd:xml:4.1.2", "urn", "-", "-", "-",
         "oasis:names:tc:docbook:dtd:xml:4.1.2", "-", "-", CCmUrlParts::NO_HOST},
        {"foo://example.com:8042/over/there?name=ferret#nose", "foo", "-", "example.com", "8042",
         "/over/there", "name=ferret", "nose", CCmUrlParts::NAME_HOST},
        {"urn:example:animal:ferret:nose", "urn", "-", "-", "-", "example:animal:ferret:nose", "-",
         "-", CCmUrlParts::NO_HOST},
        {"http://user:pw@host:81/", "http", "user:pw", "host", "81", "/", "-", "-",
         CCmUrlParts::NAME_HOST},
        {"file:///etc/hosts", "file", "-", "", "-", "/etc/hosts", "-", "-", CCmUrlParts::NO_HOST},
        {"x://@:?#", "x", "", "", "", "", "", "", CCmUrlParts::NO_HOST},
        {"x://[v1f.a:b]/", "x", "-", "v1f.a:b", "-", "/", "-", "-", CCmUrlParts::FUTURE_HOST},
        {"udp://[::1]:5004", "udp", "-", "::1", "5004", "", "-", "-", CCmUrlParts::IPV6_HOST},
        {"x://[fe80::a%25en1]/", "x", "-", "fe80::a%25en1", "-", "/", "-", "-",
         CCmUrlParts::IPV6_HOST},
        {"x:", "x", "-", "-", "-", "", "-", "-", CCmUrlParts::NO_HOST},
        {"a1+b-c.d:", "a1+b-c.d", "-", "-", "-", "", "-", "-", CCmUrlParts::NO_HOST},
        {"http://a%20b/%7Ex", "http", "-", "a%20b", "-", "/%7Ex", "-", "-", CCmUrlParts::NAME_HOST},
        {"http://300.1.1.1/", "http", "-", "300.1.1.1", "-", "/", "-", "-", CCmUrlParts::NAME_HOST},
    };
    for (const auto& row : ROWS) {
        CCmUrlParts url;
        const CCmParsed parsed = CmParseUrl(row.text, url);
        EXPECT_EQ(CM_OK, parsed.m_Result) << row.text << " at " << parsed.m_nAt;
        const auto part = [](bool aThere, std::string_view aPart) {
            return aThere ? std::string(aPart) : "-";
        };
        EXPECT_EQ(row.scheme, part(url.m_bHasScheme, url.m_scheme)) << row.text;
        EXPECT_EQ(row.userInfo, part(url.m_bHasUserInfo, url.m_userInfo)) << row.text;
        EXPECT_EQ(row.host, part(url.m_bHasAuthority, url.m_host)) << row.text;
        EXPECT_EQ(row.port, part(url.m_bHasPort, url.m_port)) << row.text;
        EXPECT_EQ(row.path, url.m_path) << row.text;
        EXPECT_EQ(row.query, part(url.m_bHasQuery, url.m_query)) << row.text;
        EXPECT_EQ(row.fragment, part(url.m_bHasFragment, url.m_fragment)) << row.text;
        EXPECT_EQ(row.kind, url.m_hostKind) << row.text;
        CCmString strAgain;
        EXPECT_EQ(CM_OK, CmComposeUrl(url, strAgain));
        EXPECT_EQ(row.text, strAgain);
    }
}

TEST(CmStrictUrl, NamesThePlace_WhenItRefuses) {
    const struct {
        std::string text;
        CmResult result;
        size_t at;
    } ROWS[] = {
        {"", CM_ERROR_INVALID_ARG, 0},
        {"host", CM_ERROR_INVALID_ARG, 4},
        {"//host/", CM_ERROR_INVALID_ARG, 0},
        {"1http://h/", CM_ERROR_INVALID_ARG, 0},
        {"ht_tp://h/", CM_ERROR_INVALID_ARG, 2},
        {":x", CM_ERROR_INVALID_ARG, 0},
        {" http://h/", CM_ERROR_INVALID_ARG, 0},
        {"http://h/ ", CM_ERROR_INVALID_ARG, 9},
        {"http://h/a b", CM_ERROR_INVALID_ARG, 10},
        {"http://h/\n", CM_ERROR_INVALID_ARG, 9},
        {"http://h/\xC3\xA9", CM_ERROR_INVALID_ARG, 9},
        {std::string("http://h/\0", 10), CM_ERROR_INVALID_ARG, 9},
        {"http://h/%4", CM_ERROR_INVALID_ARG, 9},
        {"http://h/%zz", CM_ERROR_INVALID_ARG, 9},
        {"http://h/?a%", CM_ERROR_INVALID_ARG, 11},
        {"http://h/#a#b", CM_ERROR_INVALID_ARG, 11},
        {"http://h/[", CM_ERROR_INVALID_ARG, 9},
        {"http://h\\/", CM_ERROR_INVALID_ARG, 8},
        {"http://a@b@c/", CM_ERROR_INVALID_ARG, 10},
        {"http://a[@b/", CM_ERROR_INVALID_ARG, 8},
        {"http://h:81x/", CM_ERROR_INVALID_ARG, 11},
        {"http://h:-1/", CM_ERROR_INVALID_ARG, 9},
        {"http://h:70000/", CM_ERROR_FAILURE, 9},
        {"udp://127.0.0.1:70000", CM_ERROR_FAILURE, 16},
        {"http://h:1:2/", CM_ERROR_INVALID_ARG, 10},
        {"http://::1/", CM_ERROR_INVALID_ARG, 8},
        {"http:///x", CM_ERROR_INVALID_ARG, 7},
        {"http://:80/", CM_ERROR_INVALID_ARG, 7},
        {"http://user@/", CM_ERROR_INVALID_ARG, 12},
        {"http:x", CM_ERROR_INVALID_ARG, 5},
        {"WSS:", CM_ERROR_INVALID_ARG, 4},
        {"http://[::1/", CM_ERROR_INVALID_ARG, 11},
        {"http://[]/", CM_ERROR_INVALID_ARG, 8},
        {"http://[::g]/", CM_ERROR_INVALID_ARG, 10},
        {"http://[1.2.3.4]/", CM_ERROR_INVALID_ARG, 15},
        {"http://[::1]x/", CM_ERROR_INVALID_ARG, 12},
        {"http://[fe80::1%en1]/", CM_ERROR_INVALID_ARG, 15},
        {"http://[fe80::1%25]/", CM_ERROR_INVALID_ARG, 18},
        {"http://[v.x]/", CM_ERROR_INVALID_ARG, 9},
        {"http://[v1.]/", CM_ERROR_INVALID_ARG, 11},
        {"http://[v1.a%20]/", CM_ERROR_INVALID_ARG, 12},
    };
    for (const auto& row : ROWS) {
        CCmUrlParts url;
        url.m_wPort = 7;
        const CCmParsed parsed = CmParseUrl(row.text, url);
        EXPECT_EQ(row.result, parsed.m_Result) << row.text;
        EXPECT_EQ(row.at, parsed.m_nAt) << row.text;
        EXPECT_NE(nullptr, parsed.m_pszExpected) << row.text;
        EXPECT_EQ(7, url.m_wPort) << row.text;
    }
}

TEST(CmStrictUrl, SaysWhatItExpected_WhenItRefuses) {
    const struct {
        const char* text;
        const char* expected;
    } ROWS[] = {
        {"http://h/%4", "\"%\" and two hexadecimal digits"},
        {"http://h/a b", "a character of a URL, or its percent-encoding"},
        {"http://h/&\\", "a character of a URL, or its percent-encoding"},
        {"host", "a colon after the scheme"},
        {"//host", "a scheme, which starts with a letter"},
        {"http:///x", "a host"},
        {"http:x", "\"//\" and a host"},
        {"http://h:70000/", "a port from 0 to 65535"},
        {"http://[::1", "a \"]\""},
        {"http://[v.x]/", "a version and a dot"},
        {"http://[v1.]/", "an address"},
        {"http://[fe80::1%1]/", "\"%25\" before the zone"},
        {"http://[fe80::1%25]/",
         "a zone of 1 to 15 letters, digits, \"-\", \".\", \"_\" and \"~\""},
    };
    for (const auto& row : ROWS) {
        CCmUrlParts url;
        EXPECT_STREQ(row.expected, CmParseUrl(row.text, url).m_pszExpected) << row.text;
    }
}

TEST(CmStrictUrl, TakesAReference_WhenItsFirstSegmentHasNoColon) {
    CCmUrlParts url;
    for (const char* pszText :
         {"", "#", "?", "a", "./a:b", "a/b:c", "//h", "/a:b", "?a:b", "a@b"}) {
        EXPECT_TRUE(CmParseUrlReference(pszText, url)) << pszText;
        EXPECT_FALSE(url.m_bHasScheme) << pszText;
    }
    const CCmParsed parsed = CmParseUrlReference("1a:b", url);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, parsed.m_Result);
    EXPECT_EQ(2U, parsed.m_nAt);
    EXPECT_FALSE(CmParseUrlReference("a@b:c", url));
}

TEST(CmStrictUrl, KnowsThePortOfAConnection) {
    CCmUrlParts url;
    const auto port = [&url](const char* aText) {
        EXPECT_TRUE(CmParseUrl(aText, url)) << aText;
        return CmUrlPort(url);
    };
    EXPECT_EQ(80, port("HTTP://h/"));
    EXPECT_EQ(443, port("https://h:/"));
    EXPECT_EQ(80, port("ws://h/"));
    EXPECT_EQ(443, port("wss://h/"));
    EXPECT_EQ(0, port("udp://h/"));
    EXPECT_EQ(8080, port("http://h:008080/"));
    EXPECT_EQ(0, port("http://h:0/"));
}

TEST(CmStrictUrl, ResolvesTheExamplesOfRfc3986) {
    // RFC 3986, 5.4.1 and 5.4.2.
    const struct {
        const char* reference;
        const char* url;
    } ROWS[] = {
        {"g:h", "g:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g"},
        {"?y", "http://a/b/c/d;p?y"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"},
        {"g#s", "http://a/b/c/g#s"},
        {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"},
        {"g;x", "http://a/b/c/g;x"},
        {"g;x?y#s", "http://a/b/c/g;x?y#s"},
        {"", "http://a/b/c/d;p?q"},
        {".", "http://a/b/c/"},
        {"./", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../", "http://a/"},
        {"../../g", "http://a/g"},
        {"../../../g", "http://a/g"},
        {"../../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"/../g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {".g", "http://a/b/c/.g"},
        {"g..", "http://a/b/c/g.."},
        {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g"},
        {"./g/.", "http://a/b/c/g/"},
        {"g/./h", "http://a/b/c/g/h"},
        {"g/../h", "http://a/b/c/h"},
        {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
        {"g;x=1/../y", "http://a/b/c/y"},
        {"g?y/./x", "http://a/b/c/g?y/./x"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"g#s/./x", "http://a/b/c/g#s/./x"},
        {"g#s/../x", "http://a/b/c/g#s/../x"},
    };
    for (const auto& row : ROWS) {
        EXPECT_EQ(row.url, ResolvedAgainst("http://a/b/c/d;p?q", row.reference)) << row.reference;
    }
    // A scheme makes it a URL of its own, that of the base, too.
    EXPECT_EQ("ftp:g", ResolvedAgainst("ftp://a/b", "ftp:g"));
    EXPECT_EQ("x://h/g", ResolvedAgainst("x://h", "g"));
    EXPECT_EQ("x:/.//g", ResolvedAgainst("x:/a/b", "/..//g"));
    EXPECT_EQ("http://u@[::1]:8/b?c", ResolvedAgainst("http://u@[::1]:8/a", "b?c"));
}

TEST(CmStrictUrl, HasANormalForm) {
    const struct {
        const char* text;
        const char* normal;
    } ROWS[] = {
        // RFC 3986, 6.2.2 and 6.2.3.
        {"eXAMPLE://a/./b/../b/%63/%7bfoo%7d", "example://a/b/c/%7Bfoo%7D"},
        {"HTTP://www.EXAMPLE.com/", "http://www.example.com/"},
        {"http://example.com", "http://example.com/"},
        {"http://example.com/", "http://example.com/"},
        {"http://example.com:/", "http://example.com/"},
        {"http://example.com:80/", "http://example.com/"},
        {"http://example.com:0080/", "http://example.com/"},
        {"http://example.com:081/", "http://example.com:81/"},
        {"ws://h:443/", "ws://h:443/"},
        {"wss://h:443", "wss://h/"},
        {"x://h:80", "x://h:80/"},
        {"http://User%3a@H%41%c3%a9/%7e?%61#%62", "http://User%3A@ha%C3%A9/~?a#b"},
        {"http://[2001:DB8:0:0:0:0:0:1]/", "http://[2001:db8::1]/"},
        {"http://[FE80::1%25en0]/", "http://[fe80::1%25en0]/"},
        {"http://h/%2e%2e/a/%2E/b", "http://h/a/b"},
        {"http://h/a%2fb", "http://h/a%2Fb"},
        {"x:/.//h", "x:/.//h"},
        {"x:/a/..//h", "x:/.//h"},
        {"mailto:A@B", "mailto:A@B"},
        {"x:.", "x:"},
        {"x:..", "x:"},
        {"x:./a", "x:a"},
        {"x:../a", "x:a"},
        {"http://h?", "http://h/?"},
    };
    for (const auto& row : ROWS) {
        EXPECT_EQ(row.normal, Normalized(row.text)) << row.text;
        EXPECT_EQ(row.normal, Normalized(row.normal)) << "again";
    }
}

TEST(CmStrictUrl, IsComposedSoThatItIsReadAsItWas) {
    CCmUrlParts url;
    CCmString strText;
    const std::string sQuery = "?" + std::string(200, 'q');
    for (const std::string& sText :
         {std::string("a/b:c"), std::string("./a:b"), std::string("/a:b"), std::string("?a:b"),
          std::string("//h/a:b"), std::string("0/b:c"), std::string(), sQuery}) {
        ASSERT_TRUE(CmParseUrlReference(sText, url)) << sText;
        EXPECT_EQ(CM_OK, CmComposeUrl(url, strText));
        EXPECT_EQ(sText, strText);
    }
    // A first segment with a colon would be a scheme, "//" an authority.
    CCmUrlParts parts;
    parts.m_path = "a:b/c";
    EXPECT_EQ(CM_OK, CmComposeUrl(parts, strText));
    EXPECT_EQ("./a:b/c", strText);
    parts.m_path = "//a";
    EXPECT_EQ(CM_OK, CmComposeUrl(parts, strText));
    EXPECT_EQ("/.//a", strText);
}

TEST(CmStrictUrl, IsPrinted_WithoutItsPassword) {
    CCmUrlParts url;
    ASSERT_TRUE(CmParseUrl("https://me:secret@h/x", url));
    url.m_bHasUserInfo = false;
    CCmString strText;
    EXPECT_EQ(CM_OK, CmComposeUrl(url, strText));
    EXPECT_EQ("https://h/x", strText);
}

TEST(CmStrictUrl, DecodesPercentEncoding) {
    CCmString strText = "old";
    EXPECT_TRUE(CmPercentDecode("a%20b%2Fc+%00%ff", strText));
    EXPECT_EQ(std::string("a b/c+\0\xFF", 8), strText);
    EXPECT_TRUE(CmPercentDecode("a+b", strText, CmPlus::IS_BLANK));
    EXPECT_EQ("a b", strText);
    for (const char* pszText : {"ab%", "ab%1", "ab%1g", "ab%g1", "ab%%20"}) {
        const CCmParsed parsed = CmPercentDecode(pszText, strText);
        EXPECT_EQ(CM_ERROR_INVALID_ARG, parsed.m_Result) << pszText;
        EXPECT_EQ(2U, parsed.m_nAt) << pszText;
        EXPECT_EQ("a b", strText);
    }
    CCmString strEncoded;
    EXPECT_EQ(CM_OK, CmPercentEncode(std::string("aZ09-._~ +%/\0\xC3", 14), strEncoded));
    EXPECT_EQ("aZ09-._~%20%2B%25%2F%00%C3", strEncoded);
}

TEST(CmStrictUrl, ListsQueryParameters) {
    std::string_view query = "a=1&&b&=2&c=x=y&";
    std::string_view name;
    std::string_view value;
    std::string sAll;
    while (CmNextQueryParameter(query, name, value)) {
        sAll += "<" + std::string(name) + "|" + std::string(value) + ">";
    }
    EXPECT_EQ("<a|1><b|><|2><c|x=y>", sAll);
    EXPECT_TRUE(query.empty());
}

TEST(CmStrictUrl, FindsAQueryParameterByItsDecodedName) {
    CCmString strValue = "old";
    const std::string sQuery = "x=1&room+id=a%20b+c&x=2&bad=%4";
    EXPECT_TRUE(CmFindQueryParameter(sQuery, "room id", strValue));
    EXPECT_EQ("a b c", strValue);
    EXPECT_TRUE(CmFindQueryParameter(sQuery, "x", strValue));
    EXPECT_EQ("1", strValue);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, CmFindQueryParameter(sQuery, "y", strValue).m_Result);
    const CCmParsed parsed = CmFindQueryParameter(sQuery, "bad", strValue);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, parsed.m_Result);
    EXPECT_EQ(sQuery.size() - 2, parsed.m_nAt);
    EXPECT_EQ("1", strValue);
}
