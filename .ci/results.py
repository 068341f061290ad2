#!/usr/bin/env python3
"""What became of the tests of a ctest run, from the file that its option --output-junit wrote:
prints how many passed and failed, and a line for each that did not run, with its name.

    .ci/results.py FILE

A test program that runs all of its cases in one process, or a script, passes for ctest when a part
of it was left out; what it says of that counts here.
"""

import pathlib
import re
import sys
import xml.etree.ElementTree

SKIPPED_CASE = re.compile(r"^\[ +SKIPPED +\] (\w+(?:/\w+)*\.\w+(?:/\w+)*)", re.M)
SKIPPED_SCRIPT = re.compile(r"^OK \(skipped=\d+\)", re.M)
MEANT = ("SKIP_RETURN_CODE", "SKIP_REGULAR_EXPRESSION")


def outcomes(text):
    """How many passed and failed, and the names of those that were left out."""
    passed, failed, skipped = 0, 0, []
    for test in xml.etree.ElementTree.fromstring(text).iter("testcase"):
        name, status = test.get("name"), test.get("status")
        message = "".join(node.get("message", "") for node in test.findall("skipped"))
        output = test.findtext("system-out") or ""
        cases = sorted(set(SKIPPED_CASE.findall(output)))
        if status == "disabled" or (status == "notrun" and message.startswith(MEANT)):
            skipped.append(name)
        elif status != "run":
            failed += 1
        elif SKIPPED_SCRIPT.search(output) or any(name.endswith(case) for case in cases):
            skipped.append(name)
        else:
            passed += 1
            skipped += cases
    return passed, failed, skipped


def main():
    passed, failed, skipped = outcomes(pathlib.Path(sys.argv[1]).read_text(errors="replace"))
    print(passed, failed, *skipped, sep="\n")


if __name__ == "__main__":
    main()
