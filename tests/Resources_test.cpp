// What the process holds, descriptors and threads, is the same after 100,000 operations.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>

#include "CmConfig.h"
#include "CmLogStream.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "CmUtilClasses.h"
#include "CmUtilMisc.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/Platform.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

long Descriptors() {
    return std::distance(std::filesystem::directory_iterator("/dev/fd"),
                         std::filesystem::directory_iterator());
}

void LiveAWorker() {
    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1));
    pThread->Stop(nullptr);
    pThread->Join();
    pThread->Destory(0);
}

void OpenAndCloseATraceFile(const std::string& aPath) {
    CCmT120TraceFile file(aPath.c_str(), 0, 0, 0);
    ASSERT_EQ(CM_OK, file.attach());
    file.write("tag", "module", "text");
}

void ListAddresses() {
    local_addr* pList = nullptr;
    get_local_addr(&pList);
    free_local_addr(pList);
}

void Probe() {
    int nFlag = -1;
    ip_check(nFlag, AF_INET);
}

TEST(Resources, DescriptorsAndThreadsAreTheSame_After100000Operations) {
    const kelto_test::ScopedHome home;
    home.WriteConfig("[s]\nk=42\n");
    const std::string sTrace = home.path() + "trace";
    kelto_test::ScopedTraceSink sink;
    LiveAWorker();  // a sanitizer starts a thread of its own with the first one
    const long lDescriptors = Descriptors();
    const long lThreads = kelto_test::ThreadsOfThisProcess();
    constexpr int OPERATIONS = 100000;
    for (int i = 0; i < OPERATIONS; ++i) {
        switch (i % 50) {
            case 0:
                LiveAWorker();
                break;
            case 1:
                OpenAndCloseATraceFile(sTrace);
                break;
            case 2:
                ListAddresses();
                sink.clear();
                break;
            case 3:
                Probe();
                break;
            default:
                ASSERT_EQ(42, get_int_param("s", "k"));
        }
    }
    EXPECT_EQ(lDescriptors, Descriptors());
    // A thread that has been joined may count for a moment longer, the first one as well.
    EXPECT_TRUE(
        kelto_test::Eventually([&] { return kelto_test::ThreadsOfThisProcess() <= lThreads; }));
}

// What is kept for good is made once: the second time nothing more stays.
TEST(Resources, KeptByDesignIsMadeOnce) {
    unsigned short wCrc = 0;
    unsigned char byData = 0;
    const auto useAll = [&] {
        CalcCRC16(wCrc, &byData, 1);  // the singleton of the tables
        get_leading_id();
        get_exec_name();
        util_adapter_trace(CM_TRACE_LEVEL_INFO, "", 0);  // the trace facility
    };
    useAll();
    const long lLive = kelto_test::LiveAllocations();
    for (int i = 0; i < 5; ++i) {
        useAll();
    }
    EXPECT_EQ(lLive, kelto_test::LiveAllocations());
}

}  // namespace
}  // namespace UTIL_NS
