#!/usr/bin/env python3
"""Captions and time codes of `kvmp4 record`, made by real encoders and read back by FFmpeg.

    test_captions.py KVMP4 CHECK_FILE [unittest arguments]

The captions are an .scc file that FFmpeg reads; GStreamer's x264enc puts them into the video. What
rides in a source's pictures is asked of FFmpeg's decoder, what lies in a recording of its demuxer.
"""
import json
import os
import re
import subprocess
import sys
import unittest

from programs import InFolder

KVMP4 = os.path.abspath(sys.argv.pop(1))
CHECK_FILE = os.path.abspath(sys.argv.pop(1))
RATE = "30000/1001"
FRAME = 1001 / 30000
FRAMES = 120

# "Hello" on row 15 by pop-on: load, erase, place, text, show.
HELLO = "9420 9420 94ae 94ae 9470 9470 c8e5 ecec ef80 942f 942f".split()
CLEAR = ["942c", "942c"]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, stdin=subprocess.DEVNULL, timeout=300,
                          **options)


def must(*command):
    result = run(*command)
    if result.returncode or b"ERROR" in result.stderr:
        raise AssertionError(f"{command[0]}: {result.stderr.decode()}")
    return result.stdout


def ffmpeg(*arguments):
    must("ffmpeg", "-v", "error", "-y", *arguments)


def probe(path, *arguments):
    return json.loads(must("ffprobe", "-v", "error", "-of", "json", *arguments, path))


def streams(path):
    return probe(path, "-show_streams")["streams"]


def tracks(path):
    """The sample entries of a file's tracks, sorted."""
    return sorted(stream["codec_tag_string"] for stream in streams(path))


def octets(dump):
    """The bytes of ffprobe's -show_data."""
    lines = (line.split("  ")[0].split(": ")[1] for line in dump.strip().splitlines())
    return bytes.fromhex("".join(lines))


def packets(path, tag):
    """(seconds, bytes) of each packet of the track with a sample entry."""
    index = next(s["index"] for s in streams(path) if s["codec_tag_string"] == tag)
    found = probe(path, "-select_streams", str(index), "-show_packets", "-show_data")["packets"]
    return [(float(p["pts_time"]), octets(p["data"])) for p in found]


def triples(data):
    return [data[at:at + 3] for at in range(0, len(data), 3)]


def ridden(path):
    """(seconds from the first picture, entries) of the captions in the pictures, as decoded."""
    first = min(float(p["pts_time"]) for p in
                probe(path, "-select_streams", "v", "-show_packets")["packets"])
    found = probe(f"movie={path}[out0+subcc]", "-f", "lavfi", "-select_streams", "s",
                  "-show_packets", "-show_data")["packets"]
    return [(float(p["pts_time"]) - first, triples(octets(p["data"]))) for p in found]


def atoms(sample):
    """(type, content) of each atom of a sample."""
    found = []
    while sample:
        size = int.from_bytes(sample[:4], "big")
        assert 8 <= size <= len(sample), sample
        found.append((sample[4:8].decode(), sample[8:size]))
        sample = sample[size:]
    return found


def cdp_entries(packet):
    """The entries in a caption distribution packet, which must be a whole one."""
    assert packet[:2] == b"\x96\x69" and packet[2] == len(packet), packet
    assert sum(packet) % 256 == 0, packet
    assert packet[4] & 0xc0 == 0x40 and packet[7] == 0x72, packet
    end = 9 + 3 * (packet[8] & 31)
    assert packet[end] == 0x74 and packet[end + 1:end + 3] == packet[5:7], packet
    return triples(packet[9:end])


def label(frame):
    """The non-drop name of a frame at 30 in a second."""
    return "%02d:%02d:%02d:%02d" % (frame // 108000, frame // 1800 % 60, frame // 30 % 60,
                                    frame % 30)


def scc(path, *lines):
    """A caption file of (time code, pairs) lines."""
    with open(path, "w") as file:
        file.write("Scenarist_SCC V1.0\n")
        for time, pairs in lines:
            file.write(f"\n{time}\t{' '.join(pairs)}\n")
    return path


