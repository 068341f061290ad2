#!/usr/bin/env python3
"""Looks at the monitor as a person at a terminal and a program at a pipe do.

    interface_test.py path/to/rtp_monitor test_Name
"""

import fcntl
import json
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time
import unittest
import xml.etree.ElementTree

import captures
import harness
from harness import LIMIT
from captures import ethernet, ipv4, pcap, rtp, udp

TESTS = os.path.dirname(os.path.abspath(__file__))
CALL = os.path.join(TESTS, "..", "data", "call.pcap")
ENTER, LEAVE, RED = "\x1b[?1049h", "\x1b[?1049l", "\x1b[1;31m"
SVG = "{http://www.w3.org/2000/svg}"


def plain(text):
    """Text without escape sequences, and with the line ends of a program."""
    lines = text.replace("\x1b[H", "\n").replace(LEAVE, "\n").replace("\r\n", "\n")
    return re.sub(r"\x1b\[[?0-9;]*[A-Za-z]", "", lines)


def stream(first_ms, count, ssrc=0x01020304, payload_type=0, missing=(), step_ms=20, start=0):
    """Packets with their milliseconds."""
    return [(first_ms + step_ms * i,
             ethernet(ipv4(udp(rtp(start + i, 8 * step_ms * i % 2**32, ssrc, payload_type)))))
            for i in range(count) if i not in missing]


