"""What the scripts that run kelto-flight and kelto-top share: SCRIPT FLIGHT TOP HOST [TEST...]"""

import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from recording import START, Recording

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIMIT = 60  # seconds; a run that takes longer hangs
PROGRAMS = {}


class ProgramTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelto-programs-")
        self.addCleanup(shutil.rmtree, self.home)
        self.directory = os.path.join(self.home, "kelto")
        os.mkdir(self.directory, 0o700)
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=self.home, TZ="UTC", TERM="xterm",
                                ASAN_OPTIONS="allocator_may_return_null=0")

    def write(self, data, name="media-host.4711.1795339800000000.flight"):
        path = os.path.join(self.directory, name)
        with open(path, "wb") as file:
            file.write(data.pack() if isinstance(data, Recording) else data)
        return path

    def lock(self, path):
        """As the recorder of a process that runs holds its file."""
        file = open(path, "rb")
        self.addCleanup(file.close)
        fcntl.flock(file, fcntl.LOCK_EX)
        return file

    def run_program(self, program, *arguments, **keywords):
        return subprocess.run([PROGRAMS[program], *arguments], env=self.environment, timeout=LIMIT,
                              **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **keywords})

    def flight(self, *arguments):
        return self.run_program("flight", *arguments)

    def top(self, *arguments):
        return self.run_program("top", *arguments)

    def assert_page_of_the_manual_has_the_options(self, program):
        said = set(re.findall(r"--([a-z]+)", self.run_program(program, "--help").stdout.decode()))
        page = (ROOT / f"source/programs/kelto-{program}.1").read_text().replace("\\-", "-")
        self.assertEqual(said, set(re.findall(r"--([a-z]+)", page)))

    def assert_prints(self, done, text):
        self.assertEqual((done.stderr.decode(), done.returncode), ("", 0))
        self.assertEqual(done.stdout.decode(), text)

    def assert_complains(self, done, sentence, status=1):
        self.assertEqual(done.stderr.decode().count("\n"), 1, done.stderr)
        self.assertIn(sentence, done.stderr.decode())
        self.assertEqual(done.returncode, status)


def call():
    """A recording of two threads: what each test looks at stands in the first test that uses it."""
    recording = Recording()
    packet = recording.add_class("N5media7CPacketE")
    redraw = recording.add_class("7CRedraw")
    tick = recording.add_class("")
    net = recording.add(1, "net")
    worker = recording.add(2, "worker 1", start=START + 10)
    net.begin(START, 1, 0x7f0000000001, "net")
    worker.begin(START + 10, 2, 0x7f0000000002, "worker 1")
    net.post(START + 1000, packet, 0xA0, 0xC0)
    net.post(START + 1100, redraw, 0xB0, 0xC0)
    worker.event(START + 1200, 300000, packet, 0xA0, 1)
    worker.line(START + 301200, 10, "UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, slow")
    worker.event(START + 301300, 40, redraw, 0xB0)
    worker.timer(START + 302000, 5, 1500, tick)
    net.send(START + 310000, 2000, redraw, 0xC0)
    net.unit(5, START + 311000, 64, 0xC0)  # high water
    net.unit(6, START + 312000, -500000)   # step
    net.line(START + 313000, 25, "detail", flags=1)
    worker.current = (packet, START + 900000)
    return recording


def main(module):
    PROGRAMS["flight"], PROGRAMS["top"], PROGRAMS["host"] = sys.argv[1:4]
    loader = unittest.TestLoader()
    suite = loader.loadTestsFromModule(sys.modules[module])
    names = sys.argv[4:]
    cases = [case for group in suite for case in group if not names or case._testMethodName in names]
    if names and len(cases) != len(names):
        sys.exit(f"no such test: {names}")
    result = unittest.TextTestRunner().run(unittest.TestSuite(cases))
    sys.exit(not result.wasSuccessful() or result.testsRun == 0)