def sei(entries, hevc):
    """An SEI unit with the captions of one picture (ATSC A/53), start code in front."""
    data = (b"\xb5\x00\x31GA94\x03" + bytes([0xc0 | len(entries), 0xff]) + b"".join(entries)
            + b"\xff")
    unit = bytes([4, len(data)]) + data + b"\x80"
    unit = re.sub(rb"\x00\x00(?=[\x00-\x03])", b"\x00\x00\x03", unit)
    return b"\x00\x00\x00\x01" + (b"\x4e\x01" if hevc else b"\x06") + unit


def graft(stream, output, captions, rate=RATE):
    """Puts captions, a list of entries for each picture, behind the delimiters of a raw stream."""
    hevc = stream.endswith("hevc")
    with open(stream, "rb") as file:
        parts = re.split(rb"(\x00\x00\x00?\x01" + (rb"\x46\x01." if hevc else rb"\x09.") + rb")",
                         file.read(), flags=re.DOTALL)
    assert len(parts) == 2 * len(captions) + 1, len(parts)
    raw = output + (".hevc" if hevc else ".h264")
    with open(raw, "wb") as file:
        for n, entries in enumerate(captions):
            file.write(parts[2 * n + 1] + (sei(entries, hevc) if entries else b"")
                       + parts[2 * n + 2])
    ffmpeg("-framerate", rate, "-i", raw, "-c", "copy", output)
    return output


class Case(InFolder):
    """Sources made once for all tests, and the recorder."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.made = {}

    def once(self, name, make):
        if name not in self.made:
            make(self.path(name))
            self.made[name] = self.path(name)
        return self.made[name]

    def script(self):
        """A caption file with a pair a line, each in the picture that shall carry it."""
        lines = [(label(start + n), [pair]) for start in (8, 50) for n, pair in enumerate(HELLO)]
        lines += [(label(90), ["942c"]), (label(110), ["942c"]), (label(115), ["942c"])]
        return self.once("hello.scc", lambda path: scc(path, *lines))

    def track(self):
        """The same as a c608 track, by FFmpeg's muxer. Its time base is the millisecond."""
        return self.once("hello.qt", lambda path: ffmpeg(
            "-i", self.script(), "-map", "0", "-c", "copy", "-f", "mov", path))

    def plain(self, codec="h264", rate=RATE):
        """A raw stream with delimiters and without captions."""
        name = f"plain_{rate.replace('/', '_')}.{codec}"
        coder = {"h264": ["-c:v", "libx264", "-x264-params", "aud=1:bframes=0:keyint=15"],
                 "hevc": ["-c:v", "libx265", "-x265-params",
                          "aud=1:bframes=0:keyint=15:open-gop=0:log-level=none"]}[codec]
        return self.once(name, lambda path: ffmpeg(
            "-f", "lavfi", "-i", f"testsrc2=size=160x120:rate={rate}", "-frames:v", str(FRAMES),
            "-preset", "ultrafast", "-pix_fmt", "yuv420p", *coder, path))

    def video(self, rate=RATE):
        """The same in a container."""
        return self.once(f"plain_{rate.replace('/', '_')}.ts", lambda path: ffmpeg(
            "-framerate", rate, "-i", self.plain("h264", rate), "-c", "copy", path))

    def encoded(self, bframes=0):
        """Video with captions and sound, by GStreamer's combiner and encoder."""
        def make(path):
            must("gst-launch-1.0", "-q", "videotestsrc", f"num-buffers={FRAMES}", "!",
                 f"video/x-raw,width=160,height=120,framerate={RATE}", "!", "cccombiner",
                 "name=both", "!", "x264enc", f"bframes={bframes}", "key-int-max=15", "!",
                 "video/x-h264,profile=main", "!", "h264parse", "!", "mpegtsmux", "!", "filesink",
                 f"location={path}.video", "filesrc", f"location={self.track()}", "!", "qtdemux",
                 "!", "queue", "!", "closedcaption/x-cea-608", "!", "ccconverter", "!",
                 f"closedcaption/x-cea-708,format=cc_data,framerate={RATE}", "!", "queue", "!",
                 "both.caption")
            ffmpeg("-i", path + ".video", "-f", "lavfi", "-i",
                   f"sine=sample_rate=48000:duration={FRAMES * FRAME}", "-c:v", "copy", "-c:a",
                   "aac", path)
        return self.once(f"encoded{bframes}.ts", make)

    def record(self, *arguments):
        return subprocess.run([KVMP4, "record", "-y", *arguments], capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=120)

    def recorded(self, name, *arguments):
        output = self.path(name)
        # Captions and time codes have the short forms in any file, and all tracks here then.
        result = self.record(*arguments, "--no-large-file", "--no-version1", "-o", output)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.warning = result.stderr
        checked = run(CHECK_FILE, output)
        self.assertEqual((checked.returncode, checked.stdout), (0, b""))
        return output

    def assert_timed(self, found, expected):
        """Equal content, at times that differ by the rounding of a millisecond at most."""
        self.assertEqual([what for _, what in found], [what for _, what in expected])
        for (time, _), (wanted, _) in zip(found, expected):
            self.assertAlmostEqual(time, wanted, delta=0.0011)


