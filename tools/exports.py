#!/usr/bin/env python3
"""Compares what a built library exports with cmake/exports.txt.

    tools/exports.py check LIBRARY     exit status 1, and the differences, unless they are the same
    tools/exports.py update LIBRARY    makes the list what LIBRARY exports

LIBRARY is a Linux or a macOS library; both must export the same names, so the list holds them as
they are declared, without what differs by platform: the leading underscore of Mach-O, the inline
namespaces of the standard libraries, and the types that are named by typedefs.
"""
import pathlib
import re
import subprocess
import sys

LIST = pathlib.Path(__file__).parent.parent / "cmake" / "exports.txt"
HEADER = """# Everything that the library exports, on every platform, as it is declared.
# tools/exports.py compares and updates this list.
"""
# What the linkers themselves define.
LINKER_NAMES = {"_init", "_fini", "_edata", "_end", "__bss_start", "__dso_handle", "_mh_dylib_header"}

# Demangled text that differs by platform, and how the list spells it.
SPELLINGS = [
    (r"\[abi:cxx11\]", ""),
    (r"std::__(cxx11|1)::", "std::"),
    (r"std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "std::string"),
    (r"\b(_IO_FILE|__sFILE)\b", "FILE"),
    (r"_opaque_pthread_t\*", "unsigned long"),
    (r"> >", ">>"),
]


def output_of(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def is_elf_file(library):
    return pathlib.Path(library).read_bytes()[:4] == b"\x7fELF"


def exported_names(library):
    is_elf = is_elf_file(library)
    which = ["--dynamic"] if is_elf else ["--extern-only"]
    lines = output_of("llvm-nm", "--defined-only", "--format=just-symbols", *which, library).split()
    mangled = [line if is_elf else line[1:] for line in lines]
    names = set()
    for name in output_of("llvm-cxxfilt", text="\n".join(mangled)).splitlines():
        for pattern, spelling in SPELLINGS:
            name = re.sub(pattern, spelling, name)
        names.add(name)
    # Compilers differ in whether they export the tables that a constructor passes through.
    names = {name for name in names if not name.startswith("construction vtable for ")}
    return names - LINKER_NAMES


def listed_names():
    lines = LIST.read_text().splitlines() if LIST.exists() else []
    return {line for line in lines if line and not line.startswith("#")}


def with_int64_as_listed(names, listed):
    """An int64_t is a long on Linux and a long long on macOS; the list has the former."""
    result = set()
    for name in names:
        spelling = name.replace("long long", "long")
        differs = name not in listed and spelling in listed and spelling not in names
        result.add(spelling if differs else name)
    return result


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ("check", "update"):
        sys.exit(__doc__)
    names = exported_names(sys.argv[2])
    if sys.argv[1] == "update":
        LIST.write_text(HEADER + "".join(name + "\n" for name in sorted(names)))
        print(f"{LIST.name}: {len(names)} names")
        return
    listed = listed_names()
    if not is_elf_file(sys.argv[2]):
        names = with_int64_as_listed(names, listed)
    for name in sorted(listed - names):
        print(f"not exported: {name}")
    for name in sorted(names - listed):
        print(f"not listed:   {name}")
    if not names or names != listed:
        sys.exit(f"{sys.argv[2]}: exports differ from {LIST.name}")
    print(f"{sys.argv[2]}: exports the {len(names)} names listed")


if __name__ == "__main__":
    main()
