// Every operation with every allocation of it failing: the 1st, the 2nd, the 3rd ... until it runs
// clean, once alone, once with all that follow, and once with each that follows in turn: the second
// fault often meets what the first one started.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "CmBlockPieces.h"
#include "CmBoundedPoster.h"
#include "CmConfigReader.h"
#include "CmEncoding.h"
#include "CmEvent.h"
#include "CmEventQueueBase.h"
#include "CmHttpUrl.h"
#include "CmLifeGuard.h"
#include "CmLogStream.h"
#include "CmMessageBlock.h"
#include "CmResolver.h"
#include "CmStrict.h"
#include "CmT120TraceFile.h"
#include "CmThread.h"
#include "CmTimer.h"
#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "CmUtilMisc.h"
#include "CmWorker.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/Timers.h"
#include "support/Workers.h"

namespace UTIL_NS {
namespace {

using kelto_test::EndCounter;
using kelto_test::Failing;
using kelto_test::LiftAllocationFault;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;

constexpr int EVENTS = 256;
constexpr unsigned long MOST_ALLOCATIONS = 100000;
constexpr unsigned long MOST_PAIRS = 100000 / KELTO_TEST_STRIDE / KELTO_TEST_STRIDE;

void DropLine(unsigned long, const char*, unsigned int) {}

using Operate = std::function<bool()>;

// Runs one operation, which leaves no memory behind, under a fault; whether that hit it. aDone:
// what the operation returned, true when it did all of its work.
template <class... Arguments>
bool RunWithFault(bool& aDone, const Operate& aOperation, Arguments... aArguments) {
    const long lBefore = LiveAllocations();
    bool bHit = false;
    {
        ScopedAllocationFault fault(aArguments...);
        EXPECT_NO_THROW(aDone = aOperation());
        bHit = fault.hit();
    }
    EXPECT_EQ(lBefore, LiveAllocations());
    return bHit;
}

// Until no fault hits it any more. Returns the faults.
unsigned long RunUntilClean(Failing aFailing, const Operate& aOperation) {
    for (unsigned long ulNth = 1; ulNth < MOST_ALLOCATIONS; ++ulNth) {
        SCOPED_TRACE("fault " + std::to_string(ulNth));
        bool bDone = false;
        if (!RunWithFault(bDone, aOperation, ulNth, aFailing)) {
            EXPECT_TRUE(bDone) << "nothing failed";
            return ulNth - 1;
        }
    }
    ADD_FAILURE() << "never clean";
    return 0;
}

// aFaults: the allocations of the operation. Returns the pairs; of the seconds, where there would
// be too many, those are tried that follow the first soonest.
unsigned long RunWithPairs(unsigned long aFaults, const Operate& aOperation) {
    const unsigned long ulSeconds = std::max(1UL, MOST_PAIRS / std::max(1UL, aFaults));
    unsigned long ulPairs = 0;
    for (unsigned long ulNth = 1; ulNth <= aFaults; ++ulNth) {
        for (unsigned long ulAfterwards = 1; ulAfterwards <= ulSeconds; ++ulAfterwards) {
            SCOPED_TRACE("faults " + std::to_string(ulNth) + " and " +
                         std::to_string(ulAfterwards) + " after it");
            bool bDone = false;
            if (!RunWithFault(bDone, aOperation, ulNth, ulAfterwards)) {
                break;
            }
            ++ulPairs;
        }
        if (testing::Test::HasFailure()) {
            break;
        }
    }
    return ulPairs;
}

unsigned long InjectFaults(const Operate& aOperation) {
    aOperation();  // what is created once and stays
    const unsigned long ulFaults = RunUntilClean(Failing::ONCE, aOperation);
    return ulFaults + RunUntilClean(Failing::FROM_THERE_ON, aOperation) +
           RunWithPairs(ulFaults, aOperation);
}

// Lives in place, so that only the library allocates.
class OwnedEvent : public ICmEvent {
  public:
    CmResult OnEventFire() override { return ++m_nFired, CM_OK; }
    void OnDestorySelf() override { ++m_nEnded; }

