#include "CmLogStream.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "CmConfig.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/LockCalls.h"
#include "support/TraceLibrary.h"
#include "support/TraceSink.h"

namespace UTIL_NS {
namespace {

using kelto_test::Eventually;
using kelto_test::FailingCall;
using kelto_test::LockCalls;
using kelto_test::ScopedAllocationFault;
using kelto_test::ScopedHome;
using kelto_test::ScopedTraceLibrary;
using kelto_test::ScopedTraceSink;
using kelto_test::StatusOfChild;
using kelto_test::TraceCall;
using Texts = std::vector<std::string>;

// A text whose characters differ from one position to the next, so that a piece that starts in
// the wrong place shows.
std::string TextOfLength(size_t aLength) {
    std::string sText(aLength, ' ');
    for (size_t i = 0; i < aLength; ++i) {
        sText[i] = static_cast<char>('a' + i % 23);
    }
    return sText;
}

struct LevelFunctionCase {
    const char* name;
    CCmT120Trace::LevelFunction function;
};

class CmLogStreamLevelFunction : public testing::TestWithParam<LevelFunctionCase> {
  protected:
    ScopedTraceLibrary m_library;
};

INSTANTIATE_TEST_SUITE_P(All, CmLogStreamLevelFunction,
                         testing::Values(LevelFunctionCase{"debug", ccu_trace_debug},
                                         LevelFunctionCase{"info", ccu_trace_info},
                                         LevelFunctionCase{"warn", ccu_trace_warn},
                                         LevelFunctionCase{"error", ccu_trace_error}),
                         [](const auto& aInfo) { return std::string(aInfo.param.name); });

TEST_P(CmLogStreamLevelFunction, DeliversTheFormattedTextAtLevel2) {
    EXPECT_EQ(1, GetParam().function("net", "fd=%d name=%s", 7, "eth0"));
    const std::vector<TraceCall> calls = m_library.calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(2u, calls[0].level);
    EXPECT_EQ("net", calls[0].module);
    EXPECT_FALSE(calls[0].prefixed);
    EXPECT_EQ("fd=7 name=eth0", calls[0].text);
}

TEST_P(CmLogStreamLevelFunction, Returns0AndDeliversNothing_WithoutModule) {
    EXPECT_EQ(0, GetParam().function(nullptr, "text"));
    EXPECT_TRUE(m_library.calls().empty());
    EXPECT_EQ(0u, m_library.thresholdReads());
}

TEST_P(CmLogStreamLevelFunction, Returns0AndDeliversNothing_WithoutFormat) {
    EXPECT_EQ(0, GetParam().function("net", nullptr));
    EXPECT_TRUE(m_library.calls().empty());
    EXPECT_EQ(0u, m_library.thresholdReads());
}

TEST_P(CmLogStreamLevelFunction, DeliversNothing_WhenTheThresholdIs3) {
    m_library.SetThreshold(3);
    EXPECT_EQ(1, GetParam().function("net", "text"));
    EXPECT_TRUE(m_library.calls().empty());
}

TEST_P(CmLogStreamLevelFunction, Delivers_WhenTheThresholdIs2) {
    m_library.SetThreshold(2);
    EXPECT_EQ(1, GetParam().function("net", "text"));
    EXPECT_EQ(Texts{"text"}, m_library.texts());
}

TEST_P(CmLogStreamLevelFunction, AsksForTheThresholdThreeTimes_WhenItDelivers) {
    GetParam().function("net", "text");
    EXPECT_EQ(3u, m_library.thresholdReads());
}

TEST_P(CmLogStreamLevelFunction, AsksForTheThresholdTwice_WhenItDrops) {
    m_library.SetThreshold(3);
    GetParam().function("net", "text");
    EXPECT_EQ(2u, m_library.thresholdReads());
}

TEST_P(CmLogStreamLevelFunction, DeliversAnEmptyText_WhenTheThresholdFallsAfterTheFirstQuestion) {
    m_library.SetThresholds({3, 0});
    EXPECT_EQ(1, GetParam().function("net", "text"));
    EXPECT_EQ(Texts{""}, m_library.texts());
}

TEST_P(CmLogStreamLevelFunction, DeliversAnEmptyText_WhenTheThresholdIsHighDuringInsertion) {
    m_library.SetThresholds({0, 3, 0});
    GetParam().function("net", "text");
    EXPECT_EQ(Texts{""}, m_library.texts());
}

TEST_P(CmLogStreamLevelFunction, DeliversNothing_WhenTheThresholdRisesBeforeTheEnd) {
    m_library.SetThresholds({0, 0, 3});
    EXPECT_EQ(1, GetParam().function("net", "text"));
    EXPECT_TRUE(m_library.calls().empty());
}

TEST_P(CmLogStreamLevelFunction, CutsTheText_After131071Characters) {
    const std::string sText = TextOfLength(131072);
    GetParam().function("net", "%s", sText.c_str());
    std::string sDelivered;
    for (const std::string& sPiece : m_library.texts()) {
        sDelivered += sPiece;
    }
    EXPECT_EQ(131071u, sDelivered.size());
    EXPECT_EQ(sText.substr(0, 131071), sDelivered);
}

TEST_P(CmLogStreamLevelFunction, KeepsErrno) {
    m_library.SetErrno(EIO);
    errno = ENOENT;
    GetParam().function("net", "%s %d", "text", 1);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1u, m_library.calls().size());
}

TEST_P(CmLogStreamLevelFunction, SwallowsIt_WhenAnExceptionIsThrown) {
    m_library.ThrowOnCall(1);
    EXPECT_EQ(1, GetParam().function("net", "text"));
    EXPECT_EQ(1, GetParam().function("net", "next"));
    EXPECT_EQ((Texts{"text", "next"}), m_library.texts());
}

TEST(CmLogStream, LevelFunctionPrintsAPlainTextAsItIs) {
    ScopedTraceLibrary library;
    ccu_trace_info("net", "%s", "100%s %n %d");
    EXPECT_EQ(Texts{"100%s %n %d"}, library.texts());
}

TEST(CmLogStream, LevelFunctionPrintsWhatPrintfDoes_WhenTheTextIsNull) {
    ScopedTraceLibrary library;
    const char* volatile pszNull = nullptr;
    ccu_trace_info("net", "%s", pszNull);
    EXPECT_EQ(Texts{"(null)"}, library.texts());
}

TEST(CmLogStream, LevelFunctionDeliversIt_WhenTheTextIsEmpty) {
    ScopedTraceLibrary library;
    ccu_trace_info("net", "%s", "");
    EXPECT_EQ(Texts{""}, library.texts());
}

TEST(CmLogStream, LevelFunctionDeliversAnEmptyText_WhenACharacterHasNoEncoding) {
    ScopedTraceLibrary library;
    EXPECT_EQ(1, ccu_trace_error("net", "%lc", static_cast<wint_t>(0x110000)));
    EXPECT_EQ(Texts{""}, library.texts());
}

#ifdef __GLIBC__
// A text that fits the stack buffer, and one that does not.
TEST_P(CmLogStreamLevelFunction, PrintsTheCallersErrno_WhenTheFormatHasPercentM) {
    m_library.SetErrno(EBUSY);
    size_t nBefore = 0;
    for (const size_t nLength : {size_t{3}, size_t{5000}}) {
        const std::string sText = TextOfLength(nLength);
        errno = ENOENT;
        EXPECT_EQ(1, GetParam().function("net", "%s: %m, %m", sText.c_str()));
        EXPECT_EQ(ENOENT, errno);
        std::string sDelivered;
        const std::vector<TraceCall> calls = m_library.calls();
        for (; nBefore < calls.size(); ++nBefore) {
            sDelivered += calls[nBefore].text;
        }
        EXPECT_EQ(sText + ": No such file or directory, No such file or directory", sDelivered);
    }
}
#endif

TEST(CmLogStream, LevelFunctionFormatsTheWhole_WhenTheTextIsAsLongAsTheStackBuffer) {
    for (size_t nLength : {1022u, 1023u, 1024u, 1025u, 2047u}) {
        ScopedTraceLibrary library;
        const std::string sText = TextOfLength(nLength - 1);
        ccu_trace_info("net", "%s%c", sText.c_str(), '!');
        EXPECT_EQ(Texts{sText + "!"}, library.texts()) << nLength;
    }
}

TEST(CmLogStream, LevelFunctionDeliversNothing_WhenALongTextFindsNoMemory) {
    ScopedTraceLibrary library;
    {
        FailingCall<&CCmSystemTable::malloc> fault(ENOMEM, nullptr);
        EXPECT_EQ(1, ccu_trace_error("net", "%s %d", TextOfLength(1024).c_str(), 1));
        EXPECT_EQ(1U, fault.calls());
    }
    EXPECT_TRUE(library.calls().empty());
    ccu_trace_error("net", "next");
    EXPECT_EQ(Texts{"next"}, library.texts());
}

TEST(CmLogStream, LevelFunctionDeliversUpToTheFirstNul) {
    for (size_t nBehind : {1u, 1100u, 3000u, 131072u}) {
        ScopedTraceLibrary library;
        ccu_trace_info("net", "ab%c%s", 0, TextOfLength(nBehind).c_str());
        ASSERT_EQ(1u, library.calls().size()) << nBehind;
        EXPECT_FALSE(library.calls()[0].prefixed) << nBehind;
        EXPECT_EQ("ab", library.calls()[0].text) << nBehind;
    }
}

TEST(CmLogStream, LevelFunctionAllocatesNothing_WhenTheLineIsDropped) {
    ScopedTraceLibrary library;
    library.SetThreshold(3);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    ccu_trace_info("net", "%d", 7);
    EXPECT_EQ(ulBefore, kelto_test::AllocationsOfThisThread());
}

// What the calls of this thread had on its stack, which grows downwards, as long as they were not
// many; nothing else is that near.
bool IsOnStack(const void* aAddress) {
    const char cHere = 0;
    const auto here = reinterpret_cast<uintptr_t>(&cHere);
    const auto there = reinterpret_cast<uintptr_t>(aAddress);
    return there > here - 65536 && there < here + 65536;
}

TEST(CmLogStream, LevelFunctionDeliversAPlainTextFromWhereItStands) {
    ScopedTraceLibrary library;
    const std::string sText = TextOfLength(2047);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    ccu_trace_info("net", "%s", sText.c_str());
    EXPECT_EQ(sText.c_str(), library.lastText());
    EXPECT_EQ(ulBefore, library.lastAllocations());
}

TEST(CmLogStream, LevelFunctionAllocatesNothing_WhenTheLineIsOfUsualLength) {
    ScopedTraceLibrary library;
    const std::string sText = TextOfLength(1022);
    const unsigned long ulBefore = kelto_test::AllocationsOfThisThread();
    ccu_trace_info("net", "%s%d", sText.c_str(), 7);
    EXPECT_EQ(ulBefore, library.lastAllocations());
#if !defined(__SANITIZE_ADDRESS__)  // which moves locals off the stack
    EXPECT_TRUE(IsOnStack(library.lastText()));
#endif
    ccu_trace_info("net", "%s%d", TextOfLength(1023).c_str(), 7);
    EXPECT_FALSE(IsOnStack(library.lastText()));
}

// The lengths of the pieces that a text is delivered in; the bytes of each are checked too.
std::vector<size_t> PieceLengths(size_t aLength) {
    ScopedTraceLibrary library;
    const std::string sText = TextOfLength(aLength);
    ccu_trace_error("net", "%s", sText.c_str());
    std::vector<size_t> lengths;
    std::string sJoined;
    for (const TraceCall& call : library.calls()) {
        EXPECT_EQ(2u, call.level);
        EXPECT_EQ("net", call.module);
        EXPECT_EQ(aLength > 2047, call.prefixed);
        EXPECT_EQ(aLength > 2047, call.zeroPrefix);
        lengths.push_back(call.text.size());
        sJoined += call.text;
    }
    EXPECT_EQ(sText, sJoined);
    return lengths;
}

TEST(CmLogStream, PiecesAreOneWithNullPrefix_WhenThereAre2046Characters) {
    EXPECT_EQ((std::vector<size_t>{2046}), PieceLengths(2046));
}

TEST(CmLogStream, PiecesAreOneWithNullPrefix_WhenThereAre2047Characters) {
    EXPECT_EQ((std::vector<size_t>{2047}), PieceLengths(2047));
}

TEST(CmLogStream, PiecesAreTwo_WhenThereAre2048Characters) {
    EXPECT_EQ((std::vector<size_t>{2047, 1}), PieceLengths(2048));
}

// Length 4094 with its terminator: a multiple of 2047.
TEST(CmLogStream, PiecesAreTwo_WhenThereAre4093Characters) {
    EXPECT_EQ((std::vector<size_t>{2047, 2046}), PieceLengths(4093));
}

// The terminator alone makes the third piece.
TEST(CmLogStream, PiecesAreTwoAndAnEmptyOne_WhenThereAre4094Characters) {
    EXPECT_EQ((std::vector<size_t>{2047, 2047, 0}), PieceLengths(4094));
}

TEST(CmLogStream, PiecesAreThree_WhenThereAre4095Characters) {
    EXPECT_EQ((std::vector<size_t>{2047, 2047, 1}), PieceLengths(4095));
}

// 100001 bytes: 48 times 2047 and 1744, without the terminator.
TEST(CmLogStream, PiecesAreFortyNine_WhenThereAre100000Characters) {
    std::vector<size_t> expected(48, 2047);
    expected.push_back(1744);
    EXPECT_EQ(expected, PieceLengths(100000));
}

TEST(CmLogStream, PiecesStop_WhenAnExceptionIsThrown) {
    ScopedTraceLibrary library;
    library.ThrowOnCall(2);
    ccu_trace_error("net", "%s", TextOfLength(10000).c_str());
    EXPECT_EQ(2u, library.calls().size());
}

TEST(CmLogStream, StreamDeliversWhatWasInserted_WhenItEnds) {
    ScopedTraceLibrary library;
    {
        ccu::logstream<char> stream(9, "media");
        stream << "rate=" << 48000 << ' ' << std::hex << 255;
        EXPECT_TRUE(library.calls().empty());
    }
    const std::vector<TraceCall> calls = library.calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(9u, calls[0].level);
    EXPECT_EQ("media", calls[0].module);
    EXPECT_FALSE(calls[0].prefixed);
    EXPECT_EQ("rate=48000 ff", calls[0].text);
}

TEST(CmLogStream, StreamDeliversWhatStandsBeforeItsPosition_WhenThatWasSetBack) {
    ScopedTraceLibrary library;
    {
        ccu::logstream<char> stream(9, "media");
        stream << "rate=48000";
        stream.seekp(5);
        stream << 44;
    }
    EXPECT_EQ(Texts{"rate=44"}, library.texts());
}

TEST(CmLogStream, StreamAsksForTheThresholdOnce) {
    ScopedTraceLibrary library;
    ccu::logstream<char>(9, "media") << "text";
    EXPECT_EQ(1u, library.thresholdReads());
}

TEST(CmLogStream, StreamDeliversNothing_WhenBelowTheThreshold) {
    ScopedTraceLibrary library;
    library.SetThreshold(10);
    ccu::logstream<char>(9, "media") << "text";
    EXPECT_TRUE(library.calls().empty());
    ccu::logstream<char>(10, "media") << "text";
    EXPECT_EQ(1u, library.calls().size());
}

TEST(CmLogStream, StreamDeliversAnEmptyText_WhenNothingWasInserted) {
    ScopedTraceLibrary library;
    { ccu::logstream<char> stream(9, "media"); }
    EXPECT_EQ(Texts{""}, library.texts());
}

TEST(CmLogStream, StreamDeliversUpToTheFirstNul) {
    ScopedTraceLibrary library;
    ccu::logstream<char>(9, "media") << std::string("ab\0cd", 5);
    EXPECT_EQ(Texts{"ab"}, library.texts());
}

TEST(CmLogStream, StreamDeliversPieces_WhenTheTextIsLong) {
    ScopedTraceLibrary library;
    const std::string sText = TextOfLength(2048);
    ccu::logstream<char>(9, "media") << sText;
    EXPECT_EQ((Texts{sText.substr(0, 2047), sText.substr(2047)}), library.texts());
}

TEST(CmLogStream, StreamKeepsErrnoAndThrowsNothing_WhenAnExceptionIsThrown) {
    ScopedTraceLibrary library;
    library.ThrowOnCall(1);
    library.SetErrno(EIO);
    errno = ENOENT;
    { ccu::logstream<char> stream(9, "media"); }
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1u, library.calls().size());
    std::free(library.lastText());  // not freed by the stream
}

