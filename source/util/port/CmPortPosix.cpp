// The part of CmPort.h that is the same on all platforms of today.
#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "CmPort.h"
#include "CmSystem.h"

namespace UTIL_NS {

namespace {

// An object of the library's own, for the loader to look up.
const char s_chOfThisModule{};

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

void CmPortNameOfThisThread(char* aName, size_t aSize) {
    CmPortNameOfThread(pthread_self(), aName, aSize);
}

// The word in front of the virtual functions is the address of the type information.
const char* CmPortClassName(const void* aTable) {
    const std::type_info* const pType = static_cast<const std::type_info* const*>(aTable)[-1];
    return pType == nullptr ? nullptr : pType->name();
}

void CmPortReadableClassName(const char* aName, char* aText, size_t aSize) {
    char* const pszReadable = abi::__cxa_demangle(aName, nullptr, nullptr, nullptr);
    std::snprintf(aText, aSize, "%s", pszReadable != nullptr ? pszReadable : aName);
    std::free(pszReadable);
}

}  // namespace UTIL_NS
