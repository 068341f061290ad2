// The macOS desktop services that CmPortMac.cpp calls, and the list of clean-up handlers; internal.
//
// Where the system's headers are missing (a cross build), this declares just what is called, with
// the layout that the 64-bit system defines.
#ifndef CM_MAC_SERVICES_H
#define CM_MAC_SERVICES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

#if __has_include(<ApplicationServices/ApplicationServices.h>)

#include <ApplicationServices/ApplicationServices.h>
#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#else

#include <cstdint>

extern "C" {

// ---- CoreFoundation

typedef unsigned char Boolean;
typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef struct __CFBundle* CFBundleRef;
typedef uint8_t UInt8;
typedef uint32_t UInt32;
typedef uint32_t CFStringEncoding;
struct FSRef;

void CFRelease(CFTypeRef aObject);
CFStringEncoding CFStringGetSystemEncoding();
CFStringRef CFStringCreateWithCString(CFAllocatorRef aAllocator, const char* aText,
                                      CFStringEncoding aEncoding);
CFURLRef CFURLCreateFromFSRef(CFAllocatorRef aAllocator, const FSRef* aRef);
CFBundleRef CFBundleCreate(CFAllocatorRef aAllocator, CFURLRef aUrl);
void* CFBundleGetFunctionPointerForName(CFBundleRef aBundle, CFStringRef aName);

// ---- CoreServices: file references and item information

typedef int16_t OSErr;
typedef int32_t OSStatus;
typedef uint16_t UniChar;
typedef unsigned long UniCharCount;
typedef uint32_t TextEncoding;
typedef uint32_t FSCatalogInfoBitmap;
typedef uint32_t LSRequestedInfo;
struct FSCatalogInfo;
struct FSSpec;

constexpr OSErr noErr = 0;
constexpr TextEncoding kTextEncodingUnknown = 0xFFFF;
constexpr FSCatalogInfoBitmap kFSCatInfoNone = 0;
constexpr LSRequestedInfo kLSRequestExtension = 1;

#pragma pack(push, 2)
struct FSRef {
    uint8_t hidden[80];
};
struct HFSUniStr255 {
    uint16_t length;
    UniChar unicode[255];
};
struct LSItemInfoRecord {
    uint32_t flags;
    uint32_t filetype;
    uint32_t creator;
    CFStringRef extension;
};
#pragma pack(pop)

OSStatus FSPathMakeRef(const uint8_t* aPath, FSRef* aRef, Boolean* aIsDirectory);
OSStatus FSRefMakePath(const FSRef* aRef, uint8_t* aPath, uint32_t aPathSize);
OSErr FSMakeFSRefUnicode(const FSRef* aParent, UniCharCount aNameLength, const UniChar* aName,
                         TextEncoding aEncodingHint, FSRef* aRef);
OSErr FSGetCatalogInfo(const FSRef* aRef, FSCatalogInfoBitmap aWhich, FSCatalogInfo* aInfo,
                       HFSUniStr255* aName, FSSpec* aSpec, FSRef* aParent);
OSStatus LSCopyItemInfoForRef(const FSRef* aRef, LSRequestedInfo aWhich, LSItemInfoRecord* aInfo);

// ---- ApplicationServices: the process-information call

struct ProcessSerialNumber {
    uint32_t highLongOfPSN;
    uint32_t lowLongOfPSN;
};
constexpr uint32_t kCurrentProcess = 2;

#pragma pack(push, 2)
struct ProcessInfoRec {
    uint32_t processInfoLength;
    unsigned char* processName;
    ProcessSerialNumber processNumber;
    uint32_t processType;
    uint32_t processSignature;
    uint32_t processMode;
    char* processLocation;
    uint32_t processSize;
    uint32_t processFreeMem;
    ProcessSerialNumber processLauncher;
    uint32_t processLaunchDate;
    uint32_t processActiveTime;
    FSRef* processAppRef;
};
#pragma pack(pop)

OSErr GetProcessInformation(const ProcessSerialNumber* aProcess, ProcessInfoRec* aInfo);

}  // extern "C"

