#!/usr/bin/env python3
"""Every piece of C++ in a page compiles: a program as it stands, a part of one after the library's
headers, at file scope or in a function.

    snippets.py COMPILER [PAGE...]    by default all pages but the change log
    snippets.py COMPILER --faults     plants a fault of each kind and fails unless it is found
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BLOCK = re.compile(r"^( *)```(?:cpp|c\+\+|C\+\+)\n(.*?)^\1```$", re.M | re.S)
HEAD = """#include <kelto_util.h>
#include <qtrace.h>
#include <chrono>
#include <cstdio>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
using namespace UTIL_NS;
"""


def pages():
    return [path for path in sorted(ROOT.rglob("*.md"))
            if path.relative_to(ROOT).parts[0] not in ("out", ".git") and path.name != "CHANGELOG.md"]


def snippets(page):
    """(line, text) of each."""
    text = page.read_text()
    for block in BLOCK.finditer(text):
        yield text.count("\n", 0, block.start(2)) + 1, block.group(2)


def error_of(compiler, text):
    options = ["-std=c++17", "-fsyntax-only", "-I", ROOT / "include", "-I", ROOT / "source/qtrace",
               "-I", ROOT / "tests", "-x", "c++", "-"]
    done = subprocess.run([compiler, *options], input=text, capture_output=True, text=True)
    return "" if done.returncode == 0 else done.stderr or "failed"


def fault(compiler, line, text):
    """What the compiler says of it, or an empty text."""
    at = f'#line {line} "snippet"\n'
    if re.search(r"^#include ", text, re.M):
        return error_of(compiler, at + text)
    in_function = f"{HEAD}void Snippet() {{\n{at}{text}}}\n"
    # A class with a template or a part in extern "C" stands at file scope only.
    return error_of(compiler, HEAD + at + text) and error_of(compiler, in_function)


def faults(compiler, found):
    """found: (page, line, text) of each snippet."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        said = pool.map(lambda item: fault(compiler, *item[1:]), found)
        return [(page, line, text) for (page, line, _), text in zip(found, said) if text]


PLANTED = """# A page

```cpp
CCmTimeValue tvGood(1);
```

```cpp
CCmTimeValue tvFault(1, 2, 3, 4);
```

```cpp
#include <kelto_util.h>
int main() { return UTIL_NS::NoSuchFunction(); }  // fault
```

1. In a list

   ```cpp
   class CFault : public CCmNoSuchClass {};
   ```

```cpp
extern "C" int YRKTRACERAWA(int fault);
```

```
CCmNoSuchClass in what is no C++;
```
"""


def find_planted(compiler):
    with tempfile.TemporaryDirectory() as name:
        page = pathlib.Path(name) / "page.md"
        page.write_text(PLANTED)
        found = [(page, *snippet) for snippet in snippets(page)]
    refused = {line for _, line, _ in faults(compiler, found)}
    planted = {line for _, line, text in found if "ault" in text}
    for line in sorted(refused ^ planted):
        print("not found:" if line in planted else "refused:", PLANTED.splitlines()[line - 1])
    print(len(planted), "faults were planted")
    return 1 if refused != planted or len(planted) != 4 else 0


def main():
    compiler = sys.argv[1]
    if sys.argv[2:] == ["--faults"]:
        return find_planted(compiler)
    found = [(page, *snippet) for page in map(pathlib.Path, sys.argv[2:] or pages())
             for snippet in snippets(page)]
    wrong = faults(compiler, found)
    for page, line, text in wrong:
        print(f"{page}:{line}: does not compile\n{text}")
    print(len(found), "snippets,", len(wrong), "wrong")
    return 1 if wrong or not found else 0


if __name__ == "__main__":
    sys.exit(main())
