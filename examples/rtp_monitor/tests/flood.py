#!/usr/bin/env python3
"""Sends new sources without end to a monitor that it starts, measures its memory, and fails when
that exceeds 64 MiB or packets are not accounted for.

    flood.py path/to/rtp_monitor [SECONDS [SOURCES_PER_SECOND]]
"""

import json
import os
import signal
import socket
import struct
import subprocess
import sys
import time

TURNS_PER_SECOND = 100
MOST_MIB = 64


def send_new_sources(port, per_second, seconds):
    """Every packet is of another source; returns how many there were."""
    head = struct.pack(">BBHI", 0x80, 0, 1, 0)
    body = bytes(160)
    per_turn = per_second // TURNS_PER_SECOND
    sent = 0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.connect(("127.0.0.1", port))
        start = time.monotonic()
        for turn in range(seconds * TURNS_PER_SECOND):
            for _ in range(per_turn):
                sender.send(head + struct.pack(">I", sent) + body)
                sent += 1
            time.sleep(max(0, start + (turn + 1) / TURNS_PER_SECOND - time.monotonic()))
    return sent


def peak_mib(pid):
    """Memory of a running process at its most, in MiB; -1 where the system does not tell."""
    try:
        with open(f"/proc/{pid}/status") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmHWM")) / 1024
    except FileNotFoundError:
        kib = subprocess.run(["ps", "-o", "rss=", "-p", str(pid)], stdout=subprocess.PIPE,
                             check=True).stdout
        return int(kib) / 1024


def main():
    monitor = os.path.abspath(sys.argv[1])
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 60
    per_second = int(sys.argv[3]) if len(sys.argv) > 3 else 40000
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    process = subprocess.Popen([monitor, "--json", f"udp://127.0.0.1:{port}"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    time.sleep(0.5)
    start = time.monotonic()
    sent = send_new_sources(port, per_second, seconds)
    took = time.monotonic() - start
    time.sleep(0.5)
    peak = peak_mib(process.pid)
    process.send_signal(signal.SIGINT)
    document = json.loads(process.communicate()[0])
    print(f"{sent} new sources in {took:.1f} s: {document['rtp']} received, "
          f"{document['inputs'][0]['dropped']} dropped by the socket, "
          f"{document['forgottenStreams']} forgotten; {peak:.1f} MiB at most")
    return peak < MOST_MIB and document["rtp"] + document["inputs"][0]["dropped"] == sent


if __name__ == "__main__":
    sys.exit(0 if main() else 1)
