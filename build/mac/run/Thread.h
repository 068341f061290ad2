// Threads of the program, as the loader keeps them.
#ifndef MAC_RUN_THREAD_H
#define MAC_RUN_THREAD_H

#include <pthread.h>
#include <stddef.h>
#include <sys/types.h>

#include <atomic>

namespace kelto_mac {

// A clean-up handler that the macros of the target's pthread.h push.
struct CleanupHandler {
    void (*routine)(void*);
    void* argument;
    CleanupHandler* next;
};

constexpr size_t KEYS_MAX = 512;

// What the target's pthread_t points to.
struct Thread {
    long signature;
    CleanupHandler* handlers;  // the macros read and write it at offset 8
    char opaque[8176];
    // ---- the loader's own
    pthread_t host;
    std::atomic<pid_t> id;
    void* (*routine)(void*);
    void* argument;
    bool returned;  // from its routine or by pthread_exit, rather than cancelled
    bool cleaned;   // the handlers have run
    bool detached;  // under the lock of all threads, like what follows
    bool ended;
    bool joining;
    int policy;  // the target's number
    int priority;
    char name[64];
    struct {
        unsigned long generation;  // of the key that the value is for
        void* value;
    } values[KEYS_MAX];
};
static_assert(offsetof(Thread, handlers) == 8, "where the target's macros look");

Thread* CurrentThread();

// Runs the clean-up handlers, the last pushed first.
void RunCleanupHandlers(Thread& aThread);

// Around a call in which a thread can be cancelled. The target does not unwind such a thread: its
// handlers run on top of its stack, and it ends. Here the system unwinds the loader's own frames,
// this one among them, and stops at the first frame of the program, which has nothing that it
// could read.
class CancellationPoint {
  public:
    CancellationPoint() = default;
    ~CancellationPoint() {
        if (!m_bPassed) {
            RunCleanupHandlers(*CurrentThread());
        }
    }
    CancellationPoint(const CancellationPoint&) = delete;
    CancellationPoint& operator=(const CancellationPoint&) = delete;

    void Pass() { m_bPassed = true; }

  private:
    bool m_bPassed = false;
};

template <class Call>
auto Cancellable(Call aCall) {
    CancellationPoint point;
    const auto result = aCall();
    point.Pass();
    return result;
}

// The same for a function that both systems have alike: Passing<&read>::Call.
template <auto FUNCTION>
struct Passing;
template <class Result, class... Arguments, Result (*FUNCTION)(Arguments...)>
struct Passing<FUNCTION> {
    static Result Call(Arguments... aArguments) {
        return Cancellable([&] { return FUNCTION(aArguments...); });
    }
};

}  // namespace kelto_mac

#endif  // MAC_RUN_THREAD_H
