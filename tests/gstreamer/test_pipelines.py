#!/usr/bin/env python3
"""`kvmp4sink` in real pipelines, ended properly and killed: judged by ffprobe, by decoding and by
the strict checker of the tests, and beside the robust mode of mp4mux on the same stream.

    test_pipelines.py PLUGIN_FOLDER KVMP4 CHECK_FILE [unittest arguments]
"""
import json
import math
import os
import re
import shutil
import signal
import subprocess
import sys
import textwrap
import threading
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
# What the streams need behind matroskademux, which tells the variant of ProRes by another name.
PARSERS = {"h264": "h264parse", "hevc": "h265parse",
           "prores": "capssetter caps=video/x-prores,variant=hq"}
# Line 21 of 50 pictures: pop-on captions that say Hello, shown and taken away.
HELLO = ("9420 9420 94ae 94ae 9470 9470 c8e5 ecec ef80 942f 942f" + 20 * " 8080" +
         " 942c 942c" + 17 * " 8080").split()


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


def frames(path, kind="video"):
    return sum(int(s["nb_read_packets"]) for s in streams(path) if s["codec_type"] == kind)


def read_aloud(path):
    """The captions as text, with their times."""
    return run("ffmpeg", "-v", "error", "-i", path, "-map", "0:s", "-f", "srt", "-").stdout


class Recordings(InFolder):
    def assert_sound(self, path, *flags):
        result = run(CHECK_FILE, *flags, path)
        self.assertEqual(result.returncode, 0, result.stdout)

    def captions(self):
        """The beginning of a pipeline: a caption for each of 50 pictures."""
        said = self.path("pairs")
        with open(said, "wb") as file:
            for pair in HELLO:
                file.write(b"\x80" + bytes.fromhex(pair))
        return (f"filesrc location={said} ! rawvideoparse format=gray8 width=3 height=1 "
                "plane-strides=<3> frame-size=3 framerate=25/1 ! capssetter join=false "
                "replace=true caps=closedcaption/x-cea-608,format=s334-1a,framerate=25/1")


