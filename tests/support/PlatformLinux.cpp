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

}  // namespace kelto_test
