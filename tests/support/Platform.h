// What tests ask the system in a way of its own; PlatformLinux.cpp and PlatformMac.cpp answer.
#ifndef TESTS_SUPPORT_PLATFORM_H
#define TESTS_SUPPORT_PLATFORM_H

#include <string>

namespace kelto_test {

// The file that this process runs.
std::string PathOfThisProgram();
// The threads that live now, the calling one included.
long ThreadsOfThisProcess();
// The calling thread's number, as debuggers show it.
unsigned long long NumberOfThisThread();
// Names the calling thread.
void NameThisThread(const char* aName);
// The longest name that a thread can have, in characters.
extern const size_t THREAD_NAME_LENGTH_MAX;
// How many bytes a pipe takes before its writer waits.
int CapacityOfPipe(int aPipe);

}  // namespace kelto_test

#endif  // TESTS_SUPPORT_PLATFORM_H
