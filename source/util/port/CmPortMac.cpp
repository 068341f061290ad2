#include "CmPort.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "CmSystem.h"
#include "port/CmConditionSemaphore.h"
#include "port/CmInterfaceRecord.h"
#include "port/CmMacServices.h"
#include "port/CmTimeLeft.h"

// The file reference services are deprecated; their successors know no item information.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace UTIL_NS {

namespace {

static_assert(CM_PORT_NAME_UNITS == sizeof(HFSUniStr255::unicode) / sizeof(UniChar),
              "a catalog name must fit");

// Holds what a Create or Copy function returned, possibly null, and releases it.
template <class Reference>
class CScopedReference {
  public:
    explicit CScopedReference(Reference aReference) : m_reference(aReference) {}
    ~CScopedReference() {
        if (m_reference != nullptr) {
            CFRelease(m_reference);
        }
    }
    CScopedReference(const CScopedReference&) = delete;
    CScopedReference& operator=(const CScopedReference&) = delete;

    Reference get() const { return m_reference; }

  private:
    const Reference m_reference;
};

// The process-information call is looked up when it is needed: its framework is the desktop's,
// which a process that never asks for its own name need not load.
constexpr char PROCESS_SERVICES[] =
    "/System/Library/Frameworks/ApplicationServices.framework/ApplicationServices";

using GetProcessInformationCall = decltype(&GetProcessInformation);

GetProcessInformationCall FindGetProcessInformation() {
    // Never closed: a framework stays loaded.
    void* const pServices = g_cmSystem.dlopen(PROCESS_SERVICES, RTLD_LAZY);
    return pServices == nullptr ? nullptr
                                : reinterpret_cast<GetProcessInformationCall>(
                                      g_cmSystem.dlsym(pServices, "GetProcessInformation"));
}

// The file of the running application.
bool ApplicationReference(FSRef& aApplication) {
    const GetProcessInformationCall pfnGetProcessInformation = FindGetProcessInformation();
    if (pfnGetProcessInformation == nullptr) {
        return false;
    }
    const ProcessSerialNumber current = {0, kCurrentProcess};
    ProcessInfoRec info;
    std::memset(&info, 0, sizeof(info));
    info.processInfoLength = sizeof(info);
    info.processAppRef = &aApplication;
    return pfnGetProcessInformation(&current, &info) == noErr;
}

bool PathReference(const char* aPath, FSRef& aReference) {
    return FSPathMakeRef(reinterpret_cast<const UInt8*>(aPath), &aReference, nullptr) == noErr;
}

}  // namespace

size_t CmPortExecutableName(uint16_t (&aUnits)[CM_PORT_NAME_UNITS]) {
    FSRef application;
    HFSUniStr255 name;
    if (!ApplicationReference(application) ||
        FSGetCatalogInfo(&application, kFSCatInfoNone, nullptr, &name, nullptr, nullptr) != noErr) {
        return 0;
    }
    const size_t nUnits = name.length < CM_PORT_NAME_UNITS ? name.length : CM_PORT_NAME_UNITS;
    std::memcpy(aUnits, name.unicode, nUnits * sizeof(uint16_t));
    return nUnits;
}

// Four references, each made from the one before as its parent and a name of NULs.
bool CmPortApplicationParentPath(char* aBuffer, size_t aSize) {
    constexpr int LEVELS = 4;
    FSRef reference;
    if (!ApplicationReference(reference)) {
        return false;
    }
    {
        const std::unique_ptr<UniChar[]> pName(new (std::nothrow) UniChar[aSize]);
        if (pName == nullptr) {
            return false;
        }
        for (int i = 0; i < LEVELS; ++i) {
            std::memset(pName.get(), 0, aSize * sizeof(UniChar));
            if (FSMakeFSRefUnicode(&reference, aSize, pName.get(), kTextEncodingUnknown,
                                   &reference) != noErr) {
                return false;
            }
        }
    }
    return FSRefMakePath(&reference, reinterpret_cast<UInt8*>(aBuffer),
                         static_cast<UInt32>(aSize)) == noErr;
}

CmPortItem CmPortItemInformation(const char* aPath) {
    FSRef reference;
    LSItemInfoRecord info;
    std::memset(&info, 0, sizeof(info));
    if (!PathReference(aPath, reference) ||
        LSCopyItemInfoForRef(&reference, kLSRequestExtension, &info) != noErr) {
        return CmPortItem::UNKNOWN;
    }
    const CScopedReference<CFStringRef> extension(info.extension);
    return extension.get() != nullptr ? CmPortItem::WITH_EXTENSION : CmPortItem::WITHOUT_EXTENSION;
}

void* CmPortBundleCreate(const char* aPath) {
    FSRef reference;
    if (!PathReference(aPath, reference)) {
        return nullptr;
    }
    const CScopedReference<CFURLRef> url(CFURLCreateFromFSRef(nullptr, &reference));
    return url.get() != nullptr ? CFBundleCreate(nullptr, url.get()) : nullptr;
}

