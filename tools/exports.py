#!/usr/bin/env python3
"""Compares what built libraries export with cmake/exports.txt and with the public headers.

    tools/exports.py check LIBRARY...  exit status 1, and the differences, unless they are the same
    tools/exports.py update LIBRARY    makes the list what LIBRARY exports

LIBRARY is a Linux or a macOS library, for x86-64 or arm64, or a universal one, of which each slice
is compared. All must export the same names, so the list holds them as they are declared, without what
differs by platform: the leading underscore of Mach-O, the inline namespaces of the standard
libraries, and the types that are named by typedefs. On arm64 macOS has one difference more: type
information that no virtual table goes with belongs to each library that uses it.

A public header must give each name to hosts: by a public or protected declaration, or as a table
of a class that hosts can name. What is left are steps of the library's own. Those that hosts' code
refers to without naming them stand in cmake/exports-inner.txt, each with what refers to it:

    NAME  <-  CALLER      an inline function, a template or a class of a public header that calls NAME
                          or, where NAME is a table, derives from its class
    NAME  <-  virtual     a private virtual function: the tables of derived classes hold its address
    NAME  <-  stated      private, and part of the binary interface all the same

A line there that is not, or no longer, so is an error as well. clang++ reads the headers.
"""
import argparse
import collections
import json
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
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

FUNCTIONS = ("FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl",
             "CXXConversionDecl")
CLASSES = ("CXXRecordDecl", "ClassTemplateSpecializationDecl")
ARM64 = "arm64"
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: ARM64}  # of Mach-O
TABLES = re.compile(r"(?:vtable|typeinfo name|typeinfo|VTT) for (.*)")
THUNKS = re.compile(r"(?:(?:non-)?virtual thunk|covariant return thunk) to (.*)")
VIRTUAL = "virtual"
STATED = "stated"


