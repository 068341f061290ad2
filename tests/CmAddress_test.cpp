#include "CmAddress.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstring>

#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::ScopedEntry;
using kelto_test::ScopedTraceSink;

// A resolver that knows these names only.
constexpr char KNOWN_NAME[] = "known.test";        // 192.0.2.7, then 192.0.2.8
constexpr char IPV6_NAME[] = "six.test";           // an IPv6 address
constexpr char ALIEN_NAME[] = "alien.test";        // four bytes of another family
constexpr char EMPTY_NAME[] = "empty.test";        // no address at all
constexpr char LISTLESS_NAME[] = "listless.test";  // not even a list
constexpr char SHORT_NAME[] = "short.test";        // an address that is too short
int g_nResolved = 0;

hostent* FakeGetHostByName(const char* aName) {
    static unsigned char s_abyFirst[16];
    static unsigned char s_abySecond[4] = {192, 0, 2, 8};
    static char* s_apList[3];
    static hostent s_host;
    ++g_nResolved;
    constexpr unsigned char FIRST[4] = {192, 0, 2, 7};
    std::memcpy(s_abyFirst, FIRST, sizeof(FIRST));
    s_apList[0] = reinterpret_cast<char*>(s_abyFirst);
    s_apList[1] = reinterpret_cast<char*>(s_abySecond);
    s_apList[2] = nullptr;
    s_host = hostent{nullptr, nullptr, AF_INET, 4, s_apList};
    const std::string strName = aName;
    if (strName == IPV6_NAME) {
        s_host.h_addrtype = AF_INET6;
        s_host.h_length = 16;
    } else if (strName == ALIEN_NAME) {
        s_host.h_addrtype = AF_UNIX;
    } else if (strName == EMPTY_NAME) {
        s_apList[0] = nullptr;
    } else if (strName == LISTLESS_NAME) {
        s_host.h_addr_list = nullptr;
    } else if (strName == SHORT_NAME) {
        s_host.h_length = 3;
    } else if (strName != KNOWN_NAME) {
        return nullptr;
    }
    return &s_host;
}

int FakeGetHostName(char* aName, size_t aSize) {
    std::strncpy(aName, KNOWN_NAME, aSize);
    return 0;
}

// Names the host known.test and resolves with the fake; what get_local_ip remembers is forgotten.
class CmAddressFake : public testing::Test {
  protected:
    CmAddressFake() {
        g_nResolved = 0;
        g_local_ip[0] = '\0';
    }
    ~CmAddressFake() override { g_local_ip[0] = '\0'; }

  private:
    ScopedEntry<decltype(g_cmSystem.gethostbyname)> m_Resolver{g_cmSystem.gethostbyname,
                                                               FakeGetHostByName};
    ScopedEntry<decltype(g_cmSystem.gethostname)> m_Name{g_cmSystem.gethostname, FakeGetHostName};
};

// The functions take writable text.
class Text {
  public:
    Text(const char* aText) : m_strText(aText) {}
    operator char*() { return &m_strText[0]; }

  private:
    std::string m_strText;
};

struct Parsed {
    int result;
    char scheme[16];
    char ip[CM_IP_TEXT_SIZE];
    unsigned short port;
};

Parsed Parse(const char* aText) {
    Parsed parsed = {-1, "unset", "unset", 9};
    parsed.result = transport_address_parse(Text(aText), parsed.scheme, sizeof(parsed.scheme),
                                            parsed.ip, sizeof(parsed.ip), &parsed.port);
    return parsed;
}

struct ParseRow {
    const char* text;
    int result;
    const char* scheme;
    const char* ip;
    unsigned short port;
    const char* reason;
};

