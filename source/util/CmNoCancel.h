// Keeps the calling thread from being cancelled; internal.
#ifndef CM_NO_CANCEL_H
#define CM_NO_CANCEL_H

#include <pthread.h>

namespace UTIL_NS {

// For waits whose record lies on the waiting stack, or whose callable uses what lies there: a
// thread that were cancelled in them would leave that behind. A cancellation that was asked for
// takes effect later.
class CCmNoCancel {
  public:
    CCmNoCancel() : m_nState(PTHREAD_CANCEL_ENABLE) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nState);
    }
    ~CCmNoCancel() { pthread_setcancelstate(m_nState, nullptr); }
    CCmNoCancel(const CCmNoCancel&) = delete;
    CCmNoCancel& operator=(const CCmNoCancel&) = delete;

  private:
    int m_nState;
};

}  // namespace UTIL_NS

#endif  // CM_NO_CANCEL_H
