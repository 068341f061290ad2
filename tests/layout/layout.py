#!/usr/bin/env python3
"""Compares the binary layout of classes with the expected one.

    layout.py --readelf readelf --object layout.o --processor aarch64 expected/CmThing.txt
                                                                         compares
    layout.py --readelf readelf --object layout.o --print CCmThing ...   prints, ready to paste

The layout is read from the debug information of an object file, whichever compiler wrote it.
An expected file holds one block per class, with everything in the order of the binary layout:

    class CCmThing          the class, without the namespace of the library
    base CCmBase            each base class, in order
    virtual 2 OnTimeout     each virtual function that the class itself declares: its slot (a
                            destructor takes two) and name
    field m_dwSize 4        each field: name and size in bytes
    field m_Mutex 48 aarch64 56     the same, and the size on a processor where it is another

A class must have exactly what its block says. Empty lines and lines that start with # are
ignored.
"""
import argparse
import re
import subprocess
import sys

NAMESPACE = "UTIL_NS::"
CLASS_TAGS = ("DW_TAG_class_type", "DW_TAG_structure_type")
POINTER_TAGS = ("DW_TAG_pointer_type", "DW_TAG_reference_type", "DW_TAG_rvalue_reference_type")
POINTER_SIZE = 8

ENTRY = re.compile(r"^ *<(\d+)><([0-9a-f]+)>: Abbrev Number: \d+ \((DW_TAG_\w+)\)")
ATTRIBUTE = re.compile(r"^ *<[0-9a-f]+> +(DW_AT_\w+) *: ?(.*)$")
# What stands before a value: its form and its place in a table, depending on the version.
VALUE_PREFIX = re.compile(
    r"^(\((data\d*|udata|sdata|implicit_const|ref\d*|strp|string|strx\d*|exprloc|block\d*|"
    r"flag_present|(indirect|indexed) string[^)]*|offset:[^)]*)\):? *)+")


class Entry:
    """One entry of the debug information."""

    def __init__(self, tag, parent):
        self.tag = tag
        self.parent = parent
        self.children = []
        self.attributes = {}

    def number(self, name, default=None):
        text = self.attributes.get(name)
        return default if text is None else int(text.split()[0], 0)

    def name(self):
        return self.attributes.get("DW_AT_name", "").strip()

    def qualified_name(self):
        prefix = self.parent.qualified_name() if self.parent else ""
        own = "" if self.tag == "DW_TAG_compile_unit" else self.name()
        return f"{prefix}::{own}" if prefix else own


def read_entries(readelf, object_file):
    command = [readelf, "--wide", "--debug-dump=info", object_file]
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    entries, path, current = {}, [], None
    for line in output.splitlines():
        match = ENTRY.match(line)
        if match:
            depth = int(match.group(1))
            del path[depth:]
            parent = path[-1] if path else None
            current = Entry(match.group(3), parent)
            if parent:
                parent.children.append(current)
            path.append(current)
            entries[int(match.group(2), 16)] = current
            continue
        match = ATTRIBUTE.match(line)
        if match and current:
            current.attributes[match.group(1)] = VALUE_PREFIX.sub("", match.group(2))
    return entries