TEST(CmLogStream, StreamDeliversItsText_WhenItsStateIsBad) {
    for (const std::ios::iostate mask : {std::ios::goodbit, std::ios::badbit | std::ios::failbit}) {
        ScopedTraceLibrary library;
        {
            ccu::logstream<char> stream(9, "media");
            stream << "rate=" << 48000;
            stream.setstate(std::ios::badbit);
            try {
                stream.exceptions(mask);
            } catch (const std::ios::failure&) {
                // It throws at once; the mask holds all the same.
            }
        }
        EXPECT_EQ(Texts{"rate=48000"}, library.texts()) << mask;
    }
}

TEST(CmLogStream, StreamDeliversNull_WhenItsTextHasNoStorage) {
    ScopedTraceLibrary library;
    auto pStream = std::make_unique<ccu::logstream<char>>(9, "media");
    *pStream << TextOfLength(600);
    {
        // The only allocation of the end is that of the text.
        ScopedAllocationFault fault(1);
        pStream.reset();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(Texts{"null"}, library.texts());
}

TEST(CmLogStream, StreamFinishesDelivery_BeforeItsThreadIsCancelled) {
    ScopedTraceLibrary library;
    library.TestCancel();
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         pthread_cancel(pthread_self());
                         { ccu::logstream<char>(9, "media") << TextOfLength(5000); }
                         ccu_trace_info("media", "%s", "second");
                         pthread_testcancel();
                         return nullptr;
                     },
                     nullptr));
    void* pResult = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &pResult));
    EXPECT_EQ(PTHREAD_CANCELED, pResult);
    EXPECT_EQ(4u, library.calls().size());
}

