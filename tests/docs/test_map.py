#!/usr/bin/env python3
"""Compares tests/README.md with the tests: every directory, script, support file and test file is
on the page or is named after a unit, what the page names is there, and every case is named as the
page says, no two of a subject alike.

    tests/docs/test_map.py             compares
    tests/docs/test_map.py --faults    plants a fault of each kind and fails unless it is found
"""

import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
CASE = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", re.M)
SCRIPT_CASE = re.compile(r"^    def test_(\w+)\(self", re.M)
NAME = re.compile(r"[A-Z][A-Za-z0-9]*"
                  r"(_(When|While|Until|Before|After|Without|Whatever|Wherever)[A-Z0-9][A-Za-z0-9]*)?")
NO_MAP = {"CMakeLists.txt", "README.md"}


def first_cells(text, heading):
    """What the first cells of the tables below a heading name."""
    part = text.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    return {name for row in part.splitlines() if row.startswith("| ")
            for name in re.findall(r"`([^`]+)`", row.split("|")[1])}


def units():
    """The stems of the public headers and of the sources."""
    return {path.stem.lower() for directory in ("include", "source") for suffix in ("h", "cpp")
            for path in (ROOT / directory).rglob(f"*.{suffix}")}


def compare(page, entries, support, known_units, cases):
    """What is wrong, a line each. entries: the names in tests/; support: the stems of
    tests/support; cases: what (file, subject, name) there are."""
    listed = first_cells(page, "Where it lies")
    named_after_units = {entry for entry in entries if entry.endswith("_test.cpp")
                         and entry.split("_")[0].removesuffix(".cpp").lower() in known_units}
    for entry in sorted(entries - listed - named_after_units - NO_MAP):
        yield f"tests/README.md lacks {entry}"
    for entry in sorted(listed - entries):
        yield f"tests/README.md: there is no {entry}"
    for stem in sorted(support ^ first_cells(page, "What tests share")):
        yield f"tests/README.md {'lacks' if stem in support else 'has no'} support/{stem}"
    seen = collections.Counter((subject, name) for _, subject, name in cases)
    for file, subject, name in cases:
        if "_" in subject or not NAME.fullmatch(name):
            yield f"{file}: {subject}.{name} is not named as tests/README.md says"
        if seen[subject, name] > 1:
            yield f"{file}: {subject}.{name} is not the only one"


def real():
    tests = ROOT / "tests"
    examples = ROOT / "examples"
    files = sorted(tests.rglob("*_test.cpp")) + sorted(examples.rglob("*_test.cpp"))
    # All scripts of an example test one program.
    scripts = [(file, file.parent.parent.name.replace("_", ""))
               for file in sorted(examples.rglob("*_test.py"))]
    return ((tests / "README.md").read_text(),
            {path.name for path in tests.iterdir() if not path.name.startswith((".", "__"))},
            {path.stem for path in (tests / "support").iterdir()},
            units(),
            [(file.relative_to(ROOT), *case) for file in files
             for case in CASE.findall(file.read_text())] +
            [(file.relative_to(ROOT), subject, name) for file, subject in scripts
             for name in SCRIPT_CASE.findall(file.read_text())])


def faults():
    """Names the planted faults that are not found."""
    page, entries, support, known_units, cases = real()
    planted = {
        "an unlisted directory": (page, entries | {"other"}, support, known_units, cases),
        "a file of no unit": (page, entries | {"Other_test.cpp"}, support, known_units, cases),
        "a directory that is gone": (page, entries - {"soak"}, support, known_units, cases),
        "an unlisted support file": (page, entries, support | {"Other"}, known_units, cases),
        "a support file that is gone": (page, entries, support - {"Gate"}, known_units, cases),
        "a case in another dialect": (page, entries, support, known_units,
                                      cases + [("Cm_test.cpp", "Cm", "Null_IsRefused")]),
        "a case with two underscores": (page, entries, support, known_units,
                                        cases + [("Cm_test.cpp", "Cm", "A_Is_WhenB")]),
        "a subject with an underscore": (page, entries, support, known_units,
                                         cases + [("Cm_test.cpp", "C_m", "Is_WhenB")]),
        "a case twice": (page, entries, support, known_units, cases + cases[:1]),
    }
    return [name for name, arguments in planted.items() if not list(compare(*arguments))]


def main():
    if sys.argv[1:] == ["--faults"]:
        missed = faults()
        for name in missed:
            print(f"not found: {name}")
        return 1 if missed else 0
    arguments = real()
    found = list(compare(*arguments))
    print(*found, f"{len(arguments[4])} cases, {len(found)} wrong", sep="\n")
    return 1 if found or not arguments[4] else 0


if __name__ == "__main__":
    sys.exit(main())
