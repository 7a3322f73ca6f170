#!/usr/bin/env python3
"""The worked example of docs/info-file.md is true: its program is compiled and run, its log is the one
of the table, and the repair does what the page says.

    test_info_file.py SOURCES FOLDER_OF_THE_LIBRARY
"""
import ctypes
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

SOURCES, LIBRARY = map(pathlib.Path, sys.argv[1:3])
PAGE = (SOURCES / "docs/info-file.md").read_text()


def rows():
    """Offset and bytes of each row of the example's table."""
    return [(int(offset), bytes.fromhex(text)) for offset, text in
            re.findall(r"^\| (\d+) \| `((?:[0-9a-f]{2} ?)+)` \|", PAGE, re.MULTILINE)]


class Example(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        source = cls.folder / "dies.c"
        source.write_text(PAGE.split("```c\n")[1].split("```")[0])
        subprocess.run([os.environ.get("CC", "cc"), "-std=c11", "-Wall", "-Wextra", "-Werror", source,
                        f"-I{SOURCES}/include", f"-L{LIBRARY}", f"-Wl,-rpath,{LIBRARY}", "-lkv_mp4",
                        "-o", cls.folder / "dies"], check=True)
        cls.code = subprocess.run([cls.folder / "dies"], cwd=cls.folder, capture_output=True,
                                  timeout=60).returncode
        cls.media = cls.folder / "take.mp4"

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def test_the_program_dies_where_it_says(self):
        self.assertEqual(self.code, 1)

    def test_the_table_has_no_gap(self):
        end = 0
        for offset, data in rows():
            self.assertEqual(offset, end)
            end += len(data)
        self.assertEqual(end, 5 + 37 + 19 + 6 + 18 + (14 + 6 + 7) + 5 + 22 + 13 + 13 + 22)

    def test_the_log_is_the_one_of_the_table(self):
        log = (self.folder / "take.mp4.info").read_bytes()
        for offset, data in rows():
            self.assertEqual(log[offset:offset + len(data)], data, offset)
        self.assertEqual(log, b"".join(data for _, data in rows()))

    def test_the_repair_ends_the_media_where_the_page_says(self):
        before = self.media.read_bytes()
        self.assertEqual(len(before), 44 + 4 + 6 + 3 + 10 + 6)
        library = ctypes.CDLL(str(LIBRARY / "libkv_mp4.so.1"))
        self.assertEqual(library.mp4_repair_file_ex(str(self.media).encode(), 0), 0)
        after = self.media.read_bytes()
        self.assertEqual(after[36:44], (27).to_bytes(4, "big") + b"mdat")
        self.assertEqual(after[44:63], before[44:63])
        self.assertEqual(after[67:71], b"moov")
        self.assertEqual(int.from_bytes(after[63:67], "big"), len(after) - 63)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
