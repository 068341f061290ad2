// Threads that one kernel thread runs: each has the stack and the thread-local variables of a
// thread of the system that was started once and sleeps from then on, so pthread_self,
// thread_local, errno and exceptions are as on threads of their own, and a switch costs some
// nanoseconds. Linux on x86-64 only.
#ifndef TESTS_SCHEDULE_FIBERS_H
#define TESTS_SCHEDULE_FIBERS_H

#include <pthread.h>

#include <csetjmp>
#include <cstdint>

namespace kelto_test {

// Where something that does not run now goes on.
struct CContext {
    void* m_pStack = nullptr;
    uintptr_t m_ulThreadPointer = 0;
};

class CFiber {
  public:
    typedef void (*Job)(CFiber& aFiber);

    CFiber() = default;
    CFiber(const CFiber&) = delete;
    CFiber& operator=(const CFiber&) = delete;

    // Called once. aJob is run each time that the fiber is switched to after its end; it does not
    // return but switches elsewhere, or is left by Unwind.
    void Make(Job aJob);

    pthread_t Id() const { return m_Id; }
    CContext& Context() { return m_Context; }

    // On the fiber: runs aBody, which may leave by Unwind. True: it returned.
    template <class BodyType>
    bool Run(BodyType aBody) {
        m_pBase = __builtin_frame_address(0);
        if (setjmp(m_Back) != 0) {
            return false;
        }
        aBody();
        return true;
    }
    // On the fiber, from within Run: destroys what its frames hold, as a cancelled thread does, and
    // leaves Run.
    [[noreturn]] void Unwind();
    // On the fiber: its thread-local variables are as those of a new thread.
    void ResetThreadLocals();

  private:
    static void* Park(void* aFiber);
    static void Enter();

    friend struct CFiberSteps;

    Job m_Job = nullptr;
    pthread_t m_Id = pthread_t();
    CContext m_Context;
    void* m_pStack = nullptr;  // its lowest byte
    void* m_pBase = nullptr;   // the frame of Run
    std::jmp_buf m_Back;
};

// Saves where the caller is in aFrom and goes on where aTo was.
void SwitchContext(CContext& aFrom, const CContext& aTo);

}  // namespace kelto_test

#endif  // TESTS_SCHEDULE_FIBERS_H
