"""The recipe for Conan 2: conan create tools/conan"""

import os
import re

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load


class KeltoUtilConan(ConanFile):
    name = "kelto_util"
    description = "Worker threads with event queues and timers, message blocks, tracing and configuration"
    package_type = "shared-library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"with_static": [True, False]}
    default_options = {"with_static": False}

    def set_version(self):
        header = load(self, os.path.join(self.recipe_folder, "../../include/CmVersion.h"))
        numbers = re.findall(r"#define CM_UTIL_VERSION_[A-Z]+ (\d+)", header)
        self.version = ".".join(numbers)

    def export_sources(self):
        root = os.path.join(self.recipe_folder, "../..")
        for pattern in ("CMakeLists.txt", "*.md", "cmake/*", "include/*", "source/*", "docs/*",
                        "build/mac/*", "examples/*", "tools/gdb/*", "tools/lldb/*"):
            copy(self, pattern, root, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["KELTO_BUILD_TESTS"] = False
        toolchain.cache_variables["KELTO_BUILD_EXAMPLES"] = False
        toolchain.cache_variables["KELTO_BUILD_STATIC"] = bool(self.options.with_static)
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    # The package has a CMake package of its own, which knows its targets.
    def package_info(self):
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = ["lib/cmake/kelto_util"]
