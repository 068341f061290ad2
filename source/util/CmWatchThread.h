// What the watch does from time to time, and the thread that does it; internal.
#ifndef CM_WATCH_THREAD_H
#define CM_WATCH_THREAD_H

#include <pthread.h>
#include <sys/types.h>

#include "CmBase.h"
#include "CmConditionVariable.h"

namespace UTIL_NS {

// The rounds of one watch. One thread at a time.
class CCmWatchRounds {
  public:
    // aLongSendMsec: from which on a send is long; 0: none ever is.
    explicit CCmWatchRounds(DWORD aLongSendMsec) : m_dwLongSendMsec(aLongSendMsec) {}

    // One round by the clocks of the library.
    void Run();
    // One round at these times: says that the wall clock was set since the last round, and which
    // sends block for long, and stores the figures and the times in the recorder.
    void Run(long long aWallNsec, long long aMonotonicNsec);
    // The part that stores the figures.
    static void StoreFigures(long long aWallNsec);

  private:
    void LookAtWallClock(long long aWallNsec, long long aMonotonicNsec);
    void TellLongSends(long long aMonotonicNsec) const;

    const DWORD m_dwLongSendMsec;
    bool m_bHasOffset = false;
    long long m_llOffset = 0;  // from the monotonic clock to the wall clock, in the last round
};

// Goes a round every 250 ms, by the monotonic clock.
class CCmWatchThread {
  public:
    // Null when there is no memory or no thread; a line tells of the latter.
    static CCmWatchThread* Start(DWORD aLongSendMsec);
    // Stops the thread, waits for its end and frees the object, without any lock held that the
    // receiver of a line may take. Called by the thread itself, out of a line, it does not wait; in
    // a process that was forked meanwhile, and so has no such thread, neither.
    void End();

  private:
    explicit CCmWatchThread(DWORD aLongSendMsec);
    ~CCmWatchThread() = default;
    CCmWatchThread(const CCmWatchThread&) = delete;
    CCmWatchThread& operator=(const CCmWatchThread&) = delete;

    int CreateThread();
    static void* Body(void* aThis);
    bool WaitForNext();
    bool FreesItself();

    CCmWatchRounds m_Rounds;
    const pid_t m_Process;
    CCmMutexThread m_Mutex;
    CCmConditionVariableThread m_Changed{m_Mutex};
    pthread_t m_Tid CM_GUARDED_BY(m_Mutex) = pthread_t();
    bool m_bStops CM_GUARDED_BY(m_Mutex) = false;
    bool m_bFreesItself CM_GUARDED_BY(m_Mutex) = false;
};

}  // namespace UTIL_NS

#endif  // CM_WATCH_THREAD_H