class Layouts:
    def __init__(self, entries):
        self.entries = entries
        self.classes = {}
        for entry in entries.values():
            if entry.tag in CLASS_TAGS and "DW_AT_byte_size" in entry.attributes:
                name = entry.qualified_name()
                if name.startswith(NAMESPACE):
                    self.classes[name[len(NAMESPACE):]] = entry

    def type_of(self, entry):
        reference = re.search("<0x([0-9a-f]+)>", entry.attributes["DW_AT_type"])
        return self.entries[int(reference.group(1), 16)]

    def size_of(self, entry):
        size = entry.number("DW_AT_byte_size")
        if size is not None:
            return size
        if entry.tag in POINTER_TAGS:
            return POINTER_SIZE
        size = self.size_of(self.type_of(entry))
        if entry.tag == "DW_TAG_array_type":
            for child in entry.children:
                count = child.number("DW_AT_count")
                size *= count if count is not None else child.number("DW_AT_upper_bound") + 1
        return size

    def own_virtuals(self, entry):
        """(slot, name) of each virtual function that the class declares; slot None: not told."""
        for child in entry.children:
            is_virtual = child.tag == "DW_TAG_subprogram" and "DW_AT_virtuality" in child.attributes
            if is_virtual and "DW_AT_artificial" not in child.attributes:
                location = child.attributes.get("DW_AT_vtable_elem_location")
                slot = re.search(r"DW_OP_constu: (\d+)", location) if location else None
                yield int(slot.group(1)) if slot else None, child.name()

    def told_slots(self, entry):
        slots = {slot for slot, _ in self.own_virtuals(entry) if slot is not None}
        for child in entry.children:
            is_base = child.tag == "DW_TAG_inheritance"
            if is_base and child.number("DW_AT_data_member_location", 0) == 0:
                slots |= self.told_slots(self.type_of(child))
        return slots

    def virtuals(self, entry):
        taken = self.told_slots(entry)
        for slot, name in self.own_virtuals(entry):
            if slot is None:  # GCC does not tell a destructor's slot: it is the free pair.
                slot = next(s for s in range(len(taken) + 1) if not taken & {s, s + 1})
            yield slot, f"virtual {slot} {name}"

    def fields(self, entry):
        for child in entry.children:
            is_static = "DW_AT_external" in child.attributes
            is_table = child.name().startswith("_vptr")
            if child.tag == "DW_TAG_member" and not is_static and not is_table:
                size = self.size_of(self.type_of(child))
                name = self.member_name(child)
                yield child.number("DW_AT_data_member_location", 0), f"field {name} {size}"

    def member_name(self, member):
        """An anonymous union, which keeps its member from being destroyed, counts as that member."""
        if member.name():
            return member.name()
        members = self.type_of(member).children
        return self.member_name(next(each for each in members if each.tag == "DW_TAG_member"))

    def bases(self, entry):
        for child in entry.children:
            if child.tag == "DW_TAG_inheritance":
                base = self.type_of(child).qualified_name()
                base = base[len(NAMESPACE):] if base.startswith(NAMESPACE) else base
                yield child.number("DW_AT_data_member_location", 0), f"base {base}"

    def describe(self, name):
        """The block of one class, as a list of lines; None for an unknown class."""
        entry = self.classes.get(name)
        if entry is None:
            return None
        lines = [f"class {name}"]
        for part in (self.bases(entry), self.virtuals(entry), self.fields(entry)):
            lines += [text for _, text in sorted(part)]
        return lines


def size_on(line, processor):
    """A line as it is on the processor, the word after a size that is another there."""
    words = line.split()
    if words[0] != "field" or len(words) == 3:
        return line
    sizes = dict(zip(words[3::2], words[4::2]))
    return " ".join(words[:2] + [sizes.get(processor, words[2])])


def read_expected(path, processor):
    blocks = []
    with open(path, encoding="utf-8") as file:
        for line in file:
            line = " ".join(line.split())
            if not line or line.startswith("#"):
                continue
            if line.startswith("class "):
                blocks.append([])
            blocks[-1].append(size_on(line, processor))
    return blocks


def compare(layouts, path, processor):
    blocks = read_expected(path, processor)
    failures = 0 if blocks else 1
    for expected in blocks:
        actual = layouts.describe(expected[0][len("class "):])
        if actual == expected:
            continue
        failures += 1
        print(f"{path}: {expected[0]}")
        print("  expected: " + "; ".join(expected[1:]))
        print("  actual:   " + ("no such class" if actual is None else "; ".join(actual[1:])))
    print(f"{path}: {len(blocks)} classes, {failures} differ")
    return failures == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--readelf", required=True)
    parser.add_argument("--object", required=True)
    parser.add_argument("--processor")
    parser.add_argument("--print", nargs="+", metavar="CLASS")
    parser.add_argument("expected", nargs="*")
    arguments = parser.parse_args()

    layouts = Layouts(read_entries(arguments.readelf, arguments.object))
    if arguments.print:
        for name in arguments.print:
            print("\n".join(layouts.describe(name) or [f"# no class {name}"]) + "\n")
        return 0
    results = [compare(layouts, path, arguments.processor) for path in arguments.expected]
    return 0 if results and all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
