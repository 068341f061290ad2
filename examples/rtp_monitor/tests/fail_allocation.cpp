// Makes allocations of a program fail, which loads this before the C++ library: with
// FAIL_ALLOCATION=12 the 12th operator new of all its threads, with 12+8 that and the 7 after it.
// It then makes the file FAILED_ALLOCATION.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long> s_ulAllocations{0};

struct CWanted {
    CWanted() {
        if (const char* const pszWanted = std::getenv("FAIL_ALLOCATION")) {
            char* pchEnd = nullptr;
            m_ulFirst = std::strtoul(pszWanted, &pchEnd, 10);
            m_ulCount = *pchEnd == '+' ? std::strtoul(pchEnd + 1, nullptr, 10) : 1;
        }
    }
    unsigned long m_ulFirst = 0;
    unsigned long m_ulCount = 0;
};

void* Allocate(size_t aSize) {
    static const CWanted s_wanted;
    // Below the first one it wraps round.
    if (++s_ulAllocations - s_wanted.m_ulFirst >= s_wanted.m_ulCount) {
        return std::malloc(aSize != 0 ? aSize : 1);
    }
    const char* const pszFile = std::getenv("FAILED_ALLOCATION");
    if (pszFile != nullptr) {
        close(open(pszFile, O_WRONLY | O_CREAT, 0666));
    }
    return nullptr;
}

void* AllocateOrThrow(size_t aSize) {
    void* const pMemory = Allocate(aSize);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

}  // namespace

void* operator new(size_t aSize) {
    return AllocateOrThrow(aSize);
}
void* operator new[](size_t aSize) {
    return AllocateOrThrow(aSize);
}
void* operator new(size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize);
}
void* operator new[](size_t aSize, const std::nothrow_t&) noexcept {
    return Allocate(aSize);
}
void operator delete(void* aMemory) noexcept {
    std::free(aMemory);
}
void operator delete[](void* aMemory) noexcept {
    std::free(aMemory);
}
void operator delete(void* aMemory, size_t) noexcept {
    std::free(aMemory);
}
void operator delete[](void* aMemory, size_t) noexcept {
    std::free(aMemory);
}
