#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "CmT120Trace.h"
#include "CmUtilMisc.h"
#include "port/CmInterfaceRecord.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedEntry;
using kelto_test::ScopedTraceSink;

constexpr unsigned long NEVER = 1000000;

// What the made-up system has; see MadeUpIoctl.
std::vector<ifreq> g_records;
std::set<std::string> g_downNames;
std::vector<std::string> g_askedNames;
int g_nTableSize = 0;
bool g_bTableFails = false;
bool g_bFlagsFail = false;

int GiveTable(ifconf* aQuery) {
    if (g_bTableFails) {
        errno = EFAULT;
        return -1;
    }
    g_nTableSize = aQuery->ifc_len;
    const size_t nBytes = g_records.size() * sizeof(ifreq);
    EXPECT_LE(nBytes, static_cast<size_t>(aQuery->ifc_len));
    std::memcpy(aQuery->ifc_buf, g_records.data(), nBytes);
    aQuery->ifc_len = static_cast<int>(nBytes);
    return 0;
}

int GiveFlags(ifreq* aRequest) {
    g_askedNames.push_back(aRequest->ifr_name);
    if (g_bFlagsFail) {
        errno = ENODEV;
        return -1;
    }
    aRequest->ifr_flags =
        g_downNames.count(aRequest->ifr_name) != 0 ? IFF_BROADCAST : IFF_UP | IFF_RUNNING;
    return 0;
}

int MadeUpIoctl(int /*aFile*/, unsigned long aRequest, void* aArgument) {
    return aRequest == SIOCGIFCONF ? GiveTable(static_cast<ifconf*>(aArgument))
                                   : GiveFlags(static_cast<ifreq*>(aArgument));
}

ifreq Record(const char* aName, const char* aAddress, sa_family_t aFamily = AF_INET) {
    ifreq record = {};
    std::strncpy(record.ifr_name, aName, sizeof(record.ifr_name) - 1);
    sockaddr_in address = {};
    address.sin_family = aFamily;
    address.sin_port = htons(0x1234);
    inet_pton(AF_INET, aAddress, &address.sin_addr);
    std::memcpy(&record.ifr_addr, &address, sizeof(address));
    return record;
}

std::vector<std::string> Addresses(const local_addr* aList) {
    std::vector<std::string> addresses;
    for (; aList != nullptr; aList = aList->next) {
        char achText[INET_ADDRSTRLEN];
        sockaddr_in address;
        std::memcpy(&address, &aList->addr, sizeof(address));
        EXPECT_EQ(address.sin_family, AF_INET);
        EXPECT_EQ(aList->len, 16);
        addresses.push_back(inet_ntop(AF_INET, &address.sin_addr, achText, sizeof(achText)));
    }
    return addresses;
}

std::vector<std::string> Listed() {
    local_addr* pList = nullptr;
    EXPECT_EQ(get_local_addr(&pList), 0);
    std::vector<std::string> addresses = Addresses(pList);
    free_local_addr(pList);
    return addresses;
}

typedef std::vector<std::string> Texts;

class CmLocalAddr : public testing::Test {
  protected:
    CmLocalAddr() {
        g_records.clear();
        g_downNames.clear();
        g_askedNames.clear();
        g_bTableFails = false;
        g_bFlagsFail = false;
    }

  private:
    ScopedEntry<decltype(g_cmSystem.ioctl)> m_Entry{g_cmSystem.ioctl, MadeUpIoctl};
};

TEST_F(CmLocalAddr, ListsInReverseOrder) {
    g_records = {Record("lo", "127.0.0.1"), Record("eth0", "192.0.2.1"),
                 Record("eth1", "192.0.2.2")};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.2", "192.0.2.1", "127.0.0.1"}));
}

TEST_F(CmLocalAddr, GivesEmptyList_WithoutInterfaces) {
    local_addr node = {};
    local_addr* pList = &node;
    EXPECT_EQ(get_local_addr(&pList), 0);
    EXPECT_EQ(pList, nullptr);
}

