#!/usr/bin/env python3
"""Installs the build for Windows and looks at it as a stranger does: the list of files is exact,
projects in C and in C++ find the library through CMake and through pkg-config and run against the
DLL, and kvmp4.exe inspects, verifies and repairs real files, whose names are no ASCII.

    test_installed.py WINE SOURCES BUILD RECORDED.EXE
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

WINE, SOURCES, BUILD, RECORDED = sys.argv[1:5]
OUTSIDE = pathlib.Path(SOURCES) / "tests/install/outside"
TOOLCHAIN = pathlib.Path(SOURCES) / "cmake/toolchain-mingw64.cmake"
SYSTEM = {"KERNEL32.dll", "msvcrt.dll", "SHELL32.dll"}
FILES = {"README.md", "bin/kv_mp4.dll", "bin/kvmp4.exe", "include/kv_mp4.h",
         "lib/libkv_mp4.dll.a", "lib/kv_mp4.def", "lib/pkgconfig/kv_mp4.pc",
         "lib/cmake/kv_mp4/kv_mp4-config.cmake", "lib/cmake/kv_mp4/kv_mp4-config-version.cmake",
         "lib/cmake/kv_mp4/kv_mp4-targets.cmake",
         "lib/cmake/kv_mp4/kv_mp4-targets-release.cmake"}
NAME = "B\u00fchne \u20ac \U0001f3a5"


# wine takes names that are no ASCII in the locale's encoding.
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8"}


def run(*command, expected=0, env=ENVIRONMENT, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, timeout=200,
                            env=env, **options)
    text = result.stdout.decode().replace("\r\n", "\n")
    if result.returncode != expected:
        raise AssertionError(f"{command}: {result.returncode}, {text}{result.stderr.decode()}")
    return text


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tree.")
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.prefix = cls.folder / "kv"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def kvmp4(self, *arguments, expected=0):
        return run(WINE, self.prefix / "bin/kvmp4.exe", *arguments, expected=expected)

    def test_lays_down_these_files_and_no_others(self):
        found = {str(path.relative_to(self.prefix)) for path in self.prefix.rglob("*")
                 if not path.is_dir()}
        self.assertEqual(found, FILES)

    def test_needs_what_every_windows_has(self):
        for name, more in (("kv_mp4.dll", set()), ("kvmp4.exe", {"kv_mp4.dll"})):
            with self.subTest(name):
                listing = run("x86_64-w64-mingw32-objdump", "-p", self.prefix / "bin" / name)
                needed = set(re.findall(r"DLL Name: (.+)", listing))
                self.assertIn("KERNEL32.dll", needed)
                self.assertLessEqual(needed, SYSTEM | more)

    def test_lists_each_function_for_other_linkers(self):
        header = (self.prefix / "include/kv_mp4.h").read_text()
        names = re.findall(r"KV_MP4_API\s+[\w ]+?\**\s*\b((?:kv_)?mp4_\w+)\(", header)
        listed = re.findall(r"^\s+(\w+) @\d+", (self.prefix / "lib/kv_mp4.def").read_text(), re.M)
        self.assertEqual(len(names), 35)
        self.assertEqual(sorted(listed), sorted(names))

    def outside(self, name, build):
        """Runs a program of the outside project beside the DLL."""
        shutil.copy(self.prefix / "bin/kv_mp4.dll", build)
        return run(WINE, build / f"{name}.exe", *(["clip.mp4"] if name == "outside_c" else []),
                   cwd=build)

    def test_is_found_through_cmake(self):
        build = self.folder / "cmake"
        run("cmake", "-S", OUTSIDE, "-B", build, "-G", "Ninja",
            f"-DCMAKE_TOOLCHAIN_FILE={TOOLCHAIN}",
            f"-Dkv_mp4_DIR={self.prefix}/lib/cmake/kv_mp4")
        run("cmake", "--build", build)
        self.assertRegex(self.outside("outside_c", build), r"(?m)^0 failures$")
        # An exception passes from the DLL into the program.
        self.assertIn("the exception was caught", self.outside("outside_cpp", build))

    def test_is_found_through_pkg_config(self):
        build = self.folder / "pkg-config"
        build.mkdir()
        flags = run("pkg-config", "--cflags", "--libs", "kv_mp4",
                    env={**ENVIRONMENT, "PKG_CONFIG_LIBDIR": str(self.prefix / "lib/pkgconfig")})
        run("x86_64-w64-mingw32-gcc-posix", "-std=c11", OUTSIDE / "outside.c", *flags.split(),
            "-o", build / "outside_c.exe")
        self.assertRegex(self.outside("outside_c", build), r"(?m)^0 failures$")

    def record(self, plan):
        """A finished recording, and what a kill leaves, under names that are no ASCII."""
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        run(WINE, RECORDED, folder, plan)
        whole, dead = folder / f"{NAME}.mp4", folder / f"{NAME} dead.mp4"
        (folder / plan).rename(whole)
        (folder / f"dead{plan}").rename(dead)
        (folder / f"dead{plan}.info").rename(f"{dead}.info")
        return whole, dead

    def test_kvmp4_reads_and_repairs(self):
        whole, dead = self.record("f16v0a1.mp4")
        self.assertIn("moov", self.kvmp4("inspect", whole))
        self.assertIn("video", self.kvmp4("inspect", f"{dead}.info"))
        verdict = json.loads(self.kvmp4("verify", "--json", whole))
        self.assertEqual([finding for finding in verdict["findings"]
                          if finding["severity"] == "error"], [])
        report = json.loads(self.kvmp4("repair", "--json", "--backup", "--delete-log", dead))
        self.assertEqual(report["action"], "repaired")
        self.assertEqual(report["path"].replace("\\", "/"), str(dead))
        self.assertFalse(pathlib.Path(f"{dead}.info").exists())
        self.assertTrue(pathlib.Path(f"{dead}.bak.info").exists())
        # The index lies over as many bytes of the last sample as the time codes take.
        kept = report["found"]["keeps"]["samples"]
        self.assertEqual(report["found"]["loses"]["broken_samples"], {"video": 1})
        self.assertEqual(report["saved"]["samples"], {**kept, "video": kept["video"] - 1})
        verdict = json.loads(self.kvmp4("verify", "--json", dead, expected=12))
        self.assertEqual([(finding["code"], finding["found"].split(" at ")[0])
                          for finding in verdict["findings"] if finding["severity"] == "error"],
                         [("sample-outside-mdat", "sample 60")])

    def test_kvmp4_refuses_as_elsewhere(self):
        whole, dead = self.record("f16v1a0.mp4")
        self.kvmp4("verify", self.folder / "none.mp4", expected=3)
        self.kvmp4("repair", whole, expected=7)
        before = dead.read_bytes()
        self.kvmp4("repair", "--dry-run", dead)
        self.assertEqual(dead.read_bytes(), before)
        self.kvmp4("record", expected=2)  # there is none without FFmpeg's libraries
        self.assertIn("1.0", self.kvmp4("--version"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
