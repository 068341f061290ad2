"""kelto-flight as its users run it, over recordings that recording.py writes."""

import json
import os
import re
import xml.etree.ElementTree

from harness import ROOT, ProgramTest, call, main
from recording import CUT, ENDED, FREE, START, Recording

HEAD = ("# media-host 4711, from 2026-11-22 09:30:00.000000 to 2026-11-22 09:30:01.000000, was killed; "
        "2 threads, {} of 13 records\n")
LINES = """\
2026-11-22 09:30:00.000000  net       begin
2026-11-22 09:30:00.000010  worker 1  begin
2026-11-22 09:30:00.001000  net       post       class="media::CPacket" to="worker 1" event=0xa0
2026-11-22 09:30:00.001100  net       post       class="CRedraw" to="worker 1" event=0xb0
2026-11-22 09:30:00.001200  worker 1  event      class="media::CPacket" ranUsec=300000 waitedUsec=200 postedBy="net" pending=1 event=0xa0
2026-11-22 09:30:00.301200  worker 1  line       Warning: UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, slow
2026-11-22 09:30:00.301300  worker 1  event      class="CRedraw" ranUsec=40 waitedUsec=300200 postedBy="net" pending=0 event=0xb0
2026-11-22 09:30:00.302000  worker 1  timer      class="0x600000001080" ranUsec=5 lateUsec=1500
2026-11-22 09:30:00.310000  net       send       class="CRedraw" blockedUsec=2000 to="worker 1"
2026-11-22 09:30:00.311000  net       high-water pending=64 of="worker 1"
2026-11-22 09:30:00.312000  net       step       byUsec=-500000
2026-11-22 09:30:00.313000  net       line       Detail (filtered): detail
2026-11-22 09:30:00.900000  worker 1  running    class="media::CPacket" and had not ended
""".splitlines(keepends=True)
ALL = range(len(LINES))


