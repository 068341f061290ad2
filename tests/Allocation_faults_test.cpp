// Every operation with every allocation of it failing: the 1st, the 2nd, the 3rd ... until it runs
// clean, once alone and once with all that follow.
#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "CmEncoding.h"
#include "CmEventQueueBase.h"
#include "CmHttpUrl.h"
#include "CmMessageBlock.h"
#include "CmTimerQueueCalendar.h"
#include "CmTimerQueueOrderedList.h"
#include "CmUtilMisc.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Timers.h"

namespace UTIL_NS {
namespace {

using kelto_test::Failing;
using kelto_test::LiveAllocations;
using kelto_test::ScopedAllocationFault;

constexpr int EVENTS = 256;
constexpr unsigned long MOST_ALLOCATIONS = 100000;

void DropLine(unsigned long, const char*, unsigned int) {}

// Runs one operation, which leaves no memory behind, until no fault hits it any more. Its result is
// true when it did all of its work; it must do so when nothing failed. Returns the faults.
unsigned long RunUntilClean(Failing aFailing, const std::function<bool()>& aOperation) {
    for (unsigned long ulNth = 1; ulNth < MOST_ALLOCATIONS; ++ulNth) {
        const long lBefore = LiveAllocations();
        bool bDone = false;
        bool bHit = false;
        {
            ScopedAllocationFault fault(ulNth, aFailing);
            EXPECT_NO_THROW(bDone = aOperation()) << "fault " << ulNth;
            bHit = fault.hit();
        }
        EXPECT_EQ(lBefore, LiveAllocations()) << "fault " << ulNth;
        if (!bHit) {
            EXPECT_TRUE(bDone) << "nothing failed";
            return ulNth - 1;
        }
    }
    ADD_FAILURE() << "never clean";
    return 0;
}

unsigned long InjectFaults(const std::function<bool()>& aOperation) {
    aOperation();  // what is created once and stays
    return RunUntilClean(Failing::ONCE, aOperation) +
           RunUntilClean(Failing::FROM_THERE_ON, aOperation);
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

struct Operation {
    const char* name;
    std::function<bool()> run;
};

std::vector<Operation> Operations() {
    return {
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
        {"chain of 200", [] { return WorkOnChain(200); }},
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

TEST(AllocationFaults, EndsInAResultAndLeaksNothing_WhateverAllocationFails) {
    const UtilTraceSink pfnBefore = g_util_trace_sink.load();
    set_util_external_trace_sink(DropLine);
    unsigned long ulFaults = 0;
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        const unsigned long ulHere = InjectFaults(operation.run);
        EXPECT_LT(0UL, ulHere) << "the operation is expected to allocate";
        ulFaults += ulHere;
    }
    set_util_external_trace_sink(pfnBefore);
    RecordProperty("faults", std::to_string(ulFaults));
    printf("%lu faults\n", ulFaults);
    EXPECT_LE(2000UL, ulFaults);
}

}  // namespace
}  // namespace UTIL_NS
