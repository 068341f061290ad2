#!/usr/bin/env python3
"""Measures the monitor, and fails when it does not keep its promises.

    bench.py BUILD replay [PACKETS]    a capture, at once, beside a bare loop of libpcap
    bench.py BUILD live [SECONDS]      a socket, at the highest rate that one sender gives

BUILD: the directory with rtp_monitor and the programs that are built with its tests. The capture
has 2,000,000 packets unless told otherwise, of eight streams with 200 bytes of payload each.
"""

import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time

import flood
import load

RUNS = 5
MOST_TIMES = 3      # the time of the bare loop
MOST_MIB = 20
SETTLE = 1          # seconds until all that was sent has been received


def timed(command, environment):
    start = time.monotonic()
    subprocess.run(command, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   check=True)
    return time.monotonic() - start


def replay(build, packets):
    monitor = os.path.join(build, "rtp_monitor")
    with tempfile.TemporaryDirectory() as directory:
        path = os.path.join(directory, "load.pcap")
        load.write_capture(path, packets)
        environment = dict(os.environ, QTRACE_FILE=os.path.join(directory, "trace.log"))
        command = [monitor, "--fast", "--json", path]
        bare = min(timed([os.path.join(build, "bare_loop"), path], environment)
                   for _ in range(RUNS))
        whole = min(timed(command, environment) for _ in range(RUNS))
        figures = load.measure(command, environment)
    document = figures.document
    counted = sum(stream["packets"] for stream in document["streams"])
    lost = sum(stream["lost"] for stream in document["streams"])
    print(f"replay of {packets} packets: {whole:.2f} s, with libpcap alone {bare:.2f} s, "
          f"{whole / bare:.1f} times; {document['packetsPerSecond']} packets per second; "
          f"{figures.peak_mib:.1f} MiB")
    return counted == packets and lost == 0 and whole <= MOST_TIMES * bare and \
        figures.peak_mib <= MOST_MIB


def live(build, seconds):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    process = subprocess.Popen([os.path.join(build, "rtp_monitor"), "--json",
                                f"udp://127.0.0.1:{port}"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    time.sleep(SETTLE)
    sent = int(subprocess.run([os.path.join(build, "blast"), str(port), str(seconds)],
                              stdout=subprocess.PIPE, check=True).stdout)
    time.sleep(SETTLE)
    peak = flood.peak_mib(process.pid)
    process.send_signal(signal.SIGINT)
    document = json.loads(process.communicate()[0])
    stream = document["streams"][0]
    dropped = document["inputs"][0]["dropped"]
    print(f"live, {sent} packets in {seconds} s, {sent // seconds} a second: {stream['packets']} "
          f"received, {dropped} dropped by the socket, of which {stream['droppedHere']} were missed "
          f"in the stream, {stream['lost']} called lost; {peak:.1f} MiB")
    return stream["packets"] + dropped == sent and stream["lost"] == 0 and peak <= MOST_MIB


def main():
    what, argument = sys.argv[2], [int(text) for text in sys.argv[3:]]
    if what == "replay":
        return replay(sys.argv[1], *(argument or [2000000]))
    return live(sys.argv[1], *(argument or [10]))


if __name__ == "__main__":
    sys.exit(0 if main() else 1)
