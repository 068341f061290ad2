// A system on which a cancelled thread runs its clean-up handlers and nothing else: no destructor
// of its frames.
#ifndef TESTS_SUPPORT_CANCELLATION_H
#define TESTS_SUPPORT_CANCELLATION_H

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <setjmp.h>
#include <time.h>

#include <array>
#include <atomic>

#include "port/CmPort.h"
#include "support/Faults.h"

namespace kelto_test {

// While it lives, threads that the library starts are cancelled in this way, in its waits and
// sleeps and in TestCancel. One at a time; to be constructed before and destroyed after them.
class ScopedHandlersOnly {
  public:
    ScopedHandlersOnly() = default;
    ScopedHandlersOnly(const ScopedHandlersOnly&) = delete;
    ScopedHandlersOnly& operator=(const ScopedHandlersOnly&) = delete;

    // pthread_testcancel of such a thread; does nothing on any other.
    // No part of its caller: AddressSanitizer would find the remains of its frame where a thread
    // that unwinds has been.
    [[gnu::noinline]] static void TestCancel() {
        CThread* const pThread = t_pThread;
        if (pThread != nullptr && pThread->m_bCancelled && IsCancelEnabled()) {
            End(pThread);
        }
    }

  private:
    struct CThread {
        void* (*m_pfnStart)(void*);
        void* m_pArgument;
        std::atomic<pthread_t> m_Id;
        std::atomic<bool> m_bCancelled;
        UTIL_NS::CmPortCleanUp* m_pNewest;
        jmp_buf m_End;
    };
    static constexpr size_t THREADS = 256;  // that may run at a time, those that end included
    static constexpr long SLICE_NSEC = 1000 * 1000;

    static bool IsCancelEnabled() {
        int nState = PTHREAD_CANCEL_ENABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
        pthread_setcancelstate(nState, nullptr);
        return nState == PTHREAD_CANCEL_ENABLE;
    }

    [[noreturn]] static void End(CThread* aThread) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        while (UTIL_NS::CmPortCleanUp* pCleanUp = aThread->m_pNewest) {
            aThread->m_pNewest = pCleanUp->m_pNext;
            pCleanUp->m_pfnRoutine(pCleanUp->m_pArgument);
        }
        longjmp(aThread->m_End, 1);
    }

    static void* Run(void* aThread) {
        CThread* const pThread = static_cast<CThread*>(aThread);
        pThread->m_Id = pthread_self();
        t_pThread = pThread;
        if (setjmp(pThread->m_End) != 0) {
            return PTHREAD_CANCELED;
        }
        void* const pResult = pThread->m_pfnStart(pThread->m_pArgument);
        EXPECT_EQ(nullptr, pThread->m_pNewest) << "a clean-up handler was not popped";
        return pResult;
    }

    static int Create(pthread_t* aId, const pthread_attr_t* aAttributes, void* (*aStart)(void*),
                      void* aArgument) {
        CThread& thread = s_threads[s_nThreads++ % THREADS];
        thread.m_pfnStart = aStart;
        thread.m_pArgument = aArgument;
        thread.m_Id = pthread_t();
        thread.m_bCancelled = false;
        thread.m_pNewest = nullptr;
        return pthread_create(aId, aAttributes, &Run, &thread);
    }

    // The library knows a thread's number only after the thread or its creator has stored it.
    static int Cancel(pthread_t aId) {
        const size_t nThreads = s_nThreads;
        for (size_t i = 1; i <= THREADS && i <= nThreads; ++i) {
            CThread& thread = s_threads[(nThreads - i) % THREADS];
            while (thread.m_Id == pthread_t()) {
            }
            if (pthread_equal(thread.m_Id, aId) != 0) {
                thread.m_bCancelled = true;
                return 0;
            }
        }
        return ESRCH;
    }

    static void Push(UTIL_NS::CmPortCleanUp* aCleanUp) {
        if (t_pThread != nullptr) {
            aCleanUp->m_pNext = t_pThread->m_pNewest;
            t_pThread->m_pNewest = aCleanUp;
        }
    }
    static void Pop(UTIL_NS::CmPortCleanUp* aCleanUp) {
        if (t_pThread != nullptr) {
            EXPECT_EQ(t_pThread->m_pNewest, aCleanUp) << "popped out of order";
            t_pThread->m_pNewest = aCleanUp->m_pNext;
        }
    }

