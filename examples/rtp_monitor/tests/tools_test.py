#!/usr/bin/env python3
"""Compares the monitor with tools that know nothing of it: tshark, editcap and ffmpeg.

    tools_test.py path/to/rtp_monitor test_Name

A tool that is missing is a failure.
"""

import json
import os
import re
import signal
import socket
import subprocess
import threading

import harness
import truth_test
from harness import LIMIT

CALL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "call.pcap")
PORTS = (5004, 5006)


def tshark_streams(path):
    """(source, destination, ssrc, packets, lost, longest gap in ms, mean jitter) of each stream."""
    decode = [argument for port in PORTS for argument in ("-d", f"udp.port=={port},rtp")]
    done = subprocess.run(["tshark", "-r", path, *decode, "-q", "-z", "rtp,streams"],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True)
    rows = re.findall(r"^ +\S+ +\S+ +(\S+) +(\d+) +(\S+) +(\d+) +(0x[0-9A-Fa-f]+) +\S+ +(\d+) +"
                      r"(-?\d+) \(.*?%\) +\S+ +\S+ +(\S+)", done.stdout, re.MULTILINE)

    def endpoint(address, port):
        return f"[{address}]:{port}" if ":" in address else f"{address}:{port}"

    return sorted((endpoint(row[0], row[1]), endpoint(row[2], row[3]), row[4].lower(), int(row[5]),
                   int(row[6]), float(row[7])) for row in rows)


class Tools(harness.MonitorTest):
    def streams_of(self, path, *arguments):
        done = self.run_monitor("--fast", "--json", *arguments, path)
        self.assertEqual((done.stderr, done.returncode), ("", 0))
        document = json.loads(done.stdout)
        self.assert_sums(document)
        return document["streams"]

    def editcap(self, source, *arguments, before=()):
        path = os.path.join(self.home, f"edited{len(os.listdir(self.home))}.pcapng")
        subprocess.run(["editcap", *before, source, path, *arguments], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return path

    def assert_agrees(self, path, gaps=True):
        # tshark's lost are those of RFC 3550, from which duplicates are subtracted; a largest
        # distance of packets that did not all come in order it does not always tell.
        seen = tshark_streams(path)
        streams = self.streams_of(path)
        self.assertEqual(
            [row[:5] for row in seen],
            sorted((stream["source"], stream["destination"], stream["ssrc"], stream["packets"],
                    stream["expected"] - stream["packets"]) for stream in streams))
        if gaps:
            self.assertEqual([row[5] for row in seen],
                             [stream["longestGapMs"] for stream in streams])
        return streams

    def test_AgreesWithTshark(self):
        self.assertEqual(len(self.assert_agrees(CALL, gaps=False)), 2)

    def test_AgreesWithTshark_WhenThereAreOutages(self):
        whole = self.write(truth_test.capture(truth_test.arrive(truth_test.audio(9000))))
        for first, last in ((501, 1000), (501, 3500), (501, 5500)):
            with self.subTest(last - first + 1):
                path = self.editcap(whole, f"{first}-{last}")
                stream = self.assert_agrees(path)[0]
                self.assertEqual(stream["lost"], last - first + 1)

    def test_AgreesWithTshark_WhenItIsIpv6(self):
        arrivals = truth_test.arrive(truth_test.without(truth_test.audio(900), 100, 7))
        path = self.write(truth_test.capture(arrivals, lambda data: truth_test.ethernet(
            truth_test.ipv6(truth_test.udp(data)), 0x86DD)))
        self.assertEqual(self.assert_agrees(path)[0]["lost"], 7)

    def test_ReadsTheSame_WhenThereAreHeadersOnly(self):
        self.assertEqual(self.streams_of(self.editcap(CALL, before=("-s", "64"))),
                         self.streams_of(CALL))

    def test_ReadsTheSame_WhateverTheFormat(self):
        for kind in ("pcap", "nsecpcap", "pcapng"):
            with self.subTest(kind):
                self.assertEqual(self.streams_of(self.editcap(CALL, before=("-F", kind))),
                                 self.streams_of(CALL))

    def test_TellsWhatANetworkDidToACall(self):
        """ffmpeg's audio, live, through a forwarder that loses and doubles what it counts."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as near, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as far:
            near.bind(("127.0.0.1", 0))
            far.bind(("127.0.0.1", 0))
            port = far.getsockname()[1]
            far.close()
            near.settimeout(0.5)
            process = self.start("--json", "--clock", "97=48000", f"udp://127.0.0.1:{port}")
            self.wait_for_trace("rtp_monitor: reading from")
            counts = {"all": 0, "lost": 0, "doubled": 0}

            def forward():
                over = False
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                    while not over or counts["all"] == 0:
                        try:
                            data = near.recv(65536)
                        except socket.timeout:
                            over = ffmpeg.poll() is not None
                            continue
                        if data[1] & 0x7F != 97:
                            continue  # RTCP
                        counts["all"] += 1
                        if counts["all"] % 7 == 3:
                            counts["lost"] += 1
                            continue
                        sender.sendto(data, ("127.0.0.1", port))
                        if counts["all"] % 11 == 4:
                            counts["doubled"] += 1
                            sender.sendto(data, ("127.0.0.1", port))

            ffmpeg = subprocess.Popen(
                ["ffmpeg", "-loglevel", "error", "-re", "-f", "lavfi", "-i",
                 "sine=frequency=440:sample_rate=48000:duration=5", "-c:a", "libopus", "-ac", "1",
                 "-payload_type", "97", "-f", "rtp", f"rtp://127.0.0.1:{near.getsockname()[1]}"],
                stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
            self.addCleanup(ffmpeg.wait)
            self.addCleanup(ffmpeg.kill)
            forwarder = threading.Thread(target=forward)
            forwarder.start()
            forwarder.join(LIMIT)
        self.assertEqual(ffmpeg.wait(LIMIT), 0)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LIMIT)
        document = json.loads(output)
        self.assert_sums(document)
        self.assertEqual(len(document["streams"]), 1, errors)
        stream = document["streams"][0]
        # What was lost after the last packet that came nobody can miss.
        last = counts["all"] % 7 == 3
        self.assertGreater(counts["all"], 200)
        self.assertEqual((stream["lost"], stream["duplicates"], stream["outOfOrder"]),
                         (counts["lost"] - last, counts["doubled"], 0))
        self.assertEqual(stream["packets"], counts["all"] - counts["lost"] + counts["doubled"])
        self.assertGreater(stream["jitterMs"], 0)


if __name__ == "__main__":
    harness.run(Tools)