    int m_nFired = 0;
    int m_nEnded = 0;
};

template <class Queue>
bool PostAndRun(int aEvents) {
    static std::vector<OwnedEvent> s_events(EVENTS);
    for (OwnedEvent& event : s_events) {
        event.m_nFired = event.m_nEnded = 0;
    }
    int nPosted = 0;
    {
        Queue queue;
        for (int i = 0; i < aEvents; ++i) {
            OwnedEvent& event = s_events[static_cast<size_t>(i)];
            const CmResult rv = queue.PostEvent(&event, ICmEventQueue::EPRIORITY_NORMAL);
            EXPECT_TRUE(rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY) << rv;
            EXPECT_EQ(rv == CM_OK ? 0 : 1, event.m_nEnded) << "what is refused is ended";
            nPosted += rv == CM_OK ? 1 : 0;
        }
        EXPECT_EQ(static_cast<DWORD>(nPosted), queue.GetPendingEventsCount());
    }
    for (int i = 0; i < aEvents; ++i) {
        EXPECT_EQ(1, s_events[static_cast<size_t>(i)].m_nEnded) << "every event ends once";
    }
    return nPosted == aEvents;
}

template <class Queue>
bool ScheduleMany(Queue& aQueue, int aTimers) {
    static std::vector<kelto_test::CountingHandler> s_handlers(64);
    int nScheduled = 0;
    for (int i = 0; i < aTimers; ++i) {
        kelto_test::CountingHandler& handler = s_handlers[static_cast<size_t>(i)];
        const CmResult rv = aQueue.ScheduleTimer(&handler, nullptr, CCmTimeValue(1 + i), 0);
        EXPECT_TRUE(rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY) << rv;
        EXPECT_EQ(rv == CM_OK ? CM_OK : CM_ERROR_NOT_FOUND, aQueue.CancelTimer(&handler));
        if (rv == CM_OK) {
            const CmResult rvAgain =
                aQueue.ScheduleTimer(&handler, nullptr, CCmTimeValue(1 + i), 0);
            EXPECT_TRUE(rvAgain == CM_OK || rvAgain == CM_ERROR_OUT_OF_MEMORY) << rvAgain;
            nScheduled += rvAgain == CM_OK ? 1 : 0;
        }
    }
    return nScheduled == aTimers;
}

bool WorkOnChain(int aBlocks) {
    CCmMessageBlock head(10);
    head.Write("0123456789", 10);
    CCmMessageBlock* pChain = nullptr;
    for (int i = 0; i < aBlocks; ++i) {
        CCmMessageBlock* pBlock = head.DuplicateTopLevel();
        if (pBlock == nullptr) {
            break;
        }
        if (pChain == nullptr) {
            pChain = pBlock;
        } else {
            pChain->Append(pBlock);
        }
    }
    if (pChain == nullptr) {
        return false;
    }
    const unsigned int dwLength = pChain->GetChainedLength();
    bool bDone = dwLength == static_cast<unsigned int>(aBlocks) * 10;
    CCmMessageBlock* pCopy = pChain->DuplicateChained();
    bDone = bDone && pCopy != nullptr;
    EXPECT_TRUE(pCopy == nullptr || pCopy->GetChainedLength() == dwLength);
    CCmMessageBlock* pTail = pChain->Disjoint(15);
    bDone = bDone && pTail != nullptr;
    CCmMessageBlock* pSingle = pCopy != nullptr ? pCopy->CombineSingleBuffer() : nullptr;
    bDone = bDone && pSingle != nullptr;
    EXPECT_TRUE(pSingle == nullptr || pSingle->GetChainedLength() == dwLength);
    bDone = bDone && pCopy->FlattenChained().size() == dwLength;
    for (CCmMessageBlock* pEach : {pChain, pCopy, pTail, pSingle}) {
        if (pEach != nullptr) {
            CCmMessageBlock::DestroyChained(pEach);
        }
    }
    return bDone;
}

const CCmString LONG_TEXT(200, 'x');
const CCmString LONG_SPEC = "http://" + LONG_TEXT + ":8080/" + LONG_TEXT;

bool UseUrl() {
    CCmHttpUrl url;
    bool bDone = url.Init(LONG_SPEC);
    bDone = url.GetAsciiSpec() == LONG_SPEC && bDone;
    bDone = url.GetHostName() == LONG_TEXT && bDone;
    bDone = url.GetPath().size() == 201 && bDone;
    bDone = url.GetNameAndPort(1).size() == 205 && bDone;
    bDone = url.SetNameAndPort(LONG_TEXT) && bDone;
    url.SetPath(LONG_TEXT);
    return bDone;
}

// ---- The front door. A worker is ended without faults, since it tries again until it can be.

// Counts what a callable captured ends up as: each ends once, run or not.
struct Ends {
    std::atomic<int> ended{0};
    std::atomic<int> ran{0};

