#!/usr/bin/env python3
"""Compares the monitor with what a network is known to have done, as it was made up here.

    truth_test.py path/to/rtp_monitor test_Name

Senders number their packets without end, so what was expected, lost, late and doubled is plain
arithmetic, without any guess from 16 bits.
"""

import collections
import random
import struct
import unittest

import captures
import harness
from captures import ethernet, ipv4, ipv6, pcap, pcapng, rtp, udp

Sent = collections.namedtuple("Sent", "number timestamp usec payload_type ssrc")
Arrival = collections.namedtuple("Arrival", "usec sent")

WINDOW = 100  # numbers behind the highest that are still in time


def audio(count, first_number=1000, first_timestamp=50000, payload_type=0, step=160, usec=20000,
          ssrc=7, start=0):
    """Packets of one audio sender, one every usec."""
    return [Sent(first_number + i, first_timestamp + step * i, start + usec * i, payload_type, ssrc)
            for i in range(count)]


def video(count, seed=1, payload_type=96, ssrc=9):
    """Frames of 3000 ticks in one to eight packets."""
    chance = random.Random(seed)
    packets = []
    frame = 0
    while len(packets) < count:
        for i in range(chance.randint(1, 8)):
            packets.append(Sent(40000 + len(packets), 3000 * frame, 33333 * frame + 200 * i,
                                payload_type, ssrc))
        frame += 1
    return packets[:count]


def arrive(packets, seed=1, jitter_usec=3000):
    """All of them, each a little later than sent, in order."""
    chance = random.Random(seed)
    arrivals = []
    last = 0
    for sent in packets:
        last = max(last + 1, sent.usec + chance.randint(0, jitter_usec))
        arrivals.append(Arrival(last, sent))
    return arrivals


def without(packets, first, count):
    return packets[:first] + packets[first + count:]


def capture(arrivals, wrap=lambda data: ethernet(ipv4(udp(data)))):
    data = bytearray(pcap([]))
    for arrival in sorted(arrivals):
        sent = arrival.sent
        body = rtp(sent.number, sent.timestamp % 2**32, sent.ssrc, sent.payload_type)
        seconds, usec = divmod(arrival.usec, 1000000)
        data += captures.record(wrap(body), captures.START_SECONDS + seconds, usec)
    return bytes(data)


def truth(arrivals):
    """The figures of one span: from the sender's numbers, in the order of arrival."""
    numbers = [arrival.sent.number for arrival in sorted(arrivals)]
    highest = numbers[0]
    lowest = numbers[0]
    seen = {numbers[0]}
    result = collections.Counter(packets=1)
    for number in numbers[1:]:
        result["packets"] += 1
        if number <= highest - WINDOW:
            result["late"] += 1
            continue
        if number in seen:
            result["duplicates"] += 1
            continue
        result["outOfOrder"] += number < highest
        seen.add(number)
        highest = max(highest, number)
        lowest = min(lowest, number)
    result["expected"] = highest - lowest + 1
    result["lost"] = result["expected"] - len(seen)
    return {name: result[name] for name in
            ("packets", "expected", "lost", "duplicates", "outOfOrder", "late")}


def longest_gap_ms(arrivals):
    times = sorted(arrival.usec for arrival in arrivals)
    return max(b - a for a, b in zip(times, times[1:])) / 1000


def jitter_ms(arrivals, clocks):
    """RFC 3550, section 6.4.1, over runs of packets with one known clock."""
    jitter = 0.0
    last = None
    for arrival in sorted(arrivals):
        clock = clocks.get(arrival.sent.payload_type)
        if clock is None:
            continue
        if last is not None and last[0] == clock:
            apart = (arrival.usec - last[1].usec) / 1e6
            sent = (arrival.sent.timestamp - last[1].sent.timestamp) / clock
            jitter += (abs(apart - sent) - jitter) / 16
        last = (clock, arrival)
    return jitter * 1000


