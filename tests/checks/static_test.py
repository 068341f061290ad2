"""The checks that read or compile sources, over small projects."""

import unittest

from planted import ROOT, Planted

PRESETS = """{"version": 6, "configurePresets": [{"name": "clang", "generator": "Ninja",
"binaryDir": "${sourceDir}/out/${presetName}", "cacheVariables": {"CMAKE_CXX_COMPILER": "clang++"}}],
"buildPresets": [{"name": "clang", "configurePreset": "clang"}]}
"""
PROJECT = """cmake_minimum_required(VERSION 3.22)
project(planted LANGUAGES CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_STANDARD 17)
file(GLOB_RECURSE sources source/*.cpp tests/*.cpp examples/*.cpp bench/*.cpp fuzz/*.cpp)
add_library(planted OBJECT ${sources})
target_include_directories(planted PRIVATE include)
target_compile_options(planted PRIVATE -Wall -Wextra -Wthread-safety -Werror)
add_custom_target(kelto_headers)
"""
DIRECTORIES = ("source/util", "tests", "tests/support", "examples", "bench", "fuzz/targets")
GOOD = "int Planted() {\n    return 1;\n}\n"


class WithRun(Planted):
    """.ci/run over a project with a source in each directory."""

    def setUp(self):
        super().setUp()
        self.copy(".ci", ".clang-format", ".clang-tidy", "tests/.clang-tidy", "fuzz/.clang-tidy",
                  "bench/.clang-tidy", "tools/build.sh", "tools/packages.sh")
        self.write("tools/packages.sh", (self.root / "tools/packages.sh").read_text() +
                   "kelto_need() { :; }\nkelto_need_header() { :; }\nkelto_add() { :; }\n")
        self.write("CMakePresets.json", PRESETS)
        self.write("CMakeLists.txt", PROJECT)
        for number, name in enumerate(DIRECTORIES):
            self.write(f"{name}/Planted.cpp", f"int Planted{number}();\n" + GOOD.replace("()", f"{number}()"))

    def assert_found_everywhere(self, step, text, says):
        self.assert_passes(".ci/run", step, says="\n1 passed, 0 failed")
        for name in DIRECTORIES:
            with self.subTest(name):
                self.write(f"{name}/Fault.cpp", text)
                self.assert_fails(".ci/run", step, says=says)
                (self.root / f"{name}/Fault.cpp").unlink()

    def test_FormatIsSeen(self):
        self.assert_found_everywhere("format", "int   Planted() { return 1; }\n", "clang-format-violations")

    def test_LintIsSeen(self):
        fault = ("#include <utility>\n#include <string>\nsize_t Fault(std::string aText);\n"
                 "size_t Fault(std::string aText) {\n    const std::string other = std::move(aText);\n"
                 "    return other.size() + aText.size();\n}\n")
        self.assert_found_everywhere("lint", fault, "[bugprone-use-after-move")

    def test_LintOfHeadersIsSeen(self):
        self.write("include/Fault.h", "#pragma once\ninline const int Fault(int aNumber) {\n"
                                      "    return aNumber;\n}\n")
        self.write("source/util/Planted.cpp", '#include "Fault.h"\n')
        self.assert_fails(".ci/run", "lint", says="[readability-const-return-type")

    def test_LintNeedsACommand(self):
        self.write("CMakeLists.txt", "message(FATAL_ERROR planted)\n")
        self.assert_fails(".ci/run", "lint", says="FAILED: lint")

    def test_WarningsOfClangAreSeen(self):
        self.assert_passes(".ci/run", "clang", says="\n1 passed, 0 failed")
        self.write("source/util/Planted.cpp", "int Planted(int aUnused) {\n    return 1;\n}\n")
        self.assert_fails(".ci/run", "clang", says="[-Werror,-Wunused-parameter]")
        self.copy("include/CmThreadAnnotations.h")
        self.write("source/util/Planted.cpp", """#include "CmThreadAnnotations.h"
struct CM_CAPABILITY("mutex") CLock {
    void Lock() CM_ACQUIRE();
};
CLock g_lock;
void Planted() { g_lock.Lock(); }
""")
        self.assert_fails(".ci/run", "clang", says="is still held at the end of function")


