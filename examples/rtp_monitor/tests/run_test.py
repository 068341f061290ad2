#!/usr/bin/env python3
"""Runs the monitor as its users do.

    run_test.py path/to/rtp_monitor test_Name
"""

import ctypes
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import captures
import harness
import load
from harness import LIMIT
from captures import ethernet, ipv4, ipv6, pcap, pcapng, rtp, sll, sll2, udp

TESTS = os.path.dirname(os.path.abspath(__file__))
CALL = os.path.join(TESTS, "..", "data", "call.pcap")
CALL_CLOCKS = ("--clock", "96=90000", "--clock", "97=48000")
IN_OPEN, IN_CLOSE = 0x20, 0x18

# Worked out by figures.py, which knows nothing of the monitor.
VIDEO = {"source": "127.0.0.1:32987", "destination": "127.0.0.1:5006", "ssrc": "0x55667788",
         "payloadType": 96, "clockRate": 90000, "packets": 508, "bytes": 362774, "expected": 509,
         "lost": 4, "duplicates": 3, "outOfOrder": 1, "restarts": 0, "jitterMs": 2.283,
         "bitRate": 182158, "longestGapMs": 134.648}
AUDIO = {"source": "127.0.0.1:49893", "destination": "127.0.0.1:5004", "ssrc": "0x11223344",
         "payloadType": 97, "clockRate": 48000, "packets": 798, "bytes": 70781, "expected": 801,
         "lost": 5, "duplicates": 2, "outOfOrder": 2, "restarts": 0, "jitterMs": 15.782,
         "bitRate": 35394, "longestGapMs": 73.148}


def known(stream):
    """The figures of a stream that figures.py knows as well."""
    return {name: value for name, value in stream.items() if name in VIDEO}


def frames(count, first=100):
    return [ethernet(ipv4(udp(rtp(first + i, 160 * i)))) for i in range(count)]