TEST(CmLogStream, StreamsAreWhole_WhenManyThreadsWriteAtOnce) {
    ScopedTraceLibrary library;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 200; ++n) {
                ccu::logstream<char>(9, "media") << "line " << n;
                ccu_trace_warn("media", "line %d", n);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1600u, library.calls().size());
}

TEST(CmLogStream, YrktraStreamJoinsWhatWasWritten) {
    ScopedTraceLibrary library;
    ccu::YrktraStreamA stream(5);
    stream.writestringa("1");
    stream.writestringa(" two ");
    stream.writestringa("");
    stream.writestringa("three");
    stream.flusha("net");
    ASSERT_EQ(1u, library.calls().size());
    EXPECT_EQ("1 two three", library.calls()[0].text);
    EXPECT_EQ(5u, library.calls()[0].level);
}

// How many bytes a stream holds: its second field.
unsigned long LengthOf(const ccu::YrktraStreamA& aStream) {
    unsigned long ulLength;
    std::memcpy(&ulLength, reinterpret_cast<const char*>(&aStream) + 8, sizeof(ulLength));
    return ulLength;
}

TEST(CmLogStream, YrktraStreamHoldsNothing_WhenMemoryRunsOut) {
    ScopedTraceLibrary library;
    ccu::YrktraStreamA stream(5);
    EXPECT_EQ(0U, LengthOf(stream));
    stream.writestringa("text");
    EXPECT_EQ(5U, LengthOf(stream));
    {
        FailingCall<&CCmSystemTable::malloc> fault(ENOMEM, nullptr);
        stream.writestringa(" lost");
    }
    EXPECT_EQ(0U, LengthOf(stream));
    stream.flusha("net");
    EXPECT_TRUE(library.calls().empty());
    stream.writestringa("next");
    stream.flusha("net");
    EXPECT_EQ(Texts{"next"}, library.texts());
}

