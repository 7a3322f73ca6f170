#!/usr/bin/env python3
"""`kvmp4 inspect`: boxes, fields and tracks of files of several writers, held against bytes read here
and against ffprobe; logs made by hand; maps; and what it says of damaged files.

    test_inspect.py KVMP4 [unittest arguments]
"""
import json
import os
import re
import struct
import sys
import unittest
import xml.etree.ElementTree

from boxes import Editor, walk
from media import Media
from programs import InFolder, run, run_into_a_full_disk, undocumented, unreadable

KVMP4 = os.path.abspath(sys.argv.pop(1))
STBL = "moov/trak[1]/mdia/minf/stbl"


def flat(boxes):
    for box in boxes:
        yield box
        yield from flat(box.get("boxes", []))


class Case(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.media = Media(cls.folder.name, KVMP4)

    def inspect(self, *arguments, code=0):
        result = run(KVMP4, "inspect", *arguments)
        self.assertEqual((result.returncode, result.stderr), (code, ""))
        return result.stdout

    def json(self, *arguments, code=0):
        return json.loads(self.inspect("--json", *arguments, code=code))

    def box(self, report, path):
        return next(box for box in flat(report["boxes"]) if box["path"] == path)

    def own(self):
        return self.media.recorded("own.mp4", "h264", "--metadata", "title=T")

    def written(self, name, content):
        path = self.media.path(name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def edited(self, path=None):
        with open(path or self.own(), "rb") as file:
            return Editor(file.read())


class Boxes(Case):
    def files(self):
        return [self.own(), self.media.recorded("own.mov", "hevc", "--version1"),
                self.media.recorded("own_tracks.mov", "prores", "-i", self.media.scc(),
                                    "--timecode", "00:00:00:00", "--large-file"),
                *map(self.media.of_ffmpeg, ("h264.mp4", "faststart.mp4", "fragments.mp4",
                                            "dash.mp4", "h264.mov", "text.mov", "captions.mov")),
                *map(self.media.of_gstreamer, ("g_h264.mp4", "g_prores.mov"))]

    def test_every_box_is_at_its_place(self):
        for path in self.files():
            with self.subTest(path=path):
                shown = {(box["offset"], box["size"], box["type"])
                         for box in flat(self.json(path)["boxes"])}
                for _, begin, end, kind, _ in walk(self.edited(path).data):
                    if kind.isalnum():
                        self.assertIn((begin, end - begin, kind.decode()), shown)

    def test_the_boxes_of_a_recording_in_lines(self):
        lines = self.inspect(self.own()).splitlines()
        first = next(n for n, line in enumerate(lines) if line.split() == ["at", "size", "box"])
        self.assertEqual(lines[first + 1],
                         "           0           28  ftyp  brand isom, minor 512, "
                         "compatible isom iso2 mp41")
        self.assertEqual(lines[first + 2], "          28            8  free")
        self.assertRegex(lines[first + 3], r"^          36 +\d+  mdat$")
        self.assertTrue(any(re.fullmatch(r" +\d+ +28        elst  version 0, entries 1, "
                                         r"edits 2000 from 0", line) for line in lines))

    def test_fields_are_those_in_the_file(self):
        editor, report = self.edited(), self.json(self.own())
        mvhd = self.box(report, "moov/mvhd")["fields"]
        self.assertEqual((mvhd["timescale"], mvhd["duration"], mvhd["next track id"]),
                         (1000, editor.get("moov/mvhd", 24), 3))
        tkhd = self.box(report, "moov/trak[1]/tkhd")["fields"]
        self.assertEqual((tkhd["track id"], tkhd["width"], tkhd["height"], tkhd["flags"]),
                         (1, "160", "120", "000003"))
        avcc = self.box(report, STBL + "/stsd/avc1/avcC")["fields"]
        begin = editor.begin(STBL + "/stsd/avc1/avcC")
        self.assertEqual((avcc["profile"], avcc["constraints"], avcc["level"]),
                         tuple(editor.data[begin + 9:begin + 12]))
        self.assertEqual(avcc["coded picture"], "160 x 120")
        esds = self.box(report, "moov/trak[2]/mdia/minf/stbl/stsd/mp4a/esds")["fields"]
        self.assertEqual(esds["config"], "1190")
        self.assertEqual(esds["aac"], "type 2, 48000 Hz, 2 channels")
        hdlr = self.box(report, "moov/trak[1]/mdia/hdlr")["fields"]
        self.assertEqual((hdlr["handler"], hdlr["name"]), ("vide", "VideoHandler"))
        self.assertEqual(self.box(report, "moov/udta/meta/ilst/\u00a9nam/data")["fields"]["value"],
                         "T")

    def test_the_names_of_a_report_are_documented(self):
        cut = self.edited(self.media.of_ffmpeg("fragments.mp4")).data[:-9]
        log = self.written("named.mp4.info", LOG + b"\x63abc")
        for path, code in ((self.own(), 0), (self.written("named.mp4", cut), 12), (log, 12)):
            report = self.json("--packets", path, code=code)
            for packet in report.get("set up", []) + report.get("listed", []):
                for name in list(packet)[2:]:
                    del packet[name]
            self.assertEqual(undocumented(report, skip=("fields", "counts")), set())

    def test_tables_are_runs(self):
        report = self.json(self.own())
        self.assertEqual(self.box(report, STBL + "/stts")["fields"]["runs"], "50 x 40")
        self.assertEqual(self.box(report, STBL + "/stss")["fields"]["runs"], "1, 11, 21, 31, 41")
        editor = self.edited()
        sizes = [editor.get(STBL + "/stsz", 20 + 4 * n) for n in range(50)]
        stsz = self.box(report, STBL + "/stsz")["fields"]
        self.assertEqual((stsz["samples"], stsz["total"], stsz["smallest"], stsz["largest"]),
                         (50, sum(sizes), min(sizes), max(sizes)))
        self.assertEqual(stsz["runs"],
                         ", ".join(map(str, sizes[:8])) + f", ... {sizes[-1]}")
        whole = self.box(self.json("--all", self.own()), STBL + "/stsz")["fields"]
        self.assertEqual(whole["runs"], ", ".join(map(str, sizes)))

    def test_wide_sizes_and_boxes_up_to_the_end_are_told(self):
        large = self.media.recorded("large.mp4", "h264", "--large-file")
        self.assertEqual(self.box(self.json(large), "mdat")["header"], 16)
        self.assertIn("(64-bit size)", self.inspect(large))
        editor = self.edited(self.media.of_ffmpeg("faststart.mp4"))
        editor.put("mdat", 0, 0)
        self.assertTrue(self.box(self.json(self.written("end.mp4", editor.data)), "mdat")["to end"])


class Tracks(Case):
    def probed(self, path):
        """(codec tag, packets, key packets, bytes) of each stream."""
        streams = json.loads(run("ffprobe", "-v", "error", "-show_streams", "-of", "json",
                                 path).stdout)["streams"]
        packets = json.loads(run("ffprobe", "-v", "error", "-show_entries",
                                 "packet=stream_index,size,flags", "-of", "json",
                                 path).stdout)["packets"]
        found = []
        for stream in streams:
            own = [p for p in packets if p["stream_index"] == stream["index"]]
            found.append((stream["codec_tag_string"], len(own),
                          sum(p["flags"].startswith("K") for p in own),
                          sum(int(p["size"]) for p in own)))
        return found

    def test_sums_are_those_of_ffprobe(self):
        paths = [self.own(), self.media.recorded("own.mov", "hevc"),
                 *map(self.media.of_ffmpeg, ("h264.mp4", "fragments.mp4", "fragments_behind.mp4",
                                             "dash.mp4", "hvc1.mov")),
                 *map(self.media.of_gstreamer, ("g_h264.mov", "g_fragments.mp4"))]
        for path in paths:
            with self.subTest(path=path):
                self.assertEqual([(t["codec"], t["samples"], t["key frames"], t["bytes"])
                                  for t in self.json(path)["tracks"]], self.probed(path))

    def test_a_track_in_a_line(self):
        track = self.json(self.own())["tracks"][0]
        self.assertEqual((track["kind"], track["width"], track["height"], track["timescale"],
                          track["seconds"], track["rate"]), ("video", 160, 120, 1000, 2.0, 25.0))
        line = self.inspect(self.own()).splitlines()[1]
        self.assertRegex(line, r"^  track 1: video, avc1 \(H\.264 Constrained Baseline \d\.\d\), "
                               r"160 x 120, 50 samples, 5 key frames, 2\.000 s, \d+ bytes, "
                               r"25\.00 a second, \d+ kbit/s, \d+ chunks$")

    def test_every_kind_has_its_name(self):
        tracks = self.media.recorded("own_tracks.mov", "prores", "-i", self.media.scc(),
                                     "--timecode", "00:00:00:00", "--large-file")
        self.assertEqual([t["kind"] for t in self.json(tracks)["tracks"]],
                         ["video", "audio", "time code", "captions"])


class Damaged(Case):
    def test_a_cut_file_shows_what_is_there_and_where_it_ends(self):
        editor = self.edited(self.media.of_ffmpeg("faststart.mp4"))
        path = self.written("cut.mp4", editor.data[:len(editor.data) * 2 // 3])
        report = self.json(path, code=12)
        self.assertEqual([(d["code"], d["path"], d["offset"]) for d in report["damage"]],
                         [("box-beyond-file", "mdat", editor.begin("mdat"))])
        self.assertTrue(self.box(report, "mdat")["cut"])
        self.assertEqual(len(report["tracks"]), 2)
        self.assertIn("Reading met this", self.inspect(path, code=12))

    def test_a_wrong_size_does_not_hide_what_stands_behind(self):
        editor = self.edited()
        editor.add("mdat", 0, 100)
        report = self.json(self.written("size.mp4", editor.data), code=12)
        self.assertEqual(report["damage"][0]["code"], "mdat-size")
        self.assertEqual(self.box(report, "moov/mvhd")["fields"]["timescale"], 1000)

    def test_other_files_have_exit_codes_of_their_own(self):
        for code, arguments in [(3, [self.media.path("missing.mp4")]), (3, [self.folder.name]),
                                (14, [self.media.scc()]), (14, [self.written("none", b"")]),
                                (2, []), (5, [self.own(), "--map", self.own()]),
                                (5, [self.own(), "--map", self.media.path("no/where.svg")])]:
            with self.subTest(arguments=arguments):
                result = run(KVMP4, "inspect", *arguments)
                self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
                if code != 2:
                    self.assertRegex(result.stderr, r"^kvmp4: [^\n]+\n$")

    def test_a_report_that_is_lost_is_told(self):
        for options in ((), ("--json",), ("--all",)):
            result = run_into_a_full_disk(KVMP4, "inspect", *options, self.own())
            self.assertEqual(result.returncode, 6)
            self.assertRegex(result.stderr, r"^kvmp4: [^\n]*standard output\n$")

    @unittest.skipUnless(unreadable(), "no file that opens and cannot be read")
    def test_a_read_error_is_no_damage(self):
        result = run(KVMP4, "inspect", unreadable())
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertIn("Invalid argument", result.stderr)


# A log by hand: safe mode and info file, mdat at 36.
HEADER = struct.pack(">BI", 0x18, 36)
VIDEO = struct.pack(">BIQBHHI", 2, 1000, 40, 0, 160, 120, 5) + b"\x67abcd" + b"\0\0\0\2\x68e"
AUDIO = struct.pack(">BIQBHHB", 3, 48000, 1024, 1, 48000, 2, 2)
TITLE = b"\1\1\0\0\0\6title\0\0\0\0\2T\0\0\0\0\0"
FRAME = struct.pack(">BQQBI", 4, 40, 80, 1, 1234)
SOUND = struct.pack(">BQI", 5, 1024, 321)
CAPTIONS = struct.pack(">BIB", 6, 30000, 2)
CAPTION = struct.pack(">BQI", 7, 1001, 20)
TIMECODE = struct.pack(">BIQBI", 8, 30000, 1001, 30, 1)
LABEL = struct.pack(">BI", 9, 107892)
LOG = HEADER + VIDEO + AUDIO + TITLE + CAPTIONS + TIMECODE + LABEL + FRAME + SOUND + CAPTION + SOUND


class Logs(Case):
    def log(self, content):
        return self.written("take.mp4.info", content)

    def test_all_packets_by_name(self):
        report = self.json("--packets", self.log(LOG))
        self.assertEqual((report["flags"], report["mdat position"], report["packets"]), (24, 36, 10))
        self.assertEqual(report["counts"],
                         {"video track": 1, "audio track": 1, "metadata": 1, "caption track": 1,
                          "time code track": 1, "time code": 1, "video frame": 1,
                          "audio frame": 2, "caption frame": 1})
        self.assertNotIn("stopped", report)
        at = len(HEADER)
        self.assertEqual(report["listed"][0],
                         {"at": at, "packet": "video track", "timescale": 1000,
                          "sample duration": 40, "codec": "H.264", "width": 160, "height": 120,
                          "sps": 5, "pps": 2})
        at += len(VIDEO)
        self.assertEqual(report["listed"][1],
                         {"at": at, "packet": "audio track", "timescale": 48000,
                          "sample duration": 1024, "codec": "AAC", "rate": 48000, "channels": 2,
                          "object type": 2})
        self.assertEqual(report["listed"][2]["value"], "T")
        self.assertEqual(report["listed"][3]["codec"], "CEA-708")
        self.assertEqual(report["listed"][4]["frames a second"], 30)
        self.assertEqual(report["listed"][5]["frame number"], 107892)
        frame = report["listed"][6]
        self.assertEqual((frame["pts"], frame["dts"], frame["key"], frame["size"]),
                         (40, 80, True, 1234))
        self.assertEqual(report["listed"][8]["time"], 1001)

    def test_a_log_in_lines(self):
        text = self.inspect(self.log(LOG))
        self.assertIn("flags 18 (safe mode, info file), mdat at 36", text)
        self.assertIn("10 packets: 1 x video track", text)
        self.assertNotIn("video frame  pts", text)
        listed = self.inspect("--packets", self.log(LOG))
        self.assertIn("video frame  pts 40, dts 80, key true, size 1234", listed)

    def test_a_cut_log_ends_with_its_last_whole_packet(self):
        report = self.json(self.log(LOG[:-3]))
        self.assertEqual((report["packets"], report["end"], report["stopped"]),
                         (9, len(LOG) - len(SOUND), "a cut audio frame"))

    def test_a_tag_that_is_none_is_a_damage(self):
        report = self.json(self.log(LOG + b"\x63abc"), code=12)
        self.assertEqual((report["packets"], report["end"], report["stopped"]),
                         (10, len(LOG), "no packet has the tag 99"))

    def test_a_log_without_a_packet(self):
        self.assertEqual(self.json(self.log(HEADER))["packets"], 0)


class Maps(Case):
    def page(self, path, name="map.html"):
        """(at, bytes, use) of the regions that a page lists."""
        self.inspect("-y", "--map", self.media.path(name), path)
        with open(self.media.path(name), encoding="utf-8") as file:
            text = file.read()
        return [(int(at), int(size), use) for at, size, use in
                re.findall(r"<tr><td>(\d+)</td><td>(\d+)</td><td>([^<]+)</td>", text)]

    def safe(self):
        return self.media.recorded("safe.mp4", "h264", "--safe", "--safe-min", "400KB")

    def test_the_picture_is_well_formed_and_shows_every_lane(self):
        path = self.media.path("map.svg")
        self.inspect("-y", "--map", path, self.own())
        root = xml.etree.ElementTree.parse(path).getroot()
        space = "{http://www.w3.org/2000/svg}"
        self.assertEqual(root.tag, space + "svg")
        texts = [text.text for text in root.iter(space + "text")]
        for lane in ("boxes", "track 1 video", "track 2 sound", "old movies", "unused"):
            self.assertIn(lane, texts)
        self.assertTrue(any(text.startswith("track 1 video: ") for text in texts))

    def test_what_lies_where(self):
        editor = self.edited()
        begin, end = editor.span("moov")
        self.assertEqual(self.page(self.own()),
                         [(0, 28, "box"), (28, 8, "box"), (36, 8, "box"),
                          (begin, end - begin, "movie in force")])

    def test_slack_between_data_and_movie(self):
        regions = self.page(self.safe())
        self.assertEqual([use for _, _, use in regions],
                         ["box", "box", "box", "zeros", "movie in force"])
        self.assertEqual(sum(regions[-2][:2]), 400 * 1024)

    def test_checkpoints_that_are_no_longer_in_force(self):
        editor = self.edited(self.safe())
        begin, end = editor.span("moov")
        movie = bytes(editor.data[begin:end])
        at = begin - 2 * len(movie)
        editor.data[at:at + len(movie)] = movie
        self.assertIn((at, len(movie), "old movie"),
                      self.page(self.written("old.mp4", editor.data)))

    def test_other_bytes_that_nothing_refers_to(self):
        editor = self.edited(self.safe())
        at = editor.begin("moov") - 5000
        editor.data[at:at + 700] = b"x" * 700
        self.assertIn((at, 700, "unused"), self.page(self.written("rest.mp4", editor.data)))

    def test_a_map_is_not_overwritten_unasked(self):
        path = self.written("kept.svg", b"kept")
        self.assertEqual(run(KVMP4, "inspect", "--map", path, self.own()).returncode, 5)
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"kept")

    def test_a_map_never_overwrites_what_it_shows(self):
        path, other = self.written("take.mp4", self.edited().data), self.media.path("linked.svg")
        os.link(path, other)
        for name in (path, other):
            result = run(KVMP4, "inspect", "-y", "--map", name, path)
            self.assertEqual((result.returncode, result.stdout), (5, ""))
            self.assertIn("would overwrite the file", result.stderr)
        self.assertEqual(self.edited(path).data, self.edited().data)


if __name__ == "__main__":
    unittest.main(verbosity=2)
