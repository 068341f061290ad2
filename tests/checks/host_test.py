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


class Monitor(Planted):
    def test_AMonitorThatSaysSomethingElseIsFound(self):
        tests = ROOT / "examples/rtp_monitor/tests"
        self.script("build/rtp_monitor", "echo '{\"streams\": []}'")
        self.script("build/bare_loop", "exit 0")
        self.script("build/blast", "exit 0")
        self.assert_fails("python3", tests / "tools_test.py", "build/rtp_monitor", "test_AgreesWithTshark",
                          says="FAILED (")
        for arguments in (("flood.py", "build/rtp_monitor", "1"), ("bench.py", "build", "replay", "1000")):
            with self.subTest(arguments[0]):
                status, said = self.run_in("python3", tests / arguments[0], *arguments[1:])
                self.assertNotEqual(status, 0, said)


if __name__ == "__main__":
    unittest.main()
