// A line that nobody wants is left out; everything else happens as it does when it is written.
// Each test runs in a process of its own, whose trace facility is switched off.
#include <errno.h>
#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <vector>

#include "CmAddress.h"
#include "CmConditionVariable.h"
#include "CmHttpUrl.h"
#include "CmLogStream.h"
#include "CmMessageBlock.h"
#include "CmT120Trace.h"
#include "CmThread.h"
#include "CmTimerQueueCalendar.h"
#include "CmTimerWrapper.h"
#include "CmUtilMisc.h"
#include "CmUtilTemplates.h"
#include "support/ChildProcess.h"
#include "support/Clock.h"
#include "support/Events.h"
#include "support/Faults.h"
#include "support/Home.h"
#include "support/Timers.h"
#include "support/TraceLibrary.h"

namespace UTIL_NS {
namespace {

using kelto_test::EventLog;
using kelto_test::FailingCall;
using kelto_test::LoggedEvent;
using kelto_test::ScopedClock;
using Ids = std::vector<int>;
using T = CCmSystemTable;

constexpr ICmEventQueue::EPriority NORMAL = ICmEventQueue::EPRIORITY_NORMAL;

// Expects aBody to deliver nothing.
void InSilence(const std::function<void()>& aBody) {
    EXPECT_EQ(0, kelto_test::StatusOfChild([&aBody] {
                  kelto_test::ScopedHome home;
                  home.WriteConfig("[Trace]\nEnable=FALSE\n");
                  kelto_test::ScopedTraceLibrary library;
                  EXPECT_NE(nullptr, CCmT120Trace::instance());
                  aBody();
                  EXPECT_TRUE(library.calls().empty());
              }));
}

TEST(TracingOff, MutexesWorkOn_WhenACallFails) {
    InSilence([]() CM_NO_THREAD_SAFETY_ANALYSIS {
        {
            FailingCall<&T::pthread_mutex_init> fault(0, EAGAIN);
            CCmMutexThread mutex;
            EXPECT_EQ(1u, fault.calls());
        }
        {
            FailingCall<&T::pthread_mutex_init> fault(0, EPERM);
            CCmMutexThreadRecursive mutex;
            EXPECT_EQ(1u, fault.calls());
        }
        {
            FailingCall<&T::pthread_mutex_destroy> fault(0, EBUSY);
            { CCmMutexThread mutex; }
            EXPECT_EQ(1u, fault.calls());
        }
        CCmMutexThreadRecursive mutex;
        EXPECT_EQ(CM_OK, mutex.Lock());
        {
            FailingCall<&T::pthread_mutex_unlock> fault(0, EPERM);
            EXPECT_EQ(CM_ERROR_FAILURE, mutex.UnLock());
        }
        EXPECT_EQ(CM_OK, mutex.UnLock());
    });
}

TEST(TracingOff, ConditionsReturnTheFailure_WhenACallFails) {
    InSilence([]() CM_NO_THREAD_SAFETY_ANALYSIS {
        CCmMutexThread mutex;
        {
            FailingCall<&T::pthread_cond_init> fault(0, EAGAIN);
            FailingCall<&T::pthread_cond_destroy> destroyFault(0, EBUSY);
            { CCmConditionVariableThread condition(mutex); }
            EXPECT_EQ(1u, fault.calls());
            EXPECT_EQ(1u, destroyFault.calls());
        }
        CCmConditionVariableThread condition(mutex);
        CCmTimeValue tvTimeout(0, 100);
        FailingCall<&T::pthread_cond_signal> signalFault(0, EINVAL);
        FailingCall<&T::pthread_cond_broadcast> broadcastFault(0, EINVAL);
        FailingCall<&T::pthread_cond_wait> waitFault(0, EINVAL);
        FailingCall<&T::pthread_cond_timedwait> timedWaitFault(0, EINVAL);
        EXPECT_EQ(CM_ERROR_FAILURE, condition.Signal());
        EXPECT_EQ(CM_ERROR_FAILURE, condition.Broadcast());
        mutex.Lock();
        EXPECT_EQ(CM_ERROR_FAILURE, condition.Wait(nullptr));
        EXPECT_EQ(CM_ERROR_FAILURE, condition.Wait(&tvTimeout));
        mutex.UnLock();
    });
}

TEST(TracingOff, SemaphoresReturnTheFailure_WhenACallFails) {
    InSilence([]() CM_NO_THREAD_SAFETY_ANALYSIS {
        {
            FailingCall<&T::sem_init> fault(ENOSPC);
            FailingCall<&T::sem_destroy> destroyFault(EINVAL);
            { CCmSemaphore semaphore(1); }
            EXPECT_EQ(1u, fault.calls());
            EXPECT_EQ(1u, destroyFault.calls());
        }
        CCmSemaphore semaphore(0);
        FailingCall<&T::sem_wait> waitFault(EINTR);
        FailingCall<&T::sem_post> postFault(EOVERFLOW);
        EXPECT_EQ(CM_ERROR_FAILURE, semaphore.Lock());
        EXPECT_EQ(CM_ERROR_FAILURE, semaphore.UnLock());
    });
}

CmResult CreateWorker(bool aWithTimers) {
    ACmThread* pThread = nullptr;
    const CmResult rv = CreateUserTaskThread(&pThread, TF_JOINABLE, aWithTimers, 1);
    if (CM_SUCCEEDED(rv)) {
        EXPECT_EQ(CM_OK, pThread->Stop(nullptr));
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(CM_OK, pThread->Destory(0));
    }
    return rv;
}

TEST(TracingOff, WorkersLiveAndEnd) {
    InSilence([] {
        EXPECT_EQ(CM_OK, CreateWorker(false));
        EXPECT_EQ(CM_OK, CreateWorker(true));
    });
}

TEST(TracingOff, WorkersAreNotCreated_WhenACallFails) {
    InSilence([] {
        {
            FailingCall<&T::pthread_attr_init> fault(0, ENOMEM);
            EXPECT_EQ(CM_ERROR_UNEXPECTED, CreateWorker(true));
        }
        {
            FailingCall<&T::pthread_attr_setdetachstate> fault(0, EINVAL);
            EXPECT_EQ(CM_ERROR_UNEXPECTED, CreateWorker(true));
        }
        FailingCall<&T::pthread_create> fault(0, EAGAIN);
        EXPECT_EQ(CM_ERROR_UNEXPECTED, CreateWorker(true));
    });
}

class IdleThread : public ACmThread {
  public:
    void OnThreadRun() override {}
};

TEST(TracingOff, ThreadsAreCreated_WithoutAType) {
    InSilence([] {
        ACmThread* pThread = new IdleThread;
        EXPECT_EQ(CM_OK, pThread->Create(TT_UNKNOWN, TF_JOINABLE, 0));
        {
            FailingCall<&T::pthread_join> fault(0, EINVAL);
            EXPECT_EQ(CM_ERROR_FAILURE, pThread->Join());
        }
        EXPECT_EQ(CM_OK, pThread->Join());
        EXPECT_EQ(CM_OK, pThread->Destory(0));
    });
}

TEST(TracingOff, EventQueueEndsTheEvent_WhenItRefuses) {
    InSilence([] {
        EventLog log;
        CCmEventQueueUsingConditionVariable queue;
        queue.SetStopped();
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.PostEvent(new LoggedEvent(log, 1), NORMAL));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, queue.SendEvent(new LoggedEvent(log, 2)));
        EXPECT_EQ(Ids(), log.fired());
        EXPECT_EQ((Ids{1, 2}), log.ended());
    });
}

