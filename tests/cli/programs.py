"""What the tests of kvmp4 share: the programs they run, and a folder of their own."""
import os
import subprocess
import tempfile
import unittest

SCRATCH = "/dev/shm" if os.path.isdir("/dev/shm") else None


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=120, **options)


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
