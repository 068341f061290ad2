#include "ThreadLocals.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "Supply.h"

namespace {

constexpr uint64_t IMAGES_MAX = 64;

}  // namespace

// The thread's copy of each image's variables; null until the first of them is wanted.
extern "C" __thread void* g_kelto_thread_locals[IMAGES_MAX];
__thread void* g_kelto_thread_locals[IMAGES_MAX];

// The thunk: rdi is the record, rax the variable's address; every other register keeps its value,
// also where the copy is made first.
extern "C" void* kelto_thread_local_address(kelto_mac::ThreadLocalVariable* aVariable);
asm(R"(
    .text
    .globl kelto_thread_local_address
    .type kelto_thread_local_address, @function
kelto_thread_local_address:
    movq 8(%rdi), %rax
    movq %fs:g_kelto_thread_locals@tpoff(,%rax,8), %rax
    testq %rax, %rax
    je 1f
    addq 16(%rdi), %rax
    ret
1:  pushq %rbp
    movq %rsp, %rbp
    pushq %rdi
    pushq %rsi
    pushq %rdx
    pushq %rcx
    pushq %r8
    pushq %r9
    pushq %r10
    pushq %r11
    subq $4096, %rsp
    andq $-64, %rsp
    xorl %eax, %eax
    leaq 512(%rsp), %rdi    # the header of the saved state is to be zero
    movl $8, %ecx
    rep stosq
    movl $0xE7, %eax        # x87, SSE, AVX, AVX-512
    xorl %edx, %edx
    xsave (%rsp)
    movq -8(%rbp), %rdi
    movq 8(%rdi), %rdi
    call kelto_make_thread_locals
    movq %rax, %rcx
    movl $0xE7, %eax
    xorl %edx, %edx
    xrstor (%rsp)
    movq %rcx, %rax
    leaq -64(%rbp), %rsp
    popq %r11
    popq %r10
    popq %r9
    popq %r8
    popq %rcx
    popq %rdx
    popq %rsi
    popq %rdi
    popq %rbp
    addq 16(%rdi), %rax
    ret
    .size kelto_thread_local_address, . - kelto_thread_local_address
)");

namespace kelto_mac {

namespace {

// The variables of an image as a thread finds them first.
struct Template {
    const void* initial = nullptr;
    uint64_t size = 0;
    uint64_t alignment = sizeof(void*);
};
Template s_templates[IMAGES_MAX];
uint64_t s_nTemplates = 0;

struct Destructor {
    void (*function)(void*);
    void* object;
    Destructor* next;
};
__thread Destructor* s_pDestructors = nullptr;

void TlvAtExit(void (*aFunction)(void*), void* aObject) {
    s_pDestructors = new Destructor{aFunction, aObject, s_pDestructors};
}

}  // namespace

extern "C" void* kelto_make_thread_locals(uint64_t aKey) {
    const Template& initial = s_templates[aKey];
    void* pCopy = nullptr;
    if (posix_memalign(&pCopy, initial.alignment, initial.size) != 0) {
        Refuse("no memory for thread-local variables");
    }
    memcpy(pCopy, initial.initial, initial.size);
    return g_kelto_thread_locals[aKey] = pCopy;
}

void PrepareThreadLocals(const Image& aImage) {
    Template initial;
    uint64_t first = UINT64_MAX;
    uint64_t end = 0;
    for (const Section& section : aImage.sections) {
        const uint32_t nType = section.flags & SECTION_TYPE;
        if (nType == S_THREAD_LOCAL_REGULAR || nType == S_THREAD_LOCAL_ZEROFILL) {
            first = std::min(first, section.addr);
            end = std::max(end, section.addr + section.size);
            initial.alignment = std::max(initial.alignment, uint64_t{1} << section.align);
        } else if (nType == S_THREAD_LOCAL_INIT_FUNCTION_POINTERS) {
            Refuse("%s initialises thread-local variables in a way that is not known",
                   aImage.path.c_str());
        }
    }
    if (first >= end) {
        return;
    }
    if (s_nTemplates == IMAGES_MAX) {
        Refuse("too many images with thread-local variables");
    }
    initial.initial = aImage.At(first);
    initial.size = end - first;
    s_templates[s_nTemplates] = initial;
    for (const Section& section : aImage.sections) {
        if ((section.flags & SECTION_TYPE) != S_THREAD_LOCAL_VARIABLES) {
            continue;
        }
        auto* const pVariables = static_cast<ThreadLocalVariable*>(aImage.At(section.addr));
        for (uint64_t i = 0; i < section.size / sizeof(ThreadLocalVariable); ++i) {
            pVariables[i].thunk = &kelto_thread_local_address;
            pVariables[i].key = s_nTemplates;
        }
    }
    ++s_nTemplates;
}

void DestroyThreadLocals() {
    while (s_pDestructors != nullptr) {
        Destructor* const pDestructor = s_pDestructors;
        s_pDestructors = pDestructor->next;
        pDestructor->function(pDestructor->object);
        delete pDestructor;
    }
}

void FreeThreadLocals() {
    for (void*& pCopy : g_kelto_thread_locals) {
        free(pCopy);
        pCopy = nullptr;
    }
}

void SupplyThreadLocals() {
    Supply({
        {"__tlv_bootstrap", Address(&kelto_thread_local_address)},
        {"__tlv_atexit", Address(&TlvAtExit)},
    });
}

}  // namespace kelto_mac
