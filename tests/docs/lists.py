#!/usr/bin/env python3
"""Compares lists in documents with what there is: tools/README.md with the tools, docs/index.md with
the pages, README.md with the public headers, docs/tracing.md with the trace levels, and the picture
with its source.
"""

import hashlib
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


def first_cells(page, pattern):
    """What the first cells of the tables on a page name."""
    return {name for row in page.read_text().splitlines() if row.startswith("| ")
            for name in re.findall(pattern, row.split("|")[1])}


def names(directory, pattern, without):
    return {path.name for path in directory.glob(pattern)
            if not path.name.startswith((".", "__"))} - without


def documented_levels():
    """Number, name, both defaults, switch of modules and level function of each trace level."""
    rows = [[cell.strip() for cell in row.strip("|\n").split("|")]
            for row in (ROOT / "docs/tracing.md").read_text().splitlines()]
    return {" ".join(row) for row in rows if len(row) == 6 and row[0].isdigit()}


def levels():
    header = (ROOT / "include/CmT120Trace.h").read_text()
    rows = re.findall(r'\{(\d+), +"(\w+)", +(\d), (\d), CCmTraceLevel::MODULES_(\w+), +'
                      r'CCmTraceLevel::FUNCTION_(\w+)\}', header)
    words = {"0": "off", "1": "on", "NONE": "-"}
    return {" ".join([number, name] + [words.get(cell, cell.lower()) for cell in cells])
            for number, name, *cells in rows}


def main():
    lists = {
        "tools/README.md": (first_cells(ROOT / "tools/README.md", r"`([^`]+)`"),
                            names(ROOT / "tools", "*", {"README.md"})),
        "docs/index.md": (first_cells(ROOT / "docs/index.md", r"\[([^\]]+\.md)\]"),
                          names(ROOT / "docs", "*.md", {"index.md"})),
        "README.md": (first_cells(ROOT / "README.md", r"`(Cm[^`]+\.h)`"),
                      names(ROOT / "include", "Cm*.h", set())),
        "docs/tracing.md": (documented_levels(), levels()),
        "docs/parts.svg": (set(re.findall(r"<!-- parts.dot (\w+) -->",
                                          (ROOT / "docs/parts.svg").read_text())),
                           {hashlib.sha256((ROOT / "docs/parts.dot").read_bytes()).hexdigest()}),
    }
    status = 0
    for page, (listed, real) in lists.items():
        print(f"{page}: {len(listed)} listed, {len(real)} there")
        for name in sorted(listed ^ real):
            print(f"{page}: {'there is no' if name in listed else 'lacks'} {name}")
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
