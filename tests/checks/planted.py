"""What the tests of the checks share: a tree with copies of the scripts under test and small
stand-ins for the rest, in which faults are planted. The project itself is never touched."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
IGNORED = shutil.ignore_patterns("__pycache__")


class Planted(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="checks")).resolve()
        self.addCleanup(shutil.rmtree, self.root)

    def copy(self, *names):
        for name in names:
            target = self.root / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if (ROOT / name).is_dir():
                shutil.copytree(ROOT / name, target, ignore=IGNORED)
            else:
                shutil.copy2(ROOT / name, target)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return path

    def script(self, name, text="echo fine"):
        self.write(name, f"#!/bin/sh\n{text}\n").chmod(0o755)

    def replace(self, name, old, new):
        text = (self.root / name).read_text()
        self.assertIn(old, text, f"{name} has no place for the fault")
        self.write(name, text.replace(old, new, 1))

    def run_in(self, *command, text=None, **environment):
        """(exit status, all that it said)"""
        variables = {**os.environ, **environment}
        variables.pop("CMAKE_CXX_COMPILER_LAUNCHER", None)
        done = subprocess.run([str(part) for part in command], cwd=self.root, env=variables,
                              input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", timeout=300)
        return done.returncode, done.stdout

    def assert_passes(self, *command, says="", **options):
        status, said = self.run_in(*command, **options)
        self.assertEqual(status, 0, said)
        self.assertIn(says, said)

    def assert_fails(self, *command, says, **options):
        """It fails, and for the reason that was planted."""
        status, said = self.run_in(*command, **options)
        self.assertNotEqual(status, 0, said)
        self.assertIn(says, said)
