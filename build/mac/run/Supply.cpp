#include "Supply.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <string>
#include <unordered_map>

namespace kelto_mac {

namespace {

using Names = std::unordered_map<std::string, const void*>;

// Never destroyed: programs look names up until they have ended.
std::unordered_map<std::string, Names>& Libraries() {
    static auto* const s_pLibraries = new std::unordered_map<std::string, Names>;
    return *s_pLibraries;
}

[[noreturn]] void ReportUnsupplied(const char* aText) {
    fprintf(stderr, "macho_run: %s\n", aText);
    abort();
}

}  // namespace

void Supply(const char* aLibrary, std::initializer_list<Supplied> aNames) {
    Names& names = Libraries()[aLibrary];
    for (const Supplied& supplied : aNames) {
        if (supplied.address == nullptr || !names.emplace(supplied.name, supplied.address).second) {
            Refuse("%s is supplied twice, or by nothing", supplied.name);
        }
    }
}

const void* FindSupplied(const char* aLibrary, const char* aName) {
    const auto library = Libraries().find(aLibrary);
    if (library == Libraries().end()) {
        return nullptr;
    }
    const auto name = library->second.find(aName);
    return name == library->second.end() ? nullptr : name->second;
}

const void* FindSuppliedAnywhere(const char* aName) {
    for (const auto& library : Libraries()) {
        const auto name = library.second.find(aName);
        if (name != library.second.end()) {
            return name->second;
        }
    }
    return nullptr;
}

void PrintSupplied() {
    for (const auto& library : Libraries()) {
        for (const auto& name : library.second) {
            puts(name.first.c_str());
        }
    }
}

bool IsSuppliedLibrary(const char* aLibrary) {
    return Libraries().count(aLibrary) != 0;
}

const void* UnsuppliedName(const char* aName, const char* aLibrary) {
    static auto* const s_pStubs = new std::unordered_map<std::string, const void*>;
    const void*& pStub = (*s_pStubs)[aName];
    if (pStub != nullptr) {
        return pStub;
    }
    const std::string sText =
        std::string(aName) + " of " + aLibrary + " was called; the loader does not supply it";
    const uint64_t text = reinterpret_cast<uint64_t>(strdup(sText.c_str()));
    const uint64_t report = reinterpret_cast<uint64_t>(&ReportUnsupplied);
    // mov rdi, text; mov rax, report; and rsp, -16; call rax
    uint8_t code[] = {0x48, 0xBF, 0, 0, 0, 0, 0, 0,    0,    0,    0x48, 0xB8, 0,
                      0,    0,    0, 0, 0, 0, 0, 0x48, 0x83, 0xE4, 0xF0, 0xFF, 0xD0};
    memcpy(code + 2, &text, sizeof(text));
    memcpy(code + 12, &report, sizeof(report));
    void* const pCode =
        mmap(nullptr, sizeof(code), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pCode == MAP_FAILED) {
        Refuse("no memory for a stub");
    }
    memcpy(pCode, code, sizeof(code));
    mprotect(pCode, sizeof(code), PROT_READ | PROT_EXEC);
    return pStub = pCode;
}

void Refuse(const char* aFormat, ...) {
    va_list arguments;
    va_start(arguments, aFormat);
    fflush(stdout);
    fputs("macho_run: ", stderr);
    vfprintf(stderr, aFormat, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    _Exit(126);
}

}  // namespace kelto_mac