#endif

// ---- Files, for a build elsewhere

#ifndef F_PREALLOCATE
struct fstore_t {
    unsigned fst_flags;
    int fst_posmode;
    off_t fst_offset;
    off_t fst_length;
    off_t fst_bytesalloc;
};
#define F_PREALLOCATE 42
#define F_ALLOCATEALL 4
#define F_PEOFPOSMODE 3
#endif
#ifndef _CS_DARWIN_USER_TEMP_DIR
#define _CS_DARWIN_USER_TEMP_DIR 65537
#endif

// What the library was built to, wherever the declarations come from.
static_assert(sizeof(FSRef) == 80, "a file reference");
static_assert(sizeof(HFSUniStr255) == 512 && offsetof(HFSUniStr255, unicode) == 2,
              "a catalog name");
static_assert(sizeof(LSItemInfoRecord) == 20 && offsetof(LSItemInfoRecord, flags) == 0 &&
                  offsetof(LSItemInfoRecord, filetype) == 4 &&
                  offsetof(LSItemInfoRecord, creator) == 8 &&
                  offsetof(LSItemInfoRecord, extension) == 12,
              "the item information's record");
static_assert(sizeof(ProcessInfoRec) == 72 && offsetof(ProcessInfoRec, processInfoLength) == 0 &&
                  offsetof(ProcessInfoRec, processName) == 4 &&
                  offsetof(ProcessInfoRec, processNumber) == 12 &&
                  offsetof(ProcessInfoRec, processType) == 20 &&
                  offsetof(ProcessInfoRec, processSignature) == 24 &&
                  offsetof(ProcessInfoRec, processMode) == 28 &&
                  offsetof(ProcessInfoRec, processLocation) == 32 &&
                  offsetof(ProcessInfoRec, processSize) == 40 &&
                  offsetof(ProcessInfoRec, processFreeMem) == 44 &&
                  offsetof(ProcessInfoRec, processLauncher) == 48 &&
                  offsetof(ProcessInfoRec, processLaunchDate) == 56 &&
                  offsetof(ProcessInfoRec, processActiveTime) == 60 &&
                  offsetof(ProcessInfoRec, processAppRef) == 64,
              "the process information's record");
static_assert(sizeof(fstore_t) == 32 && offsetof(fstore_t, fst_length) == 16,
              "what a file is to have");
static_assert(kLSRequestExtension == 1, "the flag that asks for the extension");

// ---- POSIX threads

#include <pthread.h>

// The newest clean-up handler of the calling thread: the list that the macros of <pthread.h> work
// on, and that the system walks when it cancels the thread.
#if defined(__APPLE__)

inline __darwin_pthread_handler_rec*& CmMacCleanUps() {
    return pthread_self()->__cleanup_stack;
}

inline size_t CmMacConfStr(int aName, char* aBuffer, size_t aSize) {
    return confstr(aName, aBuffer, aSize);
}

#else

// Over fakes, on another system: what the macOS headers declare beyond POSIX.
#include <time.h>

constexpr clockid_t CLOCK_UPTIME_RAW = CLOCK_MONOTONIC;
extern "C" int pthread_cond_timedwait_relative_np(pthread_cond_t* aCondition,
                                                  pthread_mutex_t* aMutex,
                                                  const timespec* aInterval);
int pthread_setname_np(const char* aName);

struct __darwin_pthread_handler_rec {
    void (*__routine)(void*);
    void* __arg;
    __darwin_pthread_handler_rec* __next;
};
__darwin_pthread_handler_rec*& CmMacCleanUps();

// Under a name of its own: sanitizers call confstr as they start.
size_t CmMacConfStr(int aName, char* aBuffer, size_t aSize);

#endif

#endif  // CM_MAC_SERVICES_H
