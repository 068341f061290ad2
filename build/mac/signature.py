#!/usr/bin/env python3
"""Checks the code signatures of Mach-O files: signature.py FILE...

Every arm64 slice has one, without which the system does not run it: an ad-hoc signature, which names
nobody, and whose hashes are those of the slice's pages. A tool that changes a slice after it was
linked makes a hash wrong. A slice for x86-64 needs none; if it has one, it is checked as well.
"""
import hashlib
import math
import pathlib
import struct
import sys

UNIVERSAL_MAGIC = 0xCAFEBABE
MACH_O_MAGIC = 0xFEEDFACF  # 64 bits
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: "arm64"}
LC_CODE_SIGNATURE = 0x1D
SIGNATURE_MAGIC = 0xFADE0CC0
DIRECTORY_MAGIC = 0xFADE0C02
DIRECTORY_SLOT = 0
AD_HOC = 0x2
HASH_SHA256 = 2


class Fault(Exception):
    pass


def slices(content):
    """Each slice of a file: its processor and its bytes."""
    if struct.unpack_from(">I", content)[0] != UNIVERSAL_MAGIC:
        processor = struct.unpack_from("<I", content, 4)[0]
        return [(PROCESSORS[processor], content)]
    result = []
    for i in range(struct.unpack_from(">I", content, 4)[0]):
        processor, _, offset, size, _ = struct.unpack_from(">5I", content, 8 + 20 * i)
        result.append((PROCESSORS[processor], content[offset:offset + size]))
    return result


def signature_place(code):
    """Where the signature of a slice lies and how long it is, or None."""
    if struct.unpack_from("<I", code)[0] != MACH_O_MAGIC:
        raise Fault("is not Mach-O of 64 bits")
    at = 32
    for _ in range(struct.unpack_from("<I", code, 16)[0]):
        command, size = struct.unpack_from("<2I", code, at)
        if command == LC_CODE_SIGNATURE:
            return struct.unpack_from("<2I", code, at + 8)
        at += size
    return None


def code_directory(signature):
    magic, _, count = struct.unpack_from(">3I", signature)
    if magic != SIGNATURE_MAGIC:
        raise Fault("the signature is none")
    for i in range(count):
        slot, offset = struct.unpack_from(">2I", signature, 12 + 8 * i)
        if slot == DIRECTORY_SLOT:
            return signature[offset:]
    raise Fault("the signature has no code directory")


def check(code, place):
    """Returns how many pages the signature vouches for."""
    offset, size = place
    directory = code_directory(code[offset:offset + size])
    magic, _, _, flags, hashes, _, _, pages, limit = struct.unpack_from(">9I", directory)
    hash_size, hash_type, _, page_bits = struct.unpack_from(">4B", directory, 36)
    if magic != DIRECTORY_MAGIC or hash_type != HASH_SHA256:
        raise Fault("the code directory is of an unknown kind")
    if not flags & AD_HOC:
        raise Fault("the signature is not an ad-hoc one")
    page = 1 << page_bits
    if limit != offset or pages != math.ceil(limit / page):
        raise Fault("the signature does not cover all that precedes it")
    for i in range(pages):
        told = directory[hashes + i * hash_size:hashes + (i + 1) * hash_size]
        if hashlib.sha256(code[i * page:min((i + 1) * page, limit)]).digest() != told:
            raise Fault(f"page {i} was changed after it was signed")
    return pages


def main():
    for path in map(pathlib.Path, sys.argv[1:]):
        for processor, code in slices(path.read_bytes()):
            try:
                place = signature_place(code)
                if place:
                    print(f"{path} ({processor}): signed, {check(code, place)} pages")
                elif processor == "arm64":
                    raise Fault("it has no signature")
            except Fault as fault:
                sys.exit(f"{path} ({processor}): {fault}")


if __name__ == "__main__":
    main()