def valid_608(source):
    """What a c608 track of one field says of the captions that ride in a source."""
    return [(seconds, entry) for seconds, entries in source for entry in entries
            if entry[0] & 7 == 4]


class FromPictures(Case):
    """Captions that ride in SEI units."""

    def test_the_pairs_of_a_real_encoder_are_read_back_at_their_times(self):
        source = valid_608(ridden(self.encoded()))
        self.assertEqual([pair[1:].hex() for _, pair in source], HELLO * 2 + ["942c"] * 2)
        for kind in ("mov", "mp4"):
            with self.subTest(kind=kind):
                output = self.recorded(f"pairs.{kind}", "-i", self.encoded())
                found = packets(output, "c608")
                # The first and the last one are padding: the track spans the recording.
                self.assertEqual((found[0], found[-1][1]), ((0, b"\xfc\x80\x80"), b"\xfc\x80\x80"))
                self.assert_timed(found[1:-1], source)

    def test_b_frames_leave_captions_in_the_order_of_showing(self):
        source = valid_608(ridden(self.encoded(3)))
        self.assertEqual([pair[1:].hex() for _, pair in source], HELLO * 2 + ["942c"] * 2)
        output = self.recorded("b.mov", "-i", self.encoded(3))
        self.assertIn("B-frames", self.warning)
        found = packets(output, "c608")
        self.assert_timed(found[1:-1], source)

    def test_reordered_pictures_without_decoding_times_or_without_any(self):
        source = valid_608(ridden(self.encoded(3)))
        for name, options in (("b.mkv", []), ("b.h264", ["--fps", RATE])):
            with self.subTest(name=name):
                ffmpeg("-i", self.encoded(3), "-map", "0:v", "-c", "copy", self.path(name))
                output = self.recorded("reordered.mov", "-i", self.path(name), *options)
                self.assertIn("B-frames", self.warning)
                found = packets(output, "c608")
                self.assert_timed(found[1:-1], source)

    def test_a_recording_ends_with_its_video_and_not_with_a_caption(self):
        output = self.recorded("ends.mov", "-i", self.encoded())
        last = {s["codec_tag_string"]: float(s["duration"]) for s in streams(output)}
        # The sound ends within a frame of the video.
        self.assertAlmostEqual(last["c608"], last["avc1"], delta=1024 / 48000)

    def test_packets_of_cea_708_hold_all_entries_of_each_picture(self):
        source = ridden(self.encoded())
        for kind in ("mov", "mp4"):
            with self.subTest(kind=kind):
                output = self.recorded(f"cdp.{kind}", "-i", self.encoded(),
                                       "--caption-format", "708")
                found = [(seconds, atoms(data)) for seconds, data in packets(output, "c708")]
                self.assertEqual({len(sample) for _, sample in found}, {1})
                self.assertEqual({sample[0][0] for _, sample in found}, {"ccdp"})
                self.assert_timed([(seconds, cdp_entries(sample[0][1]))
                                   for seconds, sample in found], source)
                numbers = [int.from_bytes(sample[0][1][5:7], "big") for _, sample in found]
                self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))

    def test_gstreamer_reads_the_packets(self):
        output = self.recorded("cdps.mov", "-i", self.encoded(), "--caption-format", "708")
        bodies = [atoms(data)[0][1] for _, data in packets(output, "c708")]
        self.assertEqual(len({len(body) for body in bodies}), 1)
        with open(self.path("cdps"), "wb") as file:
            file.write(b"".join(bodies))
        must("gst-launch-1.0", "-q", "filesrc", f"location={self.path('cdps')}",
             f"blocksize={len(bodies[0])}", "!",
             f"closedcaption/x-cea-708,format=cdp,framerate={RATE}", "!", "ccconverter", "!",
             "closedcaption/x-cea-608,format=raw", "!", "filesink",
             f"location={self.path('pairs')}")
        with open(self.path("pairs"), "rb") as file:
            pairs = file.read().hex()
        said = [pairs[at:at + 4] for at in range(0, len(pairs), 4)]
        self.assertEqual([pair for pair in said if pair != "8080"], HELLO * 2 + ["942c"] * 2)

    def test_hevc_carries_captions_too(self):
        entries = [entries for _, entries in ridden(self.encoded())]
        entries += [[]] * (FRAMES - len(entries))
        source = graft(self.plain("hevc"), self.path("grafted_hevc.ts"), entries)
        self.assertEqual([e for _, e in ridden(source)], [e for e in entries if e])
        output = self.recorded("hevc.mov", "-i", source)
        found = packets(output, "c608")
        self.assert_timed(found[1:-1], valid_608(ridden(source)))

    def test_both_fields_are_recorded_but_no_entry_that_is_not_valid(self):
        said = [[b"\xfc\xc8\xe5", b"\xfd\x80\x80"], [b"\xfc\xec\xec", b"\xfd\x15\x2c"],
                [b"\xf8\x80\x80", b"\xfd\x15\x2c"], [b"\xfc\xef\x80", b"\xf9\x80\x80"]]
        source = graft(self.plain(), self.path("two.ts"), said + [[]] * (FRAMES - 4))
        self.assertEqual([entries for _, entries in ridden(source)], said)
        output = self.recorded("two.mov", "-i", source)
        self.assertEqual([data.hex() for _, data in packets(output, "c608")],
                         ["fcc8e5fd8080", "fcececfd152c", "fd152c", "fcef80"])

    def test_more_pairs_than_a_picture_has_room_for_share_its_time(self):
        said = [b"\xfc\xc8\xe5", b"\xfc\xec\xec", b"\xfd\x15\x2c", b"\xfc\xef\x80"]
        rate = "24000/1001"
        source = graft(self.plain("h264", rate), self.path("film.ts"),
                       [said] + [[]] * (FRAMES - 2) + [said[:1]], rate)
        found = packets(self.recorded("film.mov", "-i", source), "c608")
        self.assertEqual([data.hex() for _, data in found],
                         ["fcc8e5fd152c", "fcecec", "fcef80", "fcc8e5", "fc8080"])
        for n in range(3):
            self.assertAlmostEqual(found[n][0], n * 1001 / 24000 / 3, delta=0.0011)

    def test_bytes_that_look_like_start_codes_come_through(self):
        entries = [b"\xfe\x00\x00", b"\xfe\x01\x00", b"\xfe\x00\x00", b"\xfe\x03\x00",
                   b"\xfa\x00\x00"]
        source = graft(self.plain(), self.path("zeros.ts"), [entries] * FRAMES)
        self.assertEqual(ridden(source)[0][1], entries)
        output = self.recorded("zeros.mov", "-i", source, "--caption-format", "708")
        found = [cdp_entries(atoms(data)[0][1]) for _, data in packets(output, "c708")]
        self.assertEqual(found, [entries] * FRAMES)

    def test_user_data_that_is_cut_or_of_others_holds_no_captions(self):
        entries = [b"\xfc\xc8\xe5", b"\xfc\xec\xec"]
        source = graft(self.plain(), self.path("cut.ts"), [entries] * FRAMES)
        with open(source + ".h264", "rb") as file:
            whole = file.read()
        for name, old, new in (("count", b"GA94\x03\xc2", b"GA94\x03\xdf"),
                               ("unused", b"GA94\x03\xc2", b"GA94\x03\x82"),
                               ("owner", b"GA94\x03", b"DTG1\x03"),
                               ("length", b"\x04\x11\xb5", b"\x04\xfe\xb5")):
            with self.subTest(name=name):
                self.assertEqual(whole.count(old), FRAMES)
                with open(self.path("cut.h264"), "wb") as file:
                    file.write(whole.replace(old, new))
                output = self.recorded("cut.mov", "-i", self.path("cut.h264"), "--fps", RATE)
                self.assertEqual(tracks(output), ["avc1"])
                self.assertEqual(int(streams(output)[0]["nb_frames"]), FRAMES)
        output = self.recorded("cut.mov", "-i", source + ".h264", "--fps", RATE)
        self.assertEqual(tracks(output), ["avc1", "c608"])

    def test_without_captions_there_is_no_track(self):
        self.assertEqual(tracks(self.recorded("plain.mov", "-i", self.video())), ["avc1"])
        output = self.recorded("left.mov", "-i", self.encoded(), "--captions", "none")
        self.assertEqual(tracks(output), ["avc1", "mp4a"])


