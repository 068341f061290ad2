// The part of CmPort.h that is the same on all platforms of today.
#include <dlfcn.h>

#include <cstring>

#include "CmPort.h"
#include "CmSystem.h"

namespace UTIL_NS {

namespace {

// An object of the library's own, for the loader to look up.
const char s_chOfThisModule = 0;

}  // namespace

bool CmPortModulePath(char* aBuffer, size_t aSize) {
    Dl_info info;
    if (g_cmSystem.dladdr(&s_chOfThisModule, &info) == 0 || info.dli_fname == nullptr) {
        return false;
    }
    const size_t nSize = std::strlen(info.dli_fname) + 1;
    if (nSize > aSize) {
        return false;
    }
    std::memcpy(aBuffer, info.dli_fname, nSize);
    return true;
}

void CmPortNameOfThread(pthread_t aThread, char* aName, size_t aSize) {
    if (pthread_getname_np(aThread, aName, aSize) != 0) {
        aName[0] = '\0';
    }
}

}  // namespace UTIL_NS
