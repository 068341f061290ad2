"""The checks that build and run, over small projects in the place of the library."""

import unittest

from planted import Planted

PROGRAMS = {
    "asan": {
        "use after free": ("int* p = new int(aCount); delete p; return *p;", "heap-use-after-free"),
        "leak": ("volatile auto p = new int(aCount); p = nullptr; return p != nullptr;", "detected memory leaks"),
        "overflow": ("return (2147483647 + aCount) == 7;", "signed integer overflow"),
    },
    "tsan": {
        "race": ("int n = aCount; std::thread other([&] { ++n; }); ++n; other.join(); return n == 7;",
                 "data race"),
        "order of locks": (
            "std::mutex a, b; std::thread([&] { a.lock(); b.lock(); b.unlock(); a.unlock(); }).join(); "
            "std::thread([&] { b.lock(); a.lock(); a.unlock(); b.unlock(); }).join(); return aCount == 7;",
            "lock-order-inversion"),
    },
}
PROGRAM = """#include <mutex>
#include <thread>
int Run(int aCount);
int Run(int aCount) { %s }
int main(int aCount, char**) { return Run(aCount); }
"""
PROJECT = """cmake_minimum_required(VERSION 3.22)
project(planted LANGUAGES CXX)
set(KELTO_SANITIZE "" CACHE STRING "")
set(KELTO_WERROR OFF CACHE STRING "")
set(KELTO_COVERAGE OFF CACHE STRING "")
find_package(Threads REQUIRED)
include(cmake/KeltoCompileOptions.cmake)
enable_testing()
"""


class Sanitizers(Planted):
    def setUp(self):
        super().setUp()
        self.copy(".ci", "tools/build.sh", "tools/packages.sh", "CMakePresets.json",
                  "cmake/KeltoCompileOptions.cmake", "cmake/linux-arm64.cmake")
        self.write("tools/packages.sh", (self.root / "tools/packages.sh").read_text() +
                   "kelto_need() { :; }\nkelto_need_header() { :; }\nkelto_add() { :; }\n")

    def test_EachKindOfFaultEndsAProgram(self):
        for step, faults in PROGRAMS.items():
            text = PROJECT
            for number, (body, _) in enumerate([("return aCount == 7;", ""), *faults.values()]):
                self.write(f"{step}{number}.cpp", PROGRAM % body)
                text += (f"add_executable(p{number} {step}{number}.cpp)\n"
                         f"target_link_libraries(p{number} kelto_compile_options Threads::Threads)\n"
                         f"add_test(NAME p{number} COMMAND p{number})\n")
            self.write("CMakeLists.txt", text)
            self.assert_fails(".ci/run", step, says=f"\n1 passed, {len(faults)} failed, 0 skipped\n")
            log = (self.root / f"out/ci/{step}.log").read_text()
            for name, (_, says) in faults.items():
                with self.subTest(name):
                    self.assertIn(says, log)

    def test_FailsWhenTheBuildFails(self):
        self.write("CMakeLists.txt", "message(FATAL_ERROR planted)\n")
        self.assert_fails(".ci/run", "asan", says="FAILED: asan")


class Reproducible(Planted):
    def test_PathsInALibraryAreFound(self):
        self.copy("tests/package/reproducible")
        for name in ("cmake/a", "include/a", "source/a", "docs/a", "tools/a", "README.md", "CHANGELOG.md"):
            self.write(name, "")
        self.write("planted.cpp.in", "const char* Planted() { return TEXT; }\n")
        self.write("CMakeLists.txt", """cmake_minimum_required(VERSION 3.22)
project(planted LANGUAGES CXX)
file(STRINGS README.md with)
file(WRITE ${CMAKE_BINARY_DIR}/a.cpp "const char* Planted() { return \\"${with}\\"; }\\n")
if(with STREQUAL path)
  file(APPEND ${CMAKE_BINARY_DIR}/a.cpp "const char* Path() { return \\"${PROJECT_SOURCE_DIR}\\"; }\\n")
endif()
foreach(name kelto_util qtrace)
  foreach(kind SHARED STATIC)
    add_library(${name}${kind} ${kind} ${CMAKE_BINARY_DIR}/a.cpp)
    target_compile_options(${name}${kind} PRIVATE -g0)
    set_target_properties(${name}${kind} PROPERTIES OUTPUT_NAME ${name} VERSION 1.0.0 SOVERSION 1)
    string(REPLACE kelto_util util directory source/${name})
    set_target_properties(${name}${kind} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${directory}
      ARCHIVE_OUTPUT_DIRECTORY ${directory})
  endforeach()
endforeach()
file(WRITE ${CMAKE_BINARY_DIR}/main.cpp "int main() {}\\n")
foreach(name kelto-flight kelto-top)
  add_executable(${name} ${CMAKE_BINARY_DIR}/main.cpp)
  target_compile_options(${name} PRIVATE -g0)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY source/programs)
endforeach()
""")
        self.assert_passes("tests/package/reproducible", says="6 libraries and programs are identical")
        self.write("README.md", "path\n")
        self.assert_fails("tests/package/reproducible", says="differ")


class Debian(Planted):
    def test_SaysWhyItIsSkipped(self):
        self.copy("tests/package/debian")
        for tool in ("bash", "dirname", "mktemp", "env"):
            self.script(f"bin/{tool}", f'exec $(PATH=/usr/bin:/bin command -v {tool}) "$@"')
        status, said = self.run_in("/bin/bash", "tests/package/debian", PATH=str(self.root / "bin"))
        self.assertEqual((status, said), (77, "skipped: there is no dpkg to install packages with\n"))
        self.script("bin/dpkg")
        self.script("bin/id", "echo 1000")
        status, said = self.run_in("/bin/bash", "tests/package/debian", PATH=str(self.root / "bin"))
        self.assertEqual((status, said), (77, "skipped: installing packages takes root\n"))


