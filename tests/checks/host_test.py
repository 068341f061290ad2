"""The checks of the example host, over stand-ins that do something wrong."""

import unittest

from planted import ROOT, Planted

DEMO = """#!/usr/bin/env python3
import os, signal, sys, time
os.makedirs("out/demo/build", exist_ok=True)
open("out/demo/build/CMakeCache.txt", "w").write("CACHE\\n")
if sys.argv[1:]:
    print('{"rtp": 1306}')
    sys.exit()
ended = []
signal.signal(signal.SIGINT, lambda *_: ended.append(1))
print("3% of call.pcap read", flush=True)
while not ended:
    time.sleep(0.01)
open("out/demo/call.svg", "w").write("<svg/>")
print("\\x1b[?1049lPartial: the run ended after 1 s")
print("where everything is")
print(os.path.abspath("out/demo/call.svg"))
"""


class Demo(Planted):
    def test_ADemoThatGoesAnotherWayIsFound(self):
        self.copy(".ci/checks/demo")
        self.write("demo", DEMO).chmod(0o755)
        self.assert_passes(".ci/checks/demo")
        for old, new, says in (
                ("1306", "1305", "AssertionError"),
                ('print(\'{"rtp', 'print("building"); print(\'{"rtp', "JSONDecodeError"),
                ("CACHE", "GTest_DIR", "the demo looks for a test library"),
                ('print("where everything is")', "pass", "no 'where everything is' after Ctrl-C"),
                ('"<svg/>"', '"<svg>"', "ParseError"),
                ('print(os.path.abspath("out/demo/call.svg"))', "sys.exit(1)", "exit status 1")):
            with self.subTest(says):
                (self.root / "out/demo/build/CMakeCache.txt").unlink(missing_ok=True)
                self.replace("demo", old, new)
                self.assert_fails(".ci/checks/demo", says=says)
                self.write("demo", DEMO).chmod(0o755)


# A monitor that has seen nothing, and one that counts what comes to its port.
NOTHING = '{"rtp": 0, "forgottenPackets": 0, "skipped": 0, "skippedFor": {}, "streams": []}'
COUNTING = """#!/usr/bin/env python3
import json, signal, socket, sys
ended = []
signal.signal(signal.SIGINT, lambda *_: ended.append(1))
count = 0
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
    receiver.bind(("127.0.0.1", int(sys.argv[-1].split(":")[-1])))
    receiver.settimeout(0.1)
    while not ended:
        try:
            receiver.recv(2048)
            count += 1
        except OSError:
            pass
print(json.dumps({"rtp": count, "inputs": [{"dropped": 0}], "forgottenStreams": 0}))
"""
REPLAYED = """echo '{"streams": [{"packets": 1000, "lost": 0}], "packetsPerSecond": 1}'"""


class Monitor(Planted):
    """The scripts themselves, over stand-ins for the monitor."""

    def setUp(self):
        super().setUp()
        self.tests = ROOT / "examples/rtp_monitor/tests"

    def test_AMonitorThatDoesNotAgreeWithTheToolsIsFound(self):
        self.script("build/rtp_monitor", f"echo '{NOTHING}'")
        self.assert_fails("python3", self.tests / "tools_test.py", "build/rtp_monitor",
                          "test_AgreesWithTshark", says="FAILED (failures=1)")

    def test_AMonitorThatLosesPacketsIsFound(self):
        command = ("python3", self.tests / "flood.py", "build/rtp_monitor", "1", "1000")
        self.write("build/rtp_monitor", COUNTING).chmod(0o755)
        self.assert_passes(*command, says="1000 new sources in")
        self.replace("build/rtp_monitor", "print(", "count -= 1\nprint(")
        self.assert_fails(*command, says="1000 new sources in")

    def test_AMonitorThatIsSlowOrMiscountsIsFound(self):
        command = ("python3", self.tests / "bench.py", "build", "replay", "1000")
        self.script("build/bare_loop", "sleep 0.2")
        self.script("build/rtp_monitor", REPLAYED)
        self.assert_passes(*command)
        for old, new in (("1000", "999"), ('"lost": 0', '"lost": 1'), ("echo", "sleep 0.8; echo")):
            with self.subTest(new):
                self.replace("build/rtp_monitor", old, new)
                self.assert_fails(*command, says="replay of 1000 packets")
                self.script("build/rtp_monitor", REPLAYED)


if __name__ == "__main__":
    unittest.main()