TEST(CmLogStream, YrktraStreamTakesNothing_WhenTheTextIsNull) {
    ScopedTraceLibrary library;
    ccu::YrktraStreamA stream(5);
    stream.writestringa(nullptr);
    stream.flusha("net");
    EXPECT_TRUE(library.calls().empty());
    stream.writestringa("text");
    stream.writestringa(nullptr);
    stream.flusha("net");
    EXPECT_EQ(Texts{"text"}, library.texts());
}

TEST(CmLogStream, YrktraStreamDeliversNothing_AfterItsFlush) {
    ScopedTraceLibrary library;
    ccu::YrktraStreamA stream(5);
    stream.writestringa("text");
    stream.flusha("net");
    stream.flusha("net");
    EXPECT_EQ(Texts{"text"}, library.texts());
    stream.writestringa("again");
    stream.flusha("net");
    EXPECT_EQ((Texts{"text", "again"}), library.texts());
}

TEST(CmLogStream, YrktraStreamNeitherFreesNorDeliversAgain_AfterAnException) {
    ScopedTraceLibrary library;
    library.ThrowOnCall(1);
    {
        ccu::YrktraStreamA stream(5);
        stream.writestringa("text");
        stream.flusha("net");
        stream.flusha("net");
    }
    EXPECT_EQ(Texts{"text"}, library.texts());
    EXPECT_STREQ("text", library.lastText());
    std::free(library.lastText());
}

