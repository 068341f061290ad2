#!/usr/bin/env python3
"""Proves that a run of a cross build can fail: each fault of its table is put into a copy of the
sources, the one file concerned is compiled and linked into its program anew, and the program, which
passes without the fault, has to fail. faults.py PRESET, where PRESET is a cross build of the tests.
"""

import collections
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
TIMEOUT_S = 30  # a program that hangs has failed

# What is wrong; the file that gets it; the text to replace, once, and its replacement; the program
# and the source of it that is compiled anew; what the program is run with, and what it prints then.
Fault = collections.namedtuple(
    "Fault", "name file text replacement program source arguments output")
MAC_FAULTS = [
    Fault("a wrong slot of a virtual table",
          "include/CmEventQueueBase.h",
          r"(    virtual CmResult PostEvent\([^;]*;)(.*?)(    virtual DWORD GetPendingEventsCount\([^;]*;)",
          r"\3\2\1",
          "examples/quick_start", "quick_start.cpp", [], "hello"),
    Fault("a list node lost with every timer that is armed again",
          "source/util/CmTimerSpares.h",
          r"if \(CM_UNLIKELY\(m_Nodes\.empty\(\)\)\) (\{\s*m_Nodes\.emplace_front)", r"\1",
          "tests/CmTimerQueueOrderedList_test", "CmTimerQueueOrderedList.cpp",
          ["--gtest_filter=*Memory*"], "PASSED"),
    Fault("a clean-up handler missing from a wait",
          "source/util/CmCancel.h",
          r"g_cmSystem\.(push|pop)_cleanup\(&m_Handler\);", "",
          "tests/CmConditionVariable_test", "CmConditionVariable.cpp",
          ["--gtest_filter=*Cancelled*"], "PASSED"),
]
ARM64_FAULTS = [
    Fault("a char printed as the processor has it",
          "source/util/CmTextFormator.cpp",
          r"static_cast<int>\(static_cast<signed char>\(aValue\)\)", "static_cast<int>(aValue)",
          "tests/CmTextFormator_test", "CmTextFormator.cpp", [], "PASSED"),
    Fault("a byte outside the alphabet decoded by vectors",
          "source/util/port/CmBase64Arm64.cpp",
          r"vdupq_n_u8\(NOT_A_VALUE\)", "vdupq_n_u8(0)",
          "tests/CmBase64_test", "CmBase64Arm64.cpp",
          ["--gtest_filter=*InvalidByte*"], "PASSED"),
    Fault("a block folded twice by carry-less multiplication",
          "source/util/port/CmCrc16Arm64.cpp",
          r"Load\(aData \+ 112\)", "Load(aData + 96)",
          "tests/CmCrc16_test", "CmCrc16Arm64.cpp", ["--gtest_filter=*EveryImplementation*"], "PASSED"),
]
# By preset: the faults, and what runs a program of that build.
BUILDS = {
    "mac-cross-tests": (MAC_FAULTS, [ROOT / "out/mac-run/macho_run"]),
    "linux-arm64": (ARM64_FAULTS, ["qemu-aarch64", "-L", "/usr/aarch64-linux-gnu"]),
}


def commands(build, program):
    """What ninja runs to make the program, a command a line."""
    return subprocess.run(["ninja", "-C", build, "-t", "commands", program], check=True,
                          capture_output=True, text=True).stdout.splitlines()


def plant(fault, copy):
    """Puts the fault into the copy of the sources."""
    path = copy / fault.file
    text, count = re.subn(fault.text, fault.replacement, path.read_text(), flags=re.DOTALL)
    if count == 0:
        raise SystemExit(f"{fault.file} has no place for {fault.name}")
    path.write_text(text)


def build_with(fault, build, folder):
    """The program with the fault, in folder."""
    copy = folder / "tree"
    for part in ("include", "source"):
        shutil.copytree(ROOT / part, copy / part)
    plant(fault, copy)
    lines = commands(build, fault.program)
    compile_line = next(line for line in lines
                        if re.search(rf" -c \S*/{re.escape(fault.source)}$", line))
    link_line = next(line for line in lines if f" -o {fault.program} " in line)
    old = re.search(r" -o (\S+) ", compile_line).group(1)
    new = folder / "faulty.o"
    program = folder / pathlib.Path(fault.program).name
    for part in ("include", "source"):
        compile_line = compile_line.replace(f"{ROOT}/{part}", f"{copy}/{part}")
    compile_line = compile_line.replace(f" -o {old} ", f" -o {new} ")
    # Ahead of the archive that has the right one.
    link_line = link_line.replace(f" {old} ", " ")
    link_line = link_line.replace(f" -o {fault.program} ", f" {new} -o {program} ")
    for line in (compile_line, link_line):
        subprocess.run(line, shell=True, check=True, cwd=build)
    return program


def passes(fault, runner, program):
    """Whether the program runs to a good end, and what it printed."""
    run = [*runner, program, *fault.arguments]
    try:
        result = subprocess.run(run, capture_output=True, text=True, errors="replace",
                                timeout=TIMEOUT_S)
    except subprocess.TimeoutExpired:
        return False, "it did not end"
    return result.returncode == 0 and fault.output in result.stdout, result.stdout + result.stderr


def main():
    preset = sys.argv[1]
    faults, runner = BUILDS[preset]
    build = ROOT / "out" / preset
    failed = 0
    for number, fault in enumerate(faults):
        folder = build / "faults" / str(number)
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        good, output = passes(fault, runner, build / fault.program)
        if not good:
            print(output)
            verdict = "the program fails without it"
        elif passes(fault, runner, build_with(fault, build, folder))[0]:
            verdict = "NOT FOUND"
        else:
            verdict = "found"
        failed += verdict != "found"
        print(f"{fault.name}: {verdict}", flush=True)
    if failed:
        raise SystemExit(f"{failed} planted faults were not found")
    print(f"a run finds each of {len(faults)} planted faults")


if __name__ == "__main__":
    main()
