#!/usr/bin/env python3
"""`kvmp4 record` on real streams: what it makes is judged by ffprobe, by decoding and by the strict
checker of the tests.

    test_record.py KVMP4 CHECK_FILE [unittest arguments]
"""
import fcntl
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
FLAGS = {0: ["--no-version1", "--no-large-file"], 1: ["--no-large-file"], 2: ["--no-version1"],
         3: [], 0x20: ["--no-version1", "--no-large-file", "--fast-header"],
         0x23: ["--version1", "--large-file", "--fast-header"]}


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
        forms = [f"--{form}" for form in ("version1", "large-file")
                 if f"--no-{form}" not in arguments]
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
        sound = self.recorded(self.source("hevc"), "sound.mp4", "--no-large-file")
        with open(sound, "rb") as file:
            content = file.read()
        for box, offset in ((b"stco", 15), (b"stsz", 17), (b"hvcC", 4), (b"moov", -1)):
            damaged = bytearray(content)
            damaged[content.rindex(box) + offset] ^= 1
            with open(self.path("damaged.mp4"), "wb") as file:
                file.write(damaged)
            with self.subTest(box=box):
                self.assertNotEqual(self.findings(self.path("damaged.mp4"), "--no-large-file"),
                                    [])
        with open(self.path("damaged.mp4"), "wb") as file:
            file.write(content[:-1])
        self.assertNotEqual(self.findings(self.path("damaged.mp4"), "--no-large-file"), [])
        self.assertIn("mvhd has the other version",
                      self.findings(sound, "--no-version1", "--no-large-file"))
        self.assertIn("mdat has the other form", self.findings(sound))

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


