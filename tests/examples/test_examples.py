#!/usr/bin/env python3
"""Runs the examples on a real clip and judges by FFmpeg's programs what they made.

    test_examples.py SOURCES BUILT [FOLDER OF THE LIBRARY]
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCES, BUILT = map(pathlib.Path, sys.argv[1:3])
LIBRARY = sys.argv[3] if len(sys.argv) > 3 else None  # for Python
PICTURES = 100


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, stdin=subprocess.DEVNULL,
                          timeout=120).stdout


def pictures(path):
    """A hash of each decoded picture. A damaged stream is an error here."""
    lines = run("ffmpeg", "-v", "error", "-xerror", "-i", path, "-map", "0:v", "-f", "framemd5",
                "-").decode()
    return [line.split(",")[-1] for line in lines.splitlines() if not line.startswith("#")]


def packets(path, stream):
    lines = run("ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                "packet=pts_time", "-of", "csv=p=0", path).decode().split()
    return [float(line.strip(",")) for line in lines]


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.camera = cls.folder / "camera.h264"
        cls.microphone = cls.folder / "microphone.aac"
        run("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=4",
            "-f", "lavfi", "-i", "sine=sample_rate=48000:duration=4",
            "-map", "0", "-c:v", "libx264", "-preset", "ultrafast", "-bf", "0", "-g", "25",
            "-x264-params", "aud=1", cls.camera, "-map", "1", "-c:a", "aac", cls.microphone)
        cls.source = pictures(cls.camera)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def test_each_stays_below_100_lines(self):
        sources = [path for path in SOURCES.iterdir() if path.suffix in (".c", ".h", ".cpp", ".py")]
        self.assertEqual(len(sources), 8)
        for source in sources:
            self.assertLess(len(source.read_text().splitlines()), 100, source)

    def test_record_keeps_every_picture_and_all_sound(self):
        self.assertEqual(len(self.source), PICTURES)
        for name in ("take1.mp4", "take1.mov"):
            output = self.folder / name
            run(BUILT / "record", self.camera, self.microphone, output)
            self.assertEqual(pictures(output), self.source)
            self.assertEqual(packets(output, "v"), [n / 25 for n in range(PICTURES)])
            self.assertEqual(len(packets(output, "a")), len(packets(self.microphone, "a")))

    def test_own_sink_makes_the_same_pictures(self):
        output = self.folder / "sink.mp4"
        run(BUILT / "own_sink", self.camera, output)
        self.assertEqual(pictures(output), self.source)

    def test_safe_recording_leaves_no_log_after_a_proper_end(self):
        output = self.folder / "safe.mp4"
        run(BUILT / "safe_recording", self.camera, output)
        self.assertEqual(pictures(output), self.source)
        self.assertFalse(output.with_suffix(".mp4.info").exists())

    def test_a_crash_leaves_a_beginning_and_the_repair_brings_back_more(self):
        output = self.folder / "crash.mp4"
        died = subprocess.run([BUILT / "safe_recording", self.camera, output, "90"],
                              capture_output=True)
        self.assertEqual(died.returncode, 3)
        before = pictures(output)
        self.assertGreater(len(before), 0)
        self.assertEqual(before, self.source[:len(before)])
        self.assertEqual(run(BUILT / "repair", output).splitlines()[-1], b"repaired")
        after = pictures(output)
        self.assertEqual(after, self.source[:len(after)])
        self.assertGreater(len(after), len(before))
        # Flushed every 10 pictures.
        self.assertGreaterEqual(len(after), 75)

    def test_captions_are_read_back_and_the_time_code_too(self):
        for name in ("captions.mp4", "captions.mov"):
            output = self.folder / name
            run(BUILT / "captions", self.camera, output, "WORDS TO SHOW")
            self.assertEqual(pictures(output), self.source)
            text = run("ffmpeg", "-v", "error", "-i", output, "-map", "0:s", "-f", "srt", "-")
            self.assertEqual(text.decode().count("-->"), 1)
            self.assertIn("WORDS TO SHOW", text.decode())
            tags = run("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                       "stream_tags=timecode", "-of", "csv=p=0", output).decode()
            self.assertEqual(tags.strip(), "10:00:00:00")
            # A pair each: twice four commands, and seven of letters.
            self.assertEqual(len(packets(output, "s")), 2 * 4 + 7)

    @unittest.skipUnless(LIBRARY, "an instrumented library")
    def test_python_makes_the_same_pictures(self):
        output = self.folder / "python.mp4"
        environment = {**os.environ, "LD_LIBRARY_PATH": LIBRARY}
        subprocess.run([sys.executable, SOURCES / "record.py", self.camera, output, "Take 1"],
                       check=True, capture_output=True, timeout=120, env=environment)
        self.assertEqual(pictures(output), self.source)
        self.assertEqual(run("ffprobe", "-v", "error", "-show_entries", "format_tags=title",
                             "-of", "csv=p=0", output).decode().strip(), "Take 1")
        failed = subprocess.run([sys.executable, SOURCES / "record.py", self.camera,
                                 self.folder / "none" / "x.mp4"], capture_output=True, text=True,
                                env=environment)
        self.assertEqual(failed.returncode, 1)
        self.assertIn("mp4_create_file_ex: status 12", failed.stderr)

    def test_the_applications_log_holds_the_librarys_lines(self):
        output, log = self.folder / "log.mp4", self.folder / "application.log"
        printed = run(BUILT / "shared_log", self.camera, output, log)
        self.assertEqual(printed, b"")
        self.assertEqual(pictures(output), self.source)
        lines = log.read_text().splitlines()
        self.assertEqual(lines[0], f"info [studio]  recording {output}")
        self.assertEqual(lines[-1], "info [studio]  done, status 0")
        own = [line for line in lines[1:-1] if line.startswith("info [recorder] ")]
        self.assertEqual(own, lines[1:-1])
        self.assertIn("mp4 flag is 0", own[0])

    def test_repair_tells_that_there_is_no_log(self):
        result = subprocess.run([BUILT / "repair", self.camera], capture_output=True, text=True)
        self.assertEqual(result.returncode, 1)
        self.assertIn("no log", result.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
