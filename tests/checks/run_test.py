"""`.ci/run` itself: what it does not do, it says."""

import re
import unittest

from planted import ROOT, Planted

SUITE = """cmake_minimum_required(VERSION 3.22)
project(suite NONE)
enable_testing()
add_test(NAME Good.Passes COMMAND true)
"""
SCRIPTS = re.search(r"^scripts=\(\n(.*?)^\)", (ROOT / ".ci/run").read_text(), re.M | re.S).group(1).split()


class Run(Planted):
    """The script over checks that all pass, and a suite of one test."""

    def setUp(self):
        super().setUp()
        self.copy(".ci/run", ".ci/results.py", "tools/build.sh", "tools/packages.sh")
        # Nothing is installed for a test of the script.
        self.write("tools/packages.sh", (self.root / "tools/packages.sh").read_text() +
                   "kelto_need() { :; }\nkelto_need_header() { :; }\nkelto_need_compiler() { :; }\n")
        for name in SCRIPTS:
            self.script(name)
        self.write("CMakeLists.txt", SUITE)
        self.script("test", 'cmake -S . -B out/suite >/dev/null && exec ctest --test-dir out/suite "$@"')

    def add_test(self, name, command, *properties):
        text = (self.root / "CMakeLists.txt").read_text()
        text += f"add_test(NAME {name} COMMAND sh -c [[{command}]])\n"
        if properties:
            text += f"set_tests_properties({name} PROPERTIES {' '.join(properties)})\n"
        self.write("CMakeLists.txt", text)

    def test_Passes_WhenAllPass(self):
        self.assert_passes(".ci/run", "test", "checks",
                           says=f"\n{len(SCRIPTS) + 1} passed, 0 failed, 0 skipped\n")

    def test_StepThatDoesNotExistIsRefused(self):
        self.assert_fails(".ci/run", "tset", says="there is no step 'tset'; there are: format test")
        self.assertFalse((self.root / "out").exists())

    def test_FailsWhenAStepDoesNothing(self):
        self.replace(".ci/run", "step_demo() {", "step_demos() {")
        self.assert_fails(".ci/run", "test", "demo", says="\n1 passed, 1 failed, 0 skipped\n")
        self.replace(".ci/run", 'for script in "${scripts[@]}"', "for script in")
        self.assert_fails(".ci/run", "checks", says="\nfailed: checks, which checked nothing\n")

    def test_EveryCheckHasANameOfItsOwn(self):
        _, said = self.run_in(".ci/run", "checks")
        names = re.findall(r"^== (.*)$", said, re.M)
        self.assertEqual(len(SCRIPTS), len(set(names)), names)

    def test_FailsWithoutTheRunBitOfACheck(self):
        for name in (SCRIPTS[0], SCRIPTS[-1]):
            with self.subTest(name):
                (self.root / name).chmod(0o644)
                self.assert_fails(".ci/run", "checks", says=f"FAILED: {name.split('/')[-1]}\n")
                (self.root / name).chmod(0o755)

    def test_FailsWithoutTheFileOfACheck(self):
        for name in (SCRIPTS[0], SCRIPTS[-1]):
            with self.subTest(name):
                (self.root / name).rename(self.root / "away")
                self.assert_fails(".ci/run", "checks", says=f"FAILED: {name.split('/')[-1]}\n")
                (self.root / "away").rename(self.root / name)

    def test_FailsWhenACheckIsOnNoList(self):
        self.script(".ci/checks/planted")
        self.assert_fails(".ci/run", "test", says=".ci/checks/planted is not on the list of checks")

    def test_FailsWhenNeedsBelongToNoCheck(self):
        self.write(".ci/checks/planted.needs", "")
        self.assert_fails(".ci/run", "test", says=".ci/checks/planted.needs belongs to no check")

    def test_FailsWhenACheckFails(self):
        self.script(SCRIPTS[0], "echo planted; exit 1")
        self.assert_fails(".ci/run", "checks", says=f"\n{len(SCRIPTS) - 1} passed, 1 failed, 0 skipped\n")

    def test_FailsWhenACheckCannotRunAndDoesNotSayWhy(self):
        self.script(SCRIPTS[0], "echo planted; exit 77")
        self.assert_fails(".ci/run", "checks", says=f"\n{len(SCRIPTS) - 1} passed, 1 failed, 0 skipped\n")

    def test_CountsAndNamesWhatIsSkipped(self):
        self.script("tests/package/debian", "echo 'skipped: no root'; exit 77")
        self.script(".ci/checks/fuzz", "echo 'skipped: half of it'; echo the other half is fine")
        self.assert_passes(".ci/run", "checks", says=(
            "\nskipped: debian: no root; fuzz: half of it\n"
            f"{len(SCRIPTS) - 1} passed, 0 failed, 2 skipped\n"))

    def test_FailsWhenATestFails(self):
        self.add_test("Planted.Fails", "exit 1")
        self.assert_fails(".ci/run", "test", says="\nfailed: test\n")
        self.assert_fails(".ci/run", "test", says="\n1 passed, 1 failed, 0 skipped\n")

    def test_FailsWhenATestIsNotBuilt(self):
        self.write("CMakeLists.txt", SUITE + "add_test(NAME Planted.IsMissing COMMAND /no/program)\n")
        self.assert_fails(".ci/run", "test", says="\n1 passed, 1 failed, 0 skipped\n")

    def test_FailsWithoutTests(self):
        self.write("CMakeLists.txt", SUITE.replace("add_test", "# add_test"))
        self.assert_fails(".ci/run", "test", says="\n0 passed, 1 failed, 0 skipped\n")

    def test_FailsWhenTheSuiteDoesNotComeToItsTests(self):
        self.write("CMakeLists.txt", SUITE)
        self.assert_passes(".ci/run", "test", says="\n1 passed, 0 failed, 0 skipped\n")
        self.script("test", "exit 0")
        self.assert_fails(".ci/run", "test", says="\n0 passed, 1 failed, 0 skipped\n")
        self.script("test", "echo '100% tests passed, 0 tests failed out of 7'; exit 1")
        self.assert_fails(".ci/run", "test", says="\n0 passed, 1 failed, 0 skipped\n")

    def test_CountsAndNamesTestsThatAreSkipped(self):
        self.add_test("Planted.SaysSo", "echo '[  SKIPPED ] Planted.SaysSo'",
                      'SKIP_REGULAR_EXPRESSION "SKIPPED"')
        self.add_test("Planted.IsDisabled", "true", "DISABLED TRUE")
        self.add_test("Planted.EndsWithItsCode", "exit 77", "SKIP_RETURN_CODE 77")
        self.add_test("Planted.IsAScript", "echo; echo 'OK (skipped=1)'")
        # A program of several cases: the others did pass.
        self.add_test("Program", "echo '[  SKIPPED ] Other.Case'; seq 9999; "
                                 "echo '[  SKIPPED ] 1 test, listed below:'; echo '[  SKIPPED ] Other.Case'")
        self.assert_passes(".ci/run", "test", says=(
            "\nskipped: test: Planted.SaysSo; test: Planted.IsDisabled; test: Planted.EndsWithItsCode; "
            "test: Planted.IsAScript; test: Other.Case\n2 passed, 0 failed, 5 skipped\n"))

    def test_FailureIsNoSkip(self):
        self.add_test("Planted.Fails", "echo '[  SKIPPED ] Planted.Fails'; exit 1")
        self.assert_fails(".ci/run", "test", says="\n1 passed, 1 failed, 0 skipped\n")


if __name__ == "__main__":
    unittest.main()