TEST_F(CmAddressFake, ParsesTransportAddresses) {
    constexpr ParseRow ROWS[] = {
        {"tcp://10.1.2.3:8080", 1, "tcp", "10.1.2.3", 8080, "all parts"},
        {"udp://known.test:5000", 1, "udp", "192.0.2.7", 5000, "a name that resolves"},
        {"udp://unknown.test:5000", 0, "udp", "unset", 9, "a name that does not"},
        {"tcp://1.2.3.4", 0, "tcp", "unset", 9, "no port separator"},
        {"tcp://1.2.3.4:", 0, "tcp", "1.2.3.4", 9, "no port"},
        {"tcp:/1.2.3.4:5", 0, "unset", "unset", 9, "no ://"},
        {"", 0, "unset", "unset", 9, "empty"},
        {"://1.2.3.4:5", 1, "", "1.2.3.4", 5, "an empty scheme"},
        {"tcp://:5", 1, "tcp", "", 5, "an empty host counts as an address"},
        {"tcp://1. 2\t:5", 1, "tcp", "1. 2\t", 5, "blanks and tabs count as an address"},
        {"tcp://1.2.3.4:5/path", 1, "tcp", "1.2.3.4", 5, "what follows the number is ignored"},
        {"tcp://1.2.3.4:x", 1, "tcp", "1.2.3.4", 0, "no number"},
        {"tcp://1.2.3.4: 7", 1, "tcp", "1.2.3.4", 7, "blanks before the number"},
        {"tcp://1.2.3.4:-1", 1, "tcp", "1.2.3.4", 65535, "cut to 16 bits"},
        {"tcp://1.2.3.4:65536", 1, "tcp", "1.2.3.4", 0, "cut to 16 bits"},
        {"tcp://1.2.3.4:65537", 1, "tcp", "1.2.3.4", 1, "cut to 16 bits"},
        {"tcp://1.2.3.4:99999999999999999999", 1, "tcp", "1.2.3.4", 65535, "counts as LONG_MAX"},
        {"tcp://1.2.3.4:-99999999999999999999", 1, "tcp", "1.2.3.4", 0, "counts as LONG_MIN"},
        {"tcp://a://1.2.3.4:5", 0, "tcp", "unset", 9, "the first :// counts"},
        {"tcp:1://1.2.3.4:5", 1, "tcp:1", "1.2.3.4", 5, "a colon in front of :// counts not"},
    };
    for (const ParseRow& row : ROWS) {
        SCOPED_TRACE(std::string(row.text) + ": " + row.reason);
        const Parsed parsed = Parse(row.text);
        EXPECT_EQ(parsed.result, row.result);
        EXPECT_STREQ(parsed.scheme, row.scheme);
        EXPECT_STREQ(parsed.ip, row.ip);
        EXPECT_EQ(parsed.port, row.port);
    }
}

TEST_F(CmAddressFake, ParsesUpTo64Characters) {
    const std::string strShort = "tcp://1.2.3.4:";
    EXPECT_EQ(Parse((strShort + std::string(49, '0') + "7").c_str()).port, 7);
    const Parsed parsed = Parse((strShort + std::string(50, '0') + "7").c_str());
    EXPECT_EQ(parsed.result, 0);
    EXPECT_STREQ(parsed.scheme, "unset");
}

TEST_F(CmAddressFake, CutsScheme_WhenItDoesNotFit) {
    char achScheme[] = "xxxxxx";
    char achIp[CM_IP_TEXT_SIZE];
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(Text("scheme://1.2.3.4:5"), achScheme, 4, achIp,
                                      sizeof(achIp), &wPort),
              1);
    EXPECT_EQ(std::string(achScheme, 6), std::string("sch\0xx", 6));
}

TEST_F(CmAddressFake, CutsAddress_WhenItDoesNotFit) {
    char achScheme[16];
    char achIp[] = "xxxxxx";
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(Text("tcp://1.2.3.4:5"), achScheme, sizeof(achScheme), achIp,
                                      4, &wPort),
              1);
    EXPECT_EQ(std::string(achIp, 6), std::string("1.2\0xx", 6));
}

TEST_F(CmAddressFake, KeepsWholeTexts_WhenTheyJustFit) {
    char achScheme[4];
    char achIp[8];
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(Text("tcp://1.2.3.4:5"), achScheme, sizeof(achScheme), achIp,
                                      sizeof(achIp), &wPort),
              1);
    EXPECT_STREQ(achScheme, "tcp");
    EXPECT_STREQ(achIp, "1.2.3.4");
}

TEST_F(CmAddressFake, WritesTheTerminator_WhenTheBufferHasOneByte) {
    char achScheme[] = "x";
    char achIp[] = "y";
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(Text("tcp://1.2.3.4:5"), achScheme, 1, achIp, 1, &wPort), 1);
    EXPECT_STREQ(achScheme, "");
    EXPECT_STREQ(achIp, "");
}

