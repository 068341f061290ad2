#!/usr/bin/env python3
"""The figures of the RTP streams of a capture, worked out without the monitor.

    figures.py call.pcap TYPE=HZ...

Reads a classic little-endian pcap file with Ethernet frames whose UDP packets to even ports are RTP
without padding, extensions and contributing sources, and prints JSON. All packets of a stream are
known before anything is counted, so this needs none of the monitor's bookkeeping.
"""

import collections
import json
import socket
import struct
import sys

Packet = collections.namedtuple("Packet", "time sequence timestamp payload_type size")


def read_streams(path):
    with open(path, "rb") as file:
        data = file.read()
    assert struct.unpack_from("<IHH", data)[0] == 0xA1B2C3D4
    streams = collections.defaultdict(list)
    position = 24
    while position < len(data):
        seconds, microseconds, captured, _ = struct.unpack_from("<IIII", data, position)
        frame = data[position + 16:position + 16 + captured]
        position += 16 + captured
        source, destination = (socket.inet_ntoa(frame[i:i + 4]) for i in (26, 30))
        udp = frame[14 + (frame[14] & 15) * 4:]
        source_port, destination_port, length = struct.unpack_from(">HHH", udp)
        if destination_port % 2 != 0:
            continue
        rtp = udp[8:length]
        first, second, sequence, timestamp, ssrc = struct.unpack_from(">BBHII", rtp)
        assert first == 0x80
        key = (f"{source}:{source_port}", f"{destination}:{destination_port}", f"0x{ssrc:08x}")
        streams[key].append(
            Packet(seconds * 1000000 + microseconds, sequence, timestamp, second & 127,
                   len(rtp) - 12))
    return streams


def unwrapped(values, circle):
    result = [values[0]]
    for value in values[1:]:
        distance = (value - result[-1] + circle // 2) % circle - circle // 2
        result.append(result[-1] + distance)
    return result


def jitter_ms(packets, clock_rate):
    """RFC 3550, section 6.4.1."""
    stamps = unwrapped([packet.timestamp for packet in packets], 2**32)
    jitter = 0.0
    for i in range(1, len(packets)):
        apart = (packets[i].time - packets[i - 1].time) * clock_rate / 1e6
        jitter += (abs(apart - (stamps[i] - stamps[i - 1])) - jitter) / 16
    return jitter * 1000 / clock_rate


def figures(key, packets, clock_rates):
    numbers = unwrapped([packet.sequence for packet in packets], 2**16)
    late = [number for i, number in enumerate(numbers)
            if i > 0 and number < max(numbers[:i]) and number not in numbers[:i]]
    times = [packet.time for packet in packets]
    size = sum(packet.size for packet in packets)
    clock_rate = clock_rates[packets[0].payload_type]
    return {
        "source": key[0], "destination": key[1], "ssrc": key[2],
        "payloadType": packets[0].payload_type, "clockRate": clock_rate,
        "packets": len(packets), "bytes": size,
        "expected": max(numbers) - min(numbers) + 1,
        "lost": max(numbers) - min(numbers) + 1 - len(set(numbers)),
        "duplicates": len(numbers) - len(set(numbers)), "outOfOrder": len(late), "restarts": 0,
        "jitterMs": round(jitter_ms(packets, clock_rate), 3),
        "bitRate": round(size * 8e6 / (times[-1] - times[0])),
        "longestGapMs": max(b - a for a, b in zip(times, times[1:])) / 1000,
    }


def main():
    clock_rates = dict(map(int, argument.split("=")) for argument in sys.argv[2:])
    streams = read_streams(sys.argv[1])
    print(json.dumps([figures(key, streams[key], clock_rates) for key in sorted(streams)], indent=2))


if __name__ == "__main__":
    main()
