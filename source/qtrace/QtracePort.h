// What every platform supplies to qtrace; internal. CMake compiles one of QtracePortLinux.cpp and
// QtracePortMac.cpp. Nothing here throws.
#ifndef QTRACE_PORT_H
#define QTRACE_PORT_H

#include <stddef.h>

// Bytes of a thread's name, its end included, on the platform that has the longest.
constexpr size_t QTRACE_THREAD_NAME_SIZE = 64;

// The calling thread's number, as the system counts its threads and debuggers show them.
unsigned long long QtraceThreadNumber();

// The calling thread's name, or an empty text when it has none of its own: the system may give
// every thread the name of the program.
void QtraceThreadName(char (&aName)[QTRACE_THREAD_NAME_SIZE]);

#endif  // QTRACE_PORT_H