class Analysis(Planted):
    def setUp(self):
        super().setUp()
        self.copy(".ci/checks/analysis")
        self.write(".ci/checks/analysis.suppressions", "")
        self.write("include/CmPlanted.h", "#pragma once\n")
        self.write("source/qtrace/Planted.cpp", "#include <cstdlib>\n" + GOOD)
        (self.root / "source/util").mkdir()

    def test_FindsWhatCppcheckSays(self):
        self.assert_passes(".ci/checks/analysis")
        self.write("source/util/Planted.cpp",
                   "int Planted(int a) {\n    int values[2] = {a, 2};\n    return values[2];\n}\n")
        self.assert_fails(".ci/checks/analysis", says="[arrayIndexOutOfBounds]")

    def test_FindsWhatTheAnalyzerSays(self):
        self.write("source/util/Planted.cpp", """#include <cstdlib>
int Planted();
int Planted() {
    int* pNumber = static_cast<int*>(std::malloc(sizeof(int)));
    if (pNumber == nullptr) {
        return 0;
    }
    *pNumber = std::rand();
    std::free(pNumber);
    return *pNumber;
}
""")
        self.assert_fails(".ci/checks/analysis", says="[-Werror=analyzer-use-after-free]")

    def test_FindsASuppressionThatNothingNeeds(self):
        self.write(".ci/checks/analysis.suppressions", "zerodiv:source/qtrace/Planted.cpp\n")
        self.assert_fails(".ci/checks/analysis", says="unmatchedSuppression")


class Headers(Planted):
    def test_NamesOutsideTheNamespaceAreFound(self):
        self.copy("tests/headers/names", "cmake/exports.txt")
        faults = {
            "#define PLANTED 1\n": "macro PLANTED",
            "int Planted();\n": "FunctionDecl Planted",
            "namespace planted { int Planted(); }\n": "NamespaceDecl planted",
            "namespace UTIL_NS { class A { class P; }; class B { class P; }; }\n": "private type P: in ::A, ::B",
        }
        self.write("include/CmGood.h", "#define CM_GOOD\nnamespace UTIL_NS { int Good(); class A { class P; }; }\n")
        self.assert_passes("tests/headers/names", "include/CmGood.h")
        for number, (text, says) in enumerate(faults.items()):
            with self.subTest(says):
                self.write(f"include/CmFault{number}.h", text)
                self.assert_fails("tests/headers/names", f"include/CmFault{number}.h", says=says)

    def test_WhatDoesNotCompileAloneIsFound(self):
        self.copy("tests/headers", "cmake/KeltoCompileOptions.cmake")
        self.write("CMakeLists.txt", """cmake_minimum_required(VERSION 3.22)
project(planted LANGUAGES CXX)
include(cmake/KeltoCompileOptions.cmake)
find_package(Python3 REQUIRED COMPONENTS Interpreter)
enable_testing()
add_subdirectory(tests/headers)
""")
        test = ("ctest", "--test-dir", "build", "--no-tests=error", "--output-on-failure",
                "-R", "CompileAlone")
        faults = {
            "once": ("#pragma once\ninline std::string Fault();\n", "std"),
            "twice": ("inline int Fault() { return 1; }\n", "redefinition"),
            "before a macro": ("#pragma once\ntypedef unsigned int DWORD;\n", "declaration"),
            "in C++20": ("#pragma once\nstruct CFault { bool operator==(int aNumber); };\n"
                         "inline int requires = 1;\n", "requires"),
            "without a warning": ("#pragma once\ninline int Fault(int aUnused) { return 1; }\n",
                                  "unused-parameter"),
        }
        self.write("include/CmGood.h", "#pragma once\ninline int Good() { return 1; }\n")
        self.assert_passes("cmake", "-S", ".", "-B", "build", "-G", "Ninja")
        self.assert_passes(*test)
        for name, (text, says) in faults.items():
            with self.subTest(name):
                self.write("include/CmFault.h", text)
                self.assert_fails(*test, says=says)

    def test_WhatIsSeenTooMuchIsFound(self):
        self.copy("tests/headers/seen.py", "include")
        command = ("python3", "tests/headers/seen.py", "g++", ".")
        self.assert_passes(*command)
        for file, text, says in (
                ("include/CmMessageBlock.h", "#include <sys/socket.h>\n", "CmMessageBlock.h: brings sys/socket.h"),
                ("include/CmPlatform.h", "#define CM_FAULT\n", "CmPlatform.h: macro CM_FAULT"),
                ("include/CmPlatform.h", "struct CmConditionSemaphore;\n", "another platform's semaphore")):
            with self.subTest(says):
                before = (self.root / file).read_text()
                self.write(file, before + text)
                self.assert_fails(*command, says=says)
                self.write(file, before)


