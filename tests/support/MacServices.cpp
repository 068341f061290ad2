#include "support/MacServices.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>

namespace kelto_test {

namespace {

constexpr OSErr FAILURE = -43;
constexpr CFStringEncoding SYSTEM_ENCODING = 0x0500;

ScopedMacServices* s_pCurrent = nullptr;

// A reference holds the path itself, which the tests keep short.
void SetPath(FSRef& aRef, const std::string& aPath) {
    ASSERT_LT(aPath.size(), sizeof(aRef.hidden));
    memset(aRef.hidden, 0, sizeof(aRef.hidden));
    memcpy(aRef.hidden, aPath.data(), aPath.size());
}

std::string PathOf(const FSRef& aRef) {
    return reinterpret_cast<const char*>(aRef.hidden);
}

}  // namespace

ScopedMacServices::ScopedMacServices()
    : m_dlopen(UTIL_NS::g_cmSystem.dlopen, &Dlopen), m_dlsym(UTIL_NS::g_cmSystem.dlsym, &Dlsym) {
    s_pCurrent = this;
}

void* ScopedMacServices::Dlopen(const char* aPath, int /*aMode*/) {
    EXPECT_STREQ("/System/Library/Frameworks/ApplicationServices.framework/ApplicationServices",
                 aPath);
    return Current().FailsNow(MacService::LOAD_PROCESS_SERVICES) ? nullptr : &Current();
}

void* ScopedMacServices::Dlsym(void* aLibrary, const char* aName) {
    EXPECT_EQ(&Current(), aLibrary);
    EXPECT_STREQ("GetProcessInformation", aName);
    return Current().FailsNow(MacService::FIND_GET_PROCESS_INFORMATION)
               ? nullptr
               : reinterpret_cast<void*>(&GetProcessInformation);
}

ScopedMacServices::~ScopedMacServices() {
    EXPECT_EQ(0u, m_objects.size()) << "every reference is to be released";
    for (const auto& object : m_objects) {
        delete object.second;
    }
    s_pCurrent = nullptr;
}

void ScopedMacServices::SetApplication(const std::string& aPath, const std::u16string& aName) {
    m_sApplication = aPath;
    m_sName = aName;
}

void ScopedMacServices::AddBundle(const std::string& aPath, const std::set<std::string>& aNames) {
    AddFile(aPath);
    m_bundles[aPath] = aNames;
}

void ScopedMacServices::Fail(MacService aService, int aNth) {
    m_failing = aService;
    m_nUntilFailure = aNth;
}

ScopedMacServices& ScopedMacServices::Current() {
    return *s_pCurrent;
}

bool ScopedMacServices::FailsNow(MacService aService) {
    return aService == m_failing && --m_nUntilFailure <= 0;
}

const void* ScopedMacServices::Create(const std::string& aValue) {
    std::string* const pObject = new std::string(aValue);
    m_objects[pObject] = pObject;
    return pObject;
}

void ScopedMacServices::Release(const void* aObject) {
    const auto it = m_objects.find(aObject);
    if (it == m_objects.end()) {
        ADD_FAILURE() << "released something that is not alive";
        return;
    }
    delete it->second;
    m_objects.erase(it);
}

std::string ScopedMacServices::ValueOf(const void* aObject) const {
    const auto it = m_objects.find(aObject);
    EXPECT_TRUE(it != m_objects.end()) << "used something that is not alive";
    return it == m_objects.end() ? "" : *it->second;
}

}  // namespace kelto_test

using kelto_test::FAILURE;
using kelto_test::MacService;
using kelto_test::PathOf;
using kelto_test::ScopedMacServices;
using kelto_test::SetPath;

// What a bundle's function pointers point to.
static int s_nFunction;

OSErr GetProcessInformation(const ProcessSerialNumber* aProcess, ProcessInfoRec* aInfo) {
    EXPECT_EQ(0u, aProcess->highLongOfPSN);
    EXPECT_EQ(kCurrentProcess, aProcess->lowLongOfPSN);
    EXPECT_EQ(72u, aInfo->processInfoLength);
    EXPECT_EQ(nullptr, aInfo->processName) << "the name is not requested";
    ScopedMacServices& services = ScopedMacServices::Current();
    if (services.FailsNow(MacService::GET_PROCESS_INFORMATION)) {
        return FAILURE;
    }
    SetPath(*aInfo->processAppRef, services.m_sApplication);
    return noErr;
}

OSErr FSGetCatalogInfo(const FSRef* aRef, FSCatalogInfoBitmap aWhich, FSCatalogInfo* aInfo,
                       HFSUniStr255* aName, FSSpec* aSpec, FSRef* aParent) {
    EXPECT_EQ(kFSCatInfoNone, aWhich);
    EXPECT_TRUE(aInfo == nullptr && aSpec == nullptr && aParent == nullptr);
    ScopedMacServices& services = ScopedMacServices::Current();
    EXPECT_EQ(services.m_sApplication, PathOf(*aRef));
    if (services.FailsNow(MacService::FS_GET_CATALOG_INFO)) {
        return FAILURE;
    }
    const std::u16string& sName = services.m_sName;
    aName->length = static_cast<uint16_t>(sName.size());
    std::copy(sName.begin(), sName.end(), aName->unicode);
    return noErr;
}

