// What every platform supplies to the library; internal.
//
// CmPortLinux.cpp and CmPortMac.cpp supply it and CMake compiles one of them, and CmPortPosix.cpp
// with each, which holds what these two have in common; so the units carry no platform code. The
// types of public classes that differ are in include/CmPlatform.h. Clocks, their tick rate
// (sysconf) and all other system calls are those of POSIX on every platform; the tables of
// CmSystem.h hold them.
//
// Nothing here throws or traces. Unless it says otherwise a function may be called from any
// thread, and a path is NUL-terminated bytes in the file system's encoding.
#ifndef CM_PORT_H
#define CM_PORT_H

#include <pthread.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

#include "CmPlatform.h"

namespace UTIL_NS {

// The longest file name of a running executable, in 16-bit units.
constexpr size_t CM_PORT_NAME_UNITS = 255;

// Reads the running executable's file name, without its directory, as 16-bit units: UTF-16 in the
// machine's byte order, not terminated. Returns their number, at most CM_PORT_NAME_UNITS (what
// exceeds them is cut), or 0 when the platform cannot tell the name.
size_t CmPortExecutableName(uint16_t (&aUnits)[CM_PORT_NAME_UNITS]);

// Writes the path that MMP_GetCurrentModuleParentPath reports, derived from the running
// executable's file. False, with aBuffer's content undefined, on any failure or when the path
// and its terminator do not fit into aSize (at least 1) bytes.
bool CmPortApplicationParentPath(char* aBuffer, size_t aSize);

// Writes the path of the file that contains this library (the executable, when the library is
// linked into it), as the dynamic loader knows it. False when the loader does not know it or the
// path and its terminator do not fit into aSize bytes.
bool CmPortModulePath(char* aBuffer, size_t aSize);

// What the platform's item information says about a file.
enum class CmPortItem {
    UNKNOWN,            // could not be had: no such file, for one
    WITH_EXTENSION,     // the file's name has an extension
    WITHOUT_EXTENSION,  // it has none: the executable file inside a framework package
};
CmPortItem CmPortItemInformation(const char* aPath);

// Opens the bundle at aPath. Null when nothing is there or it cannot be opened; otherwise a
// handle to be given to CmPortBundleRelease once. A platform without bundles only looks whether
// the path exists; its handle then holds nothing.
void* CmPortBundleCreate(const char* aPath);

// The function that a bundle exports under aName, null when it has none of that name.
void* CmPortBundleFunction(void* aBundle, const char* aName);

void CmPortBundleRelease(void* aBundle);

// One record of the interface query (SIOCGIFCONF).
constexpr size_t CM_PORT_INTERFACE_NAME_SIZE = 16;
constexpr size_t CM_PORT_INTERFACE_ADDRESS_SIZE = 16;
struct CmPortInterface {
    char m_szName[CM_PORT_INTERFACE_NAME_SIZE + 1];              // terminated
    int m_nFamily;                                               // AF_INET, ...
    unsigned char m_abyAddress[CM_PORT_INTERFACE_ADDRESS_SIZE];  // the sockaddr's first bytes
};

// Reads the record at the start of aRecords, of which aLength bytes are left, and returns its
// length, the distance to the next record. 0 when no whole record is left.
size_t CmPortReadInterface(const char* aRecords, size_t aLength, CmPortInterface& aInterface);

// gettimeofday for those who ask often and need not know exactly: never later than the exact time
// and at most CM_PORT_COARSE_USEC before it, at a fraction of the cost where the platform has such
// a clock. The second argument is ignored. Called through g_cmClock.
constexpr long CM_PORT_COARSE_USEC = 20 * 1000;
int CmPortCoarseTimeOfDay(timeval* aNow, void* aUnused);

// Whether zeros are a mutex, a condition and a semaphore like any other here. Where they are not,
// they cannot be destroyed, which fails with EINVAL.
bool CmPortTakesZeros();

// A clean-up handler of a thread. Between push and pop, of which the innermost is popped first, the
// platform calls m_pfnRoutine with m_pArgument when the thread is cancelled, unless it unwinds a
// cancelled thread: then push and pop do nothing and destructors do the work (CmCancel.h). Called
// through g_cmSystem.
struct CmPortCleanUp {
    void (*m_pfnRoutine)(void*);
    void* m_pArgument;
    CmPortCleanUp* m_pNext;  // the platform's
};
void CmPortPushCleanUp(CmPortCleanUp* aCleanUp);
void CmPortPopCleanUp(CmPortCleanUp* aCleanUp);

// The clock that no step of the wall clock touches; it stands still while the machine sleeps.
void CmPortMonotonicNow(timespec* aNow);

// The number of the core that the calling thread is on, which may change at any time; -1 where that
// is unknown.
int CmPortCurrentCore();

// pthread_cond_timedwait with a deadline on that clock. Called through g_cmSystem under the name
// pthread_cond_clockwait.
int CmPortConditionWaitUntil(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                             const timespec* aDeadline);

// Names the calling thread for debuggers and process viewers; what exceeds the platform's limit (15
// bytes on Linux, 63 on macOS) is cut.
void CmPortNameThisThread(const char* aName);

// Reads that name, terminated and cut at aSize bytes; empty when it has none or cannot be had.
void CmPortNameOfThisThread(char* aName, size_t aSize);

// The same of any thread that is alive; Linux reads a file for that.
void CmPortNameOfThread(pthread_t aThread, char* aName, size_t aSize);

// The name that the compiler gave the class with this table of virtual functions, for
// CmPortReadableClassName; null where the class was compiled without run-time type information. By
// the C++ ABI that both platforms share, the word in front of the table is the address of that
// information. The name lives as long as the module that has the class.
const char* CmPortClassName(const void* aTable);

// That name as people write it, terminated and cut at aSize bytes; as it is when there is no
// memory.
void CmPortReadableClassName(const char* aName, char* aText, size_t aSize);

// Lets timed waits of the calling thread end as early as the platform can; Linux rounds them by
// 50 us otherwise. Nothing to do on macOS.
void CmPortPreciseWaits();

// Whether a sanitizer that watches memory is in the program: that of addresses, of threads, of
// leaks or of uninitialised memory.
bool CmPortHasSanitizer();

// Gives a new file its size, and its blocks, as far as the file system can, so that writing to it
// cannot fail later for want of room. 0 or an error number. aStart: 0. Called through g_cmSystem
// under the name posix_fallocate.
int CmPortAllocateFile(int aFile, off_t aStart, off_t aSize);

// Writes the path of a directory for the user's own short-lived files, with a "/" at its end. False
// when the platform has none or it does not fit.
bool CmPortUserDirectory(char* aBuffer, size_t aSize);

// Puts fresh memory, zeros, of the process's own in the place of what is mapped at aBegin, a page's
// begin, while other threads may use it.
bool CmPortReplaceMapping(void* aBegin, size_t aSize);

// From now on, when a file that is mapped at aBegin has no page to an access any more (it was cut,
// or its disk is full or gone), CmPortReplaceMapping does, and the access goes on. Other bus errors
// go where they went before. One mapping at a time; not at the same time as CmPortUnguardMapping.
void CmPortGuardMapping(void* aBegin, size_t aSize);
void CmPortUnguardMapping();
// Whether that has happened since CmPortGuardMapping.
bool CmPortIsMappingLost();
// Lets bus errors reach the calling thread: one that is blocked ends the process. True: they were
// blocked.
bool CmPortUnblockBusErrors();
void CmPortBlockBusErrors();

// A counting semaphore: as sem_init, sem_destroy, sem_wait and sem_post, 0 or -1 with errno set.
// The units call them through g_cmSystem. CmConditionSemaphore.h serves where the system has no
// unnamed semaphores.
int CmPortSemaphoreInit(CmPlatformSemaphore* aSemaphore, int aShared, unsigned aCount);
int CmPortSemaphoreDestroy(CmPlatformSemaphore* aSemaphore);
int CmPortSemaphoreWait(CmPlatformSemaphore* aSemaphore);
int CmPortSemaphorePost(CmPlatformSemaphore* aSemaphore);

}  // namespace UTIL_NS

#endif  // CM_PORT_H