TEST_F(CmAddressFake, WritesNothing_WhenTheBufferHasNoSize) {
    char achScheme[] = "x";
    char achIp[] = "y";
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(Text("tcp://1.2.3.4:5"), achScheme, 0, achIp, -1, &wPort), 1);
    EXPECT_STREQ(achScheme, "x");
    EXPECT_STREQ(achIp, "y");
    EXPECT_EQ(wPort, 5);
}

TEST_F(CmAddressFake, RefusesNulls_WhenParsing) {
    char achText[32] = "tcp://1.2.3.4:5";
    char achOut[32] = "";
    unsigned short wPort = 0;
    EXPECT_EQ(transport_address_parse(nullptr, achOut, 32, achOut, 32, &wPort), 0);
    EXPECT_EQ(transport_address_parse(achText, nullptr, 32, achOut, 32, &wPort), 0);
    EXPECT_EQ(transport_address_parse(achText, achOut, 32, nullptr, 32, &wPort), 0);
    EXPECT_EQ(transport_address_parse(achText, achOut, 32, achOut, 32, nullptr), 0);
}

TEST_F(CmAddressFake, TracesUnknownName_WhenParsing) {
    ScopedTraceSink sink;
    Parse("udp://unknown.test:5000");
    ASSERT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.lines()[0].text,
              "UTIL ERROR: resolve_2_ip: can't resolve host_name: unknown.test");
}

TEST(CmIsIpAddress, TellsAddressesFromNames) {
    for (const char* pText : {"", " ", "1.2 ", "1.2.3.4", "\t", "...", "0123456789", "1 2"}) {
        EXPECT_EQ(is_ip_address(Text(pText)), 1) << pText;
    }
    for (const char* pText : {"1.2.3.a", "a", "-1", "::1", "1,2", "\n", "1.2.3.4\xC3", "/"}) {
        EXPECT_EQ(is_ip_address(Text(pText)), 0) << pText;
    }
}

TEST(CmIsIpAddress, IsTraced_WhenTheTextIsNull) {
    ScopedTraceSink sink;
    EXPECT_EQ(is_ip_address(nullptr), 0);
    ASSERT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.lines()[0].level, 0u);
    EXPECT_EQ(sink.lines()[0].text, "UTIL ERROR: is_ip_address: ip string is null");
}

TEST_F(CmAddressFake, ResolvesToTheFirstAddress) {
    char achIp[CM_IP_TEXT_SIZE] = "";
    ScopedTraceSink sink;
    resolve_2_ip(Text(KNOWN_NAME), achIp);
    EXPECT_STREQ(achIp, "192.0.2.7");
    EXPECT_EQ(sink.lines().size(), 0u);
    char achOther[CM_IP_TEXT_SIZE] = "";
    EXPECT_EQ(resolve_to_ip(Text(KNOWN_NAME), achOther), achOther);
    EXPECT_STREQ(achOther, "192.0.2.7");
}

TEST_F(CmAddressFake, CountsAsNotResolved_WithoutIpv4Address) {
    for (const char* pName :
         {"unknown.test", IPV6_NAME, ALIEN_NAME, EMPTY_NAME, LISTLESS_NAME, SHORT_NAME}) {
        char achIp[CM_IP_TEXT_SIZE] = "kept";
        ScopedTraceSink sink;
        EXPECT_EQ(resolve_to_ip(Text(pName), achIp), nullptr) << pName;
        EXPECT_EQ(sink.lines().size(), 0u);
        resolve_2_ip(Text(pName), achIp);
        EXPECT_STREQ(achIp, "kept");
        ASSERT_EQ(sink.lines().size(), 1u);
        EXPECT_EQ(sink.lines()[0].level, 0u);
        EXPECT_EQ(sink.lines()[0].text,
                  std::string("UTIL ERROR: resolve_2_ip: can't resolve host_name: ") + pName);
    }
}

TEST_F(CmAddressFake, TracesNulls_WhenResolving) {
    ScopedTraceSink sink;
    char achIp[CM_IP_TEXT_SIZE] = "kept";
    resolve_2_ip(nullptr, achIp);
    resolve_2_ip(Text("a.test"), nullptr);
    resolve_2_ip(nullptr, nullptr);
    EXPECT_STREQ(achIp, "kept");
    ASSERT_EQ(sink.lines().size(), 3u);
    EXPECT_EQ(sink.lines()[0].level, 0u);
    EXPECT_EQ(sink.lines()[0].text,
              "UTIL ERROR: resolve_2_ip: No host_name: ; or ip_address: kept; given");
    EXPECT_EQ(sink.lines()[1].text,
              "UTIL ERROR: resolve_2_ip: No host_name: a.test; or ip_address: ; given");
    EXPECT_EQ(sink.lines()[2].text,
              "UTIL ERROR: resolve_2_ip: No host_name: ; or ip_address: ; given");
    EXPECT_EQ(g_nResolved, 0);
}