TEST(TracingOff, EventQueueTakesEvents_WhenItIsLong) {
    InSilence([] {
        ScopedClock clock(1000);
        EventLog log;
        CCmEventQueueBase queue;
        for (int i = 1; i <= 150; ++i) {
            queue.PostEvent(new LoggedEvent(log, i), NORMAL);
        }
        clock.Set(1004, 0);
        EXPECT_EQ(CM_OK, queue.PostEvent(new LoggedEvent(log, 151), NORMAL));
        EXPECT_EQ(151u, queue.GetPendingEventsCount());
    });
}

TEST(TracingOff, EventQueueRunsTheEvent_WhenItIsSlow) {
    InSilence([] {
        ScopedClock clock;
        EventLog log;
        CCmEventQueueBase queue;
        EXPECT_EQ(CM_OK, queue.ProcessOneEvent(new LoggedEvent(log, 1, [&clock] {
            clock.AdvanceMs(1000);
            return CM_OK;
        })));
        EXPECT_EQ(Ids{1}, log.ended());
    });
}

TEST(TracingOff, EventQueueWaitsNoLongerThanItsCondition) {
    InSilence([] {
        CCmEventQueueUsingConditionVariable queue;
        std::list<ICmEvent*> events;
        CCmTimeValue tvTimeout(1000);
        FailingCall<&T::pthread_cond_timedwait> fault(0, EINVAL);
        EXPECT_TRUE(CM_FAILED(queue.PopOrWaitPendingEvents(events, &tvTimeout)));
        EXPECT_TRUE(events.empty());
    });
}