TEST_F(CmLocalAddr, TakesTheFirstAddressOfAnInterface) {
    g_records = {Record("eth0", "192.0.2.1"), Record("eth0", "192.0.2.2"),
                 Record("eth1", "192.0.2.3"), Record("eth1", "192.0.2.4")};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.3", "192.0.2.1"}));
    EXPECT_EQ(g_askedNames, (Texts{"eth0", "eth1"}));
}

TEST_F(CmLocalAddr, CountsAnAliasAsItsInterface) {
    g_records = {Record("eth0", "192.0.2.1"), Record("eth0:1", "192.0.2.2"),
                 Record("eth0:web", "192.0.2.3"), Record("eth1:1", "192.0.2.4")};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.4", "192.0.2.1"}));
    EXPECT_EQ(g_askedNames, (Texts{"eth0", "eth1"}));
}

TEST_F(CmLocalAddr, ComparesWithThePreviousNameOnly) {
    g_records = {Record("eth0", "192.0.2.1"), Record("eth1", "192.0.2.2"),
                 Record("eth0", "192.0.2.3")};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.3", "192.0.2.2", "192.0.2.1"}));
}

TEST_F(CmLocalAddr, PassesAnInterfaceOver_WhenItsFamilyIsAnother) {
    g_records = {Record("eth0", "192.0.2.1", AF_INET6), Record("eth0", "192.0.2.2"),
                 Record("eth1", "192.0.2.3", AF_UNSPEC)};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.2"}));
}

TEST_F(CmLocalAddr, PassesAnInterfaceOver_WhenItIsDown) {
    g_records = {Record("eth0", "192.0.2.1"), Record("eth1", "192.0.2.2")};
    g_downNames = {"eth0"};
    EXPECT_EQ(Listed(), (Texts{"192.0.2.2"}));
}

TEST_F(CmLocalAddr, AsksOnce_WhenTheInterfaceIsDown) {
    g_records = {Record("eth0", "192.0.2.1"), Record("eth0:1", "192.0.2.2")};
    g_downNames = {"eth0"};
    EXPECT_EQ(Listed(), Texts{});
    EXPECT_EQ(g_askedNames, (Texts{"eth0"}));
}

TEST_F(CmLocalAddr, PassesAnInterfaceOver_WhenItsFlagsAreUnknown) {
    g_records = {Record("eth0", "192.0.2.1")};
    g_bFlagsFail = true;
    EXPECT_EQ(Listed(), Texts{});
}

TEST_F(CmLocalAddr, KeepsTheName_WhenItIsOfFullLength) {
    g_records = {Record("abcdefghijklmno", "192.0.2.1"), Record("abcdefghijklmnp", "192.0.2.2")};
    g_records[1].ifr_name[15] = 'q';
    EXPECT_EQ(Listed().size(), 2u);
    EXPECT_EQ(g_askedNames[0], "abcdefghijklmno");
}

TEST_F(CmLocalAddr, HoldsTheSocketAddress) {
    g_records = {Record("eth0", "192.0.2.1")};
    local_addr* pList = nullptr;
    ASSERT_EQ(get_local_addr(&pList), 0);
    ASSERT_NE(pList, nullptr);
    EXPECT_EQ(std::memcmp(&pList->addr, &g_records[0].ifr_addr, 16), 0);
    EXPECT_EQ(pList->len, 16);
    EXPECT_EQ(pList->next, nullptr);
    EXPECT_EQ(sizeof(pList->addr), 128u);
    EXPECT_EQ(sizeof(local_addr), 144u);
    free_local_addr(pList);
}

TEST_F(CmLocalAddr, TracesEachAddress) {
    g_records = {Record("lo", "127.0.0.1"), Record("eth0", "192.0.2.1")};
    ScopedTraceSink sink;
    Listed();
    ASSERT_EQ(sink.lines().size(), 2u);
    EXPECT_EQ(sink.lines()[0].level, 20u);
    EXPECT_EQ(sink.lines()[0].text, "UTIL INFO: addr is: 127.0.0.1");
    EXPECT_EQ(sink.lines()[1].text, "UTIL INFO: addr is: 192.0.2.1");
}

