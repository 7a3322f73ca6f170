#!/usr/bin/env python3
"""The library against the baseline of what it promises (scripts/abi), and copies of it that break the
promise, which must be noticed.

    test_abi.py SOURCES BUILD LIBRARY
"""
import json
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import unittest

SOURCES, BUILD, LIBRARY = map(pathlib.Path, sys.argv[1:4])
MAP = SOURCES / "packaging/kv_mp4.map"


def compared(library):
    """The gate's exit code and what it says."""
    result = subprocess.run([SOURCES / "scripts/abi", library], capture_output=True, text=True,
                            timeout=120)
    return result.returncode, result.stdout + result.stderr


def replaced(text, old, new):
    if text.count(old) != 1:
        raise AssertionError(f"{text.count(old)} times: {old}")
    return text.replace(old, new)


class Baseline(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)

    def copy(self, in_header=("", ""), in_source=("", ""), in_map=("", ""), soname="libkv_mp4.so.1"):
        """The library again, with a text replaced in its header, its front end or its names."""
        for path, change in (("include/kv_mp4.h", in_header), ("src/kv_mp4.cpp", in_source),
                             ("packaging/kv_mp4.map", in_map)):
            text = (SOURCES / path).read_text()
            (self.folder / path.split("/")[1]).write_text(
                replaced(text, *change) if change[0] else text)
        commands = json.loads((BUILD / "compile_commands.json").read_text())
        command = next(shlex.split(entry["command"]) for entry in commands
                       if entry["file"].endswith("src/kv_mp4.cpp") and
                       "described" in entry["command"])
        compiler = next(i for i, word in enumerate(command) if word.startswith("-"))
        flags = [word for word in command[compiler:] if word.startswith("-") and
                 word not in ("-o", "-c")]
        front = self.folder / "kv_mp4.o"
        subprocess.run([*command[:compiler], f"-I{self.folder}", *flags, "-c",
                        self.folder / "kv_mp4.cpp", "-o", front], check=True)
        rest = [path for path in BUILD.glob("src/CMakeFiles/kv_mp4_objects.dir/*.o")
                if path.name not in ("mp4.cpp.o", "kv_mp4.cpp.o")]
        rest += BUILD.glob("tests/CMakeFiles/kv_mp4_described.dir/**/src/mp4.cpp.o")
        library = self.folder / soname
        subprocess.run([os.environ.get("CXX", "c++"), "-shared", f"-Wl,-soname,{soname}",
                        f"-Wl,--version-script={self.folder}/kv_mp4.map", "-o", library, front,
                        *rest, "-lspdlog", "-lfmt"], check=True)
        return library

    def test_the_library_keeps_its_promise(self):
        self.assertEqual(compared(LIBRARY), (0, ""))

    def test_so_does_a_copy_in_which_nothing_changed(self):
        self.assertEqual(compared(self.copy()), (0, ""))

    def test_a_wider_field_is_noticed(self):
        code, said = compared(self.copy(
            in_header=("    uint16_t channels;    /**< channel count */\n    uint8_t object_type;  ",
                       "    uint32_t channels;    /**< channel count */\n    uint8_t object_type;  "),
            in_source=("    full.channels = info->channels",
                       "    full.channels = uint16_t(info->channels)")))
        self.assertEqual(code, 4, said)
        self.assertIn("size changed from 128 to 160", said)

    def test_another_parameter_is_noticed(self):
        code, said = compared(self.copy(
            in_header=("kv_mp4_repair(const char *path, uint8_t option)",
                       "kv_mp4_repair(const char *path, uint32_t option)"),
            in_source=("uint32_t kv_mp4_repair(const char* path, uint8_t option)\n{",
                       "uint32_t kv_mp4_repair(const char* path, uint32_t wide)\n{\n"
                       "    const auto option = uint8_t(wide);")))
        self.assertEqual(code, 4, said)
        self.assertIn("kv_mp4_repair(const char*,", said)

    def test_a_function_that_is_gone_is_noticed(self):
        code, said = compared(self.copy(in_map=("        kv_mp4_repair;\n", "")))
        self.assertEqual(code & 8, 8, said)
        self.assertIn("kv_mp4_repair", said)

    def test_a_function_more_takes_a_new_baseline(self):
        code, said = compared(self.copy(
            in_header=("KV_MP4_API uint32_t kv_mp4_repair_ex(",
                       "KV_MP4_API uint32_t kv_mp4_more(void);\n"
                       "KV_MP4_API uint32_t kv_mp4_repair_ex("),
            in_source=("uint32_t kv_mp4_repair(", "uint32_t kv_mp4_more(void) { return 0; }\n\n"
                       "uint32_t kv_mp4_repair("),
            in_map=("        kv_mp4_repair;\n", "        kv_mp4_repair;\n        kv_mp4_more;\n")))
        self.assertEqual(code, 4, said)
        self.assertIn("1 Added function", said)

    def test_a_library_of_another_name_has_no_baseline(self):
        self.assertEqual(compared(self.copy(soname="libkv_mp4.so.2"))[0] & 1, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
