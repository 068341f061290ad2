"""`tests/package/abi`: it compares what the sources are now."""

import unittest

from planted import Planted

PROJECT = """cmake_minimum_required(VERSION 3.22)
project(planted VERSION 1.0 LANGUAGES CXX)
set(KELTO_BUILD_TESTS "" CACHE STRING "")
set(KELTO_BUILD_EXAMPLES "" CACHE STRING "")
set(KELTO_WERROR "" CACHE STRING "")
add_library(kelto_util SHARED planted.cpp)
target_include_directories(kelto_util PRIVATE include)
set_target_properties(kelto_util PROPERTIES LIBRARY_OUTPUT_DIRECTORY source/util SOVERSION 1)
"""
HEADER = """#pragma once
class CPlanted {
  public:
    virtual ~CPlanted();
    virtual int First();
    virtual int Second();
    int Third();

  private:
    int m_nFirst;
    char m_achRoom[24];
};
"""
SOURCE = """#include "planted.h"
CPlanted::~CPlanted() {}
int CPlanted::First() { return m_nFirst + m_achRoom[0]; }
int CPlanted::Second() { return 2; }
int CPlanted::Third() { return 3; }
"""
CHANGED = "has changed"


class Abi(Planted):
    def setUp(self):
        super().setUp()
        self.copy("tests/package/abi", "cmake/linux-arm64.cmake")
        self.write("CMakeLists.txt", PROJECT)
        self.write("include/planted.h", HEADER)
        self.write("planted.cpp", SOURCE)
        self.assert_passes("tests/package/abi", "--accept")

    def test_FindsWhatChangedAfterTheBuild(self):
        self.assert_passes("tests/package/abi", says="the binary interface on arm64 is the stored one")
        faults = {
            "a function more": ("planted.cpp", "int CPlanted::Third", "int Planted() { return 4; }\nint CPlanted::Third"),
            "a field of another type": ("include/planted.h", "int m_nFirst", "long m_nFirst"),
            "virtual functions in another order": (
                "include/planted.h", "    virtual int First();\n    virtual int Second();\n",
                "    virtual int Second();\n    virtual int First();\n"),
            "a virtual function more": ("include/planted.h", "    int Third", "    virtual int Third"),
        }
        for name, (file, old, new) in faults.items():
            with self.subTest(name):
                before = (self.root / file).read_text()
                self.replace(file, old, new)
                self.assert_fails("tests/package/abi", says=CHANGED)
                self.write(file, before)
        self.assert_passes("tests/package/abi")

    def test_FailsWhenTheLibraryDoesNotBuild(self):
        self.write("planted.cpp", "#error planted\n")
        self.assert_fails("tests/package/abi", says="the library does not build in out/release")

    def test_FindsWhatDiffersOnArm64Alone(self):
        self.write("planted.cpp", SOURCE + "#if defined(__aarch64__)\nint Planted() { return 4; }\n#endif\n")
        self.assert_fails("tests/package/abi", says="the binary interface on arm64 has changed")


if __name__ == "__main__":
    unittest.main()
