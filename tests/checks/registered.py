#!/usr/bin/env python3
"""Every test there is belongs to the build: each *_test.cpp of the given directories is compiled
there, and where ctest has an entry for each case, it has one for each that a source or a script
declares. A program that is on no list any more would not be missed otherwise.

    registered.py BUILD [--cases CTEST] [--without NAME]... [--whole NAME]... DIRECTORY...

--without: a file, or a directory with its files, that this build leaves out; --whole: one whose
cases run in entries of their own making.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys

CASE = re.compile(r"^(TYPED_TEST|TEST|TEST_F|TEST_P)\(\s*(\w+),\s*(\w+)\)", re.M)
SCRIPT_CASE = re.compile(r"^    def test_(\w+)\(self", re.M)


def compiled(build):
    commands = json.loads((build / "compile_commands.json").read_text())
    return {pathlib.Path(command["directory"], command["file"]).resolve() for command in commands}


def registered(build, ctest):
    listed = subprocess.run([ctest, "--show-only=json-v1"], cwd=build, check=True,
                            capture_output=True, text=True).stdout
    return [test["name"] for test in json.loads(listed)["tests"]]


def cases_of(source):
    """Patterns, one of which a name of ctest has to fit."""
    for kind, subject, name in CASE.findall(source.read_text()):
        plain = kind in ("TEST", "TEST_F")
        yield f"{subject}.{name}", (rf"(.*/)?{subject}\.{name}(\.\w+)?" if plain
                                    else rf"(.*/)?{subject}(/.*)?\.{name}([</].*)?")


def found_in(directories, pattern, without):
    return sorted(path.resolve() for directory in directories for path in directory.rglob(pattern)
                  if not {path.name, path.parent.name} & set(without))


def faults(build, directories, without, whole, ctest):
    sources = found_in(directories, "*_test.cpp", without)
    if not sources:
        yield "there are no tests"
    there = compiled(build)
    for source in sources:
        if source not in there:
            yield f"{source}: is not compiled"
    if not ctest:
        return
    names = registered(build, ctest)
    text = "\n".join(names)
    for source in found_in(directories, "*_test.cpp", without + whole):
        for case, pattern in cases_of(source):
            if not re.search(rf"^{pattern}$", text, re.M):
                yield f"{source}: ctest has no {case}"
    for script in found_in(directories, "*_test.py", without + whole):
        for case in SCRIPT_CASE.findall(script.read_text()):
            if not re.search(rf"^[\w-]+\.{case}$", text, re.M):
                yield f"{script}: ctest has no {case}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("directories", nargs="+", type=pathlib.Path)
    parser.add_argument("--cases", metavar="CTEST")
    parser.add_argument("--without", action="append", default=[])
    parser.add_argument("--whole", action="append", default=[])
    arguments = parser.parse_args()
    found = list(faults(arguments.build, arguments.directories, arguments.without,
                        arguments.whole, arguments.cases))
    print(*found, f"{len(found)} tests are not registered", sep="\n")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
