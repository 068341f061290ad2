// Notices that another thread comes to a mutex.
#ifndef TESTS_SUPPORT_LOCK_CALLS_H
#define TESTS_SUPPORT_LOCK_CALLS_H

#include <pthread.h>

#include <atomic>

#include "support/Faults.h"

namespace kelto_test {

// From its construction on, whether a thread has called to lock a mutex of the library. One at a
// time; to be constructed before the thread that it watches, and by one that holds the mutex.
class LockCalls {
  public:
    LockCalls() { s_bSeen = false; }

    // The caller of the lock is about to wait by then.
    bool seen() const { return s_bSeen; }

  private:
    static int Lock(pthread_mutex_t* aMutex) {
        s_bSeen = true;
        return pthread_mutex_lock(aMutex);
    }

    inline static std::atomic<bool> s_bSeen{false};

    ScopedEntry<int (*)(pthread_mutex_t*)> m_entry{UTIL_NS::g_cmSystem.pthread_mutex_lock, &Lock};
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_LOCK_CALLS_H
