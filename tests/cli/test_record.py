#!/usr/bin/env python3
"""`kvmp4 record` on real streams: what it makes is judged by ffprobe, by decoding and by the strict
checker of the tests.

    test_record.py KVMP4 CHECK_FILE [unittest arguments]
"""
import json
import os
import signal
import subprocess
import sys
import time
import unittest

from programs import InFolder, decoded, ffmpeg, run

KVMP4 = os.path.abspath(sys.argv.pop(1))
CHECK_FILE = os.path.abspath(sys.argv.pop(1))

VIDEO = {
    "h264": ["-c:v", "libx264", "-preset", "ultrafast", "-bf", "0", "-g", "10"],
    "hevc": ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
             "bframes=0:keyint=10:open-gop=0:log-level=none"],
    "prores422": ["-c:v", "prores_ks", "-profile:v", "2"],
    "prores4444": ["-c:v", "prores_ks", "-profile:v", "4444", "-pix_fmt", "yuv444p10"],
}
FLAGS = {0: [], 1: ["--version1"], 2: ["--large-file"], 3: ["--version1", "--large-file"],
         0x20: ["--fast-header"], 0x23: ["--version1", "--large-file", "--fast-header"]}


def packets(path, kind):
    """(seconds from the first packet, key flag) of each packet."""
    found = json.loads(run("ffprobe", "-v", "error", "-select_streams", kind, "-show_entries",
                           "packet=dts_time,flags", "-of", "json", path).stdout)["packets"]
    first = float(found[0]["dts_time"])
    return [(float(p["dts_time"]) - first, "K" in p["flags"]) for p in found]


