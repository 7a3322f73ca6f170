"""What the tests of kvmp4 share: the programs they run, and a folder of their own."""
import errno
import os
import re
import subprocess
import tempfile
import unittest

SCRATCH = "/dev/shm" if os.path.isdir("/dev/shm") else None


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=120, **options)


def run_into_a_full_disk(*command):
    """What is printed to standard output is lost; standard error is not."""
    with open("/dev/full", "w", encoding="ascii") as full:
        return subprocess.run(command, stdout=full, stderr=subprocess.PIPE, text=True,
                              stdin=subprocess.DEVNULL, timeout=120, check=False)


def unreadable():
    """A regular file that opens and cannot be read, if the system has one."""
    path = "/sys/class/net/lo/duplex"
    try:
        with open(path, "rb") as file:
            file.read()
    except OSError as error:
        return path if error.errno == errno.EINVAL else None
    return None


def undocumented(report, skip=()):
    """The fields of a JSON report that docs/json-reports.md does not name. What lies below the
    fields to skip has names of its own."""
    page = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "json-reports.md")
    with open(page, encoding="utf-8") as file:
        names = {name.rsplit(".", 1)[-1].removesuffix("[]")
                 for name in re.findall(r"`([^`\n]+)`", file.read())}
    missing = set()

    def look(value):
        if isinstance(value, list):
            for item in value:
                look(item)
        elif isinstance(value, dict):
            for name, item in value.items():
                if name not in names:
                    missing.add(name)
                if name not in skip:
                    look(item)
    look(report)
    return missing


def ffmpeg(*arguments):
    result = run("ffmpeg", "-v", "error", "-y", *arguments)
    if result.returncode:
        raise AssertionError(result.stderr)


def decoded(path, kind):
    """The hashes of all decoded frames of a kind, v or a."""
    result = run("ffmpeg", "-v", "error", "-i", path, "-map", f"0:{kind}", "-vsync", "0", "-f",
                 "framehash", "-")
    if result.returncode or result.stderr:
        raise AssertionError(result.stderr)
    return [line.rsplit(",", 1)[1].strip() for line in result.stdout.splitlines()
            if not line.startswith("#")]


class InFolder(unittest.TestCase):
    """Tests with a folder of their own, in memory where that is possible. No "mov" in its name:
    the library looks for it in the whole path."""

    @classmethod
    def setUpClass(cls):
        # A browser's helpers may outlive it by a moment and write on.
        cls.folder = None
        while cls.folder is None or "mov" in cls.folder.name:
            cls.folder = tempfile.TemporaryDirectory(prefix="kvmp4.", dir=SCRATCH,
                                                     ignore_cleanup_errors=True)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @classmethod
    def path(cls, name):
        return os.path.join(cls.folder.name, name)