TEST(CmLogStream, LocaleIsTheClassicOneWithItsConversion) {
    EXPECT_EQ("C", ccuLoc.name());
    EXPECT_EQ(1, ccuCvter.max_length());
}

// ---- The second facility

TEST(CmLogStream, Facility2HasDefaultsOfItsOwn) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  CCmT120Trace2* pFacility = CCmT120Trace2::instance();
                  for (const unsigned long ulOff : {0, 10}) {  // Error and Warning
                      EXPECT_EQ(0, pFacility->enable_trace_print(ulOff, nullptr)) << ulOff;
                  }
                  for (const unsigned long ulOn : {14, 21}) {  // Statistic and State
                      EXPECT_EQ(1, pFacility->enable_trace_print(ulOn, nullptr)) << ulOn;
                  }
              }));
}

TEST(CmLogStream, Facility2IsOneOfItsOwn) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  CCmT120Trace2* pFacility = CCmT120Trace2::instance();
                  EXPECT_EQ(pFacility, CCmT120Trace2::instance());
                  EXPECT_NE(static_cast<CCmT120Trace*>(pFacility), CCmT120Trace::instance());
              }));
}

TEST(CmLogStream, Facility2DeliversInfoButNoErrorByDefault) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  ScopedTraceLibrary library;
                  CCmT120Trace2::instance()->trace_string(0, const_cast<char*>("error"));
                  CCmT120Trace2::instance()->trace_string(20, const_cast<char*>("info"));
                  EXPECT_EQ(Texts{"info"}, library.texts());
              }));
}

