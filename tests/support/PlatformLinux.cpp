#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

#include "support/Platform.h"

namespace kelto_test {

std::string PathOfThisProgram() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

long ThreadsOfThisProcess() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

unsigned long long NumberOfThisThread() {
    return static_cast<unsigned long long>(gettid());
}

void NameThisThread(const char* aName) {
    pthread_setname_np(pthread_self(), aName);
}

const size_t THREAD_NAME_LENGTH_MAX = 15;

int CapacityOfPipe(int aPipe) {
    return fcntl(aPipe, F_GETPIPE_SZ);
}

}  // namespace kelto_test