class Record(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.made = {}

    def source(self, video, audio="raw"):
        """A clip of one second; raw AAC and ProRes in MOV, ADTS in MPEG-TS or Matroska."""
        name = f"{video}_{audio}"
        if name not in self.made:
            # Neither name holds "mov": the folder decides nothing.
            kind = "ts" if audio == "adts" and not video.startswith("prores") else "mkv"
            path = self.path(f"{name}.{kind}")
            sound = [] if audio == "none" else ["-f", "lavfi", "-i", "sine=sample_rate=48000:duration=1"]
            coded = ["-an"] if audio == "none" else ["-c:a", "aac", "-ac", "2"]
            ffmpeg("-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=1", *sound,
                   *VIDEO[video], *coded, path)
            self.made[name] = path
        return self.made[name]

    def record(self, *arguments):
        return run(KVMP4, "record", *arguments)

    def recorded(self, source, name, *arguments):
        output = self.path(name)
        result = self.record("-y", "-i", source, "-o", output, *arguments)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(self.findings(output, *arguments), [])
        return output

    def findings(self, output, *arguments):
        """What the strict checker finds wrong with a recording that these arguments made."""
        forms = [a for a in arguments if [a] in FLAGS.values()]
        result = run(CHECK_FILE, *forms, output)
        self.assertEqual(result.stderr, "")
        found = result.stdout.splitlines()
        self.assertEqual(result.returncode, 1 if found else 0)
        return found

    def check_equal(self, source, output, audio=True):
        for kind in "va" if audio else "v":
            self.assertEqual(decoded(output, kind), decoded(source, kind))
            before, after = packets(source, kind), packets(output, kind)
            self.assertEqual(len(after), len(before))
            for (time_before, key_before), (time_after, key_after) in zip(before, after):
                self.assertAlmostEqual(time_after, time_before, delta=0.0015)
                if kind == "v":
                    self.assertEqual(key_after, key_before)

    def test_matrix(self):
        for video in VIDEO:
            for audio in ("raw", "adts", "none"):
                source = self.source(video, audio)
                reference = None
                for kind in ("mp4", "mov"):
                    for flags, options in FLAGS.items():
                        with self.subTest(video=video, audio=audio, kind=kind, flags=flags):
                            output = self.recorded(source, f"matrix.{kind}", *options)
                            if reference is None:
                                self.check_equal(source, output, audio != "none")
                                reference = [decoded(output, "v"), packets(output, "v")]
                            self.assertEqual([decoded(output, "v"), packets(output, "v")],
                                             reference)

    def test_the_checker_finds_damage(self):
        sound = self.recorded(self.source("hevc"), "sound.mp4", "--version1")
        with open(sound, "rb") as file:
            content = file.read()
        for box, offset in ((b"stco", 15), (b"stsz", 17), (b"hvcC", 4), (b"moov", -1)):
            damaged = bytearray(content)
            damaged[content.rindex(box) + offset] ^= 1
            with open(self.path("damaged.mp4"), "wb") as file:
                file.write(damaged)
            with self.subTest(box=box):
                self.assertNotEqual(self.findings(self.path("damaged.mp4"), "--version1"), [])
        with open(self.path("damaged.mp4"), "wb") as file:
            file.write(content[:-1])
        self.assertNotEqual(self.findings(self.path("damaged.mp4"), "--version1"), [])
        self.assertIn("mvhd has the other version", self.findings(sound))
        self.assertIn("mdat has the other form",
                      self.findings(sound, "--version1", "--large-file"))

    def test_times_of_a_constant_rate_are_exact(self):
        output = self.recorded(self.source("h264", "adts"), "exact.mp4")
        for kind, step in (("v", 0.04), ("a", 1024 / 48000)):
            for n, (seconds, _) in enumerate(packets(output, kind)):
                self.assertAlmostEqual(seconds, n * step, places=5)

    def test_b_frames_are_recorded_with_a_warning(self):
        source = self.path("b.mkv")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=1", "-c:v", "libx264",
               "-bf", "2", source)
        output = self.path("b.mp4")
        result = self.record("-i", source, "-o", output)
        self.assertEqual(result.returncode, 0)
        self.assertIn("B-frames", result.stderr)
        self.assertEqual(decoded(output, "v"), decoded(source, "v"))
        # Matroska keeps no decoding times; they rise evenly from the first picture on all the same.
        for n, (seconds, _) in enumerate(packets(output, "v")):
            self.assertAlmostEqual(seconds, n * 0.04, delta=0.0015)

    def test_metadata_reaches_the_file(self):
        output = self.recorded(self.source("h264"), "meta.mp4", "--metadata", "title=A = B",
                               "--metadata", "artist=Someone")
        tags = json.loads(run("ffprobe", "-v", "error", "-show_entries", "format_tags", "-of",
                              "json", output).stdout)["format"]["tags"]
        self.assertEqual((tags["title"], tags["artist"]), ("A = B", "Someone"))

    def test_duration_ends_the_recording(self):
        output = self.recorded(self.source("h264"), "short.mp4", "--duration", "0.4")
        self.assertEqual(len(packets(output, "v")), 10)

    def test_stream_choice(self):
        output = self.recorded(self.source("h264"), "mute.mp4", "--audio", "none")
        kinds = run("ffprobe", "-v", "error", "-show_entries", "stream=codec_type", "-of",
                    "csv=p=0", output).stdout.split()
        self.assertEqual(kinds, ["video"])
        result = self.record("-i", self.source("h264"), "-o", self.path("x.mp4"), "--audio", "0")
        self.assertEqual(result.returncode, 4)

    def test_two_fifos_of_raw_streams_opened_in_either_order(self):
        source = self.source("h264", "adts")
        for order in (("v", "a"), ("a", "v")):
            fifos = {"v": self.path(f"v{order[0]}.h264"), "a": self.path(f"a{order[0]}.aac")}
            for fifo in fifos.values():
                os.mkfifo(fifo)
            # One encoder process that opens its outputs one after the other.
            outputs = [part for kind in order
                       for part in ("-map", f"0:{kind}", "-c", "copy", fifos[kind])]
            feeder = subprocess.Popen(["ffmpeg", "-v", "error", "-y", "-i", source, *outputs],
                                      stdin=subprocess.DEVNULL)
            output = self.path(f"fifo_{order[0]}.mp4")
            result = self.record("-i", fifos["v"], "-i", fifos["a"], "-o", output, "--fps", "25")
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertEqual(feeder.wait(timeout=60), 0)
            self.assertEqual(decoded(output, "v"), decoded(source, "v"))
            self.assertEqual(len(decoded(output, "a")), len(decoded(source, "a")))
            for n, (seconds, _) in enumerate(packets(output, "v")):
                self.assertAlmostEqual(seconds, n * 0.04, places=5)

    def test_ctrl_c_ends_with_a_proper_close(self):
        output = self.path("stopped.mp4")
        process = subprocess.Popen([KVMP4, "record", "-i", self.source("h264"), "-o", output,
                                    "--realtime"], stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while not (os.path.exists(output) and os.path.getsize(output) > 0):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=30), 0)
        run("ffprobe", "-v", "error", output, check=True)

    def test_each_kind_of_failure_has_its_exit_code_and_one_sentence(self):
        source = self.source("h264")
        text = self.path("text.txt")
        with open(text, "w") as file:
            file.write("no media")
        mpeg2 = self.path("mpeg2.mkv")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=0.2", "-c:v",
               "mpeg2video", mpeg2)
        sound = self.path("sound.wav")
        ffmpeg("-f", "lavfi", "-i", "sine=duration=0.1", sound)
        existing = self.path("existing.mp4")
        with open(existing, "w") as file:
            file.write("keep me")
        out = self.path("bad.mp4")
        cases = [
            (3, ["-i", self.path("missing.mp4"), "-o", out]),
            (3, ["-i", text, "-o", out]),
            (4, ["-i", mpeg2, "-o", out]),
            (4, ["-i", sound, "-o", out]),
            (4, ["-i", source, "-o", out, "--video", "none", "--audio", "none"]),
            (5, ["-i", source, "-o", self.path("none/x.mp4")]),
            (5, ["-i", source, "-o", self.folder.name]),
            (5, ["-i", source, "-o", existing]),
            (2, ["-i", source, "-o", out, "--metadata", "colour=red"]),
            (2, ["-i", source, "-o", out, "--metadata", "red"]),
            (2, ["-i", source, "-o", out, "--fps", "fast"]),
            (2, ["-i", source, "-o", out, "-f", "nonsense"]),
            (2, ["-i", source, "-o", source]),
        ]
        for code, arguments in cases:
            with self.subTest(arguments=arguments):
                result = self.record(*arguments)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertRegex(result.stderr, r"^kvmp4: [^\n]+\n$")
        with open(existing) as file:
            self.assertEqual(file.read(), "keep me")
        self.assertEqual(self.record("-o", out).returncode, 2)

    def test_a_full_disk_is_a_failed_write(self):
        import resource

        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))
        result = run(KVMP4, "record", "-i", self.source("h264"), "-o", self.path("full.mp4"),
                     preexec_fn=limit)
        self.assertEqual(result.returncode, 6, result.stderr)
        self.assertRegex(result.stderr, r"^kvmp4: [^\n]+\n$")

    def test_version_and_help(self):
        self.assertEqual(run(KVMP4, "--version").returncode, 0)
        self.assertIn("B-frames", run(KVMP4, "record", "--help").stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