CCmT120TraceMapEntry g_table[CM_TRACE_LEVEL_COUNT];

class TaggedTrace : public CCmT120Trace2 {
  public:
    explicit TaggedTrace(const char* aFileName = nullptr)
        : CCmT120Trace2("Log", g_table, aFileName, 0) {}
    std::string& logPath() { return m_sLogPath; }
    std::string Named(std::string aName) { return GetLogFilePathAndName(aName); }
};

TEST(CmLogStream, Facility2RemembersTheLogPath_WithoutAFileName) {
    ScopedHome home;
    TaggedTrace trace;
    EXPECT_EQ("", trace.logPath());
    EXPECT_EQ(1, trace.load(nullptr));
    EXPECT_EQ(home.path() + "/logs/C_Trace.txt", trace.logPath());
}

TEST(CmLogStream, Facility2RemembersNoLogPath_WhenMemoryRunsOut) {
    ScopedHome home;
    TaggedTrace trace;
    trace.logPath() = "before";
    ScopedAllocationFault fault(1);
    EXPECT_EQ(1, trace.load(nullptr));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ("", trace.logPath());
}

TEST(CmLogStream, Facility2RemembersNoLogPath_WhenThereIsAFileName) {
    ScopedHome home;
    TaggedTrace trace("own.txt");
    EXPECT_EQ(1, trace.load(nullptr));
    EXPECT_EQ("", trace.logPath());
}