class Inspected(unittest.TestCase):
    """What gst-inspect-1.0 shows of the element and of the plugin."""

    @classmethod
    def setUpClass(cls):
        cls.shown = cls.inspect("kvmp4sink")

    @staticmethod
    def inspect(what):
        result = run("gst-inspect-1.0", what)
        if result.returncode or result.stderr:
            raise AssertionError(f"{result.returncode} {result.stderr}")
        return result.stdout

    def section(self, title):
        """What stands indented below a title."""
        found = re.search(rf"^{title}:\n((?:  .*\n|\n(?=  ))+)", self.shown, re.M)
        self.assertIsNotNone(found, f"no {title} in {self.shown}")
        return textwrap.dedent(found[1])

    def details(self, title):
        return dict(re.findall(r"^(\S+(?: \S+)*) {2,}(.*)$", self.section(title), re.M))

    def test_the_element_is_a_muxer_and_a_sink_that_is_never_chosen_by_itself(self):
        self.assertEqual(self.details("Factory Details"), {
            "Rank": "none (0)",
            "Long-name": "MP4 and MOV recorder",
            "Klass": "Codec/Muxer/Sink/File",
            "Description": "Records H.264, HEVC or ProRes video, AAC audio, closed captions and a "
                           "time code into an MP4 or MOV file that survives a crash",
            "Author": "libkv_mp4"})
        self.assertIn("+----GstBin\n", self.shown)
        self.assertEqual(self.section("Implemented Interfaces").split(),
                         ["GstChildProxy", "GstTagSetter"])

    def test_the_plugin_tells_of_itself(self):
        version = run(KVMP4, "--version").stdout
        details = self.details("Plugin Details")
        self.assertIn(details.pop("Version"), version.split())
        self.assertEqual(details, {
            "Name": "kvmp4",
            "Description": "Records live video into MP4 and MOV files that survive a crash",
            "Filename": os.path.join(PLUGINS, "libgstkvmp4.so"),
            "License": "unknown",
            "Source module": "kv_mp4",
            "Binary package": "libkv_mp4",
            "Origin URL": "libkv_mp4"})

    def test_the_plugins_file_holds_the_element_and_nothing_else(self):
        shown = self.inspect(os.path.join(PLUGINS, "libgstkvmp4.so"))
        self.assertRegex(shown, r"Name +kvmp4\n")
        self.assertRegex(shown, r"\n  kvmp4sink: MP4 and MOV recorder\n\n  1 features:\n"
                                r"  \+-- 1 elements\n")

    def test_a_pad_of_each_kind_can_be_requested(self):
        sizes = "width: [ 1, 65535 ] height: [ 1, 65535 ]"
        whole_pictures = f"stream-format: byte-stream alignment: au {sizes}"
        self.assertEqual(" ".join(self.section("Pad Templates").split()), " ".join((
            "SINK template: 'audio' Availability: On request Capabilities:",
            "audio/mpeg mpegversion: 4 stream-format: { (string)raw, (string)adts }",
            "rate: [ 1, 65535 ] channels: [ 1, 8 ]",
            "SINK template: 'caption' Availability: On request Capabilities:",
            "closedcaption/x-cea-608 format: { (string)s334-1a, (string)raw }",
            "closedcaption/x-cea-708 format: cdp",
            "SINK template: 'video' Availability: On request Capabilities:",
            f"video/x-h264 {whole_pictures} video/x-h265 {whole_pictures}",
            "video/x-prores variant: { (string)proxy, (string)lt, (string)standard, (string)hq,",
            f"(string)4444, (string)4444xq }} {sizes}")))
        self.assertIn("Pads:\n  none\n", self.shown)

    def test_the_properties_have_defaults_ranges_and_states(self):
        read, at_rest = "readable", "readable, writable, changeable only in NULL or READY state"
        always = "readable, writable, changeable in NULL, READY, PAUSED or PLAYING state"
        number, number64 = (f"Unsigned Integer{bits}. Range: %d - {largest} Default: %d"
                            for bits, largest in (("", 2**32 - 1), ("64", 2**64 - 1)))
        expected = {
            "location": (at_rest, 'String. Default: ""'),
            "safe-mode": (at_rest, "Boolean. Default: false"),
            "checkpoint-interval": (always, number % (0, 10485760)),
            "checkpoint-max-interval": (always, number % (0, 104857600)),
            "checkpoint-threshold": (always, number % (0, 1073741824)),
            "checkpoint-strategy": (
                always, 'Enum "KvMp4SinkCheckpointStrategy" Default: 1, "linear"',
                "(0): fixed - The same distance always (checkpoint-interval)",
                "(1): linear - Growing from checkpoint-interval to checkpoint-max-interval",
                "(2): stepped - checkpoint-interval up to the threshold, then "
                "checkpoint-max-interval"),
            "info-file": (at_rest, "Boolean. Default: false"),
            "info-flush-interval": (at_rest, number % (10, 900)),
            "large-file": (at_rest, "Boolean. Default: false"),
            "durable": (at_rest, "Boolean. Default: true"),
            "duration": (read, number64 % (0, 0)),
            "bytes-written": (read, number64 % (0, 0)),
        }
        shown = {}
        for line in self.section("Element Properties").splitlines():
            if begun := re.match(r"(\S+?) *: \S", line):
                values = shown[begun[1]] = []
            else:
                values.append(re.sub("^flags: ", "", " ".join(line.split())))
        for of_bins in ("name", "parent", "async-handling", "message-forward"):
            shown.pop(of_bins)
        self.assertEqual({name: tuple(values) for name, values in shown.items()}, expected)

    def test_the_documentation_lists_each_property_with_its_default(self):
        page = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                            "..", "..", "docs", "gstreamer.md")
        with open(page, encoding="utf-8") as file:
            section = file.read().split("\n## Properties\n")[1].split("\n## ")[0]
        told = dict(re.findall(r"^\| `([a-z-]+)` \| ?(\w*) \| ", section, re.M))
        shown = dict(re.findall(r"^  ([a-z-]+) *: .*\n +flags.*\n +.*Default: (?:\d, )?(\S*)",
                                self.shown, re.M))
        for name, default in told.items():
            self.assertIn(name, shown)
            if default:
                self.assertEqual(shown[name].strip('"'), default, name)
        self.assertEqual(len(told), 12)


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
        self.assertEqual(frames(path), 12)
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
        path = self.path("said.mp4")
        launch(f"kvmp4sink name=k location={path} {PICTURES} ! x264enc tune=zerolatency ! queue "
               f"! k. {self.captions()} ! queue ! k.caption")
        self.assertEqual([(s["codec_name"], s["nb_read_packets"]) for s in streams(path)],
                         [("h264", "50"), ("eia_608", "50")])
        self.assert_sound(path)
        self.assertRegex(read_aloud(path), "00:00:00,360 --> 00:00:01,240\n.*Hello")

    def test_errors_end_the_pipeline(self):
        for location, says in (("/dev/full", "No space left|no space left"),
                               (self.path("none/clip.mp4"), "for writing")):
            result = run("gst-launch-1.0", "-q", "kvmp4sink", "name=k", f"location={location}",
                         *f"{PICTURES} ! x264enc tune=zerolatency ! k.".split())
            self.assertNotEqual(result.returncode, 0)
            self.assertRegex(result.stderr, says)