def capture(*streams):
    packets = sorted((packet for one in streams for packet in one), key=lambda packet: packet[0])
    return pcap([]) + b"".join(
        captures.record(frame, captures.START_SECONDS + time_ms // 1000, time_ms % 1000 * 1000)
        for time_ms, frame in packets)


class Screen:
    """A terminal of a given size with the monitor on it."""

    def __init__(self, test, *arguments, columns=100, rows=30, term="xterm", **variables):
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        environment = dict(test.environment, TERM=term, **variables)
        if "NO_COLOR" not in variables:
            environment.pop("NO_COLOR", None)
        self.process = subprocess.Popen(test.command(*arguments), env=environment,
                                        stdin=subprocess.DEVNULL, stdout=slave, stderr=slave)
        os.close(slave)
        self.master = master
        self.pieces = []  # what came, with its time
        self.reader = threading.Thread(target=self.read)
        self.reader.start()
        test.addCleanup(self.end)

    def read(self):
        try:
            while chunk := os.read(self.master, 65536):
                self.pieces.append((time.monotonic(), chunk.decode()))
        except OSError:
            pass  # the end of a terminal

    def end(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        if self.master is not None:
            os.close(self.master)
            self.master = None

    def text(self):
        return "".join(text for _, text in self.pieces)

    def finish(self, test):
        test.assertEqual(self.process.wait(timeout=LIMIT), 0, self.text())
        self.reader.join()
        return self.text()


class Interface(harness.MonitorTest):
    # A terminal

    def shown(self, *arguments, **keywords):
        return Screen(self, *arguments, **keywords).finish(self)

    def titles(self, text):
        line = next(line for line in reversed(plain(text).splitlines()) if " loss" in line)
        return re.sub(r"^s\S* ?>?\S* ?\S*nation", "", line).split()

    def test_FitsTheTerminal_WhateverItsWidth(self):
        path = self.write(capture(stream(0, 30), stream(0, 30, 0x05060708, missing=(5, 6))), "c")
        for columns in (200, 152, 140, 120, 119, 100, 99, 80, 79, 60, 40, 30, 20):
            with self.subTest(columns):
                text = self.shown("--interval", "100", path, columns=columns, rows=40)
                self.assertIn(ENTER, text)
                for line in plain(text).splitlines():
                    if self.trace not in line:  # a path stays whole, to be copied
                        self.assertLessEqual(len(line), columns, line)

    def test_LetsColumnsFallAwayInTheStatedOrder(self):
        path = self.write(capture(stream(0, 30)), "c")
        everything = ("ssrc type packets bytes lost loss here dup order late stray new jitter "
                      "kbit/s now gap ms")
        for columns, titles in (
                (200, everything),
                (120, "ssrc type packets lost loss here stray new jitter kbit/s now gap ms"),
                (100, "ssrc type packets lost loss here jitter kbit/s now"),
                (80, "ssrc type packets loss jitter kbit/s"),
                (60, "type packets loss jitter"),
                (40, "loss jitter"),
                (26, "loss")):
            with self.subTest(columns):
                text = self.shown("--fast", path, columns=columns)
                self.assertEqual(" ".join(self.titles(text)), titles)

    def test_ShortensAddresses_WhenTheyLeaveNoRoom(self):
        packet = [(20 * i, ethernet(captures.ipv6(udp(rtp(i, 160 * i))), 0x86DD))
                  for i in range(30)]
        path = self.write(capture(packet), "c")
        text = plain(self.shown("--fast", path, columns=60))
        row = text.splitlines()[1]
        self.assertRegex(row, r"^\[\S+\.\.\S* ?\S*:5004 ")
        self.assertLessEqual(len(row), 60)

    def test_LeavesTheOrdinaryScreenAsItIs_UntilTheEnd(self):
        path = self.write(capture(stream(0, 40)), "c")
        text = self.shown("--interval", "100", path)
        before, running = text.split(ENTER)
        running, after = running.split(LEAVE)
        self.assertEqual(before, "")
        self.assertGreaterEqual(running.count("> 10.0.0.2:5004"), 3)
        self.assertNotIn("packets per second", running)
        self.assertEqual(after.count("10.0.0.1:4000 > 10.0.0.2:5004"), 1)
        self.assertIn("packets per second", after)
        self.assertRegex(running.split("\x1b[H")[-1], r"\d+% of \S+ read\x1b\[J")
        self.assertEqual((text.count("\x1b[?25l"), text.count("\x1b[?25h")), (1, 1))

    def test_LeavesTheLastTableOnTheOrdinaryScreen_WhenASignalComes(self):
        path = self.write(capture(stream(0, 3000)), "c")
        for a_signal in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(a_signal):
                screen = Screen(self, "--interval", "100", path)
                deadline = time.monotonic() + LIMIT
                while "> 10.0.0.2:5004" not in screen.text():
                    self.assertLess(time.monotonic(), deadline)
                    time.sleep(0.02)
                screen.process.send_signal(a_signal)
                after = plain(screen.finish(self).split(LEAVE)[1])
                self.assertIn("10.0.0.1:4000 > 10.0.0.2:5004", after)
                self.assertRegex(after, rf"\nPartial: the run ended after \d+% of {path}\n")

    def test_ShowsNoMoreRowsThanTheTerminalHas(self):
        path = self.write(capture(*(stream(0, 30, ssrc) for ssrc in range(1, 60))), "c")
        text = self.shown("--interval", "100", path, rows=20, columns=80)
        frames = text.split(LEAVE)[0].split("\x1b[H")[1:]
        self.assertGreater(len(frames), 2)
        for frame in frames:
            self.assertLessEqual(frame.count("\n"), 19)
            self.assertRegex(plain(frame), r"\nand \d+ more streams\n")
        self.assertEqual(text.split(LEAVE)[1].count("> 10.0.0.2:5004"), 59)

    def test_ShowsTableAfterTable_WhenTheTerminalIsDumb(self):
        path = self.write(capture(stream(0, 30)), "c")
        for term in ("dumb", ""):
            text = self.shown("--interval", "100", path, term=term, columns=80)
            self.assertNotIn("\x1b", text)
            self.assertGreaterEqual(text.count("source > destination"), 3)
            self.assertLessEqual(max(len(line) for line in text.splitlines()
                                     if self.trace not in line), 80)

    def test_FitsADumbTerminal_WhateverTheNameOfTheCapture(self):
        path = self.write(capture(stream(0, 40)), "name " * 20)
        for arguments in (("--interval=200",), ("--json",)):
            with self.subTest(arguments):
                text = plain(self.shown(*arguments, path, columns=60, term="dumb"))
                self.assertIn("% of ", text)
                self.assertLessEqual(max(len(line) for line in text.splitlines()
                                         if not line.startswith("{")), 60)

    def test_SendsNoCommandsToTheTerminal_WhateverTheNameOfTheCapture(self):
        path = self.write(capture(stream(0, 40)), "a\x1b[31mb\nc\x7f")
        self.assertIn("a?[31mb?c? read", plain(self.shown("--interval=200", path)))
        os.remove(path)
        self.assertIn("a?[31mb?c?: No such", self.run_monitor(path).stderr)

    def test_ShowsBadFiguresInColour_UntilToldNotTo(self):
        path = self.write(capture(stream(0, 100, missing=(5, 6)), stream(0, 100, 5)), "c")
        text = self.shown("--fast", path)
        self.assertEqual(re.findall(r"\x1b\[1;31m *(\S+)\x1b\[0m", text), ["2.0%"])
        self.assertNotIn(RED, self.shown("--fast", path, NO_COLOR="1"))
        self.assertIn(RED, self.shown("--fast", path, NO_COLOR=""))
        self.assertNotIn("\x1b", self.run_monitor("--fast", path).stdout)
        late = [(ms + (150 if i % 2 else 0), frame)
                for i, (ms, frame) in enumerate(stream(0, 200, step_ms=400))]
        path = self.write(capture(late), "late")
        self.assertEqual(len(re.findall(r"\x1b\[1;31m *\d+\.\d\d\x1b\[0m",
                                        self.shown("--fast", path))), 1)

    # What the table says

    def rows(self, *arguments):
        done = self.run_monitor(*arguments)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        return [line.split() for line in done.stdout.splitlines() if "> 10.0.0.2" in line]

    def ssrcs(self, *arguments):
        return [int(row[3] if row[3] != "ended" else row[4], 16)
                for row in self.rows("--fast", *arguments)]

    def test_ShowsTheWorstStreamsFirstOrAsTold(self):
        path = self.write(capture(
            stream(0, 100, 1), stream(0, 120, 2, missing=range(10, 15)),
            stream(0, 110, 3, missing=(9,)), stream(0, 200, 4, step_ms=10),
            [(ms + (99 if i % 2 else 0), frame)
             for i, (ms, frame) in enumerate(stream(0, 90, 5, step_ms=110))],
            stream(0, 60, 6, missing=range(1, 60, 2))), "c")
        self.assertEqual(self.ssrcs(path), [2, 5, 3, 1, 4, 6])  # the last one is doubtful
        for order, ssrcs in (("worst", [2, 5, 3, 1, 4, 6]), ("loss", [6, 2, 3, 1, 4, 5]),
                             ("packets", [4, 2, 3, 1, 5, 6]), ("address", [1, 2, 3, 4, 5, 6])):
            self.assertEqual(self.ssrcs(f"--sort={order}", path), ssrcs, order)
        for order, first in (("jitter", 5), ("rate", 4), ("gap", 5)):
            self.assertEqual(self.ssrcs("--sort", order, path)[0], first, order)
        self.assert_complains(["--sort=size", path],
                              "the option --sort needs a value that makes sense, see --help")

    def test_MarksStreamsThatHaveEnded(self):
        path = self.write(capture(stream(0, 100, 1), stream(0, 400, 2)), "c")
        rows = self.rows("--fast", path)
        self.assertEqual([row[3:5] for row in rows if "ended" in row], [["ended", "00000001"]])
        self.assertEqual(len(rows), 2)
        document = self.json_of(capture(stream(0, 100, 1), stream(0, 400, 2)))
        self.assertEqual([one["ended"] for one in document["streams"]], [True, False])

    def test_NamesPayloadTypes(self):
        data = capture(*(stream(0, 10, 1 + i, payload_type)
                         for i, payload_type in enumerate((0, 8, 9, 18, 34, 97, 98, 99))))
        path = self.write(data, "c")
        clocks = ("--clock", "97=48000/opus", "--clock=98=vp8", "--sort=address")
        self.assertEqual([row[4] for row in self.rows("--fast", *clocks, path)],
                         ["PCMU", "PCMA", "G722", "G729", "H263", "opus", "VP8", "99"])
        streams = self.json_of(data, *clocks)["streams"]
        self.assertEqual([(one["payloadName"], one["clockRate"]) for one in streams[-3:]],
                         [("opus", 48000), ("VP8", 90000), (None, None)])
        self.assertEqual(streams[0]["payloadTypes"],
                         [{"type": 0, "name": "PCMU", "clockRate": 8000, "packets": 10}])
        for clock in ("97=opus/", "97=/opus", "97=48000/a b", "97=48000/" + "x" * 33, "97=what",
                      "97=", "97=48000/\x1b[2J"):
            self.assert_complains(["--clock", clock, path],
                                  "the option --clock needs a value that makes sense, see --help")

    # Progress

    def test_ShowsProgressTwiceASecond_WhenTheCaptureIsSmall(self):
        path = self.write(capture(stream(0, 1000, step_ms=3)), "c")
        screen = Screen(self, path)
        screen.finish(self)
        shown = [(when, float(seconds), int(percent))
                 for when, text in screen.pieces
                 for seconds, percent in re.findall(r"(\d+\.\d) s: (\d+)% of", text)]
        self.assertGreaterEqual(len(shown), 5)  # in 3 s
        percents = [percent for _, _, percent in shown]
        self.assertEqual(percents, sorted(set(percents)))
        for when, seconds, percent in shown:
            self.assertAlmostEqual(percent, 100 * seconds / 3.0, delta=20)

    def test_ShowsProgressOnTheTerminal_WhenTheTableGoesElsewhere(self):
        path = self.write(capture(stream(0, 60)), "c")
        for arguments in ((), ("--json",)):
            master, slave = pty.openpty()
            process = subprocess.Popen(self.command(*arguments, path),
                                       env=dict(self.environment, TERM="xterm"),
                                       stdout=subprocess.PIPE, stderr=slave)
            os.close(slave)
            output, _ = process.communicate(timeout=LIMIT)
            text = b""
            try:
                while chunk := os.read(master, 65536):
                    text += chunk
            except OSError:
                pass  # the end of a terminal
            os.close(master)
            text = text.decode()
            self.assertNotIn(b"\x1b", output)
            self.assertRegex(text, rf"\A(\r\x1b\[K\d\.\d s: \d+% of {path} read)+\r\x1b\[K\Z")

    def test_SaysThatTheTableIsPartial_AfterAnInterrupt(self):
        path = self.write(capture(stream(0, 3000)), "c")
        process = self.start(path)
        self.wait_for_trace("rtp_monitor: reading from")
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, 0)
        self.assertRegex(output, rf"\nPartial: the run ended after \d+% of {path}\n")
        self.assertNotIn("Partial", self.run_monitor("--fast", path).stdout)

    # The picture

    def plot(self, data, *arguments):
        picture = os.path.join(self.home, "p.svg")
        path = self.write(data, "a <&> \"b\"")
        done = self.run_monitor("--fast", "--plot", picture, *arguments, path)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        self.assertIn(f"\nThe picture is in {picture}\n", done.stdout)
        root = xml.etree.ElementTree.parse(picture).getroot()
        self.assertEqual(root.tag, SVG + "svg")
        return root, os.path.getsize(picture)

    def charts(self, root, kind, shape):
        return [one for one in root.iter(SVG + shape) if one.get("class") == kind]

    def test_DrawsLossJitterAndRateOfEachStream(self):
        root, _ = self.plot(capture(stream(0, 500, missing=range(100, 150)), stream(0, 500, 5)))
        text = "\n".join(root.itertext())
        for word in ("loss, %", "jitter, ms", "bit rate, kbit/s"):
            self.assertEqual(text.count(word), 2)
        self.assertIn('a <&> "b"', text)
        self.assertIn("01020304   PCMU   450 packets, 50 lost (10.0%)", text)
        self.assertEqual(len(self.charts(root, "jitter", "polyline")), 2)
        self.assertEqual(len(self.charts(root, "rate", "polyline")), 2)
        # Packets 100 to 149 are those of the third second of ten.
        bars = self.charts(root, "loss", "rect")
        self.assertGreater(len(bars), 0)
        for bar in bars:
            self.assertTrue(64 + 0.2 * 310 - 5 <= float(bar.get("x")) <= 64 + 0.31 * 310 + 5)
        # 20 bytes every 20 ms are 8 kbit/s; the axis goes to 10.
        line = self.charts(root, "rate", "polyline")[1]
        heights = {float(point.split(",")[1]) for point in line.get("points").split()}
        self.assertEqual(len(heights), 1)

    def test_DrawsAnOutageWhileItLasts(self):
        # Nothing from the third to the end of the seventh second of ten.
        root, _ = self.plot(capture(stream(0, 500, missing=range(100, 400))))
        bars = self.charts(root, "loss", "rect")
        self.assertAlmostEqual(sum(float(bar.get("width")) for bar in bars), 0.6 * 310, delta=10)
        self.assertAlmostEqual(min(float(bar.get("x")) for bar in bars), 64 + 0.2 * 310, delta=5)

    def test_DrawsAPauseAsNoLoss_WhenOnePacketOfItsEndIsLost(self):
        root, _ = self.plot(capture(stream(0, 200, missing=range(190, 191)),
                                    stream(12000, 200, missing=(0,), start=200)))
        bars = self.charts(root, "loss", "rect")
        self.assertEqual(len(bars), 2)
        self.assertLess(sum(float(bar.get("width")) for bar in bars), 12)

    def test_DrawsNoJitter_WithoutAClock(self):
        root, _ = self.plot(capture(stream(0, 50, payload_type=99)))
        self.assertEqual(self.charts(root, "jitter", "polyline"), [])
        self.assertIn("the clock rate is not known (--clock)", list(root.itertext()))

    def test_KeepsThePictureSmall_WhateverTheCapturesLength(self):
        root, size = self.plot(capture(stream(0, 100000), stream(0, 3, 5, step_ms=900000000)))
        self.assertLess(size, 40000)
        for line in self.charts(root, "rate", "polyline"):
            self.assertLessEqual(len(line.get("points").split()), 2 * 121)

    def test_SaysThatItDrawsTheWorst_WhenThereAreManyStreams(self):
        root, _ = self.plot(capture(*(stream(0, 20, 1 + i, missing=(5,) if i == 200 else ())
                                      for i in range(250))))
        text = [one for one in root.itertext() if "streams" in one]
        self.assertIn("250 streams, the first 100 are shown", text)
        self.assertEqual(len(self.charts(root, "rate", "polyline")), 100)
        first = next(one for one in root.itertext() if " packets, " in one)
        self.assertIn("000000c9", first)

    def test_DrawsAnEmptyPicture_WhenNothingCame(self):
        root, _ = self.plot(pcap([]))
        self.assertIn("0 streams", list(root.itertext()))

    def test_Complains_WhenThePictureCannotBeWritten(self):
        path = self.write(capture(stream(0, 30)), "c")
        nowhere = os.path.join(self.home, "no", "p.svg")
        done = self.run_monitor("--plot", nowhere, path)
        self.assertEqual((done.returncode, done.stderr), (
            2, f"rtp_monitor: cannot write a picture to {nowhere}: No such file or directory.\n"))
        self.assertEqual(done.stdout, "")
        if os.path.exists("/dev/full"):
            done = self.run_monitor("--fast", "--plot", "/dev/full", path)
            self.assertEqual((done.returncode, done.stderr), (
                2, "rtp_monitor: cannot write a picture to /dev/full: No space left on device.\n"))
            self.assertIn("10.0.0.1:4000", done.stdout)
            self.assertNotIn("The picture is in", done.stdout)

    # JSON

    def test_PrintsAnObjectForEachInterval_WhenLive(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        process = self.start("--json", "--interval=200", f"udp://127.0.0.1:{port}")
        self.wait_for_trace("rtp_monitor: reading from")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for i in range(50):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
                time.sleep(0.02)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual((errors, process.returncode), ("", 0))
        documents = [json.loads(line) for line in output.splitlines()]
        self.assertGreaterEqual(len(documents), 4)
        self.assertEqual([one["final"] for one in documents],
                         [False] * (len(documents) - 1) + [True])
        self.assert_sums(documents[-1])
        seconds = [one["seconds"] for one in documents]
        self.assertEqual(seconds, sorted(seconds))
        self.assertAlmostEqual(documents[-1]["time"], time.time(), delta=LIMIT)
        self.assertGreater(max(one["intervalBitRate"] for document in documents
                               for one in document["streams"]), 0)
        self.assertEqual(documents[-1]["streams"][0]["packets"], 50)

    def test_PrintsAnObjectForEachInterval_WhenItReadsAPipe(self):
        process = self.start("--json", "--interval", "100", "-", stdin=subprocess.PIPE)
        process.stdin.buffer.write(capture(stream(0, 10)))
        process.stdin.flush()
        time.sleep(0.6)
        output, _ = process.communicate(timeout=LIMIT)
        documents = [json.loads(line) for line in output.splitlines()]
        self.assertGreaterEqual(len(documents), 3)
        self.assertEqual((documents[-1]["final"], documents[-1]["complete"]), (True, True))

    def test_PrintsOneObject_WithoutIntervalsToTellOf(self):
        for arguments in ((), ("--interval=100",)):
            done = self.run_monitor("--json", *arguments, self.write(capture(stream(0, 30))))
            self.assertEqual(len(done.stdout.splitlines()), 1)
            self.assertTrue(json.loads(done.stdout)["final"])

    def test_PrintsJson_WhateverTheNameHolds(self):
        name = b"\xff\xc3\xa4\xed\xa0\x80\xf0\x9f\x93\x9e\"\\\t\x7f.pcap"
        path = os.path.join(self.home.encode(), name)
        with open(path, "wb") as file:
            file.write(capture(stream(0, 3)))
        done = subprocess.run([part.encode() for part in self.command("--fast", "--json")] + [path],
                              env=self.environment, stdout=subprocess.PIPE, timeout=LIMIT)
        name = json.loads(done.stdout.decode())["inputs"][0]["name"]
        self.assertEqual(os.path.basename(name),
                         "\ufffd\u00e4\ufffd\ufffd\ufffd\U0001f4de\"\\\t\x7f.pcap")

    def test_DocumentsEveryMember(self):
        with open(os.path.join(TESTS, "..", "README.md")) as file:
            documented = set(re.findall(r"^\| `(\w+)` \|", file.read(), re.MULTILINE))
        document = self.json_of(capture(stream(0, 3)))
        names = set(document) | set(document["streams"][0]) | set(document["skippedFor"])
        names |= set(document["streams"][0]["payloadTypes"][0])
        names |= {"name", "group", "dropped", "bufferAsked", "bufferGranted"}
        self.assertEqual(names - documented, set())

    # The command line

    def test_TakesEveryWayToWriteOptions(self):
        path = self.write(capture(stream(0, 3)), "-c")
        for arguments in (("--fast", "--json", "--workers=3", "--", path),
                          ("--workers", "3", path, "--json", "--fast")):
            self.assertEqual(json.loads(self.run_monitor(*arguments).stdout)["rtp"], 3)
        done = self.run_monitor("--fast", "--json", "--", "-c", cwd=self.home)
        self.assertEqual(json.loads(done.stdout)["rtp"], 3)
        for arguments, sentence in (
                (["--fast=1", path], "the option --fast takes no value, see --help"),
                (["--what=1", path], "there is no option --what, see --help"),
                (["-x", path], "there is no option -x, see --help"),
                (["--workers=", path],
                 "the option --workers needs a value that makes sense, see --help"),
                (["--"], "a capture file or an address udp://ADDRESS:PORT is missing, see --help"),
                (["--", "--help", "--json"],
                 "only one capture, or several addresses, can be given, see --help")):
            with self.subTest(arguments):
                self.assert_complains(arguments, sentence)

    def test_TellsItsVersion(self):
        done = self.run_monitor("--version")
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        self.assertRegex(done.stdout, r"\Artp_monitor \d+\.\d+\.\d+, kelto_util \d+\.\d+\.\d+\n\Z")

    def test_PrintsTheSameHelp_WhateverTheOption(self):
        help_text = self.run_monitor("--help").stdout
        self.assertEqual(self.run_monitor("-h").stdout, help_text)
        for word in ("--plot FILE", "--sort ORDER", "--version", "-h, --help", "NO_COLOR"):
            self.assertIn(word, help_text)

    def test_AcceptsTheSampleConfiguration(self):
        with open(os.path.join(TESTS, "..", "kelto.cfg")) as file:
            sample = file.read()
        os.mkdir(os.path.join(self.home, "conf"))
        path = os.path.join(self.home, "conf", "kelto.cfg")
        with open(path, "w") as file:
            file.write(sample)
        os.utime(path, (time.time() - 60, time.time() - 60))
        document = self.json_of(capture(stream(0, 10, payload_type=111)))
        one = document["streams"][0]
        self.assertEqual((one["payloadName"], one["clockRate"]), ("opus", 48000))
        keys = set(re.findall(r"^(\w+)", sample, re.MULTILINE))
        self.assertEqual(keys, {"Workers", "Interval", "Streams", "Buffer", "Sort", "Level",
                                "Clock"})

    # Output that is lost

    def assert_is_lost(self, words, *arguments, **keywords):
        process = subprocess.run(self.command(*arguments), env=self.environment, text=True,
                                 stderr=subprocess.PIPE, timeout=LIMIT, **keywords)
        self.assertEqual((process.returncode, process.stderr),
                         (2, f"rtp_monitor: cannot write to standard output: {words}.\n"))

    @unittest.skipUnless(os.path.exists("/dev/full"), "there is no /dev/full")
    def test_Fails_WhenTheDiskIsFull(self):
        path = self.write(capture(stream(0, 30)))
        with open("/dev/full", "w") as full:
            for arguments in (["--help"], ["--version"], ["--fast", path],
                              ["--fast", "--json", path], ["--interval", "100", path]):
                with self.subTest(arguments):
                    self.assert_is_lost("No space left on device", *arguments, stdout=full)

    def test_Fails_WhenThePipeIsClosed(self):
        path = self.write(capture(stream(0, 30)))
        for arguments in (["--help"], ["--fast", path], ["--fast", "--json", path]):
            with self.subTest(arguments):
                read, write = os.pipe()
                os.close(read)
                self.assert_is_lost("Broken pipe", *arguments, stdout=write)
                os.close(write)

    def test_EndsTheRun_WhenThePipeIsClosedMeanwhile(self):
        for arguments in (("--interval=100",), ("--json", "--interval=100")):
            process = self.start(*arguments, self.live_address())
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.wait(timeout=LIMIT), 2)
            self.assertEqual(process.stderr.read(),
                             "rtp_monitor: cannot write to standard output: Broken pipe.\n")

    def test_EndsTheRun_WhenThePipeIsClosedBeforeAnythingIsWritten(self):
        process = self.start("--json", self.live_address())
        process.stdout.close()
        self.assertEqual(process.wait(timeout=LIMIT), 2)
        self.assertEqual(process.stderr.read(),
                         "rtp_monitor: cannot write to standard output: Broken pipe.\n")

    def test_EndsSoon_WhenNobodyReadsItsOutput(self):
        read, write = os.pipe()
        self.addCleanup(os.close, read)
        os.set_blocking(write, False)
        try:
            while True:
                os.write(write, bytes(4096))
        except BlockingIOError:
            os.set_blocking(write, True)
        # Results alone, and with what is said about them.
        for errors in (subprocess.PIPE, write):
            with self.subTest(errors):
                process = subprocess.Popen(
                    self.command("--json", "--interval=100", self.live_address()),
                    env=self.environment, text=True, stdout=write, stderr=errors)
                self.addCleanup(process.kill)
                time.sleep(0.5)
                begin = time.monotonic()
                process.terminate()
                self.assertEqual(process.wait(timeout=LIMIT), 2)
                self.assertLess(time.monotonic() - begin, 5)  # half a second, on an idle machine
                if process.stderr is not None:
                    with process.stderr as said:
                        self.assertEqual(said.read(), "rtp_monitor: cannot write to standard "
                                         "output: it is full and nobody reads it.\n")
        os.close(write)

    def test_RunsOn_WhenItIsToOutliveItsTerminal(self):
        process = self.start(self.live_address(), preexec_fn=lambda: signal.signal(
            signal.SIGHUP, signal.SIG_IGN))
        self.wait_for_trace("reading from")
        process.send_signal(signal.SIGHUP)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.5)
        process.terminate()
        self.assertEqual(process.wait(timeout=LIMIT), 0)

    def test_TellsNoIntervalBitRate_BeforeAnIntervalIsOver(self):
        path = self.write(capture(stream(0, 10)))
        for interval, known in (("3600000", False), ("100", True)):
            with self.subTest(interval):
                done = self.run_monitor("--json", "--interval", interval, path)
                rate = json.loads(done.stdout)["streams"][0]["intervalBitRate"]
                self.assertEqual(rate is not None, known)

    def test_ComplainsAndLeavesTheCapture_WhenItIsToBeWrittenTo(self):
        data = capture(stream(0, 10))
        path = self.write(data)
        other = os.path.join(self.home, "other name")
        os.link(path, other)
        self.assert_complains(["--fast", "--plot", other, path],
                              f"cannot write a picture to {other}: it is the capture")
        self.assert_complains(["--fast", "--trace", other, path],
                              f"cannot write trace lines to {other}: it is the capture")
        with open(path, "rb") as file:
            self.assertEqual(file.read(), data)

    def live_address(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            return f"udp://127.0.0.1:{probe.getsockname()[1]}"

    def test_Fails_WhenThereIsNoStandardOutput(self):
        path = self.write(capture(stream(0, 30)))
        self.assert_is_lost("Bad file descriptor", "--fast", path,
                            preexec_fn=lambda: os.close(1))

    # Trace lines

    def closing(self, *arguments):
        done = self.run_monitor("--fast", *arguments, self.write(capture(stream(0, 3))))
        return done.stdout.splitlines()[-1], done

    def test_SaysWhereTraceLinesAre_AfterALook(self):
        self.assertEqual(self.closing()[0], f"Trace lines are in {self.trace}")
        self.assertGreater(os.path.getsize(self.trace), 0)
        os.remove(self.trace)
        os.mkdir(os.path.join(self.home, "conf"))
        path = os.path.join(self.home, "conf", "kelto.cfg")
        with open(path, "w") as file:
            file.write("[Trace]\nEnable = FALSE\n")
        os.utime(path, (time.time() - 60, time.time() - 60))
        self.environment["QTRACE_LEVEL"] = "0"
        line, _ = self.closing("--level=error")
        lines = self.trace_text()
        self.assertEqual(line, ("Trace lines are in " if lines else "No trace lines came to ") +
                         self.trace)
        self.environment["QTRACE_FILE"] = "/dev/null"
        self.assertEqual(self.closing()[0], "Trace lines went to /dev/null")

    def test_SaysThatTraceLinesAreLost_WhenTheFileHasGone(self):
        process = self.start(self.write(capture(stream(0, 60))))
        self.wait_for_trace("rtp_monitor: reading from")
        os.remove(self.trace)
        output, _ = process.communicate(timeout=LIMIT)
        self.assertTrue(output.endswith(
            f"The trace lines are lost: {self.trace}: No such file or directory\n"))

    def test_Complains_WhenTheTraceFileCannotBeWritten(self):
        path = os.path.join(self.home, "no", "trace.log")
        for arguments in (["--trace", path], []):
            self.environment["QTRACE_FILE"] = path
            self.assert_complains([*arguments, CALL], f"cannot write trace lines to {path}: "
                                  "No such file or directory")
        self.assert_complains(["--trace", self.home, CALL],
                              f"cannot write trace lines to {self.home}: Is a directory")

    def test_WritesTraceLinesToTheUsersOwnPlace_WhenToldNothing(self):
        del self.environment["QTRACE_FILE"]
        own = os.path.join(self.home, "own")
        os.mkdir(own)
        self.environment["HOME"] = own
        below = "Library/Logs" if sys.platform == "darwin" else ".local/state"
        places = [(None, os.path.join(own, below)), ("relative", os.path.join(own, below))]
        if sys.platform != "darwin":
            places.append((os.path.join(self.home, "state"), os.path.join(self.home, "state")))
        for state, place in places:
            self.environment.pop("XDG_STATE_HOME", None)
            if state is not None:
                self.environment["XDG_STATE_HOME"] = state
            path = os.path.join(place, "rtp_monitor", "rtp_monitor.log")
            self.assertEqual(self.closing()[0], f"Trace lines are in {path}")
            self.assertEqual(os.stat(os.path.dirname(path)).st_mode & 0o077, 0)
            with open(path) as file:
                self.assertIn("rtp_monitor: handled 3 packets\n", file.read())
            os.remove(path)

    def test_RunsWithoutTraceLines_WhenTheUserHasNoPlaceForThem(self):
        del self.environment["QTRACE_FILE"]
        self.environment.pop("XDG_STATE_HOME", None)
        file = self.write(b"", "file")
        self.environment["HOME"] = file
        last, done = self.closing()
        self.assertRegex(last, " packets per second$")
        self.assertRegex(done.stderr, rf"\Artp_monitor: cannot write trace lines to {file}/\S+: "
                         r"Not a directory\.\n\Z")
        self.assertEqual(done.returncode, 0)


if __name__ == "__main__":
    harness.run(Interface)