TEST_F(CmAddressFake, ReadsNoMoreThanAnAddress_WhenTheOutputIsNotTerminated) {
    ScopedTraceSink sink;
    char achIp[CM_IP_TEXT_SIZE];
    std::memset(achIp, 'x', sizeof(achIp));
    resolve_2_ip(nullptr, achIp);
    EXPECT_EQ(sink.lines().at(0).text,
              "UTIL ERROR: resolve_2_ip: No host_name: ; or ip_address: xxxxxxxxxxxxxxx; given");
}

TEST_F(CmAddressFake, ReturnsNull_WhenResolvingNull) {
    ScopedTraceSink sink;
    char achIp[CM_IP_TEXT_SIZE] = "kept";
    EXPECT_EQ(resolve_to_ip(nullptr, achIp), nullptr);
    EXPECT_EQ(resolve_to_ip(Text("a.test"), nullptr), nullptr);
    EXPECT_EQ(sink.lines().size(), 0u);
}

struct NumberRow {
    const char* text;
    unsigned long id;
    const char* reason;
};

TEST_F(CmAddressFake, ConvertsTextToNumber) {
    constexpr NumberRow ROWS[] = {
        {"1.2.3.4", 16909060UL, "first octet most significant"},
        {"200.1.2.3", 3355509251UL, "above 2^31"},
        {"255.255.255.255", 4294967295UL, "the largest"},
        {"0.0.0.0", 0UL, "the smallest"},
        {"300.0.0.0", 5033164800UL, "octets are not tested"},
        {"0.0.0.1000", 1000UL, "octets are not tested"},
        {"0.0.256.0", 65536UL, "octets are not tested"},
        {"1.2.3", 0UL, "three numbers"},
        {"1.2.3.", 0UL, "three numbers and a dot"},
        {"1", 0UL, "one number"},
        {"", 0UL, "no number"},
        {"...", 0UL, "dots only"},
        {".1.2.3.4", 0UL, "a dot in front"},
        {"1.2.3.4.5", 16909060UL, "a fifth number is ignored"},
        {" 1. 2.\t3. 4", 16909060UL, "blanks before numbers"},
        {"1 .2.3.4", 0UL, "a blank before a dot"},
        {"1..2.3.4", 0UL, "two dots"},
        {"0.0.0.99999999999999999999", 2147483647UL, "does not fit: INT_MAX"},
        {"0.0.0.4294967296", 2147483647UL, "does not fit: INT_MAX"},
        {"known.test", 3221225991UL, "resolved to 192.0.2.7"},
        {"unknown.test", 0UL, "not resolved"},
    };
    for (const NumberRow& row : ROWS) {
        EXPECT_EQ(ip_2_id(Text(row.text)), row.id) << row.text << ": " << row.reason;
    }
}

TEST_F(CmAddressFake, GivesZero_WhenTheTextIsNull) {
    EXPECT_EQ(ip_2_id(nullptr), 0u);
}

TEST_F(CmAddressFake, TracesUnknownName_WhenConverting) {
    ScopedTraceSink sink;
    ip_2_id(Text("unknown.test"));
    EXPECT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.count("resolve_2_ip: can't resolve host_name: unknown.test"), 1u);
}

TEST(CmId2Ip, ConvertsNumberToText) {
    EXPECT_STREQ(id_2_ip(16909060UL), "1.2.3.4");
    EXPECT_STREQ(id_2_ip(0), "0.0.0.0");
    EXPECT_STREQ(id_2_ip(4294967295UL), "255.255.255.255");
    EXPECT_STREQ(id_2_ip(3355509251UL), "200.1.2.3");
    EXPECT_STREQ(id_2_ip(0x700000001UL), "0.0.0.1");
}

TEST(CmId2Ip, OverwritesItsBuffer) {
    char* pFirst = id_2_ip(1);
    EXPECT_EQ(id_2_ip(2), pFirst);
    EXPECT_STREQ(pFirst, "0.0.0.2");
}

