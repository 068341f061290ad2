#!/usr/bin/env python3
"""Does what docs/tracing-in-ten-minutes.md says, step by step, and compares what comes.

    ten_minutes.py DIRECTORY [PAGE]    DIRECTORY has the programs of the page, built

Lines that begin with "$ " are shell commands, one with a program that the page then types at stays
running, and "> " is typed at it; the lines below are what must come. "..." stands for anything.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
HOME = "/tmp/ten/"


def steps(page):
    """Each command with the lines that are expected of it."""
    found = []
    for block in re.findall(r"^```console\n(.*?)^```$", page, re.M | re.S):
        for line in block.splitlines():
            if line[:2] in ("$ ", "> "):
                found.append((line, []))
            else:
                found[-1][1].append(line)
    return found


def is_as_expected(lines, expected):
    return len(lines) == len(expected) and all(
        re.fullmatch(".*".join(map(re.escape, wanted.split("..."))), line)
        for line, wanted in zip(lines, expected))


def follow(page, home, environment):
    host, wrong, found = None, 0, steps(page)
    for i, (command, expected) in enumerate(found):
        text = command[2:].replace(HOME, home)
        if command[0] == ">":
            host.stdin.write(text + "\n")
            host.stdin.flush()
            lines = [host.stdout.readline().rstrip("\n")]
        elif i + 1 < len(found) and found[i + 1][0][0] == ">" and host is None and text.startswith("host "):
            host = subprocess.Popen(text.split(), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                    env=environment, text=True)
            lines = []
        else:
            lines = subprocess.run(text, shell=True, env=environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace",
                                   check=False).stdout.splitlines()
        if not is_as_expected(lines, expected):
            wrong += 1
            print(f"{command}\n  expected: {expected}\n  got:      {lines}")
    if host is not None:
        host.stdin.close()
        if host.wait(timeout=30) != 0:
            wrong += 1
            print("the host ended with", host.returncode)
    return len(found), wrong


def main():
    page = pathlib.Path(sys.argv[2]) if sys.argv[2:] else ROOT / "docs" / "tracing-in-ten-minutes.md"
    environment = {**os.environ, "PATH": sys.argv[1] + os.pathsep + os.environ["PATH"]}
    for name in ("QTRACE_FILE", "QTRACE_LEVEL"):
        environment.pop(name, None)
    # Fifteen characters at most, whatever TMPDIR says.
    home = tempfile.mkdtemp(prefix="t", dir="/tmp") + "/"
    try:
        count, wrong = follow(page.read_text(), home, environment)
    finally:
        shutil.rmtree(home)
    print(count, "commands,", wrong, "went another way")
    return 0 if count and not wrong else 1


if __name__ == "__main__":
    sys.exit(main())
