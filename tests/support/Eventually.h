// Waits for what another thread does.
#ifndef TESTS_SUPPORT_EVENTUALLY_H
#define TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <thread>

namespace kelto_test {

// Whether aCondition holds within 20 s; looks every millisecond.
template <class Condition>
bool Eventually(Condition aCondition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!aCondition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_EVENTUALLY_H
