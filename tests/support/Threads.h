// How many threads the process has, and one more for a step of a test.
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <thread>

#include "support/Eventually.h"

namespace kelto_test {

// 0 where the system does not tell. A thread is counted until it has gone, with all it held.
inline int LiveThreads() {
    int nThreads = 0;
    if (FILE* pFile = std::fopen("/proc/self/status", "r")) {
        char achLine[256];
        while (std::fgets(achLine, sizeof(achLine), pFile) != nullptr &&
               std::sscanf(achLine, "Threads: %d", &nThreads) != 1) {
        }
        std::fclose(pFile);
    }
    return nThreads;
}

// The same to compare with later: with the threads that sanitizers start beside the first one. A
// thread that was joined is still counted for a moment, so this one is waited for.
inline int LiveThreadsAtRest() {
    std::error_code error;
    std::filesystem::path ended;  // empty where the system has no such name
    std::thread([&] { ended = std::filesystem::read_symlink("/proc/thread-self", error); }).join();
    if (!ended.empty()) {
        Eventually([&] { return !std::filesystem::exists("/proc" / ended, error); });
    }
    return LiveThreads();
}

// Runs aStep on a thread of its own and waits for its end.
template <class Step>
void OnAnotherThread(Step aStep) {
    std::thread(aStep).join();
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_THREADS_H
