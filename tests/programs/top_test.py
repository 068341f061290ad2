"""kelto-top as its users run it, over recordings that recording.py writes, in terminals of any
width."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

from harness import LIMIT, PROGRAMS, ROOT, ProgramTest, main
from recording import ENDED, START, Recording

SPREAD = {"count": 10, "median": 5, "p99": 1200, "p999": 80000, "longest": 301000}


def host():
    recording = Recording()
    packet = recording.add_class("N5media7CPacketE")
    redraw = recording.add_class("N12_GLOBAL__N_17CRedrawE")
    net = recording.add(1, "net").watched(
        posted=1000, run=990, refused=2, unfired=3, pending=7, most_pending=123456, asleep=500_000,
        events=400_000, timers_usec=100_000, timers=50, sends=4, longest_table=packet, run_time=SPREAD,
        waiting={"count": 3, "median": 10, "p99": 20, "p999": 30, "longest": 40},
        lateness={"count": 50, "median": 1000, "p99": 2000, "p999": 3000, "longest": 4000},
        blocked={"count": 4, "median": 1, "p99": 2, "p999": 3, "longest": 2_500_000})
    net.current = (redraw, START + 400_000)
    recording.add(2, "a worker with a long name").watched(posted=5, run=5)
    recording.add(3, "not watched yet")
    recording.add(4, "gone", state=ENDED).watched(posted=1, run=1)
    return recording


ENTER = b"\x1b[?1049h"


class Terminal:
    """A terminal of that size which kelto-top runs in."""

    def __init__(self, test, columns, rows, *arguments, **changes):
        self.test, self.output = test, b""
        self.master, slave = pty.openpty()
        test.addCleanup(os.close, self.master)
        self.resize(columns, rows)
        self.before = termios.tcgetattr(slave)
        self.slave = slave
        test.addCleanup(os.close, slave)
        self.pid = os.fork()
        if self.pid == 0:
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)
            for file in range(3):
                os.dup2(slave, file)
            os.execve(PROGRAMS["top"], ["kelto-top", *arguments], {**test.environment, **changes})
        test.addCleanup(self.kill)

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def kill(self):
        if self.pid:
            os.kill(self.pid, signal.SIGKILL)
            self.wait()

    def wait(self):
        """Its status, after it has ended."""
        deadline = time.monotonic() + LIMIT
        while True:
            self.read(0.01)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.pid = 0
                self.read(0)
                return status
            if time.monotonic() > deadline:
                raise AssertionError("it does not end")

    def wait_until_stopped(self):
        deadline = time.monotonic() + LIMIT
        while True:
            pid, status = os.waitpid(self.pid, os.WUNTRACED | os.WNOHANG)
            if pid:
                self.test.assertTrue(os.WIFSTOPPED(status))
                return
            if time.monotonic() > deadline:
                raise AssertionError("it does not stop")
            self.read(0.01)

    def read(self, wait):
        while select.select([self.master], [], [], wait)[0]:
            self.output += os.read(self.master, 65536)

    def screens(self):
        """What was shown, screen by screen, without what marks and clears."""
        parts = self.output.decode().split("\x1b[H")[1:]
        return [re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", part).replace("\r", "").split("\n")
                for part in parts if part.endswith("\x1b[J") or "\x1b[J" in part]

    def wait_for(self, is_there):
        deadline = time.monotonic() + LIMIT
        while not is_there(self.screens()):
            if time.monotonic() > deadline:
                raise AssertionError(f"not shown: {self.output!r}")
            self.read(0.02)
        return self.screens()[-1]

    def show(self):
        return self.wait_for(lambda screens: screens)

    def press(self, key, is_there):
        os.write(self.master, key.encode())
        return self.wait_for(is_there)

    def assert_restored(self):
        self.test.assertEqual(termios.tcgetattr(self.slave), self.before)
        self.test.assertEqual(self.output.count(b"\x1b[?1049h"), self.output.count(b"\x1b[?1049l"))
        self.test.assertTrue(self.output.rstrip().endswith(b"\x1b[?25h\x1b[?1049l"), self.output[-80:])


class TopTest(ProgramTest):
    def live(self, recording, name="media-host.4711.1795339800000000.flight"):
        path = self.write(recording, name)
        self.lock(path)
        return path

    def json(self, *arguments):
        done = self.top("--once", "--json", *arguments)
        self.assertEqual((done.stderr.decode(), done.returncode), ("", 0))
        self.assertEqual(done.stdout.count(b"\n"), 1)
        return json.loads(done.stdout)

    # -- one reading

    def test_PrintsATableOnce_WithoutATerminal(self):
        recording = host()
        recording.end = START + 1_000_000
        done = self.top(self.write(recording))
        self.assert_prints(done, "\n".join([
            "media-host 4711, ended, 3 workers, 09:30:01, up 1.0s",
            "WORKER                   BUSY%  EV/S  PEND  MOST WAIT99  RUN99 LONGEST         OF CLASS "
            "TIM/S LATE99 BLOCKED REFUS RUNS NOW",
            "net                          -     -     7  123k   20us  1.2ms   301ms          CPacket "
            "    -  2.0ms    2.5s     2 600ms CRedraw",
            "a worker with a long na…     -     -     0     0      -      -       -                - "
            "    -      -       -     0 -",
            "gone (ended)                 -     -     0     0      -      -       -                - "
            "    -      -       -     0 -", ""]))

    def test_JsonHasTheDocumentedKeys(self):
        path = self.write(host())
        document = self.json(path)
        workers = document.pop("workers")
        self.assertEqual(document, {
            "process": "media-host", "pid": 4711, "file": path, "state": "killed",
            "start": START / 1e6, "time": START / 1e6 + 1})
        self.assertEqual([worker["name"] for worker in workers], ["net", "a worker with a long name", "gone"])
        self.assertEqual(workers[0], {
            "name": "net", "number": 1, "thread": 0x7f0000000001, "ended": False, "busy": None,
            "eventsPerSecond": None, "timersPerSecond": None, "posted": 1000, "run": 990, "refused": 2,
            "endedUnfired": 3, "pending": 7, "mostPending": 123456, "inEventsUsec": 400000,
            "inTimersUsec": 100000, "asleepUsec": 500000, "timers": 50, "sends": 4, "runUsec": SPREAD,
            "longestClass": "media::CPacket",
            "waitUsec": {"count": 3, "median": 10, "p99": 20, "p999": 30, "longest": 40},
            "lateUsec": {"count": 50, "median": 1000, "p99": 2000, "p999": 3000, "longest": 4000},
            "blockedUsec": {"count": 4, "median": 1, "p99": 2, "p999": 3, "longest": 2500000},
            "now": {"class": "(anonymous namespace)::CRedraw", "since": START / 1e6 + 0.4}})
        self.assertEqual((workers[2]["ended"], workers[2]["longestClass"], workers[2]["now"]),
                         (True, None, None))

    def test_JsonIsValid_WhateverTheBytes(self):
        recording = Recording(process=bytes(range(1, 60)))
        for first in range(1, 200, 50):
            slot = recording.add(first, bytes(range(first, first + 50)))
            slot.watched(**{name: (1 << 64) - 1 for name in ("posted", "events", "pending", "longest_table")},
                         run_time=dict.fromkeys(SPREAD, (1 << 64) - 1))
            slot.current = ((1 << 64) - 1, (1 << 64) - 1)
        self.assertEqual(len(self.json(self.write(recording))["workers"]), 4)
        self.assertEqual(self.top("--once", self.write(recording)).returncode, 0)

    def test_LeavesOutWhatHasEnded_WhileTheProcessRuns(self):
        document = self.json("--interval", "0", self.live(host()))
        self.assertEqual((document["state"], len(document["workers"])), ("live", 2))

    def test_RatesAreOfTheTimeBetweenTwoReadings(self):
        recording = host()
        path = self.live(recording)
        process = self.start_top("--json", "--interval", "0.5", path)
        self.assertIsNone(json.loads(process.stdout.readline())["workers"][0]["busy"])
        net = recording.slots[0]
        net.figures = dict(net.figures, run=1990, timers=60, events=900_000, timers_usec=200_000)
        net.figures_wall += 1_000_000
        other = recording.slots[1]  # its event began long before and has ended now
        other.figures, other.figures_wall = dict(other.figures, events=5_000_000), net.figures_wall
        with open(path, "r+b") as file:
            file.write(recording.pack())
        while (workers := self.by_name(process.stdout.readline()))["net"]["run"] == 990:
            self.assertIsNone(workers["net"]["busy"])  # nothing new was written
        net, other = workers.values()
        self.assertEqual((net["eventsPerSecond"], net["timersPerSecond"], net["busy"]), (1000, 10, 0.6))
        self.assertEqual((other["eventsPerSecond"], other["busy"]), (0, 1))

    @staticmethod
    def by_name(line):
        return {worker["name"]: worker for worker in sorted(json.loads(line)["workers"], reverse=True,
                                                            key=lambda worker: worker["name"])}

    def start_top(self, *arguments):
        process = subprocess.Popen([PROGRAMS["top"], *arguments], env=self.environment, text=True,
                                   stdout=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def test_SortsByAnyColumn(self):
        recording = Recording()
        order = (3, 1, 2)
        for n in order:
            recording.add(n, f"w{n}").watched(
                posted=n, run=n, refused=n, unfired=n, pending=n, most_pending=n, timers=n, sends=n,
                run_time=dict.fromkeys(SPREAD, n), waiting=dict.fromkeys(SPREAD, n),
                lateness=dict.fromkeys(SPREAD, n), blocked=dict.fromkeys(SPREAD, n))
        path = self.write(recording)
        for column in "pending most wait run longest class late sends blocked total refused unfired".split():
            names = [worker["name"] for worker in self.json("--sort", column, path)["workers"]]
            self.assertEqual(names, ["w3", "w2", "w1"], column)
        for column, expected in (("name", "w1 w2 w3"), ("busy", "w3 w1 w2"), ("events", "w3 w1 w2"),
                                 ("timers", "w3 w1 w2")):
            names = [worker["name"] for worker in self.json("--sort", column, path)["workers"]]
            self.assertEqual(" ".join(names), expected, column)

    def test_PrintsALineForEachReading_WithJsonAlone(self):
        path = self.write(host())
        lock = self.lock(path)
        process = self.start_top("--json", "--interval", "0.5", path)
        for _ in range(2):
            self.assertEqual(json.loads(process.stdout.readline())["state"], "live")
        lock.close()
        last = process.stdout.read().splitlines()
        self.assertEqual([json.loads(line)["state"] for line in last][-1:], ["killed"])
        self.assertEqual(process.wait(timeout=LIMIT), 0)

    # -- which process

    def test_TakesTheNewestThatRuns_WithoutAnArgument(self):
        older = self.live(host(), "older.1.1795339800000000.flight")
        newer = self.live(host(), "newer.2.1795339801000000.flight")
        self.write(host(), "dead.3.1795339802000000.flight")
        done = self.top("--once", "--json", "--interval", "0")
        self.assertEqual(json.loads(done.stdout)["file"], newer)
        self.assertEqual(done.stderr.decode(), "kelto-top: this is newer 2; there are also older 1\n")
        for name in ("older", "1"):
            self.assertEqual(self.json("--interval", "0", name)["file"], older)

    def test_Complains_WhenThereIsNoSuchProcess(self):
        self.assert_complains(self.top(), "no process of this user is recorded now in ")
        self.write(host())
        self.assert_complains(self.top("media-host"), "no process 'media-host' is recorded now in ")
        self.assert_complains(self.top("./x"), "./x: No such file or directory")

    def test_Complains_WhenArgumentsAreWrong(self):
        for arguments, sentence in (
                (["--sort", "x"], "'x' is no column; there are name, busy, "),
                (["--interval", "x"], "'x' is no interval"), (["--interval", "0"], "too short"),
                (["--interval", "0.4"], "too short"), (["--interval", "9999"], "is no interval"),
                (["a", "b"], "there is more than one process"),
                (["--directory", ""], "--directory is empty"),
                ([""], "the name of the process is empty")):
            self.assert_complains(self.top(*arguments), sentence, status=2)
        self.assertEqual(self.top("--no-such-option").returncode, 2)

    def test_Complains_WhenItsHelpCannotBeWritten(self):
        for option in ("--help", "--version"):
            with open("/dev/full", "w") as full:
                done = self.run_program("top", option, stdout=full)
            self.assert_complains(done, "standard output: cannot be written")

    def test_PageOfTheManualHasTheOptions(self):
        self.assert_page_of_the_manual_has_the_options("top")

    def test_TellsItsVersionAndHelp(self):
        self.assertRegex(self.top("--version").stdout.decode(), r"^kelto-top \d+\.\d+\.\d+\n$")
        self.assertIn("p  pending  PEND", self.top("--help").stdout.decode())

    # -- docs/programs.md

    @staticmethod
    def page_rows(heading, cells):
        """The first cells of the table with that heading."""
        page = (ROOT / "docs/programs.md").read_text().split(f"\n| {heading} |")[1].split("\n\n")[0]
        return [re.findall("`([^`]+)`", " ".join(row.split("|")[1:1 + cells]))
                for row in page.splitlines()[2:]]

    def test_PageHasTheColumns(self):
        said = re.findall(r"^  (\w)  \w+ +(OF CLASS|\S+)", self.top("--help").stdout.decode(), re.M)
        self.assertEqual(self.page_rows("Key", 2), [list(row) for row in said])

    def test_PageHasTheMembersOfTheJson(self):
        document = self.json(self.write(host()))
        for heading, value in (("Member", document), ("Member of a worker", document["workers"][0])):
            self.assertEqual(set(sum(self.page_rows(heading, 1), [])), set(value))

    # -- the terminal

    def test_FitsTheTerminal_WhateverItsWidth(self):
        path = self.live(host())
        for columns in [1, 2, 5, 8, 12, 19, 40, 60, 80, 100, 132, 200, 400]:
            terminal = Terminal(self, columns, 10, path)
            screen = terminal.show()
            self.assertLessEqual(len(screen), 10)
            for line in screen:
                self.assertLessEqual(len(line), columns, line)
            terminal.kill()

    def test_ShowsWhatMattersMost_WhenTheTerminalIsNarrow(self):
        path = self.live(host())
        for columns, headings in (
                (20, "WORKER RUNS NOW"),
                (40, "WORKER BUSY% PEND LONGEST RUNS NOW"),
                (80, "WORKER BUSY% EV/S PEND WAIT99 RUN99 LONGEST REFUS RUNS NOW"),
                (132, "WORKER BUSY% EV/S PEND MOST WAIT99 RUN99 LONGEST OF CLASS TIM/S LATE99 BLOCKED "
                      "REFUS RUNS NOW")):
            terminal = Terminal(self, columns, 10, path)
            self.assertEqual(re.sub(" +", " ", terminal.show()[1]), headings)
            terminal.kill()

    def test_FitsTheTerminal_WhateverItsHeight(self):
        path = self.live(host())
        for rows in (1, 2, 3, 4, 5):
            terminal = Terminal(self, 80, rows, path)
            screen = terminal.show()
            self.assertLessEqual(len(screen), rows)
            self.assertNotIn(b"\n", terminal.output.split(b"\x1b[J")[0].split(b"\x1b[H")[1][-1:])
            terminal.kill()

    def test_SaysHowManyWorkersThereIsNoRoomFor(self):
        recording = Recording()
        for number in range(10):
            recording.add(number, f"w{number}").watched(posted=1)
        path = self.live(recording)
        for rows, last in ((11, "and 2 more"), (12, "w9"), (3, "and 10 more")):
            terminal = Terminal(self, 80, rows, path, "--sort", "name")
            self.assertEqual(terminal.show()[-1][:len(last)], last)
            terminal.kill()

    def test_FollowsTheTerminalsSize(self):
        terminal = Terminal(self, 80, 10, self.live(host()), "--interval", "3600")
        terminal.show()
        terminal.resize(40, 10)
        os.kill(terminal.pid, signal.SIGWINCH)
        screen = terminal.wait_for(lambda screens: len(screens) > 1)
        self.assertLessEqual(max(map(len, screen)), 40)

    def test_SortsByKeys(self):
        recording = host()
        recording.slots[1].watched(posted=900, run=900, pending=8)
        terminal = Terminal(self, 80, 10, self.live(recording), "--interval", "3600")
        self.assertEqual(terminal.show()[2][:3], "net")

        def first_is(text):
            return lambda screens: len(screens[-1]) > 2 and screens[-1][2].startswith(text)
        terminal.press("p", first_is("a worker"))
        terminal.press("i", first_is("net"))
        terminal.press("i", first_is("a worker"))
        terminal.press("w", first_is("net"))
        terminal.press("n", first_is("a worker"))
        self.assertIn(b"\x1b[7mWORKER", terminal.output)

    def test_ReadsAgain_WhenAsked(self):
        recording = host()
        path = self.live(recording)
        terminal = Terminal(self, 80, 10, path, "--interval", "3600")
        terminal.show()
        recording.add(9, "a late one").watched(posted=1)
        with open(path, "r+b") as file:
            file.write(recording.pack())
        terminal.press(" ", lambda screens: any("a late" in line for line in screens[-1]))

    def test_HelpsAndQuits(self):
        terminal = Terminal(self, 40, 10, self.live(host()), "--interval", "3600")
        terminal.show()
        help_screen = terminal.press("h", lambda screens: "q quit" in screens[-1][0])
        self.assertLessEqual(max(map(len, help_screen)), 40)
        terminal.press("x", lambda screens: "WORKER" in screens[-1][1])
        os.write(terminal.master, b"q")
        self.assertEqual(terminal.wait(), 0)
        terminal.assert_restored()

    def test_RestoresTheTerminal_WhateverEndsIt(self):
        path = self.live(host())
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            terminal = Terminal(self, 80, 10, path)
            terminal.show()
            os.kill(terminal.pid, number)
            status = terminal.wait()
            self.assertTrue(os.WIFSIGNALED(status), (number, status))
            self.assertEqual(os.WTERMSIG(status), number)
            terminal.assert_restored()

    def test_RestoresTheTerminal_WhenASignalEndsItWhileTheUserHoldsIt(self):
        path = self.live(host())
        for number in (signal.SIGTERM, signal.SIGHUP):
            terminal = Terminal(self, 80, 10, path, "--interval", "3600")
            terminal.show()
            os.write(terminal.master, b"\x13")  # Ctrl-S
            os.kill(terminal.pid, number)
            self.assertEqual(os.WTERMSIG(terminal.wait()), number)
            terminal.assert_restored()

    def test_RestoresTheTerminal_WhenItCrashes(self):
        path = self.live(host())
        for number in (signal.SIGSEGV, signal.SIGABRT, signal.SIGBUS):
            terminal = Terminal(self, 80, 10, path)
            terminal.show()
            os.kill(terminal.pid, number)
            self.assertNotEqual(terminal.wait(), 0)
            terminal.assert_restored()

    def test_RestoresTheTerminal_WhenTheFileIsCutMeanwhile(self):
        path = self.live(host())
        terminal = Terminal(self, 80, 10, path, "--interval", "0.5")
        terminal.show()
        os.truncate(path, 5000)
        self.assertEqual(os.waitstatus_to_exitcode(terminal.wait()), 1)
        self.assertIn(b"it is cut after 5000 bytes", terminal.output)
        self.assertEqual(termios.tcgetattr(terminal.slave), terminal.before)
        self.assertEqual(terminal.output.count(b"\x1b[?1049l"), 1)

    def test_RestoresTheTerminal_WhileItIsStopped(self):
        terminal = Terminal(self, 80, 10, self.live(host()), "--interval", "3600")
        terminal.show()
        os.kill(terminal.pid, signal.SIGTSTP)
        terminal.wait_until_stopped()
        terminal.read(0)
        terminal.assert_restored()
        os.kill(terminal.pid, signal.SIGCONT)
        terminal.wait_for(lambda screens: terminal.output.count(ENTER) == 2)

    def test_StopsAndEnds_WhenSignalsComeWhileItWrites(self):
        terminal = Terminal(self, 80, 10, self.live(host()), "--interval", "3600")
        terminal.show()
        for number in (signal.SIGTSTP, signal.SIGTERM):
            termios.tcflow(terminal.slave, termios.TCOOFF)
            os.write(terminal.master, b"i")
            time.sleep(0.3)  # it writes by then, and is held up
            os.kill(terminal.pid, number)
            time.sleep(0.1)
            termios.tcflow(terminal.slave, termios.TCOON)
            if number == signal.SIGTSTP:
                terminal.wait_until_stopped()
                os.kill(terminal.pid, signal.SIGCONT)
                terminal.wait_for(lambda screens: terminal.output.count(ENTER) == 2)
        self.assertEqual(os.WTERMSIG(terminal.wait()), signal.SIGTERM)
        terminal.assert_restored()

    def test_ShowsThatTheProcessHasEnded(self):
        path = self.write(host())
        lock = self.lock(path)
        terminal = Terminal(self, 80, 10, path, "--interval", "0.5")
        terminal.show()
        lock.close()
        terminal.wait_for(lambda screens: ", killed," in screens[-1][0])

    def test_PrintsATableOnce_WhenTheTerminalCannotBeCleared(self):
        terminal = Terminal(self, 80, 10, self.write(host()), TERM="dumb")
        self.assertEqual(terminal.wait(), 0)
        self.assertNotIn(b"\x1b", terminal.output)


if __name__ == "__main__":
    main(__name__)
