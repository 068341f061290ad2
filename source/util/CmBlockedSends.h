// Threads that wait for each other through their queues; internal.
//
// While this is on, a thread that is to wait until another one has run something, without limit,
// enters a CCmBlockedSend into a list and takes it out again before it goes on. Waits of which each
// can end only after the next are found by whoever enters the last of them, before it sleeps.
//
// None is missed and none is said that is not there, in whatever order the threads come:
//
// - A wait is entered when nothing can prevent it any more: a send, when its event has been posted.
//   Entered before, a post that is refused would look like a wait.
// - It is entered, and the others are looked at, with the lock held. So whoever enters the last
//   wait of a circle finds all the others.
// - A wait that is in the list may be over, its thread not yet awake. The thread that ended it did
//   so, in the outcome of the send, before it entered a wait of its own. So whoever finds that one
//   in the list, with the lock held, sees the outcome as well, and none of them changes meanwhile:
//   a thread in the list runs nothing that was sent to it.
//
// Somebody else may still end such a wait, by ending the queue or a thread.
#ifndef CM_BLOCKED_SENDS_H
#define CM_BLOCKED_SENDS_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "CmAtomic.h"

namespace UTIL_NS {

// The number of the calling thread, from 1. No other thread ever gets it, as it may get a pthread_t
// of one that has ended.
uint64_t CmNumberOfThisThread();

// The thread that runs what is sent to a queue, or a thread itself, for those who wait for it.
class CCmAwaitedThread {
  public:
    constexpr CCmAwaitedThread() = default;
    CCmAwaitedThread(const CCmAwaitedThread&) = delete;
    CCmAwaitedThread& operator=(const CCmAwaitedThread&) = delete;

    void BindToCurrentThread();

  private:
    friend class CCmBlockedSend;

    CmStd::atomic<uint64_t> m_ullThread{0};  // 0: none yet
};

// One wait, on the stack of the thread that waits; a thread may have several, the last innermost.
class CCmBlockedSend {
  public:
    // Whether a wait goes on, by what it waits for. Called with the lock of the list held.
    typedef bool (*GoesOn)(const void* aObject);
    // What becomes of the threads' names in a line; longer ones are cut.
    static constexpr size_t NAMES_SIZE = 1024;

    CCmBlockedSend() = default;
    CCmBlockedSend(const CCmBlockedSend&) = delete;
    CCmBlockedSend& operator=(const CCmBlockedSend&) = delete;
    // On macOS a cancelled thread does not come here: it must have called Leave.
    ~CCmBlockedSend() { Leave(); }

    // Relaxed: a wait that begins while this is switched on may go either way.
    static bool IsOn() { return s_bIsOn.load(std::memory_order_relaxed); }
    static void SwitchOn(bool aIsOn);

    // Around a fork: nobody enters or leaves. In the child, meanwhile: the others are gone, and so
    // may be the memory of their waits.
    static void Hold();
    static void Release();
    static void ForgetOtherThreads();

    // Before Enter: this wait is that for an event whose class has this table, so that LongSend may
    // tell of it.
    void SetSent(const void* aTable) { m_pTable = aTable; }
    // Once. aAwaited is used here alone. True when the calling thread and others wait for each
    // other from now on: aNames is "A -> B -> A" then.
    bool Enter(const CCmAwaitedThread& aAwaited, GoesOn aGoesOn, const void* aObject,
               char (&aNames)[NAMES_SIZE]) {
        return Link(&aAwaited, 0, aGoesOn, aObject, aNames);
    }
    // The same for a thread by its number.
    bool Enter(uint64_t aAwaited, GoesOn aGoesOn, const void* aObject, char (&aNames)[NAMES_SIZE]) {
        return Link(nullptr, aAwaited, aGoesOn, aObject, aNames);
    }
    // No matter whether it was entered.
    void Leave() {
        if (m_bIsEntered) {
            Unlink();
        }
    }

    // A send that has blocked for long.
    struct CLong {
        static constexpr size_t NAME_SIZE = 64;
        static constexpr size_t CLASS_SIZE = 240;

        char m_szThread[NAME_SIZE];
        uint64_t m_ullAwaited;       // the number of the thread that it waits for; 0: not known
        long long m_llMsec;          // for how long
        const void* m_pTable;        // of the event's class
        char m_szClass[CLASS_SIZE];  // its name as the compiler writes it; empty: it has none
    };
    // One that has blocked for aLimitMsec or more and of which this has not told yet; false when
    // there is none (any more). aNowNsec: by the monotonic clock. Any thread.
    static bool TakeLong(long long aNowNsec, long long aLimitMsec, CLong& aLong);

  private:
    friend class CCmAwaitedThread;

    bool Link(const CCmAwaitedThread* aAwaited, uint64_t aNumber, GoesOn aGoesOn,
              const void* aObject, char (&aNames)[NAMES_SIZE]);
    void Unlink();
    bool HasClosedCircle_l(CCmBlockedSend* aFirst);
    void WriteNames_l(char (&aNames)[NAMES_SIZE]) const;

    static CmStd::atomic<bool> s_bIsOn;

    bool m_bIsEntered = false;
    bool m_bIsLong = false;  // TakeLong has told
    const void* m_pTable = nullptr;
    long long m_llStartNsec;             // of a send
    pthread_t m_Tid;                     // of the thread that waits
    uint64_t m_ullThread;                // its number
    uint64_t m_ullAwaited;               // that of the other one; 0: not known
    const CCmAwaitedThread* m_pAwaited;  // may be gone: its address alone is used
    GoesOn m_pfnGoesOn;
    const void* m_pObject;
    CCmBlockedSend* m_pNext;  // in the list of all
    CCmBlockedSend** m_ppLink;
    // While a circle is looked for: the wait that this one leads to, for those that lead to the
    // thread that looks, and the next of these.
    CCmBlockedSend* m_pTowards;
    CCmBlockedSend* m_pNextFound;
};

}  // namespace UTIL_NS

#endif  // CM_BLOCKED_SENDS_H