class Truth(harness.MonitorTest):
    def only_stream(self, data, *arguments):
        streams = self.json_of(data, *arguments)["streams"]
        self.assertEqual(len(streams), 1, streams)
        return streams[0]

    def assert_truth(self, arrivals, *arguments, outages=0, restarts=0, strays=0):
        stream = self.only_stream(capture(arrivals), *arguments)
        expected = truth(arrivals)
        self.assertEqual({name: stream[name] for name in expected}, expected)
        self.assertEqual((stream["outages"], stream["restarts"], stream["strays"]),
                         (outages, restarts, strays))
        self.assertEqual(stream["longestGapMs"], longest_gap_ms(arrivals))
        return stream

    # Outages

    def test_CountsAnOutageAsLoss_WhateverItsLength(self):
        packets = audio(400000)
        for first, length in ((500, 2998), (500, 2999), (500, 3000), (500, 5000), (500, 32768),
                              (500, 40000), (500, 65400), (500, 65535), (500, 65636), (500, 70000),
                              (20000, 200000), (300, 370000)):
            with self.subTest(length):
                arrivals = arrive(without(packets[:first + length + 300], first, length))
                self.assert_truth(arrivals, outages=1 if length >= 2999 else 0)

    def test_CountsAnOutageAsLoss_WhenTheClockIsUnknown(self):
        packets = audio(90000, payload_type=111, step=960)
        for length in (3000, 5000, 70000):
            with self.subTest(length):
                self.assert_truth(arrive(without(packets[:length + 1000], 500, length)), outages=1)

    def test_CountsAnOutageOfVideoAsLoss(self):
        packets = video(90000)
        for length in (3000, 5000, 40000, 70000):
            for clock in ((), ("--clock", "96=90000")):
                with self.subTest((length, clock)):
                    arrivals = arrive(without(packets[:length + 2000], 1000, length), 1, 300)
                    self.assert_truth(arrivals, *clock, outages=1)

    def test_CountsAnOutageAsLoss_WhenItTookNoTime(self):
        """As in a capture from which packets were taken out and whose times were moved together."""
        packets = without(audio(9000), 500, 5000)
        arrivals = [Arrival(20000 * i, sent) for i, sent in enumerate(packets)]
        self.assert_truth(arrivals, outages=1)

    def test_CountsAnOutageAsLoss_WhenTimestampsWrap(self):
        packets = without(audio(9000, first_timestamp=2**32 - 160 * 2000), 500, 5000)
        self.assert_truth(arrive(packets), outages=1)

    def test_CountsEachOfSeveralOutages(self):
        packets = audio(30000)
        for first in (20000, 9000, 1000):
            packets = without(packets, first, 4000)
        self.assert_truth(arrive(packets), outages=3)

    # What is none

    def test_CountsNoLoss_WhenTheSenderBeginsAnew(self):
        for name, number, timestamp in (("all is new", 31000, 0x81234567),
                                        ("timestamps go on", 31000, 50000 + 160 * 500),
                                        ("numbers go back", 200, 0x12345678),
                                        ("numbers begin at 0", 65536 + 0, 0)):
            with self.subTest(name):
                before = audio(500, first_number=9000)
                after = audio(700, first_number=number, first_timestamp=timestamp,
                              start=500 * 20000)
                stream = self.only_stream(capture(arrive(before + after)))
                self.assertEqual((stream["packets"], stream["expected"], stream["lost"],
                                  stream["restarts"], stream["outages"], stream["strays"]),
                                 (1200, 1200, 0, 1, 0, 0))

    def test_ShowsRestartsAndStraysInTheTable(self):
        packets = audio(100) + audio(100, 31000, 0x81234567, start=2000000)
        packets.insert(50, Sent(20000, 0x55555555, packets[49].usec + 1, 0, 7))
        data = capture(arrive(packets))
        stream = self.only_stream(data)
        self.assertEqual((stream["packets"], stream["strays"], stream["restarts"]), (200, 1, 1))
        table = self.run_monitor("--fast", self.write(data)).stdout.replace("gap ms", "gap")
        rows = [line.split() for line in table.splitlines()]
        title = next(row for row in rows if "stray" in row)
        row = next(row for row in rows if "00000007" in row)
        # From the right: the percentage of what was lost has no title.
        self.assertEqual((row[title.index("stray") - len(title)], row[title.index("new") - len(title)]),
                         ("1", "1"))

    def test_CountsPacketsThatBelongNowhere(self):
        chance = random.Random(5)
        packets = audio(2000)
        arrivals = arrive(packets)
        for i in range(30, 2000, 50):
            lone = Sent(1000 + i + chance.randint(4000, 60000), chance.getrandbits(32), 0, 0, 7)
            arrivals.append(Arrival(arrivals[i].usec, lone._replace(number=lone.number)))
        stream = self.only_stream(capture(arrivals))
        self.assertEqual((stream["packets"], stream["strays"], stream["lost"], stream["restarts"]),
                         (2000, len(range(30, 2000, 50)), 0, 0))

    def test_CountsPacketsThatCameTooLate(self):
        arrivals = arrive(audio(3000), 1, 0)
        for i in (100, 101, 102, 700, 1500):
            behind = 150 + i % 7
            arrivals[i] = Arrival(arrivals[i + behind].usec + 1, arrivals[i].sent)
        stream = self.assert_truth(arrivals)
        self.assertEqual((stream["late"], stream["lost"]), (5, 5))

    def test_AddsUp_WhateverTheNetworkDoes(self):
        for seed in range(30):
            with self.subTest(seed):
                chance = random.Random(seed)
                packets = video(8000, seed) if seed % 5 == 0 else \
                    audio(8000, first_number=chance.randint(0, 65535),
                          first_timestamp=chance.getrandbits(32))
                arrivals = [arrival for arrival in arrive(packets, seed)
                            if chance.random() > 0.05]
                outages = 0
                if seed % 2:
                    first = chance.randint(500, 1000)
                    length = chance.randint(3100, 5000)
                    arrivals = without(arrivals, first, length)
                    outages = 1
                for _ in range(200):  # doubled, swapped, delayed within and beyond the window
                    i = chance.randrange(200, len(arrivals) - 400)
                    kind = chance.randrange(3)
                    if kind == 0:
                        arrivals.append(Arrival(arrivals[i].usec + 100, arrivals[i].sent))
                    else:
                        later = arrivals[i + (chance.randint(1, 60) if kind == 1 else
                                              chance.randint(150, 300))]
                        arrivals[i] = Arrival(max(later.usec + 1, arrivals[i].usec),
                                              arrivals[i].sent)
                arrivals.sort()
                stream = self.only_stream(capture(arrivals))
                expected = truth(arrivals)
                # A copy that comes too late is late: nobody remembers that it had come before.
                self.assertEqual({name: stream[name] for name in expected}, expected)
                self.assertEqual((stream["outages"], stream["strays"], stream["restarts"]),
                                 (outages, 0, 0))

    # Payload types

    def assert_types(self, arrivals, clocks, *arguments, changes):
        stream = self.only_stream(capture(arrivals), *arguments)
        counted = collections.Counter(arrival.sent.payload_type for arrival in arrivals)
        self.assertEqual({entry["type"]: entry["packets"] for entry in stream["payloadTypes"]},
                         counted)
        for entry in stream["payloadTypes"]:
            self.assertEqual(entry["clockRate"], clocks.get(entry["type"]))
        self.assertEqual(stream["payloadTypeChanges"], changes)
        self.assertAlmostEqual(stream["jitterMs"], jitter_ms(arrivals, clocks), delta=0.001)
        return stream

    def test_TakesTheClockFromTheAudio_WhenATelephoneEventComesFirst(self):
        audio_packets = audio(500, first_number=1010, start=200000)
        event = [Sent(1000 + i, 50000, 20000 * i, 101, 7) for i in range(10)]
        arrivals = arrive(event + audio_packets)
        stream = self.assert_types(arrivals, {0: 8000}, changes=1)
        self.assertEqual((stream["payloadType"], stream["clockRate"]), (0, 8000))
        self.assertGreater(stream["jitterMs"], 0)
        self.assert_types(arrivals, {0: 8000, 101: 16000}, "--clock", "101=16000", changes=1)

    def test_FollowsTheClock_WhenThePayloadTypeChanges(self):
        first = audio(300, payload_type=0)
        second = audio(300, first_number=1300, first_timestamp=50000 + 160 * 300, payload_type=10,
                       step=882, start=300 * 20000)
        third = audio(300, first_number=1600, first_timestamp=5, payload_type=0,
                      start=600 * 20000)
        stream = self.assert_types(arrive(first + second), {0: 8000, 10: 44100}, changes=1)
        self.assertEqual((stream["payloadType"], stream["clockRate"]), (10, 44100))
        self.assertLess(stream["jitterMs"], 5)
        self.assert_types(arrive(first + second + third), {0: 8000, 10: 44100}, changes=2)

    # What a capture holds

    def test_ReadsIpv6(self):
        arrivals = arrive(without(audio(300), 100, 7))
        for name, wrap in (
                ("plain", lambda data: ethernet(ipv6(udp(data)), 0x86DD)),
                ("tagged", lambda data: ethernet(ipv6(udp(data)), 0x86DD, tags=[0x8100])),
                ("options", lambda data: ethernet(
                    ipv6(bytes([60, 0]) + bytes(6) + bytes([17, 1]) + bytes(14) + udp(data),
                         next_header=0), 0x86DD))):
            with self.subTest(name):
                document = self.json_of(capture(arrivals, wrap))
                stream = document["streams"][0]
                self.assertEqual((stream["source"], stream["destination"]),
                                 ("[2001:db8::1]:4000", "[2001:db8::2]:5004"))
                self.assertEqual((stream["packets"], stream["lost"], document["skipped"]),
                                 (293, 7, 0))

    def test_CountsAPacketByItsFirstFragment(self):
        for version in (4, 6):
            with self.subTest(version):
                records = bytearray(pcap([]))
                for i in range(50):
                    body = udp(rtp(i, 160 * i, payload=bytes(2900)))
                    for offset in range(0, len(body), 1400):
                        part = body[offset:offset + 1400]
                        more = offset + 1400 < len(body)
                        if version == 4:
                            frame = ethernet(ipv4(part, fragment=offset // 8 | more << 13))
                        else:
                            header = struct.pack(">BBHI", 17, 0, offset | more, i)
                            frame = ethernet(ipv6(header + part, next_header=44), 0x86DD)
                        records += captures.record(frame, captures.START_SECONDS, 20000 * i)
                document = self.json_of(bytes(records))
                stream = document["streams"][0]
                self.assertEqual((stream["packets"], stream["lost"], stream["bytes"]),
                                 (50, 0, 50 * 2900))
                self.assertEqual((document["skipped"], document["skippedFor"]["fragment"]),
                                 (100, 100))

    def test_AnalysesHeadersOnly(self):
        arrivals = arrive(without(audio(300), 100, 7))
        whole = self.only_stream(capture(arrivals))
        records = bytearray(pcap([]))
        for arrival in arrivals:
            frame = ethernet(ipv4(udp(rtp(arrival.sent.number, arrival.sent.timestamp,
                                          arrival.sent.ssrc))))
            seconds, usec = divmod(arrival.usec, 1000000)
            records += captures.record(frame[:64], captures.START_SECONDS + seconds, usec,
                                       len(frame))
        document = self.json_of(bytes(records))
        self.assertEqual(document["streams"], [whole])
        self.assertEqual(document["skipped"], 0)

    def test_ReadsEveryFormOfCapture(self):
        arrivals = arrive(audio(30))
        little = capture(arrivals)
        expected = self.only_stream(little)

        def big_endian(nanoseconds):
            data = bytearray(struct.pack(">IHHiIII", 0xA1B23C4D if nanoseconds else 0xA1B2C3D4, 2,
                                         4, 0, 0, 262144, 1))
            position = 24
            while position < len(little):
                seconds, usec, there, wire = struct.unpack_from("<IIII", little, position)
                data += struct.pack(">IIII", seconds, usec * 1000 if nanoseconds else usec, there,
                                    wire) + little[position + 16:position + 16 + there]
                position += 16 + there
            return bytes(data)

        def next_generation(order, resolution=None, offset=0):
            def block(kind, body):
                body += bytes(-len(body) % 4)
                size = struct.pack(order + "I", len(body) + 12)
                return struct.pack(order + "I", kind) + size + body + size

            options = b""
            units = 10**6
            if resolution is not None:
                options += struct.pack(order + "HHB3x", 9, 1, resolution)
                units = 2**(resolution & 127) if resolution & 128 else 10**resolution
            if offset:
                options += struct.pack(order + "HHq", 14, 8, offset)
            data = block(0x0A0D0D0A, struct.pack(order + "IHHq", 0x1A2B3C4D, 1, 0, -1))
            data += block(1, struct.pack(order + "HHI", 105, 0, 0))  # another kind of frames
            data += block(1, struct.pack(order + "HHI", 1, 0, 0) + options)
            data += block(4, bytes(8))  # names
            data += block(0x0BAD, bytes(300000))  # longer than any frame, and of no interest
            position = 24
            while position < len(little):
                seconds, usec, there, wire = struct.unpack_from("<IIII", little, position)
                stamp = (seconds - offset) * units + -(-usec * units // 10**6)
                data += block(6, struct.pack(order + "IIIII", 1, stamp >> 32, stamp & 0xFFFFFFFF,
                                             there, wire) + little[position + 16:
                                                                   position + 16 + there])
                position += 16 + there
            return data

        for name, data in (("big-endian", big_endian(False)),
                           ("big-endian, nanoseconds", big_endian(True)),
                           ("pcapng", next_generation("<")),
                           ("pcapng, big-endian", next_generation(">")),
                           ("pcapng, nanoseconds", next_generation("<", 9)),
                           ("pcapng, powers of two", next_generation("<", 128 | 30)),
                           ("pcapng, from another year", next_generation("<", 6, 1600000000)),
                           ("two sections", next_generation("<") + next_generation(">")[:0])):
            with self.subTest(name):
                self.assertEqual(self.only_stream(data), expected)

    def test_SkipsFramesOfOtherInterfaces(self):
        data = pcapng([ethernet(ipv4(udp(rtp(i)))) for i in range(3)])
        section = 28
        interface = struct.pack("<IIHHII", 1, 20, 105, 0, 0, 20)
        data = data[:section] + interface + data[section:]
        # What was on the first interface still says so, and that is the other one now.
        document = self.json_of(data)
        self.assertEqual((document["rtp"], document["skippedFor"]["otherLinkType"]), (0, 3))

    def test_Complains_WhenATimeStampIsOutOfRange(self):
        def with_stamp(high, options=b""):
            data = pcapng([])
            interface = struct.pack("<HHI", 1, 0, 0) + options
            data = data[:28] + struct.pack("<II", 1, len(interface) + 12) + interface + \
                struct.pack("<I", len(interface) + 12)
            frame = ethernet(ipv4(udp(rtp(1))))
            frame += bytes(-len(frame) % 4)
            body = struct.pack("<IIIII", 0, high, 0xFFFFFFFF, len(frame), len(frame)) + frame
            return data + struct.pack("<II", 6, len(body) + 12) + body + \
                struct.pack("<I", len(body) + 12)

        self.assertEqual(self.json_of(with_stamp(0x0005F5E1))["rtp"], 1)
        for name, data in (
                ("the largest", with_stamp(0xFFFFFFFF)),
                ("whole seconds", with_stamp(0x7FFFFFFF, struct.pack("<HHB3x", 9, 1, 0))),
                ("offset", with_stamp(0, struct.pack("<HHq", 14, 8, 2**63 - 1))),
                ("negative offset", with_stamp(0, struct.pack("<HHq", 14, 8, -2**63))),
                ("before 1970", with_stamp(0, struct.pack("<HHq", 14, 8, -10**6))),
                ("resolution", with_stamp(0, struct.pack("<HHB3x", 9, 1, 20))),
                ("binary resolution", with_stamp(0, struct.pack("<HHB3x", 9, 1, 255)))):
            with self.subTest(name):
                path = self.write(data)
                self.assert_complains(["--fast", path], f"cannot read from {path}: it holds a time "
                                      "stamp that is out of range")

    def test_TakesAnythingForACapture_WithoutHarm(self):
        """Bytes changed and cut off at random: it ends, and in order."""
        chance = random.Random(3)
        whole = [capture(arrive(audio(20))), pcapng([ethernet(ipv4(udp(rtp(i)))) for i in range(20)]),
                 pcapng([ethernet(ipv6(udp(rtp(i))), 0x86DD) for i in range(20)])]
        for _ in range(100):
            data = bytearray(chance.choice(whole))
            for _ in range(chance.randint(1, 8)):
                data[chance.randrange(len(data))] = chance.choice((0, 1, 4, 127, 128, 255))
            done = self.run_monitor("--fast", "--json",
                                    self.write(data[:chance.randint(1, 2 * len(data))]))
            self.assertIn(done.returncode, (0, 2), done.stderr)


if __name__ == "__main__":
    harness.run(Truth)
