#!/usr/bin/env python3
"""bench/run and bench/report.py, in a copy of the directory where stand-ins build and measure."""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Notes its arguments, and writes results as kelto_bench does.
PROGRAM = """#!/usr/bin/env python3
import json, pathlib, sys
options = dict(argument.lstrip("-").split("=", 1) for argument in sys.argv[1:])
context = {"date": "2026-01-01", "num_cpus": 2, "load_avg": [9.0]}
key, value = options.get("benchmark_context", "=").split("=")
context[key] = value
if "benchmark_out" in options:
    rows = json.loads(pathlib.Path("rows.json").read_text())
    text = json.dumps({"context": context, "benchmarks": rows})
    pathlib.Path(options["benchmark_out"]).write_text(text)
else:
    print("measured", *sys.argv[1:])
"""


def rows_of(work, who, *values):
    """Repetitions of a row that takes so many nanoseconds."""
    return [{"run_type": "iteration", "run_name": f"{work};{who}", "family_index": 0,
             "per_family_instance_index": 0, "items_per_second": 1e9 / value}
            for value in values]


def figure_of(work, who, key, value):
    run = rows_of(work, who, 1)[0]
    del run["items_per_second"]
    return [{**run, key: value}]


COUNTED = "reference count;count up + down"


class Bench(unittest.TestCase):
    def setUp(self):
        self.tree = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.tree)
        shutil.copytree(ROOT / "bench", self.tree / "bench")
        (self.tree / "docs").mkdir()
        self.page = self.tree / "docs/performance.md"
        self.script("out/bench/bench/kelto_bench", PROGRAM)
        self.script("commands/cmake", "#!/bin/sh\necho \"$*\" >>cmake.log\n")
        self.measure(rows_of(COUNTED, "kelto_util", 10) + rows_of(COUNTED, "Peer", 20))

    def script(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        path.chmod(0o755)

    def measure(self, rows):
        """What the next run measures."""
        (self.tree / "rows.json").write_text(json.dumps(rows))

    def run_at(self, load, *arguments):
        (self.tree / "load").write_text(f"{load} 9.00 9.00 1/100 1234\n")
        return subprocess.run(
            ["bench/run", *arguments], cwd=self.tree, capture_output=True, text=True, check=False,
            env={**os.environ, "KELTO_LOADAVG": str(self.tree / "load"),
                 "PATH": f"{self.tree / 'commands'}:{os.environ['PATH']}"})

    def written(self, rows):
        """The page of a run that measures these."""
        self.measure(rows)
        run = self.run_at("0.10")
        self.assertEqual(run.returncode, 0, run.stderr)
        return self.page.read_text()

    def test_Refuses_WhenTheMachineIsNotQuiet(self):
        run = self.run_at("0.51")
        self.assertEqual(run.returncode, 1)
        self.assertIn("not quiet", run.stderr)
        self.assertIn("0.51", run.stderr)
        self.assertFalse(self.page.exists())
        self.assertFalse((self.tree / "cmake.log").exists())

    def test_Writes_WhenTheMachineIsQuiet(self):
        run = self.run_at("0.50")
        self.assertEqual(run.returncode, 0, run.stderr)
        page = self.page.read_text()
        self.assertNotIn("not quiet", page)
        self.assertIn("load when it started: 0.50", page)

    def test_WritesAndSaysSo_WhenForcedOnAMachineThatIsNotQuiet(self):
        run = self.run_at("0.51", "--force")
        self.assertEqual(run.returncode, 0, run.stderr)
        page = self.page.read_text()
        self.assertIn("**The machine was not quiet when this was measured** (load 0.51", page)
        self.assertLess(page.index("not quiet"), page.index("\n| Job"))

    def test_SaysNothing_WhenForcedOnAQuietMachine(self):
        run = self.run_at("0.10", "--force")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertNotIn("not quiet", self.page.read_text())

    def test_MeasuresWithoutWriting_WhenThereAreArguments(self):
        run = self.run_at("5.00", "--benchmark_filter=base64")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("measured --benchmark_filter=base64", run.stdout)
        self.assertFalse(self.page.exists())

    def test_BeginsWithALineForEachJobAndAPicture(self):
        page = self.written(rows_of(COUNTED, "kelto_util", 10) + rows_of(COUNTED, "Peer", 20))
        self.assertIn("| count a reference up and down | 10.0 ns | 20.0 ns | Peer | "
                      "**2.0 times as fast** |", page)
        self.assertIn("(performance/at-a-glance.svg)", page)
        self.assertLess(page.index("at-a-glance"), page.index("\n## "))
        picture = (self.tree / "docs/performance/at-a-glance.svg").read_text()
        self.assertIn("count a reference up and down", picture)
        self.assertIn("prefers-color-scheme: dark", picture)

    def test_CountsTargets(self):
        parsed = "URL;parse one URL"
        page = self.written(
            rows_of(COUNTED, "kelto_util", 10, 10, 10) + rows_of(COUNTED, "Peer", 20, 20, 20)
            + rows_of(parsed, "kelto_util", 81, 81, 81) + rows_of(parsed, "Peer", 100, 100, 100))
        self.assertRegex(page, r"- Targets: 1 of 2 met\. [1-9]\d* more were not measured\.\n")
        self.assertIn("| 0.50 | 1.05 | met |", page)
        self.assertIn("| 0.81 | 0.80 | **missed** |", page)

    def test_TellsAMissApart_WhenTheRowsSpreadByMore(self):
        page = self.written(rows_of(COUNTED, "kelto_util", 90, 110, 130)
                            + rows_of(COUNTED, "Peer", 90, 100, 110))
        self.assertIn("- Targets: 0 of 1 met. 1 of those missed are missed by less", page)

    def test_ComparesWithTheRowThatATargetNames(self):
        work = "timers;schedule + cancel, 10 pending (list)"
        page = self.written(
            rows_of(work, "kelto_util", 60) + rows_of(work, "libuv", 50)
            + rows_of(work, "quicker", 30)
            + rows_of(work, "variant: libuv, clock read for each", 70))
        self.assertIn("| quicker | 30.0 ns | 0% | 2.00 |  |  |", page)
        self.assertIn("| libuv | 50.0 ns | 0% | 1.20 | 1.30 | met |", page)
        self.assertIn("| variant: libuv, clock read for each | 70.0 ns | 0% | 0.86 | 0.85 | "
                      "**missed** |", page)
        self.assertIn("- Targets: 1 of 2 met.", page)

    def test_DoesNotTakeAFloorForAPeer(self):
        page = self.written(rows_of(COUNTED, "kelto_util", 10) + rows_of(COUNTED, "Peer", 20)
                            + rows_of(COUNTED, "floor: nothing", 1))
        self.assertIn("| 10.0 ns | 20.0 ns | Peer |", page)
        self.assertIn("floor: nothing 1.0 ns", page)

    def test_ShowsBytesAndPercentiles(self):
        event = "footprint;memory of a pending event"
        late = "latency;post beside a busy thread"
        page = self.written(
            figure_of(event, "kelto_util", "bytes", 64) + figure_of(event, "Peer", "bytes", 2048)
            + figure_of(late, "kelto_util", "percentile_99.9", 1500)
            + figure_of(late, "Peer", "percentile_99.9", 3e6))
        self.assertIn("| memory of a pending event | 64 B | 2.0 KiB | Peer | "
                      "**32 times smaller** |", page)
        self.assertIn("| post beside a busy thread, 99.9th percentile | 1.50 us | 0% | Peer | "
                      "3.00 ms |", page)

    def test_ShowsWhatTheMachineCharges(self):
        page = self.written(rows_of(COUNTED, "kelto_util", 10)
                            + rows_of("machine;a locked instruction", "floor: the machine", 12))
        self.assertIn("a locked instruction: 12.0 ns", page)
        self.assertNotIn("## machine", page)

    def test_DrawsHowTheCostGrows(self):
        rows = []
        for load, value in ((10, 1000), (90, 50000)):
            rows += figure_of(f"growth: latency, over load in %;{load}", "kelto_util",
                              "nanoseconds", value)
        page = self.written(rows)
        self.assertIn("(performance/latency-over-load-in.svg)", page)
        picture = (self.tree / "docs/performance/latency-over-load-in.svg").read_text()
        self.assertIn(">load in %<", picture)

    def compared(self, base, other):
        for name, values in (("base", base), ("other", other)):
            (self.tree / name).write_text(json.dumps(
                {"benchmarks": rows_of(COUNTED, "kelto_util", *values)}))
        return subprocess.run(
            ["bench/report.py", "--compare", "base", "--with", "other"], cwd=self.tree,
            capture_output=True, text=True, check=True).stdout

    def test_MarksARow_WhenItIsSlowerByMoreThanTheNoise(self):
        self.assertIn("1 of 1 rows slower", self.compared([100, 100, 100], [104, 104, 104]))
        self.assertIn("0 of 1 rows slower", self.compared([100, 100, 100], [103, 103, 103]))
        self.assertIn("0 of 1 rows slower", self.compared([100, 110, 120], [104, 114, 124]))


if __name__ == "__main__":
    unittest.main()
