#!/usr/bin/env python3
"""A recording with all four tracks, played by headless Chromium: every picture decoded and
presented, none dropped.

    test_chromium.py KVMP4

Exits with 77, which means skipped, where Chromium or its driver is not installed.
"""
import json
import os
import shutil
import sys
import unittest

from programs import InFolder, ffmpeg, run

SKIPPED = 77
FRAMES = 120
RATE = "30000/1001"
BROWSER = shutil.which("chromium")
PLAYER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "browser")


class Chromium(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        ffmpeg("-f", "lavfi", "-i", f"testsrc2=size=320x240:rate={RATE}", "-f", "lavfi", "-i",
               "sine=sample_rate=48000", "-t", "4.004", "-c:v", "libx264", "-bf", "0", "-pix_fmt",
               "yuv420p", "-c:a", "aac", cls.path("source.ts"))
        with open(cls.path("captions.scc"), "w") as file:
            file.write("Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420 9470 9470 c8e5 942f\n\n"
                       "00:00:03:00\t942c 942c\n")

    def recorded(self, kind):
        output = self.path(f"all.{kind}")
        result = run(KVMP4, "record", "-y", "-i", self.path("source.ts"), "-i",
                     self.path("captions.scc"), "-o", output, "--timecode", "10:00:00;00")
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(output, "rb") as file:
            content = file.read()
        for entry in (b"avc1", b"mp4a", b"tmcd", b"c608"):
            self.assertIn(entry, content[content.rindex(b"moov"):])
        return output, content

    def play(self, *files, code=0):
        result = run("node", os.path.join(PLAYER, "play.mjs"), "--browser", BROWSER, "--frames",
                     str(FRAMES), "--rate", RATE, *files)
        self.assertEqual(result.returncode, code, result.stderr)
        return json.loads(result.stdout)

    def test_every_picture_is_presented_and_none_dropped(self):
        answers = self.play(*(self.recorded(kind)[0] for kind in ("mp4", "mov")))
        self.assertEqual(len(answers), 2)
        for answer in answers:
            with self.subTest(file=answer["file"]):
                self.assertNotIn("error", answer)
                self.assertEqual((answer["decoded"], answer["dropped"]), (FRAMES, 0))
                self.assertEqual(answer["presented"], FRAMES)
                self.assertEqual((answer["width"], answer["height"]), (320, 240))
                self.assertGreater(answer["sound"], 0)

    def test_a_file_without_its_index_is_refused(self):
        _, content = self.recorded("mp4")
        cut = self.path("cut.mp4")
        with open(cut, "wb") as file:
            file.write(content[:content.rindex(b"moov") - 4])
        self.assertIn("error", self.play(cut, code=1)[0])


if __name__ == "__main__":
    KVMP4 = os.path.abspath(sys.argv.pop(1))
    if not BROWSER or not os.path.isdir(os.path.join(PLAYER, "node_modules", "playwright-core")):
        print("skipped: scripts/setup demo has not run")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)
