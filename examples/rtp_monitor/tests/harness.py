"""What the scripts that run the monitor share."""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

LIMIT = 60  # seconds; a run that takes longer hangs
MONITOR = ""


class MonitorTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="m", dir="/tmp")  # a home directory is short
        self.addCleanup(shutil.rmtree, self.home)
        self.trace = os.path.join(self.home, "trace.log")
        self.environment = dict(os.environ, QTRACE_FILE=self.trace)

    def write(self, data, name="capture file.pcap"):
        path = os.path.join(self.home, name)
        with open(path, "wb") as file:
            file.write(data)
        return path

    def command(self, *arguments):
        return [MONITOR, "--home", self.home, *arguments]

    def run_monitor(self, *arguments, **keywords):
        return subprocess.run(self.command(*arguments), env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=LIMIT,
                              **keywords)

    def start(self, *arguments, monitor=None, **keywords):
        command = self.command(*arguments)
        command[0] = monitor or command[0]
        process = subprocess.Popen(command, env=self.environment, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, **keywords)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def json_of(self, data, *arguments):
        done = self.run_monitor("--fast", "--json", *arguments, self.write(data))
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        document = json.loads(done.stdout)
        self.assert_sums(document)
        return document

    def trace_text(self, path=None):
        with open(path or self.trace) as file:
            return file.read()

    def wait_for_trace(self, text, path=None):
        deadline = time.monotonic() + LIMIT
        while not os.path.exists(path or self.trace) or text not in self.trace_text(path):
            self.assertLess(time.monotonic(), deadline, f"no trace line with '{text}'")
            time.sleep(0.02)

    def assert_complains(self, arguments, sentence):
        done = self.run_monitor(*arguments)
        self.assertEqual(done.stderr, f"rtp_monitor: {sentence}.\n")
        self.assertEqual(done.returncode, 2)
        return done

    def assert_sums(self, document):
        """What the README states about figures that must add up."""
        for stream in document["streams"]:
            self.assertEqual(stream["packets"], stream["expected"] - stream["lost"] -
                             stream["droppedHere"] + stream["duplicates"] + stream["late"], stream)
            self.assertEqual(stream["packets"] + stream["strays"],
                             sum(entry["packets"] for entry in stream["payloadTypes"]))
        self.assertEqual(document["rtp"], document["forgottenPackets"] + sum(
            stream["packets"] + stream["strays"] for stream in document["streams"]))
        self.assertEqual(document["skipped"], sum(document["skippedFor"].values()))


def run(test_case):
    """script.py path/to/rtp_monitor [test_Name...]"""
    global MONITOR
    MONITOR = os.path.abspath(sys.argv.pop(1))
    unittest.main(argv=[sys.argv[0]] + [f"{test_case.__name__}.{name}" for name in sys.argv[1:]])
