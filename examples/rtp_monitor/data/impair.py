#!/usr/bin/env python3
"""Drops, doubles and swaps chosen RTP packets of a capture.

    impair.py clean.pcap impaired.pcap

Reads a classic little-endian pcap file with Ethernet frames and writes another. Which packets are
hit follows from their place in their own stream (counted from 0 per destination port), so the same
input always gives the same output. Time stamps keep their place in the file: a swapped pair takes
over each other's arrival time.
"""

import struct
import sys

FILE_HEADER_SIZE = 24
RECORD_HEADER_SIZE = 16
LITTLE_ENDIAN_MAGIC = 0xA1B2C3D4

AUDIO_PORT = 5004
VIDEO_PORT = 5006
DROPPED = {AUDIO_PORT: {100, 101, 102, 350, 600}, VIDEO_PORT: {77, 200, 201, 430}}
DOUBLED = {AUDIO_PORT: {50, 500}, VIDEO_PORT: {33, 300, 301}}
SWAPPED_WITH_NEXT = {AUDIO_PORT: {250, 700}, VIDEO_PORT: {150}}


def read_records(path):
    with open(path, "rb") as file:
        data = file.read()
    if struct.unpack_from("<I", data)[0] != LITTLE_ENDIAN_MAGIC:
        sys.exit("impair.py: not a little-endian pcap file with microseconds")
    records, position = [], FILE_HEADER_SIZE
    while position < len(data):
        captured = struct.unpack_from("<I", data, position + 8)[0]
        end = position + RECORD_HEADER_SIZE + captured
        records.append((data[position:position + 8], data[position + 8:end]))
        position = end
    return data[:FILE_HEADER_SIZE], records


def destination_port(body):
    frame = body[8:]
    ip_header_size = (frame[14] & 0x0F) * 4
    return struct.unpack_from(">H", frame, 14 + ip_header_size + 2)[0]


def impair(records):
    places = {AUDIO_PORT: -1, VIDEO_PORT: -1}
    held = {}  # port -> index in the result of a packet that waits for the next of its stream
    result = []
    for time, body in records:
        port = destination_port(body)
        if port not in places:
            result.append((time, body))
            continue
        places[port] += 1
        place = places[port]
        if place in DROPPED[port]:
            continue
        if port in held:
            index = held.pop(port)
            earlier_time, earlier_body = result[index]
            result[index] = (earlier_time, body)
            body = earlier_body
        result.append((time, body))
        if place in DOUBLED[port]:
            result.append((time, body))
        if place in SWAPPED_WITH_NEXT[port]:
            held[port] = len(result) - 1
    return result


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    header, records = read_records(sys.argv[1])
    with open(sys.argv[2], "wb") as file:
        file.write(header)
        for time, body in impair(records):
            file.write(time + body)


if __name__ == "__main__":
    main()
