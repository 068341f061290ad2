#include <pthread.h>

#include <cstdint>

#include "QtracePort.h"

unsigned long long QtraceThreadNumber() {
    uint64_t ullNumber = 0;
    pthread_threadid_np(nullptr, &ullNumber);
    return ullNumber;
}

// A thread has no name until it gets one.
void QtraceThreadName(char (&aName)[QTRACE_THREAD_NAME_SIZE]) {
    if (pthread_getname_np(pthread_self(), aName, sizeof(aName)) != 0) {
        aName[0] = '\0';
    }
}
