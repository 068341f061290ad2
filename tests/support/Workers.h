// Workers that tests use: of the full interface, ended at the end of the scope.
#ifndef TESTS_SUPPORT_WORKERS_H
#define TESTS_SUPPORT_WORKERS_H

#include <gtest/gtest.h>

#include <atomic>

#include "CmThread.h"
#include "support/Gate.h"

namespace kelto_test {

class TaskThread {
  public:
    explicit TaskThread(bool aWithTimerQueue = true) {
        EXPECT_EQ(UTIL_NS::CM_OK,
                  CreateUserTaskThread(&m_pThread, UTIL_NS::TF_JOINABLE, aWithTimerQueue, 1));
    }
    ~TaskThread() { End(); }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    void End() {
        if (m_pThread != nullptr) {
            m_pThread->Stop(nullptr);
            EXPECT_EQ(UTIL_NS::CM_OK, m_pThread->Join());
            m_pThread->Destory(UTIL_NS::CM_OK);
            m_pThread = nullptr;
        }
    }
    UTIL_NS::ACmThread& operator*() const { return *m_pThread; }
    UTIL_NS::ACmThread* operator->() const { return m_pThread; }

  private:
    UTIL_NS::ACmThread* m_pThread = nullptr;
};

// Counts one up when it ends; to be captured by a callable. A copy or what it was moved to counts
// in its place.
class EndCounter {
  public:
    explicit EndCounter(std::atomic<int>& aCount) : m_pCount(&aCount) {}
    EndCounter(EndCounter&& aRight) noexcept : m_pCount(aRight.m_pCount) {
        aRight.m_pCount = nullptr;
    }
    ~EndCounter() {
        if (m_pCount != nullptr) {
            ++*m_pCount;
        }
    }

  private:
    std::atomic<int>* m_pCount;
};

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_WORKERS_H