class FromElsewhere(Case):
    """Caption files and caption tracks."""

    def paired(self, output):
        """(frame number, pair) of each sample; the padding of the ends left out."""
        return [(round(seconds / FRAME), data[1:].hex())
                for seconds, data in packets(output, "c608") if data != b"\xfc\x80\x80"]

    def from_file(self, lines, *arguments):
        captions = scc(self.path("lines.scc"), *lines)
        output = self.recorded("lines.mov", "-i", self.video(), "-i", captions, *arguments)
        return self.paired(output)

    def test_each_pair_of_a_line_takes_a_picture(self):
        for kind in ("mov", "mp4"):
            with self.subTest(kind=kind):
                captions = scc(self.path("line.scc"), ("00:00:00:08", HELLO),
                               ("00:00:02:00", CLEAR))
                output = self.recorded(f"line.{kind}", "-i", self.video(), "-i", captions)
                self.assertEqual(self.paired(output), list(enumerate(HELLO, 8))
                                 + list(enumerate(CLEAR, 60)))
                self.assertEqual([e for e in self.said(captions)], HELLO + CLEAR)

    def said(self, captions):
        found = probe(captions, "-show_packets", "-show_data")["packets"]
        return [entry[1:].hex() for p in found for entry in triples(octets(p["data"]))]

    def test_lines_that_come_too_early_wait_for_their_turn(self):
        found = self.from_file([("00:00:00:00", HELLO), ("00:00:00:04", CLEAR)])
        self.assertEqual(found, list(enumerate(HELLO + CLEAR)))

    def test_lines_count_from_the_time_code_with_and_without_dropped_frames(self):
        # ;28 and ;29 of second 59, then ;02 and ;03 of minute 1
        found = self.from_file([("00:01:00;02", CLEAR)], "--timecode", "00:00:59;28")
        self.assertEqual(found, list(enumerate(CLEAR, 2)))
        found = self.from_file([("00:01:00:02", CLEAR)], "--timecode", "00:00:59:28")
        self.assertEqual(found, list(enumerate(CLEAR, 4)))

    def test_lines_before_the_time_code_count_from_the_beginning(self):
        found = self.from_file([("00:00:01:00", CLEAR)], "--timecode", "10:00:00:00")
        self.assertEqual(found, list(enumerate(CLEAR, 30)))

    def test_a_caption_file_ends_with_the_recording(self):
        lines = [("00:00:00:08", CLEAR), ("00:00:03:00", CLEAR), ("00:00:10:00", HELLO)]
        self.assertEqual(self.from_file(lines),
                         list(enumerate(CLEAR, 8)) + list(enumerate(CLEAR, 90)))
        self.assertEqual(self.from_file(lines, "--duration", "1"), list(enumerate(CLEAR, 8)))

    def test_a_caption_file_goes_before_captions_in_the_pictures(self):
        captions = scc(self.path("first.scc"), ("00:00:00:20", CLEAR))
        output = self.recorded("first.mov", "-i", self.encoded(), "-i", captions)
        self.assertEqual(self.paired(output), list(enumerate(CLEAR, 20)))

    def test_a_caption_file_becomes_packets(self):
        captions = scc(self.path("cdp.scc"), ("00:00:00:00", HELLO))
        output = self.recorded("ofscc.mov", "-i", self.video(), "-i", captions,
                               "--caption-format", "708")
        entries = [cdp_entries(atoms(data)[0][1]) for _, data in packets(output, "c708")]
        self.assertEqual([entry.hex() for (entry,) in entries], ["fc" + pair for pair in HELLO])

    def test_a_track_of_another_muxer_says_the_same(self):
        apart = self.recorded("apart.mov", "-i", self.video(), "-i", self.track())
        both = self.once("both.qt", lambda path: ffmpeg(
            "-i", self.video(), "-i", self.script(), "-map", "0", "-map", "1", "-c", "copy",
            "-f", "mov", path))
        inside = self.recorded("inside.mov", "-i", both)
        expected = list(enumerate(HELLO, 8)) + list(enumerate(HELLO, 50))
        for output in (apart, inside):
            self.assertEqual(self.paired(output)[:len(expected)], expected)

    def test_many_pairs_in_one_sample_take_a_picture_each(self):
        captions = scc(self.path("line.scc"), ("00:00:00:00", HELLO), ("00:00:02:00", CLEAR))
        many = self.path("many.qt")
        ffmpeg("-i", captions, "-map", "0", "-c", "copy", "-f", "mov", many)
        self.assertEqual([len(data) for _, data in packets(many, "c608")][0], 3 * len(HELLO))
        output = self.recorded("many.mov", "-i", self.video(), "-i", many)
        self.assertEqual(self.paired(output)[:len(HELLO)], list(enumerate(HELLO)))

    def test_the_source_of_captions_can_be_chosen(self):
        captions = scc(self.path("track.scc"), ("00:00:00:20", CLEAR), ("00:00:02:00", CLEAR))
        two = self.path("two.qt")
        ffmpeg("-i", self.encoded(), "-i", captions, "-map", "0:v", "-map", "1", "-c", "copy",
               "-f", "mov", two)
        index = str(next(s["index"] for s in streams(two) if s["codec_name"] == "eia_608"))
        for choice in ("auto", index):
            output = self.recorded("chosen.mov", "-i", two, "--captions", choice)
            self.assertEqual(self.paired(output)[0], (20, CLEAR[0]))
        output = self.recorded("chosen.mov", "-i", two, "--captions", "video")
        self.assertEqual([pair for _, pair in self.paired(output)], HELLO * 2 + ["942c"] * 2)

    def test_a_recording_recorded_again_keeps_its_captions(self):
        said = [[b"\xfc\xc8\xe5", b"\xfd\x15\x2c"]] * FRAMES
        source = graft(self.plain(), self.path("again.ts"), said)
        for form, tag in (("608", "c608"), ("708", "c708")):
            with self.subTest(form=form):
                first = self.recorded("once.mov", "-i", source, "--caption-format", form)
                second = self.recorded("again.mov", "-i", first)
                self.assertEqual(len(packets(first, tag)), FRAMES)
                self.assertEqual(packets(second, tag), packets(first, tag))

    def test_broken_packets_are_left_out_with_a_warning(self):
        said = [[b"\xfc\xc8\xe5"]] * FRAMES
        source = graft(self.plain(), self.path("sound.ts"), said)
        whole = self.recorded("whole.mov", "-i", source, "--caption-format", "708")
        with open(whole, "rb") as file:
            content = bytearray(file.read())
        places = [match.start() for match in re.finditer(b"ccdp", content)]
        content[places[3] - 1] ^= 1  # an atom's size
        content[places[5] + 4] ^= 1  # a packet's mark
        with open(self.path("broken.mov"), "wb") as file:
            file.write(content)
        self.recorded("control.mov", "-i", whole, "--caption-format", "608")
        self.assertEqual(self.warning, "")
        output = self.recorded("broken608.mov", "-i", self.path("broken.mov"),
                               "--caption-format", "608")
        self.assertEqual(self.warning, "kvmp4: 2 broken captions were left out\n")
        self.assertEqual(len(packets(output, "c608")), FRAMES - 2)
        # As packets they are passed on, and only the atom must be whole.
        output = self.recorded("broken708.mov", "-i", self.path("broken.mov"))
        self.assertEqual(self.warning, "kvmp4: 1 broken captions were left out\n")
        self.assertEqual(len(packets(output, "c708")), FRAMES - 1)

    def test_tracks_turn_from_one_form_into_the_other(self):
        said = [[b"\xfc\xc8\xe5", b"\xfd\x15\x2c"]] * FRAMES
        source = graft(self.plain(), self.path("turned.ts"), said)
        first = self.recorded("as608.mov", "-i", source)
        turned = self.recorded("as708.mov", "-i", first, "--caption-format", "708")
        self.assertEqual([cdp_entries(atoms(data)[0][1]) for _, data in packets(turned, "c708")],
                         said)
        back = self.recorded("back.mov", "-i", turned, "--caption-format", "608")
        self.assertEqual(packets(back, "c608"), packets(first, "c608"))


