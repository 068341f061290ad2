// What the loader reads of a Mach-O file: the records and numbers of the 64-bit format.
#ifndef MAC_RUN_MACH_O_H
#define MAC_RUN_MACH_O_H

#include <stdint.h>

namespace kelto_mac {

constexpr uint32_t MH_MAGIC_64 = 0xFEEDFACF;
constexpr int32_t CPU_TYPE_X86_64 = 0x01000007;

constexpr uint32_t MH_EXECUTE = 2;
constexpr uint32_t MH_DYLIB = 6;
constexpr uint32_t MH_BUNDLE = 8;

constexpr uint32_t MH_PIE = 0x200000;

struct MachHeader {
    uint32_t magic;
    int32_t cputype;
    int32_t cpusubtype;
    uint32_t filetype;
    uint32_t ncmds;
    uint32_t sizeofcmds;
    uint32_t flags;
    uint32_t reserved;
};

// Commands whose effect this loader would have to have, but has not, carry this bit.
constexpr uint32_t LC_REQ_DYLD = 0x80000000;
constexpr uint32_t LC_SYMTAB = 0x2;
constexpr uint32_t LC_LOAD_DYLIB = 0xC;
constexpr uint32_t LC_ID_DYLIB = 0xD;
constexpr uint32_t LC_SEGMENT_64 = 0x19;
constexpr uint32_t LC_LOAD_WEAK_DYLIB = 0x18 | LC_REQ_DYLD;
constexpr uint32_t LC_RPATH = 0x1C | LC_REQ_DYLD;
constexpr uint32_t LC_REEXPORT_DYLIB = 0x1F | LC_REQ_DYLD;
constexpr uint32_t LC_DYLD_INFO_ONLY = 0x22 | LC_REQ_DYLD;
constexpr uint32_t LC_MAIN = 0x28 | LC_REQ_DYLD;
constexpr uint32_t LC_DYLD_CHAINED_FIXUPS = 0x34 | LC_REQ_DYLD;

struct LoadCommand {
    uint32_t cmd;
    uint32_t cmdsize;
};

struct SegmentCommand {
    LoadCommand command;
    char segname[16];
    uint64_t vmaddr;
    uint64_t vmsize;
    uint64_t fileoff;
    uint64_t filesize;
    int32_t maxprot;
    int32_t initprot;
    uint32_t nsects;
    uint32_t flags;
};

constexpr uint32_t SECTION_TYPE = 0xFF;
constexpr uint32_t S_MOD_INIT_FUNC_POINTERS = 0x9;
constexpr uint32_t S_MOD_TERM_FUNC_POINTERS = 0xA;
constexpr uint32_t S_THREAD_LOCAL_REGULAR = 0x11;
constexpr uint32_t S_THREAD_LOCAL_ZEROFILL = 0x12;
constexpr uint32_t S_THREAD_LOCAL_VARIABLES = 0x13;
constexpr uint32_t S_THREAD_LOCAL_INIT_FUNCTION_POINTERS = 0x15;
constexpr uint32_t S_INIT_FUNC_OFFSETS = 0x16;

struct Section {
    char sectname[16];
    char segname[16];
    uint64_t addr;
    uint64_t size;
    uint32_t offset;
    uint32_t align;  // a power of two
    uint32_t reloff;
    uint32_t nreloc;
    uint32_t flags;
    uint32_t reserved[3];
};

struct SymtabCommand {
    LoadCommand command;
    uint32_t symoff;
    uint32_t nsyms;
    uint32_t stroff;
    uint32_t strsize;
};

constexpr uint8_t N_STAB = 0xE0;
constexpr uint8_t N_TYPE = 0x0E;
constexpr uint8_t N_SECT = 0x0E;

struct Symbol {
    uint32_t strx;
    uint8_t type;
    uint8_t sect;
    uint16_t desc;
    uint64_t value;
};

struct DylibCommand {
    LoadCommand command;
    uint32_t name;  // its offset within the command
    uint32_t timestamp;
    uint32_t current_version;
    uint32_t compatibility_version;
};

struct RpathCommand {
    LoadCommand command;
    uint32_t path;
};

struct DyldInfoCommand {
    LoadCommand command;
    uint32_t rebase_off, rebase_size;
    uint32_t bind_off, bind_size;
    uint32_t weak_bind_off, weak_bind_size;
    uint32_t lazy_bind_off, lazy_bind_size;
    uint32_t export_off, export_size;
};

struct EntryPointCommand {
    LoadCommand command;
    uint64_t entryoff;
    uint64_t stacksize;
};

// A record of S_THREAD_LOCAL_VARIABLES: code reaches the variable by calling the thunk with the
// record's address.
struct ThreadLocalVariable {
    void* (*thunk)(ThreadLocalVariable*);
    uint64_t key;
    uint64_t offset;
};

// ---- Dyld information: each byte is an operation and, in its low half, an operand.

constexpr uint8_t OPERATION = 0xF0;
constexpr uint8_t OPERAND = 0x0F;
constexpr uint8_t TYPE_POINTER = 1;

constexpr uint8_t REBASE_DONE = 0x00;
constexpr uint8_t REBASE_SET_TYPE = 0x10;
constexpr uint8_t REBASE_SET_SEGMENT_AND_OFFSET = 0x20;
constexpr uint8_t REBASE_ADD_ADDRESS = 0x30;
constexpr uint8_t REBASE_ADD_ADDRESS_SCALED = 0x40;
constexpr uint8_t REBASE_DO_TIMES = 0x50;
constexpr uint8_t REBASE_DO_TIMES_COUNTED = 0x60;
constexpr uint8_t REBASE_DO_ADD_ADDRESS = 0x70;
constexpr uint8_t REBASE_DO_TIMES_SKIPPING = 0x80;

constexpr uint8_t BIND_DONE = 0x00;
constexpr uint8_t BIND_SET_ORDINAL = 0x10;
constexpr uint8_t BIND_SET_ORDINAL_COUNTED = 0x20;
constexpr uint8_t BIND_SET_ORDINAL_SPECIAL = 0x30;
constexpr uint8_t BIND_SET_SYMBOL = 0x40;
constexpr uint8_t BIND_SET_TYPE = 0x50;
constexpr uint8_t BIND_SET_ADDEND = 0x60;
constexpr uint8_t BIND_SET_SEGMENT_AND_OFFSET = 0x70;
constexpr uint8_t BIND_ADD_ADDRESS = 0x80;
constexpr uint8_t BIND_DO = 0x90;
constexpr uint8_t BIND_DO_ADD_ADDRESS = 0xA0;
constexpr uint8_t BIND_DO_ADD_ADDRESS_SCALED = 0xB0;
constexpr uint8_t BIND_DO_TIMES_SKIPPING = 0xC0;

constexpr uint8_t BIND_FLAG_WEAK_IMPORT = 0x1;
constexpr uint8_t BIND_FLAG_STRONG_DEFINITION = 0x8;

constexpr int ORDINAL_SELF = 0;
constexpr int ORDINAL_MAIN_EXECUTABLE = -1;
constexpr int ORDINAL_FLAT = -2;
constexpr int ORDINAL_WEAK = -3;

constexpr uint64_t EXPORT_KIND = 0x3;
constexpr uint64_t EXPORT_ABSOLUTE = 0x2;
constexpr uint64_t EXPORT_WEAK_DEFINITION = 0x4;
constexpr uint64_t EXPORT_REEXPORT = 0x8;
constexpr uint64_t EXPORT_STUB_AND_RESOLVER = 0x10;

}  // namespace kelto_mac

#endif  // MAC_RUN_MACH_O_H
