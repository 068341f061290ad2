#include <fcntl.h>

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

int CapacityOfPipe(int aPipe) {
    return fcntl(aPipe, F_GETPIPE_SZ);
}

}  // namespace kelto_test