TEST(TracingOff, MessageBlocksRefuseWhatTheyCannotDo) {
    InSilence([] {
        CCmMessageBlock block(4);
        EXPECT_EQ(CM_ERROR_FAILURE, block.SetData(8, nullptr, 0, 0));
        block.m_bRtpChainedFlag = true;
        EXPECT_EQ(nullptr, block.ReclaimGarbage());

        CCmMessageBlock first(4);
        CCmMessageBlock second(4, "abcd", 0, 1);
        first.Append(&second);
        second.Read(nullptr, 1);
        unsigned int dwAdvanced = 0;
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, first.AdvanceChainedWritePtr(6, &dwAdvanced));
        EXPECT_EQ(4u, dwAdvanced);
    });
}

TEST(TracingOff, MessageBlocksDuplicateWhatFollows_AfterACut) {
    InSilence([] {
        CCmMessageBlock first(4, "abcd", 0, 4);
        CCmMessageBlock second(3, "efg", 0, 3);
        first.Append(&second);
        CCmMessageBlock* pTail = first.Disjoint(0);
        EXPECT_EQ("abcdefg", pTail->FlattenChained());
        pTail->DestroyChained();
    });
}

TEST(TracingOff, TimersAreClampedToTheWheel) {
    InSilence([] {
        ScopedClock clock;
        kelto_test::CountingHandler handler;
        CCmTimerQueueCalendar queue(10, 110, nullptr);
        EXPECT_EQ(CM_OK, queue.ScheduleTimer(&handler, nullptr, CCmTimeValue(1000000), 1));
        EXPECT_EQ(CM_OK, queue.CancelTimer(&handler));
    });
}

TEST(TracingOff, TimerWrapperIsRefused_WithoutAQueue) {
    InSilence([] {
        CCmTimerWrapperID timer;
        EXPECT_EQ(CM_ERROR_NULL_POINTER, timer.Schedule(nullptr, CCmTimeValue(1), 1));
    });
}

TEST(TracingOff, AssertionsReturnTheirResult) {
    InSilence([] {
        CCmEventQueueBase queue;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, queue.SendEvent(nullptr));
        EXPECT_EQ(CM_ERROR_INVALID_ARG,
                  CCmEventQueueUsingConditionVariable().PostEvent(nullptr, NORMAL));
    });
}

TEST(TracingOff, UrlTellsWhetherItTookTheText) {
    InSilence([] {
        EXPECT_TRUE(CCmHttpUrl().Init("http://host/"));
        EXPECT_FALSE(CCmHttpUrl().Init("nothing://host/"));
    });
}

TEST(TracingOff, AddressesAreNotMadeUp) {
    InSilence([] {
        char szName[] = "host";
        char szIp[CM_IP_TEXT_SIZE] = "before";
        FailingCall<&T::gethostbyname> fault(0, nullptr);
        EXPECT_EQ(0, is_ip_address(nullptr));
        resolve_2_ip(nullptr, szIp);
        resolve_2_ip(szName, szIp);
        EXPECT_STREQ("before", szIp);
    });
}

TEST(TracingOff, LocalAddressesAreListed) {
    InSilence([] {
        local_addr* pList = nullptr;
        EXPECT_EQ(0, get_local_addr(&pList));
        free_local_addr(pList);
    });
}

TEST(TracingOff, LeadingIdHasNoMachine_WhenTheHostNameFails) {
    InSilence([] {
        FailingCall<&T::gethostname> fault(EFAULT);
        EXPECT_STREQ("T..", get_leading_id());
    });
}

TEST(TracingOff, SleepEnds_WhenItsCallFails) {
    InSilence([] {
        FailingCall<&T::nanosleep> fault(EINVAL, -1, 1, kelto_test::Failing::FROM_THERE_ON);
        SleepMs(1000000);
        EXPECT_EQ(1u, fault.calls());
    });
}

class Single {};

TEST(TracingOff, SingletonsAreMadeAgain_AfterTheCleanup) {
    InSilence([] {
        EXPECT_NE(nullptr, CCmSingletonT<Single>::Instance());
        CCmCleanUpBase::CleanupAll();
        EXPECT_NE(nullptr, CCmSingletonT<Single>::Instance());
    });
}

}  // namespace
}  // namespace UTIL_NS
