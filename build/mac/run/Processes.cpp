// Processes: starting programs of the target, waiting, limits, what a process knows of itself.
#include "Processes.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Image.h"
#include "Numbers.h"
#include "Supply.h"
#include "Thread.h"

namespace kelto_mac {

namespace {

// ---- Starting programs

// Another program of the target is run by another loader.
int ExecVe(const char* aPath, char* const aArguments[], char* const aEnvironment[]) {
    if (!IsMachO(aPath)) {
        return execve(aPath, aArguments, aEnvironment);
    }
    const std::string sLoader = LoaderPath();
    std::vector<char*> arguments = {const_cast<char*>(sLoader.c_str()), const_cast<char*>(aPath)};
    for (char* const* pp = aArguments + 1; aArguments[0] != nullptr && *pp != nullptr; ++pp) {
        arguments.push_back(*pp);
    }
    arguments.push_back(nullptr);
    return execve(sLoader.c_str(), arguments.data(), aEnvironment);
}

int ExecV(const char* aPath, char* const aArguments[]) {
    return ExecVe(aPath, aArguments, environ);
}

int ExecL(const char* aPath, const char* aFirst, ...) {
    std::vector<char*> arguments = {const_cast<char*>(aFirst)};
    va_list rest;
    va_start(rest, aFirst);
    while (arguments.back() != nullptr) {
        arguments.push_back(va_arg(rest, char*));
    }
    va_end(rest);
    return ExecVe(aPath, arguments.data(), environ);
}

// ---- Waiting

int StatusToTarget(int aStatus) {
    return WIFSIGNALED(aStatus)  ? (aStatus & ~0x7F) | SignalToTarget(WTERMSIG(aStatus))
           : WIFSTOPPED(aStatus) ? (SignalToTarget(WSTOPSIG(aStatus)) << 8) | 0x7F
                                 : aStatus;
}

pid_t WaitPid(pid_t aProcess, int* aStatus, int aOptions) {
    int nStatus = 0;
    const pid_t process = Cancellable([&] { return waitpid(aProcess, &nStatus, aOptions); });
    if (process > 0 && aStatus != nullptr) {
        *aStatus = StatusToTarget(nStatus);
    }
    return process;
}

// A quoted program of the target in a command for the shell gets a loader in front.
std::string WithLoaders(const char* aCommand) {
    const std::string sCommand = aCommand;
    std::string sResult;
    size_t nDone = 0;
    size_t nQuote;
    while ((nQuote = sCommand.find('\'', nDone)) != std::string::npos) {
        const size_t nEnd = sCommand.find('\'', nQuote + 1);
        sResult += sCommand.substr(nDone, nQuote - nDone);
        nDone = nEnd == std::string::npos ? sCommand.size() : nEnd + 1;
        const std::string sQuoted = sCommand.substr(nQuote, nDone - nQuote);
        if (IsMachO(sQuoted.substr(1, sQuoted.size() - 2).c_str())) {
            sResult += "'" + LoaderPath() + "' ";
        }
        sResult += sQuoted;
    }
    return sResult + sCommand.substr(nDone);
}

int System(const char* aCommand) {
    const int nStatus = Cancellable(
        [&] { return system(aCommand == nullptr ? nullptr : WithLoaders(aCommand).c_str()); });
    return aCommand == nullptr || nStatus == -1 ? nStatus : StatusToTarget(nStatus);
}

// ---- Limits and configuration

constexpr Pair LIMITS[] = {
    {0, RLIMIT_CPU}, {1, RLIMIT_FSIZE},   {2, RLIMIT_DATA},  {3, RLIMIT_STACK},  {4, RLIMIT_CORE},
    {5, RLIMIT_AS},  {6, RLIMIT_MEMLOCK}, {7, RLIMIT_NPROC}, {8, RLIMIT_NOFILE},
};
constexpr uint64_t TARGET_INFINITY = INT64_MAX;

int GetRlimit(int aLimit, rlimit* aValues) {
    const int nResult = getrlimit(static_cast<__rlimit_resource>(ToHost(LIMITS, aLimit)), aValues);
    for (rlim_t* p : {&aValues->rlim_cur, &aValues->rlim_max}) {
        *p = nResult == 0 && *p == RLIM_INFINITY ? TARGET_INFINITY : *p;
    }
    return nResult;
}

int SetRlimit(int aLimit, const rlimit* aValues) {
    rlimit values = *aValues;
    for (rlim_t* p : {&values.rlim_cur, &values.rlim_max}) {
        *p = *p == TARGET_INFINITY ? RLIM_INFINITY : *p;
    }
    return setrlimit(static_cast<__rlimit_resource>(ToHost(LIMITS, aLimit)), &values);
}

// ---- Memory

void* Mmap(void* aPlace, size_t aSize, int aAccess, int aFlags, int aFile, off_t aOffset) {
    constexpr Pair FLAGS[] = {
        {0x1, MAP_SHARED},     {0x2, MAP_PRIVATE},      {0x10, MAP_FIXED},
        {0x40, MAP_NORESERVE}, {0x1000, MAP_ANONYMOUS},
    };
    return mmap(aPlace, aSize, aAccess, FlagsToHost(FLAGS, aFlags), aFile, aOffset);
}

long SysConf(int aName) {
    constexpr Pair NAMES[] = {
        {1, _SC_ARG_MAX},           {2, _SC_CHILD_MAX},      {3, _SC_CLK_TCK},
        {5, _SC_OPEN_MAX},          {29, _SC_PAGESIZE},      {57, _SC_NPROCESSORS_CONF},
        {71, _SC_GETPW_R_SIZE_MAX}, {72, _SC_HOST_NAME_MAX}, {58, _SC_NPROCESSORS_ONLN},
        {200, _SC_PHYS_PAGES},
    };
    const int nName = ToHost(NAMES, aName);
    if (nName == -1) {
        Refuse("sysconf of %d", aName);
    }
    return sysconf(nName);
}

// The one name that is asked for, of the user's own temporary directory, has no value here.
size_t ConfStr(int aName, char*, size_t) {
    constexpr int TARGET_CS_DARWIN_USER_TEMP_DIR = 65537;
    if (aName != TARGET_CS_DARWIN_USER_TEMP_DIR) {
        Refuse("confstr of %d", aName);
    }
    return 0;
}

// ---- Of the process itself

int* NsGetArgc() {
    return &g_arguments.argc;
}

char*** NsGetArgv() {
    return &g_arguments.argv;
}

int NsGetExecutablePath(char* aPath, uint32_t* aSize) {
    const std::string& sPath = Images().front()->path;
    if (*aSize <= sPath.size()) {
        *aSize = static_cast<uint32_t>(sPath.size() + 1);
        return -1;
    }
    memcpy(aPath, sPath.c_str(), sPath.size() + 1);
    return 0;
}

// The number of threads is what counts; their ports are made up.
int TaskThreads(unsigned, unsigned** aThreads, unsigned* aCount) {
    unsigned nThreads = 0;
    DIR* const pTasks = opendir("/proc/self/task");
    if (pTasks == nullptr) {
        return 5;  // KERN_FAILURE
    }
    while (const dirent* const pEntry = readdir(pTasks)) {
        nThreads += pEntry->d_name[0] != '.';
    }
    closedir(pTasks);
    *aThreads = static_cast<unsigned*>(calloc(nThreads, sizeof(unsigned)));
    *aCount = nThreads;
    return 0;
}

int VmDeallocate(unsigned, uintptr_t aAddress, uintptr_t) {
    free(reinterpret_cast<void*>(aAddress));  // from TaskThreads
    return 0;
}

int PortDeallocate(unsigned, unsigned) {
    return 0;
}

unsigned s_unTaskSelf = 1;

}  // namespace

std::string LoaderPath() {
    char chPath[PATH_MAX];
    const ssize_t nLength = readlink("/proc/self/exe", chPath, sizeof(chPath));
    if (nLength <= 0 || nLength == sizeof(chPath)) {
        Refuse("the loader cannot find itself");
    }
    return std::string(chPath, static_cast<size_t>(nLength));
}

void SupplyProcesses() {
    Supply({
        {"_execv", Address(&ExecV)},
        {"_execl", Address(&ExecL)},
        {"_waitpid", Address(&WaitPid)},
        {"_system", Address(&System)},
        {"_getrlimit", Address(&GetRlimit)},
        {"_setrlimit", Address(&SetRlimit)},
        {"_mmap", Address(&Mmap)},
        {"_mprotect", Address(&mprotect)},
        {"_munmap", Address(&munmap)},
        {"_sysconf", Address(&SysConf)},
        {"_confstr", Address(&ConfStr)},
        {"_environ", &environ},
        {"__NSGetArgc", Address(&NsGetArgc)},
        {"__NSGetArgv", Address(&NsGetArgv)},
        {"__NSGetExecutablePath", Address(&NsGetExecutablePath)},
        {"_mach_task_self_", &s_unTaskSelf},
        {"_task_threads", Address(&TaskThreads)},
        {"_vm_deallocate", Address(&VmDeallocate)},
        {"_mach_port_deallocate", Address(&PortDeallocate)},
    });
}

}  // namespace kelto_mac
