#!/usr/bin/env python3
"""`kvmp4sink` in real pipelines, ended properly and killed: judged by ffprobe, by decoding and by
the strict checker of the tests, and beside the robust mode of mp4mux on the same stream.

    test_pipelines.py PLUGIN_FOLDER KVMP4 CHECK_FILE [unittest arguments]
"""
import json
import os
import re
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "cli"))
from programs import InFolder, decoded, run  # noqa: E402: found through the line above

PLUGINS, KVMP4, CHECK_FILE = (os.path.abspath(sys.argv.pop(1)) for _ in range(3))
os.environ["GST_PLUGIN_PATH"] = PLUGINS

PICTURES = "videotestsrc num-buffers=50 ! video/x-raw,width=160,height=120,framerate=25/1"
SOUND = ("audiotestsrc num-buffers=90 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
         "! avenc_aac ! aacparse")
# The encoder, and what qtmux wants of the same stream.
CODECS = {
    "h264": ("x264enc bframes=0 key-int-max=10 tune=zerolatency ! h264parse", "h264parse"),
    "hevc": ("x265enc option-string=bframes=0:keyint=10:open-gop=0 ! h265parse", "h265parse"),
    "prores": ("avenc_prores_ks", "identity"),
}


def launch(pipeline):
    result = run("gst-launch-1.0", "-q", *pipeline.split())
    if result.returncode or "ERROR" in result.stderr:
        raise AssertionError(result.stderr)


def streams(path):
    """The streams as ffprobe sees them; none where there is no index."""
    result = run("ffprobe", "-v", "error", "-count_packets", "-show_entries",
                 "stream=codec_name,codec_type,nb_read_packets,start_time,duration:stream_tags",
                 "-of", "json", path)
    return json.loads(result.stdout or "{}").get("streams", [])


def pictures(path):
    return sum(int(s["nb_read_packets"]) for s in streams(path) if s["codec_type"] == "video")


class Recordings(InFolder):
    def assert_sound(self, path, *flags):
        result = run(CHECK_FILE, *flags, path)
        self.assertEqual(result.returncode, 0, result.stdout)


