# SPDX-License-Identifier: Apache-2.0
"""Conan 2: `conan create integration/conan`. libmnl and libpcap come from the system, or from Conan's own recipes."""

import os
import re

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeToolchain
from conan.tools.files import copy, load


class Wirl(ConanFile):
    name = "wirl"
    license = "Apache-2.0"
    description = "Networking foundation for the agents of a network operating system"
    settings = "os", "arch", "compiler", "build_type"
    options = {"filters": [True, False], "views": [True, False], "toggles": [True, False]}
    default_options = {"filters": True, "views": True, "toggles": True}
    package_type = "shared-library"

    def set_version(self):
        lists = load(self, os.path.join(self.recipe_folder, "..", "..", "CMakeLists.txt"))
        self.version = re.search(r"project\(Wirl VERSION ([0-9.]+)", lists).group(1)

    def validate(self):
        if self.settings.os != "Linux":
            from conan.errors import ConanInvalidConfiguration

            raise ConanInvalidConfiguration("libWirl runs on Linux")

    def export_sources(self):
        root = os.path.join(self.recipe_folder, "..", "..")
        for what in ("CMakeLists.txt", "LICENSE", "Kiv/*", "Optra/*", "Nimbo/*", "Wirl/*", "cmake/*", "integration/*"):
            copy(self, what, root, self.export_sources_folder)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.variables["WIRL_BUILD_TESTS"] = False
        toolchain.variables["WIRL_BUILD_EXAMPLES"] = False
        toolchain.variables["WIRL_WITH_FILTERS"] = bool(self.options.filters)
        toolchain.variables["WIRL_WITH_VIEWS"] = bool(self.options.views)
        toolchain.variables["WIRL_WITH_TOGGLES"] = bool(self.options.toggles)
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        # The library's own CMake package is used: it knows both targets.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [os.path.join("lib", "cmake", "Wirl")]
        self.cpp_info.libs = ["Wirl"]