    auto Callable() {
        return [this, counter = EndCounter(ended)] { ++ran; };
    }
};

bool IsOkOrOutOfMemory(CmResult aResult) {
    EXPECT_TRUE(aResult == CM_OK || aResult == CM_ERROR_OUT_OF_MEMORY) << aResult;
    return aResult == CM_OK;
}

bool LiveAsWorker() {
    Ends ends;
    int nPosted = 0;
    bool bStarted = false;
    {
        CCmWorker worker(CCmWorkerOptions().Name("faults").OnStart([] {}).OnEnd([] {}));
        bStarted = IsOkOrOutOfMemory(worker.Result());
        for (int i = 0; bStarted && i < 8; ++i) {
            nPosted += IsOkOrOutOfMemory(CmPost(worker, ends.Callable())) ? 1 : 0;
        }
        if (bStarted) {
            const auto call = CmCall(worker, [] { return 42; });
            EXPECT_TRUE(IsOkOrOutOfMemory(call.Result()) == call.HasBegun());
            nPosted += call.HasBegun() ? 1 : 0;
        }
        LiftAllocationFault();
    }
    EXPECT_EQ(ends.ended, bStarted ? 8 : 0);
    return bStarted && nPosted == 9 && ends.ran == 8;
}

bool PostForLater() {
    Ends ends;
    int nScheduled = 0;
    bool bStarted = false;
    {
        CCmWorker worker;
        bStarted = IsOkOrOutOfMemory(worker.Result());
        if (bStarted) {
            CCmTimer timer(worker, CCmTimeValue(3600), ends.Callable());
            CCmTimerHandle handle = CmPostDelayed(worker, CCmTimeValue(3600), ends.Callable());
            nScheduled += IsOkOrOutOfMemory(timer.Result()) ? 1 : 0;
            nScheduled += IsOkOrOutOfMemory(handle.Result()) ? 1 : 0;
            handle.Cancel();
            timer.Cancel();
            LiftAllocationFault();
        }
        LiftAllocationFault();
    }
    EXPECT_EQ(bStarted ? 2 : 0, ends.ended);
    EXPECT_EQ(0, ends.ran);
    return nScheduled == 2;
}

bool PostWithGuard() {
    Ends ends;
    int nPosted = 0;
    {
        CCmEventQueueUsingMutex queue;
        CCmLifeGuard guard;
        const bool bMade = IsOkOrOutOfMemory(guard.Result());
        for (int i = 0; i < 32; ++i) {
            nPosted += IsOkOrOutOfMemory(CmPost(queue, guard.Wrap(ends.Callable()))) ? 1 : 0;
        }
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        EXPECT_LE(ends.ran, bMade ? nPosted : 0);
        nPosted -= bMade ? 0 : 32;
    }
    EXPECT_EQ(32, ends.ended);
    return nPosted == 32 && ends.ran == 32;
}

bool PostIntoRoom() {
    Ends ends;
    Ends low;
    int nPosted = 0;
    {
        CCmEventQueueUsingMutex queue;
        CCmBoundedPoster poster(queue, 8, 2, low.Callable());
        const bool bMade = IsOkOrOutOfMemory(poster.Result());
        for (int i = 0; i < 8; ++i) {
            const CmResult rv = poster.TryPost(ends.Callable());
            nPosted += IsOkOrOutOfMemory(rv) ? 1 : 0;
        }
        EXPECT_EQ(static_cast<DWORD>(nPosted), poster.GetCount());
        EXPECT_LE(nPosted, bMade ? 8 : 0);
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessEvents(events);
        queue.DestoryPendingEvents();
        EXPECT_EQ(0U, poster.GetCount());
    }
    EXPECT_EQ(8, ends.ended);
    EXPECT_EQ(1, low.ended);
    return nPosted == 8 && ends.ran == 8;
}

bool MakePieces() {
    static const std::vector<std::string_view> PIECES(50, "piece");
    const CCmChainPtr pChain = CmMakeChain(PIECES);
    const CCmChainPtr pCopy = pChain != nullptr ? CmMakeChain(CCmPieces(pChain.get())) : nullptr;
    EXPECT_TRUE(pCopy == nullptr || pCopy->GetChainedLength() == 250);
    return pCopy != nullptr;
}

bool ReadConfiguration(const std::string& aPath) {
    CCmConfigReader config;
    const CmResult rv = config.Read(aPath.c_str());
    int nNumber = 5;
    const CmResult number = config.GetNumber("s", "k", nNumber, 1, 64);
    std::vector<CCmString> sentences;
    const CmResult listed = config.ListUnasked("", sentences);
    EXPECT_EQ(5, nNumber);
    return rv == CM_OK && number == CM_ERROR_INVALID_ARG && listed == CM_OK &&
           config.problems().size() == 1 && sentences.size() == 1;
}

bool ComposeStrictly() {
    static const std::string URL = "http://example.org/" + std::string(100, 'a') + "/../%7eb?x=%20";
    CCmUrlParts parts;
    CCmUrlParts reference;
    EXPECT_TRUE(CmParseUrl(URL, parts));
    EXPECT_TRUE(CmParseUrlReference("../c", reference));
    CCmString strText[6];
    bool bDone = IsOkOrOutOfMemory(CmComposeUrl(parts, strText[0]));
    bDone = IsOkOrOutOfMemory(CmResolveUrl(parts, reference, strText[1])) && bDone;
    bDone = IsOkOrOutOfMemory(CmNormalizeUrl(parts, strText[2])) && bDone;
    bDone = IsOkOrOutOfMemory(CmPercentEncode(URL, strText[3])) && bDone;
    bDone = IsOkOrOutOfMemory(CmPercentDecode(URL, strText[4]).m_Result) && bDone;
    bDone = IsOkOrOutOfMemory(CmEncodeBase64(URL, strText[5])) && bDone;
    if (bDone) {
        CCmString strBytes;
        bDone = IsOkOrOutOfMemory(CmDecodeBase64(strText[5], strBytes).m_Result);
        EXPECT_TRUE(!bDone || strBytes == URL);
    }
    return bDone;
}

bool WriteTraceFile(const std::string& aPath) {
    void* const pRecord = T120_Open_Trace_Dev(aPath.c_str(), 0, 1, 0);
    if (pRecord == nullptr) {
        return false;
    }
    const CmResult rv = static_cast<CCmT120TraceFile*>(pRecord)->attach();
    T120_Write_Trace_Dev(pRecord, nullptr, "module", "text");
    T120_Close_Trace_Dev(pRecord);
    EXPECT_TRUE(rv == CM_OK || rv == CM_ERROR_FAILURE) << rv;
    return rv == CM_OK;
}

bool LiveAsThread() {
    ACmThread* pThread = nullptr;
    CmResult rv = CreateUserTaskThread(&pThread, TF_JOINABLE, true, 1);
    if (!IsOkOrOutOfMemory(rv)) {
        return false;
    }
    rv = pThread->Stop(nullptr);
    LiftAllocationFault();
    if (!IsOkOrOutOfMemory(rv)) {
        pThread->Stop(nullptr);
    }
    EXPECT_EQ(CM_OK, pThread->Join());
    pThread->Destory(CM_OK);
    return rv == CM_OK;
}

// What is left of a text is delivered.
bool StreamTexts() {
    static const std::string TEXT(600, 'a');
    bool bDone = false;
    {
        ccu::logstream<char> stream(9, "module");
        stream << TEXT << 5;
        stream << TEXT;
        bDone = stream.good();
    }
    ccu::YrktraStreamA text(9);
    for (int i = 0; i < 3; ++i) {
        text.writestringa(TEXT.c_str());
    }
    text.flusha("module");
    return bDone;
}

class CEndedAnswer : public ACmResolution {
  public:
    explicit CEndedAnswer(int& aEnded) : m_nEnded(aEnded) {}
    ~CEndedAnswer() override { ++m_nEnded; }
    void OnResolved() override { EXPECT_TRUE(IsOkOrOutOfMemory(result())); }