class TimeCode(Case):
    def shown(self, path):
        """The time codes of the tracks, and the number in the time-code track's sample."""
        labels = {s["codec_tag_string"]: s.get("tags", {}).get("timecode") for s in streams(path)}
        (_, sample), = packets(path, "tmcd")
        return labels["avc1"], labels["tmcd"], int.from_bytes(sample, "big")

    def test_the_given_time_code_is_shown_and_names_the_frame(self):
        for rate, label_, number in (
                ("30000/1001", "00:00:00:00", 0),
                ("30000/1001", "01:00:00:00", 108000),
                ("30000/1001", "00:00:59;29", 1799),
                ("30000/1001", "00:01:00;02", 1800),
                ("30000/1001", "00:10:00;00", 17982),
                ("30000/1001", "10:00:00;00", 1078920),
                ("60000/1001", "00:01:00;04", 3600),
                ("60000/1001", "00:01:00:00", 3600),
                ("24000/1001", "00:00:01:23", 47),
                ("25", "23:59:59:24", 2159999)):
            for kind in ("mov", "mp4"):
                with self.subTest(rate=rate, label=label_, kind=kind):
                    output = self.recorded(f"tc.{kind}", "-i", self.video(rate), "--timecode",
                                           label_)
                    self.assertEqual(self.shown(output), (label_, label_, number))

    def test_the_time_code_of_the_input_is_kept(self):
        track = self.once("timed.qt", lambda path: ffmpeg(
            "-i", self.video(), "-c", "copy", "-timecode", "01:02:03;04", "-f", "mov", path))
        self.assertEqual(tracks(track), ["avc1", "tmcd"])
        item = self.once("timed.mkv", lambda path: ffmpeg(
            "-i", self.video(), "-c", "copy", "-metadata", "timecode=01:02:03;04", path))
        # An hour is 107892 frames, 2 minutes 3596, then 3 seconds and 4 frames: 111582
        for source in (track, item):
            output = self.recorded("kept.mov", "-i", source)
            self.assertEqual(self.shown(output), ("01:02:03;04", "01:02:03;04", 111582))
        output = self.recorded("kept.mov", "-i", track, "--timecode", "00:00:01:00")
        self.assertEqual(self.shown(output), ("00:00:01:00", "00:00:01:00", 30))
        self.assertEqual(tracks(self.recorded("kept.mov", "-i", track, "--timecode", "none")),
                         ["avc1"])

    def test_a_time_code_of_the_input_that_names_no_frame_is_left_out(self):
        source = self.path("wrong.mkv")
        ffmpeg("-i", self.video(), "-c", "copy", "-metadata", "timecode=01:02:63:04", source)
        self.assertEqual(tracks(self.recorded("wrong.mov", "-i", source)), ["avc1"])
        self.assertRegex(self.warning, r"^kvmp4: [^\n]*01:02:63:04[^\n]*\n$")

    def test_a_raw_stream_counts_at_the_rate_given(self):
        output = self.recorded("raw.mov", "-i", self.plain(), "--fps", "25", "--timecode",
                               "00:00:01:00")
        self.assertEqual(self.shown(output), ("00:00:01:00", "00:00:01:00", 25))


