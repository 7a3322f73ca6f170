#!/usr/bin/env python3
"""Compares what the shared library shows with the public header: the exported functions and the
exception's type, nothing else; and what it needs with what it may need.

    exports.py LIBRARY HEADER
"""
import re
import subprocess
import sys

FUNCTIONS = 35  # that the header declares
NEEDED = ("libspdlog.so", "libfmt.so", "libstdc++.so", "libgcc_s.so", "libc.so", "libm.so",
          "ld-linux")
SANITIZERS = ("libasan.so", "libubsan.so", "libtsan.so")


DLLS = {"KERNEL32.dll", "msvcrt.dll"}  # of every Windows


def compare_dll(library, declared, complaints):
    """Of a DLL the exception's type is no name: programs compare types by their text."""
    listing = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", library], check=True,
                             capture_output=True, text=True).stdout
    shown = set(re.findall(r"^\s+\[ *\d+\] (\w+)$", listing.partition("[Ordinal/Name")[2], re.M))
    complaints += [f"declared and not shown: {name}" for name in sorted(declared - shown)]
    complaints += [f"shown and not declared: {name}" for name in sorted(shown - declared)]
    needed = set(re.findall(r"DLL Name: (.+)", listing))
    complaints += [f"needs {name}" for name in sorted(needed - DLLS)]
    if not needed:
        complaints.append("no import table was found")
    print("\n".join(complaints) if complaints else f"{len(shown)} names, as declared")
    return 1 if complaints else 0


def main(library, header):
    with open(header) as text:
        declared = set(re.findall(r"KV_MP4_API\s+[\w ]+?\**\s*\b((?:kv_)?mp4_\w+)\(", text.read()))
    complaints = []
    if len(declared) != FUNCTIONS:
        complaints.append(f"{len(declared)} functions declared, not {FUNCTIONS}")
    if library.endswith(".dll"):
        return compare_dll(library, declared, complaints)
    declared |= {"_ZTI16kv_mp4_exception", "_ZTS16kv_mp4_exception"}
    listing = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                             capture_output=True, text=True).stdout
    shown = {line.split()[2].split("@")[0] for line in listing.splitlines()
             if line.split()[1] != "A"}
    complaints += [f"declared and not shown: {name}" for name in sorted(declared - shown)]
    complaints += [f"shown and not declared: {name}" for name in sorted(shown - declared)]

    dynamic = subprocess.run(["readelf", "-d", library], check=True, capture_output=True,
                             text=True).stdout
    for name in re.findall(r"NEEDED.*\[(.+)\]", dynamic):
        if not name.startswith(NEEDED + SANITIZERS):
            complaints.append(f"needs {name}")
    print("\n".join(complaints) if complaints else f"{len(shown)} names, as declared")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