TEST_F(CmLocalAddr, AsksForATableOf4000Bytes) {
    g_records.assign(100, Record("eth0", "192.0.2.1"));
    EXPECT_EQ(Listed(), (Texts{"192.0.2.1"}));
    EXPECT_EQ(g_nTableSize, 4000);
}

TEST_F(CmLocalAddr, Fails_WithoutSocket) {
    FailingCall<&CCmSystemTable::socket> fault(EMFILE);
    local_addr node = {};
    local_addr* pList = &node;
    EXPECT_EQ(get_local_addr(&pList), -1);
    EXPECT_EQ(pList, nullptr);
}

TEST_F(CmLocalAddr, Fails_WithoutTable) {
    g_bTableFails = true;
    local_addr node = {};
    local_addr* pList = &node;
    EXPECT_EQ(get_local_addr(&pList), -1);
    EXPECT_EQ(pList, nullptr);
}

TEST_F(CmLocalAddr, ClosesItsSocket) {
    FailingCall<&CCmSystemTable::close> closed(EBADF, -1, NEVER);
    Listed();
    EXPECT_EQ(closed.calls(), 1u);
    g_bTableFails = true;
    local_addr* pList = nullptr;
    EXPECT_EQ(get_local_addr(&pList), -1);
    EXPECT_EQ(closed.calls(), 2u);
}

TEST_F(CmLocalAddr, FreesTheList_WhenMemoryRunsOut) {
    // The first line of a process makes the trace facility, which allocates.
    UTIL_NS::CCmT120Trace::instance();
    g_records = {Record("lo", "127.0.0.1"), Record("eth0", "192.0.2.1"),
                 Record("eth1", "192.0.2.2")};
    g_askedNames.reserve(10);
    const long lLive = kelto_test::LiveAllocations();
    local_addr* pList = nullptr;
    {
        ScopedAllocationFault fault(3);
        EXPECT_EQ(get_local_addr(&pList), -1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(pList, nullptr);
    g_askedNames.clear();
    EXPECT_EQ(kelto_test::LiveAllocations(), lLive);
}

TEST_F(CmLocalAddr, Fails_WithoutPlaceForTheList) {
    EXPECT_EQ(get_local_addr(nullptr), -1);
}

TEST_F(CmLocalAddr, FreesNothing_WhenTheListIsNull) {
    const long lLive = kelto_test::LiveAllocations();
    free_local_addr(nullptr);
    EXPECT_EQ(kelto_test::LiveAllocations(), lLive);
}

TEST_F(CmLocalAddr, FreesEveryNode) {
    g_records = {Record("lo", "127.0.0.1"), Record("eth0", "192.0.2.1")};
    Listed();
    g_askedNames.reserve(10);
    const long lLive = kelto_test::LiveAllocations();
    local_addr* pList = nullptr;
    ASSERT_EQ(get_local_addr(&pList), 0);
    EXPECT_EQ(kelto_test::LiveAllocations(), lLive + 2);
    free_local_addr(pList);
    EXPECT_EQ(kelto_test::LiveAllocations(), lLive);
}

// Of the interfaces that are up, by another call of the system.
TEST(CmLocalAddrReal, ListsAddressesOfThisMachine) {
    std::multiset<std::string> upAddresses;
    ifaddrs* pInterfaces = nullptr;
    ASSERT_EQ(getifaddrs(&pInterfaces), 0);
    std::set<std::string> names;
    for (const ifaddrs* p = pInterfaces; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_INET ||
            (p->ifa_flags & IFF_UP) == 0) {
            continue;
        }
        names.insert(p->ifa_name);
        char achText[INET_ADDRSTRLEN];
        sockaddr_in address;
        std::memcpy(&address, p->ifa_addr, sizeof(address));
        upAddresses.insert(inet_ntop(AF_INET, &address.sin_addr, achText, sizeof(achText)));
    }
    freeifaddrs(pInterfaces);
    const Texts listed = Listed();
    EXPECT_EQ(listed.size(), names.size());
    for (const std::string& strAddress : listed) {
        EXPECT_EQ(upAddresses.count(strAddress), 1u) << strAddress;
    }
}

}  // namespace
}  // namespace UTIL_NS