class Killed(Recordings):
    """The stream comes through a pipe that stays open; the kill comes when messages say how far
    the recording is."""

    # The distances are above the index and two frames, those of ProRes being of 10 KB.
    SAFE = "safe-mode=true checkpoint-strategy=fixed checkpoint-interval="
    ROBUST = "reserved-max-duration=10000000000 reserved-moov-update-period=1000000000"

    def stream(self, codec):
        """70 pictures, 2.8 s, in a file that can be read from a pipe."""
        path = self.path(codec)
        if not os.path.exists(path):
            launch(f"{PICTURES.replace('=50', '=70')} ! {CODECS[codec][0]} ! "
                   f"matroskamux streamable=true ! filesink location={path}")
        return path

    def sound(self):
        """As long, for a file of its own: matroskademux takes it for sound of 96 kHz."""
        path = self.path("adts")
        if not os.path.exists(path):
            launch(f"{SOUND.replace('=90', '=132')} ! audio/mpeg,stream-format=adts ! "
                   f"filesink location={path}")
        return path

    def kill_when(self, pipeline, source, says):
        """Feeds a file to a pipeline's standard input and kills it at the first line that `says`
        is true of; gives what it is."""
        process = subprocess.Popen(["gst-launch-1.0", "-m", "-v", *pipeline.split()],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        lines = []
        feeder = threading.Thread(target=self.feed, args=(process.stdin, source))
        watchdog = threading.Timer(120, process.kill)  # of a pipeline that hangs
        feeder.start()
        watchdog.start()
        try:
            for line in process.stdout:
                lines.append(line.decode())
                if found := says(lines[-1]):
                    return found
        finally:
            process.send_signal(signal.SIGKILL)
            process.wait()
            watchdog.cancel()
            process.stdout.close()
            feeder.join()
            try:
                process.stdin.close()
            except BrokenPipeError:
                pass
        raise AssertionError("the pipeline ended before it was killed: " + "".join(lines[-5:]))

    @staticmethod
    def feed(pipe, source):
        try:
            with open(source, "rb") as file:
                shutil.copyfileobj(file, pipe)
            pipe.flush()
        except BrokenPipeError:
            pass

    @staticmethod
    def checkpoint(seconds):
        """Of the first checkpoint from so many seconds on."""
        def says(line):
            found = re.search(r"kvmp4-checkpoint.*duration=\(guint64\)(\d+)", line)
            return found and int(found[1]) >= seconds * 1e9 and int(found[1]) / 1e9
        return says

    @staticmethod
    def both(says, count):
        """Of the first line from which on `says` has been true, and so many frames have been
        shown by an `identity`."""
        seen = []

        def says_both(line):
            seen.extend(re.findall("last-message = chain", line))
            says_both.found = says(line) or says_both.found
            return len(seen) >= count and says_both.found
        says_both.found = None
        return says_both

    def assert_kept(self, path, told, **sources):
        """What was told is in the file, and what is there decodes to the source's beginning."""
        self.assertGreaterEqual(frames(path), int(told * 25 + 0.01))
        for kind, source in sources.items():
            kept = decoded(path, kind[0])
            self.assertEqual(len(kept), frames(path, kind))
            self.assertEqual(kept, decoded(source, kind[0])[:len(kept)])

    def test_a_killed_recording_plays_up_to_the_checkpoint_that_was_told(self):
        for codec, parse in PARSERS.items():
            for name in ("killed.mp4", "killed.mov"):
                with self.subTest(codec=codec, name=name):
                    path, source = self.path(name), self.stream(codec)
                    told = self.kill_when(
                        f"fdsrc fd=0 ! matroskademux ! {parse} ! kvmp4sink location={path} "
                        f"{self.SAFE}32768", source, self.checkpoint(1.0))
                    self.assert_kept(path, told, video=source)

    def test_sound_and_captions_are_there_up_to_the_checkpoint_that_was_told(self):
        for codec, name in (("h264", "three.mp4"), ("hevc", "three.mov"), ("prores", "three.mov")):
            with self.subTest(codec=codec, name=name):
                path, source, sound = self.path(name), self.stream(codec), self.sound()
                told = self.kill_when(
                    f"kvmp4sink name=k location={path} {self.SAFE}32768 "
                    f"fdsrc fd=0 ! matroskademux ! {PARSERS[codec]} ! queue ! k.video "
                    f"filesrc location={sound} ! aacparse ! queue ! k.audio "
                    f"{self.captions()} ! queue ! k.caption", source, self.checkpoint(1.6))
                self.assert_kept(path, told, video=source, audio=sound)
                # What begins before the last picture is there; the captions end after 2 s.
                before = told - 0.04
                self.assertGreaterEqual(frames(path, "audio"),
                                        math.ceil(before * 48000 / 1024 - 0.01))
                self.assertGreaterEqual(frames(path, "subtitle"),
                                        min(50, math.ceil(before * 25 - 0.01)))
                self.assertRegex(read_aloud(path), "00:00:00,360 --> 00:00:01,240\n.*Hello")

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
        self.assertGreaterEqual(frames(path), 49)
        self.assertEqual(len(decoded(path, "v")), frames(path))

    def test_a_killed_recording_keeps_as_much_as_the_robust_mode_of_mp4mux(self):
        # Its index is renewed once a second of pictures: of 2.8 s it holds 2 s. The kill comes when
        # both have the pictures up to there.
        for codec in ("h264", "hevc"):
            parse = PARSERS[codec]
            for sound in (False, True):
                with self.subTest(codec=codec, sound=sound):
                    ours, theirs = self.path("ours.mp4"), self.path("theirs.mp4")
                    self.kill_when(
                        f"mp4mux name=m {self.ROBUST} ! filesink location={theirs} "
                        f"kvmp4sink name=k location={ours} {self.SAFE}16384 "
                        f"fdsrc fd=0 ! matroskademux ! {parse} ! tee name=v v. ! queue ! k.video "
                        f"v. ! queue ! {parse} ! identity silent=false ! m. " +
                        f"filesrc location={self.sound()} ! aacparse ! tee name=a "
                        "a. ! queue ! k.audio a. ! queue ! m." * sound,
                        self.stream(codec), self.both(self.checkpoint(2.12), 54))
                    self.assertEqual(len(decoded(ours, "v")), frames(ours))
                    kept = {kind: (frames(ours, kind), frames(theirs, kind))
                            for kind in ("video", "audio")[:1 + sound]}
                    for kind, (of_ours, of_theirs) in kept.items():
                        self.assertGreater(of_theirs, 0, kept)
                        self.assertGreaterEqual(of_ours, of_theirs, kind)

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
        self.assertEqual(frames(ours), 70)


if __name__ == "__main__":
    unittest.main()
