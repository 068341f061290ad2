#include "CmPort.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "CmSystem.h"
#include "port/CmInterfaceRecord.h"

// The sanitizers' run-time libraries; null in a program without them.
extern "C" {
__attribute__((weak)) void __asan_init();
__attribute__((weak)) void __hwasan_init();
__attribute__((weak)) void __lsan_init();
__attribute__((weak)) void __msan_init();
__attribute__((weak)) void __tsan_init();
}

namespace UTIL_NS {

namespace {

constexpr size_t PATH_SIZE = 4096;

// What a bundle handle points to: there are no bundles here, only their paths.
char s_chBundle = 0;

// False also when the path may have been cut.
bool ExecutablePath(char (&aPath)[PATH_SIZE]) {
    const ssize_t nLength = g_cmSystem.readlink("/proc/self/exe", aPath, sizeof(aPath));
    if (nLength <= 0 || static_cast<size_t>(nLength) >= sizeof(aPath)) {
        return false;
    }
    aPath[nLength] = '\0';
    return true;
}

constexpr uint32_t REPLACEMENT_CHARACTER = 0xFFFD;

// Takes one character off aText, which is not at its end. A byte that is not part of a well-formed
// UTF-8 character is taken alone and counts as the replacement character.
uint32_t TakeCharacter(const unsigned char*& aText) {
    // By number of bytes after the first: the least character that needs them.
    constexpr uint32_t LEAST[] = {0, 0x80, 0x800, 0x10000};
    const unsigned char byLead = *aText++;
    if (byLead < 0x80) {
        return byLead;
    }
    const int nMore = byLead >= 0xF0 ? 3 : byLead >= 0xE0 ? 2 : byLead >= 0xC0 ? 1 : 0;
    if (nMore == 0 || byLead >= 0xF8) {
        return REPLACEMENT_CHARACTER;
    }
    uint32_t dwCharacter = byLead & (0x3Fu >> nMore);
    for (int i = 0; i < nMore; ++i) {
        if ((aText[i] & 0xC0) != 0x80) {
            return REPLACEMENT_CHARACTER;
        }
        dwCharacter = dwCharacter << 6 | (aText[i] & 0x3F);
    }
    const bool bSurrogate = dwCharacter >= 0xD800 && dwCharacter <= 0xDFFF;
    if (dwCharacter < LEAST[nMore] || dwCharacter > 0x10FFFF || bSurrogate) {
        return REPLACEMENT_CHARACTER;
    }
    aText += nMore;
    return dwCharacter;
}

// Stores aText as UTF-16; what exceeds aUnits is cut in front of a whole character.
size_t Utf16FromUtf8(const char* aText, uint16_t (&aUnits)[CM_PORT_NAME_UNITS]) {
    const unsigned char* pText = reinterpret_cast<const unsigned char*>(aText);
    size_t nUnits = 0;
    while (*pText != '\0') {
        const uint32_t dwCharacter = TakeCharacter(pText);
        const bool bPair = dwCharacter > 0xFFFF;
        if (nUnits + (bPair ? 2 : 1) > CM_PORT_NAME_UNITS) {
            break;
        }
        if (bPair) {
            aUnits[nUnits++] = static_cast<uint16_t>(0xD800 + ((dwCharacter - 0x10000) >> 10));
            aUnits[nUnits++] = static_cast<uint16_t>(0xDC00 + (dwCharacter & 0x3FF));
        } else {
            aUnits[nUnits++] = static_cast<uint16_t>(dwCharacter);
        }
    }
    return nUnits;
}

const char* LastComponent(const char* aPath) {
    const char* const pSlash = std::strrchr(aPath, '/');
    return pSlash == nullptr ? aPath : pSlash + 1;
}

}  // namespace

int CmPortSemaphoreInit(CmPlatformSemaphore* aSemaphore, int aShared, unsigned aCount) {
    return sem_init(aSemaphore, aShared, aCount);
}

int CmPortSemaphoreDestroy(CmPlatformSemaphore* aSemaphore) {
    return sem_destroy(aSemaphore);
}

int CmPortSemaphoreWait(CmPlatformSemaphore* aSemaphore) {
    return sem_wait(aSemaphore);
}

int CmPortSemaphorePost(CmPlatformSemaphore* aSemaphore) {
    return sem_post(aSemaphore);
}

size_t CmPortExecutableName(uint16_t (&aUnits)[CM_PORT_NAME_UNITS]) {
    char szPath[PATH_SIZE];
    return ExecutablePath(szPath) ? Utf16FromUtf8(LastComponent(szPath), aUnits) : 0;
}

// Four directories up from the executable's file; "/" is its own parent. For a file that no path
// leads to, the kernel gives a name that does not start with "/".
bool CmPortApplicationParentPath(char* aBuffer, size_t aSize) {
    constexpr int LEVELS = 4;
    char szPath[PATH_SIZE];
    if (!ExecutablePath(szPath) || szPath[0] != '/') {
        return false;
    }
    for (int i = 0; i < LEVELS; ++i) {
        *std::strrchr(szPath, '/') = '\0';
        if (szPath[0] == '\0') {
            std::strcpy(szPath, "/");
        }
    }
    const size_t nSize = std::strlen(szPath) + 1;
    if (nSize > aSize) {
        return false;
    }
    std::memcpy(aBuffer, szPath, nSize);
    return true;
}

CmPortItem CmPortItemInformation(const char* aPath) {
    if (g_cmSystem.access(aPath, F_OK) != 0) {
        return CmPortItem::UNKNOWN;
    }
    const char* const pName = LastComponent(aPath);
    const char* const pDot = std::strrchr(pName, '.');
    // A dot at the start hides a file, one at the end has nothing after it.
    const bool bExtension = pDot != nullptr && pDot != pName && pDot[1] != '\0';
    return bExtension ? CmPortItem::WITH_EXTENSION : CmPortItem::WITHOUT_EXTENSION;
}

void* CmPortBundleCreate(const char* aPath) {
    return g_cmSystem.access(aPath, F_OK) == 0 ? &s_chBundle : nullptr;
}

void* CmPortBundleFunction(void* /*aBundle*/, const char* /*aName*/) {
    return nullptr;
}

void CmPortBundleRelease(void* /*aBundle*/) {}

size_t CmPortReadInterface(const char* aRecords, size_t aLength, CmPortInterface& aInterface) {
    return CmReadInterface<CCmFixedInterfaceRecord>(aRecords, aLength, aInterface);
}

int CmPortCurrentCore() {
    return sched_getcpu();
}

void CmPortMonotonicNow(timespec* aNow) {
    clock_gettime(CLOCK_MONOTONIC, aNow);
}

int CmPortConditionWaitUntil(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                             const timespec* aDeadline) {
    return pthread_cond_clockwait(aCondition, aMutex, CLOCK_MONOTONIC, aDeadline);
}

void CmPortNameThisThread(const char* aName) {
    char szName[16] = {};
    std::strncpy(szName, aName, sizeof(szName) - 1);
    pthread_setname_np(pthread_self(), szName);
}

void CmPortPreciseWaits() {
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

// The time of the kernel's last tick; ticks are at most 10 ms apart.
int CmPortCoarseTimeOfDay(timeval* aNow, void* /*aUnused*/) {
    timespec tsNow = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &tsNow);
    aNow->tv_sec = tsNow.tv_sec;
    aNow->tv_usec = tsNow.tv_nsec / 1000;
    return 0;
}

// A signal may interrupt it, for one that comes over and over not for ever.
int CmPortAllocateFile(int aFile, off_t aStart, off_t aSize) {
    constexpr int ATTEMPTS = 100;
    int rv = EINTR;
    for (int i = 0; i < ATTEMPTS && rv == EINTR; ++i) {
        rv = posix_fallocate(aFile, aStart, aSize);
    }
    return rv;
}

bool CmPortUserDirectory(char* /*aBuffer*/, size_t /*aSize*/) {
    return false;
}

bool CmPortHasSanitizer() {
    typedef void (*Init)();
    const Init inits[] = {__asan_init, __hwasan_init, __lsan_init, __msan_init, __tsan_init};
    return std::any_of(std::begin(inits), std::end(inits),
                       [](Init aInit) { return aInit != nullptr; });
}

bool CmPortTakesZeros() {
    return true;
}

// Nothing to do: a cancelled thread unwinds, and destructors do the work.
void CmPortPushCleanUp(CmPortCleanUp* /*aCleanUp*/) {}

void CmPortPopCleanUp(CmPortCleanUp* /*aCleanUp*/) {}

}  // namespace UTIL_NS
