#!/usr/bin/env python3
"""Lists the functions that a library exports and no test has executed.

    llvm-cov export ... | tools/unexecuted.py LIBRARY

The counts come from all test programs together, whose functions are those of LIBRARY. Exit status 1
when a function is listed.
"""
import json
import re
import subprocess
import sys


def output_of(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def demangled(names):
    """As they are declared: a thunk is the function that it leads to, and the variants of a
    constructor or destructor are one."""
    text = output_of("llvm-cxxfilt", text="\n".join(names))
    return [re.sub(r"^(non-)?virtual thunk to ", "", line) for line in text.splitlines()]


def exported_functions(library):
    lines = output_of("llvm-nm", "--dynamic", "--defined-only", "--format=posix", library)
    symbols = [line.split()[:2] for line in lines.splitlines()]
    return set(demangled([name for name, kind in symbols if kind in "TW"])) - {"_init", "_fini"}


def executed_functions(report):
    functions = [f for export in report["data"] for f in export["functions"]]
    return set(demangled([f["name"] for f in functions if f["count"] > 0]))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    exported = exported_functions(sys.argv[1])
    if not exported:
        sys.exit(f"{sys.argv[1]} exports no functions")
    missed = exported - executed_functions(json.load(sys.stdin))
    for name in sorted(missed):
        print(f"never executed: {name}")
    print(f"{len(exported) - len(missed)} of {len(exported)} exported functions executed")
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
