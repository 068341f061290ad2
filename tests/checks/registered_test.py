"""`registered.py`: a test that gets lost is missed."""

import json
import unittest

from planted import ROOT, Planted

SUITE = """cmake_minimum_required(VERSION 3.22)
project(suite NONE)
enable_testing()
foreach(name Good.Passes "Any/Typed/0.Passes<int>" Values.Passes/3 Example.IsRun)
  add_test(NAME "${name}" COMMAND true)
endforeach()
"""
SOURCE = """TEST(Good, Passes) {}
TYPED_TEST(Typed, Passes) {}
TEST_P(Values, Passes) {}
"""


class Registered(Planted):
    def setUp(self):
        super().setUp()
        self.write("suite/CMakeLists.txt", SUITE)
        self.write("tests/Good_test.cpp", SOURCE)
        self.write("tests/example_test.py", "class Example:\n    def test_IsRun(self):\n        pass\n")
        self.build("tests/Good_test.cpp")
        self.command = (ROOT / "tests/checks/registered.py", "build", "--cases", "ctest", "tests")
        self.assert_passes(*self.command)

    def build(self, *sources):
        self.assert_passes("cmake", "-S", "suite", "-B", "build")
        self.write("build/compile_commands.json", json.dumps(
            [{"directory": str(self.root), "file": source} for source in sources]))

    def test_FindsATestProgramThatIsNotBuilt(self):
        self.write("tests/Lost_test.cpp", "")
        self.assert_fails(*self.command, says="Lost_test.cpp: is not compiled")
        self.assert_passes(*self.command, "--without", "Lost_test.cpp")
        self.assert_fails(ROOT / "tests/checks/registered.py", "build", "tests", says="is not compiled")

    def test_FindsACaseThatCtestDoesNotRun(self):
        for case in ("TEST(Good, IsLost) {}", "TEST_F(Goo, Passes) {}", "TYPED_TEST(Typed, IsLost) {}",
                     "TEST_P(Values, IsLost) {}"):
            with self.subTest(case):
                self.write("tests/Good_test.cpp", SOURCE + case + "\n")
                self.assert_fails(*self.command, says="ctest has no ")

    def test_FindsACaseOfAScriptThatCtestDoesNotRun(self):
        self.write("tests/example_test.py", "class Example:\n    def test_IsLost(self):\n        pass\n")
        self.assert_fails(*self.command, says="ctest has no IsLost")

    def test_DirectoriesAreLeftOutAsTold(self):
        self.write("tests/other/Other_test.cpp", "TEST(Other, IsInAPart) {}\n")
        self.assert_fails(*self.command, says="Other_test.cpp: is not compiled")
        self.assert_fails(*self.command, "--whole", "other", says="Other_test.cpp: is not compiled")
        self.assert_passes(*self.command, "--without", "other")
        self.build("tests/Good_test.cpp", "tests/other/Other_test.cpp")
        self.assert_fails(*self.command, says="ctest has no Other.IsInAPart")
        self.assert_passes(*self.command, "--whole", "other")

    def test_FailsWithoutTests(self):
        (self.root / "tests/Good_test.cpp").unlink()
        self.assert_fails(*self.command, says="there are no tests")


if __name__ == "__main__":
    unittest.main()