class Recipes(Planted):
    def test_AnotherVersionIsFound(self):
        self.copy("tests/package/recipes", "tools/vcpkg", "include/CmVersion.h")
        version = (self.root / "tools/vcpkg/vcpkg.json").read_text()
        self.write("tools/vcpkg/vcpkg.json", version.replace('"version": "', '"version": "9'))
        self.assert_fails("tests/package/recipes", says="recipes: vcpkg.json says")

    def test_WhatDoesNotInstallIsFound(self):
        self.copy("tests/package/recipes", "tools/vcpkg", "include/CmVersion.h")
        self.write("CMakeLists.txt", "cmake_minimum_required(VERSION 3.22)\nproject(planted NONE)\n"
                                     "install(FILES include/CmVersion.h DESTINATION include)\n")
        self.assert_fails("tests/package/recipes", says="recipes: ")


class Coverage(Planted):
    """tools/coverage over a library of two functions, one of which has a branch."""

    def setUp(self):
        super().setUp()
        self.copy("tools/coverage", "tools/build.sh", "tools/unexecuted.py", "CMakePresets.json",
                  "cmake/KeltoCompileOptions.cmake", "cmake/linux-arm64.cmake")
        self.write("include/a.h", "#pragma once\nint First(int aNumber);\nint Second();\n")
        self.write("source/util/a.cpp", '#include "a.h"\nint First(int aNumber) {\n'
                   "    if (aNumber == 1) {\n        return 2;\n    }\n    return 3;\n}\n"
                   "int Second() { return 4; }\n")
        self.write("tests/A_test.cpp", '#include "a.h"\nint main() { return First(1) + First(2) + Second() - 9; }\n')
        self.write("CMakeLists.txt", PROJECT + """
include_directories(include)
add_library(kelto_util SHARED source/util/a.cpp)
set_target_properties(kelto_util PROPERTIES LIBRARY_OUTPUT_DIRECTORY source/util)
add_executable(A_test tests/A_test.cpp source/util/a.cpp)
set_target_properties(A_test PROPERTIES RUNTIME_OUTPUT_DIRECTORY tests)
target_link_libraries(kelto_util PRIVATE kelto_compile_options)
target_link_libraries(A_test PRIVATE kelto_compile_options)
add_custom_target(kelto_test_programs DEPENDS A_test)
add_test(NAME A COMMAND A_test)
set_tests_properties(A PROPERTIES LABELS program)
""")

    def test_WhatIsBelowAFloorOrNotExecutedIsFound(self):
        command = ("tools/coverage", "--clang", "95", "90")
        self.assert_passes(*command, says="lines 100.00% (floor 95%), branches 100.00% (floor 90%)")
        self.replace("tests/A_test.cpp", "First(1) + First(2) + Second()", "First(1) + First(1) + Second() + 1")
        self.assert_fails(*command, says="branches 50.00%")
        self.assert_fails("tools/coverage", "--clang", "95", "40", says="lines 85.71%")
        self.assert_passes("tools/coverage", "--clang", "80", "40")
        self.replace("tests/A_test.cpp", "Second() + 1", "5")
        self.assert_fails("tools/coverage", "--clang", "10", "10", says="never executed: Second()")


class Fuzz(Planted):
    """fuzz/run and the check of it, over two targets."""

    def setUp(self):
        super().setUp()
        self.copy(".ci/checks/fuzz", "fuzz/run", "CMakePresets.json", "cmake/linux-arm64.cmake")
        target = ('#include <cstddef>\n#include <cstdint>\n#include <cstdlib>\n'
                  'extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);\n'
                  'extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {\n'
                  "    if (aSize > 1 && aData[0] == 'f') { %s }\n    return 0;\n}\n")
        self.write("fuzz/targets/good.cpp", target % "return 0;")
        self.fault = target % "std::abort();"
        self.write("fuzz/targets/other.cpp", target % "return 0;")
        for name in ("good", "other"):
            self.write(f"fuzz/corpus/{name}/1", "x")
        self.project = """cmake_minimum_required(VERSION 3.22)
project(planted LANGUAGES CXX)
add_custom_target(fuzz_targets)
foreach(name good other)
  add_executable(fuzz_${name} fuzz/targets/${name}.cpp)
  set_target_properties(fuzz_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY fuzz)
  target_compile_options(fuzz_${name} PRIVATE -fsanitize=${KELTO_SANITIZE})
  target_link_options(fuzz_${name} PRIVATE -fsanitize=address,undefined,fuzzer)
  add_dependencies(fuzz_targets fuzz_${name})
endforeach()
"""
        self.write("CMakeLists.txt", self.project)

    def test_ACrashIsFound(self):
        self.assert_passes(".ci/checks/fuzz", says="every target stood 20000 fresh runs")
        self.write("fuzz/targets/other.cpp", self.fault)
        self.assert_fails(".ci/checks/fuzz", says="fuzz: other failed")

    def test_APeerThatIsMissingIsFound(self):
        self.write("CMakeLists.txt", self.project +
                   'message(STATUS "fuzz: GLIB (glib-2.0) was not found; nothing is compared with it")\n')
        self.assert_fails(".ci/checks/fuzz", says="nothing is compared with it")

    def test_ATargetThatIsNotBuiltIsFound(self):
        self.write("fuzz/targets/third.cpp", self.fault)
        self.write("fuzz/corpus/third/1", "x")
        self.assert_fails(".ci/checks/fuzz", says="fuzz: third failed")


if __name__ == "__main__":
    unittest.main()