class Pipelines(Recordings):
    def test_a_recording_decodes_to_what_was_encoded(self):
        for codec, (encoder, for_qtmux) in CODECS.items():
            for name, options in (("plain.mp4", ""), ("plain.mov", ""),
                                  ("safe.mp4", "safe-mode=true checkpoint-interval=60000 "
                                               "info-file=true"),
                                  ("large.mp4", "large-file=true durable=false")):
                with self.subTest(codec=codec, name=name):
                    self.record_and_compare(encoder, for_qtmux, self.path(name), options)

    def record_and_compare(self, encoder, for_qtmux, path, options):
        source = self.path("source.qt")
        launch(f"qtmux name=m ! filesink location={source} "
               f"kvmp4sink name=k location={path} {options} "
               f"{PICTURES} ! {encoder} ! tee name=v v. ! queue ! {for_qtmux} ! m. "
               f"v. ! queue ! k.video "
               f"{SOUND} ! tee name=a a. ! queue ! m. a. ! queue ! k.audio")
        self.assertEqual(len(decoded(path, "v")), 50)
        for kind in "va":
            self.assertEqual(decoded(path, kind), decoded(source, kind))
        if "safe" not in options:  # its room for the next index belongs to no sample
            self.assert_sound(path, *["--large-file"] * ("large" in options))
        self.assertFalse(os.path.exists(path + ".info"))

    def test_elements_link_without_parsers_and_pad_names(self):
        path = self.path("short.mp4")
        launch(f"kvmp4sink name=k location={path} {PICTURES} ! x264enc tune=zerolatency ! k. "
               f"audiotestsrc num-buffers=90 ! avenc_aac ! k.")
        self.assertEqual([s["codec_name"] for s in streams(path)], ["h264", "aac"])

    def test_live_sources_are_recorded(self):
        path = self.path("live.mp4")
        launch(f"kvmp4sink name=k location={path} videotestsrc is-live=true num-buffers=12 ! "
               f"video/x-raw,width=160,height=120,framerate=25/1 ! x264enc tune=zerolatency ! k. "
               f"audiotestsrc is-live=true num-buffers=10 ! avenc_aac ! k.")
        self.assertEqual(pictures(path), 12)
        self.assert_sound(path)

    def test_time_code_and_tags(self):
        path = self.path("told.mov")
        launch(f"kvmp4sink name=k location={path} {PICTURES} ! timecodestamper set=always "
               f"! x264enc tune=zerolatency ! taginject tags=title=A\\ take ! k."
               .replace("A\\ take", "Take"))
        self.assertIn("00:00:00:00", [s.get("tags", {}).get("timecode") for s in streams(path)])
        result = run("ffprobe", "-v", "error", "-show_entries", "format_tags=title", "-of",
                     "csv=p=0", path)
        self.assertEqual(result.stdout.strip(), "Take")

    def test_captions_are_recorded_and_can_be_read(self):
        """Line 21 of 50 pictures: pop-on captions that say Hello, shown and taken away."""
        pairs = ("9420 9420 94ae 94ae 9470 9470 c8e5 ecec ef80 942f 942f" + 20 * " 8080" +
                 " 942c 942c").split()
        said, path = self.path("pairs"), self.path("said.mp4")
        with open(said, "wb") as file:
            for pair in pairs + ["8080"] * (50 - len(pairs)):
                file.write(b"\x80" + bytes.fromhex(pair))
        launch(f"kvmp4sink name=k location={path} {PICTURES} ! x264enc tune=zerolatency ! queue "
               f"! k. filesrc location={said} ! rawvideoparse format=gray8 width=3 "
               "height=1 plane-strides=<3> frame-size=3 framerate=25/1 ! capssetter join=false "
               "replace=true caps=closedcaption/x-cea-608,format=s334-1a,framerate=25/1 ! queue ! k.caption")
        self.assertEqual([(s["codec_name"], s["nb_read_packets"]) for s in streams(path)],
                         [("h264", "50"), ("eia_608", "50")])
        self.assert_sound(path)
        text = run("ffmpeg", "-v", "error", "-i", path, "-map", "0:s", "-f", "srt", "-").stdout
        self.assertRegex(text, "00:00:00,360 --> 00:00:01,240\n.*Hello")

    def test_errors_end_the_pipeline(self):
        for location, says in (("/dev/full", "No space left|no space left"),
                               (self.path("none/clip.mp4"), "for writing")):
            result = run("gst-launch-1.0", "-q", "kvmp4sink", "name=k", f"location={location}",
                         *f"{PICTURES} ! x264enc tune=zerolatency ! k.".split())
            self.assertNotEqual(result.returncode, 0)
            self.assertRegex(result.stderr, says)