class Objects(Planted):
    """What is read from objects and libraries."""

    def test_CallsOnNoListAreFound(self):
        self.copy("tests/calls", "tests/System_faults_test.cpp", "tests/CmBlockPool_start_test.cpp",
                  "tests/CmFlight_file_test.cpp", "tests/CmFlight_start_test.cpp",
                  "tests/CmPortLinux_test.cpp")
        self.write("good.cpp", "#include <unistd.h>\nint Good() { return getpid(); }\n")
        self.write("fault.cpp", "#include <unistd.h>\n#include <fcntl.h>\n"
                                "int Fault() { return open(\"/\", 0); }\n")
        self.write("stranger.cpp", "#include <unistd.h>\nint Fault() { return vfork(); }\n")
        for name in ("good", "fault", "stranger"):
            self.assert_passes("g++", "-fPIC", "-c", f"{name}.cpp", "-o", f"{name}.cpp.o", "-w")
            self.assert_passes("g++", "-shared", f"{name}.cpp.o", "-o", f"{name}.so")

        def command(name):
            return ("python3", "tests/calls/calls.py", "--nm", "nm", "--library", f"{name}.so",
                    f"{name}.cpp.o")
        self.assert_passes(*command("good"))
        self.assert_fails(*command("fault"), says="open: called directly by fault.cpp.o")
        self.assert_fails(*command("stranger"), says="vfork: not in calls.txt")
        self.replace("tests/calls/calls.txt", "getpid", "getppid fails\ngetpid")
        self.assert_fails(*command("good"), says="getppid: no row makes it fail")

    def test_AnotherLayoutIsFound(self):
        self.copy("tests/layout/layout.py")
        header = "namespace UTIL_NS {{ struct CBase {{ virtual ~CBase(); }};\nclass CPlanted : public CBase {{ public: {} }}; }}\n"
        expected = "class CPlanted\nbase CBase\nvirtual 2 First\nvirtual 3 Second\nfield m_nOne 4\nfield m_achTwo 8\n"
        right = "virtual int First(); virtual int Second(); int m_nOne; char m_achTwo[8];"
        self.write("expected.txt", expected)
        faults = [
            "virtual int Second(); virtual int First(); int m_nOne; char m_achTwo[8];",
            "virtual int First(); virtual int Second(); char m_achTwo[8]; int m_nOne;",
            "virtual int First(); virtual int Second(); long m_nOne; char m_achTwo[8];",
            right + " int m_nThree;", right + " virtual int Third();", "int m_nOne;",
        ]

        def command(text):
            self.write("layout.cpp", header.format(text) + "UTIL_NS::CPlanted* g_pPlanted;\nvoid Use() { g_pPlanted->~CPlanted(); }\n")
            self.assert_passes("g++", "-g", "-gdwarf-4", "-femit-class-debug-always", "-c", "layout.cpp",
                               "-o", "layout.o")
            return ("python3", "tests/layout/layout.py", "--readelf", "readelf", "--processor", "x86_64",
                    "--object", "layout.o", "expected.txt")
        self.assert_passes(*command(right))
        for text in faults:
            with self.subTest(text):
                self.assert_fails(*command(text), says="CPlanted")


if __name__ == "__main__":
    unittest.main()
