#!/usr/bin/env python3
"""Copies an archive of Mach-O objects and makes the names public that its objects keep within the
image: publish.py IN OUT. The cross compiler's C++ library is compiled to be linked into programs;
only so can a dynamic library be made of it.
"""

import struct
import sys

AR_MAGIC = b"!<arch>\n"
MEMBER_HEADER = 60
MH_MAGIC_64 = 0xFEEDFACF
LC_SYMTAB = 2
SYMBOL_SIZE = 16  # nlist_64
N_PEXT = 0x10
N_TYPE = 0x0E
N_SECT = 0x0E
N_WEAK_REF = 0x40  # of a weak definition: the linker may hide it


def publish(data, start):
    """Clears what marks a name as private on the symbols of the object at start."""
    magic, _, _, _, commands, _, _, _ = struct.unpack_from("<8I", data, start)
    if magic != MH_MAGIC_64:
        return 0
    published = 0
    offset = start + 32
    for _ in range(commands):
        command, size = struct.unpack_from("<2I", data, offset)
        if command == LC_SYMTAB:
            symbols, count = struct.unpack_from("<2I", data, offset + 8)
            for at in range(start + symbols, start + symbols + count * SYMBOL_SIZE, SYMBOL_SIZE):
                if data[at + 4] & N_TYPE == N_SECT:
                    published += bool(data[at + 4] & N_PEXT)
                    data[at + 4] &= ~N_PEXT
                    data[at + 6] &= ~N_WEAK_REF
        offset += size
    return published


def main():
    _, source, target = sys.argv
    with open(source, "rb") as file:
        data = bytearray(file.read())
    if not data.startswith(AR_MAGIC):
        raise SystemExit(f"{source}: not an archive")
    published = 0
    at = len(AR_MAGIC)
    while at < len(data):
        name = bytes(data[at:at + 16])
        size = int(data[at + 48:at + 58])
        start = at + MEMBER_HEADER
        if name.startswith(b"#1/"):  # the name precedes the object
            start += int(name[3:])
        if size >= 32:
            published += publish(data, start)
        at += MEMBER_HEADER + size + size % 2
    if not published:
        raise SystemExit(f"{source}: no private name found")
    with open(target, "wb") as file:
        file.write(data)


if __name__ == "__main__":
    main()
