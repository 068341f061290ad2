#include "CmTrace.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

#include "CmTraceLine.h"
#include "support/Faults.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

const char* g_pszSeen = nullptr;

void RememberText(unsigned long /*aLevel*/, const char* aText, unsigned int /*aLength*/) {
    g_pszSeen = aText;
}

int g_nEvaluations = 0;

bool CountedFalse() {
    ++g_nEvaluations;
    return false;
}

CmResult AssertNotNull(const void* aEvent) {
    CM_ASSERTE_RETURN(aEvent, CM_ERROR_INVALID_ARG);
    return CM_OK;
}

CmResult AssertSucceeded(CmResult rv) {
    CM_ASSERTE_RETURN_LINE(CM_SUCCEEDED(rv), rv, 41);
    return CM_OK;
}

TEST(CmTrace, ResultCodesAreTheStatedNumbers) {
    EXPECT_EQ(0, CM_OK);
    EXPECT_EQ(0x42004000, CM_ERROR_BASE);
    EXPECT_EQ(0x42004001, CM_ERROR_FAILURE);
    EXPECT_EQ(0x42004002, CM_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(0x42004003, CM_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(0x42004004, CM_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(0x42004005, CM_ERROR_NULL_POINTER);
    EXPECT_EQ(0x42004006, CM_ERROR_UNEXPECTED);
    EXPECT_EQ(0x42004007, CM_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(0x42004008, CM_ERROR_INVALID_ARG);
    EXPECT_EQ(0x42004009, CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(0x4200400B, CM_ERROR_NOT_FOUND);
    EXPECT_EQ(0x4200400C, CM_ERROR_FOUND);
    EXPECT_EQ(0x4200400D, CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(0x4200400E, CM_ERROR_TIMEOUT);
    static_assert(std::is_same_v<int32_t, CmResult>);
}

TEST(CmTrace, SucceededIsTrueForZeroOnly) {
    EXPECT_TRUE(CM_SUCCEEDED(0));
    EXPECT_FALSE(CM_SUCCEEDED(1));
    EXPECT_FALSE(CM_SUCCEEDED(-1));
    EXPECT_FALSE(CM_FAILED(0));
    EXPECT_TRUE(CM_FAILED(CM_ERROR_TIMEOUT));
    EXPECT_TRUE(CM_FAILED(1));
}

TEST(CmTrace, LevelsAreTheStatedNumbers) {
    EXPECT_EQ(0u, CM_TRACE_LEVEL_ERROR);
    EXPECT_EQ(10u, CM_TRACE_LEVEL_WARNING);
    EXPECT_EQ(20u, CM_TRACE_LEVEL_INFO);
}

TEST(CmTrace, SinkGetsExactlyWhatIsTraced) {
    kelto_test::ScopedTraceSink sink;
    util_adapter_trace(10, "some text", 9);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(10u, sink.lines()[0].level);
    EXPECT_EQ("some text", sink.lines()[0].text);
    EXPECT_EQ(9u, sink.lines()[0].length);
}

TEST(CmTrace, SinkGetsTheCallersTextNotACopy) {
    kelto_test::ScopedTraceSink restore;
    set_util_external_trace_sink(RememberText);
    const char szText[] = "text";
    util_adapter_trace(0, szText, 4);
    EXPECT_EQ(szText, g_pszSeen);
}

void BeACancellationPoint(unsigned long, const char* aText, unsigned int) {
    pthread_testcancel();
    g_pszSeen = aText;
    errno = EIO;
}

// A caller may hold locks, which the end of its thread would leave locked.
TEST(CmTrace, SinkIsNotLeft_WhenItsThreadIsCancelled) {
    kelto_test::ScopedTraceSink restore;
    set_util_external_trace_sink(BeACancellationPoint);
    g_pszSeen = nullptr;
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         pthread_cancel(pthread_self());
                         errno = ENOENT;
                         util_adapter_trace(0, "first", 5);
                         util_adapter_trace_ex(0, "net", "second", 6);
                         EXPECT_EQ(ENOENT, errno);
                         pthread_testcancel();
                         return nullptr;
                     },
                     nullptr));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    EXPECT_STREQ("second", g_pszSeen);
}

TEST(CmTrace, SinkDoesNotLearnTheModule) {
    kelto_test::ScopedTraceSink sink;
    util_adapter_trace_ex(20, "module", "some text", 9);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(20u, sink.lines()[0].level);
    EXPECT_EQ("some text", sink.lines()[0].text);
    EXPECT_EQ(9u, sink.lines()[0].length);
}

TEST(CmTrace, SinkGetsNothing_AfterItsRemoval) {
    kelto_test::ScopedTraceSink sink;
    set_util_external_trace_sink(nullptr);
    EXPECT_EQ(nullptr, g_util_trace_sink.load());
    util_adapter_trace(10, "lost", 4);
    util_adapter_trace_ex(10, "module", "lost", 4);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmTrace, AssertLogTracesNothing) {
    kelto_test::ScopedTraceSink sink;
    char achText[] = "text";
    Assert_Log(achText, achText, 1);
    Assert_Log(nullptr, nullptr, 0);
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmTrace, AsserteTracesAndGoesOn) {
    kelto_test::ScopedTraceSink sink;
    const int nValue = 1;
    bool bWentOn = false;
    CM_ASSERTE_LINE(nValue == 2, 77);
    bWentOn = true;
    EXPECT_TRUE(bWentOn);
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ("UTIL ERROR: tests/CmTrace_test.cpp:77 Assert failed: nValue == 2",
              sink.lines()[0].text);
    EXPECT_EQ(sink.lines()[0].text.size(), sink.lines()[0].length);
}

TEST(CmTrace, AssertePrintsItsOwnLine) {
    kelto_test::ScopedTraceSink sink;
    const int nLine = __LINE__ + 1;
    CM_ASSERTE(false);
    EXPECT_EQ(1u, sink.count("tests/CmTrace_test.cpp:" + std::to_string(nLine) +
                             " Assert failed: false"));
}

TEST(CmTrace, AsserteEvaluatesItsExpressionOnce) {
    kelto_test::ScopedTraceSink sink;
    g_nEvaluations = 0;
    CM_ASSERTE(CountedFalse());
    EXPECT_EQ(1, g_nEvaluations);
}

TEST(CmTrace, AsserteIsSilent_WhenTrue) {
    kelto_test::ScopedTraceSink sink;
    CM_ASSERTE(1 + 1 == 2);
    EXPECT_EQ(CM_OK, AssertNotNull(&sink));
    EXPECT_EQ(0u, sink.lines().size());
}

TEST(CmTrace, AsserteReturnReturnsTheCode) {
    kelto_test::ScopedTraceSink sink;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, AssertNotNull(nullptr));
    EXPECT_EQ(1u, sink.lines().size());
    EXPECT_EQ(1u, sink.count(" Assert failed: aEvent"));
}

TEST(CmTrace, AsserteReturnPrintsTheExpressionUnexpanded) {
    kelto_test::ScopedTraceSink sink;
    EXPECT_EQ(CM_ERROR_TIMEOUT, AssertSucceeded(CM_ERROR_TIMEOUT));
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ("UTIL ERROR: tests/CmTrace_test.cpp:41 Assert failed: CM_SUCCEEDED(rv)",
              sink.lines()[0].text);
}

TEST(CmTrace, LineHasPrefixLevelWordAndFields) {
    kelto_test::ScopedTraceSink sink;
    CM_ERROR_TRACE("CCmThing::Do, text"
                   << " nValue=" << 5);
    CM_WARNING_TRACE("CCmThing::Do, text");
    CM_INFO_TRACE("CCmThing::Do, text this=" << static_cast<void*>(nullptr));
    ASSERT_EQ(3u, sink.lines().size());
    EXPECT_EQ("UTIL ERROR: CCmThing::Do, text nValue=5", sink.lines()[0].text);
    EXPECT_EQ(0u, sink.lines()[0].level);
    EXPECT_EQ("UTIL WARNING: CCmThing::Do, text", sink.lines()[1].text);
    EXPECT_EQ(10u, sink.lines()[1].level);
    EXPECT_EQ("UTIL INFO: CCmThing::Do, text this=0x0", sink.lines()[2].text);
    EXPECT_EQ(20u, sink.lines()[2].level);
}

TEST(CmTrace, LineIsCut_After1952Characters) {
    kelto_test::ScopedTraceSink sink;
    CM_INFO_TRACE(std::string(3000, 'x'));
    ASSERT_EQ(1u, sink.lines().size());
    EXPECT_EQ(1952u, sink.lines()[0].length);
    EXPECT_EQ("UTIL INFO: " + std::string(1941, 'x'), sink.lines()[0].text);
}

TEST(CmTrace, LineIsComposed_WithoutAllocation) {
    kelto_test::ScopedTraceSink restore;
    set_util_external_trace_sink(RememberText);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    CM_ERROR_TRACE("text" << 5 << " this=" << static_cast<void*>(&restore));
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
}

}  // namespace
}  // namespace UTIL_NS