class Refused(Case):
    def test_bad_values_give_one_sentence_and_leave_no_file(self):
        script, video = self.script(), self.video()
        text = self.path("text.scc")
        with open(text, "w") as file:
            file.write("no captions")
        sound = self.path("sound.aac")
        ffmpeg("-f", "lavfi", "-i", "sine=duration=0.2", "-c:a", "aac", sound)
        output = self.path("refused.mov")
        self.recorded("control.mov", "-i", video, "-i", script, "--timecode", "10:00:00;00")
        cases = [
            (2, ["-i", video, "--timecode", "noon"]),
            (2, ["-i", video, "--timecode", "10:00:00"]),
            (2, ["-i", video, "--timecode", "10:00:00:00:00"]),
            (2, ["-i", video, "--timecode", "24:00:00:00"]),
            (2, ["-i", video, "--timecode", "10:60:00:00"]),
            (2, ["-i", video, "--timecode", "10:00:60:00"]),
            (2, ["-i", video, "--timecode", "10:00:00:30"]),
            (2, ["-i", video, "--timecode", "00:01:00;00"]),  # a dropped frame
            (2, ["-i", self.video("25"), "--timecode", "10:00:00;00"]),
            (2, ["-i", sound, "--timecode", "10:00:00:00"]),
            (2, ["-i", video, "--caption-format", "609"]),
            (2, ["-i", video, "-i", script, "--captions", "none"]),
            (2, ["-i", video, "-i", script, "-i", self.script()]),
            (3, ["-i", video, "-i", self.path("missing.scc")]),
            (3, ["-i", video, "-i", text]),
            (4, ["-i", video, "--captions", "0"]),
            (4, ["-i", video, "--captions", "7"]),
            (4, ["-i", video, "--captions", "some"]),
            (4, ["-i", script]),
        ]
        for code, arguments in cases:
            with self.subTest(arguments=arguments[1:]):
                result = self.record(*arguments, "-o", output)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertRegex(result.stderr, r"^kvmp4: [^\n]+\n$")
                self.assertFalse(os.path.exists(output))


