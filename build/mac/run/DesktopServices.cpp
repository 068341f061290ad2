// The desktop services that the library asks for, over the files of this machine, so far as a
// process without a desktop has them. The suite's own fake, with its failures, takes their place
// in the test of the platform file.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Image.h"
#include "Supply.h"

namespace kelto_mac {

namespace {

constexpr char CORE_FOUNDATION[] =
    "/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation";
constexpr char CORE_SERVICES[] =
    "/System/Library/Frameworks/CoreServices.framework/Versions/A/CoreServices";
constexpr char APPLICATION_SERVICES[] =
    "/System/Library/Frameworks/ApplicationServices.framework/Versions/A/ApplicationServices";

constexpr int16_t NO_ERROR = 0;
constexpr int16_t FILE_NOT_FOUND = -43;
constexpr int16_t PARAMETER_ERROR = -50;

// A file reference is opaque: here, a copy of the path of a file that exists.
struct FileReference {
    char* path;
    char reserved[72];
};
static_assert(sizeof(FileReference) == 80, "the target's size");

#pragma pack(push, 2)
struct CatalogName {
    uint16_t length;
    uint16_t unicode[255];
};
struct ItemInformation {
    uint32_t flags;
    uint32_t filetype;
    uint32_t creator;
    const void* extension;
};
struct ProcessInformation {
    uint32_t processInfoLength;
    unsigned char* processName;
    uint32_t processNumber[2];
    uint32_t processType;
    uint32_t processSignature;
    uint32_t processMode;
    char* processLocation;
    uint32_t processSize;
    uint32_t processFreeMem;
    uint32_t processLauncher[2];
    uint32_t processLaunchDate;
    uint32_t processActiveTime;
    FileReference* processAppRef;
};
#pragma pack(pop)
static_assert(sizeof(ItemInformation) == 20 && sizeof(ProcessInformation) == 72,
              "the target's sizes");

// An object of CoreFoundation: a string, or the path of a URL or a bundle.
using Object = std::string;

// False: there is no such file.
bool SetReference(FileReference* aReference, const std::string& aPath) {
    char chPath[PATH_MAX];
    if (realpath(aPath.c_str(), chPath) == nullptr) {
        return false;
    }
    // Never freed: a reference has no end.
    *aReference = {strdup(chPath), {}};
    return true;
}

int32_t PathMakeRef(const char* aPath, FileReference* aReference, unsigned char*) {
    return SetReference(aReference, aPath) ? NO_ERROR : FILE_NOT_FOUND;
}

int32_t RefMakePath(const FileReference* aReference, char* aPath, uint32_t aSize) {
    const size_t nLength = strlen(aReference->path);
    if (nLength >= aSize) {
        return PARAMETER_ERROR;
    }
    memcpy(aPath, aReference->path, nLength + 1);
    return NO_ERROR;
}

// A name of NULs leads to the folder that the parent lies in.
int16_t MakeRefUnicode(const FileReference* aParent, unsigned long, const uint16_t* aName, uint32_t,
                       FileReference* aReference) {
    if (aName[0] != 0) {
        Refuse("a file reference of a name");
    }
    const std::string sPath = aParent->path;
    const size_t nSlash = sPath.rfind('/');
    return SetReference(aReference, nSlash == 0 ? "/" : sPath.substr(0, nSlash)) ? NO_ERROR
                                                                                 : FILE_NOT_FOUND;
}

// Names here are of ASCII.
int16_t GetCatalogInfo(const FileReference* aReference, uint32_t, void*, CatalogName* aName, void*,
                       FileReference*) {
    const char* const pszName = strrchr(aReference->path, '/') + 1;
    aName->length = 0;
    for (const char* p = pszName; *p != '\0' && aName->length < 255; ++p) {
        aName->unicode[aName->length++] = static_cast<unsigned char>(*p);
    }
    return NO_ERROR;
}

int32_t CopyItemInfo(const FileReference* aReference, uint32_t, ItemInformation* aInformation) {
    const std::string sName = strrchr(aReference->path, '/') + 1;
    const size_t nDot = sName.rfind('.');
    aInformation->extension = nDot == std::string::npos || nDot == 0 || nDot + 1 == sName.size()
                                  ? nullptr
                                  : new Object(sName.substr(nDot + 1));
    return NO_ERROR;
}

int16_t GetProcessInformation(const uint32_t*, ProcessInformation* aInformation) {
    return SetReference(aInformation->processAppRef, Images().front()->path) ? NO_ERROR
                                                                             : FILE_NOT_FOUND;
}

uint32_t StringGetSystemEncoding() {
    return 0;  // Mac Roman
}

const void* StringCreate(const void*, const char* aText, uint32_t) {
    return new Object(aText);
}

const void* UrlCreate(const void*, const FileReference* aReference) {
    return new Object(aReference->path);
}

// A bundle is a folder with a library of its name in it.
std::string BundleLibrary(const std::string& aPath) {
    const std::string sName = aPath.substr(aPath.rfind('/') + 1);
    return aPath + "/Contents/MacOS/" + sName.substr(0, sName.rfind('.'));
}

const void* BundleCreate(const void*, const Object* aUrl) {
    struct stat status;
    return stat(aUrl->c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? new Object(*aUrl)
                                                                        : nullptr;
}

const void* BundleFunction(const Object* aBundle, const Object* aName) {
    std::string sError;
    Image* const pImage = LoadImage(BundleLibrary(*aBundle), nullptr, &sError);
    if (pImage == nullptr) {
        return nullptr;
    }
    Initialise(*pImage);
    const Export* const pExport = FindExport(*pImage, ("_" + *aName).c_str());
    return pExport == nullptr ? nullptr : pExport->address;
}

void Release(const Object* aObject) {
    delete aObject;
}

}  // namespace

void SupplyDesktopServices() {
    Supply(CORE_FOUNDATION, {
                                {"_CFStringGetSystemEncoding", Address(&StringGetSystemEncoding)},
                                {"_CFStringCreateWithCString", Address(&StringCreate)},
                                {"_CFURLCreateFromFSRef", Address(&UrlCreate)},
                                {"_CFBundleCreate", Address(&BundleCreate)},
                                {"_CFBundleGetFunctionPointerForName", Address(&BundleFunction)},
                                {"_CFRelease", Address(&Release)},
                            });
    Supply(CORE_SERVICES, {
                              {"_FSPathMakeRef", Address(&PathMakeRef)},
                              {"_FSRefMakePath", Address(&RefMakePath)},
                              {"_FSMakeFSRefUnicode", Address(&MakeRefUnicode)},
                              {"_FSGetCatalogInfo", Address(&GetCatalogInfo)},
                              {"_LSCopyItemInfoForRef", Address(&CopyItemInfo)},
                          });
    Supply(APPLICATION_SERVICES, {
                                     {"_GetProcessInformation", Address(&GetProcessInformation)},
                                 });
}

}  // namespace kelto_mac
