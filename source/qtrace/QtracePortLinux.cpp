#include <sys/auxv.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>

#include "QtracePort.h"

namespace {

constexpr size_t SYSTEM_NAME_SIZE = 16;  // of a thread's name, its end included

// The file that the process executes, whose name the system gives to its first thread; a thread
// starts with the name of the one that creates it.
const char* ExecutableName() {
    const char* const pszPath = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    if (pszPath == nullptr) {
        return "";
    }
    const char* const pchSlash = std::strrchr(pszPath, '/');
    return pchSlash != nullptr ? pchSlash + 1 : pszPath;
}

}  // namespace

unsigned long long QtraceThreadNumber() {
    return static_cast<unsigned long long>(gettid());
}

void QtraceThreadName(char (&aName)[QTRACE_THREAD_NAME_SIZE]) {
    static_assert(SYSTEM_NAME_SIZE <= QTRACE_THREAD_NAME_SIZE, "prctl writes as many");
    if (prctl(PR_GET_NAME, aName) != 0 ||
        std::strncmp(aName, ExecutableName(), SYSTEM_NAME_SIZE - 1) == 0) {
        aName[0] = '\0';
    }
}
