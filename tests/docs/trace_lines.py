#!/usr/bin/env python3
"""Compares docs/trace-lines.md with the sources: every line that the library can write is on the
page with its level and text, and the page has no other. With --list: prints what the sources have.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs" / "trace-lines.md"
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
LEVELS = {"ERROR": "error", "WARNING": "warning", "INFO": "info"}
TRACE_CALL = re.compile(r"\bCM_(ERROR|WARNING|INFO)_TRACE(_THIS)?\(")
ASSERTION_CALL = re.compile(r"\b(CM_ASSERTE(?:_RETURN)?(?:_LINE|_AT|_)?)\(")


def code_of(path):
    """The text without comments and without preprocessor definitions."""
    text = re.sub(r'("(?:[^"\\\n]|\\.)*")|//[^\n]*', lambda m: m.group(1) or "", path.read_text())
    return re.sub(r"^#(?:[^\n]*\\\n)*[^\n]*", "", text, flags=re.M)


def arguments(text, start):
    """The arguments of the call whose opening parenthesis is in front of start."""
    depth, begin, found = 0, start, []
    tokens = re.compile(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|[()\[\]{},]')
    for token in tokens.finditer(text, start):
        c = token.group()
        if c in "([{":
            depth += 1
        elif c in ")]}" and depth > 0:
            depth -= 1
        elif depth == 0 and c in ",)":
            found.append(" ".join(text[begin : token.start()].split()))
            begin = token.end()
            if c == ")":
                return found
    raise ValueError("a call does not end")


def streamed(expression):
    """What an expression of << prints: its literals, and <> for each run of values."""
    out, position = "", 0
    for literal in LITERAL.finditer(expression):
        between = expression[position : literal.start()].replace("<<", "").strip()
        if between:
            out += "<>"
        out += literal.group(1)
        position = literal.end()
    if expression[position:].strip():
        out += "<>"
    return out


def sources():
    for folder in ("source/util", "include"):
        yield from sorted((ROOT / folder).rglob("*.cpp"))
        yield from sorted((ROOT / folder).rglob("*.h"))


def lines_in_sources():
    found = set()
    for path in sources():
        text = code_of(path)
        for call in TRACE_CALL.finditer(text):
            fields = ",".join(arguments(text, call.end()))
            line = streamed(fields) + (" this=<>" if call.group(2) else "")
            found.add((LEVELS[call.group(1)], line))
    return found


def assertion(name, args, path):
    """File, printed line and text. Line "-": that of the source; "several": each caller's own."""
    file, line, text = str(path.relative_to(ROOT)), "-", args[0]
    if name.endswith("_"):
        text = LITERAL.fullmatch(args[1]).group(1)
    if not name.endswith(("ASSERTE", "RETURN")):
        line = args[-1] if args[-1].isdigit() else "several"
    return file, line, text


def assertions_in_sources():
    found = set()
    for path in sources():
        text = code_of(path)
        for call in ASSERTION_CALL.finditer(text):
            found.add(assertion(call.group(1), arguments(text, call.end()), path))
    return found


def rows_of_page(heading):
    """The cells of the table rows below a heading, without code marks."""
    section = PAGE.read_text().split("\n## " + heading + "\n")[1].split("\n## ")[0]
    for row in section.splitlines():
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", row)[1:-1]]
        if len(cells) == 4 and cells[1].startswith("`"):
            assert all(cells), f"an empty cell: {row}"
            yield [cell.replace("\\|", "|") for cell in cells]


def lines_on_page():
    return {(level, re.sub(r"<[^<>]*>", "<>", text.strip("`")))
            for level, text, _, _ in rows_of_page("Lines")}


def assertions_on_page():
    return {(file.strip("`"), line, text.strip("`"))
            for line, text, file, _ in rows_of_page("Assertions")}


def main():
    in_sources = [lines_in_sources(), assertions_in_sources()]
    if sys.argv[1:] == ["--list"]:
        for found in in_sources:
            print(*sorted(found), sep="\n")
        return 0
    status = 0
    for real, described in zip(in_sources, [lines_on_page(), assertions_on_page()]):
        print(len(real), "in the sources,", len(described), "on the page")
        for line in sorted(real - described):
            print("not on the page:", line)
        for line in sorted(described - real):
            print("not in the sources:", line)
        status |= real != described
    return int(status)


if __name__ == "__main__":
    sys.exit(main())
