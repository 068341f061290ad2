// What differs where the tests of a cross build run under an emulator; part of its GoogleTest.
#include <pthread.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

// Takes the place of the system's: the program, one of the same build, runs under the emulator as
// well. GoogleTest's death tests start their program once more by it, too.
extern "C" int execv(const char* aPath, char* const* aArguments) {
    std::istringstream prefix(KELTO_RUN_PREFIX);
    std::vector<std::string> words;
    for (std::string sWord; prefix >> sWord;) {
        words.push_back(sWord);
    }
    words.push_back(aPath);
    std::vector<char*> arguments;
    for (std::string& sWord : words) {
        arguments.push_back(&sWord[0]);
    }
    for (char* const* pArgument = aArguments + 1; *pArgument != nullptr; ++pArgument) {
        arguments.push_back(*pArgument);
    }
    arguments.push_back(nullptr);
    return execvp(arguments[0], arguments.data());
}

namespace {

// A main thread has its program's name; here the system has given it the emulator's.
const int s_nNamed = [] {
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    return pthread_setname_np(pthread_self(), program.filename().string().substr(0, 15).c_str());
}();

}  // namespace