void* CmPortBundleFunction(void* aBundle, const char* aName) {
    const CScopedReference<CFStringRef> name(
        CFStringCreateWithCString(nullptr, aName, CFStringGetSystemEncoding()));
    return name.get() != nullptr
               ? CFBundleGetFunctionPointerForName(static_cast<CFBundleRef>(aBundle), name.get())
               : nullptr;
}

void CmPortBundleRelease(void* aBundle) {
    CFRelease(static_cast<CFBundleRef>(aBundle));
}

size_t CmPortReadInterface(const char* aRecords, size_t aLength, CmPortInterface& aInterface) {
    return CmReadInterface<CCmVariableInterfaceRecord>(aRecords, aLength, aInterface);
}

// The exact clock: there is no coarse one, and it takes no system call.
int CmPortCoarseTimeOfDay(timeval* aNow, void* /*aUnused*/) {
    return gettimeofday(aNow, nullptr);
}

// The blocks need not be contiguous. A file system that cannot keep any ready gives them when they
// are written.
int CmPortAllocateFile(int aFile, off_t /*aStart*/, off_t aSize) {
    fstore_t store = {};
    store.fst_flags = F_ALLOCATEALL;
    store.fst_posmode = F_PEOFPOSMODE;
    store.fst_length = aSize;
    if (g_cmSystem.fcntl(aFile, F_PREALLOCATE, &store) != 0 && errno != ENOTSUP &&
        errno != EINVAL) {
        return errno;
    }
    return g_cmSystem.ftruncate(aFile, aSize) == 0 ? 0 : errno;
}

bool CmPortUserDirectory(char* aBuffer, size_t aSize) {
    const size_t nSize = CmMacConfStr(_CS_DARWIN_USER_TEMP_DIR, aBuffer, aSize);
    return nSize > 1 && nSize <= aSize;
}

bool CmPortHasSanitizer() {
    for (const char* pszName : {"__asan_init", "__lsan_init", "__tsan_init"}) {
        if (g_cmSystem.dlsym(RTLD_DEFAULT, pszName) != nullptr) {
            return true;
        }
    }
    return false;
}

// False: each of these objects begins with a signature that is not zero.
bool CmPortTakesZeros() {
    return false;
}

// What the macros pthread_cleanup_push and pthread_cleanup_pop do, which have to share a block.
static_assert(sizeof(CmPortCleanUp) == sizeof(__darwin_pthread_handler_rec) &&
                  offsetof(CmPortCleanUp, m_pfnRoutine) ==
                      offsetof(__darwin_pthread_handler_rec, __routine) &&
                  offsetof(CmPortCleanUp, m_pArgument) ==
                      offsetof(__darwin_pthread_handler_rec, __arg) &&
                  offsetof(CmPortCleanUp, m_pNext) ==
                      offsetof(__darwin_pthread_handler_rec, __next),
              "the record of the system's list of handlers");

void CmPortPushCleanUp(CmPortCleanUp* aCleanUp) {
    __darwin_pthread_handler_rec*& pNewest = CmMacCleanUps();
    aCleanUp->m_pNext = reinterpret_cast<CmPortCleanUp*>(pNewest);
    pNewest = reinterpret_cast<__darwin_pthread_handler_rec*>(aCleanUp);
}

void CmPortPopCleanUp(CmPortCleanUp* aCleanUp) {
    CmMacCleanUps() = reinterpret_cast<__darwin_pthread_handler_rec*>(aCleanUp->m_pNext);
}

int CmPortCurrentCore() {
    return -1;
}

// The clock of relative waits; like them it stands still while the machine sleeps.
void CmPortMonotonicNow(timespec* aNow) {
    clock_gettime(CLOCK_UPTIME_RAW, aNow);
}

int CmPortConditionWaitUntil(pthread_cond_t* aCondition, pthread_mutex_t* aMutex,
                             const timespec* aDeadline) {
    timespec tsNow;
    CmPortMonotonicNow(&tsNow);
    const timespec tsInterval = CmTimeLeft(tsNow, *aDeadline);
    return pthread_cond_timedwait_relative_np(aCondition, aMutex, &tsInterval);
}

void CmPortNameThisThread(const char* aName) {
    char szName[64] = {};
    std::strncpy(szName, aName, sizeof(szName) - 1);
    pthread_setname_np(szName);
}

void CmPortPreciseWaits() {}

int CmPortSemaphoreInit(CmConditionSemaphore* aSemaphore, int /*aShared*/, unsigned aCount) {
    return CmConditionSemaphoreInit(aSemaphore, aCount);
}

int CmPortSemaphoreDestroy(CmConditionSemaphore* aSemaphore) {
    return CmConditionSemaphoreDestroy(aSemaphore);
}

int CmPortSemaphoreWait(CmConditionSemaphore* aSemaphore) {
    return CmConditionSemaphoreWait(aSemaphore);
}

int CmPortSemaphorePost(CmConditionSemaphore* aSemaphore) {
    return CmConditionSemaphorePost(aSemaphore);
}

}  // namespace UTIL_NS
