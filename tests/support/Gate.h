// A gate at which threads wait until another thread opens it.
#ifndef TESTS_SUPPORT_GATE_H
#define TESTS_SUPPORT_GATE_H

#include <pthread.h>

#include <atomic>

#include "support/Eventually.h"

namespace kelto_test {

// Closed at first. Any thread may open it, also the one whose test ends with it: what is waited for
// may destroy the gate.
class Gate {
  public:
    Gate() = default;
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    // Whether it was closed.
    bool Open() { return !m_bIsOpen.exchange(true); }
    void Close() { m_bIsOpen = false; }
    bool IsOpen() const { return m_bIsOpen; }

    // Whether it opened within 20 s. Not a place where the thread can be cancelled, and no call of
    // the library: tests wait in what the library calls, and while its calls fail.
    bool Wait() const {
        int nState = PTHREAD_CANCEL_ENABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
        const bool bOpened = Eventually([this] { return IsOpen(); });
        pthread_setcancelstate(nState, nullptr);
        return bOpened;
    }

  private:
    std::atomic<bool> m_bIsOpen{false};
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_GATE_H
