#!/usr/bin/env python3
"""What debian/ says twice: the version, the names that the library shows, and what the build needs.
scripts/packages builds the packages themselves.

    test_packages.py SOURCES VERSION
"""
import pathlib
import re
import subprocess
import sys
import unittest

SOURCES, VERSION = pathlib.Path(sys.argv[1]), sys.argv[2]


def text(path):
    return (SOURCES / path).read_text()


class Packages(unittest.TestCase):
    def test_the_changelog_begins_with_the_projects_version(self):
        self.assertEqual(re.match(r"kv-mp4 \((\S+)\) ", text("debian/changelog"))[1], VERSION)

    def test_the_symbols_file_names_what_the_linker_shows(self):
        shown = re.findall(r"^ {8}(\w+);$", text("packaging/kv_mp4.map"), re.MULTILINE)
        self.assertEqual(len(shown), 35 + 2)  # and the two of the exception's type
        listed = re.findall(r"^ (\w+)@KV_MP4_1 [\d.]+$", text("debian/libkv-mp4-1.symbols"),
                            re.MULTILINE)
        self.assertEqual(sorted(listed), sorted(shown + ["KV_MP4_1"]))

    def test_what_the_packages_are_built_with_is_set_up(self):
        needed = text("debian/control").split("Build-Depends:")[1].split("Rules-Requires")[0]
        needed = set(re.findall(r"^ ([\w.+-]+)", needed, re.MULTILINE)) - {"debhelper-compat"}
        self.assertGreater(len(needed), 5)
        script = "dpkg-query() { :; }; sudo() { :; }; command() { return 1; }; id() { echo 1; }; "
        told = subprocess.run(["bash", "-c", script + text("scripts/setup"), "setup", "packages"],
                              capture_output=True, text=True).stderr
        self.assertEqual(needed - set(told.split()), set(), told)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