class RtpMonitor(harness.MonitorTest):
    # The bundled capture

    def test_PrintsKnownFiguresOfTheBundledCapture(self):
        done = self.run_monitor("--fast", "--json", *CALL_CLOCKS, CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        document = json.loads(done.stdout)
        self.assertGreater(document.pop("packetsPerSecond"), 0)
        self.assert_sums(document)
        self.assertEqual([known(stream) for stream in document["streams"]], [VIDEO, AUDIO])
        self.assertEqual((document["rtp"], document["rtcp"], document["notRtp"],
                          document["skipped"], document["complete"]), (1306, 8, 0, 0, True))

    def test_KnownFiguresAreThoseOfTheScript(self):
        done = subprocess.run(
            [sys.executable, os.path.join(TESTS, "figures.py"), CALL, "96=90000", "97=48000"],
            stdout=subprocess.PIPE, text=True, check=True)
        self.assertEqual(json.loads(done.stdout), [VIDEO, AUDIO])

    def test_PrintsSameFigures_WhateverTheNumberOfWorkers(self):
        for workers in ("1", "3", "64"):
            done = self.run_monitor("--fast", "--json", "--workers", workers, *CALL_CLOCKS, CALL)
            self.assertEqual([known(stream) for stream in json.loads(done.stdout)["streams"]],
                             [VIDEO, AUDIO])

    # Allocations that fail

    def check_with_failing_allocation(self, number, *arguments):
        """Whether the run had so many allocations."""
        failed = os.path.join(self.home, "failed")
        self.environment.update(FAIL_ALLOCATION=str(number), FAILED_ALLOCATION=failed)
        done = self.run_monitor("--fast", "--json", *arguments, *CALL_CLOCKS, CALL)
        reached = os.path.exists(failed)
        what = f"allocation {number} failed, {arguments}: {done.returncode}, {done.stderr}"
        if done.returncode == -signal.SIGABRT:  # its own, where nothing else is left to do
            self.assertIn("terminate called", done.stderr, what)
        elif done.returncode == 0 and done.stderr == "":
            streams = [known(stream) for stream in json.loads(done.stdout)["streams"]]
            self.assertEqual(streams, [VIDEO, AUDIO], what)
        else:
            self.assertIn(done.returncode, (0, 2), what)
            self.assertRegex(done.stderr, "^rtp_monitor: ", what)
        if reached:
            os.remove(failed)
        return reached

    def test_EndsByItselfAndHidesNothing_WhateverAllocationFails(self):
        library = os.path.join(os.path.dirname(harness.MONITOR), "fail_allocation.so")
        self.assertTrue(os.path.exists(library), library)
        link = os.path.join(self.home, "fail_allocation.so")  # the loader takes no blank
        os.symlink(os.path.abspath(library), link)
        self.environment.update(LD_PRELOAD=link, XDG_RUNTIME_DIR=self.home)
        # Without memory for good, the end of a worker waits for ever.
        for failures, *arguments in (1,), (2,), (8,), (1, "--watch"), (8, "--watch"):
            count = 0
            while self.check_with_failing_allocation(f"{count + 1}+{failures}", *arguments):
                count += 1
            self.assertGreater(count, 150)

    def test_PrintsTable(self):
        done = self.run_monitor("--fast", *CALL_CLOCKS, CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        lines = [" ".join(line.split()) for line in done.stdout.splitlines()[-6:]]
        self.assertEqual(lines[:4], [
            "source > destination ssrc type packets bytes lost loss here dup order late stray new "
            "jitter kbit/s now gap ms",
            "127.0.0.1:32987 > 127.0.0.1:5006 55667788 96 508 362774 4 0.8% 0 3 1 0 0 0 2.28 182.2 - "
            "134.6",
            "127.0.0.1:49893 > 127.0.0.1:5004 11223344 97 798 70781 5 0.6% 0 2 2 0 0 0 15.78 35.4 - "
            "73.1",
            "RTP 1306, RTCP 8, other UDP 0, skipped 0"])
        self.assertRegex(lines[4], r"^1314 packets in \d+\.\d\d s, \d+ packets per second$")
        self.assertEqual(lines[5], f"Trace lines are in {self.trace}")

    # Captures of every kind

    def test_ReadsPcapng(self):
        document = self.json_of(pcapng(frames(50)))
        self.assertEqual((document["rtp"], document["skipped"]), (50, 0))
        self.assertEqual(document["streams"][0]["longestGapMs"], 20)

    def test_ReadsEveryLinkType(self):
        packet = [ipv4(udp(rtp(i))) for i in range(3)]
        for name, link_type, wrap in (
                ("Ethernet", captures.ETHERNET, ethernet),
                ("VLAN", captures.ETHERNET, lambda data: ethernet(data, tags=[0x8100])),
                ("two tags", captures.ETHERNET, lambda data: ethernet(data, tags=[0x88A8, 0x8100])),
                ("Linux cooked", captures.SLL, sll),
                ("Linux cooked, version 2", captures.SLL2, sll2),
                ("raw IP", captures.RAW, bytes),
                ("raw IPv4", captures.IPV4, bytes),
                ("BSD loopback", captures.NULL, lambda data: b"\2\0\0\0" + data),
                ("BSD loopback, big-endian", captures.NULL, lambda data: b"\0\0\0\2" + data)):
            with self.subTest(name):
                document = self.json_of(pcap([wrap(data) for data in packet], link_type))
                self.assertEqual((document["rtp"], document["skipped"]), (3, 0))
                self.assertEqual(document["streams"][0]["source"], "10.0.0.1:4000")
                self.assertEqual(document["streams"][0]["destination"], "10.0.0.2:5004")

    def test_SkipsAndCountsByReason(self):
        whole = ethernet(ipv4(udp(rtp(1))))
        packet = ipv4(udp(rtp(1)))
        long = udp(rtp(1, payload=bytes(2000)))
        encrypted = ipv6(bytes(40), next_header=50)
        for name, frame, reason in (
                ("ARP", ethernet(bytes(28), 0x0806), "notIp"),
                ("TCP", ethernet(ipv4(bytes(40), protocol=6)), "notUdp"),
                ("TCP over IPv6", ethernet(ipv6(bytes(40), next_header=6), 0x86DD), "notUdp"),
                ("ICMPv6", ethernet(ipv6(bytes(40), next_header=58), 0x86DD), "notUdp"),
                ("encrypted IPv6", ethernet(encrypted, 0x86DD), "ipv6NotRead"),
                ("first fragment without UDP", ethernet(ipv4(b"1234567", fragment=0x2000)),
                 "fragment"),
                ("first fragment without RTP", ethernet(ipv4(long[:16], fragment=0x2000)),
                 "cutOff"),
                ("later fragment", ethernet(ipv4(rtp(1), fragment=0x0010)), "fragment"),
                ("last fragment of IPv6",
                 ethernet(ipv6(struct.pack(">BBHI", 17, 0, 8, 1) + rtp(1), next_header=44), 0x86DD),
                 "fragment"),
                ("cut off before RTP", (whole[:42], len(whole)), "cutOff"),
                ("cut off in RTP", (whole[:53], len(whole)), "cutOff"),
                ("cut off in UDP", (whole[:41], len(whole)), "cutOff"),
                ("cut off in IP", (whole[:33], len(whole)), "cutOff"),
                ("cut off in Ethernet", (whole[:13], len(whole)), "cutOff"),
                ("cut off at once", (b"", len(whole)), "cutOff"),
                ("no room for UDP", ethernet(ipv4(b"1234567")), "malformed"),
                ("IP header too short", ethernet(b"\x44" + packet[1:]), "malformed"),
                ("IP header beyond the packet", ethernet(b"\x4f" + packet[1:30]), "malformed"),
                ("IP shorter than its header", ethernet(ipv4(udp(rtp(1)), size=19)), "malformed"),
                ("IP longer than its frame", ethernet(ipv4(udp(rtp(1)), size=1000)), "malformed"),
                ("neither IPv4 nor IPv6", ethernet(b"\x55" + packet[1:]), "malformed"),
                ("IPv6 longer than its frame", ethernet(ipv6(udp(rtp(1)), size=1000), 0x86DD),
                 "malformed"),
                ("options beyond IPv6",
                 ethernet(ipv6(struct.pack(">BB6x", 17, 200), next_header=0), 0x86DD), "malformed"),
                ("UDP longer than IP", ethernet(ipv4(udp(rtp(1), length=100))), "malformed"),
                ("UDP shorter than its header", ethernet(ipv4(udp(rtp(1), length=7))),
                 "malformed"),
                ("tags without end", ethernet(b"", 0x8100, tags=[0x8100]), "malformed"),
                ("half an Ethernet header", bytes(13), "malformed"),
                ("empty frame", b"", "malformed")):
            with self.subTest(name):
                document = self.json_of(pcap([frame]))
                self.assertEqual((document["skipped"], document["rtp"], document["notRtp"]),
                                 (1, 0, 0))
                self.assertEqual(document["skippedFor"][reason], 1, document["skippedFor"])

    def test_CountsFramesOfOtherKinds(self):
        document = self.json_of(pcap([bytes(60)] * 3, captures.WIFI))
        self.assertEqual((document["skipped"], document["skippedFor"]["otherLinkType"]), (3, 3))

    def test_TakesIpOptionsAndEthernetPadding(self):
        document = self.json_of(pcap([ethernet(ipv4(udp(rtp(1)), options=bytes(8)) + bytes(6)),
                                      ethernet(ipv4(udp(rtp(2))) + bytes(6))]))
        self.assertEqual((document["rtp"], document["streams"][0]["bytes"]), (2, 40))

    def test_CountsRtcpAndOtherUdp(self):
        rtcp = bytes([0x80, 200, 0, 6]) + bytes(24)
        document = self.json_of(pcap(
            [ethernet(ipv4(udp(data))) for data in (rtcp, rtcp, b"", b"GET /", rtp(1)[:11])]))
        self.assertEqual((document["rtcp"], document["notRtp"], document["rtp"]), (2, 3, 0))

    def test_ShowsAStreamAsDoubtful_WhenNoNumbersAreConsecutive(self):
        lone = [rtp(1, ssrc=1)]
        every_other = [rtp(2 * i, 320 * i, ssrc=2) for i in range(50)]
        stream = [rtp(i, 160 * i, ssrc=3) for i in range(2)]
        data = pcap([ethernet(ipv4(udp(data))) for data in lone + every_other + stream])
        document = self.json_of(data)
        self.assertEqual(
            [(entry["doubtful"], entry["packets"], entry["lost"]) for entry in document["streams"]],
            [(True, 1, 0), (True, 50, 49), (False, 2, 0)])
        table = self.run_monitor("--fast", self.write(data)).stdout
        self.assertEqual([" PCMU? " in line for line in table.splitlines() if "10.0.0.1" in line],
                         [False, True, True])

    def test_GivesPlacesOfTheLeastRecentlyHeardToNewStreams(self):
        lone = [rtp(i, ssrc=i) for i in range(1000)]
        stream = [rtp(i, ssrc=0xFFFFFFFF) for i in range(1000)]
        mixed = [ethernet(ipv4(udp(data))) for pair in zip(lone, stream) for data in pair]
        document = self.json_of(pcap(mixed), "--streams", "10")
        self.assertEqual([(entry["ssrc"], entry["packets"]) for entry in document["streams"]],
                         [(f"0x{i:08x}", 1) for i in range(991, 1000)] + [("0xffffffff", 1000)])
        self.assertEqual((document["forgottenStreams"], document["forgottenPackets"]), (991, 991))

    def test_KnowsClockOfFixedTypes(self):
        stream = self.json_of(pcap(frames(3)))["streams"][0]
        self.assertEqual((stream["clockRate"], stream["jitterMs"]), (8000, 0))

    def test_HasNoJitter_WhenTheClockIsUnknown(self):
        data = pcap([ethernet(ipv4(udp(rtp(i, payload_type=100)))) for i in range(3)])
        stream = self.json_of(data)["streams"][0]
        self.assertEqual((stream["clockRate"], stream["jitterMs"]), (None, None))

    def test_TakesCaptureWithoutPackets(self):
        self.assertEqual(self.json_of(pcap([]))["streams"], [])

    def test_ReadsStandardInput(self):
        with open(CALL, "rb") as file:
            done = self.run_monitor("--fast", "--json", "-", stdin=file)
        self.assertEqual((done.returncode, json.loads(done.stdout)["rtp"]), (0, 1306))

    def test_KeepsPaceOfTheCapture(self):
        path = self.write(pcap(frames(26)))
        start = time.monotonic()
        done = self.run_monitor("--json", path)
        self.assertGreaterEqual(time.monotonic() - start, 0.495)  # 25 times 20 ms, whole ms slept
        self.assertEqual(json.loads(done.stdout)["rtp"], 26)

    # What goes wrong

    def test_ShowsWhatWasRead_WhenTheCaptureIsTruncated(self):
        path = self.write(pcap(frames(10))[:-5])
        done = self.run_monitor("--fast", "--json", path)
        document = json.loads(done.stdout)
        self.assertEqual((document["rtp"], document["complete"]), (9, False))
        self.assertRegex(done.stderr, rf"^rtp_monitor: stopped reading {path}: it ends in the middle of a packet\.\n$")
        self.assertEqual(done.returncode, 2)

    def test_Complains_WhenAFileIsNoCapture(self):
        self.assert_complains(["/no/such/file"], "cannot read from /no/such/file: "
                              "No such file or directory")
        self.assert_complains(["/"], "cannot read from /: it is a directory")
        path = self.write(b"this is no capture, but it is long enough to be one")
        self.assert_complains([path], f"cannot read from {path}: it is no capture file, "
                              "neither pcap nor pcapng")
        path = self.write(b"")
        self.assert_complains([path], f"cannot read from {path}: it is empty")

    def test_Complains_WhenArgumentsAreBad(self):
        for arguments, sentence in (
                ([], "a capture file or an address udp://ADDRESS:PORT is missing, see --help"),
                (["a", "b"], "only one capture, or several addresses, can be given, see --help"),
                (["udp://127.0.0.1:5004", "b"],
                 "only one capture, or several addresses, can be given, see --help"),
                (["--what", "a"], "there is no option --what, see --help"),
                (["--workers"], "the option --workers needs a value that makes sense, see --help"),
                (["--workers", "0", "a"],
                 "the option --workers needs a value that makes sense, see --help"),
                (["--workers", "65", "a"],
                 "the option --workers needs a value that makes sense, see --help"),
                (["--workers", "2x", "a"],
                 "the option --workers needs a value that makes sense, see --help"),
                (["--interval", "99", "a"],
                 "the option --interval needs a value that makes sense, see --help"),
                (["--clock", "96", "a"],
                 "the option --clock needs a value that makes sense, see --help"),
                (["--clock", "128=8000", "a"],
                 "the option --clock needs a value that makes sense, see --help"),
                (["--level", "loud", "a"],
                 "the option --level needs a value that makes sense, see --help"),
                (["--trace", "", "a"],
                 "the option --trace needs a value that makes sense, see --help"),
                (["--home", "/tmp/much/too/long", "a"],
                 "the home directory given with --home must have 1 to 15 characters, "
                 "the last '/' among them")):
            with self.subTest(arguments):
                self.assertEqual(self.assert_complains(arguments, sentence).stdout, "")

    def test_Complains_WhenAnAddressIsBad(self):
        for address in ("tcp://127.0.0.1:5004", "udp://127.0.0.1", "udp://127.0.0.1:0",
                        "udp://127.0.0.1:65537", "udp://1.2.3:5904",
                        "udp://300.1.1.1:5004", "udp://127.0.0.1.5:5004", "udp://127.0.0.1:5004/",
                        "udp://127.0.0.1:5004?interface=lo", "udp://localhost:5004",
                        "udp://me@127.0.0.1:5004", "udp://127.0.0.1:port", "udp://:5004", "udp://"):
            with self.subTest(address):
                self.assert_complains([address], f"cannot read from {address}: it is not of the "
                                      "form udp://ADDRESS:PORT")

    def test_Complains_WhenThePortIsInUse(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            address = f"udp://127.0.0.1:{taken.getsockname()[1]}"
            self.assert_complains([address], f"cannot read from {address}: Address already in use")

    def test_Complains_WhenTheAddressIsNotOfThisHost(self):
        self.assert_complains(["udp://192.0.2.1:5004"], "cannot read from udp://192.0.2.1:5004: "
                              "Cannot assign requested address")

    # Live, and the end of a run

    def start_live(self, *arguments):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        process = self.start(*arguments, f"udp://127.0.0.1:{port}")
        self.wait_for_trace("rtp_monitor: reading from")
        return process, port

    def receive_live(self, a_signal):
        process, port = self.start_live("--json")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.bind(("127.0.0.1", 0))
            source = f"127.0.0.1:{sender.getsockname()[1]}"
            for i in range(100):
                if i != 50:
                    sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
            sender.sendto(b"no RTP", ("127.0.0.1", port))
        time.sleep(0.5)
        process.send_signal(a_signal)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual((errors, process.returncode), ("", 0))
        document = json.loads(output)
        stream = document["streams"][0]
        self.assertEqual((stream["source"], stream["destination"]),
                         (source, f"127.0.0.1:{port}"))
        self.assertEqual((stream["packets"], stream["lost"], document["notRtp"]), (99, 1, 1))
        self.assertTrue(document["complete"])

    def test_ReceivesLive_UntilInterrupted(self):
        self.receive_live(signal.SIGINT)

    def test_ReceivesLive_UntilTerminated(self):
        self.receive_live(signal.SIGTERM)

    def test_PrintsTablesWhileReceiving(self):
        process, port = self.start_live("--interval", "100")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for i in range(60):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
                time.sleep(0.01)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual((errors, process.returncode), ("", 0))
        self.assertGreaterEqual(output.count("source > destination"), 3)
        rates = [float(line.split()[-2]) for line in output.splitlines() if "01020304" in line]
        self.assertGreater(max(rates), 0)  # kbit/s of an interval that was closed

    def test_EndsInOrder_WhenInterrupted(self):
        process = self.start(CALL)
        self.wait_for_trace("rtp_monitor: reading from")
        time.sleep(0.5)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual((errors, process.returncode), ("", 0))
        self.assertIn("source > destination", output)
        self.assertIn(f"Trace lines are in {self.trace}\n", output)
        ends = re.findall(r"rtp_monitor: (the \w+ ha\w+ ended|handled \d+ packets)",
                          self.trace_text())
        self.assertEqual(ends[:1], ["the receiver has ended"])
        handled = int(re.fullmatch(r"handled (\d+) packets", ends[1]).group(1))
        self.assertTrue(0 < handled < 1314)

    def test_SaysThatItIsNotComplete_WhenAReplayIsInterrupted(self):
        process = self.start("--json", CALL)
        self.wait_for_trace("rtp_monitor: reading from")
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=LIMIT)
        self.assertEqual((process.returncode, json.loads(output)["complete"]), (0, False))

    # Settings and views

    def test_TakesSettingsFromTheConfiguration_UntilOverridden(self):
        os.mkdir(os.path.join(self.home, "conf"))
        with open(os.path.join(self.home, "conf", "kelto.cfg"), "w") as file:
            file.write("[RtpMonitor]\nWorkers=3\nLevel=error\nClock.96=90000\nClock.97=1000\n")
        done = self.run_monitor("--fast", "--json", "--clock", "97=48000", CALL)
        self.assertEqual([known(stream) for stream in json.loads(done.stdout)["streams"]],
                         [VIDEO, AUDIO])
        text = self.trace_text()
        # The workers, the receiver and the thread that shows tables.
        self.assertEqual(len(re.findall("ACmThread::Create, ", text)), 3 + 2)
        self.assertNotIn("rtp_monitor: ", text)

    def configure(self, text, age=60):
        """Writes the configuration file as if it had been there for some seconds."""
        path = os.path.join(self.home, "conf", "kelto.cfg")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)
        os.utime(path, (time.time() - age, time.time() - age))
        return path

    @unittest.skipUnless(sys.platform == "linux", "counts by inotify")
    def test_OpensTheConfigurationOnce(self):
        path = self.configure("[Trace]\nEnable = TRUE\n[RtpMonitor]\nWorkers = 3\n")
        libc = ctypes.CDLL(None, use_errno=True)
        watch = libc.inotify_init1(os.O_NONBLOCK)
        self.addCleanup(os.close, watch)
        # With the closes between them no two opens are merged into one event.
        self.assertGreater(libc.inotify_add_watch(watch, path.encode(), IN_OPEN | IN_CLOSE), 0)
        done = self.run_monitor("--fast", "--json", CALL)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        events = os.read(watch, 1 << 20)
        opens = 0
        while events:
            _, mask, _, length = struct.unpack_from("iIII", events)
            opens += 1 if mask & IN_OPEN else 0
            events = events[16 + length:]
        self.assertEqual(opens, 1)

    def test_Complains_WhenASettingIsBad(self):
        path = self.configure("[RtpMonitor]\nWorkers = two\nInterval = 20ms\nLevel = loud\n"
                              "Clock.96 = 0x10\n")
        done = self.run_monitor("--fast", CALL)
        self.assertEqual((done.stdout, done.returncode), ("", 2))
        where = "in section [RtpMonitor] should be"
        self.assertEqual(done.stderr.splitlines(), [
            f'rtp_monitor: {path}:2: Workers = "two" {where} a whole number from 1 to 64.',
            f'rtp_monitor: {path}:3: Interval = "20ms" {where} a whole number from 100 to 3600000.',
            f'rtp_monitor: {path}:4: Level = "loud" {where} error, warning or info.',
            f'rtp_monitor: {path}:5: Clock.96 = "0x10" {where} a clock rate in Hz, with or without a '
            "name, such as 48000/opus."])

    def test_Warns_WhenASettingMeansNothing(self):
        path = self.configure("[RtpMonitor]\nWrokers = 3\n[Other]\nx = 1\n")
        done = self.run_monitor("--fast", "--json", CALL)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.stderr, f'rtp_monitor: {path}:2: Wrokers = "3" in section '
                                      "[RtpMonitor] means nothing here.\n")

    def test_WritesTraceLinesWhereToldTo(self):
        path = os.path.join(self.home, "own.log")
        done = self.run_monitor("--fast", "--trace", path, CALL)
        self.assertTrue(done.stdout.endswith(f"\nTrace lines are in {path}\n"))
        with open(path) as file:
            self.assertIn(f"rtp_monitor: reading from {CALL}\n", file.read())

    def test_PrintsHelp(self):
        done = self.run_monitor("--help")
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        for word in ("--fast", "--json", "--workers N", "--interval MS", "--clock TYPE=HZ[/NAME]",
                     "--level LEVEL", "--trace FILE", "--watch", "--home DIR", "Ctrl-C",
                     "Exit code: 0; or 2"):
            self.assertIn(word, done.stdout)
        self.assertLessEqual(max(map(len, done.stdout.splitlines())), 100)

    def test_PrintsProgressBelowEachTable(self):
        path = self.write(pcap(frames(30)))
        done = self.run_monitor("--interval", "100", path)
        self.assertRegex(done.stdout, rf"skipped 0\n\d\.\d s: \d+% of {path} read\nsource")
        self.assertEqual(done.stderr, "")

    def test_PrintsProgressToStandardError_WhenItPrintsJson(self):
        path = self.write(pcap(frames(30)))
        done = self.run_monitor("--json", "--interval", "100", path)
        self.assertEqual(json.loads(done.stdout)["rtp"], 30)
        self.assertRegex(done.stderr, rf"\A(\d\.\d s: \d+% of {path} read\n)+\Z")

    # A long capture

    def test_KeepsMemoryBounded(self):
        path = self.write(b"")
        load.write_capture(path, 200000)
        figures = load.measure(self.command("--fast", "--json", path), self.environment)
        self.assertEqual(figures.exit_code, 0)
        self.assertEqual(sum(stream["packets"] for stream in figures.document["streams"]), 200000)
        self.assertTrue(0 < figures.peak_mib < 64, figures.peak_mib)

    def test_KeepsMemoryBounded_WhenEveryPacketIsASourceOfItsOwn(self):
        path = self.write(b"")
        load.write_capture(path, 300000, streams=300000)
        figures = load.measure(self.command("--fast", "--json", path), self.environment)
        self.assertEqual(figures.document["forgottenStreams"], 290000)
        self.assertTrue(0 < figures.peak_mib < 64, figures.peak_mib)


if __name__ == "__main__":
    harness.run(RtpMonitor)
