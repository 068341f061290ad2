// Part of a shared library that must not be unloaded, where the linker has no option for that.
#include <dlfcn.h>

namespace {

// A thread that traced calls into the library when it exits, whether or not the host has closed it.
__attribute__((constructor)) void StayLoaded() {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(&StayLoaded), &info) != 0) {
        dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

}  // namespace