    static bool IsBefore(const timespec& aLeft, const timespec& aRight) {
        return aLeft.tv_sec != aRight.tv_sec ? aLeft.tv_sec < aRight.tv_sec
                                             : aLeft.tv_nsec < aRight.tv_nsec;
    }

    typedef int (*TimedWaitCall)(pthread_cond_t*, pthread_mutex_t*, const timespec*);

    // Acts on a cancellation with the mutex held, as the system does. aNow, aWait: the clock of the
    // deadline and the wait that goes by it.
    static int SlicedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                          const timespec* aDeadline, void (*aNow)(timespec*), TimedWaitCall aWait) {
        if (t_pThread == nullptr) {
            return aDeadline != nullptr ? aWait(aCondition, aMutex, aDeadline)
                                        : pthread_cond_wait(aCondition, aMutex);
        }
        for (;;) {
            TestCancel();
            timespec tsSlice = {};
            aNow(&tsSlice);
            tsSlice.tv_nsec += SLICE_NSEC;
            if (tsSlice.tv_nsec >= 1000 * 1000 * 1000) {
                tsSlice.tv_nsec -= 1000 * 1000 * 1000;
                ++tsSlice.tv_sec;
            }
            const bool bIsLast = aDeadline != nullptr && IsBefore(*aDeadline, tsSlice);
            const int rv = aWait(aCondition, aMutex, bIsLast ? aDeadline : &tsSlice);
            if (rv != ETIMEDOUT || bIsLast) {
                return rv;
            }
        }
    }
    static void WallNow(timespec* aNow) { clock_gettime(CLOCK_REALTIME, aNow); }
    static int TimedWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                         const timespec* aDeadline) {
        return SlicedWait(aCondition, aMutex, aDeadline, &WallNow, &pthread_cond_timedwait);
    }
    static int ClockWait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                         const timespec* aDeadline) {
        return SlicedWait(aCondition, aMutex, aDeadline, &UTIL_NS::CmPortMonotonicNow,
                          &UTIL_NS::CmPortConditionWaitUntil);
    }
    static int Wait(pthread_cond_t* aCondition, pthread_mutex_t* aMutex) {
        return TimedWait(aCondition, aMutex, nullptr);
    }

    static int Sleep(const timespec* aTime, timespec* aRemain) {
        TestCancel();
        const int rv = nanosleep(aTime, aRemain);
        TestCancel();
        return rv;
    }

    inline static thread_local CThread* t_pThread = nullptr;
    inline static std::array<CThread, THREADS> s_threads{};
    inline static std::atomic<size_t> s_nThreads{0};

    typedef UTIL_NS::CCmSystemTable T;
    ScopedEntry<decltype(T::pthread_create)> m_create{UTIL_NS::g_cmSystem.pthread_create, &Create};
    ScopedEntry<decltype(T::pthread_cancel)> m_cancel{UTIL_NS::g_cmSystem.pthread_cancel, &Cancel};
    ScopedEntry<decltype(T::push_cleanup)> m_push{UTIL_NS::g_cmSystem.push_cleanup, &Push};
    ScopedEntry<decltype(T::pop_cleanup)> m_pop{UTIL_NS::g_cmSystem.pop_cleanup, &Pop};
    ScopedEntry<decltype(T::pthread_cond_wait)> m_wait{UTIL_NS::g_cmSystem.pthread_cond_wait,
                                                       &Wait};
    ScopedEntry<decltype(T::pthread_cond_timedwait)> m_timedWait{
        UTIL_NS::g_cmSystem.pthread_cond_timedwait, &TimedWait};
    ScopedEntry<decltype(T::pthread_cond_clockwait)> m_clockWait{
        UTIL_NS::g_cmSystem.pthread_cond_clockwait, &ClockWait};
    ScopedEntry<decltype(T::nanosleep)> m_sleep{UTIL_NS::g_cmSystem.nanosleep, &Sleep};
};

// A cancellation point, whichever system it is.
inline void TestCancel() {
    ScopedHandlersOnly::TestCancel();
    pthread_testcancel();
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CANCELLATION_H