class Killed(Recordings):
    """The stream comes through a pipe that stays open; the kill comes when a message says how far
    the recording is."""

    def stream(self, codec):
        """60 pictures, 2.4 s, in a file that can be read from a pipe."""
        path = self.path(codec)
        launch(f"{PICTURES.replace('=50', '=60')} ! {CODECS[codec][0]} ! "
               f"matroskamux streamable=true ! filesink location={path}")
        return path

    def kill_when(self, pipeline, source, says):
        """Feeds a file to a pipeline's standard input and kills it at the first line that `says`
        is true of; gives what it is."""
        process = subprocess.Popen(["gst-launch-1.0", "-m", "-v", *pipeline.split()],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        lines = []
        try:
            with open(source, "rb") as file:
                process.stdin.write(file.read())
            process.stdin.flush()
            for line in process.stdout:
                lines.append(line.decode())
                if found := says(lines[-1]):
                    return found
        except BrokenPipeError:
            lines += [line.decode() for line in process.stdout]
        finally:
            process.send_signal(signal.SIGKILL)
            process.wait()
            process.stdout.close()
            try:
                process.stdin.close()
            except BrokenPipeError:
                pass
        raise AssertionError("the pipeline ended before it was killed: " + "".join(lines[-5:]))

    @staticmethod
    def checkpoint(seconds):
        """Of the first checkpoint from so many seconds on."""
        def says(line):
            found = re.search(r"kvmp4-checkpoint.*duration=\(guint64\)(\d+)", line)
            return found and int(found[1]) >= seconds * 1e9 and int(found[1]) / 1e9
        return says

    def test_a_killed_recording_plays_up_to_the_checkpoint_that_was_told(self):
        for codec, parse in (("h264", "h264parse"), ("hevc", "h265parse")):
            for name in ("killed.mp4", "killed.mov"):
                with self.subTest(codec=codec, name=name):
                    path = self.path(name)
                    told = self.kill_when(
                        f"fdsrc fd=0 ! matroskademux ! {parse} ! kvmp4sink location={path} "
                        "safe-mode=true checkpoint-strategy=fixed checkpoint-interval=8192",
                        self.stream(codec), self.checkpoint(1.0))
                    self.assertGreaterEqual(pictures(path), round(told * 25))
                    self.assertEqual(len(decoded(path, "v")), pictures(path))

    def test_a_killed_recording_is_repaired_from_its_log(self):
        path = self.path("killed.mp4")
        seen = []

        def fifty_five(line):
            seen.extend(re.findall("last-message = chain", line))
            return len(seen) >= 55
        # When the 55th picture comes, the 53rd is in the file and the log of 50 has been flushed;
        # its last entry is left out.
        self.kill_when("fdsrc fd=0 ! matroskademux ! h264parse ! identity silent=false ! "
                       f"kvmp4sink location={path} info-file=true info-flush-interval=10",
                       self.stream("h264"), fifty_five)
        self.assertEqual(streams(path), [])
        self.assertEqual(run(KVMP4, "repair", path).returncode, 0)
        self.assertGreaterEqual(pictures(path), 49)
        self.assertEqual(len(decoded(path, "v")), pictures(path))

    def test_a_killed_recording_keeps_as_much_as_the_robust_mode_of_mp4mux(self):
        ours, theirs = self.path("ours.mp4"), self.path("theirs.mp4")
        # Its index is renewed once a second of pictures: after 2.4 s it holds 2 s of them.
        self.kill_when(
            "mp4mux name=m reserved-max-duration=10000000000 "
            f"reserved-moov-update-period=1000000000 ! filesink location={theirs} "
            f"kvmp4sink name=k location={ours} safe-mode=true checkpoint-strategy=fixed "
            "checkpoint-interval=8192 fdsrc fd=0 ! matroskademux ! h264parse ! tee name=t "
            "t. ! queue ! k. t. ! queue ! h264parse ! m.",
            self.stream("h264"), self.checkpoint(2.12))
        self.assertEqual(len(decoded(ours, "v")), pictures(ours))
        self.assertGreaterEqual(pictures(ours), pictures(theirs))

    def test_no_length_is_reserved(self):
        """Where mp4mux gives up, at the end of what was reserved, kvmp4sink goes on."""
        ours, theirs = self.path("ours.mp4"), self.path("theirs.mp4")
        pipeline = f"filesrc location={self.stream('h264')} ! matroskademux ! h264parse ! "
        result = run("gst-launch-1.0", "-q", *(
            "mp4mux name=m reserved-max-duration=500000000 reserved-bytes-per-sec=200 "
            f"reserved-moov-update-period=100000000 ! filesink location={theirs} {pipeline} m.")
            .split())
        self.assertIn("reserved", result.stderr)
        launch(f"{pipeline} kvmp4sink location={ours} safe-mode=true checkpoint-interval=8192")
        self.assertEqual(pictures(ours), 60)


if __name__ == "__main__":
    unittest.main()
