#!/usr/bin/env python3
"""Compares the functions that the library takes from the system with calls.txt: each is on the
list, and one that fails is made through the table of CmSystem.h only, and made to fail by a
row of the tables of faults.
"""

import argparse
import pathlib
import re
import subprocess

TESTS = pathlib.Path(__file__).resolve().parents[1]
LIST = TESTS / "calls" / "calls.txt"
ROWS = [TESTS / name for name in (
    "System_faults_test.cpp", "CmBlockPool_start_test.cpp", "CmFlight_file_test.cpp",
    "CmFlight_start_test.cpp", "CmPortLinux_test.cpp")]
# Where the table and what stands in it are defined.
TABLE = {"CmSystem.cpp.o", "CmPortLinux.cpp.o"}
# C++ and what compilers and sanitizers put in; the trace library.
OTHERS = re.compile(r"_Z|__|_ITM_|_Unwind_|_getTraceLevel$|YRKTRACERAWA$")


def undefined(nm, file, *options):
    output = subprocess.run([nm, *options, "--undefined-only", file], check=True,
                            capture_output=True, text=True).stdout
    names = {line.split()[-1].split("@")[0] for line in output.splitlines() if line.strip()}
    return {name for name in names if not OTHERS.match(name)}


def read_list():
    """Each name with how it is tried."""
    lines = (line.partition("#")[0].strip() for line in LIST.read_text().splitlines())
    return dict(re.split(r"\s+", line, maxsplit=1) for line in lines if line)


def failed_calls():
    """Those of which a row makes a call fail."""
    text = "".join(path.read_text() for path in ROWS)
    return set(re.findall(r"(?:Fault|Returned)<\s*&\w+::(\w+)", text))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nm", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("objects", nargs="+")
    arguments = parser.parse_args()

    known = read_list()
    fails = {name for name, how in known.items() if how == "fails"}
    errors = [f"{name}: not in calls.txt"
              for name in undefined(arguments.nm, arguments.library, "-D") - known.keys()]
    errors += [f"{name}: no row makes it fail" for name in fails - failed_calls()]
    for path in map(pathlib.Path, arguments.objects):
        if path.name not in TABLE:
            errors += [f"{name}: called directly by {path.name}"
                       for name in undefined(arguments.nm, path) & fails]
    for error in sorted(errors):
        print(error)
    print(f"{len(known)} calls, {len(fails)} of them made to fail; {len(errors)} errors")
    return 1 if errors else 0


if __name__ == "__main__":
    raise SystemExit(main())
