// How many threads the process has.
#ifndef TESTS_SUPPORT_THREADS_H
#define TESTS_SUPPORT_THREADS_H

#include <cstdio>
#include <thread>

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

// The same to compare with later: with the threads that sanitizers start beside the first one.
inline int LiveThreadsAtRest() {
    std::thread([] {}).join();
    return LiveThreads();
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_THREADS_H
