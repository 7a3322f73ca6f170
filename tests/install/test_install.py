#!/usr/bin/env python3
"""Installs the build into an empty folder and looks at it as a stranger does: the list of files is
exact in each part, and an outside project in C and in C++ finds the library through CMake and
through pkg-config, is built against it and runs.

    test_install.py BUILD LIBDIR VERSION [tools] [gstreamer]
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

BUILD, LIBDIR, VERSION = sys.argv[1:4]
TOOLS, GSTREAMER = ("tools" in sys.argv[4:], "gstreamer" in sys.argv[4:])
OUTSIDE = pathlib.Path(__file__).parent / "outside"
PAGES = ("kvmp4", "kvmp4-record", "kvmp4-repair", "kvmp4-inspect", "kvmp4-verify")

FILES = {
    "runtime": {f"{LIBDIR}/libkv_mp4.so.{VERSION}", f"{LIBDIR}/libkv_mp4.so.1"},
    "dev": {"include/kv_mp4.h",
            f"{LIBDIR}/libkv_mp4.so",
            f"{LIBDIR}/pkgconfig/kv_mp4.pc",
            f"{LIBDIR}/cmake/kv_mp4/kv_mp4-config.cmake",
            f"{LIBDIR}/cmake/kv_mp4/kv_mp4-config-version.cmake",
            f"{LIBDIR}/cmake/kv_mp4/kv_mp4-targets.cmake",
            f"{LIBDIR}/cmake/kv_mp4/kv_mp4-targets-BUILD.cmake",
            "share/man/man3/libkv_mp4.3"},
    "tools": {"bin/kvmp4", "share/bash-completion/completions/kvmp4"} |
             {f"share/man/man1/{page}.1" for page in PAGES} if TOOLS else set(),
    "gstreamer": {f"{LIBDIR}/gstreamer-1.0/libgstkvmp4.so"} if GSTREAMER else set(),
}


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, timeout=300, **options)
    if result.returncode:
        raise AssertionError(f"{command}: {result.stdout}{result.stderr}")
    return result.stdout.strip()


def install(folder, *part):
    """The files of one part, or of all, below the prefix, the build type's name left open."""
    run("cmake", "--install", BUILD, "--prefix", "/usr", *part,
        env={**os.environ, "DESTDIR": str(folder)})
    prefix = folder / "usr"
    build_type = run("cmake", "-LA", "-N", BUILD).split("CMAKE_BUILD_TYPE:STRING=")[1].split()[0]
    return {str(path.relative_to(prefix)).replace(f"-{build_type.lower()}.cmake", "-BUILD.cmake")
            for path in prefix.rglob("*") if not path.is_dir()}


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.all = install(cls.folder / "all")
        cls.prefix = cls.folder / "all/usr"
        cls.environment = {**os.environ,
                           "PKG_CONFIG_PATH": str(cls.prefix / LIBDIR / "pkgconfig"),
                           "LD_LIBRARY_PATH": str(cls.prefix / LIBDIR)}

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def records(self, program, path):
        # The library's banner goes first.
        printed = run(program, path, env=self.environment).splitlines()
        self.assertEqual(printed[-1], "0 failures")
        data = pathlib.Path(path).read_bytes()
        self.assertEqual(data[4:8], b"ftyp")
        self.assertEqual(data.count(b"icpf"), 10)
        self.assertEqual(data.count(b"moov"), 1)

    def test_the_list_of_files_is_exact(self):
        self.assertEqual(self.all, set().union(*FILES.values()))

    def test_each_part_has_its_own_files(self):
        for part, files in FILES.items():
            if files:
                self.assertEqual(install(self.folder / part, "--component", part), files, part)

    def test_the_library_is_known_by_its_major_version(self):
        library = self.prefix / LIBDIR / "libkv_mp4.so"
        self.assertEqual(os.readlink(library), "libkv_mp4.so.1")
        self.assertIn("Library soname: [libkv_mp4.so.1]", run("readelf", "-d", library))

    def test_every_name_carries_the_version_node(self):
        names = run("nm", "-D", "--defined-only", self.prefix / LIBDIR / "libkv_mp4.so")
        names = [line.split() for line in names.splitlines()]
        self.assertEqual({name.rpartition("@@")[2] for _, kind, name in names if kind != "A"},
                         {"KV_MP4_1"})
        self.assertEqual(sum(kind == "T" for _, kind, _ in names), 35)

    def test_an_outside_project_finds_it_through_cmake(self):
        build = self.folder / "outside"
        run("cmake", "-S", OUTSIDE, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        found = run("cmake", "-LA", "-N", build)
        self.assertIn(f"kv_mp4_DIR:PATH={self.prefix / LIBDIR}/cmake/kv_mp4", found)
        run("cmake", "--build", build)
        self.records(build / "outside_c", str(self.folder / "cmake.mov"))
        self.assertIn("the exception was caught",
                      run(build / "outside_cpp", env=self.environment).splitlines())

    def test_a_project_that_wants_another_major_version_is_refused(self):
        project = self.folder / "wants"
        project.mkdir()
        for version, refused in (("1.0", False), ("2.0", True)):
            (project / "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.25)\nproject(wants LANGUAGES C)\n"
                f"find_package(kv_mp4 {version} CONFIG REQUIRED)\n")
            result = subprocess.run(["cmake", "-S", project, "-B", project / version,
                                     f"-DCMAKE_PREFIX_PATH={self.prefix}"],
                                    capture_output=True, text=True)
            self.assertEqual(result.returncode != 0, refused, result.stderr)
            self.assertEqual(f"version: {VERSION}" in result.stderr, refused, result.stderr)

    def test_a_compiler_finds_it_through_pkg_config(self):
        self.assertEqual(run("pkg-config", "--modversion", "kv_mp4", env=self.environment),
                         VERSION)
        flags = run("pkg-config", "--cflags", "--libs", "kv_mp4", env=self.environment).split()
        program = self.folder / "through_pkg_config"
        run(os.environ.get("CC", "cc"), "-std=c11", OUTSIDE / "outside.c", *flags, "-o", program)
        self.records(program, str(self.folder / "pkg.mov"))

    def test_the_first_program_of_the_readme_records_a_picture(self):
        readme = (OUTSIDE.parents[2] / "README.md").read_text()
        source = self.folder / "first.c"
        source.write_text(readme.split("```c\n")[1].split("```")[0])
        flags = run("pkg-config", "--cflags", "--libs", "kv_mp4", env=self.environment).split()
        run(os.environ.get("CC", "cc"), source, *flags, "-o", self.folder / "first")
        picture = self.folder / "picture.h264"
        run("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=1920x1080",
            "-frames:v", "1", "-c:v", "libx264", "-preset", "ultrafast", picture)
        with open(picture, "rb") as camera:
            run(self.folder / "first", stdin=camera, cwd=self.folder, env=self.environment)
        self.assertEqual(run("ffprobe", "-v", "error", "-count_frames", "-show_entries",
                             "stream=codec_name,width,height,nb_read_frames", "-of", "csv=p=0",
                             self.folder / "first.mp4"), "h264,1920,1080,1")

    @unittest.skipUnless(TOOLS, "built without the tools")
    def test_the_installed_tool_runs(self):
        self.assertEqual(run(self.prefix / "bin/kvmp4", "--version", env=self.environment),
                         f"kvmp4 {VERSION}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
