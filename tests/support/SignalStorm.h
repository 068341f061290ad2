// Interrupts the thread that it is created on with signals, every few milliseconds.
#ifndef TESTS_SUPPORT_SIGNAL_STORM_H
#define TESTS_SUPPORT_SIGNAL_STORM_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace kelto_test {

// One at a time.
class SignalStorm {
  public:
    SignalStorm() : m_target(pthread_self()) {
        s_ulDelivered = 0;
        struct sigaction action = {};
        action.sa_handler = Count;
        sigaction(SIGUSR1, &action, &m_saved);
        m_thread = std::thread([this] {
            while (!m_bStop) {
                pthread_kill(m_target, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        });
    }
    ~SignalStorm() {
        m_bStop = true;
        m_thread.join();
        sigaction(SIGUSR1, &m_saved, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

    unsigned long delivered() const { return s_ulDelivered; }

  private:
    static void Count(int /*aSignal*/) { ++s_ulDelivered; }

    inline static std::atomic<unsigned long> s_ulDelivered{0};

    const pthread_t m_target;
    struct sigaction m_saved;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_SIGNAL_STORM_H
