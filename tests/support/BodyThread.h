// Threads of the full interface whose bodies a test steers.
#ifndef TESTS_SUPPORT_BODY_THREAD_H
#define TESTS_SUPPORT_BODY_THREAD_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "CmThread.h"
#include "support/Gate.h"

namespace kelto_test {

// The type of a thread, where any will do.
constexpr int TYPE = 7;

inline size_t RegisteredThreads() {
    EXPECT_EQ(UTIL_NS::CM_OK, UTIL_NS::g_thread_Mutex.Lock());
    const size_t nThreads = UTIL_NS::g_threadList.size();
    UTIL_NS::g_thread_Mutex.UnLock();
    return nThreads;
}

// What a BodyThread did; outlives it.
struct Life {
    std::atomic<bool> initialized{false};
    std::atomic<bool> ran{false};
    Gate released;  // opened by the test: the body may end
    Gate deleted;
};

// Its body waits until it is released.
class BodyThread : public UTIL_NS::ACmThread {
  public:
    explicit BodyThread(Life& aLife) : m_life(aLife) {}
    ~BodyThread() override { m_life.deleted.Open(); }
    void OnThreadInit() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_life.initialized = true;
    }
    void OnThreadRun() override {
        m_life.ran = true;
        m_life.released.Wait();
    }
    UTIL_NS::CCmEventThread* startEvent() const { return m_pEvent; }
    // Of a detached one that was not destroyed.
    bool HasEnded() const { return m_nDestroyRef.value() == 1; }

  private:
    Life& m_life;
};

inline void EndJoinable(UTIL_NS::ACmThread* aThread) {
    aThread->Stop(nullptr);
    EXPECT_EQ(UTIL_NS::CM_OK, aThread->Join());
    EXPECT_EQ(UTIL_NS::CM_OK, aThread->Destory(0));
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_BODY_THREAD_H