// The system cuts a long name without a terminator.
int FillWithHostName(char* aName, size_t aSize) {
    std::memset(aName, 'x', aSize);
    return 0;
}

TEST_F(CmAddressFake, TerminatesTheHostName_WhenItIsCut) {
    ScopedEntry<decltype(g_cmSystem.gethostname)> name(g_cmSystem.gethostname, FillWithHostName);
    ScopedEntry<decltype(g_cmSystem.gethostbyname)> resolver(
        g_cmSystem.gethostbyname, [](const char* aName) -> hostent* {
            EXPECT_EQ(std::string(aName), std::string(255, 'x'));
            return nullptr;
        });
    EXPECT_STREQ(get_local_ip_address(), "127.0.0.1");
}

TEST_F(CmAddressFake, RemembersLocalIp) {
    EXPECT_EQ(get_local_ip(), g_local_ip);
    EXPECT_STREQ(g_local_ip, "192.0.2.7");
    EXPECT_EQ(get_local_ip(), g_local_ip);
    EXPECT_EQ(g_nResolved, 1);
}

TEST_F(CmAddressFake, RemembersZeros_WhenTheHostHasNoName) {
    {
        FailingCall<&CCmSystemTable::gethostname> fault(EFAULT);
        EXPECT_STREQ(get_local_ip(), "0.0.0.0");
    }
    EXPECT_STREQ(get_local_ip(), "0.0.0.0");
    EXPECT_EQ(g_nResolved, 0);
}

TEST_F(CmAddressFake, RemembersZeros_WhenTheHostNameDoesNotResolve) {
    {
        FailingCall<&CCmSystemTable::gethostbyname> fault(0, nullptr);
        EXPECT_STREQ(get_local_ip(), "0.0.0.0");
    }
    EXPECT_STREQ(get_local_ip(), "0.0.0.0");
}

TEST_F(CmAddressFake, FindsLocalIpAddress_WithoutRemembering) {
    EXPECT_STREQ(get_local_ip_address(), "192.0.2.7");
    EXPECT_STREQ(get_local_ip_address(), "192.0.2.7");
    EXPECT_EQ(g_nResolved, 2);
    EXPECT_STREQ(g_local_ip, "");
}

TEST_F(CmAddressFake, GivesLoopback_WhenTheHostHasNoName) {
    FailingCall<&CCmSystemTable::gethostname> fault(EFAULT);
    EXPECT_STREQ(get_local_ip_address(), "127.0.0.1");
}

TEST_F(CmAddressFake, GivesLoopback_WhenTheHostNameDoesNotResolve) {
    FailingCall<&CCmSystemTable::gethostbyname> fault(0, nullptr);
    EXPECT_STREQ(get_local_ip_address(), "127.0.0.1");
}

TEST(CmAddressReal, ResolvesTheLoopbackName) {
    char achIp[CM_IP_TEXT_SIZE] = "";
    EXPECT_EQ(resolve_to_ip(Text("localhost"), achIp), achIp);
    EXPECT_STREQ(achIp, "127.0.0.1");
    EXPECT_EQ(ip_2_id(Text("localhost")), 2130706433u);
}

TEST(CmAddressReal, ResolvesNothing_WhenTheNameIsImpossible) {
    // Longer than a label may be, so that no server is asked.
    const std::string strName(64, 'a');
    char achIp[CM_IP_TEXT_SIZE] = "kept";
    EXPECT_EQ(resolve_to_ip(Text(strName.c_str()), achIp), nullptr);
    EXPECT_STREQ(achIp, "kept");
}

TEST(CmAddressReal, LocalAddressesAreDotted) {
    g_local_ip[0] = '\0';
    in_addr address;
    EXPECT_EQ(inet_pton(AF_INET, get_local_ip(), &address), 1);
    EXPECT_EQ(inet_pton(AF_INET, get_local_ip_address(), &address), 1);
    g_local_ip[0] = '\0';
}

TEST(CmOutputDebugString, TracesAndChangesNothing) {
    ScopedTraceSink sink;
    output_debug_string(Text("x"));
    output_debug_string(nullptr);
    EXPECT_EQ(sink.lines().size(), 0u);
}

}  // namespace
}  // namespace UTIL_NS