class FlightTest(ProgramTest):
    def printed(self, recording, *arguments):
        done = self.flight(self.write(recording), *arguments)
        self.assertEqual((done.stderr.decode(), done.returncode), ("", 0))
        return done.stdout.decode()

    def records(self, recording, *arguments):
        """What is printed of each record, without times."""
        return [line[28:] for line in self.printed(recording, *arguments).splitlines()
                if not line.startswith("#")]

    def assert_shows(self, arguments, numbers):
        done = self.flight(self.write(call()), *arguments)
        self.assert_prints(done, HEAD.format(len(numbers)) + "".join(LINES[n] for n in numbers))

    # -- text

    def test_PrintsRecordsOfAllThreadsByTime(self):
        self.assert_shows([], ALL)

    def test_PrintsTheNewestRecording_WithoutAFile(self):
        self.write(b"", "media-host.4711.1795339799999999.flight")
        self.write(call())
        self.write(b"", "media-host.4711.x.flight")
        self.assert_prints(self.flight(), HEAD.format(13) + "".join(LINES))

    def test_FiltersByThread(self):
        of_net = [n for n in ALL if LINES[n][28:].startswith("net")]
        self.assert_shows(["--thread", "net"], of_net)
        self.assert_shows(["--thread", "1"], of_net)
        self.assert_shows(["--thread", "net", "--thread=2"], ALL)
        self.assert_shows(["--thread", "nobody"], [])

    def test_FiltersByKind(self):
        self.assert_shows(["--kind", "event"], [4, 6])
        self.assert_shows(["--kind", "high-water", "--kind", "line"], [5, 9, 11])
        for kind in "begin post event timer send running high-water step line end".split():
            self.assert_shows(["--kind", kind],
                              [n for n in ALL if LINES[n][38:].split()[0] == kind])

    def test_FiltersByTime(self):
        # What ran at that time is shown, whenever it began.
        self.assert_shows(["--from", "09:30:00.301200"], range(4, 13))
        self.assert_shows(["--from", "2026-11-22 09:30:00.301201"], range(6, 13))
        self.assert_shows(["--to", "09:30:00.001"], range(3))
        self.assert_shows(["--from", f"@{START // 10**6}.302", "--to", "09:30:00.312"], range(7, 11))
        self.assert_shows(["--last", "0.69"], range(8, 13))
        self.assert_shows(["--last", "0.01"], [12])  # still ran at the end
        self.assert_shows(["--last", "3600"], ALL)
        self.assert_shows(["--from", "09:31"], [])

    def test_FiltersTogether(self):
        self.assert_shows(["--thread", "worker 1", "--kind", "event", "--from", "09:30:00.3013"], [6])

    def test_ListsThreads(self):
        recording = call()
        recording.slots[0].state, recording.slots[0].end = ENDED, START + 500000
        self.assertEqual(self.printed(recording, "--threads").splitlines()[1:], [
            'net      number=1 thread=0x7f0000000001 begin="2026-11-22 09:30:00.000000" '
            'end="2026-11-22 09:30:00.500000" records=7',
            'worker 1 number=2 thread=0x7f0000000002 begin="2026-11-22 09:30:00.000010" records=6'])

    def test_ListsRecordings(self):
        old = self.write(call(), "a.host.7.1795339800000000.flight")
        new = self.write(call(), "media-host.4711.1795339801000000.flight")
        for name in ("x.flight", "a.1.flight", ".1.1.flight.", "a.b.1.flight", "a.1.b.flight"):
            self.write(b"", name)
        os.symlink(old, os.path.join(self.directory, "link.9.1795339809000000.flight"))
        os.mkdir(os.path.join(self.directory, "directory.9.1795339809000000.flight"))
        os.mkfifo(os.path.join(self.directory, "pipe.9.1795339809000000.flight"))
        self.lock(new)
        self.assert_prints(self.flight("--list"),
                           f"media-host 4711 2026-11-22 09:30:01.000000 runs {new}\n"
                           f"a.host 7 2026-11-22 09:30:00.000000 over {old}\n")

    def test_SaysHowTheProcessEnded(self):
        recording = call()
        path = self.write(recording)
        self.assertIn(", was killed;", self.flight(path).stdout.decode())
        with self.lock(path):
            self.assertIn(", still runs;", self.flight(path).stdout.decode())
        recording.end = START + 2_000_000
        self.assertIn("to 2026-11-22 09:30:02.000000, ended in order;", self.printed(recording))

    def test_SaysWhatIsMissing(self):
        recording = call()
        recording.lost, recording.unslotted = 3, 7
        self.assertEqual(self.printed(recording).splitlines()[1:3], [
            "# Not recorded, for want of a place: 7 threads.",
            "# Some classes have no name, as there were too many."])

    def test_EscapesNamesAndLines(self):
        recording = Recording(process=b"a\x1b[2Jb")
        slot = recording.add(1, b"x\ny\xff")
        slot.line(START + 5, 20, b"one\ntwo\x1b]0;title\x07 \xc2\x9b\xe2\x80\xae")
        slot.event(START + 6, 1, recording.add_class(b"3\x1b[m"))
        text = self.printed(recording)
        self.assertFalse(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]", text), text)
        self.assertEqual(text.count("\n"), 3)
        self.assertIn("# a\\x1b[2Jb 4711,", text)
        self.assertIn("x\\x0ay\\xff  line       Info: one\\x0atwo\\x1b]0;title\\x07", text)

    def test_BeginsNoThreadAsALineOfTheHead(self):
        recording = Recording()
        for number, name in enumerate((b"#", b"# x", b"#x"), 1):
            recording.add(number, name)
        lines = self.printed(recording, "--threads").splitlines()[1:]
        self.assertEqual([line.split("  ")[0].split(" number")[0].strip() for line in lines], ["\\x23", "\\x23 x", "#x"])

    # -- what rings hold

    def test_LeavesOutWhatMayBeHalfWritten_WhenTheRingIsFull(self):
        recording = Recording(units=16)
        slot = recording.add(1, "net")
        for n in range(16):
            slot.event(START + n, 0, 1, pending=n)
        self.assertEqual(len(self.records(recording)), 15)  # the oldest is where the next one goes
        slot.before = 1003
        pending = [int(re.search(r"pending=(\d+)", record).group(1)) for record in self.records(recording)]
        self.assertEqual(pending, list(range(1, 16)))

    def test_ShowsWhole_WhenTheRingIsNotFull(self):
        recording = Recording(units=16)
        slot = recording.add(1, "net")
        for n in range(15):
            slot.event(START + n, 0, 1, pending=n)
        self.assertEqual(len(self.records(recording)), 15)

    def test_PutsLinesTogether(self):
        recording = Recording()
        slot = recording.add(1, "net")
        texts = ["x" * length for length in (0, 1, 16, 17, 40, 41, 480)]
        for n, text in enumerate(texts):
            slot.line(START + n, 20, text)
        slot.line(START + 10, 20, "cut off", flags=CUT)
        slot.line(START + 11, 20, "y" * 16 + "z" * 24, length=60)  # the last unit of it is missing
        slot.event(START + 12, 1, 2)
        slot.line(START + 13, 20, "v" * 16, length=40)
        slot.unit(8, 2, 0x7777777777777777)  # the second unit of another line
        self.assertEqual([record.split(": ", 1)[1] for record in self.records(recording) if " line " in record],
                         texts + ["cut off…", "y" * 16 + "z" * 24 + "…", "v" * 16 + "…"])

    def test_NamesLevelsAsTheLibraryDoes(self):
        header = (ROOT / "include/CmT120Trace.h").read_text()
        levels = dict(re.findall(r'^    \{(\d+), +"(\w+)",', header, re.M))
        self.assertGreater(len(levels), 10)
        recording = Recording()
        slot = recording.add(1, "net")
        for level in range(40):
            slot.line(START + level, level, "x")
        self.assertEqual([re.search(r"line +(\w+): x", record).group(1) for record in self.records(recording)],
                         [levels.get(str(level), "NA") for level in range(40)])

    def test_LeavesOutTextWithoutItsBeginning(self):
        recording = Recording(units=16)
        slot = recording.add(1, "net")
        slot.text(b"a" * 240).event(START, 1, 2)
        self.assertEqual(len(self.records(recording)), 1)

    def test_TellsThreadsOfOnePlaceApart(self):
        recording = Recording(units=32)
        slot = recording.add(9, "third", start=START + 50)
        slot.event(START + 10, 1, 1).ended(START + 11, 5)
        slot.begin(START + 20, 7, 0x77, "second").event(START + 21, 1, 1).ended(START + 22, 7)
        slot.first = len(slot.units)
        slot.begin(START + 50, 9, 0x99, "third").event(START + 51, 1, 1)
        records = [re.sub(" +", " ", record).split(" class")[0].rstrip() for record in self.records(recording)]
        self.assertEqual(records, ["#5 event", "#5 end", "second begin", "second event", "second end",
                                   "third begin", "third event"])

    def test_TellsThreadsOfOneNameApart(self):
        recording = Recording()
        for number in (1, 2):
            recording.add(number, "worker").event(START + number, 1, 1)
        recording.add(3, "").event(START + 3, 1, 1)
        self.assertEqual([record.split()[0] for record in self.records(recording)],
                         ["worker#1", "worker#2", "#3"])

    def test_GivesPostsTheirPlaceAfterWhatWasDoneBefore(self):
        """Their clock moves every few milliseconds."""
        recording = Recording()
        slot = recording.add(1, "net")
        slot.event(START + 3000, 500, 1).post(START, 1, 0xA, 0xC).event(START + 4000, 1, 1, 0xA)
        slot.post(START - 1_000_000, 1, 0xA, 0xC)  # the clock was set
        kinds = [record.split()[1] for record in self.records(recording)]
        self.assertEqual(kinds, ["post", "event", "post", "event"])
        self.assertIn("waitedUsec=500 ", self.records(recording)[3])

    def test_FindsThePostOfTheSameMicrosecond(self):
        recording = Recording()
        recording.add(1, "worker").event(START + 5, 1, 1, 0xA)
        recording.add(2, "net").post(START + 5, 1, 0xA, 0xC)
        records = self.records(recording)
        self.assertEqual([record.split()[1] for record in records], ["post", "event"])
        self.assertIn('waitedUsec=0 postedBy="net"', records[1])

    def test_FindsThePostOfAnAddressThatIsUsedAgain(self):
        recording = Recording()
        net, worker = recording.add(1, "net"), recording.add(2, "worker")
        for n in range(3):
            net.post(START + 100 * n, 1, 0xA, 0xC)
            worker.event(START + 100 * n + 10 * n, 1, 1, 0xA)
        worker.event(START + 400, 1, 1, 0xA)  # its post is gone
        net.post(START + 500, 2, 0xA, 0xC)    # of another class
        worker.event(START + 600, 1, 1, 0xA)
        waits = [re.search(r"waitedUsec=(\d+)", record) for record in self.records(recording)
                 if " event " in record]
        self.assertEqual([wait and int(wait.group(1)) for wait in waits], [0, 10, 20, None, None])

    def test_FindsThePostsOfOneTick_WhenTheirAddressIsUsedAgain(self):
        """Their clock moves every few milliseconds: all of them seem to come before the first event."""
        recording = Recording()
        net, worker = recording.add(1, "net"), recording.add(2, "worker")
        net.post(START - 4000, 1, 0xA, 0xC)  # its event was not run
        for n in range(3):
            net.post(START, 1, 0xA, 0xC).post(START, 2, 0xB, 0xC)
            worker.event(START + 1000 * n + 10, 1, 1, 0xA).event(START + 1000 * n + 20, 1, 2, 0xB)
        net.post(START + 4000, 1, 0xA, 0xC)
        worker.event(START + 4010, 1, 1, 0xA)
        waits = [re.search(r"waitedUsec=(\d+)", record) for record in self.records(recording)
                 if " event " in record]
        self.assertEqual([wait and int(wait.group(1)) for wait in waits],
                         [10, 20, 1010, 1020, 2010, 2020, 10])

    def test_TakesTheLastRecords_WhenThereAreTooMany(self):
        recording = Recording(units=4096)
        slot = recording.add(1, "net")
        for n in range(4095):
            slot.event(START + n, 1, 1)
        recording.slots = [slot] * 600
        text = self.printed(recording, "--threads").splitlines()
        self.assertIn("# There are more records; of each thread the last ones are taken.", text)
        self.assertEqual({line.split()[-1] for line in text[2:]}, {f"records={2 ** 21 // 600}"})
        self.assertEqual(len(text), 2 + 600)

    def test_TakesAllRecords_WhenMostPlacesAreUnused(self):
        recording = Recording(units=4096)
        slot = recording.add(1, "net")
        for n in range(4095):
            slot.event(START + n, 1, 1)
        for n in range(2, 601):
            recording.add(n, "idle", state=FREE)
        text = self.printed(recording).splitlines()
        self.assertEqual(len(text), 1 + 4095)
        self.assertIn(".004094", text[-1])

    # -- timeline

    def timeline(self, recording, *arguments):
        text = self.printed(recording, "--json", "-", *arguments)
        document = json.loads(text)
        self.assertEqual(set(document), {"displayTimeUnit", "traceEvents"})
        self.assertIn(document["displayTimeUnit"], ("ms", "ns"))
        begun = {}
        for event in document["traceEvents"]:
            self.assertIn(event["ph"], "MXisfC")
            self.assertIsInstance(event["name"], str)
            for key in ("pid", "tid", "ts"):
                self.assertIsInstance(event[key], int)
            self.assertEqual("dur" in event, event["ph"] == "X")
            if event["ph"] == "X":
                self.assertGreaterEqual(event["dur"], 0)
            if event["ph"] == "i":
                self.assertIn(event["s"], "gpt")
            if event["ph"] == "C":
                self.assertTrue(all(isinstance(value, int) for value in event["args"].values()))
            if event["ph"] == "s":
                self.assertNotIn(event["id"], begun)
                begun[event["id"]] = event
            if event["ph"] == "f":
                start = begun.pop(event["id"])
                self.assertEqual((start["cat"], start["name"]), (event["cat"], event["name"]))
                self.assertLessEqual(start["ts"], event["ts"])
                self.assertEqual(event["bp"], "e")
            if event["ph"] in "sf":
                # An arrow begins and ends in slices.
                self.assertTrue([slice for slice in document["traceEvents"] if slice["ph"] == "X" and
                                 slice["tid"] == event["tid"] and
                                 slice["ts"] <= event["ts"] <= slice["ts"] + slice["dur"]])
        self.assertEqual(begun, {})
        return document["traceEvents"]

    def test_TimelineHasSlicesArrowsAndMarks(self):
        events = self.timeline(call())
        of = {phase: [event for event in events if event["ph"] == phase] for phase in "MXisfC"}
        self.assertEqual([(event["name"], event["tid"], event["args"]["name"]) for event in of["M"]],
                         [("process_name", 1, "media-host"), ("thread_name", 1, "net"),
                          ("thread_name", 2, "worker 1")])
        self.assertEqual(
            [(event["cat"], event["name"], event["tid"], event["ts"] - START, event["dur"])
             for event in of["X"]],
            [("post", "media::CPacket", 1, 1000, 0), ("post", "CRedraw", 1, 1100, 0),
             ("event", "media::CPacket", 2, 1200, 300000), ("event", "CRedraw", 2, 301300, 40),
             ("timer", "0x600000001080", 2, 302000, 5), ("send", "CRedraw", 1, 310000, 2000),
             ("running", "media::CPacket", 2, 900000, 100000)])
        self.assertEqual(of["X"][3]["args"], {"pending": 0, "waitedUsec": 300200, "postedBy": "net"})
        self.assertEqual([(event["tid"], event["ts"] - START) for event in of["s"]], [(1, 1000), (1, 1100)])
        self.assertEqual([(event["tid"], event["ts"] - START) for event in of["f"]], [(2, 1200), (2, 301300)])
        self.assertEqual([(event["name"], event["s"]) for event in of["i"]],
                         [("begin", "t"), ("begin", "t"),
                          ("UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, slow", "t"),
                          ("high-water 64", "t"), ("the clock was set by -500000 us", "g"), ("detail", "t")])
        self.assertEqual([(event["name"], event["args"]["pending"]) for event in of["C"]],
                         [("pending worker 1", 1), ("pending worker 1", 0)])

    def test_TimelineHasWhatTheFiltersLeave(self):
        events = self.timeline(call(), "--thread", "worker 1", "--kind", "event")
        self.assertEqual([event["ph"] for event in events], list("MMMXCXC"))  # no arrow from nowhere

    def test_TimelineIsValid_WhateverTheBytes(self):
        recording = Recording(process=bytes(range(1, 60)))
        slot = recording.add(0, bytes(range(100, 160)))
        slot.line(START, 20, bytes(range(256)))
        slot.event(START, 5, recording.add_class(b'3"\\\xff'), event=1)
        slot.unit(3, (1 << 56) - 1, (1 << 64) - 1, (1 << 64) - 1, (1 << 64) - 1)
        slot.unit(6, START, 1 << 63)
        self.assertEqual(len(self.timeline(recording)), 2 + 2 + 3)

    def test_WritesIntoAFile(self):
        path = os.path.join(self.home, "out.json")
        self.assertEqual(self.printed(call(), "--json", path), "")
        with open(path) as file:
            self.assertIn("traceEvents", json.load(file))

    def test_Complains_WhenTheOutputCannotBeWritten(self):
        recording = self.write(call())
        self.assert_complains(self.flight(recording, "--json", "/nowhere/x"), "/nowhere/x: No such file")
        self.assert_complains(self.flight(recording, "--svg", "/dev/full"), "/dev/full: cannot be written")
        with open("/dev/full", "w") as full:
            done = self.run_program("flight", recording, stdout=full)
        self.assert_complains(done, "kelto-flight: -: cannot be written")

    def test_LeavesRecordingsAlone_WhenToldToWriteToOne(self):
        path = self.write(call())
        for option in ("--json", "--svg"):
            self.assert_complains(self.flight(option, path), "is called like a recording", status=2)
        with open(path, "rb") as file:
            self.assertEqual(file.read(), call().pack())

    # -- picture

    def test_PictureHasARowForEachThread(self):
        root = xml.etree.ElementTree.fromstring(self.printed(call(), "--svg", "-"))
        name = "{http://www.w3.org/2000/svg}"
        texts = [text.text for text in root.iter(name + "text")]
        for text in ("media-host 4711", "net", "worker 1", "CPacket 300ms", "CPacket 100ms",
                     "media::CPacket, 400ms in all", "CRedraw, 40us in all"):
            self.assertIn(text, texts)
        titles = [title.text for title in root.iter(name + "title")]
        self.assertIn("media::CPacket, event, 300ms", titles)
        self.assertIn("UTIL WARNING: CCmEventQueueBase::ProcessOneEvent, slow", titles)
        bars = [float(rect.get("width")) for rect in root.iter(name + "rect") if rect.find(name + "title") is not None]
        self.assertAlmostEqual(max(bars), 1030 * 0.3, delta=0.1)  # of the second that is drawn

    def test_PictureIsValid_WhateverTheBytes(self):
        recording = Recording(process=bytes(range(1, 60)))
        for number in range(70):
            slot = recording.add(number, bytes(range(100, 160)))
            slot.event(START, 1 << 39, recording.add_class(b"3<&\xff"))
            slot.line(START, 20, bytes(range(256)))
        root = xml.etree.ElementTree.fromstring(self.printed(recording, "--svg", "-"))
        self.assertIn("6 more threads are not drawn", "".join(root.itertext()))

    def test_PictureAddsUpLengthsOfAnySize(self):
        recording = Recording()
        slot = recording.add(1, b"x")
        table = recording.add_class(b"3Any")
        for n in range(200):
            slot.timer(n, 2**64 - 1, 0, table)
        self.assertRegex(self.printed(recording, "--svg", "-"), r"Any, \d+d in all")

    def test_PictureIsBounded_WhenThereAreManyRecords(self):
        recording = Recording(units=65536)
        slot = recording.add(1, "net")
        for n in range(65000):
            slot.event(START + 10 * n, 5, 1)
        self.assertLess(len(self.printed(recording, "--svg", "-")), 500_000)

    def test_OutputIsEmptyButValid_WithoutRecords(self):
        self.assertEqual(self.timeline(Recording()), [
            {"ph": "M", "name": "process_name", "pid": 4711, "tid": 0, "ts": 0,
             "args": {"name": "media-host"}}])
        xml.etree.ElementTree.fromstring(self.printed(Recording(), "--svg", "-"))
        self.assertEqual(self.records(Recording()), [])

    # -- damage

    def test_ShowsWhatCanBeRead_WhenTheFileIsCut(self):
        data = call().pack()
        done = self.flight(self.write(data[:-256 * 32]))  # the worker's ring is gone
        self.assert_complains(done, "it is cut after")
        self.assertEqual(done.stdout.decode().count("\n"), 1 + 7)

    def test_SaysWhatIsWrong_WhenTheFileIsDamaged(self):
        data = call().pack()
        for change, sentence in (
                (b"", "it is cut after 0 bytes"),
                (data[:100], "it is cut after 100 bytes"),
                (data[:4200], "it is cut after 4200 bytes"),
                (b"x" + data[1:], "it is not a flight recorder's file"),
                (bytes(184), "it is not a flight recorder's file"),
                (data[:8] + b"\x02" + data[9:], "it is of version 2, which is not known here"),
                (data[:12] + b"\xff" * 4 + data[16:], "the parts in its header do not fit together"),
                (data[:16] + b"\xff" * 8 + data[24:], "the parts in its header do not fit together"),
                (data[:32] + b"\xff" * 8 + data[40:], "the parts in its header do not fit together"),
                (data[:24] + b"\xff" * 4 + data[28:], "sizes in its header are out of range"),
                (data[:28] + b"\xff" * 4 + data[32:], "sizes in its header are out of range"),
                (data[:44] + b"\xff" * 4 + data[48:], "sizes in its header are out of range"),
                (data[:48] + b"\xff" * 4 + data[52:], "sizes in its header are out of range"),
                (data[:56] + b"\xff" * 4 + data[60:], "sizes in its header are out of range"),
                (data[:56] + bytes(4) + data[60:], "sizes in its header are out of range")):
            path = self.write(change)
            for program in ("flight", "top"):
                done = self.run_program(program, path)
                self.assert_complains(done, f"kelto-{program}: {path}: ")
                self.assert_complains(done, sentence)
                self.assertEqual(done.stdout, b"")

    # -- arguments

    def test_Complains_WhenArgumentsAreWrong(self):
        path = self.write(call())
        for arguments, sentence in (
                (["--kind", "x"], "'x' is no kind"), (["--from", "x"], "'x' is no time"),
                (["--to", "25:00"], "'25:00' is no time"), (["--last", "-1"], "'-1' are no seconds"),
                ([path], "there is more than one file"), (["--from", "\x1b"], "'\\x1b' is no time"),
                (["--from", ""], "--from is empty"), (["--to", ""], "--to is empty"),
                (["--last", ""], "--last is empty"), (["--json", ""], "--json is empty"),
                (["--svg", ""], "--svg is empty"), (["--directory", ""], "--directory is empty"),
                (["--json", "-", "--svg", "-"], "'-' is to have both")):
            self.assert_complains(self.flight(path, *arguments), sentence, status=2)
        self.assertEqual(self.flight("--no-such-option").returncode, 2)
        self.assert_complains(self.flight(""), "the name of the file is empty", status=2)

    def test_Complains_WhenThereIsNoRecording(self):
        self.assert_complains(self.flight(), "kelto: there is no recording")
        self.assert_complains(self.flight("--directory", "/nowhere"), "/nowhere: there is no recording")
        self.assert_complains(self.flight("/nowhere/x"), "/nowhere/x: No such file or directory")
        self.assert_complains(self.flight(self.directory), "it is not a regular file")
        self.assert_complains(self.flight("/dev/zero"), "it is not a regular file")

    def test_RefusesTheDirectory_WhenItIsALink(self):
        os.symlink(self.directory, os.path.join(self.home, "link"))
        self.assert_complains(self.flight("--directory", os.path.join(self.home, "link")), "link: ")

    def test_RefusesTheDirectory_WhenItIsAnothersUser(self):
        if os.geteuid() != 0:
            self.skipTest("only root gives directories away")
        os.chown(self.directory, 12345, -1)
        self.assert_complains(self.flight(), "it is not this user's directory")

    def test_Complains_WhenItsHelpCannotBeWritten(self):
        for option in ("--help", "--version"):
            with open("/dev/full", "w") as full:
                done = self.run_program("flight", option, stdout=full)
            self.assert_complains(done, "standard output: cannot be written")

    def test_PageOfTheManualHasTheOptions(self):
        self.assert_page_of_the_manual_has_the_options("flight")

    def test_TellsItsVersionAndHelp(self):
        self.assertRegex(self.flight("--version").stdout.decode(), r"^kelto-flight \d+\.\d+\.\d+\n$")
        self.assertIn("--json OUT", self.flight("--help").stdout.decode())


if __name__ == "__main__":
    main(__name__)