class AllTracks(Case):
    """A file with video, sound, time code and captions."""

    def recordings(self):
        for kind in ("mov", "mp4"):
            with self.subTest(kind=kind):
                output = self.recorded(f"all.{kind}", "-i", self.encoded(), "--timecode",
                                       "10:00:00;00")
                self.assertEqual(tracks(output), ["avc1", "c608", "mp4a", "tmcd"])
                yield output

    def raw(self, path):
        """All pictures and all sound as FFmpeg decodes them."""
        return (must("ffmpeg", "-v", "error", "-i", path, "-map", "0:v", "-f", "rawvideo",
                     "-pix_fmt", "yuv420p", "-"),
                must("ffmpeg", "-v", "error", "-i", path, "-map", "0:a", "-f", "f32le", "-"))

    def test_ffmpeg_decodes_what_it_decodes_of_the_source(self):
        source = self.raw(self.encoded())
        self.assertEqual(len(source[0]), FRAMES * 160 * 120 * 3 // 2)
        for output in self.recordings():
            self.assertEqual(self.raw(output), source)

    def test_gstreamer_decodes_the_same(self):
        source = self.raw(self.encoded())
        for output in self.recordings():
            pictures, sound = self.path("pictures"), self.path("sound")
            must("gst-launch-1.0", "-q", "filesrc", f"location={output}", "!", "qtdemux",
                 "name=file", "file.video_0", "!", "queue", "!", "h264parse", "!", "avdec_h264",
                 "!", "video/x-raw,format=I420", "!", "filesink", f"location={pictures}",
                 "file.audio_0", "!", "queue", "!", "aacparse", "!", "avdec_aac", "!",
                 "audioconvert", "!", "audio/x-raw,format=F32LE,layout=interleaved", "!",
                 "filesink", f"location={sound}")
            with open(pictures, "rb") as file:
                self.assertEqual(file.read(), source[0])
            self.assertEqual(os.path.getsize(sound), len(source[1]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