TEST(CmLogStream, LogFileNameIsEmpty_WhenTheFacilityIsFresh) {
    TaggedTrace trace;
    EXPECT_EQ("", trace.Named("a"));
}

TEST(CmLogStream, LogFileNameIsEmpty_WithoutTheTag) {
    ScopedHome home;
    TaggedTrace trace;
    trace.load(nullptr);
    EXPECT_EQ("", trace.Named("a"));
}

TEST(CmLogStream, LogFileNameReplacesTheFirstTagAndKeepsTheStoredPath) {
    TaggedTrace trace;
    trace.logPath() = "/x/##**FILE_NAME_TAG**##.##**FILE_NAME_TAG**##";
    EXPECT_EQ("/x/call.##**FILE_NAME_TAG**##", trace.Named("call"));
    EXPECT_EQ("/x/##**FILE_NAME_TAG**##.##**FILE_NAME_TAG**##", trace.logPath());
}

TEST(CmLogStream, LogFileNameIsEmpty_WhenMemoryRunsOut) {
    TaggedTrace trace;
    trace.logPath() = "/a/path/that/is/long/enough/##**FILE_NAME_TAG**##";
    std::string sName("name");
    ScopedAllocationFault fault(1);
    EXPECT_EQ("", trace.GetLogFilePathAndName(sName));
    EXPECT_TRUE(fault.hit());
}

// ---- Identity. The process of this executable is named "C", the first character of its file.

int HostNameH1(char* aName, size_t aSize) {
    std::snprintf(aName, aSize, "h1");
    return 0;
}

int HostNameOf512Characters(char* aName, size_t aSize) {
    std::memset(aName, 'h', aSize);
    return 0;
}

using HostNameEntry = kelto_test::ScopedEntry<int (*)(char*, size_t)>;

TEST(CmLogStream, LeadingIdNamesProcessAndHost) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameH1);
                  EXPECT_EQ(nullptr, g_LeadingId.load());
                  EXPECT_STREQ("C.h1.", get_leading_id());
                  EXPECT_EQ(get_leading_id(), g_LeadingId.load());
              }));
}

// Stands in for an executable of that name; the buffer is the library's, and writable.
void RenameProcess(const char* aName) {
    std::strcpy(const_cast<char*>(get_exec_name()), aName);
}

TEST(CmLogStream, LeadingIdDropsTheExtensionExe) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  RenameProcess("agent.exe");
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameH1);
                  EXPECT_STREQ("agent.h1.", get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdKeepsAnyOtherExtension) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  RenameProcess("a.exe.bin");
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameH1);
                  EXPECT_STREQ("a.exe.bin.h1.", get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdPrefersTheConfiguredMachine) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig("[Trace]\nMachineID=m7\n");
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameH1);
                  EXPECT_STREQ("C.m7.", get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdCutsTheConfiguredMachine_After255Characters) {
    for (size_t nLength : {255u, 256u}) {
        EXPECT_EQ(0, StatusOfChild([nLength] {
                      ScopedHome home;
                      home.WriteConfig("[Trace]\nMachineID=" + std::string(nLength, 'm') + "\n");
                      EXPECT_EQ("C." + std::string(255, 'm') + ".", get_leading_id());
                  }));
    }
}