// The fake's result is the directory of the reference that it is given as the parent.
OSErr FSMakeFSRefUnicode(const FSRef* aParent, UniCharCount aNameLength, const UniChar* aName,
                         TextEncoding aEncodingHint, FSRef* aRef) {
    EXPECT_EQ(0xFFFFu, aEncodingHint);
    EXPECT_EQ(static_cast<long>(aNameLength), std::count(aName, aName + aNameLength, 0));
    EXPECT_EQ(aParent, aRef) << "the result replaces the parent";
    ScopedMacServices& services = ScopedMacServices::Current();
    services.m_nameLengths.push_back(aNameLength);
    if (services.FailsNow(MacService::FS_MAKE_FSREF_UNICODE)) {
        return FAILURE;
    }
    const std::string sPath = PathOf(*aParent);
    SetPath(*aRef, sPath.substr(0, sPath.rfind('/')));
    return noErr;
}

OSStatus FSRefMakePath(const FSRef* aRef, uint8_t* aPath, uint32_t aPathSize) {
    const std::string sPath = PathOf(*aRef);
    if (ScopedMacServices::Current().FailsNow(MacService::FS_REF_MAKE_PATH) ||
        sPath.size() >= aPathSize) {
        return FAILURE;
    }
    memcpy(aPath, sPath.c_str(), sPath.size() + 1);
    return noErr;
}

OSStatus FSPathMakeRef(const uint8_t* aPath, FSRef* aRef, Boolean* aIsDirectory) {
    EXPECT_EQ(nullptr, aIsDirectory);
    ScopedMacServices& services = ScopedMacServices::Current();
    const std::string sPath = reinterpret_cast<const char*>(aPath);
    services.m_wanted.push_back(sPath);
    if (services.FailsNow(MacService::FS_PATH_MAKE_REF) || services.m_files.count(sPath) == 0) {
        return FAILURE;
    }
    SetPath(*aRef, sPath);
    return noErr;
}

OSStatus LSCopyItemInfoForRef(const FSRef* aRef, LSRequestedInfo aWhich, LSItemInfoRecord* aInfo) {
    EXPECT_EQ(kLSRequestExtension, aWhich);
    ScopedMacServices& services = ScopedMacServices::Current();
    if (services.FailsNow(MacService::LS_COPY_ITEM_INFO)) {
        return FAILURE;
    }
    const std::string sPath = PathOf(*aRef);
    const size_t nDot = sPath.rfind('.');
    const bool bExtension = nDot != std::string::npos && sPath.find('/', nDot) == std::string::npos;
    if (bExtension) {  // what an item does not have is not written
        aInfo->extension = static_cast<CFStringRef>(services.Create(sPath.substr(nDot)));
    }
    return noErr;
}

CFStringEncoding CFStringGetSystemEncoding() {
    return kelto_test::SYSTEM_ENCODING;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef aAllocator, const char* aText,
                                      CFStringEncoding aEncoding) {
    EXPECT_EQ(nullptr, aAllocator);
    EXPECT_EQ(kelto_test::SYSTEM_ENCODING, aEncoding);
    ScopedMacServices& services = ScopedMacServices::Current();
    return services.FailsNow(MacService::CF_STRING_CREATE)
               ? nullptr
               : static_cast<CFStringRef>(services.Create(aText));
}

CFURLRef CFURLCreateFromFSRef(CFAllocatorRef aAllocator, const FSRef* aRef) {
    EXPECT_EQ(nullptr, aAllocator);
    ScopedMacServices& services = ScopedMacServices::Current();
    EXPECT_EQ(1u, services.m_files.count(PathOf(*aRef))) << "not a reference";
    return services.FailsNow(MacService::CF_URL_CREATE)
               ? nullptr
               : static_cast<CFURLRef>(services.Create(PathOf(*aRef)));
}

CFBundleRef CFBundleCreate(CFAllocatorRef aAllocator, CFURLRef aUrl) {
    EXPECT_EQ(nullptr, aAllocator);
    ScopedMacServices& services = ScopedMacServices::Current();
    const std::string sPath = services.ValueOf(aUrl);
    if (services.FailsNow(MacService::CF_BUNDLE_CREATE) || services.m_bundles.count(sPath) == 0) {
        return nullptr;
    }
    return static_cast<CFBundleRef>(const_cast<void*>(services.Create(sPath)));
}

void* CFBundleGetFunctionPointerForName(CFBundleRef aBundle, CFStringRef aName) {
    ScopedMacServices& services = ScopedMacServices::Current();
    const std::set<std::string>& names = services.m_bundles[services.ValueOf(aBundle)];
    return names.count(services.ValueOf(aName)) != 0 ? &s_nFunction : nullptr;
}

void CFRelease(CFTypeRef aObject) {
    ScopedMacServices::Current().Release(aObject);
}

#if !defined(__APPLE__)
__darwin_pthread_handler_rec*& CmMacCleanUps() {
    static thread_local __darwin_pthread_handler_rec* s_pNewest = nullptr;
    return s_pNewest;
}
#endif
