#!/usr/bin/env python3
"""Builds recorded.cpp for this system, runs it and the one for Windows, and compares their lines:
every status, and the bytes of each media file, log and repaired file.

    same_bytes.py WINE RECORDED.EXE SOURCES FOLDER_OF_LIBKV_MP4
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

RECORDINGS = 324


def lines_of(*command):
    # In memory: the waits for the medium are long elsewhere.
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="rec.", dir=memory) as folder:
        result = subprocess.run([*command, folder], stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE, text=True, timeout=200)
    lines = [line for line in result.stderr.splitlines() if re.match(r"f\d+v", line)]
    if result.returncode:
        raise SystemExit(f"{command} exits with {result.returncode}: {result.stderr[-2000:]}")
    return lines


def main(wine, exe, sources, library):
    sources = pathlib.Path(sources)
    with tempfile.TemporaryDirectory() as folder:
        program = f"{folder}/recorded"
        subprocess.run(["g++", "-std=c++20", "-O1", f"-I{sources}/include",
                        str(sources / "tests/windows/recorded.cpp"), "-o", program, f"-L{library}",
                        "-lkv_mp4", f"-Wl,-rpath,{library}"], check=True)
        here = lines_of(program)
    there = lines_of(wine, exe)
    differences = [f"{ours}\n{theirs}" for ours, theirs in zip(here, there) if ours != theirs]
    print("\n".join(differences[:5]))
    print(f"{len(here)} recordings here, {len(there)} on Windows, {len(differences)} differ")
    return 1 if differences or len(here) != RECORDINGS or len(there) != RECORDINGS else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