TEST(CmLogStream, LeadingIdIsCut_After1023Characters) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  RenameProcess(std::string(511, 'p').c_str());
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameOf512Characters);
                  EXPECT_EQ(std::string(511, 'p') + "." + std::string(511, 'h'), get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdKeepsTheConfiguredMachineAndTraces_WhenTheHostNameFails) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig("[Trace]\nMachineID=m7\n");
                  ScopedTraceSink sink;
                  FailingCall<&CCmSystemTable::gethostname> fault(ENAMETOOLONG);
                  EXPECT_STREQ("C.m7.", get_leading_id());
                  ASSERT_EQ(1u, sink.lines().size());
                  EXPECT_EQ(10u, sink.lines()[0].level);
                  EXPECT_EQ(
                      "UTIL WARNING: CCmDnsManager::GetLocalIps, gethostname() failed! "
                      "err=" ERRNO_TEXT(ENAMETOOLONG),
                      sink.lines()[0].text);
              }));
}

TEST(CmLogStream, LeadingIdHasNoMachine_WhenTheHostNameFailsAndNoneIsConfigured) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  FailingCall<&CCmSystemTable::gethostname> fault(EPERM);
                  EXPECT_STREQ("C..", get_leading_id());
              }));
}

// As a system does whose name is longer than the buffer.
int HostNameThatIsCut(char* aName, size_t aSize) {
    std::memset(aName, 'h', aSize);
    errno = ENAMETOOLONG;
    return -1;
}

TEST(CmLogStream, LeadingIdHasNoMachine_WhenTheHostNameIsCut) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameThatIsCut);
                  EXPECT_STREQ("C..", get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdIsBounded_WhenTheHostNameHasNoTerminator) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameOf512Characters);
                  EXPECT_EQ("C." + std::string(511, 'h') + ".", get_leading_id());
              }));
}

TEST(CmLogStream, LeadingIdIsBuiltOnce) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  home.WriteConfig("[Trace]\nMachineID=m7\n");
                  const char* pszFirst = get_leading_id();
                  home.WriteConfig("[Trace]\nMachineID=m8\n");
                  EXPECT_EQ(pszFirst, get_leading_id());
                  EXPECT_STREQ("C.m7.", pszFirst);
              }));
}

std::thread g_otherThread;
const char* g_pszOthersId = nullptr;
int g_nHostNames = 0;

// Lasts until another thread, which asks for the identity too, is about to wait for the caller.
int HostNameWhileAnotherThreadAsks(char* aName, size_t aSize) {
    if (++g_nHostNames == 1) {
        LockCalls calls;
        g_otherThread = std::thread([] { g_pszOthersId = get_leading_id(); });
        EXPECT_TRUE(Eventually([&calls] { return calls.seen(); }));
    }
    return HostNameH1(aName, aSize);
}

TEST(CmLogStream, LeadingIdIsBuiltOnce_WhenAnotherThreadAsksMeanwhile) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  HostNameEntry entry(g_cmSystem.gethostname, HostNameWhileAnotherThreadAsks);
                  const char* pszId = get_leading_id();
                  g_otherThread.join();
                  EXPECT_STREQ("C.h1.", pszId);
                  EXPECT_EQ(pszId, g_pszOthersId);
                  EXPECT_EQ(1, g_nHostNames);
              }));
}

TEST(CmLogStream, LeadingIdIsOne_WhenManyThreadsAskFirst) {
    EXPECT_EQ(0, StatusOfChild([] {
                  ScopedHome home;
                  std::vector<std::thread> threads;
                  std::atomic<int> nSame{0};
                  for (int i = 0; i < 8; ++i) {
                      threads.emplace_back(
                          [&nSame] { nSame += get_leading_id() == g_LeadingId.load() ? 1 : 0; });
                  }
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  EXPECT_EQ(8, nSame.load());
              }));
}

}  // namespace
}  // namespace UTIL_NS
