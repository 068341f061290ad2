"""Small captures, made packet by packet."""

import struct

ETHERNET, NULL, RAW, IPV4, SLL, SLL2, WIFI = 1, 0, 101, 228, 113, 276, 105
START_SECONDS = 1700000000  # since 1970


def rtp(sequence, timestamp=0, ssrc=0x01020304, payload_type=0, payload=b"\x55" * 20):
    return struct.pack(">BBHII", 0x80, payload_type, sequence & 0xFFFF, timestamp, ssrc) + payload


def udp(payload, source_port=4000, port=5004, length=None):
    size = len(payload) + 8 if length is None else length
    return struct.pack(">HHHH", source_port, port, size, 0) + payload


def ipv4(payload, protocol=17, fragment=0, options=b"", size=None):
    header = 20 + len(options)
    total = header + len(payload) if size is None else size
    return struct.pack(">BBHHHBBH", 0x40 | header // 4, 0, total, 1, fragment, 64, protocol, 0) + \
        bytes([10, 0, 0, 1, 10, 0, 0, 2]) + options + payload


def ipv6(payload, next_header=17, size=None):
    length = len(payload) if size is None else size
    return struct.pack(">IHBB", 0x60000000, length, next_header, 64) + \
        bytes.fromhex("20010db8000000000000000000000001 20010db8000000000000000000000002") + payload


def ethernet(payload, ether_type=0x0800, tags=()):
    tagged = b"".join(struct.pack(">HH", kind, 7) for kind in tags)
    return bytes(12) + tagged + struct.pack(">H", ether_type) + payload


def sll(payload):
    return struct.pack(">HHH8sH", 0, 772, 6, bytes(8), 0x0800) + payload


def sll2(payload):
    return struct.pack(">HHIHBB8s", 0x0800, 0, 1, 772, 0, 6, bytes(8)) + payload


def record(data, seconds, microseconds, length=None):
    """One packet of a capture; length: on the wire, when that was more."""
    size = len(data) if length is None else length
    return struct.pack("<IIII", seconds, microseconds, len(data), size) + data


def pcap(frames, link_type=ETHERNET, step_usec=20000):
    """frames: bytes, or pairs of bytes and the length on the wire."""
    result = bytearray(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, link_type))
    for i, frame in enumerate(frames):
        data, length = frame if isinstance(frame, tuple) else (frame, None)
        seconds, microseconds = divmod(i * step_usec, 1000000)
        result += record(data, START_SECONDS + seconds, microseconds, length)
    return bytes(result)


def pcapng(frames, link_type=ETHERNET, step_usec=20000):
    def block(kind, body):
        body += bytes(-len(body) % 4)
        return struct.pack("<II", kind, len(body) + 12) + body + struct.pack("<I", len(body) + 12)

    result = block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
    result += block(1, struct.pack("<HHI", link_type, 0, 262144))
    for i, data in enumerate(frames):
        usec = START_SECONDS * 1000000 + i * step_usec
        result += block(6, struct.pack("<IIIII", 0, usec >> 32, usec & 0xFFFFFFFF, len(data),
                                       len(data)) + data)
    return result
