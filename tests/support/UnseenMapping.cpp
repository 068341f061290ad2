// Of programs with the thread sanitizer: a mapping that takes the place of another is no write to
// it.
//
// The sanitizer counts it as one, and so finds a race with whoever uses that memory meanwhile,
// which is what the library does on purpose.
#include <sys/mman.h>

#include "CmSystem.h"

extern "C" {
void AnnotateIgnoreWritesBegin(const char* aFile, int aLine);
void AnnotateIgnoreWritesEnd(const char* aFile, int aLine);
}

namespace {

void* MapUnseen(void* aAddress, size_t aSize, int aProtection, int aFlags, int aFile,
                off_t aOffset) {
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    void* const pMapped = mmap(aAddress, aSize, aProtection, aFlags, aFile, aOffset);
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    return pMapped;
}

[[maybe_unused]] const bool s_bReplaced = [] {
    UTIL_NS::g_cmSystem.mmap = MapUnseen;
    return true;
}();

}  // namespace
