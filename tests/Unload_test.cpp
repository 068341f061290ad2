// A host that loads the libraries at run time and closes them again: they stay, since a thread that
// traced calls into the trace library when it ends.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/Gate.h"

namespace {

typedef void (*Trace)(unsigned long, const char*, char*, const char*);

bool IsLoaded(const char* aPath) {
    void* hLibrary = dlopen(aPath, RTLD_LAZY | RTLD_NOLOAD);
    if (hLibrary == nullptr) {
        return false;
    }
    dlclose(hLibrary);
    return true;
}

// In a process of its own, since what stays stays for the tests that follow, too.
template <class Body>
int StatusOfChild(Body aBody) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(aBody());
    }
    int nStatus = -1;
    waitpid(child, &nStatus, 0);
    return nStatus;
}

// Loads a library and closes it again.
class Unload : public testing::TestWithParam<const char*> {};

TEST_P(Unload, LibraryStays_WhenItIsClosed) {
    EXPECT_EQ(0, StatusOfChild([] {
                  if (IsLoaded(GetParam())) {
                      return 1;
                  }
                  void* hLibrary = dlopen(GetParam(), RTLD_NOW | RTLD_LOCAL);
                  if (hLibrary == nullptr) {
                      return 2;
                  }
                  if (dlclose(hLibrary) != 0) {
                      return 3;
                  }
                  return IsLoaded(GetParam()) ? 0 : 4;
              }));
}

// The last one is pinned in the way of systems whose linker has no option for it.
INSTANTIATE_TEST_SUITE_P(Libraries, Unload,
                         testing::Values(QTRACE_LIBRARY, UTIL_LIBRARY, PINNED_LIBRARY));

// Steps of the thread and of its host.
struct Steps {
    Trace pfnTrace = nullptr;
    kelto_test::Gate traced;
    kelto_test::Gate closed;
};

void* TraceInPieces(void* aSteps) {
    Steps* pSteps = static_cast<Steps*>(aSteps);
    const std::string sPiece(2047, 'x');
    char achPrefix[256] = {};
    pSteps->pfnTrace(2, "MAC", achPrefix, sPiece.c_str());
    pSteps->pfnTrace(2, "MAC", achPrefix, "the end of the line");
    pSteps->traced.Open();
    pSteps->closed.Wait();
    return nullptr;
}

int EndThreadAfterClosing() {
    setenv("QTRACE_FILE", "/dev/null", 1);
    void* hLibrary = dlopen(QTRACE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (hLibrary == nullptr) {
        return 2;
    }
    Steps steps;
    void* const pTrace = dlsym(hLibrary, "YRKTRACERAWA");
    memcpy(&steps.pfnTrace, &pTrace, sizeof(pTrace));
    pthread_t thread;
    if (pthread_create(&thread, nullptr, TraceInPieces, &steps) != 0) {
        return 3;
    }
    if (!steps.traced.Wait()) {
        return 4;
    }
    dlclose(hLibrary);
    steps.closed.Open();
    return pthread_join(thread, nullptr);
}

TEST(UnloadThread, Ends_WhenItTracedAndTheLibraryWasClosed) {
    EXPECT_EQ(0, StatusOfChild(&EndThreadAfterClosing));
}

// A thread that has freed an event ends.
struct EventSteps {
    void* (*pfnNew)(size_t) = nullptr;
    void (*pfnDelete)(void*) = nullptr;
    kelto_test::Gate freed;
    kelto_test::Gate closed;
};

void* MakeAndFree(void* aSteps) {
    EventSteps* pSteps = static_cast<EventSteps*>(aSteps);
    pSteps->pfnDelete(pSteps->pfnNew(64));
    pSteps->freed.Open();
    pSteps->closed.Wait();
    return nullptr;
}

int EndPooledThreadAfterClosing() {
    void* hLibrary = dlopen(UTIL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (hLibrary == nullptr) {
        return 2;
    }
    EventSteps steps;
    void* const pNew = dlsym(hLibrary, "_ZN7UTIL_NS8ICmEventnwEm");
    void* const pDelete = dlsym(hLibrary, "_ZN7UTIL_NS8ICmEventdlEPv");
    if (pNew == nullptr || pDelete == nullptr) {
        return 3;
    }
    memcpy(&steps.pfnNew, &pNew, sizeof(pNew));
    memcpy(&steps.pfnDelete, &pDelete, sizeof(pDelete));
    pthread_t thread;
    if (pthread_create(&thread, nullptr, MakeAndFree, &steps) != 0) {
        return 4;
    }
    if (!steps.freed.Wait()) {
        return 5;
    }
    dlclose(hLibrary);
    steps.closed.Open();
    return pthread_join(thread, nullptr);
}

TEST(UnloadThread, Ends_WhenItFreedAnEventAndTheLibraryWasClosed) {
    EXPECT_EQ(0, StatusOfChild(&EndPooledThreadAfterClosing));
}

}  // namespace
