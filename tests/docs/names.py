#!/usr/bin/env python3
"""What the pages name in `code` is there: identifiers stand somewhere in the project, members in a
file that names their class, paths lead to a file.

    tests/docs/names.py [PAGE...]    by default all pages but the change log
    tests/docs/names.py --faults     plants a fault of each kind and fails unless it is found
"""

import pathlib
import re
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
FENCE = re.compile(r"^( *)(```|~~~).*?^\1\2 *$", re.M | re.S)
CODE = re.compile(r"(`+)(?!`)(.+?)(?<!`)\1(?!`)", re.S)
WORD = re.compile(r"[A-Za-z_]\w*")
DECLARED = re.compile(r"\b(?:class|struct|union|enum|namespace)(?:\s+[A-Z_]+)*\s+(\w+)(?:<[^;{]*>)?(?: final)?"
                      r"\s*(?::([^;{}()]*))?\{")
MEMBER = re.compile(r"\b([A-Za-z_]\w+)::~?([A-Za-z_]\w+)\b")
DIRECTORIES = ("include", "source", "tests", "docs", "tools", "cmake", "examples", "bench", "fuzz",
               "build", ".ci")
PATH = re.compile(rf"(?:{'|'.join(map(re.escape, DIRECTORIES))})/[\w./-]*\w")
# Names of others, and of what a page explains by an example, that nothing in the project uses.
FOREIGN = set("""
    ACm CCm ICm Can ach aby psz ull EmptyText_IsRefused Parse_Null_Fails IsRefused_WhenTheTextIsEmpty
    ParseFails_WhenTheTextIsNull IsRefused FiresTimersThenEvents SetDataCopiesNothing test_NAME
    UNIT_test UNIT_ASPECT_test LWP perf writev x7ffd5e0c xadd
""".split())


def project_files():
    for path in sorted(ROOT.rglob("*")):
        parts = path.relative_to(ROOT).parts
        if parts[0] not in ("out", ".git") and path.suffix != ".gz" and "corpus" not in parts \
                and path.is_file() and path.name != "CHANGELOG.md":
            yield path


class Project:
    """The words of all files, pages aside, with the files' names; the words of each class's files."""

    def __init__(self):
        self.words = set(FOREIGN)
        self.declared = {}  # class: words of the files that declare it
        self.bases = {}     # class: words after its colon
        for path in project_files():
            self.words |= set(WORD.findall(path.name))
            if path.suffix == ".md" or path == pathlib.Path(__file__).resolve():
                continue
            text = path.read_text(errors="replace")
            words = set(WORD.findall(text))
            self.words |= words
            if path.suffix in (".h", ".cpp"):
                for name, bases in DECLARED.findall(text):
                    self.declared.setdefault(name, set()).update(words)
                    self.bases.setdefault(name, set()).update(WORD.findall(bases))

    def has(self, name):
        """Also what is meant as the beginning of names, and a variable of CMake with its option."""
        return name in self.words or (name.endswith("_") and any(
            word.startswith(name) for word in self.words)) or (
                name.startswith("DKELTO_") and name[1:] in self.words)

    def has_member(self, owner, member):
        seen, classes = set(), [owner]
        while classes:
            name = classes.pop()
            if name in seen:
                continue
            seen.add(name)
            if member in self.declared.get(name, set()):
                return True
            classes += self.bases.get(name, set())
        return owner == "std" or owner not in self.declared


def spans(page):
    """(line, text) of each piece of code within the text."""
    text = FENCE.sub(lambda match: "\n" * match.group().count("\n"), page.read_text())
    for match in CODE.finditer(text):
        yield text.count("\n", 0, match.start()) + 1, match.group(2)


def faults(pages, project):
    """(page, line, what is wrong), and how many names were looked at."""
    count, found = 0, []
    for page in pages:
        for line, span in spans(page):
            if "Thing" in span:  # an example of a name
                continue
            names = [name for name in WORD.findall(span) if len(name) > 2]
            count += len(names)
            found += [(page, line, f"there is no {name}") for name in names if not project.has(name)]
            found += [(page, line, f"{owner} has no {member}")
                      for owner, member in MEMBER.findall(span)
                      if project.has(member) and not project.has_member(owner, member)]
            if PATH.fullmatch(span) and not (ROOT / span).exists():
                found.append((page, line, f"there is no file {span}"))
    return found, count


def pages_of_project():
    return [path for path in sorted(ROOT.rglob("*.md"))
            if path.relative_to(ROOT).parts[0] not in ("out", ".git") and path.name != "CHANGELOG.md"]


PLANTED = """# A page of `CCmTimeValue`, `CCmThreadTask::PostEvent` and `CCmWorker::Stop`.
A class `CCmTimeValues` that was renamed.  fault
A call `CmPosts(worker, f)` of another name.  fault
A member `CCmTimeValue::PostEvent` of another class.  fault
A file `tests/docs/missing` that is gone.  fault
An option `--no-such-option_of_it`.  fault
```
CCmNoSuchClass
```
``tests/docs/names.py`` and `include/CmThread.h`.
"""


def find_planted():
    with tempfile.TemporaryDirectory() as name:
        page = pathlib.Path(name) / "page.md"
        page.write_text(PLANTED)
        refused = {line for _, line, _ in faults([page], Project())[0]}
    planted = {at for at, line in enumerate(PLANTED.splitlines(), 1) if "fault" in line}
    for line in sorted(refused ^ planted):
        print("not found:" if line in planted else "refused:", PLANTED.splitlines()[line - 1])
    print(len(planted), "faults were planted")
    return 1 if refused != planted else 0


def main():
    if sys.argv[1:] == ["--faults"]:
        return find_planted()
    pages = [pathlib.Path(name) for name in sys.argv[1:]] or pages_of_project()
    found, count = faults(pages, Project())
    for page, line, fault in found:
        print(f"{page.resolve().relative_to(ROOT)}:{line}: {fault}")
    print(len(pages), "pages,", count, "names,", len(found), "wrong")
    return 1 if found or not count else 0


if __name__ == "__main__":
    sys.exit(main())
