#!/usr/bin/env python3
"""Runs the monitor on sockets and pipes.

    live_test.py path/to/rtp_monitor test_Name
"""

import json
import os
import re
import signal
import socket
import subprocess
import sys
import time
import unittest

import captures
import flood
import harness
from captures import ethernet, ipv4, pcap, rtp, udp
from harness import LIMIT

STOP_LIMIT = 0.5  # seconds from a signal to the end


def udp_socket(family=socket.AF_INET):
    return socket.socket(family, socket.SOCK_DGRAM)


def free_port(family=socket.AF_INET, address="127.0.0.1"):
    with udp_socket(family) as probe:
        probe.bind((address, 0))
        return probe.getsockname()[1]


def dropped_by_the_system(port):
    """What the system counts for the sockets of a port, from its own table."""
    dropped = 0
    for path in ("/proc/net/udp", "/proc/net/udp6"):
        if os.path.exists(path):
            with open(path) as file:
                for line in file.readlines()[1:]:
                    fields = line.split()
                    if int(fields[1].split(":")[1], 16) == port:
                        dropped += int(fields[12])
    return dropped


class Live(harness.MonitorTest):
    def start_live(self, *arguments):
        process = self.start(*arguments)
        self.wait_for_trace("rtp_monitor: reading from")
        return process

    def finish(self, process, a_signal=signal.SIGINT):
        process.send_signal(a_signal)
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, 0, errors)
        document = json.loads(output)
        self.assert_sums(document)
        return document

    def wait_until(self, condition):
        deadline = time.monotonic() + LIMIT
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.02)

    # Sockets

    def test_ReceivesFromSeveralSockets(self):
        ports = [free_port() for _ in range(3)]
        process = self.start_live("--json", *(f"udp://127.0.0.1:{port}" for port in ports))
        with udp_socket() as sender:
            for i in range(100):
                for port in ports:
                    sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
        time.sleep(0.3)
        document = self.finish(process)
        self.assertEqual(sorted((stream["destination"], stream["packets"], stream["lost"])
                                for stream in document["streams"]),
                         sorted((f"127.0.0.1:{port}", 100, 0) for port in ports))
        self.assertEqual([entry["name"] for entry in document["inputs"]],
                         [f"udp://127.0.0.1:{port}" for port in ports])

    @unittest.skipUnless(os.path.exists("/proc/net/if_inet6") or sys.platform == "darwin",
                         "no IPv6 on this machine")
    def test_ReceivesOverIpv6(self):
        port = free_port(socket.AF_INET6, "::1")
        process = self.start_live("--json", f"udp://[::1]:{port}")
        with udp_socket(socket.AF_INET6) as sender:
            sender.bind(("::1", 0))
            source = f"[::1]:{sender.getsockname()[1]}"
            for i in range(100):
                sender.sendto(rtp(i, 160 * i), ("::1", port))
        time.sleep(0.3)
        stream = self.finish(process)["streams"][0]
        self.assertEqual((stream["source"], stream["destination"], stream["packets"]),
                         (source, f"[::1]:{port}", 100))

    def test_SaysThatItJoinedAGroup(self):
        loopback = "lo" if sys.platform == "linux" else "lo0"
        port = free_port()
        address = f"udp://239.255.77.1:{port}?interface={loopback}"
        process = self.start_live("--json", address)
        with udp_socket() as sender:
            sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                              socket.inet_aton("127.0.0.1"))
            for i in range(100):
                sender.sendto(rtp(i, 160 * i), ("239.255.77.1", port))
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        document = json.loads(output)
        self.assertEqual((document["streams"][0]["packets"], document["inputs"][0]["group"]),
                         (100, True))
        self.assertIn(f"joined the multicast group of {address}", errors)

    def test_Complains_WhenThereIsNoSuchInterface(self):
        for address in ("udp://239.255.77.1:5004?interface=nowhere9",
                        "udp://[ff02::1%25nowhere9]:5004"):
            self.assert_complains([address], f"cannot read from {address}: there is no interface "
                                  "nowhere9")

    # What the socket drops

    def stopped_while(self, send, *arguments):
        """What the monitor says when it stood still during send(port)."""
        port = free_port()
        process = self.start_live("--json", *arguments, f"udp://127.0.0.1:{port}")
        with udp_socket() as sender:  # a stream has begun
            sender.bind(("127.0.0.1", 0))
            for i in range(50):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
            time.sleep(0.3)
            process.send_signal(signal.SIGSTOP)
            sent = send(sender, port, 50)
            dropped = dropped_by_the_system(port)
            process.send_signal(signal.SIGCONT)
            time.sleep(0.5)
            for i in range(sent, sent + 50):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
        time.sleep(0.3)
        return self.finish(process), sent + 50, dropped

    @unittest.skipUnless(sys.platform == "linux", "the system does not tell what is dropped")
    def test_TellsItsOwnDropsFromLoss(self):
        def send(sender, port, first):
            for i in range(first, 30000):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
            return 30000

        document, sent, dropped = self.stopped_while(send, "--buffer", "256KiB")
        stream = document["streams"][0]
        self.assertGreater(dropped, 3000)
        self.assertEqual(document["inputs"][0]["dropped"], dropped)
        self.assertEqual((stream["expected"], stream["lost"], stream["droppedHere"],
                          stream["restarts"], stream["strays"]), (sent, 0, dropped, 0, 0))
        self.assertEqual(stream["packets"], sent - dropped)

    @unittest.skipUnless(sys.platform == "linux", "the system does not tell what is dropped")
    def test_TellsItsOwnDropsFromLoss_WhenBothHappen(self):
        def send(sender, port, first):
            for i in range(first, 30000):
                if not 20000 <= i < 20700:
                    sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
            return 30000

        document, sent, dropped = self.stopped_while(send, "--buffer", "256KiB")
        stream = document["streams"][0]
        self.assertEqual((stream["expected"], stream["lost"], stream["droppedHere"]),
                         (sent, 700, dropped))

    @unittest.skipUnless(sys.platform == "linux", "the system does not tell what is dropped")
    def test_TellsItsOwnDropsFromLoss_WhenThereAreSeveralStreams(self):
        def send(sender, port, first):
            for i in range(first, 10000):
                for ssrc in (0x01020304, 2, 3):
                    sender.sendto(rtp(i, 160 * i, ssrc), ("127.0.0.1", port))
            return 10000

        document, _, dropped = self.stopped_while(send, "--buffer", "256KiB")
        streams = {stream["ssrc"]: stream for stream in document["streams"]}
        self.assertEqual([stream["lost"] for stream in streams.values()], [0, 0, 0])
        self.assertGreater(streams["0x01020304"]["droppedHere"], 3000)
        # Of the other two nothing came after what was dropped, so that nobody misses it.
        self.assertEqual(document["inputs"][0]["dropped"], dropped)

    @unittest.skipUnless(sys.platform == "linux", "the system does not tell what is dropped")
    def test_ShowsDropsInTheTable(self):
        port = free_port()
        process = self.start_live("--buffer", "64KiB", f"udp://127.0.0.1:{port}")
        process.send_signal(signal.SIGSTOP)
        with udp_socket() as sender:
            for i in range(5000):
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
        dropped = dropped_by_the_system(port)
        process.send_signal(signal.SIGCONT)
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=LIMIT)
        self.assertGreater(dropped, 0)
        self.assertIn(f"udp://127.0.0.1:{port}: {dropped} packets dropped here", output)

    def test_SaysWhenTheSystemGrantsASmallerBuffer(self):
        port = free_port()
        process = self.start_live("--json", "--buffer", "1GiB", f"udp://127.0.0.1:{port}")
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        entry = json.loads(output)["inputs"][0]
        self.assertEqual(entry["bufferAsked"], 2**30)
        if entry["bufferGranted"] < 2**30:
            self.assertIn(f"the system grants udp://127.0.0.1:{port} a buffer of "
                          f"{entry['bufferGranted']} bytes, not {2**30}", errors)
        else:
            self.assertEqual(errors, "")

    # Clocks

    def test_TakesTheTimeOfArrivalFromTheSystem(self):
        """The monitor stands still for a while; the packets do not."""
        port = free_port()
        process = self.start_live("--json", f"udp://127.0.0.1:{port}")
        start = time.monotonic()
        apart = []
        last = None
        with udp_socket() as sender:
            for i in range(100):
                if i == 20:
                    process.send_signal(signal.SIGSTOP)
                if i == 80:
                    process.send_signal(signal.SIGCONT)
                time.sleep(max(0, start + 0.02 * i - time.monotonic()))
                sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
                now = time.monotonic()
                apart.append(now - (last or now))
                last = now
        time.sleep(0.3)
        stream = self.finish(process)["streams"][0]
        # 1.2 s without its own reading; what the sender itself was late is no fault.
        self.assertLess(stream["longestGapMs"], 1000 * max(apart) + 200)

    def step_the_clock(self, seconds, after_ms):
        library = os.path.join(os.path.dirname(harness.MONITOR), "step_clock.so")
        self.assertTrue(os.path.exists(library), library)
        # The loader takes a blank for the end of a path.
        link = os.path.join(self.home, "step_clock.so")
        if not os.path.lexists(link):
            os.symlink(os.path.abspath(library), link)
        self.environment.update(LD_PRELOAD=link, STEP_SECONDS=str(seconds),
                                STEP_AFTER_MS=str(after_ms))

    def test_KeepsThePaceOfTheCapture_WhenTheClockIsSet(self):
        path = self.write(pcap([ethernet(ipv4(udp(rtp(i, 160 * i)))) for i in range(76)]))
        for seconds in (20, -10):
            with self.subTest(seconds):
                self.step_the_clock(seconds, 400)
                start = time.monotonic()
                done = self.run_monitor("--interval", "500", path)
                took = time.monotonic() - start
                self.assertEqual((done.stderr, done.returncode), ("", 0))
                self.assertGreaterEqual(took, 1.49)  # 75 times 20 ms
                said = float(done.stdout.split(" packets in ")[1].split()[0])
                self.assertTrue(1.49 <= said <= took + 0.01, (said, took))
                rates = [line.split()[-2] for line in done.stdout.splitlines()
                         if "01020304" in line and not line.split()[-2] == "-"]
                # 20 bytes every 20 ms; what the machine was late is made up for in one interval.
                self.assertLessEqual(max(map(float, rates)), 4 * 8.0)

    def test_MeasuresGapsAndRates_WhenTheClockIsSet(self):
        for seconds in (20, -10):
            with self.subTest(seconds):
                self.step_the_clock(seconds, 1000)
                port = free_port()
                if os.path.exists(self.trace):
                    os.remove(self.trace)
                process = self.start_live("--json", f"udp://127.0.0.1:{port}")
                start = time.monotonic()
                with udp_socket() as sender:
                    for i in range(100):
                        time.sleep(max(0, start + 0.02 * i - time.monotonic()))
                        sender.sendto(rtp(i, 160 * i), ("127.0.0.1", port))
                took = time.monotonic() - start
                time.sleep(0.2)
                stream = self.finish(process)["streams"][0]
                self.assertLess(stream["longestGapMs"], 1000 * took)
                self.assertLess(stream["jitterMs"], 1000 * took / 16)
                self.assertAlmostEqual(stream["bitRate"], 100 * 20 * 8 / took,
                                       delta=0.2 * stream["bitRate"])

    # The end

    def start(self, *arguments, **keywords):
        process = super().start(*arguments, stdin=subprocess.PIPE, **keywords)
        self.addCleanup(process.stdin.close)
        return process

    def assert_stops(self, arguments, standard_input=b"", **figures):
        """Each of the signals ends it, with these figures. A busy machine may be late; at least one
        of three is not."""
        took = []
        for a_signal in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            if os.path.exists(self.trace):
                os.remove(self.trace)
            process = self.start_live("--json", *arguments)
            process.stdin.buffer.write(standard_input)
            process.stdin.flush()
            time.sleep(0.3)
            start = time.monotonic()
            process.send_signal(a_signal)
            process.wait(timeout=LIMIT)  # its standard input stays open
            took.append(time.monotonic() - start)
            output, errors = process.communicate()
            errors = re.sub(r"\d+\.\d s: \d+% of .* read\n", "", errors)  # progress, if it came
            self.assertEqual((errors, process.returncode), ("", 0))
            document = json.loads(output)
            self.assertEqual({name: document[name] for name in figures}, figures)
        self.assertLess(min(took), STOP_LIMIT)

    def test_StopsSoon_WhileItWaitsForAPipe(self):
        data = pcap([ethernet(ipv4(udp(rtp(i)))) for i in range(10)])
        for there, packets in ((b"", 0), (data[:10], 0), (data[:-5], 9), (data, 10)):
            with self.subTest(len(there)):
                self.assert_stops(["--fast", "-"], there, rtp=packets, complete=False)

    def test_StopsSoon_WhileItWaitsForANamedPipe(self):
        path = os.path.join(self.home, "pipe")
        os.mkfifo(path)
        self.assert_stops([path], complete=False)

    def test_StopsSoon_WhileItKeepsThePace(self):
        frame = ethernet(ipv4(udp(rtp(1))))
        data = pcap([]) + captures.record(frame, captures.START_SECONDS, 0) + \
            captures.record(frame, captures.START_SECONDS + 3600, 0)
        self.assert_stops([self.write(data)], rtp=1, complete=False)

    def test_StopsSoon_WhileNothingComes(self):
        self.assert_stops([f"udp://127.0.0.1:{free_port()}"], complete=True)

    def test_ReadsAPipeAsItComes(self):
        data = pcap([ethernet(ipv4(udp(rtp(i)))) for i in range(100)])
        process = self.start_live("--fast", "--json", "-")
        for i in range(0, len(data), 7):
            process.stdin.buffer.write(data[i:i + 7])
            process.stdin.flush()
        process.stdin.close()
        self.assertEqual(process.wait(timeout=LIMIT), 0)
        document = json.loads(process.stdout.read())
        self.assertEqual((document["rtp"], document["complete"]), (100, True))

    # Memory

    def test_KeepsMemoryBounded_While40000NewSourcesComeEverySecond(self):
        port = free_port()
        process = self.start_live("--json", f"udp://127.0.0.1:{port}")
        sent = flood.send_new_sources(port, 40000, 5)
        time.sleep(0.5)
        peak = flood.peak_mib(process.pid)
        document = self.finish(process)
        dropped = document["inputs"][0]["dropped"] or 0
        self.assertEqual(len(document["streams"]), 10000)
        if sys.platform == "linux":
            self.assertEqual(document["rtp"] + dropped, sent)
        self.assertEqual(document["forgottenStreams"], document["rtp"] - 10000)
        self.assertTrue(0 < peak < 64, peak)


if __name__ == "__main__":
    harness.run(Live)
