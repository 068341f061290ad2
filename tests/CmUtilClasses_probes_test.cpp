#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "CmUtilClasses.h"
#include "support/Faults.h"

namespace UTIL_NS {
namespace {

using kelto_test::FailingCall;

// Forgets what has been probed, before and after.
class CmProbes : public testing::Test {
  protected:
    CmProbes() { Forget(); }
    ~CmProbes() override { Forget(); }

    static void Forget() {
        cm_ipv4_enabled = -1;
        cm_ipv6_enabled = -1;
    }
};

// Counts and never fails.
typedef FailingCall<&CCmSystemTable::socket> CountedSocket;
constexpr unsigned long NEVER = 1000000;

TEST_F(CmProbes, ReturnsTheFlag_WhenProbedBefore) {
    CountedSocket socket(EMFILE, -1, NEVER);
    for (int nProbed : {0, 1, 7, -2}) {
        int nFlag = nProbed;
        EXPECT_EQ(ip_check(nFlag, AF_INET), nProbed);
        EXPECT_EQ(nFlag, nProbed);
    }
    EXPECT_EQ(socket.calls(), 0u);
}

TEST_F(CmProbes, SetsTheFlag_WhenASocketOpens) {
    int nFlag = -1;
    EXPECT_EQ(ip_check(nFlag, AF_INET), 1);
    EXPECT_EQ(nFlag, 1);
}

TEST_F(CmProbes, ClearsTheFlag_WhenNoSocketOpens) {
    FailingCall<&CCmSystemTable::socket> fault(EAFNOSUPPORT);
    int nFlag = -1;
    EXPECT_EQ(ip_check(nFlag, AF_INET), 0);
    EXPECT_EQ(nFlag, 0);
    EXPECT_EQ(ip_check(nFlag, AF_INET), 0);
    EXPECT_EQ(fault.calls(), 1u);
}

TEST_F(CmProbes, ClearsTheFlag_WhenTheFamilyIsUnknown) {
    int nFlag = -1;
    EXPECT_EQ(ip_check(nFlag, 9999), 0);
}

TEST_F(CmProbes, ClosesTheSocket) {
    FailingCall<&CCmSystemTable::close> closed(EBADF, -1, NEVER);
    int nFlag = -1;
    ip_check(nFlag, AF_INET);
    EXPECT_EQ(closed.calls(), 1u);
}

TEST_F(CmProbes, ClosesNothing_WhenNoSocketOpens) {
    FailingCall<&CCmSystemTable::socket> fault(EMFILE);
    FailingCall<&CCmSystemTable::close> closed(EBADF, -1, NEVER);
    int nFlag = -1;
    ip_check(nFlag, AF_INET);
    EXPECT_EQ(closed.calls(), 0u);
}

int FirstSocket(int /*aFamily*/, int /*aType*/, int /*aProtocol*/) {
    return 0;
}
int g_nClosed = -1;
int RecordingClose(int aFile) {
    g_nClosed = aFile;
    return 0;
}

// As in a process that has closed its standard input.
TEST_F(CmProbes, SetsTheFlag_WhenTheSocketIsTheFirstDescriptor) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.socket)> socket(g_cmSystem.socket, FirstSocket);
    kelto_test::ScopedEntry<decltype(g_cmSystem.close)> close(g_cmSystem.close, RecordingClose);
    EXPECT_EQ(ipv4_enabled(), 1);
    EXPECT_EQ(g_nClosed, 0);
}

int g_nFamily = 0;
int g_nType = 0;

int RecordingSocket(int aFamily, int aType, int /*aProtocol*/) {
    g_nFamily = aFamily;
    g_nType = aType;
    errno = EAFNOSUPPORT;
    return -1;
}

TEST_F(CmProbes, TriesADatagramSocketOfTheFamily) {
    kelto_test::ScopedEntry<decltype(g_cmSystem.socket)> entry(g_cmSystem.socket, RecordingSocket);
    EXPECT_EQ(ipv4_enabled(), 0);
    EXPECT_EQ(g_nFamily, AF_INET);
    EXPECT_EQ(g_nType, SOCK_DGRAM);
    EXPECT_EQ(ipv6_enabled(), 0);
    EXPECT_EQ(g_nFamily, AF_INET6);
    EXPECT_EQ(g_nType, SOCK_DGRAM);
    EXPECT_EQ(cm_ipv4_enabled, 0);
    EXPECT_EQ(cm_ipv6_enabled, 0);
}

TEST_F(CmProbes, RemembersTheFirstAnswer) {
    CountedSocket socket(EMFILE, -1, NEVER);
    const int nFirst = ipv6_enabled();
    EXPECT_TRUE(nFirst == 0 || nFirst == 1);
    EXPECT_EQ(cm_ipv6_enabled, nFirst);
    EXPECT_EQ(ipv6_enabled(), nFirst);
    EXPECT_EQ(socket.calls(), 1u);
    EXPECT_EQ(cm_ipv4_enabled, -1);
    EXPECT_EQ(ipv4_enabled(), 1);
    EXPECT_EQ(ipv4_enabled(), 1);
    EXPECT_EQ(socket.calls(), 2u);
}

TEST_F(CmProbes, FindsTheSame_WhenSeveralThreadsAsk) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { EXPECT_EQ(ipv4_enabled(), 1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(cm_ipv4_enabled, 1);
}

}  // namespace
}  // namespace UTIL_NS
