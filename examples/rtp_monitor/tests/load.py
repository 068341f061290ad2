#!/usr/bin/env python3
"""Measures how fast the monitor reads a long capture, and the memory that it takes.

    load.py path/to/rtp_monitor [PACKETS]

Writes a capture of 1,000,000 packets, if not told otherwise, in a temporary directory: eight
streams with 200 bytes of payload each packet.
"""

import collections
import json
import os
import subprocess
import sys
import tempfile

import captures

STREAMS = 8
PAYLOAD = bytes(200)

Figures = collections.namedtuple("Figures", "exit_code document seconds_of_cpu peak_mib")


def write_capture(path, packets, streams=STREAMS):
    """Packet by packet: a child's peak starts from this process's memory."""
    with open(path, "wb") as file:
        file.write(captures.pcap([]))
        for i in range(packets):
            turn, ssrc = divmod(i, streams)
            body = captures.rtp(turn, 160 * turn % 2**32, ssrc, payload=PAYLOAD)
            seconds, tenths = divmod(i, 10000)  # 100 microseconds apart
            file.write(captures.record(captures.ethernet(captures.ipv4(captures.udp(body))),
                                       captures.START_SECONDS + seconds, tenths * 100))


def measure(command, environment=None):
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(command, stdout=output, stderr=subprocess.DEVNULL,
                                   env=environment)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        document = json.loads(output.read())
    unit = 2**20 if sys.platform == "darwin" else 2**10  # of ru_maxrss in a MiB
    return Figures(process.returncode, document, usage.ru_utime + usage.ru_stime,
                   usage.ru_maxrss / unit)


def main():
    monitor = os.path.abspath(sys.argv[1])
    packets = int(sys.argv[2]) if len(sys.argv) > 2 else 1000000
    with tempfile.TemporaryDirectory() as directory:
        path = os.path.join(directory, "load.pcap")
        write_capture(path, packets)
        environment = dict(os.environ, QTRACE_FILE=os.path.join(directory, "trace.log"))
        figures = measure([monitor, "--fast", "--json", path], environment)
    streams = figures.document["streams"]
    print(f"{sum(stream['packets'] for stream in streams)} packets of {len(streams)} streams, "
          f"{sum(stream['lost'] for stream in streams)} lost")
    print(f"{figures.document['packetsPerSecond']} packets per second, "
          f"{figures.seconds_of_cpu:.2f} s of processor time, {figures.peak_mib:.1f} MiB at most")


if __name__ == "__main__":
    main()
