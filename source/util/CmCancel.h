// What the library does about threads that are cancelled (pthread_cancel) inside it; internal.
//
// A cancelled thread runs its clean-up handlers, the newest first. On macOS it is gone then, and no
// destructor of its frames is run; on Linux it unwinds, and they are. What a frame owns while it
// calls something that may be a cancellation point (a wait, a sleep, code of the host) is
// therefore given back by a CCmCleanUpT, which is right on both, or the thread is not cancelled
// there: CCmDisableCancel.
#ifndef CM_CANCEL_H
#define CM_CANCEL_H

#include <pthread.h>

#include "CmSystem.h"
#include "port/CmPort.h"

namespace UTIL_NS {

// While it lives the calling thread is not cancelled. Dearer than a clean-up handler: a system
// call on macOS.
class CCmDisableCancel {
  public:
    CCmDisableCancel() : m_nState(PTHREAD_CANCEL_ENABLE) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nState);
    }
    ~CCmDisableCancel() { pthread_setcancelstate(m_nState, nullptr); }
    CCmDisableCancel(const CCmDisableCancel&) = delete;
    CCmDisableCancel& operator=(const CCmDisableCancel&) = delete;

  private:
    int m_nState;
};

// A clean-up handler, as pthread_cleanup_push and pthread_cleanup_pop make one:
//   CCmCleanUpT cleanUp([&] { GiveBack(); });
//   MayBeCancelled();
//   cleanUp.Execute();  // or Release()
// aAction runs when the thread is cancelled, or an exception of the host passes, before either is
// called. It must not be cancelled or throw, and runs above all frames that it refers to. The
// handlers of one thread are released or executed in the reverse order of their construction.
template <class Action>
class CCmCleanUpT {
  public:
    explicit CCmCleanUpT(Action aAction)
        : m_Action(aAction), m_Handler{&Run, this, nullptr}, m_bPushed(true) {
        g_cmSystem.push_cleanup(&m_Handler);
    }
    ~CCmCleanUpT() {
        if (m_bPushed) {
            CCmDisableCancel disableCancel;
            Execute();
        }
    }
    CCmCleanUpT(const CCmCleanUpT&) = delete;
    CCmCleanUpT& operator=(const CCmCleanUpT&) = delete;

    // Nothing is left to be done.
    void Release() {
        m_bPushed = false;
        g_cmSystem.pop_cleanup(&m_Handler);
    }
    // It is done now.
    void Execute() {
        Release();
        m_Action();
    }

  private:
    static void Run(void* aThis) { static_cast<CCmCleanUpT*>(aThis)->m_Action(); }

    Action m_Action;
    CmPortCleanUp m_Handler;
    bool m_bPushed;
};

}  // namespace UTIL_NS

#endif  // CM_CANCEL_H