class Mishaps(InFolder):
    """Inputs, paths and signals as they come, on one clip of two seconds."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.clip = cls.path("clip.ts")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=2", "-f", "lavfi", "-i",
               "sine=sample_rate=48000:duration=2", *VIDEO["h264"], "-c:a", "aac", cls.clip)

    def record(self, name, *arguments, code=0, source=None, says=""):
        output = self.path(name)
        result = run(KVMP4, "record", "-y", "-i", source or self.clip, *arguments, "-o", output)
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertRegex(result.stderr, f"^kvmp4: [^\n]*{says}[^\n]*\n$" if says else "^$")
        return output

    def assert_sound(self, path):
        result = run(KVMP4, "verify", path)
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_a_safe_recording_beyond_4_gib_plays(self):
        # The distance to the last index makes the length; the file has holes.
        output = self.record("big.mp4", "--safe", "--info", "--large-file", "--safe-min", "100KiB",
                             "--safe-max", "4294967295", "--safe-threshold", "50KiB")
        self.assertGreater(os.path.getsize(output), 1 << 32)
        self.assertFalse(os.path.exists(output + ".info"))
        self.assert_sound(output)
        self.assertEqual(decoded(output, "v"), decoded(self.clip, "v"))
        os.remove(output)

    def test_a_path_that_is_not_utf_8_is_refused(self):
        with open(self.path("take"), "w") as file:
            file.write("keep me")
        self.record("take\udce9.mp4", code=2, says="UTF-8")
        self.record("take\u00e9.mp4")
        with open(self.path("take")) as file:
            self.assertEqual(file.read(), "keep me")

    def test_no_spelling_of_the_input_is_overwritten(self):
        size = os.path.getsize(self.clip)
        os.symlink(self.clip, self.path("link.ts"))
        for source in (self.clip, "file:" + self.clip, self.path("link.ts"),
                       "file:" + self.path("link.ts")):
            with self.subTest(source=source):
                self.record("clip.ts", code=2, source=source, says="the input itself")
        self.assertEqual(os.path.getsize(self.clip), size)

    def live(self, name, *wrapper):
        """A recording in real time that has begun."""
        process = subprocess.Popen([*wrapper, KVMP4, "record", "-i", self.clip, "-o",
                                    self.path(name), "--realtime"], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        while not (os.path.exists(self.path(name)) and os.path.getsize(self.path(name)) > 0):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)
        return process

    def test_a_closed_terminal_ends_with_a_proper_close(self):
        process = self.live("hup.mp4")
        process.send_signal(signal.SIGHUP)
        process.send_signal(signal.SIGHUP)
        self.assertEqual(process.wait(timeout=30), 0)
        self.assert_sound(self.path("hup.mp4"))
        self.assertLess(len(decoded(self.path("hup.mp4"), "v")), 50)

    def test_nohup_records_on(self):
        process = self.live("nohup.mp4", "nohup")
        process.send_signal(signal.SIGHUP)
        self.assertEqual(process.wait(timeout=30), 0)
        self.assertEqual(len(decoded(self.path("nohup.mp4"), "v")), 50)

    def test_a_failure_is_told_though_another_input_is_blocked(self):
        fifo = self.path("idle.aac")
        os.mkfifo(fifo)
        missing = self.path("missing.mp4")
        self.record("x.mp4", "-i", fifo, code=3, source=missing, says="missing.mp4")
        self.record("x.mp4", "-i", missing, code=3, source=fifo, says="missing.mp4")

    def test_a_full_disk_is_told_though_the_input_is_idle(self):
        import resource
        source = self.path("clip.mkv")
        ffmpeg("-i", self.clip, "-c", "copy", source)
        process = subprocess.Popen(
            [KVMP4, "record", "-i", "pipe:0", "-o", self.path("full.mp4")], stdin=subprocess.PIPE,
            stderr=subprocess.PIPE, preexec_fn=lambda: resource.setrlimit(
                resource.RLIMIT_FSIZE, (20000, 20000)))
        try:
            with open(source, "rb") as file:
                process.stdin.write(file.read())
            process.stdin.flush()
        except BrokenPipeError:
            pass  # it went before it had read all
        self.assertEqual(process.wait(timeout=60), 6)
        self.assertRegex(process.stderr.read().decode(), r"^kvmp4: [^\n]+\n$")
        process.stderr.close()
        try:
            process.stdin.close()
        except BrokenPipeError:
            pass

    def test_a_clock_that_begins_anew_is_carried_on(self):
        twice = self.path("twice.ts")
        with open(self.clip, "rb") as file:
            data = file.read()
        with open(twice, "wb") as file:
            file.write(data + data)
        output = self.record("twice.mp4", source=twice, says="jumped")
        self.assert_sound(output)
        pictures = packets(output, "v")
        self.assertEqual(len(pictures), 100)
        self.assertEqual(decoded(output, "v")[50:], decoded(self.clip, "v"))
        self.assertAlmostEqual(pictures[50][0], 2, delta=0.15)
        self.assertAlmostEqual(pictures[99][0] - pictures[50][0], 49 * 0.04, delta=0.0015)
        sounds = packets(output, "a")
        self.assertAlmostEqual(sounds[-1][0], pictures[99][0], delta=0.15)
        for (before, _), (after, _) in zip(sounds, sounds[1:]):
            self.assertGreater(after - before, 0.02)

    def test_either_distance_draws_the_other_along(self):
        for options in (["--safe-min", "200MiB"], ["--safe-max", "100KiB"]):
            output = self.record("drawn.mp4", "--safe", *options)
            self.assertLess(os.path.getsize(output), 210 << 20)
            self.assert_sound(output)
        self.record("none.mp4", "--safe", "--safe-min", "2MiB", "--safe-max", "1MiB", code=2,
                    says="--safe-max")
        self.assertFalse(os.path.exists(self.path("none.mp4")))
        self.record("one.mp4", "--safe", "--safe-min", "1MiB", "--safe-max", "1MiB")

    def test_low_loss_with_captions_that_count_from_a_time_code(self):
        scc = self.path("ten.scc")
        with open(scc, "w") as file:
            file.write("Scenarist_SCC V1.0\n\n10:00:00:02\t9420 9420 94ae 94ae 9470 9470 c8e5 "
                       "942f 942f\n\n10:00:01:10\t9420 9420 c8e5 942f\n")
        clip = self.path("fast.ts")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=64x64:rate=30000/1001:duration=15",
               *VIDEO["h264"], clip)
        distances = []
        for captions in ([], ["-i", scc]):
            result = run(KVMP4, "record", "-v", "-y", "-i", clip, *captions, "-o",
                         self.path("low.mp4"), "--profile", "low-loss", "--timecode", "10:00:00:00")
            self.assertEqual(result.returncode, 0, result.stderr)
            distances.append([int(line.rsplit(" ", 1)[1]) for line in result.stderr.splitlines()
                              if "update moov header to" in line])
        self.assertGreater(len(distances[0]), 3)
        # Captions add no more than a checkpoint's worth.
        self.assertAlmostEqual(len(distances[1]), len(distances[0]), delta=1)

    def test_without_64_bit_sizes_a_recording_ends_below_4_gib(self):
        output = self.record("small.mp4", "--no-large-file", "--safe", "--safe-min", "100KiB",
                             "--safe-max", "4294967295", code=6, says="4 GiB")
        self.assert_sound(output)
        self.assertGreater(len(decoded(output, "v")), 0)

    def test_captions_end_at_4_gib(self):
        scc = self.path("late.scc")
        with open(scc, "w") as file:
            file.write("Scenarist_SCC V1.0\n\n00:00:00:02\t9420 9420 c8e5 942f\n\n"
                       "00:00:01:15\t9420 9420 c8e5 942f\n")
        output = self.record("late.mp4", "-i", scc, "--safe", "--safe-min", "100KiB", "--safe-max",
                             "4294967295", "--safe-threshold", "50KiB", says="captions end")
        self.assert_sound(output)
        self.assertEqual(decoded(output, "v"), decoded(self.clip, "v"))
        os.remove(output)

    def test_durations_beyond_32_bits(self):
        source = self.path("long.mp4")
        ffmpeg("-f", "lavfi", "-i", "color=size=32x32:rate=1:duration=4400", *VIDEO["h264"],
               "-video_track_timescale", "1000000", source)
        output = self.record("hour.mp4", source=source)
        self.assert_sound(output)
        seconds = run("ffprobe", "-v", "error", "-show_entries", "stream=duration", "-of",
                      "csv=p=0", output).stdout
        self.assertAlmostEqual(float(seconds), 4400, delta=0.01)

    def test_a_stream_is_chosen_among_the_inputs(self):
        both, sound = self.path("both.mp4"), self.path("sound.m4a")
        ffmpeg("-i", self.clip, "-c", "copy", both)
        ffmpeg("-i", self.clip, "-vn", "-t", "1", "-c", "copy", sound)
        for choice, length in ((["--audio", "0"], 1), (["--audio", "1"], 2),
                               (["--audio", "1:0"], 1), (["--audio", "0:1"], 2)):
            with self.subTest(choice=choice):
                output = self.record("two.mp4", "-i", sound, *choice, source=both)
                self.assertEqual(len(packets(output, "v")), 50)
                self.assertAlmostEqual(packets(output, "a")[-1][0], length, delta=0.1)
        for choice, says in (([], "--audio INPUT:STREAM"), (["--audio", "7"], "no audio stream 7"),
                             (["--video", "1:0", "--audio", "1:0"], "no video stream 1:0")):
            self.record("none.mp4", "-i", sound, *choice, source=both, code=4, says=says)

    def test_a_cover_is_no_video(self):
        cover, sound = self.path("cover.png"), self.path("cover.m4a")
        ffmpeg("-f", "lavfi", "-i", "color=red:size=64x64", "-frames:v", "1", cover)
        ffmpeg("-i", self.clip, "-i", cover, "-map", "0:a", "-map", "1", "-c:a", "copy", "-c:v",
               "png", "-disposition:v", "attached_pic", sound)
        raw = self.path("raw.h264")
        ffmpeg("-i", self.clip, "-c", "copy", raw)
        self.assertEqual(len(packets(self.record("cover.mp4", "-i", sound, source=raw), "v")), 50)
        self.assert_sound(self.record("alone.mp4", source=sound))

    def test_an_interrupt_ends_the_other_commands(self):
        output = self.record("shown.mp4")
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)  # too small for all of it
        process = subprocess.Popen([KVMP4, "inspect", "--json", "--all", output], stdout=writer,
                                   stdin=subprocess.DEVNULL)
        os.close(writer)
        self.assertEqual(os.read(reader, 1), b"{")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=30), -signal.SIGINT)
        os.close(reader)

    def test_broken_packets_are_counted(self):
        source = self.path("broken.mp4")
        ffmpeg("-i", self.clip, "-c", "copy", source)
        found = json.loads(run("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                               "packet=pos", "-of", "json", source).stdout)["packets"]
        with open(source, "r+b") as file:
            for n in (10, 11, 12):
                file.seek(int(found[n]["pos"]))
                file.write(b"\x7f\xff\xff\xff")
        output = self.record("rest.mp4", source=source, says="3 broken frames were left out")
        self.assertEqual(len(packets(output, "v")), 47)


if __name__ == "__main__":
    unittest.main(verbosity=2)
