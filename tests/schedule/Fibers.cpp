#include "schedule/Fibers.h"

#include <link.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif
#include <signal.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kelto_test {

namespace {

constexpr size_t STACK_SIZE = 512 * 1024;
// What the sleeping thread's own frames need.
constexpr size_t PARKED_SIZE = 32 * 1024;

// Written by the thread that is being made, read by the one that makes it.
CFiber* volatile s_pMade = nullptr;
// The fiber whose thread this is, until its first job.
thread_local CFiber* t_pFiber = nullptr;

void GiveUp(const char* aWhat) {
    std::fprintf(stderr, "schedule: %s failed\n", aWhat);
    std::abort();
}

uintptr_t ThreadPointer() {
    uintptr_t ulPointer = 0;
    __asm__ volatile("movq %%fs:0, %0" : "=r"(ulPointer));
    return ulPointer;
}

// The thread-local variables of this program; those of libraries are theirs.
struct CThreadLocals {
    uintptr_t m_ulDistance = 0;  // from the block to the thread pointer
    const char* m_pImage = nullptr;
    size_t m_nImage = 0;
    size_t m_nBlock = 0;
};

int FindThreadLocals(dl_phdr_info* aInfo, size_t /*aSize*/, void* aFound) {
    auto& found = *static_cast<CThreadLocals*>(aFound);
    for (int i = 0; i < aInfo->dlpi_phnum; ++i) {
        const auto& header = aInfo->dlpi_phdr[i];
        if (header.p_type == PT_TLS) {
            found.m_ulDistance =
                ThreadPointer() - reinterpret_cast<uintptr_t>(aInfo->dlpi_tls_data);
            found.m_pImage = reinterpret_cast<const char*>(aInfo->dlpi_addr + header.p_vaddr);
            found.m_nImage = header.p_filesz;
            found.m_nBlock = header.p_memsz;
        }
    }
    return 1;  // the program comes first
}

CThreadLocals OwnThreadLocals() {
    CThreadLocals found;
    dl_iterate_phdr(&FindThreadLocals, &found);
    return found;
}

const CThreadLocals s_ThreadLocals = OwnThreadLocals();
const unsigned long s_ulCapabilities = getauxval(AT_HWCAP2);

}  // namespace

struct CFiberSteps {
    static _Unwind_Reason_Code Stop(int /*aVersion*/, _Unwind_Action aActions,
                                    _Unwind_Exception_Class /*aClass*/,
                                    _Unwind_Exception* /*aException*/, _Unwind_Context* aContext,
                                    void* aFiber) {
        CFiber& fiber = *static_cast<CFiber*>(aFiber);
        if ((aActions & _UA_END_OF_STACK) != 0 ||
            _Unwind_GetCFA(aContext) > reinterpret_cast<uintptr_t>(fiber.m_pBase)) {
            longjmp(fiber.m_Back, 1);
        }
        return _URC_NO_REASON;
    }
};

// clang-format off
// rdi: where to store the stack, rsi: the stack to go on with, rdx: its thread pointer,
// ecx: whether the processor may set it itself
__asm__(R"(
    .text
    .type kelto_switch_context, @function
kelto_switch_context:
    .cfi_startproc
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    testl %ecx, %ecx
    jz 1f
    wrfsbase %rdx
    jmp 2f
1:  movq %rdx, %rsi
    movl $0x1002, %edi
    movl $158, %eax
    syscall
2:  popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .cfi_endproc
    .size kelto_switch_context, .-kelto_switch_context
)");
// clang-format on
extern "C" void kelto_switch_context(void** aFrom, void* aTo, uintptr_t aThreadPointer,
                                     int aDirectly);

void SwitchContext(CContext& aFrom, const CContext& aTo) {
    constexpr unsigned long MAY_SET_THREAD_POINTER = 2;  // HWCAP2_FSGSBASE
    const int nDirectly = (s_ulCapabilities & MAY_SET_THREAD_POINTER) != 0 ? 1 : 0;
    aFrom.m_ulThreadPointer = ThreadPointer();
    kelto_switch_context(&aFrom.m_pStack, aTo.m_pStack, aTo.m_ulThreadPointer, nDirectly);
}

void CFiber::Enter() {
    CFiber& fiber = *t_pFiber;
    for (;;) {
        fiber.m_Job(fiber);
    }
}

void* CFiber::Park(void* aFiber) {
    CFiber& fiber = *static_cast<CFiber*>(aFiber);
    t_pFiber = &fiber;
    // What the first switch takes off the stack: six registers and where to go on.
    auto* pTop = static_cast<char*>(__builtin_frame_address(0)) - PARKED_SIZE;
    pTop = reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(pTop) & ~uintptr_t(63));
    auto** ppStack = reinterpret_cast<void**>(pTop);
    *--ppStack = nullptr;  // nobody called Enter
    *--ppStack = reinterpret_cast<void*>(&CFiber::Enter);
    for (int i = 0; i < 6; ++i) {
        *--ppStack = nullptr;
    }
    fiber.m_Context.m_pStack = ppStack;
    fiber.m_Context.m_ulThreadPointer = ThreadPointer();
    __atomic_store_n(&s_pMade, &fiber, __ATOMIC_RELEASE);
    for (;;) {
        syscall(
            SYS_pause);  // not by name: ThreadSanitizer would take all that follows for part of it
    }
    return nullptr;
}

void CFiber::Make(Job aJob) {
    m_Job = aJob;
    // Not on the way back of a signal: it would run on a stack that is in use.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_pStack = mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, m_pStack, STACK_SIZE);
    if (pthread_create(&m_Id, &attributes, &CFiber::Park, this) != 0) {
        GiveUp("pthread_create");
    }
    pthread_attr_destroy(&attributes);
    while (__atomic_load_n(&s_pMade, __ATOMIC_ACQUIRE) != this) {
        usleep(50);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void CFiber::Unwind() {
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer does not see that frames go.
    __asan_unpoison_memory_region(
        m_pStack, static_cast<size_t>(static_cast<char*>(m_pBase) - static_cast<char*>(m_pStack)));
#endif
    // Of no language, so that nothing but clean-up runs.
    static thread_local _Unwind_Exception t_exception;
    t_exception = _Unwind_Exception();
    _Unwind_ForcedUnwind(&t_exception, &CFiberSteps::Stop, this);
    GiveUp("_Unwind_ForcedUnwind");
    std::abort();
}

void CFiber::ResetThreadLocals() {
    auto* const pBlock = reinterpret_cast<char*>(ThreadPointer() - s_ThreadLocals.m_ulDistance);
    std::memcpy(pBlock, s_ThreadLocals.m_pImage, s_ThreadLocals.m_nImage);
    std::memset(pBlock + s_ThreadLocals.m_nImage, 0,
                s_ThreadLocals.m_nBlock - s_ThreadLocals.m_nImage);
}

}  // namespace kelto_test