  private:
    int& m_nEnded;
};

// An address is its own answer. Names take other threads: see CmResolver_test.
bool ResolveAddresses() {
    int nAnswers = 0;
    int nEnded = 0;
    int nGood = 0;
    {
        CCmEventQueueUsingMutex queue;
        CCmResolver resolver;
        for (const char* pszAddress : {"192.0.2.7", "2001:db8::7", "[::1]"}) {
            auto* const pAnswer = new (std::nothrow) CEndedAnswer(nEnded);
            if (pAnswer == nullptr) {
                continue;
            }
            ++nAnswers;
            const CmResult rv = resolver.Resolve(pszAddress, &queue, pAnswer, CCmTimeValue(60));
            nGood += rv == CM_OK ? 1 : 0;
        }
        std::list<ICmEvent*> events;
        queue.PopPendingEventsLocked(events);
        queue.ProcessTakenEvents(events);
    }
    EXPECT_EQ(nAnswers, nEnded);
    return nGood == 2;
}

struct Operation {
    const char* name;
    std::function<bool()> run;
};

std::vector<Operation> Operations(const std::string& aHome) {
    const std::string sTrace = aHome + "trace";
    const std::string sProfile = aHome + "profile";
    kelto_test::WriteFile(
        sProfile, "[s]\nk = a text that is long enough for an allocation of its own\nother = 1\n");
    return {
        {"worker", LiveAsWorker},
        {"timers of a worker", PostForLater},
        {"life guard", PostWithGuard},
        {"bounded poster", PostIntoRoom},
        {"pieces", MakePieces},
        {"configuration", [sProfile] { return ReadConfiguration(sProfile); }},
        {"strict parsers", ComposeStrictly},
        {"trace file", [sTrace] { return WriteTraceFile(sTrace); }},
        {"log stream", StreamTexts},
        {"resolver", ResolveAddresses},
        {"thread", LiveAsThread},
        {"post, no lock", [] { return PostAndRun<CCmEventQueueBase>(EVENTS); }},
        {"post, mutex", [] { return PostAndRun<CCmEventQueueUsingMutex>(EVENTS); }},
        {"post, condition", [] { return PostAndRun<CCmEventQueueUsingConditionVariable>(EVENTS); }},
        {"ordered list",
         [] {
             CCmTimerQueueOrderedList queue(nullptr);
             return ScheduleMany(queue, 64);
         }},
        {"calendar",
         [] {
             static CCmEventQueueUsingMutex s_events;
             CCmTimerQueueCalendar queue(100, 10000, &s_events);
             return ScheduleMany(queue, 64);
         }},
        {"chain of 2", [] { return WorkOnChain(2); }},
        {"chain of 300", [] { return WorkOnChain(300); }},
        {"message block",
         [] {
             CCmMessageBlock block(100);
             return block.Write("0123456789", 10) == CM_OK;
         }},
        {"data block",
         [] {
             CCmDataBlock* pDb = nullptr;
             const CmResult rv = CCmDataBlock::CreateInstance(pDb, 100, nullptr);
             EXPECT_TRUE((rv == CM_OK) == (pDb != nullptr));
             if (pDb != nullptr) {
                 pDb->ReleaseReference();
             }
             return rv == CM_OK;
         }},
        {"base64",
         [] {
             CCmString strText;
             CCmString strBytes;
             CM_Base64Encode(LONG_TEXT.data(), LONG_TEXT.size(), strText);
             CM_Base64Decode(strText.c_str(), strBytes);
             return strBytes == LONG_TEXT;
         }},
        {"url", UseUrl},
        {"pop",
         [] {
             static OwnedEvent s_event;
             CCmEventQueueUsingMutex queue;
             queue.PostEvent(&s_event, ICmEventQueue::EPRIORITY_NORMAL);
             std::list<ICmEvent*> events;
             queue.PopPendingEventsLocked(events);
             return queue.ProcessEvents(events) == CM_OK && !events.empty();
         }},
        {"replace",
         [] {
             CCmString strResult;
             replaceCaseMatch(LONG_TEXT.c_str(), "x", "yy", strResult);
             EXPECT_TRUE(strResult.empty() || strResult.size() == 400);
             return strResult.size() == 400;
         }},
        {"local addresses",
         [] {
             local_addr* pList = nullptr;
             const int rv = get_local_addr(&pList);
             EXPECT_TRUE(rv == 0 || pList == nullptr);
             free_local_addr(pList);
             return rv == 0;
         }},
    };
}

TEST(AllocationFaults, EndsInAResultAndLeaksNothing_WhateverAllocationsFail) {
    const kelto_test::ScopedHome home;
    const UtilTraceSink pfnBefore = g_util_trace_sink.load();
    set_util_external_trace_sink(DropLine);
    unsigned long ulFaults = 0;
    for (const Operation& operation : Operations(home.path())) {
        SCOPED_TRACE(operation.name);
        const unsigned long ulHere = InjectFaults(operation.run);
        EXPECT_LT(0UL, ulHere) << "the operation is expected to allocate";
        printf("%s: %lu\n", operation.name, ulHere);
        ulFaults += ulHere;
    }
    set_util_external_trace_sink(pfnBefore);
    RecordProperty("faults", std::to_string(ulFaults));
    printf("%lu faults\n", ulFaults);
    EXPECT_LE(50000UL / KELTO_TEST_STRIDE, ulFaults);
}

}  // namespace
}  // namespace UTIL_NS
