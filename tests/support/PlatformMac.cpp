#include <limits.h>
#include <mach-o/dyld.h>
#include <mach/mach.h>
#include <pthread.h>
#include <stdlib.h>

#include "support/Platform.h"

namespace kelto_test {

std::string PathOfThisProgram() {
    char achPath[PATH_MAX];
    char achReal[PATH_MAX];
    uint32_t dwSize = sizeof(achPath);
    if (_NSGetExecutablePath(achPath, &dwSize) != 0 || realpath(achPath, achReal) == nullptr) {
        return "";
    }
    return achReal;
}

long ThreadsOfThisProcess() {
    thread_act_array_t pThreads = nullptr;
    mach_msg_type_number_t dwThreads = 0;
    if (task_threads(mach_task_self(), &pThreads, &dwThreads) != KERN_SUCCESS) {
        return -1;
    }
    for (mach_msg_type_number_t i = 0; i < dwThreads; ++i) {
        mach_port_deallocate(mach_task_self(), pThreads[i]);
    }
    vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(pThreads),
                  dwThreads * sizeof(*pThreads));
    return dwThreads;
}

unsigned long long NumberOfThisThread() {
    uint64_t ullNumber = 0;
    pthread_threadid_np(nullptr, &ullNumber);
    return ullNumber;
}

void NameThisThread(const char* aName) {
    pthread_setname_np(aName);
}

const size_t THREAD_NAME_LENGTH_MAX = 63;

// The system does not tell; a write of more makes it give a pipe the most.
int CapacityOfPipe(int /*aPipe*/) {
    return 65536;
}

}  // namespace kelto_test
