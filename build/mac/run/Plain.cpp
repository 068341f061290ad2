// The names that mean the same on both systems: same arguments, layouts, constants and results.
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>
#include <string>

#include "Numbers.h"
#include "Supply.h"

// The target's jmp_buf is smaller than this system's. Both leave the signal mask alone.
extern "C" int kelto_setjmp(long* aBuffer);
extern "C" void kelto_longjmp(long* aBuffer, int aResult);
asm(R"(
    .text
    .globl kelto_setjmp
kelto_setjmp:
    movq %rbx, (%rdi)
    movq %rbp, 8(%rdi)
    movq %r12, 16(%rdi)
    movq %r13, 24(%rdi)
    movq %r14, 32(%rdi)
    movq %r15, 40(%rdi)
    leaq 8(%rsp), %rax
    movq %rax, 48(%rdi)
    movq (%rsp), %rax
    movq %rax, 56(%rdi)
    xorl %eax, %eax
    ret
    .globl kelto_longjmp
kelto_longjmp:
    movl %esi, %eax
    testl %eax, %eax
    jne 1f
    incl %eax
1:  movq (%rdi), %rbx
    movq 8(%rdi), %rbp
    movq 16(%rdi), %r12
    movq 24(%rdi), %r13
    movq 32(%rdi), %r14
    movq 40(%rdi), %r15
    movq 48(%rdi), %rsp
    jmpq *56(%rdi)
)");

namespace kelto_mac {

namespace {

// A group an entry, the names parted by spaces.
constexpr const char* PLAIN_NAMES[] = {
    // memory and text
    "calloc free malloc memchr memcmp memcpy memmove memset realloc strcasecmp strchr strcmp "
    "strcpy strcspn strdup strlen strncasecmp strncmp strncpy strnlen strpbrk strrchr strstr "
    "wcscmp wcslen "
    "wcsstr "
    "wmemchr wmemcmp",
    // numbers
    "atoi atol ceilf nextafter remainder round strtod strtof strtol strtold strtoll strtoul "
    "strtoull "
    "wcstod wcstof wcstol wcstold wcstoll wcstoul wcstoull arc4random",
    // compiler support
    "__divti3",
    // streams
    "fclose fdopen feof ferror fflush fgetc fgets fileno fopen fprintf fputc fputs fputwc fread "
    "fseek "
    "fseeko ftell ftello fwrite getc getwc perror printf putchar puts remove rewind setbuf "
    "snprintf "
    "sscanf swprintf tmpfile ungetc ungetwc vfprintf vprintf vsnprintf",
    // files
    "access chdir chmod chown dup dup2 fchmod flock ftruncate getcwd isatty link mkdir mkdtemp "
    "mkfifo mkstemp "
    "pipe "
    "readlink rename symlink truncate umask unlink rmdir",
    // time
    "gettimeofday localtime_r mktime strftime strptime time times tzset",
    // processes
    "_exit abort alarm exit fork getenv geteuid getpid getrusage pause sched_yield setenv unsetenv",
    // network
    "gethostname",
};

void Bzero(void* aMemory, size_t aLength) {
    memset(aMemory, 0, aLength);
}

void MemsetPattern16(void* aMemory, const void* aPattern, size_t aLength) {
    auto* pTo = static_cast<char*>(aMemory);
    for (; aLength > 16; aLength -= 16, pTo += 16) {
        memcpy(pTo, aPattern, 16);
    }
    memcpy(pTo, aPattern, aLength);
}

int PosixMemalign(void** aMemory, size_t aAlignment, size_t aLength) {
    return ErrorToTarget(posix_memalign(aMemory, aAlignment, aLength));
}

int AtExit(void (*aFunction)()) {
    return atexit(aFunction);
}

}  // namespace

void SupplyPlainNames() {
    for (const char* pszGroup : PLAIN_NAMES) {
        std::istringstream names(pszGroup);
        for (std::string sName; names >> sName;) {
            Supply({{("_" + sName).c_str(), dlsym(RTLD_DEFAULT, sName.c_str())}});
        }
    }
    Supply({
        {"___bzero", Address(&Bzero)},
        {"_pthread_atfork", Address(&pthread_atfork)},
        {"_setjmp", Address(&kelto_setjmp)},
        {"__setjmp", Address(&kelto_setjmp)},
        {"_longjmp", Address(&kelto_longjmp)},
        {"__longjmp", Address(&kelto_longjmp)},
        {"_memset_pattern16", Address(&MemsetPattern16)},
        {"_posix_memalign", Address(&PosixMemalign)},
        {"_atexit", Address(&AtExit)},
        {"___cxa_atexit", dlsym(RTLD_DEFAULT, "__cxa_atexit")},
    });
}

}  // namespace kelto_mac
