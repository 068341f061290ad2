// The names that the loader itself supplies: what a Mac's system library and frameworks export.
#ifndef MAC_RUN_SUPPLY_H
#define MAC_RUN_SUPPLY_H

#include <initializer_list>

namespace kelto_mac {

// A name as a Mach-O file spells it, with its leading underscore, and what it stands for.
struct Supplied {
    const char* name;
    const void* address;
};

template <class Result, class... Arguments>
const void* Address(Result (*aFunction)(Arguments...)) {
    return reinterpret_cast<const void*>(aFunction);
}
template <class Result, class... Arguments>
const void* Address(Result (*aFunction)(Arguments..., ...)) {
    return reinterpret_cast<const void*>(aFunction);
}

// The libraries that the loader stands for, by their install names.
constexpr char SYSTEM_LIBRARY[] = "/usr/lib/libSystem.B.dylib";

// Adds to what aLibrary exports; once a name.
void Supply(const char* aLibrary, std::initializer_list<Supplied> aNames);
inline void Supply(std::initializer_list<Supplied> aNames) {
    Supply(SYSTEM_LIBRARY, aNames);
}

// Null: the library is none of the loader's, or has no such name.
const void* FindSupplied(const char* aLibrary, const char* aName);
// In whichever of them.
const void* FindSuppliedAnywhere(const char* aName);
bool IsSuppliedLibrary(const char* aLibrary);
// To standard output, one name a line.
void PrintSupplied();

// A function that says that nobody supplies aName, and ends the process: it is what an import is
// bound to that the loader lacks, so that a program which does not call it runs.
const void* UnsuppliedName(const char* aName, const char* aLibrary);

// One group of names a file.
void SupplyPlainNames();
void SupplyErrors();
void SupplyThreads();
void SupplyLocks();
void SupplyThreadLocals();
void SupplyDynamicLinking();
void SupplyFiles();
void SupplyStreams();
void SupplyNetwork();
void SupplyTime();
void SupplySignals();
void SupplyProcesses();
void SupplyRegularExpressions();
void SupplyLocale();
void SupplyDesktopServices();

// Prints a line to standard error and ends the process at once, as a failed load does.
[[noreturn]] void Refuse(const char* aFormat, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kelto_mac

#endif  // MAC_RUN_SUPPLY_H
