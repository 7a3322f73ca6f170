#!/usr/bin/env python3
"""Configures every preset and looks at what the build then is.

    test_presets.py SOURCES
"""
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(sys.argv[1])
PRESETS = {
    "dev": {"CMAKE_BUILD_TYPE": "RelWithDebInfo", "KV_MP4_WERROR": "ON",
            "KV_MP4_BUILD_TESTS": "ON", "KV_MP4_BUILD_TOOLS": "ON", "KV_MP4_BUILD_BENCH": "ON"},
    "release": {"CMAKE_BUILD_TYPE": "Release", "KV_MP4_BUILD_TOOLS": "ON",
                "KV_MP4_BUILD_TESTS": "OFF", "KV_MP4_WERROR": "OFF", "KV_MP4_DURABLE": "ON"},
    "asan": {"KV_MP4_SANITIZE": "address,undefined", "KV_MP4_BUILD_TESTS": "ON"},
    "tsan": {"KV_MP4_SANITIZE": "thread", "KV_MP4_BUILD_TESTS": "ON"},
    "fuzz": {"KV_MP4_BUILD_FUZZ": "ON", "KV_MP4_DURABLE": "OFF"},
    "windows": {"CMAKE_BUILD_TYPE": "Release", "KV_MP4_BUILD_TOOLS": "ON",
                "KV_MP4_BUILD_TESTS": "ON", "KV_MP4_WITH_FFMPEG": "OFF", "KV_MP4_WERROR": "ON"},
    "coverage": {"KV_MP4_COVERAGE": "ON", "KV_MP4_BUILD_TESTS": "ON",
                 "CMAKE_BUILD_TYPE": "Debug"},
}


class Presets(unittest.TestCase):
    def test_there_are_these_and_no_others(self):
        presets = json.loads((SOURCES / "CMakePresets.json").read_text())
        shown = {preset["name"] for preset in presets["configurePresets"]
                 if not preset.get("hidden")}
        self.assertEqual(shown, set(PRESETS))
        self.assertEqual({preset["name"] for preset in presets["buildPresets"]}, shown)

    def configured(self, name):
        """The cache of a preset's build. An option that has gone leaves a warning."""
        with tempfile.TemporaryDirectory() as build:
            result = subprocess.run(["cmake", "--preset", name, "-B", build],
                                    cwd=SOURCES, capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertNotIn("not used by the project", result.stderr)
            cache = subprocess.run(["cmake", "-LA", "-N", build], check=True,
                                   capture_output=True, text=True).stdout
        return {line.partition(":")[0]: line.partition("=")[2] for line in cache.splitlines()}

    def test_each_makes_the_build_that_it_names(self):
        for name, options in PRESETS.items():
            compiler = {"fuzz": "clang++", "windows": "x86_64-w64-mingw32-g++-posix"}.get(name)
            if compiler and not shutil.which(compiler):
                continue
            with self.subTest(name):
                cache = self.configured(name)
                self.assertEqual({option: cache.get(option) for option in options}, options)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
