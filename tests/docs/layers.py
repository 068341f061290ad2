#!/usr/bin/env python3
"""Reads the layers of docs/architecture.md and compares them with the includes of the sources: each
unit stands in one layer and includes its own and lower ones, and units do not include each other,
but for two layers between which the picture has a wave. What port/ is for stays there: no other
source names a platform or a processor to the compiler.

    tests/docs/layers.py [ROOT]
    tests/docs/layers.py --faults    plants a fault of each kind and fails unless it is found
"""

import pathlib
import re
import shutil
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
DIRECTORIES = ["include", "source/util", "source/util/port", "source/qtrace"]
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
PLATFORM = re.compile(r"\b(__APPLE__|__MACH__|__linux__|__x86_64__|__i386__|__aarch64__|__arm64__)\b")


class Layers:
    """The picture: names of layers from the top down, the layer of each unit, the mutual pair."""

    def __init__(self, page):
        picture = re.search(r"^```layers\n(.*?)^```", page, re.M | re.S).group(1)
        self.names, self.of, self.twice, self.mutual = [""], {}, [], set()
        for line in picture.splitlines():
            if re.fullmatch(r"[-~+]+", line):
                if "~" in line:
                    self.mutual = {len(self.names) - 1, len(self.names)}
                self.names.append("")
                continue
            name, units = line.split("|")
            self.names[-1] = " ".join([self.names[-1], *name.split()]).strip()
            for unit in units.split():
                if unit in self.of:
                    self.twice.append(unit)
                self.of[unit] = len(self.names) - 1


def files(root):
    return sorted(path for directory in DIRECTORIES for path in (root / directory).iterdir()
                  if path.suffix in (".h", ".cpp"))


def included(root):
    """(file, unit, unit that it includes), each by its name without directory and ending."""
    for path in files(root):
        for name in INCLUDE.findall(path.read_text()):
            other = pathlib.Path(name).stem
            if other != path.stem:
                yield path, path.stem, other


def cycle(graph):
    """Units of a circle of includes, empty without one."""
    done = set()

    def follow(unit, way):
        if unit in way:
            return way[way.index(unit):] + [unit]
        if unit in done:
            return []
        found = next(filter(None, (follow(other, way + [unit]) for other in graph.get(unit, ()))), [])
        done.add(unit)
        return found

    return next(filter(None, (follow(unit, []) for unit in graph)), [])


def errors(root):
    layers = Layers((root / "docs/architecture.md").read_text())
    units = {path.stem for path in files(root)}
    yield from (f"{unit}: in no layer" for unit in sorted(units - layers.of.keys()))
    yield from (f"{unit}: in a layer, but there is no such unit"
                for unit in sorted(layers.of.keys() - units))
    yield from (f"{unit}: in two layers" for unit in layers.twice)
    within = {}
    for path, unit, other in included(root):
        if unit not in layers.of or other not in layers.of:
            continue
        here, there = layers.of[unit], layers.of[other]
        if {here, there} <= layers.mutual:
            continue
        if there < here:
            yield (f"{path.relative_to(root)}: includes {other}, which is higher: "
                   f"{layers.names[there]} over {layers.names[here]}")
        elif here == there:
            within.setdefault(unit, set()).add(other)
    circle = cycle(within)
    if circle:
        yield "include each other: " + " > ".join(circle)
    for path in files(root):
        is_for_platforms = path.suffix == ".h" and path.parent.name == "port"
        if not is_for_platforms and path.name != "CmPlatform.h":
            for macro in set(PLATFORM.findall(path.read_text())):
                yield f"{path.relative_to(root)}: asks for {macro}"


def copy_of_sources(directory):
    for name in ["include", "source"]:
        shutil.copytree(ROOT / name, directory / name)
    (directory / "docs").mkdir()
    shutil.copy(ROOT / "docs/architecture.md", directory / "docs")


def append(path, text):
    path.write_text(path.read_text() + text)


def replace(path, old, new):
    text = path.read_text()
    assert old in text, f"{path}: {old}"
    path.write_text(text.replace(old, new))


# What is done to a copy of the sources, and what is said of it.
FAULTS = {
    "an include upward": (
        lambda root: append(root / "source/util/CmDataBlock.cpp", '#include "CmThread.h"\n'),
        "source/util/CmDataBlock.cpp: includes CmThread, which is higher: threads over data"),
    "one of a public header's": (
        lambda root: append(root / "include/CmEventQueueBase.h", '#include "CmEvent.h"\n'),
        "include/CmEventQueueBase.h: includes CmEvent, which is higher: threads over queues"),
    "one that a platform's file makes": (
        lambda root: append(root / "source/util/port/CmPort.h", '#  include "CmSystem.h"\n'),
        "source/util/port/CmPort.h: includes CmSystem, which is higher: system over platform"),
    "one from the mutual layers": (
        lambda root: append(root / "include/CmScopedLock.h", '#include "CmUtilClasses.h"\n'),
        "include/CmScopedLock.h: includes CmUtilClasses, which is higher: objects over locks"),
    "units that include each other": (
        lambda root: append(root / "include/CmUtilClasses.h", '#include "CmUtilTemplates.h"\n'),
        "include each other: CmUtilClasses > CmUtilTemplates > CmUtilClasses"),
    "a unit without a layer": (
        lambda root: (root / "source/util/CmStranger.cpp").touch(), "CmStranger: in no layer"),
    "a layer's unit that is gone": (
        lambda root: (root / "source/util/CmVersion.cpp").unlink()
        or (root / "include/CmVersion.h").unlink(),
        "CmVersion: in a layer, but there is no such unit"),
    "a unit in two layers": (
        lambda root: replace(root / "docs/architecture.md", "| CmAscii ", "| CmAscii CmThread "),
        "CmThread: in two layers"),
    "a processor in a unit": (
        lambda root: append(root / "source/util/CmCrc16.cpp", "#if defined(__x86_64__)\n#endif\n"),
        "source/util/CmCrc16.cpp: asks for __x86_64__"),
}


def missed_faults():
    for name, (plant, expected) in FAULTS.items():
        with tempfile.TemporaryDirectory() as directory:
            root = pathlib.Path(directory)
            copy_of_sources(root)
            plant(root)
            found = list(errors(root))
            if not any(expected in error for error in found):
                yield f"not found: {name}; said: {found}"


def main():
    plants = sys.argv[1:] == ["--faults"]
    root = pathlib.Path(sys.argv[1]).resolve() if sys.argv[1:] and not plants else ROOT
    found = list(missed_faults() if plants else errors(root))
    print("\n".join(found) or (f"{len(FAULTS)} kinds of faults are found" if plants else
                               f"{len(files(root))} files include what their layers allow"))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
