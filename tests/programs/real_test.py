"""kelto-flight and kelto-top over what the library records of a host, tests/programs/recorded_host.cpp."""

import json
import os
import re
import signal
import subprocess

from harness import PROGRAMS, ProgramTest, main


class RealTest(ProgramTest):
    def start(self, *arguments):
        self.environment["QTRACE_FILE"] = os.path.join(self.home, "trace.log")
        host = subprocess.Popen([PROGRAMS["host"], *arguments], env=self.environment,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(host.stdout.close)
        self.addCleanup(host.stdin.close)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        self.assertEqual(host.stdout.readline(), "ready\n")
        return host

    def printed(self, *arguments):
        done = self.flight(*arguments)
        self.assertEqual((done.stderr.decode(), done.returncode), ("", 0))
        return done.stdout.decode()

    def assert_tells_what_it_did(self):
        lines = self.printed().splitlines()

        def of(kind, thread, cls):
            return [line for line in lines if re.match(rf"[-0-9]+ [0-9:.]+  {thread} +{kind} .*{cls}", line)]
        self.assertEqual(len(of("event", "worker 1", 'class="media::CPacket"')), 20)
        self.assertEqual(len(of("post", "net", 'class="media::CPacket" to="worker 1"')), 20)
        slow, = of("event", "worker 1", 'class="media::CSlow"')
        self.assertGreaterEqual(int(re.search(r"ranUsec=(\d+)", slow).group(1)), 300_000)
        for line in of("event", "worker 1", 'class="media::CPacket"'):
            self.assertRegex(line, r' waitedUsec=\d{6,} postedBy="net" ')
        self.assertEqual(len(of("send", "net", 'class="media::CQuestion" blockedUsec=\\d{6,}')), 1)
        self.assertEqual(len(of("line", "worker 1", "Warning: .*ProcessOneEvent, watch, class=media::CSlow")), 1)
        self.assertTrue(of("timer", "worker 1", "lateUsec="))
        return lines

    def test_PrintsWhatAHostDid_AfterItWasKilled(self):
        host = self.start()
        host.send_signal(signal.SIGKILL)
        host.wait()
        self.assertIn("was killed;", self.assert_tells_what_it_did()[0])

    def test_PrintsWhatAHostDid_AfterItEnded(self):
        host = self.start()
        host.communicate()
        self.assertEqual(host.returncode, 0)
        self.assertIn("ended in order;", self.assert_tells_what_it_did()[0])

    def test_PrintsWhatAHostDoes_WhileItRuns(self):
        self.start()
        self.assertIn("still runs;", self.assert_tells_what_it_did()[0])

    def test_PrintsWhatDidNotEnd_AfterTheHostWasKilled(self):
        host = self.start("hang")
        host.send_signal(signal.SIGKILL)
        host.wait()
        running = [line for line in self.printed().splitlines() if "  running " in line]
        self.assertEqual(len(running), 1)
        self.assertRegex(running[0], 'worker 1 +running +class="media::CHang" and had not ended')

    def test_TimelineOfAHostHasItsThreadsAndArrows(self):
        self.start().communicate()
        events = json.loads(self.printed("--json", "-"))["traceEvents"]
        names = {event["args"]["name"]: event["tid"] for event in events if event["name"] == "thread_name"}
        packets = [event for event in events if event["ph"] == "X" and event["name"] == "media::CPacket"
                   and event["cat"] == "event"]
        self.assertEqual({event["tid"] for event in packets}, {names["worker 1"]})
        arrows = [event for event in events if event["ph"] == "s" and event["tid"] == names["net"]]
        self.assertGreaterEqual(len(arrows), 21)

    def test_ListsAHost_WhileItRuns(self):
        host = self.start()
        self.assertRegex(self.printed("--list"), rf"^recorded_host {host.pid} [-0-9]+ [0-9:.]+ runs {self.directory}/")

    def test_ShowsTheWorkersOfAHost(self):
        host = self.start()
        done = self.top("--once", "--json", str(host.pid))
        self.assertEqual((done.stderr.decode(), done.returncode), ("", 0))
        document = json.loads(done.stdout)
        self.assertEqual((document["process"], document["pid"], document["state"]),
                         ("recorded_host", host.pid, "live"))
        worker, = [worker for worker in document["workers"] if worker["name"] == "worker 1"]
        self.assertEqual(worker["posted"], worker["run"] + worker["endedUnfired"] + worker["pending"])
        self.assertGreaterEqual(worker["run"], 22)
        self.assertGreaterEqual(worker["runUsec"]["longest"], 300_000)
        self.assertEqual(worker["longestClass"], "media::CSlow")
        net, = [worker for worker in document["workers"] if worker["name"] == "net"]
        self.assertEqual(net["sends"], 1)
        self.assertGreaterEqual(net["blockedUsec"]["longest"], 300_000)

    def test_ShowsWhatAHostRunsNow(self):
        host = self.start("hang")
        document = json.loads(self.top("--once", "--json", str(host.pid)).stdout)
        worker, = [worker for worker in document["workers"] if worker["name"] == "worker 1"]
        self.assertEqual(worker["now"]["class"], "media::CHang")
        self.assertLess(worker["now"]["since"], document["time"])


if __name__ == "__main__":
    main(__name__)
