#!/usr/bin/env python3
"""Looks into the monitor with kelto-top and kelto-flight, and does what the README tells about a
slow handler.

    watch_test.py path/to/rtp_monitor path/to/rtp_monitor_slow directory/of/kelto-top test_Name
"""

import datetime
import json
import os
import re
import resource
import shlex
import signal
import subprocess
import sys
import time
import unittest

import harness
from harness import LIMIT

TESTS = os.path.dirname(os.path.abspath(__file__))
README = os.path.join(TESTS, "..", "README.md")
CALL = os.path.join(TESTS, "..", "data", "call.pcap")
CASE = "## A slow handler, found in three steps"
WORKERS = {"streams 1", "streams 2", "tables"}  # as the monitor names them
SLOW_USEC = 120000  # what tests/slow_handler.cpp sleeps, at least
BATCH = "rtp_monitor::CStreamWorker::Post("  # within the name of an event's class
SLOW = ""
PROGRAMS = ""


class Watch(harness.MonitorTest):
    def setUp(self):
        super().setUp()
        self.environment["XDG_RUNTIME_DIR"] = self.home
        self.directory = os.path.join(self.home, "kelto")

    def program(self, name, *arguments):
        return subprocess.run([os.path.join(PROGRAMS, name), *arguments], env=self.environment,
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=LIMIT)

    def printed(self, name, *arguments):
        done = self.program(name, *arguments)
        self.assertEqual((done.stderr, done.returncode), ("", 0), [name, *arguments])
        return done.stdout

    def recording(self):
        files = os.listdir(self.directory)
        self.assertEqual(len(files), 1, files)
        return os.path.join(self.directory, files[0])

    def rows_of(self, process):
        """The rows of kelto-top by name."""
        done = self.program("kelto-top", str(process.pid), "--once", "--json", "--interval", "0")
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        return {row["name"]: row for row in json.loads(done.stdout)["workers"]}

    def wait_for(self, condition):
        deadline = time.monotonic() + LIMIT
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.05)

    def wait_for_rows(self, process, condition):
        """Figures are written some time after what they count."""
        self.wait_for(lambda: condition(self.rows_of(process)))
        return self.rows_of(process)

    def start_watched(self):
        process = self.start("--watch", CALL)
        self.wait_for_trace("rtp_monitor: reading from")
        return process

    def kill(self, process):
        process.kill()
        process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, -signal.SIGKILL)

    def test_ShowsTheWorkersByTheirNames_WhileItIsWatched(self):
        process = self.start_watched()
        rows = self.wait_for_rows(process, lambda rows: WORKERS <= rows.keys() and all(
            rows[name]["run"] > 0 for name in ("streams 1", "streams 2")))
        for name in ("streams 1", "streams 2"):
            self.assertGreaterEqual(rows[name]["posted"], rows[name]["run"])
            self.assertTrue(rows[name]["longestClass"])
        self.wait_for_rows(process, lambda rows: rows["tables"]["timers"] > 0)

    def test_LeavesARecording_WhenItIsKilled(self):
        process = self.start_watched()
        self.wait_for_rows(process, lambda rows: rows.get("streams 1", {"run": 0})["run"] > 0)
        self.kill(process)
        text = self.printed("kelto-flight")
        self.assertRegex(text, r"\A# rtp_monitor \d+, from .*, was killed; ")
        self.assertRegex(text, r"  streams 1 +event +class=\"[^\"]*" + re.escape(BATCH) +
                         r".* postedBy=\"receiver\"")
        self.assertRegex(text, rf" line +Info: rtp_monitor: reading from {re.escape(CALL)}\n")
        self.assertEqual(text, self.printed("kelto-flight", self.recording()))
        names = re.findall(r"^(\S.*?) +number=", self.printed("kelto-flight", "--threads"), re.M)
        self.assertLessEqual(WORKERS | {"receiver"}, set(names))

    def test_EndsItsRecordingInOrder(self):
        done = self.run_monitor("--fast", "--watch", CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        self.assertIn(f"\nThe recording is in {self.recording()}\n", done.stdout)
        self.assertIn(", ended in order; ", self.printed("kelto-flight"))

    def test_SaysThatThereIsNoRecording_WhenTheDirectoryIsOpenToOthers(self):
        os.mkdir(self.directory)
        os.chmod(self.directory, 0o755)
        done = self.run_monitor("--fast", "--json", "--watch", CALL)
        self.assertEqual(done.stderr, "rtp_monitor: no recording can be kept, the trace lines tell "
                                      "why.\n")
        self.assertEqual((json.loads(done.stdout)["rtp"], done.returncode), (1306, 0))
        self.assertIn("CCmFlight::Open, no file, ", self.trace_text())
        self.assertEqual(os.listdir(self.directory), [])

    @unittest.skipUnless(sys.platform == "linux", "limits the memory as Linux does")
    def test_Complains_WhenThereIsNoMemoryToWatch(self):
        sentence = "rtp_monitor: cannot watch the threads: CM_ERROR_OUT_OF_MEMORY.\n"
        for limit in range(4 << 20, 64 << 20, 256 << 10):  # what is too little for the rest is first
            done = self.run_monitor("--fast", "--json", "--watch", CALL, preexec_fn=lambda:
                                    resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
            if done.stderr == sentence:
                break
        self.assertEqual((done.stderr, done.stdout, done.returncode), (sentence, "", 2))

    def test_KeepsNoRecording_WithoutWatch(self):
        done = self.run_monitor("--fast", CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        self.assertNotIn("recording", done.stdout)
        self.assertFalse(os.path.exists(self.directory))

    def test_KeepsARecording_WhenTheConfigurationSaysSo(self):
        os.mkdir(os.path.join(self.home, "conf"))
        with open(os.path.join(self.home, "conf", "kelto.cfg"), "w") as file:
            file.write("[Watch]\nEnable = 1\n")
        done = self.run_monitor("--fast", CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        self.assertIn(f"\nThe recording is in {self.recording()}\n", done.stdout)

    # The worked case, with the commands of the README. On a busy machine other events may take as
    # long as the slow ones, or longer.

    def commands(self):
        with open(README) as file:
            case = file.read().split(f"\n{CASE}\n")[1].split("\n## ")[0]
        return [shlex.split(line) for line in re.findall(r"^    \$ (.*)$", case, re.M)]

    def slow_lines(self, command, log):
        """What the command finds of slow batches: end, thread, poster, microseconds."""
        found = subprocess.run([*command[:-1], log], text=True, stdout=subprocess.PIPE).stdout
        return [(datetime.datetime.fromisoformat(end), thread.replace("_", " "), poster, int(ran))
                for end, thread, name, poster, ran in re.findall(
                    r"^(\S+ [\d:.]+) .* thread=(\S+) .*, class=(.*) postedBy=(.*) waitedUsec=\w+ "
                    r"ranUsec=(\d+) pending=\d+ ", found, re.M)
                if BATCH in name and int(ran) >= SLOW_USEC]

    def test_FindsTheSlowHandler_AfterThreeSteps(self):
        start, top, grep, flight = self.commands()
        self.assertEqual(start, ["rtp_monitor_slow", "--watch", "--trace", "slow.log", "call.pcap"])
        self.assertEqual(top, ["kelto-top", "--once", "--sort", "longest", "rtp_monitor_slow"])
        self.assertEqual((grep[0], grep[2]), ("grep", "slow.log"))
        self.assertEqual(flight[:6] + flight[7:8], ["kelto-flight", "--thread", "streams 1",
                                                    "--kind", "event", "--from", "--to"])
        log = os.path.join(self.home, "slow.log")
        process = self.start("--watch", "--trace", log, CALL, monitor=SLOW)
        self.wait_for_trace(BATCH, log)
        self.wait_for(lambda: self.slow_lines(grep, log))
        end, culprit, poster, ran = self.slow_lines(grep, log)[0]
        row = self.wait_for_rows(
            process, lambda rows: rows[culprit]["runUsec"]["longest"] >= ran)[culprit]

        # Which worker, and how long its longest event took.
        lines = self.printed(*top).splitlines()
        self.assertRegex(lines[0], r"\Artp_monitor_slow \d+, ")
        self.assertTrue(any(re.match(rf"{culprit} .* (\d{{3}}ms|\d+(\.\d)?s) ", line)
                            for line in lines[2:]), lines)
        self.assertTrue(BATCH in row["longestClass"] or row["runUsec"]["longest"] > ran, row)

        # Which event, of which worker, and who posted it.
        self.assertIn(culprit, ("streams 1", "streams 2"))
        self.assertEqual(poster, "receiver")

        # What that worker ran then, when all is over.
        self.kill(process)
        flight[2], flight[6] = culprit, str(end - datetime.timedelta(seconds=1))
        flight[8] = str(end + datetime.timedelta(seconds=1))
        events = self.printed(*flight).splitlines()[1:]
        for line in events:
            self.assertRegex(line, rf"  {culprit} +event +class=\".*\" ranUsec=\d+ ")
        self.assertTrue(any(BATCH in line and f" ranUsec={ran} " in line and
                            ' postedBy="receiver" ' in line for line in events), events)


if __name__ == "__main__":
    SLOW, PROGRAMS = (os.path.abspath(sys.argv.pop(2)) for _ in range(2))
    harness.run(Watch)
