// Runs what happens once in a process in a process of its own.
#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace kelto_test {

// What aBody, run in a child process, left behind: 0 when none of its expectations failed. The
// child ends without exit handlers. No other thread may run.
template <typename Body>
int StatusOfChild(Body aBody) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        aBody();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    return nStatus;
}

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_CHILD_PROCESS_H