def output_of(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def is_elf_file(library):
    return pathlib.Path(library).read_bytes()[:4] == b"\x7fELF"


def processors(library):
    """Whose code a Mach-O library has."""
    content = pathlib.Path(library).read_bytes()
    magic, count = struct.unpack_from(">2I", content)
    if magic == 0xCAFEBABE:  # universal: 20 bytes a slice, the processor first
        return [PROCESSORS[struct.unpack_from(">I", content, 8 + 20 * i)[0]] for i in range(count)]
    return [PROCESSORS[struct.unpack_from("<I", content, 4)[0]]]


def as_listed(mangled):
    """The mangled names as the list spells them, in the same order."""
    result = []
    for name in output_of("llvm-cxxfilt", text="\n".join(mangled)).splitlines():
        for pattern, spelling in SPELLINGS:
            name = re.sub(pattern, spelling, name)
        result.append(name)
    return result


def qualified_name(name):
    """Without arguments, of templates and of functions."""
    name, found = name.partition("(")[0], 1
    while found:
        name, found = re.subn(r"<[^<>]*>", "", name)
    return name


def exported_names(library, processor=None):
    is_elf = is_elf_file(library)
    which = ["--dynamic"] if is_elf else ["--extern-only"]
    if processor:
        which.append(f"--arch={processor}")
    lines = output_of("llvm-nm", "--defined-only", "--format=just-symbols", *which, library).split()
    names = set(as_listed(line if is_elf else line[1:] for line in lines))
    # Compilers differ in whether they export the tables that a constructor passes through.
    names = {name for name in names if not name.startswith("construction vtable for ")}
    return names - LINKER_NAMES


def listed_names(file):
    lines = file.read_text().splitlines() if file.exists() else []
    return {line for line in lines if line and not line.startswith("#")}


def with_int64_as_listed(names, listed):
    """An int64_t is a long on Linux and a long long on macOS; the list has the former."""
    result = set()
    for name in names:
        spelling = name.replace("long long", "long")
        differs = name not in listed and spelling in listed and spelling not in names
        result.add(spelling if differs else name)
    return result


def without_lone_types(listed):
    """The list without the type information of classes that have no virtual table."""
    result = set()
    for name in listed:
        table = re.fullmatch(r"typeinfo(?: name)? for (.*)", name)
        if not table or f"vtable for {table[1]}" in listed:
            result.add(name)
    return result


def class_of(node):
    """The name of the class that a node is of."""
    name = node["type"].get("desugaredQualType", node["type"]["qualType"])
    return qualified_name(name.replace("const ", ""))


class Headers:
    """What the headers of a directory declare, and which of it their inline code refers to."""

    def __init__(self, directory):
        self.directory = str(pathlib.Path(directory).resolve()) + "/"
        self.given = set()      # mangled names and "class NAME"
        self.places = {}        # mangled name: (header, line) of its first declaration
        self.virtual = set()    # mangled names of virtual functions that derived tables hold
        self.callers = collections.defaultdict(set)  # mangled or qualified name: callers
        self.names = {}         # id of a declaration: mangled name
        self.patterns = {}      # id of a variable or of a declaration in a template: qualified name
        self.scopes = {}        # id of a class: the names around its members
        self.constructors = {}  # (class, type): mangled name
        self.uses = []          # (caller, id or (class, type) or qualified name)
        for file, node in self.read():
            self.file, self.line = file, 0
            self.walk(node, [], True, False, "")
        for caller, used in self.uses:
            if isinstance(used, str) and not used.startswith("0x"):
                self.callers[used].add(caller)
            for known in (self.names, self.constructors, self.patterns):
                if used in known:
                    self.callers[known[used]].add(caller)
        mangled = sorted(self.places)
        self.spelled = dict(zip(mangled, as_listed(mangled)))

    def read(self):
        """Yields the outermost declarations of the headers and in which file each begins."""
        with tempfile.NamedTemporaryFile("w", suffix=".cpp") as unit:
            for header in sorted(pathlib.Path(self.directory).glob("*.h")):
                unit.write(f'#include "{header}"\n')
            unit.flush()
            command = ["clang++", "-std=c++17", "-fsyntax-only", "-I", self.directory,
                       "-Xclang", "-ast-dump=json", unit.name]
            with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as clang:
                yield from self.split(clang.stdout)
            if clang.returncode:
                sys.exit(f"clang++ does not compile the headers in {self.directory}")

    # The dump has hundreds of megabytes, nearly all of other headers, so only the declarations that
    # matter are parsed. A place names its file only when it is another one than the last place's.
    def split(self, lines):
        file = begins_in = ""
        part, wanted, is_includer = [], False, False
        for line in lines:
            if line == "    {\n":
                part, begins_in, wanted = [], file, file.startswith(self.directory)
            elif line.startswith('"file": "', len(line) - len(line.lstrip())):
                if not is_includer:
                    file = line.split('"')[3]
                    wanted = wanted or file.startswith(self.directory)
            is_includer = line.endswith('"includedFrom": {\n')
            part.append(line)
            if line in ("    }\n", "    },\n"):
                if wanted:
                    yield begins_in, json.loads("".join(part).rstrip(",\n"))
                part = []

    def note_place(self, node):
        """Follows the places in the order of the dump; returns the node's own."""
        own = None
        for place in (node.get("loc"), *(node.get("range") or {}).values()):
            for part in (place, *((place or {}).get(key) for key in ("spellingLoc", "expansionLoc"))):
                if part and ("line" in part or "file" in part):
                    self.file, self.line = part.get("file", self.file), part.get("line", self.line)
            own = own or (self.file, self.line)
        return own

    def walk(self, node, scopes, is_open, is_final, caller):
        """scopes: names around the node. is_open: hosts can name what is declared here.
        is_final: in a class that nobody derives from. caller: the function that the node is in."""
        place = self.note_place(node)
        kind = node.get("kind", "")
        name = node.get("name", "")
        inner = [child for child in node.get("inner", []) if isinstance(child, dict)]
        # A definition outside of its class names the class.
        scopes = within = self.scopes.get(node.get("parentDeclContextId"), scopes)
        if kind in FUNCTIONS or kind == "VarDecl":
            self.note_declaration(node, inner, scopes, is_open, is_final, place)
        if kind in FUNCTIONS:
            caller = "::".join(scopes + [name])
        elif kind in CLASSES or kind == "NamespaceDecl":
            within = scopes + [name] if name and not node.get("isInline") else scopes
            self.scopes[node["id"]] = within
        if kind in CLASSES and name and is_open:
            self.given.add("class " + "::".join(within))
        self.note_use(node, caller or "::".join(within))
        if kind in CLASSES:
            is_final = any(child.get("kind") == "FinalAttr" for child in inner)
        access = "private" if node.get("tagUsed") == "class" else "public"
        for child in inner:
            if child.get("kind") == "AccessSpecDecl":
                access = child["access"]
            closed = (kind in CLASSES and access == "private" and not child.get("isImplicit")) or (
                kind == "FriendDecl")
            self.walk(child, within, is_open and not closed, is_final, caller)

    def note_declaration(self, node, inner, scopes, is_open, is_final, place):
        name = node.get("mangledName")
        if not name or node["kind"] == "VarDecl":
            self.patterns[node["id"]] = "::".join(scopes + [node.get("name", "")])
        if not name:
            return
        self.names[node["id"]] = name
        if node["kind"] == "CXXConstructorDecl":
            self.constructors["::".join(scopes), node["type"]["qualType"]] = name
        if "parentDeclContextId" in node or not place[0].startswith(self.directory):
            return  # a definition outside of its class repeats a declaration
        self.places.setdefault(name, (place[0][len(self.directory):], place[1]))
        if is_open:
            self.given.add(name)
        is_virtual = node.get("virtual") or any(part.get("kind") == "OverrideAttr" for part in inner)
        if is_virtual and not is_final:
            self.virtual.add(name)

    def note_use(self, node, caller):
        if "referencedMemberDecl" in node:
            self.uses.append((caller, node["referencedMemberDecl"]))
        if "referencedDecl" in node:
            self.uses.append((caller, node["referencedDecl"].get("id")))
        if "ctorType" in node:
            self.uses.append((caller, (class_of(node), node["ctorType"]["qualType"])))
        # What no expression names: the destructors of objects, and what a derived class or another
        # constructor takes of a class.
        if node.get("kind") in ("VarDecl", "FieldDecl"):
            self.note_class(caller, class_of(node), "~")
        if node.get("kind") == "FriendDecl" and "<" in node.get("type", {}).get("qualType", ""):
            self.note_class(class_of(node), caller, "", "~")  # a template that makes and ends it
        for base in node.get("bases", []):
            self.uses.append((caller, "class " + class_of(base)))
            self.note_class(caller, class_of(base), "", "~")
        if "baseInit" in node:
            self.note_class(caller, class_of({"type": node["baseInit"]}), "")

    def note_class(self, caller, name, *marks):
        for mark in marks:
            self.uses.append((caller, f"{name}::{mark}{name.rpartition('::')[2]}"))


class Gifts:
    """How the names of the list appear in the headers."""

    def __init__(self, headers):
        self.names = {headers.spelled[name] for name in headers.given if name in headers.spelled}
        self.classes = {name[len("class "):] for name in headers.given if name.startswith("class ")}
        self.virtual = {headers.spelled[name] for name in headers.virtual}
        self.places = {headers.spelled[name]: place for name, place in headers.places.items()}
        self.callers = {headers.spelled.get(name, name): callers
                        for name, callers in headers.callers.items()}

    def gives(self, name):
        thunk = THUNKS.fullmatch(name)
        if thunk:
            return self.gives(thunk[1])
        table = TABLES.fullmatch(name)
        if table:
            return qualified_name(table[1]) in self.classes
        return name in self.names

    def refers(self, caller, name):
        if caller == VIRTUAL:
            return name in self.virtual
        return caller in self.callers_of(name)

    def callers_of(self, name):
        table = TABLES.fullmatch(name)
        names = ["class " + qualified_name(table[1])] if table else [name, qualified_name(name)]
        return set().union(*(self.callers.get(name, ()) for name in names))


def without_reason(names, headers, inner):
    """Prints what no public declaration gives and the list does not explain; returns how many."""
    gifts = Gifts(headers)
    faults = collections.defaultdict(list)
    explained = {}
    for line in sorted(listed_names(inner)):
        name, arrow, caller = line.partition("  <-  ")
        explained[name] = caller
        if not arrow:
            faults[inner.name].append(f"says not what refers to it: {name}")
        elif name not in names:
            faults[inner.name].append(f"not exported: {name}")
        elif gifts.gives(name):
            faults[inner.name].append(f"given by a public declaration: {name}")
        elif caller == STATED and name not in gifts.places:
            faults[inner.name].append(f"in no public header: {name}")
        elif caller != STATED and not gifts.refers(caller, name):
            faults[inner.name].append(f"not called by {caller}: {name}")
    for name in sorted(names):
        if name not in explained and not gifts.gives(name):
            target = THUNKS.fullmatch(name)
            header, line = gifts.places.get(target[1] if target else name, ("no public header", 0))
            known = [VIRTUAL] if name in gifts.virtual else sorted(gifts.callers_of(name))
            hint = f"  (could be: <-  {known[0]})" if known else ""
            faults[header].append(f"given by no public declaration: {name}{hint}")
    for header, lines in sorted(faults.items()):
        print(f"{header}: {len(lines)}")
        for line in lines:
            print(f"    {line}")
    return sum(map(len, faults.values()))


def differences(library, processor, listed):
    """Prints how the names of a library's slice differ from the list; returns how many do, and
    the names."""
    names = exported_names(library, processor)
    expected = listed
    if processor == ARM64:
        expected = without_lone_types(listed)
    if processor:
        names = with_int64_as_listed(names, listed)
    for name in sorted(expected - names):
        print(f"not exported: {name}")
    for name in sorted(names - listed):
        print(f"not listed:   {name}")
    return len(expected - names) + len(names - listed), names


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("action", choices=("check", "update"))
    parser.add_argument("libraries", nargs="+", metavar="LIBRARY")
    parser.add_argument("--list", type=pathlib.Path, default=ROOT / "cmake" / "exports.txt")
    parser.add_argument("--inner", type=pathlib.Path, default=ROOT / "cmake" / "exports-inner.txt")
    parser.add_argument("--headers", type=pathlib.Path, default=ROOT / "include")
    arguments = parser.parse_args()
    if arguments.action == "update":
        names = exported_names(arguments.libraries[0])
        arguments.list.write_text(HEADER + "".join(name + "\n" for name in sorted(names)))
        print(f"{arguments.list.name}: {len(names)} names")
        return
    listed = listed_names(arguments.list)
    headers = Headers(arguments.headers)
    for library in arguments.libraries:
        for processor in [None] if is_elf_file(library) else processors(library):
            label = f"{library} ({processor})" if processor else library
            count, names = differences(library, processor, listed)
            faults = without_reason(names, headers, arguments.inner)
            if not names or count:
                sys.exit(f"{label}: exports differ from {arguments.list.name}")
            if faults:
                sys.exit(f"{label}: {faults} names have no public declaration or no reason")
            print(f"{label}: exports the {len(names)} names listed, each given by a header")


if __name__ == "__main__":
    main()
