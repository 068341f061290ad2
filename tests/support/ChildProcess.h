// Runs what happens once in a process in a process of its own.
#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#if defined(KELTO_COVERAGE) && defined(__clang__)
extern "C" int __llvm_profile_write_file(void);
#elif defined(KELTO_COVERAGE)
extern "C" void __gcov_dump(void);
#endif

namespace kelto_test {

// _exit, but what the process has executed counts in a build for coverage, which otherwise writes
// its counters in an exit handler.
[[noreturn]] inline void EndProcess(int aStatus) {
#if defined(KELTO_COVERAGE) && defined(__clang__)
    __llvm_profile_write_file();
#elif defined(KELTO_COVERAGE)
    __gcov_dump();
#endif
    _exit(aStatus);
}

// What aBody, run in a child process, left behind: 0 when none of its expectations failed. The
// child ends without exit handlers. No other thread may run.
template <typename Body>
int StatusOfChild(Body aBody) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        aBody();
        std::fflush(nullptr);
        EndProcess(::testing::Test::HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    return nStatus;
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CHILD_PROCESS_H
